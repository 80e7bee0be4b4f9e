// The system's texts for its error numbers.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

constexpr uint32_t kSize = 512;

std::string TextOf(int32_t number) {
  char text[kSize];
  return OPL_ErrNativeGetErrorString(number, text, kSize);
}

TEST(ErrNativeGetErrorString, GivesTheSystemsText) {
  EXPECT_EQ("No such file or directory", TextOf(ENOENT));
  EXPECT_EQ("Invalid argument", TextOf(EINVAL));
  EXPECT_EQ("Success", TextOf(0));
}

TEST(ErrNativeGetErrorString, GivesTheSystemsTextForEveryNumber) {
  for (int number = 0; number < 140; ++number) EXPECT_EQ(std::strerror(number), TextOf(number));
}

TEST(ErrNativeGetErrorString, NamesANumberThatTheSystemDoesNotKnow) {
  EXPECT_EQ("Unknown error 99999", TextOf(99999));
  EXPECT_EQ("Unknown error -1", TextOf(-1));
  EXPECT_EQ("Unknown error -2147483648", TextOf(INT_MIN));
}

TEST(ErrNativeGetErrorString, HasATextWhereTheSystemHasNone) {
  const opltest::Fault fault("strerror_r", 1, EINVAL);
  EXPECT_EQ("Unknown system error.", TextOf(ENOENT));
}

TEST(ErrNativeGetErrorString, LeavesErrnoAloneWhereTheSystemHasNoText) {
  const opltest::Fault fault("strerror_r", 1, EINVAL);
  errno = 42;
  (void)TextOf(ENOENT);
  EXPECT_EQ(42, errno);
}

TEST(ErrNativeGetErrorString, ReturnsTheBuffer) {
  char text[kSize];
  EXPECT_EQ(text, OPL_ErrNativeGetErrorString(ENOENT, text, kSize));
}

TEST(ErrNativeGetErrorString, ReturnsNullForANullBuffer) {
  EXPECT_EQ(nullptr, OPL_ErrNativeGetErrorString(ENOENT, nullptr, kSize));
}

TEST(ErrNativeGetErrorString, LeavesABufferOfNoBytesAlone) {
  char text[] = "untouched";
  EXPECT_EQ(text, OPL_ErrNativeGetErrorString(ENOENT, text, 0));
  EXPECT_STREQ("untouched", text);
}

TEST(ErrNativeGetErrorString, EmptiesABufferOfOneByte) {
  char text[] = "xy";
  (void)OPL_ErrNativeGetErrorString(ENOENT, text, 1);
  EXPECT_EQ(std::string("\0y", 2), std::string(text, 2));
}

TEST(ErrNativeGetErrorString, CutsToSevenCharactersInABufferOfEight) {
  char text[] = "123456789";
  (void)OPL_ErrNativeGetErrorString(ENOENT, text, 8);
  EXPECT_EQ(std::string("No such\0"
                        "9",
                        9),
            std::string(text, 9));
}

TEST(ErrNativeGetErrorString, TerminatesTheLastByteBehindAShortText) {
  char text[100];
  std::memset(text, 'x', sizeof text);
  (void)OPL_ErrNativeGetErrorString(ENOENT, text, 99);
  EXPECT_STREQ("No such file or directory", text);
  EXPECT_EQ('\0', text[98]);
  EXPECT_EQ('x', text[99]);
}

TEST(ErrNativeGetErrorString, LeavesErrnoAlone) {
  errno = 42;
  (void)TextOf(99999);
  EXPECT_EQ(42, errno);
}

TEST(ErrNativeGetErrorString, ServesThreadsAtOnce) {
  opltest::RunAtOnce(8, [](int self) {
    const int32_t number = 10000 + self;
    const std::string expected = "Unknown error " + std::to_string(number);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(expected, TextOf(number));
  });
}

class ErrNativeMessageGet : public opltest::Instance {};

TEST_F(ErrNativeMessageGet, GivesTheSystemsText) {
  EXPECT_STREQ("Permission denied", OPL_ErrNativeMessageGet(0, EACCES));
}

// No text of the system's is that long today.
char* GiveALongText(int, char*, size_t) noexcept {
  static char text[601];
  std::memset(text, 't', sizeof text - 1);
  return text;
}

TEST_F(ErrNativeMessageGet, CutsTheTextTo511Characters) {
  const opltest::Replacement strerror("strerror_r", GiveALongText);
  EXPECT_EQ(std::string(511, 't'), OPL_ErrNativeMessageGet(0, EACCES));
}

TEST_F(ErrNativeMessageGet, MakesARecordWithoutAFailure) {
  opltest::InNewThread([&] {
    (void)OPL_ErrNativeMessageGet(0, EACCES);
    EXPECT_EQ(0u, OPL_ErrCodeGet(0));
    EXPECT_STREQ("", OPL_ErrMessageGet(0));
  });
}

TEST_F(ErrNativeMessageGet, ChangesNeitherCodeNorMessage) {
  (void)OPL_ErrSet(0, 5, "stays");
  (void)OPL_ErrNativeMessageGet(0, EACCES);
  EXPECT_EQ(5u, OPL_ErrCodeGet(0));
  EXPECT_STREQ("stays", OPL_ErrMessageGet(0));
}

TEST_F(ErrNativeMessageGet, KeepsItsTextOverAFailure) {
  const char* const text = OPL_ErrNativeMessageGet(0, EACCES);
  (void)OPL_ErrSet(0, 5, "%s", std::string(600, 'm').c_str());
  EXPECT_STREQ("Permission denied", text);
}

TEST_F(ErrNativeMessageGet, OverwritesItsTextAtTheNextCall) {
  const char* const text = OPL_ErrNativeMessageGet(0, EACCES);
  EXPECT_EQ(text, OPL_ErrNativeMessageGet(0, ENOENT));
  EXPECT_STREQ("No such file or directory", text);
}

TEST_F(ErrNativeMessageGet, HasATextForEachThread) {
  const char* const text = OPL_ErrNativeMessageGet(0, EACCES);
  std::thread([&] { EXPECT_NE(text, OPL_ErrNativeMessageGet(0, ENOENT)); }).join();
  EXPECT_STREQ("Permission denied", text);
}

TEST_F(ErrNativeMessageGet, RefusesAnotherMode) {
  (void)OPL_ErrNativeMessageGet(0, EACCES);
  EXPECT_STREQ("Invalid mode.", OPL_ErrNativeMessageGet(1, EACCES));
}

TEST_F(ErrNativeMessageGet, MakesNoRecordForAnotherMode) {
  opltest::InNewThread([&] {
    (void)OPL_ErrNativeMessageGet(1, EACCES);
    EXPECT_EQ(static_cast<uint32_t>(OPL_ERR_E_NO_RECORD), OPL_ErrCodeGet(0));
  });
}

TEST_F(ErrNativeMessageGet, RefusesWhenTheThreadCannotKeepARecord) {
  opltest::InNewThread([&] {
    const opltest::Fault fault("pthread_setspecific", 1, ENOMEM);
    EXPECT_STREQ("Invalid mode.", OPL_ErrNativeMessageGet(0, EACCES));
  });
}

TEST_F(ErrNativeMessageGet, LeavesErrnoAlone) {
  errno = 42;
  (void)OPL_ErrNativeMessageGet(0, 99999);
  EXPECT_EQ(42, errno);
  (void)OPL_ErrNativeMessageGet(0, EACCES);
  EXPECT_EQ(42, errno);
}

}  // namespace
