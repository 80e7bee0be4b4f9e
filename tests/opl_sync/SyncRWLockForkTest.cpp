// What a forked child may do with the read-write locks it inherits: nothing at the cost of its parent.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"

namespace {

using opltest::AwaitSleepersForZero;
using opltest::ExpectError;
using opltest::NewRWLock;
using opltest::NumberAndText;
using opltest::RWLockFile;
using opltest::SetNamedBy;
using opltest::SyncActor;
using opltest::ValueOf;
using opltest::ValuesOf;

constexpr int kWriters = 1;
constexpr int kUseCount = 3;

class SyncRWLockFork : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    rwLock_ = NewRWLock("q");
    id_ = SetNamedBy(RWLockFile("q"));
    management_ = SetNamedBy(opltest::ManagementFile());
    opltest::gOpenRWLocks["q"] = rwLock_;
  }
  void TearDown() override {
    if (rwLock_ != nullptr) {
      EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
    }
    EXPECT_FALSE(opltest::SetExists(id_));
    Instance::TearDown();
  }

  int Uses() const { return 32000 - ValueOf(id_, kUseCount); }
  void ExpectParentsUseAlone() {
    EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id_));
    EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management_));
    EXPECT_EQ(id_, SetNamedBy(RWLockFile("q")));
  }

  OPL_SyncRWLock* rwLock_ = nullptr;
  int id_ = -1;
  int management_ = -1;
};

// A way for the child to go, which costs the parent nothing.
class SyncRWLockOfAParent : public SyncRWLockFork, public ::testing::WithParamInterface<const char*> {};

TEST_P(SyncRWLockOfAParent, LosesNothing) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do(GetParam()));
  child.Quit();
  ExpectParentsUseAlone();
}

TEST_P(SyncRWLockOfAParent, LosesNothingWhenTheChildExits) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do(GetParam()));
  child.Exit();
  ExpectParentsUseAlone();
}

INSTANTIATE_TEST_SUITE_P(Child, SyncRWLockOfAParent,
                         ::testing::Values("nothing", "begin", "adopt", "end", "end-forced",
                                           "rwlock-close q"),
                         [](const ::testing::TestParamInfo<const char*>& test) {
                           std::string name = test.param;
                           std::erase_if(name, [](char c) { return std::isalnum(c) == 0; });
                           return name;
                         });

TEST_F(SyncRWLockFork, GivesAnAdoptingChildAUseForEachHandle) {
  OPL_SyncRWLock* second = opltest::OpenRWLock("q");
  EXPECT_EQ(2, Uses());
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(4, Uses());
  EXPECT_EQ(0u, child.Do("rwlock-lock q 2"));
  EXPECT_EQ(0u, child.Do("rwlock-unlock q"));
  EXPECT_EQ(0u, child.Do("rwlock-close q"));
  EXPECT_EQ(3, Uses());
  EXPECT_EQ(0u, child.Do("end"));
  EXPECT_EQ(2, Uses());
  child.Quit();
  EXPECT_EQ(2, Uses());
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&second));
}

TEST_F(SyncRWLockFork, TakesTheAdoptedUseBackWhenTheChildIsKilled) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(0u, child.Do("rwlock-lock q 1"));
  EXPECT_EQ((opltest::Values{1, 0, 1, 31998}), ValuesOf(id_));
  child.Kill();
  ExpectParentsUseAlone();
}

TEST_F(SyncRWLockFork, LetsTheChildBeTheLastUser) {
  SyncActor child;
  EXPECT_EQ(0u, child.Do("adopt"));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&rwLock_));
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(id_));
  EXPECT_EQ(0u, child.Do("end"));
  EXPECT_FALSE(opltest::SetExists(id_));
  child.Quit();
}

TEST_F(SyncRWLockFork, CountsRightOverGenerationsThatAdopt) {
  constexpr int kGenerations = 4;
  SyncActor line;
  EXPECT_EQ(0u, line.Do("adopt"));
  for (int i = 2; i <= kGenerations; ++i) {
    EXPECT_EQ(0u, line.Do("fork"));
    EXPECT_EQ(0u, line.Do("adopt"));
    EXPECT_EQ(1 + i, Uses());
  }
  for (int i = kGenerations; i > 1; --i) {
    EXPECT_EQ(0u, line.Do(i % 2 == 0 ? "exit" : "quit"));
    EXPECT_EQ(i, Uses());
  }
  EXPECT_EQ(0u, line.Do("end"));
  line.Quit();
  ExpectParentsUseAlone();
}

TEST_F(SyncRWLockFork, ReportsTheFirstSetThatCannotBeAdoptedAfterAllOthers) {
  OPL_SyncRWLock* removed = NewRWLock("removed");
  OPL_SyncRWLock* other = NewRWLock("other");
  const int removedId = SetNamedBy(RWLockFile("removed"));
  const int otherId = SetNamedBy(RWLockFile("other"));
  opltest::RemoveSet(removedId);
  opltest::Child child([&](opltest::Steps&) {
    EXPECT_EQ(0x05120Bu, OPL_InitSetCurrentPid());
    ExpectError(EINVAL, ("OPL_PrivateUseCountAccess: semop(" + std::to_string(removedId) +
                         ") failed :" + NumberAndText(EINVAL))
                            .c_str());
    EXPECT_EQ((opltest::Values{1, 0, 0, 31998}), ValuesOf(otherId));
  });
  child.ExpectSuccess();
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&other));
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&removed));
  std::free(removed);
}

// A hold that was taken before the fork stays the parent's.
class SyncRWLockHeldOverFork : public SyncRWLockFork, public ::testing::WithParamInterface<const char*> {};

TEST_P(SyncRWLockHeldOverFork, IsNotUnlockedByTheChild) {
  for (const uint32_t mode : {1u, 2u}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, mode));
    SyncActor child;
    EXPECT_EQ(0u, child.Do(GetParam()));
    EXPECT_EQ(0x050018u, child.Do("rwlock-unlock q"));
    child.Quit();
    EXPECT_EQ(mode == 1 ? (opltest::Values{1, 0, 1, 31999}) : (opltest::Values{0, 1, 0, 31999}),
              ValuesOf(id_));
    EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
    ExpectParentsUseAlone();
  }
}

TEST_P(SyncRWLockHeldOverFork, MakesTheChildWait) {
  EXPECT_EQ(0u, OPL_SyncRWLockLock(rwLock_, 2));
  SyncActor child;
  EXPECT_EQ(0u, child.Do(GetParam()));
  child.Start("rwlock-lock q 1");
  AwaitSleepersForZero(id_, kWriters);
  EXPECT_EQ(0u, OPL_SyncRWLockUnlock(rwLock_));
  EXPECT_EQ(0u, child.Finish());
  EXPECT_EQ(0u, child.Do("rwlock-unlock q"));
  EXPECT_EQ(0x050018u, child.Do("rwlock-unlock q"));
  child.Quit();
  ExpectParentsUseAlone();
}

INSTANTIATE_TEST_SUITE_P(Child, SyncRWLockHeldOverFork, ::testing::Values("nothing", "adopt", "begin"),
                         [](const ::testing::TestParamInfo<const char*>& test) {
                           return std::string(test.param);
                         });

}  // namespace
