// What belongs to no file: sets and segments whose makers were killed before they wrote an id down, and those
// whose files were taken away. And what stands between processes: owners, and namespaces.
#include <pwd.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "opl_private/src/SystemV.h"
#include "tools/qvopl/Diagnosis.h"
#include "tools/qvopl/Settings.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr int kLimit = opl::kUseCountLimit;
constexpr char kDefaultDirectory[] = "/tmp";

// The library makes its objects with the private key.
bool IsPrivateSet(int32_t id) {
  semid_ds status{};
  opl::SemctlArgument argument{};
  argument.status = &status;
  return ::semctl(id, 0, IPC_STAT, argument) != -1 && status.sem_perm.__key == IPC_PRIVATE;
}

bool IsPrivateSegment(int32_t id) {
  shmid_ds status{};
  return ::shmctl(id, IPC_STAT, &status) != -1 && status.shm_perm.__key == IPC_PRIVATE;
}

bool IsObjectMode(uint32_t mode) { return mode == 0600 || mode == 0666 || mode == 0; }

struct Guess {
  const char* what;
  size_t useCount;
};

// What a set is by its values alone; nothing else has a count that is about that large.
std::optional<Guess> GuessOf(const std::vector<Semaphore>& semaphores) {
  const auto value = [&](size_t index) { return semaphores[index].value; };
  const auto isCount = [&](size_t index) { return value(index) > kLimit / 2 && value(index) <= kLimit; };
  if (semaphores.size() == opl::MutexSet::kSemaphoreCount && value(0) <= 1 &&
      isCount(opl::MutexSet::kUseCount))
    return Guess{"mutex", opl::MutexSet::kUseCount};
  if (semaphores.size() != opl::RWLockSet::kSemaphoreCount) return std::nullopt;
  if (value(0) + value(1) == 1 && isCount(opl::RWLockSet::kUseCount))
    return Guess{"read-write lock", opl::RWLockSet::kUseCount};
  if (isCount(opl::MgmtSet::kUseCount) && value(1) <= 1 && value(2) <= 1 && value(3) <= 1)
    return Guess{"management set", opl::MgmtSet::kUseCount};
  return std::nullopt;
}

bool IsBlank(const std::vector<Semaphore>& semaphores) {
  return (semaphores.size() == opl::MutexSet::kSemaphoreCount ||
          semaphores.size() == opl::RWLockSet::kSemaphoreCount) &&
         std::all_of(semaphores.begin(), semaphores.end(),
                     [](const Semaphore& each) { return each.value == 0 && each.last == 0; });
}

// The IPC directory that a process was started with; empty where that cannot be told.
std::string DirectoryOf(pid_t pid) {
  constexpr std::string_view kVariable = "QVOPL_IPC_PATH=";
  std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
  if (!file) return "";
  for (std::string word; std::getline(file, word, '\0');)
    if (word.starts_with(kVariable)) return word.substr(kVariable.size());
  return kDefaultDirectory;
}

// As the process itself sees it.
bool StatIn(pid_t pid, const std::string& path, struct stat* status) {
  const std::string prefix = "/proc/" + std::to_string(pid) + (path.starts_with('/') ? "/root" : "/cwd/");
  return ::stat((prefix + path).c_str(), status) == 0;
}

bool IsSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool HasDirectory(pid_t pid, const struct stat& directory) {
  struct stat status {};
  const std::string path = DirectoryOf(pid);
  return !path.empty() && StatIn(pid, path, &status) && IsSameFile(status, directory);
}

// The ids in the files of all IPC directories that anybody with the same System V objects is known to have.
struct Ids {
  std::set<int32_t> sets;
  std::set<int32_t> segments;
};

void AddIdsOf(const std::string& path, Ids* ids) try {
  const IpcDirectory directory(path);
  for (const Entry& entry : directory.Entries()) {
    const bool isSegment = entry.name.kind == Kind::kSegment;
    const Word word = directory.ReadWord(entry);
    if (word.reading == Reading::kDone) (isSegment ? ids->segments : ids->sets).insert(word.value);
  }
} catch (const CouldNotLook&) {
  // Another product's directory is its own affair.
}

