// The states of what is a set of semaphores.
#include <algorithm>
#include <string>
#include <vector>

#include "OPL_Private.h"
#include "opl_private/src/ObjectLayout.h"
#include "tools/qvopl/States.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

using opl::MgmtSet;
using opl::MutexSet;
using opl::RWLockSet;

struct Layout {
  Kind kind;
  size_t count;
  size_t useCount;
  void (*describe)(View*, Object*);
};

constexpr Layout kLayouts[] = {
    {Kind::kManagement, MgmtSet::kSemaphoreCount, MgmtSet::kUseCount, DescribeManagement},
    {Kind::kMutex, MutexSet::kSemaphoreCount, MutexSet::kUseCount, DescribeMutex},
    {Kind::kRWLock, RWLockSet::kSemaphoreCount, RWLockSet::kUseCount, DescribeRWLock},
};

const Layout& LayoutOf(Kind kind) {
  return *std::find_if(std::begin(kLayouts), std::end(kLayouts),
                       [kind](const Layout& layout) { return layout.kind == kind; });
}

const Semaphore& At(const Object& object, size_t index) { return object.set->semaphores[index]; }

std::string Waiting(int64_t number) { return number != 0 ? ", " + Number(number) + " waiting" : ""; }

// A set whose use count is taken whole is about to be removed; by a process that has died it stays like that.
bool IsBeingRemoved(View* view, Object* object, size_t useCount) {
  const Semaphore& count = At(*object, useCount);
  if (count.value != 0) return false;
  AddFact(object, "takenForRemovalBy", int64_t{count.last});
  const bool isStuck = count.last > 0 && !view->processes.Get(count.last).isAlive;
  SetState(object, isStuck ? Condition::kBroken : Condition::kBusy,
           "taken for removal by " + view->processes.Describe(count.last));
  return true;
}

void AddCount(std::vector<std::string>* parts, int64_t number, const char* one, const char* many) {
  if (number != 0) parts->push_back(number == 1 ? one : Number(number) + " " + many);
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

}  // namespace

void DescribeManagement(View* view, Object* object) {
  constexpr const char* kLocks[] = {"", "shared memory's", "the read-write locks'", "the mutexes'"};
  const int64_t processes = OPL_PRIVATE_USE_COUNT_LIMIT - At(*object, MgmtSet::kUseCount).value;
  SetState(object, Condition::kFine, Count(processes, "process", "processes"));
  AddFact(object, "processes", processes);
  for (const size_t lock : {MgmtSet::kSharedMemLock, MgmtSet::kRWLockLock, MgmtSet::kMutexLock}) {
    const Semaphore& semaphore = At(*object, lock);
    if (semaphore.value != 0) continue;
    object->condition = Condition::kBusy;
    object->state += std::string(", ") + kLocks[lock] + " lock held by " +
                     view->processes.Describe(semaphore.last) + Waiting(semaphore.waitingToRise);
  }
}

void DescribeMutex(View* view, Object* object) {
  const Semaphore& lock = At(*object, MutexSet::kLock);
  const bool isHeld = lock.value == 0;
  AddFact(object, "held", isHeld);
  if (lock.last != 0) AddFact(object, "lastOperatedBy", int64_t{lock.last});
  AddFact(object, "waiting", int64_t{lock.waitingToRise});
  std::string state = "free";
  if (isHeld) state = "held, last operated by " + view->processes.Describe(lock.last);
  SetState(object, isHeld ? Condition::kBusy : Condition::kFine, state + Waiting(lock.waitingToRise));
}

// A writer waits at the gate while another has it, and behind it for the readers to leave; a reader waits for
// the writers to leave.
void DescribeRWLock(View* view, Object* object) {
  const Semaphore& gate = At(*object, RWLockSet::kWriterGate);
  const Semaphore& writers = At(*object, RWLockSet::kWriters);
  const Semaphore& readers = At(*object, RWLockSet::kReaders);
  const int64_t waitingWriters = int64_t{gate.waitingToRise} + readers.waitingForZero;
  const int64_t waitingReaders = writers.waitingForZero;
  AddFact(object, "readers", int64_t{readers.value});
  AddFact(object, "writers", int64_t{writers.value});
  AddFact(object, "waitingReaders", waitingReaders);
  AddFact(object, "waitingWriters", waitingWriters);
  std::vector<std::string> parts;
  if (writers.value != 0) {
    AddFact(object, "lastOperatedBy", int64_t{writers.last});
    parts.push_back("held by a writer, last operated by " + view->processes.Describe(writers.last));
  }
  if (readers.value != 0) parts.push_back(Count(readers.value, "reader"));
  if (parts.empty()) parts.emplace_back("free");
  const bool isBusy = writers.value != 0 || readers.value != 0;
  AddCount(&parts, waitingWriters, "a writer waiting", "writers waiting");
  AddCount(&parts, waitingReaders, "a reader waiting", "readers waiting");
  SetState(object, isBusy ? Condition::kBusy : Condition::kFine, Joined(parts));
}

bool FillInSet(View* view, Object* object) {
  const Word word = view->directory.ReadWord(object->entry);
  if (word.reading != Reading::kDone) return SetUnread(object, word.reading);
  object->id = word.value;
  const Layout& layout = LayoutOf(object->entry.name.kind);
  SetStatus set;
  const Sight sight = view->systemV.LookAt(word.value, &set);
  if (sight == Sight::kGone) {
    // The last user takes the set away before the file.
    if (!view->directory.StatusOf(object->entry.file).has_value()) return false;
    SetState(object, Condition::kBroken, "its set is gone");
    return true;
  }
  object->set = set;
  object->lastUsed = set.operated;
  if (!IsOwned(object, set.permissions)) return true;
  if (set.count != layout.count) {
    SetState(object, Condition::kBroken,
             "names a set of " + Count(static_cast<int64_t>(set.count), "semaphore"));
    return true;
  }
  if (sight == Sight::kRefused) {
    SetState(object, Condition::kUnknown, "no permission to read its set");
    return true;
  }
  object->users = OPL_PRIVATE_USE_COUNT_LIMIT - At(*object, layout.useCount).value;
  if (!IsBeingRemoved(view, object, layout.useCount)) layout.describe(view, object);
  return true;
}

bool FillInRegisteredSet(View* view, Object* object) {
  if (!object->entry.name.nativeId.has_value()) {
    SetState(object, Condition::kBroken, "registers nothing: no number in its name");
    return true;
  }
  object->id = static_cast<int32_t>(*object->entry.name.nativeId);
  SetStatus set;
  const Sight sight = view->systemV.LookAt(*object->id, &set);
  if (sight == Sight::kGone) {
    SetState(object, Condition::kBroken, "its set is gone");
    return true;
  }
  object->set = set;
  object->lastUsed = set.operated;
  if (!IsOwned(object, set.permissions)) return true;
  int64_t waiting = 0;
  for (const Semaphore& semaphore : set.semaphores)
    waiting += semaphore.waitingToRise + semaphore.waitingForZero;
  if (sight == Sight::kSeen) AddFact(object, "waiting", waiting);
  SetState(object, waiting != 0 ? Condition::kBusy : Condition::kFine,
           Count(static_cast<int64_t>(set.count), "semaphore") + Waiting(waiting));
  return true;
}

}  // namespace qvopl
