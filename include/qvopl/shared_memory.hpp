/*
 * Named shared memory as objects of the program's own types, alone and with a lock.
 *
 * T is a type that may lie there (shared_layout.hpp), or T[] for a number of elements that is known when the
 * block is made. A new block is filled with zeros, and no constructor runs: a type's zero is its beginning.
 * The library does not know what is in a block, nor how large it is: all programs that use a name agree on
 * the type, and on the number.
 */
#ifndef QVOPL_SHARED_MEMORY_HPP
#define QVOPL_SHARED_MEMORY_HPP

#include <utility>

#include "../OPL_Private.h"
#include "../OPL_SharedMem.h"
#include "../OPL_Sync.h"
#include "handle.hpp"
#include "shared_layout.hpp"

namespace qvopl {

namespace detail {

// The view of one object, and of an array of them.
template <typename T>
struct BlockOf {
  static_assert(RequireBlock<T>::kIsBlock, "");
  using Object = T;

  static Result<uint32_t> SizeOf(std::size_t /*count*/) noexcept { return static_cast<uint32_t>(sizeof(T)); }
};
template <typename T>
struct BlockOf<T[]> {
  static_assert(RequireBlock<T>::kIsBlock, "");
  using Object = T;

  // The library's sizes have 32 bits.
  static Result<uint32_t> SizeOf(std::size_t count) noexcept {
    if (count > UINT32_MAX / sizeof(T))
      return Result<uint32_t>::Failure(Refuse(OPL_PRIVATE_E_SHMGET, "SharedMemory"));
    return static_cast<uint32_t>(count * sizeof(T));
  }
};

inline bool IsBlockMissing(OPL_Result code) noexcept {
  return code == OPL_PRIVATE_E_SHMEM_MISSING || code == OPL_SHAREDMEM_E_MISSING;
}
inline bool IsBlockThere(OPL_Result code) noexcept {
  return code == OPL_PRIVATE_E_SHMEM_EXISTS || code == OPL_SHAREDMEM_E_EXISTS;
}

// A block, and how many objects the program says are in it.
template <typename T>
class SharedBlock : public Handle<OPL_SharedMem, OPL_SharedMemClose> {
 public:
  using Object = typename BlockOf<T>::Object;

  constexpr SharedBlock() noexcept = default;
  SharedBlock(SharedBlock&& other) noexcept
      : Handle(std::move(other)),
        objects_(std::exchange(other.objects_, nullptr)),
        count_(std::exchange(other.count_, 0)) {}
  SharedBlock& operator=(SharedBlock&& other) noexcept {
    Handle::operator=(std::move(other));
    objects_ = std::exchange(other.objects_, nullptr);
    count_ = std::exchange(other.count_, 0);
    return *this;
  }

 protected:
  SharedBlock(OPL_SharedMem* record, void* address, std::size_t count) noexcept
      : Handle(record), objects_(static_cast<Object*>(address)), count_(count) {}

  template <typename Type>
  static Result<Type> CreateAs(const char* name, std::size_t count, Access access) noexcept {
    const Result<uint32_t> size = BlockOf<T>::SizeOf(count);
    if (!size) return Result<Type>::Failure(size.code());
    OPL_SharedMem* record = nullptr;
    void* address = nullptr;
    const OPL_Result code =
        OPL_SharedMemCreate(&record, 0, name, &address, *size, Flag(access) | OPL_SHAREDMEM_ZERO);
    if (code != OPL_OK) return Result<Type>::Failure(code);
    return Type(record, address, count);
  }

  template <typename Type>
  static Result<Type> OpenAs(const char* name, std::size_t count, Access access) noexcept {
    if (const Result<uint32_t> size = BlockOf<T>::SizeOf(count); !size)
      return Result<Type>::Failure(size.code());
    OPL_SharedMem* record = nullptr;
    void* address = nullptr;
    const OPL_Result code = OPL_SharedMemOpen(&record, 0, name, &address, Flag(access));
    if (code != OPL_OK) return Result<Type>::Failure(code);
    return Type(record, address, count);
  }

  template <typename Type>
  static Result<Type> OpenOrCreateAs(const char* name, std::size_t count, Access access) noexcept {
    return OpenOrCreate([&] { return OpenAs<Type>(name, count, access); },
                        [&] { return CreateAs<Type>(name, count, access); },
                        [](const Result<Type>& opened) { return IsBlockMissing(opened.code()); },
                        [](const Result<Type>& created) { return IsBlockThere(created.code()); });
  }

  [[nodiscard]] Object* objects() const noexcept { return objects_; }
  [[nodiscard]] std::size_t count() const noexcept { return count_; }

