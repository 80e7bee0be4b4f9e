// How connections are made and looked after: connect, accept, and whether one still stands.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Limit.h"
#include "tests/support/SignalStream.h"

namespace {

using opltest::Address;
using opltest::Connection;
using opltest::DescriptorOf;
using opltest::ExpectError;
using opltest::Fault;
using opltest::ForgetFailure;
using opltest::InetAddress;
using opltest::Limit;
using opltest::Listener;
using opltest::LocalAddress;
using opltest::PackedLocal;
using opltest::Pair;
using opltest::ReceiveText;
using opltest::Replacement;
using opltest::SendText;
using opltest::SignalStream;
using opltest::Socket;
using opltest::SocketFile;

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

class SocketConnect : public opltest::Instance {};
class SocketAccept : public opltest::Instance {};
class SocketIsConnectionAlive : public opltest::Instance {};

TEST_F(SocketConnect, ReachesAnIPv4Listener) {
  const Listener listener;
  const Socket client(OPL_SOCKET_INET);
  EXPECT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  const Socket server;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  SendText(client, "question");
  EXPECT_EQ("question", ReceiveText(server));
  SendText(server, "answer");
  EXPECT_EQ("answer", ReceiveText(client));
}

TEST_F(SocketConnect, ReachesALocalListener) {
  const Listener listener("q");
  const Socket client(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0u, OPL_SocketConnect(client, LocalAddress("q")));
  const Socket server;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  SendText(client, "question");
  EXPECT_EQ("question", ReceiveText(server));
}

TEST_F(SocketConnect, GivesADatagramSocketItsPeer) {
  const Socket receiver(OPL_SOCKET_LOCAL, OPL_SOCKET_DATAGRAM);
  ASSERT_EQ(0u, OPL_SocketBind(receiver, LocalAddress("q")));
  const Socket sender(OPL_SOCKET_LOCAL, OPL_SOCKET_DATAGRAM);
  EXPECT_EQ(0u, OPL_SocketConnect(sender, LocalAddress("q")));
  SendText(sender, "one");
  SendText(sender, "two");
  EXPECT_EQ("one", ReceiveText(receiver));
  EXPECT_EQ("two", ReceiveText(receiver));
}

TEST_F(SocketConnect, IsRefusedWhereNobodyListens) {
  const Socket bound(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketBind(bound, InetAddress()));
  const Address address;
  ASSERT_EQ(0u, OPL_SocketAddressGet(bound, address));
  const Socket client(OPL_SOCKET_INET);
  EXPECT_EQ(0x050925u, OPL_SocketConnect(client, address));
  ExpectError(ECONNREFUSED, "OPL_SocketConnect: Connection refused.");
}

TEST_F(SocketConnect, IsRefusedByAFileThatADeadSocketLeft) {
  Socket bound(OPL_SOCKET_LOCAL);
  ASSERT_EQ(0u, OPL_SocketBind(bound, LocalAddress("q")));
  ASSERT_EQ(0u, OPL_SocketDestroyLite(bound.handle()));
  const Socket client(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0x050925u, OPL_SocketConnect(client, LocalAddress("q")));
  ExpectError(ECONNREFUSED, "OPL_SocketConnect: Connection refused.");
  EXPECT_EQ(0, ::unlink(SocketFile("q").c_str()));
}

TEST_F(SocketConnect, NeedsALocalSocketsFile) {
  const Socket client(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0x050911u, OPL_SocketConnect(client, LocalAddress("q")));
  ExpectError(ENOENT, "OPL_SocketConnect: Connect :2,No such file or directory");
}

TEST_F(SocketConnect, TellsTheSystemsRefusals) {
  const struct {
    int number;
    uint32_t code;
    const char* message;
  } refusals[] = {
      {EAFNOSUPPORT, 0x050924, "OPL_SocketConnect: Address invalid."},
      {EADDRNOTAVAIL, 0x050924, "OPL_SocketConnect: Address invalid."},
      {ENETUNREACH, 0x050926, "OPL_SocketConnect: Network unreachable."},
      {ECONNREFUSED, 0x050925, "OPL_SocketConnect: Connection refused."},
      {EINTR, 0x050911, "OPL_SocketConnect: Connect :4,Interrupted system call"},
      {EAGAIN, 0x050911, "OPL_SocketConnect: Connect :11,Resource temporarily unavailable"},
      {EACCES, 0x050911, "OPL_SocketConnect: Connect :13,Permission denied"},
      {EISCONN, 0x050911, "OPL_SocketConnect: Connect :106,Transport endpoint is already connected"},
      {ETIMEDOUT, 0x050911, "OPL_SocketConnect: Connect :110,Connection timed out"},
      {EHOSTUNREACH, 0x050911, "OPL_SocketConnect: Connect :113,No route to host"},
      {EALREADY, 0x050911, "OPL_SocketConnect: Connect :114,Operation already in progress"},
  };
  const Socket socket;
  const InetAddress address(1);
  for (const auto& refusal : refusals) {
    const Fault fault("connect", 1, refusal.number);
    EXPECT_EQ(refusal.code, OPL_SocketConnect(socket, address));
    ExpectError(static_cast<uint32_t>(refusal.number), refusal.message);
    EXPECT_EQ(1, fault.Calls());
  }
}

TEST_F(SocketConnect, TellsWithoutAMessageThatItIsUnderWay) {
  const Socket socket;
  const Fault fault("connect", 1, EINPROGRESS);
  ForgetFailure();
  EXPECT_EQ(0x05091Du, OPL_SocketConnect(socket, InetAddress(1)));
  ExpectError(0, "none");
}

TEST_F(SocketConnect, IsMadeWhileASocketThatDoesNotBlockWaitsToWrite) {
  const Listener listener;
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketNonBlockingSet(client, OPL_SOCKET_NON_BLOCKING));
  const uint32_t rc = OPL_SocketConnect(client, InetAddress(listener.Port()));
  EXPECT_TRUE(rc == 0 || rc == 0x05091D) << rc;
  OPL_Socket* writers[] = {client, nullptr};
  uint32_t isWritable = 0;
  EXPECT_EQ(0u, OPL_SocketSelect(0, nullptr, writers, nullptr, nullptr, &isWritable, nullptr, nullptr));
  EXPECT_EQ(1u, isWritable);
  const Address peer;
  EXPECT_EQ(0u, OPL_SocketPeerAddressGet(client, peer));
  EXPECT_EQ(listener.Port(), peer.Port());
}

