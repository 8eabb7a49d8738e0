// Rectangle OR of a whole A4 page at 600 dpi (4960 x 7016 pixels, 620 bytes a row) into a page
// of the same size, against a vectorised byte-wise OR loop over the same bytes (the memory-speed
// reference), a 1-bit ADD composite of the same rectangle in pixman and a SRC | DST rasterop in
// Leptonica. All figures are bytes of the destination per second. insert runs with each of its
// row kernels (the AVX2 one is what it uses where the processor has it).
#include <allheaders.h>
#include <benchmark/benchmark.h>
#include <pixman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>

#include "Orvix/Bitmaps.hpp"
#include "Orvix/internal/BitmapsKernels.hpp"

namespace {

constexpr int kWidth = 4960;
constexpr int kHeight = 7016;
constexpr int kBytesPerRow = kWidth / 8;  // 620: also a whole number of 32-bit words
constexpr std::size_t kPageBytes = static_cast<std::size_t>(kBytesPerRow) * kHeight;

// Two pages of random pixels, 64-byte aligned.
struct Pages {
  Pages() {
    src = static_cast<uint8_t*>(std::aligned_alloc(64, kPageBytes));
    dst = static_cast<uint8_t*>(std::aligned_alloc(64, kPageBytes));
    std::mt19937 rng(42);
    for (std::size_t i = 0; i < kPageBytes; ++i) {
      src[i] = static_cast<uint8_t>(rng());
      dst[i] = static_cast<uint8_t>(rng() & rng());
    }
  }
  ~Pages() {
    std::free(src);
    std::free(dst);
  }
  uint8_t* src;
  uint8_t* dst;
};

Pages& pages() {
  static Pages p;
  return p;
}

void countBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kPageBytes));
}

// The reference: every destination byte ORed with its source byte. This file is built with -O3,
// so the loop is vectorised.
__attribute__((noinline)) void orBytes(uint8_t* __restrict d, const uint8_t* __restrict s,
                                       std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) d[i] |= s[i];
}

}  // namespace

static void BM_OrLoop(benchmark::State& state) {
  Pages& p = pages();
  for (auto _ : state) {
    orBytes(p.dst, p.src, kPageBytes);
    benchmark::ClobberMemory();
  }
  countBytes(state);
}
BENCHMARK(BM_OrLoop)->Unit(benchmark::kMillisecond);

// Arguments: destination offset, row kernel (0 the portable one, 1 the AVX2 one).
static void BM_Insert(benchmark::State& state) {
  const int dstX = static_cast<int>(state.range(0));
  const auto kernel = static_cast<bmp::internal::RowKernel>(state.range(1));
  const bmp::internal::RowKernel before = bmp::internal::rowKernel();
  if (!bmp::internal::setRowKernel(kernel)) {
    state.SkipWithError("this processor cannot run the kernel");
    return;
  }
  state.SetLabel(kernel == bmp::internal::RowKernel::Avx2 ? "avx2" : "portable");
  Pages& p = pages();
  const bmp::Bitmap src(p.src, kWidth, kHeight, kBytesPerRow);
  bmp::Bitmap dst(p.dst, kWidth, kHeight, kBytesPerRow);
  for (auto _ : state) {
    dst.insert(src, 0, 0, kWidth, kHeight, dstX, 0);
    benchmark::ClobberMemory();
  }
  bmp::internal::setRowKernel(before);
  countBytes(state);
}
BENCHMARK(BM_Insert)
    ->Args({0, 1})
    ->Args({3, 1})
    ->Args({0, 0})
    ->Args({3, 0})
    ->Unit(benchmark::kMillisecond);

static void BM_PixmanAddA1(benchmark::State& state) {
  const int dstX = static_cast<int>(state.range(0));
  Pages& p = pages();
  pixman_image_t* src = pixman_image_create_bits(PIXMAN_a1, kWidth, kHeight,
                                                 reinterpret_cast<uint32_t*>(p.src), kBytesPerRow);
  pixman_image_t* dst = pixman_image_create_bits(PIXMAN_a1, kWidth, kHeight,
                                                 reinterpret_cast<uint32_t*>(p.dst), kBytesPerRow);
  for (auto _ : state) {
    pixman_image_composite32(PIXMAN_OP_ADD, src, nullptr, dst, 0, 0, 0, 0, dstX, 0,
                             kWidth - dstX, kHeight);
    benchmark::ClobberMemory();
  }
  pixman_image_unref(src);
  pixman_image_unref(dst);
  countBytes(state);
}
BENCHMARK(BM_PixmanAddA1)->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond);

static void BM_LeptonicaRasterop(benchmark::State& state) {
  const int dstX = static_cast<int>(state.range(0));
  Pages& p = pages();
  PIX* src = pixCreate(kWidth, kHeight, 1);
  PIX* dst = pixCreate(kWidth, kHeight, 1);
  std::memcpy(pixGetData(src), p.src, kPageBytes);
  std::memcpy(pixGetData(dst), p.dst, kPageBytes);
  for (auto _ : state) {
    pixRasterop(dst, dstX, 0, kWidth - dstX, kHeight, PIX_SRC | PIX_DST, src, 0, 0);
    benchmark::ClobberMemory();
  }
  pixDestroy(&src);
  pixDestroy(&dst);
  countBytes(state);
}
BENCHMARK(BM_LeptonicaRasterop)->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
