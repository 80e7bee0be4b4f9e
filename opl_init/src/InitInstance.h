// What the initialisation asks of the instance.
#ifndef OPL_INIT_INIT_INSTANCE_H
#define OPL_INIT_INIT_INSTANCE_H

#include <cstdint>

namespace opl {

// Copies the IPC directory, cut to size - 1 characters. The environment is read by the first call in the
// process; a null buffer only reads it.
void FindIPCPath(char* buffer, uint32_t size);

}  // namespace opl

#endif
