// Private events: posts that are bytes on their way between two sockets, and waits for them beside others.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "OPL_Err.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Limit.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Connection;
using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::Fault;
using opltest::Footprint;
using opltest::Limit;
using opltest::SendText;

constexpr uint32_t kReadable = 0x04;

// The record's two handles.
struct Record {
  OPL_Socket* sender;
  OPL_Socket* receiver;
};

// Waits for one record; its code.
OPL_Result WaitFor(OPL_SyncWaitableEvent* wait, const int32_t* timeoutMs) {
  uint32_t ready = 7;
  const OPL_Result rc = OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, timeoutMs);
  EXPECT_EQ(rc == 0 ? 1u : 0u, ready);
  return rc;
}

class PrivateEvent {
 public:
  explicit PrivateEvent(uint32_t flags = 0) {
    EXPECT_EQ(0u, OPL_SyncPrivateEventCreate(&handle_, 0, flags));
    EXPECT_EQ(0u, OPL_SyncPrivateEventWaitableEventCreate(handle_, &wait_));
  }
  ~PrivateEvent() {
    EXPECT_EQ(0u, OPL_SyncPrivateEventWaitableEventDestroy(handle_, &wait_));
    EXPECT_EQ(nullptr, wait_);
    EXPECT_EQ(0u, OPL_SyncPrivateEventClose(&handle_));
    EXPECT_EQ(nullptr, handle_);
  }
  PrivateEvent(const PrivateEvent&) = delete;
  PrivateEvent& operator=(const PrivateEvent&) = delete;

  operator OPL_SyncPrivateEvent*() const { return handle_; }
  OPL_SyncWaitableEvent* wait() const { return wait_; }
  int sender() const { return opltest::DescriptorOf(record().sender); }
  int receiver() const { return opltest::DescriptorOf(record().receiver); }

  void Post() const { EXPECT_EQ(0u, OPL_SyncPrivateEventPost(handle_)); }
  void Reset() const { EXPECT_EQ(0u, OPL_SyncPrivateEventReset(handle_)); }
  bool IsSet() const {
    const int32_t now = 0;
    const OPL_Result rc = Wait(&now);
    EXPECT_TRUE(rc == 0 || rc == 0x05004B) << rc;
    return rc == 0;
  }
  OPL_Result Wait(const int32_t* timeoutMs = nullptr) const { return WaitFor(wait_, timeoutMs); }

 private:
  const Record& record() const { return *reinterpret_cast<Record*>(handle_); }

  OPL_SyncPrivateEvent* handle_ = nullptr;
  OPL_SyncWaitableEvent* wait_ = nullptr;
};

class SyncPrivateEventCreate : public opltest::Instance {};
class SyncPrivateEventPost : public opltest::Instance {};
class SyncPrivateEventReset : public opltest::Instance {};
class SyncPrivateEventClose : public opltest::Instance {};
class SyncPrivateEventWait : public opltest::Instance {};

