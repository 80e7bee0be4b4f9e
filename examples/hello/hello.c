/*
 * A first program: it begins the library, formats a text, records an error in each of two threads and reads
 * both back, writes to the log, and ends the library.
 *
 * The functions below come in the order in which main calls them. Each shows one habit of the interface.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Mem.h"
#include "OPL_Process.h"
#include "OPL_Thread.h"

/* Codes of the program's own share the error record with the library's. */
enum { HELLO_E_SYSTEM = 0x010001 };

/* A result code says that a call failed; the message in the thread's error record says why. */
static void Require(OPL_Result rc, const char* what) {
  if (rc == OPL_OK) return;
  fprintf(stderr, "%s: failed with 0x%06X: %s\n", what, (unsigned)rc, OPL_ErrMessageGet(0));
  exit(EXIT_FAILURE);
}

/* Records a failed system call the way the library does: its number as the code, its text in the message. */
static OPL_Result Check(int result, const char* what) {
  if (result != -1) return OPL_OK;
  const int number = errno;
  OPL_ErrSet(0, (uint32_t)number, "%s: error :%i,%s", what, number, OPL_ErrNativeMessageGet(0, number));
  return HELLO_E_SYSTEM;
}

/* What the library allocates for the caller goes back through OPL_MemFree. */
static void GreetTheSystem(void) {
  struct utsname system;
  Require(Check(uname(&system), "uname"), "GreetTheSystem");
  char* greeting = NULL;
  if (OPL_CrtASPrintf(&greeting, "Hello from %s, in %u bits", system.sysname,
                      (unsigned)(8 * sizeof(void*))) == -1)
    Require(OPL_MEM_E_NO_MEMORY, "OPL_CrtASPrintf");
  printf("%s\n\n", greeting);
  OPL_MemFree(NULL, greeting, OPL_MEM_HERE);
}

static void PrintRecord(const char* whose, OPL_Result rc) {
  printf("  %-8s returned 0x%06X, recorded 0x%06X: %s\n", whose, (unsigned)rc, (unsigned)OPL_ErrCodeGet(0),
         OPL_ErrMessageGet(0));
}

/* Threads of the library are detached: whoever wants to wait for one brings something to wait with. */
struct Worker {
  sem_t done;
};

static void* Work(void* argument) {
  struct Worker* worker = argument;
  /* The system refuses: the record holds its error number. */
  PrintRecord("worker", Check(OPL_CrtOpen("/no/such/file", O_RDONLY, 0), "OPL_CrtOpen"));
  sem_post(&worker->done);
  return NULL;
}

/* Each thread has an error record of its own: what the worker records leaves main's as it was. */
static void FailInTwoThreads(void) {
  printf("Two threads, each with an error of its own:\n");
  /* The library itself refuses: code and record agree. */
  const OPL_Result refused = OPL_ProcessIdCompare(1, 2, NULL);

  struct Worker worker;
  Require(Check(sem_init(&worker.done, 0, 0), "sem_init"), "FailInTwoThreads");
  Require(OPL_ThreadCreate(0, NULL, Work, &worker, NULL), "OPL_ThreadCreate");
  while (sem_wait(&worker.done) == -1) {
  }
  sem_destroy(&worker.done);

  PrintRecord("main", refused);
}

static void PrintFile(const char* name) {
  printf("%s:\n", name);
  FILE* file = fopen(name, "r");
  if (file == NULL) return;
  char line[256];
  while (fgets(line, (int)sizeof line, file) != NULL) printf("  | %s", line);
  fclose(file);
  printf("\n");
}

/*
 * The log goes to $TALVEN_HOME/tmer/log, or without TALVEN_HOME to the current directory: here to a temporary
 * one, which is removed again.
 */
static void WriteTheLog(void) {
  char directory[] = "/tmp/hello-log.XXXXXX";
  Require(Check(mkdtemp(directory) != NULL ? 0 : -1, "mkdtemp"), "WriteTheLog");
  Require(Check(chdir(directory), "chdir"), "WriteTheLog");
  unsetenv("TALVEN_HOME");

  Require(OPL_LogSetFilename("hello"), "OPL_LogSetFilename");
  Require(OPL_Log("the first record"), "OPL_Log");
  Require(OPL_Log("%s is %u words", "this", 3), "OPL_Log");

  uint32_t pid = 0;
  Require(OPL_ProcessIdGet(&pid), "OPL_ProcessIdGet");
  char own[64];
  OPL_CrtSNPrintf(own, sizeof own, "hello.%u.log", pid);
  printf("\nThe log, in a file for all processes and one for each (%s):\n\n", own);
  PrintFile("hello.log");

  unlink("hello.log");
  unlink(own);
  Require(Check(chdir("/"), "chdir"), "WriteTheLog");
  Require(Check(rmdir(directory), "rmdir"), "WriteTheLog");
}

int main(void) {
  Require(OPL_InitBegin(0), "OPL_InitBegin");
  GreetTheSystem();
  FailInTwoThreads();
  WriteTheLog();
  Require(OPL_InitEnd(0), "OPL_InitEnd");
  printf("The library has ended.\n");
  return EXIT_SUCCESS;
}
