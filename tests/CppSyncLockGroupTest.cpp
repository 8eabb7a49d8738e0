#include "Orvix/CppSyncLockGroup.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/CppLimitedBuffer.hpp"
#include "TestSupport.hpp"

using orvix::InterruptedException;
using orvix::sync::Guard;
using orvix::sync::LockGroup;
using orvix::sync::Unguard;
using orvix_test::assertionLine;
using orvix_test::runInChild;

namespace {

const std::string kHeader = "\n\n======== LIMITED BUFFER CONTENT ========\n\n";
const std::string kFooter = "\n==============\n\n";

// A scripted wall clock: hands out the given instants in order, then repeats the last one.
std::vector<int64_t> clockScript;
std::atomic<std::size_t> clockCalls{0};
int64_t scriptedClock() {
  const std::size_t i = clockCalls++;
  return clockScript.at(i < clockScript.size() ? i : clockScript.size() - 1);
}
void useScript(std::vector<int64_t> script) {
  clockScript = std::move(script);
  clockCalls = 0;
  orvix::sync::intern::gl_wallClockNow = &scriptedClock;
}

// The real clock, counting how often it was read.
int64_t countingClock() {
  ++clockCalls;
  return orvix::sync::intern::systemClockNow();
}

// Restores the real clock and the global trace buffer after each in-process test.
class LockGroupTest : public ::testing::Test {
 protected:
  void TearDown() override {
    orvix::sync::intern::gl_wallClockNow = &orvix::sync::intern::systemClockNow;
    util::gl_pWendelLimitedBuffer.reset();
    util::LimitedBuffer::setEnabled(false);
  }
};

void noFormat(std::ostream&, const char*) {}

// One guard on a fresh group, the clock scripted as requested, locked, released.
std::string guardOutput(std::vector<int64_t> script, bool withBuffer = false,
                        bool enabled = true) {
  auto r = runInChild([script, withBuffer, enabled] {
    if (withBuffer) {
      util::LimitedBuffer::setEnabled(true);
      util::gl_pWendelLimitedBuffer = std::make_shared<util::LimitedBuffer>(64, 1, noFormat);
      util::gl_pWendelLimitedBuffer->add("trace text\n", 11);
      util::LimitedBuffer::setEnabled(enabled);
    }
    useScript(script);
    LockGroup group;
    { Guard g(group, "Orvix/Some.cpp", 12); }
  });
  EXPECT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err, "");
  return r.out;
}

const std::string kWait = "[WARN Orvix/CppSyncLockGroup:81]    [Orvix/Some.cpp:12] lockDuration: ";
const std::string kHeld =
    "[WARN Orvix/CppSyncLockGroup:90]    [Orvix/Some.cpp:12] lockedDuration: ";

}  // namespace

TEST_F(LockGroupTest, FreshGroup) {
  LockGroup group;
  EXPECT_EQ(group.requestedAtNs(), 0);
  EXPECT_EQ(group.lockedAtNs(), 0);
  useScript({0});
  Guard g(group, "f.cpp", 1);
  EXPECT_FALSE(g.isInterrupted());
}

TEST_F(LockGroupTest, GuardStampsTheGroup) {
  LockGroup group;
  useScript({1000, 2000, 2500});
  {
    Guard g(group, "f.cpp", 1);
    EXPECT_EQ(group.requestedAtNs(), 1000);
    EXPECT_EQ(group.lockedAtNs(), 2000);
  }
  EXPECT_EQ(clockCalls.load(), 3u);
}

TEST(LockGroupWarnings, WaitedHalfASecond) {
  EXPECT_EQ(guardOutput({0, 500000000, 500000000}), kWait + "500000us\n\n");
}

TEST(LockGroupWarnings, WaitedExactlyTheLimitIsQuiet) {
  EXPECT_EQ(guardOutput({0, 499000000, 499000000}), "");
}

TEST(LockGroupWarnings, WaitedOneNanosecondOverTheLimit) {
  EXPECT_EQ(guardOutput({1, 499000002, 499000002}), kWait + "499000us\n\n");
}

