/*
 * The counts of all words, and how a file is added to them; see counts.h.
 */
#include "counts.h"

#include <string.h>

#include "queue.h"

/* The parts behind the record; the memory is aligned to 8 bytes, and so is each of them. */
static CountsEntry* Entries(Counts* counts) { return (CountsEntry*)(void*)((char*)counts + counts->entries); }
static CountsSlot* Slots(Counts* counts) { return (CountsSlot*)(void*)((char*)counts + counts->slots); }
static uint8_t* States(Counts* counts) { return (uint8_t*)counts + counts->states; }

const CountsSlot* CountsSlots(const Counts* counts) {
  return (const CountsSlot*)(const void*)((const char*)counts + counts->slots);
}

const uint8_t* CountsStates(const Counts* counts) { return (const uint8_t*)counts + counts->states; }

/* Every second byte may be a word; beyond the largest number, files that bring more words are skipped. */
static uint32_t SlotLimitFor(uint64_t bytes) {
  const uint64_t words = bytes / 2 + 64;
  return words < COUNTS_LARGEST_WORDS ? (uint32_t)words : COUNTS_LARGEST_WORDS;
}

Counts* CountsCreate(OPL_SharedMemLocked** phCounts, uint32_t fileCount, uint64_t bytes) {
  const uint32_t slotLimit = SlotLimitFor(bytes);
  uint32_t slotCount = 1;
  while (slotCount < 2 * slotLimit) slotCount *= 2;
  const uint32_t entries = sizeof(Counts);
  const uint32_t slots = entries + slotLimit * (uint32_t)sizeof(CountsEntry);
  const uint32_t states = slots + slotCount * (uint32_t)sizeof(CountsSlot);
  MillRequire(OPL_SharedMemLockedCreate(phCounts, 0, MILL_COUNTS, states + fileCount,
                                        OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_LOCKED_ZERO),
              "creating the counts");
  void* address = NULL;
  MillRequire(OPL_SharedMemLockedGet(*phCounts, OPL_SHAREDMEM_EXCLUSIVE, &address), "taking the counts");
  Counts* counts = address;
  counts->fileCount = fileCount;
  counts->slotCount = slotCount;
  counts->slotLimit = slotLimit;
  counts->entries = entries;
  counts->slots = slots;
  counts->states = states;
  CountsRelease(*phCounts);
  return counts;
}

void CountsOpen(OPL_SharedMemLocked** phCounts) {
  MillRequire(
      OPL_SharedMemLockedOpen(phCounts, 0, MILL_COUNTS, OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_LOCKED_RESTART),
      "opening the counts");
}

/* Steps 3 and 4. It may begin again from the top at any time. */
static void Apply(Counts* counts, CountsHalfWay halfWay, void* argument) {
  const CountsJournal* journal = &counts->journal;
  const CountsEntry* entries = Entries(counts);
  CountsSlot* slots = Slots(counts);
  for (uint32_t i = 0; i < journal->entryCount; ++i) {
    slots[entries[i].slot].count = entries[i].count;
    if (i == journal->entryCount / 2 && halfWay != NULL) halfWay(argument);
  }
  counts->totals = journal->totals;
  States(counts)[journal->file] = (uint8_t)journal->fileState;
  SHARED_SET(counts->journal.isCommitted, 0);
}

OPL_Result CountsTake(OPL_SharedMemLocked* hCounts, uint32_t access, Counts** pCounts) {
  void* address = NULL;
  OPL_Result rc = OPL_SharedMemLockedGet(hCounts, access, &address);
  if (rc != OPL_OK) return rc;
  Counts* counts = address;
  if (SHARED_GET(counts->journal.isCommitted) != 0 && access == OPL_SHAREDMEM_SHARED) {
    CountsRelease(hCounts);
    rc = OPL_SharedMemLockedGet(hCounts, OPL_SHAREDMEM_EXCLUSIVE, &address);
    if (rc != OPL_OK) return rc;
  }
  /* Somebody else may have done it in between. */
  if (SHARED_GET(counts->journal.isCommitted) != 0) Apply(counts, NULL, NULL);
  *pCounts = counts;
  return OPL_OK;
}

void CountsRelease(OPL_SharedMemLocked* hCounts) {
  OPL_Result rc = OPL_SYNC_E_INTERRUPTED;
  while (rc == OPL_SYNC_E_INTERRUPTED) rc = OPL_SharedMemLockedRelease(hCounts);
  MillRequire(rc, "giving the counts back");
}

/* The slot of a word, or the free one where it belongs. At least half of the slots are free. */
static uint32_t FindSlot(const Counts* counts, const char* text, uint32_t hash) {
  const CountsSlot* slots = CountsSlots(counts);
  uint32_t slot = hash & (counts->slotCount - 1);
  while (slots[slot].text[0] != '\0' && memcmp(slots[slot].text, text, WORD_SIZE) != 0)
    slot = (slot + 1) & (counts->slotCount - 1);
  return slot;
}

/* Step 1 for one word. Returns false when there is no room for it. */
static bool JournalWord(Counts* counts, const Word* word) {
  const uint32_t slot = FindSlot(counts, word->text, word->hash);
  CountsSlot* found = &Slots(counts)[slot];
  if (found->text[0] == '\0') {
    if (counts->slotsUsed == counts->slotLimit) return false;
    ++counts->slotsUsed;
    memcpy(found->text, word->text, WORD_SIZE);
  }
  CountsJournal* journal = &counts->journal;
  if (found->count == 0) ++journal->totals.differentWords;
  Entries(counts)[journal->entryCount++] = (CountsEntry){slot, found->count + word->count};
  return true;
}

static void BeginJournal(Counts* counts, uint32_t file) {
  CountsJournal* journal = &counts->journal;
  journal->entryCount = 0;
  journal->file = file;
  journal->fileState = FILE_COUNTED;
  journal->totals = counts->totals;
  ++journal->totals.filesDone;
}

static bool JournalWords(Counts* counts, uint32_t file, const Words* words) {
  BeginJournal(counts, file);
  for (uint32_t i = 0; i < words->usedCount; ++i)
    if (!JournalWord(counts, &words->slots[words->used[i]])) return false;
  counts->journal.totals.words += words->total;
  return true;
}

static void JournalSkipped(Counts* counts, uint32_t file) {
  BeginJournal(counts, file);
  counts->journal.fileState = FILE_SKIPPED;
  ++counts->journal.totals.filesSkipped;
}

void CountsAddFile(OPL_SharedMemLocked* hCounts, uint32_t file, const Words* words, CountsHalfWay halfWay,
                   void* argument) {
  Counts* counts = NULL;
  const OPL_Result rc = CountsTake(hCounts, OPL_SHAREDMEM_EXCLUSIVE, &counts);
  if (rc != OPL_OK) MillFail(rc, "taking the counts");
  if (words == NULL || !JournalWords(counts, file, words)) JournalSkipped(counts, file);
  SHARED_SET(counts->journal.isCommitted, 1);
  Apply(counts, halfWay, argument);
  CountsRelease(hCounts);
}

uint32_t CountsOf(const Counts* counts, const char* word) {
  return CountsSlots(counts)[FindSlot(counts, word, WordHash(word))].count;
}
