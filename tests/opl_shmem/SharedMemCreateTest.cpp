// Making named blocks: names, sizes, modes and bytes, what is refused, and what is left when the system
// refuses.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"

namespace {

using opltest::Block;
using opltest::BlockFile;
using opltest::CountedMemory;
using opltest::FailingMemory;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::IdIn;
using opltest::kHeaderSize;
using opltest::LastFailure;
using opltest::SegmentView;
using opltest::UseCountOf;

class SharedMemCreate : public opltest::Instance {
 protected:
  // Expects a refusal that leaves nothing behind and no handle.
  void ExpectRefused(const std::string& name, uint32_t mode, uint32_t permission, uint32_t code,
                     const std::string& message) {
    const Footprint before = Footprint::Now();
    OPL_SharedMem* handle = reinterpret_cast<OPL_SharedMem*>(this);
    void* address = this;
    EXPECT_EQ(code, OPL_SharedMemCreate(&handle, mode, name.c_str(), &address, 64, permission));
    EXPECT_EQ(Failure(code, "OPL_SharedMemCreate: " + message), LastFailure());
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(this, address);
    EXPECT_EQ(before, Footprint::Now());
  }
};

TEST_F(SharedMemCreate, MakesASegmentEightBytesLongerThanAskedFor) {
  Block block;
  ASSERT_EQ(0u, block.Create("block", 64));
  EXPECT_EQ(72u, opltest::SizeOfSegment(IdIn(BlockFile("block"))));
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, BeginsTheSegmentWithAUseCountOfOne) {
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  const SegmentView view(IdIn(BlockFile("block")));
  EXPECT_EQ(std::string("\1\0\0\0\0\0\0\0", 8), view.Text(0, 8));
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, GivesTheMemoryBehindTheHeader) {
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  std::memcpy(block.address, "first bytes", 11);
  EXPECT_EQ("first bytes", SegmentView(IdIn(BlockFile("block"))).Text(kHeaderSize, 11));
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block.address) % 8);
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, LeavesTheReservedBytesAlone) {
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  SegmentView view(IdIn(BlockFile("block")));
  std::memcpy(view.bytes() + 4, "mine", 4);
  Block second;
  EXPECT_EQ(0x050110u, second.Open("block"));
  EXPECT_EQ(0u, block.Close());
  EXPECT_EQ("mine", view.Text(4, 4));
}

TEST_F(SharedMemCreate, FillsTheBlockWithZerosWhenAskedTo) {
  Block block;
  ASSERT_EQ(0u, block.Create("block", 4096, OPL_SHAREDMEM_PRIVATE | OPL_SHAREDMEM_ZERO));
  EXPECT_EQ(std::string("\1", 1) + std::string(4103, '\0'),
            SegmentView(IdIn(BlockFile("block"))).Text(0, 4104));
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, LeavesOneFileAndOneSegment) {
  Footprint expected = Footprint::Now();
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  const int id = IdIn(BlockFile("block"));
  EXPECT_EQ(opltest::BytesOf(id), opltest::ContentsOf(BlockFile("block")));
  EXPECT_EQ(1, opltest::AttachedTo(id));
  expected.items.insert("file " + BlockFile("block"));
  expected.items.insert("shm " + std::to_string(id));
  EXPECT_EQ(expected, Footprint::Now());
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, SetsTheFilesTimesInto2036) {
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  opltest::ExpectTimesIn2036(BlockFile("block"));
  EXPECT_EQ(0u, block.Close());
}

struct Access {
  uint32_t permission;
  mode_t mode;
  const char* scope;  // null for the instance's
};

class SharedMemCreateAccess : public SharedMemCreate, public ::testing::WithParamInterface<Access> {};

TEST_P(SharedMemCreateAccess, DecidesNameAndModesUnderAnyMask) {
  const Access& access = GetParam();
  const std::string file = access.scope != nullptr ? BlockFile("block", access.scope) : BlockFile("block");
  for (const mode_t mask : {0000, 0077, 0777}) {
    Block block;
    const mode_t before = ::umask(mask);
    const OPL_Result rc = block.Create("block", 64, access.permission);
    (void)::umask(before);
    ASSERT_EQ(0u, rc);
    struct stat status {};
    ASSERT_EQ(0, ::stat(file.c_str(), &status));
    EXPECT_EQ(S_IFREG | access.mode, status.st_mode);
    EXPECT_EQ(access.mode, opltest::PermissionsOfSegment(IdIn(file)).mode & 0777u);
    EXPECT_EQ(0u, block.Close());
  }
}

