// Recording a failure and reading it back.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::Fault;

constexpr uint32_t kNoRecord = OPL_ERR_E_NO_RECORD;

void ExpectNoRecord() { ExpectError(kNoRecord, "No message available."); }

TEST(ErrRecordBeforeBegin, HasNoRecord) { ExpectNoRecord(); }

TEST(ErrRecordBeforeBegin, TakesNoFailure) {
  EXPECT_EQ(0u, OPL_ErrSet(0, 7, "lost"));
  ExpectNoRecord();
}

TEST(ErrRecordBeforeBegin, GivesNoNativeText) {
  EXPECT_STREQ("Invalid mode.", OPL_ErrNativeMessageGet(0, ENOENT));
  ExpectNoRecord();
}

TEST(ErrRecordAfterEnd, TakesNoFailure) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  (void)OPL_ErrSet(0, 7, "before");
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ(0u, OPL_ErrSet(0, 8, "after"));
  ExpectNoRecord();
  EXPECT_STREQ("Invalid mode.", OPL_ErrNativeMessageGet(0, ENOENT));
}

// A begin that fails behind the first modules leaves the key of the records, and what it recorded itself.
class ErrRecordAfterAFailedBegin : public ::testing::Test {
 protected:
  void SetUp() override {
    const Fault fault("semget", 1, ENOSPC);
    ASSERT_EQ(static_cast<OPL_Result>(OPL_PRIVATE_E_SEMGET), OPL_InitBegin(0));
    ASSERT_EQ(static_cast<uint32_t>(ENOSPC), OPL_ErrCodeGet(0));
  }
};

TEST_F(ErrRecordAfterAFailedBegin, TakesNoFailure) {
  EXPECT_EQ(0u, OPL_ErrSet(0, 7, "lost"));
  EXPECT_EQ(static_cast<uint32_t>(ENOSPC), OPL_ErrCodeGet(0));
}

