// The record of a socket.
#ifndef OPL_SOCKET_SOCKET_H
#define OPL_SOCKET_SOCKET_H

#include <cstdint>

#include "OPL_Socket.h"
#include "opl_err/src/Fail.h"

namespace opl {

// What every operation on a socket refuses before it looks at anything else.
[[nodiscard]] Code CheckSocket(const OPL_Socket* socket, const char* caller = __builtin_FUNCTION());

// Tells a file from others that have had its name. The system gives a file's number to another one once
// nobody holds the file, so the time of its making counts too, where the file system keeps it.
struct FileIdentity {
  uint32_t deviceMajor;
  uint32_t deviceMinor;
  uint64_t number;
  int64_t birthSeconds;
  uint32_t birthNanoseconds;

  bool operator==(const FileIdentity&) const = default;
};

}  // namespace opl

// The words that several threads may touch are used by std::atomic_ref alone.
struct OPL_Socket {
  int32_t descriptor;                    // -1 for none
  uint32_t notifications;                // those last asked for, by any waiting thread
  uint32_t family;                       // the system's; 0 until it is opened
  char boundPath[OPL_SOCKET_PATH_SIZE];  // of the file that this record has made; empty for none
  uint32_t lastSendError;                // a sending thread's, read by others
  opl::FileIdentity boundFile;
};

#endif
