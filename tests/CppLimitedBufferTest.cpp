#include "Orvix/CppLimitedBuffer.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TestSupport.hpp"
#include "models/LimitedBufferModel.hpp"

using orvix_test::assertionLine;
using orvix_test::runInChild;
using util::LimitedBuffer;

namespace {

constexpr const char* kUnit = "Orvix/CppLimitedBuffer";
const std::string kHeader = orvix_model::LimitedBufferModel::kHeader;
const std::string kFooter = orvix_model::LimitedBufferModel::kFooter;

// Renders a list as <hex bytes>.
void hexFormat(std::ostream& os, const char* values) {
  char text[8];
  std::snprintf(text, sizeof text, "<%02x%02x>", static_cast<unsigned char>(values[0]),
                static_cast<unsigned char>(values[1]));
  os << text;
}

std::string printed(LimitedBuffer& lb) {
  std::ostringstream os;
  lb.print(os);
  return os.str();
}

// The valid text, oldest first, read straight from the ring.
std::string content(LimitedBuffer& lb) {
  std::ostringstream os;
  lb.readPart(lb.walk(lb.writePos(), -static_cast<ptrdiff_t>(lb.validSize())), lb.validSize(), os);
  return os.str();
}

// Runs fn in a child and expects exactly the given assertion failure of this unit.
void expectAssertion(const std::function<void()>& fn, int line, const std::string& function,
                     const std::string& expr) {
  orvix_test::expectAssertion(fn, kUnit, line, function, expr);
}

// Every test but the one that checks the load state runs with the switch on.
class LimitedBufferTest : public ::testing::Test {
 protected:
  void SetUp() override { LimitedBuffer::setEnabled(true); }
  void TearDown() override { LimitedBuffer::setEnabled(false); }
};

}  // namespace

TEST(LimitedBufferLoad, SwitchIsOffAndGlobalBufferEmpty) {
  EXPECT_FALSE(LimitedBuffer::isEnabled());
  EXPECT_FALSE(util::gl_pWendelLimitedBuffer);
  LimitedBuffer::setEnabled(true);
  EXPECT_TRUE(LimitedBuffer::isEnabled());
  LimitedBuffer::setEnabled(false);
  EXPECT_FALSE(LimitedBuffer::isEnabled());
}

TEST_F(LimitedBufferTest, ConstructionState) {
  LimitedBuffer lb(16, 2, hexFormat);
  EXPECT_EQ(lb.ringEnd() - lb.ringBegin(), 16);
  EXPECT_EQ(lb.writePos(), lb.ringBegin());
  EXPECT_EQ(lb.validSize(), 0u);
  EXPECT_EQ(lb.stateValueLists().getBytesPerValueList(), 2);
  EXPECT_EQ(lb.stateValueLists().getCount(), 0);
}

TEST_F(LimitedBufferTest, OverwritesTheOldestBytesExactly) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("abcdefgh", 8);
  EXPECT_EQ(lb.writePos() - lb.ringBegin(), 8);
  EXPECT_EQ(lb.validSize(), 8u);
  lb.add("XYZ", 3);
  EXPECT_EQ(lb.writePos() - lb.ringBegin(), 1);
  EXPECT_EQ(lb.validSize(), 10u);
  EXPECT_EQ(content(lb), "bcdefghXYZ");
  EXPECT_EQ(std::string(lb.ringBegin(), 10), "ZbcdefghXY");
  EXPECT_EQ(printed(lb), kHeader + "bcdefghXYZ" + kFooter);
}

TEST_F(LimitedBufferTest, PieceEndingExactlyAtTheRingEndWrapsNextToBegin) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("abcdef", 6);
  lb.add("ghij", 4);
  EXPECT_EQ(lb.writePos(), lb.ringBegin());
  EXPECT_EQ(lb.validSize(), 10u);
  EXPECT_EQ(printed(lb), kHeader + "abcdefghij" + kFooter);
}

