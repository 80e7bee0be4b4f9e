// What named mutexes and read-write locks have in common: a System V set with a use count, found through an
// object file, and the uses that this process holds.
#ifndef OPL_SYNC_NAMED_SET_H
#define OPL_SYNC_NAMED_SET_H

#include <cstdint>

#include "opl_err/src/Fail.h"
#include "opl_private/src/IpcName.h"
#include "opl_private/src/MgmtLock.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/UseList.h"
#include "opl_sync/src/ProcessLock.h"

namespace opl {

// Both openings and closings look at the file before they take the management lock, while others may go on.
// What they found counts under the lock, too, where nobody held that in between, or where the file still
// stands so; whatever else has happened to the set shows when it is operated upon. Wherever anything is in
// doubt, all is done again under the lock.

// Takes the management lock, finds the set that the file names, and takes a use count of it. A set that a
// dead process was about to remove is removed with its file, and missingCode returned.
Code OpenSet(const IpcName& file, uint32_t useCount, Code missingCode, MgmtLock* mgmt, FoundSet* found);

// Enters a new handle's use, which is held, under the lock that guards the uses.
void AddUse(UseList& uses, Use* use, const FoundSet& set);

// A handle that is closed: its use, the lock that guards it, the file that names its set, and the semaphore
// that counts the set's uses.
struct ClosedHandle {
  ProcessLock& lock;
  UseList& uses;
  Use* use;
  const IpcName& file;
  uint32_t useCount;
};

// Takes the management lock. *stands receives whether the file is as it was when the handle was made, and so
// still names the handle's set.
Code LockForClose(const ClosedHandle& handle, MgmtLock* mgmt, bool* stands);

// Gives the handle's use count back, if this process holds it; the last user removes set and file. After a
// failure the use is held as before, as long as the set exists. Takes the lock that guards the uses.
Code GiveUseBack(const ClosedHandle& handle);

// The same for a handle whose file was not read. False, with nothing done, where it has to be: where this
// process holds no use, or the set is gone.
bool GiveUseBackUnread(const ClosedHandle& handle, Code* rc);

// Undo, which leaves the error record to the failure that led to it.
void UndoCreate(const IpcName& file, int32_t semId);
void UndoAccess(int32_t semId, uint32_t useCount);

// A use for a copy of a table's entry: one that an open handle of the set holds, or the entry's own.
Use UseForCopy(UseList& uses, int32_t semId, bool* entryHoldsUse);

// In a forked child: takes a use count for a table's entry, and lets an open handle of the set hold it, or
// else the entry.
Code AdoptUse(UseList& uses, int32_t semId, uint32_t useCount, bool* entryHoldsUse);

}  // namespace opl

#endif
