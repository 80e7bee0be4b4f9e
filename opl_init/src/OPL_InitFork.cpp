#include <atomic>

#include "OPL_Process.h"
#include "opl_init/src/ForkGeneration.h"

namespace {

// Raised in the child's one thread, before it runs anything else.
std::atomic<uint32_t> gGeneration{0};

// Under the initialisation lock.
bool gIsWatching = false;

}  // namespace

namespace opl {

uint32_t ForkGeneration() { return gGeneration.load(std::memory_order_relaxed); }

OPL_Result WatchForks() {
  if (gIsWatching) return OPL_OK;
  if (const OPL_Result rc = OPL_ProcessAtFork(nullptr, nullptr, [] { ++gGeneration; })) return rc;
  gIsWatching = true;
  return OPL_OK;
}

}  // namespace opl
