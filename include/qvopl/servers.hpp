/*
 * Servers: daemons that a controller starts, asks and stops, and a daemon's own main frame.
 */
#ifndef QVOPL_SERVERS_HPP
#define QVOPL_SERVERS_HPP

#include <unistd.h>

#include <chrono>
#include <exception>
#include <type_traits>
#include <utility>

#include "../OPL_Server.h"
#include "handle.hpp"

namespace qvopl {

/** What a server is. Texts are not copied, and cut to the bytes that OPL_SERVER_PARAM_* tell. */
struct ServerSettings {
  const char* scriptDirectory = ""; /**< where OPL_ServerPS and OPL_ServerInitPidGet lie */
  const char* controllerName = "";  /**< begins the controller file's name */
  const char* executablePath = "";  /**< the program that Start runs */
  const char* processName = "";     /**< its argument zero, which the listing is searched for */
};

/** How a daemon runs in Server::Run. */
enum class Daemon : uint8_t {
  kDetached = OPL_SERVER_DETACHED,    /**< away from the terminal, as a child of the system */
  kForeground = OPL_SERVER_FOREGROUND /**< as it was started */
};

/** One process of a server, as long as the list lives that it is of. */
class ServerProcess {
 public:
  /** A process of a list of the C interface. */
  explicit ServerProcess(const OPL_ServerInfo* info) noexcept : info_(info) {}

  /** The process id. */
  [[nodiscard]] uint32_t id() const noexcept { return Number(OPL_ServerInfoGetPid); }
  /** The parent's process id. */
  [[nodiscard]] uint32_t parentId() const noexcept { return Number(OPL_ServerInfoGetPPid); }
  /** The caller's own user name. */
  [[nodiscard]] FixedText<OPL_SERVER_USER_NAME_SIZE> UserName() const noexcept {
    return TextBy<OPL_SERVER_USER_NAME_SIZE>(OPL_ServerInfoGetUserName);
  }
  /** When it started, as the script OPL_ServerPS prints it. */
  [[nodiscard]] FixedText<OPL_SERVER_TIME_SIZE> StartTime() const noexcept {
    return TextBy<OPL_SERVER_TIME_SIZE>(OPL_ServerInfoGetStartTime);
  }
  /** The processor time that it has used, as the script prints it. */
  [[nodiscard]] FixedText<OPL_SERVER_TIME_SIZE> CpuTime() const noexcept {
    return TextBy<OPL_SERVER_TIME_SIZE>(OPL_ServerInfoGetCPUTime);
  }
  /** The server's process name. */
  [[nodiscard]] FixedText<OPL_SERVER_SERVICE_NAME_SIZE> ServiceName() const noexcept {
    return TextBy<OPL_SERVER_SERVICE_NAME_SIZE>(OPL_ServerInfoGetServiceName);
  }

 private:
  uint32_t Number(OPL_Result (*get)(const OPL_ServerInfo*, uint32_t*)) const noexcept {
    uint32_t number = 0;
    (void)get(info_, &number);
    return number;
  }
  template <std::size_t kSize>
  FixedText<kSize> TextBy(OPL_Result (*get)(const OPL_ServerInfo*, char*, uint32_t)) const noexcept {
    FixedText<kSize> text;
    (void)get(info_, text.buffer(), text.size());
    return text;
  }

  const OPL_ServerInfo* info_;
};

/** The processes of a server, as they were when they were listed. */
class [[nodiscard]] ServerProcesses {
 public:
  /** Takes a list of the C interface over. */
  ServerProcesses(OPL_ServerInfo** list, uint32_t count) noexcept : list_(list), count_(count) {}
  ~ServerProcesses() {
    if (list_ != nullptr) (void)OPL_ServerInfoDestroy(nullptr, &list_, count_);
  }
  ServerProcesses(const ServerProcesses&) = delete;
  ServerProcesses& operator=(const ServerProcesses&) = delete;
  /** Leaves the other empty. */
  ServerProcesses(ServerProcesses&& other) noexcept
      : list_(std::exchange(other.list_, nullptr)), count_(std::exchange(other.count_, 0)) {}
  ServerProcesses& operator=(ServerProcesses&&) = delete;

