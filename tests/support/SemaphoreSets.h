// Semaphore sets of the test's instance: which there are, what names them, who sleeps on them.
#ifndef OPL_TESTS_SUPPORT_SEMAPHORE_SETS_H
#define OPL_TESTS_SUPPORT_SEMAPHORE_SETS_H

#include <string>
#include <vector>

#include "tests/support/SystemV.h"

namespace opltest {

// The test's sets, by their ids.
std::vector<int> SemaphoreSets();

// The set that an object file names; fails the test when the file does not hold an id.
int SetNamedBy(const std::string& file);

// The set's permission bits.
int ModeOf(int id);

// Wait until that many threads sleep because the semaphore is too low, or because it is not 0.
void AwaitSleepersOn(int id, int semaphore, int count = 1);
void AwaitSleepersForZero(int id, int semaphore, int count = 1);

}  // namespace opltest

#endif
