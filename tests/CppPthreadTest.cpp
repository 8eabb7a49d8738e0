#include "Orvix/CppPthread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "Orvix/internal/Config.hpp"
#include "TestSupport.hpp"

// The stack size the library last asked for. The sanitizers raise small stacks inside their
// pthread_create interceptor, so the request itself is observed here, in front of glibc.
static std::atomic<size_t> gl_requestedStack{0};
// When set, the next stack-size call fails with this error (to see the library's report).
static std::atomic<int> gl_failStackSize{0};

extern "C" int pthread_attr_setstacksize(pthread_attr_t* attr, size_t size) {
  static auto real =
      orvix_test::nextSymbol<int (*)(pthread_attr_t*, size_t)>("pthread_attr_setstacksize");
  // The first call is the library's; a sanitizer's pthread_create may call again to enlarge.
  size_t none = 0;
  gl_requestedStack.compare_exchange_strong(none, size);
  if (const int err = orvix_test::takeArmed(gl_failStackSize)) return err;
  return real(attr, size);
}

using orvix::Pthread;
using orvix_test::assertionLine;
using orvix_test::checkedCallFailure;
using orvix_test::runInChild;
using orvix_test::safePosixAbortLine;

namespace {

constexpr const char* kUnit = "Orvix/CppPthread";
const char* kSigFunc = "orvix::Pthread::Pthread(orvix::Pthread::Func, void*, uint32_t)";
const char* kSigAlt = "orvix::Pthread::Pthread(orvix::Pthread::AlternativeFunc, uint32_t)";
const char* kSigFuncSched =
    "orvix::Pthread::Pthread(orvix::Pthread::Func, void*, uint32_t, int, int)";
const char* kSigAltSched =
    "orvix::Pthread::Pthread(orvix::Pthread::AlternativeFunc, uint32_t, int, int)";

const char* kDestroyed =
    "FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! Erst join() oder "
    "detach() aufrufen!!\n";
const char* kMoveOnto =
    "FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread enthaelt!\n";
// What libstdc++'s terminate handler adds after the library's own line.
const char* kTerminate = "terminate called without an active exception\n";

void* stackSizeOfSelf(void*) {
  pthread_attr_t a;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &a) == 0) {
    pthread_attr_getstacksize(&a, &size);
    pthread_attr_destroy(&a);
  }
  return reinterpret_cast<void*>(size);
}

size_t page() { return static_cast<size_t>(getpagesize()); }

size_t roundToPages(size_t bytes) { return ((bytes - 1 + page()) / page()) * page(); }

