// Memory of the library's own, released when it goes out of scope: made by Allocate or AllocateZeroed, handed
// over with release(). The allocator's callbacks see the function that allocated, on release too.
#ifndef OPL_MEM_OWNED_H
#define OPL_MEM_OWNED_H

#include <cstdint>
#include <cstring>
#include <memory>

#include "OPL_Mem.h"

namespace opl {

inline constexpr char kNoRevision[] = "NO-VERSION-INFO";

// Where a function calls the allocator: a default argument, so that it names the caller's place.
struct Place {
  const char* caller;
  const char* file;
  uint32_t line;

  static constexpr Place Here(const char* caller = __builtin_FUNCTION(), const char* file = __builtin_FILE(),
                              uint32_t line = __builtin_LINE()) {
    return {caller, file, line};
  }
};

inline void Free(void* pointer, const Place& place = Place::Here()) {
  if (pointer == nullptr) return;
  OPL_MemFree(nullptr, pointer, 0, place.caller, place.file, kNoRevision, place.line);
}

struct Freer {
  Place place;
  void operator()(void* pointer) const { Free(pointer, place); }
};

template <typename T>
using Owned = std::unique_ptr<T, Freer>;

// Both clear the memory and yield null when there is none, errno then being the allocator's. They differ in
// the callback that a host's context gets to see.
template <typename T>
[[nodiscard]] Owned<T> Allocate(const Place& place = Place::Here()) {
  void* const memory =
      OPL_MemMalloc(nullptr, sizeof(T), 0, place.caller, place.file, kNoRevision, place.line);
  if (memory != nullptr) std::memset(memory, 0, sizeof(T));
  return Owned<T>(static_cast<T*>(memory), Freer{place});
}

template <typename T>
[[nodiscard]] Owned<T> AllocateZeroed(const Place& place = Place::Here()) {
  void* const memory =
      OPL_MemCalloc(nullptr, 1, sizeof(T), 0, place.caller, place.file, kNoRevision, place.line);
  return Owned<T>(static_cast<T*>(memory), Freer{place});
}

// NOLINTBEGIN(bugprone-sizeof-expression): of an array of pointers, the size of a pointer is meant

// Arrays, not cleared; ended with Free. Null when there is no memory or no array that large.
template <typename T>
[[nodiscard]] T* AllocateArray(uint32_t count, const Place& place = Place::Here()) {
  if (count > UINT32_MAX / sizeof(T)) return nullptr;
  return static_cast<T*>(OPL_MemMalloc(nullptr, static_cast<uint32_t>(count * sizeof(T)), 0, place.caller,
                                       place.file, kNoRevision, place.line));
}

// The array stays as it was when this yields null.
template <typename T>
[[nodiscard]] T* ReallocateArray(T* array, uint32_t count, const Place& place = Place::Here()) {
  if (count > UINT32_MAX / sizeof(T)) return nullptr;
  return static_cast<T*>(OPL_MemRealloc(nullptr, array, static_cast<uint32_t>(count * sizeof(T)), 0,
                                        place.caller, place.file, kNoRevision, place.line));
}

// NOLINTEND(bugprone-sizeof-expression)

}  // namespace opl

#endif
