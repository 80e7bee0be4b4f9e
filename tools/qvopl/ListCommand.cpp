// qvopl list: every object, with its state.
#include <cstdio>

#include "tools/qvopl/Command.h"
#include "tools/qvopl/Listing.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

int List(const Settings& settings, const std::vector<std::string>& names) {
  const IpcDirectory directory(settings.ipcPath);
  View view(directory);
  const std::vector<Group> groups = LookAtObjects(&view, {settings.instance, names});
  if (settings.json) {
    Json json = {{"ipcPath", JsonText(settings.ipcPath)}, {"groups", Json::array()}};
    for (const Group& group : groups) json["groups"].push_back(ToJson(group));
    std::puts(Dump(json).c_str());
  } else {
    for (const std::string& line : LinesOf(groups, view.now, settings.screen)) std::puts(line.c_str());
    if (groups.empty()) std::puts(("no objects in " + Printable(settings.ipcPath)).c_str());
  }
  return HasBroken(groups) ? kFound : kFine;
}

}  // namespace

void AddListCommand(const Program& program) {
  static std::vector<std::string> names;
  CLI::App* const command = AddCommand(program,
                                       {"list", "Lists objects with their state",
                                        "  qvopl list                      all objects of the IPC directory\n"
                                        "  qvopl list --instance prod      those of one instance\n"
                                        "  qvopl list 'q*' --json          some, for programs\n"},
                                       [](const Settings& settings) { return List(settings, names); });
  command->add_option("NAME", names, "Names of objects or files, or patterns of them");
}

}  // namespace qvopl
