/**
 * @defgroup sync Synchronisation
 *
 * Critical sections and private events between the threads of a process; named mutexes, read-write locks and
 * events, which the processes of an instance share; lock files and file mutexes.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_SYNC_H
#define OPL_SYNC_H

#include <pthread.h>

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_SYNC_E_NO_MEMORY = 0x050001,        /**< no memory */
  OPL_SYNC_E_MUTEX_EXISTS = 0x050003,     /**< a mutex of that name exists */
  OPL_SYNC_E_MUTEX_MISSING = 0x050005,    /**< there is no mutex of that name, or it was removed */
  OPL_SYNC_E_EVENT_EXISTS = 0x05000A,     /**< an event of that name exists */
  OPL_SYNC_E_BAD_NAME = 0x050013,         /**< the name is longer than OPL_SYNC_NAME_MAX */
  OPL_SYNC_E_RWLOCK_EXISTS = 0x050014,    /**< a read-write lock of that name exists */
  OPL_SYNC_E_RWLOCK_MISSING = 0x050016,   /**< there is no read-write lock of that name */
  OPL_SYNC_E_NOT_HELD = 0x050018,         /**< the thread does not hold the read-write lock */
  OPL_SYNC_E_BAD_LOCK_MODE = 0x050019,    /**< neither shared nor exclusive */
  OPL_SYNC_E_UNLINK = 0x05001C,           /**< a file could not be removed */
  OPL_SYNC_E_OPEN = 0x05001E,             /**< a file could not be opened; there is no event of that name */
  OPL_SYNC_E_SEMOP = 0x050023,            /**< a semaphore operation failed */
  OPL_SYNC_E_WRITE = 0x05002A,            /**< a file or an event could not be written */
  OPL_SYNC_E_NOT_OWNER = 0x05002C,        /**< the thread does not own the mutex */
  OPL_SYNC_E_TABLE_FULL = 0x05002D,       /**< the process holds too many objects of this kind */
  OPL_SYNC_E_MUTEX_INIT = 0x05003C,       /**< the thread mutex could not be made */
  OPL_SYNC_E_LOCK = 0x05003D,             /**< a lock could not be taken */
  OPL_SYNC_E_UNLOCK = 0x05003E,           /**< a lock could not be released */
  OPL_SYNC_E_NO_PERMISSION = 0x05003F,    /**< no permission flag is given */
  OPL_SYNC_E_INTERRUPTED = 0x050042,      /**< a signal came, and the object does not restart */
  OPL_SYNC_E_INVALID_MODE = 0x050043,     /**< mode is not 0 */
  OPL_SYNC_E_NULL_ARGUMENT = 0x050046,    /**< a required pointer argument is null */
  OPL_SYNC_E_INITIALISED = 0x050048,      /**< reserved; a critical section that is ready already */
  OPL_SYNC_E_TIMEOUT = 0x05004B,          /**< nothing became ready in time */
  OPL_SYNC_E_MKFIFO = 0x05004F,           /**< an event's pipe could not be made */
  OPL_SYNC_E_READ = 0x050050,             /**< a file or an event could not be read */
  OPL_SYNC_E_NO_CONDITION = 0x050051,     /**< a waitable event asks for nothing */
  OPL_SYNC_E_POLL = 0x050054,             /**< poll failed */
  OPL_SYNC_E_LSEEK = 0x050055,            /**< a lock file's position could not be read or set */
  OPL_SYNC_E_FCNTL = 0x050058,            /**< a lock file could not be locked or unlocked */
  OPL_SYNC_E_CHMOD = 0x050059,            /**< a lock file's permissions could not be set */
  OPL_SYNC_E_LOCKFILE_MISSING = 0x05005A, /**< there is no lock file of that name */
  OPL_SYNC_E_STAT = 0x05005B,             /**< a file mutex's file could not be looked at */
  OPL_SYNC_E_MUTEXFILE_HELD = 0x05005D,   /**< another thread or process holds the file mutex */
  OPL_SYNC_E_MISMATCH = 0x05005E,         /**< the name stands for another object than the handle */
  OPL_SYNC_E_TOO_MANY_EVENTS = 0x05005F,  /**< more than OPL_SYNC_WAIT_MAX waitable events */
  OPL_SYNC_E_NOT_NULL = 0x050060,         /**< reserved; a message only */
  OPL_SYNC_E_REGISTERED = 0x050061,       /**< the semaphore set is registered already */
  OPL_SYNC_E_NOT_REGISTERED = 0x050062,   /**< the semaphore set is not registered */
  OPL_SYNC_E_REGISTER = 0x050063,         /**< the control file could not be made */
  OPL_SYNC_E_DEREGISTER = 0x050064        /**< the control file or the set could not be removed */
};

