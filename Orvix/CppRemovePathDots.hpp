// Removal of "." and ".." segments from a slash-separated path, in place.
//
// removePathDots runs an explicit state chart over the string: one stateless object per state,
// each reading at most one character per step, and an engine (StatechartImpl) that owns the read
// position, an in-place write position behind it, the completed segments and the segment being
// collected. The chart does not assemble its output yet: the junction taken at the end of input
// from inside a path (jEnd) is an assertion failure. So the outcomes are
//   - the empty path: true, the string stays empty;
//   - an absolute path climbing above its root ("/..", "/a/../b", "/./.."): false, the string
//     unchanged;
//   - every other path: an assertion failure in Orvix/CppRemovePathDots ("false" in jEnd, or
//     "c != '/'" when two slashes follow one another), which aborts the process.
// Nothing is thrown except by the string and deque operations when memory runs out.
//
// Reentrant: every call has its own engine; the state objects are immutable.
#pragma once

#include <deque>
#include <string>

// Normalises path in place; false when it climbs above its root (path then unchanged).
bool removePathDots(std::string& path);

namespace orvixRemovePathDots {

class StatechartImpl;

// One state of the chart. States hold no data; the engine carries everything.
class BaseState {
 public:
  virtual ~BaseState();
  // Reads the next character (if any) from the engine and acts on it, switching state.
  virtual void readAndHandleNext(StatechartImpl& chart) const = 0;
  // True for the final states, at which the engine stops.
  virtual bool isEnd() const;
  // True when the final state stands for success.
  virtual bool successful() const;
};

// Before the first character.
class Start : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
};

// Right after a slash.
class BeginSegment : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
};

// A segment that so far is one dot.
class Dot1 : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
};

// A segment that so far is two dots.
class Dot2 : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
};

// Inside an ordinary segment.
class ContinueSegment : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
};

// Success. Never asked for a character: doing so fails the assertion "false".
class End : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
  bool isEnd() const override;
  bool successful() const override;
};

// The path climbs above its root. Never asked for a character: doing so fails "false".
class Error : public BaseState {
 public:
  void readAndHandleNext(StatechartImpl& chart) const override;
  bool isEnd() const override;
};

// The engine: one run over one string.
class StatechartImpl {
 public:
  // Works on s in place; s must outlive the engine and keep its length while it runs.
  explicit StatechartImpl(std::string& s);
  virtual ~StatechartImpl();
  StatechartImpl(const StatechartImpl&) = delete;
  StatechartImpl& operator=(const StatechartImpl&) = delete;

  // Steps the chart until a final state; on success cuts s behind the last written character.
  // Returns whether the final state is a successful one.
  bool run();

  // Helpers for the states.

  // True when every character has been read.
  bool eof() const;
  // The next character; asserts "readPos != s.end()".
  char read();
  // Stores c at the write position; asserts "writePos != s.end()".
  void write(char c);
  // Starts a segment with c and switches to ContinueSegment; asserts "c != '/'".
  void jContinue(char c);
  // End of input inside a path, where the collected segments would be written out: fails the
  // assertion "false" whatever trailingSlash says.
  [[noreturn]] void jEnd(bool trailingSlash);

 private:
  friend class Start;
  friend class BeginSegment;
  friend class Dot1;
  friend class Dot2;
  friend class ContinueSegment;

  const Start start;
  const BeginSegment beginSegment;
  const Dot1 dot1;
  const Dot2 dot2;
  const ContinueSegment continueSegment;
  const End end;
  const Error error;
  std::string& s;
  std::string::iterator readPos;
  std::string::iterator writePos;  // never ahead of readPos
  std::deque<std::string> segments;
  std::string segment;             // the segment being collected
  bool absolute;                   // set by a leading slash
  const BaseState* state;
};

}  // namespace orvixRemovePathDots
