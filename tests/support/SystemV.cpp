#include "tests/support/SystemV.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <cstring>

#include "tests/support/Instance.h"

namespace opltest {

namespace {

union SemctlArgument {
  int value;
  semid_ds* status;
  unsigned short* values;
};

bool StatusOfSet(int id, semid_ds* status) {
  SemctlArgument argument{};
  argument.status = status;
  return ::semctl(id, 0, IPC_STAT, argument) != -1;
}

shmid_ds StatusOfSegment(int id) {
  shmid_ds status{};
  EXPECT_NE(-1, ::shmctl(id, IPC_STAT, &status));
  return status;
}

}  // namespace

int MakeSet(const Values& values, int mode) {
  const int id = ::semget(IPC_PRIVATE, static_cast<int>(values.size()), mode);
  if (id == -1) return -1;
  std::vector<unsigned short> copy(values.begin(), values.end());
  SemctlArgument argument{};
  argument.values = copy.data();
  if (::semctl(id, 0, SETALL, argument) != -1) return id;
  RemoveSet(id);
  return -1;
}

void RemoveSet(int id) { (void)::semctl(id, 0, IPC_RMID); }

bool SetExists(int id) {
  semid_ds status{};
  return StatusOfSet(id, &status);
}

void SetValue(int id, int index, int value) {
  SemctlArgument argument{};
  argument.value = value;
  EXPECT_NE(-1, ::semctl(id, index, SETVAL, argument));
}

int ValueOf(int id, int index) { return ::semctl(id, index, GETVAL); }

int WaitersOf(int id, int index) { return ::semctl(id, index, GETNCNT); }

Values ValuesOf(int id) {
  semid_ds status{};
  if (!StatusOfSet(id, &status)) return {};
  std::vector<unsigned short> values(status.sem_nsems);
  SemctlArgument argument{};
  argument.values = values.data();
  if (::semctl(id, 0, GETALL, argument) == -1) return {};
  return {values.begin(), values.end()};
}

ipc_perm PermissionsOfSet(int id) {
  semid_ds status{};
  EXPECT_TRUE(StatusOfSet(id, &status));
  return status.sem_perm;
}

bool GiveSetTo(int id, uid_t owner) {
  semid_ds status{};
  if (!StatusOfSet(id, &status)) return false;
  status.sem_perm.uid = owner;
  SemctlArgument argument{};
  argument.status = &status;
  return ::semctl(id, 0, IPC_SET, argument) != -1;
}

int MakeSegment(size_t size) { return ::shmget(IPC_PRIVATE, size, 0600); }

void RemoveSegment(int id) { (void)::shmctl(id, IPC_RMID, nullptr); }

bool SegmentExists(int id) {
  shmid_ds status{};
  return ::shmctl(id, IPC_STAT, &status) != -1;
}

ipc_perm PermissionsOfSegment(int id) { return StatusOfSegment(id).shm_perm; }

size_t SizeOfSegment(int id) { return StatusOfSegment(id).shm_segsz; }

int AttachedTo(int id) { return static_cast<int>(StatusOfSegment(id).shm_nattch); }

bool GiveSegmentTo(int id, uid_t owner) {
  shmid_ds status = StatusOfSegment(id);
  status.shm_perm.uid = owner;
  return ::shmctl(id, IPC_SET, &status) != -1;
}

std::string BytesOf(int32_t id) { return std::string(reinterpret_cast<const char*>(&id), sizeof id); }

int32_t IdIn(const std::string& path) {
  const std::string contents = ContentsOf(path);
  if (contents.size() != sizeof(int32_t)) return -2;
  int32_t id = -2;
  std::memcpy(&id, contents.data(), sizeof id);
  return id;
}

}  // namespace opltest
