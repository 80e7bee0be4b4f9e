// Many processes of both widths come, make, find and post events, and go or are killed: who is there at the
// same time has the same event, no post of a living process is lost, and nothing stays.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/Storm.h"

namespace {

using opltest::Arena;
using opltest::CloseEvent;
using opltest::Guest;
using opltest::IsSet;
using opltest::NewEvent;
using opltest::OpenEvent;
using opltest::PeerBody;
using opltest::Steps;
using opltest::Storm;

struct Posts {
  opltest::Holders holders;
  std::atomic<uint32_t> tasks[opltest::kMostGuests];  // which of its tasks a guest has the server do
  std::atomic<uint32_t> asked[opltest::kMostGuests];
  std::atomic<uint32_t> done[opltest::kMostGuests];
};

constexpr uint32_t kEvents = 3;
constexpr uint32_t kQuestions = 5;
// Far beyond what any wait takes: a post that is lost fails the test, it does not hang it.
constexpr int32_t kLostMs = 60'000;

std::string NameOfReply(uint32_t guest, uint32_t task) {
  return "r" + std::to_string(guest) + "-" + std::to_string(task);
}

template <uint32_t kCount>
void Wait(OPL_SyncEvent* const (&events)[kCount], const int32_t* pTimeoutMs) {
  OPL_SyncWaitableEvent* waits[kCount];
  uint32_t ready[kCount];
  for (uint32_t i = 0; i < kCount; ++i)
    OPLTEST_EXPECT_OK(OPL_SyncEventWaitableEventCreate(events[i], &waits[i]));
  OPLTEST_EXPECT_OK(OPL_SyncWaitableEventWaitForMultiple(0, kCount, waits, ready, pTimeoutMs));
  for (uint32_t i = 0; i < kCount; ++i)
    OPLTEST_EXPECT_OK(OPL_SyncEventWaitableEventDestroy(events[i], &waits[i]));
}

// Nobody resets these events: an event that somebody has posted and still has is set for everybody. The posts
// are gone when nobody has it, although those who were killed keep it there.
void ExpectSet(const Arena<Posts>& arena, uint32_t number, OPL_SyncEvent* event) {
  arena->holders.ExpectAllSeen(number, opltest::Holders::kDeadHaveLeft,
                               [&](uint32_t) { return IsSet(event); });
}

void ShareEvent(Guest& guest, const Arena<Posts>& arena) {
  const uint32_t number = 1 + guest.Draw(kEvents);
  const std::string name = "shared" + std::to_string(number);
  OPL_SyncEvent* event = nullptr;
  opltest::CreateOrOpen([&] { return OPL_SyncEventCreate(&event, 0, name.c_str(), OPL_SYNC_EVENT_PRIVATE); },
                        OPL_SYNC_E_EVENT_EXISTS,
                        [&] { return OPL_SyncEventOpen(&event, 0, name.c_str(), OPL_SYNC_EVENT_PRIVATE); },
                        OPL_SYNC_E_OPEN);
  if (event == nullptr) return;
  ExpectSet(arena, number, event);
  OPLTEST_EXPECT_OK(OPL_SyncEventPost(event));
  arena->holders.Enter(guest, number);
  ExpectSet(arena, number, event);
  arena->holders.Leave(guest);
  CloseEvent(event);
}

// Posts for the server, and waits for what it posts back to an event that is this task's own.
void AskServer(const Guest& guest, const Arena<Posts>& arena) {
  const uint32_t self = guest.number();
  OPL_SyncEvent* const work = OpenEvent("work");
  OPL_SyncEvent* const reply = NewEvent(NameOfReply(self, ++arena->tasks[self]));
  for (uint32_t question = 0; question < kQuestions && !::testing::Test::HasFailure(); ++question) {
    const uint32_t asked = ++arena->asked[self];
    OPLTEST_EXPECT_OK(OPL_SyncEventPost(work));
    Wait<1>({reply}, &kLostMs);
    OPLTEST_EXPECT_OK(OPL_SyncEventReset(reply));
    EXPECT_EQ(asked, arena->done[self]);
  }
  CloseEvent(reply);
  CloseEvent(work);
}

const PeerBody kGuest("Guest", [](Steps& steps) {
  Guest guest(steps);
  const Arena<Posts> arena;
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  for (uint32_t deeds = 1 + guest.Draw(3); deeds != 0; --deeds)
    guest.Draw(2) == 0 ? ShareEvent(guest, arena) : AskServer(guest, arena);
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

// A question is asked before its post, and the posts are reset before the questions are looked at.
void Serve(const Arena<Posts>& arena) {
  for (uint32_t number = 0; number < opltest::kMostGuests; ++number) {
    const uint32_t asked = arena->asked[number];
    if (arena->done[number] == asked) continue;
    OPL_SyncEvent* const reply = OpenEvent(NameOfReply(number, arena->tasks[number]));
    arena->done[number] = asked;
    OPLTEST_EXPECT_OK(OPL_SyncEventPost(reply));
    CloseEvent(reply);
  }
}

const PeerBody kServer("Server", [](Steps& steps) {
  const Arena<Posts> arena;
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  OPL_SyncEvent* const work = NewEvent("work");
  OPL_SyncEvent* const stop = NewEvent("stop");
  steps.Reach();
  while (!IsSet(stop) && !::testing::Test::HasFailure()) {
    Wait<2>({work, stop}, nullptr);
    OPLTEST_EXPECT_OK(OPL_SyncEventReset(work));
    Serve(arena);
  }
  CloseEvent(stop);
  CloseEvent(work);
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

const PeerBody kStopper("Stopper", [](Steps&) {
  ASSERT_EQ(0u, OPL_InitBegin(0)) << OPL_ErrMessageGet(0);
  OPL_SyncEvent* const stop = OpenEvent("stop");
  OPLTEST_EXPECT_OK(OPL_SyncEventPost(stop));
  CloseEvent(stop);
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

void Blow(Storm& storm, Storm::Weather weather) {
  opltest::Peer server(kServer, storm.DrawWidth());
  server.Await();
  storm.Blow(kGuest, weather);
  opltest::Peer(kStopper, storm.DrawWidth()).ExpectSuccess();
  server.ExpectSuccess();
}

class SyncEventStorm : public ::testing::TestWithParam<unsigned> {};

TEST_P(SyncEventStorm, LosesNoPostAndLeavesNothingBehind) {
  Storm storm(GetParam());
  storm.Rage([&](Storm::Weather weather) { Blow(storm, weather); });
}

INSTANTIATE_TEST_SUITE_P(Seed, SyncEventStorm, ::testing::Values(1u, 2u));

}  // namespace
