// What the formatter makes of a format and its arguments.
#ifndef OPL_TESTS_OPL_CRT_FORMATTED_H
#define OPL_TESTS_OPL_CRT_FORMATTED_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "OPL_Crt.h"

namespace opltest {

// The whole result, which has to be terminated where the returned length says.
template <typename... Arguments>
std::string Formatted(const char* format, Arguments... arguments) {
  char buffer[512];
  std::memset(buffer, '~', sizeof buffer);
  const int32_t length = OPL_CrtSNPrintf(buffer, sizeof buffer, format, arguments...);
  if (length < 0 || length >= static_cast<int32_t>(sizeof buffer)) {
    ADD_FAILURE() << "length " << length << " of " << format;
    return "";
  }
  EXPECT_EQ('\0', buffer[length]) << format;
  EXPECT_EQ('~', buffer[length + 1]) << format;
  return std::string(buffer, static_cast<size_t>(length));
}

// Only the length, measured without a buffer.
template <typename... Arguments>
int32_t Measured(const char* format, Arguments... arguments) {
  return OPL_CrtSNPrintf(nullptr, 0, format, arguments...);
}

}  // namespace opltest

#endif
