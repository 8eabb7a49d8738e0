#include "Orvix/GeneralException.hpp"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "TestSupport.hpp"

using orvix_test::CaptureFd;
using util::GeneralException;
using util::GeneralExceptionThrower;

namespace {

// Restores defaultSilent whatever a test does with it.
struct SilentReset {
  ~SilentReset() { GeneralException::defaultSilent = false; }
};

}  // namespace

TEST(GeneralException, PrintsOneWarningLinePerConstruction) {
  CaptureFd out(1);
  GeneralException e("EINVAL in pthread_cond_wait");
  GeneralException f("second");
  EXPECT_EQ(out.text(),
            "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg "
            "EINVAL in pthread_cond_wait\n"
            "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg second\n");
  EXPECT_STREQ(e.what(), "EINVAL in pthread_cond_wait");
}

TEST(GeneralException, SilentPrintsNothing) {
  CaptureFd out(1);
  GeneralException e("quiet", true);
  EXPECT_EQ(out.text(), "");
  EXPECT_STREQ(e.what(), "quiet");
}

TEST(GeneralException, DefaultSilentPrintsNothing) {
  SilentReset reset;
  EXPECT_FALSE(GeneralException::defaultSilent);
  GeneralException::defaultSilent = true;
  CaptureFd out(1);
  GeneralException e("quiet", false);
  EXPECT_EQ(out.text(), "");
  EXPECT_STREQ(e.what(), "quiet");
}

TEST(GeneralException, MessageWithPercentSignIsPrintedLiterally) {
  CaptureFd out(1);
  GeneralException e("100%s done");
  EXPECT_EQ(out.text(),
            "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg "
            "100%s done\n");
}

TEST(GeneralException, EmptyMessage) {
  CaptureFd out(1);
  GeneralException e("");
  EXPECT_EQ(out.text(), "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg \n");
  EXPECT_STREQ(e.what(), "");
}

TEST(GeneralException, IsAStdException) {
  CaptureFd out(1);
  try {
    throw GeneralException("x");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "x");
  }
}

TEST(IllegalStateException, MessageAndSilence) {
  CaptureFd out(1);
  util::IllegalStateException e("start", "state RUNNING");
  EXPECT_STREQ(e.what(), "start called in state RUNNING");
  EXPECT_EQ(out.text(), "");
}

TEST(TimedOutException, KeepsTheBaseText) {
  CaptureFd out(1);
  util::TimedOutException e;
  EXPECT_STREQ(e.what(), std::exception().what());
  EXPECT_EQ(out.text(), "");
}

TEST(ParseException, IsAnInvalidArgument) {
  ParseException e(std::string("not a number: x"));
  const std::invalid_argument& base = e;
  EXPECT_STREQ(base.what(), "not a number: x");
  EXPECT_STREQ(ParseException("y").what(), "y");
}

TEST(GeneralExceptionThrower, HandledNameOneBlankSuffix) {
  GeneralExceptionThrower t(11);
  t.handle(35, "EDEADLK");
  t.handle(11, "EAGAIN");
  t.completeMsg("in sem_trywait in CountingSemaphore::tryDown");
  EXPECT_EQ(t.str(), "EAGAIN in sem_trywait in CountingSemaphore::tryDown");
}

TEST(GeneralExceptionThrower, SuffixWithOwnBlankGivesTwoBlanks) {
  GeneralExceptionThrower t(22);
  t.handle(22, "EINVAL");
  t.handle(1, "EPERM");
  t.completeMsg(" in pthread_cond_wait");
  EXPECT_EQ(t.str(), "EINVAL  in pthread_cond_wait");
}

TEST(GeneralExceptionThrower, UnexpectedErrno) {
  GeneralExceptionThrower t(99);
  t.handle(22, "EINVAL");
  t.completeMsg("in x");
  EXPECT_EQ(t.str(), "Unexpected errno (99) in x");

  GeneralExceptionThrower u(-5);
  u.completeMsg(" in pthread_create");
  EXPECT_EQ(u.str(), "Unexpected errno (-5)  in pthread_create");
}

TEST(GeneralExceptionThrower, FirstHandleWins) {
  GeneralExceptionThrower t(22);
  t.handle(22, "EINVAL");
  t.handle(22, "EINVVAL");
  t.completeMsg("s");
  EXPECT_EQ(t.str(), "EINVAL s");
}

TEST(GeneralExceptionThrower, NullNameFailsTheStream) {
  GeneralExceptionThrower t(22);
  t.handle(22, nullptr);
  // The failed stream takes nothing more: neither the "Unexpected" text (it is handled) nor the
  // suffix.
  t.handle(22, "EINVAL");
  t.completeMsg("suffix");
  EXPECT_EQ(t.str(), "");
}

TEST(GeneralExceptionThrower, NullSuffixFailsTheStream) {
  GeneralExceptionThrower t(22);
  t.handle(22, "EINVAL");
  t.completeMsg(nullptr);
  EXPECT_EQ(t.str(), "EINVAL ");
  std::ostringstream out;
  // writeNow after a failed text still writes what was assembled before the failure.
  GeneralExceptionThrower u(1);
  u.handle(1, "EPERM");
  u.writeNow(nullptr, out);
  EXPECT_EQ(out.str(), "EPERM \n");
}

TEST(GeneralExceptionThrower, ThrowNowThrowsAndPrints) {
  CaptureFd out(1);
  try {
    GeneralExceptionThrower t(4);
    t.handle(35, "EDEADLK");
    t.handle(4, "EINTR");
    t.handle(22, "EINVAL");
    t.throwNow("in sem_wait of CountingSemaphore::wait");
    FAIL() << "throwNow returned";
  } catch (const GeneralException& e) {
    EXPECT_STREQ(e.what(), "EINTR in sem_wait of CountingSemaphore::wait");
  }
  EXPECT_EQ(out.text(),
            "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg "
            "EINTR in sem_wait of CountingSemaphore::wait\n");
}

TEST(GeneralExceptionThrower, ThrowNowSilentWithDefaultSilent) {
  SilentReset reset;
  GeneralException::defaultSilent = true;
  CaptureFd out(1);
  GeneralExceptionThrower t(7);
  EXPECT_THROW(t.throwNow("x"), GeneralException);
  EXPECT_EQ(out.text(), "");
}

TEST(GeneralExceptionThrower, WriteNowWritesLineAndFlushes) {
  std::ostringstream out;
  GeneralExceptionThrower t(22);
  t.handle(22, "EINVAL");
  t.writeNow(" in pthread_cond_destroy", out);
  EXPECT_EQ(out.str(), "EINVAL  in pthread_cond_destroy\n");
}

TEST(GeneralExceptionThrower, WriteNowToCerrIsOneWholeLine) {
  auto r = orvix_test::runInChild([] {
    GeneralExceptionThrower t(22);
    t.handle(22, "EINVAL");
    t.writeNow("in sem_post of ~CountingSemaphore", std::cerr);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err, "EINVAL in sem_post of ~CountingSemaphore\n");
  EXPECT_EQ(r.out, "");
}
