/*
 * What the programs of wordmill share: how objects are called, how settings travel, and how errors end a
 * program.
 *
 * wordmill         the controller: starts, asks and stops the daemon
 * wordmilld        the daemon: finds the files, keeps the workers running, answers clients
 * wordmill-worker  a worker as a program of its own, for the width that the daemon has not
 */
#ifndef WORDMILL_H
#define WORDMILL_H

#include <stdbool.h>

#include "OPL_Types.h"

/* Named objects; each name has up to 11 characters. All begin alike, so that one pattern finds them. */
#define MILL_MUTEX "wm.mutex"     /* who takes a file from the queue */
#define MILL_QUEUE "wm.queue"     /* shared memory: the files to do, and what each worker does */
#define MILL_COUNTS "wm.counts"   /* locked shared memory: the words */
#define MILL_WORK_EVENT "wm.work" /* set: workers, look at the queue */
#define MILL_NEWS_EVENT "wm.news" /* set: daemon, look at the workers */
#define MILL_SOCKET "wm"          /* the daemon's local socket */
#define MILL_CONTROLLER_NAME "wm" /* begins the daemon's controller file */
#define MILL_START_LOCK "control" /* lock file: one controller starts a daemon at a time */
#define MILL_OWN_FILES "wm.*"     /* what a daemon that was killed may have left */

/* The environment hands settings from the controller to the daemon and on to the workers. */
#define MILL_ENV_INSTANCE "WORDMILL_INSTANCE" /* who shares objects; else the user's id */
#define MILL_ENV_TREES "WORDMILL_TREES"       /* directories, with ':' between them */
#define MILL_ENV_WORKERS "WORDMILL_WORKERS"   /* number of workers */
#define MILL_ENV_OTHER "WORDMILL_OTHER"       /* the worker program of the other width, for a mixed mill */
#define MILL_ENV_FAULT "WORDMILL_FAULT"       /* allows faults; where the first worker is to hang */

/* How a command ends, for scripts; the first word of each reply of the daemon. */
enum { MILL_OK = 0, MILL_NO = 1, MILL_USAGE = 2 };

enum {
  MILL_WORKERS_MAX = 32,
  MILL_PATH_SIZE = 4096,
  MILL_REQUEST_SIZE = 256,
  MILL_NAME_SIZE = 300 /* "wordmilld:INSTANCE:" */
};

/* The numbers of the answer to "progress", behind the state, in this order. */
enum {
  PROGRESS_DONE = 0, /* files, the skipped ones too */
  PROGRESS_FILES = 1,
  PROGRESS_WORDS = 2,
  PROGRESS_DIFFERENT = 3,
  PROGRESS_SKIPPED = 4,
  PROGRESS_MS = 5,
  PROGRESS_COUNT = 6
};

#define MILL_WIDTH ((uint32_t)(8 * sizeof(void*)))

/* The name under which the daemon of this instance is listed. */
void MillProcessName(char name[MILL_NAME_SIZE]);

/* A setting's value, or the default where it is not set. */
const char* MillSetting(const char* variable, const char* otherwise);

/* Says what happened: on standard error, and in the log when TALVEN_HOME tells where that is. */
void MillSay(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Ends the program when a call of the library has failed, with what its error record says. */
void MillRequire(OPL_Result rc, const char* what);
void MillFail(OPL_Result rc, const char* what) __attribute__((noreturn));

/* As MillRequire, but goes on. Returns whether the call succeeded. */
bool MillCheck(OPL_Result rc, const char* what);

/* Zero-filled memory from the library's allocator. It is never null: a program without memory ends. */
void* MillAllocate(uint32_t count, uint32_t size);

/* Null is ignored. */
void MillFree(void* memory);

/* Milliseconds since some moment, the same for all processes. */
uint32_t MillNow(void);

#endif