TEST_F(ErrRecordAfterAFailedBegin, IsTheOneThatTheNextBeginFinds) {
  const char* const message = OPL_ErrMessageGet(0);
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(message, OPL_ErrMessageGet(0));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

class ErrRecord : public opltest::Instance {};

TEST_F(ErrRecord, IsMissingBeforeTheFirstFailure) {
  opltest::InNewThread([&] { ExpectNoRecord(); });
}

TEST_F(ErrRecord, HoldsCodeAndMessage) {
  EXPECT_EQ(0u, OPL_ErrSet(0, 77, "%s: semop(%lu) error :%i,%s", "Me", 12ul, 4, "four"));
  ExpectError(77, "Me: semop(12) error :4,four");
}

TEST_F(ErrRecord, HoldsACodeOfAnyValue) {
  for (const uint32_t code : {0u, 1u, 0x050046u, 0x80000000u, 0xFFFFFFFFu}) {
    (void)OPL_ErrSet(0, code, "any");
    EXPECT_EQ(code, OPL_ErrCodeGet(0));
  }
}

TEST_F(ErrRecord, IsOverwrittenByTheNextFailure) {
  (void)OPL_ErrSet(0, 1, "the first message is the longer one");
  (void)OPL_ErrSet(0, 2, "second");
  ExpectError(2, "second");
}

TEST_F(ErrRecord, StaysAfterASuccess) {
  (void)OPL_ErrSet(0, 3, "stays");
  uint32_t pid = 0;
  ASSERT_EQ(OPL_OK, OPL_ProcessIdGet(&pid));
  ExpectError(3, "stays");
}

TEST_F(ErrRecord, StaysOverANestedBeginAndEnd) {
  (void)OPL_ErrSet(0, 3, "stays");
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  ExpectError(3, "stays");
}

TEST_F(ErrRecord, IsUntouchedByAFailureWithAnotherMode) {
  (void)OPL_ErrSet(0, 3, "stays");
  EXPECT_EQ(0u, OPL_ErrSet(1, 4, "refused"));
  ExpectError(3, "stays");
}

TEST_F(ErrRecord, IsNotMadeByAFailureWithAnotherMode) {
  opltest::InNewThread([&] {
    EXPECT_EQ(0u, OPL_ErrSet(1, 4, "refused"));
    ExpectNoRecord();
  });
}

TEST_F(ErrRecord, HoldsAMessageOf511Characters) {
  const std::string longest(511, 'm');
  (void)OPL_ErrSet(0, 5, "%s", longest.c_str());
  EXPECT_EQ(longest, OPL_ErrMessageGet(0));
}

TEST_F(ErrRecord, CutsAMessageOf512Characters) {
  (void)OPL_ErrSet(0, 5, "%s", std::string(512, 'm').c_str());
  EXPECT_EQ(std::string(511, 'm'), OPL_ErrMessageGet(0));
}

TEST_F(ErrRecord, CutsAMessageOf600CharactersAndKeepsItsBeginning) {
  (void)OPL_ErrSet(0, 5, "%s%s", std::string(500, 'a').c_str(), std::string(100, 'b').c_str());
  EXPECT_EQ(std::string(500, 'a') + std::string(11, 'b'), OPL_ErrMessageGet(0));
  EXPECT_EQ(5u, OPL_ErrCodeGet(0));
}

TEST_F(ErrRecord, HoldsAnEmptyMessageForANullFormat) {
  (void)OPL_ErrSet(0, 5, "not empty");
  (void)OPL_ErrSet(0, 6, nullptr);
  ExpectError(6, "");
}

TEST_F(ErrRecord, TakesTheNativeTextAsAnArgument) {
  (void)OPL_ErrSet(0, ENOENT, "%s: semop error :%i,%s", "Me", ENOENT, OPL_ErrNativeMessageGet(0, ENOENT));
  EXPECT_STREQ("Me: semop error :2,No such file or directory", OPL_ErrMessageGet(0));
  EXPECT_STREQ("No such file or directory", OPL_ErrNativeMessageGet(0, ENOENT));
}

TEST_F(ErrRecord, GivesTheSameTextAgain) {
  (void)OPL_ErrSet(0, 5, "one");
  const char* const message = OPL_ErrMessageGet(0);
  (void)OPL_ErrSet(0, 5, "two");
  EXPECT_EQ(message, OPL_ErrMessageGet(0));
}

TEST_F(ErrRecord, RefusesAnotherModeOnReading) {
  (void)OPL_ErrSet(0, 5, "present");
  for (const uint32_t mode : {1u, 0xFFFFFFFFu}) {
    EXPECT_EQ(static_cast<uint32_t>(OPL_ERR_E_INVALID_MODE), OPL_ErrCodeGet(mode));
    EXPECT_STREQ("Invalid mode.", OPL_ErrMessageGet(mode));
  }
  EXPECT_EQ(0x050501, OPL_ERR_E_INVALID_MODE);
  EXPECT_EQ(0x050502, OPL_ERR_E_NO_RECORD);
}

TEST_F(ErrRecord, LeavesErrnoAlone) {
  opltest::InNewThread([&] {
    errno = 42;
    (void)OPL_ErrSet(0, 5, "made");
    EXPECT_EQ(42, errno);
    (void)OPL_ErrSet(0, 5, "found");
    EXPECT_EQ(42, errno);
  });
}

TEST_F(ErrRecord, LeavesErrnoAloneWithoutMemory) {
  opltest::InNewThread([&] {
    const FailingMemory memory(1);
    errno = 42;
    (void)OPL_ErrSet(0, 5, "lost");
    EXPECT_EQ(42, errno);
    EXPECT_TRUE(memory.Fired());
  });
}

TEST_F(ErrRecord, HoldsALibraryCodeForWhatTheLibraryFinds) {
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_NULL_ARGUMENT), OPL_SyncCriticalSectionEnter(nullptr));
  EXPECT_EQ(0x050046u, OPL_ErrCodeGet(0));
}

