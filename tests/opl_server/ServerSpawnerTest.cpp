// Whose children daemons become: what is read of the script's answer, and what the installation's own script
// answers.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "OPL_Server.h"
#include "tests/opl_server/Servers.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ExpectError;
using opltest::FakeScripts;
using opltest::Fault;
using opltest::Footprint;
using opltest::NewServer;
using opltest::Replacement;
using opltest::ServerHandle;

class ServerSpawner : public opltest::Instance {
 protected:
  // What is read when the script prints this with printf.
  uint32_t SpawnerOf(const std::string& format) {
    opltest::WriteScript("OPL_ServerInitPidGet", "printf '" + format + "'");
    const ServerHandle server = NewServer({.scripts = FakeScripts()});
    uint32_t pid = 4711;
    EXPECT_EQ(OPL_OK, OPL_ServerSystemSpawnerPidGet(server.get(), &pid)) << format;
    return pid;
  }
};

TEST_F(ServerSpawner, IsTheNumberThatTheFirstLineBeginsWith) {
  EXPECT_EQ(1u, SpawnerOf("1\\n"));
  EXPECT_EQ(4321u, SpawnerOf("  4321 and more\\n99\\n"));
  EXPECT_EQ(17u, SpawnerOf("17"));
}

TEST_F(ServerSpawner, Is0WhereThereIsNoNumber) {
  EXPECT_EQ(0u, SpawnerOf("\\n1\\n"));
  EXPECT_EQ(0u, SpawnerOf("word\\n"));
  EXPECT_EQ(0u, SpawnerOf("\\0001\\n"));
}

TEST_F(ServerSpawner, IsReadFromAtMost49Characters) {
  EXPECT_EQ(12u, SpawnerOf("%047d12345\\n"));
  EXPECT_EQ(4294967295u, SpawnerOf("99999999999999999999999\\n"));
  EXPECT_EQ(4294967295u, SpawnerOf("4294967297\\n"));
}

TEST_F(ServerSpawner, IsAskedForThroughTheShell) {
  static std::string command;
  static std::string mode;
  const Replacement shell(
      "popen", +[](const char* text, const char* how) {
        command = text;
        mode = how;
        errno = ENOMEM;
        return static_cast<FILE*>(nullptr);
      });
  const ServerHandle server = NewServer({.scripts = "/some/where"});
  uint32_t pid = 4711;
  EXPECT_EQ(0x050B27u, OPL_ServerSystemSpawnerPidGet(server.get(), &pid));
  ExpectError(ENOMEM, "OPL_ServerSystemSpawnerPidGet: popen 12,Cannot allocate memory.");
  EXPECT_EQ("/some/where/OPL_ServerInitPidGet | cat -", command);
  EXPECT_EQ("re", mode);
  EXPECT_EQ(4711u, pid);
}

class ServerSpawnerFailing : public ServerSpawner {
 protected:
  void SetUp() override {
    Instance::SetUp();
    opltest::NameSpawner("17");
    server_ = NewServer({.scripts = FakeScripts()});
  }
  void TearDown() override {
    EXPECT_EQ(4711u, pid_);
    server_.reset();
    Instance::TearDown();
  }

  ServerHandle server_;
  uint32_t pid_ = 4711;
};

