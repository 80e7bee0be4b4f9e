// Sockets: their records, descriptors, options and names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Limit.h"

namespace {

using opltest::Address;
using opltest::Connection;
using opltest::CountedMemory;
using opltest::DescriptorOf;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::Fault;
using opltest::Footprint;
using opltest::InetAddress;
using opltest::Limit;
using opltest::Listener;
using opltest::LocalAddress;
using opltest::PackedLocal;
using opltest::Pair;
using opltest::ReceiveText;
using opltest::Replacement;
using opltest::SendText;
using opltest::Socket;
using opltest::SocketFile;

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

int OptionOf(int fd, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(0, ::getsockopt(fd, SOL_SOCKET, option, &value, &length));
  return value;
}

int Plain() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

class SocketTest : public opltest::Instance {};
class SocketCreate : public opltest::Instance {};
class SocketDuplicate : public opltest::Instance {};
class SocketOpen : public opltest::Instance {};
class SocketNative : public opltest::Instance {};
class SocketClose : public opltest::Instance {};
class SocketDestroy : public opltest::Instance {};
class SocketOption : public opltest::Instance {};
class SocketNonBlocking : public opltest::Instance {};
class SocketListen : public opltest::Instance {};
class SocketShutdown : public opltest::Instance {};
class SocketName : public opltest::Instance {};
class SocketPair : public opltest::Instance {};

TEST(SocketBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SocketBegin());
  EXPECT_EQ(0x050203u, OPL_SocketEnd());
  EXPECT_EQ(0x050203u, OPL_SocketCreate(nullptr, 1));
  EXPECT_EQ(0x050203u, OPL_SocketDuplicate(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketOpen(nullptr, 0, 0, 0));
  EXPECT_EQ(0x050203u, OPL_SocketSetNativeSocket(nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketGetNativeSocket(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketClose(nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketDestroy(nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketDestroyLite(nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketReceive(nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketSend(nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketAccept(nullptr, nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketListen(nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketBind(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketConnect(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketShutdown(nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketSetOption(nullptr, 0, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketNonBlockingSet(nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketAddressGet(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketPeerAddressGet(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketPairCreate(nullptr, 1));
  EXPECT_EQ(0x050203u, OPL_SocketMessageReceive(nullptr, nullptr, 0, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketMessageSend(nullptr, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketIsConnectionAlive(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketTerminateIPC(0, "*"));
}

TEST(SocketAfterEnd, IsStoppedAndKeepsItsRecord) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  OPL_Socket* socket = nullptr;
  ASSERT_EQ(0u, OPL_SocketCreate(&socket, 0));
  OPL_Socket* kept = socket;
  ASSERT_EQ(0u, OPL_InitEnd(0));
  const uint32_t stopped = OPL_InitIsStopped(0);
  EXPECT_NE(0u, stopped);
  EXPECT_EQ(stopped, OPL_SocketDestroy(&socket));
  EXPECT_EQ(kept, socket);
  std::free(kept);  // its memory is the system's
}

TEST_F(SocketTest, BeginsAndEndsWithoutDoingAnything) {
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0u, OPL_SocketEnd());
  EXPECT_EQ(0u, OPL_SocketBegin());
  EXPECT_EQ(0u, OPL_SocketBegin());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SocketTest, IsMissedByItsName) {
  const Address address;
  uint32_t number = 0;
  int32_t fd = 0;
  msghdr message{};
  const auto expect = [](uint32_t rc, const char* text) {
    EXPECT_EQ(0x05092Cu, rc);
    ExpectError(0x05092C, text);
  };
  expect(OPL_SocketCreate(nullptr, 0), "OPL_SocketCreate: ppSocket is NULL");
  expect(OPL_SocketOpen(nullptr, 0, 0, 0), "OPL_SocketOpen: pSocket is NULL");
  expect(OPL_SocketSetNativeSocket(nullptr, 0), "OPL_SocketSetNativeSocket: pSocket is NULL");
  expect(OPL_SocketGetNativeSocket(nullptr, &fd), "OPL_SocketGetNativeSocket: pSocket is NULL");
  expect(OPL_SocketClose(nullptr), "OPL_SocketClose: pSocket is NULL");
  expect(OPL_SocketDestroy(nullptr), "OPL_SocketDestroy: ppSocket is NULL");
  expect(OPL_SocketDestroyLite(nullptr), "OPL_SocketDestroyLite: ppSocket is NULL");
  expect(OPL_SocketReceive(nullptr, &number, &fd, 1), "OPL_SocketReceive: pSocket is NULL");
  expect(OPL_SocketSend(nullptr, &number, &fd, 1), "OPL_SocketSend: pSocket is NULL");
  expect(OPL_SocketAccept(nullptr, nullptr, nullptr), "OPL_SocketAccept: pSocket is NULL");
  expect(OPL_SocketListen(nullptr, 0), "OPL_SocketListen: pSocket is NULL");
  expect(OPL_SocketBind(nullptr, address), "OPL_SocketBind: pSocket is NULL");
  expect(OPL_SocketConnect(nullptr, address), "OPL_SocketConnect: pSocket is NULL");
  expect(OPL_SocketShutdown(nullptr, 0), "OPL_SocketShutdown: pSocket is NULL");
  expect(OPL_SocketSetOption(nullptr, 99, &fd, 4), "OPL_SocketSetOption: pSocket is NULL");
  expect(OPL_SocketNonBlockingSet(nullptr, 0), "OPL_SocketNonBlockingSet: pSocket is NULL");
  expect(OPL_SocketAddressGet(nullptr, address), "OPL_SocketAddressGet: hSocket is NULL");
  expect(OPL_SocketPeerAddressGet(nullptr, address), "OPL_SocketPeerAddressGet: hSocket is NULL");
  expect(OPL_SocketMessageReceive(nullptr, &message, 0, &number),
         "OPL_SocketMessageReceive: pSocket is NULL");
  expect(OPL_SocketMessageSend(nullptr, &message, 0), "OPL_SocketMessageSend: pSocket is NULL");
  expect(OPL_SocketIsConnectionAlive(nullptr, &number), "OPL_SocketIsConnectionAlive: pSocket is NULL");
}

TEST_F(SocketTest, NeedsItsOtherArgumentsInTheirOrder) {
  const Socket socket;
  char byte = 0;
  uint32_t number = 0;
  msghdr message{};
  const auto expect = [](uint32_t rc, const char* text) {
    EXPECT_EQ(0x05092Cu, rc);
    ExpectError(0x05092C, text);
  };
  expect(OPL_SocketGetNativeSocket(socket, nullptr), "OPL_SocketGetNativeSocket: pNativeSocket is NULL");
  expect(OPL_SocketReceive(socket, nullptr, nullptr, 1), "OPL_SocketReceive: pSizeRead is NULL");
  expect(OPL_SocketReceive(socket, &number, nullptr, 0), "OPL_SocketReceive: pBuffer is NULL");
  expect(OPL_SocketSend(socket, nullptr, nullptr, 1), "OPL_SocketSend: pSizeWritten is NULL");
  expect(OPL_SocketSend(socket, &number, nullptr, 0), "OPL_SocketSend: pBuffer is NULL");
  expect(OPL_SocketAccept(socket, nullptr, nullptr), "OPL_SocketAccept: pAcceptedSocket is NULL");
  expect(OPL_SocketBind(socket, nullptr), "OPL_SocketBind: pAddr is NULL");
  expect(OPL_SocketConnect(socket, nullptr), "OPL_SocketConnect: pAddr is NULL");
  expect(OPL_SocketAddressGet(socket, nullptr), "OPL_SocketAddressGet: hAddr is NULL");
  expect(OPL_SocketPeerAddressGet(socket, nullptr), "OPL_SocketPeerAddressGet: hAddr is NULL");
  expect(OPL_SocketMessageReceive(socket, nullptr, 0, nullptr), "OPL_SocketMessageReceive: pMsg is NULL");
  expect(OPL_SocketMessageReceive(socket, &message, 0, nullptr),
         "OPL_SocketMessageReceive: pMessageLen is NULL");
  expect(OPL_SocketMessageSend(socket, nullptr, 0), "OPL_SocketMessageSend: pMsg is NULL");
  expect(OPL_SocketPairCreate(nullptr, 0), "OPL_SocketPairCreate: pPair is NULL");
  EXPECT_EQ(0x05091Bu, OPL_SocketAddressGet(socket, Address()));
  EXPECT_EQ(0u, OPL_SocketIsConnectionAlive(socket, nullptr));
  EXPECT_EQ(0x050908u, OPL_SocketReceive(socket, &number, &byte, 1));
}

TEST_F(SocketCreate, MakesARecordWithoutADescriptor) {
  const CountedMemory memory;  // full of garbage
  const Footprint before = Footprint::Now();
  {
    const Socket socket;
    EXPECT_EQ(-1, socket.fd());
    EXPECT_EQ(1, memory.Allocated());
    EXPECT_EQ(before, Footprint::Now());
  }
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SocketCreate, RefusesAMode) {
  const CountedMemory memory;
  OPL_Socket* socket = nullptr;
  EXPECT_EQ(0x050903u, OPL_SocketCreate(&socket, 1));
  ExpectError(0x050903, "OPL_SocketCreate: Invalid Mode ");
  EXPECT_EQ(nullptr, socket);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SocketCreate, TellsWhenThereIsNoMemory) {
  OPL_Socket* socket = nullptr;
  {
    const FailingMemory memory(1);
    EXPECT_EQ(0x050902u, OPL_SocketCreate(&socket, 0));
  }
  ExpectError(ENOMEM, "OPL_SocketCreate: malloc error :12");
  EXPECT_EQ(nullptr, socket);
}

// Deliberate: the check of the source is the wrong way round.
TEST_F(SocketDuplicate, RefusesASocket) {
  const Socket source(OPL_SOCKET_INET);
  const Footprint before = Footprint::Now();
  OPL_Socket* copy = nullptr;
  EXPECT_EQ(0x05092Cu, OPL_SocketDuplicate(&copy, source));
  ExpectError(0x05092C, "OPL_SocketDuplicate: hSourceSocket is NULL");
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SocketDuplicate, RefusesAHandleThatIsSetBeforeItLooksAtTheSource) {
  const Socket source(OPL_SOCKET_INET);
  const Socket other;
  OPL_Socket* const before = other;
  OPL_Socket* copy = before;
  EXPECT_EQ(0x05092Du, OPL_SocketDuplicate(&copy, source));
  ExpectError(0x05092D, "OPL_SocketDuplicate: *pNewSocket is not NULL");
  EXPECT_EQ(before, copy);
  EXPECT_EQ(0x05092Du, OPL_SocketDuplicate(&copy, nullptr));
}

TEST_F(SocketDuplicate, RefusesANullPlaceForTheHandle) {
  const Socket source;
  EXPECT_EQ(0x05092Cu, OPL_SocketDuplicate(nullptr, source));
  ExpectError(0x05092C, "OPL_SocketDuplicate: pNewSocket is NULL");
}

TEST_F(SocketDuplicate, HasNothingToDuplicateWithoutASource) {
  const CountedMemory memory;
  const Footprint before = Footprint::Now();
  OPL_Socket* copy = nullptr;
  EXPECT_EQ(0x050923u, OPL_SocketDuplicate(&copy, nullptr));
  ExpectError(EBADF, "OPL_SocketDuplicate: dup :9,Bad file descriptor");
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(before, Footprint::Now());
}

int GiveADescriptor(int fd) {
  EXPECT_EQ(-1, fd);
  return Plain();
}

TEST_F(SocketDuplicate, TakesWhateverTheSystemGivesForNoDescriptor) {
  const Replacement dup("dup", GiveADescriptor);
  OPL_Socket* copy = nullptr;
  EXPECT_EQ(0u, OPL_SocketDuplicate(&copy, nullptr));
  ASSERT_NE(nullptr, copy);
  EXPECT_TRUE(IsOpen(DescriptorOf(copy)));
  EXPECT_EQ(0u, OPL_SocketDestroy(&copy));
}

TEST_F(SocketDuplicate, TellsWhenThereIsNoMemory) {
  OPL_Socket* copy = nullptr;
  const FailingMemory memory(1);
  EXPECT_EQ(0x050902u, OPL_SocketDuplicate(&copy, nullptr));
  ExpectError(ENOMEM, "OPL_SocketCreate: malloc error :12");
  EXPECT_EQ(nullptr, copy);
}

TEST_F(SocketOpen, MakesEachFamilyAndType) {
  const struct {
    uint32_t family;
    uint32_t type;
    int domain;
    int systemType;
  } kinds[] = {{0, 0, AF_INET, SOCK_STREAM},
               {0, 1, AF_INET, SOCK_DGRAM},
               {1, 0, AF_UNIX, SOCK_STREAM},
               {1, 1, AF_UNIX, SOCK_DGRAM}};
  for (const auto& kind : kinds) {
    const Socket socket(kind.family, kind.type);
    EXPECT_EQ(kind.domain, OptionOf(socket.fd(), SO_DOMAIN));
    EXPECT_EQ(kind.systemType, OptionOf(socket.fd(), SO_TYPE));
  }
}

// The arguments of the system's calls that stand-ins have seen.
std::vector<int> gSeen;

int SeeSocket(int family, int type, int protocol) {
  gSeen = {family, type, protocol};
  return Plain();
}

TEST_F(SocketOpen, HandsTheProtocolOn) {
  const Replacement socketCall("socket", SeeSocket);
  const Socket socket;
  EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_DATAGRAM, 0xFFFFFFF0));
  EXPECT_EQ((std::vector<int>{AF_INET, SOCK_DGRAM, -16}), gSeen);
}

TEST_F(SocketOpen, TakesTheRecordsFamilyForAnUnknownOne) {
  const Replacement socketCall("socket", SeeSocket);
  const Socket fresh;
  EXPECT_EQ(0u, OPL_SocketOpen(fresh, 2, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ((std::vector<int>{0, SOCK_STREAM, 0}), gSeen);
  const Socket local(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0u, OPL_SocketClose(local));
  EXPECT_EQ(0u, OPL_SocketOpen(local, 0xFFFFFFFF, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ((std::vector<int>{AF_UNIX, SOCK_STREAM, 0}), gSeen);
}

TEST_F(SocketOpen, HandsNoTypeOnForAnUnknownOne) {
  const Replacement socketCall("socket", SeeSocket);
  const Socket socket;
  EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_INET, 2, 0));
  EXPECT_EQ((std::vector<int>{AF_INET, 0, 0}), gSeen);
}

TEST_F(SocketOpen, TellsTheSystemsRefusal) {
  const Socket socket;
  EXPECT_EQ(0x050905u, OPL_SocketOpen(socket, 99, OPL_SOCKET_STREAM, 0));
  ExpectError(EAFNOSUPPORT, "OPL_SocketOpen: socket :97,Address family not supported by protocol");
  EXPECT_EQ(-1, socket.fd());
}

TEST_F(SocketOpen, TellsWhenAllDescriptorsAreUsed) {
  const Socket socket;
  const int next = ::dup(0);
  ASSERT_EQ(0, ::close(next));
  {
    const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next));
    EXPECT_EQ(0x050905u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0));
  }
  ExpectError(EMFILE, "OPL_SocketOpen: socket :24,Too many open files");
  EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0));
}

TEST_F(SocketOpen, LeavesADescriptorThatItHasOpen) {
  const Socket socket(OPL_SOCKET_INET);
  const int before = socket.fd();
  EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0));
  EXPECT_NE(before, socket.fd());
  EXPECT_TRUE(IsOpen(before));
  EXPECT_EQ(0, ::close(before));
}

TEST_F(SocketOpen, KeepsItsDescriptorWhenItFails) {
  const Socket socket(OPL_SOCKET_INET);
  const int before = socket.fd();
  const Fault fault("socket", 1, ENFILE);
  EXPECT_EQ(0x050905u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ(before, socket.fd());
}

TEST_F(SocketNative, ClosesTheDescriptorThatItReplaces) {
  const Socket socket(OPL_SOCKET_INET);
  const int before = socket.fd();
  const int after = Plain();
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(socket, after));
  EXPECT_FALSE(IsOpen(before));
  EXPECT_EQ(after, socket.fd());
  EXPECT_TRUE(IsOpen(after));
}

TEST_F(SocketNative, ClosesNothingWhereThereIsNone) {
  const Socket socket;
  const Fault fault("close", 1, EIO);
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(socket, -1));
  EXPECT_FALSE(fault.Fired());
  EXPECT_EQ(-1, socket.fd());
}

TEST_F(SocketNative, IsTakenBackByNone) {
  const Socket socket(OPL_SOCKET_INET);
  const int before = socket.fd();
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(socket, -1));
  EXPECT_FALSE(IsOpen(before));
  EXPECT_EQ(-1, socket.fd());
}

TEST_F(SocketNative, IgnoresAFailedClose) {
  const Socket socket(OPL_SOCKET_INET);
  const Fault fault("close", 1, EIO);
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(socket, -1));
  EXPECT_TRUE(fault.Fired());
}

TEST_F(SocketClose, ClosesTheDescriptorOnce) {
  const Socket socket(OPL_SOCKET_INET);
  const int fd = socket.fd();
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ(-1, socket.fd());
  // The number may be another's by now.
  const int other = Plain();
  EXPECT_EQ(fd, other);
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_TRUE(IsOpen(other));
  EXPECT_EQ(0, ::close(other));
}

TEST_F(SocketClose, IgnoresTheSystemsRefusal) {
  const Socket socket(OPL_SOCKET_INET);
  const Fault fault("close", 1, EIO);
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(-1, socket.fd());
}

TEST_F(SocketClose, LetsTheRecordBeOpenedAgain) {
  const Socket socket(OPL_SOCKET_INET);
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ(AF_UNIX, OptionOf(socket.fd(), SO_DOMAIN));
}

TEST_F(SocketDestroy, ClosesReleasesAndStoresNull) {
  for (const auto destroy : {OPL_SocketDestroy, OPL_SocketDestroyLite}) {
    const CountedMemory memory;
    const Footprint before = Footprint::Now();
    OPL_Socket* socket = nullptr;
    ASSERT_EQ(0u, OPL_SocketCreate(&socket, 0));
    ASSERT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0));
    EXPECT_EQ(0u, destroy(&socket));
    EXPECT_EQ(nullptr, socket);
    EXPECT_EQ(0, memory.Living());
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(0u, destroy(&socket));
  }
}

TEST_F(SocketDestroy, ClosesNothingWhereThereIsNoDescriptor) {
  for (const auto destroy : {OPL_SocketDestroy, OPL_SocketDestroyLite}) {
    OPL_Socket* socket = nullptr;
    ASSERT_EQ(0u, OPL_SocketCreate(&socket, 0));
    const Fault fault("close", 1, EIO);
    EXPECT_EQ(0u, destroy(&socket));
    EXPECT_FALSE(fault.Fired());
  }
}

TEST_F(SocketOption, IsTheSystems) {
  const Socket socket(OPL_SOCKET_INET);
  const int on = 1;
  EXPECT_EQ(0u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_KEEP_ALIVE, &on, sizeof on));
  EXPECT_EQ(1, OptionOf(socket.fd(), SO_KEEPALIVE));
  EXPECT_EQ(0u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_REUSE_ADDRESS, &on, sizeof on));
  EXPECT_EQ(1, OptionOf(socket.fd(), SO_REUSEADDR));
  const int size = 32768;
  EXPECT_EQ(0u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_SEND_BUFFER, &size, sizeof size));
  EXPECT_EQ(2 * size, OptionOf(socket.fd(), SO_SNDBUF));  // the system doubles it
  EXPECT_EQ(0u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_RECEIVE_BUFFER, &size, sizeof size));
  EXPECT_EQ(2 * size, OptionOf(socket.fd(), SO_RCVBUF));
  const linger wanted = {1, 7};
  EXPECT_EQ(0u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_LINGER, &wanted, sizeof wanted));
  linger found = {};
  socklen_t length = sizeof found;
  EXPECT_EQ(0, ::getsockopt(socket.fd(), SOL_SOCKET, SO_LINGER, &found, &length));
  EXPECT_EQ(1, found.l_onoff);
  EXPECT_EQ(7, found.l_linger);
}

const void* gValue = nullptr;

int SeeOption(int fd, int level, int option, const void* value, socklen_t length) {
  gSeen = {fd, level, option, static_cast<int>(length)};
  gValue = value;
  return 0;
}

TEST_F(SocketOption, IsHandedOnWithItsValueAsItIs) {
  const Socket socket;
  const Replacement setsockoptCall("setsockopt", SeeOption);
  const int names[] = {SO_LINGER, SO_KEEPALIVE, SO_REUSEADDR, SO_SNDBUF, SO_RCVBUF};
  for (uint32_t option = 0; option < 5; ++option) {
    EXPECT_EQ(0u, OPL_SocketSetOption(socket, option, &names[option], 100 + option));
    EXPECT_EQ((std::vector<int>{-1, SOL_SOCKET, names[option], static_cast<int>(100 + option)}), gSeen);
    EXPECT_EQ(&names[option], gValue);
  }
}

TEST_F(SocketOption, IsRefusedWhenItIsUnknown) {
  const Socket socket(OPL_SOCKET_INET);
  const int value = 1;
  const Fault fault("setsockopt", 1, EIO);
  for (const uint32_t option : {5u, 0xFFFFFFFFu}) {
    EXPECT_EQ(0x050906u, OPL_SocketSetOption(socket, option, &value, sizeof value));
    ExpectError(0x050906, "OPL_SocketSetOption: Invalid Option");
  }
  EXPECT_FALSE(fault.Fired());
}

TEST_F(SocketOption, IsRefusedByTheSystem) {
  const Socket socket(OPL_SOCKET_INET);
  EXPECT_EQ(0x050907u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_KEEP_ALIVE, nullptr, 4));
  ExpectError(EFAULT, "OPL_SocketSetOption: setsockopt :14,Bad address");
  const char byte = 1;
  EXPECT_EQ(0x050907u, OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_LINGER, &byte, 1));
  ExpectError(EINVAL, "OPL_SocketSetOption: setsockopt :22,Invalid argument");
}

