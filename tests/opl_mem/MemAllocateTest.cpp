// What the allocation functions do without a callback: the system allocator serves them. The library is not
// begun in these tests, but for those that end it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Mem.h"
#include "tests/opl_mem/Position.h"
#include "tests/opl_mem/SystemAllocator.h"
#include "tests/support/Instance.h"

namespace {

using opltest::AllocatorCall;
using opltest::SystemAllocator;

TEST(MemMalloc, TakesTheSizeFromTheSystem) {
  SystemAllocator system;
  void* const memory = OPL_MemMalloc(nullptr, 37, OPLTEST_POSITION);
  const int calls = system.Calls();
  const AllocatorCall call = system.Last();
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(1, calls);
  EXPECT_EQ(AllocatorCall::kMalloc, call.function);
  EXPECT_EQ(37u, call.size);
  std::memset(memory, 'x', 37);
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemMalloc, OfNothingIsNullWithoutAskingTheSystem) {
  SystemAllocator system;
  void* const memory = OPL_MemMalloc(nullptr, 0, OPLTEST_POSITION);
  const int calls = system.Calls();
  EXPECT_EQ(nullptr, memory);
  EXPECT_EQ(0, calls);
}

TEST(MemMalloc, IsNullWhenTheSystemHasNoMemory) {
  void* memory;
  int error;
  {
    SystemAllocator system(SystemAllocator::kFails);
    errno = 0;
    memory = OPL_MemMalloc(nullptr, 37, OPLTEST_POSITION);
    error = errno;
  }
  EXPECT_EQ(nullptr, memory);
  EXPECT_EQ(ENOMEM, error);
}

TEST(MemMalloc, TakesASourcePositionOfNulls) {
  void* const memory = OPL_MemMalloc(nullptr, 1, 0, nullptr, nullptr, nullptr, 0);
  EXPECT_NE(nullptr, memory);
  OPL_MemFree(nullptr, memory, 0, nullptr, nullptr, nullptr, 0);
}

TEST(MemMalloc, GivesMemoryThatFreeOfTheSystemTakes) { std::free(OPL_MemMalloc(nullptr, 5, OPL_MEM_HERE)); }

TEST(MemCalloc, TakesCountAndSizeFromTheSystem) {
  SystemAllocator system;
  void* const memory = OPL_MemCalloc(nullptr, 3, 7, OPLTEST_POSITION);
  const int calls = system.Calls();
  const AllocatorCall call = system.Last();
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(1, calls);
  EXPECT_EQ(AllocatorCall::kCalloc, call.function);
  EXPECT_EQ(3u, call.count);
  EXPECT_EQ(7u, call.size);
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemCalloc, GivesZeros) {
  // Memory that held something before is what shows that it is cleared.
  void* const before = OPL_MemMalloc(nullptr, 21, OPLTEST_POSITION);
  ASSERT_NE(nullptr, before);
  std::memset(before, 'x', 21);
  OPL_MemFree(nullptr, before, OPLTEST_POSITION);
  char* const memory = static_cast<char*>(OPL_MemCalloc(nullptr, 3, 7, OPLTEST_POSITION));
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(21, std::count(memory, memory + 21, '\0'));
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemCalloc, OfNoElementsIsNullWithoutAskingTheSystem) {
  SystemAllocator system;
  void* const memory = OPL_MemCalloc(nullptr, 0, 7, OPLTEST_POSITION);
  const int calls = system.Calls();
  EXPECT_EQ(nullptr, memory);
  EXPECT_EQ(0, calls);
}

TEST(MemCalloc, OfEmptyElementsIsNullWithoutAskingTheSystem) {
  SystemAllocator system;
  void* const memory = OPL_MemCalloc(nullptr, 3, 0, OPLTEST_POSITION);
  const int calls = system.Calls();
  EXPECT_EQ(nullptr, memory);
  EXPECT_EQ(0, calls);
}

TEST(MemCalloc, OfMoreThanThereIsIsNull) {
  errno = 0;
  EXPECT_EQ(nullptr, OPL_MemCalloc(nullptr, UINT32_MAX, UINT32_MAX, OPLTEST_POSITION));
  EXPECT_EQ(ENOMEM, errno);
}

// Multiplied in 32 bits, each of these is small.
TEST(MemCalloc, DoesNotTakeAnOverflowForASmallSize) {
  if (opltest::kWidth != 32) GTEST_SKIP() << "these sizes do not overflow in 64 bits";
  EXPECT_EQ(nullptr, OPL_MemCalloc(nullptr, 0x10000, 0x10000, OPLTEST_POSITION));
  EXPECT_EQ(nullptr, OPL_MemCalloc(nullptr, 0x10001, 0x10000, OPLTEST_POSITION));
  EXPECT_EQ(nullptr, OPL_MemCalloc(nullptr, 2, 0x80000008, OPLTEST_POSITION));
}

TEST(MemRealloc, KeepsTheContentsWhenItGrows) {
  char* memory = static_cast<char*>(OPL_MemMalloc(nullptr, 4, OPLTEST_POSITION));
  ASSERT_NE(nullptr, memory);
  std::memcpy(memory, "abcd", 4);
  memory = static_cast<char*>(OPL_MemRealloc(nullptr, memory, 100000, OPLTEST_POSITION));
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(0, std::memcmp(memory, "abcd", 4));
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemRealloc, KeepsTheStartWhenItShrinks) {
  char* memory = static_cast<char*>(OPL_MemMalloc(nullptr, 1000, OPLTEST_POSITION));
  ASSERT_NE(nullptr, memory);
  std::memcpy(memory, "abcd", 4);
  memory = static_cast<char*>(OPL_MemRealloc(nullptr, memory, 2, OPLTEST_POSITION));
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(0, std::memcmp(memory, "ab", 2));
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemRealloc, OfNullAllocates) {
  SystemAllocator system;
  void* const memory = OPL_MemRealloc(nullptr, nullptr, 9, OPLTEST_POSITION);
  const AllocatorCall call = system.Last();
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(AllocatorCall::kRealloc, call.function);
  EXPECT_EQ(nullptr, call.pointer);
  EXPECT_EQ(9u, call.size);
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemRealloc, OfNullToNothingIsNullWithoutAskingTheSystem) {
  SystemAllocator system;
  void* const memory = OPL_MemRealloc(nullptr, nullptr, 0, OPLTEST_POSITION);
  const int calls = system.Calls();
  EXPECT_EQ(nullptr, memory);
  EXPECT_EQ(0, calls);
}

TEST(MemRealloc, ToNothingIsLeftToTheSystem) {
  void* const memory = OPL_MemMalloc(nullptr, 9, OPLTEST_POSITION);
  ASSERT_NE(nullptr, memory);
  SystemAllocator system;
  void* const result = OPL_MemRealloc(nullptr, memory, 0, OPLTEST_POSITION);
  const int calls = system.Calls();
  const AllocatorCall call = system.Last();
  EXPECT_EQ(1, calls);
  EXPECT_EQ(AllocatorCall::kRealloc, call.function);
  EXPECT_EQ(memory, call.pointer);
  EXPECT_EQ(0u, call.size);
  EXPECT_EQ(nullptr, result);
}

TEST(MemRealloc, LeavesTheOldMemoryWhenTheSystemHasNone) {
  char* const memory = static_cast<char*>(OPL_MemMalloc(nullptr, 2, OPLTEST_POSITION));
  ASSERT_NE(nullptr, memory);
  std::memcpy(memory, "a", 2);
  void* result;
  {
    SystemAllocator system(SystemAllocator::kFails);
    result = OPL_MemRealloc(nullptr, memory, 100, OPLTEST_POSITION);
  }
  EXPECT_EQ(nullptr, result);
  EXPECT_STREQ("a", memory);
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
}

TEST(MemStrdup, CopiesTheText) {
  const char text[] = "a text";
  char* const copy = OPL_MemStrdup(nullptr, text, OPLTEST_POSITION);
  EXPECT_NE(text, copy);
  EXPECT_STREQ("a text", copy);
  OPL_MemFree(nullptr, copy, OPLTEST_POSITION);
}

TEST(MemStrdup, CopiesTheEmptyText) {
  char* const copy = OPL_MemStrdup(nullptr, "", OPLTEST_POSITION);
  EXPECT_STREQ("", copy);
  OPL_MemFree(nullptr, copy, OPLTEST_POSITION);
}

TEST(MemStrdup, OfNullIsNullWithoutAskingTheSystem) {
  SystemAllocator system;
  char* const copy = OPL_MemStrdup(nullptr, nullptr, OPLTEST_POSITION);
  const int calls = system.Calls();
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(0, calls);
}

TEST(MemFree, OfNullDoesNothing) { OPL_MemFree(nullptr, nullptr, OPLTEST_POSITION); }

TEST(MemFree, TakesMemoryOfTheSystem) { OPL_MemFree(nullptr, std::malloc(5), OPLTEST_POSITION); }

// The rest of the file: each function through a context without callbacks serves as without a context.
class MemEmptyContext : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&context_)); }
  void TearDown() override { EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context_)); }

  OPL_MemContext* context_ = nullptr;
};

