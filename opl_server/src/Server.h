// The records of a server, its parameters and its processes.
#ifndef OPL_SERVER_SERVER_H
#define OPL_SERVER_SERVER_H

#include <cstddef>
#include <cstdint>

#include "OPL_Server.h"
#include "opl_err/src/Fail.h"

namespace opl {

inline constexpr size_t kServerPathSize = 4095;
inline constexpr size_t kControllerNameSize = 20;
inline constexpr size_t kProcessNameSize = 255;

// What every operation on a server refuses before it looks at anything else.
[[nodiscard]] Code CheckServer(const OPL_Server* server, const char* caller = __builtin_FUNCTION());

}  // namespace opl

struct OPL_ServerParam {
  char scriptDirectory[opl::kServerPathSize];
  char controllerName[opl::kControllerNameSize];
  char executablePath[opl::kServerPathSize];
  char processName[opl::kProcessNameSize];
};

struct OPL_Server {
  char processName[opl::kProcessNameSize];
  char scriptDirectory[opl::kServerPathSize];
  char executablePath[opl::kServerPathSize];
  char controllerName[opl::kControllerNameSize];
  uint32_t mode;
  uint32_t isRelatedOnly;  // 1: listings keep only descendants of the system's spawner
};

struct OPL_ServerInfo {
  char userName[OPL_SERVER_USER_NAME_SIZE];
  uint32_t processId;
  uint32_t parentId;
  char startTime[OPL_SERVER_TIME_SIZE];
  char cpuTime[OPL_SERVER_TIME_SIZE];
  char serviceName[OPL_SERVER_SERVICE_NAME_SIZE];
};

#endif
