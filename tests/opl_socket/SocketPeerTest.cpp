// Sockets against a peer that knows nothing of the library, over the loopback network and local paths.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Socat.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Address;
using opltest::InetAddress;
using opltest::Listener;
using opltest::LocalAddress;
using opltest::PackedLocal;
using opltest::ReceiveAll;
using opltest::ReceiveText;
using opltest::SendText;
using opltest::Socat;
using opltest::Socket;
using opltest::SocketFile;

constexpr char kInetListening[] = "listening on AF=2 127.0.0.1:";
constexpr char kLocalListening[] = "listening on AF=1 ";

std::string TcpTo(uint16_t port, const std::string& options = "") {
  return "TCP:127.0.0.1:" + std::to_string(port) + options;
}

class SocketPeer : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    (void)::signal(SIGPIPE, SIG_IGN);
    if (!Socat::IsThere()) GTEST_SKIP() << "socat is not installed: scripts/install-packages does that";
  }

  // Connects to a peer that listens for one connection of the loopback network.
  static void ConnectTo(const Socat& peer, OPL_Socket* socket) {
    const auto port = static_cast<uint16_t>(std::stoi(peer.AwaitNotice(kInetListening)));
    EXPECT_EQ(0u, OPL_SocketConnect(socket, InetAddress(port)));
  }
};

void ExpectEcho(OPL_Socket* socket, const std::string& text) {
  std::thread sender([&] {
    for (size_t sent = 0; sent < text.size();) {
      uint32_t count = 0;
      ASSERT_EQ(
          0u, OPL_SocketSend(socket, &count, text.data() + sent, static_cast<uint32_t>(text.size() - sent)));
      sent += count;
    }
  });
  EXPECT_TRUE(text == ReceiveAll(socket, text.size()));
  sender.join();
}

