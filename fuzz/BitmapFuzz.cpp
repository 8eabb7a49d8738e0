// bmp::Bitmap against its models: geometry, clip and a sequence of inserts and single-pixel
// operations decoded from the input, on images inside buffers with guard bytes before and after.
// Each insert's whole destination buffer, guards included, must equal the per-pixel model's (and
// the byte-wise rules' model must agree with it); the source buffer must stay as it was. A source
// that shares the destination's bytes is checked against the byte-wise rules, whose order of
// reads and writes defines that case. Both row kernels are used where the processor has them.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.hpp"
#include "Orvix/Bitmaps.hpp"
#include "Orvix/internal/BitmapsKernels.hpp"
#include "models/BitmapModel.hpp"

using bmp::Bitmap;
using orvix_model::byteModel;
using orvix_model::geometryOf;
using orvix_model::pixelModel;

namespace {

constexpr int kGuard = 16;

// An image inside a buffer with guard bytes; pixels and guards from the input.
struct Image {
  Image(FuzzedDataProvider& in, int w, int h, int bpr)
      : w(w), h(h), bpr(bpr), mem(static_cast<std::size_t>(h * bpr + 2 * kGuard)) {
    const std::vector<uint8_t> fill = in.ConsumeBytes<uint8_t>(mem.size());
    for (std::size_t i = 0; i < mem.size(); ++i)
      mem[i] = i < fill.size() ? fill[i] : static_cast<uint8_t>(i * 0x9D + 0x37);
  }
  uint8_t* data() { return mem.data() + kGuard; }
  int w, h, bpr;
  std::vector<uint8_t> mem;
};

Image makeImage(FuzzedDataProvider& in) {
  const int w = in.ConsumeIntegralInRange(1, 200);
  const int h = in.ConsumeIntegralInRange(1, 6);
  const int bpr = (w + 7) / 8 + in.ConsumeIntegralInRange(0, 3);
  return Image(in, w, h, bpr);
}

std::string describe(int srcX, int srcY, int srcW, int srcH, int dstX, int dstY) {
  return "insert(src, " + std::to_string(srcX) + ", " + std::to_string(srcY) + ", " +
         std::to_string(srcW) + ", " + std::to_string(srcH) + ", " + std::to_string(dstX) + ", " +
         std::to_string(dstY) + ")";
}

std::string clipOf(const Bitmap& b) {
  return std::to_string(b.clipX) + "," + std::to_string(b.clipY) + "," + std::to_string(b.clipW) +
         "," + std::to_string(b.clipH);
}

// Sets the clip when the rectangle leaves something of the image (the library asserts so
// otherwise), and checks the clip against the intersection.
void clip(Bitmap& view, int x, int y, int w, int h) {
  const int cutW = w + std::min(x, 0) - std::max(x + w - view.widthPixels, 0);
  const int cutH = h + std::min(y, 0) - std::max(y + h - view.heightPixels, 0);
  if (x >= view.widthPixels || y >= view.heightPixels || cutW <= 0 || cutH <= 0) return;
  view.clip(x, y, w, h);
  const int x0 = std::max(x, 0), y0 = std::max(y, 0);
  const int x1 = std::min(x + w, view.widthPixels), y1 = std::min(y + h, view.heightPixels);
  FUZZ_REQUIRE(view.clipX == x0 && view.clipY == y0 && view.clipW == x1 - x0 &&
                   view.clipH == y1 - y0,
               "clip(" << x << ", " << y << ", " << w << ", " << h << ") gave " << clipOf(view));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bmp::internal::RowKernel kernel =
      in.ConsumeBool() ? bmp::internal::RowKernel::Avx2 : bmp::internal::RowKernel::Portable;
  if (!bmp::internal::setRowKernel(kernel))
    bmp::internal::setRowKernel(bmp::internal::RowKernel::Portable);
  Image dst = makeImage(in);
  // A quarter of the inputs insert from the destination's own bytes, at some offset.
  const bool shared = in.ConsumeIntegralInRange(0, 3) == 0;
  Image own = shared ? Image(in, 1, 1, 1) : makeImage(in);
  Bitmap dstView(dst.data(), dst.w, dst.h, dst.bpr);
  Bitmap srcView(own.data(), own.w, own.h, own.bpr);
  if (shared) {
    const int shift = in.ConsumeIntegralInRange(0, dst.bpr * dst.h / 2);
    srcView = Bitmap(dst.data() + shift, dst.w, std::max(1, dst.h - (shift + dst.bpr - 1) / dst.bpr),
                     dst.bpr);
  }
  FUZZ_REQUIRE(clipOf(dstView) == "0,0," + std::to_string(dst.w) + "," + std::to_string(dst.h),
               "new clip " << clipOf(dstView));
  int step = 0;
  while (in.remaining_bytes() > 0) {
    switch (in.ConsumeIntegralInRange(0, 5)) {
      case 0: {
        const int x = in.ConsumeIntegralInRange(-dst.w - 8, dst.w + 2);
        const int y = in.ConsumeIntegralInRange(-dst.h - 2, dst.h + 1);
        const int w = in.ConsumeIntegralInRange(-2, 2 * dst.w + 16);
        const int h = in.ConsumeIntegralInRange(-2, 2 * dst.h + 4);
        clip(dstView, x, y, w, h);
        break;
      }
      case 1:
        dstView.unclip();
        FUZZ_REQUIRE(clipOf(dstView) == "0,0," + std::to_string(dst.w) + "," + std::to_string(dst.h),
                     "unclip gave " << clipOf(dstView));
        break;
      case 2: {  // one pixel, least significant bit first; the flag is ignored
        const int x = in.ConsumeIntegralInRange(0, dst.w - 1);
        const int y = in.ConsumeIntegralInRange(0, dst.h - 1);
        std::vector<uint8_t> expected = dst.mem;
        expected[static_cast<std::size_t>(kGuard + y * dst.bpr + x / 8)] |=
            static_cast<uint8_t>(1u << (x % 8));
        dstView.orBit(x, y, in.ConsumeBool());
        FUZZ_REQUIRE(dst.mem == expected, "orBit(" << x << ", " << y << ")");
        break;
      }
      case 3: {
        const int x = in.ConsumeIntegralInRange(0, dst.w - 1);
        const int y = in.ConsumeIntegralInRange(0, dst.h - 1);
        const int expected = (dst.data()[y * dst.bpr + x / 8] >> (x % 8)) & 1;
        FUZZ_REQUIRE(dstView.getBit(x, y) == expected, "getBit(" << x << ", " << y << ")");
        break;
      }
      default: {
        const Bitmap& s = srcView;
        const int srcX = in.ConsumeIntegralInRange(-64, s.widthPixels + 64);
        const int srcY = in.ConsumeIntegralInRange(-8, s.heightPixels + 8);
        const int srcW = in.ConsumeIntegralInRange(-4, s.widthPixels + 128);
        const int srcH = in.ConsumeIntegralInRange(-2, s.heightPixels + 8);
        const int dstX = in.ConsumeIntegralInRange(-64, dst.w + 64);
        const int dstY = in.ConsumeIntegralInRange(-8, dst.h + 8);
        const std::string what = describe(srcX, srcY, srcW, srcH, dstX, dstY) + " into " +
                                 std::to_string(dst.w) + "x" + std::to_string(dst.h) + "/" +
                                 std::to_string(dst.bpr) + " clip " + clipOf(dstView) + ", step " +
                                 std::to_string(step);
        std::vector<uint8_t> byteWise = dst.mem;
        const std::ptrdiff_t srcOffset = s.data - dst.mem.data();
        if (shared) {
          FUZZ_REQUIRE(byteModel(geometryOf(dstView, byteWise.data() + kGuard),
                                 geometryOf(s, byteWise.data() + srcOffset), srcX, srcY, srcW,
                                 srcH, dstX, dstY),
                       what);
          dstView.insert(s, srcX, srcY, srcW, srcH, dstX, dstY);
          FUZZ_REQUIRE(dst.mem == byteWise, what);
          break;
        }
        std::vector<uint8_t> expected = dst.mem;
        pixelModel(geometryOf(dstView, expected.data() + kGuard), geometryOf(s, own.data()), srcX,
                   srcY, srcW, srcH, dstX, dstY);
        FUZZ_REQUIRE(byteModel(geometryOf(dstView, byteWise.data() + kGuard),
                               geometryOf(s, own.data()), srcX, srcY, srcW, srcH, dstX, dstY) &&
                         byteWise == expected,
                     "the byte-wise rules differ from the pixel model: " << what);
        const std::vector<uint8_t> srcBefore = own.mem;
        dstView.insert(s, srcX, srcY, srcW, srcH, dstX, dstY);
        FUZZ_REQUIRE(dst.mem == expected, what);
        FUZZ_REQUIRE(own.mem == srcBefore, "the source changed: " << what);
        break;
      }
    }
    ++step;
  }
  return 0;
}
