// The removal of an instance's local socket files, by itself and with all that an instance has left.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"

namespace {

using opltest::Child;
using opltest::ExpectError;
using opltest::Fault;
using opltest::LocalAddress;
using opltest::Peer;
using opltest::Socket;
using opltest::SocketFile;
using opltest::SocketFiles;
using opltest::Steps;

// Binds sockets of the names it is told, until the empty one.
const opltest::PeerBody kBinder("Binder", [](Steps& steps) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  for (std::string name = steps.Receive(); !name.empty(); name = steps.Receive()) {
    OPL_Socket* socket = nullptr;
    ASSERT_EQ(0u, OPL_SocketCreate(&socket, 0));
    ASSERT_EQ(0u, OPL_SocketOpen(socket, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
    const LocalAddress address(name);
    ASSERT_EQ(0u, OPL_SocketBind(socket, address));
    steps.Reach();
  }
});

// Leaves what a process of that width has bound and not closed when it is killed.
void LeaveBehind(int width, const std::vector<std::string>& names) {
  Peer binder(kBinder, width);
  for (const std::string& name : names) {
    binder.Send(name);
    binder.Await();
  }
  binder.Kill();
  binder.ExpectKilledBy(SIGKILL);
}

std::string NameOfWidth(const ::testing::TestParamInfo<int>& test) {
  return "Of" + std::to_string(test.param) + "Bits";
}

void MakeSocketFile(const std::string& path) { EXPECT_EQ(0, ::mknod(path.c_str(), S_IFSOCK | 0600, 0)); }

void Remove(const std::string& path) { EXPECT_EQ(0, ::unlink(path.c_str())) << path; }

// What a process left behind that was killed, for a process that never begins.
class SocketTerminateUnbegun : public ::testing::TestWithParam<int> {
 protected:
  void TearDown() override {
    // The management lock goes with its last user.
    ASSERT_EQ(0u, OPL_InitBegin(0));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  }
};
INSTANTIATE_TEST_SUITE_P(Peer, SocketTerminateUnbegun, ::testing::ValuesIn(opltest::PeerWidths()),
                         NameOfWidth);

TEST_P(SocketTerminateUnbegun, RemovesTheInstancesFiles) {
  LeaveBehind(GetParam(), {"one", "two"});
  EXPECT_EQ(2u, SocketFiles().size());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(SocketFiles().empty());
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
}

TEST_P(SocketTerminateUnbegun, RemovesOnlyWhatThePatternMatches) {
  LeaveBehind(GetParam(), {"one", "two"});
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "o*"));
  EXPECT_EQ(std::vector<std::string>{"two.sck." + opltest::InstanceString() + ".006.021"}, SocketFiles());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "no-such-*"));
  EXPECT_EQ(1u, SocketFiles().size());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*.sck.*"));
  EXPECT_TRUE(SocketFiles().empty());
}

class SocketTerminate : public opltest::Instance, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Peer, SocketTerminate, ::testing::ValuesIn(opltest::PeerWidths()), NameOfWidth);

TEST_P(SocketTerminate, LetsTheNameBeBoundAgain) {
  LeaveBehind(GetParam(), {"q"});
  const Socket socket(OPL_SOCKET_LOCAL);
  const LocalAddress address("q");
  EXPECT_EQ(0x050910u, OPL_SocketBind(socket, address));
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0xFFFFFFFF, "q.*"));
  EXPECT_EQ(0u, OPL_SocketBind(socket, address));
}

class SocketTerminateFiles : public opltest::Instance {
 protected:
  const std::string directory_ = opltest::IpcDirectory() + "/";
  const std::string instance_ = opltest::InstanceString();
};

TEST_F(SocketTerminateFiles, SucceedsWithNone) {
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*.sck.*"));
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, ""));
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, nullptr));
}

TEST_F(SocketTerminateFiles, RemovesThatOfASocketInUse) {
  const opltest::Listener listener("q");
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*"));
  EXPECT_TRUE(SocketFiles().empty());
  EXPECT_EQ(0u, OPL_SocketClose(listener));
}

// Another instance, another version, another kind, and what only looks like one stay.
TEST_F(SocketTerminateFiles, LeavesAllOthers) {
  std::vector<std::string> others = {"q.sck.OTHER.006.021",
                                     "q.sck.OTHER" + instance_.substr(1) + ".006.021",
                                     "q.sck." + instance_ + ".007.0",
                                     "q.sck." + instance_,
                                     "q.sock." + instance_ + ".006.021",
                                     "q.event.OTHER.006.021",
                                     "plain"};
  for (const std::string& other : others) MakeSocketFile(directory_ + other);
  MakeSocketFile(SocketFile("q"));
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*"));
  for (const std::string& other : others) Remove(directory_ + other);
  EXPECT_TRUE(SocketFiles().empty());
}

// A file's name is searched as plain text: what merely contains all three counts as the instance's.
TEST_F(SocketTerminateFiles, RemovesThatWhoseNameContainsAllItLooksFor) {
  opltest::WriteFile(directory_ + "006.021.x.sck.x" + instance_ + "x", "not even a socket");
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*"));
  EXPECT_TRUE(SocketFiles().empty());
}

// The directory's own name does not count.
TEST_F(SocketTerminateFiles, LooksAtTheLastPartOfAPathAlone) {
  const std::string below = directory_ + "a.sck." + instance_ + ".006.021";
  ASSERT_EQ(0, ::mkdir(below.c_str(), 0700));
  opltest::WriteFile(below + "/plain", "");
  MakeSocketFile(below + "/b.sck." + instance_ + ".006.021");
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*/*"));
  EXPECT_EQ(std::vector<std::string>{"plain"}, opltest::FilesIn(below));
  Remove(below + "/plain");
  EXPECT_EQ(0, ::rmdir(below.c_str()));
}

TEST_F(SocketTerminateFiles, ReturnsTheFirstFailureAndRemovesTheRest) {
  const std::string stubborn = SocketFile("b");
  ASSERT_EQ(0, ::mkdir(stubborn.c_str(), 0700));
  for (const char* name : {"a", "c"}) MakeSocketFile(SocketFile(name));
  EXPECT_EQ(0x050D13u, OPL_SocketTerminateIPC(0, "*"));
  ExpectError(EISDIR, ("OPL_FileRm: unlink failed 21, Is a directory\nFile " + stubborn).c_str());
  EXPECT_EQ(1u, SocketFiles().size());
  EXPECT_EQ(0x050D13u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(0, ::rmdir(stubborn.c_str()));
}

// Its owner has closed it between the listing and the removal.
TEST_F(SocketTerminateFiles, CountsOneThatIsGoneAsRemoved) {
  MakeSocketFile(SocketFile("a"));
  MakeSocketFile(SocketFile("b"));
  const Fault fault("unlink", 1, [] { Remove(SocketFile("a")); });
  EXPECT_EQ(0u, OPL_SocketTerminateIPC(0, "*"));
  EXPECT_TRUE(SocketFiles().empty());
}

TEST_F(SocketTerminateFiles, TellsWhenTheDirectoryCannotBeListed) {
  MakeSocketFile(SocketFile("a"));
  {
    const Fault fault("glob64", 1, EIO);
    EXPECT_EQ(0x050D09u, OPL_SocketTerminateIPC(0, "*"));
  }
  ExpectError(0x050D09, "OPL_FileNameFind: glob error 2.");
  Remove(SocketFile("a"));
}

}  // namespace
