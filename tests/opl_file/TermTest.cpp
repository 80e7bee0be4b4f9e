// Reading a line without showing it: through a pseudo-terminal that the test holds the other side of, and
// from redirected input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "OPL_Init.h"
#include "OPL_Term.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Child;
using opltest::ExpectError;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::LastFailure;
using opltest::Replacement;
using opltest::Steps;

constexpr char kPrompt[] = "Secret: ";
constexpr int kMinuteMs = 60000;

// The user's side of a terminal, and a process that has it for its own.
class Terminal {
 public:
  // The body runs with the terminal as its controlling terminal and its standard input.
  explicit Terminal(std::function<void(Steps&)> body, Child::End end = Child::End::kImmediately)
      : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)),
        name_(Unlock(master_)),
        keeper_(::open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)),
        first_(Settings()),
        child_(
            [this, body = std::move(body)](Steps& steps) {
              (void)::setsid();
              const int terminal = ::open(name_.c_str(), O_RDWR | O_CLOEXEC);
              ASSERT_EQ(0, ::ioctl(terminal, TIOCSCTTY, 0)) << std::strerror(errno);
              (void)::dup2(terminal, STDIN_FILENO);
              (void)::close(terminal);
              body(steps);
            },
            end) {}
  ~Terminal() {
    (void)::close(keeper_);
    (void)::close(master_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  Child& child() { return child_; }

  void Type(const std::string& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), ::write(master_, text.data(), text.size()));
  }

  // What the terminal has shown up to the text, which it does show.
  std::string ShownUpTo(const std::string& text) {
    std::string shown;
    while (!shown.ends_with(text)) {
      pollfd entry{master_, POLLIN, 0};
      char byte;
      if (::poll(&entry, 1, kMinuteMs) != 1 || ::read(master_, &byte, 1) != 1) {
        ADD_FAILURE() << "only shown: " << shown;
        return shown;
      }
      shown += byte;
    }
    return shown;
  }

  // What else has been shown.
  std::string Rest() {
    std::string shown;
    pollfd entry{master_, POLLIN, 0};
    for (char byte; ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0; shown += byte)
      if (::read(master_, &byte, 1) != 1) break;
    return shown;
  }

  // As they were before the process began.
  const termios& First() const { return first_; }
  termios Settings() const {
    termios settings{};
    EXPECT_EQ(0, ::tcgetattr(keeper_, &settings));
    return settings;
  }
  void Set(const termios& settings) const { EXPECT_EQ(0, ::tcsetattr(keeper_, TCSANOW, &settings)); }

  bool IsHidden() const { return (Settings().c_lflag & (ECHO | ICANON)) == 0; }
  void AwaitHidden() const {
    while (!IsHidden()) (void)::poll(nullptr, 0, 1);
  }

 private:
  static std::string Unlock(int master) {
    EXPECT_EQ(0, ::grantpt(master));
    EXPECT_EQ(0, ::unlockpt(master));
    return ::ptsname(master);
  }

  const int master_;
  const std::string name_;
  const int keeper_;
  const termios first_;
  Child child_;
};

bool operator==(const termios& one, const termios& other) {
  return one.c_iflag == other.c_iflag && one.c_oflag == other.c_oflag && one.c_cflag == other.c_cflag &&
         one.c_lflag == other.c_lflag && std::memcmp(one.c_cc, other.c_cc, sizeof one.c_cc) == 0;
}

// Reads once, with room for so many characters, and sends the code and what lies in the buffer.
std::function<void(Steps&)> ReadOnce(int32_t most, const char* prompt = kPrompt) {
  return [most, prompt](Steps& steps) {
    char buffer[64];
    std::memset(buffer, 'x', sizeof buffer);
    const OPL_Result rc = OPL_TermGetStringEchoOff(prompt, buffer, most);
    // The buffer to the end of its bytes, its zeros as points.
    std::string text = std::to_string(rc) + " ";
    for (int32_t i = 0; i <= most; ++i) text += buffer[i] == '\0' ? '.' : buffer[i];
    EXPECT_EQ('x', buffer[most + 1]);
    steps.Send(text);
  };
}

