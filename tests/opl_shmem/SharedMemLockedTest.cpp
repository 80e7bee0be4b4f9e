// Blocks with a read-write lock: how the flags reach the two objects, whom the lock excludes, and what is
// undone where one of the two is refused.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Sync.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"

namespace {

using opltest::Block;
using opltest::BlockFile;
using opltest::Child;
using opltest::CountedMemory;
using opltest::FailingMemory;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::IdIn;
using opltest::LastFailure;
using opltest::SegmentView;
using opltest::Steps;

constexpr uint32_t kPrivate = OPL_SHAREDMEM_PRIVATE;

std::string LockFile(const std::string& name, const std::string& scope = opltest::InstanceString()) {
  return opltest::IpcDirectory() + "/" + name + ".rwlock." + scope + opltest::kVersion;
}

struct Locked {
  OPL_SharedMemLocked* handle = nullptr;

  OPL_Result Create(const std::string& name, uint32_t permission = OPL_SHAREDMEM_PRIVATE,
                    uint32_t size = 64) {
    return OPL_SharedMemLockedCreate(&handle, 0, name.c_str(), size, permission);
  }
  OPL_Result Open(const std::string& name, uint32_t permission = OPL_SHAREDMEM_PRIVATE) {
    return OPL_SharedMemLockedOpen(&handle, 0, name.c_str(), permission);
  }
  uint32_t* Get(uint32_t flag = OPL_SHAREDMEM_EXCLUSIVE) {
    void* address = nullptr;
    EXPECT_EQ(0u, OPL_SharedMemLockedGet(handle, flag, &address));
    return static_cast<uint32_t*>(address);
  }
  OPL_Result Release() { return OPL_SharedMemLockedRelease(handle); }
  OPL_Result Close() { return OPL_SharedMemLockedClose(&handle); }
};

// Waits until a thread sleeps on one of the lock's semaphores.
void AwaitWaiterOn(const std::string& lockFile) {
  const int id = IdIn(lockFile);
  const int count = static_cast<int>(opltest::ValuesOf(id).size());
  ASSERT_GT(count, 0);
  for (;; (void)::sched_yield())
    for (int i = 0; i < count; ++i)
      if (::semctl(id, i, GETNCNT) > 0 || ::semctl(id, i, GETZCNT) > 0) return;
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status.st_mode;
}

class SharedMemLocked : public opltest::Instance {
 protected:
  // Runs the body in a process that has begun the library and ends it.
  static void InAnotherProcess(const std::function<void()>& body) {
    Child child([&](Steps&) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      body();
      EXPECT_EQ(0u, OPL_InitEnd(0));
    });
    child.ExpectSuccess();
  }
};

class SharedMemLockedCreate : public SharedMemLocked {};
class SharedMemLockedOpen : public SharedMemLocked {};
class SharedMemLockedGet : public SharedMemLocked {};
class SharedMemLockedClose : public SharedMemLocked {};

TEST_F(SharedMemLockedCreate, MakesABlockAndALockOfTheName) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  const std::string suffix = opltest::InstanceString() + opltest::kVersion;
  EXPECT_EQ((std::vector<std::string>{"data.mem." + suffix, "data.rwlock." + suffix}),
            opltest::ObjectFiles());
  EXPECT_EQ(72u, opltest::SizeOfSegment(IdIn(BlockFile("data"))));
  EXPECT_EQ(0u, locked.Close());
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
}

struct Access {
  uint32_t permission;
  mode_t mode;
  const char* scope;  // null for the instance's
};

class SharedMemLockedAccess : public SharedMemLocked, public ::testing::WithParamInterface<Access> {};

TEST_P(SharedMemLockedAccess, IsPassedOnToBothObjects) {
  const auto& [permission, mode, scopeText] = GetParam();
  const std::string scope = scopeText != nullptr ? scopeText : opltest::InstanceString();
  const mode_t mask = ::umask(0077);
  Locked locked;
  const OPL_Result rc = locked.Create("data", permission);
  (void)::umask(mask);
  ASSERT_EQ(0u, rc);
  EXPECT_EQ(S_IFREG | mode, ModeOf(BlockFile("data", scope)));
  EXPECT_EQ(S_IFREG | mode, ModeOf(LockFile("data", scope)));
  EXPECT_EQ(mode, opltest::PermissionsOfSegment(IdIn(BlockFile("data", scope))).mode & 0777u);
  EXPECT_EQ(mode, opltest::PermissionsOfSet(IdIn(LockFile("data", scope))).mode & 0777u);
  const uint32_t opening = permission;
  InAnotherProcess([&] {
    Locked second;
    EXPECT_EQ(0u, second.Open("data", opening));
    EXPECT_EQ(0u, second.Close());
  });
  EXPECT_EQ(0u, locked.Close());
}

