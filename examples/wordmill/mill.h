/*
 * What the daemon knows: the files, the shared objects, the workers and the clients.
 */
#ifndef WORDMILL_MILL_H
#define WORDMILL_MILL_H

#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "clients.h"
#include "counts.h"
#include "queue.h"
#include "tree.h"
#include "wordmill.h"

typedef struct Mill {
  OPL_SyncLockFile* lock;
  Tree tree;
  QueueHandle handle;
  OPL_SharedMemLocked* counts;
  const Counts* shared; /* the same without the lock, for the totals */
  const char* other;    /* the worker program of the other width; null where all have the daemon's */
  uint32_t startedMs;
  uint32_t doneMs;       /* 0 until all files are done */
  uint32_t failedStarts; /* one after the other */
  bool areFilesLost;     /* a worker has died: what it had taken and not done is to go back */
  Clients clients;
} Mill;

/* Answers a client's request. @param argument the Mill */
uint32_t MillAnswer(void* argument, char* request, Reply* reply);

/* Takes the counts, or gives up in time: a worker that hangs may hold them. */
OPL_Result MillTakeCounts(Mill* mill, uint32_t access, uint32_t patienceMs, Counts** pCounts);

#endif
