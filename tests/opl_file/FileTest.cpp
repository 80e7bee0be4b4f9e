// Existence, size, directories, removal, temporary and display names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "OPL_File.h"
#include "OPL_Init.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::WriteFile;

class File : public opltest::Instance {};

bool Exists(const char* path) {
  uint32_t exists = 77;
  EXPECT_EQ(OPL_OK, OPL_FileExists(path, &exists));
  EXPECT_LE(exists, 1u);
  return exists == 1;
}

TEST_F(File, ExistsOfWhateverKind) {
  WriteFile("file", "");
  ASSERT_EQ(0, ::mkdir("dir", 0700));
  ASSERT_EQ(0, ::mkfifo("fifo", 0600));
  for (const char* name : {"file", "dir", "fifo", "/"}) EXPECT_TRUE(Exists(name)) << name;
  EXPECT_FALSE(Exists("missing"));
}

TEST_F(File, ExistsWithoutTheSlashesAtItsEnd) {
  ASSERT_EQ(0, ::mkdir("dir", 0700));
  WriteFile("file", "");
  for (const char* name : {"dir/", "dir///", "dir\\", "dir/\\/", "file/", "file\\\\", "/", "//", "///"})
    EXPECT_TRUE(Exists(name)) << name;
  EXPECT_FALSE(Exists("missing///"));
}

TEST_F(File, ExistsKeepsTheFirstCharacterOfAPath) {
  EXPECT_FALSE(Exists("\\"));
  WriteFile("\\", "");
  EXPECT_TRUE(Exists("\\"));
  EXPECT_TRUE(Exists("\\//"));
}

TEST_F(File, ExistsNotWhenALinkDangles) {
  ASSERT_EQ(0, ::symlink("nowhere", "link"));
  EXPECT_FALSE(Exists("link"));
}

TEST_F(File, ExistsNotWhenItMayNotBeLookedAt) {
  WriteFile("file", "");
  const Fault fault("stat64", 1, EACCES);
  EXPECT_FALSE(Exists("file"));
  EXPECT_TRUE(fault.Fired());
}

TEST_F(File, ExistsNeedsAPathButNoPlace) {
  uint32_t exists = 77;
  for (const char* path : {static_cast<const char*>(nullptr), ""}) {
    opltest::ForgetFailure();
    EXPECT_EQ(OPL_FILE_E_NO_PATH, OPL_FileExists(path, &exists));
    EXPECT_EQ(Failure(0x050D18, "OPL_FileExists: Path is NULL or empty"), LastFailure());
  }
  EXPECT_EQ(77u, exists);
  EXPECT_EQ(OPL_OK, OPL_FileExists("/", nullptr));
}

TEST_F(File, ExistsFailsWithoutMemoryForTheCopy) {
  const opltest::FailingMemory memory(1, Fault::kForGood);
  uint32_t exists = 77;
  EXPECT_EQ(OPL_FILE_E_NO_MEMORY, OPL_FileExists("dir/", &exists));
  EXPECT_EQ(77u, exists);
  EXPECT_EQ(OPL_OK, OPL_FileExists("dir", &exists));
}

TEST_F(File, SizeIsTheNumberOfBytes) {
  WriteFile("file", "12345");
  int64_t size = 77;
  ASSERT_EQ(OPL_OK, OPL_FileSizeGet("file", &size));
  EXPECT_EQ(5, size);
  EXPECT_EQ(OPL_OK, OPL_FileSizeGet("file", nullptr));
}

