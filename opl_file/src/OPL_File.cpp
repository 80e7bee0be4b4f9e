// Names: canonical ones, existing ones, those on the search path, and those that match a pattern.
#include <glob.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_File.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "opl_base/src/CancellationHold.h"
#include "opl_base/src/FixedText.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_thread/src/ForkGeneration.h"

struct OPL_FileNameList {
  glob64_t matches;
};

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;
using opl::Owned;

constexpr size_t kPathPieceLongest = 512;

// Serialises the system's pattern matcher and its release.
OPL_SyncCriticalSection gFileSection{};

class FileSection {
 public:
  FileSection() = default;
  ~FileSection() {
    if (taken_) (void)OPL_SyncCriticalSectionLeave(&gFileSection);
  }
  FileSection(const FileSection&) = delete;
  FileSection& operator=(const FileSection&) = delete;

  [[nodiscard]] Code Take() {
    const Code rc = OPL_SyncCriticalSectionEnter(&gFileSection);
    taken_ = rc == OPL_OK;
    return rc;
  }
  Code Release() {
    taken_ = false;
    return OPL_SyncCriticalSectionLeave(&gFileSection);
  }

 private:
  const opl::CancellationHold noCancellation_;
  bool taken_ = false;
};

// Around a fork: a child must not inherit the section from another thread, which it has not got.
void LockForFork() { (void)::pthread_mutex_lock(&gFileSection.mutex); }

void UnlockAfterFork() { (void)::pthread_mutex_unlock(&gFileSection.mutex); }

Code HoldSectionOverForks() {
  static std::atomic<bool> isRegistered{false};
  if (isRegistered.exchange(true)) return OPL_OK;
  const Code rc = OPL_ProcessAtFork(LockForFork, UnlockAfterFork, UnlockAfterFork);
  if (rc != OPL_OK) isRegistered = false;
  return rc;
}

bool IsSlash(char character) { return character == '/' || character == '\\'; }

bool EndsInSlash(const char* text) { return *text != '\0' && IsSlash(text[std::strlen(text) - 1]); }

Owned<char> CopyOf(const char* text, const opl::Place& place = opl::Place::Here()) {
  return Owned<char>(OPL_MemStrdup(nullptr, text, 0, place.caller, place.file, opl::kNoRevision, place.line),
                     opl::Freer{place});
}

bool Exists(const char* path) {
  uint32_t exists = 0;
  return OPL_FileExists(path, &exists) == OPL_OK && exists != 0;
}

Code NoMemory(const char* function) {
  const NativeError error;
  return Fail(Caller{function}, error, OPL_FILE_E_NO_MEMORY, "%s: strdup error :%i,%s", error.number(),
              error.text());
}

// Tests whether one element of PATH has the program.
Code TryElement(const char* element, size_t length, bool isFirst, const char* name, bool* found) {
  if (length > kPathPieceLongest) {
    if (isFirst) return Fail(OPL_FILE_E_TOO_SMALL, "OPL_FileExecutablePathFind: buffer too small(1)");
    return Fail(OPL_FILE_E_TOO_SMALL, "OPL_FileExecutablePathFind: buffer too small(4)");
  }
  if (length + std::strlen(name) + 1 > kPathPieceLongest)
    return Fail(OPL_FILE_E_TOO_SMALL, "OPL_FileExecutablePathFind: buffer too small(2)");
  char candidate[kPathPieceLongest + 1];
  const bool hasSlash = length != 0 && IsSlash(element[length - 1]);
  if (length == 0)
    (void)OPL_CrtSNPrintf(candidate, sizeof candidate, "./%s", name);
  else
    (void)OPL_CrtSNPrintf(candidate, sizeof candidate, hasSlash ? "%.*s%s" : "%.*s/%s",
                          static_cast<int32_t>(length), element, name);
  *found = Exists(candidate);
  return OPL_OK;
}

// Leaves the directory's text, not yet canonical, in *directory; null when no element has the program.
Code SearchPath(const char* name, Owned<char>* directory) {
  const char* const value = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe)
  Owned<char> path = CopyOf(value != nullptr ? value : "");
  if (path == nullptr) return NoMemory("OPL_FileExecutablePathFind");
  char* element = path.get();
  for (bool isFirst = true;; isFirst = false) {
    const size_t length = std::strcspn(element, ":");
    bool found = false;
    if (const Code rc = TryElement(element, length, isFirst, name, &found)) return rc;
    const bool isLast = element[length] == '\0' || length == 0;
    element[length] = '\0';
    if (found) {
      *directory = CopyOf(length != 0 ? element : ".");
      if (*directory == nullptr) return NoMemory("OPL_FileExecutablePathFind");
      return OPL_OK;
    }
    if (isLast) return OPL_OK;
    element += length + 1;
  }
}

// The part of a name before its last slash.
Code CutDirectory(const char* name, const char* slash, Owned<char>* directory) {
  if (slash == name) return OPL_OK;
  *directory = CopyOf(name);
  if (*directory == nullptr) return NoMemory("OPL_FileExecutablePathFind");
  directory->get()[slash - name] = '\0';
  return OPL_OK;
}

Code NoPathFound(char* buffer, uint32_t size) {
  if (size != 0) buffer[0] = '\0';
  return Fail(OPL_FILE_E_NOT_FOUND, "OPL_FileExecutablePathFind: no valid path found");
}

Code CodeOfGlob(int result) {
  const Caller caller{"OPL_FileNameFind"};
  switch (result) {
    case 0:
      return OPL_OK;
    case GLOB_NOMATCH:
      return Fail(caller, OPL_FILE_E_NO_MATCH, "%s: not match found.");
    default:
      return Fail(caller, OPL_FILE_E_GLOB, "%s: glob error %i.", result);
  }
}

}  // namespace

