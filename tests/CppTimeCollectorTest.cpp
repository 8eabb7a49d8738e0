#include "Orvix/CppTimeCollector.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <iostream>
#include <locale>
#include <sstream>

#include "CollectorTestSupport.hpp"
#include "Orvix/Locale.hpp"
#include "TestSupport.hpp"

using orvix::TimeCollector;
using orvix::TimeCollectorPool;
using orvix_test::assertionLine;
using orvix_test::CaptureFd;
using orvix_test::runInChild;
using orvix_test::SyncBuf;

namespace {

using TP = TimeCollector::TimePoint;
using std::chrono::nanoseconds;

const int64_t kT0 = 1700000000000000000LL;

TP at(int64_t ns) { return TP(nanoseconds(ns)); }

std::string dumpOf(TimeCollector& tc, int nameWidth, bool grouped) {
  std::ostringstream os;
  if (grouped) os.imbue(std::locale(std::locale::classic(), new orvix::MyNumPunct));
  tc.dump(os, nameWidth);
  return os.str();
}

// Restores std::cout's locale after a pool has imbued it.
struct CoutLocale {
  CoutLocale() : saved(std::cout.getloc()) {}
  ~CoutLocale() { std::cout.imbue(saved); }
  std::locale saved;
};

}  // namespace

TEST(TimeCollector, NoEntries) {
  TimeCollector tc(4);
  EXPECT_EQ(dumpOf(tc, 10, false), "TimeCollector: no entries\n");
}

TEST(TimeCollector, TwoEntriesOneAndAHalfMillisecondsApart) {
  TimeCollector tc(4);
  tc.stamp("start", at(kT0));
  tc.stamp("ende", at(kT0 + 1500000));
  EXPECT_EQ(dumpOf(tc, 6, false),
            "start : 1700000000000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
            "ende  : 1700000000001500000 ns    (first +   1500000 ns)   (last +   1500000 ns)\n"
            "=====> Achtung 1ms ueberschritten\n"
            "===== Insgesamt: 1500000 ns\n");
  EXPECT_EQ(dumpOf(tc, 6, true),
            "start : 1 700 000 000 000 000 000 ns    (first +         0 ns)   (last +         0 "
            "ns)\n"
            "ende  : 1 700 000 000 001 500 000 ns    (first + 1 500 000 ns)   (last + 1 500 000 "
            "ns)\n"
            "=====> Achtung 1ms ueberschritten\n"
            "===== Insgesamt: 1 500 000 ns\n");
}

TEST(TimeCollector, WarningIsAgainstTheFirstEntry) {
  TimeCollector tc(4);
  tc.stamp("a", at(kT0));
  tc.stamp("b", at(kT0 + 600000));
  tc.stamp("c", at(kT0 + 1200000));
  EXPECT_EQ(dumpOf(tc, 1, false),
            "a: 1700000000000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
            "b: 1700000000000600000 ns    (first +    600000 ns)   (last +    600000 ns)\n"
            "c: 1700000000001200000 ns    (first +   1200000 ns)   (last +    600000 ns)\n"
            "=====> Achtung 1ms ueberschritten\n"
            "===== Insgesamt: 1200000 ns\n");
}

TEST(TimeCollector, ExactlyOneMillisecondIsNoOverrun) {
  TimeCollector tc(4);
  tc.stamp("a", at(0));
  tc.stamp("b", at(1000000));
  tc.stamp("c", at(1000001));
  EXPECT_EQ(dumpOf(tc, 0, false),
            "a: 0 ns    (first +         0 ns)   (last +         0 ns)\n"
            "b: 1000000 ns    (first +   1000000 ns)   (last +   1000000 ns)\n"
            "c: 1000001 ns    (first +   1000001 ns)   (last +         1 ns)\n"
            "=====> Achtung 1ms ueberschritten\n"
            "===== Insgesamt: 1000001 ns\n");
}

TEST(TimeCollector, NegativeAndWideNumbers) {
  TimeCollector tc(4);
  tc.stamp("x", at(5000000000));
  tc.stamp("y", at(3000000000));
  tc.stamp("z", at(-7));
  EXPECT_EQ(dumpOf(tc, 2, false),
            "x : 5000000000 ns    (first +         0 ns)   (last +         0 ns)\n"
            "y : 3000000000 ns    (first + -2000000000 ns)   (last + -2000000000 ns)\n"
            "z : -7 ns    (first + -5000000007 ns)   (last + -3000000007 ns)\n"
            "===== Insgesamt: -5000000007 ns\n");
}