// Deliberate: 0 makes the socket non-blocking, against the function's name.
TEST_F(SocketNonBlocking, IsSetByZeroAndTakenBackByAnythingElse) {
  const Socket socket(OPL_SOCKET_INET);
  const int before = ::fcntl(socket.fd(), F_GETFL);
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(socket, 0));
  EXPECT_EQ(before | O_NONBLOCK, ::fcntl(socket.fd(), F_GETFL));
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(socket, 0));
  EXPECT_EQ(before | O_NONBLOCK, ::fcntl(socket.fd(), F_GETFL));
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(socket, 0xFFFFFFFF));
  EXPECT_EQ(before, ::fcntl(socket.fd(), F_GETFL));
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(socket, 1));
  EXPECT_EQ(before, ::fcntl(socket.fd(), F_GETFL));
}

TEST_F(SocketNonBlocking, LeavesTheOtherFlags) {
  const Socket socket(OPL_SOCKET_INET);
  ASSERT_EQ(0, ::fcntl(socket.fd(), F_SETFL, O_APPEND));
  EXPECT_EQ(0u, OPL_SocketNonBlockingSet(socket, 0));
  EXPECT_EQ(O_APPEND | O_NONBLOCK | O_RDWR, ::fcntl(socket.fd(), F_GETFL) & (O_APPEND | O_NONBLOCK | O_RDWR));
}

