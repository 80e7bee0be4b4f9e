// qvopl server: starts, asks, lists and stops a daemon. What changes something is done by the library's
// functions in the instance; status and ps read the list of processes and the controller file, and leave no
// trace.
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Server.h"
#include "opl_base/src/FixedText.h"
#include "opl_server/src/Server.h"
#include "opl_server/src/ServerListing.h"
#include "tools/qvopl/Command.h"
#include "tools/qvopl/IpcDirectory.h"
#include "tools/qvopl/ResultCodes.h"
#include "tools/qvopl/ServerParameters.h"
#include "tools/qvopl/Table.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

using Json = nlohmann::ordered_json;

constexpr uint32_t kSeconds = 30;
constexpr int kCouldNotExecute = 127;

struct ServerProcess {
  uint32_t pid = 0;
  uint32_t parent = 0;
  std::string started;
  std::string cpuTime;
};

struct Server {
  ServerParameters parameters;
  std::vector<Entry> controllers;  // files of that controller name, of any instance
  std::optional<std::string> instance;
};

std::string Hex(uint32_t code) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%06X", static_cast<unsigned>(code));
  return text;
}

std::string NameOf(OPL_Result code) {
  const std::vector<const ResultCode*> codes = FindCodes(code);
  return codes.empty() ? Hex(code) : codes.front()->name;
}

// Without the name of the function that opens it.
std::string MessageOfLibrary() { return Printable(OPL_ErrMessageGet(0)); }

// Every process whose command line has the server's name counts as the server's, and this one has it among
// its arguments. They end where the environment begins, and nobody needs them any more.
void HideArguments() {
  std::ifstream file("/proc/self/stat");
  std::string stat;
  if (!std::getline(file, stat, '\0')) return;
  constexpr int kArgumentsBegin = 48;
  std::istringstream words(stat.substr(stat.rfind(')') + 1));
  std::string word;
  for (int field = 3; field < kArgumentsBegin && words >> word; ++field) {
  }
  uintptr_t begin = 0;
  uintptr_t end = 0;
  if (!(words >> begin >> end) || begin == 0 || end <= begin) return;
  auto* const arguments = reinterpret_cast<char*>(begin);  // NOLINT(performance-no-int-to-ptr)
  const size_t size = end - begin;
  const size_t name = ::strnlen(arguments, size);
  std::memset(arguments + name, 0, size - name);
}

bool IsOf(const Entry& entry, const ServerParameters& parameters) {
  return entry.name.kind == Kind::kServer && !entry.name.isTemporary &&
         entry.name.name == parameters[OPL_SERVER_PARAM_CONTROLLER_NAME] &&
         entry.name.scope == Scope::kInstance && entry.name.version == BuildVersion();
}

// The instance that is given, or the only one that has a controller file of that name.
Server FindServer(const Settings& settings, ServerParameters parameters, const IpcDirectory& directory) {
  HideArguments();
  ReadServerFile(&parameters);
  Server server{Cut(parameters), {}, settings.instance};
  if (!server.instance.has_value() && !parameters.instance.empty()) server.instance = parameters.instance;
  for (Entry& entry : directory.Entries())
    if (IsOf(entry, server.parameters)) server.controllers.push_back(std::move(entry));
  if (!server.instance.has_value() && server.controllers.size() == 1)
    server.instance = server.controllers.front().name.instance;
  return server;
}

// Without them every list would be empty, and the server would count as not running.
void RequireScripts(const ServerParameters& parameters) {
  for (const char* const script : {"/OPL_ServerPS", "/OPL_ServerInitPidGet"}) {
    const std::string path = parameters[OPL_SERVER_PARAM_SCRIPT_DIRECTORY] + script;
    if (::access(path.c_str(), X_OK) == -1) throw CouldNotLook(SystemError(path, errno));
  }
}

std::string OutputOf(const std::string& command) {
  std::FILE* const stream =
      ::popen(command.c_str(), "re");  // NOLINT(cert-env33-c): the installation's scripts
  if (stream == nullptr) throw CouldNotLook(SystemError("the shell", errno));
  std::string output;
  char buffer[4096];
  for (size_t count = 0; (count = std::fread(buffer, 1, sizeof buffer, stream)) != 0;)
    output.append(buffer, count);
  (void)::pclose(stream);
  return output;
}

