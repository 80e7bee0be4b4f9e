/**
 * @defgroup types Types and conventions
 *
 * What every public header of QVOPL builds on: the result type, linkage and export marks.
 *
 * Conventions of the whole interface:
 *  1. A function named OPL_ModuleObjectOperation returns an OPL_Result; 0 (OPL_OK) is success. Every
 *     failure is 0x05MMCC, MM the module and CC the code within it. The functions of OPL_Crt.h that stand
 *     for a system call return that call's own result instead.
 *  2. A failure leaves a message in the calling thread's error record (OPL_Err.h).
 *  3. Results are written through pointer arguments, on success only unless the function says otherwise.
 *  4. A leading mode argument is reserved and must be 0.
 *  5. Texts are NUL-terminated. Numbers have fixed widths; sizes are in bytes unless the name says otherwise.
 *  6. A handle is made by Create or Open, which take its address, and ended by Close or Destroy, which take
 *     the address too and store null.
 *  7. Functions refuse with OPL_INIT_E_STOPPED outside OPL_InitBegin and OPL_InitEnd unless they say that
 *     they work at any time.
 *  8. Each function says when and by whom it may be called. "By one thread at a time" for a thing means that
 *     the caller sees to it; "not in a signal handler" that it may allocate, or record a message.
 *
 * @{
 */
#ifndef OPL_TYPES_H
#define OPL_TYPES_H

#include <stddef.h>
#include <stdint.h>

/** @cond */
#ifdef __cplusplus
#define OPL_BEGIN_DECLS extern "C" {
#define OPL_END_DECLS }
#else
#define OPL_BEGIN_DECLS
#define OPL_END_DECLS
#endif
/** @endcond */

/** Marks what leaves the library. */
#define OPL_API __attribute__((visibility("default")))

/** 0 or a failure code 0x05MMCC. */
typedef uint32_t OPL_Result;

/** Success. */
enum {
  OPL_OK = 0 /**< success, for every function that returns an OPL_Result */
};

/** @} */

#endif
