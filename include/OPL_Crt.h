/**
 * @defgroup crt Runtime
 *
 * The bounded formatter, and the system calls and runtime functions under one name on every platform.
 *
 * Everything here works at any time. Files may be larger than 2 GB in both widths. See
 * docs/formatter-and-runtime.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_CRT_H
#define OPL_CRT_H

#include <malloc.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timeb.h>
#include <sys/types.h>
#include <time.h>
#include <utime.h>

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_CRT_E_FTIME = 0x051001,       /**< the time could not be read (OPL_CrtFTime) */
  OPL_CRT_E_SYSTEM = 0x051002,      /**< the command could not be run */
  OPL_CRT_E_GETTIMEOFDAY = 0x051003 /**< the time could not be read (OPL_CrtGetTimeOfDay) */
};

/**
 * @defgroup crtformat Formatter
 *
 * One formatter for buffers and for new memory, with or without the arguments themselves;
 * OPL_CrtVSNPrintf tells what a format holds.
 * @{
 */

/**
 * Formats into a buffer, never beyond its end. A result that does not fit is cut and terminated.
 *
 * Formats hold text and conversions:
 *
 * @verbatim
 *   %[flags][width][.precision][modifier]conversion
 *
 *   flags       0 pads numbers with zeros, - justifies left, + and blank put a sign before %d, # prefixes
 *               0x, 0X or 0; an apostrophe is ignored
 *   width       a number, or * for an int32_t argument; negative means its magnitude and justified left
 *   precision   a number, or * for an int32_t argument; negative means none
 *   modifier    h prints the low 16 bits; l and ll change nothing
 *   conversion  %d %i %u %o %x %X  one integer argument, of which the low 32 bits are printed: pass uint32_t,
 *                                  int32_t, long or unsigned long, never a 64-bit type in the 32-bit library
 *               %D %O %U           the same as %d %o %u
 *               %c                 one int argument, whose low byte is the character
 *               %s                 a text; null prints nothing; a precision is the most that is printed, and
 *                                  the text need not be terminated within it
 *               %p                 a pointer, in hexadecimal behind 0x, null as (nil)
 *               %%                 a percent sign
 * @endverbatim
 *
 * Any other character after a percent sign stands for itself and takes no argument; a percent sign and f
 * print f. A percent sign that ends the format prints nothing. Numbers are decimal, octal or hexadecimal
 * whatever the locale. A null format is empty.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param buffer     receives the text; may be null when size is 0
 * @param size       bytes of buffer; 0 stores nothing at all
 * @param format     as above
 * @param arguments  the format's arguments; indeterminate afterwards, as with vsnprintf
 *
 * @return the length of the whole result without its terminator, also when it was cut; at most INT32_MAX
 */
OPL_API int32_t OPL_CrtVSNPrintf(char* buffer, uint32_t size, const char* format, va_list arguments);

/**
 * Formats into a buffer, as OPL_CrtVSNPrintf does, with the arguments themselves.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param buffer  receives the text; may be null when size is 0
 * @param size    bytes of buffer; 0 stores nothing at all
 * @param format  as OPL_CrtVSNPrintf takes it, followed by its arguments
 *
 * @return the length of the whole result without its terminator, also when it was cut; at most INT32_MAX
 */
OPL_API int32_t OPL_CrtSNPrintf(char* buffer, uint32_t size, const char* format, ...);

/**
 * Formats into new memory.
 *
 * @param pText      receives the text, released with OPL_MemFree and a null context; null on failure
 * @param format     as OPL_CrtVSNPrintf takes it
 * @param arguments  the format's arguments
 *
 * @return the length of the text without its terminator
 * @return -1  no memory, or a text of INT32_MAX characters or more: errno is ENOMEM; pText is null: errno is
 *     EINVAL
 */
OPL_API int32_t OPL_CrtVASPrintf(char** pText, const char* format, va_list arguments);

/**
 * Formats into new memory, as OPL_CrtVASPrintf does, with the arguments themselves.
 *
 * @param pText   receives the text, released with OPL_MemFree and a null context; null on failure
 * @param format  as OPL_CrtVSNPrintf takes it, followed by its arguments
 *
 * @return the length of the text without its terminator
 * @return -1  no memory, or a text of INT32_MAX characters or more: errno is ENOMEM; pText is null: errno is
 *     EINVAL
 */