TEST_F(File, SizeGoesBeyond32Bits) {
  const int fd = ::open64("large", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(0, ::ftruncate64(fd, 0x300000005));
  ASSERT_EQ(0, ::close(fd));
  int64_t size = 0;
  ASSERT_EQ(OPL_OK, OPL_FileSizeGet("large", &size));
  EXPECT_EQ(0x300000005, size);
  const auto* const words = reinterpret_cast<const uint32_t*>(&size);
  EXPECT_EQ(5u, words[0]);
  EXPECT_EQ(3u, words[1]);
}

TEST_F(File, SizeFailsUnderANameOfItsOwn) {
  int64_t size = 77;
  EXPECT_EQ(OPL_FILE_E_STAT, OPL_FileSizeGet("missing", &size));
  EXPECT_EQ(Failure(ENOENT, "OPL_FileFileSizeGet: OPL_CrtStat error:-1"), LastFailure());
  EXPECT_EQ(77, size);
}

TEST_F(File, MkDirMakesADirectoryForItsOwner) {
  for (const mode_t mask : {0000, 0022, 0077}) {
    const mode_t before = ::umask(mask);
    EXPECT_EQ(OPL_OK, OPL_FileMkDir("dir"));
    (void)::umask(before);
    struct stat status {};
    ASSERT_EQ(0, ::stat("dir", &status));
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 0700), status.st_mode & ~static_cast<mode_t>(S_ISGID));
    EXPECT_EQ(0, ::rmdir("dir"));
  }
}

TEST_F(File, MkDirTakesAnyExistingNameAsDone) {
  ASSERT_EQ(0, ::mkdir("dir", 0755));
  WriteFile("file", "text");
  EXPECT_EQ(OPL_OK, OPL_FileMkDir("dir"));
  EXPECT_EQ(OPL_OK, OPL_FileMkDir("file"));
  EXPECT_EQ("text", opltest::ContentsOf("file"));
}

TEST_F(File, MkDirFailsUnderANameOfItsOwn) {
  EXPECT_EQ(OPL_FILE_E_MKDIR, OPL_FileMkDir("missing/dir"));
  EXPECT_EQ(Failure(ENOENT, "OPL_FileMkDir(const char *): mkdir error: 2"), LastFailure());
}

TEST_F(File, RmRemovesAFile) {
  WriteFile("file", "");
  EXPECT_EQ(OPL_OK, OPL_FileRm(7, "file"));
  EXPECT_FALSE(Exists("file"));
}

TEST_F(File, RmRemovesALinkAndNotWhatItStandsFor) {
  WriteFile("file", "");
  ASSERT_EQ(0, ::symlink("file", "link"));
  EXPECT_EQ(OPL_OK, OPL_FileRm(0, "link"));
  EXPECT_TRUE(Exists("file"));
}

TEST_F(File, RmTellsWhatTheSystemRefuses) {
  EXPECT_EQ(OPL_FILE_E_REMOVE, OPL_FileRm(0, "missing"));
  EXPECT_EQ(Failure(ENOENT, "OPL_FileRm: unlink failed 2, No such file or directory\nFile missing"),
            LastFailure());
  ASSERT_EQ(0, ::mkdir("dir", 0700));
  EXPECT_EQ(OPL_FILE_E_REMOVE, OPL_FileRm(0, "dir"));
  EXPECT_EQ(Failure(EISDIR, "OPL_FileRm: unlink failed 21, Is a directory\nFile dir"), LastFailure());
}

TEST_F(File, TempNameIsNewAndLiesInTheDirectory) {
  (void)::unsetenv("TMPDIR");
  const std::string work = opltest::WorkDirectory();
  char* name = nullptr;
  ASSERT_EQ(OPL_OK, OPL_FileTempNameCreate(work.c_str(), "pre", &name));
  EXPECT_EQ(0u, std::string(name).find(work + "/pre"));
  EXPECT_FALSE(Exists(name));
  EXPECT_EQ(OPL_OK, OPL_FileTempNameDestroy(name));
}

TEST_F(File, TempNameNeedsNoArgument) {
  char* name = nullptr;
  ASSERT_EQ(OPL_OK, OPL_FileTempNameCreate(nullptr, nullptr, &name));
  EXPECT_FALSE(Exists(name));
  EXPECT_EQ(OPL_OK, OPL_FileTempNameDestroy(name));
  EXPECT_EQ(OPL_OK, OPL_FileTempNameCreate(nullptr, nullptr, nullptr));
  EXPECT_EQ(OPL_OK, OPL_FileTempNameDestroy(nullptr));
}

