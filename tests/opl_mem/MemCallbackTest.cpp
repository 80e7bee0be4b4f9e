// What reaches the callbacks of a context, and whose callbacks serve a call.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Mem.h"
#include "tests/opl_mem/Position.h"
#include "tests/support/Instance.h"

namespace {

// The arguments of one call, with what an operation does not take left as it is here.
struct Arguments {
  std::string operation;
  const void* state = nullptr;
  const void* pointer = nullptr;
  uint32_t count = 0;
  uint32_t size = 0;
  uint32_t flags = 0;
  const char* caller = nullptr;
  const char* file = nullptr;
  const char* revision = nullptr;
  uint32_t line = 0;

  bool operator==(const Arguments&) const = default;
};

void PrintTo(const Arguments& call, std::ostream* out) {
  *out << call.operation << " state " << call.state << " pointer " << call.pointer << " count " << call.count
       << " size " << call.size << " flags " << call.flags << " caller "
       << static_cast<const void*>(call.caller) << " line " << call.line;
}

// What was called since the test began, and what callbacks return: no memory at all.
std::vector<Arguments> gCalls;
char gResult[] = "result";

void* Malloc(void* state, uint32_t size, uint32_t flags, const char* caller, const char* file,
             const char* revision, uint32_t line) {
  gCalls.push_back({"malloc", state, nullptr, 0, size, flags, caller, file, revision, line});
  return gResult;
}

void* Calloc(void* state, uint32_t count, uint32_t size, uint32_t flags, const char* caller, const char* file,
             const char* revision, uint32_t line) {
  gCalls.push_back({"calloc", state, nullptr, count, size, flags, caller, file, revision, line});
  return gResult;
}

void* Realloc(void* state, void* pointer, uint32_t size, uint32_t flags, const char* caller, const char* file,
              const char* revision, uint32_t line) {
  gCalls.push_back({"realloc", state, pointer, 0, size, flags, caller, file, revision, line});
  return gResult;
}

char* Strdup(void* state, const char* text, uint32_t flags, const char* caller, const char* file,
             const char* revision, uint32_t line) {
  gCalls.push_back({"strdup", state, text, 0, 0, flags, caller, file, revision, line});
  return gResult;
}

void Free(void* state, void* pointer, uint32_t flags, const char* caller, const char* file,
          const char* revision, uint32_t line) {
  gCalls.push_back({"free", state, pointer, 0, 0, flags, caller, file, revision, line});
}

// The call that is expected when a test passes OPLTEST_POSITION.
Arguments Call(const char* operation, const void* state, const void* pointer, uint32_t count, uint32_t size) {
  return {operation,
          state,
          pointer,
          count,
          size,
          opltest::kFlags,
          opltest::kCaller,
          opltest::kFile,
          opltest::kRevision,
          opltest::kLine};
}

class Context {
 public:
  Context() { EXPECT_EQ(OPL_OK, OPL_MemContextCreate(&context_)); }
  ~Context() {
    (void)OPL_MemDefaultHandleSet(nullptr);
    EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context_));
  }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  OPL_MemContext* get() const { return context_; }
  void* state() { return &state_; }

  void SetAll() {
    EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, Malloc));
    EXPECT_EQ(OPL_OK, OPL_MemCallocCallbackSet(context_, Calloc));
    EXPECT_EQ(OPL_OK, OPL_MemReallocCallbackSet(context_, Realloc));
    EXPECT_EQ(OPL_OK, OPL_MemStrdupCallbackSet(context_, Strdup));
    EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(context_, Free));
    EXPECT_EQ(OPL_OK, OPL_MemCallbackStateSet(context_, &state_));
  }

 private:
  OPL_MemContext* context_ = nullptr;
  int state_ = 0;
};

class MemCallback : public ::testing::Test {
 protected:
  void SetUp() override { context_.SetAll(); }

  Context context_;
  char place_[1] = {};
};

TEST_F(MemCallback, MallocGetsEveryArgument) {
  EXPECT_EQ(gResult, OPL_MemMalloc(context_.get(), 0xFFFFFFFE, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("malloc", context_.state(), nullptr, 0, 0xFFFFFFFE)}, gCalls);
}

TEST_F(MemCallback, CallocGetsEveryArgument) {
  EXPECT_EQ(gResult, OPL_MemCalloc(context_.get(), 0xFFFFFFFD, 0xFFFFFFFC, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("calloc", context_.state(), nullptr, 0xFFFFFFFD, 0xFFFFFFFC)}, gCalls);
}

TEST_F(MemCallback, ReallocGetsEveryArgument) {
  EXPECT_EQ(gResult, OPL_MemRealloc(context_.get(), place_, 12, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("realloc", context_.state(), place_, 0, 12)}, gCalls);
}

TEST_F(MemCallback, StrdupGetsEveryArgument) {
  EXPECT_EQ(gResult, OPL_MemStrdup(context_.get(), place_, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("strdup", context_.state(), place_, 0, 0)}, gCalls);
}

