// Reading a line from the terminal without showing it.
//
// The thread that reads keeps SIGINT and SIGCONT blocked and lets them in only while it waits for a
// character. The handlers therefore do no more than note the signal; what it asks for (putting the terminal
// back and ending the process, hiding the line again) is done where the line is read, by functions that are
// safe there.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "OPL_Term.h"
#include "opl_base/src/CancellationHold.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/WriteAll.h"
#include "opl_err/src/Fail.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::Fd;
using opl::NativeError;

constexpr char kBell = '\a';
constexpr char kBackspace = '\b';
constexpr char kNewline = '\n';

// Of the low byte of the local modes signals and flushing stay as they are. Canonical mode and all kinds of
// echo are off.
constexpr tcflag_t kLowByte = 0xFF;
constexpr tcflag_t kKeptModes = 0x85;

// One read at a time in a process. The reader is known to the handlers while there is one.
std::atomic<bool> gIsReading{false};
std::atomic<pthread_t> gReader{};
std::atomic<bool> gIsInterrupted{false};
std::atomic<bool> gIsContinued{false};

// A signal may come to any thread, and the one that waits for a character has to hear of it.
void Note(std::atomic<bool>* flag, int signalNumber) {
  *flag = true;
  if (!gIsReading) return;
  const pthread_t reader = gReader;
  if (::pthread_equal(reader, ::pthread_self()) == 0) (void)::pthread_kill(reader, signalNumber);
}

void NoteInterrupt(int signalNumber) { Note(&gIsInterrupted, signalNumber); }

void NoteContinue(int signalNumber) { Note(&gIsContinued, signalNumber); }

// The handler of a signal while it lives.
class Handler {
 public:
  Handler(int signalNumber, void (*function)(int)) : signalNumber_(signalNumber) {
    struct sigaction action {};
    action.sa_handler = function;
    (void)::sigemptyset(&action.sa_mask);
    (void)::sigaction(signalNumber_, &action, &before_);
  }
  ~Handler() { (void)::sigaction(signalNumber_, &before_, nullptr); }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

 private:
  const int signalNumber_;
  struct sigaction before_ {};
};

