// Region-heap alloc+dealloc against malloc/free and a monotonic buffer resource, same sizes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory_resource>
#include <vector>

#include "Orvix/CppFastAllocator.hpp"

static void BM_BaseHeapAllocDealloc(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  std::vector<unsigned long long> region(1 << 17);
  char* mem = reinterpret_cast<char*>(region.data());
  orvix::BaseHeap heap(mem, mem + region.size() * 8);
  for (auto _ : state) {
    void* p = heap.alloc(size);
    benchmark::DoNotOptimize(p);
    heap.dealloc(p, size);
  }
}
BENCHMARK(BM_BaseHeapAllocDealloc)->RangeMultiplier(2)->Range(16, 256);

// The same through the interface, as a FastAllocator reaches a collector's sub-heap.
static void BM_SubHeapViaFastAllocator(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  auto parent = std::make_shared<orvix::SimpleHeap>(1 << 20);
  auto sub = std::make_shared<orvix::SubHeap>(*parent, 1 << 19);
  orvix::FastAllocator<char> alloc{std::shared_ptr<orvix::IHeap>(sub)};
  for (auto _ : state) {
    char* p = alloc.allocate(size);
    benchmark::DoNotOptimize(p);
    alloc.deallocate(p, size);
  }
}
BENCHMARK(BM_SubHeapViaFastAllocator)->RangeMultiplier(2)->Range(16, 256);

static void BM_MallocFree(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(BM_MallocFree)->RangeMultiplier(2)->Range(16, 256);

static void BM_MonotonicResource(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  std::vector<char> buffer(1 << 20);
  std::pmr::monotonic_buffer_resource resource(buffer.data(), buffer.size());
  size_t used = 0;
  for (auto _ : state) {
    void* p = resource.allocate(size, 8);
    benchmark::DoNotOptimize(p);
    resource.deallocate(p, size, 8);
    // It never reuses freed bytes: start over before the buffer runs out.
    used += size;
    if (used + 256 > buffer.size()) {
      resource.release();
      used = 0;
    }
  }
}
BENCHMARK(BM_MonotonicResource)->RangeMultiplier(2)->Range(16, 256);

BENCHMARK_MAIN();
