/*
 * The queue: shared memory with the files to do, and with what each worker is doing.
 *
 * The daemon makes and fills it. Taking a file is one 32-bit store, made under the named mutex: wherever its
 * holder is killed, the queue is whole. Which files are done is not told here but in the counts (counts.h),
 * with which it must agree.
 *
 * Processes of both widths use it: fixed widths, and offsets from its beginning instead of pointers.
 */
#ifndef WORDMILL_QUEUE_H
#define WORDMILL_QUEUE_H

#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "wordmill.h"

/* What a worker does. It alone writes that while it lives; the daemon before and after. */
enum {
  WORKER_NONE = 0, /* to be started */
  WORKER_STARTING = 1,
  WORKER_IDLE = 2,
  WORKER_COUNTING = 3,
  WORKER_IN_MUTEX = 4,  /* hangs, as the holder of the mutex */
  WORKER_IN_COUNTS = 5, /* hangs, half-way through writing counts */
  WORKER_ENDED = 6
};

/* Where a worker is to hang; bits, cleared by the first that comes by. */
enum { FAULT_MUTEX = 1, FAULT_COUNTS = 2 };

enum { QUEUE_NONE = 0xFFFFFF /* no file is left */ };

typedef struct QueueWorker {
  uint32_t pid; /* 0 until it runs */
  uint32_t width;
  uint32_t state;
  uint32_t files;
  uint32_t words;
  uint32_t startedMs;
  uint32_t countedMs; /* when it had counted its last file */
  uint32_t deaths;    /* written by the daemon: how many of this number have died */
} QueueWorker;

typedef struct QueueFile {
  uint32_t name;    /* offset */
  uint32_t takenBy; /* QueueTaker; 0: nobody's */
} QueueFile;

/* Changes with the layout of what processes share, here or in the counts. */
enum { QUEUE_LAYOUT = 1 };

typedef struct Queue {
  uint32_t layout;
  uint32_t daemonPid;
  uint32_t workerCount;
  uint32_t fileCount;
  uint32_t files;  /* offset of QueueFile[fileCount] */
  uint32_t next;   /* under the mutex: no file before this one is free, unless rescan is set */
  uint32_t rescan; /* the daemon has put files back: begin at the first again */
  uint32_t stop;   /* workers are to end */
  uint32_t fault;  /* FAULT_* */
  QueueWorker workers[MILL_WORKERS_MAX];
} Queue;

/* Compiled for either width, it fails where the layouts would differ. */
typedef char QueueWorkerHas32Bytes[sizeof(QueueWorker) == 32 ? 1 : -1];
typedef char QueueHasTheSameSize[sizeof(Queue) == 36 + 32 * MILL_WORKERS_MAX ? 1 : -1];

/* What other processes may look at, or what counts if the next instruction is never reached, goes through
 * these two: the compiler moves nothing across them. */
#define SHARED_SET(place, value) __atomic_store_n(&(place), (value), __ATOMIC_SEQ_CST)
#define SHARED_GET(place) __atomic_load_n(&(place), __ATOMIC_SEQ_CST)

/* A process's handles of the queue. */
typedef struct QueueHandle {
  Queue* queue;
  OPL_SharedMem* memory;
  OPL_SyncMutex* mutex;
  OPL_SyncEvent* work;
  OPL_SyncEvent* news;
} QueueHandle;

/* For the daemon: makes everything, with room for so many files and bytes of names. */
void QueueCreate(QueueHandle* handle, uint32_t fileCount, uint32_t nameBytes);

/* For a worker. */
void QueueOpen(QueueHandle* handle);

void QueueClose(QueueHandle* handle);

QueueFile* QueueFiles(Queue* queue);
const char* QueueName(const Queue* queue, uint32_t file);

/* Whom a worker's files name: its number, and how many of that number have died before it. A replacement is
 * thus told from those whose files are to go back. */
uint32_t QueueTaker(const Queue* queue, uint32_t worker);

/* Whether a file was taken by a worker that has died. */
bool QueueIsLost(const Queue* queue, uint32_t takenBy);

/* Takes a file for a worker, or tells QUEUE_NONE. */
uint32_t QueueTake(QueueHandle* handle, uint32_t worker);

/* For a worker: whether it is to end. A daemon that was killed cannot say so. */
bool QueueIsStopped(const Queue* queue);

/* Hangs if that was asked for, until the calling worker is killed or is to end. */
void QueueHangHere(Queue* queue, uint32_t worker, uint32_t fault, uint32_t state);

const char* QueueStateName(uint32_t state);

/* "mutex" or "counts"; 0 for another name. */
uint32_t QueueFaultFromName(const char* name);

#endif
