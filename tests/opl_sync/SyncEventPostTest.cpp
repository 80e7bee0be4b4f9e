// OPL_SyncEventPost, Reset, IsSet and the waitable event of a named event.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Threads.h"

namespace {

using opltest::CloseEvent;
using opltest::ExpectError;
using opltest::Fault;
using opltest::IsSet;
using opltest::NewEvent;
using opltest::OpenEvent;
using opltest::PostsOf;
using opltest::Replacement;

constexpr int32_t kNow = 0;

class SyncEventUse : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    event_ = NewEvent("q");
  }
  void TearDown() override {
    CloseEvent(event_);
    Instance::TearDown();
  }

  void Post(int times = 1) {
    for (int i = 0; i < times; ++i) ASSERT_EQ(0u, OPL_SyncEventPost(event_));
  }
  OPL_Result Reset() { return OPL_SyncEventReset(event_); }

  OPL_SyncEvent* event_ = nullptr;
};

class SyncEventPost : public SyncEventUse {};
class SyncEventReset : public SyncEventUse {};
class SyncEventIsSet : public SyncEventUse {};
class SyncEventWaitable : public SyncEventUse {};

TEST_F(SyncEventPost, RefusesANullHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncEventPost(nullptr));
  ExpectError(0x050046, "OPL_SyncEventPost: hEvent is NULL");
}

TEST_F(SyncEventPost, SetsTheEvent) {
  EXPECT_FALSE(IsSet(event_));
  Post();
  EXPECT_TRUE(IsSet(event_));
}

TEST_F(SyncEventPost, AddsOneByteOfValueOne) {
  Post();
  Post();
  char bytes[8] = {};
  EXPECT_EQ(2, ::read(opltest::DescriptorOf(event_), bytes, sizeof bytes));
  EXPECT_EQ('\1', bytes[0]);
  EXPECT_EQ('\1', bytes[1]);
}

TEST_F(SyncEventPost, LeavesTheCountFileAlone) {
  Post(3);
  EXPECT_EQ(1u, opltest::CountOf("q"));
}

TEST_F(SyncEventPost, IsSeenThroughEveryHandle) {
  OPL_SyncEvent* const other = OpenEvent("q");
  Post();
  EXPECT_TRUE(IsSet(other));
  EXPECT_EQ(0u, OPL_SyncEventReset(other));
  EXPECT_FALSE(IsSet(event_));
  CloseEvent(other);
}

TEST_F(SyncEventPost, TellsTheSystemsRefusal) {
  {
    const Fault fault("write", 1, EIO);
    EXPECT_EQ(0x05002Au, OPL_SyncEventPost(event_));
  }
  ExpectError(EIO, "OPL_SyncEventPost: write rc :-1 errno:5,Input/output error");
  EXPECT_FALSE(IsSet(event_));
}

// As many posts as a pipe of the system's usual size has room for.
TEST_F(SyncEventPost, Keeps65536Posts) {
  ASSERT_EQ(65536, ::fcntl(opltest::DescriptorOf(event_), F_GETPIPE_SZ));
  Post(65536);
  EXPECT_EQ(65536, PostsOf(event_));
  EXPECT_EQ(0u, Reset());
  EXPECT_FALSE(IsSet(event_));
}

std::vector<pollfd> gAsked;
std::vector<int> gTimeouts;

// Time passes where a test lets it.
int gNowMs = 7;
int TellTime(clockid_t, timespec* time) {
  time->tv_sec = gNowMs / 1000;
  time->tv_nsec = gNowMs % 1000 * 1000000L;
  return 0;
}

void Record(const pollfd* entries, nfds_t count, int timeout) {
  gAsked.insert(gAsked.end(), entries, entries + count);
  gTimeouts.push_back(timeout);
}

int NobodyResets(pollfd* entries, nfds_t count, int timeout) {
  Record(entries, count, timeout);
  return 0;
}

int InterruptedAfterTwoSeconds() {
  gNowMs += 2000;
  errno = EINTR;
  return -1;
}

// As the system's does, a wait without time left finds nothing.
int OnlySignalsCome(pollfd* entries, nfds_t count, int timeout) {
  Record(entries, count, timeout);
  return timeout != 0 ? InterruptedAfterTwoSeconds() : 0;
}

