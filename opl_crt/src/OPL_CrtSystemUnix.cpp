// The system at large: its limits, its shell, its keys, and the allocator's statistics.
#include <malloc.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "OPL_Crt.h"
#include "opl_err/src/Fail.h"

namespace {

struct Ending {
  uint32_t kind;
  int32_t value;
};

Ending EndingOf(int status) {
  if (WIFEXITED(status)) return {OPL_CRT_SYSTEM_EXITED, WEXITSTATUS(status)};
  if (WIFSIGNALED(status)) return {OPL_CRT_SYSTEM_SIGNALED, WTERMSIG(status)};
  return {OPL_CRT_SYSTEM_UNKNOWN, -1};
}

}  // namespace

long OPL_CrtSysConf(int32_t name) { return ::sysconf(name); }

struct mallinfo OPL_CrtMallInfo() {
  // Its counters are ints and wrap at 2 GB; the record is what callers of this function know.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  return ::mallinfo();  // NOLINT(concurrency-mt-unsafe)
#pragma GCC diagnostic pop
}

int32_t OPL_CrtFtok(const char* path, uint32_t projectId) {
  if (projectId == 0) {
    errno = EINVAL;
    return -1;
  }
  struct stat64 status {};
  if (::stat64(path, &status) == -1) return -1;
  return ::ftok(path, static_cast<int>(projectId));
}

OPL_Result OPL_CrtSystem(const char* command, uint32_t* pKind, int32_t* pValue) {
  // The shell is what this function is for, and the system's own is safe to call from any thread.
  const int status = std::system(command);  // NOLINT(cert-env33-c, concurrency-mt-unsafe)
  if (status == -1) {
    const opl::NativeError error;
    return opl::Fail(error, OPL_CRT_E_SYSTEM, "OPL_CrtSystem: system() failed with errno %d (%s).",
                     error.number(), error.text());
  }
  const Ending ending = EndingOf(status);
  if (pKind != nullptr) *pKind = ending.kind;
  if (pValue != nullptr) *pValue = ending.value;
  return OPL_OK;
}
