#include "Orvix/PollingThread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.hpp"
#include "ThreadStateSupport.hpp"

using orvix_test::threadId;
using orvix_test::threadIds;
using orvix_test::waitUntil;
using orvix_test::waitUntilBlocked;

// ---- The worker's sleeps, under the test's control -------------------------------------------
// While controlled, every nanosleep of the process is recorded and blocks until the test releases
// it (or returns EINTR once with an armed remainder). Otherwise the real nanosleep runs.

namespace {

struct Sleeps {
  std::mutex mutex;
  std::condition_variable cond;
  bool controlled = false;
  std::vector<timespec> requests;  // every controlled call, in order
  std::size_t released = 0;        // calls below this index return
  int inside = 0;                  // controlled calls not yet returned
  bool interruptNext = false;      // the next call returns EINTR with remainder
  timespec remainder{};
  int realInterrupted = 0;         // real calls that ended early with EINTR
};
Sleeps sleeps;

void controlSleeps() {
  std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.controlled = true;
  sleeps.requests.clear();
  sleeps.released = 0;
  sleeps.interruptNext = false;
}

void freeSleeps() {
  std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.controlled = false;
  sleeps.cond.notify_all();
}

// Lets every sleep asked for so far, and the next ones up to n in all, return.
void releaseSleeps(std::size_t n) {
  std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.released = n;
  sleeps.cond.notify_all();
}

std::size_t sleepCalls() {
  std::lock_guard<std::mutex> lock(sleeps.mutex);
  return sleeps.requests.size();
}

int sleepsInside() {
  std::lock_guard<std::mutex> lock(sleeps.mutex);
  return sleeps.inside;
}

timespec sleepRequest(std::size_t i) {
  std::lock_guard<std::mutex> lock(sleeps.mutex);
  return sleeps.requests.at(i);
}

bool awaitSleepCalls(std::size_t n) {
  return waitUntil([n] { return sleepCalls() >= n; });
}

using TimePoint = std::chrono::steady_clock::time_point;

long long microsecondsBetween(TimePoint a, TimePoint b) {
  return std::chrono::duration_cast<std::chrono::microseconds>(b - a).count();
}

std::string str(const timespec& t) {
  return std::to_string(t.tv_sec) + "s " + std::to_string(t.tv_nsec) + "ns";
}

}  // namespace

extern "C" int nanosleep(const timespec* request, timespec* remaining) {
  static auto real = orvix_test::nextSymbol<int (*)(const timespec*, timespec*)>("nanosleep");
  std::unique_lock<std::mutex> lock(sleeps.mutex);
  if (!sleeps.controlled) {
    lock.unlock();
    const int result = real(request, remaining);
    if (result == -1 && errno == EINTR) {
      const int err = errno;
      lock.lock();
      ++sleeps.realInterrupted;
      errno = err;
    }
    return result;
  }
  const std::size_t index = sleeps.requests.size();
  sleeps.requests.push_back(*request);
  if (sleeps.interruptNext) {
    sleeps.interruptNext = false;
    if (remaining != nullptr) *remaining = sleeps.remainder;
    errno = EINTR;
    return -1;
  }
  ++sleeps.inside;
  sleeps.cond.wait(lock, [&] { return !sleeps.controlled || sleeps.released > index; });
  --sleeps.inside;
  return 0;
}

namespace {

// Counts events, their threads and times; an action set with setOnEvent runs inside each event.
class Handler : public IPollingThreadHandler, public orvix_test::EventRecorder {
 public:
  void event() override {
    std::size_t n;
    std::function<void(std::size_t)> action;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      times_.push_back(std::chrono::steady_clock::now());
      n = record();
      action = onEvent_;
    }
    if (action) action(n);
  }

  // What each further event does, with its number, on the worker.
  void setOnEvent(std::function<void(std::size_t)> action) {
    std::lock_guard<std::mutex> lock(mutex_);
    onEvent_ = std::move(action);
  }

  TimePoint timeOf(std::size_t i) {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_.at(i);
  }

 private:
  std::vector<TimePoint> times_;              // written under mutex_
  std::function<void(std::size_t)> onEvent_;  // written under mutex_
};

class PollingThreadTest : public ::testing::Test {
 protected:
  void TearDown() override { freeSleeps(); }

  // Builds the object and finds its worker among the process's threads.
  void build(int interval) {
    const auto before = orvix_test::threadIdsBeforeStarting();
    polling = std::make_unique<PollingThread>(&handler, interval);
    raw = polling.get();
    worker = orvix_test::newThread(before, threadIds());
  }