 private:
  static uint32_t Flag(Access access) noexcept {
    return access == Access::kAllUsers ? OPL_SHAREDMEM_ALL : OPL_SHAREDMEM_PRIVATE;
  }

  Object* objects_ = nullptr;
  std::size_t count_ = 0;
};

}  // namespace detail

/**
 * A block of shared memory that is one T. Who reads and writes it when is the program's business: with a
 * lock, with atomic members, or with LockedSharedMemory instead. A process opens a block once.
 */
template <typename T>
class [[nodiscard]] SharedMemory : public detail::SharedBlock<T>, public NamedObject<SharedMemory<T>> {
  using Base = detail::SharedBlock<T>;
  friend Base;
  friend NamedObject<SharedMemory>;
  using Base::Base;

 public:
  /** No block. */
  constexpr SharedMemory() noexcept = default;

  /** The object, until the block is closed. */
  [[nodiscard]] T* get() const noexcept { return this->objects(); }
  /** The same. */
  [[nodiscard]] T& operator*() const noexcept { return *get(); }
  /** The same. */
  [[nodiscard]] T* operator->() const noexcept { return get(); }

 private:
  static Result<SharedMemory> MakeOne(Text name, Access access) noexcept {
    return Base::template CreateAs<SharedMemory>(name.c_str(), 1, access);
  }
  static Result<SharedMemory> OpenOne(Text name, Access access) noexcept {
    return Base::template OpenAs<SharedMemory>(name.c_str(), 1, access);
  }
  static bool IsMissing(const Result<SharedMemory>& opened) noexcept {
    return detail::IsBlockMissing(opened.code());
  }
  static bool IsThere(const Result<SharedMemory>& made) noexcept { return detail::IsBlockThere(made.code()); }
};

/** A block of shared memory that is a number of T. */
template <typename T>
class [[nodiscard]] SharedMemory<T[]> : public detail::SharedBlock<T[]> {
  using Base = detail::SharedBlock<T[]>;
  friend Base;
  using Base::Base;

 public:
  /** No block. */
  constexpr SharedMemory() noexcept = default;

  /** Makes one of zeros; equals std::errc::file_exists where there is one of that name. */
  static Result<SharedMemory> Create(std::nothrow_t, Text name, std::size_t count,
                                     Access access = Access::kPrivate) noexcept {
    return Base::template CreateAs<SharedMemory>(name.c_str(), count, access);
  }
  /** Opens one, which has been made for as many at least. */
  static Result<SharedMemory> Open(std::nothrow_t, Text name, std::size_t count,
                                   Access access = Access::kPrivate) noexcept {
    return Base::template OpenAs<SharedMemory>(name.c_str(), count, access);
  }
  /** Opens one, or makes it; tries again when another process makes or removes it in between. */
  static Result<SharedMemory> OpenOrCreate(std::nothrow_t, Text name, std::size_t count,
                                           Access access = Access::kPrivate) noexcept {
    return Base::template OpenOrCreateAs<SharedMemory>(name.c_str(), count, access);
  }

#if QVOPL_EXCEPTIONS
  /** Makes one of zeros; throws an Error. */
  static SharedMemory Create(Text name, std::size_t count, Access access = Access::kPrivate) {
    return Create(std::nothrow, name, count, access).value();
  }
  /** Opens one; throws an Error. */
  static SharedMemory Open(Text name, std::size_t count, Access access = Access::kPrivate) {
    return Open(std::nothrow, name, count, access).value();
  }
  /** Opens one, or makes it; throws an Error. */
  static SharedMemory OpenOrCreate(Text name, std::size_t count, Access access = Access::kPrivate) {
    return OpenOrCreate(std::nothrow, name, count, access).value();
  }
#endif

  /** The objects, until the block is closed. */
  [[nodiscard]] Span<T> span() const noexcept { return {this->objects(), this->count()}; }
  /** One of them; the index is not checked. */
  [[nodiscard]] T& operator[](std::size_t index) const noexcept { return this->objects()[index]; }
  /** Their number. */
  [[nodiscard]] std::size_t size() const noexcept { return this->count(); }
};

/**
 * The access to what lies in a LockedSharedMemory, and the hold of its lock: given back at the end of the
 * guard's life, by the thread that took it, and before the memory is closed.
 */
template <typename T>
class [[nodiscard]] SharedGuard {
 public:
  ~SharedGuard() {
    if (locked_ != nullptr) GiveBack();
  }
  SharedGuard(const SharedGuard&) = delete;
  SharedGuard& operator=(const SharedGuard&) = delete;
  /** Leaves the other without access. Not to another thread. */
  SharedGuard(SharedGuard&& other) noexcept
      : locked_(std::exchange(other.locked_, nullptr)), object_(std::exchange(other.object_, nullptr)) {}
  SharedGuard& operator=(SharedGuard&&) = delete;

