// Events, and sets to wait for.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <qvopl.hpp>

#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"

namespace {

using namespace std::chrono_literals;
using opltest::Peer;
using opltest::PeerBody;
using opltest::Steps;
using qvopl::Event;
using qvopl::PrivateEvent;
using qvopl::WaitSet;

class CppEvent : public opltest::Instance {};

TEST_F(CppEvent, IsSetFromItsFirstPostUntilItsReset) {
  Event event = Event::Create("work");
  EXPECT_FALSE(event.IsSet());
  EXPECT_FALSE(event.WaitFor(0s));
  event.Post();
  event.Post();
  EXPECT_TRUE(event.IsSet());
  event.Wait();
  EXPECT_TRUE(event.WaitFor(24h));
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  EXPECT_EQ(std::errc::file_exists, Event::Create(std::nothrow, "work").error());
}

TEST_F(CppEvent, IsWaitedForUntilATimeOfAnyClock) {
  Event event = Event::Create("work");
  EXPECT_FALSE(event.WaitUntil(std::chrono::steady_clock::time_point::min()));
  EXPECT_FALSE(event.WaitUntil(std::chrono::system_clock::now() - 1ns));
  const auto soon = std::chrono::steady_clock::now() + 3ms;
  EXPECT_FALSE(event.WaitUntil(soon));
  EXPECT_LE(soon, std::chrono::steady_clock::now());
  event.Post();
  EXPECT_TRUE(event.WaitUntil(std::chrono::steady_clock::time_point::max()));
  using FarOff = std::chrono::time_point<std::chrono::system_clock, std::chrono::hours>;
  EXPECT_TRUE(event.WaitUntil(FarOff::max()));
  EXPECT_TRUE(event.WaitUntil(FarOff::min()));
}

TEST_F(CppEvent, IsMissingWhereThereIsNone) {
  const qvopl::Result<Event> event = Event::Open(std::nothrow, "work");
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_OPEN), event.code());
  EXPECT_EQ(ENOENT, event.systemError());
}

TEST_F(CppEvent, IsNotMadeAnewWhereItCannotBeOpened) {
  const Event event = Event::Create("work");
  opltest::Fault fault("open64", 1, EACCES, opltest::Fault::kForGood);
  const qvopl::Result<Event> again = Event::OpenOrCreate(std::nothrow, "work");
  EXPECT_FALSE(again.ok());
  EXPECT_LT(fault.Calls(), 10);
}

class CppPrivateEvent : public opltest::Instance {};

TEST_F(CppPrivateEvent, CountsItsPosts) {
  PrivateEvent event = PrivateEvent::Create(qvopl::Initially::kSet);
  event.Post();
  event.Reset();
  EXPECT_TRUE(event.WaitFor(0ms));
  event.Reset();
  EXPECT_FALSE(event.WaitFor(0ms));
}

TEST_F(CppPrivateEvent, IsWaitedForUntilATimeOfAnyClock) {
  PrivateEvent event = PrivateEvent::Create();
  EXPECT_FALSE(event.WaitUntil(std::chrono::steady_clock::now() + 1ms));
  event.Post();
  EXPECT_TRUE(event.WaitUntil(std::chrono::system_clock::time_point::max()));
}

TEST_F(CppPrivateEvent, WakesAThread) {
  PrivateEvent request = PrivateEvent::Create();
  PrivateEvent answer = PrivateEvent::Create();
  const qvopl::Thread thread = qvopl::Thread::Start([&] {
    request.Wait();
    answer.Post();
  });
  request.Post();
  EXPECT_TRUE(answer.WaitFor(60s));
}

class CppWaitSet : public opltest::Instance {};

TEST_F(CppWaitSet, TellsWhichMembersAreReady) {
  Event event = Event::Create("work");
  PrivateEvent stop = PrivateEvent::Create();
  auto [near, far] = qvopl::Socket::Pair();
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  WaitSet set;
  const WaitSet::Member work = set.Add(event);
  const WaitSet::Member end = set.Add(stop);
  const WaitSet::Member peer = set.Add(near);
  const WaitSet::Member room = set.Add(ends[1], qvopl::Until::kWritable);
  EXPECT_EQ(4u, set.size());
  set.Wait();
  EXPECT_TRUE(set.IsReady(room) && set.IsWritable(room) && !set.IsReadable(room));
  EXPECT_FALSE(set.IsReady(work) || set.IsReady(end) || set.IsReady(peer));
  event.Post();
  far.SendAll("x");
  set.Remove(room);
  set.Wait();
  EXPECT_TRUE(set.IsReady(work) && set.IsReadable(work));
  EXPECT_TRUE(set.IsReady(peer) && set.IsReadable(peer));
  EXPECT_FALSE(set.IsReady(end) || set.IsReady(room) || set.HasError(peer));
  (void)::close(ends[0]);
  (void)::close(ends[1]);
}

TEST_F(CppWaitSet, KeepsMembersWhatTheyAreWhenOthersGo) {
  std::vector<Event> events;
  WaitSet set;
  std::vector<WaitSet::Member> members;
  for (int i = 0; i < 6; ++i) {
    events.push_back(Event::Create("e" + std::to_string(i)));
    members.push_back(set.Add(events.back()));
  }
  set.Remove(members[1]);
  set.Remove(members[4]);
  set.Remove(members[4]);
  WaitSet moved = std::move(set);
  EXPECT_EQ(0u, set.size());
  events[5].Post();
  events[0].Post();
  moved.Wait();
  const bool kReady[] = {true, false, false, false, false, true};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(kReady[i], moved.IsReady(members[i])) << i;
  const WaitSet::Member again = moved.Add(events[4]);
  events[4].Post();
  EXPECT_TRUE(moved.WaitFor(0s));
  EXPECT_TRUE(moved.IsReady(again));
  EXPECT_FALSE(moved.IsReady(WaitSet::Member()));
}

