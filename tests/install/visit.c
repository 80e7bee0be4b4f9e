/*
 * A program of an outside project. It counts visits in shared memory, and runs another program meanwhile:
 *
 *   visit [PROGRAM [PROGRAM ...]]
 *
 * Each program gets those behind it, so that all of them are in the instance at the end, and the last one
 * counts as many visits as there are programs.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Server.h"
#include "OPL_SharedMem.h"

OPL_BEGIN_DECLS
const char* OPL_InitInstanceStringSetCallback(void);
OPL_END_DECLS

/* Found only where the build has exported it. */
const char* OPL_InitInstanceStringSetCallback(void) { return "outside"; }

static int Fail(const char* what) {
  fprintf(stderr, "%s: %s\n", what, OPL_ErrMessageGet(0));
  return 1;
}

static OPL_Result OpenOrCreate(OPL_SharedMemLocked** block) {
  const uint32_t flags = OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_LOCKED_ZERO;
  if (OPL_SharedMemLockedOpen(block, 0, "visits", flags) == OPL_OK) return OPL_OK;
  return OPL_SharedMemLockedCreate(block, 0, "visits", sizeof(uint32_t), flags);
}

static OPL_Result Count(OPL_SharedMemLocked* block, uint32_t* visits) {
  void* address = NULL;
  const OPL_Result rc = OPL_SharedMemLockedGet(block, OPL_SHAREDMEM_EXCLUSIVE, &address);
  if (rc != OPL_OK) return rc;
  *visits = ++*(uint32_t*)address;
  return OPL_SharedMemLockedRelease(block);
}

/* The library runs the scripts of the installation. */
static OPL_Result FindSpawner(uint32_t* spawner) {
  OPL_ServerParam* param = NULL;
  OPL_Server* server = NULL;
  OPL_Result rc = OPL_ServerParamCreate(&param, 0);
  if (rc == OPL_OK) rc = OPL_ServerParamSet(param, OPL_SERVER_PARAM_SCRIPT_DIRECTORY, SCRIPTS);
  if (rc == OPL_OK) rc = OPL_ServerCreate(&server, OPL_SERVER_FOREGROUND, param);
  if (rc == OPL_OK) rc = OPL_ServerSystemSpawnerPidGet(server, spawner);
  if (param != NULL) (void)OPL_ServerParamDestroy(&param);
  (void)OPL_ServerDestroy(&server);
  return rc;
}

static int RunNext(char** programs) {
  int status = 0;
  const pid_t child = fork();
  if (child == -1) return 1;
  if (child == 0) {
    execv(programs[0], programs);
    _exit(127);
  }
  return waitpid(child, &status, 0) == child && status == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
  OPL_SharedMemLocked* block = NULL;
  uint32_t visits = 0;
  uint32_t spawner = 0;
  int status = 0;
  if (OPL_InitBegin(0) != OPL_OK) return Fail("OPL_InitBegin");
  if (strcmp(OPL_InitInstanceStringGet(), "outside") != 0) return Fail("the instance's name is not exported");
  if (FindSpawner(&spawner) != OPL_OK || spawner == 0) return Fail("FindSpawner");
  if (OpenOrCreate(&block) != OPL_OK) return Fail("OpenOrCreate");
  if (Count(block, &visits) != OPL_OK) return Fail("Count");
  printf("visit %u, %u bits\n", (unsigned)visits, (unsigned)(8 * sizeof(void*)));
  fflush(stdout);
  if (argc > 1) status = RunNext(argv + 1);
  if (OPL_SharedMemLockedClose(&block) != OPL_OK) return Fail("OPL_SharedMemLockedClose");
  return OPL_InitEnd(0) == OPL_OK ? status : Fail("OPL_InitEnd");
}
