// qvopl doctor: what is wrong, and what to do about it.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/qvopl/Command.h"
#include "tools/qvopl/Diagnosis.h"
#include "tools/qvopl/DirectoryChecks.h"
#include "tools/qvopl/InstanceProcess.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Repairs.h"
#include "tools/qvopl/SystemChecks.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

struct Options {
  bool fix = false;
  bool yes = false;
  bool unsure = false;
  std::string root = "/";
  int64_t leastAge = 60;
  unsigned percent = 80;
};

constexpr const char* kSeverities[] = {"note", "warning", "error"};
constexpr Style kStyles[] = {Style::kQuiet, Style::kBusy, Style::kBad};
constexpr size_t kIndent = 9;  // behind "warning  "

const char* NameOf(Severity severity) { return kSeverities[static_cast<size_t>(severity)]; }

enum class Outcome { kNotTried, kRepaired, kDeclined, kFailed };

struct Told {
  Finding finding;
  Outcome outcome = Outcome::kNotTried;
  std::string why;  // it failed
};

class Doctor {
 public:
  Doctor(Settings* settings, const Options& options)
      : settings_(*settings),
        options_(options),
        isShownOnly_(!options.fix || (!options.yes && !CanAsk(*settings))) {}

  int Run() {
    Look();
    if (!settings_.json)
      for (Told& told : findings_) {
        Print(told.finding);
        Repair(&told);
        PrintOutcome(told);
      }
    else
      for (Told& told : findings_) Repair(&told);
    settings_.json ? PrintJson() : PrintSummary();
    return std::all_of(findings_.begin(), findings_.end(),
                       [](const Told& told) { return told.outcome == Outcome::kRepaired; })
               ? kFine
               : kFound;
  }

 private:
  void Look() {
    const IpcDirectory directory(settings_.ipcPath);
    Findings findings;
    CheckDirectory(settings_.ipcPath, &findings);
    diagnosis_ = DiagnoseObjects(directory, settings_.instance, options_.leastAge);
    CheckSystem(options_.root, directory, diagnosis_.owners, options_.percent, &findings);
    for (Finding& finding : diagnosis_.findings) findings.push_back(std::move(finding));
    std::stable_sort(findings.begin(), findings.end(), [](const Finding& a, const Finding& b) {
      return a.severity != b.severity ? a.severity > b.severity : a.subject < b.subject;
    });
    for (Finding& finding : findings) findings_.push_back({std::move(finding), Outcome::kNotTried, ""});
  }

  static bool IsOwn(const Finding& finding) {
    return finding.repair.has_value() && finding.repair->owner == ::geteuid();
  }

  bool IsRepairable(const Finding& finding) const {
    return IsOwn(finding) && (finding.repair->isSure || options_.unsure);
  }

  void Repair(Told* told) {
    if (isShownOnly_ || !IsRepairable(told->finding)) return;
    const std::string question = std::string(kIndent, ' ') +
                                 static_cast<char>(std::toupper(told->finding.repair->does[0])) +
                                 told->finding.repair->does.substr(1) + "?";
    if (!options_.yes && !Ask(question)) {
      told->outcome = Outcome::kDeclined;
      return;
    }
    told->why = DoRepair(&settings_, *told->finding.repair);
    told->outcome = told->why.empty() ? Outcome::kRepaired : Outcome::kFailed;
  }

  // The first line behind what stands there already, if anything does.
  void PrintWrapped(std::string before, const std::string& text, size_t indent, Style style) const {
    const Screen& screen = settings_.screen;
    const size_t width = screen.width > 2 * indent ? screen.width - indent : std::max(text.size(), size_t{1});
    for (const std::string& line : Wrapped(text, width)) {
      std::printf("%s%s\n", before.c_str(), Styled(line, style, screen.colour).c_str());
      before.assign(indent, ' ');
    }
  }

  void PrintIndented(const std::string& text, Style style = Style::kPlain) const {
    PrintWrapped(std::string(kIndent, ' '), text, kIndent, style);
  }

  void PrintLine(const std::string& text) const { PrintWrapped("", text, 0, Style::kPlain); }

  void Print(const Finding& finding) const {
    const std::string severity = NameOf(finding.severity);
    const Style style = kStyles[static_cast<size_t>(finding.severity)];
    PrintWrapped(
        Styled(severity, style, settings_.screen.colour) + std::string(kIndent - severity.size(), ' '),
        Printable(finding.subject), kIndent, Style::kTitle);
    PrintIndented(finding.what + ".");
    PrintIndented(finding.advice);
    if (finding.repair.has_value() && (isShownOnly_ || !IsRepairable(finding)))
      PrintIndented(RepairOf(finding));
  }

  static std::string RepairOf(const Finding& finding) {
    const std::string& does = finding.repair->does;
    if (!IsOwn(finding))
      return "--fix " + does + " when user " + UserName(finding.repair->owner) + " runs it.";
    return (finding.repair->isSure ? "--fix " : "--fix --unsure ") + does + ".";
  }

  void PrintOutcome(const Told& told) const {
    if (told.outcome == Outcome::kRepaired)
      PrintIndented("Repaired: " + told.finding.repair->does + ".", Style::kQuiet);
    if (told.outcome == Outcome::kFailed) PrintIndented("Left alone: " + told.why + ".", Style::kBad);
  }

