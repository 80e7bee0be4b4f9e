// OPL_SyncMutexCreate: arguments, the set and its file, and what is left when a step fails.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_sync/FailingStep.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Child.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::MutexFile;
using opltest::NewMutex;
using opltest::NumberAndText;
using opltest::ObjectFiles;
using opltest::OpenMutex;
using opltest::RecordOf;
using opltest::SemaphoreSets;
using opltest::SetNamedBy;
using opltest::ValuesOf;

constexpr uint32_t kPrivate = 0x04;
constexpr uint32_t kAll = 0x08;
constexpr uint32_t kRestart = 0x10;
constexpr int kLockMutexes = 3;  // the management lock's semaphore around this module's work

class SyncMutexCreate : public opltest::Instance {
 protected:
  void Close() { EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_)); }

  OPL_SyncMutex* mutex_ = nullptr;
};

TEST(SyncMutexBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SyncMutexCreate(nullptr, 0, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncMutexOpen(nullptr, 0, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncMutexAcquire(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncMutexRelease(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncMutexClose(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncMutexTransferOwnership());
}

TEST_F(SyncMutexCreate, RefusesANullHandleFirst) {
  EXPECT_EQ(0x050046u, OPL_SyncMutexCreate(nullptr, 0, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncMutexCreate: ppMutex is NULL");
}

TEST_F(SyncMutexCreate, RefusesANullName) {
  EXPECT_EQ(0x050046u, OPL_SyncMutexCreate(&mutex_, 0, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncMutexCreate: Name is NULL");
}

TEST_F(SyncMutexCreate, RefusesANameOfTwelveCharactersBeforeTheFlags) {
  EXPECT_EQ(0x050013u, OPL_SyncMutexCreate(&mutex_, 0, "twelve-chars", 0));
  ExpectError(0x050013, "OPL_SyncMutexCreate: Invalid name");
}

TEST_F(SyncMutexCreate, RefusesANameOfFiveThousandCharacters) {
  EXPECT_EQ(0x050013u, OPL_SyncMutexCreate(&mutex_, 0, std::string(5000, 'n').c_str(), kPrivate));
  ExpectError(0x050013, "OPL_SyncMutexCreate: Invalid name");
}

TEST_F(SyncMutexCreate, RefusesToGuessThePermission) {
  EXPECT_EQ(0x05003Fu, OPL_SyncMutexCreate(&mutex_, 0, "q", kRestart));
  ExpectError(0x05003F, "OPL_SyncMutexCreate: Permission not specified.");
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncMutexCreate, LeavesTheHandleAloneWhenItRefuses) {
  auto* const before = reinterpret_cast<OPL_SyncMutex*>(&mutex_);
  OPL_SyncMutex* mutex = before;
  EXPECT_NE(0u, OPL_SyncMutexCreate(&mutex, 0, "q", 0));
  EXPECT_EQ(before, mutex);
}

TEST_F(SyncMutexCreate, TakesANameOfElevenCharacters) {
  mutex_ = NewMutex("eleven-char");
  EXPECT_EQ(std::string("eleven-char"), RecordOf(mutex_).name);
  EXPECT_EQ(std::vector<std::string>{"eleven-char.mutex." + opltest::InstanceString() + ".006.021"},
            ObjectFiles());
  Close();
}

TEST_F(SyncMutexCreate, TakesAnEmptyName) {
  mutex_ = NewMutex("");
  EXPECT_EQ(std::vector<std::string>{".mutex." + opltest::InstanceString() + ".006.021"}, ObjectFiles());
  Close();
}

TEST_F(SyncMutexCreate, IgnoresTheReservedArgument) {
  EXPECT_EQ(0u, OPL_SyncMutexCreate(&mutex_, 0xFFFFFFFF, "q", kPrivate));
  Close();
}

TEST_F(SyncMutexCreate, MakesASetWithTheLockFreeAndOneUse) {
  mutex_ = NewMutex("q");
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(SetNamedBy(MutexFile("q"))));
  Close();
}

TEST_F(SyncMutexCreate, FillsAHandleOfEightWords) {
  mutex_ = NewMutex("q", kPrivate | kRestart);
  const opltest::MutexRecord record = RecordOf(mutex_);
  EXPECT_EQ(SetNamedBy(MutexFile("q")), record.semId);
  EXPECT_EQ(0u, record.lockCount);
  EXPECT_EQ(0u, record.ownerThread);
  EXPECT_EQ(std::string(12, '\0').replace(0, 1, "q"), std::string(record.name, sizeof record.name));
  EXPECT_EQ(0x14u, record.flags);
  EXPECT_EQ(1u, record.freeOnClose);
  Close();
}

// The umask cannot narrow what the flag means.
class SyncMutexAccess : public SyncMutexCreate {
 protected:
  void ExpectModes(uint32_t flags, const std::string& scope, unsigned mode) {
    const mode_t before = ::umask(0777);
    mutex_ = NewMutex("q", flags);
    (void)::umask(before);
    struct stat status {};
    ASSERT_EQ(0, ::stat(MutexFile("q", scope).c_str(), &status));
    EXPECT_EQ(mode, status.st_mode & 07777u);
    EXPECT_EQ(static_cast<int>(mode), opltest::ModeOf(RecordOf(mutex_).semId));
    Close();
  }
};

TEST_F(SyncMutexAccess, IsTheUsersInAPrivateOne) { ExpectModes(kPrivate, opltest::InstanceString(), 0600); }

TEST_F(SyncMutexAccess, IsEverybodysInOneForAllUsers) { ExpectModes(kAll, "all", 0666); }

TEST_F(SyncMutexAccess, IsTheUsersWithBothFlags) {
  ExpectModes(kPrivate | kAll, opltest::InstanceString(), 0600);
}

TEST_F(SyncMutexCreate, DatesTheFileTo2036) {
  mutex_ = NewMutex("q");
  struct stat status {};
  ASSERT_EQ(0, ::stat(MutexFile("q").c_str(), &status));
  for (const time_t time : {status.st_atime, status.st_mtime}) {
    struct tm brokenDown {};
    ASSERT_NE(nullptr, ::localtime_r(&time, &brokenDown));
    EXPECT_EQ(136, brokenDown.tm_year);
  }
  Close();
}

TEST_F(SyncMutexCreate, KeepsThePrivateAndTheSharedOneOfANameApart) {
  mutex_ = NewMutex("q", kPrivate);
  OPL_SyncMutex* all = NewMutex("q", kAll);
  EXPECT_NE(RecordOf(mutex_).semId, RecordOf(all).semId);
  EXPECT_EQ(0u, OPL_SyncMutexClose(&all));
  Close();
}

TEST_F(SyncMutexCreate, RefusesANameThatExistsAndLeavesItAlone) {
  mutex_ = NewMutex("q");
  OPL_SyncMutex* other = nullptr;
  EXPECT_EQ(0x050003u, OPL_SyncMutexCreate(&other, 0, "q", kPrivate));
  ExpectError(0x05120A, ("OPL_PrivateSemIdCreate: IPC file (" + MutexFile("q") +
                         ") already exists. Semaphore already created.")
                            .c_str());
  EXPECT_EQ(nullptr, other);
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(RecordOf(mutex_).semId));
  EXPECT_EQ(1u, ObjectFiles().size());
  EXPECT_EQ(2u, SemaphoreSets().size());
  Close();
}

TEST_F(SyncMutexCreate, RefusesANameWhoseFileNamesNoSet) {
  opltest::WriteFile(MutexFile("q"), "abc");
  EXPECT_EQ(0x050003u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
  EXPECT_EQ("abc", opltest::ContentsOf(MutexFile("q")));
  EXPECT_EQ(0, ::unlink(MutexFile("q").c_str()));
}

TEST_F(SyncMutexCreate, WaitsForTheManagementLocksMutexLockAlone) {
  const int management = SetNamedBy(opltest::ManagementFile());
  ASSERT_EQ(0u, OPL_PrivateMgmtLockRWLockLock());
  ASSERT_EQ(0u, OPL_PrivateMgmtLockSharedMemLock());
  mutex_ = NewMutex("q");
  EXPECT_EQ((opltest::Values{31999, 0, 0, 1}), ValuesOf(management));
  ASSERT_EQ(0u, OPL_PrivateMgmtLockSyncMutexLock());
  opltest::Child child([](opltest::Steps&) {
    ASSERT_EQ(0u, OPL_InitBegin(0));
    OPL_SyncMutex* mutex = OpenMutex("q");
    EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  opltest::AwaitSleepersOn(management, kLockMutexes);
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(RecordOf(mutex_).semId));
  EXPECT_EQ(0u, OPL_PrivateMgmtLockSyncMutexUnlock());
  child.ExpectSuccess();
  EXPECT_EQ(0u, OPL_PrivateMgmtLockSharedMemUnlock());
  EXPECT_EQ(0u, OPL_PrivateMgmtLockRWLockUnlock());
  Close();
}

TEST_F(SyncMutexCreate, RunsWithSignalsBlockedAndRestoresTheMask) {
  static int isBlocked;
  opltest::Replacement semget(
      "semget", +[](key_t, int, int) {
        sigset_t now;
        (void)::sigprocmask(SIG_BLOCK, nullptr, &now);
        isBlocked = sigismember(&now, SIGTERM);
        errno = ENOSPC;
        return -1;
      });
  EXPECT_EQ(0x051210u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
  EXPECT_EQ(1, isBlocked);
  sigset_t after;
  (void)::sigprocmask(SIG_BLOCK, nullptr, &after);
  EXPECT_EQ(0, sigismember(&after, SIGTERM));
}

class SyncMutexCreateFailing : public opltest::FailingSteps {};

TEST_P(SyncMutexCreateFailing, NamesTheStepAndLeavesNothing) {
  const std::vector<int> sets = SemaphoreSets();
  OPL_SyncMutex* mutex = nullptr;
  ExpectFailure(MutexFile("q"), [&] { return OPL_SyncMutexCreate(&mutex, 0, "q", kPrivate); });
  EXPECT_EQ(nullptr, mutex);
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(sets, SemaphoreSets());
  ExpectManagementLockFree();
}

constexpr opltest::FailingStep kOwnSteps[] = {
    {"link", 1, EEXIST, 0x050003, 0x05120A,
     "OPL_PrivateSemIdCreate: IPC file (@) already exists. Semaphore already created."},
    {"semtimedop", 1, EIDRM, 0x05120B, EIDRM, "OPL_PrivateUseCountAccess: semop(#) failed :$"},
};

INSTANTIATE_TEST_SUITE_P(Making, SyncMutexCreateFailing, ::testing::ValuesIn(opltest::kStepsOfMakingASet),
                         opltest::NameOfStep);
INSTANTIATE_TEST_SUITE_P(Own, SyncMutexCreateFailing, ::testing::ValuesIn(kOwnSteps), opltest::NameOfStep);

TEST_F(SyncMutexCreate, SucceedsOverStepsThatOnlyHelp) {
  for (const char* const function : {"lstat64", "fstat64", "futimens"}) {
    SCOPED_TRACE(function);
    {
      Fault fault(function, 1, EIO);
      EXPECT_EQ(0u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
      EXPECT_TRUE(fault.Fired());
    }
    Close();
  }
}

TEST_F(SyncMutexCreate, RepeatsWhatASignalInterrupts) {
  for (const char* const function : {"semop", "write", "semtimedop"}) {
    SCOPED_TRACE(function);
    {
      Fault fault(function, 1, EINTR);
      EXPECT_EQ(0u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
      EXPECT_TRUE(fault.Fired());
    }
    EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(RecordOf(mutex_).semId));
    Close();
  }
}

TEST_F(SyncMutexCreate, LeavesNothingWhenThereIsNoMemoryForTheMask) {
  (void)OPL_ErrSet(0, 0, "the record itself is there");
  opltest::FailingMemory memory(1);
  EXPECT_EQ(0x050402u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
  ExpectError(ENOMEM, ("OPL_SigBlock: malloc error :" + NumberAndText(ENOMEM)).c_str());
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncMutexCreate, LeavesNothingWhenThereIsNoMemoryForTheHandle) {
  (void)OPL_ErrSet(0, 0, "the record itself is there");
  opltest::FailingMemory memory(2);
  EXPECT_EQ(0x050001u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
  ExpectError(ENOMEM, "OPL_SyncMutexCreate: malloc error :12");
  EXPECT_EQ(nullptr, mutex_);
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(1u, SemaphoreSets().size());
}

TEST_F(SyncMutexCreate, KeepsTheFirstFailuresMessageOverAnUndoThatFails) {
  opltest::FailingMemory memory(2);
  (void)OPL_ErrSet(0, 0, "the record itself is there");
  Fault fault("semctl", 2, EPERM);  // the removal
  EXPECT_EQ(0x050001u, OPL_SyncMutexCreate(&mutex_, 0, "q", kPrivate));
  EXPECT_TRUE(fault.Fired());
  ExpectError(ENOMEM, "OPL_SyncMutexCreate: malloc error :12");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
}

TEST_F(SyncMutexCreate, FailsInADirectoryThatDoesNotExist) {
  EXPECT_EQ(0x051203u, OPL_SyncMutexCreate(&mutex_, 0, "no/dir", kPrivate));
  ExpectError(ENOENT, ("OPL_PrivateSemIdCreate: open error :" + NumberAndText(ENOENT) + "\nFile " +
                       MutexFile("no/dir"))
                          .c_str());
}

}  // namespace
