#include "Orvix/CppLimitedBuffer.hpp"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/internal/StartupOrder.hpp"

namespace util {

namespace {

constexpr const char* kUnit = "Orvix/CppLimitedBuffer";

// Zero-initialised before any constructor runs, so the switch is off at load.
std::atomic<bool> enabled;

}  // namespace

std::shared_ptr<util::LimitedBuffer> gl_pWendelLimitedBuffer
    ORVIX_INIT_PRIORITY(ORVIX_INIT_LIMITED_BUFFER);

LimitedBuffer::LimitedBuffer(std::size_t size, int bytesPerValueList,
                             std::function<void(std::ostream&, const char*)> formatStateValueList)
    : begin(nullptr),
      end(nullptr),
      next(nullptr),
      size(0),
      lineBuffer(),
      stateValues(bytesPerValueList),
      formatStateValueList(std::move(formatStateValueList)) {
  ORVIX_ASSERT(this->formatStateValueList, "formatStateValueList", kUnit, 57);
  begin = new char[size];
  end = begin + size;
  next = begin;
  checkInvariants();
}

LimitedBuffer::~LimitedBuffer() { delete[] begin; }

void LimitedBuffer::setEnabled(bool on) { enabled.store(on); }

bool LimitedBuffer::isEnabled() { return enabled.load(); }

void LimitedBuffer::checkInvariants() const {
  ORVIX_ASSERT(begin < end, "begin < end", kUnit, 156);
  ORVIX_ASSERT(begin <= next, "begin <= next", kUnit, 157);
  ORVIX_ASSERT(next < end, "next < end", kUnit, 158);
  ORVIX_ASSERT((ptrdiff_t)size <= (end - begin), "(ptrdiff_t)size <= (end - begin)", kUnit, 159);
}

void LimitedBuffer::add(const char* text, std::size_t len) {
  if (!enabled.load()) return;
  L lock(mutex);
  internAdd(text, len, lock);
}

void LimitedBuffer::addf(const char* format, ...) {
  if (!enabled.load()) return;
  L lock(mutex);
  va_list args;
  va_start(args, format);
  const int result = vsnprintf(lineBuffer, sizeof lineBuffer, format, args);
  va_end(args);
  if (result < 0) return;
  // vsnprintf kept only what fits before the terminator.
  internAdd(lineBuffer, std::min<std::size_t>(static_cast<std::size_t>(result), 511), lock);
}

void LimitedBuffer::addStateValueList(const char* values, int numBytes) {
  if (!enabled.load()) return;
  L lock(mutex);
  stateValues.add(static_cast<int>(next - begin), values, numBytes);
}

void LimitedBuffer::internAdd(const char* text, std::size_t len, L& /*lock*/) {
  checkInvariants();
  ORVIX_ASSERT((ptrdiff_t)len < (end - begin), "(ptrdiff_t)len < (end - begin)", kUnit, 125);
  char* const oldNext = next;
  if (next + len < end) {
    std::memcpy(next, text, len);
    next += len;
  } else {
    const std::size_t first = static_cast<std::size_t>(end - next);
    std::memcpy(next, text, first);
    std::memcpy(begin, text + first, len - first);
    next = begin + (len - first);
  }
  size = std::min<std::size_t>(size + len, static_cast<std::size_t>(end - begin));
  stateValues.removeOverwritten(static_cast<int>(oldNext - begin), static_cast<int>(next - begin),
                                static_cast<int>(end - begin));
  checkInvariants();
}

std::size_t LimitedBuffer::diff(char* a, char* b) const {
  ORVIX_ASSERT(begin <= a && a < end, "begin <= a && a < end", kUnit, 165);
  ORVIX_ASSERT(begin <= b && b < end, "begin <= b && b < end", kUnit, 166);
  if (a < b) return static_cast<std::size_t>(b - a);
  // Equal pointers mean a full circle, not an empty stretch.
  return static_cast<std::size_t>((end - a) + (b - begin));
}

char* LimitedBuffer::walk(char* a, ptrdiff_t delta) const {
  ORVIX_ASSERT(begin <= a && a < end, "begin <= a && a < end", kUnit, 171);
  const ptrdiff_t capacity = end - begin;
  ptrdiff_t r = (a - begin + delta) % capacity;
  while (r < 0) r += capacity;
  char* const result = begin + r;
  // Cannot fail after the modulo above; kept as the contract's check of the result.
  ORVIX_ASSERT(begin <= result && result < end, "begin <= a && a < end", kUnit, 178);
  return result;
}

void LimitedBuffer::readPart(char* partBegin, std::size_t partSize, std::ostream& os) {
  ORVIX_ASSERT(begin <= partBegin && partBegin < end, "begin <= partBegin && partBegin < end",
               kUnit, 355);
  ORVIX_ASSERT((ptrdiff_t)partSize <= (end - begin), "(ptrdiff_t)partSize <= (end - begin)", kUnit,
               356);
  L lock(mutex);
  const std::size_t first = std::min(partSize, static_cast<std::size_t>(end - partBegin));
  os.write(partBegin, static_cast<std::streamsize>(first));
  os.write(begin, static_cast<std::streamsize>(partSize - first));
}

std::size_t LimitedBuffer::writeStretch(std::ostream& os, const char* ring, std::size_t ringLen,
                                        std::size_t from, std::size_t to, std::size_t owed) {
  // Meeting points: only a still-owed full ring (a full buffer printed from its oldest byte) is
  // a whole circle; otherwise nothing lies between them.
  if (from == to && owed < ringLen) return 0;
  if (from < to) {
    os.write(ring + from, static_cast<std::streamsize>(to - from));
    return to - from;
  }
  os.write(ring + from, static_cast<std::streamsize>(ringLen - from));
  os.write(ring, static_cast<std::streamsize>(to));
  return (ringLen - from) + to;
}

void LimitedBuffer::print(std::ostream& os) {
  if (!enabled.load()) return;
  std::size_t ringLen;
  int bytesPerValueList;
  {
    L lock(mutex);
    ringLen = static_cast<std::size_t>(end - begin);
    bytesPerValueList = stateValues.getBytesPerValueList();
  }
  // Allocated outside the lock so producers wait only for the copy.
  std::vector<char> snapshot(ringLen);
  LimitedStateValueBuffer lists(bytesPerValueList);
  std::size_t copySize;
  std::size_t start;
  std::size_t stop;
  {
    L lock(mutex);
    std::memcpy(snapshot.data(), begin, ringLen);
    lists.copyFrom(stateValues);
    copySize = size;
    start = static_cast<std::size_t>(walk(next, -static_cast<ptrdiff_t>(size)) - begin);
    stop = static_cast<std::size_t>(next - begin);
  }
  os << "\n\n======== LIMITED BUFFER CONTENT ========\n\n";
  lists.startIteration();
  std::size_t current = start;
  int pos;
  char* values;
  while (lists.iterate(pos, values)) {
    copySize -= writeStretch(os, snapshot.data(), ringLen, current, static_cast<std::size_t>(pos),
                             copySize);
    current = static_cast<std::size_t>(pos);
    formatStateValueList(os, values);
  }
  copySize -= writeStretch(os, snapshot.data(), ringLen, current, stop, copySize);
  // Every owed byte has been written by now; the check stays as the contract's guard.
  ORVIX_ASSERT(copySize == 0, "copySize == 0", kUnit, 282);
  os << "\n==============\n\n";
}

std::ostream& operator<<(std::ostream& os, util::LimitedBuffer& lb) {
  lb.print(os);
  return os;
}

LBInteractiveDump::LBInteractiveDump(util::LimitedBuffer& lb) : lb(lb), thread([this] { run(); }) {}

LBInteractiveDump::~LBInteractiveDump() { thread.join(); }

void LBInteractiveDump::run() {
  for (;;) {
    std::cout << "Enter: dump gl_wendelLimitedBuffer\n" << "q (und Enter): Quit\n";
    std::cout << "(vor getline)\n" << std::flush;
    std::string line;
    std::getline(std::cin, line);
    std::cout << "line: '" << line << "'\n" << std::flush;
    if (std::cin.eof()) return;
    if (line == "q") return;
    lb.print(std::cout);
    std::cout << std::flush;
  }
}

}  // namespace util
