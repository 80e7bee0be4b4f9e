// What other modules ask of the management lock beyond its exported functions.
#ifndef OPL_PRIVATE_MGMT_LOCK_H
#define OPL_PRIVATE_MGMT_LOCK_H

#include <cstdint>

#include "OPL_Private.h"

namespace opl {

// Holds one of the management lock's locks, which serialise the creation, opening and closing of named
// objects among the processes of an instance. Taken outside of all locks of a process's own tables.
class MgmtLock {
 public:
  enum Kind { kSharedMem, kRWLocks, kMutexes };

  explicit MgmtLock(Kind kind) : kind_(kind) {}
  ~MgmtLock() { (void)Release(); }
  MgmtLock(const MgmtLock&) = delete;
  MgmtLock& operator=(const MgmtLock&) = delete;

  [[nodiscard]] OPL_Result Take();
  // Gives back early, where the code matters; OPL_OK when nothing is held.
  OPL_Result Release();
  bool IsTaken() const { return taken_; }
  // Whether nobody else held it when it was taken.
  bool WasFree() const { return wasFree_; }

 private:
  const Kind kind_;
  bool taken_ = false;
  bool wasFree_ = false;
  int32_t setId_ = -1;  // the set whose lock is held; the process may let go of the set meanwhile
};

// Waits a while for the set whose use count was refused: until it is removed, or usable again after all, in
// which case this process has its use count. A set that a dead process meant to remove is removed in its
// place.
enum class MgmtWait { kHasUse, kTryAgain };
MgmtWait WaitForMgmtLock();

// Gives back the exclusive use that a removal was to follow.
void RestoreMgmtLock();

}  // namespace opl

#endif
