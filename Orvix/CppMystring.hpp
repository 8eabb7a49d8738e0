// Byte and wide strings with conversion between UTF-8 and UTF-32.
//
// tavo2::mystring is a std::string (UTF-8 by convention) that counts how often each kind of
// construction and assignment ran, for tracing copies; tavo2::mywstring is a std::wstring (one
// 32-bit wchar_t per character). Assigning one to the other converts through mbrtowc/wcrtomb
// under the process's current LC_CTYPE locale, so the process must have set a UTF-8 locale
// (initLocale, or setlocale) before converting.
//
// Threads: the objects are as thread-safe as std::string. The counters are plain ints updated
// without any lock, so counts made on several threads at once may be lost (a tracing aid only).
// The conversions keep their whole state on the caller's stack; their diagnostics go through
// safeCerr.
//
// Failures:
//   - wide to UTF-8: a wide character the locale cannot encode is dropped without notice;
//   - UTF-8 to wide, invalid sequence (EILSEQ): the line "mbrtowc: <error text>" on safeCerr,
//     then tavo2::Utf8Exception is thrown; the characters before it stay in the target;
//   - UTF-8 to wide, a sequence cut off by the end of the string: the line "utf8 string that
//     shall be converted to utf32 does not contain a valid multibyte character at pos <index>"
//     on safeCerr, then the assertion "n > 0" aborts;
//   - UTF-8 to wide, an embedded NUL byte: the assertion "n > 0" aborts;
//   - UTF-8 to wide, any other mbrtowc error (no usable locale): the "mbrtowc: " line, a line
//     "mbrtowc: Unerwarteter Fehler: <error text>" and a line naming the current LC_CTYPE locale
//     on safeCerr, then the assertion "n > 0" aborts;
//   - a null const char* is rejected as by std::string (std::logic_error).
#pragma once

#include <ostream>
#include <string>

namespace tavo2 {

class mywstring;

// Thrown by value when UTF-8 input holds an invalid sequence. Carries nothing: the diagnostic
// line has already been written to safeCerr.
class Utf8Exception {};

// A byte string (UTF-8 by convention) that counts its constructions and assignments.
class mystring : public std::string {
 public:
  // Empty. Counts countDefaultConstr.
  mystring();
  // Copy of the NUL-terminated text s; the flag is ignored and only selects this overload.
  // Counts countCharConstr.
  mystring(const char* s, bool ignored = true);
  // Copy of [first, last). Counts nothing.
  mystring(const char* first, const char* last);
  // Copy of [first, last). Counts nothing.
  mystring(std::string::const_iterator first, std::string::const_iterator last);
  // Counts countCopyCast.
  mystring(const std::string& other);
  // Counts countCopyConstr.
  mystring(const mystring& other);
  // Counts countMoveCast.
  mystring(std::string&& other) noexcept;
  // Counts countMoveConstr.
  mystring(mystring&& other) noexcept;
  // UTF-8 form of wide, as operator=(const mywstring&). Counts nothing.
  mystring(const mywstring& wide);
  virtual ~mystring();

  // Counts countConstAssign.
  mystring& operator=(const mystring& other);
  // Counts countMoveAssign.
  mystring& operator=(mystring&& other) noexcept;
  // Replaces the content with the multibyte form of wide under the current LC_CTYPE locale;
  // characters the locale cannot encode are dropped. Counts nothing.
  mystring& operator=(const mywstring& wide);

  // Appends rhs to this expiring string and returns this same string, so a chain of + on
  // temporaries grows one buffer. The result refers to the left operand: bind it to a
  // mystring, not to a reference that outlives the full expression.
  mystring&& operator+(mystring&& rhs) &&;

  // In place, byte by byte with toupper / tolower of the current locale.
  void toUpperCase();
  void toLowerCase();

  // s without the leading and trailing characters that occur in blanks.
  static mystring trim(const char* s, const char* blanks = " \t\r\n");

  // Writes every counter to safeCerr as one block:
  //   "Counts of mystring:\ncountDefaultConstr=<n>\n...countMoveAssign=<n>\n".
  static void dumpCounts();

  static int countDefaultConstr;
  static int countCharConstr;
  static int countCopyConstr;
  static int countCopyCast;
  static int countMoveConstr;
  static int countMoveCast;
  static int countConstAssign;
  static int countMoveAssign;
};

// A wide string: one wchar_t (32 bits, UTF-32) per character.
class mywstring : public std::wstring {
 public:
  mywstring();
  // Copy of the NUL-terminated text s.
  mywstring(const wchar_t* s);
  mywstring(const std::wstring& other);
  mywstring(const mywstring& other);
  mywstring(mywstring&& other) noexcept;
  mywstring(std::wstring&& other) noexcept;
  // Wide form of text, as operator=(const mystring&).
  mywstring(const mystring& text);
  virtual ~mywstring();

  mywstring& operator=(const mywstring& other);
  mywstring& operator=(mywstring&& other) noexcept;
  // Replaces the content with the wide form of the multibyte text under the current LC_CTYPE
  // locale. Throws Utf8Exception on an invalid sequence (the characters before it are kept);
  // aborts on a truncated sequence, an embedded NUL byte or a locale that cannot convert.
  mywstring& operator=(const mystring& text);

  // In place with towupper / towlower of the current locale.
  void toUpperCase();
  void toLowerCase();

  // True when both have the same length and wcsncasecmp over that length finds them equal.
  bool equalsIgnoreCase(const mywstring& other) const;
};

}  // namespace tavo2

namespace orvix {

// A position in a text or a stream.
struct Pos {
  int pos;
};

// Writes "(Pos <pos>)" with pos as a signed decimal (under the stream's default formatting).
std::ostream& operator<<(std::ostream& os, const Pos& p);

}  // namespace orvix
