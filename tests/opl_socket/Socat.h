// A peer that is not ours: the program socat, with its standard streams on pipes.
//
//   Socat peer({"TCP-LISTEN:0,bind=127.0.0.1", "PIPE"});
//   const std::string port = peer.AwaitNotice("listening on AF=2 127.0.0.1:");
//   ...
//   peer.ExpectEnd();
#ifndef OPL_TESTS_OPL_SOCKET_SOCAT_H
#define OPL_TESTS_OPL_SOCKET_SOCAT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

namespace opltest {

class Socat {
 public:
  static bool IsThere() { return ::access(kProgram, X_OK) == 0; }

  explicit Socat(const std::vector<std::string>& addresses) {
    int streams[3][2];
    for (auto& stream : streams)
      if (::pipe2(stream, O_CLOEXEC) == -1) std::abort();
    std::vector<std::string> line = {kProgram, "-d", "-d", "-t", "300"};
    line.insert(line.end(), addresses.begin(), addresses.end());
    std::vector<char*> arguments;
    for (std::string& argument : line) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == -1) std::abort();
    if (pid_ == 0) {
      (void)::dup2(streams[0][0], STDIN_FILENO);
      (void)::dup2(streams[1][1], STDOUT_FILENO);
      (void)::dup2(streams[2][1], STDERR_FILENO);
      (void)::execv(kProgram, arguments.data());
      ::_exit(127);
    }
    (void)::close(streams[0][0]);
    (void)::close(streams[1][1]);
    (void)::close(streams[2][1]);
    input_ = streams[0][1];
    output_ = streams[1][0];
    notices_ = streams[2][0];
  }
  ~Socat() {
    CloseInput();
    (void)::close(output_);
    (void)::close(notices_);
    if (pid_ != -1) Kill();
  }
  Socat(const Socat&) = delete;
  Socat& operator=(const Socat&) = delete;

  // Waits for a notice that holds the text and yields what stands behind it; fails the test when the program
  // ends instead.
  std::string AwaitNotice(const std::string& text) const {
    for (std::string line; ReadLine(&line); line.clear())
      if (const size_t at = line.find(text); at != std::string::npos) return line.substr(at + text.size());
    ADD_FAILURE() << "socat ended without the notice " << text;
    return "";
  }

  void Write(const std::string& text) const {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(input_, text.data(), text.size()));
  }
  void CloseInput() {
    if (input_ != -1) (void)::close(input_);
    input_ = -1;
  }
  // What it writes until it closes its output.
  std::string ReadAll() const {
    std::string text;
    for (char bytes[4096];;) {
      const ssize_t count = ::read(output_, bytes, sizeof bytes);
      if (count == -1 && errno == EINTR) continue;
      if (count <= 0) return text;
      text.append(bytes, static_cast<size_t>(count));
    }
  }

  void ExpectEnd() {
    const int status = WaitForEnd();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status of socat: " << status;
  }
  void Kill() {
    EXPECT_EQ(0, ::kill(pid_, SIGKILL));
    (void)WaitForEnd();
  }

 private:
  static constexpr char kProgram[] = "/usr/bin/socat";

  bool ReadLine(std::string* line) const {
    for (char byte; ::read(notices_, &byte, 1) == 1;) {
      if (byte == '\n') return true;
      *line += byte;
    }
    return false;
  }

  int WaitForEnd() {
    int status = -1;
    while (::waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int notices_ = -1;
};

}  // namespace opltest

#endif
