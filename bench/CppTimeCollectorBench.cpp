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
    double getNs = 0, stampNs = 0, dumpNs = 0;  // the three parts of a cycle
    for (auto _ : state) {
      // The printer is slower than the producer: wait for a free collector outside the measured
      // time, which is taken by hand around the producer's work alone.
      while (dumped - buf.back() >= 8) std::this_thread::yield();
      const auto begin = std::chrono::steady_clock::now();
      auto tc = pool.get(16);
      const auto got = std::chrono::steady_clock::now();
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
      const auto stamped = std::chrono::steady_clock::now();
      pool.dump(std::move(tc));
      const auto end = std::chrono::steady_clock::now();
      state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
      getNs += std::chrono::duration<double, std::nano>(got - begin).count();
      stampNs += std::chrono::duration<double, std::nano>(stamped - got).count();
      dumpNs += std::chrono::duration<double, std::nano>(end - stamped).count();
      ++dumped;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["get_ns"] = getNs / n;
    state.counters["10stamps_ns"] = stampNs / n;
    state.counters["dump_ns"] = dumpNs / n;
  }
  std::cout.imbue(saved);
}
BENCHMARK(BM_GetTenStampsDump)->UseManualTime();

BENCHMARK_MAIN();
