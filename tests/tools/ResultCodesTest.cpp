// scripts/result-codes refuses headers and causes that do not fit together.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/Instance.h"

namespace {

using opltest::ContentsOf;
using opltest::WriteFile;
using ::testing::HasSubstr;

namespace fs = std::filesystem;

// A copy of what the script reads, in the test's directory.
class ResultCodes : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* const part : {"include", "opl_err/codes", "scripts", "docs"})
      fs::create_directories(part);
    fs::copy(QVOPL_SOURCES "/include", "include", fs::copy_options::recursive);
    fs::copy(QVOPL_SOURCES "/opl_err/codes", "opl_err/codes", fs::copy_options::recursive);
    fs::copy(QVOPL_SOURCES "/scripts/result-codes", "scripts/result-codes");
    fs::copy(QVOPL_SOURCES "/docs/result-codes.md", "docs/result-codes.md");
  }

  static void Replace(const std::string& file, const std::string& from, const std::string& to) {
    std::string text = ContentsOf(file);
    const size_t at = text.find(from);
    ASSERT_NE(std::string::npos, at) << from;
    WriteFile(file, text.replace(at, from.size(), to));
  }

  // Its exit status; what it says lies in the file "said".
  static int Check() {
    const int status = std::system("scripts/result-codes --check >said 2>&1");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static void ExpectRefusal(const std::string& text) {
    EXPECT_EQ(1, Check());
    EXPECT_THAT(ContentsOf("said"), HasSubstr(text));
  }
};

TEST_F(ResultCodes, AcceptsTheSources) {
  EXPECT_EQ(0, Check()) << ContentsOf("said");
  EXPECT_EQ("", ContentsOf("said"));
}

TEST_F(ResultCodes, RefusesADocumentThatIsNotTheirs) {
  Replace("docs/result-codes.md", "no memory", "no memories");
  ExpectRefusal("docs/result-codes.md is not what scripts/result-codes makes");
  ASSERT_EQ(0, std::system("scripts/result-codes"));
  EXPECT_EQ(0, Check());
}

TEST_F(ResultCodes, RefusesACodeWithoutCauses) {
  Replace("include/OPL_Mem.h", "  OPL_MEM_E_NO_MEMORY = 0x050C01, ",
          "  OPL_MEM_E_NEW = 0x050C03, /**< new */\n  OPL_MEM_E_NO_MEMORY = 0x050C01, ");
  ExpectRefusal("no causes for OPL_MEM_E_NEW");
}

TEST_F(ResultCodes, RefusesCausesWithoutACode) {
  Replace("opl_err/codes/causes.txt", "OPL_MEM_E_NULL_ARGUMENT\n", "OPL_MEM_E_NULL_ARGUMENT OPL_MEM_E_OLD\n");
  ExpectRefusal("causes without a code: OPL_MEM_E_OLD");
}

TEST_F(ResultCodes, RefusesCausesThatStandTwice) {
  Replace("opl_err/codes/causes.txt", "OPL_MEM_E_NULL_ARGUMENT\n",
          "OPL_MEM_E_NULL_ARGUMENT OPL_SYNC_E_NO_MEMORY\n");
  ExpectRefusal("has causes twice");
}

TEST_F(ResultCodes, RefusesCausesWithoutARemedy) {
  Replace("opl_err/codes/causes.txt", "  do: Pass 0 for mode", "  Pass 0 for mode");
  ExpectRefusal("needs causes: and do:");
}

TEST_F(ResultCodes, RefusesANumberThatStandsTwice) {
  Replace("include/OPL_Mem.h", "OPL_MEM_E_NO_MEMORY = 0x050C01", "OPL_MEM_E_NO_MEMORY = 0x050C02");
  ExpectRefusal("0x050C02 stands for 2 codes");
}

TEST_F(ResultCodes, RefusesACodeOfNoModule) {
  Replace("include/OPL_Mem.h", "OPL_MEM_E_NO_MEMORY = 0x050C01", "OPL_MEM_E_NO_MEMORY = 0x050A01");
  ExpectRefusal("belongs to no module");
}

TEST_F(ResultCodes, RefusesACodeWithoutAMeaning) {
  Replace("include/OPL_Mem.h", "OPL_MEM_E_NO_MEMORY = 0x050C01,    /**< no memory for a new context */",
          "OPL_MEM_E_NO_MEMORY = 0x050C01,");
  ExpectRefusal("no number or no comment: OPL_MEM_E_NO_MEMORY");
}

TEST_F(ResultCodes, RefusesAReturnOfAnUnknownCode) {
  Replace("include/OPL_Mem.h", "@return OPL_MEM_E_NO_MEMORY ", "@return OPL_MEM_E_NO_MEMORIES ");
  ExpectRefusal("OPL_MemContextCreate: @return names OPL_MEM_E_NO_MEMORIES, which is no code");
}

TEST_F(ResultCodes, RefusesAReturnLikeAnUnknownFunction) {
  Replace("include/OPL_Server.h", "@return as OPL_ServerStop\n", "@return as OPL_ServerHalt\n");
  ExpectRefusal("@return names OPL_ServerHalt, which is no function");
}

TEST_F(ResultCodes, RefusesAFunctionThatTellsNoCodes) {
  Replace("include/OPL_Server.h", " * @return as OPL_ServerStop\n */\nOPL_API OPL_Result OPL_ServerTerminate",
          " */\nOPL_API OPL_Result OPL_ServerTerminate");
  ExpectRefusal("OPL_ServerTerminate: no @return tells its codes");
}

TEST_F(ResultCodes, RefusesACodeThatNoFunctionReturns) {
  Replace("include/OPL_Mem.h", " * @return OPL_MEM_E_NO_MEMORY      the system has no memory\n", "");
  ExpectRefusal("no function returns OPL_MEM_E_NO_MEMORY, and it is not reserved");
}

TEST_F(ResultCodes, RefusesAReservedCodeThatIsReturned) {
  Replace("include/OPL_Mem.h", "/**< no memory for a new context */", "/**< reserved; no memory */");
  ExpectRefusal("OPL_MEM_E_NO_MEMORY is reserved, and a function returns it");
}

}  // namespace
