// The steps that all functions on object files share, with their messages: each records the failure under the
// caller's name and returns the code.
#ifndef OPL_PRIVATE_OBJECT_FILE_H
#define OPL_PRIVATE_OBJECT_FILE_H

#include <cstdint>

#include "OPL_Private.h"
#include "opl_err/src/Fail.h"
#include "opl_private/src/IpcFile.h"

namespace opl {

// Whether the name is taken, by whatever.
bool FileExists(const char* file);

// A new file: opened under a temporary name with its permissions, filled with the id, closed with its times
// in the future.
Code OpenNew(Caller caller, const char* file, uint32_t fileMode, NewIpcFile* object);
Code OpenNewAs(Caller caller, const char* temporary, uint32_t fileMode, NewIpcFile* object);
Code WriteId(Caller caller, const char* file, const NewIpcFile& object, int32_t id);
Code CloseNew(Caller caller, const char* file, NewIpcFile* object);

// Records errno as a failed opening of the file.
Code OpenFailed(Caller caller, const char* file);

// Opens the file and reads its id. A missing file is missingCode with missingText, which takes the file's
// name.
Code OpenObject(Caller caller, const char* file, Code missingCode, const Message<const char*>& missingText,
                IpcFile* object, int32_t* id);

Code CloseObject(Caller caller, const char* file, IpcFile* object);

// A set, and the file that names it.
struct FoundSet {
  int32_t id;
  FileStamp file;  // as it was when the id was written or read; of no file where it has been touched since
};

// OPL_PrivateSemIdCreate and OPL_PrivateSemIdGet.
Code CreateSet(Caller caller, const char* file, uint32_t fileMode, uint32_t semMode, uint32_t count,
               const uint16_t* values, FoundSet* made);
Code FindSet(Caller caller, const char* file, FoundSet* found);

// FindSet for whoever does not hold the lock that it is called under, and so only looks: nothing is moved,
// removed or recorded. False wherever FindSet would do more than find.
bool LookForSet(const char* file, FoundSet* found);

// OPL_PrivateSemIdCreate, with the file made under exactly that temporary name and left there, times set: the
// caller links it to its final name.
Code CreateSetInFile(Caller caller, const char* temporary, uint32_t fileMode, uint32_t semMode,
                     uint32_t count, const uint16_t* values, int32_t* id);

// Removes the set of that id, which this process holds, and the file as long as it names that set.
Code DestroyHeldSet(Caller caller, const char* file, int32_t id);

// Removes a set with its object file, for the clean-up of an instance: as OPL_PrivateSemIdDestroy, but what a
// process has left under a temporary name is removed once that process is dead, and let be before.
Code RemoveSetOrLeftover(const char* file);

// The same for temporary files alone.
Code RemoveLeftoverOfSet(const char* file);

// What RemoveSetOrLeftover is to sets, for segments.
Code RemoveSegmentOrLeftover(const char* file);

// OPL_PrivateShMemCreate and OPL_PrivateShMemOpen, which tell the segment's id as well.
Code CreateSegment(Caller caller, const char* file, uint32_t fileMode, uint32_t size, uint32_t shmMode,
                   void** address, int32_t* id);
Code OpenSegment(Caller caller, const char* file, void** address, int32_t* id);

// OPL_PrivateShMemClose, which removes segment and file only while the file names the segment that is held.
inline constexpr int32_t kNamedSegment = -1;  // whichever segment the file names
Code CloseSegment(Caller caller, const char* file, void* address, int32_t heldId, bool removes);

}  // namespace opl

#endif
