// Thread attributes: the objects and their two options.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdint>

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
using opltest::Replacement;

constexpr OPL_Result kInvalid = 0x050302;
constexpr OPL_Result kResources = 0x050301;

OPL_ThreadAttr* const kGarbage = reinterpret_cast<OPL_ThreadAttr*>(&errno);

TEST(ThreadAttrBeforeBegin, IsNullAlthoughTheLibraryIsStopped) {
  OPL_ThreadAttr* attr = kGarbage;
  EXPECT_EQ(0x050203u, OPL_ThreadAttrCreate(&attr, 0));
  EXPECT_EQ(nullptr, attr);
}

TEST(ThreadAttrBeforeBegin, IsRefusedBeforeItsArgumentsAre) {
  pthread_attr_t* posix = reinterpret_cast<pthread_attr_t*>(&errno);
  pthread_attr_t* const before = posix;
  EXPECT_EQ(0x050203u, OPL_ThreadAttrCreate(nullptr, 1));
  EXPECT_EQ(0x050203u, OPL_ThreadAttrDestroy(nullptr));
  EXPECT_EQ(0x050203u, OPL_ThreadAttrSet(nullptr, 7, nullptr));
  EXPECT_EQ(0x050203u, OPL_ThreadAttrGet(nullptr, 7, nullptr));
  EXPECT_EQ(0x050203u, OPL_ThreadAttrPosixGet(nullptr, &posix));
  EXPECT_EQ(before, posix);
}

class ThreadAttrCreate : public opltest::Instance {};

TEST_F(ThreadAttrCreate, MakesDetachedThreads) {
  OPL_ThreadAttr* attr = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrCreate(&attr, 0));
  pthread_attr_t* posix = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrPosixGet(attr, &posix));
  int state = -1;
  EXPECT_EQ(0, ::pthread_attr_getdetachstate(posix, &state));
  EXPECT_EQ(PTHREAD_CREATE_DETACHED, state);
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrDestroy(&attr));
  EXPECT_EQ(nullptr, attr);
}

TEST_F(ThreadAttrCreate, TakesItsMemoryFromTheLibrarysAllocator) {
  const CountedMemory memory;
  OPL_ThreadAttr* attr = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrCreate(&attr, 0));
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(0, memory.AskedForCleared()) << "the malloc callback of a host is the one that is to see it";
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrDestroy(&attr));
  EXPECT_EQ(0, memory.Living());
}

TEST_F(ThreadAttrCreate, RefusesANull) {
  for (const uint32_t mode : {0u, 1u}) {
    EXPECT_EQ(kInvalid, OPL_ThreadAttrCreate(nullptr, mode));
    ExpectError(kInvalid, "OPL_ThreadAttrCreate: ppThreadAttr == NULL");
  }
}

TEST_F(ThreadAttrCreate, RefusesAnotherMode) {
  OPL_ThreadAttr* attr = kGarbage;
  EXPECT_EQ(kInvalid, OPL_ThreadAttrCreate(&attr, 4000000000u));
  ExpectError(kInvalid, "OPL_ThreadAttrCreate: Invalid mode (4000000000)");
  EXPECT_EQ(nullptr, attr);
}

TEST_F(ThreadAttrCreate, FailsWithoutMemory) {
  (void)OPL_ErrNativeMessageGet(0, 0);
  const FailingMemory memory(1);
  OPL_ThreadAttr* attr = kGarbage;
  EXPECT_EQ(kResources, OPL_ThreadAttrCreate(&attr, 0));
  ExpectError(ENOMEM, "OPL_ThreadAttrCreate: OPL_MEMMALLOC: Cannot allocate memory");
  EXPECT_EQ(nullptr, attr);
}

TEST_F(ThreadAttrCreate, GivesBackItsMemoryWhenTheSystemMakesNoObject) {
  (void)OPL_ErrNativeMessageGet(0, 0);
  const CountedMemory memory;
  const Fault fault("pthread_attr_init", 1, ENOMEM);
  OPL_ThreadAttr* attr = kGarbage;
  EXPECT_EQ(kResources, OPL_ThreadAttrCreate(&attr, 0));
  ExpectError(ENOMEM, "OPL_ThreadAttrCreate: pthread_attr_init: Cannot allocate memory");
  EXPECT_EQ(nullptr, attr);
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(ThreadAttrCreate, EndsTheObjectThatItCannotSetUp) {
  (void)OPL_ErrNativeMessageGet(0, 0);
  const CountedMemory memory;
  const Fault fault("pthread_attr_setdetachstate", 1, EINVAL);
  const Fault ends("pthread_attr_destroy", 100, EIO);
  OPL_ThreadAttr* attr = kGarbage;
  EXPECT_EQ(kResources, OPL_ThreadAttrCreate(&attr, 0));
  ExpectError(EINVAL, "OPL_ThreadAttrCreate: pthread_attr_setdetachstate: Invalid argument");
  EXPECT_EQ(nullptr, attr);
  EXPECT_EQ(1, ends.Calls());
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

// With an attribute object of its own.
class ThreadAttr : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(OPL_OK, OPL_ThreadAttrCreate(&attr_, 0));
  }
  void TearDown() override {
    if (attr_ != nullptr) {
      EXPECT_EQ(OPL_OK, OPL_ThreadAttrDestroy(&attr_));
    }
    Instance::TearDown();
  }

  OPL_ThreadAttr* attr_ = nullptr;
  uint32_t value_ = 77;
};

