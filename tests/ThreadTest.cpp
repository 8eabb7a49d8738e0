#include "Orvix/Thread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/GeneralException.hpp"
#include "Orvix/internal/ThreadKey.hpp"
#include "TestSupport.hpp"

// ---- Fault injection -----------------------------------------------------------------------------
// Armed for the calling thread, the next call returns the armed number instead of running;
// otherwise the real function runs. joinCalls counts this thread's pthread_join calls.

namespace {

thread_local int failCreate = 0;
thread_local int failCancel = 0;
thread_local int failJoin = 0;
thread_local int fakeGotPolicy = -1;  // >= 0: what pthread_attr_getschedpolicy reports
thread_local int failGetschedpolicy = 0;
thread_local int joinCalls = 0;

using orvix_test::nextSymbol;
using orvix_test::takeArmed;

}  // namespace

extern "C" {

int pthread_create(pthread_t* t, const pthread_attr_t* a, void* (*f)(void*), void* arg) __THROWNL {
  static auto real =
      nextSymbol<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  if (const int r = takeArmed(failCreate)) return r;
  return real(t, a, f, arg);
}

int pthread_cancel(pthread_t t) {
  static auto real = nextSymbol<int (*)(pthread_t)>("pthread_cancel");
  if (const int r = takeArmed(failCancel)) return r;
  return real(t);
}

int pthread_join(pthread_t t, void** v) {
  static auto real = nextSymbol<int (*)(pthread_t, void**)>("pthread_join");
  ++joinCalls;
  if (const int r = takeArmed(failJoin)) return r;
  return real(t, v);
}

int pthread_attr_getschedpolicy(const pthread_attr_t* a, int* p) __THROW {
  static auto real = nextSymbol<int (*)(const pthread_attr_t*, int*)>("pthread_attr_getschedpolicy");
  if (const int r = takeArmed(failGetschedpolicy)) return r;
  const int r = real(a, p);
  if (fakeGotPolicy >= 0) *p = takeArmed(fakeGotPolicy);
  return r;
}

}  // extern "C"

using orvix_test::CaptureFd;
using orvix_test::runInChild;
using util::GeneralException;
using util::Thread;

namespace {

using orvix_test::kWarn;

// A thread whose body is a function; exposes the internals to the tests.
class TestThread : public Thread {
 public:
  explicit TestThread(const std::string& name, std::function<void()> body = [] {})
      : Thread(name), body_(std::move(body)) {}
  void run() override { body_(); }
  util::ThreadInternals& in() { return internals; }

 private:
  std::function<void()> body_;
};

}  // namespace

TEST(Thread, StatesHaveTheirValues) {
  EXPECT_EQ(util::TS_NEW, 0);
  EXPECT_EQ(util::TS_STARTING, 1);
  EXPECT_EQ(util::TS_CANCEL_REQUESTED, 2);
  EXPECT_EQ(util::TS_RUNNING, 3);
  EXPECT_EQ(util::TS_CANCELLED, 4);
  EXPECT_EQ(util::TS_FINISHED, 5);
  EXPECT_EQ(util::TS_FAILED, 6);
  static_assert(std::is_abstract<Thread>::value, "");
  static_assert(std::has_virtual_destructor<Thread>::value, "");
  static_assert(!std::is_copy_constructible<Thread>::value, "");
}

TEST(Thread, RunsTheBodyAndFinishes) {
  std::atomic<int> runs{0};
  std::atomic<int> stateInside{-1};
  Thread* currentInside = nullptr;
  TestThread* self = nullptr;
  TestThread t("worker", [&] {
    ++runs;
    stateInside = self->getState();
    currentInside = Thread::current();
  });
  self = &t;
  EXPECT_EQ(t.getState(), util::TS_NEW);
  EXPECT_EQ(t.in().name, "worker");
  EXPECT_EQ(t.in().owner, &t);
  t.start();
  t.join();
  EXPECT_EQ(t.getState(), util::TS_FINISHED);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(stateInside, util::TS_RUNNING);
  EXPECT_EQ(currentInside, &t);
}

