// The management lock: the instance's set of four semaphores, found through the management file.
//
//   semaphore 0      the use count: 32000 less the number of processes
//   semaphores 1..3  locks around the creation, opening and closing of shared memory, read-write locks,
//   mutexes
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "opl_base/src/ErrnoKeeper.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_private/src/IpcFile.h"
#include "opl_private/src/MgmtLock.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "opl_private/src/SystemV.h"
#include "opl_thread/src/ForkGeneration.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;
using opl::RetryOnEintr;

constexpr uint32_t kMode = 0600;
constexpr int32_t kNoSet = -1;
constexpr uint32_t kPatienceMs = 100;

using enum opl::MgmtSet::Semaphore;
constexpr uint16_t kInitialValues[kSemaphoreCount] = {opl::kUseCountLimit, 1, 1, 1};

// Written while the library begins and ends, under the initialisation lock.
std::atomic<int32_t> gSetId{kNoSet};

// The use counts that this process has on the set. In a forked child those of its parent do not count.
class OwnUses {
 public:
  int32_t Get() const { return generation_ == opl::ForkGeneration() ? count_.load() : 0; }
  void Set(int32_t count) {
    generation_ = opl::ForkGeneration();
    count_ = count;
  }

 private:
  std::atomic<int32_t> count_{0};
  std::atomic<uint32_t> generation_{0};
};
OwnUses gUses;

void BuildFileName(char (&file)[opl::kIpcNameSize]) {
  char directory[opl::kIpcNameSize];
  (void)OPL_InitIPCPathGet(0, directory, sizeof directory);
  (void)OPL_CrtSNPrintf(file, sizeof file, "%s/%s%s.%s", directory, opl::kMgmtPrefix,
                        OPL_InitInstanceStringGet(), OPL_InitBuildVersionStringGet(0));
}

// The set that this process holds; the caller's name stands in the message when it holds none.
Code HeldSet(Caller caller, int32_t* id) {
  *id = gSetId;
  if (*id != kNoSet) return OPL_OK;
  return Fail(caller, OPL_PRIVATE_E_MGMT_MISSING,
              "%s: Control semaphore set is not allocated to this QVOPL session");
}

Code AlreadyAllocated(Caller caller) {
  return Fail(caller, OPL_PRIVATE_E_MGMT_HELD,
              "%s: Control semaphore set already allocated to this QVOPL session");
}

Code SemopFailed(Caller caller, int32_t id) {
  const NativeError error;
  if (opl::IsRemoved(error.number()))
    return Fail(caller, error, OPL_PRIVATE_E_MGMT_MISSING, "%s: semaphore %lu has been removed.", id);
  return Fail(caller, error, OPL_PRIVATE_E_SEMOP, "%s: semop(%lu) failed :%i,%s", id, error.number(),
              error.text());
}

// Failures of link after which a look at the link count tells nothing new.
bool IsReported(int linkError) {
  constexpr int kReported[] = {EACCES, EFAULT, EMLINK, ENAMETOOLONG, ELOOP};
  return std::find(std::begin(kReported), std::end(kReported), linkError) != std::end(kReported);
}

// Gives the management file its name.
Code LinkManagementFile(const char* temporary, const char* file) {
  const Caller caller{"OPL_PrivateMgmtLockCreate"};
  if (::link(temporary, file) == -1) {
    const NativeError error;
    if (IsReported(error.number()))
      return Fail(caller, error, OPL_PRIVATE_E_MGMT_LINK, "%s: link failed :%i,%s\n old file %s\nnew file %s",
                  error.number(), error.text(), temporary, file);
  }
  const int64_t names = opl::CountNames(temporary);
  if (names == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_PRIVATE_E_MGMT_STAT, "%s: stat failed :%i,%s\nfile %s", error.number(),
                error.text(), temporary);
  }
  if (names < 2) return Fail(caller, OPL_PRIVATE_E_MGMT_EXISTS, "%s: Control semaphore set already exists");
  return OPL_OK;
}

// Takes the management file's name back, if it stands for the temporary file.
void UnlinkManagementFile(const char* temporary, const char* file) {
  opl::IpcFile object;
  if (object.Open(temporary) != -1) object.Unlink(file);
}

// The steps of Open for a process that holds no set.
Code FindSet(int32_t* id) {
  char file[opl::kIpcNameSize];
  BuildFileName(file);
  int32_t found = kNoSet;
  if (const Code rc = OPL_PrivateSemIdGet(file, &found))
    return opl::Translate(rc, OPL_PRIVATE_E_SEM_MISSING, OPL_PRIVATE_E_MGMT_MISSING);
  if (::semctl(found, 0, GETPID) == -1) {
    const NativeError error;
    return Fail(Caller{"OPL_PrivateMgmtLockOpen"}, error, OPL_PRIVATE_E_MGMT_MISSING,
                "%s: Semaphore(%lu) does not exists (semctl failed %i)", found, error.number());
  }
  *id = found;
  return OPL_OK;
}

