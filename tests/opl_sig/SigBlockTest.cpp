// Blocking all signals and putting the mask back.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Sig.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;

sigset_t CurrentMask() {
  sigset_t mask;
  EXPECT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &mask));
  return mask;
}

bool IsBlocked(int signal) {
  const sigset_t mask = CurrentMask();
  return ::sigismember(&mask, signal) == 1;
}

bool AreEqual(const sigset_t& a, const sigset_t& b) {
  for (int signal = 1; signal < NSIG; ++signal)
    if (::sigismember(&a, signal) != ::sigismember(&b, signal)) return false;
  return true;
}

void BlockOnly(int signal) {
  sigset_t mask;
  (void)::sigemptyset(&mask);
  (void)::sigaddset(&mask, signal);
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, &mask, nullptr));
}

volatile std::sig_atomic_t gCaught = 0;

void Catch(int) { gCaught = gCaught + 1; }

class SigBlock : public opltest::Instance {
 protected:
  sigset_t* saved_ = nullptr;
};

class SigReset : public SigBlock {};

TEST_F(SigBlock, BlocksEverySignalThatCanBeBlocked) {
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    // Two between the standard and the real-time signals are the thread library's own.
    const bool isThreadLibrarys = signal >= 32 && signal < SIGRTMIN;
    if (signal == SIGKILL || signal == SIGSTOP || isThreadLibrarys) continue;
    EXPECT_TRUE(IsBlocked(signal)) << signal;
  }
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
}

TEST_F(SigBlock, SavesTheMaskFromBefore) {
  BlockOnly(SIGUSR2);
  const sigset_t before = CurrentMask();
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  EXPECT_TRUE(AreEqual(before, *saved_));
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
}

TEST_F(SigBlock, SavesARecordOf128Bytes) {
  EXPECT_EQ(128u, sizeof *saved_);
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  sigset_t empty;
  std::memset(&empty, 0, sizeof empty);
  EXPECT_EQ(0, std::memcmp(&empty, saved_, 128));
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
}

TEST_F(SigBlock, HoldsASignalBackUntilTheReset) {
  ASSERT_NE(SIG_ERR, std::signal(SIGUSR1, Catch));
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  ASSERT_EQ(0, ::kill(::getpid(), SIGUSR1));
  EXPECT_EQ(0, gCaught);
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
  EXPECT_EQ(1, gCaught);
}

TEST_F(SigBlock, RefusesAModeAndLeaksNothing) {
  const opltest::CountedMemory memory;
  const sigset_t before = CurrentMask();
  EXPECT_EQ(OPL_SIG_E_INVALID_MODE, OPL_SigBlock(1, &saved_));
  EXPECT_EQ(Failure(0x050405, "OPL_SigBlock: Invalid mode"), LastFailure());
  EXPECT_EQ(nullptr, saved_);
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
  EXPECT_TRUE(AreEqual(before, CurrentMask()));
}

TEST_F(SigBlock, AllocatesBeforeItLooksAtTheMode) {
  const opltest::FailingMemory memory(1);
  EXPECT_EQ(OPL_SIG_E_NO_MEMORY, OPL_SigBlock(1, &saved_));
  EXPECT_EQ(Failure(ENOMEM, "OPL_SigBlock: malloc error :12,Cannot allocate memory"), LastFailure());
  EXPECT_EQ(nullptr, saved_);
}

TEST_F(SigBlock, ReleasesTheRecordWhicheverCallFails) {
  opltest::ForgetFailure();
  const opltest::CountedMemory memory;
  {
    const Fault fault("sigfillset", 1, EINVAL);
    EXPECT_EQ(OPL_SIG_E_FILL_SET, OPL_SigBlock(0, &saved_));
    EXPECT_EQ(Failure(EINVAL, "OPL_SigBlock: sigfillset :22,Invalid argument"), LastFailure());
  }
  {
    const Fault fault("pthread_sigmask", 1, EINVAL);
    EXPECT_EQ(OPL_SIG_E_MASK, OPL_SigBlock(0, &saved_));
    EXPECT_EQ(Failure(EINVAL, "OPL_SigBlock: pthread_sigmask :22,Invalid argument"), LastFailure());
  }
  EXPECT_EQ(nullptr, saved_);
  EXPECT_EQ(2, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SigBlock, RefusesANullPlace) {
  const opltest::CountedMemory memory;
  EXPECT_EQ(OPL_SIG_E_MASK, OPL_SigBlock(0, nullptr));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigBlock: pthread_sigmask :22,Invalid argument"), LastFailure());
  EXPECT_EQ(0, memory.Living());
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SigBlock, ActsOnTheCallingThreadOnly) {
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
  pthread_t thread;
  const auto block = [](void*) -> void* {
    sigset_t* saved = nullptr;
    EXPECT_EQ(OPL_OK, OPL_SigBlock(0, &saved));
    EXPECT_TRUE(IsBlocked(SIGUSR1));
    EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved));
    EXPECT_FALSE(IsBlocked(SIGUSR1));
    return nullptr;
  };
  ASSERT_EQ(0, ::pthread_create(&thread, nullptr, block, nullptr));
  ASSERT_EQ(0, ::pthread_join(thread, nullptr));
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SigReset, RestoresTheMaskAndClearsThePlace) {
  const opltest::CountedMemory memory;
  BlockOnly(SIGUSR2);
  const sigset_t before = CurrentMask();
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
  EXPECT_TRUE(AreEqual(before, CurrentMask()));
  EXPECT_EQ(nullptr, saved_);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SigReset, UnwindsPairsThatNest) {
  sigset_t* inner = nullptr;
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &inner));
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &inner));
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SigReset, RefusesAModeAndLeavesTheRecord) {
  const opltest::CountedMemory memory;
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  sigset_t* const record = saved_;
  EXPECT_EQ(OPL_SIG_E_INVALID_MODE, OPL_SigReset(1, &saved_));
  EXPECT_EQ(Failure(0x050405, "OPL_SigReset: Invalid mode"), LastFailure());
  EXPECT_EQ(record, saved_);
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
}

TEST_F(SigReset, ReleasesTheRecordAlsoWhenTheMaskCannotBeSet) {
  opltest::ForgetFailure();
  const opltest::CountedMemory memory;
  ASSERT_EQ(OPL_OK, OPL_SigBlock(0, &saved_));
  const Fault fault("pthread_sigmask", 1, EINVAL);
  EXPECT_EQ(OPL_SIG_E_MASK, OPL_SigReset(0, &saved_));
  EXPECT_EQ(Failure(EINVAL, "OPL_SigReset: pthread_sigmask :22,Invalid argument"), LastFailure());
  EXPECT_EQ(nullptr, saved_);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SigReset, ChangesNothingWithoutARecord) {
  BlockOnly(SIGUSR2);
  const sigset_t before = CurrentMask();
  EXPECT_EQ(OPL_OK, OPL_SigReset(0, &saved_));
  EXPECT_TRUE(AreEqual(before, CurrentMask()));
  EXPECT_EQ(OPL_SIG_E_MASK, OPL_SigReset(0, nullptr));
}

TEST(SigBlockStopped, IsRefused) {
  sigset_t* saved = nullptr;
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigBlock(0, &saved));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigBlock(1, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_SigReset(0, &saved));
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

}  // namespace
