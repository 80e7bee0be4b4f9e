// What names an instance of the product: the IPC directory, the instance string and the build version.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_UserInfo.h"
#include "opl_base/src/FixedText.h"
#include "opl_err/src/Fail.h"
#include "opl_init/src/InitInstance.h"

namespace {

using opl::Code;
using opl::Fail;

constexpr size_t kIpcDirectorySize = 4096;
constexpr size_t kIpcDirectoryLongest = 4094;
constexpr size_t kInstanceSize = 81;
constexpr uint32_t kUserNameSize = 64;

// Written once, by the first reader.
char gIpcDirectory[kIpcDirectorySize] = "/tmp";
pthread_once_t gIpcDirectoryRead = PTHREAD_ONCE_INIT;

// Published once it is whole, and never changed after.
std::atomic<const char*> gInstanceString{nullptr};

// The instance string that the library makes when the host program names none; gMakerLock guards the making.
char gDefaultInstance[kInstanceSize];
pthread_mutex_t gMakerLock = PTHREAD_MUTEX_INITIALIZER;

void ReadIpcDirectory() {
  // Reading is safe among threads as long as the program changes its environment before it starts them.
  const char* const value = std::getenv("QVOPL_IPC_PATH");  // NOLINT(concurrency-mt-unsafe)
  if (value == nullptr) return;
  opl::CopyText(gIpcDirectory, kIpcDirectoryLongest + 1, value);
}

uint32_t DrawInstanceNumber() {
  auto seed = static_cast<uint32_t>(std::time(nullptr));
  const double share = OPL_CrtRand(&seed) / 2147483647.0;
  return static_cast<uint32_t>(share * 65535.0) & 0xFFFFu;
}

// The number comes from the time in seconds alone: two processes that start in one second without a name from
// their host program get the same instance.
const char* OPL_InitInstanceStringSet() {
  (void)::pthread_mutex_lock(&gMakerLock);
  if (gDefaultInstance[0] == '\0') {
    char user[kUserNameSize + 1] = "";
    if (OPL_UserInfoUserNameGet(0, user, kUserNameSize) != OPL_OK) opl::CopyText(user, "UNKNOWN");
    (void)OPL_CrtSNPrintf(gDefaultInstance, kInstanceSize, "%s.%u.%s", "PRIVATE", DrawInstanceNumber(), user);
  }
  (void)::pthread_mutex_unlock(&gMakerLock);
  return gDefaultInstance;
}

}  // namespace

namespace opl {

void FindIPCPath(char* buffer, uint32_t size) {
  (void)::pthread_once(&gIpcDirectoryRead, ReadIpcDirectory);
  if (buffer != nullptr) CopyText(buffer, size, gIpcDirectory);
}

}  // namespace opl

OPL_Result OPL_InitIPCPathGet(uint32_t mode, char* buffer, uint32_t size) {
  if (mode != 0) return Fail(OPL_INIT_E_INVALID_MODE, "%s: Invalid mode %lu", mode);
  opl::FindIPCPath(buffer, size);
  return OPL_OK;
}

const char* OPL_InitInstanceStringGet() {
  if (const char* const known = gInstanceString.load(std::memory_order_acquire)) return known;

  // The handle is not closed: it stands for the process itself.
  void* const process = ::dlopen(nullptr, RTLD_LAZY);
  if (process == nullptr) return nullptr;
  const auto callback = reinterpret_cast<OPL_InitInstanceStringSetCallbackType>(
      ::dlsym(process, "OPL_InitInstanceStringSetCallback"));
  const char* const made = callback != nullptr ? callback() : OPL_InitInstanceStringSet();

  // The first thread's string is everybody's, should two of them have got here at once.
  const char* known = nullptr;
  return gInstanceString.compare_exchange_strong(known, made, std::memory_order_acq_rel) ? made : known;
}

const char* OPL_InitBuildVersionStringGet(uint32_t mode) { return mode == 0 ? "006.021" : nullptr; }

const char* GetQvoplFullVerID() {
  return "\nTalvenMeridianLibrary:qvopl version:006.021.4036.0 date:20040205\n";
}
