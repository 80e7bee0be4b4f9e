// What named mutexes and read-write locks have in common: a System V set with a use count, found through an
// object file, and the uses that this process holds.
#ifndef OPL_SYNC_NAMED_SET_H
#define OPL_SYNC_NAMED_SET_H

#include <cstdint>

#include "opl_err/src/Fail.h"
#include "opl_private/src/IpcName.h"
#include "opl_private/src/UseList.h"
#include "opl_sync/src/ProcessLock.h"

namespace opl {

// Takes a use count of a set that was found. A set that a dead process was about to remove is removed with
// its file, and missingCode returned.
Code AccessFoundSet(const IpcName& file, int32_t semId, uint32_t useCount, Code missingCode);

// Enters a new handle's use, which is held, under the lock that guards the uses.
void AddUse(UseList& uses, Use* use, int32_t semId);

// Gives a handle's use count back, if this process holds it; the last user removes set and file. After a
// failure the use is held as before, as long as the set exists. Takes the lock that guards the uses.
Code GiveUseBack(ProcessLock& lock, UseList& uses, Use* use, const IpcName& file, uint32_t useCount);

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
