// Profiling of real-time paths: time collectors and the pool that prints them.
//
// A TimeCollector records named wall-clock time points into memory of its own heap and prints
// them later with the nanoseconds since the first and since the previous entry. A
// TimeCollectorPool carves a fixed number of collectors out of one locked heap, hands them to
// measuring code (get), takes filled ones back (dump) through a queue that never blocks the
// producer, and prints them on its own dump thread; after construction nothing in that cycle
// calls the system allocator.
//
// Threads: a collector belongs to one thread at a time and is not locked. get, put and dump of a
// pool may be called from any thread; only the dump thread writes to the pool's stream.
// Failures: "Pool underflow" / "Pool overflow" (util::GeneralException) when the pool runs dry or
// gets a surplus return; a string still alive at reset, or a collector heap that overflows,
// fails an assertion and aborts. Building a pool gives std::cout blank-grouped numbers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Orvix/CppBlockingQueue.hpp"
#include "Orvix/CppFastAllocator.hpp"
#include "Orvix/CppNonlockingPool.hpp"
#include "Orvix/CppPthread.hpp"
#include "Orvix/Locale.hpp"
#include "Orvix/OrvixAssert.hpp"

namespace orvix {

class TimeCollector;
class TimeCollectorPool;

// Gives a string made by TimeCollector::string back to its collector's heap.
struct StringDeleter {
  TimeCollector* tc = nullptr;
  template <typename S>
  void operator()(S* s) const;
};

// Returns a collector handed out by a pool to that pool.
struct TimeCollectorDeleter {
  TimeCollectorPool* tcp = nullptr;
  void operator()(TimeCollector* collector) const;
};

class TimeCollector {
 public:
  // A string living in the collector's heap (up to 15 characters inside the object).
  using MyString = std::basic_string<char, std::char_traits<char>, FastAllocator<char>>;
  // Nanoseconds of the system clock.
  using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;
  using Entry = std::pair<MyString, TimePoint>;
  using EntryVector = std::vector<Entry, FastAllocator<Entry>>;
  using StringPtr = std::unique_ptr<MyString, StringDeleter>;

  // Bytes of the heap of a stand-alone collector.
  static constexpr size_t OWN_HEAP_SIZE = 0x40000;
  // Entries more than this many nanoseconds after the first are flagged.
  static constexpr int64_t WARN_NS = 1000000;

  // A stand-alone collector with its own heap (building it locks memory); reserves capacity
  // entries.
  explicit TimeCollector(int capacity);
  // A collector over the heap of alloc (a pool's sub-heap); nothing reserved.
  explicit TimeCollector(const FastAllocator<Entry>& alloc);
  TimeCollector(const TimeCollector&) = delete;
  TimeCollector& operator=(const TimeCollector&) = delete;

  // Drops every entry and its storage, checks the heap is empty again (so it restarts from its
  // beginning) and reserves atLeastCapacity entries.
  void reset(int atLeastCapacity);

  // Appends name with the current time; all memory from the collector's heap.
  void stamp(const char* name) {
    const TimePoint now = std::chrono::system_clock::now();
    stamp(name, now);
  }
  // Appends name with time t.
  void stamp(const char* name, TimePoint t) {
    entries.emplace_back(std::piecewise_construct,
                         std::forward_as_tuple(name, FastAllocator<char>(allocator)),
                         std::forward_as_tuple(t));
  }

  // A copy of s in the collector's heap, given back when the pointer is dropped.
  StringPtr string(const char* s) { return string2(s); }
  // The same from any string-constructor arguments.
  template <typename... Args>
  StringPtr string2(Args&&... args) {
    FastAllocator<MyString> a(allocator);
    MyString* p = a.allocate(1);
    new (p) MyString(std::forward<Args>(args)..., FastAllocator<char>(allocator));
    return StringPtr(p, StringDeleter{this});
  }
  // Destroys s and returns its memory to the heap.
  void tidyUpString(MyString* s);

