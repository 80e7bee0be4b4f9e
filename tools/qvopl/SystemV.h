// System V sets, segments and queues as the system tells of them. Nothing here operates on one: no time and
// no process of last use changes.
#ifndef QVOPL_TOOL_SYSTEM_V_H
#define QVOPL_TOOL_SYSTEM_V_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace qvopl {

struct Permissions {
  uid_t owner = 0;
  gid_t group = 0;
  uid_t creator = 0;
  uint32_t mode = 0;
};

struct Semaphore {
  int value = 0;
  pid_t last = 0;         // who operated last; 0 for nobody yet, and for a process of another container
  int waitingToRise = 0;  // processes and threads
  int waitingForZero = 0;
};

struct SetStatus {
  int32_t id = -1;
  Permissions permissions;
  size_t count = 0;
  int64_t operated = 0;  // seconds since the epoch; 0 for never
  int64_t changed = 0;
  std::vector<Semaphore> semaphores;  // none where they may not be read
};

struct SegmentStatus {
  int32_t id = -1;
  Permissions permissions;
  uint64_t size = 0;
  uint64_t attached = 0;
  pid_t creator = 0;
  pid_t last = 0;
  int64_t attachedAt = 0;
  int64_t detachedAt = 0;
  int64_t changed = 0;
  bool isRemoved = false;  // goes with the last detach
};

struct QueueStatus {
  int32_t id = -1;
  Permissions permissions;
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t most = 0;  // bytes
  pid_t lastSender = 0;
  pid_t lastReceiver = 0;
  int64_t sent = 0;
  int64_t received = 0;
  int64_t changed = 0;
};

enum class Sight { kSeen, kGone, kRefused };

// By their ids. Of one that may not be read at least what the tables tell is found (kRefused); such a set has
// no semaphores. The tables are read when first needed, and kept.
class SystemV {
 public:
  Sight LookAt(int32_t id, SetStatus* status);
  Sight LookAt(int32_t id, SegmentStatus* status);
  Sight LookAt(int32_t id, QueueStatus* status);

  // Every object of the IPC namespace, from the tables, by id: sets without their semaphores.
  const std::map<int32_t, SetStatus>& Sets();
  const std::map<int32_t, SegmentStatus>& Segments();
  const std::map<int32_t, QueueStatus>& Queues();

 private:
  std::optional<std::map<int32_t, SetStatus>> sets_;
  std::optional<std::map<int32_t, SegmentStatus>> segments_;
  std::optional<std::map<int32_t, QueueStatus>> queues_;
};

}  // namespace qvopl

#endif
