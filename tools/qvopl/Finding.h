// What doctor finds, and what may be done about it.
#ifndef QVOPL_TOOL_FINDING_H
#define QVOPL_TOOL_FINDING_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/qvopl/FileName.h"

namespace qvopl {

// A note costs nothing but room; a warning is in somebody's way, or will be; an error keeps processes from
// working.
enum class Severity { kNote, kWarning, kError };

// Which file it is, whatever it is called, and how it stands.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t changedNs = 0;
  uid_t owner = 0;

  bool operator==(const FileIdentity&) const = default;
};

// What --fix does. Each is looked at again, under the instance's locks, just before it is done.
struct Repair {
  enum class Action {
    kBeginAndEnd,      // the library's own start clears the management set away, or takes it over
    kRemoveFile,       // with nothing behind it
    kRemoveTemporary,  // with the object that only its dead maker can have known
    kRemoveSet,        // that no process uses, with its file
    kRemoveSegment,    // that no process has attached, with its file
    kRemoveEvent,      // that no process has open: FIFO and count file
    kRemoveOrphanSet,
    kRemoveOrphanSegment,
  };

  Action action;
  std::string does;       // "removes the file"
  std::string file;       // in the IPC directory; empty for orphans
  FileIdentity identity;  // of the file
  std::optional<FileName> name;
  int32_t id = -1;     // of the set or segment
  uid_t owner = 0;     // of what is removed
  bool isSure = true;  // or what is removed may be another program's
};

struct Finding {
  Severity severity;
  std::string name;      // "stale-file"
  std::string subject;   // a file's name, "semaphore set 12", a path
  std::string instance;  // empty for what belongs to none
  std::string what;
  std::string advice;
  std::optional<Repair> repair;
  // What it was found by: a finding counts that comes with the same evidence again and again.
  std::string evidence;
  // Whether nothing that goes on just now could look the same.
  bool isSettled = true;
  // Whether it counts all the same when it has stayed for as long as anybody looks.
  bool countsInTheEnd = false;
};

using Findings = std::vector<Finding>;

}  // namespace qvopl

#endif
