#include "Orvix/CppLinuxTimer.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.hpp"
#include "ThreadStateSupport.hpp"
#include "ZuLog.h"

using orvix::LinuxTimer;
using orvix::PeriodicTimer;
using orvix::Timer;
using orvix::TimerCallback;
using orvix_test::CaptureFd;
using orvix_test::errorText;
using orvix_test::runInChild;
using orvix_test::takeArmed;
using orvix_test::threadId;
using orvix_test::waitUntil;

namespace {

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer cannot follow the threads glibc starts for SIGEV_THREAD notifications: they are
// created inside libc, out of its sight, and the first expiry crashes its allocator. Under it the
// timers are created, set and deleted for real but never armed, and the tests that need an
// expiry are skipped.
constexpr bool kTimersMayFire = false;
#else
constexpr bool kTimersMayFire = true;
#endif
const char* const kNoFiring =
    "ThreadSanitizer cannot follow the threads glibc starts for SIGEV_THREAD timers";

// glibc keeps the timer calls in several versions (an old ABI among them); a library built
// against these headers binds to the default one, and so must the interposers.
#if __GLIBC_PREREQ(2, 34)
const char* const kTimerVersion = "GLIBC_2.34";
#elif defined(__arm__)
const char* const kTimerVersion = "GLIBC_2.4";
#else
const char* const kTimerVersion = "GLIBC_2.3.3";
#endif

// ---- Observing the timer calls ----------------------------------------------------------------

struct Call {
  std::string name;  // "create", "settime" or "delete"
  timer_t id{};
  clockid_t clock = -1;   // create
  sigevent event{};       // create
  int flags = -1;         // settime
  itimerspec value{};     // settime
  bool oldValueAsked = false;
};

std::mutex callsMutex;
std::vector<Call> calls;  // written under callsMutex
// Armed error numbers: the next call fails with it instead of running.
int failCreate = 0;
int failSettime = 0;
int failDelete = 0;
// Priorities put into thread attributes.
std::vector<int> attributePriorities;  // written under callsMutex

void record(Call c) {
  std::lock_guard<std::mutex> lock(callsMutex);
  calls.push_back(std::move(c));
}

std::vector<Call> takeCalls() {
  std::lock_guard<std::mutex> lock(callsMutex);
  std::vector<Call> result;
  result.swap(calls);
  return result;
}

bool validTime(const timespec& t) {
  return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < 1000000000L;
}

std::string str(const timespec& t) {
  return "{" + std::to_string(t.tv_sec) + ", " + std::to_string(t.tv_nsec) + "}";
}

// "value {s, ns} interval {s, ns}"
std::string str(const itimerspec& s) {
  return "value " + str(s.it_value) + " interval " + str(s.it_interval);
}

}  // namespace

