// Lock files: who holds them, who waits, what is replaced and removed, and what is left when the system
// refuses. Time passes at once, but in the tests whose names end in "Slow".
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>

#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "opl_private/src/IpcFile.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/KillPoints.h"

namespace {

using opltest::Child;
using opltest::CountedMemory;
using opltest::FailingMemory;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::LastFailure;
using opltest::Replacement;
using opltest::Steps;

// How a record lies in memory.
struct Record {
  char path[opl::kIpcNameSize];
  int32_t descriptor;
  uint32_t owner;
  uint32_t state;
};

std::string LockFile(const std::string& name) {
  return opltest::IpcDirectory() + "/" + name + ".lckfile." + opltest::InstanceString() + ".006.021";
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status;
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// A line of the system's list of locks.
struct RecordLock {
  bool waits;
  std::string kind;  // "POSIX ADVISORY WRITE 0 0", the last two being the first and last byte
  pid_t pid;
};

// Looking at a file's locks by opening it would drop those of this process.
std::vector<RecordLock> LocksOn(ino_t inode) {
  std::vector<RecordLock> locks;
  std::ifstream list("/proc/locks");
  const std::string suffix = ":" + std::to_string(inode);
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string number, first, advisory, access, file, start, end;
    pid_t pid = 0;
    words >> number >> first;
    const bool waits = first == "->";
    if (waits) words >> first;
    words >> advisory >> access >> pid >> file >> start >> end;
    if (file.ends_with(suffix))
      locks.push_back({waits, first + " " + advisory + " " + access + " " + start + " " + end, pid});
  }
  return locks;
}

// 0 when nobody holds it.
pid_t HolderOf(const std::string& path) {
  for (const RecordLock& lock : LocksOn(StatusOf(path).st_ino))
    if (!lock.waits) return lock.pid;
  return 0;
}

// Waits until the process sleeps in the wait for the file's lock.
void AwaitWaiter(ino_t inode, pid_t pid) {
  for (;; (void)::sched_yield())
    for (const RecordLock& lock : LocksOn(inode))
      if (lock.waits && lock.pid == pid) return;
}

// Sleeps that take no time.
std::atomic<int> gSleeps;
std::function<void(int)> gDuringSleep;  // called with the number of the sleep
int SleepAtOnce(int, fd_set*, fd_set*, fd_set*, timeval* timeout) {
  EXPECT_EQ(1, timeout->tv_sec);
  EXPECT_EQ(0, timeout->tv_usec);
  const int number = ++gSleeps;
  if (gDuringSleep) gDuringSleep(number);
  return 0;
}

double SecondsOf(const std::function<void()>& body) {
  timespec begin{};
  timespec end{};
  EXPECT_EQ(0, ::clock_gettime(CLOCK_MONOTONIC, &begin));
  body();
  EXPECT_EQ(0, ::clock_gettime(CLOCK_MONOTONIC, &end));
  return static_cast<double>(end.tv_sec - begin.tv_sec) +
         1e-9 * static_cast<double>(end.tv_nsec - begin.tv_nsec);
}

struct Lock {
  OPL_SyncLockFile* record = nullptr;

  OPL_Result Create(const std::string& name) { return OPL_SyncLockFileCreate(&record, name.c_str()); }
  OPL_Result Destroy() { return OPL_SyncLockFileDestroy(&record); }
  OPL_Result Acquire() { return OPL_SyncLockFileAcquire(record); }
  OPL_Result Release() { return OPL_SyncLockFileRelease(record); }

  const Record& fields() const { return *reinterpret_cast<const Record*>(record); }
};

class SyncLockFile : public opltest::Instance {
 protected:
  void TearDown() override {
    gDuringSleep = nullptr;
    Instance::TearDown();
  }

  // The steps of a process that holds the lock until it is told to go on.
  static void Hold(Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Lock lock;
    EXPECT_EQ(0u, lock.Create("door"));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0u, lock.Release());
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0u, lock.Destroy());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  }

  const std::string path_ = LockFile("door");
  std::optional<Replacement> sleep_{std::in_place, "select", &SleepAtOnce};
};

class SyncLockFileCreate : public SyncLockFile {};
class SyncLockFileDestroy : public SyncLockFile {};
class SyncLockFileAcquire : public SyncLockFile {};
class SyncLockFileTryAcquire : public SyncLockFile {};
class SyncLockFileWaitFor : public SyncLockFile {};

TEST_F(SyncLockFileCreate, MakesAnEmptyFileOfMode0600UnderAnyMask) {
  for (const mode_t mask : {0000, 0077, 0777}) {
    Lock lock;
    const mode_t before = ::umask(mask);
    const OPL_Result rc = lock.Create("door");
    (void)::umask(before);
    ASSERT_EQ(0u, rc);
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), StatusOf(path_).st_mode);
    EXPECT_EQ(0, StatusOf(path_).st_size);
    EXPECT_EQ(0u, lock.Destroy());
  }
  EXPECT_EQ(0, gSleeps);
}

