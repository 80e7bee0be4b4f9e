// How mutexes and read-write locks are opened and closed alike: the file is looked at before the management
// lock is taken, and what counts is what holds under the lock.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/User.h"

namespace {

using opltest::BytesOf;
using opltest::Child;
using opltest::DateToThePresent;
using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::SetNamedBy;
using opltest::Steps;
using opltest::ValueOf;

constexpr uint32_t kMismatch = 0x05005E;

struct Kind {
  const char* name;
  std::string (*file)(const std::string& name, const std::string& scope);
  uint32_t instancePrivate;
  uint32_t allUsers;
  uint32_t missing;
  opltest::Values values;  // without a handle
  int useCount;            // the semaphore
  int lock;                // the management lock's
  OPL_Result (*takeLock)();
  OPL_Result (*giveLockBack)();
  uint32_t (*create)(void** handle, const char* name, uint32_t flags);
  uint32_t (*open)(void** handle, const char* name, uint32_t flags);
  uint32_t (*close)(void** handle);
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

template <typename Handle, OPL_Result (*kCall)(Handle**, uint32_t, const char*, uint32_t)>
uint32_t Get(void** handle, const char* name, uint32_t flags) {
  auto* got = static_cast<Handle*>(*handle);
  const uint32_t code = kCall(&got, 0, name, flags);
  *handle = got;
  return code;
}

template <typename Handle, OPL_Result (*kCall)(Handle**)>
uint32_t Close(void** handle) {
  auto* closed = static_cast<Handle*>(*handle);
  const uint32_t code = kCall(&closed);
  *handle = closed;
  return code;
}

const Kind kKinds[] = {
    {"Mutex", opltest::MutexFile, 0x04, 0x08, 0x050005, opltest::Values{1, 32000}, 1, 3,
     OPL_PrivateMgmtLockSyncMutexLock, OPL_PrivateMgmtLockSyncMutexUnlock,
     Get<OPL_SyncMutex, OPL_SyncMutexCreate>, Get<OPL_SyncMutex, OPL_SyncMutexOpen>,
     Close<OPL_SyncMutex, opltest::CloseMutex>},
    {"RWLock", opltest::RWLockFile, 0x01, 0x02, 0x050016, opltest::Values{1, 0, 0, 32000}, 3, 2,
     OPL_PrivateMgmtLockRWLockLock, OPL_PrivateMgmtLockRWLockUnlock,
     Get<OPL_SyncRWLock, OPL_SyncRWLockCreate>, Get<OPL_SyncRWLock, OPL_SyncRWLockOpen>,
     Close<OPL_SyncRWLock, OPL_SyncRWLockClose>},
};

// What both handles begin with.
int32_t SetOf(const void* handle) {
  int32_t id = -1;
  std::memcpy(&id, handle, sizeof id);
  return id;
}

void Nothing() {}

// How often a body calls each of some functions.
using Calls = std::vector<std::pair<std::string, int>>;

template <typename Body>
Calls CallsOf(const Calls& asked, Body body) {
  std::vector<std::unique_ptr<Fault>> counters;
  for (const auto& [function, count] : asked)
    counters.push_back(std::make_unique<Fault>(function.c_str(), INT_MAX, EIO));
  body();
  Calls calls;
  for (size_t i = 0; i < asked.size(); ++i) calls.emplace_back(asked[i].first, counters[i]->Calls());
  return calls;
}

class SyncNamedSet : public opltest::Instance, public ::testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(0u, kind_.create(&created_, "q", kind_.instancePrivate));
    // Reading the file would move its times.
    id_ = SetOf(created_);
    management_ = SetNamedBy(opltest::ManagementFile());
  }
  void TearDown() override {
    if (created_ != nullptr) {
      EXPECT_EQ(0u, kind_.close(&created_));
    }
    Instance::TearDown();
  }

  uint32_t Open(void** handle) const { return kind_.open(handle, "q", kind_.instancePrivate); }
  int Users() const { return 32000 - ValueOf(id_, kind_.useCount); }
  bool IsLockHeld() const { return ValueOf(management_, kind_.lock) == 0; }

