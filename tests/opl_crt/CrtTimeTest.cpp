// Times as texts and records, the time of day, and sleeping.
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::Replacement;

constexpr time_t kMoment = 1076000000;  // 2004-02-05 16:53:20 UTC, a Thursday

class CrtTime : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, ::setenv("TZ", "XST-3:30", 1));  // three and a half hours ahead
    ::tzset();
  }
};

TEST_F(CrtTime, AsTextOfABrokenDownTime) {
  struct tm brokenDown {};
  brokenDown.tm_year = 104;
  brokenDown.tm_mon = 1;
  brokenDown.tm_mday = 5;
  brokenDown.tm_wday = 4;
  brokenDown.tm_hour = 16;
  brokenDown.tm_min = 53;
  brokenDown.tm_sec = 20;
  char buffer[26];
  EXPECT_EQ(buffer, OPL_CrtAscTime(&brokenDown, buffer));
  EXPECT_STREQ("Thu Feb  5 16:53:20 2004\n", buffer);
}

TEST_F(CrtTime, AsTextOfSecondsInLocalTime) {
  char buffer[26];
  EXPECT_EQ(buffer, OPL_CrtCTime(&kMoment, buffer));
  EXPECT_STREQ("Thu Feb  5 20:23:20 2004\n", buffer);
}

TEST_F(CrtTime, BrokenDownInUniversalTime) {
  struct tm brokenDown {};
  EXPECT_EQ(&brokenDown, OPL_CrtGmTime(&kMoment, &brokenDown));
  EXPECT_EQ(104, brokenDown.tm_year);
  EXPECT_EQ(1, brokenDown.tm_mon);
  EXPECT_EQ(5, brokenDown.tm_mday);
  EXPECT_EQ(4, brokenDown.tm_wday);
  EXPECT_EQ(35, brokenDown.tm_yday);
  EXPECT_EQ(16, brokenDown.tm_hour);
  EXPECT_EQ(53, brokenDown.tm_min);
  EXPECT_EQ(20, brokenDown.tm_sec);
}

TEST_F(CrtTime, BrokenDownInLocalTime) {
  struct tm brokenDown {};
  EXPECT_EQ(&brokenDown, OPL_CrtLocalTime(&kMoment, &brokenDown));
  EXPECT_EQ(5, brokenDown.tm_mday);
  EXPECT_EQ(20, brokenDown.tm_hour);
  EXPECT_EQ(23, brokenDown.tm_min);
  EXPECT_EQ(20, brokenDown.tm_sec);
}

TEST_F(CrtTime, BrokenDownFailsBeyondTheLastYear) {
  if (opltest::kWidth == 32) GTEST_SKIP() << "32 bits of seconds stay within the years";
  const time_t moment = std::numeric_limits<time_t>::max();
  struct tm brokenDown {};
  errno = 0;
  EXPECT_EQ(nullptr, OPL_CrtGmTime(&moment, &brokenDown));
  EXPECT_EQ(EOVERFLOW, errno);
}

// Sleeping. What select is asked for, in place of waiting.

struct Wait {
  bool onDescriptors;
  long long seconds;
  long microseconds;

  bool operator==(const Wait&) const = default;
};
std::vector<Wait> gWaits;

int RecordWait(int count, fd_set* readable, fd_set* writable, fd_set* exceptions, struct timeval* timeout) {
  const bool onDescriptors =
      count != 0 || readable != nullptr || writable != nullptr || exceptions != nullptr;
  gWaits.push_back({onDescriptors, timeout->tv_sec, static_cast<long>(timeout->tv_usec)});
  return 0;
}

std::vector<Wait> WaitOf(long long seconds, long microseconds) { return {{false, seconds, microseconds}}; }

void PrintTo(const Wait& wait, std::ostream* out) {
  *out << wait.seconds << " s " << wait.microseconds << " us, on descriptors: " << wait.onDescriptors;
}

TEST(CrtSleep, WaitsForTheSeconds) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtSleep(7));
  EXPECT_EQ(WaitOf(7, 0), gWaits);
}

