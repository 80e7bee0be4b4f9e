/*
 * Counting the words of one file; see words.h.
 */
#include "words.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "OPL_Crt.h"
#include "wordmill.h"

enum { FIRST_SLOTS = 1024, BUFFER_SIZE = 65536 };

/* The word that is being read; it may begin in one block of the file and end in the next. */
typedef struct Reader {
  char text[WORD_SIZE];
  uint32_t length;
} Reader;

static const uint32_t kHashStart = 2166136261U;
static const uint32_t kHashPrime = 16777619U;

uint32_t WordHash(const char* text) {
  uint32_t hash = kHashStart;
  for (; *text != '\0'; ++text) hash = (hash ^ (unsigned char)*text) * kHashPrime;
  return hash ^ (hash >> 15);
}

/* The lower-case letter, or 0 for what is no letter: the two cases differ in one bit. */
static char LetterOf(unsigned char c) {
  c |= 0x20;
  return (char)(c >= 'a' && c <= 'z' ? c : 0);
}

bool WordFromText(char word[WORD_SIZE], const char* text) {
  memset(word, 0, WORD_SIZE);
  for (uint32_t i = 0; i < WORD_MAX && LetterOf((unsigned char)text[i]) != 0; ++i)
    word[i] = LetterOf((unsigned char)text[i]);
  return word[0] != '\0';
}

static void AllocateSlots(Words* words, uint32_t slotCount) {
  words->slots = MillAllocate(slotCount, sizeof(Word));
  words->used = MillAllocate(slotCount, sizeof(uint32_t));
  words->slotCount = slotCount;
  words->usedCount = 0;
}

void WordsCreate(Words* words) {
  AllocateSlots(words, FIRST_SLOTS);
  words->total = 0;
}

void WordsDestroy(Words* words) {
  MillFree(words->slots);
  MillFree(words->used);
}

/* The slot of a word, or the free one where it belongs. */
static uint32_t FindSlot(const Words* words, const char* text, uint32_t hash) {
  uint32_t slot = hash & (words->slotCount - 1);
  while (words->slots[slot].count != 0 && memcmp(words->slots[slot].text, text, WORD_SIZE) != 0)
    slot = (slot + 1) & (words->slotCount - 1);
  return slot;
}

static void Grow(Words* words) {
  const Words old = *words;
  AllocateSlots(words, 2 * old.slotCount);
  for (uint32_t i = 0; i < old.usedCount; ++i) {
    const Word* word = &old.slots[old.used[i]];
    const uint32_t slot = FindSlot(words, word->text, word->hash);
    words->slots[slot] = *word;
    words->used[words->usedCount++] = slot;
  }
  MillFree(old.slots);
  MillFree(old.used);
}

static void EndWord(Words* words, Reader* reader) {
  const uint32_t hash = WordHash(reader->text);
  const uint32_t slot = FindSlot(words, reader->text, hash);
  Word* word = &words->slots[slot];
  if (word->count == 0) {
    memcpy(word->text, reader->text, WORD_SIZE);
    word->hash = hash;
    words->used[words->usedCount++] = slot;
  }
  ++word->count;
  ++words->total;
  memset(reader, 0, sizeof *reader);
  if (words->usedCount > words->slotCount / 2) Grow(words);
}

static void ReadBlock(Words* words, Reader* reader, const unsigned char* block, uint32_t size) {
  for (uint32_t i = 0; i < size; ++i) {
    const char letter = LetterOf(block[i]);
    if (letter == 0) {
      if (reader->length != 0) EndWord(words, reader);
    } else if (reader->length < WORD_MAX) {
      reader->text[reader->length++] = letter;
    }
  }
}

/* Only what was used: most files are much smaller than the largest. */
static void Clear(Words* words) {
  for (uint32_t i = 0; i < words->usedCount; ++i) words->slots[words->used[i]].count = 0;
  words->usedCount = 0;
  words->total = 0;
}

bool WordsOfFile(Words* words, const char* path) {
  static unsigned char block[BUFFER_SIZE];
  Clear(words);
  const int32_t fd = OPL_CrtOpen(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0);
  if (fd == -1) return false;
  Reader reader = {{0}, 0};
  ssize_t size = read(fd, block, sizeof block);
  for (; size > 0; size = read(fd, block, sizeof block)) ReadBlock(words, &reader, block, (uint32_t)size);
  if (reader.length != 0) EndWord(words, &reader);
  OPL_CrtClose(fd);
  return size == 0;
}
