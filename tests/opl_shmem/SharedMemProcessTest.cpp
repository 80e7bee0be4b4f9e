// Named blocks over the life of processes: ends, deaths, forks, many at once, and an instance's clean-up.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_shmem/SharedMem.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Threads.h"

namespace {

using opltest::AttachedTo;
using opltest::Block;
using opltest::BlockFile;
using opltest::Child;
using opltest::Failure;
using opltest::Fault;
using opltest::Footprint;
using opltest::IdIn;
using opltest::LastFailure;
using opltest::SegmentExists;
using opltest::SegmentView;
using opltest::Steps;
using opltest::UseCountOf;

class SharedMemProcess : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(0u, block_.Create("block"));
    id_ = IdIn(BlockFile("block"));
  }

  Block block_;
  int id_ = -1;
};

TEST(SharedMemProcessInit, DoesNothingAndSucceedsWithAnyFlag) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  const Footprint before = Footprint::Now();
  for (const uint32_t flag : {0u, 1u, 0xFFFFFFFFu}) EXPECT_EQ(0u, OPL_SharedMemProcessInit(flag));
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(0u, OPL_InitEnd(0));
}

TEST_F(SharedMemProcess, CleanupClosesEveryBlock) {
  Block others[19];
  for (int i = 0; i < 19; ++i) ASSERT_EQ(0u, others[i].Create("b" + std::to_string(i)));
  SegmentView view(IdIn(BlockFile("b7")));
  view.SetUseCount(2);
  EXPECT_EQ(0u, OPL_SharedMemProcessCleanup(0));
  EXPECT_EQ(std::vector<std::string>{"b7.mem." + opltest::InstanceString() + opltest::kVersion},
            opltest::ObjectFiles());
  EXPECT_EQ(1u, view.UseCount());
  EXPECT_EQ(1, AttachedTo(IdIn(BlockFile("b7")))) << "the test's own";
  Block again;
  ASSERT_EQ(0u, again.Open("b7")) << "the table is not empty";
  view.SetUseCount(1);
  EXPECT_EQ(0u, again.Close());
}

TEST_F(SharedMemProcess, CleanupInModeOneDetachesAndRemovesNothing) {
  EXPECT_EQ(1, AttachedTo(id_));
  EXPECT_EQ(0u, OPL_SharedMemProcessCleanup(1));
  EXPECT_EQ(0, AttachedTo(id_));
  EXPECT_EQ(id_, IdIn(BlockFile("block")));
  SegmentView view(id_);
  EXPECT_EQ(1u, view.UseCount());
  view.SetUseCount(0);
  Block again;
  ASSERT_EQ(0u, again.Open("block")) << "the table is not empty";
  EXPECT_EQ(0u, again.Close());
}

TEST_F(SharedMemProcess, CleanupReturnsTheFirstFailureAndClosesTheRest) {
  Block second;
  Block third;
  ASSERT_EQ(0u, second.Create("second"));
  ASSERT_EQ(0u, third.Create("third"));
  const int secondId = IdIn(BlockFile("second"));
  opltest::WriteFile(BlockFile("second"), "12");
  ASSERT_EQ(0, ::unlink(BlockFile("block").c_str()));
  EXPECT_EQ(0x051209u, OPL_SharedMemProcessCleanup(0));
  EXPECT_FALSE(SegmentExists(IdIn(BlockFile("third"))));
  EXPECT_EQ(0, AttachedTo(id_));
  EXPECT_EQ(0, AttachedTo(secondId));
  opltest::RemoveSegment(id_);
  opltest::RemoveSegment(secondId);
  EXPECT_EQ(0, ::unlink(BlockFile("second").c_str()));
}

TEST_F(SharedMemProcess, CleanupOfAnEmptyTableSucceeds) {
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(0u, OPL_SharedMemProcessCleanup(0));
  EXPECT_EQ(0u, OPL_SharedMemProcessCleanup(1));
}

TEST(SharedMemProcessEnd, ClosesTheBlocksThatAreOpen) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  Block block;
  ASSERT_EQ(0u, block.Create("block"));
  EXPECT_EQ(0u, OPL_InitEnd(0));
  EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(opltest::IpcDirectory()));
}