TEST_F(ErrRecord, HoldsTheNativeNumberForAFailedSystemCall) {
  const Fault fault("getppid", 1, EIO);
  uint32_t pid = 0;
  EXPECT_EQ(static_cast<OPL_Result>(OPL_PROCESS_E_ID), OPL_ProcessParentIdGet(&pid));
  EXPECT_EQ(static_cast<uint32_t>(EIO), OPL_ErrCodeGet(0));
}

class ErrRecordOfThreads : public opltest::Instance {};

TEST_F(ErrRecordOfThreads, IsNotSeenByAnotherThread) {
  (void)OPL_ErrSet(0, 5, "mine");
  std::thread(ExpectNoRecord).join();
}

TEST_F(ErrRecordOfThreads, IsUntouchedByAnotherThreadsFailure) {
  (void)OPL_ErrSet(0, 5, "mine");
  std::thread([] { (void)OPL_ErrSet(0, 6, "yours"); }).join();
  ExpectError(5, "mine");
}

TEST_F(ErrRecordOfThreads, HoldsEachThreadsOwnFailureAtOnce) {
  opltest::RunAtOnce(8, [](int self) {
    for (int round = 0; round < 1000; ++round) {
      (void)OPL_ErrSet(0, static_cast<uint32_t>(self), "thread %d round %d", self, round);
      const std::string expected = "thread " + std::to_string(self) + " round " + std::to_string(round);
      ASSERT_EQ(static_cast<uint32_t>(self), OPL_ErrCodeGet(0));
      ASSERT_EQ(expected, OPL_ErrMessageGet(0));
    }
  });
}

class ErrRecordMemory : public opltest::Instance {};

TEST_F(ErrRecordMemory, IsAllocatedOnceForAThread) {
  const CountedMemory memory;
  std::thread([&] {
    for (int i = 0; i < 10; ++i) {
      (void)OPL_ErrSet(0, 5, "again");
      (void)OPL_ErrNativeMessageGet(0, i);
    }
  }).join();
  EXPECT_EQ(1, memory.Allocated());
}

TEST_F(ErrRecordMemory, IsNotAllocatedByReading) {
  opltest::InNewThread([&] {
    const CountedMemory memory;
    ExpectNoRecord();
    EXPECT_EQ(0, memory.Allocated());
  });
}

TEST_F(ErrRecordMemory, IsFreedAtTheThreadsEnd) {
  const CountedMemory memory;
  std::thread([&] {
    (void)OPL_ErrSet(0, 5, "short-lived");
    EXPECT_EQ(1, memory.Living());
  }).join();
  EXPECT_EQ(0, memory.Living());
  EXPECT_STREQ("FreeErrTsd", memory.LastFreedBy());
}

TEST_F(ErrRecordMemory, IsClearedWhenTheRecordIsMade) {
  const CountedMemory memory;
  std::thread([] {
    EXPECT_STREQ("No such file or directory", OPL_ErrNativeMessageGet(0, ENOENT));
    ExpectError(0, "");
  }).join();
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.AskedForCleared()) << "the malloc callback of a host is the one that is to see it";
}

TEST_F(ErrRecordMemory, DropsAFailureThatItCannotHold) {
  opltest::InNewThread([&] {
    {
      const FailingMemory memory(1);
      EXPECT_EQ(0u, OPL_ErrSet(0, 5, "lost"));
      EXPECT_TRUE(memory.Fired());
    }
    ExpectNoRecord();
  });
}

TEST_F(ErrRecordMemory, RecordsTheNextFailureOnceThereIsMemory) {
  opltest::InNewThread([&] {
    const FailingMemory memory(1);
    (void)OPL_ErrSet(0, 5, "lost");
    (void)OPL_ErrSet(0, 6, "held");
    ExpectError(6, "held");
  });
}

