#include "Orvix/CppDataIO.hpp"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <memory>

#include "Orvix/OrvixAssert.hpp"

namespace {

constexpr const char* kUnit = "Orvix/CppDataIO";

}  // namespace

namespace orvix {

IDataIO::~IDataIO() = default;

TextFileDataIO* TextFileDataIO::forWrite(const std::string& path) {
  std::unique_ptr<TextFileDataIO> x(new TextFileDataIO(path));
  ORVIX_ASSERT(!x->i, "!x->i", kUnit, __LINE__);
  x->o = new std::ofstream(path, std::ios::out);
  if (!*x->o) throw util::GeneralException("Kann nicht in Datei schreiben: " + path);
  return x.release();
}

TextFileDataIO* TextFileDataIO::forRead(const std::string& path) {
  std::unique_ptr<TextFileDataIO> x(new TextFileDataIO(path));
  ORVIX_ASSERT(!x->o, "!x->o", kUnit, __LINE__);
  x->i = new std::ifstream(path, std::ios::in);
  if (!*x->i) throw util::GeneralException("Kann nicht von Datei lesen: " + path);
  return x.release();
}

TextFileDataIO::TextFileDataIO(const std::string&) : o(nullptr), i(nullptr) {}

TextFileDataIO::~TextFileDataIO() {
  delete o;
  delete i;
}

namespace {

// The common state check: the stream must exist and have no error bit, end of file included.
void check(const std::ios* stream, const char* notOpened, const char* problem) {
  if (!stream) throw util::GeneralException(notOpened);
  if (stream->rdstate() != std::ios::goodbit) throw util::GeneralException(problem);
}

}  // namespace

void TextFileDataIO::checkWrite() {
  check(o,
        "TextFileDataIO has not been opened for writing, but one of the w() method has been "
        "called.",
        "TextFileDataIO: Problem beim Schreiben");
}

void TextFileDataIO::checkRead() {
  check(i,
        "TextFileDataIO has not been opened for reading, but one of the r() method has been "
        "called.",
        "TextFileDataIO: Problem beim Lesen");
}

template <class T>
void TextFileDataIO::put(T x) {
  checkWrite();
  *o << std::dec << x << "\n";
  checkWrite();
}

template <class T>
void TextFileDataIO::get(T& x) {
  checkRead();
  *i >> std::dec >> x;
  checkRead();
}

void TextFileDataIO::w(int x) { put(x); }
void TextFileDataIO::r(int& x) { get(x); }
void TextFileDataIO::w(unsigned int x) { put(x); }
void TextFileDataIO::r(unsigned int& x) { get(x); }

void TextFileDataIO::w(short x) { w(static_cast<int>(x)); }

void TextFileDataIO::r(short& x) { get(x); }

void TextFileDataIO::w(bool x) { w(static_cast<int>(x)); }

void TextFileDataIO::r(bool& x) {
  int v = 0;
  r(v);
  x = v != 0;
}

void TextFileDataIO::w(char x) { w(static_cast<int>(static_cast<unsigned char>(x))); }

void TextFileDataIO::r(char& x) {
  int v = 0;
  r(v);
  x = static_cast<char>(v);
}

void TextFileDataIO::w(signed char x) { w(static_cast<int>(x)); }

void TextFileDataIO::r(signed char& x) {
  int v = 0;
  r(v);
  x = static_cast<signed char>(v);
}

void TextFileDataIO::w(unsigned char x) { w(static_cast<unsigned int>(x)); }

void TextFileDataIO::r(unsigned char& x) {
  unsigned int v = 0;
  r(v);
  x = static_cast<unsigned char>(v);
}

void TextFileDataIO::w(unsigned short x) { w(static_cast<unsigned int>(x)); }

void TextFileDataIO::r(unsigned short& x) {
  unsigned int v = 0;
  r(v);
  x = static_cast<unsigned short>(v);
}

namespace stream {

int normalizePos(int pos, int size) {
  if (pos < 0) {
    // Adding a size <= 0 never makes pos non-negative: the caller's loop would spin for ever.
    if (size <= 0)
      for (;;) pause();
    // The remainder is where adding size until pos is no longer negative ends, without the loop.
    pos %= size;
    if (pos < 0) pos += size;
  }
  if (size == -1) return 0;
  if (size == 0) {
    // The division by zero, made the same on every ABI (ARM does not trap on it).
    raise(SIGFPE);
    return 0;
  }
  return pos % size;
}

}  // namespace stream
}  // namespace orvix

namespace {

// Value of each character as a hexadecimal digit, -1 for the characters that are skipped.
constexpr std::array<signed char, 256> makeHexDigits() {
  std::array<signed char, 256> t{};
  for (int c = 0; c < 256; ++c) t[c] = -1;
  for (int c = '0'; c <= '9'; ++c) t[c] = static_cast<signed char>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c) t[c] = static_cast<signed char>(c - 'a' + 10);
  for (int c = 'A'; c <= 'F'; ++c) t[c] = static_cast<signed char>(c - 'A' + 10);
  return t;
}

constexpr std::array<signed char, 256> kHexDigits = makeHexDigits();

}  // namespace

int64_t parseNum(const char* str) {
  // Unsigned arithmetic: the value wraps modulo 2^64 instead of overflowing.
  uint64_t value = 0;
  if (str[0] == '0' && (str[1] == 'x' || str[1] == 'X') && str[2] != '\0') {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(str) + 2; *p; ++p) {
      const int digit = kHexDigits[*p];
      if (digit >= 0) value = (value << 4) + static_cast<unsigned>(digit);
    }
    return static_cast<int64_t>(value);
  }
  const bool negative = str[0] == '-';
  for (const char* p = negative ? str + 1 : str; *p; ++p) {
    const unsigned digit = static_cast<unsigned char>(*p) - unsigned{'0'};
    if (digit > 9) throw ParseException("ParseException");
    value = value * 10 + digit;
  }
  return static_cast<int64_t>(negative ? 0 - value : value);
}
