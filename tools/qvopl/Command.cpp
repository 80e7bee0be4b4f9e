#include "tools/qvopl/Command.h"

#include <climits>
#include <cstdlib>

#include "OPL_Init.h"

namespace qvopl {

namespace {

// The library reads the environment once, when it is first asked: the option stands there before.
void FindIpcPath(Settings* settings) {
  if (!settings->ipcPath.empty()) (void)::setenv("QVOPL_IPC_PATH", settings->ipcPath.c_str(), 1);
  char path[PATH_MAX] = "";
  (void)OPL_InitIPCPathGet(0, path, sizeof path);
  settings->ipcPath = path;
}

}  // namespace

CLI::App* AddCommand(const Program& program, const Description& description,
                     std::function<int(const Settings&)> run) {
  CLI::App* const command = program.app.add_subcommand(description.name, description.text);
  Settings* const settings = &program.settings;
  command->add_option("--ipc-path", settings->ipcPath, "The IPC directory; else QVOPL_IPC_PATH, else /tmp")
      ->type_name("DIRECTORY");
  command->add_option("--instance", settings->instance, "Only this instance; 'all' for objects of all users")
      ->type_name("NAME");
  command->add_flag("--json", settings->json, "Print JSON");
  command->footer(std::string("Examples:\n") + description.examples +
                  "\nExit status: 0 all is fine, 1 something was found, 2 it could not be looked at.");
  command->callback([settings, exitCode = &program.exitCode, run = std::move(run)] {
    FindIpcPath(settings);
    settings->screen = StandardScreen();
    *exitCode = run(*settings);
  });
  return command;
}

}  // namespace qvopl