extern "C" {

int timer_create(clockid_t clock, sigevent* event, timer_t* id) __THROW {
  static auto real = orvix_test::nextSymbol<int (*)(clockid_t, sigevent*, timer_t*)>(
      "timer_create", kTimerVersion);
  Call c;
  c.name = "create";
  c.clock = clock;
  if (event != nullptr) c.event = *event;
  if (const int err = takeArmed(failCreate)) {
    record(c);
    errno = err;
    return -1;
  }
  const int result = real(clock, event, id);
  if (result == 0) c.id = *id;
  record(c);
  return result;
}

int timer_settime(timer_t id, int flags, const itimerspec* value, itimerspec* oldValue) __THROW {
  static auto real = orvix_test::nextSymbol<int (*)(timer_t, int, const itimerspec*, itimerspec*)>(
      "timer_settime", kTimerVersion);
  Call c;
  c.name = "settime";
  c.id = id;
  c.flags = flags;
  c.value = *value;
  c.oldValueAsked = oldValue != nullptr;
  record(c);
  if (const int err = takeArmed(failSettime)) {
    errno = err;
    return -1;
  }
  itimerspec forwarded = *value;
  if (!kTimersMayFire && validTime(forwarded.it_value)) forwarded.it_value = timespec{0, 0};
  return real(id, flags, &forwarded, oldValue);
}

int timer_delete(timer_t id) __THROW {
  static auto real = orvix_test::nextSymbol<int (*)(timer_t)>("timer_delete", kTimerVersion);
  Call c;
  c.name = "delete";
  c.id = id;
  record(c);
  if (const int err = takeArmed(failDelete)) {
    errno = err;
    return -1;
  }
  return real(id);
}

int pthread_attr_setschedparam(pthread_attr_t* attr, const sched_param* param) __THROW {
  static auto real = orvix_test::nextSymbol<int (*)(pthread_attr_t*, const sched_param*)>(
      "pthread_attr_setschedparam");
  {
    std::lock_guard<std::mutex> lock(callsMutex);
    attributePriorities.push_back(param->sched_priority);
  }
  return real(attr, param);
}

// The logging library: one line on standard error with every argument.
int ZU_Log_Printf(unsigned int grpId, const char* grpName, int a, int b, int c, int d,
                  const char* file, int line, const char* format, ...) {
  char text[512];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  fprintf(stderr, "ZU_Log_Printf(%u, %s, %d, %d, %d, %d, %s, %d) %s", grpId, grpName, a, b, c, d,
          file, line, text);
  return 9;
}

}  // extern "C"

namespace {

// Objects a notification may still reach after the test is done with them stay alive for the
// rest of the process (the library does not wait for notifications on their way).
template <class T>
T* keep(T* p) {
  static auto* kept = new std::vector<void*>;  // never freed, so what it holds stays reachable
  kept->push_back(p);
  return p;
}

sigval value(void* p) {
  sigval v;
  v.sival_ptr = p;
  return v;
}

class Reset : public ::testing::Test {
 protected:
  void SetUp() override {
    takeCalls();
    failCreate = failSettime = failDelete = 0;
    std::lock_guard<std::mutex> lock(callsMutex);
    attributePriorities.clear();
  }
};

// Counts expiries and the thread of the last one; awaitable.
struct Expiries {
  std::mutex mutex;
  std::condition_variable cond;
  int count = 0;   // written under mutex
  pid_t last = 0;  // written under mutex

  void hit() {
    std::lock_guard<std::mutex> lock(mutex);
    ++count;
    last = threadId();
    cond.notify_all();
  }
  bool await(int n) {
    std::unique_lock<std::mutex> lock(mutex);
    return cond.wait_for(lock, std::chrono::minutes(2), [&] { return count >= n; });
  }
  pid_t lastThread() {
    std::lock_guard<std::mutex> lock(mutex);
    return last;
  }
};

class CountingCallback : public TimerCallback {
 public:
  explicit CountingCallback(Expiries* e) : expiries(e) {}
  void timerExpired() override { expiries->hit(); }
  Expiries* expiries;
};

const itimerspec kZero{};

std::string logLine(int line, const std::string& text) {
  return "ZU_Log_Printf(4294967295, Noname, 1, 1, 1, 0, Orvix/CppLinuxTimer, " +
         std::to_string(line) + ") " + text + "\n";
}

void expectFatal(const std::function<void()>& fn, int line, const std::string& text) {
  const auto r = runInChild(fn);
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, logLine(line, text));
  EXPECT_EQ(r.out, "");
}

}  // namespace

// ---- The interposers ---------------------------------------------------------------------------

TEST(TimerSymbols, InterposersReachTheVersionTheLibraryBindsTo) {
  // The static linker binds to the default version; the interposers forward to kTimerVersion.
  for (const char* name : {"timer_create", "timer_settime", "timer_delete"}) {
    SCOPED_TRACE(name);
    void* versioned = orvix_test::nextSymbol<void*>(name, kTimerVersion);
    ASSERT_NE(versioned, nullptr);
    EXPECT_EQ(versioned, orvix_test::nextSymbol<void*>(name));
  }
}

