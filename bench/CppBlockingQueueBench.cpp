// Push/pop pairs between one producer and one consumer: the ring queue against a
// mutex + deque + condition variable queue.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "Orvix/CppBlockingQueue.hpp"
#include "Orvix/CppFastAllocator.hpp"

namespace {

// The usual unbounded queue.
class DequeQueue {
 public:
  void push(int v) {
    {
      std::lock_guard<std::mutex> l(m_);
      q_.push_back(v);
    }
    cv_.notify_one();
  }
  int pop() {
    std::unique_lock<std::mutex> l(m_);
    cv_.wait(l, [&] { return !q_.empty(); });
    const int v = q_.front();
    q_.pop_front();
    return v;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::deque<int> q_;
};

}  // namespace

static void BM_BlockingQueuePushPop(benchmark::State& state) {
  using Alloc = orvix::FastAllocator<int>;
  orvix::BlockingQueue<int, Alloc> q(1024, Alloc(std::make_shared<orvix::SimpleHeap>(16384)));
  const int64_t n = state.max_iterations;
  std::thread consumer([&] {
    for (int64_t i = 0; i < n; ++i) benchmark::DoNotOptimize(q.pop());
  });
  int v = 0;
  for (auto _ : state) {
    // Never blocks: a full ring refuses and the producer tries again.
    while (!q.push(int(v))) std::this_thread::yield();
    ++v;
  }
  consumer.join();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BlockingQueuePushPop)->UseRealTime();

static void BM_MutexDequeQueuePushPop(benchmark::State& state) {
  DequeQueue q;
  const int64_t n = state.max_iterations;
  std::thread consumer([&] {
    for (int64_t i = 0; i < n; ++i) benchmark::DoNotOptimize(q.pop());
  });
  int v = 0;
  for (auto _ : state) q.push(v++);
  consumer.join();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutexDequeQueuePushPop)->UseRealTime();

BENCHMARK_MAIN();