TEST_F(SharedMemProcess, AnEndByForceLeavesCountAndBlock) {
  Child other([](Steps&) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Block block;
    EXPECT_EQ(0u, block.Open("block"));
    EXPECT_EQ(0u, OPL_InitEnd(OPL_INIT_END_FORCED));
  });
  other.ExpectSuccess();
  SegmentView view(id_);
  EXPECT_EQ(2u, view.UseCount());
  view.SetUseCount(1);
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemProcess, AnOrdinaryExitClosesTheBlocks) {
  Child other(
      [](Steps&) {
        EXPECT_EQ(0u, OPL_InitBegin(0));
        Block block;
        EXPECT_EQ(0u, block.Open("block"));
        Block own;
        EXPECT_EQ(0u, own.Create("own"));
      },
      Child::End::kOrdinarily);
  other.ExpectSuccess();
  EXPECT_EQ(1u, UseCountOf(id_));
  EXPECT_NE(0, ::access(BlockFile("own").c_str(), F_OK));
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemProcess, AKilledProcessLeavesItsShareInTheCount) {
  Child other([](Steps& steps) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    Block block;
    EXPECT_EQ(0u, block.Open("block"));
    steps.Reach();
    steps.WaitForGo();
  });
  other.Await();
  other.Kill();
  other.ExpectKilledBy(SIGKILL);
  EXPECT_EQ(2u, UseCountOf(id_));
  EXPECT_EQ(0u, block_.Close());
  EXPECT_TRUE(SegmentExists(id_));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_FALSE(SegmentExists(id_));
}

// A dead holder of the management lock is no obstacle, wherever in a create or close it died.
TEST_F(SharedMemProcess, GoesOnAfterAProcessThatWasKilledInTheMiddle) {
  for (const char* call : {"open64", "fchmod", "shmget", "shmat", "link", "shmdt", "shmctl"}) {
    SCOPED_TRACE(call);
    Child other([call](Steps&) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      const Fault fault(call, 1, Fault::Kill{});
      Block block;
      EXPECT_EQ(0u, block.Create("other"));
      EXPECT_EQ(0u, block.Close());
    });
    other.ExpectKilledBy(SIGKILL);
    (void)::unlink(BlockFile("other").c_str());
    Block block;
    EXPECT_EQ(0u, block.Create("other"));
    EXPECT_EQ(0u, block.Close());
  }
  for (const std::string& object : opltest::SystemVObjects())
    if (object.starts_with("shm ") && object != "shm " + std::to_string(id_))
      opltest::RemoveSegment(std::stoi(object.substr(4)));
  for (const std::string& file : opltest::ObjectFiles()) {
    if (!file.starts_with("other")) continue;
    EXPECT_EQ(0, ::unlink((opltest::IpcDirectory() + "/" + file).c_str()));
  }
}

TEST_F(SharedMemProcess, AChildThatOnlyInheritedAHandleGivesNothingBack) {
  Child child([&](Steps&) {
    EXPECT_EQ(0u, block_.Close());
    EXPECT_EQ(nullptr, block_.handle);
  });
  child.ExpectSuccess();
  EXPECT_EQ(1u, UseCountOf(id_));
  EXPECT_EQ(1, AttachedTo(id_));
  EXPECT_EQ(0u, block_.Close());
  EXPECT_FALSE(SegmentExists(id_));
}

