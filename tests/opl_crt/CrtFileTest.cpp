// Files and descriptors: each function does what its system call does, for large files too. The library is
// not begun in these tests but for those that read a message.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

constexpr int64_t kThreeGigabytes = 3221225472;
constexpr int64_t kFiveGigabytes = 5368709120;
constexpr char kMissing[] = "missing";

mode_t ModeOf(const char* path) {
  struct stat64 status {};
  EXPECT_EQ(0, ::stat64(path, &status));
  return status.st_mode & 07777;
}

int64_t SizeOf(const char* path) {
  struct stat64 status {};
  EXPECT_EQ(0, ::stat64(path, &status));
  return status.st_size;
}

// The largest file of these tests has no contents and takes no room.
void MakeSparse(const char* path, int64_t size) {
  WriteFile(path, "");
  ASSERT_EQ(0, ::truncate64(path, size));
}

// OPL_CrtOpen

TEST(CrtOpen, OpensAFile) {
  WriteFile("file", "text");
  const int32_t fd = OPL_CrtOpen("file", O_RDONLY, 0);
  ASSERT_LE(0, fd);
  char buffer[5] = "";
  EXPECT_EQ(4, ::read(fd, buffer, 4));
  EXPECT_STREQ("text", buffer);
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtOpen, PassesTheFlags) {
  WriteFile("file", "text");
  const int32_t fd = OPL_CrtOpen("file", O_WRONLY | O_APPEND | O_CLOEXEC, 0);
  ASSERT_LE(0, fd);
  EXPECT_EQ(O_WRONLY | O_APPEND, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtOpen, MakesAFileOfTheModeWithCreat) {
  (void)::umask(0);
  const int32_t fd = OPL_CrtOpen("new", O_WRONLY | O_CREAT, 0631);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0631u, ModeOf("new"));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtOpen, LeavesTheModeToTheUmask) {
  (void)::umask(027);
  const int32_t fd = OPL_CrtOpen("new", O_WRONLY | O_CREAT, 0666);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0640u, ModeOf("new"));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtOpen, IgnoresTheModeWithoutCreat) {
  WriteFile("file", "text");
  ASSERT_EQ(0, ::chmod("file", 0600));
  const int32_t fd = OPL_CrtOpen("file", O_RDONLY, 0777);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0600u, ModeOf("file"));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtOpen, LeavesTheModeOfAnExistingFileAloneWithCreat) {
  WriteFile("file", "text");
  ASSERT_EQ(0, ::chmod("file", 0600));
  const int32_t fd = OPL_CrtOpen("file", O_RDONLY | O_CREAT, 0777);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0600u, ModeOf("file"));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtOpen, FailsForAMissingFileWithoutCreat) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtOpen(kMissing, O_RDONLY, 0666));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, ::access(kMissing, F_OK));
}

TEST(CrtOpen, FailsForAnExistingFileWithExclusiveCreat) {
  WriteFile("file", "text");
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtOpen("file", O_RDWR | O_CREAT | O_EXCL, 0666));
  EXPECT_EQ(EEXIST, errno);
}

TEST(CrtOpen, DoesNotRepeatAnInterruptedCall) {
  WriteFile("file", "text");
  Fault fault("open64", 1, EINTR);
  EXPECT_EQ(-1, OPL_CrtOpen("file", O_RDONLY, 0));
  EXPECT_EQ(EINTR, errno);
  EXPECT_EQ(1, fault.Calls());
}

TEST(CrtOpen, OpensALargeFile) {
  MakeSparse("large", kThreeGigabytes);
  const int32_t fd = OPL_CrtOpen("large", O_RDONLY, 0);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0, ::close(fd));
}

// OPL_CrtClose, OPL_CrtCreat, OPL_CrtDup, OPL_CrtPipe

TEST(CrtClose, ClosesTheDescriptor) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0, OPL_CrtClose(fd));
  EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
}

TEST(CrtClose, FailsForWhatIsNotOpen) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtClose(-1));
  EXPECT_EQ(EBADF, errno);
}

TEST(CrtCreat, MakesAFileOfTheModeForWriting) {
  (void)::umask(0);
  const int32_t fd = OPL_CrtCreat("new", 0624);
  ASSERT_LE(0, fd);
  EXPECT_EQ(0624u, ModeOf("new"));
  EXPECT_EQ(O_WRONLY, ::fcntl(fd, F_GETFL) & O_ACCMODE);
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtCreat, EmptiesAnExistingFile) {
  WriteFile("file", "text");
  const int32_t fd = OPL_CrtCreat("file", 0600);
  ASSERT_LE(0, fd);
  EXPECT_EQ("", ContentsOf("file"));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtCreat, MakesAFileThatCanGrowLarge) {
  const int32_t fd = OPL_CrtCreat("large", 0600);
  ASSERT_LE(0, fd);
  EXPECT_EQ(kThreeGigabytes, OPL_CrtLSeek(fd, kThreeGigabytes, SEEK_SET));
  EXPECT_EQ(1, ::write(fd, "x", 1));
  EXPECT_EQ(kThreeGigabytes + 1, SizeOf("large"));
  EXPECT_EQ(0, ::close(fd));
}

