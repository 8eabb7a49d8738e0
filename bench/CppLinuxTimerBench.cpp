// A 1 ms PeriodicTimer over 2000 expiries: the intervals between its callbacks and the total
// drift against the ideal schedule, beside a clock_nanosleep(TIMER_ABSTIME) loop with the same
// period on the same machine. Every expiry of the timer starts a notification thread; the loop
// only wakes one thread, so the comparison shows what that mechanism costs.
#include <benchmark/benchmark.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "LatencyStats.hpp"
#include "Orvix/CppLinuxTimer.hpp"

namespace {

constexpr int kExpiries = 2000;
constexpr int64_t kPeriodNs = 1000000;

int64_t monotonicNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Intervals between consecutive stamps (the first from start) and the drift of the last stamp.
void report(benchmark::State& state, int64_t start, const std::vector<int64_t>& stamps) {
  std::vector<int64_t> intervals;
  int64_t previous = start;
  for (int64_t s : stamps) {
    intervals.push_back(s - previous);
    previous = s;
  }
  orvix_bench::reportMicroseconds(state, intervals, "interval_");
  state.counters["drift_us"] =
      static_cast<double>(stamps.back() - (start + kExpiries * kPeriodNs)) / 1000.0;
}

class Stamping : public orvix::TimerCallback {
 public:
  Stamping() { stamps.resize(kExpiries); }
  void timerExpired() override {
    const int i = next++;
    if (i >= kExpiries) return;
    stamps[i] = monotonicNs();
    if (i == kExpiries - 1) {
      std::lock_guard<std::mutex> lock(mutex);
      done = true;
      cond.notify_all();
    }
  }
  void await() {
    std::unique_lock<std::mutex> lock(mutex);
    cond.wait(lock, [this] { return done; });
  }
  std::vector<int64_t> stamps;  // written under Timer::alarmMtx
  std::atomic<int> next{0};
  std::mutex mutex;
  std::condition_variable cond;
  bool done = false;  // written under mutex
};

}  // namespace

static void BM_PeriodicTimer1ms(benchmark::State& state) {
  for (auto _ : state) {
    // Neither object is freed: a notification may still be on its way after stopTimer().
    auto* callback = new Stamping;
    auto* timer = new orvix::PeriodicTimer;
    timer->setCallback(callback);
    const int64_t start = monotonicNs();
    timer->startTimer(static_cast<int>(kPeriodNs / 1000));
    callback->await();
    timer->stopTimer();
    std::lock_guard<std::mutex> lock(orvix::Timer::alarmMtx);
    report(state, start, callback->stamps);
  }
}
BENCHMARK(BM_PeriodicTimer1ms)->Iterations(1)->Unit(benchmark::kMillisecond);

// Baseline: one thread sleeping to absolute deadlines one period apart.
static void BM_ClockNanosleepAbsLoop1ms(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<int64_t> stamps(kExpiries);
    const int64_t start = monotonicNs();
    int64_t next = start;
    for (int i = 0; i < kExpiries; ++i) {
      next += kPeriodNs;
      timespec deadline{static_cast<time_t>(next / 1000000000), static_cast<long>(next % 1000000000)};
      while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) != 0) {
      }
      stamps[i] = monotonicNs();
    }
    report(state, start, stamps);
  }
}
BENCHMARK(BM_ClockNanosleepAbsLoop1ms)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
