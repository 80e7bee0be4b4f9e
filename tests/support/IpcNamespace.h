// An IPC namespace of the process's own, in which every System V object in sight is its own, and which takes
// its objects with it when its last process ends.
#ifndef OPL_TEST_SUPPORT_IPC_NAMESPACE_H
#define OPL_TEST_SUPPORT_IPC_NAMESPACE_H

namespace opltest {

// Whether the system allows it.
bool EnterIpcNamespace();

}  // namespace opltest

#endif
