// Bound sockets: the address taken, and the file of a local socket, which goes with the record that made it
// and with no other.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/User.h"

namespace {

using opltest::Address;
using opltest::Child;
using opltest::ExpectError;
using opltest::Fault;
using opltest::InetAddress;
using opltest::LocalAddress;
using opltest::PackedLocal;
using opltest::Replacement;
using opltest::Socket;
using opltest::SocketFile;
using opltest::SocketFiles;
using opltest::Steps;

bool IsSocketFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

void Remove(const std::string& path) { EXPECT_EQ(0, ::unlink(path.c_str())) << path; }

// A local stream socket that is bound under the name.
struct Bound : Socket {
  explicit Bound(const std::string& name) : Socket(OPL_SOCKET_LOCAL) {
    const LocalAddress address(name);
    EXPECT_EQ(0u, OPL_SocketBind(*this, address));
  }
};

OPL_Result Bind(const Socket& socket, const std::string& name) {
  const LocalAddress address(name);
  return OPL_SocketBind(socket, address);
}

class SocketBind : public opltest::Instance {};
class SocketFileOf : public opltest::Instance {};

TEST_F(SocketBind, TakesAnIPv4Address) {
  const Socket socket(OPL_SOCKET_INET);
  const InetAddress address;
  EXPECT_EQ(0u, OPL_SocketBind(socket, address));
  const Address name;
  EXPECT_EQ(0u, OPL_SocketAddressGet(socket, name));
  EXPECT_NE(0, name.Port());
}

TEST_F(SocketBind, MakesALocalSocketsFile) {
  Bound socket("q");
  EXPECT_EQ(std::vector<std::string>{"q.sck." + opltest::InstanceString() + ".006.021"}, SocketFiles());
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
}

TEST_F(SocketBind, MakesADatagramSocketsFile) {
  const Socket socket(OPL_SOCKET_LOCAL, OPL_SOCKET_DATAGRAM);
  EXPECT_EQ(0u, Bind(socket, "q"));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
}

TEST_F(SocketBind, TakesAPathOfNinetyTwoCharacters) {
  const std::string name(92 - SocketFile("").size(), 'n');
  Bound socket(name);
  EXPECT_TRUE(IsSocketFile(SocketFile(name)));
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_TRUE(SocketFiles().empty());
}

// The record has no room for it, and so could not remove the file.
TEST_F(SocketBind, RefusesALongerPathThatSomebodyElseHasPacked) {
  const Socket socket(OPL_SOCKET_LOCAL);
  for (const size_t length : {93, 107, 108, 110}) {
    Address address;
    address.SetBytes(PackedLocal(std::string(length, 'p')));
    EXPECT_EQ(0x050924u, OPL_SocketBind(socket, address)) << length;
    ExpectError(0x050924, "OPL_SocketBind: Address invalid.");
  }
  EXPECT_TRUE(opltest::FilesIn(".").empty());
}

// The arguments that the stand-in has seen, but for the address.
std::vector<int> gSeen;

int SeeBind(int fd, const struct sockaddr* address, socklen_t length) {
  gSeen = {fd, address->sa_family, static_cast<int>(length)};
  errno = EINVAL;
  return -1;
}

TEST_F(SocketBind, TellsTheSystemTheFamilysLength) {
  const Socket socket;
  const Address fresh;
  const InetAddress inet;
  const LocalAddress local("q");
  const Replacement bindCall("bind", SeeBind);
  EXPECT_EQ(0x050910u, OPL_SocketBind(socket, fresh));
  EXPECT_EQ((std::vector<int>{-1, 0, 16}), gSeen);
  EXPECT_EQ(0x050910u, OPL_SocketBind(socket, inet));
  EXPECT_EQ((std::vector<int>{-1, 2, 16}), gSeen);
  EXPECT_EQ(0x050910u, OPL_SocketBind(socket, local));
  EXPECT_EQ((std::vector<int>{-1, 1, 110}), gSeen);
}

TEST_F(SocketBind, SetsNoOption) {
  const Socket first(OPL_SOCKET_INET);
  const InetAddress any;
  const Fault fault("setsockopt", 1, EIO);
  ASSERT_EQ(0u, OPL_SocketBind(first, any));
  EXPECT_FALSE(fault.Fired());
  const Address taken;
  ASSERT_EQ(0u, OPL_SocketAddressGet(first, taken));
  const Socket second(OPL_SOCKET_INET);
  EXPECT_EQ(0x050910u, OPL_SocketBind(second, taken));
  ExpectError(EADDRINUSE, "OPL_SocketBind: bind :98,Address already in use");
}

TEST_F(SocketBind, RemovesNoFileThatIsThere) {
  Bound first("q");
  const Socket second(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0x050910u, Bind(second, "q"));
  ExpectError(EADDRINUSE, "OPL_SocketBind: bind :98,Address already in use");
  opltest::WriteFile(SocketFile("plain"), "contents");
  EXPECT_EQ(0x050910u, Bind(second, "plain"));
  EXPECT_EQ("contents", opltest::ContentsOf(SocketFile("plain")));
  Remove(SocketFile("plain"));
}

TEST_F(SocketBind, TellsTheSystemsRefusal) {
  const Socket closed;
  EXPECT_EQ(0x050910u, Bind(closed, "q"));
  ExpectError(EBADF, "OPL_SocketBind: bind :9,Bad file descriptor");
  const Socket inet(OPL_SOCKET_INET);
  EXPECT_EQ(0x050910u, Bind(inet, "q"));
  ExpectError(EAFNOSUPPORT, "OPL_SocketBind: bind :97,Address family not supported by protocol");
  EXPECT_TRUE(SocketFiles().empty());
}

TEST_F(SocketBind, NeedsTheDirectory) {
  const Socket socket(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0x050910u, Bind(socket, "no/such/directory"));
  ExpectError(ENOENT, "OPL_SocketBind: bind :2,No such file or directory");
}

// The system's own address without a file.
TEST_F(SocketBind, TakesAnEmptyPath) {
  const Socket socket(OPL_SOCKET_LOCAL);
  Address address;
  address.SetBytes(PackedLocal(""));
  EXPECT_EQ(0u, OPL_SocketBind(socket, address));
  EXPECT_EQ(0u, OPL_SocketClose(socket));
}

TEST_F(SocketFileOf, ASocketGoesWithItsClose) {
  Bound socket("q");
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_TRUE(SocketFiles().empty());
  EXPECT_EQ(-1, socket.fd());
}

TEST_F(SocketFileOf, ASocketGoesWithItsEnd) {
  { Bound socket("q"); }
  EXPECT_TRUE(SocketFiles().empty());
}

TEST_F(SocketFileOf, ASocketStaysWithTheLiteEnd) {
  Bound socket("q");
  EXPECT_EQ(0u, OPL_SocketDestroyLite(socket.handle()));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  Remove(SocketFile("q"));
}

TEST_F(SocketFileOf, ASocketIsMadeAgainByTheSameRecord) {
  Bound socket("q");
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(0u, OPL_SocketClose(socket));
    EXPECT_TRUE(SocketFiles().empty());
    EXPECT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
    EXPECT_EQ(0u, Bind(socket, "q"));
    EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  }
}

