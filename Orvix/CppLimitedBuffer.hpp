// A bounded ring of trace text with small binary state value lists tied to points of the text.
//
// Producers on any thread append raw text (add), printf-formatted lines (addf) and state value
// lists (addStateValueList); when the ring is full the oldest bytes are overwritten byte-exactly,
// so the oldest surviving piece may start in its middle. print writes the surviving text oldest
// first, each surviving state value list rendered by the caller's formatter at the point where it
// was recorded. Producers are blocked only while print copies the ring, never while it writes.
//
// A process-wide switch (off at load, LimitedBuffer::setEnabled) gates add, addf,
// addStateValueList and print: while it is off they return at once, write nothing and take no
// lock. util::gl_pWendelLimitedBuffer is the process-wide buffer the lock diagnostics dump.
// LBInteractiveDump prints a buffer each time the operator presses Enter on the console.
//
// Misuse (empty formatter, a piece not shorter than the ring, positions outside the ring) is an
// assertion failure that aborts; a mutex failure throws std::system_error.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>

#include "Orvix/CppLimitedStateValueBuffer.hpp"

namespace util {

class LimitedBuffer {
 public:
  using FormatStateValueList = std::function<void(std::ostream&, const char*)>;
  // The lock internAdd's caller holds.
  using L = std::unique_lock<std::mutex>;

  // A ring of size bytes; state value lists of bytesPerValueList bytes each, rendered by
  // formatStateValueList (must not be empty).
  LimitedBuffer(std::size_t size, int bytesPerValueList,
                std::function<void(std::ostream&, const char*)> formatStateValueList);
  virtual ~LimitedBuffer();
  LimitedBuffer(const LimitedBuffer&) = delete;
  LimitedBuffer& operator=(const LimitedBuffer&) = delete;

  // Turns the process-wide switch on or off; it is off at load.
  static void setEnabled(bool on);
  static bool isEnabled();

  // Appends len bytes (strictly fewer than the ring holds); nothing is put between pieces.
  void add(const char* text, std::size_t len);
  // Appends printf-formatted text, cut to 511 characters.
  void addf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Records one state value list at the current write position.
  void addStateValueList(const char* values, int numBytes);

  // The append itself; the caller holds lock on mutex.
  void internAdd(const char* text, std::size_t len, L& lock);

  // Bytes from a forward to b in the ring; diff(a, a) is the whole ring, not 0.
  std::size_t diff(char* a, char* b) const;
  // a moved by delta bytes, wrapping in either direction.
  char* walk(char* a, ptrdiff_t delta) const;

  // Writes partSize bytes of the ring from partBegin on, wrapping at the end; takes mutex.
  void readPart(char* partBegin, std::size_t partSize, std::ostream& os);

  // Writes the surviving text with its state value lists between two frame lines.
  void print(std::ostream& os);

  // Aborts unless the ring pointers are consistent.
  void checkInvariants() const;

  // Read access for diagnostics and tests; take no lock.
  char* ringBegin() const { return begin; }
  char* ringEnd() const { return end; }
  char* writePos() const { return next; }
  std::size_t validSize() const { return size; }
  const LimitedStateValueBuffer& stateValueLists() const { return stateValues; }

 private:
  // Writes [from, to) of a ring copy (wrapping when to does not lie after from; the whole copy
  // when they meet and a full ring is still owed). Returns the bytes written.
  static std::size_t writeStretch(std::ostream& os, const char* ring, std::size_t ringLen,
                                  std::size_t from, std::size_t to, std::size_t owed);

  // begin and end are written once, in the constructor (after its precondition check).
  char* begin;
  char* end;
  char* next;        // guarded by mutex; always in [begin, end)
  std::size_t size;  // guarded by mutex; valid bytes, at most end - begin
  std::mutex mutex;
  std::condition_variable cond;  // kept for the object's shape; nothing waits on it
  char lineBuffer[512];          // guarded by mutex; addf's scratch
  LimitedStateValueBuffer stateValues;  // guarded by mutex
  const FormatStateValueList formatStateValueList;
};

// Calls lb.print(os).
std::ostream& operator<<(std::ostream& os, util::LimitedBuffer& lb);

// The process-wide trace buffer; empty at load. Set it before other threads use it.
extern std::shared_ptr<util::LimitedBuffer> gl_pWendelLimitedBuffer;

// A console thread: each line read from standard input prints the buffer to standard output;
// "q" or the end of input ends it. The destructor joins the thread.
class LBInteractiveDump {
 public:
  explicit LBInteractiveDump(util::LimitedBuffer& lb);
  virtual ~LBInteractiveDump();
  LBInteractiveDump(const LBInteractiveDump&) = delete;
  LBInteractiveDump& operator=(const LBInteractiveDump&) = delete;

 private:
  void run();

  util::LimitedBuffer& lb;
  std::thread thread;
};

}  // namespace util