/** Result codes of registered message queues. */
enum {
  OPL_MSGQ_E_REGISTERED = 0x051102,     /**< the message queue is registered already */
  OPL_MSGQ_E_NOT_REGISTERED = 0x051103, /**< the message queue is not registered */
  OPL_MSGQ_E_REGISTER = 0x051104,       /**< the control file could not be made */
  OPL_MSGQ_E_DEREGISTER = 0x051105      /**< the control file or the queue could not be removed */
};

/** Limits. */
enum {
  OPL_SYNC_NAME_MAX = 11 /**< characters of a named object's name, without the terminator */
};

/**
 * @defgroup synccritical Critical sections
 *
 * A critical section excludes the threads of one process from each other. Its record may be a static
 * variable; a zero-filled one is ready for OPL_SyncCriticalSectionInit, which any thread may call at any time
 * and as often as it likes. It is not recursive: a thread that enters one twice waits for ever. See
 * docs/critical-sections.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

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
 * @param pCritSec  the critical section
 *
 * @return OPL_OK                    ended, or it was never initialised
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 */
OPL_API OPL_Result OPL_SyncCriticalSectionUnInit(OPL_SyncCriticalSection* pCritSec);

/**
 * Waits until no other thread is inside and enters.
 *
 * @param pCritSec  the critical section
 *
 * @return OPL_OK                    entered
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 * @return OPL_SYNC_E_LOCK           the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SyncCriticalSectionEnter(OPL_SyncCriticalSection* pCritSec);

/**
 * Leaves a critical section that the calling thread has entered.
 *
 * @param pCritSec  the critical section
 *
 * @return OPL_OK                    left
 * @return OPL_SYNC_E_NULL_ARGUMENT  pCritSec is null
 * @return OPL_SYNC_E_UNLOCK         the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SyncCriticalSectionLeave(OPL_SyncCriticalSection* pCritSec);

/**
 * Prepares the locks of the module's tables. Called by OPL_InitBegin.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param mode  not looked at
 *
 * @return OPL_OK  always
 */
OPL_API OPL_Result OPL_SyncProcessInitCrit(uint32_t mode);

/** @} */

/**
 * @defgroup syncmutex Named mutexes
 *
 * One thread of all processes of the instance owns a mutex at a time; it may acquire it again
 * and releases it as often. The system gives back what a dead process held, and the last process to close a
 * mutex removes it.
 *
 * A handle belongs to the process that made it. After a fork, a mutex held by the parent stays the parent's.
 * See docs/named-mutexes.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
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
 * @return OPL_SYNC_E_LOCK           the lock of the process's table could not be taken
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockSyncMutexLock, OPL_PrivateSemIdCreate or
 *         OPL_PrivateUseCountAccess, for what the system refused
 */
OPL_API OPL_Result OPL_SyncMutexCreate(OPL_SyncMutex** ppMutex, uint32_t reserved, const char* name,
                                       uint32_t flags);

/**
 * Opens a named mutex that exists. The handle's memory stays with the process after OPL_SyncMutexClose.
 *
 * @param ppMutex   receives the handle, ended with OPL_SyncMutexClose
 * @param reserved  not looked at
 * @param name      up to OPL_SYNC_NAME_MAX characters
 * @param flags     OPL_SYNC_MUTEX_*; the scope as it was made
 *
 * @return OPL_OK                    opened
 * @return OPL_SYNC_E_NULL_ARGUMENT  ppMutex or name is null
 * @return OPL_SYNC_E_BAD_NAME       the name is too long
 * @return OPL_SYNC_E_NO_PERMISSION  neither OPL_SYNC_MUTEX_PRIVATE nor OPL_SYNC_MUTEX_ALL is given
 * @return OPL_SYNC_E_MUTEX_MISSING  there is none of that name
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return OPL_SYNC_E_TABLE_FULL     the process has 40 mutexes open
 * @return OPL_SYNC_E_LOCK           the lock of the process's table could not be taken
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockSyncMutexLock, OPL_PrivateSemIdGet or
 *         OPL_PrivateUseCountAccess, for what the system refused
 */
OPL_API OPL_Result OPL_SyncMutexOpen(OPL_SyncMutex** ppMutex, uint32_t reserved, const char* name,
                                     uint32_t flags);

/**
 * Waits until no other thread of any process owns the mutex, and takes it. A thread that owns it already
 * takes it once more.
 *
 * @param hMutex  the mutex
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
 * @param hMutex  the mutex
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
 * @return OPL_SYNC_E_LOCK           the lock of the process's table could not be taken; the handle stays open
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockSyncMutexLock, OPL_PrivateSemIdGet,
 * OPL_PrivateSemIdDestroy, OPL_PrivateUseCountRelease or OPL_PrivateUseCountExclusive for what the system
 * refused; the handle stays open
 */
