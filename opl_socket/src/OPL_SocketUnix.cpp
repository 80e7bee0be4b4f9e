// Sockets: checked wrappers of the system's calls that remember the file of a bound local socket.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_File.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_socket/src/Socket.h"
#include "opl_socket/src/SocketAddress.h"

namespace {

using opl::Caller;
using opl::Check;
using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr int kNoDescriptor = -1;

// Arguments of the interface and the system's constants for them; what is not listed has a value of its own.
struct Choice {
  uint32_t argument;
  int32_t system;
};
constexpr Choice kFamilies[] = {{OPL_SOCKET_INET, AF_INET}, {OPL_SOCKET_LOCAL, AF_UNIX}};
constexpr Choice kTypes[] = {{OPL_SOCKET_STREAM, SOCK_STREAM}, {OPL_SOCKET_DATAGRAM, SOCK_DGRAM}};
constexpr Choice kShutdowns[] = {{OPL_SOCKET_SHUTDOWN_RECEIVE, SHUT_RD},
                                 {OPL_SOCKET_SHUTDOWN_SEND, SHUT_WR},
                                 {OPL_SOCKET_SHUTDOWN_BOTH, SHUT_RDWR}};
constexpr Choice kOptions[] = {{OPL_SOCKET_OPTION_LINGER, SO_LINGER},
                               {OPL_SOCKET_OPTION_KEEP_ALIVE, SO_KEEPALIVE},
                               {OPL_SOCKET_OPTION_REUSE_ADDRESS, SO_REUSEADDR},
                               {OPL_SOCKET_OPTION_SEND_BUFFER, SO_SNDBUF},
                               {OPL_SOCKET_OPTION_RECEIVE_BUFFER, SO_RCVBUF}};
constexpr int32_t kNoType = 0;
constexpr int32_t kNoOption = -1;

template <size_t kCount>
int32_t SystemValue(const Choice (&table)[kCount], uint32_t argument, int32_t otherwise) {
  for (const Choice& choice : table)
    if (choice.argument == argument) return choice.system;
  return otherwise;
}

[[nodiscard]] Code CheckHandle(OPL_Socket** ppSocket, const char* caller = __builtin_FUNCTION()) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppSocket == nullptr) return Fail(Caller{caller}, OPL_SOCKET_E_NULL_ARGUMENT, "%s: ppSocket is NULL");
  return OPL_OK;
}

[[nodiscard]] Code CheckAddress(const OPL_SocketAddress* address, const char* caller = __builtin_FUNCTION()) {
  if (address != nullptr) return OPL_OK;
  return Fail(Caller{caller}, OPL_SOCKET_E_NULL_ARGUMENT, "%s: pAddr is NULL");
}

[[nodiscard]] Code CheckNaming(const OPL_Socket* socket, const OPL_SocketAddress* address,
                               const char* caller = __builtin_FUNCTION()) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const Caller name{caller};
  if (socket == nullptr) return Fail(name, OPL_SOCKET_E_NULL_ARGUMENT, "%s: hSocket is NULL");
  if (address == nullptr) return Fail(name, OPL_SOCKET_E_NULL_ARGUMENT, "%s: hAddr is NULL");
  return OPL_OK;
}

// The system tells a length of its own, more than it had room for, or less: nothing of what the address was
// before stays behind it.
void ClearBehind(OPL_SocketAddress* address, socklen_t given, socklen_t told) {
  const size_t length = std::min(given, told);
  std::memset(reinterpret_cast<char*>(address) + length, 0, sizeof *address - length);
}

bool IsPathWhole(const OPL_SocketAddress& address) {
  return ::strnlen(address.local.path, OPL_SOCKET_PATH_SIZE) <= OPL_SOCKET_PATH_MAX;
}

bool IdentifyFile(const char* path, opl::FileIdentity* identity) {
  struct statx status {};
  if (::statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status) == -1) return false;
  *identity = {status.stx_dev_major, status.stx_dev_minor, status.stx_ino, status.stx_btime.tv_sec,
               status.stx_btime.tv_nsec};
  return true;
}

