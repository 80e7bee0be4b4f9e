// In which order the modules start and stop, and what a module that cannot start leaves. Each shows itself by
// a call of the system's and by its files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Mem.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Child;
using opltest::Fault;
using opltest::ManagementFile;
using opltest::Steps;
using ::testing::ElementsAre;

constexpr OPL_Result kStopped = OPL_INIT_E_STOPPED;

bool Exists(const std::string& file) { return std::filesystem::exists(file); }

void ExpectNotBegun() {
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  EXPECT_EQ(kStopped, OPL_InitEnd(0));
}

void ExpectToBeginAndEnd() {
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  ExpectNotBegun();
}

TEST(InitLibrary, StartsTheErrorRecordThenTheManagementLockThenWhatIsInTheProcess) {
  std::vector<std::string> started;
  const Fault errors("pthread_key_create", 1, [&] {
    started.emplace_back("errors");
    EXPECT_FALSE(Exists(ManagementFile()));
  });
  const Fault management("semget", 1, [&] { started.emplace_back("management"); });
  // The first two are those of the library's own life; synchronisation and shared memory have one each.
  const Fault processes("__register_atfork", 3, [&] {
    started.emplace_back("synchronisation");
    EXPECT_TRUE(Exists(ManagementFile()));
  });
  const Fault sharedMemory("pthread_mutex_init", 1, [&] {
    started.emplace_back("files");
    EXPECT_EQ(4, processes.Calls());
  });
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_THAT(started, ElementsAre("errors", "management", "synchronisation", "files"));
  EXPECT_EQ(6, processes.Calls());
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(UnInitLibrary, StopsSynchronisationSharedMemoryFilesTheManagementLockAndTheErrorRecord) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  (void)opltest::NewRWLock("r");
  const std::string rwLock = opltest::RWLockFile("r");
  OPL_SharedMem* memory = nullptr;
  void* address = nullptr;
  ASSERT_EQ(OPL_OK, OPL_SharedMemCreate(&memory, 0, "s", &address, 100, OPL_SHAREDMEM_PRIVATE));
  const std::string segment =
      opltest::IpcDirectory() + "/s.mem." + opltest::InstanceString() + opltest::kVersion;
  ASSERT_TRUE(Exists(rwLock));
  ASSERT_TRUE(Exists(segment));
  std::vector<std::string> stopped;
  const Fault sharedMemory("shmdt", 1, [&] {
    stopped.emplace_back("shared memory");
    EXPECT_FALSE(Exists(rwLock));
  });
  const Fault files("pthread_mutex_destroy", 1, [&] {
    stopped.emplace_back("files");
    EXPECT_FALSE(Exists(segment));
    EXPECT_TRUE(Exists(ManagementFile()));
  });
  const Fault errors("pthread_key_delete", 1, [&] {
    stopped.emplace_back("errors");
    EXPECT_FALSE(Exists(ManagementFile()));
  });
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_THAT(stopped, ElementsAre("shared memory", "files", "errors"));
  OPL_MemFree(nullptr, memory, OPL_MEM_HERE);
}

// A begin that fails behind the management lock leaves it held. The next one finds it so and gives it up, and
// the one after that can begin.
constexpr OPL_Result kHeld = OPL_PRIVATE_E_MGMT_HELD;

TEST(InitBeginFailing, LeavesTheManagementLockToTheNextBegin) {
  {
    const Fault fault("pthread_mutex_init", 1, ENOMEM);
    EXPECT_EQ(0x05003Cu, OPL_InitBegin(0));
  }
  ExpectNotBegun();
  EXPECT_TRUE(Exists(ManagementFile()));
  EXPECT_EQ(kHeld, OPL_InitBegin(0));
  ExpectNotBegun();
  EXPECT_FALSE(Exists(ManagementFile()));
  ExpectToBeginAndEnd();
}

// Each begin that comes that far registers one handler more than the one before it.
TEST(InitBeginFailing, LeavesTheLibraryStoppedWhicheverForkHandlerIsRefused) {
  for (int refused = 0; refused < 6;) {
    const Fault fault("__register_atfork", refused == 0 ? 1 : 2, ENOMEM);
    const OPL_Result result = OPL_InitBegin(0);
    ASSERT_EQ(fault.Fired() ? static_cast<OPL_Result>(OPL_PROCESS_E_ATFORK) : kHeld, result);
    ExpectNotBegun();
    if (fault.Fired()) ++refused;
  }
  EXPECT_EQ(kHeld, OPL_InitBegin(0));
  ExpectToBeginAndEnd();
}

TEST(InitManagement, IsTriedAgainWhenTheSetIsRemovedBeforeItsUseIsTaken) {
  const Fault fault("semop", 1, EIDRM);
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), opltest::ValuesOf(opltest::SetNamedBy(ManagementFile())));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(InitManagement, IsLeftAsItIsWhenItsUseCannotBeGivenBack) {
  Child([](Steps&) {
    ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
    const Fault fault("semop", 1, EIO);
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(1, fault.Calls());
    EXPECT_TRUE(Exists(ManagementFile()));
  }).ExpectSuccess();
  ExpectToBeginAndEnd();
}

TEST(InitManagement, IsForgottenAtTheEndWhileAnotherProcessUsesIt) {
  Child another([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  another.Await();
  ExpectToBeginAndEnd();
  EXPECT_TRUE(Exists(ManagementFile()));
  EXPECT_EQ(0x051218u, OPL_PrivateMgmtLockQVOPLAccess());
  another.Go();
  another.ExpectSuccess();
}

}  // namespace
