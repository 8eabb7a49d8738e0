#include "Orvix/RecursiveMutex.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/GeneralException.hpp"
#include "TestSupport.hpp"

// ---- Fault injection -----------------------------------------------------------------------------
// glibc's mutex and condition calls hardly ever fail, so the test program interposes the ones the
// library checks: armed for the calling thread, the next call returns the armed number instead of
// running; otherwise it forwards to the real function. The program exports its symbols, so the
// library's calls reach these definitions first.

namespace {

thread_local int failMutexDestroy = 0;
thread_local int failCondattrInit = 0;
thread_local int failCondattrSetclock = 0;
thread_local int failCondInit = 0;
thread_local int failCondattrDestroy = 0;
thread_local int failCondDestroy = 0;
thread_local int failCondSignal = 0;
thread_local int failCondBroadcast = 0;
thread_local int failCondTimedwait = 0;
thread_local int failCondWait = 0;

using orvix_test::nextSymbol;
using orvix_test::takeArmed;

}  // namespace

extern "C" {

int pthread_mutex_destroy(pthread_mutex_t* m) __THROW {
  static auto real = nextSymbol<int (*)(pthread_mutex_t*)>("pthread_mutex_destroy");
  if (const int r = takeArmed(failMutexDestroy)) return r;
  return real(m);
}

int pthread_condattr_init(pthread_condattr_t* a) __THROW {
  static auto real = nextSymbol<int (*)(pthread_condattr_t*)>("pthread_condattr_init");
  if (const int r = takeArmed(failCondattrInit)) return r;
  return real(a);
}

int pthread_condattr_setclock(pthread_condattr_t* a, clockid_t c) __THROW {
  static auto real = nextSymbol<int (*)(pthread_condattr_t*, clockid_t)>("pthread_condattr_setclock");
  if (const int r = takeArmed(failCondattrSetclock)) return r;
  return real(a, c);
}

int pthread_cond_init(pthread_cond_t* c, const pthread_condattr_t* a) __THROW {
  static auto real = nextSymbol<int (*)(pthread_cond_t*, const pthread_condattr_t*)>("pthread_cond_init");
  if (const int r = takeArmed(failCondInit)) return r;
  return real(c, a);
}

int pthread_condattr_destroy(pthread_condattr_t* a) __THROW {
  static auto real = nextSymbol<int (*)(pthread_condattr_t*)>("pthread_condattr_destroy");
  if (const int r = takeArmed(failCondattrDestroy)) return r;
  return real(a);
}

int pthread_cond_destroy(pthread_cond_t* c) __THROW {
  static auto real = nextSymbol<int (*)(pthread_cond_t*)>("pthread_cond_destroy");
  if (const int r = takeArmed(failCondDestroy)) return r;
  return real(c);
}

int pthread_cond_signal(pthread_cond_t* c) __THROW {
  static auto real = nextSymbol<int (*)(pthread_cond_t*)>("pthread_cond_signal");
  if (const int r = takeArmed(failCondSignal)) return r;
  return real(c);
}

int pthread_cond_broadcast(pthread_cond_t* c) __THROW {
  static auto real = nextSymbol<int (*)(pthread_cond_t*)>("pthread_cond_broadcast");
  if (const int r = takeArmed(failCondBroadcast)) return r;
  return real(c);
}

int pthread_cond_wait(pthread_cond_t* c, pthread_mutex_t* m) {
  static auto real = nextSymbol<int (*)(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
  if (const int r = takeArmed(failCondWait)) return r;
  return real(c, m);
}

int pthread_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, const timespec* t) {
  static auto real = nextSymbol<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(
      "pthread_cond_timedwait");
  if (const int r = takeArmed(failCondTimedwait)) return r;
  return real(c, m, t);
}

}  // extern "C"

using orvix_test::CaptureFd;
using orvix_test::deadlineIn;
using orvix_test::runInChild;
using util::GeneralException;
using util::Lock;
using util::RecursiveMutex;
using util::TimeSpec;
using util::WaitCond;

// ---- RecursiveMutex -----------------------------------------------------------------------------

TEST(RecursiveMutex, OwnerMayLockAgain) {
  RecursiveMutex m;
  EXPECT_EQ(m.lock(), 0);
  EXPECT_EQ(m.lock(), 0);
  EXPECT_EQ(m.lock(), 0);
  EXPECT_EQ(m.unlock(), 0);
  EXPECT_EQ(m.unlock(), 0);
  EXPECT_EQ(m.unlock(), 0);
}

