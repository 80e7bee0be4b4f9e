/*
 * Locks between processes: named mutexes and read-write locks for the standard's own guards, lock files and
 * file mutexes; and critical sections between threads.
 */
#ifndef QVOPL_LOCKS_HPP
#define QVOPL_LOCKS_HPP

#include "../OPL_Sync.h"
#include "handle.hpp"

namespace qvopl {

/**
 * A named mutex: one thread of all processes of the instance owns it at a time, as often as it likes. The
 * system gives back what a dead process held, and the last process to close a mutex removes it.
 *
 * It is BasicLockable: std::scoped_lock, std::lock_guard and std::unique_lock take one. There is no try_lock,
 * because the library cannot ask without waiting: several mutexes are taken one after the other, in the same
 * order everywhere.
 */
class [[nodiscard]] NamedMutex : public Handle<OPL_SyncMutex, OPL_SyncMutexClose>,
                                 public NamedLock<NamedMutex> {
  friend NamedLock<NamedMutex>;

 public:
  using Handle::Handle;

  /** Waits until no other thread owns the mutex, and takes it. */
  Result<void> lock(std::nothrow_t) noexcept { return OPL_SyncMutexAcquire(native()); }
  /** Gives back what one lock took. */
  Result<void> unlock(std::nothrow_t) noexcept { return OPL_SyncMutexRelease(native()); }
  /**
   * The same for guards, which cannot tell of a failure: a signal does not keep it from giving the mutex
   * back, and where there is nothing to give back, as after the mutex was removed, nothing happens.
   */
  void unlock() noexcept {
    while (OPL_SyncMutexRelease(native()) == OPL_SYNC_E_INTERRUPTED) {
    }
  }

#if QVOPL_EXCEPTIONS
  /** Waits until no other thread owns the mutex, and takes it; throws an Error. */
  void lock() { lock(std::nothrow).value(); }
#endif

 private:
  static Result<NamedMutex> MakeOne(Text name, Access access, OnSignal onSignal) noexcept {
    return detail::Make<NamedMutex, OPL_SyncMutex>(OPL_SyncMutexCreate, 0U, name.c_str(),
                                                   Flags(access, onSignal));
  }
  static Result<NamedMutex> OpenOne(Text name, Access access, OnSignal onSignal) noexcept {
    return detail::Make<NamedMutex, OPL_SyncMutex>(OPL_SyncMutexOpen, 0U, name.c_str(),
                                                   Flags(access, onSignal));
  }
  static bool IsMissing(const Result<NamedMutex>& opened) noexcept {
    return opened.code() == OPL_SYNC_E_MUTEX_MISSING;
  }
  static bool IsThere(const Result<NamedMutex>& made) noexcept {
    return made.code() == OPL_SYNC_E_MUTEX_EXISTS;
  }
  static uint32_t Flags(Access access, OnSignal onSignal) noexcept {
    return (access == Access::kAllUsers ? OPL_SYNC_MUTEX_ALL : OPL_SYNC_MUTEX_PRIVATE) |
           (onSignal == OnSignal::kGoOn ? static_cast<uint32_t>(OPL_SYNC_MUTEX_RESTART) : 0U);
  }
};

/**
 * A named read-write lock: many threads of all processes of the instance hold it shared, or one exclusively.
 *
 * std::scoped_lock and std::unique_lock hold it exclusively, std::shared_lock shared. There is neither
 * try_lock nor try_lock_shared. A thread holds a lock once: locking it again forgets how it was held before.
 * What a thread holds it gives back itself: a guard is not moved to another thread.
 */
class [[nodiscard]] ReadWriteLock : public Handle<OPL_SyncRWLock, OPL_SyncRWLockClose>,
                                    public NamedLock<ReadWriteLock> {
  friend NamedLock<ReadWriteLock>;

 public:
  using Handle::Handle;

  /** Waits until nobody holds the lock, and holds it exclusively. */
  Result<void> lock(std::nothrow_t) noexcept {
    return OPL_SyncRWLockLock(native(), OPL_SYNC_RWLOCK_EXCLUSIVE);
  }
  /** Waits until nobody holds the lock exclusively, and holds it shared. */
  Result<void> lock_shared(std::nothrow_t) noexcept {
    return OPL_SyncRWLockLock(native(), OPL_SYNC_RWLOCK_SHARED);
  }
  /** Gives back what the thread holds, either way. */
  Result<void> unlock(std::nothrow_t) noexcept { return OPL_SyncRWLockUnlock(native()); }
  /** The same for guards; as NamedMutex::unlock. */
  void unlock() noexcept {
    while (OPL_SyncRWLockUnlock(native()) == OPL_SYNC_E_INTERRUPTED) {
    }
  }
  /** The same. */
  void unlock_shared() noexcept { unlock(); }

#if QVOPL_EXCEPTIONS
  /** Waits until nobody holds the lock, and holds it exclusively; throws an Error. */
  void lock() { lock(std::nothrow).value(); }
  /** Waits until nobody holds the lock exclusively, and holds it shared; throws an Error. */
  void lock_shared() { lock_shared(std::nothrow).value(); }
#endif

 private:
  static Result<ReadWriteLock> MakeOne(Text name, Access access, OnSignal onSignal) noexcept {
    return detail::Make<ReadWriteLock, OPL_SyncRWLock>(OPL_SyncRWLockCreate, 0U, name.c_str(),
                                                       Flags(access, onSignal));
  }
  static Result<ReadWriteLock> OpenOne(Text name, Access access, OnSignal onSignal) noexcept {
    return detail::Make<ReadWriteLock, OPL_SyncRWLock>(OPL_SyncRWLockOpen, 0U, name.c_str(),
                                                       Flags(access, onSignal));
  }
  static bool IsMissing(const Result<ReadWriteLock>& opened) noexcept {
    return opened.code() == OPL_SYNC_E_RWLOCK_MISSING;
  }
  static bool IsThere(const Result<ReadWriteLock>& made) noexcept {
    return made.code() == OPL_SYNC_E_RWLOCK_EXISTS;
  }
  static uint32_t Flags(Access access, OnSignal onSignal) noexcept {
    return (access == Access::kAllUsers ? OPL_SYNC_RWLOCK_ALL : OPL_SYNC_RWLOCK_PRIVATE) |
           (onSignal == OnSignal::kGoOn ? static_cast<uint32_t>(OPL_SYNC_RWLOCK_RESTART) : 0U);
  }
};

/**
 * A lock file: a name that one process holds while others wait for it. The threads of the process do not
 * exclude each other. It is held from its creation on; the destructor gives it back and removes the file.
 *
 * It is BasicLockable for giving it back and taking it again meanwhile.
 */
class [[nodiscard]] LockFile : public Handle<OPL_SyncLockFile, OPL_SyncLockFileDestroy> {
 public:
  using Handle::Handle;

