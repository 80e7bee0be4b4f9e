// File mutexes: who gets the name, which files there are meanwhile, and what is left when the system refuses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "OPL_Init.h"
#include "OPL_Mem.h"
#include "OPL_Process.h"
#include "OPL_Sync.h"
#include "OPL_Thread.h"
#include "tests/support/Child.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Child;
using opltest::FailingMemory;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::LastFailure;
using opltest::Steps;

// How a record lies in memory.
struct Record {
  char uniqueName[4096];
  char host[256];
  uint32_t processId;
  uint32_t threadId;
  char commonName[4096];
};

struct Mutex {
  OPL_SyncMutexFile* record = nullptr;

  OPL_Result Acquire(const std::string& path) { return OPL_SyncMutexFileAcquire(&record, path.c_str()); }
  OPL_Result Release() { return OPL_SyncMutexFileRelease(&record); }
  const Record& fields() const { return *reinterpret_cast<const Record*>(record); }

  // A failed attempt leaves its record to the caller, who must not release it as a mutex.
  void Forget() {
    OPL_MemFree(nullptr, record, 0, "Forget", __FILE__, "NO-VERSION-INFO", __LINE__);
    record = nullptr;
  }
};

std::string UniqueName(const std::string& directory) {
  char host[256] = "";
  EXPECT_EQ(0, ::gethostname(host, sizeof host));
  uint32_t process = 0;
  uint32_t thread = 0;
  EXPECT_EQ(0u, OPL_ProcessIdGet(&process));
  EXPECT_EQ(0u, OPL_ThreadIdGet(&thread));
  return directory + "mutex-" + host + "-" + std::to_string(process) + "-" + std::to_string(thread) + ".lck";
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status;
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

class SyncMutexFile : public opltest::Instance {
 protected:
  const std::string directory_ = opltest::WorkDirectory() + "/";
  const std::string path_ = directory_ + "common";
};

class SyncMutexFileAcquire : public SyncMutexFile {};
class SyncMutexFileRelease : public SyncMutexFile {};

TEST_F(SyncMutexFileAcquire, MakesTheCommonNameAlone) {
  const Footprint before = Footprint::Now();
  Mutex mutex;
  ASSERT_EQ(0u, mutex.Acquire(path_));
  Footprint expected = before;
  expected.items.insert("file " + path_);
  EXPECT_EQ(expected, Footprint::Now());
  EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), StatusOf(path_).st_mode);
  EXPECT_EQ(1u, StatusOf(path_).st_nlink);
  EXPECT_EQ("", opltest::ContentsOf(path_));
  EXPECT_EQ(0u, mutex.Release());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncMutexFileAcquire, SetsTheFilesTimesInto2036) {
  Mutex mutex;
  ASSERT_EQ(0u, mutex.Acquire(path_));
  const struct stat status = StatusOf(path_);
  for (const time_t time : {status.st_atime, status.st_mtime}) {
    struct tm brokenDown {};
    ASSERT_NE(nullptr, ::localtime_r(&time, &brokenDown));
    EXPECT_EQ(136, brokenDown.tm_year);
  }
  EXPECT_EQ(0u, mutex.Release());
}

TEST_F(SyncMutexFileAcquire, FillsTheRecord) {
  Mutex mutex;
  ASSERT_EQ(0u, mutex.Acquire(path_));
  EXPECT_EQ(UniqueName(directory_), mutex.fields().uniqueName);
  EXPECT_EQ(path_, mutex.fields().commonName);
  char host[256] = "";
  EXPECT_EQ(0, ::gethostname(host, sizeof host));
  EXPECT_STREQ(host, mutex.fields().host);
  uint32_t id = 0;
  ASSERT_EQ(0u, OPL_ProcessIdGet(&id));
  EXPECT_EQ(id, mutex.fields().processId);
  ASSERT_EQ(0u, OPL_ThreadIdGet(&id));
  EXPECT_EQ(id, mutex.fields().threadId);
  EXPECT_EQ(0u, mutex.Release());
}