TEST_F(LimitedBufferTest, NoSeparatorsBetweenPieces) {
  LimitedBuffer lb(64, 2, hexFormat);
  lb.add("one", 3);
  lb.add("two\n", 4);
  lb.addf("%d-%s", 3, "x");
  EXPECT_EQ(printed(lb), kHeader + "onetwo\n3-x" + kFooter);
}

TEST_F(LimitedBufferTest, PieceOneByteShorterThanTheRingIsAccepted) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("0", 1);
  lb.add("abcdefghi", 9);
  EXPECT_EQ(lb.writePos(), lb.ringBegin());
  EXPECT_EQ(content(lb), "0abcdefghi");
  lb.add("123456789", 9);
  EXPECT_EQ(content(lb), "i123456789");
}

TEST(LimitedBufferDeathTest, PieceAsLongAsTheRing) {
  expectAssertion(
      [] {
        LimitedBuffer::setEnabled(true);
        LimitedBuffer lb(10, 2, hexFormat);
        lb.add("abcdefghij", 10);
      },
      125, "void util::LimitedBuffer::internAdd(const char*, std::size_t, L&)",
      "(ptrdiff_t)len < (end - begin)");
}

TEST_F(LimitedBufferTest, AddfIsCutAt511Characters) {
  LimitedBuffer lb(2000, 2, hexFormat);
  const std::string long600(600, 'x');
  lb.addf("%s|", long600.c_str());
  EXPECT_EQ(lb.validSize(), 511u);
  EXPECT_EQ(content(lb), std::string(511, 'x'));
  lb.addf("%s", std::string(511, 'y').c_str());
  EXPECT_EQ(lb.validSize(), 1022u);
  lb.addf("%s", std::string(510, 'z').c_str());
  EXPECT_EQ(lb.validSize(), 1532u);
  EXPECT_EQ(content(lb), std::string(511, 'x') + std::string(511, 'y') + std::string(510, 'z'));
}

TEST_F(LimitedBufferTest, AddfOfAnEmptyLineIsAnEmptyAppend) {
  LimitedBuffer lb(20, 2, hexFormat);
  lb.add("ab", 2);
  lb.addStateValueList("\x01\x02", 2);
  lb.addf("%s", "");
  EXPECT_EQ(lb.validSize(), 2u);
  // An empty append counts as a full circle for the lists, so it drops them all.
  EXPECT_EQ(lb.stateValueLists().getCount(), 0);
  EXPECT_EQ(printed(lb), kHeader + "ab" + kFooter);
}

TEST(LimitedBufferSwitch, OffMeansNoStorageAndNoOutput) {
  LimitedBuffer::setEnabled(false);
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("abc", 3);
  lb.addf("%s", "def");
  lb.addStateValueList("\x01\x02", 2);
  EXPECT_EQ(lb.writePos(), lb.ringBegin());
  EXPECT_EQ(lb.validSize(), 0u);
  EXPECT_EQ(lb.stateValueLists().getCount(), 0);
  EXPECT_EQ(printed(lb), "");
  std::ostringstream os;
  EXPECT_EQ(&(os << lb), &os);
  EXPECT_EQ(os.str(), "");

  LimitedBuffer::setEnabled(true);
  lb.add("abc", 3);
  LimitedBuffer::setEnabled(false);
  EXPECT_EQ(printed(lb), "");
  LimitedBuffer::setEnabled(true);
  EXPECT_EQ(printed(lb), kHeader + "abc" + kFooter);
  LimitedBuffer::setEnabled(false);
}

TEST_F(LimitedBufferTest, EmptyBufferPrintsOnlyTheFrame) {
  LimitedBuffer lb(10, 2, hexFormat);
  EXPECT_EQ(printed(lb), kHeader + kFooter);
}

TEST_F(LimitedBufferTest, StreamOperatorPrintsAndReturnsTheStream) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("hi", 2);
  std::ostringstream os;
  os << lb << "after";
  EXPECT_EQ(os.str(), kHeader + "hi" + kFooter + "after");
}

