#include "Orvix/CppLimitedStateValueBuffer.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.hpp"

using util::LimitedStateValueBuffer;

namespace {

constexpr const char* kUnit = "Orvix/CppLimitedStateValueBuffer";

// Runs fn in a child and expects exactly the given assertion failure of this unit.
void expectAssertion(const std::function<void()>& fn, int line, const std::string& function,
                     const std::string& expr) {
  orvix_test::expectAssertion(fn, kUnit, line, function, expr);
}

// A record of n bytes derived from one number.
std::string record(int n, int seed) {
  std::string s(static_cast<std::size_t>(n), '\0');
  for (int i = 0; i < n; ++i) s[static_cast<std::size_t>(i)] = static_cast<char>(seed * 31 + i);
  return s;
}

std::vector<std::pair<int, std::string>> iterateAll(LimitedStateValueBuffer& b) {
  std::vector<std::pair<int, std::string>> out;
  b.startIteration();
  int pos = -1;
  char* values = nullptr;
  while (b.iterate(pos, values))
    out.emplace_back(pos, std::string(values, static_cast<std::size_t>(b.getBytesPerValueList())));
  return out;
}

std::vector<int> positions(LimitedStateValueBuffer& b) {
  std::vector<int> out;
  for (auto& e : iterateAll(b)) out.push_back(e.first);
  return out;
}

}  // namespace

TEST(LimitedStateValueBuffer, StartsEmpty) {
  LimitedStateValueBuffer b(4);
  EXPECT_EQ(b.getCount(), 0);
  EXPECT_EQ(b.nextPosIndex(), 0);
  EXPECT_EQ(b.nextValueOffset(), 0);
  for (int i = 0; i < LimitedStateValueBuffer::maxLists; ++i) EXPECT_EQ(b.posRing()[i], 0);
  EXPECT_TRUE(iterateAll(b).empty());
  int pos = 7;
  char* values = nullptr;
  EXPECT_FALSE(b.iterate(pos, values));  // no startIteration: cursor empty
  EXPECT_EQ(pos, 7);
}

TEST(LimitedStateValueBuffer, AddStoresRecordAndPositionTogether) {
  LimitedStateValueBuffer b(3);
  b.add(17, "abc", 3);
  b.add(4, "def", 3);
  EXPECT_EQ(b.getCount(), 2);
  EXPECT_EQ(b.nextPosIndex(), 2);
  EXPECT_EQ(b.nextValueOffset(), 6);
  auto all = iterateAll(b);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0], std::make_pair(17, std::string("abc")));
  EXPECT_EQ(all[1], std::make_pair(4, std::string("def")));
}

TEST(LimitedStateValueBuffer, SaturatesAt128AndDropsTheOldest) {
  LimitedStateValueBuffer b(5);
  for (int i = 0; i < 130; ++i) {
    const std::string r = record(5, i);
    b.add(i, r.data(), 5);
    EXPECT_EQ(b.getCount(), i + 1 > 128 ? 128 : i + 1);
  }
  EXPECT_EQ(b.nextPosIndex(), 2);
  EXPECT_EQ(b.nextValueOffset(), 10);
  auto all = iterateAll(b);
  ASSERT_EQ(all.size(), 128u);
  for (int i = 0; i < 128; ++i) {
    EXPECT_EQ(all[static_cast<std::size_t>(i)].first, i + 2);
    EXPECT_EQ(all[static_cast<std::size_t>(i)].second, record(5, i + 2));
  }
}

TEST(LimitedStateValueBuffer, ExactlyFullWrapsTheCursorsToTheStart) {
  LimitedStateValueBuffer b(2);
  for (int i = 0; i < 128; ++i) b.add(i, "xy", 2);
  EXPECT_EQ(b.getCount(), 128);
  EXPECT_EQ(b.nextPosIndex(), 0);
  EXPECT_EQ(b.nextValueOffset(), 0);
  auto p = positions(b);
  ASSERT_EQ(p.size(), 128u);
  EXPECT_EQ(p.front(), 0);
  EXPECT_EQ(p.back(), 127);
}