// ---- LinuxTimer: what it asks of the system ----------------------------------------------------

using LinuxTimerCalls = Reset;

TEST_F(LinuxTimerCalls, CreateAsksForAThreadNotificationOnTheMonotonicClock) {
  LinuxTimer t;
  EXPECT_TRUE(takeCalls().empty());
  t.create([] {});
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(c[0].name, "create");
  EXPECT_EQ(c[0].clock, CLOCK_MONOTONIC);
  EXPECT_EQ(c[0].event.sigev_notify, SIGEV_THREAD);
  EXPECT_EQ(c[0].event.sigev_signo, 0);
  EXPECT_EQ(c[0].event.sigev_value.sival_ptr, &t);
  EXPECT_EQ(c[0].event.sigev_notify_function, &LinuxTimer::notifyFunction);
  EXPECT_EQ(c[0].event.sigev_notify_attributes, nullptr);
}

TEST_F(LinuxTimerCalls, StartSetsARelativeSetting) {
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([] {});
  const timer_t id = takeCalls().at(0).id;
  t.start(1000, 2, 3, 4);
  auto c = takeCalls();
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(c[0].name, "settime");
  EXPECT_EQ(c[0].id, id);
  EXPECT_EQ(c[0].flags, 0);
  EXPECT_EQ(str(c[0].value), "value {1000, 2} interval {3, 4}");
  EXPECT_FALSE(c[0].oldValueAsked);
  t.cancelAndDelete();
}

TEST_F(LinuxTimerCalls, StartWithAZeroFirstExpiryDisarms) {
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([] {});
  const timer_t id = takeCalls().at(0).id;
  t.start(0, 0, 5, 6);
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(str(c[0].value), "value {0, 0} interval {5, 6}");
  itimerspec now{};
  ASSERT_EQ(timer_gettime(id, &now), 0);
  EXPECT_EQ(str(now.it_value), "{0, 0}");  // not armed
  t.cancelAndDelete();
}

TEST_F(LinuxTimerCalls, NothingReachesTheSystemBeforeCreate) {
  {
    LinuxTimer t;
    t.start(1, 0, 1, 0);
    t.cancel();
    t.cancelAndDelete();
    LinuxTimer::notifyFunction(value(&t));
  }
  EXPECT_TRUE(takeCalls().empty());
}

TEST_F(LinuxTimerCalls, CancelSetsAllZeros) {
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([] {});
  const timer_t id = takeCalls().at(0).id;
  t.start(1000, 0, 0, 0);
  t.cancel();
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 2u);
  EXPECT_EQ(c[1].name, "settime");
  EXPECT_EQ(c[1].id, id);
  EXPECT_EQ(c[1].flags, 0);
  EXPECT_EQ(str(c[1].value), str(kZero));
  itimerspec now{};
  ASSERT_EQ(timer_gettime(id, &now), 0);
  EXPECT_EQ(str(now), str(kZero));
  t.cancelAndDelete();
}

TEST_F(LinuxTimerCalls, CancelAndDeleteDisarmsDeletesAndKeepsTheCallable) {
  auto token = std::make_shared<int>(0);
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([token] {});
  const timer_t id = takeCalls().at(0).id;
  t.cancelAndDelete();
  auto c = takeCalls();
  ASSERT_EQ(c.size(), 2u);
  EXPECT_EQ(c[0].name, "settime");
  EXPECT_EQ(str(c[0].value), str(kZero));
  EXPECT_EQ(c[1].name, "delete");
  EXPECT_EQ(c[1].id, id);
  EXPECT_EQ(token.use_count(), 2);  // still held by the timer
  // Not created any more: nothing reaches the system.
  t.start(1, 0, 0, 0);
  t.cancel();
  t.cancelAndDelete();
  EXPECT_TRUE(takeCalls().empty());
}

