#include "Orvix/Bitmaps.hpp"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/internal/BitmapsKernels.hpp"

namespace {

constexpr const char* kUnit = "Orvix/Bitmaps";

}  // namespace

static void orRowBitSegments(const uint8_t* s, int srcBitOffset, uint8_t* d, int dstBitOffset,
                             int count);
static void orRectangle(const uint8_t* s, std::ptrdiff_t srcStride, int srcBitOffset, uint8_t* d,
                        std::ptrdiff_t dstStride, int dstBitOffset, int count, int rows);

namespace bmp {

Bitmap::Bitmap(uint8_t* data, int widthPixels, int heightPixels, int bytesPerRow)
    : data(data),
      widthPixels(widthPixels),
      heightPixels(heightPixels),
      bytesPerRow(bytesPerRow),
      clipX(0),
      clipY(0),
      clipW(widthPixels),
      clipH(heightPixels) {
  ORVIX_ASSERT(widthPixels > 0, "widthPixels > 0", kUnit, __LINE__);
  ORVIX_ASSERT(heightPixels > 0, "heightPixels > 0", kUnit, __LINE__);
  ORVIX_ASSERT(bytesPerRow >= ((widthPixels + 7) >> 3), "bytesPerRow >= ((widthPixels + 7) >> 3)",
               kUnit, __LINE__);
}

Bitmap::~Bitmap() = default;

void Bitmap::clip(int x, int y, int w, int h) {
  ORVIX_ASSERT(x < widthPixels, "x < widthPixels", kUnit, __LINE__);
  ORVIX_ASSERT(y < heightPixels, "y < heightPixels", kUnit, __LINE__);
  // In 64 bits, so that x + w cannot overflow.
  const int64_t cutW =
      int64_t{w} + std::min(x, 0) - std::max(int64_t{x} + w - widthPixels, int64_t{0});
  ORVIX_ASSERT(cutW > 0, "w > 0", kUnit, __LINE__);
  const int64_t cutH =
      int64_t{h} + std::min(y, 0) - std::max(int64_t{y} + h - heightPixels, int64_t{0});
  ORVIX_ASSERT(cutH > 0, "h > 0", kUnit, __LINE__);
  clipX = std::max(x, 0);
  clipY = std::max(y, 0);
  // Neither exceeds the image now.
  clipW = static_cast<int>(cutW);
  clipH = static_cast<int>(cutH);
}

void Bitmap::unclip() {
  clipX = 0;
  clipY = 0;
  clipW = widthPixels;
  clipH = heightPixels;
}

int Bitmap::getBit(int x, int y) const {
  return (data[static_cast<std::ptrdiff_t>(y) * bytesPerRow + (x >> 3)] >> (x & 7)) & 1;
}

void Bitmap::orBit(int x, int y, bool) {
  data[static_cast<std::ptrdiff_t>(y) * bytesPerRow + (x >> 3)] |=
      static_cast<uint8_t>(1u << (x & 7));
}

void Bitmap::insert(const bmp::Bitmap& src, int srcX, int srcY, int srcW, int srcH, int dstX,
                    int dstY) {
  // In 64 bits, so that no combination of arguments and fields overflows.
  using I = int64_t;
  const I leftCut = std::max<I>(I{clipX} - dstX, srcX < 0 ? -I{srcX} : 0);
  const I topCut = std::max<I>(I{clipY} - dstY, srcY < 0 ? -I{srcY} : 0);
  const I rightCut =
      std::max({I{0}, I{srcX} + srcW - src.widthPixels, I{dstX} + srcW - (I{clipX} + clipW)});
  const I bottomCut =
      std::max({I{0}, I{srcY} + srcH - src.heightPixels, I{dstY} + srcH - (I{clipY} + clipH)});
  const I sx = srcX + leftCut;
  const I dx = dstX + leftCut;
  const I sy = srcY + topCut;
  const I dy = dstY + topCut;
  const I w = srcW - leftCut - rightCut;
  const I h = srcH - topCut - bottomCut;
  if (w <= 0 || h <= 0) return;

  ORVIX_ASSERT(sx >= 0, "srcX >= 0", kUnit, __LINE__);
  ORVIX_ASSERT(sy >= 0, "srcY >= 0", kUnit, __LINE__);
  ORVIX_ASSERT(sx + w <= src.widthPixels, "srcX + srcW <= src.widthPixels", kUnit, __LINE__);
  ORVIX_ASSERT(sy + h <= src.heightPixels, "srcY + srcH <= src.heightPixels", kUnit, __LINE__);
  ORVIX_ASSERT(dx >= clipX, "dstX >= clipX", kUnit, __LINE__);
  ORVIX_ASSERT(dy >= clipY, "dstY >= clipY", kUnit, __LINE__);
  ORVIX_ASSERT(dx + w <= I{clipX} + clipW, "dstX + srcW <= clipX + clipW", kUnit, __LINE__);
  ORVIX_ASSERT(dy + h <= I{clipY} + clipH, "dstY + srcH <= clipY + clipH", kUnit, __LINE__);
  ORVIX_ASSERT(clipX >= 0, "clipX >= 0", kUnit, __LINE__);
  ORVIX_ASSERT(clipX < widthPixels, "clipX < widthPixels", kUnit, __LINE__);
  ORVIX_ASSERT(clipY >= 0, "clipY >= 0", kUnit, __LINE__);
  ORVIX_ASSERT(clipY < heightPixels, "clipY < heightPixels", kUnit, __LINE__);
  ORVIX_ASSERT(I{clipX} + clipW <= widthPixels, "clipX + clipW <= widthPixels", kUnit, __LINE__);
  ORVIX_ASSERT(I{clipY} + clipH <= heightPixels, "clipY + clipH <= heightPixels", kUnit, __LINE__);

  // Everything lies inside both images now.
  const auto srcStride = static_cast<std::ptrdiff_t>(src.bytesPerRow);
  const auto dstStride = static_cast<std::ptrdiff_t>(bytesPerRow);
  orRectangle(src.data + sy * srcStride + (sx >> 3), srcStride, static_cast<int>(sx & 7),
              data + dy * dstStride + (dx >> 3), dstStride, static_cast<int>(dx & 7),
              static_cast<int>(w), static_cast<int>(h));
}

}  // namespace bmp

