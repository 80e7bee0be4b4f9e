// qvopl explain: what a result code means, what leads to it and what to do.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qvopl/Command.h"
#include "tools/qvopl/ResultCodes.h"
#include "tools/qvopl/Table.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

using Json = nlohmann::ordered_json;

constexpr uint32_t kLibrary = 0x05;
// Lines that are longer are hard to read, on however wide a screen.
constexpr size_t kWidestText = 100;
constexpr size_t kLabelWidth = 15;

// What one argument stands for.
struct Answer {
  enum Kind { kCodes, kSuccess, kUnknown, kRubbish };
  Kind kind = kRubbish;
  std::vector<const ResultCode*> codes;
  std::string text;  // of what is unknown or rubbish
};

std::string Hex(uint32_t number) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%06X", static_cast<unsigned>(number));
  return text;
}

std::optional<uint32_t> ReadNumber(std::string_view digits, int base) {
  uint32_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number, base);
  if (digits.empty() || stop != end || error != std::errc()) return std::nullopt;
  return number;
}

// A number is hexadecimal when it says so or cannot be anything else. Digits alone may be both: with a 0 in
// front they are rather hexadecimal.
std::vector<uint32_t> ReadingsOf(std::string_view text) {
  const bool saysSo = text.starts_with("0x") || text.starts_with("0X");
  const std::optional<uint32_t> hexadecimal = ReadNumber(saysSo ? text.substr(2) : text, 16);
  const std::optional<uint32_t> decimal = saysSo ? std::nullopt : ReadNumber(text, 10);
  std::vector<uint32_t> readings;
  if (decimal.has_value()) readings.push_back(*decimal);
  if (hexadecimal.has_value()) readings.push_back(*hexadecimal);
  if (text.starts_with('0')) std::ranges::reverse(readings);
  return readings;
}

bool IsName(std::string_view text) {
  const bool isWord = std::ranges::all_of(text, [](char letter) {
    return letter == '_' || (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= 'a' && letter <= 'z');
  });
  return isWord && (text.find("_E_") != std::string_view::npos || text.find("_e_") != std::string_view::npos);
}

std::string WhyUnknown(uint32_t number) {
  if (number >> 16 == kLibrary) {
    const uint32_t moduleNumber = ModuleOf(number);
    const Module* const module = FindModule(moduleNumber);
    char code[8];
    (void)std::snprintf(code, sizeof code, "0x%02X",
                        static_cast<unsigned>(module == nullptr ? moduleNumber : number & 0xFF));
    if (module == nullptr) return Hex(number) + " is no result code: there is no module " + code;
    return Hex(number) + " is no result code: module " + module->name + " has no code " + code;
  }
  const char* const systemName = number <= 4095 ? ::strerrorname_np(static_cast<int>(number)) : nullptr;
  if (systemName != nullptr)
    return std::to_string(number) +
           " is no result code but a number of the system, as OPL_ErrCodeGet tells it: " + systemName + ", " +
           std::strerror(static_cast<int>(number));
  return Hex(number) + " is no result code: those of the library are 0x05MMCC";
}

Answer Ask(const std::string& text) {
  const std::vector<uint32_t> readings = ReadingsOf(text);
  if (::strcasecmp(text.c_str(), "OPL_OK") == 0 || (!readings.empty() && readings.front() == 0))
    return {Answer::kSuccess, {}, ""};
  for (const uint32_t number : readings)
    if (std::vector<const ResultCode*> codes = FindCodes(number); !codes.empty())
      return {Answer::kCodes, std::move(codes), ""};
  if (!readings.empty()) {
    const auto ours = std::ranges::find_if(readings, [](uint32_t n) { return n >> 16 == kLibrary; });
    return {Answer::kUnknown, {}, WhyUnknown(ours != readings.end() ? *ours : readings.front())};
  }
  if (const ResultCode* const code = FindCode(text)) return {Answer::kCodes, {code}, ""};
  if (IsName(text)) return {Answer::kUnknown, {}, text + " is no result code's name"};
  return {Answer::kRubbish, {}, "neither a result code nor the name of one: " + Printable(text)};
}

std::string Sentence(std::string text) {
  text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text + ".";
}

size_t WidthOf(const Screen& screen) {
  return screen.width == 0 ? kWidestText : std::min(screen.width, kWidestText);
}

void PrintField(const char* label, const std::string& text, const Screen& screen) {
  const size_t width = std::max(WidthOf(screen), 2 * kLabelWidth) - 2 - kLabelWidth;
  std::string lead = label;
  lead.resize(kLabelWidth, ' ');
  lead = Styled(lead, Style::kQuiet, screen.colour);
  for (const std::string& line : Wrapped(text, width)) {
    std::printf("  %s%s\n", lead.c_str(), line.c_str());
    lead.assign(kLabelWidth, ' ');
  }
}

// Functions that return a code on the same occasion go together.
std::vector<std::string> OccasionsOf(const ResultCode& code) {
  std::vector<std::pair<const char*, std::string>> occasions;
  for (const Return& entry : code.returns) {
    if (entry.when == nullptr) continue;
    const auto same = std::ranges::find_if(
        occasions, [&](const auto& occasion) { return std::strcmp(occasion.first, entry.when) == 0; });
    if (same != occasions.end())
      same->second += std::string(", ") + entry.function;
    else
      occasions.emplace_back(entry.when, entry.function);
  }
  std::vector<std::string> texts;
  texts.reserve(occasions.size());
  for (const auto& [when, functions] : occasions)
    texts.push_back(*when == '\0' ? functions : functions + ": " + when);
  return texts;
}

