// Locks under contention: processes that take a lock, touch what it guards and give it back, over and over.
//
// A lock type has what is made before the processes are forked, and a Member for each of them:
//
//   struct Lock { struct Member { explicit Member(Lock&); void Take(); void Give(); }; };
#ifndef OPL_BENCH_OPL_SYNC_CONTENTION_H
#define OPL_BENCH_OPL_SYNC_CONTENTION_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace oplbench {

inline constexpr std::chrono::milliseconds kContentionTime{60};
inline constexpr int kContentionRounds = 7;
inline constexpr std::chrono::milliseconds kFairnessTime{200};
inline constexpr int kFairnessRounds = 5;

template <class Lock>
void Uncontended(benchmark::State& state) {
  Lock lock;
  typename Lock::Member member(lock);
  for (auto _ : state) {
    member.Take();
    member.Give();
  }
}

// The counter under the lock proves that it excludes.
template <class Lock>
Work Contend(size_t processes, std::chrono::milliseconds time) {
  Lock lock;
  Work work = WorkTogether(processes, time, [&](Stint& stint) {
    typename Lock::Member member(lock);
    uint64_t& counter = stint.counter();
    uint64_t count = 0;
    stint.Begin();
    while (!stint.IsOver()) {
      member.Take();
      ++counter;
      member.Give();
      ++count;
    }
    stint.score().count = count;
  });
  Require(work.Count() == work.counter, "excluding each other");
  return work;
}

// The same with a look at the clock around every taking.
template <class Lock>
Work ContendTimed(size_t processes, std::chrono::milliseconds time) {
  using SteadyClock = std::chrono::steady_clock;
  Lock lock;
  return WorkTogether(processes, time, [&](Stint& stint) {
    typename Lock::Member member(lock);
    Score score;
    stint.Begin();
    while (!stint.IsOver()) {
      const auto start = SteadyClock::now();
      member.Take();
      const Nanoseconds waited = SteadyClock::now() - start;
      ++stint.counter();
      member.Give();
      ++score.count;
      score.longestNs = std::max(score.longestNs, waited.count());
    }
    stint.score() = score;
  });
}

struct Contender {
  std::string name;
  Work (*contend)(size_t processes, std::chrono::milliseconds time);
  double target;  // as of a peer
};

// Adds a row for each peer: the time that passes between two acquisitions, whoever's they are. The rounds of
// all contenders alternate, and the medians count.
inline void CompareContended(Table& table, const std::string& what, size_t processes, const Contender& ours,
                             const std::vector<Contender>& peers) {
  std::vector<double> ourNs;
  std::vector<std::vector<double>> peerNs(peers.size());
  for (int round = 0; round < kContentionRounds; ++round) {
    ourNs.push_back(ours.contend(processes, kContentionTime).NsEach());
    for (size_t i = 0; i < peers.size(); ++i)
      peerNs[i].push_back(peers[i].contend(processes, kContentionTime).NsEach());
  }
  for (size_t i = 0; i < peers.size(); ++i)
    table.Add(what, Median(ourNs), peers[i].name, Median(peerNs[i]), peers[i].target);
}

// The least served process's share of what the most served has got, in percent.
inline double LeastShare(const Work& work) {
  const auto [least, most] =
      std::minmax_element(work.scores.begin(), work.scores.end(),
                          [](const Score& a, const Score& b) { return a.count < b.count; });
  return 100.0 * static_cast<double>(least->count) / static_cast<double>(most->count);
}

inline double LongestWaitUs(const Work& work) {
  const auto longest =
      std::max_element(work.scores.begin(), work.scores.end(),
                       [](const Score& a, const Score& b) { return a.longestNs < b.longestNs; });
  return longest->longestNs / 1000;
}

struct Fairness {
  std::vector<double> shares;
  std::vector<double> waits;

  void Measure(const Contender& contender, size_t processes) {
    const Work work = contender.contend(processes, kFairnessTime);
    shares.push_back(LeastShare(work));
    waits.push_back(LongestWaitUs(work));
  }
};

// Adds two rows for each peer, again of medians.
inline void CompareFairness(Table& table, const std::string& what, size_t processes, const Contender& ours,
                            const std::vector<Contender>& peers) {
  Fairness own;
  std::vector<Fairness> others(peers.size());
  for (int round = 0; round < kFairnessRounds; ++round) {
    own.Measure(ours, processes);
    for (size_t i = 0; i < peers.size(); ++i) others[i].Measure(peers[i], processes);
  }
  const std::string by = " by " + std::to_string(processes);
  for (size_t i = 0; i < peers.size(); ++i)
    table.Add(what + by + ", least share, %", Median(own.shares), peers[i].name, Median(others[i].shares), 0);
  for (size_t i = 0; i < peers.size(); ++i)
    table.Add(what + by + ", longest wait, us", Median(own.waits), peers[i].name, Median(others[i].waits), 0);
}

}  // namespace oplbench

#endif