TEST_F(SocketPeer, IsTalkedToOverTheNetwork) {
  Socat peer({"TCP-LISTEN:0,bind=127.0.0.1", "PIPE"});
  const Socket client(OPL_SOCKET_INET);
  ConnectTo(peer, client);
  ExpectEcho(client, "a few words");
  std::string much;
  for (int i = 0; i < 200000; ++i) much += std::to_string(i);
  ExpectEcho(client, much);
  EXPECT_EQ(0u, OPL_SocketShutdown(client, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ("", ReceiveText(client));
  peer.ExpectEnd();
}

TEST_F(SocketPeer, IsTalkedToOverALocalPath) {
  Socat peer({"UNIX-LISTEN:" + SocketFile("q"), "PIPE"});
  (void)peer.AwaitNotice(kLocalListening);
  const Socket client(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0u, OPL_SocketConnect(client, LocalAddress("q")));
  ExpectEcho(client, "a few words");
  const LocalAddress name("");
  EXPECT_EQ(0u, OPL_SocketPeerAddressGet(client, name));
  EXPECT_EQ(PackedLocal(SocketFile("q")), name.Bytes());
  EXPECT_EQ(0u, OPL_SocketShutdown(client, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ("", ReceiveText(client));
  peer.ExpectEnd();
}

// It sends no more, and still gets the answer.
TEST_F(SocketPeer, TalksOverTheNetwork) {
  const Listener listener;
  Socat peer({"-", TcpTo(listener.Port())});
  const Socket server;
  const Address from;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, from));
  uint32_t port = 0;
  char text[OPL_SOCKET_INET_TEXT_SIZE];
  EXPECT_EQ(0u, OPL_SocketAddressInetStringGet(from, &port, text));
  EXPECT_STREQ("127.0.0.1", text);
  peer.Write("question");
  peer.CloseInput();
  EXPECT_EQ("question", ReceiveAll(server, 1000));
  SendText(server, "answer");
  EXPECT_EQ(0u, OPL_SocketClose(server));
  EXPECT_EQ("answer", peer.ReadAll());
  peer.ExpectEnd();
}

TEST_F(SocketPeer, TalksOverALocalPath) {
  const Listener listener("q");
  Socat peer({"-", "UNIX-CONNECT:" + SocketFile("q")});
  const Socket server;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  peer.Write("question");
  peer.CloseInput();
  EXPECT_EQ("question", ReceiveAll(server, 1000));
  SendText(server, "answer");
  EXPECT_EQ(0u, OPL_SocketShutdown(server, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ("answer", peer.ReadAll());
  peer.ExpectEnd();
}

TEST_F(SocketPeer, SendsDatagrams) {
  const Socket local(OPL_SOCKET_LOCAL, OPL_SOCKET_DATAGRAM);
  ASSERT_EQ(0u, OPL_SocketBind(local, LocalAddress("q")));
  const Socket inet(OPL_SOCKET_INET, OPL_SOCKET_DATAGRAM);
  ASSERT_EQ(0u, OPL_SocketBind(inet, InetAddress()));
  const Address name;
  ASSERT_EQ(0u, OPL_SocketAddressGet(inet, name));
  Socat localPeer({"-u", "-", "UNIX-SENDTO:" + SocketFile("q")});
  Socat inetPeer({"-u", "-", "UDP-SENDTO:127.0.0.1:" + std::to_string(name.Port())});
  localPeer.Write("over a path");
  inetPeer.Write("over the network");
  EXPECT_EQ("over a path", ReceiveText(local));
  EXPECT_EQ("over the network", ReceiveText(inet));
  for (Socat* peer : {&localPeer, &inetPeer}) {
    peer->CloseInput();
    peer->ExpectEnd();
  }
}

TEST_F(SocketPeer, ResetsWhenItIsKilled) {
  const Listener listener;
  Socat peer({"-", TcpTo(listener.Port(), ",linger=0")});
  const Socket server;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  peer.Write("x");
  EXPECT_EQ("x", ReceiveText(server));
  peer.Kill();
  uint32_t size = 0;
  char byte = 0;
  EXPECT_EQ(0x050927u, OPL_SocketReceive(server, &size, &byte, 1));
  opltest::ExpectError(ECONNRESET, "OPL_SocketReceive: Connection reset by peer");
}

// Killed while it is behind with reading.
TEST_F(SocketPeer, ResetsInTheMiddleOfATransfer) {
  const Listener listener;
  Socat peer({"-", TcpTo(listener.Port())});
  const Socket server;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  ASSERT_EQ(0u, OPL_SocketNonBlockingSet(server, OPL_SOCKET_NON_BLOCKING));
  const std::string much(1 << 20, 'x');
  uint32_t count = 0;
  uint32_t rc = 0;
  const auto send = [&] { return OPL_SocketSend(server, &count, much.data(), 1 << 20); };
  while ((rc = send()) == 0) {
  }
  EXPECT_EQ(0x05091Du, rc);
  peer.Kill();
  while ((rc = send()) == 0 || rc == 0x05091D) std::this_thread::yield();
  EXPECT_EQ(0x050909u, rc);
  uint32_t isAlive = 7;
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(server, &isAlive));
  EXPECT_EQ(0u, isAlive);
}

TEST_F(SocketPeer, IsMissedWhenItIsKilled) {
  const Listener listener("q");
  Socat peer({"-", "UNIX-CONNECT:" + SocketFile("q")});
  const Socket server;
  EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  uint32_t isAlive = 7;
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(server, &isAlive));
  EXPECT_EQ(1u, isAlive);
  peer.Kill();
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(server, &isAlive));
  EXPECT_EQ(0u, isAlive);
  EXPECT_EQ("", ReceiveText(server));
}

TEST_F(SocketPeer, IsOneOfManyToWaitFor) {
  const Listener inet;
  const Listener local("q");
  const Socket servers[2];
  Socat peers[2] = {Socat({"-", TcpTo(inet.Port())}), Socat({"-", "UNIX-CONNECT:" + SocketFile("q")})};
  EXPECT_EQ(0u, OPL_SocketAccept(inet, servers[0], nullptr));
  EXPECT_EQ(0u, OPL_SocketAccept(local, servers[1], nullptr));
  OPL_Socket* readers[] = {servers[0], servers[1], nullptr};
  for (const int turn : {1, 0, 1}) {
    peers[turn].Write("x");
    uint32_t isReadable[2] = {7, 7};
    EXPECT_EQ(0u, OPL_SocketSelect(0, readers, nullptr, nullptr, isReadable, nullptr, nullptr, nullptr));
    EXPECT_EQ(turn == 0 ? 1u : 0u, isReadable[0]);
    EXPECT_EQ(turn == 1 ? 1u : 0u, isReadable[1]);
    EXPECT_EQ("x", ReceiveText(servers[turn]));
  }
}

}  // namespace
