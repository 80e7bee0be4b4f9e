// What is wrong with objects that files name: sets, segments, events.
#include <unistd.h>

#include <cstring>

#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "tools/qvopl/Diagnosis.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr int kLimit = opl::kUseCountLimit;
constexpr int kNearlyExhausted = kLimit / 10;

struct SetKind {
  size_t count;
  size_t useCount;
  Guard guard;
  const char* name;
};

SetKind KindOf(const FileName& name) {
  if (name.kind == Kind::kMutex)
    return {opl::MutexSet::kSemaphoreCount, opl::MutexSet::kUseCount, Guard::kMutexes, "mutex"};
  if (name.kind == Kind::kRWLock)
    return {opl::RWLockSet::kSemaphoreCount, opl::RWLockSet::kUseCount, Guard::kRWLocks, "read-write lock"};
  return {opl::MgmtSet::kSemaphoreCount, opl::MgmtSet::kUseCount, Guard::kProcesses, "management set"};
}

// What the library leaves at any moment: its operations change all of a set's semaphores at once.
bool IsPossible(const FileName& name, const std::vector<Semaphore>& semaphores) {
  const auto value = [&](size_t index) { return semaphores[index].value; };
  if (value(KindOf(name).useCount) > kLimit) return false;
  if (name.kind == Kind::kMutex) return value(opl::MutexSet::kLock) <= 1;
  if (name.kind == Kind::kManagement) return value(1) <= 1 && value(2) <= 1 && value(3) <= 1;
  using Set = opl::RWLockSet;
  return value(Set::kWriterGate) + value(Set::kWriters) == 1 &&
         (value(Set::kWriters) == 0 || value(Set::kReaders) == 0);
}

std::string ValuesOf(const std::vector<Semaphore>& semaphores) {
  std::string text;
  for (const Semaphore& semaphore : semaphores)
    text += (text.empty() ? "" : ", ") + std::to_string(semaphore.value);
  return text;
}

std::string WhoIs(uid_t user) { return "user " + std::to_string(user); }

}  // namespace

bool Look::HasType(const Entry& entry, mode_t type) {
  if ((entry.status.st_mode & S_IFMT) == type) return true;
  const mode_t found = entry.status.st_mode & S_IFMT;
  const char* const what = found == S_IFLNK   ? "is a symbolic link, which the library does not follow,"
                           : found == S_IFDIR ? "is a directory"
                           : found == S_IFREG ? "is a regular file"
                                              : "is a file of another type";
  Suspect(entry, Severity::kError, "not-an-object-file",
          std::string(what) + " in the place of a" +
              (type == S_IFREG   ? "n object file"
               : type == S_IFIFO ? " FIFO"
                                 : " socket") +
              ": nobody can make or open an object of the name",
          "Find out who put it there, and remove it.");
  return false;
}

std::optional<int32_t> Look::IdIn(const Entry& entry) {
  const Word word = directory_.ReadWord(entry);
  if (word.reading == Reading::kDone) return word.value;
  if (word.reading == Reading::kRefused || word.reading == Reading::kWouldTouch) ++unread_;
  if (word.reading == Reading::kShort) {
    Suspicion& suspicion = Suspect(entry, Severity::kError, "short-file",
                                   "is shorter than an id: nobody can make or open an object of the name",
                                   "Remove it, or find out first who wrote it: the library did not.");
    AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
  }
  return std::nullopt;
}

template <typename Status>
std::optional<Status> Look::ObjectOf(const Entry& entry, const char* what) {
  if (!HasType(entry, S_IFREG)) return std::nullopt;
  const std::optional<int32_t> id = IdIn(entry);
  if (!id.has_value()) return std::nullopt;
  Status status;
  const Sight sight = systemV_.LookAt(*id, &status);
  const std::string name = std::string(what) + " " + std::to_string(*id);
  if (sight == Sight::kGone) {
    Suspicion& suspicion =
        Suspect(entry, Severity::kWarning, "stale-file", "names the " + name + ", which is gone",
                "It goes when an object of its name is opened next.");
    suspicion.finding.evidence += " " + name;
    AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
    return std::nullopt;
  }
  if (status.permissions.owner != entry.status.st_uid) {
    Suspicion& suspicion =
        Suspect(entry, Severity::kWarning, "another-owners-object",
                "belongs to " + WhoIs(entry.status.st_uid) + " and names the " + name + " of " +
                    WhoIs(status.permissions.owner) +
                    ": it does not speak for it, and the library takes the object for missing",
                "Find out who put it there, and remove it.");
    suspicion.finding.evidence += " " + name;
    AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file, and leaves alone what it names");
    return std::nullopt;
  }
  if (sight == Sight::kSeen) return status;
  ++unread_;
  return std::nullopt;
}

