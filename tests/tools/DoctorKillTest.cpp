// Whatever system call a process dies at: doctor --fix leaves nothing of it, and then finds nothing.
#include <gtest/gtest.h>

#include <set>

#include "OPL_Init.h"
#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "tests/support/Footprint.h"
#include "tests/support/KillPoints.h"
#include "tests/tools/DoctorRig.h"

namespace {

using opltest::Doctor;
using opltest::FilesIn;
using opltest::IpcDirectory;
using opltest::ToolRun;

void ExpectRepairOfEveryDeath(const std::function<void()>& body) {
  opltest::KillAtEverySystemCall([] { ASSERT_EQ(OPL_OK, OPL_InitBegin(0)); }, body,
                                 [](int) {
                                   const ToolRun fixed = Doctor({"--fix", "--yes", "--unsure", "--age", "0"});
                                   ASSERT_EQ(0, fixed.status) << fixed.out << fixed.err;
                                   ASSERT_EQ(std::vector<std::string>(), FilesIn(IpcDirectory()))
                                       << fixed.out;
                                   ASSERT_EQ(std::set<std::string>(), opltest::SystemVObjects()) << fixed.out;
                                 });
}

TEST(DoctorKill, RepairsAMutexWhoseMakerDied) {
  ExpectRepairOfEveryDeath([] {
    OPL_SyncMutex* mutex = nullptr;
    (void)OPL_SyncMutexCreate(&mutex, 0, "queue", OPL_SYNC_MUTEX_PRIVATE);
    (void)OPL_SyncMutexClose(&mutex);
  });
}

TEST(DoctorKill, RepairsABlockWhoseMakerDied) {
  ExpectRepairOfEveryDeath([] {
    OPL_SharedMem* memory = nullptr;
    void* address = nullptr;
    (void)OPL_SharedMemCreate(&memory, 0, "block", &address, 64, OPL_SHAREDMEM_PRIVATE);
    (void)OPL_SharedMemClose(&memory);
  });
}

TEST(DoctorKill, RepairsAnEventWhoseMakerDied) {
  ExpectRepairOfEveryDeath([] {
    OPL_SyncEvent* event = nullptr;
    (void)OPL_SyncEventCreate(&event, 0, "bell", OPL_SYNC_EVENT_PRIVATE);
    (void)OPL_SyncEventClose(&event);
  });
}

TEST(DoctorKill, RepairsTheInstanceOfAProcessThatDiedAtItsBeginOrEnd) {
  opltest::KillAtEverySystemCall([] {},
                                 [] {
                                   (void)OPL_InitBegin(0);
                                   (void)OPL_InitEnd(0);
                                 },
                                 [](int) {
                                   const ToolRun fixed = Doctor({"--fix", "--yes", "--unsure", "--age", "0"});
                                   ASSERT_EQ(0, fixed.status) << fixed.out << fixed.err;
                                   ASSERT_EQ(std::vector<std::string>(), FilesIn(IpcDirectory()))
                                       << fixed.out;
                                   ASSERT_EQ(std::set<std::string>(), opltest::SystemVObjects()) << fixed.out;
                                 });
}

}  // namespace