  // Another set like an object's, and a file in the object's place that names it.
  int ReplaceFile() const {
    const int other = opltest::MakeSet(kind_.values);
    opltest::WriteFile(file_ + ".other", BytesOf(other));
    EXPECT_EQ(0, ::rename((file_ + ".other").c_str(), file_.c_str()));
    return other;
  }

  // Runs the body in another process, which takes the management lock, and the action once it waits for it.
  void WhileItWaits(const std::function<void()>& before, const std::function<void()>& body,
                    const std::function<void()>& action) {
    Child child([&](Steps& steps) {
      ASSERT_EQ(0u, OPL_InitBegin(0));
      before();
      steps.Reach();
      steps.WaitForGo();
      body();
      EXPECT_EQ(0u, OPL_InitEnd(0));
    });
    child.Await();
    ASSERT_EQ(0u, kind_.takeLock());
    child.Go();
    opltest::AwaitSleepersOn(management_, kind_.lock);
    action();
    EXPECT_EQ(0u, kind_.giveLockBack());
    child.ExpectSuccess();
  }

  const Kind kind_ = GetParam();
  const std::string file_ = kind_.file("q", opltest::InstanceString());
  void* created_ = nullptr;
  void* handle_ = nullptr;
  int id_ = -1;
  int management_ = -1;
};

INSTANTIATE_TEST_SUITE_P(Of, SyncNamedSet, ::testing::ValuesIn(kKinds),
                         [](const ::testing::TestParamInfo<Kind>& test) { return test.param.name; });

TEST_P(SyncNamedSet, IsReadBeforeTheLockIsTakenAndUsedUnderIt) {
  bool wasHeldAtReading = true;
  bool wasHeldAtUsing = false;
  int usersAtUsing = 0;
  {
    Fault reading("read", 1, [&] { wasHeldAtReading = IsLockHeld(); });
    Fault usingIt("semop", 2, [&] {
      wasHeldAtUsing = IsLockHeld();
      usersAtUsing = Users();
    });
    EXPECT_EQ(0u, Open(&handle_));
  }
  EXPECT_FALSE(wasHeldAtReading);
  EXPECT_TRUE(wasHeldAtUsing);
  EXPECT_EQ(1, usersAtUsing);
  EXPECT_EQ(2, Users());
  EXPECT_EQ(0u, kind_.close(&handle_));
}

TEST_P(SyncNamedSet, IsOpenedWithTenCallsToTheSystem) {
  const Calls expected = {{"pthread_sigmask", 2}, {"open64", 1}, {"read", 1},     {"fstat64", 1},
                          {"semctl", 1},          {"close", 1},  {"semop", 3},  // lock, use, lock
                          {"lstat64", 0},         {"flock", 0},  {"futimens", 0}, {"semtimedop", 0}};
  EXPECT_EQ(expected, CallsOf(expected, [&] { EXPECT_EQ(0u, Open(&handle_)); }));
  EXPECT_EQ(0u, kind_.close(&handle_));
}

TEST_P(SyncNamedSet, IsClosedWithSevenCallsToTheSystem) {
  ASSERT_EQ(0u, Open(&handle_));
  const Calls expected = {{"pthread_sigmask", 2}, {"lstat64", 1}, {"semop", 4},  // lock, use, last use, lock
                          {"open64", 0},          {"read", 0},    {"fstat64", 0},  {"semctl", 0},
                          {"close", 0},           {"flock", 0},   {"futimens", 0}, {"semtimedop", 0}};
  EXPECT_EQ(expected, CallsOf(expected, [&] { EXPECT_EQ(0u, kind_.close(&handle_)); }));
  EXPECT_EQ(1, Users());
}

TEST_P(SyncNamedSet, IsClosedUnreadByItsMakerToo) {
  ASSERT_EQ(0u, Open(&handle_));
  Fault reads("read", INT_MAX, EIO);
  EXPECT_EQ(0u, kind_.close(&created_));
  EXPECT_EQ(0, reads.Calls());
  EXPECT_EQ(0u, kind_.close(&handle_));
}

