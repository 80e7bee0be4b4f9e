#include "tools/qvopl/OpenFiles.h"

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string_view>

#include "tools/qvopl/FileName.h"
#include "tools/qvopl/ProcLines.h"
#include "tools/qvopl/Processes.h"

namespace qvopl {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)::closedir(directory); }
};

std::string PathOf(pid_t pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

std::string LinkOf(const std::string& path) {
  std::array<char, 4096> text{};
  const ssize_t length = ::readlink(path.c_str(), text.data(), text.size());
  return {text.data(), static_cast<size_t>(length > 0 ? length : 0)};
}

// As links of /proc tell of files that are removed.
std::string_view WithoutMark(std::string_view path) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return path;
}

// The state's letter; 0 for none.
char StateOf(pid_t pid) {
  std::ifstream file(PathOf(pid, "stat"), std::ios::binary);
  const auto line = ParseStat(std::string{std::istreambuf_iterator<char>(file), {}});
  return line.has_value() ? line->state : '\0';
}

// A thread of the kernel has no program, and opens nothing here.
bool IsOfKernel(pid_t pid) {
  std::ifstream file(PathOf(pid, "status"));
  bool hasMemory = false;
  bool isRead = false;
  for (std::string line; std::getline(file, line); isRead = true) hasMemory |= line.starts_with("VmSize:");
  return isRead && !hasMemory;
}

// Of a process that may not be looked at; the owner of its directory is its effective user.
uid_t UserOf(pid_t pid) {
  struct stat status {};
  return ::stat(PathOf(pid, "").c_str(), &status) == 0 ? status.st_uid : static_cast<uid_t>(-1);
}

void AddNamesFrom(const std::string& table, std::set<std::string>* names) {
  std::ifstream file(table);
  for (std::string line; std::getline(file, line);)
    if (const auto socket = ParseSocket(line)) names->emplace(LastComponent(socket->path));
}

}  // namespace

bool IsGone(pid_t pid) {
  if (pid <= 0) return false;
  if (::kill(pid, 0) == -1 && errno == ESRCH) return true;
  const char state = StateOf(pid);
  return state == 'Z' || state == 'X';
}

bool IsGoneSince(pid_t pid, int64_t moment) {
  // The start is known to the second, and the clock may have been set.
  constexpr int64_t kDoubt = 5;
  if (pid <= 0) return false;
  if (IsGone(pid)) return true;
  Processes processes;
  const Process process = processes.Get(pid);
  return process.startedAt != 0 && process.startedAt > moment + kDoubt;
}

OpenFiles::OpenFiles() {
  for (const pid_t pid : Processes::All()) LookAt(pid);
}

void OpenFiles::LookAt(pid_t pid) {
  const std::string path = PathOf(pid, "fd");
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path.c_str()));
  if (directory == nullptr) {
    if (errno == EACCES && !IsOfKernel(pid)) hiddenUsers_.insert(UserOf(pid));
    return;
  }
  while (const dirent* const entry = ::readdir(directory.get())) {
    const std::string descriptor = path + "/" + entry->d_name;
    const std::string target = LinkOf(descriptor);
    if (!target.starts_with('/') || !ParseFileName(LastComponent(WithoutMark(target))).has_value()) continue;
    struct stat status {};
    if (::stat(descriptor.c_str(), &status) == -1) continue;
    Holders& holders = files_[{status.st_dev, status.st_ino}];
    ++holders.descriptors;
    holders.processes.insert(pid);
  }
}

size_t OpenFiles::DescriptorsOf(const struct stat& file) const {
  const auto found = files_.find({file.st_dev, file.st_ino});
  return found != files_.end() ? found->second.descriptors : 0;
}

std::set<pid_t> OpenFiles::ProcessesWith(const struct stat& file) const {
  const auto found = files_.find({file.st_dev, file.st_ino});
  return found != files_.end() ? found->second.processes : std::set<pid_t>();
}

bool OpenFiles::SeesAllOf(uid_t owner, bool isForAllUsers) const {
  if (!isForAllUsers) return !hiddenUsers_.contains(owner);
  return hiddenUsers_.empty() || (hiddenUsers_.size() == 1 && hiddenUsers_.contains(0));
}

std::set<std::string> BoundSocketNames() {
  std::set<std::string> names;
  std::set<std::string> seen{LinkOf("/proc/self/ns/net")};
  AddNamesFrom("/proc/self/net/unix", &names);
  for (const pid_t pid : Processes::All()) {
    const std::string space = LinkOf(PathOf(pid, "ns/net"));
    if (!space.empty() && seen.insert(space).second) AddNamesFrom(PathOf(pid, "net/unix"), &names);
  }
  return names;
}

}  // namespace qvopl