// What ReadOnce sends for a text: the bytes behind it are cleared, but for the one that only a terminator
// needs.
std::string Kept(const std::string& text, size_t most) {
  const std::string cleared(most - text.size(), '.');
  return "0 " + text + cleared + (text.size() == most ? '.' : 'x');
}

TEST(TermOnTerminal, ReadsALineThatIsNotShown) {
  Terminal terminal(ReadOnce(10));
  EXPECT_EQ(kPrompt, terminal.ShownUpTo(kPrompt));
  terminal.AwaitHidden();
  terminal.Type("secret\n");
  EXPECT_EQ(Kept("secret", 10), terminal.child().Receive());
  EXPECT_EQ("\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
  EXPECT_EQ("", terminal.Rest());
}

TEST(TermOnTerminal, MayHaveNoPrompt) {
  Terminal terminal(ReadOnce(4, nullptr));
  terminal.AwaitHidden();
  terminal.Type("abc\r");
  EXPECT_EQ(Kept("abc", 4), terminal.child().Receive());
  EXPECT_EQ("\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, ReadsAnEmptyLine) {
  Terminal terminal(ReadOnce(4));
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("\n");
  EXPECT_EQ(Kept("", 4), terminal.child().Receive());
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, RingsTheBellForEachCharacterWithoutRoom) {
  Terminal terminal(ReadOnce(4));
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("abcdefg\n");
  EXPECT_EQ(Kept("abcd", 4), terminal.child().Receive());
  EXPECT_EQ("\a\a\a\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, TakesCharactersBackAndRingsWhereThereAreNone) {
  Terminal terminal(ReadOnce(4));
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("\bab\b\b\bcdefg\b\bh\n");
  EXPECT_EQ(Kept("cdh", 4), terminal.child().Receive());
  EXPECT_EQ("\a\a\a\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, ClearsWhatIsTakenBack) {
  Terminal terminal(ReadOnce(6));
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("abcdef\b\b\b\n");
  EXPECT_EQ(Kept("abc", 6), terminal.child().Receive());
  terminal.child().ExpectSuccess();
}

// Delete, end of file, kill line and what else a terminal usually edits with.
TEST(TermOnTerminal, TakesOtherControlCharactersAsTheyAre) {
  Terminal terminal(ReadOnce(8));
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("a\x7f\x04\x15\x17\n");
  EXPECT_EQ(Kept("a\x7f\x04\x15\x17", 8), terminal.child().Receive());
  EXPECT_EQ("\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, ChangesOnlySomeOfTheLocalModesAndPutsThemBack) {
  Terminal terminal([](Steps& steps) {
    steps.WaitForGo();
    ReadOnce(4)(steps);
    steps.WaitForGo();
  });
  termios before = terminal.Settings();
  before.c_lflag |= NOFLSH | ECHOK | ECHONL;
  before.c_cc[VMIN] = 3;
  before.c_cc[VTIME] = 7;
  terminal.Set(before);
  terminal.child().Go();
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  termios expected = before;
  expected.c_lflag = (before.c_lflag & ~0xFFu) | (before.c_lflag & 0x85u);
  expected.c_cc[VMIN] = 1;
  expected.c_cc[VTIME] = 0;
  EXPECT_TRUE(expected == terminal.Settings());
  terminal.Type("a\n");
  EXPECT_EQ(Kept("a", 4), terminal.child().Receive());
  EXPECT_TRUE(before == terminal.Settings());
  terminal.child().Go();
  terminal.child().ExpectSuccess();
}

std::string Disposition(int signal) {
  struct sigaction action {};
  (void)::sigaction(signal, nullptr, &action);
  sigset_t mask;
  (void)::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return (action.sa_handler == SIG_DFL ? "default " : "set ") + std::to_string(::sigismember(&mask, signal));
}

TEST(TermOnTerminal, LeavesSignalsAndDescriptorsAsTheyWere) {
  Terminal terminal([](Steps& steps) {
    const Footprint before = Footprint::Now();
    ReadOnce(4)(steps);
    EXPECT_EQ(before, Footprint::Now());
    for (const int signal : {SIGINT, SIGCONT, SIGTSTP}) EXPECT_EQ("default 0", Disposition(signal));
  });
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("a\n");
  EXPECT_EQ(Kept("a", 4), terminal.child().Receive());
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, ReadsTheTerminalWhereTheOutputGoesElsewhere) {
  Terminal terminal([](Steps& steps) {
    const int file = ::open("output", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    (void)::dup2(file, STDOUT_FILENO);
    ReadOnce(4)(steps);
    std::fflush(stdout);
  });
  EXPECT_EQ(kPrompt, terminal.ShownUpTo(kPrompt));
  terminal.AwaitHidden();
  terminal.Type("a\n");
  EXPECT_EQ(Kept("a", 4), terminal.child().Receive());
  terminal.child().ExpectSuccess();
  EXPECT_EQ("", opltest::ContentsOf("output"));
}

TEST(TermOnTerminal, ReadsOneLineAfterTheOther) {
  Terminal terminal([](Steps& steps) {
    ReadOnce(4)(steps);
    ReadOnce(4)(steps);
  });
  for (const char* text : {"one", "two"}) {
    (void)terminal.ShownUpTo(kPrompt);
    terminal.AwaitHidden();
    terminal.Type(std::string(text) + "\n");
    EXPECT_EQ(Kept(text, 4), terminal.child().Receive());
  }
  terminal.child().ExpectSuccess();
}

// The interrupt key.

void ExpectInterrupted(Terminal& terminal, const termios& before) {
  EXPECT_EQ("\r\n", [&] {
    const std::string shown = terminal.ShownUpTo("\n");
    return shown.substr(shown.find('\r'));
  }());
  terminal.child().ExpectSuccess();
  EXPECT_TRUE(before == terminal.Settings());
}

TEST(TermInterrupted, EndsTheProcessWithStatus0AndTheTerminalAsItWas) {
  Terminal terminal([](Steps& steps) {
    ReadOnce(10)(steps);
    ADD_FAILURE() << "went on";
  });
  const termios before = terminal.First();
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("abc\x03");
  ExpectInterrupted(terminal, before);
}

TEST(TermInterrupted, EndsTheProcessWhicheverThreadGetsTheSignal) {
  Terminal terminal([](Steps& steps) {
    std::thread reader([&] {
      ReadOnce(10)(steps);
      ADD_FAILURE() << "went on";
    });
    reader.join();
  });
  const termios before = terminal.First();
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.child().Kill(SIGINT);
  ExpectInterrupted(terminal, before);
}

TEST(TermInterrupted, RunsTheExitFunctions) {
  Terminal terminal([](Steps& steps) {
    (void)std::atexit([] { opltest::WriteFile("exited", "yes"); });
    ReadOnce(10)(steps);
  });
  const termios before = terminal.First();
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("\x03");
  ExpectInterrupted(terminal, before);
  EXPECT_EQ("yes", opltest::ContentsOf("exited"));
}

TEST(TermInterrupted, EndsTheProcessWhereTheKeyWasPressedBeforeTheTerminalWasHidden) {
  Terminal terminal([](Steps& steps) {
    const Fault early("ctermid", 1, [] { EXPECT_EQ(0, ::raise(SIGINT)); });
    ReadOnce(10)(steps);
    ADD_FAILURE() << "went on";
  });
  const termios before = terminal.First();
  ExpectInterrupted(terminal, before);
}

TEST(TermInterrupted, EndsTheProcessAlsoWhereTheTerminalCannotBeOpened) {
  Terminal terminal([](Steps& steps) {
    const Fault early("ctermid", 1, [] { EXPECT_EQ(0, ::raise(SIGINT)); });
    const Fault fault("open64", 1, EMFILE);
    ReadOnce(10)(steps);
    ADD_FAILURE() << "went on";
  });
  terminal.child().ExpectSuccess();
}

// The suspend key, and being stopped.

// A process group without a parent in its session is not stopped by the key: a handler tells. The key throws
// away what has been typed and not been read.
TEST(TermSuspended, HoldsTheSuspendKeyBackUntilTheLineIsRead) {
  Terminal terminal([](Steps& steps) {
    static volatile sig_atomic_t stops = 0;
    (void)::signal(SIGTSTP, [](int) { stops = stops + 1; });
    {
      const Fault line("ppoll", 2, [&] {
        steps.Reach();
        steps.WaitForGo();
      });
      ReadOnce(10)(steps);
    }
    EXPECT_EQ(1, stops);
  });
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("a");
  terminal.child().Await();
  terminal.Type("\x1a");
  terminal.child().Go();
  terminal.Type("bc\n");
  EXPECT_EQ(Kept("abc", 10), terminal.child().Receive());
  terminal.child().ExpectSuccess();
}

TEST(TermSuspended, HidesTheLineAgainAfterItWasStopped) {
  Terminal terminal(ReadOnce(10));
  const termios before = terminal.First();
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("ab");
  terminal.child().Kill(SIGSTOP);
  int status = 0;
  ASSERT_EQ(terminal.child().pid(), ::waitpid(terminal.child().pid(), &status, WUNTRACED));
  ASSERT_TRUE(WIFSTOPPED(status));
  // As a shell does.
  terminal.Set(before);
  ASSERT_FALSE(terminal.IsHidden());
  terminal.child().Kill(SIGCONT);
  terminal.AwaitHidden();
  terminal.Type("cd\n");
  const std::string text = terminal.child().Receive();
  EXPECT_NE(std::string::npos, text.find("cd.")) << text;
  EXPECT_EQ("\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
  EXPECT_TRUE(before == terminal.Settings());
}

// A thread that is cancelled while it reads ends when the line is read, with the terminal as it was.
TEST(TermSuspended, IsCancelledAfterTheLine) {
  Terminal terminal([](Steps& steps) {
    pthread_t reader;
    static Steps* to;
    to = &steps;
    ASSERT_EQ(0, ::pthread_create(
                     &reader, nullptr,
                     [](void*) -> void* {
                       char buffer[16];
                       (void)OPL_TermGetStringEchoOff(kPrompt, buffer, 10);
                       to->Send(buffer);
                       for (;;) (void)::pause();
                     },
                     nullptr));
    steps.WaitForGo();
    EXPECT_EQ(0, ::pthread_cancel(reader));
    steps.Send("cancelled");
    void* result = nullptr;
    EXPECT_EQ(0, ::pthread_join(reader, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
  });
  const termios before = terminal.First();
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.child().Go();
  EXPECT_EQ("cancelled", terminal.child().Receive());
  terminal.Type("ab\n");
  EXPECT_EQ("\r\n", terminal.ShownUpTo("\n"));
  terminal.child().ExpectSuccess();
  EXPECT_TRUE(before == terminal.Settings());
}

// Refusals on the terminal.

TEST(TermOnTerminal, TellsThatTheTerminalHasNoName) {
  Terminal terminal([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    char buffer[8] = "abcdefg";
    const Fault fault("ctermid", 1, ENODEV);
    EXPECT_EQ(0x050E04u, OPL_TermGetStringEchoOff(kPrompt, buffer, 4));
    EXPECT_EQ(Failure(ENODEV, "OPL_TermGetStringFromTtyEchoOff: ctermid error [19]: No such device"),
              LastFailure());
    EXPECT_EQ(std::string("\0\0\0\0efg\0", 8), std::string(buffer, 8));
    for (const int signal : {SIGINT, SIGCONT, SIGTSTP}) EXPECT_EQ("default 0", Disposition(signal));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  terminal.child().ExpectSuccess();
  EXPECT_EQ("", terminal.Rest());
}

TEST(TermOnTerminal, TellsThatTheTerminalCannotBeOpened) {
  Terminal terminal([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    char buffer[8];
    const Fault fault("open64", 1, EMFILE);
    EXPECT_EQ(0x050E01u, OPL_TermGetStringEchoOff(kPrompt, buffer, 4));
    EXPECT_EQ(Failure(EMFILE, "OPL_TermGetStringFromTtyEchoOff: fopen error [24]: Too many open files"),
              LastFailure());
    for (const int signal : {SIGINT, SIGCONT, SIGTSTP}) EXPECT_EQ("default 0", Disposition(signal));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, TellsThatThereIsNoControllingTerminal) {
  Terminal terminal([](Steps&) {
    // A grandchild in a session of its own still has the terminal for its input.
    Child orphan([](Steps&) {
      (void)::setsid();
      EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
      char buffer[8];
      EXPECT_EQ(0x050E01u, OPL_TermGetStringEchoOff(kPrompt, buffer, 4));
      EXPECT_EQ(Failure(ENXIO, "OPL_TermGetStringFromTtyEchoOff: fopen error [6]: No such device or address"),
                LastFailure());
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    });
    orphan.ExpectSuccess();
  });
  terminal.child().ExpectSuccess();
}

// Nothing can be put back that is not known, so nothing is changed either.
TEST(TermOnTerminal, ReadsAsItIsWhereTheSettingsCannotBeTold) {
  Terminal terminal([](Steps& steps) {
    const Fault fault("tcgetattr", 1, EIO, Fault::kForGood);
    ReadOnce(10)(steps);
  });
  const termios before = terminal.First();
  (void)terminal.ShownUpTo(kPrompt);
  EXPECT_TRUE(before == terminal.Settings());
  terminal.Type("abc\n");
  EXPECT_EQ(Kept("abc", 10), terminal.child().Receive());
  terminal.child().ExpectSuccess();
}

TEST(TermOnTerminal, TakesAReadThatFailsForTheEndOfTheLine) {
  Terminal terminal([](Steps& steps) {
    // Steps and the line are both read from here on.
    const Fault fault("ppoll", 3, EIO);
    ReadOnce(10)(steps);
  });
  (void)terminal.ShownUpTo(kPrompt);
  terminal.AwaitHidden();
  terminal.Type("abc");
  EXPECT_EQ(Kept("ab", 10), terminal.child().Receive());
  terminal.child().ExpectSuccess();
}

// From standard input.

class TermFromInput : public opltest::Instance {
 protected:
  static void Redirect(const std::string& contents) {
    opltest::WriteFile("input", contents);
    const int file = ::open("input", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, ::dup2(file, STDIN_FILENO));
    (void)::close(file);
  }
  static std::string Read(int32_t size) {
    char buffer[64];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(OPL_OK, OPL_TermGetStringEchoOff(kPrompt, buffer, size));
    EXPECT_EQ('x', buffer[size]);
    return buffer;
  }
};

TEST_F(TermFromInput, IsTheFirstLineWithoutItsNewline) {
  Redirect("first\nsecond\n");
  EXPECT_EQ("first", Read(20));
  EXPECT_EQ("second", Read(20));
  EXPECT_EQ("", Read(20));
}

TEST_F(TermFromInput, ShowsNoPrompt) {
  Redirect("first\n");
  const int output = ::open("output", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const int before = ::dup(STDOUT_FILENO);
  (void)::dup2(output, STDOUT_FILENO);
  EXPECT_EQ("first", Read(20));
  std::fflush(stdout);
  (void)::dup2(before, STDOUT_FILENO);
  EXPECT_EQ("", opltest::ContentsOf("output"));
  (void)::close(output);
  (void)::close(before);
}

TEST_F(TermFromInput, IsEmptyForEmptyInput) {
  Redirect("");
  EXPECT_EQ("", Read(20));
}

TEST_F(TermFromInput, MayEndWithoutANewline) {
  Redirect("last");
  EXPECT_EQ("last", Read(20));
  EXPECT_EQ("", Read(20));
}

TEST_F(TermFromInput, LeavesTheRestOfALongLine) {
  Redirect("abcdefg\nnext\n");
  EXPECT_EQ("abc", Read(4));
  EXPECT_EQ("def", Read(4));
  EXPECT_EQ("g", Read(4));
  EXPECT_EQ("next", Read(5));
  EXPECT_EQ("", Read(5));
}

TEST_F(TermFromInput, HasNoCharacterWithASizeOf1) {
  Redirect("abc\n");
  EXPECT_EQ("", Read(1));
  EXPECT_EQ("abc", Read(20));
}

TEST_F(TermFromInput, IsReadFromAPipeAsItComes) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  (void)::dup2(ends[0], STDIN_FILENO);
  std::thread writer([&] {
    for (const char* part : {"ab", "cd", "\n"}) {
      (void)!::write(ends[1], part, std::strlen(part));
      (void)::poll(nullptr, 0, 10);
    }
  });
  EXPECT_EQ("abcd", Read(20));
  writer.join();
}

// Whether the process's first thread sleeps.
bool MainThreadSleeps() {
  const std::string id = std::to_string(::getpid());
  const std::string line = opltest::ContentsOf("/proc/self/task/" + id + "/stat");
  return line.compare(line.rfind(')'), 3, ") S") == 0;
}

// A signal in the middle of a line loses nothing of it.
TEST_F(TermFromInput, GoesOnAfterASignal) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  (void)::dup2(ends[0], STDIN_FILENO);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
  ASSERT_EQ(2, ::write(ends[1], "ab", 2));
  const pthread_t reader = ::pthread_self();
  std::thread other([&] {
    int unread = 1;
    while (unread != 0) (void)::ioctl(ends[0], FIONREAD, &unread);
    while (!MainThreadSleeps()) (void)::sched_yield();
    EXPECT_EQ(0, ::pthread_kill(reader, SIGUSR1));
    EXPECT_EQ(3, ::write(ends[1], "cd\n", 3));
  });
  EXPECT_EQ("abcd", Read(20));
  other.join();
}

TEST_F(TermFromInput, TellsThatItCannotBeRead) {
  const int directory = ::open(".", O_RDONLY | O_CLOEXEC);
  (void)::dup2(directory, STDIN_FILENO);
  char buffer[8] = "abcdefg";
  EXPECT_EQ(0x050E05u, OPL_TermGetStringEchoOff(kPrompt, buffer, 4));
  ExpectError(EISDIR, "OPL_TermGetStringFromStdinEchoOff: fgets(stdin) error [21]: Is a directory");
  EXPECT_STREQ("", buffer);
  // The next line is read all the same.
  Redirect("next\n");
  EXPECT_EQ("next", Read(20));
}

TEST_F(TermFromInput, LeavesNothingOfALineThatCannotBeReadToItsEnd) {
  Redirect("secret\n");
  char buffer[8] = "???????";
  const Fault fault("getc", 4, EIO);
  EXPECT_EQ(0x050E05u, OPL_TermGetStringEchoOff(kPrompt, buffer, 7));
  ExpectError(EIO, "OPL_TermGetStringFromStdinEchoOff: fgets(stdin) error [5]: Input/output error");
  EXPECT_EQ(std::string(8, '\0'), std::string(buffer, 8));
}

TEST_F(TermFromInput, TellsThatItIsClosed) {
  (void)::close(STDIN_FILENO);
  char buffer[8];
  EXPECT_EQ(0x050E05u, OPL_TermGetStringEchoOff(kPrompt, buffer, 4));
  ExpectError(EBADF, "OPL_TermGetStringFromStdinEchoOff: fgets(stdin) error [9]: Bad file descriptor");
}

class Term : public opltest::Instance {};

TEST_F(Term, RefusesANullBufferBeforeTheSize) {
  EXPECT_EQ(0x050E02u, OPL_TermGetStringEchoOff(kPrompt, nullptr, 0));
  ExpectError(0x050E02, "OPL_TermGetStringEchoOff: pBuffer is NULL");
}

TEST_F(Term, RefusesASizeBelow1) {
  char buffer[] = "untouched";
  for (const int32_t size : {0, -1, INT32_MIN}) {
    EXPECT_EQ(0x050E03u, OPL_TermGetStringEchoOff(kPrompt, buffer, size));
    ExpectError(0x050E03, "OPL_TermGetStringEchoOff: MaxBufferSize < 1");
  }
  EXPECT_STREQ("untouched", buffer);
}

TEST(TermBeforeBegin, WorksAllTheSame) {
  char buffer[8] = "x";
  EXPECT_EQ(0x050E02u, OPL_TermGetStringEchoOff(kPrompt, nullptr, 1));
  EXPECT_EQ(OPL_OK, OPL_TermGetStringEchoOff(kPrompt, buffer, 4));
  EXPECT_STREQ("", buffer);
}

}  // namespace
