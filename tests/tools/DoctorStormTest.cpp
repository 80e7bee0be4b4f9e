// Processes of both widths come and go, make and remove: doctor finds nothing, again and again.
#include <gtest/gtest.h>

#include <poll.h>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_SharedMem.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "tests/support/Storm.h"
#include "tests/tools/DoctorRig.h"

namespace {

using opltest::Child;
using opltest::Guest;
using opltest::PeerBody;
using opltest::Steps;
using opltest::Storm;

std::string NameFor(const char* what, uint32_t number) { return what + std::to_string(number); }

void UseMutex(const std::string& name) {
  OPL_SyncMutex* mutex = nullptr;
  opltest::CreateOrOpen([&] { return OPL_SyncMutexCreate(&mutex, 0, name.c_str(), OPL_SYNC_MUTEX_PRIVATE); },
                        OPL_SYNC_E_MUTEX_EXISTS,
                        [&] { return OPL_SyncMutexOpen(&mutex, 0, name.c_str(), OPL_SYNC_MUTEX_PRIVATE); },
                        OPL_SYNC_E_MUTEX_MISSING);
  OPLTEST_EXPECT_OK(OPL_SyncMutexAcquire(mutex));
  OPLTEST_EXPECT_OK(OPL_SyncMutexRelease(mutex));
  OPLTEST_EXPECT_OK(OPL_SyncMutexClose(&mutex));
}

void UseLock(const std::string& name) {
  OPL_SyncRWLock* lock = nullptr;
  opltest::CreateOrOpen([&] { return OPL_SyncRWLockCreate(&lock, 0, name.c_str(), OPL_SYNC_RWLOCK_PRIVATE); },
                        OPL_SYNC_E_RWLOCK_EXISTS,
                        [&] { return OPL_SyncRWLockOpen(&lock, 0, name.c_str(), OPL_SYNC_RWLOCK_PRIVATE); },
                        OPL_SYNC_E_RWLOCK_MISSING);
  OPLTEST_EXPECT_OK(OPL_SyncRWLockLock(lock, OPL_SYNC_RWLOCK_EXCLUSIVE));
  OPLTEST_EXPECT_OK(OPL_SyncRWLockUnlock(lock));
  OPLTEST_EXPECT_OK(OPL_SyncRWLockClose(&lock));
}

void UseBlock(const std::string& name) {
  OPL_SharedMem* memory = nullptr;
  void* address = nullptr;
  opltest::CreateOrOpen(
      [&] { return OPL_SharedMemCreate(&memory, 0, name.c_str(), &address, 64, OPL_SHAREDMEM_PRIVATE); },
      OPL_PRIVATE_E_SHMEM_EXISTS,
      [&] { return OPL_SharedMemOpen(&memory, 0, name.c_str(), &address, OPL_SHAREDMEM_PRIVATE); },
      OPL_PRIVATE_E_SHMEM_MISSING);
  OPLTEST_EXPECT_OK(OPL_SharedMemClose(&memory));
}

void UseEvent(const std::string& name) {
  OPL_SyncEvent* event = nullptr;
  opltest::CreateOrOpen([&] { return OPL_SyncEventCreate(&event, 0, name.c_str(), OPL_SYNC_EVENT_PRIVATE); },
                        OPL_SYNC_E_EVENT_EXISTS,
                        [&] { return OPL_SyncEventOpen(&event, 0, name.c_str(), OPL_SYNC_EVENT_PRIVATE); },
                        OPL_SYNC_E_OPEN);
  OPLTEST_EXPECT_OK(OPL_SyncEventPost(event));
  OPLTEST_EXPECT_OK(OPL_SyncEventClose(&event));
}

void UseSocket(const std::string& name) {
  OPL_SocketAddress* address = nullptr;
  OPL_Socket* socket = nullptr;
  OPLTEST_EXPECT_OK(OPL_SocketAddressCreate(&address, 0));
  OPLTEST_EXPECT_OK(OPL_SocketAddressUnixSet(address, name.c_str()));
  OPLTEST_EXPECT_OK(OPL_SocketCreate(&socket, 0));
  OPLTEST_EXPECT_OK(OPL_SocketOpen(socket, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
  OPLTEST_EXPECT_OK(OPL_SocketBind(socket, address));
  OPLTEST_EXPECT_OK(OPL_SocketDestroy(&socket));
  OPLTEST_EXPECT_OK(OPL_SocketAddressDestroy(&address));
}

const PeerBody kGuest("Guest", [](Steps& steps) {
  Guest guest(steps);
  OPLTEST_EXPECT_OK(OPL_InitBegin(0));
  for (int round = 0; round < 20; ++round) {
    UseMutex(NameFor("m", guest.Draw(3)));
    UseLock(NameFor("l", guest.Draw(3)));
    UseBlock(NameFor("b", guest.Draw(3)));
    UseEvent(NameFor("e", guest.Draw(3)));
    UseSocket(NameFor("s", guest.number()));
  }
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
});

TEST(DoctorStorm, FindsNothingWhileProcessesComeAndGo) {
  constexpr int kRuns = 20;
  int ends[2];
  ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
  Child weather([&](Steps& steps) {
    (void)::close(ends[1]);
    Storm storm(1);
    steps.Reach();
    // Until the test closes its end.
    for (pollfd end{ends[0], POLLIN, 0}; ::poll(&end, 1, 0) == 0 && !::testing::Test::HasFailure();)
      storm.Blow(kGuest, Storm::kCalm);
  });
  (void)::close(ends[0]);
  weather.Await();
  for (int run = 0; run < kRuns; ++run) opltest::ExpectHealthy();
  (void)::close(ends[1]);
  weather.ExpectSuccess();
}

}  // namespace
