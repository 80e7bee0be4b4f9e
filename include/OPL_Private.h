/**
 * @defgroup private Ground of named objects
 *
 * The ground under named objects: IPC object files, which record where an object's System V set or segment
 * is, use counts, and the management lock of an instance. Products use the named objects of the other
 * headers; these functions are for what is built beside them.
 *
 * An IPC object file holds 4 bytes, the System V id in the machine's byte order. It appears under its name
 * only when it is whole. Its access and modification times are set to the year 2036, so that jobs that delete
 * old files leave it alone.
 *
 * See docs/ipc-files.md and docs/recovery.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_PRIVATE_H
#define OPL_PRIVATE_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_PRIVATE_E_OPEN = 0x051203,          /**< the object file could not be opened or created */
  OPL_PRIVATE_E_WRITE = 0x051204,         /**< the id could not be written whole */
  OPL_PRIVATE_E_READ = 0x051205,          /**< the id could not be read whole */
  OPL_PRIVATE_E_CLOSE = 0x051206,         /**< the object file could not be closed */
  OPL_PRIVATE_E_FCHMOD = 0x051207,        /**< the object file's permissions could not be set */
  OPL_PRIVATE_E_SHMEM_EXISTS = 0x051208,  /**< the shared memory's object file exists */
  OPL_PRIVATE_E_SHMEM_MISSING = 0x051209, /**< the shared memory's object file or segment does not exist */
  OPL_PRIVATE_E_SEM_EXISTS = 0x05120A,    /**< the semaphore set's object file exists */
  OPL_PRIVATE_E_SEM_MISSING = 0x05120B,   /**< the semaphore set's object file or set does not exist */
  OPL_PRIVATE_E_SHMGET = 0x05120C,        /**< no segment could be made */
  OPL_PRIVATE_E_SHM_REMOVE = 0x05120D,    /**< the segment could not be removed */
  OPL_PRIVATE_E_SHM_DETACH = 0x05120E,    /**< the segment could not be detached */
  OPL_PRIVATE_E_SHM_ATTACH = 0x05120F,    /**< the segment could not be attached */
  OPL_PRIVATE_E_SEMGET = 0x051210,        /**< no set could be made */
  OPL_PRIVATE_E_SEMCTL = 0x051211,        /**< the set's values could not be set, or the set not removed */
  OPL_PRIVATE_E_SEMOP = 0x051212,         /**< a semaphore operation failed */
  OPL_PRIVATE_E_MGMT_STAT = 0x051214,     /**< the management lock's temporary file could not be looked at */
  OPL_PRIVATE_E_MGMT_LINK = 0x051215,     /**< the management file could not be linked */
  OPL_PRIVATE_E_IN_USE = 0x051216,        /**< others still use the object */
  OPL_PRIVATE_E_MGMT_EXISTS = 0x051217,   /**< another process made the management lock first */
  OPL_PRIVATE_E_MGMT_MISSING = 0x051218,  /**< no management lock: not held by this process, or removed */
  OPL_PRIVATE_E_MGMT_HELD = 0x051219,     /**< this process holds a management lock already */
  OPL_PRIVATE_E_MGMT_UNAVAILABLE =
      0x05121A /**< the management lock is being removed, or others still use it */
};

/** Limits. */
enum {
  OPL_PRIVATE_USE_COUNT_LIMIT = 32000 /**< a use count's value without users */
};

/**
 * Makes a set of semaphores and its object file.
 *
 * @param file      absolute path of the object file, which must not exist
 * @param fileMode  the file's permissions, whatever the process's file-creation mask
 * @param semMode   the set's permissions
 * @param count     semaphores in the set
 * @param values    their initial values, count of them
 * @param id        receives the set's id; -1 on failure
 *
 * @return OPL_OK                    made
 * @return OPL_PRIVATE_E_SEM_EXISTS  the file exists; it and its set stay as they are
 * @return OPL_PRIVATE_E_OPEN, _FCHMOD, _SEMGET, _SEMCTL, _WRITE, _CLOSE  the step that the system refused;
 *                                   nothing is left behind
 */
