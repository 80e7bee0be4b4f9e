// Asking for a daemon, and stopping it by either of three signals.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "OPL_Err.h"
#include "OPL_Server.h"
#include "tests/opl_server/Daemons.h"
#include "tests/support/Faults.h"

namespace {

using opltest::Begun;
using opltest::ControllerFile;
using opltest::ExpectError;
using opltest::FakeScripts;
using opltest::Fault;
using opltest::kLong;
using opltest::NewServer;
using opltest::Replacement;
using opltest::ServerHandle;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

class ServerStop : public opltest::Daemons {
 protected:
  Begun StartOne() {
    EXPECT_EQ(OPL_OK, Start(server_, kLong));
    const Begun begun = AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
    return begun;
  }
};

TEST_F(ServerStop, CallsTheDaemonsCallbackOnBothRequests) {
  for (const auto stop : {OPL_ServerStop, OPL_ServerTerminate}) {
    const Begun begun = StartOne();
    EXPECT_EQ(OPL_OK, stop(server_.get(), kLong));
    EXPECT_EQ("ended 0 77", Event());
    EXPECT_EQ(0, Reap(begun.pid));
    EXPECT_FALSE(Exists(ControllerFile()));
    EXPECT_EQ(0u, IsStarted(server_));
  }
}

TEST_F(ServerStop, KillsAndLeavesTheControllerFile) {
  const Begun begun = StartOne();
  EXPECT_EQ(OPL_OK, OPL_ServerKill(server_.get(), kLong));
  EXPECT_EQ(SIGKILL, Reap(begun.pid));
  EXPECT_EQ(static_cast<uint32_t>(begun.pid), ControllerPid(server_));
  EXPECT_EQ(0u, IsStarted(server_));
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ServerStop, KillsTheDaemonsChildrenToo) {
  Behave("children");
  (void)StartOne();
  EXPECT_EQ(OPL_OK, OPL_ServerKill(server_.get(), kLong));
  AwaitEndOfAll();
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ServerStop, EndsTheWaitForOneThatDoesNotStop) {
  Behave("stubborn");
  (void)StartOne();
  sleeps_ = 0;
  EXPECT_EQ(0x050B0Fu, OPL_ServerStop(server_.get(), 3));
  ExpectError(0x050B0F, "SignalProcess: Server not stopping.");
  EXPECT_EQ(3, sleeps_);
  EXPECT_EQ(1u, IsStarted(server_));
  EXPECT_EQ(OPL_OK, OPL_ServerKill(server_.get(), kLong));
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ServerStop, DoesNotLookAtAllWithAWaitOf0) {
  const Begun begun = StartOne();
  sleeps_ = 0;
  EXPECT_EQ(0x050B0Fu, OPL_ServerStop(server_.get(), 0));
  ExpectError(0x050B0F, "SignalProcess: Server not stopping.");
  EXPECT_EQ(0, sleeps_);
  EXPECT_EQ("ended 0 77", Event());
  EXPECT_EQ(0, Reap(begun.pid));
}

TEST_F(ServerStop, RefusesWhatDoesNotRun) {
  for (const auto stop : {OPL_ServerStop, OPL_ServerTerminate, OPL_ServerKill}) {
    EXPECT_EQ(0x050B09u, stop(server_.get(), 3));
    ExpectError(0x050B09, "SignalProcess: Server nor started.");
  }
  EXPECT_EQ(0, sleeps_);
}

TEST_F(ServerStop, IsNamedOtherwiseInTheRefusalOfNull) {
  EXPECT_EQ(0x050B26u, OPL_ServerIsStarted(server_.get(), nullptr));
  ExpectError(0x050B26, "OPL_ServerIsRunning: pIsRunning is NULL.");
}

// Against a list of the test's making, with nobody signalled.

std::string gKilled;
int KillNobody(pid_t pid, int signal) {
  gKilled += std::to_string(pid) + ":" + std::to_string(signal) + " ";
  if (pid < 1000) return 0;
  errno = pid == 2222 ? ESRCH : EPERM;
  return -1;
}

class ServerSignal : public opltest::Daemons {
 protected:
  void SetUp() override {
    Daemons::SetUp();
    opltest::NameSpawner("1");
    gKilled = "";
    fake_ = NewServer({.scripts = FakeScripts()});
  }
  void TearDown() override {
    fake_.reset();
    Daemons::TearDown();
  }

  ServerHandle fake_;
};

TEST_F(ServerSignal, GoesToEveryListedProcess) {
  const Replacement kill("kill", KillNobody);
  opltest::ListProcesses("11 1 a b daemon\n12 11 a b daemon\n13 7 a b daemon\n");
  EXPECT_EQ(0x050B0Fu, OPL_ServerStop(fake_.get(), 1));
  EXPECT_EQ(0x050B0Fu, OPL_ServerTerminate(fake_.get(), 1));
  EXPECT_EQ(0x050B0Fu, OPL_ServerKill(fake_.get(), 1));
  EXPECT_EQ("11:10 12:10 11:15 12:15 11:9 12:9 ", gKilled);
}

// The system takes 0 and negative numbers for groups, and -1 for everybody.
TEST_F(ServerSignal, GoesToNoGroups) {
  const Replacement kill("kill", KillNobody);
  opltest::ListProcesses(
      "0 1 a b daemon\n-1 1 a b daemon\n-17 1 a b daemon\n4294967279 1 a b daemon\n"
      "99999999999 1 a b daemon\nx 1 a b daemon\n11 1 a b daemon\n2147483648 1 a b daemon\n");
  EXPECT_EQ(0x050B0Fu, OPL_ServerKill(fake_.get(), 1));
  EXPECT_EQ("11:9 ", gKilled);
}

TEST_F(ServerSignal, DoesNotMindProcessesThatAreGone) {
  const Replacement kill("kill", KillNobody);
  opltest::ListProcesses("2222 1 a b daemon\n11 1 a b daemon\n");
  duringSleep_ = [](int) { opltest::ListProcesses(""); };
  EXPECT_EQ(OPL_OK, OPL_ServerStop(fake_.get(), 5));
  EXPECT_EQ("2222:10 11:10 ", gKilled);
  EXPECT_EQ(1, sleeps_);
}

TEST_F(ServerSignal, GoesToTheOthersWhereOneIsRefused) {
  const Replacement kill("kill", KillNobody);
  opltest::ListProcesses("3333 1 a b daemon\n11 1 a b daemon\n2222 1 a b daemon\n12 1 a b daemon\n");
  EXPECT_EQ(0x050B0Eu, OPL_ServerStop(fake_.get(), 5));
  ExpectError(EPERM, "SignalProcess: kill 1,Operation not permitted.");
  EXPECT_EQ("3333:10 11:10 2222:10 12:10 ", gKilled);
  EXPECT_EQ(0, sleeps_);
}

TEST_F(ServerSignal, PassesOnWhatIsWrongWithAnyListing) {
  const Replacement kill("kill", KillNobody);
  opltest::ListProcesses("11 1 a b daemon\n");
  for (const int nth : {1, 2, 3, 4}) {
    const Fault fault("system", nth, EAGAIN);
    EXPECT_EQ(0x050B0Au, OPL_ServerStop(fake_.get(), 5)) << nth;
    ExpectError(EAGAIN, "OPL_ServerInfoGet: system 11,Resource temporarily unavailable.");
  }
}

}  // namespace
