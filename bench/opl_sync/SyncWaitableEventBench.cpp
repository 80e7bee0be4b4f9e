// Waiting for many events of which the last is set, against poll with what it needs prepared: what the
// library adds is the records' way into poll's array and the answers' way back.
#include <poll.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/opl_sync/Events.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::OplEvent;
using oplbench::Require;

// A process has 39 named events at most; some of those that are not set are opened twice.
constexpr size_t kUnsetNames = 38;

class Events {
 public:
  explicit Events(size_t count) {
    for (size_t i = 1; i < count; ++i) Add("unset" + std::to_string(i % kUnsetNames));
    Add("set").Post();
  }

  std::vector<OPL_SyncWaitableEvent*>& waitables() { return waitables_; }
  std::vector<pollfd>& entries() { return entries_; }

 private:
  OplEvent& Add(const std::string& name) {
    OplEvent& event = *events_.emplace_back(std::make_unique<OplEvent>(name));
    waitables_.push_back(event.waitable());
    entries_.push_back({event.Descriptor(), POLLIN, 0});
    return event;
  }

  std::vector<std::unique_ptr<OplEvent>> events_;
  std::vector<OPL_SyncWaitableEvent*> waitables_;
  std::vector<pollfd> entries_;
};

template <uint32_t kCount>
void Wait(benchmark::State& state) {
  Events events(kCount);
  uint32_t ready[kCount];
  for (auto _ : state) {
    Require(
        OPL_SyncWaitableEventWaitForMultiple(0, kCount, events.waitables().data(), ready, nullptr) == OPL_OK,
        "OPL_SyncWaitableEventWaitForMultiple");
    benchmark::DoNotOptimize(ready);
  }
  Require(ready[kCount - 1] == 1, "finding the event that is set");
}

template <uint32_t kCount>
void Poll(benchmark::State& state) {
  Events events(kCount);
  for (auto _ : state) {
    Require(::poll(events.entries().data(), kCount, -1) == 1, "poll");
    benchmark::DoNotOptimize(events.entries().data());
  }
}

const oplbench::Row kOne("event: wait for 1", Wait<1>, {{"poll", Poll<1>, 1.1}});
const oplbench::Row kSixteen("event: wait for 1 of 16", Wait<16>, {{"poll", Poll<16>, 1.1}});
const oplbench::Row kSixtyFour("event: wait for 1 of 64", Wait<64>, {{"poll", Poll<64>, 1.1}});

}  // namespace
