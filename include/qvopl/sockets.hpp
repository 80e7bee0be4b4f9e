/*
 * Sockets and their addresses.
 *
 * Unlike those of the C interface, the ports and IPv4 addresses here are in the machine's own byte order.
 *
 * Sending to a peer that is gone raises SIGPIPE, which ends a process that neither ignores nor handles it:
 * see Socket::IgnoreBrokenPipes.
 */
#ifndef QVOPL_SOCKETS_HPP
#define QVOPL_SOCKETS_HPP

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <optional>
#include <utility>

#include "../OPL_Sig.h"
#include "../OPL_Socket.h"
#include "events.hpp"
#include "handle.hpp"

namespace qvopl {

/** An address: an IPv4 address and a port, or the path of a local socket. */
class [[nodiscard]] Address : public Handle<OPL_SocketAddress, OPL_SocketAddressDestroy> {
 public:
  using Handle::Handle;

  /** A packed address, which another process of the machine unpacks, whatever its width. */
  using Packed = std::array<std::byte, OPL_SOCKET_ADDRESS_PACKED_SIZE>;

  /** An address of no family, to be filled. */
  static Result<Address> Create(std::nothrow_t) noexcept {
    return detail::Make<Address, OPL_SocketAddress>(OPL_SocketAddressCreate, 0U);
  }
  /** An IPv4 address such as "127.0.0.1", and a port. */
  static Result<Address> Inet(std::nothrow_t, Text address, uint16_t port) noexcept {
    return Filled([&](OPL_SocketAddress* made) {
      return OPL_SocketAddressInetStringSet(made, htons(port), address.c_str());
    });
  }
  /** An IPv4 address as a number (INADDR_LOOPBACK, INADDR_ANY), and a port. */
  static Result<Address> Inet(std::nothrow_t, uint32_t address, uint16_t port) noexcept {
    return Filled([&](OPL_SocketAddress* made) {
      return OPL_SocketAddressInetULongSet(made, htons(port), htonl(address));
    });
  }
  /** The address of a local socket of this instance; the name becomes part of a path in the IPC directory. */
  static Result<Address> Local(std::nothrow_t, Text name) noexcept {
    return Filled([&](OPL_SocketAddress* made) { return OPL_SocketAddressUnixSet(made, name.c_str()); });
  }
  /** What another process has packed. */
  static Result<Address> Unpack(std::nothrow_t, const Packed& packed) noexcept {
    return Filled([&](OPL_SocketAddress* made) {
      return OPL_SocketAddressPackedAddrFill(made, packed.data(), static_cast<uint32_t>(packed.size()));
    });
  }
  /** Another address of the same value. */
  [[nodiscard]] Result<Address> Copy(std::nothrow_t) const noexcept {
    return Filled([&](OPL_SocketAddress* made) { return OPL_SocketAddressCopy(native(), made); });
  }