TEST(SyncPrivateEventBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SyncPrivateEventCreate(nullptr, 1, 0));
  EXPECT_EQ(0x050203u, OPL_SyncPrivateEventPost(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncPrivateEventReset(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncPrivateEventClose(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncPrivateEventWaitableEventCreate(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncPrivateEventWaitableEventDestroy(nullptr, nullptr));
}

TEST_F(SyncPrivateEventCreate, RefusesANullPlaceForTheHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventCreate(nullptr, 0, 0));
  ExpectError(0x050046, "OPL_SyncPrivateEventCreate: phPrivateEvent is NULL");
}

TEST_F(SyncPrivateEventCreate, RefusesAModeAndStoresNull) {
  const CountedMemory memory;
  OPL_SyncPrivateEvent* event = reinterpret_cast<OPL_SyncPrivateEvent*>(&event);
  EXPECT_EQ(0x050043u, OPL_SyncPrivateEventCreate(&event, 1, 0));
  ExpectError(0x050043, "OPL_SyncPrivateEventCreate: Invalid mode");
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(1, memory.Allocated());  // the record comes first
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SyncPrivateEventCreate, LooksForMemoryBeforeTheMode) {
  OPL_SyncPrivateEvent* event = reinterpret_cast<OPL_SyncPrivateEvent*>(&event);
  const FailingMemory memory(1);
  EXPECT_EQ(0x050001u, OPL_SyncPrivateEventCreate(&event, 1, 0));
  ExpectError(ENOMEM, "OPL_SyncPrivateEventCreate: malloc error :12");
  EXPECT_EQ(nullptr, event);
}

TEST_F(SyncPrivateEventCreate, ConnectsASenderWithAReceiverThatDoesNotBlock) {
  const PrivateEvent event;
  EXPECT_EQ(0, ::fcntl(event.sender(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(O_NONBLOCK, ::fcntl(event.receiver(), F_GETFL) & O_NONBLOCK);
  for (const int fd : {event.sender(), event.receiver()}) {
    int type = -1;
    socklen_t length = sizeof type;
    EXPECT_EQ(0, ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length));
    EXPECT_EQ(SOCK_DGRAM, type);
    // No program that this process executes has any use for it.
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
  }
  EXPECT_EQ(3, ::send(event.sender(), "abc", 3, 0));
  char bytes[4] = "";
  EXPECT_EQ(3, ::recv(event.receiver(), bytes, sizeof bytes, 0));
  EXPECT_STREQ("abc", bytes);
}

TEST_F(SyncPrivateEventCreate, IsClearUnlessTheFlagSetsIt) {
  for (const uint32_t flags : {0u, 0xFFFFFFFEu}) EXPECT_FALSE(PrivateEvent(flags).IsSet());
  for (const uint32_t flags : {1u, 0xFFFFFFFFu}) {
    const PrivateEvent event(flags);
    EXPECT_TRUE(event.IsSet());
    event.Reset();
    EXPECT_FALSE(event.IsSet());
  }
}

struct Step {
  const char* function;
  int nth;
  int number;
  uint32_t code;
  uint32_t recorded;
  const char* message;
};
constexpr Step kSteps[] = {
    {"socketpair", 1, EMFILE, 0x05091F, EMFILE, "OPL_SocketPairCreate: socketpair :24,Too many open files"},
    {"fcntl64", 3, EPERM, 0x05092E, 0xFFFFFFFF, "OPL_SocketNonBlockingSet: fcntl error: -1,Unknown error -1"},
    {"fcntl64", 4, EPERM, 0x05092E, 0xFFFFFFFF, "OPL_SocketNonBlockingSet: fcntl error: -1,Unknown error -1"},
    {"send", 1, ENOBUFS, 0x050909, ENOBUFS, "OPL_SocketSend: send :105,No buffer space available"},
};

TEST_F(SyncPrivateEventCreate, LeavesNothingBehindWhicheverCallFails) {
  const Footprint before = Footprint::Now();
  for (const Step& step : kSteps) {
    SCOPED_TRACE(step.function);
    const CountedMemory memory;
    OPL_SyncPrivateEvent* event = reinterpret_cast<OPL_SyncPrivateEvent*>(&event);
    const Fault fault(step.function, step.nth, step.number);
    EXPECT_EQ(step.code, OPL_SyncPrivateEventCreate(&event, 0, OPL_SYNC_PRIVATE_EVENT_SET));
    EXPECT_TRUE(fault.Fired());
    ExpectError(step.recorded, step.message);
    EXPECT_EQ(nullptr, event);
    EXPECT_EQ(0, memory.Living());
  }
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncPrivateEventCreate, LeavesNothingBehindWithoutMemory) {
  const Footprint before = Footprint::Now();
  int nth = 0;
  for (bool hasFailed = true; hasFailed;) {
    const FailingMemory memory(++nth);
    OPL_SyncPrivateEvent* event = nullptr;
    const OPL_Result rc = OPL_SyncPrivateEventCreate(&event, 0, OPL_SYNC_PRIVATE_EVENT_SET);
    hasFailed = memory.Fired();
    EXPECT_EQ(!hasFailed ? 0u : nth == 1 ? 0x050001u : 0x050902u, rc);
    EXPECT_EQ(hasFailed, event == nullptr);
    EXPECT_EQ(0u, OPL_SyncPrivateEventClose(&event));
  }
  EXPECT_EQ(4, nth);  // the record and two sockets
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncPrivateEventCreate, NeedsTwoFreeDescriptors) {
  const Footprint before = Footprint::Now();
  const int next = ::dup(0);
  ASSERT_EQ(0, ::close(next));
  OPL_SyncPrivateEvent* event = nullptr;
  {
    const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next + 1));
    EXPECT_EQ(0x05091Fu, OPL_SyncPrivateEventCreate(&event, 0, 0));
  }
  ExpectError(EMFILE, "OPL_SocketPairCreate: socketpair :24,Too many open files");
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncPrivateEventPost, RefusesANullEvent) {
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventPost(nullptr));
  ExpectError(0x050046, "OPL_SyncPrivateEventPost: hEvent is NULL");
}

TEST_F(SyncPrivateEventPost, SendsOneByteOfValueOne) {
  const PrivateEvent event;
  event.Post();
  char bytes[8] = "";
  EXPECT_EQ(1, ::recv(event.receiver(), bytes, sizeof bytes, 0));
  EXPECT_EQ(1, bytes[0]);
  EXPECT_EQ(-1, ::recv(event.receiver(), bytes, sizeof bytes, 0));
  EXPECT_EQ(EAGAIN, errno);
}

TEST_F(SyncPrivateEventPost, PassesTheSocketsFailureOn) {
  const PrivateEvent event;
  const Fault fault("send", 1, EINTR);
  EXPECT_EQ(0x050909u, OPL_SyncPrivateEventPost(event));
  ExpectError(EINTR, "OPL_SocketSend: send :4,Interrupted system call");
  EXPECT_FALSE(event.IsSet());
}

TEST_F(SyncPrivateEventPost, WakesAWaitingThread) {
  const PrivateEvent event;
  std::thread waiter([&] {
    EXPECT_EQ(0u, event.Wait());
    event.Reset();
  });
  event.Post();
  waiter.join();
  EXPECT_FALSE(event.IsSet());
}

TEST_F(SyncPrivateEventPost, ComesFromManyThreadsAtOnce) {
  constexpr int kPosts = 25;
  const PrivateEvent event;
  opltest::RunAtOnce(4, [&](int) {
    OPL_SyncWaitableEvent* wait = nullptr;  // each thread has a record of its own
    ASSERT_EQ(0u, OPL_SyncPrivateEventWaitableEventCreate(event, &wait));
    for (int i = 0; i < kPosts; ++i) {
      event.Post();
      event.Reset();
      event.Post();
      const int32_t now = 0;
      EXPECT_EQ(0u, WaitFor(wait, &now));
      event.Reset();
    }
    EXPECT_EQ(0u, OPL_SyncPrivateEventWaitableEventDestroy(event, &wait));
  });
  EXPECT_FALSE(event.IsSet());
}

// The system has room for some hundred posts; the poster waits for a reset then.
TEST_F(SyncPrivateEventPost, WaitsForRoom) {
  constexpr int kPosts = 5000;
  const PrivateEvent event;
  std::thread poster([&] {
    for (int i = 0; i < kPosts; ++i) event.Post();
  });
  for (int i = 0; i < kPosts; ++i) {
    ASSERT_EQ(0u, event.Wait());
    event.Reset();
  }
  poster.join();
  EXPECT_FALSE(event.IsSet());
}

TEST_F(SyncPrivateEventReset, RefusesANullEvent) {
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventReset(nullptr));
  ExpectError(0x050046, "OPL_SyncPrivateEventReset: hEvent is NULL");
}

