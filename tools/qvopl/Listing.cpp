#include "tools/qvopl/Listing.h"

#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr Style kStyleOf[] = {Style::kPlain, Style::kBusy, Style::kQuiet, Style::kBad};

// What goes first on a narrow terminal is told by show all the same.
std::vector<Column> Columns() {
  return {{"KIND", 0, 5, false}, {"NAME", 0, 8, false}, {"OWNER", 3, 5, false}, {"MODE", 1, 4, false},
          {"ID", 4, 2, true},    {"USERS", 5, 5, true}, {"USED", 2, 4, true},   {"STATE", 0, 18, false}};
}

std::vector<Cell> RowOf(const Object& object, int64_t now) {
  const struct stat& status = object.entry.status;
  const int64_t used = object.lastUsed.value_or(0);
  return {{NameOf(object.entry.name.kind)},
          {TitleOf(object)},
          {UserName(status.st_uid)},
          {Mode(status.st_mode)},
          {object.id.has_value() ? std::to_string(*object.id) : ""},
          {object.users.has_value() ? std::to_string(*object.users) : ""},
          {used != 0 ? Age(now - used) : ""},
          {object.state, kStyleOf[static_cast<size_t>(object.condition)]}};
}

}  // namespace

std::vector<std::string> LinesOf(const std::vector<Group>& groups, int64_t now, const Screen& screen) {
  std::vector<std::string> lines;
  for (const Group& group : groups) {
    if (!lines.empty()) lines.emplace_back();
    lines.push_back(Styled(TitleOf(group), Style::kTitle, screen.colour));
    Table table(Columns());
    for (const Object& object : group.objects) table.Add(RowOf(object, now));
    for (std::string& line : table.Lines(screen)) lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace qvopl
