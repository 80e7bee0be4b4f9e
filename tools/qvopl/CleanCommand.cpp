// qvopl clean: removes what an instance has left, with the library's own clean-up.
#include <fnmatch.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_private/src/Semaphore.h"
#include "opl_server/src/ControllerFile.h"
#include "tools/qvopl/Command.h"
#include "tools/qvopl/InstanceProcess.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/OpenFiles.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

struct Options {
  std::string pattern = "*";
  bool dryRun = false;
  bool force = false;
  bool yes = false;
};

// A file that goes, and what goes with it.
struct Victim {
  Entry entry;
  std::string what;   // "mutex, semaphore set 7"
  bool isOwn = true;  // of this instance, and not of one whose string has this one's in it
};

// What the clean-up goes by: the name matches the pattern, and has a marker, the instance and the version
// somewhere.
bool IsTaken(const Entry& entry, const std::string& pattern, const std::string& instance) {
  constexpr const char* kMarkers[] = {opl::kMutexMarker,     opl::kRWLockMarker,     opl::kEventMarker,
                                      opl::kSegmentMarker,   opl::kSocketMarker,     opl::kLockFileMarker,
                                      opl::kSemNativeMarker, opl::kMsgqNativeMarker, opl::kControllerMarker};
  const std::string& file = entry.file;
  if (::fnmatch(pattern.c_str(), file.c_str(), FNM_PERIOD) != 0) return false;
  if (file.find(instance) == std::string::npos || file.find(BuildVersion()) == std::string::npos)
    return false;
  return std::any_of(std::begin(kMarkers), std::end(kMarkers),
                     [&](const char* marker) { return file.find(marker) != std::string::npos; });
}

class Clean {
 public:
  Clean(Settings* settings, const Options& options)
      : settings_(*settings), options_(options), directory_(settings->ipcPath) {}

  int Run() {
    FindInstance();
    FindVictims();
    FindProcesses();
    const bool isShownOnly = options_.dryRun || (!options_.yes && !CanAsk(settings_));
    if (!settings_.json) PrintList();
    std::string outcome = victims_.empty()                         ? "nothing"
                          : !options_.force && WhyNot() != nullptr ? "refused"
                          : isShownOnly                            ? "shown"
                                                                   : "declined";
    if (outcome == "declined" && (options_.yes || Ask("Remove them?"))) outcome = Remove();
    settings_.json ? PrintJson(outcome) : PrintOutcome(outcome);
    return outcome == "nothing" || outcome == "removed" ? kFine : kFound;
  }

 private:
  // One instance is meant, and named: the library's clean-up removes what others may be using.
  void FindInstance() {
    if (settings_.instance.has_value() && !settings_.instance->empty()) return;
    std::string known;
    for (const Group& group : GroupsOf())
      if (group.scope == Scope::kInstance) known += (known.empty() ? "" : ", ") + Printable(group.instance);
    throw CouldNotLook("clean needs --instance; " + Printable(settings_.ipcPath) +
                       (known.empty() ? " holds none" : " holds " + known));
  }

  std::vector<Group> GroupsOf() const {
    View view(directory_);
    return LookAtObjects(&view, {});
  }

  void FindVictims() {
    for (Entry& entry : directory_.Entries()) {
      const std::string& instance = *settings_.instance;
      const bool isOwn = entry.name.scope == Scope::kInstance
                             ? entry.name.instance == instance
                             : entry.name.scope == Scope::kAllUsers && instance == "all";
      const bool isManagement = entry.name.kind == Kind::kManagement;
      if (isManagement && isOwn && !entry.name.isTemporary) management_ = entry;
      // A management set has its users count; the clean-up takes only what a killed maker left of one.
      const bool isTaken =
          isManagement ? isOwn && ::fnmatch(options_.pattern.c_str(), entry.file.c_str(), FNM_PERIOD) == 0
                       : IsTaken(entry, options_.pattern, instance);
      if (!isTaken || (entry.name.isTemporary && entry.name.maker != 0 && IsMade(entry))) continue;
      std::string what = WhatIs(entry);
      victims_.push_back({std::move(entry), std::move(what), isOwn});
    }
    std::sort(victims_.begin(), victims_.end(),
              [](const Victim& a, const Victim& b) { return a.entry.file < b.entry.file; });
  }

