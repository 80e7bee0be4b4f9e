#include "tools/qvopl/CleanupJobs.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

namespace qvopl {

namespace {

namespace fs = std::filesystem;

struct Line {
  std::string where;
  std::string text;
};

// The lines of a file, those that end in a backslash joined with the next, without comments and empty ones. A
// comment ends with its line, whatever it ends in.
std::vector<Line> LinesOf(const fs::path& root, const std::string& file) {
  std::ifstream stream(root / fs::path(file).relative_path());
  std::vector<Line> lines;
  std::string text;
  int number = 0;
  int first = 0;
  const auto end = [&] {
    const size_t begin = text.find_first_not_of(" \t\r");
    if (begin != std::string::npos) lines.push_back({file + ":" + std::to_string(first), text.substr(begin)});
    text.clear();
  };
  for (std::string part; std::getline(stream, part);) {
    ++number;
    const size_t begin = part.find_first_not_of(" \t\r");
    if (text.empty() && (begin == std::string::npos || part[begin] == '#')) continue;
    if (text.empty()) first = number;
    const bool goesOn = part.ends_with('\\');
    text += goesOn ? part.substr(0, part.size() - 1) + ' ' : part;
    if (!goesOn) end();
  }
  end();
  return lines;
}

// Regular files of a directory, links to them included, sorted; editors' and packages' leftovers left out.
std::vector<std::string> FilesOf(const fs::path& root, const std::string& directory) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator at(root / fs::path(directory).relative_path(), error), end; !error && at != end;
       at.increment(error)) {
    const std::string name = at->path().filename();
    std::error_code ignored;
    if (name.starts_with('.') || name.ends_with('~') || name.find(".dpkg-") != std::string::npos ||
        !fs::is_regular_file(at->path(), ignored))
      continue;
    files.push_back((fs::path(directory) / name).string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Later directories have the say only over names that the earlier ones do not have. A link to nowhere, as to
// /dev/null, has its name and nothing more.
std::vector<std::string> LayeredFilesOf(const fs::path& root, std::initializer_list<const char*> directories,
                                        const char* suffix) {
  std::map<std::string, std::string> byName;
  for (const char* const directory : directories) {
    std::error_code error;
    for (fs::directory_iterator at(root / fs::path(directory).relative_path(), error), end;
         !error && at != end; at.increment(error))
      if (const std::string name = at->path().filename(); name.ends_with(suffix))
        byName.emplace(name, std::string(directory) + "/" + name);
  }
  std::vector<std::string> files;
  files.reserve(byName.size());
  for (const auto& [name, file] : byName) files.push_back(file);
  return files;
}

// Words as a shell takes them, and ";", "|" and "&" between its commands. Variables stay as they are written.
std::vector<std::string> WordsOf(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  bool isWord = false;
  char quote = '\0';
  const auto end = [&] {
    if (isWord) words.push_back(word);
    word.clear();
    isWord = false;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quote != '\0') {
      if (c == quote)
        quote = '\0';
      else
        word += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
      isWord = true;
    } else if (c == '\\' && i + 1 < text.size()) {
      word += text[++i];
      isWord = true;
      // find's own end of a command, not the shell's
    } else if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      end();
    } else if (c == '#' && !isWord) {
      break;
    } else if (c == ';' || c == '|' || c == '&') {
      end();
      words.emplace_back(1, '\n');  // no word has one
      words.back() += c;
    } else {
      word += c;
      isWord = true;
    }
  }
  end();
  return words;
}

using Words = std::vector<std::string>;

struct Command {
  Words words;
  bool feedsNext = false;  // its output goes into the next one
};

std::vector<Command> CommandsOf(const std::string& text) {
  std::vector<Command> commands(1);
  for (const std::string& word : WordsOf(text)) {
    if (!word.starts_with('\n')) {
      commands.back().words.push_back(word);
      continue;
    }
    commands.back().feedsNext = word == "\n|";
    commands.emplace_back();
  }
  return commands;
}

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The index behind the word that is the program; what stands before it is a time, a user, "nice", "then".
std::optional<size_t> BehindProgram(const Words& words, std::initializer_list<std::string_view> programs) {
  for (size_t i = 0; i < words.size(); ++i)
    if (std::find(programs.begin(), programs.end(), NameOf(words[i])) != programs.end()) return i + 1;
  return std::nullopt;
}

std::string WithoutTrail(std::string path) {
  while (path.size() > 1 && (path.ends_with('/') || path.ends_with("/."))) path.pop_back();
  return path;
}

// Whether the directory is the path, lies below it, or, with a pattern, matches it there.
bool Covers(const std::string& pattern, const std::string& directory) {
  if (!pattern.starts_with('/')) return false;
  const std::string path = WithoutTrail(pattern);
  for (fs::path at(directory);; at = at.parent_path()) {
    if (::fnmatch(path.c_str(), at.c_str(), FNM_PATHNAME) == 0) return true;
    if (at == at.parent_path()) return false;
  }
}

using Harm = CleanupJob::Harm;
using Targets = std::vector<JobTarget>;

std::optional<Harm> HarmOfFind(const Command& command, size_t at, const Command* next,
                               const Targets& targets) {
  const Words& words = command.words;
  while (at < words.size() && (words[at] == "-L" || words[at] == "-H" || words[at] == "-P")) ++at;
  bool isCovered = false;
  for (; at < words.size() && !words[at].starts_with('-') && words[at] != "(" && words[at] != "!"; ++at)
    isCovered |= Covers(words[at], targets.front().directory);
  const Words expression(words.begin() + static_cast<ptrdiff_t>(at), words.end());
  const bool feedsRemover =
      command.feedsNext && next != nullptr && BehindProgram(next->words, {"rm", "unlink", "shred"});
  if (!isCovered) return std::nullopt;
  Answer worst = Answer::kNo;
  for (const JobTarget& target : targets) {
    const FindEffect effect = EffectOfFind(expression, target);
    worst = std::max(worst, feedsRemover ? std::max(effect.deletes, effect.prints) : effect.deletes);
  }
  if (worst == Answer::kNo) return std::nullopt;
  return worst == Answer::kYes ? Harm::kRemovesFiles : Harm::kMayRemoveFiles;
}

std::optional<Harm> HarmOfRm(const Words& words, size_t at, const Targets& targets) {
  const bool isRecursive =
      std::any_of(words.begin() + static_cast<ptrdiff_t>(at), words.end(), [](const auto& word) {
        return word == "--recursive" || (word.starts_with('-') && !word.starts_with("--") &&
                                         word.find_first_of("rR") != std::string::npos);
      });
  for (; at < words.size(); ++at) {
    if (!words[at].starts_with('/')) continue;
    if (isRecursive && Covers(words[at], targets.front().directory)) return Harm::kRemovesFiles;
    for (const JobTarget& target : targets)
      if (::fnmatch(words[at].c_str(), target.Path().c_str(), FNM_PATHNAME | FNM_PERIOD) == 0)
        return Harm::kRemovesFiles;
  }
  return std::nullopt;
}

// They go by the time of access unless they are told to go by that of change.
std::optional<Harm> HarmOfReaper(const Words& words, size_t at, const Targets& targets) {
  const auto first = words.begin() + static_cast<ptrdiff_t>(at);
  const bool byChange = std::any_of(first, words.end(), [](const std::string& word) {
    return word == "--ctime" ||
           (word.starts_with('-') && !word.starts_with("--") && word.find('c') != std::string::npos);
  });
  const bool isCovered = std::any_of(
      first, words.end(), [&](const std::string& word) { return Covers(word, targets.front().directory); });
  return byChange && isCovered ? std::optional(Harm::kRemovesFiles) : std::nullopt;
}

std::optional<Harm> HarmOf(const std::vector<Command>& commands, size_t index, const Targets& targets) {
  const Command& command = commands[index];
  const Command* const next = index + 1 < commands.size() ? &commands[index + 1] : nullptr;
  if (const auto at = BehindProgram(command.words, {"find"})) return HarmOfFind(command, *at, next, targets);
  if (const auto at = BehindProgram(command.words, {"tmpwatch", "tmpreaper"}))
    return HarmOfReaper(command.words, *at, targets);
  if (const auto at = BehindProgram(command.words, {"rm"})) return HarmOfRm(command.words, *at, targets);
  return std::nullopt;
}

void LookAtCommands(const std::vector<Line>& lines, const char* prefix, const Targets& targets,
                    std::vector<CleanupJob>* jobs) {
  for (const Line& line : lines) {
    if (!line.text.starts_with(prefix)) continue;
    const std::vector<Command> commands = CommandsOf(line.text);
    for (size_t i = 0; i < commands.size(); ++i)
      if (const auto harm = HarmOf(commands, i, targets)) {
        jobs->push_back({line.where, line.text, *harm});
        break;
      }
  }
}

// What is done every day by the package of that name is told in variables of a file of its own.
void LookAtReaperSettings(const fs::path& root, const Targets& targets, std::vector<CleanupJob>* jobs) {
  bool byChange = false;
  std::optional<Line> directories;
  for (const Line& line : LinesOf(root, "/etc/tmpreaper.conf")) {
    const Words words = WordsOf(line.text);
    if (words.empty()) continue;
    if (words[0].starts_with("TMPREAPER_ADDITIONALOPTIONS="))
      byChange = words[0].find("--ctime") != std::string::npos;
    if (!words[0].starts_with("TMPREAPER_DIRS=")) continue;
    for (const std::string& directory : WordsOf(words[0].substr(words[0].find('=') + 1)))
      if (Covers(directory, targets.front().directory)) directories = line;
  }
  if (byChange && directories) jobs->push_back({directories->where, directories->text, Harm::kRemovesFiles});
}

// A line of tmpfiles.d about a directory.
struct AgeRule {
  Line line;
  std::string path;
  bool isExclusion;
  std::string age;
};

std::optional<AgeRule> AgeRuleOf(const Line& line) {
  enum { kType, kPath, kMode, kUser, kGroup, kAge };
  const Words words = WordsOf(line.text);
  if (words.size() <= kPath || !words[kPath].starts_with('/')) return std::nullopt;
  const std::string& type = words[kType];
  const std::string age = words.size() > kAge ? words[kAge] : "-";
  if (type.find('!') != std::string::npos) return std::nullopt;  // at boot, when no object is left
  if (type[0] == 'x' || type[0] == 'X') return AgeRule{line, words[kPath], true, "-"};
  if (std::string_view("dDevqQC").find(type[0]) == std::string_view::npos) return std::nullopt;
  return AgeRule{line, words[kPath], false, age};
}

// "10d", "~10d", "c:10d": the letters before a colon are the times that count; without any all do, and the
// newest decides.
std::optional<Harm> HarmOfAge(std::string_view age, bool isBelow) {
  if (age.starts_with('~')) age.remove_prefix(1);
  if (age.empty() || age == "-") return std::nullopt;
  const size_t colon = age.find(':');
  const std::string_view times =
      colon != std::string_view::npos ? age.substr(0, colon) : std::string_view("abcm");
  const std::string_view span = colon != std::string_view::npos ? age.substr(colon + 1) : age;
  if (!span.empty() && span.find_first_not_of('0') == std::string_view::npos) return Harm::kRemovesFiles;
  const bool looksAtFiles = times.find_first_of("abcm") != std::string_view::npos;
  if (looksAtFiles && times.find_first_of("am") == std::string_view::npos) return Harm::kRemovesFiles;
  return isBelow ? std::optional(Harm::kRemovesDirectory) : std::nullopt;
}

// The rule whose path is nearest has the say over what is below it.
void LookAtAgeRules(const fs::path& root, const std::string& directory, std::vector<CleanupJob>* jobs) {
  std::optional<AgeRule> nearest;
  for (const std::string& file : LayeredFilesOf(
           root, {"/etc/tmpfiles.d", "/run/tmpfiles.d", "/usr/local/lib/tmpfiles.d", "/usr/lib/tmpfiles.d"},
           ".conf"))
    for (const Line& line : LinesOf(root, file)) {
      const std::optional<AgeRule> rule = AgeRuleOf(line);
      if (!rule || !Covers(rule->path, directory)) continue;
      if (rule->isExclusion) return;
      if (!nearest || WithoutTrail(rule->path).size() > WithoutTrail(nearest->path).size()) nearest = rule;
    }
  if (!nearest) return;
  const bool isBelow = ::fnmatch(WithoutTrail(nearest->path).c_str(), directory.c_str(), FNM_PATHNAME) != 0;
  if (const auto harm = HarmOfAge(nearest->age, isBelow))
    jobs->push_back({nearest->line.where, nearest->line.text, *harm});
}

}  // namespace

