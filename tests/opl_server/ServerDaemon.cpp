// A daemon for tests. It gets no arguments: what it does is told by words in the environment's
// QVOPL_TEST_DAEMON, and what happens to it goes as lines to the FIFO "events" of its directory.
//
//   exit        ends at once, without the library
//   silent      never says that it is started
//   foreground  stays where it was started
//   close       has its standard files closed
//   stubborn    goes on when it is asked to stop
//   children    starts two processes that do nothing, and ends them
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Server.h"

namespace {

int gStopPipe[2];

bool Has(const char* word) {
  const char* const words = std::getenv("QVOPL_TEST_DAEMON");
  return words != nullptr && std::strstr(words, word) != nullptr;
}

void Report(const std::string& line) {
  const int fd = ::open("events", O_WRONLY | O_CLOEXEC);
  const std::string whole = line + "\n";
  if (fd == -1 || ::write(fd, whole.data(), whole.size()) == -1) ::_exit(9);
  (void)::close(fd);
}

// In the signal handler.
void OnSignal(void* word) {
  if (word == &gStopPipe) (void)!::write(gStopPipe[1], "s", 1);
}

std::string OpenDescriptors() {
  std::string open;
  for (const int fd : {0, 1, 2})
    if (::fcntl(fd, F_GETFD) != -1) open += std::to_string(fd);
  return open.empty() ? "none" : open;
}

// Until the signal, or the end of the process where stop requests are not heard.
void Serve() {
  char byte;
  do
    while (::read(gStopPipe[0], &byte, 1) == -1) {
    }
  while (Has("stubborn"));
}

uint32_t Main(void* a, void* b, void*) {
  const mode_t mask = ::umask(0);
  (void)::umask(mask);
  char line[128];
  (void)std::snprintf(line, sizeof line, "begun %d %d %d %d %03o %s %s%s", static_cast<int>(::getpid()),
                      static_cast<int>(::getppid()), static_cast<int>(::getpgrp()),
                      static_cast<int>(::getsid(0)), static_cast<unsigned>(mask), OpenDescriptors().c_str(),
                      static_cast<const char*>(a), static_cast<const char*>(b));
  Report(line);
  pid_t children[2] = {};
  if (Has("children")) {
    for (pid_t& child : children) {
      child = ::fork();
      if (child == 0)
        for (;;) (void)::pause();
    }
  }
  if (!Has("silent") && OPL_ServerSetStarted() != OPL_OK) return 1;
  Report("ready");
  Serve();
  for (const pid_t child : children) {
    if (child <= 0) continue;
    (void)::kill(child, SIGKILL);
    (void)::waitpid(child, nullptr, 0);
  }
  if (OPL_ServerSetStop() != OPL_OK) return 2;
  return 77;
}

int Run() {
  OPL_ServerParam* param = nullptr;
  OPL_Server* server = nullptr;
  const char* const controller = std::getenv("QVOPL_TEST_CONTROLLER");
  if (OPL_ServerParamCreate(&param, 0) != OPL_OK) return 3;
  (void)OPL_ServerParamSet(param, OPL_SERVER_PARAM_CONTROLLER_NAME,
                           controller != nullptr ? controller : "ctl");
  if (OPL_ServerCreate(&server, Has("foreground") ? OPL_SERVER_FOREGROUND : OPL_SERVER_DETACHED, param) !=
      OPL_OK)
    return 4;
  (void)OPL_ServerParamDestroy(&param);
  char a[] = "a";
  char b[] = "b";
  uint32_t result = 0;
  const OPL_Result rc =
      OPL_ServerMain(server, Has("close") ? 1 : 0, Main, OnSignal, a, b, &gStopPipe, &result);
  const std::string message = rc == OPL_OK ? "" : OPL_ErrMessageGet(0);
  (void)OPL_ServerDestroy(&server);
  Report("ended " + std::to_string(rc) + " " + std::to_string(result) + message);
  return 0;
}

}  // namespace

// Names the test's instance for the library, as a host program does.
extern "C" const char* OPL_InitInstanceStringSetCallback() { return std::getenv("QVOPL_TEST_INSTANCE"); }

// The record of the thread that ends the library stays allocated.
extern "C" const char* __lsan_default_suppressions() { return "leak:MakeRecord\n"; }

int main(int, char** argv) {
  if (Has("exit")) return 0;
  if (::pipe2(gStopPipe, O_CLOEXEC) == -1) return 5;
  if (OPL_InitBegin(0) != OPL_OK) return 6;
  Report(std::string("executed ") + argv[0]);
  const int status = Run();
  (void)OPL_InitEnd(0);
  return status;
}
