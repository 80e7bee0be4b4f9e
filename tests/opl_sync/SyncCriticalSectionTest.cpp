// Critical sections: who makes them, whom they exclude, and what their failures report.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <thread>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Child;
using opltest::ExpectError;
using opltest::Fault;
using opltest::Replacement;
using opltest::Steps;

constexpr uint32_t kDecoy = Fault::kDecoy;

TEST(SyncCriticalSectionRecord, BeginsWithItsInitialisedField) {
  EXPECT_EQ(0u, offsetof(OPL_SyncCriticalSection, initialised));
  EXPECT_EQ(4u, sizeof(OPL_SyncCriticalSection::initialised));
}

TEST(SyncCriticalSectionRecord, OfTheLibraryIsZeroAtLoad) {
  const OPL_SyncCriticalSection zero{};
  EXPECT_EQ(0, std::memcmp(&zero, &gCrit, sizeof zero));
}

TEST(SyncCriticalSectionBeforeBegin, IsRefusedAndLeftAlone) {
  const OPL_SyncCriticalSection zero{};
  OPL_SyncCriticalSection section{};
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionInit(&section));
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionEnter(&section));
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionLeave(&section));
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionUnInit(&section));
  EXPECT_EQ(0, std::memcmp(&zero, &section, sizeof zero));
}

TEST(SyncCriticalSectionBeforeBegin, IsRefusedBeforeANullIs) {
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionInit(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionEnter(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionLeave(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncCriticalSectionUnInit(nullptr));
}

TEST(SyncProcessInitCrit, DoesNothingInAnyMode) {
  EXPECT_EQ(OPL_OK, OPL_SyncProcessInitCrit(0));
  EXPECT_EQ(OPL_OK, OPL_SyncProcessInitCrit(7));
}

class SyncCriticalSection : public opltest::Instance {
 protected:
  OPL_SyncCriticalSection section_{};
};

TEST_F(SyncCriticalSection, RefusesANullOnInit) {
  EXPECT_EQ(0x050046u, OPL_SyncCriticalSectionInit(nullptr));
  ExpectError(0x050046, "OPL_SyncCriticalSectionInit: pCritSec is NULL");
}

TEST_F(SyncCriticalSection, RefusesANullOnUnInit) {
  EXPECT_EQ(0x050046u, OPL_SyncCriticalSectionUnInit(nullptr));
  ExpectError(0x050046, "OPL_SyncCriticalSectionUnInit: pCritSec is NULL");
}

TEST_F(SyncCriticalSection, RefusesANullOnEnter) {
  EXPECT_EQ(0x050046u, OPL_SyncCriticalSectionEnter(nullptr));
  ExpectError(0x050046, "OPL_SyncCriticalSectionEnter: pCritSec is NULL");
}

TEST_F(SyncCriticalSection, RefusesANullOnLeave) {
  EXPECT_EQ(0x050046u, OPL_SyncCriticalSectionLeave(nullptr));
  ExpectError(0x050046, "OPL_SyncCriticalSectionLeave: pCritSec is NULL");
}

TEST_F(SyncCriticalSection, IsInitialisedEnteredAndLeft) {
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  EXPECT_EQ(1, section_.initialised);
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionUnInit(&section_));
}

TEST_F(SyncCriticalSection, IsMadeOnceWhenItIsInitialisedTwice) {
  const Fault making("pthread_mutex_init", 100, EIO);
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&gCrit));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&gCrit));
  EXPECT_EQ(1, making.Calls());
  EXPECT_EQ(1, gCrit.initialised);
}

TEST_F(SyncCriticalSection, IsMadeOnceWhenThreadsInitialiseItAtOnce) {
  const Fault making("pthread_mutex_init", 100, EIO);
  int inside = 0;
  opltest::RunAtOnce(8, [&](int) {
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
    ++inside;
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
  });
  EXPECT_EQ(1, making.Calls());
  EXPECT_EQ(8, inside);
}

TEST_F(SyncCriticalSection, CanBeInitialisedWhileAThreadIsInside) {
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  std::thread([&] { EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_)); }).join();
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
}

TEST_F(SyncCriticalSection, ExcludesThreadsFromEachOther) {
  constexpr int kRounds = 20000;
  volatile int count = 0;
  opltest::RunAtOnce(4, [&](int) {
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&gCrit));
      ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&gCrit));
      count = count + 1;
      ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&gCrit));
    }
  });
  EXPECT_EQ(4 * kRounds, count);
}

TEST_F(SyncCriticalSection, DoesNotExcludeThoseOfAnother) {
  OPL_SyncCriticalSection another{};
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&another));
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&another));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&another));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
}

// The child has not got the thread, and would wait for it for ever.
TEST_F(SyncCriticalSection, LetsAForkWaitForAThreadThatInitialisesOne) {
  std::atomic<bool> makes{false};
  std::atomic<bool> forked{false};
  const pid_t forking = ::gettid();
  const opltest::DetachedThread maker([&] {
    const Fault making("pthread_mutex_init", 1, [&] {
      makes = true;
      opltest::AwaitSleepOnLock(forking);
      EXPECT_FALSE(forked);
    });
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
    EXPECT_TRUE(making.Fired());
  });
  while (!makes) std::this_thread::yield();
  Child child([](Steps&) {
    OPL_SyncCriticalSection own{};
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&own));
  });
  forked = true;
  child.ExpectSuccess();
}

