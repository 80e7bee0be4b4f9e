// What goes through sockets: bytes, datagrams, and messages with descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/SignalStream.h"

namespace {

using opltest::Child;
using opltest::Connection;
using opltest::ExpectError;
using opltest::Fault;
using opltest::Footprint;
using opltest::ForgetFailure;
using opltest::Pair;
using opltest::ReceiveAll;
using opltest::ReceiveText;
using opltest::Replacement;
using opltest::SendText;
using opltest::SignalStream;
using opltest::Socket;
using opltest::Steps;

constexpr uint32_t kUntouched = 0xA5A5A5A5;

// A pattern whose every part differs from its neighbours.
std::string Numbered(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 + i / 251);
  return text;
}

uint32_t IsAlive(OPL_Socket* socket) {
  uint32_t isAlive = 7;
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(socket, &isAlive));
  return isAlive;
}

// Makes the close of a connection a reset.
void ResetOnClose(OPL_Socket* socket) {
  const linger now = {1, 0};
  EXPECT_EQ(0u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_LINGER, &now, sizeof now));
}

class SocketReceive : public opltest::Instance {
 protected:
  char buffer_[16] = "???????????????";
  uint32_t size_ = kUntouched;
};

// Without SIGPIPE, as most servers run.
class SocketSend : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    before_ = ::signal(SIGPIPE, SIG_IGN);
  }
  void TearDown() override {
    (void)::signal(SIGPIPE, before_);
    Instance::TearDown();
  }

  uint32_t size_ = kUntouched;

 private:
  sighandler_t before_ = SIG_DFL;
};

class SocketMessage : public SocketSend {};

TEST_F(SocketReceive, YieldsWhatIsThere) {
  const Connection connection;
  SendText(connection.client, "seven..");
  EXPECT_EQ(0u, OPL_SocketReceive(connection.server, &size_, buffer_, sizeof buffer_));
  EXPECT_EQ(7u, size_);
  EXPECT_STREQ("seven..????????", buffer_);
}

TEST_F(SocketReceive, LeavesWhatDoesNotFit) {
  const Connection connection;
  SendText(connection.client, "seven..");
  EXPECT_EQ("sev", ReceiveText(connection.server, 3));
  EXPECT_EQ("en..", ReceiveText(connection.server, 30));
}

TEST_F(SocketReceive, YieldsOneDatagramAndCutsWhatDoesNotFit) {
  const Pair pair;
  SendText(pair.ends[0], "first");
  SendText(pair.ends[0], "");
  SendText(pair.ends[0], "third");
  EXPECT_EQ("fir", ReceiveText(pair.ends[1], 3));
  EXPECT_EQ("", ReceiveText(pair.ends[1]));
  EXPECT_EQ("third", ReceiveText(pair.ends[1]));
}

TEST_F(SocketReceive, YieldsNothingWhenThePeerHasClosed) {
  const Connection connection;
  SendText(connection.client, "last");
  EXPECT_EQ(0u, OPL_SocketClose(connection.client));
  EXPECT_EQ("last", ReceiveText(connection.server));
  EXPECT_EQ(0u, OPL_SocketReceive(connection.server, &size_, buffer_, sizeof buffer_));
  EXPECT_EQ(0u, size_);
  EXPECT_STREQ("???????????????", buffer_);
}

TEST_F(SocketReceive, TakesABufferWithoutRoom) {
  const Connection connection;
  SendText(connection.client, "x");
  EXPECT_EQ(0u, OPL_SocketReceive(connection.server, &size_, buffer_, 0));
  EXPECT_EQ(0u, size_);
  EXPECT_EQ("x", ReceiveText(connection.server));
}

std::vector<uint64_t> gSeen;
int gCalls = 0;

ssize_t SeeRecv(int fd, void* data, size_t size, int flags) {
  gSeen = {static_cast<uint32_t>(fd), reinterpret_cast<uintptr_t>(data), size, static_cast<uint32_t>(flags)};
  return 5;
}

TEST_F(SocketReceive, HandsTheSystemBufferAndLength) {
  const Socket socket;
  const Replacement recvCall("recv", SeeRecv);
  for (const uint32_t length : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(0u, OPL_SocketReceive(socket, &size_, buffer_, length));
    EXPECT_EQ((std::vector<uint64_t>{0xFFFFFFFF, reinterpret_cast<uintptr_t>(buffer_), length, 0}), gSeen);
    EXPECT_EQ(5u, size_);
  }
}

