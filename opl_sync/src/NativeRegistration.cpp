#include "opl_sync/src/NativeRegistration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Sync.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_private/src/IpcFile.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeKind;

constexpr uint32_t kMode = 0600;

class ControlFile {
 public:
  ControlFile(const NativeKind& kind, const char* prefix, uint32_t id) {
    char directory[opl::kIpcNameSize];
    (void)OPL_InitIPCPathGet(0, directory, sizeof directory);
    (void)OPL_CrtSNPrintf(name_, sizeof name_, "%s/%s%s%u.%s.%s", directory, prefix, kind.marker, id,
                          OPL_InitInstanceStringGet(), OPL_InitBuildVersionStringGet(0));
  }
  const char* c_str() const { return name_; }

 private:
  char name_[opl::kIpcNameSize];
};

// False where no number stands: such a file registers nothing.
bool ReadId(const char* text, int* id) {
  uint32_t number = 0;
  if (text == nullptr) return false;
  if (std::from_chars(text, text + std::strlen(text), number).ec != std::errc{}) return false;
  *id = static_cast<int>(number);
  return true;
}

Code PrefixMissing(Caller caller) { return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: prefix is NULL"); }

}  // namespace

namespace opl {

Code RegisterNative(Caller caller, const NativeKind& kind, const char* prefix, uint32_t id) {
  if (prefix == nullptr) return PrefixMissing(caller);
  const ControlFile file(kind, prefix, id);
  const int fd = OPL_CrtOpen(file.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  if (fd == -1) {
    const NativeError error;
    if (error.number() == EEXIST)
      return Fail(caller, error, kind.alreadyRegistered, "%s: Control file %s already exists", file.c_str());
    if (error.number() == EACCES)
      return Fail(caller, error, kind.cannotRegister, "%s: No access to create control file %s",
                  file.c_str());
    return Fail(caller, error, kind.cannotRegister, "%s: Cannot create control file %s", file.c_str());
  }
  (void)OPL_CrtClose(fd);
  (void)OPL_PrivateSetAccessTimeInFuture(file.c_str());
  return OPL_OK;
}

Code DeregisterNative(Caller caller, const NativeKind& kind, const char* prefix, uint32_t id,
                      bool tellsError) {
  if (prefix == nullptr) return PrefixMissing(caller);
  const ControlFile file(kind, prefix, id);
  if (::unlink(file.c_str()) != -1) return OPL_OK;
  const NativeError error;
  if (error.number() == ENOENT)
    return Fail(caller, error, kind.notRegistered, "%s: Control file %s does not exists", file.c_str());
  if (error.number() == EACCES)
    return Fail(caller, error, kind.cannotDeregister, "%s: No access to delete control file %s",
                file.c_str());
  if (!tellsError)
    return Fail(caller, error, kind.cannotDeregister, "%s: Cannot delete control file %s", file.c_str());
  return Fail(caller, error, kind.cannotDeregister, "%s: Cannot delete control file %s (error %d,%s)",
              file.c_str(), error.number(), error.text());
}

Code TerminateNative(const NativeKind& kind, const char* pattern) {
  Code removal = OPL_OK;
  const Code listing = ForEachIpcFile(pattern, kind.marker, [&](const char* name) -> Code {
    struct stat64 status {};
    // One that has gone since the listing was deregistered, and its object is to stay.
    if (::lstat64(name, &status) == -1) return OPL_OK;
    (void)::unlink(name);
    // The directory's own name may hold the marker too; the id stands behind the last one.
    const char* id = nullptr;
    for (const char* at = std::strstr(name, kind.marker); at != nullptr; at = std::strstr(id, kind.marker))
      id = at + std::strlen(kind.marker);
    int number = 0;
    if (!ReadId(id, &number) || !kind.remove(number, status.st_uid)) removal = kind.cannotDeregister;
    return OPL_OK;
  });
  return listing != OPL_OK ? listing : removal;
}

}  // namespace opl
