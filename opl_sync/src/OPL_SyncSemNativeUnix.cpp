// Registration of System V semaphore sets that programs make themselves.
#include <sys/sem.h>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/SystemV.h"
#include "opl_sync/src/NativeRegistration.h"
#include "opl_sync/src/SyncProcess.h"

namespace {

using opl::Caller;
using opl::Code;

constexpr opl::NativeKind kSemaphores = {
    .marker = opl::kSemNativeMarker,
    .alreadyRegistered = OPL_SYNC_E_REGISTERED,
    .notRegistered = OPL_SYNC_E_NOT_REGISTERED,
    .cannotRegister = OPL_SYNC_E_REGISTER,
    .cannotDeregister = OPL_SYNC_E_DEREGISTER,
    .remove = [](int id,
                 uid_t owner) { return opl::LookUpSet(id, owner) == 0 && ::semctl(id, 0, IPC_RMID) != -1; },
};

}  // namespace

OPL_Result OPL_SyncSemNativeRegisterIPC(uint32_t /*reserved*/, const char* prefix, uint32_t semId) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return opl::RegisterNative(Caller{"OPL_SyncSemNativeRegisterIPC"}, kSemaphores, prefix, semId);
}

OPL_Result OPL_SyncSemNativeDeRegisterIPC(uint32_t /*reserved*/, const char* prefix, uint32_t semId) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return opl::DeregisterNative(Caller{"OPL_SyncSemNativeDeRegisterIPC"}, kSemaphores, prefix, semId, false);
}

namespace opl {

Code TerminateSemNative(const char* pattern) { return TerminateNative(kSemaphores, pattern); }

}  // namespace opl
