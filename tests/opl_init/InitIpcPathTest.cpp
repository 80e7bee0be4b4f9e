// The IPC directory: read from the environment once, cut to the caller's buffer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::ExpectError;

constexpr char kVariable[] = "QVOPL_IPC_PATH";

std::string Directory() {
  std::string buffer(8192, 'x');
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer.data(), static_cast<uint32_t>(buffer.size())));
  return buffer.c_str();
}

TEST(InitIpcPath, IsTmpWithoutTheVariable) {
  ASSERT_EQ(0, ::unsetenv(kVariable));
  EXPECT_EQ("/tmp", Directory());
}

TEST(InitIpcPath, IsTheVariablesValueBeforeBegin) {
  ASSERT_EQ(0, ::setenv(kVariable, "/srv/ipc", 1));
  EXPECT_EQ("/srv/ipc", Directory());
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
}

TEST(InitIpcPath, IsEmptyWithAnEmptyValue) {
  ASSERT_EQ(0, ::setenv(kVariable, "", 1));
  EXPECT_EQ("", Directory());
}

TEST(InitIpcPath, HoldsAValueOf4094Characters) {
  const std::string longest = "/" + std::string(4093, 'd');
  ASSERT_EQ(0, ::setenv(kVariable, longest.c_str(), 1));
  EXPECT_EQ(longest, Directory());
}

TEST(InitIpcPath, CutsAValueOf5000CharactersTo4094) {
  const std::string value = "/" + std::string(4092, 'd') + std::string(907, 'e');
  ASSERT_EQ(5000u, value.size());
  ASSERT_EQ(0, ::setenv(kVariable, value.c_str(), 1));
  EXPECT_EQ("/" + std::string(4092, 'd') + "e", Directory());
}

// No file's name fits behind such a directory.
TEST(InitIpcPath, LetsNothingBeginIn5000Characters) {
  ASSERT_EQ(0, ::setenv(kVariable, ("/" + std::string(4999, 'd')).c_str(), 1));
  EXPECT_EQ(0x051203u, OPL_InitBegin(0));
  ExpectError(0x051218,
              "OPL_PrivateMgmtLockDestroy: Control semaphore set is not allocated to this QVOPL session");
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
  EXPECT_EQ(0x050203u, OPL_InitEnd(0));
}

TEST(InitIpcPath, IsNotReadAgain) {
  ASSERT_EQ(0, ::setenv(kVariable, "/first", 1));
  EXPECT_EQ("/first", Directory());
  ASSERT_EQ(0, ::setenv(kVariable, "/second", 1));
  EXPECT_EQ("/first", Directory());
}

TEST(InitIpcPath, IsNotReadAgainWhenItWasNotSet) {
  ASSERT_EQ(0, ::unsetenv(kVariable));
  EXPECT_EQ("/tmp", Directory());
  ASSERT_EQ(0, ::setenv(kVariable, "/late", 1));
  EXPECT_EQ("/tmp", Directory());
}

TEST(InitIpcPath, IsReadByACallWithoutABuffer) {
  ASSERT_EQ(0, ::setenv(kVariable, "/first", 1));
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, nullptr, 0));
  ASSERT_EQ(0, ::setenv(kVariable, "/second", 1));
  EXPECT_EQ("/first", Directory());
}

TEST(InitIpcPath, IsReadByBegin) {
  const std::string directory = opltest::IpcDirectory();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(0, ::setenv(kVariable, "/late", 1));
  EXPECT_EQ(directory, Directory());
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(InitIpcPath, IsNotReadAgainAfterTheFinalEnd) {
  const std::string directory = opltest::IpcDirectory();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  ASSERT_EQ(0, ::setenv(kVariable, "/late", 1));
  EXPECT_EQ(directory, Directory());
}

TEST(InitIpcPath, LeavesABufferOfNoBytesAlone) {
  char buffer[] = "untouched";
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer, 0));
  EXPECT_STREQ("untouched", buffer);
}

TEST(InitIpcPath, EmptiesABufferOfOneByte) {
  char buffer[] = "xy";
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer, 1));
  EXPECT_EQ(std::string("\0y", 2), std::string(buffer, 2));
}

TEST(InitIpcPath, CutsToTheBuffer) {
  ASSERT_EQ(0, ::setenv(kVariable, "/srv/ipc", 1));
  char buffer[] = "123456789";
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer, 5));
  EXPECT_EQ(std::string("/srv\0006789", 9), std::string(buffer, 9));
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer, 8));
  EXPECT_STREQ("/srv/ip", buffer);
  EXPECT_EQ(OPL_OK, OPL_InitIPCPathGet(0, buffer, 9));
  EXPECT_STREQ("/srv/ipc", buffer);
}

TEST(InitIpcPath, IsOneForThreadsThatAskAtOnce) {
  ASSERT_EQ(0, ::setenv(kVariable, "/srv/ipc", 1));
  std::string answers[8];
  opltest::RunAtOnce(8, [&](int self) { answers[self] = Directory(); });
  for (const std::string& answer : answers) EXPECT_EQ("/srv/ipc", answer);
}

TEST(InitIpcPath, RefusesAnotherModeBeforeBegin) {
  char buffer[] = "untouched";
  EXPECT_EQ(0x050202u, OPL_InitIPCPathGet(1, buffer, sizeof buffer));
  EXPECT_STREQ("untouched", buffer);
}

class InitIpcPathBegun : public opltest::Instance {};

TEST_F(InitIpcPathBegun, NamesAModeThatItRefuses) {
  char buffer[] = "untouched";
  EXPECT_EQ(0x050202u, OPL_InitIPCPathGet(3000000000u, buffer, sizeof buffer));
  EXPECT_STREQ("untouched", buffer);
  ExpectError(0x050202, "OPL_InitIPCPathGet: Invalid mode 3000000000");
}

TEST_F(InitIpcPathBegun, IsTheVariablesValue) { EXPECT_EQ(opltest::IpcDirectory(), Directory()); }

}  // namespace
