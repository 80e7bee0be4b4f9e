// Thread-specific data without a call of the library's own around the system's.
#ifndef OPL_THREAD_THREAD_TSD_H
#define OPL_THREAD_THREAD_TSD_H

#include <pthread.h>

#include <cerrno>
#include <cstdint>

#include "OPL_Thread.h"

namespace opl {

static_assert(sizeof(pthread_key_t) == sizeof(uint32_t), "a key is handed out as 32 bits");

inline OPL_Result SetTsdValue(uint32_t key, void* value) {
  if (key == OPL_THREAD_NO_KEY) return OPL_THREAD_E_INVALID_KEY;
  const int number = ::pthread_setspecific(key, value);
  if (number == 0) [[likely]]
    return OPL_OK;
  return number == EINVAL ? OPL_THREAD_E_INVALID_KEY : OPL_THREAD_E_SET_VALUE;
}

inline OPL_Result GetTsdValue(uint32_t key, void** pValue) {
  if (key == OPL_THREAD_NO_KEY) return OPL_THREAD_E_INVALID_KEY;
  *pValue = ::pthread_getspecific(key);
  return OPL_OK;
}

}  // namespace opl

#endif