TEST_F(SyncLockFileCreate, LocksTheFirstByteForWriting) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  const std::vector<RecordLock> locks = LocksOn(StatusOf(path_).st_ino);
  ASSERT_EQ(1u, locks.size());
  EXPECT_FALSE(locks[0].waits);
  EXPECT_EQ("POSIX ADVISORY WRITE 0 0", locks[0].kind);
  EXPECT_EQ(::getpid(), locks[0].pid);
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, SetsTheFilesTimesInto2036) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  const struct stat status = StatusOf(path_);
  for (const time_t time : {status.st_atime, status.st_mtime}) {
    struct tm brokenDown {};
    ASSERT_NE(nullptr, ::localtime_r(&time, &brokenDown));
    EXPECT_EQ(136, brokenDown.tm_year);
  }
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, FillsTheRecord) {
  uint32_t pid = 0;
  ASSERT_EQ(0u, OPL_ProcessIdGet(&pid));
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ(path_, lock.fields().path);
  EXPECT_NE(-1, lock.fields().descriptor);
  EXPECT_EQ(pid, lock.fields().owner);
  EXPECT_EQ(1u, lock.fields().state);
  EXPECT_EQ(0u, lock.Release());
  EXPECT_EQ(2u, lock.fields().state);
  EXPECT_EQ(0u, lock.Acquire());
  EXPECT_EQ(1u, lock.fields().state);
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, WritesNamesWithDotsWhole) {
  for (const char* name : {"a.b", "a.b.c", ".", "a.", ".b", "..", "", "%s"}) {
    Lock lock;
    ASSERT_EQ(0u, lock.Create(name)) << name;
    EXPECT_EQ(LockFile(name), lock.fields().path);
    EXPECT_TRUE(Exists(LockFile(name)));
    EXPECT_EQ(0u, lock.Destroy());
  }
}

TEST_F(SyncLockFileCreate, RefusesANameThatIsTooLongForTheSystem) {
  const Footprint before = Footprint::Now();
  Lock lock;
  EXPECT_EQ(0x05001Eu, lock.Create(std::string(5000, 'x')));
  EXPECT_EQ(static_cast<uint32_t>(ENAMETOOLONG), LastFailure().code);
  EXPECT_TRUE(LastFailure().message.starts_with(
      "OPL_SyncLockFileCreate: OPL_CrtOpen error :36,File name too long\nfile " + opltest::IpcDirectory() +
      "/xxx"));
  EXPECT_EQ(nullptr, lock.record);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncLockFileCreate, RefusesNullArguments) {
  Lock lock;
  uint32_t isFree = 7;
  const auto expectRefused = [](OPL_Result rc, const char* message) {
    EXPECT_EQ(0x050046u, rc);
    EXPECT_EQ(Failure(0x050046, message), LastFailure());
  };
  expectRefused(OPL_SyncLockFileCreate(nullptr, "door"), "OPL_SyncLockFileCreate: ppLockFile is NULL");
  expectRefused(OPL_SyncLockFileCreate(&lock.record, nullptr), "OPL_SyncLockFileCreate: Name is NULL");
  expectRefused(OPL_SyncLockFileDestroy(nullptr), "OPL_SyncLockFileDestroy: ppLockFile is NULL");
  expectRefused(OPL_SyncLockFileDestroy(&lock.record), "OPL_SyncLockFileDestroy: ppLockFile is NULL");
  expectRefused(OPL_SyncLockFileAcquire(nullptr), "OPL_SyncLockFileAcquire: hLockFile is NULL");
  expectRefused(OPL_SyncLockFileRelease(nullptr), "OPL_SyncLockFileRelease: hLockFile is NULL");
  expectRefused(OPL_SyncLockFileTryAcquire(nullptr, "door"), "OPL_SyncLockFileTryAcquire: pFree is NULL");
  expectRefused(OPL_SyncLockFileTryAcquire(&isFree, nullptr), "OPL_SyncLockFileTryAcquire: Name is NULL");
  expectRefused(OPL_SyncLockFileWaitFor(nullptr), "OPL_SyncLockFileWaitFor: Name is NULL");
  expectRefused(OPL_SyncLockFileWaitForMultiple(nullptr), "OPL_SyncLockFileWaitForMultiple: Names is NULL");
  EXPECT_EQ(7u, isFree);
}