void Look::CheckSet(const Entry& entry) {
  const auto set = ObjectOf<SetStatus>(entry, "semaphore set");
  const SetKind kind = KindOf(entry.name);
  if (!set.has_value()) {
    if (!suspicions_.empty() && suspicions_.back().finding.subject == entry.file)
      suspicions_.back().guard = kind.guard;
    return;
  }
  const bool fits = set->count == kind.count && set->semaphores.size() == kind.count;
  if (fits && IsPossible(entry.name, set->semaphores)) return CheckSetValues(entry, *set);
  Suspicion& suspicion =
      Suspect(entry, Severity::kError, fits ? "impossible-values" : "wrong-object",
              "names the semaphore set " + std::to_string(set->id) + ", whose values (" +
                  ValuesOf(set->semaphores) + ") no " + kind.name + " has: somebody else has operated on it",
              "End the processes that use it and run qvopl clean.");
  suspicion.finding.evidence += ValuesOf(set->semaphores);
}

void Look::CheckSetValues(const Entry& entry, const SetStatus& set) {
  const SetKind kind = KindOf(entry.name);
  const Semaphore& uses = set.semaphores[kind.useCount];
  if (uses.value == 0 && IsGone(uses.last)) {
    const bool isManagement = entry.name.kind == Kind::kManagement;
    Suspicion& suspicion = Suspect(
        entry, Severity::kWarning, isManagement ? "exhausted-management" : "abandoned-set",
        processes_.Describe(uses.last) + ", was killed when it was about to remove the set " +
            std::to_string(set.id) + " and had made it unusable",
        isManagement ? "The next process that begins makes a new one." : "It goes when it is opened next.");
    suspicion.finding.evidence += " " + std::to_string(uses.last);
    AddRepair(&suspicion, isManagement ? Repair::Action::kBeginAndEnd : Repair::Action::kRemoveSet,
              "removes the set and the file", set.id);
    return;
  }
  if (entry.name.kind == Kind::kManagement) return CheckManagement(entry, set);
  if (uses.value == kLimit) {
    Suspicion& suspicion = Suspect(entry, Severity::kNote, "unused-object", "is used by no process",
                                   "It goes with the last close of who opens it next.");
    suspicion.guard = kind.guard;
    suspicion.finding.evidence += " " + std::to_string(uses.last) + " " + std::to_string(set.operated);
    AddRepair(&suspicion, Repair::Action::kRemoveSet, "removes the set and the file", set.id);
  } else if (uses.value != 0 && uses.value < kNearlyExhausted) {
    Suspect(entry, Severity::kWarning, "nearly-exhausted",
            "has " + Count(kLimit - uses.value, "handle") + " open, of " + Number(kLimit) + " at most",
            "See which processes open it again and again (qvopl show).");
  }
}

void Look::CheckManagement(const Entry& entry, const SetStatus& set) {
  const Semaphore& uses = set.semaphores[opl::MgmtSet::kUseCount];
  // Who begins makes the set first and counts itself then; whoever was about to is in the set as its maker.
  if (uses.value != kLimit || !IsGone(uses.last)) return;
  Suspicion& suspicion =
      Suspect(entry, Severity::kNote, "unused-management", "counts no process: the last one was killed",
              "The next process that begins takes it over.");
  suspicion.finding.evidence += " " + std::to_string(uses.last) + " " + std::to_string(set.operated);
  AddRepair(&suspicion, Repair::Action::kBeginAndEnd, "removes the set and the file", set.id);
}

void Look::CheckSegment(const Entry& entry) {
  const size_t before = suspicions_.size();
  const auto segment = ObjectOf<SegmentStatus>(entry, "segment");
  if (suspicions_.size() != before) suspicions_.back().guard = Guard::kSegments;
  if (!segment.has_value()) return;
  if (segment->size < sizeof(opl::SegmentHeader)) {
    Suspect(entry, Severity::kError, "wrong-object",
            "names the segment " + std::to_string(segment->id) +
                ", which is too small for a block of shared memory",
            "Find out who put the file there, and remove it.");
  } else if (segment->isRemoved) {
    Suspect(entry, Severity::kWarning, "removed-in-use",
            "names the segment " + std::to_string(segment->id) + ", which was removed under " +
                Count(static_cast<int64_t>(segment->attached), "process that still has",
                      "processes that still have") +
                " it",
            "End these processes: others that open the block get it no more once they are gone.")
        .guard = Guard::kSegments;
  } else if (segment->attached == 0) {
    Suspicion& suspicion = Suspect(
        entry, Severity::kWarning, "unused-segment",
        "is attached by no process, and counts somebody who was killed: no close is the last, and the " +
            Size(segment->size) + " stay",
        "Processes can open it, with what the last ones left in it, but none can make it.");
    suspicion.guard = Guard::kSegments;
    suspicion.finding.evidence += " " + std::to_string(segment->detachedAt);
    AddRepair(&suspicion, Repair::Action::kRemoveSegment,
              "removes the segment, with what is in it, and the file", segment->id);
  } else {
    CheckSegmentCount(entry, *segment);
  }
}

