#include "tools/qvopl/Limits.h"

#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

#include "tools/qvopl/Command.h"

namespace qvopl {

namespace {

// What the library's own objects need: the sets of read-write locks and of instances have four semaphores,
// taking a read-write lock are three operations in a call, and use counts begin at 32,000.
constexpr uint64_t kSemaphoresInASet = 4;
constexpr uint64_t kOperationsInACall = 3;
constexpr uint64_t kUseCountLimit = 32000;
// Object files are small and few: on a large disk that is nearly full there is room for them still.
constexpr uint64_t kEnoughFiles = 10000;
constexpr uint64_t kEnoughSpace = uint64_t{16} << 20;
// A full event.
constexpr uint64_t kBytesInAnEvent = 65536;
// What is "unlimited" in the kernel's settings is a number that nothing reaches.
constexpr uint64_t kHuge = uint64_t{1} << 62;
// Numbers of objects that the kernel takes, without and with ipcmni_extend on its command line.
constexpr uint64_t kMostObjects = 32768;
constexpr uint64_t kMostObjectsExtended = 16777216;
constexpr uint64_t kMostSemaphores = INT32_MAX;
constexpr uint64_t kMostProcessIds = 4194304;

template <class Info>
Info Ask(const char* what, int result, const Info& info) {
  if (result == -1) throw CouldNotLook(SystemError(what, errno));
  return info;
}

seminfo SemaphoreInfo(int command) {
  union {
    seminfo* info;
  } argument{};
  seminfo info{};
  argument.info = &info;
  const int result = ::semctl(0, 0, command, argument);
  return Ask("semctl", result, info);
}

shm_info SegmentInfo() {
  shm_info info{};
  // The system's own way to ask: the record is another than the argument's type says.
  const int result = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
  return Ask("shmctl", result, info);
}

msginfo QueueInfo(int command) {
  msginfo info{};
  const int result = ::msgctl(0, command, reinterpret_cast<msqid_ds*>(&info));
  return Ask("msgctl", result, info);
}

// The numbers of a file of /proc. A setting that this system does not have yields nothing.
std::vector<uint64_t> NumbersIn(const std::string& path) {
  std::ifstream file(path);
  std::vector<uint64_t> numbers;
  for (uint64_t number = 0; file >> number;) numbers.push_back(number);
  return numbers;
}

std::optional<uint64_t> Setting(const std::string& path, size_t place = 0) {
  const std::vector<uint64_t> numbers = NumbersIn(path);
  if (place >= numbers.size() || numbers[place] >= kHuge) return std::nullopt;
  return numbers[place];
}

uint64_t PageSize() { return static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)); }

std::optional<uint64_t> Product(std::optional<uint64_t> number, uint64_t factor) {
  if (!number.has_value() || *number > kHuge / factor) return std::nullopt;
  return *number * factor;
}

// Processes and threads: the fourth word of the load is "running/all".
std::optional<uint64_t> Threads() {
  std::ifstream file("/proc/loadavg");
  std::string word;
  for (int i = 0; i < 4; ++i) file >> word;
  const size_t slash = word.find('/');
  if (slash == std::string::npos) return std::nullopt;
  return std::strtoull(word.c_str() + slash + 1, nullptr, 10);
}

// A setting that holds one number, twice as high, as far as the system lets it be.
void AppendDoubled(const char* name, const std::optional<uint64_t>& now, uint64_t most, uint64_t least,
                   std::vector<Raise>* raises) {
  if (!now.has_value() || *now >= most) return;
  const uint64_t to = std::clamp(*now * 2, least, most);
  raises->push_back({name, std::to_string(*now), std::to_string(to)});
}

uint64_t MostObjects(uint64_t now) { return now > kMostObjects ? kMostObjectsExtended : kMostObjects; }

}  // namespace

std::optional<unsigned> Limit::Percentage() const {
  if (!used.has_value() || !most.has_value()) return std::nullopt;
  if (*most == 0) return 100;
  return static_cast<unsigned>(static_cast<double>(*used) * 100 / static_cast<double>(*most));
}