Ids IdsElsewhere() {
  std::set<std::string> paths{kDefaultDirectory};
  const char* const own = std::getenv("QVOPL_IPC_PATH");
  if (own != nullptr && *own != '\0') paths.insert(own);
  const std::string space = IpcNamespaceOf(::getpid());
  for (const pid_t pid : Processes::All()) {
    const std::string other = IpcNamespaceOf(pid);
    if (!other.empty() && other != space) continue;
    const std::string path = DirectoryOf(pid);
    if (path.starts_with('/')) paths.insert("/proc/" + std::to_string(pid) + "/root" + path);
  }
  Ids ids;
  std::set<std::pair<dev_t, ino_t>> seen;
  for (const std::string& path : paths) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && seen.insert({status.st_dev, status.st_ino}).second)
      AddIdsOf(path, &ids);
  }
  return ids;
}

std::string NameOfUser(uid_t user) {
  const passwd* const entry = ::getpwuid(user);
  return entry != nullptr ? entry->pw_name : std::to_string(user);
}

}  // namespace

std::optional<size_t> UseCountOfOrphan(const SetStatus& set) {
  const std::optional<Guess> guess = GuessOf(set.semaphores);
  if (!guess.has_value() || set.semaphores[guess->useCount].value != kLimit) return std::nullopt;
  return guess->useCount;
}

bool Look::HasLibraryUsers() {
  struct stat directory {};
  if (::fstat(directory_.fd(), &directory) == -1) return true;
  const std::vector<pid_t>& users = processes_.LibraryUsers();
  return std::any_of(users.begin(), users.end(),
                     [&](pid_t pid) { return pid != ::getpid() && HasDirectory(pid, directory); });
}

// A private object of another user than the instance's is one that the instance's processes cannot use.
void Look::CheckOwners() {
  std::map<std::string, std::set<uid_t>> owners;
  for (const Entry& entry : entries_)
    if (entry.name.scope == Scope::kInstance && !entry.name.isTemporary && IsWanted(entry.name))
      owners[entry.name.instance].insert(entry.status.st_uid);
  for (const Entry& entry : entries_) {
    if (entry.name.kind != Kind::kManagement || entry.name.isTemporary || !IsWanted(entry.name)) continue;
    const std::set<uid_t>& all = owners[entry.name.instance];
    if (all.size() < 2) continue;
    std::string others;
    for (const uid_t user : all)
      if (user != entry.status.st_uid) others += (others.empty() ? "" : ", ") + NameOfUser(user);
    Suspect(entry, Severity::kError, "several-owners",
            "belongs to " + NameOfUser(entry.status.st_uid) + ", while objects of its instance belong to " +
                others + ": the processes of one cannot use what the other's made",
            "Run all processes of an instance as one user, and remove what the wrong one has made.");
  }
}

void Look::CheckUnnamedSets() {
  std::optional<Ids> elsewhere;
  const bool isRoot = ::geteuid() == 0;
  for (const auto& [id, row] : systemV_.Sets()) {
    if (namedSets_.contains(id) || !IsObjectMode(row.permissions.mode) ||
        (row.count != opl::MutexSet::kSemaphoreCount && row.count != opl::RWLockSet::kSemaphoreCount) ||
        (!isRoot && row.permissions.owner != ::geteuid()))
      continue;
    SetStatus set;
    if (systemV_.LookAt(id, &set) != Sight::kSeen || !IsPrivateSet(id)) continue;
    if (!elsewhere.has_value()) elsewhere = IdsElsewhere();
    if (!elsewhere->sets.contains(id)) CheckUnnamedSet(set);
  }
}