OPL_API OPL_Result OPL_SyncMutexClose(OPL_SyncMutex** phMutex);

/**
 * Takes a use count of its own for each mutex that a forked child inherited. Called by OPL_InitSetCurrentPid.
 *
 * @return OPL_OK           taken
 * @return OPL_SYNC_E_LOCK  the lock of the process's table could not be taken
 * @return a code of OPL_PrivateUseCountAccess, the first failure's; the other mutexes are gone through all
 * the same
 */
OPL_API OPL_Result OPL_SyncMutexTransferOwnership(void);

/** @} */

/**
 * @defgroup syncrwlock Named read-write locks
 *
 * Many threads of all processes of the instance hold a lock shared, or one holds it
 * exclusively. Readers that keep coming keep a writer waiting. Each thread holds a lock once: locking again
 * forgets how it was held before. See docs/read-write-locks.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
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
 *                  any permission, and only a privileged process can use them
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  phRWLock or name is null
 * @return OPL_SYNC_E_BAD_NAME       the name is too long
 * @return OPL_SYNC_E_RWLOCK_EXISTS  there is one of that name: open it
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return OPL_SYNC_E_LOCK           the lock of the process's list could not be taken
 * @return a code of OPL_ThreadTsdAllocKey, such as OPL_THREAD_E_NO_KEY
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockRWLockLock, OPL_PrivateSemIdCreate or
 *         OPL_PrivateUseCountAccess for what the system refused
 */
OPL_API OPL_Result OPL_SyncRWLockCreate(OPL_SyncRWLock** phRWLock, uint32_t reserved, const char* name,
                                        uint32_t flags);

/**
 * Opens a named read-write lock that exists.
 *
 * @param phRWLock  receives the handle, ended with OPL_SyncRWLockClose
 * @param reserved  not looked at
 * @param name      up to OPL_SYNC_NAME_MAX characters
 * @param flags     OPL_SYNC_RWLOCK_*; the scope as it was made
 *
 * @return OPL_OK                     opened
 * @return OPL_SYNC_E_NULL_ARGUMENT   phRWLock or name is null
 * @return OPL_SYNC_E_BAD_NAME        the name is too long
 * @return OPL_SYNC_E_RWLOCK_MISSING  there is none of that name
 * @return OPL_SYNC_E_NO_MEMORY       no memory
 * @return OPL_SYNC_E_LOCK            the lock of the process's list could not be taken
 * @return a code of OPL_ThreadTsdAllocKey, such as OPL_THREAD_E_NO_KEY
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockRWLockLock, OPL_PrivateSemIdGet or
 *         OPL_PrivateUseCountAccess for what the system refused
 */
OPL_API OPL_Result OPL_SyncRWLockOpen(OPL_SyncRWLock** phRWLock, uint32_t reserved, const char* name,
                                      uint32_t flags);

/**
 * Waits until the lock can be held in that mode, and takes it for the calling thread.
 *
 * @param hRWLock  the lock
 * @param mode     OPL_SYNC_RWLOCK_SHARED or OPL_SYNC_RWLOCK_EXCLUSIVE
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
 * @param hRWLock  the lock
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
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockRWLockLock or OPL_PrivateMgmtLockRWLockUnlock
 */
OPL_API OPL_Result OPL_SyncRWLockClose(OPL_SyncRWLock** phRWLock);

/**
 * Takes a use count of its own for each read-write lock that a forked child inherited. Called by
 * OPL_InitSetCurrentPid.
 *
 * @return OPL_OK           taken
 * @return OPL_SYNC_E_LOCK  the lock of the process's table could not be taken
 * @return a code of OPL_PrivateUseCountAccess, the first failure's; the other locks are gone through all the
 * same
 */
OPL_API OPL_Result OPL_SyncRWLockTransferOwnership(void);

/** @} */

/**
 * @defgroup syncwaitable Waitable events
 *
 * One binds a descriptor to the conditions that a caller wants to wait for: OPL_SyncEvent*,
 * OPL_SyncPrivateEvent* and OPL_SocketWaitableEvent* make them for what they stand for. Nothing is consumed
 * by a wait. A record must not be changed while a wait uses it. See docs/events.md.
 *
 * @callable after OPL_InitBegin, by one thread at a time for a record, not in a signal handler
 * @{
 */

/** Conditions, wanted and found. */
enum {
  OPL_SYNC_WAIT_ERROR = 0x01, /**< an error, a hang-up, or a descriptor that is not open; always reported */
  OPL_SYNC_WAIT_WRITABLE = 0x02, /**< can be written */
  OPL_SYNC_WAIT_READABLE = 0x04  /**< can be read; an event is set */
};

/** Limits of a wait. */
enum {
  OPL_SYNC_WAIT_MAX = 64 /**< waitable events in one wait */
};