OPL_API int32_t OPL_CrtASPrintf(char** pText, const char* format, ...);

/**
 * Formats into new memory of at most a given size; a longer text is cut and terminated.
 *
 * @param pText      receives the text, released with OPL_MemFree and a null context; null on failure and when
 *                   limit is 0
 * @param limit      the most bytes to allocate, terminator included; 0 allocates nothing
 * @param format     as OPL_CrtVSNPrintf takes it
 * @param arguments  the format's arguments
 *
 * @return the length of the whole result without its terminator, also when it was cut
 * @return -1  no memory: errno is ENOMEM; pText is null: errno is EINVAL
 */
OPL_API int32_t OPL_CrtVASNPrintf(char** pText, uint32_t limit, const char* format, va_list arguments);

/**
 * Formats into new memory of at most a given size, as OPL_CrtVASNPrintf does, with the arguments themselves.
 *
 * @param pText   receives the text, released with OPL_MemFree and a null context; null on failure and when
 *                limit is 0
 * @param limit   the most bytes to allocate, terminator included; 0 allocates nothing
 * @param format  as OPL_CrtVSNPrintf takes it, followed by its arguments
 *
 * @return the length of the whole result without its terminator, also when it was cut
 * @return -1  no memory: errno is ENOMEM; pText is null: errno is EINVAL
 */
OPL_API int32_t OPL_CrtASNPrintf(char** pText, uint32_t limit, const char* format, ...);

/** @} */

/**
 * @defgroup crttext Texts, times and numbers
 *
 * Functions of the system under the library's names. Each returns what the system's function returns, with
 * errno set by it, and takes the same arguments.
 * @{
 */

/**
 * strcasecmp: compares two texts without regard to case.
 *
 * @param a  a text
 * @param b  another
 *
 * @return less than, equal to or greater than 0, as a stands before, with or behind b
 */
OPL_API int32_t OPL_CrtStrCaseCmp(const char* a, const char* b);

/**
 * strncasecmp: compares the beginnings of two texts without regard to case.
 *
 * @param a       a text
 * @param b       another
 * @param length  the most characters to compare
 *
 * @return less than, equal to or greater than 0, as a stands before, with or behind b
 */
OPL_API int32_t OPL_CrtStrNCaseCmp(const char* a, const char* b, uint32_t length);

/**
 * sysconf: tells a limit or an option of the system.
 *
 * @param name  _SC_*
 *
 * @return its value; -1 for none, and for an unknown name with errno set to EINVAL
 */
OPL_API long OPL_CrtSysConf(int32_t name);

/**
 * asctime_r: writes a time as text, such as "Thu Feb 12 12:30:00 2004" and a newline.
 *
 * @param brokenDown  the time
 * @param buffer      receives the text; 26 bytes
 *
 * @return buffer; null when the system refused
 */
OPL_API char* OPL_CrtAscTime(const struct tm* brokenDown, char* buffer);

/**
 * ctime_r: writes a time as text in local time, as OPL_CrtAscTime does.
 *
 * @param seconds  the time in seconds since 1970
 * @param buffer   receives the text; 26 bytes
 *
 * @return buffer; null when the system refused
 */
OPL_API char* OPL_CrtCTime(const time_t* seconds, char* buffer);

/**
 * gmtime_r: breaks a time down in UTC.
 *
 * @param seconds     the time in seconds since 1970
 * @param brokenDown  receives it
 *
 * @return brokenDown; null when the year does not fit
 */
OPL_API struct tm* OPL_CrtGmTime(const time_t* seconds, struct tm* brokenDown);

/**
 * localtime_r: breaks a time down in local time.
 *
 * @param seconds     the time in seconds since 1970
 * @param brokenDown  receives it
 *
 * @return brokenDown; null when the year does not fit
 */
OPL_API struct tm* OPL_CrtLocalTime(const time_t* seconds, struct tm* brokenDown);

/**
 * rand_r: the next number of a sequence.
 *
 * @param seed  the sequence's state, changed by the call
 *
 * @return the number, from 0 to RAND_MAX
 */
OPL_API int32_t OPL_CrtRand(uint32_t* seed);

