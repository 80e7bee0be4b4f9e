// Registration of semaphore sets and message queues that a program made itself.
#include <glob.h>
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::Footprint;
using opltest::InstanceString;
using opltest::IpcDirectory;
using opltest::ObjectFiles;

// The two kinds, which differ in marker, codes and some texts.
struct Kind {
  const char* name;
  const char* marker;
  OPL_Result (*enter)(uint32_t, const char*, uint32_t);
  OPL_Result (*remove)(uint32_t, const char*, uint32_t);
  const char* enterName;
  const char* removeName;  // as the messages have it
  uint32_t already;
  uint32_t missing;
  uint32_t cannotEnter;
  uint32_t cannotRemove;
  const char* removalDetail;  // behind the message of an unexpected failure with EIO
  int (*make)();
  bool (*exists)(int);
  void (*destroy)(int);
  bool (*give)(int, uid_t);
};

int MakeQueue() { return ::msgget(IPC_PRIVATE, 0600); }

bool QueueExists(int id) {
  msqid_ds status{};
  return ::msgctl(id, IPC_STAT, &status) != -1;
}

void RemoveQueue(int id) { (void)::msgctl(id, IPC_RMID, nullptr); }

bool GiveQueueTo(int id, uid_t owner) {
  msqid_ds status{};
  if (::msgctl(id, IPC_STAT, &status) == -1) return false;
  status.msg_perm.uid = owner;
  return ::msgctl(id, IPC_SET, &status) != -1;
}

const Kind kKinds[] = {
    {"Sets", ".semnat.", OPL_SyncSemNativeRegisterIPC, OPL_SyncSemNativeDeRegisterIPC,
     "OPL_SyncSemNativeRegisterIPC", "OPL_SyncSemNativeDeRegisterIPC", 0x050061, 0x050062, 0x050063, 0x050064,
     "", [] { return opltest::MakeSet({1}); }, opltest::SetExists, opltest::RemoveSet, opltest::GiveSetTo},
    // Deregistration of queues reports under the registration's name.
    {"Queues", ".msgqnat.", OPL_MsgqNativeRegisterIPC, OPL_MsgqNativeDeRegisterIPC,
     "OPL_MsgqNativeRegisterIPC", "OPL_MsgqNativeRegisterIPC", 0x051102, 0x051103, 0x051104, 0x051105,
     " (error 5,Input/output error)", MakeQueue, QueueExists, RemoveQueue, GiveQueueTo},
};

class SyncNative : public opltest::Instance, public ::testing::WithParamInterface<Kind> {
 protected:
  static const Kind& kind() { return GetParam(); }

  static std::string FileOf(const std::string& prefix, const std::string& id,
                            const std::string& instance = InstanceString()) {
    return IpcDirectory() + "/" + prefix + kind().marker + id + "." + instance + ".006.021";
  }
  static std::string FileOf(const std::string& prefix, uint32_t id) {
    return FileOf(prefix, std::to_string(id));
  }
  static void Expect(uint32_t recorded, const std::string& message) {
    ExpectError(recorded, message.c_str());
  }

  OPL_Result Register(uint32_t id, const char* prefix = "app") { return kind().enter(0, prefix, id); }
  OPL_Result Deregister(uint32_t id, const char* prefix = "app") { return kind().remove(0, prefix, id); }

  // An object that is registered.
  int MakeRegistered() {
    const int id = kind().make();
    EXPECT_NE(-1, id);
    EXPECT_EQ(0u, Register(static_cast<uint32_t>(id)));
    return id;
  }
};

class SyncNativeRegister : public SyncNative {};
class SyncNativeDeregister : public SyncNative {};
class SyncNativeTerminate : public SyncNative {};

std::string NameOfKind(const ::testing::TestParamInfo<Kind>& test) { return test.param.name; }

INSTANTIATE_TEST_SUITE_P(Of, SyncNativeRegister, ::testing::ValuesIn(kKinds), NameOfKind);
INSTANTIATE_TEST_SUITE_P(Of, SyncNativeDeregister, ::testing::ValuesIn(kKinds), NameOfKind);
INSTANTIATE_TEST_SUITE_P(Of, SyncNativeTerminate, ::testing::ValuesIn(kKinds), NameOfKind);

