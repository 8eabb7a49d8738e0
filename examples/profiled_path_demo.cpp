// The profiled path, end to end: a pool of time collectors over std::cout, several passes of a
// real code path (rendering a line of text into a 1-bit raster, dithering a grey ramp,
// compressing the result) stamped at named points, and the report the pool's dump thread prints.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "Orvix/CppTimeCollector.hpp"

namespace {

// A 1-bit page band: width in pixels, rows of bytes.
struct Band {
  int width;
  int height;
  std::vector<uint8_t> bits;
  Band(int w, int h) : width(w), height(h), bits(static_cast<size_t>((w + 7) / 8 * h)) {}
  void set(int x, int y) {
    bits[static_cast<size_t>(y * ((width + 7) / 8) + x / 8)] |= static_cast<uint8_t>(0x80 >> (x % 8));
  }
};

// Stamps "glyphs": every character becomes a 6x8 pattern derived from its code.
void rasterText(Band& band, const char* text) {
  const int n = static_cast<int>(std::strlen(text));
  for (int i = 0; i < n && (i + 1) * 6 <= band.width; ++i) {
    const unsigned code = static_cast<unsigned char>(text[i]);
    for (int y = 0; y < 8 && y < band.height; ++y) {
      for (int x = 0; x < 5; ++x) {
        if (((code * 2654435761u) >> (y * 4 + x)) & 1u) band.set(i * 6 + x, y);
      }
    }
  }
}

// Floyd-Steinberg dithering of a horizontal grey ramp into the band's lower rows.
void ditherRamp(Band& band, std::vector<int>& err) {
  err.assign(static_cast<size_t>(band.width + 2) * 2, 0);
  for (int y = 8; y < band.height; ++y) {
    int* cur = &err[static_cast<size_t>((y % 2) * (band.width + 2)) + 1];
    int* nxt = &err[static_cast<size_t>(((y + 1) % 2) * (band.width + 2)) + 1];
    for (int x = -1; x <= band.width; ++x) nxt[x] = 0;
    for (int x = 0; x < band.width; ++x) {
      const int grey = 255 * x / band.width + cur[x];
      const int out = grey < 128 ? 0 : 255;
      if (out == 0) band.set(x, y);
      const int e = grey - out;
      cur[x + 1] += e * 7 / 16;
      nxt[x - 1] += e * 3 / 16;
      nxt[x] += e * 5 / 16;
      nxt[x + 1] += e / 16;
    }
  }
}

// Run-length compression of the band as a printer's data stream would carry it.
size_t compress(const Band& band, std::vector<uint8_t>& out) {
  out.clear();
  size_t i = 0;
  while (i < band.bits.size()) {
    size_t run = 1;
    while (i + run < band.bits.size() && run < 128 && band.bits[i + run] == band.bits[i]) ++run;
    out.push_back(static_cast<uint8_t>(run - 1));
    out.push_back(band.bits[i]);
    i += run;
  }
  return out.size();
}

uint32_t checksum(const std::vector<uint8_t>& data) {
  uint32_t a = 1, b = 0;
  for (uint8_t v : data) {
    a = (a + v) % 65521;
    b = (b + a) % 65521;
  }
  return (b << 16) | a;
}

}  // namespace

int main() {
  std::cout
      << "Orvix profiled path demo\n"
         "\n"
         "A TimeCollectorPool is built over std::cout. Each pass of a real code path (raster a\n"
         "text line, dither a grey ramp, compress the band, checksum it) takes a collector with\n"
         "get(), stamps named points into it and hands it to dump(). The producer never waits\n"
         "and never allocates: names and entries live in the collector's locked sub-heap. The\n"
         "pool's dump thread prints one line per point: its wall-clock time in ns, the ns since\n"
         "the first point and since the previous one, and the total. Building the pool gave\n"
         "std::cout blank-grouped numbers. Pass 3 renders a far larger band and repeats its\n"
         "dithering until 1 ms has passed, so its later lines carry the overrun warning.\n"
         "\n"
      << std::flush;

  std::vector<uint8_t> compressed;
  compressed.reserve(1 << 20);
  std::vector<int> err;
  err.reserve(1 << 16);
  uint32_t sum = 0;
  {
    orvix::TimeCollectorPool pool(std::cout, 10, 16384, 8);
    for (int pass = 1; pass <= 5; ++pass) {
      const bool heavy = pass == 3;
      Band band(heavy ? 2400 : 600, heavy ? 8 + 240 : 8 + 16);
      auto tc = pool.get(8);
      tc->stamp("eingang");
      rasterText(band, "Orvix: Messpunkt fuer Messpunkt durch den Druckpfad");
      tc->stamp("rastern");
      ditherRamp(band, err);
      if (heavy) {
        // This pass stands for a full page: repeat the band until 1 ms is certainly over.
        const auto begin = tc->getEntries().front().second;
        while (std::chrono::system_clock::now() - begin < std::chrono::microseconds(1200)) {
          ditherRamp(band, err);
        }
      }
      tc->stamp("dithern");
      compress(band, compressed);
      tc->stamp("packen");
      sum ^= checksum(compressed);
      tc->stamp("pruefsumme");
      pool.dump(std::move(tc));
    }
    // Leaving the scope lets the dump thread print what is queued, then ends it.
  }
  char hex[16];
  std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(sum));
  std::cout << "\n5 passes printed; checksum of the compressed bands " << hex << ".\n";
  return 0;
}