TEST_F(SocketConnect, NeedsADescriptor) {
  const Socket closed;
  EXPECT_EQ(0x050911u, OPL_SocketConnect(closed, InetAddress(1)));
  ExpectError(EBADF, "OPL_SocketConnect: Connect :9,Bad file descriptor");
}

TEST_F(SocketConnect, NeedsAnAddressOfTheSocketsFamily) {
  const Socket inet(OPL_SOCKET_INET);
  EXPECT_EQ(0x050924u, OPL_SocketConnect(inet, LocalAddress("q")));
  ExpectError(EAFNOSUPPORT, "OPL_SocketConnect: Address invalid.");
  const Socket local(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0x050911u, OPL_SocketConnect(local, InetAddress(1)));
  ExpectError(EINVAL, "OPL_SocketConnect: Connect :22,Invalid argument");
}

std::vector<int> gSeen;

int SeeConnect(int fd, const struct sockaddr* address, socklen_t length) {
  gSeen = {fd, address->sa_family, static_cast<int>(length)};
  return 0;
}

TEST_F(SocketConnect, TellsTheSystemTheFamilysLength) {
  const Socket socket;
  const Replacement connectCall("connect", SeeConnect);
  EXPECT_EQ(0u, OPL_SocketConnect(socket, Address()));
  EXPECT_EQ((std::vector<int>{-1, 0, 16}), gSeen);
  EXPECT_EQ(0u, OPL_SocketConnect(socket, InetAddress(1)));
  EXPECT_EQ((std::vector<int>{-1, 2, 16}), gSeen);
  EXPECT_EQ(0u, OPL_SocketConnect(socket, LocalAddress("q")));
  EXPECT_EQ((std::vector<int>{-1, 1, 110}), gSeen);
}