// The stack is read back in a fresh child: glibc hands a new thread a cached stack of an exited
// one when that is large enough, and then reports the cached stack's size.
void checkStackOf(const std::function<Pthread()>& start, size_t expected) {
  auto r = runInChild([&start] {
    gl_requestedStack = 0;
    Pthread t = start();
    const size_t requested = gl_requestedStack;
    const size_t seen = reinterpret_cast<size_t>(t.join());
    printf("%zu %zu\n", requested, seen);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  size_t requested = 0, seen = 0;
  ASSERT_EQ(sscanf(r.out.c_str(), "%zu %zu", &requested, &seen), 2) << r.out;
  EXPECT_EQ(requested, expected);
  if (ORVIX_SANITIZER_BUILD) {
    EXPECT_GE(seen, expected);  // the sanitizer may only have made it larger
  } else {
    EXPECT_EQ(seen, expected);
  }
}

void checkStack(uint32_t kib, size_t expected) {
  SCOPED_TRACE("stackSizeKiB = " + std::to_string(kib));
  checkStackOf([kib] { return Pthread(&stackSizeOfSelf, nullptr, kib); }, expected);
}

void* sleepForever(void*) {
  for (;;) pause();
  return nullptr;
}

void* identity(void* p) { return p; }

std::string threadName() {
  char name[17] = {};
  prctl(PR_GET_NAME, name, 0, 0, 0);
  return name;
}

}  // namespace

TEST(Pthread, StackOfZeroAndFifteenKiBIsSixteenKiB) {
  checkStack(0, 16384);
  checkStack(15, 16384);
}

TEST(Pthread, StackOfSixteenKiBIsKept) { checkStack(16, 16384); }

TEST(Pthread, StackOfSeventeenKiBIsRoundedToWholePages) {
  checkStack(17, roundToPages(17 * 1024));
  if (page() == 4096) checkStack(17, 20480);
}

TEST(Pthread, LargeStack) { checkStack(8192, 8u << 20); }

TEST(Pthread, StackSizeWrapsInThirtyTwoBits) {
  // 4 GiB + 17 KiB wraps to 17 KiB on every target.
  checkStack(4194304u + 17u, roundToPages(17 * 1024));
  // Exactly 4 GiB wraps to 0, which becomes the minimum.
  checkStack(4194304u, 16384);
}

TEST(Pthread, CallableFormsUseTheSameStackRule) {
  for (uint32_t kib : {0u, 15u, 17u, 1024u}) {
    SCOPED_TRACE("stackSizeKiB = " + std::to_string(kib));
    const size_t expected = kib * 1024 < 16384 ? 16384 : roundToPages(kib * 1024);
    checkStackOf(
        [kib] {
          return Pthread(Pthread::AlternativeFunc([] { return stackSizeOfSelf(nullptr); }), kib);
        },
        expected);
    checkStackOf(
        [kib] {
          return Pthread(Pthread::AlternativeFunc([] { return stackSizeOfSelf(nullptr); }), kib,
                         SCHED_OTHER, 0);
        },
        expected);
  }
}

TEST(Pthread, FunctionFormReturnsThroughJoin) {
  int value = 42;
  Pthread t(&identity, &value, 64);
  EXPECT_EQ(t.getState(), Pthread::RUNNING);
  EXPECT_EQ(t.join(), &value);
  EXPECT_EQ(t.getState(), Pthread::JOINED);
}

TEST(Pthread, CallableFormReturnsThroughJoin) {
  static int value = 7;
  int calls = 0;
  Pthread t(Pthread::AlternativeFunc([&calls]() -> void* {
              ++calls;
              return &value;
            }),
            64);
  EXPECT_EQ(t.join(), &value);
  EXPECT_EQ(calls, 1);
}

TEST(Pthread, SchedulingFormsWithSchedOther) {
  int value = 1;
  Pthread a(&identity, &value, 32, SCHED_OTHER, 0);
  EXPECT_EQ(a.join(), &value);
  Pthread b(Pthread::AlternativeFunc([&value]() -> void* { return &value; }), 32, SCHED_OTHER, 0);
  EXPECT_EQ(b.join(), &value);
}

TEST(Pthread, RealtimeFormRunsUnderSchedFifo) {
  std::string reason;
  if (!orvix_test::canUseRealtime(&reason)) GTEST_SKIP() << reason;
  auto policyOfSelf = []() -> void* {
    int policy = -1;
    sched_param p{};
    pthread_getschedparam(pthread_self(), &policy, &p);
    return reinterpret_cast<void*>(static_cast<intptr_t>(policy * 1000 + p.sched_priority));
  };
  Pthread t(Pthread::AlternativeFunc(policyOfSelf), 64, SCHED_FIFO, 5);
  EXPECT_EQ(reinterpret_cast<intptr_t>(t.join()), SCHED_FIFO * 1000 + 5);
  Pthread r(Pthread::AlternativeFunc(policyOfSelf), 64, SCHED_RR, 3);
  EXPECT_EQ(reinterpret_cast<intptr_t>(r.join()), SCHED_RR * 1000 + 3);
}

TEST(Pthread, JoinTwiceThrowsEsrch) {
  Pthread t(&identity, nullptr, 0);
  t.join();
  try {
    t.join();
    FAIL() << "no exception";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code(), std::error_code(3, std::generic_category()));
  }
  EXPECT_EQ(t.getState(), Pthread::JOINED);
}

TEST(Pthread, JoinOfEmptyObjectThrowsEsrch) {
  Pthread t;
  try {
    t.join();
    FAIL() << "no exception";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code(), std::error_code(3, std::generic_category()));
  }
}

TEST(Pthread, JoinFromInsideTheThreadThrowsEdeadlk) {
  std::promise<Pthread*> self;
  auto selfFuture = self.get_future();
  Pthread t(Pthread::AlternativeFunc([&selfFuture]() -> void* {
              Pthread* me = selfFuture.get();
              try {
                me->join();
              } catch (const std::system_error& e) {
                return reinterpret_cast<void*>(static_cast<intptr_t>(e.code().value() +
                    (e.code().category() == std::generic_category() ? 1000 : 0)));
              }
              return nullptr;
            }),
            64);
  self.set_value(&t);
  EXPECT_EQ(reinterpret_cast<intptr_t>(t.join()), 1000 + 35);
}