// Deliberate: the number is the call's result, not the system's.
TEST_F(SocketNonBlocking, TellsTheCallsResultForTheSystemsNumber) {
  const Socket socket(OPL_SOCKET_INET);
  for (const int nth : {1, 2}) {
    for (const uint32_t flag : {0u, 1u}) {
      opltest::ForgetFailure();
      const Fault fault("fcntl64", nth, EPERM);
      EXPECT_EQ(0x05092Eu, OPL_SocketNonBlockingSet(socket, flag));
      EXPECT_TRUE(fault.Fired());
      ExpectError(0xFFFFFFFF, "OPL_SocketNonBlockingSet: fcntl error: -1,Unknown error -1");
    }
  }
}

TEST_F(SocketNonBlocking, NeedsADescriptor) {
  const Socket socket;
  EXPECT_EQ(0x05092Eu, OPL_SocketNonBlockingSet(socket, 0));
  ExpectError(0xFFFFFFFF, "OPL_SocketNonBlockingSet: fcntl error: -1,Unknown error -1");
}

int SeeListen(int fd, int backlog) {
  gSeen = {fd, backlog};
  return 0;
}

TEST_F(SocketListen, HandsTheBacklogOn) {
  const Socket socket;
  const Replacement listenCall("listen", SeeListen);
  for (const uint32_t backlog : {0u, 1u, 128u, 0xFFFFFFFFu}) {
    EXPECT_EQ(0u, OPL_SocketListen(socket, backlog));
    EXPECT_EQ((std::vector<int>{-1, static_cast<int>(backlog)}), gSeen);
  }
}

