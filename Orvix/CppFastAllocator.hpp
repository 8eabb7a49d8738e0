// Region heaps for real-time paths and a standard allocator over them.
//
// A heap hands out 8-byte-aligned pieces of one contiguous region by bumping a pointer: no
// search, no split, and no system allocation after construction. Freeing the most recently
// allocated piece (of a size that is a multiple of 8) steps back; freeing the last outstanding
// byte rewinds the whole heap. SimpleHeap owns its region and locks the process's pages in
// memory when built; SubHeap borrows its region from a parent heap. FastAllocator<T> shares one
// heap between standard containers.
//
// Nothing here locks: a heap and every allocator sharing it belong to one thread at a time (only
// the shared_ptr counts are atomic). Misuse (overflowing the region, freeing more than is out,
// an allocator without heap) fails an assertion and aborts; a failing memory lock prints
// "mlockall failed" with the system's reason and aborts. Builds under AddressSanitizer or
// ThreadSanitizer lock only each SimpleHeap's own region (mlock) instead of all current pages:
// their terabyte-sized shadow mappings cannot be locked.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "Orvix/OrvixAssert.hpp"

namespace orvix {

// n rounded up to the next multiple of 8, the heaps' alignment (wraps to a smaller number for an
// n within 7 of the type's maximum; BaseHeap::alloc checks for that).
constexpr size_t roundUpTo8(size_t n) { return (n + 7) & ~static_cast<size_t>(7); }

// A region heap.
class IHeap {
 public:
  virtual ~IHeap() = default;
  // An 8-byte-aligned piece of size bytes; never null (exhaustion aborts).
  virtual void* alloc(size_t size) = 0;
  // Gives back a piece; size must be the one passed to alloc.
  virtual void dealloc(void* p, size_t size) = 0;
  // True when nothing is out.
  virtual bool allFree() = 0;
};

// The bump allocator over a region it does not own. Its fields are open to its owners and tests.
class BaseHeap : public IHeap {
 public:
  // Unusable until init.
  BaseHeap();
  BaseHeap(char* mem, char* memEnd);
  ~BaseHeap() override;
  // A copy would bump the same region: two heaps handing out the same bytes.
  BaseHeap(const BaseHeap&) = delete;
  BaseHeap& operator=(const BaseHeap&) = delete;

  // Takes [mem, memEnd) and starts empty; sumPadding keeps counting across regions.
  void init(char* mem, char* memEnd);

  void* alloc(size_t size) override;
  void dealloc(void* p, size_t size) override;
  bool allFree() override;

  // First byte of the region.
  char* mem;
  // One past the last usable byte.
  char* memEnd;
  // Where the next piece starts; 8-byte aligned while in use.
  char* nextMem;
  // Requested (unrounded) bytes of all pieces out.
  size_t sumAllocated;
  // Bytes lost to rounding, ever; a statistic only.
  size_t sumPadding;

 private:
  // The unit the inline members' assertions name.
  static constexpr const char* kUnit = "Orvix/CppFastAllocator";
};

// A heap owning its region; building one locks the process's current pages in memory
// (mlockall(MCL_CURRENT); sanitizer builds: mlock of the region, see above).
class SimpleHeap : public IHeap {
 public:
  // The heap built when the library is loaded: 1 MiB.
  static SimpleHeap singleton;

  // size bytes, 8-aligned; throws std::bad_array_new_length above 0x0FFFFFFF units of 8 bytes.
  explicit SimpleHeap(size_t size);
  // Releases the region whatever is still out.
  ~SimpleHeap() override;
  SimpleHeap(const SimpleHeap&) = delete;
  SimpleHeap& operator=(const SimpleHeap&) = delete;

  void* alloc(size_t size) override;
  void dealloc(void* p, size_t size) override;
  bool allFree() override;

  // The owned region, whole 8-byte units.
  unsigned long long* const allocd;
  // Manages [allocd, allocd + size).
  BaseHeap base;
};

// A heap whose region is one piece of a parent heap, given back whole on destruction.
class SubHeap : public IHeap {
 public:
  // Takes size bytes from parent; a throw of the parent propagates.
  SubHeap(IHeap& parent, size_t size);
  ~SubHeap() override;
  SubHeap(const SubHeap&) = delete;
  SubHeap& operator=(const SubHeap&) = delete;

  void* alloc(size_t size) override;
  void dealloc(void* p, size_t size) override;
  bool allFree() override;

  // Where the region came from.
  IHeap& parent;
  // Manages the piece.
  BaseHeap base;
};

// The hot path is inline so that a caller holding the heap by its type pays a few instructions;
// the assertion texts name the library's source unit.
inline void* BaseHeap::alloc(size_t size) {
  ORVIX_ASSERT((reinterpret_cast<ptrdiff_t>(nextMem) & 7) == 0, "((ptrdiff_t) nextMem & 7) == 0",
               kUnit, 110);
  const size_t ceilSize = roundUpTo8(size);
  if (size < ceilSize) sumPadding += ceilSize - size;
  // Compared as distances (and against wrapping): the pointer sum may lie outside the region.
  ORVIX_ASSERT(ceilSize <= static_cast<size_t>(memEnd - nextMem) && ceilSize >= size,
               "nextMem + ceilSize <= memEnd", kUnit, 119);
  char* result = nextMem;
  nextMem += ceilSize;
  sumAllocated += size;
  return result;
}

inline void BaseHeap::dealloc(void* p, size_t size) {
  ORVIX_ASSERT(sumAllocated >= size, "sumAllocated >= size", kUnit, 135);
  sumAllocated -= size;
  if (sumAllocated == 0) {
    nextMem = mem;
    return;
  }
  // The unrounded size: only pieces of a multiple of 8 step back singly.
  if (nextMem == static_cast<char*>(p) + size) nextMem = static_cast<char*>(p);
}

inline bool BaseHeap::allFree() { return nextMem == mem; }

// A deleter that does nothing: puts an object whose owner destroys it explicitly (a SubHeap
// placed in another heap) under a shared_ptr.
template <typename T>
struct EmptyDeleter {
  void operator()(T*) const {}
};

// A standard allocator drawing from a shared IHeap. Copies share the heap; two allocators are
// equal when they share it.
template <typename T>
class FastAllocator {
 public:
  using value_type = T;

  // Without heap: allocate and conversion from it assert.
  FastAllocator() = default;
  FastAllocator(std::shared_ptr<IHeap> heap) : heap(std::move(heap)) {}  // NOLINT: implicit
  template <typename T2>
  FastAllocator(const FastAllocator<T2>& b) {  // NOLINT: implicit
    ORVIX_ASSERT(b.getHeap(), "b.getHeap()", "Orvix/CppFastAllocator.hpp", 129);
    heap = b.getHeap();
  }

  const std::shared_ptr<IHeap>& getHeap() const { return heap; }

  T* allocate(size_t n) {
    ORVIX_ASSERT(heap, "heap", "Orvix/CppFastAllocator.hpp", 148);
    return static_cast<T*>(heap->alloc(n * sizeof(T)));
  }

  void deallocate(T* p, size_t n) { heap->dealloc(p, n * sizeof(T)); }

  template <typename T2>
  bool operator==(const FastAllocator<T2>& b) const {
    return heap == b.getHeap();
  }
  template <typename T2>
  bool operator!=(const FastAllocator<T2>& b) const {
    return heap != b.getHeap();
  }

 private:
  std::shared_ptr<IHeap> heap;
};

}  // namespace orvix
