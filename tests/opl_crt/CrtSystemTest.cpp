// The system at large: limits, allocator statistics, System V keys and commands.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ContentsOf;
using opltest::Fault;
using opltest::Replacement;
using opltest::WriteFile;

TEST(CrtSysConf, TellsWhatTheSystemTells) {
  EXPECT_EQ(::sysconf(_SC_PAGESIZE), OPL_CrtSysConf(_SC_PAGESIZE));
  EXPECT_EQ(::sysconf(_SC_OPEN_MAX), OPL_CrtSysConf(_SC_OPEN_MAX));
}

TEST(CrtSysConf, FailsForAnUnknownName) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtSysConf(99999));
  EXPECT_EQ(EINVAL, errno);
}

// Under a sanitizer the system's statistics tell of no allocation.
TEST(CrtMallInfo, TellsWhatTheSystemTells) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  const struct mallinfo theirs = ::mallinfo();
#pragma GCC diagnostic pop
  const struct mallinfo ours = OPL_CrtMallInfo();
  EXPECT_EQ(theirs.arena, ours.arena);
  EXPECT_EQ(theirs.hblks, ours.hblks);
  EXPECT_EQ(theirs.hblkhd, ours.hblkhd);
  EXPECT_EQ(theirs.uordblks, ours.uordblks);
  EXPECT_EQ(theirs.fordblks, ours.fordblks);
}

// OPL_CrtFtok

TEST(CrtFtok, MakesTheKeyOfFileAndProject) {
  WriteFile("file", "");
  struct stat64 status {};
  ASSERT_EQ(0, ::stat64("file", &status));
  const auto expected =
      static_cast<int32_t>((status.st_ino & 0xFFFF) | (status.st_dev & 0xFF) << 16 | 0x41u << 24);
  EXPECT_EQ(expected, OPL_CrtFtok("file", 0x41));
}

TEST(CrtFtok, GivesTheSystemsKey) {
  WriteFile("file", "");
  EXPECT_EQ(::ftok("file", 1), OPL_CrtFtok("file", 1));
  EXPECT_EQ(::ftok("file", 255), OPL_CrtFtok("file", 255));
  EXPECT_EQ(::ftok("file", -1), OPL_CrtFtok("file", UINT32_MAX));
}

TEST(CrtFtok, TakesAProjectWhoseLowByteIsZero) {
  WriteFile("file", "");
  EXPECT_EQ(::ftok("file", 256), OPL_CrtFtok("file", 256));
}

TEST(CrtFtok, RefusesProjectZeroForAnExistingFileWithoutAskingTheSystem) {
  WriteFile("file", "");
  Fault stat("stat64", 1, EIO);
  Fault ftok("ftok", 1, EIO);
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtFtok("file", 0));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_FALSE(stat.Fired());
  EXPECT_FALSE(ftok.Fired());
}

TEST(CrtFtok, RefusesProjectZeroForAMissingFile) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtFtok("missing", 0));
  EXPECT_EQ(EINVAL, errno);
}

TEST(CrtFtok, FailsForAMissingFileWithoutAskingForAKey) {
  Fault ftok("ftok", 1, EIO);
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtFtok("missing", 1));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(ftok.Fired());
}

TEST(CrtFtok, FailsWhenTheKeyFails) {
  WriteFile("file", "");
  Fault ftok("ftok", 1, EIO);
  EXPECT_EQ(-1, OPL_CrtFtok("file", 1));
  EXPECT_EQ(EIO, errno);
  EXPECT_TRUE(ftok.Fired());
}

// OPL_CrtSystem

struct Outcome {
  uint32_t kind = 99;
  int32_t value = 99;
};

TEST(CrtSystem, TellsTheExitStatus) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("exit 3", &outcome.kind, &outcome.value));
  EXPECT_EQ(1u, outcome.kind);
  EXPECT_EQ(3, outcome.value);
}