TEST_F(ServerSpawnerFailing, RefusesNullArguments) {
  EXPECT_EQ(0x050B26u, OPL_ServerSystemSpawnerPidGet(nullptr, &pid_));
  ExpectError(0x050B26, "OPL_ServerSystemSpawnerPidGet: pServer is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerSystemSpawnerPidGet(server_.get(), nullptr));
  ExpectError(0x050B26, "OPL_ServerSystemSpawnerPidGet: pPid is NULL.");
}

TEST_F(ServerSpawnerFailing, TellsThatTheScriptCouldNotBeRun) {
  const Fault fault("popen", 1, EMFILE);
  EXPECT_EQ(0x050B27u, OPL_ServerSystemSpawnerPidGet(server_.get(), &pid_));
  ExpectError(EMFILE, "OPL_ServerSystemSpawnerPidGet: popen 24,Too many open files.");
}

TEST_F(ServerSpawnerFailing, TellsThatTheAnswerCouldNotBeRead) {
  const Footprint before = Footprint::Now();
  const Fault fault("fgets", 1, EIO);
  EXPECT_EQ(0x050B28u, OPL_ServerSystemSpawnerPidGet(server_.get(), &pid_));
  ExpectError(EIO, "OPL_ServerSystemSpawnerPidGet: fgets 5,Input/output error.");
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(ServerSpawnerFailing, TellsThatThereWasNoAnswer) {
  opltest::WriteScript("OPL_ServerInitPidGet", "exit 0");
  EXPECT_EQ(0x050B28u, OPL_ServerSystemSpawnerPidGet(server_.get(), &pid_));
  ExpectError(0, "OPL_ServerSystemSpawnerPidGet: fgets 0,Success.");
}

TEST_F(ServerSpawnerFailing, TellsThatThereIsNoScript) {
  const ServerHandle server = NewServer({.scripts = "/no/such/directory"});
  EXPECT_EQ(0x050B28u, OPL_ServerSystemSpawnerPidGet(server.get(), &pid_));
}

TEST_F(ServerSpawner, IsReadOnAfterAnInterruption) {
  opltest::NameSpawner("17");
  const ServerHandle server = NewServer({.scripts = FakeScripts()});
  uint32_t pid = 0;
  const Fault fault("fgets", 1, EINTR);
  EXPECT_EQ(OPL_OK, OPL_ServerSystemSpawnerPidGet(server.get(), &pid));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(17u, pid);
}

// A thread that is cancelled while the script runs ends when the answer is read, and leaves nothing.
TEST_F(ServerSpawner, IsReadByAThreadThatIsCancelled) {
  opltest::NameSpawner("17");
  const ServerHandle server = NewServer({.scripts = FakeScripts()});
  const Footprint before = Footprint::Now();
  static uint32_t pid;
  pid = 0;
  const Fault fault("fgets", 1, [] {
    EXPECT_EQ(0, ::pthread_cancel(::pthread_self()));
    ::pthread_testcancel();
  });
  pthread_t reader;
  ASSERT_EQ(0, ::pthread_create(
                   &reader, nullptr,
                   [](void* handle) -> void* {
                     EXPECT_EQ(OPL_OK, OPL_ServerSystemSpawnerPidGet(static_cast<OPL_Server*>(handle), &pid));
                     return nullptr;
                   },
                   server.get()));
  EXPECT_EQ(0, ::pthread_join(reader, nullptr));
  EXPECT_EQ(17u, pid);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(ServerSpawner, IsReadWhereTheHostIgnoresItsChildren) {
  ASSERT_NE(SIG_ERR, ::signal(SIGCHLD, SIG_IGN));
  EXPECT_EQ(17u, SpawnerOf("17\\n"));
}

// The installation's own script.

// Whose child an orphan of this process becomes.
uint32_t ParentOfAnOrphan() {
  int answer[2];
  if (::pipe(answer) != 0) return 0;
  const pid_t middle = ::fork();
  if (middle == 0) {
    const pid_t self = ::getpid();
    if (::fork() == 0) {
      pid_t parent;
      while ((parent = ::getppid()) == self) {
      }
      (void)!::write(answer[1], &parent, sizeof parent);
    }
    ::_exit(0);
  }
  pid_t parent = 0;
  EXPECT_EQ(static_cast<ssize_t>(sizeof parent), ::read(answer[0], &parent, sizeof parent));
  (void)::waitpid(middle, nullptr, 0);
  (void)::close(answer[0]);
  (void)::close(answer[1]);
  return static_cast<uint32_t>(parent);
}

uint32_t RealSpawner() {
  const ServerHandle server = NewServer({.scripts = QVOPL_SERVER_SCRIPTS});
  uint32_t pid = 4711;
  EXPECT_EQ(OPL_OK, OPL_ServerSystemSpawnerPidGet(server.get(), &pid));
  return pid;
}

// The runner of the tests is a subreaper, and this test's parent.
TEST_F(ServerSpawner, IsWhatOrphansOfThisProcessComeTo) {
  EXPECT_EQ(static_cast<uint32_t>(::getppid()), RealSpawner());
  EXPECT_EQ(ParentOfAnOrphan(), RealSpawner());
}

TEST_F(ServerSpawner, IsTheNearestSubreaper) {
  ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1));
  EXPECT_EQ(static_cast<uint32_t>(::getpid()), RealSpawner());
  ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 0));
  EXPECT_EQ(static_cast<uint32_t>(::getppid()), RealSpawner());
  while (::waitpid(-1, nullptr, 0) > 0) {
  }
}

TEST_F(ServerSpawner, IsPrintedAloneInEveryLocale) {
  for (const char* environment : {"LC_ALL=C", "LC_ALL=de_DE.UTF-8", "PATH=/usr/bin:/bin"}) {
    ASSERT_EQ(0, std::system(
                     (std::string(environment) + " '" QVOPL_SERVER_SCRIPTS "/OPL_ServerInitPidGet' > answer")
                         .c_str()));
    EXPECT_EQ(std::to_string(::getppid()) + "\n", opltest::ContentsOf("answer")) << environment;
  }
}

}  // namespace
