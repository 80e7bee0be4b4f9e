/*
 * The daemon: finds the files, starts workers and replaces those that die, and answers clients. It waits for
 * all of that in one place.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_Sig.h"
#include "mill.h"
#include "worker.h"

enum {
  GIVE_BACK_MS = 50,
  RETRY_MS = 200,
  STOP_MS = 5000,
  STOP_LOOK_MS = 10,
  FAILED_STARTS_MAX = 10,
  TREE_LOCK_SIZE = 32
};

extern char** environ; /* NOLINT(readability-identifier-naming): the system's own */

/* For the signal handlers. One post is enough until the loop has seen it; more would fill the event. */
static OPL_SyncPrivateEvent* gWake;
static volatile sig_atomic_t gIsWoken;
static volatile sig_atomic_t gIsStopAsked;

static void Wake(void) {
  if (gIsWoken != 0 || gWake == NULL) return;
  gIsWoken = 1;
  const int number = errno;
  (void)OPL_SyncPrivateEventPost(gWake);
  errno = number;
}

static void OnStop(void* argument) {
  (void)argument;
  gIsStopAsked = 1;
  Wake();
}

static void OnChild(int signalNumber) {
  (void)signalNumber;
  Wake();
}

/* Setting up. */

static void LockTrees(Mill* mill, const char* trees) {
  char name[TREE_LOCK_SIZE];
  snprintf(name, sizeof name, "wm.tree-%08x", WordHash(trees));
  MillRequire(OPL_SyncLockFileCreate(&mill->lock, name), "locking the tree");
}

static void FillQueue(Mill* mill, uint32_t workerCount) {
  QueueCreate(&mill->handle, mill->tree.fileCount, mill->tree.nameBytes);
  Queue* queue = mill->handle.queue;
  QueueFile* files = QueueFiles(queue);
  char* names = (char*)(files + queue->fileCount);
  memcpy(names, mill->tree.names, mill->tree.nameBytes);
  char* name = names;
  for (uint32_t i = 0; i < queue->fileCount; ++i, name += strlen(name) + 1)
    files[i].name = (uint32_t)(name - (char*)queue);
  queue->workerCount = workerCount;
  queue->fault = QueueFaultFromName(MillSetting(MILL_ENV_FAULT, ""));
  MillRequire(OPL_ProcessIdGet(&queue->daemonPid), "OPL_ProcessIdGet");
}

static void SetUp(Mill* mill) {
  const char* trees = MillSetting(MILL_ENV_TREES, "");
  const unsigned long workers = strtoul(MillSetting(MILL_ENV_WORKERS, "1"), NULL, 10);
  LockTrees(mill, trees);
  TreeCreate(&mill->tree, trees);
  FillQueue(mill, workers < MILL_WORKERS_MAX ? (uint32_t)workers : MILL_WORKERS_MAX);
  mill->shared = CountsCreate(&mill->counts, mill->tree.fileCount, mill->tree.bytes);
  mill->other = MillSetting(MILL_ENV_OTHER, NULL);
  MillRequire(OPL_SyncPrivateEventCreate(&gWake, 0, 0), "making the private event");
  MillRequire(OPL_SigSignal(0, SIGCHLD, OnChild, NULL), "handling SIGCHLD");
  ClientsCreate(&mill->clients, MillAnswer, mill);
  mill->startedMs = MillNow();
}

/* Until here errors went to the controller's terminal; whoever waits for its output to end is let go. */
static void LeaveTerminal(void) {
  const int32_t null = OPL_CrtOpen("/dev/null", O_RDWR, 0);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) dup2(null, fd);
  if (null > STDERR_FILENO) OPL_CrtClose(null);
}

/* Workers. */

/* In the child. */
static void RunTask(void* argument) {
  OPL_SigSignal(0, SIGCHLD, SIG_DFL, NULL);
  WorkerRun(*(const uint32_t*)argument);
}

static bool SpawnProgram(const char* program, uint32_t number) {
  char name[] = "wordmill-worker";
  char operand[12];
  char* arguments[] = {name, operand, NULL};
  pid_t pid = 0;
  snprintf(operand, sizeof operand, "%u", number);
  const int error = posix_spawn(&pid, program, NULL, NULL, arguments, environ);
  if (error != 0) MillSay("cannot start %s: %s", program, strerror(error));
  return error == 0;
}

