// Servers for tests, and scripts that print what a test wants listed.
#ifndef OPL_TESTS_OPL_SERVER_SERVERS_H
#define OPL_TESTS_OPL_SERVER_SERVERS_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>

#include "OPL_Server.h"
#include "tests/support/Instance.h"

namespace opltest {

struct ServerParts {
  std::string scripts;
  std::string process = "daemon";
  std::string executable = "/bin/false";
  std::string controller = "ctl";
  uint32_t mode = OPL_SERVER_DETACHED;
};

struct ServerDestroyer {
  void operator()(OPL_Server* server) const { EXPECT_EQ(OPL_OK, OPL_ServerDestroy(&server)); }
};
using ServerHandle = std::unique_ptr<OPL_Server, ServerDestroyer>;

inline ServerHandle NewServer(const ServerParts& parts) {
  OPL_ServerParam* param = nullptr;
  EXPECT_EQ(OPL_OK, OPL_ServerParamCreate(&param, 0));
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param, OPL_SERVER_PARAM_SCRIPT_DIRECTORY, parts.scripts.c_str()));
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param, OPL_SERVER_PARAM_CONTROLLER_NAME, parts.controller.c_str()));
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param, OPL_SERVER_PARAM_EXECUTABLE_PATH, parts.executable.c_str()));
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param, OPL_SERVER_PARAM_PROCESS_NAME, parts.process.c_str()));
  OPL_Server* server = nullptr;
  EXPECT_EQ(OPL_OK, OPL_ServerCreate(&server, parts.mode, param));
  EXPECT_EQ(OPL_OK, OPL_ServerParamDestroy(&param));
  return ServerHandle(server);
}

inline std::string ControllerFile(const std::string& controller = "ctl") {
  return IpcDirectory() + "/" + controller + ".OPL_DAEMON.controller." + InstanceString() + ".006.021";
}

// The four bytes of a controller file.
inline std::string PidBytes(uint32_t pid) {
  return std::string(reinterpret_cast<const char*>(&pid), sizeof pid);
}

// Scripts in the test's directory.
inline std::string FakeScripts() { return WorkDirectory() + "/scripts"; }

inline void WriteScript(const std::string& name, const std::string& commands) {
  (void)::mkdir(FakeScripts().c_str(), 0700);
  const std::string path = FakeScripts() + "/" + name;
  WriteFile(path, "#!/bin/sh\n" + commands + "\n");
  ASSERT_EQ(0, ::chmod(path.c_str(), 0700));
}

inline void ListProcesses(const std::string& lines) {
  WriteFile(WorkDirectory() + "/listing", lines);
  WriteScript("OPL_ServerPS", "cat '" + WorkDirectory() + "/listing'");
}

inline void NameSpawner(const std::string& line) {
  WriteScript("OPL_ServerInitPidGet", "printf '" + line + "\\n'");
}

// A list that is released at the end of its scope.
class ServerList {
 public:
  explicit ServerList(OPL_Server* server) : server_(server) {}
  explicit ServerList(const ServerHandle& server) : server_(server.get()) {}
  ~ServerList() { EXPECT_EQ(OPL_OK, OPL_ServerInfoDestroy(server_, &list_, count_)); }
  ServerList(const ServerList&) = delete;
  ServerList& operator=(const ServerList&) = delete;

  OPL_Result Get() { return OPL_ServerInfoGet(server_, &list_, &count_); }
  uint32_t Count() const { return count_; }
  OPL_ServerInfo* operator[](uint32_t index) const { return list_[index]; }

  // "pid ppid start cpu".
  std::string Line(uint32_t index) const {
    uint32_t pid = 0;
    uint32_t parent = 0;
    char start[OPL_SERVER_TIME_SIZE];
    char cpu[OPL_SERVER_TIME_SIZE];
    EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPid(list_[index], &pid));
    EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPPid(list_[index], &parent));
    EXPECT_EQ(OPL_OK, OPL_ServerInfoGetStartTime(list_[index], start, sizeof start));
    EXPECT_EQ(OPL_OK, OPL_ServerInfoGetCPUTime(list_[index], cpu, sizeof cpu));
    return std::to_string(pid) + " " + std::to_string(parent) + " " + start + " " + cpu;
  }

  // The process ids in their order, with a blank behind each.
  std::string Pids() const {
    std::string pids;
    for (uint32_t i = 0; i < count_; ++i) {
      uint32_t pid = 0;
      EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPid(list_[i], &pid));
      pids += std::to_string(pid) + " ";
    }
    return pids;
  }

 private:
  OPL_Server* const server_;
  OPL_ServerInfo** list_ = nullptr;
  uint32_t count_ = 0;
};

}  // namespace opltest

#endif
