// A module's lock around its process-wide tables, taken inside the management lock's locks and never around
// them.
#ifndef OPL_SYNC_PROCESS_LOCK_H
#define OPL_SYNC_PROCESS_LOCK_H

#include <pthread.h>

#include "OPL_Sync.h"
#include "opl_err/src/Fail.h"

namespace opl {

class ProcessLock {
 public:
  // What a failed unlock returns, and under which names failures are recorded, differs from module to module.
  struct Names {
    const char* lock;
    const char* unlock;
  };
  static constexpr Names kNames = {"LockProcess", "UnlockProcess"};
  explicit constexpr ProcessLock(Code unlockCode = OPL_SYNC_E_UNLOCK, const Names& names = kNames)
      : names_(names), unlockCode_(unlockCode) {}

  // Around a fork: no other thread is at work on the tables then, and the child's copies are whole.
  void LockForFork() { (void)::pthread_mutex_lock(&mutex_); }
  void UnlockAfterFork() { (void)::pthread_mutex_unlock(&mutex_); }

  class Hold {
   public:
    explicit Hold(ProcessLock& lock) : lock_(lock) {}
    ~Hold() {
      if (taken_) (void)lock_.Unlock();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    [[nodiscard]] Code Take() {
      const Code rc = lock_.Lock();
      taken_ = rc == OPL_OK;
      return rc;
    }
    // Gives back early, where the code matters.
    Code Release() {
      taken_ = false;
      return lock_.Unlock();
    }

   private:
    ProcessLock& lock_;
    bool taken_ = false;
  };

 private:
  Code Lock() {
    const NativeError error(::pthread_mutex_lock(&mutex_));
    if (error.number() == 0) return OPL_OK;
    return Fail(Caller{names_.lock}, error, OPL_SYNC_E_LOCK, "%s: pthread_mutex_lock :%i,%s", error.number(),
                error.text());
  }

  Code Unlock() {
    const NativeError error(::pthread_mutex_unlock(&mutex_));
    if (error.number() == 0) return OPL_OK;
    return Fail(Caller{names_.unlock}, error, unlockCode_, "%s: pthread_mutex_unlock :%i,%s", error.number(),
                error.text());
  }

  const Names names_;
  const Code unlockCode_;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace opl

#endif