TEST(LockGroupWarnings, HeldFiveMilliseconds) {
  EXPECT_EQ(guardOutput({0, 0, 5000000}), kHeld + "5000us\n\n");
}

TEST(LockGroupWarnings, HeldExactlyTheLimitIsQuiet) {
  EXPECT_EQ(guardOutput({7, 10, 4000010}), "");
}

TEST(LockGroupWarnings, HeldOneNanosecondOverTheLimit) {
  EXPECT_EQ(guardOutput({0, 0, 4000001}), kHeld + "4000us\n\n");
}

TEST(LockGroupWarnings, MicrosecondsAreTruncated) {
  EXPECT_EQ(guardOutput({0, 0, 123456789}), kHeld + "123456us\n\n");
}

TEST(LockGroupWarnings, ClockGoingBackIsQuiet) {
  EXPECT_EQ(guardOutput({900000000, 0, -900000000}), "");
}

TEST(LockGroupWarnings, BothReportsWaitingFirst) {
  EXPECT_EQ(guardOutput({0, 600000000, 610000000}),
            kWait + "600000us\n\n" + kHeld + "10000us\n\n");
}

TEST(LockGroupWarnings, TraceBufferIsDumpedAfterEachReport) {
  const std::string dump = kHeader + "trace text\n" + kFooter;
  EXPECT_EQ(guardOutput({0, 600000000, 610000000}, true),
            kWait + "600000us\n" + dump + "\n" + kHeld + "10000us\n" + dump + "\n");
}

TEST(LockGroupWarnings, DisabledTraceBufferPrintsNothing) {
  EXPECT_EQ(guardOutput({0, 0, 5000000}, true, false), kHeld + "5000us\n\n");
}

