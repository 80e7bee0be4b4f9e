// Sockets between processes of either width: packed addresses, connections, and passed descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"

namespace {

using opltest::Address;
using opltest::InetAddress;
using opltest::Listener;
using opltest::LocalAddress;
using opltest::PackedLocal;
using opltest::Peer;
using opltest::PeerBody;
using opltest::ReceiveAll;
using opltest::ReceiveText;
using opltest::SendText;
using opltest::Socket;
using opltest::SocketFile;
using opltest::Steps;

// Addresses go between the processes as lines of text.
std::string Hexadecimal(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += "0123456789abcdef"[static_cast<uint8_t>(byte) >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

std::string BytesOf(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2)
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  return bytes;
}

// A message with one descriptor.
struct Passing {
  Passing() {
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
  }

  char byte = 'x';
  iovec piece{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = "";
  msghdr message{};
};

void PassDescriptor(OPL_Socket* through, int fd) {
  Passing passing;
  cmsghdr* const first = CMSG_FIRSTHDR(&passing.message);
  first->cmsg_level = SOL_SOCKET;
  first->cmsg_type = SCM_RIGHTS;
  first->cmsg_len = CMSG_LEN(sizeof fd);
  std::memcpy(CMSG_DATA(first), &fd, sizeof fd);
  EXPECT_EQ(0u, OPL_SocketMessageSend(through, &passing.message, 0));
}

int TakeDescriptor(OPL_Socket* from) {
  Passing passing;
  uint32_t length = 0;
  EXPECT_EQ(0u, OPL_SocketMessageReceive(from, &passing.message, MSG_CMSG_CLOEXEC, &length));
  EXPECT_EQ(1u, length);
  const cmsghdr* const first = CMSG_FIRSTHDR(&passing.message);
  if (first == nullptr) return -1;
  EXPECT_EQ(SCM_RIGHTS, first->cmsg_type);
  int fd = -1;
  std::memcpy(&fd, CMSG_DATA(first), sizeof fd);
  return fd;
}

// Answers what comes until the other side sends no more.
void Echo(OPL_Socket* socket) {
  for (std::string text = ReceiveText(socket); !text.empty(); text = ReceiveText(socket))
    SendText(socket, text);
}

// Listens on the loopback network and on a local path, tells both addresses and serves a client of each.
const PeerBody kServer("Server", [](Steps& steps) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  {
    const Listener inet;
    const Listener local("server");
    for (const Listener* listener : {&inet, &local}) {
      const LocalAddress address("");
      ASSERT_EQ(0u, OPL_SocketAddressGet(*listener, address));
      steps.Send(Hexadecimal(address.Bytes()));
      const Socket served;
      ASSERT_EQ(0u, OPL_SocketAccept(*listener, served, nullptr));
      Echo(served);
    }
  }
  ASSERT_EQ(0u, OPL_InitEnd(0));
});

// Connects to an address that it is told, and tells that address again as it understands it.
const PeerBody kClient("Client", [](Steps& steps) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  for (const uint32_t family : {OPL_SOCKET_INET, OPL_SOCKET_LOCAL}) {
    Address address;
    address.SetBytes(BytesOf(steps.Receive()));
    uint32_t port = 0;
    char text[OPL_SOCKET_INET_TEXT_SIZE] = "";
    const uint32_t told = OPL_SocketAddressInetStringGet(address, &port, text);
    EXPECT_EQ(family == OPL_SOCKET_INET ? 0u : 0x05091Au, told);
    steps.Send(family == OPL_SOCKET_INET ? text : address.Path());
    steps.Send(Hexadecimal(address.Bytes()));
    const Socket socket(family);
    ASSERT_EQ(0u, OPL_SocketConnect(socket, address));
    SendText(socket, "hello");
    EXPECT_EQ("", ReceiveText(socket));
  }
  ASSERT_EQ(0u, OPL_InitEnd(0));
});

// Takes a descriptor and writes to it; passes the end of a pipe on and reads what comes out of it.
const PeerBody kPasser("Passer", [](Steps&) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  {
    const Socket socket(OPL_SOCKET_LOCAL);
    ASSERT_EQ(0u, OPL_SocketConnect(socket, LocalAddress("test")));
    const Socket taken;
    ASSERT_EQ(0u, OPL_SocketSetNativeSocket(taken, TakeDescriptor(socket)));
    SendText(taken, "from the peer");
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    PassDescriptor(socket, ends[1]);
    EXPECT_EQ(0, ::close(ends[1]));
    char text[32] = "";
    EXPECT_EQ(13, ::read(ends[0], text, sizeof text));
    EXPECT_STREQ("from the test", text);
    EXPECT_EQ(0, ::close(ends[0]));
  }
  ASSERT_EQ(0u, OPL_InitEnd(0));
});