INSTANTIATE_TEST_SUITE_P(Each, SharedMemLockedAccess,
                         ::testing::Values(Access{0x08, 0600, nullptr}, Access{0x10, 0666, "all"},
                                           Access{0x18, 0600, nullptr}, Access{0x190, 0666, "all"},
                                           Access{0x188, 0600, nullptr}),
                         [](const auto& test) { return "Flags" + std::to_string(test.param.permission); });

TEST_F(SharedMemLockedCreate, FillsTheBlockWithZerosWhenAskedTo) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data", kPrivate | OPL_SHAREDMEM_LOCKED_ZERO, 4096));
  EXPECT_EQ(std::string(4096, '\0'), SegmentView(IdIn(BlockFile("data"))).Text(8, 4096));
  EXPECT_EQ(0u, locked.Close());
}

struct Refused {
  const char* what;
  const char* name;
  uint32_t mode;
  uint32_t permission;
  uint32_t code;
  const char* createText;
  const char* openText;
};

class SharedMemLockedRefuses : public SharedMemLocked, public ::testing::WithParamInterface<Refused> {};

TEST_P(SharedMemLockedRefuses, WrongArguments) {
  const Refused& refused = GetParam();
  const CountedMemory memory;
  const Footprint before = Footprint::Now();
  OPL_SharedMemLocked* handle = nullptr;
  EXPECT_EQ(refused.code,
            OPL_SharedMemLockedCreate(&handle, refused.mode, refused.name, 64, refused.permission));
  EXPECT_EQ(Failure(refused.code, std::string("OPL_SharedMemLockedCreate: ") + refused.createText),
            LastFailure());
  EXPECT_EQ(refused.code, OPL_SharedMemLockedOpen(&handle, refused.mode, refused.name, refused.permission));
  EXPECT_EQ(Failure(refused.code, std::string("OPL_SharedMemLockedOpen: ") + refused.openText),
            LastFailure());
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(0, memory.Living());
}

// The later rows are wrong in several ways: the first check in order answers.
INSTANTIATE_TEST_SUITE_P(
    Each, SharedMemLockedRefuses,
    ::testing::Values(
        Refused{"NullName", nullptr, 0, 0x08, 0x050120, "Name is NULL.", "Name is NULL."},
        Refused{"NoPermission", "data", 0, 0x1A7, 0x050117, "Permission not specified.",
                "Permission not specified."},
        Refused{"Mode", "data", 1, 0x08, 0x05011C, "Invalid mode.", "Invalid mode."},
        Refused{"TwelveCharacters", "twelve chars", 0, 0x08, 0x050102, "Name 'twelve chars' too long.",
                "Name 'twelve chars' too long"},
        Refused{"NameBeforePermission", nullptr, 1, 0, 0x050120, "Name is NULL.", "Name is NULL."},
        Refused{"PermissionBeforeMode", "twelve chars", 1, 0, 0x050117, "Permission not specified.",
                "Permission not specified."},
        Refused{"ModeBeforeLength", "twelve chars", 1, 0x10, 0x05011C, "Invalid mode.", "Invalid mode."}),
    [](const auto& test) { return std::string(test.param.what); });

TEST_F(SharedMemLockedCreate, AcceptsANameOfElevenCharactersAndAnEmptyOne) {
  for (const char* name : {"elevenchars", ""}) {
    Locked locked;
    ASSERT_EQ(0u, locked.Create(name));
    Child other([name](Steps&) {
      ASSERT_EQ(0u, OPL_InitBegin(0));
      Locked opened;
      EXPECT_EQ(0u, opened.Open(name));
      EXPECT_EQ(0u, opened.Close());
      EXPECT_EQ(0u, OPL_InitEnd(0));
    });
    other.ExpectSuccess();
    EXPECT_EQ(0u, locked.Close());
  }
}

