// System V semaphore operations, written down once: repeated when a signal interrupts them, tried a bounded
// number of times before they queue, and asked who operated last.
#ifndef OPL_PRIVATE_SEMAPHORE_H
#define OPL_PRIVATE_SEMAPHORE_H

#include <sys/sem.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace opl {

// The kernel does not write to the operations; the call's declaration is older than const.
template <size_t kCount>
int Semop(int32_t id, const sembuf (&operations)[kCount]) {
  return ::semop(id, const_cast<sembuf*>(operations), kCount);
}

// Waiting in semop costs two switches of processes, more than most holders take to give a lock back. So the
// operation is tried without waiting for a while before it queues. Whoever queues is not starved by those who
// try: the kernel hands a semaphore to its queue before it lets anybody else take it.
inline constexpr int kTriesBeforeQueueing = 64;
inline constexpr int kPausesBetweenTries = 32;

template <size_t kCount>
int SemopTryingFirst(int32_t id, const sembuf (&operations)[kCount]) {
  sembuf tries[kCount];
  for (size_t i = 0; i < kCount; ++i) {
    tries[i] = operations[i];
    tries[i].sem_flg = static_cast<short>(tries[i].sem_flg | IPC_NOWAIT);
  }
  for (int attempt = 0; attempt < kTriesBeforeQueueing; ++attempt) {
    if (::semop(id, tries, kCount) != -1) return 0;
    if (errno != EAGAIN) return -1;
    for (int pause = 0; pause < kPausesBetweenTries; ++pause) __builtin_ia32_pause();
  }
  return Semop(id, operations);
}

// The use count of a set: it holds kUseCountLimit less one for each user. Who takes all of it at once has
// exclusive use, and removes the set.
inline constexpr short kUseCountLimit = 32000;

// Gives exclusive use back after all, when the removal that it was taken for failed.
void RestoreUseCount(int32_t id, uint32_t index);

// Dead or on its way to be reaped. The id 0, which the system tells for a process of another container,
// counts as alive.
bool IsGone(pid_t pid);

// Whether exclusive use of the set was taken by a process that died before it removed the set.
bool IsAbandoned(int32_t id, uint32_t index);

// Takes one of the use count, waiting at most that long; as semtimedop.
int AccessUseCountFor(int32_t id, uint32_t index, uint32_t milliseconds);

}  // namespace opl

#endif
