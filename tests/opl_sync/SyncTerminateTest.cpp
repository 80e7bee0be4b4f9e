// OPL_InitTerminateIPC and OPL_SyncProcessCleanup for mutexes and read-write locks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/Faults.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::MutexFile;
using opltest::NewMutex;
using opltest::NewRWLock;
using opltest::NumberAndText;
using opltest::ObjectFiles;
using opltest::RWLockFile;
using opltest::SemaphoreSets;
using opltest::SetNamedBy;
using opltest::SyncActor;
using opltest::ValuesOf;

TEST(SyncTerminateBeforeBegin, FindsNothingInAnEmptyDirectory) {
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
}

TEST(SyncTerminateBeforeBegin, LooksAtNoMode) { EXPECT_EQ(0u, OPL_InitTerminateIPC(0xFFFFFFFF, "*")); }

// What a process left behind that was killed, for a process that never begins.
class SyncTerminate : public ::testing::TestWithParam<int> {
 protected:
  void LeaveBehind(const std::vector<std::string>& commands) {
    SyncActor actor(GetParam());
    EXPECT_EQ(0u, actor.Do("begin"));
    for (const std::string& command : commands) EXPECT_EQ(0u, actor.Do(command)) << command;
    actor.Kill();
  }
  void TearDown() override {
    // The management lock goes with its last user.
    ASSERT_EQ(0u, OPL_InitBegin(0));
    EXPECT_EQ(0u, OPL_InitEnd(0));
    EXPECT_TRUE(SemaphoreSets().empty());
  }
};
OPLTEST_WITH_EITHER_PEER(SyncTerminate);

TEST_P(SyncTerminate, RemovesTheInstancesObjectsInAProcessThatNeverBegan) {
  LeaveBehind({"mutex-create m 4", "rwlock-create r 1", "mutex-acquire m", "rwlock-lock r 2"});
  EXPECT_EQ(2u, ObjectFiles().size());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(1u, SemaphoreSets().size());
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
}

TEST_P(SyncTerminate, LeavesTheManagementLock) {
  LeaveBehind({});
  const int management = SetNamedBy(opltest::ManagementFile());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(management, SetNamedBy(opltest::ManagementFile()));
  EXPECT_EQ((opltest::Values{32000, 1, 1, 1}), ValuesOf(management));
}

TEST_P(SyncTerminate, RemovesOnlyWhatThePatternMatches) {
  LeaveBehind({"mutex-create one 4", "mutex-create two 4", "rwlock-create one 1"});
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "one.*"));
  EXPECT_EQ(1u, ObjectFiles().size());
  EXPECT_TRUE(opltest::SetExists(SetNamedBy(MutexFile("two"))));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "no-such-*"));
  EXPECT_EQ(1u, ObjectFiles().size());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
}

TEST_P(SyncTerminate, LeavesWhatIsForAllUsers) {
  LeaveBehind({"mutex-create m 8", "rwlock-create r 2"});
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(2u, ObjectFiles().size());
  EXPECT_EQ(0u, OPL_PrivateSemIdDestroy(MutexFile("m", "all").c_str()));
  EXPECT_EQ(0u, OPL_PrivateSemIdDestroy(RWLockFile("r", "all").c_str()));
}

// Files that are not this instance's and version's stay, with their sets.
TEST_P(SyncTerminate, LeavesOtherInstancesVersionsAndKindsAlone) {
  const std::string directory = opltest::IpcDirectory() + "/";
  const std::string instance = opltest::InstanceString();
  const std::vector<std::string> others = {
      "m.mutex.OTHER.006.021", "r.rwlock.OTHER.006.021", "m.mutex." + instance + ".007.000",
      "r.rwlock." + instance + ".005.021", "m.mutexes." + instance + ".006.021"};
  const uint16_t values[] = {1, 32000};
  std::vector<int> sets;
  for (const std::string& other : others) {
    int32_t id = -1;
    EXPECT_EQ(0u, OPL_PrivateSemIdCreate((directory + other).c_str(), 0600, 0600, 2, values, &id));
    sets.push_back(id);
  }
  LeaveBehind({"mutex-create m 4"});
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  std::vector<std::string> sorted = others;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, ObjectFiles());
  for (const int set : sets) EXPECT_EQ((opltest::Values{1, 32000}), ValuesOf(set));
  for (const std::string& other : others) EXPECT_EQ(0u, OPL_PrivateSemIdDestroy((directory + other).c_str()));
}

// A file's name is searched as plain text: what merely contains the instance string counts as the instance's.
TEST_P(SyncTerminate, TakesANameThatContainsAllItLooksFor) {
  LeaveBehind({});
  const std::string file = opltest::IpcDirectory() + "/x006.021x.mutex.x" + opltest::InstanceString() + "x";
  const uint16_t values[] = {1, 32000};
  int32_t id = -1;
  EXPECT_EQ(0u, OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 2, values, &id));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_FALSE(opltest::SetExists(id));
}

