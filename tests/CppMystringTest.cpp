#include "Orvix/CppMystring.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Orvix/ThreadSafeStream.hpp"
#include "TestSupport.hpp"
#include "models/Utf8Model.hpp"

using orvix_test::assertionLine;
using orvix_test::runInChild;
using orvix_test::takeArmed;
using tavo2::mystring;
using tavo2::mywstring;
using tavo2::Utf8Exception;

// ---- interposed C functions ----------------------------------------------------------------
// Each forwards to the real one unless a fault is armed; the library's calls land here because
// the test program's symbols come first.

namespace {

// Next mbrtowc fails with this errno (returns (size_t)-1).
int armedMbrtowcErrno = 0;
// Next mbrtowc converts as usual but reports this many bytes.
int armedMbrtowcCount = 0;
// Next strlen reports this length minus one (1 reports an empty string).
int armedStrlen = 0;

// While set, every conversion call records the state and buffer it was given.
struct CallLog {
  std::vector<const void*> states;
  std::vector<bool> stateWasInitial;
  std::vector<const void*> buffers;
};
CallLog* mbrtowcLog = nullptr;
CallLog* wcrtombLog = nullptr;

}  // namespace

extern "C" size_t mbrtowc(wchar_t* pwc, const char* s, size_t n, mbstate_t* ps) noexcept {
  static const auto real =
      orvix_test::nextSymbol<size_t (*)(wchar_t*, const char*, size_t, mbstate_t*)>("mbrtowc");
  if (mbrtowcLog) {
    mbrtowcLog->states.push_back(ps);
    mbrtowcLog->stateWasInitial.push_back(ps && mbsinit(ps));
  }
  // Read before taking: other threads convert at the same time in one test.
  if (armedMbrtowcErrno) {
    errno = takeArmed(armedMbrtowcErrno);
    return static_cast<size_t>(-1);
  }
  const size_t result = real(pwc, s, n, ps);
  if (armedMbrtowcCount) return static_cast<size_t>(takeArmed(armedMbrtowcCount));
  return result;
}

extern "C" size_t wcrtomb(char* s, wchar_t wc, mbstate_t* ps) noexcept {
  static const auto real =
      orvix_test::nextSymbol<size_t (*)(char*, wchar_t, mbstate_t*)>("wcrtomb");
  if (wcrtombLog) {
    wcrtombLog->states.push_back(ps);
    wcrtombLog->stateWasInitial.push_back(ps && mbsinit(ps));
    wcrtombLog->buffers.push_back(s);
    // Touch the whole scratch buffer the locale allows for: the sanitizer build then proves
    // the library's buffer has that size.
    if (s) std::memset(s, 0x55, MB_CUR_MAX);
  }
  return real(s, wc, ps);
}

extern "C" size_t strlen(const char* s) noexcept {
  static const auto real = orvix_test::nextSymbol<size_t (*)(const char*)>("strlen");
  if (armedStrlen) return static_cast<size_t>(takeArmed(armedStrlen) - 1);
  return real(s);
}

namespace {

const char* const kUnit = "Orvix/CppMystring";
const char* const kToWide = "tavo2::mywstring& tavo2::mywstring::operator=(const tavo2::mystring&)";
const char* const kTrim = "static tavo2::mystring tavo2::mystring::trim(const char*, const char*)";
const std::string kAtPos =
    "utf8 string that shall be converted to utf32 does not contain a valid multibyte character "
    "at pos ";

// The line the library reports for the assertion whose expression text is expr: the line of
// the __LINE__ that follows the quoted text in the unit's source. The text must occur once.
int lineOf(const std::string& expr) {
  std::ifstream source(std::string(ORVIX_SOURCE_DIR) + "/Orvix/CppMystring.cpp");
  EXPECT_TRUE(source.good()) << "cannot read the unit's source";
  const std::string quoted = "\"" + expr + "\"";
  std::string text;
  int line = 0;
  int found = 0;
  int reported = 0;
  bool inCall = false;  // between the quoted text and its __LINE__
  while (std::getline(source, text)) {
    ++line;
    if (text.find(quoted) != std::string::npos) inCall = ++found == 1;
    if (inCall && text.find("__LINE__") != std::string::npos) {
      reported = line;
      inCall = false;
    }
  }
  EXPECT_EQ(found, 1) << quoted;
  EXPECT_GT(reported, 0) << "no __LINE__ after " << quoted;
  return reported;
}

std::string assertionIn(const char* function, const std::string& expr) {
  return assertionLine(kUnit, lineOf(expr), function, expr);
}

// Sets LC_ALL for one scope and puts the previous setting back. The tests run on one thread.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char* name) : previous_(setlocale(LC_ALL, nullptr)) {
    ok_ = setlocale(LC_ALL, name) != nullptr;
    EXPECT_TRUE(ok_) << "locale " << name << " is not available";
  }
  ~ScopedLocale() { setlocale(LC_ALL, previous_.c_str()); }
  ScopedLocale(const ScopedLocale&) = delete;
  ScopedLocale& operator=(const ScopedLocale&) = delete;
  bool ok() const { return ok_; }

 private:
  std::string previous_;
  bool ok_;
};

using orvix_model::utf8;

std::wstring wide(std::initializer_list<unsigned long> cps) {
  std::wstring w;
  for (unsigned long cp : cps) w += static_cast<wchar_t>(cp);
  return w;
}

std::string hex(const std::string& bytes) {
  std::ostringstream s;
  for (unsigned char c : bytes) s << std::hex << static_cast<int>(c) << ' ';
  return s.str();
}