// Whatever another process has packed: the system gets no byte of anything else.
TEST_F(SocketConnect, TakesAPathWithoutAnEnd) {
  const Socket client(OPL_SOCKET_LOCAL);
  Address address;
  address.SetBytes(PackedLocal(std::string(110, 'p')));
  EXPECT_EQ(0x050911u, OPL_SocketConnect(client, address));
  ExpectError(ENOENT, "OPL_SocketConnect: Connect :2,No such file or directory");
}

TEST_F(SocketConnect, TakesAnyBytesForALocalAddress) {
  std::mt19937 random(20040205);
  for (int round = 0; round < 200; ++round) {
    std::string bytes = PackedLocal("./");
    for (size_t i = 4; i < bytes.size(); ++i) bytes[i] = static_cast<char>(random());
    Address address;
    address.SetBytes(bytes);
    const Socket socket(OPL_SOCKET_LOCAL);
    EXPECT_NE(0u, OPL_SocketConnect(socket, address));
    (void)OPL_SocketBind(socket, address);
    EXPECT_EQ(0u, OPL_SocketClose(socket));
  }
  EXPECT_TRUE(opltest::FilesIn(".").empty());
}

TEST_F(SocketAccept, TellsAnIPv4PeersAddress) {
  const Listener listener;
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  const Socket server;
  Address peer;
  peer.SetBytes(std::string(112, '?'));
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, peer));
  const Address name;
  EXPECT_EQ(0u, OPL_SocketAddressGet(client, name));
  EXPECT_EQ(name.Bytes(), peer.Bytes());
  EXPECT_EQ(std::string(104, '\0'), peer.Bytes().substr(8));
}

TEST_F(SocketAccept, TellsALocalPeersAddressWholly) {
  const Listener listener("q");
  const Socket client(OPL_SOCKET_LOCAL);
  ASSERT_EQ(0u, OPL_SocketBind(client, LocalAddress("client")));
  ASSERT_EQ(0u, OPL_SocketConnect(client, LocalAddress("q")));
  const Socket server;
  Address peer;
  peer.SetBytes(std::string(112, '?'));
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, peer));
  EXPECT_EQ(PackedLocal(SocketFile("client")), peer.Bytes());
}

TEST_F(SocketAccept, TellsAnUnboundPeersFamilyAlone) {
  const Listener listener("q");
  const Socket client(OPL_SOCKET_LOCAL);
  ASSERT_EQ(0u, OPL_SocketConnect(client, LocalAddress("q")));
  const Socket server;
  Address peer;
  peer.SetBytes(std::string(112, '?'));
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, peer));
  EXPECT_EQ(PackedLocal(""), peer.Bytes());
}

bool gHasAddress = false;

int SeeAccept(int fd, struct sockaddr* address, socklen_t* length) {
  gHasAddress = address != nullptr;
  gSeen = {fd, length != nullptr ? static_cast<int>(*length) : -1};
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST_F(SocketAccept, GivesTheSystemTheWholeAddressOrNone) {
  const Socket listener;
  const Socket server;
  const Address address;
  const Replacement acceptCall("accept", SeeAccept);
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, address));
  EXPECT_TRUE(gHasAddress);
  EXPECT_EQ((std::vector<int>{-1, 112}), gSeen);
  EXPECT_EQ(0u, OPL_SocketClose(server));
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  EXPECT_FALSE(gHasAddress);
  EXPECT_EQ((std::vector<int>{-1, -1}), gSeen);
}

TEST_F(SocketAccept, ClosesNoDescriptorThatIsThere) {
  const Listener listener;
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  const Socket server(OPL_SOCKET_INET);
  const int before = server.fd();
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  EXPECT_NE(before, server.fd());
  EXPECT_TRUE(IsOpen(before));
  EXPECT_EQ(0, ::close(before));
}

TEST_F(SocketAccept, LeavesNoDescriptorInTheRecordWhenItFails) {
  const Socket idle(OPL_SOCKET_INET);
  const Socket server(OPL_SOCKET_INET);
  const int before = server.fd();
  const InetAddress address(1);
  const std::string bytes = address.Bytes();
  EXPECT_EQ(0x05090Eu, OPL_SocketAccept(idle, server, address));
  ExpectError(EINVAL, "OPL_SocketAccept: accept :22,Invalid argument");
  EXPECT_EQ(-1, server.fd());
  EXPECT_EQ(bytes, address.Bytes());
  EXPECT_TRUE(IsOpen(before));
  EXPECT_EQ(0, ::close(before));
}