TEST(SyncNativeStopped, RefusesToWork) {
  for (const Kind& kind : kKinds) {
    EXPECT_EQ(0x050203u, kind.enter(0, nullptr, 0));
    EXPECT_EQ(0x050203u, kind.remove(0, nullptr, 0));
  }
  EXPECT_EQ(0x050203u, OPL_MsgqNativeTerminateIPC(0, "*"));
}

TEST_P(SyncNativeRegister, RefusesANullPrefix) {
  EXPECT_NE(0u, Register(1, nullptr));
  EXPECT_EQ(kind().enterName + std::string(": prefix is NULL"), OPL_ErrMessageGet(0));
}

TEST_P(SyncNativeRegister, MakesAnEmptyControlFile) {
  ASSERT_EQ(0u, Register(42));
  EXPECT_EQ(
      (std::vector<std::string>{"app" + std::string(kind().marker) + "42." + InstanceString() + ".006.021"}),
      ObjectFiles());
  struct stat status {};
  ASSERT_EQ(0, ::lstat(FileOf("app", 42).c_str(), &status));
  EXPECT_EQ(S_IFREG | 0600u, status.st_mode);
  EXPECT_EQ(0, status.st_size);
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeRegister, MakesItsFileWithMode600UnderAMaskOf077) {
  const mode_t before = ::umask(0077);
  ASSERT_EQ(0u, Register(42));
  (void)::umask(before);
  struct stat status {};
  ASSERT_EQ(0, ::lstat(FileOf("app", 42).c_str(), &status));
  EXPECT_EQ(S_IFREG | 0600u, status.st_mode);
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeRegister, GivesItsFileTimesIn2036) {
  ASSERT_EQ(0u, Register(42));
  struct stat status {};
  ASSERT_EQ(0, ::lstat(FileOf("app", 42).c_str(), &status));
  for (const time_t time : {status.st_atime, status.st_mtime}) {
    struct tm brokenDown {};
    (void)::localtime_r(&time, &brokenDown);
    EXPECT_EQ(2036, brokenDown.tm_year + 1900);
  }
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeRegister, WritesTheIdAsAnUnsignedNumber) {
  ASSERT_EQ(0u, Register(0xFFFFFFFF));
  EXPECT_EQ(0, ::access(FileOf("app", "4294967295").c_str(), F_OK));
  EXPECT_EQ(0u, Deregister(0xFFFFFFFF));
}

TEST_P(SyncNativeRegister, TakesAnEmptyPrefixAndNoNoticeOfTheReservedArgument) {
  EXPECT_EQ(0u, kind().enter(0xFFFFFFFF, "", 0));
  EXPECT_EQ(0, ::access(FileOf("", "0").c_str(), F_OK));
  EXPECT_EQ(0u, kind().remove(0xFFFFFFFF, "", 0));
}

TEST_P(SyncNativeRegister, AsksForNoObject) {
  ASSERT_EQ(0u, Register(123456789));
  EXPECT_EQ(0u, Deregister(123456789));
}

TEST_P(SyncNativeRegister, LeavesNoDescriptorOpen) {
  Footprint expected = Footprint::Now();
  ASSERT_EQ(0u, Register(42));
  expected.items.insert("file " + FileOf("app", 42));
  EXPECT_EQ(expected, Footprint::Now());
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeRegister, RefusesASecondTime) {
  ASSERT_EQ(0u, Register(42));
  EXPECT_EQ(kind().already, Register(42));
  Expect(EEXIST, kind().enterName + std::string(": Control file ") + FileOf("app", 42) + " already exists");
  EXPECT_EQ(1u, ObjectFiles().size());
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeRegister, TellsPrefixesAndIdsApart) {
  EXPECT_EQ(0u, Register(42));
  EXPECT_EQ(0u, Register(43));
  EXPECT_EQ(0u, Register(42, "other"));
  EXPECT_EQ(3u, ObjectFiles().size());
  EXPECT_EQ(0u, Deregister(42));
  EXPECT_EQ(0u, Deregister(43));
  EXPECT_EQ(0u, Deregister(42, "other"));
}