TEST_F(SyncMutexFileAcquire, LinksAnEmptyFileOfTheProcessAndThread) {
  const std::string unique = UniqueName(directory_);
  const mode_t mask = ::umask(0077);
  Mutex mutex;
  {
    const Fault fault("link", 1, [&] {
      EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), StatusOf(unique).st_mode);
      EXPECT_EQ(0, StatusOf(unique).st_size);
    });
    ASSERT_EQ(0u, mutex.Acquire(path_));
    EXPECT_TRUE(fault.Fired());
  }
  (void)::umask(mask);
  EXPECT_FALSE(Exists(unique));
  EXPECT_EQ(0u, mutex.Release());
}

TEST_F(SyncMutexFileAcquire, TakesAPathWithoutADirectory) {
  Mutex mutex;
  ASSERT_EQ(0u, mutex.Acquire("common"));
  EXPECT_EQ(UniqueName(""), mutex.fields().uniqueName);
  EXPECT_TRUE(Exists(path_));
  EXPECT_EQ(0u, mutex.Release());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncMutexFileAcquire, TellsThatTheMutexIsHeldAndLeavesTheCommonFileAlone) {
  Mutex holder;
  ASSERT_EQ(0u, holder.Acquire(path_));
  const Footprint before = Footprint::Now();
  const struct stat status = StatusOf(path_);
  Mutex second;
  EXPECT_EQ(0x05005Du, second.Acquire(path_));
  EXPECT_EQ(Failure(0x05005D, "OPL_SyncMutexFileAcquire: link failed"), LastFailure());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(status.st_ino, StatusOf(path_).st_ino);
  EXPECT_EQ(1u, StatusOf(path_).st_nlink);
  ASSERT_NE(nullptr, second.record) << "the record is the caller's all the same";
  EXPECT_EQ(path_, second.fields().commonName);
  second.Forget();
  EXPECT_EQ(0u, holder.Release());
}

