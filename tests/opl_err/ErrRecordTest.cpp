// Recording a failure and reading it back.
#include <gtest/gtest.h>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/support/Instance.h"

namespace {

TEST(ErrRecordBeforeBegin, HasNoRecord) {
  EXPECT_EQ(0u, OPL_ErrSet(0, 7, "lost"));
  EXPECT_EQ(static_cast<uint32_t>(OPL_ERR_E_NO_RECORD), OPL_ErrCodeGet(0));
  EXPECT_STREQ("No message available.", OPL_ErrMessageGet(0));
}

class ErrRecord : public opltest::Instance {};

TEST_F(ErrRecord, HoldsCodeAndMessage) {
  EXPECT_EQ(0u, OPL_ErrSet(0, 77, "%s: semop(%lu) error :%i,%s", "Me", 12ul, 4, "four"));
  EXPECT_EQ(77u, OPL_ErrCodeGet(0));
  EXPECT_STREQ("Me: semop(12) error :4,four", OPL_ErrMessageGet(0));
}

}  // namespace
