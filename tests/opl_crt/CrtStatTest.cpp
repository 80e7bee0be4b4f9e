// The stat record, byte by byte. The library is not begun in these tests.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "OPL_Crt.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Fault;
using opltest::WriteFile;

// A record as its bytes, with some behind it that must stay as they are.
class RecordBytes {
 public:
  static constexpr size_t kSize = 72;

  RecordBytes() { std::memset(bytes_, '~', sizeof bytes_); }
  ~RecordBytes() {
    for (size_t i = kSize; i < sizeof bytes_; ++i) EXPECT_EQ('~', bytes_[i]) << "stored behind the record";
  }
  RecordBytes(const RecordBytes&) = delete;
  RecordBytes& operator=(const RecordBytes&) = delete;

  OPL_CrtStatRecord* Place() { return reinterpret_cast<OPL_CrtStatRecord*>(bytes_); }

  // The number at that place, low byte first.
  uint64_t At(size_t offset, size_t size) const {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
      value |= uint64_t{static_cast<unsigned char>(bytes_[offset + i])} << (8 * i);
    return value;
  }

  void ExpectZeros() const { EXPECT_EQ(std::string(kSize, '\0'), std::string(bytes_, kSize)); }

  void ExpectTells(const struct stat64& status) const {
    EXPECT_EQ(status.st_mode, At(0, 4)) << "mode";
    EXPECT_EQ(status.st_ino, At(4, 8)) << "inode";
    EXPECT_EQ(status.st_dev, At(12, 8)) << "device";
    EXPECT_EQ(status.st_rdev, At(20, 8)) << "special-file device";
    EXPECT_EQ(status.st_nlink, At(28, 4)) << "link count";
    EXPECT_EQ(status.st_uid, At(32, 4)) << "owner";
    EXPECT_EQ(status.st_gid, At(36, 4)) << "group";
    EXPECT_EQ(static_cast<uint64_t>(status.st_size), At(40, 8)) << "size";
    EXPECT_EQ(static_cast<uint64_t>(status.st_atime), At(48, 4)) << "access";
    EXPECT_EQ(static_cast<uint64_t>(status.st_mtime), At(52, 4)) << "modification";
    EXPECT_EQ(static_cast<uint64_t>(status.st_ctime), At(56, 4)) << "change";
    EXPECT_EQ(static_cast<uint64_t>(status.st_blksize), At(60, 4)) << "block size";
    EXPECT_EQ(static_cast<uint64_t>(status.st_blocks), At(64, 8)) << "blocks";
  }

 private:
  alignas(8) char bytes_[kSize + 8];
};

struct stat64 StatusOf(const char* path) {
  struct stat64 status {};
  EXPECT_EQ(0, ::stat64(path, &status));
  return status;
}

TEST(CrtStatRecord, HasSeventyTwoBytes) { EXPECT_EQ(72u, sizeof(OPL_CrtStatRecord)); }

TEST(CrtStat, TellsWhatTheSystemTells) {
  WriteFile("file", "some text");
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat("file", record.Place()));
  record.ExpectTells(StatusOf("file"));
}

TEST(CrtStat, TellsOfAFileWithKnownProperties) {
  WriteFile("file", "some text");
  ASSERT_EQ(0, ::chmod("file", 0640));
  ASSERT_EQ(0, ::link("file", "second"));
  const struct utimbuf times = {1000000000, 1076000000};
  ASSERT_EQ(0, ::utime("file", &times));
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat("file", record.Place()));
  EXPECT_EQ(0100640u, record.At(0, 4));
  EXPECT_EQ(0u, record.At(20, 8));
  EXPECT_EQ(2u, record.At(28, 4));
  EXPECT_EQ(::geteuid(), record.At(32, 4));
  EXPECT_EQ(9u, record.At(40, 8));
  EXPECT_EQ(1000000000u, record.At(48, 4));
  EXPECT_EQ(1076000000u, record.At(52, 4));
}

TEST(CrtStat, TellsOfAFileOfThreeGigabytes) {
  WriteFile("large", "");
  ASSERT_EQ(0, ::truncate64("large", 3221225472));
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat("large", record.Place()));
  EXPECT_EQ(3221225472u, record.At(40, 8));
  record.ExpectTells(StatusOf("large"));
}

TEST(CrtStat, TellsASizeWithItsLowWordFirst) {
  WriteFile("large", "");
  ASSERT_EQ(0, ::truncate64("large", 4294967303));
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat("large", record.Place()));
  EXPECT_EQ(7u, record.At(40, 4));
  EXPECT_EQ(1u, record.At(44, 4));
}

TEST(CrtStat, TellsOfADeviceFile) {
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat("/dev/null", record.Place()));
  EXPECT_EQ(static_cast<uint32_t>(S_IFCHR), record.At(0, 4) & S_IFMT);
  EXPECT_EQ(0x103u, record.At(20, 8)) << "device 1, 3";
  record.ExpectTells(StatusOf("/dev/null"));
}

TEST(CrtStat, TellsOfADirectory) {
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat(".", record.Place()));
  EXPECT_EQ(static_cast<uint32_t>(S_IFDIR), record.At(0, 4) & S_IFMT);
}

TEST(CrtStat, FollowsASymbolicLink) {
  WriteFile("file", "some text");
  ASSERT_EQ(0, ::symlink("file", "link"));
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtStat("link", record.Place()));
  record.ExpectTells(StatusOf("file"));
}

