// Shared memory as objects of the program's own types, in processes of both widths.
#include <gtest/gtest.h>

#include <csignal>
#include <qvopl.hpp>
#include <string>

#include "tests/support/Child.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"
#include "tests/support/SemaphoreSets.h"

namespace {

using opltest::Child;
using opltest::Peer;
using opltest::PeerBody;
using opltest::Steps;

constexpr uint32_t kRounds = 500;

struct Inner {
  uint16_t first = 0;
  uint16_t second = 0;
};
QVOPL_SHAREABLE(Inner, 4, first, second);

struct Visits {
  uint32_t count = 0;
  uint32_t reserved = 0;
  uint64_t widths = 0;
  std::array<Inner, 2> inner{};
  char text[8] = {};
  std::atomic<uint32_t> atomic{0};
  float real = 0;
  double precise = 0;
};
QVOPL_SHAREABLE(Visits, 48, count, reserved, widths, inner, text, atomic, real, precise);

using Locked = qvopl::LockedSharedMemory<Visits>;

void Visit(Locked& memory) {
  for (uint32_t round = 0; round < kRounds; ++round) {
    const auto visits = memory.Write();
    visits->count += 1;
    visits->widths += opltest::kWidth;
    visits->inner[1].second = static_cast<uint16_t>(visits->count);
    visits->precise += 0.5;
  }
}

const PeerBody kVisitor("Visitor", [](Steps& steps) {
  const qvopl::Library library;
  Locked memory = Locked::OpenOrCreate("visits");
  auto atomics = qvopl::SharedMemory<Visits[]>::OpenOrCreate("atomics", 3);
  steps.Reach();
  steps.WaitForGo();
  Visit(memory);
  for (uint32_t round = 0; round < kRounds; ++round) ++atomics[2].atomic;
});

class CppSharedMemoryMixed : public opltest::Instance, public ::testing::WithParamInterface<int> {};

TEST_P(CppSharedMemoryMixed, IsOneObjectForBothWidths) {
  Locked memory = Locked::OpenOrCreate("visits");
  auto atomics = qvopl::SharedMemory<Visits[]>::OpenOrCreate("atomics", 3);
  Peer first(kVisitor, GetParam());
  Peer second(kVisitor, opltest::kWidth);
  first.Await();
  second.Await();
  first.Go();
  second.Go();
  Visit(memory);
  for (uint32_t round = 0; round < kRounds; ++round) ++atomics[2].atomic;
  first.ExpectSuccess();
  second.ExpectSuccess();
  const auto visits = memory.Read();
  EXPECT_EQ(3 * kRounds, visits->count);
  EXPECT_EQ(uint64_t{kRounds} * static_cast<uint32_t>(2 * opltest::kWidth + GetParam()), visits->widths);
  EXPECT_EQ(3 * kRounds, visits->inner[1].second);
  EXPECT_EQ(1.5 * kRounds, visits->precise);
  EXPECT_EQ(3 * kRounds, atomics[2].atomic.load());
}

// The last one out removes what the next has to make, lock and block one after the other.
void OpenAndClose() {
  for (uint32_t round = 0; round < kRounds; ++round) {
    Locked memory = Locked::OpenOrCreate("race");
    ++memory.Write()->count;
  }
}

const PeerBody kOpener("Opener", [](Steps& steps) {
  const qvopl::Library library;
  steps.Reach();
  steps.WaitForGo();
  EXPECT_NO_THROW(OpenAndClose());
});

TEST_P(CppSharedMemoryMixed, OpenOrCreateOutlivesTheRaceWithAPeer) {
  Peer first(kOpener, GetParam());
  Peer second(kOpener, opltest::kWidth);
  first.Await();
  second.Await();
  first.Go();
  second.Go();
  EXPECT_NO_THROW(OpenAndClose());
  first.ExpectSuccess();
  second.ExpectSuccess();
}

INSTANTIATE_TEST_SUITE_P(PeerOf, CppSharedMemoryMixed, ::testing::ValuesIn(opltest::PeerWidths()));

class CppSharedMemory : public opltest::Instance {};

TEST_F(CppSharedMemory, BeginsWithZeros) {
  const auto memory = qvopl::SharedMemory<Visits>::Create("visits");
  EXPECT_EQ(0u, memory->count);
  EXPECT_EQ(0, (*memory).precise);
  EXPECT_EQ(memory.get(), &*memory);
  EXPECT_EQ(std::errc::file_exists, qvopl::SharedMemory<Visits>::Create(std::nothrow, "visits").error());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SHAREDMEM_E_OPENED),
            qvopl::SharedMemory<Visits>::Open(std::nothrow, "visits").code());
  EXPECT_EQ(std::errc::no_such_file_or_directory,
            qvopl::SharedMemory<Visits>::Open(std::nothrow, "others").error());
}