TEST(LimitedStateValueBuffer, IterationCanBeRestarted) {
  LimitedStateValueBuffer b(1);
  b.add(1, "a", 1);
  b.add(2, "b", 1);
  b.startIteration();
  int pos = 0;
  char* v = nullptr;
  ASSERT_TRUE(b.iterate(pos, v));
  EXPECT_EQ(pos, 1);
  EXPECT_EQ(positions(b), (std::vector<int>{1, 2}));
}

TEST(Overwritten, UnwrappedAppend) {
  // begin 5, end 9: 6..9 overwritten, 5 (just before the new text) survives.
  for (int pos = 0; pos < 20; ++pos)
    EXPECT_EQ(util::overwritten(5, 9, pos, 20), pos > 5 && pos <= 9) << pos;
}

TEST(Overwritten, WrappedAppend) {
  for (int pos = 0; pos < 20; ++pos) {
    const bool expected = pos == 19 || pos == 0 || pos == 1 || pos == 2;
    EXPECT_EQ(util::overwritten(18, 2, pos, 20), expected) << pos;
  }
  EXPECT_FALSE(util::overwritten(18, 2, 18, 20));
}

TEST(Overwritten, FullCircleAppendHitsEverything) {
  // begin == end: the append went once round the ring.
  for (int pos = 0; pos < 10; ++pos) EXPECT_TRUE(util::overwritten(4, 4, pos, 10)) << pos;
}

TEST(LimitedStateValueBuffer, RemoveOverwrittenDropsTheHitListAndAllOlder) {
  LimitedStateValueBuffer b(1);
  b.add(3, "a", 1);
  b.add(7, "b", 1);
  b.add(12, "c", 1);
  b.removeOverwritten(5, 9, 20);
  EXPECT_EQ(b.getCount(), 1);
  auto all = iterateAll(b);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0], std::make_pair(12, std::string("c")));
}

TEST(LimitedStateValueBuffer, RemoveOverwrittenKeepsAllWhenNoneIsHit) {
  LimitedStateValueBuffer b(1);
  b.add(3, "a", 1);
  b.add(5, "b", 1);  // at begin: survives
  b.add(12, "c", 1);
  b.removeOverwritten(5, 9, 20);
  EXPECT_EQ(b.getCount(), 3);
  EXPECT_EQ(positions(b), (std::vector<int>{3, 5, 12}));
}

TEST(LimitedStateValueBuffer, RemoveOverwrittenOfTheNewestEmptiesAll) {
  LimitedStateValueBuffer b(1);
  b.add(1, "a", 1);
  b.add(9, "b", 1);  // at end: dropped
  b.removeOverwritten(5, 9, 20);
  EXPECT_EQ(b.getCount(), 0);
  EXPECT_TRUE(positions(b).empty());
  b.removeOverwritten(5, 9, 20);  // empty: nothing happens
  EXPECT_EQ(b.getCount(), 0);
}

TEST(LimitedStateValueBuffer, RemoveOverwrittenAcrossTheRingSeam) {
  LimitedStateValueBuffer b(1);
  for (int i = 0; i < 127; ++i) b.add(0, "z", 1);
  b.add(10, "a", 1);
  b.add(11, "b", 1);  // newest sits in slot 0 after the wrap
  b.add(30, "c", 1);
  EXPECT_EQ(b.nextPosIndex(), 2);
  b.removeOverwritten(10, 11, 40);
  EXPECT_EQ(b.getCount(), 1);
  EXPECT_EQ(positions(b), (std::vector<int>{30}));
}

