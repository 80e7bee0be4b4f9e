// Named mutexes and read-write locks as their tests see them: the files, the handle's record, and how a test
// makes one in a line.
#ifndef OPL_TESTS_OPL_SYNC_NAMED_OBJECTS_H
#define OPL_TESTS_OPL_SYNC_NAMED_OBJECTS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "OPL_Sync.h"
#include "tests/support/Instance.h"
#include "tests/support/SemaphoreSets.h"

namespace opltest {

inline constexpr char kVersion[] = ".006.021";

inline std::string MutexFile(const std::string& name, const std::string& scope = InstanceString()) {
  return IpcDirectory() + "/" + name + ".mutex." + scope + kVersion;
}

inline std::string RWLockFile(const std::string& name, const std::string& scope = InstanceString()) {
  return IpcDirectory() + "/" + name + ".rwlock." + scope + kVersion;
}

inline std::string ManagementFile() { return IpcDirectory() + "/QVOPL.mgmt." + InstanceString() + kVersion; }

// The IPC directory's files but the management file, which is there while the library is begun.
inline std::vector<std::string> ObjectFiles() {
  std::vector<std::string> files = FilesIn(IpcDirectory());
  std::erase(files, "QVOPL.mgmt." + InstanceString() + kVersion);
  return files;
}

// What another program may do to an object's file. An open or a close then has to read the file, with its
// times to move, under the management lock.
inline void DateToThePresent(const std::string& file) {
  const struct timespec present[] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, file.c_str(), present, 0));
}

inline bool IsDatedTo2036(const std::string& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0 && ::localtime(&status.st_atime)->tm_year == 136 &&
         ::localtime(&status.st_mtime)->tm_year == 136;
}

// "%i,%s" with the number's text.
inline std::string NumberAndText(int number) { return std::to_string(number) + "," + std::strerror(number); }

// The first 32 bytes of a mutex handle, the same in both widths.
struct MutexRecord {
  int32_t semId;
  uint32_t lockCount;
  uint32_t ownerThread;
  char name[12];
  uint32_t flags;
  uint32_t freeOnClose;
};
static_assert(sizeof(MutexRecord) == 32);

inline MutexRecord RecordOf(const OPL_SyncMutex* mutex) {
  MutexRecord record;
  std::memcpy(&record, static_cast<const void*>(mutex), sizeof record);
  return record;
}

inline OPL_SyncMutex* NewMutex(const char* name, uint32_t flags = OPL_SYNC_MUTEX_PRIVATE) {
  OPL_SyncMutex* mutex = nullptr;
  EXPECT_EQ(0u, OPL_SyncMutexCreate(&mutex, 0, name, flags)) << name;
  return mutex;
}

inline OPL_SyncMutex* OpenMutex(const char* name, uint32_t flags = OPL_SYNC_MUTEX_PRIVATE) {
  OPL_SyncMutex* mutex = nullptr;
  EXPECT_EQ(0u, OPL_SyncMutexOpen(&mutex, 0, name, flags)) << name;
  return mutex;
}

// Close leaves the memory of a handle that Open made with the process; a test gives it back itself.
inline void CloseOpened(OPL_SyncMutex* mutex) {
  OPL_SyncMutex* handle = mutex;
  EXPECT_EQ(0u, OPL_SyncMutexClose(&handle));
  std::free(mutex);
}

inline OPL_SyncRWLock* NewRWLock(const char* name, uint32_t flags = OPL_SYNC_RWLOCK_PRIVATE) {
  OPL_SyncRWLock* rwLock = nullptr;
  EXPECT_EQ(0u, OPL_SyncRWLockCreate(&rwLock, 0, name, flags)) << name;
  return rwLock;
}

inline OPL_SyncRWLock* OpenRWLock(const char* name, uint32_t flags = OPL_SYNC_RWLOCK_PRIVATE) {
  OPL_SyncRWLock* rwLock = nullptr;
  EXPECT_EQ(0u, OPL_SyncRWLockOpen(&rwLock, 0, name, flags)) << name;
  return rwLock;
}

}  // namespace opltest

#endif
