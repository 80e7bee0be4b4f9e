// A controller of this width and daemons of either: both read the same controller file and share the
// instance.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "OPL_Server.h"
#include "tests/opl_server/Daemons.h"
#include "tests/support/SemaphoreSets.h"

namespace {

using opltest::Begun;
using opltest::ControllerFile;
using opltest::kLong;
using opltest::PidBytes;
using opltest::ServerHandle;

class ServerMixed : public opltest::Daemons, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    Daemons::SetUp();
    server_ = NewDaemon(name_, "ctl", GetParam());
    if (opltest::DaemonOf(GetParam()).empty()) GTEST_SKIP() << "no daemon of " << GetParam() << " bits";
  }
};
INSTANTIATE_TEST_SUITE_P(Daemon, ServerMixed, ::testing::Values(32, 64));

TEST_P(ServerMixed, StartsAsksAndStops) {
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun begun = AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(1u, IsStarted(server_));
  EXPECT_EQ(static_cast<uint32_t>(begun.pid), ControllerPid(server_));
  EXPECT_EQ(PidBytes(static_cast<uint32_t>(begun.pid)), opltest::ContentsOf(ControllerFile()));
  EXPECT_EQ(1u, opltest::SemaphoreSets().size());
  EXPECT_EQ(OPL_OK, OPL_ServerStop(server_.get(), kLong));
  EXPECT_EQ("ended 0 77", Event());
  AwaitEndOfAll();
  EXPECT_NE(0, ::access(ControllerFile().c_str(), F_OK));
}

TEST_P(ServerMixed, TerminatesAndKills) {
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  (void)AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(OPL_OK, OPL_ServerTerminate(server_.get(), kLong));
  EXPECT_EQ("ended 0 77", Event());
  EXPECT_EQ(OPL_OK, Start(server_, kLong));
  const Begun begun = AwaitBegun(name_);
  EXPECT_EQ("ready", Event());
  EXPECT_EQ(OPL_OK, OPL_ServerKill(server_.get(), kLong));
  AwaitEndOfAll();
  EXPECT_EQ(static_cast<uint32_t>(begun.pid), ControllerPid(server_));
  EXPECT_EQ(0, ::unlink(ControllerFile().c_str()));
}

}  // namespace
