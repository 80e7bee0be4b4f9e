// Begin and end: what they count, what they refuse, and what is left when one of them fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
#include "OPL_UserInfo.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Child;
using opltest::ExpectError;
using opltest::Fault;
using opltest::Steps;
using ::testing::HasSubstr;

constexpr OPL_Result kStopped = OPL_INIT_E_STOPPED;
constexpr uint32_t kNoRecord = OPL_ERR_E_NO_RECORD;

void* Nothing(void*) { return nullptr; }

TEST(InitBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(1));
}

TEST(InitBeforeBegin, RefusesWhatNeedsTheLibrary) {
  OPL_SyncCriticalSection section{};
  OPL_ThreadAttr* attr = nullptr;
  pthread_attr_t* posix = nullptr;
  uint32_t value = 0;
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(1));
  EXPECT_EQ(kStopped, OPL_InitSetCurrentPid());
  EXPECT_EQ(kStopped, OPL_SyncCriticalSectionInit(&section));
  EXPECT_EQ(kStopped, OPL_SyncCriticalSectionUnInit(&section));
  EXPECT_EQ(kStopped, OPL_SyncCriticalSectionEnter(&section));
  EXPECT_EQ(kStopped, OPL_SyncCriticalSectionLeave(&section));
  EXPECT_EQ(kStopped, OPL_ThreadAttrCreate(&attr, 0));
  EXPECT_EQ(kStopped, OPL_ThreadAttrDestroy(&attr));
  EXPECT_EQ(kStopped, OPL_ThreadAttrSet(attr, 0, &value));
  EXPECT_EQ(kStopped, OPL_ThreadAttrGet(attr, 0, &value));
  EXPECT_EQ(kStopped, OPL_ThreadAttrPosixGet(attr, &posix));
  EXPECT_EQ(kStopped, OPL_ThreadCreate(0, nullptr, Nothing, nullptr, nullptr));
  EXPECT_EQ(kStopped, OPL_ThreadExit());
  EXPECT_EQ(kStopped, OPL_ThreadIdCompare(1, 1, &value));
  EXPECT_EQ(kStopped, OPL_ThreadConcurrencySet(1));
  EXPECT_EQ(kStopped, OPL_ThreadConcurrencyGet(&value));
  EXPECT_EQ(kStopped, OPL_ProcessIdCompare(1, 1, &value));
}

TEST(InitBeforeBegin, LeavesTheRestWorking) {
  uint32_t value = 0;
  char buffer[256];
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer, sizeof buffer));
  EXPECT_NE(nullptr, OPL_InitInstanceStringGet());
  EXPECT_STREQ("006.021", OPL_InitBuildVersionStringGet(0));
  EXPECT_EQ(OPL_OK, OPL_Log("before begin"));
  EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(&value));
  EXPECT_EQ(OPL_OK, OPL_ThreadTimesGet(&value, nullptr));
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&value));
  EXPECT_EQ(OPL_OK, OPL_ProcessRealIdGet(&value));
  EXPECT_EQ(OPL_OK, OPL_ProcessParentIdGet(&value));
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserIdGet(0, &value));
  EXPECT_EQ(OPL_OK, OPL_SyncProcessInitCrit(0));
  EXPECT_EQ(OPL_OK, OPL_ThreadInit(0));
}

TEST(InitBeforeBegin, StaysStoppedAfterTerminateIpc) {
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST(InitTerminateIpc, LeavesABegunLibraryBegun) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(7, "*"));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST(InitBegin, RefusesAnotherModeWithoutAMessage) {
  EXPECT_EQ(0x050202u, OPL_InitBegin(1));
  EXPECT_EQ(0x050202u, OPL_InitBegin(0xFFFFFFFF));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  opltest::InNewThread([] {
    EXPECT_EQ(0x050202u, OPL_InitBegin(1));
    EXPECT_EQ(kNoRecord, OPL_ErrCodeGet(0));
  });
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST(InitBegin, MakesTheLibraryUsableWhateverModeIsAskedAbout) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0xFFFFFFFF));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

