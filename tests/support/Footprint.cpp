#include "tests/support/Footprint.h"

#include <dirent.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/Instance.h"

namespace opltest {

namespace {

constexpr char kDisowned[] = "QVOPL_TEST_DISOWNED";  // "sem 12,shm 3,"

bool IsDisowned(const std::string& object) {
  const char* const disowned = std::getenv(kDisowned);
  return disowned != nullptr && (',' + std::string(disowned)).find(',' + object + ',') != std::string::npos;
}

void AddFiles(const std::string& directory, std::set<std::string>* items) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
    items->insert("file " + entry.path().string());
}

// The one that the listing itself needs is left out.
void AddDescriptors(std::set<std::string>* items) {
  DIR* const directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) std::abort();
  const std::string own = std::to_string(::dirfd(directory));
  while (const dirent* entry = ::readdir(directory))
    if (entry->d_name[0] != '.' && entry->d_name != own)
      items->insert(std::string("descriptor ") + entry->d_name);
  ::closedir(directory);
}

}  // namespace

std::set<std::string> SystemVObjects() {
  std::set<std::string> objects;
  for (const char* kind : {"sem", "shm", "msg"}) {
    std::ifstream list(std::string("/proc/sysvipc/") + kind);
    std::string line;
    std::getline(list, line);
    std::string key;
    std::string id;
    while (list >> key >> id && std::getline(list, line)) objects.insert(std::string(kind) + " " + id);
  }
  std::erase_if(objects, IsDisowned);
  return objects;
}

void DisownSystemVObjects(const std::set<std::string>& objects) {
  std::string disowned;
  for (const std::string& object : objects) disowned += object + ',';
  (void)::setenv(kDisowned, disowned.c_str(), 1);
}

Footprint Footprint::Now() {
  Footprint footprint{SystemVObjects()};
  if (std::filesystem::exists(IpcDirectory())) AddFiles(IpcDirectory(), &footprint.items);
  AddFiles(WorkDirectory(), &footprint.items);
  AddDescriptors(&footprint.items);
  return footprint;
}

std::ostream& operator<<(std::ostream& out, const Footprint& footprint) {
  for (const std::string& item : footprint.items) out << "\n  " << item;
  return out;
}

}  // namespace opltest
