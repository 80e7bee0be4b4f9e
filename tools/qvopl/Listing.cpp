#include "tools/qvopl/Listing.h"

#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr Style kStyleOf[] = {Style::kPlain, Style::kBusy, Style::kQuiet, Style::kBad};
constexpr const char* kMarkOf[] = {"", "+", "*", "-"};

// What goes first on a narrow terminal is told by show all the same.
const std::vector<Column>& Columns() {
  static const std::vector<Column> kColumns = {
      {"KIND", 0, 10, false}, {"NAME", 0, 8, false}, {"OWNER", 3, 5, false}, {"MODE", 1, 4, false},
      {"ID", 4, 2, true},     {"USERS", 5, 5, true}, {"USED", 2, 4, true},   {"STATE", 0, 15, false}};
  return kColumns;
}
const std::vector<Column>& ChangeColumns() {
  static const std::vector<Column> kColumns = {{"", 0, 1, false}, {"OPS/MIN", 6, 7, true}};
  return kColumns;
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

// The mark goes to the front, the rate before the state.
template <typename T>
void AddChange(std::vector<T>* row, T mark, T rate) {
  row->insert(row->end() - 1, std::move(rate));
  row->insert(row->begin(), std::move(mark));
}

Cell RateOf(int64_t operations) { return {operations != 0 ? ">=" + Number(operations) : ""}; }

}  // namespace

std::vector<std::string> LinesOf(const std::vector<Group>& groups, int64_t now, const Screen& screen,
                                 const Changes* changes) {
  std::vector<Column> columns = Columns();
  if (changes != nullptr) AddChange(&columns, ChangeColumns()[0], ChangeColumns()[1]);
  std::vector<std::string> lines;
  for (const Group& group : groups) {
    if (!lines.empty()) lines.emplace_back();
    lines.push_back(Styled(TitleOf(group), Style::kTitle, screen.colour));
    Table table(columns);
    for (const Object& object : group.objects) {
      std::vector<Cell> row = RowOf(object, now);
      if (changes != nullptr)
        AddChange(&row, Cell{kMarkOf[static_cast<size_t>(changes->Of(object))], Style::kTitle},
                  RateOf(changes->OperationsOf(object)));
      table.Add(std::move(row));
    }
    for (std::string& line : table.Lines(screen)) lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace qvopl
