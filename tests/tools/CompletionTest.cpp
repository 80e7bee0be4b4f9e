// The completions of bash and zsh, asked as the shells ask them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Sync.h"
#include "tests/support/Instance.h"
#include "tests/tools/Tool.h"

namespace {

using opltest::ContentsOf;
using opltest::WriteFile;
using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::IsSubsetOf;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

using Words = std::set<std::string>;

constexpr char kSet[] = "QVOPL_SHELL=";

Words LinesOf(const std::string& text) {
  std::istringstream lines(text);
  Words words;
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) words.insert(line);
  return words;
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

bool HasShell(const std::string& shell) {
  return std::system(("command -v " + shell + " >/dev/null 2>&1").c_str()) == 0;
}

// What is completed behind a line whose words are separated by blanks; a blank at its end begins another
// word.
Words Bash(const std::string& line) {
  WriteFile("ask.bash",
            "set -u\n"
            "source " QVOPL_SOURCES
            "/tools/completion/qvopl.bash\n"
            "line=$1\n"
            // bash parts words at an equals sign, too.
            "read -ra COMP_WORDS <<<\"${line//=/ = }\"\n"
            "[[ $line == *' ' ]] && COMP_WORDS+=('')\n"
            "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
            "_qvopl\n"
            "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
  const int status = std::system(("bash ask.bash " + Quoted(line) + " >words 2>said").c_str());
  EXPECT_EQ(0, status);
  EXPECT_EQ("", ContentsOf("said"));
  return LinesOf(ContentsOf("words"));
}

Words Zsh(const std::string& line) {
  const int status =
      std::system(("zsh -f " QVOPL_SOURCES "/tests/tools/complete-zsh " QVOPL_SOURCES "/tools/completion " +
                   Quoted(line) + " >words 2>said")
                      .c_str());
  EXPECT_EQ(0, status) << ContentsOf("said");
  return LinesOf(ContentsOf("words"));
}

struct Shell {
  const char* name;
  Words (*complete)(const std::string& line);
};

class Completion : public opltest::Instance, public ::testing::WithParamInterface<Shell> {
 protected:
  void SetUp() override {
    Instance::SetUp();
    const std::string path = std::string(QVOPL_TEST_PROGRAMS "/../tools:") + std::getenv("PATH");
    ASSERT_EQ(0, ::setenv("PATH", path.c_str(), 1));
    if (!HasShell(GetParam().name)) GTEST_SKIP() << "there is no " << GetParam().name;
  }
  static Words Complete(const std::string& line) { return GetParam().complete(line); }
};
INSTANTIATE_TEST_SUITE_P(Shell, Completion, ::testing::Values(Shell{"bash", Bash}, Shell{"zsh", Zsh}),
                         [](const ::testing::TestParamInfo<Shell>& each) {
                           return std::string(each.param.name);
                         });

TEST_P(Completion, KnowsTheCommands) {
  const Words commands = Complete("qvopl ");
  for (const char* const command : {"list", "explain", "limits", "server"})
    EXPECT_THAT(commands, Contains(command));
  EXPECT_THAT(Complete("qvopl ex"), UnorderedElementsAre("explain"));
}

TEST_P(Completion, KnowsTheCommandsOfServer) {
  EXPECT_THAT(Complete("qvopl server st"), UnorderedElementsAre("start", "stop", "status"));
  EXPECT_THAT(Complete("qvopl server start st"), IsEmpty());
}

TEST_P(Completion, KnowsTheOptionsOfACommand) {
  EXPECT_THAT(Complete("qvopl limits --thr"), UnorderedElementsAre("--threshold"));
  EXPECT_THAT(Complete("qvopl server start --timeo"), UnorderedElementsAre("--timeout"));
  EXPECT_THAT(Complete("qvopl server status --timeo"), IsEmpty());
}

TEST_P(Completion, KnowsTheCodes) {
  EXPECT_THAT(Complete("qvopl explain OPL_USERINFO"),
              UnorderedElementsAre("OPL_USERINFO_E_TOO_SMALL", "OPL_USERINFO_E_INVALID_MODE",
                                   "OPL_USERINFO_E_LOOKUP", "OPL_USERINFO_E_NULL_ARGUMENT"));
}

TEST_P(Completion, KnowsFilesAndDirectories) {
  ASSERT_EQ(0, std::system("mkdir folder && touch forms"));
  EXPECT_THAT(Complete("qvopl server start --parameters fo"), Contains("forms"));
  const Words folders = Complete("qvopl server start --script-directory fo");
  EXPECT_THAT(folders, Contains("folder"));
  EXPECT_THAT(folders, Not(Contains("forms")));
  EXPECT_THAT(Complete("qvopl server start --script-directory=fo"), Contains("folder"));
}

TEST_P(Completion, OffersNothingForANumber) { EXPECT_THAT(Complete("qvopl limits --threshold "), IsEmpty()); }

TEST_P(Completion, KnowsObjectsAndInstances) {
  OPL_SyncMutex* mutexes[3] = {};
  const char* const names[] = {"queue", "quota", "q q\x1b"};
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(OPL_OK, OPL_SyncMutexCreate(&mutexes[i], 0, names[i], OPL_SYNC_MUTEX_PRIVATE));
  for (const char* const command : {"list", "show", "watch"})
    EXPECT_THAT(Complete(std::string("qvopl ") + command + " q"), UnorderedElementsAre("queue", "quota"))
        << command;
  EXPECT_THAT(Complete("qvopl list --instance "), Contains(opltest::InstanceString()));
  const std::string directory = opltest::IpcDirectory();
  ASSERT_EQ(0, ::setenv("QVOPL_IPC_PATH", "/nowhere", 1));
  EXPECT_THAT(Complete("qvopl list q"), IsEmpty());
  EXPECT_THAT(Complete("qvopl list --ipc-path " + directory + " q"), UnorderedElementsAre("queue", "quota"));
  ASSERT_EQ(0, ::setenv("QVOPL_IPC_PATH", directory.c_str(), 1));
  for (OPL_SyncMutex* mutex : mutexes) EXPECT_EQ(OPL_OK, OPL_SyncMutexClose(&mutex));
}

// A line may hold anything when the key is pressed.
TEST_P(Completion, TakesWhatIsTypedForText) {
  for (const char* const line :
       {"qvopl --/;e", "qvopl limits --$(touch$IFS@here) ", "qvopl server start --/x/e "})
    (void)Complete(line);
  EXPECT_EQ(-1, ::access("here", F_OK));
}

}  // namespace
