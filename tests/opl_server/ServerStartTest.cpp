// Starting a daemon: what a controller is told, what the daemon is then, and what is left when it does not
// come up. The library's sleeps are short, but in the test whose name ends in "Slow".
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "tests/opl_server/Daemons.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/User.h"

namespace {

using opltest::Begun;
using opltest::ContentsOf;
using opltest::ControllerFile;
using opltest::ExpectError;
using opltest::Fault;
using opltest::FilesIn;
using opltest::kLong;
using opltest::PidBytes;
using opltest::Replacement;
using opltest::ServerHandle;
using opltest::ServerList;
using opltest::WriteFile;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// A process id that no process has.
uint32_t DeadPid() {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  EXPECT_EQ(pid, ::waitpid(pid, nullptr, 0));
  return static_cast<uint32_t>(pid);
}

int RunWithShell(const char* command) {
  const auto real = reinterpret_cast<int (*)(const char*)>(::dlsym(RTLD_NEXT, "system"));
  return real(command);
}

class ServerStart : public opltest::Daemons {
 protected:
  void StopAndReap() {
    EXPECT_EQ(OPL_OK, OPL_ServerStop(server_.get(), kLong));
    AwaitEndOfAll();
  }
};

TEST_F(ServerStart, ReturnsWhenTheDaemonSaysThatItIsStarted) {
  EXPECT_EQ(0u, IsStarted(server_));
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun begun = AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(1u, IsStarted(server_));
  EXPECT_EQ(static_cast<uint32_t>(begun.pid), ControllerPid(server_));
  EXPECT_EQ("ab", begun.arguments);
  StopAndReap();
  EXPECT_EQ("ended 0 77", Event());
  EXPECT_EQ(0u, IsStarted(server_));
  EXPECT_FALSE(Exists(ControllerFile()));
}

TEST_F(ServerStart, LeavesTheDaemonToTheSpawnerInAProcessGroupOfItsOwn) {
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun begun = AwaitBegun(name_);
  const std::vector<pid_t> children = Children();
  EXPECT_NE(children.end(), std::find(children.begin(), children.end(), begun.pid));
  EXPECT_NE(::getpgrp(), begun.group);
  EXPECT_NE(begun.pid, begun.group);
  EXPECT_EQ(::getsid(0), begun.session);
  EXPECT_EQ("077", begun.mask);
  EXPECT_EQ("012", begun.descriptors);
  StopAndReap();
}

TEST_F(ServerStart, LeavesADaemonWithoutStandardFilesWhereItSoWishes) {
  Behave("close");
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  EXPECT_EQ("none", AwaitBegun(name_).descriptors);
  StopAndReap();
}

TEST_F(ServerStart, WritesTheControllerFileOfFourBytes) {
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun begun = AwaitBegun(name_);
  struct stat status {};
  ASSERT_EQ(0, ::stat(ControllerFile().c_str(), &status));
  EXPECT_EQ(PidBytes(static_cast<uint32_t>(begun.pid)), ContentsOf(ControllerFile()));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  tm local{};
  (void)::localtime_r(&status.st_atime, &local);
  EXPECT_EQ(136, local.tm_year);
  StopAndReap();
}

TEST_F(ServerStart, ListsTheDaemonAndItsChildren) {
  Behave("children");
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun begun = AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  {
    ServerList list(server_);
    EXPECT_EQ(OPL_OK, list.Get());
    ASSERT_EQ(3u, list.Count());
    for (uint32_t i = 0; i < 3; ++i) {
      uint32_t pid = 0;
      uint32_t parent = 0;
      EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPid(list[i], &pid));
      EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPPid(list[i], &parent));
      const bool isDaemon = pid == static_cast<uint32_t>(begun.pid);
      EXPECT_EQ(static_cast<uint32_t>(isDaemon ? ::getpid() : begun.pid), parent);
    }
  }
  EXPECT_EQ(OPL_OK, OPL_ServerTerminate(server_.get(), kLong));
  AwaitEndOfAll();
}

