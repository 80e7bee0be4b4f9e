// Tells a process from its forked children, where a call to the system for it would cost too much.
#ifndef OPL_INIT_FORK_GENERATION_H
#define OPL_INIT_FORK_GENERATION_H

#include <cstdint>

#include "OPL_Types.h"

namespace opl {

// The number of forks that lie between the process that first began the library and this one. What a process
// remembers together with its generation is not its child's.
uint32_t ForkGeneration();

// Counts forks from now on. Called by every begin; the first one counts.
OPL_Result WatchForks();

}  // namespace opl

#endif
