// Parameters of a server and server objects.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "OPL_Init.h"
#include "OPL_Server.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Instance.h"

namespace {

using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;

constexpr OPL_Result kStopped = OPL_INIT_E_STOPPED;

class ServerParam : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(OPL_OK, OPL_ServerParamCreate(&param_, 0));
  }
  void TearDown() override {
    EXPECT_EQ(OPL_OK, OPL_ServerParamDestroy(&param_));
    Instance::TearDown();
  }

  std::string Get(uint32_t option) const {
    char buffer[4096];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(OPL_OK, OPL_ServerParamGet(param_, option, buffer));
    return buffer;
  }

  OPL_ServerParam* param_ = nullptr;
};

TEST_F(ServerParam, IsEmptyAtFirst) {
  for (const uint32_t option : {0u, 1u, 2u, 3u}) EXPECT_EQ("", Get(option)) << option;
}

TEST_F(ServerParam, IsNewMemorysOwnNoRubbish) {
  const CountedMemory memory;
  OPL_ServerParam* param = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ServerParamCreate(&param, 0));
  for (const uint32_t option : {0u, 1u, 2u, 3u}) {
    char buffer[4096] = "x";
    EXPECT_EQ(OPL_OK, OPL_ServerParamGet(param, option, buffer));
    EXPECT_STREQ("", buffer) << option;
  }
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(OPL_OK, OPL_ServerParamDestroy(&param));
  EXPECT_EQ(nullptr, param);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(ServerParam, KeepsEachText) {
  for (const uint32_t option : {0u, 1u, 2u, 3u})
    EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, option, ("text " + std::to_string(option)).c_str()));
  for (const uint32_t option : {0u, 1u, 2u, 3u}) EXPECT_EQ("text " + std::to_string(option), Get(option));
}

TEST_F(ServerParam, ReplacesATextByAShorterOne) {
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, 3, "a longer name"));
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, 3, "short"));
  EXPECT_EQ("short", Get(3));
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, 3, ""));
  EXPECT_EQ("", Get(3));
}

TEST_F(ServerParam, CutsEachTextToItsBytes) {
  constexpr size_t kLongest[] = {4094, 19, 4094, 254};
  for (uint32_t option = 0; option < 4; ++option) {
    for (const size_t more : {0, 1, 11}) {
      const std::string text(kLongest[option] + more, static_cast<char>('a' + option));
      EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, option, text.c_str()));
      EXPECT_EQ(text.substr(0, kLongest[option]), Get(option));
    }
  }
  // None has run into its neighbour.
  for (uint32_t option = 0; option < 4; ++option)
    EXPECT_EQ(std::string(kLongest[option], static_cast<char>('a' + option)), Get(option));
}

TEST_F(ServerParam, KeepsTheFirst19CharactersOfAControllerNameOf30) {
  EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, 1, "abcdefghijklmnopqrstuvwxyz1234"));
  EXPECT_EQ("abcdefghijklmnopqrs", Get(1));
}

TEST_F(ServerParam, RefusesOtherOptions) {
  char buffer[16] = "untouched";
  for (const uint32_t option : {4u, 5u, 0x80000000u}) {
    const std::string number = std::to_string(static_cast<int32_t>(option));
    EXPECT_EQ(0x050B3Au, OPL_ServerParamSet(param_, option, "text"));
    ExpectError(0x050B3A, ("OPL_ServerParamSet: ParamOption (" + number + ") invalid.").c_str());
    EXPECT_EQ(0x050B3Au, OPL_ServerParamGet(param_, option, buffer));
    ExpectError(0x050B3A, ("OPL_ServerParamGet: ParamOption (" + number + ") invalid.").c_str());
  }
  EXPECT_STREQ("untouched", buffer);
}

TEST_F(ServerParam, RefusesNullArguments) {
  char buffer[4096];
  EXPECT_EQ(0x050B3Au, OPL_ServerParamCreate(nullptr, 1));
  ExpectError(0x050B3A, "OPL_ServerParamCreate: ppServerParam == NULL");
  EXPECT_EQ(0x050B3Au, OPL_ServerParamSet(nullptr, 4, "text"));
  ExpectError(0x050B3A, "OPL_ServerParamSet: pServerParam == NULL");
  EXPECT_EQ(0x050B3Au, OPL_ServerParamGet(nullptr, 4, buffer));
  ExpectError(0x050B3A, "OPL_ServerParamGet: pServerParam == NULL");
  EXPECT_EQ(0x050B3Au, OPL_ServerParamSet(param_, 0, nullptr));
  ExpectError(0x050B3A, "OPL_ServerParamSet: Text == NULL");
  EXPECT_EQ(0x050B3Au, OPL_ServerParamGet(param_, 0, nullptr));
  ExpectError(0x050B3A, "OPL_ServerParamGet: Buffer == NULL");
}

