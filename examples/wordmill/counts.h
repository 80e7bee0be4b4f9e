/*
 * The counts: locked shared memory with all words of the files that are done.
 *
 * Each file is counted whole or not at all, wherever a worker is killed. The worker that holds the lock
 * exclusively
 *
 *   1. finds the slot of each of its words, puts new words there with the count 0, and writes the new count
 *      of each into the journal, and the new totals and the file's number too: nothing of that counts yet;
 *   2. commits the journal, which is one 32-bit store: from now on the file counts;
 *   3. copies from the journal to the slots and the totals, and marks the file as done;
 *   4. clears the journal, which is one store as well.
 *
 * A worker that is killed gives the lock back through the system. Whoever takes it next and finds a committed
 * journal does step 3 and 4: the journal holds counts and not differences, so that it may be copied once
 * more. A reader takes the lock exclusively for that.
 */
#ifndef WORDMILL_COUNTS_H
#define WORDMILL_COUNTS_H

#include "OPL_SharedMem.h"
#include "wordmill.h"
#include "words.h"

enum { COUNTS_LARGEST_WORDS = 1 << 20 };

/* Whether a file is done; a byte for each. */
enum { FILE_TO_DO = 0, FILE_COUNTED = 1, FILE_SKIPPED = 2 /* unreadable, or too many words */ };

typedef struct CountsSlot {
  char text[WORD_SIZE]; /* empty: the slot is free */
  uint32_t count;       /* 0: not counted; of a worker that was killed */
} CountsSlot;

typedef struct CountsTotals {
  uint32_t filesDone;
  uint32_t filesSkipped;
  uint32_t words;
  uint32_t differentWords;
} CountsTotals;

typedef struct CountsEntry {
  uint32_t slot;
  uint32_t count;
} CountsEntry;

typedef struct CountsJournal {
  uint32_t isCommitted;
  uint32_t entryCount;
  uint32_t file;
  uint32_t fileState;
  CountsTotals totals;
} CountsJournal;

typedef struct Counts {
  uint32_t fileCount;
  uint32_t slotCount; /* a power of two */
  uint32_t slotLimit; /* slots that may be used, and entries of the journal */
  uint32_t slotsUsed;
  uint32_t entries; /* offset of CountsEntry[slotLimit], the journal's */
  uint32_t slots;   /* offset of CountsSlot[slotCount] */
  uint32_t states;  /* offset of uint8_t[fileCount], FILE_* */
  uint32_t unused;
  CountsTotals totals;
  CountsJournal journal;
} Counts;

typedef char CountsSlotHas32Bytes[sizeof(CountsSlot) == 32 ? 1 : -1];
typedef char CountsHasTheSameSize[sizeof(Counts) == 80 ? 1 : -1];

/*
 * For the daemon: makes room for so many files that have so many bytes in all. Signals end its waits for the
 * lock: it must not wait for ever. It may look at the totals at any time, without the lock.
 */
Counts* CountsCreate(OPL_SharedMemLocked** phCounts, uint32_t fileCount, uint64_t bytes);

/* For a worker: it waits for the lock whatever signals come. */
void CountsOpen(OPL_SharedMemLocked** phCounts);

/* Takes the lock, and completes what a killed worker has committed. */
OPL_Result CountsTake(OPL_SharedMemLocked* hCounts, uint32_t access, Counts** pCounts);

void CountsRelease(OPL_SharedMemLocked* hCounts);

/* What is called half-way through step 3, where it would hurt most to be killed. */
typedef void (*CountsHalfWay)(void* argument);

/* Adds the words of a file, or notes that it was skipped. */
void CountsAddFile(OPL_SharedMemLocked* hCounts, uint32_t file, const Words* words, CountsHalfWay halfWay,
                   void* argument);

/* With the lock taken. */
uint32_t CountsOf(const Counts* counts, const char* word);
const CountsSlot* CountsSlots(const Counts* counts);
const uint8_t* CountsStates(const Counts* counts);

#endif