  /** The number of processes. */
  [[nodiscard]] uint32_t size() const noexcept { return count_; }
  /** One of them; the index is not checked. */
  [[nodiscard]] ServerProcess operator[](uint32_t index) const noexcept {
    return ServerProcess(list_[index]);
  }

 private:
  OPL_ServerInfo** list_;
  uint32_t count_;
};

/** A server, for its controller and for the daemon itself. */
class [[nodiscard]] Server : public Handle<OPL_Server, OPL_ServerDestroy> {
 public:
  using Handle::Handle;

  /** Makes a server object with copies of the settings. The mode is for Run. */
  static Result<Server> Create(std::nothrow_t, const ServerSettings& settings,
                               Daemon daemon = Daemon::kDetached) noexcept {
    OPL_ServerParam* record = nullptr;
    if (const OPL_Result code = OPL_ServerParamCreate(&record, 0); code != OPL_OK)
      return Result<Server>::Failure(code);
    const Handle<OPL_ServerParam, OPL_ServerParamDestroy> parameters(record);
    const std::pair<uint32_t, const char*> texts[] = {
        {OPL_SERVER_PARAM_SCRIPT_DIRECTORY, settings.scriptDirectory},
        {OPL_SERVER_PARAM_CONTROLLER_NAME, settings.controllerName},
        {OPL_SERVER_PARAM_EXECUTABLE_PATH, settings.executablePath},
        {OPL_SERVER_PARAM_PROCESS_NAME, settings.processName}};
    for (const auto& [option, text] : texts)
      if (const OPL_Result code = OPL_ServerParamSet(record, option, text); code != OPL_OK)
        return Result<Server>::Failure(code);
    return detail::Make<Server, OPL_Server>(OPL_ServerCreate, static_cast<uint32_t>(daemon),
                                            static_cast<const OPL_ServerParam*>(record));
  }

  /**
   * Starts the daemon and waits until it says that it is started: as many looks, a second apart, as the
   * time-out has seconds. Where the program cannot be executed, the child ends by itself with status 127.
   */
  Result<void> Start(std::nothrow_t, std::chrono::seconds timeout) noexcept {
    const ::pid_t caller = ::getpid();
    const OPL_Result code = OPL_ServerStart(native(), nullptr, nullptr, Seconds(timeout));
    if (::getpid() != caller) ::_exit(127);
    return code;
  }
  /** Asks the server to stop (SIGUSR1) and waits. */
  Result<void> Stop(std::nothrow_t, std::chrono::seconds wait) noexcept {
    return OPL_ServerStop(native(), Seconds(wait));
  }
  /** The same with SIGTERM. */
  Result<void> Terminate(std::nothrow_t, std::chrono::seconds wait) noexcept {
    return OPL_ServerTerminate(native(), Seconds(wait));
  }
  /** The same with SIGKILL. The controller file stays; the next start gets by it. */
  Result<void> Kill(std::nothrow_t, std::chrono::seconds wait) noexcept {
    return OPL_ServerKill(native(), Seconds(wait));
  }
  /** Whether the server runs. */
  Result<bool> IsStarted(std::nothrow_t) noexcept {
    return detail::TellWhether(OPL_ServerIsStarted, native());
  }
  /** The process id that the daemon has written when it was started; it may be a dead one's. */
  Result<uint32_t> ControllerPid(std::nothrow_t) noexcept {
    return detail::Tell<uint32_t>(OPL_ServerControllerPidGet, native());
  }
  /** The server's processes; there may be none. */
  Result<ServerProcesses> Processes(std::nothrow_t) noexcept {
    OPL_ServerInfo** list = nullptr;
    uint32_t count = 0;
    if (const OPL_Result code = OPL_ServerInfoGet(native(), &list, &count); code != OPL_OK)
      return Result<ServerProcesses>::Failure(code);
    return ServerProcesses(list, count);
  }
  /** The process whose children daemons become. */
  Result<uint32_t> SpawnerPid(std::nothrow_t) noexcept {
    return detail::Tell<uint32_t>(OPL_ServerSystemSpawnerPidGet, native());
  }

