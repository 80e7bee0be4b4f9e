// The management lock's lock around named mutexes, against a raw semaphore that queues at once.
#include "OPL_Private.h"
#include "bench/opl_sync/Contention.h"
#include "bench/opl_sync/Locks.h"

namespace {

using oplbench::Contend;
using oplbench::Require;

struct MgmtMutex {
  class Member {
   public:
    explicit Member(MgmtMutex& /*lock*/) {}
    void Take() { Require(OPL_PrivateMgmtLockSyncMutexLock() == OPL_OK, "OPL_PrivateMgmtLockSyncMutexLock"); }
    void Give() {
      Require(OPL_PrivateMgmtLockSyncMutexUnlock() == OPL_OK, "OPL_PrivateMgmtLockSyncMutexUnlock");
    }

   private:
    const oplbench::Begun begun_;
  };
};

const oplbench::OwnRows kContended("management lock: contended", [](oplbench::Table& table) {
  using SemopMutex = oplbench::SemopLock<oplbench::MutexOperations>;
  oplbench::CompareContended(table, "management lock: contended by 2", 2, {"", Contend<MgmtMutex>, 0},
                             {{"semop", Contend<SemopMutex>, 1 / 10.0}});
});

}  // namespace
