/*
 * The queue of files; see queue.h.
 */
#include "queue.h"

#include <stdlib.h>
#include <string.h>

#include "OPL_Crt.h"
#include "OPL_Process.h"

enum { FAULT_MS = 10, NUMBER_BITS = 8 };

void QueueCreate(QueueHandle* handle, uint32_t fileCount, uint32_t nameBytes) {
  void* address = NULL;
  const uint32_t size = (uint32_t)(sizeof(Queue) + fileCount * sizeof(QueueFile)) + nameBytes;
  MillRequire(OPL_SharedMemCreate(&handle->memory, 0, MILL_QUEUE, &address, size,
                                  OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_ZERO),
              "creating the queue");
  MillRequire(
      OPL_SyncMutexCreate(&handle->mutex, 0, MILL_MUTEX, OPL_SYNC_MUTEX_PRIVATE | OPL_SYNC_MUTEX_RESTART),
      "creating the mutex");
  MillRequire(OPL_SyncEventCreate(&handle->work, 0, MILL_WORK_EVENT, OPL_SYNC_EVENT_PRIVATE),
              "creating the work event");
  MillRequire(OPL_SyncEventCreate(&handle->news, 0, MILL_NEWS_EVENT, OPL_SYNC_EVENT_PRIVATE),
              "creating the news event");
  handle->queue = address;
  handle->queue->layout = QUEUE_LAYOUT;
  handle->queue->fileCount = fileCount;
  handle->queue->files = sizeof(Queue);
}

void QueueOpen(QueueHandle* handle) {
  void* address = NULL;
  MillRequire(OPL_SharedMemOpen(&handle->memory, 0, MILL_QUEUE, &address, OPL_SHAREDMEM_PRIVATE),
              "opening the queue");
  MillRequire(
      OPL_SyncMutexOpen(&handle->mutex, 0, MILL_MUTEX, OPL_SYNC_MUTEX_PRIVATE | OPL_SYNC_MUTEX_RESTART),
      "opening the mutex");
  MillRequire(OPL_SyncEventOpen(&handle->work, 0, MILL_WORK_EVENT, OPL_SYNC_EVENT_PRIVATE),
              "opening the work event");
  MillRequire(OPL_SyncEventOpen(&handle->news, 0, MILL_NEWS_EVENT, OPL_SYNC_EVENT_PRIVATE),
              "opening the news event");
  handle->queue = address;
  if (handle->queue->layout == QUEUE_LAYOUT) return;
  MillSay("the daemon is of another version");
  exit(MILL_NO);
}

/* The last close of all processes removes each object. */
void QueueClose(QueueHandle* handle) {
  MillCheck(OPL_SyncEventClose(&handle->news), "closing the news event");
  MillCheck(OPL_SyncEventClose(&handle->work), "closing the work event");
  MillCheck(OPL_SyncMutexClose(&handle->mutex), "closing the mutex");
  handle->queue = NULL;
  MillCheck(OPL_SharedMemClose(&handle->memory), "closing the queue");
}

QueueFile* QueueFiles(Queue* queue) { return (QueueFile*)(void*)((char*)queue + queue->files); }

const char* QueueName(const Queue* queue, uint32_t file) {
  const QueueFile* files = (const QueueFile*)(const void*)((const char*)queue + queue->files);
  return (const char*)queue + files[file].name;
}

uint32_t QueueTaker(const Queue* queue, uint32_t worker) {
  return queue->workers[worker].deaths << NUMBER_BITS | (worker + 1);
}

bool QueueIsLost(const Queue* queue, uint32_t takenBy) {
  const uint32_t number = takenBy & ((1U << NUMBER_BITS) - 1);
  return number != 0 && takenBy != QueueTaker(queue, number - 1);
}

/*
 * rescan is cleared after next is put back: a worker that is killed in between leaves both for the one after
 * it. What the daemon puts back later sets it again, and what it put back before is seen by the search.
 */
static uint32_t TakeLocked(Queue* queue, uint32_t worker) {
  QueueFile* files = QueueFiles(queue);
  if (SHARED_GET(queue->rescan) != 0) {
    SHARED_SET(queue->next, 0);
    SHARED_SET(queue->rescan, 0);
  }
  for (uint32_t file = queue->next; file < queue->fileCount; ++file) {
    if (SHARED_GET(files[file].takenBy) != 0) continue;
    SHARED_SET(files[file].takenBy, QueueTaker(queue, worker));
    QueueHangHere(queue, worker, FAULT_MUTEX, WORKER_IN_MUTEX);
    SHARED_SET(queue->next, file + 1);
    return file;
  }
  SHARED_SET(queue->next, queue->fileCount);
  QueueHangHere(queue, worker, FAULT_MUTEX, WORKER_IN_MUTEX);
  return QUEUE_NONE;
}

uint32_t QueueTake(QueueHandle* handle, uint32_t worker) {
  MillRequire(OPL_SyncMutexAcquire(handle->mutex), "taking the mutex");
  const uint32_t file = TakeLocked(handle->queue, worker);
  MillRequire(OPL_SyncMutexRelease(handle->mutex), "giving the mutex back");
  return file;
}

bool QueueIsStopped(const Queue* queue) {
  uint32_t parent = 0;
  MillCheck(OPL_ProcessParentIdGet(&parent), "OPL_ProcessParentIdGet");
  return SHARED_GET(queue->stop) != 0 || parent != queue->daemonPid;
}

void QueueHangHere(Queue* queue, uint32_t worker, uint32_t fault, uint32_t state) {
  if ((SHARED_GET(queue->fault) & fault) == 0) return;
  __atomic_fetch_and(&queue->fault, ~fault, __ATOMIC_SEQ_CST);
  const uint32_t before = queue->workers[worker].state;
  SHARED_SET(queue->workers[worker].state, state);
  while (!QueueIsStopped(queue)) OPL_CrtMilliSleep(FAULT_MS);
  SHARED_SET(queue->workers[worker].state, before);
}

const char* QueueStateName(uint32_t state) {
  static const char* const kNames[] = {"none",     "starting",  "idle", "counting",
                                       "in-mutex", "in-counts", "ended"};
  return state < sizeof kNames / sizeof kNames[0] ? kNames[state] : "unknown";
}

uint32_t QueueFaultFromName(const char* name) {
  if (strcmp(name, "mutex") == 0) return FAULT_MUTEX;
  return strcmp(name, "counts") == 0 ? FAULT_COUNTS : 0;
}
