#include "opl_sync/src/NamedSet.h"

#include <utility>

#include "OPL_Private.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_init/src/ForkGeneration.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/Semaphore.h"

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

Code GiveUseBack(const IpcName& file, int32_t semId, uint32_t useCount) {
  if (const Code rc = OPL_PrivateUseCountRelease(semId, useCount)) return rc;
  if (const Code rc = OPL_PrivateUseCountExclusive(semId, useCount))
    return Translate(rc, OPL_PRIVATE_E_IN_USE, OPL_OK);
  const Code rc = DestroyHeldSet(Caller{"OPL_PrivateSemIdDestroy"}, file.c_str(), semId);
  if (rc != OPL_OK) RestoreUseCount(semId, useCount);
  return rc;
}

void UndoCreate(const IpcName& file, int32_t semId) {
  const MessageKeeper keepMessage;
  (void)DestroyHeldSet(Caller{"OPL_PrivateSemIdDestroy"}, file.c_str(), semId);
}

void UndoAccess(int32_t semId, uint32_t useCount) {
  const MessageKeeper keepMessage;
  (void)OPL_PrivateUseCountRelease(semId, useCount);
}

void AddUse(UseList& uses, Use* use, int32_t semId) {
  uses.EnterProcess(ForkGeneration());
  uses.Add(use, semId);
}

bool TakeUseUnderLock(ProcessLock& lock, UseList& uses, Use* use) {
  ProcessLock::Hold hold(lock);
  if (hold.Take() != OPL_OK) return false;
  uses.EnterProcess(ForkGeneration());
  return TakeUse(use);
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
