// Addresses and sockets as their tests make them: handles that end themselves, and what one is in a line.
#ifndef OPL_TESTS_OPL_SOCKET_SOCKETS_H
#define OPL_TESTS_OPL_SOCKET_SOCKETS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "OPL_Socket.h"
#include "tests/support/Instance.h"

namespace opltest {

inline constexpr char kSocketVersion[] = ".006.021";
inline constexpr char kLoopback[] = "127.0.0.1";

// The file of a local socket that is bound under the name.
inline std::string SocketFile(const std::string& name, const std::string& instance = InstanceString()) {
  return IpcDirectory() + "/" + name + ".sck." + instance + kSocketVersion;
}

// The IPC directory's files that belong to sockets.
inline std::vector<std::string> SocketFiles() {
  std::vector<std::string> files = FilesIn(IpcDirectory());
  std::erase_if(files, [](const std::string& file) { return file.find(".sck.") == std::string::npos; });
  return files;
}

// "%i,%s" with the number's text.
inline std::string NumberWithText(int number) { return std::to_string(number) + "," + std::strerror(number); }

class Address {
 public:
  Address() { EXPECT_EQ(0u, OPL_SocketAddressCreate(&handle_, 0)); }
  ~Address() { EXPECT_EQ(0u, OPL_SocketAddressDestroy(&handle_)); }
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;

  // Handles pass where the library asks for them.
  operator OPL_SocketAddress*() const { return handle_; }

  std::string Bytes() const {
    std::string bytes(OPL_SOCKET_ADDRESS_PACKED_SIZE, '?');
    EXPECT_EQ(0u, OPL_SocketAddressPackedBufferFill(handle_, bytes.data(), OPL_SOCKET_ADDRESS_PACKED_SIZE));
    return bytes;
  }
  void SetBytes(const std::string& bytes) {
    EXPECT_EQ(0u,
              OPL_SocketAddressPackedAddrFill(handle_, bytes.data(), static_cast<uint32_t>(bytes.size())));
  }
  // Of an IPv4 address, in the host's byte order.
  uint16_t Port() const {
    uint32_t port = 0;
    EXPECT_EQ(0u, OPL_SocketAddressInetGetPort(handle_, &port));
    return ntohs(static_cast<uint16_t>(port));
  }
  // Of a local address.
  std::string Path() const {
    char path[OPL_SOCKET_PATH_SIZE] = "";
    EXPECT_EQ(0u, OPL_SocketAddressUnixGet(handle_, path));
    return path;
  }

 private:
  OPL_SocketAddress* handle_ = nullptr;
};

struct InetAddress : Address {
  // The port in the host's byte order; 0 lets the system choose.
  explicit InetAddress(uint16_t port = 0, const char* text = kLoopback) {
    EXPECT_EQ(0u, OPL_SocketAddressInetStringSet(*this, htons(port), text));
  }
};

struct LocalAddress : Address {
  explicit LocalAddress(const std::string& name) {
    EXPECT_EQ(0u, OPL_SocketAddressUnixSet(*this, name.c_str()));
  }
};

// A packed address of family 1 with that path, of any length up to the record's.
inline std::string PackedLocal(const std::string& path) {
  std::string bytes("\1\0", 2);
  bytes += path;
  bytes.resize(OPL_SOCKET_ADDRESS_PACKED_SIZE, '\0');
  return bytes;
}

class Socket {
 public:
  Socket() { EXPECT_EQ(0u, OPL_SocketCreate(&handle_, 0)); }
  explicit Socket(uint32_t family, uint32_t type = OPL_SOCKET_STREAM) : Socket() {
    EXPECT_EQ(0u, OPL_SocketOpen(handle_, family, type, 0));
  }
  ~Socket() { EXPECT_EQ(0u, OPL_SocketDestroy(&handle_)); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  operator OPL_Socket*() const { return handle_; }
  // For the functions that take a handle's address.
  OPL_Socket** handle() { return &handle_; }

  int fd() const {
    int32_t fd = -7;
    EXPECT_EQ(0u, OPL_SocketGetNativeSocket(handle_, &fd));
    return fd;
  }

 private:
  OPL_Socket* handle_ = nullptr;
};

// A listener under an address of the family's: of the loopback network, or the name's file.
struct Listener : Socket {
  Listener() : Socket(OPL_SOCKET_INET) {
    const InetAddress any;
    EXPECT_EQ(0u, OPL_SocketBind(*this, any));
    EXPECT_EQ(0u, OPL_SocketListen(*this, 8));
  }
  explicit Listener(const std::string& name) : Socket(OPL_SOCKET_LOCAL) {
    const LocalAddress address(name);
    EXPECT_EQ(0u, OPL_SocketBind(*this, address));
    EXPECT_EQ(0u, OPL_SocketListen(*this, 8));
  }

  uint16_t Port() const {
    const Address address;
    EXPECT_EQ(0u, OPL_SocketAddressGet(*this, address));
    return address.Port();
  }
};

// Two stream sockets that are connected with each other over the loopback network.
struct Connection {
  Connection() {
    const Listener listener;
    const InetAddress address(listener.Port());
    EXPECT_EQ(0u, OPL_SocketConnect(client, address));
    EXPECT_EQ(0u, OPL_SocketAccept(listener, server, nullptr));
  }

  const Socket client{OPL_SOCKET_INET};
  const Socket server;
};

// Two connected local datagram sockets.
struct Pair {
  Pair() { EXPECT_EQ(0u, OPL_SocketPairCreate(ends, 0)); }
  ~Pair() {
    for (OPL_Socket*& end : ends) EXPECT_EQ(0u, OPL_SocketDestroy(&end));
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  OPL_Socket* ends[2] = {nullptr, nullptr};
};

inline int DescriptorOf(OPL_Socket* socket) {
  int32_t fd = -7;
  EXPECT_EQ(0u, OPL_SocketGetNativeSocket(socket, &fd));
  return fd;
}

inline void SendText(OPL_Socket* socket, const std::string& text) {
  uint32_t sent = 0;
  EXPECT_EQ(0u, OPL_SocketSend(socket, &sent, text.data(), static_cast<uint32_t>(text.size())));
  EXPECT_EQ(text.size(), sent);
}

// What one receive yields; empty when the peer has closed.
inline std::string ReceiveText(OPL_Socket* socket, uint32_t most = 256) {
  std::string text(most, '?');
  uint32_t received = 0;
  EXPECT_EQ(0u, OPL_SocketReceive(socket, &received, text.data(), most));
  text.resize(received);
  return text;
}

// Receives until that many bytes are there, or the peer closes.
inline std::string ReceiveAll(OPL_Socket* socket, size_t most) {
  std::string text;
  while (text.size() < most) {
    const std::string piece = ReceiveText(socket, static_cast<uint32_t>(most - text.size()));
    if (piece.empty()) break;
    text += piece;
  }
  return text;
}

}  // namespace opltest

#endif
