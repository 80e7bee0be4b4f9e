// Locks between processes under the standard's guards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <mutex>
#include <qvopl.hpp>
#include <shared_mutex>
#include <string>
#include <vector>

#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"
#include "tests/support/SemaphoreSets.h"

namespace {

using opltest::Child;
using opltest::Peer;
using opltest::PeerBody;
using opltest::Steps;
using qvopl::NamedMutex;
using qvopl::ReadWriteLock;

constexpr uint32_t kRounds = 300;

// Semaphores of a mutex's and of a read-write lock's set.
constexpr int kLock = 0;
constexpr int kReaders = 2;

int SetOf(const std::string& file) {
  return opltest::SetNamedBy(opltest::IpcDirectory() + "/" + file + opltest::InstanceString() + ".006.021");
}

// The memory of a mutex that was opened stays with the process when it is closed. The leak checker is told.
extern "C" void __lsan_ignore_object(const void*) __attribute__((weak));

NamedMutex Kept(NamedMutex mutex) {
  if (__lsan_ignore_object != nullptr) __lsan_ignore_object(mutex.native());
  return mutex;
}

// The records are those of the C interface; what a failed test needs to know is the message.
template <typename T>
OPL_Result CodeOf(const qvopl::Result<T>& result) {
  return result.code();
}

class CppMutex : public opltest::Instance {};

TEST_F(CppMutex, IsMadeOpenedAndRemoved) {
  const std::string file = opltest::IpcDirectory() + "/queue.mutex." + opltest::InstanceString() + ".006.021";
  {
    const NamedMutex made = NamedMutex::Create("queue");
    EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_MUTEX_EXISTS),
              CodeOf(NamedMutex::Create(std::nothrow, "queue")));
    const NamedMutex opened = Kept(NamedMutex::Open(std::string("queue")));
    EXPECT_EQ(0, ::access(file.c_str(), F_OK));
  }
  EXPECT_NE(0, ::access(file.c_str(), F_OK));
  EXPECT_EQ(std::errc::no_such_file_or_directory, NamedMutex::Open(std::nothrow, "queue").error());
}

TEST_F(CppMutex, IsForAllUsersWhereAsked) {
  const NamedMutex mutex = NamedMutex::Create("queue", qvopl::Access::kAllUsers);
  const std::vector<int> sets = opltest::SemaphoreSets();
  EXPECT_TRUE(std::any_of(sets.begin(), sets.end(), [](int id) { return opltest::ModeOf(id) == 0666; }));
  EXPECT_EQ(std::errc::no_such_file_or_directory, NamedMutex::Open(std::nothrow, "queue").error());
}

TEST_F(CppMutex, IsHeldByEveryGuardOfTheStandard) {
  NamedMutex mutex = NamedMutex::Create("queue");
  { const std::scoped_lock hold(mutex); }
  { const std::lock_guard hold(mutex); }
  {
    std::unique_lock hold(mutex);
    EXPECT_EQ(OPL_OK, OPL_SyncMutexRelease(mutex.native()));
    EXPECT_EQ(OPL_OK, OPL_SyncMutexAcquire(mutex.native()));
    hold.unlock();
    EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_NOT_OWNER), CodeOf(mutex.unlock(std::nothrow)));
    hold.lock();
  }
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_NOT_OWNER), CodeOf(mutex.unlock(std::nothrow)));
}

TEST_F(CppMutex, IsMovedWithItsHandle) {
  NamedMutex first = NamedMutex::Create("first");
  OPL_SyncMutex* const handle = first.native();
  NamedMutex second(std::move(first));
  EXPECT_FALSE(first);
  EXPECT_EQ(handle, second.native());
  NamedMutex third = NamedMutex::Create("third");
  third = std::move(second);
  EXPECT_EQ(handle, third.native());
  EXPECT_EQ(std::errc::no_such_file_or_directory, NamedMutex::Open(std::nothrow, "third").error());
  NamedMutex adopted(third.Release());
  EXPECT_FALSE(third);
  adopted.Close();
  EXPECT_FALSE(adopted);
  EXPECT_EQ(std::errc::no_such_file_or_directory, NamedMutex::Open(std::nothrow, "first").error());
}

