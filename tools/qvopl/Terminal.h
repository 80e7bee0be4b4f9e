// A terminal that one program draws on: its own screen, keys one by one, and everything as it was on every
// way out that the system lets a program see.
#ifndef QVOPL_TOOL_TERMINAL_H
#define QVOPL_TOOL_TERMINAL_H

#include <termios.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

namespace qvopl {

// What the keys for moving about are told as: those that pagers have for the same.
constexpr char kKeyDown = 'j';
constexpr char kKeyUp = 'k';
constexpr char kKeyPageDown = ' ';
constexpr char kKeyPageUp = 'b';
constexpr char kKeyBeginning = 'g';

class Terminal {
 public:
  // Of the standard output; keys come from the standard input, if that is a terminal.
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  struct Size {
    size_t rows;
    size_t columns;
  };
  static Size SizeNow();

  // The whole screen; lines beyond it are not shown.
  static void Draw(const std::vector<std::string>& lines);

  enum class Event { kTime, kKey, kResize, kEnd };
  // Until something happens, or the time, of the monotonic clock in milliseconds, has come. A signal that
  // ends programs, and the terminal's end, are kEnd. A key without a meaning is told as 0.
  Event Await(int64_t timeMs, char* key);

  // The signal that kEnd was for; 0 for another reason.
  int EndingSignal() const { return endingSignal_; }

 private:
  void Enter();
  void Leave();
  void Stop();

  bool hasKeys_ = false;
  termios before_{};
  static constexpr size_t kSignals = 7;
  std::array<struct sigaction, kSignals> actionsBefore_{};
  sigset_t signalsBefore_{};
  int endingSignal_ = 0;
};

int64_t MonotonicMs();

}  // namespace qvopl

#endif
