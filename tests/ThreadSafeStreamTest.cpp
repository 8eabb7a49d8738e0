#include "Orvix/ThreadSafeStream.hpp"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include "TestSupport.hpp"

using orvix_test::CaptureFd;
using orvix_test::runInChild;

namespace {

// Gives the other writer a chance to run in the middle of a chain.
struct Yield {};
std::ostream& operator<<(std::ostream& o, Yield) {
  sched_yield();
  return o;
}

// Writes to safeCerr from inside another chain.
struct NestedCerr {};
std::ostream& operator<<(std::ostream& o, NestedCerr) {
  safeCerr << "inner" << std::endl;
  return o;
}

}  // namespace

TEST(ThreadSafeStream, ChainWritesToItsTarget) {
  std::ostringstream target;
  tss::ThreadSafeStream s(target);
  s << "a" << 1 << ' ' << 2.5 << std::endl;
  s << std::hex << 255 << std::dec << " " << 255;
  EXPECT_EQ(target.str(), "a1 2.5\nff 255");
  EXPECT_EQ(&s.target, &target);
}

TEST(ThreadSafeStream, SafeCoutAndSafeCerrWriteToTheStandardStreams) {
  auto r = runInChild([] {
    safeCout << "out " << 42 << std::endl;
    safeCerr << "err " << 7 << std::endl;
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "out 42\n");
  EXPECT_EQ(r.err, "err 7\n");
  EXPECT_EQ(&safeCout.target, &std::cout);
  EXPECT_EQ(&safeCerr.target, &std::cerr);
}

TEST(ThreadSafeStream, ChainHoldsTheConsoleLockUntilItEnds) {
  std::ostringstream target;
  tss::ThreadSafeStream s(target);
  std::atomic<int> seenInside{-1};
  // While the chain runs, another thread cannot take the console lock.
  auto probe = [&seenInside] {
    std::thread other([&seenInside] {
      const int r = pthread_mutex_trylock(&tss::consoleLock());
      if (r == 0) pthread_mutex_unlock(&tss::consoleLock());
      seenInside = r;
    });
    other.join();
  };
  s << "x" << (probe(), "y") << "z";
  EXPECT_EQ(seenInside.load(), EBUSY);
  EXPECT_EQ(target.str(), "xyz");
  // After the full expression the lock is free again.
  std::thread after([&seenInside] {
    const int r = pthread_mutex_trylock(&tss::consoleLock());
    if (r == 0) pthread_mutex_unlock(&tss::consoleLock());
    seenInside = r;
  });
  after.join();
  EXPECT_EQ(seenInside.load(), 0);
}

TEST(ThreadSafeStream, TwoThreadsNeverInterleaveWithinAChain) {
  auto r = runInChild([] {
    auto writer = [](char tag) {
      for (int i = 0; i < 300; ++i)
        safeCout << tag << Yield() << tag << Yield() << i << Yield() << tag << Yield() << tag
                 << std::endl;
    };
    std::thread a(writer, 'A'), b(writer, 'B');
    a.join();
    b.join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  std::istringstream lines(r.out);
  std::string line;
  int count[2] = {0, 0};
  while (std::getline(lines, line)) {
    ASSERT_GE(line.size(), 5u) << line;
    const char tag = line[0];
    ASSERT_TRUE(tag == 'A' || tag == 'B') << line;
    const std::string number = std::to_string(count[tag - 'A']);
    EXPECT_EQ(line, std::string(2, tag) + number + std::string(2, tag));
    ++count[tag - 'A'];
  }
  EXPECT_EQ(count[0], 300);
  EXPECT_EQ(count[1], 300);
}

TEST(ThreadSafeStream, NestedChainDoesNotDeadlock) {
  auto r = runInChild(
      [] {
        safeCout << "outer " << NestedCerr() << "end" << std::endl;
        safePrintf("printf %d\n", 3);
      },
      "", 60);
  ASSERT_FALSE(r.timedOut) << "nested chain deadlocked";
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "outer end\nprintf 3\n");
  EXPECT_EQ(r.err, "inner\n");
}

TEST(ThreadSafeStream, SafePrintfWaitsForAChain) {
  auto r = runInChild([] {
    std::atomic<bool> started{false};
    std::thread printer;
    // The chain starts the printer thread in its middle; the printer's line can only follow the
    // whole chain.
    auto startPrinter = [&] {
      printer = std::thread([&] {
        started = true;
        safePrintf("printer\n");
      });
      while (!started) sched_yield();
      for (int i = 0; i < 50; ++i) sched_yield();
      return "middle ";
    };
    safeCout << "begin " << startPrinter() << "end" << std::endl;
    printer.join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "begin middle end\nprinter\n");
}

TEST(Printf, MyPrintfAndSafePrintfReturnWhatVfprintfReturns) {
  CaptureFd out(1);
  const int a = my_printf("%s-%d\n", "abc", 12);
  const int b = safePrintf("%05d", 42);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 5);
  EXPECT_EQ(out.text(), "abc-12\n00042");
}

TEST(Printf, SafePrintfIsRecursiveInsideAChain) {
  CaptureFd out(1);
  std::ostringstream target;
  tss::ThreadSafeStream s(target);
  s << "a" << (safePrintf("p"), "b");
  EXPECT_EQ(out.text(), "p");
  EXPECT_EQ(target.str(), "ab");
}
