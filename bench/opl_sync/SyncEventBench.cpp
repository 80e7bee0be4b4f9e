// The named event: two processes that wake each other in turn, against what an event cannot do without, a
// FIFO with poll, and against other named things to wait for; and resets, by the number of posts.
//
// POCO's event is a semaphore and Boost's condition needs a mutex and a flag: neither can be waited for
// together with others, nor with a socket.
#include <Poco/NamedEvent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/interprocess/sync/named_condition.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/opl_sync/Contention.h"
#include "bench/opl_sync/Events.h"
#include "bench/support/Bench.h"

namespace {

using oplbench::OplEvent;
using oplbench::Require;
using oplbench::Stint;
using oplbench::Table;

namespace ipc = boost::interprocess;

// What two processes wake each other with. A kind has what is made before they are forked, and a Member for
// each of them:
//
//   struct Kind { struct Member { Member(Kind&, Stint&); void Signal(int which); void Await(int which); }; };
enum Which { kThere, kBack, kWhichCount };

std::string UniqueName(int which) {
  return "qvopl-bench-" + std::to_string(::getpid()) + "-" + std::to_string(which);
}

struct OplEvents {
  class Member {
   public:
    Member(OplEvents& /*events*/, Stint& /*stint*/) {}

    void Signal(int which) { events_[which].Post(); }
    void Await(int which) {
      events_[which].Wait();
      events_[which].Reset();
    }

   private:
    const oplbench::Begun begun_;
    OplEvent events_[kWhichCount]{OplEvent("there"), OplEvent("back")};
  };
};

// FIFOs in the IPC directory, opened as the library opens them, and the calls that it makes.
class Fifos {
 public:
  Fifos() {
    for (int which = 0; which < kWhichCount; ++which) {
      const std::string name = std::string(std::getenv("QVOPL_IPC_PATH")) + "/" + UniqueName(which);
      Require(::mkfifo(name.c_str(), 0600) == 0, "mkfifo");
      fds_[which] = ::open(name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
      Require(fds_[which] != -1, "open");
      (void)::unlink(name.c_str());
    }
  }
  ~Fifos() {
    for (const int fd : fds_) (void)::close(fd);
  }
  Fifos(const Fifos&) = delete;
  Fifos& operator=(const Fifos&) = delete;

  class Member {
   public:
    Member(Fifos& fifos, Stint& /*stint*/) : fds_(fifos.fds_) {}

    void Signal(int which) {
      const char byte = 1;
      Require(::write(fds_[which], &byte, 1) == 1, "write");
    }
    void Await(int which) {
      pollfd entry{fds_[which], POLLIN, 0};
      Require(::poll(&entry, 1, -1) == 1, "poll");
      char bytes[16];
      Require(::read(fds_[which], bytes, sizeof bytes) > 0, "read");
    }

   private:
    const int (&fds_)[kWhichCount];
  };

 private:
  int fds_[kWhichCount];
};

// Each leaves a file and a semaphore behind that nobody but its user removes.
class PocoEvents {
 public:
  PocoEvents() {
    for (int which = 0; which < kWhichCount; ++which) names_[which] = UniqueName(which);
  }
  ~PocoEvents() {
    for (const std::string& name : names_) {
      const std::string file = "/tmp/" + name + ".event";
      const int id = ::semget(::ftok(file.c_str(), 0), 0, 0);
      if (id != -1) (void)::semctl(id, 0, IPC_RMID);
      (void)::unlink(file.c_str());
    }
  }
  PocoEvents(const PocoEvents&) = delete;
  PocoEvents& operator=(const PocoEvents&) = delete;

  class Member {
   public:
    Member(PocoEvents& events, Stint& /*stint*/)
        : events_{Poco::NamedEvent(events.names_[kThere]), Poco::NamedEvent(events.names_[kBack])} {}

    void Signal(int which) { events_[which].set(); }
    void Await(int which) { events_[which].wait(); }

   private:
    Poco::NamedEvent events_[kWhichCount];
  };

 private:
  std::string names_[kWhichCount];
};

// A flag for each, in shared memory under one mutex. The names go at once.
class BoostConditions {
 public:
  BoostConditions()
      : mutex_(ipc::create_only, UniqueName(kWhichCount).c_str()),
        conditions_{{ipc::create_only, UniqueName(kThere).c_str()},
                    {ipc::create_only, UniqueName(kBack).c_str()}} {
    (void)ipc::named_mutex::remove(UniqueName(kWhichCount).c_str());
    for (const int which : {kThere, kBack}) (void)ipc::named_condition::remove(UniqueName(which).c_str());
  }

