// A process that dies at any system call of a create, an open, a close or its end leaves an instance in which
// the next process works, and a termination removes what is left.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/Child.h"
#include "tests/support/Footprint.h"
#include "tests/support/KillPoints.h"

namespace {

using opltest::Block;
using opltest::Child;
using opltest::Steps;

constexpr uint32_t kSize = 64;
constexpr uint32_t kPrivate = OPL_SHAREDMEM_PRIVATE;

// Between the making of a segment or a set and the writing of its id into a file nobody can know it; a set
// gets its values there, too.
constexpr int kNamelessOfABlock = 1;
constexpr int kNamelessOfALock = 2;

Block* gBlock = nullptr;
OPL_SharedMemLocked* gLocked = nullptr;

void Begin() { ASSERT_EQ(0u, OPL_InitBegin(0)); }

void BeginWithBlock() {
  Begin();
  gBlock = new Block;
  ASSERT_EQ(0u, gBlock->Create("q", kSize));
}

void BeginWithLocked() {
  Begin();
  ASSERT_EQ(0u, OPL_SharedMemLockedCreate(&gLocked, 0, "q", kSize, kPrivate));
}

// What a dead process has left of a block is seen by the open, which removes it.
OPL_Result CreateOrOpen(Block* block) {
  const OPL_Result created = block->Create("q", kSize);
  if (created != OPL_PRIVATE_E_SHMEM_EXISTS) return created;
  const OPL_Result opened = block->Open("q");
  return opened == OPL_PRIVATE_E_SHMEM_MISSING ? block->Create("q", kSize) : opened;
}

void UseBlock() {
  Block block;
  ASSERT_EQ(0u, CreateOrOpen(&block)) << OPL_ErrMessageGet(0);
  std::memset(block.address, 0x5A, kSize);
  EXPECT_EQ(0u, block.Close());
}

OPL_Result CreateOrOpenLocked(OPL_SharedMemLocked** locked) {
  const OPL_Result created = OPL_SharedMemLockedCreate(locked, 0, "q", kSize, kPrivate);
  if (created != OPL_SHAREDMEM_E_EXISTS) return created;
  const OPL_Result opened = OPL_SharedMemLockedOpen(locked, 0, "q", kPrivate);
  // The lock without its block is gone with the attempt to open it.
  if (opened != OPL_PRIVATE_E_SHMEM_MISSING && opened != OPL_SHAREDMEM_E_MISSING) return opened;
  return OPL_SharedMemLockedCreate(locked, 0, "q", kSize, kPrivate);
}

// A block without its lock keeps its name until a termination.
void UseLocked() {
  OPL_SharedMemLocked* locked = nullptr;
  OPL_Result rc = CreateOrOpenLocked(&locked);
  if (rc == OPL_PRIVATE_E_SHMEM_EXISTS) {
    ASSERT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
    rc = CreateOrOpenLocked(&locked);
  }
  ASSERT_EQ(0u, rc) << OPL_ErrMessageGet(0);
  void* address = nullptr;
  ASSERT_EQ(0u, OPL_SharedMemLockedGet(locked, OPL_SHAREDMEM_EXCLUSIVE, &address));
  std::memset(address, 0x5A, kSize);
  EXPECT_EQ(0u, OPL_SharedMemLockedRelease(locked));
  EXPECT_EQ(0u, OPL_SharedMemLockedClose(&locked));
}

class SharedMemKill : public ::testing::Test {
 protected:
  // Expects that number of objects in all that no file names.
  static void KillEverywhere(void (*before)(), void (*body)(), void (*use)(), int expectedNameless = 0) {
    int nameless = 0;
    const int rounds = opltest::KillAtEverySystemCall(before, body, [&](int) {
      Child next([&](Steps&) {
        Begin();
        use();
        EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
        EXPECT_EQ(0u, OPL_InitEnd(0));
      });
      next.ExpectSuccess();
      ASSERT_TRUE(opltest::FilesIn(opltest::IpcDirectory()).empty());
      for (const std::string& object : opltest::SystemVObjects()) {
        ++nameless;
        const int id = std::stoi(object.substr(object.find(' ')));
        object.starts_with("sem") ? opltest::RemoveSet(id) : opltest::RemoveSegment(id);
      }
    });
    if (rounds != 0) {
      EXPECT_EQ(expectedNameless, nameless);
    }
  }
};

TEST_F(SharedMemKill, AtAnySystemCallOfACreationHindersNobody) {
  const auto create = [] { EXPECT_EQ(0u, (new Block)->Create("q", kSize)); };
  KillEverywhere(Begin, create, UseBlock, kNamelessOfABlock);
}

TEST_F(SharedMemKill, AtAnySystemCallOfAnOpenHindersNobody) {
  const auto before = [] {
    Child maker([](Steps&) { BeginWithBlock(); });
    maker.ExpectSuccess();
    Begin();
  };
  const auto open = [] { EXPECT_EQ(0u, (new Block)->Open("q")); };
  KillEverywhere(before, open, UseBlock);
}

TEST_F(SharedMemKill, AtAnySystemCallOfACloseHindersNobody) {
  const auto close = [] { EXPECT_EQ(0u, gBlock->Close()); };
  KillEverywhere(BeginWithBlock, close, UseBlock);
}

TEST_F(SharedMemKill, AtAnySystemCallOfTheProcesssEndHindersNobody) {
  const auto end = [] { EXPECT_EQ(0u, OPL_InitEnd(0)); };
  KillEverywhere(BeginWithBlock, end, UseBlock);
}

TEST_F(SharedMemKill, AtAnySystemCallOfALockedCreationHindersNobody) {
  const auto create = [] { EXPECT_EQ(0u, OPL_SharedMemLockedCreate(&gLocked, 0, "q", kSize, kPrivate)); };
  KillEverywhere(Begin, create, UseLocked, kNamelessOfABlock + kNamelessOfALock);
}

TEST_F(SharedMemKill, AtAnySystemCallOfALockedOpenHindersNobody) {
  const auto before = [] {
    Child maker([](Steps&) { BeginWithLocked(); });
    maker.ExpectSuccess();
    Begin();
  };
  const auto open = [] { EXPECT_EQ(0u, OPL_SharedMemLockedOpen(&gLocked, 0, "q", kPrivate)); };
  KillEverywhere(before, open, UseLocked);
}

TEST_F(SharedMemKill, AtAnySystemCallOfALockedCloseHindersNobody) {
  const auto close = [] { EXPECT_EQ(0u, OPL_SharedMemLockedClose(&gLocked)); };
  KillEverywhere(BeginWithLocked, close, UseLocked);
}

}  // namespace
