// The checked forms of the system's signal functions.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "OPL_Init.h"
#include "OPL_Sig.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;

constexpr int kNoSignal = 1000;

volatile std::sig_atomic_t gCaught = 0;

void Catch(int signal) { gCaught = signal; }

void Ignore(int) {}

bool IsBlocked(int signal) {
  sigset_t mask;
  EXPECT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &mask));
  return ::sigismember(&mask, signal) == 1;
}

class Sig : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    (void)::sigemptyset(&set_);
  }

  sigset_t set_;
};

TEST_F(Sig, SignalSetsAHandlerAndTellsThePrevious) {
  OPL_SigHandler previous = Ignore;
  ASSERT_EQ(OPL_OK, OPL_SigSignal(0, SIGUSR1, Catch, &previous));
  EXPECT_EQ(SIG_DFL, previous);
  ASSERT_EQ(OPL_OK, OPL_SigSignal(0, SIGUSR1, Ignore, &previous));
  EXPECT_EQ(&Catch, previous);
  EXPECT_EQ(OPL_OK, OPL_SigSignal(0, SIGUSR1, Catch, nullptr));
  EXPECT_EQ(0, ::raise(SIGUSR1));
  EXPECT_EQ(SIGUSR1, gCaught);
}

TEST_F(Sig, SignalRefusesANumberThatIsNoSignal) {
  OPL_SigHandler previous = Ignore;
  for (const int32_t number : {kNoSignal, 0, -1, SIGKILL}) {
    EXPECT_EQ(OPL_SIG_E_SIGNAL, OPL_SigSignal(0, number, Catch, &previous));
    EXPECT_EQ(Failure(EINVAL, "OPL_SigSignal: signal error : 22,Invalid argument"), LastFailure());
    EXPECT_EQ(&Ignore, previous);
  }
}

TEST_F(Sig, EmptySetAndFillSet) {
  ASSERT_EQ(OPL_OK, OPL_SigFillSet(0, &set_));
  EXPECT_EQ(1, ::sigismember(&set_, SIGUSR1));
  EXPECT_EQ(1, ::sigismember(&set_, SIGRTMAX));
  ASSERT_EQ(OPL_OK, OPL_SigEmptySet(0, &set_));
  EXPECT_TRUE(::sigisemptyset(&set_));
}

TEST_F(Sig, EmptySetAndFillSetTellWhatTheSystemRefuses) {
  const Fault empty("sigemptyset", 1, EINVAL);
  EXPECT_EQ(OPL_SIG_E_EMPTY_SET, OPL_SigEmptySet(0, &set_));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigEmptySet: sigemptyset error : 22,Invalid argument"), LastFailure());
  const Fault fill("sigfillset", 1, EINVAL);
  EXPECT_EQ(OPL_SIG_E_FILL_SET, OPL_SigFillSet(0, &set_));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigFillSet: sigfillset error : 22,Invalid argument"), LastFailure());
}

TEST_F(Sig, AddSetAndDelSet) {
  ASSERT_EQ(OPL_OK, OPL_SigAddSet(0, &set_, SIGUSR1));
  ASSERT_EQ(OPL_OK, OPL_SigAddSet(0, &set_, SIGTERM));
  EXPECT_EQ(1, ::sigismember(&set_, SIGUSR1));
  ASSERT_EQ(OPL_OK, OPL_SigDelSet(0, &set_, SIGUSR1));
  EXPECT_EQ(0, ::sigismember(&set_, SIGUSR1));
  EXPECT_EQ(1, ::sigismember(&set_, SIGTERM));
}

TEST_F(Sig, AddSetAndDelSetRefuseANumberThatIsNoSignal) {
  for (const int32_t number : {kNoSignal, 0, -1}) {
    EXPECT_EQ(OPL_SIG_E_ADD_SET, OPL_SigAddSet(0, &set_, number));
    EXPECT_EQ(Failure(EINVAL, "OPL_SigAddSet: sigaddset error : 22,Invalid argument"), LastFailure());
    EXPECT_EQ(OPL_SIG_E_DEL_SET, OPL_SigDelSet(0, &set_, number));
    EXPECT_EQ(Failure(EINVAL, "OPL_SigDelSet: sigdelset error : 22,Invalid argument"), LastFailure());
  }
}

