#include "Orvix/CppBits.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

#include "TestSupport.hpp"

namespace {

const char* kBits = "uint64_t bits(uint64_t, int, int)";
const char* kSetBits = "void setBits(uint32_t&, int, int, uint32_t)";
const char* kBitsExpr =
    "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx";
const char* kSetBitsExpr =
    "lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx";
// Lines of the two checks in Orvix/CppBits.hpp.
constexpr int kBitsLine = 22;
constexpr int kSetBitsLine = 33;

void expectBitsAssertion(const std::function<void()>& fn) {
  orvix_test::expectAssertion(fn, "Orvix/CppBits", kBitsLine, kBits, kBitsExpr);
}

void expectSetBitsAssertion(const std::function<void()>& fn) {
  orvix_test::expectAssertion(fn, "Orvix/CppBits", kSetBitsLine, kSetBits, kSetBitsExpr);
}

// The header of the text, up to the bit table.
std::string head(const std::string& dec, const std::string& hex) {
  return "\ndec: " + dec + "\nhex: " + hex + "\nbin:\n\n";
}

const std::string kHighNumbers = " 31 30 29 28  27 26 25 24  23 22 21 20  19 18 17 16\n";
const std::string kLowNumbers = " 15 14 13 12  11 10  9  8   7  6  5  4   3  2  1  0\n";
const std::string kZeros = "  0  0  0  0   0  0  0  0   0  0  0  0   0  0  0  0";
const std::string kOnes = "  1  1  1  1   1  1  1  1   1  1  1  1   1  1  1  1";

}  // namespace

TEST(Bits, CutsAFieldOut) {
  EXPECT_EQ(bits(0xABCD, 4, 8), 0xBCu);
  EXPECT_EQ(bits(0xABCD, 0, 4), 0xDu);
  EXPECT_EQ(bits(0xABCD, 12, 4), 0xAu);
  EXPECT_EQ(bits(0xABCD, 12, 8), 0xAu);  // bits above the value are 0
  EXPECT_EQ(bits(0x8000000000000000ull, 63, 1), 1u);
  EXPECT_EQ(bits(0x7FFFFFFFFFFFFFFFull, 63, 1), 0u);
  EXPECT_EQ(bits(0xFFFFFFFFFFFFFFFFull, 1, 63), 0x7FFFFFFFFFFFFFFFull);
  EXPECT_EQ(bits(0xFFFFFFFFull, 31, 2), 1u);
}

TEST(Bits, FullWidthCountKeepsTheWholeShiftedValue) {
  EXPECT_EQ(bits(0x0123456789ABCDEFull, 0, 64), 0x0123456789ABCDEFull);
  EXPECT_EQ(bits(0x0123456789ABCDEFull, 8, 56), 0x0123456789ABCDull);
  EXPECT_EQ(bits(0x0123456789ABCDEFull, 32, 32), 0x01234567ull);
}

TEST(BitsDeathTest, RejectsEveryBadIndexAndCount) {
  expectBitsAssertion([] { bits(1, -1, 1); });
  expectBitsAssertion([] { bits(1, 64, 1); });
  expectBitsAssertion([] { bits(1, 0, 0); });
  expectBitsAssertion([] { bits(1, 0, -1); });
  expectBitsAssertion([] { bits(1, 0, 65); });
  expectBitsAssertion([] { bits(1, 60, 5); });
  expectBitsAssertion([] { bits(1, 63, 2); });
}

TEST(SetBits, ReplacesExactlyTheField) {
  uint32_t t = 0xFFFFFFFF;
  setBits(t, 4, 8, 0);
  EXPECT_EQ(t, 0xFFFFF00Fu);
  setBits(t, 4, 8, 0xA5);
  EXPECT_EQ(t, 0xFFFFFA5Fu);
  t = 0;
  setBits(t, 28, 4, 0xF);
  EXPECT_EQ(t, 0xF0000000u);
  setBits(t, 31, 1, 0);
  EXPECT_EQ(t, 0x70000000u);
}

TEST(SetBits, IgnoresValueBitsAboveTheCount) {
  uint32_t t = 0;
  setBits(t, 8, 4, 0xFFFFFFFF);
  EXPECT_EQ(t, 0x00000F00u);
  setBits(t, 0, 1, 0xFFFFFFFE);
  EXPECT_EQ(t, 0x00000F00u);
}

TEST(SetBits, CountZeroChangesNothingAndCount32ReplacesAll) {
  uint32_t t = 0x12345678;
  setBits(t, 0, 0, 0xFFFFFFFF);
  EXPECT_EQ(t, 0x12345678u);
  setBits(t, 31, 0, 0xFFFFFFFF);
  EXPECT_EQ(t, 0x12345678u);
  setBits(t, 0, 32, 0x9ABCDEF0);
  EXPECT_EQ(t, 0x9ABCDEF0u);
}

TEST(SetBitsDeathTest, RejectsEveryBadIndexAndCount) {
  expectSetBitsAssertion([] { uint32_t t = 0; setBits(t, -1, 1, 0); });
  expectSetBitsAssertion([] { uint32_t t = 0; setBits(t, 32, 0, 0); });
  expectSetBitsAssertion([] { uint32_t t = 0; setBits(t, 0, -1, 0); });
  expectSetBitsAssertion([] { uint32_t t = 0; setBits(t, 0, 33, 0); });
  expectSetBitsAssertion([] { uint32_t t = 0; setBits(t, 20, 13, 0); });
}

TEST(FormatBits32, Zero) {
  EXPECT_EQ(formatBits32(0),
            head("0", "0") + kHighNumbers + kZeros + "\n\n" + kLowNumbers + kZeros);
}

TEST(FormatBits32, One) {
  EXPECT_EQ(formatBits32(1),
            "\ndec: 1\nhex: 1\nbin:\n\n"
            " 31 30 29 28  27 26 25 24  23 22 21 20  19 18 17 16\n"
            "  0  0  0  0   0  0  0  0   0  0  0  0   0  0  0  0\n"
            "\n"
            " 15 14 13 12  11 10  9  8   7  6  5  4   3  2  1  0\n"
            "  0  0  0  0   0  0  0  0   0  0  0  0   0  0  0  1");
}

TEST(FormatBits32, TopBit) {
  EXPECT_EQ(formatBits32(0x80000000u),
            "\ndec: 2147483648\nhex: 80000000\nbin:\n\n"
            " 31 30 29 28  27 26 25 24  23 22 21 20  19 18 17 16\n"
            "  1  0  0  0   0  0  0  0   0  0  0  0   0  0  0  0\n"
            "\n"
            " 15 14 13 12  11 10  9  8   7  6  5  4   3  2  1  0\n"
            "  0  0  0  0   0  0  0  0   0  0  0  0   0  0  0  0");
}

TEST(FormatBits32, AllOnes) {
  EXPECT_EQ(formatBits32(0xFFFFFFFFu),
            head("4294967295", "ffffffff") + kHighNumbers + kOnes + "\n\n" + kLowNumbers + kOnes);
}

TEST(FormatBits32, MixedWord) {
  EXPECT_EQ(formatBits32(0xA5C30F96u),
            "\ndec: 2781024150\nhex: a5c30f96\nbin:\n\n"
            " 31 30 29 28  27 26 25 24  23 22 21 20  19 18 17 16\n"
            "  1  0  1  0   0  1  0  1   1  1  0  0   0  0  1  1\n"
            "\n"
            " 15 14 13 12  11 10  9  8   7  6  5  4   3  2  1  0\n"
            "  0  0  0  0   1  1  1  1   1  0  0  1   0  1  1  0");
}
