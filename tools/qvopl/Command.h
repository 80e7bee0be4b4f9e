// What all commands have in common, and how they are added. Costly to compile: for the commands alone.
#ifndef QVOPL_TOOL_COMMAND_H
#define QVOPL_TOOL_COMMAND_H

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>

#include "tools/qvopl/Settings.h"

namespace qvopl {

struct Program {
  CLI::App& app;
  Settings& settings;
  int& exitCode;
};

struct Description {
  const char* name;
  const char* text;      // one line
  const char* examples;  // lines of two blanks, a command line and what it does
};

// Adds a command with the options that all have; run yields its exit status.
CLI::App* AddCommand(const Program& program, const Description& description,
                     std::function<int(const Settings&)> run);

void AddListCommand(const Program& program);
void AddShowCommand(const Program& program);
void AddWatchCommand(const Program& program);
void AddExplainCommand(const Program& program);
void AddLimitsCommand(const Program& program);
void AddServerCommand(const Program& program);
void AddDoctorCommand(const Program& program);
void AddCleanCommand(const Program& program);

}  // namespace qvopl

#endif
