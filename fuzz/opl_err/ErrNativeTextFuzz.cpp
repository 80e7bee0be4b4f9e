// The system's text of any error number in a buffer of any size: it is cut and terminated, nothing beyond the
// buffer is touched, and errno stays as it was.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "OPL_Err.h"
#include "fuzz/support/Input.h"

namespace {

using oplfuzz::Check;

constexpr uint32_t kLongest = 1024;
constexpr int kErrno = 4711;

std::string Whole(int32_t number) {
  char buffer[kLongest];
  Check(OPL_ErrNativeGetErrorString(number, buffer, sizeof buffer) == buffer);
  Check(std::memchr(buffer, '\0', sizeof buffer) != nullptr);
  Check(buffer[0] != '\0');
  return buffer;
}

void CheckCut(int32_t number, const std::string& whole, uint32_t size) {
  const auto buffer = std::make_unique<char[]>(size);
  Check(OPL_ErrNativeGetErrorString(number, buffer.get(), size) == buffer.get());
  if (size == 0) return;
  Check(buffer[size - 1] == '\0');
  Check(buffer.get() == whole.substr(0, size - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  // Most numbers that mean something are small.
  const auto number = static_cast<int32_t>(input.Coin() ? input.Below(256) : input.Word());
  const uint32_t bufferSize = input.Below(kLongest);
  errno = kErrno;
  const std::string whole = Whole(number);
  CheckCut(number, whole, bufferSize);
  Check(OPL_ErrNativeGetErrorString(number, nullptr, bufferSize) == nullptr);
  Check(errno == kErrno);
  return 0;
}
