// OPL_SyncMutexAcquire and OPL_SyncMutexRelease: ownership by thread, recursion, waits and their ends.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/sem.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/Faults.h"

namespace {

using opltest::AwaitSleepersOn;
using opltest::CloseOpened;
using opltest::ExpectError;
using opltest::Fault;
using opltest::NewMutex;
using opltest::NumberAndText;
using opltest::OpenMutex;
using opltest::RecordOf;
using opltest::SyncActor;
using opltest::ValueOf;

constexpr uint32_t kPrivate = 0x04;
constexpr uint32_t kRestart = 0x10;
constexpr int kLock = 0;

class SyncMutexAcquire : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    Make(kPrivate);
  }
  void TearDown() override {
    EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
    Instance::TearDown();
  }

  void Make(uint32_t flags) {
    if (mutex_ != nullptr) (void)OPL_SyncMutexClose(&mutex_);
    mutex_ = NewMutex("q", flags);
    id_ = RecordOf(mutex_).semId;
  }

  std::string SemopMessage(const char* function, int number) const {
    return std::string(function) + "(q): semop(" + std::to_string(id_) + ") error :" + NumberAndText(number);
  }

  OPL_SyncMutex* mutex_ = nullptr;
  int id_ = -1;
};

using SyncMutexRelease = SyncMutexAcquire;

TEST_F(SyncMutexAcquire, RefusesNull) {
  EXPECT_EQ(0x050046u, OPL_SyncMutexAcquire(nullptr));
  ExpectError(0x050046, "OPL_SyncMutexAcquire: hMutex is NULL");
}

TEST_F(SyncMutexRelease, RefusesNull) {
  EXPECT_EQ(0x050046u, OPL_SyncMutexRelease(nullptr));
  ExpectError(0x050046, "OPL_SyncMutexRelease: hMutex is NULL");
}

TEST_F(SyncMutexAcquire, TakesTheSemaphoreOnceHoweverOftenTheOwnerAcquires) {
  uint32_t self = 0;
  ASSERT_EQ(0u, OPL_ThreadIdGet(&self));
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(1u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(self, RecordOf(mutex_).ownerThread);
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(2u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(1u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(1, ValueOf(id_, kLock));
  EXPECT_EQ(0u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(0u, RecordOf(mutex_).ownerThread);
}

TEST_F(SyncMutexRelease, RefusesAThirdOneAfterTwo) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(0x05002Cu, OPL_SyncMutexRelease(mutex_));
  ExpectError(0x05002C, "OPL_SyncMutexRelease: not owner");
  EXPECT_EQ(1, ValueOf(id_, kLock));
}

TEST_F(SyncMutexRelease, RefusesAMutexThatNobodyOwns) {
  EXPECT_EQ(0x05002Cu, OPL_SyncMutexRelease(mutex_));
  ExpectError(0x05002C, "OPL_SyncMutexRelease: not owner");
  EXPECT_EQ(1, ValueOf(id_, kLock));
}

TEST_F(SyncMutexRelease, RefusesAnotherThreadAndChangesNothing) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  const opltest::MutexRecord before = RecordOf(mutex_);
  std::thread([&] {
    EXPECT_EQ(0x05002Cu, OPL_SyncMutexRelease(mutex_));
    ExpectError(0x05002C, "OPL_SyncMutexRelease: not owner");
  }).join();
  const opltest::MutexRecord after = RecordOf(mutex_);
  EXPECT_EQ(0, std::memcmp(&before, &after, sizeof before));
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
}

TEST_F(SyncMutexRelease, RefusesASecondHandleOfTheOwningThread) {
  OPL_SyncMutex* other = OpenMutex("q");
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(0x05002Cu, OPL_SyncMutexRelease(other));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  CloseOpened(other);
}

TEST_F(SyncMutexAcquire, MakesAnotherThreadWait) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  std::atomic<bool> isReleased{false};
  std::thread other([&] {
    EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
    EXPECT_TRUE(isReleased);
    EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  });
  AwaitSleepersOn(id_, kLock);
  isReleased = true;
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  other.join();
  EXPECT_EQ(1, ValueOf(id_, kLock));
}

TEST_F(SyncMutexAcquire, CountsRightAmongThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  int count = 0;  // guarded by the mutex
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
        // The kernel orders the threads, which a checker of data races cannot see.
        __atomic_store_n(&count, __atomic_load_n(&count, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
        ASSERT_EQ(0u, OPL_SyncMutexRelease(mutex_));
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kRounds, count);
  EXPECT_EQ(1, ValueOf(id_, kLock));
}

// A thread that is ended by a signal's arrival in the middle of its wait.
class SyncMutexInterrupted : public SyncMutexAcquire {
 protected:
  static inline std::atomic<int> gSignals{0};

  // Holds the lock from outside, lets a thread wait, interrupts it.
  uint32_t InterruptAWaiter(bool thenRelease) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++gSignals; };
    EXPECT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    opltest::SetValue(id_, kLock, 0);
    uint32_t code = 0;
    std::thread waiter([&] {
      code = OPL_SyncMutexAcquire(mutex_);
      if (code == 0)
        EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
      else
        ExpectError(EINTR, "OPL_SyncMutexAcquire: semop interrupted");
    });
    AwaitSleepersOn(id_, kLock);
    EXPECT_EQ(0, ::pthread_kill(waiter.native_handle(), SIGUSR1));
    if (thenRelease) {
      while (gSignals == 0) std::this_thread::yield();
      AwaitSleepersOn(id_, kLock);
      opltest::SetValue(id_, kLock, 1);
    }
    waiter.join();
    opltest::SetValue(id_, kLock, 1);
    return code;
  }
};

