#include "tools/qvopl/Processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "opl_base/src/Fd.h"
#include "opl_private/src/ObjectLayout.h"
#include "tools/qvopl/ProcLines.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)::closedir(directory); }
};

std::string PathOf(pid_t pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

// The names in a directory that are numbers.
std::vector<int> NumbersIn(const std::string& path) {
  std::vector<int> numbers;
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path.c_str()));
  while (const dirent* const entry = directory != nullptr ? ::readdir(directory.get()) : nullptr) {
    int number = 0;
    const char* const end = entry->d_name + std::strlen(entry->d_name);
    const auto [at, error] = std::from_chars(entry->d_name, end, number);
    if (error == std::errc{} && at == end) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

int64_t BootTime() {
  std::ifstream file("/proc/stat");
  std::string word;
  while (file >> word) {
    int64_t time = 0;
    if (word == "btime" && file >> time) return time;
  }
  return 0;
}

Process ReadProcess(pid_t pid) {
  std::ifstream file(PathOf(pid, "stat"), std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  auto line = ParseStat(contents.str());
  if (!line.has_value()) return {};
  static const int64_t kBootTime = BootTime();
  Process process{line->state != 'Z' && line->state != 'X', std::move(line->name), 0};
  if (line->startTicks.has_value() && kBootTime != 0)
    process.startedAt = kBootTime + static_cast<int64_t>(*line->startTicks) / ::sysconf(_SC_CLK_TCK);
  return process;
}

// What a link of /proc stands for.
std::string TargetOf(const std::string& link) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
  return {target.data(), static_cast<size_t>(std::max(length, ssize_t{0}))};
}

}  // namespace

std::optional<uint32_t> HandlesIn(const Attachment& attachment) {
  const opl::Fd memory(::open(PathOf(attachment.pid, "mem").c_str(), O_RDONLY | O_CLOEXEC));
  uint32_t count = 0;
  const auto at = static_cast<off_t>(attachment.address + offsetof(opl::SegmentHeader, useCount));
  if (!memory.IsOpen() || ::pread(memory.Get(), &count, sizeof count, at) != sizeof count)
    return std::nullopt;
  return count;
}

std::string IpcNamespaceOf(pid_t pid) { return TargetOf(PathOf(pid, "ns/ipc")); }

const Process& Processes::Get(pid_t pid) {
  const auto known = known_.find(pid);
  return known != known_.end() ? known->second : known_.emplace(pid, ReadProcess(pid)).first->second;
}

// The clock that processes' times count from is read in whole seconds.
bool Processes::IsSince(pid_t pid, int64_t time) {
  const Process& process = Get(pid);
  return process.isAlive && process.startedAt <= time + 1;
}

std::string Processes::Describe(pid_t pid) {
  if (pid <= 0) return "a process of another container";
  const Process& process = Get(pid);
  const std::string number = "process " + std::to_string(pid);
  if (!process.isAlive) return number + ", which is gone";
  return number + " (" + Printable(process.name) + ")";
}

std::vector<pid_t> Processes::All() { return NumbersIn("/proc"); }

// A segment's id is in another namespace another segment's.
void Processes::ReadMapsOf(pid_t pid) {
  std::ifstream maps(PathOf(pid, "maps"));
  std::string line;
  bool hasLibrary = false;
  const bool hasSameObjects = IpcNamespaceOf(pid) == namespace_;
  while (std::getline(maps, line)) {
    hasLibrary |= line.find("/libqvopl.so") != std::string::npos;
    if (!hasSameObjects || line.find("/SYSV") == std::string::npos) continue;
    if (const auto segment = ParseSegment(line)) attachments_[segment->id].push_back({pid, segment->address});
  }
  if (hasLibrary) libraryUsers_.push_back(pid);
}

void Processes::ReadMaps() {
  if (hasMaps_) return;
  hasMaps_ = true;
  for (const pid_t pid : All()) ReadMapsOf(pid);
}

const std::map<int32_t, std::vector<Attachment>>& Processes::Attachments() {
  ReadMaps();
  return attachments_;
}

const std::vector<pid_t>& Processes::LibraryUsers() {
  ReadMaps();
  return libraryUsers_;
}

void Processes::ReadDescriptors() {
  if (hasDescriptors_) return;
  hasDescriptors_ = true;
  for (const pid_t pid : All()) {
    const std::string directory = PathOf(pid, "fd/");
    for (const int number : NumbersIn(directory)) {
      const std::string link = directory + std::to_string(number);
      const std::string target = TargetOf(link);
      descriptors_.emplace(LastComponent(target), Descriptor{pid, link});
    }
  }
}

// Only what has the name is looked at: a look at a file of a server that is away would wait for it. Whoever
// made the file has it open under its temporary name, which begins with its own.
std::vector<pid_t> Processes::OpenersOf(const struct stat& file, const std::string& name) {
  ReadDescriptors();
  std::set<pid_t> openers;
  for (auto at = descriptors_.lower_bound(name); at != descriptors_.end() && at->first.starts_with(name);
       ++at) {
    struct stat status {};
    if (::stat(at->second.link.c_str(), &status) == 0 && status.st_dev == file.st_dev &&
        status.st_ino == file.st_ino)
      openers.insert(at->second.pid);
  }
  return {openers.begin(), openers.end()};
}

std::vector<pid_t> Processes::OpenersOfSocket(uint64_t number) {
  ReadDescriptors();
  std::set<pid_t> openers;
  const auto [first, last] = descriptors_.equal_range("socket:[" + std::to_string(number) + "]");
  for (auto at = first; at != last; ++at) openers.insert(at->second.pid);
  return {openers.begin(), openers.end()};
}

}  // namespace qvopl