  size_t Number(Severity severity) const {
    return static_cast<size_t>(std::count_if(findings_.begin(), findings_.end(), [&](const Told& told) {
      return told.finding.severity == severity;
    }));
  }

  size_t Number(Outcome outcome) const {
    return static_cast<size_t>(std::count_if(findings_.begin(), findings_.end(),
                                             [&](const Told& told) { return told.outcome == outcome; }));
  }

  void PrintSummary() const {
    const std::string where = Printable(settings_.ipcPath);
    const std::string scope = Count(static_cast<int64_t>(diagnosis_.objects), "file") + " of " +
                              Count(static_cast<int64_t>(diagnosis_.instances), "instance") + " in " + where;
    if (findings_.empty()) PrintLine("Nothing is wrong: " + scope + ".");
    if (!findings_.empty()) PrintLine(Count(Size(), "finding") + " (" + Severities() + "): " + scope + ".");
    const auto repairable = std::count_if(findings_.begin(), findings_.end(),
                                          [&](const Told& told) { return IsRepairable(told.finding); });
    if (isShownOnly_ && repairable != 0)
      PrintLine(std::string("qvopl doctor --fix") + (options_.fix ? " --yes" : "") + " repairs " +
                Count(repairable, "of them", "of them") + ".");
    if (!isShownOnly_)
      PrintLine(Count(static_cast<int64_t>(Number(Outcome::kRepaired)), "finding") + " repaired.");
    if (diagnosis_.unsettled != 0)
      PrintLine(Count(static_cast<int64_t>(diagnosis_.unsettled), "object") +
                " left out: somebody was working on it all the time.");
    if (diagnosis_.unread != 0)
      PrintLine(Count(static_cast<int64_t>(diagnosis_.unread), "object") +
                " could not be looked at as user " + UserName(::geteuid()) + "; root can.");
  }

  int64_t Size() const { return static_cast<int64_t>(findings_.size()); }

  std::string Severities() const {
    std::string text;
    for (const Severity severity : {Severity::kError, Severity::kWarning, Severity::kNote})
      if (const size_t number = Number(severity); number != 0)
        text += (text.empty() ? "" : ", ") + Count(static_cast<int64_t>(number), NameOf(severity));
    return text;
  }

  static Json ToJson(const Told& told) {
    constexpr const char* kOutcomes[] = {"not tried", "repaired", "declined", "failed"};
    const Finding& finding = told.finding;
    Json json = {{"severity", NameOf(finding.severity)},
                 {"finding", finding.name},
                 {"subject", JsonText(finding.subject)}};
    if (!finding.instance.empty()) json["instance"] = JsonText(finding.instance);
    json["what"] = JsonText(finding.what);
    json["advice"] = JsonText(finding.advice);
    if (!finding.repair.has_value()) return json;
    json["repair"] = {{"does", finding.repair->does},
                      {"isSure", finding.repair->isSure},
                      {"owner", UserName(finding.repair->owner)},
                      {"outcome", kOutcomes[static_cast<size_t>(told.outcome)]}};
    if (!told.why.empty()) json["repair"]["why"] = JsonText(told.why);
    return json;
  }

  void PrintJson() const {
    Json json = {{"ipcPath", JsonText(settings_.ipcPath)},
                 {"findings", Json::array()},
                 {"files", diagnosis_.objects},
                 {"instances", diagnosis_.instances},
                 {"unsettled", diagnosis_.unsettled},
                 {"notLookedAt", diagnosis_.unread}};
    for (const Told& told : findings_) json["findings"].push_back(ToJson(told));
    std::puts(Dump(json).c_str());
  }

  Settings& settings_;
  const Options& options_;
  const bool isShownOnly_;
  Diagnosis diagnosis_;
  std::vector<Told> findings_;
};

}  // namespace

void AddDoctorCommand(const Program& program) {
  static Options options;
  Settings* const settings = &program.settings;
  CLI::App* const command =
      AddCommand(program,
                 {"doctor", "Tells what is wrong, and repairs what is safe to repair",
                  "  qvopl doctor                    what is wrong, and what to do about it\n"
                  "  qvopl doctor --fix              asks before each repair\n"
                  "  qvopl doctor --fix --yes        repairs without asking, for scripts\n"},
                 [settings](const Settings&) { return Doctor(settings, options).Run(); });
  command->add_flag("--fix", options.fix,
                    "Repair what belongs to the calling user and no living process uses; asks first");
  command->add_flag("--yes", options.yes, "Do not ask");
  command->add_flag("--unsure", options.unsure, "Repair also what may be another program's");
  command->add_option("--root", options.root, "Where the system's configuration lies; else /")
      ->type_name("DIRECTORY")
      ->check(CLI::ExistingDirectory);
  command
      ->add_option("--threshold", options.percent,
                   "From how much on a limit counts as nearly reached, in percent; else 80")
      ->type_name("PERCENT")
      ->check(CLI::Range(1, 100));
  command->add_option("--age", options.leastAge, "How old a set must be whose maker cannot be told; else 60")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
}

}  // namespace qvopl
