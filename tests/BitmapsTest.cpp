#include "Orvix/Bitmaps.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/internal/BitmapsKernels.hpp"
#include "TestSupport.hpp"
#include "models/BitmapModel.hpp"

using bmp::Bitmap;
using bmp::internal::RowKernel;

namespace {

const char* kUnit = "Orvix/Bitmaps";
const char* kConstructor = "bmp::Bitmap::Bitmap(uint8_t*, int, int, int)";
const char* kClip = "void bmp::Bitmap::clip(int, int, int, int)";
const char* kInsert = "void bmp::Bitmap::insert(const bmp::Bitmap&, int, int, int, int, int, int)";
// Lines of the checks in Orvix/Bitmaps.cpp.
constexpr int kWidthLine = 34;
constexpr int kHeightLine = 35;
constexpr int kBytesPerRowLine = 37;
constexpr int kClipXLine = 43;
constexpr int kClipYLine = 44;
constexpr int kClipWLine = 48;
constexpr int kClipHLine = 51;
constexpr int kInsertClipXMinLine = 101;
constexpr int kInsertClipXMaxLine = 102;
constexpr int kInsertClipYMinLine = 103;
constexpr int kInsertClipYMaxLine = 104;
constexpr int kInsertClipWLine = 105;
constexpr int kInsertClipHLine = 106;

void expectAssertion(const std::function<void()>& fn, int line, const char* function,
                     const std::string& expr) {
  orvix_test::expectAssertion(fn, kUnit, line, function, expr);
}

std::string clipOf(const Bitmap& b) {
  return std::to_string(b.clipX) + "," + std::to_string(b.clipY) + "," + std::to_string(b.clipW) +
         "," + std::to_string(b.clipH);
}

// ---- the reference models (models/BitmapModel.hpp) ------------------------------------------

using orvix_model::byteModel;
using orvix_model::Geometry;
using orvix_model::geometryOf;
using orvix_model::pixelModel;

// ---- images with guard bytes ----------------------------------------------------------------

constexpr int kGuard = 32;

// An image inside a buffer with random guard bytes before and after; everything random.
struct Image {
  Image(int w, int h, int bpr, std::mt19937& rng)
      : w(w), h(h), bpr(bpr), mem(static_cast<std::size_t>(h * bpr + 2 * kGuard)) {
    for (auto& b : mem) b = static_cast<uint8_t>(rng());
  }
  uint8_t* data() { return mem.data() + kGuard; }
  Bitmap view() { return Bitmap(data(), w, h, bpr); }

  int w, h, bpr;
  std::vector<uint8_t> mem;
};

// Runs insert and both models on copies of dst and compares the whole buffers, guards included.
void checkInsert(Image& dst, const Bitmap& dstView, Image& src, int srcX, int srcY, int srcW,
                 int srcH, int dstX, int dstY, bool alsoByteModel, const std::string& what) {
  std::vector<uint8_t> expected = dst.mem;
  pixelModel(geometryOf(dstView, expected.data() + kGuard), geometryOf(src.view(), src.data()),
             srcX, srcY, srcW, srcH, dstX, dstY);
  if (alsoByteModel) {
    std::vector<uint8_t> byteWise = dst.mem;
    ASSERT_TRUE(byteModel(geometryOf(dstView, byteWise.data() + kGuard),
                          geometryOf(src.view(), src.data()), srcX, srcY, srcW, srcH, dstX, dstY))
        << what;
    ASSERT_EQ(byteWise, expected) << "byte-wise rules differ from the pixel model: " << what;
  }
  const std::vector<uint8_t> srcBefore = src.mem;
  Bitmap target = dstView;
  target.insert(src.view(), srcX, srcY, srcW, srcH, dstX, dstY);
  ASSERT_EQ(dst.mem, expected) << what;
  ASSERT_EQ(src.mem, srcBefore) << what;
}

std::string describe(int srcX, int srcY, int srcW, int srcH, int dstX, int dstY) {
  return "insert(src, " + std::to_string(srcX) + ", " + std::to_string(srcY) + ", " +
         std::to_string(srcW) + ", " + std::to_string(srcH) + ", " + std::to_string(dstX) + ", " +
         std::to_string(dstY) + ")";
}

}  // namespace

