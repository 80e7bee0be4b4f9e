// Socket addresses: records of 112 bytes that are their own packed form.
#include <arpa/inet.h>

#include <cstring>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/IpcName.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_socket/src/SocketAddress.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr uint32_t kPackedSize = OPL_SOCKET_ADDRESS_PACKED_SIZE;

// What every operation refuses before it looks at anything else.
[[nodiscard]] Code CheckCall(const OPL_SocketAddress* address, const char* caller = __builtin_FUNCTION()) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (address == nullptr) return Fail(Caller{caller}, OPL_SOCKET_E_NULL_ARGUMENT, "%s: hAddress is NULL");
  return OPL_OK;
}

[[nodiscard]] Code CheckResult(const void* result, const char* caller = __builtin_FUNCTION()) {
  if (result != nullptr) return OPL_OK;
  return Fail(Caller{caller}, OPL_SOCKET_E_NULL_ARGUMENT, "%s: The place for the result is NULL");
}

[[nodiscard]] Code CheckInet(const OPL_SocketAddress& address, const char* caller = __builtin_FUNCTION()) {
  if (address.family == opl::kInetFamily) return OPL_OK;
  return Fail(Caller{caller}, OPL_SOCKET_E_BAD_FAMILY, "%s: Address invalid type");
}

[[nodiscard]] Code CheckPacked(const void* buffer, uint32_t size, const char* caller = __builtin_FUNCTION()) {
  const Caller name{caller};
  if (buffer == nullptr) return Fail(name, OPL_SOCKET_E_NULL_ARGUMENT, "%s: Buffer is NULL");
  if (size < kPackedSize) return Fail(name, OPL_SOCKET_E_TOO_SMALL, "%s: Buffer to small");
  return OPL_OK;
}

void SetInet(OPL_SocketAddress* hAddress, uint16_t port, uint32_t address) {
  hAddress->inet.family = opl::kInetFamily;
  hAddress->inet.port = port;
  hAddress->inet.address = address;
}

}  // namespace

OPL_Result OPL_SocketAddressCreate(OPL_SocketAddress** phAddress, uint32_t mode) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phAddress == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: phAddress is NULL");
  // Deliberate: a failure releases whatever the caller's handle holds. Callers hand over a null handle.
  opl::Undo releaseOld([&] {
    opl::Free(*phAddress);
    *phAddress = nullptr;
  });
  if (mode != 0) return Fail(OPL_SOCKET_E_INVALID_MODE, "%s: Invalid Mode ");
  opl::Owned<OPL_SocketAddress> address = opl::Allocate<OPL_SocketAddress>();
  if (address == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SOCKET_E_NO_MEMORY, "%s: malloc error :%i", error.number());
  }
  releaseOld.Keep();
  *phAddress = address.release();
  return OPL_OK;
}

OPL_Result OPL_SocketAddressDestroy(OPL_SocketAddress** phAddress) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phAddress == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: phAddress is NULL");
  opl::Free(*phAddress);
  *phAddress = nullptr;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressInetStringSet(OPL_SocketAddress* hAddress, uint16_t port, const char* text) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (text == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: Text is NULL");
  const uint32_t address = ::inet_addr(text);
  // Deliberate: the record is written before the text is known to be good, and the text of the broadcast
  // address counts as bad, because it stands for the same number.
  SetInet(hAddress, port, address);
  if (address == INADDR_NONE) return Fail(OPL_SOCKET_E_INET_ADDR, "%s: inet_addr error");
  return OPL_OK;
}

OPL_Result OPL_SocketAddressInetULongSet(OPL_SocketAddress* hAddress, uint16_t port, uint32_t address) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  SetInet(hAddress, port, address);
  return OPL_OK;
}

OPL_Result OPL_SocketAddressInetStringGet(const OPL_SocketAddress* hAddress, uint32_t* pPort, char* buffer) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (const Code rc = CheckResult(pPort)) return rc;
  if (const Code rc = CheckResult(buffer)) return rc;
  if (const Code rc = CheckInet(*hAddress)) return rc;
  *pPort = hAddress->inet.port;
  // The C library's buffer is the thread's own.
  const char* const text = ::inet_ntoa(in_addr{hAddress->inet.address});  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr) return Fail(OPL_SOCKET_E_INET_NTOA, "%s: inet_ntoa error");
  std::memset(buffer, 0, OPL_SOCKET_INET_TEXT_SIZE);
  opl::CopyText(buffer, OPL_SOCKET_INET_TEXT_SIZE, text);
  return OPL_OK;
}