// The eight counters, in dumpCounts order.
struct Counts {
  int defaultConstr, charConstr, copyConstr, copyCast, moveConstr, moveCast, constAssign,
      moveAssign;
  bool operator==(const Counts& o) const {
    return defaultConstr == o.defaultConstr && charConstr == o.charConstr &&
           copyConstr == o.copyConstr && copyCast == o.copyCast && moveConstr == o.moveConstr &&
           moveCast == o.moveCast && constAssign == o.constAssign && moveAssign == o.moveAssign;
  }
  Counts operator-(const Counts& o) const {
    return {defaultConstr - o.defaultConstr, charConstr - o.charConstr,
            copyConstr - o.copyConstr,       copyCast - o.copyCast,
            moveConstr - o.moveConstr,       moveCast - o.moveCast,
            constAssign - o.constAssign,     moveAssign - o.moveAssign};
  }
};

std::ostream& operator<<(std::ostream& os, const Counts& c) {
  return os << "{default " << c.defaultConstr << ", char " << c.charConstr << ", copy "
            << c.copyConstr << ", copyCast " << c.copyCast << ", move " << c.moveConstr
            << ", moveCast " << c.moveCast << ", constAssign " << c.constAssign
            << ", moveAssign " << c.moveAssign << "}";
}

Counts counts() {
  return {mystring::countDefaultConstr, mystring::countCharConstr, mystring::countCopyConstr,
          mystring::countCopyCast,      mystring::countMoveConstr, mystring::countMoveCast,
          mystring::countConstAssign,   mystring::countMoveAssign};
}

constexpr Counts kNone{0, 0, 0, 0, 0, 0, 0, 0};

// Runs fn in a child under C.UTF-8 and expects the "at pos" line for index, then the abort.
void expectTruncated(const std::string& bytes, std::size_t index) {
  const auto r = runInChild([&] {
    setlocale(LC_ALL, "C.UTF-8");
    mywstring w{mystring(bytes.c_str())};
  });
  ASSERT_TRUE(r.signaled()) << hex(bytes) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, kAtPos + std::to_string(index) + "\n" + assertionIn(kToWide, "n > 0"))
      << hex(bytes);
  EXPECT_EQ(r.out, "");
}

}  // namespace

// ---- types ------------------------------------------------------------------------------------

TEST(Mystring, TypesAreThinPolymorphicStrings) {
  static_assert(std::is_base_of<std::string, mystring>::value, "");
  static_assert(std::has_virtual_destructor<mystring>::value, "");
  static_assert(std::is_base_of<std::wstring, mywstring>::value, "");
  static_assert(std::has_virtual_destructor<mywstring>::value, "");
  static_assert(sizeof(mystring) == sizeof(std::string) + sizeof(void*), "no fields of its own");
  static_assert(sizeof(mywstring) == sizeof(std::wstring) + sizeof(void*), "no fields");
  static_assert(std::is_empty<Utf8Exception>::value, "");
  static_assert(!std::is_polymorphic<Utf8Exception>::value, "no base, nothing virtual");
  static_assert(std::is_aggregate<orvix::Pos>::value, "");
  static_assert(std::is_same<decltype(orvix::Pos{}.pos), int>::value, "");
  static_assert(sizeof(wchar_t) == 4, "UTF-32");
  static_assert(std::is_nothrow_move_constructible<mystring>::value, "");
  static_assert(std::is_nothrow_move_constructible<mywstring>::value, "");
  SUCCEED();
}

// ---- counters ---------------------------------------------------------------------------------

