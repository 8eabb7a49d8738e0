#include "Orvix/CountingSemaphore.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/GeneralException.hpp"
#include "Orvix/internal/Config.hpp"
#include "TestSupport.hpp"

using orvix_test::CaptureFd;
using orvix_test::checkedCallFailure;
using orvix_test::deadlineIn;
using orvix_test::runInChild;
using util::CountingSemaphore;
using util::CountingSemaphoreDeletingException;
using util::GeneralException;
using util::TimeSpec;

// ---- Fault injection -----------------------------------------------------------------------------
// glibc's semaphore calls fail only in a few ways; for the others the test program interposes
// them (its symbols are exported, so the library's calls reach these first). Armed for the
// calling thread, the next call returns the armed result (setting errno where the result is -1);
// otherwise, and also in "after the real call" mode, the real function runs.

namespace {

struct Fault {
  int result = 0;      // the result to return; 0 = not armed
  int err = 0;         // errno to set when result is -1
  bool callReal = false;  // run the real call first, then report result
  int value = 0;       // sem_getvalue: the value to store
  bool armed() const { return result != 0 || value != 0; }
};

thread_local Fault failTrywait;
thread_local Fault failPost;
thread_local Fault failGetvalue;
thread_local Fault failDestroy;

using orvix_test::nextSymbol;

// Applies an armed fault once and disarms it; returns false when not armed.
bool inject(Fault& f, int* out) {
  if (!f.armed()) return false;
  *out = f.result;
  if (f.result == -1) errno = f.err;
  f = Fault{};
  return true;
}

}  // namespace

extern "C" {

int sem_trywait(sem_t* s) __THROWNL {
  static auto real = nextSymbol<int (*)(sem_t*)>("sem_trywait");
  int r;
  if (inject(failTrywait, &r)) return r;
  return real(s);
}

int sem_post(sem_t* s) __THROWNL {
  static auto real = nextSymbol<int (*)(sem_t*)>("sem_post");
  if (failPost.armed() && failPost.callReal) real(s);
  int r;
  if (inject(failPost, &r)) return r;
  return real(s);
}

int sem_getvalue(sem_t* __restrict s, int* __restrict v) __THROWNL {
  static auto real = nextSymbol<int (*)(sem_t*, int*)>("sem_getvalue");
  if (failGetvalue.armed()) {
    *v = failGetvalue.value;
    int r;
    inject(failGetvalue, &r);
    return r;
  }
  return real(s, v);
}

int sem_destroy(sem_t* s) __THROW {
  static auto real = nextSymbol<int (*)(sem_t*)>("sem_destroy");
  if (failDestroy.armed() && failDestroy.callReal) real(s);
  int r;
  if (inject(failDestroy, &r)) return r;
  return real(s);
}

}  // extern "C"

namespace {

using orvix_test::kWarn;
using orvix_test::safeAbortLine;
constexpr const char* kUnit = "Orvix/CountingSemaphore";


// Waits (with a generous limit) until s counts n waiters.
bool waitForWaiters(CountingSemaphore& s, int n) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (s.waitingThreads() != n) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::yield();
  }
  return true;
}

void noOpHandler(int) {}

// Installs the no-op handler for SIGUSR1 without SA_RESTART, so blocking calls see EINTR.
void installInterruptingHandler() {
  struct sigaction sa {};
  sa.sa_handler = noOpHandler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;
  sigaction(SIGUSR1, &sa, nullptr);
}

}  // namespace

// ---- Counting ------------------------------------------------------------------------------------

TEST(CountingSemaphore, InitialValueAndCounting) {
  CountingSemaphore s(2);
  EXPECT_EQ(s.getValue(), 2);
  s.wait();
  EXPECT_EQ(s.getValue(), 1);
  s.post();
  s.post();
  EXPECT_EQ(s.getValue(), 3);
  EXPECT_EQ(s.waitingThreads(), 0);
}

