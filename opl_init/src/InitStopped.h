// OPL_InitIsStopped without a call, for functions that do little more than ask the system for one thing.
#ifndef OPL_INIT_INIT_STOPPED_H
#define OPL_INIT_INIT_STOPPED_H

#include <atomic>
#include <cstdint>

#include "OPL_Init.h"

namespace opl {

// Whether the library works in this process. OPL_Init.cpp alone changes it, under the initialisation lock or
// in a forked child's one thread; it stands here so that the function below is compiled into its callers.
struct LibraryLife {
  std::atomic<int32_t> nestingCount{0};  // begins not yet ended; the library is begun while it is above 0
  std::atomic<bool> isOver{false};       // the exit function has run
};
// NOLINTNEXTLINE(bugprone-dynamic-static-initializers): it is defined as constinit
[[gnu::visibility("hidden")]] extern LibraryLife gLibraryLife;

// OPL_OK while the library works.
inline OPL_Result IsStopped() {
  if (gLibraryLife.nestingCount.load(std::memory_order_relaxed) != 0 &&
      !gLibraryLife.isOver.load(std::memory_order_relaxed)) [[likely]]
    return OPL_OK;
  return OPL_InitIsStopped(0);
}

}  // namespace opl

#endif