static void StartWorker(Mill* mill, uint32_t number) {
  QueueWorker* worker = &mill->handle.queue->workers[number];
  const uint32_t deaths = worker->deaths;
  memset(worker, 0, sizeof *worker);
  worker->deaths = deaths;
  worker->state = WORKER_STARTING;
  const bool isStarted = mill->other != NULL && number % 2 == 1
                             ? SpawnProgram(mill->other, number)
                             : MillCheck(OPL_TaskCreate(0, RunTask, &number), "OPL_TaskCreate");
  if (!isStarted) worker->state = WORKER_ENDED;
}

/*
 * A task's process id is not told: the worker writes it down when it runs. So one starts at a time, and a
 * child that nobody knows can only have been that one.
 */
static void StartNextWorker(Mill* mill) {
  const Queue* queue = mill->handle.queue;
  uint32_t next = queue->workerCount;
  for (uint32_t i = queue->workerCount; i-- > 0;) {
    const uint32_t state = SHARED_GET(queue->workers[i].state);
    if (state == WORKER_STARTING) return;
    if (state == WORKER_NONE) next = i;
  }
  if (next < queue->workerCount) StartWorker(mill, next);
}

static QueueWorker* FindWorker(Queue* queue, uint32_t pid) {
  QueueWorker* starting = NULL;
  for (uint32_t i = 0; i < queue->workerCount; ++i) {
    if (SHARED_GET(queue->workers[i].pid) == pid) return &queue->workers[i];
    if (SHARED_GET(queue->workers[i].pid) == 0 && queue->workers[i].state == WORKER_STARTING)
      starting = &queue->workers[i];
  }
  return starting;
}

