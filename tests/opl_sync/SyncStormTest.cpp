// Many processes of both widths come, use a mutex and a read-write lock, and go or are killed: exclusion
// holds, nobody fails or hangs, and nothing stays.
#include <gtest/gtest.h>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/support/Storm.h"

namespace {

using opltest::Arena;
using opltest::Guest;
using opltest::Storm;

struct Places {
  opltest::Place mutex;
  opltest::Place writer;  // inside the read-write lock, alone
};

constexpr int kRounds = 10;

void UseMutex(const Arena<Places>& arena) {
  OPL_SyncMutex* mutex = nullptr;
  opltest::CreateOrOpen([&] { return OPL_SyncMutexCreate(&mutex, 0, "storm", OPL_SYNC_MUTEX_PRIVATE); },
                        OPL_SYNC_E_MUTEX_EXISTS,
                        [&] { return OPL_SyncMutexOpen(&mutex, 0, "storm", OPL_SYNC_MUTEX_PRIVATE); },
                        OPL_SYNC_E_MUTEX_MISSING);
  for (int round = 0; round < kRounds; ++round) {
    OPLTEST_EXPECT_OK(OPL_SyncMutexAcquire(mutex));
    arena->mutex.StayAlone();
    OPLTEST_EXPECT_OK(OPL_SyncMutexRelease(mutex));
  }
  OPLTEST_EXPECT_OK(OPL_SyncMutexClose(&mutex));
}

void UseRWLock(const Arena<Places>& arena) {
  OPL_SyncRWLock* rwLock = nullptr;
  opltest::CreateOrOpen([&] { return OPL_SyncRWLockCreate(&rwLock, 0, "storm", OPL_SYNC_RWLOCK_PRIVATE); },
                        OPL_SYNC_E_RWLOCK_EXISTS,
                        [&] { return OPL_SyncRWLockOpen(&rwLock, 0, "storm", OPL_SYNC_RWLOCK_PRIVATE); },
                        OPL_SYNC_E_RWLOCK_MISSING);
  for (int round = 0; round < kRounds; ++round) {
    if (round % 5 == 0) {
      OPLTEST_EXPECT_OK(OPL_SyncRWLockLock(rwLock, OPL_SYNC_RWLOCK_EXCLUSIVE));
      arena->writer.StayAlone();
    } else {
      OPLTEST_EXPECT_OK(OPL_SyncRWLockLock(rwLock, OPL_SYNC_RWLOCK_SHARED));
      arena->writer.ExpectEmpty();
    }
    OPLTEST_EXPECT_OK(OPL_SyncRWLockUnlock(rwLock));
  }
  OPLTEST_EXPECT_OK(OPL_SyncRWLockClose(&rwLock));
}

const opltest::PeerBody kGuest("Guest", [](opltest::Steps& steps) {
  Guest guest(steps);
  const Arena<Places> arena;
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  if (guest.Draw(2) == 0) UseMutex(arena);
  UseRWLock(arena);
  if (guest.Draw(2) == 0) UseMutex(arena);
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

class SyncStorm : public ::testing::TestWithParam<unsigned> {};

TEST_P(SyncStorm, LeavesExclusionIntactAndNothingBehind) {
  Storm storm(GetParam());
  storm.Rage([&](Storm::Weather weather) { storm.Blow(kGuest, weather); });
}

INSTANTIATE_TEST_SUITE_P(Seed, SyncStorm, ::testing::Values(1u, 2u));

}  // namespace