TEST_F(SocketAccept, TellsTheSystemsRefusals) {
  const Socket closed;
  const Socket server;
  EXPECT_EQ(0x05090Eu, OPL_SocketAccept(closed, server, nullptr));
  ExpectError(EBADF, "OPL_SocketAccept: accept :9,Bad file descriptor");
  const Listener listener;
  const Fault fault("accept", 1, ECONNABORTED);
  EXPECT_EQ(0x05090Eu, OPL_SocketAccept(listener, server, nullptr));
  ExpectError(ECONNABORTED, "OPL_SocketAccept: accept :103,Software caused connection abort");
}

TEST_F(SocketAccept, FailsWhereNobodyWaitsAndTheListenerDoesNotBlock) {
  const Listener listener;
  ASSERT_EQ(0u, OPL_SocketNonBlockingSet(listener, OPL_SOCKET_NON_BLOCKING));
  const Socket server;
  EXPECT_EQ(0x05090Eu, OPL_SocketAccept(listener, server, nullptr));
  ExpectError(EAGAIN, "OPL_SocketAccept: accept :11,Resource temporarily unavailable");
}

TEST_F(SocketAccept, TellsWhenAllDescriptorsAreUsed) {
  const Listener listener;
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  const Socket server;
  const int next = ::dup(0);
  ASSERT_EQ(0, ::close(next));
  {
    const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next));
    EXPECT_EQ(0x05090Eu, OPL_SocketAccept(listener, server, nullptr));
  }
  ExpectError(EMFILE, "OPL_SocketAccept: accept :24,Too many open files");
  // The connection waits on.
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  SendText(client, "x");
  EXPECT_EQ("x", ReceiveText(server));
}

// Unlike a receive.
TEST_F(SocketAccept, IsEndedByASignal) {
  const Listener listener;
  const Socket server;
  SignalStream signals;
  signals.Start();
  EXPECT_EQ(0x05090Eu, OPL_SocketAccept(listener, server, nullptr));
  signals.Stop();
  ExpectError(EINTR, "OPL_SocketAccept: accept :4,Interrupted system call");
  EXPECT_EQ(-1, server.fd());
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
}

TEST_F(SocketAccept, ServesManyClientsAtOnce) {
  constexpr int kClients = 64;
  const Listener listener;
  const uint16_t port = listener.Port();
  std::thread clients([port] {
    for (int i = 0; i < kClients; ++i) {
      const Socket client(OPL_SOCKET_INET);
      ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(port)));
      SendText(client, "x");
      EXPECT_EQ("y", ReceiveText(client));
    }
  });
  for (int i = 0; i < kClients; ++i) {
    const Socket server;
    ASSERT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
    EXPECT_EQ("x", ReceiveText(server));
    SendText(server, "y");
  }
  clients.join();
}

uint32_t IsAlive(OPL_Socket* socket) {
  uint32_t isAlive = 7;
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(socket, &isAlive));
  return isAlive;
}

TEST_F(SocketIsConnectionAlive, IsTrueWithAndWithoutSomethingToRead) {
  const Connection connection;
  EXPECT_EQ(1u, IsAlive(connection.client));
  SendText(connection.server, "x");
  EXPECT_EQ(1u, IsAlive(connection.client));
  EXPECT_EQ("x", ReceiveText(connection.client));  // only looked at
  EXPECT_EQ(1u, IsAlive(connection.client));
}

TEST_F(SocketIsConnectionAlive, IsFalseWhenThePeerHasClosed) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));
  EXPECT_EQ(0u, IsAlive(connection.client));
}

TEST_F(SocketIsConnectionAlive, IsTrueWhileThereIsSomethingToReadFromAPeerThatHasClosed) {
  const Connection connection;
  SendText(connection.server, "x");
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));
  EXPECT_EQ(1u, IsAlive(connection.client));
  EXPECT_EQ("x", ReceiveText(connection.client));
  EXPECT_EQ(0u, IsAlive(connection.client));
}