  class Member {
   public:
    Member(BoostConditions& conditions, Stint& stint) : all_(conditions), flags_(stint.counter()) {}

    void Signal(int which) {
      {
        const Lock lock(all_.mutex_);
        flags_ |= uint64_t{1} << which;
      }
      all_.conditions_[which].notify_one();
    }
    void Await(int which) {
      Lock lock(all_.mutex_);
      while ((flags_ & uint64_t{1} << which) == 0) all_.conditions_[which].wait(lock);
      flags_ &= ~(uint64_t{1} << which);
    }

   private:
    using Lock = ipc::scoped_lock<ipc::named_mutex>;
    BoostConditions& all_;
    uint64_t& flags_;
  };

 private:
  ipc::named_mutex mutex_;
  ipc::named_condition conditions_[kWhichCount];
};

constexpr uint64_t kTurns = 4000;
constexpr uint64_t kWarmUp = 200;
constexpr int kRounds = 9;

template <class Member>
void TakeTurns(Member& member, bool leads, uint64_t turns) {
  for (uint64_t turn = 0; turn < turns; ++turn) {
    if (leads) member.Signal(kThere);
    member.Await(leads ? kBack : kThere);
    if (!leads) member.Signal(kBack);
  }
}

// What it takes to wake the other process and be woken by it.
template <class Kind>
double NsThereAndBack() {
  Kind kind;
  oplbench::Processes two(2, [&](Stint& stint) {
    typename Kind::Member member(kind, stint);
    const bool leads = stint.number() == 0;
    stint.Begin();
    TakeTurns(member, leads, kWarmUp);
    const auto start = std::chrono::steady_clock::now();
    TakeTurns(member, leads, kTurns);
    stint.score().longestNs = oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count();
  });
  two.Finish();
  return two.ScoreOf(0).longestNs / static_cast<double>(kTurns);
}

struct Kind {
  std::string name;
  double (*measure)();
  double target;
  std::vector<double> ns;
};

// The rounds of all kinds alternate, and the medians count.
const oplbench::OwnRows kPingPong("event: there and back", [](Table& table) {
  Kind ours{"", NsThereAndBack<OplEvents>, 0, {}};
  Kind peers[] = {{"FIFO with poll", NsThereAndBack<Fifos>, 1.1, {}},
                  {"POCO NamedEvent", NsThereAndBack<PocoEvents>, 0, {}},
                  {"Boost condition", NsThereAndBack<BoostConditions>, 0, {}}};
  for (int round = 0; round < kRounds; ++round) {
    ours.ns.push_back(ours.measure());
    for (Kind& peer : peers) peer.ns.push_back(peer.measure());
  }
  for (const Kind& peer : peers)
    table.Add("event: there and back", oplbench::Median(ours.ns), peer.name, oplbench::Median(peer.ns),
              peer.target);
});

// The descriptor never blocks, and so a read beyond the last post tells the end.
void ReadAByteEach(OplEvent& event) {
  for (char byte; ::read(event.Descriptor(), &byte, 1) == 1;) {
  }
}

double MedianNsOfResets(int posts, void (*reset)(OplEvent&)) {
  constexpr int kResets = 201;
  OplEvent event("reset");
  std::vector<double> ns;
  for (int i = 0; i < kResets; ++i) {
    for (int post = 0; post < posts; ++post) event.Post();
    const auto start = std::chrono::steady_clock::now();
    reset(event);
    ns.push_back(oplbench::Nanoseconds(std::chrono::steady_clock::now() - start).count());
  }
  return oplbench::Median(ns);
}

const oplbench::OwnRows kReset("event: reset", [](Table& table) {
  const oplbench::Begun begun;
  for (const int posts : {1, 10'000}) {
    const double ours = MedianNsOfResets(posts, [](OplEvent& event) { event.Reset(); });
    const std::string after = posts == 1 ? " post" : " posts";
    table.Add("event: reset after " + std::to_string(posts) + after, ours, "read a byte each",
              MedianNsOfResets(posts, ReadAByteEach), 0);
  }
});

}  // namespace
