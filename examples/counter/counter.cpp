// A counter that processes share, in C++: locked shared memory, and an event that tells of changes.
//
//   counter                raises the count by one, and waits for nobody
//   counter TIMES          raises it that many times
//   counter --watch COUNT  prints the count whenever it changes, until it is COUNT; one watcher at a time,
//                          because it clears the event for all
//   counter --check        does both with processes of its own, as a test does
//
// All processes of the instance see one count, be they 32-bit or 64-bit programs. It is there as long as one
// of them is.
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <qvopl.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

// Processes with the same instance string share their objects. The library looks it up in the program, which
// is linked with -rdynamic.
QVOPL_INSTANCE("counter")

namespace counter {

// What lies in the shared memory: types of fixed width, all members listed. The compiler refuses it in the
// width in which anything would lie elsewhere.
struct Count {
  std::uint64_t value;
  std::uint32_t processes;
  std::uint32_t reserved;
};
QVOPL_SHAREABLE(Count, 16, value, processes, reserved);

using SharedCount = qvopl::LockedSharedMemory<Count>;

}  // namespace counter

namespace {

using counter::SharedCount;

// Opens what is there, or makes it.
class Counter {
 public:
  Counter() { ++count_.Write()->processes; }

  void Raise(std::uint64_t times) {
    for (std::uint64_t i = 0; i < times; ++i) {
      // The guard is the access, and the lock is held as long as it lives.
      const SharedCount::WriteGuard count = count_.Write();
      ++count->value;
    }
    changed_.Post();
  }

  // Prints each count that it gets to see, up to the last.
  void Watch(std::uint64_t last) {
    qvopl::WaitSet set;
    const qvopl::WaitSet::Member change = set.Add(changed_);
    for (std::uint64_t seen = 0; seen < last;) {
      if (!set.WaitFor(std::chrono::seconds(30))) throw std::runtime_error("nobody counts");
      // Reset before the look: what is counted after it posts again.
      if (set.IsReady(change)) changed_.Reset();
      const std::uint64_t value = count_.Read()->value;
      if (value != seen) std::printf("%llu\n", static_cast<unsigned long long>(value));
      seen = value;
    }
  }

 private:
  SharedCount count_ = SharedCount::OpenOrCreate("count");
  qvopl::Event changed_ = qvopl::Event::OpenOrCreate("changed");
};

// Waits for the tasks that this process has started.
bool AllSucceeded() {
  bool succeeded = true;
  for (int status = 0; ::wait(&status) > 0;) succeeded = succeeded && status == 0;
  return succeeded;
}

// Three processes count up to 3,000 while this one watches.
int Check() {
  constexpr std::uint64_t kTimes = 1000;
  constexpr std::uint64_t kProcesses = 3;
  Counter counter;
  for (std::uint64_t i = 0; i < kProcesses; ++i) qvopl::Task::Start([] { Counter().Raise(kTimes); });
  counter.Watch(kTimes * kProcesses);
  return AllSucceeded() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int Run(int argc, char** argv) {
  // Begins the library, and ends it behind all that follows. A task begins one of its own.
  const qvopl::Library library;
  const std::string_view first = argc > 1 ? argv[1] : "1";
  if (first == "--check") return Check();
  if (first == "--watch" && argc > 2)
    Counter().Watch(std::stoull(argv[2]));
  else
    Counter().Raise(std::stoull(std::string(first)));
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const qvopl::Error& error) {
    // What the library recorded of the failure, and its code.
    std::fprintf(stderr, "counter: %s (0x%06X)\n", error.what(), static_cast<unsigned>(error.result()));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "counter: %s\n", error.what());
  }
  return EXIT_FAILURE;
}