  /** The port; fails unless it is an IPv4 address. */
  Result<uint16_t> Port(std::nothrow_t) const noexcept {
    const Result<uint32_t> port = detail::Tell<uint32_t>(OPL_SocketAddressInetGetPort, native());
    if (!port) return Result<uint16_t>::Failure(port.code());
    return ntohs(static_cast<uint16_t>(*port));
  }
  /** The IPv4 address as text; fails where it is none. */
  Result<FixedText<OPL_SOCKET_INET_TEXT_SIZE>> InetText(std::nothrow_t) const noexcept {
    FixedText<OPL_SOCKET_INET_TEXT_SIZE> text;
    uint32_t port = 0;
    const OPL_Result code = OPL_SocketAddressInetStringGet(native(), &port, text.buffer());
    if (code != OPL_OK) return Result<FixedText<OPL_SOCKET_INET_TEXT_SIZE>>::Failure(code);
    return text;
  }
  /** The path of a local socket. */
  Result<FixedText<OPL_SOCKET_PATH_SIZE>> Path(std::nothrow_t) const noexcept {
    FixedText<OPL_SOCKET_PATH_SIZE> path;
    const OPL_Result code = OPL_SocketAddressUnixGet(native(), path.buffer());
    if (code != OPL_OK) return Result<FixedText<OPL_SOCKET_PATH_SIZE>>::Failure(code);
    return path;
  }
  /** Whether both are the same IPv4 address, whatever their ports, or the same path. */
  Result<bool> IsSameHost(std::nothrow_t, const Address& other) const noexcept {
    return detail::TellWhether(OPL_SocketAddressCompare, native(), other.native());
  }
  /** The address for another process of the machine. */
  Result<Packed> Pack(std::nothrow_t) const noexcept {
    Packed packed;
    const OPL_Result code =
        OPL_SocketAddressPackedBufferFill(native(), packed.data(), static_cast<uint32_t>(packed.size()));
    if (code != OPL_OK) return Result<Packed>::Failure(code);
    return packed;
  }

#if QVOPL_EXCEPTIONS
  /** An address of no family; throws an Error. */
  static Address Create() { return Create(std::nothrow).value(); }
  /** An IPv4 address as text, and a port; throws an Error. */
  static Address Inet(Text address, uint16_t port) { return Inet(std::nothrow, address, port).value(); }
  /** An IPv4 address as a number, and a port; throws an Error. */
  static Address Inet(uint32_t address, uint16_t port) { return Inet(std::nothrow, address, port).value(); }
  /** The address of a local socket of this instance; throws an Error. */
  static Address Local(Text name) { return Local(std::nothrow, name).value(); }
  /** What another process has packed; throws an Error. */
  static Address Unpack(const Packed& packed) { return Unpack(std::nothrow, packed).value(); }
  /** Another address of the same value; throws an Error. */
  [[nodiscard]] Address Copy() const { return Copy(std::nothrow).value(); }
  /** The port; throws an Error. */
  [[nodiscard]] uint16_t Port() const { return Port(std::nothrow).value(); }
  /** The IPv4 address as text; throws an Error. */
  [[nodiscard]] FixedText<OPL_SOCKET_INET_TEXT_SIZE> InetText() const {
    return InetText(std::nothrow).value();
  }
  /** The path of a local socket; throws an Error. */
  [[nodiscard]] FixedText<OPL_SOCKET_PATH_SIZE> Path() const { return Path(std::nothrow).value(); }
  /** Whether both are the same host or path; throws an Error. */
  [[nodiscard]] bool IsSameHost(const Address& other) const {
    return IsSameHost(std::nothrow, other).value();
  }
  /** The address for another process of the machine; throws an Error. */
  [[nodiscard]] Packed Pack() const { return Pack(std::nothrow).value(); }
#endif

 private:
  template <typename Fill>
  static Result<Address> Filled(Fill fill) noexcept {
    Result<Address> address = Create(std::nothrow);
    if (!address) return address;
    if (const OPL_Result code = fill(address->native()); code != OPL_OK)
      return Result<Address>::Failure(code);
    return address;
  }
};

/** Where a socket's peers are. */
enum class Family : uint8_t {
  kInet = OPL_SOCKET_INET,  /**< IPv4 */
  kLocal = OPL_SOCKET_LOCAL /**< the local machine, by a path */
};

/** What a socket carries. */
enum class Kind : uint8_t {
  kStream = OPL_SOCKET_STREAM,    /**< a connection of bytes */
  kDatagram = OPL_SOCKET_DATAGRAM /**< messages */
};

/** What Shutdown stops. */
enum class Direction : uint8_t {
  kReceive = OPL_SOCKET_SHUTDOWN_RECEIVE, /**< receiving */
  kSend = OPL_SOCKET_SHUTDOWN_SEND,       /**< sending */
  kBoth = OPL_SOCKET_SHUTDOWN_BOTH        /**< both */
};

/**
 * A socket: one descriptor, closed at the end of its life together with the file that its own Bind has made.
 * One thread may receive while another sends; all else is for one thread at a time.
 *
 * On a socket that does not block, what would wait fails with std::errc::operation_would_block: the forms
 * that do not throw are meant for those.
 */
class [[nodiscard]] Socket : public Handle<OPL_Socket, OPL_SocketDestroy> {
 public:
  using Handle::Handle;

