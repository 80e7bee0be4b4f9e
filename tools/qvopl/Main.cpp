// qvopl: shows, checks, explains and cleans the instances of an IPC directory.
#include <clocale>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

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

// What is no command is not told of where one is missing.
std::string WhyNot(const CLI::App& app, const CLI::ParseError& error) {
  std::string text = qvopl::Printable(error.what());
  if (text != "A subcommand is required") return text;
  const std::vector<std::string> rest = app.remaining(true);
  return rest.empty() ? "no command is given" : qvopl::Printable(rest.front()) + " is no command";
}

int Run(int argc, char** argv) {
  CLI::App app("Shows, checks, explains and cleans the instances of an IPC directory.", "qvopl");
  app.set_version_flag("--version", OPL_InitBuildVersionStringGet(0));
  app.require_subcommand(1);
  app.footer(
      "Examples:\n"
      "  qvopl list                 what there is, and in which state\n"
      "  qvopl doctor               what is wrong, and what to do about it\n"
      "  qvopl explain 0x05005E     what a result code means\n"
      "  qvopl list --help          the options of a command\n"
      "\nExit status: 0 all is fine, 1 something was found, 2 it could not be looked at.");
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
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    return Complain((WhyNot(app, error) + "; qvopl --help tells more").c_str());
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    return Complain("the output could not be written");
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