TEST(TimeCollector, LongNamesAreNotCutAndShortOnesPadded) {
  TimeCollector tc(4);
  tc.stamp("eine sehr lange Messstelle", at(10));
  tc.stamp("kurz", at(20));
  EXPECT_EQ(dumpOf(tc, 8, false),
            "eine sehr lange Messstelle: 10 ns    (first +         0 ns)   (last +         0 ns)\n"
            "kurz    : 20 ns    (first +        10 ns)   (last +        10 ns)\n"
            "===== Insgesamt: 10 ns\n");
}

TEST(TimeCollector, StampNowUsesTheSystemClock) {
  TimeCollector tc(2);
  const TP before = std::chrono::system_clock::now();
  tc.stamp("jetzt");
  const TP after = std::chrono::system_clock::now();
  ASSERT_EQ(tc.getEntries().size(), 1u);
  EXPECT_EQ(tc.getEntries()[0].first, "jetzt");
  EXPECT_GE(tc.getEntries()[0].second, before);
  EXPECT_LE(tc.getEntries()[0].second, after);
}

TEST(TimeCollector, EverythingLivesInTheOwnHeap) {
  TimeCollector tc(3);
  auto* heap = static_cast<orvix::SimpleHeap*>(tc.getAllocator().getHeap().get());
  EXPECT_EQ(heap->base.memEnd - heap->base.mem, 0x40000);
  EXPECT_EQ(heap->base.sumAllocated, 3 * sizeof(TimeCollector::Entry));
  tc.stamp("ein Name laenger als fuenfzehn", at(1));
  EXPECT_EQ(heap->base.sumAllocated, 3 * sizeof(TimeCollector::Entry) + 31);
  EXPECT_EQ(tc.getEntries()[0].first.get_allocator(), tc.getAllocator());
  tc.reset(5);
  EXPECT_EQ(heap->base.sumAllocated, 5 * sizeof(TimeCollector::Entry));
  EXPECT_EQ(tc.getEntries().size(), 0u);
  EXPECT_GE(tc.getEntries().capacity(), 5u);
}

TEST(TimeCollector, ResetRewindsTheHeap) {
  TimeCollector tc(2);
  auto* heap = static_cast<orvix::SimpleHeap*>(tc.getAllocator().getHeap().get());
  for (int round = 0; round < 100; ++round) {
    tc.reset(4);
    EXPECT_EQ(heap->base.nextMem, heap->base.mem + 4 * sizeof(TimeCollector::Entry));
    for (int i = 0; i < 20; ++i) tc.stamp("eine Messstelle mit langem Namen", at(i));
    std::ostringstream os;
    tc.dump(os, 40);
  }
  tc.reset(0);
  EXPECT_TRUE(heap->allFree());
}

TEST(TimeCollector, StringsLiveInTheHeapAndGoBack) {
  TimeCollector tc(0);
  auto* heap = static_cast<orvix::SimpleHeap*>(tc.getAllocator().getHeap().get());
  ASSERT_TRUE(heap->allFree());
  {
    auto s = tc.string("kurz");
    EXPECT_EQ(*s, "kurz");
    EXPECT_EQ(heap->base.sumAllocated, sizeof(TimeCollector::MyString));
    auto b = tc.string2(size_t{20}, ' ');
    EXPECT_EQ(std::string(b->c_str()), std::string(20, ' '));
    EXPECT_EQ(heap->base.sumAllocated, 2 * sizeof(TimeCollector::MyString) + 21);
  }
  EXPECT_TRUE(heap->allFree());
}