// ORs count pixels of the row at s, from bit srcBitOffset (0 = most significant bit) on, into
// the row at d from bit dstBitOffset on, one byte at a time. Used where source and destination
// share bytes: then the order of reads and writes decides the result, and this is the order.
static void orRowBitSegments(const uint8_t* s, int srcBitOffset, uint8_t* d, int dstBitOffset,
                             int count) {
  uint8_t* const d1 = d;
  const int sOff = srcBitOffset;
  const int dOff = dstBitOffset;
  const int end = dOff + count;
  const int r = dOff > sOff ? dOff - sOff : dOff - sOff + 8;
  const int l = 8 - r;
  const int tail = -end & 7;
  const int ahead = 8 - (count + sOff);

  unsigned first = s[0] & (0xFFu >> sOff);
  if (ahead > 0) first &= 0xFFu << ahead;
  if (dOff > sOff) {
    *d |= static_cast<uint8_t>(first >> r);
  } else if (dOff == sOff) {
    *d |= static_cast<uint8_t>(first);
    ++s;
  } else {
    *d |= static_cast<uint8_t>(first << l);
    ++s;
    // A row ending exactly with s[0] would mask the next byte away whole, so it is not read.
    if (ahead < 0) {
      unsigned next = *s >> r;
      if (end < 8) next &= 0xFFu << tail;
      *d |= static_cast<uint8_t>(next);
    }
  }
  ++d;

  uint8_t* const middleEnd = d1 + (end >> 3);
  if (r == 8) {
    for (; d < middleEnd; ++d, ++s) *d |= *s;
  } else {
    for (; d < middleEnd; ++d, ++s) *d |= static_cast<uint8_t>((s[0] << l) | (s[1] >> r));
  }

  if (((end - 1) >> 3) < d - d1) return;
  ORVIX_ASSERT(((dstBitOffset + count - 1) >> 3) == (d - d1),
               "((dstBitOffset + count - 1) >> 3) == (d - d1)", kUnit, __LINE__);
  unsigned last = static_cast<unsigned>(s[0]) << l;
  if (tail < l) last |= s[1] >> r;
  *d |= static_cast<uint8_t>(last & (0xFFu << tail));
}

namespace {

// ---- the fast rectangle copy ----------------------------------------------------------------

// Machine word of the target: 64 bits on x86-64, 32 on the controller.
using Word = std::uintptr_t;

inline Word byteSwap(Word w) {
  if constexpr (sizeof(Word) == 8)
    return static_cast<Word>(__builtin_bswap64(static_cast<uint64_t>(w)));
  else
    return static_cast<Word>(__builtin_bswap32(static_cast<uint32_t>(w)));
}

// Between memory order and a number whose most significant byte is the first in memory.
inline Word msbFirst(Word w) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return byteSwap(w);
#else
  return w;
#endif
}