TEST_F(File, TempNameTellsWhatTheSystemRefuses) {
  const Fault fault("tempnam", 1, EEXIST, Fault::kForGood);
  char* name = nullptr;
  EXPECT_EQ(OPL_FILE_E_TEMP_NAME, OPL_FileTempNameCreate("dir", "pre", &name));
  EXPECT_EQ(Failure(EEXIST, "OPL_FileTempNameCreate: tempnam(dir,pre)"), LastFailure());
  EXPECT_EQ(OPL_FILE_E_TEMP_NAME, OPL_FileTempNameCreate(nullptr, nullptr, &name));
  EXPECT_EQ(Failure(EEXIST, "OPL_FileTempNameCreate: tempnam(NULL,NULL)"), LastFailure());
  EXPECT_EQ(nullptr, name);
}

class FileDisplayName : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    WriteFile("file", "");
  }

  char display_[16] = "unchanged";
};

TEST_F(FileDisplayName, IsTheNameUnchanged) {
  EXPECT_EQ(OPL_OK, OPL_FileFormatFilenameForDisplay(0, "./file", display_, sizeof display_));
  EXPECT_STREQ("./file", display_);
}

TEST_F(FileDisplayName, NeedsRoomForItsEnd) {
  EXPECT_EQ(OPL_OK, OPL_FileFormatFilenameForDisplay(0, "file", display_, 5));
  EXPECT_STREQ("file", display_);
  EXPECT_EQ(OPL_FILE_E_TOO_SMALL, OPL_FileFormatFilenameForDisplay(0, "./file", display_, 6));
  EXPECT_EQ(
      Failure(0x050D04, "OPL_FileFormatFilenameForDisplay: Not enough space in buffer to format './file'"),
      LastFailure());
  EXPECT_STREQ("file", display_);
}

TEST_F(FileDisplayName, NeedsTheFile) {
  EXPECT_EQ(OPL_FILE_E_NOT_FOUND, OPL_FileFormatFilenameForDisplay(0, "missing", display_, sizeof display_));
  EXPECT_EQ(Failure(0x050D07, "OPL_FileFormatFilenameForDisplay: File 'missing' not found"), LastFailure());
  EXPECT_STREQ("unchanged", display_);
}

TEST_F(FileDisplayName, LooksAtTheRoomBeforeTheFile) {
  EXPECT_EQ(OPL_FILE_E_TOO_SMALL, OPL_FileFormatFilenameForDisplay(0, "missing", display_, 3));
}

TEST_F(FileDisplayName, RefusesItsArgumentsAndReportsTheLast) {
  const std::string name = "OPL_FileFormatFilenameForDisplay: ";
  EXPECT_EQ(OPL_FILE_E_INVALID_MODE, OPL_FileFormatFilenameForDisplay(1, "file", display_, sizeof display_));
  EXPECT_EQ(Failure(0x050D1B, name + "Invalid mode"), LastFailure());
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileFormatFilenameForDisplay(1, "file", nullptr, 16));
  EXPECT_EQ(Failure(0x050D14, name + "FileNameForDisplay is NULL"), LastFailure());
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileFormatFilenameForDisplay(1, nullptr, nullptr, 16));
  EXPECT_EQ(Failure(0x050D14, name + "FileName is NULL"), LastFailure());
  EXPECT_STREQ("unchanged", display_);
}

TEST(FileStopped, WorksWithoutTheLibraryBegun) {
  WriteFile("file", "text");
  char buffer[4096];
  int64_t size = 0;
  EXPECT_TRUE(Exists("file"));
  EXPECT_EQ(OPL_OK, OPL_FileSizeGet("file", &size));
  EXPECT_EQ(OPL_OK, OPL_FileMkDir("dir"));
  EXPECT_EQ(OPL_OK, OPL_FileCopy(0, "file", "copy", 1));
  EXPECT_EQ(OPL_OK, OPL_FileCanonicalNameGet("file", buffer, sizeof buffer));
  EXPECT_EQ(OPL_OK, OPL_FileExecutablePathFind("./file", buffer, sizeof buffer));
  EXPECT_EQ(OPL_OK, OPL_FileFormatFilenameForDisplay(0, "file", buffer, sizeof buffer));
  EXPECT_EQ(OPL_OK, OPL_FileRm(0, "file"));
}

}  // namespace
