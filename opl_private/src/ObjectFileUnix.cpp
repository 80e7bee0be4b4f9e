#include "opl_private/src/ObjectFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "opl_base/src/Retry.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::NativeError;

Code SetFileMode(Caller caller, const char* file, uint32_t fileMode, int fd) {
  if (::fchmod(fd, fileMode) != -1) return OPL_OK;
  const NativeError error;
  return opl::Fail(caller, error, OPL_PRIVATE_E_FCHMOD, "%s: fchmod(%d) error :%i,%s\nFile %s", fileMode,
                   error.number(), error.text(), file);
}

Code CloseFailed(Caller caller, const char* file) {
  const NativeError error;
  return opl::Fail(caller, error, OPL_PRIVATE_E_CLOSE, "%s: close error :%i,%s\nFile %s", error.number(),
                   error.text(), file);
}

}  // namespace

namespace opl {

bool FileExists(const char* file) {
  struct stat64 status {};
  return ::lstat64(file, &status) == 0;
}

Code OpenFailed(Caller caller, const char* file) {
  const NativeError error;
  return Fail(caller, error, OPL_PRIVATE_E_OPEN, "%s: open error :%i,%s\nFile %s", error.number(),
              error.text(), file);
}

Code OpenNew(Caller caller, const char* file, uint32_t fileMode, NewIpcFile* object) {
  if (object->Open(file, fileMode) == -1) return OpenFailed(caller, file);
  return SetFileMode(caller, file, fileMode, object->fd());
}

Code OpenNewAs(Caller caller, const char* temporary, uint32_t fileMode, NewIpcFile* object) {
  if (object->OpenAs(temporary, fileMode) == -1) return OpenFailed(caller, temporary);
  return SetFileMode(caller, temporary, fileMode, object->fd());
}

Code WriteId(Caller caller, const char* file, const NewIpcFile& object, int32_t id) {
  const ssize_t count = RetryOnEintr([&] { return ::write(object.fd(), &id, sizeof id); });
  if (count == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_PRIVATE_E_WRITE, "%s: write error :%i,%s\nFile %s", error.number(),
                error.text(), file);
  }
  if (count != sizeof id)
    return Fail(caller, OPL_PRIVATE_E_WRITE, "%s: write error - not enough data written\nFile %s", file);
  return OPL_OK;
}

Code CloseNew(Caller caller, const char* file, NewIpcFile* object) {
  object->SetTimesInFuture();
  if (object->Close() == -1) return CloseFailed(caller, file);
  return OPL_OK;
}

Code OpenObject(Caller caller, const char* file, Code missingCode, const Message<const char*>& missingText,
                IpcFile* object, int32_t* id) {
  if (object->Open(file) == -1)
    return errno == ENOENT ? Fail(caller, missingCode, missingText, file) : OpenFailed(caller, file);
  const ssize_t count = object->ReadId(id);
  if (count == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_PRIVATE_E_READ, "%s: read error :%i,%s\nFile %s", error.number(),
                error.text(), file);
  }
  if (count != sizeof *id)
    return Fail(caller, OPL_PRIVATE_E_READ, "%s: read error - Not enough data read\nFile %s", file);
  return OPL_OK;
}

Code CloseObject(Caller caller, const char* file, IpcFile* object) {
  if (object->Close() == -1) return CloseFailed(caller, file);
  return OPL_OK;
}

}  // namespace opl
