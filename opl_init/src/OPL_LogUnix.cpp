// The diagnostic log: each record goes to a common file and to one of the process alone. It uses nothing that
// needs the library to be begun, because it reports what keeps the library from beginning.
#include <fcntl.h>
#include <sys/uio.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Thread.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Retry.h"
#include "opl_mem/src/Owned.h"

namespace {

constexpr size_t kLogNameSize = 256;
constexpr size_t kFileNameSize = 1024;
constexpr size_t kHeaderSize = 256;
constexpr size_t kFallbackSize = 512;
constexpr size_t kDateLength = 19;  // weekday, month, day and time, without the year
constexpr char kDefaultLogName[] = "qvopl";

// Set by OPL_LogSetFilename before other threads log; empty stands for kDefaultLogName.
char gLogName[kLogNameSize];

// What the environment said once it was found set: a copy, since the program may change the environment's own
// text. Written by the one thread that has claimed it, and read by all once it is known.
enum class Home { kUnknown, kClaimed, kKnown };
std::atomic<Home> gHomeState{Home::kUnknown};
char gHome[kFileNameSize];

const char* FindHome() {
  if (gHomeState.load(std::memory_order_acquire) == Home::kKnown) return gHome;
  // Reading is safe among threads as long as the program changes its environment before it starts them.
  const char* const home = std::getenv("TALVEN_HOME");  // NOLINT(concurrency-mt-unsafe)
  Home unknown = Home::kUnknown;
  if (home != nullptr && gHomeState.compare_exchange_strong(unknown, Home::kClaimed)) {
    opl::CopyText(gHome, home);
    gHomeState.store(Home::kKnown, std::memory_order_release);
  }
  return home;
}

void BuildFileNames(uint32_t pid, char (&common)[kFileNameSize], char (&own)[kFileNameSize]) {
  const char* const home = FindHome();
  const char* const name = gLogName[0] != '\0' ? gLogName : kDefaultLogName;
  if (home != nullptr) {
    (void)OPL_CrtSNPrintf(common, sizeof common, "%s/tmer/log/%s.log", home, name);
    (void)OPL_CrtSNPrintf(own, sizeof own, "%s/tmer/log/%s.%lu.log", home, name, pid);
  } else {
    (void)OPL_CrtSNPrintf(common, sizeof common, "%s.log", name);
    (void)OPL_CrtSNPrintf(own, sizeof own, "%s.%lu.log", name, pid);
  }
}

void BuildHeader(uint32_t pid, char (&header)[kHeaderSize]) {
  uint32_t thread = 0;
  (void)OPL_ThreadIdGet(&thread);
  const time_t now = std::time(nullptr);
  char date[32] = "";
  (void)OPL_CrtCTime(&now, date);
  date[kDateLength] = '\0';
  // Deliberate: the place for a fraction of the second stays empty, and the date ends in a full stop.
  (void)OPL_CrtSNPrintf(header, sizeof header,
                        "---------------------------------------------\n"
                        "Date(%s.%s) Process(%lu) Thread (%lu)\n",
                        date, "", pid, thread);
}

iovec Piece(const char* text) { return {const_cast<char*>(text), std::strlen(text)}; }

// Drops the first written bytes.
std::span<iovec> Rest(std::span<iovec> pieces, size_t written) {
  while (!pieces.empty() && written >= pieces[0].iov_len) {
    written -= pieces[0].iov_len;
    pieces = pieces.subspan(1);
  }
  if (!pieces.empty()) {
    pieces[0].iov_base = static_cast<char*>(pieces[0].iov_base) + written;
    pieces[0].iov_len -= written;
  }
  return pieces;
}

// One write call holds the whole record, and the system appends it as one piece whoever else is writing. Only
// what it takes no more than in part, as on a full disk, is offered again.
void Append(const char* fileName, const char* header, const char* message) {
  // No link is followed: the current directory may be one that everybody can write to. Without O_NONBLOCK a
  // FIFO of that name would hold the caller.
  const opl::Fd file(
      ::open64(fileName, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!file.IsOpen()) return;
  iovec record[] = {Piece(header), Piece(message), Piece("\n")};
  std::span<iovec> left(record);
  while (!left.empty()) {
    const ssize_t written =
        opl::RetryOnEintr([&] { return ::writev(file.Get(), left.data(), static_cast<int>(left.size())); });
    if (written <= 0) return;
    left = Rest(left, static_cast<size_t>(written));
  }
}

}  // namespace

OPL_Result OPL_LogSetFilename(const char* name) {
  if (name == nullptr || *name == '\0') return OPL_INIT_E_LOG_NAME;
  opl::CopyText(gLogName, name);
  return OPL_OK;
}

OPL_Result OPL_Log(const char* format, ...) {
  uint32_t pid = 0;
  (void)OPL_ProcessIdGet(&pid);
  char common[kFileNameSize];
  char own[kFileNameSize];
  BuildFileNames(pid, common, own);
  char header[kHeaderSize];
  BuildHeader(pid, header);

  va_list arguments;
  va_start(arguments, format);
  char* allocated = nullptr;
  (void)OPL_CrtVASPrintf(&allocated, format, arguments);
  // Without memory a message is cut rather than lost.
  char fallback[kFallbackSize];
  if (allocated == nullptr) (void)OPL_CrtVSNPrintf(fallback, sizeof fallback, format, arguments);
  va_end(arguments);

  const char* const message = allocated != nullptr ? allocated : fallback;
  Append(common, header, message);
  Append(own, header, message);
  opl::Free(allocated);
  return OPL_OK;
}
