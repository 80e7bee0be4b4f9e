// How a thread's 32-bit id follows from the system's thread handle.
#ifndef OPL_THREAD_THREAD_ID_H
#define OPL_THREAD_THREAD_ID_H

#include <pthread.h>

#include <cstdint>

namespace opl {

// Where the handle has 32 bits, it is the id. Where it has 64, it is the address of the thread's control
// block, which is larger than 2 KB: dropping the 11 low bits keeps two blocks apart, however near they lie,
// as that of the process's first thread and that at the end of the next thread's stack do. The 32 bits that
// are left tell apart all blocks within 8 TB, more than the mappings of a process span; the heap, where a
// caller's own stacks may lie, is further away, but in another part of its 8 TB. A forked child has the
// parent's addresses and thus the same id.
inline uint32_t ThreadIdOf(pthread_t thread) {
  if constexpr (sizeof(pthread_t) == sizeof(uint32_t)) {
    return static_cast<uint32_t>(thread);
  } else {
    constexpr int kControlBlockBits = 11;
    return static_cast<uint32_t>(thread >> kControlBlockBits);
  }
}

}  // namespace opl

#endif
