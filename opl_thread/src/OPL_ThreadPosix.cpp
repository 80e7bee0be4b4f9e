// Threads: creation, end, identity and the process's times.
#include <pthread.h>
#include <sys/times.h>

#include <cerrno>

#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "opl_err/src/Fail.h"
#include "opl_thread/src/ThreadId.h"

namespace {

using opl::Code;
using opl::Fail;
using opl::NativeError;

struct CreateError {
  int number;
  Code code;
};
constexpr CreateError kCreateErrors[] = {
    {EAGAIN, OPL_THREAD_E_RESOURCES},
    {ENOMEM, OPL_THREAD_E_RESOURCES},
    {EINVAL, OPL_THREAD_E_INVALID_ARGUMENT},
};

Code CodeOfCreateError(int number) {
  for (const CreateError& entry : kCreateErrors)
    if (entry.number == number) return entry.code;
  return OPL_THREAD_E_CREATE;
}

// Ends the attributes that OPL_ThreadCreate makes when its caller gives none.
class TemporaryAttr {
 public:
  TemporaryAttr() = default;
  ~TemporaryAttr() {
    if (handle_ != nullptr) (void)OPL_ThreadAttrDestroy(&handle_);
  }
  TemporaryAttr(const TemporaryAttr&) = delete;
  TemporaryAttr& operator=(const TemporaryAttr&) = delete;

  [[nodiscard]] Code Take() { return OPL_ThreadAttrCreate(&handle_, 0); }
  OPL_ThreadAttr* Get() const { return handle_; }

 private:
  OPL_ThreadAttr* handle_ = nullptr;
};

}  // namespace

OPL_Result OPL_ThreadCreate(uint32_t mode, OPL_ThreadAttr* hThreadAttr, void* (*start)(void*), void* argument,
                            uint32_t* pThreadId) {
  if (pThreadId != nullptr) *pThreadId = 0;
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (mode != 0) return Fail(OPL_THREAD_E_INVALID_ARGUMENT, "%s: Invalid mode");
  if (start == nullptr) return Fail(OPL_THREAD_E_INVALID_ARGUMENT, "%s: start is NULL");

  TemporaryAttr temporary;
  if (hThreadAttr == nullptr) {
    if (const Code rc = temporary.Take()) return rc;
    hThreadAttr = temporary.Get();
  }
  pthread_attr_t* attributes = nullptr;
  if (const Code rc = OPL_ThreadAttrPosixGet(hThreadAttr, &attributes)) return rc;

  pthread_t thread{};
  if (const NativeError error(::pthread_create(&thread, attributes, start, argument)); error.number() != 0)
    return Fail(error, CodeOfCreateError(error.number()), "%s: pthread_create: %s", error.text());
  if (pThreadId != nullptr) *pThreadId = opl::ThreadIdOf(thread);
  return OPL_OK;
}

OPL_Result OPL_ThreadExit() {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  ::pthread_exit(nullptr);
}

OPL_Result OPL_ThreadIdGet(uint32_t* pThreadId) {
  if (pThreadId != nullptr) *pThreadId = opl::ThreadIdOf(::pthread_self());
  return OPL_OK;
}

OPL_Result OPL_ThreadIdCompare(uint32_t id1, uint32_t id2, uint32_t* pMatch) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pMatch == nullptr) return Fail(OPL_THREAD_E_NULL_ARGUMENT, "%s: pMatch is NULL");
  *pMatch = id1 == id2 ? 1 : 0;
  return OPL_OK;
}

OPL_Result OPL_ThreadConcurrencySet(uint32_t /*level*/) { return OPL_InitIsStopped(0); }

OPL_Result OPL_ThreadConcurrencyGet(uint32_t* pLevel) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pLevel != nullptr) *pLevel = 0;
  return OPL_OK;
}

OPL_Result OPL_ThreadTimesGet(uint32_t* pElapsed, uint32_t* times) {
  struct tms ticks {};
  const clock_t elapsed = ::times(&ticks);
  if (elapsed == static_cast<clock_t>(-1)) {
    const NativeError error;
    return Fail(error, OPL_THREAD_E_INVALID_ARGUMENT, "%s: times: %s", error.text());
  }
  if (pElapsed != nullptr) *pElapsed = static_cast<uint32_t>(elapsed);
  if (times != nullptr) {
    times[OPL_THREAD_TIMES_USER] = static_cast<uint32_t>(ticks.tms_utime);
    times[OPL_THREAD_TIMES_SYSTEM] = static_cast<uint32_t>(ticks.tms_stime);
    times[OPL_THREAD_TIMES_CHILDREN_USER] = static_cast<uint32_t>(ticks.tms_cutime);
    times[OPL_THREAD_TIMES_CHILDREN_SYSTEM] = static_cast<uint32_t>(ticks.tms_cstime);
  }
  return OPL_OK;
}

OPL_Result OPL_ThreadInit(uint32_t /*mode*/) { return OPL_OK; }
