// One file in the IPC directory, held open: how it is made whole, read, and removed without ever touching
// what has taken its name in the meantime.
#ifndef OPL_PRIVATE_IPC_FILE_H
#define OPL_PRIVATE_IPC_FILE_H

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
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

// Whether a new file was given its second name is read off the number of its names: link's own answer may get
// lost on its way from a file server, and when it is asked again the name is taken, by the file itself.
//
// The number of names of the file; -1 and errno when it cannot be told.
int64_t CountNames(const char* file);
// Gives the file, which has one name, another, which must not exist. -1 and errno on failure.
int LinkAs(const char* file, const char* name);

// A file as it was found. One that still stands so is the same file and holds what it held: whoever writes to
// it brings the time of writing back from the future, whatever else he does changes the time of change, and
// within one tick of the clock nobody but the file's owner can hide that again.
class FileStamp {
 public:
  FileStamp() = default;  // of no file: nothing stands so
  explicit FileStamp(const struct stat64& status);

  // Whether the name stands for the file, and nothing about it has changed.
  bool StillHolds(const char* file) const;

  bool operator==(const FileStamp&) const = default;

 private:
  FileId id_{};
  uid_t owner_ = 0;
  int64_t readNs_ = 0;
  int64_t writtenNs_ = 0;
  int64_t changedNs_ = 0;
};

// A name for a file that is being made, next to its own: FILE.PID.NUMBER. No other living process or thread
// of this container has it; what stands there is a dead process's.
class TemporaryName {
 public:
  explicit TemporaryName(const char* file) : file_(file) { TakeNext(); }
  const char* c_str() const { return text_; }

  // Makes a file with make(name), and removes what stands there before; where somebody else has put it, and
  // it cannot be removed, another name is taken. As make: -1 and errno on failure.
  template <typename Make>
  int MakeFile(Make make) {
    int made = -1;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      if (attempt != 0) TakeNext();
      (void)::unlink(text_);
      made = make(text_);
      if (made != -1 || errno != EEXIST) break;
    }
    return made;
  }

  static constexpr int kAttempts = 16;

 private:
  void TakeNext();

  const char* const file_;
  char text_[kIpcNameSize];
};

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

  // How the file stands; nobody's file without a name when that cannot be told.
  struct stat64 Status() const;
  // Whether the times of the file, which stands so, are to be moved into the future, and this process may.
  bool HasTimesToMove(const struct stat64& status) const;
  // Moves them.
  void SetTimesInFuture(const struct stat64& status) const;
  // Removes the name as long as it stands for the open file.
  void Unlink(const char* file) const;

 private:
  void LockForRemoval() const;

  int fd_ = -1;
  bool isOwn_ = false;  // as far as the times are concerned, which a superuser's own are, too
};

}  // namespace opl

#endif
