// Cost of appending to a trace buffer against a bare copy into a ring and a bare snprintf.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Orvix/CppLimitedBuffer.hpp"

namespace {

constexpr std::size_t kRing = 64 * 1024;
const char kPiece[65] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcde\n";

void noFormat(std::ostream&, const char*) {}

}  // namespace

static void BM_LimitedBufferAdd64(benchmark::State& state) {
  util::LimitedBuffer::setEnabled(true);
  util::LimitedBuffer lb(kRing, 8, noFormat);
  for (auto _ : state) lb.add(kPiece, 64);
  util::LimitedBuffer::setEnabled(false);
}
BENCHMARK(BM_LimitedBufferAdd64);

static void BM_MemcpyRing64(benchmark::State& state) {
  std::vector<char> ring(kRing);
  std::size_t next = 0;
  for (auto _ : state) {
    const std::size_t first = std::min<std::size_t>(64, kRing - next);
    std::memcpy(ring.data() + next, kPiece, first);
    std::memcpy(ring.data(), kPiece + first, 64 - first);
    next = (next + 64) % kRing;
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_MemcpyRing64);

static void BM_LimitedBufferAddf(benchmark::State& state) {
  util::LimitedBuffer::setEnabled(true);
  util::LimitedBuffer lb(kRing, 8, noFormat);
  int i = 0;
  for (auto _ : state) lb.addf("[%s:%d] LOCK\n", "Orvix/Some.cpp", ++i);
  util::LimitedBuffer::setEnabled(false);
}
BENCHMARK(BM_LimitedBufferAddf);

static void BM_Snprintf(benchmark::State& state) {
  char line[512];
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::snprintf(line, sizeof line, "[%s:%d] LOCK\n", "Orvix/Some.cpp", ++i));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Snprintf);

static void BM_LimitedBufferAddDisabled(benchmark::State& state) {
  util::LimitedBuffer lb(kRing, 8, noFormat);
  for (auto _ : state) lb.add(kPiece, 64);
}
BENCHMARK(BM_LimitedBufferAddDisabled);

BENCHMARK_MAIN();
