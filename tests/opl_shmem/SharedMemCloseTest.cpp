// Closing named blocks: the count, who removes what, and what happens to a block that was removed meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"

namespace {

using opltest::Block;
using opltest::BlockFile;
using opltest::Child;
using opltest::CountedMemory;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::IdIn;
using opltest::LastFailure;
using opltest::SegmentExists;
using opltest::SegmentView;
using opltest::Steps;
using opltest::UseCountOf;

class SharedMemClose : public opltest::Instance {
 protected:
  // Makes the block that the tests close.
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(0u, block_.Create("block"));
    id_ = IdIn(file_);
  }
  void RemoveAll() { EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*")); }

  const std::string file_ = BlockFile("block");
  Block block_;
  int id_ = -1;
};

TEST_F(SharedMemClose, OfTheLastHandleRemovesSegmentAndFile) {
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(nullptr, block_.handle);
  EXPECT_FALSE(SegmentExists(id_));
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
}

TEST_F(SharedMemClose, OfAnotherHandleLowersTheCountAndDetaches) {
  SegmentView view(id_);
  view.SetUseCount(2);
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(1u, view.UseCount());
  EXPECT_EQ(1, opltest::AttachedTo(id_)) << "the test's own";
  EXPECT_EQ(id_, IdIn(file_));
  RemoveAll();
}

TEST_F(SharedMemClose, SetsTheTimesOfAFileThatStaysInto2036) {
  SegmentView(id_).SetUseCount(2);
  const timespec longAgo[2] = {{86400 * 200, 0}, {86400 * 300, 0}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, file_.c_str(), longAgo, 0));
  EXPECT_EQ(0u, block_.Close());
  opltest::ExpectTimesIn2036(file_);
  RemoveAll();
}

