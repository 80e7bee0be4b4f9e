/**
 * @defgroup sharedmem Shared memory
 *
 * Named shared memory, alone and with a read-write lock.
 *
 * Any process of the instance opens a block by its name and sees the same bytes, in either width: keep to
 * types of fixed width and no pointers in it. The last close of all processes removes a block. A block counts
 * its handles itself: a process that is killed leaves its share in the count, and only OPL_InitTerminateIPC
 * removes the block then. See docs/shared-memory.md and docs/mixed-widths.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_SHAREDMEM_H
#define OPL_SHAREDMEM_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_SHAREDMEM_E_MISSING = 0x050101,       /**< there is no locked shared memory of that name */
  OPL_SHAREDMEM_E_BAD_NAME = 0x050102,      /**< the name is longer than OPL_SHAREDMEM_NAME_MAX, or null */
  OPL_SHAREDMEM_E_NO_MEMORY = 0x050103,     /**< no memory for the handle */
  OPL_SHAREDMEM_E_EXISTS = 0x05010A,        /**< there is a locked shared memory of that name */
  OPL_SHAREDMEM_E_OPENED = 0x050110,        /**< this process has the block open already */
  OPL_SHAREDMEM_E_TABLE_FULL = 0x050111,    /**< the process has 20 blocks open */
  OPL_SHAREDMEM_E_NO_PERMISSION = 0x050117, /**< no permission flag is given */
  OPL_SHAREDMEM_E_INVALID_MODE = 0x05011C,  /**< mode is not 0 */
  OPL_SHAREDMEM_E_BAD_ACCESS = 0x05011F,    /**< neither shared nor exclusive */
  OPL_SHAREDMEM_E_NO_NAME = 0x050120        /**< the name of a locked shared memory is null */
};

/** Limits. */
enum {
  OPL_SHAREDMEM_NAME_MAX = 11 /**< characters of a name, without the terminator */
};

/**
 * Flags of OPL_SharedMemCreate and OPL_SharedMemOpen, and of the locked functions, which have their own for
 * what comes on top. One of the first two is needed; the first wins.
 */
enum {
  OPL_SHAREDMEM_PRIVATE = 0x08,        /**< for the instance and its user: mode 0600 */
  OPL_SHAREDMEM_ALL = 0x10,            /**< for all users and instances: mode 0666 */
  OPL_SHAREDMEM_ZERO = 0x20,           /**< not locked: a new block is filled with zeros */
  OPL_SHAREDMEM_LOCKED_RESTART = 0x80, /**< locked: a signal does not end a wait for the lock */
  OPL_SHAREDMEM_LOCKED_ZERO = 0x100    /**< locked: a new block is filled with zeros */
};

/** How OPL_SharedMemLockedGet takes the block. */
enum {
  OPL_SHAREDMEM_SHARED = 1,   /**< for reading, with other readers */
  OPL_SHAREDMEM_EXCLUSIVE = 2 /**< for writing, alone */
};

/** A process's handle of a block. */
typedef struct OPL_SharedMem OPL_SharedMem;

/** A process's handle of a block and its lock. */
typedef struct OPL_SharedMemLocked OPL_SharedMemLocked;

/**
 * Makes a block and attaches it.
 *
 * @param phSharedMem  receives the handle, ended with OPL_SharedMemClose; null on failure
 * @param mode         0
 * @param name         up to OPL_SHAREDMEM_NAME_MAX characters
 * @param pAddress     receives the address of the caller's memory, aligned to 8 bytes; may be null
 * @param size         bytes, up to 4 GB - 9
 * @param permission   OPL_SHAREDMEM_*
 *
 * @return OPL_OK                         made
 * @return OPL_SHAREDMEM_E_BAD_NAME       phSharedMem or name is null, or the name is too long
 * @return OPL_SHAREDMEM_E_INVALID_MODE   mode is not 0
 * @return OPL_SHAREDMEM_E_NO_PERMISSION  neither OPL_SHAREDMEM_PRIVATE nor OPL_SHAREDMEM_ALL is given
 * @return OPL_SHAREDMEM_E_NO_MEMORY      no memory for the handle
 * @return OPL_SHAREDMEM_E_TABLE_FULL     the process has 20 blocks open
 * @return OPL_SYNC_E_LOCK                the lock of the process's table could not be taken
 * @return OPL_PRIVATE_E_SHMEM_EXISTS     there is one of that name: open it
 * @return OPL_PRIVATE_E_SHMGET           the system refused the size
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockSharedMemLock or OPL_PrivateShMemCreate for what else it
 *         refused
 */