// Deliberate: an event that was posted twice is set until it is reset twice.
TEST_F(SyncPrivateEventReset, TakesBackOnePost) {
  const PrivateEvent event;
  event.Post();
  event.Post();
  event.Reset();
  EXPECT_TRUE(event.IsSet());
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  event.Post();
  EXPECT_TRUE(event.IsSet());
}

TEST_F(SyncPrivateEventReset, LeavesNoMessageWhenThereIsNothingToTakeBack) {
  const PrivateEvent event;
  opltest::ForgetFailure();
  event.Reset();
  ExpectError(0, "none");
}

TEST_F(SyncPrivateEventReset, ReceivesOnceByOneByte) {
  const PrivateEvent event;
  event.Post();
  event.Post();
  const Fault fault("recv", 9, EIO);
  event.Reset();
  EXPECT_EQ(1, fault.Calls());
}

TEST_F(SyncPrivateEventReset, PassesTheSocketsFailureOn) {
  const PrivateEvent event;
  event.Post();
  {
    const Fault fault("recv", 1, ENOMEM);
    EXPECT_EQ(0x050908u, OPL_SyncPrivateEventReset(event));
  }
  ExpectError(ENOMEM, "OPL_SocketReceive: recv :12,Cannot allocate memory");
  EXPECT_TRUE(event.IsSet());
  const Fault fault("recv", 1, EINTR);
  event.Reset();  // a signal goes unnoticed
  EXPECT_EQ(2, fault.Calls());
  EXPECT_FALSE(event.IsSet());
}