// ---- construction, clip, single pixels ------------------------------------------------------

TEST(Bitmap, NewBitmapClipsToItsWholeArea) {
  uint8_t pixels[4] = {};
  Bitmap b(pixels, 10, 2, 2);
  EXPECT_EQ(b.data, pixels);
  EXPECT_EQ(b.widthPixels, 10);
  EXPECT_EQ(b.heightPixels, 2);
  EXPECT_EQ(b.bytesPerRow, 2);
  EXPECT_EQ(clipOf(b), "0,0,10,2");
}

TEST(Bitmap, CopiesShareThePixels) {
  uint8_t pixels[2] = {};
  Bitmap a(pixels, 8, 2, 1);
  Bitmap b = a;
  b.orBit(1, 1, true);
  EXPECT_EQ(a.getBit(1, 1), 1);
  EXPECT_EQ(pixels[1], 0x02);
}

TEST(BitmapDeathTest, ConstructorChecksTheGeometry) {
  static uint8_t pixels[16];
  expectAssertion([] { Bitmap(pixels, 10, 2, 1); }, kBytesPerRowLine, kConstructor,
                  "bytesPerRow >= ((widthPixels + 7) >> 3)");
  expectAssertion([] { Bitmap(pixels, 0, 2, 1); }, kWidthLine, kConstructor, "widthPixels > 0");
  expectAssertion([] { Bitmap(pixels, -8, 2, 1); }, kWidthLine, kConstructor, "widthPixels > 0");
  expectAssertion([] { Bitmap(pixels, 8, 0, 1); }, kHeightLine, kConstructor, "heightPixels > 0");
  expectAssertion([] { Bitmap(pixels, 17, 1, 2); }, kBytesPerRowLine, kConstructor,
                  "bytesPerRow >= ((widthPixels + 7) >> 3)");
}

TEST(Bitmap, ClipIntersectsWithTheImage) {
  uint8_t pixels[20] = {};
  Bitmap b(pixels, 10, 10, 2);
  b.clip(-3, -3, 5, 5);
  EXPECT_EQ(clipOf(b), "0,0,2,2");
  b.clip(8, 0, 5, 1);
  EXPECT_EQ(clipOf(b), "8,0,2,1");
  b.clip(2, 3, 4, 5);
  EXPECT_EQ(clipOf(b), "2,3,4,5");
  b.clip(-100, 9, 1000, 1000);
  EXPECT_EQ(clipOf(b), "0,9,10,1");
  b.unclip();
  EXPECT_EQ(clipOf(b), "0,0,10,10");
}

TEST(BitmapDeathTest, ClipChecksItsArguments) {
  static uint8_t pixels[20];
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(-5, 0, 5, 1); }, kClipWLine, kClip, "w > 0");
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(10, 0, 1, 1); }, kClipXLine, kClip,
                  "x < widthPixels");
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(0, 10, 1, 1); }, kClipYLine, kClip,
                  "y < heightPixels");
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(0, -5, 1, 5); }, kClipHLine, kClip, "h > 0");
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(0, 0, 0, 1); }, kClipWLine, kClip, "w > 0");
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(0, 0, 1, -1); }, kClipHLine, kClip, "h > 0");
  expectAssertion([] { Bitmap(pixels, 10, 10, 2).clip(0, 0, INT32_MIN, 1); }, kClipWLine, kClip,
                  "w > 0");
}

TEST(Bitmap, SinglePixelsCountFromTheLeastSignificantBit) {
  uint8_t pixels[4] = {0x01, 0x00, 0x80, 0x02};
  Bitmap b(pixels, 16, 2, 2);
  EXPECT_EQ(b.getBit(0, 0), 1);
  EXPECT_EQ(b.getBit(7, 0), 0);
  EXPECT_EQ(b.getBit(7, 1), 1);
  EXPECT_EQ(b.getBit(9, 1), 1);
  EXPECT_EQ(b.getBit(8, 1), 0);
  b.orBit(3, 0, false);
  EXPECT_EQ(pixels[0], 0x09);
  b.orBit(3, 0, true);
  EXPECT_EQ(pixels[0], 0x09);
  b.orBit(15, 0, true);
  EXPECT_EQ(pixels[1], 0x80);
  EXPECT_EQ(b.getBit(15, 0), 1);
  EXPECT_EQ(pixels[2], 0x80);
  EXPECT_EQ(pixels[3], 0x02);
}

