// Registration of System V message queues that programs make themselves.
#include <sys/msg.h>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_sync/src/NativeRegistration.h"

namespace {

using opl::Caller;
using opl::Code;

bool RemoveQueue(int id, uid_t owner) {
  msqid_ds status{};
  return ::msgctl(id, IPC_STAT, &status) != -1 && status.msg_perm.uid == owner &&
         ::msgctl(id, IPC_RMID, nullptr) != -1;
}

constexpr opl::NativeKind kQueues = {
    .marker = opl::kMsgqNativeMarker,
    .alreadyRegistered = OPL_MSGQ_E_REGISTERED,
    .notRegistered = OPL_MSGQ_E_NOT_REGISTERED,
    .cannotRegister = OPL_MSGQ_E_REGISTER,
    .cannotDeregister = OPL_MSGQ_E_DEREGISTER,
    .remove = RemoveQueue,
};

}  // namespace

OPL_Result OPL_MsgqNativeRegisterIPC(uint32_t /*reserved*/, const char* prefix, uint32_t msgqId) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return opl::RegisterNative(Caller{"OPL_MsgqNativeRegisterIPC"}, kQueues, prefix, msgqId);
}

OPL_Result OPL_MsgqNativeDeRegisterIPC(uint32_t /*reserved*/, const char* prefix, uint32_t msgqId) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  // Deliberate: the messages name the registration.
  return opl::DeregisterNative(Caller{"OPL_MsgqNativeRegisterIPC"}, kQueues, prefix, msgqId, true);
}

OPL_Result OPL_MsgqNativeTerminateIPC(uint32_t /*reserved*/, const char* pattern) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return opl::TerminateNative(kQueues, pattern);
}
