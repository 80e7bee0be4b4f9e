// qvopl watch: lists one after the other through a pipe, and the live list on a terminal of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/tools/Listed.h"

namespace {

using opltest::RunTool;
using opltest::SyncActor;
using opltest::ToolRun;
using ::testing::HasSubstr;

constexpr char kEnter[] = "\033[?1049h";
constexpr char kLeave[] = "\033[?1049l";

// What a shell does with a job that is stopped: it takes its terminal back, as it was, until a line says that
// the job is to go on. Says how it found the terminal.
[[noreturn]] void BeShell(const std::vector<std::string>& arguments, int width) {
  (void)::signal(SIGTTOU, SIG_IGN);
  termios sane{};
  (void)::tcgetattr(STDIN_FILENO, &sane);
  const pid_t job = ::fork();
  if (job == 0) {
    (void)::setpgid(0, 0);
    (void)::tcsetpgrp(STDIN_FILENO, ::getpid());
    (void)::signal(SIGTTOU, SIG_DFL);
    (void)::dprintf(STDOUT_FILENO, "job %d\n", static_cast<int>(::getpid()));
    opltest::ExecuteTool(arguments, width);
  }
  for (int status = 0;;) {
    (void)::waitpid(job, &status, WUNTRACED);
    if (!WIFSTOPPED(status)) ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128);
    termios found{};
    (void)::tcgetattr(STDIN_FILENO, &found);
    (void)::tcsetpgrp(STDIN_FILENO, ::getpgrp());
    (void)::tcsetattr(STDIN_FILENO, TCSANOW, &sane);
    (void)::dprintf(STDOUT_FILENO, "stopped, %s\n", (found.c_lflag & ECHO) != 0 ? "restored" : "taken");
    char line[16];
    (void)!::read(STDIN_FILENO, line, sizeof line);
    (void)::tcsetpgrp(STDIN_FILENO, job);
    (void)::kill(-job, SIGCONT);
  }
}

// The tool on a terminal of its own.
class OnTerminal {
 public:
  enum Starter { kAlone, kByShell };

  OnTerminal(const std::vector<std::string>& arguments, int width, winsize size = {24, 80, 0, 0},
             Starter starter = kAlone) {
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    if (pid_ != 0) return;
    (void)::setenv("TERM", "xterm", 1);
    if (starter == kByShell) BeShell(arguments, width);
    opltest::ExecuteTool(arguments, width);
  }

  ~OnTerminal() {
    if (pid_ != -1) {
      (void)::kill(pid_, SIGKILL);
      (void)opltest::AwaitStatus(pid_);
    }
    (void)::close(terminal_);
  }

  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  // What is drawn from the last call on, up to the text; fails the test when the tool ends before.
  std::string Until(const std::string& text) {
    std::string drawn;
    while (drawn.find(text) == std::string::npos) {
      char byte = 0;
      if (::read(terminal_, &byte, 1) != 1) {
        ADD_FAILURE() << "ended before '" << text << "': " << drawn;
        break;
      }
      drawn += byte;
    }
    return drawn;
  }

  void Press(const std::string& keys) const {
    EXPECT_EQ(static_cast<ssize_t>(keys.size()), ::write(terminal_, keys.data(), keys.size()));
  }

  void Resize(winsize size) const { EXPECT_EQ(0, ::ioctl(terminal_, TIOCSWINSZ, &size)); }

  void Signal(int signal) const { EXPECT_EQ(0, ::kill(pid_, signal)); }

  bool Echoes() const {
    termios settings{};
    EXPECT_EQ(0, ::tcgetattr(terminal_, &settings));
    return (settings.c_lflag & ECHO) != 0 && (settings.c_lflag & ICANON) != 0;
  }

  // The terminal is read to its end before.
  int Status(std::string* rest) {
    char byte = 0;
    while (::read(terminal_, &byte, 1) == 1) *rest += byte;
    const int status = opltest::AwaitStatus(pid_);
    pid_ = -1;
    return status;
  }

 private:
  int terminal_ = -1;
  pid_t pid_ = -1;
};

// The tool with its output in a pipe, an object of JSON a line.
class JsonLists {
 public:
  explicit JsonLists(int width) {
    int ends[2];
    EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    pid_ = ::fork();
    if (pid_ == 0) {
      (void)::dup2(ends[1], STDOUT_FILENO);
      opltest::ExecuteTool({"watch", "--json", "--interval", "0.1"}, width);
    }
    (void)::close(ends[1]);
    lines_ = ::fdopen(ends[0], "r");
  }

