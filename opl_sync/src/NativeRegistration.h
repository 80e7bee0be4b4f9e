// Registration of System V objects that programs make themselves: an empty control file whose name carries
// the object's id. Semaphore sets and message queues differ in marker, codes and some texts.
#ifndef OPL_SYNC_NATIVE_REGISTRATION_H
#define OPL_SYNC_NATIVE_REGISTRATION_H

#include <sys/types.h>

#include <cstdint>

#include "opl_err/src/Fail.h"

namespace opl {

struct NativeKind {
  const char* marker;
  Code alreadyRegistered;
  Code notRegistered;
  Code cannotRegister;
  Code cannotDeregister;
  // Removes the object of that id, if it has that owner; whether it did.
  bool (*remove)(int id, uid_t owner);
};

Code RegisterNative(Caller caller, const NativeKind& kind, const char* prefix, uint32_t id);

// Unlinks the control file. tellsError: whether the message of an unexpected failure tells number and text.
Code DeregisterNative(Caller caller, const NativeKind& kind, const char* prefix, uint32_t id,
                      bool tellsError);

Code TerminateNative(const NativeKind& kind, const char* pattern);

}  // namespace opl

#endif
