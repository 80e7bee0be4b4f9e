// Daemons for tests: the program ServerDaemon, started under a name that no other test has, and what it
// reports.
#ifndef OPL_TESTS_OPL_SERVER_DAEMONS_H
#define OPL_TESTS_OPL_SERVER_DAEMONS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Server.h"
#include "tests/opl_server/Servers.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace opltest {

// The daemon of a width; empty when it was not built.
inline std::string DaemonOf(int width) {
  std::string program = QVOPL_TEST_PROGRAMS "/ServerDaemon";
  const size_t at = program.rfind("-" + std::to_string(kWidth) + "/");
  if (width != kWidth && at == std::string::npos) return "";
  if (width != kWidth) program.replace(at + 1, 2, std::to_string(width));
  return ::access(program.c_str(), X_OK) == 0 ? program : "";
}

// What the daemon tells in the words of its report "begun".
struct Begun {
  pid_t pid = 0;
  pid_t parent = 0;
  pid_t group = 0;
  pid_t session = 0;
  std::string mask;
  std::string descriptors;
  std::string arguments;
};

// Daemons become children of the test, which ends them all.
class Daemons : public Instance {
 protected:
  // Sleeps of the library are short, or are what the test does meanwhile.
  static inline std::function<void(int)> duringSleep_;
  static inline int sleeps_ = 0;
  static int SleepShortly(int, fd_set*, fd_set*, fd_set*, timeval* timeout) {
    EXPECT_EQ(1, timeout->tv_sec);
    EXPECT_EQ(0, timeout->tv_usec);
    ++sleeps_;
    if (duringSleep_)
      duringSleep_(sleeps_);
    else
      (void)::poll(nullptr, 0, 20);
    return 0;
  }

  void SetUp() override {
    sleeps_ = 0;
    duringSleep_ = nullptr;
    ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1));
    ASSERT_EQ(0, ::mkfifo("events", 0600));
    events_ = ::open("events", O_RDWR | O_CLOEXEC);
    ASSERT_NE(-1, events_);
    Behave("");
    name_ = "qvd" + std::to_string(::getpid()) + "x";
    if (!beginsLibrary_) return;
    Instance::SetUp();
    server_ = NewDaemon(name_);
  }

  void TearDown() override {
    EndAllChildren();
    server_.reset();
    (void)::close(events_);
    if (beginsLibrary_) Instance::TearDown();
  }

  ServerHandle NewDaemon(const std::string& name, const std::string& controller = "ctl", int width = kWidth) {
    return NewServer({.scripts = QVOPL_SERVER_SCRIPTS,
                      .process = name,
                      .executable = DaemonOf(width),
                      .controller = controller});
  }

  // What the next daemon does, see ServerDaemon.cpp.
  static void Behave(const std::string& words, const std::string& controller = "ctl") {
    ASSERT_EQ(0, ::setenv("QVOPL_TEST_DAEMON", words.c_str(), 1));
    ASSERT_EQ(0, ::setenv("QVOPL_TEST_CONTROLLER", controller.c_str(), 1));
  }

  // The next line of a daemon; fails the test when there is none for a minute.
  std::string Event() {
    std::string line;
    for (char byte = 0;; line += byte) {
      pollfd entry{events_, POLLIN, 0};
      if (::poll(&entry, 1, 60000) != 1) {
        ADD_FAILURE() << "no more events behind: " << line;
        return line;
      }
      if (::read(events_, &byte, 1) != 1 || byte == '\n') return line;
    }
  }

  Begun AwaitBegun(const std::string& name) {
    EXPECT_EQ("executed " + name, Event());
    Begun begun;
    std::string word;
    std::istringstream words(Event());
    words >> word >> begun.pid >> begun.parent >> begun.group >> begun.session >> begun.mask >>
        begun.descriptors >> begun.arguments;
    EXPECT_EQ("begun", word);
    return begun;
  }

  // Runs OPL_ServerStart as a controller does, which is a success in no child of it.
  static OPL_Result Start(const ServerHandle& server, uint32_t timeout) {
    const pid_t self = ::getpid();
    const OPL_Result rc = OPL_ServerStart(server.get(), nullptr, nullptr, timeout);
    if (::getpid() != self) ::_exit(rc == OPL_SERVER_E_PARAM ? 88 : 89);
    return rc;
  }

  static uint32_t IsStarted(const ServerHandle& server) {
    uint32_t isStarted = 4711;
    EXPECT_EQ(OPL_OK, OPL_ServerIsStarted(server.get(), &isStarted));
    return isStarted;
  }

  static uint32_t ControllerPid(const ServerHandle& server) {
    uint32_t pid = 0;
    EXPECT_EQ(OPL_OK, OPL_ServerControllerPidGet(server.get(), &pid));
    return pid;
  }

  static std::vector<pid_t> Children() {
    const std::string self = std::to_string(::getpid());
    std::ifstream file("/proc/self/task/" + self + "/children");
    std::vector<pid_t> children;
    for (pid_t pid; file >> pid;) children.push_back(pid);
    return children;
  }

  // Those that lose their parents come to this process in their turn.
  static void EndAllChildren() {
    for (;;) {
      for (const pid_t pid : Children()) (void)::kill(pid, SIGKILL);
      if (::waitpid(-1, nullptr, 0) == -1 && errno == ECHILD) return;
    }
  }

  // Waits for a daemon's end and yields how it ended. It is this process's child once its parent is gone.
  static int Reap(pid_t pid) {
    int status = -1;
    while (::waitpid(pid, &status, 0) == -1) (void)::sched_yield();
    return status;
  }

  // Waits for the end of all daemons.
  static void AwaitEndOfAll() {
    while (::waitpid(-1, nullptr, 0) != -1 || errno == EINTR) {
    }
  }

  bool beginsLibrary_ = true;
  int events_ = -1;
  std::string name_;
  ServerHandle server_;
  std::optional<Replacement> sleep_{std::in_place, "select", SleepShortly};
};

// Time enough for every daemon that starts or stops at all.
constexpr uint32_t kLong = 3000;

}  // namespace opltest

#endif
