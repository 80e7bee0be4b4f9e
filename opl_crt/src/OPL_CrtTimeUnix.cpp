// Time: broken-down times, the time of day, and sleeping.
#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>

#include "OPL_Crt.h"
#include "opl_err/src/Fail.h"

namespace {

using opl::Caller;
using opl::Fail;
using opl::NativeError;

// An interruption ends the wait early, and so does every other failure: there is nothing to report but 0.
void Sleep(uint32_t seconds, uint32_t microseconds) {
  struct timeval time {};
  time.tv_sec = static_cast<time_t>(std::min<uint64_t>(seconds, std::numeric_limits<time_t>::max()));
  time.tv_usec = static_cast<suseconds_t>(microseconds);
  (void)::select(0, nullptr, nullptr, nullptr, &time);
}

}  // namespace

char* OPL_CrtAscTime(const struct tm* brokenDown, char* buffer) { return ::asctime_r(brokenDown, buffer); }

char* OPL_CrtCTime(const time_t* seconds, char* buffer) { return ::ctime_r(seconds, buffer); }

struct tm* OPL_CrtGmTime(const time_t* seconds, struct tm* brokenDown) {
  return ::gmtime_r(seconds, brokenDown);
}

struct tm* OPL_CrtLocalTime(const time_t* seconds, struct tm* brokenDown) {
  return ::localtime_r(seconds, brokenDown);
}

OPL_Result OPL_CrtFTime(struct timeb* pTime) {
  // The system's ftime is leaving the C libraries; it did no more than this.
  struct timespec now {};
  if (pTime == nullptr) errno = EFAULT;
  if (pTime == nullptr || ::clock_gettime(CLOCK_REALTIME, &now) == -1) {
    const NativeError error;
    return Fail(error, OPL_CRT_E_FTIME, "%s: error:%d,%s", error.number(), error.text());
  }
  pTime->time = now.tv_sec;
  pTime->millitm = static_cast<unsigned short>(now.tv_nsec / 1000000);
  pTime->timezone = 0;
  pTime->dstflag = 0;
  return OPL_OK;
}

OPL_Result OPL_CrtGetTimeOfDay(struct timeval* pTime) {
  if (pTime == nullptr) errno = EFAULT;
  if (pTime == nullptr || ::gettimeofday(pTime, nullptr) == -1) {
    const NativeError error;
    return Fail(Caller{"OPL_CrtGetTimeOfDay(struct timeval *)"}, error, OPL_CRT_E_GETTIMEOFDAY,
                "%s: error:%d,%s", error.number(), error.text());
  }
  return OPL_OK;
}

int32_t OPL_CrtSleep(uint32_t seconds) {
  Sleep(seconds, 0);
  return 0;
}

int32_t OPL_CrtMilliSleep(uint32_t milliseconds) {
  Sleep(milliseconds / 1000, milliseconds % 1000 * 1000);
  return 0;
}
