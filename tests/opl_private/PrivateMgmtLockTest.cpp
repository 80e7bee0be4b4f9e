// The management lock: its set and its file, the count of processes, the three locks, and how the library's
// begin gets along with other processes' ends.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Limit.h"
#include "tests/support/SignalStream.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"

namespace {

using opltest::BytesOf;
using opltest::Child;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::IdIn;
using opltest::LastFailure;
using opltest::Steps;
using opltest::Values;

std::string ManagementFile() {
  return opltest::IpcDirectory() + "/QVOPL.mgmt." + opltest::InstanceString() + ".006.021";
}

std::string TemporaryFile(unsigned pid) {
  char text[16];
  std::snprintf(text, sizeof text, ".%x", pid);
  return ManagementFile() + text;
}

std::string TemporaryFile() { return TemporaryFile(static_cast<unsigned>(::getpid())); }

Values ManagementValues() { return opltest::ValuesOf(IdIn(ManagementFile())); }

Failure NotAllocated(const std::string& function) {
  return {0x051218, function + ": Control semaphore set is not allocated to this QVOPL session"};
}

// The library is begun, for the error record, but the process holds no set and there is none.
class MgmtLock : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLRelease());
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLExclusive());
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  }
  void TearDown() override {
    (void)OPL_PrivateMgmtLockDestroy();
    Instance::TearDown();
  }
};

class MgmtLockCreate : public MgmtLock {};
class MgmtLockOpen : public MgmtLock {};
class MgmtLockDestroy : public MgmtLock {};

class MgmtLockHeld : public MgmtLock {
 protected:
  void SetUp() override {
    MgmtLock::SetUp();
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
    set_ = IdIn(ManagementFile());
  }

  std::string Removed(const std::string& function) const {
    return function + ": semaphore " + std::to_string(set_) + " has been removed.";
  }
  std::string SemopFailure(const std::string& function, const std::string& what) const {
    return function + ": semop(" + std::to_string(set_) + ") failed :" + what;
  }

  int set_ = -1;
};

class MgmtLockUseCount : public MgmtLockHeld {};
class MgmtLockLocks : public MgmtLockHeld {};

TEST_F(MgmtLockCreate, MakesFourSemaphores) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
}

TEST_F(MgmtLockCreate, MakesSetAndFileForTheirOwnerUnderAnyMask) {
  for (const mode_t mask : {0000, 0022, 0777}) {
    const mode_t before = ::umask(mask);
    const OPL_Result rc = OPL_PrivateMgmtLockCreate();
    (void)::umask(before);
    ASSERT_EQ(OPL_OK, rc);
    struct stat status {};
    ASSERT_EQ(0, ::stat(ManagementFile().c_str(), &status));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), status.st_mode);
    EXPECT_EQ(1u, status.st_nlink);
    const ipc_perm permissions = opltest::PermissionsOfSet(IdIn(ManagementFile()));
    EXPECT_EQ(0600, permissions.mode & 0777);
    EXPECT_EQ(IPC_PRIVATE, permissions.__key);
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  }
}

TEST_F(MgmtLockCreate, LeavesOneFileAndOneSet) {
  Footprint expected = Footprint::Now();
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  expected.items.insert("file " + ManagementFile());
  expected.items.insert("sem " + std::to_string(IdIn(ManagementFile())));
  EXPECT_EQ(expected, Footprint::Now());
}

TEST_F(MgmtLockCreate, NamesItsTemporaryFileAfterTheProcess) {
  const Fault fault("link", 1, [] {
    EXPECT_EQ(4u, opltest::ContentsOf(TemporaryFile()).size());
    EXPECT_FALSE(std::filesystem::exists(ManagementFile()));
  });
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  EXPECT_TRUE(fault.Fired());
  EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
}

TEST_F(MgmtLockCreate, NamesItsTemporaryFileAfterTheProcessIdThatWasSet) {
  ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(0xABCDEF));
  const Fault fault("link", 1, [] { EXPECT_TRUE(std::filesystem::exists(TemporaryFile(0xABCDEF))); });
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  EXPECT_TRUE(fault.Fired());
  ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(OPL_PROCESS_NO_ID));
}

TEST_F(MgmtLockCreate, IsRefusedToAProcessThatHoldsASet) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_HELD, OPL_PrivateMgmtLockCreate());
  EXPECT_EQ(Failure(0x051219,
                    "OPL_PrivateMgmtLockCreate: Control semaphore set already allocated to this "
                    "QVOPL session"),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
}