// The file belongs to the record that has made it, and only to it: the name may stand for another socket's by
// the time of the close.
void RememberFile(OPL_Socket* socket, const char* path) {
  if (IdentifyFile(path, &socket->boundFile)) opl::CopyText(socket->boundPath, path);
}

// Before the descriptor is closed, which keeps the file's number from being given to another.
void RemoveFile(OPL_Socket* socket) {
  if (socket->family == opl::kLocalFamily && socket->boundPath[0] != '\0') {
    opl::FileIdentity found{};
    if (IdentifyFile(socket->boundPath, &found) && found == socket->boundFile)
      (void)::unlink(socket->boundPath);
  }
  socket->boundPath[0] = '\0';
}

void CloseDescriptor(OPL_Socket* socket) {
  if (socket->descriptor != kNoDescriptor) (void)::close(socket->descriptor);
  socket->descriptor = kNoDescriptor;
}

// A connection whose peer has closed or reset it is readable, and there is nothing to read.
bool HasEnded(int descriptor) {
  char byte = 0;
  const ssize_t peeked = ::recv(descriptor, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
  return peeked == 0 || (peeked == -1 && errno != EAGAIN);
}

Code Probe(OPL_Socket* socket, bool* isAlive) {
  OPL_Socket* sockets[] = {socket, nullptr};
  uint32_t isReadable = 0;
  const uint32_t noWait = 0;
  const Code rc = OPL_SocketSelect(0, sockets, nullptr, nullptr, &isReadable, nullptr, nullptr, &noWait);
  *isAlive =
      rc == OPL_SOCKET_E_TIMEOUT || (rc == OPL_OK && (isReadable == 0 || !HasEnded(socket->descriptor)));
  return opl::Translate(rc, OPL_SOCKET_E_TIMEOUT, OPL_OK);
}

}  // namespace

namespace opl {

Code CheckSocket(const OPL_Socket* socket, const char* caller) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (socket == nullptr) return Fail(Caller{caller}, OPL_SOCKET_E_NULL_ARGUMENT, "%s: pSocket is NULL");
  return OPL_OK;
}

}  // namespace opl

OPL_Result OPL_SocketBegin() { return OPL_InitIsStopped(0); }

OPL_Result OPL_SocketEnd() { return OPL_InitIsStopped(0); }

OPL_Result OPL_SocketCreate(OPL_Socket** ppSocket, uint32_t mode) {
  if (const Code rc = CheckHandle(ppSocket)) return rc;
  if (mode != 0) return Fail(OPL_SOCKET_E_INVALID_MODE, "%s: Invalid Mode ");
  opl::Owned<OPL_Socket> socket = opl::Allocate<OPL_Socket>();
  if (socket == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SOCKET_E_NO_MEMORY, "%s: malloc error :%i", error.number());
  }
  socket->descriptor = kNoDescriptor;
  *ppSocket = socket.release();
  return OPL_OK;
}

OPL_Result OPL_SocketDuplicate(OPL_Socket** pNewSocket, const OPL_Socket* hSourceSocket) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pNewSocket == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pNewSocket is NULL");
  if (*pNewSocket != nullptr) return Fail(OPL_SOCKET_E_NOT_NULL, "%s: *pNewSocket is not NULL");
  // Deliberate: the check is the wrong way round, so that no socket is ever duplicated. A null source has no
  // descriptor, which the system then refuses.
  if (hSourceSocket != nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: hSourceSocket is NULL");

  OPL_Socket* copy = nullptr;
  if (const Code rc = OPL_SocketCreate(&copy, 0)) return rc;
  opl::Undo destroyCopy([&] { (void)OPL_SocketDestroy(&copy); });
  copy->descriptor = OPL_CrtDup(kNoDescriptor);
  if (const Code rc = Check(copy->descriptor, OPL_SOCKET_E_DUPLICATE, "%s: dup :%i,%s")) return rc;
  destroyCopy.Keep();
  *pNewSocket = copy;
  return OPL_OK;
}

