/*
 * Finding the files to index; see tree.h.
 */
#include "tree.h"

#include <ftw.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "OPL_Crt.h"
#include "OPL_Mem.h"
#include "wordmill.h"

enum { FIRST_ROOM = 65536, OPEN_DIRECTORIES = 32 };

static const char kCompressed[] = ".gz";

/* nftw hands no argument on to what it calls. */
static Tree* gTree;

static bool EndsIn(const char* name, const char* ending) {
  const size_t length = strlen(name);
  return length >= strlen(ending) && strcmp(name + length - strlen(ending), ending) == 0;
}

static void AddName(Tree* tree, const char* name) {
  const uint32_t size = (uint32_t)strlen(name) + 1;
  if (tree->nameBytes + size > tree->nameRoom) {
    const uint32_t room = 2 * tree->nameRoom + size;
    char* names = MillAllocate(room, 1);
    memcpy(names, tree->names, tree->nameBytes);
    MillFree(tree->names);
    tree->names = names;
    tree->nameRoom = room;
  }
  memcpy(tree->names + tree->nameBytes, name, size);
  tree->nameBytes += size;
  ++tree->fileCount;
}

static int Visit(const char* name, const struct stat* status, int kind, struct FTW* where) {
  (void)where;
  if (kind != FTW_F || !S_ISREG(status->st_mode) || EndsIn(name, kCompressed)) return 0;
  AddName(gTree, name);
  gTree->bytes += (uint64_t)status->st_size;
  return 0;
}

void TreeCreate(Tree* tree, const char* directories) {
  char* list = MillAllocate((uint32_t)strlen(directories) + 1, 1);
  memcpy(list, directories, strlen(directories) + 1);
  tree->names = MillAllocate(FIRST_ROOM, 1);
  tree->nameRoom = FIRST_ROOM;
  gTree = tree;
  char* rest = NULL;
  for (char* directory = OPL_CrtStrTok(list, ":", &rest); directory != NULL;
       directory = OPL_CrtStrTok(NULL, ":", &rest))
    if (nftw(directory, Visit, OPEN_DIRECTORIES, FTW_PHYS) == -1) MillSay("cannot list %s", directory);
  MillFree(list);
}

void TreeDestroy(Tree* tree) { MillFree(tree->names); }