TEST_P(SyncNamedSet, IsLookedForAgainWhateverTheFirstLookRanInto) {
  struct Refusal {
    const char* function;
    int nth;
    int number;
  };
  constexpr Refusal kRefusals[] = {{"open64", 1, EMFILE}, {"read", 1, EIO},  {"fstat64", 1, EIO},
                                   {"semctl", 1, EIDRM},  {"close", 1, EIO}, {"semop", 2, EAGAIN},
                                   {"semop", 2, EIDRM}};
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(refusal.function);
    opltest::ForgetFailure();
    {
      Fault fault(refusal.function, refusal.nth, refusal.number);
      EXPECT_EQ(0u, Open(&handle_));
      EXPECT_TRUE(fault.Fired());
    }
    EXPECT_EQ(Failure(0, "none"), LastFailure());
    EXPECT_EQ(2, Users());
    EXPECT_EQ(0u, kind_.close(&handle_));
    EXPECT_EQ(1, Users());
  }
}

TEST_P(SyncNamedSet, IsWhatHasTakenTheNameWhileTheOpenerWaited) {
  int other = -1;
  WhileItWaits(
      Nothing,
      [&] {
        EXPECT_EQ(0u, Open(&handle_));
        EXPECT_EQ(SetNamedBy(file_), SetOf(handle_));
        // The last user of what has taken the name.
        EXPECT_EQ(0u, kind_.close(&handle_));
      },
      [&] { other = ReplaceFile(); });
  EXPECT_FALSE(opltest::SetExists(other));
  EXPECT_EQ(1, Users());
  opltest::WriteFile(file_, BytesOf(id_));
}

TEST_P(SyncNamedSet, IsMissingWhenTheFileVanishedWhileTheOpenerWaited) {
  WhileItWaits(
      Nothing, [&] { EXPECT_EQ(kind_.missing, Open(&handle_)); },
      [&] { ASSERT_EQ(0, ::rename(file_.c_str(), (file_ + ".away").c_str())); });
  EXPECT_EQ(1, Users());
  ASSERT_EQ(0, ::rename((file_ + ".away").c_str(), file_.c_str()));
}

TEST_P(SyncNamedSet, IsFoundWhenItWasMadeWhileTheOpenerWaited) {
  ASSERT_EQ(0, ::rename(file_.c_str(), (file_ + ".away").c_str()));
  WhileItWaits(
      Nothing,
      [&] {
        EXPECT_EQ(0u, Open(&handle_));
        EXPECT_EQ(0u, kind_.close(&handle_));
      },
      [&] { ASSERT_EQ(0, ::rename((file_ + ".away").c_str(), file_.c_str())); });
  EXPECT_EQ(1, Users());
}

TEST_P(SyncNamedSet, IsMissingWhenItWasRemovedAfterItWasRead) {
  {
    Fault lock("semop", 1, [&] { opltest::RemoveSet(id_); });
    EXPECT_EQ(kind_.missing, Open(&handle_));
  }
  EXPECT_EQ(Failure(0x05120B, "OPL_PrivateSemIdGet: System semaphore " + std::to_string(id_) +
                                  " does not exists (file " + file_ + ")"),
            LastFailure());
  EXPECT_TRUE(opltest::ObjectFiles().empty());
  (void)kind_.close(&created_);
  created_ = nullptr;
}

TEST_P(SyncNamedSet, IsTheNewOneWhenItWasMadeAnewAfterItWasRead) {
  int other = -1;
  {
    Fault lock("semop", 1, [&] {
      opltest::RemoveSet(id_);
      other = ReplaceFile();
    });
    EXPECT_EQ(0u, Open(&handle_));
  }
  EXPECT_EQ(other, SetOf(handle_));
  EXPECT_EQ(31999, ValueOf(other, kind_.useCount));
  EXPECT_EQ(0u, kind_.close(&handle_));
  EXPECT_FALSE(opltest::SetExists(other));
  (void)kind_.close(&created_);
  created_ = nullptr;
}

