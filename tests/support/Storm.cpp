#include "tests/support/Storm.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "OPL_Init.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/SystemV.h"

namespace opltest {

namespace {

constexpr uint32_t kGuestsAtOnce = 6;
constexpr std::chrono::seconds kLength{3};
constexpr char kArenaFile[] = "arena";

// Where a guest may die. How often a guest gets there differs: one whose call never comes lives.
constexpr const char* kDeadlyCalls[] = {
    "open64", "close",  "read",  "write",      "link",   "unlink", "rename", "mkfifo", "fchmod", "flock",
    "semget", "semctl", "semop", "semtimedop", "shmget", "shmat",  "shmdt",  "shmctl", "poll",   "lstat64"};
constexpr uint32_t kLatestDeath = 30;  // how many of these calls it may make before

constexpr char kNoCall[] = "-";

}  // namespace

// The line is as Storm::Invite sends it.
Guest::Guest(Steps& steps) {
  std::istringstream orders(steps.Receive());
  uint32_t seed = 0;
  std::string call;
  int nth = 0;
  orders >> number_ >> isCalm_ >> seed >> call >> nth;
  if (!orders) std::abort();
  random_.seed(seed);
  if (call != kNoCall) death_ = std::make_unique<Fault>(call.c_str(), nth, Fault::Kill{});
}

int Storm::DrawWidth() { return widths_[random_() % widths_.size()]; }

Storm::Present Storm::Invite(const PeerBody& guest, uint32_t number, Weather weather, bool isDoomed) {
  Present present{std::make_unique<Peer>(guest, DrawWidth()), isDoomed};
  std::ostringstream orders;
  orders << number << ' ' << (weather == kCalm) << ' ' << random_() << ' ';
  if (isDoomed)
    orders << kDeadlyCalls[random_() % std::size(kDeadlyCalls)] << ' ' << 1 + random_() % kLatestDeath;
  else
    orders << kNoCall << " 0";
  present.peer->Send(orders.str());
  return present;
}

// Whoever ends by itself must have ended well, also one that was to be killed.
void Storm::SeeOff(Present* guest, bool kills) {
  if (kills) guest->peer->Kill();
  if (kills || guest->isDoomed) {
    ++killed_;
    guest->peer->ExpectSuccessOrKilledBy(SIGKILL);
  } else {
    guest->peer->ExpectSuccess();
  }
}

void Storm::Blow(const PeerBody& guest, Weather weather) {
  constexpr uint32_t kGuests = kMostGuests - 2;
  std::vector<Present> present;
  for (uint32_t number = 0; number < kGuests && !::testing::Test::HasFailure(); ++number) {
    if (present.size() == kGuestsAtOnce) {
      const auto leaving = present.begin() + static_cast<ptrdiff_t>(random_() % present.size());
      SeeOff(&*leaving, weather == kKilling && random_() % 4 == 0);
      present.erase(leaving);
    }
    present.push_back(Invite(guest, number, weather, weather == kKilling && random_() % 4 == 0));
  }
  for (Present& last : present) SeeOff(&last, false);
  // Those who come when the others are gone, dead or not, find everything usable.
  for (uint32_t number = kGuests; number < kMostGuests && !::testing::Test::HasFailure(); ++number) {
    Present alone = Invite(guest, number, weather, false);
    SeeOff(&alone, false);
  }
  (void)::unlink(kArenaFile);
}

void Storm::Rage(const std::function<void(Weather)>& wave) {
  do {
    wave(kCalm);
    ExpectNothingLeft();
    wave(kKilling);
    ExpectTerminationToRemoveWhatIsLeft();
  } while (!IsOver());
}

void Storm::ExpectNothingLeft() {
  EXPECT_EQ(std::vector<std::string>(), FilesIn(IpcDirectory()));
  EXPECT_EQ(std::set<std::string>(), SystemVObjects());
}

void Storm::ExpectTerminationToRemoveWhatIsLeft() {
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*")) << OPL_ErrMessageGet(0);
  EXPECT_EQ(std::vector<std::string>(), FilesIn(IpcDirectory()));
  // An object whose maker died before it wrote the id into a file is named by nothing, and stays.
  size_t nameless = 0;
  for (const std::string& object : SystemVObjects()) {
    ++nameless;
    const int id = std::atoi(object.c_str() + object.find(' '));
    object.starts_with("sem") ? RemoveSet(id) : RemoveSegment(id);
  }
  EXPECT_LE(nameless, killed_);
  killed_ = 0;
}

bool Storm::IsOver() const {
  return ::testing::Test::HasFailure() || std::chrono::steady_clock::now() - start_ > kLength;
}

bool IsAlive(pid_t pid) {
  constexpr unsigned long kIsExiting = 4;  // the kernel's PF_EXITING
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(file, line)) return false;
  // Behind the name, which may hold blanks and brackets itself.
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  char state = '\0';
  long parent, group, session, terminal, terminalGroup;
  unsigned long flags = 0;
  fields >> state >> parent >> group >> session >> terminal >> terminalGroup >> flags;
  return state != 'Z' && state != 'X' && (flags & kIsExiting) == 0;
}

void Place::StayAlone() {
  const int32_t self = ::getpid();
  const int32_t before = pid_.exchange(self);
  EXPECT_TRUE(before == 0 || !IsAlive(before)) << before << " is inside, too";
  for (int i = 0; i < 50; ++i) EXPECT_EQ(self, pid_.load());
  EXPECT_EQ(self, pid_.exchange(0));
}

void Place::ExpectEmpty() const {
  const int32_t inside = pid_;
  EXPECT_TRUE(inside == 0 || !IsAlive(inside)) << inside << " is inside";
}

void Holders::Enter(const Guest& guest, uint32_t object) {
  pids_[guest.number()] = ::getpid();
  objects_[guest.number()] = object;
}

void Holders::Leave(const Guest& guest) { objects_[guest.number()] = 0; }

bool Holders::Has(uint32_t number, uint32_t object, Dead dead) const {
  return objects_[number] == object && (dead == kDeadCount || IsAlive(pids_[number]));
}

void* MapArena(size_t size) {
  const int fd = ::open(kArenaFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd == -1 || ::ftruncate(fd, static_cast<off_t>(size)) == -1) std::abort();
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  (void)::close(fd);
  if (memory == MAP_FAILED) std::abort();
  return memory;
}

void UnmapArena(void* memory, size_t size) { (void)::munmap(memory, size); }

}  // namespace opltest
