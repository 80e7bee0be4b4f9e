/**
 * @defgroup mem Memory
 *
 * The five allocation functions through which the library makes everything it hands out, and the
 * contexts with which a host program replaces any of them.
 *
 * A context carries up to five callbacks and one state pointer. An allocation function uses the context it
 * is given, or else the process's default context; without a context, or without the callback in question,
 * the system allocator serves the call. All functions here work at any time, before OPL_InitBegin and after
 * the end. None leaves a message in the error record.
 *
 * Every allocation function ends with the caller's source position, which only callbacks look at:
 * - flags     0; reserved
 * - caller    the calling function's name, or null
 * - file      the source file
 * - revision  the source file's revision, or "NO-VERSION-INFO"
 * - line      the line in that file
 *
 * OPL_MEM_HERE writes the five for you: OPL_MemMalloc(NULL, 64, OPL_MEM_HERE). See docs/memory.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_MEM_H
#define OPL_MEM_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** The five source-position arguments of the place where it stands. */
#define OPL_MEM_HERE 0, __func__, __FILE__, "NO-VERSION-INFO", (uint32_t)(__LINE__)

/** Result codes. */
enum {
  OPL_MEM_E_NO_MEMORY = 0x050C01,    /**< no memory for a new context */
  OPL_MEM_E_NULL_ARGUMENT = 0x050C02 /**< a context, callback or state is null */
};

/** A set of callbacks; made by OPL_MemContextCreate, owned by the caller. */
typedef struct OPL_MemContext OPL_MemContext;

/**
 * Serves OPL_MemMalloc. The first argument is the context's state, the others are those of the replaced
 * function without its context. What a callback returns is returned as it is; nulls and zeros reach it
 * unchecked. Callbacks must be safe for calls from any thread at once and must not throw.
 */
typedef void* (*OPL_MemMallocCallback)(void* state, uint32_t size, uint32_t flags, const char* caller,
                                       const char* file, const char* revision, uint32_t line);
/** Serves OPL_MemCalloc, as OPL_MemMallocCallback does OPL_MemMalloc. */
typedef void* (*OPL_MemCallocCallback)(void* state, uint32_t count, uint32_t size, uint32_t flags,
                                       const char* caller, const char* file, const char* revision,
                                       uint32_t line);
/** Serves OPL_MemRealloc, as OPL_MemMallocCallback does OPL_MemMalloc. */
typedef void* (*OPL_MemReallocCallback)(void* state, void* pointer, uint32_t size, uint32_t flags,
                                        const char* caller, const char* file, const char* revision,
                                        uint32_t line);
/** Serves OPL_MemStrdup, as OPL_MemMallocCallback does OPL_MemMalloc. */
typedef char* (*OPL_MemStrdupCallback)(void* state, const char* text, uint32_t flags, const char* caller,
                                       const char* file, const char* revision, uint32_t line);
/** Serves OPL_MemFree, as OPL_MemMallocCallback does OPL_MemMalloc. */
typedef void (*OPL_MemFreeCallback)(void* state, void* pointer, uint32_t flags, const char* caller,
                                    const char* file, const char* revision, uint32_t line);

/**
 * Allocates size bytes, uninitialised.
 *
 * @param context   whose callback serves the call; null means the default context
 * @param size      bytes; without a callback 0 yields null
 * @param flags     0; reserved
 * @param caller    the calling function's name, or null
 * @param file      the source file
 * @param revision  the source file's revision, or "NO-VERSION-INFO"
 * @param line      the line in that file
 *
 * @return the memory, which the caller releases with OPL_MemFree and the same context; null when there is
 *         none
 */
OPL_API void* OPL_MemMalloc(OPL_MemContext* context, uint32_t size, uint32_t flags, const char* caller,
                            const char* file, const char* revision, uint32_t line);

/**
 * Allocates count elements of size bytes each, zero-filled.
 *
 * @param context   whose callback serves the call; null means the default context
 * @param count     number of elements; without a callback 0 yields null
 * @param size      bytes of one element; without a callback 0 yields null
 * @param flags     0; reserved
 * @param caller    the calling function's name, or null
 * @param file      the source file
 * @param revision  the source file's revision, or "NO-VERSION-INFO"
 * @param line      the line in that file
 *
 * @return the memory, released with OPL_MemFree; null when there is none or count * size overflows
 */
OPL_API void* OPL_MemCalloc(OPL_MemContext* context, uint32_t count, uint32_t size, uint32_t flags,
                            const char* caller, const char* file, const char* revision, uint32_t line);

/**
 * Changes the size of an allocation; the contents are kept up to the smaller of both sizes.
 *
 * @param context   the one that pointer came from; null means the default context
 * @param pointer   what an allocation function returned, or null for a new allocation
 * @param size      bytes wanted; 0 with a null pointer yields null, 0 with another pointer is the system's
 *                  realloc(pointer, 0)
 * @param flags     0; reserved
 * @param caller    the calling function's name, or null
 * @param file      the source file
 * @param revision  the source file's revision, or "NO-VERSION-INFO"
 * @param line      the line in that file
 *
 * @return the memory, which takes the place of pointer; null when there is none, and pointer stays valid
 */
OPL_API void* OPL_MemRealloc(OPL_MemContext* context, void* pointer, uint32_t size, uint32_t flags,
                             const char* caller, const char* file, const char* revision, uint32_t line);

