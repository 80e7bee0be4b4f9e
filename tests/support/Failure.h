// What a failed call has left in the calling thread's error record.
//
//   EXPECT_EQ(OPL_PRIVATE_E_READ, OPL_PrivateSemIdGet(...));
//   EXPECT_EQ(Failure(EIO, "OPL_PrivateSemIdGet: read error :5,Input/output error"), LastFailure());
#ifndef OPL_TESTS_SUPPORT_FAILURE_H
#define OPL_TESTS_SUPPORT_FAILURE_H

#include <cstdint>
#include <ostream>
#include <string>

#include "OPL_Err.h"

namespace opltest {

struct Failure {
  Failure(uint32_t recordedCode, std::string text) : code(recordedCode), message(std::move(text)) {}

  uint32_t code;
  std::string message;

  bool operator==(const Failure&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Failure& failure) {
  return out << std::hex << "0x" << failure.code << std::dec << " \"" << failure.message << '"';
}

inline Failure LastFailure() { return {OPL_ErrCodeGet(0), OPL_ErrMessageGet(0)}; }

// Makes what the next failure is compared with sure to be the next failure's.
inline void ForgetFailure() { (void)OPL_ErrSet(0, 0, "none"); }

}  // namespace opltest

#endif
