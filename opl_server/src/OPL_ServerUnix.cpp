// A controller's side of a server: starting it, asking for it, and stopping it.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_private/src/IpcFile.h"
#include "opl_process/src/SendSignal.h"
#include "opl_server/src/ControllerFile.h"
#include "opl_server/src/Server.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::Fd;
using opl::NativeError;

constexpr uint32_t kPollSeconds = 1;

Code ControllerPidGet(const OPL_Server& server, uint32_t* pid) {
  const opl::ControllerName name(server);
  opl::IpcFile file;
  if (file.Open(name.c_str()) == -1) {
    const NativeError error;
    if (error.number() == ENOENT)
      return Fail(error, OPL_SERVER_E_NOT_STARTED, "%s: Server not started(open)\nFile %s.", name.c_str());
    return Fail(error, OPL_SERVER_E_OPEN, "%s: open error :%i,%s\nFile %s", error.number(), error.text(),
                name.c_str());
  }
  int32_t id = 0;
  const ssize_t count = file.ReadId(&id);
  if (count == -1) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_CONTROLLER, "%s: read error :%i,%s\nFile %s", error.number(),
                error.text(), name.c_str());
  }
  if (count != sizeof id)
    return Fail(OPL_SERVER_E_READ_SIZE, "%s: read error: invalid size read (wanted %lu, read %lu)\nFile %s",
                static_cast<uint32_t>(sizeof id), static_cast<uint32_t>(count), name.c_str());
  file.SetTimesInFuture(file.Status());
  *pid = static_cast<uint32_t>(id);
  return OPL_OK;
}

bool IsAlive(uint32_t pid) {
  uint32_t isAlive = 1;
  (void)OPL_ProcessIsAlive(pid, &isAlive);
  return isAlive != 0;
}

// What the controller file holds before a server is started. The file of a daemon that was killed is still
// there, and says nothing about the one that is being started.
class EarlierController {
 public:
  explicit EarlierController(const OPL_Server& server)
      : last_(ControllerPidGet(server, &pid_)), exists_(last_ == OPL_OK) {}

  Code PidGet(const OPL_Server& server) {
    uint32_t pid = 0;
    const Code rc = ControllerPidGet(server, &pid);
    const bool isFirst = std::exchange(last_, rc) != rc;
    // Between a daemon's open and its write a new file is empty: too short is what stays too short.
    if (rc == OPL_SERVER_E_READ_SIZE && isFirst) return OPL_SERVER_E_NOT_STARTED;
    if (rc == OPL_OK && exists_ && pid == pid_ && !IsAlive(pid)) return OPL_SERVER_E_NOT_STARTED;
    return rc;
  }

 private:
  uint32_t pid_ = 0;
  Code last_;
  const bool exists_;
};

// A process that forks and ends while the system is being listed may be missing, and its child too. A daemon
// does so twice, so the third listing has it.
constexpr int kListings = 3;

// Whether any process of the server is left, whoever its parents are: one that has just been started does not
// descend from the system's spawner yet.
Code IsAnyListed(OPL_Server* server, bool* isListed) {
  server->isRelatedOnly = 0;
  const opl::Undo relatedOnly([&] { server->isRelatedOnly = 1; });
  uint32_t count = 0;
  for (int listing = 0; listing < kListings && count == 0; ++listing) {
    OPL_ServerInfo** list = nullptr;
    if (const Code rc = OPL_ServerInfoGet(server, &list, &count)) return rc;
    (void)OPL_ServerInfoDestroy(server, &list, count);
  }
  *isListed = count != 0;
  return OPL_OK;
}

// A process that is to become a daemon, and the reading end of a pipe whose other end closes with the
// program's execution. Until then it has the controller's name, and no listing can show it.
class FirstProcess {
 public:
  FirstProcess(pid_t pid, int execution) : pid_(pid), execution_(execution) {}

  // A daemon leaves its first process behind, which would stay in the system's list until it is asked for.
  // Asked for once more, its id may be that of another child of the host's.
  void Reap() {
    if (!isReaped_) isReaped_ = ::waitpid(pid_, nullptr, WNOHANG) != 0;
  }

  bool HasExecuted() const {
    pollfd entry{execution_, POLLIN, 0};
    return execution_ == -1 || opl::RetryOnEintr([&] { return ::poll(&entry, 1, 0); }) != 0;
  }

 private:
  const pid_t pid_;
  const int execution_;
  bool isReaped_ = false;
};

// Waits for the controller file of what was started.
Code WaitUntilStarted(OPL_Server* server, EarlierController* earlier, FirstProcess first,
                      uint32_t timeoutSeconds) {
  const Caller caller{"OPL_ServerStart"};
  Code result = OPL_OK;
  uint32_t attempts = 0;
  for (bool isListed = true; attempts < timeoutSeconds && isListed;) {
    ++attempts;
    (void)OPL_CrtSleep(kPollSeconds);
    first.Reap();
    result = earlier->PidGet(*server);
    if (result != OPL_SERVER_E_NOT_STARTED) break;
    if (!first.HasExecuted()) continue;
    if (const Code rc = IsAnyListed(server, &isListed)) {
      result = rc;
      break;
    }
    if (!isListed) (void)Fail(caller, OPL_SERVER_E_NOT_STARTED, "%s: the server has stopped.");
  }
  // Deliberate: what the last look finds comes too late, whatever it is.
  if (attempts < timeoutSeconds) return result;
  return Fail(caller, OPL_SERVER_E_TIMEOUT, "%s: Server not started (timeout).");
}

