// The instance string and the version texts.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Program.h"
#include "tests/support/Threads.h"

namespace {

TEST(InitInstanceString, IsTheHostProgramsBeforeBegin) {
  EXPECT_EQ(opltest::InstanceString(), OPL_InitInstanceStringGet());
}

TEST(InitInstanceString, IsTheSameTextBeforeAndAfterBegin) {
  const char* const before = OPL_InitInstanceStringGet();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(before, OPL_InitInstanceStringGet());
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(before, OPL_InitInstanceStringGet());
}

TEST(InitInstanceString, IsAskedForOnce) {
  const char* const first = OPL_InitInstanceStringGet();
  const std::string text = first;
  ASSERT_EQ(0, ::setenv("QVOPL_TEST_INSTANCE", "another", 1));
  EXPECT_EQ(first, OPL_InitInstanceStringGet());
  EXPECT_EQ(text, first);
}

TEST(InitInstanceString, IsOneForThreadsThatAskAtOnce) {
  const char* answers[8];
  opltest::RunAtOnce(8, [&](int self) { answers[self] = OPL_InitInstanceStringGet(); });
  for (const char* const answer : answers) EXPECT_EQ(answers[0], answer);
  EXPECT_EQ(opltest::InstanceString(), answers[0]);
}

TEST(InitInstanceString, IsNullWhileTheHostProgramReturnsNull) {
  const std::string instance = opltest::InstanceString();
  ASSERT_EQ(0, ::unsetenv("QVOPL_TEST_INSTANCE"));
  EXPECT_EQ(nullptr, OPL_InitInstanceStringGet());
  ASSERT_EQ(0, ::setenv("QVOPL_TEST_INSTANCE", instance.c_str(), 1));
  EXPECT_EQ(instance, OPL_InitInstanceStringGet());
}

TEST(InitInstanceString, IsNullWhileTheProcessCannotBeLookedAt) {
  const opltest::Fault fault("dlopen", 1, ENOMEM);
  EXPECT_EQ(nullptr, OPL_InitInstanceStringGet());
  EXPECT_EQ(opltest::InstanceString(), OPL_InitInstanceStringGet());
}

TEST(InitInstanceString, RefusesToBeginWhileItIsNull) {
  const std::string instance = opltest::InstanceString();
  ASSERT_EQ(0, ::unsetenv("QVOPL_TEST_INSTANCE"));
  EXPECT_EQ(0x05020Bu, OPL_InitBegin(0));
  EXPECT_EQ(0x05020B, OPL_INIT_E_NO_INSTANCE);
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
  EXPECT_EQ(0x050203u, OPL_InitEnd(0));

  ASSERT_EQ(0, ::setenv("QVOPL_TEST_INSTANCE", instance.c_str(), 1));
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
}

TEST(InitInstanceString, RefusesToBeginWhileTheProcessCannotBeLookedAt) {
  const opltest::Fault fault("dlopen", 1, ENOMEM);
  EXPECT_EQ(0x05020Bu, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

// What a program without a name for its instance gets in that second, as that user.
std::string Made(const std::string& seconds, const std::string& user) {
  return opltest::OutputOf(QVOPL_TEST_PROGRAMS "/InstanceProgram", {seconds, user});
}

TEST(InitInstanceStringMade, ComesFromTheSecondAndTheUser) {
  EXPECT_EQ("PRIVATE.52894.operator", Made("1000000000", "operator"));
  EXPECT_EQ("PRIVATE.1875.operator", Made("1000000001", "operator"));
  EXPECT_EQ("PRIVATE.30.root", Made("0", "root"));
  EXPECT_EQ("PRIVATE.36468.root", Made("2147483646", "root"));
}

TEST(InitInstanceStringMade, IsTheSameForTwoProcessesOfOneSecond) {
  EXPECT_EQ(Made("1076000000", "operator"), Made("1076000000", "operator"));
}

TEST(InitInstanceStringMade, FollowsTheSecondAsTheRandomNumberDoes) {
  for (unsigned second = 1700000000; second < 1700000005; ++second) {
    unsigned seed = second;
    const auto number = static_cast<unsigned>(::rand_r(&seed) / 2147483647.0 * 65535.0) & 0xFFFFu;
    EXPECT_EQ("PRIVATE." + std::to_string(number) + ".u", Made(std::to_string(second), "u"));
  }
}

TEST(InitInstanceStringMade, NamesAnUnknownUser) {
  EXPECT_EQ("PRIVATE.52894.UNKNOWN", Made("1000000000", "-"));
}

TEST(InitInstanceStringMade, HoldsALoginNameOf64Characters) {
  const std::string user(64, 'u');
  EXPECT_EQ("PRIVATE.52894." + user, Made("1000000000", user));
}

TEST(InitInstanceStringMade, TakesALongerLoginNameAsUnknown) {
  EXPECT_EQ("PRIVATE.52894.UNKNOWN", Made("1000000000", std::string(65, 'u')));
}

TEST(InitInstanceStringMade, YieldsToALibraryOfTheGlobalScope) {
  EXPECT_EQ("named.by.a.library",
            opltest::OutputOf(QVOPL_TEST_PROGRAMS "/InstanceProgram",
                              {"1000000000", "operator", QVOPL_TEST_PROGRAMS "/libInstanceHook.so"}));
}

TEST(InitVersion, IsPartOfFileNames) {
  EXPECT_STREQ("006.021", OPL_InitBuildVersionStringGet(0));
  EXPECT_EQ(nullptr, OPL_InitBuildVersionStringGet(1));
  EXPECT_EQ(nullptr, OPL_InitBuildVersionStringGet(0xFFFFFFFF));
}

TEST(InitVersion, HasABanner) {
  EXPECT_STREQ("\nTalvenMeridianLibrary:qvopl version:006.021.4036.0 date:20040205\n", GetQvoplFullVerID());
}

}  // namespace
