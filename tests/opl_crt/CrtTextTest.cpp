// Text functions and random numbers. The library is not begun in these tests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "OPL_Crt.h"

namespace {

TEST(CrtStrCaseCmp, FindsTextsEqualWhateverTheirCase) {
  EXPECT_EQ(0, OPL_CrtStrCaseCmp("Hello World", "hELLO wORLD"));
  EXPECT_EQ(0, OPL_CrtStrCaseCmp("", ""));
}

TEST(CrtStrCaseCmp, TellsTheOrderOfUnequalTexts) {
  EXPECT_GT(0, OPL_CrtStrCaseCmp("abc", "ABD"));
  EXPECT_LT(0, OPL_CrtStrCaseCmp("ABD", "abc"));
  EXPECT_GT(0, OPL_CrtStrCaseCmp("ab", "ABC"));
  EXPECT_LT(0, OPL_CrtStrCaseCmp("a", ""));
}

TEST(CrtStrNCaseCmp, ComparesTheFirstCharactersOnly) {
  EXPECT_EQ(0, OPL_CrtStrNCaseCmp("HelloX", "hELLOy", 5));
  EXPECT_GT(0, OPL_CrtStrNCaseCmp("HelloX", "hELLOy", 6));
  EXPECT_LT(0, OPL_CrtStrNCaseCmp("HelloY", "hELLOx", 6));
}

TEST(CrtStrNCaseCmp, FindsTextsEqualWithALengthOfZero) { EXPECT_EQ(0, OPL_CrtStrNCaseCmp("a", "b", 0)); }

TEST(CrtStrNCaseCmp, StopsAtTheEndOfTheTexts) {
  EXPECT_EQ(0, OPL_CrtStrNCaseCmp("abc", "ABC", 1000));
  EXPECT_GT(0, OPL_CrtStrNCaseCmp("ab", "ABC", 1000));
}

TEST(CrtStrTok, CutsATextAtItsDelimiters) {
  char text[] = ",,one, two;;three,";
  char* save = nullptr;
  std::vector<std::string> tokens;
  for (char* token = OPL_CrtStrTok(text, ",; ", &save); token != nullptr;
       token = OPL_CrtStrTok(nullptr, ",; ", &save))
    tokens.push_back(token);
  EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), tokens);
}

TEST(CrtStrTok, KeepsTwoWalksApart) {
  char first[] = "a b";
  char second[] = "c d";
  char* saveFirst = nullptr;
  char* saveSecond = nullptr;
  EXPECT_STREQ("a", OPL_CrtStrTok(first, " ", &saveFirst));
  EXPECT_STREQ("c", OPL_CrtStrTok(second, " ", &saveSecond));
  EXPECT_STREQ("b", OPL_CrtStrTok(nullptr, " ", &saveFirst));
  EXPECT_STREQ("d", OPL_CrtStrTok(nullptr, " ", &saveSecond));
}

TEST(CrtStrTok, FindsNothingInDelimitersAlone) {
  char text[] = " ;; ";
  char* save = nullptr;
  EXPECT_EQ(nullptr, OPL_CrtStrTok(text, " ;", &save));
}

TEST(CrtRand, FollowsTheSystemsSequence) {
  uint32_t ours = 4711;
  unsigned theirs = 4711;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(::rand_r(&theirs), OPL_CrtRand(&ours));
    EXPECT_EQ(theirs, ours);
  }
}

TEST(CrtRand, GivesTheSameForTheSameSeed) {
  uint32_t first = 1;
  uint32_t second = 1;
  EXPECT_EQ(OPL_CrtRand(&first), OPL_CrtRand(&second));
  EXPECT_EQ(first, second);
  EXPECT_NE(1u, first);
}

}  // namespace
