// The objects of an IPC directory with their state: what list, show, watch, doctor and clean look at.
#ifndef QVOPL_TOOL_OBJECTS_H
#define QVOPL_TOOL_OBJECTS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "tools/qvopl/IpcDirectory.h"
#include "tools/qvopl/Processes.h"
#include "tools/qvopl/SystemV.h"
#include "tools/qvopl/Tables.h"

namespace qvopl {

using Json = nlohmann::ordered_json;

enum class Condition {
  kFine,
  kBusy,     // held, set, or waited for
  kUnknown,  // not looked at, or not whole
  kBroken,   // something is wrong with it
};

// "fine".
const char* NameOf(Condition condition);

// One thing about an object, under its name in JSON: "lastOperatedBy".
struct Fact {
  const char* name;
  std::variant<int64_t, bool, std::string> value;
};

struct Object {
  Entry entry;                 // its file; of an event the FIFO, or the count file when that is all there is
  std::optional<Entry> count;  // an event's count file
  Condition condition = Condition::kFine;
  std::string state;  // in words, printable
  std::optional<int32_t> id;
  std::optional<int64_t> users;     // processes or handles, whichever the object counts
  std::optional<int64_t> lastUsed;  // seconds since the epoch
  std::optional<SetStatus> set;
  std::optional<SegmentStatus> segment;
  std::optional<QueueStatus> queue;
  std::vector<Fact> facts;  // of its kind: "waiting", "lastOperatedBy", "posts", ...

  // Null when there is no such fact.
  const int64_t* Find(const char* fact) const;
};

// Objects of an instance, of all users, or of no scope.
struct Group {
  Scope scope = Scope::kNone;
  std::string instance;
  std::vector<Object> objects;
};

// Which objects are wanted.
struct Selection {
  std::optional<std::string> instance;  // or "all"
  std::vector<std::string> names;       // of objects or files, or patterns of them; all when empty
};

// One moment's view of the system. Each part is read when it is first needed.
struct View {
  explicit View(const IpcDirectory& ipcDirectory);

  const IpcDirectory& directory;
  int64_t now;  // seconds since the epoch
  SystemV systemV;
  Processes processes;
  FileLocks locks;
  BoundSockets sockets;
};

// The objects in groups: the instances by name, those of all users, those of none; each by kind and name.
// Throws CouldNotLook. What vanishes meanwhile is left out.
std::vector<Group> LookAtObjects(View* view, const Selection& selection);

bool IsSelected(const FileName& name, const std::string& file, const Selection& selection);

// Whether something is wrong with one of them.
bool HasBroken(const std::vector<Group>& groups);

// "instance T1", "all users".
std::string TitleOf(const Group& group);
// What an object is called in lists; its kind where it has no name. Printable.
std::string TitleOf(const Object& object);

Json ToJson(const Object& object);
Json ToJson(const Group& group);
// In lines; what is no text after all is replaced.
std::string Dump(const Json& json, int indent = 2);

// The user's name, or number where there is no account.
std::string UserName(uid_t user);

}  // namespace qvopl

#endif