TEST_F(SharedMemLockedCreate, LeavesAnExistingLockAndItsBlockAsTheyAre) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  const Footprint before = Footprint::Now();
  const opltest::Values values = opltest::ValuesOf(IdIn(LockFile("data")));
  Locked second;
  const CountedMemory memory;
  EXPECT_EQ(0x05010Au, second.Create("data"));
  EXPECT_EQ(nullptr, second.handle);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(values, opltest::ValuesOf(IdIn(LockFile("data"))));
  EXPECT_EQ(1u, opltest::UseCountOf(IdIn(BlockFile("data"))));
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedCreate, RemovesItsLockWhenTheBlockExists) {
  Block block;
  ASSERT_EQ(0u, block.Create("data"));
  const Footprint before = Footprint::Now();
  Locked locked;
  EXPECT_EQ(0x051208u, locked.Create("data"));
  EXPECT_EQ(Failure(0x051208, "OPL_PrivateShMemCreate: File " + BlockFile("data") + " already exists"),
            LastFailure());
  EXPECT_EQ(nullptr, locked.handle);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemLockedCreate, LeavesNothingBehindWhicheverCallFails) {
  const Footprint before = Footprint::Now();
  for (const char* call : {"open64", "fchmod", "semget", "semctl", "shmget", "write", "shmat", "link"}) {
    for (const int nth : {1, 2}) {
      SCOPED_TRACE(testing::Message() << call << " " << nth);
      const CountedMemory memory;
      Locked locked;
      OPL_Result rc = 0;
      bool fired = false;
      {
        const Fault fault(call, nth, EIO);
        rc = locked.Create("data");
        fired = fault.Fired();
      }
      if (rc == 0) {
        EXPECT_EQ(0u, locked.Close());
      } else {
        EXPECT_TRUE(fired);
        EXPECT_EQ(static_cast<uint32_t>(EIO), LastFailure().code);
      }
      EXPECT_EQ(nullptr, locked.handle);
      EXPECT_EQ(0, memory.Living());
      EXPECT_EQ(before, Footprint::Now());
    }
  }
}