  // Whether a living process is about to give the file its name.
  static bool IsMade(const Entry& entry) {
    const Kind kind = entry.name.kind;
    const bool isWaitedFor =
        kind == Kind::kManagement || kind == Kind::kMutex || kind == Kind::kRWLock || kind == Kind::kSegment;
    return isWaitedFor && !IsGone(entry.name.maker);
  }

  std::string WhatIs(const Entry& entry) const {
    std::string what = entry.name.isTemporary ? std::string("unfinished ") + NameOf(entry.name.kind)
                       : entry.name.isCount   ? "count of an event"
                                              : NameOf(entry.name.kind);
    const Kind kind = entry.name.kind;
    if (entry.name.nativeId.has_value())
      return what + ", with its object " + std::to_string(*entry.name.nativeId);
    const bool hasSet = kind == Kind::kManagement || kind == Kind::kMutex || kind == Kind::kRWLock;
    if (!hasSet && kind != Kind::kSegment) return what;
    const Word word = directory_.ReadWord(entry);
    if (word.reading != Reading::kDone) return what;
    return what + ", with " + (hasSet ? "semaphore set " : "segment ") + std::to_string(word.value);
  }

  void FindProcesses() {
    if (management_.has_value()) {
      const Word word = directory_.ReadWord(*management_);
      const bool isRead = word.reading == Reading::kDone;
      const int free = isRead ? ::semctl(word.value, opl::MgmtSet::kUseCount, GETVAL) : -1;
      isHidden_ = free == -1 && (isRead ? errno == EACCES : word.reading != Reading::kGone);
      // An exhausted set has no users: somebody is removing it, or was killed then.
      if (free > 0) processes_ = opl::kUseCountLimit - free;
    }
    const OpenFiles open;
    for (const Victim& victim : victims_) {
      for (const pid_t pid : open.ProcessesWith(victim.entry.status)) users_.insert(pid);
      if (victim.entry.name.kind == Kind::kSegment) AddAttached(victim.entry);
    }
  }

  void AddAttached(const Entry& entry) {
    const Word word = directory_.ReadWord(entry);
    const auto& attachments = known_.Attachments();
    const auto found = word.reading == Reading::kDone ? attachments.find(word.value) : attachments.end();
    if (found == attachments.end()) return;
    for (const Attachment& attachment : found->second) users_.insert(attachment.pid);
  }

  bool HasOthers() const {
    return std::any_of(victims_.begin(), victims_.end(), [](const Victim& victim) { return !victim.isOwn; });
  }

  // Why nothing is removed without --force; null where it may be.
  const char* WhyNot() const {
    if (processes_ != 0 || !users_.empty()) return "the instance is in use";
    if (isHidden_) return "whether the instance is in use cannot be seen";
    return HasOthers() ? "files of other instances would go" : nullptr;
  }

  // The management set goes with the end of the library's last user, which this process is for the moment.
  // While others live it is theirs.
  std::string Remove() {
    const bool isAlone = processes_ == 0 && users_.empty();
    const bool takesManagement =
        isAlone && std::any_of(victims_.begin(), victims_.end(), [](const Victim& victim) {
          return victim.entry.name.kind == Kind::kManagement && !victim.entry.name.isTemporary;
        });
    const auto terminate = [&]() -> std::string {
      if (OPL_InitTerminateIPC(0, options_.pattern.c_str()) == OPL_OK) return "";
      return Printable(OPL_ErrMessageGet(0));
    };
    failure_ = RunInInstance(&settings_, *settings_.instance,
                             [&] { return takesManagement ? WithLibrary(terminate) : terminate(); });
    for (const Victim& victim : victims_) {
      const auto status = directory_.StatusOf(victim.entry.file);
      if (status.has_value() && status->st_ino == victim.entry.status.st_ino)
        left_.push_back(victim.entry.file);
    }
    return failure_.empty() && left_.empty() ? "removed" : "left";
  }