OPL_Result OPL_SocketOpen(OPL_Socket* hSocket, uint32_t family, uint32_t type, uint32_t protocol) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  const auto known = static_cast<int32_t>(hSocket->family);
  hSocket->family = static_cast<uint32_t>(SystemValue(kFamilies, family, known));
  const int32_t descriptor =
      OPL_CrtSocket(static_cast<int32_t>(hSocket->family), SystemValue(kTypes, type, kNoType),
                    static_cast<int32_t>(protocol));
  if (const Code rc = Check(descriptor, OPL_SOCKET_E_OPEN, "%s: socket :%i,%s")) return rc;
  hSocket->descriptor = descriptor;
  return OPL_OK;
}

OPL_Result OPL_SocketSetNativeSocket(OPL_Socket* hSocket, int32_t nativeSocket) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  CloseDescriptor(hSocket);
  hSocket->descriptor = nativeSocket;
  return OPL_OK;
}

OPL_Result OPL_SocketGetNativeSocket(OPL_Socket* hSocket, int32_t* pNativeSocket) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (pNativeSocket == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pNativeSocket is NULL");
  *pNativeSocket = hSocket->descriptor;
  return OPL_OK;
}

OPL_Result OPL_SocketClose(OPL_Socket* hSocket) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  RemoveFile(hSocket);
  CloseDescriptor(hSocket);
  return OPL_OK;
}

OPL_Result OPL_SocketDestroy(OPL_Socket** ppSocket) {
  if (const Code rc = CheckHandle(ppSocket)) return rc;
  if (*ppSocket != nullptr && (*ppSocket)->descriptor != kNoDescriptor) RemoveFile(*ppSocket);
  return OPL_SocketDestroyLite(ppSocket);
}

OPL_Result OPL_SocketDestroyLite(OPL_Socket** ppSocket) {
  if (const Code rc = CheckHandle(ppSocket)) return rc;
  if (*ppSocket != nullptr) CloseDescriptor(*ppSocket);
  opl::Free(*ppSocket);
  *ppSocket = nullptr;
  return OPL_OK;
}

OPL_Result OPL_SocketReceive(OPL_Socket* hSocket, uint32_t* pSizeRead, void* buffer, uint32_t length) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (pSizeRead == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pSizeRead is NULL");
  if (buffer == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pBuffer is NULL");
  const ssize_t received = opl::RetryOnEintr([&] { return ::recv(hSocket->descriptor, buffer, length, 0); });
  if (received != -1) {
    *pSizeRead = static_cast<uint32_t>(received);
    return OPL_OK;
  }
  const NativeError error;
  switch (error.number()) {
    case EAGAIN:
      return OPL_SOCKET_E_WOULD_BLOCK;
    case EPIPE:
      return Fail(error, OPL_SOCKET_E_BROKEN_PIPE, "%s: %s.", error.text());
    case ECONNRESET:
      return Fail(error, OPL_SOCKET_E_RESET, "%s: %s", error.text());
    case ETIMEDOUT:
      return Fail(error, OPL_SOCKET_E_TIMEOUT, "%s: %s.", error.text());
    default:
      return Fail(error, OPL_SOCKET_E_RECEIVE, "%s: recv :%i,%s", error.number(), error.text());
  }
}

OPL_Result OPL_SocketSend(OPL_Socket* hSocket, uint32_t* pSizeWritten, const void* buffer, uint32_t length) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (pSizeWritten == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pSizeWritten is NULL");
  if (buffer == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pBuffer is NULL");
  const ssize_t sent = ::send(hSocket->descriptor, buffer, length, 0);
  if (sent != -1) {
    *pSizeWritten = static_cast<uint32_t>(sent);
    return OPL_OK;
  }
  const NativeError error;
  if (error.number() == EAGAIN) return OPL_SOCKET_E_WOULD_BLOCK;
  std::atomic_ref(hSocket->lastSendError).store(OPL_SOCKET_E_SEND, std::memory_order_relaxed);
  return Fail(error, OPL_SOCKET_E_SEND, "%s: send :%i,%s", error.number(), error.text());
}

OPL_Result OPL_SocketAccept(OPL_Socket* hSocket, OPL_Socket* hAccepted, OPL_SocketAddress* hAddress) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (hAccepted == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pAcceptedSocket is NULL");
  socklen_t length = sizeof *hAddress;
  hAccepted->descriptor = hAddress == nullptr
                              ? OPL_CrtAccept(hSocket->descriptor, nullptr, nullptr)
                              : OPL_CrtAccept(hSocket->descriptor, opl::SystemForm(hAddress), &length);
  if (const Code rc = Check(hAccepted->descriptor, OPL_SOCKET_E_ACCEPT, "%s: accept :%i,%s")) return rc;
  if (hAddress != nullptr) ClearBehind(hAddress, sizeof *hAddress, length);
  return OPL_OK;
}

OPL_Result OPL_SocketListen(OPL_Socket* hSocket, uint32_t backlog) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  return Check(::listen(hSocket->descriptor, static_cast<int>(backlog)), OPL_SOCKET_E_LISTEN,
               "%s: Listen :%i,%s");
}

OPL_Result OPL_SocketBind(OPL_Socket* hSocket, const OPL_SocketAddress* hAddress) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (const Code rc = CheckAddress(hAddress)) return rc;
  const bool isLocal = hAddress->family == opl::kLocalFamily;
  if (isLocal && !IsPathWhole(*hAddress)) return Fail(OPL_SOCKET_E_BAD_ADDRESS, "%s: Address invalid.");
  const int result = ::bind(hSocket->descriptor, opl::SystemForm(hAddress), opl::SystemLengthOf(*hAddress));
  if (const Code rc = Check(result, OPL_SOCKET_E_BIND, "%s: bind :%i,%s")) return rc;
  if (isLocal) RememberFile(hSocket, hAddress->local.path);
  return OPL_OK;
}