  /** Makes a socket. */
  static Result<Socket> Open(std::nothrow_t, Family family, Kind kind = Kind::kStream) noexcept {
    return Made([&](OPL_Socket* made) {
      return OPL_SocketOpen(made, static_cast<uint32_t>(family), static_cast<uint32_t>(kind), 0);
    });
  }
  /** Takes a descriptor over, unless it fails. */
  static Result<Socket> Adopt(std::nothrow_t, int descriptor) noexcept {
    return Made([&](OPL_Socket* made) { return OPL_SocketSetNativeSocket(made, descriptor); });
  }
  /** Makes two local datagram sockets that are connected with each other. */
  static Result<std::pair<Socket, Socket>> Pair(std::nothrow_t) noexcept {
    OPL_Socket* pair[2] = {nullptr, nullptr};
    if (const OPL_Result code = OPL_SocketPairCreate(pair, 0); code != OPL_OK)
      return Result<std::pair<Socket, Socket>>::Failure(code);
    return std::pair<Socket, Socket>(Socket(pair[0]), Socket(pair[1]));
  }
  /** Makes a socket that listens at an address: a stream of the family that the address is of. */
  static Result<Socket> Listen(std::nothrow_t, Family family, const Address& address,
                               uint32_t backlog = SOMAXCONN) noexcept {
    Result<Socket> socket = Open(std::nothrow, family);
    if (!socket) return socket;
    if (const Result<void> rc = socket->Bind(std::nothrow, address); !rc) return Failed(rc);
    if (const Result<void> rc = socket->Listen(std::nothrow, backlog); !rc) return Failed(rc);
    return socket;
  }
  /** Makes a socket that is connected to an address. */
  static Result<Socket> Connect(std::nothrow_t, Family family, const Address& address,
                                Kind kind = Kind::kStream) noexcept {
    Result<Socket> socket = Open(std::nothrow, family, kind);
    if (!socket) return socket;
    if (const Result<void> rc = socket->Connect(std::nothrow, address); !rc) return Failed(rc);
    return socket;
  }
  /** Lets sending to a peer that is gone fail instead of ending the process; holds for all of the process. */
  static Result<void> IgnoreBrokenPipes(std::nothrow_t) noexcept {
    return OPL_SigSignal(0, SIGPIPE, SIG_IGN, nullptr);
  }

