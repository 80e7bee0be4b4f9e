// Named events among processes: posts and waits, counts over fork, exit and death, and creators that race.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/KillPoints.h"
#include "tests/support/Threads.h"
#include "tests/support/User.h"

namespace {

using opltest::Child;
using opltest::CloseEvent;
using opltest::CountOf;
using opltest::EventFiles;
using opltest::Fault;
using opltest::IsSet;
using opltest::NewEvent;
using opltest::OpenEvent;
using opltest::Steps;

constexpr uint32_t kPrivate = OPL_SYNC_EVENT_PRIVATE;

// Waits without limit until the event is set.
void AwaitSet(OPL_SyncEvent* event) {
  OPL_SyncWaitableEvent* wait = nullptr;
  EXPECT_EQ(0u, OPL_SyncEventWaitableEventCreate(event, &wait));
  uint32_t ready = 0;
  EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, nullptr));
  EXPECT_EQ(1u, ready);
  EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(event, &wait));
}

void Begin() { ASSERT_EQ(0u, OPL_InitBegin(0)); }

class SyncEventProcess : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    event_ = NewEvent("q");
  }
  void TearDown() override {
    if (event_ != nullptr) CloseEvent(event_);
    EXPECT_TRUE(EventFiles().empty());
    Instance::TearDown();
  }

  static opltest::Values EventMutexValues() {
    return opltest::ValuesOf(opltest::SetNamedBy(opltest::MutexFile("QVMXEV")));
  }
  // For tests after which the count is not right any more.
  void RemoveEvent() {
    EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event*"));
    EXPECT_EQ(0x05001Eu, OPL_SyncEventClose(&event_));
  }

  OPL_SyncEvent* event_ = nullptr;
};

class SyncEventFork : public SyncEventProcess {};
class SyncEventDeath : public SyncEventProcess {};

