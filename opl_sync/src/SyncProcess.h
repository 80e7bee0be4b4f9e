// What each kind of synchronisation object does when a process ends and when an instance is cleaned up.
#ifndef OPL_SYNC_SYNC_PROCESS_H
#define OPL_SYNC_SYNC_PROCESS_H

#include <cstdint>

#include "opl_err/src/Fail.h"

namespace opl {

// Keep other threads off a module's tables around a fork.
void LockCritSecForFork();
void UnlockCritSecAfterFork();
void LockCrewForFork();
void UnlockCrewAfterFork();
void LockEventsForFork();
void UnlockEventsAfterFork();
void LockMutexesForFork();
void UnlockMutexesAfterFork();

// Close what the process still has open; mode 1 only forgets it.
Code ProcessCrewExitList(int32_t mode);
Code ProcessEventExitList(int32_t mode);
Code ProcessMutexExitList(int32_t mode);

// Remove the instance's objects whose files match the pattern; the first failure is returned.
Code TerminateRWLock(const char* pattern);
Code TerminateEvent(const char* pattern);
Code TerminateMutex(const char* pattern);
Code TerminateLockFile(const char* pattern);
Code TerminateSemNative(const char* pattern);

}  // namespace opl

#endif
