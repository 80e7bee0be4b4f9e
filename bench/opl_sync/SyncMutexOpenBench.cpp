// Opening and closing a mutex that somebody else keeps alive, as short-lived processes do.
#include <string>
#include <vector>

#include "bench/opl_sync/Locks.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::OplMutex;
using oplbench::Require;

constexpr std::chrono::milliseconds kTime{60};
constexpr int kRounds = 9;

void OpenAndClose() {
  OPL_SyncMutex* mutex = nullptr;
  Require(OPL_SyncMutexOpen(&mutex, 0, "bench", OPL_SYNC_MUTEX_PRIVATE) == OPL_OK, "OPL_SyncMutexOpen");
  Require(OPL_SyncMutexClose(&mutex) == OPL_OK, "OPL_SyncMutexClose");
}

// How long each of the processes takes for it.
double NsAPair(size_t processes) {
  const oplbench::Work work = oplbench::WorkTogether(processes, kTime, [](oplbench::Stint& stint) {
    OplMutex lock;
    const OplMutex::Member keepsItAlive(lock);
    uint64_t count = 0;
    stint.Begin();
    for (; !stint.IsOver(); ++count) OpenAndClose();
    stint.score().count = count;
  });
  return work.NsEach() * static_cast<double>(processes);
}

double MedianNsAPair(size_t processes) {
  std::vector<double> ns;
  for (int round = 0; round < kRounds; ++round) ns.push_back(NsAPair(processes));
  return oplbench::Median(ns);
}

const oplbench::OwnRows kOpen("mutex: open, close", [](oplbench::Table& table) {
  table.AddLimited("mutex: open, close", MedianNsAPair(1), 12e3);
  table.AddLimited("mutex: open, close, by 2 at once", MedianNsAPair(2), 15e3);
  table.Add("mutex: open, close, by 8 at once", MedianNsAPair(8));
});

}  // namespace