TEST_F(LimitedBufferTest, StateValueListIsPrintedWhereItWasRecorded) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("abcd", 4);
  lb.addStateValueList("\x12\x34", 2);
  EXPECT_EQ(lb.stateValueLists().getCount(), 1);
  lb.add("efgh", 4);
  EXPECT_EQ(printed(lb), kHeader + "abcd<1234>efgh" + kFooter);
  // Wrapping: the list's text survives while the oldest bytes go.
  lb.add("ij", 2);
  EXPECT_EQ(printed(lb), kHeader + "abcd<1234>efghij" + kFooter);
  lb.add("k", 1);
  EXPECT_EQ(printed(lb), kHeader + "bcd<1234>efghijk" + kFooter);
  // Overwriting the byte just before the list (offset 3) drops it, though "e" survives.
  lb.add("lmn", 3);
  EXPECT_EQ(lb.stateValueLists().getCount(), 0);
  EXPECT_EQ(printed(lb), kHeader + "efghijklmn" + kFooter);
}

TEST_F(LimitedBufferTest, ListsAtTheStartTheEndAndTogether) {
  LimitedBuffer lb(12, 2, hexFormat);
  lb.addStateValueList("\x00\x01", 2);
  EXPECT_EQ(printed(lb), kHeader + "<0001>" + kFooter);
  lb.add("ab", 2);
  lb.addStateValueList("\x00\x02", 2);
  lb.addStateValueList("\x00\x03", 2);
  EXPECT_EQ(printed(lb), kHeader + "<0001>ab<0002><0003>" + kFooter);
  lb.add("cdefghijk", 9);  // ends one short of the ring end
  // Exactly full: next is back at offset 0, which the append's end covers, so the list recorded
  // there goes; the two at offset 2 stay.
  lb.add("l", 1);
  EXPECT_EQ(lb.writePos(), lb.ringBegin());
  EXPECT_EQ(lb.stateValueLists().getCount(), 2);
  EXPECT_EQ(printed(lb), kHeader + "ab<0002><0003>cdefghijkl" + kFooter);
  // A list at the write position sits behind all of the text.
  lb.add("m", 1);
  lb.addStateValueList("\x00\x04", 2);
  EXPECT_EQ(lb.stateValueLists().getCount(), 3);
  EXPECT_EQ(printed(lb), kHeader + "b<0002><0003>cdefghijklm<0004>" + kFooter);
}

TEST_F(LimitedBufferTest, ListAtTheWritePositionOfAFullRing) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("abcdefghi", 9);
  lb.add("j", 1);
  lb.addStateValueList("\xab\xcd", 2);
  EXPECT_EQ(printed(lb), kHeader + "abcdefghij<abcd>" + kFooter);
  lb.addStateValueList("\xef\x01", 2);
  EXPECT_EQ(printed(lb), kHeader + "abcdefghij<abcd><ef01>" + kFooter);
}

TEST_F(LimitedBufferTest, DiffAndWalk) {
  LimitedBuffer lb(10, 2, hexFormat);
  char* b = lb.ringBegin();
  EXPECT_EQ(lb.diff(b + 3, b + 3), 10u);
  EXPECT_EQ(lb.diff(b, b), 10u);
  EXPECT_EQ(lb.diff(b + 2, b + 7), 5u);
  EXPECT_EQ(lb.diff(b + 7, b + 2), 5u);
  EXPECT_EQ(lb.diff(b + 9, b), 1u);
  EXPECT_EQ(lb.walk(b + 3, 0), b + 3);
  EXPECT_EQ(lb.walk(b + 3, 6), b + 9);
  EXPECT_EQ(lb.walk(b + 3, 7), b);
  EXPECT_EQ(lb.walk(b + 3, -3), b);
  EXPECT_EQ(lb.walk(b + 3, -4), b + 9);
  EXPECT_EQ(lb.walk(b + 3, -10), b + 3);
  EXPECT_EQ(lb.walk(b + 3, -23), b);
  EXPECT_EQ(lb.walk(b + 3, 25), b + 8);
}

