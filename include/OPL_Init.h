/**
 * @defgroup init Begin and end
 *
 * Beginning and ending the library, the IPC directory, the instance, and the diagnostic log.
 *
 * A process calls OPL_InitBegin before other functions and OPL_InitEnd when it is done. Both nest: modules of
 * a program may each begin and end. The last end tears the library down for good; a process that ended it
 * must not begin it again. What a process has not ended is torn down at its exit.
 *
 * A forked child either begins the library anew (its first OPL_InitBegin forgets what it inherited and leaves
 * the parent's objects alone) or takes over what it inherited with OPL_InitSetCurrentPid.
 *
 * Environment:
 * - QVOPL_IPC_PATH  the IPC directory, in which named objects keep their files; /tmp when it is not set
 * - TALVEN_HOME     where the log lies, see OPL_Log
 *
 * A program may define a function OPL_InitInstanceStringSetCallback in its executable (exported, as with
 * -rdynamic) or in a library of the global scope. Its result names the instance: processes with the same
 * instance string share the instance's objects. See docs/initialisation.md and docs/operations.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_INIT_H
#define OPL_INIT_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_INIT_E_INVALID_MODE = 0x050202, /**< mode is out of range */
  OPL_INIT_E_STOPPED = 0x050203,      /**< the library is not begun in this process, or has ended */
  OPL_INIT_E_LOCK = 0x050206,         /**< the initialisation lock could not be taken */
  OPL_INIT_E_UNLOCK = 0x050207,       /**< reserved; a message only */
  OPL_INIT_E_NO_INSTANCE = 0x05020B,  /**< no instance string could be had */
  OPL_INIT_E_LOG_NAME = 0x05020C      /**< the log name is null or empty */
};

/** How OPL_InitEnd ends. */
enum {
  OPL_INIT_END_ORDINARY = 0, /**< ends the calling module's use */
  OPL_INIT_END_FORCED = 1    /**< forgets everything at once; for a forked child */
};

/** What a host program may define to name its instance; returns a text that stays valid. */
typedef const char* (*OPL_InitInstanceStringSetCallbackType)(void);

/**
 * Begins the library in this process, or counts a further begin.
 *
 * @param mode  0
 *
 * @return OPL_OK                   begun
 * @return OPL_INIT_E_INVALID_MODE  mode is not 0
 * @return OPL_INIT_E_STOPPED       the process is at its exit
 * @return OPL_INIT_E_NO_INSTANCE   no instance string could be had
 * @return OPL_INIT_E_LOCK          the initialisation lock could not be taken
 * @return OPL_PROCESS_E_ATFORK     forks cannot be watched
 * @return a code of OPL_ErrBegin when no error record can be set up
 * @return a code of OPL_PrivateMgmtLockOpen, OPL_PrivateMgmtLockCreate or OPL_PrivateMgmtLockQVOPLAccess when
 * the management lock cannot be opened or made
 * @return a code of OPL_SyncCriticalSectionInit
 */
OPL_API OPL_Result OPL_InitBegin(uint32_t mode);

/**
 * Ends one begin; the last end tears the library down.
 *
 * @param mode  OPL_INIT_END_ORDINARY, or OPL_INIT_END_FORCED in a forked child with one thread
 *
 * @return OPL_OK                   ended
 * @return OPL_INIT_E_INVALID_MODE  mode is above 1
 * @return OPL_INIT_E_STOPPED       no begin is left to end
 * @return OPL_INIT_E_LOCK          the initialisation lock could not be taken
 */
OPL_API OPL_Result OPL_InitEnd(uint32_t mode);

/**
 * Tells whether the library may be used. Works at any time.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param mode  not looked at
 *
 * @return OPL_OK              it may
 * @return OPL_INIT_E_STOPPED  it is not begun in this process, or has ended
 */
OPL_API OPL_Result OPL_InitIsStopped(uint32_t mode);

/**
 * Tells the IPC directory. Works at any time. The environment is read once in a process.
 *
 * @param mode    0
 * @param buffer  receives the directory, cut to size - 1 characters; null only reads the environment
 * @param size    bytes of buffer; 0 stores nothing
 *
 * @return OPL_OK                   told
 * @return OPL_INIT_E_INVALID_MODE  mode is not 0
 */
OPL_API OPL_Result OPL_InitIPCPathGet(uint32_t mode, char* buffer, uint32_t size);

/**
 * Tells the instance string. Works at any time; the string is made by the first call.
 *
 * @return a text that is valid as long as the process lives and must not be changed; null when the process's
 *         symbols cannot be looked at or the host program's function returned null
 */
OPL_API const char* OPL_InitInstanceStringGet(void);

/**
 * Tells the build version, which is part of every IPC file's name. Works at any time.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param mode  0
 *
 * @return "006.021" for mode 0, else null
 */
OPL_API const char* OPL_InitBuildVersionStringGet(uint32_t mode);

/**
 * Tells the version banner: "\nTalvenMeridianLibrary:qvopl version:006.021.4036.0 date:20040205\n".
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @return a text that stays the library's
 */
OPL_API const char* GetQvoplFullVerID(void);

/**
 * Makes the calling process the owner of what it inherited across a fork: for a child that goes on where its
 * parent stopped.
 *
 * @callable after OPL_InitBegin in the parent, by the forked child's one thread, not in a signal handler
 *
 * @return OPL_OK              taken over, or the process owns the library already
 * @return OPL_INIT_E_STOPPED  the library was not begun in the parent
 * @return a code of OPL_SyncRWLockTransferOwnership
 */
OPL_API OPL_Result OPL_InitSetCurrentPid(void);

/**
 * Removes the IPC objects of this instance and version: for an administrator, once no process uses them.
 * Works at any time. All kinds of objects are gone through, whatever fails.
 *
 * @param mode     not looked at
 * @param pattern  which files of the IPC directory to look at, as the shell matches names; "*" for all
 *
 * @return OPL_OK                  removed; also when there was nothing
 * @return OPL_INIT_E_NO_INSTANCE  there is no instance string, so that no file is known to be the instance's
 * @return a code of OPL_SyncTerminateIPC, OPL_SharedMemTerminateIPC, OPL_SocketTerminateIPC,
 * OPL_ServerTerminateIPC or OPL_MsgqNativeTerminateIPC, the first failure's
 */
OPL_API OPL_Result OPL_InitTerminateIPC(uint32_t mode, const char* pattern);

/** @} */

/**
 * @defgroup log Log
 *
 * The diagnostic log of all processes and of each. See docs/log.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */

/**
 * Sets the base name of the log files for later calls of OPL_Log. Call it before other threads log.
 *
 * @callable at any time, before other threads log, not in a signal handler
 *
 * @param name  cut to 255 characters
 *
 * @return OPL_OK               set
 * @return OPL_INIT_E_LOG_NAME  name is null or empty; the name stays as it was
 */
OPL_API OPL_Result OPL_LogSetFilename(const char* name);

/**
 * Appends a record with date, process and thread to two log files: NAME.log, which all processes share, and
 * NAME.PID.log of this process. They lie in $TALVEN_HOME/tmer/log, or in the current directory when
 * TALVEN_HOME is not set; NAME is "qvopl" until OPL_LogSetFilename sets another.
 *
 * A record is written whole, also when several processes and threads log at once. Directories are not made,
 * and a file that cannot be opened is skipped. A symbolic link in a log file's place is not followed. Works
 * at any time, also before OPL_InitBegin.
 *
 * @param format  as OPL_CrtVSNPrintf takes it, followed by its arguments
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_Log(const char* format, ...);

/** @} */

OPL_END_DECLS

#endif
