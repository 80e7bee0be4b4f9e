#include "tools/qvopl/Objects.h"

#include <fnmatch.h>
#include <pwd.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "opl_private/src/ObjectLayout.h"
#include "tools/qvopl/States.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr const char* kConditionNames[] = {"fine", "busy", "unknown", "broken"};

bool IsInstance(const FileName& name, const std::string& instance) {
  if (instance == opl::kAllUsersScope) return name.scope == Scope::kAllUsers;
  return name.scope == Scope::kInstance && name.instance == instance;
}

bool IsCountFile(const Entry& entry) { return entry.name.isCount && !entry.name.isTemporary; }

// One object for each file, but for an event, which has two.
std::vector<Object> ObjectsOf(std::vector<Entry> entries) {
  std::map<std::string, Entry> counts;
  for (const Entry& entry : entries)
    if (IsCountFile(entry)) counts.emplace(FifoOf(entry.file), entry);
  std::vector<Object> objects;
  for (Entry& entry : entries) {
    if (IsCountFile(entry)) continue;
    Object object;
    if (const auto count = counts.extract(entry.file)) object.count = count.mapped();
    object.entry = std::move(entry);
    objects.push_back(std::move(object));
  }
  for (auto& [fifo, entry] : counts) {
    Object object;
    object.entry = std::move(entry);
    objects.push_back(std::move(object));
  }
  return objects;
}

bool IsBroken(const Object& object) { return object.condition == Condition::kBroken; }

void LookAgainAtBroken(View* view, std::vector<Object>* objects) {
  std::vector<Object> kept;
  for (Object& object : *objects) {
    if (!IsBroken(object)) {
      kept.push_back(std::move(object));
      continue;
    }
    Object again;
    again.entry = std::move(object.entry);
    again.count = std::move(object.count);
    if (FillIn(view, &again)) kept.push_back(std::move(again));
  }
  *objects = std::move(kept);
}

// Objects on their way in or out look broken for a moment: a set goes before its file. Whoever removes it may
// have to wait for a processor in between.
void LeaveOutPassing(View* view, std::vector<Object>* objects) {
  constexpr long kPausesMs[] = {5, 20, 80};
  for (const long ms : kPausesMs) {
    if (std::none_of(objects->begin(), objects->end(), IsBroken)) return;
    const timespec pause{0, ms * 1000000};
    (void)::nanosleep(&pause, nullptr);
    LookAgainAtBroken(view, objects);
  }
}

auto OrderOf(const Object& object) {
  const FileName& name = object.entry.name;
  return std::tie(name.scope, name.instance, name.kind, name.name, object.entry.file);
}

}  // namespace

View::View(const IpcDirectory& ipcDirectory) : directory(ipcDirectory), now(Now()) {}

const char* NameOf(Condition condition) { return kConditionNames[static_cast<size_t>(condition)]; }

const int64_t* Object::Find(const char* fact) const {
  for (const Fact& known : facts)
    if (std::string_view(known.name) == fact) return std::get_if<int64_t>(&known.value);
  return nullptr;
}

bool IsSelected(const FileName& name, const std::string& file, const Selection& selection) {
  if (selection.instance.has_value() && !IsInstance(name, *selection.instance)) return false;
  if (selection.names.empty()) return true;
  const std::string called = name.kind == Kind::kManagement ? NameOf(name.kind) : name.name;
  return std::any_of(selection.names.begin(), selection.names.end(), [&](const std::string& wanted) {
    return wanted == called || wanted == file || ::fnmatch(wanted.c_str(), called.c_str(), 0) == 0 ||
           ::fnmatch(wanted.c_str(), file.c_str(), 0) == 0;
  });
}

std::vector<Group> LookAtObjects(View* view, const Selection& selection) {
  std::vector<Entry> entries = view->directory.Entries();
  std::erase_if(entries, [&](const Entry& entry) {
    return !IsSelected(entry.name, IsCountFile(entry) ? FifoOf(entry.file) : entry.file, selection);
  });
  std::vector<Object> found = ObjectsOf(std::move(entries));
  std::vector<Object> objects;
  for (Object& object : found)
    if (FillIn(view, &object)) objects.push_back(std::move(object));
  std::sort(objects.begin(), objects.end(),
            [](const Object& a, const Object& b) { return OrderOf(a) < OrderOf(b); });
  LeaveOutPassing(view, &objects);
  std::vector<Group> groups;
  for (Object& object : objects) {
    const FileName& name = object.entry.name;
    if (groups.empty() || groups.back().scope != name.scope || groups.back().instance != name.instance)
      groups.push_back({name.scope, name.instance, {}});
    groups.back().objects.push_back(std::move(object));
  }
  return groups;
}

bool HasBroken(const std::vector<Group>& groups) {
  return std::any_of(groups.begin(), groups.end(), [&](const Group& group) {
    return std::any_of(group.objects.begin(), group.objects.end(), IsBroken);
  });
}

std::string TitleOf(const Group& group) {
  switch (group.scope) {
    case Scope::kInstance:
      return "instance " + Printable(group.instance);
    case Scope::kAllUsers:
      return "all users";
    case Scope::kNone:
      return "no instance";
  }
  return "";
}

std::string TitleOf(const Object& object) {
  const FileName& name = object.entry.name;
  return name.name.empty() ? "-" : Printable(name.name);
}

std::string UserName(uid_t user) {
  static std::map<uid_t, std::string> known;
  const auto found = known.find(user);
  if (found != known.end()) return found->second;
  const passwd* const account = ::getpwuid(user);
  return known[user] = account != nullptr ? Printable(account->pw_name) : std::to_string(user);
}

}  // namespace qvopl
