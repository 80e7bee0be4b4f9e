/* Tells whether the process's first thread and its second one have different ids. */
#include <pthread.h>
#include <stdio.h>

#include "OPL_Thread.h"

static void* store_id(void* id) {
  (void)OPL_ThreadIdGet(id);
  return NULL;
}

int main(void) {
  uint32_t first = 0;
  uint32_t second = 0;
  pthread_t thread;
  (void)OPL_ThreadIdGet(&first);
  if (pthread_create(&thread, NULL, store_id, &second) != 0) return 1;
  (void)pthread_join(thread, NULL);
  fputs(first != second ? "different" : "the same", stdout);
  return 0;
}