TEST_F(SocketIsConnectionAlive, IsFalseWhenThePeerHasReset) {
  const Connection connection;
  const linger now = {1, 0};
  EXPECT_EQ(0u, OPL_SocketSetOption(connection.server, OPL_SOCKET_OPTION_LINGER, &now, sizeof now));
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));
  EXPECT_EQ(0u, IsAlive(connection.client));
}

TEST_F(SocketIsConnectionAlive, IsFalseWhenThePeerSendsNoMore) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketShutdown(connection.server, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ(0u, IsAlive(connection.client));
}

// An empty datagram reads as a peer that has closed.
TEST_F(SocketIsConnectionAlive, IsFalseBeforeAnEmptyDatagram) {
  const Pair pair;
  EXPECT_EQ(1u, IsAlive(pair.ends[0]));
  SendText(pair.ends[1], "");
  EXPECT_EQ(0u, IsAlive(pair.ends[0]));
  EXPECT_EQ("", ReceiveText(pair.ends[0]));
  EXPECT_EQ(1u, IsAlive(pair.ends[0]));
}

TEST_F(SocketIsConnectionAlive, NeedsNoPlaceForTheResult) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(connection.client, nullptr));
  EXPECT_EQ(0u, OPL_SocketClose(connection.server));
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(connection.client, nullptr));
  const Fault fault("poll", 1, ENOMEM);
  EXPECT_EQ(0x05092Au, OPL_SocketIsConnectionAlive(connection.client, nullptr));
}

TEST_F(SocketIsConnectionAlive, PassesTheSelectsFailureOn) {
  const Connection connection;
  const Fault fault("poll", 1, ENOMEM);
  uint32_t isAlive = 7;
  EXPECT_EQ(0x05092Au, OPL_SocketIsConnectionAlive(connection.client, &isAlive));
  ExpectError(ENOMEM, "OPL_SocketSelect: poll error 12,Cannot allocate memory");
  EXPECT_EQ(0u, isAlive);
}

TEST_F(SocketIsConnectionAlive, IsFalseWhenThePeekFails) {
  const Connection connection;
  SendText(connection.server, "x");
  {
    const Fault fault("recv", 1, EIO);
    EXPECT_EQ(0u, IsAlive(connection.client));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(1u, IsAlive(connection.client));
}

TEST_F(SocketIsConnectionAlive, PeeksOnlyWhereThereIsSomethingToRead) {
  const Connection connection;
  const Fault fault("recv", 1, EIO);
  EXPECT_EQ(1u, IsAlive(connection.client));
  EXPECT_FALSE(fault.Fired());
}

int TellAHangUp(pollfd* entries, nfds_t count, int) {
  EXPECT_EQ(1u, count);
  entries[0].revents = POLLHUP;
  return 1;
}

TEST_F(SocketIsConnectionAlive, LooksNoFurtherWhereNothingCanBeRead) {
  const Connection connection;
  const Replacement pollCall("poll", TellAHangUp);
  const Fault fault("recv", 1, EIO);
  EXPECT_EQ(1u, IsAlive(connection.client));
  EXPECT_FALSE(fault.Fired());
}

ssize_t SeeRecv(int, void*, size_t size, int flags) {
  gSeen = {static_cast<int>(size), flags & MSG_PEEK};
  return 1;
}

TEST_F(SocketIsConnectionAlive, PeeksAtOneByte) {
  const Connection connection;
  SendText(connection.server, "xyz");
  {
    const Replacement recvCall("recv", SeeRecv);
    EXPECT_EQ(1u, IsAlive(connection.client));
  }
  EXPECT_EQ((std::vector<int>{1, MSG_PEEK}), gSeen);
  EXPECT_EQ("xyz", ReceiveText(connection.client));
}

// Another thread may have read it between the select and the peek.
TEST_F(SocketIsConnectionAlive, DoesNotWaitForWhatAnotherThreadHasTaken) {
  const Connection connection;
  SendText(connection.server, "x");
  char taken = '?';
  const Fault fault("recv", 1, [&] { EXPECT_EQ(1, ::read(connection.client.fd(), &taken, 1)); });
  EXPECT_EQ(1u, IsAlive(connection.client));
  EXPECT_EQ('x', taken);
}

}  // namespace
