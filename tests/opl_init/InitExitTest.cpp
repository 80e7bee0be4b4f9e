// What happens at a process's exit, and when the library is unloaded.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
#include "tests/support/Child.h"
#include "tests/support/Instance.h"
#include "tests/support/Program.h"

namespace {

using opltest::Child;
using opltest::Steps;

Steps* gSteps;

void Tell(OPL_Result result) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "%06X", result);
  gSteps->Send(text);
}

// A process that registers the handler, runs the body, and exits; the handler runs after the library's own,
// because the body begins the library later. Each line that the handler sends is one of the answers.
class Exiting {
 public:
  Exiting(void (*handler)(), void (*body)())
      : child_(
            [=](Steps& steps) {
              gSteps = &steps;
              ASSERT_EQ(0, std::atexit(handler));
              body();
            },
            Child::End::kOrdinarily) {}

  std::string Answer() { return child_.Receive(); }
  void ExpectSuccess() { child_.ExpectSuccess(); }

 private:
  Child child_;
};

void BeginTwice() {
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
}

TEST(InitExit, StopsTheLibraryForGood) {
  Exiting process(
      [] {
        Tell(OPL_InitIsStopped(0));
        Tell(OPL_InitBegin(0));
        Tell(OPL_InitIsStopped(0));
      },
      BeginTwice);
  EXPECT_EQ("050203", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, StillChecksTheModeOfABeginFirst) {
  Exiting process([] { Tell(OPL_InitBegin(1)); }, BeginTwice);
  EXPECT_EQ("050202", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, LeavesAsManyEndsAsThereWereBegins) {
  Exiting process(
      [] {
        for (int i = 0; i < 4; ++i) Tell(OPL_InitEnd(0));
      },
      BeginTwice);
  EXPECT_EQ("000000", process.Answer());
  EXPECT_EQ("000000", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, AcceptsForcedEndsToo) {
  Exiting process(
      [] {
        for (int i = 0; i < 3; ++i) Tell(OPL_InitEnd(1));
      },
      BeginTwice);
  EXPECT_EQ("000000", process.Answer());
  EXPECT_EQ("000000", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, EndsTheErrorRecord) {
  Exiting process(
      [] {
        (void)OPL_ErrSet(0, 6, "too late");
        Tell(OPL_ErrCodeGet(0));
        gSteps->Send(OPL_ErrMessageGet(0));
      },
      [] {
        BeginTwice();
        (void)OPL_ErrSet(0, 5, "in time");
      });
  EXPECT_EQ("050502", process.Answer());
  EXPECT_EQ("No message available.", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, RefusesWhatNeedsTheLibrary) {
  Exiting process(
      [] {
        uint32_t id = 0;
        Tell(OPL_SyncCriticalSectionInit(&gCrit));
        Tell(OPL_InitSetCurrentPid());
        Tell(OPL_ThreadIdGet(&id));
        Tell(OPL_Log("at exit"));
      },
      BeginTwice);
  EXPECT_EQ("050203", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  EXPECT_EQ("000000", process.Answer());
  EXPECT_EQ("000000", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, FindsALibraryThatHasEndedItself) {
  Exiting process([] { Tell(OPL_InitEnd(0)); },
                  [] {
                    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
                    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
                  });
  EXPECT_EQ("050203", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExit, LeavesABeginWaitingAfterTheFinalEnd) {
  Child child(
      [](Steps& steps) {
        gSteps = &steps;
        ASSERT_EQ(0, std::atexit([] {
                    gSteps->Reach();
                    Tell(OPL_InitBegin(0));
                  }));
        EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
        EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
      },
      Child::End::kOrdinarily);
  child.Await();
  child.AwaitSleepOnLock();
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
}

void LetAChildExit() {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  Child([](Steps&) {}, Child::End::kOrdinarily).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
}

void ExpectOnlyTheParentsEnd(void (*body)()) {
  Exiting process([] { Tell(OPL_InitIsStopped(0)); }, body);
  EXPECT_EQ("000000", process.Answer()) << "the child's exit function ran";
  EXPECT_EQ("050203", process.Answer()) << "the parent's did not";
  process.ExpectSuccess();
}

TEST(InitExitOfAChild, TearsNothingDownThatIsTheParents) { ExpectOnlyTheParentsEnd(LetAChildExit); }

// A process id of the program's own passes to the child, who then looks like the parent.
TEST(InitExitOfAChild, TearsNothingDownThatIsTheParentsWhenBothHaveOneId) {
  ExpectOnlyTheParentsEnd([] {
    ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(77));
    LetAChildExit();
  });
}

TEST(InitExitOfAChild, StopsWhatTheChildHasTakenOver) {
  Exiting process([] { Tell(OPL_InitIsStopped(0)); },
                  [] {
                    ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
                    Child([](Steps&) { EXPECT_EQ(OPL_OK, OPL_InitSetCurrentPid()); }, Child::End::kOrdinarily)
                        .ExpectSuccess();
                    EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
                    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
                  });
  EXPECT_EQ("050203", process.Answer());
  EXPECT_EQ("050203", process.Answer());
  process.ExpectSuccess();
}

TEST(InitExitOfAChild, StopsWhatTheChildHasBegun) {
  Exiting process(
      [] { Tell(OPL_InitEnd(0)); },
      [] {
        ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
        Child([](Steps&) { EXPECT_EQ(OPL_OK, OPL_InitBegin(0)); }, Child::End::kOrdinarily).ExpectSuccess();
        EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
        EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
      });
  EXPECT_EQ("000000", process.Answer()) << "the child's begin is left to be ended";
  EXPECT_EQ("050203", process.Answer());
  process.ExpectSuccess();
}

class InitUnload : public ::testing::Test {
 protected:
  void SetUp() override {
    if (opltest::kThreadSanitizer) GTEST_SKIP() << "its atexit does not know the library that calls it";
  }

  static std::string OutputWith(const std::vector<std::string>& arguments) {
    return opltest::OutputOf(QVOPL_TEST_PROGRAMS "/UnloadProgram", arguments);
  }
};

TEST_F(InitUnload, RunsTheExitFunction) { EXPECT_EQ("begun 1 unloaded 0", OutputWith({QVOPL_LIBRARY})); }

TEST_F(InitUnload, FollowsAnEnd) { EXPECT_EQ("begun 1 unloaded 0", OutputWith({QVOPL_LIBRARY, "end"})); }

}  // namespace