TEST_F(SharedMemLockedCreate, TellsThatThereIsNoMemory) {
  const Footprint before = Footprint::Now();
  const FailingMemory memory(1);
  Locked locked;
  EXPECT_EQ(0x050103u, locked.Create("data"));
  EXPECT_EQ(Failure(ENOMEM, "OPL_SharedMemLockedCreate: malloc error"), LastFailure());
  EXPECT_EQ(nullptr, locked.handle);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemLockedCreate, LeavesNothingBehindWhicheverAllocationFails) {
  const Footprint before = Footprint::Now();
  bool fired = true;
  for (int nth = 1; fired; ++nth) {
    Locked locked;
    OPL_Result rc = 0;
    {
      const FailingMemory memory(nth);
      rc = locked.Create("data");
      fired = memory.Fired();
    }
    EXPECT_EQ(fired, rc != 0) << nth;
    if (rc == 0) {
      EXPECT_EQ(0u, locked.Close());
    }
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST_F(SharedMemLockedOpen, TellsThatThereIsNoSuchLock) {
  const Footprint before = Footprint::Now();
  const CountedMemory memory;
  Locked locked;
  EXPECT_EQ(0x050101u, locked.Open("data"));
  EXPECT_EQ(nullptr, locked.handle);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemLockedOpen, DoesNotOpenABlockWithoutALock) {
  Block block;
  ASSERT_EQ(0u, block.Create("data"));
  InAnotherProcess([] {
    Locked locked;
    EXPECT_EQ(0x050101u, locked.Open("data"));
  });
  EXPECT_EQ(1u, opltest::UseCountOf(IdIn(BlockFile("data"))));
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemLockedOpen, GivesTheLockBackWhenThereIsNoBlock) {
  OPL_SyncRWLock* lock = nullptr;
  ASSERT_EQ(0u, OPL_SyncRWLockCreate(&lock, 0, "data", OPL_SYNC_RWLOCK_PRIVATE));
  const opltest::Values before = opltest::ValuesOf(IdIn(LockFile("data")));
  InAnotherProcess([&] {
    Locked locked;
    EXPECT_EQ(0x051209u, locked.Open("data"));
    EXPECT_EQ(Failure(0x051209, "OPL_PrivateShMemOpen: IPC file (" + BlockFile("data") +
                                    ") not found. Sharedmem do not exist"),
              LastFailure());
    EXPECT_EQ(nullptr, locked.handle);
    EXPECT_EQ(before, opltest::ValuesOf(IdIn(LockFile("data"))));
  });
  EXPECT_EQ(0u, OPL_SyncRWLockClose(&lock));
}

TEST_F(SharedMemLockedOpen, TellsThatThereIsNoMemory) {
  const FailingMemory memory(1);
  Locked locked;
  EXPECT_EQ(0x050103u, locked.Open("data"));
  EXPECT_EQ(Failure(ENOMEM, "OPL_SharedMemLockedOpen: malloc error"), LastFailure());
}

TEST_F(SharedMemLockedOpen, IgnoresZeroFill) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  *locked.Get() = 4711;
  EXPECT_EQ(0u, locked.Release());
  InAnotherProcess([] {
    Locked second;
    ASSERT_EQ(0u, second.Open("data", kPrivate | OPL_SHAREDMEM_LOCKED_ZERO));
    EXPECT_EQ(4711u, *second.Get());
    EXPECT_EQ(0u, second.Release());
    EXPECT_EQ(0u, second.Close());
  });
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, GivesTheMemoryBehindTheHeader) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  for (const uint32_t flag : {1u, 2u}) {
    void* address = nullptr;
    ASSERT_EQ(0u, OPL_SharedMemLockedGet(locked.handle, flag, &address));
    std::memcpy(address, "first bytes", 11);
    EXPECT_EQ("first bytes", SegmentView(IdIn(BlockFile("data"))).Text(8, 11));
    EXPECT_EQ(0u, locked.Release());
  }
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, RefusesOtherFlagsAndLocksNothing) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  for (const uint32_t flag : {0u, 3u, 0xFFFFFFFFu}) {
    void* address = this;
    EXPECT_EQ(0x05011Fu, OPL_SharedMemLockedGet(locked.handle, flag, &address));
    EXPECT_EQ(Failure(0x05011F, "OPL_SharedMemLockedGet: invalid flag."), LastFailure());
    EXPECT_EQ(this, address);
    EXPECT_EQ(0x050018u, locked.Release()) << "something is locked";
  }
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, LeavesTheAddressAloneWhenTheLockIsRefused) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  void* address = this;
  {
    const Fault fault("semop", 1, EIO);
    EXPECT_NE(0u, OPL_SharedMemLockedGet(locked.handle, OPL_SHAREDMEM_EXCLUSIVE, &address));
  }
  EXPECT_EQ(static_cast<uint32_t>(EIO), LastFailure().code);
  EXPECT_EQ(this, address);
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, RefusesNullArguments) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  void* address = this;
  EXPECT_EQ(0x050120u, OPL_SharedMemLockedGet(nullptr, 1, &address));
  EXPECT_EQ(0x050120u, OPL_SharedMemLockedGet(locked.handle, 1, nullptr));
  EXPECT_EQ(Failure(0x050120, "OPL_SharedMemLockedGet: handle or address is NULL."), LastFailure());
  EXPECT_EQ(0x050046u, OPL_SharedMemLockedRelease(nullptr));
  EXPECT_EQ(this, address);
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, LetsReadersInTogether) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  (void)locked.Get(OPL_SHAREDMEM_SHARED);
  InAnotherProcess([] {
    Locked second;
    ASSERT_EQ(0u, second.Open("data"));
    (void)second.Get(OPL_SHAREDMEM_SHARED);
    EXPECT_EQ(0u, second.Release());
    EXPECT_EQ(0u, second.Close());
  });
  EXPECT_EQ(0u, locked.Release());
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, MakesAWriterWaitForAReaderAndAReaderForAWriter) {
  for (const uint32_t held : {OPL_SHAREDMEM_SHARED, OPL_SHAREDMEM_EXCLUSIVE}) {
    Locked locked;
    ASSERT_EQ(0u, locked.Create("data"));
    uint32_t* const words = locked.Get(held);
    Child other([held](Steps& steps) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      Locked second;
      ASSERT_EQ(0u, second.Open("data"));
      steps.Reach();
      EXPECT_EQ(1u,
                *second.Get(held == OPL_SHAREDMEM_SHARED ? OPL_SHAREDMEM_EXCLUSIVE : OPL_SHAREDMEM_SHARED));
      EXPECT_EQ(0u, second.Release());
      EXPECT_EQ(0u, second.Close());
      EXPECT_EQ(0u, OPL_InitEnd(0));
    });
    other.Await();
    AwaitWaiterOn(LockFile("data"));
    *words = 1;
    EXPECT_EQ(0u, locked.Release());
    other.ExpectSuccess();
    EXPECT_EQ(0u, locked.Close());
  }
}