INSTANTIATE_TEST_SUITE_P(Each, SharedMemCreateAccess,
                         ::testing::Values(Access{0x08, 0600, nullptr}, Access{0x10, 0666, "all"},
                                           Access{0x18, 0600, nullptr}, Access{0x28, 0600, nullptr},
                                           Access{0x30, 0666, "all"}));

TEST_F(SharedMemCreate, AcceptsANameOfElevenCharacters) {
  Block block;
  ASSERT_EQ(0u, block.Create("elevenchars"));
  EXPECT_EQ(1u, UseCountOf(IdIn(BlockFile("elevenchars"))));
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, RefusesANameOfTwelveCharacters) {
  ExpectRefused("twelve chars", 0, OPL_SHAREDMEM_PRIVATE, 0x050102, "Name 'twelve chars' too long");
}

TEST_F(SharedMemCreate, RefusesANameOfFiveThousandCharacters) {
  const Footprint before = Footprint::Now();
  Block block;
  EXPECT_EQ(0x050102u, block.Create(std::string(5000, 'x')));
  EXPECT_EQ(0x050102u, LastFailure().code);
  EXPECT_TRUE(LastFailure().message.starts_with("OPL_SharedMemCreate: Name 'xxxxxxxx"));
  EXPECT_EQ(nullptr, block.handle);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemCreate, RefusesANullName) {
  Block block;
  EXPECT_EQ(0x050102u,
            OPL_SharedMemCreate(&block.handle, 0, nullptr, &block.address, 64, OPL_SHAREDMEM_PRIVATE));
  EXPECT_EQ(Failure(0x050102, "OPL_SharedMemCreate: Name is NULL"), LastFailure());
}

TEST_F(SharedMemCreate, RefusesANullHandleAddress) {
  void* address = nullptr;
  EXPECT_EQ(0x050102u, OPL_SharedMemCreate(nullptr, 0, "block", &address, 64, OPL_SHAREDMEM_PRIVATE));
  EXPECT_EQ(Failure(0x050102, "OPL_SharedMemCreate: handle is NULL"), LastFailure());
}

// The empty name marks the free entries of the process's table, so such a block is never seen there.
TEST_F(SharedMemCreate, AcceptsAnEmptyNameThatTheProcessDoesNotRemember) {
  Block block;
  ASSERT_EQ(0u, block.Create(""));
  Block second;
  ASSERT_EQ(0u, second.Open(""));
  EXPECT_EQ(2u, UseCountOf(IdIn(BlockFile(""))));
  EXPECT_EQ(0u, second.Close());
  EXPECT_EQ(0u, block.Close());
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
}

TEST_F(SharedMemCreate, RefusesAModeOtherThanZero) {
  ExpectRefused("block", 1, OPL_SHAREDMEM_PRIVATE, 0x05011C, "Invalid mode 1.");
  ExpectRefused("block", 0xFFFFFFFF, OPL_SHAREDMEM_PRIVATE, 0x05011C, "Invalid mode 4294967295.");
}

TEST_F(SharedMemCreate, RefusesToGoWithoutAPermission) {
  for (const uint32_t permission : {0u, 0x20u, 0xFFFFFFE7u})
    ExpectRefused("block", 0, permission, 0x050117, "Permission not specified.");
}

TEST_F(SharedMemCreate, ChecksTheNameBeforeTheModeAndTheModeBeforeThePermission) {
  ExpectRefused("twelve chars", 1, 0, 0x050102, "Name 'twelve chars' too long");
  ExpectRefused("block", 1, 0, 0x05011C, "Invalid mode 1.");
}

TEST(SharedMemCreateBeforeBegin, IsRefusedAndLeavesTheHandleAlone) {
  OPL_SharedMem* handle = reinterpret_cast<OPL_SharedMem*>(&handle);
  void* address = &address;
  EXPECT_EQ(0x050203u, OPL_SharedMemCreate(&handle, 0, "block", &address, 64, OPL_SHAREDMEM_PRIVATE));
  EXPECT_EQ(reinterpret_cast<OPL_SharedMem*>(&handle), handle);
  EXPECT_EQ(&address, address);
}

