// A TimeCollectorPool fed from several threads at once: collectors taken, stamped, dumped or
// dropped, the pool running dry now and then, while the dump thread prints.
#include "Orvix/CppTimeCollector.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Orvix/GeneralException.hpp"
#include "StressSupport.hpp"

using orvix::TimeCollectorPool;
using orvix_stress::pick;

namespace {

const std::string kUnderflowLine =
    "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg Pool underflow";

// What one feeder did with one collector: how many entries, and whether dump queued it.
struct Use {
  int entries = 0;
  bool queued = false;
};

// The collectors printed, by name stem ("f<feeder>c<cycle>"), with their entry counts; false
// when a collector's lines are not one block of its entries e0, e1, ... and its total line.
bool parse(const std::string& text, std::map<std::string, int>* printed, std::string* bad) {
  std::istringstream in(text);
  std::string stem;
  int entries = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("=====> Achtung", 0) == 0) continue;
    if (line.rfind("===== Insgesamt: ", 0) == 0) {
      if (stem.empty() || !printed->emplace(stem, entries).second) {
        *bad = "total without a collector, or a collector twice: " + stem;
        return false;
      }
      stem.clear();
      entries = 0;
      continue;
    }
    const std::size_t colon = line.find(": ");
    const std::size_t e = line.rfind('e', colon);
    if (colon == std::string::npos || e == std::string::npos) {
      *bad = line;
      return false;
    }
    const std::string lineStem = line.substr(0, e);
    if ((!stem.empty() && lineStem != stem) || line.substr(e + 1, colon - e - 1) != std::to_string(entries)) {
      *bad = "out of place: " + line;
      return false;
    }
    stem = lineStem;
    ++entries;
  }
  if (!stem.empty()) *bad = "no total for " + stem;
  return stem.empty();
}

}  // namespace

// Each round: a pool of 1 to 4 collectors; 2 to 4 feeders each take a collector 10 to 60 times
// (counting "Pool underflow" when none is free), stamp 1 to 3 uniquely named entries, and dump
// it or drop it. Then every collector comes back (all can be taken at once), and once the pool
// is gone exactly the queued collectors have been printed, each once and whole; every
// underflow printed its one warning line; every thread ends.
TEST(CppTimeCollectorStress, PoolFedFromSeveralThreads) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    const std::size_t poolSize = static_cast<std::size_t>(pick(1, 4));
    const int feeders = pick(2, 4);
    std::vector<std::vector<Use>> uses(static_cast<std::size_t>(feeders));
    std::vector<std::vector<int>> plans(static_cast<std::size_t>(feeders));  // entries, or -n: drop
    for (auto& plan : plans) {
      plan.resize(static_cast<std::size_t>(pick(10, 60)));
      for (int& p : plan) p = pick(1, 3) * (pick(0, 3) == 0 ? -1 : 1);
    }
    std::ostringstream out;
    std::atomic<int> underflows{0};
    bool allBack = false;
    std::string printedStdout;
    {
      orvix_stress::CaptureStdout capture;
      {
        TimeCollectorPool pool(out, 1, 2048, poolSize);
        std::vector<std::thread> threads;
        for (int f = 0; f < feeders; ++f) {
          threads.emplace_back([&, f] {
            const auto& plan = plans[static_cast<std::size_t>(f)];
            auto& mine = uses[static_cast<std::size_t>(f)];
            mine.resize(plan.size());
            for (std::size_t c = 0; c < plan.size(); ++c) {
              TimeCollectorPool::CollectorPtr tc;
              while (tc == nullptr) {
                try {
                  tc = pool.get(4);
                } catch (const util::GeneralException&) {
                  ++underflows;
                  std::this_thread::yield();
                }
              }
              const int n = plan[c] < 0 ? -plan[c] : plan[c];
              const std::string stem = "f" + std::to_string(f) + "c" + std::to_string(c);
              for (int e = 0; e < n; ++e) tc->stamp((stem + "e" + std::to_string(e)).c_str());
              mine[c].entries = n;
              if (plan[c] > 0) {
                pool.dump(std::move(tc));
                mine[c].queued = tc == nullptr;  // a full queue leaves it here, unprinted
              }
            }  // a collector still held goes back to the pool here
          });
        }
        for (auto& t : threads) t.join();
        // Nothing lost: once printed, every collector can be taken again, all at once.
        for (int attempt = 0; attempt < 100000 && !allBack; ++attempt) {
          std::vector<TimeCollectorPool::CollectorPtr> held;
          try {
            while (held.size() < poolSize) held.push_back(pool.get(1));
            allBack = true;
          } catch (const util::GeneralException&) {
            ++underflows;
            std::this_thread::sleep_for(std::chrono::microseconds(100));
          }
        }
      }  // the dump thread prints what is queued and is joined
      printedStdout = capture.text();
    }
    ASSERT_TRUE(allBack) << "round " << round;
    std::map<std::string, int> printed;
    std::string bad;
    ASSERT_TRUE(parse(out.str(), &printed, &bad)) << "round " << round << ": " << bad;
    std::size_t queued = 0;
    for (int f = 0; f < feeders; ++f) {
      for (std::size_t c = 0; c < uses[static_cast<std::size_t>(f)].size(); ++c) {
        const Use& use = uses[static_cast<std::size_t>(f)][c];
        const std::string stem = "f" + std::to_string(f) + "c" + std::to_string(c);
        const auto it = printed.find(stem);
        if (!use.queued) {
          ASSERT_TRUE(it == printed.end()) << "round " << round << ": " << stem << " printed";
          continue;
        }
        ++queued;
        ASSERT_TRUE(it != printed.end()) << "round " << round << ": " << stem << " lost";
        ASSERT_EQ(it->second, use.entries) << "round " << round << ": " << stem;
      }
    }
    ASSERT_EQ(printed.size(), queued) << "round " << round;
    std::string expectedStdout;
    for (int i = 0; i < underflows; ++i) expectedStdout += kUnderflowLine + "\n";
    ASSERT_EQ(printedStdout, expectedStdout) << "round " << round;
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
