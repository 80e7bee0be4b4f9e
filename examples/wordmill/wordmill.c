/*
 * The controller: starts, asks and stops the daemon. wordmill --help prints kUsage, below.
 */
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "OPL_File.h"
#include "OPL_Init.h"
#include "OPL_Server.h"
#include "OPL_Sig.h"
#include "OPL_Sync.h"
#include "talk.h"
#include "wordmill.h"

enum {
  START_SECONDS = 60,
  STOP_SECONDS = 30,
  REDRAW_MS = 100,
  BAR_WIDTH = 40,
  TREES_SIZE = 4 * MILL_PATH_SIZE,
  PROGRAM_SIZE = 2 * MILL_PATH_SIZE
};

static const char kUsage[] =
    "wordmill: counts the words of a tree of text files with several processes\n"
    "\n"
    "  wordmill start DIR... [--workers N] [--mixed] [--no-wait]\n"
    "                       starts the daemon and waits until all files are counted;\n"
    "                       --workers  how many processes count, 1 to 32 (4)\n"
    "                       --mixed    every second one is a program of the other width\n"
    "                       --no-wait  returns when the daemon is started\n"
    "  wordmill wait        waits until all files are counted\n"
    "  wordmill status      tells what daemon and workers do\n"
    "  wordmill query WORD  tells how often a word was found\n"
    "  wordmill top [N]     tells the N most frequent words (10), or all (0)\n"
    "  wordmill stop        stops the daemon\n"
    "  wordmill --help      prints this\n"
    "\n"
    "query, top and status take --tcp PORT and then ask 127.0.0.1 instead of the local socket.\n"
    "A word is a run of the letters A to Z, in lower case, of which the first 27 count.\n"
    "Compressed files (*.gz) are left out.\n"
    "\n"
    "Environment:\n"
    "  WORDMILL_INSTANCE  a name, to have several daemons run side by side\n"
    "  WORDMILL_OTHER     for --mixed: the wordmill-worker of the other width; else it is looked for\n"
    "                     where the programs lie, with 32 for 64 or 64 for 32 in the path\n"
    "  QVOPL_IPC_PATH     where the named objects have their files (/tmp)\n"
    "  TALVEN_HOME        with it, what happens to workers is logged in $TALVEN_HOME/tmer/log\n"
    "\n"
    "Status: 0 fine; 1 no, as not running, not found, not all counted; 2 wrong use\n";

/* What the command line says. */
typedef struct Options {
  char home[PATH_MAX]; /* where this program lies */
  const char* operands[MILL_WORKERS_MAX];
  uint32_t operandCount;
  const char* workers;
  const char* fault; /* for demonstrations and tests; allows more of them */
  bool isMixed;
  bool waits;
  uint16_t port;
} Options;

static uint32_t WrongUse(const char* what, const char* which) {
  fprintf(stderr, "wordmill: %s%s; see wordmill --help\n", what, which);
  return MILL_USAGE;
}

static uint32_t NotRunning(void) {
  fprintf(stderr, "wordmill: not running\n");
  return MILL_NO;
}

/* Asking. */

/* Prints what the daemon answers. */
static uint32_t Ask(const Options* options, const char* request) {
  char* lines = NULL;
  const uint32_t status = Talk(options->port, request, &lines);
  if (status == TALK_NOBODY) return NotRunning();
  fputs(lines, status == MILL_USAGE ? stderr : stdout);
  MillFree(lines);
  return status;
}

static uint32_t AskAbout(const Options* options, const char* verb, const char* operand) {
  char request[MILL_REQUEST_SIZE];
  const int length = snprintf(request, sizeof request, "%s %s", verb, operand);
  if (length >= MILL_REQUEST_SIZE - 1 || strchr(operand, '\n') != NULL) return WrongUse("no word: ", operand);
  return Ask(options, request);
}

static uint32_t Status(const Options* options) { return Ask(options, "status"); }

static uint32_t Query(const Options* options) {
  if (options->operandCount != 1) return WrongUse("query takes one word", "");
  return AskAbout(options, "query", options->operands[0]);
}

static uint32_t Top(const Options* options) {
  if (options->operandCount > 1) return WrongUse("top takes one number", "");
  return AskAbout(options, "top", options->operandCount == 1 ? options->operands[0] : "10");
}