TEST_F(SharedMemCreate, AcceptsNoBytesAndOneByte) {
  for (const uint32_t size : {0u, 1u}) {
    Block block;
    ASSERT_EQ(0u, block.Create("block", size));
    EXPECT_EQ(size + kHeaderSize, opltest::SizeOfSegment(IdIn(BlockFile("block"))));
    EXPECT_EQ(0u, block.Close());
  }
}

// A 64-bit process has the room; a 32-bit one is refused by the system, at one step or the other.
TEST_F(SharedMemCreate, AcceptsTheLargestSizeWhereTheProcessHasRoom) {
  if (opltest::kAddressSanitizer) GTEST_SKIP() << "the sanitizer's address space";
  const Footprint before = Footprint::Now();
  Block block;
  const OPL_Result rc = block.Create("block", 0xFFFFFFF7);
  if (opltest::kWidth == 64) {
    ASSERT_EQ(0u, rc);
    EXPECT_EQ(0xFFFFFFFFu, opltest::SizeOfSegment(IdIn(BlockFile("block"))));
    static_cast<char*>(block.address)[0xFFFFFFF6] = 'x';
    EXPECT_EQ(0u, block.Close());
  } else {
    EXPECT_TRUE(rc == OPL_PRIVATE_E_SHMGET || rc == OPL_PRIVATE_E_SHM_ATTACH) << rc;
    EXPECT_EQ(nullptr, block.handle);
  }
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemCreate, RefusesSizesThatTheHeaderDoesNotFitBefore) {
  for (const uint32_t size : {0xFFFFFFF8u, 0xFFFFFFFFu}) {
    const Footprint before = Footprint::Now();
    Block block;
    EXPECT_EQ(0x05120Cu, block.Create("block", size));
    EXPECT_EQ(Failure(EINVAL, "OPL_PrivateShMemCreate: shmget error :22,Invalid argument. size:" +
                                  std::to_string(size) + " mode:0x180"),
              LastFailure());
    EXPECT_EQ(nullptr, block.handle);
    EXPECT_EQ(before, Footprint::Now());
  }
}

TEST_F(SharedMemCreate, PassesTheRefusalOfASizeThrough) {
  const Footprint before = Footprint::Now();
  Block block;
  {
    const Fault fault("shmget", 1, ENOSPC);
    EXPECT_EQ(0x05120Cu, block.Create("block", 1000, OPL_SHAREDMEM_ALL));
  }
  EXPECT_EQ(Failure(ENOSPC,
                    "OPL_PrivateShMemCreate: shmget error :28,No space left on device. size:1008 "
                    "mode:0x1b6"),
            LastFailure());
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemCreate, LeavesAnExistingBlockAsItWas) {
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  std::memcpy(block.address, "mine", 4);
  const Footprint before = Footprint::Now();
  Block second;
  EXPECT_EQ(0x051208u, second.Create("block"));
  EXPECT_EQ(Failure(0x051208, "OPL_PrivateShMemCreate: File " + BlockFile("block") + " already exists"),
            LastFailure());
  EXPECT_EQ(nullptr, second.handle);
  EXPECT_EQ(nullptr, second.address);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(1u, UseCountOf(IdIn(BlockFile("block"))));
  EXPECT_EQ(0, std::memcmp(block.address, "mine", 4));
  EXPECT_EQ(0x050110u, second.Open("block")) << "the table's entry is gone";
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, TellsBlocksOfOneNameApartByTheirScope) {
  Block own;
  Block all;
  ASSERT_EQ(0u, own.Create("block", 64, OPL_SHAREDMEM_PRIVATE));
  ASSERT_EQ(0u, all.Create("block", 64, OPL_SHAREDMEM_ALL));
  EXPECT_NE(IdIn(BlockFile("block")), IdIn(BlockFile("block", "all")));
  EXPECT_EQ(0u, own.Close());
  EXPECT_EQ(1u, UseCountOf(IdIn(BlockFile("block", "all"))));
  EXPECT_EQ(0u, all.Close());
}

TEST_F(SharedMemCreate, RefusesTheTwentyFirstBlockAndRemovesIt) {
  Block blocks[21];
  for (int i = 0; i < 20; ++i) ASSERT_EQ(0u, blocks[i].Create("block" + std::to_string(i)));
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0x050111u, blocks[20].Create("block20"));
  EXPECT_EQ(Failure(0x050111, "AddMemoryInTable: Too many entries in table."), LastFailure());
  EXPECT_EQ(nullptr, blocks[20].handle);
  EXPECT_EQ(before, Footprint::Now());

  EXPECT_EQ(0u, blocks[7].Close());
  EXPECT_EQ(0u, blocks[20].Create("block20")) << "a closed block leaves its place";
  for (int i = 0; i < 21; ++i) {
    if (i == 7) continue;
    EXPECT_EQ(0u, blocks[i].Close()) << i;
  }
}