TEST_F(ServerStart, RefusesWhatRunsAlready) {
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  EXPECT_EQ(0x050B08u, Start(server_, kLong));
  ExpectError(0x050B08, "OPL_ServerStart: Server already started.");
  (void)AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  StopAndReap();
  EXPECT_EQ("ended 0 77", Event());
}

TEST_F(ServerStart, StartsAgainWhatHasStopped) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(OPL_OK, Start(server_, kLong));
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
    StopAndReap();
    EXPECT_EQ("ended 0 77", Event());
  }
}

TEST_F(ServerStart, StartsAgainWhatWasKilledAndLeftItsControllerFile) {
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun first = AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(OPL_OK, OPL_ServerKill(server_.get(), kLong));
  AwaitEndOfAll();
  EXPECT_EQ(static_cast<uint32_t>(first.pid), ControllerPid(server_));
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun second = AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(static_cast<uint32_t>(second.pid), ControllerPid(server_));
  StopAndReap();
}

// Each with a name and a controller file of its own.
TEST_F(ServerStart, KeepsTwoServersApart) {
  const ServerHandle other = NewDaemon(name_ + "y", "other");
  Behave("", "other");
  EXPECT_EQ(OPL_OK, Start(other, kLong));
  const Begun second = AwaitBegun(name_ + "y");
  EXPECT_EQ("ready", Event());
  // The longer name has the shorter one in it, and so is listed with it: a third name is neither's.
  const ServerHandle third = NewDaemon("z" + name_.substr(1));
  Behave("");
  EXPECT_EQ(OPL_OK, Start(third, kLong));
  const Begun first = AwaitBegun("z" + name_.substr(1));
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(static_cast<uint32_t>(first.pid), ControllerPid(third));
  EXPECT_EQ(static_cast<uint32_t>(second.pid), ControllerPid(other));
  EXPECT_EQ(OPL_OK, OPL_ServerStop(third.get(), kLong));
  EXPECT_EQ("ended 0 77", Event());
  EXPECT_EQ(0u, IsStarted(third));
  EXPECT_EQ(1u, IsStarted(other));
  EXPECT_TRUE(Exists(ControllerFile("other")));
  EXPECT_EQ(OPL_OK, OPL_ServerStop(other.get(), kLong));
  AwaitEndOfAll();
}

// What does not come up.

TEST_F(ServerStart, TellsThatTheDaemonHasStopped) {
  Behave("exit");
  EXPECT_EQ(0x050B09u, Start(server_, kLong));
  ExpectError(0x050B09, "OPL_ServerStart: the server has stopped.");
}

// Until then it has the controller's own name.
TEST_F(ServerStart, WaitsForAProcessThatHasNotExecutedTheProgramYet) {
  int go[2];
  ASSERT_EQ(0, ::pipe(go));
  const Fault slow("execl", 1, [&] {
    char byte;
    EXPECT_EQ(1, ::read(go[0], &byte, 1));
  });
  duringSleep_ = [&](int number) {
    if (number != 3) return;
    EXPECT_EQ(1, ::write(go[1], "g", 1));
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
  };
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  EXPECT_EQ(3, sleeps_);
  duringSleep_ = nullptr;
  StopAndReap();
}

// A daemon that forks and ends under the eyes of the script is missing from its list.
TEST_F(ServerStart, ListsAgainWhatIsMissing) {
  Behave("silent");
  static int runs;
  runs = 0;
  const Replacement shell(
      "system", +[](const char* command) {
        // The first run is that before the start.
        return ++runs <= 3 ? 0 : RunWithShell(command);
      });
  duringSleep_ = [&](int number) {
    if (number != 1) return;
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
  };
  EXPECT_EQ(0x050B0Fu, Start(server_, 2));
  EXPECT_GE(runs, 4);
}

// Told of each call for a child while the listing's own run in the C library.
pid_t gAwaited[8];
int gAwaitedCount = 0;
pid_t NoteAndWait(pid_t pid, int* status, int options) {
  const auto real = reinterpret_cast<pid_t (*)(pid_t, int*, int)>(::dlsym(RTLD_NEXT, "waitpid"));
  const pid_t reaped = real(pid, status, options);
  if (gAwaitedCount < 8) gAwaited[gAwaitedCount++] = reaped;
  return reaped;
}

