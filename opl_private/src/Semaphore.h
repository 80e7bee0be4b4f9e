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
//
// Between the tries there are pauses, which grow: a try takes the set's own lock in the kernel, and one upon
// the other they hold up the holder, who has to get at the set to give back what they are after. The first
// pause is as long as a short hold. None gives up the processor: with more processes than processors that is
// a little faster in all and starves some for many slices. As many tries as these last longer than a few
// switches of processes, so that a queue, in which every hold costs a switch, empties again; when they are
// all in vain, as when the holder itself is off its processor, little is lost.
inline constexpr int kTriesBeforeQueueing = 10;
inline constexpr long kFirstPauseNs = 1000;
inline constexpr long kLongestPauseNs = 4000;

// Operations that may wait, beside the same ones that do not. Constants are made by the compiler.
template <size_t kCount>
struct TriedOperations {
  sembuf waiting[kCount];
  sembuf trying[kCount];

  constexpr explicit TriedOperations(const sembuf (&operations)[kCount]) : waiting(), trying() {
    for (size_t i = 0; i < kCount; ++i) {
      waiting[i] = trying[i] = operations[i];
      trying[i].sem_flg = static_cast<short>(trying[i].sem_flg | IPC_NOWAIT);
    }
  }
};

// The tries after a first one that has failed.
[[gnu::cold]] int SemopTryingOn(int32_t id, const sembuf* trying, const sembuf* waiting, size_t count);

// Mostly the first try is all, and compiled into its callers.
template <size_t kCount>
inline int SemopTryingFirst(int32_t id, const TriedOperations<kCount>& operations) {
  if (Semop(id, operations.trying) != -1) [[likely]]
    return 0;
  return SemopTryingOn(id, operations.trying, operations.waiting, kCount);
}

// A semaphore's number in its set. One that the operation has no room for becomes one that no set has.
constexpr unsigned short NumberOf(uint32_t index) {
  return static_cast<unsigned short>(index < UINT16_MAX ? index : UINT16_MAX);
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

// Takes one of the use count, waiting at most that long in all, whatever signals come; -1 and errno
// otherwise, EAGAIN when the time is over.
int AccessUseCountFor(int32_t id, uint32_t index, uint32_t milliseconds);

}  // namespace opl

#endif