// The first word is raised by writers, in two steps; the second follows it under the same lock.
TEST_F(SharedMemLockedGet, ExcludesTheProcessesFromEachOther) {
  constexpr uint32_t kRounds = 200;
  constexpr uint32_t kProcesses = 4;
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data", kPrivate | OPL_SHAREDMEM_LOCKED_ZERO));
  std::vector<std::unique_ptr<Child>> children;
  for (uint32_t i = 0; i < kProcesses; ++i)
    children.push_back(std::make_unique<Child>([](Steps& steps) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      Locked own;
      ASSERT_EQ(0u, own.Open("data"));
      steps.Reach();
      steps.WaitForGo();
      for (uint32_t round = 0; round < kRounds; ++round) {
        volatile uint32_t* const words = own.Get(OPL_SHAREDMEM_EXCLUSIVE);
        const uint32_t count = words[0];
        (void)::sched_yield();
        words[0] = count + 1;
        words[1] = count + 1;
        ASSERT_EQ(0u, own.Release());
        const volatile uint32_t* const seen = own.Get(OPL_SHAREDMEM_SHARED);
        EXPECT_EQ(seen[0], seen[1]);
        ASSERT_EQ(0u, own.Release());
      }
      EXPECT_EQ(0u, own.Close());
      EXPECT_EQ(0u, OPL_InitEnd(0));
    }));
  for (auto& child : children) child->Await();
  for (auto& child : children) child->Go();
  for (auto& child : children) child->ExpectSuccess();
  EXPECT_EQ(kRounds * kProcesses, *locked.Get());
  EXPECT_EQ(0u, locked.Release());
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedGet, PassesTheLockOnFromAKilledHolder) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data", kPrivate | OPL_SHAREDMEM_LOCKED_ZERO));
  Child holder([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Locked own;
    ASSERT_EQ(0u, own.Open("data"));
    *own.Get() = 1;
    steps.Reach();
    steps.WaitForGo();
  });
  holder.Await();
  Child waiter([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Locked own;
    ASSERT_EQ(0u, own.Open("data"));
    steps.Reach();
    EXPECT_EQ(1u, (*own.Get())++);
    EXPECT_EQ(0u, own.Release());
    EXPECT_EQ(0u, own.Close());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  waiter.Await();
  AwaitWaiterOn(LockFile("data"));
  holder.Kill();
  holder.ExpectKilledBy(SIGKILL);
  waiter.ExpectSuccess();
  EXPECT_EQ(2u, *locked.Get());
  EXPECT_EQ(0u, locked.Release());
  SegmentView(IdIn(BlockFile("data"))).SetUseCount(1);  // the killed holder's share
  EXPECT_EQ(0u, locked.Close());
}

// The last close removes the lock, whose use count knows undo, but not the block, whose count does not.
TEST_F(SharedMemLockedClose, LeavesAKilledHoldersBlockWithoutItsLock) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  Child holder([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Locked own;
    ASSERT_EQ(0u, own.Open("data"));
    steps.Reach();
    steps.WaitForGo();
  });
  holder.Await();
  holder.Kill();
  holder.ExpectKilledBy(SIGKILL);
  EXPECT_EQ(0u, locked.Close());
  EXPECT_EQ(static_cast<uint32_t>(OPL_PRIVATE_E_SHMEM_EXISTS), locked.Create("data"));
  EXPECT_EQ(static_cast<uint32_t>(OPL_SHAREDMEM_E_MISSING), locked.Open("data"));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "data.*"));
  EXPECT_EQ(0u, locked.Create("data"));
  EXPECT_EQ(0u, locked.Close());
}

void Ignore(int) {}