TEST(LockGroupWarnings, RealHoldingOverFourMilliseconds) {
  auto r = runInChild([] {
    LockGroup group;
    Guard g(group, "held.cpp", 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  // Sleeping gives a lower bound only; the figure itself depends on the machine.
  EXPECT_TRUE(std::regex_match(
      r.out, std::regex("\\[WARN Orvix/CppSyncLockGroup:90\\]    \\[held.cpp:3\\] "
                        "lockedDuration: [0-9]+us\n\n")))
      << r.out;
}

TEST(LockGroupWarnings, RealWaitingOverHalfASecond) {
  auto r = runInChild([] {
    LockGroup group;
    std::unique_ptr<Guard> holder(new Guard(group, "holder.cpp", 1));
    orvix::sync::intern::gl_wallClockNow = &countingClock;
    clockCalls = 0;
    std::thread waiter([&group] {
      Guard g(group, "waiter.cpp", 2);
      // Held briefly; keep the holding report out of the picture.
      orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
    });
    // The waiter has stamped requestedAt once the clock has been read.
    while (clockCalls.load() < 1) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    // The holder's own report is not what this test is about.
    std::cout.flush();
    std::fflush(stdout);
    holder.reset();
    waiter.join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\\[WARN Orvix/CppSyncLockGroup:81\\]    \\[waiter.cpp:2\\] "
                                           "lockDuration: ([0-9]+)us\n\n")))
      << r.out;
  EXPECT_GE(std::stoll(m[1]), 500000);
}

TEST_F(LockGroupTest, NestedGuardsOverwriteTheStamps) {
  auto r = runInChild([] {
    LockGroup group;
    // Outer waited 600 ms by its own stamps; the inner guard's stamps replace them.
    useScript({0, 600000000, 600000000, 600000000, 600000000, 600000000});
    Guard outer(group, "outer.cpp", 1);
    std::printf("%lld %lld\n", static_cast<long long>(group.requestedAtNs()),
                static_cast<long long>(group.lockedAtNs()));
    {
      Guard inner(group, "inner.cpp", 2);
      std::printf("%lld %lld\n", static_cast<long long>(group.requestedAtNs()),
                  static_cast<long long>(group.lockedAtNs()));
    }
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "0 600000000\n600000000 600000000\n");
}

TEST_F(LockGroupTest, NestedInnerHoldingIsReportedByTheOuterFromTheInnersStamp) {
  auto r = runInChild([] {
    LockGroup group;
    useScript({0, 0, 1000000, 2000000, 3000000, 7000000});
    Guard outer(group, "outer.cpp", 1);          // 0, 0
    { Guard inner(group, "inner.cpp", 2); }      // 1 ms, 2 ms, released at 3 ms: quiet
    // Outer ends at 7 ms: 5 ms after the inner's lockedAt, 7 ms after its own.
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "[WARN Orvix/CppSyncLockGroup:90]    [outer.cpp:1] lockedDuration: 5000us\n\n");
}

TEST_F(LockGroupTest, GuardIsRecursive) {
  LockGroup group;
  useScript({0});
  Guard a(group, "f.cpp", 1);
  Guard b(group, "f.cpp", 2);
  Guard c = group.guard("f.cpp", 3);
}

TEST_F(LockGroupTest, NullFileThrowsBeforeLocking) {
  LockGroup group;
  useScript({0});
  try {
    Guard g(group, nullptr, 1);
    FAIL() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_EQ(clockCalls.load(), 0u);
  // Not left locked: another thread takes the group at once.
  std::thread([&group] { Guard g(group, "t.cpp", 1); }).join();
}

TEST_F(LockGroupTest, MacroPassesFileAndLine) {
  auto r = runInChild([] {
    LockGroup group;
    useScript({0, 0, 5000000});
    auto g = ORVIX_GUARD(group);
    std::printf("line %d\n", __LINE__ - 1);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  const std::string line = r.out.substr(5, r.out.find('\n') - 5);
  EXPECT_EQ(r.out, "line " + line + "\n[WARN Orvix/CppSyncLockGroup:90]    [" + std::string(__FILE__) +
                       ":" + line + "] lockedDuration: 5000us\n\n");
}

TEST_F(LockGroupTest, MoveConstructedGuardReportsWithoutFileAndLine) {
  auto r = runInChild([] {
    LockGroup group;
    useScript({0, 0, 5000000});
    alignas(Guard) unsigned char storage[sizeof(Guard)];
    Guard* source = new (storage) Guard(group, "src.cpp", 9);
    {
      Guard moved(std::move(*source));
    }
    // The moved-from guard has no group and is not destroyed (it must not be).
    std::thread([&group] {
      useScript({0});
      Guard g(group, "t.cpp", 1);
    }).join();
    std::printf("free\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "[WARN Orvix/CppSyncLockGroup:90]    [:0] lockedDuration: 5000us\n\nfree\n");
}

TEST_F(LockGroupTest, MoveAssignmentSwapsOnlyTheGroups) {
  auto r = runInChild([] {
    LockGroup a;
    LockGroup b;
    useScript({0, 0, 0, 0, 5000000});
    {
      Guard ga(a, "a.cpp", 1);
      Guard gb(b, "b.cpp", 2);
      ga = std::move(gb);
      // ga now releases b and reports as a.cpp:1; gb releases a as b.cpp:2.
    }
    // Both groups are free again.
    std::thread([&] {
      useScript({0});
      Guard x(a, "t.cpp", 1);
      Guard y(b, "t.cpp", 2);
    }).join();
    std::printf("free\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out,
            "[WARN Orvix/CppSyncLockGroup:90]    [b.cpp:2] lockedDuration: 5000us\n\n"
            "[WARN Orvix/CppSyncLockGroup:90]    [a.cpp:1] lockedDuration: 5000us\n\nfree\n");
}

TEST_F(LockGroupTest, LockAndUnlockWriteTraceLines) {
  util::LimitedBuffer::setEnabled(true);
  util::gl_pWendelLimitedBuffer = std::make_shared<util::LimitedBuffer>(256, 1, noFormat);
  LockGroup group;
  group.lock("x.cpp", 7);
  group.lock("x.cpp", 8);  // recursive
  group.unlock("y.cpp", 9);
  group.unlock("y.cpp", 10);
  std::ostringstream os;
  util::gl_pWendelLimitedBuffer->print(os);
  EXPECT_EQ(os.str(), kHeader +
                          "[x.cpp:7] LOCK\n[x.cpp:8] LOCK\n[y.cpp:9] UNLOCK\n[y.cpp:10] UNLOCK\n" +
                          kFooter);
  // Released completely: another thread gets the group at once.
  useScript({0});
  std::thread([&group] { Guard g(group, "t.cpp", 1); }).join();
}

TEST_F(LockGroupTest, LockWithoutTraceBuffer) {
  LockGroup group;
  group.lock("x.cpp", 1);
  group.unlock("x.cpp", 2);
  useScript({0});
  std::thread([&group] { Guard g(group, "t.cpp", 1); }).join();
}

TEST(LockGroupTimeout, LockGivesUpAfterOneSecond) {
  auto r = runInChild([] {
    util::LimitedBuffer::setEnabled(true);
    util::gl_pWendelLimitedBuffer = std::make_shared<util::LimitedBuffer>(256, 1, noFormat);
    util::gl_pWendelLimitedBuffer->add("before\n", 7);
    orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };  // no guard reports
    LockGroup group;
    std::promise<void> held;
    std::promise<void> release;
    std::thread holder([&] {
      Guard g(group, "holder.cpp", 1);
      held.set_value();
      release.get_future().wait();
    });
    held.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    group.lock("caller.cpp", 33);
    const auto waited = std::chrono::steady_clock::now() - start;
    std::cout << "waited>=1s " << (waited >= std::chrono::milliseconds(999)) << "\n";
    release.set_value();
    holder.join();
    // The caller did not get the group: another thread can take it now.
    std::thread([&group] { Guard g(group, "t.cpp", 1); }).join();
    std::cout << "free\n";
    // No LOCK line was written for the failed attempt.
    util::gl_pWendelLimitedBuffer->print(std::cout);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  const std::string dump = kHeader + "before\n" + kFooter;
  EXPECT_EQ(r.out, "LockGroup::lock failed in caller.cpp:33 for 1sec!\n" + dump +
                       "waited>=1s 1\nfree\n" + dump);
}

TEST(LockGroupTimeout, WithoutTraceBufferOnlyTheMessage) {
  auto r = runInChild([] {
    orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
    LockGroup group;
    std::promise<void> held;
    std::promise<void> release;
    std::thread holder([&] {
      Guard g(group, "holder.cpp", 1);
      held.set_value();
      release.get_future().wait();
    });
    held.get_future().wait();
    group.lock("c.cpp", 4);
    release.set_value();
    holder.join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "LockGroup::lock failed in c.cpp:4 for 1sec!\n");
}

TEST(LockGroupDeathTest, LockAndUnlockPreconditions) {
  struct Case {
    std::function<void(LockGroup&)> call;
    int line;
    const char* function;
    const char* expr;
  };
  const char* lockSig = "void orvix::sync::LockGroup::lock(const char*, int)";
  const char* unlockSig = "void orvix::sync::LockGroup::unlock(const char*, int)";
  const std::vector<Case> cases = {
      {[](LockGroup& g) { g.lock(nullptr, 1); }, 136, lockSig, "file"},
      {[](LockGroup& g) { g.lock("f", 0); }, 137, lockSig, "line > 0"},
      {[](LockGroup& g) { g.lock("f", -5); }, 137, lockSig, "line > 0"},
      {[](LockGroup& g) { g.unlock(nullptr, 1); }, 150, unlockSig, "file"},
      {[](LockGroup& g) { g.unlock("f", 0); }, 151, unlockSig, "line > 0"},
  };
  for (const auto& c : cases) {
    auto r = runInChild([&c] {
      LockGroup g;
      c.call(g);
    });
    ASSERT_TRUE(r.signaled()) << r.describe();
    EXPECT_EQ(r.signal(), SIGABRT);
    EXPECT_EQ(r.err, assertionLine("Orvix/CppSyncLockGroup", c.line, c.function, c.expr));
    EXPECT_EQ(r.out, "");
  }
}

// The waiter's guard leaves wait() one level short; its own unlock at the end then fails
// silently. The notifier takes the group once the waiter is inside wait(), so no notification
// can be lost.
TEST_F(LockGroupTest, InterruptThenWaitBlocksUntilNotifiedThenThrows) {
  orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
  LockGroup group;
  {
    Guard g(group, "i.cpp", 1);
    g.interrupt();
    EXPECT_TRUE(g.isInterrupted());
  }
  std::atomic<bool> aboutToWait{false};
  std::atomic<int> outcome{0};  // 1 returned, 2 threw
  std::thread waiter([&] {
    Guard g(group, "w.cpp", 2);
    EXPECT_TRUE(g.isInterrupted());
    aboutToWait = true;
    try {
      g.wait();
      outcome = 1;
    } catch (const InterruptedException&) {
      outcome = 2;
    }
  });
  while (!aboutToWait.load()) std::this_thread::yield();
  {
    // Only possible once the waiter has released the group inside wait().
    Guard g(group, "n.cpp", 3);
    EXPECT_EQ(outcome.load(), 0);  // still blocked although the group is interrupted
    g.notifyAll();
  }
  waiter.join();
  EXPECT_EQ(outcome.load(), 2);
}

TEST_F(LockGroupTest, NotifyAllWakesEveryWaiterAndWaitReturnsOneLevelShort) {
  orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
  LockGroup group;
  std::atomic<int> waiting{0};
  std::atomic<int> returned{0};
  std::promise<void> checked;
  std::shared_future<void> checkedF = checked.get_future().share();
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i) {
    waiters.emplace_back([&] {
      Guard g(group, "w.cpp", 2);
      ++waiting;
      g.wait();
      ++returned;
      // Still inside the guard's scope, but the group is no longer held by this thread.
      checkedF.wait();
    });
  }
  for (;;) {
    // Each waiter has released the group inside wait() once this guard is obtained.
    Guard g(group, "n.cpp", 3);
    if (waiting.load() == 2) {
      EXPECT_FALSE(g.isInterrupted());
      g.notifyAll();
      break;
    }
  }
  while (returned.load() < 2) std::this_thread::yield();
  // Both waiters are past wait() and still in their guards' scopes, yet the group is free.
  std::thread([&group] { Guard g(group, "t.cpp", 4); }).join();
  checked.set_value();
  for (auto& w : waiters) w.join();
}

TEST_F(LockGroupTest, UnguardReleasesForItsScope) {
  orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
  LockGroup group;
  Guard g(group, "g.cpp", 1);
  {
    Unguard u = group.unguard("u.cpp", 2);
    std::thread([&group] { Guard other(group, "t.cpp", 3); }).join();
  }
  // Held again: another thread's lock gives up.
  auto r = runInChild([&group] {
    std::thread([&group] { group.lock("probe.cpp", 5); }).join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "LockGroup::lock failed in probe.cpp:5 for 1sec!\n");
}

TEST_F(LockGroupTest, MovedUnguardLocksTwice) {
  auto r = runInChild([] {
    orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
    LockGroup group;
    {
      Guard g(group, "g.cpp", 1);
      {
        Unguard u1(group, "u.cpp", 2);
        Unguard u2(std::move(u1));
      }
      // Released once by u1, taken again by both: held twice now, so the guard's unlock leaves
      // it held once.
    }
    std::thread([&group] { group.lock("probe.cpp", 4); }).join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "LockGroup::lock failed in probe.cpp:4 for 1sec!\n");
}

TEST_F(LockGroupTest, GlobalGroupIsUsable) {
  orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
  Guard g = ORVIX_GUARD(orvix::sync::gl_wendelLockGroup);
  EXPECT_FALSE(g.isInterrupted());
}

TEST(InterruptedException, KeepsTheBaseText) {
  InterruptedException e;
  const std::exception& base = e;
  EXPECT_STREQ(base.what(), std::exception().what());
}