// Once it is reaped, the id may be that of another child of the controller's.
TEST_F(ServerStart, AsksForTheFirstProcessOnlyUntilItHasGone) {
  Behave("silent");
  duringSleep_ = [&](int number) {
    if (number != 1) return;
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
    siginfo_t gone{};
    EXPECT_EQ(0, ::waitid(P_ALL, 0, &gone, WEXITED | WNOWAIT));
  };
  {
    const Replacement call("waitpid", NoteAndWait);
    EXPECT_EQ(0x050B0Fu, Start(server_, 4));
  }
  EXPECT_EQ(4, sleeps_);
  ASSERT_EQ(1, gAwaitedCount);
  EXPECT_LT(0, gAwaited[0]);
}

// A look without a wait may be interrupted, too.
TEST_F(ServerStart, TakesNoSignalForTheProgramsExecution) {
  int go[2];
  ASSERT_EQ(0, ::pipe(go));
  const Fault slow("execl", 1, [&] {
    char byte;
    EXPECT_EQ(1, ::read(go[0], &byte, 1));
  });
  std::optional<Fault> signal;
  duringSleep_ = [&](int number) {
    if (number == 1) signal.emplace("poll", 1, EINTR);
    if (number != 2) return;
    EXPECT_TRUE(signal->Fired());
    signal.reset();
    EXPECT_EQ(1, ::write(go[1], "g", 1));
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
  };
  ASSERT_EQ(OPL_OK, Start(server_, kLong));
  EXPECT_EQ(2, sleeps_);
  duringSleep_ = nullptr;
  StopAndReap();
}

TEST_F(ServerStart, ManagesWithoutAPipe) {
  const Fault fault("pipe2", 1, EMFILE);
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  EXPECT_TRUE(fault.Fired());
  StopAndReap();
}

TEST_F(ServerStart, TellsThatTheDaemonWasKilledWhileItStarted) {
  Behave("silent");
  Begun begun;
  duringSleep_ = [&](int number) {
    if (number != 1) return;
    begun = AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
    EXPECT_EQ(0, ::kill(begun.pid, SIGKILL));
    EXPECT_EQ(SIGKILL, Reap(begun.pid));
  };
  EXPECT_EQ(0x050B09u, Start(server_, kLong));
  ExpectError(0x050B09, "OPL_ServerStart: the server has stopped.");
  EXPECT_EQ(1, sleeps_);
}

TEST_F(ServerStart, EndsTheWaitForADaemonThatNeverSaysSo) {
  Behave("silent");
  EXPECT_EQ(0x050B0Fu, Start(server_, 3));
  ExpectError(0x050B0F, "OPL_ServerStart: Server not started (timeout).");
  EXPECT_EQ(3, sleeps_);
  (void)AwaitBegun(name_);
}

TEST_F(ServerStart, DoesNotLookAtAllWithATimeoutOf0) {
  EXPECT_EQ(0x050B0Fu, Start(server_, 0));
  ExpectError(0x050B0F, "OPL_ServerStart: Server not started (timeout).");
  EXPECT_EQ(0, sleeps_);
  (void)AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(1u, IsStarted(server_));
  StopAndReap();
}

TEST_F(ServerStart, ComesTooLateWithTheLastLook) {
  duringSleep_ = [&](int) {
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
  };
  EXPECT_EQ(0x050B0Fu, Start(server_, 1));
  ExpectError(0x050B0F, "OPL_ServerStart: Server not started (timeout).");
  EXPECT_EQ(1, sleeps_);
  EXPECT_TRUE(Exists(ControllerFile()));
  duringSleep_ = nullptr;
  StopAndReap();
}

