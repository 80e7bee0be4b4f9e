// What is told of a listed process.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "OPL_Server.h"
#include "OPL_UserInfo.h"
#include "tests/opl_server/Servers.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ExpectError;

class ServerInfo : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    opltest::ListProcesses("  4711 17 10:01 00:00:02 daemon -x\n");
    opltest::NameSpawner("17");
    server_ = opltest::NewServer({.scripts = opltest::FakeScripts()});
    list_ = std::make_unique<opltest::ServerList>(server_);
    ASSERT_EQ(OPL_OK, list_->Get());
    ASSERT_EQ(1u, list_->Count());
    info_ = (*list_)[0];
  }
  void TearDown() override {
    list_.reset();
    server_.reset();
    Instance::TearDown();
  }

  opltest::ServerHandle server_;
  std::unique_ptr<opltest::ServerList> list_;
  OPL_ServerInfo* info_ = nullptr;
};

struct TextAccessor {
  const char* function;
  const char* argument;
  OPL_Result (*get)(const OPL_ServerInfo*, char*, uint32_t);
  const char* expected;  // null for the user's own name
};

constexpr TextAccessor kTexts[] = {
    {"OPL_ServerInfoGetUserName", "UserName", OPL_ServerInfoGetUserName, nullptr},
    {"OPL_ServerInfoGetStartTime", "StartTime", OPL_ServerInfoGetStartTime, "10:01"},
    {"OPL_ServerInfoGetCPUTime", "CPUTime", OPL_ServerInfoGetCPUTime, "00:00:02"},
    {"OPL_ServerInfoGetServiceName", "ServiceName", OPL_ServerInfoGetServiceName, "daemon"},
};

std::string ExpectedOf(const TextAccessor& accessor) {
  if (accessor.expected != nullptr) return accessor.expected;
  char name[65];
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserNameGet(0, name, 64));
  return name;
}

TEST_F(ServerInfo, HasIts4TextsWithATerminator) {
  for (const TextAccessor& accessor : kTexts) {
    SCOPED_TRACE(accessor.function);
    const std::string expected = ExpectedOf(accessor);
    const auto length = static_cast<uint32_t>(expected.size());
    std::string buffer(length + 2, 'x');
    EXPECT_EQ(OPL_OK, accessor.get(info_, buffer.data(), length + 1));
    EXPECT_EQ(expected + '\0' + 'x', buffer);
    EXPECT_EQ(OPL_OK, accessor.get(info_, buffer.data(), length + 2));
  }
}

TEST_F(ServerInfo, RefusesABufferWithoutRoomForTheTerminator) {
  for (const TextAccessor& accessor : kTexts) {
    SCOPED_TRACE(accessor.function);
    const auto length = static_cast<uint32_t>(ExpectedOf(accessor).size());
    char buffer[300] = "untouched";
    for (const uint32_t size : {0u, 1u, length}) {
      EXPECT_EQ(0x050B19u, accessor.get(info_, buffer, size));
      ExpectError(0x050B19,
                  (std::string(accessor.function) + ": The size of the string is too small.").c_str());
    }
    EXPECT_STREQ("untouched", buffer);
  }
}

TEST_F(ServerInfo, RefusesNullArgumentsTheBufferFirst) {
  for (const TextAccessor& accessor : kTexts) {
    SCOPED_TRACE(accessor.function);
    char buffer[300];
    const std::string function = accessor.function;
    EXPECT_EQ(0x050B26u, accessor.get(nullptr, nullptr, sizeof buffer));
    ExpectError(0x050B26, (function + ": " + accessor.argument + " is NULL.").c_str());
    EXPECT_EQ(0x050B26u, accessor.get(info_, nullptr, sizeof buffer));
    ExpectError(0x050B26, (function + ": " + accessor.argument + " is NULL.").c_str());
    EXPECT_EQ(0x050B26u, accessor.get(nullptr, buffer, sizeof buffer));
    ExpectError(0x050B26, (function + ": hServerInfo is NULL.").c_str());
  }
}

TEST_F(ServerInfo, HasAProcessIdAndItsParents) {
  uint32_t pid = 0;
  uint32_t parent = 0;
  EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPid(info_, &pid));
  EXPECT_EQ(OPL_OK, OPL_ServerInfoGetPPid(info_, &parent));
  EXPECT_EQ(4711u, pid);
  EXPECT_EQ(17u, parent);
}

TEST_F(ServerInfo, RefusesNullForTheIds) {
  uint32_t pid = 0;
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGetPid(nullptr, nullptr));
  ExpectError(0x050B26, "OPL_ServerInfoGetPid: pPid is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGetPid(nullptr, &pid));
  ExpectError(0x050B26, "OPL_ServerInfoGetPid: hServerInfo is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGetPPid(nullptr, nullptr));
  ExpectError(0x050B26, "OPL_ServerInfoGetPPid: pPid is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGetPPid(nullptr, &pid));
  ExpectError(0x050B26, "OPL_ServerInfoGetPPid: hServerInfo is NULL.");
}

}  // namespace
