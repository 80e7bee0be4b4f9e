// A step of a Create, Open or Close that the system refuses, and what comes of it.
#ifndef OPL_TESTS_OPL_SYNC_FAILING_STEP_H
#define OPL_TESTS_OPL_SYNC_FAILING_STEP_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "OPL_Err.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/Faults.h"

namespace opltest {

struct FailingStep {
  const char* function;
  int nth;
  int number;
  uint32_t code;
  uint32_t recorded;
  const char* message;  // "@" stands for the object's file, "#" for a set's id, "$" for number and text
};

// Expects the step's failure in the error record.
inline void ExpectRecorded(const FailingStep& step, const std::string& file) {
  EXPECT_EQ(step.recorded, OPL_ErrCodeGet(0));
  std::string expected = step.message;
  if (const size_t at = expected.find('$'); at != std::string::npos)
    expected.replace(at, 1, NumberAndText(step.number));
  if (const size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, file);
  std::string actual = OPL_ErrMessageGet(0);
  if (const size_t at = expected.find('#'); at != std::string::npos && at < actual.size()) {
    const size_t end = std::min(actual.find_first_not_of("0123456789", at), actual.size());
    actual.replace(at, end - at, "#");
  }
  EXPECT_EQ(expected, actual);
}

// The steps that the Create functions of mutexes and read-write locks have in common, up to the use of the
// new set.
inline constexpr FailingStep kStepsOfMakingASet[] = {
    {"sigfillset", 1, EIO, 0x050403, EIO, "OPL_SigBlock: sigfillset :$"},
    {"pthread_sigmask", 1, EINVAL, 0x050404, EINVAL, "OPL_SigBlock: pthread_sigmask :$"},
    {"semop", 1, EIO, 0x051212, EIO, "SemaphoreLock: semop(#) failed :$"},
    {"semop", 1, EIDRM, 0x051218, EIDRM, "SemaphoreLock: semaphore # has been removed."},
    {"semop", 1, EINVAL, 0x051218, EINVAL, "SemaphoreLock: semaphore # has been removed."},
    {"open64", 1, EACCES, 0x051203, EACCES, "OPL_PrivateSemIdCreate: open error :$\nFile @"},
    {"fchmod", 1, EPERM, 0x051207, EPERM, "OPL_PrivateSemIdCreate: fchmod(384) error :$\nFile @"},
    {"semget", 1, ENOSPC, 0x051210, ENOSPC, "OPL_PrivateSemIdCreate: semget error: $"},
    {"semctl", 1, ERANGE, 0x051211, ERANGE, "OPL_PrivateSemIdCreate: semctl error (id #): $"},
    {"write", 1, ENOSPC, 0x051204, ENOSPC, "OPL_PrivateSemIdCreate: write error :$\nFile @"},
    {"close", 1, EIO, 0x051206, EIO, "OPL_PrivateSemIdCreate: close error :$\nFile @"},
    {"link", 1, EIO, 0x051203, EIO, "OPL_PrivateSemIdCreate: open error :$\nFile @"},
    {"semtimedop", 1, ENOMEM, 0x051212, ENOMEM, "OPL_PrivateUseCountAccess: semop(#) failed :$"},
    {"pthread_mutex_lock", 1, EDEADLK, 0x05003D, EDEADLK, "LockProcess: pthread_mutex_lock :$"},
};

inline std::string NameOfStep(const ::testing::TestParamInfo<FailingStep>& test) {
  return std::string(test.param.function) + std::to_string(test.param.nth) + "_" +
         ::strerrorname_np(test.param.number);
}

class FailingSteps : public Instance, public ::testing::WithParamInterface<FailingStep> {
 protected:
  // Calls with the step refused; expects its code and its record.
  template <typename Call>
  void ExpectFailure(const std::string& file, Call call) {
    {
      Fault fault(GetParam().function, GetParam().nth, GetParam().number);
      EXPECT_EQ(GetParam().code, call());
      EXPECT_TRUE(fault.Fired());
    }
    ExpectRecorded(GetParam(), file);
  }

  // No lock of the management set is left taken, and this process has the only use.
  void ExpectManagementLockFree() {
    EXPECT_EQ((opltest::Values{31999, 1, 1, 1}), ValuesOf(SetNamedBy(ManagementFile())));
  }
};

}  // namespace opltest

#endif
