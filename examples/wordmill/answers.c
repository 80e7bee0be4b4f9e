/*
 * What the daemon answers its clients; the requests are listed in clients.h.
 */
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include "OPL_Process.h"
#include "OPL_Sig.h"
#include "mill.h"

enum { PATIENCE_MS = 300 };

static void WakeUp(int signalNumber) { (void)signalNumber; }

/* A repeated alarm ends the wait for the lock, also when the first comes just before the wait begins. */
OPL_Result MillTakeCounts(Mill* mill, uint32_t access, uint32_t patienceMs, Counts** pCounts) {
  static const struct itimerval kOften = {{0, 20000}, {0, 20000}};
  static const struct itimerval kNever = {{0, 0}, {0, 0}};
  const uint32_t startedMs = MillNow();
  MillRequire(OPL_SigSignal(0, SIGALRM, WakeUp, NULL), "handling SIGALRM");
  setitimer(ITIMER_REAL, &kOften, NULL);
  OPL_Result rc = OPL_SYNC_E_INTERRUPTED;
  while (rc == OPL_SYNC_E_INTERRUPTED && MillNow() - startedMs < patienceMs)
    rc = CountsTake(mill->counts, access, pCounts);
  setitimer(ITIMER_REAL, &kNever, NULL);
  return rc;
}

static uint32_t Busy(Reply* reply) {
  ReplyAdd(reply, "the counts are being written: try again\n");
  return MILL_NO;
}

static uint32_t PerSecond(uint32_t count, uint32_t ms) {
  return (uint32_t)((uint64_t)count * 1000 / (ms != 0 ? ms : 1));
}

static const char* Phase(const Mill* mill) {
  const Queue* queue = mill->handle.queue;
  if (mill->doneMs != 0) return "done";
  for (uint32_t i = 0; i < queue->workerCount; ++i)
    if (queue->workers[i].state != WORKER_ENDED) return "indexing";
  return "failed";
}

static uint32_t ElapsedMs(const Mill* mill) {
  return (mill->doneMs != 0 ? mill->doneMs : MillNow()) - mill->startedMs;
}

static void AddDaemon(const Mill* mill, Reply* reply) {
  const Queue* queue = mill->handle.queue;
  const CountsTotals totals = mill->shared->totals;
  uint32_t deaths = 0;
  for (uint32_t i = 0; i < queue->workerCount; ++i) deaths += queue->workers[i].deaths;
  ReplyAdd(reply, "daemon    pid %-7u %u bits  %-9s %u of %u files  %u words  %u different  %u skipped  ",
           queue->daemonPid, MILL_WIDTH, Phase(mill), totals.filesDone, queue->fileCount, totals.words,
           totals.differentWords, totals.filesSkipped);
  ReplyAdd(reply, "%u replaced  %u ms\n", deaths, ElapsedMs(mill));
}

/* For programs: the state, and PROGRESS_*. */
static uint32_t AnswerProgress(Mill* mill, const char* argument, Reply* reply) {
  (void)argument;
  const CountsTotals totals = mill->shared->totals;
  ReplyAdd(reply, "%s %u %u %u %u %u %u\n", Phase(mill), totals.filesDone, mill->handle.queue->fileCount,
           totals.words, totals.differentWords, totals.filesSkipped, ElapsedMs(mill));
  return MILL_OK;
}

static void AddWorker(const QueueWorker* worker, uint32_t number, Reply* reply) {
  const uint32_t state = SHARED_GET(worker->state);
  ReplyAdd(reply, "worker %-2u pid %-7u %u bits  %-9s %u files  %u words  %u words/s\n", number + 1,
           SHARED_GET(worker->pid), worker->width, QueueStateName(state), worker->files, worker->words,
           PerSecond(worker->words, worker->countedMs - worker->startedMs));
}

/* Takes no lock: what it tells is a moment's, and it answers whatever the workers are doing. */
static uint32_t AnswerStatus(Mill* mill, const char* argument, Reply* reply) {
  (void)argument;
  AddDaemon(mill, reply);
  for (uint32_t i = 0; i < mill->handle.queue->workerCount; ++i)
    AddWorker(&mill->handle.queue->workers[i], i, reply);
  ReplyAdd(reply, "local     %s\n", mill->clients.path);
  ReplyAdd(reply, "tcp       127.0.0.1:%u\n", mill->clients.port);
  return MILL_OK;
}