TEST_F(LinuxTimerCalls, CreateAgainDeletesTheFirstTimerAndDropsTheFirstCallable) {
  auto first = std::make_shared<int>(1);
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([first] {});
  const timer_t id1 = takeCalls().at(0).id;
  t.create([] {});
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 3u);
  EXPECT_EQ(c[0].name, "settime");
  EXPECT_EQ(c[0].id, id1);
  EXPECT_EQ(str(c[0].value), str(kZero));
  EXPECT_EQ(c[1].name, "delete");
  EXPECT_EQ(c[1].id, id1);
  EXPECT_EQ(c[2].name, "create");
  EXPECT_EQ(first.use_count(), 1);
  t.cancelAndDelete();
}

TEST_F(LinuxTimerCalls, DestructorCancelsDeletesAndDropsTheCallable) {
  auto token = std::make_shared<int>(0);
  timer_t id{};
  {
    LinuxTimer t;
    t.create([token] {});
    id = takeCalls().at(0).id;
    EXPECT_EQ(token.use_count(), 2);
  }
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 2u);
  EXPECT_EQ(c[0].name, "settime");
  EXPECT_EQ(str(c[0].value), str(kZero));
  EXPECT_EQ(c[1].name, "delete");
  EXPECT_EQ(c[1].id, id);
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(LinuxTimerCalls, NotifyFunctionCallsTheCallableOnlyWhileCreated) {
  int called = 0;
  LinuxTimer t;
  t.create([&called] { ++called; });
  LinuxTimer::notifyFunction(value(&t));
  EXPECT_EQ(called, 1);
  t.cancelAndDelete();
  // A notification that arrives after cancelAndDelete calls nothing.
  LinuxTimer::notifyFunction(value(&t));
  EXPECT_EQ(called, 1);
  t.create([&called] { called += 10; });
  LinuxTimer::notifyFunction(value(&t));
  EXPECT_EQ(called, 11);
}

TEST_F(LinuxTimerCalls, AnEmptyCallableThrowsBadFunctionCall) {
  LinuxTimer t;
  t.create(std::function<void()>());
  EXPECT_THROW(LinuxTimer::notifyFunction(value(&t)), std::bad_function_call);
}

// ---- LinuxTimer: fatal failures ------------------------------------------------------------------

TEST(LinuxTimerDeathTest, FailingCreateIsLoggedAndAborts) {
  expectFatal(
      [] {
        LinuxTimer t;
        failCreate = EAGAIN;
        t.create([] {});
      },
      72, "timer_create failed: " + errorText(EAGAIN));
}

TEST(LinuxTimerDeathTest, FailingSetInStartIsLoggedAndAborts) {
  expectFatal(
      [] {
        LinuxTimer t;
        t.create([] {});
        failSettime = EINVAL;
        t.start(1, 0, 0, 0);
      },
      96, "timer_settime failed: " + errorText(EINVAL));
}

TEST(LinuxTimerDeathTest, ARealInvalidSettingIsLoggedAndAborts) {
  // Nanoseconds of a whole second: the system refuses the setting itself.
  expectFatal(
      [] {
        LinuxTimer t;
        t.create([] {});
        t.start(0, 1000000000L, 0, 0);
      },
      96, "timer_settime failed: " + errorText(EINVAL));
}

TEST(LinuxTimerDeathTest, FailingSetInCancelIsLoggedAndAborts) {
  expectFatal(
      [] {
        LinuxTimer t;
        t.create([] {});
        failSettime = EINVAL;
        t.cancel();
      },
      111, "timer_settime failed: " + errorText(EINVAL));
}

TEST(LinuxTimerDeathTest, FailingCancelInCancelAndDeleteIsLoggedAndAborts) {
  expectFatal(
      [] {
        LinuxTimer t;
        t.create([] {});
        failSettime = EINVAL;
        t.cancelAndDelete();
      },
      111, "timer_settime failed: " + errorText(EINVAL));
}

