// qvopl explain: the forms in which a code may be asked for, and what it tells.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Server.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "tests/tools/Tool.h"

namespace {

using nlohmann::json;
using opltest::ContentsOf;
using opltest::JsonOf;
using opltest::RunTool;
using opltest::RunToolOnTerminal;
using opltest::ToolRun;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

json CodesOf(const std::vector<std::string>& arguments) {
  std::vector<std::string> all{"explain"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  all.emplace_back("--json");
  return JsonOf(RunTool(all))["codes"];
}

// The column where the longest line of a terminal's output ends, escape sequences apart.
size_t WidestLine(const std::string& output) {
  const std::string plain = std::regex_replace(output, std::regex("\x1b\\[[0-9;]*m|\r"), "");
  std::istringstream lines(plain);
  size_t widest = 0;
  for (std::string line; std::getline(lines, line);) widest = std::max(widest, line.size());
  return widest;
}

TEST(Explain, TellsNameMeaningModuleCausesAndFunctions) {
  const ToolRun run = RunTool({"explain", "0x05005E"});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.err);
  EXPECT_THAT(run.out, StartsWith("0x05005E OPL_SYNC_E_MISMATCH\n"));
  EXPECT_THAT(run.out, HasSubstr("The name stands for another object than the handle."));
  EXPECT_THAT(run.out, HasSubstr("0x00 opl_sync"));
  EXPECT_THAT(run.out, HasSubstr("OPL_Sync.h"));
  EXPECT_THAT(run.out, HasSubstr("likely causes"));
  EXPECT_THAT(run.out, HasSubstr("what to do"));
  EXPECT_THAT(run.out, HasSubstr("OPL_SyncMutexClose"));
}

TEST(Explain, TakesEveryFormOfACode) {
  const std::string expected = RunTool({"explain", "0x05005E"}).out;
  for (const char* const form : {"05005e", "05005E", "0X5005e", "5005E", "327774", "OPL_SYNC_E_MISMATCH",
                                 "opl_sync_e_mismatch", "SYNC_E_MISMATCH"}) {
    SCOPED_TRACE(form);
    const ToolRun run = RunTool({"explain", form});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(expected, run.out);
  }
}

TEST(Explain, TakesDigitsAloneForHexadecimalWhereTheyAreNoDecimalCode) {
  EXPECT_EQ("OPL_SYNC_E_NO_MEMORY", CodesOf({"050001"})[0]["name"]);
  EXPECT_EQ("OPL_SYNC_E_NO_MEMORY", CodesOf({"50001"})[0]["name"]);
  EXPECT_EQ("OPL_SYNC_E_NO_MEMORY", CodesOf({"327681"})[0]["name"]);
}

TEST(Explain, HasTheNumbersOfTheHeaders) {
  const json codes = CodesOf({"OPL_SYNC_E_SEMOP", "OPL_SOCKET_E_TIMEOUT", "OPL_SERVER_E_PARAM"});
  ASSERT_EQ(3u, codes.size());
  EXPECT_EQ(static_cast<uint32_t>(OPL_SYNC_E_SEMOP), codes[0]["number"]);
  EXPECT_EQ(static_cast<uint32_t>(OPL_SOCKET_E_TIMEOUT), codes[1]["number"]);
  EXPECT_EQ(static_cast<uint32_t>(OPL_SERVER_E_PARAM), codes[2]["number"]);
  EXPECT_EQ("0x050023", codes[0]["code"]);
  EXPECT_EQ("opl_sync", codes[0]["module"]["name"]);
  EXPECT_EQ("OPL_Socket.h", codes[1]["header"]);
}

TEST(Explain, TellsWhichFunctionsReturnACodeAndWhichHandItOn) {
  const json code = CodesOf({"OPL_SYNC_E_NOT_HELD"})[0];
  ASSERT_EQ(2u, code["returnedBy"].size());
  EXPECT_EQ("OPL_SharedMemLockedRelease", code["returnedBy"][0]["function"]);
  EXPECT_EQ("OPL_SyncRWLockUnlock", code["returnedBy"][1]["function"]);
  EXPECT_EQ("the thread holds nothing", code["returnedBy"][1]["when"]);
  EXPECT_EQ(json::array(), code["passedOnBy"]);
  EXPECT_EQ(json({"OPL_SharedMemLockedGet"}), CodesOf({"OPL_SYNC_E_BAD_LOCK_MODE"})[0]["passedOnBy"]);
}

TEST(Explain, MarksReservedCodes) {
  const json code = CodesOf({"OPL_FILE_E_ACCESS"})[0];
  EXPECT_EQ(true, code["reserved"]);
  EXPECT_EQ(json::array(), code["returnedBy"]);
}

TEST(Explain, ListsEveryCodeOfTheHeaders) {
  const std::regex enumerator(R"((OPL_[A-Z]+_E_[A-Z_]+)\s*=\s*0x)");
  std::set<std::string> names{"OPL_OK"};
  for (const auto& header : std::filesystem::directory_iterator(QVOPL_SOURCES "/include")) {
    const std::string text = ContentsOf(header.path());
    for (std::sregex_iterator it(text.begin(), text.end(), enumerator), end; it != end; ++it)
      names.insert((*it)[1]);
  }
  EXPECT_LT(200u, names.size());
  std::set<std::string> listed;
  for (const json& code : CodesOf({})) listed.insert(code["name"]);
  EXPECT_EQ(names, listed);
  std::istringstream lines(RunTool({"explain"}).out);
  size_t count = 0;
  for (std::string line; std::getline(lines, line);) ++count;
  EXPECT_EQ(names.size() + 1, count);  // and the titles
}

TEST(Explain, EveryCodeHasCausesAndARemedy) {
  for (const json& code : CodesOf({})) {
    if (code["number"] == 0) continue;
    EXPECT_LT(20u, code["causes"].get<std::string>().size()) << code["name"];
    EXPECT_LT(10u, code["remedy"].get<std::string>().size()) << code["name"];
    EXPECT_TRUE(code["reserved"] == true || !code["returnedBy"].empty() || !code["passedOnBy"].empty())
        << code["name"];
  }
}

TEST(Explain, ExplainsSeveralCodes) {
  const ToolRun run = RunTool({"explain", "0x050001", "0x050005"});
  EXPECT_EQ(0, run.status);
  EXPECT_THAT(run.out, StartsWith("0x050001 OPL_SYNC_E_NO_MEMORY\n"));
  EXPECT_THAT(run.out, HasSubstr("\n\n0x050005 OPL_SYNC_E_MUTEX_MISSING\n"));
}

TEST(Explain, KnowsSuccess) {
  for (const char* const form : {"0", "0x000000", "OPL_OK"}) {
    const ToolRun run = RunTool({"explain", form});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.out, StartsWith("0x000000 OPL_OK\n"));
  }
}

