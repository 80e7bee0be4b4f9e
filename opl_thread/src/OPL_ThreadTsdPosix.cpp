// Thread-specific data. No messages: the error record itself is found through a key.
#include <pthread.h>

#include <cerrno>

#include "OPL_Thread.h"
#include "opl_thread/src/ThreadTsd.h"

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

OPL_Result OPL_ThreadTsdSetValue(uint32_t key, void* value) { return opl::SetTsdValue(key, value); }

OPL_Result OPL_ThreadTsdGetValue(uint32_t key, void** pValue) {
  if (pValue == nullptr) return OPL_THREAD_E_NULL_ARGUMENT;
  return opl::GetTsdValue(key, pValue);
}

OPL_Result OPL_ThreadTsdFreeKey(uint32_t* pKey) {
  if (pKey == nullptr) return OPL_THREAD_E_NULL_ARGUMENT;
  if (*pKey != OPL_THREAD_NO_KEY) (void)::pthread_key_delete(*pKey);
  *pKey = OPL_THREAD_NO_KEY;
  return OPL_OK;
}
