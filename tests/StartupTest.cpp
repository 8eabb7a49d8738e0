// Start-up of the library: the build-interface check comes before every other initialiser.
#include "Orvix/Startup.hpp"

#include <gtest/gtest.h>

#include "Orvix/ImplementedFunc.hpp"
#include "Orvix/ThreadSafeStream.hpp"
#include "Orvix/internal/ThreadKey.hpp"

namespace {
int seenInterface = -1;
int callCount = 0;
bool keyValidAtCheck = true;
}  // namespace

// Interposes the build-compatibility library: liborvix's call at load lands here.
extern "C" int checkBuildVersion(int interfaceNumber) {
  seenInterface = interfaceNumber;
  ++callCount;
  keyValidAtCheck = util::gl_threadKey.valid;
  return -1;  // a mismatch answer is ignored by the library
}

TEST(Startup, BuildCheckRunsOnceWith52BeforeTheOtherObjects) {
  EXPECT_EQ(seenInterface, 52);
  EXPECT_EQ(callCount, 1);
  EXPECT_FALSE(keyValidAtCheck);  // the thread key did not exist yet
  EXPECT_TRUE(util::gl_threadKey.valid);
  EXPECT_EQ(kOrvixBuildInterface, 52);
}

TEST(Startup, CallingTheConstructorAgainChecksAgain) {
  Orvix_constructor();
  EXPECT_EQ(callCount, 2);
  EXPECT_EQ(seenInterface, 52);
}

TEST(Startup, ProcessWideObjectsExist) {
  EXPECT_TRUE(zu::ImplementedFunc::allImplemented.empty());
  {
    std::lock_guard<std::mutex> hold(zu::ImplementedFunc::mu);
    zu::ImplementedFunc::allImplemented.insert("DriveVm::open");
  }
  EXPECT_EQ(zu::ImplementedFunc::allImplemented.count("DriveVm::open"), 1u);
  zu::ImplementedFunc::allImplemented.clear();
  zu::ImplementedFunc object;
}
