// What qvopl list tells of an object, and a process of either width that holds objects of all kinds.
#ifndef OPL_TESTS_TOOLS_LISTED_H
#define OPL_TESTS_TOOLS_LISTED_H

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "OPL_SharedMem.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/Instance.h"
#include "tests/tools/Tool.h"

namespace opltest {

// "process 4711 (name)".
inline std::string ProcessText(pid_t pid) {
  std::string name;
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::getline(file, name);
  return "process " + std::to_string(pid) + " (" + name + ")";
}

// The objects of that kind and name, as each width's build of the tool lists them; fails the test when they
// differ.
inline nlohmann::json Listed(const std::string& kind, const std::string& name) {
  nlohmann::json found;
  for (const int width : PeerWidths()) {
    nlohmann::json objects = nlohmann::json::array();
    const ToolRun run = RunTool({"list", "--json"}, width);
    EXPECT_EQ("", run.err);
    const nlohmann::json json = JsonOf(run);
    for (const auto& group : json["groups"])
      for (const auto& object : group["objects"])
        if (object["kind"] == kind && object["name"] == name) objects.push_back(object);
    // The processes that run the tool are forks of the test, which detach when they become the tool.
    for (auto& object : objects)
      if (object.contains("segment")) object.erase("segment"), object.erase("lastUsed");
    if (!found.is_null()) {
      EXPECT_EQ(found, objects) << "by " << width << " bits";
    }
    found = objects;
  }
  return found;
}

// The one there is; fails the test when there is none, or more.
inline nlohmann::json OneListed(const std::string& kind, const std::string& name) {
  const nlohmann::json found = Listed(kind, name);
  EXPECT_EQ(1u, found.size()) << kind << " " << name;
  return found.size() == 1 ? found[0] : nlohmann::json({{"state", ""}, {"condition", ""}});
}

inline std::string StateOf(const std::string& kind, const std::string& name) {
  return OneListed(kind, name)["state"];
}

inline std::string ConditionOf(const std::string& kind, const std::string& name) {
  return OneListed(kind, name)["condition"];
}

// Has a block "b" of 64 kB, a lock file "l", and a socket "s" that listens.
inline void HoldObjects(Steps& steps) {
  OPL_SharedMem* block = nullptr;
  OPL_SyncLockFile* lockFile = nullptr;
  OPL_Socket* socket = nullptr;
  OPL_SocketAddress* name = nullptr;
  void* address = nullptr;
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_SharedMemCreate(&block, 0, "b", &address, 65536, OPL_SHAREDMEM_PRIVATE));
  ASSERT_EQ(OPL_OK, OPL_SyncLockFileCreate(&lockFile, "l"));
  ASSERT_EQ(OPL_OK, OPL_SocketAddressCreate(&name, 0));
  ASSERT_EQ(OPL_OK, OPL_SocketAddressUnixSet(name, "s"));
  ASSERT_EQ(OPL_OK, OPL_SocketCreate(&socket, 0));
  ASSERT_EQ(OPL_OK, OPL_SocketOpen(socket, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
  ASSERT_EQ(OPL_OK, OPL_SocketBind(socket, name));
  ASSERT_EQ(OPL_OK, OPL_SocketListen(socket, 1));
  steps.Reach();
  steps.WaitForGo();
  EXPECT_EQ(OPL_OK, OPL_SocketDestroy(&socket));
  EXPECT_EQ(OPL_OK, OPL_SocketAddressDestroy(&name));
  EXPECT_EQ(OPL_OK, OPL_SyncLockFileDestroy(&lockFile));
  EXPECT_EQ(OPL_OK, OPL_SharedMemClose(&block));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

inline const PeerBody kHolder("Holder", HoldObjects);

}  // namespace opltest

#endif
