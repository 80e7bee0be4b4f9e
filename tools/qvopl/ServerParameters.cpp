#include "tools/qvopl/ServerParameters.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string_view>

#include "OPL_Server.h"
#include "opl_server/src/Server.h"
#include "tools/qvopl/Command.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr char kInstance[] = "instance";

struct Parameter {
  const char* name;
  const char* type;
  const char* text;
  size_t size;  // bytes, the terminator included
};
// By OPL_SERVER_PARAM_*.
constexpr Parameter kParameters[] = {
    {"script-directory", "DIRECTORY", "Where the scripts OPL_ServerPS and OPL_ServerInitPidGet lie",
     opl::kServerPathSize},
    {"controller-name", "NAME", "Begins the controller file's name", opl::kControllerNameSize},
    {"executable-path", "PROGRAM", "The daemon's program", opl::kServerPathSize},
    {"process-name", "NAME", "The daemon's argument zero, for which the list of processes is searched",
     opl::kProcessNameSize},
};
static_assert(OPL_SERVER_PARAM_SCRIPT_DIRECTORY == 0 && OPL_SERVER_PARAM_CONTROLLER_NAME == 1 &&
              OPL_SERVER_PARAM_EXECUTABLE_PATH == 2 && OPL_SERVER_PARAM_PROCESS_NAME == 3);

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Where a line's value goes; null for a name that is none.
std::string* PlaceOf(std::string_view name, ServerParameters* parameters) {
  if (name == kInstance) return &parameters->instance;
  const auto* const found = std::ranges::find(kParameters, name, &Parameter::name);
  return found == std::end(kParameters) ? nullptr
                                        : &parameters->texts[static_cast<size_t>(found - kParameters)];
}

void ReadLine(std::string_view line, ServerParameters* parameters, const std::string& place) {
  const std::string_view text = Trimmed(line);
  if (text.empty() || text.front() == '#') return;
  if (text.find('\0') != std::string_view::npos)
    throw CouldNotLook(place + ": a NUL character, which no text has");
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos) throw CouldNotLook(place + ": neither NAME = TEXT nor a remark");
  const std::string_view name = Trimmed(text.substr(0, equals));
  std::string* const value = PlaceOf(name, parameters);
  if (value == nullptr) throw CouldNotLook(place + ": no parameter is called " + Printable(name));
  if (!value->empty()) throw CouldNotLook(place + ": " + std::string(name) + " for the second time");
  *value = Trimmed(text.substr(equals + 1));
}

}  // namespace

void AddServerOptions(CLI::App* command, ServerParameters* parameters) {
  for (size_t i = 0; i < std::size(kParameters); ++i)
    command->add_option(std::string("--") + kParameters[i].name, parameters->texts[i], kParameters[i].text)
        ->type_name(kParameters[i].type);
  command->add_option("--parameters", parameters->file, "A file with the parameters, NAME = TEXT a line")
      ->type_name("FILE");
}

void ReadServerFile(ServerParameters* parameters) {
  if (parameters->file.empty()) return;
  errno = 0;
  std::ifstream file(parameters->file);
  ServerParameters read;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number)
    ReadLine(line, &read, Printable(parameters->file) + ":" + std::to_string(number));
  if (!file.eof()) throw CouldNotLook(SystemError(parameters->file, errno != 0 ? errno : EIO));
  for (size_t i = 0; i < read.texts.size(); ++i)
    if (parameters->texts[i].empty()) parameters->texts[i] = read.texts[i];
  parameters->instance = read.instance;
}

void RequireParameters(const ServerParameters& parameters, std::initializer_list<uint32_t> options) {
  for (const uint32_t option : options)
    if (parameters[option].empty())
      throw CouldNotLook(std::string("--") + kParameters[option].name +
                         " is needed, or a line of that name in the file of --parameters");
}

size_t CapacityOf(uint32_t option) { return kParameters[option].size - 1; }

ServerParameters Cut(const ServerParameters& parameters) {
  ServerParameters cut = parameters;
  for (uint32_t option = 0; option < cut.texts.size(); ++option) {
    std::string& text = cut.texts[option];
    if (text.size() <= CapacityOf(option)) continue;
    text.resize(CapacityOf(option));
    (void)std::fprintf(stderr, "qvopl: %s is cut to %zu characters\n", kParameters[option].name, text.size());
  }
  return cut;
}

}  // namespace qvopl
