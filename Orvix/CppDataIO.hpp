// Typed values in a fixed order through a text file, and two small parsing helpers.
//
// orvix::IDataIO writes and reads scalar values one after another (a simple serialisation of
// settings or tables). orvix::TextFileDataIO keeps them in a text file, one decimal number per
// line; it is either a writer (forWrite) or a reader (forRead). Values narrower than int travel
// through the virtual w(int)/r(int&) and w(unsigned int)/r(unsigned int&), so a subclass that
// overrides those sees every narrow transfer too; r(short&) alone extracts a short directly.
// Failures throw util::GeneralException (which prints its warning line when constructed):
//   "Kann nicht in Datei schreiben: <path>" / "Kann nicht von Datei lesen: <path>" on opening,
//   "TextFileDataIO: Problem beim Schreiben" / "TextFileDataIO: Problem beim Lesen" when the
//   stream has any error bit (end of file included), before or after a transfer,
//   "TextFileDataIO has not been opened for writing, but one of the w() method has been
//   called." (and the same for reading with r()) on the wrong direction.
// After a stream error every further transfer throws again.
//
// parseNum reads a decimal or hexadecimal integer and throws ParseException on a bad decimal
// digit; orvix::stream::normalizePos wraps a position into [0, size).
//
// A TextFileDataIO belongs to one thread at a time. parseNum and normalizePos are reentrant.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Orvix/GeneralException.hpp"

namespace orvix {

// Writes and reads typed values in a fixed order.
class IDataIO {
 public:
  virtual ~IDataIO();
  virtual void w(bool x) = 0;
  virtual void r(bool& x) = 0;
  virtual void w(char x) = 0;
  virtual void r(char& x) = 0;
  virtual void w(unsigned char x) = 0;
  virtual void r(unsigned char& x) = 0;
  virtual void w(unsigned short x) = 0;
  virtual void r(unsigned short& x) = 0;
  virtual void w(unsigned int x) = 0;
  virtual void r(unsigned int& x) = 0;
  virtual void w(signed char x) = 0;
  virtual void r(signed char& x) = 0;
  virtual void w(short x) = 0;
  virtual void r(short& x) = 0;
  virtual void w(int x) = 0;
  virtual void r(int& x) = 0;
};

// IDataIO over a text file: each value is one line holding a decimal number.
class TextFileDataIO : public IDataIO {
 public:
  // A new writer on path, truncating the file; the caller owns it. Throws
  // "Kann nicht in Datei schreiben: <path>" when the file cannot be opened (nothing leaks).
  static TextFileDataIO* forWrite(const std::string& path);
  // A new reader on path; the caller owns it. Throws "Kann nicht von Datei lesen: <path>" when
  // the file cannot be opened (nothing leaks).
  static TextFileDataIO* forRead(const std::string& path);

  // Neither a writer nor a reader yet; the path is not used. For subclasses and the factories.
  explicit TextFileDataIO(const std::string& path);
  // Closes the file.
  ~TextFileDataIO() override;
  TextFileDataIO(const TextFileDataIO&) = delete;
  TextFileDataIO& operator=(const TextFileDataIO&) = delete;

  // Throw unless this is a writer (reader) whose stream has no error bit set.
  void checkWrite();
  void checkRead();

  // bool, char and signed char go through w(int)/r(int&), unsigned char and unsigned short
  // through w(unsigned int)/r(unsigned int&); reading narrows by plain conversion (bool: non-zero).
  // A char is written as its byte value 0..255 on every ABI, as on the controller, where char is
  // unsigned.
  void w(bool x) override;
  void r(bool& x) override;
  void w(char x) override;
  void r(char& x) override;
  void w(unsigned char x) override;
  void r(unsigned char& x) override;
  void w(unsigned short x) override;
  void r(unsigned short& x) override;
  void w(unsigned int x) override;
  void r(unsigned int& x) override;
  void w(signed char x) override;
  void r(signed char& x) override;
  void w(short x) override;
  // Extracts a short itself: a number out of range is a read problem, not narrowed.
  void r(short& x) override;
  void w(int x) override;
  void r(int& x) override;

 protected:
  // Owned; at most one of them is set. A subclass may open its own stream in one of them.
  std::ofstream* o;
  std::ifstream* i;

 private:
  // One checked transfer: check, set decimal, write x and a newline (extract x), check.
  template <class T>
  void put(T x);
  template <class T>
  void get(T& x);
};

namespace stream {

// pos wrapped into [0, size): size added while pos is negative, then pos modulo size; 0 when
// size is -1. size must be positive (or -1 with pos >= 0): a size of 0 raises SIGFPE, and a
// negative pos with a size <= 0 never returns.
int normalizePos(int pos, int size);

}  // namespace stream
}  // namespace orvix

// The integer in str (NUL-terminated). "0x" or "0X" followed by at least one character is
// hexadecimal: every 0-9, a-f, A-F is a digit, every other character is skipped. Otherwise
// decimal with an optional leading minus ("012" is twelve); the empty text and a lone minus
// give 0, any other non-digit throws ParseException. Both wrap modulo 2^64, unchecked.
int64_t parseNum(const char* str);