// As OPL_ServerInfoGet does it, but for its file in the IPC directory.
std::vector<ServerProcess> ListProcesses(const ServerParameters& parameters) {
  RequireScripts(parameters);
  OPL_Server server{};
  opl::CopyText(server.processName, parameters[OPL_SERVER_PARAM_PROCESS_NAME].c_str());
  opl::CopyText(server.scriptDirectory, parameters[OPL_SERVER_PARAM_SCRIPT_DIRECTORY].c_str());
  const std::string scripts = server.scriptDirectory;
  const std::string listing =
      OutputOf(scripts + "/OPL_ServerPS | grep " + server.processName + " | grep -v grep");
  opl::ProcessList list;
  if (list.Open() != OPL_OK || opl::ParseListing(server, "", listing.data(), listing.size(), &list) != OPL_OK)
    throw CouldNotLook("no memory");
  if (list.Count() != 0) {
    const uint32_t spawner = opl::ProcessIdOf(OutputOf(scripts + "/OPL_ServerInitPidGet | cat -").c_str());
    if (opl::RemoveUnRelatedProcess(spawner, &list) != OPL_OK) throw CouldNotLook("no memory");
  }
  std::vector<ServerProcess> processes;
  for (uint32_t i = 0; i < list.Count(); ++i)
    processes.push_back({list[i].processId, list[i].parentId, list[i].startTime, list[i].cpuTime});
  return processes;
}

bool Lists(const std::vector<ServerProcess>& processes, uint32_t pid) {
  return std::ranges::find(processes, pid, &ServerProcess::pid) != processes.end();
}

// What the server's controller file says.
struct Controller {
  const Entry* entry = nullptr;  // none: there is no such file
  Word pid;
};

Controller ReadController(const Server& server, const IpcDirectory& directory) {
  for (const Entry& entry : server.controllers)
    if (server.instance == entry.name.instance) {
      const Word pid = directory.ReadWord(entry);
      return pid.reading == Reading::kGone ? Controller{} : Controller{&entry, pid};
    }
  return {};
}

bool HasSaidSo(const Controller& controller, const std::vector<ServerProcess>& processes) {
  return controller.entry != nullptr && controller.pid.reading == Reading::kDone &&
         Lists(processes, static_cast<uint32_t>(controller.pid.value));
}

struct State {
  const char* key;
  std::string text;
  int exitCode;
};

State StateOf(const Controller& controller, const std::vector<ServerProcess>& processes) {
  const std::string file = controller.entry == nullptr ? "" : Printable(controller.entry->file);
  const std::string pid = std::to_string(static_cast<uint32_t>(controller.pid.value));
  const bool isRead = controller.entry != nullptr && controller.pid.reading == Reading::kDone;
  if (controller.entry != nullptr && !isRead)
    throw CouldNotLook(file + ": " + TextOf(controller.pid.reading));
  if (HasSaidSo(controller, processes)) return {"started", "started, process " + pid, kFine};
  if (!processes.empty() && isRead)
    return {
        "starting",
        "runs, but has not said so: the controller file names process " + pid + ", which is not the server's",
        kFound};
  if (!processes.empty()) return {"starting", "runs, but has not said yet that it is started", kFound};
  if (isRead) return {"left", "does not run; a controller file was left by process " + pid, kFound};
  return {"stopped", "does not run", kFound};
}

Json ToJson(const ServerProcess& process, const Controller& controller) {
  const bool saidSo = controller.entry != nullptr && controller.pid.reading == Reading::kDone &&
                      static_cast<uint32_t>(controller.pid.value) == process.pid;
  return {{"pid", process.pid},
          {"parent", process.parent},
          {"started", JsonText(process.started)},
          {"cpuTime", JsonText(process.cpuTime)},
          {"controller", saidSo}};
}