TEST_F(MgmtLockCreate, IsRefusedWhenTheManagementFileExists) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  Child child([](Steps&) {
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockClose(1));
    const Footprint before = Footprint::Now();
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_EXISTS, OPL_PrivateMgmtLockCreate());
    EXPECT_EQ(Failure(0x051217, "OPL_PrivateMgmtLockCreate: Control semaphore set already exists"),
              LastFailure());
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockQVOPLAccess());
  });
  child.ExpectSuccess();
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
}

TEST_F(MgmtLockCreate, IsWonByOneOfTwoThatRace) {
  Child slower([](Steps& steps) {
    const Fault fault("link", 1, [&] {
      steps.Reach();
      steps.WaitForGo();
    });
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_EXISTS, OPL_PrivateMgmtLockCreate());
  });
  slower.Await();
  EXPECT_EQ(2u, opltest::SystemVObjects().size() + opltest::FilesIn(opltest::IpcDirectory()).size());
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  slower.Go();
  slower.ExpectSuccess();
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(2u, opltest::SystemVObjects().size() + opltest::FilesIn(opltest::IpcDirectory()).size());
}

struct Refusal {
  const char* call;
  int error;
  int code;
  std::string message;
};

TEST_F(MgmtLockCreate, LeavesNothingBehindWhicheverCallFails) {
  const std::string temporary = TemporaryFile();
  const std::string names = "\n old file " + temporary + "\nnew file " + ManagementFile();
  const std::string semId = "OPL_PrivateSemIdCreate: ";
  const std::string create = "OPL_PrivateMgmtLockCreate: ";
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, semId + "open error :13,Permission denied\nFile " + temporary},
      {"fchmod", EPERM, OPL_PRIVATE_E_FCHMOD,
       semId + "fchmod(384) error :1,Operation not permitted\nFile " + temporary},
      {"semget", ENOSPC, OPL_PRIVATE_E_SEMGET, semId + "semget error: 28,No space left on device"},
      {"write", EIO, OPL_PRIVATE_E_WRITE, semId + "write error :5,Input/output error\nFile " + temporary},
      {"close", EIO, OPL_PRIVATE_E_CLOSE, semId + "close error :5,Input/output error\nFile " + temporary},
      {"link", EACCES, OPL_PRIVATE_E_MGMT_LINK, create + "link failed :13,Permission denied" + names},
      {"link", EFAULT, OPL_PRIVATE_E_MGMT_LINK, create + "link failed :14,Bad address" + names},
      {"link", EMLINK, OPL_PRIVATE_E_MGMT_LINK, create + "link failed :31,Too many links" + names},
      {"link", ENAMETOOLONG, OPL_PRIVATE_E_MGMT_LINK, create + "link failed :36,File name too long" + names},
      {"link", ELOOP, OPL_PRIVATE_E_MGMT_LINK,
       create + "link failed :40,Too many levels of symbolic links" + names},
      {"stat64", EIO, OPL_PRIVATE_E_MGMT_STAT,
       create + "stat failed :5,Input/output error\nfile " + temporary},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.message);
    const Footprint before = Footprint::Now();
    const Fault fault(refusal.call, 1, refusal.error);
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), OPL_PrivateMgmtLockCreate());
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(Failure(static_cast<uint32_t>(refusal.error), refusal.message), LastFailure());
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockQVOPLAccess());
  }
}

