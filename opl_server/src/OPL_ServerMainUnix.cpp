// A daemon's side of a server: its main frame, its way from the terminal, and what it says of its state.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_Sig.h"
#include "opl_base/src/ErrnoKeeper.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/ErrorRecord.h"
#include "opl_err/src/Fail.h"
#include "opl_private/src/FutureTime.h"
#include "opl_server/src/ControllerFile.h"
#include "opl_server/src/Server.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::Fd;
using opl::NativeError;

constexpr int kParentsEndMs = 1000;

// The one run of OPL_ServerMain. Read by the signal handler, and therefore atomic.
std::atomic<bool> gIsInMain{false};
std::atomic<OPL_Server*> gServer{nullptr};
std::atomic<OPL_ServerSignalCallback> gCallback{nullptr};
std::atomic<void*> gCallbackArgument{nullptr};

class InMain {
 public:
  InMain(OPL_Server* server, OPL_ServerSignalCallback callback, void* argument) {
    gServer = server;
    gCallbackArgument = argument;
    gCallback = callback;
  }
  // The handler stays, but what it would call may be gone with the caller. The argument stays too: a handler
  // that runs in another thread may be about to hand it over.
  ~InMain() {
    gCallback = nullptr;
    gServer = nullptr;
    gIsInMain = false;
  }
  InMain(const InMain&) = delete;
  InMain& operator=(const InMain&) = delete;
};

// May come upon any thread, in the midst of the allocator too: a thread that has no error record yet gets
// none here.
void SignalHandler(int signalNumber) {
  const opl::ErrnoKeeper keepErrno;
  if (opl::HasErrorRecord())
    (void)OPL_ErrSet(0, static_cast<uint32_t>(signalNumber), "%s: Received signal: %d.", "SignalHandler",
                     signalNumber);
  const OPL_ServerSignalCallback callback = gCallback;
  if (callback != nullptr) callback(gCallbackArgument);
}

Code Handle(std::initializer_list<int> signals, OPL_SigHandler handler) {
  for (const int signalNumber : signals)
    if (const Code rc = OPL_SigSignal(0, signalNumber, handler, nullptr)) return rc;
  return OPL_OK;
}

// The child's part: it counts as a user of the instance, says so, and sees its parent end. What the parent
// has of the instance it gives back only then, and is not to be the last to do so. The wait is bounded, since
// a process that another thread forked meanwhile has a copy of the parent's end.
Code TakeOver(int end) {
  const Code rc = OPL_InitSetCurrentPid();
  const char done = 0;
  (void)opl::RetryOnEintr([&] { return ::send(end, &done, sizeof done, MSG_NOSIGNAL); });
  pollfd entry{end, POLLIN, 0};
  (void)opl::RetryOnEintr([&] { return ::poll(&entry, 1, kParentsEndMs); });
  return rc;
}

// The parent's part. Without the child's end it also sees a child that dies.
[[noreturn]] void EndWhenTakenOver(Fd* childs, const Fd& parents) {
  childs->Close();
  char done = 0;
  (void)opl::RetryOnEintr([&] { return ::read(parents.Get(), &done, sizeof done); });
  ::_exit(0);
}

// Goes on in a child. The parent stays until the child counts as a user of the instance: in between nobody
// would, and another process would remove what the child is about to take over.
Code LeaveParent() {
  const Caller caller{"BecomeDaemon"};
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SERVER_E_FORK, "%s: socketpair error : %i,%s.", error.number(),
                error.text());
  }
  Fd childs(ends[0]);
  Fd parents(ends[1]);
  const pid_t child = ::fork();
  if (child == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SERVER_E_FORK, "%s: fork error : %i,%s.", error.number(), error.text());
  }
  if (child != 0) EndWhenTakenOver(&childs, parents);
  parents.Close();
  return TakeOver(childs.Get());
}