// The name may be another's after the first close.
TEST_F(SocketFileOf, AnotherSurvivesASecondClose) {
  Bound first("q");
  EXPECT_EQ(0u, OPL_SocketClose(first));
  Bound second("q");
  EXPECT_EQ(0u, OPL_SocketClose(first));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  EXPECT_EQ(0u, OPL_SocketOpen(first, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
  EXPECT_EQ(0u, OPL_SocketDestroy(first.handle()));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
}

TEST_F(SocketFileOf, AnotherSurvivesTheCloseAfterABindThatFailed) {
  Bound first("q");
  {
    const Socket second(OPL_SOCKET_LOCAL);
    EXPECT_EQ(0x050910u, Bind(second, "q"));
    EXPECT_EQ(0u, OPL_SocketClose(second));
    EXPECT_TRUE(IsSocketFile(SocketFile("q")));
    EXPECT_EQ(0u, OPL_SocketOpen(second, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
    EXPECT_EQ(0x050910u, Bind(second, "q"));
  }
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
}

TEST_F(SocketFileOf, ARefusedSecondBindLeavesWhatTheFirstHasMade) {
  Bound other("b");
  {
    Bound socket("a");
    EXPECT_EQ(0x050910u, Bind(socket, "b"));
    EXPECT_TRUE(IsSocketFile(SocketFile("a")));
  }
  EXPECT_FALSE(Exists(SocketFile("a")));
  EXPECT_TRUE(IsSocketFile(SocketFile("b")));
}

TEST_F(SocketFileOf, AnotherSurvivesUnderTheNameOfOneThatIsGone) {
  Bound first("q");
  Remove(SocketFile("q"));
  Bound second("q");
  EXPECT_EQ(0u, OPL_SocketClose(first));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  // And so does what is no socket.
  EXPECT_EQ(0u, OPL_SocketClose(second));
  Bound third("q");
  Remove(SocketFile("q"));
  opltest::WriteFile(SocketFile("q"), "contents");
  EXPECT_EQ(0u, OPL_SocketDestroy(third.handle()));
  EXPECT_EQ("contents", opltest::ContentsOf(SocketFile("q")));
  Remove(SocketFile("q"));
}

TEST_F(SocketFileOf, ASocketMayBeGoneBeforeItsClose) {
  Bound socket("q");
  Remove(SocketFile("q"));
  EXPECT_EQ(0u, OPL_SocketClose(socket));
}

TEST_F(SocketFileOf, ASocketStaysWhereTheSystemRefusesItsRemoval) {
  Bound socket("q");
  {
    const Fault fault("unlink", 1, EPERM);
    EXPECT_EQ(0u, OPL_SocketClose(socket));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(-1, socket.fd());
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  Remove(SocketFile("q"));
}

// A record that was never opened is of no family.
TEST_F(SocketFileOf, ASocketThatWasNotOpenedByTheRecordStays) {
  const Socket socket;
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(socket, ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  EXPECT_EQ(0u, Bind(socket, "q"));
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  Remove(SocketFile("q"));
}

TEST_F(SocketFileOf, ASocketWhoseDescriptorWasTakenAwayGoesWithTheCloseAlone) {
  Bound closed("closed");
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(closed, -1));
  EXPECT_TRUE(Exists(SocketFile("closed")));
  EXPECT_EQ(0u, OPL_SocketClose(closed));
  EXPECT_FALSE(Exists(SocketFile("closed")));

  Bound destroyed("destroyed");
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(destroyed, -1));
  EXPECT_EQ(0u, OPL_SocketDestroy(destroyed.handle()));
  EXPECT_TRUE(Exists(SocketFile("destroyed")));
  Remove(SocketFile("destroyed"));
}

// Until a file that is made now is younger than all that were made before: files get their times from the
// coarse clock, and none is ahead of the fine one.
void AwaitTheNextTime() {
  timespec before{};
  timespec now{};
  EXPECT_EQ(0, ::clock_gettime(CLOCK_REALTIME, &before));
  do EXPECT_EQ(0, ::clock_gettime(CLOCK_REALTIME_COARSE, &now));
  while (std::tie(now.tv_sec, now.tv_nsec) <= std::tie(before.tv_sec, before.tv_nsec));
}

bool HasTimeOfMaking(const std::string& path) {
  struct statx status {};
  EXPECT_EQ(0, ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &status));
  return (status.stx_mask & STATX_BTIME) != 0;
}

// Without the descriptor the system may give the file's number to the next one.
TEST_F(SocketFileOf, AnotherSurvivesUnderTheNameOfOneWhoseDescriptorWasTakenAway) {
  Bound first("q");
  EXPECT_EQ(0u, OPL_SocketSetNativeSocket(first, -1));
  const bool isTold = HasTimeOfMaking(SocketFile("q"));
  Remove(SocketFile("q"));
  if (!isTold) GTEST_SKIP() << "the file system does not keep the time of a file's making";
  AwaitTheNextTime();
  Bound second("q");
  EXPECT_EQ(0u, OPL_SocketClose(first));
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
}

TEST_F(SocketFileOf, ASocketGoesWhileAnotherProcessHoldsTheDescriptor) {
  Bound socket("q");
  Child holder([&](Steps& steps) {
    steps.Reach();
    steps.WaitForGo();
    EXPECT_NE(-1, ::fcntl(socket.fd(), F_GETFD));
    EXPECT_FALSE(Exists(SocketFile("q")));
  });
  holder.Await();
  EXPECT_EQ(0u, OPL_SocketClose(socket));
  EXPECT_FALSE(Exists(SocketFile("q")));
  holder.Go();
  holder.ExpectSuccess();
}

TEST_F(SocketFileOf, ASocketOutlivesAForkedChildThatEndsItLite) {
  Bound socket("q");
  Child child([&](Steps&) {
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    EXPECT_EQ(0u, OPL_SocketDestroyLite(socket.handle()));
    EXPECT_EQ(nullptr, *socket.handle());
  });
  child.ExpectSuccess();
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
  EXPECT_EQ(0u, OPL_SocketListen(socket, 1));
}

TEST_F(SocketFileOf, ASocketGoesWithTheCloseOfAForkedChild) {
  Bound socket("q");
  Child child([&](Steps&) {
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    EXPECT_EQ(0u, OPL_SocketClose(socket));
  });
  child.ExpectSuccess();
  EXPECT_FALSE(Exists(SocketFile("q")));
  EXPECT_EQ(0u, OPL_SocketClose(socket));
}

TEST_F(SocketFileOf, ADeadProcessStaysInTheWay) {
  Child child([](Steps& steps) {
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    Bound socket("q");
    steps.Reach();
    steps.WaitForGo();
  });
  child.Await();
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
  const Socket socket(OPL_SOCKET_LOCAL);
  EXPECT_EQ(0x050910u, Bind(socket, "q"));
  ExpectError(EADDRINUSE, "OPL_SocketBind: bind :98,Address already in use");
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*"));
  EXPECT_EQ(0u, Bind(socket, "q"));
}

TEST_F(SocketFileOf, ASocketIsOutOfAnotherUsersReach) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::LetOtherUsersIn();
  Bound socket("q");
  Child child([](Steps&) {
    opltest::BecomeOtherUser();
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    const Socket other(OPL_SOCKET_LOCAL);
    EXPECT_EQ(0x050910u, Bind(other, "q"));
    EXPECT_EQ(0x050911u, OPL_SocketConnect(other, LocalAddress("q")));
    ExpectError(EACCES, "OPL_SocketConnect: Connect :13,Permission denied");
  });
  child.ExpectSuccess();
  EXPECT_TRUE(IsSocketFile(SocketFile("q")));
}

}  // namespace
