// PeriodicTimers started, restarted and stopped by their owners while their callbacks run, with
// callbacks swapped under Timer::alarmMtx. Runs in the AddressSanitizer tree: ThreadSanitizer
// cannot follow the threads glibc starts for SIGEV_THREAD notifications.
#include "Orvix/CppLinuxTimer.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using orvix::LinuxTimer;
using orvix::PeriodicTimer;
using orvix::Timer;
using orvix_stress::pick;

namespace {

constexpr int kTimers = 3;
// The longest period a round uses, in microseconds.
constexpr int kLongestPeriodUs = 2000;

// How many callbacks of the process run at this moment, and how often more than one did.
std::atomic<int> gActive{0};
std::atomic<int> gOverlaps{0};

// A count that can be awaited.
class Counter {
 public:
  void add() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++count_;
    }
    cond_.notify_all();
  }
  int value() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  // Waits until the count exceeds than; false after the round limit.
  bool awaitAbove(int than) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::seconds(orvix_stress::kRoundLimitSeconds),
                          [&] { return count_ > than; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int count_ = 0;  // guarded by mutex_
};

// One timer's callback for one stretch of a round. It is swapped out under Timer::alarmMtx and
// deleted at once: a notification that still reached it would be a use after free, which
// AddressSanitizer reports.
class Callback : public orvix::TimerCallback {
 public:
  explicit Callback(int work) : work_(work) {}
  void timerExpired() override {
    if (++gActive != 1) ++gOverlaps;
    calls.add();
    orvix_stress::spin(work_);
    --gActive;
  }
  Counter calls;

 private:
  const int work_;
};

// Installs a new callback on timer and deletes the one it replaces.
Callback* swapCallback(PeriodicTimer& timer, Callback* old, Callback* fresh) {
  {
    std::lock_guard<std::mutex> lock(Timer::alarmMtx);
    timer.setCallback(fresh);
  }
  delete old;
  return fresh;
}

// The timers and the marker live as long as the process: a notification on its way may reach a
// timer object after its owner is done with it.
struct Timers {
  std::array<PeriodicTimer*, kTimers> periodic{};
  std::array<Callback*, kTimers> current{};
  LinuxTimer* marker = nullptr;
  Counter markerCalls;

  Timers() {
    for (auto& t : periodic) t = new PeriodicTimer;
    marker = new LinuxTimer;
    marker->create([this] { markerCalls.add(); });
  }
};
Timers& timers() {
  static Timers* t = new Timers;
  return *t;
}

// Lets the marker expire once after delayUs and waits for it, then for every notification
// thread to end. Timer signals are queued in order and their threads started in that order, so
// afterwards nothing signalled before the marker is still on its way.
bool drain(int delayUs, int baseline) {
  Timers& t = timers();
  const int seen = t.markerCalls.value();
  t.marker->start(0, delayUs * 1000L, 0, 0);
  return t.markerCalls.awaitAbove(seen) && orvix_stress::threadsBackTo(baseline);
}

// One step of an owner's plan.
struct Step {
  int what;   // 0: start and await a call, 1: start, 2: stop, 3: swap the callback, 4: spin
  int value;  // the period in microseconds, the new callback's work, or the spin
};

}  // namespace

// Each round: 1 to 3 timers, each driven by its own owner thread through 1 to 6 random steps
// (start with a period of 200 to 2000 us and wait for a call, start without waiting, stop,
// swap the callback under alarmMtx and delete the old one, pause) and stopped at the end, while
// the callbacks, which work for a random while, run on the notification threads. No two
// callbacks of the process ever run at once; every start that is waited for is followed by a
// call; nothing is printed (no failed setting, no missing callback); a callback swapped out is
// never called again. Once the timers are stopped and what was signalled has run, no timer
// calls anything any more, and every notification thread ends.
TEST(CppLinuxTimerStress, PeriodicTimersStartedAndStoppedWhileCallbacksRun) {
  Timers& t = timers();
  const int baseline = orvix_stress::threadCount();  // the helper thread of glibc included
  orvix_stress::repeat(1000, [&](int round) {
    const auto used = static_cast<std::size_t>(pick(1, kTimers));
    std::vector<std::vector<Step>> plans(used);
    for (auto& plan : plans) {
      for (int n = pick(1, 6); n > 0; --n) {
        const int what = pick(0, 4);
        const int value = what <= 1   ? pick(200, kLongestPeriodUs)
                          : what == 3 ? pick(0, 3000)
                                      : pick(0, 50000);
        plan.push_back({what, value});
      }
    }
    for (std::size_t k = 0; k < used; ++k)
      t.current[k] = swapCallback(*t.periodic[k], nullptr, new Callback(pick(0, 3000)));
    std::vector<int> awaited(used, 0), answered(used, 0);  // element k: owner k's
    std::string printed;
    {
      orvix_stress::CaptureStdout capture;
      std::vector<std::thread> owners;
      for (std::size_t k = 0; k < used; ++k) {
        owners.emplace_back([&, k] {
          PeriodicTimer& timer = *t.periodic[k];
          for (const Step& step : plans[k]) {
            switch (step.what) {
              case 0: {
                const int before = t.current[k]->calls.value();
                timer.startTimer(step.value);
                ++awaited[k];
                if (t.current[k]->calls.awaitAbove(before)) ++answered[k];
                break;
              }
              case 1:
                timer.startTimer(step.value);
                break;
              case 2:
                timer.stopTimer();
                break;
              case 3:
                t.current[k] = swapCallback(timer, t.current[k], new Callback(step.value));
                break;
              default:
                orvix_stress::spin(step.value);
                break;
            }
          }
          timer.stopTimer();
        });
      }
      for (auto& o : owners) o.join();
      printed = capture.text();
    }
    const auto callCounts = [&] {
      std::vector<int> counts;
      for (std::size_t k = 0; k < used; ++k) counts.push_back(t.current[k]->calls.value());
      return counts;
    };
    const bool drained = drain(1000, baseline);
    const std::vector<int> settled = callCounts();
    // Longer than any period: a timer still armed would call in the meantime.
    const bool drainedAgain = drain(3 * kLongestPeriodUs, baseline);
    const std::vector<int> later = callCounts();
    for (std::size_t k = 0; k < used; ++k)
      t.current[k] = swapCallback(*t.periodic[k], t.current[k], nullptr);

    ASSERT_EQ(printed, "") << "round " << round;
    ASSERT_EQ(gOverlaps.load(), 0) << "round " << round;
    ASSERT_EQ(answered, awaited) << "round " << round;
    ASSERT_TRUE(drained && drainedAgain) << "round " << round << ": the marker did not expire";
    ASSERT_EQ(later, settled) << "round " << round << ": a stopped timer still calls";
  });
}
