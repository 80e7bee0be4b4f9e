// Sockets: each function does what its system call does. The library is not begun in these tests.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "OPL_Crt.h"

namespace {

int OptionOf(int fd, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(0, ::getsockopt(fd, SOL_SOCKET, option, &value, &length));
  return value;
}

TEST(CrtSocket, PassesFamilyTypeAndProtocol) {
  const int32_t fd = OPL_CrtSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  ASSERT_LE(0, fd);
  EXPECT_EQ(AF_INET, OptionOf(fd, SO_DOMAIN));
  EXPECT_EQ(SOCK_DGRAM, OptionOf(fd, SO_TYPE));
  EXPECT_EQ(IPPROTO_UDP, OptionOf(fd, SO_PROTOCOL));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtSocket, FailsForAnUnknownFamily) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtSocket(9999, SOCK_STREAM, 0));
  EXPECT_EQ(EAFNOSUPPORT, errno);
}

TEST(CrtSocket, FailsForAProtocolOfAnotherType) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtSocket(AF_INET, SOCK_STREAM, IPPROTO_UDP));
  EXPECT_EQ(EPROTONOSUPPORT, errno);
}

TEST(CrtSocketPair, GivesTwoConnectedEnds) {
  int32_t fds[2] = {-1, -1};
  ASSERT_EQ(0, OPL_CrtSocketPair(AF_UNIX, SOCK_STREAM, 0, fds));
  char buffer[2] = "";
  EXPECT_EQ(1, ::write(fds[0], "x", 1));
  EXPECT_EQ(1, ::read(fds[1], buffer, 1));
  EXPECT_EQ('x', buffer[0]);
  EXPECT_EQ(1, ::write(fds[1], "y", 1));
  EXPECT_EQ(1, ::read(fds[0], buffer, 1));
  EXPECT_EQ('y', buffer[0]);
  EXPECT_EQ(0, ::close(fds[0]));
  EXPECT_EQ(0, ::close(fds[1]));
}

TEST(CrtSocketPair, FailsForAFamilyWithoutPairs) {
  int32_t fds[2] = {-1, -1};
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtSocketPair(AF_INET, SOCK_STREAM, 0, fds));
  EXPECT_EQ(EOPNOTSUPP, errno);
}

TEST(CrtSocketPair, FailsForAProtocolThatThereIsNot) {
  int32_t fds[2] = {-1, -1};
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtSocketPair(AF_UNIX, SOCK_STREAM, 9999, fds));
  EXPECT_EQ(EPROTONOSUPPORT, errno);
}

class CrtAccept : public ::testing::Test {
 protected:
  void SetUp() override {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    caller_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    ASSERT_EQ(0, ::bind(listener_, reinterpret_cast<struct sockaddr*>(&address_), length));
    ASSERT_EQ(0, ::listen(listener_, 1));
    ASSERT_EQ(0, ::getsockname(listener_, reinterpret_cast<struct sockaddr*>(&address_), &length));
    ASSERT_EQ(0, ::connect(caller_, reinterpret_cast<struct sockaddr*>(&address_), length));
  }
  void TearDown() override {
    EXPECT_EQ(0, ::close(listener_));
    EXPECT_EQ(0, ::close(caller_));
  }

  int listener_ = -1;
  int caller_ = -1;
  struct sockaddr_in address_ {};
};

TEST_F(CrtAccept, GivesTheConnectionAndThePeersAddress) {
  struct sockaddr_in peer {};
  struct sockaddr_in expected {};
  socklen_t length = sizeof peer;
  const int32_t fd = OPL_CrtAccept(listener_, reinterpret_cast<struct sockaddr*>(&peer), &length);
  ASSERT_LE(0, fd);
  ASSERT_EQ(0, ::getsockname(caller_, reinterpret_cast<struct sockaddr*>(&expected), &length));
  EXPECT_EQ(sizeof peer, length);
  EXPECT_EQ(expected.sin_port, peer.sin_port);
  EXPECT_EQ(expected.sin_addr.s_addr, peer.sin_addr.s_addr);
  char buffer[1] = "";
  EXPECT_EQ(1, ::write(caller_, "x", 1));
  EXPECT_EQ(1, ::read(fd, buffer, 1));
  EXPECT_EQ('x', buffer[0]);
  EXPECT_EQ(0, ::close(fd));
}

TEST_F(CrtAccept, TakesNullForAnAddressThatNobodyWants) {
  const int32_t fd = OPL_CrtAccept(listener_, nullptr, nullptr);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0, ::close(fd));
}

TEST_F(CrtAccept, FailsForWhatDoesNotListen) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtAccept(caller_, nullptr, nullptr));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(CrtAccept, FailsForWhatIsNoSocket) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtAccept(STDIN_FILENO, nullptr, nullptr));
  EXPECT_EQ(ENOTSOCK, errno);
}

}  // namespace