TEST_F(ServerParam, RefusesAMode) {
  OPL_ServerParam* param = nullptr;
  EXPECT_EQ(0x050B3Au, OPL_ServerParamCreate(&param, 1));
  ExpectError(0x050B3A, "OPL_ServerParamCreate: Invalid mode (1)");
  EXPECT_EQ(0x050B3Au, OPL_ServerParamCreate(&param, 0xFFFFFFFF));
  ExpectError(0x050B3A, "OPL_ServerParamCreate: Invalid mode (4294967295)");
  EXPECT_EQ(nullptr, param);
}

TEST_F(ServerParam, RefusesToDestroyNothing) {
  constexpr char kText[] = "OPL_ServerParamDestroy: ppServerParam == NULL || *ppServerParam == NULL";
  EXPECT_EQ(0x050B3Au, OPL_ServerParamDestroy(nullptr));
  ExpectError(0x050B3A, kText);
  OPL_ServerParam* none = nullptr;
  EXPECT_EQ(0x050B3Au, OPL_ServerParamDestroy(&none));
  ExpectError(0x050B3A, kText);
}

TEST_F(ServerParam, TellsWhenThereIsNoMemory) {
  OPL_ServerParam* param = nullptr;
  const FailingMemory memory(1);
  EXPECT_EQ(0x050B39u, OPL_ServerParamCreate(&param, 0));
  ExpectError(ENOMEM, "OPL_ServerParamCreate: OPL_MEMMALLOC: Cannot allocate memory");
  EXPECT_EQ(nullptr, param);
}

class ServerObject : public ServerParam {};

TEST_F(ServerObject, IsMadeInEitherMode) {
  for (const uint32_t mode : {0u, 1u}) {
    OPL_Server* server = nullptr;
    EXPECT_EQ(OPL_OK, OPL_ServerCreate(&server, mode, param_));
    ASSERT_NE(nullptr, server);
    EXPECT_EQ(OPL_OK, OPL_ServerDestroy(&server));
    EXPECT_EQ(nullptr, server);
  }
}

TEST_F(ServerObject, TakesTheLongestParameters) {
  for (const uint32_t option : {0u, 1u, 2u, 3u})
    EXPECT_EQ(OPL_OK, OPL_ServerParamSet(param_, option, std::string(5000, 'x').c_str()));
  OPL_Server* server = nullptr;
  EXPECT_EQ(OPL_OK, OPL_ServerCreate(&server, 0, param_));
  EXPECT_EQ(OPL_OK, OPL_ServerDestroy(&server));
}

TEST_F(ServerObject, RefusesOtherModes) {
  OPL_Server* server = nullptr;
  for (const uint32_t mode : {2u, 0xFFFFFFFFu}) {
    EXPECT_EQ(0x050B02u, OPL_ServerCreate(&server, mode, param_));
    ExpectError(0x050B02, "OPL_ServerCreate: Invalid mode");
    EXPECT_EQ(0x050B02u, OPL_ServerCreate(nullptr, mode, nullptr));
  }
  EXPECT_EQ(nullptr, server);
}

TEST_F(ServerObject, RefusesNullParameters) {
  OPL_Server* server = nullptr;
  EXPECT_EQ(0x050B3Au, OPL_ServerCreate(&server, 0, nullptr));
  ExpectError(0x050B3A, "OPL_ServerCreate: pServerParam == NULL");
  EXPECT_EQ(nullptr, server);
}

