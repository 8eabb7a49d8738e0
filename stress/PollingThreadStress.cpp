// PollingThread started, stopped and retuned in racing orders and destroyed at random moments:
// idle, polling, right after a start, and while its handler runs.
#include "Orvix/PollingThread.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using orvix_stress::pick;

namespace {

// Counts the handler's calls and what each one saw when it began.
class Handler : public IPollingThreadHandler {
 public:
  explicit Handler(int work) : work_(work) {}

  void event() override {
    if (stopped) ++begunWhileStopped;
    calls.begin();
    orvix_stress::spin(work_);
    calls.end();
  }

  orvix_stress::Calls calls;
  // Set from the return of a stop() that took effect until the next start().
  std::atomic<bool> stopped{false};
  std::atomic<int> begunWhileStopped{0};

 private:
  const int work_;
};

// A random interval in microseconds: mostly short sleeps, now and then none at all.
int randomInterval() { return pick(0, 7) == 0 ? pick(-2, 0) : pick(1, 400); }

}  // namespace

// Each round: a PollingThread with a random interval and a handler working for a random while;
// a tweaker thread changes the interval and skips sleeps at random moments throughout. Before
// any start() the worker waits idle and calls nothing. Then 1 to 4 cycles: start(), sometimes
// followed at once by stop() and start() again (the stop may come before the worker took the
// start up and is then ignored); calls must follow. Then, in some cycles, stop(): unless a
// racing start() may still be pending, at most one call begins after it returns (one that had
// passed its check already) and the worker goes back to waiting idle. At the end the object is
// destroyed: at a random moment, stopped (when seen idle, nothing more is called), right after a
// start(), or while a call is held until the destructor waits to join the worker (no further
// call). The handler only ever runs on the worker, one call at a time, never after the
// destructor returned; every thread ends.
TEST(PollingThreadStress, StartStopAndDestroyedAtRandomMoments) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    Handler handler(pick(0, 3000));
    const int cycles = pick(1, 4);
    std::vector<int> plan;  // per cycle: 0 start, 1 start and stop at once; +2: stop afterwards
    for (int c = 0; c < cycles; ++c) plan.push_back(pick(0, 3));
    // 0: as the cycles leave it, 1: stopped first, 2: right after a start, 3: during a call
    const int ending = pick(0, 3);
    const int lateDelay = pick(0, 20000);
    std::vector<std::pair<int, int>> tweaks;  // (interval, or 0 for setNoWait; spin before)
    for (int n = pick(0, 20); n > 0; --n)
      tweaks.emplace_back(pick(0, 1) == 0 ? randomInterval() : 0, pick(0, 20000));

    const auto before = orvix_stress::threadIds();
    auto* polling = new PollingThread(&handler, randomInterval());
    const pid_t worker = orvix_stress::newThread(before);
    ASSERT_NE(worker, 0) << "round " << round << ": no worker thread found";
    const bool idleAtFirst =
        orvix_stress::awaitBlockedInside(worker, polling, sizeof(PollingThread));
    orvix_stress::spin(lateDelay);
    const int eventsBeforeStart = handler.calls.count;
    std::thread tweaker([&tweaks, polling] {
      for (const auto& t : tweaks) {
        orvix_stress::spin(t.second);
        if (t.first == 0)
          polling->setNoWait();
        else
          polling->setInterval(t.first);
      }
    });
    // Clean: no start() can be pending unseen, so a stop() leaves the worker idle.
    bool clean = true;
    int polled = 0, stopsChecked = 0, idleAgain = 0, mostLateCalls = 0;
    for (int step : plan) {
      handler.stopped = false;
      polling->start();
      if (step % 2 == 1) {
        // This stop() is ignored when the worker has not taken the start up yet; and a start()
        // racing the worker's taking up the first one may stay pending.
        polling->stop();
        polling->start();
        clean = false;
      }
      // The second call proves the worker running: at most one call (one that had passed its
      // check before a stop) begins without it.
      if (handler.calls.awaitMore(2)) ++polled;
      if (step < 2) continue;
      polling->stop();
      if (!clean) continue;
      const int begun = handler.begunWhileStopped;
      handler.stopped = true;
      ++stopsChecked;
      if (orvix_stress::awaitBlockedInside(worker, polling, sizeof(PollingThread))) ++idleAgain;
      mostLateCalls = std::max(mostLateCalls, handler.begunWhileStopped - begun);
    }
    tweaker.join();
    int eventsBefore = -1;
    bool held = false;
    if (ending == 1) {
      polling->stop();
      if (clean && orvix_stress::awaitBlockedInside(worker, polling, sizeof(PollingThread)))
        eventsBefore = handler.calls.count;  // idle: steady, and destroying it calls nothing
    } else if (ending == 2) {
      handler.stopped = false;
      polling->start();
    }
    orvix_stress::spin(lateDelay);
    if (ending == 3) {
      handler.stopped = false;
      handler.calls.gate.close();  // the next call stays until the destructor waits for the worker
      polling->start();
      held = orvix_stress::destroyWhileHeld(handler.calls.gate, [polling] { delete polling; });
    } else {
      delete polling;
    }
    const bool idleAfter = handler.calls.idle();

    ASSERT_TRUE(idleAtFirst) << "round " << round << ": not idle before the first start()";
    ASSERT_EQ(eventsBeforeStart, 0) << "round " << round << ": called before start()";
    ASSERT_EQ(polled, cycles) << "round " << round;
    ASSERT_EQ(idleAgain, stopsChecked) << "round " << round << ": still polling after stop()";
    ASSERT_LE(mostLateCalls, 1) << "round " << round << ": called after stop()";
    ASSERT_EQ(handler.calls.overlaps.load(), 0) << "round " << round;
    ASSERT_EQ(handler.calls.elsewhere.load(), 0) << "round " << round;
    ASSERT_EQ(handler.calls.thread.load(), worker) << "round " << round;
    ASSERT_TRUE(idleAfter) << "round " << round << ": a call outlived the destructor";
    if (eventsBefore >= 0) {
      ASSERT_EQ(handler.calls.count.load(), eventsBefore) << "round " << round << ": called when idle";
    }
    if (ending == 3) {
      ASSERT_TRUE(held) << "round " << round << ": the destructor was not seen joining";
      ASSERT_EQ(handler.calls.afterHeld.load(), 0) << "round " << round << ": a call after exit";
    }
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
