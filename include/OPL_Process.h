/**
 * @defgroup process Processes
 *
 * Identity, liveness, times, and tasks, which are forked child processes.
 *
 * The process id that the library works with may be set by the host program; every module asks
 * OPL_ProcessIdGet for it. See docs/process-and-user.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_PROCESS_H
#define OPL_PROCESS_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes of processes. */
enum {
  OPL_PROCESS_E_ID = 0x050F01,            /**< the system gave no process id */
  OPL_PROCESS_E_NULL_ARGUMENT = 0x050F02, /**< a required output pointer is null */
  OPL_PROCESS_E_ATFORK = 0x050F07,        /**< fork handlers could not be registered */
  OPL_PROCESS_E_KILL = 0x050F09,          /**< the process could not be signalled */
  OPL_PROCESS_E_TIMES = 0x050F0C          /**< the times could not be read */
};

/** Result codes of tasks. */
enum {
  OPL_TASK_E_FORK = 0x050703,         /**< no child process could be made */
  OPL_TASK_E_NULL_ARGUMENT = 0x050704 /**< a required argument is null */
};

/** Positions in the times that OPL_ProcessTimesGet writes. */
enum {
  OPL_PROCESS_TIMES_USER = 0,            /**< the process itself, in its own code */
  OPL_PROCESS_TIMES_SYSTEM = 1,          /**< the process itself, in the system */
  OPL_PROCESS_TIMES_CHILDREN_USER = 2,   /**< children that it has waited for, in their own code */
  OPL_PROCESS_TIMES_CHILDREN_SYSTEM = 3, /**< children that it has waited for, in the system */
  OPL_PROCESS_TIMES_COUNT = 4            /**< how many there are */
};

/** A process id that stands for none. */
#define OPL_PROCESS_NO_ID 0xFFFFFFFFu

/**
 * Tells the process id that was set with OPL_ProcessIdSet, or else the system's.
 *
 * @callable at any time, by any thread, in a signal handler too when pPid is not null
 *
 * @param pPid  receives the id
 *
 * @return OPL_OK                       told
 * @return OPL_PROCESS_E_NULL_ARGUMENT  pPid is null
 * @return OPL_PROCESS_E_ID             the system gave none
 */
OPL_API OPL_Result OPL_ProcessIdGet(uint32_t* pPid);

/**
 * Tells the system's process id, whatever was set. Its messages name OPL_ProcessIdGet.
 *
 * @callable at any time, by any thread, in a signal handler too when pPid is not null
 *
 * @param pPid  receives the id
 *
 * @return as OPL_ProcessIdGet
 */
OPL_API OPL_Result OPL_ProcessRealIdGet(uint32_t* pPid);

/**
 * Sets the process id that OPL_ProcessIdGet tells from now on. A forked child inherits it: a program that
 * sets one must set the child's there.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param pid  the id; OPL_PROCESS_NO_ID brings the system's back
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_ProcessIdSet(uint32_t pid);

/**
 * Tells the parent's process id.
 *
 * @callable at any time, by any thread, in a signal handler too when pPid is not null
 *
 * @param pPid  receives the id
 *
 * @return OPL_OK                       told
 * @return OPL_PROCESS_E_NULL_ARGUMENT  pPid is null
 * @return OPL_PROCESS_E_ID             the system gave none
 */
OPL_API OPL_Result OPL_ProcessParentIdGet(uint32_t* pPid);

/**
 * Compares two process ids.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param pidA      an id
 * @param pidB      another
 * @param pIsEqual  receives 1 when they are equal, else 0
 *
 * @return OPL_OK                       compared
 * @return OPL_PROCESS_E_NULL_ARGUMENT  pIsEqual is null
 */
OPL_API OPL_Result OPL_ProcessIdCompare(uint32_t pidA, uint32_t pidB, uint32_t* pIsEqual);

/**
 * Registers functions that run around every fork of the process, as pthread_atfork does: prepare before it in
 * the parent, parent and child after it. They stay registered until the process ends.
 *
 * @param prepare  runs before a fork; may be null
 * @param parent   runs after it in the parent; may be null
 * @param child    runs after it in the child; may be null
 *
 * @return OPL_OK                registered
 * @return OPL_PROCESS_E_ATFORK  the system refused
 */
OPL_API OPL_Result OPL_ProcessAtFork(void (*prepare)(void), void (*parent)(void), void (*child)(void));

/**
 * Tells whether a process exists; 0 and what is above the system's ids do not. One that has ended exists
 * until its parent has waited for it.
 *
 * @param pid     the process
 * @param pAlive  receives 1 or 0; may be null
 *
 * @return OPL_OK              told
 * @return OPL_PROCESS_E_KILL  the system does not tell, as for a process of another user
 */
OPL_API OPL_Result OPL_ProcessIsAlive(uint32_t pid, uint32_t* pAlive);

/**
 * Asks a process to end (SIGTERM).
 *
 * @param pid  the process
 *
 * @return OPL_OK              asked
 * @return OPL_PROCESS_E_KILL  the system refused
 */
OPL_API OPL_Result OPL_ProcessTerminate(uint32_t pid);

/**
 * Tells the process's times in clock ticks (sysconf(_SC_CLK_TCK) a second).
 *
 * @param pElapsed  receives the real time since some moment in the past; may be null
 * @param times     receives OPL_PROCESS_TIMES_COUNT values in the order of OPL_PROCESS_TIMES_*; may be null
 *
 * @return OPL_OK               told
 * @return OPL_PROCESS_E_TIMES  the system refused; nothing is written
 */
OPL_API OPL_Result OPL_ProcessTimesGet(uint32_t* pElapsed, uint32_t* times);

/**
 * Forks a child process that begins the library, runs a function, ends the library and exits with status 0.
 * The child's id is not told and the child is not waited for.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param reserved  not looked at
 * @param function  runs in the child, unless the library cannot be begun there
 * @param argument  handed to function
 *
 * @return OPL_OK                    forked
 * @return OPL_TASK_E_NULL_ARGUMENT  function is null
 * @return OPL_TASK_E_FORK           the system refused
 */
OPL_API OPL_Result OPL_TaskCreate(uint32_t reserved, void (*function)(void*), void* argument);

/**
 * Tells whether tasks are processes: always 1.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param reserved  not looked at
 * @param pIsFork   receives 1
 *
 * @return OPL_OK                    told
 * @return OPL_TASK_E_NULL_ARGUMENT  pIsFork is null
 */
OPL_API OPL_Result OPL_TaskIsFork(uint32_t reserved, uint32_t* pIsFork);

/** @} */

OPL_END_DECLS

#endif
