// Segments of shared memory and the object files that name them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

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
using opltest::IdIn;
using opltest::LastFailure;
using opltest::Steps;

constexpr size_t kSize = 5000;

struct Refusal {
  const char* call;
  int error;
  int code;
  const char* message;  // without the function's name; the file's name is added behind "File "
};

class PrivateShMem : public opltest::Instance {
 protected:
  const std::string file_ = opltest::IpcDirectory() + "/object";
  void* address_ = nullptr;

  OPL_Result Create(uint32_t fileMode = 0600, uint32_t shmMode = 0600) {
    return OPL_PrivateShMemCreate(file_.c_str(), fileMode, kSize, shmMode, &address_);
  }
  OPL_Result Open(void** address) { return OPL_PrivateShMemOpen(file_.c_str(), address); }
  OPL_Result Close(void* address) { return OPL_PrivateShMemClose(file_.c_str(), address, 0); }
  OPL_Result Remove(void* address) { return OPL_PrivateShMemClose(file_.c_str(), address, 1); }

  Failure Expected(const char* function, const Refusal& refusal) const {
    std::string message = std::string(function) + ": " + refusal.message;
    if (message.ends_with("File ")) message += file_;
    if (const size_t at = message.find("ID"); at != std::string::npos)
      message.replace(at, 2, std::to_string(IdIn(file_)));
    return {static_cast<uint32_t>(refusal.error), message};
  }
  std::string Message(const std::string& function, const std::string& what) const {
    return function + ": " + what + "\nFile " + file_;
  }
};

class PrivateShMemCreate : public PrivateShMem {};
class PrivateShMemOpen : public PrivateShMem {};
class PrivateShMemClose : public PrivateShMem {};

TEST_F(PrivateShMemCreate, MakesASegmentAndAttachesIt) {
  ASSERT_EQ(OPL_OK, Create());
  const int32_t id = IdIn(file_);
  EXPECT_EQ(kSize, opltest::SizeOfSegment(id));
  EXPECT_EQ(1, opltest::AttachedTo(id));
  std::memset(address_, 0x5A, kSize);
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, WritesOnePointerAndNothingBeyondIt) {
  void* place[2] = {nullptr, &place};
  ASSERT_EQ(OPL_OK, OPL_PrivateShMemCreate(file_.c_str(), 0600, kSize, 0600, place));
  EXPECT_NE(nullptr, place[0]);
  EXPECT_EQ(static_cast<void*>(&place), place[1]);
  EXPECT_EQ(OPL_OK, Remove(place[0]));
}

TEST_F(PrivateShMemCreate, GivesTheFileItsModeUnderAnyMask) {
  for (const mode_t mask : {0000, 0022, 0077, 0777}) {
    for (const mode_t mode : {0600, 0666}) {
      SCOPED_TRACE(testing::Message() << std::oct << "mask " << mask << " mode " << mode);
      const mode_t before = ::umask(mask);
      const OPL_Result rc = Create(mode, mode);
      (void)::umask(before);
      ASSERT_EQ(OPL_OK, rc);
      struct stat status {};
      ASSERT_EQ(0, ::stat(file_.c_str(), &status));
      EXPECT_EQ(S_IFREG | mode, status.st_mode);
      EXPECT_EQ(mode, opltest::PermissionsOfSegment(IdIn(file_)).mode & 0777u);
      EXPECT_EQ(OPL_OK, Remove(address_));
    }
  }
}

