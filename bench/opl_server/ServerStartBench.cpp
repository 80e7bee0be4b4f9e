// A daemon's way from its execution to its controller file, with the library's begin and two forks in
// between. OPL_ServerStart itself looks once a second.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Median;
using oplbench::Require;

constexpr int kStarts = 50;
constexpr double kTooLongNs = 1e10;

std::string ExampleDaemon() {
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  return self.parent_path().parent_path() / "examples/daemon";
}

// The example's daemon knows by its name what it is.
constexpr char kName[] = "qvopl-example-bench";

std::string ControllerFile() {
  return std::string(std::getenv("QVOPL_IPC_PATH")) + "/example.OPL_DAEMON.controller.EXAMPLE.006.021";
}

bool ReadPid(const std::string& file, uint32_t* pid) {
  std::ifstream stream(file, std::ios::binary);
  return static_cast<bool>(stream.read(reinterpret_cast<char*>(pid), sizeof *pid));
}

pid_t Execute(const std::string& program, const char* name) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    (void)::execl(program.c_str(), name, nullptr);
    ::_exit(127);
  }
  Require(pid != -1, "fork");
  return pid;
}

double NsOf(const std::chrono::steady_clock::time_point start) {
  return oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count();
}

// Leaves the processor to the daemon.
void PauseSince(const std::chrono::steady_clock::time_point start) {
  Require(NsOf(start) < kTooLongNs, "the daemon");
  std::this_thread::sleep_for(std::chrono::microseconds(20));
}

double StartDaemon() {
  const std::string file = ControllerFile();
  const std::string program = ExampleDaemon();
  const auto start = std::chrono::steady_clock::now();
  const pid_t first = Execute(program, kName);
  uint32_t pid = 0;
  while (!ReadPid(file, &pid)) PauseSince(start);
  const double ns = NsOf(start);
  (void)::waitpid(first, nullptr, 0);
  Require(::kill(static_cast<pid_t>(pid), SIGUSR1) == 0, "kill");
  while (std::filesystem::exists(file)) PauseSince(start);
  return ns;
}

double ExecuteTrue() {
  const auto start = std::chrono::steady_clock::now();
  (void)::waitpid(Execute("/bin/true", "true"), nullptr, 0);
  return NsOf(start);
}

const oplbench::OwnRows kStart("server: start", [](oplbench::Table& table) {
  std::vector<double> started;
  std::vector<double> executed;
  for (int i = 0; i < kStarts; ++i) {
    started.push_back(StartDaemon());
    executed.push_back(ExecuteTrue());
  }
  table.Add("server: start, from fork to started", Median(started), "fork and exec of true", Median(executed),
            0);
});

}  // namespace