  /**
   * Runs the daemon: its main function object, whose result it tells, calls SetStarted when it is ready and
   * SetStop before it returns. The other one is called in a signal handler when the daemon is asked to stop:
   * it may set a flag or write to a pipe, and nothing that allocates or locks; it is noexcept. See
   * OPL_ServerMain.
   */
  template <typename Main, typename OnStop>
  Result<uint32_t> Run(std::nothrow_t, Main&& main, OnStop&& onStop, bool closesStandard = false) noexcept {
    Frame<Main, OnStop> frame{&main, &onStop};
    const auto run = [](void* argument, void*, void*) noexcept -> uint32_t {
      return (*static_cast<Frame<Main, OnStop>*>(argument)->main)();
    };
    return RunFrame(run, &frame, closesStandard);
  }

  /** Says that the daemon is started. In the main function. */
  static Result<void> SetStarted(std::nothrow_t) noexcept { return OPL_ServerSetStarted(); }
  /** Says that it is not any more. In the main function. */
  static Result<void> SetStop(std::nothrow_t) noexcept { return OPL_ServerSetStop(); }

#if QVOPL_EXCEPTIONS
  /** Makes a server object with copies of the settings; throws an Error. */
  static Server Create(const ServerSettings& settings, Daemon daemon = Daemon::kDetached) {
    return Create(std::nothrow, settings, daemon).value();
  }
  /** Starts the daemon and waits until it says that it is started; throws an Error. */
  void Start(std::chrono::seconds timeout) { Start(std::nothrow, timeout).value(); }
  /** Asks the server to stop and waits; throws an Error. */
  void Stop(std::chrono::seconds wait) { Stop(std::nothrow, wait).value(); }
  /** The same with SIGTERM; throws an Error. */
  void Terminate(std::chrono::seconds wait) { Terminate(std::nothrow, wait).value(); }
  /** The same with SIGKILL; throws an Error. */
  void Kill(std::chrono::seconds wait) { Kill(std::nothrow, wait).value(); }
  /** Whether the server runs; throws an Error. */
  [[nodiscard]] bool IsStarted() { return IsStarted(std::nothrow).value(); }
  /** The process id that the daemon has written; throws an Error. */
  [[nodiscard]] uint32_t ControllerPid() { return ControllerPid(std::nothrow).value(); }
  /** The server's processes; throws an Error. */
  ServerProcesses Processes() { return Processes(std::nothrow).value(); }
  /** The process whose children daemons become; throws an Error. */
  [[nodiscard]] uint32_t SpawnerPid() { return SpawnerPid(std::nothrow).value(); }
  /** Runs the daemon; throws an Error, or what the main function object throws. */
  template <typename Main, typename OnStop>
  [[nodiscard]] uint32_t Run(Main&& main, OnStop&& onStop, bool closesStandard = false) {
    std::exception_ptr thrown;
    // Nothing is thrown through the functions of the C interface.
    const auto guarded = [&]() noexcept -> uint32_t {
      try {
        return main();
      } catch (...) {
        thrown = std::current_exception();
        return 0;
      }
    };
    const Result<uint32_t> result = Run(std::nothrow, guarded, onStop, closesStandard);
    if (thrown != nullptr) std::rethrow_exception(thrown);
    return result.value();
  }
  /** Says that the daemon is started; throws an Error. */
  static void SetStarted() { SetStarted(std::nothrow).value(); }
  /** Says that it is not any more; throws an Error. */
  static void SetStop() { SetStop(std::nothrow).value(); }
#endif

 private:
  template <typename Main, typename OnStop>
  struct Frame {
    static_assert(std::is_nothrow_invocable_v<OnStop&>,
                  "qvopl: what runs in a signal handler is noexcept and takes no arguments");
    using Stop = OnStop;
    std::remove_reference_t<Main>* main;
    std::remove_reference_t<OnStop>* onStop;
  };

  template <typename FrameType>
  Result<uint32_t> RunFrame(OPL_ServerMainFunction run, FrameType* frame, bool closesStandard) noexcept {
    const auto stop = [](void* argument) noexcept { (*static_cast<FrameType*>(argument)->onStop)(); };
    uint32_t result = 0;
    const OPL_Result code =
        OPL_ServerMain(native(), closesStandard ? 1 : 0, run, stop, frame, nullptr, frame, &result);
    if (code != OPL_OK) return Result<uint32_t>::Failure(code);
    return result;
  }

  static uint32_t Seconds(std::chrono::seconds duration) noexcept {
    return static_cast<uint32_t>(detail::WholeSeconds(duration));
  }
};

}  // namespace qvopl

#endif
