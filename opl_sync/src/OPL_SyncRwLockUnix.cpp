// Named read-write locks: a System V set of four semaphores, found through an object file.
//
//   semaphore 0  writer gate: 1 without a writer
//   semaphore 1  writers that hold the lock: 0 or 1
//   semaphore 2  readers that hold the lock
//   semaphore 3  use count
//
// A thread's hold is its value under the handle's thread-specific-data key. What the process has open is
// remembered in the crew list, for the process's end and for adoption after a fork, and as a list of uses,
// which decides what use counts the process may give back.
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
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
#include "opl_private/src/UseList.h"
#include "opl_sig/src/SignalBlock.h"
#include "opl_sync/src/NamedSet.h"
#include "opl_sync/src/ProcessLock.h"
#include "opl_sync/src/SyncProcess.h"
#include "opl_thread/src/ForkGeneration.h"
#include "opl_thread/src/ThreadTsd.h"

struct OPL_SyncRWLock {
  int32_t semId;
  char name[opl::kObjectNameSize];
  uint32_t flags;
  uint32_t freeOnClose;
  uint32_t tsdKey;  // OPL_THREAD_NO_KEY when none is held
  opl::Use use;     // guarded by gCrewLock
};

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

using enum opl::RWLockSet::Semaphore;
constexpr uint16_t kInitialValues[kSemaphoreCount] = {1, 0, 0, opl::kUseCountLimit};
constexpr size_t kCrewSize = 40;

// Deliberate: without a flag the object is made with no permission at all, and its name carries no scope.
constexpr Access kNoAccess = {0, 0, Scope::kNone};
constexpr Access kAccess[] = {
    {OPL_SYNC_RWLOCK_PRIVATE, 0600, Scope::kInstance},
    {OPL_SYNC_RWLOCK_ALL, 0666, Scope::kAllUsers},
};

// What the crew list remembers of a handle; in use while its name is not empty.
struct CrewEntry {
  int32_t semId;
  char name[opl::kObjectNameSize];
  uint32_t flags;
  bool holdsUse;  // a use count that this process adopted for a lock of which it has no open handle
};

ProcessLock gCrewLock;       // taken inside the management lock's read-write-lock lock, never around it
CrewEntry gCrew[kCrewSize];  // guarded by gCrewLock
opl::UseList gUses;          // guarded by gCrewLock

const Access& AccessOf(uint32_t flags) {
  const Access* const access = opl::FindAccess(kAccess, flags);
  return access != nullptr ? *access : kNoAccess;
}

