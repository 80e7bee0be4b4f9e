// Named events as their tests see them: the two files, and how a test makes and looks at one in a line.
#ifndef OPL_TESTS_OPL_SYNC_NAMED_EVENTS_H
#define OPL_TESTS_OPL_SYNC_NAMED_EVENTS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "OPL_Sync.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Instance.h"

namespace opltest {

inline std::string FifoOf(const std::string& name, const std::string& scope = InstanceString()) {
  return IpcDirectory() + "/" + name + ".event." + scope + kVersion;
}

inline std::string CountFileOf(const std::string& name, const std::string& scope = InstanceString()) {
  return FifoOf(name, scope) + ".count";
}

// The IPC directory's files that belong to events.
inline std::vector<std::string> EventFiles() {
  std::vector<std::string> files = FilesIn(IpcDirectory());
  std::erase_if(files, [](const std::string& file) { return file.find(".event.") == std::string::npos; });
  return files;
}

// A count as it stands in the file.
inline std::string CountBytes(uint32_t count) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(count >> shift);
  return bytes;
}

// What the file holds; fails the test when it does not hold four bytes.
inline uint32_t CountOf(const std::string& name, const std::string& scope = InstanceString()) {
  const std::string contents = ContentsOf(CountFileOf(name, scope));
  EXPECT_EQ(4u, contents.size()) << name;
  uint32_t count = 0;
  if (contents.size() == 4) std::memcpy(&count, contents.data(), 4);
  return count;
}

// A program keeps its handles; some tests leave it to the library's end to close the events.
inline OPL_SyncEvent* Keep(OPL_SyncEvent* event) {
  static OPL_SyncEvent* kept[256];
  static std::atomic<unsigned> count{0};
  kept[count++ % std::size(kept)] = event;
  return event;
}

inline OPL_SyncEvent* NewEvent(const std::string& name, uint32_t flags = OPL_SYNC_EVENT_PRIVATE) {
  OPL_SyncEvent* event = nullptr;
  EXPECT_EQ(0u, OPL_SyncEventCreate(&event, 0, name.c_str(), flags)) << name;
  return Keep(event);
}

inline OPL_SyncEvent* OpenEvent(const std::string& name, uint32_t flags = OPL_SYNC_EVENT_PRIVATE) {
  OPL_SyncEvent* event = nullptr;
  EXPECT_EQ(0u, OPL_SyncEventOpen(&event, 0, name.c_str(), flags)) << name;
  return Keep(event);
}

inline void CloseEvent(OPL_SyncEvent* event) { EXPECT_EQ(0u, OPL_SyncEventClose(&event)); }

inline bool IsSet(OPL_SyncEvent* event) {
  uint32_t isSet = 7;
  EXPECT_EQ(0u, OPL_SyncEventIsSet(event, &isSet));
  EXPECT_LE(isSet, 1u);
  return isSet == 1;
}

// The first word of a handle is its descriptor.
inline int DescriptorOf(const OPL_SyncEvent* event) {
  int32_t fd = -1;
  std::memcpy(&fd, static_cast<const void*>(event), sizeof fd);
  return fd;
}

inline int PostsOf(const OPL_SyncEvent* event) {
  int count = -1;
  EXPECT_EQ(0, ::ioctl(DescriptorOf(event), FIONREAD, &count));
  return count;
}

// Gives the event room for as few posts as the system allows; how many.
inline int ShrinkRoom(const OPL_SyncEvent* event) { return ::fcntl(DescriptorOf(event), F_SETPIPE_SZ, 4096); }

}  // namespace opltest

#endif