TEST(RecursiveMutex, ResultsAreHandedBackUnexamined) {
  // Unlocking a mutex nobody holds is the caller's error; the number comes back as it is.
  RecursiveMutex m;
  EXPECT_EQ(m.unlock(), EPERM);
}

TEST(RecursiveMutex, ExcludesOtherThreads) {
  RecursiveMutex m;
  std::atomic<bool> trying{false};
  std::atomic<bool> got{false};
  m.lock();
  std::thread t([&] {
    trying = true;
    m.lock();
    got = true;
    m.unlock();
  });
  while (!trying) std::this_thread::yield();
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  EXPECT_FALSE(got);  // whenever it ran, it cannot have the mutex yet
  m.unlock();
  t.join();
  EXPECT_TRUE(got);
}

TEST(RecursiveMutex, NotCopyable) {
  static_assert(!std::is_copy_constructible<RecursiveMutex>::value, "");
  static_assert(!std::is_copy_assignable<RecursiveMutex>::value, "");
  static_assert(!std::is_copy_constructible<WaitCond>::value, "");
  static_assert(!std::is_copy_assignable<WaitCond>::value, "");
  static_assert(!std::is_copy_constructible<Lock>::value, "");
  static_assert(std::has_virtual_destructor<RecursiveMutex>::value, "");
  static_assert(std::has_virtual_destructor<WaitCond>::value, "");
  static_assert(std::has_virtual_destructor<Lock>::value, "");
}

