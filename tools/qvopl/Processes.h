// Processes as /proc tells of them.
#ifndef QVOPL_TOOL_PROCESSES_H
#define QVOPL_TOOL_PROCESSES_H

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qvopl {

struct Process {
  bool isAlive = false;   // neither gone nor a zombie
  std::string name;       // as the process calls itself, anybody's bytes; empty when it is gone
  int64_t startedAt = 0;  // seconds since the epoch; 0 when that cannot be told
};

// Where a process has a segment.
struct Attachment {
  pid_t pid;
  uint64_t address;
};

// The count of handles that the segment begins with. To attach it would change its times; the process that
// has it, of either width, is asked instead. Nothing where its memory may not be read.
std::optional<uint32_t> HandlesIn(const Attachment& attachment);

// The processes of one namespace see the same System V objects, and no others. Empty when it cannot be told.
std::string IpcNamespaceOf(pid_t pid);

// What is found is kept: an object of this class is one moment's view.
class Processes {
 public:
  const Process& Get(pid_t pid);

  // Whether the process is the one that had its id at that time, and not another one by now.
  bool IsSince(pid_t pid, int64_t time);

  // "process 4711 (name)", "process 4711, which is gone", "a process of another container".
  std::string Describe(pid_t pid);

  // All that this process can see, in order.
  static std::vector<pid_t> All();

  // Whose maps may be read: who has which of the segments in sight attached, and who has the library loaded.
  const std::map<int32_t, std::vector<Attachment>>& Attachments();
  const std::vector<pid_t>& LibraryUsers();

  // Whose descriptors may be looked at: who has the file of that name open, or the socket of that number in
  // the system's tables.
  std::vector<pid_t> OpenersOf(const struct stat& file, const std::string& name);
  std::vector<pid_t> OpenersOfSocket(uint64_t number);

 private:
  struct Descriptor {
    pid_t pid;
    std::string link;  // in /proc
  };

  void ReadDescriptors();
  void ReadMaps();
  void ReadMapsOf(pid_t pid);

  std::map<pid_t, Process> known_;
  const std::string namespace_ = IpcNamespaceOf(::getpid());
  std::map<int32_t, std::vector<Attachment>> attachments_;
  std::vector<pid_t> libraryUsers_;
  bool hasMaps_ = false;
  std::multimap<std::string, Descriptor> descriptors_;  // by the last part of what they stand for
  bool hasDescriptors_ = false;
};

}  // namespace qvopl

#endif
