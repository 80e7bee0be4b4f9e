// The process's table of mutexes: its size, its one odd rule, and that neither costs another process a use.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"

namespace {

using opltest::CloseOpened;
using opltest::ExpectError;
using opltest::MutexFile;
using opltest::NewMutex;
using opltest::ObjectFiles;
using opltest::OpenMutex;
using opltest::RecordOf;
using opltest::SyncActor;
using opltest::ValuesOf;

constexpr uint32_t kPrivate = 0x04;
constexpr int kTableSize = 40;

std::string NameOf(int number) { return "m" + std::to_string(number); }

class SyncMutexTable : public opltest::Instance {
 protected:
  void Fill(int count) {
    for (int i = 0; i < count; ++i) mutexes_.push_back(NewMutex(NameOf(i).c_str()));
  }
  void TearDown() override {
    for (OPL_SyncMutex* mutex : mutexes_) EXPECT_EQ(0u, OPL_SyncMutexClose(&mutex));
    Instance::TearDown();
  }

  std::vector<OPL_SyncMutex*> mutexes_;
};

TEST_F(SyncMutexTable, HasNoPlaceForTheFortyFirstName) {
  Fill(kTableSize);
  const std::vector<int> sets = opltest::SemaphoreSets();
  OPL_SyncMutex* mutex = nullptr;
  EXPECT_EQ(0x05002Du, OPL_SyncMutexCreate(&mutex, 0, "one-more", kPrivate));
  ExpectError(0x05002D, "CleanupListAdd: Mutex table full");
  EXPECT_EQ(nullptr, mutex);
  EXPECT_EQ(sets, opltest::SemaphoreSets());
  EXPECT_EQ(static_cast<size_t>(kTableSize), ObjectFiles().size());
}

TEST_F(SyncMutexTable, HasAPlaceForAnotherHandleOfANameWhenItIsFull) {
  Fill(kTableSize);
  OPL_SyncMutex* const mutex = OpenMutex(NameOf(7).c_str());
  EXPECT_EQ((opltest::Values{1, 31998}), ValuesOf(RecordOf(mutex).semId));
  CloseOpened(mutex);
}

TEST_F(SyncMutexTable, HasPlacesAgainWhenMutexesWereClosed) {
  for (int i = 0; i < 5 * kTableSize; ++i) {
    OPL_SyncMutex* mutex = NewMutex(NameOf(i).c_str());
    ASSERT_EQ(0u, OPL_SyncMutexClose(&mutex));
  }
}

class SyncMutexTableByPeer : public opltest::WithPeer {
 protected:
  // Begins an actor with q open, which this process has made.
  void OpenBoth() {
    user_ = NewMutex("q");
    id_ = RecordOf(user_).semId;
    EXPECT_EQ(0u, actor_.Do("begin"));
    EXPECT_EQ(0u, actor_.Do("mutex-open q 4"));
  }
  // This process is the only user, and has lost nothing.
  void ExpectOneUse() {
    EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(id_));
    EXPECT_EQ(id_, opltest::SetNamedBy(MutexFile("q")));
  }
  void CloseAndExpectGone() {
    EXPECT_EQ(0u, OPL_SyncMutexClose(&user_));
    EXPECT_FALSE(opltest::SetExists(id_));
    EXPECT_TRUE(ObjectFiles().empty());
  }

  OPL_SyncMutex* user_ = nullptr;
  int id_ = -1;
  SyncActor actor_{GetParam()};
};
OPLTEST_WITH_EITHER_PEER(SyncMutexTableByPeer);

TEST_P(SyncMutexTableByPeer, FullGivesTheUseOfTheRefusedOpenBack) {
  user_ = NewMutex("q");
  id_ = RecordOf(user_).semId;
  EXPECT_EQ(0u, actor_.Do("begin"));
  for (int i = 0; i < kTableSize; ++i) EXPECT_EQ(0u, actor_.Do("mutex-create " + NameOf(i) + " 4"));
  EXPECT_EQ(0x05002Du, actor_.Do("mutex-open q 4"));
  EXPECT_EQ("CleanupListAdd: Mutex table full", actor_.Message());
  ExpectOneUse();
  for (int i = 0; i < kTableSize; ++i) EXPECT_EQ(0u, actor_.Do("mutex-close " + NameOf(i)));
  EXPECT_EQ(0u, actor_.Do("end"));
  actor_.Quit();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, ClosesAMutexAtTheEndAsOftenAsItIsOpen) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("mutex-open q 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-open q 4"));
  EXPECT_EQ((opltest::Values{1, 31996}), ValuesOf(id_));
  EXPECT_EQ(0u, actor_.Do("end"));
  ExpectOneUse();
  actor_.Quit();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, ClosesAMutexAtTheProcessesExit) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("mutex-open q 4"));
  actor_.Exit();
  ExpectOneUse();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, RemovesAtTheEndWhatNobodyElseUses) {
  EXPECT_EQ(0u, actor_.Do("begin"));
  EXPECT_EQ(0u, actor_.Do("mutex-create a 4"));
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_TRUE(ObjectFiles().empty());
  actor_.Quit();
}

