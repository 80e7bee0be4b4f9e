// A step of a Create, Open or Close that the system refuses, and what comes of it.
#ifndef OPL_TESTS_OPL_SYNC_FAILING_STEP_H
#define OPL_TESTS_OPL_SYNC_FAILING_STEP_H

#include <gtest/gtest.h>

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
