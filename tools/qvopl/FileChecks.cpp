// What is wrong with files that stand for themselves: those that are being made, lock files, sockets,
// controller files, registrations.
#include "tools/qvopl/Diagnosis.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

int64_t ChangedAt(const Entry& entry) { return entry.status.st_ctim.tv_sec; }

}  // namespace

// The maker was seen dead before the file is looked at again: what is still there then is left for good.
void Look::CheckTemporary(const Entry& entry) {
  const pid_t maker = entry.name.maker;
  if (hasStrangers_ || !IsGoneSince(maker, ChangedAt(entry))) return;
  const bool isPublished = entry.status.st_nlink > 1;
  Suspicion& suspicion = Suspect(
      entry, Severity::kNote, "temporary-file",
      "was left by process " + std::to_string(maker) + ", which was killed while it made an object",
      isPublished ? "The object has its own name as well, and is whole." : "Nobody can find what it names.");
  const bool hasObject = entry.name.kind == Kind::kManagement || entry.name.kind == Kind::kMutex ||
                         entry.name.kind == Kind::kRWLock || entry.name.kind == Kind::kSegment;
  AddRepair(
      &suspicion, Repair::Action::kRemoveTemporary,
      hasObject && !isPublished ? "removes the file, and the object that it names" : "removes the file");
}

void Look::CheckListing(const Entry& entry) {
  const pid_t maker = entry.name.maker;
  if (hasStrangers_ || !IsGoneSince(maker, ChangedAt(entry)) || !S_ISREG(entry.status.st_mode)) return;
  Suspicion& suspicion = Suspect(entry, Severity::kNote, "listing-file",
                                 "was left by process " + std::to_string(maker) +
                                     ", which was killed while it listed a server's processes",
                                 "Nobody reads it any more.");
  AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
}

// One whose lock was given back by a living owner is open there.
void Look::CheckLockFile(const Entry& entry) {
  if (!HasType(entry, S_IFREG)) return;
  const OpenFiles& open = Open();
  if (open.DescriptorsOf(entry.status) != 0) return;
  if (!open.SeesAllOf(entry.status.st_uid, false)) return void(++unread_);
  Suspicion& suspicion =
      Suspect(entry, Severity::kNote, "unused-lock-file",
              "was left by a process that was killed: nobody holds it", "Who creates it next replaces it.");
  AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
}

void Look::CheckSocket(const Entry& entry) {
  if (!HasType(entry, S_IFSOCK)) return;
  if (!sockets_.has_value()) sockets_ = BoundSocketNames();
  if (sockets_->contains(entry.file)) return;
  Suspicion& suspicion =
      Suspect(entry, Severity::kWarning, "dead-socket",
              "was left by a process that was killed: no socket is bound to it, and none can be",
              "Nobody can bind the name before the file is removed.");
  AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
}

void Look::CheckServer(const Entry& entry) {
  if (!HasType(entry, S_IFREG)) return;
  const std::optional<int32_t> process = IdIn(entry);
  if (!process.has_value() || (*process > 0 && (hasStrangers_ || !IsGoneSince(*process, ChangedAt(entry)))))
    return;
  Suspicion& suspicion =
      Suspect(entry, Severity::kNote, "dead-server",
              *process > 0 ? "names process " + std::to_string(*process) + " as the server's, which is gone"
                           : "names no process (" + std::to_string(*process) + ")",
              "The next start of the server writes its own into it.");
  suspicion.finding.evidence += " " + std::to_string(*process);
  AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file", *process);
}

void Look::CheckRegistration(const Entry& entry) {
  const bool isSet = entry.name.kind == Kind::kSemaphores;
  const std::string what = isSet ? "semaphore set" : "message queue";
  SetStatus set;
  QueueStatus queue;
  if (entry.name.nativeId.has_value()) {
    const auto id = static_cast<int32_t>(*entry.name.nativeId);
    if ((isSet ? systemV_.LookAt(id, &set) : systemV_.LookAt(id, &queue)) != Sight::kGone) return;
  }
  Suspicion& suspicion =
      Suspect(entry, Severity::kNote, "stale-registration",
              entry.name.nativeId.has_value()
                  ? "registers the " + what + " " + std::to_string(*entry.name.nativeId) + ", which is gone"
                  : "registers nothing: no number stands in its name",
              "qvopl clean will tell a failure of it.");
  suspicion.guard = Guard::kProcesses;
  AddRepair(&suspicion, Repair::Action::kRemoveFile, "removes the file");
}

}  // namespace qvopl
