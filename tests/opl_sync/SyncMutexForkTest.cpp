// What a forked child may do with the mutexes it inherits: nothing at the cost of its parent.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"

namespace {

using opltest::AwaitSleepersOn;
using opltest::ExpectError;
using opltest::MutexFile;
using opltest::NewMutex;
using opltest::NumberAndText;
using opltest::RecordOf;
using opltest::SyncActor;
using opltest::ValueOf;
using opltest::ValuesOf;

constexpr int kLock = 0;
constexpr int kUseCount = 1;

class SyncMutexFork : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    mutex_ = NewMutex("q");
    id_ = RecordOf(mutex_).semId;
    management_ = opltest::SetNamedBy(opltest::ManagementFile());
    opltest::gOpenMutexes["q"] = mutex_;
  }
  void TearDown() override {
    if (mutex_ != nullptr) {
      EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
    }
    EXPECT_FALSE(opltest::SetExists(id_));
    Instance::TearDown();
  }

  int Uses() const { return 32000 - ValueOf(id_, kUseCount); }
  void ExpectParentsUseAlone() {
    EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id_));
    EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management_));
    EXPECT_EQ(id_, opltest::SetNamedBy(MutexFile("q")));
  }

  OPL_SyncMutex* mutex_ = nullptr;
  int id_ = -1;
  int management_ = -1;
};

TEST_F(SyncMutexFork, LeavesTheParentsUseWhenTheChildDoesNothing) {
  SyncActor child;
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LeavesTheParentsUseWhenTheChildExits) {
  SyncActor child;
  child.Exit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LeavesTheParentsUseWhenTheChildEndsWhatItInherited) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("end"));
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LeavesTheParentsUseWhenTheChildEndsByForce) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("end-forced"));
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LeavesTheParentsUseWhenTheChildClosesTheInheritedHandle) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("mutex-close q"));
  ExpectParentsUseAlone();
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LetsAChildThatBeginsAnewOpenTheMutexAsAnotherUser) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("begin"));
  EXPECT_EQ(1, Uses());
  EXPECT_EQ(0u, child.Do("mutex-open q 4"));
  EXPECT_EQ(2, Uses());
  EXPECT_EQ(0u, child.Do("mutex-close q"));
  EXPECT_EQ(0u, child.Do("end"));
  ExpectParentsUseAlone();
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LetsAChildThatBeganAnewCloseTheInheritedHandleForNothing) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("begin"));
  EXPECT_EQ(0u, child.Do("mutex-close q"));
  EXPECT_EQ(1, Uses());
  EXPECT_EQ(0u, child.Do("end"));
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, GivesAnAdoptingChildAUseOfItsOwn) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(2, Uses());
  EXPECT_EQ((opltest::Values{31998, 1, 1, 1}), ValuesOf(management_));
  EXPECT_EQ(0u, child.Do("mutex-acquire q"));
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(0u, child.Do("mutex-release q"));
  EXPECT_EQ(0u, child.Do("mutex-close q"));
  EXPECT_EQ(1, Uses());
  EXPECT_EQ(0u, child.Do("end"));
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, TakesTheAdoptedUseBackAtTheChildsEnd) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(0u, child.Do("end"));
  ExpectParentsUseAlone();
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, TakesTheAdoptedUseBackAtTheChildsExit) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  child.Exit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, TakesTheAdoptedUseBackWhenTheChildIsKilled) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(2, Uses());
  child.Kill();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, LetsTheChildBeTheLastUser) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex_));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id_));
  EXPECT_EQ(0u, child.Do("mutex-close q"));
  EXPECT_FALSE(opltest::SetExists(id_));
  EXPECT_EQ(0u, child.Do("end"));
  child.Quit();
}

TEST_F(SyncMutexFork, TakesOneUseForEachNameHoweverManyHandlesThereAre) {
  OPL_SyncMutex* const second = opltest::OpenMutex("q");
  EXPECT_EQ(2, Uses());
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(3, Uses());
  EXPECT_EQ(0u, child.Do("end"));
  EXPECT_EQ(2, Uses());
  child.Quit();
  EXPECT_EQ(2, Uses());
  opltest::CloseOpened(second);
}