TEST(CountingSemaphore, TryDown) {
  CountingSemaphore s(0);
  EXPECT_FALSE(s.tryDown());
  EXPECT_EQ(s.getValue(), 0);
  s.post();
  s.post();
  EXPECT_TRUE(s.tryDown());
  EXPECT_EQ(s.getValue(), 1);
  EXPECT_TRUE(s.tryDown());
  EXPECT_FALSE(s.tryDown());
  EXPECT_EQ(s.getValue(), 0);
}

TEST(CountingSemaphore, PostWakesABlockedWaiter) {
  CountingSemaphore s(0);
  std::atomic<bool> returned{false};
  std::thread t([&] {
    s.wait();
    returned = true;
  });
  ASSERT_TRUE(waitForWaiters(s, 1));
  EXPECT_FALSE(returned);
  s.post();
  t.join();
  EXPECT_TRUE(returned);
  EXPECT_EQ(s.getValue(), 0);
  EXPECT_EQ(s.waitingThreads(), 0);
}

TEST(CountingSemaphore, TimedwaitWithPastRealtimeDeadlineTimesOutSilently) {
  CountingSemaphore s(0);
  CaptureFd out(1);
  CaptureFd err(2);
  EXPECT_THROW(s.timedwait(deadlineIn(CLOCK_REALTIME, -1000)), util::TimedOutException);
  EXPECT_EQ(s.waitingThreads(), 0);
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(err.text(), "");
}

TEST(CountingSemaphore, TimedwaitTakesAnAvailableUnit) {
  CountingSemaphore s(1);
  s.timedwait(deadlineIn(CLOCK_REALTIME, -1000));  // a unit is there: no waiting, no timeout
  EXPECT_EQ(s.getValue(), 0);
}

TEST(CountingSemaphore, TimedwaitDeadlineIsOnTheRealtimeClock) {
  // The deadline goes to sem_timedwait unchanged: the realtime "now" has passed by the time it
  // is checked.
  CountingSemaphore s(0);
  TimeSpec now;
  now.initNow(CLOCK_REALTIME);
  EXPECT_THROW(s.timedwait(now), util::TimedOutException);
  // A monotonic "now" taken as a realtime deadline lies far in the past as well.
  TimeSpec mono;
  mono.initNow(CLOCK_MONOTONIC);
  EXPECT_THROW(s.timedwait(mono), util::TimedOutException);
}

TEST(CountingSemaphore, TimedwaitWokenByPost) {
  CountingSemaphore s(0);
  std::atomic<bool> returned{false};
  std::thread t([&] {
    s.timedwait(deadlineIn(CLOCK_REALTIME, 600000));
    returned = true;
  });
  ASSERT_TRUE(waitForWaiters(s, 1));
  s.post();
  t.join();
  EXPECT_TRUE(returned);
}

TEST(CountingSemaphore, TimedwaitWithInvalidDeadlineIsEinval) {
  CountingSemaphore s(0);
  TimeSpec bad;
  bad.init(0, -1);  // normalised, but no valid absolute time
  orvix_test::expectGeneralException([&] { s.timedwait(bad); }, "EINVAL in sem_wait of CountingSemaphore::wait");
  EXPECT_EQ(s.waitingThreads(), 0);
}

TEST(CountingSemaphore, TypesAsDeclared) {
  static_assert(std::is_base_of<std::exception, CountingSemaphoreDeletingException>::value, "");
  static_assert(std::has_virtual_destructor<CountingSemaphore>::value, "");
  static_assert(!std::is_copy_constructible<CountingSemaphore>::value, "");
  static_assert(!std::is_copy_assignable<CountingSemaphore>::value, "");
  CountingSemaphoreDeletingException e;
  EXPECT_STREQ(e.what(), std::exception().what());  // no text of its own
  EXPECT_EQ(CountingSemaphore::CS_ACTIVE, 0);
  EXPECT_EQ(CountingSemaphore::CS_DELETING, 1);
  EXPECT_EQ(CountingSemaphore::CS_DELETED, 2);
}

// ---- Destruction under waiters -------------------------------------------------------------------

