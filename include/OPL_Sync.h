/*
 * Synchronisation: critical sections, and the named mutexes and read-write locks that the processes of an
 * instance share.
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
  OPL_SYNC_E_NO_MEMORY = 0x050001,      /**< no memory */
  OPL_SYNC_E_MUTEX_EXISTS = 0x050003,   /**< a mutex of that name exists */
  OPL_SYNC_E_MUTEX_MISSING = 0x050005,  /**< there is no mutex of that name, or it was removed */
  OPL_SYNC_E_BAD_NAME = 0x050013,       /**< the name is longer than OPL_SYNC_NAME_MAX */
  OPL_SYNC_E_RWLOCK_EXISTS = 0x050014,  /**< a read-write lock of that name exists */
  OPL_SYNC_E_RWLOCK_MISSING = 0x050016, /**< there is no read-write lock of that name */
  OPL_SYNC_E_NOT_HELD = 0x050018,       /**< the thread does not hold the read-write lock */
  OPL_SYNC_E_BAD_LOCK_MODE = 0x050019,  /**< neither shared nor exclusive */
  OPL_SYNC_E_SEMOP = 0x050023,          /**< a semaphore operation failed */
  OPL_SYNC_E_NOT_OWNER = 0x05002C,      /**< the thread does not own the mutex */
  OPL_SYNC_E_TABLE_FULL = 0x05002D,     /**< the process holds too many objects of this kind */
  OPL_SYNC_E_MUTEX_INIT = 0x05003C,     /**< the thread mutex could not be made */
  OPL_SYNC_E_LOCK = 0x05003D,           /**< a lock could not be taken */
  OPL_SYNC_E_UNLOCK = 0x05003E,         /**< a lock could not be released */
  OPL_SYNC_E_NO_PERMISSION = 0x05003F,  /**< no permission flag is given */
  OPL_SYNC_E_INTERRUPTED = 0x050042,    /**< a signal came, and the object does not restart */
  OPL_SYNC_E_NULL_ARGUMENT = 0x050046,  /**< a required pointer argument is null */
  OPL_SYNC_E_MISMATCH = 0x05005E        /**< the name stands for another object than the handle */
};