/* A replacement is started at once, unless workers die before they have begun, again and again. */
static void NoteDeath(Mill* mill, uint32_t pid, int status) {
  Queue* queue = mill->handle.queue;
  QueueWorker* worker = FindWorker(queue, pid);
  if (worker == NULL) return;
  const bool isExpected = worker->state == WORKER_ENDED;
  if (!isExpected)
    MillSay("worker %u (process %u, %s) ended with %s %d", (unsigned)(worker - queue->workers) + 1, pid,
            QueueStateName(worker->state), WIFSIGNALED(status) ? "signal" : "status",
            WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
  mill->failedStarts = worker->pid == 0 ? mill->failedStarts + 1 : 0;
  worker->pid = 0;
  if (isExpected) return;
  ++worker->deaths;
  worker->state = mill->failedStarts > FAILED_STARTS_MAX ? WORKER_ENDED : WORKER_NONE;
  mill->areFilesLost = true;
}

/* Returns whether there are children left. */
static bool Reap(Mill* mill) {
  int status = 0;
  pid_t pid = waitpid(-1, &status, WNOHANG);
  for (; pid > 0; pid = waitpid(-1, &status, WNOHANG)) NoteDeath(mill, (uint32_t)pid, status);
  return pid == 0;
}

/* Taking the counts completes what dead workers have committed: what is not done then goes back. A worker
 * that hangs may hold them: then the loop comes here again. */
static void GiveFilesBack(Mill* mill) {
  Queue* queue = mill->handle.queue;
  QueueFile* files = QueueFiles(queue);
  Counts* counts = NULL;
  if (MillTakeCounts(mill, OPL_SHAREDMEM_EXCLUSIVE, GIVE_BACK_MS, &counts) != OPL_OK) return;
  const uint8_t* states = CountsStates(counts);
  for (uint32_t i = 0; i < queue->fileCount; ++i)
    if (states[i] == FILE_TO_DO && QueueIsLost(queue, SHARED_GET(files[i].takenBy)))
      SHARED_SET(files[i].takenBy, 0);
  CountsRelease(mill->counts);
  mill->areFilesLost = false;
  SHARED_SET(queue->rescan, 1);
  MillCheck(OPL_SyncEventPost(mill->handle.work), "posting work");
}

/* Workers end by themselves; those that are stopped or hang are killed in the end. */
static void StopWorkers(Mill* mill) {
  Queue* queue = mill->handle.queue;
  const uint32_t startedMs = MillNow();
  SHARED_SET(queue->stop, 1);
  MillCheck(OPL_SyncEventPost(mill->handle.work), "posting work");
  while (Reap(mill)) {
    for (uint32_t i = 0; i < queue->workerCount && MillNow() - startedMs > STOP_MS; ++i)
      if (SHARED_GET(queue->workers[i].pid) != 0) kill((pid_t)queue->workers[i].pid, SIGKILL);
    OPL_CrtMilliSleep(STOP_LOOK_MS);
  }
}

/* The loop. */

/* Clients, news of the workers, and signals, which post the private event: whatever comes first. */
static void Wait(Mill* mill, OPL_SyncWaitableEvent* wake, OPL_SyncWaitableEvent* news, int32_t timeoutMs) {
  OPL_SyncWaitableEvent* events[2 + LISTENERS + CLIENTS_MAX] = {wake, news};
  uint32_t ready[2 + LISTENERS + CLIENTS_MAX] = {0};
  const uint32_t count = 2 + ClientsEvents(&mill->clients, events + 2);
  const OPL_Result rc = OPL_SyncWaitableEventWaitForMultiple(0, count, events, ready, &timeoutMs);
  if (rc == OPL_SYNC_E_TIMEOUT) return;
  MillRequire(rc, "waiting");
  if (ready[0] != 0) {
    gIsWoken = 0;
    MillCheck(OPL_SyncPrivateEventReset(gWake), "resetting the private event");
  }
  if (ready[1] != 0) MillCheck(OPL_SyncEventReset(mill->handle.news), "resetting the news event");
  ClientsServe(&mill->clients, ready + 2);
}

static void Loop(Mill* mill) {
  OPL_SyncWaitableEvent* wake = NULL;
  OPL_SyncWaitableEvent* news = NULL;
  MillRequire(OPL_SyncPrivateEventWaitableEventCreate(gWake, &wake), "waiting for signals");
  MillRequire(OPL_SyncEventWaitableEventCreate(mill->handle.news, &news), "waiting for news");
  while (gIsStopAsked == 0) {
    Reap(mill);
    if (mill->areFilesLost) GiveFilesBack(mill);
    StartNextWorker(mill);
    if (mill->doneMs == 0 && mill->shared->totals.filesDone == mill->handle.queue->fileCount)
      mill->doneMs = MillNow();
    Wait(mill, wake, news, mill->areFilesLost ? RETRY_MS : -1);
  }
  MillCheck(OPL_SyncEventWaitableEventDestroy(mill->handle.news, &news), "waiting for news");
  MillCheck(OPL_SyncPrivateEventWaitableEventDestroy(gWake, &wake), "waiting for signals");
}

static void TearDown(Mill* mill) {
  ClientsDestroy(&mill->clients);
  MillRequire(OPL_SigSignal(0, SIGCHLD, SIG_DFL, NULL), "handling SIGCHLD");
  OPL_SyncPrivateEvent* event = gWake;
  gWake = NULL;
  MillCheck(OPL_SyncPrivateEventClose(&event), "ending the private event");
  MillCheck(OPL_SharedMemLockedClose(&mill->counts), "closing the counts");
  QueueClose(&mill->handle);
  TreeDestroy(&mill->tree);
  MillCheck(OPL_SyncLockFileDestroy(&mill->lock), "unlocking the tree");
  /* Workers that were killed have not closed what they had open: nobody else will. */
  MillCheck(OPL_InitTerminateIPC(0, MILL_OWN_FILES), "removing what killed workers have left");
}

static uint32_t Serve(void* a, void* b, void* c) {
  (void)a;
  (void)b;
  (void)c;
  static Mill mill;
  SetUp(&mill);
  MillRequire(OPL_ServerSetStarted(), "OPL_ServerSetStarted");
  LeaveTerminal();
  Loop(&mill);
  StopWorkers(&mill);
  TearDown(&mill);
  MillCheck(OPL_ServerSetStop(), "OPL_ServerSetStop");
  return MILL_OK;
}

int main(void) {
  OPL_ServerParam* parameters = NULL;
  OPL_Server* server = NULL;
  uint32_t result = MILL_NO;
  MillRequire(OPL_InitBegin(0), "OPL_InitBegin");
  MillRequire(OPL_ServerParamCreate(&parameters, 0), "OPL_ServerParamCreate");
  MillRequire(OPL_ServerParamSet(parameters, OPL_SERVER_PARAM_CONTROLLER_NAME, MILL_CONTROLLER_NAME),
              "OPL_ServerParamSet");
  MillRequire(OPL_ServerCreate(&server, OPL_SERVER_DETACHED, parameters), "OPL_ServerCreate");
  MillRequire(OPL_ServerParamDestroy(&parameters), "OPL_ServerParamDestroy");
  MillRequire(OPL_ServerMain(server, 0, Serve, OnStop, NULL, NULL, NULL, &result), "OPL_ServerMain");
  MillCheck(OPL_ServerDestroy(&server), "OPL_ServerDestroy");
  MillRequire(OPL_InitEnd(0), "OPL_InitEnd");
  return (int)result;
}