// Sends datagrams to the test's socket, in order.
const PeerBody kDatagrams("Datagrams", [](Steps&) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  {
    const Socket socket(OPL_SOCKET_LOCAL, OPL_SOCKET_DATAGRAM);
    ASSERT_EQ(0u, OPL_SocketConnect(socket, LocalAddress("test")));
    for (int i = 0; i < 500; ++i) SendText(socket, std::to_string(i));
  }
  ASSERT_EQ(0u, OPL_InitEnd(0));
});

// Removes the test's socket files while they are in use.
const PeerBody kTerminator("Terminator", [](Steps&) { EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*.sck.*")); });

class SocketMixed : public opltest::Instance, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Peer, SocketMixed, ::testing::ValuesIn(opltest::PeerWidths()),
                         [](const ::testing::TestParamInfo<int>& test) {
                           return "Of" + std::to_string(test.param) + "Bits";
                         });

TEST_P(SocketMixed, ConnectsToThePackedAddressOfThePeer) {
  Peer server(kServer, GetParam());
  for (const uint32_t family : {OPL_SOCKET_INET, OPL_SOCKET_LOCAL}) {
    const std::string bytes = BytesOf(server.Receive());
    ASSERT_EQ(112u, bytes.size());
    if (family == OPL_SOCKET_LOCAL) {
      EXPECT_EQ(PackedLocal(SocketFile("server")), bytes);
    } else {
      EXPECT_EQ(std::string("\2\0", 2), bytes.substr(0, 2));
      EXPECT_EQ(std::string("\x7F\0\0\1", 4) + std::string(104, '\0'), bytes.substr(4));
    }
    Address address;
    address.SetBytes(bytes);
    const Socket client(family);
    ASSERT_EQ(0u, OPL_SocketConnect(client, address));
    SendText(client, "there and back");
    EXPECT_EQ("there and back", ReceiveAll(client, 14));
    EXPECT_EQ(0u, OPL_SocketShutdown(client, OPL_SOCKET_SHUTDOWN_SEND));
    EXPECT_EQ("", ReceiveText(client));
  }
  server.ExpectSuccess();
}

TEST_P(SocketMixed, IsConnectedToByItsPackedAddress) {
  const Listener inet;
  const Listener local("test");
  Peer client(kClient, GetParam());
  for (const Listener* listener : {&inet, &local}) {
    const LocalAddress address("");
    ASSERT_EQ(0u, OPL_SocketAddressGet(*listener, address));
    client.Send(Hexadecimal(address.Bytes()));
    EXPECT_EQ(listener == &inet ? "127.0.0.1" : SocketFile("test"), client.Receive());
    EXPECT_EQ(Hexadecimal(address.Bytes()), client.Receive());
    const Socket served;
    ASSERT_EQ(0u, OPL_SocketAccept(*listener, served, nullptr));
    EXPECT_EQ("hello", ReceiveText(served));
  }
  client.ExpectSuccess();
}

TEST_P(SocketMixed, PassesDescriptorsInBothDirections) {
  const Listener listener("test");
  Peer passer(kPasser, GetParam());
  const Socket peer;
  ASSERT_EQ(0u, OPL_SocketAccept(listener, peer, nullptr));
  const opltest::Connection connection;
  PassDescriptor(peer, connection.client.fd());
  EXPECT_EQ("from the peer", ReceiveAll(connection.server, 13));
  const int pipe = TakeDescriptor(peer);
  EXPECT_EQ(13, ::write(pipe, "from the test", 13));
  EXPECT_EQ(0, ::close(pipe));
  passer.ExpectSuccess();
}

TEST_P(SocketMixed, ReceivesThePeersDatagramsInOrder) {
  const Socket socket(OPL_SOCKET_LOCAL, OPL_SOCKET_DATAGRAM);
  ASSERT_EQ(0u, OPL_SocketBind(socket, LocalAddress("test")));
  Peer sender(kDatagrams, GetParam());
  for (int i = 0; i < 500; ++i) ASSERT_EQ(std::to_string(i), ReceiveText(socket));
  sender.ExpectSuccess();
}

TEST_P(SocketMixed, LosesItsFilesToThePeersCleanUp) {
  const Listener first("first");
  const Listener second("second");
  Peer terminator(kTerminator, GetParam());
  terminator.ExpectSuccess();
  EXPECT_TRUE(opltest::SocketFiles().empty());
  // The next under the name is not theirs to remove.
  EXPECT_EQ(0u, OPL_SocketClose(first));
  const Listener third("second");
  EXPECT_EQ(0u, OPL_SocketClose(second));
  EXPECT_EQ(1u, opltest::SocketFiles().size());
}

}  // namespace