  void PrintList() {
    for (const Victim& victim : victims_)
      std::printf("%s: %s%s\n", Printable(victim.entry.file).c_str(), victim.what.c_str(),
                  victim.isOwn ? "" : ", of another instance whose name has this one's in it");
    if (processes_ != 0)
      std::printf("%s the instance:\n", Count(processes_, "process uses", "processes use").c_str());
    if (processes_ == 0 && !users_.empty()) std::puts("These have something of it open:");
    for (const pid_t pid : users_) std::printf("  %s\n", known_.Describe(pid).c_str());
  }

  void PrintOutcome(const std::string& outcome) const {
    const std::string files = Count(static_cast<int64_t>(victims_.size()), "file");
    if (outcome == "nothing")
      std::printf("There is nothing to remove of instance %s.\n", Printable(*settings_.instance).c_str());
    if (outcome == "shown") std::printf("%s would go; --yes removes them.\n", files.c_str());
    if (outcome == "refused")
      std::printf("Nothing was removed: %s; --force removes %s all the same.\n", WhyNot(), files.c_str());
    if (outcome == "declined") std::puts("Nothing was removed.");
    if (outcome == "removed") std::printf("%s removed, with what they name.\n", files.c_str());
    for (const std::string& file : left_) std::printf("left: %s\n", Printable(file).c_str());
    if (!failure_.empty()) std::printf("The clean-up failed: %s\n", failure_.c_str());
  }

  void PrintJson(const std::string& outcome) {
    Json json = {{"ipcPath", JsonText(settings_.ipcPath)},
                 {"instance", JsonText(*settings_.instance)},
                 {"outcome", outcome},
                 {"processes", processes_},
                 {"users", users_},
                 {"files", Json::array()}};
    for (const Victim& victim : victims_)
      json["files"].push_back(
          {{"file", JsonText(victim.entry.file)}, {"what", victim.what}, {"isOwn", victim.isOwn}});
    if (!left_.empty()) json["left"] = Json::array();
    for (const std::string& file : left_) json["left"].push_back(JsonText(file));
    if (!failure_.empty()) json["failure"] = JsonText(failure_);
    std::puts(Dump(json).c_str());
  }

  Settings& settings_;
  const Options& options_;
  const IpcDirectory directory_;
  std::vector<Victim> victims_;
  std::optional<Entry> management_;
  int processes_ = 0;      // that the management set counts
  bool isHidden_ = false;  // it may not be looked at
  std::set<pid_t> users_;  // that have something open, as far as that can be seen
  Processes known_;
  std::vector<std::string> left_;
  std::string failure_;
};

}  // namespace

void AddCleanCommand(const Program& program) {
  static Options options;
  Settings* const settings = &program.settings;
  CLI::App* const command =
      AddCommand(program,
                 {"clean", "Removes all that an instance has left",
                  "  qvopl clean --instance prod --dry-run      what would go\n"
                  "  qvopl clean --instance prod                asks, and removes it\n"
                  "  qvopl clean --instance prod --yes          does not ask, for scripts\n"
                  "  qvopl clean --instance prod 'q*'           files whose names match the pattern\n"},
                 [settings](const Settings&) { return Clean(settings, options).Run(); });
  command->add_option("PATTERN", options.pattern, "Which files, as the shell matches names; else all");
  command->add_flag("--dry-run", options.dryRun, "Only show what would go");
  command->add_flag("--force", options.force, "Also while processes of the instance live");
  command->add_flag("--yes", options.yes, "Do not ask");
}

}  // namespace qvopl