TEST_F(SocketListen, TellsTheSystemsRefusal) {
  const Socket datagrams(OPL_SOCKET_INET, OPL_SOCKET_DATAGRAM);
  EXPECT_EQ(0x05090Fu, OPL_SocketListen(datagrams, 1));
  ExpectError(EOPNOTSUPP, "OPL_SocketListen: Listen :95,Operation not supported");
}

int SeeShutdown(int fd, int how) {
  gSeen = {fd, how};
  return 0;
}

TEST_F(SocketShutdown, HandsOnWhatToStop) {
  const Socket socket;
  const Replacement shutdownCall("shutdown", SeeShutdown);
  const struct {
    uint32_t how;
    int system;
  } kinds[] = {{0, SHUT_RD}, {1, SHUT_WR}, {2, SHUT_RDWR}, {3, SHUT_RD}, {7, SHUT_RD}, {0xFFFFFFFF, SHUT_RD}};
  for (const auto& kind : kinds) {
    EXPECT_EQ(0u, OPL_SocketShutdown(socket, kind.how));
    EXPECT_EQ((std::vector<int>{-1, kind.system}), gSeen);
  }
}

TEST_F(SocketShutdown, StopsReceivingForAnUnknownKind) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketShutdown(connection.client, 7));
  EXPECT_EQ("", ReceiveText(connection.client));
  SendText(connection.client, "x");
  EXPECT_EQ("x", ReceiveText(connection.server));
}