TEST_P(SyncNativeRegister, TellsThatItHasNoAccess) {
  {
    const Fault fault("open64", 1, EACCES);
    EXPECT_EQ(kind().cannotEnter, Register(42));
  }
  Expect(EACCES, kind().enterName + std::string(": No access to create control file ") + FileOf("app", 42));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_P(SyncNativeRegister, TellsThatItCannot) {
  EXPECT_EQ(kind().cannotEnter, Register(42, "no-such-directory/app"));
  Expect(ENOENT, kind().enterName + std::string(": Cannot create control file ") +
                     FileOf("no-such-directory/app", 42));
}

TEST_P(SyncNativeDeregister, RefusesANullPrefix) {
  EXPECT_NE(0u, Deregister(1, nullptr));
  EXPECT_EQ(kind().removeName + std::string(": prefix is NULL"), OPL_ErrMessageGet(0));
}

TEST_P(SyncNativeDeregister, RemovesTheFileAndLeavesTheObject) {
  const int id = MakeRegistered();
  EXPECT_EQ(0u, Deregister(static_cast<uint32_t>(id)));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_TRUE(kind().exists(id));
  kind().destroy(id);
}

TEST_P(SyncNativeDeregister, RefusesWhatIsNotRegistered) {
  EXPECT_EQ(kind().missing, Deregister(42));
  Expect(ENOENT, kind().removeName + std::string(": Control file ") + FileOf("app", 42) + " does not exists");
}

TEST_P(SyncNativeDeregister, TellsThatItHasNoAccess) {
  ASSERT_EQ(0u, Register(42));
  {
    const Fault fault("unlink", 1, EACCES);
    EXPECT_EQ(kind().cannotRemove, Deregister(42));
  }
  Expect(EACCES, kind().removeName + std::string(": No access to delete control file ") + FileOf("app", 42));
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeDeregister, TellsThatItCannot) {
  ASSERT_EQ(0u, Register(42));
  {
    const Fault fault("unlink", 1, EIO);
    EXPECT_EQ(kind().cannotRemove, Deregister(42));
  }
  Expect(EIO, kind().removeName + std::string(": Cannot delete control file ") + FileOf("app", 42) +
                  kind().removalDetail);
  EXPECT_EQ(0u, Deregister(42));
}

TEST_P(SyncNativeTerminate, RemovesTheObjectAndTheFile) {
  const int id = MakeRegistered();
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_FALSE(kind().exists(id));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_P(SyncNativeTerminate, RemovesWhatThePatternMatches) {
  const int id = MakeRegistered();
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "other*"));
  EXPECT_TRUE(kind().exists(id));
  EXPECT_EQ(1u, ObjectFiles().size());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "app.*"));
  EXPECT_FALSE(kind().exists(id));
}

TEST_P(SyncNativeTerminate, LeavesObjectsThatAreNotRegistered) {
  const int id = kind().make();
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(kind().exists(id));
  kind().destroy(id);
}

TEST_P(SyncNativeTerminate, LeavesOtherInstancesAndVersionsAlone) {
  const int id = kind().make();
  const std::string number = std::to_string(id);
  const std::string files[] = {
      FileOf("app", number, "OTHER"),
      IpcDirectory() + "/app" + kind().marker + number + "." + InstanceString() + ".007.000",
      IpcDirectory() + "/app.nat." + number + "." + InstanceString() + ".006.021"};
  for (const std::string& file : files) opltest::WriteFile(file, "");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(kind().exists(id));
  for (const std::string& file : files) EXPECT_EQ(0, ::unlink(file.c_str())) << file;
  kind().destroy(id);
}

