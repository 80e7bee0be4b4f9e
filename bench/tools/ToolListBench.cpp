// The administrator's list of many objects: what one of them takes must not grow with their number, and all
// of them are to be there before the reader looks up.
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "bench/support/Bench.h"
#include "bench/support/Mutexes.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Median;
using oplbench::Require;

constexpr int kRounds = 5;
constexpr int kFewest = 500;
constexpr double kMostNs = 1e9;
constexpr double kMostGrowth = 1.25;

double NsOf(const std::string& command) {
  std::vector<double> ns;
  for (int round = 0; round < kRounds; ++round) {
    const auto start = std::chrono::steady_clock::now();
    Require(std::system((command + " >/dev/null").c_str()) == 0, command.c_str());
    ns.push_back(oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count());
  }
  return Median(ns);
}

const oplbench::OwnRows kList("tool: list", [](oplbench::Table& table) {
  const std::string directory = std::getenv("QVOPL_IPC_PATH");
  double fewest = 0;
  for (const int count : {kFewest, 5000}) {
    oplbench::MakeMutexes(count);
    const double list = NsOf(QVOPL_TOOL " list");
    const double peers = NsOf("(ipcs -s && ls -l " + directory + ")");
    Require(OPL_InitTerminateIPC(0, "*") == OPL_OK, "OPL_InitTerminateIPC");
    const std::string what = "tool: list of " + std::to_string(count);
    table.Add(what, list, "ipcs and ls", peers, 0);
    if (count == kFewest) {
      fewest = list / count;
      continue;
    }
    table.AddLimited(what, list, kMostNs);
    table.Add(what + ", one", list / count, "one of " + std::to_string(kFewest), fewest, kMostGrowth);
  }
});

}  // namespace
