#include "tools/qvopl/Changes.h"

#include <algorithm>
#include <cstdlib>

#include "tools/qvopl/States.h"

namespace qvopl {

namespace {

constexpr int64_t kWindowMs = 60000;

constexpr const char* kChangeNames[] = {"none", "new", "changed", "gone"};

// The semaphores whose change is an operation on the object, and not the coming and going of users, are all
// but the use counts; a change of those counts, too: it is an open or a close.
int64_t OperationsBetween(const SetStatus& before, const SetStatus& after) {
  int64_t operations = 0;
  for (size_t i = 0; i < std::min(before.semaphores.size(), after.semaphores.size()); ++i) {
    const Semaphore& earlier = before.semaphores[i];
    const Semaphore& later = after.semaphores[i];
    const int64_t difference = std::abs(later.value - earlier.value);
    operations = std::max(operations, difference != 0              ? difference
                                      : later.last != earlier.last ? int64_t{1}
                                                                   : int64_t{0});
  }
  return operations == 0 && after.operated != before.operated ? 1 : operations;
}

int64_t Difference(const Object& before, const Object& after, const char* fact) {
  const int64_t* const earlier = before.Find(fact);
  const int64_t* const later = after.Find(fact);
  return earlier != nullptr && later != nullptr ? std::abs(*later - *earlier) : 0;
}

// At least that many operations lie between.
int64_t OperationsBetween(const Object& before, const Object& after) {
  if (before.id != after.id) return 0;
  if (before.set.has_value() && after.set.has_value()) return OperationsBetween(*before.set, *after.set);
  int64_t operations = before.lastUsed != after.lastUsed ? 1 : 0;
  for (const char* const fact : {"posts", "handles", "messages", "attached"})
    operations = std::max(operations, Difference(before, after, fact));
  return operations;
}

}  // namespace

const char* NameOf(Change change) { return kChangeNames[static_cast<size_t>(change)]; }

void Changes::LookAt(const Group& group, const Object& object, int64_t nowMs) {
  const auto [at, isNew] = known_.try_emplace(object.entry.file);
  Known& known = at->second;
  const bool isAnother = !isNew && (known.change == Change::kGone || known.object.id != object.id);
  if (isNew || isAnother) {
    known.operations.clear();
    known.change = look_ == 1 ? Change::kNone : Change::kNew;
  } else {
    const int64_t operations = OperationsBetween(known.object, object);
    if (operations != 0) known.operations.emplace_back(nowMs, operations);
    const bool isSame =
        operations == 0 && known.object.state == object.state && known.object.users == object.users;
    known.change = isSame ? Change::kNone : Change::kChanged;
  }
  while (!known.operations.empty() && known.operations.front().first <= nowMs - kWindowMs)
    known.operations.pop_front();
  known.object = object;
  known.scope = group.scope;
  known.instance = group.instance;
  known.look = look_;
}

// Once; then it is forgotten.
void Changes::AddGone(std::vector<Group>* groups) {
  std::erase_if(known_, [](const auto& entry) { return entry.second.change == Change::kGone; });
  for (auto& [file, known] : known_) {
    if (known.look == look_) continue;
    known.change = Change::kGone;
    SetState(&known.object, Condition::kUnknown, "gone");
    const auto group = std::find_if(groups->begin(), groups->end(), [&known = known](const Group& other) {
      return other.scope == known.scope && other.instance == known.instance;
    });
    if (group != groups->end())
      group->objects.push_back(known.object);
    else
      groups->push_back({known.scope, known.instance, {known.object}});
  }
}

void Changes::Look(std::vector<Group>* groups, int64_t nowMs) {
  ++look_;
  for (const Group& group : *groups)
    for (const Object& object : group.objects) LookAt(group, object, nowMs);
  AddGone(groups);
}

Change Changes::Of(const Object& object) const {
  const auto found = known_.find(object.entry.file);
  return found != known_.end() ? found->second.change : Change::kNone;
}

int64_t Changes::OperationsOf(const Object& object) const {
  int64_t sum = 0;
  const auto found = known_.find(object.entry.file);
  if (found == known_.end()) return 0;
  for (const auto& [time, operations] : found->second.operations) sum += operations;
  return sum;
}

}  // namespace qvopl
