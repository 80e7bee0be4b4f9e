#include "tools/qvopl/Terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <string_view>

namespace qvopl {

namespace {

constexpr int kEnding[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
constexpr int kWatched[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGWINCH, SIGTSTP, SIGCONT};

// Its own screen, no cursor, no line beyond the margin; and back.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view kLeave = "\033[?7h\033[?25h\033[?1049l";

constexpr char kEscape = '\033';

// Signals are blocked but for the waits, so that only these are interrupted.
volatile std::sig_atomic_t gSignals[NSIG];

void Note(int signal) { gSignals[signal] = 1; }

bool Take(int signal) {
  const bool came = gSignals[signal] != 0;
  gSignals[signal] = 0;
  return came;
}

sigset_t Watched() {
  sigset_t signals;
  (void)::sigemptyset(&signals);
  for (const int signal : kWatched) (void)::sigaddset(&signals, signal);
  return signals;
}

void Handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  (void)::sigaction(signal, &action, nullptr);
}

// What a terminal does not take is lost: there is nobody to tell.
void Write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written == -1 && errno == EINTR) continue;
    if (written == -1 && errno == EAGAIN) {
      pollfd entry{STDOUT_FILENO, POLLOUT, 0};
      if (::poll(&entry, 1, -1) == 1 && (entry.revents & POLLOUT) != 0) continue;
    }
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

// What a key sends that sends more than a character: "ESC [ ... LETTER", or "ESC O LETTER".
struct Sequence {
  std::string_view text;
  char key;
};
constexpr Sequence kSequences[] = {{"[A", kKeyUp},        {"OA", kKeyUp},        {"[B", kKeyDown},
                                   {"OB", kKeyDown},      {"[5~", kKeyPageUp},   {"[6~", kKeyPageDown},
                                   {"[H", kKeyBeginning}, {"OH", kKeyBeginning}, {"[1~", kKeyBeginning}};

// The rest is there with the first character, or soon.
bool ReadSoon(char* character) {
  constexpr int kSoonMs = 50;
  pollfd keys{STDIN_FILENO, POLLIN, 0};
  return ::poll(&keys, 1, kSoonMs) == 1 && ::read(STDIN_FILENO, character, 1) == 1;
}

// Its letters are no keys of their own; a sequence that means nothing here is no key.
char ReadSequence() {
  constexpr size_t kLongest = 16;
  std::string text(1, '\0');
  if (!ReadSoon(text.data())) return 0;
  bool goesOn = text[0] == '[' || text[0] == 'O';
  for (char character = 0; goesOn && text.size() < kLongest && ReadSoon(&character);) {
    text += character;
    goesOn = text[0] == '[' && (character < '@' || character > '~');
  }
  for (const Sequence& sequence : kSequences)
    if (sequence.text == text) return sequence.key;
  return 0;
}

}  // namespace

int64_t MonotonicMs() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

Terminal::Terminal() {
  const sigset_t watched = Watched();
  (void)::sigprocmask(SIG_BLOCK, &watched, &signalsBefore_);
  static_assert(std::size(kWatched) == kSignals);
  for (size_t i = 0; i < kSignals; ++i) {
    (void)::sigaction(kWatched[i], nullptr, &actionsBefore_[i]);
    // What the caller wants ignored, as nohup does, stays so.
    if (actionsBefore_[i].sa_handler != SIG_IGN) Handle(kWatched[i], Note);
  }
  hasKeys_ = ::tcgetattr(STDIN_FILENO, &before_) == 0;
  Enter();
}

Terminal::~Terminal() {
  Leave();
  for (size_t i = 0; i < kSignals; ++i) (void)::sigaction(kWatched[i], &actionsBefore_[i], nullptr);
  (void)::sigprocmask(SIG_SETMASK, &signalsBefore_, nullptr);
}

void Terminal::Enter() {
  if (hasKeys_) {
    termios raw = before_;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    (void)::tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
  }
  Write(kEnter);
}

void Terminal::Leave() {
  Write(kLeave);
  if (hasKeys_) (void)::tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
}

// Until the shell lets the program go on.
void Terminal::Stop() {
  Leave();
  Handle(SIGTSTP, SIG_DFL);
  (void)::kill(::getpid(), SIGTSTP);
  sigset_t stop;
  (void)::sigemptyset(&stop);
  (void)::sigaddset(&stop, SIGTSTP);
  (void)::sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  (void)::sigprocmask(SIG_BLOCK, &stop, nullptr);
  Handle(SIGTSTP, Note);
  Enter();
}

Terminal::Size Terminal::SizeNow() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row == 0 || size.ws_col == 0)
    return {24, 80};
  return {size.ws_row, size.ws_col};
}

void Terminal::Draw(const std::vector<std::string>& lines) {
  const size_t rows = std::min(lines.size(), SizeNow().rows);
  std::string text = "\033[H";
  for (size_t i = 0; i < rows; ++i) text += (i != 0 ? "\r\n" : "") + lines[i] + "\033[K";
  Write(text + "\033[J");
}

Terminal::Event Terminal::Await(int64_t timeMs, char* key) {
  for (;;) {
    const int64_t leftMs = std::max(timeMs - MonotonicMs(), int64_t{0});
    timespec left{};
    left.tv_sec = static_cast<time_t>(leftMs / 1000);
    left.tv_nsec = static_cast<long>(leftMs % 1000 * 1000000);
    pollfd keys{hasKeys_ ? STDIN_FILENO : -1, POLLIN, 0};
    const int ready = ::ppoll(&keys, 1, &left, &signalsBefore_);
    for (const int signal : kEnding)
      if (Take(signal)) {
        endingSignal_ = signal;
        return Event::kEnd;
      }
    if (Take(SIGTSTP)) Stop();
    // Also by a stop that could not be seen the shell has got its terminal back.
    const bool hasGoneOn = Take(SIGCONT);
    if (hasGoneOn) Enter();
    if (Take(SIGWINCH) || hasGoneOn) return Event::kResize;
    if (ready == 1 && ::read(STDIN_FILENO, key, 1) != 1) return Event::kEnd;
    if (ready == 1 && *key == kEscape) *key = ReadSequence();
    if (ready == 1) return Event::kKey;
    if (ready == 0) return Event::kTime;
  }
}

}  // namespace qvopl