TEST(LinuxTimerDeathTest, FailingDeleteIsLoggedAndAborts) {
  expectFatal(
      [] {
        LinuxTimer t;
        t.create([] {});
        failDelete = EINVAL;
        t.cancelAndDelete();
      },
      129, "timer_delete failed: " + errorText(EINVAL));
}

TEST(LinuxTimerDeathTest, FailingDeleteInTheDestructorIsLoggedAndAborts) {
  expectFatal(
      [] {
        LinuxTimer t;
        t.create([] {});
        failDelete = EINVAL;
      },
      129, "timer_delete failed: " + errorText(EINVAL));
}

// ---- LinuxTimer: real expiries ---------------------------------------------------------------------

using LinuxTimerFiring = Reset;

TEST_F(LinuxTimerFiring, AOneShotTimerFiresOnANotificationThreadAndDisarms) {
  if (!kTimersMayFire) GTEST_SKIP() << kNoFiring;
  Expiries* e = keep(new Expiries);
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([e] { e->hit(); });
  t.start(0, 1000000, 0, 0);
  ASSERT_TRUE(e->await(1));
  EXPECT_NE(e->lastThread(), threadId());
  itimerspec now{};
  ASSERT_EQ(timer_gettime(takeCalls().at(0).id, &now), 0);
  EXPECT_EQ(str(now), str(kZero));  // one-shot: nothing left armed
  t.cancelAndDelete();
}

TEST_F(LinuxTimerFiring, APeriodicTimerFiresRepeatedly) {
  if (!kTimersMayFire) GTEST_SKIP() << kNoFiring;
  Expiries* e = keep(new Expiries);
  LinuxTimer& t = *keep(new LinuxTimer);
  t.create([e] { e->hit(); });
  t.start(0, 1000000, 0, 1000000);
  ASSERT_TRUE(e->await(5));
  EXPECT_NE(e->lastThread(), threadId());
  itimerspec now{};
  ASSERT_EQ(timer_gettime(takeCalls().at(0).id, &now), 0);
  EXPECT_EQ(str(now.it_interval), "{0, 1000000}");
  t.cancelAndDelete();
}

// ---- PeriodicTimer: what it asks of the system and what it prints --------------------------------

using PeriodicTimerCalls = Reset;

TEST_F(PeriodicTimerCalls, ConstructorCreatesAThreadNotificationWithPriority255Attributes) {
  CaptureFd out(1);
  timer_t id{};
  {
    PeriodicTimer p;
    const auto c = takeCalls();
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].name, "create");
    EXPECT_EQ(c[0].clock, CLOCK_MONOTONIC);
    EXPECT_EQ(c[0].event.sigev_notify, SIGEV_THREAD);
    EXPECT_EQ(c[0].event.sigev_value.sival_ptr, static_cast<Timer*>(&p));
    EXPECT_EQ(c[0].event.sigev_notify_function, &Timer::alarm);
    EXPECT_NE(c[0].event.sigev_notify_attributes, nullptr);
    id = c[0].id;
    std::lock_guard<std::mutex> lock(callsMutex);
    EXPECT_EQ(attributePriorities, std::vector<int>{255});
  }
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(c[0].name, "delete");
  EXPECT_EQ(c[0].id, id);
  EXPECT_EQ(out.text(), "");
}

TEST_F(PeriodicTimerCalls, StartTimerArmsFirstExpiryAndPeriodAlike) {
  Expiries* e = keep(new Expiries);
  CountingCallback* cb = keep(new CountingCallback(e));
  PeriodicTimer& p = *keep(new PeriodicTimer);
  p.setCallback(cb);
  const timer_t id = takeCalls().at(0).id;
  CaptureFd out(1);
  p.startTimer(1500000);
  p.stopTimer();
  p.startTimer(999999);
  p.stopTimer();
  p.startTimer(2000000);
  p.stopTimer();
  EXPECT_EQ(out.text(), "");
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 6u);
  for (const auto& call : c) {
    EXPECT_EQ(call.name, "settime");
    EXPECT_EQ(call.id, id);
    EXPECT_EQ(call.flags, 0);
    EXPECT_FALSE(call.oldValueAsked);
  }
  EXPECT_EQ(str(c[0].value), "value {1, 500000000} interval {1, 500000000}");
  EXPECT_EQ(str(c[1].value), str(kZero));
  EXPECT_EQ(str(c[2].value), "value {0, 999999000} interval {0, 999999000}");
  EXPECT_EQ(str(c[3].value), str(kZero));
  EXPECT_EQ(str(c[4].value), "value {2, 0} interval {2, 0}");
  EXPECT_EQ(str(c[5].value), str(kZero));
}