/**
 * strtok_r: the next piece of a text.
 *
 * @param text        the text at the first call, null at those that go on; is changed
 * @param delimiters  the characters that stand between pieces
 * @param save        keeps where the next call goes on
 *
 * @return the piece, which lies within the text; null when there is none left
 */
OPL_API char* OPL_CrtStrTok(char* text, const char* delimiters, char** save);

/**
 * mallinfo: what the system's allocator has in use. Its counters have 32 bits and wrap at 2 GB.
 *
 * @return the statistics, in bytes and pieces
 */
OPL_API struct mallinfo OPL_CrtMallInfo(void);

/** @} */

/**
 * @defgroup crtfiles Files and descriptors
 *
 * System calls under the library's names. Each returns what the system's function returns, with errno set by
 * it, and takes the same arguments.
 *
 * @callable at any time, by any thread, in a signal handler too
 * @{
 */

/**
 * utime: sets a file's times of access and modification.
 *
 * @param path   the file
 * @param times  the times in seconds since 1970; null for now
 *
 * @return 0   set
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtUTime(const char* path, const struct utimbuf* times);

/**
 * lseek64: moves a file's position.
 *
 * @param fd      an open file
 * @param offset  bytes, from where whence says
 * @param whence  SEEK_SET, SEEK_CUR or SEEK_END
 *
 * @return the position from the file's beginning, in bytes
 * @return -1  the system refused; errno tells why
 */
OPL_API int64_t OPL_CrtLSeek(int32_t fd, int64_t offset, int32_t whence);

/**
 * open64: opens a file of any size.
 *
 * @param path   the file
 * @param flags  O_*
 * @param mode   permissions of a file that is made; looked at with O_CREAT only
 *
 * @return the descriptor, which the caller closes
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtOpen(const char* path, int32_t flags, uint32_t mode);

/**
 * close: closes a descriptor, which is gone even when the call fails.
 *
 * @param fd  an open descriptor
 *
 * @return 0   closed
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtClose(int32_t fd);

/**
 * creat64: makes a file, or empties it, and opens it for writing.
 *
 * @param path  the file
 * @param mode  permissions of a file that is made
 *
 * @return the descriptor, which the caller closes
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtCreat(const char* path, uint32_t mode);

/**
 * dup: a second descriptor for the same open file.
 *
 * @param fd  an open descriptor
 *
 * @return the descriptor, which the caller closes
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtDup(int32_t fd);

/**
 * pipe: makes a pipe.
 *
 * @param fds  receives the read end and the write end
 *
 * @return 0   made
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtPipe(int32_t fds[2]);

/**
 * socket: makes a socket.
 *
 * @param family    AF_*
 * @param type      SOCK_*
 * @param protocol  0 for the usual one
 *
 * @return the descriptor, which the caller closes
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtSocket(int32_t family, int32_t type, int32_t protocol);

/**
 * socketpair: makes two sockets that are connected with each other.
 *
 * @param family    AF_UNIX
 * @param type      SOCK_*
 * @param protocol  0 for the usual one
 * @param fds       receives both ends
 *
 * @return 0   made
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtSocketPair(int32_t family, int32_t type, int32_t protocol, int32_t fds[2]);

/**
 * accept: takes a waiting connection from a listening socket.
 *
 * @param fd       the listening socket
 * @param address  receives the peer's address; may be null
 * @param length   bytes of address, and afterwards of what it holds; null with a null address
 *
 * @return the connection's descriptor, which the caller closes
 * @return -1  the system refused, or a signal came; errno tells why
 */
OPL_API int32_t OPL_CrtAccept(int32_t fd, struct sockaddr* address, socklen_t* length);

/** @} */

/**
 * @defgroup crtown Wrappers with behaviour of their own
 * @{
 */

/**
 * What OPL_CrtStat and OPL_CrtFStat tell: 72 bytes in this order, in both widths. A time after January 2038
 * is INT32_MAX in the 64-bit library; in the 32-bit library the system refuses to tell of such a file
 * (EOVERFLOW).
 */
