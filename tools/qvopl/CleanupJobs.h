// Jobs of the system that tidy up: which of them would take files out of an IPC directory, read off their
// configuration. Object files have times in the year 2036, so a job that goes by the times of access or
// modification leaves them alone; one that goes by the time of change, or by none, does not.
#ifndef QVOPL_TOOL_CLEANUP_JOBS_H
#define QVOPL_TOOL_CLEANUP_JOBS_H

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tools/qvopl/FindExpression.h"

namespace qvopl {

struct CleanupJob {
  enum class Harm { kRemovesFiles, kMayRemoveFiles, kRemovesDirectory };

  std::string where;  // "/etc/cron.d/tidy:3"
  std::string line;   // as it stands there
  Harm harm;
};

// root is where the system's configuration lies: "/", or the root of another system. targets are files of the
// directory, at least one.
std::vector<CleanupJob> FindCleanupJobs(const std::filesystem::path& root, const std::string& directory,
                                        const std::vector<JobTarget>& targets);

// What a directory holds where it is empty: one file of each kind.
std::vector<JobTarget> UsualTargets(const std::string& directory);

// Whether the login manager removes a user's System V objects when the last session of that user ends; where
// is the file that says so, empty for the manager's default.
bool RemovesIpcAtLogout(const std::filesystem::path& root, std::string* where);
// Whether it does so with this user: not with those of the system, nor with those whom it lets linger.
bool IsRemovedAtLogout(const std::filesystem::path& root, uid_t user, const std::string& userName);

}  // namespace qvopl

#endif