class ThreadAttrDestroy : public ThreadAttr {};

TEST_F(ThreadAttrDestroy, RefusesANull) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrDestroy(nullptr));
  ExpectError(kInvalid, "OPL_ThreadAttrDestroy: ppThreadAttr == NULL");
}

TEST_F(ThreadAttrDestroy, RefusesANullHandle) {
  OPL_ThreadAttr* none = nullptr;
  EXPECT_EQ(kInvalid, OPL_ThreadAttrDestroy(&none));
  ExpectError(kInvalid, "OPL_ThreadAttrDestroy: ppThreadAttr == NULL");
}

TEST_F(ThreadAttrDestroy, IsRefusedTheSecondTime) {
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrDestroy(&attr_));
  EXPECT_EQ(kInvalid, OPL_ThreadAttrDestroy(&attr_));
}

TEST_F(ThreadAttrDestroy, ReleasesTheObjectAlsoWhenTheSystemRefuses) {
  (void)OPL_ErrNativeMessageGet(0, 0);
  const CountedMemory memory;
  OPL_ThreadAttr* attr = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrCreate(&attr, 0));
  const Fault fault("pthread_attr_destroy", 1, EBUSY);
  EXPECT_EQ(kInvalid, OPL_ThreadAttrDestroy(&attr));
  ExpectError(EBUSY, "OPL_ThreadAttrDestroy: pthread_attr_destroy: Device or resource busy");
  EXPECT_EQ(nullptr, attr);
  EXPECT_EQ(0, memory.Living());
}

class ThreadAttrSet : public ThreadAttr {};

TEST_F(ThreadAttrSet, SetsTheStackSize) {
  value_ = 1024 * 1024;
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrSet(attr_, 0, &value_));
  pthread_attr_t* posix = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrPosixGet(attr_, &posix));
  size_t size = 0;
  EXPECT_EQ(0, ::pthread_attr_getstacksize(posix, &size));
  EXPECT_EQ(1024u * 1024u, size);
}

TEST_F(ThreadAttrSet, RefusesAStackThatIsTooSmall) {
  value_ = 1000;
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(attr_, 0, &value_));
  ExpectError(EINVAL, "OPL_ThreadAttrSet: pValue is invalid for AttrOption (0).");
}

TEST_F(ThreadAttrSet, SetsTheSystemsScope) {
  value_ = 1;
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrSet(attr_, 1, &value_));
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrGet(attr_, 1, &value_));
  EXPECT_EQ(1u, value_);
}

TEST_F(ThreadAttrSet, IsRefusedTheProcesssScopeByTheSystem) {
  value_ = 0;
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(attr_, 1, &value_));
  ExpectError(ENOTSUP, "OPL_ThreadAttrSet: pValue is invalid for AttrOption (1).");
}

TEST_F(ThreadAttrSet, RefusesAnotherScope) {
  value_ = 2;
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(attr_, 1, &value_));
  ExpectError(kInvalid, "OPL_ThreadAttrSet: Contention scope value (2) invalid.");
}

TEST_F(ThreadAttrSet, RefusesAnotherOption) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(attr_, 7, &value_));
  ExpectError(kInvalid, "OPL_ThreadAttrSet: AttrOption (7) invalid.");
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(attr_, 2, &value_));
  ExpectError(kInvalid, "OPL_ThreadAttrSet: AttrOption (2) invalid.");
}

TEST_F(ThreadAttrSet, RefusesANullHandle) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(nullptr, 7, nullptr));
  ExpectError(kInvalid, "OPL_ThreadAttrSet: pThreadAttr == NULL");
}

TEST_F(ThreadAttrSet, RefusesANullValue) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrSet(attr_, 1, nullptr));
  ExpectError(kInvalid, "OPL_ThreadAttrSet: pValue is invalid for AttrOption (1).");
}

class ThreadAttrGet : public ThreadAttr {};

