#include "Orvix/CppTimeCollector.hpp"

#include <iomanip>
#include <iostream>
#include <locale>
#include <new>

namespace orvix {

namespace {
constexpr const char* kUnit = "Orvix/CppTimeCollector";
}  // namespace

// The instantiations the collectors use, exported with the library.
template class FastAllocator<TimeCollector::MyString>;
template class FastAllocator<TimeCollector::Entry>;
template class FastAllocator<TimeCollectorPool::CollectorPtr>;
template class FastAllocator<TimeCollector>;
template class FastAllocator<NonlockingPool<TimeCollector>>;
template class FastAllocator<TimeCollectorPool::Queue>;
template class NonlockingPool<TimeCollector>;
template class BlockingQueue<TimeCollectorPool::CollectorPtr,
                             FastAllocator<TimeCollectorPool::CollectorPtr>>;

TimeCollector::TimeCollector(int capacity)
    : allocator(std::shared_ptr<IHeap>(std::make_shared<SimpleHeap>(OWN_HEAP_SIZE))),
      entries(allocator) {
  entries.reserve(static_cast<size_t>(capacity));
}

TimeCollector::TimeCollector(const FastAllocator<Entry>& alloc)
    : allocator(alloc), entries(allocator) {}

void TimeCollector::reset(int atLeastCapacity) {
  // Swapped with an empty vector, so that the storage goes back too.
  EntryVector(allocator).swap(entries);
  ORVIX_ASSERT(allocator.getHeap()->allFree(), "allocator.getHeap()->allFree()", kUnit, 79);
  entries.reserve(static_cast<size_t>(atLeastCapacity));
  ORVIX_ASSERT(static_cast<int>(entries.capacity()) >= atLeastCapacity,
               "(int) entries.capacity() >= atLeastCapacity", kUnit, 81);
}

void TimeCollector::tidyUpString(MyString* s) {
  FastAllocator<MyString> a(allocator);
  s->~MyString();
  a.deallocate(s, 1);
}

void TimeCollector::dump(std::ostream& os, int nameWidth) {
  if (entries.empty()) {
    os << "TimeCollector: no entries\n";
    return;
  }
  const TimePoint first = entries.front().second;
  TimePoint last = first;
  for (const Entry& e : entries) {
    const TimePoint t = e.second;
    StringPtr name = string2(e.first);
    os << *name;
    const int length = static_cast<int>(name->size());
    if (length < nameWidth) {
      StringPtr blanks = string2(static_cast<size_t>(nameWidth - length), ' ');
      os << *blanks;
    }
    const int64_t sinceFirst = (t - first).count();
    const int64_t sinceLast = (t - last).count();
    os << ": " << static_cast<int64_t>(t.time_since_epoch().count()) << " ns    (first + ";
    os << std::setw(9) << sinceFirst << " ns)   (last + ";
    os << std::setw(9) << sinceLast << " ns)\n";
    // Against the first entry on purpose: once over, every later line carries the warning.
    if (sinceFirst > WARN_NS) os << "=====> Achtung 1ms ueberschritten\n";
    last = t;
  }
  os << "===== Insgesamt: " << static_cast<int64_t>((last - first).count()) << " ns" << std::endl;
}

void TimeCollectorDeleter::operator()(TimeCollector* collector) const {
  ORVIX_ASSERT(tcp, "tcp", "Orvix/CppTimeCollector.hpp", 217);
  tcp->put(collector);
}

TimeCollectorPool::TimeCollectorPool(std::ostream& out, int nameWidth, size_t subHeapSize,
                                     size_t poolSize)
    : out(out),
      nameWidth(nameWidth),
      poolSize(poolSize),
      heap(std::make_shared<SimpleHeap>(heapSize(subHeapSize, poolSize))),
      subHeaps(nullptr),
      collectors(nullptr),
      pool(nullptr),
      queue(nullptr),
      thread() {
  std::cout.imbue(std::locale(std::locale::classic(), new MyNumPunct));
  size_t built = 0;
  try {
    FastAllocator<SubHeap> subHeapAlloc{std::shared_ptr<IHeap>(heap)};
    ORVIX_ASSERT(subHeapAlloc.getHeap().get() == heap.get(),
                 "subHeapAlloc.getHeap().get() == heap.get()", kUnit, 160);
    subHeaps = subHeapAlloc.allocate(poolSize);
    FastAllocator<TimeCollector> collectorAlloc(subHeapAlloc);
    collectors = collectorAlloc.allocate(poolSize);
    for (; built < poolSize; ++built) {
      SubHeap* sub = new (&subHeaps[built]) SubHeap(*heap, subHeapSize);
      try {
        // The sub-heap is placed in heap and destroyed explicitly: the pointer never frees it.
        std::shared_ptr<IHeap> subPtr(sub, EmptyDeleter<IHeap>());
        new (&collectors[built]) TimeCollector(FastAllocator<TimeCollector::Entry>(subPtr));
      } catch (...) {
        sub->~SubHeap();
        throw;
      }
    }
    FastAllocator<NonlockingPool<TimeCollector>> poolAlloc(subHeapAlloc);
    auto* poolMem = poolAlloc.allocate(1);
    pool = new (poolMem) NonlockingPool<TimeCollector>(collectors, static_cast<int>(poolSize));
    FastAllocator<Queue> queueAlloc(subHeapAlloc);
    auto* queueMem = queueAlloc.allocate(1);
    queue = new (queueMem) Queue(poolSize, FastAllocator<CollectorPtr>(subHeapAlloc));
    thread = Pthread(&TimeCollectorPool::threadFunc, this, THREAD_STACK_SIZE);
  } catch (...) {
    poolSize = built;
    destroyParts();
    throw;
  }
}

TimeCollectorPool::~TimeCollectorPool() {
  // An orderly end: the dump thread prints what is queued, then leaves its loop.
  if (queue != nullptr) queue->close();
  if (thread.getState() == Pthread::RUNNING) thread.join();
  destroyParts();
}

void TimeCollectorPool::destroyParts() {
  if (queue != nullptr) {
    queue->~Queue();
    heap->dealloc(queue, sizeof(Queue));
    queue = nullptr;
  }
  if (pool != nullptr) {
    pool->~NonlockingPool<TimeCollector>();
    heap->dealloc(pool, sizeof(NonlockingPool<TimeCollector>));
    pool = nullptr;
  }
  for (size_t i = poolSize; i > 0; --i) {
    collectors[i - 1].~TimeCollector();
    subHeaps[i - 1].~SubHeap();
  }
}

TimeCollectorPool::CollectorPtr TimeCollectorPool::get(unsigned atLeastCapacity) {
  TimeCollector* tc = pool->get();
  tc->reset(static_cast<int>(atLeastCapacity));
  return CollectorPtr(tc, TimeCollectorDeleter{this});
}

void TimeCollectorPool::put(TimeCollector* tc) { pool->put(tc); }

void TimeCollectorPool::dump(CollectorPtr&& tc) { queue->push(std::move(tc)); }

void* TimeCollectorPool::threadFunc(void* self) {
  static_cast<TimeCollectorPool*>(self)->threadRun();
  return nullptr;
}

void TimeCollectorPool::threadRun() {
  for (;;) {
    CollectorPtr tc;
    try {
      tc = queue->pop();
    } catch (const BlockingQueueCanceledException&) {
      break;
    } catch (const BlockingQueueClosedException&) {
      break;
    }
    try {
      tc->dump(out, nameWidth);
    } catch (...) {
      tc.reset();
      out.flush();
      break;
    }
    tc.reset();
    out.flush();
  }
  out.flush();
}

}  // namespace orvix