TEST_F(SyncCriticalSection, IsNotRecursive) {
  Child child([this](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
    steps.Reach();
    (void)OPL_SyncCriticalSectionEnter(&section_);
    steps.Send("entered twice");
  });
  child.Await();
  child.AwaitSleepOnLock();
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
}

TEST_F(SyncCriticalSection, IsEnteredWhetherItWasInitialisedOrNot) {
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
  EXPECT_EQ(0, section_.initialised);
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
}

TEST_F(SyncCriticalSection, StaysMarkedAfterUnInit) {
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionUnInit(&section_));
  EXPECT_EQ(1, section_.initialised);
  const Fault making("pthread_mutex_init", 100, EIO);
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  EXPECT_EQ(0, making.Calls());
}

TEST_F(SyncCriticalSection, IsNotDestroyedWhenItWasNeverInitialised) {
  const Fault destroying("pthread_mutex_destroy", 100, EIO);
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionUnInit(&section_));
  EXPECT_EQ(0, destroying.Calls());
  EXPECT_EQ(0, section_.initialised);
}

TEST_F(SyncCriticalSection, IsDestroyedWithoutLookingAtTheResult) {
  opltest::InNewThread([&] {
    ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
    const Fault fault("pthread_mutex_destroy", 1, EBUSY);
    EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionUnInit(&section_));
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(static_cast<uint32_t>(OPL_ERR_E_NO_RECORD), OPL_ErrCodeGet(0));
  });
}

// The thread functions return their error number; the module looks at errno instead, which holds the decoy
// here. Results are taken while the fault is in force and looked at after: the test's own framework locks.
class SyncCriticalSectionFailing : public SyncCriticalSection {};

TEST_F(SyncCriticalSectionFailing, TellsThatTheMutexIsRefused) {
  {
    const Fault fault("pthread_mutex_init", 1, ENOMEM);
    EXPECT_EQ(0x05003Cu, OPL_SyncCriticalSectionInit(&section_));
  }
  EXPECT_EQ(0, section_.initialised);
  ExpectError(kDecoy, "OPL_SyncCriticalSectionInit: pthread_mutex_init :95,Operation not supported");
}

TEST_F(SyncCriticalSectionFailing, IsInitialisedByTheNextCall) {
  {
    const Fault fault("pthread_mutex_init", 1, ENOMEM);
    EXPECT_EQ(0x05003Cu, OPL_SyncCriticalSectionInit(&section_));
  }
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  EXPECT_EQ(1, section_.initialised);
}

TEST_F(SyncCriticalSectionFailing, OpensWithTheNumberWhenTheModulesLockIsRefused) {
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_lock", 1, EINVAL);
    result = OPL_SyncCriticalSectionInit(&section_);
  }
  EXPECT_EQ(0x05003Du, result);
  EXPECT_EQ(0, section_.initialised);
  ExpectError(kDecoy, "95: pthread_mutex_lock :95,Operation not supported");
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
}

// The module's own lock, which a refused release leaves held. The test releases it in the end.
pthread_mutex_t* gHeld = nullptr;

TEST_F(SyncCriticalSectionFailing, IsInitialisedAlthoughTheModulesLockIsNotReleased) {
  OPL_Result result;
  {
    const Replacement refusal(
        "pthread_mutex_unlock", +[](pthread_mutex_t* mutex) {
          gHeld = mutex;
          errno = Fault::kDecoy;
          return EPERM;
        });
    result = OPL_SyncCriticalSectionInit(&section_);
  }
  ASSERT_NE(nullptr, gHeld);
  EXPECT_EQ(0, pthread_mutex_unlock(gHeld));
  EXPECT_EQ(OPL_OK, result);
  EXPECT_EQ(1, section_.initialised);
  ExpectError(kDecoy, "UnlockProcess: pthread_mutex_unlock :95,Operation not supported");
}

TEST_F(SyncCriticalSectionFailing, TellsThatEnteringIsRefused) {
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_lock", 1, EINVAL);
    result = OPL_SyncCriticalSectionEnter(&section_);
  }
  EXPECT_EQ(0x05003Du, result);
  ExpectError(kDecoy, "OPL_SyncCriticalSectionEnter: pthread_mutex_lock :95,Operation not supported");
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
}

TEST_F(SyncCriticalSectionFailing, TellsThatLeavingIsRefused) {
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionInit(&section_));
  ASSERT_EQ(OPL_OK, OPL_SyncCriticalSectionEnter(&section_));
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_unlock", 1, EPERM);
    result = OPL_SyncCriticalSectionLeave(&section_);
  }
  EXPECT_EQ(0x05003Eu, result);
  ExpectError(kDecoy, "OPL_SyncCriticalSectionLeave: pthread_mutex_unlock :95,Operation not supported");
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionLeave(&section_));
}

}  // namespace
