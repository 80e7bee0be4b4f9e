// What the options that all commands have say, and what commands yield.
#ifndef QVOPL_TOOL_SETTINGS_H
#define QVOPL_TOOL_SETTINGS_H

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

// The screen that the standard output is.
Screen StandardScreen();

}  // namespace qvopl

#endif