void ForgetSet() {
  gSetId = kNoSet;
  gUses.Set(0);
}

bool ChangeUseCount(int32_t id, int32_t change, short flags) {
  if (change == 0) return true;
  const sembuf operation[] = {
      {kUseCount, static_cast<short>(change), static_cast<short>(flags | IPC_NOWAIT)}};
  return RetryOnEintr([&] { return opl::Semop(id, operation); }) != -1;
}

// Gives up this process's uses of the set, and removes the set unless another process uses it.
void LetGoOf(int32_t id) {
  (void)ChangeUseCount(id, gUses.Get(), SEM_UNDO);
  gUses.Set(0);
  if (ChangeUseCount(id, -opl::kUseCountLimit, 0)) {
    const Code rc = OPL_PrivateMgmtLockDestroy();
    if (rc == OPL_OK || rc == OPL_PRIVATE_E_MGMT_MISSING) return;
    opl::RestoreUseCount(id, kUseCount);
  }
  ForgetSet();
}

// The exported lock functions and MgmtLock. *id receives the set whose lock was taken, *wasFree whether that
// was to be had at once.
Code SemaphoreLock(unsigned short index, int32_t* id, bool* wasFree) {
  const Caller caller{"SemaphoreLock"};
  if (const Code rc = HeldSet(caller, id)) return rc;
  const opl::TriedOperations<1> lock({{index, -1, SEM_UNDO}});
  int result = opl::Semop(*id, lock.trying);
  *wasFree = result != -1;
  if (result == -1 && (errno == EAGAIN || errno == EINTR))
    result = RetryOnEintr([&] { return opl::SemopTryingFirst(*id, lock); });
  return result != -1 ? static_cast<Code>(OPL_OK) : SemopFailed(caller, *id);
}

Code SemaphoreLock(unsigned short index) {
  int32_t id = kNoSet;
  bool wasFree = false;
  return SemaphoreLock(index, &id, &wasFree);
}

Code SemaphoreUnlockIn(int32_t id, unsigned short index) {
  const sembuf unlock[] = {{index, 1, SEM_UNDO}};
  if (RetryOnEintr([&] { return opl::Semop(id, unlock); }) != -1) return OPL_OK;
  return SemopFailed(Caller{"SemaphoreUnlock"}, id);
}

Code SemaphoreUnlock(unsigned short index) {
  int32_t id = kNoSet;
  if (const Code rc = HeldSet(Caller{"SemaphoreUnlock"}, &id)) return rc;
  return SemaphoreUnlockIn(id, index);
}

// By opl::MgmtLock::Kind.
constexpr opl::MgmtSet::Semaphore kLockOf[] = {kSharedMemLock, kRWLockLock, kMutexLock};

}  // namespace

namespace opl {

OPL_Result MgmtLock::Take() {
  const OPL_Result rc = SemaphoreLock(kLockOf[kind_], &setId_, &wasFree_);
  taken_ = rc == OPL_OK;
  return rc;
}

OPL_Result MgmtLock::Release() {
  if (!taken_) return OPL_OK;
  taken_ = false;
  return SemaphoreUnlockIn(setId_, kLockOf[kind_]);
}

MgmtWait WaitForMgmtLock() {
  const int32_t id = gSetId;
  if (IsAbandoned(id, kUseCount)) {
    (void)OPL_PrivateMgmtLockDestroy();
    return MgmtWait::kTryAgain;
  }
  if (AccessUseCountFor(id, kUseCount, kPatienceMs) == -1) return MgmtWait::kTryAgain;
  gUses.Set(gUses.Get() + 1);
  return MgmtWait::kHasUse;
}

void RestoreMgmtLock() { RestoreUseCount(gSetId, kUseCount); }

}  // namespace opl

OPL_Result OPL_PrivateMgmtLockCreate() {
  const Caller caller{"OPL_PrivateMgmtLockCreate"};
  if (gSetId != kNoSet) return AlreadyAllocated(caller);

  char file[opl::kIpcNameSize];
  BuildFileName(file);
  uint32_t pid = 0;
  if (const Code rc = OPL_ProcessIdGet(&pid)) return rc;
  char temporary[opl::kIpcNameSize];
  (void)OPL_CrtSNPrintf(temporary, sizeof temporary, "%s.%lx", file, pid);
  int32_t id = kNoSet;
  if (const Code rc = opl::CreateSetInFile(Caller{"OPL_PrivateSemIdCreate"}, temporary, kMode, kMode,
                                           kSemaphoreCount, kInitialValues, &id))
    return rc;
  opl::Undo removeTemporary([&] { (void)::unlink(temporary); });
  opl::Undo unlinkFile([&] { UnlinkManagementFile(temporary, file); });
  opl::Undo removeSet([&] { (void)::semctl(id, 0, IPC_RMID); });
  if (const Code rc = LinkManagementFile(temporary, file)) return rc;

  unlinkFile.Keep();
  removeSet.Keep();  // the temporary name goes in any case
  gSetId = id;
  gUses.Set(0);
  return OPL_OK;
}