TEST(LimitedStateValueBuffer, CopyFromMakesAnExactCopy) {
  LimitedStateValueBuffer src(3);
  for (int i = 0; i < 140; ++i) {
    const std::string r = record(3, i);
    src.add(i * 2, r.data(), 3);
  }
  src.removeOverwritten(270, 274, 300);  // hits 274: 276 and 278 remain
  LimitedStateValueBuffer dst(3);
  dst.add(99, "qqq", 3);
  dst.startIteration();
  dst.copyFrom(src);
  int pos = 0;
  char* v = nullptr;
  EXPECT_FALSE(dst.iterate(pos, v));  // the cursor was reset
  EXPECT_EQ(dst.getCount(), src.getCount());
  EXPECT_EQ(dst.getCount(), 2);
  EXPECT_EQ(dst.nextPosIndex(), src.nextPosIndex());
  EXPECT_EQ(dst.nextValueOffset(), src.nextValueOffset());
  EXPECT_EQ(std::memcmp(dst.valueRing(), src.valueRing(), 3 * 128), 0);
  EXPECT_EQ(std::memcmp(dst.posRing(), src.posRing(), sizeof(int) * 128), 0);
  EXPECT_EQ(iterateAll(dst), iterateAll(src));
  EXPECT_EQ(positions(dst), (std::vector<int>{276, 278}));
}

// Reference model: a deque of (position, record), newest at the back.
TEST(LimitedStateValueBuffer, RandomizedAgainstModel) {
  std::mt19937 rng(20261122);
  for (int bytes : {1, 3, 8}) {
    LimitedStateValueBuffer b(bytes);
    LimitedStateValueBuffer copy(bytes);
    std::deque<std::pair<int, std::string>> model;
    for (int step = 0; step < 4000; ++step) {
      const int cycle = 1 + static_cast<int>(rng() % 64);
      const unsigned op = rng() % 10;
      if (op < 6) {
        const int pos = static_cast<int>(rng() % 64);
        const std::string r = record(bytes, static_cast<int>(rng() % 1000));
        b.add(pos, r.data(), bytes);
        model.emplace_back(pos, r);
        if (model.size() > 128) model.pop_front();
      } else if (op < 9) {
        const int begin = static_cast<int>(rng() % static_cast<unsigned>(cycle));
        const int end = static_cast<int>(rng() % static_cast<unsigned>(cycle));
        // Positions outside the cycle would trip the assertion; keep them inside.
        bool allInside = true;
        for (auto& e : model) allInside = allInside && e.first < cycle;
        if (!allInside) continue;
        b.removeOverwritten(begin, end, cycle);
        for (std::size_t i = model.size(); i-- > 0;) {
          const int pos = model[i].first;
          const bool hit = begin < end ? (begin < pos && pos <= end) : (pos > begin || pos <= end);
          if (hit) {
            model.erase(model.begin(), model.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            break;
          }
        }
      } else {
        copy.copyFrom(b);
        ASSERT_EQ(iterateAll(copy), iterateAll(b));
      }
      ASSERT_EQ(b.getCount(), static_cast<int>(model.size())) << "step " << step;
      const std::vector<std::pair<int, std::string>> expected(model.begin(), model.end());
      ASSERT_EQ(iterateAll(b), expected) << "step " << step;
    }
  }
}

TEST(LimitedStateValueBufferDeathTest, AddWithWrongRecordSize) {
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(4);
        b.add(0, "abc", 3);
      },
      90, "void util::LimitedStateValueBuffer::add(int, const char*, int)",
      "numBytes == bytesPerValueList");
}

TEST(LimitedStateValueBufferDeathTest, CopyFromDifferentRecordSize) {
  expectAssertion(
      [] {
        LimitedStateValueBuffer a(4);
        LimitedStateValueBuffer b(5);
        a.copyFrom(b);
      },
      117, "void util::LimitedStateValueBuffer::copyFrom(const util::LimitedStateValueBuffer&)",
      "src.bytesPerValueList == this->bytesPerValueList");
}

