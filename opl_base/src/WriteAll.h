// Writes all there is to write, however many calls that takes.
#ifndef OPL_BASE_WRITE_ALL_H
#define OPL_BASE_WRITE_ALL_H

#include <unistd.h>

#include <cstddef>

#include "opl_base/src/Retry.h"

namespace opl {

// False, and errno, when the system refuses a part of it.
inline bool WriteAll(int fd, const char* data, size_t length) {
  while (length != 0) {
    const ssize_t written = RetryOnEintr([&] { return ::write(fd, data, length); });
    if (written == -1) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace opl

#endif
