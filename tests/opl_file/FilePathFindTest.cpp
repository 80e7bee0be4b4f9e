// Finding a program's directory through the search path, and canonical names.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "OPL_File.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;

class FilePathFind : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    for (const char* directory : {"bin", "sbin"}) ASSERT_EQ(0, ::mkdir(directory, 0700));
    opltest::WriteFile("bin/tool", "");
    opltest::WriteFile("sbin/tool", "");
    opltest::WriteFile("sbin/other", "");
  }

  OPL_Result Find(const std::string& name, const std::string& path) {
    (void)::setenv("PATH", path.c_str(), 1);
    return OPL_FileExecutablePathFind(name.c_str(), buffer_, sizeof buffer_);
  }
  void ExpectNotFound(OPL_Result result) {
    EXPECT_EQ(OPL_FILE_E_NOT_FOUND, result);
    EXPECT_STREQ("", buffer_);
    EXPECT_EQ(Failure(0x050D07, "OPL_FileExecutablePathFind: no valid path found"), LastFailure());
  }
  void ExpectTooSmall(char which, OPL_Result result) {
    EXPECT_EQ(OPL_FILE_E_TOO_SMALL, result);
    EXPECT_EQ(Failure(0x050D04, std::string("OPL_FileExecutablePathFind: buffer too small(") + which + ")"),
              LastFailure());
  }

  const std::string work_ = opltest::WorkDirectory();
  const std::string bin_ = work_ + "/bin";
  const std::string sbin_ = work_ + "/sbin";
  char buffer_[PATH_MAX] = "unchanged";
};

class FileCanonicalName : public FilePathFind {
 protected:
  OPL_Result Get(const char* path, uint32_t size = PATH_MAX) {
    return OPL_FileCanonicalNameGet(path, buffer_, size);
  }
};

TEST_F(FilePathFind, TakesTheFirstElementThatHasTheProgram) {
  EXPECT_EQ(OPL_OK, Find("tool", "/nowhere:" + bin_ + ":" + sbin_));
  EXPECT_EQ(bin_, buffer_);
  EXPECT_EQ(OPL_OK, Find("other", "/nowhere:" + bin_ + ":" + sbin_));
  EXPECT_EQ(sbin_, buffer_);
}

TEST_F(FilePathFind, MakesTheDirectoryCanonical) {
  ASSERT_EQ(0, ::symlink("bin", "link"));
  EXPECT_EQ(OPL_OK, Find("tool", "./link/../link"));
  EXPECT_EQ(bin_, buffer_);
}

TEST_F(FilePathFind, KeepsTheSlashAtAnElementsEnd) {
  EXPECT_EQ(OPL_OK, Find("tool", bin_ + "/"));
  EXPECT_EQ(bin_ + "/", buffer_);
}

TEST_F(FilePathFind, StopsAtAnEmptyElementAndTriesTheCurrentDirectory) {
  ExpectNotFound(Find("other", bin_ + "::" + sbin_));
  opltest::WriteFile("other", "");
  EXPECT_EQ(OPL_OK, Find("other", bin_ + "::" + sbin_));
  EXPECT_EQ(work_, buffer_);
}

TEST_F(FilePathFind, TakesAnEmptyElementAtEitherEndAsTheCurrentDirectory) {
  opltest::WriteFile("here", "");
  EXPECT_EQ(OPL_OK, Find("here", bin_ + ":"));
  EXPECT_EQ(work_, buffer_);
  EXPECT_EQ(OPL_OK, Find("here", ":" + bin_));
  EXPECT_EQ(work_, buffer_);
  ExpectNotFound(Find("tool", ":" + bin_));
}

TEST_F(FilePathFind, TakesAnEmptyOrMissingPathAsTheCurrentDirectory) {
  opltest::WriteFile("here", "");
  EXPECT_EQ(OPL_OK, Find("here", ""));
  EXPECT_EQ(work_, buffer_);
  ASSERT_EQ(0, ::unsetenv("PATH"));
  EXPECT_EQ(OPL_OK, OPL_FileExecutablePathFind("here", buffer_, sizeof buffer_));
  EXPECT_EQ(work_, buffer_);
  ExpectNotFound(OPL_FileExecutablePathFind("tool", buffer_, sizeof buffer_));
}

TEST_F(FilePathFind, LeavesTheVariableAsItIs) {
  const std::string path = bin_ + ":" + sbin_;
  EXPECT_EQ(OPL_OK, Find("other", path));
  EXPECT_EQ(path, std::getenv("PATH"));
}

TEST_F(FilePathFind, CutsANameWithASlashWithoutLookingForTheFile) {
  EXPECT_EQ(OPL_OK, Find(bin_ + "/missing", sbin_));
  EXPECT_EQ(bin_, buffer_);
  EXPECT_EQ(OPL_OK, Find("bin/tool", sbin_));
  EXPECT_EQ(bin_, buffer_);
  EXPECT_EQ(OPL_OK, Find(bin_ + "//tool", sbin_));
  EXPECT_EQ(bin_ + "/", buffer_);
}

