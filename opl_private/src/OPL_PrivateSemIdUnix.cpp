// Semaphore sets and the object files that name them.
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include "OPL_Private.h"
#include "opl_base/src/Undo.h"
#include "opl_private/src/IpcFile.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/Semaphore.h"
#include "opl_private/src/SystemV.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::IpcFile;
using opl::NativeError;
using opl::NewIpcFile;
using opl::SemctlArgument;

Code AlreadyExists(Caller caller, const char* file) {
  return Fail(caller, OPL_PRIVATE_E_SEM_EXISTS,
              "%s: IPC file (%s) already exists. Semaphore already created.", file);
}

Code MakeSet(Caller caller, uint32_t semMode, uint32_t count, const uint16_t* values, int32_t* id) {
  const int made = ::semget(IPC_PRIVATE, static_cast<int>(count), static_cast<int>(semMode));
  if (made == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_PRIVATE_E_SEMGET, "%s: semget error: %i,%s", error.number(), error.text());
  }
  SemctlArgument argument{};
  argument.values = const_cast<unsigned short*>(values);
  if (::semctl(made, 0, SETALL, argument) == -1) {
    const NativeError error;
    (void)::semctl(made, 0, IPC_RMID);
    return Fail(caller, error, OPL_PRIVATE_E_SEMCTL, "%s: semctl error (id %lu): %i,%s", made, error.number(),
                error.text());
  }
  *id = made;
  return OPL_OK;
}

// Everything but the final name: the set, its id in the file, the times.
Code FillFile(Caller caller, NewIpcFile* object, const char* file, uint32_t semMode, uint32_t count,
              const uint16_t* values, int32_t* id) {
  int32_t made = -1;
  if (const Code rc = MakeSet(caller, semMode, count, values, &made)) return rc;
  opl::Undo removeSet([&] { (void)::semctl(made, 0, IPC_RMID); });
  if (const Code rc = opl::WriteId(caller, file, *object, made)) return rc;
  if (const Code rc = opl::CloseNew(caller, file, object)) return rc;

  removeSet.Keep();
  *id = made;
  return OPL_OK;
}

Code RemoveOwnedSet(Caller caller, int32_t id, uid_t owner) {
  const NativeError error(opl::SemaphoreSets().remove(id, owner));
  if (error.number() == 0) return OPL_OK;
  return Fail(caller, error, OPL_PRIVATE_E_SEMCTL, "%s: semctl(%lu) error :%i (%s)", id, error.number(),
              error.text());
}

}  // namespace