TEST(CrtCreat, FailsWithoutItsDirectory) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtCreat("missing/new", 0600));
  EXPECT_EQ(ENOENT, errno);
}

TEST(CrtDup, GivesASecondDescriptorOfTheSameFile) {
  WriteFile("file", "text");
  const int fd = ::open("file", O_RDONLY | O_CLOEXEC);
  const int32_t second = OPL_CrtDup(fd);
  ASSERT_LE(0, second);
  EXPECT_NE(fd, second);
  EXPECT_EQ(2, ::lseek(fd, 2, SEEK_SET));
  EXPECT_EQ(2, ::lseek(second, 0, SEEK_CUR));
  EXPECT_EQ(0, ::close(fd));
  EXPECT_EQ(0, ::close(second));
}

TEST(CrtDup, FailsForWhatIsNotOpen) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtDup(-1));
  EXPECT_EQ(EBADF, errno);
}

TEST(CrtPipe, GivesTheReadingAndTheWritingEnd) {
  int32_t fds[2] = {-1, -1};
  ASSERT_EQ(0, OPL_CrtPipe(fds));
  char buffer[4] = "";
  EXPECT_EQ(3, ::write(fds[1], "abc", 3));
  EXPECT_EQ(3, ::read(fds[0], buffer, 3));
  EXPECT_STREQ("abc", buffer);
  EXPECT_EQ(0, ::close(fds[0]));
  EXPECT_EQ(0, ::close(fds[1]));
}

TEST(CrtPipe, FailsWithoutDescriptors) {
  struct rlimit limit {};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
  const struct rlimit none = {0, limit.rlim_max};
  int32_t fds[2] = {-1, -1};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  const int32_t result = OPL_CrtPipe(fds);
  const int error = errno;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  EXPECT_EQ(-1, result);
  EXPECT_EQ(EMFILE, error);
}

// OPL_CrtLSeek

class CrtLSeek : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeSparse("large", kFiveGigabytes);
    fd_ = OPL_CrtOpen("large", O_RDWR, 0);
    ASSERT_LE(0, fd_);
  }
  void TearDown() override { EXPECT_EQ(0, OPL_CrtClose(fd_)); }

  int32_t fd_ = -1;
};

TEST_F(CrtLSeek, SetsAPlaceBeyondFourGigabytes) {
  EXPECT_EQ(4294967297, OPL_CrtLSeek(fd_, 4294967297, SEEK_SET));
  EXPECT_EQ(4294967297, OPL_CrtLSeek(fd_, 0, SEEK_CUR));
}

TEST_F(CrtLSeek, GoesOnFromThePlace) {
  EXPECT_EQ(kThreeGigabytes, OPL_CrtLSeek(fd_, kThreeGigabytes, SEEK_SET));
  EXPECT_EQ(2 * kThreeGigabytes, OPL_CrtLSeek(fd_, kThreeGigabytes, SEEK_CUR));
  EXPECT_EQ(0, OPL_CrtLSeek(fd_, -2 * kThreeGigabytes, SEEK_CUR));
}

TEST_F(CrtLSeek, GoesBackFromTheEnd) {
  EXPECT_EQ(kFiveGigabytes, OPL_CrtLSeek(fd_, 0, SEEK_END));
  EXPECT_EQ(kFiveGigabytes - kThreeGigabytes, OPL_CrtLSeek(fd_, -kThreeGigabytes, SEEK_END));
}

TEST_F(CrtLSeek, WritesWhereItWasSet) {
  EXPECT_EQ(4294967296, OPL_CrtLSeek(fd_, 4294967296, SEEK_SET));
  EXPECT_EQ(4, ::write(fd_, "here", 4));
  char buffer[5] = "";
  EXPECT_EQ(4, ::pread64(fd_, buffer, 4, 4294967296));
  EXPECT_STREQ("here", buffer);
}

TEST_F(CrtLSeek, FailsBeforeTheStart) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtLSeek(fd_, -1, SEEK_SET));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(CrtLSeek, FailsForAnUnknownWhence) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtLSeek(fd_, 0, 99));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(CrtLSeek, FailsOnAPipe) {
  int32_t fds[2];
  ASSERT_EQ(0, OPL_CrtPipe(fds));
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtLSeek(fds[0], 0, SEEK_CUR));
  EXPECT_EQ(ESPIPE, errno);
  EXPECT_EQ(0, OPL_CrtClose(fds[0]));
  EXPECT_EQ(0, OPL_CrtClose(fds[1]));
}

// OPL_CrtUTime

