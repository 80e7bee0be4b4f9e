// OPL_SyncRWLockLock and OPL_SyncRWLockUnlock: readers, writers, holds by thread, waits and their ends.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/Faults.h"

namespace {

using opltest::AwaitSleepersForZero;
using opltest::AwaitSleepersOn;
using opltest::ExpectError;
using opltest::Fault;
using opltest::NewRWLock;
using opltest::NumberAndText;
using opltest::RWLockFile;
using opltest::SetNamedBy;
using opltest::SyncActor;
using opltest::ValueOf;
using opltest::ValuesOf;

constexpr uint32_t kShared = 1;
constexpr uint32_t kExclusive = 2;
constexpr uint32_t kPrivate = 0x01;
constexpr uint32_t kRestart = 0x10;
enum { kGate, kWriters, kReaders };

const opltest::Values kFree = {1, 0, 0, 31999};
const opltest::Values kOneReader = {1, 0, 1, 31999};
const opltest::Values kOneWriter = {0, 1, 0, 31999};

class SyncRWLockLock : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    Make(kPrivate);
  }
  void TearDown() override {
    EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
    EXPECT_EQ(nullptr, rwLock_);
    Instance::TearDown();
  }

  void Make(uint32_t flags) {
    if (rwLock_ != nullptr) (void)OPL_SyncRWLockClose(&rwLock_);
    rwLock_ = NewRWLock("q", flags);
    id_ = SetNamedBy(RWLockFile("q"));
  }

  // Locks and unlocks in a thread of its own.
  std::thread Lock(uint32_t mode) {
    return std::thread([this, mode] {
      EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, mode));
      EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
    });
  }

  OPL_SyncRWLock* rwLock_ = nullptr;
  int id_ = -1;
};

using SyncRWLockUnlock = SyncRWLockLock;

TEST_F(SyncRWLockLock, RefusesNull) {
  EXPECT_EQ(0x050046u, OPL_SyncRWLockLock(nullptr, 3));
  ExpectError(0x050046, "OPL_SyncRWLockLock: phRWLock is NULL");
}

TEST_F(SyncRWLockUnlock, RefusesNull) {
  EXPECT_EQ(0x050046u, OPL_SyncRWLockUnlock(nullptr));
  ExpectError(0x050046, "OPL_SyncRWLockUnlock: phRWLock is NULL");
}

TEST_F(SyncRWLockLock, RefusesOtherModes) {
  EXPECT_EQ(0x050019u, OPL_SyncRWLockLock(rwLock_, 3));
  ExpectError(0x050019, "OPL_SyncRWLockLock: Invalid flag 3");
  EXPECT_EQ(0x050019u, OPL_SyncRWLockLock(rwLock_, 0));
  ExpectError(0x050019, "OPL_SyncRWLockLock: Invalid flag 0");
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, CountsAReader) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  EXPECT_EQ(kOneReader, ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, ClosesTheGateForAWriter) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kExclusive));
  EXPECT_EQ(kOneWriter, ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockUnlock, RefusesAThreadThatHoldsNothingWithoutAMessage) {
  (void)OPL_ErrSet(0, 7, "from before");
  EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(rwLock_));
  ExpectError(7, "from before");
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockUnlock, RefusesASecondOne) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockUnlock, RefusesAnotherThreadThanTheHolder) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kExclusive));
  std::thread([&] { EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(rwLock_)); }).join();
  EXPECT_EQ(kOneWriter, ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
}

TEST_F(SyncRWLockUnlock, RefusesAnotherHandleOfTheLock) {
  OPL_SyncRWLock* other = opltest::OpenRWLock("q");
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(other));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&other));
}

