/*
 * A daemon and its controller in one program.
 *
 *   daemon SCRIPT-DIRECTORY    starts the daemon, asks after it, and stops it
 *
 * The controller starts this same program under another name, without arguments; that is how it knows what it
 * is.
 */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Server.h"

enum { kTimeoutSeconds = 30, kPathSize = 4095 };

static const char kDaemonName[] = "qvopl-example-";
static const char kController[] = "example";

/* Both sides have to be of one instance: the library asks the program for it. */
const char* OPL_InitInstanceStringSetCallback(void) { return "EXAMPLE"; }

static int Fail(const char* what, OPL_Result rc) {
  fprintf(stderr, "%s returned 0x%06X: %s\n", what, (unsigned)rc, OPL_ErrMessageGet(0));
  return 1;
}

/* The daemon. */

static int gStopPipe[2];

/* Runs in the signal handler, where next to nothing is allowed; a write is. */
static void OnStopRequest(void* writingEnd) {
  const char stop = 's';
  if (write(*(const int*)writingEnd, &stop, 1) == -1) abort();
}

static uint32_t Serve(void* a, void* b, void* writingEnd) {
  char stop;
  (void)a;
  (void)b;
  (void)writingEnd;
  if (OPL_ServerSetStarted() != OPL_OK) return 1;
  while (read(gStopPipe[0], &stop, 1) != 1) {
  }
  return OPL_ServerSetStop() == OPL_OK ? 0 : 1;
}

static int RunDaemon(void) {
  OPL_ServerParam* param = NULL;
  OPL_Server* server = NULL;
  uint32_t result = 1;
  OPL_Result rc;

  if (pipe(gStopPipe) == -1 || OPL_InitBegin(0) != OPL_OK) return 1;
  if ((rc = OPL_ServerParamCreate(&param, 0)) != OPL_OK) return Fail("OPL_ServerParamCreate", rc);
  (void)OPL_ServerParamSet(param, OPL_SERVER_PARAM_CONTROLLER_NAME, kController);
  rc = OPL_ServerCreate(&server, OPL_SERVER_DETACHED, param);
  (void)OPL_ServerParamDestroy(&param);
  if (rc == OPL_OK) rc = OPL_ServerMain(server, 1, Serve, OnStopRequest, NULL, NULL, &gStopPipe[1], &result);
  (void)OPL_ServerDestroy(&server);
  (void)OPL_InitEnd(0);
  return rc == OPL_OK && result == 0 ? 0 : 1;
}

/* The controller. */

static OPL_Result MakeServer(const char* scripts, const char* program, OPL_Server** server) {
  OPL_ServerParam* param = NULL;
  char name[64];
  OPL_Result rc = OPL_ServerParamCreate(&param, 0);
  if (rc != OPL_OK) return rc;
  snprintf(name, sizeof name, "%s%ld", kDaemonName, (long)getpid());
  (void)OPL_ServerParamSet(param, OPL_SERVER_PARAM_SCRIPT_DIRECTORY, scripts);
  (void)OPL_ServerParamSet(param, OPL_SERVER_PARAM_CONTROLLER_NAME, kController);
  (void)OPL_ServerParamSet(param, OPL_SERVER_PARAM_EXECUTABLE_PATH, program);
  (void)OPL_ServerParamSet(param, OPL_SERVER_PARAM_PROCESS_NAME, name);
  rc = OPL_ServerCreate(server, OPL_SERVER_DETACHED, param);
  (void)OPL_ServerParamDestroy(&param);
  return rc;
}

static OPL_Result ShowProcesses(OPL_Server* server) {
  OPL_ServerInfo** list = NULL;
  uint32_t count = 0;
  uint32_t controller = 0;
  uint32_t pid = 0;
  uint32_t i;
  OPL_Result rc = OPL_ServerControllerPidGet(server, &controller);
  if (rc == OPL_OK) rc = OPL_ServerInfoGet(server, &list, &count);
  for (i = 0; rc == OPL_OK && i < count; ++i) {
    rc = OPL_ServerInfoGetPid(list[i], &pid);
    if (rc == OPL_OK) printf("runs%s\n", pid == controller ? ", and has said so" : "");
  }
  (void)OPL_ServerInfoDestroy(server, &list, count);
  return rc;
}

static int Control(const char* scripts, const char* program) {
  OPL_Server* server = NULL;
  const pid_t self = getpid();
  OPL_Result rc = MakeServer(scripts, program, &server);
  if (rc != OPL_OK) return Fail("MakeServer", rc);

  rc = OPL_ServerStart(server, NULL, NULL, kTimeoutSeconds);
  /* A child that could not execute the program comes back here too. */
  if (getpid() != self) _exit(127);
  if (rc != OPL_OK) return Fail("OPL_ServerStart", rc);
  puts("started");

  rc = ShowProcesses(server);
  if (rc != OPL_OK) return Fail("ShowProcesses", rc);

  rc = OPL_ServerStop(server, kTimeoutSeconds);
  if (rc != OPL_OK) return Fail("OPL_ServerStop", rc);
  puts("stopped");
  return OPL_ServerDestroy(&server) == OPL_OK ? 0 : 1;
}

/* The daemon finds the directory in the environment, which it has from the controller. */
static int RunController(const char* scripts) {
  char directory[] = "/tmp/qvopl-example.XXXXXX";
  char program[kPathSize];
  ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
  int status;
  if (length == -1 || mkdtemp(directory) == NULL) return 1;
  program[length] = '\0';
  if (setenv("QVOPL_IPC_PATH", directory, 1) != 0 || OPL_InitBegin(0) != OPL_OK) return 1;
  status = Control(scripts, program);
  if (OPL_InitEnd(0) != OPL_OK || rmdir(directory) != 0) return 1;
  return status;
}

int main(int argc, char** argv) {
  if (strncmp(argv[0], kDaemonName, sizeof kDaemonName - 1) == 0) return RunDaemon();
  if (argc == 2) return RunController(argv[1]);
  fprintf(stderr, "usage: daemon SCRIPT-DIRECTORY\n");
  return 2;
}
