// Cost of one stamp against a bare clock read, and the producer side of a whole profiled cycle.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <ostream>
#include <streambuf>
#include <thread>

#include "Orvix/CppTimeCollector.hpp"

static void BM_SystemClockNow(benchmark::State& state) {
  for (auto _ : state) {
    auto t = std::chrono::system_clock::now();
    benchmark::DoNotOptimize(t);
  }
}
BENCHMARK(BM_SystemClockNow);

static void BM_Stamp(benchmark::State& state) {
  orvix::TimeCollector tc(0);
  tc.reset(4096);
  for (auto _ : state) {
    if (tc.getEntries().size() == 4096) {
      state.PauseTiming();
      tc.reset(4096);
      state.ResumeTiming();
    }
    tc.stamp("messpunkt");
  }
}
BENCHMARK(BM_Stamp);

namespace {

// Discards the text; counts flushes (two per printed collector, the second after its return).
class NullBuf : public std::streambuf {
 public:
  long back() const { return syncs_.load() / 2; }

 private:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
  int sync() override {
    ++syncs_;
    return 0;
  }
  std::atomic<long> syncs_{0};
};

}  // namespace

static void BM_GetTenStampsDump(benchmark::State& state) {
  const std::locale saved = std::cout.getloc();
  NullBuf buf;
  std::ostream out(&buf);
  {
    orvix::TimeCollectorPool pool(out, 12, 8192, 8);
    long dumped = 0;
    for (auto _ : state) {
      if (dumped - buf.back() >= 8) {
        // The printer is behind: wait for a collector outside the measured time.
        state.PauseTiming();
        while (dumped - buf.back() >= 8) std::this_thread::yield();
        state.ResumeTiming();
      }
      auto tc = pool.get(16);
      tc->stamp("eingang");
      tc->stamp("parsen");
      tc->stamp("layout");
      tc->stamp("raster");
      tc->stamp("dither");
      tc->stamp("kompress");
      tc->stamp("puffer");
      tc->stamp("dma-start");
      tc->stamp("dma-ende");
      tc->stamp("fertig");
      pool.dump(std::move(tc));
      ++dumped;
    }
  }
  std::cout.imbue(saved);
}
BENCHMARK(BM_GetTenStampsDump);

BENCHMARK_MAIN();
