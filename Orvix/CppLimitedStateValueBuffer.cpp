#include "Orvix/CppLimitedStateValueBuffer.hpp"

#include <cstring>

#include "Orvix/OrvixAssert.hpp"

namespace util {

namespace {
constexpr const char* kUnit = "Orvix/CppLimitedStateValueBuffer";
}  // namespace

bool overwritten(int begin, int end, int pos, int cycleLen) {
  ORVIX_ASSERT(0 <= pos && pos < cycleLen, "0 <= pos && pos < cycleLen", kUnit, 183);
  ORVIX_ASSERT(0 <= begin && begin < cycleLen, "0 <= begin && begin < cycleLen", kUnit, 184);
  ORVIX_ASSERT(0 <= end && end < cycleLen, "0 <= end && end < cycleLen", kUnit, 185);
  if (begin < end) return begin < pos && pos <= end;
  // The append wrapped past the ring's end.
  return pos > begin || pos <= end;
}

LimitedStateValueBuffer::LimitedStateValueBuffer(int bytesPerValueList)
    : bytesPerValueList(bytesPerValueList),
      valueBuf(new char[static_cast<std::size_t>(bytesPerValueList) * maxLists]),
      valueBufEnd(valueBuf + bytesPerValueList * maxLists),
      posBuf(),
      posBufEnd(posBuf + maxLists),
      count(0),
      nextValue(valueBuf),
      nextPos(posBuf),
      iterValue(nullptr),
      iterPos(nullptr),
      iterRemaining(0) {}

LimitedStateValueBuffer::~LimitedStateValueBuffer() { delete[] valueBuf; }

void LimitedStateValueBuffer::add(int pos, const char* values, int numBytes) {
  ORVIX_ASSERT(numBytes == bytesPerValueList, "numBytes == bytesPerValueList", kUnit, 90);
  ORVIX_ASSERT(nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd,
               "nextValue >= valueBuf && nextValue + numBytes <= valueBufEnd", kUnit, 93);
  std::memcpy(nextValue, values, static_cast<std::size_t>(numBytes));
  nextValue += bytesPerValueList;
  // Follows from the check above; kept as the contract's check after the step.
  ORVIX_ASSERT(nextValue <= valueBufEnd, "nextValue <= valueBufEnd", kUnit, 96);
  if (nextValue == valueBufEnd) nextValue = valueBuf;

  ORVIX_ASSERT(nextPos >= posBuf && nextPos < posBufEnd, "nextPos >= posBuf && nextPos < posBufEnd",
               kUnit, 103);
  *nextPos = pos;
  ++nextPos;
  if (nextPos == posBufEnd) nextPos = posBuf;

  // Saturates: from now on each list replaces the oldest.
  if (count <= maxLists - 1) ++count;
}

void LimitedStateValueBuffer::copyFrom(const LimitedStateValueBuffer& src) {
  ORVIX_ASSERT(src.bytesPerValueList == this->bytesPerValueList,
               "src.bytesPerValueList == this->bytesPerValueList", kUnit, 117);
  std::memcpy(valueBuf, src.valueBuf, static_cast<std::size_t>(src.valueBufEnd - src.valueBuf));
  std::memcpy(posBuf, src.posBuf, sizeof posBuf);
  count = src.count;
  nextValue = valueBuf + (src.nextValue - src.valueBuf);
  nextPos = posBuf + (src.nextPos - src.posBuf);
  iterValue = nullptr;
  iterPos = nullptr;
  iterRemaining = 0;
}

void LimitedStateValueBuffer::removeOverwritten(int begin, int end, int cycleLen) {
  if (count < 1) return;
  int* p = nextPos;
  char* v = nextValue;
  for (int newer = 0; newer < count; ++newer) {
    posStepBack(&p);
    valueStepBack(&v);
    if (overwritten(begin, end, *p, cycleLen)) {
      // This list and all older ones go, whether or not their own text was hit.
      count = newer;
      return;
    }
  }
}

void LimitedStateValueBuffer::startIteration() {
  iterRemaining = count;
  iterValue = nextValue;
  iterPos = nextPos;
  for (int i = 0; i < count; ++i) {
    posStepBack(&iterPos);
    valueStepBack(&iterValue);
  }
}

bool LimitedStateValueBuffer::iterate(int& pos, char*& values) {
  if (iterRemaining < 1) return false;
  pos = *iterPos;
  values = iterValue;
  --iterRemaining;
  posStepForward(&iterPos);
  valueStepForward(&iterValue);
  return true;
}

void LimitedStateValueBuffer::posStepBack(int** ppos) {
  ORVIX_ASSERT(posBuf <= *ppos && *ppos < posBufEnd, "posBuf <= *ppos && *ppos < posBufEnd", kUnit,
               133);
  if (*ppos == posBuf)
    *ppos = posBufEnd - 1;
  else
    --*ppos;
  ORVIX_ASSERT(posBuf <= *ppos && *ppos < posBufEnd, "posBuf <= *ppos && *ppos < posBufEnd", kUnit,
               141);
}

void LimitedStateValueBuffer::posStepForward(int** ppos) {
  ORVIX_ASSERT(posBuf <= *ppos && *ppos < posBufEnd, "posBuf <= *ppos && *ppos < posBufEnd", kUnit,
               145);
  ++*ppos;
  if (*ppos == posBufEnd) *ppos = posBuf;
  ORVIX_ASSERT(posBuf <= *ppos && *ppos < posBufEnd, "posBuf <= *ppos && *ppos < posBufEnd", kUnit,
               153);
}

// The two texts of the value-ring check differ by one blank; both are kept as they stand.
void LimitedStateValueBuffer::valueStepBack(char** pvalue) {
  ORVIX_ASSERT(valueBuf <= *pvalue && *pvalue < valueBufEnd,
               "valueBuf <= *pvalue && *pvalue < valueBufEnd", kUnit, 157);
  if (*pvalue == valueBuf)
    *pvalue = valueBufEnd - bytesPerValueList;
  else
    *pvalue -= bytesPerValueList;
  ORVIX_ASSERT(valueBuf <= *pvalue && *pvalue < valueBufEnd,
               "valueBuf <= *pvalue && *pvalue <valueBufEnd", kUnit, 165);
}

void LimitedStateValueBuffer::valueStepForward(char** pvalue) {
  ORVIX_ASSERT(valueBuf <= *pvalue && *pvalue < valueBufEnd,
               "valueBuf <= *pvalue && *pvalue < valueBufEnd", kUnit, 169);
  *pvalue += bytesPerValueList;
  if (*pvalue == valueBufEnd) *pvalue = valueBuf;
  ORVIX_ASSERT(valueBuf <= *pvalue && *pvalue < valueBufEnd,
               "valueBuf <= *pvalue && *pvalue <valueBufEnd", kUnit, 177);
}

}  // namespace util
