// Moving the times of IPC files into the year 2036.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Fault;

// "2036-02-29 12:34:56", in local time.
std::string Local(time_t time) {
  struct tm brokenDown {};
  char text[64];
  if (::localtime_r(&time, &brokenDown) == nullptr) return "?";
  (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &brokenDown);
  return text;
}

time_t FromLocal(const char* text) {
  struct tm brokenDown {};
  EXPECT_NE(nullptr, ::strptime(text, "%Y-%m-%d %H:%M:%S", &brokenDown)) << text;
  brokenDown.tm_isdst = -1;
  return std::mktime(&brokenDown);
}

void SetZone(const char* zone) {
  ASSERT_EQ(0, ::setenv("TZ", zone, 1));
  ::tzset();
}

void SetTimes(const std::string& path, time_t access, time_t modification) {
  const timespec times[] = {{access, 0}, {modification, 0}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status));
  return status;
}

std::string AccessTime(const std::string& path) { return Local(StatusOf(path).st_atime); }
std::string ModificationTime(const std::string& path) { return Local(StatusOf(path).st_mtime); }

constexpr char kEurope[] = "CET-1CEST,M3.5.0,M10.5.0/3";

// Needs no begun library.
class PrivateSetAccessTimeInFuture : public ::testing::Test {
 protected:
  void SetUp() override { opltest::WriteFile(file_, "text"); }

  // What becomes of a modification time; the access time is left at another value.
  std::string Moved(const char* before) {
    SetTimes(file_, FromLocal("2001-01-15 01:02:03"), FromLocal(before));
    EXPECT_EQ(OPL_OK, OPL_PrivateSetAccessTimeInFuture(file_.c_str()));
    EXPECT_EQ("2036-01-15 01:02:03", AccessTime(file_));
    return ModificationTime(file_);
  }

  const std::string file_ = opltest::WorkDirectory() + "/file";
};

TEST_F(PrivateSetAccessTimeInFuture, KeepsMonthDayAndTimeOfDay) {
  for (const char* zone : {"UTC0", kEurope, "<+1245>-12:45", "<-11>11", "PST8PDT,M3.2.0,M11.1.0"}) {
    SCOPED_TRACE(zone);
    SetZone(zone);
    EXPECT_EQ("2036-06-07 08:09:10", Moved("2004-06-07 08:09:10"));
    EXPECT_EQ("2036-11-30 23:59:59", Moved("1999-11-30 23:59:59"));
    EXPECT_EQ("2036-01-01 00:00:00", Moved("2020-01-01 00:00:00"));
    EXPECT_EQ("2036-12-31 23:59:59", Moved("2025-12-31 23:59:59"));
  }
}

TEST_F(PrivateSetAccessTimeInFuture, HasA29thOfFebruary) {
  SetZone("UTC0");
  EXPECT_EQ("2036-02-29 12:34:56", Moved("2024-02-29 12:34:56"));
}

TEST_F(PrivateSetAccessTimeInFuture, KeepsTheTimeOfDayWhereSummerTimeBeginsOnAnotherDay) {
  SetZone(kEurope);
  // Summer time from 28 March in 2027 and from 30 March in 2036, to 31 October in 2027, to 26 in 2036.
  EXPECT_EQ("2036-03-29 12:00:00", Moved("2027-03-29 12:00:00"));
  EXPECT_EQ("2036-10-28 12:00:00", Moved("2027-10-28 12:00:00"));
}

TEST_F(PrivateSetAccessTimeInFuture, MovesATimeBehind2036BackIntoIt) {
  SetZone("UTC0");
  EXPECT_EQ("2036-05-06 07:08:09", Moved("2037-05-06 07:08:09"));
}

TEST_F(PrivateSetAccessTimeInFuture, LeavesATimeIn2036) {
  for (const char* zone : {"UTC0", kEurope, "<+14>-14"}) {
    SetZone(zone);
    for (const char* time : {"2036-01-01 00:00:00", "2036-02-29 01:02:03", "2036-07-08 09:10:11"})
      EXPECT_EQ(time, Moved(time));
  }
}

TEST_F(PrivateSetAccessTimeInFuture, WorksBeforeTheLibraryIsBegun) {
  SetZone("UTC0");
  ASSERT_EQ(OPL_INIT_E_STOPPED, OPL_InitIsStopped(0));
  EXPECT_EQ("2036-06-07 08:09:10", Moved("2004-06-07 08:09:10"));
}

