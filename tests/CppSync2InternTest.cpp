#include "Orvix/CppSync2Intern.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestSupport.hpp"

using orvix::sync::Guard;
using orvix::sync::LockGroup;
using orvix::sync2::intern::Element;
using orvix::sync2::intern::Fifo;
using orvix::sync2::intern::Pool;
using orvix::sync2::intern::PoolAccess;
using orvix_test::runInChild;

namespace {

constexpr const char* kUnit = "Orvix/CppSync2Intern";

struct Item : Element {
  explicit Item(Pool* p, int id) : Element(p), id(id) {}
  int id;
};

// Records every take-back: which guard, which element.
class RecordingPool : public Pool {
 public:
  void takeBack(Guard& g, Element* e) override {
    guards.push_back(&g);
    back.push_back(static_cast<Item*>(e)->id);
  }
  std::vector<Guard*> guards;
  std::vector<int> back;
};

std::vector<int> ids(const Fifo& f) {
  std::vector<int> out;
  for (Element* e = f.head; e; e = e->next) out.push_back(static_cast<Item*>(e)->id);
  return out;
}

int tailId(const Fifo& f) { return f.tail ? static_cast<Item*>(f.tail)->id : -1; }

// Guards here are held for the whole test; the quiet clock keeps their reports out of it.
class Sync2Test : public ::testing::Test {
 protected:
  void SetUp() override {
    orvix::sync::intern::gl_wallClockNow = [] { return int64_t{0}; };
    for (int i = 0; i < 10; ++i) items.push_back(std::make_unique<Item>(&pool, i));
  }
  void TearDown() override {
    orvix::sync::intern::gl_wallClockNow = &orvix::sync::intern::systemClockNow;
  }
  Item* item(int i) { return items[static_cast<std::size_t>(i)].get(); }
  void fill(Fifo& f, std::vector<int> which) {
    for (int i : which) f.pushBack(item(i));
  }

  RecordingPool pool;
  std::vector<std::unique_ptr<Item>> items;
  LockGroup group;
};

// The same set-up for the tests whose child process ends.
class Sync2DeathTest : public Sync2Test {};

// Runs fn in a child and expects exactly the given assertion failure of this unit.
void expectAssertion(const std::function<void()>& fn, int line, const std::string& function,
                     const std::string& expr) {
  orvix_test::expectAssertion(fn, kUnit, line, function, expr);
}

}  // namespace

TEST_F(Sync2Test, EmptyFifo) {
  Fifo f;
  EXPECT_EQ(f.head, nullptr);
  EXPECT_EQ(f.tail, nullptr);
  EXPECT_TRUE(f.dbgInvariant());
  EXPECT_EQ(f.popFront(), nullptr);
  EXPECT_EQ(f.head, nullptr);
  EXPECT_EQ(f.tail, nullptr);
}

