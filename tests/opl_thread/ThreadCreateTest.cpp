// Starting and ending threads.
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>

#include <cerrno>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::Fault;

constexpr OPL_Result kInvalid = 0x050302;
constexpr OPL_Result kResources = 0x050301;

void* Nothing(void*) { return nullptr; }

// What a started thread finds out about itself.
struct Findings {
  uint32_t id = 0;
  int detachState = -1;
  size_t stackSize = 0;
};

Findings LookAround() {
  Findings findings;
  (void)OPL_ThreadIdGet(&findings.id);
  pthread_attr_t attributes;
  EXPECT_EQ(0, ::pthread_getattr_np(::pthread_self(), &attributes));
  EXPECT_EQ(0, ::pthread_attr_getdetachstate(&attributes, &findings.detachState));
  EXPECT_EQ(0, ::pthread_attr_getstacksize(&attributes, &findings.stackSize));
  (void)::pthread_attr_destroy(&attributes);
  return findings;
}

// What a started thread hands back.
class Mailbox {
 public:
  Mailbox() { EXPECT_EQ(0, ::sem_init(&full_, 0, 0)); }
  ~Mailbox() { (void)::sem_destroy(&full_); }
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  void Put(const Findings& findings) {
    findings_ = findings;
    EXPECT_EQ(0, ::sem_post(&full_));
  }

  Findings Wait() {
    while (::sem_wait(&full_) == -1 && errno == EINTR) {
    }
    return findings_;
  }

 private:
  Findings findings_;
  sem_t full_;
};

void* FillMailbox(void* mailbox) {
  static_cast<Mailbox*>(mailbox)->Put(LookAround());
  return nullptr;
}

TEST(ThreadCreateBeforeBegin, IsRefusedWithoutAnId) {
  uint32_t id = 77;
  EXPECT_EQ(0x050203u, OPL_ThreadCreate(0, nullptr, Nothing, nullptr, &id));
  EXPECT_EQ(0u, id);
}

class ThreadCreate : public opltest::Instance {};

TEST_F(ThreadCreate, StartsADetachedThreadWithoutAttributes) {
  Mailbox mailbox;
  uint32_t id = 0;
  ASSERT_EQ(OPL_OK, OPL_ThreadCreate(0, nullptr, FillMailbox, &mailbox, &id));
  const Findings findings = mailbox.Wait();
  EXPECT_EQ(PTHREAD_CREATE_DETACHED, findings.detachState);
}

TEST_F(ThreadCreate, StoresTheIdThatTheThreadSees) {
  Mailbox mailbox;
  uint32_t id = 0;
  ASSERT_EQ(OPL_OK, OPL_ThreadCreate(0, nullptr, FillMailbox, &mailbox, &id));
  const Findings findings = mailbox.Wait();
  EXPECT_EQ(findings.id, id);
  EXPECT_NE(0u, id);
}

TEST_F(ThreadCreate, NeedsNoPlaceForTheId) {
  Mailbox mailbox;
  EXPECT_EQ(OPL_OK, OPL_ThreadCreate(0, nullptr, FillMailbox, &mailbox, nullptr));
  EXPECT_NE(0u, mailbox.Wait().id);
}

TEST_F(ThreadCreate, UsesTheAttributesGivenAndLeavesThem) {
  OPL_ThreadAttr* attr = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrCreate(&attr, 0));
  const uint32_t size = 3 * 1024 * 1024;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrSet(attr, OPL_THREAD_ATTR_STACK_SIZE, &size));
  for (int i = 0; i < 2; ++i) {
    Mailbox mailbox;
    ASSERT_EQ(OPL_OK, OPL_ThreadCreate(0, attr, FillMailbox, &mailbox, nullptr));
    const Findings findings = mailbox.Wait();
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, findings.detachState);
    EXPECT_LE(size, findings.stackSize);
    EXPECT_GT(size + 256 * 1024, findings.stackSize);
  }
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrDestroy(&attr));
}

