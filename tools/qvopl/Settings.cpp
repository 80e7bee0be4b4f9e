#include "tools/qvopl/Settings.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

bool IsSet(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

bool WantsColour() {
  const char* const terminal = std::getenv("TERM");
  return !IsSet("NO_COLOR") && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

}  // namespace

std::string SystemError(const std::string& what, int number) {
  return Printable(what) + ": " + std::strerror(number);
}

Screen StandardScreen() {
  if (::isatty(STDOUT_FILENO) == 0) return {};
  winsize size{};
  const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return {isKnown ? size_t{size.ws_col} : size_t{80}, WantsColour()};
}

}  // namespace qvopl