// ---- insert: the listed cases ---------------------------------------------------------------

TEST(BitmapInsert, RectangleWhollyOutsideChangesNothing) {
  std::mt19937 rng(1);
  Image dst(10, 4, 2, rng);
  Image src(10, 4, 2, rng);
  const std::vector<uint8_t> before = dst.mem;
  Bitmap d = dst.view();
  d.clip(5, 0, 5, 4);
  d.insert(src.view(), 0, 0, 3, 4, 0, 0);  // left of the clip
  d.insert(src.view(), 0, 0, 3, 4, 10, 0);  // right of it
  d.insert(src.view(), 0, 0, 3, 4, 6, 4);  // below
  d.insert(src.view(), 0, 0, 3, 4, 6, -4);  // above
  d.insert(src.view(), -5, 0, 5, 4, 6, 0);  // left of the source
  d.insert(src.view(), 10, 0, 5, 4, 6, 0);  // right of the source
  d.insert(src.view(), 0, 4, 5, 4, 6, 0);  // below the source
  d.insert(src.view(), 0, 0, 0, 4, 6, 0);  // empty
  d.insert(src.view(), 0, 0, 4, -1, 6, 0);
  EXPECT_EQ(dst.mem, before);
}

TEST(BitmapInsert, AlignedSixteenPixelsAreTwoWholeBytesPerRow) {
  std::mt19937 rng(2);
  Image dst(32, 3, 4, rng);
  Image src(32, 3, 4, rng);
  std::vector<uint8_t> expected = dst.mem;
  for (int y = 0; y < 3; ++y)
    for (int i = 1; i <= 2; ++i) expected[kGuard + y * 4 + i] |= src.data()[y * 4 + i];
  dst.view().insert(src.view(), 8, 0, 16, 3, 8, 0);
  EXPECT_EQ(dst.mem, expected);
}

TEST(BitmapInsert, ThreePixelsFromTwoToSixAreMostSignificantFirst) {
  uint8_t s[2] = {0xFF, 0xFF};
  uint8_t d[2] = {0x00, 0x00};
  Bitmap dst(d, 16, 1, 2);
  dst.insert(Bitmap(s, 16, 1, 2), 2, 0, 3, 1, 6, 0);
  EXPECT_EQ(d[0], 0x03);
  EXPECT_EQ(d[1], 0x80);

  uint8_t e[2] = {0xA4, 0x2A};  // every other bit kept
  Bitmap dst2(e, 16, 1, 2);
  dst2.insert(Bitmap(s, 16, 1, 2), 2, 0, 3, 1, 6, 0);
  EXPECT_EQ(e[0], 0xA7);
  EXPECT_EQ(e[1], 0xAA);
}

TEST(BitmapInsert, ClipsAgainstNegativeOrigins) {
  uint8_t s[2] = {0xFF, 0xFF};
  uint8_t d[2] = {0x00, 0x00};
  Bitmap dst(d, 16, 1, 2);
  dst.insert(Bitmap(s, 16, 1, 2), 0, 0, 8, 1, -3, 0);
  EXPECT_EQ(d[0], 0xF8);  // pixels 0..4
  EXPECT_EQ(d[1], 0x00);
  uint8_t t[2] = {0x0F, 0x00};
  uint8_t e[2] = {0x00, 0x00};
  Bitmap dst2(e, 16, 1, 2);
  dst2.insert(Bitmap(t, 16, 1, 2), -2, 0, 8, 1, 0, 0);  // source pixels 0..5 land at 2..7
  EXPECT_EQ(e[0], 0x03);
}