TEST_F(SyncPrivateEventClose, RefusesANullPlaceForTheHandle) {
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventClose(nullptr));
  ExpectError(0x050046, "OPL_SyncPrivateEventClose: phPrivateEvent is NULL");
}

TEST_F(SyncPrivateEventClose, TakesANullHandle) {
  OPL_SyncPrivateEvent* event = nullptr;
  EXPECT_EQ(0u, OPL_SyncPrivateEventClose(&event));
}

TEST_F(SyncPrivateEventClose, LeavesNothingBehindAndStoresNull) {
  const Footprint before = Footprint::Now();
  const CountedMemory memory;
  OPL_SyncPrivateEvent* event = nullptr;
  ASSERT_EQ(0u, OPL_SyncPrivateEventCreate(&event, 0, OPL_SYNC_PRIVATE_EVENT_SET));
  EXPECT_EQ(3, memory.Living());
  EXPECT_EQ(0u, OPL_SyncPrivateEventClose(&event));
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncPrivateEventClose, IgnoresTheSystemsRefusal) {
  const Footprint before = Footprint::Now();
  OPL_SyncPrivateEvent* event = nullptr;
  ASSERT_EQ(0u, OPL_SyncPrivateEventCreate(&event, 0, 0));
  {
    const Fault fault("close", 1, EIO, Fault::kForGood);
    EXPECT_EQ(0u, OPL_SyncPrivateEventClose(&event));
    EXPECT_EQ(2, fault.Calls());
  }
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncPrivateEventWait, RefusesNullArguments) {
  const PrivateEvent event;
  OPL_SyncWaitableEvent* wait = nullptr;
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventWaitableEventCreate(nullptr, &wait));
  ExpectError(0x050046, "OPL_SyncPrivateEventWaitableEventCreate: hPrivateEvent is NULL");
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventWaitableEventCreate(event, nullptr));
  ExpectError(0x050046, "OPL_SyncPrivateEventWaitableEventCreate: ppWait is NULL");
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventWaitableEventDestroy(nullptr, &wait));
  ExpectError(0x050046, "OPL_SyncPrivateEventWaitableEventDestroy: hPrivateEvent is NULL");
  EXPECT_EQ(0x050046u, OPL_SyncPrivateEventWaitableEventDestroy(event, nullptr));
  ExpectError(0x050046, "OPL_SyncPrivateEventWaitableEventDestroy: ppWait is NULL");
}

