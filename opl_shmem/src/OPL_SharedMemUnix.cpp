// Named shared memory: a System V segment, found through an object file, that begins with the number of
// handles that all processes have on it. The number changes only under the management lock's shared-memory
// lock.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/IpcName.h"
#include "opl_private/src/MgmtLock.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_sig/src/SignalBlock.h"
#include "opl_sync/src/ProcessLock.h"
#include "opl_thread/src/ForkGeneration.h"

struct OPL_SharedMem {
  opl::SegmentHeader* segment;  // null until attached
  int32_t shmId;                // -1 until attached
  char name[opl::kObjectNameSize];
  uint32_t permission;
  uint32_t
      generation;  // of the process that attached it; a child gives nothing back for what it only inherited
};

namespace {

using opl::Access;
using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::IpcName;
using opl::MgmtLock;
using opl::NativeError;
using opl::ProcessLock;
using opl::Scope;
using Header = opl::SegmentHeader;

constexpr size_t kTableSize = 20;
constexpr int32_t kNoSegment = -1;
constexpr int32_t kForgets = 1;

constexpr Access kAccess[] = {
    {OPL_SHAREDMEM_PRIVATE, 0600, Scope::kInstance},
    {OPL_SHAREDMEM_ALL, 0666, Scope::kAllUsers},
};

// A block that the process holds; free while its name is empty.
struct Entry {
  char name[opl::kObjectNameSize];
  int32_t shmId;
  Header* segment;
  uint32_t permission;
  uint32_t generation;
};

// Guards the table; taken inside the management lock's shared-memory lock, never around it. Deliberate: a
// failed unlock has the code of a failed lock.
ProcessLock gTableLock(OPL_SYNC_E_LOCK, {"LockThread", "UnlockThread"});
Entry gEntries[kTableSize];

// Changed under the initialisation lock.
bool gHoldsTableOverForks = false;

void UnlockAfterFork() { gTableLock.UnlockAfterFork(); }

Entry* FindEntry(const char* name) {
  return std::find_if(std::begin(gEntries), std::end(gEntries),
                      [&](const Entry& entry) { return std::strcmp(entry.name, name) == 0; });
}

Code AddMemoryInTable(const OPL_SharedMem& memory) {
  ProcessLock::Hold hold(gTableLock);
  if (const Code rc = hold.Take()) return rc;
  Entry* const free = FindEntry("");
  if (free == std::end(gEntries)) return Fail(OPL_SHAREDMEM_E_TABLE_FULL, "%s: Too many entries in table.");
  *free = {{}, memory.shmId, memory.segment, memory.permission, memory.generation};
  opl::CopyText(free->name, memory.name);
  return hold.Release();
}

// Whether the process has a block of the name; the empty name stands for free entries.
Code LookUp(const char* name, bool* isOpen) {
  ProcessLock::Hold hold(gTableLock);
  if (const Code rc = hold.Take()) return rc;
  *isOpen = *name != '\0' && FindEntry(name) != std::end(gEntries);
  return hold.Release();
}

// A process may hold several blocks of one name: in either scope, or made anew after an administrator's
// clean-up.
Entry* FindEntry(const OPL_SharedMem& memory) {
  return std::find_if(std::begin(gEntries), std::end(gEntries), [&](const Entry& entry) {
    return entry.segment == memory.segment && std::strcmp(entry.name, memory.name) == 0;
  });
}

Code RemoveMemoryFromTable(const OPL_SharedMem& memory) {
  ProcessLock::Hold hold(gTableLock);
  if (const Code rc = hold.Take()) return rc;
  Entry* const entry = FindEntry(memory);
  if (entry != std::end(gEntries)) entry->name[0] = '\0';
  return hold.Release();
}

// The process remembers no more than the name of a block whose close has failed: its count is given back, and
// its memory may be another's by the time of the clean-up.
void ForgetSegment(const OPL_SharedMem& memory) {
  const opl::MessageKeeper keepMessage;
  ProcessLock::Hold hold(gTableLock);
  if (hold.Take() != OPL_OK) return;
  Entry* const entry = FindEntry(memory);
  if (entry != std::end(gEntries)) entry->segment = nullptr;
}

IpcName FileNameOf(const OPL_SharedMem& memory) {
  return {memory.name, opl::kSegmentMarker, opl::ScopeOf(kAccess, memory.permission)};
}

// Detaches; takes the handle off the segment's count first, unless that is not this process's to do, and
// removes segment and file with the last handle.
Code CloseSharedMemory(int32_t mode, OPL_SharedMem* memory) {
  bool isLast = false;
  const bool counts =
      memory->segment != nullptr && mode != kForgets && opl::IsOwnGeneration(memory->generation);
  const IpcName file = FileNameOf(*memory);
  // A block that was removed and made anew under the name is another one: it is not this handle's to remove.
  if (counts) isLast = memory->segment->useCount.fetch_sub(1, std::memory_order_relaxed) == 1;
  return opl::CloseSegment(Caller{"OPL_PrivateShMemClose"}, file.c_str(), memory->segment, memory->shmId,
                           isLast);
}

Code InternalClose(int32_t mode, OPL_SharedMem* memory) {
  if (const Code rc = CloseSharedMemory(mode, memory)) {
    ForgetSegment(*memory);
    return rc;
  }
  return RemoveMemoryFromTable(*memory);
}

Code CheckArguments(const char* function, const char* name, uint32_t mode, uint32_t permission) {
  const Caller caller{function};
  if (name == nullptr) return Fail(caller, OPL_SHAREDMEM_E_BAD_NAME, "%s: Name is NULL");
  if (std::strlen(name) > opl::kObjectNameLongest)
    return Fail(caller, OPL_SHAREDMEM_E_BAD_NAME, "%s: Name '%s' too long", name);
  if (mode != 0) return Fail(caller, OPL_SHAREDMEM_E_INVALID_MODE, "%s: Invalid mode %lu.", mode);
  if (opl::FindAccess(kAccess, permission) == nullptr)
    return Fail(caller, OPL_SHAREDMEM_E_NO_PERMISSION, "%s: Permission not specified.");
  return OPL_OK;
}

opl::Owned<OPL_SharedMem> AllocateHandle(const char* name, uint32_t permission) {
  opl::Owned<OPL_SharedMem> memory = opl::AllocateZeroed<OPL_SharedMem>();
  if (memory == nullptr) return memory;
  memory->shmId = kNoSegment;
  memory->permission = permission;
  memory->generation = opl::ForkGeneration();
  opl::CopyText(memory->name, name);
  return memory;
}

Code AllocationFailed(const char* function) {
  const NativeError error;
  return Fail(Caller{function}, error, OPL_SHAREDMEM_E_NO_MEMORY,
              "%s: memory allocation(handle) error :%i, %s", error.number(), error.text());
}

Code CreateSharedMemory(OPL_SharedMem* memory, uint32_t size) {
  const Access* const access = opl::FindAccess(kAccess, memory->permission);
  const IpcName file = FileNameOf(*memory);
  if (size > UINT32_MAX - sizeof(Header)) {
    const NativeError error(EINVAL);
    return Fail(Caller{"OPL_PrivateShMemCreate"}, error, OPL_PRIVATE_E_SHMGET,
                "%s: shmget error :%i,%s. size:%lu mode:0x%x", error.number(), error.text(), size,
                access->mode);
  }
  void* address = nullptr;
  if (const Code rc = opl::CreateSegment(Caller{"OPL_PrivateShMemCreate"}, file.c_str(), access->mode,
                                         size + static_cast<uint32_t>(sizeof(Header)), access->mode, &address,
                                         &memory->shmId))
    return rc;
  memory->segment = static_cast<Header*>(address);
  // The system fills a new segment with zeros; the flag asks for no more.
  memory->segment->useCount.store(1, std::memory_order_relaxed);
  return OPL_OK;
}

Code OpenSharedMemory(OPL_SharedMem* memory) {
  const IpcName file = FileNameOf(*memory);
  void* address = nullptr;
  if (const Code rc =
          opl::OpenSegment(Caller{"OPL_PrivateShMemOpen"}, file.c_str(), &address, &memory->shmId))
    return rc;
  memory->segment = static_cast<Header*>(address);
  memory->segment->useCount.fetch_add(1, std::memory_order_relaxed);
  return OPL_OK;
}

// Enters an attached block and hands it out; it is closed again where the table is full.
Code FinishHandle(opl::Owned<OPL_SharedMem> memory, OPL_SharedMem** phSharedMem, void** pAddress) {
  opl::Undo close([&] {
    const opl::MessageKeeper keepMessage;
    (void)InternalClose(0, memory.get());
  });
  if (const Code rc = AddMemoryInTable(*memory)) return rc;

  close.Keep();
  if (pAddress != nullptr) *pAddress = memory->segment + 1;
  *phSharedMem = memory.release();
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_SharedMemCreate(OPL_SharedMem** phSharedMem, uint32_t mode, const char* name, void** pAddress,
                               uint32_t size, uint32_t permission) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  if (phSharedMem == nullptr) return Fail(OPL_SHAREDMEM_E_BAD_NAME, "%s: handle is NULL");
  *phSharedMem = nullptr;
  if (const Code rc = CheckArguments("OPL_SharedMemCreate", name, mode, permission)) return rc;
  opl::Owned<OPL_SharedMem> memory = AllocateHandle(name, permission);
  if (memory == nullptr) return AllocationFailed("OPL_SharedMemCreate");
  MgmtLock mgmt(MgmtLock::kSharedMem);
  if (const Code rc = mgmt.Take()) return rc;
  if (const Code rc = CreateSharedMemory(memory.get(), size)) return rc;
  return FinishHandle(std::move(memory), phSharedMem, pAddress);
}

OPL_Result OPL_SharedMemOpen(OPL_SharedMem** phSharedMem, uint32_t mode, const char* name, void** pAddress,
                             uint32_t permission) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  if (phSharedMem == nullptr) return Fail(OPL_SHAREDMEM_E_BAD_NAME, "%s: handle is NULL");
  *phSharedMem = nullptr;
  if (const Code rc = CheckArguments("OPL_SharedMemOpen", name, mode, permission)) return rc;
  opl::Owned<OPL_SharedMem> memory = AllocateHandle(name, permission);
  if (memory == nullptr) return AllocationFailed("OPL_SharedMemOpen");
  MgmtLock mgmt(MgmtLock::kSharedMem);
  if (const Code rc = mgmt.Take()) return rc;
  bool isOpen = false;
  if (const Code rc = LookUp(name, &isOpen)) return rc;
  if (isOpen)
    return Fail(OPL_SHAREDMEM_E_OPENED, "%s: SharedMemory %s is already opened by the current process", name);
  if (const Code rc = OpenSharedMemory(memory.get())) return rc;
  return FinishHandle(std::move(memory), phSharedMem, pAddress);
}

