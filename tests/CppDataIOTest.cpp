#include "Orvix/CppDataIO.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.hpp"
#include "models/ParseNumModel.hpp"

using orvix::TextFileDataIO;
using orvix_test::CaptureFd;
using orvix_test::expectGeneralException;
using orvix_test::runInChild;

namespace {

const char* kUnit = "Orvix/CppDataIO";

// Where the factories' assertions stand in Orvix/CppDataIO.cpp; the lines are part of their text.
constexpr int kForWriteLine = 24;
constexpr int kForReadLine = 32;

const std::string kNotForWriting =
    "TextFileDataIO has not been opened for writing, but one of the w() method has been called.";
const std::string kNotForReading =
    "TextFileDataIO has not been opened for reading, but one of the r() method has been called.";
const std::string kWriteProblem = "TextFileDataIO: Problem beim Schreiben";
const std::string kReadProblem = "TextFileDataIO: Problem beim Lesen";

// Armed by the factory death tests: the next TextFileDataIO is built already holding a stream
// of the other direction, which the factories assert against.
int gArmedReader = 0;
int gArmedWriter = 0;

}  // namespace

// Stands in for the library's constructor (the library reaches it through the dynamic linker, so
// this definition wins); the same as the library's unless a stream is armed.
orvix::TextFileDataIO::TextFileDataIO(const std::string&) : o(nullptr), i(nullptr) {
  if (orvix_test::takeArmed(gArmedReader)) i = new std::ifstream;
  if (orvix_test::takeArmed(gArmedWriter)) o = new std::ofstream;
}

namespace {

// A fresh directory per test, removed with the files the test named through path().
class DataIOTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/orvix-dataio-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir_ = name;
  }
  void TearDown() override {
    for (const std::string& p : paths_) unlink(p.c_str());
    rmdir(dir_.c_str());
  }

  std::string path(const std::string& name) {
    paths_.push_back(dir_ + "/" + name);
    return paths_.back();
  }

  static std::string contents(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  static void put(const std::string& p, const std::string& text) {
    std::ofstream out(p, std::ios::binary);
    out << text;
  }

  std::string dir_;
  std::vector<std::string> paths_;
};

std::unique_ptr<TextFileDataIO> writer(const std::string& p) {
  return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forWrite(p));
}

std::unique_ptr<TextFileDataIO> reader(const std::string& p) {
  return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forRead(p));
}

// Reads one T from r, expecting exactly the read-problem exception.
template <class T>
void expectReadProblem(TextFileDataIO& r) {
  T x{};
  expectGeneralException([&] { r.r(x); }, kReadProblem);
}

}  // namespace

// ---- the listed example and the file format --------------------------------------------------

TEST_F(DataIOTest, FourValuesGiveFourLinesAndComeBack) {
  const std::string p = path("four");
  {
    auto w = writer(p);
    w->w(true);
    w->w('A');
    w->w(static_cast<unsigned short>(65535));
    w->w(-7);
  }
  EXPECT_EQ(contents(p), "1\n65\n65535\n-7\n");
  auto r = reader(p);
  bool b = false;
  char c = 0;
  unsigned short us = 0;
  int i = 0;
  r->r(b);
  r->r(c);
  r->r(us);
  r->r(i);
  EXPECT_EQ(b, true);
  EXPECT_EQ(c, 'A');
  EXPECT_EQ(us, 65535);
  EXPECT_EQ(i, -7);
}