TEST_F(SocketReceive, TellsWithoutAMessageThatThereIsNothingYet) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(connection.server, OPL_SOCKET_NON_BLOCKING));
  ForgetFailure();
  EXPECT_EQ(0x05091Du, OPL_SocketReceive(connection.server, &size_, buffer_, sizeof buffer_));
  ExpectError(0, "none");
  EXPECT_EQ(kUntouched, size_);
  EXPECT_STREQ("???????????????", buffer_);
}

ssize_t InterruptedTwice(int, void* data, size_t, int) {
  if (++gCalls <= 2) {
    errno = EINTR;
    return -1;
  }
  std::memcpy(data, "ok", 2);
  return 2;
}

TEST_F(SocketReceive, GoesOnAfterASignal) {
  const Socket socket;
  const Replacement recvCall("recv", InterruptedTwice);
  EXPECT_EQ(0u, OPL_SocketReceive(socket, &size_, buffer_, sizeof buffer_));
  EXPECT_EQ(3, gCalls);
  EXPECT_EQ(2u, size_);
}

TEST_F(SocketReceive, SurvivesAStreamOfSignals) {
  const Connection connection;
  SignalStream signals;
  signals.Start(100, [&] { SendText(connection.client, "at last"); });
  EXPECT_EQ("at last", ReceiveText(connection.server));
  signals.Stop();
  EXPECT_LE(100, SignalStream::Handled());
}

struct Refusal {
  int number;
  uint32_t code;
  const char* message;
};

TEST_F(SocketReceive, TellsTheSystemsRefusals) {
  const Refusal refusals[] = {
      {EPIPE, 0x050928, "OPL_SocketReceive: Broken pipe."},
      {ECONNRESET, 0x050927, "OPL_SocketReceive: Connection reset by peer"},
      {ETIMEDOUT, 0x050929, "OPL_SocketReceive: Connection timed out."},
      {ENOTCONN, 0x050908, "OPL_SocketReceive: recv :107,Transport endpoint is not connected"},
      {EIO, 0x050908, "OPL_SocketReceive: recv :5,Input/output error"},
      {ENOMEM, 0x050908, "OPL_SocketReceive: recv :12,Cannot allocate memory"},
      {ECONNREFUSED, 0x050908, "OPL_SocketReceive: recv :111,Connection refused"},
  };
  const Socket socket;
  for (const Refusal& refusal : refusals) {
    const Fault fault("recv", 1, refusal.number);
    EXPECT_EQ(refusal.code, OPL_SocketReceive(socket, &size_, buffer_, sizeof buffer_));
    ExpectError(static_cast<uint32_t>(refusal.number), refusal.message);
  }
  EXPECT_EQ(kUntouched, size_);
  EXPECT_EQ(1u, IsAlive(socket));  // only a failed send marks the socket
}

TEST_F(SocketReceive, NeedsADescriptorOfAConnection) {
  const Socket closed;
  EXPECT_EQ(0x050908u, OPL_SocketReceive(closed, &size_, buffer_, sizeof buffer_));
  ExpectError(EBADF, "OPL_SocketReceive: recv :9,Bad file descriptor");
  const Socket unconnected(OPL_SOCKET_INET);
  EXPECT_EQ(0x050908u, OPL_SocketReceive(unconnected, &size_, buffer_, sizeof buffer_));
  ExpectError(ENOTCONN, "OPL_SocketReceive: recv :107,Transport endpoint is not connected");
  const Socket file;
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(file, ::open("/dev/null", O_RDWR | O_CLOEXEC)));
  EXPECT_EQ(0x050908u, OPL_SocketReceive(file, &size_, buffer_, sizeof buffer_));
  ExpectError(ENOTSOCK, "OPL_SocketReceive: recv :88,Socket operation on non-socket");
}

TEST_F(SocketReceive, TellsAPeersReset) {
  const Connection connection;
  ResetOnClose(connection.client);
  EXPECT_EQ(0u, OPL_SocketClose(connection.client));
  EXPECT_EQ(0x050927u, OPL_SocketReceive(connection.server, &size_, buffer_, sizeof buffer_));
  ExpectError(ECONNRESET, "OPL_SocketReceive: Connection reset by peer");
}