  // The worker waits in sleep() for a start(): blocked, and not in a controlled nanosleep.
  bool awaitIdle() {
    return waitUntil([this] { return sleepsInside() == 0 && orvix_test::isBlocked(worker); }) &&
           waitUntilBlocked(worker) && sleepsInside() == 0;
  }

  // The handler stops the polling from inside its n-th event.
  void stopAtEvent(std::size_t n) {
    handler.setOnEvent([this, n](std::size_t i) {
      if (i == n) raw->stop();
    });
  }

  // Starts, lets the handler stop at its n-th event and expects the worker idle after exactly n.
  void runUntilStoppedAt(std::size_t n) {
    stopAtEvent(n);
    polling->start();
    ASSERT_TRUE(handler.awaitEvents(n));
    ASSERT_TRUE(awaitIdle());
    EXPECT_EQ(handler.count(), n);
  }

  Handler handler;
  std::unique_ptr<PollingThread> polling;
  // For the handler's actions: still valid while polling's destructor runs.
  PollingThread* raw = nullptr;
  pid_t worker = 0;
};

}  // namespace

TEST_F(PollingThreadTest, DoesNotPollBeforeStart) {
  controlSleeps();
  build(0);  // once started it would call back to back
  ASSERT_NE(worker, 0);
  ASSERT_TRUE(awaitIdle());
  EXPECT_EQ(handler.count(), 0u);
  EXPECT_EQ(sleepCalls(), 0u);
  ASSERT_NO_FATAL_FAILURE(runUntilStoppedAt(3));
  EXPECT_EQ(handler.threadOf(0), worker);
}

TEST_F(PollingThreadTest, SleepsTheIntervalBeforeEachEvent) {
  controlSleeps();
  build(1500000);
  polling->start();
  ASSERT_TRUE(awaitSleepCalls(1));
  EXPECT_EQ(str(sleepRequest(0)), "1s 500000000ns");
  EXPECT_EQ(handler.count(), 0u);  // the first event comes after the first sleep
  releaseSleeps(1);
  ASSERT_TRUE(awaitSleepCalls(2));
  EXPECT_EQ(handler.count(), 1u);
  polling->setInterval(250000);  // from the next sleep on
  releaseSleeps(2);
  ASSERT_TRUE(awaitSleepCalls(3));
  EXPECT_EQ(handler.count(), 2u);
  EXPECT_EQ(str(sleepRequest(1)), "1s 500000000ns");
  EXPECT_EQ(str(sleepRequest(2)), "0s 250000000ns");
  polling->setInterval(1);
  releaseSleeps(3);
  ASSERT_TRUE(awaitSleepCalls(4));
  EXPECT_EQ(str(sleepRequest(3)), "0s 1000ns");
  polling->setInterval(999999);
  releaseSleeps(4);
  ASSERT_TRUE(awaitSleepCalls(5));
  EXPECT_EQ(str(sleepRequest(4)), "0s 999999000ns");
  EXPECT_EQ(handler.count(), 4u);
  polling->stop();
  releaseSleeps(5);
}

TEST_F(PollingThreadTest, StopEndsPollingWithoutAFurtherEventAndStartResumes) {
  controlSleeps();
  build(1000);
  polling->start();
  releaseSleeps(2);
  ASSERT_TRUE(awaitSleepCalls(3));  // two events done, third sleep under way
  EXPECT_EQ(handler.count(), 2u);
  polling->stop();
  releaseSleeps(3);  // the current sleep finishes
  ASSERT_TRUE(awaitIdle());
  EXPECT_EQ(handler.count(), 2u);
  EXPECT_EQ(sleepCalls(), 3u);

  polling->start();
  ASSERT_TRUE(awaitSleepCalls(4));
  EXPECT_EQ(handler.count(), 2u);
  releaseSleeps(4);
  ASSERT_TRUE(awaitSleepCalls(5));
  EXPECT_EQ(handler.count(), 3u);
  EXPECT_EQ(handler.threadOf(2), worker);
  polling->stop();
  releaseSleeps(5);
  ASSERT_TRUE(awaitIdle());
  EXPECT_EQ(handler.count(), 3u);
}

TEST_F(PollingThreadTest, StopFromTheHandlerEndsAfterThatEvent) {
  controlSleeps();
  build(0);
  ASSERT_NO_FATAL_FAILURE(runUntilStoppedAt(5));
  // And once more after a new start.
  ASSERT_NO_FATAL_FAILURE(runUntilStoppedAt(7));
}

