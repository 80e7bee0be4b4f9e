/*
 * Runtime: the bounded formatter, and the system calls and runtime functions under one name on every
 * platform.
 *
 * Everything here works at any time. Files may be larger than 2 GB in both widths.
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

enum {
  OPL_CRT_E_FTIME = 0x051001,       /**< the time could not be read (OPL_CrtFTime) */
  OPL_CRT_E_SYSTEM = 0x051002,      /**< the command could not be run */
  OPL_CRT_E_GETTIMEOFDAY = 0x051003 /**< the time could not be read (OPL_CrtGetTimeOfDay) */
};

/*
 * The formatter
 *
 * Formats hold text and conversions %[flags][width][.precision][modifier]conversion:
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
 *
 * Any other character after % stands for itself and takes no argument; %f prints f. A % that ends the format
 * prints nothing. Numbers are decimal, octal or hexadecimal whatever the locale. A null format is empty.
 */

/**
 * Formats into a buffer, never beyond its end. A result that does not fit is cut and terminated.
 *
 * @param buffer     receives the text; may be null when size is 0
 * @param size       bytes of buffer; 0 stores nothing at all
 * @param format     see above
 * @param arguments  the format's arguments; indeterminate afterwards, as with vsnprintf
 *
 * @return the length of the whole result without its terminator, also when it was cut; at most INT32_MAX
 */
OPL_API int32_t OPL_CrtVSNPrintf(char* buffer, uint32_t size, const char* format, va_list arguments);

/** The same with the arguments themselves. */
OPL_API int32_t OPL_CrtSNPrintf(char* buffer, uint32_t size, const char* format, ...);

/**
 * Formats into new memory.
 *
 * @param pText      receives the text, released with OPL_MemFree and a null context; null on failure
 * @param format     see above
 * @param arguments  the format's arguments
 *
 * @return the length of the text without its terminator
 * @return -1  no memory, or a text of INT32_MAX characters or more; errno is ENOMEM
 */
OPL_API int32_t OPL_CrtVASPrintf(char** pText, const char* format, va_list arguments);

/** The same with the arguments themselves. */
OPL_API int32_t OPL_CrtASPrintf(char** pText, const char* format, ...);

/**
 * Formats into new memory of at most a given size; a longer text is cut and terminated.
 *
 * @param pText      receives the text, released with OPL_MemFree and a null context; null on failure and when
 *                   limit is 0
 * @param limit      the most bytes to allocate, terminator included; 0 allocates nothing
 * @param format     see above
 * @param arguments  the format's arguments
 *
 * @return the length of the whole result without its terminator, also when it was cut
 * @return -1  no memory; errno is ENOMEM
 */
OPL_API int32_t OPL_CrtVASNPrintf(char** pText, uint32_t limit, const char* format, va_list arguments);

/** The same with the arguments themselves. */
OPL_API int32_t OPL_CrtASNPrintf(char** pText, uint32_t limit, const char* format, ...);

/*
 * System calls under the library's names. Each returns what the system's function returns, with errno set by
 * it, and takes the same arguments.
 */

OPL_API int32_t OPL_CrtStrCaseCmp(const char* a, const char* b);                   /**< strcasecmp */
OPL_API int32_t OPL_CrtStrNCaseCmp(const char* a, const char* b, uint32_t length); /**< strncasecmp */
OPL_API long OPL_CrtSysConf(int32_t name);                                         /**< sysconf */
OPL_API int32_t OPL_CrtUTime(const char* path, const struct utimbuf* times);       /**< utime */
OPL_API char* OPL_CrtAscTime(const struct tm* brokenDown, char* buffer);           /**< asctime_r: 26 bytes */
OPL_API char* OPL_CrtCTime(const time_t* seconds, char* buffer);                   /**< ctime_r: 26 bytes */
OPL_API struct tm* OPL_CrtGmTime(const time_t* seconds, struct tm* brokenDown);    /**< gmtime_r */
OPL_API struct tm* OPL_CrtLocalTime(const time_t* seconds, struct tm* brokenDown); /**< localtime_r */
OPL_API int32_t OPL_CrtRand(uint32_t* seed);                                       /**< rand_r */
OPL_API char* OPL_CrtStrTok(char* text, const char* delimiters, char** save);      /**< strtok_r */
OPL_API int64_t OPL_CrtLSeek(int32_t fd, int64_t offset, int32_t whence);          /**< lseek64 */
OPL_API int32_t OPL_CrtOpen(const char* path, int32_t flags, uint32_t mode); /**< open64; mode with O_CREAT */
OPL_API int32_t OPL_CrtClose(int32_t fd);                                    /**< close */
OPL_API int32_t OPL_CrtCreat(const char* path, uint32_t mode);               /**< creat64 */
OPL_API int32_t OPL_CrtDup(int32_t fd);                                      /**< dup */
OPL_API int32_t OPL_CrtPipe(int32_t fds[2]);                                 /**< pipe: read end, write end */
OPL_API int32_t OPL_CrtSocket(int32_t family, int32_t type, int32_t protocol); /**< socket */
/** socketpair: both ends */
OPL_API int32_t OPL_CrtSocketPair(int32_t family, int32_t type, int32_t protocol, int32_t fds[2]);
OPL_API int32_t OPL_CrtAccept(int32_t fd, struct sockaddr* address, socklen_t* length); /**< accept */
OPL_API struct mallinfo OPL_CrtMallInfo(void);                                          /**< mallinfo */

/*
 * Wrappers with behaviour of their own
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

/** Waits that many seconds. A signal ends the wait early. @return 0 always */
OPL_API int32_t OPL_CrtSleep(uint32_t seconds);

/** Waits that many milliseconds. A signal ends the wait early. @return 0 always */
OPL_API int32_t OPL_CrtMilliSleep(uint32_t milliseconds);

/**
 * Tells about a file, links followed.
 *
 * @param pStat  receives the record, all zero on failure; may be null
 *
 * @return 0   told
 * @return -1  the system refused; errno tells why
 */
OPL_API int32_t OPL_CrtStat(const char* path, OPL_CrtStatRecord* pStat);

/** The same for an open file. */
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

OPL_END_DECLS

#endif