#pragma pack(push, 4)
typedef struct OPL_CrtStatRecord {
  uint32_t mode;            /**< type and permissions */
  uint64_t inode;           /**< number within the device */
  uint64_t device;          /**< the device that holds the file */
  uint64_t specialDevice;   /**< the device that a device file stands for */
  uint32_t linkCount;       /**< names of the file */
  uint32_t userId;          /**< owner */
  uint32_t groupId;         /**< owner's group */
  int64_t size;             /**< bytes */
  int32_t accessTime;       /**< seconds since 1970; see above for a time after January 2038 */
  int32_t modificationTime; /**< the same */
  int32_t changeTime;       /**< the same, of the last change of status */
  uint32_t blockSize;       /**< preferred bytes for reading and writing */
  uint64_t blocks;          /**< allocated, of 512 bytes each */
} OPL_CrtStatRecord;
#pragma pack(pop)

/** How a command ended: the kinds of OPL_CrtSystem. */
enum {
  OPL_CRT_SYSTEM_UNKNOWN = 0, /**< neither of the others; the value is -1 */
  OPL_CRT_SYSTEM_EXITED = 1,  /**< the value is the exit status */
  OPL_CRT_SYSTEM_SIGNALED = 2 /**< the value is the number of the signal that ended it */
};

/**
 * Makes a System V key from a file and a number.
 *
 * @param path       an existing file
 * @param projectId  not 0; the system uses the low 8 bits
 *
 * @return the key as ftok makes it
 * @return -1  projectId is 0 (errno is EINVAL), or the file cannot be looked at (errno as stat sets it)
 */
OPL_API int32_t OPL_CrtFtok(const char* path, uint32_t projectId);

/**
 * Waits that many seconds. A signal ends the wait early.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param seconds  how long
 *
 * @return 0 always
 */
OPL_API int32_t OPL_CrtSleep(uint32_t seconds);

/**
 * Waits that many milliseconds. A signal ends the wait early.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param milliseconds  how long
 *
 * @return 0 always
 */
OPL_API int32_t OPL_CrtMilliSleep(uint32_t milliseconds);

/**
 * Tells about a file, links followed.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param path   the file
 * @param pStat  receives the record, all zero on failure; may be null
 *
 * @return 0   told
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtStat(const char* path, OPL_CrtStatRecord* pStat);

/**
 * Tells about an open file, as OPL_CrtStat does.
 *
 * @callable at any time, by any thread, in a signal handler too
 *
 * @param fd     the open file
 * @param pStat  receives the record, all zero on failure; may be null
 *
 * @return 0   told
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtFStat(int32_t fd, OPL_CrtStatRecord* pStat);

/**
 * Tells the time of day in seconds and milliseconds. The record's time zone and daylight-saving fields are 0.
 *
 * @param pTime  receives the time, on success only
 *
 * @return OPL_OK           told
 * @return OPL_CRT_E_FTIME  the system refused
 */
OPL_API OPL_Result OPL_CrtFTime(struct timeb* pTime);

/**
 * Tells the time of day in seconds and microseconds.
 *
 * @param pTime  receives the time, on success only
 *
 * @return OPL_OK                  told
 * @return OPL_CRT_E_GETTIMEOFDAY  the system refused
 */
OPL_API OPL_Result OPL_CrtGetTimeOfDay(struct timeval* pTime);

/**
 * Sets a file's length. What is cut off is lost; what is added reads as zeros.
 *
 * @param path    the file
 * @param length  bytes
 *
 * @return 0   set
 * @return -1  the system refused; errno tells why, and the error record holds a message
 */
OPL_API int32_t OPL_CrtTruncate(const char* path, int64_t length);

/**
 * Runs a command in the shell and waits for its end.
 *
 * @param command  for /bin/sh -c; null asks whether there is a shell, which gives kind
 *                 OPL_CRT_SYSTEM_EXITED or OPL_CRT_SYSTEM_SIGNALED as the system's answer happens to read
 * @param pKind    receives one of OPL_CRT_SYSTEM_*; may be null
 * @param pValue   receives the exit status or signal number, or -1; may be null
 *
 * @return OPL_OK            the command was run; a shell that did not find it has exited with 127
 * @return OPL_CRT_E_SYSTEM  no process could be made or waited for; nothing is written
 */
OPL_API OPL_Result OPL_CrtSystem(const char* command, uint32_t* pKind, int32_t* pValue);

/** @} */

/** @} */

OPL_END_DECLS

#endif