/** A descriptor and the conditions to wait for. */
typedef struct OPL_SyncWaitableEvent OPL_SyncWaitableEvent;

/**
 * Makes a waitable event, bound to nothing.
 *
 * @param ppWait  receives the record, released with OPL_SyncWaitableEventDestroy
 * @param mode    0
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_INVALID_MODE   mode is not 0
 * @return OPL_SYNC_E_NULL_ARGUMENT  ppWait is null
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_SyncWaitableEventCreate(OPL_SyncWaitableEvent** ppWait, uint32_t mode);

/**
 * Makes a new waitable event and carries the source's first reserved word over, nothing else: neither
 * descriptor nor conditions.
 *
 * @param pNewWait  receives the record
 * @param hSource   may be null, which leaves a message
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  pNewWait is null
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_SyncWaitableEventCopy(OPL_SyncWaitableEvent** pNewWait,
                                             OPL_SyncWaitableEvent* hSource);

/**
 * Releases a waitable event and stores null.
 *
 * @param pWait  the record; null afterwards
 *
 * @return OPL_OK                    released, or there was none
 * @return OPL_SYNC_E_NULL_ARGUMENT  pWait is null
 */
OPL_API OPL_Result OPL_SyncWaitableEventDestroy(OPL_SyncWaitableEvent** pWait);

/**
 * Binds a descriptor, which stays the caller's.
 *
 * @param wait    the record
 * @param handle  the descriptor
 * @param bitmap  OPL_SYNC_WAIT_* that are wanted
 *
 * @return OPL_OK                    bound
 * @return OPL_SYNC_E_NULL_ARGUMENT  wait is null
 */
OPL_API OPL_Result OPL_SyncWaitableEventNativeHandleSet(OPL_SyncWaitableEvent* wait, int32_t handle,
                                                        uint32_t bitmap);

/**
 * Tells the descriptor, and the conditions that the last wait found.
 *
 * @param wait     the record
 * @param pHandle  receives the descriptor
 * @param pBitmap  receives OPL_SYNC_WAIT_* as found, not as wanted
 *
 * @return OPL_OK                    told
 * @return OPL_SYNC_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SyncWaitableEventNativeHandleGet(OPL_SyncWaitableEvent* wait, int32_t* pHandle,
                                                        uint32_t* pBitmap);

/**
 * Clears the two reserved words.
 *
 * @param wait  the record
 *
 * @return OPL_OK                    cleared
 * @return OPL_SYNC_E_NULL_ARGUMENT  wait is null
 */
OPL_API OPL_Result OPL_SyncWaitableEventReset(OPL_SyncWaitableEvent* wait);

/**
 * Waits until one of the waitable events is ready, and tells all that are.
 *
 * @param reserved  not looked at
 * @param count     up to OPL_SYNC_WAIT_MAX
 * @param events    the records
 * @param ready     receives a flag for each: 1 ready, 0 not
 * @param pTimeout  longest wait in milliseconds, 0 only looks; null or a negative value waits without limit.
 * A signal starts it anew.
 *
 * @return OPL_OK                      at least one is ready
 * @return OPL_SYNC_E_TIMEOUT          none became ready in time
 * @return OPL_SYNC_E_TOO_MANY_EVENTS  count is above OPL_SYNC_WAIT_MAX
 * @return OPL_SYNC_E_NULL_ARGUMENT    events, one of them, or ready is null
 * @return OPL_SYNC_E_NO_CONDITION     a record wants no condition
 * @return OPL_SYNC_E_POLL             the system refused
 */
OPL_API OPL_Result OPL_SyncWaitableEventWaitForMultiple(uint32_t reserved, uint32_t count,
                                                        OPL_SyncWaitableEvent** events, uint32_t* ready,
                                                        const int32_t* pTimeout);

/** @} */

/**
 * @defgroup syncevent Named events
 *
 * An event is set from its first post until it is reset. Any process of the instance posts,
 * resets and waits. See docs/events.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/** Flags of OPL_SyncEventCreate and OPL_SyncEventOpen. One is needed; the first wins. */
enum {
  OPL_SYNC_EVENT_PRIVATE = 0x02, /**< for the instance and its user: mode 0600 */
  OPL_SYNC_EVENT_ALL = 0x04      /**< for all users and instances: mode 0666 */
};

/** A process's handle of a named event. */
typedef struct OPL_SyncEvent OPL_SyncEvent;

