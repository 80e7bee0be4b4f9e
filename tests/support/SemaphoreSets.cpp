#include "tests/support/SemaphoreSets.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>

#include <cstdint>
#include <cstring>
#include <fstream>

#include "tests/support/Instance.h"

namespace opltest {

namespace {

union Argument {
  int value;
  semid_ds* status;
  unsigned short* values;
};

void AwaitCount(int id, int semaphore, int what, int count) {
  for (int sleepers = -1; sleepers != count; (void)::sched_yield()) {
    sleepers = ::semctl(id, semaphore, what);
    ASSERT_NE(-1, sleepers) << "the set is gone";
  }
}

}  // namespace

std::vector<int> SemaphoreSets() {
  std::vector<int> ids;
  std::ifstream list("/proc/sysvipc/sem");
  std::string line;
  std::getline(list, line);
  long key = 0;
  for (int id = 0; list >> key >> id && std::getline(list, line);) ids.push_back(id);
  return ids;
}

int SetNamedBy(const std::string& file) {
  const std::string contents = ContentsOf(file);
  int32_t id = -1;
  EXPECT_EQ(sizeof id, contents.size()) << file;
  if (contents.size() == sizeof id) std::memcpy(&id, contents.data(), sizeof id);
  return id;
}

int ModeOf(int id) {
  semid_ds status{};
  Argument argument{};
  argument.status = &status;
  EXPECT_NE(-1, ::semctl(id, 0, IPC_STAT, argument)) << id;
  return status.sem_perm.mode & 0777;
}

void AwaitSleepersOn(int id, int semaphore, int count) { AwaitCount(id, semaphore, GETNCNT, count); }

void AwaitSleepersForZero(int id, int semaphore, int count) { AwaitCount(id, semaphore, GETZCNT, count); }

}  // namespace opltest