TEST(Explain, SaysWhichCodeOrModuleThereIsNot) {
  struct Case {
    const char* asked;
    const char* text;
  };
  for (const Case& entry : {
           Case{"0x0500FF", "0x0500FF is no result code: module opl_sync has no code 0xFF\n"},
           Case{"0x050A01", "0x050A01 is no result code: there is no module 0x0A\n"},
           Case{"0x123456", "0x123456 is no result code: those of the library are 0x05MMCC\n"},
           Case{"4294967295", "0xFFFFFFFF is no result code: those of the library are 0x05MMCC\n"},
           Case{"OPL_SYNC_E_NOTHING", "OPL_SYNC_E_NOTHING is no result code's name\n"},
       }) {
    const ToolRun run = RunTool({"explain", entry.asked});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(entry.text, run.out);
    EXPECT_EQ("", run.err);
  }
}

TEST(Explain, TellsTheSystemsNumbersFromCodes) {
  const ToolRun run = RunTool({"explain", std::to_string(ENOSPC)});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, HasSubstr("ENOSPC, No space left on device"));
}

TEST(Explain, GoesOnBehindAnUnknownCode) {
  const ToolRun run = RunTool({"explain", "0x0500FF", "0x050001", "--json"});
  EXPECT_EQ(1, run.status);
  const json answer = JsonOf(run);
  EXPECT_EQ("OPL_SYNC_E_NO_MEMORY", answer["codes"][0]["name"]);
  EXPECT_EQ("0x0500FF", answer["unknown"][0]["asked"]);
}

TEST(Explain, RefusesWhatIsNoCode) {
  for (const char* const rubbish :
       {"banana", "0x", "0x05005G", "", "-1", "4294967296", "0x05005E ", "\x1b[31m"}) {
    SCOPED_TRACE(rubbish);
    const ToolRun run = RunTool({"explain", "--", rubbish});
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("", run.out);
    EXPECT_THAT(run.err, StartsWith("qvopl: neither a result code nor the name of one: "));
    EXPECT_THAT(run.err, Not(HasSubstr("\x1b")));
  }
}

TEST(Explain, FitsATerminal) {
  for (const unsigned short columns : std::initializer_list<unsigned short>{40, 80, 200}) {
    SCOPED_TRACE(columns);
    const ToolRun one =
        RunToolOnTerminal({"explain", "OPL_SYNC_E_MUTEX_MISSING", "0", "28", "0x0500FF"}, columns);
    EXPECT_EQ(1, one.status);
    EXPECT_GE(size_t{columns}, WidestLine(one.out));
    const ToolRun all = RunToolOnTerminal({"explain"}, columns);
    EXPECT_EQ(0, all.status);
    EXPECT_GE(size_t{columns}, WidestLine(all.out));
  }
}

TEST(Explain, IsColouredOnATerminalAlone) {
  EXPECT_THAT(RunToolOnTerminal({"explain", "0x050001"}, 80).out, HasSubstr("\x1b["));
  EXPECT_THAT(RunTool({"explain", "0x050001"}).out, Not(HasSubstr("\x1b")));
  ASSERT_EQ(0, ::setenv("NO_COLOR", "1", 1));
  EXPECT_THAT(RunToolOnTerminal({"explain", "0x050001"}, 80).out, Not(HasSubstr("\x1b")));
}

TEST(Explain, HasExamplesInItsHelp) {
  const ToolRun run = RunTool({"explain", "--help"});
  EXPECT_EQ(0, run.status);
  EXPECT_THAT(run.out, HasSubstr("qvopl explain 0x05005E"));
}

TEST(Explain, IsTheSameInBothWidths) {
  const int other = 96 - opltest::kWidth;
  if (opltest::ToolOf(other).empty()) GTEST_SKIP() << "no program of " << other << " bits";
  EXPECT_EQ(RunTool({"explain", "--json"}).out, RunTool({"explain", "--json"}, other).out);
}

}  // namespace