void Look::CheckUnnamedSet(const SetStatus& set) {
  const std::optional<Guess> guess = GuessOf(set.semaphores);
  const std::string subject = "semaphore set " + std::to_string(set.id);
  Finding finding{
      Severity::kNote, "orphan-set", subject, "", "", "", std::nullopt, std::to_string(set.changed), true};
  Repair repair{Repair::Action::kRemoveOrphanSet,
                "removes the set",
                "",
                {},
                std::nullopt,
                set.id,
                set.permissions.owner,
                true};
  if (guess.has_value() && set.semaphores[guess->useCount].value == kLimit) {
    const pid_t last = set.semaphores[guess->useCount].last;
    if (!IsGone(last)) return;
    finding.what = std::string("is a ") + guess->what + " of user " + NameOfUser(set.permissions.owner) +
                   " that no file names and nobody uses; process " + std::to_string(last) +
                   ", its last, is gone";
    finding.advice = "Nobody can find it any more.";
    finding.repair = repair;
  } else if (guess.has_value()) {
    const pid_t last = set.semaphores[guess->useCount].last;
    struct stat directory {};
    if (last <= 0 || IsGone(last) || ::fstat(directory_.fd(), &directory) == -1 ||
        !HasDirectory(last, directory))
      return;
    finding.severity = Severity::kError;
    finding.name = "file-removed";
    finding.what = std::string("is a ") + guess->what + " that " +
                   Count(kLimit - set.semaphores[guess->useCount].value, "handle") + " use, " +
                   processes_.Describe(last) +
                   " among them, but no file names it any more: others make a new one";
    finding.advice = "Restart the product, and look for the job that removes files from the directory.";
  } else if (IsBlank(set.semaphores) && set.operated == 0 && now_ - set.changed >= leastAge_) {
    finding.what = "of user " + NameOfUser(set.permissions.owner) +
                   " was never used, and no file names it: its maker was killed";
    finding.advice =
        "It may be another program's as well: ipcrm -s " + std::to_string(set.id) + " removes it.";
    repair.isSure = false;
    finding.repair = repair;
  } else {
    return;
  }
  suspicions_.push_back({std::move(finding), Guard::kNone, {}});
}

// A segment without a user that never had one, and whose maker is dead: what it was for, only that one knew.
void Look::CheckUnnamedSegments() {
  std::optional<Ids> elsewhere;
  const bool isRoot = ::geteuid() == 0;
  for (const auto& [id, row] : systemV_.Segments()) {
    if (namedSegments_.contains(id) || row.attached != 0 || row.attachedAt != 0 || row.isRemoved ||
        !IsObjectMode(row.permissions.mode) || row.size < sizeof(opl::SegmentHeader) || row.creator == 0 ||
        !IsGone(row.creator) || (!isRoot && row.permissions.owner != ::geteuid()) || !IsPrivateSegment(id))
      continue;
    if (!elsewhere.has_value()) elsewhere = IdsElsewhere();
    if (elsewhere->segments.contains(id)) continue;
    Finding finding{Severity::kNote,
                    "orphan-segment",
                    "segment " + std::to_string(id),
                    "",
                    "of user " + NameOfUser(row.permissions.owner) + ", " + Size(row.size) +
                        ", was never used, and no file names it; its maker, process " +
                        std::to_string(row.creator) + ", is gone",
                    "It may be another program's as well: ipcrm -m " + std::to_string(id) + " removes it.",
                    Repair{Repair::Action::kRemoveOrphanSegment,
                           "removes the segment",
                           "",
                           {},
                           std::nullopt,
                           id,
                           row.permissions.owner,
                           false},
                    std::to_string(row.changed),
                    true};
    suspicions_.push_back({std::move(finding), Guard::kNone, {}});
  }
}

// A process of another IPC namespace takes every object of this one for gone, and this one its: then such
// files are not left behind.
void Look::CheckNamespaces() {
  const auto isStale = [](const Suspicion& each) { return each.finding.name == "stale-file"; };
  struct stat directory {};
  if (std::none_of(suspicions_.begin(), suspicions_.end(), isStale) ||
      ::fstat(directory_.fd(), &directory) == -1)
    return;
  const std::string own = IpcNamespaceOf(::getpid());
  for (const pid_t pid : processes_.LibraryUsers()) {
    const std::string other = IpcNamespaceOf(pid);
    if (other.empty() || other == own || !HasDirectory(pid, directory)) continue;
    std::erase_if(suspicions_, isStale);
    Finding finding{Severity::kError,
                    "ipc-namespace-differs",
                    directory_.path(),
                    "",
                    "is shared with " + processes_.Describe(pid) +
                        ", which has other System V objects: each side takes the files of the other for left "
                        "behind, and removes them",
                    "Give containers both the directory and the IPC namespace, or neither. Objects of that "
                    "side are seen with: nsenter -i -t " +
                        std::to_string(pid) + " qvopl list",
                    std::nullopt,
                    other,
                    true};
    suspicions_.push_back({std::move(finding), Guard::kNone, {}});
    return;
  }
}

}  // namespace qvopl
