// The four parameters of a server and its instance, from options and from a parameter file.
#ifndef QVOPL_TOOL_SERVER_PARAMETERS_H
#define QVOPL_TOOL_SERVER_PARAMETERS_H

#include <CLI/CLI.hpp>
#include <array>
#include <cstdint>
#include <string>

namespace qvopl {

struct ServerParameters {
  // By OPL_SERVER_PARAM_*.
  std::array<std::string, 4> texts;
  std::string instance;  // of the parameter file; empty when it names none
  std::string file;

  const std::string& operator[](uint32_t option) const { return texts[option]; }
};

// The options, and that of the file. Those that are given win over what the file says.
void AddServerOptions(CLI::App* command, ServerParameters* parameters);

// Reads the file, if one is given, for what the options leave open. Throws CouldNotLook for a file that
// cannot be read or has a line that is none of
//
//   # a remark
//   script-directory = DIRECTORY
//   controller-name  = NAME
//   executable-path  = PROGRAM
//   process-name     = NAME
//   instance         = NAME
void ReadServerFile(ServerParameters* parameters);

// Throws CouldNotLook when one of them is empty.
void RequireParameters(const ServerParameters& parameters, std::initializer_list<uint32_t> options);

// The most characters that the library keeps of a parameter.
size_t CapacityOf(uint32_t option);

// What the library keeps of the parameters; tells on the standard error what it cuts.
ServerParameters Cut(const ServerParameters& parameters);

}  // namespace qvopl

#endif
