#include "tools/qvopl/SystemV.h"

#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

#include "opl_private/src/SystemV.h"

namespace qvopl {

namespace {

using opl::SemctlArgument;

// A set that is operated upon all the time is read again that often, until two readings agree.
constexpr int kReadings = 3;

Permissions PermissionsOf(const ipc_perm& permissions) {
  return {permissions.uid, permissions.gid, permissions.cuid, permissions.mode & 0777U};
}

bool ReadValues(int32_t id, std::vector<unsigned short>* values) {
  SemctlArgument argument{};
  argument.values = values->data();
  return ::semctl(id, 0, GETALL, argument) != -1;
}

bool ReadSemaphores(int32_t id, std::vector<Semaphore>* semaphores) {
  std::vector<unsigned short> values(semaphores->size());
  std::vector<unsigned short> after(semaphores->size());
  if (!ReadValues(id, &values)) return false;
  for (int reading = 0; reading < kReadings; ++reading) {
    for (size_t i = 0; i < semaphores->size(); ++i) {
      const int index = static_cast<int>(i);
      (*semaphores)[i] = {values[i], ::semctl(id, index, GETPID), ::semctl(id, index, GETNCNT),
                          ::semctl(id, index, GETZCNT)};
    }
    if (!ReadValues(id, &after)) return false;
    if (after == values) break;
    values = after;
  }
  return true;
}

// A row of a table of the system begins with a key, the id and the mode; the owners stand together.
std::istream& ReadOwners(std::istream& row, Permissions* access) {
  gid_t creatorGroup = 0;
  return row >> access->owner >> access->group >> access->creator >> creatorGroup;
}

void ReadRow(std::istream& row, SetStatus* set) {
  row >> set->count;
  ReadOwners(row, &set->permissions) >> set->operated >> set->changed;
}

void ReadRow(std::istream& row, SegmentStatus* segment) {
  row >> segment->size >> segment->creator >> segment->last >> segment->attached;
  ReadOwners(row, &segment->permissions) >> segment->attachedAt >> segment->detachedAt >> segment->changed;
  segment->isRemoved = (segment->permissions.mode & SHM_DEST) != 0;
}

void ReadRow(std::istream& row, QueueStatus* queue) {
  row >> queue->bytes >> queue->messages >> queue->lastSender >> queue->lastReceiver;
  ReadOwners(row, &queue->permissions) >> queue->sent >> queue->received >> queue->changed;
}

// By id; once.
template <typename Status>
const std::map<int32_t, Status>& ReadTable(const char* file,
                                           std::optional<std::map<int32_t, Status>>* table) {
  if (table->has_value()) return **table;
  table->emplace();
  std::ifstream rows(std::string("/proc/sysvipc/") + file);
  std::string line;
  (void)std::getline(rows, line);  // titles
  while (std::getline(rows, line)) {
    std::istringstream row(line);
    int64_t key = 0;
    Status status;
    row >> key >> status.id >> std::oct >> status.permissions.mode >> std::dec;
    ReadRow(row, &status);
    status.permissions.mode &= 0777U;
    if (!row.fail()) (*table)->insert_or_assign(status.id, status);
  }
  return **table;
}

template <typename Status>
Sight FromTable(const std::map<int32_t, Status>& table, int32_t id, int number, Status* status) {
  if (number != EACCES) return Sight::kGone;
  const auto found = table.find(id);
  if (found == table.end()) return Sight::kGone;
  *status = found->second;
  return Sight::kRefused;
}

}  // namespace

Sight SystemV::LookAt(int32_t id, SetStatus* status) {
  semid_ds system{};
  SemctlArgument argument{};
  argument.status = &system;
  if (::semctl(id, 0, IPC_STAT, argument) == -1) return FromTable(Sets(), id, errno, status);
  *status = {id,
             PermissionsOf(system.sem_perm),
             static_cast<size_t>(system.sem_nsems),
             static_cast<int64_t>(system.sem_otime),
             static_cast<int64_t>(system.sem_ctime),
             std::vector<Semaphore>(static_cast<size_t>(system.sem_nsems))};
  return ReadSemaphores(id, &status->semaphores) ? Sight::kSeen : Sight::kGone;
}

Sight SystemV::LookAt(int32_t id, SegmentStatus* status) {
  shmid_ds system{};
  if (::shmctl(id, IPC_STAT, &system) == -1) return FromTable(Segments(), id, errno, status);
  *status = {id,
             PermissionsOf(system.shm_perm),
             system.shm_segsz,
             system.shm_nattch,
             system.shm_cpid,
             system.shm_lpid,
             static_cast<int64_t>(system.shm_atime),
             static_cast<int64_t>(system.shm_dtime),
             static_cast<int64_t>(system.shm_ctime),
             (system.shm_perm.mode & SHM_DEST) != 0};
  return Sight::kSeen;
}

Sight SystemV::LookAt(int32_t id, QueueStatus* status) {
  msqid_ds system{};
  if (::msgctl(id, IPC_STAT, &system) == -1) return FromTable(Queues(), id, errno, status);
  *status = {id,
             PermissionsOf(system.msg_perm),
             system.msg_qnum,
             system.__msg_cbytes,
             system.msg_qbytes,
             system.msg_lspid,
             system.msg_lrpid,
             static_cast<int64_t>(system.msg_stime),
             static_cast<int64_t>(system.msg_rtime),
             static_cast<int64_t>(system.msg_ctime)};
  return Sight::kSeen;
}

const std::map<int32_t, SetStatus>& SystemV::Sets() { return ReadTable("sem", &sets_); }
const std::map<int32_t, SegmentStatus>& SystemV::Segments() { return ReadTable("shm", &segments_); }
const std::map<int32_t, QueueStatus>& SystemV::Queues() { return ReadTable("msg", &queues_); }

}  // namespace qvopl