// Every handle that counts is attached; what is attached by a fork does not count.
void Look::CheckSegmentCount(const Entry& entry, const SegmentStatus& segment) {
  const auto attachments = processes_.Attachments().find(segment.id);
  if (attachments == processes_.Attachments().end()) return;
  const std::optional<uint32_t> count = HandlesIn(attachments->second.front());
  SegmentStatus after;
  if (!count.has_value() || systemV_.LookAt(segment.id, &after) != Sight::kSeen) return;
  const uint64_t attached = std::max(segment.attached, after.attached);
  if (*count <= attached) return;
  Suspicion& suspicion = Suspect(entry, Severity::kWarning, "count-too-high",
                                 "counts " + Count(*count, "handle") + " while it is attached " +
                                     Count(static_cast<int64_t>(attached), "time") +
                                     ": a process that had it was killed, and no close will be the last",
                                 "When the product has ended, qvopl doctor --fix or qvopl clean removes it.");
  suspicion.guard = Guard::kSegments;
  suspicion.finding.evidence += " " + std::to_string(*count) + " " + std::to_string(attached) + " " +
                                std::to_string(after.attachedAt) + " " + std::to_string(after.detachedAt);
}

void Look::CheckEvent(const Entry& entry) {
  const std::string fifo = entry.name.isCount
                               ? entry.file.substr(0, entry.file.size() - std::strlen(opl::kEventCountSuffix))
                               : entry.file;
  const auto found = byName_.find(fifo);
  const auto count = byName_.find(fifo + opl::kEventCountSuffix);
  if (!HasType(entry, entry.name.isCount ? S_IFREG : S_IFIFO)) return;
  if (entry.name.isCount && found != byName_.end()) return;
  if (!entry.name.isCount && count != byName_.end()) return CheckWholeEvent(entry, *count->second);
  const bool hasFifo = !entry.name.isCount;
  Suspicion& suspicion = hasFifo
                             ? Suspect(entry, Severity::kError, "event-without-count",
                                       "has no count file: the event can be neither opened nor made",
                                       "Find out what removed the count file.")
                             : Suspect(entry, Severity::kNote, "count-without-event", "has no FIFO beside it",
                                       "It is replaced when an event of the name is made next.");
  suspicion.guard = Guard::kEvents;
  const bool isFree =
      !hasFifo || (Open().DescriptorsOf(entry.status) == 0 &&
                   Open().SeesAllOf(entry.status.st_uid, (entry.status.st_mode & S_IROTH) != 0));
  if (isFree) AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
}

// Every handle that counts is a descriptor; what a fork has inherited does not count. So the count may well
// be lower than the number of descriptors, but never higher.
void Look::CheckWholeEvent(const Entry& fifo, const Entry& count) {
  if (!S_ISREG(count.status.st_mode)) return;  // told of the count file
  const std::optional<int32_t> handles = IdIn(count);
  if (!handles.has_value()) return;
  const auto locks = instances_.find(fifo.name.instance);
  const bool hasNoUsers =
      fifo.name.scope == Scope::kInstance && (locks == instances_.end() || locks->second.processes == 0);
  const OpenFiles& open = Open();
  const size_t descriptors = open.DescriptorsOf(fifo.status);
  if (!hasNoUsers && !open.SeesAllOf(fifo.status.st_uid, (fifo.status.st_mode & S_IROTH) != 0))
    return void(++unread_);
  if (descriptors != 0 && (*handles < 0 || static_cast<uint64_t>(*handles) <= descriptors)) return;
  const std::string counts = "counts " + Count(*handles, "handle");
  Suspicion& suspicion =
      descriptors == 0
          ? Suspect(
                fifo, Severity::kWarning, "unused-event",
                counts +
                    ", but no process has it open: somebody who had it was killed, and no close is the last",
                "Processes can open it, but none can make it.")
          : Suspect(fifo, Severity::kWarning, "count-too-high",
                    counts + " while " + std::to_string(descriptors) + (descriptors == 1 ? " is" : " are") +
                        " open: somebody who had it was killed, and no close will be the last",
                    "When the product has ended, qvopl doctor --fix or qvopl clean removes it.");
  suspicion.guard = Guard::kEvents;
  suspicion.files.push_back(count);
  suspicion.finding.evidence +=
      " " + std::to_string(*handles) + " " + std::to_string(IdentityOf(count.status).changedNs);
  if (descriptors != 0) return;
  AddRepair(&suspicion, Repair::Action::kRemoveEvent, "removes the FIFO and the count file");
  suspicion.finding.repair->isSure = hasNoUsers || ::geteuid() == 0;
}

}  // namespace qvopl