TEST_F(MgmtLockCreate, LeavesNothingBehindWhenTheValuesCannotBeSet) {
  const Footprint before = Footprint::Now();
  const Fault fault("semctl", 1, ERANGE);
  EXPECT_EQ(OPL_PRIVATE_E_SEMCTL, OPL_PrivateMgmtLockCreate());
  EXPECT_EQ(static_cast<uint32_t>(ERANGE), OPL_ErrCodeGet(0));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(MgmtLockCreate, LooksAtTheLinkCountAfterAnyOtherFailureOfLink) {
  for (const int error : {EEXIST, EIO, EPERM, ENOSPC}) {
    const Footprint before = Footprint::Now();
    const Fault fault("link", 1, error);
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_EXISTS, OPL_PrivateMgmtLockCreate());
    EXPECT_EQ(Failure(0x051217, "OPL_PrivateMgmtLockCreate: Control semaphore set already exists"),
              LastFailure());
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST_F(MgmtLockCreate, SucceedsWhereTheLinkWasMadeAndItsAnswerLost) {
  const Fault fault("link", 1,
                    [] { ASSERT_EQ(0, ::link(TemporaryFile().c_str(), ManagementFile().c_str())); });
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
  EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
}

TEST_F(MgmtLockCreate, ReplacesALeftoverOfItsProcessIdWithTheUnusedSet) {
  const int leftover = opltest::MakeSet({32000, 1, 1, 1});
  opltest::WriteFile(TemporaryFile(), BytesOf(leftover));
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  EXPECT_FALSE(opltest::SetExists(leftover));
  EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
}

TEST_F(MgmtLockCreate, ReplacesWhateverHasItsTemporaryName) {
  const Footprint before = Footprint::Now();
  const std::string target = opltest::WorkDirectory() + "/target";
  for (int kind = 0; kind < 3; ++kind) {
    SCOPED_TRACE(kind);
    if (kind == 0) opltest::WriteFile(TemporaryFile(), "abc");
    if (kind == 1) {
      ASSERT_EQ(0, ::symlink(target.c_str(), TemporaryFile().c_str()));
    }
    if (kind == 2) {
      ASSERT_EQ(0, ::mkfifo(TemporaryFile().c_str(), 0600));
    }
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
    EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  }
  EXPECT_EQ(before, Footprint::Now());
}

// As a process leaves it that is killed under a mask of 0777 before it gives the file its mode.
TEST_F(MgmtLockCreate, ReplacesALeftoverThatItMayNotRead) {
  opltest::LetOtherUsersIn();
  Child child([](Steps&) {
    if (opltest::IsRoot()) opltest::BecomeOtherUser();
    opltest::WriteFile(TemporaryFile(), "");
    ASSERT_EQ(0, ::chmod(TemporaryFile().c_str(), 0));
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
    EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
  });
  child.ExpectSuccess();
}

TEST_F(MgmtLockCreate, KeepsTheSetOfALeftoverThatWasPublished) {
  const int published = opltest::MakeSet({32000, 1, 1, 1});
  opltest::WriteFile(ManagementFile(), BytesOf(published));
  ASSERT_EQ(0, ::link(ManagementFile().c_str(), TemporaryFile().c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_EXISTS, OPL_PrivateMgmtLockCreate());
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
  EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

// Between the making of a set and the writing of its id nobody can know the set; the calls there are left
// out.
TEST_F(MgmtLockCreate, ClearsAwayWhatAKilledProcessOfItsIdLeft) {
  constexpr uint32_t kPid = 0xABCDEF;
  const Footprint before = Footprint::Now();
  for (const char* call : {"fchmod", "semget", "futimens", "close", "link"}) {
    SCOPED_TRACE(call);
    {
      Child killed([&](Steps&) {
        ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(kPid));
        const Fault fault(call, 1, Fault::Kill{});
        (void)OPL_PrivateMgmtLockCreate();
      });
      killed.ExpectKilledBy(SIGKILL);
    }
    EXPECT_TRUE(std::filesystem::exists(TemporaryFile(kPid)));
    ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(kPid));
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
    ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(OPL_PROCESS_NO_ID));
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST_F(MgmtLockCreate, LeavesAUsableLockWhenKilledAfterTheLink) {
  for (const char* call : {"stat64", "unlink"}) {
    SCOPED_TRACE(call);
    Child killed([&](Steps&) {
      const Fault fault(call, 1, Fault::Kill{});
      (void)OPL_PrivateMgmtLockCreate();
    });
    const std::string leftover = TemporaryFile(static_cast<unsigned>(killed.pid()));
    killed.ExpectKilledBy(SIGKILL);
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
    EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
    EXPECT_EQ(0, ::unlink(leftover.c_str()));
  }
}

TEST_F(MgmtLockOpen, FindsTheSetOfAnotherProcess) {
  Child maker([](Steps&) { ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate()); });
  maker.ExpectSuccess();
  const Footprint before = Footprint::Now();
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
}

TEST_F(MgmtLockOpen, LeavesTheMessageOfTheRemovalWhenThereIsNoSet) {
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockOpen());
  EXPECT_EQ(NotAllocated("OPL_PrivateMgmtLockDestroy"), LastFailure());
}

TEST_F(MgmtLockOpen, FindsAndRemovesAStaleFile) {
  const int gone = opltest::MakeSet({32000, 1, 1, 1});
  opltest::RemoveSet(gone);
  opltest::WriteFile(ManagementFile(), BytesOf(gone));
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockOpen());
  EXPECT_FALSE(std::filesystem::exists(ManagementFile()));
}

TEST_F(MgmtLockOpen, PassesOnAFileThatHoldsNoId) {
  opltest::WriteFile(ManagementFile(), "abc");
  EXPECT_EQ(OPL_PRIVATE_E_READ, OPL_PrivateMgmtLockOpen());
  EXPECT_EQ("abc", opltest::ContentsOf(ManagementFile()));
  EXPECT_EQ(0, ::unlink(ManagementFile().c_str()));
}

