#include "Orvix/SafeLinuxCalls.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TestSupport.hpp"

using orvix_test::CaptureFd;
using orvix_test::checkedCallFailure;
using orvix_test::errorText;
using orvix_test::runInChild;
using orvix_test::safeAbortLine;
using orvix_test::safePosixAbortLine;

namespace {
bool reportErrnoAtAssert = false;
}  // namespace

// Interposes glibc's assertion reporter so that a test can see errno as the library left it when
// it failed its assertion; every other test gets the real one.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept {
  if (reportErrnoAtAssert) {
    printf("assert %s with errno=%d\n", assertion, errno);
    fflush(stdout);
    _exit(3);
  }
  auto real =
      orvix_test::nextSymbol<void (*)(const char*, const char*, unsigned int, const char*)>(
          "__assert_fail");
  real(assertion, file, line, function);
  abort();
}

namespace {

const char* kSig = "int util::CountingSemaphore::getValue()";

}  // namespace

TEST(Safe, PassesEveryResultButMinusOneSilently) {
  CaptureFd err(2);
  for (int v : {0, 1, 42, -2, -100, 2147483647, -2147483647 - 1}) {
    errno = EINVAL;
    EXPECT_EQ(util::safe(kSig, "Orvix/CountingSemaphore", 251, v, true), v);
    EXPECT_EQ(util::safe(kSig, "Orvix/CountingSemaphore", 251, v, false), v);
  }
  EXPECT_EQ(err.text(), "");
}

TEST(Safe, NonFatalPrintsOneLineAndReturnsMinusOne) {
  CaptureFd err(2);
  errno = 22;
  EXPECT_EQ(util::safe(kSig, "Orvix/CountingSemaphore", 251, -1, false), -1);
  EXPECT_EQ(err.text(), checkedCallFailure(kSig, "Orvix/CountingSemaphore", 251, 22));
}

TEST(Safe, ExampleLineOfGetValue) {
  CaptureFd err(2);
  errno = 22;
  util::safe(kSig, "Orvix/CountingSemaphore", 251, -1, false);
  EXPECT_EQ(err.text(), std::string("int util::CountingSemaphore::getValue() failed in "
                                    "Orvix/CountingSemaphore:251 - (22) ") +
                            errorText(22) + "\n");
}