// There was room, but not for this poster.
int OthersAreQuicker(pollfd* entries, nfds_t count, int timeout) {
  Record(entries, count, timeout);
  if (timeout == 0) return 0;
  gNowMs += 3000;
  return 1;
}

// Somebody resets the event after the wait was interrupted once.
int SomebodyResets(pollfd* entries, nfds_t count, int timeout) {
  Record(entries, count, timeout);
  if (gTimeouts.size() == 1) return InterruptedAfterTwoSeconds();
  char posts[4096];
  EXPECT_EQ(4096, ::read(entries[0].fd, posts, sizeof posts));
  return 1;
}

TEST_F(SyncEventPost, FailsWhenNobodyResetsAFullEventForFiveSeconds) {
  const int room = opltest::ShrinkRoom(event_);
  ASSERT_EQ(4096, room);
  Post(room);
  {
    const Replacement clock("clock_gettime", TellTime);
    const Replacement poll("poll", NobodyResets);
    EXPECT_EQ(0x05002Au, OPL_SyncEventPost(event_));
  }
  ExpectError(EAGAIN, "OPL_SyncEventPost: write rc :-1 errno:11,Resource temporarily unavailable");
  EXPECT_EQ(std::vector<int>{5000}, gTimeouts);
  ASSERT_EQ(1u, gAsked.size());
  EXPECT_EQ(opltest::DescriptorOf(event_), gAsked[0].fd);
  EXPECT_EQ(POLLOUT, gAsked[0].events);
  EXPECT_TRUE(IsSet(event_));
  EXPECT_EQ(room, PostsOf(event_));
}

TEST_F(SyncEventPost, SucceedsWhenAFullEventIsResetMeanwhile) {
  const int room = opltest::ShrinkRoom(event_);
  Post(room);
  const Replacement clock("clock_gettime", TellTime);
  const Replacement poll("poll", SomebodyResets);
  EXPECT_EQ(0u, OPL_SyncEventPost(event_));
  EXPECT_EQ((std::vector<int>{5000, 3000}), gTimeouts);
  EXPECT_EQ(1, PostsOf(event_));
}

TEST_F(SyncEventPost, FailsAfterFiveSecondsWhateverSignalsCome) {
  Post(opltest::ShrinkRoom(event_));
  {
    const Replacement clock("clock_gettime", TellTime);
    const Replacement poll("poll", OnlySignalsCome);
    EXPECT_EQ(0x05002Au, OPL_SyncEventPost(event_));
  }
  ExpectError(EAGAIN, "OPL_SyncEventPost: write rc :-1 errno:11,Resource temporarily unavailable");
  EXPECT_EQ((std::vector<int>{5000, 3000, 1000, 0}), gTimeouts);
}

TEST_F(SyncEventPost, WaitsOnWhenOthersHaveUsedTheRoom) {
  Post(opltest::ShrinkRoom(event_));
  {
    const Replacement clock("clock_gettime", TellTime);
    const Replacement poll("poll", OthersAreQuicker);
    EXPECT_EQ(0x05002Au, OPL_SyncEventPost(event_));
  }
  ExpectError(EAGAIN, "OPL_SyncEventPost: write rc :-1 errno:11,Resource temporarily unavailable");
  EXPECT_EQ((std::vector<int>{5000, 2000, 0}), gTimeouts);
}

TEST_F(SyncEventPost, LosesNoPostOfManyThreads) {
  opltest::RunAtOnce(4, [&](int) {
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(0u, OPL_SyncEventPost(event_));
  });
  EXPECT_EQ(4000, PostsOf(event_));
}

TEST_F(SyncEventReset, RefusesANullHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncEventReset(nullptr));
  ExpectError(0x050046, "OPL_SyncEventReset: hEvent is NULL");
}

TEST_F(SyncEventReset, ClearsTwoPosts) {
  Post(2);
  EXPECT_TRUE(IsSet(event_));
  EXPECT_EQ(0u, Reset());
  EXPECT_FALSE(IsSet(event_));
}