TEST_F(MgmtLockOpen, RemovesNothingWhicheverCallFails) {
  Child maker([](Steps&) { ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate()); });
  maker.ExpectSuccess();
  struct {
    const char* call;
    int nth;
    int error;
    int code;
  } const refusals[] = {
      {"open64", 1, EMFILE, OPL_PRIVATE_E_OPEN},
      {"read", 1, EIO, OPL_PRIVATE_E_READ},
      {"close", 1, EIO, OPL_PRIVATE_E_CLOSE},
      {"semctl", 2, EIDRM, OPL_PRIVATE_E_MGMT_MISSING},
  };
  for (const auto& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Footprint before = Footprint::Now();
    const Fault fault(refusal.call, refusal.nth, refusal.error);
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), OPL_PrivateMgmtLockOpen());
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(NotAllocated("OPL_PrivateMgmtLockDestroy"), LastFailure());
    EXPECT_EQ(before, Footprint::Now());
  }
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

TEST_F(MgmtLockOpen, RemovesNothingWhenNoDescriptorIsLeft) {
  Child maker([](Steps&) { ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate()); });
  maker.ExpectSuccess();
  const Footprint before = Footprint::Now();
  OPL_Result rc = OPL_OK;
  {
    const opltest::Limit none(RLIMIT_NOFILE, 3);
    rc = OPL_PrivateMgmtLockOpen();
  }
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, rc);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

TEST_F(MgmtLockOpen, RemovesTheSetThatTheProcessHoldsAlone) {
  const Footprint before = Footprint::Now();
  for (const bool uses : {false, true}) {
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
    if (uses) {
      ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
    }
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_HELD, OPL_PrivateMgmtLockOpen());
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockQVOPLRelease());
  }
}

TEST_F(MgmtLockOpen, LeavesTheSetThatAnotherProcessUses) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
  Child other([](Steps& steps) {
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLRelease());
  });
  other.Await();
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_HELD, OPL_PrivateMgmtLockOpen());
  EXPECT_EQ(Failure(0x051219,
                    "OPL_PrivateMgmtLockOpen: Control semaphore set already allocated to this QVOPL "
                    "session"),
            LastFailure());
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockQVOPLRelease());
  other.Go();
  other.ExpectSuccess();
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

TEST_F(MgmtLockOpen, LeavesAUsableSetThatItCannotRemove) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
  {
    const Fault fault("semctl", 1, EPERM);
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_HELD, OPL_PrivateMgmtLockOpen());
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockQVOPLRelease());
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

TEST_F(MgmtLockDestroy, RemovesSetAndFile) {
  const Footprint before = Footprint::Now();
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockDestroy());
}

TEST_F(MgmtLockDestroy, ForgetsTheSetWhenTheFileIsMissing) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  ASSERT_EQ(0, ::unlink(ManagementFile().c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockDestroy());
  EXPECT_EQ(Failure(0x05120B, "OPL_PrivateSemIdDestroy: IPC file (" + ManagementFile() +
                                  ") not found. Semaphore does not exists."),
            LastFailure());
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockQVOPLAccess());
  EXPECT_EQ(NotAllocated("OPL_PrivateMgmtLockQVOPLAccess"), LastFailure());
}

TEST_F(MgmtLockDestroy, PassesOverASetThatIsGone) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  opltest::RemoveSet(IdIn(ManagementFile()));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  EXPECT_FALSE(std::filesystem::exists(ManagementFile()));
}

TEST_F(MgmtLockDestroy, LeavesAFileThatNamesAnotherSet) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  const int mine = IdIn(ManagementFile());
  const int others = opltest::MakeSet({32000, 1, 1, 1});
  ASSERT_EQ(0, ::unlink(ManagementFile().c_str()));
  opltest::WriteFile(ManagementFile(), BytesOf(others));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  EXPECT_FALSE(opltest::SetExists(mine));
  EXPECT_EQ(others, IdIn(ManagementFile()));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

TEST_F(MgmtLockDestroy, KeepsTheSetWhenItFails) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockCreate());
  const std::string id = std::to_string(IdIn(ManagementFile()));
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied\nFile " + ManagementFile()},
      {"read", EIO, OPL_PRIVATE_E_READ, "read error :5,Input/output error\nFile " + ManagementFile()},
      {"semctl", EPERM, OPL_PRIVATE_E_SEMCTL, "semctl(" + id + ") error :1 (Operation not permitted)"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Footprint before = Footprint::Now();
    const Fault fault(refusal.call, 1, refusal.error);
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), OPL_PrivateMgmtLockDestroy());
    EXPECT_EQ(Failure(static_cast<uint32_t>(refusal.error), "OPL_PrivateSemIdDestroy: " + refusal.message),
              LastFailure());
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
  }
}

