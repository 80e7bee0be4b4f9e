// Critical sections: a thread mutex that whichever thread comes first may initialise.
#include <pthread.h>

#include <cerrno>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "opl_err/src/Fail.h"
#include "opl_sync/src/SyncProcess.h"

OPL_SyncCriticalSection gCrit{};

namespace {

using opl::Code;
using opl::Fail;
using opl::NativeError;

// Guards the initialised field of every critical section while one is initialised.
pthread_mutex_t gProcessLock = PTHREAD_MUTEX_INITIALIZER;

// Deliberate: this module reports errno, not the number that the call returns, and this one message opens
// with that number where the others have the function's name.
Code LockProcess() {
  if (::pthread_mutex_lock(&gProcessLock) == 0) return OPL_OK;
  const NativeError error;
  return Fail(error, OPL_SYNC_E_LOCK, "%i: pthread_mutex_lock :%i,%s", error.number(), error.number(),
              error.text());
}

Code UnlockProcess() {
  if (::pthread_mutex_unlock(&gProcessLock) == 0) return OPL_OK;
  const NativeError error;
  return Fail(error, OPL_SYNC_E_UNLOCK, "%s: pthread_mutex_unlock :%i,%s", error.number(), error.text());
}

}  // namespace

namespace opl {

void LockCritSecForFork() { (void)::pthread_mutex_lock(&gProcessLock); }

void UnlockCritSecAfterFork() { (void)::pthread_mutex_unlock(&gProcessLock); }

}  // namespace opl

OPL_Result OPL_SyncCriticalSectionInit(OPL_SyncCriticalSection* pCritSec) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pCritSec == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pCritSec is NULL");

  if (const Code rc = LockProcess()) return rc;
  Code result = OPL_OK;
  if (pCritSec->initialised == 0) {
    if (::pthread_mutex_init(&pCritSec->mutex, nullptr) == 0) {
      pCritSec->initialised = 1;
    } else {
      const NativeError error;
      result =
          Fail(error, OPL_SYNC_E_MUTEX_INIT, "%s: pthread_mutex_init :%i,%s", error.number(), error.text());
    }
  }
  (void)UnlockProcess();
  return result;
}

OPL_Result OPL_SyncCriticalSectionUnInit(OPL_SyncCriticalSection* pCritSec) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pCritSec == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pCritSec is NULL");
  // Deliberate: the record stays marked as initialised, so that a later Init does not make a second mutex
  // under threads that still hold a pointer to it.
  if (pCritSec->initialised != 0) (void)::pthread_mutex_destroy(&pCritSec->mutex);
  return OPL_OK;
}

OPL_Result OPL_SyncCriticalSectionEnter(OPL_SyncCriticalSection* pCritSec) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pCritSec == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pCritSec is NULL");
  if (::pthread_mutex_lock(&pCritSec->mutex) != 0) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_LOCK, "%s: pthread_mutex_lock :%i,%s", error.number(), error.text());
  }
  return OPL_OK;
}

OPL_Result OPL_SyncCriticalSectionLeave(OPL_SyncCriticalSection* pCritSec) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pCritSec == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pCritSec is NULL");
  if (::pthread_mutex_unlock(&pCritSec->mutex) != 0) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_UNLOCK, "%s: pthread_mutex_unlock :%i,%s", error.number(), error.text());
  }
  return OPL_OK;
}

OPL_Result OPL_SyncProcessInitCrit(uint32_t /*mode*/) { return OPL_OK; }
