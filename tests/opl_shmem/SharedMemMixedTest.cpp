// One block for processes of both widths: the bytes, the count, and the lock.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstring>

#include "OPL_Init.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/Peer.h"

namespace {

using opltest::Block;
using opltest::BlockFile;
using opltest::IdIn;
using opltest::Peer;
using opltest::PeerBody;
using opltest::Steps;
using opltest::UseCountOf;

constexpr uint32_t kSize = 64;
constexpr uint32_t kRounds = 200;

const PeerBody kOpener("Opener", [](Steps& steps) {
  EXPECT_EQ(0u, OPL_InitBegin(0));
  Block block;
  EXPECT_EQ(0u, block.Open("block"));
  EXPECT_EQ(0, std::memcmp(block.address, "from the test", 13));
  std::memcpy(static_cast<char*>(block.address) + kSize - 13, "from the peer", 13);
  steps.Reach();
  steps.WaitForGo();
  EXPECT_EQ(0u, block.Close());
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

const PeerBody kCreator("Creator", [](Steps& steps) {
  EXPECT_EQ(0u, OPL_InitBegin(0));
  Block block;
  EXPECT_EQ(0u, block.Create("block", kSize));
  std::memcpy(block.address, "from the peer", 13);
  steps.Reach();
  steps.WaitForGo();
  EXPECT_EQ(0u, block.Close());
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

// Raises the block's first word in two steps.
void RaiseUnderLock(OPL_SharedMemLocked* locked) {
  for (uint32_t round = 0; round < kRounds; ++round) {
    void* address = nullptr;
    ASSERT_EQ(0u, OPL_SharedMemLockedGet(locked, OPL_SHAREDMEM_EXCLUSIVE, &address));
    volatile uint32_t* const word = static_cast<uint32_t*>(address);
    const uint32_t count = *word;
    (void)::sched_yield();
    *word = count + 1;
    ASSERT_EQ(0u, OPL_SharedMemLockedRelease(locked));
  }
}

const PeerBody kCounter("Counter", [](Steps& steps) {
  EXPECT_EQ(0u, OPL_InitBegin(0));
  OPL_SharedMemLocked* locked = nullptr;
  EXPECT_EQ(0u, OPL_SharedMemLockedOpen(&locked, 0, "data", OPL_SHAREDMEM_PRIVATE));
  steps.Reach();
  steps.WaitForGo();
  RaiseUnderLock(locked);
  EXPECT_EQ(0u, OPL_SharedMemLockedClose(&locked));
  EXPECT_EQ(0u, OPL_InitEnd(0));
});

class SharedMemMixed : public opltest::Instance, public ::testing::WithParamInterface<int> {};

TEST_P(SharedMemMixed, SharesBytesAndCountWithAPeer) {
  Block block;
  ASSERT_EQ(0u, block.Create("block", kSize));
  std::memcpy(block.address, "from the test", 13);
  Peer peer(kOpener, GetParam());
  peer.Await();
  const int id = IdIn(BlockFile("block"));
  EXPECT_EQ(2u, UseCountOf(id));
  EXPECT_EQ(0, std::memcmp(static_cast<char*>(block.address) + kSize - 13, "from the peer", 13));
  peer.Go();
  peer.ExpectSuccess();
  EXPECT_EQ(1u, UseCountOf(id));
  EXPECT_EQ(0u, block.Close());
  EXPECT_FALSE(opltest::SegmentExists(id));
}

TEST_P(SharedMemMixed, OpensAndOutlivesThePeersBlock) {
  Peer peer(kCreator, GetParam());
  peer.Await();
  Block block;
  ASSERT_EQ(0u, block.Open("block"));
  const int id = IdIn(BlockFile("block"));
  EXPECT_EQ(kSize + opltest::kHeaderSize, opltest::SizeOfSegment(id));
  peer.Go();
  peer.ExpectSuccess();
  EXPECT_EQ(1u, UseCountOf(id));
  EXPECT_EQ(0, std::memcmp(block.address, "from the peer", 13));
  EXPECT_EQ(0u, block.Close());
  EXPECT_NE(0, ::access(BlockFile("block").c_str(), F_OK));
}

TEST_P(SharedMemMixed, ExcludesThePeerFromALockedBlock) {
  OPL_SharedMemLocked* locked = nullptr;
  ASSERT_EQ(0u, OPL_SharedMemLockedCreate(&locked, 0, "data", kSize, OPL_SHAREDMEM_PRIVATE));
  Peer peer(kCounter, GetParam());
  peer.Await();
  peer.Go();
  RaiseUnderLock(locked);
  peer.ExpectSuccess();
  void* address = nullptr;
  ASSERT_EQ(0u, OPL_SharedMemLockedGet(locked, OPL_SHAREDMEM_SHARED, &address));
  EXPECT_EQ(2 * kRounds, *static_cast<uint32_t*>(address));
  EXPECT_EQ(0u, OPL_SharedMemLockedRelease(locked));
  EXPECT_EQ(0u, OPL_SharedMemLockedClose(&locked));
}

INSTANTIATE_TEST_SUITE_P(EitherWidth, SharedMemMixed, ::testing::ValuesIn(opltest::PeerWidths()),
                         ::testing::PrintToStringParamName());

}  // namespace
