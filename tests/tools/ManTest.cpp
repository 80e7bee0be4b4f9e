// The manual page: its formatter has nothing to say against it, and it has every command and option.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/Instance.h"
#include "tests/tools/Tool.h"

namespace {

using opltest::ContentsOf;
using opltest::RunTool;
using ::testing::HasSubstr;

constexpr char kPage[] = QVOPL_SOURCES "/tools/man/qvopl.1";

bool HasProgram(const std::string& name) {
  return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

std::vector<std::string> Matches(const std::string& text, const char* pattern) {
  const std::regex expression(pattern, std::regex::multiline);
  std::vector<std::string> found;
  for (std::sregex_iterator it(text.begin(), text.end(), expression), end; it != end; ++it)
    found.push_back((*it)[1]);
  return found;
}

std::vector<std::string> CommandsIn(const std::string& help) {
  const size_t at = help.find("\nSubcommands:\n");
  if (at == std::string::npos) return {};
  return Matches(help.substr(at, help.find("\n\n", at) - at), "^  ([a-z]+) ");
}

// Hyphens as they are typed, without what stands for the font.
std::string Plain(const std::string& page) {
  return std::regex_replace(std::regex_replace(page, std::regex("\\\\-"), "-"), std::regex("\\\\f[A-Z]"), "");
}

void ExpectAllIn(const std::string& page, const std::vector<std::string>& command) {
  std::vector<std::string> line = command;
  line.emplace_back("--help");
  const std::string help = RunTool(line).out;
  for (const std::string& option : Matches(help, "^  (?:-[a-z],)?(--[a-z-]+)"))
    EXPECT_THAT(page, HasSubstr(option)) << (command.empty() ? "" : command.back());
  for (const std::string& name : CommandsIn(help)) {
    EXPECT_THAT(page, HasSubstr(name));
    std::vector<std::string> nested = command;
    nested.push_back(name);
    ExpectAllIn(page, nested);
  }
}

TEST(Man, HasEveryCommandAndOption) {
  const std::string page = Plain(ContentsOf(kPage));
  const std::string help = RunTool({"--help"}).out;
  for (const std::string& command : CommandsIn(help))
    EXPECT_THAT(page, HasSubstr("\n.SS " + command)) << command;
  ExpectAllIn(page, {});
}

TEST(Man, IsFormattedWithoutAWarning) {
  if (!HasProgram("man")) GTEST_SKIP() << "there is no man";
  ASSERT_EQ(0, std::system(("MANWIDTH=80 LC_ALL=C.UTF-8 man --warnings --local-file -Tutf8 '" +
                            std::string(kPage) + "' >page 2>said")
                               .c_str()));
  EXPECT_EQ("", ContentsOf("said"));
  EXPECT_THAT(ContentsOf("page"), HasSubstr("qvopl server start --parameters product.conf"));
}

TEST(Man, PassesTheCheckOfTheOtherFormatter) {
  if (!HasProgram("mandoc")) GTEST_SKIP() << "there is no mandoc";
  EXPECT_EQ(0, std::system(("mandoc -Tlint -Wwarning '" + std::string(kPage) + "' >said 2>&1").c_str()))
      << ContentsOf("said");
}

}  // namespace
