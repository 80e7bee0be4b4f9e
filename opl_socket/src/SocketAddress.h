// The record of a socket address, which is also its packed form, byte for byte.
#ifndef OPL_SOCKET_SOCKET_ADDRESS_H
#define OPL_SOCKET_SOCKET_ADDRESS_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>

#include "OPL_Socket.h"

namespace opl {

// The families are the system's, so that the record can be handed to it.
enum AddressFamily : uint16_t { kNoFamily = 0, kLocalFamily = AF_UNIX, kInetFamily = AF_INET };
static_assert(kLocalFamily == 1 && kInetFamily == 2, "the packed form's families");

struct InetAddress {
  uint16_t family;
  uint16_t port;  // in network byte order, as the next
  uint32_t address;
  char zero[104];
};

struct LocalAddress {
  uint16_t family;
  char path[sizeof(sockaddr_un) - sizeof(uint16_t)];
  char zero[2];
};

}  // namespace opl

struct OPL_SocketAddress {
  union {
    uint16_t family;
    opl::InetAddress inet;
    opl::LocalAddress local;
  };
};

namespace opl {

static_assert(sizeof(OPL_SocketAddress) == OPL_SOCKET_ADDRESS_PACKED_SIZE);
static_assert(offsetof(InetAddress, port) == 2 && offsetof(InetAddress, address) == 4);
static_assert(offsetof(InetAddress, port) == offsetof(sockaddr_in, sin_port));
static_assert(offsetof(InetAddress, address) == offsetof(sockaddr_in, sin_addr));
static_assert(offsetof(LocalAddress, path) == offsetof(sockaddr_un, sun_path));
static_assert(sizeof(LocalAddress) == sizeof(OPL_SocketAddress));

// The length that the system is told for an address of that family.
inline socklen_t SystemLengthOf(const OPL_SocketAddress& address) {
  return address.family == kLocalFamily ? sizeof(sockaddr_un) : sizeof(sockaddr_in);
}

inline sockaddr* SystemForm(OPL_SocketAddress* address) { return reinterpret_cast<sockaddr*>(address); }

inline const sockaddr* SystemForm(const OPL_SocketAddress* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

}  // namespace opl

#endif