Json ToJson(const Server& server, const std::vector<ServerProcess>& processes, const Controller& controller) {
  Json listed = Json::array();
  for (const ServerProcess& process : processes) listed.push_back(ToJson(process, controller));
  Json file = nullptr;
  if (controller.entry != nullptr)
    file = {{"file", JsonText(controller.entry->file)}, {"pid", static_cast<uint32_t>(controller.pid.value)}};
  return {{"process", JsonText(server.parameters[OPL_SERVER_PARAM_PROCESS_NAME])},
          {"instance", server.instance.has_value() ? Json(JsonText(*server.instance)) : Json(nullptr)},
          {"controller", std::move(file)},
          {"processes", std::move(listed)}};
}

int ShowStatus(const Settings& settings, const ServerParameters& given) {
  const IpcDirectory directory(settings.ipcPath);
  const Server server = FindServer(settings, given, directory);
  RequireParameters(server.parameters, {OPL_SERVER_PARAM_SCRIPT_DIRECTORY, OPL_SERVER_PARAM_CONTROLLER_NAME,
                                        OPL_SERVER_PARAM_PROCESS_NAME});
  if (!server.instance.has_value() && server.controllers.size() > 1)
    throw CouldNotLook("several instances have a controller file of that name: give --instance");
  const std::vector<ServerProcess> processes = ListProcesses(server.parameters);
  const Controller controller = ReadController(server, directory);
  const State state = StateOf(controller, processes);
  if (settings.json) {
    Json json = {{"state", state.key}, {"text", state.text}};
    json.update(ToJson(server, processes, controller));
    std::printf("%s\n", json.dump(2).c_str());
    return state.exitCode;
  }
  std::printf(
      "%s: %s\n", Printable(server.parameters[OPL_SERVER_PARAM_PROCESS_NAME]).c_str(),
      Styled(state.text, state.exitCode == kFine ? Style::kPlain : Style::kBad, settings.screen.colour)
          .c_str());
  return state.exitCode;
}

// The processes in the order of a tree, each behind its parent, with their depth. Parents that lead in a
// circle, as after an id was given again, are none.
std::vector<std::pair<const ServerProcess*, size_t>> AsTree(const std::vector<ServerProcess>& processes) {
  std::vector<std::pair<const ServerProcess*, size_t>> tree;
  std::vector<bool> isShown(processes.size(), false);
  const std::function<void(size_t, size_t)> show = [&](size_t at, size_t depth) {
    if (isShown[at]) return;
    isShown[at] = true;
    tree.emplace_back(&processes[at], depth);
    for (size_t i = 0; i < processes.size(); ++i)
      if (processes[i].parent == processes[at].pid) show(i, depth + 1);
  };
  for (size_t i = 0; i < processes.size(); ++i)
    if (!Lists(processes, processes[i].parent)) show(i, 0);
  for (size_t i = 0; i < processes.size(); ++i) show(i, 0);
  return tree;
}

int ShowProcesses(const Settings& settings, const ServerParameters& given, bool tree) {
  const IpcDirectory directory(settings.ipcPath);
  const Server server = FindServer(settings, given, directory);
  RequireParameters(server.parameters, {OPL_SERVER_PARAM_SCRIPT_DIRECTORY, OPL_SERVER_PARAM_PROCESS_NAME});
  const std::vector<ServerProcess> processes = ListProcesses(server.parameters);
  const Controller controller = ReadController(server, directory);
  const int exitCode = processes.empty() ? kFound : kFine;
  if (settings.json) {
    std::printf("%s\n", ToJson(server, processes, controller).dump(2).c_str());
    return exitCode;
  }
  Table table({{.title = "PROCESS", .isNumber = !tree},
               {.title = "PARENT", .isNumber = true},
               {.title = "STARTED"},
               {.title = "CPU TIME"},
               {.title = "", .dropped = 1, .least = 8}});
  std::vector<std::pair<const ServerProcess*, size_t>> rows;
  rows.reserve(processes.size());
  for (const ServerProcess& process : processes) rows.emplace_back(&process, 0);
  if (tree) rows = AsTree(processes);
  for (const auto& [process, depth] : rows)
    table.Add({{std::string(2 * depth, ' ') + std::to_string(process->pid)},
               {std::to_string(process->parent)},
               {Printable(process->started)},
               {Printable(process->cpuTime)},
               {controller.entry != nullptr && controller.pid.value == static_cast<int32_t>(process->pid)
                    ? "has said that it is started"
                    : ""}});
  for (const std::string& line : table.Lines(settings.screen)) std::printf("%s\n", line.c_str());
  return exitCode;
}