TEST_F(MgmtLock, CloseForgetsTheSetWithoutTouchingIt) {
  for (const uint32_t mode : {0u, 1u, 77u}) {
    ASSERT_EQ(OPL_OK, mode == 0 ? OPL_PrivateMgmtLockCreate() : OPL_PrivateMgmtLockOpen());
    const Footprint before = Footprint::Now();
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockClose(mode));
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockClose(mode));
  }
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockOpen());
}

TEST_F(MgmtLock, RefusesEveryOperationWithoutASet) {
  struct {
    const char* name;
    OPL_Result (*call)();
  } const operations[] = {
      {"OPL_PrivateMgmtLockClose", [] { return OPL_PrivateMgmtLockClose(0); }},
      {"OPL_PrivateMgmtLockDestroy", OPL_PrivateMgmtLockDestroy},
      {"OPL_PrivateMgmtLockQVOPLAccess", OPL_PrivateMgmtLockQVOPLAccess},
      {"OPL_PrivateMgmtLockQVOPLRelease", OPL_PrivateMgmtLockQVOPLRelease},
      {"OPL_PrivateMgmtLockQVOPLExclusive", OPL_PrivateMgmtLockQVOPLExclusive},
      {"SemaphoreLock", OPL_PrivateMgmtLockSharedMemLock},
      {"SemaphoreLock", OPL_PrivateMgmtLockRWLockLock},
      {"SemaphoreLock", OPL_PrivateMgmtLockSyncMutexLock},
      {"SemaphoreUnlock", OPL_PrivateMgmtLockSharedMemUnlock},
      {"SemaphoreUnlock", OPL_PrivateMgmtLockRWLockUnlock},
      {"SemaphoreUnlock", OPL_PrivateMgmtLockSyncMutexUnlock},
  };
  for (const auto& operation : operations) {
    opltest::ForgetFailure();
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, operation.call());
    EXPECT_EQ(NotAllocated(operation.name), LastFailure());
  }
}

TEST_F(MgmtLockUseCount, IsTakenAndGivenBack) {
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
  EXPECT_EQ((Values{31999, 1, 1, 1}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLRelease());
  EXPECT_EQ((Values{32000, 1, 1, 1}), opltest::ValuesOf(set_));
}

TEST_F(MgmtLockUseCount, IsGivenBackWhenTheProcessDies) {
  Child child([](Steps& steps) {
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  EXPECT_EQ((Values{31999, 1, 1, 1}), opltest::ValuesOf(set_));
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  EXPECT_EQ((Values{32000, 1, 1, 1}), opltest::ValuesOf(set_));
}

TEST_F(MgmtLockUseCount, IsTakenExclusivelyWhenNobodyHasAny) {
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLExclusive());
  EXPECT_EQ((Values{0, 1, 1, 1}), opltest::ValuesOf(set_));
}

TEST_F(MgmtLockUseCount, IsNotTakenExclusivelyWhileAnybodyHasOne) {
  Child child([](Steps& steps) {
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLAccess());
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_UNAVAILABLE, OPL_PrivateMgmtLockQVOPLExclusive());
  EXPECT_EQ(Failure(0x05121A,
                    "OPL_PrivateMgmtLockQVOPLExclusive: Cannot obtain exclusive access to QVOPL "
                    "count semaphore [other still uses it]"),
            LastFailure());
  EXPECT_EQ((Values{31999, 1, 1, 1}), opltest::ValuesOf(set_));
  child.Go();
  child.ExpectSuccess();
}

TEST_F(MgmtLockUseCount, IsRefusedAfterExclusiveUseAlsoOfADeadProcess) {
  Child child([](Steps&) { ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLExclusive()); });
  child.ExpectSuccess();
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_UNAVAILABLE, OPL_PrivateMgmtLockQVOPLAccess());
  EXPECT_EQ(Failure(0x05121A,
                    "OPL_PrivateMgmtLockQVOPLAccess: Cannot access QVOPL count semaphore [probably "
                    "being destroyed]"),
            LastFailure());
}

struct Operation {
  const char* name;
  OPL_Result (*call)();
};

constexpr Operation kUseCountOperations[] = {
    {"OPL_PrivateMgmtLockQVOPLAccess", OPL_PrivateMgmtLockQVOPLAccess},
    {"OPL_PrivateMgmtLockQVOPLRelease", OPL_PrivateMgmtLockQVOPLRelease},
    {"OPL_PrivateMgmtLockQVOPLExclusive", OPL_PrivateMgmtLockQVOPLExclusive},
};

