#include "bench/support/Mutexes.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "bench/support/Processes.h"

namespace oplbench {

void MakeMutexes(int count) {
  constexpr uint16_t kValues[] = {1, OPL_PRIVATE_USE_COUNT_LIMIT};
  const std::string directory = std::getenv("QVOPL_IPC_PATH");
  const std::string suffix =
      std::string(".mutex.") + OPL_InitInstanceStringGet() + "." + OPL_InitBuildVersionStringGet(0);
  for (int i = 0; i < count; ++i) {
    const std::string file = directory + "/b" + std::to_string(i) + suffix;
    int32_t id = -1;
    Require(OPL_PrivateSemIdCreate(file.c_str(), 0600, 0600, 2, kValues, &id) == OPL_OK,
            "OPL_PrivateSemIdCreate");
  }
}

}  // namespace oplbench