// At the time at which a host program's function is asked for the instance.
TEST(InitBegin, MakesTheLibraryUsableWhileItRuns) {
  OPL_Result stopped = kStopped;
  OPL_Result ended = kStopped;
  const Fault looking("dlopen", 1, [&] {
    stopped = OPL_InitIsStopped(0);
    ended = OPL_InitEnd(0);
  });
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_TRUE(looking.Fired());
  EXPECT_EQ(OPL_OK, stopped);
  EXPECT_EQ(OPL_OK, ended) << "there is nothing to be ended yet";
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
}

TEST(InitBegin, Nests) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST(InitBegin, ServesThreadsThatBeginAtOnce) {
  opltest::RunAtOnce(8, [](int) { EXPECT_EQ(OPL_OK, OPL_InitBegin(0)); });
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  }
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST(InitBegin, ServesThreadsThatBeginAndEndAtOnce) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  opltest::RunAtOnce(8, [](int) {
    for (int i = 0; i < 500; ++i) {
      ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
      ASSERT_EQ(OPL_OK, OPL_InitIsStopped(0));
      ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
    }
  });
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST(InitBegin, WaitsForEverAfterTheFinalEnd) {
  Child child([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    steps.Reach();
    (void)OPL_InitBegin(0);
    steps.Send("begun again");
  });
  child.Await();
  child.AwaitSleepOnLock();
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
}

class InitEnd : public opltest::Instance {};

TEST_F(InitEnd, RefusesAModeAboveOne) {
  opltest::InNewThread([&] {
    EXPECT_EQ(0x050202u, OPL_InitEnd(2));
    EXPECT_EQ(0x050202u, OPL_InitEnd(0xFFFFFFFF));
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
    EXPECT_EQ(kNoRecord, OPL_ErrCodeGet(0));
  });
}

TEST(InitEndBeforeBegin, RefusesAModeAboveOneFirst) { EXPECT_EQ(0x050202u, OPL_InitEnd(2)); }

TEST(InitEndFinal, IsRefusedWhenNoBeginIsLeft) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(1));
}

// A thread that ended halfway would leave the lock held, and the instance's objects to nobody. The body
// runs with a cancellation pending that it must not act on, and must allow again when it is done.
template <typename Body>
void InACancelledThread(const Body& body) {
  opltest::InNewThread([&] {
    EXPECT_EQ(0, ::pthread_cancel(::pthread_self()));
    body();
    int state = PTHREAD_CANCEL_DISABLE;
    EXPECT_EQ(0, ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state));
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state);
  });
}

TEST(InitBeginOfACancelledThread, IsBroughtToItsEnd) {
  OPL_Result result = kStopped;
  InACancelledThread([&] { result = OPL_InitBegin(0); });
  EXPECT_EQ(OPL_OK, result);
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(InitEndOfACancelledThread, IsBroughtToItsEnd) {
  for (int i = 0; i < 2; ++i) ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  OPL_Result results[2] = {kStopped, kStopped};
  InACancelledThread([&] {
    for (OPL_Result& result : results) result = OPL_InitEnd(0);
  });
  EXPECT_EQ(OPL_OK, results[0]);
  EXPECT_EQ(OPL_OK, results[1]);
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
}

// In a child, as it is meant: what it forgets stays for the parent to end.
class InitEndForced : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  }
  void TearDown() override {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }
};

TEST_F(InitEndForced, EndsAtOnceWhateverIsNested) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitEnd(1));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
}

TEST_F(InitEndForced, LeavesTheOtherBeginsToBeEnded) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitEnd(1));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitEnd(0));
  }).ExpectSuccess();
}

