// Several processes that work at the same time, for what a benchmark inside one process cannot measure.
#ifndef OPL_BENCH_SUPPORT_PROCESSES_H
#define OPL_BENCH_SUPPORT_PROCESSES_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace oplbench {

using Nanoseconds = std::chrono::duration<double, std::nano>;

// What a process tells of its work.
struct Score {
  uint64_t count = 0;
  double longestNs = 0;
};

struct SharedPage;

// A process's view of the time in which all work.
class Stint {
 public:
  Stint(SharedPage* shared, size_t number, int ready, int start)
      : shared_(shared), number_(number), ready_(ready), start_(start) {}

  // Says that the process has made its preparations and waits for the start.
  void Begin();
  bool IsOver() const;
  size_t number() const { return number_; }
  Score& score();
  // On a cache line that all processes share.
  uint64_t& counter();

 private:
  SharedPage* const shared_;
  const size_t number_;
  const int ready_;
  const int start_;
};

// Forked processes. A body that returns has succeeded; one that aborts aborts the benchmark.
class Processes {
 public:
  using Body = std::function<void(Stint&)>;

  // Returns when all are ready.
  Processes(size_t count, const Body& body);
  ~Processes();
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;

  void Start();
  // Tells that the time is over and waits for their ends.
  void Finish();
  const Score& ScoreOf(size_t number) const;
  uint64_t Counter() const;

 private:
  SharedPage* shared_;
  std::vector<pid_t> pids_;
  int start_ = -1;
};

// What processes have done together.
struct Work {
  std::vector<Score> scores;
  double ns = 0;         // how long they worked
  uint64_t counter = 0;  // what they have counted up to together

  uint64_t Count() const;
  double NsEach() const { return ns / static_cast<double>(Count()); }
};

// Lets that many processes work for a time.
Work WorkTogether(size_t count, std::chrono::milliseconds time, const Processes::Body& body);

// Runs a body in a forked process, to its end. Aborts when it fails.
void RunInProcess(const std::function<void()>& body);

// Ends the program when a step fails that a measurement cannot do without.
void Require(bool succeeded, const char* what);

double Median(std::vector<double> values);

}  // namespace oplbench

#endif