// The clip fields are plain fields; insert checks them before it writes. The other eight checks
// of insert hold by construction of the cut rectangle for any arguments.
TEST(BitmapDeathTest, InsertChecksTheClipFields) {
  static uint8_t d[64];
  static uint8_t s[64];
  auto run = [](void (*spoil)(Bitmap&), int dstX, int dstY) {
    Bitmap dst(d, 16, 4, 2);
    spoil(dst);
    dst.insert(Bitmap(s, 32, 8, 4), 0, 0, 4, 2, dstX, dstY);
  };
  expectAssertion([&] { run([](Bitmap& b) { b.clipX = -1; b.clipW = 17; }, 0, 0); },
                  kInsertClipXMinLine, kInsert, "clipX >= 0");
  expectAssertion([&] { run([](Bitmap& b) { b.clipX = 16; b.clipW = 4; }, 16, 0); },
                  kInsertClipXMaxLine, kInsert, "clipX < widthPixels");
  expectAssertion([&] { run([](Bitmap& b) { b.clipY = -1; b.clipH = 5; }, 0, 0); },
                  kInsertClipYMinLine, kInsert, "clipY >= 0");
  expectAssertion([&] { run([](Bitmap& b) { b.clipY = 4; b.clipH = 2; }, 0, 4); },
                  kInsertClipYMaxLine, kInsert, "clipY < heightPixels");
  expectAssertion([&] { run([](Bitmap& b) { b.clipW = 24; }, 16, 0); }, kInsertClipWLine,
                  kInsert, "clipX + clipW <= widthPixels");
  expectAssertion([&] { run([](Bitmap& b) { b.clipH = 6; }, 0, 4); }, kInsertClipHLine, kInsert,
                  "clipY + clipH <= heightPixels");
}

// ---- the row kernels ----------------------------------------------------------------------

TEST(BitmapRowKernel, TheWidestAvailableIsInUseAndOnlyAvailableOnesCanBeChosen) {
  EXPECT_TRUE(bmp::internal::rowKernelAvailable(RowKernel::Portable));
  const bool avx2 = bmp::internal::rowKernelAvailable(RowKernel::Avx2);
  EXPECT_EQ(bmp::internal::rowKernel(), avx2 ? RowKernel::Avx2 : RowKernel::Portable);
  EXPECT_TRUE(bmp::internal::setRowKernel(RowKernel::Portable));
  EXPECT_EQ(bmp::internal::rowKernel(), RowKernel::Portable);
  EXPECT_EQ(bmp::internal::setRowKernel(RowKernel::Avx2), avx2);
  EXPECT_EQ(bmp::internal::rowKernel(), avx2 ? RowKernel::Avx2 : RowKernel::Portable);
}

namespace {

// Runs a test once per row kernel, each that the processor has.
class KernelTest : public ::testing::TestWithParam<RowKernel> {
 protected:
  void SetUp() override {
    if (!bmp::internal::setRowKernel(GetParam()))
      GTEST_SKIP() << "this processor cannot run the kernel";
  }
  void TearDown() override { bmp::internal::setRowKernel(before_); }

 private:
  const RowKernel before_ = bmp::internal::rowKernel();
};

}  // namespace

namespace bmp {
namespace internal {

// The kernel's name in test names and messages.
void PrintTo(RowKernel k, std::ostream* os) { *os << (k == RowKernel::Avx2 ? "Avx2" : "Portable"); }

}  // namespace internal
}  // namespace bmp

#define ORVIX_FOR_EACH_KERNEL(Suite)  \
  class Suite : public KernelTest {}; \
  INSTANTIATE_TEST_SUITE_P(Kernels, Suite, ::testing::Values(RowKernel::Portable, RowKernel::Avx2))

// ---- insert against the models --------------------------------------------------------------

ORVIX_FOR_EACH_KERNEL(BitmapInsertDifferential);
ORVIX_FOR_EACH_KERNEL(BitmapInsertReads);
ORVIX_FOR_EACH_KERNEL(BitmapInsertThreads);

