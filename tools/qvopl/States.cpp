#include "tools/qvopl/States.h"

#include <string>

#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

const char* TypeOf(mode_t mode) {
  if (S_ISLNK(mode)) return "a link";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISREG(mode)) return "a file";
  return "a device";
}

mode_t ExpectedType(const Object& object) {
  const FileName& name = object.entry.name;
  if (name.kind == Kind::kSocket) return S_IFSOCK;
  if (name.kind == Kind::kEvent && !name.isCount) return S_IFIFO;
  return S_IFREG;
}

// What a process makes goes to its own name in a moment.
void DescribeTemporary(View* view, Object* object) {
  const pid_t maker = object->entry.name.maker;
  AddFact(object, "maker", int64_t{maker});
  if (view->processes.IsSince(maker, object->entry.status.st_ctime))
    SetState(object, Condition::kBusy, "being made by " + view->processes.Describe(maker));
  else
    SetState(object, Condition::kBroken, "left over by process " + std::to_string(maker) + ", which is gone");
}

}  // namespace

void SetState(Object* object, Condition condition, std::string state) {
  object->condition = condition;
  object->state = std::move(state);
}

void AddFact(Object* object, const char* name, std::variant<int64_t, bool, std::string> value) {
  object->facts.push_back({name, std::move(value)});
}

bool SetUnread(Object* object, Reading reading) {
  if (reading == Reading::kGone) return false;
  const bool isWrong = reading == Reading::kShort || reading == Reading::kNoFile;
  SetState(object, isWrong ? Condition::kBroken : Condition::kUnknown, TextOf(reading));
  return true;
}

bool IsOwned(Object* object, const Permissions& permissions) {
  if (permissions.owner == object->entry.status.st_uid) return true;
  SetState(
      object, Condition::kBroken,
      "names what belongs to another user, " + UserName(permissions.owner) + ", and does not speak for it");
  return false;
}

bool FillIn(View* view, Object* object) {
  const FileName& name = object->entry.name;
  const mode_t mode = object->entry.status.st_mode;
  if ((mode & S_IFMT) != ExpectedType(*object) && !name.isTemporary) {
    SetState(object, Condition::kBroken, std::string("no ") + NameOf(name.kind) + ", but " + TypeOf(mode));
    return true;
  }
  if (name.isTemporary) {
    DescribeTemporary(view, object);
    return true;
  }
  if (name.version != BuildVersion()) {
    SetState(object, Condition::kUnknown, "of version " + name.version + ", not looked into");
    return true;
  }
  switch (name.kind) {
    case Kind::kManagement:
    case Kind::kMutex:
    case Kind::kRWLock:
      return FillInSet(view, object);
    case Kind::kEvent:
      return FillInEvent(view, object);
    case Kind::kSegment:
      return FillInSegment(view, object);
    case Kind::kLockFile:
      return FillInLockFile(view, object);
    case Kind::kSocket:
      return FillInSocket(view, object);
    case Kind::kSemaphores:
      return FillInRegisteredSet(view, object);
    case Kind::kMessageQueue:
      return FillInRegisteredQueue(view, object);
    case Kind::kServer:
      return FillInServer(view, object);
    case Kind::kListing:
      break;
  }
  return true;
}

}  // namespace qvopl