TEST_F(SyncMutexFileAcquire, TellsThatAnotherProcessHoldsTheMutex) {
  Child holder([&](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Mutex mutex;
    EXPECT_EQ(0u, mutex.Acquire(path_));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0u, mutex.Release());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  holder.Await();
  Mutex mutex;
  EXPECT_EQ(0x05005Du, mutex.Acquire(path_));
  mutex.Forget();
  holder.Go();
  holder.ExpectSuccess();
  EXPECT_EQ(0u, mutex.Acquire(path_));
  EXPECT_EQ(0u, mutex.Release());
}

TEST_F(SyncMutexFileAcquire, DoesNotTakeTheNameFromAHolderThatDied) {
  Child holder([&](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Mutex mutex;
    EXPECT_EQ(0u, mutex.Acquire(path_));
    steps.Reach();
    steps.WaitForGo();
  });
  holder.Await();
  holder.Kill();
  holder.ExpectKilledBy(SIGKILL);
  Mutex mutex;
  EXPECT_EQ(0x05005Du, mutex.Acquire(path_));
  mutex.Forget();
  EXPECT_EQ(0, ::unlink(path_.c_str()));
  EXPECT_EQ(0u, mutex.Acquire(path_));
  EXPECT_EQ(0u, mutex.Release());
}

// A dead process had the same id.
TEST_F(SyncMutexFileAcquire, ReplacesALeftoverOfItsOwnUniqueName) {
  opltest::WriteFile(UniqueName(directory_), "left behind");
  Mutex mutex;
  ASSERT_EQ(0u, mutex.Acquire(path_));
  EXPECT_EQ("", opltest::ContentsOf(path_));
  EXPECT_FALSE(Exists(UniqueName(directory_)));
  EXPECT_EQ(0u, mutex.Release());
}

// Or its link count would count for the new attempt.
TEST_F(SyncMutexFileAcquire, IsNotHelpedByALinkedLeftover) {
  opltest::WriteFile(path_, "another's");
  const std::string leftover = UniqueName(directory_);
  ASSERT_EQ(0, ::link(path_.c_str(), leftover.c_str()));
  Mutex mutex;
  EXPECT_EQ(0x05005Du, mutex.Acquire(path_));
  mutex.Forget();
  EXPECT_EQ("another's", opltest::ContentsOf(path_));
  EXPECT_FALSE(Exists(leftover));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncMutexFileAcquire, TakesALinkOrPipeInTheFilesPlaceForAHolder) {
  const std::string target = directory_ + "target";
  ASSERT_EQ(0, ::symlink(target.c_str(), path_.c_str()));
  Mutex mutex;
  EXPECT_EQ(0x05005Du, mutex.Acquire(path_));
  mutex.Forget();
  EXPECT_FALSE(Exists(target));
  EXPECT_EQ(0, ::unlink(path_.c_str()));
  ASSERT_EQ(0, ::mkfifo(path_.c_str(), 0600));
  EXPECT_EQ(0x05005Du, mutex.Acquire(path_));
  mutex.Forget();
  EXPECT_EQ(0, ::unlink(path_.c_str()));
}

TEST_F(SyncMutexFileAcquire, DoesNotFollowALinkInTheUniqueNamesPlace) {
  const std::string target = directory_ + "target";
  ASSERT_EQ(0, ::symlink(target.c_str(), UniqueName(directory_).c_str()));
  Mutex mutex;
  EXPECT_EQ(0u, mutex.Acquire(path_));
  EXPECT_FALSE(Exists(target));
  EXPECT_EQ(0u, mutex.Release());
}

// A file server may repeat a request whose answer got lost.
int LinkAndDeny(const char* from, const char* to) {
  EXPECT_EQ(0, ::linkat(AT_FDCWD, from, AT_FDCWD, to, 0));
  errno = EEXIST;
  return -1;
}

TEST_F(SyncMutexFileAcquire, BelievesTheLinkCountAndNotTheAnswer) {
  Mutex mutex;
  {
    const opltest::Replacement link("link", &LinkAndDeny);
    EXPECT_EQ(0u, mutex.Acquire(path_));
  }
  EXPECT_TRUE(Exists(path_));
  EXPECT_EQ(0u, mutex.Release());
}

TEST_F(SyncMutexFileAcquire, TellsThatThereIsNoSuchDirectory) {
  const Footprint before = Footprint::Now();
  Mutex mutex;
  EXPECT_EQ(0x05001Eu, mutex.Acquire(directory_ + "missing/common"));
  EXPECT_EQ(Failure(ENOENT, "OPL_SyncMutexFileAcquire: open error :2,No such file or directory\nfile " +
                                UniqueName(directory_ + "missing/")),
            LastFailure());
  ASSERT_NE(nullptr, mutex.record);
  mutex.Forget();
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncMutexFileAcquire, RefusesAPathOfFiveThousandCharacters) {
  const Footprint before = Footprint::Now();
  Mutex mutex;
  EXPECT_NE(0u, mutex.Acquire(std::string(5000, 'x')));
  mutex.Forget();
  EXPECT_NE(0u, mutex.Acquire(directory_ + std::string(5000, '/') + "x"));
  mutex.Forget();
  EXPECT_EQ(before, Footprint::Now());
}

// A directory of that many characters; the same one.
std::string Lengthened(std::string directory, size_t length) {
  while (directory.size() + 2 <= length) directory += "./";
  if (directory.size() < length) directory += "/";
  return directory;
}

// Cut, it would be that of other processes and threads, too.
TEST_F(SyncMutexFileAcquire, NeverUsesAUniqueNameThatWasCut) {
  const Footprint before = Footprint::Now();
  for (const size_t length : {4070u, 4085u, 4090u}) {
    SCOPED_TRACE(length);
    const std::string directory = Lengthened(directory_, length);
    Mutex mutex;
    EXPECT_EQ(0x05001Eu, mutex.Acquire(directory + "c"));
    EXPECT_EQ(static_cast<uint32_t>(ENAMETOOLONG), LastFailure().code);
    EXPECT_TRUE(LastFailure().message.starts_with(
        "OPL_SyncMutexFileAcquire: open error :36,File name too long\nfile " + directory_));
    mutex.Forget();
    EXPECT_EQ(before, Footprint::Now());
  }
}

// Cut, it would be that of another mutex.
TEST_F(SyncMutexFileAcquire, NeverTakesACommonNameThatWasCut) {
  const Footprint before = Footprint::Now();
  Mutex mutex;
  EXPECT_EQ(0x05005Du, mutex.Acquire(Lengthened(directory_, 3800) + std::string(300, 'x')));
  EXPECT_EQ(Failure(0x05005D, "OPL_SyncMutexFileAcquire: link failed"), LastFailure());
  mutex.Forget();
  EXPECT_EQ(0x05005Du, mutex.Acquire(Lengthened(directory_, 3900) + std::string(250, 'x')));
  mutex.Forget();
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncMutexFileAcquire, RefusesNullArguments) {
  Mutex mutex;
  EXPECT_EQ(0x050046u, OPL_SyncMutexFileAcquire(nullptr, "common"));
  EXPECT_EQ(Failure(0x050046, "OPL_SyncMutexFileAcquire: ppMutexFile is NULL"), LastFailure());
  EXPECT_EQ(0x050046u, OPL_SyncMutexFileAcquire(&mutex.record, nullptr));
  EXPECT_EQ(nullptr, mutex.record);
  EXPECT_EQ(0x050046u, OPL_SyncMutexFileRelease(nullptr));
  EXPECT_EQ(0x050046u, OPL_SyncMutexFileRelease(&mutex.record));
}

TEST(SyncMutexFileBeforeBegin, IsRefused) {
  Mutex mutex;
  EXPECT_EQ(0x050203u, mutex.Acquire("common"));
  EXPECT_EQ(0x050203u, mutex.Release());
  EXPECT_FALSE(Exists("common"));
}

TEST_F(SyncMutexFileAcquire, TellsThatThereIsNoMemory) {
  const FailingMemory memory(1);
  Mutex mutex;
  EXPECT_EQ(0x050001u, mutex.Acquire(path_));
  EXPECT_EQ(Failure(ENOMEM, "OPL_SyncMutexFileAcquire: malloc error"), LastFailure());
  EXPECT_EQ(nullptr, mutex.record);
}

struct Refusal {
  const char* call;
  uint32_t code;
  uint32_t recorded;
  const char* message;  // the unique name is added behind "file "
};

class SyncMutexFileSteps : public SyncMutexFile, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SyncMutexFileSteps, ReportTheStepThatFails) {
  const Refusal& refusal = GetParam();
  Mutex mutex;
  {
    const Fault fault(refusal.call, 1, EIO);
    EXPECT_EQ(refusal.code, mutex.Acquire(path_));
    EXPECT_TRUE(fault.Fired());
  }
  std::string message = refusal.message;
  if (message.ends_with("file ")) message += UniqueName(directory_);
  EXPECT_EQ(Failure(refusal.recorded, message), LastFailure());
  ASSERT_NE(nullptr, mutex.record);
  mutex.Forget();
  (void)::unlink(UniqueName(directory_).c_str());  // stays where removing it is what failed
  EXPECT_FALSE(Exists(path_));
}

