/**
 * @defgroup thread Threads
 *
 * Attributes, creation, identity, times and thread-specific data. See docs/threads.md.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_THREAD_H
#define OPL_THREAD_H

#include <pthread.h>

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_THREAD_E_RESOURCES = 0x050301,        /**< no memory or no room for another thread */
  OPL_THREAD_E_INVALID_ARGUMENT = 0x050302, /**< a null handle, or a mode, option or value out of range */
  OPL_THREAD_E_CREATE = 0x050303,           /**< the system refused the thread for another reason */
  OPL_THREAD_E_NULL_ARGUMENT = 0x050304,    /**< a required output pointer is null */
  OPL_THREAD_E_INVALID_KEY = 0x050307,      /**< the key is OPL_THREAD_NO_KEY or was never allocated */
  OPL_THREAD_E_KEY_NO_MEMORY = 0x050308,    /**< no memory for a key */
  OPL_THREAD_E_NO_KEY = 0x05030C,           /**< the system has no key left */
  OPL_THREAD_E_SET_VALUE = 0x05030D         /**< the value could not be stored */
};

/** A thread-specific-data key that stands for none. */
#define OPL_THREAD_NO_KEY 0xFFFFFFFFu

/** Attribute options: the second argument of OPL_ThreadAttrSet and OPL_ThreadAttrGet. */
enum {
  OPL_THREAD_ATTR_STACK_SIZE = 0, /**< bytes of stack */
  OPL_THREAD_ATTR_SCOPE = 1       /**< contention scope, one of the values below */
};

/** Contention scopes. */
enum {
  OPL_THREAD_SCOPE_PROCESS = 0, /**< among the threads of the process; Linux refuses it */
  OPL_THREAD_SCOPE_SYSTEM = 1   /**< among all threads of the system */
};

/** Positions in the times that OPL_ThreadTimesGet writes. */
enum {
  OPL_THREAD_TIMES_USER = 0,            /**< the process itself, in its own code */
  OPL_THREAD_TIMES_SYSTEM = 1,          /**< the process itself, in the system */
  OPL_THREAD_TIMES_CHILDREN_USER = 2,   /**< children that it has waited for, in their own code */
  OPL_THREAD_TIMES_CHILDREN_SYSTEM = 3, /**< children that it has waited for, in the system */
  OPL_THREAD_TIMES_COUNT = 4            /**< how many there are */
};

/** Attributes of threads to be created; made and owned by the caller. */
typedef struct OPL_ThreadAttr OPL_ThreadAttr;

/**
 * @defgroup threadattr Thread attributes
 *
 * @callable after OPL_InitBegin, by one thread at a time for an object, not in a signal handler
 * @{
 */

/**
 * Makes an attribute object: the system's defaults, with threads detached.
 *
 * @param ppThreadAttr  receives the object, released with OPL_ThreadAttrDestroy; null on every failure, also
 *                      while the library is stopped
 * @param mode          0
 *
 * @return OPL_OK                         made
 * @return OPL_THREAD_E_INVALID_ARGUMENT  ppThreadAttr is null or mode is not 0
 * @return OPL_THREAD_E_RESOURCES         no memory, or the system refused
 */
OPL_API OPL_Result OPL_ThreadAttrCreate(OPL_ThreadAttr** ppThreadAttr, uint32_t mode);

/**
 * Releases an attribute object and stores null.
 *
 * @param ppThreadAttr  the object; null afterwards
 *
 * @return OPL_OK                         released
 * @return OPL_THREAD_E_INVALID_ARGUMENT  ppThreadAttr or *ppThreadAttr is null; or the system refused to end
 *                                        the object, which is released all the same
 */
OPL_API OPL_Result OPL_ThreadAttrDestroy(OPL_ThreadAttr** ppThreadAttr);

/**
 * Sets an option. The object must not be in use by another thread's OPL_ThreadCreate.
 *
 * @param hThreadAttr  the object
 * @param option       OPL_THREAD_ATTR_STACK_SIZE or OPL_THREAD_ATTR_SCOPE
 * @param pValue       the value
 *
 * @return OPL_OK                         set
 * @return OPL_THREAD_E_INVALID_ARGUMENT  a null argument, an unknown option, a value that the system refuses
 */
OPL_API OPL_Result OPL_ThreadAttrSet(OPL_ThreadAttr* hThreadAttr, uint32_t option, const uint32_t* pValue);

/**
 * Reads an option.
 *
 * @param hThreadAttr  the object
 * @param option       OPL_THREAD_ATTR_STACK_SIZE or OPL_THREAD_ATTR_SCOPE
 * @param pValue       receives the value; a stack size above 4 GB - 1 is given as 0xFFFFFFFF
 *
 * @return OPL_OK                         read
 * @return OPL_THREAD_E_INVALID_ARGUMENT  a null argument, an unknown option, or the system refused
 */
OPL_API OPL_Result OPL_ThreadAttrGet(OPL_ThreadAttr* hThreadAttr, uint32_t option, uint32_t* pValue);

/**
 * Gives the system's attribute object behind a handle, for options that have no number here.
 *
 * @param hThreadAttr  the object
 * @param pPosixAttr   receives the object, which stays part of the handle, or null when the handle is null;
 *                     may be null
 *
 * @return OPL_OK                         given
 * @return OPL_THREAD_E_INVALID_ARGUMENT  hThreadAttr is null
 */
OPL_API OPL_Result OPL_ThreadAttrPosixGet(OPL_ThreadAttr* hThreadAttr, pthread_attr_t** pPosixAttr);

