#include "Orvix/CppCapacityControl.hpp"

#include <gtest/gtest.h>

#include "Orvix/GeneralException.hpp"
#include "TestSupport.hpp"

using orvix::CapacityControl;
using orvix::CapacityControlImpl;
using orvix_test::assertionLine;
using orvix_test::CaptureFd;
using orvix_test::runInChild;

namespace {

// The message of the exception f throws, and what was printed while it was built.
template <typename F>
std::string thrownText(F f, std::string* printed) {
  CaptureFd out(1);
  std::string text;
  try {
    f();
  } catch (const util::GeneralException& e) {
    text = e.what();
  }
  *printed = out.text();
  return text;
}

int sizeOf(const std::shared_ptr<CapacityControl>& c) {
  return static_cast<CapacityControlImpl&>(*c).getSize();
}

}  // namespace

TEST(CapacityControl, ReachingTheCapacityExactlyThenOneMoreThrows) {
  auto c = CapacityControl::create("druckjobs", 10, 7);
  c->increaseSize(3);
  EXPECT_EQ(sizeOf(c), 10);
  std::string printed;
  const std::string msg = thrownText([&] { c->increaseSize(1); }, &printed);
  EXPECT_EQ(msg, "Capacity exceeded in CapacityControl druckjobs: 10 + 1 > 10");
  EXPECT_EQ(printed, "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg "
                     "Capacity exceeded in CapacityControl druckjobs: 10 + 1 > 10\n");
  EXPECT_EQ(sizeOf(c), 10);
}

TEST(CapacityControl, OverrunLeavesSizeSoASmallerAmountMayFollow) {
  auto c = CapacityControl::create("bytes", 100, 40);
  std::string printed;
  EXPECT_EQ(thrownText([&] { c->increaseSize(61); }, &printed),
            "Capacity exceeded in CapacityControl bytes: 40 + 61 > 100");
  EXPECT_EQ(sizeOf(c), 40);
  c->increaseSize(60);
  EXPECT_EQ(sizeOf(c), 100);
}

TEST(CapacityControl, ShrinkingBelowZeroThrows) {
  auto c = CapacityControl::create("x", 10, 2);
  std::string printed;
  EXPECT_EQ(thrownText([&] { c->decreaseSize(3); }, &printed),
            "Illegal argument for CapacityControl::decreaseSize: size = 2 < 3 = sizeDecrement");
  EXPECT_EQ(sizeOf(c), 2);
  c->decreaseSize(2);
  EXPECT_EQ(sizeOf(c), 0);
}

TEST(CapacityControl, ZeroStepsAlwaysSucceed) {
  auto full = CapacityControl::create("full", 5, 5);
  full->increaseSize(0);
  EXPECT_EQ(sizeOf(full), 5);
  auto empty = CapacityControl::create("empty", 5, 0);
  empty->decreaseSize(0);
  EXPECT_EQ(sizeOf(empty), 0);
}

TEST(CapacityControl, InitialSizeIsTakenUnchecked) {
  auto c = CapacityControl::create("over", 5, 9);
  EXPECT_EQ(sizeOf(c), 9);
  std::string printed;
  EXPECT_EQ(thrownText([&] { c->increaseSize(0); }, &printed),
            "Capacity exceeded in CapacityControl over: 9 + 0 > 5");
  c->decreaseSize(4);
  EXPECT_EQ(sizeOf(c), 5);
}

TEST(CapacityControl, SilentExceptionsPrintNothing) {
  util::GeneralException::defaultSilent = true;
  auto c = CapacityControl::create("s", 1, 1);
  std::string printed;
  thrownText([&] { c->increaseSize(1); }, &printed);
  util::GeneralException::defaultSilent = false;
  EXPECT_EQ(printed, "");
}

TEST(CapacityControlDeathTest, NegativeArgumentsAssert) {
  auto r = runInChild([] { CapacityControl::create("n", 5, 1)->increaseSize(-1); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.err, assertionLine("Orvix/CppCapacityControl", 97,
                                 "virtual void orvix::CapacityControlImpl::increaseSize(int)",
                                 "sizeIncrement >= 0"));
  auto s = runInChild([] { CapacityControl::create("n", 5, 1)->decreaseSize(-1); });
  ASSERT_TRUE(s.signaled()) << s.describe();
  EXPECT_EQ(s.err, assertionLine("Orvix/CppCapacityControl", 107,
                                 "virtual void orvix::CapacityControlImpl::decreaseSize(int)",
                                 "sizeDecrement >= 0"));
}
