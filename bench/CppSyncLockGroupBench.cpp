// Cost of an uncontended Guard against the work it is made of: a recursive timed mutex
// lock/unlock and three wall-clock reads.
#include <benchmark/benchmark.h>

#include <chrono>
#include <mutex>

#include "Orvix/CppSyncLockGroup.hpp"

static void BM_Guard(benchmark::State& state) {
  orvix::sync::LockGroup group;
  for (auto _ : state) {
    orvix::sync::Guard g(group, __FILE__, __LINE__);
    benchmark::DoNotOptimize(&g);
  }
}
BENCHMARK(BM_Guard);

static void BM_RecursiveTimedMutexAndThreeClockReads(benchmark::State& state) {
  std::recursive_timed_mutex mutex;
  for (auto _ : state) {
    auto requested = std::chrono::system_clock::now();
    mutex.lock();
    auto locked = std::chrono::system_clock::now();
    auto now = std::chrono::system_clock::now();
    benchmark::DoNotOptimize(requested);
    benchmark::DoNotOptimize(locked);
    benchmark::DoNotOptimize(now);
    mutex.unlock();
  }
}
BENCHMARK(BM_RecursiveTimedMutexAndThreeClockReads);

BENCHMARK_MAIN();
