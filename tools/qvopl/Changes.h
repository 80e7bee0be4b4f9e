// What differs between one look at the objects and the next.
#ifndef QVOPL_TOOL_CHANGES_H
#define QVOPL_TOOL_CHANGES_H

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/qvopl/Objects.h"

namespace qvopl {

enum class Change { kNone, kNew, kChanged, kGone };

// "new".
const char* NameOf(Change change);

class Changes {
 public:
  // Compares with the look before, and remembers this one. Objects that were there in the look before and are
  // not any more are added to the groups, as gone. Nothing is new in the first look.
  void Look(std::vector<Group>* groups, int64_t nowMs);

  Change Of(const Object& object) const;

  // How many operations the last minute, or the time since the first look, has seen at least: the system
  // keeps no count, and what happens between two looks may cancel out.
  int64_t OperationsOf(const Object& object) const;

 private:
  struct Known {
    Object object;
    Scope scope;
    std::string instance;
    Change change = Change::kNone;
    std::deque<std::pair<int64_t, int64_t>> operations;  // when they were seen, and how many
    uint64_t look = 0;
  };

  void LookAt(const Group& group, const Object& object, int64_t nowMs);
  void AddGone(std::vector<Group>* groups);

  std::map<std::string, Known> known_;  // by file
  uint64_t look_ = 0;
};

}  // namespace qvopl

#endif
