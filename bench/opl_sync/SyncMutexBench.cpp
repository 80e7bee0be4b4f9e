// The named mutex: against a raw semaphore with undo, which is what it cannot do without, and against other
// locks between processes. Of those, only APR's System V and fcntl mutexes survive the death of their holder
// as ours does, and Boost's and sem_open's stay locked.
#include <apr_general.h>
#include <apr_pools.h>
#include <apr_proc_mutex.h>
#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <boost/interprocess/sync/named_mutex.hpp>
#include <string>

#include "bench/opl_sync/Contention.h"
#include "bench/opl_sync/Locks.h"

namespace {

using oplbench::Contender;
using oplbench::Require;
using oplbench::Table;
using oplbench::Work;

using SemopMutex = oplbench::SemopLock<oplbench::MutexOperations>;

std::string UniqueName() { return "qvopl-bench-" + std::to_string(::getpid()); }

// Its name goes at once: processes inherit it open.
class SemOpenMutex {
 public:
  SemOpenMutex() {
    const std::string name = "/" + UniqueName();
    semaphore_ = ::sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 1);
    Require(semaphore_ != SEM_FAILED, "sem_open");
    (void)::sem_unlink(name.c_str());
  }
  ~SemOpenMutex() { (void)::sem_close(semaphore_); }
  SemOpenMutex(const SemOpenMutex&) = delete;
  SemOpenMutex& operator=(const SemOpenMutex&) = delete;

  class Member {
   public:
    explicit Member(SemOpenMutex& mutex) : semaphore_(mutex.semaphore_) {}
    void Take() { Require(::sem_wait(semaphore_) == 0, "sem_wait"); }
    void Give() { Require(::sem_post(semaphore_) == 0, "sem_post"); }

   private:
    sem_t* const semaphore_;
  };

 private:
  sem_t* semaphore_;
};

// Its name goes at once, too.
class BoostMutex {
 public:
  BoostMutex() : mutex_(boost::interprocess::create_only, UniqueName().c_str()) {
    (void)boost::interprocess::named_mutex::remove(UniqueName().c_str());
  }

  class Member {
   public:
    explicit Member(BoostMutex& mutex) : mutex_(mutex.mutex_) {}
    void Take() { mutex_.lock(); }
    void Give() { mutex_.unlock(); }

   private:
    boost::interprocess::named_mutex& mutex_;
  };

 private:
  boost::interprocess::named_mutex mutex_;
};

template <apr_lockmech_e kMechanism>
class AprMutex {
 public:
  AprMutex() {
    Require(apr_initialize() == APR_SUCCESS, "apr_initialize");
    Require(apr_pool_create(&pool_, nullptr) == APR_SUCCESS, "apr_pool_create");
    Require(apr_proc_mutex_create(&mutex_, nullptr, kMechanism, pool_) == APR_SUCCESS,
            "apr_proc_mutex_create");
  }
  ~AprMutex() {
    apr_pool_destroy(pool_);
    apr_terminate();
  }
  AprMutex(const AprMutex&) = delete;
  AprMutex& operator=(const AprMutex&) = delete;

  class Member {
   public:
    explicit Member(AprMutex& mutex) : mutex_(mutex.mutex_) {}
    void Take() { Require(apr_proc_mutex_lock(mutex_) == APR_SUCCESS, "apr_proc_mutex_lock"); }
    void Give() { Require(apr_proc_mutex_unlock(mutex_) == APR_SUCCESS, "apr_proc_mutex_unlock"); }

   private:
    apr_proc_mutex_t* const mutex_;
  };

 private:
  apr_pool_t* pool_ = nullptr;
  apr_proc_mutex_t* mutex_ = nullptr;
};

using AprSystemV = AprMutex<APR_LOCK_SYSVSEM>;
using AprFcntl = AprMutex<APR_LOCK_FCNTL>;
using AprPthread = AprMutex<APR_LOCK_PROC_PTHREAD>;

const oplbench::Row kUncontended("mutex: acquire, release", oplbench::Uncontended<oplbench::OplMutex>,
                                 {{"semop", oplbench::Uncontended<SemopMutex>, 1.03},
                                  {"APR System V", oplbench::Uncontended<AprSystemV>, 0},
                                  {"APR fcntl", oplbench::Uncontended<AprFcntl>, 0},
                                  {"APR pthread", oplbench::Uncontended<AprPthread>, 0},
                                  {"Boost named_mutex", oplbench::Uncontended<BoostMutex>, 0},
                                  {"sem_open", oplbench::Uncontended<SemOpenMutex>, 0}});

void Contended(Table& table, size_t processes, double target) {
  const std::string what = "mutex: contended by " + std::to_string(processes);
  oplbench::CompareContended(table, what, processes, {"", oplbench::Contend<oplbench::OplMutex>, 0},
                             {{"semop", oplbench::Contend<SemopMutex>, target},
                              {"APR System V", oplbench::Contend<AprSystemV>, 0},
                              {"APR fcntl", oplbench::Contend<AprFcntl>, 0},
                              {"APR pthread", oplbench::Contend<AprPthread>, 0},
                              {"Boost named_mutex", oplbench::Contend<BoostMutex>, 0},
                              {"sem_open", oplbench::Contend<SemOpenMutex>, 0}});
}

const oplbench::OwnRows kContended("mutex: contended", [](Table& table) {
  Contended(table, 2, 1 / 10.0);
  Contended(table, 4, 1 / 2.0);
});

// How a contended mutex serves its processes, beside raw operations that queue at once and are served in
// turn.
const oplbench::OwnRows kFairness("mutex: fairness", [](Table& table) {
  for (const size_t processes : {2, 4})
    oplbench::CompareFairness(table, "mutex: contended", processes,
                              {"", oplbench::ContendTimed<oplbench::OplMutex>, 0},
                              {{"semop", oplbench::ContendTimed<SemopMutex>, 0},
                               {"Boost named_mutex", oplbench::ContendTimed<BoostMutex>, 0}});
});

}  // namespace
