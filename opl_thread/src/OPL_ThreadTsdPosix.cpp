// Thread-specific data. No messages: the error record itself is found through a key.
#include <pthread.h>

#include <cerrno>

#include "OPL_Thread.h"

static_assert(sizeof(pthread_key_t) == sizeof(uint32_t), "a key is handed out as 32 bits");

OPL_Result OPL_ThreadTsdAllocKey(uint32_t* pKey, void (*destructor)(void*)) {
  if (pKey == nullptr) return OPL_THREAD_E_NULL_ARGUMENT;
  pthread_key_t key{};
  switch (::pthread_key_create(&key, destructor)) {
    case 0:
      *pKey = key;
      return OPL_OK;
    case ENOMEM:
      return OPL_THREAD_E_KEY_NO_MEMORY;
    default:
      return OPL_THREAD_E_NO_KEY;
  }
}

OPL_Result OPL_ThreadTsdSetValue(uint32_t key, void* value) {
  if (key == OPL_THREAD_NO_KEY) return OPL_THREAD_E_INVALID_KEY;
  switch (::pthread_setspecific(key, value)) {
    case 0:
      return OPL_OK;
    case EINVAL:
      return OPL_THREAD_E_INVALID_KEY;
    default:
      return OPL_THREAD_E_SET_VALUE;
  }
}

OPL_Result OPL_ThreadTsdGetValue(uint32_t key, void** pValue) {
  if (pValue == nullptr) return OPL_THREAD_E_NULL_ARGUMENT;
  if (key == OPL_THREAD_NO_KEY) return OPL_THREAD_E_INVALID_KEY;
  *pValue = ::pthread_getspecific(key);
  return OPL_OK;
}

OPL_Result OPL_ThreadTsdFreeKey(uint32_t* pKey) {
  if (pKey == nullptr) return OPL_THREAD_E_NULL_ARGUMENT;
  if (*pKey != OPL_THREAD_NO_KEY) (void)::pthread_key_delete(*pKey);
  *pKey = OPL_THREAD_NO_KEY;
  return OPL_OK;
}
