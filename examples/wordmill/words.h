/*
 * The words of one file: runs of the letters A to Z in either case, taken as lower case and cut after
 * WORD_MAX letters. The same as
 *
 *   tr -cs A-Za-z '\n' | tr A-Z a-z | cut -c1-27 | sort | uniq -c
 *
 * in the C locale.
 */
#ifndef WORDMILL_WORDS_H
#define WORDMILL_WORDS_H

#include <stdbool.h>
#include <stdint.h>

enum { WORD_MAX = 27, WORD_SIZE = 28 };

/* Filled up with zeros, so that words are compared and copied whole. */
typedef struct Word {
  char text[WORD_SIZE];
  uint32_t count;
  uint32_t hash;
} Word;

/* A hash table in the process's own memory, used for one file after another. */
typedef struct Words {
  Word* slots;
  uint32_t slotCount; /* a power of two */
  uint32_t* used;     /* the slots that are taken, in the order in which they were */
  uint32_t usedCount;
  uint32_t total; /* words, repeated ones as often as they come */
} Words;

void WordsCreate(Words* words);
void WordsDestroy(Words* words);

/* Counts the words of a file, and forgets those of the file before. Returns false if it cannot be read. */
bool WordsOfFile(Words* words, const char* path);

/* The hash of a word: where a search for it begins. */
uint32_t WordHash(const char* text);

/* Copies a text as words are kept: its first letters in lower case. Returns false if there are none. */
bool WordFromText(char word[WORD_SIZE], const char* text);

#endif