TEST(SyncLockFileBeforeBegin, IsRefused) {
  Lock lock;
  uint32_t isFree = 7;
  const char* const names[] = {nullptr};
  EXPECT_EQ(0x050203u, lock.Create("door"));
  EXPECT_EQ(0x050203u, lock.Destroy());
  EXPECT_EQ(0x050203u, lock.Acquire());
  EXPECT_EQ(0x050203u, lock.Release());
  EXPECT_EQ(0x050203u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(0x050203u, OPL_SyncLockFileWaitFor("door"));
  EXPECT_EQ(0x050203u, OPL_SyncLockFileWaitForMultiple(names));
}

TEST_F(SyncLockFileCreate, ReplacesTheFileOfADeadOwner) {
  Child owner([](Steps& steps) { Hold(steps); });
  owner.Await();
  owner.Kill();
  owner.ExpectKilledBy(SIGKILL);
  const int old = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_NE(-1, old);
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ(1, gSleeps);
  struct stat status {};
  ASSERT_EQ(0, ::fstat(old, &status));
  EXPECT_EQ(0u, status.st_nlink) << "the old file is still there";
  EXPECT_EQ(0, ::close(old));
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, ReplacesAFileWithContentsAndAnotherMode) {
  opltest::WriteFile(path_, "left behind");
  ASSERT_EQ(0, ::chmod(path_.c_str(), 0640));
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ("", opltest::ContentsOf(path_));
  EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), StatusOf(path_).st_mode);
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, LeavesAFileThatWasLockedSinceTheLook) {
  opltest::WriteFile(path_, "");
  const ino_t inode = StatusOf(path_).st_ino;
  std::unique_ptr<Child> holder;
  const auto takeLock = [&](Steps& steps) {
    const int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
    struct flock firstByte {};
    firstByte.l_type = F_WRLCK;
    firstByte.l_len = 1;
    EXPECT_EQ(0, ::fcntl(fd, F_SETLK, &firstByte));
    steps.Reach();
    AwaitWaiter(inode, ::getppid());
  };
  Lock lock;
  {
    // The first is for the look.
    const Fault fault("open64", 2, [&] {
      holder = std::make_unique<Child>(takeLock);
      holder->Await();
    });
    ASSERT_EQ(0u, lock.Create("door"));
    EXPECT_TRUE(fault.Fired());
  }
  holder->ExpectSuccess();
  EXPECT_EQ(inode, StatusOf(path_).st_ino);
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, WaitsASecondForTheLookAtAFileThatIsThereSlow) {
  sleep_.reset();
  opltest::WriteFile(path_, "");
  Lock lock;
  EXPECT_GE(SecondsOf([&] { ASSERT_EQ(0u, lock.Create("door")); }), 1);
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, WaitsWhileAnotherProcessHoldsTheLock) {
  Child holder([](Steps& steps) { Hold(steps); });
  holder.Await();
  Child waiter([](Steps& steps) { Hold(steps); });
  const ino_t inode = StatusOf(path_).st_ino;
  AwaitWaiter(inode, waiter.pid());
  EXPECT_EQ(holder.pid(), HolderOf(path_));
  holder.Go();
  waiter.Await();
  EXPECT_EQ(inode, StatusOf(path_).st_ino);
  EXPECT_EQ(waiter.pid(), HolderOf(path_));
  holder.Await();
  holder.Go();  // destroys the record while the other process holds the file
  holder.ExpectSuccess();
  EXPECT_EQ(waiter.pid(), HolderOf(path_));
  for (int step = 0; step < 2; ++step) waiter.Go();
  waiter.ExpectSuccess();
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncLockFileCreate, TakesTheLockOfAHolderThatDies) {
  Child holder([](Steps& steps) { Hold(steps); });
  holder.Await();
  Child waiter([](Steps& steps) { Hold(steps); });
  AwaitWaiter(StatusOf(path_).st_ino, waiter.pid());
  holder.Kill();
  waiter.Await();
  holder.ExpectKilledBy(SIGKILL);
  EXPECT_EQ(waiter.pid(), HolderOf(path_));
  for (int step = 0; step < 2; ++step) waiter.Go();
  waiter.ExpectSuccess();
}

TEST_F(SyncLockFileCreate, MakesANewFileWhenItsOwnWasRemovedDuringTheWait) {
  Child holder([](Steps& steps) { Hold(steps); });
  holder.Await();
  Child waiter([](Steps& steps) { Hold(steps); });
  AwaitWaiter(StatusOf(path_).st_ino, waiter.pid());
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  holder.Go();
  waiter.Await();
  EXPECT_EQ(waiter.pid(), HolderOf(path_));
  holder.Await();
  holder.Go();
  holder.ExpectSuccess();
  EXPECT_TRUE(Exists(path_)) << "the old owner removed a file that is not its own";
  for (int step = 0; step < 2; ++step) waiter.Go();
  waiter.ExpectSuccess();
}

TEST_F(SyncLockFileCreate, GoesOnWhenTheFileWasRemovedDuringTheLook) {
  opltest::WriteFile(path_, "");
  gDuringSleep = [&](int) { EXPECT_EQ(0, ::unlink(path_.c_str())); };
  Lock lock;
  EXPECT_EQ(0u, lock.Create("door"));
  gDuringSleep = nullptr;
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, GoesOnWhenAnotherFileHasComeSinceTheLook) {
  opltest::WriteFile(path_, "");
  gDuringSleep = [&](int) { EXPECT_EQ(0, ::unlink(path_.c_str())); };
  // Whoever looks once more after the open that found nothing would find it.
  const Fault another("access", 3, [&] { opltest::WriteFile(path_, ""); });
  Lock lock;
  EXPECT_EQ(0u, lock.Create("door")) << LastFailure();
  gDuringSleep = nullptr;
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileCreate, GoesOnWhenTheStaleFileIsRemovedUnderIt) {
  opltest::WriteFile(path_, "");
  const Fault removal("unlink", 1, [&] { EXPECT_EQ(0, std::remove(path_.c_str())); });
  Lock lock;
  EXPECT_EQ(0u, lock.Create("door")) << LastFailure();
  EXPECT_TRUE(removal.Fired());
  EXPECT_EQ(0u, lock.Destroy());
}