TEST_P(SyncNativeTerminate, RemovesTheFileOfAnObjectThatIsGoneAndReportsIt) {
  const int gone = MakeRegistered();
  const int there = MakeRegistered();
  kind().destroy(gone);
  EXPECT_EQ(kind().cannotRemove, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_FALSE(kind().exists(there));
}

TEST_P(SyncNativeTerminate, LeavesAnObjectThatIsDeregisteredMeanwhile) {
  const int id = MakeRegistered();
  const Fault fault("lstat64", 1, [&] {
    for (const std::string& file : ObjectFiles())
      EXPECT_EQ(0, ::unlink((IpcDirectory() + "/" + file).c_str()));
  });
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(fault.Fired());
  EXPECT_TRUE(kind().exists(id));
  kind().destroy(id);
}

TEST_P(SyncNativeTerminate, ReadsTheIdBehindTheLastMarker) {
  const int id = kind().make();
  const std::string prefix = std::string("app") + kind().marker + "0";
  ASSERT_EQ(0u, Register(static_cast<uint32_t>(id), prefix.c_str()));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_FALSE(kind().exists(id));
}

// Such a name registers nothing, least of all the object with the id 0.
TEST_P(SyncNativeTerminate, RemovesNoObjectForAFileWithoutANumber) {
  std::vector<int> ids;
  for (int i = 0; i < 2; ++i) ids.push_back(kind().make());
  for (const char* id : {"", "none", "-1", " 1", "99999999999999999999"})
    opltest::WriteFile(FileOf("app", id), "");
  const std::set<std::string> before = opltest::SystemVObjects();
  EXPECT_EQ(kind().cannotRemove, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(before, opltest::SystemVObjects());
  EXPECT_TRUE(ObjectFiles().empty());
  for (const int id : ids) kind().destroy(id);
}

TEST_P(SyncNativeTerminate, LeavesTheObjectOfAnotherOwner) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root makes objects of other users";
  const int id = MakeRegistered();
  ASSERT_TRUE(kind().give(id, opltest::kOtherUser));
  EXPECT_EQ(kind().cannotRemove, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(kind().exists(id));
  EXPECT_TRUE(ObjectFiles().empty());
  kind().destroy(id);
}

// A program that makes the objects of its user, and another user who cleans up.
TEST_P(SyncNativeTerminate, RemovesTheObjectOfTheFilesOwnerForRoot) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root removes the objects of other users";
  opltest::LetOtherUsersIn();
  opltest::Child child([&](opltest::Steps& steps) {
    opltest::BecomeOtherUser();
    steps.Send(std::to_string(MakeRegistered()));
  });
  const int id = std::stoi(child.Receive());
  child.ExpectSuccess();
  EXPECT_TRUE(kind().exists(id));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_FALSE(kind().exists(id));
}

TEST_P(SyncNativeTerminate, SucceedsWhenTheListingFindsNothing) {
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "no-such-*"));
}

class SyncNativeBeforeBegin : public ::testing::TestWithParam<Kind> {};

TEST_P(SyncNativeBeforeBegin, IsTerminatedAllTheSame) {
  const int id = GetParam().make();
  opltest::WriteFile(
      IpcDirectory() + "/app" + GetParam().marker + std::to_string(id) + "." + InstanceString() + ".006.021",
      "");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_FALSE(GetParam().exists(id));
}

INSTANTIATE_TEST_SUITE_P(Of, SyncNativeBeforeBegin, ::testing::ValuesIn(kKinds), NameOfKind);

TEST(SyncNativeTerminateDirectory, ReturnsTheListingsFailure) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  {
    const Fault fault("glob64", 1, GLOB_NOSPACE, Fault::kForGood);
    EXPECT_NE(0u, OPL_MsgqNativeTerminateIPC(0, "*"));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(0u, OPL_InitEnd(0));
}

TEST(SyncNativeTerminateQueues, LookAtTheirOwnFilesOnly) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  const int set = opltest::MakeSet({1});
  EXPECT_EQ(0u, OPL_SyncSemNativeRegisterIPC(0, "app", static_cast<uint32_t>(set)));
  EXPECT_EQ(0u, OPL_MsgqNativeTerminateIPC(0, "*"));
  EXPECT_TRUE(opltest::SetExists(set));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_FALSE(opltest::SetExists(set));
  EXPECT_EQ(0u, OPL_InitEnd(0));
}

}  // namespace