TEST_F(CppWaitSet, TakesWhatIsOutForNoOther) {
  Event first = Event::Create("first");
  Event second = Event::Create("second");
  second.Post();
  WaitSet set;
  const WaitSet::Member gone = set.Add(first);
  set.Remove(gone);
  const WaitSet::Member member = set.Add(second);
  set.Wait();
  EXPECT_FALSE(set.IsReady(gone));
  set.Remove(gone);
  EXPECT_EQ(1u, set.size());
  const WaitSet moved = std::move(set);
  EXPECT_TRUE(moved.IsReady(member));
  EXPECT_FALSE(moved.IsReady(gone));
}

TEST_F(CppWaitSet, HasSixtyFourPlaces) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  WaitSet set;
  for (int i = 0; i < OPL_SYNC_WAIT_MAX; ++i) ASSERT_TRUE(set.Add(std::nothrow, ends[0]).ok());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_TOO_MANY_EVENTS), set.Add(std::nothrow, ends[0]).code());
  set.Clear();
  EXPECT_EQ(0u, set.size());
  (void)::close(ends[0]);
  (void)::close(ends[1]);
}

TEST_F(CppWaitSet, RefusesWhatCannotBeWaitedFor) {
  WaitSet set;
  EXPECT_FALSE(set.Add(std::nothrow, Event()).ok());
  EXPECT_FALSE(set.Add(std::nothrow, qvopl::Socket()).ok());
  EXPECT_EQ(0u, set.size());
}

// The times that reach the system.
std::vector<int> gTimeouts;
int TimeOut(pollfd*, nfds_t, int timeoutMs) {
  gTimeouts.push_back(timeoutMs);
  return 0;
}

TEST_F(CppWaitSet, RoundsTimesUpAndWaitsLongOnesInParts) {
  const Event event = Event::Create("work");
  WaitSet set;
  (void)set.Add(event);
  const opltest::Replacement poll("poll", TimeOut);
  EXPECT_FALSE(set.WaitFor(1500ms));
  EXPECT_FALSE(set.WaitFor(1ns));
  EXPECT_FALSE(set.WaitFor(-3h));
  EXPECT_FALSE(set.WaitFor(std::chrono::duration<double>(0.25)));
  EXPECT_FALSE(set.WaitUntil(std::chrono::steady_clock::now() - 1s));
  EXPECT_EQ((std::vector<int>{1500, 1, 0, 250, 0}), gTimeouts);
  gTimeouts.clear();
  EXPECT_FALSE(set.WaitFor(std::chrono::milliseconds(2LL * INT32_MAX + 5)));
  EXPECT_EQ((std::vector<int>{INT32_MAX, INT32_MAX, 5}), gTimeouts);
  gTimeouts.clear();
  EXPECT_FALSE(set.WaitFor(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN())));
  EXPECT_FALSE(set.WaitFor(1000001ns));
  EXPECT_FALSE(set.WaitUntil(std::chrono::steady_clock::time_point::min()));
  EXPECT_EQ((std::vector<int>{0, 2, 0}), gTimeouts);
}

// A clock that is set back once while somebody waits.
struct SetBack {
  using duration = std::chrono::milliseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<SetBack>;
  static constexpr bool is_steady = false;
  static time_point now() {
    constexpr int kTimes[] = {100, 60, 70, 110};
    return time_point(duration(kTimes[calls++]));
  }
  static inline int calls = 0;
};

TEST_F(CppWaitSet, WaitsOnWhenTheClockIsSetBack) {
  WaitSet set;
  const opltest::Replacement poll("poll", TimeOut);
  EXPECT_FALSE(set.WaitUntil(SetBack::time_point(110ms)));
  EXPECT_EQ((std::vector<int>{10, 40}), gTimeouts);
  EXPECT_EQ(4, SetBack::calls);
}

const PeerBody kPoster("Poster", [](Steps& steps) {
  const qvopl::Library library;
  Event ping = Event::OpenOrCreate("ping");
  Event pong = Event::OpenOrCreate("pong");
  steps.Reach();
  for (int round = 0; round < 100; ++round) {
    ping.Wait();
    ping.Reset();
    pong.Post();
  }
});

class CppEventMixed : public opltest::Instance, public ::testing::WithParamInterface<int> {};

TEST_P(CppEventMixed, GoesBackAndForthWithAPeer) {
  Event ping = Event::OpenOrCreate("ping");
  Event pong = Event::OpenOrCreate("pong");
  Peer peer(kPoster, GetParam());
  peer.Await();
  WaitSet set;
  const WaitSet::Member answer = set.Add(pong);
  for (int round = 0; round < 100; ++round) {
    ping.Post();
    set.Wait();
    EXPECT_TRUE(set.IsReady(answer));
    pong.Reset();
  }
  peer.ExpectSuccess();
}

INSTANTIATE_TEST_SUITE_P(PeerOf, CppEventMixed, ::testing::ValuesIn(opltest::PeerWidths()));

}  // namespace
