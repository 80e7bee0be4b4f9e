// The use count of a named object's set.
#include <sys/sem.h>

#include <cerrno>

#include "OPL_Private.h"
#include "opl_base/src/Retry.h"
#include "opl_err/src/Fail.h"
#include "opl_private/src/Semaphore.h"
#include "opl_private/src/SystemV.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;
using opl::RetryOnEintr;

// How long Access waits for an exhausted count before it looks again whether anybody is left to give it back.
constexpr uint32_t kPatienceMs = 200;

Code SemopFailed(Caller caller, int32_t id) {
  const NativeError error;
  return Fail(caller, error, opl::IsRemoved(error.number()) ? OPL_PRIVATE_E_SEM_MISSING : OPL_PRIVATE_E_SEMOP,
              "%s: semop(%lu) failed :%i,%s", id, error.number(), error.text());
}

// Finishes what a dead process began: the next look finds the set gone. Who may not remove the set makes it
// usable again instead; done twice, that would exceed a semaphore's largest value, and the system refuses it.
void ClearAway(int32_t id, uint32_t index) {
  if (::semctl(id, 0, IPC_RMID) == -1 && errno == EPERM) opl::RestoreUseCount(id, index);
}

}  // namespace

OPL_Result OPL_PrivateUseCountAccess(int32_t id, uint32_t index) {
  for (;;) {
    if (opl::AccessUseCountFor(id, index, kPatienceMs) != -1) return OPL_OK;
    if (errno != EAGAIN) return SemopFailed(Caller{"OPL_PrivateUseCountAccess"}, id);
    if (opl::IsAbandoned(id, index)) ClearAway(id, index);
  }
}

OPL_Result OPL_PrivateUseCountRelease(int32_t id, uint32_t index) {
  const sembuf one[] = {{opl::NumberOf(index), 1, SEM_UNDO}};
  if (RetryOnEintr([&] { return opl::Semop(id, one); }) != -1) return OPL_OK;
  return SemopFailed(Caller{"OPL_PrivateUseCountRelease"}, id);
}

OPL_Result OPL_PrivateUseCountExclusive(int32_t id, uint32_t index) {
  const sembuf all[] = {{opl::NumberOf(index), -opl::kUseCountLimit, IPC_NOWAIT}};
  if (RetryOnEintr([&] { return opl::Semop(id, all); }) != -1) return OPL_OK;
  if (errno == EAGAIN) return OPL_PRIVATE_E_IN_USE;
  return SemopFailed(Caller{"OPL_PrivateUseCountExclusive"}, id);
}
