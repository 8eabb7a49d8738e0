#include "Orvix/WaitThread.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "TestSupport.hpp"
#include "ThreadStateSupport.hpp"

using orvix_test::threadId;
using orvix_test::waitUntilBlocked;

namespace {

// Counts events and the thread each ran on. An event can be held at its start until the test
// lets it go (hold), so that notifications can arrive while the handler is busy.
class Handler : public IWaitThreadHandler, public orvix_test::EventRecorder {
 public:
  void event() override {
    std::unique_lock<std::mutex> lock(mutex_);
    record();
    cond_.wait(lock, [this] { return !holding_; });
  }

  // Events from now on wait at their start until release().
  void hold() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = true;
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = false;
    cond_.notify_all();
  }

 private:
  bool holding_ = false;  // written under mutex_
};

}  // namespace

TEST(WaitThread, OneNotifyGivesOneEventOnTheWorker) {
  Handler h;
  auto w = std::make_unique<WaitThread>(&h);
  w->notify();
  ASSERT_TRUE(h.awaitEvents(1));
  const pid_t worker = h.threadOf(0);
  // Waiting again, with nothing asked for.
  ASSERT_TRUE(waitUntilBlocked(worker));
  EXPECT_EQ(h.count(), 1u);
  EXPECT_NE(worker, threadId());
}

TEST(WaitThread, EachNotifyAfterAnEventGivesOneEvent) {
  Handler h;
  WaitThread w(&h);
  for (std::size_t i = 1; i <= 5; ++i) {
    w.notify();
    ASSERT_TRUE(h.awaitEvents(i));
    ASSERT_TRUE(waitUntilBlocked(h.threadOf(0)));
    EXPECT_EQ(h.count(), i);
  }
}

TEST(WaitThread, ThreeNotifiesDuringABusyHandlerGiveExactlyOneMoreEvent) {
  Handler h;
  auto w = std::make_unique<WaitThread>(&h);
  h.hold();
  w->notify();
  ASSERT_TRUE(h.awaitEvents(1));  // the handler is busy now
  w->notify();
  w->notify();
  w->notify();
  h.release();
  ASSERT_TRUE(h.awaitEvents(2));
  ASSERT_TRUE(waitUntilBlocked(h.threadOf(0)));  // back in wait(), nothing left to handle
  EXPECT_EQ(h.count(), 2u);
  EXPECT_EQ(h.threadOf(1), h.threadOf(0));
  w.reset();
  EXPECT_EQ(h.count(), 3u);  // and the final one
}

TEST(WaitThread, NotifyFromAnotherThread) {
  Handler h;
  WaitThread w(&h);
  std::thread other([&] { w.notify(); });
  other.join();
  ASSERT_TRUE(h.awaitEvents(1));
  EXPECT_NE(h.threadOf(0), threadId());
}

TEST(WaitThread, DestroyingAWaitingThreadRunsOneFinalEventOnTheWorker) {
  Handler h;
  auto w = std::make_unique<WaitThread>(&h);
  w->notify();
  ASSERT_TRUE(h.awaitEvents(1));
  const pid_t worker = h.threadOf(0);
  ASSERT_TRUE(waitUntilBlocked(worker));
  ASSERT_EQ(h.count(), 1u);
  w.reset();
  // The destructor returned after the final event had run, on the worker thread.
  ASSERT_EQ(h.count(), 2u);
  EXPECT_EQ(h.threadOf(1), worker);
}

TEST(WaitThread, DestroyingRightAfterConstructionEnds) {
  // Whether the worker had passed its first exit test decides between no event and the final
  // one; never more.
  Handler h;
  { WaitThread w(&h); }
  EXPECT_LE(h.count(), 1u);
}

TEST(WaitThread, DestroyingDuringAnEventEndsWithoutAnotherOne) {
  // exit is set while the handler is busy; the worker tests it right after the event and ends.
  Handler h;
  auto w = std::make_unique<WaitThread>(&h);
  h.hold();
  w->notify();
  ASSERT_TRUE(h.awaitEvents(1));
  std::atomic<pid_t> destroyerId{0};
  std::thread destroyer([&] {
    destroyerId = threadId();
    w.reset();
  });
  ASSERT_TRUE(orvix_test::waitUntil([&] { return destroyerId != 0; }));
  ASSERT_TRUE(waitUntilBlocked(destroyerId));  // joining: exit is set
  h.release();
  destroyer.join();
  EXPECT_EQ(h.count(), 1u);
}

TEST(WaitThreadDeathTest, NullHandlerIsAnAssertion) {
  orvix_test::expectAssertion([] { WaitThread w(nullptr); }, "Orvix/WaitThread", 51,
                              "WaitThread::WaitThread(IWaitThreadHandler*)",
                              "nullptr != handler");
}