std::optional<uint64_t> Limit::Free() const {
  if (!used.has_value() || !most.has_value()) return std::nullopt;
  return *used >= *most ? 0 : *most - *used;
}

bool Limit::IsNearlyReached(unsigned percent) const {
  const std::optional<unsigned> percentage = Percentage();
  if (!percentage.has_value() || *percentage < percent) return false;
  return enough == 0 || *Free() < enough;
}

Limits::Limits(const std::string& ipcPath) {
  AddSemaphores();
  AddSharedMemory();
  AddQueues();
  AddFiles();
  AddDirectory(ipcPath);
}

void Limits::AddSemaphores() {
  const seminfo limit = SemaphoreInfo(IPC_INFO);
  const seminfo use = SemaphoreInfo(SEM_INFO);
  const auto number = [](int value) { return static_cast<uint64_t>(std::max(value, 0)); };
  all_.push_back({"semaphoreSets", "semaphore sets", Unit::kCount, number(use.semusz), number(limit.semmni),
                  std::nullopt, "kernel.sem, fourth number"});
  all_.push_back({"semaphores", "semaphores in all sets", Unit::kCount, number(use.semaem),
                  number(limit.semmns), std::nullopt, "kernel.sem, second number"});
  all_.push_back({"semaphoresInASet", "semaphores in a set", Unit::kCount, std::nullopt, number(limit.semmsl),
                  kSemaphoresInASet, "kernel.sem, first number"});
  all_.push_back({"operationsInACall", "operations in a call", Unit::kCount, std::nullopt,
                  number(limit.semopm), kOperationsInACall, "kernel.sem, third number"});
  all_.push_back({"semaphoreValue", "value of a semaphore", Unit::kCount, std::nullopt, number(limit.semvmx),
                  kUseCountLimit, "the kernel"});
  // The kernel tells numbers for these and keeps to none of them: memory alone ends what is given back.
  all_.push_back({"undoRecords", "undo records (SEMMNU, SEMUME)", Unit::kCount, std::nullopt, std::nullopt,
                  std::nullopt, "the kernel's memory"});
}

void Limits::AddSharedMemory() {
  const shm_info use = SegmentInfo();
  all_.push_back({"segments", "shared memory segments", Unit::kCount, static_cast<uint64_t>(use.used_ids),
                  Setting("/proc/sys/kernel/shmmni"), std::nullopt, "kernel.shmmni"});
  all_.push_back({"sharedMemory", "shared memory", Unit::kBytes, uint64_t{use.shm_tot} * PageSize(),
                  Product(Setting("/proc/sys/kernel/shmall"), PageSize()), std::nullopt, "kernel.shmall"});
  all_.push_back({"segmentSize", "size of a segment", Unit::kBytes, std::nullopt,
                  Setting("/proc/sys/kernel/shmmax"), std::nullopt, "kernel.shmmax"});
}

void Limits::AddQueues() {
  const msginfo limit = QueueInfo(IPC_INFO);
  const msginfo use = QueueInfo(MSG_INFO);
  all_.push_back({"messageQueues", "message queues", Unit::kCount, static_cast<uint64_t>(use.msgpool),
                  static_cast<uint64_t>(limit.msgmni), std::nullopt, "kernel.msgmni"});
  all_.push_back({"queueSize", "bytes in a queue", Unit::kBytes, std::nullopt,
                  static_cast<uint64_t>(limit.msgmnb), std::nullopt, "kernel.msgmnb"});
  all_.push_back({"messageSize", "size of a message", Unit::kBytes, std::nullopt,
                  static_cast<uint64_t>(limit.msgmax), std::nullopt, "kernel.msgmax"});
}

