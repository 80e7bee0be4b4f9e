// Making, filling and releasing memory contexts. The library is not begun in these tests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "OPL_Mem.h"
#include "tests/opl_mem/Position.h"
#include "tests/opl_mem/SystemAllocator.h"
#include "tests/support/Instance.h"

namespace {

using opltest::AllocatorCall;
using opltest::SystemAllocator;

constexpr auto kNoMemory = static_cast<OPL_Result>(0x050C01);
constexpr auto kNullArgument = static_cast<OPL_Result>(0x050C02);

TEST(MemCodes, AreThoseOfTheModule) {
  EXPECT_EQ(0x050C01, OPL_MEM_E_NO_MEMORY);
  EXPECT_EQ(0x050C02, OPL_MEM_E_NULL_ARGUMENT);
}

TEST(MemContextCreate, RefusesANullPlace) { EXPECT_EQ(kNullArgument, OPL_MemContextCreate(nullptr)); }

TEST(MemContextCreate, MakesAValidContextWithoutAnythingElse) {
  constexpr size_t kFields = 8;  // valid, state, reserved and five callbacks, each in a pointer's place
  OPL_MemContext* context = nullptr;
  ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&context));
  uintptr_t fields[kFields];
  std::memcpy(fields, context, sizeof fields);
  EXPECT_EQ(1u, fields[0] & UINT32_MAX);
  for (size_t i = 1; i < kFields; ++i) EXPECT_EQ(0u, fields[i]) << i;
  EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context));
}

TEST(MemContextCreate, StoresNullWhenThereIsNoMemory) {
  int something;
  auto* context = reinterpret_cast<OPL_MemContext*>(&something);
  OPL_Result result;
  {
    SystemAllocator system(SystemAllocator::kFails);
    result = OPL_MemContextCreate(&context);
  }
  EXPECT_EQ(kNoMemory, result);
  EXPECT_EQ(nullptr, context);
}

int gMallocs;
void* CountingMalloc(void*, uint32_t size, uint32_t, const char*, const char*, const char*, uint32_t) {
  ++gMallocs;
  return std::malloc(size);
}

int gCallocs;
void* CountingCalloc(void*, uint32_t count, uint32_t size, uint32_t, const char*, const char*, const char*,
                     uint32_t) {
  ++gCallocs;
  return std::calloc(count, size);
}

int gFrees;
void CountingFree(void*, void* pointer, uint32_t, const char*, const char*, const char*, uint32_t) {
  ++gFrees;
  std::free(pointer);
}

TEST(MemContextCreate, GoesToTheSystemPastTheDefaultContext) {
  OPL_MemContext* first = nullptr;
  ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&first));
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(first, CountingMalloc));
  EXPECT_EQ(OPL_OK, OPL_MemCallocCallbackSet(first, CountingCalloc));
  EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(first, CountingFree));
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(first));
  OPL_MemContext* second = nullptr;
  EXPECT_EQ(OPL_OK, OPL_MemContextCreate(&second));
  EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&second));
  EXPECT_EQ(0, gMallocs + gCallocs + gFrees);
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(nullptr));
  EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&first));
}

TEST(MemContextDestroy, RefusesANullPlace) { EXPECT_EQ(kNullArgument, OPL_MemContextDestroy(nullptr)); }

TEST(MemContextDestroy, StoresNull) {
  OPL_MemContext* context = nullptr;
  ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&context));
  EXPECT_NE(nullptr, context);
  EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context));
  EXPECT_EQ(nullptr, context);
}

TEST(MemContextDestroy, TakesANullContext) {
  OPL_MemContext* context = nullptr;
  EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context));
  EXPECT_EQ(nullptr, context);
}

TEST(MemContextDestroy, GivesTheContextBackToTheSystem) {
  OPL_MemContext* context = nullptr;
  ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&context));
  OPL_MemContext* const released = context;
  SystemAllocator system;
  (void)OPL_MemContextDestroy(&context);
  const int calls = system.Calls();
  const AllocatorCall call = system.Last();
  EXPECT_EQ(1, calls);
  EXPECT_EQ(AllocatorCall::kFree, call.function);
  EXPECT_EQ(released, call.pointer);
}

// The memory is kept from the system here, so that the context that the default still points to is there.
TEST(MemContextDestroy, LeavesTheContextTheDefault) {
  OPL_MemContext* context = nullptr;
  ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&context));
  ASSERT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context, CountingMalloc));
  ASSERT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context));
  OPL_MemContext* const released = context;
  {
    SystemAllocator system(SystemAllocator::kKeeps);
    (void)OPL_MemContextDestroy(&context);
  }
  EXPECT_EQ(nullptr, context);
  std::free(OPL_MemMalloc(nullptr, 5, OPLTEST_POSITION));
  EXPECT_EQ(1, gMallocs);
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(nullptr));
  std::free(released);
}

TEST(MemContextFinalize, ReturnsSuccess) { EXPECT_EQ(OPL_OK, OPL_MemContextFinalize()); }

