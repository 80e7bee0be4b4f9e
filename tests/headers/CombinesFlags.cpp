// Flags that go into one argument combine in a call without a warning: C++20 finds fault with two
// enumerations in one expression.
#include "OPL_SharedMem.h"
#include "OPL_Sync.h"

void CombineFlags(void (*take)(uint32_t));

void CombineFlags(void (*take)(uint32_t)) {
  take(OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_ZERO);
  take(OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_LOCKED_RESTART);
  take(OPL_SHAREDMEM_ALL | OPL_SHAREDMEM_LOCKED_ZERO);
  take(OPL_SYNC_MUTEX_PRIVATE | OPL_SYNC_MUTEX_RESTART);
  take(OPL_SYNC_RWLOCK_PRIVATE | OPL_SYNC_RWLOCK_RESTART);
  take(OPL_SYNC_WAIT_ERROR | OPL_SYNC_WAIT_READABLE);
}