TEST(OverwrittenDeathTest, PositionsOutsideTheCycle) {
  const std::string f = "bool util::overwritten(int, int, int, int)";
  expectAssertion([] { util::overwritten(0, 1, 10, 10); }, 183, f, "0 <= pos && pos < cycleLen");
  expectAssertion([] { util::overwritten(0, 1, -1, 10); }, 183, f, "0 <= pos && pos < cycleLen");
  expectAssertion([] { util::overwritten(10, 1, 0, 10); }, 184, f,
                  "0 <= begin && begin < cycleLen");
  expectAssertion([] { util::overwritten(-1, 1, 0, 10); }, 184, f,
                  "0 <= begin && begin < cycleLen");
  expectAssertion([] { util::overwritten(0, 10, 0, 10); }, 185, f, "0 <= end && end < cycleLen");
  expectAssertion([] { util::overwritten(0, -1, 0, 10); }, 185, f, "0 <= end && end < cycleLen");
}

TEST(LimitedStateValueBufferDeathTest, RemoveOverwrittenWithAPositionOutsideTheCycle) {
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(1);
        b.add(25, "a", 1);
        b.removeOverwritten(1, 2, 20);
      },
      183, "bool util::overwritten(int, int, int, int)", "0 <= pos && pos < cycleLen");
}

TEST(LimitedStateValueBufferDeathTest, RingStepsOutsideTheirRings) {
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(2);
        int outside = 0;
        int* p = &outside;
        b.posStepBack(&p);
      },
      133, "void util::LimitedStateValueBuffer::posStepBack(int**)",
      "posBuf <= *ppos && *ppos < posBufEnd");
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(2);
        int outside = 0;
        int* p = &outside;
        b.posStepForward(&p);
      },
      145, "void util::LimitedStateValueBuffer::posStepForward(int**)",
      "posBuf <= *ppos && *ppos < posBufEnd");
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(2);
        char outside = 0;
        char* p = &outside;
        b.valueStepBack(&p);
      },
      157, "void util::LimitedStateValueBuffer::valueStepBack(char**)",
      "valueBuf <= *pvalue && *pvalue < valueBufEnd");
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(2);
        char outside = 0;
        char* p = &outside;
        b.valueStepForward(&p);
      },
      169, "void util::LimitedStateValueBuffer::valueStepForward(char**)",
      "valueBuf <= *pvalue && *pvalue < valueBufEnd");
}

// A cursor off the record grid leaves the ring on its step: the check after the step (the text
// without the blank) catches it.
TEST(LimitedStateValueBufferDeathTest, ValueStepsOffTheRecordGrid) {
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(4);
        char* p = const_cast<char*>(b.valueRing()) + 1;
        b.valueStepBack(&p);
      },
      165, "void util::LimitedStateValueBuffer::valueStepBack(char**)",
      "valueBuf <= *pvalue && *pvalue <valueBufEnd");
  expectAssertion(
      [] {
        LimitedStateValueBuffer b(4);
        char* p = const_cast<char*>(b.valueRing()) + 4 * 128 - 3;
        b.valueStepForward(&p);
      },
      177, "void util::LimitedStateValueBuffer::valueStepForward(char**)",
      "valueBuf <= *pvalue && *pvalue <valueBufEnd");
}

TEST(LimitedStateValueBuffer, RingStepsWrap) {
  LimitedStateValueBuffer b(4);
  int* p = const_cast<int*>(b.posRing());
  b.posStepBack(&p);
  EXPECT_EQ(p, b.posRing() + 127);
  b.posStepForward(&p);
  EXPECT_EQ(p, b.posRing());
  char* v = const_cast<char*>(b.valueRing());
  b.valueStepBack(&v);
  EXPECT_EQ(v, b.valueRing() + 4 * 127);
  b.valueStepForward(&v);
  EXPECT_EQ(v, b.valueRing());
  b.valueStepForward(&v);
  EXPECT_EQ(v, b.valueRing() + 4);
}
