#include "opl_sync/src/NamedSet.h"

#include <sys/sem.h>
#include <unistd.h>

#include <utility>

#include "OPL_Private.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_private/src/Semaphore.h"
#include "opl_thread/src/ForkGeneration.h"

namespace {

using opl::ClosedHandle;
using opl::Code;
using opl::IpcName;
using opl::ProcessLock;

// A set that a dead process was about to remove is removed with its file.
Code AccessFoundSet(const IpcName& file, int32_t semId, uint32_t useCount, Code missingCode) {
  const Code rc = OPL_PrivateUseCountAccess(semId, useCount);
  if (rc == OPL_PRIVATE_E_SEM_MISSING) {
    const opl::MessageKeeper keepMessage;
    int32_t id = -1;
    (void)OPL_PrivateSemIdGet(file.c_str(), &id);  // drops a file whose set is gone
  }
  return opl::Translate(rc, OPL_PRIVATE_E_SEM_MISSING, missingCode);
}

// Takes or gives back one of a use count where nothing stands in the way; whatever does is left to the
// functions that wait and report.
bool ChangeUseCountAtOnce(int32_t semId, uint32_t useCount, short change) {
  const sembuf operation[] = {
      {static_cast<unsigned short>(useCount), change, static_cast<short>(SEM_UNDO | IPC_NOWAIT)}};
  return opl::Semop(semId, operation) != -1;
}

// The last user takes all of the use count, and gives it back where the removal fails.
Code RemoveWithLastUse(const IpcName& file, int32_t semId, uint32_t useCount) {
  if (const Code rc = OPL_PrivateUseCountExclusive(semId, useCount))
    return opl::Translate(rc, OPL_PRIVATE_E_IN_USE, OPL_OK);
  const Code rc = opl::DestroyHeldSet(opl::Caller{"OPL_PrivateSemIdDestroy"}, file.c_str(), semId);
  if (rc != OPL_OK) opl::RestoreUseCount(semId, useCount);
  return rc;
}

Code TakeUseUnderLock(const ClosedHandle& handle, bool* wasHeld) {
  ProcessLock::Hold hold(handle.lock);
  if (const Code rc = hold.Take()) return rc;
  handle.uses.EnterProcess(opl::ForkGeneration());
  *wasHeld = opl::TakeUse(handle.use);
  return OPL_OK;
}

void HoldUseUnderLock(const ClosedHandle& handle) {
  ProcessLock::Hold hold(handle.lock);
  handle.use->isHeld = hold.Take() == OPL_OK;
}

// What follows the giving back of a use count.
Code RemoveUnlessUsed(const ClosedHandle& handle) {
  const int32_t semId = handle.use->semId;
  const Code rc = RemoveWithLastUse(handle.file, semId, handle.useCount);
  if (rc == OPL_OK) return OPL_OK;

  // The handle stays open, and has its use back for the next attempt.
  const opl::MessageKeeper keepMessage;
  if (OPL_PrivateUseCountAccess(semId, handle.useCount) == OPL_OK) HoldUseUnderLock(handle);
  return rc;
}

}  // namespace

namespace opl {

Code OpenSet(const IpcName& file, uint32_t useCount, Code missingCode, MgmtLock* mgmt, FoundSet* found) {
  bool isFound = LookForSet(file.c_str(), found);
  if (const Code rc = mgmt->Take()) return rc;
  if (isFound && !mgmt->WasFree()) isFound = found->file.StillHolds(file.c_str());
  if (isFound && ChangeUseCountAtOnce(found->id, useCount, -1)) return OPL_OK;

  if (const Code rc = FindSet(Caller{"OPL_PrivateSemIdGet"}, file.c_str(), found))
    return Translate(rc, OPL_PRIVATE_E_SEM_MISSING, missingCode);
  return AccessFoundSet(file, found->id, useCount, missingCode);
}

void AddUse(UseList& uses, Use* use, const FoundSet& set) {
  uses.EnterProcess(ForkGeneration());
  uses.Add(use, set.id, set.file);
}

Code LockForClose(const ClosedHandle& handle, MgmtLock* mgmt, bool* stands) {
  const FileStamp& made = handle.use->file;
  *stands = made.StillHolds(handle.file.c_str());
  if (const Code rc = mgmt->Take()) return rc;
  if (*stands && !mgmt->WasFree()) *stands = made.StillHolds(handle.file.c_str());
  return OPL_OK;
}

Code GiveUseBack(const ClosedHandle& handle) {
  bool isHeld = false;
  if (const Code rc = TakeUseUnderLock(handle, &isHeld)) return rc;
  if (!isHeld) return OPL_OK;
  if (const Code rc = OPL_PrivateUseCountRelease(handle.use->semId, handle.useCount)) {
    HoldUseUnderLock(handle);
    return rc;
  }
  return RemoveUnlessUsed(handle);
}

bool GiveUseBackUnread(const ClosedHandle& handle, Code* rc) {
  bool isHeld = false;
  *rc = TakeUseUnderLock(handle, &isHeld);
  if (*rc != OPL_OK) return true;
  if (!isHeld) return false;
  if (!ChangeUseCountAtOnce(handle.use->semId, handle.useCount, 1)) {
    HoldUseUnderLock(handle);
    return false;
  }
  *rc = RemoveUnlessUsed(handle);
  return true;
}

void UndoCreate(const IpcName& file, int32_t semId) {
  const MessageKeeper keepMessage;
  const Code rc = DestroyHeldSet(Caller{"OPL_PrivateSemIdDestroy"}, file.c_str(), semId);
  if (rc == OPL_OK) return;
  // Without a descriptor for the file: the set is known, and nobody but its maker has had time to open it.
  (void)::semctl(semId, 0, IPC_RMID);
  (void)::unlink(file.c_str());
}

void UndoAccess(int32_t semId, uint32_t useCount) {
  const MessageKeeper keepMessage;
  (void)OPL_PrivateUseCountRelease(semId, useCount);
}

Use UseForCopy(UseList& uses, int32_t semId, bool* entryHoldsUse) {
  uses.EnterProcess(ForkGeneration());
  const bool isHeld = TakeUse(uses.Find(semId, true)) || std::exchange(*entryHoldsUse, false);
  return {isHeld, semId, {}, nullptr, nullptr};
}

Code AdoptUse(UseList& uses, int32_t semId, uint32_t useCount, bool* entryHoldsUse) {
  uses.EnterProcess(ForkGeneration());
  *entryHoldsUse = false;
  if (const Code rc = OPL_PrivateUseCountAccess(semId, useCount)) return rc;
  Use* const use = uses.Find(semId, false);
  if (use != nullptr)
    use->isHeld = true;
  else
    *entryHoldsUse = true;
  return OPL_OK;
}

}  // namespace opl
