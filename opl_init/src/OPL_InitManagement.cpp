#include <ctime>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "opl_init/src/InitManagement.h"
#include "opl_private/src/MgmtLock.h"

namespace {

constexpr int kMostAttempts = 60;
constexpr int kAttemptsWithoutPause = 4;
constexpr long kPauseStepNs = 100000;

// *opened stays false where another process was quicker in making or removing the lock.
OPL_Result OpenOrCreate(bool* opened) {
  OPL_Result rc = OPL_PrivateMgmtLockOpen();
  if (rc == OPL_PRIVATE_E_MGMT_MISSING) {
    rc = OPL_PrivateMgmtLockCreate();
    if (rc == OPL_PRIVATE_E_MGMT_EXISTS) return OPL_OK;
  }
  *opened = rc == OPL_OK;
  return rc;
}

// Lets the processes that this one races with get on with it; longer each time.
void Pause(int attempt) {
  if (attempt < kAttemptsWithoutPause) return;
  const timespec time{0, kPauseStepNs * attempt};
  (void)::nanosleep(&time, nullptr);
}

bool WasRemovedMeanwhile(OPL_Result rc) {
  return rc == OPL_PRIVATE_E_MGMT_MISSING || rc == OPL_PRIVATE_E_MGMT_UNAVAILABLE;
}

}  // namespace

namespace opl {

OPL_Result ManagementMutexInitialize() {
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    Pause(attempt);
    bool opened = false;
    if (const OPL_Result rc = OpenOrCreate(&opened)) return rc;
    if (!opened) continue;
    const OPL_Result rc = OPL_PrivateMgmtLockQVOPLAccess();
    if (!WasRemovedMeanwhile(rc)) return rc;
    if (rc == OPL_PRIVATE_E_MGMT_UNAVAILABLE && WaitForMgmtLock() == MgmtWait::kHasUse) return OPL_OK;
    (void)OPL_PrivateMgmtLockClose(0);
  }
  // Deliberate: a process that lost every race begins without the lock. What needs the lock then fails with a
  // code of its own, and everything else of the library works.
  return OPL_OK;
}

void ManagementMutexRelease(uint32_t mode) {
  if (mode == OPL_INIT_END_FORCED) {
    (void)OPL_PrivateMgmtLockClose(1);
    return;
  }
  if (OPL_PrivateMgmtLockQVOPLRelease() != OPL_OK) return;
  if (OPL_PrivateMgmtLockQVOPLExclusive() != OPL_OK) {
    (void)OPL_PrivateMgmtLockClose(0);
    return;
  }
  const OPL_Result rc = OPL_PrivateMgmtLockDestroy();
  if (rc != OPL_OK && rc != OPL_PRIVATE_E_MGMT_MISSING) RestoreMgmtLock();
}

}  // namespace opl
