// Many processes of both widths come, make, find and change blocks of shared memory, and go or are killed:
// who is there at the same time sees the same bytes, what is counted under a block's lock is never counted
// wrong, and nothing stays.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <numeric>
#include <string>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_SharedMem.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/Storm.h"

namespace {

using opltest::Arena;
using opltest::Guest;
using opltest::PeerBody;
using opltest::Steps;
using opltest::Storm;

struct Houses {
  opltest::Holders holders;
};

constexpr uint32_t kBlocks = 3;
constexpr int kRaises = 10;

struct Signatures {
  std::atomic<uint32_t> signedBy[opltest::kMostGuests];
};

// Who has a block has signed in it, and so everybody who has it sees the signature. Those who were killed
// keep it there.
void ShareBlock(Guest& guest, const Arena<Houses>& arena) {
  const uint32_t number = 1 + guest.Draw(kBlocks);
  const std::string name = "shared" + std::to_string(number);
  opltest::Block block;
  opltest::CreateOrOpen([&] { return block.Create(name, sizeof(Signatures)); }, OPL_PRIVATE_E_SHMEM_EXISTS,
                        [&] { return block.Open(name); }, OPL_PRIVATE_E_SHMEM_MISSING);
  if (block.handle == nullptr) return;
  auto* const signatures = static_cast<Signatures*>(block.address);
  signatures->signedBy[guest.number()] = 1;
  arena->holders.Enter(guest, number);
  for (int i = 0; i < 3; ++i)
    arena->holders.ExpectAllSeen(number, opltest::Holders::kDeadCount,
                                 [&](uint32_t other) { return signatures->signedBy[other] == 1; });
  arena->holders.Leave(guest);
  OPLTEST_EXPECT_OK(block.Close());
}

// Changed under the block's lock, in steps that only exclusion keeps together.
struct Counts {
  volatile uint32_t sum;
  volatile uint32_t raisedBy[opltest::kMostGuests];
  volatile int32_t writer;  // who changes them at the moment

