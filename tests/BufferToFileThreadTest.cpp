#include "Orvix/BufferToFileThread.hpp"

#include <gtest/gtest.h>

#include <set>

#include "Orvix/CppSyncLockGroup.hpp"
#include "TestSupport.hpp"
#include "ThreadStateSupport.hpp"

TEST(BufferToFileThread, EveryOperationDoesNothing) {
  orvix::sync::LockGroup group;
  unsigned char buffer[16] = {1, 2, 3};
  unsigned char* begin = buffer + 1;
  unsigned char* end = buffer + 2;
  const std::set<pid_t> before = orvix_test::threadIdsBeforeStarting();
  orvix_test::CaptureFd out(1);
  orvix_test::CaptureFd err(2);
  {
    orvix::BufferToFileThread t;
    t.start(3, group, buffer, sizeof buffer, begin, end);
    for (pid_t id : orvix_test::threadIds()) EXPECT_EQ(before.count(id), 1u);  // none started
    t.run();
    t.join();
  }
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(err.text(), "");
  EXPECT_EQ(begin, buffer + 1);
  EXPECT_EQ(end, buffer + 2);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[1], 2);
  EXPECT_EQ(buffer[2], 3);
  // The group was not taken and left locked.
  { auto g = group.guard(__FILE__, __LINE__); }
}