Code CheckArguments(const char* function, OPL_SyncRWLock** phRWLock, const char* name) {
  const Caller caller{function};
  if (phRWLock == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: phRWLock is NULL");
  if (name == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: Name is NULL");
  if (std::strlen(name) > opl::kObjectNameLongest)
    return Fail(caller, OPL_SYNC_E_BAD_NAME, "%s: Name '%s' is too long", name);
  return OPL_OK;
}

Code CrewListAdd(OPL_SyncRWLock* rwLock, const opl::FileStamp& file) {
  ProcessLock::Hold hold(gCrewLock);
  if (const Code rc = hold.Take()) return rc;
  opl::AddUse(gUses, &rwLock->use, {rwLock->semId, file});
  // Deliberate: a full list is no failure. The lock works; it is only not closed at the process's end.
  CrewEntry* const free = std::find_if(std::begin(gCrew), std::end(gCrew),
                                       [](const CrewEntry& entry) { return entry.name[0] == '\0'; });
  if (free == std::end(gCrew)) return OPL_OK;
  free->semId = rwLock->semId;
  free->flags = rwLock->flags;
  free->holdsUse = false;
  opl::CopyText(free->name, rwLock->name);
  return OPL_OK;
}

void CrewListRemove(OPL_SyncRWLock* rwLock) {
  ProcessLock::Hold hold(gCrewLock);
  if (hold.Take() != OPL_OK) return;
  gUses.Remove(&rwLock->use);
  CrewEntry* const entry = std::find_if(std::begin(gCrew), std::end(gCrew), [&](const CrewEntry& other) {
    return std::strcmp(other.name, rwLock->name) == 0;
  });
  if (entry != std::end(gCrew)) entry->name[0] = '\0';
}

// A handle for a set on which this process has a use count.
Code FinishHandle(const char* function, const char* name, uint32_t flags, const opl::FoundSet& set,
                  OPL_SyncRWLock** phRWLock) {
  const Caller caller{function};
  *phRWLock = nullptr;
  opl::Owned<OPL_SyncRWLock> rwLock = opl::AllocateZeroed<OPL_SyncRWLock>();
  if (rwLock == nullptr) return Fail(caller, NativeError(), OPL_SYNC_E_NO_MEMORY, "%s: malloc error");
  rwLock->semId = set.id;
  rwLock->flags = flags;
  rwLock->freeOnClose = 1;
  rwLock->tsdKey = OPL_THREAD_NO_KEY;
  opl::CopyText(rwLock->name, name);
  if (const Code rc = OPL_ThreadTsdAllocKey(&rwLock->tsdKey, nullptr))
    return Fail(caller, rc, "%s: OPL_ThreadTsdAllocKey failed");
  opl::Undo freeKey([&] { (void)OPL_ThreadTsdFreeKey(&rwLock->tsdKey); });
  if (const Code rc = CrewListAdd(rwLock.get(), set.file)) return rc;

  freeKey.Keep();
  *phRWLock = rwLock.release();
  return OPL_OK;
}

// The two ways of holding a lock: the mode, and the operations that take and give it back.
struct Shared {
  static constexpr uint32_t kMode = OPL_SYNC_RWLOCK_SHARED;
  static constexpr opl::TriedOperations<2> kTake{{{kWriters, 0, SEM_UNDO}, {kReaders, 1, SEM_UNDO}}};
  static constexpr sembuf kGiveBack[] = {{kReaders, -1, SEM_UNDO}};
};
struct Exclusive {
  static constexpr uint32_t kMode = OPL_SYNC_RWLOCK_EXCLUSIVE;
  static constexpr opl::TriedOperations<3> kTake{
      {{kWriterGate, -1, SEM_UNDO}, {kWriters, 1, SEM_UNDO}, {kReaders, 0, 0}}};
  static constexpr sembuf kGiveBack[] = {{kWriters, -1, SEM_UNDO}, {kWriterGate, 1, SEM_UNDO}};
};

// What a thread remembers of its hold: the mode, and the generation of the process that took it, since a
// child does not hold what it inherited.
template <class Hold>
void* Remembered() {
  constexpr unsigned kModeBits = 2;
  const uintptr_t hold = static_cast<uintptr_t>(opl::ForkGeneration()) << kModeBits | Hold::kMode;
  return reinterpret_cast<void*>(hold);  // NOLINT(performance-no-int-to-ptr): it is never looked behind
}

// The operations that take a lock may wait, those that give it back never do.
template <size_t kCount>
int Operate(int32_t id, const opl::TriedOperations<kCount>& operations) {
  return opl::SemopTryingFirst(id, operations);
}
template <size_t kCount>
int Operate(int32_t id, const sembuf (&operations)[kCount]) {
  return opl::Semop(id, operations);
}

// Repeats operations that a signal has just interrupted when the lock was opened so, and reports any other
// failure.
template <typename Operations>
[[gnu::cold, gnu::noinline]] Code Insist(const char* function, const OPL_SyncRWLock* rwLock,
                                         const Operations& operations) {
  do {
    const NativeError error;
    const bool isInterrupted = error.number() == EINTR;
    if (!isInterrupted || (rwLock->flags & OPL_SYNC_RWLOCK_RESTART) == 0)
      return Fail(Caller{function}, error, isInterrupted ? OPL_SYNC_E_INTERRUPTED : OPL_SYNC_E_SEMOP,
                  "%s: semop error :%i,%s", error.number(), error.text());
  } while (Operate(rwLock->semId, operations) == -1);
  return OPL_OK;
}

// As with mutexes, what stands between the calls to the system is compiled into the two functions.
template <class Hold>
inline Code LockAs(OPL_SyncRWLock* rwLock) {
  if (Operate(rwLock->semId, Hold::kTake) == -1) [[unlikely]] {
    if (const Code rc = Insist("OPL_SyncRWLockLock", rwLock, Hold::kTake)) return rc;
  }
  const Code rc = opl::SetTsdValue(rwLock->tsdKey, Remembered<Hold>());
  // A hold that the thread cannot remember could never be given back.
  if (rc != OPL_OK) [[unlikely]]
    (void)Operate(rwLock->semId, Hold::kGiveBack);
  return rc;
}

template <class Hold>
inline Code UnlockAs(OPL_SyncRWLock* rwLock) {
  if (Operate(rwLock->semId, Hold::kGiveBack) == -1) [[unlikely]] {
    if (const Code rc = Insist("OPL_SyncRWLockUnlock", rwLock, Hold::kGiveBack)) return rc;
  }
  return opl::SetTsdValue(rwLock->tsdKey, nullptr);
}

Code CloseObject(const OPL_SyncRWLock* rwLock, const opl::ClosedHandle& handle, bool stands) {
  Code result = OPL_OK;
  if (stands && opl::GiveUseBackUnread(handle, &result)) return result;
  int32_t named = -1;
  if (const Code rc = OPL_PrivateSemIdGet(handle.file.c_str(), &named)) return rc;
  if (named != rwLock->semId)
    return Fail(OPL_SYNC_E_MISMATCH, "Handle data does not match the Semaphore ID for file %s",
                handle.file.c_str());
  return opl::GiveUseBack(handle);
}

Code MakeCopy(CrewEntry* entry, OPL_SyncRWLock* copy) {
  ProcessLock::Hold hold(gCrewLock);
  if (const Code rc = hold.Take()) return rc;
  copy->semId = entry->semId;
  copy->flags = entry->flags;
  copy->tsdKey = OPL_THREAD_NO_KEY;
  opl::CopyText(copy->name, entry->name);
  copy->use = opl::UseForCopy(gUses, entry->semId, &entry->holdsUse);
  return OPL_OK;
}

// Closes an entry's lock through a copy of its handle, with one of the uses that the process holds.
void CloseEntry(CrewEntry* entry) {
  OPL_SyncRWLock copy{};
  OPL_SyncRWLock* hCopy = &copy;
  if (MakeCopy(entry, &copy) == OPL_OK) (void)OPL_SyncRWLockClose(&hCopy);
}

// Takes an entry out of use. The lock is held for the entry only: closing takes it as well.
void DropEntry(CrewEntry* entry) {
  ProcessLock::Hold hold(gCrewLock);
  if (hold.Take() == OPL_OK) entry->name[0] = '\0';
}

void ForgetUses() {
  ProcessLock::Hold hold(gCrewLock);
  if (hold.Take() == OPL_OK) gUses.ForgetAll();
}

}  // namespace

OPL_Result OPL_SyncRWLockCreate(OPL_SyncRWLock** phRWLock, uint32_t /*reserved*/, const char* name,
                                uint32_t flags) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckArguments("OPL_SyncRWLockCreate", phRWLock, name)) return rc;

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  MgmtLock mgmt(MgmtLock::kRWLocks);
  if (const Code rc = mgmt.Take()) return rc;

  const Access& access = AccessOf(flags);
  const IpcName file(name, opl::kRWLockMarker, access.scope);
  opl::FoundSet set{};
  if (const Code rc = opl::CreateSet(Caller{"OPL_PrivateSemIdCreate"}, file.c_str(), access.mode, access.mode,
                                     kSemaphoreCount, kInitialValues, &set))
    return opl::Translate(rc, OPL_PRIVATE_E_SEM_EXISTS, OPL_SYNC_E_RWLOCK_EXISTS);
  opl::Undo destroySet([&] { opl::UndoCreate(file, set.id); });
  if (const Code rc = OPL_PrivateUseCountAccess(set.id, kUseCount)) return rc;
  if (const Code rc = FinishHandle("OPL_SyncRWLockCreate", name, flags, set, phRWLock)) return rc;

  destroySet.Keep();
  return OPL_OK;
}

