// Fork handlers, liveness, termination and times.
#include <gtest/gtest.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "OPL_Process.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/User.h"

namespace {

using opltest::Child;
using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::Steps;

uint32_t Pid(const Child& child) { return static_cast<uint32_t>(child.pid()); }

// A process id that nothing has: its process has ended and been waited for.
uint32_t DeadPid() {
  Child child([](Steps&) {});
  const uint32_t pid = Pid(child);
  child.ExpectSuccess();
  return pid;
}

class Process : public opltest::Instance {};

std::string gForkLog;

TEST_F(Process, AtForkRunsItsHandlersAroundAFork) {
  ASSERT_EQ(OPL_OK, OPL_ProcessAtFork([] { gForkLog += "prepare "; }, [] { gForkLog += "parent "; },
                                      [] { gForkLog += "child "; }));
  Child child([](Steps&) { EXPECT_EQ("prepare child ", gForkLog); });
  EXPECT_EQ("prepare parent ", gForkLog);
  child.ExpectSuccess();
}

TEST_F(Process, AtForkTakesNullHandlers) {
  ASSERT_EQ(OPL_OK, OPL_ProcessAtFork(nullptr, nullptr, nullptr));
  Child child([](Steps&) {});
  child.ExpectSuccess();
}

TEST_F(Process, AtForkTellsWhatTheSystemRefuses) {
  const Fault fault("__register_atfork", 1, ENOMEM);
  EXPECT_EQ(OPL_PROCESS_E_ATFORK, OPL_ProcessAtFork(nullptr, nullptr, nullptr));
  EXPECT_EQ(Failure(ENOMEM, "OPL_ProcessAtFork: pthread_atfork error :12, Cannot allocate memory"),
            LastFailure());
}

TEST_F(Process, IsAliveWhileItRuns) {
  Child child([](Steps& steps) {
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  uint32_t alive = 77;
  EXPECT_EQ(OPL_OK, OPL_ProcessIsAlive(Pid(child), &alive));
  EXPECT_EQ(1u, alive);
  alive = 77;
  EXPECT_EQ(OPL_OK, OPL_ProcessIsAlive(static_cast<uint32_t>(::getpid()), &alive));
  EXPECT_EQ(1u, alive);
  child.Go();
  child.ExpectSuccess();
}

TEST_F(Process, IsAliveUntilItsParentHasWaitedForIt) {
  Child child([](Steps&) {});
  siginfo_t ended{};
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child.pid()), &ended, WEXITED | WNOWAIT));
  uint32_t alive = 77;
  EXPECT_EQ(OPL_OK, OPL_ProcessIsAlive(Pid(child), &alive));
  EXPECT_EQ(1u, alive);
  child.ExpectSuccess();
}

TEST_F(Process, IsNotAliveOnceItIsGone) {
  const uint32_t pid = DeadPid();
  uint32_t alive = 77;
  EXPECT_EQ(OPL_OK, OPL_ProcessIsAlive(pid, &alive));
  EXPECT_EQ(0u, alive);
  EXPECT_EQ(OPL_OK, OPL_ProcessIsAlive(pid, nullptr));
}

TEST_F(Process, IsAliveTellsWhatTheSystemRefuses) {
  const Fault fault("kill", 1, EPERM);
  uint32_t alive = 77;
  EXPECT_EQ(OPL_PROCESS_E_KILL, OPL_ProcessIsAlive(1, &alive));
  EXPECT_EQ(Failure(EPERM, "OPL_ProcessIsAlive: kill error: 1, Operation not permitted"), LastFailure());
  EXPECT_EQ(77u, alive);
}

TEST_F(Process, OfAnotherUserIsNeitherAliveNorDead) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  const auto roots = static_cast<uint32_t>(::getpid());
  Child child([roots](Steps&) {
    opltest::BecomeOtherUser();
    uint32_t alive = 77;
    EXPECT_EQ(OPL_PROCESS_E_KILL, OPL_ProcessIsAlive(roots, &alive));
    EXPECT_EQ(77u, alive);
    EXPECT_EQ(OPL_PROCESS_E_KILL, OPL_ProcessTerminate(roots));
  });
  child.ExpectSuccess();
}

