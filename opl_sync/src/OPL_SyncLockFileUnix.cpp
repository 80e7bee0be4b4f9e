// Lock files: a file in the IPC directory with a record lock on its first byte, which the system drops when
// its owner dies.
//
// A name may be removed and made anew while somebody waits for the lock on the old file. So a lock counts
// only once it is known that the name still stands for the locked file, and a file is removed only under its
// lock.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/FixedText.h"
#include "opl_err/src/Fail.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/IpcFile.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_sync/src/SyncProcess.h"

namespace {

enum class State : uint32_t { kNew = 0, kHeld = 1, kReleased = 2 };

}  // namespace

struct OPL_SyncLockFile {
  char path[opl::kIpcNameSize];
  int32_t descriptor;  // -1 when not open
  uint32_t owner;      // the process that made the record
  State state;
};

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::IsNamed;
using opl::NativeError;

constexpr mode_t kMode = 0600;
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int kAppearanceAttempts = 31;
constexpr uint32_t kAttemptSeconds = 1;

void GetLockFileName(const char* name, char (&path)[opl::kIpcNameSize]) {
  char directory[opl::kIpcNameSize];
  (void)OPL_InitIPCPathGet(0, directory, sizeof directory);
  // Deliberate: the name's length up to its last dot is a width, not a precision: a name with dots is written
  // whole.
  const char* const dot = std::strrchr(name, '.');
  const size_t width = dot != nullptr ? static_cast<size_t>(dot - name) + 1 : std::strlen(name);
  (void)OPL_CrtSNPrintf(path, sizeof path, "%s%c%*s%s%s.%s", directory, '/', static_cast<int32_t>(width),
                        name, opl::kLockFileMarker, OPL_InitInstanceStringGet(),
                        OPL_InitBuildVersionStringGet(0));
}

struct flock FirstByte(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 1;
  return lock;
}

// Locks or unlocks the first byte; the caller's position in the file stays.
Code SetLock(Caller caller, int fd, int command, short type) {
  const off64_t position = ::lseek64(fd, 0, SEEK_CUR);
  if (position == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SYNC_E_LSEEK, "%s: lseek(1) error :%i,%s", error.number(), error.text());
  }
  if (::lseek64(fd, 0, SEEK_SET) == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SYNC_E_LSEEK, "%s: lseek(2) error :%i,%s", error.number(), error.text());
  }
  struct flock lock = FirstByte(type);
  if (::fcntl(fd, command, &lock) == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SYNC_E_FCNTL, "%s: fcntl error :%i,%s", error.number(), error.text());
  }
  if (::lseek64(fd, position, SEEK_SET) == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SYNC_E_LSEEK, "%s: lseek(3) error :%i,%s", error.number(), error.text());
  }
  return OPL_OK;
}

// Waits for the lock.
Code LockFd(int fd) { return SetLock(Caller{"LockFd"}, fd, F_SETLKW, F_WRLCK); }

Code UnLockFd(int fd) { return SetLock(Caller{"UnLockFd"}, fd, F_SETLK, F_UNLCK); }

// Takes the lock if it is free. A lock that is not to be had is no failure.
Code TryLockFd(int fd, bool* locked) {
  // Deliberate: both texts count as the first, and the position is not put back.
  if (::lseek64(fd, 0, SEEK_CUR) == -1 || ::lseek64(fd, 0, SEEK_SET) == -1) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_LSEEK, "%s: lseek(1) error :%i,%s", error.number(), error.text());
  }
  struct flock lock = FirstByte(F_WRLCK);
  *locked = ::fcntl(fd, F_SETLK, &lock) != -1;
  return OPL_OK;
}

bool IsOwner(const OPL_SyncLockFile& file) {
  uint32_t pid = 0;
  uint32_t isSame = 0;
  return OPL_ProcessIdGet(&pid) == OPL_OK && OPL_ProcessIdCompare(pid, file.owner, &isSame) == OPL_OK &&
         isSame != 0;
}

Code OpenFailed(Caller caller, const char* path) {
  const NativeError error;
  return Fail(caller, error, OPL_SYNC_E_OPEN, "%s: OPL_CrtOpen error :%i,%s\nfile %s", error.number(),
              error.text(), path);
}

Code AccessFailed(Caller caller) {
  const NativeError error;
  return Fail(caller, error, OPL_SYNC_E_LOCKFILE_MISSING, "%s: access error :%i,%s", error.number(),
              error.text());
}

// Waits until there is a file of that name: a look a second, of which the first one that finds it is the
// last.
Code AwaitFile(Caller caller, const char* path) {
  Code rc = OPL_OK;
  for (int attempt = 0; attempt < kAppearanceAttempts; ++attempt) {
    rc = ::access(path, F_OK) == 0 ? static_cast<Code>(OPL_OK) : AccessFailed(caller);
    (void)OPL_CrtSleep(kAttemptSeconds);
    if (rc == OPL_OK) break;
  }
  return rc;
}