  ~JsonLists() { (void)std::fclose(lines_); }
  JsonLists(const JsonLists&) = delete;
  JsonLists& operator=(const JsonLists&) = delete;

  // In the next list.
  std::string ChangeOf(const std::string& name) {
    char* line = nullptr;
    size_t size = 0;
    EXPECT_NE(-1, ::getline(&line, &size, lines_));
    const auto json = nlohmann::json::parse(line, nullptr, false);
    std::free(line);
    for (const auto& group : json["groups"])
      for (const auto& object : group["objects"])
        if (object["name"] == name) return object["change"];
    return "absent";
  }

  void Await(const std::string& name, const std::string& change) {
    for (int look = 0; look < 1000; ++look)
      if (ChangeOf(name) == change) return;
    ADD_FAILURE() << name << " was never " << change;
  }

  int End() const {
    (void)::kill(pid_, SIGTERM);
    return opltest::AwaitStatus(pid_);
  }

 private:
  pid_t pid_ = -1;
  FILE* lines_ = nullptr;
};

class Watch : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    EXPECT_EQ(0u, actor_.Do("begin"));
    EXPECT_EQ(0u, actor_.Do("mutex-create q 4"));
  }

  void TearDown() override {
    EXPECT_EQ(0u, actor_.Do("mutex-close q"));
    EXPECT_EQ(0u, actor_.Do("end"));
    actor_.Quit();
    WithPeer::TearDown();
  }

  // The tool of the parameter's width, and a process of the test's.
  SyncActor actor_{opltest::kWidth};
};
OPLTEST_WITH_EITHER_PEER(Watch);

TEST_P(Watch, PrintsListsOneAfterTheOther) {
  const ToolRun run = RunTool({"watch", "q", "--count", "3", "--interval", "0.1"}, GetParam());
  EXPECT_EQ(0, run.status) << run.err;
  int lists = 0;
  for (size_t at = 0; (at = run.out.find("mutex", at)) != std::string::npos; ++at) ++lists;
  EXPECT_EQ(3, lists) << run.out;
  EXPECT_THAT(run.out, ::testing::Not(HasSubstr("\033")));
}

TEST_P(Watch, TellsChangesInJson) {
  JsonLists lists(GetParam());
  EXPECT_EQ("none", lists.ChangeOf("q"));
  EXPECT_EQ(0u, actor_.Do("mutex-acquire q"));
  lists.Await("q", "changed");
  lists.Await("q", "none");
  EXPECT_EQ(0u, actor_.Do("mutex-release q"));
  EXPECT_EQ(0u, actor_.Do("mutex-create n 4"));
  lists.Await("n", "new");
  EXPECT_EQ(0u, actor_.Do("mutex-close n"));
  lists.Await("n", "gone");
  lists.Await("n", "absent");
  EXPECT_EQ(-SIGTERM, lists.End());
}

TEST_P(Watch, DrawsMarksAndQuitsOnQ) {
  OnTerminal watch({"watch", "--interval", "0.1"}, GetParam());
  EXPECT_THAT(watch.Until("free"), HasSubstr(kEnter));
  EXPECT_FALSE(watch.Echoes());
  EXPECT_EQ(0u, actor_.Do("mutex-acquire q"));
  watch.Until("*");
  watch.Until("held, last");
  EXPECT_EQ(0u, actor_.Do("mutex-release q"));
  watch.Until(">=2");
  watch.Press("q");
  std::string rest;
  EXPECT_EQ(0, watch.Status(&rest));
  EXPECT_THAT(rest, HasSubstr(kLeave));
}

TEST_P(Watch, DrawsAnewWhenResized) {
  // Nothing but the new size makes it draw again.
  OnTerminal watch({"watch", "--interval", "1000"}, GetParam());
  EXPECT_THAT(watch.Until("\033[J"), HasSubstr("OWNER"));
  watch.Resize({24, 40, 0, 0});
  const std::string narrow = watch.Until("\033[J");
  EXPECT_THAT(narrow, HasSubstr("STATE"));
  EXPECT_THAT(narrow, ::testing::Not(HasSubstr("MODE")));
  EXPECT_THAT(narrow, HasSubstr("management"));
  watch.Resize({4, 40, 0, 0});
  EXPECT_THAT(watch.Until("\033[J"), HasSubstr(", lines 1 to 3 of "));
  watch.Press(" ");
  EXPECT_THAT(watch.Until("\033[J"), ::testing::Not(HasSubstr(", lines 1 to")));
  watch.Press("Q");
  std::string rest;
  EXPECT_EQ(0, watch.Status(&rest));
}

