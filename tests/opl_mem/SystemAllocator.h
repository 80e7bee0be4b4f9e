// Watches the system's allocator, and makes it fail: for what the memory layer does below its callbacks.
//
//   SystemAllocator system;                          // counts the calls of the calling thread from now on
//   SystemAllocator system(SystemAllocator::kFails); // and refuses memory
//   SystemAllocator system(SystemAllocator::kKeeps); // and keeps what it releases, for the test to release
//
// malloc, calloc, realloc and free are defined in the test program and hand on to the C library, or to the
// sanitizer that stands in its place. Included by one source file of a program.
#ifndef OPL_TESTS_OPL_MEM_SYSTEM_ALLOCATOR_H
#define OPL_TESTS_OPL_MEM_SYSTEM_ALLOCATOR_H

#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OPLTEST_ALLOCATOR(name) __interceptor_##name
#else
#define OPLTEST_ALLOCATOR(name) __libc_##name
#endif

// These run before a sanitizer has set itself up.
#define OPLTEST_EARLY __attribute__((no_sanitize("address", "thread", "undefined")))

extern "C" {
void* OPLTEST_ALLOCATOR(malloc)(size_t size);
void* OPLTEST_ALLOCATOR(calloc)(size_t count, size_t size);
void* OPLTEST_ALLOCATOR(realloc)(void* pointer, size_t size);
void OPLTEST_ALLOCATOR(free)(void* pointer);
}

namespace opltest {

struct AllocatorCall {
  enum Function { kNone, kMalloc, kCalloc, kRealloc, kFree };

  Function function = kNone;
  const void* pointer = nullptr;
  size_t count = 0;
  size_t size = 0;
};

class SystemAllocator {
 public:
  enum Behaviour { kWorks, kFails, kKeeps };

  explicit SystemAllocator(Behaviour behaviour = kWorks) : behaviour_(behaviour) { inForce_ = this; }
  ~SystemAllocator() { inForce_ = nullptr; }
  SystemAllocator(const SystemAllocator&) = delete;
  SystemAllocator& operator=(const SystemAllocator&) = delete;

  int Calls() const { return calls_; }
  AllocatorCall Last() const { return last_; }

  // Whether the call goes on to the system.
  OPLTEST_EARLY static bool Passes(AllocatorCall::Function function, const void* pointer, size_t count,
                                   size_t size) {
    SystemAllocator* const watch = inForce_;
    if (watch == nullptr) return true;
    ++watch->calls_;
    watch->last_ = {function, pointer, count, size};
    if (function == AllocatorCall::kFree) return watch->behaviour_ != kKeeps;
    if (watch->behaviour_ != kFails) return true;
    errno = ENOMEM;
    return false;
  }

 private:
  static inline thread_local constinit SystemAllocator* inForce_ = nullptr;

  const Behaviour behaviour_;
  int calls_ = 0;
  AllocatorCall last_;
};

}  // namespace opltest

extern "C" OPLTEST_EARLY void* malloc(size_t size) noexcept {
  using opltest::AllocatorCall;
  if (!opltest::SystemAllocator::Passes(AllocatorCall::kMalloc, nullptr, 1, size)) return nullptr;
  return OPLTEST_ALLOCATOR(malloc)(size);
}

extern "C" OPLTEST_EARLY void* calloc(size_t count, size_t size) noexcept {
  using opltest::AllocatorCall;
  if (!opltest::SystemAllocator::Passes(AllocatorCall::kCalloc, nullptr, count, size)) return nullptr;
  return OPLTEST_ALLOCATOR(calloc)(count, size);
}

extern "C" OPLTEST_EARLY void* realloc(void* pointer, size_t size) noexcept {
  using opltest::AllocatorCall;
  if (!opltest::SystemAllocator::Passes(AllocatorCall::kRealloc, pointer, 1, size)) return nullptr;
  return OPLTEST_ALLOCATOR(realloc)(pointer, size);
}

extern "C" OPLTEST_EARLY void free(void* pointer) noexcept {
  using opltest::AllocatorCall;
  if (!opltest::SystemAllocator::Passes(AllocatorCall::kFree, pointer, 0, 0)) return;
  OPLTEST_ALLOCATOR(free)(pointer);
}

#endif