TEST(Thread, CurrentOutsideIsNull) { EXPECT_EQ(Thread::current(), nullptr); }

TEST(Thread, StartTwiceThrowsOnce) {
  TestThread t("twice");
  t.start();
  CaptureFd out(1);
  std::string what;
  try {
    t.start();
  } catch (const GeneralException& e) {
    what = e.what();
  }
  t.join();
  EXPECT_EQ(what, "Cannot start thread that has already been started!");
  EXPECT_EQ(out.text(), kWarn + "Cannot start thread that has already been started!\n");
  EXPECT_EQ(t.getState(), util::TS_FINISHED);
  // Also after the end: there is no restart.
  CaptureFd again(1);
  EXPECT_THROW(t.start(), GeneralException);
  EXPECT_EQ(again.text(), kWarn + "Cannot start thread that has already been started!\n");
}

TEST(Thread, CancelBeforeTheBodyBeginsSkipsIt) {
  std::atomic<int> runs{0};
  TestThread t("early", [&] { ++runs; });
  // The lock is recursive: holding it across start keeps the new thread out of started() until
  // the cancel has been recorded.
  t.in().mutex.lock();
  t.start();
  EXPECT_EQ(t.getState(), util::TS_STARTING);
  t.cancel();
  EXPECT_EQ(t.getState(), util::TS_CANCEL_REQUESTED);
  t.in().mutex.unlock();
  t.join();
  EXPECT_EQ(t.getState(), util::TS_FINISHED);
  EXPECT_EQ(runs, 0);
}

TEST(Thread, CancelWhileRunning) {
  std::atomic<bool> running{false};
  std::atomic<bool> mayStop{false};
  std::atomic<bool> pastLoop{false};
  TestThread t("looper", [&] {
    running = true;
    // pthread_testcancel is the cancellation point; the thread sanitizer loses track of locks
    // taken after a cancellation inside one of its intercepted blocking calls such as usleep.
    // The body reaches it only once the test has seen TS_CANCELLED, so the thread cannot end
    // first on a loaded machine.
    for (;;) {
      if (mayStop) pthread_testcancel();
      sched_yield();
    }
    pastLoop = true;
  });
  t.start();
  while (!running) sched_yield();
  t.cancel();
  EXPECT_EQ(t.getState(), util::TS_CANCELLED);
  mayStop = true;
  t.join();
  EXPECT_EQ(t.getState(), util::TS_FINISHED);
  EXPECT_FALSE(pastLoop);
  t.cancel();  // nothing in an end state
  EXPECT_EQ(t.getState(), util::TS_FINISHED);
}

TEST(Thread, CancelOfANewThreadDoesNothing) {
  TestThread t("idle");
  t.cancel();
  EXPECT_EQ(t.getState(), util::TS_NEW);
}

TEST(Thread, StartCancelRaces) {
  // Whichever of started() and cancel() comes first decides; both ways end in TS_FINISHED.
  int bodies = 0;
  for (int i = 0; i < 300; ++i) {
    std::atomic<int> runs{0};
    TestThread t("race", [&] {
      ++runs;
      pthread_testcancel();
    });
    t.start();
    // Now and then give the new thread a head start, so that both orders occur.
    for (int y = 0; y < i % 4 * 25; ++y) sched_yield();
    t.cancel();
    t.join();
    ASSERT_EQ(t.getState(), util::TS_FINISHED) << "round " << i;
    ASSERT_LE(runs, 1);
    bodies += runs;
  }
  std::cout << "[          ] bodies that ran: " << bodies << " of 300\n";
}