/**
 * Copies a text.
 *
 * @param context   whose callback serves the call; null means the default context
 * @param text      what to copy; without a callback null yields null
 * @param flags     0; reserved
 * @param caller    the calling function's name, or null
 * @param file      the source file
 * @param revision  the source file's revision, or "NO-VERSION-INFO"
 * @param line      the line in that file
 *
 * @return the copy, released with OPL_MemFree; null when there is no memory
 */
OPL_API char* OPL_MemStrdup(OPL_MemContext* context, const char* text, uint32_t flags, const char* caller,
                            const char* file, const char* revision, uint32_t line);

/**
 * Releases what an allocation function of the same context returned.
 *
 * @param context   the one that pointer came from; null means the default context
 * @param pointer   what to release; without a callback null is ignored
 * @param flags     0; reserved
 * @param caller    the calling function's name, or null
 * @param file      the source file
 * @param revision  the source file's revision, or "NO-VERSION-INFO"
 * @param line      the line in that file
 */
OPL_API void OPL_MemFree(OPL_MemContext* context, void* pointer, uint32_t flags, const char* caller,
                         const char* file, const char* revision, uint32_t line);

/** @} */

/**
 * @defgroup memcontext Memory contexts
 * @ingroup mem
 *
 * Whatever a host program replaces, it sets up before other threads allocate.
 *
 * @callable at any time, by one thread at a time for a context, not in a signal handler
 * @{
 */

/**
 * Makes a context without callbacks.
 *
 * @param pContext  receives the context, owned by the caller; null on failure
 *
 * @return OPL_OK                   made
 * @return OPL_MEM_E_NULL_ARGUMENT  pContext is null
 * @return OPL_MEM_E_NO_MEMORY      the system has no memory
 */
OPL_API OPL_Result OPL_MemContextCreate(OPL_MemContext** pContext);

/**
 * Releases a context and stores null. A default context must be cleared first with OPL_MemDefaultHandleSet:
 * this function does not do it.
 *
 * @param pContext  the context; null afterwards
 *
 * @return OPL_OK                   released; also when *pContext was null already
 * @return OPL_MEM_E_NULL_ARGUMENT  pContext is null
 */
OPL_API OPL_Result OPL_MemContextDestroy(OPL_MemContext** pContext);

/**
 * Sets what serves OPL_MemMalloc in a context. A callback can be replaced by another, but not removed again.
 * A context that replaces OPL_MemFree alone, or an allocation alone, must make the two agree with the system
 * allocator.
 *
 * @param context   the context
 * @param callback  what serves the calls
 *
 * @return OPL_OK                   stored
 * @return OPL_MEM_E_NULL_ARGUMENT  context or callback is null; the previous callback stays
 */
OPL_API OPL_Result OPL_MemMallocCallbackSet(OPL_MemContext* context, OPL_MemMallocCallback callback);

/**
 * Sets what serves OPL_MemCalloc in a context, as OPL_MemMallocCallbackSet does for OPL_MemMalloc.
 *
 * @param context   the context
 * @param callback  what serves the calls
 *
 * @return as OPL_MemMallocCallbackSet
 */
OPL_API OPL_Result OPL_MemCallocCallbackSet(OPL_MemContext* context, OPL_MemCallocCallback callback);

/**
 * Sets what serves OPL_MemRealloc in a context, as OPL_MemMallocCallbackSet does for OPL_MemMalloc.
 *
 * @param context   the context
 * @param callback  what serves the calls
 *
 * @return as OPL_MemMallocCallbackSet
 */
OPL_API OPL_Result OPL_MemReallocCallbackSet(OPL_MemContext* context, OPL_MemReallocCallback callback);

/**
 * Sets what serves OPL_MemStrdup in a context, as OPL_MemMallocCallbackSet does for OPL_MemMalloc.
 *
 * @param context   the context
 * @param callback  what serves the calls
 *
 * @return as OPL_MemMallocCallbackSet
 */
OPL_API OPL_Result OPL_MemStrdupCallbackSet(OPL_MemContext* context, OPL_MemStrdupCallback callback);

/**
 * Sets what serves OPL_MemFree in a context, as OPL_MemMallocCallbackSet does for OPL_MemMalloc.
 *
 * @param context   the context
 * @param callback  what serves the calls
 *
 * @return as OPL_MemMallocCallbackSet
 */
OPL_API OPL_Result OPL_MemFreeCallbackSet(OPL_MemContext* context, OPL_MemFreeCallback callback);

/**
 * Sets the pointer that every callback of the context gets as its first argument.
 *
 * @param context  the context
 * @param state    owned by the caller; must outlive the context's use
 *
 * @return OPL_OK                   stored
 * @return OPL_MEM_E_NULL_ARGUMENT  context or state is null
 */
OPL_API OPL_Result OPL_MemCallbackStateSet(OPL_MemContext* context, void* state);

/**
 * Makes context the process's default. Call it once, before other threads allocate.
 *
 * @param context  stays owned by the caller and must outlive its use; null clears the default
 *
 * @return OPL_OK  always
 */
OPL_API OPL_Result OPL_MemDefaultHandleSet(OPL_MemContext* context);

/**
 * Does nothing; there is nothing to finish.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @return OPL_OK always
 */
OPL_API OPL_Result OPL_MemContextFinalize(void);

/**
 * Does nothing; kept for hosts that ask the library to report its private allocations.
 *
 * @callable at any time, by any thread, in a signal handler too
 */
OPL_API void OPL_MemLogPrivateMem(void);

/** @} */

OPL_END_DECLS

#endif
