#include "tools/qvopl/SystemChecks.h"

#include <climits>
#include <cstdlib>

#include "tools/qvopl/CleanupJobs.h"
#include "tools/qvopl/Limits.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

// As the jobs know it: without links, and from the root.
std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

char TypeOf(const struct stat& status) {
  return S_ISFIFO(status.st_mode)   ? 'p'
         : S_ISSOCK(status.st_mode) ? 's'
         : S_ISDIR(status.st_mode)  ? 'd'
                                    : 'f';
}

std::vector<JobTarget> TargetsIn(const IpcDirectory& directory, const std::string& path) {
  std::vector<JobTarget> targets = UsualTargets(path);
  for (const Entry& entry : directory.Entries())
    targets.push_back({path, entry.file, TypeOf(entry.status), entry.status.st_size == 0});
  return targets;
}

constexpr const char* kHarm[] = {"deletes files of the IPC directory",
                                 "may delete files of the IPC directory",
                                 "deletes the IPC directory itself when it has been empty for that long"};

void CheckJobs(const std::filesystem::path& root, const IpcDirectory& directory, Findings* findings) {
  const std::string path = RealPath(directory.path());
  for (const CleanupJob& job : FindCleanupJobs(root, path, TargetsIn(directory, path)))
    findings->push_back(
        {job.harm == CleanupJob::Harm::kRemovesFiles ? Severity::kError : Severity::kWarning, "clean-up-job",
         job.where, "", std::string(kHarm[static_cast<size_t>(job.harm)]) + ": " + Printable(job.line),
         "Let it leave out names with .006.021, or set QVOPL_IPC_PATH to a directory elsewhere, such as "
         "one below /run, for all processes.",
         std::nullopt, "", true});
}

void CheckLogout(const std::filesystem::path& root, const std::set<uid_t>& owners, Findings* findings) {
  std::string where;
  if (!RemovesIpcAtLogout(root, &where)) return;
  for (const uid_t user : owners) {
    const std::string name = UserName(user);
    if (!IsRemovedAtLogout(root, user, name)) continue;
    findings->push_back(
        {Severity::kError, "removed-at-logout", where.empty() ? "/etc/systemd/logind.conf" : where, "",
         "has the login manager remove all System V objects of " + Printable(name) +
             " when the last session of that user ends (RemoveIPC=yes" +
             (where.empty() ? ", the default)" : ")"),
         "Set RemoveIPC=no there, or run the product as a system user, with an id below 1000.", std::nullopt,
         "", true});
  }
}

std::string Amount(const Limit& limit, uint64_t amount) {
  return limit.unit == Unit::kBytes ? Size(amount) : Number(static_cast<int64_t>(amount));
}

// The command that raises it, where one does.
std::string AdviceFor(const Limit& limit, const std::vector<Raise>& raises) {
  for (const Raise& raise : raises)
    if (std::string_view(limit.setBy).starts_with(raise.name))
      return "Raise it: sysctl -w " + raise.name + "=\"" + raise.to + "\" (it is \"" + raise.now + "\").";
  return std::string("It is set by ") + limit.setBy + "; qvopl limits tells more.";
}

void CheckLimits(const std::string& path, unsigned percent, Findings* findings) {
  const Limits limits(path);
  const std::vector<Raise> raises = limits.Raises(percent);
  for (const Limit& limit : limits.All()) {
    if (!limit.IsTooLow() && !limit.IsNearlyReached(percent)) continue;
    const bool isReached = limit.IsTooLow() || limit.Free() == uint64_t{0};
    findings->push_back({isReached ? Severity::kError : Severity::kWarning, "limit", limit.text, "",
                         limit.IsTooLow()
                             ? "is limited to " + Amount(limit, *limit.most) +
                                   ", of which the library needs " + Amount(limit, *limit.needed)
                             : Amount(limit, *limit.used) + " of at most " + Amount(limit, *limit.most) +
                                   " are used" + (isReached ? ": nothing more can be made" : ""),
                         AdviceFor(limit, raises), std::nullopt, "", true});
  }
}

}  // namespace

void CheckSystem(const std::filesystem::path& root, const IpcDirectory& directory,
                 const std::set<uid_t>& owners, unsigned percent, Findings* findings) {
  CheckJobs(root, directory, findings);
  CheckLogout(root, owners, findings);
  CheckLimits(directory.path(), percent, findings);
}

}  // namespace qvopl
