// The process's times in clock ticks.
#include <gtest/gtest.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::Replacement;

clock_t KnownTimes(struct tms* ticks) {
  ticks->tms_utime = 11;
  ticks->tms_stime = 22;
  ticks->tms_cutime = 33;
  ticks->tms_cstime = 44;
  return 1234567;
}

TEST(ThreadTimes, AreUserSystemAndTheChildrensInThisOrder) {
  const Replacement times("times", KnownTimes);
  uint32_t elapsed = 0;
  uint32_t values[OPL_THREAD_TIMES_COUNT + 1] = {0, 0, 0, 0, 77};
  EXPECT_EQ(OPL_OK, OPL_ThreadTimesGet(&elapsed, values));
  EXPECT_EQ(1234567u, elapsed);
  EXPECT_EQ(11u, values[0]);
  EXPECT_EQ(22u, values[1]);
  EXPECT_EQ(33u, values[2]);
  EXPECT_EQ(44u, values[3]);
  EXPECT_EQ(77u, values[4]);
}

TEST(ThreadTimes, AreTheSystemsBeforeBegin) {
  struct tms before {};
  const auto first = static_cast<uint32_t>(::times(&before));
  uint32_t elapsed = 0;
  uint32_t values[OPL_THREAD_TIMES_COUNT] = {};
  EXPECT_EQ(OPL_OK, OPL_ThreadTimesGet(&elapsed, values));
  struct tms after {};
  const auto last = static_cast<uint32_t>(::times(&after));
  EXPECT_LE(elapsed - first, last - first);
  EXPECT_LE(static_cast<uint32_t>(before.tms_utime), values[OPL_THREAD_TIMES_USER]);
  EXPECT_GE(static_cast<uint32_t>(after.tms_utime), values[OPL_THREAD_TIMES_USER]);
  EXPECT_LE(static_cast<uint32_t>(before.tms_stime), values[OPL_THREAD_TIMES_SYSTEM]);
  EXPECT_GE(static_cast<uint32_t>(after.tms_stime), values[OPL_THREAD_TIMES_SYSTEM]);
}

TEST(ThreadTimes, NeedNoPlaceForWhatIsNotWanted) {
  const Replacement times("times", KnownTimes);
  uint32_t elapsed = 0;
  uint32_t values[OPL_THREAD_TIMES_COUNT] = {};
  EXPECT_EQ(OPL_OK, OPL_ThreadTimesGet(nullptr, nullptr));
  EXPECT_EQ(OPL_OK, OPL_ThreadTimesGet(&elapsed, nullptr));
  EXPECT_EQ(1234567u, elapsed);
  EXPECT_EQ(OPL_OK, OPL_ThreadTimesGet(nullptr, values));
  EXPECT_EQ(44u, values[OPL_THREAD_TIMES_CHILDREN_SYSTEM]);
}

class ThreadTimesFailing : public opltest::Instance {};

TEST_F(ThreadTimesFailing, TellTheSystemsTextAndStoreNothing) {
  const Fault fault("times", 1, EFAULT);
  uint32_t elapsed = 77;
  uint32_t values[OPL_THREAD_TIMES_COUNT] = {1, 2, 3, 4};
  EXPECT_EQ(0x050302u, OPL_ThreadTimesGet(&elapsed, values));
  ExpectError(EFAULT, "OPL_ThreadTimesGet: times: Bad address");
  EXPECT_EQ(77u, elapsed);
  for (uint32_t i = 0; i < OPL_THREAD_TIMES_COUNT; ++i) EXPECT_EQ(i + 1, values[i]);
}

}  // namespace