OPL_Result OPL_FileInit() {
  // A section that is in use, as when an administrator's clean-up comes to a begun library, stays as it is.
  if (const Code rc = OPL_SyncCriticalSectionInit(&gFileSection)) return rc;
  return HoldSectionOverForks();
}

OPL_Result OPL_FileEnd() {
  {
    // Waits for a thread that is still matching a pattern. A forked child has no such thread.
    FileSection section;
    if (opl::OwnsState()) (void)section.Take();
  }
  const Code rc = OPL_SyncCriticalSectionUnInit(&gFileSection);
  gFileSection = {};
  return rc;
}

OPL_Result OPL_FileCanonicalNameGet(const char* path, char* buffer, uint32_t size) {
  if (path == nullptr || buffer == nullptr)
    return Fail(OPL_FILE_E_NULL_ARGUMENT, "%s: Path or buffer is NULL");
  if (::realpath(path, buffer) == nullptr) {
    const NativeError error;
    return Fail(error, OPL_FILE_E_CANONICAL, "%s: realpath error :%i,%s\nFile %s", error.number(),
                error.text(), path);
  }
  if (!EndsInSlash(path) || EndsInSlash(buffer)) return OPL_OK;
  const size_t length = std::strlen(buffer);
  if (length + 2 > size) return Fail(OPL_FILE_E_TOO_SMALL, "%s: buffer too small\nFile %s", path);
  buffer[length] = '/';
  buffer[length + 1] = '\0';
  return OPL_OK;
}

OPL_Result OPL_FileExists(const char* path, uint32_t* pExists) {
  if (path == nullptr || *path == '\0') return Fail(OPL_FILE_E_NO_PATH, "%s: Path is NULL or empty");
  Owned<char> copy(nullptr, opl::Freer{opl::Place::Here()});
  if (EndsInSlash(path)) {
    copy = CopyOf(path);
    if (copy == nullptr) return NoMemory("OPL_FileExists");
    for (size_t length = std::strlen(path); length > 1 && IsSlash(copy.get()[length - 1]); --length)
      copy.get()[length - 1] = '\0';
    path = copy.get();
  }
  // Deliberate: a file that may not be looked at counts as missing, not as a failure.
  const bool exists = OPL_CrtStat(path, nullptr) == 0;
  if (pExists != nullptr) *pExists = exists ? 1 : 0;
  return OPL_OK;
}

OPL_Result OPL_FileExecutablePathFind(const char* name, char* buffer, uint32_t size) {
  if (name == nullptr || buffer == nullptr)
    return Fail(OPL_FILE_E_NULL_ARGUMENT, "%s: Name or buffer is NULL");
  Owned<char> directory(nullptr, opl::Freer{opl::Place::Here()});
  const char* const slash = std::strrchr(name, '/');
  if (const Code rc = slash != nullptr ? CutDirectory(name, slash, &directory) : SearchPath(name, &directory))
    return rc;
  if (directory == nullptr) return NoPathFound(buffer, size);
  if (OPL_FileCanonicalNameGet(directory.get(), buffer, size) != OPL_OK) return NoPathFound(buffer, size);
  return OPL_OK;
}

OPL_Result OPL_FileNameFind(uint32_t mode, OPL_FileNameList** ppHandle, const char* pattern, char*** pNames,
                            uint32_t* pCount) {
  const bool appends = mode == OPL_FILE_FIND_APPEND;
  if (pCount == nullptr) return Fail(OPL_FILE_E_NULL_ARGUMENT, "pCount is NULL");
  if (ppHandle == nullptr || (appends && *ppHandle == nullptr))
    return Fail(OPL_FILE_E_NULL_ARGUMENT, "ppHandle is NULL");
  if (pattern == nullptr) return Fail(OPL_FILE_E_NULL_ARGUMENT, "pattern is NULL");

  Owned<OPL_FileNameList> made(nullptr, opl::Freer{opl::Place::Here()});
  if (!appends) {
    *pCount = 0;
    *ppHandle = nullptr;
    made = opl::Allocate<OPL_FileNameList>();
    if (made == nullptr) return Fail(NativeError(), OPL_FILE_E_NO_MEMORY, "%s: malloc error.");
  }
  OPL_FileNameList* const list = appends ? *ppHandle : made.get();

  FileSection section;
  if (const Code rc = section.Take()) return rc;
  const int flags = GLOB_ERR | (appends ? GLOB_APPEND : 0);
  const int result = ::glob64(pattern, flags, nullptr, &list->matches);  // NOLINT(concurrency-mt-unsafe)
  if (const Code rc = CodeOfGlob(result)) {
    if (!appends) ::globfree64(&list->matches);
    return rc;
  }
  if (!appends) *ppHandle = made.release();
  if (pNames != nullptr) *pNames = list->matches.gl_pathv;
  *pCount = static_cast<uint32_t>(list->matches.gl_pathc);
  return OPL_OK;
}

OPL_Result OPL_FileNameFindEnd(OPL_FileNameList** ppHandle) {
  const bool isNull = ppHandle == nullptr || *ppHandle == nullptr;
  // Deliberate: a null handle is recorded, but it is no failure.
  if (isNull) (void)Fail(OPL_FILE_E_NULL_ARGUMENT, "ppHandle is NULL");
  FileSection section;
  if (const Code rc = section.Take()) return rc;
  if (!isNull) {
    ::globfree64(&(*ppHandle)->matches);
    opl::Free(*ppHandle);
    *ppHandle = nullptr;
  }
  return section.Release();
}
