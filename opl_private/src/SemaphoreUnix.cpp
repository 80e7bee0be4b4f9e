#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "opl_base/src/Deadline.h"
#include "opl_base/src/Fd.h"
#include "opl_private/src/Semaphore.h"

namespace {

// By the clock, which is read without a call to the system: the processor's own instruction for a pause lasts
// ten times as long on one as on another.
void Pause(long ns) {
  timespec start{};
  timespec now{};
  if (::clock_gettime(CLOCK_MONOTONIC, &start) == -1) return;
  do {
    if (::clock_gettime(CLOCK_MONOTONIC, &now) == -1) return;
  } while (now.tv_sec == start.tv_sec && now.tv_nsec - start.tv_nsec < ns);  // or a little less
}

}  // namespace

namespace opl {

int SemopTryingOn(int32_t id, const sembuf* trying, const sembuf* waiting, size_t count) {
  long pauseNs = kFirstPauseNs;
  for (int attempt = 1; errno == EAGAIN && attempt < kTriesBeforeQueueing; ++attempt) {
    Pause(pauseNs);
    if (::semop(id, const_cast<sembuf*>(trying), count) != -1) return 0;
    pauseNs = std::min(2 * pauseNs, kLongestPauseNs);
  }
  return errno == EAGAIN ? ::semop(id, const_cast<sembuf*>(waiting), count) : -1;
}

bool IsGone(pid_t pid) {
  if (pid <= 0) return false;
  const Fd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!process.IsOpen()) return errno == ESRCH || (::kill(pid, 0) == -1 && errno == ESRCH);
  pollfd ended{process.Get(), POLLIN, 0};
  return ::poll(&ended, 1, 0) == 1;
}

void RestoreUseCount(int32_t id, uint32_t index) {
  const sembuf all[] = {{NumberOf(index), kUseCountLimit, IPC_NOWAIT}};
  (void)Semop(id, all);
}

bool IsAbandoned(int32_t id, uint32_t index) {
  const int semaphore = static_cast<int>(index);
  const pid_t last = ::semctl(id, semaphore, GETPID);
  if (!IsGone(last)) return false;
  // A count that is exhausted by its users looks the same, but for this: when the last of them died, the
  // kernel gave its share back and the value is above 0, or somebody else has operated since.
  return ::semctl(id, semaphore, GETVAL) == 0 && ::semctl(id, semaphore, GETPID) == last;
}

int AccessUseCountFor(int32_t id, uint32_t index, uint32_t milliseconds) {
  sembuf one[] = {{NumberOf(index), -1, SEM_UNDO}};
  const Deadline patience(milliseconds);
  for (;;) {
    const timespec time = patience.Left();
    if (::semtimedop(id, one, 1, &time) != -1) return 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace opl
