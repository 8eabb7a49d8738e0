// parseNum against std::from_chars on the same texts: decimal across the signed 64-bit range, and
// hexadecimal with sixteen digits. Each iteration parses the whole set of 1024 texts; the
// baseline is given each text's end, parseNum finds it itself (NUL-terminated input).
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Orvix/CppDataIO.hpp"

namespace {

constexpr int kTexts = 1024;

std::vector<std::string> decimalTexts() {
  std::mt19937_64 rng(1);
  std::vector<std::string> texts;
  for (int n = 0; n < kTexts; ++n) {
    // Lengths spread evenly: a random value shifted right by 0 to 63 bits, either sign.
    const uint64_t magnitude = rng() >> (rng() % 64);
    const int64_t v = static_cast<int64_t>(magnitude >> 1);
    texts.push_back(std::to_string(rng() % 2 ? -v : v));
  }
  return texts;
}

std::vector<std::string> hexTexts() {
  std::mt19937_64 rng(2);
  std::vector<std::string> texts;
  for (int n = 0; n < kTexts; ++n) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(rng()));
    texts.push_back(text);
  }
  return texts;
}

void BM_FromCharsDecimal(benchmark::State& state) {
  const auto texts = decimalTexts();
  for (auto _ : state) {
    for (const std::string& t : texts) {
      int64_t v = 0;
      std::from_chars(t.data(), t.data() + t.size(), v);
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * kTexts);
}
BENCHMARK(BM_FromCharsDecimal);

void BM_ParseNumDecimal(benchmark::State& state) {
  const auto texts = decimalTexts();
  for (auto _ : state) {
    for (const std::string& t : texts) benchmark::DoNotOptimize(parseNum(t.c_str()));
  }
  state.SetItemsProcessed(state.iterations() * kTexts);
}
BENCHMARK(BM_ParseNumDecimal);

void BM_FromCharsHex(benchmark::State& state) {
  const auto texts = hexTexts();
  for (auto _ : state) {
    for (const std::string& t : texts) {
      uint64_t v = 0;
      std::from_chars(t.data() + 2, t.data() + t.size(), v, 16);
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * kTexts);
}
BENCHMARK(BM_FromCharsHex);

void BM_ParseNumHex(benchmark::State& state) {
  const auto texts = hexTexts();
  for (auto _ : state) {
    for (const std::string& t : texts) benchmark::DoNotOptimize(parseNum(t.c_str()));
  }
  state.SetItemsProcessed(state.iterations() * kTexts);
}
BENCHMARK(BM_ParseNumHex);

}  // namespace

BENCHMARK_MAIN();
