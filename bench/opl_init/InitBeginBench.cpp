// What a process pays for the library when it starts and ends, by the number of others in the instance. Alone
// it makes and removes what the processes of an instance share.
#include <chrono>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Processes;
using oplbench::Require;
using oplbench::Stint;

constexpr int kRounds = 51;

// A process begins once, so each time is another's.
double NsOfABeginAndEnd() {
  Processes one(1, [](Stint& stint) {
    stint.Begin();
    const auto start = std::chrono::steady_clock::now();
    Require(OPL_InitBegin(0) == OPL_OK, "OPL_InitBegin");
    Require(OPL_InitEnd(0) == OPL_OK, "OPL_InitEnd");
    stint.score().longestNs = oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count();
  });
  one.Finish();
  return one.ScoreOf(0).longestNs;
}

void StayBegun(Stint& stint) {
  Require(OPL_InitBegin(0) == OPL_OK, "OPL_InitBegin");
  stint.Begin();
  (void)OPL_InitEnd(0);
}

const oplbench::OwnRows kBegin("init: begin, end", [](oplbench::Table& table) {
  for (const size_t others : {0, 1, 10, 100}) {
    const Processes crowd(others, StayBegun);
    std::vector<double> ns;
    for (int round = 0; round < kRounds; ++round) ns.push_back(NsOfABeginAndEnd());
    const std::string where = others == 0 ? "alone" : "beside " + std::to_string(others);
    table.Add("init: begin, end " + where, oplbench::Median(ns));
  }
});

}  // namespace
