#include "tools/qvopl/Tables.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace qvopl {

namespace {

constexpr unsigned long kAcceptsConnections = 0x10000;

bool IsDirectory(const std::string& path, int directory) {
  struct stat named {};
  struct stat open {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(directory, &open) == 0 && named.st_dev == open.st_dev &&
         named.st_ino == open.st_ino;
}

// "NUMBER: [->] POSIX ADVISORY WRITE PROCESS MAJOR:MINOR:INODE START END"; the arrow is a waiter's.
void ReadLock(const std::string& line, std::map<uint64_t, FileLock>* locks) {
  std::istringstream words(line);
  std::string number;
  std::string kind;
  words >> number >> kind;
  const bool isWaiting = kind == "->";
  if (isWaiting) words >> kind;
  std::string advisory;
  std::string access;
  pid_t process = 0;
  std::string file;
  words >> advisory >> access >> process >> file;
  const size_t colon = file.rfind(':');
  if (words.fail() || kind != "POSIX" || colon == std::string::npos) return;
  FileLock& lock = (*locks)[std::stoull(file.substr(colon + 1))];
  if (isWaiting)
    ++lock.waiting;
  else
    lock.holder = process > 0 ? process : -1;
}

}  // namespace

FileLock FileLocks::On(ino_t inode) {
  if (!isRead_) {
    isRead_ = true;
    std::ifstream file("/proc/locks");
    for (std::string line; std::getline(file, line);) ReadLock(line, &locks_);
  }
  const auto found = locks_.find(inode);
  return found != locks_.end() ? found->second : FileLock();
}

// "Num RefCount Protocol Flags Type St Inode Path".
std::vector<BoundSocket> BoundSockets::At(int directory, const std::string& file) {
  std::string line;
  std::ifstream table(isRead_ ? "/dev/null" : "/proc/net/unix");
  isRead_ = true;
  (void)std::getline(table, line);
  while (std::getline(table, line)) {
    std::istringstream words(line);
    std::string word;
    unsigned long flags = 0;
    BoundSocket socket;
    words >> word >> word >> word >> std::hex >> flags >> std::dec >> word >> word >> socket.number >>
        std::ws;
    if (words.fail() || !std::getline(words, socket.path) || socket.path.empty()) continue;
    socket.isListening = (flags & kAcceptsConnections) != 0;
    byName_.emplace(socket.path.substr(socket.path.rfind('/') + 1), socket);
  }
  std::vector<BoundSocket> found;
  const auto [first, last] = byName_.equal_range(file);
  for (auto at = first; at != last; ++at) {
    const size_t slash = at->second.path.rfind('/');
    if (slash == std::string::npos || IsDirectory(at->second.path.substr(0, slash + 1), directory))
      found.push_back(at->second);
  }
  return found;
}

}  // namespace qvopl