// Without the link count, the answer is the same as when somebody else holds the mutex.
INSTANTIATE_TEST_SUITE_P(
    Each, SyncMutexFileSteps,
    ::testing::Values(Refusal{"open64", 0x05001E, EIO,
                              "OPL_SyncMutexFileAcquire: open error :5,Input/output error\nfile "},
                      Refusal{"link", 0x05005D, 0x05005D, "OPL_SyncMutexFileAcquire: link failed"},
                      Refusal{"stat64", 0x05005D, 0x05005D, "OPL_SyncMutexFileAcquire: link failed"},
                      Refusal{"unlink", 0x05001C, EIO,
                              "OPL_SyncMutexFileAcquire: unlink error :5,Input/output error\nfile "}),
    [](const auto& test) { return std::string(test.param.call); });

TEST_F(SyncMutexFileAcquire, GivesTheNameBackWhenTheLinkCountIsUnknown) {
  const Footprint before = Footprint::Now();
  Mutex mutex;
  {
    const Fault fault("stat64", 1, EIO);
    EXPECT_EQ(0x05005Du, mutex.Acquire(path_));
  }
  mutex.Forget();
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncMutexFileAcquire, GivesTheNameBackWhenTheUniqueOneCannotBeRemoved) {
  Mutex mutex;
  {
    const Fault fault("unlink", 1, EIO);
    EXPECT_EQ(0x05001Cu, mutex.Acquire(path_));
  }
  mutex.Forget();
  EXPECT_FALSE(Exists(path_));
  EXPECT_EQ(0u, mutex.Acquire(path_)) << "nobody holds it";
  EXPECT_EQ(0u, mutex.Release());
}

