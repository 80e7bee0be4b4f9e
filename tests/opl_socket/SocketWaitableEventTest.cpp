// Sockets as waitable events: notifications asked for, and those told after a wait.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "OPL_Err.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Connection;
using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::InetAddress;
using opltest::Listener;
using opltest::ReceiveText;
using opltest::SendText;
using opltest::Socket;

constexpr uint32_t kRead = 0x01;
constexpr uint32_t kWrite = 0x02;
constexpr uint32_t kAccept = 0x04;
constexpr uint32_t kConnect = 0x08;
constexpr uint32_t kClose = 0x10;

// The words of a waitable event's record.
struct Record {
  uint32_t reserved0;
  uint32_t reserved1;
  uint32_t waitBitmap;
  uint32_t readyBitmap;
  int32_t nativeHandle;
};

Record& RecordOf(OPL_SyncWaitableEvent* event) { return *reinterpret_cast<Record*>(event); }

// A waitable event of a socket.
class Event {
 public:
  explicit Event(OPL_Socket* socket) : socket_(socket) {
    EXPECT_EQ(0u, OPL_SocketWaitableEventCreate(socket, &handle_, 0));
  }
  ~Event() {
    EXPECT_EQ(0u, OPL_SocketWaitableEventDestroy(socket_, &handle_));
    EXPECT_EQ(nullptr, handle_);
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  operator OPL_SyncWaitableEvent*() const { return handle_; }

  OPL_Result Ask(uint32_t notifications) {
    return OPL_SocketWaitableEventSet(socket_, handle_, notifications);
  }
  // What a wait that only looks finds, and the socket is told.
  uint32_t Look() {
    const int32_t now = 0;
    uint32_t ready = 7;
    const OPL_Result rc = OPL_SyncWaitableEventWaitForMultiple(0, 1, &handle_, &ready, &now);
    EXPECT_TRUE(rc == 0 || rc == 0x05004B) << rc;
    return Told();
  }
  uint32_t Told() const {
    uint32_t notifications = 7;
    EXPECT_EQ(0u, OPL_SocketWaitableEventGet(socket_, handle_, &notifications));
    return notifications;
  }

 private:
  OPL_Socket* const socket_;
  OPL_SyncWaitableEvent* handle_ = nullptr;
};

class SocketWaitableEvent : public opltest::Instance {};

TEST(SocketWaitableEventBeforeBegin, IsStopped) {
  OPL_SyncWaitableEvent* event = reinterpret_cast<OPL_SyncWaitableEvent*>(&event);
  EXPECT_EQ(0x050203u, OPL_SocketWaitableEventCreate(nullptr, &event, 1));
  EXPECT_EQ(nullptr, event);  // cleared before anything else
  EXPECT_EQ(0x050203u, OPL_SocketWaitableEventCreate(nullptr, nullptr, 1));
  EXPECT_EQ(0x050203u, OPL_SocketWaitableEventSet(nullptr, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketWaitableEventGet(nullptr, nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketWaitableEventDestroy(nullptr, nullptr));
}

TEST_F(SocketWaitableEvent, RefusesNullArguments) {
  const Socket socket;
  const Event event(socket);
  OPL_SyncWaitableEvent* handle = event;
  uint32_t number = 7;
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventCreate(nullptr, &handle, 1));
  ExpectError(0x05092C, "OPL_SocketWaitableEventCreate: pSocket is NULL");
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventCreate(socket, nullptr, 1));
  ExpectError(0x05092C, "OPL_SocketWaitableEventCreate: pHandle is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventSet(nullptr, event, 0x12));
  ExpectError(0x05092C, "OPL_SocketWaitableEventSet: pSocket is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventSet(socket, nullptr, 0x12));
  ExpectError(0x05092C, "OPL_SocketWaitableEventSet: EventHandle is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventGet(nullptr, event, &number));
  ExpectError(0x05092C, "OPL_SocketWaitableEventGet: pSocket is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventGet(socket, nullptr, &number));
  ExpectError(0x05092C, "OPL_SocketWaitableEventGet: EventHandle is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventGet(socket, event, nullptr));
  ExpectError(0x05092C, "OPL_SocketWaitableEventGet: pNotification is NULL");
  handle = event;
  EXPECT_EQ(0x05092Cu, OPL_SocketWaitableEventDestroy(nullptr, &handle));
  ExpectError(0x05092C, "OPL_SocketWaitableEventDestroy: pSocket is NULL");
  EXPECT_EQ(0x050046u, OPL_SocketWaitableEventDestroy(socket, nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventDestroy: pWait is NULL");
  EXPECT_EQ(7u, number);
}

TEST_F(SocketWaitableEvent, RefusesAModeAndClearsTheHandle) {
  const Socket socket;
  OPL_SyncWaitableEvent* event = reinterpret_cast<OPL_SyncWaitableEvent*>(&event);
  EXPECT_EQ(0x050903u, OPL_SocketWaitableEventCreate(socket, &event, 1));
  ExpectError(0x050903, "OPL_SocketWaitableEventCreate: Invalid Mode ");
  EXPECT_EQ(nullptr, event);
}

TEST_F(SocketWaitableEvent, TellsWhenThereIsNoMemory) {
  const Socket socket;
  OPL_SyncWaitableEvent* event = reinterpret_cast<OPL_SyncWaitableEvent*>(&event);
  {
    const FailingMemory memory(1);
    EXPECT_EQ(0x050001u, OPL_SocketWaitableEventCreate(socket, &event, 0));
  }
  ExpectError(ENOMEM, "OPL_SyncWaitableEventCreate: OPL_MEMMALLOC error :12");
  EXPECT_EQ(nullptr, event);
}

TEST_F(SocketWaitableEvent, IsOneAllocation) {
  const Socket socket;
  const CountedMemory memory;
  {
    const Event event(socket);
    EXPECT_EQ(1, memory.Allocated());
  }
  EXPECT_EQ(0, memory.Living());
}

// All masks: each notification stands for one condition, and write with close needs read.
TEST_F(SocketWaitableEvent, AsksForTheConditionsOfItsNotifications) {
  const Socket socket(OPL_SOCKET_INET);
  Event event(socket);
  for (uint32_t mask = 0; mask < 0x40; ++mask) {
    RecordOf(event).waitBitmap = 7;
    if ((mask & 0x13) == 0x12) {
      opltest::ForgetFailure();
      EXPECT_EQ(0x05090Bu, event.Ask(mask)) << mask;
      ExpectError(0x05090B, "OPL_SocketWaitableEventSet: Invalid notifications");
      EXPECT_EQ(7u, RecordOf(event).waitBitmap);
      continue;
    }
    EXPECT_EQ(0u, event.Ask(mask)) << mask;
    const uint32_t readable = (mask & (kRead | kAccept | kClose)) != 0 ? 4 : 0;
    const uint32_t writable = (mask & (kWrite | kConnect)) != 0 ? 2 : 0;
    EXPECT_EQ(readable | writable, RecordOf(event).waitBitmap) << mask;
    EXPECT_EQ(socket.fd(), RecordOf(event).nativeHandle);
  }
}

// A mask that is refused is not remembered: what is told goes by the last one that was taken.
TEST_F(SocketWaitableEvent, RemembersNoMaskThatIsRefused) {
  const Socket socket;
  Event event(socket);
  EXPECT_EQ(0u, event.Ask(kAccept));
  EXPECT_EQ(0x05090Bu, event.Ask(kWrite | kClose));
  RecordOf(event).readyBitmap = 4;
  EXPECT_EQ(kAccept, event.Told());
}

TEST_F(SocketWaitableEvent, TellsAllNotificationsOfTheConditionsFound) {
  const Socket socket;
  Event event(socket);
  EXPECT_EQ(0u, event.Ask(kRead));
  const uint32_t told[] = {0, 0, 0x0A, 0x0A, 0x15, 0x15, 0x1F, 0x1F};
  for (uint32_t found = 0; found < 8; ++found) {
    RecordOf(event).readyBitmap = found;
    EXPECT_EQ(told[found], event.Told()) << found;
  }
}

// A socket that has asked for accept has nothing to read but connections.
TEST_F(SocketWaitableEvent, TellsAcceptAloneWhereItWasAskedFor) {
  const Socket socket;
  Event event(socket);
  for (const uint32_t mask : {kAccept, kAccept | kRead, 0x1Fu}) {
    EXPECT_EQ(0u, event.Ask(mask));
    const uint32_t told[] = {0, 0, 0x0A, 0x0A, 0x04, 0x04, 0x04, 0x04};
    for (uint32_t found = 0; found < 8; ++found) {
      RecordOf(event).readyBitmap = found;
      EXPECT_EQ(told[found], event.Told()) << found;
    }
  }
}

TEST_F(SocketWaitableEvent, IsToldOfSomethingToRead) {
  const Connection connection;
  Event event(connection.server);
  EXPECT_EQ(0u, event.Ask(kRead));
  EXPECT_EQ(0u, event.Look());
  SendText(connection.client, "x");
  EXPECT_EQ(kRead | kAccept | kClose, event.Look());
  EXPECT_EQ("x", ReceiveText(connection.server));
  EXPECT_EQ(0u, event.Look());
}

TEST_F(SocketWaitableEvent, IsToldOfRoomToWrite) {
  const Connection connection;
  Event event(connection.server);
  EXPECT_EQ(0u, event.Ask(kWrite));
  EXPECT_EQ(kWrite | kConnect, event.Look());
  EXPECT_EQ(0u, event.Ask(kConnect));
  EXPECT_EQ(kWrite | kConnect, event.Look());
}

TEST_F(SocketWaitableEvent, IsToldOfBothAtOnce) {
  const Connection connection;
  SendText(connection.client, "x");
  Event event(connection.server);
  EXPECT_EQ(0u, event.Ask(kRead | kWrite | kClose));
  EXPECT_EQ(0x1Fu, event.Look());
}

TEST_F(SocketWaitableEvent, IsToldOfAPeerThatHasClosed) {
  const Connection connection;
  Event event(connection.server);
  EXPECT_EQ(0u, event.Ask(kClose));
  EXPECT_EQ(0u, event.Look());
  EXPECT_EQ(0u, OPL_SocketClose(connection.client));
  EXPECT_EQ(kRead | kAccept | kClose, event.Look());
}

TEST_F(SocketWaitableEvent, IsToldOfAConnectionThatWaits) {
  const Listener listener;
  Event event(listener);
  EXPECT_EQ(0u, event.Ask(kAccept | kRead));
  EXPECT_EQ(0u, event.Look());
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  EXPECT_EQ(kAccept, event.Look());
}

// A mask of nothing cannot be waited for; an error is found, but stands for no notification.
TEST_F(SocketWaitableEvent, IsNotWaitedForWithoutANotification) {
  const Connection connection;
  const Event event(connection.server);
  EXPECT_EQ(0u, OPL_SocketWaitableEventSet(connection.server, event, 0));
  OPL_SyncWaitableEvent* handle = event;
  uint32_t ready = 7;
  const int32_t now = 0;
  EXPECT_EQ(0x050051u, OPL_SyncWaitableEventWaitForMultiple(0, 1, &handle, &ready, &now));
}

TEST_F(SocketWaitableEvent, IsToldNothingOfAnError) {
  const Connection connection;
  Event event(connection.server);
  EXPECT_EQ(0u, event.Ask(kRead));
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));  // the event keeps the number
  OPL_SyncWaitableEvent* handle = event;
  uint32_t ready = 7;
  EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 1, &handle, &ready, nullptr));
  EXPECT_EQ(1u, ready);
  EXPECT_EQ(0u, event.Told());
}

TEST_F(SocketWaitableEvent, IsBoundAnewAfterTheSocketWasOpenedAnew) {
  const Listener listener;
  const Socket socket(OPL_SOCKET_INET);
  Event event(socket);
  EXPECT_EQ(0u, event.Ask(kWrite));
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_EQ(0u, event.Ask(kWrite));
  EXPECT_EQ(-1, RecordOf(event).nativeHandle);
  EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ(0u, event.Ask(kWrite));
  EXPECT_EQ(socket.fd(), RecordOf(event).nativeHandle);
}

// The library's other waitable events and these are waited for by one call.
TEST_F(SocketWaitableEvent, IsOneOfManyInAWait) {
  const Connection first;
  const Connection second;
  const Listener listener;
  Event firstEvent(first.server);
  Event secondEvent(second.server);
  Event listenerEvent(listener);
  EXPECT_EQ(0u, firstEvent.Ask(kRead));
  EXPECT_EQ(0u, secondEvent.Ask(kRead | kClose));
  EXPECT_EQ(0u, listenerEvent.Ask(kAccept));
  SendText(second.client, "x");
  OPL_SyncWaitableEvent* events[] = {firstEvent, secondEvent, listenerEvent};
  uint32_t ready[3] = {7, 7, 7};
  EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 3, events, ready, nullptr));
  EXPECT_EQ(0u, ready[0]);
  EXPECT_EQ(1u, ready[1]);
  EXPECT_EQ(0u, ready[2]);
  EXPECT_EQ(0u, firstEvent.Told());
  EXPECT_EQ(kRead | kAccept | kClose, secondEvent.Told());
  EXPECT_EQ(0u, listenerEvent.Told());
}

}  // namespace