TEST_F(SyncEventReset, SucceedsOnAnEventThatIsNotSet) {
  EXPECT_EQ(0u, Reset());
  EXPECT_FALSE(IsSet(event_));
}

TEST_F(SyncEventReset, ClearsAnyNumberOfPosts) {
  for (const int posts : {1, 16383, 16384, 16385, 32768}) {
    Post(posts);
    EXPECT_EQ(0u, Reset());
    EXPECT_EQ(0, PostsOf(event_)) << posts;
  }
}

TEST_F(SyncEventReset, LeavesTheDescriptorsFlags) {
  const int flags = ::fcntl(opltest::DescriptorOf(event_), F_GETFL);
  Post();
  EXPECT_EQ(0u, Reset());
  EXPECT_EQ(flags, ::fcntl(opltest::DescriptorOf(event_), F_GETFL));
}

TEST_F(SyncEventReset, TellsTheSystemsRefusal) {
  Post();
  {
    const Fault fault("read", 1, EIO);
    EXPECT_EQ(0x050050u, Reset());
  }
  ExpectError(EIO, "OPL_SyncEventReset: read :5,Input/output error");
  EXPECT_TRUE(IsSet(event_));
}

TEST_F(SyncEventReset, GoesOnAfterASignal) {
  Post();
  const Fault fault("read", 1, EINTR);
  EXPECT_EQ(0u, Reset());
  EXPECT_TRUE(fault.Fired());
  EXPECT_FALSE(IsSet(event_));
}

TEST_F(SyncEventReset, MayBeCalledByManyThreadsAtOnce) {
  Post(1000);
  opltest::RunAtOnce(4, [&](int) { EXPECT_EQ(0u, Reset()); });
  EXPECT_FALSE(IsSet(event_));
}

TEST_F(SyncEventIsSet, RefusesANullHandleFirst) {
  EXPECT_EQ(0x050046u, OPL_SyncEventIsSet(nullptr, nullptr));
  ExpectError(0x050046, "OPL_SyncEventIsSet: pEvent is NULL");
}

TEST_F(SyncEventIsSet, RefusesANullResult) {
  EXPECT_EQ(0x050046u, OPL_SyncEventIsSet(event_, nullptr));
  ExpectError(0x050046, "OPL_SyncEventIsSet: pIsSet is NULL");
}

TEST_F(SyncEventIsSet, TellsOneOrNothing) {
  uint32_t isSet = 7;
  EXPECT_EQ(0u, OPL_SyncEventIsSet(event_, &isSet));
  EXPECT_EQ(0u, isSet);
  Post(2);
  EXPECT_EQ(0u, OPL_SyncEventIsSet(event_, &isSet));
  EXPECT_EQ(1u, isSet);
}

TEST_F(SyncEventIsSet, LeavesTheEventSet) {
  Post();
  EXPECT_TRUE(IsSet(event_));
  EXPECT_TRUE(IsSet(event_));
  EXPECT_EQ(1, PostsOf(event_));
}

TEST_F(SyncEventIsSet, TellsTheSystemsRefusalAndNotSet) {
  Post();
  uint32_t isSet = 7;
  {
    const Fault fault("poll", 1, ENOMEM);
    EXPECT_EQ(0x050054u, OPL_SyncEventIsSet(event_, &isSet));
  }
  ExpectError(ENOMEM, "OPL_SyncEventIsSet: poll error 12,Cannot allocate memory");
  EXPECT_EQ(0u, isSet);
}

TEST_F(SyncEventIsSet, DoesNotWait) {
  const Replacement poll("poll", NobodyResets);
  EXPECT_FALSE(IsSet(event_));
  EXPECT_EQ(std::vector<int>{0}, gTimeouts);
  EXPECT_EQ(POLLIN, gAsked.at(0).events);
}

TEST_F(SyncEventWaitable, RefusesANullEvent) {
  OPL_SyncWaitableEvent* wait = nullptr;
  EXPECT_EQ(0x050046u, OPL_SyncEventWaitableEventCreate(nullptr, &wait));
  ExpectError(0x050046, "OPL_SyncEventWaitableEventCreate: pEvent is NULL");
}