TEST_F(Sync2Test, PushBackAndPopFrontKeepOrder) {
  Fifo f;
  f.pushBack(item(0));
  EXPECT_EQ(f.head, item(0));
  EXPECT_EQ(f.tail, item(0));
  f.pushBack(item(1));
  f.pushBack(item(2));
  EXPECT_EQ(ids(f), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(tailId(f), 2);
  Element* e = f.popFront();
  EXPECT_EQ(e, item(0));
  EXPECT_EQ(e->next, nullptr);
  EXPECT_EQ(f.popFront(), item(1));
  EXPECT_EQ(f.head, item(2));
  EXPECT_EQ(f.tail, item(2));
  EXPECT_EQ(f.popFront(), item(2));
  EXPECT_EQ(item(2)->next, nullptr);
  EXPECT_EQ(f.head, nullptr);
  EXPECT_EQ(f.tail, nullptr);
  f.pushBack(item(1));  // unlinked again: may be pushed anew
  EXPECT_EQ(ids(f), (std::vector<int>{1}));
}

TEST_F(Sync2DeathTest, PushBackOfALinkedElementAborts) {
  expectAssertion(
      [this] {
        Fifo f;
        item(0)->next = item(1);
        f.pushBack(item(0));
      },
      66, "void orvix::sync2::intern::Fifo::pushBack(orvix::sync2::intern::Element*)", "!e->next");
}

TEST_F(Sync2Test, MoveWholeFifoToEmptyTarget) {
  Fifo src, dst;
  fill(src, {0, 1, 2, 3});
  src.moveRange(nullptr, src.tail, dst, nullptr);
  EXPECT_EQ(src.head, nullptr);
  EXPECT_EQ(src.tail, nullptr);
  EXPECT_EQ(ids(dst), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(tailId(dst), 3);
  EXPECT_TRUE(dst.dbgInvariant());
}

TEST_F(Sync2Test, MoveLastPartMakesBeforeFromTheTail) {
  Fifo src, dst;
  fill(src, {0, 1, 2, 3, 4});
  src.moveRange(item(1), item(4), dst, nullptr);
  EXPECT_EQ(ids(src), (std::vector<int>{0, 1}));
  EXPECT_EQ(src.tail, item(1));
  EXPECT_EQ(item(1)->next, nullptr);
  EXPECT_EQ(ids(dst), (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(tailId(dst), 4);
}

TEST_F(Sync2Test, MoveFirstPartToTheFrontOfATarget) {
  Fifo src, dst;
  fill(src, {0, 1, 2, 3});
  fill(dst, {7, 8});
  src.moveRange(nullptr, item(1), dst, nullptr);
  EXPECT_EQ(ids(src), (std::vector<int>{2, 3}));
  EXPECT_EQ(src.head, item(2));
  EXPECT_EQ(tailId(src), 3);
  EXPECT_EQ(ids(dst), (std::vector<int>{0, 1, 7, 8}));
  EXPECT_EQ(tailId(dst), 8);
}

TEST_F(Sync2Test, MoveMiddleBehindTheTargetsTail) {
  Fifo src, dst;
  fill(src, {0, 1, 2, 3, 4});
  fill(dst, {7, 8});
  src.moveRange(item(0), item(2), dst, item(8));
  EXPECT_EQ(ids(src), (std::vector<int>{0, 3, 4}));
  EXPECT_EQ(tailId(src), 4);
  EXPECT_EQ(ids(dst), (std::vector<int>{7, 8, 1, 2}));
  EXPECT_EQ(tailId(dst), 2);
}

TEST_F(Sync2Test, MoveSingleElementIntoTheMiddleOfATarget) {
  Fifo src, dst;
  fill(src, {0, 1});
  fill(dst, {7, 8, 9});
  src.moveRange(nullptr, item(0), dst, item(7));
  EXPECT_EQ(ids(src), (std::vector<int>{1}));
  EXPECT_EQ(tailId(src), 1);
  EXPECT_EQ(ids(dst), (std::vector<int>{7, 0, 8, 9}));
  EXPECT_EQ(tailId(dst), 9);
}

TEST_F(Sync2Test, MoveWithinOneFifo) {
  Fifo f;
  fill(f, {0, 1, 2, 3, 4});
  f.moveRange(item(0), item(2), f, item(4));  // 1..2 behind the tail
  EXPECT_EQ(ids(f), (std::vector<int>{0, 3, 4, 1, 2}));
  EXPECT_EQ(tailId(f), 2);
  f.moveRange(item(4), item(2), f, nullptr);  // the last two to the front
  EXPECT_EQ(ids(f), (std::vector<int>{1, 2, 0, 3, 4}));
  EXPECT_EQ(tailId(f), 4);
}

TEST_F(Sync2DeathTest, MoveRangeNeedsItsLastElement) {
  expectAssertion(
      [this] {
        Fifo src, dst;
        fill(src, {0});
        src.moveRange(nullptr, nullptr, dst, nullptr);
      },
      119,
      "void orvix::sync2::intern::Fifo::moveRange(orvix::sync2::intern::Element*, "
      "orvix::sync2::intern::Element*, orvix::sync2::intern::Fifo&, "
      "orvix::sync2::intern::Element*)",
      "fromUntilThis");
}

TEST_F(Sync2DeathTest, MoveRangeChecksTheSourceOnly) {
  // A source whose tail was lost: after the move head is set and tail is not.
  expectAssertion(
      [this] {
        Fifo src, dst;
        fill(src, {0, 1});
        src.tail = nullptr;
        src.moveRange(nullptr, item(0), dst, nullptr);
      },
      182,
      "void orvix::sync2::intern::Fifo::moveRange(orvix::sync2::intern::Element*, "
      "orvix::sync2::intern::Element*, orvix::sync2::intern::Fifo&, "
      "orvix::sync2::intern::Element*)",
      "dbgInvariant()");
  // A broken target is not looked at.
  Fifo src, dst;
  fill(src, {0});
  dst.head = nullptr;
  dst.tail = item(9);
  src.moveRange(nullptr, item(0), dst, item(9));
  EXPECT_EQ(item(9)->next, item(0));
  EXPECT_EQ(dst.tail, item(0));
  EXPECT_EQ(dst.head, nullptr);
  EXPECT_FALSE(dst.dbgInvariant());
}

TEST_F(Sync2DeathTest, PopFrontChecksTheFifo) {
  expectAssertion(
      [this] {
        Fifo f;
        fill(f, {0, 1});
        f.tail = nullptr;
        f.popFront();
      },
      99, "orvix::sync2::intern::Element* orvix::sync2::intern::Fifo::popFront()",
      "dbgInvariant()");
}

TEST_F(Sync2Test, AllBackToPoolsReturnsFrontFirstWithTheGuard) {
  RecordingPool other;
  Item foreign(&other, 42);
  Fifo f;
  fill(f, {3, 1});
  f.pushBack(&foreign);
  f.pushBack(item(2));
  Guard g(group, "t.cpp", 1);
  f.allBackToPools(g);
  EXPECT_EQ(f.head, nullptr);
  EXPECT_EQ(f.tail, nullptr);
  EXPECT_EQ(pool.back, (std::vector<int>{3, 1, 2}));
  EXPECT_EQ(other.back, (std::vector<int>{42}));
  for (Guard* seen : pool.guards) EXPECT_EQ(seen, &g);
  EXPECT_EQ(other.guards, (std::vector<Guard*>{&g}));
  for (int i : {1, 2, 3}) EXPECT_EQ(item(i)->next, nullptr);
  Fifo empty;
  empty.allBackToPools(g);
  EXPECT_EQ(pool.back.size(), 3u);
}

TEST_F(Sync2DeathTest, GoBackToPoolNeedsAPool) {
  expectAssertion(
      [this] {
        Guard g(group, "t.cpp", 1);
        Item orphan(nullptr, 5);
        orphan.goBackToPool(g);
      },
      187, "void orvix::sync2::intern::Element::goBackToPool(orvix::sync::Guard&)", "pool");
}

TEST_F(Sync2Test, PoolAccessReturnsItsElement) {
  Guard g(group, "t.cpp", 1);
  { PoolAccess a(g, item(4)); EXPECT_EQ(a.get(), item(4)); }
  EXPECT_EQ(pool.back, (std::vector<int>{4}));
  EXPECT_EQ(pool.guards, (std::vector<Guard*>{&g}));
  { PoolAccess empty(g, nullptr); }
  EXPECT_EQ(pool.back.size(), 1u);
}

TEST_F(Sync2Test, MovedFromPoolAccessReturnsNothing) {
  Guard g(group, "t.cpp", 1);
  {
    PoolAccess a(g, item(1));
    {
      PoolAccess b(std::move(a));
      EXPECT_EQ(a.get(), nullptr);
      EXPECT_EQ(b.get(), item(1));
    }
    EXPECT_EQ(pool.back, (std::vector<int>{1}));
  }
  EXPECT_EQ(pool.back, (std::vector<int>{1}));
}

TEST_F(Sync2Test, PoolAccessAssignmentSwapsOnlyTheElements) {
  LockGroup second;
  Guard g1(group, "t.cpp", 1);
  Guard g2(second, "t.cpp", 2);
  {
    PoolAccess a(g1, item(1));
    {
      PoolAccess b(g2, item(2));
      a = std::move(b);
      EXPECT_EQ(a.get(), item(2));
      EXPECT_EQ(b.get(), item(1));
    }
    // b went with its own guard and the element it received.
    EXPECT_EQ(pool.back, (std::vector<int>{1}));
    EXPECT_EQ(pool.guards, (std::vector<Guard*>{&g2}));
  }
  EXPECT_EQ(pool.back, (std::vector<int>{1, 2}));
  EXPECT_EQ(pool.guards, (std::vector<Guard*>{&g2, &g1}));
}

TEST_F(Sync2DeathTest, ExceptionWhileReturningEndsTheProcess) {
  auto r = runInChild([this] {
    struct ThrowingPool : Pool {
      void takeBack(Guard&, Element*) override { throw std::runtime_error("no"); }
    } throwing;
    Item e(&throwing, 1);
    Guard g(group, "t.cpp", 1);
    PoolAccess a(g, &e);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_NE(r.err.find("terminate called after throwing an instance of 'std::runtime_error'"),
            std::string::npos)
      << r.err;
}

// Three fifos against std::list models; every change is compared in order, with tails.
TEST_F(Sync2Test, RandomizedAgainstListModel) {
  std::mt19937 rng(2505);
  constexpr int kItems = 40;
  std::vector<std::unique_ptr<Item>> all;
  for (int i = 0; i < kItems; ++i) all.push_back(std::make_unique<Item>(&pool, 100 + i));
  Fifo fifos[3];
  std::list<int> models[3];
  std::vector<int> free;
  for (int i = 0; i < kItems; ++i) free.push_back(i);
  auto el = [&](int i) { return all[static_cast<std::size_t>(i)].get(); };
  auto at = [&](std::list<int>& l, std::size_t k) { return *std::next(l.begin(), static_cast<std::ptrdiff_t>(k)); };
  Guard g(group, "t.cpp", 1);
  for (int step = 0; step < 5000; ++step) {
    const unsigned op = rng() % 10;
    const int f = static_cast<int>(rng() % 3);
    std::list<int>& m = models[f];
    if (op < 4) {
      if (free.empty()) continue;
      const std::size_t k = rng() % free.size();
      const int i = free[k];
      free.erase(free.begin() + static_cast<std::ptrdiff_t>(k));
      fifos[f].pushBack(el(i));
      m.push_back(i);
    } else if (op < 6) {
      Element* e = fifos[f].popFront();
      if (m.empty()) {
        ASSERT_EQ(e, nullptr);
      } else {
        ASSERT_EQ(e, el(m.front()));
        ASSERT_EQ(e->next, nullptr);
        free.push_back(m.front());
        m.pop_front();
      }
    } else if (op < 9) {
      if (m.empty()) continue;
      const std::size_t from = rng() % m.size();
      const std::size_t until = from + rng() % (m.size() - from);
      const int t = static_cast<int>(rng() % 3);
      std::list<int>& tm = models[t];
      Element* beforeFrom = from == 0 ? nullptr : el(at(m, from - 1));
      auto firstIt = std::next(m.begin(), static_cast<std::ptrdiff_t>(from));
      auto endIt = std::next(m.begin(), static_cast<std::ptrdiff_t>(until + 1));
      // Where in the target: front or behind one of its elements outside the moved range.
      std::vector<int> candidates;
      for (auto it = tm.begin(); it != tm.end(); ++it) {
        const bool inRange = t == f && std::find(firstIt, endIt, *it) != endIt;
        if (!inRange) candidates.push_back(*it);
      }
      const std::size_t pick = rng() % (candidates.size() + 1);
      Element* afterThis = pick == candidates.size() ? nullptr : el(candidates[pick]);
      fifos[f].moveRange(beforeFrom, el(at(m, until)), fifos[t], afterThis);
      std::list<int> moved;
      moved.splice(moved.begin(), m, firstIt, endIt);
      auto where = afterThis ? std::next(std::find(tm.begin(), tm.end(), candidates[pick]))
                             : tm.begin();
      tm.splice(where, moved);
    } else {
      fifos[f].allBackToPools(g);
      for (int i : m) free.push_back(i);
      m.clear();
    }
    for (int k = 0; k < 3; ++k) {
      ASSERT_TRUE(fifos[k].dbgInvariant()) << "step " << step;
      std::vector<int> expected;
      for (int i : models[k]) expected.push_back(100 + i);
      ASSERT_EQ(ids(fifos[k]), expected) << "fifo " << k << " step " << step;
      ASSERT_EQ(tailId(fifos[k]), models[k].empty() ? -1 : 100 + models[k].back())
          << "fifo " << k << " step " << step;
    }
  }
  // Everything that went back to the pool came through allBackToPools with this guard.
  for (Guard* seen : pool.guards) ASSERT_EQ(seen, &g);
}