TEST_F(SyncMutexInterrupted, FailsWithoutTheRestartFlag) {
  EXPECT_EQ(0x050042u, InterruptAWaiter(false));
  EXPECT_EQ(0u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(1, gSignals);
}

TEST_F(SyncMutexInterrupted, WaitsOnWithTheRestartFlag) {
  Make(kPrivate | kRestart);
  EXPECT_EQ(0u, InterruptAWaiter(true));
  EXPECT_EQ(1, gSignals);
}

TEST_F(SyncMutexRelease, FailsWhenInterruptedWithoutTheRestartFlag) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  {
    Fault fault("semop", 1, EINTR);
    EXPECT_EQ(0x050042u, OPL_SyncMutexRelease(mutex_));
  }
  ExpectError(EINTR, "OPL_SyncMutexRelease: semop interrupted");
  EXPECT_EQ(0u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(0u, RecordOf(mutex_).ownerThread);
  EXPECT_EQ(0x05002Cu, OPL_SyncMutexRelease(mutex_));
}

TEST_F(SyncMutexRelease, RepeatsWhenInterruptedWithTheRestartFlag) {
  Make(kPrivate | kRestart);
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  Fault fault("semop", 1, EINTR);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(1, ValueOf(id_, kLock));
}

TEST_F(SyncMutexRelease, FailsWhenTheSystemRefusesAndOwnsNothingAnyMore) {
  for (const int number : {EIO, EIDRM, EINVAL}) {
    SCOPED_TRACE(number);
    opltest::SetValue(id_, kLock, 1);
    EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
    Fault fault("semop", 1, number);
    EXPECT_EQ(0x050023u, OPL_SyncMutexRelease(mutex_));
    ExpectError(static_cast<uint32_t>(number),
                ("OPL_SyncMutexRelease: semop error :" + NumberAndText(number)).c_str());
    EXPECT_EQ(0u, RecordOf(mutex_).lockCount);
  }
}

struct Refusal {
  int number;
  uint32_t code;
};

TEST_F(SyncMutexAcquire, NamesTheMutexWhenTheSystemRefuses) {
  for (const Refusal refusal :
       {Refusal{EINVAL, 0x050005}, {EIDRM, 0x050005}, {EIO, 0x050023}, {EFBIG, 0x050023}}) {
    SCOPED_TRACE(refusal.number);
    Fault fault("semop", 1, refusal.number);
    EXPECT_EQ(refusal.code, OPL_SyncMutexAcquire(mutex_));
    ExpectError(static_cast<uint32_t>(refusal.number),
                SemopMessage("OPL_SyncMutexAcquire", refusal.number).c_str());
    EXPECT_EQ(0u, RecordOf(mutex_).lockCount);
  }
}

class SyncMutexRemoved : public opltest::Instance {};

TEST_F(SyncMutexRemoved, IsMissingForThreadsThatWait) {
  OPL_SyncMutex* mutex = NewMutex("q");
  const int id = RecordOf(mutex).semId;
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex));
  std::thread waiter([&] {
    EXPECT_EQ(0x050005u, OPL_SyncMutexAcquire(mutex));
    ExpectError(EIDRM,
                ("OPL_SyncMutexAcquire(q): semop(" + std::to_string(id) + ") error :" + NumberAndText(EIDRM))
                    .c_str());
  });
  AwaitSleepersOn(id, kLock);
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  waiter.join();
  EXPECT_EQ(0x050023u, OPL_SyncMutexRelease(mutex));
  EXPECT_EQ(0x050005u, OPL_SyncMutexClose(&mutex));
  std::free(mutex);
}