constexpr Operation kLockOperations[] = {
    {"SemaphoreLock", OPL_PrivateMgmtLockSharedMemLock},
    {"SemaphoreUnlock", OPL_PrivateMgmtLockSharedMemUnlock},
    {"SemaphoreLock", OPL_PrivateMgmtLockRWLockLock},
    {"SemaphoreUnlock", OPL_PrivateMgmtLockRWLockUnlock},
    {"SemaphoreLock", OPL_PrivateMgmtLockSyncMutexLock},
    {"SemaphoreUnlock", OPL_PrivateMgmtLockSyncMutexUnlock},
};

TEST_F(MgmtLockUseCount, RepeatsAnInterruptedOperation) {
  for (const Operation& operation :
       {kUseCountOperations[0], kUseCountOperations[1], kUseCountOperations[2]}) {
    const Fault fault("semop", 1, EINTR);
    EXPECT_EQ(OPL_OK, operation.call()) << operation.name;
    EXPECT_EQ(2, fault.Calls());
  }
}

TEST_F(MgmtLockUseCount, FindsTheSetRemoved) {
  opltest::RemoveSet(set_);
  for (const Operation& operation : kUseCountOperations) {
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, operation.call());
    EXPECT_EQ(Failure(EINVAL, Removed(operation.name)), LastFailure());
    const Fault fault("semop", 1, EIDRM);
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, operation.call());
    EXPECT_EQ(Failure(EIDRM, Removed(operation.name)), LastFailure());
  }
}

TEST_F(MgmtLockUseCount, TellsOfAnyOtherFailure) {
  for (const Operation& operation : kUseCountOperations) {
    const Fault fault("semop", 1, ENOSPC);
    EXPECT_EQ(OPL_PRIVATE_E_SEMOP, operation.call());
    EXPECT_EQ(Failure(ENOSPC, SemopFailure(operation.name, "28,No space left on device")), LastFailure());
  }
}

TEST_F(MgmtLockLocks, AreOneSemaphoreForEachKind) {
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockSharedMemLock());
  EXPECT_EQ((Values{32000, 0, 1, 1}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockRWLockLock());
  EXPECT_EQ((Values{32000, 0, 0, 1}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockSyncMutexLock());
  EXPECT_EQ((Values{32000, 0, 0, 0}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockSharedMemUnlock());
  EXPECT_EQ((Values{32000, 1, 0, 0}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockRWLockUnlock());
  EXPECT_EQ((Values{32000, 1, 1, 0}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockSyncMutexUnlock());
  EXPECT_EQ((Values{32000, 1, 1, 1}), opltest::ValuesOf(set_));
}

TEST_F(MgmtLockLocks, AreGivenBackWhenTheHolderDies) {
  Child child([](Steps& steps) {
    for (const int i : {0, 2, 4}) ASSERT_EQ(OPL_OK, kLockOperations[i].call());
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  EXPECT_EQ((Values{32000, 0, 0, 0}), opltest::ValuesOf(set_));
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  for (const int i : {0, 2, 4}) EXPECT_EQ(OPL_OK, kLockOperations[i].call());
  for (const int i : {1, 3, 5}) EXPECT_EQ(OPL_OK, kLockOperations[i].call());
}

TEST_F(MgmtLockLocks, MakeASecondProcessWait) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockRWLockLock());
  Child child([](Steps& steps) {
    ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockRWLockLock());
    steps.Reach();
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockRWLockUnlock());
  });
  while (opltest::WaitersOf(set_, 2) == 0) (void)::sched_yield();
  EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockRWLockUnlock());
  child.Await();
  child.ExpectSuccess();
}

TEST_F(MgmtLockLocks, EndTheWaitWhenTheSetIsRemoved) {
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockSharedMemLock());
  Child child([this](Steps&) {
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockSharedMemLock());
    EXPECT_EQ(Failure(EIDRM, Removed("SemaphoreLock")), LastFailure());
  });
  while (opltest::WaitersOf(set_, 1) == 0) (void)::sched_yield();
  opltest::RemoveSet(set_);
  child.ExpectSuccess();
}