OPL_Result OPL_SocketConnect(OPL_Socket* hSocket, const OPL_SocketAddress* hAddress) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (const Code rc = CheckAddress(hAddress)) return rc;
  const int result =
      ::connect(hSocket->descriptor, opl::SystemForm(hAddress), opl::SystemLengthOf(*hAddress));
  if (result != -1) return OPL_OK;
  const NativeError error;
  switch (error.number()) {
    case EAFNOSUPPORT:
    case EADDRNOTAVAIL:
      return Fail(error, OPL_SOCKET_E_BAD_ADDRESS, "%s: Address invalid.");
    case ENETUNREACH:
      return Fail(error, OPL_SOCKET_E_UNREACHABLE, "%s: Network unreachable.");
    case ECONNREFUSED:
      return Fail(error, OPL_SOCKET_E_REFUSED, "%s: Connection refused.");
    case EINPROGRESS:
      return OPL_SOCKET_E_WOULD_BLOCK;
    default:
      return Fail(error, OPL_SOCKET_E_CONNECT, "%s: Connect :%i,%s", error.number(), error.text());
  }
}

OPL_Result OPL_SocketShutdown(OPL_Socket* hSocket, uint32_t how) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (::shutdown(hSocket->descriptor, SystemValue(kShutdowns, how, SHUT_RD)) != -1) return OPL_OK;
  const NativeError error;
  const bool isUnconnected = error.number() == EINVAL || error.number() == ENOTCONN;
  return Fail(error, isUnconnected ? OPL_SOCKET_E_NOT_CONNECTED : OPL_SOCKET_E_SHUTDOWN,
              "%s: Shutdown :%i,%s", error.number(), error.text());
}

OPL_Result OPL_SocketSetOption(OPL_Socket* hSocket, uint32_t option, const void* value, uint32_t length) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  const int32_t name = SystemValue(kOptions, option, kNoOption);
  if (name == kNoOption) return Fail(OPL_SOCKET_E_BAD_OPTION, "%s: Invalid Option");
  return Check(::setsockopt(hSocket->descriptor, SOL_SOCKET, name, value, length), OPL_SOCKET_E_SET_OPTION,
               "%s: setsockopt :%i,%s");
}

OPL_Result OPL_SocketNonBlockingSet(OPL_Socket* hSocket, uint32_t flag) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  int result = ::fcntl(hSocket->descriptor, F_GETFL);
  if (result != -1) {
    // Deliberate: 0 makes the socket non-blocking, against the function's name.
    const int flags = flag == OPL_SOCKET_NON_BLOCKING ? result | O_NONBLOCK : result & ~O_NONBLOCK;
    result = ::fcntl(hSocket->descriptor, F_SETFL, flags);
  }
  if (result != -1) return OPL_OK;
  // Deliberate: the number is the call's result, not the system's.
  const NativeError error(result);
  return Fail(error, OPL_SOCKET_E_NON_BLOCKING, "%s: fcntl error: %i,%s", error.number(), error.text());
}