TEST(CrtUTime, SetsBothTimes) {
  WriteFile("file", "");
  const struct utimbuf times = {1000000000, 1076000000};
  EXPECT_EQ(0, OPL_CrtUTime("file", &times));
  struct stat64 status {};
  ASSERT_EQ(0, ::stat64("file", &status));
  EXPECT_EQ(1000000000, status.st_atime);
  EXPECT_EQ(1076000000, status.st_mtime);
}

TEST(CrtUTime, TakesNullForNow) {
  WriteFile("file", "");
  const struct utimbuf times = {1, 1};
  ASSERT_EQ(0, OPL_CrtUTime("file", &times));
  EXPECT_EQ(0, OPL_CrtUTime("file", nullptr));
  struct stat64 status {};
  ASSERT_EQ(0, ::stat64("file", &status));
  EXPECT_LT(1000000000, status.st_atime);
  EXPECT_EQ(status.st_atime, status.st_mtime);
}

TEST(CrtUTime, FailsForAMissingFile) {
  const struct utimbuf times = {1, 1};
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtUTime(kMissing, &times));
  EXPECT_EQ(ENOENT, errno);
}

// OPL_CrtTruncate

TEST(CrtTruncate, CutsAFile) {
  WriteFile("file", "abcdef");
  EXPECT_EQ(0, OPL_CrtTruncate("file", 4));
  EXPECT_EQ("abcd", ContentsOf("file"));
}

TEST(CrtTruncate, EmptiesAFile) {
  WriteFile("file", "abcdef");
  EXPECT_EQ(0, OPL_CrtTruncate("file", 0));
  EXPECT_EQ("", ContentsOf("file"));
}

TEST(CrtTruncate, LengthensAFileWithZeros) {
  WriteFile("file", "ab");
  EXPECT_EQ(0, OPL_CrtTruncate("file", 4));
  EXPECT_EQ(std::string("ab\0\0", 4), ContentsOf("file"));
}

TEST(CrtTruncate, TakesALengthBeyondFourGigabytes) {
  WriteFile("file", "");
  EXPECT_EQ(0, OPL_CrtTruncate("file", kFiveGigabytes));
  EXPECT_EQ(kFiveGigabytes, SizeOf("file"));
}

TEST(CrtTruncate, FailsForAMissingFileWhenTheLibraryIsNotBegun) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtTruncate(kMissing, 4));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_STREQ("No message available.", OPL_ErrMessageGet(0));
}

// Deliberate: the system is asked about a null path too, and its answer is what remains.
TEST(CrtTruncate, OfANullPathFailsAsTheSystemDoes) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtTruncate(nullptr, 4));
  EXPECT_EQ(EFAULT, errno);
}

class CrtTruncateRecord : public opltest::Instance {};

TEST_F(CrtTruncateRecord, HoldsTheFailure) {
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtTruncate(kMissing, 4));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(static_cast<uint32_t>(ENOENT), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtTruncate: truncate64() error.", OPL_ErrMessageGet(0));
}

TEST_F(CrtTruncateRecord, HoldsTheFailureOfANegativeLength) {
  WriteFile("file", "text");
  EXPECT_EQ(-1, OPL_CrtTruncate("file", -1));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(static_cast<uint32_t>(EINVAL), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtTruncate: truncate64() error.", OPL_ErrMessageGet(0));
  EXPECT_EQ("text", ContentsOf("file"));
}

TEST_F(CrtTruncateRecord, HoldsTheSystemsFailureForANullPath) {
  EXPECT_EQ(-1, OPL_CrtTruncate(nullptr, 4));
  EXPECT_EQ(EFAULT, errno);
  EXPECT_EQ(static_cast<uint32_t>(EFAULT), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtTruncate: truncate64() error.", OPL_ErrMessageGet(0));
}

// What is there before the system is asked: a system that takes the null path leaves it.
int TakeNullPath(const char* path, off64_t length) noexcept {
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(nullptr, path);
  EXPECT_EQ(kFiveGigabytes, length);
  return 0;
}

TEST_F(CrtTruncateRecord, HoldsThatANullPathNamesNoFileBeforeTheSystemIsAsked) {
  Replacement truncate("truncate64", TakeNullPath);
  errno = 0;
  EXPECT_EQ(0, OPL_CrtTruncate(nullptr, kFiveGigabytes));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(static_cast<uint32_t>(EINVAL), OPL_ErrCodeGet(0));
  EXPECT_STREQ("OPL_CrtTruncate: No file name to truncate.", OPL_ErrMessageGet(0));
}

TEST_F(CrtTruncateRecord, IsLeftAloneOnSuccess) {
  WriteFile("file", "text");
  (void)OPL_ErrSet(0, 77, "before");
  EXPECT_EQ(0, OPL_CrtTruncate("file", 1));
  EXPECT_EQ(77u, OPL_ErrCodeGet(0));
  EXPECT_STREQ("before", OPL_ErrMessageGet(0));
}

}  // namespace
