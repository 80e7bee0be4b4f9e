// What named objects look like to whoever meets them: the markers in their files' names, the semaphores of
// their sets, the beginning of a segment. Constants alone, so that a program beside the library can include
// them, too.
#ifndef OPL_PRIVATE_OBJECT_LAYOUT_H
#define OPL_PRIVATE_OBJECT_LAYOUT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace opl {

// Stands for the instance string in the names of objects of all users.
inline constexpr char kAllUsersScope[] = "all";

// Between an object's name and its scope. The management file's, which has no name, begins the file's.
inline constexpr char kMgmtPrefix[] = "QVOPL.mgmt.";
inline constexpr char kMutexMarker[] = ".mutex.";
inline constexpr char kRWLockMarker[] = ".rwlock.";
inline constexpr char kEventMarker[] = ".event.";
inline constexpr char kSegmentMarker[] = ".mem.";
inline constexpr char kSocketMarker[] = ".sck.";
inline constexpr char kLockFileMarker[] = ".lckfile.";
inline constexpr char kSemNativeMarker[] = ".semnat.";
inline constexpr char kMsgqNativeMarker[] = ".msgqnat.";

// Behind the whole name of an event's FIFO.
inline constexpr char kEventCountSuffix[] = ".count";

// Of an instance: the number of processes, and the locks around the creation, opening and closing of named
// objects.
struct MgmtSet {
  enum Semaphore : unsigned short { kUseCount, kSharedMemLock, kRWLockLock, kMutexLock, kSemaphoreCount };
};

// The lock is 1 while the mutex is free, and 0 while it is held.
struct MutexSet {
  enum Semaphore : unsigned short { kLock, kUseCount, kSemaphoreCount };
};

// The gate is 1 without a writer; the others are the numbers of those that hold the lock.
struct RWLockSet {
  enum Semaphore : unsigned short { kWriterGate, kWriters, kReaders, kUseCount, kSemaphoreCount };
};

// What a segment begins with; the caller's memory lies behind it. The count is changed under a lock, but seen
// by tools without one.
struct SegmentHeader {
  std::atomic<uint32_t> useCount;
  uint32_t reserved;
};
static_assert(sizeof(SegmentHeader) == 8);
static_assert(offsetof(SegmentHeader, useCount) == 0);

}  // namespace opl

#endif
