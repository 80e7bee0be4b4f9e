// qvopl show: all about one object.
#include "tools/qvopl/Command.h"

namespace qvopl {

void AddShowCommand(const Program& /*program*/) {}

}  // namespace qvopl
