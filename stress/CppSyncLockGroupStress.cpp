// Lock groups under contention: guards, nested guards and unguards counting under the group,
// waiters woken by notifications, and an interrupt at a random moment.
#include "Orvix/CppSyncLockGroup.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using orvix::InterruptedException;
using orvix::sync::LockGroup;
using orvix_stress::pick;

namespace {

// What the guards may print: their slow-locking warnings, each followed by an empty line.
bool onlyLockWarnings(const std::string& text, std::string* bad) {
  static const std::regex warning(
      R"(\[WARN Orvix/CppSyncLockGroup:(81|90)\]    \[[^\]]+:[0-9]+\] )"
      R"((lockDuration|lockedDuration): [0-9]+us)");
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || std::regex_match(line, warning)) continue;
    *bad = line;
    return false;
  }
  return true;
}

}  // namespace

// Each round: a new group; 2 or 3 counters add 1 to a number under a guard (some through a
// nested guard, some twice around an unguarded stretch), 1 to 3 waiters wait on the group in a
// loop, a notifier wakes them, and the group is interrupted at a random moment. The number is
// exactly what was added (the group excludes), every waiter leaves exactly once and by
// InterruptedException, nothing but the guards' own warnings is printed, every thread ends.
TEST(CppSyncLockGroupStress, ContentionWaitNotifyInterrupt) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    const int counters = pick(2, 3);
    const int waiters = pick(1, 3);
    const int delay = pick(0, 100000);
    std::vector<std::vector<int>> plans(static_cast<std::size_t>(counters));
    long expected = 0;
    for (auto& plan : plans) {
      plan.resize(static_cast<std::size_t>(pick(50, 300)));
      for (int& step : plan) {
        step = pick(0, 2);  // 0: guard, 1: nested guard, 2: unguard between two additions
        expected += step == 2 ? 2 : 1;
      }
    }
    orvix_stress::CaptureStdout out;
    LockGroup group;
    long number = 0;  // guarded by group
    std::atomic<int> interrupted{0}, otherEnds{0}, wakeups{0};
    std::vector<std::thread> threads;
    for (const auto& plan : plans) {
      threads.emplace_back([&group, &number, &plan] {
        for (int step : plan) {
          auto g = ORVIX_GUARD(group);
          if (step == 1) {
            auto inner = ORVIX_GUARD(group);
            ++number;
          } else if (step == 2) {
            ++number;
            {
              auto u = group.unguard(__FILE__, __LINE__);
              orvix_stress::spin(50);
            }
            ++number;
          } else {
            ++number;
          }
        }
      });
    }
    for (int w = 0; w < waiters; ++w) {
      threads.emplace_back([&] {
        for (;;) {
          // wait() returns with the group released; this guard's own unlock then has no effect.
          auto g = ORVIX_GUARD(group);
          try {
            g.wait();
            ++wakeups;
          } catch (const InterruptedException&) {
            ++interrupted;
            return;
          } catch (...) {
            ++otherEnds;
            return;
          }
        }
      });
    }
    // A wait that begins after the interrupt still needs a notification to wake and throw.
    std::thread notifier([&] {
      while (interrupted + otherEnds < waiters) {
        {
          auto g = ORVIX_GUARD(group);
          g.notifyAll();
        }
        std::this_thread::yield();
      }
    });
    orvix_stress::spin(delay);
    bool flagged;
    {
      auto g = ORVIX_GUARD(group);
      g.interrupt();
      flagged = g.isInterrupted();
    }
    for (auto& t : threads) t.join();
    notifier.join();
    long counted;
    {
      auto g = ORVIX_GUARD(group);
      counted = number;
    }
    const std::string printed = out.text();  // before any assertion can print
    ASSERT_TRUE(flagged) << "round " << round;
    ASSERT_EQ(counted, expected) << "round " << round;
    ASSERT_EQ(interrupted.load(), waiters) << "round " << round;
    ASSERT_EQ(otherEnds.load(), 0) << "round " << round;
    std::string bad;
    ASSERT_TRUE(onlyLockWarnings(printed, &bad)) << "round " << round << " printed: " << bad;
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