// The library, begun in the instance, and a server made of the parameters.
class Control {
 public:
  explicit Control(const ServerParameters& parameters) {
    Require("OPL_InitBegin", OPL_InitBegin(0));
    isBegun_ = true;
    OPL_ServerParam* param = nullptr;
    Require("OPL_ServerParamCreate", OPL_ServerParamCreate(&param, 0));
    for (uint32_t option = 0; option < parameters.texts.size(); ++option)
      Require("OPL_ServerParamSet", OPL_ServerParamSet(param, option, parameters[option].c_str()));
    const OPL_Result rc = OPL_ServerCreate(&server_, OPL_SERVER_DETACHED, param);
    (void)OPL_ServerParamDestroy(&param);
    Require("OPL_ServerCreate", rc);
  }
  ~Control() {
    (void)OPL_ServerDestroy(&server_);
    if (isBegun_) (void)OPL_InitEnd(0);
  }
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  OPL_Server* server() const { return server_; }

 private:
  void Require(const char* function, OPL_Result rc) {
    if (rc == OPL_OK) return;
    const std::string text = std::string(function) + " returned " + NameOf(rc) + ": " + MessageOfLibrary();
    if (isBegun_) (void)OPL_InitEnd(0);
    isBegun_ = false;
    throw CouldNotLook(text);
  }

  OPL_Server* server_ = nullptr;
  bool isBegun_ = false;
};

struct Action {
  const char* name;
  const char* text;
  const char* done;  // what it is afterwards
  const char* examples;
  bool needsProgram;
  OPL_Result (*run)(OPL_Server* server, uint32_t seconds);
};

// A child that could not execute the program comes back too, and must do nothing that is the parent's.
OPL_Result Start(OPL_Server* server, uint32_t seconds) {
  const pid_t self = ::getpid();
  const OPL_Result rc = OPL_ServerStart(server, nullptr, nullptr, seconds);
  if (::getpid() != self) {
    const std::string text = "qvopl: " + MessageOfLibrary() + "\n";
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    (void)written;
    ::_exit(kCouldNotExecute);
  }
  return rc;
}

constexpr Action kActions[] = {
    {"start", "Starts a server, and waits until it says that it is started", "started",
     "  qvopl server start --parameters prod.conf --instance PROD\n"
     "  qvopl server start --parameters prod.conf --timeout 120\n",
     true, Start},
    {"stop", "Asks a server to stop (SIGUSR1), and waits for its end", "stopped",
     "  qvopl server stop --parameters prod.conf\n", false, OPL_ServerStop},
    {"terminate", "Asks a server to stop (SIGTERM), and waits for its end", "stopped",
     "  qvopl server terminate --parameters prod.conf\n", false, OPL_ServerTerminate},
    {"kill", "Ends a server at once (SIGKILL); its controller file stays", "stopped",
     "  qvopl server kill --parameters prod.conf\n", false, OPL_ServerKill},
};

// What is an answer, and no failure of the look.
bool IsAnswer(OPL_Result rc) {
  return rc == OPL_SERVER_E_STARTED || rc == OPL_SERVER_E_NOT_STARTED || rc == OPL_SERVER_E_TIMEOUT;
}

