// Moving the times of IPC files into the future.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include "OPL_Crt.h"
#include "OPL_Private.h"
#include "opl_private/src/FutureTime.h"

namespace {

constexpr int kFutureYear = 2036 - 1900;

// From 3 January to 29 December 2036 in UTC: it is 2036 in every time zone, and nothing has to be converted.
constexpr time_t kSurelyFutureFirst = 2082931200;
constexpr time_t kSurelyFutureLast = 2114121600;

bool IsSurelyFuture(time_t time) { return time >= kSurelyFutureFirst && time <= kSurelyFutureLast; }

// Around the C library's time zone, so that no thread of the library is in it during a fork.
pthread_mutex_t gTimeZoneLock = PTHREAD_MUTEX_INITIALIZER;

time_t ConvertToFuture(time_t time) {
  struct tm brokenDown {};
  if (OPL_CrtLocalTime(&time, &brokenDown) == nullptr) return time;
  brokenDown.tm_year = kFutureYear;
  brokenDown.tm_isdst = -1;  // summer time begins and ends on other days in that year
  errno = 0;
  const time_t future = std::mktime(&brokenDown);
  return errno == 0 ? future : time;
}

}  // namespace

namespace opl {

// Held for a conversion or a fork, neither of which waits for anything.
void LockTimeZone() {
  while (::pthread_mutex_trylock(&gTimeZoneLock) != 0) (void)::sched_yield();
}

void UnlockTimeZone() { (void)::pthread_mutex_unlock(&gTimeZoneLock); }

time_t SetTimeInFuture(time_t time) {
  if (IsSurelyFuture(time)) return time;
  LockTimeZone();
  const time_t future = ConvertToFuture(time);
  UnlockTimeZone();
  return future;
}

bool HasFutureTimes(const struct stat64& status) {
  return IsSurelyFuture(status.st_atime) && IsSurelyFuture(status.st_mtime);
}

void SetDescriptorTimesInFuture(int fd) {
  struct stat64 status {};
  if (::fstat64(fd, &status) != -1) SetDescriptorTimesInFuture(fd, status);
}

void SetDescriptorTimesInFuture(int fd, const struct stat64& status) {
  if (HasFutureTimes(status)) return;
  const timespec times[] = {{SetTimeInFuture(status.st_atime), 0}, {SetTimeInFuture(status.st_mtime), 0}};
  (void)::futimens(fd, times);
}

}  // namespace opl

OPL_Result OPL_PrivateSetAccessTimeInFuture(const char* file) {
  OPL_CrtStatRecord status{};
  if (file == nullptr || OPL_CrtStat(file, &status) != 0) return OPL_OK;
  struct utimbuf times {};
  times.actime = opl::SetTimeInFuture(status.accessTime);
  times.modtime = opl::SetTimeInFuture(status.modificationTime);
  (void)OPL_CrtUTime(file, &times);
  return OPL_OK;
}
