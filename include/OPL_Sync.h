/*
 * Synchronisation: critical sections.
 *
 * A critical section excludes the threads of one process from each other. Its record may be a static
 * variable; a zero-filled one is ready for OPL_SyncCriticalSectionInit, which any thread may call at any time
 * and as often as it likes. It is not recursive: a thread that enters one twice waits for ever.
 */
#ifndef OPL_SYNC_H
#define OPL_SYNC_H

#include <pthread.h>

#include "OPL_Types.h"

OPL_BEGIN_DECLS

enum {
  OPL_SYNC_E_MUTEX_INIT = 0x05003C,   /**< the thread mutex could not be made */
  OPL_SYNC_E_LOCK = 0x05003D,         /**< a lock could not be taken */
  OPL_SYNC_E_UNLOCK = 0x05003E,       /**< a lock could not be released */
  OPL_SYNC_E_NULL_ARGUMENT = 0x050046 /**< a required pointer argument is null */
};

/** A critical section; the caller's own memory, zero-filled before the first use. */
typedef struct OPL_SyncCriticalSection {
  int32_t initialised;   /**< 0 until OPL_SyncCriticalSectionInit has made the mutex, then 1 */
  pthread_mutex_t mutex; /**< the lock itself */
} OPL_SyncCriticalSection;

/**
 * The library-wide critical section, for calls into functions of the system that are not re-entrant. The
 * network look-ups use it too: call OPL_SyncCriticalSectionInit, Enter, the function, Leave.
 */
extern OPL_API OPL_SyncCriticalSection gCrit;

/**
 * Makes the critical section ready, unless it is already.
 *
 * @param pCritSec  zero-filled at first; owned by the caller, released with OPL_SyncCriticalSectionUnInit
 *
 * @return OPL_OK                    ready
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 * @return OPL_SYNC_E_MUTEX_INIT     the system refused the mutex; the next call tries again
 * @return OPL_SYNC_E_LOCK           the lock around the making could not be taken
 */
OPL_API OPL_Result OPL_SyncCriticalSectionInit(OPL_SyncCriticalSection* pCritSec);

/**
 * Ends a critical section that no thread uses any more. The record stays marked as initialised: it must be
 * neither used nor initialised again.
 *
 * @return OPL_OK                    ended, or it was never initialised
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 */
OPL_API OPL_Result OPL_SyncCriticalSectionUnInit(OPL_SyncCriticalSection* pCritSec);

/**
 * Waits until no other thread is inside and enters.
 *
 * @return OPL_OK                    entered
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 * @return OPL_SYNC_E_LOCK           the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SyncCriticalSectionEnter(OPL_SyncCriticalSection* pCritSec);

/**
 * Leaves a critical section that the calling thread has entered.
 *
 * @return OPL_OK                    left
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 * @return OPL_SYNC_E_UNLOCK         the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SyncCriticalSectionLeave(OPL_SyncCriticalSection* pCritSec);

/** Prepares the locks of the module's tables. Called by OPL_InitBegin. @param mode not looked at @return
 * OPL_OK */
OPL_API OPL_Result OPL_SyncProcessInitCrit(uint32_t mode);

OPL_END_DECLS

#endif
