// Sockets and addresses: byte order, spans, and who owns what.
#include <gtest/gtest.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <qvopl.hpp>
#include <string>
#include <vector>

#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"

namespace {

using opltest::Child;
using opltest::Peer;
using opltest::PeerBody;
using opltest::Steps;
using qvopl::Address;
using qvopl::Family;
using qvopl::Socket;

class CppAddress : public opltest::Instance {};

TEST_F(CppAddress, HasItsPortInTheMachinesOrder) {
  const Address address = Address::Inet("192.0.2.1", 8080);
  EXPECT_EQ(8080, address.Port());
  EXPECT_EQ("192.0.2.1", address.InetText().view());
  uint32_t port = 0;
  ASSERT_EQ(OPL_OK, OPL_SocketAddressInetGetPort(address.native(), &port));
  EXPECT_EQ(htons(8080), port);
  const Address same = Address::Inet(0xC0000201U, 1);
  EXPECT_TRUE(address.IsSameHost(same));
  EXPECT_FALSE(address.IsSameHost(Address::Inet("192.0.2.2", 8080)));
}

TEST_F(CppAddress, RefusesATextThatIsNone) {
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SOCKET_E_INET_ADDR),
            Address::Inet(std::nothrow, "nowhere", 1).code());
  EXPECT_THROW((void)Address::Local("x").Port(), qvopl::Error);
  EXPECT_EQ(std::errc::filename_too_long, Address::Local(std::nothrow, std::string(200, 'x')).error());
}

TEST_F(CppAddress, IsCopiedAndPacked) {
  const Address address = Address::Inet("192.0.2.1", 8080);
  const Address copy = address.Copy();
  const Address unpacked = Address::Unpack(address.Pack());
  EXPECT_EQ(8080, copy.Port());
  EXPECT_EQ(8080, unpacked.Port());
  EXPECT_TRUE(unpacked.IsSameHost(copy));
}

class CppSocket : public opltest::Instance {};

TEST_F(CppSocket, CarriesBytesOverTcp) {
  Socket listener = Socket::Listen(Family::kInet, Address::Inet("127.0.0.1", 0));
  Socket client = Socket::Connect(Family::kInet, listener.LocalAddress());
  Address peer = Address::Create();
  Socket server = listener.Accept(&peer);
  EXPECT_EQ(client.LocalAddress().Port(), peer.Port());
  EXPECT_EQ(listener.LocalAddress().Port(), client.PeerAddress().Port());

  client.SendAll("hello");
  char text[16] = "";
  EXPECT_EQ(5u, server.Receive(text));
  EXPECT_STREQ("hello", text);

  const std::vector<uint32_t> numbers = {1, 2, 3};
  client.SendAll(numbers);
  std::array<uint32_t, 3> received{};
  EXPECT_EQ(sizeof received, server.ReceiveAll(received));
  EXPECT_TRUE(std::equal(numbers.begin(), numbers.end(), received.begin()));

  const std::string large(1 << 20, 'l');
  const qvopl::Thread sender = qvopl::Thread::Start([&] { client.SendAll(large); });
  std::string whole(large.size(), '\0');
  EXPECT_EQ(large.size(), server.ReceiveAll(whole));
  EXPECT_EQ(large, whole);

  EXPECT_TRUE(server.IsAlive());
  client.Shutdown();
  EXPECT_EQ(0u, server.ReceiveAll(whole));
  EXPECT_FALSE(server.IsAlive());
}

TEST_F(CppSocket, TellsALocalPathWholeAndRemovesItsFile) {
  const Address address = Address::Local("a-rather-long-name");
  const std::string path(address.Path().view());
  {
    const Socket listener = Socket::Listen(Family::kLocal, address);
    EXPECT_EQ(path, listener.LocalAddress().Path().view());
    EXPECT_EQ(0, ::access(path.c_str(), F_OK));
    const qvopl::Result<Socket> again = Socket::Listen(std::nothrow, Family::kLocal, address);
    EXPECT_EQ(static_cast<OPL_Result>(OPL_SOCKET_E_BIND), again.code());
    EXPECT_EQ(EADDRINUSE, again.systemError());
    EXPECT_EQ(0, ::access(path.c_str(), F_OK));
  }
  EXPECT_NE(0, ::access(path.c_str(), F_OK));
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SOCKET_E_CONNECT),
            Socket::Connect(std::nothrow, Family::kLocal, address).code());
}

