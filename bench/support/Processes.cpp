#include "bench/support/Processes.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <numeric>
#include <utility>

namespace oplbench {

namespace {

constexpr size_t kMostProcesses = 128;
constexpr size_t kCacheLine = 64;

struct Pipe {
  int read = -1;
  int write = -1;

  Pipe() {
    int ends[2];
    Require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
    read = ends[0];
    write = ends[1];
  }
};

void Close(int& fd) {
  if (fd != -1) (void)::close(fd);
  fd = -1;
}

ssize_t ReadByte(int fd) {
  char byte = 0;
  ssize_t count = 0;
  do count = ::read(fd, &byte, 1);
  while (count == -1 && errno == EINTR);
  return count;
}

pid_t Fork(const std::function<void()>& body) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  Require(pid != -1, "fork");
  if (pid != 0) return pid;
  // Nothing outlives the process that measures, however that ends.
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
  body();
  ::_exit(0);
}

// Deals the processes out to the processors. Left alone, the scheduler puts two that wake each other onto one
// processor now and then, where they take turns of whole time slices and never meet.
void StayOnOneProcessor(size_t number) {
  cpu_set_t allowed;
  if (::sched_getaffinity(0, sizeof allowed, &allowed) == -1) return;
  size_t skipped = number % static_cast<size_t>(CPU_COUNT(&allowed));
  for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed) || skipped-- != 0) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    (void)::sched_setaffinity(0, sizeof one, &one);
    return;
  }
}

void WaitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  Require(WIFEXITED(status) && WEXITSTATUS(status) == 0, "a process of the benchmark");
}

}  // namespace

struct SharedPage {
  struct alignas(kCacheLine) ScoreLine {
    Score score;
  };

  alignas(kCacheLine) std::atomic<bool> isOver{false};
  alignas(kCacheLine) uint64_t counter = 0;
  ScoreLine scores[kMostProcesses];
};

void Stint::Begin() {
  Require(::write(ready_, "", 1) == 1, "write");
  (void)ReadByte(start_);  // the end of the file is the start
}

bool Stint::IsOver() const { return shared_->isOver.load(std::memory_order_relaxed); }

Score& Stint::score() { return shared_->scores[number_].score; }

uint64_t& Stint::counter() { return shared_->counter; }

Processes::Processes(size_t count, const Body& body) {
  Require(count <= kMostProcesses, "number of processes");
  void* const memory =
      ::mmap(nullptr, sizeof(SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Require(memory != MAP_FAILED, "mmap");
  shared_ = new (memory) SharedPage;
  Pipe ready;
  Pipe start;
  for (size_t i = 0; i < count; ++i)
    pids_.push_back(Fork([&] {
      Close(start.write);
      StayOnOneProcessor(i);
      Stint stint(shared_, i, ready.write, start.read);
      body(stint);
    }));
  Close(ready.write);
  Close(start.read);
  start_ = start.write;
  for (size_t i = 0; i < count; ++i) Require(ReadByte(ready.read) == 1, "preparing a process");
  Close(ready.read);
}

Processes::~Processes() {
  Finish();
  (void)::munmap(shared_, sizeof(SharedPage));
}

void Processes::Start() { Close(start_); }

void Processes::Finish() {
  Start();
  shared_->isOver = true;
  for (const pid_t pid : std::exchange(pids_, {})) WaitFor(pid);
}

const Score& Processes::ScoreOf(size_t number) const { return shared_->scores[number].score; }

uint64_t Processes::Counter() const { return shared_->counter; }

uint64_t Work::Count() const {
  return std::accumulate(scores.begin(), scores.end(), uint64_t{0},
                         [](uint64_t sum, const Score& score) { return sum + score.count; });
}

Work WorkTogether(size_t count, std::chrono::milliseconds time, const Processes::Body& body) {
  using SteadyClock = std::chrono::steady_clock;
  Processes processes(count, body);
  const auto start = SteadyClock::now();
  processes.Start();
  const timespec pause{0, std::chrono::nanoseconds(time).count()};
  (void)::nanosleep(&pause, nullptr);
  const Nanoseconds elapsed = SteadyClock::now() - start;
  processes.Finish();

  Work work;
  work.ns = elapsed.count();
  for (size_t i = 0; i < count; ++i) work.scores.push_back(processes.ScoreOf(i));
  work.counter = processes.Counter();
  return work;
}

void RunInProcess(const std::function<void()>& body) { WaitFor(Fork(body)); }

void Require(bool succeeded, const char* what) {
  if (succeeded) return;
  std::fprintf(stderr, "qvopl_bench: %s failed: %m\n", what);
  ::_exit(1);
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace oplbench
