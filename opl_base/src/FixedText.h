// Copies texts into buffers of fixed size, cut to fit and always terminated.
#ifndef OPL_BASE_FIXED_TEXT_H
#define OPL_BASE_FIXED_TEXT_H

#include <cstddef>
#include <cstring>

namespace opl {

// A size of 0 stores nothing.
inline void CopyText(char* to, size_t size, const char* from) {
  if (size == 0) return;
  const size_t length = ::strnlen(from, size - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
}

template <size_t kSize>
void CopyText(char (&to)[kSize], const char* from) {
  CopyText(to, kSize, from);
}

}  // namespace opl

#endif