TEST_F(ThreadCreate, EndsItsTemporaryAttributes) {
  const CountedMemory memory;
  ASSERT_EQ(OPL_OK, OPL_ThreadCreate(0, nullptr, Nothing, nullptr, nullptr));
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(ThreadCreate, EndsItsTemporaryAttributesWhenTheSystemRefuses) {
  (void)OPL_ErrNativeMessageGet(0, 0);
  const CountedMemory memory;
  const Fault fault("pthread_create", 1, EAGAIN);
  const Fault ends("pthread_attr_destroy", 100, EIO);
  EXPECT_EQ(kResources, OPL_ThreadCreate(0, nullptr, Nothing, nullptr, nullptr));
  EXPECT_EQ(1, ends.Calls());
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(ThreadCreate, PassesOnThatThereIsNoMemoryForAttributes) {
  (void)OPL_ErrNativeMessageGet(0, 0);
  const FailingMemory memory(1);
  uint32_t id = 77;
  EXPECT_EQ(kResources, OPL_ThreadCreate(0, nullptr, Nothing, nullptr, &id));
  ExpectError(ENOMEM, "OPL_ThreadAttrCreate: OPL_MEMMALLOC: Cannot allocate memory");
  EXPECT_EQ(0u, id);
}

TEST_F(ThreadCreate, RefusesAnotherMode) {
  uint32_t id = 77;
  EXPECT_EQ(kInvalid, OPL_ThreadCreate(1, nullptr, Nothing, nullptr, &id));
  ExpectError(kInvalid, "OPL_ThreadCreate: Invalid mode");
  EXPECT_EQ(0u, id);
  EXPECT_EQ(kInvalid, OPL_ThreadCreate(1, nullptr, nullptr, nullptr, &id));
  ExpectError(kInvalid, "OPL_ThreadCreate: Invalid mode");
}

TEST_F(ThreadCreate, RefusesANullFunction) {
  uint32_t id = 77;
  EXPECT_EQ(kInvalid, OPL_ThreadCreate(0, nullptr, nullptr, nullptr, &id));
  ExpectError(kInvalid, "OPL_ThreadCreate: start is NULL");
  EXPECT_EQ(0u, id);
}

void ExpectCreateFailure(int number, OPL_Result code, const char* message) {
  const Fault fault("pthread_create", 1, number);
  uint32_t id = 77;
  EXPECT_EQ(code, OPL_ThreadCreate(0, nullptr, Nothing, nullptr, &id));
  ExpectError(static_cast<uint32_t>(number), message);
  EXPECT_EQ(0u, id);
}

TEST_F(ThreadCreate, LacksResourcesWithEagain) {
  ExpectCreateFailure(EAGAIN, 0x050301, "OPL_ThreadCreate: pthread_create: Resource temporarily unavailable");
}

TEST_F(ThreadCreate, LacksResourcesWithEnomem) {
  ExpectCreateFailure(ENOMEM, 0x050301, "OPL_ThreadCreate: pthread_create: Cannot allocate memory");
}

TEST_F(ThreadCreate, HasAnInvalidArgumentWithEinval) {
  ExpectCreateFailure(EINVAL, 0x050302, "OPL_ThreadCreate: pthread_create: Invalid argument");
}

TEST_F(ThreadCreate, FailsOtherwiseWithAnotherNumber) {
  ExpectCreateFailure(EPERM, 0x050303, "OPL_ThreadCreate: pthread_create: Operation not permitted");
}

class ThreadExit : public opltest::Instance {
 protected:
  // Runs the function in a thread that can be joined, and yields the thread's result.
  static void* ResultOf(void* (*start)(void*), void* argument) {
    pthread_t thread;
    EXPECT_EQ(0, ::pthread_create(&thread, nullptr, start, argument));
    void* result = argument;
    EXPECT_EQ(0, ::pthread_join(thread, &result));
    return result;
  }
};

void* ExitBeforeReturning(void* returned) {
  (void)OPL_ErrSet(0, 5, "held");
  (void)OPL_ThreadExit();
  *static_cast<bool*>(returned) = true;
  return returned;
}

TEST_F(ThreadExit, EndsTheThreadWithANullResult) {
  bool returned = false;
  EXPECT_EQ(nullptr, ResultOf(ExitBeforeReturning, &returned));
  EXPECT_FALSE(returned);
}

TEST_F(ThreadExit, ReleasesTheThreadsErrorRecord) {
  const CountedMemory memory;
  bool returned = false;
  (void)ResultOf(ExitBeforeReturning, &returned);
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST(ThreadExitBeforeBegin, LetsTheThreadGoOn) { EXPECT_EQ(0x050203u, OPL_ThreadExit()); }

class ThreadConcurrency : public opltest::Instance {};

TEST_F(ThreadConcurrency, TakesAnyLevelAndTellsNone) {
  EXPECT_EQ(OPL_OK, OPL_ThreadConcurrencySet(8));
  EXPECT_EQ(OPL_OK, OPL_ThreadConcurrencySet(0xFFFFFFFF));
  uint32_t level = 77;
  EXPECT_EQ(OPL_OK, OPL_ThreadConcurrencyGet(&level));
  EXPECT_EQ(0u, level);
}

TEST_F(ThreadConcurrency, NeedsNoPlaceForTheLevel) { EXPECT_EQ(OPL_OK, OPL_ThreadConcurrencyGet(nullptr)); }

TEST(ThreadConcurrencyBeforeBegin, IsRefused) {
  uint32_t level = 77;
  EXPECT_EQ(0x050203u, OPL_ThreadConcurrencySet(1));
  EXPECT_EQ(0x050203u, OPL_ThreadConcurrencyGet(&level));
  EXPECT_EQ(77u, level);
}

TEST(ThreadInit, SucceedsInAnyMode) {
  EXPECT_EQ(OPL_OK, OPL_ThreadInit(0));
  EXPECT_EQ(OPL_OK, OPL_ThreadInit(7));
}

}  // namespace