static uint32_t Fault(const Options* options) {
  return AskAbout(options, "fault", options->operandCount == 1 ? options->operands[0] : "");
}

/* Waiting. */

/* What the daemon answers to "progress". */
typedef struct Progress {
  char state[16];
  uint32_t numbers[PROGRESS_COUNT];
} Progress;

static bool GetProgress(Progress* progress) {
  char* lines = NULL;
  if (Talk(0, "progress", &lines) != MILL_OK) return false;
  char* rest = NULL;
  const char* token = OPL_CrtStrTok(lines, " \n", &rest);
  snprintf(progress->state, sizeof progress->state, "%s", token != NULL ? token : "");
  for (uint32_t i = 0; i < PROGRESS_COUNT && token != NULL; ++i) {
    token = OPL_CrtStrTok(NULL, " \n", &rest);
    if (token != NULL) progress->numbers[i] = (uint32_t)strtoul(token, NULL, 10);
  }
  MillFree(lines);
  return token != NULL;
}

static double MillionsPerSecond(const uint32_t* numbers) {
  return numbers[PROGRESS_WORDS] / 1000.0 / (numbers[PROGRESS_MS] != 0 ? numbers[PROGRESS_MS] : 1);
}

/* One line that is written over and over. */
static void DrawBar(const uint32_t* numbers) {
  char bar[BAR_WIDTH + 1];
  const uint32_t files = numbers[PROGRESS_FILES];
  const uint64_t filled = files != 0 ? (uint64_t)numbers[PROGRESS_DONE] * BAR_WIDTH / files : BAR_WIDTH;
  memset(bar, ' ', BAR_WIDTH);
  memset(bar, '#', (size_t)filled);
  bar[BAR_WIDTH] = '\0';
  printf("\r[%s] %u of %u files, %.1f million words/s ", bar, numbers[PROGRESS_DONE], files,
         MillionsPerSecond(numbers));
  fflush(stdout);
}

static uint32_t PrintResult(const uint32_t* numbers) {
  const uint32_t skipped = numbers[PROGRESS_SKIPPED];
  printf("counted %u words (%u different) of %u files in %.2f s: %.1f million words/s\n",
         numbers[PROGRESS_WORDS], numbers[PROGRESS_DIFFERENT], numbers[PROGRESS_DONE] - skipped,
         numbers[PROGRESS_MS] / 1000.0, MillionsPerSecond(numbers));
  if (skipped == 0) return MILL_OK;
  printf("skipped %u files, which cannot be read or have too many words\n", skipped);
  return MILL_NO;
}

static uint32_t WaitUntilDone(const Options* options) {
  (void)options;
  const bool isTerminal = isatty(STDOUT_FILENO) == 1;
  Progress progress = {{0}, {0}};
  bool isRunning = GetProgress(&progress);
  for (; isRunning && strcmp(progress.state, "indexing") == 0; isRunning = GetProgress(&progress)) {
    if (isTerminal) DrawBar(progress.numbers);
    OPL_CrtMilliSleep(REDRAW_MS);
  }
  if (!isRunning) return NotRunning();
  if (isTerminal) {
    DrawBar(progress.numbers);
    printf("\n");
  }
  if (strcmp(progress.state, "done") == 0) return PrintResult(progress.numbers);
  fprintf(stderr, "wordmill: no worker can be started\n");
  return MILL_NO;
}

/* Starting and stopping. */

static OPL_Server* CreateServer(const Options* options) {
  char program[PROGRAM_SIZE];
  char name[MILL_NAME_SIZE];
  OPL_ServerParam* parameters = NULL;
  OPL_Server* server = NULL;
  snprintf(program, sizeof program, "%s/wordmilld", options->home);
  MillProcessName(name);
  MillRequire(OPL_ServerParamCreate(&parameters, 0), "OPL_ServerParamCreate");
  MillRequire(OPL_ServerParamSet(parameters, OPL_SERVER_PARAM_SCRIPT_DIRECTORY, options->home),
              "the scripts");
  MillRequire(OPL_ServerParamSet(parameters, OPL_SERVER_PARAM_CONTROLLER_NAME, MILL_CONTROLLER_NAME),
              "the controller's name");
  MillRequire(OPL_ServerParamSet(parameters, OPL_SERVER_PARAM_EXECUTABLE_PATH, program), "the program");
  MillRequire(OPL_ServerParamSet(parameters, OPL_SERVER_PARAM_PROCESS_NAME, name), "the process name");
  MillRequire(OPL_ServerCreate(&server, OPL_SERVER_DETACHED, parameters), "OPL_ServerCreate");
  MillRequire(OPL_ServerParamDestroy(&parameters), "OPL_ServerParamDestroy");
  return server;
}

