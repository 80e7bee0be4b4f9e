// The record of a socket.
#ifndef OPL_SOCKET_SOCKET_H
#define OPL_SOCKET_SOCKET_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "OPL_Socket.h"

struct OPL_Socket {
  int32_t descriptor;                    // -1 for none
  uint32_t notifications;                // those last asked for
  uint32_t family;                       // the system's; 0 until it is opened
  char boundPath[OPL_SOCKET_PATH_SIZE];  // of the file that this record has made; empty for none
  std::atomic<uint32_t> lastSendError;   // a sending thread's, read by others
  dev_t boundDevice;                     // tells that file from others of its name
  ino64_t boundInode;
};

#endif