  /** Takes an address. A local socket's file must not exist yet. */
  Result<void> Bind(std::nothrow_t, const Address& address) noexcept {
    return OPL_SocketBind(native(), address.native());
  }
  /** Lets peers connect. */
  Result<void> Listen(std::nothrow_t, uint32_t backlog = SOMAXCONN) noexcept {
    return OPL_SocketListen(native(), backlog);
  }
  /** Accepts a connection; the peer's address goes where it is asked for. */
  Result<Socket> Accept(std::nothrow_t, Address* peer = nullptr) noexcept {
    return Made([&](OPL_Socket* made) {
      return OPL_SocketAccept(native(), made, peer != nullptr ? peer->native() : nullptr);
    });
  }
  /** Connects to an address. */
  Result<void> Connect(std::nothrow_t, const Address& address) noexcept {
    return OPL_SocketConnect(native(), address.native());
  }
  /** Sends once, and tells how many bytes, possibly fewer. */
  Result<std::size_t> Send(std::nothrow_t, ConstBytes bytes) noexcept {
    uint32_t sent = 0;
    const OPL_Result code = OPL_SocketSend(native(), &sent, bytes.data(), Limited(bytes.size()));
    if (code != OPL_OK) return Result<std::size_t>::Failure(code);
    return static_cast<std::size_t>(sent);
  }
  /** Sends all bytes, whatever signals come. After a failure an unknown number of them has been sent. */
  Result<void> SendAll(std::nothrow_t, ConstBytes bytes) noexcept {
    while (bytes.size() != 0) {
      const Result<std::size_t> sent = Send(std::nothrow, bytes);
      if (sent)
        bytes = bytes.Behind(*sent);
      else if (sent.systemError() != EINTR)
        return sent.code();
    }
    return OPL_OK;
  }
  /** Receives once, and tells how many bytes; 0 when the peer of a stream has closed, or for an empty
   * message. */
  Result<std::size_t> Receive(std::nothrow_t, Bytes bytes) noexcept {
    uint32_t received = 0;
    const OPL_Result code = OPL_SocketReceive(native(), &received, bytes.data(), Limited(bytes.size()));
    if (code != OPL_OK) return Result<std::size_t>::Failure(code);
    return static_cast<std::size_t>(received);
  }
  /** Receives a stream until the bytes are full or the peer has closed; tells how many, fewer for the latter.
   */
  Result<std::size_t> ReceiveAll(std::nothrow_t, Bytes bytes) noexcept {
    std::size_t received = 0;
    while (received != bytes.size()) {
      const Bytes rest(static_cast<char*>(bytes.data()) + received, bytes.size() - received);
      const Result<std::size_t> more = Receive(std::nothrow, rest);
      if (!more) return more;
      if (*more == 0) break;
      received += *more;
    }
    return received;
  }
  /** Sends a message as the system's sendmsg does, with descriptors and all. */
  Result<void> SendMessage(std::nothrow_t, const msghdr& message, int flags = 0) noexcept {
    return OPL_SocketMessageSend(native(), &message, static_cast<uint32_t>(flags));
  }
  /** Receives a message as recvmsg does; tells the bytes, or nothing when it failed, errno telling why. */
  [[nodiscard]] std::optional<std::size_t> ReceiveMessage(msghdr& message, int flags = 0) noexcept {
    uint32_t received = UINT32_MAX;
    const OPL_Result code =
        OPL_SocketMessageReceive(native(), &message, static_cast<uint32_t>(flags), &received);
    if (code != OPL_OK || received == UINT32_MAX) return std::nullopt;
    return received;
  }
  /** Stops receiving, sending or both. */
  Result<void> Shutdown(std::nothrow_t, Direction direction = Direction::kBoth) noexcept {
    return OPL_SocketShutdown(native(), static_cast<uint32_t>(direction));
  }
  /** Lets the calls on the socket wait, or fail where they would. */
  Result<void> SetBlocking(std::nothrow_t, bool isBlocking) noexcept {
    return OPL_SocketNonBlockingSet(native(), isBlocking ? OPL_SOCKET_BLOCKING : OPL_SOCKET_NON_BLOCKING);
  }
  /** Probes an idle connection. */
  Result<void> SetKeepAlive(std::nothrow_t, bool isOn) noexcept {
    return SetOption(OPL_SOCKET_OPTION_KEEP_ALIVE, isOn ? 1 : 0);
  }
  /** Lets Bind take an address in its time of waiting. */
  Result<void> SetReuseAddress(std::nothrow_t, bool isOn) noexcept {
    return SetOption(OPL_SOCKET_OPTION_REUSE_ADDRESS, isOn ? 1 : 0);
  }
  /** Sets the bytes of the send buffer. */
  Result<void> SetSendBuffer(std::nothrow_t, int sizeBytes) noexcept {
    return SetOption(OPL_SOCKET_OPTION_SEND_BUFFER, sizeBytes);
  }
  /** Sets the bytes of the receive buffer. */
  Result<void> SetReceiveBuffer(std::nothrow_t, int sizeBytes) noexcept {
    return SetOption(OPL_SOCKET_OPTION_RECEIVE_BUFFER, sizeBytes);
  }
  /** Lets a close wait for unsent data, that long at most; 0 throws them away. */
  Result<void> SetLinger(std::nothrow_t, std::chrono::seconds longest) noexcept {
    return SetOption(OPL_SOCKET_OPTION_LINGER, ::linger{1, detail::WholeSeconds(longest)});
  }
  /** The socket's own address. */
  Result<Address> LocalAddress(std::nothrow_t) const noexcept { return AddressBy(OPL_SocketAddressGet); }
  /** The peer's address. */
  Result<Address> PeerAddress(std::nothrow_t) const noexcept { return AddressBy(OPL_SocketPeerAddressGet); }
  /** Whether the connection still stands: no send has failed or met a signal, and the peer has not closed. */
  Result<bool> IsAlive(std::nothrow_t) noexcept {
    return detail::TellWhether(OPL_SocketIsConnectionAlive, native());
  }
  /** The descriptor; it stays the socket's. -1 where there is none. */
  [[nodiscard]] int descriptor() const noexcept {
    int32_t descriptor = -1;
    if (native() != nullptr) (void)OPL_SocketGetNativeSocket(native(), &descriptor);
    return descriptor;
  }
  /** Ends the socket and leaves its file to the process that has bound it: for a forked child. */
  Result<void> Leave(std::nothrow_t) noexcept {
    OPL_Socket* record = Release();
    const OPL_Result code = OPL_SocketDestroyLite(&record);
    // As a Close that fails, it changes nothing.
    *this = Socket(record);
    return code;
  }

#if QVOPL_EXCEPTIONS
  /** Makes a socket; throws an Error. */
  static Socket Open(Family family, Kind kind = Kind::kStream) {
    return Open(std::nothrow, family, kind).value();
  }
  /** Takes a descriptor over; throws an Error. */
  static Socket Adopt(int descriptor) { return Adopt(std::nothrow, descriptor).value(); }
  /** Makes two local datagram sockets that are connected with each other; throws an Error. */
  [[nodiscard]] static std::pair<Socket, Socket> Pair() { return Pair(std::nothrow).value(); }
  /** Makes a socket that listens at an address; throws an Error. */
  static Socket Listen(Family family, const Address& address, uint32_t backlog = SOMAXCONN) {
    return Listen(std::nothrow, family, address, backlog).value();
  }
  /** Makes a socket that is connected to an address; throws an Error. */
  static Socket Connect(Family family, const Address& address, Kind kind = Kind::kStream) {
    return Connect(std::nothrow, family, address, kind).value();
  }
  /** See above; throws an Error. */
  static void IgnoreBrokenPipes() { IgnoreBrokenPipes(std::nothrow).value(); }
  /** Takes an address; throws an Error. */
  void Bind(const Address& address) { Bind(std::nothrow, address).value(); }
  /** Lets peers connect; throws an Error. */
  void Listen(uint32_t backlog = SOMAXCONN) { Listen(std::nothrow, backlog).value(); }
  /** Accepts a connection; throws an Error. */
  Socket Accept(Address* peer = nullptr) { return Accept(std::nothrow, peer).value(); }
  /** Connects to an address; throws an Error. */
  void Connect(const Address& address) { Connect(std::nothrow, address).value(); }
  /** Sends once, and tells how many bytes; throws an Error. */
  [[nodiscard]] std::size_t Send(ConstBytes bytes) { return Send(std::nothrow, bytes).value(); }
  /** Sends all bytes; throws an Error. */
  void SendAll(ConstBytes bytes) { SendAll(std::nothrow, bytes).value(); }
  /** Receives once, and tells how many bytes; throws an Error. */
  [[nodiscard]] std::size_t Receive(Bytes bytes) { return Receive(std::nothrow, bytes).value(); }
  /** Receives until the bytes are full or the peer has closed; throws an Error. */
  [[nodiscard]] std::size_t ReceiveAll(Bytes bytes) { return ReceiveAll(std::nothrow, bytes).value(); }
  /** Sends a message as sendmsg does; throws an Error. */
  void SendMessage(const msghdr& message, int flags = 0) {
    SendMessage(std::nothrow, message, flags).value();
  }
  /** Stops receiving, sending or both; throws an Error. */
  void Shutdown(Direction direction = Direction::kBoth) { Shutdown(std::nothrow, direction).value(); }
  /** Lets the calls on the socket wait, or fail where they would; throws an Error. */
  void SetBlocking(bool isBlocking) { SetBlocking(std::nothrow, isBlocking).value(); }
  /** Probes an idle connection; throws an Error. */
  void SetKeepAlive(bool isOn) { SetKeepAlive(std::nothrow, isOn).value(); }
  /** Lets Bind take an address in its time of waiting; throws an Error. */
  void SetReuseAddress(bool isOn) { SetReuseAddress(std::nothrow, isOn).value(); }
  /** Sets the bytes of the send buffer; throws an Error. */
  void SetSendBuffer(int sizeBytes) { SetSendBuffer(std::nothrow, sizeBytes).value(); }
  /** Sets the bytes of the receive buffer; throws an Error. */
  void SetReceiveBuffer(int sizeBytes) { SetReceiveBuffer(std::nothrow, sizeBytes).value(); }
  /** Lets a close wait for unsent data, that long at most; throws an Error. */
  void SetLinger(std::chrono::seconds longest) { SetLinger(std::nothrow, longest).value(); }
  /** The socket's own address; throws an Error. */
  [[nodiscard]] Address LocalAddress() const { return LocalAddress(std::nothrow).value(); }
  /** The peer's address; throws an Error. */
  [[nodiscard]] Address PeerAddress() const { return PeerAddress(std::nothrow).value(); }
  /** Whether the connection still stands; throws an Error. */
  [[nodiscard]] bool IsAlive() { return IsAlive(std::nothrow).value(); }
  /** Ends the socket and leaves its file; throws an Error. */
  void Leave() { Leave(std::nothrow).value(); }
#endif