namespace opl {

Code CreateSetInFile(Caller caller, const char* temporary, uint32_t fileMode, uint32_t semMode,
                     uint32_t count, const uint16_t* values, int32_t* id) {
  NewIpcFile object(SemaphoreSets());
  if (const Code rc = OpenNewAs(caller, temporary, fileMode, &object)) return rc;
  if (const Code rc = FillFile(caller, &object, temporary, semMode, count, values, id)) return rc;
  object.Keep();
  return OPL_OK;
}

Code CreateSet(Caller caller, const char* file, uint32_t fileMode, uint32_t semMode, uint32_t count,
               const uint16_t* values, FoundSet* made) {
  // Only a quick answer: what counts is that the link below is refused.
  if (FileExists(file)) return AlreadyExists(caller, file);
  NewIpcFile object(SemaphoreSets());
  if (const Code rc = OpenNew(caller, file, fileMode, &object)) return rc;
  int32_t id = -1;
  if (const Code rc = FillFile(caller, &object, file, semMode, count, values, &id)) return rc;
  Undo removeSet([&] { (void)::semctl(id, 0, IPC_RMID); });
  if (object.Publish(file) == -1)
    return errno == EEXIST ? AlreadyExists(caller, file) : OpenFailed(caller, file);

  removeSet.Keep();
  struct stat64 status {};
  const bool isKnown = ::lstat64(file, &status) == 0;
  *made = {id, isKnown ? FileStamp(status) : FileStamp()};
  return OPL_OK;
}

Code FindSet(Caller caller, const char* file, FoundSet* found) {
  IpcFile object;
  int32_t named = -1;
  // Deliberate: the text speaks of shared memory.
  if (const Code rc = OpenObject(caller, file, OPL_PRIVATE_E_SEM_MISSING,
                                 "%s: IPC file %s not found. Shared mem does not exists.", &object, &named))
    return rc;
  const struct stat64 status = object.Status();
  object.SetTimesInFuture(status);
  if (const int number = LookUpSet(named, status.st_uid)) {
    // The set is gone, or its number has since been given to another owner's. A file that an other owner
    // wrote for somebody's set is left for that owner, or an administrator.
    if (number != EPERM || status.st_uid == ::geteuid()) object.Unlink(file);
    return Fail(caller, OPL_PRIVATE_E_SEM_MISSING, "%s: System semaphore %lu does not exists (file %s)",
                named, file);
  }
  if (const Code rc = CloseObject(caller, file, &object)) return rc;
  *found = {named, object.HasTimesToMove(status) ? FileStamp() : FileStamp(status)};
  return OPL_OK;
}

bool LookForSet(const char* file, FoundSet* found) {
  IpcFile object;
  int32_t named = -1;
  if (object.Open(file) == -1 || object.ReadId(&named) != sizeof named) return false;
  const struct stat64 status = object.Status();
  if (object.HasTimesToMove(status) || LookUpSet(named, status.st_uid) != 0) return false;
  *found = {named, FileStamp(status)};
  return object.Close() != -1;
}

Code DestroyHeldSet(Caller caller, const char* file, int32_t id) {
  IpcFile object;
  int32_t named = -1;
  const Code opened = OpenObject(caller, file, OPL_PRIVATE_E_SEM_MISSING,
                                 "%s: IPC file (%s) not found. Semaphore does not exists.", &object, &named);
  if (opened != OPL_OK && opened != OPL_PRIVATE_E_SEM_MISSING) return opened;
  // The set goes first: killed between the two steps, this process leaves a file whose set is gone, which the
  // next user recognises, and not a set that nobody can find.
  if (::semctl(id, 0, IPC_RMID) == -1 && !IsRemoved(errno)) {
    const NativeError error;
    return Fail(caller, error, OPL_PRIVATE_E_SEMCTL, "%s: semctl(%lu) error :%i (%s)", id, error.number(),
                error.text());
  }
  if (opened != OPL_OK) return opened;
  if (named == id) object.Unlink(file);
  return CloseObject(caller, file, &object);
}

Code RemoveLeftoverOfSet(const char* file) {
  const pid_t maker = MakerOf(file);
  if (maker != 0 && IsGone(maker)) RemoveLeftover(SemaphoreSets(), file);
  return OPL_OK;
}

Code RemoveSetOrLeftover(const char* file) {
  return MakerOf(file) != 0 ? RemoveLeftoverOfSet(file) : OPL_PrivateSemIdDestroy(file);
}

}  // namespace opl

OPL_Result OPL_PrivateSemIdCreate(const char* file, uint32_t fileMode, uint32_t semMode, uint32_t count,
                                  const uint16_t* values, int32_t* id) {
  opl::FoundSet made{-1, {}};
  const Code rc =
      opl::CreateSet(Caller{"OPL_PrivateSemIdCreate"}, file, fileMode, semMode, count, values, &made);
  if (id != nullptr) *id = made.id;
  return rc;
}

OPL_Result OPL_PrivateSemIdGet(const char* file, int32_t* id) {
  opl::FoundSet found{-1, {}};
  if (const Code rc = opl::FindSet(Caller{"OPL_PrivateSemIdGet"}, file, &found)) return rc;
  if (id != nullptr) *id = found.id;
  return OPL_OK;
}

OPL_Result OPL_PrivateSemIdDestroy(const char* file) {
  const Caller caller{"OPL_PrivateSemIdDestroy"};
  IpcFile object;
  int32_t named = -1;
  if (const Code rc =
          opl::OpenObject(caller, file, OPL_PRIVATE_E_SEM_MISSING,
                          "%s: IPC file (%s) not found. Semaphore does not exists.", &object, &named))
    return rc;
  if (const Code rc = RemoveOwnedSet(caller, named, object.Status().st_uid)) return rc;
  object.Unlink(file);
  return opl::CloseObject(caller, file, &object);
}
