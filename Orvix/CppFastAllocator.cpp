#include "Orvix/CppFastAllocator.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Orvix/internal/Config.hpp"
#include "Orvix/internal/StartupOrder.hpp"

namespace orvix {

namespace {

constexpr const char* kUnit = "Orvix/CppFastAllocator";

// Keeps the heap's pages resident so that first touches on a real-time path do not fault.
void lockMemory(void* region, size_t size) {
#if ORVIX_SANITIZER_BUILD
  // Sanitizer builds only: MCL_CURRENT would try to lock the sanitizer's terabytes of shadow
  // mappings (no memory limit is large enough), so these builds lock just this heap's region.
  // A failure is reported and aborts as in the normal build.
  if (size != 0 && mlock(region, size) == -1) {
    perror("mlockall failed");
    abort();
  }
#else
  (void)region;
  (void)size;
  if (mlockall(MCL_CURRENT) == -1) {
    perror("mlockall failed");
    abort();
  }
#endif
}

}  // namespace

BaseHeap::BaseHeap()
    : mem(nullptr), memEnd(nullptr), nextMem(nullptr), sumAllocated(0), sumPadding(0) {}

BaseHeap::BaseHeap(char* mem, char* memEnd)
    : mem(mem), memEnd(memEnd), nextMem(mem), sumAllocated(0), sumPadding(0) {}

BaseHeap::~BaseHeap() = default;

void BaseHeap::init(char* mem, char* memEnd) {
  this->mem = mem;
  this->memEnd = memEnd;
  nextMem = mem;
  sumAllocated = 0;
}

namespace {

unsigned long long* newUnits(size_t size) {
  // Counted without the +7 so that a size near the type's maximum cannot wrap to a small one.
  const size_t units = size / 8 + (size % 8 != 0 ? 1 : 0);
  if (units > 0x0FFFFFFFu) throw std::bad_array_new_length();
  return new unsigned long long[units];
}

}  // namespace

SimpleHeap::SimpleHeap(size_t size)
    : allocd(newUnits(size)),
      base(reinterpret_cast<char*>(allocd), reinterpret_cast<char*>(allocd) + size) {
  lockMemory(allocd, size);
}

SimpleHeap::~SimpleHeap() { delete[] allocd; }

void* SimpleHeap::alloc(size_t size) {
  ORVIX_ASSERT(base.mem == reinterpret_cast<char*>(this->allocd),
               "base.mem == (char*) this->allocd", kUnit, 127);
  return base.alloc(size);
}

void SimpleHeap::dealloc(void* p, size_t size) { base.dealloc(p, size); }

bool SimpleHeap::allFree() { return base.allFree(); }

template class FastAllocator<char>;
template class FastAllocator<SubHeap>;

SimpleHeap SimpleHeap::singleton ORVIX_INIT_PRIORITY(ORVIX_INIT_HEAP)(0x100000);

SubHeap::SubHeap(IHeap& parent, size_t size) : parent(parent), base() {
  char* p = static_cast<char*>(parent.alloc(size));
  base.init(p, p + size);
}

SubHeap::~SubHeap() { parent.dealloc(base.mem, static_cast<size_t>(base.memEnd - base.mem)); }

void* SubHeap::alloc(size_t size) { return base.alloc(size); }

void SubHeap::dealloc(void* p, size_t size) { base.dealloc(p, size); }

bool SubHeap::allFree() { return base.allFree(); }

}  // namespace orvix
