// Repeats a system call that a signal interrupted. Never for close: whether the descriptor is still open
// after an interrupted close differs between systems, and on Linux it is not.
#ifndef OPL_BASE_RETRY_H
#define OPL_BASE_RETRY_H

#include <cerrno>

namespace opl {

template <typename Call>
auto RetryOnEintr(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace opl

#endif