TEST_F(SocketShutdown, StopsSendingAlone) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketShutdown(connection.client, OPL_SOCKET_SHUTDOWN_SEND));
  EXPECT_EQ("", ReceiveText(connection.server));
  SendText(connection.server, "answer");
  EXPECT_EQ("answer", ReceiveText(connection.client));
}

TEST_F(SocketShutdown, TellsAnUnconnectedSocketFromOtherRefusals) {
  const Socket socket(OPL_SOCKET_INET);
  EXPECT_EQ(0x050931u, OPL_SocketShutdown(socket, 2));
  ExpectError(ENOTCONN, "OPL_SocketShutdown: Shutdown :107,Transport endpoint is not connected");
  {
    const Fault fault("shutdown", 1, EINVAL);
    EXPECT_EQ(0x050931u, OPL_SocketShutdown(socket, 2));
  }
  ExpectError(EINVAL, "OPL_SocketShutdown: Shutdown :22,Invalid argument");
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_EQ(0x050912u, OPL_SocketShutdown(socket, 2));
  ExpectError(EBADF, "OPL_SocketShutdown: Shutdown :9,Bad file descriptor");
}

TEST_F(SocketName, IsTheBoundAddress) {
  const Socket socket(OPL_SOCKET_INET);
  const InetAddress any;
  ASSERT_EQ(0u, OPL_SocketBind(socket, any));
  const Address name;
  EXPECT_EQ(0u, OPL_SocketAddressGet(socket, name));
  EXPECT_NE(0, name.Port());
  uint32_t port = 0;
  uint32_t number = 0;
  EXPECT_EQ(0u, OPL_SocketAddressInetULongGet(name, &port, &number));
  EXPECT_EQ(htonl(INADDR_LOOPBACK), number);
  EXPECT_EQ(std::string("\2\0", 2), name.Bytes().substr(0, 2));
  EXPECT_EQ(std::string(104, '\0'), name.Bytes().substr(8));
}

