// Named mutexes: a System V set of two semaphores, the lock and the use count, found through an object file.
//
// What the process holds is remembered twice, under gMutexesLock. The table of names decides which mutexes
// are closed at the process's end and adopted after a fork; the list of uses, one for each open handle,
// decides which use counts the process may give back. They are kept apart because the table forgets and
// remembers names that the handles do not (see CleanupListRemove).
#include <pthread.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Sync.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_init/src/InitStopped.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/IpcName.h"
#include "opl_private/src/MgmtLock.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "opl_private/src/SystemV.h"
#include "opl_private/src/UseList.h"
#include "opl_sig/src/SignalBlock.h"
#include "opl_sync/src/NamedSet.h"
#include "opl_sync/src/ProcessLock.h"
#include "opl_sync/src/SyncProcess.h"
#include "opl_thread/src/ForkGeneration.h"
#include "opl_thread/src/ThreadId.h"

// The first 32 bytes are the handle's record, the same in both widths.
struct OPL_SyncMutex {
  int32_t semId;
  std::atomic<uint32_t>
      lockCount;  // how often the owner has acquired it; 0 when this process does not hold it
  std::atomic<uint32_t> ownerThread;  // 0 when not held
  char name[opl::kObjectNameSize];
  uint32_t flags;
  uint32_t freeOnClose;

  std::atomic<uint32_t> ownerGeneration;  // a child does not own what it inherited
  opl::Use use;                           // guarded by gMutexesLock
};
static_assert(offsetof(OPL_SyncMutex, lockCount) == 4);
static_assert(offsetof(OPL_SyncMutex, ownerThread) == 8);
static_assert(offsetof(OPL_SyncMutex, name) == 12);
static_assert(offsetof(OPL_SyncMutex, flags) == 24);
static_assert(offsetof(OPL_SyncMutex, freeOnClose) == 28);
static_assert(offsetof(OPL_SyncMutex, ownerGeneration) == 32);