/**
 * Makes a named event, not set, and opens it.
 *
 * @param phEvent  receives the handle, ended with OPL_SyncEventClose
 * @param mode     0
 * @param name     up to OPL_SYNC_NAME_MAX characters
 * @param bitmap   OPL_SYNC_EVENT_*
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  phEvent or name is null
 * @return OPL_SYNC_E_BAD_NAME       the name is too long
 * @return OPL_SYNC_E_INVALID_MODE   mode is not 0
 * @return OPL_SYNC_E_NO_PERMISSION  no flag is given
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return OPL_SYNC_E_EVENT_EXISTS   there is one of that name: open it
 * @return OPL_SYNC_E_TABLE_FULL     the process has 39 events open
 * @return OPL_SYNC_E_MKFIFO, _OPEN, _WRITE, _LOCK  what the system refused
 * @return a code of OPL_SigBlock
 * @return a code of OPL_SyncMutexCreate, OPL_SyncMutexOpen or OPL_SyncMutexAcquire: the events' own mutex
 */
OPL_API OPL_Result OPL_SyncEventCreate(OPL_SyncEvent** phEvent, uint32_t mode, const char* name,
                                       uint32_t bitmap);

/**
 * Opens a named event that exists.
 *
 * @param phEvent  receives the handle, ended with OPL_SyncEventClose
 * @param mode     0
 * @param name     up to OPL_SYNC_NAME_MAX characters
 * @param bitmap   OPL_SYNC_EVENT_*, as it was made
 *
 * @return OPL_OK                          opened
 * @return OPL_SYNC_E_NULL_ARGUMENT        phEvent or name is null
 * @return OPL_SYNC_E_BAD_NAME             the name is too long
 * @return OPL_SYNC_E_INVALID_MODE         mode is not 0
 * @return OPL_SYNC_E_NO_PERMISSION        no flag is given
 * @return OPL_SYNC_E_NO_MEMORY            no memory
 * @return OPL_SYNC_E_OPEN                 there is none of that name, or the system refused
 * @return OPL_SYNC_E_TABLE_FULL           the process has 39 events open
 * @return OPL_SYNC_E_READ, _WRITE, _LOCK  what the system refused
 * @return a code of OPL_SigBlock
 * @return a code of OPL_SyncMutexCreate, OPL_SyncMutexOpen or OPL_SyncMutexAcquire: the events' own mutex
 */
OPL_API OPL_Result OPL_SyncEventOpen(OPL_SyncEvent** phEvent, uint32_t mode, const char* name,
                                     uint32_t bitmap);

/**
 * Sets an event. Each post is kept until the next reset, up to 65,536: then a post waits up to five seconds
 * for a reset and fails. The event is set all the while.
 *
 * @param hEvent  the event
 *
 * @return OPL_OK                    set
 * @return OPL_SYNC_E_NULL_ARGUMENT  hEvent is null
 * @return OPL_SYNC_E_WRITE          nobody resets the event, or the system refused
 */
OPL_API OPL_Result OPL_SyncEventPost(OPL_SyncEvent* hEvent);

/**
 * Clears an event, whatever number of posts it has.
 *
 * @param hEvent  the event
 *
 * @return OPL_OK                    cleared, or it was not set
 * @return OPL_SYNC_E_NULL_ARGUMENT  hEvent is null
 * @return OPL_SYNC_E_READ           the system refused
 */
OPL_API OPL_Result OPL_SyncEventReset(OPL_SyncEvent* hEvent);

/**
 * Tells whether an event is set, and leaves it so.
 *
 * @param pEvent  the event
 * @param pIsSet  receives 1 or 0
 *
 * @return OPL_OK                    told
 * @return OPL_SYNC_E_NULL_ARGUMENT  pEvent or pIsSet is null
 * @return OPL_SYNC_E_POLL           the system refused
 */
OPL_API OPL_Result OPL_SyncEventIsSet(OPL_SyncEvent* pEvent, uint32_t* pIsSet);

/**
 * Closes an event; the last close of all processes removes it.
 *
 * @param phEvent  the handle; null afterwards whatever the result
 *
 * @return OPL_OK                          closed
 * @return OPL_SYNC_E_NULL_ARGUMENT        phEvent or *phEvent is null
 * @return OPL_SYNC_E_OPEN, _READ, _WRITE  the event was removed, or its count could not be changed
 * @return OPL_SYNC_E_LOCK                 the lock around the events' own mutex could not be taken
 * @return a code of OPL_SigBlock
 * @return a code of OPL_SyncMutexCreate, OPL_SyncMutexOpen or OPL_SyncMutexAcquire: the events' own mutex
 */
OPL_API OPL_Result OPL_SyncEventClose(OPL_SyncEvent** phEvent);

/**
 * Makes a waitable event that is ready while the event is set.
 *
 * @param pEvent  the event, which must not be closed before the waitable event is released
 * @param ppWait  receives it, ended with OPL_SyncEventWaitableEventDestroy
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  pEvent or ppWait is null
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_SyncEventWaitableEventCreate(OPL_SyncEvent* pEvent, OPL_SyncWaitableEvent** ppWait);

/**
 * Releases a waitable event of OPL_SyncEventWaitableEventCreate and stores null.
 *
 * @param pEvent  not looked at
 * @param ppWait  the waitable event; null afterwards
 *
 * @return OPL_OK                    released, or there was none
 * @return OPL_SYNC_E_NULL_ARGUMENT  ppWait is null
 */