TEST_F(Process, IsAskedToEndWithSigterm) {
  Child child([](Steps& steps) {
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  EXPECT_EQ(OPL_OK, OPL_ProcessTerminate(Pid(child)));
  child.ExpectKilledBy(SIGTERM);
}

TEST_F(Process, TerminateFailsUnderTheNameOfIsAlive) {
  EXPECT_EQ(OPL_PROCESS_E_KILL, OPL_ProcessTerminate(DeadPid()));
  EXPECT_EQ(Failure(ESRCH, "OPL_ProcessIsAlive: kill error: 3, No such process"), LastFailure());
}

TEST_F(Process, TimesAreTheSystems) {
  struct tms before {};
  const clock_t elapsedBefore = ::times(&before);
  uint32_t elapsed = 0;
  uint32_t times[OPL_PROCESS_TIMES_COUNT + 1] = {7, 7, 7, 7, 7};
  ASSERT_EQ(OPL_OK, OPL_ProcessTimesGet(&elapsed, times));
  struct tms after {};
  const clock_t elapsedAfter = ::times(&after);
  // As 32-bit values, which wrap.
  EXPECT_LE(elapsed - static_cast<uint32_t>(elapsedBefore),
            static_cast<uint32_t>(elapsedAfter - elapsedBefore));
  EXPECT_GE(times[0], static_cast<uint32_t>(before.tms_utime));
  EXPECT_LE(times[0], static_cast<uint32_t>(after.tms_utime));
  EXPECT_GE(times[1], static_cast<uint32_t>(before.tms_stime));
  EXPECT_LE(times[1], static_cast<uint32_t>(after.tms_stime));
  EXPECT_EQ(static_cast<uint32_t>(after.tms_cutime), times[2]);
  EXPECT_EQ(static_cast<uint32_t>(after.tms_cstime), times[3]);
  EXPECT_EQ(7u, times[4]);
}

// The four values in their order, which the system's own cannot show for sure.
clock_t KnownTimes(struct tms* times) {
  *times = {1, 2, 3, 4};
  return 5;
}

TEST_F(Process, TimesStandInTheirOrder) {
  const opltest::Replacement replacement("times", KnownTimes);
  uint32_t elapsed = 0;
  uint32_t times[OPL_PROCESS_TIMES_COUNT] = {};
  ASSERT_EQ(OPL_OK, OPL_ProcessTimesGet(&elapsed, times));
  EXPECT_EQ(5u, elapsed);
  EXPECT_EQ(1u, times[OPL_PROCESS_TIMES_USER]);
  EXPECT_EQ(2u, times[OPL_PROCESS_TIMES_SYSTEM]);
  EXPECT_EQ(3u, times[OPL_PROCESS_TIMES_CHILDREN_USER]);
  EXPECT_EQ(4u, times[OPL_PROCESS_TIMES_CHILDREN_SYSTEM]);
}

TEST_F(Process, TimesNeedNeitherPlace) {
  uint32_t elapsed = 0;
  uint32_t times[OPL_PROCESS_TIMES_COUNT] = {};
  EXPECT_EQ(OPL_OK, OPL_ProcessTimesGet(nullptr, nullptr));
  EXPECT_EQ(OPL_OK, OPL_ProcessTimesGet(&elapsed, nullptr));
  EXPECT_EQ(OPL_OK, OPL_ProcessTimesGet(nullptr, times));
}

TEST_F(Process, TimesTellWhatTheSystemRefuses) {
  const Fault fault("times", 1, EFAULT);
  uint32_t elapsed = 77;
  uint32_t times[OPL_PROCESS_TIMES_COUNT] = {77, 77, 77, 77};
  EXPECT_EQ(OPL_PROCESS_E_TIMES, OPL_ProcessTimesGet(&elapsed, times));
  EXPECT_EQ(Failure(EFAULT, "OPL_ProcessTimesGet: times: Bad address"), LastFailure());
  EXPECT_EQ(77u, elapsed);
  EXPECT_EQ(77u, times[0]);
}

TEST(ProcessStopped, WorksAllTheSame) {
  uint32_t alive = 0;
  EXPECT_EQ(OPL_OK, OPL_ProcessIsAlive(static_cast<uint32_t>(::getpid()), &alive));
  EXPECT_EQ(1u, alive);
  EXPECT_EQ(OPL_OK, OPL_ProcessTimesGet(nullptr, nullptr));
  EXPECT_EQ(OPL_OK, OPL_ProcessAtFork(nullptr, nullptr, nullptr));
  EXPECT_EQ(OPL_PROCESS_E_KILL, OPL_ProcessTerminate(DeadPid()));
}

}  // namespace