OPL_Result OPL_PrivateMgmtLockOpen() {
  const int32_t held = gSetId;
  if (held != kNoSet) {
    (void)AlreadyAllocated(Caller{"OPL_PrivateMgmtLockOpen"});
    // Deliberate: a second Open costs this process the set that it holds. The set itself is removed only when
    // no other process uses it.
    LetGoOf(held);
    return OPL_PRIVATE_E_MGMT_HELD;
  }
  int32_t id = kNoSet;
  if (const Code rc = FindSet(&id)) {
    // Deliberate: the message is that of the removal, which finds that this process holds nothing to remove.
    (void)OPL_PrivateMgmtLockDestroy();
    return rc;
  }
  gSetId = id;
  gUses.Set(0);
  return OPL_OK;
}

OPL_Result OPL_PrivateMgmtLockClose(uint32_t /*mode*/) {
  const Caller caller{"OPL_PrivateMgmtLockClose"};
  int32_t id = kNoSet;
  if (const Code rc = HeldSet(caller, &id)) return rc;
  ForgetSet();
  return OPL_OK;
}

OPL_Result OPL_PrivateMgmtLockDestroy() {
  int32_t id = kNoSet;
  if (const Code rc = HeldSet(Caller{"OPL_PrivateMgmtLockDestroy"}, &id)) return rc;
  char file[opl::kIpcNameSize];
  BuildFileName(file);
  const Code rc = opl::DestroyHeldSet(Caller{"OPL_PrivateSemIdDestroy"}, file, id);
  if (rc == OPL_OK || rc == OPL_PRIVATE_E_SEM_MISSING) ForgetSet();
  return opl::Translate(rc, OPL_PRIVATE_E_SEM_MISSING, OPL_PRIVATE_E_MGMT_MISSING);
}

OPL_Result OPL_PrivateMgmtLockQVOPLAccess() {
  const Caller caller{"OPL_PrivateMgmtLockQVOPLAccess"};
  int32_t id = kNoSet;
  if (const Code rc = HeldSet(caller, &id)) return rc;
  const sembuf one[] = {{kUseCount, -1, SEM_UNDO | IPC_NOWAIT}};
  if (RetryOnEintr([&] { return opl::Semop(id, one); }) != -1) {
    gUses.Set(gUses.Get() + 1);
    return OPL_OK;
  }
  if (errno == EAGAIN)
    return Fail(caller, OPL_PRIVATE_E_MGMT_UNAVAILABLE,
                "%s: Cannot access QVOPL count semaphore [probably being destroyed]");
  return SemopFailed(caller, id);
}

OPL_Result OPL_PrivateMgmtLockQVOPLRelease() {
  const Caller caller{"OPL_PrivateMgmtLockQVOPLRelease"};
  int32_t id = kNoSet;
  if (const Code rc = HeldSet(caller, &id)) return rc;
  // Nothing is given back that this process has not taken: it would be another process's. Then the operation
  // only looks whether the set is there.
  const bool hasUse = gUses.Get() > 0;
  const sembuf one[] = {{kUseCount, 1, SEM_UNDO | IPC_NOWAIT}};
  const sembuf look[] = {{kUseCount, 0, IPC_NOWAIT}};
  const int result = RetryOnEintr([&] { return opl::Semop(id, hasUse ? one : look); });
  if (result == -1 && (hasUse || errno != EAGAIN)) return SemopFailed(caller, id);
  if (hasUse) gUses.Set(gUses.Get() - 1);
  return OPL_OK;
}

OPL_Result OPL_PrivateMgmtLockQVOPLExclusive() {
  const Caller caller{"OPL_PrivateMgmtLockQVOPLExclusive"};
  int32_t id = kNoSet;
  if (const Code rc = HeldSet(caller, &id)) return rc;
  const sembuf all[] = {{kUseCount, -opl::kUseCountLimit, IPC_NOWAIT}};
  if (RetryOnEintr([&] { return opl::Semop(id, all); }) != -1) return OPL_OK;
  if (errno == EAGAIN)
    return Fail(caller, OPL_PRIVATE_E_MGMT_UNAVAILABLE,
                "%s: Cannot obtain exclusive access to QVOPL count semaphore [other still uses it]");
  return SemopFailed(caller, id);
}

OPL_Result OPL_PrivateMgmtLockSharedMemLock() { return SemaphoreLock(kSharedMemLock); }

OPL_Result OPL_PrivateMgmtLockSharedMemUnlock() { return SemaphoreUnlock(kSharedMemLock); }

OPL_Result OPL_PrivateMgmtLockRWLockLock() { return SemaphoreLock(kRWLockLock); }

OPL_Result OPL_PrivateMgmtLockRWLockUnlock() { return SemaphoreUnlock(kRWLockLock); }

OPL_Result OPL_PrivateMgmtLockSyncMutexLock() { return SemaphoreLock(kMutexLock); }

OPL_Result OPL_PrivateMgmtLockSyncMutexUnlock() { return SemaphoreUnlock(kMutexLock); }
