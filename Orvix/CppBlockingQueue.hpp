// orvix::BlockingQueue: a bounded ring of movable items handed from producers to consumers.
//
// Any thread may push or pop; positions and flags are touched only under the queue's mutex.
// push never blocks: when the ring is full the item stays with the caller (push returns false).
// pop blocks while the queue is empty; after cancel() it throws BlockingQueueCanceledException
// at once (even with items queued), after close() it drains what is queued and then throws
// BlockingQueueClosedException. The slots come from the given allocator at construction; nothing
// is allocated afterwards. Corrupt positions fail an assertion and abort.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "Orvix/OrvixAssert.hpp"

namespace orvix {

// pop on a closed, drained queue.
class BlockingQueueClosedException : public std::underflow_error {
 public:
  BlockingQueueClosedException() : std::underflow_error("BlockingQueue closed") {}
};

// pop on a canceled queue.
class BlockingQueueCanceledException : public std::underflow_error {
 public:
  BlockingQueueCanceledException() : std::underflow_error("BlockingQueue canceled") {}
};

// For bounded queues that refuse items; raised nowhere in this library.
class FencedQueueOverflowException : public std::runtime_error {
 public:
  FencedQueueOverflowException() : std::runtime_error("FencedQueueOverflowException") {}
};

template <typename T, typename Alloc>
class BlockingQueue {
 public:
  // capacity + 1 empty slots from alloc: one always stays free to tell full from empty.
  BlockingQueue(std::size_t capacity, const Alloc& alloc)
      : allocator(alloc), capacity(capacity), array(nullptr), writePos(nullptr), readPos(nullptr),
        canceled(false), closed(false) {
    array = std::allocator_traits<Alloc>::allocate(allocator, capacity + 1);
    for (std::size_t i = 0; i <= capacity; ++i) {
      std::allocator_traits<Alloc>::construct(allocator, array + i);
    }
    writePos = readPos = array;
  }

  // Destroys what is still queued (from readPos up to writePos), then the empty slots. The slot
  // memory is not given back: it goes with the heap that owns it.
  ~BlockingQueue() {
    for (T* p = readPos; p != writePos; p = next(p)) p->~T();
    for (T* p = array; p <= array + capacity; ++p) {
      if (!inQueue(p)) p->~T();
    }
  }

  BlockingQueue(const BlockingQueue&) = delete;
  BlockingQueue& operator=(const BlockingQueue&) = delete;

  // The ring successor of slot p.
  T* next(T* p) const {
    ORVIX_ASSERT(p >= array && p <= array + capacity, "p >= array && p <= array + capacity",
                 "Orvix/CppBlockingQueue.hpp", 136);
    T* result = p == array + capacity ? array : p + 1;
    // Cannot fail once the first check held; kept because the contract lists both checks.
    ORVIX_ASSERT(result >= array && result <= array + capacity,
                 "p >= array && p <= array + capacity", "Orvix/CppBlockingQueue.hpp", 145);
    return result;
  }

  // Queues item unless the ring is full; never waits. On false the item stays with the caller.
  bool push(T&& item) {
    bool wasEmpty;
    {
      std::lock_guard<std::mutex> lock(mutex);
      T* w = writePos;
      if (next(w) == readPos) return false;
      *w = std::move(item);
      writePos = next(writePos);
      wasEmpty = w == readPos;
    }
    // Only the first item after a drought wakes the consumer; later ones find it awake.
    if (wasEmpty) condition.notify_one();
    return true;
  }

  // The oldest item; waits while the queue is empty.
  T pop() {
    std::unique_lock<std::mutex> lock(mutex);
    if (canceled) throw BlockingQueueCanceledException();
    if (readPos == writePos) {
      if (closed) throw BlockingQueueClosedException();
      for (;;) {
        condition.wait(lock);
        if (canceled) throw BlockingQueueCanceledException();
        if (readPos != writePos) break;
        if (closed) throw BlockingQueueClosedException();
      }
    }
    T item = std::move(*readPos);
    readPos = next(readPos);
    return item;
  }

  // Lets the consumer drain what is queued, then pop throws.
  void close() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      closed = true;
    }
    condition.notify_all();
  }

  // pop throws from now on, items queued or not.
  void cancel() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      canceled = true;
    }
    condition.notify_all();
  }

 private:
  // True for the slots between readPos and writePos (destroyed separately).
  bool inQueue(T* p) const {
    return readPos <= writePos ? (p >= readPos && p < writePos)
                               : (p >= readPos || p < writePos);
  }

  Alloc allocator;                   // not const: allocate takes it by non-const reference
  const std::size_t capacity;
  T* array;                          // capacity + 1 slots; written once, in the constructor
  T* writePos;                       // guarded by mutex
  T* readPos;                        // guarded by mutex
  std::mutex mutex;
  std::condition_variable condition;  // an item arrived in an empty queue
  bool canceled;                      // guarded by mutex
  bool closed;                        // guarded by mutex
};

}  // namespace orvix
