#include "tools/qvopl/ProcLines.h"

#include <charconv>
#include <limits>
#include <sstream>

namespace qvopl {

namespace {

constexpr unsigned long kAcceptsConnections = 0x10000;

}  // namespace

// The name stands in parentheses and may hold anything, parentheses too.
std::optional<StatLine> ParseStat(std::string_view text) {
  constexpr int kState = 3;
  constexpr int kStart = 22;
  const size_t open = text.find('(');
  const size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  StatLine line;
  line.name = text.substr(open + 1, close - open - 1);
  std::istringstream rest(std::string(text.substr(close + 1)));
  if (!(rest >> line.state)) return std::nullopt;
  std::string skipped;
  for (int field = kState + 1; field < kStart; ++field) rest >> skipped;
  uint64_t ticks = 0;
  if (rest >> ticks) line.startTicks = ticks;
  return line;
}

std::optional<SegmentLine> ParseSegment(const std::string& line) {
  std::istringstream words(line);
  uint64_t address = 0;
  char dash = 0;
  uint64_t end = 0;
  std::string access;
  uint64_t offset = 0;
  std::string device;
  uint64_t inode = 0;
  std::string path;
  words >> std::hex >> address >> dash >> end >> access >> offset >> device >> std::dec >> inode >> path;
  if (words.fail() || offset != 0 || !path.starts_with("/SYSV") ||
      inode > static_cast<uint64_t>(std::numeric_limits<int32_t>::max()))
    return std::nullopt;
  return SegmentLine{address, static_cast<int32_t>(inode)};
}

std::optional<LockLine> ParseLock(const std::string& line) {
  std::istringstream words(line);
  std::string number;
  std::string kind;
  words >> number >> kind;
  LockLine lock{kind == "->", 0, 0};
  if (lock.isWaiting) words >> kind;
  std::string advisory;
  std::string access;
  std::string file;
  words >> advisory >> access >> lock.process >> file;
  const size_t colon = file.rfind(':');
  if (words.fail() || kind != "POSIX" || colon == std::string::npos) return std::nullopt;
  const char* const end = file.data() + file.size();
  const auto [at, error] = std::from_chars(file.data() + colon + 1, end, lock.inode);
  return error == std::errc{} && at == end ? std::optional(lock) : std::nullopt;
}

std::optional<SocketLine> ParseSocket(const std::string& line) {
  std::istringstream words(line);
  std::string word;
  unsigned long flags = 0;
  SocketLine socket{};
  words >> word >> word >> word >> std::hex >> flags >> std::dec >> word >> word >> socket.number;
  if (words.fail() || words.get() != ' ' || !std::getline(words, socket.path) || socket.path.empty())
    return std::nullopt;
  socket.isListening = (flags & kAcceptsConnections) != 0;
  return socket;
}

std::string_view LastComponent(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace qvopl
