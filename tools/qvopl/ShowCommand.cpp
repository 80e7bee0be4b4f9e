// qvopl show: all about an object.
#include <algorithm>
#include <cstdio>

#include "opl_private/src/ObjectLayout.h"
#include "tools/qvopl/Command.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

using Lines = std::vector<std::pair<std::string, std::string>>;

constexpr size_t kIndent = 2;

// "lastOperatedBy" as "last operated by".
std::string LabelOf(std::string_view fact) {
  std::string label;
  for (const char letter : fact) {
    if (letter >= 'A' && letter <= 'Z') label += ' ';
    label += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  }
  return label;
}

bool IsProcess(std::string_view fact) {
  constexpr std::string_view kProcesses[] = {"lastOperatedBy", "takenForRemovalBy", "holder", "maker",
                                             "process"};
  return std::find(std::begin(kProcesses), std::end(kProcesses), fact) != std::end(kProcesses);
}

std::string TextOf(View* view, const Fact& fact) {
  if (const auto* const yes = std::get_if<bool>(&fact.value)) return *yes ? "yes" : "no";
  if (const auto* const text = std::get_if<std::string>(&fact.value)) return Printable(*text);
  const int64_t number = std::get<int64_t>(fact.value);
  return IsProcess(fact.name) ? view->processes.Describe(static_cast<pid_t>(number)) : Number(number);
}

std::string TimeText(const View& view, int64_t time) {
  if (time == 0) return "never";
  return time > view.now ? Time(time) : Time(time) + ", " + Age(view.now - time) + " ago";
}

std::string OwnerText(const Permissions& permissions) {
  return UserName(permissions.owner) + " (" + std::to_string(permissions.owner) + "), mode " +
         Mode(permissions.mode);
}

std::string ProcessText(View* view, pid_t pid) {
  return pid != 0 ? view->processes.Describe(pid) : "nobody yet";
}

// By number; for registered sets the library has no meaning.
std::string MeaningOf(Kind kind, size_t semaphore) {
  constexpr const char* kManagement[] = {"use count", "shared memory's lock", "read-write locks' lock",
                                         "mutexes' lock"};
  constexpr const char* kMutex[] = {"lock", "use count"};
  constexpr const char* kRWLock[] = {"writer gate", "writers", "readers", "use count"};
  static_assert(std::size(kManagement) == opl::MgmtSet::kSemaphoreCount);
  static_assert(std::size(kMutex) == opl::MutexSet::kSemaphoreCount);
  static_assert(std::size(kRWLock) == opl::RWLockSet::kSemaphoreCount);
  if (kind == Kind::kManagement && semaphore < std::size(kManagement)) return kManagement[semaphore];
  if (kind == Kind::kMutex && semaphore < std::size(kMutex)) return kMutex[semaphore];
  if (kind == Kind::kRWLock && semaphore < std::size(kRWLock)) return kRWLock[semaphore];
  return "";
}

void AddSet(View* view, const Object& object, Lines* lines) {
  const SetStatus& set = *object.set;
  lines->emplace_back("set", std::to_string(set.id) + ", " +
                                 Count(static_cast<int64_t>(set.count), "semaphore") + ", of " +
                                 OwnerText(set.permissions));
  lines->emplace_back("last operation", TimeText(*view, set.operated));
  lines->emplace_back("set changed", TimeText(*view, set.changed));
  for (size_t i = 0; i < set.semaphores.size(); ++i) {
    const Semaphore& semaphore = set.semaphores[i];
    const std::string meaning = MeaningOf(object.entry.name.kind, i);
    std::string text = meaning + (meaning.empty() ? "" : " ") + Number(semaphore.value) +
                       ", last operated by " + ProcessText(view, semaphore.last);
    if (semaphore.waitingToRise != 0)
      text += ", " + Number(semaphore.waitingToRise) + " waiting for it to rise";
    if (semaphore.waitingForZero != 0) text += ", " + Number(semaphore.waitingForZero) + " waiting for 0";
    lines->emplace_back("semaphore " + std::to_string(i), text);
  }
}

void AddSegment(View* view, const Object& object, Lines* lines) {
  const SegmentStatus& segment = *object.segment;
  lines->emplace_back("segment", std::to_string(segment.id) + ", " +
                                     Count(static_cast<int64_t>(segment.size), "byte") + ", of " +
                                     OwnerText(segment.permissions) +
                                     (segment.isRemoved ? ", removed with its last detach" : ""));
  lines->emplace_back("made by", ProcessText(view, segment.creator));
  lines->emplace_back("last user", ProcessText(view, segment.last));
  lines->emplace_back("last attach", TimeText(*view, segment.attachedAt));
  lines->emplace_back("last detach", TimeText(*view, segment.detachedAt));
  lines->emplace_back("segment changed", TimeText(*view, segment.changed));
}

void AddQueue(View* view, const Object& object, Lines* lines) {
  const QueueStatus& queue = *object.queue;
  lines->emplace_back("queue", std::to_string(queue.id) + ", of " + OwnerText(queue.permissions));
  lines->emplace_back("filled", Size(queue.bytes) + " of " + Size(queue.most));
  lines->emplace_back("last send",
                      TimeText(*view, queue.sent) + ", by " + ProcessText(view, queue.lastSender));
  lines->emplace_back("last receive",
                      TimeText(*view, queue.received) + ", by " + ProcessText(view, queue.lastReceiver));
}

