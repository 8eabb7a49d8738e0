// A view of a one-bit-per-pixel image in memory the caller owns, for example a band of a page
// raster.
//
// bmp::Bitmap knows the geometry and a clipping rectangle, reads and sets single pixels, and
// ORs a rectangle of another bitmap into itself (insert), clipped to both bitmaps, a whole row of
// bytes at a time. It never allocates or frees; copying the view shares the caller's pixels.
//
// Two bit orders, kept apart on purpose: getBit and orBit count pixel x as bit x % 8 from the
// least significant end of its byte, insert treats bit 7 as the leftmost pixel of a byte.
//
// A view is used by one thread at a time; inserts into disjoint destination bytes of one image
// may run on several threads, as an insert writes only the bytes its rectangle covers. Broken
// preconditions (geometry, clipping rectangle, inconsistent clip fields) are assertion failures
// that abort, reported as "Orvix/Bitmaps". Single-pixel access has no bounds check.
#pragma once

#include <cstdint>

namespace bmp {

// The image geometry and clip are plain fields that clients may read; clip() and unclip() keep
// the clip valid, and insert checks it again before it writes.
class Bitmap {
 public:
  // Rows of bytesPerRow bytes (at least (widthPixels + 7) / 8) from data on; clip = whole image.
  Bitmap(uint8_t* data, int widthPixels, int heightPixels, int bytesPerRow);
  // Does nothing: the pixels belong to the caller.
  virtual ~Bitmap();
  Bitmap(const Bitmap&) = default;
  Bitmap& operator=(const Bitmap&) = default;

  // Sets the clip to the rectangle intersected with the image; x and y may be negative, but x
  // and y must lie left of and above the far edges and something must remain.
  void clip(int x, int y, int w, int h);
  // Sets the clip back to the whole image.
  void unclip();

  // 1 if pixel (x, y) is set (bit x % 8 of its byte, least significant first), else 0.
  int getBit(int x, int y) const;
  // Sets pixel (x, y) (bit x % 8 of its byte, least significant first). The third argument is
  // ignored: the pixel is set whatever it says.
  void orBit(int x, int y, bool);

  // ORs the srcW x srcH rectangle at (srcX, srcY) of src into this image with its top-left pixel
  // at (dstX, dstY), bit 7 being the leftmost pixel of a byte. The rectangle is cut to src and
  // to this image's clip first; nothing left is no error. Destination pixels outside the
  // rectangle keep their values, and no source byte outside the rectangle's rows is read.
  void insert(const bmp::Bitmap& src, int srcX, int srcY, int srcW, int srcH, int dstX,
              int dstY);

  // First byte of row 0; not owned.
  uint8_t* data;
  int widthPixels;
  int heightPixels;
  // Distance from one row to the next, padding included.
  int bytesPerRow;
  // The rectangle insert may write to.
  int clipX;
  int clipY;
  int clipW;
  int clipH;
};

}  // namespace bmp
