// Removing all objects of an instance: what one of them takes must not grow with their number.
#include <chrono>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "bench/support/Bench.h"
#include "bench/support/Mutexes.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Median;
using oplbench::Require;

constexpr int kObjectsARound = 10000;
constexpr int kFewest = 100;
constexpr double kMostGrowth = 1.25;  // a directory of more names takes a little longer to look into

double NsAnObject(int count) {
  oplbench::MakeMutexes(count);
  const auto start = std::chrono::steady_clock::now();
  Require(OPL_InitTerminateIPC(0, "*") == OPL_OK, "OPL_InitTerminateIPC");
  return oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count() / count;
}

const oplbench::OwnRows kTerminate("init: terminate IPC", [](oplbench::Table& table) {
  double fewest = 0;
  for (const int count : {kFewest, 1000, 5000}) {
    std::vector<double> ns;
    for (int made = 0; made < kObjectsARound; made += count) ns.push_back(NsAnObject(count));
    const std::string what = "init: terminate IPC, one of " + std::to_string(count);
    if (count == kFewest)
      table.Add(what, fewest = Median(ns));
    else
      table.Add(what, Median(ns), "one of " + std::to_string(kFewest), fewest, kMostGrowth);
  }
});

}  // namespace
