// Formatting into new memory. The library is not begun in these tests.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "OPL_Crt.h"
#include "OPL_Mem.h"
#include "tests/support/FailingMemory.h"

namespace {

using opltest::FailingMemory;
using opltest::Fault;

char gSomething[] = "not null";

// Takes a text that the library allocated and releases it.
std::string Taken(char* text) {
  if (text == nullptr) return "(null)";
  const std::string copy = text;
  OPL_MemFree(nullptr, text, OPL_MEM_HERE);
  return copy;
}

int32_t VASPrintf(char** pText, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = OPL_CrtVASPrintf(pText, format, arguments);
  va_end(arguments);
  return length;
}

int32_t VASNPrintf(char** pText, uint32_t limit, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = OPL_CrtVASNPrintf(pText, limit, format, arguments);
  va_end(arguments);
  return length;
}

// What the default context's malloc was asked for.
struct Request {
  uint32_t size = 0;
  uint32_t flags = 99;
  std::string caller;
  std::string file;
  std::string revision;
  uint32_t line = 0;
};
std::vector<Request> gRequests;

void* RecordMalloc(void*, uint32_t size, uint32_t flags, const char* caller, const char* file,
                   const char* revision, uint32_t line) {
  gRequests.push_back({size, flags, caller, file, revision, line});
  return std::malloc(size);
}

class RecordedMemory {
 public:
  RecordedMemory() {
    EXPECT_EQ(OPL_OK, OPL_MemContextCreate(&context_));
    EXPECT_EQ(OPL_OK, OPL_MemMallocCallbackSet(context_, RecordMalloc));
    EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(context_));
  }
  ~RecordedMemory() {
    EXPECT_EQ(OPL_OK, OPL_MemDefaultHandleSet(nullptr));
    EXPECT_EQ(OPL_OK, OPL_MemContextDestroy(&context_));
  }
  RecordedMemory(const RecordedMemory&) = delete;
  RecordedMemory& operator=(const RecordedMemory&) = delete;

 private:
  OPL_MemContext* context_ = nullptr;
};

// OPL_CrtASPrintf and OPL_CrtVASPrintf

TEST(CrtASPrintf, AllocatesTheText) {
  char* text = nullptr;
  EXPECT_EQ(14, OPL_CrtASPrintf(&text, "%s has %d of %c", "it", 12, 'x'));
  EXPECT_EQ("it has 12 of x", Taken(text));
}

TEST(CrtASPrintf, AllocatesTheEmptyText) {
  char* text = nullptr;
  EXPECT_EQ(0, OPL_CrtASPrintf(&text, ""));
  EXPECT_EQ("", Taken(text));
}

TEST(CrtASPrintf, TakesANullFormatAsTheEmptyText) {
  char* text = nullptr;
  EXPECT_EQ(0, OPL_CrtASPrintf(&text, nullptr));
  EXPECT_EQ("", Taken(text));
}

TEST(CrtASPrintf, AllocatesALongText) {
  char* text = nullptr;
  EXPECT_EQ(100001, OPL_CrtASPrintf(&text, "%100000d!", 7));
  std::string expected(100001, ' ');
  expected.replace(99999, 2, "7!");
  EXPECT_EQ(expected, Taken(text));
}

TEST(CrtASPrintf, ForgetsWhatThePlaceHeld) {
  char* text = gSomething;
  EXPECT_EQ(3, OPL_CrtASPrintf(&text, "new"));
  EXPECT_EQ("new", Taken(text));
}

TEST(CrtASPrintf, AllocatesOneByteMoreThanTheLength) {
  RecordedMemory memory;
  char* text = nullptr;
  EXPECT_EQ(5, OPL_CrtASPrintf(&text, "%s", "hello"));
  EXPECT_EQ("hello", Taken(text));
  ASSERT_EQ(1u, gRequests.size());
  EXPECT_EQ(6u, gRequests[0].size);
}