void Limits::AddFiles() {
  all_.push_back({"openFiles", "open files of all processes", Unit::kCount, Setting("/proc/sys/fs/file-nr"),
                  Setting("/proc/sys/fs/file-nr", 2), std::nullopt, "fs.file-max"});
  rlimit files{};
  (void)::getrlimit(RLIMIT_NOFILE, &files);
  const bool isLimited = files.rlim_cur != RLIM_INFINITY;
  all_.push_back({"openFilesOfAProcess", "open files of a process", Unit::kCount, std::nullopt,
                  isLimited ? std::optional<uint64_t>(files.rlim_cur) : std::nullopt, std::nullopt,
                  "ulimit -n, up to fs.nr_open"});
  // An event's FIFO is made as large as a pipe is without asking, 16 pages; over the user's limit one page.
  all_.push_back({"pipeSize", "bytes in a pipe", Unit::kBytes, std::nullopt,
                  Setting("/proc/sys/fs/pipe-max-size"), kBytesInAnEvent, "fs.pipe-max-size"});
  const std::optional<uint64_t> pages = Setting("/proc/sys/fs/pipe-user-pages-soft");
  all_.push_back({"pipesOfAUser", "pipes of a user", Unit::kBytes, std::nullopt,
                  pages == uint64_t{0} ? std::nullopt : Product(pages, PageSize()), std::nullopt,
                  "fs.pipe-user-pages-soft"});
  const std::optional<uint64_t> threads = Setting("/proc/sys/kernel/threads-max");
  const std::optional<uint64_t> ids = Setting("/proc/sys/kernel/pid_max");
  const bool idsEndFirst = ids.has_value() && (!threads.has_value() || *ids < *threads);
  all_.push_back({"threads", "processes and threads", Unit::kCount, Threads(), idsEndFirst ? ids : threads,
                  std::nullopt, idsEndFirst ? "kernel.pid_max" : "kernel.threads-max"});
}

void Limits::AddDirectory(const std::string& path) {
  struct statvfs status {};
  if (::statvfs(path.c_str(), &status) == -1) throw CouldNotLook(SystemError(path, errno));
  // Some file systems make room for files as they are needed, and tell 0.
  const bool countsFiles = status.f_files != 0;
  // What is kept for root counts as used.
  all_.push_back({"directoryFiles", "files on the IPC directory's file system", Unit::kCount,
                  countsFiles ? std::optional<uint64_t>(status.f_files - status.f_favail) : std::nullopt,
                  countsFiles ? std::optional<uint64_t>(status.f_files) : std::nullopt, std::nullopt,
                  "the file system", kEnoughFiles});
  const uint64_t block = status.f_frsize;
  all_.push_back({"directorySpace", "space of the IPC directory's file system", Unit::kBytes,
                  uint64_t{status.f_blocks - status.f_bavail} * block, uint64_t{status.f_blocks} * block,
                  std::nullopt, "the file system", kEnoughSpace});
}

const Limit& Limits::operator[](const char* key) const {
  const auto found =
      std::ranges::find_if(all_, [key](const Limit& limit) { return std::strcmp(limit.key, key) == 0; });
  if (found == all_.end()) throw std::logic_error(key);
  return *found;
}