/* The directories' canonical names, with ':' between them. */
static uint32_t SetTrees(const Options* options) {
  char trees[TREES_SIZE];
  size_t length = 0;
  char directory[PATH_MAX];
  struct stat status;
  if (options->operandCount == 0) return WrongUse("start takes a directory", "");
  for (uint32_t i = 0; i < options->operandCount; ++i) {
    if (OPL_FileCanonicalNameGet(options->operands[i], directory, sizeof directory) != OPL_OK ||
        stat(directory, &status) == -1 || !S_ISDIR(status.st_mode) || strchr(directory, ':') != NULL)
      return WrongUse("no directory: ", options->operands[i]);
    if (length + strlen(directory) + 2 > sizeof trees) return WrongUse("too many directories", "");
    length += (size_t)snprintf(trees + length, sizeof trees - length, "%s%s", i != 0 ? ":" : "", directory);
  }
  setenv(MILL_ENV_TREES, trees, 1);
  return MILL_OK;
}

/* Puts the other width's number where the own one stands last in the path of the programs. */
static bool FindOther(const Options* options, char other[PROGRAM_SIZE]) {
  const char* own = MILL_WIDTH == 32 ? "32" : "64";
  char* width = NULL;
  snprintf(other, PROGRAM_SIZE, "%s/wordmill-worker", options->home);
  for (char* found = strstr(other, own); found != NULL; found = strstr(found + 1, own)) width = found;
  if (width == NULL) return false;
  width[0] = MILL_WIDTH == 32 ? '6' : '3';
  width[1] = MILL_WIDTH == 32 ? '4' : '2';
  return true;
}

static uint32_t SetOther(const Options* options) {
  char found[PROGRAM_SIZE] = "";
  if (!options->isMixed) {
    unsetenv(MILL_ENV_OTHER);
    return MILL_OK;
  }
  if (getenv(MILL_ENV_OTHER) == NULL && FindOther(options, found)) setenv(MILL_ENV_OTHER, found, 1);
  const char* other = MillSetting(MILL_ENV_OTHER, "");
  if (access(other, X_OK) == 0) return MILL_OK;
  fprintf(stderr, "wordmill: no program of the other width: %s\n", other);
  return MILL_NO;
}

static uint32_t SetEnvironment(const Options* options) {
  char* end = NULL;
  const unsigned long workers = strtoul(options->workers, &end, 10);
  if (workers == 0 || workers > MILL_WORKERS_MAX || *end != '\0')
    return WrongUse("not 1 to 32 workers: ", options->workers);
  setenv(MILL_ENV_WORKERS, options->workers, 1);
  setenv(MILL_ENV_FAULT, options->fault, 1);
  const uint32_t status = SetTrees(options);
  return status != MILL_OK ? status : SetOther(options);
}

/* A daemon that was killed has left its objects: they go before the next one makes its own. */
static OPL_Result StartDaemon(OPL_Server* server) {
  uint32_t isRunning = 0;
  const OPL_Result rc = OPL_ServerIsStarted(server, &isRunning);
  if (rc != OPL_OK) return rc;
  if (isRunning == 0) MillCheck(OPL_InitTerminateIPC(0, MILL_OWN_FILES), "removing what was left");
  return OPL_ServerStart(server, NULL, NULL, START_SECONDS);
}

/* Another controller that does the same waits for the lock file, and then finds the daemon running. */
static OPL_Result StartAlone(const Options* options) {
  OPL_SyncLockFile* lock = NULL;
  MillRequire(OPL_SyncLockFileCreate(&lock, MILL_START_LOCK), "locking the start");
  OPL_Server* server = CreateServer(options);
  const OPL_Result rc = StartDaemon(server);
  /* This is the child, which has not become the daemon. */
  if (rc == OPL_SERVER_E_PARAM) {
    MillSay("%s", OPL_ErrMessageGet(0));
    _exit(MILL_NO);
  }
  MillCheck(OPL_ServerDestroy(&server), "OPL_ServerDestroy");
  MillCheck(OPL_SyncLockFileDestroy(&lock), "unlocking the start");
  return rc;
}

