#include "opl_private/src/SystemV.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>

namespace {

using opl::IsRemoved;
using opl::SemctlArgument;

constexpr time_t kMostSecondsApart = 60;

bool IsNear(time_t a, time_t b) { return std::llabs(static_cast<long long>(a) - b) <= kMostSecondsApart; }

// An object whose permissions do not even let its status be read is another owner's.
int StatusOf(int32_t id, semid_ds* status) {
  SemctlArgument argument{};
  argument.status = status;
  if (::semctl(id, 0, IPC_STAT, argument) != -1) return 0;
  return errno == EACCES ? EPERM : errno;
}

int StatusOf(int32_t id, shmid_ds* status) {
  if (::shmctl(id, IPC_STAT, status) != -1) return 0;
  return errno == EACCES ? EPERM : errno;
}

int RemoveSet(int32_t id, uid_t owner) {
  const int number = opl::LookUpSet(id, owner);
  if (number != 0) return IsRemoved(number) ? 0 : number;
  if (::semctl(id, 0, IPC_RMID) != -1 || IsRemoved(errno)) return 0;
  return errno;
}

bool IsUnusedSet(int32_t id, uid_t owner, time_t made) {
  semid_ds status{};
  return StatusOf(id, &status) == 0 && status.sem_perm.uid == owner && status.sem_otime == 0 &&
         IsNear(status.sem_ctime, made);
}

int RemoveSegment(int32_t id, uid_t owner) {
  const int number = opl::LookUpSegment(id, owner);
  if (number != 0) return IsRemoved(number) ? 0 : number;
  if (::shmctl(id, IPC_RMID, nullptr) != -1 || IsRemoved(errno)) return 0;
  return errno;
}

bool IsUnusedSegment(int32_t id, uid_t owner, time_t made) {
  shmid_ds status{};
  return StatusOf(id, &status) == 0 && status.shm_perm.uid == owner && status.shm_nattch == 0 &&
         IsNear(status.shm_ctime, made);
}

}  // namespace

namespace opl {

const SystemVKind& SemaphoreSets() {
  static constexpr SystemVKind kSets = {RemoveSet, IsUnusedSet};
  return kSets;
}

const SystemVKind& Segments() {
  static constexpr SystemVKind kSegments = {RemoveSegment, IsUnusedSegment};
  return kSegments;
}

int LookUpSegment(int32_t id, uid_t owner) {
  shmid_ds status{};
  const int number = StatusOf(id, &status);
  if (number != 0) return number;
  return status.shm_perm.uid == owner ? 0 : EPERM;
}

int LookUpSet(int32_t id, uid_t owner) {
  semid_ds status{};
  const int number = StatusOf(id, &status);
  if (number != 0) return number;
  return status.sem_perm.uid == owner ? 0 : EPERM;
}

}  // namespace opl
