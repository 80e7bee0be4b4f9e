// Runs the benchmarks whose row's name contains the first argument, or all, and prints the table.
//
// The repetitions of all benchmarks are mixed at random, and a row's figures are their medians: what disturbs
// the machine for a while disturbs a row's two sides alike. Ratios never come from two runs.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "OPL_Init.h"
#include "bench/support/Bench.h"

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

Row::Row(std::string rowWhat, Function rowFunction, std::vector<Peer> rowPeers, Clock rowClock)
    : what(std::move(rowWhat)), function(rowFunction), peers(std::move(rowPeers)), clock(rowClock) {
  Rows().push_back(*this);
}

OwnRows::OwnRows(std::string rowsWhat, void (*rowsMeasure)(Table&))
    : what(std::move(rowsWhat)), measure(rowsMeasure) {
  AllOwnRows().push_back(*this);
}

namespace {

constexpr char kOurs[] = "QVOPL";

// A begun library in an IPC directory of its own.
class Library {
 public:
  Library() {
    if (::mkdtemp(directory_) == nullptr) std::abort();
    (void)::setenv("QVOPL_IPC_PATH", directory_, 1);
    if (OPL_InitBegin(0) != OPL_OK) std::abort();
  }
  ~Library() {
    (void)OPL_InitEnd(0);
    std::filesystem::remove_all(directory_);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

 private:
  char directory_[32] = "/tmp/qvopl-bench.XXXXXX";
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
    if (row.peers.empty()) table->Add(row.what, ours);
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
  const Library library;
  Table table;
  if (!RunRows(rows, &table)) return 1;
  for (const OwnRows& own : ownRows) own.measure(table);
  return 0;
}

}  // namespace

}  // namespace oplbench

// Names the instance for the library, as a host program does.
extern "C" const char* OPL_InitInstanceStringSetCallback() {
  static const std::string instance = "BENCH" + std::to_string(::getpid());
  return instance.c_str();
}

int main(int argc, char** argv) {
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char* options[] = {argv[0], interleave, nullptr};
  int count = 2;
  benchmark::Initialize(&count, options);
  return oplbench::Run(argc > 1 ? argv[1] : "");
}
