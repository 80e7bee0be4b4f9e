// Semaphore sets and the object files that name them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Limit.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"

namespace {

using opltest::BytesOf;
using opltest::Child;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::LastFailure;
using opltest::Limit;
using opltest::Steps;
using opltest::Values;

std::string InHex(unsigned number) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", number);
  return text;
}

class PrivateSemId : public opltest::Instance {
 protected:
  const std::string file_ = opltest::IpcDirectory() + "/object";
  const uint16_t values_[3] = {7, 0, 32000};
  int32_t id_ = -7;

  OPL_Result Create(uint32_t fileMode = 0600, uint32_t semMode = 0600) {
    return OPL_PrivateSemIdCreate(file_.c_str(), fileMode, semMode, 3, values_, &id_);
  }
  OPL_Result Get() { return OPL_PrivateSemIdGet(file_.c_str(), &id_); }
  OPL_Result Destroy() { return OPL_PrivateSemIdDestroy(file_.c_str()); }

  // What the n-th temporary name of this process is.
  std::string Temporary(unsigned n) const {
    return file_ + "." + InHex(static_cast<unsigned>(::getpid())) + "." + InHex(n);
  }
  std::string Message(const std::string& function, const std::string& what) const {
    return function + ": " + what + "\nFile " + file_;
  }
};

class PrivateSemIdCreate : public PrivateSemId {};
class PrivateSemIdGet : public PrivateSemId {};
class PrivateSemIdDestroy : public PrivateSemId {};

TEST_F(PrivateSemIdCreate, MakesASetWithItsInitialValues) {
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ((Values{7, 0, 32000}), opltest::ValuesOf(id_));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, RecordsTheIdInFourBytes) {
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(BytesOf(id_), opltest::ContentsOf(file_));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, GivesTheFileItsModeUnderAnyMask) {
  for (const mode_t mask : {0000, 0022, 0077, 0777}) {
    for (const mode_t mode : {0600, 0666, 0640, 0400}) {
      SCOPED_TRACE(testing::Message() << std::oct << "mask " << mask << " mode " << mode);
      const mode_t before = ::umask(mask);
      const OPL_Result rc = Create(mode);
      (void)::umask(before);
      ASSERT_EQ(OPL_OK, rc);
      struct stat status {};
      ASSERT_EQ(0, ::stat(file_.c_str(), &status));
      EXPECT_EQ(S_IFREG | mode, status.st_mode);
      EXPECT_EQ(OPL_OK, Destroy());
    }
  }
}

TEST_F(PrivateSemIdCreate, GivesTheSetItsMode) {
  for (const mode_t mode : {0600, 0666, 0640}) {
    ASSERT_EQ(OPL_OK, Create(0600, mode));
    EXPECT_EQ(mode, opltest::PermissionsOfSet(id_).mode & 0777);
    EXPECT_EQ(OPL_OK, Destroy());
  }
}

