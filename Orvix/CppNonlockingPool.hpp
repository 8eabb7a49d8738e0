// orvix::NonlockingPool: a fixed stack of pointers to objects that exist already.
//
// get() hands out the most recently returned free object, put() takes one back; any thread may
// call them. The pool's mutex is held only for a few instructions, and the pool never makes a
// caller wait for an object: it throws util::GeneralException "Pool underflow" when none is
// free and "Pool overflow" on a surplus return, and stays usable after either. The objects are
// the caller's; the pool neither builds nor destroys them.
#pragma once

#include <cstdint>
#include <mutex>
#include <new>

#include "Orvix/GeneralException.hpp"
#include "Orvix/OrvixAssert.hpp"

namespace orvix {

template <typename T>
class NonlockingPool {
 public:
  // Offers objects[0] to objects[size - 1]; throws std::bad_array_new_length when size exceeds
  // 0x1FFFFFFE (the limit of the pointer array on the controller).
  NonlockingPool(T* objects, int size)
      : objects(objects), size(size), available(newArray(size)), next(nullptr),
        availableEnd(available + size) {
    std::lock_guard<std::mutex> lock(mutex);
    for (int i = 0; i < size; ++i) available[i] = &objects[i];
    next = available;
  }

  virtual ~NonlockingPool() { delete[] available; }

  NonlockingPool(const NonlockingPool&) = delete;
  NonlockingPool& operator=(const NonlockingPool&) = delete;

  // A free object; throws "Pool underflow" when none is left.
  T* get() {
    std::lock_guard<std::mutex> lock(mutex);
    T** old = next;
    // next never passes availableEnd (underflow puts it back); kept as the contract's check.
    ORVIX_ASSERT(old - available <= size, "newNext - available <= size",
                 "Orvix/CppNonlockingPool.hpp", 125);
    ++next;
    if (old < availableEnd) return *old;
    next = old;
    throw util::GeneralException("Pool underflow");
  }

  // Takes obj back; throws "Pool overflow" when every object is in already.
  void put(T* obj) {
    std::lock_guard<std::mutex> lock(mutex);
    if (next > available) {
      --next;
      *next = obj;
      return;
    }
    throw util::GeneralException("Pool overflow");
  }

 private:
  static T** newArray(int size) {
    if (static_cast<uint32_t>(size) > 0x1FFFFFFEu) throw std::bad_array_new_length();
    return new T*[static_cast<uint32_t>(size)];
  }

  T* const objects;       // the caller's
  const int size;
  T** const available;    // owned; [next, availableEnd) are free
  T** next;               // guarded by mutex
  T** const availableEnd;
  std::mutex mutex;
};

}  // namespace orvix
