// Tells a process from its forked children, where a call to the system for it would cost too much.
#ifndef OPL_THREAD_FORK_GENERATION_H
#define OPL_THREAD_FORK_GENERATION_H

#include <atomic>
#include <cstdint>

#include "OPL_Types.h"

namespace opl {

// Raised in a forked child's one thread, before it runs anything else. It stands here so that the function
// below, which alone reads it, is compiled into its callers.
// NOLINTNEXTLINE(bugprone-dynamic-static-initializers): it is defined as constinit
[[gnu::visibility("hidden")]] extern std::atomic<uint32_t> gForkGeneration;

// The number of forks that lie between the process that first began the library and this one. What a process
// remembers together with its generation is not its child's.
inline uint32_t ForkGeneration() { return gForkGeneration.load(std::memory_order_relaxed); }

// Whether what was made in that generation is this process's: made by itself, or taken over from its parent.
// A child that neither began the library nor took it over owns nothing.
bool IsOwnGeneration(uint32_t made);

// Whether the process began the library or took it over.
bool OwnsState();

// The process owns what it makes from now on, or what it inherited as well.
void OwnFromNow();
void OwnInherited();

// Counts forks from now on. Called by every begin; the first one counts.
OPL_Result WatchForks();

}  // namespace opl

#endif