TEST(CrtSleep, AsksTheSystemForNoTimeToo) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtSleep(0));
  EXPECT_EQ(WaitOf(0, 0), gWaits);
}

TEST(CrtSleep, WaitsForTheMostSecondsThatTheSystemTakes) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtSleep(UINT32_MAX));
  EXPECT_EQ(WaitOf(opltest::kWidth == 32 ? INT32_MAX : UINT32_MAX, 0), gWaits);
}

TEST(CrtSleep, ReturnsZeroWhenInterruptedAndDoesNotWaitAgain) {
  Fault fault("select", 1, EINTR);
  EXPECT_EQ(0, OPL_CrtSleep(1000));
  EXPECT_EQ(1, fault.Calls());
}

TEST(CrtSleep, ReturnsZeroWhenTheSystemRefuses) {
  Fault fault("select", 1, EINVAL);
  EXPECT_EQ(0, OPL_CrtSleep(1000));
  EXPECT_EQ(1, fault.Calls());
}

// The timer goes on ticking, so that one signal comes while the wait is under way, however late it begins.
TEST(CrtSleep, IsEndedByASignal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  ASSERT_EQ(0, ::sigaction(SIGALRM, &action, nullptr));
  const struct itimerval ticks = {{0, 20000}, {0, 20000}};
  ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &ticks, nullptr));
  EXPECT_EQ(0, OPL_CrtSleep(100000));
}

TEST(CrtMilliSleep, SplitsTheTime) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtMilliSleep(1500));
  EXPECT_EQ(WaitOf(1, 500000), gWaits);
}

TEST(CrtMilliSleep, WaitsForLessThanASecond) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtMilliSleep(999));
  EXPECT_EQ(WaitOf(0, 999000), gWaits);
}

TEST(CrtMilliSleep, WaitsForWholeSeconds) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtMilliSleep(2000));
  EXPECT_EQ(WaitOf(2, 0), gWaits);
}

TEST(CrtMilliSleep, AsksTheSystemForNoTimeToo) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtMilliSleep(0));
  EXPECT_EQ(WaitOf(0, 0), gWaits);
}

TEST(CrtMilliSleep, WaitsForTheLongestTime) {
  Replacement select("select", RecordWait);
  EXPECT_EQ(0, OPL_CrtMilliSleep(UINT32_MAX));
  EXPECT_EQ(WaitOf(4294967, 295000), gWaits);
}

TEST(CrtMilliSleep, ReturnsZeroWhenInterruptedAndDoesNotWaitAgain) {
  Fault fault("select", 1, EINTR);
  EXPECT_EQ(0, OPL_CrtMilliSleep(1000000));
  EXPECT_EQ(1, fault.Calls());
}

