#include "opl_server/src/ServerListing.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "OPL_Mem.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/HashPlaces.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::ProcessList;

constexpr Caller kLister{"OPL_ServerInfoGet"};
constexpr uint32_t kRoomStep = 1000;

// string_view's own functions that check a position would need the C++ runtime in some builds.
template <size_t kSize>
void StoreText(char (&to)[kSize], std::string_view field) {
  const size_t length = std::min(field.size(), kSize - 1);
  std::memcpy(to, field.data(), length);
  to[length] = '\0';
}

// What follows the digits is not looked at.
uint32_t NumberOf(std::string_view field) {
  char digits[26];
  StoreText(digits, field);
  return opl::ProcessIdOf(digits);
}

// Takes the first field off a line; empty at its end.
std::string_view NextField(std::string_view* line) {
  line->remove_prefix(std::min(line->find_first_not_of(' '), line->size()));
  const std::string_view field(line->data(), std::min(line->find(' '), line->size()));
  line->remove_prefix(field.size());
  return field;
}

// "PID PPID START CPU ...": what is missing stays empty, what is too long is cut.
Code ParseLine(const OPL_Server& server, const char* userName, std::string_view line,
               OPL_ServerInfo* record) {
  if (line.find_first_not_of(' ') == std::string_view::npos)
    return Fail(OPL_SERVER_E_BAD_LINE, "%s: invalid ps output format.");
  opl::CopyText(record->userName, userName);
  opl::CopyText(record->serviceName, server.processName);
  record->processId = NumberOf(NextField(&line));
  record->parentId = NumberOf(NextField(&line));
  StoreText(record->startTime, NextField(&line));
  StoreText(record->cpuTime, NextField(&line));
  return OPL_OK;
}

// Finds entries by their process id.
class PidIndex {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  // Of a list that is not empty.
  explicit PidIndex(const ProcessList& list) : list_(list), bits_(opl::HashBitsFor(list.Count())) {}
  ~PidIndex() { opl::Free(places_); }
  PidIndex(const PidIndex&) = delete;
  PidIndex& operator=(const PidIndex&) = delete;

  [[nodiscard]] bool Fill() {
    const uint32_t count = 1U << bits_;
    places_ = opl::AllocateArray<uint32_t>(count);
    if (places_ == nullptr) return false;
    std::fill_n(places_, count, kNone);
    for (uint32_t i = 0; i < list_.Count(); ++i) {
      uint32_t& place = PlaceOf(list_[i].processId);
      if (place == kNone) place = i;
    }
    return true;
  }

  // The first entry of a process, or kNone.
  uint32_t Find(uint32_t processId) const { return PlaceOf(processId); }

 private:
  uint32_t& PlaceOf(uint32_t processId) const {
    return opl::FindPlace(places_, bits_, kNone, processId,
                          [&](uint32_t entry) { return list_[entry].processId == processId; });
  }

  const ProcessList& list_;
  const uint32_t bits_;
  uint32_t* places_ = nullptr;
};

// What is known of an entry while the chains of parents are followed. The last two are final.
enum Relation : uint8_t { kUnknown, kOnThisWay, kRelated, kUnrelated };

class Relations {
 public:
  Relations(const ProcessList& list, const PidIndex& index, uint32_t spawner, uint8_t* relations)
      : list_(list), index_(index), spawner_(spawner), relations_(relations) {}

  // Follows the parents of an entry to where they end, then tells all on the way, each of which is passed
  // once and for all.
  bool IsRelaterToController(uint32_t entry) {
    uint32_t end = entry;
    while (relations_[end] == kUnknown) {
      relations_[end] = kOnThisWay;
      const uint32_t parent = ParentOf(end);
      if (parent == PidIndex::kNone) break;
      end = parent;
    }
    // A way that comes back to itself leads nowhere.
    const bool isRelated =
        relations_[end] == kRelated || (relations_[end] == kOnThisWay && EndsAtSpawner(end));
    for (uint32_t on = entry; on != PidIndex::kNone && relations_[on] == kOnThisWay; on = ParentOf(on))
      relations_[on] = isRelated ? kRelated : kUnrelated;
    return isRelated;
  }

