#include "opl_private/src/IpcFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "opl_base/src/ErrnoKeeper.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Retry.h"
#include "opl_private/src/FutureTime.h"

namespace {

constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int kNewFileFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

// Tells the temporary files of this process's threads apart.
std::atomic<uint32_t> gTemporaryNumber{0};

int64_t NsOf(const timespec& time) { return time.tv_sec * int64_t{1000000000} + time.tv_nsec; }

}  // namespace

namespace opl {

bool IsNamed(const FileId& id, const char* file) {
  struct stat64 named {};
  return ::lstat64(file, &named) == 0 && IdOf(named) == id;
}

bool IsNamed(int fd, const char* file) {
  struct stat64 open {};
  return ::fstat64(fd, &open) == 0 && IsNamed(IdOf(open), file);
}

int64_t CountNames(const char* file) {
  struct stat64 status {};
  return ::stat64(file, &status) == 0 ? static_cast<int64_t>(status.st_nlink) : -1;
}

int LinkAs(const char* file, const char* name) {
  if (::link(file, name) == 0) return 0;
  const ErrnoKeeper keepErrno;
  return CountNames(file) < 2 ? -1 : 0;
}

FileStamp::FileStamp(const struct stat64& status)
    : id_(IdOf(status)),
      owner_(status.st_uid),
      readNs_(NsOf(status.st_atim)),
      writtenNs_(NsOf(status.st_mtim)),
      changedNs_(NsOf(status.st_ctim)) {}

bool FileStamp::StillHolds(const char* file) const {
  if (*this == FileStamp()) return false;
  struct stat64 named {};
  return ::lstat64(file, &named) == 0 && FileStamp(named) == *this;
}

void TemporaryName::TakeNext() {
  uint32_t pid = 0;
  (void)OPL_ProcessRealIdGet(&pid);
  (void)OPL_CrtSNPrintf(text_, sizeof text_, "%s.%lx.%lx", file_, pid, ++gTemporaryNumber);
}

NewIpcFile::~NewIpcFile() {
  const ErrnoKeeper keepErrno;
  if (fd_ != -1) (void)::close(fd_);
  if (exists_) (void)::unlink(temporary_);
}

pid_t MakerOf(const char* file) {
  const char* const version = OPL_InitBuildVersionStringGet(0);
  const char* suffix = nullptr;
  for (const char* at = std::strstr(file, version); at != nullptr; at = std::strstr(at + 1, version))
    suffix = at + std::strlen(version);
  if (suffix == nullptr || *suffix != '.') return 0;
  char* end = nullptr;
  const unsigned long maker = std::strtoul(suffix + 1, &end, 16);
  if (*end == '.') (void)std::strtoul(end + 1, &end, 16);
  return *end == '\0' ? static_cast<pid_t>(maker) : 0;
}

// A file with a second name was published, and its object lives.
void RemoveLeftover(const SystemVKind& kind, const char* temporary) {
  IpcFile leftover;
  if (leftover.Open(temporary) == -1) return;
  struct stat64 status {};
  int32_t id = -1;
  if (::fstat64(leftover.fd(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
      leftover.ReadId(&id) == sizeof id && kind.isUnused(id, status.st_uid, status.st_ctime))
    (void)kind.remove(id, status.st_uid);
  leftover.Unlink(temporary);
}

int NewIpcFile::OpenAs(const char* temporary, uint32_t mode) {
  CopyText(temporary_, temporary);
  fd_ = ::open64(temporary_, kNewFileFlags, mode);
  if (fd_ == -1 && errno == EEXIST) {
    RemoveLeftover(kind_, temporary_);
    // A leftover that cannot be read, or is none of ours at all, only has the name.
    (void)::unlink(temporary_);
    fd_ = ::open64(temporary_, kNewFileFlags, mode);
  }
  exists_ = fd_ != -1;
  return fd_;
}

int NewIpcFile::Open(const char* file, uint32_t mode) {
  // A name that somebody else has taken and keeps is left to them.
  for (int attempt = 0; fd_ == -1 && attempt < TemporaryName::kAttempts; ++attempt)
    if (OpenAs(TemporaryName(file).c_str(), mode) == -1 && errno != EEXIST) break;
  return fd_;
}

void NewIpcFile::SetTimesInFuture() const {
  const ErrnoKeeper keepErrno;
  SetDescriptorTimesInFuture(fd_);
}

int NewIpcFile::Close() {
  const int result = ::close(fd_);
  fd_ = -1;
  return result;
}

int NewIpcFile::Publish(const char* file) {
  if (LinkAs(temporary_, file) == -1) return -1;
  (void)::unlink(temporary_);
  exists_ = false;
  return 0;
}

IpcFile::~IpcFile() {
  const ErrnoKeeper keepErrno;
  if (fd_ != -1) (void)::close(fd_);
}

int IpcFile::Open(const char* file) {
  // Reading would bring the access time back from the future to the present. Only the owner may ask for its
  // being left alone, and only the owner may set times.
  fd_ = ::open64(file, kReadFlags | O_NOATIME);
  isOwn_ = fd_ != -1;
  if (fd_ == -1 && errno == EPERM) fd_ = ::open64(file, kReadFlags);
  return fd_;
}

ssize_t IpcFile::ReadId(int32_t* id) const {
  return RetryOnEintr([&] { return ::read(fd_, id, sizeof *id); });
}

int IpcFile::Close() {
  const int result = ::close(fd_);
  fd_ = -1;
  return result;
}

struct stat64 IpcFile::Status() const {
  const ErrnoKeeper keepErrno;
  struct stat64 status {};
  if (::fstat64(fd_, &status) == -1) status.st_uid = static_cast<uid_t>(-1);
  return status;
}

bool IpcFile::HasTimesToMove(const struct stat64& status) const {
  return isOwn_ && status.st_nlink != 0 && !HasFutureTimes(status);
}

void IpcFile::SetTimesInFuture(const struct stat64& status) const {
  const ErrnoKeeper keepErrno;
  if (HasTimesToMove(status)) SetDescriptorTimesInFuture(fd_, status);
}

// Every remover of an object file holds this lock while it compares and unlinks. A name that stands for a
// file cannot be given to another before it is unlinked, so what is compared is what is removed. Somebody who
// may read the file may keep the lock for ever; whoever has tried long enough goes on without it.
void IpcFile::LockForRemoval() const {
  constexpr int kTries = 200;
  const timespec pause{0, 1000000};
  for (int attempt = 0; attempt < kTries; ++attempt) {
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0 || (errno != EWOULDBLOCK && errno != EINTR)) return;
    (void)::nanosleep(&pause, nullptr);
  }
}

void IpcFile::Unlink(const char* file) const {
  const ErrnoKeeper keepErrno;
  LockForRemoval();
  if (IsNamed(fd_, file)) (void)::unlink(file);
  (void)::flock(fd_, LOCK_UN);
}

}  // namespace opl
