// Sending a signal to one process, and to nothing else.
#ifndef OPL_PROCESS_SEND_SIGNAL_H
#define OPL_PROCESS_SEND_SIGNAL_H

#include <cstdint>

namespace opl {

// As kill, but 0 and what is above the system's ids are no processes (-1 and ESRCH): the system takes them
// for groups, and for all processes.
int SendSignal(uint32_t pid, int signalNumber);

}  // namespace opl

#endif