TEST_F(SyncEventWaitable, LeavesItToTheCreationToRefuseANullRecord) {
  EXPECT_EQ(0x050046u, OPL_SyncEventWaitableEventCreate(event_, nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventCreate: ppWait is NULL");
}

TEST_F(SyncEventWaitable, BindsTheFifoForReading) {
  OPL_SyncWaitableEvent* wait = nullptr;
  ASSERT_EQ(0u, OPL_SyncEventWaitableEventCreate(event_, &wait));
  uint32_t words[5];
  std::memcpy(words, static_cast<const void*>(wait), sizeof words);
  const auto fd = static_cast<uint32_t>(opltest::DescriptorOf(event_));
  EXPECT_EQ((std::vector<uint32_t>{0, 0, 4, 0, fd}), std::vector<uint32_t>(words, words + 5));
  EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(event_, &wait));
  EXPECT_EQ(nullptr, wait);
}

TEST_F(SyncEventWaitable, IsDestroyedWithoutItsEvent) {
  OPL_SyncWaitableEvent* wait = nullptr;
  ASSERT_EQ(0u, OPL_SyncEventWaitableEventCreate(event_, &wait));
  EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(nullptr, &wait));
  EXPECT_EQ(0x050046u, OPL_SyncEventWaitableEventDestroy(event_, nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventDestroy: pWait is NULL");
}

TEST_F(SyncEventWaitable, LeavesTheRecordAloneWithoutMemory) {
  OPL_SyncWaitableEvent* wait = nullptr;
  {
    const opltest::FailingMemory memory(1);
    EXPECT_EQ(0x050001u, OPL_SyncEventWaitableEventCreate(event_, &wait));
  }
  EXPECT_EQ(nullptr, wait);
}

TEST_F(SyncEventWaitable, IsReadyFromThePostToTheReset) {
  OPL_SyncWaitableEvent* wait = nullptr;
  ASSERT_EQ(0u, OPL_SyncEventWaitableEventCreate(event_, &wait));
  uint32_t ready = 7;
  EXPECT_EQ(0x05004Bu, OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, &kNow));
  EXPECT_EQ(0u, ready);
  Post();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, &kNow));
    EXPECT_EQ(1u, ready);
  }
  int32_t fd = -1;
  uint32_t found = 0;
  EXPECT_EQ(0u, OPL_SyncWaitableEventNativeHandleGet(wait, &fd, &found));
  EXPECT_EQ(opltest::DescriptorOf(event_), fd);
  EXPECT_EQ(4u, found);
  EXPECT_EQ(0u, Reset());
  EXPECT_EQ(0x05004Bu, OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, &kNow));
  EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(event_, &wait));
}

TEST_F(SyncEventWaitable, TellsAllEventsThatAreSet) {
  OPL_SyncEvent* const events[] = {event_, NewEvent("between"), NewEvent("other")};
  OPL_SyncWaitableEvent* waits[3];
  uint32_t ready[3];
  for (int i = 0; i < 3; ++i) ASSERT_EQ(0u, OPL_SyncEventWaitableEventCreate(events[i], &waits[i]));
  EXPECT_EQ(0u, OPL_SyncEventPost(events[0]));
  EXPECT_EQ(0u, OPL_SyncEventPost(events[2]));
  EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 3, waits, ready, nullptr));
  EXPECT_EQ((std::vector<uint32_t>{1, 0, 1}), std::vector<uint32_t>(ready, ready + 3));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(events[i], &waits[i]));
  CloseEvent(events[1]);
  CloseEvent(events[2]);
}

// Several posters and several waiters, through one handle: a post wakes all who wait.
TEST_F(SyncEventWaitable, WakesAllWaitersAtAPost) {
  opltest::RunAtOnce(6, [&](int i) {
    if (i < 2) {
      EXPECT_EQ(0u, OPL_SyncEventPost(event_));
      return;
    }
    OPL_SyncWaitableEvent* wait = nullptr;
    EXPECT_EQ(0u, OPL_SyncEventWaitableEventCreate(event_, &wait));
    uint32_t ready = 0;
    EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, nullptr));
    EXPECT_EQ(1u, ready);
    EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(event_, &wait));
  });
  EXPECT_EQ(2, PostsOf(event_));
}

}  // namespace