TEST_F(Sig, IsMemberStoresExactly1Or0) {
  uint32_t isMember = 77;
  ASSERT_EQ(OPL_OK, OPL_SigIsMember(0, &set_, SIGUSR1, &isMember));
  EXPECT_EQ(0u, isMember);
  ASSERT_EQ(OPL_OK, OPL_SigFillSet(0, &set_));
  for (const int32_t signal : {SIGHUP, SIGUSR1, SIGTERM, SIGRTMAX}) {
    isMember = 77;
    ASSERT_EQ(OPL_OK, OPL_SigIsMember(0, &set_, signal, &isMember));
    EXPECT_EQ(1u, isMember);
  }
  EXPECT_EQ(OPL_OK, OPL_SigIsMember(0, &set_, SIGUSR1, nullptr));
}

TEST_F(Sig, IsMemberRefusesANumberThatIsNoSignal) {
  uint32_t isMember = 77;
  EXPECT_EQ(OPL_SIG_E_IS_MEMBER, OPL_SigIsMember(0, &set_, kNoSignal, &isMember));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigIsMember: sigismember error : 22,Invalid argument"), LastFailure());
  EXPECT_EQ(77u, isMember);
}

TEST_F(Sig, ActionSetsAnActionAndTellsTheOldOne) {
  struct sigaction action {};
  action.sa_handler = Catch;
  action.sa_flags = SA_RESTART;
  struct sigaction old {};
  old.sa_handler = Ignore;
  ASSERT_EQ(OPL_OK, OPL_SigAction(0, SIGUSR1, &action, &old));
  EXPECT_EQ(SIG_DFL, old.sa_handler);
  ASSERT_EQ(OPL_OK, OPL_SigAction(0, SIGUSR1, nullptr, &old));
  EXPECT_EQ(&Catch, old.sa_handler);
  EXPECT_EQ(OPL_OK, OPL_SigAction(0, SIGUSR1, &action, nullptr));
}

TEST_F(Sig, ActionRefusesANumberThatIsNoSignal) {
  struct sigaction old {};
  EXPECT_EQ(OPL_SIG_E_ACTION, OPL_SigAction(0, kNoSignal, nullptr, &old));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigAction: sigaction error : 22,Invalid argument"), LastFailure());
}

TEST_F(Sig, AlarmTellsWhatWasLeftOfThePrevious) {
  const unsigned guard = ::alarm(0);  // the test's own limit
  uint32_t left = 77;
  ASSERT_EQ(OPL_OK, OPL_SigAlarm(0, 1000, &left));
  EXPECT_EQ(0u, left);
  ASSERT_EQ(OPL_OK, OPL_SigAlarm(0, 0, &left));
  EXPECT_GT(left, 0u);
  EXPECT_LE(left, 1000u);
  EXPECT_EQ(OPL_OK, OPL_SigAlarm(0, guard, nullptr));
  EXPECT_NE(0u, ::alarm(guard));
}