TEST_F(PrivateShMemCreate, LeavesAFileASegmentAndNothingElse) {
  Footprint expected = Footprint::Now();
  ASSERT_EQ(OPL_OK, Create());
  expected.items.insert("file " + file_);
  expected.items.insert("shm " + std::to_string(IdIn(file_)));
  EXPECT_EQ(expected, Footprint::Now());
  EXPECT_EQ(IPC_PRIVATE, opltest::PermissionsOfSegment(IdIn(file_)).__key);
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, LeavesAnExistingFileAndItsSegmentUntouched) {
  ASSERT_EQ(OPL_OK, Create());
  const int32_t id = IdIn(file_);
  const Footprint before = Footprint::Now();
  void* address = this;
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_EXISTS, OPL_PrivateShMemCreate(file_.c_str(), 0600, kSize, 0600, &address));
  EXPECT_EQ(Failure(0x051208, "OPL_PrivateShMemCreate: File " + file_ + " already exists"), LastFailure());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(id, IdIn(file_));
  EXPECT_EQ(1, opltest::AttachedTo(id));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, ShowsTheFileUnderItsNameOnlyWhole) {
  const Fault fault("link", 1, [&] { EXPECT_NE(0, ::access(file_.c_str(), F_OK)); });
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, GivesWayToAFileThatAppearsMeanwhile) {
  const Footprint before = Footprint::Now();
  const Fault fault("link", 1, [&] { opltest::WriteFile(file_, "mine"); });
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_EXISTS, Create());
  EXPECT_EQ("mine", opltest::ContentsOf(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  EXPECT_EQ(before, Footprint::Now());
}

std::string FirstTemporary(const std::string& file) {
  char text[32];
  std::snprintf(text, sizeof text, ".%x.1", static_cast<unsigned>(::getpid()));
  return file + text;
}

TEST_F(PrivateShMemCreate, ReplacesALeftoverOfItsProcessIdWithTheUnusedSegment) {
  const int leftover = opltest::MakeSegment(kSize);
  opltest::WriteFile(FirstTemporary(file_), BytesOf(leftover));
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_FALSE(opltest::SegmentExists(leftover));
  EXPECT_FALSE(std::filesystem::exists(FirstTemporary(file_)));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, KeepsTheSegmentOfALeftoverThatWasPublishedOrIsAttached) {
  const int segment = opltest::MakeSegment(kSize);
  const std::string name = opltest::IpcDirectory() + "/published";
  opltest::WriteFile(name, BytesOf(segment));
  ASSERT_EQ(0, ::link(name.c_str(), FirstTemporary(file_).c_str()));
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_TRUE(opltest::SegmentExists(segment));
  EXPECT_EQ(BytesOf(segment), opltest::ContentsOf(name));
  EXPECT_EQ(OPL_OK, OPL_PrivateShMemClose(name.c_str(), nullptr, 1));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, KeepsTheSegmentOfALeftoverThatIsAttached) {
  const int segment = opltest::MakeSegment(kSize);
  void* const attached = ::shmat(segment, nullptr, 0);
  opltest::WriteFile(FirstTemporary(file_), BytesOf(segment));
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_TRUE(opltest::SegmentExists(segment));
  EXPECT_EQ(0, ::shmdt(attached));
  opltest::RemoveSegment(segment);
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemCreate, LeavesNothingBehindWhicheverCallFails) {
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied\nFile "},
      {"fchmod", EPERM, OPL_PRIVATE_E_FCHMOD, "fchmod(384) error :1,Operation not permitted\nFile "},
      {"shmget", ENOSPC, OPL_PRIVATE_E_SHMGET,
       "shmget error :28,No space left on device. size:5000 mode:0x180"},
      {"write", ENOSPC, OPL_PRIVATE_E_WRITE, "write error :28,No space left on device\nFile "},
      {"shmat", ENOMEM, OPL_PRIVATE_E_SHM_ATTACH, "shmat error :12,Cannot allocate memory"},
      {"close", EIO, OPL_PRIVATE_E_CLOSE, "close error :5,Input/output error\nFile "},
      {"link", EMLINK, OPL_PRIVATE_E_OPEN, "open error :31,Too many links\nFile "},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Footprint before = Footprint::Now();
    const Fault fault(refusal.call, 1, refusal.error);
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), Create());
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(Expected("OPL_PrivateShMemCreate", refusal), LastFailure());
    EXPECT_EQ(nullptr, address_);
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST_F(PrivateShMemCreate, DetachesWhatItAttachedBeforeTheFailure) {
  const Fault fault("link", 1, EMLINK);
  const Fault detach("shmdt", 1, [] {});
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, Create());
  EXPECT_EQ(1, detach.Calls());
}