// Removes a file whose owner is gone, unless somebody has come for it in the meantime.
Code RemoveFree(const char* path) {
  const Caller caller{"OPL_SyncLockFileCreate"};
  const opl::Fd fd(OPL_CrtOpen(path, kOpenFlags, 0));
  if (!fd.IsOpen()) return OPL_OK;
  bool locked = false;
  if (const Code rc = TryLockFd(fd.Get(), &locked)) return rc;
  if (!locked || !IsNamed(fd.Get(), path)) return OPL_OK;
  if (::fchmod(fd.Get(), kMode) == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SYNC_E_CHMOD, "%s: chmod(1) error :%i,%s", error.number(), error.text());
  }
  if (::unlink(path) == -1 && errno != ENOENT) {
    const NativeError error;
    return Fail(caller, error, OPL_SYNC_E_UNLINK, "%s: unlink error :%i,%s\nFile %s", error.number(),
                error.text(), path);
  }
  return OPL_OK;
}

// The steps of TryAcquire on the open file.
Code Probe(int fd, const char* path, uint32_t* pFree) {
  bool locked = false;
  if (const Code rc = TryLockFd(fd, &locked)) return rc;
  *pFree = locked ? 1 : 0;
  if (!locked) return OPL_OK;
  if (const Code rc = UnLockFd(fd)) return rc;
  if (::access(path, F_OK) == 0) return OPL_OK;
  const NativeError error;
  return Fail(Caller{"OPL_SyncLockFileTryAcquire"}, error, OPL_SYNC_E_LOCKFILE_MISSING,
              "%s: access(2) error :%i,%s", error.number(), error.text());
}

// What TryAcquire does. Of a failure, *isGone tells whether it is that the name stood for no file any more.
Code TryToAcquire(const char* path, uint32_t* pFree, bool* isGone) {
  const Caller caller{"OPL_SyncLockFileTryAcquire"};
  Code rc = AwaitFile(caller, path);
  *isGone = rc != OPL_OK;
  if (rc != OPL_OK) return rc;
  {
    const opl::Fd fd(OPL_CrtOpen(path, kOpenFlags, 0));
    *isGone = !fd.IsOpen() && errno == ENOENT;
    if (!fd.IsOpen()) return OpenFailed(caller, path);
    rc = Probe(fd.Get(), path, pFree);
    *isGone = rc == OPL_SYNC_E_LOCKFILE_MISSING;
  }
  (void)OPL_PrivateSetAccessTimeInFuture(path);
  return rc;
}

// A file that goes away meanwhile is in nobody's way, even if there is another one by now.
Code ReplaceStale(const char* path) {
  if (::access(path, F_OK) != 0) return OPL_OK;
  uint32_t isFree = 0;
  bool isGone = false;
  const Code rc = TryToAcquire(path, &isFree, &isGone);
  if (rc != OPL_OK) return isGone ? static_cast<Code>(OPL_OK) : rc;
  return isFree != 0 ? RemoveFree(path) : static_cast<Code>(OPL_OK);
}

// Opens or makes the file and waits for its lock, again when the name has come to stand for another file.
Code OpenAndLock(Caller caller, OPL_SyncLockFile* file) {
  for (;;) {
    file->descriptor = OPL_CrtOpen(file->path, kOpenFlags | O_CREAT, kMode);
    if (file->descriptor == -1) return OpenFailed(caller, file->path);
    if (::fchmod(file->descriptor, kMode) == -1) {
      const NativeError error;
      return Fail(caller, error, OPL_SYNC_E_CHMOD, "%s: chmod(2) error :%i,%s", error.number(), error.text());
    }
    if (const Code rc = LockFd(file->descriptor)) return rc;
    if (IsNamed(file->descriptor, file->path)) return OPL_OK;
    (void)::close(file->descriptor);
    file->descriptor = -1;
  }
}

// A file whose lock was given back may have been replaced as a dead owner's since.
Code LockAgain(Caller caller, OPL_SyncLockFile* file) {
  if (file->descriptor == -1) return OpenAndLock(caller, file);
  if (const Code rc = LockFd(file->descriptor)) return rc;
  if (IsNamed(file->descriptor, file->path)) return OPL_OK;
  (void)::close(file->descriptor);
  file->descriptor = -1;
  return OpenAndLock(caller, file);
}

void CloseFile(OPL_SyncLockFile* file) {
  if (file->descriptor == -1) return;
  (void)::close(file->descriptor);
  file->descriptor = -1;
  (void)OPL_PrivateSetAccessTimeInFuture(file->path);
}