TEST(CrtSystem, TellsSuccess) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("true", &outcome.kind, &outcome.value));
  EXPECT_EQ(static_cast<uint32_t>(OPL_CRT_SYSTEM_EXITED), outcome.kind);
  EXPECT_EQ(0, outcome.value);
}

TEST(CrtSystem, TellsTheLargestExitStatus) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("exit 255", &outcome.kind, &outcome.value));
  EXPECT_EQ(1u, outcome.kind);
  EXPECT_EQ(255, outcome.value);
}

TEST(CrtSystem, TellsTheSignalThatEndedTheCommand) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("kill -9 $$", &outcome.kind, &outcome.value));
  EXPECT_EQ(2u, outcome.kind);
  EXPECT_EQ(SIGKILL, outcome.value);
}

TEST(CrtSystem, TellsTheStatusOfTheShellThatFindsNoCommand) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("./missing 2>&1", &outcome.kind, &outcome.value));
  EXPECT_EQ(1u, outcome.kind);
  EXPECT_EQ(127, outcome.value);
}

TEST(CrtSystem, RunsTheCommandInTheShell) {
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("echo $((6 * 7)) > answer", nullptr, nullptr));
  EXPECT_EQ("42\n", ContentsOf("answer"));
}

TEST(CrtSystem, TakesNullPlaces) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("exit 3", nullptr, &outcome.value));
  EXPECT_EQ(3, outcome.value);
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("exit 3", &outcome.kind, nullptr));
  EXPECT_EQ(1u, outcome.kind);
}

// The system's answer that there is a shell, 1, reads like the end by signal 1.
TEST(CrtSystem, OfNullAsksForTheShell) {
  Outcome outcome;
  EXPECT_EQ(OPL_OK, OPL_CrtSystem(nullptr, &outcome.kind, &outcome.value));
  EXPECT_EQ(2u, outcome.kind);
  EXPECT_EQ(1, outcome.value);
}

constexpr int kStoppedByTstp = 0x147F;

TEST(CrtSystem, TellsMinusOneForACommandThatNeitherExitedNorWasEnded) {
  Outcome outcome;
  Replacement system(
      "system", +[](const char*) { return kStoppedByTstp; });
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("true", &outcome.kind, &outcome.value));
  EXPECT_EQ(0u, outcome.kind);
  EXPECT_EQ(-1, outcome.value);
}

TEST(CrtSystem, ReturnsItsCodeWhenTheLibraryIsNotBegun) {
  Outcome outcome;
  Fault fault("system", 1, EAGAIN);
  EXPECT_EQ(0x051002u, OPL_CrtSystem("true", &outcome.kind, &outcome.value));
  EXPECT_EQ(99u, outcome.kind);
  EXPECT_EQ(99, outcome.value);
  EXPECT_STREQ("No message available.", OPL_ErrMessageGet(0));
}

TEST(CrtSystem, FailsWithNullPlaces) {
  Fault fault("system", 1, EAGAIN);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_CRT_E_SYSTEM), OPL_CrtSystem("true", nullptr, nullptr));
}

class CrtSystemRecord : public opltest::Instance {};

TEST_F(CrtSystemRecord, HoldsTheErrorNumberAndText) {
  Outcome outcome;
  Fault fault("system", 1, EAGAIN);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_CRT_E_SYSTEM), OPL_CrtSystem("true", &outcome.kind, &outcome.value));
  EXPECT_EQ(static_cast<uint32_t>(EAGAIN), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtSystem: system() failed with errno 11 (Resource temporarily unavailable).",
               OPL_ErrMessageGet(0));
  EXPECT_EQ(99u, outcome.kind);
  EXPECT_EQ(99, outcome.value);
}

TEST_F(CrtSystemRecord, IsLeftAloneByACommandThatFails) {
  (void)OPL_ErrSet(0, 77, "before");
  EXPECT_EQ(OPL_OK, OPL_CrtSystem("exit 3", nullptr, nullptr));
  EXPECT_EQ(77u, OPL_ErrCodeGet(0));
  EXPECT_STREQ("before", OPL_ErrMessageGet(0));
}

}  // namespace
