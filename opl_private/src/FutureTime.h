// File times in the year 2036, out of reach of jobs that delete old files.
#ifndef OPL_PRIVATE_FUTURE_TIME_H
#define OPL_PRIVATE_FUTURE_TIME_H

#include <sys/stat.h>

#include <ctime>

namespace opl {

// The same month, day and time of day of the year 2036, in local time; the time itself where that cannot be
// told.
time_t SetTimeInFuture(time_t time);

// Around a conversion and around a fork: the C library's time zone has a lock that a child inherits from a
// thread which it has not got.
void LockTimeZone();
void UnlockTimeZone();

// Whether both times of a file that stands so are known to lie there.
bool HasFutureTimes(const struct stat64& status);

void SetDescriptorTimesInFuture(int fd);
// The same for a file that is known to stand so.
void SetDescriptorTimesInFuture(int fd, const struct stat64& status);

}  // namespace opl

#endif
