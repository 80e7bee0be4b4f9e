// How the files of an instance's objects are found, for their removal.
#ifndef OPL_FILE_IPC_FILES_H
#define OPL_FILE_IPC_FILES_H

#include <sys/stat.h>

#include <cstring>

#include "OPL_Crt.h"
#include "OPL_File.h"
#include "OPL_Init.h"
#include "opl_err/src/Fail.h"
#include "opl_private/src/IpcFile.h"

namespace opl {

// Whether a path's last component holds the marker, the instance string and the build version.
inline bool IsOwnFile(const char* path, const char* marker) {
  const char* const slash = std::strrchr(path, '/');
  const char* const name = slash != nullptr ? slash + 1 : path;
  return std::strstr(name, marker) != nullptr && std::strstr(name, OPL_InitInstanceStringGet()) != nullptr &&
         std::strstr(name, OPL_InitBuildVersionStringGet(0)) != nullptr;
}

// Removes a file of the IPC directory. One that is gone all the same was removed by its owner, who was
// quicker.
inline Code RemoveIpcFile(const char* path) {
  const Code rc = OPL_FileRm(0, path);
  struct stat64 status {};
  return rc != OPL_OK && ::lstat64(path, &status) == -1 ? static_cast<Code>(OPL_OK) : rc;
}

// Calls action for every file of the IPC directory that matches the pattern and whose name holds the marker,
// the instance string and the build version. All are gone through; the first failure is returned. No file is
// success.
template <typename Action>
Code ForEachIpcFile(const char* pattern, const char* marker, Action action) {
  char path[kIpcNameSize];
  (void)OPL_InitIPCPathGet(0, path, sizeof path);
  const size_t length = std::strlen(path);
  (void)OPL_CrtSNPrintf(path + length, static_cast<uint32_t>(sizeof path - length), "/%s", pattern);

  OPL_FileNameList* list = nullptr;
  char** names = nullptr;
  uint32_t count = 0;
  if (const Code rc = OPL_FileNameFind(OPL_FILE_FIND_NEW, &list, path, &names, &count))
    return Translate(rc, OPL_FILE_E_NO_MATCH, OPL_OK);
  Code first = OPL_OK;
  for (uint32_t i = 0; i < count; ++i) {
    if (!IsOwnFile(names[i], marker)) continue;
    const Code rc = action(names[i]);
    if (first == OPL_OK) first = rc;
  }
  (void)OPL_FileNameFindEnd(&list);
  return first;
}

}  // namespace opl

#endif
