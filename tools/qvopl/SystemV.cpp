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

// The rows of a table of the system, behind its titles.
template <typename Row>
void ForEachRow(const char* table, Row row) {
  std::ifstream file(std::string("/proc/sysvipc/") + table);
  std::string line;
  (void)std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream words(line);
    row(words);
  }
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

const std::map<int32_t, SetStatus>& SystemV::Sets() {
  if (hasSets_) return sets_;
  hasSets_ = true;
  ForEachRow("sem", [&](std::istream& row) {
    SetStatus set;
    int64_t key = 0;
    gid_t creatorGroup = 0;
    Permissions& access = set.permissions;
    row >> key >> set.id >> std::oct >> access.mode >> std::dec >> set.count >> access.owner >>
        access.group >> access.creator >> creatorGroup >> set.operated >> set.changed;
    if (!row.fail()) sets_[set.id] = set;
  });
  return sets_;
}

const std::map<int32_t, SegmentStatus>& SystemV::Segments() {
  if (hasSegments_) return segments_;
  hasSegments_ = true;
  ForEachRow("shm", [&](std::istream& row) {
    SegmentStatus segment;
    int64_t key = 0;
    gid_t creatorGroup = 0;
    Permissions& access = segment.permissions;
    row >> key >> segment.id >> std::oct >> access.mode >> std::dec >> segment.size >> segment.creator >>
        segment.last >> segment.attached >> access.owner >> access.group >> access.creator >> creatorGroup >>
        segment.attachedAt >> segment.detachedAt >> segment.changed;
    segment.isRemoved = (access.mode & SHM_DEST) != 0;
    access.mode &= 0777U;
    if (!row.fail()) segments_[segment.id] = segment;
  });
  return segments_;
}

const std::map<int32_t, QueueStatus>& SystemV::Queues() {
  if (hasQueues_) return queues_;
  hasQueues_ = true;
  ForEachRow("msg", [&](std::istream& row) {
    QueueStatus queue;
    int64_t key = 0;
    gid_t creatorGroup = 0;
    Permissions& access = queue.permissions;
    row >> key >> queue.id >> std::oct >> access.mode >> std::dec >> queue.bytes >> queue.messages >>
        queue.lastSender >> queue.lastReceiver >> access.owner >> access.group >> access.creator >>
        creatorGroup >> queue.sent >> queue.received >> queue.changed;
    if (!row.fail()) queues_[queue.id] = queue;
  });
  return queues_;
}

}  // namespace qvopl
