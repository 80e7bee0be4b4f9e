#include "tools/qvopl/Diagnosis.h"

#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <thread>
#include <tuple>

#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr char kEventMutex[] = "QVMXEV";

// The lock of the management set that each kind's makers and removers hold; of events it is a mutex.
int LockOf(Guard guard) {
  if (guard == Guard::kSegments) return opl::MgmtSet::kSharedMemLock;
  return guard == Guard::kRWLocks ? opl::MgmtSet::kRWLockLock : opl::MgmtSet::kMutexLock;
}

// A set that may not be read, or is gone, has no lock that could be seen held.
bool IsFree(int32_t set, int semaphore) { return set == -1 || ::semctl(set, semaphore, GETVAL) != 0; }

// What makes it the same finding in the next look.
auto KeyOf(const Finding& finding) { return std::tie(finding.name, finding.subject, finding.evidence); }

// Leaves those that come again; one that was settled once is.
void KeepSame(const Findings& now, Findings* kept) {
  std::map<decltype(KeyOf(now.front())), const Finding*> again;
  for (const Finding& finding : now) again.emplace(KeyOf(finding), &finding);
  std::erase_if(*kept, [&](Finding& finding) {
    const auto found = again.find(KeyOf(finding));
    if (found == again.end()) return true;
    finding.isSettled |= found->second->isSettled;
    return false;
  });
}

}  // namespace

FileIdentity IdentityOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_ctim.tv_sec * int64_t{1000000000} + status.st_ctim.tv_nsec,
          status.st_uid};
}

std::string InstanceOf(const FileName& name) {
  if (name.scope == Scope::kAllUsers) return opl::kAllUsersScope;
  return name.instance;
}

Look::Look(const IpcDirectory& directory, std::optional<std::string> instance, int64_t leastAge)
    : directory_(directory),
      instance_(std::move(instance)),
      leastAge_(leastAge),
      now_(Now()),
      entries_(directory.Entries()) {
  std::erase_if(entries_, [](const Entry& entry) {
    return entry.name.kind != Kind::kListing && entry.name.version != BuildVersion();
  });
  for (const Entry& entry : entries_) byName_[entry.file] = &entry;
}

bool Look::IsWanted(const FileName& name) const {
  return !instance_.has_value() || name.kind == Kind::kListing || InstanceOf(name) == *instance_;
}

const OpenFiles& Look::Open() { return open_.has_value() ? *open_ : open_.emplace(); }

Suspicion& Look::Suspect(const Entry& entry, Severity severity, const char* name, std::string what,
                         std::string advice) {
  const FileIdentity identity = IdentityOf(entry.status);
  Finding finding{severity,
                  name,
                  entry.file,
                  InstanceOf(entry.name),
                  std::move(what),
                  std::move(advice),
                  std::nullopt,
                  std::to_string(identity.inode) + "/" + std::to_string(identity.changedNs),
                  true};
  return suspicions_.emplace_back(Suspicion{std::move(finding), Guard::kNone, {entry}});
}

void Look::AddRepair(Suspicion* suspicion, Repair::Action action, const char* does, int32_t id) {
  const Entry& entry = suspicion->files.front();
  suspicion->finding.repair =
      Repair{action, does, entry.file, IdentityOf(entry.status), entry.name, id, entry.status.st_uid, true};
}

// Files are found by their ids first: what one of them names is no orphan.
void Look::FindInstances() {
  for (const Entry& entry : entries_) {
    const Kind kind = entry.name.kind;
    const bool namesSet = kind == Kind::kManagement || kind == Kind::kMutex || kind == Kind::kRWLock;
    if (!namesSet && kind != Kind::kSegment) continue;
    if (!S_ISREG(entry.status.st_mode)) continue;
    const Word word = directory_.ReadWord(entry);
    if (word.reading != Reading::kDone) continue;
    (namesSet ? namedSets_ : namedSegments_).insert(word.value);
    if (entry.name.isTemporary || entry.name.scope != Scope::kInstance) continue;
    if (kind == Kind::kManagement) {
      InstanceLocks& locks = instances_[entry.name.instance];
      locks.management = word.value;
      const int free = ::semctl(word.value, opl::MgmtSet::kUseCount, GETVAL);
      locks.processes = free != -1 ? opl::kUseCountLimit - free : 0;
      hasStrangers_ |= ::semctl(word.value, opl::MgmtSet::kUseCount, GETPID) == 0;
    }
    if (kind == Kind::kMutex && entry.name.name == kEventMutex)
      instances_[entry.name.instance].events = word.value;
  }
}

