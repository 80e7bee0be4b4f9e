/*
 * A worker: takes files from the queue and adds their words to the counts, until the daemon says stop.
 */
#ifndef WORDMILL_WORKER_H
#define WORDMILL_WORKER_H

#include <stdint.h>

/* Runs worker number (from 0 on) in this process, which has begun the library. */
void WorkerRun(uint32_t number);

#endif