namespace {

// Source offsets firstSrcX .. firstSrcX + offsets - 1, destination offsets 0 .. offsets - 1 and
// widths minWidth .. maxWidth, two rows, in images of width pixels with fresh random contents
// each time.
void sweep(int firstSrcX, int offsets, int minWidth, int maxWidth, int width, bool alsoByteModel,
           uint32_t seed) {
  std::mt19937 rng(seed);
  const int bpr = (width + 7) / 8;
  for (int srcX = firstSrcX; srcX < firstSrcX + offsets; ++srcX) {
    for (int dstX = 0; dstX < offsets; ++dstX) {
      for (int w = minWidth; w <= maxWidth; ++w) {
        Image src(width, 3, bpr + 2, rng);
        Image dst(width, 4, bpr + 1, rng);
        ASSERT_NO_FATAL_FAILURE(checkInsert(dst, dst.view(), src, srcX, 1, w, 2, dstX, 1,
                                            alsoByteModel, describe(srcX, 1, w, 2, dstX, 1)));
      }
    }
  }
}

}  // namespace

// Source and destination offsets 0..15 (both bit offsets and the first byte) and widths 1..80,
// also checking the byte-wise rules against the pixel model.
TEST_P(BitmapInsertDifferential, EveryOffsetPairAndWidthUpTo80) {
  sweep(0, 16, 1, 80, 104, true, 0x1B17);
}

// Rows long enough for the vector loops, with every remainder at their end.
TEST_P(BitmapInsertDifferential, EveryBitOffsetPairAndWidthUpTo300) {
  sweep(8, 8, 81, 300, 320, false, 0x3007);
}

TEST_P(BitmapInsertDifferential, LongRowsWithEveryRemainder) {
  sweep(8, 3, 301, 620, 640, false, 0x0620);
}

TEST_P(BitmapInsertDifferential, RandomGeometriesClipsAndOrigins) {
  std::mt19937 rng(0xC11F);
  auto pick = [&rng](int lo, int hi) {  // lo..hi inclusive
    return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1));
  };
  for (int round = 0; round < 20000; ++round) {
    const int sw = pick(1, 400), sh = pick(1, 6);
    const int dw = pick(1, 400), dh = pick(1, 6);
    Image src(sw, sh, (sw + 7) / 8 + pick(0, 3), rng);
    Image dst(dw, dh, (dw + 7) / 8 + pick(0, 3), rng);
    Bitmap view = dst.view();
    if (rng() % 2 == 0) {
      const int x = pick(-dw, dw - 1), y = pick(-dh, dh - 1);
      const int w = pick(1, 2 * dw), h = pick(1, 2 * dh);
      // Only clips that leave something; the others abort, as tested above.
      if (w + std::min(x, 0) - std::max(x + w - dw, 0) > 0 &&
          h + std::min(y, 0) - std::max(y + h - dh, 0) > 0)
        view.clip(x, y, w, h);
    }
    const int srcX = pick(-40, sw + 8), srcY = pick(-3, sh + 1);
    const int srcW = pick(-2, sw + 60), srcH = pick(-1, sh + 4);
    const int dstX = pick(-40, dw + 8), dstY = pick(-3, dh + 1);
    ASSERT_NO_FATAL_FAILURE(checkInsert(dst, view, src, srcX, srcY, srcW, srcH, dstX, dstY, true,
                                        "round " + std::to_string(round) + " " +
                                            describe(srcX, srcY, srcW, srcH, dstX, dstY)));
  }
}

