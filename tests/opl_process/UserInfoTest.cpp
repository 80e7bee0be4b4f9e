// The effective user's name and id.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_UserInfo.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::Replacement;

uid_t BeRoot() { return 0; }
uid_t BeUser1000000007() { return 1000000007; }

int AnswerOperator(uid_t, struct passwd* entry, char* work, size_t, struct passwd** found) {
  entry->pw_name = std::strcpy(work, "operator");
  *found = entry;
  return 0;
}

int AnswerWhoAsks(uid_t user, struct passwd* entry, char* work, size_t size, struct passwd** found) {
  (void)std::snprintf(work, size, "user %u in %u bytes", static_cast<unsigned>(user),
                      static_cast<unsigned>(size));
  entry->pw_name = work;
  *found = entry;
  return 0;
}

int AnswerNobody(uid_t, struct passwd*, char*, size_t, struct passwd** found) {
  *found = nullptr;
  return 0;
}

// The system's own user database knows root everywhere.
TEST(UserInfoUserName, IsTheEffectiveUsers) {
  const Replacement root("geteuid", BeRoot);
  char name[64];
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserNameGet(0, name, 63));
  EXPECT_STREQ("root", name);
}

TEST(UserInfoUserName, IsLookedUpInAWorkAreaOf4096Bytes) {
  const Replacement user("geteuid", BeUser1000000007);
  const Replacement database("getpwuid_r", AnswerWhoAsks);
  char name[64];
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserNameGet(0, name, 63));
  EXPECT_STREQ("user 1000000007 in 4096 bytes", name);
}

TEST(UserInfoUserName, MayHaveAsManyCharactersAsTheSizeAndOneByteMore) {
  const Replacement root("geteuid", BeRoot);
  char name[] = "12345678";
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserNameGet(0, name, 4));
  EXPECT_EQ(std::string("root\000678", 8), std::string(name, 8));
}

class UserInfoUserNameFailing : public opltest::Instance {
 protected:
  char name_[16] = "untouched";
};

TEST_F(UserInfoUserNameFailing, RefusesANameLongerThanTheSize) {
  const Replacement database("getpwuid_r", AnswerOperator);
  EXPECT_EQ(0x050601u, OPL_UserInfoUserNameGet(0, name_, 7));
  ExpectError(0x050601, "OPL_UserInfoUserNameGet: Size too small");
  EXPECT_STREQ("untouched", name_);
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserNameGet(0, name_, 8));
  EXPECT_STREQ("operator", name_);
}

TEST_F(UserInfoUserNameFailing, RefusesASizeOfZero) {
  const Replacement database("getpwuid_r", AnswerOperator);
  EXPECT_EQ(0x050601u, OPL_UserInfoUserNameGet(0, name_, 0));
  EXPECT_STREQ("untouched", name_);
}

TEST_F(UserInfoUserNameFailing, RefusesAnotherModeUnderAnotherName) {
  EXPECT_EQ(0x050602u, OPL_UserInfoUserNameGet(1, nullptr, 0));
  ExpectError(0x050602, "OPL_UserInfoGetUSerName: Invalid Mode");
}

TEST_F(UserInfoUserNameFailing, RefusesANull) {
  EXPECT_EQ(0x050605u, OPL_UserInfoUserNameGet(0, nullptr, 15));
  ExpectError(0x050605, "OPL_UserInfoUserNameGet: pUserName is NULL");
}

TEST_F(UserInfoUserNameFailing, TellsThatTheDatabaseCannotBeRead) {
  const Fault fault("getpwuid_r", 1, ERANGE);
  EXPECT_EQ(0x050603u, OPL_UserInfoUserNameGet(0, name_, 15));
  ExpectError(ERANGE, "OPL_UserInfoGetUserName: getpwuid_r error");
  EXPECT_STREQ("untouched", name_);
}

TEST_F(UserInfoUserNameFailing, TellsThatTheUserIsUnknown) {
  const Replacement database("getpwuid_r", AnswerNobody);
  EXPECT_EQ(0x050603u, OPL_UserInfoUserNameGet(0, name_, 15));
  ExpectError(0x050603, "OPL_UserInfoGetUserName: getpwuid_r error");
  EXPECT_STREQ("untouched", name_);
}

TEST(UserInfoUserNameBeforeBegin, IsRefusedByItsOwnCodes) {
  EXPECT_EQ(0x050602u, OPL_UserInfoUserNameGet(1, nullptr, 0));
  EXPECT_EQ(0x050605u, OPL_UserInfoUserNameGet(0, nullptr, 0));
}

TEST(UserInfoUserId, IsTheEffectiveUsers) {
  uint32_t id = 77;
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserIdGet(0, &id));
  EXPECT_EQ(::geteuid(), id);
  const Replacement user("geteuid", BeUser1000000007);
  EXPECT_EQ(OPL_OK, OPL_UserInfoUserIdGet(9, &id));
  EXPECT_EQ(1000000007u, id);
}

class UserInfoUserIdFailing : public opltest::Instance {};

TEST_F(UserInfoUserIdFailing, RefusesANull) {
  EXPECT_EQ(0x050605u, OPL_UserInfoUserIdGet(0, nullptr));
  ExpectError(0x050605, "OPL_UserInfoUserIdGet: pId is NULL");
}

}  // namespace