// The peer has not read all that came when it closes, and so resets.
TEST_F(SocketReceive, TellsAResetInTheMiddleOfATransfer) {
  const Connection connection;
  SendText(connection.server, "unread");
  SendText(connection.client, "the last that comes");
  EXPECT_EQ("un", ReceiveText(connection.client, 2));
  EXPECT_EQ(0u, OPL_SocketClose(connection.client));
  uint32_t rc = 0;
  std::string text;
  char byte = 0;
  while ((rc = OPL_SocketReceive(connection.server, &size_, &byte, 1)) == 0 && size_ == 1) text += byte;
  EXPECT_EQ(0x050927u, rc);
  ExpectError(ECONNRESET, "OPL_SocketReceive: Connection reset by peer");
  EXPECT_EQ(std::string("the last that comes").substr(0, text.size()), text);
}

TEST_F(SocketReceive, TakesTheSystemsTimeLimitForNothingYet) {
  const Connection connection;
  const timeval soon = {0, 1000};
  ASSERT_EQ(0, ::setsockopt(connection.server.fd(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon));
  ForgetFailure();
  EXPECT_EQ(0x05091Du, OPL_SocketReceive(connection.server, &size_, buffer_, sizeof buffer_));
  ExpectError(0, "none");
}

TEST_F(SocketReceive, GoesOnWhileAnotherThreadSends) {
  const Connection connection;
  const std::string text = Numbered(1 << 20);
  std::thread sender([&] {
    for (size_t sent = 0; sent < text.size();) {
      uint32_t count = 0;
      ASSERT_EQ(0u, OPL_SocketSend(connection.server, &count, text.data() + sent,
                                   static_cast<uint32_t>(text.size() - sent)));
      sent += count;
    }
  });
  std::thread echo([&] {
    std::string received = ReceiveAll(connection.client, text.size());
    for (size_t sent = 0; sent < received.size();) {
      uint32_t count = 0;
      ASSERT_EQ(0u, OPL_SocketSend(connection.client, &count, received.data() + sent,
                                   static_cast<uint32_t>(received.size() - sent)));
      sent += count;
    }
  });
  EXPECT_TRUE(text == ReceiveAll(connection.server, text.size()));
  sender.join();
  echo.join();
}

TEST_F(SocketSend, TellsHowMuchWentOut) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketSend(connection.client, &size_, "seven..", 7));
  EXPECT_EQ(7u, size_);
  EXPECT_EQ(0u, OPL_SocketSend(connection.client, &size_, "none", 0));
  EXPECT_EQ(0u, size_);
  EXPECT_EQ("seven..", ReceiveText(connection.server));
}

ssize_t SeeSend(int fd, const void* data, size_t size, int flags) {
  gSeen = {static_cast<uint32_t>(fd), reinterpret_cast<uintptr_t>(data), size, static_cast<uint32_t>(flags)};
  return 3;
}

TEST_F(SocketSend, HandsTheSystemBufferAndLength) {
  const Socket socket;
  const Replacement sendCall("send", SeeSend);
  const char text[] = "text";
  for (const uint32_t length : {0u, 4u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(0u, OPL_SocketSend(socket, &size_, text, length));
    EXPECT_EQ((std::vector<uint64_t>{0xFFFFFFFF, reinterpret_cast<uintptr_t>(text), length, 0}), gSeen);
    EXPECT_EQ(3u, size_);
  }
}

// Sends as much as goes without waiting, and then no more.
TEST_F(SocketSend, TellsWithoutAMessageThatThereIsNoRoom) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(connection.client, OPL_SOCKET_NON_BLOCKING));
  const std::string text = Numbered(1 << 24);
  size_t sent = 0;
  uint32_t rc = 0;
  ForgetFailure();
  for (bool wasPartial = false; !wasPartial || rc == 0;) {
    const auto rest = static_cast<uint32_t>(text.size() - sent);
    ASSERT_NE(0u, rest);
    size_ = kUntouched;
    rc = OPL_SocketSend(connection.client, &size_, text.data() + sent, rest);
    if (rc != 0) break;
    wasPartial = wasPartial || size_ < rest;
    sent += size_;
  }
  EXPECT_EQ(0x05091Du, rc);
  EXPECT_EQ(kUntouched, size_);
  ExpectError(0, "none");
  EXPECT_EQ(1u, IsAlive(connection.client));  // such a send does not mark the socket
  EXPECT_TRUE(text.substr(0, sent) == ReceiveAll(connection.server, sent));
}

