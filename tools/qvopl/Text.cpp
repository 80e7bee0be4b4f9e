#include "tools/qvopl/Text.h"

#include <ctime>
#include <cwchar>
#include <cwctype>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace qvopl {

namespace {

std::string Hexadecimal(unsigned char byte) {
  std::array<char, 8> text{};
  (void)std::snprintf(text.data(), text.size(), "\\x%02x", static_cast<unsigned>(byte));
  return text.data();
}

// The bytes of the character at the beginning of the text, and its columns: 0 columns for what is not to be
// shown as it is. Characters without a width of their own, marks and changes of direction among them, are
// not.
struct Character {
  size_t bytes;
  size_t columns;
};

Character FirstOf(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return {1, first >= 0x20 && first < 0x7F ? size_t{1} : size_t{0}};
  wchar_t wide = 0;
  std::mbstate_t state{};
  const size_t bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
  if (bytes == 0 || bytes > text.size()) return {1, 0};
  const int columns = std::iswprint(static_cast<std::wint_t>(wide)) != 0 ? ::wcwidth(wide) : 0;
  return {bytes, static_cast<size_t>(std::max(columns, 0))};
}

// The length of the UTF-8 character that begins the text; 0 when none does.
size_t Utf8Length(std::string_view text) {
  const auto at = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const auto follows = [&](size_t i) { return (at(i) & 0xC0U) == 0x80U; };
  if (at(0) < 0x80) return 1;
  if (at(0) >= 0xC2 && at(0) < 0xE0 && follows(1)) return 2;
  if ((at(0) & 0xF0U) == 0xE0U && follows(1) && follows(2)) {
    const unsigned code = (at(0) & 0x0FU) << 12U | (at(1) & 0x3FU) << 6U;
    return code >= 0x800 && (code < 0xD800 || code >= 0xE000) ? 3 : 0;
  }
  if (at(0) >= 0xF0 && at(0) < 0xF5 && follows(1) && follows(2) && follows(3)) {
    const unsigned code = (at(0) & 0x07U) << 18U | (at(1) & 0x3FU) << 12U;
    return code >= 0x10000 && code < 0x110000 ? 4 : 0;
  }
  return 0;
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = Utf8Length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

// Where a line of that many columns ends: its bytes.
size_t FittingBytes(std::string_view text, size_t columns) {
  size_t used = 0;
  size_t bytes = 0;
  while (bytes < text.size()) {
    const Character next = FirstOf(text.substr(bytes));
    if (used + next.columns > columns && bytes != 0) break;
    used += next.columns;
    bytes += next.bytes;
  }
  return bytes;
}

struct Unit {
  int64_t size;
  const char* name;
};

}  // namespace

std::string Printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const Character next = FirstOf(text);
    if (text.front() == '\\')
      shown += "\\\\";
    else if (next.columns != 0)
      shown += text.substr(0, next.bytes);
    else
      for (const char byte : text.substr(0, next.bytes))
        shown += Hexadecimal(static_cast<unsigned char>(byte));
    text.remove_prefix(next.bytes);
  }
  return shown;
}

std::string JsonText(std::string_view text) { return IsUtf8(text) ? std::string(text) : Printable(text); }

size_t ColumnsOf(std::string_view printable) {
  size_t columns = 0;
  while (!printable.empty()) {
    const Character next = FirstOf(printable);
    columns += next.columns;
    printable.remove_prefix(next.bytes);
  }
  return columns;
}

std::vector<std::string> Wrapped(const std::string& printable, size_t columns) {
  std::vector<std::string> lines;
  std::string_view rest = printable;
  for (size_t end = 0; (end = FittingBytes(rest, std::max(columns, size_t{1}))) < rest.size();) {
    // A blank just behind the line ends it as well.
    const size_t blank = rest.rfind(' ', end);
    if (blank != std::string_view::npos && blank != 0) end = blank;
    lines.emplace_back(rest.substr(0, end));
    rest.remove_prefix(end);
    if (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  }
  if (!rest.empty() || lines.empty()) lines.emplace_back(rest);
  return lines;
}

std::string Number(int64_t number) {
  std::string digits = std::to_string(number);
  const size_t first = digits.front() == '-' ? 1 : 0;
  for (size_t at = digits.size(); at > first + 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

std::string Count(int64_t number, const char* one, const char* many) {
  return Number(number) + " " + (number == 1 ? one : many);
}

std::string Size(uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB"};
  auto size = static_cast<double>(bytes);
  size_t unit = 0;
  for (; size >= 1024 && unit + 1 < std::size(kUnits); ++unit) size /= 1024;
  const bool isWhole = size >= 10 || size == static_cast<double>(static_cast<int64_t>(size));
  std::array<char, 32> text{};
  (void)std::snprintf(text.data(), text.size(), "%.*f %s", isWhole ? 0 : 1, size, kUnits[unit]);
  return text.data();
}

std::string Age(int64_t seconds) {
  constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}};
  for (const Unit& unit : kUnits)
    if (seconds >= 2 * unit.size) return Number(seconds / unit.size) + " " + unit.name;
  return Number(std::max(seconds, int64_t{0})) + " s";
}

int64_t Now() {
  timespec now{};
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

std::string Time(int64_t secondsSinceEpoch) {
  const auto time = static_cast<std::time_t>(secondsSinceEpoch);
  std::tm local{};
  std::array<char, 64> text{};
  if (::localtime_r(&time, &local) == nullptr) return std::to_string(secondsSinceEpoch);
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  return text.data();
}

std::string Mode(uint32_t mode) {
  std::array<char, 16> text{};
  (void)std::snprintf(text.data(), text.size(), "%04o", mode & 07777U);
  return text.data();
}

}  // namespace qvopl