TEST(MemLogPrivateMem, Returns) { OPL_MemLogPrivateMem(); }

class MemContext : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(OPL_OK, OPL_MemContextCreate(&context_)); }
  void TearDown() override {
    (void)OPL_MemDefaultHandleSet(nullptr);
    EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context_));
  }

  OPL_MemContext* context_ = nullptr;
};

TEST_F(MemContext, FinalizeLeavesTheDefaultInForce) {
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, CountingMalloc));
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_));
  EXPECT_EQ(OPL_OK, OPL_MemContextFinalize());
  std::free(OPL_MemMalloc(nullptr, 1, OPLTEST_POSITION));
  EXPECT_EQ(1, gMallocs);
}

TEST_F(MemContext, CallbacksAndStateStandInTheirOrder) {
  int state = 0;
  const auto realloc = [](void*, void*, uint32_t, uint32_t, const char*, const char*, const char*,
                          uint32_t) -> void* { return nullptr; };
  const auto strdup = [](void*, const char*, uint32_t, const char*, const char*, const char*,
                         uint32_t) -> char* { return nullptr; };
  EXPECT_EQ(OPL_OK, OPL_MemCallbackStateSet(context_, &state));
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, CountingMalloc));
  EXPECT_EQ(OPL_OK, OPL_MemCallocCallbackSet(context_, CountingCalloc));
  EXPECT_EQ(OPL_OK, OPL_MemReallocCallbackSet(context_, realloc));
  EXPECT_EQ(OPL_OK, OPL_MemStrdupCallbackSet(context_, strdup));
  EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(context_, CountingFree));
  uintptr_t fields[8];
  std::memcpy(fields, context_, sizeof fields);
  EXPECT_EQ(1u, fields[0] & UINT32_MAX);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&state), fields[1]);
  EXPECT_EQ(0u, fields[2]) << "the reserved field stays null";
  EXPECT_EQ(reinterpret_cast<uintptr_t>(CountingMalloc), fields[3]);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(CountingCalloc), fields[4]);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(static_cast<OPL_MemReallocCallback>(realloc)), fields[5]);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(static_cast<OPL_MemStrdupCallback>(strdup)), fields[6]);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(CountingFree), fields[7]);
}

// One refusal by a null context, one by a null callback that leaves the callback that was there, and one
// replacement, for each of the five setters.
template <int kWhich>
int gTagged;

template <int kWhich>
void* TagMalloc(void*, uint32_t, uint32_t, const char*, const char*, const char*, uint32_t) {
  return &gTagged<kWhich>;
}

TEST_F(MemContext, MallocCallbackSetRefusesANullContext) {
  EXPECT_EQ(kNullArgument, OPL_MemMallocCallbackSet(nullptr, TagMalloc<1>));
}

TEST_F(MemContext, MallocCallbackSetKeepsTheCallbackWhenGivenNull) {
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, TagMalloc<1>));
  EXPECT_EQ(kNullArgument, OPL_MemMallocCallbackSet(context_, nullptr));
  EXPECT_EQ(&gTagged<1>, OPL_MemMalloc(context_, 1, OPLTEST_POSITION));
}

TEST_F(MemContext, MallocCallbackSetReplacesTheCallback) {
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, TagMalloc<1>));
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, TagMalloc<2>));
  EXPECT_EQ(&gTagged<2>, OPL_MemMalloc(context_, 1, OPLTEST_POSITION));
}

template <int kWhich>
void* TagCalloc(void*, uint32_t, uint32_t, uint32_t, const char*, const char*, const char*, uint32_t) {
  return &gTagged<kWhich>;
}

TEST_F(MemContext, CallocCallbackSetRefusesANullContext) {
  EXPECT_EQ(kNullArgument, OPL_MemCallocCallbackSet(nullptr, TagCalloc<1>));
}

TEST_F(MemContext, CallocCallbackSetKeepsTheCallbackWhenGivenNull) {
  EXPECT_EQ(OPL_OK, OPL_MemCallocCallbackSet(context_, TagCalloc<1>));
  EXPECT_EQ(kNullArgument, OPL_MemCallocCallbackSet(context_, nullptr));
  EXPECT_EQ(&gTagged<1>, OPL_MemCalloc(context_, 1, 1, OPLTEST_POSITION));
}

TEST_F(MemContext, CallocCallbackSetReplacesTheCallback) {
  EXPECT_EQ(OPL_OK, OPL_MemCallocCallbackSet(context_, TagCalloc<1>));
  EXPECT_EQ(OPL_OK, OPL_MemCallocCallbackSet(context_, TagCalloc<2>));
  EXPECT_EQ(&gTagged<2>, OPL_MemCalloc(context_, 1, 1, OPLTEST_POSITION));
}

template <int kWhich>
void* TagRealloc(void*, void*, uint32_t, uint32_t, const char*, const char*, const char*, uint32_t) {
  return &gTagged<kWhich>;
}