TEST_F(SharedMemLockedGet, IsEndedByASignalUnlessTheBlockRestarts) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  for (const uint32_t restart : {0u, static_cast<uint32_t>(OPL_SHAREDMEM_LOCKED_RESTART)}) {
    uint32_t* const words = locked.Get();
    *words = 0;
    Child other([restart](Steps& steps) {
      struct sigaction action {};
      action.sa_handler = Ignore;
      ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
      EXPECT_EQ(0u, OPL_InitBegin(0));
      Locked second;
      ASSERT_EQ(0u, second.Open("data", OPL_SHAREDMEM_PRIVATE | restart));
      steps.Reach();
      void* address = nullptr;
      const OPL_Result rc = OPL_SharedMemLockedGet(second.handle, OPL_SHAREDMEM_EXCLUSIVE, &address);
      if (restart == 0) {
        EXPECT_EQ(0x050042u, rc);
        EXPECT_EQ(nullptr, address);
      } else {
        EXPECT_EQ(0u, rc);
        EXPECT_EQ(1u, *static_cast<uint32_t*>(address));
        EXPECT_EQ(0u, second.Release());
      }
      EXPECT_EQ(0u, second.Close());
      EXPECT_EQ(0u, OPL_InitEnd(0));
    });
    other.Await();
    AwaitWaiterOn(LockFile("data"));
    other.Kill(SIGUSR1);
    if (restart == 0) {
      other.ExpectSuccess();
      EXPECT_EQ(0u, locked.Release());
    } else {
      *words = 1;
      EXPECT_EQ(0u, locked.Release());
      other.ExpectSuccess();
    }
  }
  EXPECT_EQ(0u, locked.Close());
}

TEST_F(SharedMemLockedClose, LeavesBothObjectsToTheOthers) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  Child other([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Locked second;
    ASSERT_EQ(0u, second.Open("data"));
    steps.Reach();
    steps.WaitForGo();
    *second.Get() = 1;
    EXPECT_EQ(0u, second.Release());
    EXPECT_EQ(0u, second.Close());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  other.Await();
  EXPECT_EQ(0u, locked.Close());
  EXPECT_EQ(2u, opltest::ObjectFiles().size());
  other.Go();
  other.ExpectSuccess();
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
}

TEST_F(SharedMemLockedClose, ReturnsTheBlocksCode) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  const int id = IdIn(BlockFile("data"));
  ASSERT_EQ(0, ::unlink(BlockFile("data").c_str()));
  EXPECT_EQ(0x051209u, locked.Close());
  EXPECT_EQ(nullptr, locked.handle);
  EXPECT_NE(0, ::access(LockFile("data").c_str(), F_OK));
  opltest::RemoveSegment(id);
}

TEST_F(SharedMemLockedClose, ReplacesTheLocksCodeByTheBlocks) {
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  const int set = IdIn(LockFile("data"));
  ASSERT_EQ(0, ::unlink(LockFile("data").c_str()));
  opltest::RemoveSet(set);
  EXPECT_EQ(0u, locked.Close());
  EXPECT_EQ(nullptr, locked.handle);
}

TEST_F(SharedMemLockedClose, ReleasesTheHandles) {
  const CountedMemory memory;
  Locked locked;
  ASSERT_EQ(0u, locked.Create("data"));
  EXPECT_EQ(0u, locked.Close());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SharedMemLockedClose, RefusesANullHandle) {
  OPL_SharedMemLocked* none = nullptr;
  EXPECT_EQ(0x050120u, OPL_SharedMemLockedClose(&none));
  EXPECT_EQ(0x050120u, OPL_SharedMemLockedClose(nullptr));
  EXPECT_EQ(Failure(0x050120, "OPL_SharedMemLockedClose: handle is NULL."), LastFailure());
}

TEST(SharedMemLockedBeforeBegin, IsRefusedAndLeavesItsArgumentsAlone) {
  OPL_SharedMemLocked* const decoy = reinterpret_cast<OPL_SharedMemLocked*>(&errno);
  OPL_SharedMemLocked* handle = decoy;
  void* address = &handle;
  EXPECT_EQ(0x050203u, OPL_SharedMemLockedCreate(&handle, 0, "data", 64, OPL_SHAREDMEM_PRIVATE));
  EXPECT_EQ(0x050203u, OPL_SharedMemLockedOpen(&handle, 0, "data", OPL_SHAREDMEM_PRIVATE));
  EXPECT_EQ(0x050203u, OPL_SharedMemLockedGet(handle, 1, &address));
  EXPECT_EQ(0x050203u, OPL_SharedMemLockedRelease(handle));
  EXPECT_EQ(0x050203u, OPL_SharedMemLockedClose(&handle));
  EXPECT_EQ(decoy, handle);
  EXPECT_EQ(&handle, address);
}

}  // namespace
