// What all commands have in common: their settings, their exit statuses, and how they are added.
#ifndef QVOPL_TOOL_COMMAND_H
#define QVOPL_TOOL_COMMAND_H

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/qvopl/Table.h"

namespace qvopl {

enum ExitCode { kFine = 0, kFound = 1, kCouldNotLook = 2 };

struct Settings {
  std::string ipcPath;                  // the IPC directory: the option, the environment, or the library's
  std::optional<std::string> instance;  // all, if none is given
  bool json = false;
  Screen screen;  // of the standard output; not limited where that is no terminal
};

// Ends a command with kCouldNotLook; main tells the text.
class CouldNotLook : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "what: Permission denied", printable.
std::string SystemError(const std::string& what, int number);

struct Program {
  CLI::App& app;
  Settings& settings;
  int& exitCode;
};

struct Description {
  const char* name;
  const char* text;      // one line
  const char* examples;  // lines of two blanks, a command line and what it does
};

// Adds a command with the options that all have; run yields its exit status.
CLI::App* AddCommand(const Program& program, const Description& description,
                     std::function<int(const Settings&)> run);

// The screen that the standard output is.
Screen StandardScreen();

void AddListCommand(const Program& program);
void AddShowCommand(const Program& program);
void AddWatchCommand(const Program& program);

}  // namespace qvopl

#endif
