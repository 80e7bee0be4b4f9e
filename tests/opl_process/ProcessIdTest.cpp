// The process's id, its parent's, and the id that a program sets itself.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Child;
using opltest::ExpectError;
using opltest::Fault;
using opltest::Steps;

constexpr uint32_t kNoId = 0xFFFFFFFF;

uint32_t Own() { return static_cast<uint32_t>(::getpid()); }

class ProcessId : public ::testing::Test {
 protected:
  uint32_t pid_ = 77;
};

TEST_F(ProcessId, IsTheSystemsBeforeBegin) {
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
  EXPECT_EQ(Own(), pid_);
  EXPECT_EQ(OPL_OK, OPL_ProcessRealIdGet(&pid_));
  EXPECT_EQ(Own(), pid_);
}

TEST_F(ProcessId, IsTheOneThatWasSet) {
  EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(78));
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
  EXPECT_EQ(78u, pid_);
}

TEST_F(ProcessId, IsStillTheSystemsWhenTheRealOneIsAskedFor) {
  EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(78));
  EXPECT_EQ(OPL_OK, OPL_ProcessRealIdGet(&pid_));
  EXPECT_EQ(Own(), pid_);
}

TEST_F(ProcessId, CanBeSetToZero) {
  EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(0));
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
  EXPECT_EQ(0u, pid_);
}

TEST_F(ProcessId, IsTheSystemsAgainWhenNoneIsSet) {
  EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(78));
  EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(kNoId));
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
  EXPECT_EQ(Own(), pid_);
}

TEST_F(ProcessId, IsInheritedOnlyWhenItWasSet) {
  Child([this](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
    EXPECT_EQ(Own(), pid_);
  }).ExpectSuccess();
  EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(78));
  Child([this](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
    EXPECT_EQ(78u, pid_);
  }).ExpectSuccess();
}

TEST_F(ProcessId, OfTheParentIsTheSystems) {
  const uint32_t parent = Own();
  Child([&](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_ProcessIdSet(78));
    EXPECT_EQ(OPL_OK, OPL_ProcessParentIdGet(&pid_));
    EXPECT_EQ(parent, pid_);
  }).ExpectSuccess();
}

TEST_F(ProcessId, RefusesANullWithoutTheLibrary) {
  EXPECT_EQ(0x050F02u, OPL_ProcessIdGet(nullptr));
  EXPECT_EQ(0x050F02u, OPL_ProcessRealIdGet(nullptr));
  EXPECT_EQ(0x050F02u, OPL_ProcessParentIdGet(nullptr));
}

class ProcessIdFailing : public opltest::Instance {
 protected:
  uint32_t pid_ = 77;
};

TEST_F(ProcessIdFailing, RefusesANull) {
  EXPECT_EQ(0x050F02u, OPL_ProcessIdGet(nullptr));
  ExpectError(0x050F02, "OPL_ProcessIdGet: pPid is NULL;");
}

TEST_F(ProcessIdFailing, RefusesANullForTheRealOneUnderTheSameName) {
  EXPECT_EQ(0x050F02u, OPL_ProcessRealIdGet(nullptr));
  ExpectError(0x050F02, "OPL_ProcessIdGet: pPid is NULL;");
}

TEST_F(ProcessIdFailing, RefusesANullForTheParents) {
  EXPECT_EQ(0x050F02u, OPL_ProcessParentIdGet(nullptr));
  ExpectError(0x050F02, "OPL_ProcessParentIdGet: pPid is NULL;");
}

TEST_F(ProcessIdFailing, TellsThatTheSystemGaveNone) {
  OPL_Result result;
  {
    const Fault fault("getpid", 1, EIO);
    result = OPL_ProcessIdGet(&pid_);
  }
  EXPECT_EQ(0x050F01u, result);
  ExpectError(EIO, "OPL_ProcessIdGet: getpid error :5,Input/output error");
  EXPECT_EQ(77u, pid_);
}

TEST_F(ProcessIdFailing, TellsThatTheSystemGaveNoRealOneUnderTheSameName) {
  OPL_Result result;
  {
    const Fault fault("getpid", 1, EIO);
    result = OPL_ProcessRealIdGet(&pid_);
  }
  EXPECT_EQ(0x050F01u, result);
  ExpectError(EIO, "OPL_ProcessIdGet: getpid error :5,Input/output error");
  EXPECT_EQ(77u, pid_);
}

TEST_F(ProcessIdFailing, TellsThatTheSystemGaveNoParents) {
  const Fault fault("getppid", 1, EIO);
  EXPECT_EQ(0x050F01u, OPL_ProcessParentIdGet(&pid_));
  ExpectError(EIO, "OPL_ProcessParentIdGet: getpid error :5,Input/output error");
  EXPECT_EQ(77u, pid_);
}

TEST_F(ProcessIdFailing, NeedsNoSystemWhenOneWasSet) {
  const uint32_t own = Own();
  ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(own));
  const Fault fault("getpid", 1, EIO);
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&pid_));
  EXPECT_EQ(own, pid_);
  EXPECT_FALSE(fault.Fired());
}

class ProcessIdCompare : public opltest::Instance {};

TEST_F(ProcessIdCompare, TellsEqualIds) {
  uint32_t isEqual = 77;
  EXPECT_EQ(OPL_OK, OPL_ProcessIdCompare(5, 5, &isEqual));
  EXPECT_EQ(1u, isEqual);
}

TEST_F(ProcessIdCompare, TellsDifferentIds) {
  uint32_t isEqual = 77;
  EXPECT_EQ(OPL_OK, OPL_ProcessIdCompare(5, 6, &isEqual));
  EXPECT_EQ(0u, isEqual);
}

TEST_F(ProcessIdCompare, RefusesANull) {
  EXPECT_EQ(0x050F02u, OPL_ProcessIdCompare(5, 5, nullptr));
  ExpectError(0x050F02, "OPL_ProcessIdCompare: pIsEqual is NULL;");
}

TEST(ProcessIdCompareBeforeBegin, IsRefused) {
  uint32_t isEqual = 77;
  EXPECT_EQ(0x050203u, OPL_ProcessIdCompare(5, 5, &isEqual));
  EXPECT_EQ(77u, isEqual);
}

}  // namespace
