// Removal of an instance's controller files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Server.h"
#include "tests/opl_server/Servers.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"

namespace {

using opltest::ControllerFile;
using opltest::FilesIn;
using opltest::IpcDirectory;
using opltest::WriteFile;

class ServerTerminateIPC : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    atFirst_ = FilesIn(IpcDirectory());
  }
  std::vector<std::string> atFirst_;
};

TEST_F(ServerTerminateIPC, RemovesTheInstancesControllerFiles) {
  WriteFile(ControllerFile("one"), "1234");
  WriteFile(ControllerFile("two"), "");
  EXPECT_EQ(OPL_OK, OPL_ServerTerminateIPC(0, "*"));
  EXPECT_EQ(atFirst_, FilesIn(IpcDirectory()));
}

TEST_F(ServerTerminateIPC, LooksAtNoFlag) {
  WriteFile(ControllerFile("one"), "1234");
  EXPECT_EQ(OPL_OK, OPL_ServerTerminateIPC(0xFFFFFFFF, "*"));
  EXPECT_EQ(atFirst_, FilesIn(IpcDirectory()));
}

TEST_F(ServerTerminateIPC, FindsNothing) {
  EXPECT_EQ(OPL_OK, OPL_ServerTerminateIPC(0, "*"));
  EXPECT_EQ(OPL_OK, OPL_ServerTerminateIPC(0, "no-such-*"));
}

TEST_F(ServerTerminateIPC, RemovesOnlyWhatThePatternMatches) {
  WriteFile(ControllerFile("one"), "1234");
  WriteFile(ControllerFile("two"), "1234");
  EXPECT_EQ(OPL_OK, OPL_ServerTerminateIPC(0, "one*"));
  EXPECT_NE(0, ::access(ControllerFile("one").c_str(), F_OK));
  EXPECT_EQ(0, ::access(ControllerFile("two").c_str(), F_OK));
  EXPECT_EQ(0, ::unlink(ControllerFile("two").c_str()));
}

TEST_F(ServerTerminateIPC, LeavesOtherInstancesVersionsAndKindsAlone) {
  const std::string directory = IpcDirectory() + "/";
  const std::string instance = opltest::InstanceString();
  const std::vector<std::string> others = {
      directory + "ctl.OPL_DAEMON.controller.OTHER.006.021",
      directory + "ctl.OPL_DAEMON.controller." + instance + ".006.020",
      directory + "ctl.OPL_DAEMON.other." + instance + ".006.021",
      directory + "ctl.mutexish." + instance + ".006.021",
  };
  for (const std::string& name : others) WriteFile(name, "1234");
  WriteFile(ControllerFile(), "1234");
  EXPECT_EQ(OPL_OK, OPL_ServerTerminateIPC(0, "*"));
  EXPECT_NE(0, ::access(ControllerFile().c_str(), F_OK));
  for (const std::string& name : others) EXPECT_EQ(0, ::unlink(name.c_str())) << name;
}

TEST_F(ServerTerminateIPC, GoesThroughAllWhateverFails) {
  WriteFile(ControllerFile("one"), "1234");
  ASSERT_EQ(0, ::mkdir(ControllerFile("another").c_str(), 0700));
  WriteFile(ControllerFile("another") + "/within", "kept");
  EXPECT_NE(OPL_OK, OPL_ServerTerminateIPC(0, "*"));
  EXPECT_NE(0, ::access(ControllerFile("one").c_str(), F_OK));
  EXPECT_EQ("kept", opltest::ContentsOf(ControllerFile("another") + "/within"));
  EXPECT_EQ(0, ::unlink((ControllerFile("another") + "/within").c_str()));
  EXPECT_EQ(0, ::rmdir(ControllerFile("another").c_str()));
}

TEST_F(ServerTerminateIPC, IsPartOfTheRemovalOfTheInstance) {
  WriteFile(ControllerFile("one"), "1234");
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
  EXPECT_NE(0, ::access(ControllerFile("one").c_str(), F_OK));
}

TEST(ServerTerminateIPCBeforeBegin, RemovesTheFilesThroughTheRemovalOfTheInstance) {
  WriteFile(ControllerFile("one"), "1234");
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(FilesIn(IpcDirectory()).empty());
}

}  // namespace