TEST_F(DataIOTest, EverySlotAtItsLimitsRoundTrips) {
  const std::string p = path("limits");
  {
    auto w = writer(p);
    w->w(false);
    w->w(true);
    // char as its byte value on every ABI, so the same four values print the same lines.
    w->w(static_cast<char>(0x00));
    w->w(static_cast<char>(0x7F));
    w->w(static_cast<char>(0x80));
    w->w(static_cast<char>(0xFF));
    w->w(static_cast<unsigned char>(0));
    w->w(static_cast<unsigned char>(255));
    w->w(static_cast<unsigned short>(0));
    w->w(static_cast<unsigned short>(65535));
    w->w(0u);
    w->w(4294967295u);
    w->w(static_cast<signed char>(-128));
    w->w(static_cast<signed char>(127));
    w->w(static_cast<short>(-32768));
    w->w(static_cast<short>(32767));
    w->w(INT32_MIN);
    w->w(INT32_MAX);
  }
  EXPECT_EQ(contents(p),
            "0\n1\n"
            "0\n127\n128\n255\n"
            "0\n255\n"
            "0\n65535\n"
            "0\n4294967295\n"
            "-128\n127\n"
            "-32768\n32767\n"
            "-2147483648\n2147483647\n");

  auto r = reader(p);
  bool b0 = true, b1 = false;
  char c[4] = {1, 1, 1, 1};
  unsigned char uc0 = 1, uc1 = 0;
  unsigned short us0 = 1, us1 = 0;
  unsigned int ui0 = 1, ui1 = 0;
  signed char sc0 = 0, sc1 = 0;
  short s0 = 0, s1 = 0;
  int i0 = 0, i1 = 0;
  r->r(b0);
  r->r(b1);
  for (char& x : c) r->r(x);
  r->r(uc0);
  r->r(uc1);
  r->r(us0);
  r->r(us1);
  r->r(ui0);
  r->r(ui1);
  r->r(sc0);
  r->r(sc1);
  r->r(s0);
  r->r(s1);
  r->r(i0);
  r->r(i1);
  EXPECT_FALSE(b0);
  EXPECT_TRUE(b1);
  EXPECT_EQ(c[0], static_cast<char>(0x00));
  EXPECT_EQ(c[1], static_cast<char>(0x7F));
  EXPECT_EQ(c[2], static_cast<char>(0x80));
  EXPECT_EQ(c[3], static_cast<char>(0xFF));
  EXPECT_EQ(uc0, 0);
  EXPECT_EQ(uc1, 255);
  EXPECT_EQ(us0, 0);
  EXPECT_EQ(us1, 65535);
  EXPECT_EQ(ui0, 0u);
  EXPECT_EQ(ui1, 4294967295u);
  EXPECT_EQ(sc0, -128);
  EXPECT_EQ(sc1, 127);
  EXPECT_EQ(s0, -32768);
  EXPECT_EQ(s1, 32767);
  EXPECT_EQ(i0, INT32_MIN);
  EXPECT_EQ(i1, INT32_MAX);
  expectReadProblem<int>(*r);
}

TEST_F(DataIOTest, WritingTruncatesAnOldFile) {
  const std::string p = path("old");
  put(p, "1\n2\n3\n4\n5\n");
  writer(p)->w(9);
  EXPECT_EQ(contents(p), "9\n");
}

TEST_F(DataIOTest, ReadingSkipsWhiteSpaceAndIsDecimal) {
  const std::string p = path("spaced");
  put(p, "  12\n\n\t-3   010\n0x1f\n");
  auto r = reader(p);
  int a = 0, b = 0, c = 0, d = -1;
  r->r(a);
  r->r(b);
  r->r(c);
  r->r(d);  // takes the 0 of "0x1f"; the x stops it
  EXPECT_EQ(a, 12);
  EXPECT_EQ(b, -3);
  EXPECT_EQ(c, 10);
  EXPECT_EQ(d, 0);
  expectReadProblem<int>(*r);
}

// ---- narrowing -------------------------------------------------------------------------------

TEST_F(DataIOTest, NarrowTypesNarrowWhatTheWideReadGives) {
  const std::string p = path("narrow");
  put(p, "2\n-5\n0\n321\n300\n-1\n65537\n-129\n200\n40000\n");
  auto r = reader(p);
  bool b1 = false, b2 = false, b3 = true;
  char c = 0;
  unsigned char uc1 = 0, uc2 = 0;
  unsigned short us = 0;
  signed char sc1 = 0, sc2 = 0;
  unsigned short wide = 0;
  r->r(b1);
  r->r(b2);
  r->r(b3);
  r->r(c);
  r->r(uc1);
  r->r(uc2);
  r->r(us);
  r->r(sc1);
  r->r(sc2);
  r->r(wide);
  EXPECT_TRUE(b1);
  EXPECT_TRUE(b2);
  EXPECT_FALSE(b3);
  EXPECT_EQ(c, 'A');                         // 321 = 256 + 65
  EXPECT_EQ(uc1, 44);                        // 300 - 256
  EXPECT_EQ(uc2, 255);                       // -1 read as unsigned wraps, then narrows
  EXPECT_EQ(us, 1);                          // 65537 - 65536
  EXPECT_EQ(sc1, 127);                       // -129 + 256
  EXPECT_EQ(sc2, -56);                       // 200 - 256
  EXPECT_EQ(wide, 40000);                    // fits an unsigned short
}