Findings Look::Diagnose() {
  FindInstances();
  for (const Entry& entry : entries_) {
    if (entry.name.scope == Scope::kInstance) owners_.insert(entry.status.st_uid);
    if (IsWanted(entry.name)) Check(entry);
  }
  CheckOwners();
  CheckUnnamedSets();
  CheckUnnamedSegments();
  CheckNamespaces();
  DropWhatWorksOn();
  Findings findings;
  for (Suspicion& suspicion : suspicions_) findings.push_back(std::move(suspicion.finding));
  return findings;
}

void Look::Check(const Entry& entry) {
  if (entry.name.kind == Kind::kListing) return CheckListing(entry);
  if (entry.name.isTemporary) return CheckTemporary(entry);
  switch (entry.name.kind) {
    case Kind::kManagement:
    case Kind::kMutex:
    case Kind::kRWLock:
      return CheckSet(entry);
    case Kind::kSegment:
      return CheckSegment(entry);
    case Kind::kEvent:
      return CheckEvent(entry);
    case Kind::kLockFile:
      return CheckLockFile(entry);
    case Kind::kSocket:
      return CheckSocket(entry);
    case Kind::kServer:
      return CheckServer(entry);
    case Kind::kSemaphores:
    case Kind::kMessageQueue:
      return CheckRegistration(entry);
    case Kind::kListing:
      return;
  }
}

// Whether nobody holds the lock that makers and removers of such an object hold. Objects of all users are
// made and removed under any instance's.
bool Look::IsQuiet(const Suspicion& suspicion) {
  if (suspicion.guard == Guard::kNone) return true;
  if (suspicion.guard == Guard::kProcesses) return !HasLibraryUsers();
  return std::all_of(instances_.begin(), instances_.end(), [&](const auto& each) {
    const auto& [instance, locks] = each;
    const std::string& own = suspicion.finding.instance;
    if (instances_.contains(own) && own != instance) return true;
    return suspicion.guard == Guard::kEvents ? IsFree(locks.events, opl::MutexSet::kLock)
                                             : IsFree(locks.management, LockOf(suspicion.guard));
  });
}

void Look::DropWhatWorksOn() {
  for (Suspicion& suspicion : suspicions_) {
    suspicion.finding.isSettled = IsQuiet(suspicion);
    suspicion.finding.countsInTheEnd = suspicion.guard == Guard::kProcesses;
  }
  std::erase_if(suspicions_, [&](const Suspicion& suspicion) {
    return std::any_of(suspicion.files.begin(), suspicion.files.end(), [&](const Entry& entry) {
      const auto status = directory_.StatusOf(entry.file);
      return !status.has_value() || !(IdentityOf(*status) == IdentityOf(entry.status));
    });
  });
}

Diagnosis DiagnoseObjects(const IpcDirectory& directory, const std::optional<std::string>& instance,
                          int64_t leastAge) {
  using Clock = std::chrono::steady_clock;
  constexpr int kLeastLooks = 3;
  constexpr std::chrono::milliseconds kLeastTime{600};
  constexpr std::chrono::seconds kMostTime{5};
  std::chrono::milliseconds pause{50};
  const auto start = Clock::now();
  Diagnosis diagnosis;
  for (int looks = 1;; ++looks) {
    Look look(directory, instance, leastAge);
    const Findings now = look.Diagnose();
    Findings& kept = diagnosis.findings;
    if (looks == 1) kept = now;
    KeepSame(now, &kept);
    diagnosis.objects = look.ObjectCount();
    diagnosis.instances = look.Instances().size();
    diagnosis.unread = look.UnreadCount();
    diagnosis.owners = look.Owners();
    const bool isSettled =
        std::all_of(kept.begin(), kept.end(), [](const Finding& each) { return each.isSettled; });
    const auto passed = Clock::now() - start;
    if (kept.empty() || (isSettled && looks >= kLeastLooks && passed >= kLeastTime) || passed > kMostTime)
      break;
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, std::chrono::milliseconds{400});
  }
  diagnosis.unsettled = std::erase_if(
      diagnosis.findings, [](const Finding& each) { return !each.isSettled && !each.countsInTheEnd; });
  return diagnosis;
}

}  // namespace qvopl
