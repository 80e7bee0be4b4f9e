// What changes an instance is done by a process of its own, as one of the instance's: it has the instance's
// string, may begin the library, and what it holds goes with it, however it ends.
#ifndef QVOPL_TOOL_INSTANCE_PROCESS_H
#define QVOPL_TOOL_INSTANCE_PROCESS_H

#include <functional>
#include <string>

#include "tools/qvopl/Settings.h"

namespace qvopl {

// Runs the work in a forked process and yields what it returns: empty for success, else why not. It is ended
// when it takes longer than some seconds, as it does where a lock is never given back. settings is what the
// program's instance string is taken from; in the forked process alone it is changed.
std::string RunInInstance(Settings* settings, const std::string& instance,
                          const std::function<std::string()>& work);

// For the work: the library begun and ended around it. "" or why not.
std::string WithLibrary(const std::function<std::string()>& work);

// Whether a person can be asked.
bool CanAsk(const Settings& settings);

// Asks; yes only where the answer begins with a y.
bool Ask(const std::string& question);

}  // namespace qvopl

#endif