TEST_P(SyncMutexTableByPeer, RemovesNothingAtAForcedEnd) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("end-forced"));
  EXPECT_EQ((opltest::Values{1, 31998}), ValuesOf(id_));
  actor_.Quit();
  ExpectOneUse();
  CloseAndExpectGone();
}

// The removal looks for the first entry of another name than the closed mutex's.
TEST_P(SyncMutexTableByPeer, DropsTheFirstOtherMutexWhenOneIsClosed) {
  EXPECT_EQ(0u, actor_.Do("begin"));
  EXPECT_EQ(0u, actor_.Do("mutex-create a 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-create b 4"));
  const int b = opltest::SetNamedBy(MutexFile("b"));
  EXPECT_EQ(0u, actor_.Do("mutex-close a"));
  EXPECT_EQ(0u, actor_.Do("end"));
  // b is not closed at the end; the kernel takes its use back.
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(b));
  actor_.Quit();
  EXPECT_EQ((opltest::Values{1, 32000}), ValuesOf(b));
  CloseOpened(OpenMutex("b"));
  EXPECT_TRUE(ObjectFiles().empty());
}

// The end closes mutexes as a call would, so each close costs the next one its entry.
TEST_P(SyncMutexTableByPeer, ClosesEverySecondOfManyMutexesAtTheEnd) {
  EXPECT_EQ(0u, actor_.Do("begin"));
  for (const char* const name : {"a", "b", "c", "d"})
    EXPECT_EQ(0u, actor_.Do(std::string("mutex-create ") + name + " 4"));
  EXPECT_EQ(0u, actor_.Do("end"));
  const std::string scope = ".mutex." + opltest::InstanceString() + ".006.021";
  EXPECT_EQ((std::vector<std::string>{"b" + scope, "d" + scope}), ObjectFiles());
  actor_.Quit();
  CloseOpened(OpenMutex("b"));
  CloseOpened(OpenMutex("d"));
  EXPECT_TRUE(ObjectFiles().empty());
}

TEST_P(SyncMutexTableByPeer, CountsTheHandlesOfTheOtherMutexDown) {
  EXPECT_EQ(0u, actor_.Do("begin"));
  EXPECT_EQ(0u, actor_.Do("mutex-create b 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-open b 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-create a 4"));
  const int b = opltest::SetNamedBy(MutexFile("b"));
  EXPECT_EQ(0u, actor_.Do("mutex-close a"));
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(b));
  actor_.Quit();
  CloseOpened(OpenMutex("b"));
}

TEST_P(SyncMutexTableByPeer, FindsADroppedNameAgainWithoutTakingItIntoUse) {
  EXPECT_EQ(0u, actor_.Do("begin"));
  EXPECT_EQ(0u, actor_.Do("mutex-create a 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-create b 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-close a"));  // drops b
  EXPECT_EQ(0u, actor_.Do("mutex-close b"));  // drops a
  EXPECT_EQ(0u, actor_.Do("mutex-create b 4"));
  const int b = opltest::SetNamedBy(MutexFile("b"));
  EXPECT_EQ(0u, actor_.Do("end"));
  EXPECT_EQ((opltest::Values{1, 31999}), ValuesOf(b));
  actor_.Quit();
  CloseOpened(OpenMutex("b"));
}

TEST_P(SyncMutexTableByPeer, TakesNothingFromAnotherUserOfAMutexThatWasClosedBefore) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("mutex-close q"));
  ExpectOneUse();
  EXPECT_EQ(0u, actor_.Do("end"));  // closes q once more
  ExpectOneUse();
  actor_.Quit();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, TakesNothingFromAnotherUserAtExit) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("mutex-close q"));
  actor_.Exit();
  ExpectOneUse();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, TakesNothingFromAnotherUserOfASuccessor) {
  EXPECT_EQ(0u, actor_.Do("begin"));
  EXPECT_EQ(0u, actor_.Do("mutex-create q 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-close q"));
  user_ = NewMutex("q");
  id_ = RecordOf(user_).semId;
  EXPECT_EQ(0u, actor_.Do("end"));
  ExpectOneUse();
  actor_.Quit();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, GivesBackItsOwnUsesAloneWhereSomeHandlesAreClosed) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("mutex-open q 4"));
  EXPECT_EQ(0u, actor_.Do("mutex-close q"));
  EXPECT_EQ((opltest::Values{1, 31998}), ValuesOf(id_));
  EXPECT_EQ(0u, actor_.Do("end"));
  ExpectOneUse();
  actor_.Quit();
  CloseAndExpectGone();
}

TEST_P(SyncMutexTableByPeer, TakesNothingWhenAnAdoptingChildEndsAfterAClose) {
  OpenBoth();
  EXPECT_EQ(0u, actor_.Do("mutex-close q"));
  EXPECT_EQ(0u, actor_.Do("fork"));
  EXPECT_EQ(0u, actor_.Do("adopt"));
  EXPECT_EQ((opltest::Values{1, 31998}), ValuesOf(id_));
  EXPECT_EQ(0u, actor_.Do("end"));
  ExpectOneUse();
  EXPECT_EQ(0u, actor_.Do("quit"));
  ExpectOneUse();
  EXPECT_EQ(0u, actor_.Do("end"));
  ExpectOneUse();
  actor_.Quit();
  CloseAndExpectGone();
}

}  // namespace