TEST_F(CppSharedMemory, IsMovedWithItsObject) {
  auto first = qvopl::SharedMemory<uint32_t>::Create("first");
  *first = 7;
  qvopl::SharedMemory<uint32_t> second;
  EXPECT_FALSE(second);
  second = std::move(first);
  EXPECT_FALSE(first);
  EXPECT_EQ(nullptr, first.get());
  EXPECT_EQ(7u, *second);
  second.Close();
  EXPECT_TRUE(qvopl::SharedMemory<uint32_t>::Create(std::nothrow, "first").ok());
}

TEST_F(CppSharedMemory, IsAnArrayOfAsManyAsAskedFor) {
  const auto memory = qvopl::SharedMemory<uint16_t[]>::Create("array", 1000);
  EXPECT_EQ(1000u, memory.size());
  for (uint16_t& element : memory.span()) ++element;
  EXPECT_EQ(1u, memory[999]);
  const size_t tooMany = SIZE_MAX / 4;
  EXPECT_EQ(static_cast<OPL_Result>(OPL_PRIVATE_E_SHMGET),
            qvopl::SharedMemory<uint64_t[]>::Create(std::nothrow, "large", tooMany).code());
  auto first = qvopl::SharedMemory<uint8_t[]>::Create("bytes", 9);
  qvopl::SharedMemory<uint8_t[]> second = std::move(first);
  EXPECT_EQ(0u, first.size());
  EXPECT_TRUE(first.span().empty());
  EXPECT_EQ(9u, second.span().size());
}

class CppLockedSharedMemory : public opltest::Instance {};

TEST_F(CppLockedSharedMemory, LetsReadersInTogetherAndWritersAlone) {
  Locked memory = Locked::Create("visits");
  {
    const Locked::ReadGuard reading = memory.Read();
    Child reader([](Steps&) {
      const qvopl::Library library;
      Locked inChild = Locked::Open("visits");
      EXPECT_EQ(0u, inChild.Read()->count);
    });
    reader.ExpectSuccess();
  }
  Locked::WriteGuard writing = memory.Write();
  writing->count = 5;
  Child reader([](Steps& steps) {
    const qvopl::Library library;
    Locked inChild = Locked::Open("visits");
    steps.Reach();
    EXPECT_EQ(6u, inChild.Read()->count);
  });
  reader.Await();
  const std::string file =
      opltest::IpcDirectory() + "/visits.rwlock." + opltest::InstanceString() + ".006.021";
  constexpr int kWriter = 1;
  opltest::AwaitSleepersForZero(opltest::SetNamedBy(file), kWriter);
  writing->count = 6;
  writing.Release();
  reader.ExpectSuccess();
}

TEST_F(CppLockedSharedMemory, GivesTheLockBackOnce) {
  Locked memory = Locked::Create("visits");
  qvopl::Result<Locked::WriteGuard> guard = memory.Write(std::nothrow);
  ASSERT_TRUE(guard.ok());
  Locked::WriteGuard moved = std::move(*guard);
  EXPECT_EQ(nullptr, guard->get());
  EXPECT_TRUE(moved.Release(std::nothrow).ok());
  EXPECT_EQ(nullptr, moved.get());
  EXPECT_FALSE(moved.Release(std::nothrow).ok());
  const Locked::WriteGuard next = memory.Write();
}

TEST_F(CppLockedSharedMemory, IsGivenBackWhenItsHolderDies) {
  Locked memory = Locked::Create("visits");
  Child holder([](Steps& steps) {
    const qvopl::Library library;
    Locked inChild = Locked::Open("visits");
    const auto visits = inChild.Write();
    visits->count = 9;
    steps.Reach();
    steps.WaitForGo();
  });
  holder.Await();
  holder.Kill();
  holder.ExpectKilledBy(SIGKILL);
  EXPECT_EQ(9u, memory.Write()->count);
  memory.Close();
  // The killed process's share in the count keeps the block.
  qvopl::Library::RemoveObjects();
}

}  // namespace