TEST_F(PeriodicTimerCalls, AMissingCallbackIsReportedByBothAndArmingGoesOn) {
  PeriodicTimer& p = *keep(new PeriodicTimer);
  takeCalls();
  CaptureFd out(1);
  p.startTimer(1500000);
  const std::string afterStart = "PeriodicTimer::startTimer: no callback defined\n\n";
  p.stopTimer();
  EXPECT_EQ(out.text(), afterStart + afterStart);  // stopTimer prints the start text
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 2u);
  EXPECT_EQ(str(c[0].value), "value {1, 500000000} interval {1, 500000000}");
  EXPECT_EQ(str(c[1].value), str(kZero));
}

TEST_F(PeriodicTimerCalls, FailuresAreOnlyPrinted) {
  Expiries* e = keep(new Expiries);
  CountingCallback* cb = keep(new CountingCallback(e));
  CaptureFd out(1);
  {
    failCreate = EAGAIN;
    PeriodicTimer p;
    p.setCallback(cb);
    failSettime = EINVAL;
    p.startTimer(1000);
    failSettime = EINVAL;
    p.stopTimer();
  }
  EXPECT_EQ(out.text(),
            "PeriodicTimer: Could not create the thread\n"
            "PeriodicTimer::startTimer: failed\n\n"
            "PeriodicTimer::stopTimer: failed\n\n");
  const auto c = takeCalls();
  // Nothing was created, so nothing is deleted.
  ASSERT_EQ(c.size(), 3u);
  EXPECT_EQ(c[0].name, "create");
  EXPECT_EQ(c[1].name, "settime");
  EXPECT_EQ(c[1].id, timer_t());
  EXPECT_EQ(c[2].name, "settime");
}

TEST_F(PeriodicTimerCalls, ARealRefusedSettingIsPrinted) {
  Expiries* e = keep(new Expiries);
  CountingCallback* cb = keep(new CountingCallback(e));
  PeriodicTimer& p = *keep(new PeriodicTimer);
  p.setCallback(cb);
  CaptureFd out(1);
  p.startTimer(-1);  // negative nanoseconds
  EXPECT_EQ(out.text(), "PeriodicTimer::startTimer: failed\n\n");
}

TEST_F(PeriodicTimerCalls, AFailingDeleteInTheDestructorIsIgnored) {
  CaptureFd out(1);
  CaptureFd err(2);
  {
    PeriodicTimer p;
    failDelete = EINVAL;
  }
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(err.text(), "");
  const auto c = takeCalls();
  ASSERT_EQ(c.size(), 2u);
  EXPECT_EQ(c[1].name, "delete");
}

// ---- Timer::alarm ---------------------------------------------------------------------------------

namespace {

// Whether another thread finds alarmMtx free right now.
bool alarmMutexFreeForOthers() {
  bool free = false;
  std::thread other([&free] {
    free = Timer::alarmMtx.try_lock();
    if (free) Timer::alarmMtx.unlock();
  });
  other.join();
  return free;
}

class ProbingCallback : public TimerCallback {
 public:
  void timerExpired() override {
    ++calls;
    heldDuringCall = !alarmMutexFreeForOthers();
    if (throwNext) throw std::runtime_error("from the callback");
  }
  int calls = 0;
  bool heldDuringCall = false;
  bool throwNext = false;
};

}  // namespace