TEST_F(DataIOTest, ShortOutOfRangeFailsTheStream) {
  for (const char* text : {"32768\n", "-32769\n", "40000\n", "2147483647\n"}) {
    const std::string p = path("short");
    put(p, text);
    auto r = reader(p);
    expectReadProblem<short>(*r);
    // The stream stays failed: every further transfer throws again.
    expectReadProblem<int>(*r);
  }
  const std::string p = path("shortLimits");
  put(p, "32767\n-32768\n");
  auto r = reader(p);
  short a = 0, b = 0;
  r->r(a);
  r->r(b);
  EXPECT_EQ(a, 32767);
  EXPECT_EQ(b, -32768);
}

TEST_F(DataIOTest, WideOutOfRangeFailsTheStream) {
  const std::string p = path("wide");
  put(p, "2147483648\n");
  expectReadProblem<int>(*reader(p));
  put(p, "-2147483649\n");
  expectReadProblem<int>(*reader(p));
  put(p, "4294967296\n");
  expectReadProblem<unsigned int>(*reader(p));
  put(p, "4294967296\n");
  expectReadProblem<unsigned char>(*reader(p));  // out of range before any narrowing
}

TEST_F(DataIOTest, NotANumberIsAReadProblem) {
  const std::string p = path("text");
  put(p, "abc\n");
  expectReadProblem<int>(*reader(p));
  put(p, "-\n");
  expectReadProblem<short>(*reader(p));
}

// ---- running out, wrong direction, unopenable --------------------------------------------------

TEST_F(DataIOTest, OneReadTooMany) {
  const std::string p = path("two");
  {
    auto w = writer(p);
    w->w(1);
    w->w(2);
  }
  auto r = reader(p);
  int a = 0, b = 0, c = 77;
  r->r(a);
  r->r(b);
  expectGeneralException([&] { r->r(c); }, kReadProblem);
  EXPECT_EQ(c, 77);  // nothing was there to extract
  expectReadProblem<bool>(*r);
  expectReadProblem<short>(*r);
}

TEST_F(DataIOTest, EmptyFileHasNothingToRead) {
  const std::string p = path("empty");
  writer(p);
  EXPECT_EQ(contents(p), "");
  expectReadProblem<unsigned int>(*reader(p));
}

TEST_F(DataIOTest, LastNumberWithoutNewlineMeetsEndOfFile) {
  // End of file counts as a problem even when the number itself was read.
  const std::string p = path("nonl");
  put(p, "5");
  auto r = reader(p);
  int x = 0;
  expectGeneralException([&] { r->r(x); }, kReadProblem);
  EXPECT_EQ(x, 5);
}

TEST_F(DataIOTest, WrongDirectionThrowsTheEnglishTexts) {
  const std::string p = path("dir");
  auto w = writer(p);
  auto r = reader(p);
  expectGeneralException([&] { r->w(1); }, kNotForWriting);
  expectGeneralException([&] { r->w(true); }, kNotForWriting);
  expectGeneralException([&] { r->w(static_cast<unsigned short>(1)); }, kNotForWriting);
  expectGeneralException([&] { r->checkWrite(); }, kNotForWriting);
  int x = 0;
  short s = 0;
  unsigned char uc = 0;
  expectGeneralException([&] { w->r(x); }, kNotForReading);
  expectGeneralException([&] { w->r(s); }, kNotForReading);
  expectGeneralException([&] { w->r(uc); }, kNotForReading);
  expectGeneralException([&] { w->checkRead(); }, kNotForReading);
  // Neither: the bare object is no writer and no reader.
  TextFileDataIO bare("unused");
  expectGeneralException([&] { bare.w(1u); }, kNotForWriting);
  expectGeneralException([&] { bare.r(x); }, kNotForReading);
  // The misuse leaves both usable.
  w->w(3);
  w.reset();
  EXPECT_EQ(contents(p), "3\n");
}