TEST_F(SocketName, OfEachEndIsTheOthersPeer) {
  const Connection connection;
  const Address client;
  const Address peerOfServer;
  EXPECT_EQ(0u, OPL_SocketAddressGet(connection.client, client));
  EXPECT_EQ(0u, OPL_SocketPeerAddressGet(connection.server, peerOfServer));
  EXPECT_EQ(client.Bytes(), peerOfServer.Bytes());
  const Address server;
  const Address peerOfClient;
  EXPECT_EQ(0u, OPL_SocketAddressGet(connection.server, server));
  EXPECT_EQ(0u, OPL_SocketPeerAddressGet(connection.client, peerOfClient));
  EXPECT_EQ(server.Bytes(), peerOfClient.Bytes());
}

TEST_F(SocketName, IsToldWholeToAnAddressOfALocalSocket) {
  const Listener listener("listener");
  const LocalAddress name("longer-than-the-one-that-is-told");
  EXPECT_EQ(0u, OPL_SocketAddressGet(listener, name));
  EXPECT_EQ(PackedLocal(SocketFile("listener")), name.Bytes());

  const Socket client(OPL_SOCKET_LOCAL);
  ASSERT_EQ(0u, OPL_SocketConnect(client, name));
  const LocalAddress peer("longer-than-the-one-that-is-told");
  EXPECT_EQ(0u, OPL_SocketPeerAddressGet(client, peer));
  EXPECT_EQ(PackedLocal(SocketFile("listener")), peer.Bytes());
}