OPL_Result OPL_SocketAddressGet(OPL_Socket* hSocket, OPL_SocketAddress* hAddress) {
  if (const Code rc = CheckNaming(hSocket, hAddress)) return rc;
  const socklen_t given = opl::SystemLengthOf(*hAddress);
  socklen_t told = given;
  const int result = ::getsockname(hSocket->descriptor, opl::SystemForm(hAddress), &told);
  if (const Code rc = Check(result, OPL_SOCKET_E_NO_ADDRESS, "%s: getsockname :%i,%s")) return rc;
  ClearBehind(hAddress, given, told);
  return OPL_OK;
}

OPL_Result OPL_SocketPeerAddressGet(OPL_Socket* hSocket, OPL_SocketAddress* hAddress) {
  if (const Code rc = CheckNaming(hSocket, hAddress)) return rc;
  const socklen_t given = opl::SystemLengthOf(*hAddress);
  socklen_t told = given;
  const int result = ::getpeername(hSocket->descriptor, opl::SystemForm(hAddress), &told);
  if (const Code rc = Check(result, OPL_SOCKET_E_NO_ADDRESS, "%s: getpeername :%i,%s")) return rc;
  ClearBehind(hAddress, given, told);
  return OPL_OK;
}

OPL_Result OPL_SocketPairCreate(OPL_Socket* pair[2], uint32_t mode) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pair == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pPair is NULL");
  pair[0] = nullptr;
  pair[1] = nullptr;
  opl::Undo destroyBoth([&] {
    (void)OPL_SocketDestroy(&pair[0]);
    (void)OPL_SocketDestroy(&pair[1]);
  });
  if (const Code rc = OPL_SocketCreate(&pair[0], mode)) return rc;
  if (const Code rc = OPL_SocketCreate(&pair[1], mode)) return rc;
  int32_t descriptors[2] = {kNoDescriptor, kNoDescriptor};
  const int32_t result = OPL_CrtSocketPair(AF_UNIX, SOCK_DGRAM, 0, descriptors);
  if (const Code rc = Check(result, OPL_SOCKET_E_PAIR, "%s: socketpair :%i,%s")) return rc;
  (void)OPL_SocketSetNativeSocket(pair[0], descriptors[0]);
  (void)OPL_SocketSetNativeSocket(pair[1], descriptors[1]);
  destroyBoth.Keep();
  return OPL_OK;
}

OPL_Result OPL_SocketMessageReceive(OPL_Socket* hSocket, struct msghdr* pMessage, uint32_t flags,
                                    uint32_t* pLength) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (pMessage == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pMsg is NULL");
  if (pLength == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pMessageLen is NULL");
  // Deliberate: a failure is told by the length alone.
  *pLength = static_cast<uint32_t>(::recvmsg(hSocket->descriptor, pMessage, static_cast<int>(flags)));
  return OPL_OK;
}

OPL_Result OPL_SocketMessageSend(OPL_Socket* hSocket, const struct msghdr* pMessage, uint32_t flags) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (pMessage == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pMsg is NULL");
  const ssize_t sent = ::sendmsg(hSocket->descriptor, pMessage, static_cast<int>(flags));
  return Check(sent < 0 ? -1 : 0, OPL_SOCKET_E_MESSAGE_SEND, "%s: sendmsg :%i,%s");
}

OPL_Result OPL_SocketIsConnectionAlive(OPL_Socket* hSocket, uint32_t* pIsAlive) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  bool isAlive = std::atomic_ref(hSocket->lastSendError).load(std::memory_order_relaxed) == OPL_OK;
  Code result = OPL_OK;
  if (isAlive) result = Probe(hSocket, &isAlive);
  if (pIsAlive != nullptr) *pIsAlive = isAlive ? 1 : 0;
  return result;
}

OPL_Result OPL_SocketTerminateIPC(uint32_t /*ignored*/, const char* pattern) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return opl::ForEachIpcFile(pattern, opl::kSocketMarker, opl::RemoveIpcFile);
}