namespace {

using opl::Access;
using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::IpcName;
using opl::MgmtLock;
using opl::NativeError;
using opl::ProcessLock;
using opl::Scope;

using enum opl::MutexSet::Semaphore;
constexpr uint16_t kInitialValues[kSemaphoreCount] = {1, opl::kUseCountLimit};
constexpr uint32_t kTableSize = 40;

constexpr Access kAccess[] = {
    {OPL_SYNC_MUTEX_PRIVATE, 0600, Scope::kInstance},
    {OPL_SYNC_MUTEX_ALL, 0666, Scope::kAllUsers},
};

// What the table remembers of a handle.
struct Entry {
  uint32_t openCount;
  int32_t semId;
  uint32_t flags;
  char name[opl::kObjectNameSize];
  bool inUse;
  bool holdsUse;  // a use count that this process adopted for a mutex of which it has no open handle
};

ProcessLock gMutexesLock;        // taken inside the management lock's mutex lock, never around it
Entry gEntries[kTableSize + 1];  // guarded by gMutexesLock; the spare one is only ever read
uint32_t gHighWater = 0;         // guarded by gMutexesLock; entries ever used, and one more
opl::UseList gUses;              // guarded by gMutexesLock

IpcName FileNameOf(const char* name, uint32_t flags) {
  return {name, opl::kMutexMarker, opl::ScopeOf(kAccess, flags)};
}

Code CheckArguments(const char* function, OPL_SyncMutex** ppMutex, const char* name) {
  const Caller caller{function};
  if (ppMutex == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: ppMutex is NULL");
  if (name == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: Name is NULL");
  if (std::strlen(name) > opl::kObjectNameLongest)
    return Fail(caller, OPL_SYNC_E_BAD_NAME, "%s: Invalid name");
  return OPL_OK;
}

Code PermissionMissing(const char* function) {
  return Fail(Caller{function}, OPL_SYNC_E_NO_PERMISSION, "%s: Permission not specified.");
}

// Enters an open handle into the table and the list of uses.
Code CleanupListAdd(OPL_SyncMutex* mutex, const opl::FileStamp& file) {
  ProcessLock::Hold hold(gMutexesLock);
  if (const Code rc = hold.Take()) return rc;

  Entry* const known = std::find_if(gEntries, gEntries + gHighWater, [&](const Entry& entry) {
    return std::strcmp(entry.name, mutex->name) == 0;
  });
  if (known != gEntries + gHighWater) {
    ++known->openCount;
  } else {
    Entry* const end = gEntries + kTableSize;
    Entry* const free = std::find_if(gEntries, end, [](const Entry& entry) { return !entry.inUse; });
    if (free == end) return Fail(OPL_SYNC_E_TABLE_FULL, "%s: Mutex table full");
    *free = {1, mutex->semId, mutex->flags, {}, true, false};
    opl::CopyText(free->name, mutex->name);
    // One beyond the entry.
    gHighWater = std::max(gHighWater, static_cast<uint32_t>(free - gEntries) + 2);
  }
  opl::AddUse(gUses, &mutex->use, {mutex->semId, file});
  return OPL_OK;
}

// Takes a closed handle out of the table and the list of uses.
void CleanupListRemove(OPL_SyncMutex* mutex) {
  ProcessLock::Hold hold(gMutexesLock);
  if (hold.Take() != OPL_OK) return;
  gUses.Remove(&mutex->use);

  // Deliberate: the entry that is found is the first of another name. Entries of closed mutexes stay, and the
  // process's end closes them once more; the list of uses sees to it that nothing is given back twice.
  for (uint32_t i = 0; i < gHighWater; ++i) {
    Entry& entry = gEntries[i];
    if (!entry.inUse || std::strcmp(entry.name, mutex->name) == 0) continue;
    if (entry.openCount == 1) entry.inUse = false;
    --entry.openCount;
    return;
  }
}

// A handle for a set on which this process has a use count: entered and handed out.
Code FinishHandle(const char* function, const char* name, uint32_t flags, const opl::FoundSet& set,
                  bool freeOnClose, OPL_SyncMutex** ppMutex) {
  opl::Owned<OPL_SyncMutex> mutex = opl::AllocateZeroed<OPL_SyncMutex>();
  if (mutex == nullptr) {
    const NativeError error;
    return Fail(Caller{function}, error, OPL_SYNC_E_NO_MEMORY, "%s: malloc error :%i", error.number());
  }
  mutex->semId = set.id;
  mutex->flags = flags;
  opl::CopyText(mutex->name, name);
  mutex->freeOnClose = freeOnClose ? 1 : 0;
  if (const Code rc = CleanupListAdd(mutex.get(), set.file)) return rc;
  *ppMutex = mutex.release();
  return OPL_OK;
}

// The steps of Close under the management lock.
Code CloseObject(const OPL_SyncMutex* mutex, const opl::ClosedHandle& handle, bool stands) {
  const Caller caller{"OPL_SyncMutexClose"};
  Code result = OPL_OK;
  if (stands && opl::GiveUseBackUnread(handle, &result)) return result;
  int32_t named = -1;
  if (const Code rc = OPL_PrivateSemIdGet(handle.file.c_str(), &named)) {
    if (rc != OPL_PRIVATE_E_SEM_MISSING) return rc;
    return Fail(caller, OPL_SYNC_E_MUTEX_MISSING, "%s: Mutex %s not found", mutex->name);
  }
  if (named != mutex->semId)
    return Fail(caller, OPL_SYNC_E_MISMATCH, "Handle data does not match the Semaphore ID for file %s",
                handle.file.c_str());
  return opl::GiveUseBack(handle);
}

constexpr opl::TriedOperations<1> kTake({{kLock, -1, SEM_UNDO}});
constexpr sembuf kGiveBack[] = {{kLock, 1, SEM_UNDO}};

// Taking and giving a mutex back is two calls to the system, and little else: what stands between them is
// compiled into the two functions, what other modules are asked included.
inline bool IsOwner(const OPL_SyncMutex* mutex, uint32_t thread) {
  return mutex->lockCount.load(std::memory_order_relaxed) != 0 &&
         mutex->ownerThread.load(std::memory_order_relaxed) == thread &&
         mutex->ownerGeneration.load(std::memory_order_relaxed) == opl::ForkGeneration();
}

void SetOwner(OPL_SyncMutex* mutex, uint32_t thread) {
  mutex->ownerGeneration.store(opl::ForkGeneration(), std::memory_order_relaxed);
  mutex->ownerThread.store(thread, std::memory_order_relaxed);
  mutex->lockCount.store(1, std::memory_order_relaxed);
}

void ForgetOwner(OPL_SyncMutex* mutex) {
  mutex->ownerThread.store(0, std::memory_order_relaxed);
  mutex->lockCount.store(0, std::memory_order_relaxed);
}

bool Restarts(const OPL_SyncMutex* mutex) { return (mutex->flags & OPL_SYNC_MUTEX_RESTART) != 0; }

Code AcquireFailed(const OPL_SyncMutex* mutex, const NativeError& error) {
  const Caller caller{"OPL_SyncMutexAcquire"};
  if (error.number() == EINTR) return Fail(caller, error, OPL_SYNC_E_INTERRUPTED, "%s: semop interrupted");
  const Code code = opl::IsRemoved(error.number()) ? OPL_SYNC_E_MUTEX_MISSING : OPL_SYNC_E_SEMOP;
  return Fail(caller, error, code, "%s(%s): semop(%lu) error :%i,%s", mutex->name, mutex->semId,
              error.number(), error.text());
}

// A copy of an entry as a handle that OPL_SyncMutexClose takes, with one of the uses that the process holds.
Code MakeCopy(Entry* entry, OPL_SyncMutex* copy) {
  ProcessLock::Hold hold(gMutexesLock);
  if (const Code rc = hold.Take()) return rc;
  copy->semId = entry->semId;
  copy->flags = entry->flags;
  opl::CopyText(copy->name, entry->name);
  copy->use = opl::UseForCopy(gUses, entry->semId, &entry->holdsUse);
  return OPL_OK;
}

// Takes an entry out of use. The lock is held for the entry only: closing takes it as well.
void DropEntry(Entry* entry) {
  ProcessLock::Hold hold(gMutexesLock);
  if (hold.Take() != OPL_OK) return;
  entry->inUse = false;
  entry->holdsUse = false;
}

void ForgetUses() {
  ProcessLock::Hold hold(gMutexesLock);
  if (hold.Take() == OPL_OK) gUses.ForgetAll();
}

// Closes an entry's mutex as often as the process has it open, up to the first failure.
void CloseEntry(Entry* entry) {
  for (uint32_t left = entry->openCount; left != 0; --left) {
    OPL_SyncMutex copy{};
    OPL_SyncMutex* hCopy = &copy;
    if (MakeCopy(entry, &copy) != OPL_OK || OPL_SyncMutexClose(&hCopy) != OPL_OK) return;
  }
}

}  // namespace

OPL_Result OPL_SyncMutexCreate(OPL_SyncMutex** ppMutex, uint32_t /*reserved*/, const char* name,
                               uint32_t flags) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckArguments("OPL_SyncMutexCreate", ppMutex, name)) return rc;

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  const Access* const access = opl::FindAccess(kAccess, flags);
  if (access == nullptr) return PermissionMissing("OPL_SyncMutexCreate");
  MgmtLock mgmt(MgmtLock::kMutexes);
  if (const Code rc = mgmt.Take()) return rc;

