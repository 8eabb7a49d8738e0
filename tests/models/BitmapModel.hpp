// Reference models of bmp::Bitmap::insert over plain pixel memory: pixel by pixel (bit 7 the
// leftmost pixel of a byte; a pixel goes over when it lies inside the source image and its
// destination inside the clip), and byte by byte as the row rules describe it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace orvix_model {

// Pixel x of a row as insert sees it: bit 7 of a byte is its leftmost pixel.
inline bool pixel(const uint8_t* data, int bytesPerRow, int x, int y) {
  return ((data[static_cast<std::ptrdiff_t>(y) * bytesPerRow + x / 8] >> (7 - x % 8)) & 1) != 0;
}

inline void setPixel(uint8_t* data, int bytesPerRow, int x, int y) {
  data[static_cast<std::ptrdiff_t>(y) * bytesPerRow + x / 8] |=
      static_cast<uint8_t>(0x80u >> (x % 8));
}

// Geometry of an image for the models: pixels at data, clip as in the bitmap.
struct Geometry {
  uint8_t* data;
  int w, h, bpr;
  int clipX, clipY, clipW, clipH;
};

// The geometry and clip of a bitmap view (any type with its fields) over the pixels at data.
template <class View>
Geometry geometryOf(const View& b, uint8_t* data) {
  return {data, b.widthPixels, b.heightPixels, b.bytesPerRow, b.clipX, b.clipY, b.clipW, b.clipH};
}

// Pixel by pixel: a pixel of the rectangle goes over when it lies inside the source image and
// its destination inside the clip.
inline void pixelModel(const Geometry& dst, const Geometry& src, int srcX, int srcY, int srcW,
                       int srcH, int dstX, int dstY) {
  for (int j = 0; j < srcH; ++j) {
    for (int i = 0; i < srcW; ++i) {
      const int sx = srcX + i, sy = srcY + j, dx = dstX + i, dy = dstY + j;
      if (sx < 0 || sx >= src.w || sy < 0 || sy >= src.h) continue;
      if (dx < dst.clipX || dx >= dst.clipX + dst.clipW || dy < dst.clipY ||
          dy >= dst.clipY + dst.clipH)
        continue;
      if (pixel(src.data, src.bpr, sx, sy)) setPixel(dst.data, dst.bpr, dx, dy);
    }
  }
}

// The byte-wise row copy exactly as the library's rules describe it, reads and writes in that
// order (so it also answers for source and destination sharing bytes). False when the rules'
// own check of the last destination byte fails.
inline bool byteRowModel(const uint8_t* s, int sOff, uint8_t* d, int dOff, int count) {
  uint8_t* const d1 = d;
  const int end = dOff + count;
  const int r = dOff > sOff ? dOff - sOff : dOff - sOff + 8;
  const int l = 8 - r;
  const int tail = ((-end) % 8 + 8) % 8;
  const int ahead = 8 - (count + sOff);
  int first = s[0] & (0xFF >> sOff);
  if (ahead > 0) first &= ~((1 << ahead) - 1);
  if (dOff > sOff) {
    d[0] = static_cast<uint8_t>(d[0] | (first >> r));
  } else if (dOff == sOff) {
    d[0] = static_cast<uint8_t>(d[0] | first);
    s += 1;
  } else {
    d[0] = static_cast<uint8_t>(d[0] | ((first << l) & 0xFF));
    s += 1;
    if (ahead <= 0) {
      int next = s[0] >> r;
      if (end < 8) next &= ~((1 << tail) - 1);
      d[0] = static_cast<uint8_t>(d[0] | next);
    }
  }
  int k = 1;
  for (; k < end / 8; ++k, ++s) {
    const int c = s[0];
    const int next = r == 8 ? 0 : s[1] >> r;
    d[k] = static_cast<uint8_t>(d[k] | ((c << l) & 0xFF) | next);
  }
  d += k;
  if ((end - 1) / 8 < k) return true;
  if ((end - 1) / 8 != d - d1) return false;
  int last = (s[0] << l) & 0xFF;
  if (tail < l) last |= s[1] >> r;
  last &= ~((1 << tail) - 1);
  d[0] = static_cast<uint8_t>(d[0] | last);
  return true;
}

// The clipping arithmetic and the row loop as the rules give them, over byteRowModel. False when
// a row's own check fails.
inline bool byteModel(const Geometry& dst, const Geometry& src, int srcX, int srcY, int srcW,
                      int srcH, int dstX, int dstY) {
  const int leftCut = std::max(dst.clipX - dstX, srcX < 0 ? -srcX : 0);
  const int topCut = std::max(dst.clipY - dstY, srcY < 0 ? -srcY : 0);
  const int rightCut =
      std::max({0, srcX + srcW - src.w, dstX + srcW - (dst.clipX + dst.clipW)});
  const int bottomCut =
      std::max({0, srcY + srcH - src.h, dstY + srcH - (dst.clipY + dst.clipH)});
  srcX += leftCut;
  dstX += leftCut;
  srcY += topCut;
  dstY += topCut;
  const int w = srcW - leftCut - rightCut;
  const int h = srcH - topCut - bottomCut;
  if (w <= 0 || h <= 0) return true;
  const uint8_t* s = src.data + srcY * src.bpr + srcX / 8;
  uint8_t* d = dst.data + dstY * dst.bpr + dstX / 8;
  for (int y = 0; y < h; ++y, s += src.bpr, d += dst.bpr)
    if (!byteRowModel(s, srcX % 8, d, dstX % 8, w)) return false;
  return true;
}

}  // namespace orvix_model