TEST_F(ThreadAttrGet, TellsTheStackSizeThatWasSet) {
  uint32_t size = 2 * 1024 * 1024;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrSet(attr_, 0, &size));
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrGet(attr_, 0, &value_));
  EXPECT_EQ(size, value_);
}

TEST_F(ThreadAttrGet, TellsTheLargestNumberForAStackBeyondIt) {
  if (sizeof(size_t) == sizeof(uint32_t)) GTEST_SKIP() << "no stack is that large in 32 bits";
  pthread_attr_t* posix = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrPosixGet(attr_, &posix));
  ASSERT_EQ(0, ::pthread_attr_setstacksize(posix, static_cast<size_t>(uint64_t{1} << 33)));
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrGet(attr_, 0, &value_));
  EXPECT_EQ(0xFFFFFFFFu, value_);
}

TEST_F(ThreadAttrGet, TellsTheSystemsScopeOfANewObject) {
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrGet(attr_, 1, &value_));
  EXPECT_EQ(1u, value_);
}

TEST_F(ThreadAttrGet, TellsTheProcesssScope) {
  const Replacement scope(
      "pthread_attr_getscope", +[](const pthread_attr_t*, int* answer) {
        *answer = PTHREAD_SCOPE_PROCESS;
        return 0;
      });
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrGet(attr_, 1, &value_));
  EXPECT_EQ(0u, value_);
}

TEST_F(ThreadAttrGet, RefusesAScopeThatItDoesNotKnow) {
  const Replacement scope(
      "pthread_attr_getscope", +[](const pthread_attr_t*, int* answer) {
        *answer = 9;
        return 0;
      });
  EXPECT_EQ(kInvalid, OPL_ThreadAttrGet(attr_, 1, &value_));
  ExpectError(kInvalid, "OPL_ThreadAttrGet: Contention scope value (9) invalid.");
  EXPECT_EQ(77u, value_);
}

TEST_F(ThreadAttrGet, ReportsThatTheSystemRefusesTheScope) {
  const Fault fault("pthread_attr_getscope", 1, EINVAL);
  EXPECT_EQ(kInvalid, OPL_ThreadAttrGet(attr_, 1, &value_));
  ExpectError(EINVAL, "OPL_ThreadAttrGet: pValue is invalid for AttrOption (1).");
  EXPECT_EQ(77u, value_);
}

TEST_F(ThreadAttrGet, ReportsThatTheSystemRefusesTheStackSize) {
  const Fault fault("pthread_attr_getstacksize", 1, EINVAL);
  EXPECT_EQ(kInvalid, OPL_ThreadAttrGet(attr_, 0, &value_));
  ExpectError(EINVAL, "OPL_ThreadAttrGet: pValue is invalid for AttrOption (0).");
  EXPECT_EQ(77u, value_);
}

TEST_F(ThreadAttrGet, RefusesAnotherOption) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrGet(attr_, 7, &value_));
  ExpectError(kInvalid, "OPL_ThreadAttrGet: AttrOption (7) invalid.");
  EXPECT_EQ(77u, value_);
}

TEST_F(ThreadAttrGet, RefusesANullHandle) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrGet(nullptr, 0, &value_));
  ExpectError(kInvalid, "OPL_ThreadAttrGet: pThreadAttr == NULL");
}

TEST_F(ThreadAttrGet, RefusesANullValue) {
  EXPECT_EQ(kInvalid, OPL_ThreadAttrGet(attr_, 0, nullptr));
  ExpectError(kInvalid, "OPL_ThreadAttrGet: pValue is invalid for AttrOption (0).");
}

class ThreadAttrPosixGet : public ThreadAttr {};

TEST_F(ThreadAttrPosixGet, GivesTheHandleItself) {
  pthread_attr_t* posix = nullptr;
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrPosixGet(attr_, &posix));
  EXPECT_EQ(static_cast<void*>(attr_), static_cast<void*>(posix));
}

TEST_F(ThreadAttrPosixGet, StoresNullForANullHandleToo) {
  pthread_attr_t* posix = reinterpret_cast<pthread_attr_t*>(&errno);
  EXPECT_EQ(kInvalid, OPL_ThreadAttrPosixGet(nullptr, &posix));
  ExpectError(kInvalid, "OPL_ThreadAttrPosixGet: hThreadAttr == NULL");
  EXPECT_EQ(nullptr, posix);
}

TEST_F(ThreadAttrPosixGet, NeedsNoPlaceForTheObject) {
  EXPECT_EQ(OPL_OK, OPL_ThreadAttrPosixGet(attr_, nullptr));
  EXPECT_EQ(kInvalid, OPL_ThreadAttrPosixGet(nullptr, nullptr));
}

}  // namespace
