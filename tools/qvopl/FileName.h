// What the name of a file in the IPC directory says.
#ifndef QVOPL_TOOL_FILE_NAME_H
#define QVOPL_TOOL_FILE_NAME_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qvopl {

// In the order in which they are listed.
enum class Kind {
  kManagement,
  kMutex,
  kRWLock,
  kEvent,
  kSegment,
  kLockFile,
  kSocket,
  kSemaphores,  // sets and queues that programs made themselves and registered
  kMessageQueue,
  kServer,
  kListing,  // where a process lists a server's processes for a moment
};

// "mutex".
const char* NameOf(Kind kind);

enum class Scope { kInstance, kAllUsers, kNone };

struct FileName {
  Kind kind = Kind::kMutex;
  std::string name;  // the object's; of a management set empty
  Scope scope = Scope::kNone;
  std::string instance;  // of scope kInstance alone
  std::string version;   // "006.021"
  bool isCount = false;  // an event's count file
  bool isTemporary = false;
  pid_t maker = 0;                   // of a temporary file, where its name tells
  std::optional<uint32_t> nativeId;  // of registered sets and queues
};

// Nothing for names that are no object's. A marker may occur in names and instance strings; the last one
// counts.
std::optional<FileName> ParseFileName(std::string_view file);

// The name that an event's count file stands beside.
std::string FifoOf(const std::string& countFile);

// What the library of this build calls itself in names.
std::string BuildVersion();

}  // namespace qvopl

#endif
