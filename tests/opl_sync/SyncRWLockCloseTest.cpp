// OPL_SyncRWLockClose and the crew list: the last user removes set and file, and the code is the management
// lock's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/opl_sync/FailingStep.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::NewRWLock;
using opltest::NumberAndText;
using opltest::ObjectFiles;
using opltest::OpenRWLock;
using opltest::RWLockFile;
using opltest::SetExists;
using opltest::SetNamedBy;
using opltest::SyncActor;
using opltest::ValuesOf;

constexpr int kCrewSize = 40;
constexpr int kManagementRWLocks = 2;

class SyncRWLockClose : public opltest::Instance {
 protected:
  void Make(uint32_t flags = 0x01, const std::string& scope = opltest::InstanceString()) {
    rwLock_ = NewRWLock("q", flags);
    id_ = SetNamedBy(RWLockFile("q", scope));
  }

  OPL_SyncRWLock* rwLock_ = nullptr;
  int id_ = -1;
};

TEST_F(SyncRWLockClose, RefusesANullPlaceForTheHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncRWLockClose(nullptr));
  ExpectError(0x050046, "OPL_SyncRWLockClose: phRWLock is NULL");
}

TEST_F(SyncRWLockClose, RefusesANullHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncRWLockClose(&rwLock_));
  ExpectError(0x050046, "OPL_SyncRWLockClose: phRWLock is NULL");
}

TEST_F(SyncRWLockClose, RemovesSetFileHandleAndKeyWithTheLastUser) {
  opltest::CountedMemory memory;
  Make();
  Fault keys("pthread_key_delete", 1000, EIO);  // only counted
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  EXPECT_EQ(nullptr, rwLock_);
  EXPECT_FALSE(SetExists(id_));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(1, keys.Calls());
}

TEST_F(SyncRWLockClose, RemovesOneForAllUsersToo) {
  Make(0x02, "all");
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  EXPECT_FALSE(SetExists(id_));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncRWLockClose, LeavesTheLockToItsOtherHandles) {
  Make();
  OPL_SyncRWLock* other = OpenRWLock("q");
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockLock(other, 2));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(other));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&other));
  EXPECT_FALSE(SetExists(id_));
}

TEST_F(SyncRWLockClose, ReportsAMissingFileInTheErrorRecordAlone) {
  Make();
  ASSERT_EQ(0, ::unlink(RWLockFile("q").c_str()));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  ExpectError(0x05120B,
              ("OPL_PrivateSemIdGet: IPC file " + RWLockFile("q") + " not found. Shared mem does not exists.")
                  .c_str());
  EXPECT_NE(nullptr, rwLock_);
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id_));
  opltest::RemoveSet(id_);
}

TEST_F(SyncRWLockClose, FreesTheKeyOfAHandleThatItLeaves) {
  Make();
  ASSERT_EQ(0, ::unlink(RWLockFile("q").c_str()));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  EXPECT_EQ(0x050307u, OPL_SyncRWLockLock(rwLock_, 1));
  EXPECT_EQ(0x050307u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id_));
  opltest::RemoveSet(id_);
}

TEST_F(SyncRWLockClose, ReportsAnotherLocksNameInTheErrorRecordAndReleasesTheHandle) {
  opltest::CountedMemory memory;
  Make();
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  OPL_SyncRWLock* successor = NewRWLock("q");
  const int successorId = SetNamedBy(RWLockFile("q"));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  ExpectError(0x05005E, ("Handle data does not match the Semaphore ID for file " + RWLockFile("q")).c_str());
  EXPECT_EQ(nullptr, rwLock_);
  EXPECT_EQ(1, memory.Living());  // the successor
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(successorId));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&successor));
  EXPECT_FALSE(SetExists(successorId));
}

TEST_F(SyncRWLockClose, ReturnsTheManagementLocksFailureOverItsOwnSuccess) {
  Make();
  const int management = SetNamedBy(opltest::ManagementFile());
  {
    Fault fault("semop", 4, EIO);
    EXPECT_EQ(0x051212u, OPL_SyncRWLockClose(&rwLock_));
    EXPECT_TRUE(fault.Fired());
  }
  ExpectError(
      EIO,
      ("SemaphoreUnlock: semop(" + std::to_string(management) + ") failed :" + NumberAndText(EIO)).c_str());
  EXPECT_EQ(nullptr, rwLock_);
  EXPECT_FALSE(SetExists(id_));
  opltest::SetValue(management, kManagementRWLocks, 1);
}

// Before the management lock is taken the code is the failure's own.
class SyncRWLockCloseRefused : public opltest::FailingSteps {};

TEST_P(SyncRWLockCloseRefused, LeavesTheHandleToBeClosedAgain) {
  OPL_SyncRWLock* rwLock = NewRWLock("q");
  const int id = SetNamedBy(RWLockFile("q"));
  opltest::DateToThePresent(RWLockFile("q"));
  ExpectFailure(RWLockFile("q"), [&] { return OPL_SyncRWLockClose(&rwLock); });
  EXPECT_NE(nullptr, rwLock);
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id));
  ExpectManagementLockFree();
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock));
  EXPECT_EQ(nullptr, rwLock);
  EXPECT_FALSE(SetExists(id));
  EXPECT_TRUE(ObjectFiles().empty());
}

