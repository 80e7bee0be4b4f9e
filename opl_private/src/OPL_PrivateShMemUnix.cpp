// Segments of shared memory and the object files that name them.
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>

#include "OPL_Private.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_private/src/IpcFile.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/Semaphore.h"
#include "opl_private/src/SystemV.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

// What shmat returns on failure.
const auto kNotAttached = reinterpret_cast<void*>(-1);  // NOLINT(performance-no-int-to-ptr)

Code AlreadyExists(Caller caller, const char* file) {
  return Fail(caller, OPL_PRIVATE_E_SHMEM_EXISTS, "%s: File %s already exists", file);
}

Code AttachFailed(Caller caller, const NativeError& error) {
  return Fail(caller, error, OPL_PRIVATE_E_SHM_ATTACH, "%s: shmat error :%i,%s", error.number(),
              error.text());
}

Code MakeSegment(Caller caller, uint32_t size, uint32_t shmMode, int32_t* id) {
  *id = ::shmget(IPC_PRIVATE, size, static_cast<int>(shmMode));
  if (*id != -1) return OPL_OK;
  const NativeError error;
  return Fail(caller, error, OPL_PRIVATE_E_SHMGET, "%s: shmget error :%i,%s. size:%lu mode:0x%x",
              error.number(), error.text(), size, shmMode);
}

Code Attach(Caller caller, int32_t id, void** address) {
  void* const attached = ::shmat(id, nullptr, 0);
  if (attached == kNotAttached) return AttachFailed(caller, NativeError());
  *address = attached;
  return OPL_OK;
}

// EINVAL means that nothing is attached there any more.
Code Detach(Caller caller, void* address) {
  if (address == nullptr || ::shmdt(address) != -1 || errno == EINVAL) return OPL_OK;
  const NativeError error;
  return Fail(caller, error, OPL_PRIVATE_E_SHM_DETACH, "%s: shmdt error :%i (%s)", error.number(),
              error.text());
}

Code RemoveOwnedSegment(Caller caller, int32_t id, uid_t owner) {
  const NativeError error(opl::Segments().remove(id, owner));
  if (error.number() == 0) return OPL_OK;
  return Fail(caller, error, OPL_PRIVATE_E_SHM_REMOVE, "%s: shmctl(%lu) error :%i (%s)", id, error.number(),
              error.text());
}

}  // namespace

namespace opl {

Code CreateSegment(Caller caller, const char* file, uint32_t fileMode, uint32_t size, uint32_t shmMode,
                   void** address, int32_t* id) {
  // Only a quick answer: what counts is that the link below is refused.
  if (FileExists(file)) return AlreadyExists(caller, file);
  NewIpcFile object(Segments());
  if (const Code rc = OpenNew(caller, file, fileMode, &object)) return rc;
  int32_t made = -1;
  if (const Code rc = MakeSegment(caller, size, shmMode, &made)) return rc;
  Undo removeSegment([&] { (void)::shmctl(made, IPC_RMID, nullptr); });
  if (const Code rc = WriteId(caller, file, object, made)) return rc;
  void* attached = nullptr;
  if (const Code rc = Attach(caller, made, &attached)) return rc;
  Undo detach([&] { (void)::shmdt(attached); });
  if (const Code rc = CloseNew(caller, file, &object)) return rc;
  if (object.Publish(file) == -1)
    return errno == EEXIST ? AlreadyExists(caller, file) : OpenFailed(caller, file);

  removeSegment.Keep();
  detach.Keep();
  if (address != nullptr) *address = attached;
  *id = made;
  return OPL_OK;
}

Code OpenSegment(Caller caller, const char* file, void** address, int32_t* id) {
  IpcFile object;
  int32_t named = -1;
  if (const Code rc = OpenObject(caller, file, OPL_PRIVATE_E_SHMEM_MISSING,
                                 "%s: IPC file (%s) not found. Sharedmem do not exist", &object, &named))
    return rc;
  // A file does not speak for another owner's segment.
  const struct stat64 status = object.Status();
  const bool isForeign = LookUpSegment(named, status.st_uid) == EPERM;
  void* const attached = isForeign ? kNotAttached : ::shmat(named, nullptr, 0);
  if (attached == kNotAttached) {
    const NativeError error;
    if (!isForeign && !IsRemoved(error.number())) return AttachFailed(caller, error);
    if (!isForeign || status.st_uid == ::geteuid()) object.Unlink(file);
    return Fail(caller, OPL_PRIVATE_E_SHMEM_MISSING, "%s: SharedMemory does not exists");
  }
  Undo detach([&] { (void)::shmdt(attached); });
  object.SetTimesInFuture(status);
  if (const Code rc = CloseObject(caller, file, &object)) return rc;

  detach.Keep();
  if (address != nullptr) *address = attached;
  *id = named;
  return OPL_OK;
}

Code CloseSegment(Caller caller, const char* file, void* address, int32_t heldId, bool removes) {
  IpcFile object;
  int32_t named = -1;
  const Code opened =
      OpenObject(caller, file, OPL_PRIVATE_E_SHMEM_MISSING, "%s: IPC file (%s) not found", &object, &named);
  // A segment whose file is gone is detached all the same, or its memory would stay with this process for
  // good.
  if (opened != OPL_OK) {
    const MessageKeeper keepMessage;
    (void)Detach(caller, address);
    return opened;
  }
  if (const Code rc = Detach(caller, address)) return rc;
  const struct stat64 status = object.Status();
  object.SetTimesInFuture(status);
  const bool namesHeld = heldId == kNamedSegment || heldId == named;
  if (removes && namesHeld) {
    if (const Code rc = RemoveOwnedSegment(caller, named, status.st_uid)) return rc;
    object.Unlink(file);
  }
  return CloseObject(caller, file, &object);
}

Code RemoveSegmentOrLeftover(const char* file) {
  const pid_t maker = MakerOf(file);
  if (maker == 0) return OPL_PrivateShMemClose(file, nullptr, 1);
  if (IsGone(maker)) RemoveLeftover(Segments(), file);
  return OPL_OK;
}

}  // namespace opl

OPL_Result OPL_PrivateShMemCreate(const char* file, uint32_t fileMode, uint32_t size, uint32_t shmMode,
                                  void** address) {
  int32_t id = -1;
  return opl::CreateSegment(Caller{"OPL_PrivateShMemCreate"}, file, fileMode, size, shmMode, address, &id);
}

OPL_Result OPL_PrivateShMemOpen(const char* file, void** address) {
  int32_t id = -1;
  return opl::OpenSegment(Caller{"OPL_PrivateShMemOpen"}, file, address, &id);
}

OPL_Result OPL_PrivateShMemClose(const char* file, void* address, uint32_t remove) {
  return opl::CloseSegment(Caller{"OPL_PrivateShMemClose"}, file, address, opl::kNamedSegment, remove != 0);
}