TEST(Pthread, DetachAfterJoinThrowsEinval) {
  Pthread t(&identity, nullptr, 0);
  t.join();
  try {
    t.detach();
    FAIL() << "no exception";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code(), std::error_code(22, std::generic_category()));
  }
}

TEST(Pthread, DetachOfEmptyObjectThrowsEinval) {
  Pthread t;
  EXPECT_THROW(t.detach(), std::system_error);
}

TEST(Pthread, DetachLeavesTheObjectEmpty) {
  std::promise<void> done;
  auto doneFuture = done.get_future();
  Pthread t(Pthread::AlternativeFunc([&done]() -> void* {
              done.set_value();
              return nullptr;
            }),
            32);
  t.detach();
  EXPECT_EQ(t.getState(), Pthread::EMPTY);
  EXPECT_EQ(t.getThread(), static_cast<pthread_t>(-1));
  try {
    t.join();
    FAIL() << "no exception";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), 3);
  }
  doneFuture.wait();
}

TEST(Pthread, DefaultObjectIsEmptyAndDestroyedSilently) {
  auto r = runInChild([] {
    { Pthread t; printf("%d %d\n", t.getState(), t.getThread() == static_cast<pthread_t>(-1)); }
    printf("after\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "2 1\nafter\n");
  EXPECT_EQ(r.err, "");
}

TEST(Pthread, DefaultObjectReceivesAMovedThread) {
  int value = 5;
  Pthread target;
  Pthread source(&identity, &value, 32);
  const pthread_t id = source.getThread();
  target = std::move(source);
  EXPECT_EQ(source.getState(), Pthread::EMPTY);
  EXPECT_EQ(source.getThread(), static_cast<pthread_t>(-1));
  EXPECT_EQ(target.getState(), Pthread::RUNNING);
  EXPECT_TRUE(pthread_equal(target.getThread(), id));
  EXPECT_EQ(target.join(), &value);
}

TEST(Pthread, MoveConstructionTakesTheThread) {
  int value = 6;
  Pthread source(&identity, &value, 32);
  Pthread target(std::move(source));
  EXPECT_EQ(source.getState(), Pthread::EMPTY);
  EXPECT_EQ(target.join(), &value);
}

TEST(Pthread, MoveConstructionCannotFail) {
  // noexcept, so that containers move handles when they grow; the assignment may still end the
  // process and is not.
  static_assert(std::is_nothrow_move_constructible<Pthread>::value, "");
  static_assert(!std::is_nothrow_move_assignable<Pthread>::value, "");
  Pthread source(&identity, nullptr, 32);
  source.join();
  const pthread_t id = source.getThread();
  Pthread target(std::move(source));
  EXPECT_EQ(target.getState(), Pthread::JOINED);
  EXPECT_TRUE(pthread_equal(target.getThread(), id));
  EXPECT_EQ(source.getState(), Pthread::EMPTY);
  EXPECT_TRUE(pthread_equal(source.getThread(), static_cast<pthread_t>(-1)));
  std::vector<Pthread> handles;
  for (int i = 0; i < 5; ++i) handles.emplace_back(&identity, nullptr, 32);
  for (Pthread& h : handles) EXPECT_EQ(h.join(), nullptr);
}

TEST(Pthread, MovingAJoinedObjectCarriesJoinedOver) {
  Pthread source(&identity, nullptr, 32);
  source.join();
  const pthread_t id = source.getThread();
  Pthread target;
  target = std::move(source);
  EXPECT_EQ(target.getState(), Pthread::JOINED);
  EXPECT_TRUE(pthread_equal(target.getThread(), id));
  EXPECT_EQ(source.getState(), Pthread::EMPTY);
  // A joined object may also be overwritten.
  Pthread other(&identity, nullptr, 32);
  target = std::move(other);
  target.join();
}

TEST(Pthread, ConstructingThreadIsRenamedPthread) {
  std::string before, after;
  std::thread probe([&] {
    prctl(PR_SET_NAME, "probe", 0, 0, 0);
    before = threadName();
    Pthread t(&identity, nullptr, 32);
    after = threadName();
    t.join();
  });
  probe.join();
  EXPECT_EQ(before, "probe");
  EXPECT_EQ(after, "Pthread");
}

TEST(PthreadDeathTest, DestroyingARunningThreadEndsTheProcess) {
  auto r = runInChild([] {
    { Pthread t(&sleepForever, nullptr, 32); }
    printf("not reached\n");
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, std::string(kDestroyed) + kTerminate);
}

TEST(PthreadDeathTest, MoveAssignmentOntoARunningThreadEndsTheProcess) {
  auto r = runInChild([] {
    Pthread t(&sleepForever, nullptr, 32);
    Pthread u(&sleepForever, nullptr, 32);
    t = std::move(u);
    printf("not reached\n");
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, std::string(kMoveOnto) + kTerminate);
}

TEST(PthreadDeathTest, IllegalPolicyAsserts) {
  for (int policy : {3, -1, 5}) {
    auto r = runInChild([policy] { Pthread t(&identity, nullptr, 32, policy, 0); });
    ASSERT_TRUE(r.signaled()) << r.describe();
    EXPECT_EQ(r.err, assertionLine(kUnit, 253, kSigFuncSched,
                                   "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1"));
    auto s = runInChild([policy] {
      Pthread t(Pthread::AlternativeFunc([]() -> void* { return nullptr; }), 32, policy, 0);
    });
    ASSERT_TRUE(s.signaled()) << s.describe();
    EXPECT_EQ(s.err, assertionLine(kUnit, 284, kSigAltSched,
                                   "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1"));
  }
}

TEST(PthreadDeathTest, FailingAttributeCallIsReportedAndAborts) {
  // A priority far outside the range of SCHED_FIFO makes the parameter call fail.
  auto r = runInChild([] { Pthread t(&identity, nullptr, 32, SCHED_FIFO, 100000); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, checkedCallFailure(kSigFuncSched, kUnit, 275, EINVAL) +
                       safePosixAbortLine());
  auto s = runInChild([] {
    Pthread t(Pthread::AlternativeFunc([]() -> void* { return nullptr; }), 32, SCHED_RR, 100000);
  });
  ASSERT_TRUE(s.signaled()) << s.describe();
  EXPECT_EQ(s.err, checkedCallFailure(kSigAltSched, kUnit, 306, EINVAL) +
                       safePosixAbortLine());
}

TEST(PthreadDeathTest, FailingStackSizeCallIsReportedAndAborts) {
  auto r = runInChild([] {
    gl_failStackSize = EINVAL;
    Pthread t(&identity, nullptr, 32);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.err, checkedCallFailure(kSigFunc, kUnit, 219, EINVAL) +
                       safePosixAbortLine());
  auto s = runInChild([] {
    gl_failStackSize = EINVAL;
    Pthread t(Pthread::AlternativeFunc([]() -> void* { return nullptr; }), 32);
  });
  ASSERT_TRUE(s.signaled()) << s.describe();
  EXPECT_EQ(s.err, checkedCallFailure(kSigAlt, kUnit, 242, EINVAL) +
                       safePosixAbortLine());
}

TEST(PthreadDeathTest, FailingJoinIsReportedAndAborts) {
  // A thread detached behind the object's back cannot be joined.
  auto r = runInChild([] {
    std::promise<void> go;
    auto f = go.get_future();
    Pthread t(Pthread::AlternativeFunc([&f]() -> void* {
                f.wait();
                return nullptr;
              }),
              32);
    pthread_detach(t.getThread());
    t.join();
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.err, checkedCallFailure("void* orvix::Pthread::join()", kUnit, 345, EINVAL) +
                       safePosixAbortLine());
}

TEST(PthreadDeathTest, EmptyCallableAssertsInTheNewThread) {
  auto r = runInChild([] {
    Pthread t(Pthread::AlternativeFunc(), 32);
    t.join();
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.err, assertionLine(kUnit, 181, "void* orvix::pthreadFunc(void*)",
                                 "t->alternativeF"));
}

TEST(Pthread, RecordHoldsOneFormOnly) {
  int x = 0;
  orvix::intern::InternThread a(&identity, &x);
  EXPECT_EQ(a.f, &identity);
  EXPECT_EQ(a.arg, &x);
  EXPECT_FALSE(a.alternativeF);
  orvix::intern::InternThread b(Pthread::AlternativeFunc([]() -> void* { return nullptr; }));
  EXPECT_EQ(b.f, nullptr);
  EXPECT_EQ(b.arg, nullptr);
  EXPECT_TRUE(b.alternativeF);
}

TEST(Pthread, ManyShortThreads) {
  for (int i = 0; i < 200; ++i) {
    Pthread t(&identity, reinterpret_cast<void*>(static_cast<intptr_t>(i)), 16);
    ASSERT_EQ(reinterpret_cast<intptr_t>(t.join()), i);
  }
}