TEST_F(LimitedBufferTest, ReadPartWraps) {
  LimitedBuffer lb(10, 2, hexFormat);
  lb.add("abcdefghi", 9);
  lb.add("XYZ", 3);
  char* b = lb.ringBegin();
  std::ostringstream os;
  lb.readPart(b + 7, 5, os);
  EXPECT_EQ(os.str(), "hiXYZ");
  std::ostringstream all;
  lb.readPart(b + 2, 10, all);
  EXPECT_EQ(all.str(), "cdefghiXYZ");
  std::ostringstream none;
  lb.readPart(b + 9, 0, none);
  EXPECT_EQ(none.str(), "");
}

TEST(LimitedBufferDeathTest, ConstructorChecks) {
  const std::string ctor =
      "util::LimitedBuffer::LimitedBuffer(std::size_t, int, "
      "std::function<void(std::basic_ostream<char>&, const char*)>)";
  expectAssertion([] { LimitedBuffer lb(10, 2, nullptr); }, 57, ctor, "formatStateValueList");
  expectAssertion([] { LimitedBuffer lb(0, 2, hexFormat); }, 156,
                  "void util::LimitedBuffer::checkInvariants() const", "begin < end");
}

TEST(LimitedBufferDeathTest, PositionsOutsideTheRing) {
  expectAssertion(
      [] {
        LimitedBuffer lb(10, 2, hexFormat);
        lb.diff(lb.ringEnd(), lb.ringBegin());
      },
      165, "std::size_t util::LimitedBuffer::diff(char*, char*) const", "begin <= a && a < end");
  expectAssertion(
      [] {
        LimitedBuffer lb(10, 2, hexFormat);
        lb.diff(lb.ringBegin(), lb.ringBegin() - 1);
      },
      166, "std::size_t util::LimitedBuffer::diff(char*, char*) const", "begin <= b && b < end");
  expectAssertion(
      [] {
        LimitedBuffer lb(10, 2, hexFormat);
        lb.walk(lb.ringEnd(), 1);
      },
      171, "char* util::LimitedBuffer::walk(char*, ptrdiff_t) const", "begin <= a && a < end");
  expectAssertion(
      [] {
        LimitedBuffer lb(10, 2, hexFormat);
        std::ostringstream os;
        lb.readPart(lb.ringEnd(), 1, os);
      },
      355, "void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)",
      "begin <= partBegin && partBegin < end");
  expectAssertion(
      [] {
        LimitedBuffer lb(10, 2, hexFormat);
        std::ostringstream os;
        lb.readPart(lb.ringBegin(), 11, os);
      },
      356, "void util::LimitedBuffer::readPart(char*, std::size_t, std::ostream&)",
      "(ptrdiff_t)partSize <= (end - begin)");
}

