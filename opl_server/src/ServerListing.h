// The list of a server's processes: how it is read off the lines of the listing script, and which of them
// descend from the system's spawner. Nothing here calls the system.
#ifndef OPL_SERVER_SERVER_LISTING_H
#define OPL_SERVER_SERVER_LISTING_H

#include <cstddef>
#include <cstdint>

#include "opl_server/src/Server.h"

namespace opl {

// A process id as a script prints it: the number that the text begins with, 0 where there is none, and the
// same in both widths where it is too large.
uint32_t ProcessIdOf(const char* text);

// The array that OPL_ServerInfoGet gives its caller; released with the list unless it is handed over.
class ProcessList {
 public:
  ProcessList() = default;
  ~ProcessList();
  ProcessList(const ProcessList&) = delete;
  ProcessList& operator=(const ProcessList&) = delete;

  // Makes room for the first entries.
  [[nodiscard]] Code Open();
  // Appends a copy.
  [[nodiscard]] Code Add(const OPL_ServerInfo& entry);
  // Releases the entries whose flag is set and closes the gaps.
  void Remove(const uint8_t* isRemoved);

  uint32_t Count() const { return count_; }
  const OPL_ServerInfo& operator[](uint32_t index) const { return *entries_[index]; }
  OPL_ServerInfo** Release();

 private:
  OPL_ServerInfo** entries_ = nullptr;
  uint32_t count_ = 0;
  uint32_t room_ = 0;
};

// Every line becomes an entry, but one that is empty or has nothing but blanks.
[[nodiscard]] Code ParseListing(const OPL_Server& server, const char* userName, const char* text, size_t size,
                                ProcessList* list);

// Keeps the children of the spawner and those whose chain of parents, within the list, ends at one or at the
// spawner itself.
[[nodiscard]] Code RemoveUnRelatedProcess(uint32_t spawner, ProcessList* list);

}  // namespace opl

#endif
