// One file in the IPC directory, held open: how it is made whole, read, and removed without ever touching
// what has taken its name in the meantime.
#ifndef OPL_PRIVATE_IPC_FILE_H
#define OPL_PRIVATE_IPC_FILE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "opl_private/src/SystemV.h"

namespace opl {

// Longer than any path that the system takes: a name that is cut to fit is refused as too long, never used.
inline constexpr uint32_t kIpcNameSize = 4096 + 256;

// Which file it is, whatever it is called. As long as it is open, no other file gets its id.
struct FileId {
  uint64_t device;
  uint64_t inode;

  bool operator==(const FileId&) const = default;
};

inline FileId IdOf(const struct stat64& status) { return {status.st_dev, status.st_ino}; }

// Whether the name, of which no link is followed, stands for that file.
bool IsNamed(const FileId& id, const char* file);
bool IsNamed(int fd, const char* file);

// A new file under a temporary name next to its final one. Unless it is published, it is removed again.
class NewIpcFile {
 public:
  explicit NewIpcFile(const SystemVKind& kind) : kind_(kind) { temporary_[0] = '\0'; }
  ~NewIpcFile();
  NewIpcFile(const NewIpcFile&) = delete;
  NewIpcFile& operator=(const NewIpcFile&) = delete;

  // Opens a temporary file for file. What a dead process of our id has left under that name is removed, with
  // the object of this kind that only that process can have known. -1 and errno on failure.
  int Open(const char* file, uint32_t mode);
  // The same under exactly this temporary name.
  int OpenAs(const char* temporary, uint32_t mode);

  int fd() const { return fd_; }

  // Moves the file's times into the future.
  void SetTimesInFuture() const;
  int Close();
  // Gives the file its final name, which must not exist, and drops the temporary one. -1 and errno on
  // failure.
  int Publish(const char* file);
  // Leaves the file under its temporary name for the caller to publish.
  void Keep() { exists_ = false; }

 private:
  const SystemVKind& kind_;
  int fd_ = -1;
  char temporary_[kIpcNameSize];
  bool exists_ = false;
};

// The process that made a temporary file, read off its name, FILE.PID.NUMBER, or FILE.PID where the caller
// gives the temporary name; 0 for a name that is no temporary one.
pid_t MakerOf(const char* file);

// Removes a temporary file of a dead process, with the object of the kind that only that process can have
// known.
void RemoveLeftover(const SystemVKind& kind, const char* temporary);

// An existing object file, opened for reading: no link is followed, no FIFO waited for, and the access time
// stays as it is where the system allows that.
class IpcFile {
 public:
  IpcFile() = default;
  ~IpcFile();
  IpcFile(const IpcFile&) = delete;
  IpcFile& operator=(const IpcFile&) = delete;

  int Open(const char* file);
  int fd() const { return fd_; }
  // As read; 4 for a whole id.
  ssize_t ReadId(int32_t* id) const;
  int Close();

  // The file's owner; -1 when it cannot be told.
  uid_t Owner() const;
  // Moves the file's times into the future.
  void SetTimesInFuture() const;
  // Removes the name as long as it stands for the open file.
  void Unlink(const char* file) const;

 private:
  void LockForRemoval() const;

  int fd_ = -1;
};

}  // namespace opl

#endif