TEST(LimitedBufferDeathTest, StateValueListOfTheWrongSize) {
  auto r = runInChild([] {
    LimitedBuffer::setEnabled(true);
    LimitedBuffer lb(10, 2, hexFormat);
    lb.addStateValueList("abc", 3);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.err, assertionLine("Orvix/CppLimitedStateValueBuffer", 90,
                                 "void util::LimitedStateValueBuffer::add(int, const char*, int)",
                                 "numBytes == bytesPerValueList"));
}

// Against the history model of models/LimitedBufferModel.hpp.
TEST_F(LimitedBufferTest, RandomizedAgainstHistoryModel) {
  std::mt19937 rng(61122);
  for (std::size_t cap : {7u, 16u, 61u}) {
    LimitedBuffer lb(cap, 2, hexFormat);
    orvix_model::LimitedBufferModel model(cap);
    for (int step = 0; step < 3000; ++step) {
      const unsigned op = rng() % 10;
      if (op < 6) {
        const std::size_t len = rng() % cap;  // empty pieces included
        std::string piece;
        for (std::size_t i = 0; i < len; ++i) piece += static_cast<char>('a' + rng() % 26);
        model.add(piece);
        if (op < 4)
          lb.add(piece.data(), piece.size());
        else
          lb.addf("%s", piece.c_str());
      } else if (op < 9) {
        std::string rec{static_cast<char>(rng() % 256), static_cast<char>(rng() % 256)};
        lb.addStateValueList(rec.data(), 2);
        model.addList(rec);
      } else {
        ASSERT_EQ(printed(lb), model.printed(hexFormat)) << "cap " << cap << " step " << step;
      }
      // Bytes never written are left as the allocation gave them.
      const std::size_t written = model.writtenBytes();
      ASSERT_EQ(std::string(lb.ringBegin(), written), model.ring().substr(0, written))
          << "cap " << cap << " step " << step;
      ASSERT_EQ(lb.validSize(), model.validSize());
      ASSERT_EQ(static_cast<std::size_t>(lb.writePos() - lb.ringBegin()), model.writeOffset());
      ASSERT_EQ(lb.stateValueLists().getCount(), static_cast<int>(model.listCount()));
    }
  }
}

TEST_F(LimitedBufferTest, ProducersAndPrintersConcurrently) {
  LimitedBuffer lb(256, 2, hexFormat);
  std::atomic<int> started{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 3; ++t) {
    producers.emplace_back([&lb, &started, t] {
      ++started;
      for (int i = 0; i < 2000; ++i) {
        lb.addf("[%d:%d]\n", t, i);
        lb.add("raw;", 4);
        const char rec[2] = {static_cast<char>(t), static_cast<char>(i)};
        lb.addStateValueList(rec, 2);
      }
    });
  }
  while (started.load() < 3) std::this_thread::yield();
  for (int i = 0; i < 50; ++i) {
    const std::string out = printed(lb);
    ASSERT_EQ(out.compare(0, kHeader.size(), kHeader), 0);
    ASSERT_EQ(out.compare(out.size() - kFooter.size(), kFooter.size(), kFooter), 0);
  }
  for (auto& p : producers) p.join();
  EXPECT_EQ(lb.validSize(), 256u);
}

TEST(LBInteractiveDump, EnterPrintsAndQQuits) {
  const std::string menu =
      "Enter: dump gl_wendelLimitedBuffer\nq (und Enter): Quit\n(vor getline)\n";
  auto r = runInChild(
      [] {
        LimitedBuffer::setEnabled(true);
        LimitedBuffer lb(32, 2, hexFormat);
        lb.add("trace\n", 6);
        util::LBInteractiveDump dump(lb);
      },
      "\nq\n", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, menu + "line: ''\n" + kHeader + "trace\n" + kFooter + menu + "line: 'q'\n");
  EXPECT_EQ(r.err, "");
}

TEST(LBInteractiveDump, OnlyExactlyQQuits) {
  const std::string menu =
      "Enter: dump gl_wendelLimitedBuffer\nq (und Enter): Quit\n(vor getline)\n";
  auto r = runInChild(
      [] {
        LimitedBuffer::setEnabled(true);
        LimitedBuffer lb(32, 2, hexFormat);
        lb.add("x", 1);
        util::LBInteractiveDump dump(lb);
      },
      "q \nQ\nq\n", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  const std::string dump = kHeader + "x" + kFooter;
  EXPECT_EQ(r.out, menu + "line: 'q '\n" + dump + menu + "line: 'Q'\n" + dump + menu +
                       "line: 'q'\n");
}

TEST(LBInteractiveDump, EndOfInputStopsAfterTheEcho) {
  const std::string menu =
      "Enter: dump gl_wendelLimitedBuffer\nq (und Enter): Quit\n(vor getline)\n";
  auto r = runInChild(
      [] {
        LimitedBuffer::setEnabled(true);
        LimitedBuffer lb(32, 2, hexFormat);
        lb.add("y", 1);
        util::LBInteractiveDump dump(lb);
      },
      "go\nlast", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, menu + "line: 'go'\n" + kHeader + "y" + kFooter + menu + "line: 'last'\n");
}

TEST(LBInteractiveDump, DisabledSwitchPrintsOnlyTheConsoleTexts) {
  const std::string menu =
      "Enter: dump gl_wendelLimitedBuffer\nq (und Enter): Quit\n(vor getline)\n";
  auto r = runInChild(
      [] {
        LimitedBuffer lb(32, 2, hexFormat);
        util::LBInteractiveDump dump(lb);
      },
      "\n", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, menu + "line: ''\n" + menu + "line: ''\n");
}
