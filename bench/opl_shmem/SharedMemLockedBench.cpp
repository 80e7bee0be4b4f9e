// Locked shared memory: taking the block and giving it back, against the semaphore operations of its lock.
#include "OPL_SharedMem.h"
#include "bench/opl_sync/Contention.h"
#include "bench/opl_sync/Locks.h"

namespace {

using oplbench::Require;
using oplbench::Uncontended;

template <uint32_t kAccess>
struct OplLocked {
  class Member {
   public:
    explicit Member(OplLocked& /*lock*/) {
      Require(
          OPL_SharedMemLockedCreate(&locked_, 0, "bench", sizeof(uint64_t), OPL_SHAREDMEM_PRIVATE) == OPL_OK,
          "OPL_SharedMemLockedCreate");
    }
    ~Member() { (void)OPL_SharedMemLockedClose(&locked_); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    void Take() {
      void* address = nullptr;
      Require(OPL_SharedMemLockedGet(locked_, kAccess, &address) == OPL_OK, "OPL_SharedMemLockedGet");
    }
    void Give() { Require(OPL_SharedMemLockedRelease(locked_) == OPL_OK, "OPL_SharedMemLockedRelease"); }

   private:
    OPL_SharedMemLocked* locked_ = nullptr;
  };
};

using SemopShared = oplbench::SemopLock<oplbench::SharedOperations>;
using SemopExclusive = oplbench::SemopLock<oplbench::ExclusiveOperations>;

const oplbench::Row kShared("locked memory: shared get, release",
                            Uncontended<OplLocked<OPL_SHAREDMEM_SHARED>>,
                            {{"semop", Uncontended<SemopShared>, 1.05}});
const oplbench::Row kExclusive("locked memory: exclusive get, release",
                               Uncontended<OplLocked<OPL_SHAREDMEM_EXCLUSIVE>>,
                               {{"semop", Uncontended<SemopExclusive>, 1.05}});

}  // namespace
