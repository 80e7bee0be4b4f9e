// How a named object's file in the IPC directory is called: DIRECTORY/NAME + MARKER + SCOPE + "." + VERSION,
// the scope being the instance string, "all", or nothing.
#ifndef OPL_PRIVATE_IPC_NAME_H
#define OPL_PRIVATE_IPC_NAME_H

#include <cstddef>
#include <cstdint>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "opl_private/src/IpcFile.h"
#include "opl_private/src/ObjectLayout.h"

namespace opl {

// A named object's name, without its terminator.
inline constexpr size_t kObjectNameLongest = 11;
inline constexpr size_t kObjectNameSize = kObjectNameLongest + 1;

enum class Scope { kNone, kInstance, kAllUsers };

// What a permission flag of an object means.
struct Access {
  uint32_t flag;
  uint32_t mode;
  Scope scope;
};

// Searched from the top; null when no entry's flag is given.
template <size_t kCount>
constexpr const Access* FindAccess(const Access (&table)[kCount], uint32_t flags) {
  for (const Access& access : table)
    if ((flags & access.flag) != 0) return &access;
  return nullptr;
}

// The scope of an object that is there: one that was made without a flag carries none.
template <size_t kCount>
constexpr Scope ScopeOf(const Access (&table)[kCount], uint32_t flags) {
  const Access* const access = FindAccess(table, flags);
  return access != nullptr ? access->scope : Scope::kNone;
}

class IpcName {
 public:
  IpcName(const char* name, const char* marker, Scope scope) {
    char directory[kIpcNameSize];
    (void)OPL_InitIPCPathGet(0, directory, sizeof directory);
    (void)OPL_CrtSNPrintf(text_, sizeof text_, "%s/%s%s%s.%s", directory, name, marker, TextOf(scope),
                          OPL_InitBuildVersionStringGet(0));
  }

  const char* c_str() const { return text_; }

 private:
  static const char* TextOf(Scope scope) {
    switch (scope) {
      case Scope::kInstance:
        return OPL_InitInstanceStringGet();
      case Scope::kAllUsers:
        return kAllUsersScope;
      case Scope::kNone:
        return "";
    }
    return "";
  }

  char text_[kIpcNameSize];
};

}  // namespace opl

#endif
