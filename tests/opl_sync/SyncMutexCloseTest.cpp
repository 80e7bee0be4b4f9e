// OPL_SyncMutexClose: the last user removes set and file; what another has made is left alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "OPL_Err.h"
#include "OPL_Private.h"
#include "tests/opl_sync/FailingStep.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"

namespace {

using opltest::CloseOpened;
using opltest::ExpectError;
using opltest::Fault;
using opltest::MutexFile;
using opltest::NewMutex;
using opltest::NumberAndText;
using opltest::ObjectFiles;
using opltest::OpenMutex;
using opltest::RecordOf;
using opltest::SetExists;
using opltest::ValuesOf;

constexpr uint32_t kPrivate = 0x04;
constexpr uint32_t kAll = 0x08;

class SyncMutexClose : public opltest::Instance {
 protected:
  void Make(uint32_t flags = kPrivate) {
    mutex_ = NewMutex("q", flags);
    id_ = RecordOf(mutex_).semId;
  }

  OPL_SyncMutex* mutex_ = nullptr;
  int id_ = -1;
};

TEST_F(SyncMutexClose, RefusesANullPlaceForTheHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncMutexClose(nullptr));
  ExpectError(0x050046, "OPL_SyncMutexClose: phMutex is NULL");
}

TEST_F(SyncMutexClose, RefusesANullHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncMutexClose(&mutex_));
  ExpectError(0x050046, "OPL_SyncMutexClose: phMutex is NULL");
}

TEST_F(SyncMutexClose, RemovesSetAndFileWithTheLastUser) {
  Make();
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
  EXPECT_EQ(nullptr, mutex_);
  EXPECT_FALSE(SetExists(id_));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncMutexClose, RemovesOneForAllUsersToo) {
  Make(kAll);
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
  EXPECT_FALSE(SetExists(id_));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncMutexClose, LeavesTheMutexToItsOtherHandles) {
  Make();
  OPL_SyncMutex* other = OpenMutex("q");
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id_));
  EXPECT_EQ(id_, opltest::SetNamedBy(MutexFile("q")));
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(other));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(other));
  CloseOpened(other);
  EXPECT_FALSE(SetExists(id_));
}

TEST_F(SyncMutexClose, ReleasesTheMemoryOfACreatedHandle) {
  opltest::CountedMemory memory;
  Make();
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SyncMutexClose, LeavesANameThatCanBeCreatedAgain) {
  Make();
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
  Make();
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
}

TEST_F(SyncMutexClose, LeavesTheHandleWhenItsFileIsGone) {
  Make();
  OPL_SyncMutex* const handle = mutex_;
  ASSERT_EQ(0, ::unlink(MutexFile("q").c_str()));
  EXPECT_EQ(0x050005u, OPL_SyncMutexClose(&mutex_));
  ExpectError(0x050005, "OPL_SyncMutexClose: Mutex q not found");
  EXPECT_EQ(handle, mutex_);
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id_));
  opltest::RemoveSet(id_);
}

TEST_F(SyncMutexClose, LeavesTheHandleAndDropsTheFileWhenItsSetIsGone) {
  Make();
  opltest::RemoveSet(id_);
  EXPECT_EQ(0x050005u, OPL_SyncMutexClose(&mutex_));
  ExpectError(0x050005, "OPL_SyncMutexClose: Mutex q not found");
  EXPECT_NE(nullptr, mutex_);
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncMutexClose, ReleasesAHandleWhoseNameStandsForAnotherMutex) {
  opltest::CountedMemory memory;
  Make();
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  OPL_SyncMutex* successor = NewMutex("q");
  const int successorId = RecordOf(successor).semId;
  EXPECT_EQ(0x05005Eu, OPL_SyncMutexClose(&mutex_));
  ExpectError(0x05005E, ("Handle data does not match the Semaphore ID for file " + MutexFile("q")).c_str());
  EXPECT_EQ(nullptr, mutex_);
  EXPECT_EQ(1, memory.Living());  // the successor
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(successorId));
  EXPECT_EQ(successorId, opltest::SetNamedBy(MutexFile("q")));
  EXPECT_EQ(0u, OPL_SyncMutexClose(&successor));
  EXPECT_TRUE(ObjectFiles().empty());
}

