#include "Orvix/NonLockingWaitThread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <memory>
#include <string>

#include "TestSupport.hpp"
#include "ThreadStateSupport.hpp"

using orvix_test::threadId;
using orvix_test::threadIds;
using orvix_test::waitUntil;

namespace {

class Handler : public INonLockingWaitThreadHandler {};

// Records where its steps run and paces itself with a short sleep.
class Stepper : public NonLockingWaitThreadBase {
 public:
  // The steps use this object's members: stop the thread before they go.
  ~Stepper() override { stopThread(); }

  using NonLockingWaitThreadBase::getHandler;
  using NonLockingWaitThreadBase::stopThread;

  std::atomic<int> steps{0};
  std::atomic<int> policy{-1};
  std::atomic<int> priority{-1};
  std::atomic<long> stackSize{-1};
  std::atomic<pid_t> thread{0};
  std::atomic<INonLockingWaitThreadHandler*> handlerSeen{nullptr};

 protected:
  void step() override {
    if (steps == 0) {
      int p = -1;
      sched_param param{};
      pthread_getschedparam(pthread_self(), &p, &param);
      policy = p;
      priority = param.sched_priority;
      pthread_attr_t attr;
      size_t size = 0;
      if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
      }
      stackSize = static_cast<long>(size);
      thread = threadId();
      handlerSeen = getHandler();
    }
    ++steps;
    orvix_test::pauseBriefly();
  }
};

bool threadGone(pid_t id) {
  return waitUntil([id] { return threadIds().count(id) == 0; });
}

const char* kSigAltSched =
    "orvix::Pthread::Pthread(orvix::Pthread::AlternativeFunc, uint32_t, int, int)";
const char* kSafePosix = "int util::safePosix(const char*, const char*, int, int)";

}  // namespace

TEST(NonLockingWaitThread, StepRunsOnASchedFifoThreadOfTheRequestedPriority) {
  std::string reason;
  if (!orvix_test::canUseRealtime(&reason)) GTEST_SKIP() << reason;
  Handler h;
  auto s = std::make_unique<Stepper>();
  EXPECT_EQ(s->getHandler(), nullptr);
  s->start(&h, 7);
  EXPECT_EQ(s->getHandler(), &h);
  ASSERT_TRUE(waitUntil([&] { return s->steps >= 3; }));
  EXPECT_EQ(s->policy, SCHED_FIFO);
  EXPECT_EQ(s->priority, 7);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  EXPECT_GE(s->stackSize, 128 * 1024);  // the sanitizer may only have made it larger
#else
  EXPECT_EQ(s->stackSize, 128 * 1024);
#endif
  EXPECT_EQ(s->handlerSeen, &h);
  const pid_t worker = s->thread;
  EXPECT_NE(worker, threadId());
  EXPECT_EQ(threadIds().count(worker), 1u);
  s.reset();
  // The destructor returned after joining; the system lets go of the thread soon after (under
  // an emulator a little later than the join).
  EXPECT_TRUE(threadGone(worker));
}

TEST(NonLockingWaitThread, AnotherPriority) {
  std::string reason;
  if (!orvix_test::canUseRealtime(&reason)) GTEST_SKIP() << reason;
  Handler h;
  Stepper s;
  s.start(&h, 42);
  ASSERT_TRUE(waitUntil([&] { return s.steps >= 1; }));
  EXPECT_EQ(s.policy, SCHED_FIFO);
  EXPECT_EQ(s.priority, 42);
}

TEST(NonLockingWaitThread, StopThreadEndsTheLoopAndTheDestructorStaysQuiet) {
  std::string reason;
  if (!orvix_test::canUseRealtime(&reason)) GTEST_SKIP() << reason;
  Handler h;
  Stepper s;
  s.start(&h, 1);
  ASSERT_TRUE(waitUntil([&] { return s.steps >= 1; }));
  const pid_t worker = s.thread;
  s.stopThread();
  EXPECT_TRUE(threadGone(worker));
}

TEST(NonLockingWaitThread, NeverStartedDestroysQuietly) {
  Stepper s;
  EXPECT_EQ(s.getHandler(), nullptr);
  EXPECT_EQ(s.steps, 0);
}

TEST(NonLockingWaitThread, RunReturnsNullOnceStopped) {
  // run() on the calling thread: the stop flag is already set, so no step runs.
  Stepper s;
  s.stopThread();
  EXPECT_EQ(s.run(), nullptr);
  EXPECT_EQ(s.steps, 0);
}

TEST(NonLockingWaitThreadDeathTest, NullHandlerIsAnAssertion) {
  orvix_test::expectAssertion(
      [] {
        Stepper s;
        s.start(nullptr, 1);
      },
      "Orvix/NonLockingWaitThread", 50,
      "void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler*, int)",
      "nullptr != handler");
}

TEST(NonLockingWaitThreadDeathTest, PriorityOutsideTheRangeOfSchedFifoAborts) {
  // The thread's attributes refuse the priority; the thread unit reports it and aborts.
  const auto r = orvix_test::runInChild([] {
    Handler h;
    Stepper s;
    s.start(&h, 100);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, std::string(kSigAltSched) + " failed in Orvix/CppPthread:306 - (22) " +
                       orvix_test::errorText(22) + "\n" +
                       orvix_test::assertionLine("Orvix/SafeLinuxCalls", 50, kSafePosix,
                                                 "posixFuncResult == 0"));
  EXPECT_EQ(r.out, "");
}