TEST_F(SyncPrivateEventWait, TellsWhenThereIsNoMemory) {
  const PrivateEvent event;
  OPL_SyncWaitableEvent* wait = reinterpret_cast<OPL_SyncWaitableEvent*>(&wait);
  const FailingMemory memory(1);
  EXPECT_EQ(0x050001u, OPL_SyncPrivateEventWaitableEventCreate(event, &wait));
  ExpectError(ENOMEM, "OPL_SyncWaitableEventCreate: OPL_MEMMALLOC error :12");
  EXPECT_EQ(nullptr, wait);
}

TEST_F(SyncPrivateEventWait, IsForTheReceiverToBeReadable) {
  const PrivateEvent event;
  struct {
    uint32_t reserved[2];
    uint32_t waitBitmap;
    uint32_t readyBitmap;
    int32_t nativeHandle;
  } record{};
  std::memcpy(&record, static_cast<const void*>(event.wait()), sizeof record);
  EXPECT_EQ(kReadable, record.waitBitmap);
  EXPECT_EQ(event.receiver(), record.nativeHandle);
}

TEST_F(SyncPrivateEventWait, TimesOutWhenTheEventIsClear) {
  const PrivateEvent event;
  const int32_t timeoutMs = 20;
  EXPECT_EQ(0x05004Bu, event.Wait(&timeoutMs));
}

TEST_F(SyncPrivateEventWait, ConsumesNothing) {
  const PrivateEvent event(OPL_SYNC_PRIVATE_EVENT_SET);
  EXPECT_EQ(0u, event.Wait());
  EXPECT_EQ(0u, event.Wait());
  event.Reset();
  EXPECT_FALSE(event.IsSet());
}

// Events of this process, events of all and sockets in one wait: each tells what became of it.
TEST_F(SyncPrivateEventWait, StandsBesideNamedEventsAndSockets) {
  const PrivateEvent event;
  OPL_SyncEvent* const named = opltest::NewEvent("named");
  OPL_SyncWaitableEvent* namedWait = nullptr;
  ASSERT_EQ(0u, OPL_SyncEventWaitableEventCreate(named, &namedWait));
  const Connection connection;
  OPL_SyncWaitableEvent* socketWait = nullptr;
  ASSERT_EQ(0u, OPL_SocketWaitableEventCreate(connection.server, &socketWait, 0));
  ASSERT_EQ(0u, OPL_SocketWaitableEventSet(connection.server, socketWait, OPL_SOCKET_NOTIFY_READ));

  OPL_SyncWaitableEvent* waits[] = {event.wait(), namedWait, socketWait};
  for (unsigned set = 0; set < 8; ++set) {
    if ((set & 1) != 0) event.Post();
    if ((set & 2) != 0) {
      EXPECT_EQ(0u, OPL_SyncEventPost(named));
    }
    if ((set & 4) != 0) SendText(connection.client, "x");
    const int32_t now = 0;
    uint32_t ready[3] = {7, 7, 7};
    const OPL_Result rc = OPL_SyncWaitableEventWaitForMultiple(0, 3, waits, ready, set == 0 ? &now : nullptr);
    EXPECT_EQ(set == 0 ? 0x05004Bu : 0u, rc);
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(set >> i & 1, ready[i]) << set;
    uint32_t told = 7;
    EXPECT_EQ(0u, OPL_SocketWaitableEventGet(connection.server, socketWait, &told));
    EXPECT_EQ((set & 4) != 0 ? 0x15u : 0u, told);
    if ((set & 1) != 0) event.Reset();
    if ((set & 2) != 0) {
      EXPECT_EQ(0u, OPL_SyncEventReset(named));
    }
    if ((set & 4) != 0) {
      EXPECT_EQ("x", opltest::ReceiveText(connection.server));
    }
  }
  EXPECT_EQ(0u, OPL_SocketWaitableEventDestroy(connection.server, &socketWait));
  EXPECT_EQ(0u, OPL_SyncEventWaitableEventDestroy(named, &namedWait));
  opltest::CloseEvent(named);
}

}  // namespace