TEST(RecursiveMutexDeathTest, DestroyedWhileHeldExitsWithStatusOne) {
  auto r = runInChild([] {
    auto* m = new RecursiveMutex;
    Lock held(*m);
    delete m;
    printf("not reached\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 1);
  EXPECT_EQ(r.err, "FATAL ERROR: EBUSY in pthread_mutex_destroy\n");
  EXPECT_EQ(r.out, "");
}

TEST(RecursiveMutexDeathTest, DescriptionPerErrorNumber) {
  const std::vector<std::pair<int, std::string>> cases = {
      {EBUSY, "EBUSY in pthread_mutex_destroy"},
      {EINVAL, "EINVAL in pthread_mutex_destroy"},
      {EPERM, "EPERM in pthread_mutex_destroy"},
      {ENOMEM, ""},
      {EAGAIN, ""},
      {-1, ""}};
  for (const auto& c : cases) {
    const int code = c.first;
    auto r = runInChild([code] {
      auto* m = new RecursiveMutex;
      failMutexDestroy = code;
      delete m;
      printf("not reached\n");
    });
    ASSERT_TRUE(r.exited()) << r.describe();
    EXPECT_EQ(r.exitCode(), 1) << code;
    EXPECT_EQ(r.err, "FATAL ERROR: " + c.second + "\n") << code;
    EXPECT_EQ(r.out, "") << code;
  }
}

TEST(RecursiveMutex, FreeMutexIsDestroyedQuietly) {
  CaptureFd err(2);
  { RecursiveMutex m; m.lock(); m.unlock(); }
  EXPECT_EQ(err.text(), "");
}

// ---- Lock ----------------------------------------------------------------------------------------

TEST(Lock, NestedScopesDoNotDeadlockAndReleaseFully) {
  RecursiveMutex m;
  {
    Lock outer(m);
    {
      Lock inner(m);
    }
  }
  // Free again: another thread can take it.
  std::atomic<bool> got{false};
  std::thread t([&] {
    Lock l(m);
    got = true;
  });
  t.join();
  EXPECT_TRUE(got);
  EXPECT_EQ(m.unlock(), EPERM);  // nothing left held by this thread
}

TEST(Lock, HoldsForItsScope) {
  RecursiveMutex m;
  std::atomic<int> stage{0};
  std::thread t;
  {
    Lock l(m);
    t = std::thread([&] {
      stage = 1;
      Lock other(m);
      stage = 2;
    });
    while (stage != 1) std::this_thread::yield();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    EXPECT_EQ(stage, 1);
  }
  t.join();
  EXPECT_EQ(stage, 2);
}

// ---- WaitCond ------------------------------------------------------------------------------------

TEST(WaitCond, SignalWakesAWaiter) {
  RecursiveMutex m;
  WaitCond c;
  bool ready = false;  // guarded by m
  std::thread t([&] {
    Lock l(m);
    ready = true;
    c.signal();
  });
  {
    Lock l(m);
    while (!ready) l.wait(c);
    EXPECT_TRUE(ready);
  }
  t.join();
}

TEST(WaitCond, BroadcastWakesAll) {
  RecursiveMutex m;
  WaitCond c;
  bool go = false;  // guarded by m
  int waiting = 0;  // guarded by m
  int woken = 0;    // guarded by m
  std::vector<std::thread> ts;
  for (int i = 0; i < 4; ++i) {
    ts.emplace_back([&] {
      Lock l(m);
      ++waiting;
      c.broadcast();  // tells the main thread (a signal might wake a fellow waiter)
      while (!go) l.wait(c);
      ++woken;
    });
  }
  {
    Lock l(m);
    while (waiting < 4) l.wait(c);
    go = true;
  }
  c.broadcast();  // without the mutex, as allowed
  for (auto& t : ts) t.join();
  EXPECT_EQ(woken, 4);
}

TEST(WaitCond, SignalAndBroadcastWithoutWaitersAreFine) {
  WaitCond c;
  CaptureFd out(1);
  c.signal();
  c.broadcast();
  EXPECT_EQ(out.text(), "");
}

TEST(WaitCond, TimedwaitWithPastDeadlineTimesOutSilentlyWithTheLockHeld) {
  RecursiveMutex m;
  WaitCond c;
  CaptureFd out(1);
  CaptureFd err(2);
  bool timedOut = false;
  Lock l(m);
  try {
    l.timedwait(c, deadlineIn(CLOCK_MONOTONIC, -1000));
  } catch (const util::TimedOutException&) {
    timedOut = true;
  }
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(err.text(), "");
}

TEST(WaitCond, TimedwaitKeepsTheMutexAfterTimeout) {
  RecursiveMutex m;
  WaitCond c;
  m.lock();
  EXPECT_THROW(c.timedwait(m, deadlineIn(CLOCK_MONOTONIC, -1)), util::TimedOutException);
  EXPECT_EQ(m.unlock(), 0);      // held once again after the timeout
  EXPECT_EQ(m.unlock(), EPERM);  // and only once
}

TEST(WaitCond, TimedwaitTimesOutOnTheMonotonicClock) {
  RecursiveMutex m;
  WaitCond c;
  Lock l(m);
  TimeSpec start;
  start.initNow(CLOCK_MONOTONIC);
  const TimeSpec deadline = deadlineIn(CLOCK_MONOTONIC, 20);
  EXPECT_THROW(l.timedwait(c, deadline), util::TimedOutException);
  TimeSpec end;
  end.initNow(CLOCK_MONOTONIC);
  EXPECT_FALSE(end < deadline);  // not before the deadline
}

TEST(WaitCond, TimedwaitWokenBeforeTheDeadlineReturns) {
  RecursiveMutex m;
  WaitCond c;
  bool ready = false;  // guarded by m
  std::thread t([&] {
    Lock l(m);
    ready = true;
    c.broadcast();
  });
  {
    Lock l(m);
    const TimeSpec deadline = deadlineIn(CLOCK_MONOTONIC, 120000);
    while (!ready) l.timedwait(c, deadline);
  }
  t.join();
  EXPECT_TRUE(ready);
}

TEST(WaitCond, TimedwaitWithInvalidNanosecondsIsEinval) {
  // A normalised 0 s, -1 ns is no valid absolute time for the system.
  RecursiveMutex m;
  WaitCond c;
  TimeSpec bad;
  bad.init(0, -1);
  Lock l(m);
  orvix_test::expectGeneralException([&] { l.timedwait(c, bad); }, "EINVAL  in pthread_cond_timedwait");
}

TEST(WaitCondErrors, WaitWithoutTheMutexIsEperm) {
  // The caller must hold the mutex; a recursive mutex knows its owner and refuses.
  RecursiveMutex m;
  WaitCond c;
  orvix_test::expectGeneralException([&] { c.wait(m); }, "EPERM  in pthread_cond_wait");
}

TEST(WaitCondErrors, TimedwaitOtherNumbers) {
  RecursiveMutex m;
  WaitCond c;
  Lock l(m);
  failCondTimedwait = EPERM;
  orvix_test::expectGeneralException([&] { c.timedwait(m, deadlineIn(CLOCK_MONOTONIC, 1000)); }, "EPERM  in pthread_cond_timedwait");
  failCondTimedwait = 12345;
  orvix_test::expectGeneralException([&] { c.timedwait(m, deadlineIn(CLOCK_MONOTONIC, 1000)); },
               "Unexpected errno (12345)  in pthread_cond_timedwait");
  failCondTimedwait = ETIMEDOUT;
  CaptureFd out(1);
  EXPECT_THROW(c.timedwait(m, deadlineIn(CLOCK_MONOTONIC, 1000)), util::TimedOutException);
  EXPECT_EQ(out.text(), "");
}

TEST(WaitCondErrors, ConstructionSteps) {
  struct Step {
    int* arm;
    int code;
    const char* msg;
  };
  const std::vector<Step> steps = {
      {&failCondattrInit, EINVAL, "EINVAL  in pthread_condattr_init"},
      {&failCondattrInit, EBUSY, "EBUSY  in pthread_condattr_init"},
      {&failCondattrInit, ENOMEM, "ENOMEM  in pthread_condattr_init"},
      {&failCondattrInit, EPERM, "Unexpected errno (1)  in pthread_condattr_init"},
      {&failCondattrSetclock, EINVAL, "EINVAL  in pthread_condattr_setclock"},
      {&failCondattrSetclock, ENOMEM, "Unexpected errno (12)  in pthread_condattr_setclock"},
      {&failCondInit, EINVAL, "EINVAL  in pthread_cond_init"},
      {&failCondInit, EBUSY, "EBUSY  in pthread_cond_init"},
      {&failCondInit, ENOMEM, "ENOMEM  in pthread_cond_init"},
      {&failCondInit, EAGAIN, "Unexpected errno (11)  in pthread_cond_init"},
      {&failCondattrDestroy, EINVAL, "EINVAL  in pthread_condattr_destroy"},
      {&failCondattrDestroy, EBUSY, "Unexpected errno (16)  in pthread_condattr_destroy"},
  };
  for (const Step& s : steps) {
    *s.arm = s.code;
    orvix_test::expectGeneralException([] { WaitCond c; }, s.msg);
    EXPECT_EQ(*s.arm, 0) << s.msg;  // the step was reached
  }
}

TEST(WaitCondErrors, SignalAndBroadcast) {
  WaitCond c;
  failCondSignal = EINVAL;
  orvix_test::expectGeneralException([&] { c.signal(); }, "EINVAL  in pthread_cond_signal");
  failCondSignal = EPERM;
  orvix_test::expectGeneralException([&] { c.signal(); }, "EPERM  in pthread_cond_signal");
  failCondSignal = EBUSY;
  orvix_test::expectGeneralException([&] { c.signal(); }, "Unexpected errno (16)  in pthread_cond_signal");
  failCondBroadcast = EINVAL;
  orvix_test::expectGeneralException([&] { c.broadcast(); }, "EINVAL  in pthread_cond_broadcast");
  failCondBroadcast = EPERM;
  orvix_test::expectGeneralException([&] { c.broadcast(); }, "EPERM  in pthread_cond_broadcast");
  failCondBroadcast = EBUSY;
  orvix_test::expectGeneralException([&] { c.broadcast(); }, "Unexpected errno (16)  in pthread_cond_broadcast");
}

TEST(WaitCondErrors, DestructorWritesAndCarriesOn) {
  for (auto c : std::vector<std::pair<int, std::string>>{
           {EINVAL, "EINVAL  in pthread_cond_destroy\n"},
           {EBUSY, "Unexpected errno (16)  in pthread_cond_destroy\n"}}) {
    CaptureFd out(1);
    CaptureFd err(2);
    {
      WaitCond w;
      failCondDestroy = c.first;
    }
    EXPECT_EQ(err.text(), c.second);
    EXPECT_EQ(out.text(), "");  // written, not thrown: no exception's warning line
  }
}

TEST(WaitCondErrors, WaitOtherNumbers) {
  RecursiveMutex m;
  WaitCond c;
  Lock l(m);
  failCondWait = EINVAL;
  orvix_test::expectGeneralException([&] { l.wait(c); }, "EINVAL  in pthread_cond_wait");
  failCondWait = ETIMEDOUT;
  orvix_test::expectGeneralException([&] { l.wait(c); }, "Unexpected errno (110)  in pthread_cond_wait");
}