TEST(CrtMilliSleep, DoesNotReturnEarly) {
  struct timespec before {};
  struct timespec after {};
  ASSERT_EQ(0, ::clock_gettime(CLOCK_MONOTONIC, &before));
  EXPECT_EQ(0, OPL_CrtMilliSleep(20));
  ASSERT_EQ(0, ::clock_gettime(CLOCK_MONOTONIC, &after));
  EXPECT_LE(20'000'000, (after.tv_sec - before.tv_sec) * 1'000'000'000LL + after.tv_nsec - before.tv_nsec);
}

// The time of day.

int FixedClock(clockid_t clock, struct timespec* now) {
  EXPECT_EQ(CLOCK_REALTIME, clock);
  *now = {kMoment, 987654321};
  return 0;
}

TEST(CrtFTime, TellsSecondsAndMilliseconds) {
  struct timeb now {};
  std::memset(&now, 0x55, sizeof now);
  {
    Replacement clock("clock_gettime", FixedClock);
    EXPECT_EQ(OPL_OK, OPL_CrtFTime(&now));
  }
  EXPECT_EQ(kMoment, now.time);
  EXPECT_EQ(987, now.millitm);
  EXPECT_EQ(0, now.timezone);
  EXPECT_EQ(0, now.dstflag);
}

TEST(CrtFTime, TellsTheTimeOfDay) {
  struct timeb now {};
  const time_t before = ::time(nullptr);
  EXPECT_EQ(OPL_OK, OPL_CrtFTime(&now));
  EXPECT_LE(before, now.time);
  EXPECT_GE(::time(nullptr), now.time - 1);
  EXPECT_GT(1000, now.millitm);
}

TEST(CrtFTime, ReturnsItsCodeWhenTheLibraryIsNotBegun) {
  struct timeb now {};
  now.time = 5;
  Fault fault("clock_gettime", 1, EPERM);
  EXPECT_EQ(0x051001u, OPL_CrtFTime(&now));
  EXPECT_EQ(5, now.time);
  EXPECT_STREQ("No message available.", OPL_ErrMessageGet(0));
}

class CrtTimeRecord : public opltest::Instance {};

TEST_F(CrtTimeRecord, OfFTimeHoldsTheErrorNumberAndText) {
  struct timeb now {};
  Fault fault("clock_gettime", 1, EPERM);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_CRT_E_FTIME), OPL_CrtFTime(&now));
  EXPECT_EQ(static_cast<uint32_t>(EPERM), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtFTime: error:1,Operation not permitted", OPL_ErrMessageGet(0));
}

TEST_F(CrtTimeRecord, OfGetTimeOfDayHoldsTheErrorNumberAndText) {
  struct timeval now {};
  Fault fault("gettimeofday", 1, EFAULT);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_CRT_E_GETTIMEOFDAY), OPL_CrtGetTimeOfDay(&now));
  EXPECT_EQ(static_cast<uint32_t>(EFAULT), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtGetTimeOfDay(struct timeval *): error:14,Bad address", OPL_ErrMessageGet(0));
}

TEST_F(CrtTimeRecord, HoldsABadAddressForANullPlace) {
  errno = 0;
  EXPECT_EQ(0x051001u, OPL_CrtFTime(nullptr));
  ExpectError(EFAULT, "OPL_CrtFTime: error:14,Bad address");
  errno = 0;
  EXPECT_EQ(0x051003u, OPL_CrtGetTimeOfDay(nullptr));
  ExpectError(EFAULT, "OPL_CrtGetTimeOfDay(struct timeval *): error:14,Bad address");
}

TEST_F(CrtTimeRecord, IsLeftAloneOnSuccess) {
  (void)OPL_ErrSet(0, 77, "before");
  struct timeb ours {};
  struct timeval theirs {};
  EXPECT_EQ(OPL_OK, OPL_CrtFTime(&ours));
  EXPECT_EQ(OPL_OK, OPL_CrtGetTimeOfDay(&theirs));
  EXPECT_EQ(77u, OPL_ErrCodeGet(0));
  EXPECT_STREQ("before", OPL_ErrMessageGet(0));
}

int FixedTimeOfDay(struct timeval* now, void* zone) noexcept {
  EXPECT_EQ(nullptr, zone);
  *now = {kMoment, 987654};
  return 0;
}

TEST(CrtGetTimeOfDay, TellsWhatTheSystemTellsWithoutATimeZone) {
  struct timeval now {};
  {
    Replacement clock("gettimeofday", FixedTimeOfDay);
    EXPECT_EQ(OPL_OK, OPL_CrtGetTimeOfDay(&now));
  }
  EXPECT_EQ(kMoment, now.tv_sec);
  EXPECT_EQ(987654, now.tv_usec);
}

TEST(CrtGetTimeOfDay, ReturnsItsCodeWhenTheLibraryIsNotBegun) {
  struct timeval now = {5, 6};
  Fault fault("gettimeofday", 1, EFAULT);
  EXPECT_EQ(0x051003u, OPL_CrtGetTimeOfDay(&now));
  EXPECT_EQ(5, now.tv_sec);
  EXPECT_EQ(6, now.tv_usec);
  EXPECT_STREQ("No message available.", OPL_ErrMessageGet(0));
}

}  // namespace
