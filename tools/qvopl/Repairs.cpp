#include "tools/qvopl/Repairs.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Sync.h"
#include "opl_base/src/Fd.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "tools/qvopl/Diagnosis.h"
#include "tools/qvopl/InstanceProcess.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr char kChanged[] = "it is not any more what it was";
constexpr char kInUse[] = "a process uses it by now";

std::string LibraryError() { return Printable(OPL_ErrMessageGet(0)); }

// Holds what the makers and removers of such an object hold, as far as there is anything.
class KindLock {
 public:
  explicit KindLock(const FileName& name) : name_(name) {}
  ~KindLock() {
    if (!isTaken_) return;
    if (events_ != nullptr) {
      (void)OPL_SyncMutexRelease(events_);
      (void)OPL_SyncMutexClose(&events_);
    } else {
      (void)Functions().give();
    }
  }
  KindLock(const KindLock&) = delete;
  KindLock& operator=(const KindLock&) = delete;

  std::string Take() {
    const OPL_Result rc = name_.kind == Kind::kEvent ? TakeEventMutex() : TakeManagementLock();
    return rc == OPL_OK ? "" : LibraryError();
  }

 private:
  struct Pair {
    OPL_Result (*take)();
    OPL_Result (*give)();
  };

  Pair Functions() const {
    if (name_.kind == Kind::kSegment)
      return {OPL_PrivateMgmtLockSharedMemLock, OPL_PrivateMgmtLockSharedMemUnlock};
    if (name_.kind == Kind::kRWLock) return {OPL_PrivateMgmtLockRWLockLock, OPL_PrivateMgmtLockRWLockUnlock};
    return {OPL_PrivateMgmtLockSyncMutexLock, OPL_PrivateMgmtLockSyncMutexUnlock};
  }

  OPL_Result TakeManagementLock() {
    const OPL_Result rc = Functions().take();
    isTaken_ = rc == OPL_OK;
    return rc;
  }

  OPL_Result TakeEventMutex() {
    constexpr char kName[] = "QVMXEV";
    constexpr uint32_t kFlags = OPL_SYNC_MUTEX_PRIVATE | OPL_SYNC_MUTEX_RESTART;
    OPL_Result rc = OPL_SYNC_E_MUTEX_MISSING;
    for (int attempt = 0; rc == OPL_SYNC_E_MUTEX_MISSING && attempt < 3; ++attempt) {
      rc = OPL_SyncMutexCreate(&events_, 0, kName, kFlags);
      if (rc == OPL_SYNC_E_MUTEX_EXISTS) rc = OPL_SyncMutexOpen(&events_, 0, kName, kFlags);
    }
    if (rc == OPL_OK) rc = OPL_SyncMutexAcquire(events_);
    isTaken_ = rc == OPL_OK;
    return rc;
  }

  const FileName& name_;
  OPL_SyncMutex* events_ = nullptr;
  bool isTaken_ = false;
};

bool StandsAs(const std::string& path, const FileIdentity& identity) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && IdentityOf(status) == identity;
}

// All removers of object files hold this lock while they compare. Somebody who may read the file may keep it:
// then the file is left.
bool LockForRemoval(int fd) {
  constexpr int kTries = 200;
  const timespec pause{0, 1000000};
  for (int attempt = 0; attempt < kTries; ++attempt) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    (void)::nanosleep(&pause, nullptr);
  }
  return false;
}

// Lock files are removed under their own lock.
bool TakeRecordLock(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  return ::fcntl(fd, F_SETLK, &lock) != -1;
}

std::string RemoveFileAs(const std::string& path, const Repair& repair) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == -1 || !(IdentityOf(status) == repair.identity)) return kChanged;
  const bool isRegular = S_ISREG(status.st_mode);
  const bool isLockFile = repair.name->kind == Kind::kLockFile;
  const int access = isLockFile ? O_RDWR : O_RDONLY | O_NOATIME;
  const opl::Fd fd(isRegular ? ::open(path.c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1);
  if (isRegular && !fd.IsOpen()) return SystemError(path, errno);
  if (isRegular && !(isLockFile ? TakeRecordLock(fd.Get()) : LockForRemoval(fd.Get()))) return kInUse;
  if (!StandsAs(path, repair.identity)) return kChanged;
  return ::unlink(path.c_str()) == -1 ? SystemError(path, errno) : "";
}

