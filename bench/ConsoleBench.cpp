// Cost of a serialised console chain against the same chain on a plain stream.
#include <benchmark/benchmark.h>

#include <sstream>

#include "Orvix/ThreadSafeStream.hpp"

static void BM_PlainStreamChain(benchmark::State& state) {
  std::ostringstream target;
  for (auto _ : state) {
    target << "value " << 42 << ' ' << 3.5 << '\n';
    if (target.tellp() > 1 << 20) target.str("");
  }
}
BENCHMARK(BM_PlainStreamChain);

static void BM_ThreadSafeStreamChain(benchmark::State& state) {
  std::ostringstream target;
  tss::ThreadSafeStream s(target);
  for (auto _ : state) {
    s << "value " << 42 << ' ' << 3.5 << '\n';
    if (target.tellp() > 1 << 20) target.str("");
  }
}
BENCHMARK(BM_ThreadSafeStreamChain);

BENCHMARK_MAIN();