  const IpcName file(name, opl::kMutexMarker, access->scope);
  opl::FoundSet set{};
  if (const Code rc = opl::CreateSet(Caller{"OPL_PrivateSemIdCreate"}, file.c_str(), access->mode,
                                     access->mode, kSemaphoreCount, kInitialValues, &set))
    return opl::Translate(rc, OPL_PRIVATE_E_SEM_EXISTS, OPL_SYNC_E_MUTEX_EXISTS);
  opl::Undo destroySet([&] { opl::UndoCreate(file, set.id); });
  if (const Code rc = OPL_PrivateUseCountAccess(set.id, kUseCount)) return rc;
  if (const Code rc = FinishHandle("OPL_SyncMutexCreate", name, flags, set, true, ppMutex)) return rc;

  destroySet.Keep();
  return OPL_OK;
}

OPL_Result OPL_SyncMutexOpen(OPL_SyncMutex** ppMutex, uint32_t /*reserved*/, const char* name,
                             uint32_t flags) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckArguments("OPL_SyncMutexOpen", ppMutex, name)) return rc;
  const Access* const access = opl::FindAccess(kAccess, flags);
  if (access == nullptr) return PermissionMissing("OPL_SyncMutexOpen");

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  MgmtLock mgmt(MgmtLock::kMutexes);
  const IpcName file(name, opl::kMutexMarker, access->scope);
  opl::FoundSet set{};
  if (const Code rc = opl::OpenSet(file, kUseCount, OPL_SYNC_E_MUTEX_MISSING, &mgmt, &set)) return rc;
  opl::Undo giveUseBack([&] { opl::UndoAccess(set.id, kUseCount); });
  // Deliberate: the handle is not freed by Close. Threads may still look at its name after one has closed it.
  if (const Code rc = FinishHandle("OPL_SyncMutexOpen", name, flags, set, false, ppMutex)) return rc;

  giveUseBack.Keep();
  return OPL_OK;
}