TEST_F(DataIOTest, UnopenablePaths) {
  const std::string missingDir = dir_ + "/no/such/file";
  expectGeneralException([&] { TextFileDataIO::forWrite(missingDir); },
                         "Kann nicht in Datei schreiben: " + missingDir);
  expectGeneralException([&] { TextFileDataIO::forWrite(dir_); },
                         "Kann nicht in Datei schreiben: " + dir_);
  expectGeneralException([&] { TextFileDataIO::forWrite(""); }, "Kann nicht in Datei schreiben: ");
  expectGeneralException([&] { TextFileDataIO::forRead(missingDir); },
                         "Kann nicht von Datei lesen: " + missingDir);
  const std::string missing = path("missing");
  expectGeneralException([&] { TextFileDataIO::forRead(missing); },
                         "Kann nicht von Datei lesen: " + missing);
  expectGeneralException([&] { TextFileDataIO::forRead(""); }, "Kann nicht von Datei lesen: ");
}

TEST(DataIO, WriteErrorIsReportedAndSticks) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no writable /dev/full here";
  auto w = std::unique_ptr<TextFileDataIO>(TextFileDataIO::forWrite("/dev/full"));
  // The file buffer takes lines until it must hand them to the device, which refuses.
  CaptureFd out(1);
  std::string what;
  int written = 0;
  for (; written < 1000000 && what.empty(); ++written) {
    try {
      w->w(written);
    } catch (const util::GeneralException& e) {
      what = e.what();
    }
  }
  EXPECT_EQ(what, kWriteProblem);
  EXPECT_GT(written, 1);  // buffered: the first lines went into the buffer
  EXPECT_EQ(out.text(), orvix_test::kWarn + kWriteProblem + "\n");
  expectGeneralException([&] { w->w(true); }, kWriteProblem);
  expectGeneralException([&] { w->checkWrite(); }, kWriteProblem);
}

// ---- the factories' assertions -----------------------------------------------------------------

TEST(DataIODeathTest, ForWriteAssertsNoInputStream) {
  orvix_test::expectAssertion(
      [] {
        gArmedReader = 1;
        TextFileDataIO::forWrite("/dev/null");
      },
      kUnit, kForWriteLine,
      "static orvix::TextFileDataIO* orvix::TextFileDataIO::forWrite(const std::string&)", "!x->i");
}

TEST(DataIODeathTest, ForReadAssertsNoOutputStream) {
  orvix_test::expectAssertion(
      [] {
        gArmedWriter = 1;
        TextFileDataIO::forRead("/dev/null");
      },
      kUnit, kForReadLine,
      "static orvix::TextFileDataIO* orvix::TextFileDataIO::forRead(const std::string&)", "!x->o");
}

// ---- subclasses see every narrow transfer ------------------------------------------------------

namespace {

// Overrides the four wide operations and records what reaches them.
class Spy : public TextFileDataIO {
 public:
  Spy() : TextFileDataIO("unused") {}
  using TextFileDataIO::r;
  using TextFileDataIO::w;
  void w(int x) override { ints.push_back(x); }
  void w(unsigned int x) override { uints.push_back(x); }
  void r(int& x) override {
    x = intSource.at(intReads++);
  }
  void r(unsigned int& x) override { x = uintSource.at(uintReads++); }

  std::vector<int> ints;
  std::vector<unsigned int> uints;
  std::vector<int> intSource;
  std::vector<unsigned int> uintSource;
  std::size_t intReads = 0;
  std::size_t uintReads = 0;
};

}  // namespace

TEST(DataIO, SubclassSeesEveryNarrowWrite) {
  Spy spy;
  orvix::IDataIO& io = spy;
  io.w(true);
  io.w(false);
  io.w('A');
  io.w(static_cast<char>(0xFF));
  io.w(static_cast<signed char>(-5));
  io.w(static_cast<short>(-300));
  io.w(7);
  io.w(static_cast<unsigned char>(200));
  io.w(static_cast<unsigned short>(60000));
  io.w(9u);
  EXPECT_EQ(spy.ints, (std::vector<int>{1, 0, 65, 255, -5, -300, 7}));
  EXPECT_EQ(spy.uints, (std::vector<unsigned int>{200, 60000, 9}));
}