TEST_F(SyncEventProcess, WakesAnotherProcess) {
  Child child([](Steps& steps) {
    Begin();
    OPL_SyncEvent* const event = OpenEvent("q");
    steps.Reach();
    AwaitSet(event);
    EXPECT_EQ(0u, OPL_SyncEventReset(event));
    CloseEvent(event);
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.Await();
  EXPECT_EQ(0u, OPL_SyncEventPost(event_));
  child.ExpectSuccess();
  EXPECT_FALSE(IsSet(event_));
}

TEST_F(SyncEventProcess, WakesAllProcessesThatWait) {
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 3; ++i) {
    children.push_back(std::make_unique<Child>([](Steps& steps) {
      Begin();
      OPL_SyncEvent* const event = OpenEvent("q");
      steps.Reach();
      AwaitSet(event);
      CloseEvent(event);
      EXPECT_EQ(0u, OPL_InitEnd(0));
    }));
    children.back()->Await();
  }
  EXPECT_EQ(4u, CountOf("q"));
  EXPECT_EQ(0u, OPL_SyncEventPost(event_));
  for (const auto& child : children) child->ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
}

TEST_F(SyncEventProcess, CountsTheHandlesOfAllProcesses) {
  Child child([](Steps& steps) {
    Begin();
    OPL_SyncEvent* const first = OpenEvent("q");
    OPL_SyncEvent* const second = OpenEvent("q");
    steps.Reach();
    steps.WaitForGo();
    CloseEvent(first);
    CloseEvent(second);
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.Await();
  EXPECT_EQ(3u, CountOf("q"));
  child.Go();
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
}

TEST_F(SyncEventProcess, OutlivesItsMaker) {
  Child child([](Steps&) {
    Begin();
    OPL_SyncEvent* const event = NewEvent("made");
    EXPECT_EQ(0u, OPL_SyncEventPost(event));
    OPL_SyncEvent* const other = OpenEvent("made");
    CloseEvent(event);
    (void)other;
  });
  child.ExpectSuccess();
  OPL_SyncEvent* const event = OpenEvent("made");
  // What nobody has open keeps no posts.
  EXPECT_FALSE(IsSet(event));
  EXPECT_EQ(2u, CountOf("made"));
  CloseEvent(event);
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "made*"));
}

TEST_F(SyncEventProcess, GivesBackOneForEachNameAtItsEnd) {
  Child child(
      [](Steps& steps) {
        Begin();
        (void)OpenEvent("q");
        (void)OpenEvent("q");
        (void)NewEvent("own");
        steps.Reach();
        steps.WaitForGo();
      },
      Child::End::kOrdinarily);
  child.Await();
  EXPECT_EQ(3u, CountOf("q"));
  EXPECT_EQ(1u, CountOf("own"));
  child.Go();
  child.ExpectSuccess();
  EXPECT_EQ(2u, CountOf("q"));
  EXPECT_EQ(2u, EventFiles().size());
  EXPECT_EQ((opltest::Values{1, 31999}), EventMutexValues());
  RemoveEvent();
}

TEST_F(SyncEventProcess, LeavesTheEventMutexToOthersAtItsEnd) {
  for (int i = 0; i < 3; ++i) {
    Child child(
        [](Steps&) {
          Begin();
          // The table of mutexes takes the wrong ones out, so that its end closes some once more.
          OPL_SyncMutex* a = opltest::NewMutex("a");
          OPL_SyncMutex* b = opltest::NewMutex("b");
          CloseEvent(OpenEvent("q"));
          EXPECT_EQ(0u, OPL_SyncMutexClose(&a));
          EXPECT_EQ(0u, OPL_SyncMutexClose(&b));
          (void)OpenEvent("q");
          CloseEvent(OpenEvent("q"));
        },
        Child::End::kOrdinarily);
    child.ExpectSuccess();
    EXPECT_EQ((opltest::Values{1, 31999}), EventMutexValues());
    EXPECT_EQ(1u, CountOf("q"));
  }
}

TEST_F(SyncEventProcess, IsRefusedForAnEventThatAnotherProcessMade) {
  Child child([](Steps&) {
    Begin();
    OPL_SyncEvent* event = nullptr;
    EXPECT_EQ(0x05000Au, OPL_SyncEventCreate(&event, 0, "q", kPrivate));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
}

TEST_F(SyncEventProcess, RefusesAnotherUserWhatIsPrivate) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::LetOtherUsersIn();
  OPL_SyncEvent* const all = NewEvent("all", OPL_SYNC_EVENT_ALL);
  Child child([](Steps&) {
    opltest::BecomeOtherUser();
    EXPECT_NE(0, ::access(opltest::FifoOf("q").c_str(), R_OK));
    EXPECT_NE(0, ::access(opltest::CountFileOf("q").c_str(), R_OK));
    EXPECT_EQ(0, ::access(opltest::FifoOf("all", "all").c_str(), R_OK | W_OK));
    EXPECT_EQ(0, ::access(opltest::CountFileOf("all", "all").c_str(), R_OK | W_OK));
  });
  child.ExpectSuccess();
  CloseEvent(all);
}

TEST(SyncEventForAllUsers, IsSharedWithAnotherUserAndInstance) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::LetOtherUsersIn();
  Child maker([](Steps& steps) {
    Begin();
    OPL_SyncEvent* const event = NewEvent("q", OPL_SYNC_EVENT_ALL);
    steps.Reach();
    AwaitSet(event);
    CloseEvent(event);
    steps.Reach();
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  maker.Await();
  Child other([](Steps& steps) {
    opltest::BecomeOtherUser();
    ASSERT_EQ(0, ::setenv("QVOPL_TEST_INSTANCE", "OTHER", 1));
    Begin();
    OPL_SyncEvent* const event = OpenEvent("q", OPL_SYNC_EVENT_ALL);
    EXPECT_EQ(2u, CountOf("q", "all"));
    EXPECT_EQ(0u, OPL_SyncEventPost(event));
    steps.WaitForGo();
    EXPECT_EQ(1u, CountOf("q", "all"));
    CloseEvent(event);
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  maker.Await();
  other.Go();
  other.ExpectSuccess();
  maker.ExpectSuccess();
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventFork, LeavesTheCountWhenAChildClosesWhatItOnlyInherited) {
  Child child([&](Steps&) {
    EXPECT_EQ(0u, OPL_SyncEventPost(event_));
    CloseEvent(event_);
  });
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_TRUE(IsSet(event_));
}

TEST_F(SyncEventFork, LeavesTheCountWhenAChildEndsOrdinarily) {
  Child child([](Steps&) {}, Child::End::kOrdinarily);
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_EQ((opltest::Values{1, 31999}), EventMutexValues());
}

TEST_F(SyncEventFork, LeavesTheCountWhenAChildBeginsAnewAndEnds) {
  Child child([&](Steps&) {
    Begin();
    CloseEvent(event_);
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
}

// The handle that it inherited is not the one that its table has.
TEST_F(SyncEventFork, GivesBackWhatAChildOpenedThoughItClosedWhatItInherited) {
  Child child(
      [&](Steps&) {
        Begin();
        (void)OpenEvent("q");
        CloseEvent(event_);
        EXPECT_EQ(2u, CountOf("q"));
      },
      Child::End::kOrdinarily);
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
}

TEST_F(SyncEventFork, CountsNothingWhenAChildAdopts) {
  Child child([](Steps&) { EXPECT_EQ(0u, OPL_InitSetCurrentPid()); });
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
}

TEST_F(SyncEventFork, TakesOneOffWhenAChildThatAdoptedCloses) {
  OPL_SyncEvent* const other = OpenEvent("q");
  Child child([&](Steps&) {
    EXPECT_EQ(0u, OPL_InitSetCurrentPid());
    CloseEvent(event_);
  });
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
  CloseEvent(other);
  EXPECT_EQ(0x05001Eu, OPL_SyncEventClose(&event_));
}

TEST_F(SyncEventFork, TakesOneOffWhenAChildThatAdoptedEnds) {
  OPL_SyncEvent* const other = OpenEvent("q");
  Child child([](Steps&) { EXPECT_EQ(0u, OPL_InitSetCurrentPid()); }, Child::End::kOrdinarily);
  child.ExpectSuccess();
  EXPECT_EQ(1u, CountOf("q"));
  CloseEvent(other);
  EXPECT_EQ(0x05001Eu, OPL_SyncEventClose(&event_));
}

TEST_F(SyncEventDeath, LeavesItsShareInTheCount) {
  Child child([](Steps& steps) {
    Begin();
    (void)OpenEvent("q");
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  EXPECT_EQ(2u, CountOf("q"));
  EXPECT_EQ((opltest::Values{1, 31999}), EventMutexValues());
  CloseEvent(event_);
  event_ = nullptr;
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event*"));
}

// The child has not got the thread, and would wait for it for ever.
TEST_F(SyncEventFork, WaitsForAThreadThatMakesTheEventMutex) {
  opltest::RemoveSet(opltest::SetNamedBy(opltest::MutexFile("QVMXEV")));
  std::atomic<bool> makes{false};
  std::atomic<bool> forked{false};
  const pid_t forking = ::gettid();
  const opltest::DetachedThread maker([&] {
    const Fault fault("semget", 1, [&] {
      makes = true;
      opltest::AwaitSleepOnLock(forking);
      EXPECT_FALSE(forked);
    });
    CloseEvent(NewEvent("other"));
    EXPECT_TRUE(fault.Fired());
  });
  while (!makes) std::this_thread::yield();
  Child child([](Steps&) {
    Begin();
    CloseEvent(NewEvent("childs"));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  forked = true;
  child.ExpectSuccess();
}

// The system forgets what is in a FIFO that nobody has open.
TEST_F(SyncEventDeath, OfTheLastUserTakesThePostsWithIt) {
  Child child([](Steps& steps) {
    Begin();
    OPL_SyncEvent* const other = OpenEvent("q");
    EXPECT_EQ(0u, OPL_SyncEventPost(other));
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  CloseEvent(event_);
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  event_ = OpenEvent("q");
  EXPECT_FALSE(IsSet(event_));
  CloseEvent(event_);
  event_ = nullptr;
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event*"));
}

TEST_F(SyncEventDeath, GivesTheEventMutexBack) {
  Child child([](Steps&) {
    Begin();
    const Fault fault("link", 1, Fault::Kill{});
    (void)NewEvent("half");
  });
  child.ExpectKilledBy(SIGKILL);
  EXPECT_EQ((opltest::Values{1, 31999}), EventMutexValues());
  CloseEvent(NewEvent("half"));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "half*"));
}

// What is left after a death at any moment hinders nobody, and a termination removes it.
class SyncEventKill : public ::testing::Test {
 protected:
  // The event mutex is there already: what comes of a death while it is made is the mutexes' own affair.
  static void BeginWithEventMutex() {
    Begin();
    CloseEvent(NewEvent("warm-up"));
  }
  static void BeginWithEvent() {
    BeginWithEventMutex();
    gEvent = NewEvent("q");
  }
  static void KillEverywhere(void (*before)(), void (*body)()) {
    opltest::KillAtEverySystemCall(before, body, [](int) {
      Child child([](Steps&) { UseAndTerminate(); });
      child.ExpectSuccess();
      ASSERT_TRUE(opltest::FilesIn(opltest::IpcDirectory()).empty());
      ASSERT_TRUE(opltest::SemaphoreSets().empty());
    });
  }

  static inline OPL_SyncEvent* gEvent = nullptr;

 private:
  static void UseAndTerminate() {
    Begin();
    OPL_SyncEvent* event = nullptr;
    OPL_Result rc = OPL_SyncEventCreate(&event, 0, "q", kPrivate);
    if (rc == OPL_SYNC_E_EVENT_EXISTS) rc = OPL_SyncEventOpen(&event, 0, "q", kPrivate);
    ASSERT_EQ(0u, rc) << OPL_ErrMessageGet(0);
    EXPECT_EQ(0u, OPL_SyncEventPost(event));
    EXPECT_TRUE(IsSet(event));
    CloseEvent(event);
    EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  }
};

TEST_F(SyncEventKill, AtAnySystemCallOfACreationHindersNobody) {
  KillEverywhere(BeginWithEventMutex, [] { (void)NewEvent("q"); });
}

TEST_F(SyncEventKill, AtAnySystemCallOfAnOpenHindersNobody) {
  KillEverywhere(BeginWithEvent, [] { (void)OpenEvent("q"); });
}

TEST_F(SyncEventKill, AtAnySystemCallOfACloseHindersNobody) {
  KillEverywhere(BeginWithEvent, [] { CloseEvent(gEvent); });
}

TEST_F(SyncEventKill, AtAnySystemCallOfTheProcesssEndHindersNobody) {
  KillEverywhere(BeginWithEvent, [] { EXPECT_EQ(0u, OPL_InitEnd(0)); });
}

// Creates or opens, posts, and closes, as often as it takes; nobody finds a half-made event.
void ComeAndGo() {
  Begin();
  for (int i = 0; i < 50; ++i) {
    OPL_SyncEvent* event = nullptr;
    OPL_Result rc = OPL_SYNC_E_OPEN;
    while (rc == OPL_SYNC_E_OPEN) {
      rc = OPL_SyncEventCreate(&event, 0, "storm", kPrivate);
      if (rc == OPL_SYNC_E_EVENT_EXISTS) rc = OPL_SyncEventOpen(&event, 0, "storm", kPrivate);
    }
    ASSERT_EQ(0u, rc);
    EXPECT_EQ(0u, OPL_SyncEventPost(event));

    EXPECT_EQ(0u, OPL_SyncEventReset(event));
    CloseEvent(event);
  }
  EXPECT_EQ(0u, OPL_InitEnd(0));
}

TEST(SyncEventStorm, EndsWithNothingLeft) {
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 4; ++i)
    children.push_back(std::make_unique<Child>([](Steps& steps) {
      steps.Reach();
      steps.WaitForGo();
      ComeAndGo();
    }));
  for (const auto& child : children) child->Await();
  for (const auto& child : children) child->Go();
  for (const auto& child : children) child->ExpectSuccess();
  EXPECT_TRUE(opltest::FilesIn(opltest::IpcDirectory()).empty());
}

}  // namespace
