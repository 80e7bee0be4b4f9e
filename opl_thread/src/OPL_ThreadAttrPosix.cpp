// Thread attributes: a handle is the system's attribute object.
#include <pthread.h>

#include <algorithm>
#include <cerrno>

#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"

struct OPL_ThreadAttr {
  pthread_attr_t posix;
};

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

Code SetScope(OPL_ThreadAttr* attr, uint32_t scope, int* error) {
  if (scope > OPL_THREAD_SCOPE_SYSTEM)
    return Fail(Caller{"OPL_ThreadAttrSet"}, OPL_THREAD_E_INVALID_ARGUMENT,
                "%s: Contention scope value (%d) invalid.", scope);
  *error = ::pthread_attr_setscope(
      &attr->posix, scope == OPL_THREAD_SCOPE_PROCESS ? PTHREAD_SCOPE_PROCESS : PTHREAD_SCOPE_SYSTEM);
  return OPL_OK;
}

Code GetScope(const OPL_ThreadAttr* attr, uint32_t* pScope, int* error) {
  int scope = -1;
  *error = ::pthread_attr_getscope(&attr->posix, &scope);
  if (*error != 0) return OPL_OK;
  if (scope != PTHREAD_SCOPE_PROCESS && scope != PTHREAD_SCOPE_SYSTEM)
    return Fail(Caller{"OPL_ThreadAttrGet"}, OPL_THREAD_E_INVALID_ARGUMENT,
                "%s: Contention scope value (%d) invalid.", scope);
  *pScope = scope == PTHREAD_SCOPE_PROCESS ? OPL_THREAD_SCOPE_PROCESS : OPL_THREAD_SCOPE_SYSTEM;
  return OPL_OK;
}

int GetStackSize(const OPL_ThreadAttr* attr, uint32_t* pSizeBytes) {
  size_t sizeBytes = 0;
  const int error = ::pthread_attr_getstacksize(&attr->posix, &sizeBytes);
  if (error == 0) *pSizeBytes = static_cast<uint32_t>(std::min<size_t>(sizeBytes, UINT32_MAX));
  return error;
}

// What both refuse before they look at the value.
[[nodiscard]] Code CheckOption(const OPL_ThreadAttr* attr, uint32_t option, const uint32_t* pValue,
                               const char* caller = __builtin_FUNCTION()) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (attr == nullptr) return Fail(Caller{caller}, OPL_THREAD_E_INVALID_ARGUMENT, "%s: pThreadAttr == NULL");
  if (option > OPL_THREAD_ATTR_SCOPE)
    return Fail(Caller{caller}, OPL_THREAD_E_INVALID_ARGUMENT, "%s: AttrOption (%d) invalid.", option);
  if (pValue == nullptr)
    return Fail(Caller{caller}, OPL_THREAD_E_INVALID_ARGUMENT, "%s: pValue is invalid for AttrOption (%d).",
                option);
  return OPL_OK;
}

// What the system says of an option, as the number of its error or 0.
[[nodiscard]] Code CheckTaken(int number, uint32_t option, const char* caller = __builtin_FUNCTION()) {
  if (number == 0) return OPL_OK;
  return Fail(Caller{caller}, NativeError(number), OPL_THREAD_E_INVALID_ARGUMENT,
              "%s: pValue is invalid for AttrOption (%d).", option);
}

}  // namespace

OPL_Result OPL_ThreadAttrCreate(OPL_ThreadAttr** ppThreadAttr, uint32_t mode) {
  // Deliberate: null is stored even while the library is stopped; callers look at the handle alone.
  if (ppThreadAttr != nullptr) *ppThreadAttr = nullptr;
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppThreadAttr == nullptr) return Fail(OPL_THREAD_E_INVALID_ARGUMENT, "%s: ppThreadAttr == NULL");
  if (mode != 0) return Fail(OPL_THREAD_E_INVALID_ARGUMENT, "%s: Invalid mode (%u)", mode);

  opl::Owned<OPL_ThreadAttr> attr = opl::Allocate<OPL_ThreadAttr>();
  if (attr == nullptr) {
    const NativeError error;
    return Fail(error, OPL_THREAD_E_RESOURCES, "%s: OPL_MEMMALLOC: %s", error.text());
  }
  if (const NativeError error(::pthread_attr_init(&attr->posix)); error.number() != 0)
    return Fail(error, OPL_THREAD_E_RESOURCES, "%s: pthread_attr_init: %s", error.text());
  opl::Undo destroyAttr([&] { (void)::pthread_attr_destroy(&attr->posix); });
  if (const NativeError error(::pthread_attr_setdetachstate(&attr->posix, PTHREAD_CREATE_DETACHED));
      error.number() != 0)
    return Fail(error, OPL_THREAD_E_RESOURCES, "%s: pthread_attr_setdetachstate: %s", error.text());

  destroyAttr.Keep();
  *ppThreadAttr = attr.release();
  return OPL_OK;
}

OPL_Result OPL_ThreadAttrDestroy(OPL_ThreadAttr** ppThreadAttr) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppThreadAttr == nullptr || *ppThreadAttr == nullptr)
    return Fail(OPL_THREAD_E_INVALID_ARGUMENT, "%s: ppThreadAttr == NULL");

  Code result = OPL_OK;
  if (const NativeError error(::pthread_attr_destroy(&(*ppThreadAttr)->posix)); error.number() != 0)
    result = Fail(error, OPL_THREAD_E_INVALID_ARGUMENT, "%s: pthread_attr_destroy: %s", error.text());
  opl::Free(*ppThreadAttr);
  *ppThreadAttr = nullptr;
  return result;
}

OPL_Result OPL_ThreadAttrSet(OPL_ThreadAttr* hThreadAttr, uint32_t option, const uint32_t* pValue) {
  if (const Code rc = CheckOption(hThreadAttr, option, pValue)) return rc;

  int number = 0;
  if (option == OPL_THREAD_ATTR_STACK_SIZE)
    number = ::pthread_attr_setstacksize(&hThreadAttr->posix, *pValue);
  else if (const Code rc = SetScope(hThreadAttr, *pValue, &number))
    return rc;
  return CheckTaken(number, option);
}

OPL_Result OPL_ThreadAttrGet(OPL_ThreadAttr* hThreadAttr, uint32_t option, uint32_t* pValue) {
  if (const Code rc = CheckOption(hThreadAttr, option, pValue)) return rc;

  int number = 0;
  if (option == OPL_THREAD_ATTR_STACK_SIZE)
    number = GetStackSize(hThreadAttr, pValue);
  else if (const Code rc = GetScope(hThreadAttr, pValue, &number))
    return rc;
  return CheckTaken(number, option);
}

OPL_Result OPL_ThreadAttrPosixGet(OPL_ThreadAttr* hThreadAttr, pthread_attr_t** pPosixAttr) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pPosixAttr != nullptr) *pPosixAttr = hThreadAttr != nullptr ? &hThreadAttr->posix : nullptr;
  if (hThreadAttr == nullptr) return Fail(OPL_THREAD_E_INVALID_ARGUMENT, "%s: hThreadAttr == NULL");
  return OPL_OK;
}
