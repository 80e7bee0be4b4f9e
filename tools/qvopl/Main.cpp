// qvopl: shows, checks, explains and cleans the instances of an IPC directory.
#include <clocale>
#include <cstdio>
#include <exception>

#include "OPL_Init.h"
#include "tools/qvopl/Command.h"
#include "tools/qvopl/Text.h"

namespace {

qvopl::Settings gSettings;

int Complain(const char* text) {
  (void)std::fflush(stdout);
  (void)std::fprintf(stderr, "qvopl: %s\n", text);
  return qvopl::kCouldNotLook;
}

int Run(int argc, char** argv) {
  CLI::App app("Shows, checks, explains and cleans the instances of an IPC directory.", "qvopl");
  app.set_version_flag("--version", OPL_InitBuildVersionStringGet(0));
  app.require_subcommand(1);
  int exitCode = qvopl::kFine;
  const qvopl::Program program{app, gSettings, exitCode};
  qvopl::AddListCommand(program);
  qvopl::AddShowCommand(program);
  qvopl::AddWatchCommand(program);
  qvopl::AddExplainCommand(program);
  qvopl::AddLimitsCommand(program);
  qvopl::AddServerCommand(program);
  qvopl::AddDoctorCommand(program);
  qvopl::AddCleanCommand(program);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? qvopl::kFine : qvopl::kCouldNotLook;
  }
  if (std::fflush(stdout) != 0) return Complain("the output could not be written");
  return exitCode;
}

}  // namespace

// The library's objects are those of the instance that --instance names.
extern "C" const char* OPL_InitInstanceStringSetCallback() {
  return gSettings.instance.has_value() ? gSettings.instance->c_str() : nullptr;
}

int main(int argc, char** argv) {
  (void)std::setlocale(LC_CTYPE, "");
  try {
    return Run(argc, argv);
  } catch (const qvopl::CouldNotLook& failure) {
    return Complain(failure.what());
  } catch (const std::exception& failure) {
    return Complain(qvopl::Printable(failure.what()).c_str());
  }
}