  // Prints every entry (name padded to nameWidth, time, distance to the first and to the
  // previous entry, the 1 ms warning) and the total.
  void dump(std::ostream& os, int nameWidth);

  const EntryVector& getEntries() const { return entries; }
  const FastAllocator<Entry>& getAllocator() const { return allocator; }

 private:
  const FastAllocator<Entry> allocator;
  EntryVector entries;  // in recording order
};

template <typename S>
void StringDeleter::operator()(S* s) const {
  ORVIX_ASSERT(tc, "tc", "Orvix/CppTimeCollector.hpp", 102);
  tc->tidyUpString(s);
}

class TimeCollectorPool {
 public:
  using CollectorPtr = std::unique_ptr<TimeCollector, TimeCollectorDeleter>;
  using Queue = BlockingQueue<CollectorPtr, FastAllocator<CollectorPtr>>;

  // Stack of the dump thread, in KiB.
  static constexpr uint32_t THREAD_STACK_SIZE = 0x800;

  // Bytes per collector beside its sub-heap (sub-heap and collector objects), and for the pool
  // and queue objects; 64 and 152 on the controller.
  static constexpr size_t PER_COLLECTOR_BYTES =
      roundUpTo8(sizeof(SubHeap)) + roundUpTo8(sizeof(TimeCollector));
  static constexpr size_t FIXED_BYTES =
      roundUpTo8(sizeof(NonlockingPool<TimeCollector>)) + roundUpTo8(sizeof(Queue));
  // The one heap of a pool: queue slots, sub-heaps with their objects, pool and queue.
  static constexpr size_t heapSize(size_t subHeapSize, size_t poolSize) {
    return (poolSize + 1) * sizeof(CollectorPtr) + poolSize * (subHeapSize + PER_COLLECTOR_BYTES) +
           FIXED_BYTES;
  }

  // poolSize collectors of subHeapSize bytes each, printed to out with names padded to
  // nameWidth; starts the dump thread and imbues std::cout with MyNumPunct.
  TimeCollectorPool(std::ostream& out, int nameWidth, size_t subHeapSize, size_t poolSize);
  // Lets the dump thread print what is queued, joins it and gives everything back.
  ~TimeCollectorPool();
  TimeCollectorPool(const TimeCollectorPool&) = delete;
  TimeCollectorPool& operator=(const TimeCollectorPool&) = delete;

  // An empty collector with room for atLeastCapacity entries; throws "Pool underflow".
  CollectorPtr get(unsigned atLeastCapacity);
  // Takes a collector back; throws "Pool overflow".
  void put(TimeCollector* tc);
  // Queues tc for printing without waiting; when the queue is full tc stays with the caller
  // and returns to the pool unprinted when dropped.
  void dump(CollectorPtr&& tc);

  // The dump thread's start function: runs threadRun on self.
  static void* threadFunc(void* self);
  // Pops and prints collectors until the queue is closed or canceled.
  void threadRun();

  const std::shared_ptr<SimpleHeap>& getHeap() const { return heap; }

 private:
  void destroyParts();

  std::ostream& out;
  const int nameWidth;
  size_t poolSize;  // set at construction; cut to the collectors built when that fails
  const std::shared_ptr<SimpleHeap> heap;
  // The parts below are placed in heap by the constructor and reset by destroyParts only.
  SubHeap* subHeaps;                   // poolSize
  TimeCollector* collectors;           // poolSize
  NonlockingPool<TimeCollector>* pool;
  Queue* queue;
  Pthread thread;                      // the dump thread, started by the constructor
};

#if defined(__arm__)
// The controller's layout, on which the pool's heap size is reckoned.
static_assert(sizeof(TimeCollectorPool::CollectorPtr) == 8, "queue slot of 8 bytes");
static_assert(TimeCollectorPool::PER_COLLECTOR_BYTES == 64, "64 bytes per collector");
static_assert(TimeCollectorPool::FIXED_BYTES == 152, "152 bytes of pool and queue");
#endif

}  // namespace orvix
