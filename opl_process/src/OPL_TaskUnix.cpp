// Tasks: forked child processes that run one function.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "OPL_Init.h"
#include "OPL_Process.h"
#include "opl_err/src/Fail.h"

namespace {

using opl::Code;
using opl::Fail;
using opl::NativeError;

// Deliberate: the status is 0 even where the library could not be begun; nobody is told the child's id to
// ask.
[[noreturn]] void RunTask(void (*function)(void*), void* argument) {
  if (OPL_InitBegin(0) == OPL_OK) {
    function(argument);
    (void)OPL_InitEnd(OPL_INIT_END_ORDINARY);
  }
  std::exit(0);  // NOLINT(concurrency-mt-unsafe): the child has one thread
}

}  // namespace

OPL_Result OPL_TaskCreate(uint32_t /*reserved*/, void (*function)(void*), void* argument) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (function == nullptr) return Fail(OPL_TASK_E_NULL_ARGUMENT, "%s: pFunc is NULL");
  const pid_t pid = ::fork();
  if (pid == -1) {
    const NativeError error;
    return Fail(error, OPL_TASK_E_FORK, "%s: fork error :%i,%s", error.number(), error.text());
  }
  if (pid == 0) RunTask(function, argument);
  return OPL_OK;
}

OPL_Result OPL_TaskIsFork(uint32_t /*reserved*/, uint32_t* pIsFork) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pIsFork == nullptr) return Fail(OPL_TASK_E_NULL_ARGUMENT, "%s: pIsFork is NULL");
  *pIsFork = 1;
  return OPL_OK;
}