// The system is told of 16 bytes unless the address is a local socket's already.
TEST_F(SocketName, IsCutForAnAddressOfNoLocalSocket) {
  const Listener listener("listener");
  const std::string cut = PackedLocal(SocketFile("listener").substr(0, 14));
  const Address fresh;
  EXPECT_EQ(0u, OPL_SocketAddressGet(listener, fresh));
  EXPECT_EQ(cut, fresh.Bytes());
  Address inet;
  inet.SetBytes(std::string("\2\0", 2) + std::string(110, '?'));
  EXPECT_EQ(0u, OPL_SocketAddressGet(listener, inet));
  EXPECT_EQ(cut, inet.Bytes());
}

TEST_F(SocketName, OfAnUnboundLocalSocketIsEmpty) {
  const Socket socket(OPL_SOCKET_LOCAL);
  const LocalAddress name("what-was-there-before");
  EXPECT_EQ(0u, OPL_SocketAddressGet(socket, name));
  EXPECT_EQ(PackedLocal(""), name.Bytes());
}

TEST_F(SocketName, OfAnIPv4SocketReplacesAllOfALocalAddress) {
  const Connection connection;
  const LocalAddress name("what-was-there-before");
  EXPECT_EQ(0u, OPL_SocketPeerAddressGet(connection.client, name));
  EXPECT_EQ(std::string("\2\0", 2), name.Bytes().substr(0, 2));
  EXPECT_EQ(std::string(104, '\0'), name.Bytes().substr(8));
}

std::vector<socklen_t> gLengths;

int SeeName(int, struct sockaddr*, socklen_t* length) {
  gLengths.push_back(*length);
  return 0;
}

TEST_F(SocketName, IsAskedForWithTheFamilysLength) {
  const Socket socket;
  const Address fresh;
  const InetAddress inet;
  const LocalAddress local("q");
  for (const char* function : {"getsockname", "getpeername"}) {
    const Replacement call(function, SeeName);
    const auto get =
        std::strcmp(function, "getsockname") == 0 ? OPL_SocketAddressGet : OPL_SocketPeerAddressGet;
    gLengths.clear();
    for (const Address* address :
         {&fresh, static_cast<const Address*>(&inet), static_cast<const Address*>(&local)})
      EXPECT_EQ(0u, get(socket, *address));
    EXPECT_EQ((std::vector<socklen_t>{16, 16, 110}), gLengths);
  }
}

