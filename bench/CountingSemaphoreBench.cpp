// Cost of the semaphore's state machine and of the scope lock against the bare primitives.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>

#include <mutex>

#include "Orvix/CountingSemaphore.hpp"
#include "Orvix/RecursiveMutex.hpp"

// Baseline: an unnamed POSIX semaphore, post then take.
static void BM_RawSemPostWait(benchmark::State& state) {
  sem_t sem;
  sem_init(&sem, 0, 0);
  for (auto _ : state) {
    sem_post(&sem);
    sem_wait(&sem);
  }
  sem_destroy(&sem);
}
BENCHMARK(BM_RawSemPostWait);

// The same through CountingSemaphore: each side takes the object's mutex once or twice.
static void BM_CountingSemaphorePostWait(benchmark::State& state) {
  util::CountingSemaphore sem(0);
  for (auto _ : state) {
    sem.post();
    sem.wait();
  }
}
BENCHMARK(BM_CountingSemaphorePostWait);

// tryDown bypasses the state machine.
static void BM_CountingSemaphorePostTryDown(benchmark::State& state) {
  util::CountingSemaphore sem(0);
  for (auto _ : state) {
    sem.post();
    benchmark::DoNotOptimize(sem.tryDown());
  }
}
BENCHMARK(BM_CountingSemaphorePostTryDown);

// Baseline: the standard recursive mutex under a lock_guard.
static void BM_StdRecursiveMutexGuard(benchmark::State& state) {
  std::recursive_mutex m;
  for (auto _ : state) {
    std::lock_guard<std::recursive_mutex> g(m);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_StdRecursiveMutexGuard);

static void BM_UtilLock(benchmark::State& state) {
  util::RecursiveMutex m;
  for (auto _ : state) {
    util::Lock l(m);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_UtilLock);

BENCHMARK_MAIN();
