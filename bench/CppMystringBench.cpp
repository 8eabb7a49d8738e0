// UTF-8 to wide and back through tavo2::mystring / tavo2::mywstring against a bare
// mbrtowc / wcrtomb loop over the same 1 MiB of mixed-script text, in the same run.
#include <benchmark/benchmark.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "Orvix/CppMystring.hpp"

namespace {

// 1 MiB of text mixing one- to four-byte characters: Latin with umlauts, Greek, Cyrillic,
// CJK, emoji, and plain ASCII, cut at a character boundary and padded with ASCII.
const std::string& mixedText() {
  static const std::string text = [] {
    const char* const pieces[] = {
        "Gr\xc3\xb6\xc3\x9f" "e und Ma\xc3\x9f" "e, ",                     // German
        "\xce\xba\xce\xb1\xce\xbb\xce\xb7\xce\xbc\xce\xad\xcf\x81\xce\xb1 ",  // Greek
        "\xd0\xbf\xd1\x80\xd0\xb8\xd0\xb2\xd0\xb5\xd1\x82 ",                   // Cyrillic
        "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e\xe3\x81\xa7\xe3\x81\x99 ",       // CJK
        "\xf0\x9f\x98\x80\xf0\x9f\x96\xa8 ",                                   // emoji
        "printer status ok; ",                                                 // ASCII
    };
    const std::size_t kSize = 1 << 20;
    std::string s;
    for (std::size_t i = 0;; ++i) {
      const char* piece = pieces[i % (sizeof pieces / sizeof pieces[0])];
      if (s.size() + std::strlen(piece) > kSize) break;
      s += piece;
    }
    s.append(kSize - s.size(), '.');
    return s;
  }();
  return text;
}

void BM_BareMbrtowcLoop(benchmark::State& state) {
  const std::string& text = mixedText();
  std::vector<wchar_t> out(text.size());
  std::size_t count = 0;
  for (auto _ : state) {
    mbstate_t st;
    std::memset(&st, 0, sizeof st);
    const char* p = text.data();
    std::size_t left = text.size();
    count = 0;
    while (left > 0) {
      const std::size_t n = mbrtowc(&out[count], p, left, &st);
      if (n == static_cast<std::size_t>(-1) || n == static_cast<std::size_t>(-2) || n == 0) break;
      p += n;
      left -= n;
      ++count;
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["chars"] = static_cast<double>(count);
}
BENCHMARK(BM_BareMbrtowcLoop)->Unit(benchmark::kMillisecond);

void BM_MywstringFromMystring(benchmark::State& state) {
  const tavo2::mystring text(mixedText());
  std::size_t count = 0;
  for (auto _ : state) {
    tavo2::mywstring w(text);
    count = w.size();
    benchmark::DoNotOptimize(w.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["chars"] = static_cast<double>(count);
}
BENCHMARK(BM_MywstringFromMystring)->Unit(benchmark::kMillisecond);

void BM_BareWcrtombLoop(benchmark::State& state) {
  const tavo2::mywstring wide{tavo2::mystring(mixedText())};
  std::vector<char> out(wide.size() * MB_CUR_MAX);
  for (auto _ : state) {
    mbstate_t st;
    std::memset(&st, 0, sizeof st);
    char* p = out.data();
    for (const wchar_t wc : wide) {
      const std::size_t n = wcrtomb(p, wc, &st);
      if (n != static_cast<std::size_t>(-1)) p += n;
    }
    benchmark::DoNotOptimize(p);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * mixedText().size()));
}
BENCHMARK(BM_BareWcrtombLoop)->Unit(benchmark::kMillisecond);

void BM_MystringFromMywstring(benchmark::State& state) {
  const tavo2::mywstring wide{tavo2::mystring(mixedText())};
  for (auto _ : state) {
    tavo2::mystring m(wide);
    benchmark::DoNotOptimize(m.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * mixedText().size()));
}
BENCHMARK(BM_MystringFromMywstring)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (!setlocale(LC_ALL, "C.UTF-8")) {
    std::fprintf(stderr, "C.UTF-8 locale missing\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
