#include "tests/support/Child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace opltest {

namespace {

constexpr char kStep = '.';

bool ReadByte(int fd, char* byte) {
  ssize_t count;
  do count = ::read(fd, byte, 1);
  while (count == -1 && errno == EINTR);
  return count == 1;
}

void WriteAll(int fd, const char* text, size_t length) {
  while (length != 0) {
    const ssize_t count = ::write(fd, text, length);
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) return;
    text += count;
    length -= static_cast<size_t>(count);
  }
}

bool ReadLine(int fd, std::string* line) {
  for (char byte; ReadByte(fd, &byte);) {
    if (byte == '\n') return true;
    *line += byte;
  }
  return false;
}

void WriteLine(int fd, const std::string& line) {
  const std::string whole = line + '\n';
  WriteAll(fd, whole.data(), whole.size());
}

// The state letter behind the program's name, which may hold blanks and brackets itself.
char StateOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(file, line);
  const size_t bracket = line.rfind(')');
  return bracket != std::string::npos && bracket + 2 < line.size() ? line[bracket + 2] : '\0';
}

// False also where the system does not tell.
bool IsInFutexCall(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/syscall");
  long number = -1;
  return file >> number && number == SYS_futex;
}

bool TellsSystemCalls(pid_t pid) {
  return std::ifstream("/proc/" + std::to_string(pid) + "/syscall").peek() != EOF;
}

}  // namespace

void Steps::Reach() { WriteAll(toParent_, &kStep, 1); }

void Steps::WaitForGo() {
  char byte;
  if (!ReadByte(fromParent_, &byte)) ::_exit(3);  // the test is gone
}

void Steps::Send(const std::string& line) { WriteLine(toParent_, line); }

std::string Steps::Receive() {
  std::string line;
  if (!ReadLine(fromParent_, &line)) ::_exit(3);  // the test is gone
  return line;
}

void AwaitSleepOnLock(pid_t id) {
  for (;;) {
    const char state = StateOf(id);
    ASSERT_TRUE(state != 'Z' && state != '\0') << "it ended instead of waiting";
    if (state == 'S' && (IsInFutexCall(id) || !TellsSystemCalls(id))) return;
    (void)::sched_yield();
  }
}

Child::Child(const std::function<void(Steps&)>& body, End end) {
  int down[2];
  int up[2];
  if (::pipe2(down, O_CLOEXEC) == -1 || ::pipe2(up, O_CLOEXEC) == -1) std::abort();
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ == -1) std::abort();
  if (pid_ == 0) {
    ::close(down[1]);
    ::close(up[0]);
    Steps steps(up[1], down[0]);
    body(steps);
    std::fflush(nullptr);
    const int status = ::testing::Test::HasFailure() ? 1 : 0;
    if (end == End::kOrdinarily) std::exit(status);
    ::_exit(status);
  }
  ::close(down[0]);
  ::close(up[1]);
  toChild_ = down[1];
  fromChild_ = up[0];
}

Child::~Child() {
  ::close(toChild_);
  ::close(fromChild_);
  if (pid_ == -1) return;
  (void)::kill(pid_, SIGKILL);
  (void)WaitForEnd();
}

void Child::Await() {
  char byte = '\0';
  ASSERT_TRUE(ReadByte(fromChild_, &byte)) << "the child ended before its next step";
  ASSERT_EQ(kStep, byte);
}

std::string Child::Receive() {
  std::string line;
  if (ReadLine(fromChild_, &line)) return line;
  ADD_FAILURE() << "the child ended in the middle of a line: " << line;
  return "";
}

void Child::Send(const std::string& line) { WriteLine(toChild_, line); }

void Child::Go() { WriteAll(toChild_, &kStep, 1); }

void Child::ExpectSuccess() {
  const int status = WaitForEnd();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status of the child: " << status;
}

void Child::ExpectKilledBy(int signal) {
  const int status = WaitForEnd();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << "wait status of the child: " << status;
}

void Child::ExpectSuccessOrKilledBy(int signal) {
  const int status = WaitForEnd();
  const bool isKilled = WIFSIGNALED(status) && WTERMSIG(status) == signal;
  EXPECT_TRUE(isKilled || (WIFEXITED(status) && WEXITSTATUS(status) == 0))
      << "wait status of the child: " << status;
}

void Child::Kill(int signal) { ASSERT_EQ(0, ::kill(pid_, signal)); }

int Child::WaitForEnd() {
  int status = -1;
  while (::waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
  }
  pid_ = -1;
  return status;
}

}  // namespace opltest