TEST(CrtASPrintf, TellsTheAllocatorWhoAsks) {
  RecordedMemory memory;
  char* text = nullptr;
  EXPECT_EQ(1, OPL_CrtASPrintf(&text, "a"));
  EXPECT_EQ("a", Taken(text));
  ASSERT_EQ(1u, gRequests.size());
  EXPECT_EQ(0u, gRequests[0].flags);
  EXPECT_EQ("OPL_CrtVASPrintf", gRequests[0].caller);
  EXPECT_EQ("opl_crt/src/OPL_CrtSNPrintf.cpp", gRequests[0].file);
  EXPECT_EQ("NO-VERSION-INFO", gRequests[0].revision);
  EXPECT_NE(0u, gRequests[0].line);
}

TEST(CrtASPrintf, FailsWithoutMemory) {
  char* text = gSomething;
  int32_t length;
  {
    FailingMemory memory(1, Fault::kOnce, 0);
    errno = 0;
    length = OPL_CrtASPrintf(&text, "%d", 7);
    EXPECT_EQ(ENOMEM, errno);
  }
  EXPECT_EQ(-1, length);
  EXPECT_EQ(nullptr, text);
}

TEST(CrtASPrintf, FailsForATextOfTheLargestLength) {
  char* text = gSomething;
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtASPrintf(&text, "%*d", INT32_MAX, 7));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(nullptr, text);
}

TEST(CrtASPrintf, LeavesErrnoAloneOnSuccess) {
  char* text = nullptr;
  errno = 4711;
  EXPECT_EQ(2, OPL_CrtASPrintf(&text, "%d", 12));
  EXPECT_EQ(4711, errno);
  EXPECT_EQ("12", Taken(text));
}

TEST(CrtVASPrintf, WalksTheArgumentsTwice) {
  char* text = nullptr;
  EXPECT_EQ(20,
            VASPrintf(&text, "%d %s %lu %*d %p %c", -1, "two", 3ul, 3, 4, static_cast<void*>(nullptr), '6'));
  EXPECT_EQ("-1 two 3   4 (nil) 6", Taken(text));
}

TEST(CrtVASPrintf, FailsWithoutMemory) {
  char* text = gSomething;
  FailingMemory memory(1, Fault::kOnce, 0);
  errno = 0;
  EXPECT_EQ(-1, VASPrintf(&text, "%d", 7));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(nullptr, text);
}

// All four without a place for the text.
void ExpectNoPlace(int32_t length) {
  EXPECT_EQ(-1, length);
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0u, gRequests.size());
  errno = 0;
}

TEST(CrtASPrintf, NeedsAPlaceForTheText) {
  RecordedMemory memory;
  errno = 0;
  ExpectNoPlace(OPL_CrtASPrintf(nullptr, "%d", 7));
  ExpectNoPlace(VASPrintf(nullptr, "%d", 7));
  ExpectNoPlace(OPL_CrtASNPrintf(nullptr, 4, "%d", 7));
  ExpectNoPlace(VASNPrintf(nullptr, 0, "%d", 7));
}

// OPL_CrtASNPrintf and OPL_CrtVASNPrintf

TEST(CrtASNPrintf, AllocatesNothingWithALimitOfZero) {
  RecordedMemory memory;
  char* text = gSomething;
  EXPECT_EQ(5, OPL_CrtASNPrintf(&text, 0, "%s", "hello"));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(0u, gRequests.size());
}

// The limit, what is allocated for "hello", and the text.
struct Limit {
  uint32_t limit;
  uint32_t size;
  const char* text;
};

class CrtASNPrintfLimit : public ::testing::TestWithParam<Limit> {};

TEST_P(CrtASNPrintfLimit, CutsTheTextButNotTheLength) {
  RecordedMemory memory;
  char* text = gSomething;
  EXPECT_EQ(5, OPL_CrtASNPrintf(&text, GetParam().limit, "%s", "hello"));
  EXPECT_EQ(GetParam().text, Taken(text));
  ASSERT_EQ(1u, gRequests.size());
  EXPECT_EQ(GetParam().size, gRequests[0].size);
}