TEST_F(PrivateSemIdCreate, MakesEachSetWithThePrivateKey) {
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(IPC_PRIVATE, opltest::PermissionsOfSet(id_).__key);
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, LeavesOneFileWithOneNameAndNoDescriptor) {
  Footprint expected = Footprint::Now();
  ASSERT_EQ(OPL_OK, Create());
  expected.items.insert("file " + file_);
  expected.items.insert("sem " + std::to_string(id_));
  EXPECT_EQ(expected, Footprint::Now());
  struct stat status {};
  ASSERT_EQ(0, ::stat(file_.c_str(), &status));
  EXPECT_EQ(1u, status.st_nlink);
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, LeavesAnExistingFileAndItsSetUntouched) {
  ASSERT_EQ(OPL_OK, Create());
  const int32_t existing = id_;
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_PRIVATE_E_SEM_EXISTS, Create());
  EXPECT_EQ(Failure(0x05120A, "OPL_PrivateSemIdCreate: IPC file (" + file_ +
                                  ") already exists. Semaphore already created."),
            LastFailure());
  EXPECT_EQ(-1, id_);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(BytesOf(existing), opltest::ContentsOf(file_));
  EXPECT_EQ((Values{7, 0, 32000}), opltest::ValuesOf(existing));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, IsRefusedByADanglingLinkOfThatName) {
  ASSERT_EQ(0, ::symlink("nowhere", file_.c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_SEM_EXISTS, Create());
  EXPECT_FALSE(std::filesystem::exists(opltest::IpcDirectory() + "/nowhere"));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateSemIdCreate, ShowsTheFileUnderItsNameOnlyWhole) {
  std::string contents;
  const Fault fault("link", 1, [&] {
    EXPECT_NE(0, ::access(file_.c_str(), F_OK));
    contents = opltest::ContentsOf(Temporary(1));
  });
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(BytesOf(id_), contents);
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, NamesItsTemporaryFilesAfterProcessAndSequence) {
  for (const unsigned n : {1u, 2u, 3u}) {
    const Fault fault("link", 1, [&] { EXPECT_EQ(0, ::access(Temporary(n).c_str(), F_OK)); });
    ASSERT_EQ(OPL_OK, Create());
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(OPL_OK, Destroy());
  }
}

TEST_F(PrivateSemIdCreate, GivesWayToAFileThatAppearsMeanwhile) {
  const Footprint before = Footprint::Now();
  const Fault fault("link", 1, [&] { opltest::WriteFile(file_, "mine"); });
  EXPECT_EQ(OPL_PRIVATE_E_SEM_EXISTS, Create());
  EXPECT_EQ("mine", opltest::ContentsOf(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  EXPECT_EQ(before, Footprint::Now());
}

// As where the answer to a first attempt was lost on its way.
TEST_F(PrivateSemIdCreate, TakesANameThatItsFileHasForItsOwnWhateverLinkSays) {
  const Fault fault(
      "link", 1, [&] { ASSERT_EQ(0, ::linkat(AT_FDCWD, Temporary(1).c_str(), AT_FDCWD, file_.c_str(), 0)); });
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(BytesOf(id_), opltest::ContentsOf(file_));
  EXPECT_EQ((Values{7, 0, 32000}), opltest::ValuesOf(id_));
  EXPECT_FALSE(std::filesystem::exists(Temporary(1)));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, ReplacesALeftoverOfItsProcessIdWithTheUnusedSet) {
  const int leftover = opltest::MakeSet({1});
  opltest::WriteFile(Temporary(1), BytesOf(leftover));
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_FALSE(opltest::SetExists(leftover));
  EXPECT_FALSE(std::filesystem::exists(Temporary(1)));
  EXPECT_EQ(BytesOf(id_), opltest::ContentsOf(file_));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, KeepsTheSetOfALeftoverThatWasPublished) {
  const int published = opltest::MakeSet({1});
  opltest::WriteFile(Temporary(1), BytesOf(published));
  const std::string name = opltest::IpcDirectory() + "/published";
  ASSERT_EQ(0, ::link(Temporary(1).c_str(), name.c_str()));
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ((Values{1}), opltest::ValuesOf(published));
  EXPECT_EQ(BytesOf(published), opltest::ContentsOf(name));
  EXPECT_FALSE(std::filesystem::exists(Temporary(1)));
  EXPECT_EQ(OPL_OK, OPL_PrivateSemIdDestroy(name.c_str()));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, KeepsTheSetOfALeftoverThatWasUsed) {
  const int used = opltest::MakeSet({32000});
  ASSERT_EQ(OPL_OK, OPL_PrivateUseCountAccess(used, 0));
  opltest::WriteFile(Temporary(1), BytesOf(used));
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_TRUE(opltest::SetExists(used));
  opltest::RemoveSet(used);
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, ReplacesALeftoverThatNamesNoSet) {
  for (const char* contents : {"", "abc"}) {
    static unsigned n = 0;
    opltest::WriteFile(Temporary(++n), contents);
    ASSERT_EQ(OPL_OK, Create());
    EXPECT_EQ(OPL_OK, Destroy());
  }
}

TEST_F(PrivateSemIdCreate, ReplacesALeftoverThatIsALink) {
  const std::string target = opltest::IpcDirectory() + "/target";
  opltest::WriteFile(target, "safe");
  ASSERT_EQ(0, ::symlink(target.c_str(), Temporary(1).c_str()));
  EXPECT_EQ(OPL_OK, Create());
  EXPECT_EQ("safe", opltest::ContentsOf(target));
  EXPECT_EQ(BytesOf(id_), opltest::ContentsOf(file_));
  EXPECT_FALSE(std::filesystem::is_symlink(Temporary(1)));
  EXPECT_EQ(OPL_OK, Destroy());
  EXPECT_EQ(0, ::unlink(target.c_str()));
}

TEST_F(PrivateSemIdCreate, GoesPastALeftoverThatItCannotRemove) {
  ASSERT_EQ(0, ::mkdir(Temporary(1).c_str(), 0700));
  EXPECT_EQ(OPL_OK, Create());
  EXPECT_EQ(OPL_OK, Destroy());
  EXPECT_EQ(0, ::rmdir(Temporary(1).c_str()));
}

struct Refusal {
  const char* call;
  int error;
  int code;
  const char* what;
};

TEST_F(PrivateSemIdCreate, LeavesNothingBehindWhicheverCallFails) {
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied\nFile "},
      {"fchmod", EPERM, OPL_PRIVATE_E_FCHMOD, "fchmod(384) error :1,Operation not permitted\nFile "},
      {"semget", ENOSPC, OPL_PRIVATE_E_SEMGET, "semget error: 28,No space left on device"},
      {"semctl", ERANGE, OPL_PRIVATE_E_SEMCTL, "semctl error (id ID): 34,Numerical result out of range"},
      {"write", ENOSPC, OPL_PRIVATE_E_WRITE, "write error :28,No space left on device\nFile "},
      {"close", EIO, OPL_PRIVATE_E_CLOSE, "close error :5,Input/output error\nFile "},
      {"link", EMLINK, OPL_PRIVATE_E_OPEN, "open error :31,Too many links\nFile "},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Footprint before = Footprint::Now();
    {
      const Fault fault(refusal.call, 1, refusal.error);
      EXPECT_EQ(static_cast<OPL_Result>(refusal.code), Create());
      EXPECT_TRUE(fault.Fired());
    }
    EXPECT_EQ(-1, id_);
    EXPECT_EQ(static_cast<uint32_t>(refusal.error), OPL_ErrCodeGet(0));
    std::string message = std::string("OPL_PrivateSemIdCreate: ") + refusal.what;
    if (message.ends_with("File ")) message += file_;
    std::string recorded = OPL_ErrMessageGet(0);
    if (const size_t id = message.find("ID"); id != std::string::npos && recorded.size() > id)
      recorded.replace(id, recorded.find(')', id) - id, "ID");
    EXPECT_EQ(message, recorded);
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST_F(PrivateSemIdCreate, RefusesAShortWrite) {
  const Footprint before = Footprint::Now();
  OPL_Result rc = OPL_OK;
  {
    const Limit twoBytes(RLIMIT_FSIZE, 2);
    rc = Create();
  }
  EXPECT_EQ(OPL_PRIVATE_E_WRITE, rc);
  EXPECT_EQ(Failure(0x051204, Message("OPL_PrivateSemIdCreate", "write error - not enough data written")),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(PrivateSemIdCreate, RepeatsAnInterruptedWrite) {
  const Fault fault("write", 1, EINTR);
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(2, fault.Calls());
  EXPECT_EQ(BytesOf(id_), opltest::ContentsOf(file_));
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, PassesOverTimesThatCannotBeSet) {
  const Fault fault("futimens", 1, EPERM);
  EXPECT_EQ(OPL_OK, Create());
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdCreate, RefusesValuesThatNoSemaphoreTakes) {
  const uint16_t tooMuch[] = {40000};
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_PRIVATE_E_SEMCTL, OPL_PrivateSemIdCreate(file_.c_str(), 0600, 0600, 1, tooMuch, &id_));
  EXPECT_EQ(static_cast<uint32_t>(ERANGE), OPL_ErrCodeGet(0));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(PrivateSemIdCreate, RefusesASetOfNone) {
  EXPECT_EQ(OPL_PRIVATE_E_SEMGET, OPL_PrivateSemIdCreate(file_.c_str(), 0600, 0600, 0, values_, &id_));
  EXPECT_EQ(Failure(EINVAL, "OPL_PrivateSemIdCreate: semget error: 22,Invalid argument"), LastFailure());
}

TEST_F(PrivateSemIdCreate, FailsWhenNoDescriptorIsLeft) {
  const Footprint before = Footprint::Now();
  OPL_Result rc = OPL_OK;
  {
    const Limit none(RLIMIT_NOFILE, 3);
    rc = Create();
  }
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, rc);
  EXPECT_EQ(Failure(EMFILE, Message("OPL_PrivateSemIdCreate", "open error :24,Too many open files")),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(PrivateSemIdCreate, FailsWithoutADirectory) {
  const std::string file = opltest::IpcDirectory() + "/missing/object";
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 3, values_, &id_));
  EXPECT_EQ(Failure(ENOENT, "OPL_PrivateSemIdCreate: open error :2,No such file or directory\nFile " + file),
            LastFailure());
}

TEST_F(PrivateSemIdCreate, FailsWhereTheDirectoryIsAFile) {
  opltest::WriteFile(file_, "");
  const std::string file = file_ + "/object";
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 3, values_, &id_));
  EXPECT_EQ(static_cast<uint32_t>(ENOTDIR), OPL_ErrCodeGet(0));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateSemIdCreate, NeverCutsANameThatIsTooLong) {
  const Footprint before = Footprint::Now();
  for (const size_t length : {4090u, 4095u, 4096u, 4400u, 9000u}) {
    SCOPED_TRACE(length);
    std::string file = opltest::IpcDirectory();
    while (file.size() < length) file += "/.";
    file.resize(length - 2);
    file += "/x";
    EXPECT_EQ(OPL_PRIVATE_E_OPEN, OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 3, values_, &id_));
    EXPECT_EQ(static_cast<uint32_t>(ENAMETOOLONG), OPL_ErrCodeGet(0));
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST(PrivateSemIdCreateAtTheLimit, FailsAndLeavesNothing) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root lowers the limit";
  ASSERT_EQ(0, ::unshare(CLONE_NEWIPC));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  {
    std::ofstream limits("/proc/sys/kernel/sem");
    limits << "250 32000 32 1" << std::flush;
    if (!limits.good()) {
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
      GTEST_SKIP() << "the system does not let the limit be lowered";
    }
  }
  const Footprint before = Footprint::Now();
  const uint16_t values[] = {1};
  int32_t id = 0;
  const std::string file = opltest::IpcDirectory() + "/object";
  EXPECT_EQ(OPL_PRIVATE_E_SEMGET, OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 1, values, &id));
  EXPECT_EQ(Failure(ENOSPC, "OPL_PrivateSemIdCreate: semget error: 28,No space left on device"),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST_F(PrivateSemIdGet, FindsTheSet) {
  ASSERT_EQ(OPL_OK, Create());
  const int32_t made = id_;
  id_ = -7;
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_OK, Get());
  EXPECT_EQ(made, id_);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdGet, SpeaksOfSharedMemoryWhenTheFileIsMissing) {
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
  EXPECT_EQ(
      Failure(0x05120B, "OPL_PrivateSemIdGet: IPC file " + file_ + " not found. Shared mem does not exists."),
      LastFailure());
  EXPECT_EQ(-7, id_);
}

TEST_F(PrivateSemIdGet, RemovesAFileWhoseSetIsGone) {
  ASSERT_EQ(OPL_OK, Create());
  const int32_t made = id_;
  opltest::RemoveSet(made);
  id_ = -7;
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
  EXPECT_EQ(Failure(0x05120B, "OPL_PrivateSemIdGet: System semaphore " + std::to_string(made) +
                                  " does not exists (file " + file_ + ")"),
            LastFailure());
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_EQ(-7, id_);
}

TEST_F(PrivateSemIdGet, RemovesAFileThatNamesNoPossibleSet) {
  for (const int32_t id : {-1, INT32_MIN, INT32_MAX}) {
    SCOPED_TRACE(id);
    opltest::WriteFile(file_, BytesOf(id));
    EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
    EXPECT_FALSE(std::filesystem::exists(file_));
  }
}

TEST_F(PrivateSemIdGet, RefusesAFileOfLessThanFourBytes) {
  for (const char* contents : {"", "abc"}) {
    opltest::WriteFile(file_, contents);
    EXPECT_EQ(OPL_PRIVATE_E_READ, Get());
    EXPECT_EQ(Failure(0x051205, Message("OPL_PrivateSemIdGet", "read error - Not enough data read")),
              LastFailure());
    EXPECT_EQ(contents, opltest::ContentsOf(file_));
    EXPECT_EQ(0, ::unlink(file_.c_str()));
  }
}

TEST_F(PrivateSemIdGet, ReadsNoMoreThanFourBytes) {
  const int set = opltest::MakeSet({5});
  for (const size_t size : {5u, 4096u}) {
    std::string contents = BytesOf(set);
    contents.resize(size, 'x');
    opltest::WriteFile(file_, contents);
    EXPECT_EQ(OPL_OK, Get());
    EXPECT_EQ(set, id_);
  }
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdGet, FollowsNoLink) {
  const std::string target = opltest::IpcDirectory() + "/target";
  const int set = opltest::MakeSet({5});
  opltest::WriteFile(target, BytesOf(set));
  ASSERT_EQ(0, ::symlink(target.c_str(), file_.c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, Get());
  EXPECT_EQ(
      Failure(ELOOP, Message("OPL_PrivateSemIdGet", "open error :40,Too many levels of symbolic links")),
      LastFailure());
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  EXPECT_EQ(OPL_OK, OPL_PrivateSemIdDestroy(target.c_str()));
}

TEST_F(PrivateSemIdGet, WaitsForNoWriterOfAFifo) {
  ASSERT_EQ(0, ::mkfifo(file_.c_str(), 0600));
  EXPECT_EQ(OPL_PRIVATE_E_READ, Get());
  const int writer = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(OPL_PRIVATE_E_READ, Get());
  EXPECT_EQ(static_cast<uint32_t>(EAGAIN), OPL_ErrCodeGet(0));
  EXPECT_EQ(0, ::close(writer));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateSemIdGet, RefusesADirectory) {
  ASSERT_EQ(0, ::mkdir(file_.c_str(), 0700));
  EXPECT_EQ(OPL_PRIVATE_E_READ, Get());
  EXPECT_EQ(Failure(EISDIR, Message("OPL_PrivateSemIdGet", "read error :21,Is a directory")), LastFailure());
  EXPECT_EQ(0, ::rmdir(file_.c_str()));
}

TEST_F(PrivateSemIdGet, LeavesFileAndSetWhicheverCallFails) {
  ASSERT_EQ(OPL_OK, Create());
  const Footprint before = Footprint::Now();
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied"},
      {"read", EIO, OPL_PRIVATE_E_READ, "read error :5,Input/output error"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Fault fault(refusal.call, 1, refusal.error);
    id_ = -7;
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), Get());
    EXPECT_EQ(Failure(static_cast<uint32_t>(refusal.error), Message("OPL_PrivateSemIdGet", refusal.what)),
              LastFailure());
    EXPECT_EQ(-7, id_);
  }
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdGet, TellsOfACloseThatFails) {
  ASSERT_EQ(OPL_OK, Create());
  id_ = -7;
  const Fault fault("close", 1, EIO);
  EXPECT_EQ(OPL_PRIVATE_E_CLOSE, Get());
  EXPECT_EQ(Failure(EIO, Message("OPL_PrivateSemIdGet", "close error :5,Input/output error")), LastFailure());
  EXPECT_EQ(-7, id_);
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdGet, RepeatsAnInterruptedRead) {
  ASSERT_EQ(OPL_OK, Create());
  const Fault fault("read", 1, EINTR);
  EXPECT_EQ(OPL_OK, Get());
  EXPECT_EQ(2, fault.Calls());
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdGet, LeavesAFileThatTookTheStaleOnesNameMeanwhile) {
  const int gone = opltest::MakeSet({5});
  opltest::RemoveSet(gone);
  opltest::WriteFile(file_, BytesOf(gone));
  const std::string other = opltest::IpcDirectory() + "/other";
  opltest::WriteFile(other, "new!");
  const Fault fault("flock", 1, [&] { ASSERT_EQ(0, ::rename(other.c_str(), file_.c_str())); });
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ("new!", opltest::ContentsOf(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateSemIdGet, RemovesAStaleFileUnderItsLock) {
  opltest::WriteFile(file_, BytesOf(-1));
  bool locked = false;
  const Fault fault("unlink", 1, [&] {
    const int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
    locked = ::flock(fd, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    (void)::close(fd);
  });
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
  EXPECT_TRUE(locked);
}

TEST_F(PrivateSemIdGet, CountsAnotherOwnersSetAsGone) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root gives sets away";
  const int set = opltest::MakeSet({5});
  ASSERT_TRUE(opltest::GiveSetTo(set, opltest::kOtherUser));
  opltest::WriteFile(file_, BytesOf(set));
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_TRUE(opltest::SetExists(set));
  opltest::RemoveSet(set);
}

TEST_F(PrivateSemIdGet, LeavesAnotherOwnersFileThatDoesNotSpeakForItsSet) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root gives files away";
  const int set = opltest::MakeSet({5});
  opltest::WriteFile(file_, BytesOf(set));
  ASSERT_EQ(0, ::chown(file_.c_str(), opltest::kOtherUser, opltest::kOtherUser));
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
  EXPECT_TRUE(std::filesystem::exists(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  opltest::RemoveSet(set);
}

TEST_F(PrivateSemIdGet, LeavesASetThatItMayNotLookAt) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  ASSERT_EQ(OPL_OK, Create(0666));
  opltest::LetOtherUsersIn();
  Child child([&](Steps&) {
    opltest::BecomeOtherUser();
    EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Get());
    EXPECT_TRUE(std::filesystem::exists(file_));
  });
  child.ExpectSuccess();
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdGet, FindsAnotherUsersSetThatIsForAll) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  ASSERT_EQ(OPL_OK, Create(0666, 0666));
  const int32_t made = id_;
  opltest::LetOtherUsersIn();
  Child child([&](Steps&) {
    opltest::BecomeOtherUser();
    EXPECT_EQ(OPL_OK, Get());
    EXPECT_EQ(made, id_);
  });
  child.ExpectSuccess();
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdDestroy, RemovesSetAndFile) {
  const Footprint before = Footprint::Now();
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(OPL_OK, Destroy());
  EXPECT_FALSE(opltest::SetExists(id_));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(PrivateSemIdDestroy, IsRefusedWithoutAFile) {
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, Destroy());
  EXPECT_EQ(Failure(0x05120B, "OPL_PrivateSemIdDestroy: IPC file (" + file_ +
                                  ") not found. Semaphore does not exists."),
            LastFailure());
}

TEST_F(PrivateSemIdDestroy, RemovesAFileWhoseSetIsGone) {
  ASSERT_EQ(OPL_OK, Create());
  opltest::RemoveSet(id_);
  EXPECT_EQ(OPL_OK, Destroy());
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(PrivateSemIdDestroy, RemovesAFileThatNamesNoPossibleSet) {
  opltest::WriteFile(file_, BytesOf(-1));
  EXPECT_EQ(OPL_OK, Destroy());
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(PrivateSemIdDestroy, RefusesAFileOfLessThanFourBytes) {
  for (const char* contents : {"", "abc"}) {
    opltest::WriteFile(file_, contents);
    EXPECT_EQ(OPL_PRIVATE_E_READ, Destroy());
    EXPECT_EQ(Failure(0x051205, Message("OPL_PrivateSemIdDestroy", "read error - Not enough data read")),
              LastFailure());
    EXPECT_TRUE(std::filesystem::exists(file_));
  }
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateSemIdDestroy, FollowsNoLinkAndWaitsForNoFifo) {
  const std::string target = opltest::IpcDirectory() + "/target";
  ASSERT_EQ(OPL_OK, OPL_PrivateSemIdCreate(target.c_str(), 0600, 0600, 3, values_, &id_));
  ASSERT_EQ(0, ::symlink(target.c_str(), file_.c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, Destroy());
  EXPECT_EQ(static_cast<uint32_t>(ELOOP), OPL_ErrCodeGet(0));
  EXPECT_TRUE(opltest::SetExists(id_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  ASSERT_EQ(0, ::mkfifo(file_.c_str(), 0600));
  EXPECT_EQ(OPL_PRIVATE_E_READ, Destroy());
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  EXPECT_EQ(OPL_OK, OPL_PrivateSemIdDestroy(target.c_str()));
}

TEST_F(PrivateSemIdDestroy, LeavesFileAndSetWhicheverCallFails) {
  ASSERT_EQ(OPL_OK, Create());
  const Footprint before = Footprint::Now();
  const std::string id = std::to_string(id_);
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied\nFile "},
      {"read", EIO, OPL_PRIVATE_E_READ, "read error :5,Input/output error\nFile "},
      {"semctl", EPERM, OPL_PRIVATE_E_SEMCTL, "semctl(ID) error :1 (Operation not permitted)"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Fault fault(refusal.call, 1, refusal.error);
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), Destroy());
    std::string message = std::string("OPL_PrivateSemIdDestroy: ") + refusal.what;
    if (const size_t at = message.find("ID"); at != std::string::npos) message.replace(at, 2, id);
    if (message.ends_with("File ")) message += file_;
    EXPECT_EQ(Failure(static_cast<uint32_t>(refusal.error), message), LastFailure());
  }
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, Destroy());
}

TEST_F(PrivateSemIdDestroy, TellsOfACloseThatFails) {
  ASSERT_EQ(OPL_OK, Create());
  const Fault fault("close", 1, EIO);
  EXPECT_EQ(OPL_PRIVATE_E_CLOSE, Destroy());
  EXPECT_EQ(Failure(EIO, Message("OPL_PrivateSemIdDestroy", "close error :5,Input/output error")),
            LastFailure());
}

TEST_F(PrivateSemIdDestroy, LeavesAFileThatTookTheNameMeanwhile) {
  ASSERT_EQ(OPL_OK, Create());
  const std::string other = opltest::IpcDirectory() + "/other";
  opltest::WriteFile(other, "new!");
  const Fault fault("flock", 1, [&] { ASSERT_EQ(0, ::rename(other.c_str(), file_.c_str())); });
  EXPECT_EQ(OPL_OK, Destroy());
  EXPECT_FALSE(opltest::SetExists(id_));
  EXPECT_EQ("new!", opltest::ContentsOf(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateSemIdDestroy, RefusesAnotherOwnersSet) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root gives sets away";
  const int set = opltest::MakeSet({5});
  ASSERT_TRUE(opltest::GiveSetTo(set, opltest::kOtherUser));
  opltest::WriteFile(file_, BytesOf(set));
  EXPECT_EQ(OPL_PRIVATE_E_SEMCTL, Destroy());
  EXPECT_EQ(Failure(EPERM, "OPL_PrivateSemIdDestroy: semctl(" + std::to_string(set) +
                               ") error :1 (Operation not permitted)"),
            LastFailure());
  EXPECT_TRUE(opltest::SetExists(set));
  EXPECT_TRUE(std::filesystem::exists(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  opltest::RemoveSet(set);
}

TEST_F(PrivateSemIdDestroy, RefusesAFilesClaimOnRootsSet) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::LetOtherUsersIn();
  const int set = opltest::MakeSet({5});
  Child child([&](Steps&) {
    opltest::BecomeOtherUser();
    opltest::WriteFile(file_, BytesOf(set));
    EXPECT_EQ(OPL_PRIVATE_E_SEMCTL, Destroy());
    EXPECT_EQ(static_cast<uint32_t>(EPERM), OPL_ErrCodeGet(0));
    EXPECT_TRUE(std::filesystem::exists(file_));
  });
  child.ExpectSuccess();
  // Nor does root remove its set on the word of another user's file.
  EXPECT_EQ(OPL_PRIVATE_E_SEMCTL, Destroy());
  EXPECT_TRUE(opltest::SetExists(set));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  opltest::RemoveSet(set);
}

}  // namespace