OPL_API OPL_Result OPL_SyncEventWaitableEventDestroy(OPL_SyncEvent* pEvent, OPL_SyncWaitableEvent** ppWait);

/** @} */

/**
 * @defgroup syncprivateevent Private events
 *
 * An event between the threads of one process, waited for together with named events and
 * sockets. Posts are counted: each reset takes one back. See docs/events.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/** Flags of OPL_SyncPrivateEventCreate. */
enum {
  OPL_SYNC_PRIVATE_EVENT_SET = 0x01 /**< the event starts set */
};

/** A private event. */
typedef struct OPL_SyncPrivateEvent OPL_SyncPrivateEvent;

/**
 * Makes a private event.
 *
 * @param phPrivateEvent  receives the event, ended with OPL_SyncPrivateEventClose; null on failure
 * @param mode            0
 * @param flags           OPL_SYNC_PRIVATE_EVENT_SET, or 0
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  phPrivateEvent is null
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return OPL_SYNC_E_INVALID_MODE   mode is not 0
 * @return a code of OPL_SocketPairCreate or OPL_SocketNonBlockingSet, and with OPL_SYNC_PRIVATE_EVENT_SET
 *         a code of OPL_SyncPrivateEventPost
 */
OPL_API OPL_Result OPL_SyncPrivateEventCreate(OPL_SyncPrivateEvent** phPrivateEvent, uint32_t mode,
                                              uint32_t flags);

/**
 * Sets an event once more, from any thread. Waits while the system has no room for another post, which is
 * after some hundred posts without a reset.
 *
 * @param hEvent  the event
 *
 * @return OPL_OK                    set
 * @return OPL_SYNC_E_NULL_ARGUMENT  hEvent is null
 * @return a code of OPL_SocketSend
 */
OPL_API OPL_Result OPL_SyncPrivateEventPost(OPL_SyncPrivateEvent* hEvent);

/**
 * Takes one post back. The event is clear when all are.
 *
 * @param hEvent  the event
 *
 * @return OPL_OK                    taken back, or it was not set
 * @return OPL_SYNC_E_NULL_ARGUMENT  hEvent is null
 * @return a code of OPL_SocketReceive
 */
OPL_API OPL_Result OPL_SyncPrivateEventReset(OPL_SyncPrivateEvent* hEvent);

/**
 * Ends an event.
 *
 * @param phPrivateEvent  the event, or a null handle; null afterwards
 *
 * @return OPL_OK                    ended
 * @return OPL_SYNC_E_NULL_ARGUMENT  phPrivateEvent is null
 */
OPL_API OPL_Result OPL_SyncPrivateEventClose(OPL_SyncPrivateEvent** phPrivateEvent);

/**
 * Makes a waitable event that is ready while the event is set.
 *
 * @param hPrivateEvent  the event, which must not be closed before the waitable event is released
 * @param ppWait         receives it, ended with OPL_SyncPrivateEventWaitableEventDestroy
 *
 * @return OPL_OK                    made
 * @return OPL_SYNC_E_NULL_ARGUMENT  hPrivateEvent or ppWait is null
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_SyncPrivateEventWaitableEventCreate(OPL_SyncPrivateEvent* hPrivateEvent,
                                                           OPL_SyncWaitableEvent** ppWait);

/**
 * Releases a waitable event of OPL_SyncPrivateEventWaitableEventCreate and stores null.
 *
 * @param hPrivateEvent  the event
 * @param ppWait         the waitable event; null afterwards
 *
 * @return OPL_OK                    released, or there was none
 * @return OPL_SYNC_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SyncPrivateEventWaitableEventDestroy(OPL_SyncPrivateEvent* hPrivateEvent,
                                                            OPL_SyncWaitableEvent** ppWait);

/** @} */

/**
 * @defgroup synclockfile Lock files and file mutexes
 *
 * A lock file belongs to a process: other processes wait for it, its own threads do not exclude
 * each other. The system drops the lock of a dead process. A child does not own what it inherited. See
 * docs/lock-files.md.
 *
 * @callable after OPL_InitBegin, by one thread at a time for a record, not in a signal handler
 * @{
 */

/** A lock file that this process has made or waited for. */
typedef struct OPL_SyncLockFile OPL_SyncLockFile;