TEST_F(CppMutex, TellsThatItCannotBeClosed) {
  NamedMutex mutex = NamedMutex::Create("queue");
  qvopl::Library::RemoveObjects("queue*");
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_MUTEX_MISSING), CodeOf(mutex.Close(std::nothrow)));
  EXPECT_TRUE(mutex);
  (void)Kept(NamedMutex(mutex.Release())).Release();
}

TEST_F(CppMutex, GoesOnWaitingAfterASignalUnlessItIsToldNotTo) {
  NamedMutex mutex = NamedMutex::Create("queue");
  mutex.lock();
  Child child([](Steps& steps) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    const qvopl::Library library;
    NamedMutex inChild = NamedMutex::Open("queue", qvopl::Access::kPrivate, qvopl::OnSignal::kInterrupt);
    steps.Reach();
    const qvopl::Result<void> locked = inChild.lock(std::nothrow);
    EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_INTERRUPTED), locked.code());
    EXPECT_EQ(std::errc::interrupted, locked.error());
  });
  child.Await();
  opltest::AwaitSleepersOn(SetOf("queue.mutex."), kLock);
  child.Kill(SIGUSR1);
  child.ExpectSuccess();

  Child patient([](Steps& steps) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    const qvopl::Library library;
    NamedMutex inChild = NamedMutex::Open("queue");
    steps.Reach();
    const std::scoped_lock hold(inChild);
  });
  patient.Await();
  opltest::AwaitSleepersOn(SetOf("queue.mutex."), kLock);
  patient.Kill(SIGUSR1);
  mutex.unlock();
  patient.ExpectSuccess();
}

// What another process does in between is played: each step tells what it would find.
using Step = OPL_Result;
struct Steady {
  std::vector<Step> opens;
  std::vector<Step> creates;
  size_t opened = 0;
  size_t created = 0;

  static qvopl::Result<NamedMutex> Next(const std::vector<Step>& steps, size_t* at) {
    const Step step = steps[std::min((*at)++, steps.size() - 1)];
    if (step != OPL_OK) return qvopl::Result<NamedMutex>::Failure(step);
    return NamedMutex();
  }
  OPL_Result Run() {
    return qvopl::detail::OpenOrCreate(
               [this] { return Next(opens, &opened); }, [this] { return Next(creates, &created); },
               [](const auto& found) { return found.code() == OPL_SYNC_E_MUTEX_MISSING; },
               [](const auto& made) { return made.code() == OPL_SYNC_E_MUTEX_EXISTS; })
        .code();
  }
};

TEST(CppOpenOrCreate, OpensWhatAnotherHasMadeInBetween) {
  Steady race{{OPL_SYNC_E_MUTEX_MISSING, OPL_OK}, {OPL_SYNC_E_MUTEX_EXISTS}};
  EXPECT_EQ(OPL_OK, race.Run());
  EXPECT_EQ(2u, race.opened);
  EXPECT_EQ(1u, race.created);
}

TEST(CppOpenOrCreate, MakesWhatAnotherHasRemovedInBetween) {
  Steady race{{OPL_SYNC_E_MUTEX_MISSING}, {OPL_SYNC_E_MUTEX_EXISTS, OPL_SYNC_E_MUTEX_EXISTS, OPL_OK}};
  EXPECT_EQ(OPL_OK, race.Run());
  EXPECT_EQ(3u, race.opened);
  EXPECT_EQ(3u, race.created);
}

TEST(CppOpenOrCreate, PassesOtherFailuresOnAtOnce) {
  Steady open{{OPL_SYNC_E_BAD_NAME}, {OPL_OK}};
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_BAD_NAME), open.Run());
  EXPECT_EQ(0u, open.created);
  Steady create{{OPL_SYNC_E_MUTEX_MISSING}, {OPL_SYNC_E_TABLE_FULL}};
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_TABLE_FULL), create.Run());
  EXPECT_EQ(1u, create.opened);
}