TEST(Thread, ManyJoinersWake) {
  std::atomic<bool> release{false};
  TestThread t("joined", [&] {
    while (!release) usleep(500);
  });
  t.start();
  std::atomic<int> joined{0};
  std::vector<std::thread> joiners;
  for (int i = 0; i < 3; ++i) joiners.emplace_back([&] {
    t.join();
    ++joined;
  });
  release = true;
  for (auto& j : joiners) j.join();
  EXPECT_EQ(joined, 3);
}

TEST(Thread, DestroyingANewThreadDoesNotJoin) {
  joinCalls = 0;
  { TestThread t("never"); }
  EXPECT_EQ(joinCalls, 0);
}

TEST(Thread, DestroyingAFinishedThreadJoinsOnce) {
  auto* t = new TestThread("done");
  t->start();
  t->join();
  joinCalls = 0;
  delete t;
  EXPECT_EQ(joinCalls, 1);
}

TEST(Thread, DestroyingAFailedJoinIsWritten) {
  auto r = runInChild([] {
    auto* t = new TestThread("done");
    t->start();
    t->join();
    failJoin = ESRCH;
    delete t;
    failJoin = EINVAL;
    auto* u = new TestThread("done");
    u->start();
    u->join();
    failJoin = EINVAL;
    delete u;
    auto* w = new TestThread("done");
    w->start();
    w->join();
    failJoin = 99;
    delete w;
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err,
            "ESRCH in pthread_join in ~ThreadInternals\n"
            "EINVAL in pthread_join in ~ThreadInternals\n"
            "Unexpected errno (99) in pthread_join in ~ThreadInternals\n");
  EXPECT_EQ(r.out, "");
}

TEST(ThreadDeathTest, DestroyingARunningThreadAborts) {
  auto r = runInChild([] {
    std::atomic<bool> running{false};
    auto* t = new TestThread("busy", [&] {
      running = true;
      for (;;) pause();
    });
    t->start();
    while (!running) sched_yield();
    delete t;
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, "\n\n**** Thread must not be deleted while it is running!\n");
}

TEST(ThreadDeathTest, DestroyingAStartingThreadAborts) {
  auto r = runInChild([] {
    auto* t = new TestThread("starting");
    t->in().mutex.lock();  // keeps it in TS_STARTING
    t->start();
    delete t;
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, "\n\n**** Thread must not be deleted while it is running!\n");
}

TEST(Thread, CreateFailure) {
  for (const auto& c : std::vector<std::pair<int, std::string>>{
           {EAGAIN, "EAGAIN  in pthread_create"},
           {EINVAL, "EINVAL  in pthread_create"},
           {EPERM, "EPERM  in pthread_create"},
           {ENOMEM, "Unexpected errno (12)  in pthread_create"}}) {
    TestThread t("nostart");
    CaptureFd out(1);
    std::string what;
    failCreate = c.first;
    try {
      t.start();
    } catch (const GeneralException& e) {
      what = e.what();
    }
    EXPECT_EQ(what, c.second);
    EXPECT_EQ(out.text(), kWarn + c.second + "\n");
    EXPECT_EQ(t.getState(), util::TS_FAILED);
    t.join();  // an end state: returns at once
    joinCalls = 0;
  }
  EXPECT_EQ(joinCalls, 0);  // nothing was reaped for failed starts
}

TEST(ThreadDeathTest, CancelFailureFailsTheThread) {
  // The body then ends in TS_FAILED, which its end bookkeeping reports and throws from the
  // thread key's destructor: the process ends.
  auto r = runInChild([] {
    setvbuf(stdout, nullptr, _IONBF, 0);  // both warning lines out before the process ends
    std::atomic<bool> running{false};
    std::atomic<bool> release{false};
    auto* t = new TestThread("stubborn", [&] {
      running = true;
      while (!release) usleep(500);
    });
    t->start();
    while (!running) sched_yield();
    failCancel = ESRCH;
    try {
      t->cancel();
    } catch (const GeneralException& e) {
      fprintf(stderr, "caught: %s state %d\n", e.what(), t->getState());
    }
    t->join();  // TS_FAILED is an end state
    fflush(stdout);
    release = true;
    for (;;) pause();
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err.rfind("caught: ESRCH in pthread_cancel in Thread::cancel in state RUNNING "
                        "state 6\n"
                        "Unexpected state in runFinished: 6\n",
                        0),
            0u)
      << r.err;
  EXPECT_EQ(r.out,
            kWarn + "ESRCH in pthread_cancel in Thread::cancel in state RUNNING\n" + kWarn +
                "Unexpected state in runFinished: 6\n");
}

TEST(Thread, CancelFailureOtherNumber) {
  auto r = runInChild([] {
    std::atomic<bool> running{false};
    auto* t = new TestThread("stubborn", [&] {
      running = true;
      for (;;) pause();
    });
    t->start();
    while (!running) sched_yield();
    failCancel = EINVAL;
    try {
      t->cancel();
    } catch (const GeneralException& e) {
      fprintf(stderr, "caught: %s\n", e.what());
    }
    fflush(stdout);
    _exit(0);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err,
            "caught: Unexpected errno (22) in pthread_cancel in Thread::cancel in state RUNNING\n");
}

TEST(Thread, StartedInAnUnexpectedStateReportsAndRuns) {
  TestThread t("direct");
  CaptureFd err(2);
  EXPECT_TRUE(t.in().started());
  EXPECT_EQ(err.text(), "Unexpected state in ThreadInternals::started: 0\n");
  EXPECT_EQ(t.getState(), util::TS_NEW);
}

TEST(Thread, RunFinishedInAnUnexpectedStateFailsAndThrows) {
  TestThread t("direct");
  CaptureFd out(1);
  CaptureFd err(2);
  std::string what;
  try {
    t.in().runFinished();
  } catch (const GeneralException& e) {
    what = e.what();
  }
  EXPECT_EQ(what, "Unexpected state in runFinished: 0");
  EXPECT_EQ(err.text(), "Unexpected state in runFinished: 0\n");
  EXPECT_EQ(out.text(), kWarn + "Unexpected state in runFinished: 0\n");
  EXPECT_EQ(t.getState(), util::TS_FAILED);
}

TEST(Thread, SetspecificFailureIsWrittenAndTheBodyRuns) {
  auto r = runInChild([] {
    std::atomic<bool> ran{false};
    auto* t = new TestThread("nokey", [&] { ran = true; });
    // A key number the system never hands out: pthread_setspecific refuses it.
    util::gl_threadKey.key = PTHREAD_KEYS_MAX + 5;
    t->start();
    while (!ran) sched_yield();
    fprintf(stderr, "ran\n");
    _exit(0);  // without the key the end is never recorded: no join
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err, "EINVAL  in pthread_setspecific in Thread::start\nran\n");
}

TEST(Thread, StackSizeIsApplied) {
  size_t seen = 0;
  TestThread t("stack", [&] {
    pthread_attr_t a;
    pthread_getattr_np(pthread_self(), &a);
    pthread_attr_getstacksize(&a, &seen);
    pthread_attr_destroy(&a);
  });
  t.start(1024 * 1024);
  t.join();
  EXPECT_GE(seen, 1024u * 1024u);
  EXPECT_LT(seen, 2u * 1024u * 1024u);
}

TEST(Thread, RealtimeStart) {
  int policy = -1;
  int priority = -1;
  TestThread t("rt", [&] {
    sched_param p{};
    pthread_getschedparam(pthread_self(), &policy, &p);
    priority = p.sched_priority;
  });
  std::string reason;
  if (!orvix_test::canUseRealtime(&reason)) {
    // Refused by the system: pthread_create reports EPERM.
    EXPECT_THROW(t.start(-1, 10, SCHED_FIFO), GeneralException);
    EXPECT_EQ(t.getState(), util::TS_FAILED);
    GTEST_SKIP() << reason;
  }
  t.start(-1, 10, SCHED_FIFO);
  t.join();
  EXPECT_EQ(policy, SCHED_FIFO);
  EXPECT_EQ(priority, 10);
}

TEST(Thread, PriorityWithoutPolicyUsesInheritedScheduling) {
  int policy = -1;
  TestThread t("prio", [&] {
    sched_param p{};
    pthread_getschedparam(pthread_self(), &policy, &p);
  });
  t.start(-1, 10, -1);  // attributes built, scheduling not set
  t.join();
  EXPECT_EQ(policy, SCHED_OTHER);
}

TEST(ThreadDeathTest, BadPolicyFailsItsAssertion) {
  TestThread t("bad");
  EXPECT_DEATH(t.start(-1, 10, 12345),
               "Orvix/Thread:[0-9]+: void util::Thread::start\\(int, int, int\\): Assertion "
               "`!result' failed");
}

TEST(ThreadDeathTest, BadPriorityFailsItsAssertion) {
  TestThread t("bad");
  EXPECT_DEATH(t.start(-1, 1000, SCHED_FIFO),
               "Orvix/Thread:[0-9]+: void util::Thread::start\\(int, int, int\\): Assertion "
               "`!result' failed");
}

TEST(ThreadDeathTest, PolicyReadBackFailsItsAssertion) {
  TestThread t("bad");
  EXPECT_DEATH(
      {
        failGetschedpolicy = EINVAL;
        t.start(-1, 10, SCHED_FIFO);
      },
      "Orvix/Thread:[0-9]+: void util::Thread::start\\(int, int, int\\): Assertion "
      "`!result' failed");
}

TEST(ThreadDeathTest, PolicyMismatchFailsItsAssertion) {
  TestThread t("bad");
  EXPECT_DEATH(
      {
        fakeGotPolicy = SCHED_RR;
        t.start(-1, 10, SCHED_FIFO);
      },
      "Orvix/Thread:[0-9]+: void util::Thread::start\\(int, int, int\\): Assertion "
      "`checkPolicy == schedPolicy' failed");
}

TEST(ThreadDeathTest, MissingThreadKeyFailsItsAssertion) {
  TestThread t("nokey");
  EXPECT_DEATH(
      {
        util::gl_threadKey.valid = false;
        t.start();
      },
      "Orvix/Thread:[0-9]+: void util::Thread::start\\(int, int, int\\): Assertion "
      "`keyCreated' failed");
}

TEST(Thread, MsleepOfMinusOneHasTheFixedMessage) {
  CaptureFd out(1);
  std::string what;
  try {
    Thread::msleep(-1);
  } catch (const GeneralException& e) {
    what = e.what();
  }
  EXPECT_EQ(what, "Unexpected errno (-1) in nanosleep in Thread::msleep");
  EXPECT_EQ(out.text(), kWarn + "Unexpected errno (-1) in nanosleep in Thread::msleep\n");
}

TEST(Thread, MsleepSleeps) {
  util::TimeSpec before;
  before.initNow(CLOCK_MONOTONIC);
  Thread::msleep(20);
  Thread::msleep(0);
  util::TimeSpec after;
  after.initNow(CLOCK_MONOTONIC);
  after -= before;
  util::TimeSpec twenty;
  twenty.initFromMs(20);
  EXPECT_FALSE(after < twenty);  // at least as long as asked
}

TEST(Thread, OutWritesThePrefix) {
  TestThread t("tracer");
  CaptureFd out(1);
  std::ostream& o = t.out();
  EXPECT_EQ(&o, &std::cout);
  o << "text" << std::endl;
  const std::string text = out.text();
  EXPECT_TRUE(std::regex_match(text, std::regex("\\[tracer [0-9]+\\.[0-9]{3}\\] text\n"))) << text;
}