Code Detach() {
  if (const Code rc = Handle({SIGTTOU, SIGTTIN, SIGTSTP}, SIG_IGN)) return rc;
  if (const Code rc = LeaveParent()) return rc;
  if (::setpgrp() == -1) {
    const NativeError error;
    return Fail(Caller{"BecomeDaemon"}, error, OPL_SERVER_E_SETPGRP, "%s: setpgrp error : %i,%s.",
                error.number(), error.text());
  }
  if (const Code rc = Handle({SIGHUP}, SIG_IGN)) return rc;
  return LeaveParent();
}

Code BecomeDaemon(uint32_t closeStd) {
  const Code rc = Detach();
  if (closeStd == 1)
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)::close(fd);
  if (rc == OPL_OK) (void)::umask(077);
  return rc;
}

Code PrepareMain(const OPL_Server& server, uint32_t closeStd) {
  if (const Code rc = Handle({SIGUSR1, SIGTERM}, SignalHandler)) return rc;
  if (server.mode == OPL_SERVER_FOREGROUND) return OPL_OK;
  return BecomeDaemon(closeStd);
}

[[nodiscard]] Code CheckInMain(const char* caller = __builtin_FUNCTION()) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (gServer.load() != nullptr) return OPL_OK;
  return Fail(Caller{caller}, OPL_SERVER_E_NULL_ARGUMENT, "%s: not in OPL_ServerMain.");
}

// Through no link, hard ones included, and into no FIFO that somebody has put there.
int OpenController(const char* name) {
  const int fd = OPL_CrtOpen(name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  struct stat64 status {};
  if (fd == -1 || (::fstat64(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1)) return fd;
  (void)::close(fd);
  errno = EINVAL;
  return -1;
}

}  // namespace

OPL_Result OPL_ServerMain(OPL_Server* pServer, uint32_t closeStd, OPL_ServerMainFunction main,
                          OPL_ServerSignalCallback callback, void* a, void* b, void* c, uint32_t* pResult) {
  if (const Code rc = opl::CheckServer(pServer)) return rc;
  if (main == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pMain is NULL.");
  if (gIsInMain.exchange(true)) return Fail(OPL_SERVER_E_IN_MAIN, "%s: already in OPL_ServerMain.");
  const InMain inMain(pServer, callback, c);
  // Makes this thread's error record, so that a signal finds one.
  (void)OPL_ErrNativeMessageGet(0, 0);
  if (const Code rc = PrepareMain(*pServer, closeStd)) return rc;
  const uint32_t result = main(a, b, c);
  if (pResult != nullptr) *pResult = result;
  return OPL_OK;
}

OPL_Result OPL_ServerSetStarted() {
  if (const Code rc = CheckInMain()) return rc;
  uint32_t pid = 0;
  if (const Code rc = OPL_ProcessIdGet(&pid)) return rc;
  const opl::ControllerName name(*gServer.load());
  const Fd file(OpenController(name.c_str()));
  if (!file.IsOpen()) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_OPEN, "%s: open error :%i,%s\nFile %s", error.number(), error.text(),
                name.c_str());
  }
  const ssize_t count = opl::RetryOnEintr([&] { return ::write(file.Get(), &pid, sizeof pid); });
  if (count == -1) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_CONTROLLER, "%s: write error :%i,%s\nFile %s", error.number(),
                error.text(), name.c_str());
  }
  if (count != sizeof pid)
    return Fail(OPL_SERVER_E_CONTROLLER,
                "%s: write error: invalid size written (wanted %lu, written %lu)\nFile %s",
                static_cast<uint32_t>(sizeof pid), static_cast<uint32_t>(count), name.c_str());
  opl::SetDescriptorTimesInFuture(file.Get());
  return OPL_OK;
}

OPL_Result OPL_ServerSetStartPending() { return OPL_InitIsStopped(0); }

OPL_Result OPL_ServerSetStopPending() { return OPL_InitIsStopped(0); }

OPL_Result OPL_ServerSetStop() {
  if (const Code rc = CheckInMain()) return rc;
  (void)::unlink(opl::ControllerName(*gServer.load()).c_str());
  return OPL_OK;
}
