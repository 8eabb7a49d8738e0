// WaitThread destroyed at random moments: right after construction, while notifications are
// being handled, once it waits with every notification handled, and while its handler runs.
#include "Orvix/WaitThread.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using orvix_stress::pick;

namespace {

// Counts the handler's calls and what each one saw when it began.
class Handler : public IWaitThreadHandler {
 public:
  explicit Handler(int work) : work_(work) {}

  void event() override {
    lastSeen = requested.load();
    calls.begin();
    orvix_stress::spin(work_);
    calls.end();
  }

  orvix_stress::Calls calls;
  // notify() calls, each counted before it is made.
  std::atomic<int> requested{0};
  std::atomic<int> lastSeen{-1};  // requested as the latest call began

 private:
  const int work_;
};

}  // namespace

// Each round: a WaitThread whose handler works for a random while, 1 to 3 notifiers making 0 to
// 40 notify() calls each at random moments, then the object is destroyed: at once (before the
// worker may even have started), at a random moment after the notifiers, once the worker is seen
// waiting in its condition, or while a call of the handler is held (notifications pending or
// not) until the destructor waits to join the worker. The handler only ever runs on the worker,
// one call at a time, and never after the destructor returned; there are never more calls than
// notifications plus the destructor's. A waiting worker has handled every notification, and
// destroying it then calls the handler exactly once more; destroying it during a call makes no
// further call. Every thread ends.
TEST(WaitThreadStress, DestroyedAtRandomMoments) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    // 0: at once, 1: at random after the notifiers, 2: waiting, 3: during a call
    const int moment = pick(0, 3);
    Handler handler(pick(0, 3000));
    std::vector<std::pair<int, int>> notifiers;  // (calls, spin between calls)
    if (moment != 0) {
      for (int n = pick(1, 3); n > 0; --n) notifiers.emplace_back(pick(0, 40), pick(0, 5000));
    }
    const int lateDelay = pick(0, 20000);
    const auto before = orvix_stress::threadIds();
    auto* waitThread = new WaitThread(&handler);
    const pid_t worker = orvix_stress::newThread(before);
    if (moment == 3) {
      handler.calls.gate.close();  // the first call stays until the destructor waits for the worker
      ++handler.requested;
      waitThread->notify();
    }
    std::vector<std::thread> threads;
    for (const auto& plan : notifiers) {
      threads.emplace_back([&handler, waitThread, plan] {
        for (int i = 0; i < plan.first; ++i) {
          orvix_stress::spin(plan.second);
          ++handler.requested;
          waitThread->notify();
        }
      });
    }
    for (auto& t : threads) t.join();
    const int notified = handler.requested;
    int eventsBefore = -1, seenBefore = -1;
    bool waiting = false, held = false;
    if (moment == 1) {
      orvix_stress::spin(lateDelay);
    } else if (moment == 2) {
      waiting = orvix_stress::awaitBlockedInside(worker, waitThread, sizeof(WaitThread));
      eventsBefore = handler.calls.count;  // steady while it waits
      seenBefore = handler.lastSeen;
    }
    if (moment == 3)
      held = orvix_stress::destroyWhileHeld(handler.calls.gate, [waitThread] { delete waitThread; });
    else
      delete waitThread;
    const bool idleAfter = handler.calls.idle();

    ASSERT_NE(worker, 0) << "round " << round << ": no worker thread found";
    ASSERT_TRUE(idleAfter) << "round " << round << ": a call outlived the destructor";
    ASSERT_EQ(handler.calls.overlaps.load(), 0) << "round " << round;
    ASSERT_EQ(handler.calls.elsewhere.load(), 0) << "round " << round;
    if (handler.calls.count > 0) {
      ASSERT_EQ(handler.calls.thread.load(), worker) << "round " << round;
    }
    ASSERT_LE(handler.calls.count.load(), notified + 1) << "round " << round;
    if (moment == 2) {
      ASSERT_TRUE(waiting) << "round " << round << ": the worker never waited";
      // Waiting means every notification was taken up by a call that began after it.
      ASSERT_EQ(seenBefore, notified > 0 ? notified : -1) << "round " << round;
      ASSERT_EQ(handler.calls.count.load(), eventsBefore + 1) << "round " << round;
    }
    if (moment == 3) {
      ASSERT_TRUE(held) << "round " << round << ": the destructor was not seen joining";
      ASSERT_EQ(handler.calls.afterHeld.load(), 0) << "round " << round << ": a call after exit";
    }
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
