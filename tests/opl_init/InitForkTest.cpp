// What a forked child finds of its parent's use of the library, and what it makes of it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Thread.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Child;
using opltest::Fault;
using opltest::Steps;

constexpr OPL_Result kStopped = OPL_INIT_E_STOPPED;
constexpr uint32_t kNoRecord = OPL_ERR_E_NO_RECORD;

class InitFork : public opltest::Instance {};

TEST_F(InitFork, LeavesTheChildWithTheParentsUse) {
  Child([](Steps&) { EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0)); }).ExpectSuccess();
}

TEST_F(InitFork, LetsTheChildBeginAnew) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

TEST_F(InitFork, LetsTheChildNestItsOwnBegins) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
}

TEST_F(InitFork, LetsTheChildOfNestedBeginsEndWithItsOwn) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

// The forced end drops one of the three inherited begins; the child's modules may still end the others.
TEST_F(InitFork, AcceptsTheChildsEndsOfInheritedBegins) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitEnd(0));
  }).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST_F(InitFork, LetsAGrandchildBeginAnew) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    Child([](Steps&) {
      EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
      EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
    }).ExpectSuccess();
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }).ExpectSuccess();
}

TEST_F(InitFork, LetsAGrandchildBeginAnewWhereTheChildDidNothing) {
  Child([](Steps&) {
    Child([](Steps&) {
      EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
      EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
    }).ExpectSuccess();
  }).ExpectSuccess();
}

// The child has not got the thread, and would wait for it for ever.
TEST_F(InitFork, WaitsForAThreadThatBegins) {
  std::atomic<bool> begins{false};
  std::atomic<bool> forked{false};
  int waits[2];
  ASSERT_EQ(0, ::pipe2(waits, O_CLOEXEC));
  {
    const opltest::DetachedThread beginner([&] {
      const Fault releasing("pthread_mutex_unlock", 1, [&] {
        begins = true;
        char byte = 0;
        EXPECT_EQ(1, ::read(waits[0], &byte, 1));
        EXPECT_FALSE(forked);
      });
      EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
      EXPECT_TRUE(releasing.Fired());
    });
    while (!begins) std::this_thread::yield();
    const Fault waiting("sched_yield", 1, [&] { EXPECT_EQ(1, ::write(waits[1], "", 1)); });
    Child child([](Steps&) {
      EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    });
    forked = true;
    child.ExpectSuccess();
  }
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  for (const int end : waits) EXPECT_EQ(0, ::close(end));
}

// Every end of the library in its own way: each leaves the lock as the next fork has to find it.
class InitForkAfterEnd : public opltest::Instance {
 protected:
  static void ExpectToFork() {
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
    Child([](Steps&) { EXPECT_EQ(kStopped, OPL_InitIsStopped(0)); }).ExpectSuccess();
  }
};

TEST_F(InitForkAfterEnd, OfAChildThatNeverBeganGoesOn) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    ExpectToFork();
  }).ExpectSuccess();
}

TEST_F(InitForkAfterEnd, OfAChildThatForgotGoesOn) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitEnd(1));
    ExpectToFork();
  }).ExpectSuccess();
}

TEST_F(InitForkAfterEnd, OfAChildThatBeganGoesOn) {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    ExpectToFork();
  }).ExpectSuccess();
}

TEST(InitForkAfterTheFinalEnd, GoesOn) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  Child([](Steps&) { EXPECT_EQ(kStopped, OPL_InitIsStopped(0)); }).ExpectSuccess();
}

TEST(InitForkBeforeBegin, LeavesTheChildWithoutTheLibrary) {
  Child([](Steps&) {
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }).ExpectSuccess();
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST_F(InitFork, KeepsTheInstanceAndTheDirectory) {
  const char* const instance = OPL_InitInstanceStringGet();
  Child([&](Steps&) {
    ASSERT_EQ(0, ::setenv("QVOPL_IPC_PATH", "/late", 1));
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    char directory[4096];
    EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, directory, sizeof directory));
    EXPECT_STRNE("/late", directory);
    EXPECT_EQ(instance, OPL_InitInstanceStringGet());
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }).ExpectSuccess();
}

TEST_F(InitFork, GivesTheChildTheThreadsRecordUntilItBegins) {
  (void)OPL_ErrSet(0, 5, "the parent's");
  Child([](Steps&) {
    EXPECT_EQ(5u, OPL_ErrCodeGet(0));
    EXPECT_STREQ("the parent's", OPL_ErrMessageGet(0));
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(kNoRecord, OPL_ErrCodeGet(0));
    (void)OPL_ErrSet(0, 6, "the child's");
    EXPECT_STREQ("the child's", OPL_ErrMessageGet(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }).ExpectSuccess();
  EXPECT_EQ(5u, OPL_ErrCodeGet(0));
  EXPECT_STREQ("the parent's", OPL_ErrMessageGet(0));
}

TEST_F(InitFork, KeepsTheThreadsId) {
  uint32_t parents = 0;
  ASSERT_EQ(OPL_OK, OPL_ThreadIdGet(&parents));
  Child([&](Steps&) {
    uint32_t own = 0;
    EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(&own));
    EXPECT_EQ(parents, own);
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(&own));
    EXPECT_EQ(parents, own);
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }).ExpectSuccess();
}

// A process id of the program's own passes to the child, who then looks like the parent.
TEST(InitForkWithAnId, OnlyCountsTheChildsBeginWhileItsIdIsTheParents) {
  ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(77));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0)) << "the inherited begin is left";
    EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(78));
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

class InitSetCurrentPid : public opltest::Instance {};

TEST(InitSetCurrentPidBeforeBegin, IsRefused) { EXPECT_EQ(kStopped, OPL_InitSetCurrentPid()); }

TEST_F(InitSetCurrentPid, IsHarmlessInTheProcessThatBegan) {
  EXPECT_EQ(OPL_OK, OPL_InitSetCurrentPid());
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

// Its later end then gives back nothing, and least of all its parent's.
TEST_F(InitSetCurrentPid, TakesTheChildOverAlsoWhenNoUseCountIsToBeHad) {
  Child([](Steps&) {
    {
      const Fault fault("semop", 1, EIO);
      EXPECT_EQ(OPL_OK, OPL_InitSetCurrentPid());
      EXPECT_TRUE(fault.Fired());
    }
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}),
            opltest::ValuesOf(opltest::SetNamedBy(opltest::ManagementFile())));
}

TEST_F(InitSetCurrentPid, LetsTheChildGoOnWhereTheParentWas) {
  (void)OPL_ErrSet(0, 5, "the parent's");
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitSetCurrentPid());
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_STREQ("the parent's", OPL_ErrMessageGet(0)) << "the begin was not a nested one";
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  }).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

}  // namespace