static uint32_t AnswerQuery(Mill* mill, const char* argument, Reply* reply) {
  char word[WORD_SIZE];
  Counts* counts = NULL;
  if (!WordFromText(word, argument)) {
    ReplyAdd(reply, "query takes a word of the letters A to Z\n");
    return MILL_USAGE;
  }
  if (MillTakeCounts(mill, OPL_SHAREDMEM_SHARED, PATIENCE_MS, &counts) != OPL_OK) return Busy(reply);
  const uint32_t count = CountsOf(counts, word);
  CountsRelease(mill->counts);
  ReplyAdd(reply, "%7u %s\n", count, word);
  return count != 0 ? MILL_OK : MILL_NO;
}

/* The most frequent first, and those that are as frequent by the alphabet. */
static int CompareSlots(const void* left, const void* right) {
  const CountsSlot* a = left;
  const CountsSlot* b = right;
  if (a->count != b->count) return a->count < b->count ? 1 : -1;
  return strcmp(a->text, b->text);
}

/* Copies what is counted, so that the lock is not held while it is sorted and sent. */
static uint32_t CopySlots(const Counts* counts, CountsSlot** copy) {
  const CountsSlot* slots = CountsSlots(counts);
  uint32_t count = 0;
  *copy = MillAllocate(counts->totals.differentWords + 1, sizeof(CountsSlot));
  for (uint32_t i = 0; i < counts->slotCount; ++i)
    if (slots[i].count != 0 && count < counts->totals.differentWords) (*copy)[count++] = slots[i];
  return count;
}

static uint32_t AnswerTop(Mill* mill, const char* argument, Reply* reply) {
  char* end = NULL;
  const unsigned long wanted = strtoul(argument, &end, 10);
  if (end == argument || *end != '\0') {
    ReplyAdd(reply, "top takes a number, 0 for all words\n");
    return MILL_USAGE;
  }
  Counts* counts = NULL;
  if (MillTakeCounts(mill, OPL_SHAREDMEM_SHARED, PATIENCE_MS, &counts) != OPL_OK) return Busy(reply);
  CountsSlot* slots = NULL;
  const uint32_t count = CopySlots(counts, &slots);
  CountsRelease(mill->counts);
  qsort(slots, count, sizeof *slots, CompareSlots);
  for (uint32_t i = 0; i < count && (wanted == 0 || i < wanted); ++i)
    ReplyAdd(reply, "%7u %s\n", slots[i].count, slots[i].text);
  MillFree(slots);
  return MILL_OK;
}

/* For demonstrations and tests: a worker hangs where its death is hardest to get over. Whoever can connect
 * may ask, so it must have been allowed at the start. */
static uint32_t AnswerFault(Mill* mill, const char* argument, Reply* reply) {
  const uint32_t fault = QueueFaultFromName(argument);
  if (MillSetting(MILL_ENV_FAULT, NULL) == NULL) {
    ReplyAdd(reply, "not started with --fault\n");
    return MILL_NO;
  }
  if (fault == 0) {
    ReplyAdd(reply, "fault takes mutex or counts\n");
    return MILL_USAGE;
  }
  __atomic_fetch_or(&mill->handle.queue->fault, fault, __ATOMIC_SEQ_CST);
  MillCheck(OPL_SyncEventPost(mill->handle.work), "posting work");
  return MILL_OK;
}

typedef struct Request {
  const char* name;
  uint32_t (*answer)(Mill* mill, const char* argument, Reply* reply);
} Request;

static const Request kRequests[] = {{"status", AnswerStatus},
                                    {"progress", AnswerProgress},
                                    {"query", AnswerQuery},
                                    {"top", AnswerTop},
                                    {"fault", AnswerFault}};

uint32_t MillAnswer(void* argument, char* request, Reply* reply) {
  char* operand = strchr(request, ' ');
  if (operand != NULL) *operand++ = '\0';
  for (uint32_t i = 0; i < sizeof kRequests / sizeof kRequests[0]; ++i)
    if (strcmp(request, kRequests[i].name) == 0)
      return kRequests[i].answer(argument, operand != NULL ? operand : "", reply);
  ReplyAdd(reply, "requests are: status, query WORD, top N\n");
  return MILL_USAGE;
}
