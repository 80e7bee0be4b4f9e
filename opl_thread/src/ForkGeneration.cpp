#include "opl_thread/src/ForkGeneration.h"

#include "OPL_Process.h"

namespace {

// Under the initialisation lock.
bool gIsWatching = false;

// The generation that owns what there is, and the first of those whose things it owns. Written before the
// process has a second thread.
std::atomic<uint32_t> gOwner{0};
std::atomic<uint32_t> gOwnedFrom{0};

}  // namespace

namespace opl {

constinit std::atomic<uint32_t> gForkGeneration{0};

bool OwnsState() { return gOwner == ForkGeneration(); }

bool IsOwnGeneration(uint32_t made) { return OwnsState() && made >= gOwnedFrom; }

void OwnFromNow() {
  gOwner = ForkGeneration();
  gOwnedFrom = ForkGeneration();
}

void OwnInherited() { gOwner = ForkGeneration(); }

OPL_Result WatchForks() {
  if (gIsWatching) return OPL_OK;
  if (const OPL_Result rc = OPL_ProcessAtFork(nullptr, nullptr, [] { ++gForkGeneration; })) return rc;
  gIsWatching = true;
  return OPL_OK;
}

}  // namespace opl
