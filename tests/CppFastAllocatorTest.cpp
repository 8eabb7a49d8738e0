#include "Orvix/CppFastAllocator.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <list>
#include <random>
#include <type_traits>
#include <vector>

#include "TestSupport.hpp"

// Memory locking observed in front of the system. The normal build locks with mlockall; the
// sanitizer builds lock the heap's region with mlock (their shadow mappings cannot be locked).
// Atomics: the library locks from its load-time constructor as well as from test threads.
static std::atomic<int> gl_lockCalls{0};
static std::atomic<int> gl_lastFlags{0};
static std::atomic<int> gl_failLockWith{0};  // errno of an injected failure, 0 for none

// Counts one lock call; true (errno set) when a failure was armed.
static bool lockCallFails(int flags) {
  ++gl_lockCalls;
  gl_lastFlags = flags;
  const int err = orvix_test::takeArmed(gl_failLockWith);
  if (err == 0) return false;
  errno = err;
  return true;
}

extern "C" int mlockall(int flags) {
  static auto real = orvix_test::nextSymbol<int (*)(int)>("mlockall");
  if (lockCallFails(flags)) return -1;
  return real(flags);
}

extern "C" int mlock(const void* addr, size_t len) {
  static auto real = orvix_test::nextSymbol<int (*)(const void*, size_t)>("mlock");
  if (lockCallFails(MCL_CURRENT)) return -1;
  return real(addr, len);
}

using orvix::BaseHeap;
using orvix::FastAllocator;
using orvix::IHeap;
using orvix::SimpleHeap;
using orvix::SubHeap;
using orvix_test::assertionLine;
using orvix_test::errorText;
using orvix_test::runInChild;

namespace {

const char* kAllocSig = "virtual void* orvix::BaseHeap::alloc(size_t)";
const char* kDeallocSig = "virtual void orvix::BaseHeap::dealloc(void*, size_t)";

// A region of n bytes aligned to 8.
struct Region {
  explicit Region(size_t n) : units((n + 7) / 8 + 1), start(reinterpret_cast<char*>(units.data())),
                              end(start + n) {}
  std::vector<unsigned long long> units;
  char* start;
  char* end;
};

}  // namespace

TEST(BaseHeap, CopyingIsRefused) {
  // A copy would bump the same region: two heaps handing out the same bytes.
  static_assert(!std::is_copy_constructible<BaseHeap>::value, "");
  static_assert(!std::is_copy_assignable<BaseHeap>::value, "");
}

TEST(BaseHeap, RoundUpTo8) {
  static_assert(orvix::roundUpTo8(0) == 0, "");
  static_assert(orvix::roundUpTo8(1) == 8, "");
  static_assert(orvix::roundUpTo8(8) == 8, "");
  static_assert(orvix::roundUpTo8(9) == 16, "");
  // Wraps near the maximum; alloc's check relies on seeing the result smaller than the request.
  static_assert(orvix::roundUpTo8(static_cast<size_t>(-3)) == 0, "");
  EXPECT_EQ(orvix::roundUpTo8(13), 16u);
}

TEST(BaseHeap, DefaultIsUnusableUntilInit) {
  BaseHeap h;
  EXPECT_EQ(h.mem, nullptr);
  EXPECT_EQ(h.memEnd, nullptr);
  EXPECT_EQ(h.sumAllocated, 0u);
  Region r(64);
  h.init(r.start, r.end);
  EXPECT_EQ(h.nextMem, r.start);
  EXPECT_TRUE(h.allFree());
  EXPECT_EQ(h.alloc(8), r.start);
}

TEST(BaseHeap, FiveThenEightBytes) {
  Region r(64);
  BaseHeap h(r.start, r.end);
  EXPECT_EQ(h.alloc(5), r.start);
  EXPECT_EQ(h.alloc(8), r.start + 8);
  EXPECT_EQ(h.sumAllocated, 13u);
  EXPECT_EQ(h.sumPadding, 3u);
  EXPECT_EQ(h.nextMem, r.start + 16);
}

TEST(BaseHeap, ZeroBytesDoNotAdvance) {
  Region r(64);
  BaseHeap h(r.start, r.end);
  h.alloc(8);
  EXPECT_EQ(h.alloc(0), r.start + 8);
  EXPECT_EQ(h.nextMem, r.start + 8);
  EXPECT_EQ(h.sumPadding, 0u);
}

TEST(BaseHeap, FreeingAnEightByteLastPieceStepsBack) {
  Region r(64);
  BaseHeap h(r.start, r.end);
  h.alloc(5);
  void* p = h.alloc(8);
  h.dealloc(p, 8);
  EXPECT_EQ(h.nextMem, r.start + 8);
  EXPECT_EQ(h.sumAllocated, 5u);
}