OPL_Result OPL_SocketAddressInetULongGet(const OPL_SocketAddress* hAddress, uint32_t* pPort,
                                         uint32_t* pAddress) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (const Code rc = CheckResult(pPort)) return rc;
  if (const Code rc = CheckResult(pAddress)) return rc;
  if (const Code rc = CheckInet(*hAddress)) return rc;
  *pPort = hAddress->inet.port;
  *pAddress = hAddress->inet.address;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressInetSetPort(OPL_SocketAddress* hAddress, uint16_t port) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  hAddress->inet.port = port;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressInetGetPort(const OPL_SocketAddress* hAddress, uint32_t* pPort) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (const Code rc = CheckResult(pPort)) return rc;
  if (hAddress->family != opl::kInetFamily)
    return Fail(OPL_SOCKET_E_BAD_FAMILY, "%s: Address invalid family");
  *pPort = hAddress->inet.port;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressPackedSizeGet(const OPL_SocketAddress* /*hAddress*/, uint32_t* pSize) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckResult(pSize)) return rc;
  *pSize = kPackedSize;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressPackedBufferFill(const OPL_SocketAddress* hAddress, void* buffer, uint32_t size) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (const Code rc = CheckPacked(buffer, size)) return rc;
  std::memcpy(buffer, hAddress, kPackedSize);
  return OPL_OK;
}

OPL_Result OPL_SocketAddressPackedAddrFill(OPL_SocketAddress* hAddress, const void* buffer, uint32_t size) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (const Code rc = CheckPacked(buffer, size)) return rc;
  std::memcpy(hAddress, buffer, kPackedSize);
  return OPL_OK;
}

OPL_Result OPL_SocketAddressCopy(const OPL_SocketAddress* hSource, OPL_SocketAddress* hDestination) {
  if (const Code rc = CheckCall(hSource)) return rc;
  if (const Code rc = CheckResult(hDestination)) return rc;
  *hDestination = *hSource;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressUnixSet(OPL_SocketAddress* hAddress, const char* name) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (name == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: Name is NULL");
  const opl::IpcName path(name, opl::kSocketMarker, opl::Scope::kInstance);
  if (std::strlen(path.c_str()) > OPL_SOCKET_PATH_MAX)
    return Fail(OPL_SOCKET_E_BAD_NAME, "%s: Name too long");
  std::memset(&hAddress->local, 0, sizeof hAddress->local);
  hAddress->local.family = opl::kLocalFamily;
  opl::CopyText(hAddress->local.path, path.c_str());
  return OPL_OK;
}

OPL_Result OPL_SocketAddressUnixGet(const OPL_SocketAddress* hAddress, char* buffer) {
  if (const Code rc = CheckCall(hAddress)) return rc;
  if (const Code rc = CheckResult(buffer)) return rc;
  // An address that was packed by somebody else may have no terminator.
  const size_t length = ::strnlen(hAddress->local.path, OPL_SOCKET_PATH_MAX);
  std::memcpy(buffer, hAddress->local.path, length);
  buffer[length] = '\0';
  return OPL_OK;
}

OPL_Result OPL_SocketAddressUnixIsSupported(uint32_t /*ignored*/, uint32_t* supported) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckResult(supported)) return rc;
  *supported = 1;
  return OPL_OK;
}

OPL_Result OPL_SocketAddressCompare(const OPL_SocketAddress* hFirst, const OPL_SocketAddress* hSecond,
                                    uint32_t* pIsEqual) {
  if (pIsEqual != nullptr) *pIsEqual = 0;
  if (const Code rc = CheckCall(hFirst)) return rc;
  if (const Code rc = CheckCall(hSecond)) return rc;
  if (const Code rc = CheckResult(pIsEqual)) return rc;
  if (hFirst->family != hSecond->family) return Fail(OPL_SOCKET_E_BAD_FAMILY, "%s: Not the same family");
  switch (hFirst->family) {
    case opl::kLocalFamily:
      *pIsEqual =
          std::strncmp(hFirst->local.path, hSecond->local.path, sizeof hFirst->local.path) == 0 ? 1 : 0;
      return OPL_OK;
    case opl::kInetFamily:
      // Deliberate: one host, whatever its ports.
      *pIsEqual = hFirst->inet.address == hSecond->inet.address ? 1 : 0;
      return OPL_OK;
    default:
      return Fail(OPL_SOCKET_E_BAD_FAMILY, "%s: Family unknown");
  }
}
