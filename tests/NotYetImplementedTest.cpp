#include "Orvix/NotYetImplemented.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include "TestSupport.hpp"

TEST(NyiDeathTest, PrintsItsLineThenFailsFalse) {
  auto r = orvix_test::runInChild([] { nyi::nyi("DriveVm::format"); });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, ">>> NOT YET IMPLEMENTED: DriveVm::format\n" +
                       orvix_test::assertionLine("Orvix/NotYetImplemented", 27,
                                                 "void nyi::nyi(const char*)", "false"));
  EXPECT_EQ(r.out, "");
}

TEST(NyiDeathTest, Asserts) {
  EXPECT_DEATH(nyi::nyi("x"),
               ">>> NOT YET IMPLEMENTED: x\n.*Orvix/NotYetImplemented:27: void "
               "nyi::nyi\\(const char\\*\\): Assertion `false' failed");
}