 private:
  // The entry of the parent; none for a child of the spawner, with which the way ends.
  uint32_t ParentOf(uint32_t entry) const {
    return EndsAtSpawner(entry) ? PidIndex::kNone : index_.Find(list_[entry].parentId);
  }

  bool EndsAtSpawner(uint32_t entry) const { return list_[entry].parentId == spawner_; }

  const ProcessList& list_;
  const PidIndex& index_;
  const uint32_t spawner_;
  uint8_t* const relations_;
};

}  // namespace

namespace opl {

uint32_t ProcessIdOf(const char* text) {
  return static_cast<uint32_t>(std::min<unsigned long long>(std::strtoull(text, nullptr, 10), UINT32_MAX));
}

ProcessList::~ProcessList() {
  for (uint32_t i = 0; i < count_; ++i) Free(entries_[i]);
  Free(entries_);
}

Code ProcessList::Open() {
  entries_ = AllocateArray<OPL_ServerInfo*>(kRoomStep);
  if (entries_ == nullptr) {
    const NativeError error;
    return Fail(kLister, error, OPL_SERVER_E_NO_MEMORY, "%s: OPL_MEMMALLOC(2) error :%i", error.number());
  }
  room_ = kRoomStep;
  return OPL_OK;
}

Code ProcessList::Add(const OPL_ServerInfo& entry) {
  if (count_ == room_) {
    OPL_ServerInfo** const grown = ReallocateArray(entries_, room_ + kRoomStep);
    if (grown == nullptr) {
      const NativeError error;
      return Fail(kLister, error, OPL_SERVER_E_NO_MEMORY, "%s: OPL_MEMREALLOC error :%i", error.number());
    }
    entries_ = grown;
    room_ += kRoomStep;
  }
  Owned<OPL_ServerInfo> copy = Allocate<OPL_ServerInfo>();
  if (copy == nullptr) {
    const NativeError error;
    return Fail(kLister, error, OPL_SERVER_E_NO_MEMORY, "%s: OPL_MEMMALLOC(3) error :%i", error.number());
  }
  *copy = entry;
  entries_[count_++] = copy.release();
  return OPL_OK;
}

void ProcessList::Remove(const uint8_t* isRemoved) {
  uint32_t kept = 0;
  for (uint32_t i = 0; i < count_; ++i) {
    if (isRemoved[i] != 0)
      Free(entries_[i]);
    else
      entries_[kept++] = entries_[i];
  }
  count_ = kept;
}

OPL_ServerInfo** ProcessList::Release() {
  OPL_ServerInfo** const entries = entries_;
  entries_ = nullptr;
  count_ = 0;
  return entries;
}

Code ParseListing(const OPL_Server& server, const char* userName, const char* text, size_t size,
                  ProcessList* list) {
  const std::string_view all(text, size);
  for (size_t begin = 0; begin < size;) {
    const size_t end = std::min(all.find('\n', begin), size);
    OPL_ServerInfo entry{};
    if (end != begin &&
        ParseLine(server, userName, std::string_view(text + begin, end - begin), &entry) == OPL_OK)
      if (const Code rc = list->Add(entry)) return rc;
    begin = end + 1;
  }
  return OPL_OK;
}

Code RemoveUnRelatedProcess(uint32_t spawner, ProcessList* list) {
  const uint32_t count = list->Count();
  if (count == 0) return OPL_OK;
  auto* const flags = AllocateArray<uint8_t>(count);
  Undo freeFlags([&] { Free(flags); });
  PidIndex index(*list);
  if (flags == nullptr || !index.Fill()) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_NO_MEMORY, "%s: calloc error :%i", error.number());
  }
  std::fill_n(flags, count, static_cast<uint8_t>(kUnknown));
  Relations relations(*list, index, spawner, flags);
  for (uint32_t i = 0; i < count; ++i) (void)relations.IsRelaterToController(i);
  for (uint32_t i = 0; i < count; ++i) flags[i] = flags[i] == kUnrelated ? 1 : 0;
  list->Remove(flags);
  return OPL_OK;
}

}  // namespace opl
