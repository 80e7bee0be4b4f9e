/*
 * A worker's loop; see worker.h. It runs in a task of the daemon, or in the program wordmill-worker.
 */
#include "worker.h"

#include <signal.h>

#include "OPL_Process.h"
#include "OPL_Sig.h"
#include "counts.h"
#include "queue.h"
#include "words.h"

enum { IDLE_MS = 1000 };

typedef struct Worker {
  uint32_t number;
  QueueHandle handle;
  QueueWorker* self; /* in the queue's memory */
  OPL_SharedMemLocked* counts;
  OPL_SyncWaitableEvent* work;
  Words words;
} Worker;

/* The daemon is told to stop by a signal to all its processes, and tells its workers when it is ready to. */
static void LeaveSignalsToTheDaemon(void) {
  static const int32_t kSignals[] = {SIGUSR1, SIGTERM, SIGINT, SIGHUP};
  for (uint32_t i = 0; i < sizeof kSignals / sizeof kSignals[0]; ++i)
    MillRequire(OPL_SigSignal(0, kSignals[i], SIG_IGN, NULL), "ignoring a signal");
}

static void Begin(Worker* worker, uint32_t number) {
  worker->number = number;
  QueueOpen(&worker->handle);
  CountsOpen(&worker->counts);
  MillRequire(OPL_SyncEventWaitableEventCreate(worker->handle.work, &worker->work), "waiting for work");
  WordsCreate(&worker->words);
  worker->self = &worker->handle.queue->workers[number];
  worker->self->width = MILL_WIDTH;
  worker->self->startedMs = MillNow();
  worker->self->countedMs = worker->self->startedMs;
  uint32_t pid = 0;
  MillRequire(OPL_ProcessIdGet(&pid), "OPL_ProcessIdGet");
  SHARED_SET(worker->self->pid, pid);
  SHARED_SET(worker->self->state, WORKER_IDLE);
  MillCheck(OPL_SyncEventPost(worker->handle.news), "posting news");
}

static void End(Worker* worker) {
  SHARED_SET(worker->self->state, WORKER_ENDED);
  WordsDestroy(&worker->words);
  MillCheck(OPL_SyncEventWaitableEventDestroy(worker->handle.work, &worker->work), "waiting for work");
  MillCheck(OPL_SharedMemLockedClose(&worker->counts), "closing the counts");
  QueueClose(&worker->handle);
}

static void HangHalfWay(void* argument) {
  const Worker* worker = argument;
  QueueHangHere(worker->handle.queue, worker->number, FAULT_COUNTS, WORKER_IN_COUNTS);
}

static void Count(Worker* worker, uint32_t file) {
  QueueWorker* self = worker->self;
  SHARED_SET(self->state, WORKER_COUNTING);
  const bool isRead = WordsOfFile(&worker->words, QueueName(worker->handle.queue, file));
  CountsAddFile(worker->counts, file, isRead ? &worker->words : NULL, HangHalfWay, worker);
  ++self->files;
  self->words += worker->words.total;
  self->countedMs = MillNow();
}

/*
 * The event is reset before the queue is looked at once more: what is put there later sets it again. Whoever
 * finds nothing says so, since the last of them makes the work complete.
 */
static uint32_t NextFile(Worker* worker) {
  uint32_t file = QueueTake(&worker->handle, worker->number);
  if (file != QUEUE_NONE) return file;
  MillCheck(OPL_SyncEventReset(worker->handle.work), "resetting the work event");
  file = QueueTake(&worker->handle, worker->number);
  if (file != QUEUE_NONE || QueueIsStopped(worker->handle.queue)) return file;
  if (worker->self->state != WORKER_IDLE) {
    SHARED_SET(worker->self->state, WORKER_IDLE);
    MillCheck(OPL_SyncEventPost(worker->handle.news), "posting news");
  }
  const int32_t timeoutMs = IDLE_MS;
  uint32_t isReady = 0;
  const OPL_Result rc = OPL_SyncWaitableEventWaitForMultiple(0, 1, &worker->work, &isReady, &timeoutMs);
  if (rc != OPL_SYNC_E_TIMEOUT) MillRequire(rc, "waiting for work");
  return QUEUE_NONE;
}

void WorkerRun(uint32_t number) {
  Worker worker = {0};
  LeaveSignalsToTheDaemon();
  Begin(&worker, number);
  while (!QueueIsStopped(worker.handle.queue)) {
    const uint32_t file = NextFile(&worker);
    if (file != QUEUE_NONE) Count(&worker, file);
  }
  End(&worker);
}