TEST_F(SharedMemClose, LeavesTheBlockToTheProcessThatClosesItLast) {
  Child other([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Block block;
    EXPECT_EQ(0u, block.Open("block"));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0, std::memcmp(block.address, "still there", 11));
    EXPECT_EQ(0u, block.Close());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  other.Await();
  std::memcpy(block_.address, "still there", 11);
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(1u, UseCountOf(id_));
  EXPECT_EQ(id_, IdIn(file_));
  other.Go();
  other.ExpectSuccess();
  EXPECT_FALSE(SegmentExists(id_));
  EXPECT_NE(0, ::access(file_.c_str(), F_OK));
}

TEST_F(SharedMemClose, RefusesANullHandle) {
  OPL_SharedMem* none = nullptr;
  for (OPL_SharedMem** handle : {&none, static_cast<OPL_SharedMem**>(nullptr)}) {
    opltest::ForgetFailure();
    EXPECT_EQ(0x050102u, OPL_SharedMemClose(handle));
    EXPECT_EQ(Failure(0x050102, "OPL_SharedMemClose: handle is NULL"), LastFailure());
  }
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemClose, ReleasesTheHandle) {
  EXPECT_EQ(0u, block_.Close());
  const CountedMemory memory;
  ASSERT_EQ(0u, block_.Create("block"));
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(0, memory.Living());
}

// A count that a tool has set to 0: the close takes it below and so is not the last one.
TEST_F(SharedMemClose, OfABlockWithACountOfZeroRemovesNothing) {
  SegmentView view(id_);
  view.SetUseCount(0);
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(0xFFFFFFFFu, view.UseCount());
  EXPECT_EQ(std::string(4, '\0'), view.Text(4, 4));
  EXPECT_TRUE(SegmentExists(id_));
  RemoveAll();
}

TEST_F(SharedMemClose, OfTheLargestCountOnlyLowersIt) {
  SegmentView view(id_);
  view.SetUseCount(0xFFFFFFFF);
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(0xFFFFFFFEu, view.UseCount());
  RemoveAll();
}

TEST_F(SharedMemClose, DetachesABlockThatWasRemoved) {
  const Footprint before = Footprint::Now();
  const SegmentView keepsSegment(id_);
  RemoveAll();
  EXPECT_EQ(0x051209u, block_.Close());
  EXPECT_EQ(Failure(0x051209, "OPL_PrivateShMemClose: IPC file (" + file_ + ") not found"), LastFailure());
  EXPECT_EQ(nullptr, block_.handle);
  EXPECT_EQ(1, opltest::AttachedTo(id_)) << "the test's own";
}

// The table's entry outlives a failed close; nothing of the segment may be touched through it.
TEST_F(SharedMemClose, ThatFailedIsNotRepeatedAtTheEnd) {
  RemoveAll();
  EXPECT_EQ(0x051209u, block_.Close());
  EXPECT_EQ(0x050110u, block_.Open("block")) << "the process remembers the name";
  EXPECT_EQ(0x051209u, OPL_SharedMemProcessCleanup(0));
}

TEST_F(SharedMemClose, ThatFailedLowersTheCountOnce) {
  SegmentView view(id_);
  view.SetUseCount(3);
  {
    const Fault fault("close", 1, EIO);
    EXPECT_EQ(0x051206u, block_.Close());
  }
  EXPECT_EQ(2u, view.UseCount());
  EXPECT_EQ(1, opltest::AttachedTo(id_)) << "the test's own";
  EXPECT_EQ(0u, OPL_SharedMemProcessCleanup(0));
  EXPECT_EQ(2u, view.UseCount());
  Block second;
  EXPECT_EQ(0u, second.Open("block")) << "the clean-up took the entry away";
  view.SetUseCount(1);
  EXPECT_EQ(0u, second.Close());
}

TEST_F(SharedMemClose, LeavesABlockAloneThatWasMadeAnewUnderTheName) {
  RemoveAll();
  Child other([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Block block;
    EXPECT_EQ(0u, block.Create("block"));
    std::memcpy(block.address, "new", 3);
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(0u, block.Close());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  other.Await();
  const int newId = IdIn(file_);
  EXPECT_NE(id_, newId);
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(newId, IdIn(file_));
  const SegmentView view(newId);
  EXPECT_EQ(1u, view.UseCount());
  EXPECT_EQ("new", view.Text(opltest::kHeaderSize, 3));
  other.Go();
  other.ExpectSuccess();
}

TEST_F(SharedMemClose, LeavesABlockAloneThatThisProcessMadeAnew) {
  RemoveAll();
  Block second;
  ASSERT_EQ(0u, second.Create("block"));
  const int newId = IdIn(file_);
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(1u, UseCountOf(newId));
  Block third;
  EXPECT_EQ(0x050110u, third.Open("block")) << "the close forgot the other block";
  EXPECT_EQ(0u, second.Close());
  EXPECT_FALSE(SegmentExists(newId));
}

TEST_F(SharedMemClose, ForgetsTheBlockOfItsOwnScopeAlone) {
  Block all;
  ASSERT_EQ(0u, all.Create("block", 64, OPL_SHAREDMEM_ALL));
  const int allId = IdIn(BlockFile("block", "all"));
  EXPECT_EQ(0u, all.Close());
  EXPECT_FALSE(SegmentExists(allId));
  EXPECT_EQ(0u, OPL_SharedMemProcessCleanup(0));
  EXPECT_FALSE(SegmentExists(id_)) << "the clean-up did not find the other block";
}

TEST_F(SharedMemClose, RemovesNoSegmentOfAnotherOwnerThatTheFileNames) {
  const int foreign = opltest::MakeSegment(72);
  opltest::WriteFile(file_, opltest::BytesOf(foreign));
  EXPECT_EQ(0u, block_.Close());
  EXPECT_TRUE(SegmentExists(foreign));
  opltest::RemoveSegment(foreign);
  opltest::RemoveSegment(id_);
  EXPECT_EQ(0, ::unlink(file_.c_str()));
}

struct Refusal {
  const char* call;
  int error;
  uint32_t code;
  const char* message;
};

class SharedMemCloseSteps : public SharedMemClose, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SharedMemCloseSteps, EndTheHandleAllTheSameWhenRefused) {
  const Refusal& refusal = GetParam();
  const CountedMemory memory;
  Block block;
  ASSERT_EQ(0u, block.Create("other"));
  {
    const Fault fault(refusal.call, 1, refusal.error);
    EXPECT_EQ(refusal.code, block.Close());
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(static_cast<uint32_t>(refusal.error), LastFailure().code);
  EXPECT_TRUE(LastFailure().message.starts_with(refusal.message)) << LastFailure();
  EXPECT_EQ(nullptr, block.handle);
  EXPECT_EQ(0, memory.Living());
  EXPECT_EQ(0u, block_.Close()) << "a lock is lost";
  RemoveAll();
}

INSTANTIATE_TEST_SUITE_P(
    Each, SharedMemCloseSteps,
    ::testing::Values(
        Refusal{"open64", EIO, 0x051203, "OPL_PrivateShMemClose: open error :5,Input/output error\nFile "},
        Refusal{"read", EIO, 0x051205, "OPL_PrivateShMemClose: read error :5,Input/output error\nFile "},
        Refusal{"shmdt", ENOMEM, 0x05120E, "OPL_PrivateShMemClose: shmdt error :12 (Cannot allocate memory)"},
        Refusal{"shmctl", EPERM, 0x05120D, "OPL_PrivateShMemClose: shmctl("},
        Refusal{"close", EIO, 0x051206, "OPL_PrivateShMemClose: close error :5,Input/output error\nFile "},
        Refusal{"semop", EIO, 0x051212, ""}),
    [](const auto& test) { return std::string(test.param.call); });

TEST_F(SharedMemClose, KeepsSignalsAwayAndGivesTheMaskBack) {
  sigset_t within;
  sigset_t mask;
  {
    const Fault fault("shmdt", 1, [&] { (void)::pthread_sigmask(SIG_SETMASK, nullptr, &within); });
    EXPECT_EQ(0u, block_.Close());
  }
  EXPECT_EQ(1, ::sigismember(&within, SIGUSR1));
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &mask));
  EXPECT_EQ(0, ::sigismember(&mask, SIGUSR1));
}

TEST(SharedMemCloseBeforeBegin, IsRefusedAndLeavesTheHandleAlone) {
  OPL_SharedMem* handle = reinterpret_cast<OPL_SharedMem*>(&handle);
  EXPECT_EQ(0x050203u, OPL_SharedMemClose(&handle));
  EXPECT_EQ(reinterpret_cast<OPL_SharedMem*>(&handle), handle);
}

}  // namespace