TEST_F(SocketSend, TellsTheSystemsRefusalAndMarksTheSocket) {
  const Refusal refusals[] = {
      {EINTR, 0x050909, "OPL_SocketSend: send :4,Interrupted system call"},
      {EPIPE, 0x050909, "OPL_SocketSend: send :32,Broken pipe"},
      {ECONNRESET, 0x050909, "OPL_SocketSend: send :104,Connection reset by peer"},
      {EMSGSIZE, 0x050909, "OPL_SocketSend: send :90,Message too long"},
  };
  for (const Refusal& refusal : refusals) {
    const Connection connection;
    EXPECT_EQ(1u, IsAlive(connection.client));
    {
      const Fault fault("send", 1, refusal.number);
      EXPECT_EQ(refusal.code, OPL_SocketSend(connection.client, &size_, "x", 1));
      EXPECT_EQ(1, fault.Calls());  // never repeated
      ExpectError(static_cast<uint32_t>(refusal.number), refusal.message);
    }
    EXPECT_EQ(kUntouched, size_);
    const Fault poll("poll", 1, EIO);
    EXPECT_EQ(0u, IsAlive(connection.client));
    EXPECT_FALSE(poll.Fired());  // nothing is probed
    // A send that works does not take the mark away.
    SendText(connection.client, "x");
    EXPECT_EQ(0u, IsAlive(connection.client));
  }
}

// The first send after the peer's close provokes its reset, which the next ones meet.
TEST_F(SocketSend, FailsAgainstAPeerThatIsGone) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));
  SendText(connection.client, "into the void");
  uint32_t rc = 0;
  while ((rc = OPL_SocketSend(connection.client, &size_, "x", 1)) == 0) std::this_thread::yield();
  EXPECT_EQ(0x050909u, rc);
  ExpectError(EPIPE, "OPL_SocketSend: send :32,Broken pipe");
  EXPECT_EQ(0u, IsAlive(connection.client));
}

TEST_F(SocketSend, TellsAPeersReset) {
  const Connection connection;
  ResetOnClose(connection.server);
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));
  EXPECT_EQ(0x050909u, OPL_SocketSend(connection.client, &size_, "x", 1));
  ExpectError(ECONNRESET, "OPL_SocketSend: send :104,Connection reset by peer");
}

TEST_F(SocketSend, FailsAfterItsOwnShutdown) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketShutdown(connection.client, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ(0x050909u, OPL_SocketSend(connection.client, &size_, "x", 1));
  ExpectError(EPIPE, "OPL_SocketSend: send :32,Broken pipe");
  // What comes still arrives.
  SendText(connection.server, "answer");
  EXPECT_EQ("answer", ReceiveText(connection.client));
}

TEST_F(SocketSend, ReachesAPeerThatSendsNoMore) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketShutdown(connection.client, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ("", ReceiveText(connection.server));
  EXPECT_EQ("", ReceiveText(connection.server));
  SendText(connection.server, "still here");
  EXPECT_EQ("still here", ReceiveText(connection.client));
}

TEST_F(SocketSend, RaisesTheSystemsSignal) {
  Child child([](Steps& steps) {
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    (void)::signal(SIGPIPE, SIG_DFL);
    const Connection connection;
    ASSERT_EQ(0u, OPL_SocketShutdown(connection.client, OPL_SOCKET_SHUTDOWN_SEND));
    steps.Reach();
    uint32_t size = 0;
    (void)OPL_SocketSend(connection.client, &size, "x", 1);
  });
  child.Await();
  child.ExpectKilledBy(SIGPIPE);
}

// One piece of data in a message, with room for a descriptor.
struct Message {
  explicit Message(std::string text) : data(std::move(text)), piece{data.data(), data.size()} {
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
  }
  void AddDescriptor(int fd) {
    OfferRoom();
    cmsghdr* const first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(first), &fd, sizeof fd);
  }
  void OfferRoom() {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
  }
  int Descriptor() {
    const cmsghdr* const first = CMSG_FIRSTHDR(&header);
    if (first == nullptr || first->cmsg_type != SCM_RIGHTS) return -1;
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(first), sizeof fd);
    return fd;
  }

  std::string data;
  iovec piece;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = "";
  msghdr header{};
};

