#include "tests/support/Program.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace opltest {

std::string OutputOf(const std::string& path, const std::vector<std::string>& arguments) {
  char output[] = "output.XXXXXX";
  const int fd = ::mkstemp(output);
  if (fd == -1) std::abort();
  std::vector<char*> line{const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments) line.push_back(const_cast<char*>(argument.c_str()));
  line.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == -1) std::abort();
  if (pid == 0) {
    (void)::dup2(fd, STDOUT_FILENO);
    (void)::execv(path.c_str(), line.data());
    ::_exit(127);
  }
  ::close(fd);
  int status = -1;
  (void)::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << path << ": wait status " << status;
  std::ifstream file(output, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  (void)::unlink(output);
  return text;
}

}  // namespace opltest