// The system's record in full width, as the system gives it on the largest devices.
int TellLargeNumbers(const char*, struct stat64* status) noexcept {
  *status = {};
  status->st_mode = 0107777;
  status->st_ino = 0x0102030405060708;
  status->st_dev = 0x1112131415161718;
  status->st_rdev = 0x2122232425262728;
  status->st_nlink = 0x31323334;
  status->st_uid = 0xFFFFFFFE;
  status->st_gid = 0xFFFFFFFD;
  status->st_size = 0x4142434445464748;
  status->st_atime = 0x51525354;
  status->st_mtime = -2;
  status->st_ctime = INT32_MAX;
  status->st_blksize = 0x61626364;
  status->st_blocks = 0x7172737475767778;
  return 0;
}

TEST(CrtStat, KeepsEveryBitOfLargeNumbers) {
  RecordBytes record;
  {
    opltest::Replacement stat("stat64", TellLargeNumbers);
    EXPECT_EQ(0, OPL_CrtStat("file", record.Place()));
  }
  EXPECT_EQ(0107777u, record.At(0, 4));
  EXPECT_EQ(0x0102030405060708u, record.At(4, 8));
  EXPECT_EQ(0x1112131415161718u, record.At(12, 8));
  EXPECT_EQ(0x2122232425262728u, record.At(20, 8));
  EXPECT_EQ(0x31323334u, record.At(28, 4));
  EXPECT_EQ(0xFFFFFFFEu, record.At(32, 4));
  EXPECT_EQ(0xFFFFFFFDu, record.At(36, 4));
  EXPECT_EQ(0x4142434445464748u, record.At(40, 8));
  EXPECT_EQ(0x51525354u, record.At(48, 4));
  EXPECT_EQ(0xFFFFFFFEu, record.At(52, 4));
  EXPECT_EQ(0x7FFFFFFFu, record.At(56, 4));
  EXPECT_EQ(0x61626364u, record.At(60, 4));
  EXPECT_EQ(0x7172737475767778u, record.At(64, 8));
}

int TellDistantTimes(const char*, struct stat64* status) noexcept {
  *status = {};
  status->st_atime = std::numeric_limits<time_t>::max();
  status->st_mtime = std::numeric_limits<time_t>::min();
  return 0;
}

TEST(CrtStat, TellsTheNearestSecondForATimeThatThirtyTwoBitsDoNotHold) {
  RecordBytes record;
  {
    opltest::Replacement stat("stat64", TellDistantTimes);
    EXPECT_EQ(0, OPL_CrtStat("file", record.Place()));
  }
  EXPECT_EQ(0x7FFFFFFFu, record.At(48, 4));
  EXPECT_EQ(0x80000000u, record.At(52, 4));
}

// As a 32-bit system call does for a file whose time it cannot tell.
TEST(CrtStat, ClearsTheRecordWhenTheSystemsOwnRecordIsTooSmall) {
  WriteFile("file", "some text");
  RecordBytes record;
  Fault fault("stat64", 1, EOVERFLOW);
  EXPECT_EQ(-1, OPL_CrtStat("file", record.Place()));
  EXPECT_EQ(EOVERFLOW, errno);
  record.ExpectZeros();
}

TEST(CrtStat, ClearsTheRecordForAMissingFile) {
  RecordBytes record;
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtStat("missing", record.Place()));
  EXPECT_EQ(ENOENT, errno);
  record.ExpectZeros();
}

TEST(CrtStat, ClearsTheRecordWhenTheSystemRefuses) {
  WriteFile("file", "some text");
  RecordBytes record;
  Fault fault("stat64", 1, EACCES);
  EXPECT_EQ(-1, OPL_CrtStat("file", record.Place()));
  EXPECT_EQ(EACCES, errno);
  record.ExpectZeros();
}

TEST(CrtStat, TakesANullRecord) {
  WriteFile("file", "some text");
  EXPECT_EQ(0, OPL_CrtStat("file", nullptr));
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtStat("missing", nullptr));
  EXPECT_EQ(ENOENT, errno);
}

class CrtFStat : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile("file", "some text");
    fd_ = ::open64("file", O_RDWR | O_CLOEXEC);
    ASSERT_LE(0, fd_);
  }
  void TearDown() override { EXPECT_EQ(0, ::close(fd_)); }

  int fd_ = -1;
};

TEST_F(CrtFStat, TellsWhatTheSystemTells) {
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtFStat(fd_, record.Place()));
  record.ExpectTells(StatusOf("file"));
}

TEST_F(CrtFStat, TellsOfAFileOfThreeGigabytes) {
  ASSERT_EQ(0, ::ftruncate64(fd_, 3221225472));
  RecordBytes record;
  EXPECT_EQ(0, OPL_CrtFStat(fd_, record.Place()));
  EXPECT_EQ(3221225472u, record.At(40, 8));
}

TEST_F(CrtFStat, ClearsTheRecordForWhatIsNotOpen) {
  RecordBytes record;
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtFStat(-1, record.Place()));
  EXPECT_EQ(EBADF, errno);
  record.ExpectZeros();
}

TEST_F(CrtFStat, TakesANullRecord) {
  EXPECT_EQ(0, OPL_CrtFStat(fd_, nullptr));
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtFStat(-1, nullptr));
  EXPECT_EQ(EBADF, errno);
}

}  // namespace
