// File mutexes: whoever links a file of its own to the common name holds it, on any file system.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/IpcFile.h"

namespace {

constexpr size_t kPathSize = 4096;
constexpr size_t kHostSize = 256;

}  // namespace

struct OPL_SyncMutexFile {
  char uniqueName[kPathSize];
  char host[kHostSize];
  uint32_t processId;
  uint32_t threadId;
  char commonName[kPathSize];
};

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr mode_t kMode = 0600;

// Whether the unique name has room. One that is cut is no longer this thread's alone.
bool FillNames(OPL_SyncMutexFile* mutex, const char* path) {
  char directory[kPathSize] = "";
  const char* const slash = std::strrchr(path, '/');
  if (slash != nullptr)
    (void)OPL_CrtSNPrintf(directory, sizeof directory, "%.*s", static_cast<int32_t>(slash - path + 1), path);
  (void)::gethostname(mutex->host, sizeof mutex->host - 1);
  (void)OPL_ProcessIdGet(&mutex->processId);
  (void)OPL_ThreadIdGet(&mutex->threadId);
  opl::CopyText(mutex->commonName, path);
  const int32_t length =
      OPL_CrtSNPrintf(mutex->uniqueName, sizeof mutex->uniqueName, "%smutex-%s-%lu-%lu.lck", directory,
                      mutex->host, mutex->processId, mutex->threadId);
  return length < static_cast<int32_t>(sizeof mutex->uniqueName);
}

int TooLong() {
  errno = ENAMETOOLONG;
  return -1;
}

// A file of that name that is there already was left by a dead process of our id.
int MakeUnique(const char* name) {
  constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const int fd = ::open64(name, kFlags, kMode);
  if (fd != -1 || errno != EEXIST) return fd;
  (void)::unlink(name);
  return ::open64(name, kFlags, kMode);
}

Code UnlinkFailed(Caller caller, const char* file) {
  const NativeError error;
  return Fail(caller, error, OPL_SYNC_E_UNLINK, "%s: unlink error :%i,%s\nfile %s", error.number(),
              error.text(), file);
}

// Links the names. The caller's own text is linked to: the record's copy may be cut, and stand for another
// file.
Code LinkNames(const OPL_SyncMutexFile& mutex, const char* path) {
  const Caller caller{"OPL_SyncMutexFileAcquire"};
  const bool linked = ::link(mutex.uniqueName, path) != -1;
  const int64_t names = opl::CountNames(mutex.uniqueName);
  if (names == -1) {
    const NativeError error;
    (void)Fail(caller, error, OPL_SYNC_E_STAT, "%s: stat failed :%i,%s\nfile %s", error.number(),
               error.text(), mutex.uniqueName);
    if (linked && ::unlink(mutex.commonName) == -1) return UnlinkFailed(caller, mutex.commonName);
  }
  if (names < 2) return Fail(caller, OPL_SYNC_E_MUTEXFILE_HELD, "%s: link failed");
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_SyncMutexFileAcquire(OPL_SyncMutexFile** ppMutexFile, const char* path) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppMutexFile == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppMutexFile is NULL");
  if (path == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Path is NULL");
  const Caller caller{"OPL_SyncMutexFileAcquire"};
  // Deliberate: the record is the caller's from here on, also when somebody else holds the mutex.
  *ppMutexFile = opl::AllocateZeroed<OPL_SyncMutexFile>().release();
  if (*ppMutexFile == nullptr) return Fail(NativeError(), OPL_SYNC_E_NO_MEMORY, "%s: malloc error");
  const bool fits = FillNames(*ppMutexFile, path);
  const char* const unique = (*ppMutexFile)->uniqueName;
  const int fd = fits ? MakeUnique(unique) : TooLong();
  if (fd == -1) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_OPEN, "%s: open error :%i,%s\nfile %s", error.number(), error.text(),
                unique);
  }
  (void)::close(fd);
  const Code linked = LinkNames(**ppMutexFile, path);
  if (::unlink(unique) == -1 && linked == OPL_OK) {
    const Code rc = UnlinkFailed(caller, unique);
    // The caller must not release what was refused, so nobody would ever give the name back.
    (void)::unlink((*ppMutexFile)->commonName);
    return rc;
  }
  if (linked == OPL_OK) (void)OPL_PrivateSetAccessTimeInFuture((*ppMutexFile)->commonName);
  return linked;
}

OPL_Result OPL_SyncMutexFileRelease(OPL_SyncMutexFile** ppMutexFile) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppMutexFile == nullptr || *ppMutexFile == nullptr)
    return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppMutexFile is NULL");
  Code rc = OPL_OK;
  if (::unlink((*ppMutexFile)->commonName) == -1)
    rc = UnlinkFailed(Caller{"OPL_SyncMutexFileRelease"}, (*ppMutexFile)->commonName);
  opl::Free(*ppMutexFile);
  *ppMutexFile = nullptr;
  return rc;
}