TEST_P(SyncNamedSet, IsNotTheHandlesWhenTheFileWasWrittenSince) {
  ASSERT_EQ(0u, Open(&handle_));
  const int other = opltest::MakeSet(kind_.values);
  opltest::WriteFile(file_, BytesOf(other));
  opltest::ForgetFailure();
  (void)kind_.close(&handle_);
  EXPECT_EQ(Failure(kMismatch, "Handle data does not match the Semaphore ID for file " + file_),
            LastFailure());
  EXPECT_EQ(2, Users());
  EXPECT_EQ(kind_.values, opltest::ValuesOf(other));
  opltest::RemoveSet(other);
  opltest::WriteFile(file_, BytesOf(id_));
  opltest::SetValue(id_, kind_.useCount, 31999);
}

TEST_P(SyncNamedSet, IsNotTheHandlesWhenTheNameWasTakenSince) {
  ASSERT_EQ(0u, Open(&handle_));
  const int other = ReplaceFile();
  opltest::ForgetFailure();
  (void)kind_.close(&handle_);
  EXPECT_EQ(Failure(kMismatch, "Handle data does not match the Semaphore ID for file " + file_),
            LastFailure());
  EXPECT_EQ(2, Users());
  EXPECT_EQ(kind_.values, opltest::ValuesOf(other));
  opltest::RemoveSet(other);
  opltest::WriteFile(file_, BytesOf(id_));
  opltest::SetValue(id_, kind_.useCount, 31999);
}

TEST_P(SyncNamedSet, IsNotTheHandlesWhenTheNameWasTakenWhileItsCloserWaited) {
  int other = -1;
  WhileItWaits([&] { EXPECT_EQ(0u, Open(&handle_)); },
               [&] {
                 opltest::ForgetFailure();
                 (void)kind_.close(&handle_);
                 EXPECT_EQ(kMismatch, OPL_ErrCodeGet(0));
               },
               [&] { other = ReplaceFile(); });
  EXPECT_EQ(kind_.values, opltest::ValuesOf(other));
  opltest::RemoveSet(other);
  opltest::WriteFile(file_, BytesOf(id_));
}

TEST_P(SyncNamedSet, IsDatedTo2036AgainByItsCloser) {
  ASSERT_EQ(0u, Open(&handle_));
  DateToThePresent(file_);
  EXPECT_EQ(0u, kind_.close(&handle_));
  EXPECT_TRUE(opltest::IsDatedTo2036(file_));
  EXPECT_EQ(1, Users());
}

class SyncNamedSetForAllUsers : public ::testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(Of, SyncNamedSetForAllUsers, ::testing::ValuesIn(kKinds),
                         [](const ::testing::TestParamInfo<Kind>& test) { return test.param.name; });

// Nor need the file be read again for times that this user cannot move.
TEST_P(SyncNamedSetForAllUsers, IsReadOnceByAUserWhoMayNotMoveTheTimes) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root becomes another user";
  opltest::LetOtherUsersIn();
  const Kind& kind = GetParam();
  Child maker([&](Steps& steps) {
    void* handle = nullptr;
    ASSERT_EQ(0u, OPL_InitBegin(0));
    EXPECT_EQ(0u, kind.create(&handle, "q", kind.allUsers));
    DateToThePresent(kind.file("q", "all"));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0u, kind.close(&handle));
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  maker.Await();
  Child other([&](Steps&) {
    void* handle = nullptr;
    opltest::BecomeOtherUser();
    ASSERT_EQ(0, ::setenv("QVOPL_TEST_INSTANCE", "OTHER", 1));
    ASSERT_EQ(0u, OPL_InitBegin(0));
    {
      Fault reads("read", INT_MAX, EIO);
      EXPECT_EQ(0u, kind.open(&handle, "q", kind.allUsers));
      EXPECT_EQ(0u, kind.close(&handle));
      EXPECT_EQ(1, reads.Calls());
    }
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  other.ExpectSuccess();
  maker.Go();
  maker.ExpectSuccess();
}

}  // namespace
