// What is wrong around the IPC directory: jobs that tidy it up, the login manager, limits.
#ifndef QVOPL_TOOL_SYSTEM_CHECKS_H
#define QVOPL_TOOL_SYSTEM_CHECKS_H

#include <filesystem>
#include <set>
#include <string>

#include "tools/qvopl/Finding.h"
#include "tools/qvopl/IpcDirectory.h"

namespace qvopl {

// root is where the system's configuration lies; owners are those of the instances' objects; from percent on
// a limit counts as nearly reached.
void CheckSystem(const std::filesystem::path& root, const IpcDirectory& directory,
                 const std::set<uid_t>& owners, unsigned percent, Findings* findings);

}  // namespace qvopl

#endif