// The owner's file goes, but not from under another process that holds it.
void UnlinkOwned(const OPL_SyncLockFile& file) {
  bool locked = file.state == State::kHeld;
  if (!locked && (file.descriptor == -1 || TryLockFd(file.descriptor, &locked) != OPL_OK || !locked)) return;
  if (IsNamed(file.descriptor, file.path)) (void)::unlink(file.path);
}

}  // namespace

OPL_Result OPL_SyncLockFileCreate(OPL_SyncLockFile** ppLockFile, const char* name) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppLockFile == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppLockFile is NULL");
  *ppLockFile = nullptr;
  if (name == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Name is NULL");
  opl::Owned<OPL_SyncLockFile> file = opl::Allocate<OPL_SyncLockFile>();
  if (file == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_NO_MEMORY, "%s: malloc error :%i", error.number());
  }
  file->descriptor = -1;
  GetLockFileName(name, file->path);
  if (const Code rc = ReplaceStale(file->path)) return rc;
  if (const Code rc = OpenAndLock(Caller{"OPL_SyncLockFileCreate"}, file.get())) {
    CloseFile(file.get());
    return rc;
  }
  file->state = State::kHeld;
  (void)OPL_ProcessIdGet(&file->owner);
  (void)OPL_PrivateSetAccessTimeInFuture(file->path);
  *ppLockFile = file.release();
  return OPL_OK;
}

OPL_Result OPL_SyncLockFileDestroy(OPL_SyncLockFile** ppLockFile) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppLockFile == nullptr || *ppLockFile == nullptr)
    return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppLockFile is NULL");
  OPL_SyncLockFile* const file = *ppLockFile;
  if (IsOwner(*file)) {
    UnlinkOwned(*file);
    const Code rc = OPL_SyncLockFileRelease(file);
    file->state = State::kReleased;
    CloseFile(file);
    if (rc != OPL_OK) return rc;
  }
  CloseFile(file);
  opl::Free(file);
  *ppLockFile = nullptr;
  return OPL_OK;
}

OPL_Result OPL_SyncLockFileAcquire(OPL_SyncLockFile* hLockFile) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hLockFile == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hLockFile is NULL");
  if (hLockFile->state != State::kReleased || !IsOwner(*hLockFile)) return OPL_OK;
  if (const Code rc = LockAgain(Caller{"OPL_SyncLockFileAcquire"}, hLockFile)) return rc;
  hLockFile->state = State::kHeld;
  return OPL_OK;
}

OPL_Result OPL_SyncLockFileRelease(OPL_SyncLockFile* hLockFile) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hLockFile == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hLockFile is NULL");
  if (hLockFile->state != State::kHeld || !IsOwner(*hLockFile)) return OPL_OK;
  if (const Code rc = UnLockFd(hLockFile->descriptor)) return rc;
  hLockFile->state = State::kReleased;
  return OPL_OK;
}

OPL_Result OPL_SyncLockFileTryAcquire(uint32_t* pFree, const char* name) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pFree == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pFree is NULL");
  if (name == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Name is NULL");
  char path[opl::kIpcNameSize];
  GetLockFileName(name, path);
  bool isGone = false;
  return TryToAcquire(path, pFree, &isGone);
}

OPL_Result OPL_SyncLockFileWaitFor(const char* name) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (name == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Name is NULL");
  const Caller caller{"OPL_SyncLockFileWaitFor"};
  char path[opl::kIpcNameSize];
  GetLockFileName(name, path);
  if (const Code rc = AwaitFile(caller, path)) return rc;
  (void)OPL_CrtSleep(kAttemptSeconds);
  Code rc = OPL_OK;
  {
    const opl::Fd fd(OPL_CrtOpen(path, kOpenFlags, 0));
    if (!fd.IsOpen()) return OpenFailed(caller, path);
    rc = LockFd(fd.Get());
    if (rc == OPL_OK) rc = UnLockFd(fd.Get());
    if (rc == OPL_OK && ::access(path, F_OK) != 0) rc = AccessFailed(caller);
  }
  (void)OPL_PrivateSetAccessTimeInFuture(path);
  return rc;
}

OPL_Result OPL_SyncLockFileWaitForMultiple(const char* const* names) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (names == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Names is NULL");
  for (; *names != nullptr; ++names)
    if (const Code rc = OPL_SyncLockFileWaitFor(*names)) return rc;
  return OPL_OK;
}

namespace opl {

Code TerminateLockFile(const char* pattern) {
  return ForEachIpcFile(pattern, opl::kLockFileMarker, [](const char* name) -> Code {
    (void)::unlink(name);
    return OPL_OK;
  });
}

}  // namespace opl