TEST_F(Sig, ProcMaskPassesHowThrough) {
  (void)::sigaddset(&set_, SIGUSR1);
  sigset_t old;
  ASSERT_EQ(OPL_OK, OPL_SigProcMask(0, SIG_BLOCK, &set_, &old));
  EXPECT_EQ(0, ::sigismember(&old, SIGUSR1));
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  ASSERT_EQ(OPL_OK, OPL_SigProcMask(0, SIG_UNBLOCK, &set_, &old));
  EXPECT_EQ(1, ::sigismember(&old, SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  ASSERT_EQ(OPL_OK, OPL_SigProcMask(0, SIG_SETMASK, &set_, nullptr));
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  ASSERT_EQ(OPL_OK, OPL_SigProcMask(0, SIG_SETMASK, nullptr, &old));
  EXPECT_EQ(1, ::sigismember(&old, SIGUSR1));
}

TEST_F(Sig, ProcMaskTellsTheThreadCallsResult) {
  EXPECT_EQ(OPL_SIG_E_MASK, OPL_SigProcMask(0, 99, &set_, nullptr));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigProcMask: pthread_sigmask error: 22, Invalid argument"), LastFailure());
  const Fault fault("pthread_sigmask", 1, EFAULT);
  EXPECT_EQ(OPL_SIG_E_MASK, OPL_SigProcMask(0, SIG_BLOCK, &set_, nullptr));
  EXPECT_EQ(Failure(EFAULT, "OPL_SigProcMask: pthread_sigmask error: 14, Bad address"), LastFailure());
}

TEST_F(Sig, RaiseSendsASignalToTheCallingThread) {
  ASSERT_NE(SIG_ERR, std::signal(SIGUSR1, Catch));
  EXPECT_EQ(OPL_OK, OPL_SigRaise(0, SIGUSR1));
  EXPECT_EQ(SIGUSR1, gCaught);
}

TEST_F(Sig, RaiseRefusesANumberThatIsNoSignal) {
  EXPECT_EQ(OPL_SIG_E_RAISE, OPL_SigRaise(0, kNoSignal));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigRaise: raise error : 22,Invalid argument"), LastFailure());
}

TEST_F(Sig, WaitTakesAPendingSignal) {
  (void)::sigaddset(&set_, SIGUSR1);
  ASSERT_EQ(0, ::pthread_sigmask(SIG_BLOCK, &set_, nullptr));
  ASSERT_EQ(0, ::raise(SIGUSR1));
  int32_t number = 0;
  ASSERT_EQ(OPL_OK, OPL_SigWait(0, &set_, &number));
  EXPECT_EQ(SIGUSR1, number);
  ASSERT_EQ(0, ::raise(SIGUSR1));
  EXPECT_EQ(OPL_OK, OPL_SigWait(0, &set_, nullptr));
}

TEST_F(Sig, WaitTellsWhatTheSystemRefuses) {
  const Fault fault("sigwait", 1, EINVAL);
  int32_t number = 77;
  EXPECT_EQ(OPL_SIG_E_WAIT, OPL_SigWait(0, &set_, &number));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigWait: sigwait error : 22,Invalid argument"), LastFailure());
  EXPECT_EQ(77, number);
}

TEST_F(Sig, LooksAtNoMode) {
  EXPECT_EQ(OPL_OK, OPL_SigSignal(7, SIGUSR1, Catch, nullptr));
  EXPECT_EQ(OPL_OK, OPL_SigEmptySet(7, &set_));
  EXPECT_EQ(OPL_OK, OPL_SigFillSet(7, &set_));
  EXPECT_EQ(OPL_OK, OPL_SigAddSet(7, &set_, SIGUSR1));
  EXPECT_EQ(OPL_OK, OPL_SigDelSet(7, &set_, SIGUSR1));
  EXPECT_EQ(OPL_OK, OPL_SigIsMember(7, &set_, SIGUSR1, nullptr));
  EXPECT_EQ(OPL_OK, OPL_SigAction(7, SIGUSR1, nullptr, nullptr));
  EXPECT_EQ(OPL_OK, OPL_SigAlarm(7, 300, nullptr));
  EXPECT_EQ(OPL_OK, OPL_SigProcMask(7, SIG_BLOCK, nullptr, nullptr));
  EXPECT_EQ(OPL_OK, OPL_SigRaise(7, SIGUSR1));
}

TEST(SigStopped, RefusesEveryOperation) {
  sigset_t set;
  (void)::sigemptyset(&set);
  (void)::sigaddset(&set, SIGUSR1);
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigSignal(0, SIGUSR1, Catch, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigEmptySet(0, &set));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigFillSet(0, &set));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigAddSet(0, &set, SIGUSR1));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigDelSet(0, &set, SIGUSR1));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigIsMember(0, &set, SIGUSR1, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigAction(0, SIGUSR1, nullptr, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigAlarm(0, 1, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigProcMask(0, SIG_BLOCK, &set, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigRaise(0, SIGUSR1));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigWait(0, &set, nullptr));
  EXPECT_EQ(1, ::sigismember(&set, SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

}  // namespace
