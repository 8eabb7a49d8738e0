// 5-bit fields over 16 MiB: the bit streams (virtual calls per field and per byte, as their
// interfaces have them) against a plain inline least-significant-bit-first reader and writer over
// the same bytes. Items are fields; the time per field is the time per iteration / items.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "Orvix/CppBitStream.hpp"

namespace {

constexpr std::size_t kBytes = 16u << 20;
constexpr std::size_t kFields = kBytes * 8 / 5;

const std::vector<uint8_t>& input() {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> v(kBytes);
    std::mt19937 rng(5);
    for (auto& b : v) b = static_cast<uint8_t>(rng());
    return v;
  }();
  return bytes;
}

// Refills a byte at a time, takes fields from the bottom of a 64-bit buffer.
class PlainReader {
 public:
  PlainReader(const uint8_t* p, const uint8_t* end) : p_(p), end_(end) {}
  uint32_t read(int n) {
    while (have_ < n) {
      buffer_ |= static_cast<uint64_t>(p_ < end_ ? *p_++ : 0) << have_;
      have_ += 8;
    }
    const auto v = static_cast<uint32_t>(buffer_ & ((uint64_t{1} << n) - 1));
    buffer_ >>= n;
    have_ -= n;
    return v;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
  uint64_t buffer_ = 0;
  int have_ = 0;
};

// Collects fields at the top of a 64-bit buffer and stores whole bytes.
class PlainWriter {
 public:
  explicit PlainWriter(uint8_t* p) : p_(p) {}
  void write(int n, uint32_t v) {
    buffer_ |= static_cast<uint64_t>(v & ((1u << n) - 1)) << have_;
    have_ += n;
    while (have_ >= 8) {
      *p_++ = static_cast<uint8_t>(buffer_);
      buffer_ >>= 8;
      have_ -= 8;
    }
  }
  void flush() {
    if (have_ > 0) *p_++ = static_cast<uint8_t>(buffer_);
    have_ = 0;
  }

 private:
  uint8_t* p_;
  uint64_t buffer_ = 0;
  int have_ = 0;
};

}  // namespace

static void BM_BitInputStreamRead5(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    VecByteInputStream src(input());
    auto in = BitInputStream::create(src);
    state.ResumeTiming();
    uint32_t sum = 0;
    for (std::size_t i = 0; i < kFields; ++i) sum += in->read(5);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFields));
}
BENCHMARK(BM_BitInputStreamRead5)->Unit(benchmark::kMillisecond);

static void BM_PlainRead5(benchmark::State& state) {
  const std::vector<uint8_t>& bytes = input();
  for (auto _ : state) {
    PlainReader in(bytes.data(), bytes.data() + bytes.size());
    uint32_t sum = 0;
    for (std::size_t i = 0; i < kFields; ++i) sum += in.read(5);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFields));
}
BENCHMARK(BM_PlainRead5)->Unit(benchmark::kMillisecond);

static void BM_BitOutputStreamWrite5(benchmark::State& state) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  // Grown once; reset keeps the capacity.
  for (std::size_t i = 0; i < kFields; ++i) out->write(0, 5, static_cast<uint32_t>(i));
  for (auto _ : state) {
    out->reset();
    for (std::size_t i = 0; i < kFields; ++i) out->write(0, 5, static_cast<uint32_t>(i));
    out->flush();
    benchmark::DoNotOptimize(sink.bytes().data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFields));
}
BENCHMARK(BM_BitOutputStreamWrite5)->Unit(benchmark::kMillisecond);

static void BM_PlainWrite5(benchmark::State& state) {
  std::vector<uint8_t> bytes(kBytes + 8);
  for (auto _ : state) {
    PlainWriter out(bytes.data());
    for (std::size_t i = 0; i < kFields; ++i) out.write(5, static_cast<uint32_t>(i));
    out.flush();
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFields));
}
BENCHMARK(BM_PlainWrite5)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
