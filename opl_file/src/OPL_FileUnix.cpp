// Files by name: size, removal, directories, copies, temporary and display names.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_File.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/WriteAll.h"
#include "opl_err/src/Fail.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::Fd;
using opl::NativeError;
using opl::RetryOnEintr;

constexpr size_t kBlockSize = 256;
constexpr size_t kPatternSize = 512;
constexpr mode_t kCopyMode = 0600;  // nobody asked for more
constexpr mode_t kDirectoryMode = 0700;

bool IsEmpty(const char* text) { return text == nullptr || *text == '\0'; }

// A list of names that lives as long as its scope.
class NameList {
 public:
  NameList() = default;
  ~NameList() {
    if (handle_ != nullptr) (void)OPL_FileNameFindEnd(&handle_);
  }
  NameList(const NameList&) = delete;
  NameList& operator=(const NameList&) = delete;

  [[nodiscard]] Code Find(const char* pattern) {
    return OPL_FileNameFind(OPL_FILE_FIND_NEW, &handle_, pattern, &names_, &count_);
  }
  char** begin() const { return names_; }
  char** end() const { return names_ + count_; }

 private:
  OPL_FileNameList* handle_ = nullptr;
  char** names_ = nullptr;
  uint32_t count_ = 0;
};

// "NAME/*", in which the characters of the name stand for themselves. False when it does not fit.
bool BuildContentsPattern(const char* name, char (&pattern)[kPatternSize]) {
  constexpr char kContents[] = "/*";
  size_t length = 0;
  for (; *name != '\0'; ++name) {
    const bool isSpecial = std::strchr("*?[\\", *name) != nullptr;
    if (length + (isSpecial ? 2 : 1) + sizeof kContents > kPatternSize) return false;
    if (isSpecial) pattern[length++] = '\\';
    pattern[length++] = *name;
  }
  std::memcpy(pattern + length, kContents, sizeof kContents);
  return true;
}

// As deep as the directories are, which the length of a pattern bounds.
// NOLINTBEGIN(misc-no-recursion)
Code RemoveDirectory(const char* name) {
  const Caller caller{"OPL_FileRecursiveRm"};
  char pattern[kPatternSize];
  // A cut pattern would match the directory itself, again and again.
  if (!BuildContentsPattern(name, pattern))
    return Fail(caller, OPL_FILE_E_TOO_SMALL, "%s: name too long to list.\nDirectory:%s", name);
  if (const Code rc = OPL_FileRecursiveRm(0, pattern)) return rc;
  if (::rmdir(name) != -1) return OPL_OK;
  const NativeError error;
  return Fail(caller, error, OPL_FILE_E_RMDIR, "%s: rmdir %i (%s).\nDirectory:%s", error.number(),
              error.text(), name);
}

Code RemoveEntry(const char* name) {
  const Caller caller{"OPL_FileRecursiveRm"};
  struct stat64 status {};
  // A link is removed itself: what it stands for may lie anywhere.
  if (::lstat64(name, &status) == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_FILE_E_STAT, "%s: stat %i (%s).", error.number(), error.text());
  }
  if (!S_ISDIR(status.st_mode)) {
    if (::unlink(name) != -1) return OPL_OK;
    const NativeError error;
    return Fail(caller, error, OPL_FILE_E_REMOVE, "%s: unlink %i,%s\nFile %s.", error.number(), error.text(),
                name);
  }
  if (name[std::strlen(name) - 1] == '.') return OPL_OK;
  return RemoveDirectory(name);
}
// NOLINTEND(misc-no-recursion)

Code OpenSource(const char* source, int* fd) {
  *fd = OPL_CrtOpen(source, O_RDONLY | O_CLOEXEC, 0);
  if (*fd != -1) return OPL_OK;
  const NativeError error;
  return Fail(Caller{"OPL_FileCopy"}, error, OPL_FILE_E_OPEN,
              "%s: open error for source file (%s). errno: %i,%s", source, error.number(), error.text());
}

Code OpenTarget(const char* target, uint32_t exclusive, int* fd) {
  *fd = OPL_CrtOpen(target, O_WRONLY | O_CREAT | O_CLOEXEC | (exclusive != 0 ? O_EXCL : 0), kCopyMode);
  if (*fd != -1) return OPL_OK;
  const NativeError error;
  return Fail(Caller{"OPL_FileCopy"}, error, error.number() == EEXIST ? OPL_FILE_E_EXISTS : OPL_FILE_E_OPEN,
              "%s: open error for target file (%s). errno: %i,%s", target, error.number(), error.text());
}