TEST_F(MemCallback, FreeGetsEveryArgument) {
  OPL_MemFree(context_.get(), place_, OPLTEST_POSITION);
  EXPECT_EQ(std::vector{Call("free", context_.state(), place_, 0, 0)}, gCalls);
}

TEST_F(MemCallback, GetsASourcePositionOfNullsUnchanged) {
  (void)OPL_MemMalloc(context_.get(), 1, 0, nullptr, nullptr, nullptr, 0);
  const Arguments expected = {"malloc", context_.state(), nullptr, 0, 1, 0, nullptr, nullptr, nullptr, 0};
  EXPECT_EQ(std::vector{expected}, gCalls);
}

TEST_F(MemCallback, GetsThePlaceThatTheMacroWrites) {
  const uint32_t line = __LINE__ + 1;
  (void)OPL_MemMalloc(context_.get(), 1, OPL_MEM_HERE);
  ASSERT_EQ(1u, gCalls.size());
  EXPECT_EQ(0u, gCalls[0].flags);
  EXPECT_STREQ("TestBody", gCalls[0].caller);
  EXPECT_STREQ(__FILE__, gCalls[0].file);
  EXPECT_STREQ("NO-VERSION-INFO", gCalls[0].revision);
  EXPECT_EQ(line, gCalls[0].line);
}

// Nulls and zeros reach the callbacks unchecked.

TEST_F(MemCallback, MallocGetsASizeOfZero) {
  EXPECT_EQ(gResult, OPL_MemMalloc(context_.get(), 0, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("malloc", context_.state(), nullptr, 0, 0)}, gCalls);
}

TEST_F(MemCallback, CallocGetsACountOfZero) {
  EXPECT_EQ(gResult, OPL_MemCalloc(context_.get(), 0, 4, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("calloc", context_.state(), nullptr, 0, 4)}, gCalls);
}

TEST_F(MemCallback, CallocGetsASizeOfZero) {
  EXPECT_EQ(gResult, OPL_MemCalloc(context_.get(), 4, 0, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("calloc", context_.state(), nullptr, 4, 0)}, gCalls);
}

TEST_F(MemCallback, ReallocGetsNullAndZero) {
  EXPECT_EQ(gResult, OPL_MemRealloc(context_.get(), nullptr, 0, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("realloc", context_.state(), nullptr, 0, 0)}, gCalls);
}

TEST_F(MemCallback, StrdupGetsNull) {
  EXPECT_EQ(gResult, OPL_MemStrdup(context_.get(), nullptr, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("strdup", context_.state(), nullptr, 0, 0)}, gCalls);
}

TEST_F(MemCallback, FreeGetsNull) {
  OPL_MemFree(context_.get(), nullptr, OPLTEST_POSITION);
  EXPECT_EQ(std::vector{Call("free", context_.state(), nullptr, 0, 0)}, gCalls);
}

TEST(MemCallbackResult, OfNullIsReturned) {
  Context context;
  const auto nothing = [](void*, uint32_t, uint32_t, const char*, const char*, const char*,
                          uint32_t) -> void* { return nullptr; };
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context.get(), nothing));
  EXPECT_EQ(nullptr, OPL_MemMalloc(context.get(), 8, OPLTEST_POSITION));
}

// The default context.

TEST_F(MemCallback, OfTheDefaultServesMallocWithoutAContext) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  EXPECT_EQ(gResult, OPL_MemMalloc(nullptr, 0, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("malloc", context_.state(), nullptr, 0, 0)}, gCalls);
}

TEST_F(MemCallback, OfTheDefaultServesCallocWithoutAContext) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  EXPECT_EQ(gResult, OPL_MemCalloc(nullptr, 2, 3, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("calloc", context_.state(), nullptr, 2, 3)}, gCalls);
}

TEST_F(MemCallback, OfTheDefaultServesReallocWithoutAContext) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  EXPECT_EQ(gResult, OPL_MemRealloc(nullptr, place_, 3, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("realloc", context_.state(), place_, 0, 3)}, gCalls);
}

TEST_F(MemCallback, OfTheDefaultServesStrdupWithoutAContext) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  EXPECT_EQ(gResult, OPL_MemStrdup(nullptr, place_, OPLTEST_POSITION));
  EXPECT_EQ(std::vector{Call("strdup", context_.state(), place_, 0, 0)}, gCalls);
}

TEST_F(MemCallback, OfTheDefaultServesFreeWithoutAContext) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  OPL_MemFree(nullptr, place_, OPLTEST_POSITION);
  EXPECT_EQ(std::vector{Call("free", context_.state(), place_, 0, 0)}, gCalls);
}

TEST_F(MemCallback, IsNotCalledWithoutAContextUnlessItIsTheDefault) {
  void* const memory = OPL_MemMalloc(nullptr, 1, OPLTEST_POSITION);
  EXPECT_NE(nullptr, memory);
  OPL_MemFree(nullptr, memory, OPLTEST_POSITION);
  EXPECT_EQ(std::vector<Arguments>{}, gCalls);
}

