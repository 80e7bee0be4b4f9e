/*
 * A worker as a program of its own: the daemon starts it where a task, which is a fork of the daemon, would
 * have the wrong width.
 */
#include <stdio.h>
#include <stdlib.h>

#include "OPL_Init.h"
#include "wordmill.h"
#include "worker.h"

int main(int argc, char** argv) {
  char* end = NULL;
  const unsigned long number = argc == 2 ? strtoul(argv[1], &end, 10) : MILL_WORKERS_MAX;
  if (number >= MILL_WORKERS_MAX || *end != '\0') {
    fprintf(stderr, "wordmill-worker is started by the daemon; see wordmill --help\n");
    return MILL_USAGE;
  }
  MillRequire(OPL_InitBegin(0), "OPL_InitBegin");
  WorkerRun((uint32_t)number);
  MillRequire(OPL_InitEnd(0), "OPL_InitEnd");
  return MILL_OK;
}