TEST_F(PeriodicTimerCalls, AlarmCallsTheCallbackWithAlarmMtxHeld) {
  PeriodicTimer p;
  ProbingCallback cb;
  p.setCallback(&cb);
  Timer::alarm(value(static_cast<Timer*>(&p)));
  EXPECT_EQ(cb.calls, 1);
  EXPECT_TRUE(cb.heldDuringCall);
  EXPECT_TRUE(alarmMutexFreeForOthers());
}

TEST_F(PeriodicTimerCalls, AlarmWithoutTimerOrCallbackCallsNothing) {
  Timer::alarm(value(nullptr));
  PeriodicTimer p;
  Timer::alarm(value(static_cast<Timer*>(&p)));
  EXPECT_TRUE(alarmMutexFreeForOthers());
  ProbingCallback cb;
  p.setCallback(&cb);
  p.setCallback(nullptr);
  Timer::alarm(value(static_cast<Timer*>(&p)));
  EXPECT_EQ(cb.calls, 0);
}

TEST_F(PeriodicTimerCalls, AlarmReleasesAlarmMtxWhenTheCallbackThrows) {
  PeriodicTimer p;
  ProbingCallback cb;
  cb.throwNext = true;
  p.setCallback(&cb);
  EXPECT_THROW(Timer::alarm(value(static_cast<Timer*>(&p))), std::runtime_error);
  EXPECT_EQ(cb.calls, 1);
  EXPECT_TRUE(alarmMutexFreeForOthers());
}

// ---- PeriodicTimer: real expiries -----------------------------------------------------------------

using PeriodicTimerFiring = Reset;

TEST_F(PeriodicTimerFiring, FiresOnNotificationThreads) {
  if (!kTimersMayFire) GTEST_SKIP() << kNoFiring;
  Expiries* e = keep(new Expiries);
  CountingCallback* cb = keep(new CountingCallback(e));
  PeriodicTimer& p = *keep(new PeriodicTimer);
  p.setCallback(cb);
  p.startTimer(1000);
  ASSERT_TRUE(e->await(5));
  EXPECT_NE(e->lastThread(), threadId());
  p.stopTimer();
}

namespace {

// Callbacks of several timers noting how many of them run at the same moment.
struct Overlap {
  std::atomic<int> active{0};
  std::atomic<int> mostActive{0};
  std::atomic<int> calls[2] = {{0}, {0}};
};

class OverlapCallback : public TimerCallback {
 public:
  OverlapCallback(Overlap* o, int which) : overlap(o), which(which) {}
  void timerExpired() override {
    const int now = ++overlap->active;
    int most = overlap->mostActive;
    while (now > most && !overlap->mostActive.compare_exchange_weak(most, now)) {
    }
    // Stay a little, so that an unserialised second callback would be caught inside.
    for (int i = 0; i < 20; ++i) sched_yield();
    --overlap->active;
    ++overlap->calls[which];
  }
  Overlap* overlap;
  int which;
};

}  // namespace

TEST_F(PeriodicTimerFiring, CallbacksOfTwoTimersNeverOverlap) {
  if (!kTimersMayFire) GTEST_SKIP() << kNoFiring;
  Overlap* o = keep(new Overlap);
  PeriodicTimer& a = *keep(new PeriodicTimer);
  PeriodicTimer& b = *keep(new PeriodicTimer);
  a.setCallback(keep(new OverlapCallback(o, 0)));
  b.setCallback(keep(new OverlapCallback(o, 1)));
  a.startTimer(1000);
  b.startTimer(1000);
  ASSERT_TRUE(waitUntil([o] { return o->calls[0] >= 50 && o->calls[1] >= 50; }));
  a.stopTimer();
  b.stopTimer();
  std::lock_guard<std::mutex> lock(Timer::alarmMtx);  // no callback runs while this is held
  EXPECT_EQ(o->mostActive, 1);
  EXPECT_EQ(o->active, 0);
}