TEST_F(MgmtLockLocks, KeepACountThatProcessesRaise) {
  constexpr int kChildren = 4;
  constexpr int kRounds = 300;
  void* const memory =
      ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, memory);
  volatile int* const count = static_cast<int*>(memory);
  for (const int lock : {0, 2, 4}) {
    *count = 0;
    std::unique_ptr<Child> children[kChildren];
    for (auto& child : children) {
      child = std::make_unique<Child>([&](Steps&) {
        for (int round = 0; round < kRounds; ++round) {
          ASSERT_EQ(OPL_OK, kLockOperations[lock].call());
          const int seen = *count;
          if (round % 16 == 0) (void)::sched_yield();
          *count = seen + 1;
          ASSERT_EQ(OPL_OK, kLockOperations[lock + 1].call());
        }
      });
    }
    for (auto& child : children) child->ExpectSuccess();
    EXPECT_EQ(kChildren * kRounds, *count);
  }
  (void)::munmap(memory, sizeof(int));
}

TEST_F(MgmtLockLocks, RepeatAnInterruptedOperation) {
  for (const Operation& operation : kLockOperations) {
    const Fault fault("semop", 1, EINTR);
    EXPECT_EQ(OPL_OK, operation.call());
    EXPECT_EQ(2, fault.Calls());
  }
  EXPECT_EQ((Values{32000, 1, 1, 1}), opltest::ValuesOf(set_));
}

TEST_F(MgmtLockLocks, FindTheSetRemoved) {
  opltest::RemoveSet(set_);
  for (const Operation& operation : kLockOperations) {
    EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, operation.call());
    EXPECT_EQ(Failure(EINVAL, Removed(operation.name)), LastFailure());
  }
}

TEST_F(MgmtLockLocks, TellOfAnyOtherFailure) {
  for (const Operation& operation : kLockOperations) {
    const Fault fault("semop", 1, ENOSPC);
    EXPECT_EQ(OPL_PRIVATE_E_SEMOP, operation.call());
    EXPECT_EQ(Failure(ENOSPC, SemopFailure(operation.name, "28,No space left on device")), LastFailure());
  }
}

// The library's begin, in a process that has not begun it yet.

void BeginAndEndWithANewSet(int before) {
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_NE(before, IdIn(ManagementFile()));
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_FALSE(std::filesystem::exists(ManagementFile()));
}

void BeginAndTakeExclusiveUse() {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLRelease());
  ASSERT_EQ(OPL_OK, OPL_PrivateMgmtLockQVOPLExclusive());
}

TEST(MgmtLockAtBegin, ReplacesASetWhoseRemoverWasKilled) {
  Child remover([](Steps& steps) {
    BeginAndTakeExclusiveUse();
    steps.Reach();
    steps.WaitForGo();
  });
  remover.Await();
  remover.Kill();
  remover.ExpectKilledBy(SIGKILL);
  ASSERT_EQ((Values{0, 1, 1, 1}), ManagementValues());
  BeginAndEndWithANewSet(IdIn(ManagementFile()));
}

TEST(MgmtLockAtBegin, ReplacesASetWhoseRemoverIsAZombie) {
  Child remover([](Steps&) { BeginAndTakeExclusiveUse(); });
  siginfo_t ended{};
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(remover.pid()), &ended, WEXITED | WNOWAIT));
  BeginAndEndWithANewSet(IdIn(ManagementFile()));
  remover.ExpectSuccess();
}

TEST(MgmtLockAtBegin, WaitsUntilALivingRemoverHasRemovedTheSet) {
  Child remover([](Steps& steps) {
    BeginAndTakeExclusiveUse();
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_OK, OPL_PrivateMgmtLockDestroy());
  });
  remover.Await();
  const int removed = IdIn(ManagementFile());
  const Fault fault("semtimedop", 2, [&] {
    EXPECT_TRUE(opltest::SetExists(removed));
    remover.Go();
    remover.ExpectSuccess();
  });
  BeginAndEndWithANewSet(removed);
  EXPECT_TRUE(fault.Fired());
}

