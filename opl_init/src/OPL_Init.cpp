// The life of the library in a process: begin, nested begins, end, exit, and what a forked child does.
//
//   not begun --OPL_InitBegin--> begun (count 1, 2, ...) --last OPL_InitEnd--> ended for good, lock held
//                                  |
//                                  +--exit of the process, unload of the library--> stopped for good
//
// InitLibrary and UnInitLibrary below are the one place that tells in which order the modules start and stop.
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>

#include "OPL_Err.h"
#include "OPL_File.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_SharedMem.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
#include "opl_base/src/CancellationHold.h"
#include "opl_err/src/Fail.h"
#include "opl_init/src/InitInstance.h"
#include "opl_init/src/InitManagement.h"
#include "opl_init/src/InitStopped.h"
#include "opl_private/src/FutureTime.h"
#include "opl_thread/src/ForkGeneration.h"

constinit opl::LibraryLife opl::gLibraryLife;

namespace {

using opl::Code;
using opl::Fail;
using opl::gLibraryLife;
using opl::NativeError;

constexpr uint32_t kNoProcess = OPL_PROCESS_NO_ID;

// Serialises begin and end. Left held by the final end, see OPL_InitEnd.
pthread_mutex_t gInitLock = PTHREAD_MUTEX_INITIALIZER;

// Changed under gInitLock, or in a forked child's one thread; read without it by OPL_InitIsStopped.
std::atomic<int32_t> gBeginCount{0};  // the nesting count, but it survives the exit function
std::atomic<bool> gReady{false};      // the IPC directory and the instance string are known
std::atomic<int32_t> gInBegin{0};     // threads for which the library works although nothing has begun yet
std::atomic<uint32_t> gSavedProcessId{kNoProcess};  // the process that began the library
std::atomic<bool> gLockLeftHeld{false};             // the final end has run

class InBegin {
 public:
  InBegin() { ++gInBegin; }
  ~InBegin() { --gInBegin; }
  InBegin(const InBegin&) = delete;
  InBegin& operator=(const InBegin&) = delete;

 private:
  const opl::CancellationHold noCancellation_;
};

Code LockCritical() {
  const NativeError error(::pthread_mutex_lock(&gInitLock));
  if (error.number() == 0) return OPL_OK;
  (void)OPL_Log("LockCritical: pthread_mutex_lock failed errno %d", error.number());
  return Fail(error, OPL_INIT_E_LOCK, "%s: pthread_mutex_lock :%i,%s", error.number(), error.text());
}

Code ReleaseCritical() {
  const NativeError error(::pthread_mutex_unlock(&gInitLock));
  if (error.number() == 0) return OPL_OK;
  (void)OPL_Log("ReleaseCritical: pthread_mutex_unlock failed errno %d", error.number());
  return Fail(error, OPL_INIT_E_UNLOCK, "%s: pthread_mutex_unlock :%i,%s", error.number(), error.text());
}

void InitCritical() { gReady = true; }

// Around a fork: a child must not inherit the lock from another thread, which it has not got. The final end
// leaves the lock held for good, and a child of such a process with it.
bool gHoldsLockOverFork = false;

void LockInitForFork() {
  while (::pthread_mutex_trylock(&gInitLock) != 0) {
    if (gLockLeftHeld) return;
    (void)::sched_yield();
  }
  gHoldsLockOverFork = true;
}

void UnlockInitAfterFork() {
  if (!gHoldsLockOverFork) return;
  gHoldsLockOverFork = false;
  (void)::pthread_mutex_unlock(&gInitLock);
}

Code RegisterOnce(bool* isRegistered, void (*lock)(), void (*unlock)()) {
  if (*isRegistered) return OPL_OK;
  const Code rc = OPL_ProcessAtFork(lock, unlock, unlock);
  *isRegistered = rc == OPL_OK;
  return rc;
}

// The first handlers to be registered, so that the lock is the last to be taken: it stands inside of all
// others, whose holders move the times of files.
Code HoldTimeZoneOverForks() {
  static bool isRegistered = false;
  return RegisterOnce(&isRegistered, opl::LockTimeZone, opl::UnlockTimeZone);
}

// The last handlers to be registered, so that the lock is the first to be taken: it stands outside of all
// others.
Code HoldLockOverForks() {
  static bool isRegistered = false;
  return RegisterOnce(&isRegistered, LockInitForFork, UnlockInitAfterFork);
}

Code InitLibrary() {
  if (const Code rc = opl::WatchForks()) return rc;
  if (const Code rc = HoldTimeZoneOverForks()) return rc;
  if (const Code rc = OPL_ThreadInit(0)) return rc;
  if (const Code rc = OPL_ErrBegin(0)) return rc;
  if (const Code rc = opl::ManagementMutexInitialize()) return rc;
  if (const Code rc = OPL_SyncProcessInit(0)) return rc;
  if (const Code rc = OPL_SharedMemProcessInit(0)) return rc;
  if (const Code rc = OPL_FileInit()) return rc;
  return HoldLockOverForks();
}

void UnInitLibrary(uint32_t mode) {
  const int32_t forced = mode == OPL_INIT_END_FORCED ? 1 : 0;
  (void)OPL_SyncProcessCleanup(forced);
  (void)OPL_SharedMemProcessCleanup(forced);
  (void)OPL_FileEnd();
  opl::ManagementMutexRelease(mode);
  (void)OPL_ErrEnd(0);
}

void ExitFunction() {
  uint32_t pid = kNoProcess;
  (void)OPL_ProcessIdGet(&pid);
  // A forked child inherits the registration but not the ownership.
  if (gLibraryLife.isOver || gSavedProcessId != pid || !opl::OwnsState()) return;
  if (gReady) UnInitLibrary(OPL_INIT_END_ORDINARY);
  gLibraryLife.isOver = true;
}

// Drops what a forked child inherited, without touching the parent's objects.
Code ForgetParentsState(uint32_t pid) {
  if (gSavedProcessId == kNoProcess) return OPL_OK;
  uint32_t isSame = 0;
  if (const Code rc = OPL_ProcessIdCompare(gSavedProcessId, pid, &isSame)) return rc;
  if (isSame == 0) (void)OPL_InitEnd(OPL_INIT_END_FORCED);
  return OPL_OK;
}

// Under the initialisation lock, with the nesting count at 1.
Code BeginFirst(uint32_t pid) {
  opl::OwnFromNow();
  if (const Code rc = InitLibrary()) return rc;
  gSavedProcessId = pid;
  // The C library binds the handler to the shared object that registers it, so it also runs on unloading.
  (void)std::atexit(ExitFunction);
  return OPL_OK;
}

void FinalEnd(uint32_t mode) {
  // A forked child that neither began nor took over can only forget: what it inherited is its parent's. The
  // lock is left held all the same.
  UnInitLibrary(opl::OwnsState() ? mode : uint32_t{OPL_INIT_END_FORCED});
  gLockLeftHeld = mode == OPL_INIT_END_ORDINARY;
  gSavedProcessId = kNoProcess;
  gReady = false;
  gLibraryLife.nestingCount = 0;
}

// The modules' removals, all of them, whatever fails; the first failure is returned.
Code TerminateAll(const char* pattern) {
  // Without an instance no file is known to be ours.
  const char* const instance = OPL_InitInstanceStringGet();
  if (instance == nullptr || *instance == '\0') return OPL_INIT_E_NO_INSTANCE;
  if (const Code rc = OPL_SyncProcessInitCrit(0)) return rc;
  if (const Code rc = OPL_FileInit()) return rc;
  constexpr Code (*kRemovals[])(uint32_t, const char*) = {OPL_SyncTerminateIPC, OPL_SharedMemTerminateIPC,
                                                          OPL_SocketTerminateIPC, OPL_ServerTerminateIPC,
                                                          OPL_MsgqNativeTerminateIPC};
  Code first = OPL_OK;
  for (const auto remove : kRemovals) {
    const Code rc = remove(0, pattern);
    if (first == OPL_OK) first = rc;
  }
  return first;
}

}  // namespace

