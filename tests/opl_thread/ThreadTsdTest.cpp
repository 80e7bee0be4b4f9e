// Thread-specific data.
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Fault;

constexpr uint32_t kNoKey = 0xFFFFFFFF;
constexpr uint32_t kUnallocatedKey = 1000;

void* gDestroyed;
int gDestructions;

void Destroy(void* value) {
  gDestroyed = value;
  ++gDestructions;
}

TEST(ThreadTsdAllocKey, GivesAKeyWithoutAValue) {
  uint32_t key = kNoKey;
  ASSERT_EQ(OPL_OK, OPL_ThreadTsdAllocKey(&key, nullptr));
  EXPECT_NE(kNoKey, key);
  void* value = &key;
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdGetValue(key, &value));
  EXPECT_EQ(nullptr, value);
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key));
}

TEST(ThreadTsdAllocKey, RefusesANull) { EXPECT_EQ(0x050304u, OPL_ThreadTsdAllocKey(nullptr, nullptr)); }

TEST(ThreadTsdAllocKey, TellsThatThereIsNoMemory) {
  const Fault fault("pthread_key_create", 1, ENOMEM);
  uint32_t key = 77;
  EXPECT_EQ(0x050308u, OPL_ThreadTsdAllocKey(&key, nullptr));
  EXPECT_EQ(77u, key);
}

TEST(ThreadTsdAllocKey, TellsThatTheSystemHasNoKeyLeft) {
  std::vector<uint32_t> keys;
  uint32_t key = 77;
  OPL_Result result;
  while ((result = OPL_ThreadTsdAllocKey(&key, nullptr)) == OPL_OK) keys.push_back(key);
  EXPECT_EQ(0x05030Cu, result);
  EXPECT_EQ(keys.back(), key) << "the refused call stored a key";
  for (uint32_t& one : keys) EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&one));
}

TEST(ThreadTsdAllocKey, TellsAnyOtherFailureLikeThat) {
  const Fault fault("pthread_key_create", 1, EPERM);
  uint32_t key = 77;
  EXPECT_EQ(0x05030Cu, OPL_ThreadTsdAllocKey(&key, nullptr));
}

TEST(ThreadTsdAllocKey, HasItsDestructorCalledAtAThreadsEnd) {
  uint32_t key = kNoKey;
  ASSERT_EQ(OPL_OK, OPL_ThreadTsdAllocKey(&key, Destroy));
  int value = 0;
  std::thread([&] { EXPECT_EQ(OPL_OK, OPL_ThreadTsdSetValue(key, &value)); }).join();
  EXPECT_EQ(1, gDestructions);
  EXPECT_EQ(&value, gDestroyed);
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key));
}

TEST(ThreadTsdAllocKey, HasItsDestructorCalledForNoNull) {
  uint32_t key = kNoKey;
  ASSERT_EQ(OPL_OK, OPL_ThreadTsdAllocKey(&key, Destroy));
  int value = 0;
  std::thread([&] {
    EXPECT_EQ(OPL_OK, OPL_ThreadTsdSetValue(key, &value));
    EXPECT_EQ(OPL_OK, OPL_ThreadTsdSetValue(key, nullptr));
  }).join();
  EXPECT_EQ(0, gDestructions);
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key));
}

class ThreadTsd : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(OPL_OK, OPL_ThreadTsdAllocKey(&key_, nullptr)); }
  void TearDown() override { EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key_)); }

  uint32_t key_ = kNoKey;
  int value_ = 0;
  void* read_ = this;
};

TEST_F(ThreadTsd, HoldsAValue) {
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdSetValue(key_, &value_));
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdGetValue(key_, &read_));
  EXPECT_EQ(&value_, read_);
}

TEST_F(ThreadTsd, HoldsAValueForEachThread) {
  opltest::RunAtOnce(8, [this](int self) {
    int own = self;
    void* read = nullptr;
    EXPECT_EQ(OPL_OK, OPL_ThreadTsdSetValue(key_, &own));
    EXPECT_EQ(OPL_OK, OPL_ThreadTsdGetValue(key_, &read));
    EXPECT_EQ(&own, read);
  });
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdGetValue(key_, &read_));
  EXPECT_EQ(nullptr, read_);
}

