#include "Orvix/CppMystring.hpp"

#include <alloca.h>
#include <cerrno>
#include <cctype>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <iostream>
#include <set>
#include <utility>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace {

constexpr const char* kUnit = "Orvix/CppMystring";

// The UTF-8 length of wide, counting every character as encodable. Only a capacity hint:
// growing the target step by step while converting costs more than the conversion calls
// themselves once the text is large.
std::size_t utf8Length(const std::wstring& wide) {
  std::size_t length = 0;
  for (const wchar_t wc : wide) {
    const auto c = static_cast<uint32_t>(wc);
    length += c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
  }
  return length;
}

// The number of characters of text if it is UTF-8: the bytes that do not continue a character
// (10xxxxxx). A capacity hint like utf8Length; counted a machine word at a time, since a byte
// loop costs a noticeable part of the conversion itself.
std::size_t utf8CharCount(const char* p, const char* end) {
  constexpr std::size_t kLow = ~std::size_t{0} / 0xFF;  // 0x01 in every byte
  std::size_t count = 0;
  for (; end - p >= static_cast<ptrdiff_t>(sizeof(std::size_t)); p += sizeof(std::size_t)) {
    std::size_t w;
    std::memcpy(&w, p, sizeof w);
    const std::size_t starts = ~((w >> 7) & ~(w >> 6)) & kLow;  // 1 where a byte starts one
    count += (starts * kLow) >> (8 * (sizeof w - 1));             // the sum of the lanes
  }
  for (; p != end; ++p) count += (static_cast<unsigned char>(*p) & 0xC0) != 0x80;
  return count;
}

// Copies the n bytes of one multibyte character (one to four in UTF-8) without a library call,
// which would cost more than the copy.
inline void copyCharacter(char* to, const char* from, ptrdiff_t n) {
  switch (n) {
    case 4: to[3] = from[3]; [[fallthrough]];
    case 3: to[2] = from[2]; [[fallthrough]];
    case 2: to[1] = from[1]; [[fallthrough]];
    case 1: to[0] = from[0]; break;
    default: std::memcpy(to, from, static_cast<std::size_t>(n));
  }
}

// Converted characters are gathered here and appended to the target in blocks: one append per
// character would cost about as much as the conversion call itself.
constexpr std::size_t kBlock = 256;

}  // namespace

