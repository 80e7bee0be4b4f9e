// Lines of /proc. Names of processes and files in them are anybody's bytes.
#ifndef QVOPL_TOOL_PROC_LINES_H
#define QVOPL_TOOL_PROC_LINES_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qvopl {

// /proc/PID/stat: "4711 (name) S ...".
struct StatLine {
  std::string name;
  char state = '\0';
  std::optional<uint64_t> startTicks;  // after the system's start
};
std::optional<StatLine> ParseStat(std::string_view text);

// /proc/PID/maps: "ADDRESS-END ACCESS OFFSET DEVICE INODE PATH", of a System V segment whose begin is there.
// Its inode is its id.
struct SegmentLine {
  uint64_t address;
  int32_t id;
};
std::optional<SegmentLine> ParseSegment(const std::string& line);

// /proc/locks: "NUMBER: [->] POSIX ADVISORY WRITE PROCESS MAJOR:MINOR:INODE START END"; the arrow is a
// waiter's.
struct LockLine {
  bool isWaiting;
  pid_t process;  // 0 and less for one that cannot be told
  uint64_t inode;
};
std::optional<LockLine> ParseLock(const std::string& line);

// /proc/net/unix: "Num RefCount Protocol Flags Type St Inode Path", of a socket that has a path.
struct SocketLine {
  uint64_t number;
  bool isListening;
  std::string path;
};
std::optional<SocketLine> ParseSocket(const std::string& line);

// Behind the last slash.
std::string_view LastComponent(std::string_view path);

}  // namespace qvopl

#endif
