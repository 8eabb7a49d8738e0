// The profiled cycle after a pool is built must not call the system allocator: this program
// counts every call of the global operator new and (outside the sanitizer builds) of malloc.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <new>
#include <streambuf>
#include <thread>

#include "Orvix/CppTimeCollector.hpp"
#include "Orvix/internal/Config.hpp"

static std::atomic<bool> gl_counting{false};
static std::atomic<long> gl_newCalls{0};
static std::atomic<long> gl_mallocCalls{0};

#if ORVIX_SANITIZER_BUILD
#define ORVIX_COUNT_MALLOC 0
#else
#define ORVIX_COUNT_MALLOC 1
extern "C" void* __libc_malloc(size_t);
// Interposes glibc's malloc for the whole process (the library and libstdc++ included).
extern "C" void* malloc(size_t n) {
  if (gl_counting.load(std::memory_order_relaxed)) ++gl_mallocCalls;
  return __libc_malloc(n);
}
#endif

// The replacements pair malloc with free; the compiler cannot see that they belong together.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t n) {
  if (gl_counting.load(std::memory_order_relaxed)) ++gl_newCalls;
  if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

// A stream buffer over a fixed array: printing into it never allocates.
class FixedBuf : public std::streambuf {
 public:
  FixedBuf() { reset(); }
  void reset() { setp(data_, data_ + sizeof data_); }
  // The dump thread flushes twice per collector, the second time after giving it back.
  long collectorsBack() const { return syncs_.load() / 2; }

 private:
  int sync() override {
    ++syncs_;
    return 0;
  }
  int_type overflow(int_type c) override {
    reset();  // wrap: the content is not looked at
    if (c != traits_type::eof()) sputc(static_cast<char>(c));
    return traits_type::not_eof(c);
  }
  char data_[1 << 16];
  std::atomic<long> syncs_{0};
};

}  // namespace

TEST(TimeCollectorNoAlloc, CycleAfterConstructionAllocatesNothing) {
  if (!ORVIX_COUNT_MALLOC) {
    std::cout << "note: sanitizer build, malloc is the sanitizer's and not interposed; only the "
                 "global operator new is counted\n";
  }
  const std::locale saved = std::cout.getloc();
  static FixedBuf buf;
  std::ostream out(&buf);
  out.imbue(std::locale(std::locale::classic(), new orvix::MyNumPunct));
  {
    orvix::TimeCollectorPool pool(out, 12, 8192, 4);
    // One warm-up pass: the stream's locale builds its number-formatting cache lazily on the
    // first number it prints (libstdc++), once per locale, not per cycle.
    {
      auto tc = pool.get(16);
      tc->stamp("warm-up");
      pool.dump(std::move(tc));
    }
    while (buf.collectorsBack() < 1) std::this_thread::yield();
    const long warmUps = buf.collectorsBack();

    // The counters see calls at all (of this program and of the library's libstdc++).
    gl_counting = true;
    {
      int* volatile p = new int(1);
      delete p;
      void* volatile m = std::malloc(3);
      std::free(m);
      std::string big(100, 'x');
    }
    gl_counting = false;
    EXPECT_EQ(gl_newCalls.load(), 2);
    EXPECT_EQ(gl_mallocCalls.load(), ORVIX_COUNT_MALLOC ? 3 : 0);

    gl_newCalls = 0;
    gl_mallocCalls = 0;
    gl_counting = true;
    static const char* const names[10] = {"eingang", "parsen", "layout", "raster", "dither",
                                          "kompress", "puffer", "dma-start", "dma-ende",
                                          "ein Name laenger als 15 Zeichen"};
    long dumped = 0;
    for (int cycle = 0; cycle < 2000; ++cycle) {
      // Never more than the pool's four out at once, so get does not run dry.
      while (dumped - (buf.collectorsBack() - warmUps) >= 4) std::this_thread::yield();
      auto tc = pool.get(16);
      for (const char* n : names) tc->stamp(n);
      pool.dump(std::move(tc));
      ++dumped;
    }
    // Until the last one is printed: the printing counts too.
    while (buf.collectorsBack() - warmUps < dumped) std::this_thread::yield();
    gl_counting = false;
    std::cout << "cycles: " << dumped << ", operator new calls: " << gl_newCalls
              << ", malloc calls: " << gl_mallocCalls << "\n";
    EXPECT_EQ(gl_newCalls.load(), 0);
    EXPECT_EQ(gl_mallocCalls.load(), 0);
  }
  std::cout.imbue(saved);
}