TEST_F(ServerObject, IsOnlyCheckedWithoutAPlaceForIt) {
  const CountedMemory memory;
  EXPECT_EQ(OPL_OK, OPL_ServerCreate(nullptr, 1, param_));
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(ServerObject, TellsWhenThereIsNoMemory) {
  OPL_Server* server = nullptr;
  const FailingMemory memory(1);
  EXPECT_EQ(0x050B01u, OPL_ServerCreate(&server, 0, param_));
  ExpectError(ENOMEM, "OPL_ServerCreate: OPL_MEMMALLOC error :12");
  EXPECT_EQ(nullptr, server);
}

TEST_F(ServerObject, MayBeNothingWhereItIsDestroyed) {
  EXPECT_EQ(OPL_OK, OPL_ServerDestroy(nullptr));
  OPL_Server* none = nullptr;
  EXPECT_EQ(OPL_OK, OPL_ServerDestroy(&none));
}

TEST_F(ServerObject, IsAskedForByEveryOperation) {
  uint32_t number = 4711;
  OPL_ServerInfo** list = nullptr;
  const auto main = [](void*, void*, void*) { return 0u; };
  EXPECT_EQ(0x050B26u, OPL_ServerStart(nullptr, nullptr, nullptr, 1));
  ExpectError(0x050B26, "OPL_ServerStart: pServer is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerStop(nullptr, 1));
  ExpectError(0x050B26, "OPL_ServerStop: pServer is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerTerminate(nullptr, 1));
  EXPECT_EQ(0x050B26u, OPL_ServerKill(nullptr, 1));
  EXPECT_EQ(0x050B26u, OPL_ServerIsStarted(nullptr, &number));
  EXPECT_EQ(0x050B26u, OPL_ServerControllerPidGet(nullptr, &number));
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGet(nullptr, &list, &number));
  EXPECT_EQ(0x050B26u, OPL_ServerSystemSpawnerPidGet(nullptr, &number));
  EXPECT_EQ(0x050B26u, OPL_ServerMain(nullptr, 0, main, nullptr, nullptr, nullptr, nullptr, &number));
  ExpectError(0x050B26, "OPL_ServerMain: pServer is NULL.");
  EXPECT_EQ(4711u, number);
}

TEST_F(ServerObject, HasOperationsThatDoNothing) {
  EXPECT_EQ(OPL_OK, OPL_ServerSetStartPending());
  EXPECT_EQ(OPL_OK, OPL_ServerSetStopPending());
  EXPECT_EQ(OPL_OK, OPL_ServerChangeDriveToBinDrive());
}

TEST(ServerBeforeBegin, RefusesEverythingButTheReleaseOfAList) {
  OPL_ServerParam* param = nullptr;
  OPL_Server* server = nullptr;
  OPL_ServerInfo** list = nullptr;
  uint32_t number = 0;
  char text[64];
  EXPECT_EQ(kStopped, OPL_ServerParamCreate(&param, 0));
  EXPECT_EQ(kStopped, OPL_ServerParamDestroy(&param));
  EXPECT_EQ(kStopped, OPL_ServerParamSet(param, 0, "text"));
  EXPECT_EQ(kStopped, OPL_ServerParamGet(param, 0, text));
  EXPECT_EQ(kStopped, OPL_ServerCreate(&server, 0, param));
  EXPECT_EQ(kStopped, OPL_ServerDestroy(&server));
  EXPECT_EQ(kStopped, OPL_ServerStart(server, nullptr, nullptr, 0));
  EXPECT_EQ(kStopped, OPL_ServerStop(server, 0));
  EXPECT_EQ(kStopped, OPL_ServerTerminate(server, 0));
  EXPECT_EQ(kStopped, OPL_ServerKill(server, 0));
  EXPECT_EQ(kStopped, OPL_ServerIsStarted(server, &number));
  EXPECT_EQ(kStopped, OPL_ServerControllerPidGet(server, &number));
  EXPECT_EQ(kStopped, OPL_ServerInfoGet(server, &list, &number));
  EXPECT_EQ(kStopped, OPL_ServerSystemSpawnerPidGet(server, &number));
  EXPECT_EQ(kStopped, OPL_ServerInfoGetUserName(nullptr, text, sizeof text));
  EXPECT_EQ(kStopped, OPL_ServerInfoGetPid(nullptr, &number));
  EXPECT_EQ(kStopped, OPL_ServerInfoGetPPid(nullptr, &number));
  EXPECT_EQ(kStopped, OPL_ServerInfoGetStartTime(nullptr, text, sizeof text));
  EXPECT_EQ(kStopped, OPL_ServerInfoGetCPUTime(nullptr, text, sizeof text));
  EXPECT_EQ(kStopped, OPL_ServerInfoGetServiceName(nullptr, text, sizeof text));
  EXPECT_EQ(kStopped, OPL_ServerMain(server, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(kStopped, OPL_ServerSetStarted());
  EXPECT_EQ(kStopped, OPL_ServerSetStartPending());
  EXPECT_EQ(kStopped, OPL_ServerSetStopPending());
  EXPECT_EQ(kStopped, OPL_ServerSetStop());
  EXPECT_EQ(kStopped, OPL_ServerTerminateIPC(0, "*"));
  EXPECT_EQ(kStopped, OPL_ServerChangeDriveToBinDrive());
  EXPECT_EQ(OPL_OK, OPL_ServerInfoDestroy(server, &list, 0));
  EXPECT_EQ(OPL_OK, OPL_ServerInfoDestroy(server, nullptr, 7));
}

}  // namespace
