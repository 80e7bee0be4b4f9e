// Which processes have files of the IPC directory open, and which sockets are bound to some.
#ifndef QVOPL_TOOL_OPEN_FILES_H
#define QVOPL_TOOL_OPEN_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <utility>

namespace qvopl {

// Dead, or on its way to be reaped. The id 0, which the system tells for a process of another container,
// counts as alive.
bool IsGone(pid_t pid);

// Gone, or a process that has the id of one that was there before that moment, in seconds since the epoch.
bool IsGoneSince(pid_t pid, int64_t moment);

// One pass over all processes; what opens and closes meanwhile may be seen or not.
class OpenFiles {
 public:
  // Descriptors are looked at only where their links' last component is an object file's name, such as that
  // under which an event's FIFO was made: a look at a file of a server that is away would wait for it.
  OpenFiles();

  // How many descriptors of all processes are the file's.
  size_t DescriptorsOf(const struct stat& file) const;
  std::set<pid_t> ProcessesWith(const struct stat& file) const;

  // Whether all processes that may have a file of that owner open were looked at: the owner's, and those of
  // all others where anybody may open it. Those of root are only where root looks.
  bool SeesAllOf(uid_t owner, bool isForAllUsers) const;

 private:
  struct Holders {
    size_t descriptors = 0;
    std::set<pid_t> processes;
  };

  void LookAt(pid_t pid);

  std::map<std::pair<dev_t, ino_t>, Holders> files_;
  std::set<uid_t> hiddenUsers_;  // of processes that may not be looked at
};

// The last components of the names that sockets of the machine are bound to, in all of its network namespaces
// that can be seen.
std::set<std::string> BoundSocketNames();

}  // namespace qvopl

#endif
