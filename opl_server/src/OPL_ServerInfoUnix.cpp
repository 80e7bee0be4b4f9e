// The processes of a server, as the listing script prints them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_Thread.h"
#include "OPL_UserInfo.h"
#include "opl_base/src/CancellationHold.h"
#include "opl_base/src/ErrnoKeeper.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/IpcFile.h"
#include "opl_server/src/Server.h"
#include "opl_server/src/ServerListing.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr Caller kLister{"OPL_ServerInfoGet"};
constexpr size_t kCommandSize = opl::kServerPathSize + opl::kProcessNameSize + opl::kIpcNameSize + 64;
constexpr size_t kPidLineSize = 50;

// The file that the shell writes the listing to. It is there, and ours, before the shell opens it: under a
// name that can be foretold, in a directory that all may write to, somebody else's link could stand.
class OutputFile {
 public:
  OutputFile() { name_[0] = '\0'; }
  ~OutputFile() {
    if (fd_ == -1) return;
    const opl::ErrnoKeeper keepErrno;
    (void)::close(fd_);
    (void)::unlink(name_);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  [[nodiscard]] Code Create() {
    BuildName();
    fd_ = OpenNew();
    if (fd_ == -1 && errno == EEXIST && IsOwnLeftover() && ::unlink(name_) != -1) fd_ = OpenNew();
    if (fd_ != -1) return OPL_OK;
    const NativeError error;
    return Fail(kLister, error, OPL_SERVER_E_OPEN, "%s: open %d,%s\nFile %s", error.number(), error.text(),
                name_);
  }

  const char* Name() const { return name_; }
  int fd() const { return fd_; }

 private:
  int OpenNew() const { return ::open64(name_, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600); }

  // What a process with our id has left: it is dead.
  bool IsOwnLeftover() const {
    struct stat64 status {};
    const bool isOwn =
        ::lstat64(name_, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
    if (!isOwn) errno = EEXIST;
    return isOwn;
  }

  void BuildName() {
    char directory[opl::kIpcNameSize];
    uint32_t process = 0;
    uint32_t thread = 0;
    (void)OPL_InitIPCPathGet(0, directory, sizeof directory);
    (void)OPL_ProcessIdGet(&process);
    (void)OPL_ThreadIdGet(&thread);
    (void)OPL_CrtSNPrintf(name_, sizeof name_, "%s/OPL_ServerInfoGet.OUTPUT.%d-%d", directory, process,
                          thread);
  }

  // A thread that ends while the shell runs would leave the file.
  const opl::CancellationHold noCancellation_;
  char name_[opl::kIpcNameSize];
  int fd_ = -1;
};

// A host that ignores SIGCHLD has no status for the shell, which has ended all the same.
Code RunListing(const OPL_Server& server, const char* output) {
  char command[kCommandSize];
  (void)OPL_CrtSNPrintf(command, sizeof command, "%s/OPL_ServerPS | grep %s | grep -v grep > %s",
                        server.scriptDirectory, server.processName, output);
  // The script is the installation's, and the system's own call is safe to make from any thread.
  const int status = std::system(command);  // NOLINT(cert-env33-c, concurrency-mt-unsafe)
  if (status != -1 || errno == ECHILD) return OPL_OK;
  const NativeError error;
  return Fail(kLister, error, OPL_SERVER_E_SYSTEM, "%s: system %d,%s.", error.number(), error.text());
}

// As much as there is, up to size.
ssize_t ReadAll(int fd, char* buffer, size_t size) {
  size_t length = 0;
  while (length < size) {
    const ssize_t count = opl::RetryOnEintr(
        [&] { return ::pread64(fd, buffer + length, size - length, static_cast<off64_t>(length)); });
    if (count == -1) return -1;
    if (count == 0) break;
    length += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(length);
}

// Reads the listing whole; the buffer is the caller's to free.
Code ReadListing(const OutputFile& output, char** pText, uint32_t* pSize) {
  struct stat64 status {};
  if (::fstat64(output.fd(), &status) == -1) {
    const NativeError error;
    return Fail(kLister, error, OPL_SERVER_E_STAT, "%s: fstat %d,%s\nFile %s", error.number(), error.text(),
                output.Name());
  }
  // One byte more: an empty listing needs a buffer too.
  const auto size = static_cast<uint32_t>(status.st_size);
  char* const text = status.st_size < UINT32_MAX ? opl::AllocateArray<char>(size + 1) : nullptr;
  if (text == nullptr) {
    const NativeError error;
    return Fail(kLister, error, OPL_SERVER_E_NO_MEMORY, "%s: OPL_MEMMALLOC(1) error :%i", error.number());
  }
  opl::Undo freeText([&] { opl::Free(text); });
  const ssize_t length = ReadAll(output.fd(), text, size);
  if (length == -1) {
    const NativeError error;
    return Fail(kLister, error, OPL_SERVER_E_READ_SIZE, "%s: read %d,%s\nFile %s", error.number(),
                error.text(), output.Name());
  }
  if (length != static_cast<ssize_t>(size))
    return Fail(kLister, OPL_SERVER_E_READ_SIZE, "%s: read invalid size (wanted %lu, read %lu)\nFile %s",
                size, static_cast<uint32_t>(length), output.Name());
  freeText.Keep();
  *pText = text;
  *pSize = size;
  return OPL_OK;
}

// A user without an entry in the user database has no name; the number stands for it, as in a listing of ps.
void FindUserName(char (&userName)[OPL_SERVER_USER_NAME_SIZE]) {
  char name[OPL_SERVER_USER_NAME_SIZE + 1];
  if (OPL_UserInfoUserNameGet(0, name, OPL_SERVER_USER_NAME_SIZE) == OPL_OK) {
    opl::CopyText(userName, name);
    return;
  }
  (void)OPL_CrtSNPrintf(userName, sizeof userName, "%u", static_cast<uint32_t>(::geteuid()));
}

Code ListProcesses(OPL_Server* server, opl::ProcessList* list) {
  OutputFile output;
  if (const Code rc = output.Create()) return rc;
  if (const Code rc = RunListing(*server, output.Name())) return rc;
  char* text = nullptr;
  uint32_t size = 0;
  if (const Code rc = ReadListing(output, &text, &size)) return rc;
  const opl::Undo freeText([&] { opl::Free(text); });
  if (const Code rc = list->Open()) return rc;
  char userName[OPL_SERVER_USER_NAME_SIZE];
  FindUserName(userName);
  if (const Code rc = opl::ParseListing(*server, userName, text, size, list)) return rc;
  // An empty list has nobody to ask about, and no need of the other script.
  if (server->isRelatedOnly != 1 || list->Count() == 0) return OPL_OK;
  uint32_t spawner = 0;
  if (const Code rc = OPL_ServerSystemSpawnerPidGet(server, &spawner)) return rc;
  return opl::RemoveUnRelatedProcess(spawner, list);
}

bool ReadLine(std::FILE* stream, char (&line)[kPidLineSize]) {
  for (;;) {
    errno = 0;
    if (std::fgets(line, sizeof line, stream) != nullptr) return true;
    if (errno != EINTR) return false;
    std::clearerr(stream);
  }
}

}  // namespace

OPL_Result OPL_ServerInfoGet(OPL_Server* pServer, OPL_ServerInfo*** pppServerInfo, uint32_t* pNumProcess) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  if (pppServerInfo == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pppServerInfo is NULL.");
  if (pNumProcess == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pNumProcess is NULL.");
  opl::ProcessList list;
  if (const Code rc = ListProcesses(pServer, &list)) return rc;
  *pNumProcess = list.Count();
  *pppServerInfo = list.Release();
  return OPL_OK;
}

OPL_Result OPL_ServerInfoDestroy(OPL_Server* /*pServer*/, OPL_ServerInfo*** pppServerInfo,
                                 uint32_t numProcess) {
  if (pppServerInfo == nullptr) return OPL_OK;
  if (*pppServerInfo != nullptr)
    for (uint32_t i = 0; i < numProcess; ++i) opl::Free((*pppServerInfo)[i]);
  opl::Free(*pppServerInfo);
  *pppServerInfo = nullptr;
  return OPL_OK;
}

OPL_Result OPL_ServerSystemSpawnerPidGet(OPL_Server* pServer, uint32_t* pPid) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  if (pPid == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pPid is NULL.");
  // A thread that ends while the script runs would leave the script a zombie.
  const opl::CancellationHold noCancellation;
  char command[kCommandSize];
  (void)OPL_CrtSNPrintf(command, sizeof command, "%s/OPL_ServerInitPidGet | cat -", pServer->scriptDirectory);
  std::FILE* const stream = ::popen(command, "re");  // NOLINT(cert-env33-c): the script is the installation's
  if (stream == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_POPEN, "%s: popen %d,%s.", error.number(), error.text());
  }
  const opl::Undo close([&] { (void)::pclose(stream); });
  char line[kPidLineSize];
  if (!ReadLine(stream, line)) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_NO_SPAWNER, "%s: fgets %d,%s.", error.number(), error.text());
  }
  *pPid = opl::ProcessIdOf(line);
  return OPL_OK;
}
