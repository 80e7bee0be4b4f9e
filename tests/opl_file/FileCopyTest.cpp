// Copying a file's contents.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "OPL_File.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"

namespace {

using opltest::ContentsOf;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::LastFailure;
using opltest::WriteFile;

class FileCopy : public opltest::Instance {
 protected:
  static OPL_Result Copy(uint32_t exclusive = 0) { return OPL_FileCopy(0, "source", "target", exclusive); }

  // Bytes that show where a block is missing.
  static std::string Text(size_t size) {
    std::string text;
    while (text.size() < size) text += std::to_string(text.size()) + " ";
    text.resize(size);
    return text;
  }
};

TEST_F(FileCopy, CopiesAnyLength) {
  for (const size_t size : {0u, 1u, 255u, 256u, 257u, 512u, 100001u}) {
    SCOPED_TRACE(size);
    WriteFile("source", Text(size));
    ASSERT_EQ(OPL_OK, Copy());
    EXPECT_EQ(Text(size), ContentsOf("target"));
    EXPECT_EQ(0, ::unlink("target"));
  }
}

TEST_F(FileCopy, LeavesTheTailOfALongerTarget) {
  WriteFile("source", "new");
  WriteFile("target", "long and old");
  ASSERT_EQ(OPL_OK, Copy());
  EXPECT_EQ("newg and old", ContentsOf("target"));
}

TEST_F(FileCopy, MakesTheTargetForItsOwnerOnly) {
  WriteFile("source", "text");
  for (const mode_t mask : {0000, 0022}) {
    const mode_t before = ::umask(mask);
    EXPECT_EQ(OPL_OK, Copy());
    (void)::umask(before);
    struct stat status {};
    ASSERT_EQ(0, ::stat("target", &status));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), status.st_mode);
    EXPECT_EQ(0, ::unlink("target"));
  }
}

TEST_F(FileCopy, LeavesTheModeOfATargetThatExists) {
  WriteFile("source", "text");
  WriteFile("target", "");
  ASSERT_EQ(0, ::chmod("target", 0640));
  ASSERT_EQ(OPL_OK, Copy());
  struct stat status {};
  ASSERT_EQ(0, ::stat("target", &status));
  EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0640), status.st_mode);
}

TEST_F(FileCopy, CopiesExclusivelyToANewTarget) {
  WriteFile("source", "text");
  for (const uint32_t exclusive : {1u, 0x80000000u}) {
    EXPECT_EQ(OPL_OK, Copy(exclusive));
    EXPECT_EQ("text", ContentsOf("target"));
    EXPECT_EQ(0, ::unlink("target"));
  }
}

TEST_F(FileCopy, RefusesATargetThatExistsWhenExclusive) {
  WriteFile("source", "text");
  WriteFile("target", "old");
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_FILE_E_EXISTS, Copy(1));
  EXPECT_EQ(Failure(EEXIST, "OPL_FileCopy: open error for target file (target). errno: 17,File exists"),
            LastFailure());
  EXPECT_EQ("old", ContentsOf("target"));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(FileCopy, DoesNothingFromAFileToItself) {
  WriteFile("source", "text");
  EXPECT_EQ(OPL_OK, OPL_FileCopy(7, "source", "source", 1));
  EXPECT_EQ("text", ContentsOf("source"));
  EXPECT_EQ(OPL_OK, OPL_FileCopy(0, "missing", "missing", 0));
}

TEST_F(FileCopy, NeedsASourceAndATarget) {
  for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileCopy(0, empty, "target", 0));
    EXPECT_EQ(Failure(0x050D14, "OPL_FileCopy: empty source filename"), LastFailure());
    EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileCopy(0, "source", empty, 0));
    EXPECT_EQ(Failure(0x050D14, "OPL_FileCopy: empty target filename"), LastFailure());
    EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileCopy(0, empty, empty, 0));
    EXPECT_EQ(Failure(0x050D14, "OPL_FileCopy: empty source filename"), LastFailure());
  }
}

TEST_F(FileCopy, LeavesNoTargetWithoutASource) {
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_FILE_E_OPEN, Copy());
  EXPECT_EQ(Failure(ENOENT,
                    "OPL_FileCopy: open error for source file (source). errno: 2,No such file or directory"),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(FileCopy, TellsOfATargetThatCannotBeOpened) {
  WriteFile("source", "text");
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_FILE_E_OPEN, OPL_FileCopy(0, "source", "missing/target", 0));
  EXPECT_EQ(Failure(ENOENT,
                    "OPL_FileCopy: open error for target file (missing/target). errno: 2,No such file or "
                    "directory"),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(FileCopy, TellsOfASourceThatCannotBeRead) {
  ASSERT_EQ(0, ::mkdir("source", 0700));
  const std::string message =
      "OPL_FileCopy: read error in the source file (source). errno: 21,Is a directory";
  EXPECT_EQ(OPL_FILE_E_READ, Copy());
  EXPECT_EQ(Failure(EISDIR, message), LastFailure());
}

TEST_F(FileCopy, GoesOnWithTheNextBlockAfterAFailedWrite) {
  WriteFile("source", Text(600));
  const Fault fault("write", 2, EIO);
  EXPECT_EQ(OPL_FILE_E_WRITE, Copy());
  EXPECT_EQ(
      Failure(EIO, "OPL_FileCopy: write error in the target file (target). errno: 5,Input/output error"),
      LastFailure());
  EXPECT_EQ(3, fault.Calls());
  EXPECT_EQ(Text(600).substr(0, 256) + Text(600).substr(512), ContentsOf("target"));
}

TEST_F(FileCopy, EndsAtAFailedRead) {
  WriteFile("source", Text(600));
  const Fault fault("read", 2, EIO);
  EXPECT_EQ(OPL_FILE_E_READ, Copy());
  EXPECT_EQ(Failure(EIO, "OPL_FileCopy: read error in the source file (source). errno: 5,Input/output error"),
            LastFailure());
  EXPECT_EQ(Text(600).substr(0, 256), ContentsOf("target"));
}

TEST_F(FileCopy, RepeatsInterruptedCalls) {
  WriteFile("source", Text(600));
  const Fault read("read", 2, EINTR);
  const Fault write("write", 2, EINTR);
  EXPECT_EQ(OPL_OK, Copy());
  EXPECT_EQ(Text(600), ContentsOf("target"));
}

TEST_F(FileCopy, LeavesNoDescriptorOpen) {
  WriteFile("source", "text");
  WriteFile("target", "");
  const Footprint before = Footprint::Now();
  EXPECT_EQ(OPL_OK, Copy());
  for (const char* call : {"read", "write", "open64"}) {
    const Fault fault(call, 1, EIO);
    EXPECT_NE(OPL_OK, Copy());
  }
  const Fault second("open64", 2, EMFILE);
  EXPECT_EQ(OPL_FILE_E_OPEN, Copy());
  EXPECT_EQ(before, Footprint::Now());
}

}  // namespace