class SyncMutexAcquireByPeer : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    mutex_ = NewMutex("q");
    id_ = RecordOf(mutex_).semId;
    EXPECT_EQ(0u, actor_.Do("begin"));
    EXPECT_EQ(0u, actor_.Do("mutex-open q 4"));
  }
  void TearDown() override {
    EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
    WithPeer::TearDown();
  }

  OPL_SyncMutex* mutex_ = nullptr;
  int id_ = -1;
  SyncActor actor_{GetParam()};
};
OPLTEST_WITH_EITHER_PEER(SyncMutexAcquireByPeer);

TEST_P(SyncMutexAcquireByPeer, ExcludesThePeer) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(0x05002Cu, actor_.Do("mutex-release q"));
  EXPECT_EQ("OPL_SyncMutexRelease: not owner", actor_.Message());
  actor_.Start("mutex-acquire q");
  AwaitSleepersOn(id_, kLock);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(0u, actor_.Finish());
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(0u, actor_.Do("mutex-release q"));
  EXPECT_EQ(0u, actor_.Do("mutex-close q"));
  EXPECT_EQ(0u, actor_.Do("end"));
  actor_.Quit();
}

TEST_P(SyncMutexAcquireByPeer, GetsTheMutexOfAPeerThatDiesAsItsOwner) {
  EXPECT_EQ(0u, actor_.Do("mutex-acquire q"));
  EXPECT_EQ(0u, actor_.Do("mutex-acquire q"));
  std::thread waiter([&] {
    EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
    EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  });
  AwaitSleepersOn(id_, kLock);
  actor_.Kill();
  waiter.join();
  EXPECT_EQ((opltest::Values{1, 31999}), opltest::ValuesOf(id_));
}

TEST_P(SyncMutexAcquireByPeer, TakesAHoldBackWhenThePeerEndsWithoutReleasing) {
  EXPECT_EQ(0u, actor_.Do("mutex-acquire q"));
  actor_.Exit();
  EXPECT_EQ((opltest::Values{1, 31999}), opltest::ValuesOf(id_));
}

TEST_P(SyncMutexAcquireByPeer, LeavesAPeerThatDiesWaitingOutOfTheQueue) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  actor_.Start("mutex-acquire q");
  AwaitSleepersOn(id_, kLock);
  actor_.Kill();
  AwaitSleepersOn(id_, kLock, 0);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ((opltest::Values{1, 31999}), opltest::ValuesOf(id_));
}

}  // namespace