// Source and destination in the same bytes: the result is that of the byte-wise order.
TEST(BitmapInsertOverlap, SourceAndDestinationInTheSameBytesFollowTheByteOrder) {
  std::mt19937 rng(0x0E1A);
  auto pick = [&rng](int lo, int hi) {
    return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1));
  };
  for (int round = 0; round < 3000; ++round) {
    const int w = pick(8, 300), h = pick(1, 8);
    const int bpr = (w + 7) / 8 + pick(0, 2);
    Image img(w, h, bpr, rng);
    // The source either is the same view or a view of the same bytes from another origin.
    const int shift = rng() % 2 == 0 ? 0 : pick(0, bpr * h / 2);
    Bitmap dstView = img.view();
    Bitmap srcView(img.data() + shift, w, std::max(1, h - (shift + bpr - 1) / bpr), bpr);
    const int srcW = pick(1, w), srcH = pick(1, h);
    const int srcX = pick(-4, w - 1), srcY = pick(-1, h - 1);
    const int dstX = pick(-4, w - 1), dstY = pick(-1, h - 1);

    std::vector<uint8_t> expected = img.mem;
    const Geometry dstModel = geometryOf(dstView, expected.data() + kGuard);
    const Geometry srcModel = geometryOf(srcView, expected.data() + kGuard + shift);
    ASSERT_TRUE(byteModel(dstModel, srcModel, srcX, srcY, srcW, srcH, dstX, dstY));
    dstView.insert(srcView, srcX, srcY, srcW, srcH, dstX, dstY);
    ASSERT_EQ(img.mem, expected) << "round " << round << " shift " << shift << " "
                                 << describe(srcX, srcY, srcW, srcH, dstX, dstY);
  }
}

// ---- what insert reads ----------------------------------------------------------------------

namespace {

// Pages of which some are inaccessible; unmapped on destruction.
class Pages {
 public:
  explicit Pages(int count) : size_(static_cast<std::size_t>(count) * pageSize()) {
    void* p = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
  }
  ~Pages() {
    if (base_ != nullptr) munmap(base_, size_);
  }
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

  static std::size_t pageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }
  uint8_t* page(int i) const { return base_ + static_cast<std::size_t>(i) * pageSize(); }
  bool ok() const { return base_ != nullptr; }
  bool protect(int i) const { return mprotect(page(i), pageSize(), PROT_NONE) == 0; }

 private:
  std::size_t size_;
  uint8_t* base_;
};

// Runs insert against the pixel model with a source whose bytes lie in pages.
void checkAgainstModel(const Bitmap& srcView, int srcX, int srcY, int srcW, int srcH, int dstX,
                       std::mt19937& rng) {
  const int dw = srcW + 16;
  Image dst(dw, srcH, (dw + 7) / 8 + 1, rng);
  std::vector<uint8_t> expected = dst.mem;
  Bitmap dstView = dst.view();
  pixelModel(geometryOf(dstView, expected.data() + kGuard),
             geometryOf(srcView, srcView.data), srcX, srcY, srcW, srcH, dstX, 0);
  dstView.insert(srcView, srcX, srcY, srcW, srcH, dstX, 0);
  ASSERT_EQ(dst.mem, expected) << describe(srcX, srcY, srcW, srcH, dstX, 0);
}

}  // namespace

// The last source row ends with the last byte of a page and the next page is inaccessible.
TEST_P(BitmapInsertReads, SourceRowEndingAtAnInaccessiblePageIsReadToItsLastByteOnly) {
  Pages pages(2);
  ASSERT_TRUE(pages.ok());
  ASSERT_TRUE(pages.protect(1));
  constexpr int kW = 104, kH = 20, kBpr = 13;  // 8 pixels in the last byte of a row
  uint8_t* data = pages.page(1) - kH * kBpr;
  std::mt19937 rng(0xFA17);
  for (int i = 0; i < kH * kBpr; ++i) data[i] = static_cast<uint8_t>(rng());
  Bitmap src(data, kW, kH, kBpr);
  for (int lastX = kW - 8; lastX < kW; ++lastX) {     // the last pixel at every bit of the byte
    for (int w = 1; w <= 90; ++w) {
      for (int dstX = 0; dstX < 16; ++dstX) {
        ASSERT_NO_FATAL_FAILURE(
            checkAgainstModel(src, lastX - w + 1, kH - 2, w, 2, dstX, rng));
      }
    }
  }
}