TEST(DataIO, SubclassSeesEveryNarrowReadButTheShortOne) {
  Spy spy;
  spy.intSource = {3, 0, 321, -129, 42};
  spy.uintSource = {300, 65537, 5};
  orvix::IDataIO& io = spy;
  bool b1 = false, b2 = true;
  char c = 0;
  signed char sc = 0;
  int i = 0;
  unsigned char uc = 0;
  unsigned short us = 0;
  unsigned int ui = 0;
  io.r(b1);
  io.r(b2);
  io.r(c);
  io.r(sc);
  io.r(i);
  io.r(uc);
  io.r(us);
  io.r(ui);
  EXPECT_TRUE(b1);
  EXPECT_FALSE(b2);
  EXPECT_EQ(c, 'A');
  EXPECT_EQ(sc, 127);
  EXPECT_EQ(i, 42);
  EXPECT_EQ(uc, 44);
  EXPECT_EQ(us, 1);
  EXPECT_EQ(ui, 5u);
  EXPECT_EQ(spy.intReads, 5u);
  EXPECT_EQ(spy.uintReads, 3u);
  // r(short&) extracts itself: it does not reach r(int&), and this object has no file.
  short s = 0;
  expectGeneralException([&] { io.r(s); }, kNotForReading);
  EXPECT_EQ(spy.intReads, 5u);
}

namespace {

// A subclass that opens its own file and shifts every signed value on the way out.
class Shifted : public TextFileDataIO {
 public:
  explicit Shifted(const std::string& p) : TextFileDataIO(p) { o = new std::ofstream(p); }
  using TextFileDataIO::w;
  void w(int x) override { TextFileDataIO::w(x + 1000); }
};

}  // namespace

TEST_F(DataIOTest, SubclassChangesTheFileOfEveryNarrowWrite) {
  const std::string p = path("shifted");
  {
    Shifted s(p);
    s.w(true);
    s.w('A');
    s.w(static_cast<signed char>(-1));
    s.w(static_cast<short>(1));
    s.w(5u);  // unsigned: not shifted
  }
  EXPECT_EQ(contents(p), "1001\n1065\n999\n1001\n5\n");
}

// ---- parseNum ----------------------------------------------------------------------------------

TEST(ParseNum, ListedCases) {
  EXPECT_EQ(parseNum("0x1F"), 31);
  EXPECT_EQ(parseNum("0XzF"), 15);
  EXPECT_EQ(parseNum("-42"), -42);
  EXPECT_EQ(parseNum(""), 0);
  EXPECT_THROW(parseNum("4a2"), ParseException);
  EXPECT_EQ(parseNum("012"), 12);
}