std::vector<JobTarget> UsualTargets(const std::string& directory) {
  return {{directory, "x.mutex.y.006.021", 'f'},
          {directory, "x.event.y.006.021", 'p'},
          {directory, "x.event.y.006.021.count", 'f'},
          {directory, "x.sck.y.006.021", 's'}};
}

std::vector<CleanupJob> FindCleanupJobs(const fs::path& root, const std::string& directory,
                                        const Targets& targets) {
  std::vector<CleanupJob> jobs;
  LookAtAgeRules(root, directory, &jobs);
  LookAtReaperSettings(root, targets, &jobs);
  std::vector<std::string> files{"/etc/crontab", "/etc/anacrontab"};
  for (const char* const place : {"/etc/cron.d", "/etc/cron.hourly", "/etc/cron.daily", "/etc/cron.weekly",
                                  "/etc/cron.monthly", "/var/spool/cron", "/var/spool/cron/crontabs"})
    for (std::string& file : FilesOf(root, place)) files.push_back(std::move(file));
  for (const std::string& file : files) LookAtCommands(LinesOf(root, file), "", targets, &jobs);
  for (const std::string& file : FilesOf(root, "/etc/systemd/system"))
    if (file.ends_with(".service")) LookAtCommands(LinesOf(root, file), "ExecStart", targets, &jobs);
  return jobs;
}