TEST_F(SyncRWLockLock, LetsTwoThreadsReadAndAWriterWaitForBoth) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  std::thread([&] { EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared)); }).join();
  EXPECT_EQ((opltest::Values{1, 0, 2, 31999}), ValuesOf(id_));
  std::thread writer = Lock(kExclusive);
  AwaitSleepersForZero(id_, kReaders);
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  AwaitSleepersForZero(id_, kReaders);
  EXPECT_EQ(kOneReader, ValuesOf(id_));
  opltest::SetValue(id_, kReaders, 0);  // the reader that has ended never unlocked
  writer.join();
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, LetsNewReadersPassAWaitingWriter) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  std::thread writer = Lock(kExclusive);
  AwaitSleepersForZero(id_, kReaders);
  Lock(kShared).join();
  AwaitSleepersForZero(id_, kReaders);
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  writer.join();
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, MakesReadersAndWritersWaitForAWriter) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kExclusive));
  std::thread reader = Lock(kShared);
  std::thread writer = Lock(kExclusive);
  AwaitSleepersForZero(id_, kWriters);
  AwaitSleepersOn(id_, kGate);
  EXPECT_EQ(kOneWriter, ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  reader.join();
  writer.join();
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, ForgetsTheFirstHoldOfAThreadThatLocksTwice) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  EXPECT_EQ((opltest::Values{1, 0, 2, 31999}), ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(kOneReader, ValuesOf(id_));
}

class SyncRWLockInterrupted : public SyncRWLockLock {
 protected:
  static inline std::atomic<int> gSignals{0};

  // Holds the lock exclusively from outside, lets a thread wait, interrupts it.
  uint32_t InterruptAReader(bool thenRelease) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++gSignals; };
    EXPECT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    opltest::SetValue(id_, kWriters, 1);
    uint32_t code = 0;
    std::thread reader([&] {
      code = OPL_SyncRWLockLock(rwLock_, kShared);
      if (code == 0) {
        EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
      } else {
        ExpectError(EINTR, ("OPL_SyncRWLockLock: semop error :" + NumberAndText(EINTR)).c_str());
        EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(rwLock_));
      }
    });
    AwaitSleepersForZero(id_, kWriters);
    EXPECT_EQ(0, ::pthread_kill(reader.native_handle(), SIGUSR1));
    if (thenRelease) {
      while (gSignals == 0) std::this_thread::yield();
      AwaitSleepersForZero(id_, kWriters);
      opltest::SetValue(id_, kWriters, 0);
    }
    reader.join();
    opltest::SetValue(id_, kWriters, 0);
    return code;
  }
};

TEST_F(SyncRWLockInterrupted, FailsWithoutTheRestartFlag) {
  EXPECT_EQ(0x050042u, InterruptAReader(false));
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockInterrupted, WaitsOnWithTheRestartFlag) {
  Make(kPrivate | kRestart);
  EXPECT_EQ(0u, InterruptAReader(true));
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockUnlock, KeepsTheHoldWhenItIsInterruptedWithoutTheRestartFlag) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kExclusive));
  {
    Fault fault("semop", 1, EINTR);
    EXPECT_EQ(0x050042u, OPL_SyncRWLockUnlock(rwLock_));
  }
  ExpectError(EINTR, ("OPL_SyncRWLockUnlock: semop error :" + NumberAndText(EINTR)).c_str());
  EXPECT_EQ(kOneWriter, ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
}

TEST_F(SyncRWLockUnlock, RepeatsWhenItIsInterruptedWithTheRestartFlag) {
  Make(kPrivate | kRestart);
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  Fault fault("semop", 1, EINTR);
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, FailsWhenTheSystemRefuses) {
  for (const int number : {EIO, EIDRM, EINVAL}) {
    SCOPED_TRACE(number);
    Fault fault("semop", 1, number);
    EXPECT_EQ(0x050023u, OPL_SyncRWLockLock(rwLock_, kExclusive));
    ExpectError(static_cast<uint32_t>(number),
                ("OPL_SyncRWLockLock: semop error :" + NumberAndText(number)).c_str());
    EXPECT_EQ(0x050018u, OPL_SyncRWLockUnlock(rwLock_));
  }
}

TEST_F(SyncRWLockUnlock, KeepsTheHoldWhenTheSystemRefuses) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  {
    Fault fault("semop", 1, EIO);
    EXPECT_EQ(0x050023u, OPL_SyncRWLockUnlock(rwLock_));
  }
  ExpectError(EIO, ("OPL_SyncRWLockUnlock: semop error :" + NumberAndText(EIO)).c_str());
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(kFree, ValuesOf(id_));
}