// Names that only a process in the middle of making an object uses.
class SyncTerminateLeftover : public ::testing::Test {
 protected:
  // Of a process that has ended.
  static std::string DeadMaker() {
    opltest::Child child([](opltest::Steps&) {});
    const pid_t pid = child.pid();
    child.ExpectSuccess();
    return Hexadecimal(pid);
  }
  static std::string Hexadecimal(pid_t pid) {
    std::ostringstream text;
    text << std::hex << pid;
    return text.str();
  }
  // A set with an object file of that name.
  static int Make(const std::string& file) {
    const uint16_t values[] = {1, 32000};
    int32_t id = -1;
    EXPECT_EQ(0u, OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 2, values, &id));
    return id;
  }
};

TEST_F(SyncTerminateLeftover, OfADeadMakerIsRemovedThoughItNamesNothingYet) {
  opltest::WriteFile(MutexFile("m") + "." + DeadMaker() + ".1", "");
  opltest::WriteFile(RWLockFile("r") + "." + DeadMaker() + ".a0", "");
  opltest::WriteFile(opltest::ManagementFile() + "." + DeadMaker(), "");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncTerminateLeftover, OfADeadMakerIsRemovedWithItsSet) {
  Make(MutexFile("m") + "." + DeadMaker() + ".1");
  Make(opltest::ManagementFile() + "." + DeadMaker());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_TRUE(SemaphoreSets().empty());
}

TEST_F(SyncTerminateLeftover, OfALivingMakerIsNone) {
  const std::string file = MutexFile("m") + "." + Hexadecimal(::getpid()) + ".1";
  const std::string management = opltest::ManagementFile() + "." + Hexadecimal(::getpid());
  opltest::WriteFile(file, "");
  opltest::WriteFile(management, "");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(2u, ObjectFiles().size());
  EXPECT_EQ(0, ::unlink(file.c_str()));
  EXPECT_EQ(0, ::unlink(management.c_str()));
}

class SyncTerminateBegun : public opltest::Instance {};

TEST_F(SyncTerminateBegun, RemovesWhatThisProcessHasOpen) {
  (void)NewMutex("m");
  (void)NewRWLock("r");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(1u, SemaphoreSets().size());
  EXPECT_EQ(0u, OPL_InitIsStopped(0));
}

// Read-write locks come first; what fails is kept, and the rest is done all the same.
TEST_F(SyncTerminateBegun, ReturnsTheFirstFailureAndRemovesTheRest) {
  opltest::WriteFile(RWLockFile("bad"), "abc");
  opltest::WriteFile(MutexFile("worse"), "");
  (void)NewMutex("m");
  (void)NewMutex("z");
  (void)NewRWLock("r");
  const int damaged = SetNamedBy(MutexFile("m"));
  Fault fault("semctl", 4, EPERM);  // two each for a removal: after r's, m's
  EXPECT_EQ(0x051205u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(fault.Fired());
  EXPECT_TRUE(opltest::SetExists(damaged));
  EXPECT_EQ(3u, ObjectFiles().size());
  EXPECT_FALSE(opltest::SemaphoreSets().size() > 2);
  EXPECT_EQ(0, ::unlink(RWLockFile("bad").c_str()));
  EXPECT_EQ(0, ::unlink(MutexFile("worse").c_str()));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncTerminateBegun, CountsAFileWhoseSetIsGoneAsRemoved) {
  (void)NewMutex("m");
  opltest::RemoveSet(SetNamedBy(MutexFile("m")));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(ObjectFiles().empty());
}

class SyncCleanup : public opltest::Instance {};

TEST_F(SyncCleanup, ClosesReadWriteLocksAndMutexesInModeZero) {
  (void)NewMutex("m");
  (void)NewRWLock("r");
  (void)NewRWLock("s");
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(ObjectFiles().empty());
  EXPECT_EQ(1u, SemaphoreSets().size());
}

TEST_F(SyncCleanup, ReturnsSuccessWhateverFails) {
  (void)NewMutex("m");
  (void)NewRWLock("r");
  opltest::RemoveSet(SetNamedBy(MutexFile("m")));
  opltest::RemoveSet(SetNamedBy(RWLockFile("r")));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_F(SyncCleanup, OnlyForgetsInModeOne) {
  OPL_SyncMutex* mutex = NewMutex("m");
  OPL_SyncRWLock* rwLock = NewRWLock("r");
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(1));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(SetNamedBy(MutexFile("m"))));
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(SetNamedBy(RWLockFile("r"))));
  // What was forgotten is not held any more.
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock));
  EXPECT_EQ(2u, ObjectFiles().size());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
}

}  // namespace
