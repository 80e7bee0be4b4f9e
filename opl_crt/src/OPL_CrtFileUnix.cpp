// Files and descriptors, with large files in both widths: the *64 calls are named outright, so that nothing
// depends on how the compiler was called.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <limits>

#include "OPL_Crt.h"
#include "opl_err/src/Fail.h"

namespace {

using opl::Fail;
using opl::NativeError;

static_assert(sizeof(OPL_CrtStatRecord) == 72);
static_assert(offsetof(OPL_CrtStatRecord, inode) == 4);
static_assert(offsetof(OPL_CrtStatRecord, device) == 12);
static_assert(offsetof(OPL_CrtStatRecord, specialDevice) == 20);
static_assert(offsetof(OPL_CrtStatRecord, linkCount) == 28);
static_assert(offsetof(OPL_CrtStatRecord, userId) == 32);
static_assert(offsetof(OPL_CrtStatRecord, groupId) == 36);
static_assert(offsetof(OPL_CrtStatRecord, size) == 40);
static_assert(offsetof(OPL_CrtStatRecord, accessTime) == 48);
static_assert(offsetof(OPL_CrtStatRecord, modificationTime) == 52);
static_assert(offsetof(OPL_CrtStatRecord, changeTime) == 56);
static_assert(offsetof(OPL_CrtStatRecord, blockSize) == 60);
static_assert(offsetof(OPL_CrtStatRecord, blocks) == 64);

int32_t Seconds(time_t time) {
  constexpr int64_t kFirst = std::numeric_limits<int32_t>::min();
  constexpr int64_t kLast = std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(std::clamp<int64_t>(time, kFirst, kLast));
}

OPL_CrtStatRecord RecordOf(const struct stat64& status) {
  OPL_CrtStatRecord record{};
  record.mode = status.st_mode;
  record.inode = status.st_ino;
  record.device = status.st_dev;
  record.specialDevice = status.st_rdev;
  record.linkCount = static_cast<uint32_t>(status.st_nlink);
  record.userId = status.st_uid;
  record.groupId = status.st_gid;
  record.size = status.st_size;
  record.accessTime = Seconds(status.st_atime);
  record.modificationTime = Seconds(status.st_mtime);
  record.changeTime = Seconds(status.st_ctime);
  record.blockSize = static_cast<uint32_t>(status.st_blksize);
  record.blocks = static_cast<uint64_t>(status.st_blocks);
  return record;
}

int32_t StoreStat(int result, const struct stat64& status, OPL_CrtStatRecord* pStat) {
  if (pStat != nullptr) *pStat = result == 0 ? RecordOf(status) : OPL_CrtStatRecord{};
  return result;
}

}  // namespace

int32_t OPL_CrtUTime(const char* path, const struct utimbuf* times) { return ::utime(path, times); }

int64_t OPL_CrtLSeek(int32_t fd, int64_t offset, int32_t whence) { return ::lseek64(fd, offset, whence); }

// The system looks at the mode only where a file may be made.
int32_t OPL_CrtOpen(const char* path, int32_t flags, uint32_t mode) { return ::open64(path, flags, mode); }

int32_t OPL_CrtClose(int32_t fd) { return ::close(fd); }

int32_t OPL_CrtCreat(const char* path, uint32_t mode) { return ::creat64(path, mode); }

int32_t OPL_CrtDup(int32_t fd) { return ::dup(fd); }

int32_t OPL_CrtPipe(int32_t fds[2]) { return ::pipe(fds); }

int32_t OPL_CrtSocket(int32_t family, int32_t type, int32_t protocol) {
  return ::socket(family, type, protocol);
}

int32_t OPL_CrtSocketPair(int32_t family, int32_t type, int32_t protocol, int32_t fds[2]) {
  return ::socketpair(family, type, protocol, fds);
}

int32_t OPL_CrtAccept(int32_t fd, struct sockaddr* address, socklen_t* length) {
  return ::accept(fd, address, length);
}

int32_t OPL_CrtStat(const char* path, OPL_CrtStatRecord* pStat) {
  struct stat64 status {};
  return StoreStat(::stat64(path, &status), status, pStat);
}

int32_t OPL_CrtFStat(int32_t fd, OPL_CrtStatRecord* pStat) {
  struct stat64 status {};
  return StoreStat(::fstat64(fd, &status), status, pStat);
}

int32_t OPL_CrtTruncate(const char* path, int64_t length) {
  if (path == nullptr) {
    errno = EINVAL;
    (void)Fail(NativeError(), OPL_OK, "OPL_CrtTruncate: No file name to truncate.");
  }
  // Deliberate: the call is made for a null path too, so that its result and errno are the system's. The
  // declared function promises the compiler a path; the same function under a plain type does not.
  int (*const truncate)(const char*, off64_t) = ::truncate64;
  const int result = truncate(path, length);  // NOLINT(clang-analyzer-core.NonNullParamChecker)
  if (result == -1) (void)Fail(NativeError(), OPL_OK, "OPL_CrtTruncate: truncate64() error.");
  return result;
}
