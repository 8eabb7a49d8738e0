// The state value lists of a trace buffer: the newest 128 fixed-size binary records, each tied to
// the text-ring offset at which it was recorded.
//
// Two parallel rings (records and positions) always move together; the 129th record silently
// replaces the oldest. Lists whose text has been overwritten are dropped with removeOverwritten.
// No locking inside: the owning util::LimitedBuffer calls everything under its mutex, so one
// thread at a time. Misuse (wrong record size, cursors outside a ring) is an assertion failure
// that aborts the process.
#pragma once

namespace util {

// True when an append that moved the text ring's write offset from begin to end (ring length
// cycleLen) has overwritten the text at pos. A list at begin survives, one at end does not.
bool overwritten(int begin, int end, int pos, int cycleLen);

class LimitedStateValueBuffer {
 public:
  // How many lists the rings hold at most.
  static constexpr int maxLists = 128;

  // Allocates the value ring for maxLists records of bytesPerValueList bytes each.
  explicit LimitedStateValueBuffer(int bytesPerValueList);
  virtual ~LimitedStateValueBuffer();
  LimitedStateValueBuffer(const LimitedStateValueBuffer&) = delete;
  LimitedStateValueBuffer& operator=(const LimitedStateValueBuffer&) = delete;

  // Stores one record of numBytes (== bytesPerValueList) bytes, tied to text offset pos.
  void add(int pos, const char* values, int numBytes);

  // Makes this an exact copy of src (same record size required); resets the iteration cursor.
  void copyFrom(const LimitedStateValueBuffer& src);

  // Drops, newest first, every list from the first one whose position an append from begin to
  // end overwrote: older lists go with it even when their own text survived.
  void removeOverwritten(int begin, int end, int cycleLen);

  // Places the iteration cursor on the oldest valid list.
  void startIteration();
  // Hands out the next list, oldest first; false when none is left.
  bool iterate(int& pos, char*& values);

  // Ring steps; each checks that the cursor is inside its ring before and after the step.
  void posStepBack(int** ppos);
  void posStepForward(int** ppos);
  void valueStepBack(char** pvalue);
  void valueStepForward(char** pvalue);

  // Read access for diagnostics and tests.
  int getBytesPerValueList() const { return bytesPerValueList; }
  int getCount() const { return count; }
  int nextPosIndex() const { return static_cast<int>(nextPos - posBuf); }
  int nextValueOffset() const { return static_cast<int>(nextValue - valueBuf); }
  const char* valueRing() const { return valueBuf; }
  const int* posRing() const { return posBuf; }

 private:
  const int bytesPerValueList;
  char* const valueBuf;     // maxLists records, owned
  char* const valueBufEnd;  // one past the last record
  int posBuf[maxLists];
  int* const posBufEnd;     // one past posBuf
  int count;          // valid lists, 0 to maxLists
  char* nextValue;    // where the next record goes
  int* nextPos;       // where the next position goes
  char* iterValue;    // iteration cursor, moves with iterPos
  int* iterPos;
  int iterRemaining;
};

}  // namespace util
