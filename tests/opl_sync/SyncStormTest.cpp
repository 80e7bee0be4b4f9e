// Many processes of both widths come, use a mutex and a read-write lock, and go or are killed: exclusion
// holds and nobody fails or hangs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"

namespace {

using opltest::Peer;
using opltest::SemaphoreSets;

// Shared by all processes through a file in the test's directory. Who is inside writes its process id, so
// that one who was killed inside can be told from one who is there.
struct Arena {
  std::atomic<int32_t> owner;     // inside the mutex
  std::atomic<int32_t> writer;    // inside the read-write lock, alone
  std::atomic<uint32_t> entered;  // how often anything was entered
};
static_assert(std::atomic<int32_t>::is_always_lock_free);

Arena* MapArena() {
  const int fd = ::open("arena", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd == -1 || ::ftruncate(fd, sizeof(Arena)) == -1) std::abort();
  void* const memory = ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (memory == MAP_FAILED) std::abort();
  return static_cast<Arena*>(memory);
}

bool IsAlive(pid_t pid) {
  // A zombie's holds are given back, but it answers to signals.
  std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(status, line)) return false;
  const char state = line[line.rfind(')') + 2];
  return state != 'Z' && state != 'X';
}

// Enters a place that must be empty, stays a moment, and leaves it.
void StayAlone(std::atomic<int32_t>& place, Arena* arena) {
  const int32_t self = ::getpid();
  const int32_t before = place.exchange(self);
  EXPECT_TRUE(before == 0 || !IsAlive(before)) << before << " is inside, too";
  for (int i = 0; i < 50; ++i) EXPECT_EQ(self, place.load());
  ++arena->entered;
  EXPECT_EQ(self, place.exchange(0));
}

template <typename Create, typename Open>
void CreateOrOpen(Create create, uint32_t exists, Open open, uint32_t missing) {
  for (;;) {
    const uint32_t created = create();
    if (created == 0) return;
    ASSERT_EQ(exists, created) << OPL_ErrMessageGet(0);
    const uint32_t opened = open();
    if (opened == 0) return;
    ASSERT_EQ(missing, opened) << OPL_ErrMessageGet(0);
  }
}

#define EXPECT_OK(call) EXPECT_EQ(0u, call) << OPL_ErrMessageGet(0)

void UseMutex(Arena* arena) {
  OPL_SyncMutex* mutex = nullptr;
  CreateOrOpen([&] { return OPL_SyncMutexCreate(&mutex, 0, "storm", OPL_SYNC_MUTEX_PRIVATE); }, 0x050003,
               [&] { return OPL_SyncMutexOpen(&mutex, 0, "storm", OPL_SYNC_MUTEX_PRIVATE); }, 0x050005);
  for (int round = 0; round < 10; ++round) {
    EXPECT_OK(OPL_SyncMutexAcquire(mutex));
    StayAlone(arena->owner, arena);
    EXPECT_OK(OPL_SyncMutexRelease(mutex));
  }
  EXPECT_OK(OPL_SyncMutexClose(&mutex));
}

void UseRWLock(Arena* arena) {
  OPL_SyncRWLock* rwLock = nullptr;
  CreateOrOpen([&] { return OPL_SyncRWLockCreate(&rwLock, 0, "storm", OPL_SYNC_RWLOCK_PRIVATE); }, 0x050014,
               [&] { return OPL_SyncRWLockOpen(&rwLock, 0, "storm", OPL_SYNC_RWLOCK_PRIVATE); }, 0x050016);
  for (int round = 0; round < 10; ++round) {
    if (round % 5 == 0) {
      EXPECT_OK(OPL_SyncRWLockLock(rwLock, OPL_SYNC_RWLOCK_EXCLUSIVE));
      StayAlone(arena->writer, arena);
    } else {
      EXPECT_OK(OPL_SyncRWLockLock(rwLock, OPL_SYNC_RWLOCK_SHARED));
      const int32_t writer = arena->writer;
      EXPECT_TRUE(writer == 0 || !IsAlive(writer)) << writer << " writes while others read";
      ++arena->entered;
    }
    EXPECT_OK(OPL_SyncRWLockUnlock(rwLock));
  }
  EXPECT_OK(OPL_SyncRWLockClose(&rwLock));
}

const opltest::PeerBody kGuest("Guest", [](opltest::Steps& steps) {
  Arena* const arena = MapArena();
  steps.Reach();
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  UseMutex(arena);
  UseRWLock(arena);
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

constexpr int kGuestsAtOnce = 6;
constexpr int kMostGuests = 400;
constexpr std::chrono::seconds kLength{6};

class SyncStorm : public ::testing::TestWithParam<unsigned> {};

TEST_P(SyncStorm, LeavesExclusionIntactAndNothingBehind) {
  Arena* const arena = MapArena();
  std::mt19937 random(GetParam());
  const std::vector<int> widths = opltest::PeerWidths();
  const auto end = std::chrono::steady_clock::now() + kLength;
  std::vector<std::unique_ptr<Peer>> guests;
  int killed = 0;
  for (int count = 0; count < kMostGuests && std::chrono::steady_clock::now() < end; ++count) {
    if (guests.size() == kGuestsAtOnce) {
      const size_t leaving = random() % guests.size();
      if (random() % 3 == 0) {
        // It may have ended by itself: then it must have ended well.
        guests[leaving]->Kill();
        guests[leaving]->ExpectSuccessOrKilledBy(SIGKILL);
        ++killed;
      } else {
        guests[leaving]->ExpectSuccess();
      }
      guests.erase(guests.begin() + static_cast<ptrdiff_t>(leaving));
    }
    guests.push_back(std::make_unique<Peer>(kGuest, widths[random() % widths.size()]));
    if (random() % 2 == 0) guests.back()->Await();
  }
  for (const auto& guest : guests) guest->ExpectSuccess();
  EXPECT_LT(0u, arena->entered);

  // The next process finds everything usable; what the killed left is removed.
  Peer last(kGuest, widths.front());
  last.ExpectSuccess();
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(opltest::IpcDirectory()));
  const std::vector<int> nameless = SemaphoreSets();
  EXPECT_LE(nameless.size(), static_cast<size_t>(killed));
  for (const int set : nameless) opltest::RemoveSet(set);
  EXPECT_EQ(0, ::unlink("arena"));
}

INSTANTIATE_TEST_SUITE_P(Seed, SyncStorm, ::testing::Values(1u, 2u));

}  // namespace