TEST_F(ErrRecordMemory, GivesNoNativeTextWithoutMemory) {
  opltest::InNewThread([&] {
    const FailingMemory memory(1);
    EXPECT_STREQ("Invalid mode.", OPL_ErrNativeMessageGet(0, ENOENT));
    ExpectNoRecord();
  });
}

TEST_F(ErrRecordMemory, IsGivenBackWhenTheThreadCannotKeepIt) {
  opltest::InNewThread([&] {
    const CountedMemory memory;
    {
      const Fault fault("pthread_setspecific", 1, ENOMEM);
      EXPECT_EQ(0u, OPL_ErrSet(0, 5, "lost"));
      EXPECT_TRUE(fault.Fired());
    }
    EXPECT_EQ(1, memory.Allocated());
    EXPECT_EQ(0, memory.Living());
    ExpectNoRecord();
  });
}

TEST_F(ErrRecordMemory, OfALivingThreadStaysWhenTheKeyEnds) {
  CountedMemory memory;
  std::thread([&] {
    (void)OPL_ErrSet(0, 5, "held");
    EXPECT_EQ(OPL_OK, OPL_ErrEnd(0));
    EXPECT_EQ(1, memory.Living());
  }).join();
  EXPECT_EQ(1, memory.Living());
}

class ErrKey : public opltest::Instance {};

TEST_F(ErrKey, IsGoneAfterItsEnd) {
  (void)OPL_ErrSet(0, 5, "held");
  ASSERT_EQ(OPL_OK, OPL_ErrEnd(0));
  ExpectNoRecord();
  EXPECT_EQ(0u, OPL_ErrSet(0, 5, "lost"));
  EXPECT_STREQ("Invalid mode.", OPL_ErrNativeMessageGet(0, ENOENT));
  ExpectNoRecord();
}

TEST_F(ErrKey, FindsNewRecordsWhenItIsMadeAgain) {
  (void)OPL_ErrSet(0, 5, "old");
  ASSERT_EQ(OPL_OK, OPL_ErrEnd(0));
  ASSERT_EQ(OPL_OK, OPL_ErrBegin(0));
  ExpectNoRecord();
  (void)OPL_ErrSet(0, 6, "new");
  EXPECT_EQ(6u, OPL_ErrCodeGet(0));
}

TEST_F(ErrKey, EndsOnlyOnce) {
  ASSERT_EQ(OPL_OK, OPL_ErrEnd(0));
  const Fault deletions("pthread_key_delete", 100, EIO);
  EXPECT_EQ(OPL_OK, OPL_ErrEnd(0));
  EXPECT_EQ(0, deletions.Calls());
}

TEST_F(ErrKey, StaysWhenEndIsGivenAnotherMode) {
  (void)OPL_ErrSet(0, 5, "held");
  EXPECT_EQ(0x050501u, OPL_ErrEnd(1));
  EXPECT_EQ(5u, OPL_ErrCodeGet(0));
}

TEST(ErrKeyBeforeBegin, IsNotMadeWithAnotherMode) {
  const Fault creations("pthread_key_create", 100, EIO);
  EXPECT_EQ(0x050501u, OPL_ErrBegin(1));
  EXPECT_EQ(0, creations.Calls());
}

TEST(ErrKeyBeforeBegin, EndsWithoutHavingBegun) { EXPECT_EQ(OPL_OK, OPL_ErrEnd(0)); }

TEST(ErrKeyBeforeBegin, ReportsThatTheSystemHasNoMemory) {
  const Fault fault("pthread_key_create", 1, ENOMEM);
  EXPECT_EQ(0x050308u, OPL_ErrBegin(0));
}

TEST(ErrKeyBeforeBegin, ReportsThatTheSystemHasNoKeyLeft) {
  const Fault fault("pthread_key_create", 1, EAGAIN);
  EXPECT_EQ(0x05030Cu, OPL_ErrBegin(0));
}

}  // namespace