// All come for a stale file at once; each wins in its turn, and none while another is inside.
TEST_F(SyncLockFileCreate, LetsOneOfSeveralCreatorsInAtATime) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 25;
  void* const shared = ::mmap(nullptr, sizeof(std::atomic<int>) * 2, PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, shared);
  auto* const counts = static_cast<std::atomic<int>*>(shared);
  opltest::WriteFile(path_, "");
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < kProcesses; ++i)
    children.push_back(std::make_unique<Child>([counts](Steps& steps) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      steps.Reach();
      steps.WaitForGo();
      for (int round = 0; round < kRounds; ++round) {
        Lock lock;
        ASSERT_EQ(0u, lock.Create("door")) << LastFailure();
        EXPECT_EQ(0, counts[0]++);
        (void)::sched_yield();
        ++counts[1];
        --counts[0];
        ASSERT_EQ(0u, lock.Destroy());
      }
      EXPECT_EQ(0u, OPL_InitEnd(0));
    }));
  for (auto& child : children) child->Await();
  for (auto& child : children) child->Go();
  for (auto& child : children) child->ExpectSuccess();
  EXPECT_EQ(kProcesses * kRounds, counts[1]);
  EXPECT_FALSE(Exists(path_));
  EXPECT_EQ(0, ::munmap(shared, sizeof(std::atomic<int>) * 2));
}

TEST_F(SyncLockFileCreate, DoesNotFollowSymbolicLinks) {
  const std::string target = opltest::WorkDirectory() + "/target";
  ASSERT_EQ(0, ::symlink(target.c_str(), path_.c_str()));
  for (const bool dangles : {true, false}) {
    if (!dangles) opltest::WriteFile(target, "mine");
    Lock lock;
    EXPECT_EQ(0x05001Eu, lock.Create("door"));
    EXPECT_EQ(static_cast<uint32_t>(ELOOP), LastFailure().code);
    EXPECT_EQ(nullptr, lock.record);
    EXPECT_EQ(!dangles, Exists(target));
  }
  EXPECT_EQ("mine", opltest::ContentsOf(target));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileCreate, DoesNotWaitAtAPipeInTheFilesPlace) {
  ASSERT_EQ(0, ::mkfifo(path_.c_str(), 0600));
  Lock lock;
  EXPECT_EQ(0x050055u, lock.Create("door"));
  EXPECT_EQ(Failure(ESPIPE, "TryLockFd: lseek(1) error :29,Illegal seek"), LastFailure());
  EXPECT_EQ(nullptr, lock.record);
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileCreate, RefusesADirectoryInTheFilesPlace) {
  ASSERT_EQ(0, ::mkdir(path_.c_str(), 0700));
  Lock lock;
  EXPECT_EQ(0x05001Eu, lock.Create("door"));
  EXPECT_EQ(static_cast<uint32_t>(EISDIR), LastFailure().code);
  EXPECT_EQ(0, ::rmdir(path_.c_str()));
}

TEST_F(SyncLockFileCreate, TellsThatThereIsNoMemory) {
  const Footprint before = Footprint::Now();
  const FailingMemory memory(1);
  Lock lock;
  EXPECT_EQ(0x050001u, lock.Create("door"));
  EXPECT_EQ(Failure(ENOMEM, "OPL_SyncLockFileCreate: malloc error :12"), LastFailure());
  EXPECT_EQ(nullptr, lock.record);
  EXPECT_EQ(before, Footprint::Now());
}

struct Refusal {
  const char* what;
  const char* call;
  int nth;
  uint32_t code;
  const char* message;  // without the file's name
};

class SyncLockFileSteps : public SyncLockFile, public ::testing::WithParamInterface<Refusal> {
 protected:
  // Expects the step's refusal, no open file and no memory kept.
  template <typename Call>
  void ExpectRefused(const Call& call) {
    const Refusal& refusal = GetParam();
    Footprint before = Footprint::Now();
    const CountedMemory memory;
    {
      const Fault fault(refusal.call, refusal.nth, EIO);
      EXPECT_EQ(refusal.code, call());
      EXPECT_TRUE(fault.Fired());
    }
    std::string message = refusal.message;
    if (message.ends_with("ile ")) message += path_;
    EXPECT_EQ(Failure(EIO, message), LastFailure());
    EXPECT_EQ(0, memory.Living());
    Footprint after = Footprint::Now();
    for (Footprint* footprint : {&before, &after}) footprint->items.erase("file " + path_);
    EXPECT_EQ(before, after);
    if (Exists(path_)) {
      EXPECT_EQ(0, HolderOf(path_));
    }
    (void)::unlink(path_.c_str());
  }
};