TEST_F(PrivateSetAccessTimeInFuture, DoesNothingToAFileThatIsMissing) {
  EXPECT_EQ(OPL_OK, OPL_PrivateSetAccessTimeInFuture("missing"));
  EXPECT_NE(0, ::access("missing", F_OK));
}

TEST_F(PrivateSetAccessTimeInFuture, SucceedsWhenTheFileCannotBeLookedAt) {
  const time_t before = StatusOf(file_).st_mtime;
  const Fault fault("stat64", 1, EACCES);
  EXPECT_EQ(OPL_OK, OPL_PrivateSetAccessTimeInFuture(file_.c_str()));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(before, StatusOf(file_).st_mtime);
}

TEST_F(PrivateSetAccessTimeInFuture, LeavesTheContentsAlone) {
  EXPECT_EQ(OPL_OK, OPL_PrivateSetAccessTimeInFuture(file_.c_str()));
  EXPECT_EQ("text", opltest::ContentsOf(file_));
}

class PrivateObjectFileTimes : public opltest::Instance {
 protected:
  const std::string file_ = opltest::IpcDirectory() + "/object";
  const uint16_t one_[1] = {1};

  void ExpectFuture(time_t madeFrom, time_t madeTo) const {
    const struct stat status = StatusOf(file_);
    for (const time_t time : {status.st_atime, status.st_mtime}) {
      const std::string moved = Local(time);
      EXPECT_EQ("2036", moved.substr(0, 4));
      // The test may run over a second's end.
      bool matches = false;
      for (time_t made = madeFrom; made <= madeTo; ++made)
        matches |= Local(made).substr(4) == moved.substr(4);
      EXPECT_TRUE(matches) << moved;
    }
  }
  void SetBack() const {
    SetTimes(file_, FromLocal("2004-06-07 08:09:10"), FromLocal("2005-06-07 08:09:10"));
  }
  void ExpectMoved() const {
    EXPECT_EQ("2036-06-07 08:09:10", AccessTime(file_));
    EXPECT_EQ("2036-06-07 08:09:10", ModificationTime(file_));
  }
};

TEST_F(PrivateObjectFileTimes, LieIn2036AfterACreationOfASet) {
  const time_t from = std::time(nullptr) - 1;
  int32_t id = -1;
  ASSERT_EQ(OPL_OK, OPL_PrivateSemIdCreate(file_.c_str(), 0600, 0600, 1, one_, &id));
  ExpectFuture(from, std::time(nullptr));
  EXPECT_EQ(OPL_OK, OPL_PrivateSemIdDestroy(file_.c_str()));
}

TEST_F(PrivateObjectFileTimes, LieIn2036AfterASetIsFound) {
  int32_t id = -1;
  ASSERT_EQ(OPL_OK, OPL_PrivateSemIdCreate(file_.c_str(), 0600, 0600, 1, one_, &id));
  SetBack();
  ASSERT_EQ(OPL_OK, OPL_PrivateSemIdGet(file_.c_str(), &id));
  ExpectMoved();
  ASSERT_EQ(OPL_OK, OPL_PrivateSemIdGet(file_.c_str(), &id));
  ExpectMoved();
  EXPECT_EQ(OPL_OK, OPL_PrivateSemIdDestroy(file_.c_str()));
}

TEST_F(PrivateObjectFileTimes, LieIn2036AfterCreatingOpeningAndClosingASegment) {
  const time_t from = std::time(nullptr) - 1;
  void* address = nullptr;
  ASSERT_EQ(OPL_OK, OPL_PrivateShMemCreate(file_.c_str(), 0600, 100, 0600, &address));
  ExpectFuture(from, std::time(nullptr));
  SetBack();
  void* second = nullptr;
  ASSERT_EQ(OPL_OK, OPL_PrivateShMemOpen(file_.c_str(), &second));
  ExpectMoved();
  SetBack();
  EXPECT_EQ(OPL_OK, OPL_PrivateShMemClose(file_.c_str(), second, 0));
  ExpectMoved();
  EXPECT_EQ(OPL_OK, OPL_PrivateShMemClose(file_.c_str(), address, 1));
}

TEST_F(PrivateObjectFileTimes, LieIn2036ForTheManagementFile) {
  const std::string file = opltest::IpcDirectory() + "/QVOPL.mgmt." + opltest::InstanceString() + ".006.021";
  EXPECT_EQ("2036", ModificationTime(file).substr(0, 4));
  EXPECT_EQ("2036", AccessTime(file).substr(0, 4));
}

}  // namespace
