// Watches the library's memory through the callbacks of a default context:
//
//   CountedMemory memory;
//   ...
//   EXPECT_EQ(0, memory.Living());   // what was allocated since has been released
//
// New memory is filled with garbage, so that a missing clearing shows.
#ifndef OPL_TESTS_SUPPORT_COUNTED_MEMORY_H
#define OPL_TESTS_SUPPORT_COUNTED_MEMORY_H

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "OPL_Mem.h"

namespace opltest {

class CountedMemory {
 public:
  CountedMemory() {
    if (OPL_MemContextCreate(&context_) != OPL_OK) std::abort();
    (void)OPL_MemCallbackStateSet(context_, this);
    (void)OPL_MemMallocCallbackSet(context_, Malloc);
    (void)OPL_MemCallocCallbackSet(context_, Calloc);
    (void)OPL_MemFreeCallbackSet(context_, Free);
    (void)OPL_MemDefaultHandleSet(context_);
  }
  ~CountedMemory() {
    (void)OPL_MemDefaultHandleSet(nullptr);
    (void)OPL_MemContextDestroy(&context_);
  }
  CountedMemory(const CountedMemory&) = delete;
  CountedMemory& operator=(const CountedMemory&) = delete;

  int Allocated() const { return allocated_; }
  int Living() const { return allocated_ - freed_; }
  // How often the library asked for cleared memory, by OPL_MemCalloc.
  int AskedForCleared() const { return askedForCleared_; }
  // The function that the last release named as its caller.
  const char* LastFreedBy() const { return lastFreedBy_; }

 private:
  static void* Malloc(void* state, uint32_t size, uint32_t, const char*, const char*, const char*, uint32_t) {
    ++static_cast<CountedMemory*>(state)->allocated_;
    void* const memory = std::malloc(size);
    if (memory != nullptr) std::memset(memory, 0xA5, size);
    return memory;
  }
  static void* Calloc(void* state, uint32_t count, uint32_t size, uint32_t, const char*, const char*,
                      const char*, uint32_t) {
    ++static_cast<CountedMemory*>(state)->allocated_;
    ++static_cast<CountedMemory*>(state)->askedForCleared_;
    return std::calloc(count, size);
  }
  static void Free(void* state, void* pointer, uint32_t, const char* caller, const char*, const char*,
                   uint32_t) {
    ++static_cast<CountedMemory*>(state)->freed_;
    static_cast<CountedMemory*>(state)->lastFreedBy_ = caller;
    std::free(pointer);
  }

  OPL_MemContext* context_ = nullptr;
  std::atomic<int> allocated_{0};
  std::atomic<int> freed_{0};
  std::atomic<int> askedForCleared_{0};
  std::atomic<const char*> lastFreedBy_{nullptr};
};

}  // namespace opltest

#endif