TEST(TimeCollectorDeathTest, ResetWithAStringAliveAsserts) {
  auto r = runInChild([] {
    TimeCollector tc(0);
    auto s = tc.string("noch da");
    tc.reset(1);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.err, assertionLine("Orvix/CppTimeCollector", 79,
                                 "void orvix::TimeCollector::reset(int)",
                                 "allocator.getHeap()->allFree()"));
}

TEST(TimeCollectorDeathTest, DeletersWithoutOwnerAssert) {
  EXPECT_DEATH(
      {
        TimeCollector tc(0);
        orvix::StringDeleter d;
        d(tc.string("x").release());
      },
      "Orvix/CppTimeCollector.hpp:102: .*StringDeleter.*Assertion `tc' failed");
  EXPECT_DEATH(
      {
        TimeCollector tc(0);
        orvix::TimeCollectorDeleter d;
        d(&tc);
      },
      "Orvix/CppTimeCollector.hpp:217: void orvix::TimeCollectorDeleter::operator\\(\\)\\(orvix::"
      "TimeCollector\\*\\) const: Assertion `tcp' failed");
}

TEST(TimeCollectorDeathTest, OverflowingTheHeapAborts) {
  EXPECT_DEATH(
      {
        TimeCollector tc(0);
        for (int i = 0; i < 100000; ++i) tc.stamp("ein Name, der nicht in das Objekt passt");
      },
      "Assertion `nextMem \\+ ceilSize <= memEnd' failed");
}

TEST(TimeCollectorPool, HeapSizeFormula) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  TimeCollectorPool pool(out, 10, 4096, 3);
  const auto& heap = pool.getHeap();
  EXPECT_EQ(static_cast<size_t>(heap->base.memEnd - heap->base.mem),
            4 * sizeof(TimeCollectorPool::CollectorPtr) +
                3 * (4096 + TimeCollectorPool::PER_COLLECTOR_BYTES) +
                TimeCollectorPool::FIXED_BYTES);
  if (sizeof(void*) == 4) {
    EXPECT_EQ(TimeCollectorPool::heapSize(4096, 3), (3 + 1) * 8 + 3 * (4096 + 64) + 152);
  }
  // Everything placed: the heap holds its queue slots, sub-heaps, collectors, pool and queue.
  EXPECT_LE(heap->base.nextMem, heap->base.memEnd);
  EXPECT_GE(heap->base.sumAllocated, 3 * 4096u);
}

TEST(TimeCollectorPool, ImbuesStdCoutWithBlankGrouping) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  TimeCollectorPool pool(out, 10, 1024, 1);
  const auto& np = std::use_facet<std::numpunct<char>>(std::cout.getloc());
  EXPECT_EQ(np.thousands_sep(), ' ');
  EXPECT_EQ(np.grouping(), "\3");
  EXPECT_EQ(std::use_facet<std::numpunct<char>>(out.getloc()).thousands_sep(),
            std::use_facet<std::numpunct<char>>(std::locale::classic()).thousands_sep());
}

TEST(TimeCollectorPool, GetStampDumpPrintsOnTheThread) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  out.imbue(std::locale(std::locale::classic(), new orvix::MyNumPunct));
  TimeCollectorPool pool(out, 6, 4096, 2);
  auto tc = pool.get(4);
  tc->stamp("start", at(kT0));
  tc->stamp("ende", at(kT0 + 1500000));
  pool.dump(std::move(tc));
  EXPECT_EQ(tc, nullptr);
  ASSERT_TRUE(buf.waitFor("===== Insgesamt: "));
  ASSERT_TRUE(buf.waitFor(" ns\n"));
  EXPECT_EQ(buf.text(),
            "start : 1 700 000 000 000 000 000 ns    (first +         0 ns)   (last +         0 "
            "ns)\n"
            "ende  : 1 700 000 000 001 500 000 ns    (first + 1 500 000 ns)   (last + 1 500 000 "
            "ns)\n"
            "=====> Achtung 1ms ueberschritten\n"
            "===== Insgesamt: 1 500 000 ns\n");
}

TEST(TimeCollectorPool, CollectorsReturnAfterPrintingAndAreReset) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  TimeCollectorPool pool(out, 4, 2048, 2);
  for (int i = 0; i < 50; ++i) {
    auto tc = pool.get(2);
    EXPECT_TRUE(tc->getEntries().empty());
    tc->stamp("p", at(i));
    pool.dump(std::move(tc));
    // The pool of two can run dry while the thread prints: wait for the line.
    ASSERT_TRUE(buf.waitFor("===== Insgesamt", i + 1));
  }
}