TEST(MgmtLockAtBegin, LooksAgainForARemoverThatDiesWhateverSignalsCome) {
  Child remover([](Steps& steps) {
    BeginAndTakeExclusiveUse();
    steps.Reach();
    steps.WaitForGo();
  });
  remover.Await();
  const Fault fault("semtimedop", 1, [&] {
    remover.Kill();
    remover.ExpectKilledBy(SIGKILL);
  });
  opltest::SignalStream signals;
  signals.Start();
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  signals.Stop();
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(MgmtLockAtBegin, TakesASetThatIsUsableAgain) {
  Child remover([](Steps& steps) {
    BeginAndTakeExclusiveUse();
    steps.Reach();
    steps.WaitForGo();
  });
  remover.Await();
  const int set = IdIn(ManagementFile());
  const Fault fault("semtimedop", 1, [&] { opltest::SetValue(set, 0, OPL_PRIVATE_USE_COUNT_LIMIT); });
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(set, IdIn(ManagementFile()));
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(MgmtLockAtBegin, JoinsTheSetOfAProcessThatWasQuicker) {
  Child slower([](Steps& steps) {
    const Fault fault("link", 1, [&] {
      steps.Reach();
      steps.WaitForGo();
    });
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ((Values{31998, 1, 1, 1}), ManagementValues());
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  slower.Await();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  slower.Go();
  slower.ExpectSuccess();
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

// Each time another process has been quicker, and its lock is gone again.
TEST(MgmtLockAtBegin, GoesOnWithoutALockAfterSixtyAttempts) {
  {
    const Fault fault("link", 1, EEXIST, Fault::kForGood);
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(60, fault.Calls());
  }
  EXPECT_EQ(std::set<std::string>(), opltest::SystemVObjects());
  EXPECT_EQ(OPL_PRIVATE_E_MGMT_MISSING, OPL_PrivateMgmtLockSyncMutexLock());
  EXPECT_EQ(NotAllocated("SemaphoreLock"), LastFailure());
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(MgmtLockAtBegin, ReplacesAStaleFile) {
  opltest::WriteFile(ManagementFile(), BytesOf(-1));
  BeginAndEndWithANewSet(-1);
}

TEST(MgmtLockAtBegin, PassesOnAFileThatHoldsNoId) {
  opltest::WriteFile(ManagementFile(), "abc");
  EXPECT_EQ(OPL_PRIVATE_E_READ, OPL_InitBegin(0));
  EXPECT_EQ("abc", opltest::ContentsOf(ManagementFile()));
  EXPECT_EQ(0, ::unlink(ManagementFile().c_str()));
}

void ExpectBeginToFail(const std::string& directory, const Failure& failure) {
  ASSERT_EQ(0, ::setenv("QVOPL_IPC_PATH", directory.c_str(), 1));
  const std::set<std::string> before = opltest::SystemVObjects();
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, OPL_InitBegin(0));
  EXPECT_EQ(failure, LastFailure());
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_InitIsStopped(0));
  EXPECT_EQ(before, opltest::SystemVObjects());
}

std::string OpenError(const std::string& directory, const std::string& what) {
  const std::string file = directory + "/QVOPL.mgmt." + opltest::InstanceString() + ".006.021";
  char pid[16];
  std::snprintf(pid, sizeof pid, ".%x", static_cast<unsigned>(::getpid()));
  return "OPL_PrivateSemIdCreate: open error :" + what + "\nFile " + file + pid;
}

TEST(MgmtLockAtBegin, FailsWithoutTheIpcDirectory) {
  const std::string directory = opltest::WorkDirectory() + "/missing";
  ExpectBeginToFail(directory, {ENOENT, OpenError(directory, "2,No such file or directory")});
}

TEST(MgmtLockAtBegin, FailsWhereTheIpcDirectoryIsAFile) {
  const std::string file = opltest::WorkDirectory() + "/file";
  opltest::WriteFile(file, "text");
  ExpectBeginToFail(file, NotAllocated("OPL_PrivateMgmtLockDestroy"));
  EXPECT_EQ("text", opltest::ContentsOf(file));
}

TEST(MgmtLockAtBegin, FailsWhereTheIpcDirectoryMayNotBeWritten) {
  const std::string directory = opltest::WorkDirectory() + "/readonly";
  ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
  if (opltest::IsRoot()) {
    opltest::LetOtherUsersIn();
    opltest::BecomeOtherUser();
  } else {
    ASSERT_EQ(0, ::chmod(directory.c_str(), 0555));
  }
  ExpectBeginToFail(directory, {EACCES, OpenError(directory, "13,Permission denied")});
}

TEST(MgmtLockAtBegin, FailsWhereTheIpcDirectorysNameLeavesNoRoom) {
  std::string directory = opltest::WorkDirectory();
  while (directory.size() < 4090) directory += "/.";
  directory.resize(4090);
  ExpectBeginToFail(directory, NotAllocated("OPL_PrivateMgmtLockDestroy"));
}

TEST(MgmtLockAtEnd, GivesExclusiveUseBackWhenTheRemovalFails) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  {
    const Fault fault("semctl", 1, EPERM, Fault::kForGood);
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ((Values{32000, 1, 1, 1}), ManagementValues());
  opltest::RemoveSet(IdIn(ManagementFile()));
  EXPECT_EQ(0, ::unlink(ManagementFile().c_str()));
}

TEST(MgmtLockAtEnd, LeavesTheSetToThoseWhoStillUseIt) {
  Child other([](Steps& steps) {
    ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  other.Await();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
  other.Go();
  other.ExpectSuccess();
  EXPECT_FALSE(std::filesystem::exists(ManagementFile()));
}

}  // namespace
