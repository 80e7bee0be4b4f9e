// Kills a process at each of the places where it enters the system.
//
//   KillAtEverySystemCall(
//       [](Steps&) { begin... },             // what comes before, undisturbed
//       [] { create... },                    // what is killed at its 1st, 2nd, ... system call
//       [](int nth) { look around... });     // in the test's process, after each kill
//
// The n-th call itself is not made any more. The last round is the one in which the body comes to its end.
#ifndef OPL_TESTS_SUPPORT_KILL_POINTS_H
#define OPL_TESTS_SUPPORT_KILL_POINTS_H

#include <functional>

namespace opltest {

// Returns the number of rounds; 0, with a message, where a process may not be traced.
int KillAtEverySystemCall(const std::function<void()>& before, const std::function<void()>& body,
                          const std::function<void(int)>& after);

}  // namespace opltest

#endif