TEST_F(ServerStart, IsSeenAtTheLookBeforeTheLast) {
  duringSleep_ = [&](int) {
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
  };
  EXPECT_EQ(OPL_OK, Start(server_, 2));
  EXPECT_EQ(1, sleeps_);
  duringSleep_ = nullptr;
  StopAndReap();
}

TEST_F(ServerStart, SleepsASecondBetweenTwoLooksSlow) {
  sleep_.reset();
  Behave("silent");
  timespec begin{};
  timespec end{};
  ASSERT_EQ(0, ::clock_gettime(CLOCK_MONOTONIC, &begin));
  EXPECT_EQ(0x050B0Fu, Start(server_, 3));
  ASSERT_EQ(0, ::clock_gettime(CLOCK_MONOTONIC, &end));
  EXPECT_GE(end.tv_sec - begin.tv_sec + 1, 3);
  EXPECT_EQ(0, sleeps_);
}

TEST_F(ServerStart, DoesNotTakeADeadDaemonsFileForTheNewOnes) {
  WriteFile(ControllerFile(), PidBytes(DeadPid()));
  Behave("silent");
  EXPECT_EQ(0x050B0Fu, Start(server_, 3));
  ExpectError(0x050B0F, "OPL_ServerStart: Server not started (timeout).");
  EndAllChildren();
  WriteFile(ControllerFile(), PidBytes(0xFFFFFFFF));
  EXPECT_EQ(0x050B0Fu, Start(server_, 2));
  EndAllChildren();
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

// The daemon has opened its new file and not written to it yet.
TEST_F(ServerStart, LooksAgainAtAFileThatIsBeingWritten) {
  Behave("silent");
  Begun begun;
  duringSleep_ = [&](int number) {
    if (number == 1) {
      begun = AwaitBegun(name_);
      EXPECT_EQ("ready", Event());
      WriteFile(ControllerFile(), "");
    } else {
      WriteFile(ControllerFile(), PidBytes(static_cast<uint32_t>(begun.pid)));
    }
  };
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  EXPECT_EQ(2, sleeps_);
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ServerStart, PassesOnThatTheFileStaysTooShort) {
  Behave("silent");
  duringSleep_ = [&](int number) {
    if (number != 1) return;
    (void)AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
    WriteFile(ControllerFile(), "ab");
  };
  EXPECT_EQ(0x050B0Du, Start(server_, kLong));
  EXPECT_EQ(2, sleeps_);
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ServerStart, PassesOnWhatIsWrongWithTheControllerFile) {
  WriteFile(ControllerFile(), "ab");
  Behave("silent");
  EXPECT_EQ(0x050B0Du, Start(server_, 3));
  ExpectError(0x050B0D,
              ("ControllerPidGet: read error: invalid size read (wanted 4, read 2)\nFile " + ControllerFile())
                  .c_str());
  EXPECT_EQ(1, sleeps_);
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ServerStart, PassesOnWhatIsWrongWithTheListing) {
  const Fault fault("system", 1, EAGAIN);
  EXPECT_EQ(0x050B0Au, Start(server_, 3));
  EXPECT_TRUE(Children().empty());
}

TEST_F(ServerStart, PassesOnWhatIsWrongWithTheListingOfAStartingDaemon) {
  Behave("silent");
  const Fault fault("system", 2, EAGAIN);
  EXPECT_EQ(0x050B0Au, Start(server_, 3));
  ExpectError(EAGAIN, "OPL_ServerInfoGet: system 11,Resource temporarily unavailable.");
}

// The listing that says whether a daemon that starts is still there also has processes of other parents.
TEST_F(ServerStart, ListsDescendantsOfTheSpawnerOnlyAfterwards) {
  Behave("silent foreground");
  EXPECT_EQ(0x050B0Fu, Start(server_, 2));
  ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 0));
  EXPECT_EQ(0u, IsStarted(server_));
  ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1));
}

TEST_F(ServerStart, TellsThatThereIsNoProcess) {
  const Fault fault("fork", 1, EAGAIN);
  EXPECT_EQ(0x050B17u, Start(server_, 3));
  ExpectError(EAGAIN, "OPL_ServerStart: fork 11,Resource temporarily unavailable.");
}

