// The use count of a named object's set.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "OPL_Private.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/SignalStream.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"

namespace {

using opltest::Child;
using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::Steps;
using opltest::Values;

constexpr uint32_t kIndex = 1;

class PrivateUseCount : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    set_ = opltest::MakeSet({5, OPL_PRIVATE_USE_COUNT_LIMIT});
    ASSERT_NE(-1, set_);
  }
  void TearDown() override {
    opltest::RemoveSet(set_);
    Instance::TearDown();
  }

  std::string SemopFailure(const std::string& function, const std::string& what) const {
    return function + ": semop(" + std::to_string(set_) + ") failed :" + what;
  }

  int set_ = -1;
};

// No set has so many semaphores; what counts is that these numbers do not come to stand for others.
constexpr uint32_t kNumbersOfNone[] = {0x10000, 0x10000 + kIndex, UINT32_MAX};

class PrivateUseCountAccess : public PrivateUseCount {};
class PrivateUseCountRelease : public PrivateUseCount {};
class PrivateUseCountExclusive : public PrivateUseCount {};

TEST_F(PrivateUseCountAccess, TakesOneOfTheNamedSemaphore) {
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_EQ((Values{5, 31999}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, 0));
  EXPECT_EQ((Values{4, 31999}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountAccess, IsGivenBackWhenTheProcessDies) {
  Child child([&](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  EXPECT_EQ((Values{5, 31999}), opltest::ValuesOf(set_));
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountAccess, WaitsWhileTheCountIsExhausted) {
  opltest::SetValue(set_, kIndex, 0);
  const Fault fault("semtimedop", 3, [&] { opltest::SetValue(set_, kIndex, 1); });
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_EQ(3, fault.Calls());
  EXPECT_EQ((Values{5, 0}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountAccess, GoesOnWhenAnotherProcessGivesBack) {
  opltest::SetValue(set_, kIndex, 0);
  Child child([&](Steps&) {
    while (opltest::WaitersOf(set_, kIndex) == 0) {
    }
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountRelease(set_, kIndex));
    // Ending here would undo it under the waiter.
    while (opltest::ValueOf(set_, 0) != 0) {
    }
  });
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  opltest::SetValue(set_, 0, 0);
  child.ExpectSuccess();
}

TEST_F(PrivateUseCountAccess, RepeatsAnInterruptedOperation) {
  const Fault fault("semtimedop", 1, EINTR);
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_EQ(2, fault.Calls());
  EXPECT_EQ((Values{5, 31999}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountAccess, FindsTheSetRemoved) {
  opltest::RemoveSet(set_);
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_EQ(Failure(EINVAL, SemopFailure("OPL_PrivateUseCountAccess", "22,Invalid argument")), LastFailure());
}

TEST_F(PrivateUseCountAccess, FindsTheSetRemovedWhileItWaits) {
  opltest::SetValue(set_, kIndex, 0);
  Child child([&](Steps&) {
    while (opltest::WaitersOf(set_, kIndex) == 0) {
    }
    opltest::RemoveSet(set_);
  });
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountAccess(set_, kIndex));
  child.ExpectSuccess();
}

TEST_F(PrivateUseCountAccess, RefusesANumberThatNoSemaphoreHas) {
  for (const uint32_t index : kNumbersOfNone) {
    EXPECT_EQ(OPL_PRIVATE_E_SEMOP, OPL_PrivateUseCountAccess(set_, index));
    EXPECT_EQ(Failure(EFBIG, SemopFailure("OPL_PrivateUseCountAccess", "27,File too large")), LastFailure());
  }
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountAccess, TellsOfAnyOtherFailure) {
  EXPECT_EQ(OPL_PRIVATE_E_SEMOP, OPL_PrivateUseCountAccess(set_, 2));
  EXPECT_EQ(Failure(EFBIG, SemopFailure("OPL_PrivateUseCountAccess", "27,File too large")), LastFailure());
}

TEST_F(PrivateUseCountAccess, ClearsAwayASetWhoseRemoverWasKilled) {
  Child child([&](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex));
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  EXPECT_EQ((Values{5, 0}), opltest::ValuesOf(set_));
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_FALSE(opltest::SetExists(set_));
}

// Each signal interrupts the wait, and none of them may begin it anew.
TEST_F(PrivateUseCountAccess, ClearsAwayASetWhoseRemoverWasKilledWhateverSignalsCome) {
  Child child([&](Steps&) { EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex)); });
  child.ExpectSuccess();
  opltest::SignalStream signals;
  signals.Start();
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountAccess(set_, kIndex));
  signals.Stop();
  EXPECT_LT(0, opltest::SignalStream::Handled());
  EXPECT_FALSE(opltest::SetExists(set_));
}

TEST_F(PrivateUseCountAccess, ClearsAwayASetWhoseRemoverIsAZombie) {
  Child child([&](Steps&) { EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex)); });
  siginfo_t ended{};
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child.pid()), &ended, WEXITED | WNOWAIT));
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_FALSE(opltest::SetExists(set_));
  child.ExpectSuccess();
}

TEST_F(PrivateUseCountAccess, MakesASetUsableAgainThatItMayNotRemove) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::RemoveSet(set_);
  set_ = opltest::MakeSet({5, OPL_PRIVATE_USE_COUNT_LIMIT}, 0666);
  Child remover([&](Steps&) { EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex)); });
  remover.ExpectSuccess();
  Child user([&](Steps&) {
    opltest::BecomeOtherUser();
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
    EXPECT_EQ((Values{5, 31999}), opltest::ValuesOf(set_));
  });
  user.ExpectSuccess();
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountAccess, WaitsForARemoverThatIsAlive) {
  Child child([&](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex));
    steps.Reach();
    steps.WaitForGo();
    opltest::RemoveSet(set_);
  });
  child.Await();
  const Fault fault("semtimedop", 2, [&] {
    EXPECT_TRUE(opltest::SetExists(set_));
    child.Go();
  });
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_TRUE(fault.Fired());
  child.ExpectSuccess();
}