TEST_F(FilePathFind, FindsNoPathForANameWhoseOnlySlashIsTheFirst) { ExpectNotFound(Find("/tool", bin_)); }

TEST_F(FilePathFind, FindsNoPathForANameInADirectoryThatIsMissing) {
  ExpectNotFound(Find("missing/tool", bin_));
}

TEST_F(FilePathFind, FindsNoPathWithoutTheProgram) { ExpectNotFound(Find("missing", bin_ + ":" + sbin_)); }

TEST_F(FilePathFind, RefusesAnElementOfMoreThan512Characters) {
  const std::string longest(512, 'x');
  ExpectTooSmall('1', Find("tool", longest + "x:" + bin_));
  ExpectTooSmall('4', Find("tool", bin_.substr(0, 1) + ":" + longest + "x"));
  // One of 512 passes that test and fails the next.
  ExpectTooSmall('2', Find("tool", longest));
}

TEST_F(FilePathFind, RefusesAnElementWithTheNameBeyond512Characters) {
  std::string element = bin_;
  while (element.size() < 512 - 5) element += "/";
  element.resize(512 - 5, '/');
  EXPECT_EQ(OPL_OK, Find("tool", element));
  ExpectTooSmall('2', Find("tool", element + "/"));
  ExpectTooSmall('2', Find("tool", "/nowhere:" + element + "/"));
}

TEST_F(FilePathFind, FailsWithoutMemory) {
  for (const int nth : {1, 2}) {
    const opltest::FailingMemory memory(nth);
    EXPECT_EQ(OPL_FILE_E_NO_MEMORY, Find("tool", bin_));
    EXPECT_TRUE(memory.Fired());
  }
  const opltest::FailingMemory memory(1);
  EXPECT_EQ(OPL_FILE_E_NO_MEMORY, Find("bin/tool", bin_));
}

TEST_F(FilePathFind, NeedsANameAndABuffer) {
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileExecutablePathFind(nullptr, buffer_, sizeof buffer_));
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileExecutablePathFind("tool", nullptr, 100));
  EXPECT_STREQ("unchanged", buffer_);
}

TEST_F(FileCanonicalName, ResolvesLinksAndDots) {
  ASSERT_EQ(0, ::symlink("bin", "link"));
  EXPECT_EQ(OPL_OK, Get("./link/../sbin/./tool"));
  EXPECT_EQ(sbin_ + "/tool", buffer_);
}

TEST_F(FileCanonicalName, KeepsASlashAtTheEnd) {
  EXPECT_EQ(OPL_OK, Get("bin/"));
  EXPECT_EQ(bin_ + "/", buffer_);
  EXPECT_EQ(OPL_OK, Get("bin///"));
  EXPECT_EQ(bin_ + "/", buffer_);
  EXPECT_EQ(OPL_OK, Get("bin"));
  EXPECT_EQ(bin_, buffer_);
}

TEST_F(FileCanonicalName, AddsNoSecondSlashToTheRoot) {
  EXPECT_EQ(OPL_OK, Get("/"));
  EXPECT_STREQ("/", buffer_);
}

TEST_F(FileCanonicalName, TakesABackslashAtTheEndAsASlash) {
  opltest::WriteFile("odd\\", "");
  EXPECT_EQ(OPL_OK, Get("odd\\"));
  EXPECT_EQ(work_ + "/odd\\", buffer_);
  ASSERT_EQ(0, ::symlink("bin", "link\\"));
  EXPECT_EQ(OPL_OK, Get("link\\"));
  EXPECT_EQ(bin_ + "/", buffer_);
}

TEST_F(FileCanonicalName, AddsTheSlashOnlyWhereItFits) {
  const auto length = static_cast<uint32_t>(bin_.size());
  EXPECT_EQ(OPL_OK, Get("bin/", length + 2));
  EXPECT_EQ(bin_ + "/", buffer_);
  EXPECT_EQ(OPL_FILE_E_TOO_SMALL, Get("bin/", length + 1));
  EXPECT_EQ(static_cast<uint32_t>(OPL_FILE_E_TOO_SMALL), OPL_ErrCodeGet(0));
  EXPECT_EQ(OPL_OK, Get("bin", 1));
}

TEST_F(FileCanonicalName, RecordsWhatTheSystemRefuses) {
  EXPECT_EQ(OPL_FILE_E_CANONICAL, Get("missing/file"));
  EXPECT_EQ(static_cast<uint32_t>(ENOENT), OPL_ErrCodeGet(0));
  EXPECT_EQ(OPL_FILE_E_CANONICAL, Get(""));
  const Fault fault("realpath", 1, EACCES);
  EXPECT_EQ(OPL_FILE_E_CANONICAL, Get("bin"));
  EXPECT_EQ(static_cast<uint32_t>(EACCES), OPL_ErrCodeGet(0));
}

TEST_F(FileCanonicalName, NeedsAPathAndABuffer) {
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, Get(nullptr));
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileCanonicalNameGet("bin", nullptr, 100));
}

}  // namespace