TEST(BaseHeap, FreeingAFiveByteLastPieceDoesNotMove) {
  Region r(64);
  BaseHeap h(r.start, r.end);
  h.alloc(8);
  void* p = h.alloc(5);
  h.dealloc(p, 5);
  EXPECT_EQ(h.nextMem, r.start + 16);
  EXPECT_EQ(h.sumAllocated, 8u);
  EXPECT_FALSE(h.allFree());
}

TEST(BaseHeap, FreeingTheLastBytesRewindsInAnyOrder) {
  Region r(128);
  BaseHeap h(r.start, r.end);
  void* a = h.alloc(13);
  void* b = h.alloc(8);
  void* c = h.alloc(3);
  h.dealloc(a, 13);
  h.dealloc(b, 8);
  EXPECT_EQ(h.nextMem, r.start + 32);
  h.dealloc(c, 3);
  EXPECT_EQ(h.nextMem, r.start);
  EXPECT_TRUE(h.allFree());
}

TEST(BaseHeap, RequestEndingExactlyAtTheEndSucceeds) {
  Region r(24);
  BaseHeap h(r.start, r.end);
  h.alloc(8);
  EXPECT_EQ(h.alloc(16), r.start + 8);
  EXPECT_EQ(h.nextMem, r.end);
}

TEST(BaseHeapDeathTest, RoundedRequestMayNotPassAnUnalignedEnd) {
  // The region ends 5 bytes after a unit: a 5-byte request needs 8.
  Region r(13);
  BaseHeap h(r.start, r.end);
  h.alloc(8);
  EXPECT_DEATH(h.alloc(5), "Assertion `nextMem \\+ ceilSize <= memEnd' failed");
}

TEST(BaseHeapDeathTest, RequestPassingTheEndByOneAborts) {
  auto res = runInChild([] {
    Region r(24);
    BaseHeap h(r.start, r.end);
    h.alloc(8);
    h.alloc(17);
  });
  ASSERT_TRUE(res.signaled()) << res.describe();
  EXPECT_EQ(res.signal(), SIGABRT);
  EXPECT_EQ(res.err, assertionLine("Orvix/CppFastAllocator", 119, kAllocSig,
                                   "nextMem + ceilSize <= memEnd"));
}

TEST(BaseHeapDeathTest, HugeRequestAbortsInsteadOfWrapping) {
  Region r(24);
  BaseHeap h(r.start, r.end);
  EXPECT_DEATH(h.alloc(static_cast<size_t>(-3)), "Assertion `nextMem \\+ ceilSize <= memEnd'");
}

TEST(BaseHeapDeathTest, MisalignedNextMemAborts) {
  auto res = runInChild([] {
    Region r(64);
    BaseHeap h(r.start + 1, r.end);
    h.alloc(8);
  });
  ASSERT_TRUE(res.signaled()) << res.describe();
  EXPECT_EQ(res.err, assertionLine("Orvix/CppFastAllocator", 110, kAllocSig,
                                   "((ptrdiff_t) nextMem & 7) == 0"));
}

TEST(BaseHeapDeathTest, FreeingMoreThanIsOutAborts) {
  auto res = runInChild([] {
    Region r(64);
    BaseHeap h(r.start, r.end);
    void* p = h.alloc(8);
    h.dealloc(p, 9);
  });
  ASSERT_TRUE(res.signaled()) << res.describe();
  EXPECT_EQ(res.err,
            assertionLine("Orvix/CppFastAllocator", 135, kDeallocSig, "sumAllocated >= size"));
}

TEST(BaseHeap, InitKeepsThePaddingStatistic) {
  Region r(64);
  BaseHeap h(r.start, r.end);
  h.alloc(1);
  EXPECT_EQ(h.sumPadding, 7u);
  h.init(r.start, r.end);
  EXPECT_EQ(h.sumPadding, 7u);
  EXPECT_EQ(h.sumAllocated, 0u);
  EXPECT_TRUE(h.allFree());
}

