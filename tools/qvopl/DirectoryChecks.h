// The IPC directory itself: where it lies, and who may do what in it.
#ifndef QVOPL_TOOL_DIRECTORY_CHECKS_H
#define QVOPL_TOOL_DIRECTORY_CHECKS_H

#include <cstdint>
#include <string>

#include "tools/qvopl/Finding.h"

namespace qvopl {

// Why named objects do not work on a file system of that type, as statfs tells it; null where they do.
const char* WhyNotOnFileSystem(uint64_t type);

// Adds what is wrong with the directory.
void CheckDirectory(const std::string& path, Findings* findings);

}  // namespace qvopl

#endif