TEST_P(Watch, RestoresTheTerminalWhenItIsEndedBySignals) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    // A descriptor of the terminal's other side keeps its settings readable.
    OnTerminal watch({"watch", "--interval", "1000"}, GetParam());
    watch.Until("\033[J");
    EXPECT_FALSE(watch.Echoes());
    watch.Signal(signal);
    watch.Until(kLeave);
    std::string rest;
    EXPECT_EQ(-signal, watch.Status(&rest));
    EXPECT_TRUE(watch.Echoes());
  }
}

TEST_P(Watch, MovesByKeysOfOneCharacterAndOfSeveral) {
  OnTerminal watch({"watch", "--interval", "1000"}, GetParam(), {4, 40, 0, 0});
  EXPECT_THAT(watch.Until("\033[J"), HasSubstr(", lines 1 to 3 of "));
  for (const char* const key : {"j", "\033[B", "\033OB"}) {
    watch.Press(key);
    EXPECT_THAT(watch.Until("\033[J"), HasSubstr(", lines 2 to 4 of ")) << key;
    watch.Press("\033[H");
    EXPECT_THAT(watch.Until("\033[J"), HasSubstr(", lines 1 to 3 of ")) << key;
  }
  // Letters behind an escape are no keys: the Q is the second function key's.
  for (const char* const key : {"\033OQ", "\033[1;5B", "\033[24~", "\033q"}) {
    watch.Press(key);
    EXPECT_THAT(watch.Until("\033[J"), HasSubstr(", lines 1 to 3 of ")) << key;
  }
  watch.Press("q");
  std::string rest;
  EXPECT_EQ(0, watch.Status(&rest));
}

TEST_P(Watch, GivesTheTerminalBackWhileItIsStopped) {
  OnTerminal watch({"watch", "--interval", "1000"}, GetParam(), {24, 80, 0, 0}, OnTerminal::kByShell);
  const std::string begin = watch.Until(kEnter);
  const pid_t job = std::atoi(begin.c_str() + begin.find("job ") + 4);
  watch.Until("\033[J");
  EXPECT_FALSE(watch.Echoes());
  watch.Press("\x1a");
  EXPECT_THAT(watch.Until("stopped, restored"), HasSubstr(kLeave));
  watch.Press("\n");
  watch.Until(kEnter);
  watch.Until("\033[J");
  EXPECT_FALSE(watch.Echoes());
  // That one cannot be caught: the terminal is taken again all the same when the program goes on.
  EXPECT_EQ(0, ::kill(job, SIGSTOP));
  watch.Until("stopped, taken");
  EXPECT_EQ(0, ::kill(job, 0));
  watch.Press("\n");
  watch.Until(kEnter);
  watch.Until("\033[J");
  EXPECT_FALSE(watch.Echoes());
  watch.Press("q");
  std::string rest;
  EXPECT_EQ(0, watch.Status(&rest));
  EXPECT_THAT(rest, HasSubstr(kLeave));
  EXPECT_TRUE(watch.Echoes());
}

TEST_P(Watch, RestoresTheTerminalWhenItCannotLookAnyMore) {
  OnTerminal watch({"watch", "--interval", "0.1", "--ipc-path", "ipc"}, GetParam());
  std::string rest;
  EXPECT_EQ(2, watch.Status(&rest));
  ASSERT_EQ(0, ::mkdir("ipc", 0700));
  OnTerminal gone({"watch", "--interval", "0.1", "--ipc-path", "ipc"}, GetParam());
  gone.Until("\033[J");
  ASSERT_EQ(0, ::rmdir("ipc"));
  gone.Until(kLeave);
  gone.Until("No such file or directory");
  EXPECT_EQ(2, gone.Status(&rest));
  EXPECT_TRUE(gone.Echoes());
}

TEST_P(Watch, SaysWhatItDoesNotTake) {
  for (const char* const interval : {"0", "nan", "inf", "-1", "x"})
    EXPECT_EQ(2, RunTool({"watch", "--count", "1", "--interval", interval}, GetParam()).status) << interval;
  for (const char* const count : {"0", "x", "-1"})
    EXPECT_EQ(2, RunTool({"watch", "--count", count}, GetParam()).status) << count;
}

}  // namespace