  uint32_t Sum() const { return std::accumulate(std::begin(raisedBy), std::end(raisedBy), 0u); }
};

// A writer that was killed in the middle of a change is no offence; its successor has to put things right.
void ExpectWhole(const Counts& counts) {
  const int32_t writer = counts.writer;
  if (writer == 0)
    EXPECT_EQ(counts.Sum(), counts.sum);
  else
    EXPECT_FALSE(opltest::IsAlive(writer)) << writer << " writes while others have the block";
}

void Raise(const Guest& guest, Counts* counts) {
  ExpectWhole(*counts);
  counts->writer = ::getpid();
  const uint32_t sum = counts->Sum();
  (void)::sched_yield();
  counts->raisedBy[guest.number()] = counts->raisedBy[guest.number()] + 1;
  (void)::sched_yield();
  counts->sum = sum + 1;
  EXPECT_EQ(::getpid(), counts->writer);
  counts->writer = 0;
}

OPL_Result CreateLocked(const std::string& name, OPL_SharedMemLocked** pLocked) {
  return OPL_SharedMemLockedCreate(pLocked, 0, name.c_str(), sizeof(Counts), OPL_SHAREDMEM_PRIVATE);
}

OPL_Result OpenLocked(const std::string& name, OPL_SharedMemLocked** pLocked) {
  return OPL_SharedMemLockedOpen(pLocked, 0, name.c_str(), OPL_SHAREDMEM_PRIVATE);
}

// Lock and block come and go one after the other, and so either may be there without the other. A block whose
// count a killed process has left too high stays when its lock goes: then there is no more getting at it.
OPL_SharedMemLocked* CreateOrOpenLocked(const Guest& guest, const std::string& name) {
  constexpr int kMostTries = 20;
  OPL_SharedMemLocked* locked = nullptr;
  for (int tries = 0; guest.isCalm() || tries < kMostTries; ++tries) {
    const OPL_Result created = CreateLocked(name, &locked);
    if (created == 0) break;
    EXPECT_TRUE(created == OPL_SHAREDMEM_E_EXISTS || created == OPL_PRIVATE_E_SHMEM_EXISTS)
        << OPL_ErrMessageGet(0);
    const OPL_Result opened = OpenLocked(name, &locked);
    if (opened == 0) break;
    EXPECT_TRUE(opened == OPL_SHAREDMEM_E_MISSING || opened == OPL_PRIVATE_E_SHMEM_MISSING)
        << OPL_ErrMessageGet(0);
    if (::testing::Test::HasFailure()) break;
  }
  return locked;
}

void Count(const Guest& guest, OPL_SharedMemLocked* locked) {
  uint32_t before = 0;
  for (int i = 0; i < kRaises; ++i) {
    void* address = nullptr;
    OPLTEST_EXPECT_OK(OPL_SharedMemLockedGet(locked, OPL_SHAREDMEM_EXCLUSIVE, &address));
    auto* const counts = static_cast<Counts*>(address);
    if (i == 0) before = counts->raisedBy[guest.number()];
    Raise(guest, counts);
    OPLTEST_EXPECT_OK(OPL_SharedMemLockedRelease(locked));
    OPLTEST_EXPECT_OK(OPL_SharedMemLockedGet(locked, OPL_SHAREDMEM_SHARED, &address));
    EXPECT_EQ(counts, address);
    ExpectWhole(*counts);
    EXPECT_EQ(before + static_cast<uint32_t>(i) + 1, counts->raisedBy[guest.number()]);
    OPLTEST_EXPECT_OK(OPL_SharedMemLockedRelease(locked));
  }
}

void CountUnderLock(Guest& guest) {
  OPL_SharedMemLocked* locked = CreateOrOpenLocked(guest, "counts" + std::to_string(guest.Draw(kBlocks)));
  if (locked == nullptr) return;
  Count(guest, locked);
  OPLTEST_EXPECT_OK(OPL_SharedMemLockedClose(&locked));
}

// In the block that is there all the time.
void CountInKeptBlock(const Guest& guest) {
  OPL_SharedMemLocked* locked = nullptr;
  OPLTEST_EXPECT_OK(OpenLocked("kept", &locked));
  if (locked == nullptr) return;
  Count(guest, locked);
  OPLTEST_EXPECT_OK(OPL_SharedMemLockedClose(&locked));
}

const PeerBody kGuest("Guest", [](Steps& steps) {
  Guest guest(steps);
  const Arena<Houses> arena;
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  for (uint32_t deeds = 1 + guest.Draw(3); deeds != 0; --deeds) {
    if (guest.Draw(2) == 0) ShareBlock(guest, arena);
    guest.Draw(2) == 0 ? CountUnderLock(guest) : CountInKeptBlock(guest);
  }
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

const PeerBody kKeeper("Keeper", [](Steps& steps) {
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  OPL_SharedMemLocked* locked = nullptr;
  OPLTEST_EXPECT_OK(CreateLocked("kept", &locked));
  steps.Reach();
  steps.WaitForGo();
  OPLTEST_EXPECT_OK(OPL_SharedMemLockedClose(&locked));
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

void Blow(Storm& storm, Storm::Weather weather) {
  opltest::Peer keeper(kKeeper, storm.DrawWidth());
  keeper.Await();
  storm.Blow(kGuest, weather);
  keeper.Go();
  keeper.ExpectSuccess();
}

class SharedMemStorm : public ::testing::TestWithParam<unsigned> {};

TEST_P(SharedMemStorm, CountsNothingWrongAndLeavesNothingBehind) {
  Storm storm(GetParam());
  storm.Rage([&](Storm::Weather weather) { Blow(storm, weather); });
}

INSTANTIATE_TEST_SUITE_P(Seed, SharedMemStorm, ::testing::Values(1u, 2u));

}  // namespace