void PrintCode(const ResultCode& code, const Screen& screen) {
  const Module* const module = FindModule(ModuleOf(code.number));
  std::printf("%s\n", Styled(Hex(code.number) + " " + code.name, Style::kTitle, screen.colour).c_str());
  PrintField("meaning", Sentence(code.meaning), screen);
  char number[8];
  (void)std::snprintf(number, sizeof number, "0x%02X", static_cast<unsigned>(module->number));
  PrintField("module", std::string(number) + " " + module->name + ": " + module->text, screen);
  PrintField("header", code.header, screen);
  PrintField("likely causes", code.advice.causes, screen);
  PrintField("what to do", code.advice.remedy, screen);
  const char* label = "returned by";
  for (const std::string& occasion : OccasionsOf(code)) {
    PrintField(label, occasion, screen);
    label = "";
  }
  std::string handing;
  for (const Return& entry : code.returns)
    if (entry.when == nullptr) handing += (handing.empty() ? "" : ", ") + std::string(entry.function);
  if (!handing.empty()) PrintField("passed on by", handing, screen);
}

Json ToJson(const ResultCode& code) {
  const Module* const module = FindModule(ModuleOf(code.number));
  Json functions = Json::array();
  Json handing = Json::array();
  for (const Return& entry : code.returns) {
    if (entry.when == nullptr)
      handing.push_back(entry.function);
    else
      functions.push_back({{"function", entry.function}, {"when", entry.when}});
  }
  return {{"code", Hex(code.number)},
          {"number", code.number},
          {"name", code.name},
          {"header", code.header},
          {"module", {{"number", module->number}, {"name", module->name}, {"text", module->text}}},
          {"meaning", code.meaning},
          {"reserved", code.isReserved},
          {"causes", code.advice.causes},
          {"remedy", code.advice.remedy},
          {"returnedBy", std::move(functions)},
          {"passedOnBy", std::move(handing)}};
}

Json SuccessAsJson() {
  return {{"code", Hex(0)}, {"number", 0}, {"name", "OPL_OK"}, {"meaning", MeaningOfSuccess()}};
}

int ListAll(const Settings& settings) {
  if (settings.json) {
    Json codes = Json::array({SuccessAsJson()});
    for (const ResultCode& code : ResultCodes()) codes.push_back(ToJson(code));
    std::printf("%s\n", Json{{"codes", std::move(codes)}}.dump(2).c_str());
    return kFine;
  }
  Table table({{.title = "CODE"}, {.title = "NAME"}, {.title = "MEANING", .dropped = 1, .least = 20}});
  table.Add({{Hex(0)}, {"OPL_OK"}, {MeaningOfSuccess()}});
  for (const ResultCode& code : ResultCodes())
    table.Add(
        {{Hex(code.number)}, {code.name}, {code.meaning, code.isReserved ? Style::kQuiet : Style::kPlain}});
  for (const std::string& line : table.Lines(settings.screen)) std::printf("%s\n", line.c_str());
  return kFine;
}

void PrintAnswer(const Answer& answer, const Screen& screen) {
  if (answer.kind == Answer::kSuccess) {
    std::printf("%s\n", Styled(Hex(0) + " OPL_OK", Style::kTitle, screen.colour).c_str());
    PrintField("meaning", Sentence(MeaningOfSuccess()), screen);
  }
  for (const ResultCode* const code : answer.codes) PrintCode(*code, screen);
  if (answer.kind != Answer::kUnknown) return;
  const size_t width = screen.width != 0 ? screen.width : answer.text.size();
  for (const std::string& line : Wrapped(answer.text, width)) std::printf("%s\n", line.c_str());
}

int Explain(const Settings& settings, const std::vector<std::string>& texts) {
  if (texts.empty()) return ListAll(settings);
  int exitCode = kFine;
  Json codes = Json::array();
  Json unknown = Json::array();
  const char* gap = "";
  for (const std::string& text : texts) {
    const Answer answer = Ask(text);
    if (answer.kind == Answer::kRubbish) throw CouldNotLook(answer.text);
    if (answer.kind == Answer::kUnknown) exitCode = kFound;
    if (!settings.json) {
      std::printf("%s", gap);
      PrintAnswer(answer, settings.screen);
      gap = "\n";
      continue;
    }
    if (answer.kind == Answer::kSuccess) codes.push_back(SuccessAsJson());
    for (const ResultCode* const code : answer.codes) codes.push_back(ToJson(*code));
    if (answer.kind == Answer::kUnknown) unknown.push_back({{"asked", text}, {"text", answer.text}});
  }
  if (settings.json)
    std::printf("%s\n", Json{{"codes", std::move(codes)}, {"unknown", std::move(unknown)}}.dump(2).c_str());
  return exitCode;
}

}  // namespace

void AddExplainCommand(const Program& program) {
  const auto codes = std::make_shared<std::vector<std::string>>();
  CLI::App* const command = AddCommand(
      program,
      {"explain", "Tells what a result code means, what leads to it and what to do; without one, lists all",
       "  qvopl explain 0x05005E             a code of the library\n"
       "  qvopl explain 327774               the same, as a decimal number\n"
       "  qvopl explain OPL_SYNC_E_MISMATCH  the same by its name\n"
       "  qvopl explain                      all codes\n"},
      [codes](const Settings& settings) { return Explain(settings, *codes); });
  command->add_option("code", *codes, "Codes, hexadecimal or decimal, or their names")->type_name("CODE");
}

}  // namespace qvopl