INSTANTIATE_TEST_SUITE_P(Of, CrtASNPrintfLimit,
                         ::testing::Values(Limit{1, 1, ""}, Limit{2, 2, "h"}, Limit{4, 4, "hel"},
                                           Limit{5, 5, "hell"}, Limit{6, 6, "hello"}, Limit{7, 6, "hello"},
                                           Limit{UINT32_MAX, 6, "hello"}),
                         [](const auto& limit) { return std::to_string(limit.param.limit); });

TEST(CrtASNPrintf, AllocatesTheEmptyText) {
  char* text = nullptr;
  EXPECT_EQ(0, OPL_CrtASNPrintf(&text, 1, ""));
  EXPECT_EQ("", Taken(text));
}

TEST(CrtASNPrintf, TakesANullFormatAsTheEmptyText) {
  char* text = nullptr;
  EXPECT_EQ(0, OPL_CrtASNPrintf(&text, 8, nullptr));
  EXPECT_EQ("", Taken(text));
}

TEST(CrtASNPrintf, CutsAnEndlessText) {
  char* text = nullptr;
  EXPECT_EQ(INT32_MAX, OPL_CrtASNPrintf(&text, 4, "%-*dxx", INT32_MAX, 7));
  EXPECT_EQ("7  ", Taken(text));
}

TEST(CrtASNPrintf, FailsWithoutMemory) {
  char* text = gSomething;
  FailingMemory memory(1, Fault::kOnce, 0);
  errno = 0;
  EXPECT_EQ(-1, OPL_CrtASNPrintf(&text, 4, "%d", 7));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(nullptr, text);
}

TEST(CrtASNPrintf, NeedsNoMemoryWithALimitOfZero) {
  char* text = gSomething;
  FailingMemory memory(1, Fault::kForGood, 0);
  errno = 0;
  EXPECT_EQ(1, OPL_CrtASNPrintf(&text, 0, "%d", 7));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(nullptr, text);
  EXPECT_FALSE(memory.Fired());
}

TEST(CrtASNPrintf, TellsTheAllocatorWhoAsks) {
  RecordedMemory memory;
  char* text = nullptr;
  EXPECT_EQ(1, OPL_CrtASNPrintf(&text, 9, "a"));
  EXPECT_EQ("a", Taken(text));
  ASSERT_EQ(1u, gRequests.size());
  EXPECT_EQ(0u, gRequests[0].flags);
  EXPECT_EQ("OPL_CrtVASNPrintf", gRequests[0].caller);
  EXPECT_EQ("opl_crt/src/OPL_CrtSNPrintf.cpp", gRequests[0].file);
  EXPECT_EQ("NO-VERSION-INFO", gRequests[0].revision);
  EXPECT_NE(0u, gRequests[0].line);
}

TEST(CrtVASNPrintf, WalksTheArgumentsTwice) {
  char* text = nullptr;
  EXPECT_EQ(20, VASNPrintf(&text, 13, "%d %s %lu %*d %p %c", -1, "two", 3ul, 3, 4,
                           static_cast<void*>(nullptr), '6'));
  EXPECT_EQ("-1 two 3   4", Taken(text));
}

TEST(CrtVASNPrintf, MeasuresWithALimitOfZero) {
  char* text = gSomething;
  EXPECT_EQ(6, VASNPrintf(&text, 0, "%d %s", -1, "two"));
  EXPECT_EQ(nullptr, text);
}

TEST(CrtVASNPrintf, FailsWithoutMemory) {
  char* text = gSomething;
  FailingMemory memory(1, Fault::kOnce, 0);
  errno = 0;
  EXPECT_EQ(-1, VASNPrintf(&text, 4, "%d", 7));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(nullptr, text);
}

}  // namespace