OPL_API OPL_Result OPL_SharedMemCreate(OPL_SharedMem** phSharedMem, uint32_t mode, const char* name,
                                       void** pAddress, uint32_t size, uint32_t permission);

/**
 * Attaches a block that exists.
 *
 * @param phSharedMem  receives the handle, ended with OPL_SharedMemClose; null on failure
 * @param mode         0
 * @param name         up to OPL_SHAREDMEM_NAME_MAX characters
 * @param pAddress     receives the address of the caller's memory, aligned to 8 bytes; may be null
 * @param permission   OPL_SHAREDMEM_*, as it was made
 *
 * @return OPL_OK                         opened
 * @return OPL_SHAREDMEM_E_BAD_NAME       phSharedMem or name is null, or the name is too long
 * @return OPL_SHAREDMEM_E_INVALID_MODE   mode is not 0
 * @return OPL_SHAREDMEM_E_NO_PERMISSION  neither OPL_SHAREDMEM_PRIVATE nor OPL_SHAREDMEM_ALL is given
 * @return OPL_SHAREDMEM_E_NO_MEMORY      no memory for the handle
 * @return OPL_SHAREDMEM_E_OPENED         this process has a block of that name open already
 * @return OPL_SHAREDMEM_E_TABLE_FULL     the process has 20 blocks open
 * @return OPL_SYNC_E_LOCK                the lock of the process's table could not be taken
 * @return OPL_PRIVATE_E_SHMEM_MISSING    there is none of that name
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockSharedMemLock or OPL_PrivateShMemOpen for what else the
 *         system refused
 */
OPL_API OPL_Result OPL_SharedMemOpen(OPL_SharedMem** phSharedMem, uint32_t mode, const char* name,
                                     void** pAddress, uint32_t permission);

/**
 * Detaches a block; the last close of all processes removes it. Its memory must not be used any more.
 *
 * @param phSharedMem  the handle; null afterwards whatever the result
 *
 * @return OPL_OK                     closed
 * @return OPL_SHAREDMEM_E_BAD_NAME   phSharedMem or *phSharedMem is null
 * @return OPL_PRIVATE_E_SHMEM_MISSING  the block was removed; it is detached all the same
 * @return OPL_SYNC_E_LOCK            the lock of the process's table could not be taken
 * @return a code of OPL_SigBlock, OPL_PrivateMgmtLockSharedMemLock or OPL_PrivateShMemClose for what the
 * system refused
 */
OPL_API OPL_Result OPL_SharedMemClose(OPL_SharedMem** phSharedMem);

/**
 * Prepares the module. Called by OPL_InitBegin.
 *
 * @callable at any time, by any thread, not in a signal handler
 *
 * @param flag  not looked at
 *
 * @return OPL_OK                prepared
 * @return OPL_PROCESS_E_ATFORK  forks cannot be watched
 */
OPL_API OPL_Result OPL_SharedMemProcessInit(uint32_t flag);

/**
 * Closes the blocks that the process has left open. Called by the last OPL_InitEnd.
 *
 * @callable at any time, by one thread that is the last to use the module, not in a signal handler
 *
 * @param mode  0 closes; 1 only detaches, for a forked child
 *
 * @return OPL_OK  closed
 * @return a code of OPL_SharedMemClose, the first failure's; all blocks are gone through all the same
 */
OPL_API OPL_Result OPL_SharedMemProcessCleanup(int32_t mode);

/**
 * Removes the instance's blocks whose files match a pattern. Called by OPL_InitTerminateIPC.
 *
 * @param flag     not looked at
 * @param pattern  as the shell matches names, relative to the IPC directory
 *
 * @return OPL_OK  removed, or there was none
 * @return a code of OPL_FileNameFind or OPL_PrivateShMemClose, the first failure's; all are gone through all
 *         the same
 */
OPL_API OPL_Result OPL_SharedMemTerminateIPC(uint32_t flag, const char* pattern);

/** @} */

