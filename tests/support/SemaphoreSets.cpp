#include "tests/support/SemaphoreSets.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"

namespace opltest {

namespace {

void AwaitCount(int id, int semaphore, int what, int count) {
  for (int sleepers = -1; sleepers != count; (void)::sched_yield()) {
    sleepers = ::semctl(id, semaphore, what);
    ASSERT_NE(-1, sleepers) << "the set is gone";
  }
}

}  // namespace

std::vector<int> SemaphoreSets() {
  constexpr char kSet[] = "sem ";
  std::vector<int> ids;
  for (const std::string& object : SystemVObjects())
    if (object.starts_with(kSet)) ids.push_back(std::atoi(object.c_str() + std::strlen(kSet)));
  return ids;
}

int SetNamedBy(const std::string& file) {
  const std::string contents = ContentsOf(file);
  int32_t id = -1;
  EXPECT_EQ(sizeof id, contents.size()) << file;
  if (contents.size() == sizeof id) std::memcpy(&id, contents.data(), sizeof id);
  return id;
}

int ModeOf(int id) { return PermissionsOfSet(id).mode & 0777; }

void AwaitSleepersOn(int id, int semaphore, int count) { AwaitCount(id, semaphore, GETNCNT, count); }

void AwaitSleepersForZero(int id, int semaphore, int count) { AwaitCount(id, semaphore, GETZCNT, count); }

}  // namespace opltest