// Whether what the file stands for is still missing.
bool IsStillUnused(const std::string& path, const Repair& repair) {
  const FileName& name = *repair.name;
  if (name.kind == Kind::kSocket) return !BoundSocketNames().contains(repair.file);
  if (name.kind == Kind::kServer)
    return repair.id <= 0 || IsGoneSince(repair.id, repair.identity.changedNs / 1000000000);
  if (name.kind == Kind::kListing) return IsGoneSince(name.maker, repair.identity.changedNs / 1000000000);
  if (name.kind != Kind::kEvent) return true;
  struct stat status {};
  const std::string other = name.isCount ? path.substr(0, path.size() - sizeof opl::kEventCountSuffix + 1)
                                         : path + opl::kEventCountSuffix;
  return ::lstat(other.c_str(), &status) == -1;
}

std::string RemoveFile(const std::string& path, const Repair& repair) {
  return IsStillUnused(path, repair) ? RemoveFileAs(path, repair) : kInUse;
}

// Exclusive use is the system's own word that nobody else has any. One whose maker had it when it was killed
// is recognised as the library does.
bool TakeExclusively(int32_t id, uint32_t useCount) {
  if (OPL_PrivateUseCountExclusive(id, useCount) == OPL_OK) return true;
  const int index = static_cast<int>(useCount);
  const pid_t last = ::semctl(id, index, GETPID);
  return IsGone(last) && ::semctl(id, index, GETVAL) == 0 && ::semctl(id, index, GETPID) == last;
}

std::string RemoveSet(const std::string& path, const Repair& repair) {
  const uint32_t useCount = repair.name->kind == Kind::kMutex ? uint32_t{opl::MutexSet::kUseCount}
                                                              : uint32_t{opl::RWLockSet::kUseCount};
  if (!StandsAs(path, repair.identity)) return kChanged;
  if (!TakeExclusively(repair.id, useCount)) return kInUse;
  return OPL_PrivateSemIdDestroy(path.c_str()) == OPL_OK ? "" : LibraryError();
}

std::string RemoveSegment(const std::string& path, const Repair& repair) {
  shmid_ds status{};
  if (!StandsAs(path, repair.identity) || ::shmctl(repair.id, IPC_STAT, &status) == -1) return kChanged;
  if (status.shm_nattch != 0) return kInUse;
  return OPL_PrivateShMemClose(path.c_str(), nullptr, 1) == OPL_OK ? "" : LibraryError();
}

// Under the event mutex nobody opens it meanwhile.
std::string RemoveEvent(const std::string& path, const Repair& repair) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == -1 || !(IdentityOf(status) == repair.identity)) return kChanged;
  if (OpenFiles().DescriptorsOf(status) != 0) return kInUse;
  if (::unlink(path.c_str()) == -1) return SystemError(path, errno);
  (void)::unlink((path + opl::kEventCountSuffix).c_str());
  return "";
}

// The file of a dead process does not change any more, but for its time when another name of it goes.
bool IsLeft(const std::string& path, const FileIdentity& identity) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && status.st_dev == identity.device &&
         status.st_ino == identity.inode;
}