/**
 * @defgroup sharedmemlocked Locked shared memory
 * @ingroup sharedmem
 *
 * A block and a read-write lock of the same name: whoever uses the memory has the lock.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/**
 * Makes a block with a read-write lock of the same name.
 *
 * @param phLocked    receives the handle, ended with OPL_SharedMemLockedClose; null on failure
 * @param mode        0
 * @param name        up to OPL_SHAREDMEM_NAME_MAX characters
 * @param size        bytes, up to 4 GB - 9
 * @param permission  OPL_SHAREDMEM_PRIVATE or OPL_SHAREDMEM_ALL, and OPL_SHAREDMEM_LOCKED_*
 *
 * @return OPL_OK                         made
 * @return OPL_SHAREDMEM_E_NO_NAME        phLocked or name is null
 * @return OPL_SHAREDMEM_E_NO_PERMISSION  neither OPL_SHAREDMEM_PRIVATE nor OPL_SHAREDMEM_ALL is given
 * @return OPL_SHAREDMEM_E_INVALID_MODE   mode is not 0
 * @return OPL_SHAREDMEM_E_BAD_NAME       the name is too long
 * @return OPL_SHAREDMEM_E_NO_MEMORY      no memory
 * @return OPL_SHAREDMEM_E_EXISTS         there is a lock of that name
 * @return OPL_PRIVATE_E_SHMEM_EXISTS     there is no such lock, but a block of that name
 * @return a code of OPL_SyncRWLockCreate or OPL_SharedMemCreate
 */
OPL_API OPL_Result OPL_SharedMemLockedCreate(OPL_SharedMemLocked** phLocked, uint32_t mode, const char* name,
                                             uint32_t size, uint32_t permission);

/**
 * Opens a block and its read-write lock, which both exist.
 *
 * @param phLocked    receives the handle, ended with OPL_SharedMemLockedClose; null on failure
 * @param mode        0
 * @param name        up to OPL_SHAREDMEM_NAME_MAX characters
 * @param permission  OPL_SHAREDMEM_PRIVATE or OPL_SHAREDMEM_ALL, as it was made, and OPL_SHAREDMEM_LOCKED_*
 *
 * @return OPL_OK                         opened
 * @return OPL_SHAREDMEM_E_NO_NAME        phLocked or name is null
 * @return OPL_SHAREDMEM_E_NO_PERMISSION  neither OPL_SHAREDMEM_PRIVATE nor OPL_SHAREDMEM_ALL is given
 * @return OPL_SHAREDMEM_E_INVALID_MODE   mode is not 0
 * @return OPL_SHAREDMEM_E_BAD_NAME       the name is too long
 * @return OPL_SHAREDMEM_E_NO_MEMORY      no memory
 * @return OPL_SHAREDMEM_E_MISSING        there is no lock of that name
 * @return OPL_PRIVATE_E_SHMEM_MISSING    there is a lock of that name, but no block
 * @return a code of OPL_SyncRWLockOpen or OPL_SharedMemOpen
 */
OPL_API OPL_Result OPL_SharedMemLockedOpen(OPL_SharedMemLocked** phLocked, uint32_t mode, const char* name,
                                           uint32_t permission);

/**
 * Takes the lock and gives the block's address.
 *
 * @param hLocked   a block and its lock
 * @param flag      OPL_SHAREDMEM_SHARED or OPL_SHAREDMEM_EXCLUSIVE
 * @param pAddress  receives the address, on success only
 *
 * @return OPL_OK                      taken: call OPL_SharedMemLockedRelease
 * @return OPL_SHAREDMEM_E_BAD_ACCESS  another flag
 * @return OPL_SHAREDMEM_E_NO_NAME     hLocked or pAddress is null
 * @return a code of OPL_SyncRWLockLock
 */
OPL_API OPL_Result OPL_SharedMemLockedGet(OPL_SharedMemLocked* hLocked, uint32_t flag, void** pAddress);

/**
 * Gives the lock back. The address must not be used until it is taken again.
 *
 * @param hLocked  a block and its lock
 *
 * @return as OPL_SyncRWLockUnlock
 */
OPL_API OPL_Result OPL_SharedMemLockedRelease(OPL_SharedMemLocked* hLocked);

/**
 * Closes a block and its lock.
 *
 * @param phLocked  the handle; null afterwards whatever the result
 *
 * @return OPL_SHAREDMEM_E_NO_NAME  phLocked or *phLocked is null
 * @return OPL_OK, or a code of OPL_SharedMemClose
 */
OPL_API OPL_Result OPL_SharedMemLockedClose(OPL_SharedMemLocked** phLocked);

/** @} */

OPL_END_DECLS

#endif