TEST_F(InitEndForced, TakesNoLock) {
  Child([](Steps&) {
    OPL_Result result;
    {
      const Fault fault("pthread_mutex_lock", 1, EINVAL, Fault::kForGood);
      result = OPL_InitEnd(1);
    }
    EXPECT_EQ(OPL_OK, result);
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
}

// What a failed begin must not leave behind: the library in use, a begin to be ended, the lock.
void ExpectNotBegunButReady() {
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
}

TEST(InitBeginFailing, LeavesNothingWhenThereIsNoKey) {
  {
    const Fault fault("pthread_key_create", 1, EAGAIN);
    EXPECT_EQ(0x05030Cu, OPL_InitBegin(0));
    EXPECT_TRUE(fault.Fired());
  }
  ExpectNotBegunButReady();
}

TEST(InitBeginFailing, LeavesNothingWhenThereIsNoMemoryForAKey) {
  {
    const Fault fault("pthread_key_create", 1, ENOMEM);
    EXPECT_EQ(0x050308u, OPL_InitBegin(0));
  }
  ExpectNotBegunButReady();
}

TEST(InitBeginFailing, LeavesNothingWhenTheProcessHasNoId) {
  {
    const Fault fault("getpid", 1, EIO);
    EXPECT_EQ(0x050F01u, OPL_InitBegin(0));
  }
  ExpectNotBegunButReady();
}

TEST(InitBeginFailing, LeavesNothingWhenTheLockIsRefused) {
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_lock", 1, EINVAL);
    result = OPL_InitBegin(0);
  }
  EXPECT_EQ(0x050206u, result);
  ExpectNotBegunButReady();
}

// Their results are taken while the fault is in force and looked at after: the test's own framework locks.
class InitLock : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(OPL_OK, OPL_InitBegin(0)); }

  static std::string Log() { return opltest::ContentsOf("qvopl.log"); }
};

TEST_F(InitLock, FailsBeginWhenItIsRefused) {
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_lock", 1, EINVAL);
    result = OPL_InitBegin(0);
  }
  EXPECT_EQ(0x050206u, result);
  ExpectError(EINVAL, "LockCritical: pthread_mutex_lock :22,Invalid argument");
  EXPECT_THAT(Log(), HasSubstr(")\nLockCritical: pthread_mutex_lock failed errno 22\n"));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0)) << "the refused begin was counted";
}

TEST_F(InitLock, FailsEndWhenItIsRefused) {
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_lock", 1, EINVAL);
    result = OPL_InitEnd(0);
  }
  EXPECT_EQ(0x050206u, result);
  EXPECT_STREQ("LockCritical: pthread_mutex_lock :22,Invalid argument", OPL_ErrMessageGet(0));
  EXPECT_THAT(Log(), HasSubstr(")\nLockCritical: pthread_mutex_lock failed errno 22\n"));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST_F(InitLock, IsReportedButNoFailureWhenBeginCannotReleaseIt) {
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_unlock", 1, EPERM);
    result = OPL_InitBegin(0);
  }
  EXPECT_EQ(OPL_OK, result);
  ExpectError(EPERM, "ReleaseCritical: pthread_mutex_unlock :1,Operation not permitted");
  EXPECT_THAT(Log(), HasSubstr(")\nReleaseCritical: pthread_mutex_unlock failed errno 1\n"));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

TEST_F(InitLock, IsReportedButNoFailureWhenEndCannotReleaseIt) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_unlock", 1, EPERM);
    result = OPL_InitEnd(0);
  }
  EXPECT_EQ(OPL_OK, result);
  EXPECT_STREQ("ReleaseCritical: pthread_mutex_unlock :1,Operation not permitted", OPL_ErrMessageGet(0));
  EXPECT_THAT(Log(), HasSubstr(")\nReleaseCritical: pthread_mutex_unlock failed errno 1\n"));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

TEST(InitLockBeforeBegin, IsReportedInTheLogAlone) {
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_lock", 1, EINVAL);
    result = OPL_InitBegin(0);
  }
  EXPECT_EQ(0x050206u, result);
  EXPECT_EQ(kNoRecord, OPL_ErrCodeGet(0));
  EXPECT_THAT(opltest::ContentsOf("qvopl.log"),
              HasSubstr(")\nLockCritical: pthread_mutex_lock failed errno 22\n"));
}

TEST(InitProcessId, IsNamedWhenANestedBeginCannotTellIt) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  {
    const Fault fault("getpid", 1, EIO);
    EXPECT_EQ(0x050F01u, OPL_InitBegin(0));
  }
  EXPECT_STREQ("OPL_ProcessIdGet: getpid error :5,Input/output error", OPL_ErrMessageGet(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

}  // namespace