TEST_F(SharedMemProcess, AnOrdinaryExitOfAChildThatOnlyInheritedGivesNothingBack) {
  Child child([](Steps&) {}, Child::End::kOrdinarily);
  child.ExpectSuccess();
  EXPECT_EQ(1u, UseCountOf(id_));
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemProcess, AChildThatBeginsAnewOpensTheBlockOfItsParent) {
  Child child([&](Steps&) {
    EXPECT_EQ(0u, OPL_InitBegin(0));
    EXPECT_EQ(1u, UseCountOf(id_)) << "the begin gave back what the parent holds";
    Block block;
    EXPECT_EQ(0u, block.Open("block"));
    EXPECT_EQ(2u, UseCountOf(id_));
    EXPECT_EQ(0u, block.Close());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.ExpectSuccess();
  EXPECT_EQ(1u, UseCountOf(id_));
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemProcess, AChildThatAdoptsGivesItsParentsCountBack) {
  Child child([&](Steps&) {
    EXPECT_EQ(0u, OPL_InitSetCurrentPid());
    EXPECT_EQ(1u, UseCountOf(id_)) << "adopting does not count";
    std::memcpy(block_.address, "adopted", 7);
    EXPECT_EQ(0u, block_.Close());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.ExpectSuccess();
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
  EXPECT_EQ(0, std::memcmp(block_.address, "adopted", 7)) << "the parent's memory went away";
  EXPECT_EQ(0x051209u, block_.Close());
}

TEST_F(SharedMemProcess, AChildThatAdoptsClosesTheBlocksAtItsEnd) {
  Child child([&](Steps&) {
    EXPECT_EQ(0u, OPL_InitSetCurrentPid());
    EXPECT_EQ(0u, OPL_InitEnd(0));
  });
  child.ExpectSuccess();
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
  EXPECT_EQ(0x051209u, block_.Close());
}

// Every process opens the block, or makes it where it is not there, and is now and then the last to close it.
TEST(SharedMemProcesses, CountRightHoweverTheyMeet) {
  constexpr int kRounds = 100;
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 4; ++i)
    children.push_back(std::make_unique<Child>([](Steps& steps) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      steps.Reach();
      steps.WaitForGo();
      for (int round = 0; round < kRounds;) {
        Block block;
        OPL_Result rc = block.Open("block");
        if (rc == OPL_PRIVATE_E_SHMEM_MISSING) rc = block.Create("block");
        if (rc == OPL_PRIVATE_E_SHMEM_EXISTS) continue;
        ASSERT_EQ(0u, rc);
        ++round;
        static_cast<std::atomic<uint32_t>*>(block.address)->fetch_add(1);
        ASSERT_EQ(0u, block.Close());
      }
      EXPECT_EQ(0u, OPL_InitEnd(0));
    }));
  for (auto& child : children) child->Await();
  for (auto& child : children) child->Go();
  for (auto& child : children) child->ExpectSuccess();
  EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(opltest::IpcDirectory()));
}

TEST_F(SharedMemProcess, ThreadsKeepTheTableWhole) {
  opltest::RunAtOnce(4, [](int thread) {
    for (int i = 0; i < 50; ++i) {
      Block block;
      Block second;
      const std::string name = "t" + std::to_string(thread);
      ASSERT_EQ(0u, block.Create(name));
      ASSERT_EQ(0x050110u, second.Open(name));
      ASSERT_EQ(0u, block.Close());
    }
  });
  Block blocks[19];
  for (int i = 0; i < 19; ++i) EXPECT_EQ(0u, blocks[i].Create("b" + std::to_string(i)));
  for (Block& block : blocks) EXPECT_EQ(0u, block.Close());
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemProcess, AForkOfAThreadThatUsesTheTableLeavesItsLockFree) {
  std::atomic<bool> stops{false};
  std::thread user([&] {
    while (!stops) {
      Block block;
      EXPECT_EQ(0u, block.Create("other"));
      EXPECT_EQ(0u, block.Close());
    }
  });
  for (int i = 0; i < 10; ++i) {
    Child child([](Steps&) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      Block block;
      EXPECT_EQ(0u, block.Create("childs"));
      EXPECT_EQ(0u, block.Close());
      EXPECT_EQ(0u, OPL_InitEnd(0));
    });
    child.ExpectSuccess();
  }
  stops = true;
  user.join();
  EXPECT_EQ(0u, block_.Close());
}

class SharedMemTerminateIPC : public SharedMemProcess {};

TEST_F(SharedMemTerminateIPC, RemovesSegmentsAndFiles) {
  Block second;
  ASSERT_EQ(0u, second.Create("second"));
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*"));
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
  EXPECT_EQ(0x051209u, second.Close());
  EXPECT_EQ(0x051209u, block_.Close());
  EXPECT_FALSE(SegmentExists(id_)) << "nobody is attached any more";
}

