// What --fix does about what doctor has found.
#ifndef QVOPL_TOOL_REPAIRS_H
#define QVOPL_TOOL_REPAIRS_H

#include <map>
#include <string>

#include "tools/qvopl/Finding.h"
#include "tools/qvopl/Settings.h"

namespace qvopl {

// Does it, after another look under the locks of the instance; "" or why it was left alone. Only objects of
// the calling user are touched.
std::string DoRepair(Settings* settings, const Repair& repair);

}  // namespace qvopl

#endif
