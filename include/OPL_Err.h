/**
 * @defgroup err Error record
 *
 * One per thread, with the code and the message of the thread's last failure.
 *
 * A record is written by failing functions of the library through OPL_ErrSet and read back with the Get
 * functions below. Success clears nothing: look at the record after a failure only. After a failed system
 * call the recorded code is the system's error number, whatever code the function returned; for an error
 * that the library found itself it is the returned code.
 *
 * The functions touch the calling thread's record only and take no lock. See docs/errors.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_ERR_H
#define OPL_ERR_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_ERR_E_INVALID_MODE = 0x050501, /**< mode is not 0 */
  OPL_ERR_E_NO_RECORD = 0x050502     /**< the thread has no error record yet, or the library is not begun */
};

/** Limits. */
enum {
  OPL_ERR_TEXT_SIZE = 512 /**< bytes of the message and of the native text, terminator included */
};

/**
 * Makes the process's error key. Called by OPL_InitBegin; programs do not need it.
 *
 * @param mode  0
 *
 * @return OPL_OK                      made
 * @return OPL_ERR_E_INVALID_MODE      mode is not 0
 * @return OPL_THREAD_E_NO_KEY         the system has no thread-specific-data key left
 * @return OPL_THREAD_E_KEY_NO_MEMORY  no memory
 */
OPL_API OPL_Result OPL_ErrBegin(uint32_t mode);

/**
 * Deletes the error key. Called by the last OPL_InitEnd. Records of living threads are not released.
 *
 * @param mode  0
 *
 * @return OPL_OK                  deleted, or there was none
 * @return OPL_ERR_E_INVALID_MODE  mode is not 0
 */
OPL_API OPL_Result OPL_ErrEnd(uint32_t mode);

/**
 * Records a failure for the calling thread. Nothing is recorded while the library is stopped, with a mode
 * other than 0, or when there is no memory for the thread's first record. errno stays as it was.
 *
 * @param mode    0
 * @param code    what OPL_ErrCodeGet will return: a result code, or the number of a failed system call
 * @param format  as OPL_CrtVSNPrintf takes it (OPL_Crt.h), followed by its arguments; the message is cut to
 *                OPL_ERR_TEXT_SIZE - 1 characters. The text of OPL_ErrNativeMessageGet may be an argument,
 *                that of OPL_ErrMessageGet must not.
 *
 * @return 0 always
 */
OPL_API uint32_t OPL_ErrSet(uint32_t mode, uint32_t code, const char* format, ...);

/**
 * Tells the code of the thread's last failure.
 *
 * @param mode  0
 *
 * @return the recorded code; 0 when the record exists but nothing was recorded yet
 * @return OPL_ERR_E_INVALID_MODE  mode is not 0
 * @return OPL_ERR_E_NO_RECORD     the thread has no record
 */
OPL_API uint32_t OPL_ErrCodeGet(uint32_t mode);

/**
 * Tells the message of the thread's last failure.
 *
 * @param mode  0
 *
 * @return a text owned by the record, valid until the thread ends and overwritten by its next failure; "No
 *         message available." without a record, "Invalid mode." when mode is not 0
 */
OPL_API const char* OPL_ErrMessageGet(uint32_t mode);

/**
 * Tells the system's text for an error number. errno stays as it was.
 *
 * @param mode    0
 * @param errnum  a number as errno holds it
 *
 * @return a text owned by the thread's record, valid until the next call in this thread; "Invalid mode."
 *         when mode is not 0 or there is no record and none can be made
 */
OPL_API const char* OPL_ErrNativeMessageGet(uint32_t mode, int32_t errnum);

/**
 * Writes the system's text for an error number into a buffer of the caller. Works without the library being
 * begun and from any thread.
 *
 * @param errnum  a number as errno holds it
 * @param dst     receives the text, cut to len - 1 characters; null does nothing
 * @param len     bytes of dst; 0 leaves it untouched
 *
 * @return dst
 */
OPL_API char* OPL_ErrNativeGetErrorString(int32_t errnum, char* dst, uint32_t len);

/** @} */

OPL_END_DECLS

#endif
