// System V objects as a test makes and inspects them, and the 4-byte files that name them.
#ifndef OPL_TESTS_SUPPORT_SYSTEM_V_H
#define OPL_TESTS_SUPPORT_SYSTEM_V_H

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace opltest {

using Values = std::vector<int>;

// -1 when the system refuses.
int MakeSet(const Values& values, int mode = 0600);
void RemoveSet(int id);
bool SetExists(int id);
void SetValue(int id, int index, int value);
int ValueOf(int id, int index);
// Processes that wait for the semaphore to rise.
int WaitersOf(int id, int index);
// Empty when the set is gone.
Values ValuesOf(int id);
ipc_perm PermissionsOfSet(int id);
// Gives the set to another user; whether that worked.
bool GiveSetTo(int id, uid_t owner);

int MakeSegment(size_t size);
void RemoveSegment(int id);
bool SegmentExists(int id);
ipc_perm PermissionsOfSegment(int id);
size_t SizeOfSegment(int id);
int AttachedTo(int id);
bool GiveSegmentTo(int id, uid_t owner);

// The four bytes of an id, and the id in a file; -2 when the file does not hold four bytes.
std::string BytesOf(int32_t id);
int32_t IdIn(const std::string& path);

}  // namespace opltest

#endif
