// qvopl watch: the list, live.
#include "tools/qvopl/Command.h"

namespace qvopl {

void AddWatchCommand(const Program& /*program*/) {}

}  // namespace qvopl