// The same for an image inserted into itself, which takes the byte-wise way.
TEST(BitmapInsertOverlap, InsertAtAnInaccessiblePageReadsToTheLastByteOnly) {
  Pages pages(2);
  ASSERT_TRUE(pages.ok());
  ASSERT_TRUE(pages.protect(1));
  constexpr int kW = 104, kH = 4, kBpr = 13;
  uint8_t* data = pages.page(1) - kH * kBpr;
  std::mt19937 rng(0xFA18);
  Bitmap img(data, kW, kH, kBpr);
  for (int lastX = kW - 8; lastX < kW; ++lastX) {
    for (int w = 1; w <= 40; ++w) {
      for (int dstX = lastX - w - 12; dstX < lastX - w + 12; ++dstX) {
        for (int i = 0; i < kH * kBpr; ++i) data[i] = static_cast<uint8_t>(rng());
        // The model works on a copy with room after it.
        std::vector<uint8_t> expected(data, data + kH * kBpr);
        expected.resize(expected.size() + kGuard);
        const Geometry model = geometryOf(img, expected.data());
        const int srcX = lastX - w + 1;
        ASSERT_TRUE(byteModel(model, model, srcX, kH - 2, w, 2, dstX, kH - 2));
        img.insert(img, srcX, kH - 2, w, 2, dstX, kH - 2);
        ASSERT_TRUE(std::equal(data, data + kH * kBpr, expected.begin()))
            << describe(srcX, kH - 2, w, 2, dstX, kH - 2);
      }
    }
  }
}

// Every row between two inaccessible pages: no row is read before its first or after its last
// byte.
TEST_P(BitmapInsertReads, EveryRowIsReadInsideItsSpanOnly) {
  constexpr int kRows = 3;
  Pages pages(2 * kRows + 1);
  ASSERT_TRUE(pages.ok());
  for (int i = 0; i <= kRows; ++i) ASSERT_TRUE(pages.protect(2 * i));
  const int bpr = static_cast<int>(2 * Pages::pageSize());
  const int rowPixels = static_cast<int>(8 * Pages::pageSize());
  std::mt19937 rng(0x5A5A);
  for (int y = 0; y < kRows; ++y)
    for (std::size_t i = 0; i < Pages::pageSize(); ++i)
      pages.page(2 * y + 1)[i] = static_cast<uint8_t>(rng());
  Bitmap src(pages.page(1), rowPixels, kRows, bpr);
  // Narrow rectangles at the start and at the end of the rows.
  for (int offset = 0; offset < 16; ++offset) {
    for (int w = 1; w <= 40; ++w) {
      for (int dstX : {0, 3, 8, 13}) {
        ASSERT_NO_FATAL_FAILURE(checkAgainstModel(src, offset, 0, w, kRows, dstX, rng));
        ASSERT_NO_FATAL_FAILURE(
            checkAgainstModel(src, rowPixels - offset - w, 0, w, kRows, dstX, rng));
      }
    }
  }
  // Whole rows from every first bit to every last bit.
  for (int first = 0; first < 8; ++first) {
    for (int last = 0; last < 8; ++last) {
      for (int dstX : {0, 1, 5, 7, 8, 11}) {
        const int w = rowPixels - first - last;
        ASSERT_NO_FATAL_FAILURE(checkAgainstModel(src, first, 0, w, 2, dstX, rng));
      }
    }
  }
}

// Inserts into disjoint bytes of the same rows write only their own bytes, so they may run at
// the same time (the thread sanitizer sees every byte written).
TEST_P(BitmapInsertThreads, InsertsIntoDisjointBytesOfOneImageRunTogether) {
  std::mt19937 rng(0x7A7A);
  Image src(256, 16, 32, rng);
  Image dst(256, 16, 32, rng);
  std::vector<uint8_t> expected = dst.mem;
  Bitmap modelView = dst.view();
  pixelModel(geometryOf(modelView, expected.data() + kGuard), geometryOf(src.view(), src.data()),
             3, 0, 125, 16, 0, 0);
  pixelModel(geometryOf(modelView, expected.data() + kGuard), geometryOf(src.view(), src.data()),
             130, 0, 123, 16, 133, 0);
  auto band = [&](int srcX, int w, int dstX) {
    Bitmap d = dst.view();
    for (int i = 0; i < 50; ++i) d.insert(src.view(), srcX, 0, w, 16, dstX, 0);
  };
  // Destination bytes 0..15 and 16..31 of every row.
  std::thread left(band, 3, 125, 0);
  std::thread right(band, 130, 123, 133);
  left.join();
  right.join();
  EXPECT_EQ(dst.mem, expected);
}
