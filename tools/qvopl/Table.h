// Lines and columns that fit a terminal: what is too wide is wrapped within its column, and on a narrow
// terminal the less important columns are left out.
#ifndef QVOPL_TOOL_TABLE_H
#define QVOPL_TOOL_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace qvopl {

enum class Style { kPlain, kTitle, kQuiet, kBusy, kBad };

// The text in the style's colour; as it is where colours are not wanted. Texts are printable.
std::string Styled(const std::string& text, Style style, bool colour);

struct Column {
  std::string title;
  int dropped = 0;        // which is left out first: 1, 2, ...; 0 stays
  size_t least = 1;       // columns that it needs to be readable; numbers need all
  bool isNumber = false;  // stands at the right
};

struct Cell {
  std::string text;
  Style style = Style::kPlain;
};

// Where a table is shown. A width of 0 is no limit: all columns, one line a row.
struct Screen {
  size_t width = 0;
  bool colour = false;
};

class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

  // Its lines, the titles first.
  std::vector<std::string> Lines(const Screen& screen) const;

 private:
  struct Shown {
    size_t column;
    size_t width;
  };

  size_t Least(const Shown& column) const;
  std::vector<Shown> WidestOf() const;
  void Drop(size_t width, std::vector<Shown>* shown) const;
  void Shrink(size_t width, std::vector<Shown>* shown) const;
  // The columns that are shown, with their widths.
  std::vector<Shown> Layout(size_t width) const;
  void AppendRow(const std::vector<Cell>& row, const std::vector<Shown>& shown, bool colour,
                 std::vector<std::string>* lines) const;

  const std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace qvopl

#endif
