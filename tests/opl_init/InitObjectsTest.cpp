// Begin and end with named objects open: nested begins, tasks, children that begin or adopt, and the exit.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/Child.h"

namespace {

using opltest::FilesIn;
using opltest::ManagementFile;
using opltest::NewMutex;
using opltest::ObjectFiles;
using opltest::SemaphoreSets;
using opltest::SetNamedBy;
using opltest::SyncActor;
using opltest::ValuesOf;

class InitObjects : public ::testing::TestWithParam<int> {};
OPLTEST_WITH_EITHER_PEER(InitObjects);

TEST_P(InitObjects, MakeTheManagementLockWithTheFirstUserAndRemoveItWithTheLast) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  const int management = SetNamedBy(ManagementFile());
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management));
  SyncActor actor(GetParam());
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ((opltest::Values{31998, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ(0u, OPL_InitEnd(0));
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ(management, SetNamedBy(ManagementFile()));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_FALSE(opltest::SetExists(management));
  EXPECT_TRUE(FilesIn(opltest::IpcDirectory()).empty());
  actor.Quit();
}

TEST_P(InitObjects, StayOpenUntilTheLastOfNestedEnds) {
  SyncActor actor(GetParam());
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ(0u, actor.Do("mutex-create m 4"));
  EXPECT_EQ(0u, actor.Do("rwlock-create r 1"));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_EQ(2u, ObjectFiles().size());
  EXPECT_EQ(0u, actor.Do("mutex-acquire m"));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_TRUE(FilesIn(opltest::IpcDirectory()).empty());
  EXPECT_TRUE(SemaphoreSets().empty());
  EXPECT_EQ(0x050203u, actor.Do("mutex-release m"));
  actor.Quit();
}

TEST_P(InitObjects, AreClosedAtTheExitOfAProcessThatNeverEnds) {
  SyncActor actor(GetParam());
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ(0u, actor.Do("mutex-create m 4"));
  EXPECT_EQ(0u, actor.Do("mutex-acquire m"));
  EXPECT_EQ(0u, actor.Do("rwlock-create r 1"));
  EXPECT_EQ(0u, actor.Do("rwlock-lock r 2"));
  actor.Exit();
  EXPECT_TRUE(FilesIn(opltest::IpcDirectory()).empty());
  EXPECT_TRUE(SemaphoreSets().empty());
}

TEST_P(InitObjects, ComeBackFreeFromAProcessThatDies) {
  SyncActor actor(GetParam());
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ(0u, actor.Do("mutex-create m 4"));
  EXPECT_EQ(0u, actor.Do("mutex-acquire m"));
  EXPECT_EQ(0u, actor.Do("rwlock-create r 1"));
  EXPECT_EQ(0u, actor.Do("rwlock-lock r 2"));
  actor.Kill();
  EXPECT_EQ((opltest::Values{32000, 1, 1, 1}), ValuesOf(SetNamedBy(ManagementFile())));
  EXPECT_EQ((opltest::Values{1, 32000}), ValuesOf(SetNamedBy(opltest::MutexFile("m"))));
  EXPECT_EQ((opltest::Values{1, 0, 0, 32000}), ValuesOf(SetNamedBy(opltest::RWLockFile("r"))));
  SyncActor next(GetParam());
  for (const char* const command :
       {"begin", "mutex-open m 4", "mutex-acquire m", "mutex-release m", "mutex-close m", "rwlock-open r 1",
        "rwlock-lock r 2", "rwlock-close r", "end"})
    EXPECT_EQ(0u, next.Do(command)) << command;
  EXPECT_TRUE(FilesIn(opltest::IpcDirectory()).empty());
  next.Quit();
}

TEST_P(InitObjects, LetAChildThatBeginsAnewBeAUserOfItsOwn) {
  SyncActor actor(GetParam());
  EXPECT_EQ(0u, actor.Do("begin"));
  const int management = SetNamedBy(ManagementFile());
  EXPECT_EQ(0u, actor.Do("fork"));
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ((opltest::Values{31998, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ(0u, actor.Do("exit"));
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_FALSE(opltest::SetExists(management));
  actor.Quit();
}

// There is nobody to take anything over from, and what was taken twice would never be given back.
TEST_P(InitObjects, AreNotTakenTwiceByTheProcessThatBegan) {
  SyncActor actor(GetParam());
  for (const char* const command : {"begin", "mutex-create m 4", "rwlock-create r 1", "adopt", "adopt"})
    EXPECT_EQ(0u, actor.Do(command)) << command;
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(SetNamedBy(ManagementFile())));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(SetNamedBy(opltest::MutexFile("m"))));
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(SetNamedBy(opltest::RWLockFile("r"))));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_TRUE(FilesIn(opltest::IpcDirectory()).empty());
  actor.Quit();
}

TEST_P(InitObjects, LetAnAdoptingChildOutliveItsParent) {
  SyncActor actor(GetParam());
  EXPECT_EQ(0u, actor.Do("begin"));
  EXPECT_EQ(0u, actor.Do("mutex-create m 4"));
  EXPECT_EQ(0u, actor.Do("rwlock-create r 1"));
  EXPECT_EQ(0u, actor.Do("fork"));
  EXPECT_EQ(0u, actor.Do("adopt"));
  const int management = SetNamedBy(ManagementFile());
  EXPECT_EQ((opltest::Values{31998, 1, 1, 1}), ValuesOf(management));
  actor.Kill();  // the parent, which waits for its child
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(SetNamedBy(opltest::MutexFile("m"))));
  EXPECT_EQ((opltest::Values{1, 0, 0, 31999}), ValuesOf(SetNamedBy(opltest::RWLockFile("r"))));
  EXPECT_EQ(0u, actor.Do("mutex-acquire m"));
  EXPECT_EQ(0u, actor.Do("mutex-release m"));
  EXPECT_EQ(0u, actor.Do("end"));
  EXPECT_TRUE(FilesIn(opltest::IpcDirectory()).empty());
  EXPECT_TRUE(SemaphoreSets().empty());
}

class InitTask : public opltest::Instance {};

struct TaskSeen {
  opltest::Steps* steps;
  OPL_SyncMutex* mutex;
};

// A task begins anew: what its maker holds is not its own.
TEST_F(InitTask, IsAUserOfItsOwn) {
  OPL_SyncMutex* mutex = NewMutex("m");
  const int id = SetNamedBy(opltest::MutexFile("m"));
  const int management = SetNamedBy(ManagementFile());
  opltest::Child maker([&](opltest::Steps& steps) {
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    TaskSeen seen{&steps, mutex};
    ASSERT_EQ(0u, OPL_TaskCreate(
                      0,
                      [](void* argument) {
                        const TaskSeen& given = *static_cast<TaskSeen*>(argument);
                        OPL_SyncMutex* own = opltest::OpenMutex("m");
                        given.steps->Reach();
                        given.steps->WaitForGo();
                        EXPECT_EQ(0u, OPL_SyncMutexAcquire(own));
                        EXPECT_EQ(0u, OPL_SyncMutexRelease(own));
                        EXPECT_EQ(0u, OPL_SyncMutexClose(&own));
                        given.steps->Reach();
                      },
                      &seen));
    ASSERT_EQ(0, ::wait(nullptr) == -1 ? errno : 0);
    EXPECT_EQ((opltest::Values{1, 31998}), ValuesOf(SetNamedBy(opltest::MutexFile("m"))));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  maker.Await();
  EXPECT_EQ((opltest::Values{31997, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ((opltest::Values{1, 31997}), ValuesOf(id));
  maker.Go();
  maker.Await();
  maker.ExpectSuccess();
  EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(management));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id));
  EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex));
}

}  // namespace
