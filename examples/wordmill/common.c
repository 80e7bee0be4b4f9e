/*
 * What the programs of wordmill share; see wordmill.h.
 */
#include "wordmill.h"

#include <ctype.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Mem.h"

enum { INSTANCE_SIZE = 33, MESSAGE_SIZE = 1024 };

/* It becomes part of file names and of a pattern of grep: other characters are dropped. */
static void MakeInstance(char instance[INSTANCE_SIZE]) {
  char user[INSTANCE_SIZE];
  snprintf(user, sizeof user, "user%lu", (unsigned long)geteuid());
  uint32_t length = 0;
  for (const char* c = MillSetting(MILL_ENV_INSTANCE, user); *c != '\0' && length < INSTANCE_SIZE - 1; ++c)
    if (isalnum((unsigned char)*c) || *c == '-' || *c == '_') instance[length++] = *c;
  instance[length] = '\0';
}

/*
 * The library looks this function up in the program, which is therefore linked with its symbols exported.
 * Programs with the same instance string share their named objects.
 */
const char* OPL_InitInstanceStringSetCallback(void) {
  static char instance[INSTANCE_SIZE];
  if (instance[0] == '\0') MakeInstance(instance);
  return instance;
}

/* The colons keep one instance's name from being found in another's. */
void MillProcessName(char name[MILL_NAME_SIZE]) {
  snprintf(name, MILL_NAME_SIZE, "wordmilld:%s:", OPL_InitInstanceStringGet());
}

const char* MillSetting(const char* variable, const char* otherwise) {
  const char* value = getenv(variable);
  return value != NULL && *value != '\0' ? value : otherwise;
}

void MillSay(const char* format, ...) {
  char message[MESSAGE_SIZE];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  fprintf(stderr, "wordmill: %s\n", message);
  if (getenv("TALVEN_HOME") != NULL) OPL_Log("%s", message);
}

bool MillCheck(OPL_Result rc, const char* what) {
  if (rc != OPL_OK) MillSay("%s returned 0x%06X: %s", what, (unsigned)rc, OPL_ErrMessageGet(0));
  return rc == OPL_OK;
}

void MillRequire(OPL_Result rc, const char* what) {
  if (rc != OPL_OK) MillFail(rc, what);
}

void MillFail(OPL_Result rc, const char* what) {
  MillCheck(rc, what);
  exit(MILL_NO);
}

void* MillAllocate(uint32_t count, uint32_t size) {
  void* memory = OPL_MemCalloc(NULL, count, size, OPL_MEM_HERE);
  if (memory != NULL) return memory;
  MillSay("no memory for %u times %u bytes", (unsigned)count, (unsigned)size);
  exit(MILL_NO);
}

void MillFree(void* memory) {
  if (memory != NULL) OPL_MemFree(NULL, memory, OPL_MEM_HERE);
}

uint32_t MillNow(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint32_t)now.tv_sec * 1000U + (uint32_t)(now.tv_nsec / 1000000);
}
