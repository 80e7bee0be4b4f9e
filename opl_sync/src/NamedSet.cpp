#include "opl_sync/src/NamedSet.h"

#include <sys/sem.h>
#include <unistd.h>

#include <utility>

#include "OPL_Private.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/Semaphore.h"
#include "opl_thread/src/ForkGeneration.h"

namespace {

using opl::Code;
using opl::ProcessLock;
using opl::Use;
using opl::UseList;

// The last user takes all of the use count, and gives it back where the removal fails.
Code RemoveWithLastUse(const opl::IpcName& file, int32_t semId, uint32_t useCount) {
  if (const Code rc = OPL_PrivateUseCountExclusive(semId, useCount))
    return opl::Translate(rc, OPL_PRIVATE_E_IN_USE, OPL_OK);
  const Code rc = opl::DestroyHeldSet(opl::Caller{"OPL_PrivateSemIdDestroy"}, file.c_str(), semId);
  if (rc != OPL_OK) opl::RestoreUseCount(semId, useCount);
  return rc;
}

Code TakeUseUnderLock(ProcessLock& lock, UseList& uses, Use* use, bool* wasHeld) {
  ProcessLock::Hold hold(lock);
  if (const Code rc = hold.Take()) return rc;
  uses.EnterProcess(opl::ForkGeneration());
  *wasHeld = opl::TakeUse(use);
  return OPL_OK;
}

void HoldUseUnderLock(ProcessLock& lock, Use* use) {
  ProcessLock::Hold hold(lock);
  use->isHeld = hold.Take() == OPL_OK;
}

}  // namespace

namespace opl {

Code AccessFoundSet(const IpcName& file, int32_t semId, uint32_t useCount, Code missingCode) {
  const Code rc = OPL_PrivateUseCountAccess(semId, useCount);
  if (rc == OPL_PRIVATE_E_SEM_MISSING) {
    const MessageKeeper keepMessage;
    int32_t id = -1;
    (void)OPL_PrivateSemIdGet(file.c_str(), &id);  // drops a file whose set is gone
  }
  return Translate(rc, OPL_PRIVATE_E_SEM_MISSING, missingCode);
}

void AddUse(UseList& uses, Use* use, int32_t semId) {
  uses.EnterProcess(ForkGeneration());
  uses.Add(use, semId);
}

Code GiveUseBack(ProcessLock& lock, UseList& uses, Use* use, const IpcName& file, uint32_t useCount) {
  bool isHeld = false;
  if (const Code rc = TakeUseUnderLock(lock, uses, use, &isHeld)) return rc;
  if (!isHeld) return OPL_OK;
  if (const Code rc = OPL_PrivateUseCountRelease(use->semId, useCount)) {
    HoldUseUnderLock(lock, use);
    return rc;
  }
  const Code rc = RemoveWithLastUse(file, use->semId, useCount);
  if (rc == OPL_OK) return OPL_OK;

  // The handle stays open, and has its use back for the next attempt.
  const MessageKeeper keepMessage;
  if (OPL_PrivateUseCountAccess(use->semId, useCount) == OPL_OK) HoldUseUnderLock(lock, use);
  return rc;
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
  return {isHeld, semId, nullptr, nullptr};
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