TEST_F(SocketName, IsNotThereForEveryone) {
  const Socket closed;
  const Socket unconnected(OPL_SOCKET_INET);
  const InetAddress address(1, "1.2.3.4");
  const std::string before = address.Bytes();
  EXPECT_EQ(0x05091Bu, OPL_SocketAddressGet(closed, address));
  ExpectError(EBADF, "OPL_SocketAddressGet: getsockname :9,Bad file descriptor");
  EXPECT_EQ(0x05091Bu, OPL_SocketPeerAddressGet(unconnected, address));
  ExpectError(ENOTCONN, "OPL_SocketPeerAddressGet: getpeername :107,Transport endpoint is not connected");
  EXPECT_EQ(before, address.Bytes());
}

TEST_F(SocketPair, IsConnectedInBothDirections) {
  const Pair pair;
  EXPECT_EQ(AF_UNIX, OptionOf(DescriptorOf(pair.ends[0]), SO_DOMAIN));
  EXPECT_EQ(SOCK_DGRAM, OptionOf(DescriptorOf(pair.ends[1]), SO_TYPE));
  SendText(pair.ends[0], "one");
  SendText(pair.ends[0], "two");
  SendText(pair.ends[1], "three");
  EXPECT_EQ("one", ReceiveText(pair.ends[1]));
  EXPECT_EQ("two", ReceiveText(pair.ends[1]));
  EXPECT_EQ("three", ReceiveText(pair.ends[0]));
}

int SeeSocketPair(int family, int type, int protocol, int fds[2]) {
  gSeen = {family, type, protocol};
  fds[0] = Plain();
  fds[1] = Plain();
  return 0;
}

TEST_F(SocketPair, IsMadeByOneCallInTheEndsOrder) {
  const Replacement socketpairCall("socketpair", SeeSocketPair);
  const Pair pair;
  EXPECT_EQ((std::vector<int>{AF_UNIX, SOCK_DGRAM, 0}), gSeen);
  EXPECT_LT(DescriptorOf(pair.ends[0]), DescriptorOf(pair.ends[1]));
}

// Of no family, so that there is no file to remove.
TEST_F(SocketPair, HasNoFamily) {
  const Pair pair;
  const Replacement socketCall("socket", SeeSocket);
  EXPECT_EQ(0u, OPL_SocketClose(pair.ends[0]));
  EXPECT_EQ(0u, OPL_SocketOpen(pair.ends[0], 9, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ((std::vector<int>{0, SOCK_STREAM, 0}), gSeen);
}

TEST_F(SocketPair, RefusesAModeAndClearsBothHandles) {
  const CountedMemory memory;
  OPL_Socket* pair[2] = {reinterpret_cast<OPL_Socket*>(&pair), reinterpret_cast<OPL_Socket*>(&pair)};
  EXPECT_EQ(0x050903u, OPL_SocketPairCreate(pair, 1));
  ExpectError(0x050903, "OPL_SocketCreate: Invalid Mode ");
  EXPECT_EQ(nullptr, pair[0]);
  EXPECT_EQ(nullptr, pair[1]);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SocketPair, LeavesNothingBehindWhicheverStepFails) {
  const Footprint before = Footprint::Now();
  for (const int nth : {1, 2}) {
    OPL_Socket* pair[2] = {nullptr, nullptr};
    const FailingMemory memory(nth);
    EXPECT_EQ(0x050902u, OPL_SocketPairCreate(pair, 0));
    EXPECT_TRUE(memory.Fired());
    ExpectError(ENOMEM, "OPL_SocketCreate: malloc error :12");
    EXPECT_EQ(nullptr, pair[0]);
    EXPECT_EQ(nullptr, pair[1]);
  }
  const CountedMemory memory;
  OPL_Socket* pair[2] = {nullptr, nullptr};
  const Fault fault("socketpair", 1, EAFNOSUPPORT);
  EXPECT_EQ(0x05091Fu, OPL_SocketPairCreate(pair, 0));
  ExpectError(EAFNOSUPPORT, "OPL_SocketPairCreate: socketpair :97,Address family not supported by protocol");
  EXPECT_EQ(nullptr, pair[0]);
  EXPECT_EQ(nullptr, pair[1]);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SocketPair, NeedsTwoFreeDescriptors) {
  const Footprint before = Footprint::Now();
  const int next = ::dup(0);
  ASSERT_EQ(0, ::close(next));
  OPL_Socket* pair[2] = {nullptr, nullptr};
  {
    const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next + 1));
    EXPECT_EQ(0x05091Fu, OPL_SocketPairCreate(pair, 0));
  }
  ExpectError(EMFILE, "OPL_SocketPairCreate: socketpair :24,Too many open files");
  EXPECT_EQ(nullptr, pair[0]);
  EXPECT_EQ(before, Footprint::Now());
}

}  // namespace