TEST_F(SharedMemCreate, TellsThatTheHandleCannotBeAllocated) {
  const Footprint before = Footprint::Now();
  Block block;
  bool sawHandle = false;
  for (int nth = 1;; ++nth) {
    const FailingMemory memory(nth);
    const OPL_Result rc = block.Create("block");
    if (!memory.Fired()) {
      EXPECT_EQ(0u, rc);
      break;
    }
    EXPECT_NE(0u, rc);
    if (rc == 0x050103)
      sawHandle = LastFailure() == Failure(ENOMEM,
                                           "OPL_SharedMemCreate: memory allocation(handle) error :12, "
                                           "Cannot allocate memory");
    EXPECT_EQ(nullptr, block.handle);
    EXPECT_EQ(before, Footprint::Now());
  }
  EXPECT_TRUE(sawHandle);
  EXPECT_EQ(0u, block.Close());
}

TEST_F(SharedMemCreate, ReleasesEverythingThatItAllocated) {
  const CountedMemory memory;
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  EXPECT_EQ(1, memory.Living());
  Block second;
  EXPECT_EQ(0x051208u, second.Create("block"));
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(0u, block.Close());
  EXPECT_EQ(0, memory.Living());
}

struct Refusal {
  const char* call;
  uint32_t code;
  const char* message;  // up to "File "
};