/**
 * Makes a lock file and holds it; waits while another process holds it. A file whose owner is gone is
 * replaced. Looking at a file that is there takes a second.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param ppLockFile  receives the record, ended with OPL_SyncLockFileDestroy; null on failure
 * @param name        becomes part of the file's name
 *
 * @return OPL_OK                    held
 * @return OPL_SYNC_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SYNC_E_NO_MEMORY      no memory
 * @return OPL_SYNC_E_OPEN, _UNLINK, _CHMOD, _LSEEK, _FCNTL  what the system refused
 */
OPL_API OPL_Result OPL_SyncLockFileCreate(OPL_SyncLockFile** ppLockFile, const char* name);

/**
 * Gives the lock back if it is held, and releases the record. The process that made the record removes the
 * file, unless another process holds it by now.
 *
 * @param ppLockFile  the record; null afterwards, unless the lock could not be given back
 *
 * @return OPL_OK                    done; the record is null
 * @return OPL_SYNC_E_NULL_ARGUMENT  ppLockFile or *ppLockFile is null
 * @return a code of OPL_SyncLockFileRelease when the lock could not be given back; the record stays
 */
OPL_API OPL_Result OPL_SyncLockFileDestroy(OPL_SyncLockFile** ppLockFile);

/**
 * Takes the lock again after a release, and waits for it. Nothing happens otherwise, or in another process
 * than the owner.
 *
 * @param hLockFile  the lock file
 *
 * @return OPL_OK                    taken, or there was nothing to do
 * @return OPL_SYNC_E_NULL_ARGUMENT  hLockFile is null
 * @return OPL_SYNC_E_OPEN, _CHMOD, _LSEEK, _FCNTL  what the system refused
 */
OPL_API OPL_Result OPL_SyncLockFileAcquire(OPL_SyncLockFile* hLockFile);

/**
 * Gives the lock back; the file stays open. Nothing happens when it is not held, or in another process than
 * the owner.
 *
 * @param hLockFile  the lock file
 *
 * @return OPL_OK                    given back, or there was nothing to do
 * @return OPL_SYNC_E_NULL_ARGUMENT  hLockFile is null
 * @return OPL_SYNC_E_LSEEK, _FCNTL  what the system refused
 */
OPL_API OPL_Result OPL_SyncLockFileRelease(OPL_SyncLockFile* hLockFile);

/**
 * Tells whether a lock is free, and leaves it so. Takes a second, and up to 31 while there is no such file.
 * Not for the process that holds the lock: it would lose it.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param pFree  receives 1 or 0
 * @param name   as it was made
 *
 * @return OPL_OK                           told
 * @return OPL_SYNC_E_NULL_ARGUMENT         an argument is null
 * @return OPL_SYNC_E_LOCKFILE_MISSING      there is no such file, or it went away
 * @return OPL_SYNC_E_OPEN, _LSEEK, _FCNTL  what the system refused
 */
OPL_API OPL_Result OPL_SyncLockFileTryAcquire(uint32_t* pFree, const char* name);

/**
 * Waits until a lock is free, and up to 31 seconds for its file. Takes two seconds at least. Not for the
 * process that holds the lock: it would lose it.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param name  as it was made
 *
 * @return OPL_OK                           it is free
 * @return OPL_SYNC_E_NULL_ARGUMENT         name is null
 * @return OPL_SYNC_E_LOCKFILE_MISSING      there is no such file, or it went away
 * @return OPL_SYNC_E_OPEN, _LSEEK, _FCNTL  what the system refused
 */
OPL_API OPL_Result OPL_SyncLockFileWaitFor(const char* name);

/**
 * Waits for each of several locks in turn, up to the first failure.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param names  ended by null
 *
 * @return OPL_OK                    all were free
 * @return OPL_SYNC_E_NULL_ARGUMENT  names is null
 * @return a code of OPL_SyncLockFileWaitFor, the first failure's
 */
OPL_API OPL_Result OPL_SyncLockFileWaitForMultiple(const char* const* names);

/** An attempt at a file mutex. */
typedef struct OPL_SyncMutexFile OPL_SyncMutexFile;

/**
 * Tries to take a file mutex: a name, on any file system, that one thread of all processes makes at a time.
 * Does not wait. A holder that dies leaves the name behind.
 *
 * @param ppMutexFile  receives the record. On failure it stays set and allocated, and must not be released
 * with OPL_SyncMutexFileRelease: that would take the name from its holder.
 * @param path         the name
 *
 * @return OPL_OK                     taken: call OPL_SyncMutexFileRelease
 * @return OPL_SYNC_E_MUTEXFILE_HELD  somebody else has it
 * @return OPL_SYNC_E_NULL_ARGUMENT   an argument is null
 * @return OPL_SYNC_E_NO_MEMORY       no memory
 * @return OPL_SYNC_E_OPEN, _STAT, _UNLINK  what the system refused
 */
OPL_API OPL_Result OPL_SyncMutexFileAcquire(OPL_SyncMutexFile** ppMutexFile, const char* path);

