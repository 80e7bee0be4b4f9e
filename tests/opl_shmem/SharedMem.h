// Named shared memory as its tests see it: the object files, the segments' bytes, and how a test makes a
// block in a line.
#ifndef OPL_TESTS_OPL_SHMEM_SHARED_MEM_H
#define OPL_TESTS_OPL_SHMEM_SHARED_MEM_H

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "OPL_Mem.h"
#include "OPL_SharedMem.h"
#include "tests/support/Instance.h"
#include "tests/support/SystemV.h"

namespace opltest {

inline constexpr char kVersion[] = ".006.021";
inline constexpr size_t kHeaderSize = 8;

inline std::string BlockFile(const std::string& name, const std::string& scope = InstanceString()) {
  return IpcDirectory() + "/" + name + ".mem." + scope + kVersion;
}

// The IPC directory's files but the management file, which is there while the library is begun.
inline std::vector<std::string> ObjectFiles() {
  std::vector<std::string> files = FilesIn(IpcDirectory());
  std::erase(files, "QVOPL.mgmt." + InstanceString() + kVersion);
  return files;
}

// A segment's bytes from outside of the library.
class SegmentView {
 public:
  explicit SegmentView(int id) : bytes_(static_cast<unsigned char*>(::shmat(id, nullptr, 0))) {}
  ~SegmentView() { (void)::shmdt(bytes_); }
  SegmentView(const SegmentView&) = delete;
  SegmentView& operator=(const SegmentView&) = delete;

  unsigned char* bytes() const { return bytes_; }
  std::string Text(size_t offset, size_t size) const {
    return {reinterpret_cast<const char*>(bytes_) + offset, size};
  }

  uint32_t UseCount() const {
    uint32_t count = 0;
    for (int i = 3; i >= 0; --i) count = count << 8 | bytes_[i];
    return count;
  }
  void SetUseCount(uint32_t count) {
    for (int i = 0; i < 4; ++i) bytes_[i] = static_cast<unsigned char>(count >> (8 * i));
  }

 private:
  unsigned char* const bytes_;
};

inline uint32_t UseCountOf(int id) { return SegmentView(id).UseCount(); }

struct Block {
  Block() = default;
  // The process's clean-up closes blocks without their handles, whose memory stays with the callers.
  ~Block() {
    if (handle != nullptr) OPL_MemFree(nullptr, handle, 0, "~Block", __FILE__, "NO-VERSION-INFO", __LINE__);
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  OPL_SharedMem* handle = nullptr;
  void* address = nullptr;

  OPL_Result Create(const std::string& name, uint32_t size = 64,
                    uint32_t permission = OPL_SHAREDMEM_PRIVATE) {
    return OPL_SharedMemCreate(&handle, 0, name.c_str(), &address, size, permission);
  }
  OPL_Result Open(const std::string& name, uint32_t permission = OPL_SHAREDMEM_PRIVATE) {
    return OPL_SharedMemOpen(&handle, 0, name.c_str(), &address, permission);
  }
  OPL_Result Close() { return OPL_SharedMemClose(&handle); }
};

inline void ExpectTimesIn2036(const std::string& path) {
  struct stat status {};
  ASSERT_EQ(0, ::stat(path.c_str(), &status)) << path;
  for (const time_t time : {status.st_atime, status.st_mtime}) {
    struct tm brokenDown {};
    ASSERT_NE(nullptr, ::localtime_r(&time, &brokenDown));
    EXPECT_EQ(136, brokenDown.tm_year);
  }
}

}  // namespace opltest

#endif
