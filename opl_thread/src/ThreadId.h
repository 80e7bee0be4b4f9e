// How a thread's 32-bit id follows from the system's thread handle.
#ifndef OPL_THREAD_THREAD_ID_H
#define OPL_THREAD_THREAD_ID_H

#include <pthread.h>

#include <cstdint>

namespace opl {

// Where the handle has 32 bits, it is the id. Where it has 64, it is the address of a control block that lies
// in the thread's stack: no two living threads' blocks are nearer than the smallest stack, 16 KB, so dropping
// the 14 low bits keeps them apart, and the 32 bits that are left tell apart all blocks within 64 TB, more
// than lies between the heap and the mapped stacks of a process. A forked child has the parent's addresses
// and thus the same id.
inline uint32_t ThreadIdOf(pthread_t thread) {
  if constexpr (sizeof(pthread_t) == sizeof(uint32_t)) {
    return static_cast<uint32_t>(thread);
  } else {
    constexpr int kSmallestStackBits = 14;
    return static_cast<uint32_t>(thread >> kSmallestStackBits);
  }
}

}  // namespace opl

#endif