TEST_F(SyncMutexFileAcquire, LeavesTheHolderTheNameWhenTheLinkCountIsUnknown) {
  Mutex holder;
  ASSERT_EQ(0u, holder.Acquire(path_));
  Mutex second;
  {
    const Fault fault("stat64", 1, EIO);
    EXPECT_EQ(0x05005Du, second.Acquire(path_));
  }
  second.Forget();
  EXPECT_TRUE(Exists(path_));
  EXPECT_EQ(0u, holder.Release());
}

TEST_F(SyncMutexFileAcquire, ExcludesTheThreadsOfAProcess) {
  constexpr int kRounds = 50;
  int count = 0;
  std::atomic<int> inside{0};
  opltest::RunAtOnce(4, [&](int) {
    for (int round = 0; round < kRounds;) {
      Mutex mutex;
      const OPL_Result rc = mutex.Acquire(path_);
      if (rc == OPL_SYNC_E_MUTEXFILE_HELD) {
        mutex.Forget();
        (void)::sched_yield();
        continue;
      }
      ASSERT_EQ(0u, rc) << LastFailure();
      EXPECT_EQ(0, inside++);
      ++count;
      --inside;
      ASSERT_EQ(0u, mutex.Release());
      ++round;
    }
  });
  EXPECT_EQ(4 * kRounds, count);
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SyncMutexFileAcquire, ExcludesProcesses) {
  constexpr int kRounds = 50;
  void* const shared =
      ::mmap(nullptr, sizeof(int) * 2, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, shared);
  volatile int* const count = static_cast<volatile int*>(shared);
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 4; ++i)
    children.push_back(std::make_unique<Child>([&](Steps& steps) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      steps.Reach();
      steps.WaitForGo();
      for (int round = 0; round < kRounds;) {
        Mutex mutex;
        const OPL_Result rc = mutex.Acquire(path_);
        if (rc == OPL_SYNC_E_MUTEXFILE_HELD) {
          mutex.Forget();
          (void)::sched_yield();
          continue;
        }
        ASSERT_EQ(0u, rc) << LastFailure();
        const int before = *count;
        (void)::sched_yield();
        *count = before + 1;
        ASSERT_EQ(0u, mutex.Release());
        ++round;
      }
      EXPECT_EQ(0u, OPL_InitEnd(0));
    }));
  for (auto& child : children) child->Await();
  for (auto& child : children) child->Go();
  for (auto& child : children) child->ExpectSuccess();
  EXPECT_EQ(4 * kRounds, *count);
  EXPECT_EQ(0, ::munmap(shared, sizeof(int) * 2));
}

TEST_F(SyncMutexFileRelease, ReleasesTheRecordWhenTheNameIsGone) {
  Mutex mutex;
  ASSERT_EQ(0u, mutex.Acquire(path_));
  ASSERT_EQ(0, ::unlink(path_.c_str()));
  EXPECT_EQ(0x05001Cu, mutex.Release());
  EXPECT_EQ(
      Failure(ENOENT, "OPL_SyncMutexFileRelease: unlink error :2,No such file or directory\nfile " + path_),
      LastFailure());
  EXPECT_EQ(nullptr, mutex.record);
}

}  // namespace
