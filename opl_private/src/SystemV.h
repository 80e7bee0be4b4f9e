// System V objects by their ids: looked up and removed only where the file that names them may speak for
// them.
#ifndef OPL_PRIVATE_SYSTEM_V_H
#define OPL_PRIVATE_SYSTEM_V_H

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

struct semid_ds;

namespace opl {

// The last argument of semctl, which the system wants its callers to declare.
union SemctlArgument {
  int value;
  semid_ds* status;
  unsigned short* values;
};

// Whether that is what the system says of a set or segment that is not there, or not any more.
constexpr bool IsRemoved(int number) { return number == EINVAL || number == EIDRM; }

// The functions return errno numbers; 0 is success.
struct SystemVKind {
  // Removes the object if the owner is its owner. One that is gone already counts as removed; another owner's
  // is refused with EPERM.
  int (*remove)(int32_t id, uid_t owner);
  // Whether nobody but its dead maker can ever have known the object: made by the owner at that time, give or
  // take some seconds, and never used.
  bool (*isUnused)(int32_t id, uid_t owner, time_t made);
};

const SystemVKind& SemaphoreSets();
const SystemVKind& Segments();

// Whether the set or segment exists and is the owner's: EINVAL for one that is gone, EPERM for another
// owner's.
int LookUpSet(int32_t id, uid_t owner);
int LookUpSegment(int32_t id, uid_t owner);

}  // namespace opl

#endif