TEST_F(PrivateShMemCreate, RefusesAShortWrite) {
  const Footprint before = Footprint::Now();
  OPL_Result rc = OPL_OK;
  {
    const opltest::Limit threeBytes(RLIMIT_FSIZE, 3);
    rc = Create();
  }
  EXPECT_EQ(OPL_PRIVATE_E_WRITE, rc);
  EXPECT_EQ(Failure(0x051204, Message("OPL_PrivateShMemCreate", "write error - not enough data written")),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(PrivateShMemCreate, RefusesASegmentOfNoBytes) {
  EXPECT_EQ(OPL_PRIVATE_E_SHMGET, OPL_PrivateShMemCreate(file_.c_str(), 0600, 0, 0600, &address_));
  EXPECT_EQ(Failure(EINVAL, "OPL_PrivateShMemCreate: shmget error :22,Invalid argument. size:0 mode:0x180"),
            LastFailure());
}

TEST_F(PrivateShMemOpen, AttachesTheSameMemory) {
  ASSERT_EQ(OPL_OK, Create());
  void* second = nullptr;
  ASSERT_EQ(OPL_OK, Open(&second));
  EXPECT_NE(address_, second);
  EXPECT_EQ(2, opltest::AttachedTo(IdIn(file_)));
  std::strcpy(static_cast<char*>(address_), "seen by both");
  EXPECT_STREQ("seen by both", static_cast<char*>(second));
  EXPECT_EQ(OPL_OK, Close(second));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemOpen, SharesMemoryBetweenProcesses) {
  ASSERT_EQ(OPL_OK, Create());
  Child child([&](Steps&) {
    void* address = nullptr;
    ASSERT_EQ(OPL_OK, Open(&address));
    std::strcpy(static_cast<char*>(address), "from the child");
    EXPECT_EQ(OPL_OK, Close(address));
  });
  child.ExpectSuccess();
  EXPECT_STREQ("from the child", static_cast<char*>(address_));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemOpen, WritesOnePointerAndNothingBeyondIt) {
  ASSERT_EQ(OPL_OK, Create());
  void* place[2] = {nullptr, &place};
  ASSERT_EQ(OPL_OK, Open(place));
  EXPECT_EQ(static_cast<void*>(&place), place[1]);
  EXPECT_EQ(OPL_OK, Close(place[0]));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemOpen, IsRefusedWithoutAFile) {
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_MISSING, Open(&address_));
  EXPECT_EQ(
      Failure(0x051209, "OPL_PrivateShMemOpen: IPC file (" + file_ + ") not found. Sharedmem do not exist"),
      LastFailure());
}

TEST_F(PrivateShMemOpen, RemovesAFileWhoseSegmentIsGone) {
  ASSERT_EQ(OPL_OK, Create());
  opltest::RemoveSegment(IdIn(file_));
  ASSERT_EQ(0, ::shmdt(address_));
  address_ = nullptr;
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_MISSING, Open(&address_));
  EXPECT_EQ(Failure(0x051209, "OPL_PrivateShMemOpen: SharedMemory does not exists"), LastFailure());
  EXPECT_EQ(nullptr, address_);
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(PrivateShMemOpen, LeavesAFileThatTookTheStaleOnesNameMeanwhile) {
  opltest::WriteFile(file_, BytesOf(-1));
  const std::string other = opltest::IpcDirectory() + "/other";
  opltest::WriteFile(other, "new!");
  const Fault fault("flock", 1, [&] { ASSERT_EQ(0, ::rename(other.c_str(), file_.c_str())); });
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_MISSING, Open(&address_));
  EXPECT_EQ("new!", opltest::ContentsOf(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateShMemOpen, RefusesAFileOfLessThanFourBytes) {
  for (const char* contents : {"", "abc"}) {
    opltest::WriteFile(file_, contents);
    EXPECT_EQ(OPL_PRIVATE_E_READ, Open(&address_));
    EXPECT_EQ(Failure(0x051205, Message("OPL_PrivateShMemOpen", "read error - Not enough data read")),
              LastFailure());
  }
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateShMemOpen, ReadsNoMoreThanFourBytes) {
  ASSERT_EQ(OPL_OK, Create());
  opltest::WriteFile(file_, BytesOf(IdIn(file_)) + std::string(4092, 'x'));
  void* second = nullptr;
  ASSERT_EQ(OPL_OK, Open(&second));
  EXPECT_EQ(OPL_OK, Close(second));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemOpen, FollowsNoLinkWaitsForNoFifoAndRefusesADirectory) {
  ASSERT_EQ(0, ::symlink("elsewhere", file_.c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, Open(&address_));
  EXPECT_EQ(
      Failure(ELOOP, Message("OPL_PrivateShMemOpen", "open error :40,Too many levels of symbolic links")),
      LastFailure());
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  ASSERT_EQ(0, ::mkfifo(file_.c_str(), 0600));
  EXPECT_EQ(OPL_PRIVATE_E_READ, Open(&address_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  ASSERT_EQ(0, ::mkdir(file_.c_str(), 0700));
  EXPECT_EQ(OPL_PRIVATE_E_READ, Open(&address_));
  EXPECT_EQ(Failure(EISDIR, Message("OPL_PrivateShMemOpen", "read error :21,Is a directory")), LastFailure());
  EXPECT_EQ(0, ::rmdir(file_.c_str()));
}

TEST_F(PrivateShMemOpen, LeavesNothingBehindWhicheverCallFails) {
  ASSERT_EQ(OPL_OK, Create());
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied\nFile "},
      {"read", EIO, OPL_PRIVATE_E_READ, "read error :5,Input/output error\nFile "},
      {"shmat", ENOMEM, OPL_PRIVATE_E_SHM_ATTACH, "shmat error :12,Cannot allocate memory"},
      {"close", EIO, OPL_PRIVATE_E_CLOSE, "close error :5,Input/output error\nFile "},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Footprint before = Footprint::Now();
    const Fault fault(refusal.call, 1, refusal.error);
    void* address = nullptr;
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), Open(&address));
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(Expected("OPL_PrivateShMemOpen", refusal), LastFailure());
    EXPECT_EQ(nullptr, address);
    EXPECT_EQ(1, opltest::AttachedTo(IdIn(file_)));
    EXPECT_EQ(before, Footprint::Now());
  }
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemClose, OnlyDetachesUnlessAskedToRemove) {
  ASSERT_EQ(OPL_OK, Create());
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_OK, Close(address_));
  EXPECT_EQ(0, opltest::AttachedTo(IdIn(file_)));
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(OPL_OK, Remove(nullptr));
}

TEST_F(PrivateShMemClose, RemovesSegmentAndFile) {
  const Footprint before = Footprint::Now();
  ASSERT_EQ(OPL_OK, Create());
  const int32_t id = IdIn(file_);
  EXPECT_EQ(OPL_OK, Remove(address_));
  EXPECT_FALSE(opltest::SegmentExists(id));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(PrivateShMemClose, TakesAnyOtherValueThan0AsRemove) {
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(OPL_OK, OPL_PrivateShMemClose(file_.c_str(), address_, 0x80000000u));
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(PrivateShMemClose, PassesOverAnAddressWhereNothingIsAttached) {
  ASSERT_EQ(OPL_OK, Create());
  EXPECT_EQ(OPL_OK, Close(address_));
  EXPECT_EQ(OPL_OK, Close(address_));
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemClose, PassesOverASegmentThatIsGone) {
  ASSERT_EQ(OPL_OK, Create());
  opltest::RemoveSegment(IdIn(file_));
  EXPECT_EQ(OPL_OK, Remove(address_));
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(PrivateShMemClose, IsRefusedWithoutAFileButDetaches) {
  ASSERT_EQ(OPL_OK, Create());
  const int32_t id = IdIn(file_);
  ASSERT_EQ(0, ::unlink(file_.c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_MISSING, Remove(address_));
  EXPECT_EQ(Failure(0x051209, "OPL_PrivateShMemClose: IPC file (" + file_ + ") not found"), LastFailure());
  EXPECT_EQ(0, opltest::AttachedTo(id));
  opltest::RemoveSegment(id);
}

TEST_F(PrivateShMemClose, RefusesAFileOfLessThanFourBytesAndALink) {
  opltest::WriteFile(file_, "abc");
  EXPECT_EQ(OPL_PRIVATE_E_READ, Remove(nullptr));
  EXPECT_EQ(Failure(0x051205, Message("OPL_PrivateShMemClose", "read error - Not enough data read")),
            LastFailure());
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  ASSERT_EQ(0, ::symlink("elsewhere", file_.c_str()));
  EXPECT_EQ(OPL_PRIVATE_E_OPEN, Remove(nullptr));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateShMemClose, TellsWhichCallFailed) {
  const Refusal refusals[] = {
      {"open64", EACCES, OPL_PRIVATE_E_OPEN, "open error :13,Permission denied\nFile "},
      {"read", EIO, OPL_PRIVATE_E_READ, "read error :5,Input/output error\nFile "},
      {"shmdt", EIO, OPL_PRIVATE_E_SHM_DETACH, "shmdt error :5 (Input/output error)"},
      {"shmctl", EPERM, OPL_PRIVATE_E_SHM_REMOVE, "shmctl(ID) error :1 (Operation not permitted)"},
  };
  ASSERT_EQ(OPL_OK, Create());
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.call);
    const Footprint before = Footprint::Now();
    const Fault fault(refusal.call, 1, refusal.error);
    EXPECT_EQ(static_cast<OPL_Result>(refusal.code), Remove(address_));
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(Expected("OPL_PrivateShMemClose", refusal), LastFailure());
    EXPECT_EQ(before, Footprint::Now());
  }
  EXPECT_EQ(OPL_OK, Remove(address_));
}

TEST_F(PrivateShMemClose, TellsOfACloseThatFails) {
  ASSERT_EQ(OPL_OK, Create());
  {
    const Fault fault("close", 1, EIO);
    EXPECT_EQ(OPL_PRIVATE_E_CLOSE, Close(address_));
    EXPECT_EQ(Failure(EIO, Message("OPL_PrivateShMemClose", "close error :5,Input/output error")),
              LastFailure());
  }
  EXPECT_EQ(OPL_OK, Remove(nullptr));
}

TEST_F(PrivateShMemClose, KeepsTheMessageOfTheFailureThatCameFirst) {
  const Fault fault("shmdt", 1, EIO);
  EXPECT_EQ(OPL_PRIVATE_E_SHMEM_MISSING, Close(this));
  EXPECT_EQ(Failure(0x051209, "OPL_PrivateShMemClose: IPC file (" + file_ + ") not found"), LastFailure());
}

TEST_F(PrivateShMemClose, LeavesAFileThatTookTheNameMeanwhile) {
  ASSERT_EQ(OPL_OK, Create());
  const std::string other = opltest::IpcDirectory() + "/other";
  opltest::WriteFile(other, "new!");
  const Fault fault("flock", 1, [&] { ASSERT_EQ(0, ::rename(other.c_str(), file_.c_str())); });
  EXPECT_EQ(OPL_OK, Remove(address_));
  EXPECT_EQ("new!", opltest::ContentsOf(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

TEST_F(PrivateShMemClose, RefusesToRemoveAnotherOwnersSegment) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root gives segments away";
  ASSERT_EQ(OPL_OK, Create());
  const int32_t id = IdIn(file_);
  ASSERT_TRUE(opltest::GiveSegmentTo(id, opltest::kOtherUser));
  EXPECT_EQ(OPL_PRIVATE_E_SHM_REMOVE, Remove(address_));
  EXPECT_EQ(Failure(EPERM, "OPL_PrivateShMemClose: shmctl(" + std::to_string(id) +
                               ") error :1 (Operation not permitted)"),
            LastFailure());
  EXPECT_TRUE(opltest::SegmentExists(id));
  EXPECT_TRUE(std::filesystem::exists(file_));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  opltest::RemoveSegment(id);
}

TEST_F(PrivateShMemClose, RefusesAFilesClaimOnRootsSegment) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::LetOtherUsersIn();
  const int segment = opltest::MakeSegment(kSize);
  Child child([&](Steps&) {
    opltest::BecomeOtherUser();
    opltest::WriteFile(file_, BytesOf(segment));
    EXPECT_EQ(OPL_PRIVATE_E_SHM_REMOVE, Remove(nullptr));
    EXPECT_EQ(static_cast<uint32_t>(EPERM), OPL_ErrCodeGet(0));
  });
  child.ExpectSuccess();
  // Nor does root remove its segment on the word of another user's file.
  EXPECT_EQ(OPL_PRIVATE_E_SHM_REMOVE, Remove(nullptr));
  EXPECT_TRUE(opltest::SegmentExists(segment));
  EXPECT_EQ(0, ::unlink(file_.c_str()));
  opltest::RemoveSegment(segment);
}

}  // namespace