TEST_F(SyncMutexFork, CountsRightOverGenerationsThatAdopt) {
  constexpr int kGenerations = 5;
  SyncActor line;
  EXPECT_EQ(0u, line.Do("adopt"));
  for (int i = 2; i <= kGenerations; ++i) {
    EXPECT_EQ(0u, line.Do("fork"));
    EXPECT_EQ(0u, line.Do("adopt"));
    EXPECT_EQ(1 + i, Uses());
  }
  for (int i = kGenerations; i > 1; --i) {
    EXPECT_EQ(0u, line.Do(i % 2 == 0 ? "end" : "mutex-close q"));
    EXPECT_EQ(i, Uses());
    EXPECT_EQ(0u, line.Do(i % 3 == 0 ? "exit" : "quit"));
    EXPECT_EQ(i, Uses());
  }
  EXPECT_EQ(0u, line.Do("end"));
  line.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, CountsRightOverGenerationsThatAreKilled) {
  SyncActor line;
  EXPECT_EQ(0u, line.Do("adopt"));
  EXPECT_EQ(0u, line.Do("fork"));
  EXPECT_EQ(0u, line.Do("fork"));
  EXPECT_EQ(0u, line.Do("adopt"));  // the grandchild of one that adopted, its own parent did not
  EXPECT_EQ(3, Uses());
  EXPECT_EQ(0u, line.Do("exit"));
  EXPECT_EQ(2, Uses());
  EXPECT_EQ(0u, line.Do("quit"));
  EXPECT_EQ(2, Uses());
  line.Kill();
  ExpectParentsUseAlone();
}

TEST_F(SyncMutexFork, ReportsTheFirstSetThatCannotBeAdoptedAfterAllOthers) {
  OPL_SyncMutex* removed = NewMutex("removed");
  OPL_SyncMutex* other = NewMutex("other");
  const int removedId = RecordOf(removed).semId;
  opltest::RemoveSet(removedId);
  opltest::Child child([&](opltest::Steps&) {
    EXPECT_EQ(0x05120Bu, OPL_SyncMutexTransferOwnership());
    ExpectError(EINVAL, ("OPL_PrivateUseCountAccess: semop(" + std::to_string(removedId) +
                         ") failed :" + NumberAndText(EINVAL))
                            .c_str());
    EXPECT_EQ(2, Uses());
    EXPECT_EQ((opltest::Values{1, 31998}), ValuesOf(RecordOf(other).semId));
    // Adoption as a whole tells of the read-write locks alone.
    EXPECT_EQ(0u, OPL_InitSetCurrentPid());
  });
  child.ExpectSuccess();
  EXPECT_EQ(0u, OPL_SyncMutexClose(&other));
  EXPECT_EQ(0x050005u, OPL_SyncMutexClose(&removed));
  std::free(removed);
}

// A hold that was taken before the fork stays the parent's.
class SyncMutexHeldOverFork : public SyncMutexFork, public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    SyncMutexFork::SetUp();
    EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  }
};

TEST_P(SyncMutexHeldOverFork, IsNotReleasedByTheChild) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do(GetParam()));
  EXPECT_EQ(0x05002Cu, child.Do("mutex-release q"));
  EXPECT_EQ("OPL_SyncMutexRelease: not owner", child.Message());
  EXPECT_EQ(0, ValueOf(id_, kLock));
  child.Quit();
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  ExpectParentsUseAlone();
}

TEST_P(SyncMutexHeldOverFork, MakesTheChildWait) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do(GetParam()));
  child.Start("mutex-acquire q");
  AwaitSleepersOn(id_, kLock);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(0u, child.Finish());
  EXPECT_EQ(0, ValueOf(id_, kLock));
  EXPECT_EQ(0u, child.Do("mutex-acquire q"));
  EXPECT_EQ(0u, child.Do("mutex-release q"));
  EXPECT_EQ(0u, child.Do("mutex-release q"));
  EXPECT_EQ(1, ValueOf(id_, kLock));
  child.Quit();
  ExpectParentsUseAlone();
}

INSTANTIATE_TEST_SUITE_P(Child, SyncMutexHeldOverFork, ::testing::Values("nothing", "adopt", "begin"),
                         [](const ::testing::TestParamInfo<const char*>& test) {
                           return std::string(test.param);
                         });

TEST_F(SyncMutexFork, LeavesTheThreadThatForkedItsRecursiveHold) {
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  SyncActor child;
  child.Quit();
  EXPECT_EQ(0u, OPL_SyncMutexAcquire(mutex_));
  EXPECT_EQ(2u, RecordOf(mutex_).lockCount);
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  EXPECT_EQ(0u, OPL_SyncMutexRelease(mutex_));
  ExpectParentsUseAlone();
}

}  // namespace