TEST(MystringCounters, DefaultConstructor) {
  const Counts before = counts();
  mystring m;
  EXPECT_EQ(counts() - before, (Counts{1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(m, "");
}

TEST(MystringCounters, CharPointerConstructorIgnoresItsFlag) {
  const Counts before = counts();
  mystring a("abc");
  mystring b("abc", false);
  mystring c("abc", true);
  EXPECT_EQ(counts() - before, (Counts{0, 3, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(a, "abc");
  EXPECT_EQ(b, "abc");
  EXPECT_EQ(c, "abc");
  const Counts beforeEmpty = counts();
  mystring e("");
  EXPECT_EQ(counts() - beforeEmpty, (Counts{0, 1, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(e, "");
}

TEST(MystringCounters, PointerRangeCountsNothing) {
  const char text[] = "hello world";
  const Counts before = counts();
  mystring m(text + 2, text + 7);
  mystring empty(text + 3, text + 3);
  EXPECT_EQ(counts() - before, kNone);
  EXPECT_EQ(m, "llo w");
  EXPECT_EQ(empty, "");
}

TEST(MystringCounters, IteratorRangeCountsNothing) {
  const std::string s = "hello world";
  const Counts before = counts();
  mystring m(s.cbegin() + 6, s.cend());
  EXPECT_EQ(counts() - before, kNone);
  EXPECT_EQ(m, "world");
}

TEST(MystringCounters, CopyFromStdString) {
  const std::string s = "from std";
  const Counts before = counts();
  mystring m(s);
  EXPECT_EQ(counts() - before, (Counts{0, 0, 0, 1, 0, 0, 0, 0}));
  EXPECT_EQ(m, "from std");
  EXPECT_EQ(s, "from std");
}

TEST(MystringCounters, CopyConstructor) {
  const mystring a("original");
  const Counts before = counts();
  mystring b(a);
  EXPECT_EQ(counts() - before, (Counts{0, 0, 1, 0, 0, 0, 0, 0}));
  EXPECT_EQ(b, "original");
  EXPECT_EQ(a, "original");
}

TEST(MystringCounters, MoveFromStdString) {
  std::string s(100, 'x');  // beyond the short-string buffer: the bytes change owner
  const char* bytes = s.data();
  const Counts before = counts();
  mystring m(std::move(s));
  EXPECT_EQ(counts() - before, (Counts{0, 0, 0, 0, 0, 1, 0, 0}));
  EXPECT_EQ(m, std::string(100, 'x'));
  EXPECT_EQ(m.data(), bytes);
}

TEST(MystringCounters, MoveConstructor) {
  mystring a(std::string(100, 'y'));
  const char* bytes = a.data();
  const Counts before = counts();
  mystring b(std::move(a));
  EXPECT_EQ(counts() - before, (Counts{0, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(b, std::string(100, 'y'));
  EXPECT_EQ(b.data(), bytes);
}

TEST(MystringCounters, FromWideCountsNothing) {
  ScopedLocale utf8Locale("C.UTF-8");
  const mywstring w(L"Gr\u00f6\u00dfe");
  const Counts before = counts();
  mystring m(w);
  EXPECT_EQ(counts() - before, kNone);
  EXPECT_EQ(m, "Gr\xc3\xb6\xc3\x9f" "e");
}

TEST(MystringCounters, CopyAssignment) {
  const mystring a("source");
  mystring b("target");
  const Counts before = counts();
  b = a;
  EXPECT_EQ(counts() - before, (Counts{0, 0, 0, 0, 0, 0, 1, 0}));
  EXPECT_EQ(b, "source");
  EXPECT_EQ(a, "source");
  b = b;  // self-assignment keeps the content
  EXPECT_EQ(b, "source");
}

TEST(MystringCounters, MoveAssignment) {
  mystring a(std::string(100, 'z'));
  const char* bytes = a.data();
  mystring b("target");
  const Counts before = counts();
  b = std::move(a);
  EXPECT_EQ(counts() - before, (Counts{0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(b, std::string(100, 'z'));
  EXPECT_EQ(b.data(), bytes);
}

TEST(MystringCounters, WideAssignmentCountsNothing) {
  ScopedLocale utf8Locale("C.UTF-8");
  const mywstring w(L"\u20ac5");
  mystring m("old content");
  const Counts before = counts();
  m = w;
  EXPECT_EQ(counts() - before, kNone);
  EXPECT_EQ(m, "\xe2\x82\xac" "5");
}

TEST(MystringCounters, WideStringsCountNothingOfMystring) {
  ScopedLocale utf8Locale("C.UTF-8");
  const mystring text("\xc3\xa4x");
  const std::wstring ws = L"abc";
  const Counts before = counts();
  mywstring a;
  mywstring b(L"abc");
  mywstring c(ws);
  mywstring d(b);
  mywstring e(std::move(d));
  mywstring f(std::wstring(L"def"));
  mywstring g(text);
  a = text;
  a = b;
  a = std::move(c);
  EXPECT_EQ(counts() - before, kNone);
  EXPECT_EQ(b, L"abc");
  EXPECT_EQ(e, L"abc");
  EXPECT_EQ(f, L"def");
  EXPECT_EQ(g, L"\u00e4x");
  EXPECT_EQ(a, L"abc");
}

TEST(MystringCounters, CharCopyAndCopyAssignGrowOneEach) {
  const Counts before = counts();
  mystring first("first");
  mystring second(first);
  second = first;
  EXPECT_EQ(counts() - before, (Counts{0, 1, 1, 0, 0, 0, 1, 0}));
}

TEST(MystringCounters, ConversionFromStringLiteralInAssignment) {
  mystring m;
  const Counts before = counts();
  m = "literal";  // a temporary from the character pointer, then moved in
  EXPECT_EQ(counts() - before, (Counts{0, 1, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(m, "literal");
}

TEST(MystringCounters, DumpCountsIsOneBlockOnStandardError) {
  const Counts saved = counts();
  mystring::countDefaultConstr = 1;
  mystring::countCharConstr = 22;
  mystring::countCopyConstr = 333;
  mystring::countCopyCast = 0;
  mystring::countMoveConstr = -5;
  mystring::countMoveCast = 123456789;
  mystring::countConstAssign = 7;
  mystring::countMoveAssign = 2147483647;
  orvix_test::CaptureFd err(2);
  orvix_test::CaptureFd out(1);
  mystring::dumpCounts();
  const std::string printed = err.text();
  const std::string printedOut = out.text();
  mystring::countDefaultConstr = saved.defaultConstr;
  mystring::countCharConstr = saved.charConstr;
  mystring::countCopyConstr = saved.copyConstr;
  mystring::countCopyCast = saved.copyCast;
  mystring::countMoveConstr = saved.moveConstr;
  mystring::countMoveCast = saved.moveCast;
  mystring::countConstAssign = saved.constAssign;
  mystring::countMoveAssign = saved.moveAssign;
  EXPECT_EQ(printed,
            "Counts of mystring:\n"
            "countDefaultConstr=1\n"
            "countCharConstr=22\n"
            "countCopyConstr=333\n"
            "countCopyCast=0\n"
            "countMoveConstr=-5\n"
            "countMoveCast=123456789\n"
            "countConstAssign=7\n"
            "countMoveAssign=2147483647\n");
  EXPECT_EQ(printedOut, "");
}

TEST(MystringCounters, DumpCountsHoldsTheConsoleLockForTheWholeBlock) {
  // Another thread writing whole lines at the same time never lands inside the block.
  const auto r = runInChild([] {
    std::thread other([] {
      for (int i = 0; i < 2000; ++i) safeCerr << "other line" << std::endl;
    });
    for (int i = 0; i < 200; ++i) mystring::dumpCounts();
    other.join();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  std::istringstream lines(r.err);
  std::string line;
  int blocks = 0;
  while (std::getline(lines, line)) {
    if (line == "other line") continue;
    ASSERT_EQ(line, "Counts of mystring:");
    ++blocks;
    for (const char* name : {"countDefaultConstr=", "countCharConstr=", "countCopyConstr=",
                             "countCopyCast=", "countMoveConstr=", "countMoveCast=",
                             "countConstAssign=", "countMoveAssign="}) {
      ASSERT_TRUE(std::getline(lines, line));
      ASSERT_EQ(line.rfind(name, 0), 0u) << line;
    }
  }
  EXPECT_EQ(blocks, 200);
}

// ---- construction edge cases -------------------------------------------------------------------

TEST(Mystring, NullCharPointerIsRejectedAsByStdString) {
  const char* volatile null = nullptr;
  std::string expected = "<nothing thrown>";
  try {
    std::string s(null);
  } catch (const std::logic_error& e) {
    expected = e.what();
  }
  const Counts before = counts();
  std::string what = "<nothing thrown>";
  try {
    mystring m(null);
  } catch (const std::logic_error& e) {
    what = e.what();
  }
  EXPECT_EQ(what, expected);
  EXPECT_EQ(counts() - before, kNone) << "a rejected text counts nothing";
  EXPECT_EQ(mystring(static_cast<const char*>(nullptr), static_cast<const char*>(nullptr)), "");
  const wchar_t* volatile wnull = nullptr;
  EXPECT_THROW(mywstring w(wnull), std::logic_error);
}

TEST(Mystring, KeepsEmbeddedNulBytesOfRangesAndStdStrings) {
  const std::string s("a\0b", 3);
  EXPECT_EQ(mystring(s).size(), 3u);
  EXPECT_EQ(mystring(s.data(), s.data() + 3).size(), 3u);
  EXPECT_EQ(mystring(s.data()).size(), 1u) << "a character pointer ends at its NUL";
}

// ---- operator+ -----------------------------------------------------------------------------------

TEST(Mystring, PlusAppendsToTheExpiringLeftOperandAndReturnsIt) {
  mystring left("left ");
  left.reserve(64);
  const char* bytes = left.data();
  const Counts before = counts();
  mystring&& result = std::move(left) + mystring("right", true);
  EXPECT_EQ(&result, &left) << "no new string is built";
  EXPECT_EQ(result.data(), bytes);
  EXPECT_EQ(left, "left right");
  EXPECT_EQ(counts() - before, (Counts{0, 1, 0, 0, 0, 0, 0, 0})) << "only the right operand";
}

TEST(Mystring, PlusChainsOnTemporaries) {
  const Counts before = counts();
  mystring joined = mystring("a") + mystring("b") + mystring("c") + mystring("");
  EXPECT_EQ(joined, "abc");
  // Four operands built, one move into joined; nothing copied.
  EXPECT_EQ(counts() - before, (Counts{0, 4, 0, 0, 1, 0, 0, 0}));
  mystring self("xy");
  mystring twice = std::move(self) + mystring(self);
  EXPECT_EQ(twice, "xyxy");
}

// ---- case operations -----------------------------------------------------------------------------

TEST(Mystring, CaseOperationsWorkByteByByte) {
  ScopedLocale utf8Locale("C.UTF-8");
  mystring m("Hello, World! 123 \xc3\xa4\xc3\x84 z");
  m.toUpperCase();
  EXPECT_EQ(m, "HELLO, WORLD! 123 \xc3\xa4\xc3\x84 Z") << "multibyte letters are bytes here";
  m.toLowerCase();
  EXPECT_EQ(m, "hello, world! 123 \xc3\xa4\xc3\x84 z");
  std::string all;
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  mystring upper(all);
  mystring lower(all);
  upper.toUpperCase();
  lower.toLowerCase();
  for (int b = 1; b < 256; ++b) {
    EXPECT_EQ(static_cast<unsigned char>(upper[static_cast<std::size_t>(b - 1)]), toupper(b));
    EXPECT_EQ(static_cast<unsigned char>(lower[static_cast<std::size_t>(b - 1)]), tolower(b));
  }
  mystring empty;
  empty.toUpperCase();
  EXPECT_EQ(empty, "");
}

TEST(Mywstring, CaseOperationsUseTheWideMappings) {
  ScopedLocale utf8Locale("C.UTF-8");
  mywstring w(L"Stra\u00dfe \u00e4\u00f6\u00fc \u03c3\u03c2 abc");
  w.toUpperCase();
  EXPECT_EQ(w, L"STRA\u00dfE \u00c4\u00d6\u00dc \u03a3\u03a3 ABC");
  w.toLowerCase();
  EXPECT_EQ(w, L"stra\u00dfe \u00e4\u00f6\u00fc \u03c3\u03c3 abc");
}

TEST(Mywstring, EqualsIgnoreCase) {
  ScopedLocale utf8Locale("C.UTF-8");
  EXPECT_TRUE(mywstring(L"abc").equalsIgnoreCase(mywstring(L"ABC")));
  EXPECT_FALSE(mywstring(L"abc").equalsIgnoreCase(mywstring(L"abcd")));
  EXPECT_FALSE(mywstring(L"abcd").equalsIgnoreCase(mywstring(L"abc")));
  EXPECT_FALSE(mywstring(L"abc").equalsIgnoreCase(mywstring(L"abd")));
  EXPECT_TRUE(mywstring(L"").equalsIgnoreCase(mywstring(L"")));
  EXPECT_TRUE(mywstring(L"\u00e4\u00d6").equalsIgnoreCase(mywstring(L"\u00c4\u00f6")));
  // The comparison is wcsncasecmp's: it ends at an embedded NUL.
  EXPECT_TRUE(mywstring(std::wstring(L"a\0b", 3)).equalsIgnoreCase(std::wstring(L"A\0c", 3)));
}

// ---- trim ------------------------------------------------------------------------------------------

TEST(MystringTrim, CutsBlanksOfTheGivenSetAtBothEnds) {
  const Counts before = counts();
  mystring t = mystring::trim("  ab c \t", " \t");
  EXPECT_EQ(t, "ab c");
  EXPECT_EQ(counts() - before, kNone) << "the range constructor counts nothing";
}

TEST(MystringTrim, BlanksOnlyOrEmptyGiveAnEmptyStringThroughTheCharConstructor) {
  for (const char* s : {"    ", "", " \t \t"}) {
    const Counts before = counts();
    mystring t = mystring::trim(s, " \t");
    EXPECT_EQ(t, "") << '"' << s << '"';
    EXPECT_EQ(counts() - before, (Counts{0, 1, 0, 0, 0, 0, 0, 0}));
  }
}

TEST(MystringTrim, MoreCases) {
  EXPECT_EQ(mystring::trim("\r\n\t x y \n"), "x y") << "default set: blank, tab, CR, LF";
  EXPECT_EQ(mystring::trim("\v x \v"), "\v x \v") << "vertical tab is not in the default set";
  EXPECT_EQ(mystring::trim("  keep  ", ""), "  keep  ");
  EXPECT_EQ(mystring::trim("x", " "), "x");
  EXPECT_EQ(mystring::trim(" x", " "), "x");
  EXPECT_EQ(mystring::trim("x ", " "), "x");
  EXPECT_EQ(mystring::trim("aabxbaa", "ab"), "x");
  EXPECT_EQ(mystring::trim("abba", "ab"), "");
  EXPECT_EQ(mystring::trim("\xa0\xc3\xa4\xa0", "\xa0"), "\xc3\xa4") << "bytes above 0x7F";
  EXPECT_EQ(mystring::trim("--a-b--", "-"), "a-b") << "inner blanks stay";
}

// The consistency checks of trim cannot fail for any text; the one after measuring the text is
// reached by a strlen that reports nothing.
TEST(MystringTrimDeathTest, MeasuredEndBeforeTheFirstNonBlank) {
  orvix_test::expectAssertion(
      [] {
        armedStrlen = 1;  // reports length 0
        mystring::trim("  x  ", " ");
      },
      kUnit, lineOf("end > start && !*end && (*(end - 1))"), kTrim,
      "end > start && !*end && (*(end - 1))");
}

TEST(MystringTrimDeathTest, MeasuredEndBeyondTheNul) {
  orvix_test::expectAssertion(
      [] {
        static const char text[] = "x\0y";
        armedStrlen = 3;  // reports length 2: end lands on the 'y' behind the NUL
        mystring::trim(text, " ");
      },
      kUnit, lineOf("end > start && !*end && (*(end - 1))"), kTrim,
      "end > start && !*end && (*(end - 1))");
}

TEST(Mystring, InvariantChecksAreInTheSource) {
  // These hold for every input, whatever the system calls report (the loops and the checks
  // before them establish them); no input reaches them, so the test pins their texts.
  for (const char* expr :
       {"start >= s && !(*start && ws.find(*start) != ws.end())", "ws.find(*start) == ws.end()",
        "start < end && ws.find(*start) == ws.end() && ws.find(*(end-1)) == ws.end()",
        "sourceAvailable >= 0", "sourceEnd == sourceBegin + sourceAvailable"})
    EXPECT_GT(lineOf(expr), 0) << expr;
}

// ---- orvix::Pos -----------------------------------------------------------------------------------

TEST(Pos, PrintsAsSignedDecimalInParentheses) {
  std::ostringstream s;
  std::ostream& returned = s << orvix::Pos{42} << '|' << orvix::Pos{-7} << '|' << orvix::Pos{0}
                             << '|' << orvix::Pos{INT_MIN} << '|' << orvix::Pos{INT_MAX};
  EXPECT_EQ(&returned, &s);
  EXPECT_EQ(s.str(), "(Pos 42)|(Pos -7)|(Pos 0)|(Pos -2147483648)|(Pos 2147483647)");
}

// ---- conversion: valid text ----------------------------------------------------------------------

TEST(MystringConversion, FiveLetterWordWithTwoUmlautLettersRoundTrips) {
  ScopedLocale utf8Locale("C.UTF-8");
  const mystring bytes("Gr\xc3\xb6\xc3\x9f" "e");
  ASSERT_EQ(bytes.size(), 7u);
  const mywstring w(bytes);
  EXPECT_EQ(w, wide({'G', 'r', 0xF6, 0xDF, 'e'}));
  const mystring back(w);
  EXPECT_EQ(back, bytes);
}

TEST(MystringConversion, EmptyStaysEmpty) {
  ScopedLocale utf8Locale("C.UTF-8");
  mbrtowcLog = new CallLog;
  wcrtombLog = new CallLog;
  mywstring w(L"old");
  w = mystring("");
  mystring m("old");
  m = mywstring(L"");
  EXPECT_EQ(w, L"");
  EXPECT_EQ(m, "");
  EXPECT_TRUE(mbrtowcLog->states.empty()) << "an empty source makes no call";
  EXPECT_TRUE(wcrtombLog->states.empty());
  delete mbrtowcLog;
  delete wcrtombLog;
  mbrtowcLog = wcrtombLog = nullptr;
}

TEST(MystringConversion, AssignmentReplacesTheOldContent) {
  ScopedLocale utf8Locale("C.UTF-8");
  mywstring w(L"something long that goes");
  mywstring& r = (w = mystring("\xe2\x82\xac"));
  EXPECT_EQ(&r, &w);
  EXPECT_EQ(w, L"\u20ac");
  mystring m("something long that goes");
  mystring& rm = (m = mywstring(L"\u20ac"));
  EXPECT_EQ(&rm, &m);
  EXPECT_EQ(m, "\xe2\x82\xac");
}

TEST(MystringConversion, OneStateAndOneScratchBufferPerString) {
  ScopedLocale utf8Locale("C.UTF-8");
  for (int round = 0; round < 2; ++round) {
    CallLog toWide;
    CallLog toBytes;
    mbrtowcLog = &toWide;
    const mywstring w(mystring("a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z"));
    mbrtowcLog = nullptr;
    wcrtombLog = &toBytes;
    const mystring m(w);
    wcrtombLog = nullptr;
    EXPECT_EQ(w, wide({'a', 0xE4, 0x20AC, 0x1F600, 'z'}));
    EXPECT_EQ(m, "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z");
    for (const CallLog* log : {&toWide, &toBytes}) {
      ASSERT_EQ(log->states.size(), 5u);
      for (std::size_t i = 0; i < log->states.size(); ++i) {
        EXPECT_NE(log->states[i], nullptr) << "never the library-wide hidden state";
        EXPECT_EQ(log->states[i], log->states[0]) << "one state for the whole string";
        EXPECT_TRUE(log->stateWasInitial[i]);
      }
    }
    for (const void* buffer : toBytes.buffers) EXPECT_EQ(buffer, toBytes.buffers[0]);
    EXPECT_NE(toBytes.buffers[0], nullptr);
  }
}

// Every Unicode scalar value, encoded by the reference encoder, converts to the same code point
// and back to the same bytes; the wide form of the code points converts to the same bytes.
TEST(MystringConversion, EveryScalarValueRoundTripsUnderCUtf8) {
  ScopedLocale utf8Locale("C.UTF-8");
  ASSERT_TRUE(utf8Locale.ok());
  const unsigned long kBatch = 4096;
  unsigned long checked = 0;
  for (unsigned long first = 0; first < 0x110000; first += kBatch) {
    std::wstring cps;
    std::string bytes;
    for (unsigned long cp = first; cp < first + kBatch; ++cp) {
      if (cp == 0 || (cp >= 0xD800 && cp <= 0xDFFF)) continue;
      cps += static_cast<wchar_t>(cp);
      bytes += utf8(cp);
    }
    checked += cps.size();
    if (cps.empty()) continue;
    const mystring text(bytes.data(), bytes.data() + bytes.size());
    const mywstring w(text);
    if (w != cps) {
      std::size_t i = 0;
      while (i < w.size() && i < cps.size() && w[i] == cps[i]) ++i;
      ADD_FAILURE() << "to wide: first difference at U+" << std::hex
                    << static_cast<unsigned long>(cps[i]);
      return;
    }
    const mystring back(w);
    ASSERT_TRUE(back == bytes) << "back to bytes, batch from U+" << std::hex << first;
    const mystring direct{mywstring(cps)};
    ASSERT_TRUE(direct == bytes) << "wide to bytes, batch from U+" << std::hex << first;
  }
  // U+0000 goes one way only: its byte is the embedded NUL that aborts the other way.
  EXPECT_EQ(checked + 1, 1112064u);
  const mystring nul{mywstring(std::wstring(1, L'\0'))};
  EXPECT_EQ(nul, std::string(1, '\0'));
}

// The target gets its whole capacity before the first character (the standard library here
// allocates exactly what is reserved): the character count of the UTF-8 text, a word at a time
// with a byte tail, and the UTF-8 length of the wide text, whatever the alignment.
TEST(MystringConversion, TargetIsSizedOnceUpFront) {
  ScopedLocale utf8Locale("C.UTF-8");
  const unsigned long kCycle[] = {'a', 0xE4, 0x20AC, 0x1F600, 'b', 0x3B1, 0x65E5};
  for (std::size_t length = 64; length < 64 + 24; ++length) {
    std::wstring cps;
    std::string bytes;
    for (std::size_t i = 0; i < length; ++i) {
      const unsigned long cp = kCycle[(i * 5 + length) % 7];
      cps += static_cast<wchar_t>(cp);
      bytes += utf8(cp);
    }
    const mywstring w{mystring(bytes)};
    EXPECT_EQ(w, cps);
    EXPECT_EQ(w.capacity(), w.size()) << length;
    const mystring m(w);
    EXPECT_EQ(m, bytes);
    EXPECT_EQ(m.capacity(), m.size()) << length;
  }
}

TEST(MystringConversion, TheReferenceEncoderItself) {
  EXPECT_EQ(utf8(0x41), "A");
  EXPECT_EQ(utf8(0xE4), "\xc3\xa4");
  EXPECT_EQ(utf8(0x7FF), "\xdf\xbf");
  EXPECT_EQ(utf8(0x800), "\xe0\xa0\x80");
  EXPECT_EQ(utf8(0x20AC), "\xe2\x82\xac");
  EXPECT_EQ(utf8(0xFFFF), "\xef\xbf\xbf");
  EXPECT_EQ(utf8(0x10000), "\xf0\x90\x80\x80");
  EXPECT_EQ(utf8(0x10FFFF), "\xf4\x8f\xbf\xbf");
  EXPECT_EQ(utf8(0x7FFFFFFF), "\xfd\xbf\xbf\xbf\xbf\xbf");
}

// Wide characters the locale cannot encode vanish without a word; the rest is kept in order.
TEST(MystringConversion, UnencodableWideCharactersAreDropped) {
  ScopedLocale utf8Locale("C.UTF-8");
  orvix_test::CaptureFd err(2);
  orvix_test::CaptureFd out(1);
  const mystring m{mywstring(wide({'a', 0xD800, 'b', 0xDFFF, 0x80000000UL, 'c', 0xFFFFFFFFUL}))};
  const std::string printed = err.text() + out.text();
  EXPECT_EQ(m, "abc");
  EXPECT_EQ(printed, "");
}

TEST(MystringConversion, ValuesAboveU10FFFFPassAsThePlatformEncodesThem) {
  // The conversion is the platform's: its UTF-8 converter still knows the old forms up to
  // 0x7FFFFFFF in both directions, and the library adds no check of its own.
  ScopedLocale utf8Locale("C.UTF-8");
  for (unsigned long cp : {0x110000UL, 0x1FFFFFUL, 0x200000UL, 0x3FFFFFFUL, 0x4000000UL,
                           0x7FFFFFFFUL}) {
    const mystring m{mywstring(wide({cp}))};
    EXPECT_EQ(m, utf8(cp)) << std::hex << cp;
    const mywstring w{mystring(utf8(cp))};
    EXPECT_EQ(w, wide({cp})) << std::hex << cp;
  }
}

TEST(MystringConversion, PosixLocaleDropsEveryNonAsciiWideCharacter) {
  ScopedLocale posix("POSIX");
  const mystring m{mywstring(wide({'a', 0xE4, 'b', 0x80, 0x20AC, 'c'}))};
  EXPECT_EQ(m, "abc");
  const mywstring w{mystring("plain ascii")};
  EXPECT_EQ(w, L"plain ascii");
}

// ---- conversion: malformed input -------------------------------------------------------------------

// Inputs with an invalid sequence after a valid prefix: the "mbrtowc: " line, Utf8Exception, and
// the prefix converted.
TEST(MystringConversion, MalformedCorpusThrowsWithThePartialResult) {
  ScopedLocale utf8Locale("C.UTF-8");
  std::vector<std::string> corpus = {
      // overlong forms
      "\xc0\x80", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x80\xaf", "\xe0\x9f\xbf",
      "\xf0\x80\x80\x80", "\xf0\x80\x80\xaf", "\xf0\x8f\xbf\xbf",
      // encoded surrogates, alone and as a pair
      "\xed\xa0\x80", "\xed\xad\xbf", "\xed\xae\x80", "\xed\xaf\xbf", "\xed\xb0\x80",
      "\xed\xbf\xbf", "\xed\xa0\x80\xed\xb0\x80",
      // bytes that never start a character
      "\xfe", "\xff", "\xfe\xfe\xff\xff", "\xc0", "\xc1",
      // sequences cut short by a following character
      "\xc3" "A", "\xe2\x82" "A", "\xe2" "A", "\xf0\x9f\x98" "A", "\xf0\x9f" "A", "\xf0" "A",
      "\xc3\xc3\xa4", "\xe2\x82\xe2\x82\xac",
  };
  for (int b = 0x80; b <= 0xBF; ++b) corpus.push_back(std::string(1, static_cast<char>(b)));
  const std::string lines = "mbrtowc: " + orvix_test::errorText(EILSEQ) + "\n";
  // The valid prefix: ASCII, two, three and four bytes.
  const std::string prefix = "x\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80";
  const std::wstring prefixWide = wide({'x', 0xE4, 0x20AC, 0x1F600});
  for (const std::string& bad : corpus) {
    for (const std::string& before : {std::string(), prefix}) {
      const mystring text(before + bad + "tail");
      mywstring w(L"previous");
      orvix_test::CaptureFd err(2);
      bool thrown = false;
      try {
        w = text;
      } catch (const Utf8Exception&) {
        thrown = true;
      }
      const std::string printed = err.text();
      EXPECT_TRUE(thrown) << hex(text);
      EXPECT_EQ(printed, lines) << hex(text);
      EXPECT_EQ(w, before.empty() ? std::wstring() : prefixWide) << hex(text);
    }
  }
}

// Every input of one or two bytes, and every three-byte input led by a three-byte lead, against
// the reference decoder (models/Utf8Model.hpp): those it says end without an abort convert to its
// characters, throw exactly where it says, and print the "mbrtowc: " line only then.
TEST(MystringConversion, EveryShortInputAgainstTheModel) {
  ScopedLocale utf8Locale("C.UTF-8");
  std::vector<std::string> inputs;
  for (int a = 0; a < 256; ++a) {
    inputs.push_back(std::string(1, static_cast<char>(a)));
    for (int b = 0; b < 256; ++b) {
      inputs.push_back(std::string{static_cast<char>(a), static_cast<char>(b)});
      if (a >= 0xE0 && a < 0xF0)
        for (int c = 0; c < 256; c += 3)
          inputs.push_back(std::string{static_cast<char>(a), static_cast<char>(b),
                                       static_cast<char>(c)});
    }
  }
  const std::string line = "mbrtowc: " + orvix_test::errorText(EILSEQ) + "\n";
  std::stringbuf diagnostics;
  std::streambuf* const previous = std::cerr.rdbuf(&diagnostics);
  int converted = 0, thrown = 0;
  for (const std::string& bytes : inputs) {
    const orvix_model::Utf8Decoded expected = orvix_model::decodeUtf8(bytes);
    if (expected.outcome == orvix_model::Utf8Outcome::kTruncated ||
        expected.outcome == orvix_model::Utf8Outcome::kNul)
      continue;
    const bool invalid = expected.outcome == orvix_model::Utf8Outcome::kInvalid;
    diagnostics.str(std::string());
    mywstring w;
    bool threw = false;
    try {
      w = mystring(bytes);
    } catch (const Utf8Exception&) {
      threw = true;
    }
    ++(threw ? thrown : converted);
    EXPECT_EQ(threw, invalid) << hex(bytes);
    EXPECT_EQ(w, expected.wide) << hex(bytes);
    EXPECT_EQ(diagnostics.str(), invalid ? line : "") << hex(bytes);
    if (::testing::Test::HasFailure()) break;
  }
  std::cerr.rdbuf(previous);
  EXPECT_GT(converted, 10000);
  EXPECT_GT(thrown, 10000);
}

TEST(MystringConversion, TheLoneFfByte) {
  ScopedLocale utf8Locale("C.UTF-8");
  orvix_test::CaptureFd err(2);
  orvix_test::CaptureFd out(1);
  bool thrown = false;
  try {
    mywstring w{mystring("\xff")};
  } catch (const Utf8Exception&) {
    thrown = true;
  }
  const std::string printed = err.text();
  EXPECT_TRUE(thrown);
  EXPECT_EQ(printed, "mbrtowc: Invalid or incomplete multibyte or wide character\n");
  EXPECT_EQ(out.text(), "");
}

TEST(MystringConversionDeathTest, SequenceCutOffByTheEndAtEveryLength) {
  // Every proper prefix of sequences of two, three and four bytes, at the end of the text.
  for (const char* sequence : {"\xc3\xa4", "\xdf\xbf", "\xe2\x82\xac", "\xef\xbf\xbf",
                               "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf"}) {
    const std::string full = sequence;
    for (std::size_t cut = 1; cut < full.size(); ++cut) {
      expectTruncated(full.substr(0, cut), 0);
      expectTruncated("ab\xc3\xa4" + full.substr(0, cut), 4);
    }
  }
}

TEST(MystringConversionDeathTest, StringEndingInTheFirstByteOfATwoByteSequence) {
  expectTruncated("Gr\xc3\xb6\xc3", 4);
}

TEST(MystringConversionDeathTest, CutOffMalformedSequencesCountAsCutOff) {
  // The platform's converter judges a sequence only once it is complete: the start of an
  // overlong form, of a surrogate or of a value above U+10FFFF at the end is a cut-off one.
  for (const char* bad : {"\xe0\x80", "\xed\xa0", "\xf4\x90", "\xf5", "\xf8\x88\x80\x80"})
    expectTruncated(std::string("ok") + bad, 2);
}

TEST(MystringConversionDeathTest, EmbeddedNulByteAborts) {
  for (const std::string& text : {std::string("\0", 1), std::string("ab\0cd", 5)}) {
    orvix_test::expectAssertion(
        [&] {
          setlocale(LC_ALL, "C.UTF-8");
          mywstring w{mystring(text.data(), text.data() + text.size())};
        },
        kUnit, lineOf("n > 0"), kToWide, "n > 0");
  }
}

TEST(MystringConversion, PosixLocaleRejectsBytesAboveAsciiAsInvalid) {
  // Under the POSIX locale the platform reports any byte above 0x7F as an invalid sequence
  // (EILSEQ), so it takes that path: one line, Utf8Exception, the ASCII before it kept.
  ScopedLocale posix("POSIX");
  for (int b = 0x80; b <= 0xFF; ++b) {
    const mystring text(std::string("ab") + static_cast<char>(b) + "c");
    mywstring w;
    orvix_test::CaptureFd err(2);
    bool thrown = false;
    try {
      w = text;
    } catch (const Utf8Exception&) {
      thrown = true;
    }
    const std::string printed = err.text();
    EXPECT_TRUE(thrown) << b;
    EXPECT_EQ(printed, "mbrtowc: " + orvix_test::errorText(EILSEQ) + "\n") << b;
    EXPECT_EQ(w, L"ab") << b;
  }
}

TEST(MystringConversionDeathTest, OtherErrorNamesTheCurrentCtypeLocale) {
  for (const char* locale : {"POSIX", "C.UTF-8"}) {
    const auto r = runInChild([&] {
      setlocale(LC_ALL, locale);
      armedMbrtowcErrno = EINVAL;
      mywstring w{mystring("abc")};
    });
    const std::string name = std::string(locale) == "POSIX" ? "C" : locale;
    const std::string text = orvix_test::errorText(EINVAL);
    ASSERT_TRUE(r.signaled()) << r.describe();
    EXPECT_EQ(r.signal(), SIGABRT);
    EXPECT_EQ(r.err, "mbrtowc: " + text + "\n" + "mbrtowc: Unerwarteter Fehler: " + text + "\n" +
                         "  Maybe, no valid locale was set. Current locale for LC_CTYPE: " +
                         name + "\n" + assertionIn(kToWide, "n > 0"));
    EXPECT_EQ(r.out, "");
  }
}

TEST(MystringConversionDeathTest, OtherErrorAfterSomeCharactersNamesTheCtypeLocaleOnly) {
  const auto r = runInChild([] {
    setlocale(LC_ALL, "C.UTF-8");
    setlocale(LC_CTYPE, "POSIX");
    armedMbrtowcErrno = ENOMEM;
    mywstring w{mystring("x")};
  });
  const std::string text = orvix_test::errorText(ENOMEM);
  EXPECT_EQ(r.err, "mbrtowc: " + text + "\n" + "mbrtowc: Unerwarteter Fehler: " + text + "\n" +
                       "  Maybe, no valid locale was set. Current locale for LC_CTYPE: C\n" +
                       assertionIn(kToWide, "n > 0"));
}

TEST(MystringConversionDeathTest, ConverterReportingMoreThanLeft) {
  orvix_test::expectAssertion(
      [] {
        setlocale(LC_ALL, "C.UTF-8");
        armedMbrtowcCount = 4;  // of three bytes
        mywstring w{mystring("abc")};
      },
      kUnit, lineOf("n <= sourceAvailable"), kToWide, "n <= sourceAvailable");
}

TEST(MystringConversionDeathTest, ConverterReportingMoreThanTheLongestCharacter) {
  orvix_test::expectAssertion(
      [] {
        setlocale(LC_ALL, "C.UTF-8");
        armedMbrtowcCount = static_cast<int>(MB_CUR_MAX) + 1;
        mywstring w{mystring("abcdefghijklmnop")};
      },
      kUnit, lineOf("n <= (ptrdiff_t) (__ctype_get_mb_cur_max ())"), kToWide,
      "n <= (ptrdiff_t) (__ctype_get_mb_cur_max ())");
}

// ---- threads -----------------------------------------------------------------------------------------

TEST(MystringConversion, ConversionsOnSeveralThreadsAtOnce) {
  // The conversion state lives on each caller's stack: concurrent conversions do not mix.
  ScopedLocale utf8Locale("C.UTF-8");
  const mystring texts[] = {mystring("\xc3\xa4\xc3\xb6\xc3\xbc"), mystring("\xe2\x82\xac\xe2\x82\xac"),
                            mystring("\xf0\x9f\x98\x80 ok"), mystring("plain")};
  const std::wstring expected[] = {L"\u00e4\u00f6\u00fc", L"\u20ac\u20ac",
                                   wide({0x1F600, ' ', 'o', 'k'}), L"plain"};
  int failures[4] = {0, 0, 0, 0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        const mywstring w(texts[t]);
        const mystring back(w);
        if (w != expected[t] || back != texts[t]) ++failures[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(failures[t], 0) << t;
}
