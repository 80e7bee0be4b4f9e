// Storms: processes of both widths come, use what they share, and go or are killed, wave after wave. What
// they see must be right in whatever order they run, and so the verdict does not hang on it; the seed decides
// who comes, who is killed, and at which of its system calls.
//
//   const PeerBody kGuest("Guest", [](Steps& steps) {
//     const Guest guest(steps);
//     const Arena<Places> arena;
//     ...
//   });
//
//   Storm storm(seed);
//   storm.Rage([&](Storm::Weather weather) { storm.Blow(kGuest, weather); });
#ifndef OPL_TESTS_SUPPORT_STORM_H
#define OPL_TESTS_SUPPORT_STORM_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "OPL_Err.h"
#include "tests/support/Faults.h"
#include "tests/support/Peer.h"

namespace opltest {

static_assert(std::atomic<uint32_t>::is_always_lock_free);

// The most that come in one wave.
constexpr uint32_t kMostGuests = 32;

// A process of a wave, as the test sends it: with its number, a seed of its own, and perhaps the system call
// at which it dies.
class Guest {
 public:
  explicit Guest(Steps& steps);

  // From 0 to kMostGuests - 1, another for each in a wave.
  uint32_t number() const { return number_; }
  // Whether nobody is killed in this wave.
  bool isCalm() const { return isCalm_; }
  // A number below the bound.
  uint32_t Draw(uint32_t bound) { return static_cast<uint32_t>(random_()) % bound; }

 private:
  uint32_t number_ = 0;
  bool isCalm_ = true;
  std::mt19937 random_;
  std::unique_ptr<Fault> death_;
};

// The memory that the processes of a wave share, in a file in the test's directory; all zeros at first. Both
// widths see the same: Shared is made of atomics of fixed width.
template <typename Shared>
class Arena {
 public:
  Arena();
  ~Arena();
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  Shared* operator->() const { return shared_; }

 private:
  Shared* const shared_;
};

class Storm {
 public:
  enum Weather { kCalm, kKilling };

  explicit Storm(unsigned seed) : random_(seed) {}

  // Calm and killing waves in turn, until the time for waves is over.
  void Rage(const std::function<void(Weather)>& wave);
  // A wave of guests, several at a time, to their ends.
  void Blow(const PeerBody& guest, Weather weather);
  // Widths that the test's peers may have, one drawn at random.
  int DrawWidth();

 private:
  struct Present {
    std::unique_ptr<Peer> peer;
    bool isDoomed;
  };
  // After a wave in which all have closed what they had.
  void ExpectNothingLeft();
  // What was left by those who were killed goes by the means that there are for it.
  void ExpectTerminationToRemoveWhatIsLeft();
  bool IsOver() const;
  Present Invite(const PeerBody& guest, uint32_t number, Weather weather, bool isDoomed);
  void SeeOff(Present* guest, bool kills);

  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  const std::vector<int> widths_ = PeerWidths();
  std::mt19937 random_;
  size_t killed_ = 0;  // since nothing was left
};

// Whether the process may still hold what it took: false also when it is on its way out, on which it gives
// everything back.
bool IsAlive(pid_t pid);

// A place for one at a time, with the process id of who is there: one who was killed inside can be told from
// one who is inside.
class Place {
 public:
  // Comes in where nobody else may be, stays a moment, and leaves.
  void StayAlone();
  void ExpectEmpty() const;

 private:
  std::atomic<int32_t> pid_;
};

// Who is sure to have an object, by its number from 1 on.
class Holders {
 public:
  // Between these two the guest's handle is open, and what shows it to the others has been done.
  void Enter(const Guest& guest, uint32_t object);
  void Leave(const Guest& guest);

  // Whether one who was killed with an object still counts, as one who has not left.
  enum Dead { kDeadCount, kDeadHaveLeft };

  // Calls back for each guest that has the object: what it leaves for others to see must be seen. Who leaves
  // meanwhile does not count.
  template <typename Sees>
  void ExpectAllSeen(uint32_t object, Dead dead, Sees sees) const {
    for (uint32_t number = 0; number < kMostGuests; ++number) {
      if (!Has(number, object, dead)) continue;
      const bool isSeen = sees(number);
      if (Has(number, object, dead)) {
        EXPECT_TRUE(isSeen) << "guest " << number << " has another object " << object;
      }
    }
  }

 private:
  bool Has(uint32_t number, uint32_t object, Dead dead) const;

  std::atomic<uint32_t> objects_[kMostGuests];
  std::atomic<int32_t> pids_[kMostGuests];
};

// Creates or opens until one of them works: the object may come and go between the two.
template <typename Create, typename Open>
void CreateOrOpen(Create create, uint32_t exists, Open open, uint32_t missing) {
  for (;;) {
    const uint32_t created = create();
    if (created == 0) return;
    ASSERT_EQ(exists, created) << OPL_ErrMessageGet(0);
    const uint32_t opened = open();
    if (opened == 0) return;
    ASSERT_EQ(missing, opened) << OPL_ErrMessageGet(0);
  }
}

#define OPLTEST_EXPECT_OK(call) EXPECT_EQ(0u, call) << OPL_ErrMessageGet(0)

void* MapArena(size_t size);
void UnmapArena(void* memory, size_t size);

template <typename Shared>
Arena<Shared>::Arena() : shared_(static_cast<Shared*>(MapArena(sizeof(Shared)))) {}

template <typename Shared>
Arena<Shared>::~Arena() {
  UnmapArena(shared_, sizeof(Shared));
}

}  // namespace opltest

#endif
