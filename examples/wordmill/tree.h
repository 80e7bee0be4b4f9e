/*
 * The files of the trees to index: all regular files but those that are compressed (*.gz). Links are not
 * followed.
 */
#ifndef WORDMILL_TREE_H
#define WORDMILL_TREE_H

#include <stdint.h>

typedef struct Tree {
  char* names; /* one behind the other, each with its terminator */
  uint32_t nameBytes;
  uint32_t nameRoom;
  uint32_t fileCount;
  uint64_t bytes; /* what is in the files */
} Tree;

/* Lists the files under directories that are separated by ':'. */
void TreeCreate(Tree* tree, const char* directories);
void TreeDestroy(Tree* tree);

#endif