class SyncLockFileCreateNew : public SyncLockFileSteps {};

TEST_P(SyncLockFileCreateNew, ReportsTheStepThatFails) {
  Lock lock;
  ExpectRefused([&] { return lock.Create("door"); });
  EXPECT_EQ(nullptr, lock.record);
}

INSTANTIATE_TEST_SUITE_P(
    Each, SyncLockFileCreateNew,
    ::testing::Values(
        Refusal{"Open", "open64", 1, 0x05001E,
                "OPL_SyncLockFileCreate: OPL_CrtOpen error :5,Input/output error\nfile "},
        Refusal{"Chmod", "fchmod", 1, 0x050059,
                "OPL_SyncLockFileCreate: chmod(2) error :5,Input/output error"},
        Refusal{"Seek1", "lseek64", 1, 0x050055, "LockFd: lseek(1) error :5,Input/output error"},
        Refusal{"Seek2", "lseek64", 2, 0x050055, "LockFd: lseek(2) error :5,Input/output error"},
        Refusal{"Lock", "fcntl64", 1, 0x050058, "LockFd: fcntl error :5,Input/output error"},
        Refusal{"Seek3", "lseek64", 3, 0x050055, "LockFd: lseek(3) error :5,Input/output error"}),
    [](const auto& test) { return std::string(test.param.what); });

class SyncLockFileCreateStale : public SyncLockFileSteps {};

TEST_P(SyncLockFileCreateStale, ReportsTheStepThatFails) {
  opltest::WriteFile(path_, "");
  Lock lock;
  ExpectRefused([&] { return lock.Create("door"); });
  EXPECT_EQ(nullptr, lock.record);
}

INSTANTIATE_TEST_SUITE_P(
    Each, SyncLockFileCreateStale,
    ::testing::Values(Refusal{"Chmod", "fchmod", 1, 0x050059,
                              "OPL_SyncLockFileCreate: chmod(1) error :5,Input/output error"},
                      Refusal{"Unlink", "unlink", 1, 0x05001C,
                              "OPL_SyncLockFileCreate: unlink error :5,Input/output error\nFile "}),
    [](const auto& test) { return std::string(test.param.what); });

// Whatever a dead owner leaves is free, and replaced.
TEST_F(SyncLockFile, GoesOnAfterAnOwnerThatWasKilledAtAnySystemCall) {
  const auto begin = [] { ASSERT_EQ(0u, OPL_InitBegin(0)); };
  const auto useLock = [] {
    Lock lock;
    EXPECT_EQ(0u, lock.Create("door"));
    EXPECT_EQ(0u, lock.Release());
    EXPECT_EQ(0u, lock.Acquire());
    EXPECT_EQ(0u, lock.Destroy());
  };
  opltest::KillAtEverySystemCall(begin, useLock, [&](int) {
    useLock();
    ASSERT_FALSE(Exists(path_));
  });
}

TEST_F(SyncLockFileDestroy, RemovesTheFileAndReleasesTheRecord) {
  const Footprint before = Footprint::Now();
  const CountedMemory memory;
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(0u, lock.Destroy());
  EXPECT_EQ(nullptr, lock.record);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncLockFileDestroy, RemovesTheFileOfAReleasedLock) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ(0u, lock.Release());
  EXPECT_EQ(0u, lock.Destroy());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncLockFileDestroy, LeavesAFileAloneThatWasMadeAnewUnderTheName) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  const int old = lock.fields().descriptor;
  EXPECT_EQ(0, ::unlink(path_.c_str()));
  opltest::WriteFile(path_, "another's");
  EXPECT_NE(-1, old);
  EXPECT_EQ(0u, lock.Destroy());
  EXPECT_EQ("another's", opltest::ContentsOf(path_));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileDestroy, KeepsTheRecordWhenTheLockCannotBeGivenBack) {
  const CountedMemory memory;
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  {
    const Fault fault("fcntl64", 1, EIO);
    EXPECT_EQ(0x050058u, lock.Destroy());
  }
  EXPECT_EQ(Failure(EIO, "UnLockFd: fcntl error :5,Input/output error"), LastFailure());
  ASSERT_NE(nullptr, lock.record);
  EXPECT_EQ(-1, lock.fields().descriptor);
  EXPECT_EQ(2u, lock.fields().state);
  EXPECT_EQ(0u, lock.Destroy());
  EXPECT_EQ(0, memory.Living());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncLockFileDestroy, InAChildLeavesFileAndLockToTheParent) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  Child child([&](Steps&) {
    EXPECT_EQ(0u, lock.Destroy());
    EXPECT_EQ(nullptr, lock.record);
  });
  child.ExpectSuccess();
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileAcquire, AndReleaseDoNothingInAChild) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  Child releasing([&](Steps&) {
    EXPECT_EQ(0u, lock.Release());
    EXPECT_EQ(1u, lock.fields().state);
  });
  releasing.ExpectSuccess();
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Release());
  Child acquiring([&](Steps& steps) {
    EXPECT_EQ(0u, lock.Acquire());
    EXPECT_EQ(2u, lock.fields().state);
    steps.Reach();
    steps.WaitForGo();
  });
  acquiring.Await();
  EXPECT_EQ(0, HolderOf(path_));
  acquiring.Go();
  acquiring.ExpectSuccess();
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileAcquire, AndReleaseDoNothingASecondTime) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  {
    const Fault fault("fcntl64", 1, EIO);
    EXPECT_EQ(0u, lock.Acquire());
    EXPECT_FALSE(fault.Fired());
  }
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Release());
  EXPECT_EQ(0, HolderOf(path_));
  EXPECT_EQ(0u, lock.Release());
  EXPECT_EQ(0u, lock.Acquire());
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