TEST_F(MemContext, ReallocCallbackSetRefusesANullContext) {
  EXPECT_EQ(kNullArgument, OPL_MemReallocCallbackSet(nullptr, TagRealloc<1>));
}

TEST_F(MemContext, ReallocCallbackSetKeepsTheCallbackWhenGivenNull) {
  EXPECT_EQ(OPL_OK, OPL_MemReallocCallbackSet(context_, TagRealloc<1>));
  EXPECT_EQ(kNullArgument, OPL_MemReallocCallbackSet(context_, nullptr));
  EXPECT_EQ(&gTagged<1>, OPL_MemRealloc(context_, nullptr, 1, OPLTEST_POSITION));
}

TEST_F(MemContext, ReallocCallbackSetReplacesTheCallback) {
  EXPECT_EQ(OPL_OK, OPL_MemReallocCallbackSet(context_, TagRealloc<1>));
  EXPECT_EQ(OPL_OK, OPL_MemReallocCallbackSet(context_, TagRealloc<2>));
  EXPECT_EQ(&gTagged<2>, OPL_MemRealloc(context_, nullptr, 1, OPLTEST_POSITION));
}

template <char kTag>
char* TagStrdup(void*, const char*, uint32_t, const char*, const char*, const char*, uint32_t) {
  static char text[] = {kTag, '\0'};
  return text;
}

TEST_F(MemContext, StrdupCallbackSetRefusesANullContext) {
  EXPECT_EQ(kNullArgument, OPL_MemStrdupCallbackSet(nullptr, TagStrdup<'1'>));
}

TEST_F(MemContext, StrdupCallbackSetKeepsTheCallbackWhenGivenNull) {
  EXPECT_EQ(OPL_OK, OPL_MemStrdupCallbackSet(context_, TagStrdup<'1'>));
  EXPECT_EQ(kNullArgument, OPL_MemStrdupCallbackSet(context_, nullptr));
  EXPECT_STREQ("1", OPL_MemStrdup(context_, "", OPLTEST_POSITION));
}

TEST_F(MemContext, StrdupCallbackSetReplacesTheCallback) {
  EXPECT_EQ(OPL_OK, OPL_MemStrdupCallbackSet(context_, TagStrdup<'1'>));
  EXPECT_EQ(OPL_OK, OPL_MemStrdupCallbackSet(context_, TagStrdup<'2'>));
  EXPECT_STREQ("2", OPL_MemStrdup(context_, "", OPLTEST_POSITION));
}

template <int kWhich>
void TagFree(void*, void*, uint32_t, const char*, const char*, const char*, uint32_t) {
  ++gTagged<kWhich>;
}

TEST_F(MemContext, FreeCallbackSetRefusesANullContext) {
  EXPECT_EQ(kNullArgument, OPL_MemFreeCallbackSet(nullptr, TagFree<1>));
}

TEST_F(MemContext, FreeCallbackSetKeepsTheCallbackWhenGivenNull) {
  EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(context_, TagFree<1>));
  EXPECT_EQ(kNullArgument, OPL_MemFreeCallbackSet(context_, nullptr));
  OPL_MemFree(context_, nullptr, OPLTEST_POSITION);
  EXPECT_EQ(1, gTagged<1>);
}

TEST_F(MemContext, FreeCallbackSetReplacesTheCallback) {
  EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(context_, TagFree<1>));
  EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(context_, TagFree<2>));
  OPL_MemFree(context_, nullptr, OPLTEST_POSITION);
  EXPECT_EQ(0, gTagged<1>);
  EXPECT_EQ(1, gTagged<2>);
}

void* TellState(void* state, uint32_t, uint32_t, const char*, const char*, const char*, uint32_t) {
  return state;
}

TEST_F(MemContext, StateIsNullUntilItIsSet) {
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, TellState));
  EXPECT_EQ(nullptr, OPL_MemMalloc(context_, 1, OPLTEST_POSITION));
}

TEST_F(MemContext, StateSetRefusesANullContext) {
  int state = 0;
  EXPECT_EQ(kNullArgument, OPL_MemCallbackStateSet(nullptr, &state));
}

TEST_F(MemContext, StateSetKeepsTheStateWhenGivenNull) {
  int state = 0;
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, TellState));
  EXPECT_EQ(OPL_OK, OPL_MemCallbackStateSet(context_, &state));
  EXPECT_EQ(kNullArgument, OPL_MemCallbackStateSet(context_, nullptr));
  EXPECT_EQ(&state, OPL_MemMalloc(context_, 1, OPLTEST_POSITION));
}

TEST_F(MemContext, StateSetReplacesTheState) {
  int states[2] = {};
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, TellState));
  EXPECT_EQ(OPL_OK, OPL_MemCallbackStateSet(context_, &states[0]));
  EXPECT_EQ(OPL_OK, OPL_MemCallbackStateSet(context_, &states[1]));
  EXPECT_EQ(&states[1], OPL_MemMalloc(context_, 1, OPLTEST_POSITION));
}

}  // namespace
