// The list of a server's processes, without the scripts that print it: what one line takes must not grow with
// their number, be it a chain of parents or all children of one. The functions are not exported: their file
// is a part of this program.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "bench/support/Bench.h"
#include "bench/support/Processes.h"
#include "opl_server/src/ServerListing.h"

namespace {

using oplbench::Median;
using oplbench::Require;

constexpr uint32_t kSpawner = 1;
constexpr int kLinesARound = 200000;
constexpr int kFewest = 10;
constexpr double kMostGrowth = 2;  // a list of 10,000 does not fit into the processor's cache

std::string Line(int pid, int parent) {
  return std::to_string(pid) + " " + std::to_string(parent) + " 10:01 00:00:02 /opt/product/bin/daemon\n";
}

// The last process is the first of the chain.
std::string Chain(int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) lines += Line(100000 - i, i == count - 1 ? 1 : 100000 - i - 1);
  return lines;
}

std::string Star(int count) {
  std::string lines = Line(2, 1);
  for (int i = 1; i < count; ++i) lines += Line(2 + i, 2);
  return lines;
}

double NsALine(const OPL_Server& server, const std::string& lines, int count) {
  const auto start = std::chrono::steady_clock::now();
  opl::ProcessList list;
  Require(list.Open() == OPL_OK, "Open");
  Require(opl::ParseListing(server, "user", lines.data(), lines.size(), &list) == OPL_OK, "ParseListing");
  Require(opl::RemoveUnRelatedProcess(kSpawner, &list) == OPL_OK, "RemoveUnRelatedProcess");
  Require(list.Count() == static_cast<uint32_t>(count), "the list's count");
  return oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count() / count;
}

void Measure(oplbench::Table& table, const std::string& shape, std::string (*make)(int)) {
  OPL_Server server{};
  std::strcpy(server.processName, "daemon");
  double fewest = 0;
  for (const int count : {kFewest, 1000, 10000}) {
    const std::string lines = make(count);
    std::vector<double> ns;
    for (int done = 0; done < kLinesARound; done += count) ns.push_back(NsALine(server, lines, count));
    const std::string what = "server: list, a line of " + std::to_string(count) + " in a " + shape;
    if (count == kFewest)
      table.Add(what, fewest = Median(ns));
    else
      table.Add(what, Median(ns), "a line of " + std::to_string(kFewest), fewest, kMostGrowth);
  }
}

// The memory is the process's already, as in one that has listed before: what the system takes for new pages
// is not the library's.
void KeepMemory() {
  constexpr int kAnySize = 1 << 30;
  Require(::mallopt(M_TRIM_THRESHOLD, kAnySize) == 1 && ::mallopt(M_MMAP_THRESHOLD, kAnySize / 64) == 1,
          "mallopt");
}

const oplbench::OwnRows kListing("server: list", [](oplbench::Table& table) {
  KeepMemory();
  Measure(table, "chain", Chain);
  Measure(table, "star", Star);
});

}  // namespace