// The heap against a small model of its bookkeeping, over random allocations and frees (in
// random order, so single-piece rewinds, lost bytes and full rewinds all occur).
TEST(BaseHeap, RandomizedAgainstModel) {
  std::mt19937 rng(20261122);
  Region r(4096);
  BaseHeap h(r.start, r.end);
  struct Piece {
    char* p;
    size_t size;
  };
  std::vector<Piece> out;
  size_t next = 0, sum = 0, padding = 0;
  for (int i = 0; i < 20000; ++i) {
    const bool doAlloc = out.empty() || rng() % 100 < 55;
    if (doAlloc) {
      const size_t size = rng() % 4 == 0 ? (rng() % 8) * 8 : rng() % 70;
      const size_t ceil = (size + 7) / 8 * 8;
      if (next + ceil > 4096) {
        // Would overflow: free everything instead.
        for (auto& piece : out) h.dealloc(piece.p, piece.size);
        out.clear();
        next = 0;
        sum = 0;
        ASSERT_TRUE(h.allFree());
        continue;
      }
      char* p = static_cast<char*>(h.alloc(size));
      ASSERT_EQ(p, r.start + next);
      padding += ceil - size;
      next += ceil;
      sum += size;
      out.push_back({p, size});
    } else {
      // Mostly the last piece, sometimes any.
      const size_t idx = rng() % 3 == 0 ? rng() % out.size() : out.size() - 1;
      const Piece piece = out[idx];
      out.erase(out.begin() + static_cast<std::ptrdiff_t>(idx));
      h.dealloc(piece.p, piece.size);
      sum -= piece.size;
      if (sum == 0) {
        next = 0;
      } else if (r.start + next == piece.p + piece.size) {
        next = static_cast<size_t>(piece.p - r.start);
      }
    }
    ASSERT_EQ(h.nextMem, r.start + next) << "step " << i;
    ASSERT_EQ(h.sumAllocated, sum) << "step " << i;
    ASSERT_EQ(h.sumPadding, padding) << "step " << i;
    ASSERT_EQ(h.allFree(), next == 0) << "step " << i;
    ASSERT_EQ(reinterpret_cast<uintptr_t>(h.nextMem) % 8, 0u);
  }
}

TEST(SimpleHeapDeathTest, OwnsAnAlignedRegionOfTheGivenSize) {
  SimpleHeap h(100);
  ASSERT_NE(h.allocd, nullptr);
  EXPECT_EQ(h.base.mem, reinterpret_cast<char*>(h.allocd));
  EXPECT_EQ(h.base.memEnd - h.base.mem, 100);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(h.allocd) % 8, 0u);
  EXPECT_TRUE(h.allFree());
  void* a = h.alloc(96);
  EXPECT_EQ(a, h.allocd);
  // The region ends at the unrounded size: the last 4 bytes cannot hold a rounded piece.
  EXPECT_DEATH(h.alloc(4), "Assertion `nextMem \\+ ceilSize <= memEnd' failed");
  EXPECT_EQ(h.alloc(0), reinterpret_cast<char*>(h.allocd) + 96);
  EXPECT_FALSE(h.allFree());
  h.dealloc(a, 96);
  EXPECT_TRUE(h.allFree());
  h.alloc(24);
  EXPECT_FALSE(h.allFree());
  // Destroyed with a piece still out: allowed.
}

TEST(SimpleHeap, LocksMemoryOnEveryConstruction) {
  const int before = gl_lockCalls;
  { SimpleHeap a(64); }
  { SimpleHeap b(64); }
  EXPECT_EQ(gl_lockCalls - before, 2);
  EXPECT_EQ(gl_lastFlags.load(), MCL_CURRENT);
}

TEST(SimpleHeapDeathTest, FailingLockPrintsAndAborts) {
  auto res = runInChild([] {
    gl_failLockWith = EPERM;
    SimpleHeap h(64);
    printf("not reached\n");
  });
  ASSERT_TRUE(res.signaled()) << res.describe();
  EXPECT_EQ(res.signal(), SIGABRT);
  EXPECT_EQ(res.out, "");
  EXPECT_EQ(res.err, "mlockall failed: " + errorText(EPERM) + "\n");
}

TEST(SimpleHeap, TooManyUnitsThrowBadArrayNewLength) {
  const int before = gl_lockCalls;
  EXPECT_THROW(SimpleHeap h(size_t{0x0FFFFFFF} * 8 + 1), std::bad_array_new_length);
  EXPECT_THROW(SimpleHeap h(static_cast<size_t>(-1)), std::bad_array_new_length);
  EXPECT_EQ(gl_lockCalls.load(), before);
}

TEST(SimpleHeapDeathTest, ForeignBaseAborts) {
  auto res = runInChild([] {
    SimpleHeap h(64);
    h.base.mem += 8;
    h.alloc(8);
  });
  ASSERT_TRUE(res.signaled()) << res.describe();
  EXPECT_EQ(res.err, assertionLine("Orvix/CppFastAllocator", 127,
                                   "virtual void* orvix::SimpleHeap::alloc(size_t)",
                                   "base.mem == (char*) this->allocd"));
}

TEST(SimpleHeap, SingletonOfOneMebibyteBuiltAtLoad) {
  SimpleHeap& s = SimpleHeap::singleton;
  EXPECT_EQ(s.base.mem, reinterpret_cast<char*>(s.allocd));
  EXPECT_EQ(s.base.memEnd - s.base.mem, 0x100000);
  // Its lock happened while the library was loaded, before any test ran.
  EXPECT_GE(gl_lockCalls.load(), 1);
}