OPL_Result OPL_InitBegin(uint32_t mode) {
  if (mode != 0) return OPL_INIT_E_INVALID_MODE;
  if (gLibraryLife.isOver) return OPL_INIT_E_STOPPED;
  const InBegin inBegin;
  uint32_t pid = kNoProcess;
  if (const Code rc = OPL_ProcessIdGet(&pid)) return rc;
  if (const Code rc = ForgetParentsState(pid)) return rc;
  if (!gReady) {
    opl::FindIPCPath(nullptr, 0);
    if (OPL_InitInstanceStringGet() == nullptr) return OPL_INIT_E_NO_INSTANCE;
    InitCritical();
  }
  if (const Code rc = LockCritical()) return OPL_INIT_E_LOCK;
  ++gBeginCount;
  Code result = OPL_OK;
  if (++gLibraryLife.nestingCount == 1) {
    result = BeginFirst(pid);
    if (result != OPL_OK) {
      --gLibraryLife.nestingCount;
      --gBeginCount;
    }
  }
  (void)ReleaseCritical();
  return result;
}

OPL_Result OPL_InitEnd(uint32_t mode) {
  if (mode > OPL_INIT_END_FORCED) return OPL_INIT_E_INVALID_MODE;
  if (const Code stopped = OPL_InitIsStopped(0)) {
    // An end that arrives after the exit function or the final end still matches its begin.
    if (gBeginCount <= 0) return stopped;
    --gBeginCount;
    return OPL_OK;
  }
  if (!gReady) return OPL_OK;
  const opl::CancellationHold noCancellation;
  if (mode == OPL_INIT_END_ORDINARY && LockCritical() != OPL_OK) return OPL_INIT_E_LOCK;
  --gBeginCount;
  if (mode == OPL_INIT_END_FORCED || gLibraryLife.nestingCount == 1) {
    // Deliberate: the lock stays held after the final end. The library is not begun twice in one process; a
    // thread that tries waits for ever instead of working on what is gone.
    FinalEnd(mode);
    return OPL_OK;
  }
  --gLibraryLife.nestingCount;
  (void)ReleaseCritical();
  return OPL_OK;
}

OPL_Result OPL_InitIsStopped(uint32_t /*mode*/) {
  if (gInBegin.load(std::memory_order_relaxed) != 0) return OPL_OK;
  const bool begun = gLibraryLife.nestingCount.load(std::memory_order_relaxed) != 0;
  if (begun && !gLibraryLife.isOver.load(std::memory_order_relaxed)) return OPL_OK;
  return OPL_INIT_E_STOPPED;
}

OPL_Result OPL_InitSetCurrentPid() {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  uint32_t pid = kNoProcess;
  if (const Code rc = OPL_ProcessIdGet(&pid)) return rc;
  // The owner has nothing to take over: a second use count would never be given back.
  if (gSavedProcessId == pid && opl::OwnsState()) return OPL_OK;
  gSavedProcessId = pid;
  opl::OwnInherited();
  (void)OPL_PrivateMgmtLockQVOPLAccess();
  (void)OPL_SyncMutexTransferOwnership();
  return OPL_SyncRWLockTransferOwnership();
}

OPL_Result OPL_InitTerminateIPC(uint32_t /*mode*/, const char* pattern) {
  if (OPL_InitIsStopped(0) == OPL_OK) return TerminateAll(pattern);
  const InBegin inBegin;
  return TerminateAll(pattern);
}
