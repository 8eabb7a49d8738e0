// The stand-ins for the controller libraries.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "CheckBuildVersion.h"
#include "EasyAsync.hpp"
#include "TestSupport.hpp"
#include "ZuLog.h"

using orvix_test::runInChild;

TEST(RoLogStandIn, ResolvesStableIdsAndWritesGroupFileLine) {
  auto r = runInChild([] {
    const int a = ZU_Log_Printf(0xFFFFFFFFu, "AlphaGroup", 1, 1, 1, 0, "Orvix/X", 12, "n=%d\n", 5);
    const int b = ZU_Log_Printf(0xFFFFFFFFu, "BetaGroup", 1, 1, 1, 0, "Orvix/Y", 13, "plain");
    const int a2 = ZU_Log_Printf(static_cast<unsigned>(a), "AlphaGroup", 1, 1, 1, 0, "Orvix/X",
                                 14, "again\n");
    const int wrong = ZU_Log_Printf(static_cast<unsigned>(b), "AlphaGroup", 1, 1, 1, 0, "f", 1,
                                    "x\n");
    printf("%d %d %d %d\n", a, b, a2, wrong);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "0 1 0 0\n");
  EXPECT_EQ(r.err,
            "[AlphaGroup] Orvix/X:12: n=5\n"
            "[BetaGroup] Orvix/Y:13: plain\n"
            "[AlphaGroup] Orvix/X:14: again\n"
            "[AlphaGroup] f:1: x\n");
}

TEST(RoLogStandIn, SixtyFourGroupsAtMost) {
  auto r = runInChild([] {
    int last = 0;
    for (int i = 0; i < 65; ++i) {
      const std::string name = "G" + std::to_string(i);
      last = ZU_Log_Printf(0xFFFFFFFFu, name.c_str(), 1, 1, 1, 0, "f", 1, "%s", "");
    }
    printf("%d\n", last);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "-1\n");
  EXPECT_EQ(gl_bROLConfigLoaded, 0);
  EXPECT_EQ(sizeof gl_psZuLogGrpCfgTable, 64u * 48u);
}

TEST(CheckBuildVersionStandIn, WarnsOnMismatchOnly) {
  auto r = runInChild([] { printf("%d %d\n", checkBuildVersion(52), checkBuildVersion(51)); });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "0 -1\n");
  EXPECT_EQ(r.err, "checkBuildVersion: library built for interface 51, expected 52\n");
}

TEST(EasyAsyncStandIn, KeepsFuturesUntilTheirTasksEnd) {
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  std::atomic<bool> done{false};
  const std::size_t before = orvix::easyAsyncIntern::storedFutureCount();
  orvix::easyAsyncIntern::storeFuture(std::async(std::launch::async, [gate, &done] {
    gate.wait();
    done = true;
  }));
  // The caller returned; the task goes on and its future is kept.
  EXPECT_EQ(orvix::easyAsyncIntern::storedFutureCount(), before + 1);
  EXPECT_FALSE(done);
  release.set_value();
  while (!done) std::this_thread::yield();
  // Each call reaps what has finished; an invalid future is not stored.
  for (int i = 0; i < 60000 && orvix::easyAsyncIntern::storedFutureCount() > before; ++i) {
    orvix::easyAsyncIntern::storeFuture(std::future<void>());
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(orvix::easyAsyncIntern::storedFutureCount(), before);
}

TEST(EasyAsyncStandIn, ExitWaitsForRunningTasks) {
  auto r = runInChild([] {
    orvix::easyAsyncIntern::storeFuture(std::async(std::launch::async, [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      printf("task finished\n");
      fflush(stdout);
    }));
    printf("caller returned\n");
    fflush(stdout);
    exit(0);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "caller returned\ntask finished\n");
}