// The library's own clean-up knows what a temporary file names; the name is its pattern.
std::string RemoveTemporary(const std::string& path, const Repair& repair) {
  if (!IsLeft(path, repair.identity) || !IsGone(repair.name->maker)) return kChanged;
  std::string pattern;
  for (const char c : repair.file) {
    if (std::string_view("\\*?[").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  if (OPL_InitTerminateIPC(0, pattern.c_str()) != OPL_OK) return LibraryError();
  return IsLeft(path, repair.identity) ? "it is still there" : "";
}

std::string RemoveOrphanSet(const Repair& repair) {
  SystemV systemV;
  SetStatus set;
  if (systemV.LookAt(repair.id, &set) != Sight::kSeen) return kChanged;
  const std::optional<size_t> useCount = UseCountOfOrphan(set);
  if (repair.isSure && (!useCount.has_value() || !IsGone(set.semaphores[*useCount].last))) return kChanged;
  if (!repair.isSure && (useCount.has_value() || set.operated != 0)) return kChanged;
  if (repair.isSure && OPL_PrivateUseCountExclusive(repair.id, static_cast<uint32_t>(*useCount)) != OPL_OK)
    return kInUse;
  return ::semctl(repair.id, 0, IPC_RMID) == -1 ? SystemError("semctl", errno) : "";
}

std::string RemoveOrphanSegment(const Repair& repair) {
  shmid_ds status{};
  if (::shmctl(repair.id, IPC_STAT, &status) == -1) return kChanged;
  if (status.shm_nattch != 0 || status.shm_atime != 0) return kInUse;
  return ::shmctl(repair.id, IPC_RMID, nullptr) == -1 ? SystemError("shmctl", errno) : "";
}

bool HasLock(Kind kind) {
  return kind == Kind::kMutex || kind == Kind::kRWLock || kind == Kind::kSegment || kind == Kind::kEvent;
}

std::string RepairUnderLock(const std::string& path, const Repair& repair) {
  KindLock lock(*repair.name);
  if (std::string why = lock.Take(); !why.empty()) return why;
  switch (repair.action) {
    case Repair::Action::kRemoveSet:
      return RemoveSet(path, repair);
    case Repair::Action::kRemoveSegment:
      return RemoveSegment(path, repair);
    case Repair::Action::kRemoveEvent:
      return RemoveEvent(path, repair);
    default:
      return RemoveFile(path, repair);
  }
}

// Objects of all users are made and removed under the locks of whichever instance; those of one can be held.
std::string InstanceFor(const Settings& settings, const Repair& repair, std::string* instance) {
  if (repair.name->scope == Scope::kInstance) {
    *instance = repair.name->instance;
    return "";
  }
  const IpcDirectory directory(settings.ipcPath);
  std::string living;
  for (const Entry& entry : directory.Entries()) {
    if (entry.name.kind != Kind::kManagement || entry.name.isTemporary) continue;
    const Word word = directory.ReadWord(entry);
    if (word.reading == Reading::kDone && ::semctl(word.value, opl::MgmtSet::kUseCount, GETVAL) == 32000)
      continue;
    if (!living.empty()) return "several instances run in the directory: end all but one";
    living = entry.name.instance;
  }
  *instance = living.empty() ? "qvopl-doctor" : living;
  return "";
}

// An object may have gone with the repair of another.
bool IsThere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

std::string RepairFile(Settings* settings, const Repair& repair, const std::string& path) {
  if (repair.action == Repair::Action::kRemoveTemporary && repair.name->scope != Scope::kNone)
    return RunInInstance(settings, InstanceOf(*repair.name), [&] { return RemoveTemporary(path, repair); });
  const bool beginsAndEnds = repair.action == Repair::Action::kBeginAndEnd;
  if (!beginsAndEnds && !HasLock(repair.name->kind)) return RemoveFile(path, repair);
  std::string instance;
  if (std::string why = InstanceFor(*settings, repair, &instance); !why.empty()) return why;
  std::string result = RunInInstance(settings, instance, [&] {
    return WithLibrary([&] { return beginsAndEnds ? std::string() : RepairUnderLock(path, repair); });
  });
  return result.empty() && StandsAs(path, repair.identity) ? kInUse : result;
}

}  // namespace

std::string DoRepair(Settings* settings, const Repair& repair) {
  if (repair.owner != ::geteuid()) return "it is another user's";
  if (repair.action == Repair::Action::kRemoveOrphanSet) return RemoveOrphanSet(repair);
  if (repair.action == Repair::Action::kRemoveOrphanSegment) return RemoveOrphanSegment(repair);
  const std::string path = settings->ipcPath + "/" + repair.file;
  if (!IsThere(path)) return "";
  const std::string result = RepairFile(settings, repair, path);
  return IsThere(path) ? result : "";
}

}  // namespace qvopl
