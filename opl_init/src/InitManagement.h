// This process's share in the instance's management lock, over the library's life.
#ifndef OPL_INIT_INIT_MANAGEMENT_H
#define OPL_INIT_INIT_MANAGEMENT_H

#include <cstdint>

#include "OPL_Types.h"

namespace opl {

// Opens or makes the management lock and takes a use count on it.
OPL_Result ManagementMutexInitialize();

// Gives the use count back and removes the lock with its last user. OPL_INIT_END_FORCED only forgets.
void ManagementMutexRelease(uint32_t mode);

}  // namespace opl

#endif