OPL_Result OPL_SyncMutexAcquire(OPL_SyncMutex* hMutex) {
  if (const Code stopped = opl::IsStopped()) return stopped;
  if (hMutex == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hMutex is NULL");
  const uint32_t thread = opl::ThreadIdOf(::pthread_self());
  if (IsOwner(hMutex, thread)) {
    hMutex->lockCount.fetch_add(1, std::memory_order_relaxed);
    return OPL_OK;
  }
  while (opl::SemopTryingFirst(hMutex->semId, kTake) == -1) {
    const NativeError error;
    if (error.number() != EINTR || !Restarts(hMutex)) return AcquireFailed(hMutex, error);
  }
  SetOwner(hMutex, thread);
  return OPL_OK;
}

OPL_Result OPL_SyncMutexRelease(OPL_SyncMutex* hMutex) {
  if (const Code stopped = opl::IsStopped()) return stopped;
  if (hMutex == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hMutex is NULL");
  const uint32_t thread = opl::ThreadIdOf(::pthread_self());
  if (!IsOwner(hMutex, thread)) return Fail(OPL_SYNC_E_NOT_OWNER, "%s: not owner");
  if (hMutex->lockCount.load(std::memory_order_relaxed) > 1) {
    hMutex->lockCount.fetch_sub(1, std::memory_order_relaxed);
    return OPL_OK;
  }
  // Before the semaphore: the next owner may be another thread with this handle.
  ForgetOwner(hMutex);
  while (opl::Semop(hMutex->semId, kGiveBack) == -1) {
    const NativeError error;
    if (error.number() != EINTR)
      return Fail(error, OPL_SYNC_E_SEMOP, "%s: semop error :%i,%s", error.number(), error.text());
    if (!Restarts(hMutex)) return Fail(error, OPL_SYNC_E_INTERRUPTED, "%s: semop interrupted");
  }
  return OPL_OK;
}

OPL_Result OPL_SyncMutexClose(OPL_SyncMutex** phMutex) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phMutex == nullptr || *phMutex == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phMutex is NULL");

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  OPL_SyncMutex* const mutex = *phMutex;
  const IpcName file = FileNameOf(mutex->name, mutex->flags);
  const opl::ClosedHandle handle{gMutexesLock, gUses, &mutex->use, file, kUseCount};
  MgmtLock mgmt(MgmtLock::kMutexes);
  bool stands = false;
  if (const Code rc = opl::LockForClose(handle, &mgmt, &stands)) return rc;

  const Code rc = CloseObject(mutex, handle, stands);
  if (rc != OPL_OK && rc != OPL_SYNC_E_MISMATCH) return rc;
  CleanupListRemove(mutex);
  if (mutex->freeOnClose != 0) opl::Free(mutex);
  *phMutex = nullptr;
  return rc;
}

OPL_Result OPL_SyncMutexTransferOwnership() {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  ProcessLock::Hold hold(gMutexesLock);
  if (const Code rc = hold.Take()) return rc;
  Code first = OPL_OK;
  for (uint32_t i = 0; i < gHighWater; ++i) {
    Entry& entry = gEntries[i];
    if (!entry.inUse) continue;
    const Code rc = opl::AdoptUse(gUses, entry.semId, kUseCount, &entry.holdsUse);
    if (first == OPL_OK) first = rc;
  }
  return first;
}

namespace opl {

void LockMutexesForFork() { gMutexesLock.LockForFork(); }

void UnlockMutexesAfterFork() { gMutexesLock.UnlockAfterFork(); }

Code ProcessMutexExitList(int32_t mode) {
  const bool forgets = mode == 1;
  for (uint32_t i = 0; i < gHighWater; ++i) {
    if (!gEntries[i].inUse) continue;
    if (!forgets) CloseEntry(&gEntries[i]);
    DropEntry(&gEntries[i]);
  }
  if (forgets) ForgetUses();
  return OPL_OK;
}

Code TerminateMutex(const char* pattern) {
  return ForEachIpcFile(pattern, opl::kMutexMarker, RemoveSetOrLeftover);
}

}  // namespace opl