Code CopyBlocks(const char* source, int from, const char* target, int to) {
  const Caller caller{"OPL_FileCopy"};
  Code result = OPL_OK;
  char block[kBlockSize];
  for (;;) {
    const ssize_t count = RetryOnEintr([&] { return ::read(from, block, sizeof block); });
    if (count == 0) return result;
    if (count == -1) {
      const NativeError error;
      return Fail(caller, error, OPL_FILE_E_READ, "%s: read error in the source file (%s). errno: %i,%s",
                  source, error.number(), error.text());
    }
    // Deliberate: a block that cannot be written does not end the copy.
    if (!opl::WriteAll(to, block, static_cast<size_t>(count))) {
      const NativeError error;
      result = Fail(caller, error, OPL_FILE_E_WRITE, "%s: write error in the target file (%s). errno: %i,%s",
                    target, error.number(), error.text());
    }
  }
}

}  // namespace

OPL_Result OPL_FileSizeGet(const char* path, int64_t* pSize) {
  OPL_CrtStatRecord status{};
  if (const int result = OPL_CrtStat(path, &status); result != 0) {
    // Deliberate: the name is spelt so.
    return Fail(Caller{"OPL_FileFileSizeGet"}, NativeError(), OPL_FILE_E_STAT, "%s: OPL_CrtStat error:%d",
                result);
  }
  if (pSize != nullptr) *pSize = status.size;
  return OPL_OK;
}

OPL_Result OPL_FileMkDir(const char* path) {
  if (::mkdir(path, kDirectoryMode) != -1 || errno == EEXIST) return OPL_OK;
  const NativeError error;
  return Fail(Caller{"OPL_FileMkDir(const char *)"}, error, OPL_FILE_E_MKDIR, "%s: mkdir error: %d",
              error.number());
}

// NOLINTNEXTLINE(misc-no-recursion)
OPL_Result OPL_FileRecursiveRm(uint32_t /*reserved*/, const char* pattern) {
  NameList list;
  if (const Code rc = list.Find(pattern)) {
    if (rc == OPL_FILE_E_NO_MATCH) return OPL_OK;
    return Fail(rc, "%s: No files found for %s.", pattern);
  }
  for (const char* name : list)
    if (const Code rc = RemoveEntry(name)) return rc;
  return OPL_OK;
}

OPL_Result OPL_FileTempNameCreate(const char* directory, const char* prefix, char** pName) {
  char* const name = ::tempnam(directory, prefix);
  if (name == nullptr) {
    return Fail(NativeError(), OPL_FILE_E_TEMP_NAME, "%s: tempnam(%s,%s)",
                directory != nullptr ? directory : "NULL", prefix != nullptr ? prefix : "NULL");
  }
  if (pName != nullptr)
    *pName = name;
  else
    (void)OPL_FileTempNameDestroy(name);
  return OPL_OK;
}

OPL_Result OPL_FileTempNameDestroy(char* name) {
  std::free(name);
  return OPL_OK;
}

OPL_Result OPL_FileRm(uint32_t /*reserved*/, const char* path) {
  if (::unlink(path) != -1) return OPL_OK;
  const NativeError error;
  return Fail(error, OPL_FILE_E_REMOVE, "%s: unlink failed %d, %s\nFile %s", error.number(), error.text(),
              path);
}

OPL_Result OPL_FileCopy(uint32_t /*reserved*/, const char* source, const char* target, uint32_t exclusive) {
  if (IsEmpty(source)) return Fail(OPL_FILE_E_NULL_ARGUMENT, "%s: empty source filename");
  if (IsEmpty(target)) return Fail(OPL_FILE_E_NULL_ARGUMENT, "%s: empty target filename");
  if (std::strcmp(source, target) == 0) return OPL_OK;

  int fd = -1;
  if (const Code rc = OpenSource(source, &fd)) return rc;
  const Fd from(fd);
  if (const Code rc = OpenTarget(target, exclusive, &fd)) return rc;
  const Fd to(fd);
  return CopyBlocks(source, from.Get(), target, to.Get());
}

OPL_Result OPL_FileFormatFilenameForDisplay(uint32_t mode, const char* path, char* display, uint32_t size) {
  // Deliberate: all three are looked at, and the last that is wrong is reported.
  Code result = OPL_OK;
  if (mode != 0) result = Fail(OPL_FILE_E_INVALID_MODE, "%s: Invalid mode");
  if (display == nullptr) result = Fail(OPL_FILE_E_NULL_ARGUMENT, "%s: FileNameForDisplay is NULL");
  if (path == nullptr) result = Fail(OPL_FILE_E_NULL_ARGUMENT, "%s: FileName is NULL");
  if (result != OPL_OK) return result;

  if (std::strlen(path) + 1 > size)
    return Fail(OPL_FILE_E_TOO_SMALL, "%s: Not enough space in buffer to format '%s'", path);
  if (OPL_CrtStat(path, nullptr) != 0) return Fail(OPL_FILE_E_NOT_FOUND, "%s: File '%s' not found", path);
  opl::CopyText(display, size, path);
  return OPL_OK;
}
