// The IPC directory, looked at without leaving a trace: no link is followed, nothing is waited for, and no
// access time changes.
#ifndef QVOPL_TOOL_IPC_DIRECTORY_H
#define QVOPL_TOOL_IPC_DIRECTORY_H

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "opl_base/src/Fd.h"
#include "tools/qvopl/FileName.h"

namespace qvopl {

// A file whose name is one of an object.
struct Entry {
  std::string file;  // its name, as it is: anybody's bytes
  FileName name;
  struct stat status {};
};

// What came of reading a file's contents.
enum class Reading {
  kDone,
  kGone,        // or another file has the name by now
  kNoFile,      // a link, a directory, a FIFO, ...
  kShort,       // fewer than four bytes
  kRefused,     // no permission
  kWouldTouch,  // reading would change the access time, which only owner and superuser can keep
};

// "no permission to read it".
const char* TextOf(Reading reading);

struct Word {
  Reading reading = Reading::kGone;
  int32_t value = 0;
};

class IpcDirectory {
 public:
  // Throws CouldNotLook.
  explicit IpcDirectory(const std::string& path);

  const std::string& path() const { return path_; }
  int fd() const { return fd_.Get(); }

  // All files with names of objects; the others are nobody's business here.
  std::vector<Entry> Entries() const;
  // The file of that name; nothing when it is not there.
  std::optional<struct stat> StatusOf(const std::string& file) const;

  // The first four bytes of a regular file: an id, a count, a process.
  Word ReadWord(const Entry& entry) const;

  // A regular file opened for reading, still the entry's.
  opl::Fd OpenFile(const Entry& entry, Reading* reading) const;
  // An event's FIFO, opened for reading alone: that waits for nobody, and no user of an event waits for it.
  // It has to be closed at once: while it is open, the posts of an event outlive its last user.
  opl::Fd OpenFifo(const Entry& entry, Reading* reading) const;

 private:
  const std::string path_;
  opl::Fd fd_;
  bool keepsAccessTimes_ = false;  // the file system does, by itself
};

}  // namespace qvopl

#endif
