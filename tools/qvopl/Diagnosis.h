// What is wrong with the objects of an IPC directory, told from what can be read without disturbing them.
//
// Processes come and go while this looks, and what is torn down between two of their steps looks like what a
// killed process left. Three things keep the two apart:
//   - the library's own locks: while the lock of its kind is free, nobody is between two steps. The locks are
//     read after what looks wrong, and the files once more after the locks;
//   - processes: what a dead one was about to do is not done any more;
//   - a second and a third look: what is wrong with an object that stays the same object is wrong.
#ifndef QVOPL_TOOL_DIAGNOSIS_H
#define QVOPL_TOOL_DIAGNOSIS_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/qvopl/Finding.h"
#include "tools/qvopl/IpcDirectory.h"
#include "tools/qvopl/OpenFiles.h"
#include "tools/qvopl/Processes.h"
#include "tools/qvopl/SystemV.h"

namespace qvopl {

// Whose locks tell whether what looks wrong is just being worked on.
// Where there is no lock, whoever has the library loaded may be the one.
enum class Guard { kNone, kSegments, kRWLocks, kMutexes, kEvents, kProcesses };

// The sets that an instance's locks are in; -1 where there is none, and so nobody who holds any.
struct InstanceLocks {
  int32_t management = -1;
  int32_t events = -1;
  int processes = 0;  // that the management set counts
};

struct Suspicion {
  Finding finding;
  Guard guard = Guard::kNone;
  std::vector<Entry> files;  // that must stand as they did
};

// One look at everything.
class Look {
 public:
  Look(const IpcDirectory& directory, std::optional<std::string> instance, int64_t leastAge);

  Findings Diagnose();

  size_t ObjectCount() const { return entries_.size(); }
  // Files and objects that this user may not look at.
  size_t UnreadCount() const { return unread_; }
  // Owners of the instances' objects.
  const std::set<uid_t>& Owners() const { return owners_; }
  const std::map<std::string, InstanceLocks>& Instances() const { return instances_; }

 private:
  void FindInstances();
  void Check(const Entry& entry);
  void CheckTemporary(const Entry& entry);
  void CheckSet(const Entry& entry);
  void CheckSetValues(const Entry& entry, const SetStatus& set);
  void CheckManagement(const Entry& entry, const SetStatus& set);
  void CheckSegment(const Entry& entry);
  void CheckSegmentCount(const Entry& entry, const SegmentStatus& segment);
  void CheckEvent(const Entry& entry);
  void CheckWholeEvent(const Entry& fifo, const Entry& count);
  void CheckLockFile(const Entry& entry);
  void CheckSocket(const Entry& entry);
  void CheckServer(const Entry& entry);
  void CheckRegistration(const Entry& entry);
  void CheckListing(const Entry& entry);
  void CheckOwners();
  void CheckUnnamedSets();
  void CheckUnnamedSet(const SetStatus& set);
  void CheckUnnamedSegments();
  void CheckNamespaces();

  bool HasType(const Entry& entry, mode_t type);
  std::optional<int32_t> IdIn(const Entry& entry);
  // Nothing where the object is gone, or another owner's; either is told.
  template <typename Status>
  std::optional<Status> ObjectOf(const Entry& entry, const char* what);

  bool IsWanted(const FileName& name) const;
  const OpenFiles& Open();
  Suspicion& Suspect(const Entry& entry, Severity severity, const char* name, std::string what,
                     std::string advice);
  static void AddRepair(Suspicion* suspicion, Repair::Action action, const char* does, int32_t id = -1);
  void DropWhatWorksOn();
  bool IsQuiet(const Suspicion& suspicion);
  // Whether a process that lives has the library loaded, and this IPC directory.
  bool HasLibraryUsers();

  const IpcDirectory& directory_;
  const std::optional<std::string> instance_;
  const int64_t leastAge_;
  const int64_t now_;
  std::vector<Entry> entries_;
  std::map<std::string, const Entry*> byName_;
  SystemV systemV_;
  Processes processes_;
  std::optional<OpenFiles> open_;
  std::optional<std::set<std::string>> sockets_;
  std::map<std::string, InstanceLocks> instances_;
  std::set<uid_t> owners_;
  std::set<int32_t> namedSets_;
  std::set<int32_t> namedSegments_;
  // Processes of other containers work here: the ids in files are theirs, and tell nothing.
  bool hasStrangers_ = false;
  size_t unread_ = 0;
  std::vector<Suspicion> suspicions_;
};

// Where looks are repeated: until what looks wrong has stayed the same for a while, or has turned out to be
// somebody's work.
struct Diagnosis {
  Findings findings;
  size_t unsettled = 0;  // that somebody may have been working on all the time
  size_t objects = 0;
  size_t instances = 0;
  size_t unread = 0;
  std::set<uid_t> owners;
};

Diagnosis DiagnoseObjects(const IpcDirectory& directory, const std::optional<std::string>& instance,
                          int64_t leastAge);

// The use count's index of a set that no file names and nobody uses, if its values are the library's.
std::optional<size_t> UseCountOfOrphan(const SetStatus& set);

// "shop"; "all" for objects of all users, empty for those of no scope.
std::string InstanceOf(const FileName& name);

FileIdentity IdentityOf(const struct stat& status);

}  // namespace qvopl

#endif