/**
 * Gives a file mutex back and releases the record.
 *
 * @param ppMutexFile  the record; null afterwards
 *
 * @return OPL_OK                    given back
 * @return OPL_SYNC_E_NULL_ARGUMENT  ppMutexFile or *ppMutexFile is null
 * @return OPL_SYNC_E_UNLINK         the name could not be removed; the record is released
 */
OPL_API OPL_Result OPL_SyncMutexFileRelease(OPL_SyncMutexFile** ppMutexFile);

/** @} */

/**
 * @defgroup syncregistered Registered sets and queues
 *
 * Registration of System V semaphore sets and message queues that a program makes itself:
 * OPL_InitTerminateIPC removes those that are registered. See docs/lock-files.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/**
 * Registers a semaphore set.
 *
 * @param reserved  not looked at
 * @param prefix    how the control file's name begins
 * @param semId     the set
 *
 * @return OPL_OK                    registered
 * @return OPL_SYNC_E_NULL_ARGUMENT  prefix is null
 * @return OPL_SYNC_E_REGISTERED     it is registered under that prefix already
 * @return OPL_SYNC_E_REGISTER       the control file could not be made
 */
OPL_API OPL_Result OPL_SyncSemNativeRegisterIPC(uint32_t reserved, const char* prefix, uint32_t semId);

/**
 * Takes a registration back. The set stays.
 *
 * @param reserved  not looked at
 * @param prefix    as it was registered
 * @param semId     the set
 *
 * @return OPL_OK                     taken back
 * @return OPL_SYNC_E_NULL_ARGUMENT   prefix is null
 * @return OPL_SYNC_E_NOT_REGISTERED  it is not registered under that prefix
 * @return OPL_SYNC_E_DEREGISTER      the control file could not be removed
 */
OPL_API OPL_Result OPL_SyncSemNativeDeRegisterIPC(uint32_t reserved, const char* prefix, uint32_t semId);

/**
 * Registers a message queue.
 *
 * @param reserved  not looked at
 * @param prefix    how the control file's name begins
 * @param msgqId    the queue
 *
 * @return OPL_OK                    registered
 * @return OPL_SYNC_E_NULL_ARGUMENT  prefix is null
 * @return OPL_MSGQ_E_REGISTERED     it is registered under that prefix already
 * @return OPL_MSGQ_E_REGISTER       the control file could not be made
 */
OPL_API OPL_Result OPL_MsgqNativeRegisterIPC(uint32_t reserved, const char* prefix, uint32_t msgqId);

/**
 * Takes a registration back. The queue stays.
 *
 * @param reserved  not looked at
 * @param prefix    as it was registered
 * @param msgqId    the queue
 *
 * @return OPL_OK                     taken back
 * @return OPL_SYNC_E_NULL_ARGUMENT   prefix is null
 * @return OPL_MSGQ_E_NOT_REGISTERED  it is not registered under that prefix
 * @return OPL_MSGQ_E_DEREGISTER      the control file could not be removed
 */
OPL_API OPL_Result OPL_MsgqNativeDeRegisterIPC(uint32_t reserved, const char* prefix, uint32_t msgqId);

/**
 * Removes the registered message queues of the instance whose control files match a pattern, and the files.
 * Called by OPL_InitTerminateIPC.
 *
 * @param reserved  not looked at
 * @param pattern   as the shell matches names, relative to the IPC directory
 *
 * @return OPL_OK                 removed, or there was none
 * @return OPL_MSGQ_E_DEREGISTER  a queue could not be removed, as one that is gone already
 * @return a code of OPL_FileNameFind
 */
OPL_API OPL_Result OPL_MsgqNativeTerminateIPC(uint32_t reserved, const char* pattern);

/** @} */

/**
 * @defgroup synclife Life cycle of the module
 *
 * The life cycle of all synchronisation objects in a process, driven by OPL_InitBegin and OPL_InitEnd.
 * Programs do not need it.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/**
 * Prepares the module.
 *
 * @callable at any time, by any thread, not in a signal handler
 *
 * @param flag  not looked at
 *
 * @return OPL_OK                prepared
 * @return OPL_PROCESS_E_ATFORK  forks cannot be watched
 */
OPL_API OPL_Result OPL_SyncProcessInit(uint32_t flag);

/**
 * Closes what the process has left open: read-write locks, then events, then mutexes.
 *
 * @callable at any time, by one thread that is the last to use the module, not in a signal handler
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
 * @return a code of OPL_FileNameFind or OPL_PrivateSemIdDestroy, the first failure's; all kinds are gone
 * through all the same
 */
OPL_API OPL_Result OPL_SyncTerminateIPC(uint32_t reserved, const char* pattern);

/** @} */

/** @} */

OPL_END_DECLS

#endif