TEST_F(ThreadTsd, SetsNothingUnderNoKey) { EXPECT_EQ(0x050307u, OPL_ThreadTsdSetValue(kNoKey, &value_)); }

TEST_F(ThreadTsd, SetsNothingUnderAKeyThatIsNotAllocated) {
  EXPECT_EQ(0x050307u, OPL_ThreadTsdSetValue(kUnallocatedKey, &value_));
}

TEST_F(ThreadTsd, TellsThatAValueCannotBeStored) {
  const Fault fault("pthread_setspecific", 1, ENOMEM);
  EXPECT_EQ(0x05030Du, OPL_ThreadTsdSetValue(key_, &value_));
}

TEST_F(ThreadTsd, TellsAKeyThatTheSystemRefuses) {
  const Fault fault("pthread_setspecific", 1, EINVAL);
  EXPECT_EQ(0x050307u, OPL_ThreadTsdSetValue(key_, &value_));
}

TEST_F(ThreadTsd, ReadsNothingUnderNoKey) {
  EXPECT_EQ(0x050307u, OPL_ThreadTsdGetValue(kNoKey, &read_));
  EXPECT_EQ(this, read_);
}

TEST_F(ThreadTsd, ReadsNullUnderAKeyThatIsNotAllocated) {
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdGetValue(kUnallocatedKey, &read_));
  EXPECT_EQ(nullptr, read_);
}

TEST_F(ThreadTsd, RefusesANullOnReading) {
  EXPECT_EQ(0x050304u, OPL_ThreadTsdGetValue(key_, nullptr));
  EXPECT_EQ(0x050304u, OPL_ThreadTsdGetValue(kNoKey, nullptr));
}

TEST_F(ThreadTsd, StoresThatThereIsNoKeyWhenItIsFreed) {
  const uint32_t before = key_;
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key_));
  EXPECT_EQ(kNoKey, key_);
  EXPECT_EQ(0x050307u, OPL_ThreadTsdSetValue(before, &value_));
}

TEST_F(ThreadTsd, IsFreedWithoutLookingAtTheResult) {
  uint32_t key = kUnallocatedKey;
  const Fault fault("pthread_key_delete", 1, EINVAL);
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key));
  EXPECT_EQ(kNoKey, key);
}

TEST_F(ThreadTsd, IsFreedWhenThereIsNone) {
  uint32_t key = kNoKey;
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key));
  EXPECT_EQ(kNoKey, key);
}

TEST_F(ThreadTsd, IsNotFreedThroughANull) { EXPECT_EQ(0x050304u, OPL_ThreadTsdFreeKey(nullptr)); }

TEST_F(ThreadTsd, RunsNoDestructorWhenTheKeyIsFreed) {
  uint32_t key = kNoKey;
  ASSERT_EQ(OPL_OK, OPL_ThreadTsdAllocKey(&key, Destroy));
  ASSERT_EQ(OPL_OK, OPL_ThreadTsdSetValue(key, &value_));
  EXPECT_EQ(OPL_OK, OPL_ThreadTsdFreeKey(&key));
  EXPECT_EQ(0, gDestructions);
}

class ThreadTsdBegun : public opltest::Instance {};

TEST_F(ThreadTsdBegun, LeavesNoMessage) {
  opltest::InNewThread([&] {
    void* read = nullptr;
    (void)OPL_ThreadTsdAllocKey(nullptr, nullptr);
    (void)OPL_ThreadTsdSetValue(kNoKey, nullptr);
    (void)OPL_ThreadTsdGetValue(kNoKey, &read);
    (void)OPL_ThreadTsdFreeKey(nullptr);
    EXPECT_EQ(static_cast<uint32_t>(OPL_ERR_E_NO_RECORD), OPL_ErrCodeGet(0));
  });
}

}  // namespace