TEST_F(MemCallback, OfTheDefaultIsNotCalledAfterTheDefaultIsCleared) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(nullptr));
  OPL_MemFree(nullptr, OPL_MemMalloc(nullptr, 1, OPLTEST_POSITION), OPLTEST_POSITION);
  EXPECT_EQ(std::vector<Arguments>{}, gCalls);
}

TEST_F(MemCallback, OfAContextGivenBeatsTheDefault) {
  Context other;
  other.SetAll();
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(other.get()));
  (void)OPL_MemMalloc(context_.get(), 1, OPLTEST_POSITION);
  (void)OPL_MemCalloc(context_.get(), 2, 3, OPLTEST_POSITION);
  (void)OPL_MemRealloc(context_.get(), place_, 4, OPLTEST_POSITION);
  (void)OPL_MemStrdup(context_.get(), place_, OPLTEST_POSITION);
  OPL_MemFree(context_.get(), place_, OPLTEST_POSITION);
  const std::vector<Arguments> expected = {
      Call("malloc", context_.state(), nullptr, 0, 1), Call("calloc", context_.state(), nullptr, 2, 3),
      Call("realloc", context_.state(), place_, 0, 4), Call("strdup", context_.state(), place_, 0, 0),
      Call("free", context_.state(), place_, 0, 0)};
  EXPECT_EQ(expected, gCalls);
}

TEST_F(MemCallback, MissingInTheContextGivenIsNotSoughtInTheDefault) {
  EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_.get()));
  Context empty;
  void* memory = OPL_MemMalloc(empty.get(), 1, OPLTEST_POSITION);
  memory = OPL_MemRealloc(empty.get(), memory, 2, OPLTEST_POSITION);
  void* const zeros = OPL_MemCalloc(empty.get(), 1, 1, OPLTEST_POSITION);
  char* const copy = OPL_MemStrdup(empty.get(), "text", OPLTEST_POSITION);
  EXPECT_NE(nullptr, memory);
  EXPECT_NE(nullptr, zeros);
  EXPECT_STREQ("text", copy);
  OPL_MemFree(empty.get(), memory, OPLTEST_POSITION);
  OPL_MemFree(empty.get(), zeros, OPLTEST_POSITION);
  OPL_MemFree(empty.get(), copy, OPLTEST_POSITION);
  EXPECT_EQ(std::vector<Arguments>{}, gCalls);
}

TEST(MemCallbackAlone, OfFreeGetsWhatTheSystemAllocated) {
  Context context;
  EXPECT_EQ(OPL_OK, OPL_MemFreeCallbackSet(context.get(), Free));
  void* const memory = OPL_MemMalloc(context.get(), 4, OPLTEST_POSITION);
  ASSERT_NE(nullptr, memory);
  EXPECT_EQ(std::vector<Arguments>{}, gCalls);
  OPL_MemFree(context.get(), memory, OPLTEST_POSITION);
  EXPECT_EQ(std::vector{Call("free", nullptr, memory, 0, 0)}, gCalls);
  std::free(memory);
}

TEST(MemCallbackAlone, OfMallocLeavesTheOthersToTheSystem) {
  Context context;
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context.get(), Malloc));
  void* const zeros = OPL_MemCalloc(context.get(), 1, 1, OPLTEST_POSITION);
  char* const copy = OPL_MemStrdup(context.get(), "text", OPLTEST_POSITION);
  EXPECT_NE(nullptr, zeros);
  EXPECT_STREQ("text", copy);
  OPL_MemFree(context.get(), zeros, OPLTEST_POSITION);
  OPL_MemFree(context.get(), copy, OPLTEST_POSITION);
  EXPECT_EQ(std::vector<Arguments>{}, gCalls);
}

TEST(MemDefaultHandle, OutlastsTheLibrary) {
  Context context;
  EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context.get(), Malloc));
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context.get()));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  gCalls.clear();
  EXPECT_EQ(gResult, OPL_MemMalloc(nullptr, 5, OPLTEST_POSITION));
  EXPECT_EQ(1u, gCalls.size());
}

// Callbacks come from every thread, each with the state.
void* CountInState(void* state, uint32_t, uint32_t, const char*, const char*, const char*, uint32_t) {
  static_cast<std::atomic<int>*>(state)->fetch_add(1);
  return nullptr;
}

TEST(MemDefaultHandle, ServesAllThreads) {
  std::atomic<int> count{0};
  Context context;
  ASSERT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context.get(), CountInState));
  ASSERT_EQ(OPL_OK, OPL_MemCallbackStateSet(context.get(), &count));
  ASSERT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context.get()));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      for (int call = 0; call < 1000; ++call) (void)OPL_MemMalloc(nullptr, 1, OPLTEST_POSITION);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(4000, count.load());
}

}  // namespace
