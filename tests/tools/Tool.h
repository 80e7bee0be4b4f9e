// Runs qvopl as an administrator does.
#ifndef OPL_TESTS_TOOLS_TOOL_H
#define OPL_TESTS_TOOLS_TOOL_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/Instance.h"

namespace opltest {

struct ToolRun {
  int status = -1;  // the exit status; negative for a signal
  std::string out;
  std::string err;
};

// The program of a width; empty when it was not built.
inline std::string ToolOf(int width) {
  std::string program = QVOPL_TEST_PROGRAMS "/../tools/qvopl";
  const size_t at = program.rfind("-" + std::to_string(kWidth) + "/");
  if (width != kWidth && at == std::string::npos) return "";
  if (width != kWidth) program.replace(at + 1, 2, std::to_string(width));
  return ::access(program.c_str(), X_OK) == 0 ? program : "";
}

inline int AwaitStatus(pid_t pid) {
  int status = -1;
  while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) continue;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

[[noreturn]] inline void ExecuteTool(const std::vector<std::string>& arguments, int width) {
  const std::string program = ToolOf(width);
  std::vector<char*> line{const_cast<char*>("qvopl")};
  for (const std::string& argument : arguments) line.push_back(const_cast<char*>(argument.c_str()));
  line.push_back(nullptr);
  (void)::execv(program.c_str(), line.data());
  ::_exit(126);
}

inline ToolRun RunTool(const std::vector<std::string>& arguments, int width = kWidth) {
  char out[] = "out.XXXXXX";
  char err[] = "err.XXXXXX";
  const int outFd = ::mkostemp(out, O_CLOEXEC);
  const int errFd = ::mkostemp(err, O_CLOEXEC);
  EXPECT_NE(-1, outFd);
  EXPECT_NE(-1, errFd);
  const pid_t pid = ::fork();
  if (pid == 0) {
    (void)::dup2(outFd, STDOUT_FILENO);
    (void)::dup2(errFd, STDERR_FILENO);
    ExecuteTool(arguments, width);
  }
  ToolRun run;
  run.status = AwaitStatus(pid);
  run.out = ContentsOf(out);
  run.err = ContentsOf(err);
  for (const int fd : {outFd, errFd}) (void)::close(fd);
  for (const char* const file : {out, err}) (void)::unlink(file);
  return run;
}

// With its output on a terminal of that many columns.
inline ToolRun RunToolOnTerminal(const std::vector<std::string>& arguments, unsigned short columns) {
  winsize size{};
  size.ws_row = 24;
  size.ws_col = columns;
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (pid == 0) {
    (void)::setenv("TERM", "xterm", 1);
    ExecuteTool(arguments, kWidth);
  }
  ToolRun run;
  char buffer[4096];
  for (ssize_t count = 0; (count = ::read(terminal, buffer, sizeof buffer)) > 0;)
    run.out.append(buffer, static_cast<size_t>(count));
  run.status = AwaitStatus(pid);
  (void)::close(terminal);
  return run;
}

// What --json printed; fails the test where that is no JSON.
inline nlohmann::json JsonOf(const ToolRun& run) {
  nlohmann::json json = nlohmann::json::parse(run.out, nullptr, false);
  EXPECT_FALSE(json.is_discarded()) << run.out << run.err;
  return json;
}

}  // namespace opltest

#endif