OPL_Result OPL_SyncRWLockOpen(OPL_SyncRWLock** phRWLock, uint32_t /*reserved*/, const char* name,
                              uint32_t flags) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckArguments("OPL_SyncRWLockOpen", phRWLock, name)) return rc;

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  MgmtLock mgmt(MgmtLock::kRWLocks);
  const IpcName file(name, opl::kRWLockMarker, opl::ScopeOf(kAccess, flags));
  opl::FoundSet set{};
  if (const Code rc = opl::OpenSet(file, kUseCount, OPL_SYNC_E_RWLOCK_MISSING, &mgmt, &set)) return rc;
  opl::Undo giveUseBack([&] { opl::UndoAccess(set.id, kUseCount); });
  if (const Code rc = FinishHandle("OPL_SyncRWLockOpen", name, flags, set, phRWLock)) return rc;

  giveUseBack.Keep();
  return OPL_OK;
}

OPL_Result OPL_SyncRWLockLock(OPL_SyncRWLock* hRWLock, uint32_t mode) {
  if (const Code stopped = opl::IsStopped()) return stopped;
  if (hRWLock == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phRWLock is NULL");
  if (mode == Shared::kMode) [[likely]]
    return LockAs<Shared>(hRWLock);
  if (mode == Exclusive::kMode) [[likely]]
    return LockAs<Exclusive>(hRWLock);
  return Fail(OPL_SYNC_E_BAD_LOCK_MODE, "%s: Invalid flag %lu", mode);
}

OPL_Result OPL_SyncRWLockUnlock(OPL_SyncRWLock* hRWLock) {
  if (const Code stopped = opl::IsStopped()) return stopped;
  if (hRWLock == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phRWLock is NULL");
  void* remembered = nullptr;
  if (const Code rc = opl::GetTsdValue(hRWLock->tsdKey, &remembered)) return rc;
  if (remembered == Remembered<Shared>()) [[likely]]
    return UnlockAs<Shared>(hRWLock);
  if (remembered == Remembered<Exclusive>()) [[likely]]
    return UnlockAs<Exclusive>(hRWLock);
  return OPL_SYNC_E_NOT_HELD;
}

OPL_Result OPL_SyncRWLockClose(OPL_SyncRWLock** phRWLock) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phRWLock == nullptr || *phRWLock == nullptr)
    return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phRWLock is NULL");

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  OPL_SyncRWLock* const rwLock = *phRWLock;
  const IpcName file(rwLock->name, opl::kRWLockMarker, opl::ScopeOf(kAccess, rwLock->flags));
  const opl::ClosedHandle handle{gCrewLock, gUses, &rwLock->use, file, kUseCount};
  MgmtLock mgmt(MgmtLock::kRWLocks);
  bool stands = false;
  Code rc = opl::LockForClose(handle, &mgmt, &stands);
  if (rc == OPL_OK) rc = CloseObject(rwLock, handle, stands);
  const bool isClosed = rc == OPL_OK || rc == OPL_SYNC_E_MISMATCH;
  if (isClosed) CrewListRemove(rwLock);
  if (rwLock->tsdKey != OPL_THREAD_NO_KEY) (void)OPL_ThreadTsdFreeKey(&rwLock->tsdKey);
  if (isClosed && rwLock->freeOnClose != 0) {
    opl::Free(rwLock);
    *phRWLock = nullptr;
  }
  // Deliberate: once the management lock was taken, the code is that of giving it back. Why the lock itself
  // could not be closed stands in the error record.
  return mgmt.IsTaken() ? mgmt.Release() : rc;
}

OPL_Result OPL_SyncRWLockTransferOwnership() {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  ProcessLock::Hold hold(gCrewLock);
  if (const Code rc = hold.Take()) return rc;
  Code first = OPL_OK;
  for (CrewEntry& entry : gCrew) {
    if (entry.name[0] == '\0') continue;
    const Code rc = opl::AdoptUse(gUses, entry.semId, kUseCount, &entry.holdsUse);
    if (first == OPL_OK) first = rc;
  }
  return first;
}

namespace opl {

void LockCrewForFork() { gCrewLock.LockForFork(); }

void UnlockCrewAfterFork() { gCrewLock.UnlockAfterFork(); }

Code ProcessCrewExitList(int32_t mode) {
  const bool forgets = mode == 1;
  for (CrewEntry& entry : gCrew) {
    if (entry.name[0] == '\0') continue;
    if (!forgets) CloseEntry(&entry);
    DropEntry(&entry);
  }
  if (forgets) ForgetUses();
  return OPL_OK;
}

Code TerminateRWLock(const char* pattern) {
  return ForEachIpcFile(pattern, opl::kRWLockMarker, RemoveSetOrLeftover);
}

}  // namespace opl
