// Process identity, liveness and times.
#include <pthread.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "OPL_Init.h"
#include "OPL_Process.h"
#include "opl_err/src/Fail.h"
#include "opl_process/src/SendSignal.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

// The id that the host program set, or OPL_PROCESS_NO_ID. A plain word, written before other threads exist.
std::atomic<uint32_t> gProcessId{OPL_PROCESS_NO_ID};

Code StoreId(const char* caller, uint32_t id, uint32_t* pPid) {
  if (pPid == nullptr) return Fail(Caller{caller}, OPL_PROCESS_E_NULL_ARGUMENT, "%s: pPid is NULL;");
  if (id == OPL_PROCESS_NO_ID) {
    const NativeError error;
    return Fail(Caller{caller}, error, OPL_PROCESS_E_ID, "%s: getpid error :%i,%s", error.number(),
                error.text());
  }
  *pPid = id;
  return OPL_OK;
}

}  // namespace

namespace opl {

int SendSignal(uint32_t pid, int signalNumber) {
  if (pid == 0 || pid > INT32_MAX) {
    errno = ESRCH;
    return -1;
  }
  return ::kill(static_cast<pid_t>(pid), signalNumber);
}

}  // namespace opl

OPL_Result OPL_ProcessIdGet(uint32_t* pPid) {
  const uint32_t id = gProcessId.load(std::memory_order_relaxed);
  return StoreId("OPL_ProcessIdGet", id != OPL_PROCESS_NO_ID ? id : static_cast<uint32_t>(::getpid()), pPid);
}

OPL_Result OPL_ProcessRealIdGet(uint32_t* pPid) {
  // Deliberate: the messages name OPL_ProcessIdGet.
  return StoreId("OPL_ProcessIdGet", static_cast<uint32_t>(::getpid()), pPid);
}

OPL_Result OPL_ProcessIdSet(uint32_t pid) {
  gProcessId.store(pid, std::memory_order_relaxed);
  return OPL_OK;
}

OPL_Result OPL_ProcessParentIdGet(uint32_t* pPid) {
  return StoreId("OPL_ProcessParentIdGet", static_cast<uint32_t>(::getppid()), pPid);
}

OPL_Result OPL_ProcessIdCompare(uint32_t pidA, uint32_t pidB, uint32_t* pIsEqual) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pIsEqual == nullptr) return Fail(OPL_PROCESS_E_NULL_ARGUMENT, "%s: pIsEqual is NULL;");
  *pIsEqual = pidA == pidB ? 1 : 0;
  return OPL_OK;
}

OPL_Result OPL_ProcessAtFork(void (*prepare)(), void (*parent)(), void (*child)()) {
  const NativeError error(::pthread_atfork(prepare, parent, child));
  if (error.number() == 0) return OPL_OK;
  return Fail(error, OPL_PROCESS_E_ATFORK, "%s: pthread_atfork error :%d, %s", error.number(), error.text());
}

OPL_Result OPL_ProcessIsAlive(uint32_t pid, uint32_t* pAlive) {
  const bool isAlive = opl::SendSignal(pid, 0) != -1;
  if (!isAlive && errno != ESRCH) {
    const NativeError error;
    return Fail(error, OPL_PROCESS_E_KILL, "%s: kill error: %d, %s", error.number(), error.text());
  }
  if (pAlive != nullptr) *pAlive = isAlive ? 1 : 0;
  return OPL_OK;
}

OPL_Result OPL_ProcessTerminate(uint32_t pid) {
  if (opl::SendSignal(pid, SIGTERM) != -1) return OPL_OK;
  const NativeError error;
  // Deliberate: the message names OPL_ProcessIsAlive.
  return Fail(Caller{"OPL_ProcessIsAlive"}, error, OPL_PROCESS_E_KILL, "%s: kill error: %d, %s",
              error.number(), error.text());
}

OPL_Result OPL_ProcessTimesGet(uint32_t* pElapsed, uint32_t* times) {
  struct tms ticks {};
  const clock_t elapsed = ::times(&ticks);
  if (elapsed == static_cast<clock_t>(-1)) {
    const NativeError error;
    return Fail(error, OPL_PROCESS_E_TIMES, "%s: times: %s", error.text());
  }
  if (pElapsed != nullptr) *pElapsed = static_cast<uint32_t>(elapsed);
  if (times != nullptr) {
    times[OPL_PROCESS_TIMES_USER] = static_cast<uint32_t>(ticks.tms_utime);
    times[OPL_PROCESS_TIMES_SYSTEM] = static_cast<uint32_t>(ticks.tms_stime);
    times[OPL_PROCESS_TIMES_CHILDREN_USER] = static_cast<uint32_t>(ticks.tms_cutime);
    times[OPL_PROCESS_TIMES_CHILDREN_SYSTEM] = static_cast<uint32_t>(ticks.tms_cstime);
  }
  return OPL_OK;
}