TEST_F(SocketMessage, GathersAndScattersPieces) {
  const Pair pair;
  char first[] = "one ";
  char second[] = "two";
  iovec pieces[] = {{first, 4}, {second, 3}};
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = 2;
  EXPECT_EQ(0u, OPL_SocketMessageSend(pair.ends[0], &message, 0));
  char begin[2];
  char end[16] = "";
  iovec places[] = {{begin, sizeof begin}, {end, sizeof end}};
  message.msg_iov = places;
  uint32_t length = 0;
  EXPECT_EQ(0u, OPL_SocketMessageReceive(pair.ends[1], &message, 0, &length));
  EXPECT_EQ(7u, length);
  EXPECT_EQ(0, std::memcmp(begin, "on", 2));
  EXPECT_STREQ("e two", end);
}

TEST_F(SocketMessage, CarriesADescriptor) {
  const Footprint before = Footprint::Now();
  {
    const Pair pair;
    const Connection connection;
    Message sent("take this");
    sent.AddDescriptor(connection.client.fd());
    EXPECT_EQ(0u, OPL_SocketMessageSend(pair.ends[0], &sent.header, 0));
    Message received(std::string(16, '\0'));
    received.OfferRoom();
    uint32_t length = 0;
    EXPECT_EQ(0u, OPL_SocketMessageReceive(pair.ends[1], &received.header, MSG_CMSG_CLOEXEC, &length));
    EXPECT_EQ(9u, length);
    const Socket passed;
    EXPECT_EQ(0u, OPL_SocketSetNativeSocket(passed, received.Descriptor()));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(passed.fd(), F_GETFD));  // the flag was handed on
    SendText(passed, "through the passed one");
    EXPECT_EQ("through the passed one", ReceiveText(connection.server));
  }
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SocketMessage, IsReceivedWithTheCallersFlags) {
  const Pair pair;
  SendText(pair.ends[0], "seven..");
  Message message(std::string(3, '\0'));
  uint32_t length = 0;
  EXPECT_EQ(0u, OPL_SocketMessageReceive(pair.ends[1], &message.header, MSG_PEEK | MSG_TRUNC, &length));
  EXPECT_EQ(7u, length);
  EXPECT_EQ("sev", message.data);
  EXPECT_EQ("seven..", ReceiveText(pair.ends[1]));
}

// Deliberate: a failure is told by the length alone.
TEST_F(SocketMessage, IsReceivedWithAllOnesForALengthWhenThereIsNone) {
  const Pair pair;
  Message message(std::string(3, '\0'));
  uint32_t length = 7;
  ForgetFailure();
  errno = 0;
  EXPECT_EQ(0u, OPL_SocketMessageReceive(pair.ends[1], &message.header, MSG_DONTWAIT, &length));
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_EQ(0xFFFFFFFFu, length);
  ExpectError(0, "none");
  const Fault fault("recvmsg", 1, EINTR);
  EXPECT_EQ(0u, OPL_SocketMessageReceive(pair.ends[1], &message.header, 0, &length));
  EXPECT_EQ(0xFFFFFFFFu, length);
  EXPECT_EQ(1, fault.Calls());  // not repeated
}

TEST_F(SocketMessage, IsNotSentWhenTheSystemRefuses) {
  const Pair pair;
  EXPECT_EQ(0u, OPL_SocketClose(pair.ends[1]));
  Message message("text");
  EXPECT_EQ(0x050921u, OPL_SocketMessageSend(pair.ends[0], &message.header, 0));
  ExpectError(ECONNREFUSED, "OPL_SocketMessageSend: sendmsg :111,Connection refused");
  EXPECT_EQ(1u, IsAlive(pair.ends[0]));  // such a failure does not mark the socket
  const Connection connection;
  const Fault fault("sendmsg", 1, EINTR);
  EXPECT_EQ(0x050921u, OPL_SocketMessageSend(connection.client, &message.header, 0));
  ExpectError(EINTR, "OPL_SocketMessageSend: sendmsg :4,Interrupted system call");
  EXPECT_EQ(1, fault.Calls());
}

TEST_F(SocketMessage, IsSentWithTheCallersFlags) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketShutdown(connection.client, OPL_SOCKET_SHUTDOWN_SEND));
  (void)::signal(SIGPIPE, SIG_DFL);  // the flag keeps the signal off
  Message message("text");
  EXPECT_EQ(0x050921u, OPL_SocketMessageSend(connection.client, &message.header, MSG_NOSIGNAL));
  ExpectError(EPIPE, "OPL_SocketMessageSend: sendmsg :32,Broken pipe");
}

}  // namespace