// The reader's signal mask: the suspend key waits, interruption and continuation come only where they are
// waited for.
class Mask {
 public:
  Mask() {
    sigset_t blocked;
    (void)::sigemptyset(&blocked);
    for (const int signalNumber : {SIGTSTP, SIGINT, SIGCONT}) (void)::sigaddset(&blocked, signalNumber);
    (void)::pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    waiting_ = before_;
    (void)::sigaddset(&waiting_, SIGTSTP);
  }
  ~Mask() { (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  Mask(const Mask&) = delete;
  Mask& operator=(const Mask&) = delete;

  const sigset_t* Waiting() const { return &waiting_; }

 private:
  sigset_t before_;
  sigset_t waiting_;
};

class Reader {
 public:
  Reader() {
    gIsInterrupted = false;
    gIsContinued = false;
    gReader = ::pthread_self();
    gIsReading = true;
  }
  ~Reader() { gIsReading = false; }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
};

void WriteCharacter(int terminal, char character) { (void)opl::WriteAll(terminal, &character, 1); }

// Hides what is typed while it lives.
class Hiding {
 public:
  explicit Hiding(int terminal) : terminal_(terminal) {
    isTerminal_ = ::tcgetattr(terminal_, &before_) != -1;
    Hide();
  }
  ~Hiding() {
    if (isTerminal_) (void)opl::RetryOnEintr([&] { return ::tcsetattr(terminal_, TCSAFLUSH, &before_); });
  }
  Hiding(const Hiding&) = delete;
  Hiding& operator=(const Hiding&) = delete;

  void Hide() const {
    if (!isTerminal_) return;
    termios hidden = before_;
    hidden.c_lflag &= ~kLowByte | kKeptModes;
    hidden.c_cc[VTIME] = 0;
    hidden.c_cc[VMIN] = 1;
    (void)opl::RetryOnEintr([&] { return ::tcsetattr(terminal_, TCSAFLUSH, &hidden); });
  }

 private:
  const int terminal_;
  termios before_{};
  bool isTerminal_ = false;
};

// Waits for the next character; false at the end of the input and when the user has interrupted.
bool NextCharacter(int terminal, const Mask& mask, const Hiding& hiding, char* character) {
  for (;;) {
    if (gIsInterrupted) return false;
    // Whoever stopped the process, as a shell, may have set the terminal to show what is typed.
    if (gIsContinued.exchange(false)) hiding.Hide();
    pollfd entry{terminal, POLLIN, 0};
    if (::ppoll(&entry, 1, nullptr, mask.Waiting()) == -1) {
      if (errno == EINTR) continue;
      return false;
    }
    const ssize_t count = ::read(terminal, character, 1);
    if (count == 1) return true;
    if (count == 0 || (errno != EINTR && errno != EAGAIN)) return false;
  }
}

// Reads up to the newline, which is not stored.
void ReadLine(int terminal, const Mask& mask, char* buffer, size_t most) {
  const Hiding hiding(terminal);
  size_t length = 0;
  for (char character = 0; NextCharacter(terminal, mask, hiding, &character) && character != kNewline;) {
    if (character == kBackspace && length != 0)
      buffer[--length] = '\0';
    else if (character == kBackspace || length == most)
      WriteCharacter(terminal, kBell);
    else
      buffer[length++] = character;
  }
  buffer[length] = '\0';
  WriteCharacter(terminal, kNewline);
}

Code ReadFromTerminal(const char* prompt, char* buffer, size_t most) {
  const Caller caller{"OPL_TermGetStringFromTtyEchoOff"};
  char name[L_ctermid];
  const char* const found = ::ctermid(name);
  if (found == nullptr || *found == '\0') {
    const NativeError error;
    return Fail(caller, error, OPL_TERM_E_NAME, "%s: ctermid error [%d]: %s", error.number(), error.text());
  }
  const Fd terminal(opl::RetryOnEintr([&] { return ::open64(name, O_RDWR | O_NOCTTY | O_CLOEXEC); }));
  if (!terminal.IsOpen()) {
    const NativeError error;
    return Fail(caller, error, OPL_TERM_E_OPEN, "%s: fopen error [%d]: %s", error.number(), error.text());
  }
  if (prompt != nullptr) (void)opl::WriteAll(terminal.Get(), prompt, std::strlen(prompt));
  const Mask mask;
  ReadLine(terminal.Get(), mask, buffer, most);
  return OPL_OK;
}

Code OPL_TermGetStringFromTtyEchoOff(const char* prompt, char* buffer, size_t most) {
  // A thread that is cancelled in the midst of it would leave the terminal as it is.
  const opl::CancellationHold noCancellation;
  Code rc = OPL_OK;
  {
    const Reader reader;
    const Handler interrupt(SIGINT, NoteInterrupt);
    const Handler continuation(SIGCONT, NoteContinue);
    rc = ReadFromTerminal(prompt, buffer, most);
  }
  // Deliberate: an interrupted prompt ends the program, quietly and successfully. The exit functions run, the
  // library's own among them.
  if (gIsInterrupted) std::exit(0);  // NOLINT(concurrency-mt-unsafe)
  return rc;
}

int NextOfStdin() {
  for (;;) {
    errno = 0;
    const int character = std::getc(stdin);
    if (character != EOF || errno != EINTR) return character;
    std::clearerr(stdin);
  }
}

// As fgets, which would lose what it has of a line when a signal comes.
Code OPL_TermGetStringFromStdinEchoOff(char* buffer, size_t size) {
  size_t length = 0;
  int character = 0;
  while (length + 1 < size && character != kNewline && (character = NextOfStdin()) != EOF)
    buffer[length++] = static_cast<char>(character);
  const NativeError error;
  if (character == EOF && std::feof(stdin) == 0) {
    // Nobody is told of what has been read so far, so nobody would clear it.
    std::memset(buffer, 0, length);
    return Fail(error, OPL_TERM_E_READ, "%s: fgets(stdin) error [%d]: %s", error.number(), error.text());
  }
  buffer[character == kNewline ? length - 1 : length] = '\0';
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_TermGetStringEchoOff(const char* prompt, char* buffer, int32_t maxBufferSize) {
  if (buffer == nullptr) return Fail(OPL_TERM_E_NULL_ARGUMENT, "%s: pBuffer is NULL");
  if (maxBufferSize < 1) return Fail(OPL_TERM_E_BAD_SIZE, "%s: MaxBufferSize < 1");
  std::memset(buffer, 0, static_cast<size_t>(maxBufferSize));
  if (::isatty(STDIN_FILENO) != 0)
    return OPL_TermGetStringFromTtyEchoOff(prompt, buffer, static_cast<size_t>(maxBufferSize));
  return OPL_TermGetStringFromStdinEchoOff(buffer, static_cast<size_t>(maxBufferSize));
}