namespace tavo2 {

int mystring::countDefaultConstr = 0;
int mystring::countCharConstr = 0;
int mystring::countCopyConstr = 0;
int mystring::countCopyCast = 0;
int mystring::countMoveConstr = 0;
int mystring::countMoveCast = 0;
int mystring::countConstAssign = 0;
int mystring::countMoveAssign = 0;

mystring::mystring() { ++countDefaultConstr; }

mystring::mystring(const char* s, bool) : std::string(s) { ++countCharConstr; }

mystring::mystring(const char* first, const char* last) : std::string(first, last) {}

mystring::mystring(std::string::const_iterator first, std::string::const_iterator last)
    : std::string(first, last) {}

mystring::mystring(const std::string& other) : std::string(other) { ++countCopyCast; }

mystring::mystring(const mystring& other) : std::string(other) { ++countCopyConstr; }

mystring::mystring(std::string&& other) noexcept : std::string(std::move(other)) {
  ++countMoveCast;
}

mystring::mystring(mystring&& other) noexcept : std::string(std::move(other)) {
  ++countMoveConstr;
}

mystring::mystring(const mywstring& wide) { *this = wide; }

mystring::~mystring() = default;

mystring& mystring::operator=(const mystring& other) {
  ++countConstAssign;
  std::string::operator=(other);
  return *this;
}

mystring& mystring::operator=(mystring&& other) noexcept {
  ++countMoveAssign;
  std::string::operator=(std::move(other));
  return *this;
}

mystring& mystring::operator=(const mywstring& wide) {
  clear();
  mbstate_t state;
  std::memset(&state, 0, sizeof state);
  const std::size_t mbCurMax = MB_CUR_MAX;
  char* const scratch = static_cast<char*>(alloca(mbCurMax));
  reserve(utf8Length(wide));
  char block[kBlock];
  std::size_t filled = 0;
  for (const wchar_t wc : wide) {
    const ptrdiff_t n = static_cast<ptrdiff_t>(wcrtomb(scratch, wc, &state));
    if (n <= 0) continue;  // not encodable here: dropped
    if (filled + static_cast<std::size_t>(n) > sizeof block) {
      append(block, filled);
      filled = 0;
    }
    copyCharacter(block + filled, scratch, n);
    filled += static_cast<std::size_t>(n);
  }
  append(block, filled);
  return *this;
}

mystring&& mystring::operator+(mystring&& rhs) && {
  append(rhs);
  return std::move(*this);
}

void mystring::toUpperCase() {
  for (char& c : *this) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

void mystring::toLowerCase() {
  for (char& c : *this) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

mystring mystring::trim(const char* s, const char* blanks) {
  std::set<char> ws;
  for (const char* b = blanks; *b; ++b) ws.insert(*b);
  const char* start = s;
  while (*start && ws.find(*start) != ws.end()) ++start;
  if (!*start) return mystring("", true);
  ORVIX_ASSERT(start >= s && !(*start && ws.find(*start) != ws.end()),
               "start >= s && !(*start && ws.find(*start) != ws.end())", kUnit, __LINE__);
  ORVIX_ASSERT(ws.find(*start) == ws.end(), "ws.find(*start) == ws.end()", kUnit, __LINE__);
  const char* end = start + std::strlen(start);
  ORVIX_ASSERT(end > start && !*end && (*(end - 1)), "end > start && !*end && (*(end - 1))", kUnit,
               __LINE__);
  // Bounded by start only for safety: a valid input stops at start's own non-blank character.
  while (end > start && ws.find(*(end - 1)) != ws.end()) --end;
  ORVIX_ASSERT(start < end && ws.find(*start) == ws.end() && ws.find(*(end - 1)) == ws.end(),
               "start < end && ws.find(*start) == ws.end() && ws.find(*(end-1)) == ws.end()",
               kUnit, __LINE__);
  return mystring(start, end);
}

void mystring::dumpCounts() {
  safeCerr << "Counts of mystring:\n"
           << "countDefaultConstr=" << countDefaultConstr << "\n"
           << "countCharConstr=" << countCharConstr << "\n"
           << "countCopyConstr=" << countCopyConstr << "\n"
           << "countCopyCast=" << countCopyCast << "\n"
           << "countMoveConstr=" << countMoveConstr << "\n"
           << "countMoveCast=" << countMoveCast << "\n"
           << "countConstAssign=" << countConstAssign << "\n"
           << "countMoveAssign=" << countMoveAssign << std::endl;
}

mywstring::mywstring() = default;

mywstring::mywstring(const wchar_t* s) : std::wstring(s) {}

mywstring::mywstring(const std::wstring& other) : std::wstring(other) {}

mywstring::mywstring(const mywstring& other) = default;

mywstring::mywstring(mywstring&& other) noexcept = default;

mywstring::mywstring(std::wstring&& other) noexcept : std::wstring(std::move(other)) {}

mywstring::mywstring(const mystring& text) { *this = text; }

mywstring::~mywstring() = default;

mywstring& mywstring::operator=(const mywstring& other) = default;

mywstring& mywstring::operator=(mywstring&& other) noexcept = default;

namespace {

// The "mbrtowc: " line for the error err of mbrtowc. For anything but an invalid sequence the
// same block goes on with the hint on the locale, which is the usual cause; the caller then
// aborts. For an invalid sequence the caller throws.
void reportMbrtowcError(int err) {
  char text[1024];
  const char* message = strerror_r(err, text, sizeof text);
  tss::Internal block = safeCerr << "mbrtowc: " << message << std::endl;
  if (err == EILSEQ) return;
  block << "mbrtowc: Unerwarteter Fehler: " << message << "\n"
        << "  Maybe, no valid locale was set. Current locale for LC_CTYPE: "
        << setlocale(LC_CTYPE, nullptr) << std::endl;
}

}  // namespace

mywstring& mywstring::operator=(const mystring& text) {
  clear();
  mbstate_t state;
  std::memset(&state, 0, sizeof state);
  const char* const start = text.data();
  const char* sourceBegin = start;
  ptrdiff_t sourceAvailable = static_cast<ptrdiff_t>(text.size());
  const char* const sourceEnd = sourceBegin + sourceAvailable;
  const ptrdiff_t mbCurMax = static_cast<ptrdiff_t>(MB_CUR_MAX);
  reserve(utf8CharCount(start, sourceEnd));
  wchar_t block[kBlock];
  std::size_t filled = 0;
  while (sourceAvailable > 0) {
    wchar_t wc;
    const ptrdiff_t n = static_cast<ptrdiff_t>(
        mbrtowc(&wc, sourceBegin, static_cast<std::size_t>(sourceAvailable), &state));
    if (n < 0) {
      const int err = errno;
      append(block, filled);  // what was converted so far stays
      filled = 0;
      if (n == -2) {
        safeCerr << "utf8 string that shall be converted to utf32 does not contain a valid "
                    "multibyte character at pos "
                 << (sourceBegin - start) << std::endl;
      } else {
        reportMbrtowcError(err);
        if (err == EILSEQ) throw Utf8Exception();
      }
    }
    ORVIX_ASSERT(n > 0, "n > 0", kUnit, __LINE__);
    ORVIX_ASSERT(n <= sourceAvailable, "n <= sourceAvailable", kUnit, __LINE__);
    ORVIX_ASSERT(n <= mbCurMax, "n <= (ptrdiff_t) (__ctype_get_mb_cur_max ())", kUnit, __LINE__);
    sourceAvailable -= n;
    ORVIX_ASSERT(sourceAvailable >= 0, "sourceAvailable >= 0", kUnit, __LINE__);
    sourceBegin += n;
    ORVIX_ASSERT(sourceEnd == sourceBegin + sourceAvailable,
                 "sourceEnd == sourceBegin + sourceAvailable", kUnit, __LINE__);
    if (filled == kBlock) {
      append(block, filled);
      filled = 0;
    }
    block[filled++] = wc;
  }
  append(block, filled);
  return *this;
}

void mywstring::toUpperCase() {
  for (wchar_t& c : *this) c = static_cast<wchar_t>(towupper(static_cast<wint_t>(c)));
}

void mywstring::toLowerCase() {
  for (wchar_t& c : *this) c = static_cast<wchar_t>(towlower(static_cast<wint_t>(c)));
}

bool mywstring::equalsIgnoreCase(const mywstring& other) const {
  return size() == other.size() && wcsncasecmp(c_str(), other.c_str(), size()) == 0;
}

}  // namespace tavo2

namespace orvix {

std::ostream& operator<<(std::ostream& os, const Pos& p) { return os << "(Pos " << p.pos << ")"; }

}  // namespace orvix