bool RemovesIpcAtLogout(const fs::path& root, std::string* where) {
  std::error_code error;
  // Where no login manager runs, nobody logs out.
  if (!fs::exists(root / "run/systemd/seats", error)) return false;
  std::vector<std::string> files{"/usr/lib/systemd/logind.conf"};
  if (fs::exists(root / "etc/systemd/logind.conf", error)) files = {"/etc/systemd/logind.conf"};
  for (std::string& file :
       LayeredFilesOf(root,
                      {"/etc/systemd/logind.conf.d", "/run/systemd/logind.conf.d",
                       "/usr/local/lib/systemd/logind.conf.d", "/usr/lib/systemd/logind.conf.d"},
                      ".conf"))
    files.push_back(std::move(file));
  bool removes = true;
  where->clear();
  for (const std::string& file : files)
    for (const Line& line : LinesOf(root, file)) {
      const std::string setting(line.text.substr(0, line.text.find_last_not_of(" \t") + 1));
      if (!setting.starts_with("RemoveIPC=")) continue;
      const std::string value = setting.substr(setting.find('=') + 1);
      removes = value != "no" && value != "0" && value != "false" && value != "off";
      *where = line.where;
    }
  return removes;
}

bool IsRemovedAtLogout(const fs::path& root, uid_t user, const std::string& userName) {
  constexpr uid_t kFirstOrdinary = 1000;
  constexpr uid_t kNobody = 65534;
  std::error_code error;
  return user >= kFirstOrdinary && user != kNobody &&
         !fs::exists(root / "var/lib/systemd/linger" / userName, error);
}

}  // namespace qvopl
