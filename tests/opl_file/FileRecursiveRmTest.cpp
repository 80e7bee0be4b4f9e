// Removing what matches a pattern, with all that is below.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "OPL_File.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::WriteFile;

using Names = std::vector<std::string>;

class FileRecursiveRm : public opltest::Instance {
 protected:
  static OPL_Result Remove(const std::string& pattern) { return OPL_FileRecursiveRm(7, pattern.c_str()); }
  static Names Left() { return opltest::FilesIn("."); }
};

TEST_F(FileRecursiveRm, RemovesWhatMatches) {
  for (const char* name : {"a1", "a2", "b1"}) WriteFile(name, "");
  EXPECT_EQ(OPL_OK, Remove("a*"));
  EXPECT_EQ(Names{"b1"}, Left());
}

TEST_F(FileRecursiveRm, RemovesDirectoriesWithAllBelow) {
  std::filesystem::create_directories("tree/one/two/three");
  for (const char* name : {"tree/f", "tree/one/f", "tree/one/two/three/f"}) WriteFile(name, "");
  WriteFile("other", "");
  EXPECT_EQ(OPL_OK, Remove("tree"));
  EXPECT_EQ(Names{"other"}, Left());
}

TEST_F(FileRecursiveRm, SucceedsWhenNothingMatches) { EXPECT_EQ(OPL_OK, Remove("x*")); }

TEST_F(FileRecursiveRm, RemovesLinksAndNotWhatTheyStandFor) {
  std::filesystem::create_directory("kept");
  WriteFile("kept/file", "");
  std::filesystem::create_directory("tree");
  ASSERT_EQ(0, ::symlink("../kept", "tree/link"));
  ASSERT_EQ(0, ::symlink("nowhere", "tree/dangling"));
  EXPECT_EQ(OPL_OK, Remove("tree"));
  EXPECT_EQ(Names{"kept"}, Left());
  EXPECT_EQ(Names{"file"}, opltest::FilesIn("kept"));
}

TEST_F(FileRecursiveRm, PassesOverADirectoryWhoseNameEndsInADot) {
  std::filesystem::create_directory("dotted.");
  WriteFile("dotted./file", "");
  WriteFile("file.", "");
  EXPECT_EQ(OPL_OK, Remove("*."));
  EXPECT_EQ(Names{"dotted."}, Left());
  EXPECT_EQ(OPL_OK, Remove("."));
  EXPECT_EQ(Names{"dotted."}, Left());
}

TEST_F(FileRecursiveRm, IsBlockedByAHiddenName) {
  std::filesystem::create_directory("tree");
  WriteFile("tree/.hidden", "");
  WriteFile("tree/seen", "");
  EXPECT_EQ(OPL_FILE_E_RMDIR, Remove("tree"));
  EXPECT_EQ(Failure(ENOTEMPTY, "OPL_FileRecursiveRm: rmdir 39 (Directory not empty).\nDirectory:tree"),
            LastFailure());
  EXPECT_EQ(Names{".hidden"}, opltest::FilesIn("tree"));
}

TEST_F(FileRecursiveRm, StopsAtTheFirstFailure) {
  for (const char* name : {"a1", "a2", "a3"}) WriteFile(name, "");
  const Fault fault("unlink", 2, EPERM);
  EXPECT_EQ(OPL_FILE_E_REMOVE, Remove("a*"));
  EXPECT_EQ(Failure(EPERM, "OPL_FileRecursiveRm: unlink 1,Operation not permitted\nFile a2."), LastFailure());
  EXPECT_EQ((Names{"a2", "a3"}), Left());
}

TEST_F(FileRecursiveRm, KeepsADirectoryWhoseContentsCannotBeRemoved) {
  std::filesystem::create_directory("tree");
  WriteFile("tree/file", "");
  const Fault fault("unlink", 1, EPERM);
  EXPECT_EQ(OPL_FILE_E_REMOVE, Remove("tree"));
  EXPECT_EQ(Failure(EPERM, "OPL_FileRecursiveRm: unlink 1,Operation not permitted\nFile tree/file."),
            LastFailure());
  EXPECT_EQ(Names{"file"}, opltest::FilesIn("tree"));
}

TEST_F(FileRecursiveRm, TellsOfAFileThatCannotBeLookedAt) {
  WriteFile("file", "");
  // The pattern matcher looks at the name as well.
  for (const int nth : {1, 2}) {
    const Fault fault("lstat64", nth, EACCES);
    const OPL_Result rc = Remove("file*");
    if (rc != OPL_FILE_E_STAT) continue;
    EXPECT_EQ(Failure(EACCES, "OPL_FileRecursiveRm: stat 13 (Permission denied)."), LastFailure());
    EXPECT_EQ(Names{"file"}, Left());
    return;
  }
  FAIL() << "no look at the file failed";
}

TEST_F(FileRecursiveRm, TellsOfADirectoryThatCannotBeRemoved) {
  std::filesystem::create_directory("tree");
  const Fault fault("rmdir", 1, EBUSY);
  EXPECT_EQ(OPL_FILE_E_RMDIR, Remove("tree"));
  EXPECT_EQ(Failure(EBUSY, "OPL_FileRecursiveRm: rmdir 16 (Device or resource busy).\nDirectory:tree"),
            LastFailure());
}

TEST_F(FileRecursiveRm, PassesOnAFailureOfThePatternMatcher) {
  WriteFile("file", "");
  const Fault fault("glob64", 1, EIO);
  EXPECT_EQ(OPL_FILE_E_GLOB, Remove("*"));
  EXPECT_EQ(Failure(0x050D09, "OPL_FileRecursiveRm: No files found for *."), LastFailure());
  EXPECT_EQ(Names{"file"}, Left());
}

// A directory whose name with "/*" has that many characters.
std::string DeepDirectory(size_t length) {
  std::string name = "deep";
  while (name.size() + 100 < length - 2) name += "/" + std::string(80, 'x');
  name += "/" + std::string(length - 2 - name.size() - 1, 'y');
  std::filesystem::create_directories(name);
  return name;
}

TEST_F(FileRecursiveRm, RemovesADirectoryWhosePatternJustFits) {
  const std::string name = DeepDirectory(511);
  WriteFile(name + "/file", "");
  EXPECT_EQ(OPL_OK, Remove("deep"));
  EXPECT_EQ(Names{}, Left());
}

TEST_F(FileRecursiveRm, NeverUsesAPatternThatWasCut) {
  for (const size_t length : {512u, 513u}) {
    const std::string name = DeepDirectory(length);
    WriteFile(name + "/file", "");
    EXPECT_EQ(OPL_FILE_E_TOO_SMALL, Remove("deep"));
    EXPECT_TRUE(std::filesystem::exists(name + "/file"));
    std::filesystem::remove_all("deep");
  }
}

}  // namespace