OPL_Result OPL_SharedMemClose(OPL_SharedMem** phSharedMem) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phSharedMem == nullptr || *phSharedMem == nullptr)
    return Fail(OPL_SHAREDMEM_E_BAD_NAME, "%s: handle is NULL");
  opl::SignalBlock signals;
  Code rc = signals.Take();
  if (rc == OPL_OK) {
    MgmtLock mgmt(MgmtLock::kSharedMem);
    rc = mgmt.Take();
    if (rc == OPL_OK) rc = InternalClose(0, *phSharedMem);
    const Code released = mgmt.Release();
    if (rc == OPL_OK) rc = released;
  }
  opl::Free(*phSharedMem);
  *phSharedMem = nullptr;
  return rc;
}

OPL_Result OPL_SharedMemProcessInit(uint32_t /*flag*/) {
  if (gHoldsTableOverForks) return OPL_OK;
  // A child must not inherit the table in the middle of a change, nor a lock whose holder it has not got.
  if (const Code rc = OPL_ProcessAtFork([] { gTableLock.LockForFork(); }, UnlockAfterFork, UnlockAfterFork))
    return rc;
  gHoldsTableOverForks = true;
  return OPL_OK;
}

OPL_Result OPL_SharedMemProcessCleanup(int32_t mode) {
  Code first = OPL_OK;
  for (const Entry& entry : gEntries) {
    if (entry.name[0] == '\0') continue;
    OPL_SharedMem memory{entry.segment, entry.shmId, {}, entry.permission, entry.generation};
    opl::CopyText(memory.name, entry.name);
    MgmtLock mgmt(MgmtLock::kSharedMem);
    Code rc = mgmt.Take();
    if (rc == OPL_OK) rc = InternalClose(mode, &memory);
    const Code released = mgmt.Release();
    if (first == OPL_OK) first = rc != OPL_OK ? rc : released;
  }
  return first;
}

OPL_Result OPL_SharedMemTerminateIPC(uint32_t /*flag*/, const char* pattern) {
  return opl::ForEachIpcFile(pattern, opl::kSegmentMarker, opl::RemoveSegmentOrLeftover);
}
