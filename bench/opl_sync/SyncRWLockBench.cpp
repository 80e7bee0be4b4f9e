// The read-write lock, against raw semaphore operations with undo: the same ones, queueing at once.
#include <string>

#include "bench/opl_sync/Contention.h"
#include "bench/opl_sync/Locks.h"

namespace {

using oplbench::Contend;
using oplbench::Table;
using oplbench::Uncontended;

using OplShared = oplbench::OplRWLock<OPL_SYNC_RWLOCK_SHARED>;
using OplExclusive = oplbench::OplRWLock<OPL_SYNC_RWLOCK_EXCLUSIVE>;
using SemopShared = oplbench::SemopLock<oplbench::SharedOperations>;
using SemopExclusive = oplbench::SemopLock<oplbench::ExclusiveOperations>;

const oplbench::Row kShared("rwlock: shared lock, unlock", Uncontended<OplShared>,
                            {{"semop", Uncontended<SemopShared>, 1.03}});
const oplbench::Row kExclusive("rwlock: exclusive lock, unlock", Uncontended<OplExclusive>,
                               {{"semop", Uncontended<SemopExclusive>, 1.03}});

void Contended(Table& table, size_t processes, double target) {
  const std::string what = "rwlock: exclusive, contended by " + std::to_string(processes);
  oplbench::CompareContended(table, what, processes, {"", Contend<OplExclusive>, 0},
                             {{"semop", Contend<SemopExclusive>, target}});
}

const oplbench::OwnRows kContended("rwlock: contended", [](Table& table) {
  Contended(table, 2, 1 / 10.0);
  Contended(table, 4, 1 / 2.0);
});

}  // namespace