TEST(SubHeap, TakesItsRegionFromTheParentAndGivesItBack) {
  SimpleHeap parent(256);
  {
    SubHeap sub(parent, 64);
    EXPECT_EQ(sub.base.mem, reinterpret_cast<char*>(parent.allocd));
    EXPECT_EQ(sub.base.memEnd - sub.base.mem, 64);
    EXPECT_EQ(parent.base.sumAllocated, 64u);
    EXPECT_FALSE(parent.allFree());
    EXPECT_TRUE(sub.allFree());
    void* p = sub.alloc(10);
    EXPECT_EQ(p, sub.base.mem);
    EXPECT_FALSE(sub.allFree());
    sub.dealloc(p, 10);
    EXPECT_TRUE(sub.allFree());
    sub.alloc(60);  // left out on purpose: the sub-heap goes back whole
  }
  EXPECT_TRUE(parent.allFree());
}

TEST(SubHeap, ParentDecidesWhetherItRewinds) {
  SimpleHeap parent(256);
  void* first = parent.alloc(8);
  { SubHeap sub(parent, 13); }
  // 13 is no multiple of 8: the parent keeps the bytes lost until everything is free.
  EXPECT_EQ(parent.base.nextMem, reinterpret_cast<char*>(parent.allocd) + 24);
  parent.dealloc(first, 8);
  EXPECT_TRUE(parent.allFree());
}

TEST(SubHeapDeathTest, ParentOverflowAborts) {
  SimpleHeap parent(32);
  EXPECT_DEATH(SubHeap sub(parent, 40), "Assertion `nextMem \\+ ceilSize <= memEnd' failed");
}

TEST(FastAllocator, VectorLivesInTheHeap) {
  auto heap = std::make_shared<SimpleHeap>(1024);
  FastAllocator<int> a(heap);
  {
    std::vector<int, FastAllocator<int>> v(a);
    v.reserve(10);
    EXPECT_EQ(static_cast<void*>(v.data()), heap->allocd);
    for (int i = 0; i < 10; ++i) v.push_back(i);
    EXPECT_EQ(heap->base.sumAllocated, 40u);
  }
  EXPECT_TRUE(heap->allFree());
}

TEST(FastAllocator, CopiesAndRebindsShareTheHeap) {
  std::shared_ptr<IHeap> heap = std::make_shared<SimpleHeap>(1024);
  FastAllocator<char> a(heap);
  FastAllocator<double> b(a);
  FastAllocator<char> c(b);
  EXPECT_EQ(b.getHeap(), heap);
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(a == c);
  EXPECT_EQ(heap.use_count(), 4);
  FastAllocator<char> other(std::make_shared<SimpleHeap>(64));
  EXPECT_TRUE(a != other);
  std::list<int, FastAllocator<int>> l(a);
  l.push_back(1);
  l.push_back(2);
  EXPECT_FALSE(heap->allFree());
  l.clear();
  EXPECT_TRUE(heap->allFree());
}

TEST(FastAllocatorDeathTest, AllocateWithoutHeapAborts) {
  auto res = runInChild([] {
    FastAllocator<int> a{std::shared_ptr<IHeap>()};
    a.allocate(1);
  });
  ASSERT_TRUE(res.signaled()) << res.describe();
  EXPECT_EQ(res.err, assertionLine("Orvix/CppFastAllocator.hpp", 148,
                                   std::string("T* orvix::FastAllocator<T>::allocate(size_t) "
                                               "[with T = int; size_t = ") +
                                       (sizeof(size_t) == 8 ? "long " : "") + "unsigned int]",
                                   "heap"));
}

TEST(FastAllocatorDeathTest, ConvertingFromAllocatorWithoutHeapAborts) {
  EXPECT_DEATH(
      {
        FastAllocator<int> a;
        FastAllocator<char> b(a);
      },
      "Orvix/CppFastAllocator.hpp:129: .*FastAllocator.*Assertion `b.getHeap\\(\\)' failed");
}

TEST(EmptyDeleter, NeverFrees) {
  SimpleHeap parent(256);
  auto* sub = new (parent.alloc(sizeof(SubHeap))) SubHeap(parent, 64);
  {
    std::shared_ptr<IHeap> p(sub, orvix::EmptyDeleter<IHeap>());
    FastAllocator<int> a(p);
    a.deallocate(a.allocate(2), 2);
  }
  EXPECT_EQ(sub->base.memEnd - sub->base.mem, 64);  // still alive
  sub->~SubHeap();
}