TEST_F(PollingThreadTest, StartWhileRunningIsIgnored) {
  controlSleeps();
  build(1000);
  polling->start();
  ASSERT_TRUE(awaitSleepCalls(1));  // running
  polling->start();                 // no second start request is left behind
  polling->stop();
  releaseSleeps(1);
  ASSERT_TRUE(awaitIdle());
  EXPECT_EQ(sleepCalls(), 1u);
  EXPECT_EQ(handler.count(), 0u);
}

TEST_F(PollingThreadTest, StopWhileIdleIsIgnored) {
  controlSleeps();
  build(0);
  ASSERT_TRUE(awaitIdle());
  polling->stop();
  ASSERT_NO_FATAL_FAILURE(runUntilStoppedAt(2));
}

TEST_F(PollingThreadTest, StopRightAfterStartIsIgnored) {
  // The worker must not run between start() and stop(): the test thread runs SCHED_FIFO on the
  // one CPU the worker may use, so the worker only runs once the test thread blocks.
  std::string reason;
  if (!orvix_test::canUseRealtime(&reason)) GTEST_SKIP() << reason;
  controlSleeps();
  build(0);
  ASSERT_TRUE(awaitIdle());
  stopAtEvent(3);

  cpu_set_t one, all, mine;
  CPU_ZERO(&one);
  ASSERT_EQ(sched_getaffinity(0, sizeof mine, &mine), 0);
  int cpu = 0;
  while (!CPU_ISSET(cpu, &mine)) ++cpu;
  CPU_SET(cpu, &one);
  ASSERT_EQ(sched_getaffinity(worker, sizeof all, &all), 0);
  ASSERT_EQ(sched_setaffinity(worker, sizeof one, &one), 0);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  int oldPolicy = 0;
  sched_param oldParam{}, fifo{};
  fifo.sched_priority = 1;
  ASSERT_EQ(pthread_getschedparam(pthread_self(), &oldPolicy, &oldParam), 0);
  ASSERT_EQ(pthread_setschedparam(pthread_self(), SCHED_FIFO, &fifo), 0);
  polling->start();
  polling->stop();  // the worker has not taken up the start yet
  pthread_setschedparam(pthread_self(), oldPolicy, &oldParam);
  sched_setaffinity(0, sizeof mine, &mine);
  sched_setaffinity(worker, sizeof all, &all);

  ASSERT_TRUE(handler.awaitEvents(3));  // polling went on
  ASSERT_TRUE(awaitIdle());
  EXPECT_EQ(handler.count(), 3u);
}

TEST_F(PollingThreadTest, SetNoWaitSkipsExactlyOneSleep) {
  controlSleeps();
  build(1000);
  polling->start();
  ASSERT_TRUE(awaitSleepCalls(1));
  polling->setNoWait();
  releaseSleeps(1);
  // The event after the first sleep, then one without a sleep, then the next sleep.
  ASSERT_TRUE(awaitSleepCalls(2));
  EXPECT_EQ(handler.count(), 2u);
  releaseSleeps(2);
  ASSERT_TRUE(awaitSleepCalls(3));
  EXPECT_EQ(handler.count(), 3u);
  releaseSleeps(3);
  ASSERT_TRUE(awaitSleepCalls(4));
  EXPECT_EQ(handler.count(), 4u);
  polling->stop();
  releaseSleeps(4);
}

TEST_F(PollingThreadTest, SetNoWaitBeforeStartSkipsTheFirstSleep) {
  controlSleeps();
  build(1000);
  ASSERT_TRUE(awaitIdle());
  polling->setNoWait();
  polling->start();
  ASSERT_TRUE(awaitSleepCalls(1));
  EXPECT_EQ(handler.count(), 1u);
  polling->stop();
  releaseSleeps(1);
  ASSERT_TRUE(awaitIdle());
  EXPECT_EQ(handler.count(), 1u);
}

TEST_F(PollingThreadTest, IntervalZeroOrLessCallsBackToBackWithoutSleeping) {
  for (int interval : {0, -1, -250000}) {
    SCOPED_TRACE(interval);
    controlSleeps();
    Handler h;
    PollingThread p(&h, interval);
    h.setOnEvent([&p](std::size_t n) {
      if (n == 100) p.stop();
    });
    p.start();
    ASSERT_TRUE(h.awaitEvents(100));
    EXPECT_EQ(sleepCalls(), 0u);
  }
}