constexpr opltest::FailingStep kSteps[] = {
    {"sigfillset", 1, EIO, 0x050403, EIO, "OPL_SigBlock: sigfillset :$"},
    {"pthread_sigmask", 1, EINVAL, 0x050404, EINVAL, "OPL_SigBlock: pthread_sigmask :$"},
    {"semop", 1, EIO, 0x051212, EIO, "SemaphoreLock: semop(#) failed :$"},
    {"open64", 1, EACCES, 0, EACCES, "OPL_PrivateSemIdGet: open error :$\nFile @"},
    {"read", 1, EIO, 0, EIO, "OPL_PrivateSemIdGet: read error :$\nFile @"},
    {"close", 1, EIO, 0, EIO, "OPL_PrivateSemIdGet: close error :$\nFile @"},
    {"pthread_mutex_lock", 1, EDEADLK, 0, EDEADLK, "LockProcess: pthread_mutex_lock :$"},
    {"semop", 2, EIO, 0, EIO, "OPL_PrivateUseCountRelease: semop(#) failed :$"},
    {"semop", 3, EIO, 0, EIO, "OPL_PrivateUseCountExclusive: semop(#) failed :$"},
    {"open64", 2, EACCES, 0, EACCES, "OPL_PrivateSemIdDestroy: open error :$\nFile @"},
    {"read", 2, EIO, 0, EIO, "OPL_PrivateSemIdDestroy: read error :$\nFile @"},
};

INSTANTIATE_TEST_SUITE_P(Step, SyncRWLockCloseRefused, ::testing::ValuesIn(kSteps), opltest::NameOfStep);

TEST_F(SyncRWLockClose, RepeatsWhatASignalInterrupts) {
  for (const int nth : {1, 2, 3, 4}) {
    SCOPED_TRACE(nth);
    Make();
    Fault fault("semop", nth, EINTR);
    EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
    EXPECT_TRUE(fault.Fired());
    EXPECT_FALSE(SetExists(id_));
  }
}

class SyncRWLockCrew : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    user_ = NewRWLock("q");
    id_ = SetNamedBy(RWLockFile("q"));
    EXPECT_EQ(0u, actor_.Do("begin"));
  }
  void TearDown() override {
    EXPECT_EQ(0u, OPL_SyncRWLockClose(&user_));
    EXPECT_FALSE(SetExists(id_));
    EXPECT_TRUE(ObjectFiles().empty());
    WithPeer::TearDown();
  }
  int Uses() const { return 32000 - opltest::ValueOf(id_, 3); }

  OPL_SyncRWLock* user_ = nullptr;
  int id_ = -1;
  SyncActor actor_{GetParam()};
};
OPLTEST_WITH_EITHER_PEER(SyncRWLockCrew);

TEST_P(SyncRWLockCrew, ClosesWhatIsOpenAtTheEnd) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-create a 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-create b 2"));
  EXPECT_EQ(4, Uses());
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_EQ(1, Uses());
  EXPECT_EQ(1u, ObjectFiles().size());
  actor_.Quit();
}

TEST_P(SyncRWLockCrew, ClosesWhatIsOpenAtTheProcessesExit) {
  EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-lock q 2"));
  EXPECT_EQ(0u, actor_.Do("rwlock-create a 1"));
  actor_.Exit();
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id_));
  EXPECT_EQ(1u, ObjectFiles().size());
}

TEST_P(SyncRWLockCrew, ClosesNothingTwice) {
  EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-close q"));
  EXPECT_EQ(1, Uses());
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_EQ(1, Uses());
  actor_.Quit();
}

TEST_P(SyncRWLockCrew, ForgetsWithoutClosingAtAForcedEnd) {
  EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  EXPECT_EQ(0u, actor_.Do("end-forced"));
  EXPECT_EQ(2, Uses());
  actor_.Quit();
  EXPECT_EQ(1, Uses());
}

TEST_P(SyncRWLockCrew, HasNoPlaceForTheFortyFirstLockWhichWorksAllTheSame) {
  for (int i = 0; i < kCrewSize; ++i) EXPECT_EQ(0u, actor_.Do("rwlock-create r" + std::to_string(i) + " 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-lock q 2"));
  EXPECT_EQ((opltest::Values{0, 1, 0, 31998}), ValuesOf(id_));
  EXPECT_EQ(0u, actor_.Do("rwlock-unlock q"));
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_EQ(2, Uses());
  EXPECT_EQ(1u, ObjectFiles().size());
  actor_.Quit();
  EXPECT_EQ(1, Uses());
}

TEST_P(SyncRWLockCrew, LeavesTheFortyFirstLockToBeClosed) {
  for (int i = 0; i < kCrewSize; ++i) EXPECT_EQ(0u, actor_.Do("rwlock-create r" + std::to_string(i) + " 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  EXPECT_EQ(0u, actor_.Do("rwlock-close q"));
  EXPECT_EQ(1, Uses());
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_EQ(1u, ObjectFiles().size());
  actor_.Quit();
}

}  // namespace
