// Any text as a server's parameter file: it is refused with a message that says where and harms no terminal,
// or read; and what was read, written down, is read as the same.
#include "tools/qvopl/ServerParameters.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/support/Input.h"
#include "tools/qvopl/Settings.h"

namespace {

using oplfuzz::Check;
using qvopl::ServerParameters;

class File {
 public:
  File() : fd_(::memfd_create("parameters", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {}

  // Nothing where it is refused.
  std::optional<ServerParameters> Read(const std::string& text) const {
    Check(::ftruncate(fd_, 0) == 0);
    Check(::pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    ServerParameters parameters;
    parameters.file = path_;
    try {
      qvopl::ReadServerFile(&parameters);
    } catch (const qvopl::CouldNotLook& refusal) {
      CheckRefusal(refusal.what());
      return std::nullopt;
    }
    return parameters;
  }

 private:
  void CheckRefusal(std::string_view message) const {
    Check(message.starts_with(path_ + ":"));
    Check(std::all_of(message.begin(), message.end(), [](char c) { return c >= ' ' && c <= '~'; }));
  }

  const int fd_;
  const std::string path_;
};

std::string Written(const ServerParameters& parameters) {
  constexpr const char* kNames[] = {"script-directory", "controller-name", "executable-path", "process-name"};
  std::string text;
  for (size_t i = 0; i < std::size(kNames); ++i)
    text += std::string("  ") + kNames[i] + "=" + parameters.texts[i] + "\r\n";
  return text + "instance = " + parameters.instance;
}

void CheckValue(const std::string& value) {
  constexpr char kBlanks[] = " \t\r";
  Check(value.find('\n') == std::string::npos && value.find('\0') == std::string::npos);
  Check(value.empty() ||
        (value.find_first_of(kBlanks) != 0 && value.find_last_of(kBlanks) != value.size() - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const File kFile;
  const auto read = kFile.Read({reinterpret_cast<const char*>(data), size});
  if (!read.has_value()) return 0;
  for (const std::string& value : read->texts) CheckValue(value);
  CheckValue(read->instance);
  const auto again = kFile.Read(Written(*read));
  Check(again.has_value() && again->texts == read->texts && again->instance == read->instance);
  return 0;
}