TEST_F(MemEmptyContext, LeavesMallocToTheSystem) {
  void* const memory = OPL_MemMalloc(context_, 5, OPLTEST_POSITION);
  EXPECT_NE(nullptr, memory);
  std::free(memory);
}

TEST_F(MemEmptyContext, LeavesMallocOfNothingNull) {
  EXPECT_EQ(nullptr, OPL_MemMalloc(context_, 0, OPLTEST_POSITION));
}

TEST_F(MemEmptyContext, LeavesCallocToTheSystem) {
  void* const memory = OPL_MemCalloc(context_, 2, 3, OPLTEST_POSITION);
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(0, std::memcmp(memory, "\0\0\0\0\0\0", 6));
  std::free(memory);
}

TEST_F(MemEmptyContext, LeavesCallocOfNothingNull) {
  EXPECT_EQ(nullptr, OPL_MemCalloc(context_, 0, 3, OPLTEST_POSITION));
  EXPECT_EQ(nullptr, OPL_MemCalloc(context_, 2, 0, OPLTEST_POSITION));
}

TEST_F(MemEmptyContext, LeavesReallocToTheSystem) {
  void* const memory = OPL_MemRealloc(context_, std::malloc(5), 6, OPLTEST_POSITION);
  EXPECT_NE(nullptr, memory);
  std::free(memory);
}

