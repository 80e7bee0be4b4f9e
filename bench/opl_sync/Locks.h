// The library's locks, and what they are compared with, as Contention.h wants them.
#ifndef OPL_BENCH_OPL_SYNC_LOCKS_H
#define OPL_BENCH_OPL_SYNC_LOCKS_H

#include <sys/sem.h>

#include <cerrno>
#include <initializer_list>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "bench/support/Processes.h"

namespace oplbench {

// A process's part in the instance.
struct Begun {
  Begun() { Require(OPL_InitBegin(0) == OPL_OK, "OPL_InitBegin"); }
  ~Begun() { (void)OPL_InitEnd(0); }
  Begun(const Begun&) = delete;
  Begun& operator=(const Begun&) = delete;
};

// Opens, or creates as the first.
template <typename Open, typename Create>
void OpenOrCreate(Open open, Create create) {
  while (open() != OPL_OK && create() != OPL_OK) {
  }
}

struct OplMutex {
  class Member {
   public:
    explicit Member(OplMutex& /*lock*/) {
      OpenOrCreate([&] { return OPL_SyncMutexOpen(&mutex_, 0, "bench", OPL_SYNC_MUTEX_PRIVATE); },
                   [&] { return OPL_SyncMutexCreate(&mutex_, 0, "bench", OPL_SYNC_MUTEX_PRIVATE); });
    }
    ~Member() { (void)OPL_SyncMutexClose(&mutex_); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    void Take() { Require(OPL_SyncMutexAcquire(mutex_) == OPL_OK, "OPL_SyncMutexAcquire"); }
    void Give() { Require(OPL_SyncMutexRelease(mutex_) == OPL_OK, "OPL_SyncMutexRelease"); }

   private:
    const Begun begun_;
    OPL_SyncMutex* mutex_ = nullptr;
  };
};

template <uint32_t kMode>
struct OplRWLock {
  class Member {
   public:
    explicit Member(OplRWLock& /*lock*/) {
      OpenOrCreate([&] { return OPL_SyncRWLockOpen(&lock_, 0, "bench", OPL_SYNC_RWLOCK_PRIVATE); },
                   [&] { return OPL_SyncRWLockCreate(&lock_, 0, "bench", OPL_SYNC_RWLOCK_PRIVATE); });
    }
    ~Member() { (void)OPL_SyncRWLockClose(&lock_); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    void Take() { Require(OPL_SyncRWLockLock(lock_, kMode) == OPL_OK, "OPL_SyncRWLockLock"); }
    void Give() { Require(OPL_SyncRWLockUnlock(lock_) == OPL_OK, "OPL_SyncRWLockUnlock"); }

   private:
    const Begun begun_;
    OPL_SyncRWLock* lock_ = nullptr;
  };
};

// A semaphore set that is operated upon directly, as the library does but for trying first.
template <class Operations>
class SemopLock {
 public:
  SemopLock() : id_(::semget(IPC_PRIVATE, Operations::kCount, 0600)) {
    Require(id_ != -1, "semget");
    unsigned short values[] = {1, 0, 0, 0};
    Require(::semctl(id_, 0, SETALL, values) != -1, "semctl");
  }
  ~SemopLock() { (void)::semctl(id_, 0, IPC_RMID); }
  SemopLock(const SemopLock&) = delete;
  SemopLock& operator=(const SemopLock&) = delete;

  class Member {
   public:
    explicit Member(SemopLock& lock) : id_(lock.id_) {}
    void Take() { Operate(Operations::kTake); }
    void Give() { Operate(Operations::kGive); }

   private:
    template <size_t kCount>
    void Operate(const sembuf (&operations)[kCount]) {
      Require(::semop(id_, const_cast<sembuf*>(operations), kCount) != -1, "semop");
    }
    const int id_;
  };

 private:
  const int id_;
};

struct MutexOperations {
  static constexpr int kCount = 1;
  static constexpr sembuf kTake[] = {{0, -1, SEM_UNDO}};
  static constexpr sembuf kGive[] = {{0, 1, SEM_UNDO}};
};

struct SharedOperations {
  static constexpr int kCount = 4;
  static constexpr sembuf kTake[] = {{1, 0, SEM_UNDO}, {2, 1, SEM_UNDO}};
  static constexpr sembuf kGive[] = {{2, -1, SEM_UNDO}};
};

struct ExclusiveOperations {
  static constexpr int kCount = 4;
  static constexpr sembuf kTake[] = {{0, -1, SEM_UNDO}, {1, 1, SEM_UNDO}, {2, 0, 0}};
  static constexpr sembuf kGive[] = {{1, -1, SEM_UNDO}, {0, 1, SEM_UNDO}};
};

}  // namespace oplbench

#endif