enum {
  OPL_SYNC_NAME_MAX = 11 /**< characters of a named object's name, without the terminator */
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

/*
 * Named mutexes. One thread of all processes of the instance owns a mutex at a time; it may acquire it again
 * and releases it as often. The system gives back what a dead process held, and the last process to close a
 * mutex removes it.
 *
 * A handle belongs to the process that made it. After a fork, a mutex held by the parent stays the parent's.
 */

/** Flags of OPL_SyncMutexCreate and OPL_SyncMutexOpen. One of the first two is needed; the first wins. */
enum {
  OPL_SYNC_MUTEX_PRIVATE = 0x04, /**< for the instance and its user: mode 0600 */
  OPL_SYNC_MUTEX_ALL = 0x08,     /**< for all users and instances: mode 0666 */
  OPL_SYNC_MUTEX_RESTART = 0x10  /**< a signal does not end a wait */
};

/** A process's handle of a named mutex. */
typedef struct OPL_SyncMutex OPL_SyncMutex;

/**
 * Makes a named mutex, free, and opens it.
 *
 * @param ppMutex   receives the handle, ended with OPL_SyncMutexClose
 * @param reserved  not looked at
 * @param name      up to OPL_SYNC_NAME_MAX characters
 * @param flags     OPL_SYNC_MUTEX_*
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  ppMutex or name is null
 * @return OPL_SYNC_E_BAD_NAME       the name is too long
 * @return OPL_SYNC_E_NO_PERMISSION  neither OPL_SYNC_MUTEX_PRIVATE nor OPL_SYNC_MUTEX_ALL is given
 * @return OPL_SYNC_E_MUTEX_EXISTS   there is one of that name: open it
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return OPL_SYNC_E_TABLE_FULL     the process has 40 mutexes open
 * @return OPL_SYNC_E_LOCK, or a code of OPL_Sig.h or OPL_Private.h, for what the system refused
 */
OPL_API OPL_Result OPL_SyncMutexCreate(OPL_SyncMutex** ppMutex, uint32_t reserved, const char* name,
                                       uint32_t flags);

/**
 * Opens a named mutex that exists. The handle's memory stays with the process after OPL_SyncMutexClose.
 *
 * @return as OPL_SyncMutexCreate, with OPL_SYNC_E_MUTEX_MISSING where there is none of that name
 */
OPL_API OPL_Result OPL_SyncMutexOpen(OPL_SyncMutex** ppMutex, uint32_t reserved, const char* name,
                                     uint32_t flags);

/**
 * Waits until no other thread of any process owns the mutex, and takes it. A thread that owns it already
 * takes it once more.
 *
 * @return OPL_OK                    taken
 * @return OPL_SYNC_E_NULL_ARGUMENT  hMutex is null
 * @return OPL_SYNC_E_INTERRUPTED    a signal came and OPL_SYNC_MUTEX_RESTART was not given
 * @return OPL_SYNC_E_MUTEX_MISSING  the mutex was removed
 * @return OPL_SYNC_E_SEMOP          the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SyncMutexAcquire(OPL_SyncMutex* hMutex);

/**
 * Gives back what one OPL_SyncMutexAcquire took.
 *
 * @return OPL_OK                    given back
 * @return OPL_SYNC_E_NULL_ARGUMENT  hMutex is null
 * @return OPL_SYNC_E_NOT_OWNER      the calling thread does not own the mutex
 * @return OPL_SYNC_E_INTERRUPTED    a signal came and OPL_SYNC_MUTEX_RESTART was not given
 * @return OPL_SYNC_E_SEMOP          the system refused; the thread does not own the mutex any more
 */
OPL_API OPL_Result OPL_SyncMutexRelease(OPL_SyncMutex* hMutex);

/**
 * Closes a mutex; the last close of all processes removes it. Not while the calling process owns it.
 *
 * @param phMutex  the handle; null afterwards, but on those failures that leave it open
 *
 * @return OPL_OK                    closed
 * @return OPL_SYNC_E_NULL_ARGUMENT  phMutex or *phMutex is null
 * @return OPL_SYNC_E_MISMATCH       the name stands for another mutex by now; the handle is closed
 * @return OPL_SYNC_E_MUTEX_MISSING  the mutex was removed; the handle stays open
 * @return another code for what the system refused; the handle stays open
 */
OPL_API OPL_Result OPL_SyncMutexClose(OPL_SyncMutex** phMutex);

/**
 * Takes a use count of its own for each mutex that a forked child inherited. Called by OPL_InitSetCurrentPid.
 *
 * @return OPL_OK  taken
 * @return the first failure's code; the other mutexes are gone through all the same
 */
OPL_API OPL_Result OPL_SyncMutexTransferOwnership(void);

/*
 * Named read-write locks. Many threads of all processes of the instance hold a lock shared, or one holds it
 * exclusively. Readers that keep coming keep a writer waiting. Each thread holds a lock once: locking again
 * forgets how it was held before.
 */

/** Flags of OPL_SyncRWLockCreate and OPL_SyncRWLockOpen; the first wins. */
enum {
  OPL_SYNC_RWLOCK_PRIVATE = 0x01, /**< for the instance and its user: mode 0600 */
  OPL_SYNC_RWLOCK_ALL = 0x02,     /**< for all users and instances: mode 0666 */
  OPL_SYNC_RWLOCK_RESTART = 0x10  /**< a signal does not end a wait */
};

/** How OPL_SyncRWLockLock holds the lock. */
enum {
  OPL_SYNC_RWLOCK_SHARED = 1,   /**< with other readers */
  OPL_SYNC_RWLOCK_EXCLUSIVE = 2 /**< alone */
};

/** A process's handle of a named read-write lock. */
typedef struct OPL_SyncRWLock OPL_SyncRWLock;

/**
 * Makes a named read-write lock, free, and opens it.
 *
 * @param phRWLock  receives the handle, ended with OPL_SyncRWLockClose
 * @param reserved  not looked at
 * @param name      up to OPL_SYNC_NAME_MAX characters
 * @param flags     OPL_SYNC_RWLOCK_*; without PRIVATE and ALL the file and the semaphores are made without
 * any permission, and only a privileged process can use them
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  phRWLock or name is null
 * @return OPL_SYNC_E_BAD_NAME       the name is too long
 * @return OPL_SYNC_E_RWLOCK_EXISTS  there is one of that name: open it
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return another code for what the system refused, such as OPL_THREAD_E_NO_KEY
 */
OPL_API OPL_Result OPL_SyncRWLockCreate(OPL_SyncRWLock** phRWLock, uint32_t reserved, const char* name,
                                        uint32_t flags);

/**
 * Opens a named read-write lock that exists.
 *
 * @return as OPL_SyncRWLockCreate, with OPL_SYNC_E_RWLOCK_MISSING where there is none of that name
 */
OPL_API OPL_Result OPL_SyncRWLockOpen(OPL_SyncRWLock** phRWLock, uint32_t reserved, const char* name,
                                      uint32_t flags);

/**
 * Waits until the lock can be held in that mode, and takes it for the calling thread.
 *
 * @param mode  OPL_SYNC_RWLOCK_SHARED or OPL_SYNC_RWLOCK_EXCLUSIVE
 *
 * @return OPL_OK                    taken
 * @return OPL_SYNC_E_NULL_ARGUMENT  hRWLock is null
 * @return OPL_SYNC_E_BAD_LOCK_MODE  another mode
 * @return OPL_SYNC_E_INTERRUPTED    a signal came and OPL_SYNC_RWLOCK_RESTART was not given
 * @return OPL_SYNC_E_SEMOP          the system refused, as after the lock was removed
 * @return a code of OPL_ThreadTsdSetValue
 */
OPL_API OPL_Result OPL_SyncRWLockLock(OPL_SyncRWLock* hRWLock, uint32_t mode);

/**
 * Gives back what the calling thread holds.
 *
 * @return OPL_OK                    given back
 * @return OPL_SYNC_E_NULL_ARGUMENT  hRWLock is null
 * @return OPL_SYNC_E_NOT_HELD       the thread holds nothing
 * @return OPL_SYNC_E_INTERRUPTED    a signal came and OPL_SYNC_RWLOCK_RESTART was not given
 * @return OPL_SYNC_E_SEMOP          the system refused
 */
OPL_API OPL_Result OPL_SyncRWLockUnlock(OPL_SyncRWLock* hRWLock);

/**
 * Closes a read-write lock; the last close of all processes removes it. A failure of the close itself is left
 * in the error record only.
 *
 * @param phRWLock  the handle; null afterwards, unless the lock was removed or the system refused
 *
 * @return OPL_OK                    done, but look at the error record
 * @return OPL_SYNC_E_NULL_ARGUMENT  phRWLock or *phRWLock is null
 * @return another code when the management lock could not be taken or given back
 */
OPL_API OPL_Result OPL_SyncRWLockClose(OPL_SyncRWLock** phRWLock);

/**
 * Takes a use count of its own for each read-write lock that a forked child inherited. Called by
 * OPL_InitSetCurrentPid.
 *
 * @return OPL_OK  taken
 * @return the first failure's code; the other locks are gone through all the same
 */
OPL_API OPL_Result OPL_SyncRWLockTransferOwnership(void);

/*
 * The life cycle of all synchronisation objects in a process, driven by OPL_InitBegin and OPL_InitEnd.
 */

/** Prepares the module. @param flag not looked at @return OPL_OK */
OPL_API OPL_Result OPL_SyncProcessInit(uint32_t flag);

/**
 * Closes what the process has left open: read-write locks, then mutexes.
 *
 * @param mode  0 closes; 1 only forgets, for a forked child
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_SyncProcessCleanup(int32_t mode);

/**
 * Removes all synchronisation objects of the instance whose files match a pattern. Called by
 * OPL_InitTerminateIPC.
 *
 * @param reserved  not looked at
 * @param pattern   as the shell matches names, relative to the IPC directory
 *
 * @return OPL_OK  removed, or there was none
 * @return the first failure's code; all kinds are gone through all the same
 */
OPL_API OPL_Result OPL_SyncTerminateIPC(uint32_t reserved, const char* pattern);

OPL_END_DECLS

#endif
