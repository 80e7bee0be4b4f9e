#include "tests/support/KillPoints.h"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace opltest {

namespace {

constexpr int kNotTraced = 117;
constexpr int kSystemCallStop = SIGTRAP | 0x80;

int WaitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  return status;
}

// Stops itself when the body is about to begin.
pid_t StartTraced(const std::function<void()>& before, const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == -1) std::abort();
  if (pid != 0) return pid;
  before();
  if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1) ::_exit(kNotTraced);
  (void)::kill(::getpid(), SIGSTOP);
  body();
  std::fflush(nullptr);
  ::_exit(::testing::Test::HasFailure() ? 1 : 0);
}

void Resume(pid_t pid) {
  (void)::ptrace(static_cast<__ptrace_request>(PTRACE_SYSCALL), pid, nullptr, nullptr);
}

// Lets the process run up to the entry of its n-th system call and kills it there; its wait status.
int KillAtEntry(pid_t pid, int nth) {
  bool isInside = false;
  for (int entries = 0;;) {
    Resume(pid);
    const int status = WaitFor(pid);
    if (!WIFSTOPPED(status)) return status;
    if (WSTOPSIG(status) != kSystemCallStop) continue;
    isInside = !isInside;
    if (!isInside || ++entries != nth) continue;
    (void)::kill(pid, SIGKILL);
    return WaitFor(pid);
  }
}

}  // namespace

int KillAtEverySystemCall(const std::function<void()>& before, const std::function<void()>& body,
                          const std::function<void(int)>& after) {
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE("killed at system call " + std::to_string(nth));
    const pid_t pid = StartTraced(before, body);
    int status = WaitFor(pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotTraced) {
      std::printf("processes may not be traced here: nothing is killed\n");
      return 0;
    }
    if (WIFSTOPPED(status)) {
      const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
      (void)::ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(options));
      status = KillAtEntry(pid, nth);
    }
    after(nth);
    if (::testing::Test::HasFatalFailure()) return nth;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) continue;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status of the process: " << status;
    return nth;
  }
}

}  // namespace opltest