TEST_F(SyncRWLockLock, GivesBackWhatTheThreadCannotRemember) {
  for (const uint32_t mode : {kShared, kExclusive}) {
    SCOPED_TRACE(mode);
    Fault fault("pthread_setspecific", 1, ENOMEM);
    EXPECT_EQ(0x05030Du, OPL_SyncRWLockLock(rwLock_, mode));
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(kFree, ValuesOf(id_));
  }
}

class SyncRWLockRemoved : public opltest::Instance {};

TEST_F(SyncRWLockRemoved, FailsThreadsThatWait) {
  OPL_SyncRWLock* rwLock = NewRWLock("q");
  const int id = SetNamedBy(RWLockFile("q"));
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock, kShared));
  std::thread writer([&] {
    EXPECT_EQ(0x050023u, OPL_SyncRWLockLock(rwLock, kExclusive));
    ExpectError(EIDRM, ("OPL_SyncRWLockLock: semop error :" + NumberAndText(EIDRM)).c_str());
  });
  AwaitSleepersForZero(id, kReaders);
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  writer.join();
  EXPECT_EQ(0x050023u, OPL_SyncRWLockUnlock(rwLock));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock));
  std::free(rwLock);
}

class SyncRWLockLockByPeer : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    rwLock_ = NewRWLock("q");
    id_ = SetNamedBy(RWLockFile("q"));
    EXPECT_EQ(0u, actor_.Do("begin"));
    EXPECT_EQ(0u, actor_.Do("rwlock-open q 1"));
  }
  void TearDown() override {
    EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
    WithPeer::TearDown();
  }
  void Dismiss() {
    EXPECT_EQ(0u, actor_.Do("rwlock-close q"));
    EXPECT_EQ(0u, actor_.Do("end"));
    actor_.Quit();
  }

  OPL_SyncRWLock* rwLock_ = nullptr;
  int id_ = -1;
  SyncActor actor_{GetParam()};
};
OPLTEST_WITH_EITHER_PEER(SyncRWLockLockByPeer);

TEST_P(SyncRWLockLockByPeer, SharesWithAReadingPeer) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  EXPECT_EQ(0u, actor_.Do("rwlock-lock q 1"));
  EXPECT_EQ((opltest::Values{1, 0, 2, 31998}), ValuesOf(id_));
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0u, actor_.Do("rwlock-unlock q"));
  Dismiss();
}

TEST_P(SyncRWLockLockByPeer, KeepsAWritingPeerOut) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kShared));
  actor_.Start("rwlock-lock q 2");
  AwaitSleepersForZero(id_, kReaders);
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0u, actor_.Finish());
  EXPECT_EQ((opltest::Values{0, 1, 0, 31998}), ValuesOf(id_));
  EXPECT_EQ(0u, actor_.Do("rwlock-unlock q"));
  Dismiss();
}

TEST_P(SyncRWLockLockByPeer, KeepsAReadingPeerOutWhileThisProcessWrites) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kExclusive));
  EXPECT_EQ(0x050018u, actor_.Do("rwlock-unlock q"));
  actor_.Start("rwlock-lock q 1");
  AwaitSleepersForZero(id_, kWriters);
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0u, actor_.Finish());
  EXPECT_EQ(0u, actor_.Do("rwlock-unlock q"));
  Dismiss();
}

TEST_P(SyncRWLockLockByPeer, GetsBackWhatAPeerHeldThatDies) {
  for (const char* const command : {"rwlock-lock q 1", "rwlock-lock q 2"}) {
    SCOPED_TRACE(command);
    SyncActor holder(GetParam());
    EXPECT_EQ(0u, holder.Do("begin"));
    EXPECT_EQ(0u, holder.Do("rwlock-open q 1"));
    EXPECT_EQ(0u, holder.Do(command));
    std::thread writer([&] {
      EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, kExclusive));
      EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
    });
    if (ValueOf(id_, kReaders) != 0)
      AwaitSleepersForZero(id_, kReaders);
    else
      AwaitSleepersOn(id_, kGate);
    holder.Kill();
    writer.join();
  }
  Dismiss();
  EXPECT_EQ(kFree, ValuesOf(id_));
}

}  // namespace
