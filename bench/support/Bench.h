// The rows of the benchmark table. A row is declared once, beside its benchmarks, in a *Bench.cpp of its
// module's directory:
//
//   void Ours(benchmark::State& state) { for (auto _ : state) ... }
//   void Libc(benchmark::State& state) { for (auto _ : state) ... }
//   const oplbench::Row kRow("format: short text", Ours, {{"snprintf", Libc, 0.5}});
//
// The library is begun, in an instance of its own, while the benchmarks of rows run.
#ifndef OPL_BENCH_SUPPORT_BENCH_H
#define OPL_BENCH_SUPPORT_BENCH_H

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/support/Table.h"

namespace oplbench {

using Function = void (*)(benchmark::State&);

// What the library is compared with, and the most of its time that the library is to take; 0 is no target.
struct Peer {
  std::string name;
  Function function;
  double target;
};

// Which time counts: the calling thread's own, that of the clock on the wall, or what the benchmark itself
// states with SetIterationTime, as one does that waits for other processes.
enum class Clock { kCpu, kWall, kManual };

struct Row {
  Row(std::string rowWhat, Function rowFunction, std::vector<Peer> rowPeers, Clock rowClock = Clock::kCpu,
      double rowLimitNs = 0);

  std::string what;
  Function function;
  std::vector<Peer> peers;
  Clock clock;
  double limitNs;  // the most that it may take whatever it is compared with; 0 is none
};

// For what does not fit Row, as a measurement over several processes: the function measures for some seconds
// at most and adds rows of its own. It is called after all rows, in a process that has not begun the library.
struct OwnRows {
  OwnRows(std::string rowsWhat, void (*rowsMeasure)(Table&));

  std::string what;
  void (*measure)(Table&);
};

}  // namespace oplbench

#endif
