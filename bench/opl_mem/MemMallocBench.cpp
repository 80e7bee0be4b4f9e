// Allocating and releasing through the library, without a memory context, against the system's allocator.
#include <cstdlib>
#include <string>

#include "OPL_Mem.h"
#include "bench/support/Bench.h"

namespace {

template <uint32_t kSize>
void PairOpl(benchmark::State& state) {
  uint32_t size = kSize;
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    void* const memory =
        OPL_MemMalloc(nullptr, size, 0, __func__, "MemMallocBench.cpp", "NO-VERSION-INFO", __LINE__);
    benchmark::DoNotOptimize(memory);
    OPL_MemFree(nullptr, memory, 0, __func__, "MemMallocBench.cpp", "NO-VERSION-INFO", __LINE__);
  }
}

template <uint32_t kSize>
void PairLibc(benchmark::State& state) {
  uint32_t size = kSize;
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    void* const memory = std::malloc(size);
    benchmark::DoNotOptimize(memory);
    std::free(memory);
  }
}

template <uint32_t kSize>
oplbench::Row PairRow() {
  // Leading blanks keep the rows in the order of their sizes.
  const std::string size = std::to_string(kSize);
  return {"memory: malloc and free " + std::string(4 - size.size(), ' ') + size,
          PairOpl<kSize>,
          {{"malloc, free", PairLibc<kSize>, 1.05}}};
}

const oplbench::Row kPair16 = PairRow<16>();
const oplbench::Row kPair64 = PairRow<64>();
const oplbench::Row kPair512 = PairRow<512>();
const oplbench::Row kPair4096 = PairRow<4096>();

}  // namespace