void AddFile(const View& view, const Entry& entry, const char* title, Lines* lines) {
  const struct stat& status = entry.status;
  lines->emplace_back(title, Printable(view.directory.path() + "/" + entry.file));
  lines->emplace_back("file's owner", UserName(status.st_uid) + " (" + std::to_string(status.st_uid) +
                                          "), mode " + Mode(status.st_mode) + ", " +
                                          Count(status.st_size, "byte") + ", inode " +
                                          std::to_string(status.st_ino));
  lines->emplace_back("read", TimeText(view, status.st_atime));
  lines->emplace_back("written", TimeText(view, status.st_mtime));
  lines->emplace_back("changed", TimeText(view, status.st_ctime));
}

// The processes that have the object open, where the system tells: it does not for sets, and not for
// processes of others.
std::vector<pid_t> OpenIn(View* view, const Object& object) {
  const Kind kind = object.entry.name.kind;
  std::vector<pid_t> processes;
  if (kind == Kind::kEvent || kind == Kind::kLockFile)
    return view->processes.OpenersOf(object.entry.status, object.entry.file);
  if (kind == Kind::kSegment && object.id.has_value()) {
    const auto found = view->processes.Attachments().find(*object.id);
    if (found != view->processes.Attachments().end())
      for (const Attachment& attachment : found->second) processes.push_back(attachment.pid);
  }
  if (kind == Kind::kSocket)
    for (const BoundSocket& socket : view->sockets.At(view->directory.fd(), object.entry.file))
      for (const pid_t pid : view->processes.OpenersOfSocket(socket.number)) processes.push_back(pid);
  std::sort(processes.begin(), processes.end());
  processes.erase(std::unique(processes.begin(), processes.end()), processes.end());
  return processes;
}

Lines LinesOf(View* view, const Object& object) {
  Lines lines = {{"state", object.state}};
  if (object.users.has_value()) lines.emplace_back("users", Number(*object.users));
  for (const Fact& fact : object.facts) lines.emplace_back(LabelOf(fact.name), TextOf(view, fact));
  for (const pid_t pid : OpenIn(view, object)) lines.emplace_back("open in", view->processes.Describe(pid));
  if (object.set.has_value()) AddSet(view, object, &lines);
  if (object.segment.has_value()) AddSegment(view, object, &lines);
  if (object.queue.has_value()) AddQueue(view, object, &lines);
  AddFile(*view, object.entry, "file", &lines);
  if (object.count.has_value()) AddFile(*view, *object.count, "count file", &lines);
  lines.emplace_back("version", object.entry.name.version);
  return lines;
}

void Print(const Lines& lines, const Screen& screen) {
  size_t labels = 0;
  for (const auto& [label, text] : lines) labels = std::max(labels, label.size());
  const size_t left = kIndent + labels + 2;
  const size_t right = screen.width == 0 ? SIZE_MAX : std::max(screen.width, left + 1) - left;
  for (const auto& [label, text] : lines) {
    std::string before = std::string(kIndent, ' ') + label + std::string(left - kIndent - label.size(), ' ');
    for (const std::string& line : Wrapped(text, right)) {
      std::puts((before + line).c_str());
      before.assign(left, ' ');
    }
  }
}

void PrintJson(View* view, const std::vector<Group>& groups) {
  Json json = {{"ipcPath", JsonText(view->directory.path())}, {"objects", Json::array()}};
  for (const Group& group : groups)
    for (const Object& object : group.objects) {
      Json entry = ToJson(object);
      entry["instance"] = JsonText(group.instance);
      entry["openIn"] = Json::array();
      for (const pid_t pid : OpenIn(view, object))
        entry["openIn"].push_back({{"process", pid}, {"name", JsonText(view->processes.Get(pid).name)}});
      json["objects"].push_back(std::move(entry));
    }
  std::puts(Dump(json).c_str());
}

int Show(const Settings& settings, const std::vector<std::string>& names) {
  const IpcDirectory directory(settings.ipcPath);
  View view(directory);
  const std::vector<Group> groups = LookAtObjects(&view, {settings.instance, names});
  if (groups.empty()) throw CouldNotLook("no such object in " + Printable(settings.ipcPath));
  if (settings.json) {
    PrintJson(&view, groups);
    return HasBroken(groups) ? kFound : kFine;
  }
  bool isFirst = true;
  for (const Group& group : groups)
    for (const Object& object : group.objects) {
      if (!isFirst) std::puts("");
      isFirst = false;
      const std::string title =
          std::string(NameOf(object.entry.name.kind)) + " " + TitleOf(object) + ", " + TitleOf(group);
      std::puts(Styled(title, Style::kTitle, settings.screen.colour).c_str());
      Print(LinesOf(&view, object), settings.screen);
    }
  return HasBroken(groups) ? kFound : kFine;
}

}  // namespace

void AddShowCommand(const Program& program) {
  static std::vector<std::string> names;
  CLI::App* const command =
      AddCommand(program,
                 {"show", "Shows all about an object",
                  "  qvopl show queue                     whatever is called queue, in each instance\n"
                  "  qvopl show --instance prod queue     that of one instance\n"
                  "  qvopl show management                the management sets\n"
                  "  qvopl show queue.mutex.prod.006.021  the object of a file\n"},
                 [](const Settings& settings) { return Show(settings, names); });
  command->add_option("NAME", names, "Names of objects or files, or patterns of them")->required();
}

}  // namespace qvopl
