// OPL_SyncRWLockCreate: arguments, the set and its file, and what is left when a step fails.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_sync/FailingStep.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Child.h"
#include "tests/support/FailingMemory.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::NewRWLock;
using opltest::NumberAndText;
using opltest::ObjectFiles;
using opltest::OpenRWLock;
using opltest::RWLockFile;
using opltest::SemaphoreSets;
using opltest::SetNamedBy;
using opltest::ValuesOf;

constexpr uint32_t kPrivate = 0x01;
constexpr uint32_t kAll = 0x02;
constexpr uint32_t kRestart = 0x10;
constexpr int kLockRWLocks = 2;  // the management lock's semaphore around this module's work

class SyncRWLockCreate : public opltest::Instance {
 protected:
  void Close() {
    EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
    EXPECT_EQ(nullptr, rwLock_);
  }

  OPL_SyncRWLock* rwLock_ = nullptr;
};

TEST(SyncRWLockBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SyncRWLockCreate(nullptr, 0, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncRWLockOpen(nullptr, 0, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncRWLockLock(nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncRWLockUnlock(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncRWLockClose(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncRWLockTransferOwnership());
}

TEST_F(SyncRWLockCreate, RefusesANullHandleFirst) {
  EXPECT_EQ(0x050046u, OPL_SyncRWLockCreate(nullptr, 0, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncRWLockCreate: phRWLock is NULL");
}

TEST_F(SyncRWLockCreate, RefusesANullName) {
  EXPECT_EQ(0x050046u, OPL_SyncRWLockCreate(&rwLock_, 0, nullptr, kPrivate));
  ExpectError(0x050046, "OPL_SyncRWLockCreate: Name is NULL");
}

TEST_F(SyncRWLockCreate, RefusesANameOfTwelveCharacters) {
  EXPECT_EQ(0x050013u, OPL_SyncRWLockCreate(&rwLock_, 0, "twelve-chars", kPrivate));
  ExpectError(0x050013, "OPL_SyncRWLockCreate: Name 'twelve-chars' is too long");
}

TEST_F(SyncRWLockCreate, CutsTheMessageAboutANameOfFiveThousandCharacters) {
  EXPECT_EQ(0x050013u, OPL_SyncRWLockCreate(&rwLock_, 0, std::string(5000, 'n').c_str(), kPrivate));
  const std::string whole = "OPL_SyncRWLockCreate: Name '" + std::string(5000, 'n');
  ExpectError(0x050013, whole.substr(0, 511).c_str());
}

TEST_F(SyncRWLockCreate, TakesANameOfElevenCharacters) {
  rwLock_ = NewRWLock("eleven-char");
  EXPECT_EQ(std::vector<std::string>{"eleven-char.rwlock." + opltest::InstanceString() + ".006.021"},
            ObjectFiles());
  Close();
}

// An empty name stands for a free place in the crew list, so such a lock is not closed at the process's end.
TEST_F(SyncRWLockCreate, TakesAnEmptyName) {
  rwLock_ = NewRWLock("");
  EXPECT_EQ(std::vector<std::string>{".rwlock." + opltest::InstanceString() + ".006.021"}, ObjectFiles());
  Close();
}

TEST_F(SyncRWLockCreate, IgnoresTheReservedArgument) {
  EXPECT_EQ(0u, OPL_SyncRWLockCreate(&rwLock_, 0xFFFFFFFF, "q", kPrivate));
  Close();
}

TEST_F(SyncRWLockCreate, MakesASetWithTheGateOpenAndOneUse) {
  rwLock_ = NewRWLock("q");
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(SetNamedBy(RWLockFile("q"))));
  Close();
  EXPECT_TRUE(ObjectFiles().empty());
}

class SyncRWLockAccess : public SyncRWLockCreate {
 protected:
  void ExpectModes(uint32_t flags, const std::string& scope, unsigned mode) {
    const mode_t before = ::umask(0777);
    rwLock_ = NewRWLock("q", flags);
    (void)::umask(before);
    struct stat status {};
    ASSERT_EQ(0, ::stat(RWLockFile("q", scope).c_str(), &status));
    EXPECT_EQ(mode, status.st_mode & 07777u);
    EXPECT_EQ(static_cast<int>(mode), opltest::ModeOf(SetNamedBy(RWLockFile("q", scope))));
    Close();
  }
};

TEST_F(SyncRWLockAccess, IsTheUsersInAPrivateOne) { ExpectModes(kPrivate, opltest::InstanceString(), 0600); }

TEST_F(SyncRWLockAccess, IsEverybodysInOneForAllUsers) { ExpectModes(kAll, "all", 0666); }

TEST_F(SyncRWLockAccess, IsTheUsersWithBothFlags) {
  ExpectModes(kPrivate | kAll, opltest::InstanceString(), 0600);
}

// Without a flag nothing is refused by the library, but the system lets only a privileged user go on.
TEST_F(SyncRWLockAccess, IsNobodysWithoutAFlag) {
  if (::geteuid() == 0) {
    ExpectModes(kRestart, "", 0);
    return;
  }
  EXPECT_EQ(0x051211u, OPL_SyncRWLockCreate(&rwLock_, 0, "q", kRestart));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(1u, SemaphoreSets().size());
}

TEST_F(SyncRWLockCreate, DatesTheFileTo2036) {
  rwLock_ = NewRWLock("q");
  struct stat status {};
  ASSERT_EQ(0, ::stat(RWLockFile("q").c_str(), &status));
  EXPECT_EQ(136, ::localtime(&status.st_atime)->tm_year);
  EXPECT_EQ(136, ::localtime(&status.st_mtime)->tm_year);
  Close();
}

TEST_F(SyncRWLockCreate, KeepsAMutexOfTheSameNameApart) {
  rwLock_ = NewRWLock("q");
  OPL_SyncMutex* mutex = opltest::NewMutex("q");
  EXPECT_EQ(2u, ObjectFiles().size());
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex));
  Close();
}

TEST_F(SyncRWLockCreate, RefusesANameThatExistsAndLeavesItAlone) {
  rwLock_ = NewRWLock("q");
  OPL_SyncRWLock* other = nullptr;
  EXPECT_EQ(0x050014u, OPL_SyncRWLockCreate(&other, 0, "q", kPrivate));
  ExpectError(0x05120A, ("OPL_PrivateSemIdCreate: IPC file (" + RWLockFile("q") +
                         ") already exists. Semaphore already created.")
                            .c_str());
  EXPECT_EQ(nullptr, other);
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(SetNamedBy(RWLockFile("q"))));
  EXPECT_EQ(2u, SemaphoreSets().size());
  Close();
}

TEST_F(SyncRWLockCreate, WaitsForTheManagementLocksRWLockLockAlone) {
  const int management = SetNamedBy(opltest::ManagementFile());
  ASSERT_EQ(0u, OPL_PrivateMgmtLockSyncMutexLock());
  ASSERT_EQ(0u, OPL_PrivateMgmtLockSharedMemLock());
  rwLock_ = NewRWLock("q");
  EXPECT_EQ((opltest::Values{31999, 0, 1, 0}), ValuesOf(management));
  ASSERT_EQ(0u, OPL_PrivateMgmtLockRWLockLock());
  opltest::Child child([](opltest::Steps&) {
    ASSERT_EQ(0u, OPL_InitBegin(0));
    OPL_SyncRWLock* rwLock = OpenRWLock("q");
    EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  opltest::AwaitSleepersOn(management, kLockRWLocks);
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(SetNamedBy(RWLockFile("q"))));
  EXPECT_EQ(0u, OPL_PrivateMgmtLockRWLockUnlock());
  child.ExpectSuccess();
  EXPECT_EQ(0u, OPL_PrivateMgmtLockSharedMemUnlock());
  EXPECT_EQ(0u, OPL_PrivateMgmtLockSyncMutexUnlock());
  Close();
}

class SyncRWLockCreateFailing : public opltest::FailingSteps {};

TEST_P(SyncRWLockCreateFailing, NamesTheStepAndLeavesNothing) {
  const std::vector<int> sets = SemaphoreSets();
  OPL_SyncRWLock* rwLock = nullptr;
  ExpectFailure(RWLockFile("q"), [&] { return OPL_SyncRWLockCreate(&rwLock, 0, "q", kPrivate); });
  EXPECT_EQ(nullptr, rwLock);
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(sets, SemaphoreSets());
  ExpectManagementLockFree();
}

constexpr opltest::FailingStep kOwnSteps[] = {
    {"link", 1, EEXIST, 0x050014, 0x05120A,
     "OPL_PrivateSemIdCreate: IPC file (@) already exists. Semaphore already created."},
    {"pthread_key_create", 1, EAGAIN, 0x05030C, 0x05030C,
     "OPL_SyncRWLockCreate: OPL_ThreadTsdAllocKey failed"},
    {"pthread_key_create", 1, ENOMEM, 0x050308, 0x050308,
     "OPL_SyncRWLockCreate: OPL_ThreadTsdAllocKey failed"},
};

INSTANTIATE_TEST_SUITE_P(Making, SyncRWLockCreateFailing, ::testing::ValuesIn(opltest::kStepsOfMakingASet),
                         opltest::NameOfStep);
INSTANTIATE_TEST_SUITE_P(Own, SyncRWLockCreateFailing, ::testing::ValuesIn(kOwnSteps), opltest::NameOfStep);

TEST_F(SyncRWLockCreate, LeavesNothingWhenThereIsNoMemoryForTheHandle) {
  opltest::FailingMemory memory(2);
  EXPECT_EQ(0x050001u, OPL_SyncRWLockCreate(&rwLock_, 0, "q", kPrivate));
  ExpectError(ENOMEM, "OPL_SyncRWLockCreate: malloc error");
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(1u, SemaphoreSets().size());
}

TEST_F(SyncRWLockCreate, StoresNullWhenNoHandleCanBeMade) {
  rwLock_ = reinterpret_cast<OPL_SyncRWLock*>(this);
  Fault fault("pthread_key_create", 1, EAGAIN);
  EXPECT_EQ(0x05030Cu, OPL_SyncRWLockCreate(&rwLock_, 0, "q", kPrivate));
  EXPECT_EQ(nullptr, rwLock_);
}

TEST_F(SyncRWLockCreate, GivesItsKeyBackWhenItCannotBeEntered) {
  Fault lock("pthread_mutex_lock", 1, EDEADLK);
  Fault freed("pthread_key_delete", 1000, EIO);  // only counted
  EXPECT_EQ(0x05003Du, OPL_SyncRWLockCreate(&rwLock_, 0, "q", kPrivate));
  EXPECT_EQ(1, freed.Calls());
}

}  // namespace
