// Wake-up latency of a WaitThread, from notify() to the handler's event(), against a bare mutex
// and condition variable hand-off to a waiting thread. Each sample starts with the worker asleep
// in its wait, so that the cost of waking a sleeping thread is measured, not a lucky spin.
#include <benchmark/benchmark.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "LatencyStats.hpp"
#include "Orvix/WaitThread.hpp"

namespace {

constexpr int kSamples = 2000;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Long enough for the woken thread to go back to sleep before the next sample.
void settle() {
  timespec t{0, 200000};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &t, nullptr);
}

class StampingHandler : public IWaitThreadHandler {
 public:
  void event() override { woke.store(nowNs(), std::memory_order_release); }
  std::atomic<int64_t> woke{0};
};

int64_t awaitStamp(std::atomic<int64_t>& stamp) {
  int64_t v;
  while ((v = stamp.load(std::memory_order_acquire)) == 0) {
  }
  stamp.store(0, std::memory_order_relaxed);
  return v;
}

}  // namespace

static void BM_WaitThreadNotifyToEvent(benchmark::State& state) {
  StampingHandler handler;
  WaitThread w(&handler);
  std::vector<int64_t> samples;
  samples.reserve(kSamples);
  for (auto _ : state) {
    settle();
    const int64_t sent = nowNs();
    w.notify();
    const int64_t woke = awaitStamp(handler.woke);
    samples.push_back(woke - sent);
    state.SetIterationTime(static_cast<double>(woke - sent) / 1e9);
  }
  orvix_bench::reportMicroseconds(state, samples);
}
BENCHMARK(BM_WaitThreadNotifyToEvent)->Iterations(kSamples)->UseManualTime();

// Baseline: the same hand-off written directly with a mutex, a flag and a condition variable.
static void BM_MutexCondVarHandOff(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cond;
  bool notified = false;
  bool exit = false;
  std::atomic<int64_t> woke{0};
  std::thread worker([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      cond.wait(lock, [&] { return notified; });
      notified = false;
      if (exit) return;
      woke.store(nowNs(), std::memory_order_release);
    }
  });
  std::vector<int64_t> samples;
  samples.reserve(kSamples);
  for (auto _ : state) {
    settle();
    const int64_t sent = nowNs();
    {
      std::lock_guard<std::mutex> lock(mutex);
      notified = true;
    }
    cond.notify_one();
    const int64_t got = awaitStamp(woke);
    samples.push_back(got - sent);
    state.SetIterationTime(static_cast<double>(got - sent) / 1e9);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    notified = exit = true;
  }
  cond.notify_one();
  worker.join();
  orvix_bench::reportMicroseconds(state, samples);
}
BENCHMARK(BM_MutexCondVarHandOff)->Iterations(kSamples)->UseManualTime();

BENCHMARK_MAIN();