 private:
  static Result<Socket> Failed(Result<void> rc) noexcept { return Result<Socket>::Failure(rc.code()); }

  // Fewer than asked for may be sent or received in any case.
  static uint32_t Limited(std::size_t size) noexcept {
    return static_cast<uint32_t>(size < UINT32_MAX ? size : UINT32_MAX);
  }

  template <typename Fill>
  static Result<Socket> Made(Fill fill) noexcept {
    OPL_Socket* record = nullptr;
    if (const OPL_Result code = OPL_SocketCreate(&record, 0); code != OPL_OK)
      return Result<Socket>::Failure(code);
    Socket socket(record);
    if (const OPL_Result code = fill(record); code != OPL_OK) return Result<Socket>::Failure(code);
    return socket;
  }

  template <typename Value>
  Result<void> SetOption(uint32_t option, Value value) noexcept {
    return OPL_SocketSetOption(native(), option, &value, sizeof value);
  }

  // A path is told whole only to an address that is a local socket's already.
  Result<Address> AddressBy(OPL_Result (*get)(OPL_Socket*, OPL_SocketAddress*)) const noexcept {
    int domain = AF_UNSPEC;
    socklen_t size = sizeof domain;
    (void)::getsockopt(descriptor(), SOL_SOCKET, SO_DOMAIN, &domain, &size);
    Result<Address> address =
        domain == AF_UNIX ? Address::Local(std::nothrow, "") : Address::Create(std::nothrow);
    if (!address) return address;
    if (const OPL_Result code = get(native(), address->native()); code != OPL_OK)
      return Result<Address>::Failure(code);
    return address;
  }
};

inline Result<WaitSet::Member> WaitSet::Add(std::nothrow_t, const Socket& socket, Until until) noexcept {
  return AddMade([&](OPL_SyncWaitableEvent** wait) noexcept {
    const OPL_Result code = OPL_SocketWaitableEventCreate(socket.native(), wait, 0);
    if (code != OPL_OK) return code;
    return OPL_SocketWaitableEventSet(socket.native(), *wait,
                                      Bits(until, OPL_SOCKET_NOTIFY_READ, OPL_SOCKET_NOTIFY_WRITE));
  });
}

}  // namespace qvopl

#endif