class SyncMutexCloseFailing : public opltest::FailingSteps {};

TEST_P(SyncMutexCloseFailing, LeavesTheHandleToBeClosedAgain) {
  OPL_SyncMutex* mutex = NewMutex("q");
  OPL_SyncMutex* const handle = mutex;
  const int id = RecordOf(mutex).semId;
  opltest::DateToThePresent(MutexFile("q"));
  ExpectFailure(MutexFile("q"), [&] { return OPL_SyncMutexClose(&mutex); });
  EXPECT_EQ(handle, mutex);
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id));
  ExpectManagementLockFree();
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex));
  EXPECT_FALSE(SetExists(id));
  EXPECT_TRUE(ObjectFiles().empty());
}

constexpr opltest::FailingStep kSteps[] = {
    {"sigfillset", 1, EIO, 0x050403, EIO, "OPL_SigBlock: sigfillset :$"},
    {"pthread_sigmask", 1, EINVAL, 0x050404, EINVAL, "OPL_SigBlock: pthread_sigmask :$"},
    {"semop", 1, EIO, 0x051212, EIO, "SemaphoreLock: semop(#) failed :$"},
    {"open64", 1, EACCES, 0x051203, EACCES, "OPL_PrivateSemIdGet: open error :$\nFile @"},
    {"open64", 1, ENOENT, 0x050005, 0x050005, "OPL_SyncMutexClose: Mutex q not found"},
    {"read", 1, EIO, 0x051205, EIO, "OPL_PrivateSemIdGet: read error :$\nFile @"},
    {"close", 1, EIO, 0x051206, EIO, "OPL_PrivateSemIdGet: close error :$\nFile @"},
    {"pthread_mutex_lock", 1, EDEADLK, 0x05003D, EDEADLK, "LockProcess: pthread_mutex_lock :$"},
    {"semop", 2, EIO, 0x051212, EIO, "OPL_PrivateUseCountRelease: semop(#) failed :$"},
    {"semop", 3, EIO, 0x051212, EIO, "OPL_PrivateUseCountExclusive: semop(#) failed :$"},
    {"open64", 2, EACCES, 0x051203, EACCES, "OPL_PrivateSemIdDestroy: open error :$\nFile @"},
    {"read", 2, EIO, 0x051205, EIO, "OPL_PrivateSemIdDestroy: read error :$\nFile @"},
};

INSTANTIATE_TEST_SUITE_P(Step, SyncMutexCloseFailing, ::testing::ValuesIn(kSteps), opltest::NameOfStep);

TEST_F(SyncMutexClose, LeavesTheHandleWhenThereIsNoMemoryForTheMask) {
  (void)OPL_ErrSet(0, 0, "the record itself is there");
  Make();
  {
    opltest::FailingMemory memory(1);
    EXPECT_EQ(0x050402u, OPL_SyncMutexClose(&mutex_));
  }
  ExpectError(ENOMEM, ("OPL_SigBlock: malloc error :" + NumberAndText(ENOMEM)).c_str());
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
}

TEST_F(SyncMutexClose, RemovesTheSetOfAFileThatVanishesMeanwhile) {
  Make();
  {
    Fault fault("open64", 1, ENOENT);
    EXPECT_EQ(0x05120Bu, OPL_SyncMutexClose(&mutex_));
  }
  EXPECT_FALSE(SetExists(id_));
  EXPECT_EQ(0x050005u, OPL_SyncMutexClose(&mutex_));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncMutexClose, RepeatsWhatASignalInterrupts) {
  for (const int nth : {1, 2, 3, 4}) {
    SCOPED_TRACE(nth);
    Make();
    Fault fault("semop", nth, EINTR);
    EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
    EXPECT_TRUE(fault.Fired());
    EXPECT_FALSE(SetExists(id_));
  }
}

}  // namespace