static uint32_t Start(const Options* options) {
  const uint32_t status = SetEnvironment(options);
  if (status != MILL_OK) return status;
  const OPL_Result rc = StartAlone(options);
  if (rc == OPL_SERVER_E_STARTED) {
    fprintf(stderr, "wordmill: running already\n");
    return MILL_NO;
  }
  if (!MillCheck(rc, "starting the daemon")) return MILL_NO;
  return options->waits ? WaitUntilDone(options) : MILL_OK;
}

/* What a daemon has left that was killed, be it in the midst of its stopping, goes too. */
static uint32_t Stop(const Options* options) {
  OPL_Server* server = CreateServer(options);
  const OPL_Result rc = OPL_ServerStop(server, STOP_SECONDS);
  MillCheck(OPL_ServerDestroy(&server), "OPL_ServerDestroy");
  if (rc == OPL_OK || rc == OPL_SERVER_E_NOT_STARTED)
    MillCheck(OPL_InitTerminateIPC(0, MILL_OWN_FILES), "removing what was left");
  if (rc == OPL_SERVER_E_NOT_STARTED) return NotRunning();
  return MillCheck(rc, "stopping the daemon") ? MILL_OK : MILL_NO;
}

/* The command line. */

typedef struct Command {
  const char* name;
  uint32_t (*run)(const Options* options);
} Command;

static const Command kCommands[] = {
    {"start", Start}, {"wait", WaitUntilDone}, {"status", Status}, {"query", Query},
    {"top", Top},     {"stop", Stop},          {"fault", Fault}};

static const Command* FindCommand(const char* name) {
  for (uint32_t i = 0; i < sizeof kCommands / sizeof kCommands[0]; ++i)
    if (strcmp(name, kCommands[i].name) == 0) return &kCommands[i];
  return NULL;
}

static bool ReadPort(const char* text, uint16_t* port) {
  char* end = NULL;
  const unsigned long number = strtoul(text, &end, 10);
  *port = (uint16_t)number;
  return number >= 1 && number <= 65535 && *end == '\0';
}

static bool ReadArguments(Options* options, char** arguments) {
  for (; *arguments != NULL; ++arguments) {
    const char* argument = *arguments;
    if (strcmp(argument, "--mixed") == 0)
      options->isMixed = true;
    else if (strcmp(argument, "--no-wait") == 0)
      options->waits = false;
    else if (strcmp(argument, "--workers") == 0 && arguments[1] != NULL)
      options->workers = *++arguments;
    else if (strcmp(argument, "--fault") == 0 && arguments[1] != NULL)
      options->fault = *++arguments;
    else if (strcmp(argument, "--tcp") == 0 && arguments[1] != NULL && ReadPort(arguments[1], &options->port))
      ++arguments;
    else if (argument[0] != '-' && options->operandCount < MILL_WORKERS_MAX)
      options->operands[options->operandCount++] = argument;
    else
      return false;
  }
  return true;
}

int main(int argc, char** argv) {
  static Options options = {.workers = "4", .fault = "", .waits = true};
  if (argc == 2 && strcmp(argv[1], "--help") == 0) {
    fputs(kUsage, stdout);
    return MILL_OK;
  }
  const Command* command = argc > 1 ? FindCommand(argv[1]) : NULL;
  if (command == NULL || !ReadArguments(&options, argv + 2)) {
    fputs(kUsage, stderr);
    return MILL_USAGE;
  }
  MillRequire(OPL_InitBegin(0), "OPL_InitBegin");
  MillRequire(OPL_SigSignal(0, SIGPIPE, SIG_IGN, NULL), "ignoring SIGPIPE");
  MillRequire(OPL_FileExecutablePathFind(argv[0], options.home, sizeof options.home), "finding the programs");
  const uint32_t status = command->run(&options);
  MillRequire(OPL_InitEnd(0), "OPL_InitEnd");
  return (int)status;
}