// Another process found the released lock free, took its file for a stale one, and made a new one.
TEST_F(SyncLockFileAcquire, WaitsForTheProcessThatTheNameBelongsToByNow) {
  Child owner([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Lock lock;
    EXPECT_EQ(0u, lock.Create("door"));
    EXPECT_EQ(0u, lock.Release());
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0u, lock.Acquire());
    EXPECT_EQ(1u, lock.fields().state);
    EXPECT_EQ(::getpid(), HolderOf(LockFile("door")));
    EXPECT_EQ(0u, lock.Destroy());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  owner.Await();
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  owner.Go();
  AwaitWaiter(StatusOf(path_).st_ino, owner.pid());
  EXPECT_EQ(0u, lock.Release());
  owner.ExpectSuccess();
  EXPECT_EQ(0u, lock.Destroy());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncLockFileAcquire, MakesTheFileAnewThatWasRemoved) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ(0u, lock.Release());
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  EXPECT_EQ(0u, lock.Acquire());
  EXPECT_EQ(::getpid(), HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncLockFileAcquire, AndReleaseKeepThePositionInTheFile) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  ASSERT_EQ(3, ::lseek(lock.fields().descriptor, 3, SEEK_SET));
  EXPECT_EQ(0u, lock.Release());
  EXPECT_EQ(3, ::lseek(lock.fields().descriptor, 0, SEEK_CUR));
  EXPECT_EQ(0u, lock.Acquire());
  EXPECT_EQ(3, ::lseek(lock.fields().descriptor, 0, SEEK_CUR));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileAcquire, ReportsTheSystemsRefusalAndStaysReleased) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  EXPECT_EQ(0u, lock.Release());
  {
    const Fault fault("fcntl64", 1, EIO);
    EXPECT_EQ(0x050058u, lock.Acquire());
  }
  EXPECT_EQ(Failure(EIO, "LockFd: fcntl error :5,Input/output error"), LastFailure());
  EXPECT_EQ(2u, lock.fields().state);
  EXPECT_EQ(0u, lock.Acquire());
  {
    const Fault fault("lseek64", 1, EIO);
    EXPECT_EQ(0x050055u, lock.Release());
  }
  EXPECT_EQ(Failure(EIO, "UnLockFd: lseek(1) error :5,Input/output error"), LastFailure());
  EXPECT_EQ(1u, lock.fields().state);
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileTryAcquire, TellsThatALockIsFreeAndLeavesItSo) {
  opltest::WriteFile(path_, "text");
  uint32_t isFree = 7;
  EXPECT_EQ(0u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(1u, isFree);
  EXPECT_EQ(1, gSleeps);
  EXPECT_EQ(0, HolderOf(path_));
  EXPECT_EQ("text", opltest::ContentsOf(path_));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileTryAcquire, TellsThatAnotherProcessHoldsTheLock) {
  Child holder([](Steps& steps) { Hold(steps); });
  holder.Await();
  uint32_t isFree = 7;
  EXPECT_EQ(0u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(0u, isFree);
  EXPECT_EQ(holder.pid(), HolderOf(path_));
  holder.Go();
  holder.Await();
  EXPECT_EQ(0u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(1u, isFree);
  holder.Go();
  holder.ExpectSuccess();
}

// Record locks belong to processes: closing any descriptor of the file drops them.
TEST_F(SyncLockFileTryAcquire, InTheHolderItselfTellsFreeAndDropsTheLock) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  uint32_t isFree = 0;
  EXPECT_EQ(0u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(1u, isFree);
  EXPECT_EQ(0, HolderOf(path_));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileTryAcquire, LooksThirtyOneTimesForAFileThatIsNotThere) {
  uint32_t isFree = 7;
  EXPECT_EQ(0x05005Au, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(Failure(ENOENT, "OPL_SyncLockFileTryAcquire: access error :2,No such file or directory"),
            LastFailure());
  EXPECT_EQ(31, gSleeps);
  EXPECT_EQ(7u, isFree);
}

TEST_F(SyncLockFileTryAcquire, GoesOnAsSoonAsTheFileAppears) {
  gDuringSleep = [&](int number) {
    if (number == 4) opltest::WriteFile(path_, "");
  };
  uint32_t isFree = 7;
  EXPECT_EQ(0u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  EXPECT_EQ(1u, isFree);
  EXPECT_EQ(5, gSleeps);
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileTryAcquire, WaitsThirtyOneSecondsForAFileThatIsNotThereSlow) {
  sleep_.reset();
  uint32_t isFree = 7;
  EXPECT_GE(SecondsOf([&] { EXPECT_EQ(0x05005Au, OPL_SyncLockFileTryAcquire(&isFree, "door")); }), 31);
}

class SyncLockFileTryAcquireSteps : public SyncLockFileSteps {};

TEST_P(SyncLockFileTryAcquireSteps, ReportTheStepThatFails) {
  opltest::WriteFile(path_, "");
  uint32_t isFree = 7;
  ExpectRefused([&] { return OPL_SyncLockFileTryAcquire(&isFree, "door"); });
}

// The first two seeks carry one text.
INSTANTIATE_TEST_SUITE_P(
    Each, SyncLockFileTryAcquireSteps,
    ::testing::Values(
        Refusal{"Open", "open64", 1, 0x05001E,
                "OPL_SyncLockFileTryAcquire: OPL_CrtOpen error :5,Input/output error\nfile "},
        Refusal{"Seek1", "lseek64", 1, 0x050055, "TryLockFd: lseek(1) error :5,Input/output error"},
        Refusal{"Seek2", "lseek64", 2, 0x050055, "TryLockFd: lseek(1) error :5,Input/output error"},
        Refusal{"Seek3", "lseek64", 3, 0x050055, "UnLockFd: lseek(1) error :5,Input/output error"},
        Refusal{"Seek4", "lseek64", 4, 0x050055, "UnLockFd: lseek(2) error :5,Input/output error"},
        Refusal{"Unlock", "fcntl64", 2, 0x050058, "UnLockFd: fcntl error :5,Input/output error"},
        Refusal{"Seek5", "lseek64", 5, 0x050055, "UnLockFd: lseek(3) error :5,Input/output error"},
        Refusal{"Access", "access", 2, 0x05005A,
                "OPL_SyncLockFileTryAcquire: access(2) error :5,Input/output error"}),
    [](const auto& test) { return std::string(test.param.what); });

TEST_F(SyncLockFileTryAcquire, TakesARefusedLockForAHeldOne) {
  opltest::WriteFile(path_, "");
  uint32_t isFree = 7;
  {
    const Fault fault("fcntl64", 1, EIO);
    EXPECT_EQ(0u, OPL_SyncLockFileTryAcquire(&isFree, "door"));
  }
  EXPECT_EQ(0u, isFree);
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileWaitFor, PassesAFreeLockAfterTwoSeconds) {
  opltest::WriteFile(path_, "");
  EXPECT_EQ(0u, OPL_SyncLockFileWaitFor("door"));
  EXPECT_EQ(2, gSleeps);
  EXPECT_EQ(0, HolderOf(path_));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncLockFileWaitFor, WaitsUntilTheHolderReleases) {
  Child holder([](Steps& steps) { Hold(steps); });
  holder.Await();
  Child waiter([](Steps&) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    EXPECT_EQ(0u, OPL_SyncLockFileWaitFor("door"));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  AwaitWaiter(StatusOf(path_).st_ino, waiter.pid());
  holder.Go();
  waiter.ExpectSuccess();
  holder.Await();
  holder.Go();
  holder.ExpectSuccess();
}

TEST_F(SyncLockFileWaitFor, TellsThatTheHolderRemovedTheFile) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  Child waiter([](Steps&) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    EXPECT_EQ(0x05005Au, OPL_SyncLockFileWaitFor("door"));
    EXPECT_EQ(Failure(ENOENT, "OPL_SyncLockFileWaitFor: access error :2,No such file or directory"),
              LastFailure());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  AwaitWaiter(StatusOf(path_).st_ino, waiter.pid());
  EXPECT_EQ(0u, lock.Destroy());
  waiter.ExpectSuccess();
}

TEST_F(SyncLockFileWaitFor, LooksThirtyOneTimesForAFileThatIsNotThere) {
  EXPECT_EQ(0x05005Au, OPL_SyncLockFileWaitFor("door"));
  EXPECT_EQ(Failure(ENOENT, "OPL_SyncLockFileWaitFor: access error :2,No such file or directory"),
            LastFailure());
  EXPECT_EQ(31, gSleeps);
}

TEST_F(SyncLockFileWaitFor, WaitsThirtyOneSecondsForAFileThatIsNotThereSlow) {
  sleep_.reset();
  EXPECT_GE(SecondsOf([] { EXPECT_EQ(0x05005Au, OPL_SyncLockFileWaitFor("door")); }), 31);
}

class SyncLockFileWaitForSteps : public SyncLockFileSteps {};

TEST_P(SyncLockFileWaitForSteps, ReportTheStepThatFails) {
  opltest::WriteFile(path_, "");
  ExpectRefused([] { return OPL_SyncLockFileWaitFor("door"); });
}

INSTANTIATE_TEST_SUITE_P(
    Each, SyncLockFileWaitForSteps,
    ::testing::Values(Refusal{"Open", "open64", 1, 0x05001E,
                              "OPL_SyncLockFileWaitFor: OPL_CrtOpen error :5,Input/output error\nfile "},
                      Refusal{"Seek", "lseek64", 1, 0x050055, "LockFd: lseek(1) error :5,Input/output error"},
                      Refusal{"Lock", "fcntl64", 1, 0x050058, "LockFd: fcntl error :5,Input/output error"},
                      Refusal{"Unlock", "fcntl64", 2, 0x050058,
                              "UnLockFd: fcntl error :5,Input/output error"},
                      Refusal{"Access", "access", 2, 0x05005A,
                              "OPL_SyncLockFileWaitFor: access error :5,Input/output error"}),
    [](const auto& test) { return std::string(test.param.what); });

TEST_F(SyncLockFileWaitFor, MultipleGoesThroughTheNamesInOrder) {
  opltest::WriteFile(LockFile("a"), "");
  opltest::WriteFile(LockFile("b"), "");
  const char* const names[] = {"a", "b", nullptr};
  EXPECT_EQ(0u, OPL_SyncLockFileWaitForMultiple(names));
  EXPECT_EQ(4, gSleeps);
  EXPECT_EQ(0, ::unlink(LockFile("a").c_str()));
  EXPECT_EQ(0, ::unlink(LockFile("b").c_str()));
}

TEST_F(SyncLockFileWaitFor, MultipleStopsAtTheFirstFailure) {
  opltest::WriteFile(LockFile("a"), "");
  const char* const names[] = {"a", "missing", "missing too", nullptr};
  EXPECT_EQ(0x05005Au, OPL_SyncLockFileWaitForMultiple(names));
  EXPECT_EQ(2 + 31, gSleeps);
  EXPECT_EQ(0, ::unlink(LockFile("a").c_str()));
}

TEST_F(SyncLockFileWaitFor, MultipleOfNothingSucceeds) {
  const char* const names[] = {nullptr};
  EXPECT_EQ(0u, OPL_SyncLockFileWaitForMultiple(names));
  EXPECT_EQ(0, gSleeps);
}

TEST_F(SyncLockFile, OutlivesTheEndOfItsOwnerUnheld) {
  Child owner(
      [](Steps&) {
        EXPECT_EQ(0u, OPL_InitBegin(0));
        static Lock lock;  // in reach of the sanitizer that looks for leaks
        EXPECT_EQ(0u, lock.Create("door"));
        EXPECT_EQ(0u, OPL_InitEnd(0));
        EXPECT_EQ(::getpid(), HolderOf(LockFile("door"))) << "the end of the library is not the process's";
      },
      Child::End::kOrdinarily);
  owner.ExpectSuccess();
  EXPECT_EQ(0, HolderOf(path_));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

class SyncLockFileTerminateIPC : public SyncLockFile {};

TEST_F(SyncLockFileTerminateIPC, RemovesTheInstancesLockFiles) {
  Lock lock;
  ASSERT_EQ(0u, lock.Create("door"));
  opltest::WriteFile(LockFile("a.b"), "left behind");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_FALSE(Exists(path_));
  EXPECT_FALSE(Exists(LockFile("a.b")));
  EXPECT_EQ(0u, lock.Destroy());
}

TEST_F(SyncLockFileTerminateIPC, RemovesOnlyWhatThePatternMatches) {
  opltest::WriteFile(LockFile("a"), "");
  opltest::WriteFile(LockFile("b"), "");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "a*"));
  EXPECT_FALSE(Exists(LockFile("a")));
  EXPECT_EQ(0, ::unlink(LockFile("b").c_str()));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "no such name"));
}

TEST_F(SyncLockFileTerminateIPC, LeavesOtherInstancesVersionsAndKindsAlone) {
  const std::string directory = opltest::IpcDirectory() + "/";
  const std::string instance = opltest::InstanceString();
  const std::vector<std::string> files = {
      directory + "a.lckfile.OTHER.006.021",
      directory + "b.lckfile." + instance + ".006.020",
      directory + "c.lckfil." + instance + ".006.021",
  };
  for (const std::string& file : files) opltest::WriteFile(file, "");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  for (const std::string& file : files) EXPECT_EQ(0, ::unlink(file.c_str())) << file;
}

TEST_F(SyncLockFileTerminateIPC, IsPartOfTheInstancesCleanUp) {
  opltest::WriteFile(path_, "");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_FALSE(Exists(path_));
}

}  // namespace
