#include "tools/qvopl/Table.h"

#include <algorithm>
#include <climits>
#include <numeric>

#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr size_t kGap = 2;

constexpr const char* kColourOf[] = {"", "\033[1m", "\033[2m", "\033[33m", "\033[31m"};
constexpr char kNoColour[] = "\033[0m";

}  // namespace

std::string Styled(const std::string& text, Style style, bool colour) {
  if (!colour || style == Style::kPlain || text.empty()) return text;
  return kColourOf[static_cast<size_t>(style)] + text + kNoColour;
}

// A number in pieces is another number.
size_t Table::Least(const Shown& column) const {
  const Column& wanted = columns_[column.column];
  return wanted.isNumber ? column.width : std::min(wanted.least, column.width);
}

std::vector<Table::Shown> Table::WidestOf() const {
  std::vector<Shown> shown;
  for (size_t i = 0; i < columns_.size(); ++i) {
    size_t widest = ColumnsOf(columns_[i].title);
    for (const auto& row : rows_) widest = std::max(widest, ColumnsOf(row[i].text));
    shown.push_back({i, widest});
  }
  return shown;
}

// The least important columns go as long as the others cannot have what they need.
void Table::Drop(size_t width, std::vector<Shown>* shown) const {
  const auto needed = [&] {
    return std::accumulate(shown->begin(), shown->end(), kGap * (shown->size() - 1),
                           [&](size_t sum, const Shown& column) { return sum + Least(column); });
  };
  const auto rank = [&](const Shown& column) {
    const int dropped = columns_[column.column].dropped;
    return dropped != 0 ? dropped : INT_MAX;
  };
  while (needed() > width) {
    const auto first = std::min_element(shown->begin(), shown->end(),
                                        [&](const Shown& a, const Shown& b) { return rank(a) < rank(b); });
    if (rank(*first) == INT_MAX) return;
    shown->erase(first);
  }
}

// Those that have most to spare give way.
void Table::Shrink(size_t width, std::vector<Shown>* shown) const {
  const auto spare = [&](const Shown& column) { return column.width - Least(column); };
  size_t total = kGap * (shown->size() - 1);
  for (const Shown& column : *shown) total += column.width;
  while (total > width) {
    const auto widest = std::max_element(shown->begin(), shown->end(),
                                         [&](const Shown& a, const Shown& b) { return spare(a) < spare(b); });
    if (spare(*widest) == 0) return;
    const size_t cut = std::min(spare(*widest), total - width);
    widest->width -= cut;
    total -= cut;
  }
}

std::vector<Table::Shown> Table::Layout(size_t width) const {
  std::vector<Shown> shown = WidestOf();
  if (width == 0) return shown;
  Drop(width, &shown);
  Shrink(width, &shown);
  return shown;
}

void Table::AppendRow(const std::vector<Cell>& row, const std::vector<Shown>& shown, bool colour,
                      std::vector<std::string>* lines) const {
  std::vector<std::vector<std::string>> cells;
  size_t height = 1;
  for (const Shown& column : shown) {
    cells.push_back(Wrapped(row[column.column].text, std::max(column.width, size_t{1})));
    height = std::max(height, cells.back().size());
  }
  for (size_t line = 0; line < height; ++line) {
    std::string text;
    size_t blanks = 0;  // before the next text, so that no line ends in blanks
    for (size_t i = 0; i < shown.size(); ++i) {
      const std::string part = line < cells[i].size() ? cells[i][line] : "";
      const size_t fill = shown[i].width - std::min(shown[i].width, ColumnsOf(part));
      const bool isRight = columns_[shown[i].column].isNumber;
      if (!part.empty()) {
        text.append(blanks + (isRight ? fill : 0), ' ');
        text += Styled(part, row[shown[i].column].style, colour);
        blanks = isRight ? 0 : fill;
      } else {
        blanks += shown[i].width;
      }
      blanks += kGap;
    }
    lines->push_back(std::move(text));
  }
}

std::vector<std::string> Table::Lines(const Screen& screen) const {
  const std::vector<Shown> shown = Layout(screen.width);
  std::vector<Cell> titles;
  for (const Column& column : columns_) titles.push_back({column.title, Style::kTitle});
  std::vector<std::string> lines;
  AppendRow(titles, shown, screen.colour, &lines);
  for (const auto& row : rows_) AppendRow(row, shown, screen.colour, &lines);
  return lines;
}

}  // namespace qvopl