TEST_F(ServerStart, ReturnsInTheChildWhereTheProgramCannotBeExecuted) {
  const ServerHandle server = opltest::NewServer(
      {.scripts = QVOPL_SERVER_SCRIPTS, .process = name_, .executable = "/no/such/program"});
  const pid_t self = ::getpid();
  const OPL_Result rc = OPL_ServerStart(server.get(), nullptr, nullptr, kLong);
  if (::getpid() != self) {
    const bool isTold =
        rc == 0x050B3A &&
        opltest::LastFailure() == opltest::Failure(ENOENT, "OPL_ServerStart: execl(\"/no/such/program\", \"" +
                                                               name_ + "\"): No such file or directory (2).");
    WriteFile("told", isTold ? "yes" : opltest::LastFailure().message);
    ::_exit(0);
  }
  EXPECT_EQ(0x050B09u, rc);
  ExpectError(0x050B09, "OPL_ServerStart: the server has stopped.");
  EXPECT_EQ("yes", ContentsOf("told"));
}

TEST_F(ServerStart, LeavesNeitherFilesNorProcesses) {
  Behave("exit");
  const opltest::Footprint before = opltest::Footprint::Now();
  EXPECT_EQ(0x050B09u, Start(server_, kLong));
  EXPECT_EQ(before, opltest::Footprint::Now());
  // The scripts' own are on their way out.
  AwaitEndOfAll();
}

// Two controllers at once: each process is one that a daemon can be asked about, and all of them stop.
TEST_F(ServerStart, MayBeCalledByTwoControllersAtOnce) {
  opltest::Child second([&](opltest::Steps& steps) {
    steps.WaitForGo();
    const OPL_Result rc = Start(server_, kLong);
    EXPECT_TRUE(rc == OPL_OK || rc == OPL_SERVER_E_STARTED) << rc;
  });
  second.Go();
  const OPL_Result rc = Start(server_, kLong);
  EXPECT_TRUE(rc == OPL_OK || rc == OPL_SERVER_E_STARTED) << rc;
  second.ExpectSuccess();
  EXPECT_EQ(1u, IsStarted(server_));
  EXPECT_EQ(OPL_OK, OPL_ServerStop(server_.get(), kLong));
  EXPECT_EQ(0u, IsStarted(server_));
  EndAllChildren();
  (void)::unlink(ControllerFile().c_str());
}

// Two instances in one directory, with the same controller name. Each has a controller of its own.
class ServerInstances : public opltest::Daemons {
 protected:
  ServerInstances() { beginsLibrary_ = false; }
};

std::string FileOf(const std::string& instance) {
  return opltest::IpcDirectory() + "/ctl.OPL_DAEMON.controller." + instance + ".006.021";
}

TEST_F(ServerInstances, LiveSideBySide) {
  const auto control = [&](const std::string& instance) {
    return [&, instance](opltest::Steps& steps) {
      ASSERT_EQ(0, ::setenv("QVOPL_TEST_INSTANCE", instance.c_str(), 1));
      ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
      {
        const ServerHandle server = NewDaemon("q" + instance + std::to_string(::getpid()));
        EXPECT_EQ(OPL_OK, Start(server, kLong));
        steps.Send(std::to_string(ControllerPid(server)));
        steps.WaitForGo();
        EXPECT_EQ(1u, IsStarted(server));
        EXPECT_EQ(OPL_OK, OPL_ServerStop(server.get(), kLong));
        EXPECT_EQ(0u, IsStarted(server));
      }
      EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
      steps.Reach();
      steps.WaitForGo();
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    };
  };
  opltest::Child one(control("ONE"));
  const std::string onesPid = one.Receive();
  opltest::Child two(control("TWO"));
  const std::string twosPid = two.Receive();
  EXPECT_NE(onesPid, twosPid);
  EXPECT_EQ(PidBytes(static_cast<uint32_t>(std::stoul(onesPid))), ContentsOf(FileOf("ONE")));
  EXPECT_EQ(PidBytes(static_cast<uint32_t>(std::stoul(twosPid))), ContentsOf(FileOf("TWO")));
  one.Go();
  one.Await();
  EXPECT_FALSE(Exists(FileOf("ONE")));
  EXPECT_TRUE(Exists(FileOf("TWO")));
  two.Go();
  two.Await();
  EXPECT_FALSE(Exists(FileOf("TWO")));
  one.Go();
  two.Go();
  one.ExpectSuccess();
  two.ExpectSuccess();
}

