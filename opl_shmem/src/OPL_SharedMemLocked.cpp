// Locked shared memory: a block and a read-write lock of the same name.
#include <cerrno>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_mem/src/Owned.h"

struct OPL_SharedMemLocked {
  OPL_SyncRWLock* rwLock;
  OPL_SharedMem* memory;
  void* address;
};

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

struct Flags {
  uint32_t rwLock;
  uint32_t memory;
};

// Private wins over all users, for both objects.
Flags FlagsOf(uint32_t permission) {
  Flags flags{0, 0};
  if ((permission & OPL_SHAREDMEM_LOCKED_RESTART) != 0) flags.rwLock |= OPL_SYNC_RWLOCK_RESTART;
  if ((permission & OPL_SHAREDMEM_LOCKED_ZERO) != 0) flags.memory |= OPL_SHAREDMEM_ZERO;
  if ((permission & OPL_SHAREDMEM_PRIVATE) != 0) {
    flags.rwLock |= OPL_SYNC_RWLOCK_PRIVATE;
    flags.memory |= OPL_SHAREDMEM_PRIVATE;
  } else {
    flags.rwLock |= OPL_SYNC_RWLOCK_ALL;
    flags.memory |= OPL_SHAREDMEM_ALL;
  }
  return flags;
}

// The checks before the name's length, which each function words in its own way.
Code CheckArguments(const char* function, uint32_t mode, const char* name, uint32_t permission) {
  const Caller caller{function};
  if (name == nullptr) return Fail(caller, OPL_SHAREDMEM_E_NO_NAME, "%s: Name is NULL.");
  if ((permission & (OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_ALL)) == 0)
    return Fail(caller, OPL_SHAREDMEM_E_NO_PERMISSION, "%s: Permission not specified.");
  if (mode != 0) return Fail(caller, OPL_SHAREDMEM_E_INVALID_MODE, "%s: Invalid mode.");
  return OPL_OK;
}

Code AllocationFailed(const char* function) {
  return Fail(Caller{function}, NativeError(), OPL_SHAREDMEM_E_NO_MEMORY, "%s: malloc error");
}

Code RefuseGet(const OPL_SharedMemLocked* locked, void* const* pAddress) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const Caller caller{"OPL_SharedMemLockedGet"};
  if (locked == nullptr || pAddress == nullptr)
    return Fail(caller, OPL_SHAREDMEM_E_NO_NAME, "%s: handle or address is NULL.");
  return Fail(caller, OPL_SHAREDMEM_E_BAD_ACCESS, "%s: invalid flag.");
}

void CloseLock(OPL_SyncRWLock** rwLock) {
  const opl::MessageKeeper keepMessage;
  (void)OPL_SyncRWLockClose(rwLock);
}

}  // namespace

OPL_Result OPL_SharedMemLockedCreate(OPL_SharedMemLocked** phLocked, uint32_t mode, const char* name,
                                     uint32_t size, uint32_t permission) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phLocked == nullptr) return Fail(OPL_SHAREDMEM_E_NO_NAME, "%s: handle is NULL.");
  if (const Code rc = CheckArguments("OPL_SharedMemLockedCreate", mode, name, permission)) return rc;
  if (std::strlen(name) > OPL_SHAREDMEM_NAME_MAX)
    return Fail(OPL_SHAREDMEM_E_BAD_NAME, "%s: Name '%s' too long.", name);
  *phLocked = nullptr;
  opl::Owned<OPL_SharedMemLocked> locked = opl::Allocate<OPL_SharedMemLocked>();
  if (locked == nullptr) return AllocationFailed("OPL_SharedMemLockedCreate");

  const Flags flags = FlagsOf(permission);
  if (const Code rc = OPL_SyncRWLockCreate(&locked->rwLock, 0, name, flags.rwLock))
    return opl::Translate(rc, OPL_SYNC_E_RWLOCK_EXISTS, OPL_SHAREDMEM_E_EXISTS);
  opl::Undo closeLock([&] { CloseLock(&locked->rwLock); });
  if (const Code rc = OPL_SharedMemCreate(&locked->memory, 0, name, &locked->address, size, flags.memory))
    return rc;

  closeLock.Keep();
  *phLocked = locked.release();
  return OPL_OK;
}

OPL_Result OPL_SharedMemLockedOpen(OPL_SharedMemLocked** phLocked, uint32_t mode, const char* name,
                                   uint32_t permission) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phLocked == nullptr) return Fail(OPL_SHAREDMEM_E_NO_NAME, "%s: handle is NULL.");
  if (const Code rc = CheckArguments("OPL_SharedMemLockedOpen", mode, name, permission)) return rc;
  if (std::strlen(name) > OPL_SHAREDMEM_NAME_MAX)
    return Fail(OPL_SHAREDMEM_E_BAD_NAME, "%s: Name '%s' too long", name);
  *phLocked = nullptr;
  opl::Owned<OPL_SharedMemLocked> locked = opl::Allocate<OPL_SharedMemLocked>();
  if (locked == nullptr) return AllocationFailed("OPL_SharedMemLockedOpen");

  const Flags flags = FlagsOf(permission);
  if (const Code rc = OPL_SyncRWLockOpen(&locked->rwLock, 0, name, flags.rwLock))
    return opl::Translate(rc, OPL_SYNC_E_RWLOCK_MISSING, OPL_SHAREDMEM_E_MISSING);
  opl::Undo closeLock([&] { CloseLock(&locked->rwLock); });
  if (const Code rc = OPL_SharedMemOpen(&locked->memory, 0, name, &locked->address, flags.memory)) return rc;

  closeLock.Keep();
  *phLocked = locked.release();
  return OPL_OK;
}

// Whether the library is stopped is asked once on the way through: by the lock, or where that is not reached.
OPL_Result OPL_SharedMemLockedGet(OPL_SharedMemLocked* hLocked, uint32_t flag, void** pAddress) {
  const bool isFlag = flag == OPL_SHAREDMEM_SHARED || flag == OPL_SHAREDMEM_EXCLUSIVE;
  if (hLocked == nullptr || pAddress == nullptr || !isFlag) return RefuseGet(hLocked, pAddress);
  if (const Code rc = OPL_SyncRWLockLock(hLocked->rwLock, flag)) return rc;
  *pAddress = hLocked->address;
  return OPL_OK;
}

OPL_Result OPL_SharedMemLockedRelease(OPL_SharedMemLocked* hLocked) {
  return OPL_SyncRWLockUnlock(hLocked != nullptr ? hLocked->rwLock : nullptr);
}

OPL_Result OPL_SharedMemLockedClose(OPL_SharedMemLocked** phLocked) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phLocked == nullptr || *phLocked == nullptr)
    return Fail(OPL_SHAREDMEM_E_NO_NAME, "%s: handle is NULL.");
  OPL_SharedMemLocked* const locked = *phLocked;
  // Deliberate: the code is that of the last object closed.
  Code result = OPL_OK;
  if (locked->rwLock != nullptr) result = OPL_SyncRWLockClose(&locked->rwLock);
  if (locked->memory != nullptr) result = OPL_SharedMemClose(&locked->memory);
  opl::Free(locked);
  *phLocked = nullptr;
  return result;
}