/** @} */

/**
 * Starts a thread.
 *
 * @param mode         0
 * @param hThreadAttr  its attributes; null starts a detached thread with the system's defaults
 * @param start        the function that the thread runs
 * @param argument     handed to start; not looked at
 * @param pThreadId    receives the thread's id as OPL_ThreadIdGet tells it there, 0 on failure; may be null
 *
 * @return OPL_OK                         started
 * @return OPL_THREAD_E_INVALID_ARGUMENT  mode is not 0, start is null, or the system refused the attributes
 * @return OPL_THREAD_E_RESOURCES         no memory or no room for another thread
 * @return OPL_THREAD_E_CREATE            the system refused for another reason
 */
OPL_API OPL_Result OPL_ThreadCreate(uint32_t mode, OPL_ThreadAttr* hThreadAttr, void* (*start)(void*),
                                    void* argument, uint32_t* pThreadId);

/**
 * Ends the calling thread with a null result. Does not return, unless the library is stopped.
 *
 * @return OPL_INIT_E_STOPPED  the library is not begun or has ended; the thread goes on
 */
OPL_API OPL_Result OPL_ThreadExit(void);

/**
 * Tells the calling thread's id. Works at any time.
 *
 * The id differs from those of the process's other living threads and stays the same for the life of the
 * thread. In a forked child the one thread keeps the id that it had in the parent. An id may be given again
 * once its thread has ended. It is never 0.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param pThreadId  receives the id; may be null
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_ThreadIdGet(uint32_t* pThreadId);

/**
 * Compares two thread ids.
 *
 * @param id1     an id
 * @param id2     another
 * @param pMatch  receives 1 when they are equal, else 0
 *
 * @return OPL_OK                      compared
 * @return OPL_THREAD_E_NULL_ARGUMENT  pMatch is null
 */
OPL_API OPL_Result OPL_ThreadIdCompare(uint32_t id1, uint32_t id2, uint32_t* pMatch);

/**
 * Does nothing: every thread is scheduled by the system.
 *
 * @param level  not looked at
 *
 * @return OPL_OK  always
 */
OPL_API OPL_Result OPL_ThreadConcurrencySet(uint32_t level);

/**
 * Stores 0.
 *
 * @param pLevel  receives 0; may be null
 *
 * @return OPL_OK  always
 */
OPL_API OPL_Result OPL_ThreadConcurrencyGet(uint32_t* pLevel);

/**
 * Tells the process's times in clock ticks (sysconf(_SC_CLK_TCK) a second). Works at any time.
 *
 * @callable at any time, by any thread, not in a signal handler
 *
 * @param pElapsed  receives the real time since some moment in the past; may be null
 * @param times     receives OPL_THREAD_TIMES_COUNT values in the order of OPL_THREAD_TIMES_*; may be null
 *
 * @return OPL_OK                         told
 * @return OPL_THREAD_E_INVALID_ARGUMENT  the system refused; nothing is written
 */
OPL_API OPL_Result OPL_ThreadTimesGet(uint32_t* pElapsed, uint32_t* times);

/**
 * Prepares the thread module. Called by OPL_InitBegin.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param mode  not looked at
 *
 * @return OPL_OK  always
 */
OPL_API OPL_Result OPL_ThreadInit(uint32_t mode);

/**
 * @defgroup threadtsd Thread-specific data
 *
 * Keys, under which every thread keeps a value of its own. The functions leave no message.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */

/**
 * Allocates a key, under which every thread keeps a value of its own, null at first.
 *
 * @param pKey        receives the key, released with OPL_ThreadTsdFreeKey; untouched on failure
 * @param destructor  called at a thread's end with its value, unless that is null; may be null
 *
 * @return OPL_OK                      allocated
 * @return OPL_THREAD_E_NULL_ARGUMENT  pKey is null
 * @return OPL_THREAD_E_KEY_NO_MEMORY  no memory
 * @return OPL_THREAD_E_NO_KEY         the system has no key left
 */
OPL_API OPL_Result OPL_ThreadTsdAllocKey(uint32_t* pKey, void (*destructor)(void*));

/**
 * Stores the calling thread's value. The library does not own it.
 *
 * @param key    the key
 * @param value  the value
 *
 * @return OPL_OK                    stored
 * @return OPL_THREAD_E_INVALID_KEY  key is OPL_THREAD_NO_KEY or not allocated
 * @return OPL_THREAD_E_SET_VALUE    the system refused, as without memory
 */
OPL_API OPL_Result OPL_ThreadTsdSetValue(uint32_t key, void* value);

/**
 * Reads the calling thread's value.
 *
 * @param key     the key
 * @param pValue  receives the value, null when the thread has set none
 *
 * @return OPL_OK                      read
 * @return OPL_THREAD_E_NULL_ARGUMENT  pValue is null
 * @return OPL_THREAD_E_INVALID_KEY    key is OPL_THREAD_NO_KEY
 */
OPL_API OPL_Result OPL_ThreadTsdGetValue(uint32_t key, void** pValue);

/**
 * Releases a key and stores OPL_THREAD_NO_KEY. The destructor does not run for values that threads still
 * have.
 *
 * @param pKey  the key; OPL_THREAD_NO_KEY afterwards
 *
 * @return OPL_OK                      released, or there was none
 * @return OPL_THREAD_E_NULL_ARGUMENT  pKey is null
 */
OPL_API OPL_Result OPL_ThreadTsdFreeKey(uint32_t* pKey);

/** @} */

/** @} */

OPL_END_DECLS

#endif