namespace {

// Worker threads that wait on the semaphore of the current round, reused for every round so
// that hundreds of rounds stay fast under an emulator.
class WaiterPool {
 public:
  explicit WaiterPool(int n) : n_(n) {
    for (int i = 0; i < n; ++i) threads_.emplace_back([this, i] { run(i); });
  }
  ~WaiterPool() {
    {
      std::lock_guard<std::mutex> l(m_);
      stop_ = true;
    }
    cv_.notify_all();
    for (auto& t : threads_) t.join();
  }

  // Starts a round on s; every worker enters a wait on it.
  void start(CountingSemaphore* s) {
    std::lock_guard<std::mutex> l(m_);
    sem_ = s;
    done_ = deleted_ = other_ = 0;
    ++round_;
    cv_.notify_all();
  }

  // Waits until every worker has left its wait; returns how many left by the deleting exception.
  int finish(int* other) {
    std::unique_lock<std::mutex> l(m_);
    cv_.wait(l, [this] { return done_ == n_; });
    *other = other_;
    return deleted_;
  }

 private:
  void run(int index) {
    int seen = 0;
    for (;;) {
      CountingSemaphore* s;
      {
        std::unique_lock<std::mutex> l(m_);
        cv_.wait(l, [&] { return stop_ || round_ != seen; });
        if (stop_) return;
        seen = round_;
        s = sem_;
      }
      bool deleted = false;
      try {
        // Both kinds of wait: odd workers with a far realtime deadline.
        if (index % 2 == 0)
          s->wait();
        else
          s->timedwait(deadlineIn(CLOCK_REALTIME, 600000));
      } catch (const CountingSemaphoreDeletingException&) {
        deleted = true;
      } catch (...) {
      }
      std::lock_guard<std::mutex> l(m_);
      (deleted ? deleted_ : other_)++;
      ++done_;
      cv_.notify_all();
    }
  }

  const int n_;
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<std::thread> threads_;
  CountingSemaphore* sem_ = nullptr;  // guarded by m_
  int round_ = 0;                     // guarded by m_
  int done_ = 0;                      // guarded by m_
  int deleted_ = 0;                   // guarded by m_
  int other_ = 0;                     // guarded by m_
  bool stop_ = false;                 // guarded by m_
};

void destroyUnderWaiters(int n, int rounds) {
  WaiterPool pool(n);
  for (int round = 0; round < rounds; ++round) {
    auto* s = new CountingSemaphore(0);
    pool.start(s);
    ASSERT_TRUE(waitForWaiters(*s, n)) << "round " << round;
    delete s;  // returns only after the last waiter has left
    int other = 0;
    const int deleted = pool.finish(&other);
    ASSERT_EQ(deleted, n) << "round " << round;
    ASSERT_EQ(other, 0) << "round " << round;
  }
}

}  // namespace

TEST(CountingSemaphoreDestruction, OneWaiter200Times) { destroyUnderWaiters(1, 200); }

TEST(CountingSemaphoreDestruction, ThreeWaiters200Times) { destroyUnderWaiters(3, 200); }

TEST(CountingSemaphoreDestruction, SixteenWaiters200Times) { destroyUnderWaiters(16, 200); }

TEST(CountingSemaphoreDestruction, WithoutWaitersIsQuiet) {
  CaptureFd out(1);
  CaptureFd err(2);
  { CountingSemaphore s(5); }
  { CountingSemaphore s(0); s.post(); s.wait(); }
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(err.text(), "");
}