TEST_F(SharedMemTerminateIPC, LeavesItsUsersTheirMemory) {
  std::memcpy(block_.address, "mine", 4);
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*"));
  EXPECT_EQ(0, std::memcmp(block_.address, "mine", 4));
  EXPECT_EQ(0x051209u, block_.Close());
}

TEST_F(SharedMemTerminateIPC, WithNothingToRemoveSucceeds) {
  EXPECT_EQ(0u, block_.Close());
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*"));
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "no such name"));
}

TEST_F(SharedMemTerminateIPC, RemovesOnlyWhatThePatternMatches) {
  Block second;
  ASSERT_EQ(0u, second.Create("second"));
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "sec*"));
  EXPECT_EQ(id_, IdIn(BlockFile("block")));
  EXPECT_NE(0, ::access(BlockFile("second").c_str(), F_OK));
  EXPECT_EQ(0x051209u, second.Close());
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemTerminateIPC, LeavesOtherInstancesVersionsAndKindsAlone) {
  EXPECT_EQ(0u, block_.Close());
  const std::string instance = opltest::InstanceString();
  const std::vector<std::string> names = {"a.mem.OTHER.006.021", "b.mem." + instance + ".006.020",
                                          "c.men." + instance + ".006.021", "d.mem.all.006.021"};
  const int id = opltest::MakeSegment(72);
  for (const std::string& name : names)
    opltest::WriteFile(opltest::IpcDirectory() + "/" + name, opltest::BytesOf(id));
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*"));
  EXPECT_EQ(names, opltest::ObjectFiles());
  EXPECT_TRUE(SegmentExists(id));
  opltest::RemoveSegment(id);
  for (const std::string& name : names)
    EXPECT_EQ(0, ::unlink((opltest::IpcDirectory() + "/" + name).c_str()));
}

TEST_F(SharedMemTerminateIPC, ReturnsTheFirstFailureAndRemovesTheRest) {
  opltest::WriteFile(BlockFile("a"), "12");
  EXPECT_EQ(0x051205u, OPL_SharedMemTerminateIPC(0, "*"));
  EXPECT_EQ(
      Failure(0x051205, "OPL_PrivateShMemClose: read error - Not enough data read\nFile " + BlockFile("a")),
      LastFailure());
  EXPECT_EQ(std::vector<std::string>{"a.mem." + opltest::InstanceString() + opltest::kVersion},
            opltest::ObjectFiles());
  EXPECT_EQ(0, ::unlink(BlockFile("a").c_str()));
  EXPECT_EQ(0x051209u, block_.Close());
}

TEST_F(SharedMemTerminateIPC, RemovesTheFileOfASegmentThatIsGone) {
  opltest::RemoveSegment(id_);
  EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*"));
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
  EXPECT_EQ(0x051209u, block_.Close());
}

TEST_F(SharedMemTerminateIPC, RemovesWhatAProcessLeftThatDiedWhileItMadeABlock) {
  EXPECT_EQ(0u, block_.Close());
  const Footprint before = Footprint::Now();
  for (const char* call : {"fchmod", "shmget", "shmat", "futimens", "link", "unlink"}) {
    SCOPED_TRACE(call);
    Child maker([call](Steps&) {
      EXPECT_EQ(0u, OPL_InitBegin(0));
      const Fault fault(call, 1, Fault::Kill{});
      Block block;
      (void)block.Create("block");
    });
    maker.ExpectKilledBy(SIGKILL);
    EXPECT_FALSE(opltest::ObjectFiles().empty());
    EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*"));
  }
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SharedMemTerminateIPC, LetsALivingMakerFinish) {
  EXPECT_EQ(0u, block_.Close());
  {
    const Fault fault("link", 1, [] { EXPECT_EQ(0u, OPL_SharedMemTerminateIPC(0, "*")); });
    EXPECT_EQ(0u, block_.Create("block"));
  }
  EXPECT_EQ(0u, block_.Close());
}

TEST_F(SharedMemTerminateIPC, IsPartOfTheInstancesCleanUp) {
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(std::vector<std::string>(), opltest::ObjectFiles());
  EXPECT_EQ(0x051209u, block_.Close());
}

}  // namespace