TEST_F(CppSocket, IsLeftToItsOwnerByAChild) {
  const Address address = Address::Local("door");
  Socket listener = Socket::Listen(Family::kLocal, address);
  Child child([&](Steps&) { listener.Leave(); });
  child.ExpectSuccess();
  EXPECT_EQ(0, ::access(address.Path().c_str(), F_OK));
}

TEST_F(CppSocket, SaysThatItWouldWait) {
  auto [first, second] = Socket::Pair();
  first.SetBlocking(false);
  std::array<std::byte, 4> bytes{};
  const qvopl::Result<std::size_t> received = first.Receive(std::nothrow, bytes);
  EXPECT_EQ(std::errc::operation_would_block, received.error());
  first.SetBlocking(true);
  second.SendAll("four");
  EXPECT_EQ(4u, first.Receive(bytes));
}

TEST_F(CppSocket, SetsOptionsOfTheirTypes) {
  Socket socket = Socket::Open(Family::kInet);
  socket.SetKeepAlive(true);
  socket.SetReuseAddress(true);
  socket.SetSendBuffer(8192);
  socket.SetReceiveBuffer(8192);
  socket.SetLinger(std::chrono::seconds(3));
  int value = 0;
  socklen_t size = sizeof value;
  ASSERT_EQ(0, ::getsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &value, &size));
  EXPECT_EQ(1, value);
  linger set{};
  size = sizeof set;
  ASSERT_EQ(0, ::getsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &set, &size));
  EXPECT_EQ(3, set.l_linger);
  socket.SetLinger(std::chrono::hours(24 * 365 * 500));
  ASSERT_EQ(0, ::getsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &set, &size));
  EXPECT_LT(3, set.l_linger);
  socket.SetLinger(std::chrono::seconds(-1));
  ASSERT_EQ(0, ::getsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &set, &size));
  EXPECT_EQ(0, set.l_linger);
}

TEST_F(CppSocket, SendsAllWhateverSignalsCome) {
  auto [first, second] = Socket::Pair();
  opltest::Fault fault("send", 1, EINTR);
  first.SendAll("letter");
  EXPECT_EQ(2, fault.Calls());
  char letter[16] = "";
  EXPECT_EQ(6u, second.Receive(letter));
}

TEST_F(CppSocket, AdoptsADescriptorAndHandsMessagesOn) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends));
  Socket first = Socket::Adopt(ends[0]);
  Socket second = Socket::Adopt(ends[1]);
  EXPECT_EQ(ends[0], first.descriptor());
  char out[] = "in parts";
  iovec parts[2] = {{out, 3}, {out + 3, 5}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  first.SendMessage(message);
  char in[16] = "";
  iovec whole = {in, sizeof in};
  message.msg_iov = &whole;
  message.msg_iovlen = 1;
  EXPECT_EQ(8u, second.ReceiveMessage(message));
  EXPECT_STREQ("in parts", in);
  EXPECT_EQ(std::nullopt, second.ReceiveMessage(message, MSG_DONTWAIT));
}

TEST_F(CppSocket, FailsInsteadOfEndingTheProcess) {
  Socket::IgnoreBrokenPipes();
  auto [first, second] = Socket::Pair();
  second.Close();
  const qvopl::Result<std::size_t> sent = first.Send(std::nothrow, "x");
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SOCKET_E_SEND), sent.code());
  EXPECT_FALSE(first.IsAlive());
}

const PeerBody kEcho("Echo", [](Steps& steps) {
  const qvopl::Library library;
  Socket listener = Socket::Listen(Family::kLocal, Address::Local("echo"));
  steps.Reach();
  Socket client = listener.Accept();
  uint64_t number = 0;
  ASSERT_EQ(sizeof number, client.ReceiveAll(qvopl::WritableBytesOf(number)));
  ++number;
  client.SendAll(qvopl::BytesOf(number));
});

class CppSocketMixed : public opltest::Instance, public ::testing::WithParamInterface<int> {};

TEST_P(CppSocketMixed, TalksToAPeer) {
  Peer peer(kEcho, GetParam());
  peer.Await();
  Socket socket = Socket::Connect(Family::kLocal, Address::Local("echo"));
  uint64_t number = 41;
  socket.SendAll(qvopl::BytesOf(number));
  EXPECT_EQ(sizeof number, socket.ReceiveAll(qvopl::WritableBytesOf(number)));
  EXPECT_EQ(42u, number);
  peer.ExpectSuccess();
}

INSTANTIATE_TEST_SUITE_P(PeerOf, CppSocketMixed, ::testing::ValuesIn(opltest::PeerWidths()));

}  // namespace
