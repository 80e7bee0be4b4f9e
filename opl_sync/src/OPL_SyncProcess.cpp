// The life cycle of all synchronisation objects: the order in which their kinds start, are closed and are
// removed.
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_sync/src/SyncProcess.h"

namespace {

using opl::Code;

// The management lock is its users' own affair, but not what a process that died while making it has left.
Code TerminateMgmtLeftovers(const char* pattern) {
  return opl::ForEachIpcFile(pattern, opl::kMgmtPrefix, opl::RemoveLeftoverOfSet);
}

// Changed under the initialisation lock.
bool gHoldsTablesOverForks = false;

// A child must not inherit a table in the middle of a change, nor a lock whose holder it has not got.
void LockTables() {
  opl::LockCritSecForFork();
  opl::LockCrewForFork();
  opl::LockEventsForFork();
  opl::LockMutexesForFork();
}

void UnlockTables() {
  opl::UnlockMutexesAfterFork();
  opl::UnlockEventsAfterFork();
  opl::UnlockCrewAfterFork();
  opl::UnlockCritSecAfterFork();
}

Code HoldTablesOverForks() {
  if (gHoldsTablesOverForks) return OPL_OK;
  if (const Code rc = OPL_ProcessAtFork(LockTables, UnlockTables, UnlockTables)) return rc;
  gHoldsTablesOverForks = true;
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_SyncProcessInit(uint32_t flag) {
  if (const Code rc = OPL_SyncProcessInitCrit(flag)) return rc;
  return HoldTablesOverForks();
}

OPL_Result OPL_SyncProcessCleanup(int32_t mode) {
  (void)opl::ProcessCrewExitList(mode);
  (void)opl::ProcessEventExitList(mode);
  (void)opl::ProcessMutexExitList(mode);
  return OPL_OK;
}

OPL_Result OPL_SyncTerminateIPC(uint32_t /*reserved*/, const char* pattern) {
  constexpr Code (*kRemovals[])(const char*) = {opl::TerminateRWLock,    opl::TerminateEvent,
                                                opl::TerminateMutex,     opl::TerminateLockFile,
                                                opl::TerminateSemNative, TerminateMgmtLeftovers};
  Code first = OPL_OK;
  for (const auto remove : kRemovals) {
    const Code rc = remove(pattern);
    if (first == OPL_OK) first = rc;
  }
  return first;
}
