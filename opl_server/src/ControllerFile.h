// A server's controller file: four bytes with the process id of the daemon that has started.
#ifndef OPL_SERVER_CONTROLLER_FILE_H
#define OPL_SERVER_CONTROLLER_FILE_H

#include <cstdint>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "opl_err/src/Fail.h"
#include "opl_private/src/IpcFile.h"
#include "opl_server/src/Server.h"

namespace opl {

inline constexpr char kControllerMarker[] = "OPL_DAEMON.controller";

class ControllerName {
 public:
  explicit ControllerName(const OPL_Server& server) {
    char directory[kIpcNameSize];
    (void)OPL_InitIPCPathGet(0, directory, sizeof directory);
    (void)OPL_CrtSNPrintf(text_, sizeof text_, "%s/%s.%s.%s.%s", directory, server.controllerName,
                          kControllerMarker, OPL_InitInstanceStringGet(), OPL_InitBuildVersionStringGet(0));
  }

  const char* c_str() const { return text_; }

 private:
  char text_[kIpcNameSize];
};

}  // namespace opl

#endif