TEST(CppOpenOrCreate, GivesUpOnANameThatCanBeNeitherOpenedNorMade) {
  Steady never{{OPL_SYNC_E_MUTEX_MISSING}, {OPL_SYNC_E_MUTEX_EXISTS}};
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_MUTEX_EXISTS), never.Run());
  EXPECT_EQ(1000u, never.opened);
}

class CppReadWriteLock : public opltest::Instance {};

TEST_F(CppReadWriteLock, IsHeldByEveryGuardOfTheStandard) {
  ReadWriteLock lock = ReadWriteLock::OpenOrCreate("table");
  { const std::scoped_lock hold(lock); }
  { const std::unique_lock hold(lock); }
  {
    const std::shared_lock hold(lock);
    Child child([](Steps&) {
      const qvopl::Library library;
      ReadWriteLock inChild = ReadWriteLock::Open("table");
      const std::shared_lock also(inChild);
    });
    child.ExpectSuccess();
  }
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_NOT_HELD), CodeOf(lock.unlock(std::nothrow)));
}

TEST_F(CppReadWriteLock, KeepsWritersOutOfAReadersTime) {
  ReadWriteLock lock = ReadWriteLock::Create("table");
  std::shared_lock hold(lock);
  Child child([](Steps& steps) {
    const qvopl::Library library;
    ReadWriteLock inChild = ReadWriteLock::Open("table");
    steps.Reach();
    const std::unique_lock alone(inChild);
  });
  child.Await();
  opltest::AwaitSleepersForZero(SetOf("table.rwlock."), kReaders);
  hold.unlock();
  child.ExpectSuccess();
}

// The C function tells of some of these by the handle that stays and by the error record alone.
TEST_F(CppReadWriteLock, TellsWhicheverCallKeepsItFromBeingClosed) {
  uint32_t kept = 0;
  for (int nth = 1; nth <= 4; ++nth) {
    SCOPED_TRACE(nth);
    ReadWriteLock lock = ReadWriteLock::Create("table" + std::to_string(nth));
    const opltest::Fault fault("semop", nth, EIO);
    const qvopl::Result<void> closed = lock.Close(std::nothrow);
    EXPECT_FALSE(closed.ok() && lock);
    EXPECT_EQ(closed.ok() ? 0 : EIO, closed.systemError());
    kept += lock ? 1 : 0;
  }
  EXPECT_LT(0u, kept);
}

// Processes of both widths that open or make, count and close over and over: whoever comes last removes what
// the next has to make.
void CountUnderLock() {
  const qvopl::Library library;
  for (uint32_t round = 0; round < kRounds; ++round) {
    NamedMutex mutex = Kept(NamedMutex::OpenOrCreate("race"));
    const std::scoped_lock hold(mutex);
    ReadWriteLock lock = ReadWriteLock::OpenOrCreate("race");
    const std::unique_lock alone(lock);
  }
}

const PeerBody kCounter("Counter", [](Steps& steps) {
  steps.Reach();
  steps.WaitForGo();
  EXPECT_NO_THROW(CountUnderLock());
});

class CppLocksMixed : public opltest::Instance, public ::testing::WithParamInterface<int> {};

TEST_P(CppLocksMixed, OpenOrCreateOutlivesTheRaceWithAPeer) {
  Peer first(kCounter, GetParam());
  Peer second(kCounter, opltest::kWidth);
  first.Await();
  second.Await();
  first.Go();
  second.Go();
  EXPECT_NO_THROW(CountUnderLock());
  first.ExpectSuccess();
  second.ExpectSuccess();
}

INSTANTIATE_TEST_SUITE_P(PeerOf, CppLocksMixed, ::testing::ValuesIn(opltest::PeerWidths()));

class CppLockFile : public opltest::Instance {};

