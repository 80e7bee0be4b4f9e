// The system's tables of record locks and of local sockets, each read when it is first needed, and kept.
#ifndef QVOPL_TOOL_TABLES_H
#define QVOPL_TOOL_TABLES_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qvopl {

struct FileLock {
  pid_t holder = 0;  // 0 when nobody holds it; -1 for a process that cannot be told
  int waiting = 0;
};

class FileLocks {
 public:
  FileLock On(ino_t inode);

 private:
  std::map<uint64_t, FileLock> locks_;
  bool isRead_ = false;
};

struct BoundSocket {
  std::string path;
  uint64_t number = 0;
  bool isListening = false;
};

class BoundSockets {
 public:
  // Those that were bound to the file of that name in that directory; the directory's path may be another. A
  // path that does not begin at the root is one that nobody but the binder can follow: the name counts.
  std::vector<BoundSocket> At(int directory, const std::string& file);

 private:
  std::multimap<std::string, BoundSocket> byName_;  // by the last part of the path
  bool isRead_ = false;
};

}  // namespace qvopl

#endif