// The system tells no id of a process of another container, which may be alive.
TEST_F(PrivateUseCountAccess, WaitsForARemoverThatItCannotSee) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root makes containers";
  Child remover([&](Steps&) { EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex)); });
  remover.ExpectSuccess();
  Child container([&](Steps&) {
    if (::unshare(CLONE_NEWPID) == -1) return;  // not even root may, here
    Child inside([&](Steps&) {
      const Fault fault("semtimedop", 2, [&] { opltest::SetValue(set_, kIndex, 1); });
      EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
      EXPECT_TRUE(fault.Fired());
      EXPECT_EQ((Values{5, 0}), opltest::ValuesOf(set_));
    });
    inside.ExpectSuccess();
  });
  container.ExpectSuccess();
}

TEST_F(PrivateUseCountAccess, KeepsASetThatItsUsersExhausted) {
  opltest::SetValue(set_, kIndex, 1);
  Child child([&](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  const Fault fault("semtimedop", 2, [&] {
    child.Kill();
    child.ExpectKilledBy(SIGKILL);
  });
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_EQ((Values{5, 0}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountRelease, GivesOneBack) {
  ASSERT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountRelease(set_, kIndex));
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountRelease, IsUndoneWithItsAccessWhenTheProcessEnds) {
  Child child([&](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
    EXPECT_EQ(OPL_OK, OPL_PrivateUseCountRelease(set_, kIndex));
  });
  child.ExpectSuccess();
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountRelease, RepeatsAnInterruptedOperation) {
  ASSERT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  const Fault fault("semop", 1, EINTR);
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountRelease(set_, kIndex));
  EXPECT_EQ(2, fault.Calls());
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountRelease, FindsTheSetRemoved) {
  opltest::RemoveSet(set_);
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountRelease(set_, kIndex));
  EXPECT_EQ(Failure(EINVAL, SemopFailure("OPL_PrivateUseCountRelease", "22,Invalid argument")),
            LastFailure());
  const Fault fault("semop", 1, EIDRM);
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountRelease(set_, kIndex));
  EXPECT_EQ(Failure(EIDRM, SemopFailure("OPL_PrivateUseCountRelease", "43,Identifier removed")),
            LastFailure());
}

TEST_F(PrivateUseCountRelease, RefusesANumberThatNoSemaphoreHas) {
  for (const uint32_t index : kNumbersOfNone) {
    EXPECT_EQ(OPL_PRIVATE_E_SEMOP, OPL_PrivateUseCountRelease(set_, index));
    EXPECT_EQ(Failure(EFBIG, SemopFailure("OPL_PrivateUseCountRelease", "27,File too large")), LastFailure());
  }
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountRelease, TellsOfAnyOtherFailure) {
  EXPECT_EQ(OPL_PRIVATE_E_SEMOP, OPL_PrivateUseCountRelease(set_, 2));
  EXPECT_EQ(Failure(EFBIG, SemopFailure("OPL_PrivateUseCountRelease", "27,File too large")), LastFailure());
}

TEST_F(PrivateUseCountExclusive, TakesAllWhenNobodyHasAny) {
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex));
  EXPECT_EQ((Values{5, 0}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountExclusive, IsNotUndoneWhenTheProcessEnds) {
  Child child([&](Steps&) { EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex)); });
  child.ExpectSuccess();
  EXPECT_EQ((Values{5, 0}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountExclusive, IsRefusedWithoutAMessageWhileOthersUseTheObject) {
  ASSERT_EQ(OPL_OK, OPL_PrivateUseCountAccess(set_, kIndex));
  opltest::ForgetFailure();
  const Failure before = LastFailure();
  EXPECT_EQ(OPL_PRIVATE_E_IN_USE, OPL_PrivateUseCountExclusive(set_, kIndex));
  EXPECT_EQ(before, LastFailure());
  EXPECT_EQ((Values{5, 31999}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountExclusive, RepeatsAnInterruptedOperation) {
  const Fault fault("semop", 1, EINTR);
  EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set_, kIndex));
  EXPECT_EQ(2, fault.Calls());
}

TEST_F(PrivateUseCountExclusive, FindsTheSetRemoved) {
  opltest::RemoveSet(set_);
  EXPECT_EQ(OPL_PRIVATE_E_SEM_MISSING, OPL_PrivateUseCountExclusive(set_, kIndex));
  EXPECT_EQ(Failure(EINVAL, SemopFailure("OPL_PrivateUseCountExclusive", "22,Invalid argument")),
            LastFailure());
}

TEST_F(PrivateUseCountExclusive, RefusesANumberThatNoSemaphoreHas) {
  for (const uint32_t index : kNumbersOfNone) {
    EXPECT_EQ(OPL_PRIVATE_E_SEMOP, OPL_PrivateUseCountExclusive(set_, index));
    EXPECT_EQ(Failure(EFBIG, SemopFailure("OPL_PrivateUseCountExclusive", "27,File too large")),
              LastFailure());
  }
  EXPECT_EQ((Values{5, 32000}), opltest::ValuesOf(set_));
}

TEST_F(PrivateUseCountExclusive, TellsOfAnyOtherFailure) {
  EXPECT_EQ(OPL_PRIVATE_E_SEMOP, OPL_PrivateUseCountExclusive(set_, 2));
  EXPECT_EQ(Failure(EFBIG, SemopFailure("OPL_PrivateUseCountExclusive", "27,File too large")), LastFailure());
}

}  // namespace
