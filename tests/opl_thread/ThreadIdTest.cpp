// Thread ids: 32 bits that tell the living threads of a process apart.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "tests/support/Child.h"
#include "tests/support/Instance.h"
#include "tests/support/Program.h"

namespace {

using opltest::Child;
using opltest::ExpectError;
using opltest::Steps;

uint32_t OwnId() {
  uint32_t id = 0;
  EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(&id));
  return id;
}

// Threads that live at the same time. Each is in the list of ids once it is counted, and stays until Release.
class Crowd {
 public:
  ~Crowd() { Release(); }

  void Start(const pthread_attr_t* attributes) {
    pthread_t thread;
    ASSERT_EQ(0, ::pthread_create(&thread, attributes, Stay, this));
    threads_.push_back(thread);
  }

  std::vector<uint32_t> Ids() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return ids_.size() == threads_.size(); });
    return ids_;
  }

  void Release() {
    {
      const std::lock_guard lock(mutex_);
      released_ = true;
    }
    changed_.notify_all();
    for (const pthread_t thread : threads_) EXPECT_EQ(0, ::pthread_join(thread, nullptr));
    threads_.clear();
  }

 private:
  static void* Stay(void* crowd) {
    static_cast<Crowd*>(crowd)->Stay();
    return nullptr;
  }

  // Frugal with the stack: some threads have only the least.
  void Stay() {
    uint32_t id = 0;
    (void)OPL_ThreadIdGet(&id);
    std::unique_lock lock(mutex_);
    ids_.push_back(id);
    changed_.notify_all();
    changed_.wait(lock, [this] { return released_; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<uint32_t> ids_;
  bool released_ = false;
  std::vector<pthread_t> threads_;
};

void ExpectUnique(const std::vector<uint32_t>& ids) {
  const std::set<uint32_t> unique(ids.begin(), ids.end());
  EXPECT_EQ(ids.size(), unique.size());
  EXPECT_FALSE(unique.contains(0));
  EXPECT_FALSE(unique.contains(OwnId()));
}

TEST(ThreadId, WorksBeforeBegin) {
  EXPECT_NE(0u, OwnId());
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
}

TEST(ThreadId, NeedsNoPlace) { EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(nullptr)); }

TEST(ThreadId, StaysTheSame) {
  const uint32_t before = OwnId();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(before, OwnId());
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(before, OwnId());
}

TEST(ThreadId, IsTheSystemsIn32Bits) {
  if (opltest::kWidth != 32) GTEST_SKIP() << "the system's handle has 64 bits";
  EXPECT_EQ(static_cast<uint32_t>(::pthread_self()), OwnId());
  std::thread([] { EXPECT_EQ(static_cast<uint32_t>(::pthread_self()), OwnId()); }).join();
}

TEST(ThreadId, IsUniqueAmong200LivingThreads) {
  Crowd crowd;
  for (int i = 0; i < 200; ++i) crowd.Start(nullptr);
  ExpectUnique(crowd.Ids());
}

// The control blocks are as near to each other as they get when the stacks are the least that the system
// takes and lie end to end.
TEST(ThreadId, IsUniqueOnTheSmallestStacksEndToEnd) {
  if (opltest::kAddressSanitizer || opltest::kThreadSanitizer)
    GTEST_SKIP() << "sanitizers need larger stacks";
  constexpr size_t kThreads = 200;
  const size_t least = std::max<size_t>(16384, static_cast<size_t>(::sysconf(_SC_THREAD_STACK_MIN)));
  void* const memory =
      ::mmap(nullptr, kThreads * least, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, memory);
  {
    Crowd crowd;
    for (size_t i = 0; i < kThreads; ++i) {
      pthread_attr_t attributes;
      ASSERT_EQ(0, ::pthread_attr_init(&attributes));
      ASSERT_EQ(0, ::pthread_attr_setstack(&attributes, static_cast<char*>(memory) + i * least, least));
      crowd.Start(&attributes);
      ASSERT_EQ(0, ::pthread_attr_destroy(&attributes));
    }
    ExpectUnique(crowd.Ids());
  }
  ASSERT_EQ(0, ::munmap(memory, kThreads * least));
}

// Where the two control blocks lie within their pages differs from run to run.
TEST(ThreadId, TellsTheFirstTwoThreadsOfAProcessApart) {
  for (int run = 0; run < 20; ++run)
    EXPECT_EQ("different", opltest::OutputOf(QVOPL_TEST_PROGRAMS "/TwoThreadsProgram", {}));
}

TEST(ThreadId, IsTheSameInAForkedChild) {
  const uint32_t parents = OwnId();
  Child([&](Steps&) { EXPECT_EQ(parents, OwnId()); }).ExpectSuccess();
}

TEST(ThreadId, IsTheForkingThreadsInAForkedChild) {
  std::thread([] {
    const uint32_t parents = OwnId();
    Child([&](Steps&) { EXPECT_EQ(parents, OwnId()); }).ExpectSuccess();
  }).join();
}

class ThreadIdCompare : public opltest::Instance {};

TEST_F(ThreadIdCompare, TellsEqualIds) {
  uint32_t match = 77;
  EXPECT_EQ(OPL_OK, OPL_ThreadIdCompare(5, 5, &match));
  EXPECT_EQ(1u, match);
}

TEST_F(ThreadIdCompare, TellsDifferentIds) {
  uint32_t match = 77;
  EXPECT_EQ(OPL_OK, OPL_ThreadIdCompare(5, 0x80000005, &match));
  EXPECT_EQ(0u, match);
}

TEST_F(ThreadIdCompare, RefusesANull) {
  EXPECT_EQ(0x050304u, OPL_ThreadIdCompare(5, 5, nullptr));
  ExpectError(0x050304, "OPL_ThreadIdCompare: pMatch is NULL");
}

TEST(ThreadIdCompareBeforeBegin, IsRefused) {
  uint32_t match = 77;
  EXPECT_EQ(0x050203u, OPL_ThreadIdCompare(5, 5, &match));
  EXPECT_EQ(77u, match);
}

}  // namespace
