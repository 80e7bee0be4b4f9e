// Sending and receiving, over local connections and over TCP: against the system's calls, which the library
// hands on to, and beside APR's sockets.
#include <apr_general.h>
#include <apr_network_io.h>
#include <apr_pools.h>
#include <apr_portable.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "OPL_Socket.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Require;

constexpr double kTarget = 1.03;
constexpr size_t kBulk = 65536;

// Makes two connected descriptors.
void ConnectLocally(int (&ends)[2]) {
  Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
}

void ConnectByTcp(int (&ends)[2]) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  socklen_t length = sizeof address;
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Require(::bind(listener, any, length) == 0 && ::listen(listener, 1) == 0, "listen");
  Require(::getsockname(listener, any, &length) == 0, "getsockname");
  ends[0] = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Require(::connect(ends[0], any, length) == 0, "connect");
  ends[1] = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  Require(ends[1] != -1, "accept");
  (void)::close(listener);
  for (const int end : ends) {
    const int noDelay = 1;
    Require(::setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) == 0, "setsockopt");
  }
}

// One end of a connection. Close may be called by two processes that share it.
class OplEnd {
 public:
  explicit OplEnd(int descriptor) {
    Require(OPL_SocketCreate(&socket_, 0) == OPL_OK, "OPL_SocketCreate");
    Require(OPL_SocketSetNativeSocket(socket_, descriptor) == OPL_OK, "OPL_SocketSetNativeSocket");
  }
  ~OplEnd() { (void)OPL_SocketDestroy(&socket_); }
  OplEnd(const OplEnd&) = delete;
  OplEnd& operator=(const OplEnd&) = delete;

  void Send(const char* buffer, size_t length) {
    uint32_t sent = 0;
    Require(OPL_SocketSend(socket_, &sent, buffer, static_cast<uint32_t>(length)) == OPL_OK && sent == length,
            "OPL_SocketSend");
  }
  size_t Receive(char* buffer, size_t length) {
    uint32_t received = 0;
    Require(OPL_SocketReceive(socket_, &received, buffer, static_cast<uint32_t>(length)) == OPL_OK,
            "OPL_SocketReceive");
    return received;
  }
  void Close() { (void)OPL_SocketClose(socket_); }

 private:
  OPL_Socket* socket_ = nullptr;
};

class RawEnd {
 public:
  explicit RawEnd(int descriptor) : descriptor_(descriptor) {}
  ~RawEnd() { Close(); }
  RawEnd(const RawEnd&) = delete;
  RawEnd& operator=(const RawEnd&) = delete;

  void Send(const char* buffer, size_t length) {
    Require(::send(descriptor_, buffer, length, 0) == static_cast<ssize_t>(length), "send");
  }
  size_t Receive(char* buffer, size_t length) {
    const ssize_t received = ::recv(descriptor_, buffer, length, 0);
    Require(received != -1, "recv");
    return static_cast<size_t>(received);
  }
  void Close() {
    if (descriptor_ != -1) (void)::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_;
};

class AprEnd {
 public:
  explicit AprEnd(int descriptor) {
    Require(apr_initialize() == APR_SUCCESS, "apr_initialize");
    Require(apr_pool_create(&pool_, nullptr) == APR_SUCCESS, "apr_pool_create");
    Require(apr_os_sock_put(&socket_, &descriptor, pool_) == APR_SUCCESS, "apr_os_sock_put");
  }
  ~AprEnd() {
    Close();
    apr_pool_destroy(pool_);
    apr_terminate();
  }
  AprEnd(const AprEnd&) = delete;
  AprEnd& operator=(const AprEnd&) = delete;

  void Send(const char* buffer, size_t length) {
    apr_size_t sent = length;
    Require(apr_socket_send(socket_, buffer, &sent) == APR_SUCCESS && sent == length, "apr_socket_send");
  }
  size_t Receive(char* buffer, size_t length) {
    apr_size_t received = length;
    const apr_status_t status = apr_socket_recv(socket_, buffer, &received);
    Require(status == APR_SUCCESS || status == APR_EOF, "apr_socket_recv");
    return received;
  }
  void Close() {
    if (socket_ != nullptr) (void)apr_socket_close(socket_);
    socket_ = nullptr;
  }

 private:
  apr_pool_t* pool_ = nullptr;
  apr_socket_t* socket_ = nullptr;
};

using Connect = void (*)(int (&ends)[2]);

// There and back in one thread: what the calls take.
template <class End, Connect kConnect, size_t kLength>
void SendAndReceive(benchmark::State& state) {
  int ends[2];
  kConnect(ends);
  End near(ends[0]);
  End far(ends[1]);
  const std::vector<char> message(kLength);
  std::vector<char> buffer(kLength);
  for (auto _ : state) {
    near.Send(message.data(), kLength);
    for (size_t left = kLength; left != 0;) left -= far.Receive(buffer.data(), left);
  }
}

// There and back between two processes: what a caller waits for an answer.
template <class End, Connect kConnect>
void PingPong(benchmark::State& state) {
  int ends[2];
  kConnect(ends);
  End near(ends[0]);
  End far(ends[1]);
  char ball = 0;
  oplbench::Processes echo(1, [&](oplbench::Stint& stint) {
    near.Close();
    stint.Begin();
    while (far.Receive(&ball, sizeof ball) == sizeof ball) far.Send(&ball, sizeof ball);
  });
  far.Close();
  echo.Start();
  for (auto _ : state) {
    near.Send(&ball, sizeof ball);
    Require(near.Receive(&ball, sizeof ball) == sizeof ball, "the echo");
  }
  near.Close();
}

template <Connect kConnect, size_t kLength>
oplbench::Row TransferRow(const char* what) {
  return {what,
          SendAndReceive<OplEnd, kConnect, kLength>,
          {{"send, recv", SendAndReceive<RawEnd, kConnect, kLength>, kTarget},
           {"APR", SendAndReceive<AprEnd, kConnect, kLength>, 0}}};
}

template <Connect kConnect>
oplbench::Row PingPongRow(const char* what) {
  return {what,
          PingPong<OplEnd, kConnect>,
          {{"send, recv", PingPong<RawEnd, kConnect>, kTarget}, {"APR", PingPong<AprEnd, kConnect>, 0}},
          oplbench::Clock::kWall};
}

const oplbench::Row kLocalByte = TransferRow<ConnectLocally, 1>("socket: local, a byte");
const oplbench::Row kLocalBulk = TransferRow<ConnectLocally, kBulk>("socket: local, 64 KiB");
const oplbench::Row kLocalPingPong = PingPongRow<ConnectLocally>("socket: local, ping-pong");
const oplbench::Row kTcpByte = TransferRow<ConnectByTcp, 1>("socket: TCP, a byte");
const oplbench::Row kTcpBulk = TransferRow<ConnectByTcp, kBulk>("socket: TCP, 64 KiB");
const oplbench::Row kTcpPingPong = PingPongRow<ConnectByTcp>("socket: TCP, ping-pong");

}  // namespace