OPL_API OPL_Result OPL_PrivateSemIdCreate(const char* file, uint32_t fileMode, uint32_t semMode,
                                          uint32_t count, const uint16_t* values, int32_t* id);

/**
 * Finds a set through its object file. A file whose set is gone is removed.
 *
 * @param file  absolute path of the object file
 * @param id    receives the set's id
 *
 * @return OPL_OK                     found
 * @return OPL_PRIVATE_E_SEM_MISSING  there is no such file, or its set is gone
 * @return OPL_PRIVATE_E_OPEN         the file cannot be opened; a symbolic link is not followed
 * @return OPL_PRIVATE_E_READ         the file does not hold an id
 * @return OPL_PRIVATE_E_CLOSE        the system refused
 */
OPL_API OPL_Result OPL_PrivateSemIdGet(const char* file, int32_t* id);

/**
 * Removes a set and its object file. A set that is gone already is no failure. A set whose owner differs from
 * the file's owner is not removed: the file does not speak for it.
 *
 * @param file  absolute path of the object file
 *
 * @return OPL_OK                             removed
 * @return OPL_PRIVATE_E_SEM_MISSING          there is no such file
 * @return OPL_PRIVATE_E_OPEN, _READ, _CLOSE  the step that the system refused
 * @return OPL_PRIVATE_E_SEMCTL               the set could not be removed, or is another owner's
 */
OPL_API OPL_Result OPL_PrivateSemIdDestroy(const char* file);

/**
 * Makes a segment of shared memory and its object file, and attaches the segment.
 *
 * @param file      absolute path of the object file, which must not exist
 * @param fileMode  the file's permissions
 * @param size      bytes
 * @param shmMode   the segment's permissions
 * @param address   receives where the segment is attached
 *
 * @return OPL_OK                      made
 * @return OPL_PRIVATE_E_SHMEM_EXISTS  the file exists; it and its segment stay as they are
 * @return OPL_PRIVATE_E_OPEN, _FCHMOD, _SHMGET, _WRITE, _SHM_ATTACH, _CLOSE  the step that the system
 * refused; nothing is left behind
 */
OPL_API OPL_Result OPL_PrivateShMemCreate(const char* file, uint32_t fileMode, uint32_t size,
                                          uint32_t shmMode, void** address);

/**
 * Attaches a segment found through its object file. A file whose segment is gone is removed.
 *
 * @param file     absolute path of the object file
 * @param address  receives where the segment is attached
 *
 * @return OPL_OK                       attached
 * @return OPL_PRIVATE_E_SHMEM_MISSING  there is no such file, or its segment is gone
 * @return OPL_PRIVATE_E_OPEN, _READ, _SHM_ATTACH, _CLOSE  the step that the system refused
 */
OPL_API OPL_Result OPL_PrivateShMemOpen(const char* file, void** address);

/**
 * Detaches a segment, and removes it with its object file when asked.
 *
 * @param file     absolute path of the object file
 * @param address  where it is attached; null only removes
 * @param remove   not 0: remove the segment and the file too; the segment only when its owner is the file's
 *
 * @return OPL_OK                       done
 * @return OPL_PRIVATE_E_SHMEM_MISSING  there is no such file
 * @return OPL_PRIVATE_E_OPEN, _READ, _SHM_DETACH, _CLOSE, _SHM_REMOVE  the step that the system refused
 */
OPL_API OPL_Result OPL_PrivateShMemClose(const char* file, void* address, uint32_t remove);

/** @} */

/**
 * @defgroup privateuse Use counts
 * @ingroup private
 *
 * A use count is a semaphore that starts at OPL_PRIVATE_USE_COUNT_LIMIT and loses one for each user. The
 * system gives the count of a dead process back.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */

/**
 * Takes one of a use count, and waits while the count is exhausted.
 *
 * @param id     the set
 * @param index  its semaphore that is the use count
 *
 * @return OPL_OK                     taken
 * @return OPL_PRIVATE_E_SEM_MISSING  the set is gone; also when the only process that had exclusive use died
 *                                    before it removed the set, which this function then does in its place;
 *                                    where it may not remove the set, it makes it usable again and succeeds
 * @return OPL_PRIVATE_E_SEMOP        the system refused
 */
OPL_API OPL_Result OPL_PrivateUseCountAccess(int32_t id, uint32_t index);

/**
 * Gives one of a use count back.
 *
 * @param id     the set
 * @param index  its semaphore that is the use count
 *
 * @return OPL_OK                     given back
 * @return OPL_PRIVATE_E_SEM_MISSING  the set is gone
 * @return OPL_PRIVATE_E_SEMOP        the system refused
 */
OPL_API OPL_Result OPL_PrivateUseCountRelease(int32_t id, uint32_t index);

/**
 * Takes all of a use count at once, if nobody has any. Does not wait.
 *
 * @param id     the set
 * @param index  its semaphore that is the use count
 *
 * @return OPL_OK                     taken
 * @return OPL_PRIVATE_E_IN_USE       others have some; nothing is taken and no message left
 * @return OPL_PRIVATE_E_SEM_MISSING  the set is gone
 * @return OPL_PRIVATE_E_SEMOP        the system refused
 */
OPL_API OPL_Result OPL_PrivateUseCountExclusive(int32_t id, uint32_t index);

/**
 * Moves a file's access and modification times into the year 2036; month, day and time of day stay. A file
 * that cannot be changed is left as it is. Works at any time.
 *
 * @param file  the file; null does nothing
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_PrivateSetAccessTimeInFuture(const char* file);

/** @} */

/**
 * @defgroup privatemgmt Management lock
 * @ingroup private
 *
 * One set of semaphores for an instance, with the count of the processes that use the library and a lock for
 * each kind of named object. OPL_InitBegin and OPL_InitEnd drive it. See docs/lock-order.md.
 *
 * Every function but OPL_PrivateMgmtLockCreate and OPL_PrivateMgmtLockOpen refuses with
 * OPL_PRIVATE_E_MGMT_MISSING in a process that holds no set.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */

/**
 * Makes the set and its management file; this process then holds it.
 *
 * @return OPL_OK                     made
 * @return OPL_PRIVATE_E_MGMT_HELD    this process holds a set already
 * @return OPL_PRIVATE_E_MGMT_EXISTS  another process made the set first
 * @return OPL_PRIVATE_E_MGMT_LINK, OPL_PRIVATE_E_MGMT_STAT, or a code of OPL_PrivateSemIdCreate
 */
OPL_API OPL_Result OPL_PrivateMgmtLockCreate(void);

/**
 * Finds the set through its management file; this process then holds it.
 *
 * @return OPL_OK                      found
 * @return OPL_PRIVATE_E_MGMT_MISSING  there is none
 * @return OPL_PRIVATE_E_MGMT_HELD     this process holds a set already; it lets go of it, and the set is
 * removed unless other processes use it
 * @return a code of OPL_PrivateSemIdGet
 */
OPL_API OPL_Result OPL_PrivateMgmtLockOpen(void);

/**
 * Forgets the set without touching it.
 *
 * @param mode  not looked at
 *
 * @return OPL_OK                      forgotten
 * @return OPL_PRIVATE_E_MGMT_MISSING  this process holds none
 */
OPL_API OPL_Result OPL_PrivateMgmtLockClose(uint32_t mode);

/**
 * Removes the set that this process holds, and the management file as long as it names that set.
 *
 * @return OPL_OK                      removed
 * @return OPL_PRIVATE_E_MGMT_MISSING  this process holds none, or the management file is gone
 * @return a code of OPL_PrivateSemIdDestroy
 */
