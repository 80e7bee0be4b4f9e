// Any text for the listing of a server's processes: each line that is not blank becomes an entry with
// terminated texts, and the filter keeps exactly those whose chain of parents ends at the spawner.
//
// The functions are not exported: their file is a part of this program.
#include "opl_server/src/ServerListing.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/Input.h"

namespace {

using opl::ProcessList;
using oplfuzz::Check;

struct Process {
  uint32_t id;
  uint32_t parent;
  bool operator==(const Process&) const = default;
};

std::vector<Process> ProcessesOf(const ProcessList& list) {
  std::vector<Process> processes;
  for (uint32_t i = 0; i < list.Count(); ++i) processes.push_back({list[i].processId, list[i].parentId});
  return processes;
}

size_t LinesThatAreNotBlank(std::string_view text) {
  size_t count = 0;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line.find_first_not_of(' ') != std::string_view::npos) ++count;
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return count;
}

template <size_t kSize>
void CheckText(const char (&text)[kSize]) {
  const void* const end = std::memchr(text, '\0', kSize);
  Check(end != nullptr);
  Check(std::strchr(text, ' ') == nullptr && std::strchr(text, '\n') == nullptr);
}

void CheckEntry(const OPL_ServerInfo& entry) {
  CheckText(entry.startTime);
  CheckText(entry.cpuTime);
  Check(std::strcmp(entry.userName, "user") == 0);
  Check(std::strcmp(entry.serviceName, "service") == 0);
}

// By going from parent to parent, for each process anew.
bool IsRelated(const std::vector<Process>& processes, Process process, uint32_t spawner) {
  std::set<uint32_t> seen;
  while (process.parent != spawner) {
    if (!seen.insert(process.parent).second) return false;
    const auto parent = std::find_if(processes.begin(), processes.end(),
                                     [&](const Process& other) { return other.id == process.parent; });
    if (parent == processes.end()) return false;
    process = *parent;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  const uint32_t spawner = input.Below(256);
  std::string text;
  while (!input.IsEmpty()) text += static_cast<char>(input.Byte());

  OPL_Server server{};
  std::strcpy(server.processName, "service");
  ProcessList list;
  Check(list.Open() == OPL_OK);
  Check(opl::ParseListing(server, "user", text.data(), text.size(), &list) == OPL_OK);
  Check(list.Count() == LinesThatAreNotBlank(text));
  for (uint32_t i = 0; i < list.Count(); ++i) CheckEntry(list[i]);

  const std::vector<Process> all = ProcessesOf(list);
  std::vector<Process> related;
  for (const Process& process : all)
    if (IsRelated(all, process, spawner)) related.push_back(process);
  Check(opl::RemoveUnRelatedProcess(spawner, &list) == OPL_OK);
  Check(ProcessesOf(list) == related);
  return 0;
}