class SharedMemCreateSteps : public SharedMemCreate, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SharedMemCreateSteps, LeaveNothingBehindWhenRefused) {
  const Refusal& refusal = GetParam();
  const Footprint before = Footprint::Now();
  Block block;
  {
    const Fault fault(refusal.call, 1, EIO);
    EXPECT_EQ(refusal.code, block.Create("block"));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(static_cast<uint32_t>(EIO), LastFailure().code);
  EXPECT_TRUE(LastFailure().message.starts_with(refusal.message)) << LastFailure();
  EXPECT_EQ(nullptr, block.handle);
  EXPECT_EQ(nullptr, block.address);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(0u, block.Create("block")) << "the lock or the table's place is lost";
  EXPECT_EQ(0u, block.Close());
}

INSTANTIATE_TEST_SUITE_P(
    Each, SharedMemCreateSteps,
    ::testing::Values(
        Refusal{"open64", 0x051203, "OPL_PrivateShMemCreate: open error :5,Input/output error\nFile "},
        Refusal{"fchmod", 0x051207, "OPL_PrivateShMemCreate: fchmod(384) error :5,Input/output error\nFile "},
        Refusal{"shmget", 0x05120C, "OPL_PrivateShMemCreate: shmget error :5,Input/output error. size:72 "},
        Refusal{"write", 0x051204, "OPL_PrivateShMemCreate: write error :5,Input/output error\nFile "},
        Refusal{"shmat", 0x05120F, "OPL_PrivateShMemCreate: shmat error :5,Input/output error"},
        Refusal{"close", 0x051206, "OPL_PrivateShMemCreate: close error :5,Input/output error\nFile "},
        Refusal{"link", 0x051203, "OPL_PrivateShMemCreate: open error :5,Input/output error\nFile "}),
    [](const auto& test) { return std::string(test.param.call); });

TEST_F(SharedMemCreate, PassesTheManagementLocksRefusalThrough) {
  const Footprint before = Footprint::Now();
  Block block;
  {
    const Fault fault("semop", 1, EIO);
    EXPECT_EQ(static_cast<uint32_t>(OPL_PRIVATE_E_SEMOP), block.Create("block"));
  }
  EXPECT_EQ(static_cast<uint32_t>(EIO), LastFailure().code);
  EXPECT_EQ(nullptr, block.handle);
  EXPECT_EQ(before, Footprint::Now());
}

// Which of the process's locks is the table's shows by the message alone.
TEST_F(SharedMemCreate, LeavesNothingBehindWhenATableLockIsRefused) {
  const Footprint before = Footprint::Now();
  bool sawTable = false;
  for (int nth = 1;; ++nth) {
    Block block;
    bool fired = false;
    OPL_Result rc = 0;
    {
      const Fault fault("pthread_mutex_lock", nth, EINVAL);
      rc = block.Create("block");
      fired = fault.Fired();
    }
    if (!fired) {
      EXPECT_EQ(0u, block.Close());
      break;
    }
    if (rc == 0x05003D && LastFailure().message == "LockThread: pthread_mutex_lock :22,Invalid argument") {
      sawTable = true;
      EXPECT_EQ(static_cast<uint32_t>(EINVAL), LastFailure().code);
      EXPECT_EQ(nullptr, block.handle);
    }
    if (rc == 0) {
      EXPECT_EQ(0u, block.Close());
    }
    EXPECT_EQ(before, Footprint::Now());
  }
  EXPECT_TRUE(sawTable);
}

// Unlocks, and says that it has not where the test wants it to.
int (*gUnlock)(pthread_mutex_t*);
int gUnlocksToRefusal = 0;
int UnlockAndRefuse(pthread_mutex_t* mutex) {
  (void)gUnlock(mutex);
  return --gUnlocksToRefusal == 0 ? EPERM : 0;
}

TEST_F(SharedMemCreate, LeavesNothingBehindWhenTheTablesUnlockIsRefused) {
  gUnlock = reinterpret_cast<decltype(gUnlock)>(::dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
  const Footprint before = Footprint::Now();
  bool sawTable = false;
  for (int nth = 1; !sawTable; ++nth) {
    ASSERT_LT(nth, 100);
    Block block;
    OPL_Result rc = 0;
    {
      gUnlocksToRefusal = nth;
      const opltest::Replacement unlock("pthread_mutex_unlock", &UnlockAndRefuse);
      rc = block.Create("block");
    }
    if (rc == 0) {
      EXPECT_EQ(0u, block.Close());
      continue;
    }
    sawTable = rc == 0x05003D && LastFailure() == Failure(EPERM,
                                                          "UnlockThread: pthread_mutex_unlock :1,Operation "
                                                          "not permitted");
    EXPECT_EQ(nullptr, block.handle);
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(0x051209u, block.Open("block")) << "the table remembers the block";
  }
}

TEST_F(SharedMemCreate, KeepsSignalsAwayAndGivesTheMaskBack) {
  sigset_t mask;
  sigset_t within;
  ::sigemptyset(&mask);
  ::sigaddset(&mask, SIGUSR2);
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, &mask, nullptr));
  Block block;
  {
    const Fault fault("shmget", 1, [&] { (void)::pthread_sigmask(SIG_SETMASK, nullptr, &within); });
    ASSERT_EQ(0u, block.Create("block"));
  }
  EXPECT_EQ(1, ::sigismember(&within, SIGUSR1));
  EXPECT_EQ(1, ::sigismember(&within, SIGTERM));
  for (const char* name : {"block", "twelve chars"}) {
    Block second;
    EXPECT_NE(0u, second.Create(name));
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &mask));
    EXPECT_EQ(0, ::sigismember(&mask, SIGUSR1));
    EXPECT_EQ(1, ::sigismember(&mask, SIGUSR2));
  }
  EXPECT_EQ(0u, block.Close());
}

// The link below refuses, so that of two makers only one has the name.
TEST_F(SharedMemCreate, LeavesTheBlockAloneThatAnotherMakerPublishedFirst) {
  const Footprint before = Footprint::Now();
  Block block;
  {
    const Fault fault("link", 1, [] { opltest::WriteFile(BlockFile("block"), "taken"); });
    EXPECT_EQ(0x051208u, block.Create("block"));
  }
  EXPECT_EQ("taken", opltest::ContentsOf(BlockFile("block")));
  EXPECT_EQ(0, ::unlink(BlockFile("block").c_str()));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemCreate, RefusesANameThatALinkOrADirectoryHas) {
  ASSERT_EQ(0, ::symlink("/nowhere", BlockFile("link").c_str()));
  ASSERT_EQ(0, ::mkdir(BlockFile("dir").c_str(), 0700));
  const Footprint before = Footprint::Now();
  Block block;
  EXPECT_EQ(0x051208u, block.Create("link"));
  EXPECT_EQ(0x051208u, block.Create("dir"));
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(0, ::unlink(BlockFile("link").c_str()));
  EXPECT_EQ(0, ::rmdir(BlockFile("dir").c_str()));
}

}  // namespace