// Shift amounts and masks of one insert, equal for all its rows.
struct RowPlan {
  RowPlan(int srcBitOffset, int dstBitOffset, int count) {
    const int end = dstBitOffset + count;
    const int srcLast = (srcBitOffset + count - 1) >> 3;
    const int delta = dstBitOffset - srcBitOffset;
    last = (end - 1) >> 3;
    qoff = delta > 0 ? -1 : 0;
    sh = static_cast<unsigned>(delta > 0 ? 8 - delta : -delta);
    lastMask = (0xFFu << (-end & 7)) & 0xFFu;
    firstMask = 0xFFu >> dstBitOffset;
    if (last == 0) firstMask &= lastMask;
    firstHasNext = sh != 0 && qoff + 1 <= srcLast;
    lastHasNext = sh != 0 && last + qoff + 1 <= srcLast;
    keepHigh = static_cast<uint16_t>(((0xFFu << sh) & 0xFFu) * 0x0101u);
    keepLow = static_cast<uint16_t>((0xFFu >> (8 - sh) & 0xFFu) * 0x0101u);
  }

  std::ptrdiff_t last;  // index of the last destination byte of a row
  int qoff;             // source byte of destination byte i: i + qoff (-1 or 0)
  unsigned sh;          // 0..7; 0 when both bit offsets are equal
  unsigned firstMask;   // rectangle bits of destination byte 0 (of byte last too if it is 0)
  unsigned lastMask;    // rectangle bits of destination byte last
  bool firstHasNext;    // byte 0 takes bits of source byte qoff + 1
  bool lastHasNext;     // byte last takes bits of source byte last + qoff + 1
  uint16_t keepHigh;    // in both bytes of a 16-bit lane: 0xFF << sh
  uint16_t keepLow;     // in both bytes of a 16-bit lane: 0xFF >> (8 - sh)
};

// The target's own vectors, else machine words.
namespace portable {
#if defined(__SSE2__) || defined(__ARM_NEON)
typedef uint16_t Lanes16 __attribute__((vector_size(16)));
#define ORVIX_ROW_LANES Lanes16
#endif
#include "Orvix/internal/BitmapRows.inc"
#undef ORVIX_ROW_LANES
}  // namespace portable

#if defined(__x86_64__)
#define ORVIX_ROWS_AVX2 1
// The same loops with 32-byte vectors, compiled for processors with AVX2 and used only there.
// (clang spells the switch of instruction set for a stretch of functions its own way.)
#ifdef __clang__
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace avx2 {
typedef uint16_t Lanes32 __attribute__((vector_size(32)));
#define ORVIX_ROW_LANES Lanes32
#include "Orvix/internal/BitmapRows.inc"
#undef ORVIX_ROW_LANES
}  // namespace avx2
#ifdef __clang__
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif

bool cpuHasAvx2() {
#ifdef ORVIX_ROWS_AVX2
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

// The kernel in use: the widest available once this unit is initialised, Portable (0) before.
// Relaxed, as every kernel gives the same result.
std::atomic<int> gl_rowKernel{static_cast<int>(cpuHasAvx2() ? bmp::internal::RowKernel::Avx2
                                                             : bmp::internal::RowKernel::Portable)};

}  // namespace

namespace bmp {
namespace internal {

bool rowKernelAvailable(RowKernel k) { return k == RowKernel::Portable || cpuHasAvx2(); }

RowKernel rowKernel() {
  return static_cast<RowKernel>(gl_rowKernel.load(std::memory_order_relaxed));
}

bool setRowKernel(RowKernel k) {
  if (!rowKernelAvailable(k)) return false;
  gl_rowKernel.store(static_cast<int>(k), std::memory_order_relaxed);
  return true;
}

}  // namespace internal
}  // namespace bmp

// rows rows of count pixels; s and d point at the bytes holding the first pixel of the first row.
static void orRectangle(const uint8_t* s, std::ptrdiff_t srcStride, int srcBitOffset, uint8_t* d,
                        std::ptrdiff_t dstStride, int dstBitOffset, int count, int rows) {
  // Where bytes read and bytes written may meet, every read must see the earlier writes just as
  // the byte-wise order has them.
  const auto sLo = reinterpret_cast<std::uintptr_t>(s);
  const auto sHi = reinterpret_cast<std::uintptr_t>(s + (rows - 1) * srcStride +
                                                    ((srcBitOffset + count - 1) >> 3));
  const auto dLo = reinterpret_cast<std::uintptr_t>(d);
  const auto dHi = reinterpret_cast<std::uintptr_t>(d + (rows - 1) * dstStride +
                                                    ((dstBitOffset + count - 1) >> 3));
  if (sLo <= dHi && dLo <= sHi) {
    for (int y = 0; y < rows; ++y, s += srcStride, d += dstStride)
      orRowBitSegments(s, srcBitOffset, d, dstBitOffset, count);
    return;
  }
  const RowPlan plan(srcBitOffset, dstBitOffset, count);
#ifdef ORVIX_ROWS_AVX2
  if (bmp::internal::rowKernel() == bmp::internal::RowKernel::Avx2) {
    avx2::orRows(plan, s, srcStride, d, dstStride, rows);
    return;
  }
#endif
  portable::orRows(plan, s, srcStride, d, dstStride, rows);
}