TEST_F(CppLockFile, IsHeldUntilItIsGivenBack) {
  qvopl::LockFile indexer = qvopl::LockFile::Create("indexer");
  const auto isFree = [] {
    const qvopl::Library library;
    return qvopl::LockFile::IsFree("indexer");
  };
  Child held([&](Steps&) { EXPECT_FALSE(isFree()); });
  held.ExpectSuccess();
  EXPECT_TRUE(indexer.unlock(std::nothrow).ok());
  Child released([&](Steps&) { EXPECT_TRUE(isFree()); });
  released.ExpectSuccess();
  { const std::scoped_lock hold(indexer); }
  indexer.Close();
  EXPECT_FALSE(indexer);
}

// The copies that a forked child has of its parent's objects.
class CppForkedChild : public opltest::Instance {};

template <typename... Objects>
void End(Objects... /*copies*/) {}

TEST_F(CppForkedChild, EndsItsCopiesAndLeavesTheParentsObjectsAlone) {
  NamedMutex mutex = NamedMutex::Create("queue");
  ReadWriteLock lock = ReadWriteLock::Create("table");
  qvopl::Event event = qvopl::Event::Create("work");
  auto memory = qvopl::SharedMemory<uint32_t>::Create("block");
  auto locked = qvopl::LockedSharedMemory<uint32_t>::Create("locked");
  qvopl::LockFile file = qvopl::LockFile::Create("indexer");
  *memory = 7;
  Child child([&](Steps&) {
    End(std::move(mutex), std::move(lock), std::move(event), std::move(memory), std::move(locked),
        std::move(file));
  });
  child.ExpectSuccess();
  Child other([](Steps&) {
    const qvopl::Library library;
    EXPECT_TRUE(Kept(NamedMutex::Open("queue")));
    EXPECT_EQ(OPL_OK, CodeOf(ReadWriteLock::Open(std::nothrow, "table")));
    EXPECT_EQ(OPL_OK, CodeOf(qvopl::Event::Open(std::nothrow, "work")));
    EXPECT_EQ(7u, *qvopl::SharedMemory<uint32_t>::Open("block"));
    EXPECT_EQ(OPL_OK, CodeOf(qvopl::LockedSharedMemory<uint32_t>::Open(std::nothrow, "locked")));
    EXPECT_FALSE(qvopl::LockFile::IsFree("indexer"));
  });
  other.ExpectSuccess();
}

class CppFileMutex : public opltest::Instance {};

TEST_F(CppFileMutex, IsOneThreadsAtATime) {
  {
    const qvopl::FileMutex held = qvopl::FileMutex::TryAcquire("name");
    EXPECT_TRUE(held);
    EXPECT_FALSE(qvopl::FileMutex::TryAcquire("name"));
    EXPECT_EQ(std::errc::device_or_resource_busy, qvopl::FileMutex::TryAcquire(std::nothrow, "name").error());
    EXPECT_EQ(0, ::access("name", F_OK));
  }
  EXPECT_NE(0, ::access("name", F_OK));
  EXPECT_THROW((void)qvopl::FileMutex::TryAcquire("/no/such/directory/name"), qvopl::Error);
}

class CppCriticalSection : public opltest::Instance {};

TEST_F(CppCriticalSection, ExcludesThreads) {
  OPL_SyncCriticalSection record{};
  qvopl::CriticalSection section(record);
  uint32_t count = 0;
  const auto raise = [&] {
    for (uint32_t round = 0; round < kRounds; ++round) {
      const std::scoped_lock hold(section);
      ++count;
    }
  };
  {
    const qvopl::Thread first = qvopl::Thread::Start(raise);
    const qvopl::Thread second = qvopl::Thread::Start(raise);
  }
  EXPECT_EQ(2 * kRounds, count);
  { const std::scoped_lock hold(section); }
  EXPECT_EQ(OPL_OK, OPL_SyncCriticalSectionUnInit(&record));
  qvopl::CriticalSection library;
  const std::scoped_lock hold(library);
}

}  // namespace
