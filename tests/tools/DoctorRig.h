// Runs the administrator's tool in a test's instance, and makes the faults that it is to find.
#ifndef OPL_TESTS_TOOLS_DOCTOR_RIG_H
#define OPL_TESTS_TOOLS_DOCTOR_RIG_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Instance.h"
#include "tests/tools/Tool.h"

namespace opltest {

// Where no job of the machine that the test runs on is in sight.
inline std::string EmptyRoot() {
  const std::string root = WorkDirectory() + "/root";
  std::filesystem::create_directories(root);
  return root;
}

// Nor its limits, as long as there is anything left.
inline ToolRun Doctor(std::vector<std::string> more = {}, const char* threshold = "100") {
  std::vector<std::string> arguments{"doctor", "--root", EmptyRoot(), "--threshold", threshold};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return RunTool(arguments);
}

// What the system calls a process of this test program.
inline std::string ProcessName() {
  std::string name = ContentsOf("/proc/self/comm");
  name.pop_back();
  return name;
}

inline std::string FileOf(const std::string& name, const std::string& marker) {
  return name + marker + InstanceString() + ".006.021";
}

inline std::string PathOf(const std::string& file) { return IpcDirectory() + "/" + file; }

// What doctor says of one finding.
inline std::string Told(const std::string& severity, const std::string& subject,
                        const std::vector<std::string>& lines) {
  std::string text = severity + std::string(9 - severity.size(), ' ') + subject + "\n";
  for (const std::string& line : lines) text += "         " + line + "\n";
  return text;
}

inline void ExpectHealthy(const std::vector<std::string>& arguments = {}) {
  const ToolRun run = Doctor(arguments);
  EXPECT_EQ(0, run.status) << run.out << run.err;
  EXPECT_THAT(run.out, ::testing::StartsWith("Nothing is wrong: "));
}

// Doctor says exactly this, repairs it, and finds nothing after.
inline void ExpectFoundAndRepaired(const std::string& told, const std::string& repaired,
                                   const std::vector<std::string>& more = {}) {
  const ToolRun found = Doctor(more);
  EXPECT_EQ(1, found.status) << found.err;
  EXPECT_THAT(found.out, ::testing::StartsWith(told));
  std::vector<std::string> fix{"--fix", "--yes"};
  fix.insert(fix.end(), more.begin(), more.end());
  const ToolRun fixed = Doctor(fix);
  EXPECT_EQ(0, fixed.status) << fixed.out << fixed.err;
  EXPECT_THAT(fixed.out, ::testing::HasSubstr(repaired));
  ExpectHealthy(more);
}

// What the tool shows at a terminal of that width, given these answers.
inline std::string AtTerminal(const std::vector<std::string>& arguments, unsigned short columns,
                              const std::string& answers) {
  winsize size{24, columns, 0, 0};
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (pid == 0) {
    (void)::setenv("NO_COLOR", "1", 1);
    ExecuteTool(arguments, kWidth);
  }
  EXPECT_EQ(static_cast<ssize_t>(answers.size()), ::write(terminal, answers.data(), answers.size()));
  std::string shown;
  char buffer[512];
  for (ssize_t length = 0; (length = ::read(terminal, buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<size_t>(length));
  (void)::close(terminal);
  std::erase(shown, '\r');
  return shown + "exit " + std::to_string(AwaitStatus(pid)) + "\n";
}

}  // namespace opltest

#endif
