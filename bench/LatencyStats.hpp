// Order statistics of measured durations, reported as benchmark counters in microseconds.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace orvix_bench {

// The value below which the fraction q of the samples lie (nearest rank).
inline int64_t quantile(std::vector<int64_t> sorted, double q) {
  if (sorted.empty()) return 0;
  std::size_t rank = static_cast<std::size_t>(q * static_cast<double>(sorted.size()));
  if (rank >= sorted.size()) rank = sorted.size() - 1;
  return sorted[rank];
}

// Adds min, median, p99 and max of nanosecond samples to the state's counters, in microseconds,
// with the given prefix.
inline void reportMicroseconds(benchmark::State& state, std::vector<int64_t> ns,
                               const std::string& prefix = "") {
  std::sort(ns.begin(), ns.end());
  auto us = [](int64_t v) { return static_cast<double>(v) / 1000.0; };
  state.counters[prefix + "min_us"] = us(ns.empty() ? 0 : ns.front());
  state.counters[prefix + "median_us"] = us(quantile(ns, 0.5));
  state.counters[prefix + "p99_us"] = us(quantile(ns, 0.99));
  state.counters[prefix + "max_us"] = us(ns.empty() ? 0 : ns.back());
}

}  // namespace orvix_bench
