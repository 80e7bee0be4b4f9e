// What a process has, so that a test sees whether a call left something behind: files in the IPC and the
// working directory, System V objects, open descriptors.
//
//   const Footprint before = Footprint::Now();
//   ...
//   EXPECT_EQ(before, Footprint::Now());
#ifndef OPL_TESTS_SUPPORT_FOOTPRINT_H
#define OPL_TESTS_SUPPORT_FOOTPRINT_H

#include <ostream>
#include <set>
#include <string>

namespace opltest {

// "sem 12", "shm 3", "msg 0": every System V object that this process can see, but for those that were there
// before the test.
std::set<std::string> SystemVObjects();

// For the runner: tells the test, and the processes that it starts, which were there before.
void DisownSystemVObjects(const std::set<std::string>& objects);

struct Footprint {
  static Footprint Now();

  std::set<std::string> items;

  bool operator==(const Footprint&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Footprint& footprint);

}  // namespace opltest

#endif
