// qvopl limits: how much of what the objects are made of is used, how many objects still fit, and how to have
// more.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/qvopl/Command.h"
#include "tools/qvopl/Limits.h"
#include "tools/qvopl/Table.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

using Json = nlohmann::ordered_json;

constexpr unsigned kNearlyReached = 80;

struct OfAProcess {
  const char* key;
  const char* text;
  uint64_t number;
};
// What the library's tables and counts have room for.
constexpr OfAProcess kOfAProcess[] = {
    {"mutexes", "mutexes open in a process", 40},
    {"events", "events open in a process", 39},
    {"blocks", "blocks of shared memory open in a process", 20},
    {"users", "processes that use one object", 32000},
};

std::string Quantity(const std::optional<uint64_t>& number, Unit unit, const char* none) {
  if (!number.has_value()) return none;
  if (unit == Unit::kBytes) return Size(*number);
  const auto most = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  return Number(static_cast<int64_t>(std::min(*number, most)));
}

Cell StateOf(const Limit& limit, unsigned percent) {
  if (limit.IsTooLow())
    return {"too low: " + Quantity(limit.needed, limit.unit, "") + " needed", Style::kBad};
  if (limit.IsNearlyReached(percent)) return {"nearly reached", Style::kBad};
  if (!limit.most.has_value()) return {"no limit"};
  return {"fine"};
}

bool IsFound(const Limits& limits, unsigned percent) {
  return std::ranges::any_of(limits.All(), [percent](const Limit& limit) {
    return limit.IsTooLow() || limit.IsNearlyReached(percent);
  });
}

void Print(const Table& table, const Screen& screen) {
  for (const std::string& line : table.Lines(screen)) std::printf("%s\n", line.c_str());
}

void PrintLimits(const Limits& limits, unsigned percent, const Screen& screen) {
  Table table({{.title = "LIMIT", .least = 12},
               {.title = "USED", .isNumber = true},
               {.title = "AT MOST", .dropped = 2, .isNumber = true},
               {.title = "%", .dropped = 3, .isNumber = true},
               {.title = "STATE", .least = 8},
               {.title = "SET BY", .dropped = 1, .least = 12}});
  for (const Limit& limit : limits.All()) {
    const std::optional<unsigned> percentage = limit.Percentage();
    table.Add({{limit.text},
               {Quantity(limit.used, limit.unit, "-")},
               {Quantity(limit.most, limit.unit, "-")},
               {percentage.has_value() ? std::to_string(*percentage) : "-"},
               StateOf(limit, percent),
               {limit.setBy, Style::kQuiet}});
  }
  Print(table, screen);
}

void PrintRoom(const Limits& limits, const Screen& screen) {
  Table table({{.title = "STILL FIT", .least = 12},
               {.title = "NUMBER", .isNumber = true},
               {.title = "WHAT ENDS FIRST", .dropped = 1, .least = 12}});
  for (const Room& room : limits.RoomForObjects())
    table.Add({{room.text},
               {Quantity(room.fit, Unit::kCount, "no limit"),
                room.fit == uint64_t{0} ? Style::kBad : Style::kPlain},
               {room.limitedBy, Style::kQuiet}});
  Print(table, screen);
  std::printf("\n");
  Table fixed({{.title = "OF THE LIBRARY", .least = 12}, {.title = "AT MOST", .isNumber = true}});
  for (const OfAProcess& entry : kOfAProcess)
    fixed.Add({{entry.text}, {Number(static_cast<int64_t>(entry.number))}});
  Print(fixed, screen);
}

// Lines to be copied: they are not cut to the screen.
void PrintRaises(const Limits& limits, unsigned percent) {
  const std::vector<Raise> raises = limits.Raises(percent);
  if (raises.empty()) return;
  std::printf("\nTo have more, as root:\n");
  for (const Raise& raise : raises) {
    const char* const quote = raise.to.find(' ') == std::string::npos ? "" : "\"";
    std::printf("  sysctl -w %s=%s%s%s\n", raise.name.c_str(), quote, raise.to.c_str(), quote);
  }
  std::printf("and to have it after a restart too:\n");
  for (const Raise& raise : raises)
    std::printf("  echo '%s = %s' >>/etc/sysctl.d/60-qvopl.conf\n", raise.name.c_str(), raise.to.c_str());
}

template <class Value>
Json OrNull(const std::optional<Value>& value) {
  return value.has_value() ? Json(*value) : Json(nullptr);
}

Json ToJson(const Limit& limit, unsigned percent) {
  return {{"key", limit.key},
          {"text", limit.text},
          {"unit", limit.unit == Unit::kBytes ? "bytes" : "count"},
          {"used", OrNull(limit.used)},
          {"most", OrNull(limit.most)},
          {"percent", OrNull(limit.Percentage())},
          {"needed", OrNull(limit.needed)},
          {"tooLow", limit.IsTooLow()},
          {"nearlyReached", limit.IsNearlyReached(percent)},
          {"setBy", limit.setBy}};
}

Json ToJson(const Limits& limits, const Settings& settings, unsigned percent) {
  Json all = Json::array();
  for (const Limit& limit : limits.All()) all.push_back(ToJson(limit, percent));
  Json rooms = Json::array();
  for (const Room& room : limits.RoomForObjects())
    rooms.push_back({{"key", room.key},
                     {"text", room.text},
                     {"fit", OrNull(room.fit)},
                     {"limitedBy", room.fit.has_value() ? Json(room.limitedBy) : Json(nullptr)}});
  Json fixed = Json::object();
  for (const OfAProcess& entry : kOfAProcess) fixed[entry.key] = entry.number;
  Json raises = Json::array();
  for (const Raise& raise : limits.Raises(percent))
    raises.push_back({{"name", raise.name}, {"now", raise.now}, {"to", raise.to}});
  return {{"ipcPath", JsonText(settings.ipcPath)},
          {"threshold", percent},
          {"limits", std::move(all)},
          {"room", std::move(rooms)},
          {"library", std::move(fixed)},
          {"raise", std::move(raises)}};
}

int ShowLimits(const Settings& settings, unsigned percent) {
  const Limits limits(settings.ipcPath);
  if (settings.json) {
    std::printf("%s\n", ToJson(limits, settings, percent).dump(2).c_str());
  } else {
    PrintLimits(limits, percent, settings.screen);
    std::printf("\n");
    PrintRoom(limits, settings.screen);
    PrintRaises(limits, percent);
  }
  return IsFound(limits, percent) ? kFound : kFine;
}

}  // namespace

void AddLimitsCommand(const Program& program) {
  const auto percent = std::make_shared<unsigned>(kNearlyReached);
  CLI::App* const command =
      AddCommand(program,
                 {"limits", "Shows the system's limits, what is used of them, and how many objects still fit",
                  "  qvopl limits                 all limits, and how to raise them\n"
                  "  qvopl limits --threshold 50  what is half used already counts as nearly reached\n"},
                 [percent](const Settings& settings) { return ShowLimits(settings, *percent); });
  command
      ->add_option("--threshold", *percent, "From how much on a limit counts as nearly reached, in percent")
      ->type_name("PERCENT")
      ->check(CLI::Range(1, 100))
      ->capture_default_str();
}

}  // namespace qvopl
