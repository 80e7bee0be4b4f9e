#include "tools/qvopl/InstanceProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/Retry.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr unsigned kSecondsMost = 10;

void WriteAll(int fd, const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const ssize_t size = opl::RetryOnEintr([&] { return ::write(fd, text.data() + at, text.size() - at); });
    if (size <= 0) return;
    at += static_cast<size_t>(size);
  }
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[512];
  for (;;) {
    const ssize_t size = opl::RetryOnEintr([&] { return ::read(fd, buffer, sizeof buffer); });
    if (size <= 0) return text;
    text.append(buffer, static_cast<size_t>(size));
  }
}

}  // namespace

std::string RunInInstance(Settings* settings, const std::string& instance,
                          const std::function<std::string()>& work) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) == -1) return SystemError("pipe", errno);
  const opl::Fd reader(ends[0]);
  opl::Fd writer(ends[1]);
  (void)std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == -1) return SystemError("fork", errno);
  if (pid == 0) {
    (void)::alarm(kSecondsMost);
    settings->instance = instance;
    WriteAll(writer.Get(), work());
    (void)std::fflush(nullptr);
    ::_exit(0);
  }
  writer.Close();
  std::string result = ReadAll(reader.Get());
  int status = 0;
  (void)opl::RetryOnEintr([&] { return ::waitpid(pid, &status, 0); });
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
    return "gave up after " + std::to_string(kSecondsMost) +
           " seconds: somebody holds a lock of the instance";
  if (WIFSIGNALED(status)) return std::string("was ended: ") + ::strsignal(WTERMSIG(status));
  return result;
}

std::string WithLibrary(const std::function<std::string()>& work) {
  if (OPL_InitBegin(0) != OPL_OK) return "the library cannot begin: " + Printable(OPL_ErrMessageGet(0));
  std::string result = work();
  (void)OPL_InitEnd(0);
  return result;
}

bool CanAsk(const Settings& settings) {
  return !settings.json && ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
}

bool Ask(const std::string& question) {
  std::printf("%s [y/N] ", question.c_str());
  (void)std::fflush(stdout);
  std::string answer;
  if (!std::getline(std::cin, answer)) std::printf("\n");
  return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

}  // namespace qvopl