TEST(CountingSemaphoreDestruction, PostAndWaitWhileDestroyingThrow) {
  // A thread that has entered the wait bookkeeping but not yet left it keeps the destructor
  // waiting; meanwhile posts and new waits are refused. The child ends with the destructor still
  // waiting.
  auto r = runInChild([] {
    auto* s = new CountingSemaphore(0);
    s->prepareWait();  // counted as a waiter, never leaves
    std::thread destroyer([s] { delete s; });
    destroyer.detach();
    // The destructor posts once per waiter after switching to CS_DELETING.
    while (s->getValue() != 1) std::this_thread::yield();
    try {
      s->post();
      printf("post returned\n");
    } catch (const CountingSemaphoreDeletingException&) {
      printf("post threw\n");
    }
    try {
      s->wait();
      printf("wait returned\n");
    } catch (const CountingSemaphoreDeletingException&) {
      printf("wait threw\n");
    }
    try {
      s->timedwait(deadlineIn(CLOCK_REALTIME, 1000));
      printf("timedwait returned\n");
    } catch (const CountingSemaphoreDeletingException&) {
      printf("timedwait threw\n");
    }
    printf("value %d waiters %d\n", s->getValue(), s->waitingThreads());
    fflush(stdout);
    _exit(0);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "post threw\nwait threw\ntimedwait threw\nvalue 1 waiters 1\n");
  EXPECT_EQ(r.err, "");
}

TEST(CountingSemaphoreDestructionDeathTest, PostOfTheDestructorFailingAborts) {
  // A counted waiter and a full semaphore: the destructor's post overflows.
  auto r = runInChild([] {
    auto* s = new CountingSemaphore(INT_MAX);
    s->prepareWait();
    delete s;
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, checkedCallFailure("virtual util::CountingSemaphore::~CountingSemaphore()",
                                      kUnit, 59, EOVERFLOW) +
                       safeAbortLine());
}

TEST(CountingSemaphoreDestruction, OddPostResultIsWrittenAndCounts) {
  // The post succeeds but reports a number other than 0 and -1: it is written and counted, so
  // the woken waiter leaves and the destructor returns.
  for (const auto& c : std::vector<std::pair<int, std::string>>{
           {EINVAL, "EINVAL in sem_post of ~CountingSemaphore\n"},
           {7, "Unexpected errno (7) in sem_post of ~CountingSemaphore\n"}}) {
    auto* s = new CountingSemaphore(0);
    std::atomic<bool> deleted{false};
    std::thread t([&] {
      try {
        s->wait();
      } catch (const CountingSemaphoreDeletingException&) {
        deleted = true;
      }
    });
    ASSERT_TRUE(waitForWaiters(*s, 1));
    CaptureFd out(1);
    CaptureFd err(2);
    failPost = Fault{};  // armed for this thread, which runs the destructor
    failPost.result = c.first;
    failPost.callReal = true;
    delete s;
    t.join();
    EXPECT_TRUE(deleted);
    EXPECT_EQ(err.text(), c.second);
    EXPECT_EQ(out.text(), "");
  }
}

TEST(CountingSemaphoreDestructionDeathTest, SemDestroyMinusOneAborts) {
  auto r = runInChild([] {
    auto* s = new CountingSemaphore(0);
    failDestroy.result = -1;
    failDestroy.err = EINVAL;
    delete s;
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, checkedCallFailure("virtual util::CountingSemaphore::~CountingSemaphore()",
                                      kUnit, 78, EINVAL) +
                       safeAbortLine());
}

TEST(CountingSemaphoreDestruction, SemDestroyOddResultIsWritten) {
  CaptureFd err(2);
  {
    CountingSemaphore s(0);
    failDestroy.result = 3;
    failDestroy.callReal = true;
    errno = 42;
  }
  // errno as the failed call left it (the real sem_destroy does not touch it).
  EXPECT_EQ(err.text(), "sem_destroy failed with errno=42\n");
}

// ---- Use after destruction -----------------------------------------------------------------------

namespace {

// Destroys a semaphore in storage that stays readable, then calls fn on it.
template <class F>
void afterDestruction(F fn) {
  alignas(CountingSemaphore) static unsigned char storage[sizeof(CountingSemaphore)];
  auto* s = new (storage) CountingSemaphore(1);
  s->~CountingSemaphore();
  fn(*s);
}

// Calls on a destroyed object are what these tests are about; the sanitizer's dynamic-type check
// would stop them before the library's own check could be seen.
ORVIX_NO_SANITIZE_VPTR void waitOn(CountingSemaphore& s) { s.wait(); }
ORVIX_NO_SANITIZE_VPTR void timedwaitOn(CountingSemaphore& s) {
  s.timedwait(deadlineIn(CLOCK_REALTIME, 1000));
}
ORVIX_NO_SANITIZE_VPTR void postOn(CountingSemaphore& s) { s.post(); }

}  // namespace

TEST(CountingSemaphoreDeletedDeathTest, WaitAborts) {
  auto r = runInChild([] { afterDestruction(waitOn); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, "Illegal state CS_DELETED in CountingSemaphore::wait\n");
  EXPECT_EQ(r.out, "");
}

TEST(CountingSemaphoreDeletedDeathTest, TimedwaitAborts) {
  auto r = runInChild(
      [] { afterDestruction(timedwaitOn); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, "Illegal state CS_DELETED in CountingSemaphore::wait\n");
}

TEST(CountingSemaphoreDeletedDeathTest, PostAborts) {
  auto r = runInChild([] { afterDestruction(postOn); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, "Illegal state CS_DELETED in CountingSemaphore::post\n");
  EXPECT_EQ(r.out, "");
}

// ---- Signals -------------------------------------------------------------------------------------

TEST(CountingSemaphoreSignals, EintrInTimedwaitSurfacesAsGeneralException) {
  auto r = runInChild([] {
    installInterruptingHandler();
    CountingSemaphore s(0);
    std::atomic<bool> done{false};
    std::string what;
    std::thread w([&] {
      try {
        s.timedwait(deadlineIn(CLOCK_REALTIME, 600000));
        what = "returned";
      } catch (const GeneralException& e) {
        what = e.what();
      } catch (...) {
        what = "other exception";
      }
      done = true;
    });
    waitForWaiters(s, 1);
    // A signal may land before the thread is inside sem_timedwait; repeat until one interrupts.
    while (!done) {
      pthread_kill(w.native_handle(), SIGUSR1);
      usleep(2000);
    }
    w.join();
    fflush(stdout);
    fprintf(stderr, "what=%s waiters=%d\n", what.c_str(), s.waitingThreads());
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.err, "what=EINTR in sem_wait of CountingSemaphore::wait waiters=0\n");
  EXPECT_EQ(r.out, kWarn + "EINTR in sem_wait of CountingSemaphore::wait\n");
}

TEST(CountingSemaphoreSignalsDeathTest, EintrInWaitAborts) {
  auto r = runInChild([] {
    installInterruptingHandler();
    CountingSemaphore s(0);
    std::thread w([&] { s.wait(); });
    waitForWaiters(s, 1);
    for (;;) {  // ends when the waiter's abort ends the process
      pthread_kill(w.native_handle(), SIGUSR1);
      usleep(2000);
    }
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err,
            checkedCallFailure("void util::CountingSemaphore::doWait(const util::TimeSpec*)",
                               kUnit, 147, EINTR) +
                safeAbortLine());
}

// ---- Failures of the system calls ----------------------------------------------------------------

TEST(CountingSemaphoreErrorsDeathTest, SemInitFailureAborts) {
  // A negative value is beyond SEM_VALUE_MAX for sem_init.
  auto r = runInChild([] { CountingSemaphore s(-1); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, checkedCallFailure("util::CountingSemaphore::CountingSemaphore(int)", kUnit,
                                      32, EINVAL) +
                       safeAbortLine());
}

TEST(CountingSemaphoreErrorsDeathTest, PostOverflowAborts) {
  auto r = runInChild([] {
    CountingSemaphore s(INT_MAX);
    s.post();
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err,
            checkedCallFailure("void util::CountingSemaphore::post()", kUnit, 230, EOVERFLOW) +
                safeAbortLine());
}

TEST(CountingSemaphoreErrors, PostOddResultIsWrittenNotThrown) {
  CountingSemaphore s(0);
  CaptureFd out(1);
  CaptureFd err(2);
  failPost = Fault{};
  failPost.result = EINVAL;
  failPost.callReal = true;
  EXPECT_NO_THROW(s.post());
  failPost = Fault{};
  failPost.result = 5;
  EXPECT_NO_THROW(s.post());
  EXPECT_EQ(err.text(),
            "EINVAL in sem_post of CountingSemaphore::post\n"
            "Unexpected errno (5) in sem_post of CountingSemaphore::post\n");
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(s.getValue(), 1);  // the first post really happened
}

TEST(CountingSemaphoreErrors, TryDownNames) {
  CountingSemaphore s(0);
  const std::vector<std::pair<int, std::string>> cases = {
      {EDEADLK, "EDEADLK in sem_trywait in CountingSemaphore::tryDown"},
      {EINTR, "EINTR in sem_trywait in CountingSemaphore::tryDown"},
      {EINVAL, "EINVVAL in sem_trywait in CountingSemaphore::tryDown"},
      {ENOMEM, "Unexpected errno (12) in sem_trywait in CountingSemaphore::tryDown"}};
  for (const auto& c : cases) {
    // As the system reports it: -1 and errno.
    failTrywait = Fault{};
    failTrywait.result = -1;
    failTrywait.err = c.first;
    orvix_test::expectGeneralException([&] { s.tryDown(); }, c.second);
  }
  // A result that is itself the number.
  failTrywait = Fault{};
  failTrywait.result = EAGAIN;
  EXPECT_FALSE(s.tryDown());
  failTrywait = Fault{};
  failTrywait.result = EINVAL;
  orvix_test::expectGeneralException([&] { s.tryDown(); }, "EINVVAL in sem_trywait in CountingSemaphore::tryDown");
}

TEST(CountingSemaphoreErrors, GetValueNeverBelowZero) {
  CountingSemaphore s(0);
  failGetvalue = Fault{};
  failGetvalue.value = -3;  // some systems report waiters as a negative count
  EXPECT_EQ(s.getValue(), 0);
}

TEST(CountingSemaphoreErrors, GetValueOddResultThrows) {
  CountingSemaphore s(0);
  failGetvalue = Fault{};
  failGetvalue.result = EINVAL;
  orvix_test::expectGeneralException([&] { s.getValue(); }, "EINVAL in sem_getvalue in CountingSemaphore::getValue");
  failGetvalue = Fault{};
  failGetvalue.result = 9;
  orvix_test::expectGeneralException([&] { s.getValue(); },
               "Unexpected errno (9) in sem_getvalue in CountingSemaphore::getValue");
}

TEST(CountingSemaphoreErrorsDeathTest, GetValueMinusOneAborts) {
  auto r = runInChild([] {
    CountingSemaphore s(0);
    failGetvalue.result = -1;
    failGetvalue.err = EINVAL;
    s.getValue();
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err,
            checkedCallFailure("int util::CountingSemaphore::getValue()", kUnit, 251, EINVAL) +
                safeAbortLine());
}

TEST(CountingSemaphoreErrors, WaitOtherNumbersThroughTheThrower) {
  // sem_timedwait reports only ETIMEDOUT, EINTR and EINVAL on this system; the names for the
  // rest of the wait's list are checked through the thrower as the wait builds it.
  for (const auto& c : std::vector<std::pair<int, std::string>>{
           {EDEADLK, "EDEADLK in sem_wait of CountingSemaphore::wait"},
           {EINTR, "EINTR in sem_wait of CountingSemaphore::wait"},
           {EINVAL, "EINVAL in sem_wait of CountingSemaphore::wait"},
           {EAGAIN, "Unexpected errno (11) in sem_wait of CountingSemaphore::wait"}}) {
    util::GeneralExceptionThrower t(c.first);
    t.handle(EDEADLK, "EDEADLK");
    t.handle(EINTR, "EINTR");
    t.handle(EINVAL, "EINVAL");
    t.completeMsg("in sem_wait of CountingSemaphore::wait");
    EXPECT_EQ(t.str(), c.second);
  }
}