  /** Makes a lock file and holds it; waits while another process holds it. */
  static Result<LockFile> Create(std::nothrow_t, Text name) noexcept {
    return detail::Make<LockFile, OPL_SyncLockFile>(OPL_SyncLockFileCreate, name.c_str());
  }
  /** Whether a lock is free. Takes a second, and up to 31 without such a file. Not for its holder. */
  static Result<bool> IsFree(std::nothrow_t, Text name) noexcept {
    uint32_t isFree = 0;
    if (const OPL_Result code = OPL_SyncLockFileTryAcquire(&isFree, name.c_str()); code != OPL_OK)
      return Result<bool>::Failure(code);
    return isFree != 0;
  }
  /** Waits until a lock is free, up to 31 seconds for its file. */
  static Result<void> WaitFor(std::nothrow_t, Text name) noexcept {
    return OPL_SyncLockFileWaitFor(name.c_str());
  }

  /** Takes the lock again; nothing happens when it is held. */
  Result<void> lock(std::nothrow_t) noexcept { return OPL_SyncLockFileAcquire(native()); }
  /** Gives the lock back; nothing happens when it is not held. The file stays. */
  Result<void> unlock(std::nothrow_t) noexcept { return OPL_SyncLockFileRelease(native()); }
  /** The same for guards, which cannot tell of a failure. */
  void unlock() noexcept { (void)OPL_SyncLockFileRelease(native()); }

#if QVOPL_EXCEPTIONS
  /** Makes a lock file and holds it; throws an Error. */
  static LockFile Create(Text name) { return Create(std::nothrow, name).value(); }
  /** Whether a lock is free; throws an Error. */
  [[nodiscard]] static bool IsFree(Text name) { return IsFree(std::nothrow, name).value(); }
  /** Waits until a lock is free; throws an Error. */
  static void WaitFor(Text name) { WaitFor(std::nothrow, name).value(); }
  /** Takes the lock again; throws an Error. */
  void lock() { lock(std::nothrow).value(); }
#endif
};

/**
 * A held file mutex: a name, on any file system, that one thread of all processes makes at a time. A holder
 * that dies leaves the name behind. A forked child releases its copy, or it would give its parent's name
 * back.
 */
class [[nodiscard]] FileMutex : public Handle<OPL_SyncMutexFile, OPL_SyncMutexFileRelease> {
 public:
  using Handle::Handle;

  /** Tries once; equals std::errc::device_or_resource_busy where somebody else holds it. */
  static Result<FileMutex> TryAcquire(std::nothrow_t, Text path) noexcept {
    OPL_SyncMutexFile* record = nullptr;
    const OPL_Result code = OPL_SyncMutexFileAcquire(&record, path.c_str());
    if (code == OPL_OK) return FileMutex(record);
    // To release the record would take the name from its holder; its memory alone is given back.
    if (record != nullptr) detail::Free(record);
    return Result<FileMutex>::Failure(code);
  }
#if QVOPL_EXCEPTIONS
  /** Tries once. The result is empty where somebody else holds it; other failures throw an Error. */
  static FileMutex TryAcquire(Text path) {
    Result<FileMutex> held = TryAcquire(std::nothrow, path);
    if (held.code() == OPL_SYNC_E_MUTEXFILE_HELD) return FileMutex();
    return std::move(held).value();
  }
#endif
};

/**
 * A critical section of the C interface for the standard's guards: one of the program's own, or gCrit, which
 * the library takes around calls of the system that are not re-entrant. Threads of one process exclude each
 * other; it is not recursive.
 */
class CriticalSection {
 public:
  /** The library-wide one, made ready where it is not. The record outlives this object. */
  explicit CriticalSection(OPL_SyncCriticalSection& section = gCrit) noexcept : section_(&section) {
    (void)OPL_SyncCriticalSectionInit(section_);
  }

  /** Waits until no other thread is inside and enters. */
  Result<void> lock(std::nothrow_t) noexcept { return OPL_SyncCriticalSectionEnter(section_); }
  /** Leaves. */
  Result<void> unlock(std::nothrow_t) noexcept { return OPL_SyncCriticalSectionLeave(section_); }
  /** Leaves; for guards, which cannot tell of a failure. */
  void unlock() noexcept { (void)OPL_SyncCriticalSectionLeave(section_); }
#if QVOPL_EXCEPTIONS
  /** Waits until no other thread is inside and enters; throws an Error. */
  void lock() { lock(std::nothrow).value(); }
#endif

 private:
  OPL_SyncCriticalSection* section_;
};

}  // namespace qvopl

#endif
