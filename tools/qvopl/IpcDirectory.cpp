#include "tools/qvopl/IpcDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "opl_base/src/Retry.h"
#include "tools/qvopl/Settings.h"

namespace qvopl {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kFileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

constexpr const char* kReadingTexts[] = {"read",
                                         "gone",
                                         "not a regular file",
                                         "shorter than an id",
                                         "no permission to read it",
                                         "not read: it is another user's, and its access time would change"};

// Owners and the superuser may read without changing the access time.
int OpenQuietly(int directory, const char* name, int flags) {
  const int fd = ::openat(directory, name, flags | O_NOATIME);
  return fd == -1 && errno == EPERM ? ::openat(directory, name, flags) : fd;
}

bool IsSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT);
}

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)::closedir(directory); }
};

}  // namespace

const char* TextOf(Reading reading) { return kReadingTexts[static_cast<size_t>(reading)]; }

IpcDirectory::IpcDirectory(const std::string& path)
    : path_(path), fd_(OpenQuietly(AT_FDCWD, path.c_str(), kDirectoryFlags)) {
  if (!fd_.IsOpen()) throw CouldNotLook(SystemError("the IPC directory " + path, errno));
  struct statvfs system {};
  keepsAccessTimes_ = ::fstatvfs(fd_.Get(), &system) == 0 && (system.f_flag & (ST_NOATIME | ST_RDONLY)) != 0;
}

std::vector<Entry> IpcDirectory::Entries() const {
  std::vector<Entry> entries;
  const int own = OpenQuietly(fd_.Get(), ".", kDirectoryFlags);
  const std::unique_ptr<DIR, CloseDirectory> directory(own != -1 ? ::fdopendir(own) : nullptr);
  if (directory == nullptr) throw CouldNotLook(SystemError("the IPC directory " + path_, errno));
  errno = 0;
  while (const dirent* const found = ::readdir(directory.get())) {
    auto name = ParseFileName(found->d_name);
    if (name.has_value())
      if (const auto status = StatusOf(found->d_name))
        entries.push_back({found->d_name, std::move(*name), *status});
    errno = 0;
  }
  if (errno != 0) throw CouldNotLook(SystemError("the IPC directory " + path_, errno));
  return entries;
}

std::optional<struct stat> IpcDirectory::StatusOf(const std::string& file) const {
  struct stat status {};
  if (::fstatat(fd_.Get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == -1) return std::nullopt;
  return status;
}

opl::Fd IpcDirectory::OpenFile(const Entry& entry, Reading* reading) const {
  if (!S_ISREG(entry.status.st_mode)) {
    *reading = Reading::kNoFile;
    return opl::Fd();
  }
  int number = ::openat(fd_.Get(), entry.file.c_str(), kFileFlags | O_NOATIME);
  if (number == -1 && errno == EPERM) {
    if (!keepsAccessTimes_) {
      *reading = Reading::kWouldTouch;
      return opl::Fd();
    }
    number = ::openat(fd_.Get(), entry.file.c_str(), kFileFlags);
  }
  opl::Fd file(number);
  struct stat status {};
  if (!file.IsOpen())
    *reading = errno == EACCES ? Reading::kRefused : errno == ELOOP ? Reading::kNoFile : Reading::kGone;
  else if (::fstat(file.Get(), &status) == -1 || !IsSame(status, entry.status))
    *reading = Reading::kGone;
  else
    *reading = Reading::kDone;
  if (*reading != Reading::kDone) file.Close();
  return file;
}

opl::Fd IpcDirectory::OpenFifo(const Entry& entry, Reading* reading) const {
  const auto status = StatusOf(entry.file);
  if (!status.has_value() || !IsSame(*status, entry.status)) {
    *reading = Reading::kGone;
    return opl::Fd();
  }
  if (!S_ISFIFO(status->st_mode)) {
    *reading = Reading::kNoFile;
    return opl::Fd();
  }
  opl::Fd file(::openat(fd_.Get(), entry.file.c_str(), kFileFlags));
  struct stat open {};
  if (!file.IsOpen())
    *reading = errno == EACCES ? Reading::kRefused : Reading::kGone;
  else
    *reading =
        ::fstat(file.Get(), &open) == 0 && IsSame(open, entry.status) ? Reading::kDone : Reading::kGone;
  if (*reading != Reading::kDone) file.Close();
  return file;
}

Word IpcDirectory::ReadWord(const Entry& entry) const {
  Word word;
  const opl::Fd file = OpenFile(entry, &word.reading);
  if (!file.IsOpen()) return word;
  const ssize_t size = opl::RetryOnEintr([&] { return ::read(file.Get(), &word.value, sizeof word.value); });
  word.reading = size == sizeof word.value ? Reading::kDone
                 : size == -1              ? Reading::kRefused
                                           : Reading::kShort;
  return word;
}

}  // namespace qvopl