// All are signalled, whatever fails; the first failure is returned.
Code SignalAll(OPL_ServerInfo** list, uint32_t count, int signalNumber) {
  Code first = OPL_OK;
  for (uint32_t i = 0; i < count; ++i) {
    if (opl::SendSignal(list[i]->processId, signalNumber) != -1 || errno == ESRCH) continue;
    const NativeError error;
    if (first == OPL_OK)
      first = Fail(Caller{"SignalProcess"}, error, OPL_SERVER_E_KILL, "%s: kill %d,%s.", error.number(),
                   error.text());
  }
  return first;
}

Code SignalListed(OPL_Server* server, int signalNumber) {
  OPL_ServerInfo** list = nullptr;
  uint32_t count = 0;
  if (const Code rc = OPL_ServerInfoGet(server, &list, &count)) return rc;
  const Code rc = SignalAll(list, count, signalNumber);
  (void)OPL_ServerInfoDestroy(server, &list, count);
  return rc;
}

Code SignalProcess(OPL_Server* server, int signalNumber, uint32_t waitSeconds) {
  uint32_t isStarted = 0;
  if (const Code rc = OPL_ServerIsStarted(server, &isStarted)) return rc;
  if (isStarted == 0) return Fail(OPL_SERVER_E_NOT_STARTED, "%s: Server nor started.");
  if (const Code rc = SignalListed(server, signalNumber)) return rc;
  for (uint32_t attempts = 0; attempts < waitSeconds; ++attempts) {
    if (const Code rc = OPL_ServerIsStarted(server, &isStarted)) return rc;
    if (isStarted == 0) return OPL_OK;
    (void)OPL_CrtSleep(kPollSeconds);
  }
  return Fail(OPL_SERVER_E_TIMEOUT, "%s: Server not stopping.");
}

}  // namespace

OPL_Result OPL_ServerStart(OPL_Server* pServer, void* /*reserved1*/, void* /*reserved2*/,
                           uint32_t timeoutSeconds) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  uint32_t isStarted = 0;
  if (const Code rc = OPL_ServerIsStarted(pServer, &isStarted)) return rc;
  if (isStarted != 0) return Fail(OPL_SERVER_E_STARTED, "%s: Server already started.");
  EarlierController earlier(*pServer);
  // Without a pipe the program is taken for executed.
  int ends[2] = {-1, -1};
  (void)::pipe2(ends, O_CLOEXEC);
  const Fd reader(ends[0]);
  Fd writer(ends[1]);
  const pid_t child = ::fork();
  if (child == -1) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_FORK, "%s: fork %d,%s.", error.number(), error.text());
  }
  if (child != 0) {
    writer.Close();
    return WaitUntilStarted(pServer, &earlier, {child, reader.Get()}, timeoutSeconds);
  }
  (void)::execl(pServer->executablePath, pServer->processName, static_cast<char*>(nullptr));
  // Deliberate: the child comes back to the caller, who tells it by this code and ends it.
  const NativeError error;
  return Fail(error, OPL_SERVER_E_PARAM, R"(%s: execl("%s", "%s"): %s (%d).)", pServer->executablePath,
              pServer->processName, error.text(), error.number());
}

OPL_Result OPL_ServerStop(OPL_Server* pServer, uint32_t waitSeconds) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  return SignalProcess(pServer, SIGUSR1, waitSeconds);
}

OPL_Result OPL_ServerTerminate(OPL_Server* pServer, uint32_t waitSeconds) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  return SignalProcess(pServer, SIGTERM, waitSeconds);
}

OPL_Result OPL_ServerKill(OPL_Server* pServer, uint32_t waitSeconds) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  return SignalProcess(pServer, SIGKILL, waitSeconds);
}

OPL_Result OPL_ServerIsStarted(OPL_Server* pServer, uint32_t* pIsRunning) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  // Deliberate: the message names OPL_ServerIsRunning.
  if (pIsRunning == nullptr)
    return Fail(Caller{"OPL_ServerIsRunning"}, OPL_SERVER_E_NULL_ARGUMENT, "%s: pIsRunning is NULL.");
  OPL_ServerInfo** list = nullptr;
  uint32_t count = 0;
  if (const Code rc = OPL_ServerInfoGet(pServer, &list, &count)) return rc;
  (void)OPL_ServerInfoDestroy(pServer, &list, count);
  *pIsRunning = count != 0 ? 1 : 0;
  return OPL_OK;
}

OPL_Result OPL_ServerControllerPidGet(OPL_Server* pServer, uint32_t* pPid) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  if (pPid == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pPid is NULL.");
  return ControllerPidGet(*pServer, pPid);
}

OPL_Result OPL_ServerTerminateIPC(uint32_t /*flag*/, const char* pattern) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return opl::ForEachIpcFile(pattern, opl::kControllerMarker, opl::RemoveIpcFile);
}

OPL_Result OPL_ServerChangeDriveToBinDrive() { return OPL_InitIsStopped(0); }
