// The list of objects as list and watch show it.
#ifndef QVOPL_TOOL_LISTING_H
#define QVOPL_TOOL_LISTING_H

#include <string>
#include <vector>

#include "tools/qvopl/Changes.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Table.h"

namespace qvopl {

// Lines of all groups, each with its title; with marks and rates, if there are changes to tell.
std::vector<std::string> LinesOf(const std::vector<Group>& groups, int64_t now, const Screen& screen,
                                 const Changes* changes = nullptr);

}  // namespace qvopl

#endif