int Act(const Action& action, const Settings& settings, const ServerParameters& given, uint32_t seconds,
        std::optional<std::string>* instance) {
  const Server server = FindServer(settings, given, IpcDirectory(settings.ipcPath));
  RequireParameters(server.parameters, {OPL_SERVER_PARAM_SCRIPT_DIRECTORY, OPL_SERVER_PARAM_CONTROLLER_NAME,
                                        OPL_SERVER_PARAM_PROCESS_NAME});
  if (action.needsProgram) RequireParameters(server.parameters, {OPL_SERVER_PARAM_EXECUTABLE_PATH});
  if (!server.instance.has_value())
    throw CouldNotLook(
        "the server's instance is needed: give --instance, or a line of that name in the file of "
        "--parameters");
  RequireScripts(server.parameters);
  *instance = server.instance;
  (void)std::fflush(stdout);

  const Control control(server.parameters);
  const OPL_Result rc = action.run(control.server(), seconds);
  const std::string message = rc == OPL_OK ? "" : MessageOfLibrary();
  if (rc != OPL_OK && !IsAnswer(rc))
    throw CouldNotLook(std::string(action.name) + ": " + NameOf(rc) + ": " + message);
  uint32_t pid = 0;
  const bool isStarted =
      action.needsProgram && rc == OPL_OK && OPL_ServerControllerPidGet(control.server(), &pid) == OPL_OK;
  const std::string name = server.parameters[OPL_SERVER_PARAM_PROCESS_NAME];
  if (settings.json) {
    const Json json = {{"action", action.name},
                       {"process", JsonText(name)},
                       {"instance", JsonText(*server.instance)},
                       {"code", Hex(rc)},
                       {"name", rc == OPL_OK ? "OPL_OK" : NameOf(rc)},
                       {"message", JsonText(message)},
                       {"pid", isStarted ? Json(pid) : Json(nullptr)}};
    std::printf("%s\n", json.dump(2).c_str());
  } else if (rc == OPL_OK) {
    std::printf("%s: %s%s\n", Printable(name).c_str(), action.done,
                isStarted ? (", process " + std::to_string(pid)).c_str() : "");
  } else {
    std::printf("%s: %s\n  %s, see qvopl explain %s\n", Printable(name).c_str(), message.c_str(),
                NameOf(rc).c_str(), Hex(rc).c_str());
  }
  return rc == OPL_OK ? kFine : kFound;
}

void AddAction(const Program& program, const Action& action,
               const std::shared_ptr<ServerParameters>& parameters) {
  const auto seconds = std::make_shared<uint32_t>(kSeconds);
  std::optional<std::string>* const instance = &program.settings.instance;
  CLI::App* const command = AddCommand(program, {action.name, action.text, action.examples},
                                       [&action, parameters, seconds, instance](const Settings& settings) {
                                         return Act(action, settings, *parameters, *seconds, instance);
                                       });
  AddServerOptions(command, parameters.get());
  command->add_option("--timeout", *seconds, "How often to look, a second apart")
      ->type_name("SECONDS")
      ->capture_default_str();
}

}  // namespace

void AddServerCommand(const Program& program) {
  CLI::App* const server =
      program.app.add_subcommand("server", "Starts, stops, asks and lists the daemons of a product");
  server->require_subcommand(1);
  server->footer(
      "Examples:\n"
      "  qvopl server start --parameters prod.conf   the four parameters of OPL_ServerParamSet from a file\n"
      "  qvopl server status --parameters prod.conf  whether it runs\n"
      "  qvopl server start --help                   the options of a command");
  const Program nested{*server, program.settings, program.exitCode};
  const auto parameters = std::make_shared<ServerParameters>();
  for (const Action& action : kActions) AddAction(nested, action, parameters);

  CLI::App* const status =
      AddCommand(nested,
                 {"status", "Tells whether a server runs, and has said so: 0 it has, 1 it has not",
                  "  qvopl server status --parameters prod.conf\n"
                  "  qvopl server status --script-directory /opt/prod/bin --controller-name prod "
                  "--process-name prodd\n"},
                 [parameters](const Settings& settings) { return ShowStatus(settings, *parameters); });
  AddServerOptions(status, parameters.get());

  const auto tree = std::make_shared<bool>(false);
  CLI::App* const ps = AddCommand(
      nested,
      {"ps", "Lists a server's processes: 0 there are some, 1 there are none",
       "  qvopl server ps --parameters prod.conf --tree\n"},
      [parameters, tree](const Settings& settings) { return ShowProcesses(settings, *parameters, *tree); });
  AddServerOptions(ps, parameters.get());
  ps->add_flag("--tree", *tree, "Children below their parents");
}

}  // namespace qvopl