TEST_F(MemEmptyContext, LeavesReallocOfNullToNothingNull) {
  EXPECT_EQ(nullptr, OPL_MemRealloc(context_, nullptr, 0, OPLTEST_POSITION));
}

TEST_F(MemEmptyContext, LeavesStrdupToTheSystem) {
  char* const copy = OPL_MemStrdup(context_, "text", OPLTEST_POSITION);
  EXPECT_STREQ("text", copy);
  std::free(copy);
}

TEST_F(MemEmptyContext, LeavesStrdupOfNullNull) {
  EXPECT_EQ(nullptr, OPL_MemStrdup(context_, nullptr, OPLTEST_POSITION));
}

TEST_F(MemEmptyContext, LeavesFreeToTheSystem) {
  OPL_MemFree(context_, std::malloc(5), OPLTEST_POSITION);
  OPL_MemFree(context_, nullptr, OPLTEST_POSITION);
}

void ExpectAllFiveToWork() {
  void* memory = OPL_MemMalloc(nullptr, 1, OPLTEST_POSITION);
  memory = OPL_MemRealloc(nullptr, memory, 2, OPLTEST_POSITION);
  void* const zeros = OPL_MemCalloc(nullptr, 1, 1, OPLTEST_POSITION);
  char* const copy = OPL_MemStrdup(nullptr, "text", OPLTEST_POSITION);
  EXPECT_NE(nullptr, memory);
  EXPECT_NE(nullptr, zeros);
  EXPECT_STREQ("text", copy);
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
  OPL_MemFree(nullptr, zeros, OPLTEST_POSITION);
  OPL_MemFree(nullptr, copy, OPLTEST_POSITION);
}

TEST(MemAllocate, WorksBeforeTheLibraryIsBegun) {
  EXPECT_NE(static_cast<uint32_t>(OPL_OK), OPL_InitIsStopped(0));
  ExpectAllFiveToWork();
}

TEST(MemAllocate, WorksWhileTheLibraryIsBegun) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ExpectAllFiveToWork();
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(MemAllocate, WorksAfterTheEnd) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_NE(static_cast<uint32_t>(OPL_OK), OPL_InitIsStopped(0));
  ExpectAllFiveToWork();
}

TEST(MemAllocate, WorksInManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      for (int round = 0; round < 200; ++round) ExpectAllFiveToWork();
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
