#include "tools/qvopl/Tables.h"

#include <sys/stat.h>

#include <fstream>

#include "tools/qvopl/ProcLines.h"

namespace qvopl {

namespace {

bool IsDirectory(const std::string& path, int directory) {
  struct stat named {};
  struct stat open {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(directory, &open) == 0 && named.st_dev == open.st_dev &&
         named.st_ino == open.st_ino;
}

}  // namespace

FileLock FileLocks::On(ino_t inode) {
  if (!isRead_) {
    isRead_ = true;
    std::ifstream file("/proc/locks");
    for (std::string line; std::getline(file, line);) {
      const auto read = ParseLock(line);
      if (!read.has_value()) continue;
      FileLock& lock = locks_[read->inode];
      if (read->isWaiting)
        ++lock.waiting;
      else
        lock.holder = read->process > 0 ? read->process : -1;
    }
  }
  const auto found = locks_.find(inode);
  return found != locks_.end() ? found->second : FileLock();
}

std::vector<BoundSocket> BoundSockets::At(int directory, const std::string& file) {
  std::ifstream table(isRead_ ? "/dev/null" : "/proc/net/unix");
  isRead_ = true;
  for (std::string line; std::getline(table, line);)
    if (const auto socket = ParseSocket(line))
      byName_.emplace(LastComponent(socket->path),
                      BoundSocket{socket->path, socket->number, socket->isListening});
  std::vector<BoundSocket> found;
  const auto [first, last] = byName_.equal_range(file);
  for (auto at = first; at != last; ++at) {
    const std::string& path = at->second.path;
    if (!path.starts_with('/') || IsDirectory(path.substr(0, path.rfind('/') + 1), directory))
      found.push_back(at->second);
  }
  return found;
}

}  // namespace qvopl
