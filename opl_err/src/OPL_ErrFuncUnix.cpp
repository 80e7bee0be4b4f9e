// The system's texts for its error numbers.
#include <cstring>

#include "OPL_Err.h"
#include "opl_base/src/ErrnoKeeper.h"
#include "opl_base/src/FixedText.h"

char* OPL_ErrNativeGetErrorString(int32_t errnum, char* dst, uint32_t len) {
  if (dst == nullptr || len == 0) return dst;
  const opl::ErrnoKeeper keepErrno;
  // Only texts that carry an unknown number are built in the work area, and those are short.
  char work[64];
  const char* text = ::strerror_r(errnum, work, sizeof work);
  if (text == nullptr) text = "Unknown system error.";
  opl::CopyText(dst, len, text);
  dst[len - 1] = '\0';
  return dst;
}