std::vector<Room> Limits::RoomForObjects() const {
  const uint64_t page = PageSize();
  std::vector<Room> rooms = {
      {"mutexes", "mutexes", {.sets = 1, .semaphores = 2, .files = 1}, {}},
      {"rwlocks", "read-write locks", {.sets = 1, .semaphores = 4, .files = 1}, {}},
      {"events", "events", {.files = 2}, {}},
      {"blocks", "blocks of shared memory, of a page", {.segments = 1, .bytes = page, .files = 1}, {}},
      {"lockedBlocks",
       "locked blocks, of a page",
       {.sets = 1, .semaphores = 4, .segments = 1, .bytes = page, .files = 2},
       {}},
      {"lockFiles", "lock files", {.files = 1}, {}},
      {"messageQueues", "registered message queues", {.queues = 1, .files = 1}, {}},
      {"instances", "instances", {.sets = 1, .semaphores = 4, .files = 1}, {}},
  };
  struct Share {
    uint64_t Ingredients::*part;
    const char* key;
  };
  constexpr Share kShares[] = {
      {&Ingredients::sets, "semaphoreSets"},   {&Ingredients::semaphores, "semaphores"},
      {&Ingredients::segments, "segments"},    {&Ingredients::bytes, "sharedMemory"},
      {&Ingredients::queues, "messageQueues"}, {&Ingredients::files, "directoryFiles"},
  };
  for (Room& room : rooms) {
    for (const Share& share : kShares) {
      const Limit& limit = (*this)[share.key];
      const uint64_t part = room.each.*share.part;
      const std::optional<uint64_t> free = limit.Free();
      if (part == 0 || !free.has_value()) continue;
      const uint64_t fit = *free / part;
      if (room.fit.has_value() && *room.fit <= fit) continue;
      room.fit = fit;
      room.limitedBy = limit.text;
    }
  }
  return rooms;
}

std::vector<Raise> Limits::Raises(unsigned percent) const {
  const bool anyIsNear = std::ranges::any_of(
      all_, [percent](const Limit& limit) { return limit.IsTooLow() || limit.IsNearlyReached(percent); });
  const auto isNear = [&](const char* key) {
    const Limit& limit = (*this)[key];
    return limit.IsTooLow() || limit.IsNearlyReached(percent);
  };
  const auto isWanted = [&](const char* key) { return !anyIsNear || isNear(key); };

  std::vector<Raise> raises;
  std::vector<uint64_t> now = NumbersIn("/proc/sys/kernel/sem");
  if (now.size() == 4) {
    std::vector<uint64_t> to = now;
    if ((*this)["semaphoresInASet"].IsTooLow()) to[0] = kSemaphoresInASet;
    if ((*this)["operationsInACall"].IsTooLow()) to[2] = kOperationsInACall;
    if (isWanted("semaphoreSets")) to[3] = std::max(to[3], std::min(to[3] * 2, MostObjects(to[3])));
    if (isNear("semaphores")) to[1] = std::max(to[1], std::min(to[1] * 2, kMostSemaphores));
    const auto text = [](const std::vector<uint64_t>& numbers) {
      std::ostringstream words;
      words << numbers[0] << ' ' << numbers[1] << ' ' << numbers[2] << ' ' << numbers[3];
      return words.str();
    };
    if (to != now) raises.push_back({"kernel.sem", text(now), text(to)});
  }
  const auto setting = [](const char* name) { return Setting(std::string("/proc/sys/") + name); };
  const auto objects = [&](const char* key) { return MostObjects((*this)[key].most.value_or(0)); };
  if (isWanted("segments"))
    AppendDoubled("kernel.shmmni", setting("kernel/shmmni"), objects("segments"), 0, &raises);
  if (isWanted("sharedMemory")) AppendDoubled("kernel.shmall", setting("kernel/shmall"), kHuge, 0, &raises);
  if (isWanted("messageQueues"))
    AppendDoubled("kernel.msgmni", setting("kernel/msgmni"), objects("messageQueues"), 0, &raises);
  if (isNear("openFiles")) AppendDoubled("fs.file-max", setting("fs/file-max"), kHuge, 0, &raises);
  if (isNear("pipeSize"))
    AppendDoubled("fs.pipe-max-size", setting("fs/pipe-max-size"), INT32_MAX, kBytesInAnEvent, &raises);
  if (isNear("threads") && (*this)["threads"].setBy == std::string("kernel.pid_max"))
    AppendDoubled("kernel.pid_max", setting("kernel/pid_max"), kMostProcessIds, 0, &raises);
  if (isNear("threads") && (*this)["threads"].setBy == std::string("kernel.threads-max"))
    AppendDoubled("kernel.threads-max", setting("kernel/threads-max"), INT32_MAX, 0, &raises);
  return raises;
}

}  // namespace qvopl