OPL_API OPL_Result OPL_PrivateMgmtLockDestroy(void);

/**
 * Takes one of the count of processes. Does not wait.
 *
 * @return OPL_OK                          taken
 * @return OPL_PRIVATE_E_MGMT_UNAVAILABLE  the set is being removed
 * @return OPL_PRIVATE_E_MGMT_MISSING      this process holds no set, or the set is gone
 * @return OPL_PRIVATE_E_SEMOP             the system refused
 */
OPL_API OPL_Result OPL_PrivateMgmtLockQVOPLAccess(void);

/**
 * Gives one of the count of processes back. What this process has not taken is not given back.
 *
 * @return OPL_OK                      given back, or there was nothing to give back
 * @return OPL_PRIVATE_E_MGMT_MISSING  this process holds no set, or the set is gone
 * @return OPL_PRIVATE_E_SEMOP         the system refused
 */
OPL_API OPL_Result OPL_PrivateMgmtLockQVOPLRelease(void);

/**
 * Takes all of the count of processes, if nobody has any; from then on OPL_PrivateMgmtLockQVOPLAccess is
 * refused until the set is removed. Does not wait.
 *
 * @return OPL_OK                          taken
 * @return OPL_PRIVATE_E_MGMT_UNAVAILABLE  others still use the set
 * @return OPL_PRIVATE_E_MGMT_MISSING      this process holds no set, or the set is gone
 * @return OPL_PRIVATE_E_SEMOP             the system refused
 */
OPL_API OPL_Result OPL_PrivateMgmtLockQVOPLExclusive(void);

/**
 * Takes the lock around the creation, opening and closing of shared memory, and waits for it as long as
 * needed. It is not recursive: a process that takes it twice waits for ever. A dead holder's is given back.
 *
 * @return OPL_OK                      taken
 * @return OPL_PRIVATE_E_MGMT_MISSING  this process holds no set, or the set is gone
 * @return OPL_PRIVATE_E_SEMOP         the system refused
 */
OPL_API OPL_Result OPL_PrivateMgmtLockSharedMemLock(void);

/**
 * Gives the lock of OPL_PrivateMgmtLockSharedMemLock back.
 *
 * @return OPL_OK                      given back
 * @return OPL_PRIVATE_E_MGMT_MISSING  this process holds no set, or the set is gone
 * @return OPL_PRIVATE_E_SEMOP         the system refused
 */
OPL_API OPL_Result OPL_PrivateMgmtLockSharedMemUnlock(void);

/**
 * Takes the lock around the creation, opening and closing of read-write locks, as
 * OPL_PrivateMgmtLockSharedMemLock does that of shared memory.
 *
 * @return as OPL_PrivateMgmtLockSharedMemLock
 */
OPL_API OPL_Result OPL_PrivateMgmtLockRWLockLock(void);

/**
 * Gives the lock of OPL_PrivateMgmtLockRWLockLock back.
 *
 * @return as OPL_PrivateMgmtLockSharedMemUnlock
 */
OPL_API OPL_Result OPL_PrivateMgmtLockRWLockUnlock(void);

/**
 * Takes the lock around the creation, opening and closing of named mutexes, as
 * OPL_PrivateMgmtLockSharedMemLock does that of shared memory.
 *
 * @return as OPL_PrivateMgmtLockSharedMemLock
 */
OPL_API OPL_Result OPL_PrivateMgmtLockSyncMutexLock(void);

/**
 * Gives the lock of OPL_PrivateMgmtLockSyncMutexLock back.
 *
 * @return as OPL_PrivateMgmtLockSharedMemUnlock
 */
OPL_API OPL_Result OPL_PrivateMgmtLockSyncMutexUnlock(void);

/** @} */

OPL_END_DECLS

#endif