TEST(SafeDeathTest, FatalPrintsThenFailsItsAssertion) {
  auto r = runInChild([] {
    errno = EINTR;
    util::safe("void util::CountingSemaphore::doWait(const util::TimeSpec*)",
               "Orvix/CountingSemaphore", 147, -1, true);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err,
            checkedCallFailure("void util::CountingSemaphore::doWait(const util::TimeSpec*)",
                               "Orvix/CountingSemaphore", 147, EINTR) +
                safeAbortLine());
  EXPECT_EQ(r.out, "");
}

TEST(SafeDeathTest, FatalAsserts) {
  EXPECT_DEATH(util::safe("f", "Orvix/X", 1, -1, true),
               "Orvix/SafeLinuxCalls:32: int util::safe\\(const char\\*, const char\\*, int, int, "
               "bool\\): Assertion `linuxFuncResult != -1' failed");
}

TEST(SafePosix, ZeroPassesSilently) {
  CaptureFd err(2);
  errno = 0;
  EXPECT_EQ(util::safePosix("f", "Orvix/CppPthread", 10, 0), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(err.text(), "");
}

TEST(SafePosixDeathTest, NonZeroPrintsStoresErrnoAndAborts) {
  for (int code : {3, 22, 35, -1, 1}) {
    auto r = runInChild([code] {
      errno = 0;
      // The description is taken from errno after it was set, so the child can check it.
      util::safePosix("orvix::Pthread::Pthread(int, int, int, void* (*)(void*), void*)",
                      "Orvix/CppPthread", 77, code);
    });
    ASSERT_TRUE(r.signaled()) << r.describe();
    EXPECT_EQ(r.signal(), SIGABRT);
    EXPECT_EQ(r.err,
              checkedCallFailure("orvix::Pthread::Pthread(int, int, int, void* (*)(void*), void*)",
                                 "Orvix/CppPthread", 77, code) +
                  safePosixAbortLine())
        << "code " << code;
  }
}

TEST(SafePosixDeathTest, ErrnoHoldsTheResultWhenItAborts) {
  auto r = runInChild([] {
    reportErrnoAtAssert = true;
    errno = 0;
    util::safePosix("f", "Orvix/X", 1, 35);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 3);
  EXPECT_EQ(r.out, "assert posixFuncResult == 0 with errno=35\n");
}

TEST(SafePosixDeathTest, Asserts) {
  EXPECT_DEATH(util::safePosix("f", "Orvix/X", 1, 22),
               "Orvix/SafeLinuxCalls:50: int util::safePosix\\(const char\\*, const char\\*, int, "
               "int\\): Assertion `posixFuncResult == 0' failed");
}

TEST(PerrorErrno, DescriptionTwiceSecondFromErrno) {
  CaptureFd err(2);
  errno = EPERM;
  orvix::ibuf::perror_errno("pthread_setschedparam", EINVAL);
  EXPECT_EQ(err.text(), "\n**** ERROR - pthread_setschedparam: " + errorText(EINVAL) + "\n\n: " +
                            errorText(EPERM) + "\n");
}

TEST(PerrorErrno, SameNumberTwice) {
  CaptureFd err(2);
  errno = ENOMEM;
  orvix::ibuf::perror_errno("x", ENOMEM);
  EXPECT_EQ(err.text(),
            "\n**** ERROR - x: " + errorText(ENOMEM) + "\n\n: " + errorText(ENOMEM) + "\n");
}

TEST(SetSchedHighest, FifoAt98OrPrintedWarning) {
  auto r = runInChild([] {
    errno = 0;
    orvix::ibuf::setSchedHighest(pthread_self());
    int policy = -1;
    sched_param p{};
    pthread_getschedparam(pthread_self(), &policy, &p);
    printf("policy=%d prio=%d\n", policy, p.sched_priority);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  std::string reason;
  if (orvix_test::canUseRealtime(&reason)) {
    EXPECT_EQ(r.out, "policy=" + std::to_string(SCHED_FIFO) + " prio=98\n");
    EXPECT_EQ(r.err, "");
  } else {
    std::cout << "[  SKIPPED ] the real-time branch: " << reason << "\n";
    EXPECT_EQ(r.err.rfind("\n**** ERROR - pthread_setschedparam: ", 0), 0u) << r.err;
  }
}

TEST(SetSchedHighest, FailureIsPrintedAndReturns) {
  // An unprivileged process may not use SCHED_FIFO (its RLIMIT_RTPRIO is 0): the child gives up
  // root and the call fails with EPERM, which is printed, and the function returns.
  if (geteuid() != 0) GTEST_SKIP() << "needs root to drop privileges in a child";
  auto r = runInChild([] {
    rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);
    if (setgid(65534) != 0 || setuid(65534) != 0) {
      printf("could not drop privileges\n");
      return;
    }
    orvix::ibuf::setSchedHighest(pthread_self());
    printf("returned\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "returned\n");
  // The closing description is whatever errno the C library left behind by then (the exact
  // double form is checked with a known errno in the PerrorErrno tests).
  const std::string head = "\n**** ERROR - pthread_setschedparam: " + errorText(EPERM) + "\n\n: ";
  ASSERT_EQ(r.err.substr(0, head.size()), head) << r.err;
  const std::string tail = r.err.substr(head.size());
  bool known = false;
  for (int e = 0; e < 134 && !known; ++e) known = tail == errorText(e) + "\n";
  EXPECT_TRUE(known) << tail;
}