TEST(TimeCollectorPool, UnderflowAndOverflow) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  TimeCollectorPool pool(out, 4, 1024, 2);
  auto a = pool.get(1);
  auto b = pool.get(1);
  CaptureFd captured(1);
  try {
    pool.get(1);
    FAIL();
  } catch (const util::GeneralException& e) {
    EXPECT_STREQ(e.what(), "Pool underflow");
  }
  TimeCollector stranger(1);
  a.reset();
  b.reset();
  try {
    pool.put(&stranger);
    FAIL();
  } catch (const util::GeneralException& e) {
    EXPECT_STREQ(e.what(), "Pool overflow");
  }
  EXPECT_EQ(captured.text(),
            "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg Pool "
            "underflow\n"
            "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg Pool "
            "overflow\n");
  // Still usable.
  auto c = pool.get(1);
  EXPECT_NE(c, nullptr);
}

TEST(TimeCollectorPool, DroppedCollectorGoesBackUnprinted) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  TimeCollectorPool pool(out, 4, 1024, 1);
  TimeCollector* raw;
  {
    auto tc = pool.get(1);
    raw = tc.get();
    tc->stamp("weg", at(1));
  }
  auto again = pool.get(1);
  EXPECT_EQ(again.get(), raw);
  EXPECT_TRUE(again->getEntries().empty());
  EXPECT_EQ(buf.text(), "");
}

TEST(TimeCollectorPool, SurplusDumpsGoBackUnprinted) {
  CoutLocale keep;
  SyncBuf buf;
  std::ostream out(&buf);
  SyncBuf otherBuf;
  std::ostream otherOut(&otherBuf);
  // Collectors of a second pool fill the first one's queue beyond its own collectors. It is
  // built first so that it outlives the first pool's dump thread, which returns them.
  TimeCollectorPool other(otherOut, 1, 1024, 4);
  TimeCollectorPool pool(out, 1, 1024, 2);
  buf.hold();
  auto a = pool.get(1);
  a->stamp("a", at(1));
  pool.dump(std::move(a));
  ASSERT_TRUE(buf.waitBlocked());  // the thread holds a and cannot print
  auto b = pool.get(1);
  b->stamp("b", at(2));
  pool.dump(std::move(b));
  auto x = other.get(1);
  x->stamp("x", at(3));
  pool.dump(std::move(x));  // the queue of two is full now
  auto y = other.get(1);
  TimeCollector* yRaw = y.get();
  y->stamp("y", at(4));
  pool.dump(std::move(y));
  ASSERT_NE(y, nullptr);  // refused: still the caller's
  y.reset();              // back to its pool, unprinted
  auto again = other.get(1);
  EXPECT_EQ(again.get(), yRaw);
  again.reset();
  buf.release();
  ASSERT_TRUE(buf.waitFor("===== Insgesamt", 3));
  const std::string text = buf.text();
  EXPECT_NE(text.find("a: 1 ns"), std::string::npos);
  EXPECT_NE(text.find("b: 2 ns"), std::string::npos);
  EXPECT_NE(text.find("x: 3 ns"), std::string::npos);
  EXPECT_EQ(text.find("y: "), std::string::npos);
  EXPECT_EQ(otherBuf.text(), "");
}

TEST(TimeCollectorPool, DestructionPrintsWhatIsQueuedAndEnds) {
  auto r = runInChild([] {
    {
      TimeCollectorPool pool(std::cout, 4, 1024, 3);
      for (int i = 0; i < 3; ++i) {
        auto tc = pool.get(1);
        tc->stamp("n", at(1000000 * i));
        pool.dump(std::move(tc));
      }
    }
    std::cout << "fertig " << 1234567 << std::endl;
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "n   : 0 ns    (first +         0 ns)   (last +         0 ns)\n"
            "===== Insgesamt: 0 ns\n"
            "n   : 1 000 000 ns    (first +         0 ns)   (last +         0 ns)\n"
            "===== Insgesamt: 0 ns\n"
            "n   : 2 000 000 ns    (first +         0 ns)   (last +         0 ns)\n"
            "===== Insgesamt: 0 ns\n"
            "fertig 1 234 567\n");
}