TEST(ParseNum, FurtherCases) {
  EXPECT_EQ(parseNum("-"), 0);
  EXPECT_EQ(parseNum("-0"), 0);
  EXPECT_EQ(parseNum("0"), 0);
  EXPECT_EQ(parseNum("000"), 0);
  EXPECT_EQ(parseNum("-012"), -12);
  EXPECT_EQ(parseNum("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parseNum("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(parseNum("9223372036854775808"), INT64_MIN);        // wraps
  EXPECT_EQ(parseNum("18446744073709551615"), -1);              // wraps
  EXPECT_EQ(parseNum("18446744073709551616"), 0);               // 2^64
  EXPECT_EQ(parseNum("-18446744073709551615"), 1);
  EXPECT_EQ(parseNum("0xffffffffffffffff"), -1);
  EXPECT_EQ(parseNum("0x8000000000000000"), INT64_MIN);
  EXPECT_EQ(parseNum("0x1ffffffffffffffff"), -1);               // the top digit shifts out
  EXPECT_EQ(parseNum("0x-"), 0);
  EXPECT_EQ(parseNum("0x-1"), 1);                               // the minus is junk
  EXPECT_EQ(parseNum("0x 1 2"), 0x12);
  EXPECT_EQ(parseNum("0xAbCdEf"), 0xabcdef);
  EXPECT_EQ(parseNum("0xgG"), 0);
  EXPECT_EQ(parseNum("0x0x10"), 0x10);                          // the second x is junk
}

TEST(ParseNum, DecimalRejectsEveryNonDigit) {
  for (const char* text : {"0x", "0X", "x1", "+5", " 5", "5 ", "--5", "5-", "1.0", "1e3", "0b1",
                           "00x5", "-0x5", "\xff", "a", "-a"}) {
    CaptureFd out(1);
    std::string what = "<nothing thrown>";
    try {
      parseNum(text);
    } catch (const std::invalid_argument& e) {
      EXPECT_NE(dynamic_cast<const ParseException*>(&e), nullptr) << text;
      what = e.what();
    }
    EXPECT_EQ(what, "ParseException") << text;
    EXPECT_EQ(out.text(), "") << text;  // unlike GeneralException, nothing is printed
  }
}

namespace {

using orvix_model::decimalModulo;
using orvix_model::hexModulo;
using orvix_model::isHexDigit;

int64_t asSigned(uint64_t v) { return static_cast<int64_t>(v); }

}  // namespace

TEST(ParseNum, RandomDecimalAgainstAReference) {
  std::mt19937_64 rng(20240611);
  for (int n = 0; n < 200000; ++n) {
    std::string digits;
    switch (n % 4) {
      case 0:  // any 64-bit pattern, written unsigned
        digits = std::to_string(rng());
        break;
      case 1:  // any signed value (its minus comes below)
        digits = std::to_string(rng() >> (rng() % 64));
        break;
      default: {  // 1 to 40 random digits, leading zeros and wrap included
        const int length = 1 + static_cast<int>(rng() % 40);
        for (int k = 0; k < length; ++k) digits.push_back(static_cast<char>('0' + rng() % 10));
      }
    }
    const bool negative = rng() % 2;
    const std::string text = (negative ? "-" : "") + digits;
    const uint64_t magnitude = decimalModulo(digits);
    const int64_t expected = asSigned(negative ? 0 - magnitude : magnitude);
    ASSERT_EQ(parseNum(text.c_str()), expected) << text;
  }
  for (int64_t v : {INT64_MIN, INT64_MIN + 1, int64_t{-1}, int64_t{0}, int64_t{1}, INT64_MAX})
    EXPECT_EQ(parseNum(std::to_string(v).c_str()), v);
}

TEST(ParseNum, RandomDecimalWithOneBadCharacterThrows) {
  std::mt19937_64 rng(7);
  int checked = 0;
  for (int n = 0; n < 50000; ++n) {
    std::string digits = std::to_string(rng() >> (rng() % 64));
    unsigned char bad;
    do bad = static_cast<unsigned char>(1 + rng() % 255);
    while (bad >= '0' && bad <= '9');
    const std::size_t at = rng() % (digits.size() + 1);
    digits.insert(at, 1, static_cast<char>(bad));
    const bool negative = rng() % 2;
    const std::string text = (negative ? "-" : "") + digits;
    // Skip what is no bad decimal: a leading minus made of the bad character, or "0x..."/"0X...".
    if (text.compare(0, 1, "-") == 0 && text.find_first_not_of("0123456789", 1) == std::string::npos)
      continue;
    if (text.size() >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) continue;
    ++checked;
    EXPECT_THROW(parseNum(text.c_str()), ParseException) << text;
  }
  EXPECT_GT(checked, 45000);
}

TEST(ParseNum, RandomHexWithJunkAgainstAReference) {
  std::mt19937_64 rng(99);
  const char* lower = "0123456789abcdef";
  const char* upper = "0123456789ABCDEF";
  for (int n = 0; n < 200000; ++n) {
    std::string body;
    const int length = 1 + static_cast<int>(rng() % 30);
    for (int k = 0; k < length; ++k) {
      if (rng() % 4 == 0) {
        unsigned char junk;
        do junk = static_cast<unsigned char>(1 + rng() % 255);
        while (isHexDigit(junk));
        body.push_back(static_cast<char>(junk));
      } else {
        const unsigned digit = static_cast<unsigned>(rng() % 16);
        body.push_back(rng() % 2 ? lower[digit] : upper[digit]);
      }
    }
    const std::string text = std::string("0") + (rng() % 2 ? "x" : "X") + body;
    ASSERT_EQ(parseNum(text.c_str()), asSigned(hexModulo(body))) << text;
  }
}

// Short texts over the characters that decide the form (digits, minus, x and X, hex letters,
// junk), whole: the model says which throw and what the others give.
TEST(ParseNum, EveryShortTextOverTheDecidingCharactersAgainstTheModel) {
  const std::string alphabet = "0-xX9aF ";
  std::vector<std::string> texts{""};
  for (std::size_t begin = 0, length = 1; length <= 5; ++length) {
    const std::size_t end = texts.size();
    for (std::size_t i = begin; i < end; ++i)
      for (char c : alphabet) texts.push_back(texts[i] + c);
    begin = end;
  }
  int thrown = 0;
  for (const std::string& text : texts) {
    const orvix_model::ParseNumExpected expected = orvix_model::parseNumModel(text);
    if (expected.throws) {
      ++thrown;
      EXPECT_THROW(parseNum(text.c_str()), ParseException) << '"' << text << '"';
    } else {
      EXPECT_EQ(parseNum(text.c_str()), expected.value) << '"' << text << '"';
    }
  }
  EXPECT_GT(thrown, 0);
  EXPECT_LT(thrown, static_cast<int>(texts.size()));
}

// ---- normalizePos ------------------------------------------------------------------------------

TEST(NormalizePos, ListedCases) {
  EXPECT_EQ(orvix::stream::normalizePos(-3, 10), 7);
  EXPECT_EQ(orvix::stream::normalizePos(25, 10), 5);
  EXPECT_EQ(orvix::stream::normalizePos(5, -1), 0);
}

TEST(NormalizePos, GridAgainstAReference) {
  std::vector<int> sizes;
  for (int size = 1; size <= 64; ++size) sizes.push_back(size);
  for (int size : {100, 1000, 4096, 65536, 1000003, INT_MAX - 1, INT_MAX}) sizes.push_back(size);
  for (int size : sizes) {
    std::vector<int> positions;
    for (int k = -200; k <= 200; ++k) positions.push_back(k);
    for (long long m : {-3LL, -2LL, -1LL, 1LL, 2LL, 3LL})
      for (int d = -2; d <= 2; ++d) {
        const long long p = m * size + d;
        if (p >= INT_MIN && p <= INT_MAX) positions.push_back(static_cast<int>(p));
      }
    for (int p : {INT_MIN, INT_MIN + 1, INT_MAX - 1, INT_MAX}) positions.push_back(p);
    for (int pos : positions) {
      const long long expected = ((static_cast<long long>(pos) % size) + size) % size;
      ASSERT_EQ(orvix::stream::normalizePos(pos, size), expected)
          << "pos " << pos << " size " << size;
    }
  }
  for (int pos : {0, 1, 7, INT_MAX}) EXPECT_EQ(orvix::stream::normalizePos(pos, -1), 0);
  // A negative size with a non-negative position is the plain remainder.
  EXPECT_EQ(orvix::stream::normalizePos(7, -3), 1);
}

TEST(NormalizePosDeathTest, SizeZeroDividesByZero) {
  const auto r = runInChild([] {
    signal(SIGFPE, SIG_DFL);  // the sanitizers' own handler would turn it into an exit
    orvix::stream::normalizePos(5, 0);
  });
  EXPECT_TRUE(r.signaled() && r.signal() == SIGFPE) << r.describe();
  EXPECT_EQ(r.out, "");
}

TEST(NormalizePosDeathTest, NegativePositionWithSizeNotPositiveNeverReturns) {
  for (int size : {0, -1, -5}) {
    // However long the machine takes, the call does not come back; the child is killed.
    const auto r = runInChild(
        [size] {
          orvix::stream::normalizePos(-1, size);
          std::printf("returned\n");
        },
        "", 1);
    EXPECT_TRUE(r.timedOut) << "size " << size << ": " << r.describe();
    EXPECT_EQ(r.out, "");
  }
}