TEST_F(PollingThreadTest, ASignalDoesNotShortenTheSleep) {
  // nanosleep reports EINTR with what was left; the worker sleeps exactly that remainder next.
  controlSleeps();
  {
    std::lock_guard<std::mutex> lock(sleeps.mutex);
    sleeps.interruptNext = true;
    sleeps.remainder = {0, 123456789};
  }
  build(2000000);
  polling->start();
  ASSERT_TRUE(awaitSleepCalls(2));
  EXPECT_EQ(str(sleepRequest(0)), "2s 0ns");
  EXPECT_EQ(str(sleepRequest(1)), "0s 123456789ns");
  EXPECT_EQ(handler.count(), 0u);  // still the first sleep
  releaseSleeps(2);
  ASSERT_TRUE(handler.awaitEvents(1));
  ASSERT_TRUE(awaitSleepCalls(3));
  EXPECT_EQ(str(sleepRequest(2)), "2s 0ns");
  polling->stop();
  releaseSleeps(3);
}

namespace {
void ignoreSignal(int) {}
}  // namespace

TEST_F(PollingThreadTest, RealSignalsDuringTheRealSleepDoNotShortenIt) {
  // Only a lower bound is checked: a loaded machine makes the gap longer, never shorter.
  struct sigaction action {};
  action.sa_handler = &ignoreSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: the sleep is interrupted
  struct sigaction old {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
  {
    std::lock_guard<std::mutex> lock(sleeps.mutex);
    sleeps.realInterrupted = 0;
  }
  constexpr int kIntervalUs = 200000;
  build(kIntervalUs);
  stopAtEvent(2);
  polling->start();
  ASSERT_TRUE(handler.awaitEvents(1));
  std::atomic<bool> done{false};
  std::thread signaller([&] {
    while (!done) {
      syscall(SYS_tgkill, getpid(), worker, SIGUSR1);
      orvix_test::pauseBriefly();
    }
  });
  const bool second = handler.awaitEvents(2);
  done = true;
  signaller.join();
  ASSERT_TRUE(second);
  EXPECT_GE(microsecondsBetween(handler.timeOf(0), handler.timeOf(1)), kIntervalUs);
  {
    std::lock_guard<std::mutex> lock(sleeps.mutex);
    EXPECT_GT(sleeps.realInterrupted, 0);
  }
  polling.reset();
  sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(PollingThreadTest, RealSleepsBetweenEvents) {
  build(1000);
  ASSERT_NO_FATAL_FAILURE(runUntilStoppedAt(5));
  for (std::size_t i = 1; i < 5; ++i)
    EXPECT_GE(microsecondsBetween(handler.timeOf(i - 1), handler.timeOf(i)), 1000);
}

TEST_F(PollingThreadTest, DestroyedWhileIdleEnds) {
  // In a child, so that a worker that never ends shows as a timeout, not as a hung suite.
  const auto r = orvix_test::runInChild(
      [] {
        controlSleeps();
        Handler h;
        const auto before = orvix_test::threadIdsBeforeStarting();
        auto p = std::make_unique<PollingThread>(&h, 0);
        const pid_t w = orvix_test::newThread(before, threadIds());
        if (!waitUntilBlocked(w)) printf("worker never idle\n");
        p.reset();
        printf("events=%zu sleeps=%zu\n", h.count(), sleepCalls());
      },
      "", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "events=0 sleeps=0\n");
}

TEST_F(PollingThreadTest, DestroyedWhilePollingEndsAfterTheSleepWithoutAnEvent) {
  const auto r = orvix_test::runInChild(
      [] {
        controlSleeps();
        Handler h;
        auto p = std::make_unique<PollingThread>(&h, 1000);
        p->start();
        releaseSleeps(1);
        if (!awaitSleepCalls(2)) printf("no second sleep\n");
        std::atomic<pid_t> destroyerId{0};
        std::thread destroyer([&] {
          destroyerId = threadId();
          p.reset();
        });
        waitUntil([&] { return destroyerId != 0; });
        if (!waitUntilBlocked(destroyerId)) printf("destroyer never joined\n");
        releaseSleeps(2);  // the worker's sleep ends
        destroyer.join();
        printf("events=%zu sleeps=%zu\n", h.count(), sleepCalls());
      },
      "", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "events=1 sleeps=2\n");
}

TEST_F(PollingThreadTest, DestroyedWhilePollingBackToBackEnds) {
  const auto r = orvix_test::runInChild(
      [] {
        Handler h;
        auto p = std::make_unique<PollingThread>(&h, 0);
        p->start();
        h.awaitEvents(10);
        p.reset();
        printf("ended\n");
      },
      "", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "ended\n");
}

TEST(PollingThreadDeathTest, NullHandlerIsAnAssertion) {
  orvix_test::expectAssertion([] { PollingThread p(nullptr, 1000); }, "Orvix/PollingThread", 61,
                              "PollingThread::PollingThread(IPollingThreadHandler*, int)",
                              "nullptr != handler");
}
