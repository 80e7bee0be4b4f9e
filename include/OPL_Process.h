/*
 * Processes: identity.
 *
 * The process id that the library works with may be set by the host program; every module asks
 * OPL_ProcessIdGet for it. All functions here but OPL_ProcessIdCompare work at any time.
 */
#ifndef OPL_PROCESS_H
#define OPL_PROCESS_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

enum {
  OPL_PROCESS_E_ID = 0x050F01,           /**< the system gave no process id */
  OPL_PROCESS_E_NULL_ARGUMENT = 0x050F02 /**< a required output pointer is null */
};

/** A process id that stands for none. */
#define OPL_PROCESS_NO_ID 0xFFFFFFFFu

/**
 * Tells the process id that was set with OPL_ProcessIdSet, or else the system's.
 *
 * @return OPL_OK                       told
 * @return OPL_PROCESS_E_NULL_ARGUMENT  pPid is null
 * @return OPL_PROCESS_E_ID             the system gave none
 */
OPL_API OPL_Result OPL_ProcessIdGet(uint32_t* pPid);

/** Tells the system's process id, whatever was set. Codes and messages are those of OPL_ProcessIdGet. */
OPL_API OPL_Result OPL_ProcessRealIdGet(uint32_t* pPid);

/**
 * Sets the process id that OPL_ProcessIdGet tells from now on. A forked child inherits it: a program that
 * sets one must set the child's there.
 *
 * @param pid  the id; OPL_PROCESS_NO_ID brings the system's back
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_ProcessIdSet(uint32_t pid);

/**
 * Tells the parent's process id.
 *
 * @return OPL_OK                       told
 * @return OPL_PROCESS_E_NULL_ARGUMENT  pPid is null
 * @return OPL_PROCESS_E_ID             the system gave none
 */
OPL_API OPL_Result OPL_ProcessParentIdGet(uint32_t* pPid);

/**
 * Compares two process ids.
 *
 * @param pIsEqual  receives 1 when they are equal, else 0
 *
 * @return OPL_OK                       compared
 * @return OPL_PROCESS_E_NULL_ARGUMENT  pIsEqual is null
 */
OPL_API OPL_Result OPL_ProcessIdCompare(uint32_t pidA, uint32_t pidB, uint32_t* pIsEqual);

OPL_END_DECLS

#endif