// The controller file.

class ServerControllerPid : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    server_ = opltest::NewServer({.scripts = "/none"});
  }
  void TearDown() override {
    (void)::unlink(ControllerFile().c_str());
    EXPECT_EQ(4711u, pid_);
    server_.reset();
    Instance::TearDown();
  }
  void ExpectFailure(uint32_t code, uint32_t recorded, const std::string& text) {
    EXPECT_EQ(code, OPL_ServerControllerPidGet(server_.get(), &pid_));
    ExpectError(recorded, ("ControllerPidGet: " + text + "\nFile " + ControllerFile()).c_str());
  }

  ServerHandle server_;
  uint32_t pid_ = 4711;
};

TEST_F(ServerControllerPid, IsWhatTheFileHolds) {
  WriteFile(ControllerFile(), PidBytes(0xFEDCBA98) + "and more");
  uint32_t pid = 0;
  EXPECT_EQ(OPL_OK, OPL_ServerControllerPidGet(server_.get(), &pid));
  EXPECT_EQ(0xFEDCBA98u, pid);
  struct stat status {};
  ASSERT_EQ(0, ::stat(ControllerFile().c_str(), &status));
  tm local{};
  (void)::localtime_r(&status.st_atime, &local);
  EXPECT_EQ(136, local.tm_year);
}

TEST_F(ServerControllerPid, RefusesNullArguments) {
  EXPECT_EQ(0x050B26u, OPL_ServerControllerPidGet(server_.get(), nullptr));
  ExpectError(0x050B26, "OPL_ServerControllerPidGet: pPid is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerControllerPidGet(nullptr, &pid_));
  ExpectError(0x050B26, "OPL_ServerControllerPidGet: pServer is NULL.");
}

TEST_F(ServerControllerPid, TellsThatThereIsNoFile) {
  EXPECT_EQ(0x050B09u, OPL_ServerControllerPidGet(server_.get(), &pid_));
  ExpectError(ENOENT, ("ControllerPidGet: Server not started(open)\nFile " + ControllerFile() + ".").c_str());
}

TEST_F(ServerControllerPid, TellsThatTheFileIsTooShort) {
  WriteFile(ControllerFile(), "ab");
  ExpectFailure(0x050B0D, 0x050B0D, "read error: invalid size read (wanted 4, read 2)");
  WriteFile(ControllerFile(), "");
  ExpectFailure(0x050B0D, 0x050B0D, "read error: invalid size read (wanted 4, read 0)");
}

TEST_F(ServerControllerPid, FollowsNoLinkAndWaitsForNoFifo) {
  WriteFile("elsewhere", PidBytes(17));
  ASSERT_EQ(0, ::symlink((opltest::WorkDirectory() + "/elsewhere").c_str(), ControllerFile().c_str()));
  ExpectFailure(0x050B0B, ELOOP, "open error :40,Too many levels of symbolic links");
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
  ASSERT_EQ(0, ::mkfifo(ControllerFile().c_str(), 0600));
  ExpectFailure(0x050B0D, 0x050B0D, "read error: invalid size read (wanted 4, read 0)");
}

TEST_F(ServerControllerPid, TellsWhatTheSystemRefuses) {
  WriteFile(ControllerFile(), PidBytes(17));
  {
    const Fault fault("open64", 1, EMFILE, Fault::kForGood);
    ExpectFailure(0x050B0B, EMFILE, "open error :24,Too many open files");
  }
  const Fault fault("read", 1, EIO);
  ExpectFailure(0x050B14, EIO, "read error :5,Input/output error");
}

}  // namespace