  /** The object; null without access. */
  [[nodiscard]] T* get() const noexcept { return object_; }
  /** The same. */
  [[nodiscard]] T& operator*() const noexcept { return *object_; }
  /** The same. */
  [[nodiscard]] T* operator->() const noexcept { return object_; }

  /** Gives the lock back, and the access with it, and tells whether that worked. */
  Result<void> Release(std::nothrow_t) noexcept {
    const OPL_Result code = OPL_SharedMemLockedRelease(locked_);
    if (code == OPL_SYNC_E_INTERRUPTED) return code;
    locked_ = nullptr;
    object_ = nullptr;
    return code;
  }
#if QVOPL_EXCEPTIONS
  /** The same; throws an Error. */
  void Release() { Release(std::nothrow).value(); }
#endif

 private:
  template <typename>
  friend class LockedSharedMemory;

  SharedGuard(OPL_SharedMemLocked* locked, void* address) noexcept
      : locked_(locked), object_(static_cast<T*>(address)) {}

  // A signal does not keep the lock from being given back.
  void GiveBack() noexcept {
    while (OPL_SharedMemLockedRelease(locked_) == OPL_SYNC_E_INTERRUPTED) {
    }
  }

  OPL_SharedMemLocked* locked_;
  T* object_;
};

/**
 * A block of shared memory that is one T, with a lock around it. There is no way to the object but through
 * the guards of Read and Write. A thread has one guard of a block at a time.
 */
template <typename T>
class [[nodiscard]] LockedSharedMemory : public Handle<OPL_SharedMemLocked, OPL_SharedMemLockedClose>,
                                         public NamedLock<LockedSharedMemory<T>> {
  friend NamedLock<LockedSharedMemory>;
  static_assert(detail::RequireBlock<T>::kIsBlock, "");

 public:
  using Handle::Handle;

  /** What Read gives: shared with other readers. */
  using ReadGuard = SharedGuard<const T>;
  /** What Write gives: alone. */
  using WriteGuard = SharedGuard<T>;

  /** Waits until nobody writes, and reads. */
  Result<ReadGuard> Read(std::nothrow_t) noexcept { return Take<ReadGuard>(OPL_SHAREDMEM_SHARED); }
  /** Waits until nobody reads or writes, and writes. */
  Result<WriteGuard> Write(std::nothrow_t) noexcept { return Take<WriteGuard>(OPL_SHAREDMEM_EXCLUSIVE); }

#if QVOPL_EXCEPTIONS
  /** Waits until nobody writes, and reads; throws an Error. */
  ReadGuard Read() { return Read(std::nothrow).value(); }
  /** Waits until nobody reads or writes, and writes; throws an Error. */
  WriteGuard Write() { return Write(std::nothrow).value(); }
#endif

 private:
  static Result<LockedSharedMemory> MakeOne(Text name, Access access, OnSignal onSignal) noexcept {
    return detail::Make<LockedSharedMemory, OPL_SharedMemLocked>(OPL_SharedMemLockedCreate, 0U, name.c_str(),
                                                                 static_cast<uint32_t>(sizeof(T)),
                                                                 Flags(access, onSignal));
  }
  static Result<LockedSharedMemory> OpenOne(Text name, Access access, OnSignal onSignal) noexcept {
    return detail::Make<LockedSharedMemory, OPL_SharedMemLocked>(OPL_SharedMemLockedOpen, 0U, name.c_str(),
                                                                 Flags(access, onSignal));
  }
  static bool IsMissing(const Result<LockedSharedMemory>& opened) noexcept {
    return detail::IsBlockMissing(opened.code());
  }
  static bool IsThere(const Result<LockedSharedMemory>& made) noexcept {
    return detail::IsBlockThere(made.code());
  }
  static uint32_t Flags(Access access, OnSignal onSignal) noexcept {
    return (access == Access::kAllUsers ? OPL_SHAREDMEM_ALL : OPL_SHAREDMEM_PRIVATE) |
           static_cast<uint32_t>(OPL_SHAREDMEM_LOCKED_ZERO) |
           (onSignal == OnSignal::kGoOn ? static_cast<uint32_t>(OPL_SHAREDMEM_LOCKED_RESTART) : 0U);
  }

  template <typename Guard>
  Result<Guard> Take(uint32_t how) noexcept {
    void* address = nullptr;
    if (const OPL_Result code = OPL_SharedMemLockedGet(native(), how, &address); code != OPL_OK)
      return Result<Guard>::Failure(code);
    return Guard(native(), address);
  }
};

}  // namespace qvopl

#endif
