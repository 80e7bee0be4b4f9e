// Words for people: names that cannot harm a terminal, sizes, ages, numbers of things.
#ifndef QVOPL_TOOL_TEXT_H
#define QVOPL_TOOL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvopl {

// The text with everything that a terminal might obey, or would not show, as \xNN, and \ as \\: names of
// files are anybody's. Characters beyond ASCII stay where the locale can print them.
std::string Printable(std::string_view text);

// The text as JSON can carry it: itself if it is UTF-8, else as Printable.
std::string JsonText(std::string_view text);

// How many columns of a terminal a printable text takes.
size_t ColumnsOf(std::string_view printable);

// A printable text in lines of at most that many columns, broken at blanks where there are any.
std::vector<std::string> Wrapped(const std::string& printable, size_t columns);

// "1 post", "2 posts", "1,024 posts".
std::string Count(int64_t number, const char* one, const char* many);
inline std::string Count(int64_t number, const char* what) {
  return Count(number, what, (std::string(what) + "s").c_str());
}
std::string Number(int64_t number);

// "100 B", "64 kB", "1.5 MB".
std::string Size(uint64_t bytes);

// "3 s", "12 min", "5 h", "3 d".
std::string Age(int64_t seconds);

// Seconds since the epoch by the exact clock, which no file's time is ahead of; the one that goes in ticks
// may be a second behind a file just made.
int64_t Now();

// "2026-11-22 04:47:00", in local time.
std::string Time(int64_t secondsSinceEpoch);

// "0600".
std::string Mode(uint32_t mode);

}  // namespace qvopl

#endif
