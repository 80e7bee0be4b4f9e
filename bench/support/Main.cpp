// Runs the benchmarks whose row's name contains the first argument, or all, and prints the table.
//
// The repetitions of all benchmarks are mixed at random, and a row's figures are their medians: what disturbs
// the machine for a while disturbs a row's two sides alike. Ratios never come from two runs.
//
// The program's first process does nothing but clean up. It lives in an IPC namespace of its own where the
// system allows it, so that nothing of System V is left however a benchmark ends, and removes the IPC
// directory. The rows run in a process under it, and each measurement with rows of its own in another, in
// which the library has not been begun.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "OPL_Init.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"
#include "tests/support/IpcNamespace.h"

namespace oplbench {

namespace {

constexpr int kRepetitions = 25;
constexpr double kSecondsARepetition = 0.02;
constexpr double kSecondsAtMost = 60;  // for all repetitions together, calibration not counted

std::vector<Row>& Rows() {
  static std::vector<Row> rows;
  return rows;
}

std::vector<OwnRows>& AllOwnRows() {
  static std::vector<OwnRows> rows;
  return rows;
}

}  // namespace

Row::Row(std::string rowWhat, Function rowFunction, std::vector<Peer> rowPeers, Clock rowClock,
         double rowLimitNs)
    : what(std::move(rowWhat)),
      function(rowFunction),
      peers(std::move(rowPeers)),
      clock(rowClock),
      limitNs(rowLimitNs) {
  Rows().push_back(*this);
}

OwnRows::OwnRows(std::string rowsWhat, void (*rowsMeasure)(Table&))
    : what(std::move(rowsWhat)), measure(rowsMeasure) {
  AllOwnRows().push_back(*this);
}

namespace {

constexpr char kOurs[] = "QVOPL";

// A begun library.
class Library {
 public:
  Library() { Require(OPL_InitBegin(0) == OPL_OK, "OPL_InitBegin"); }
  ~Library() { (void)OPL_InitEnd(0); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
};

// The IPC directory and the instance string for this process and its children.
class Instance {
 public:
  Instance() {
    const char* const parent = std::getenv("TMPDIR");
    directory_ = std::string(parent != nullptr ? parent : "/tmp") + "/qvopl-bench.XXXXXX";
    Require(::mkdtemp(directory_.data()) != nullptr, "mkdtemp");
    (void)::setenv("QVOPL_IPC_PATH", directory_.c_str(), 1);
    (void)::setenv("QVOPL_BENCH_INSTANCE", ("BENCH" + std::to_string(::getpid())).c_str(), 1);
  }
  ~Instance() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

 private:
  std::string directory_;
};

std::string Side(const Row& row, const std::string& side) { return row.what + " | " + side; }

// Keeps every repetition's time under the name with which the benchmark was registered.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string& name = run.run_name.function_name;
      if (run.error_occurred) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), run.error_message.c_str());
        failed_ = true;
        continue;
      }
      const bool isWall = !run.run_name.time_type.empty();
      times_[name].push_back(isWall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime());
    }
  }

  bool Failed() const { return failed_; }

  double Median(const std::string& name) {
    std::vector<double>& times = times_[name];
    if (times.empty()) return 0;
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
  }

 private:
  std::map<std::string, std::vector<double>> times_;
  bool failed_ = false;
};

void Register(const std::string& name, Function function, Clock clock, double seconds) {
  auto* const registered = benchmark::RegisterBenchmark(name.c_str(), function);
  registered->Repetitions(kRepetitions)->MinTime(seconds);
  if (clock == Clock::kWall) registered->UseRealTime();
  if (clock == Clock::kManual) registered->UseManualTime();
}

bool RunRows(const std::vector<Row>& rows, Table* table) {
  if (rows.empty()) return true;
  size_t sides = 0;
  for (const Row& row : rows) sides += 1 + row.peers.size();
  const double share = kSecondsAtMost / (static_cast<double>(sides) * kRepetitions);
  const double seconds = std::min(kSecondsARepetition, share);
  for (const Row& row : rows) {
    Register(Side(row, kOurs), row.function, row.clock, seconds);
    for (const Peer& peer : row.peers) Register(Side(row, peer.name), peer.function, row.clock, seconds);
  }
  Collector times;
  benchmark::RunSpecifiedBenchmarks(&times);
  if (times.Failed()) return false;
  for (const Row& row : rows) {
    const double ours = times.Median(Side(row, kOurs));
    if (row.limitNs != 0) table->AddLimited(row.what, ours, row.limitNs);
    if (row.peers.empty() && row.limitNs == 0) table->Add(row.what, ours);
    for (const Peer& peer : row.peers)
      table->Add(row.what, ours, peer.name, times.Median(Side(row, peer.name)), peer.target);
  }
  return true;
}

template <typename Rows>
Rows Chosen(Rows rows, const std::string& name) {
  std::erase_if(rows, [&](const auto& row) { return row.what.find(name) == std::string::npos; });
  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.what < b.what; });
  return rows;
}

int Run(const std::string& name) {
  const std::vector<Row> rows = Chosen(Rows(), name);
  const std::vector<OwnRows> ownRows = Chosen(AllOwnRows(), name);
  if (rows.empty() && ownRows.empty()) {
    std::fprintf(stderr, "no benchmark's name contains \"%s\"\n", name.c_str());
    return 1;
  }
  Table table;
  RunInProcess([&] {
    const Library library;
    Require(RunRows(rows, &table), "a benchmark");
  });
  for (const OwnRows& own : ownRows) RunInProcess([&] { own.measure(table); });
  return 0;
}

// Runs the benchmarks in a child and waits for its end, or for a signal to end it.
int RunInChild(const std::string& name) {
  sigset_t watched;
  sigset_t before;
  sigemptyset(&watched);
  for (const int signal : {SIGCHLD, SIGHUP, SIGINT, SIGTERM}) sigaddset(&watched, signal);
  (void)::sigprocmask(SIG_BLOCK, &watched, &before);
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  Require(child != -1, "fork");
  if (child == 0) {
    (void)::sigprocmask(SIG_SETMASK, &before, nullptr);
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::_exit(::getppid() == parent ? Run(name) : 1);
  }
  int result = 1;
  for (int signal = 0; signal != SIGCHLD || ::waitpid(child, &result, WNOHANG) == 0;) {
    signal = ::sigwaitinfo(&watched, nullptr);
    if (signal > 0 && signal != SIGCHLD) (void)::kill(child, SIGKILL);
  }
  // Its children end with it.
  while (::waitpid(-1, nullptr, 0) > 0) {
  }
  return WIFEXITED(result) ? WEXITSTATUS(result) : 1;
}

}  // namespace

}  // namespace oplbench

// Names the instance for the library, as a host program does.
extern "C" const char* OPL_InitInstanceStringSetCallback() { return std::getenv("QVOPL_BENCH_INSTANCE"); }

int main(int argc, char** argv) {
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char* options[] = {argv[0], interleave, nullptr};
  int count = 2;
  benchmark::Initialize(&count, options);
  // Processes are forked between the lines.
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  (void)opltest::EnterIpcNamespace();
  const oplbench::Instance instance;
  return oplbench::RunInChild(argc > 1 ? argv[1] : "");
}
