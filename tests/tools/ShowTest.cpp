// qvopl show: all about one object, and who has it open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <string>

#include "OPL_Init.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/IpcNamespace.h"
#include "tests/tools/Listed.h"

namespace {

using opltest::Child;
using opltest::JsonOf;
using opltest::Peer;
using opltest::ProcessText;
using opltest::RunTool;
using opltest::Steps;
using opltest::SyncActor;
using opltest::ToolRun;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// A second may begin between two looks.
std::string WithoutAges(const std::string& shown) {
  return std::regex_replace(shown, std::regex(", [0-9]+ [a-z]+ ago"), "");
}

// What each width's build of the tool shows; fails the test when they differ.
std::string Shown(const std::string& name) {
  std::string shown;
  for (const int width : opltest::PeerWidths()) {
    const ToolRun run = RunTool({"show", name}, width);
    EXPECT_EQ(0, run.status) << run.err;
    if (!shown.empty()) {
      EXPECT_EQ(shown, WithoutAges(run.out));
    }
    shown = WithoutAges(run.out);
  }
  return shown;
}

class Show : public opltest::WithPeer {};
OPLTEST_WITH_EITHER_PEER(Show);

TEST_P(Show, TellsASetsValuesAndTimes) {
  SyncActor peer(GetParam());
  for (const char* const command : {"begin", "mutex-create q 4", "mutex-acquire q"})
    EXPECT_EQ(0u, peer.Do(command));
  const std::string process = ProcessText(peer.process().pid());
  const std::string shown = Shown("q");
  const std::string id = std::to_string(opltest::SetNamedBy(opltest::MutexFile("q")));
  EXPECT_TRUE(shown.starts_with("mutex q, instance " + opltest::InstanceString() + "\n")) << shown;
  EXPECT_THAT(shown, HasSubstr("  set               " + id + ", 2 semaphores, of "));
  EXPECT_THAT(shown, HasSubstr("  semaphore 0       lock 0, last operated by " + process + "\n"));
  EXPECT_THAT(shown, HasSubstr("  semaphore 1       use count 31,999, last operated by " + process + "\n"));
  EXPECT_THAT(shown, HasSubstr("  file              " + opltest::MutexFile("q") + "\n"));
  EXPECT_THAT(shown, ContainsRegex("\n  written +2036-"));
  EXPECT_THAT(shown, ContainsRegex("\n  version +006\\.021\n"));
  for (const char* const command : {"mutex-release q", "mutex-close q", "end"})
    EXPECT_EQ(0u, peer.Do(command));
  peer.Quit();
}

TEST_P(Show, TellsWhoHasAnObjectOpen) {
  SyncActor events(GetParam());
  EXPECT_EQ(0u, events.Do("begin"));
  EXPECT_EQ(0u, events.Do("event-create e 2"));
  EXPECT_THAT(Shown("e"), ContainsRegex("\n  open in +" + std::string("process ") +
                                        std::to_string(events.process().pid()) + " "));
  Peer holder(opltest::kHolder, GetParam());
  holder.Await();
  const std::string open = "process " + std::to_string(holder.pid()) + " ";
  for (const char* const name : {"b", "l", "s"})
    EXPECT_THAT(Shown(name), ContainsRegex("\n  open in +" + open)) << name;
  EXPECT_EQ(holder.pid(), JsonOf(RunTool({"show", "--json", "b"}))["objects"][0]["openIn"][0]["process"]);
  holder.Go();
  holder.ExpectSuccess();
  for (const char* const command : {"event-close e", "end"}) EXPECT_EQ(0u, events.Do(command));
  events.Quit();
}

class ShowNamespaces : public ::testing::TestWithParam<int> {};
OPLTEST_WITH_EITHER_PEER(ShowNamespaces);

// Each namespace has a segment with the first id, and the other's process comes first.
TEST_P(ShowNamespaces, DoesNotMixUpEqualIds) {
  if (!opltest::EnterIpcNamespace()) GTEST_SKIP() << "no IPC namespace may be made";
  Child container([](Steps& steps) {
    const bool isAway = opltest::EnterIpcNamespace();
    const int id = isAway ? ::shmget(IPC_PRIVATE, 65536, 0600) : -1;
    void* const bytes = ::shmat(id, nullptr, 0);
    if (id != -1) std::memset(bytes, 7, 65536);
    steps.Send(std::to_string(id));
    if (id == -1) return;
    steps.WaitForGo();
    EXPECT_EQ(0, ::shmctl(id, IPC_RMID, nullptr));
  });
  const std::string id = container.Receive();
  if (id == "-1") GTEST_SKIP() << "no IPC namespace may be made in one";
  Peer holder(opltest::kHolder, GetParam());
  holder.Await();
  const nlohmann::json shown = JsonOf(RunTool({"show", "--json", "b"}))["objects"][0];
  EXPECT_EQ(id, shown["id"].dump());
  EXPECT_EQ("64 kB, 1 attached, count 1", shown["state"]);
  ASSERT_EQ(1u, shown["openIn"].size());
  EXPECT_EQ(holder.pid(), shown["openIn"][0]["process"]);
  holder.Go();
  holder.ExpectSuccess();
  container.Go();
  container.ExpectSuccess();
}

TEST_P(Show, FindsObjectsByNameFileAndPattern) {
  SyncActor peer(GetParam());
  for (const char* const command : {"begin", "mutex-create qa 4", "rwlock-create qb 1"})
    EXPECT_EQ(0u, peer.Do(command));
  const auto count = [](const std::string& name) {
    return JsonOf(RunTool({"show", "--json", name}))["objects"].size();
  };
  EXPECT_EQ(1u, count("qa"));
  EXPECT_EQ(2u, count("q?"));
  EXPECT_EQ(1u, count("qb.rwlock." + opltest::InstanceString() + opltest::kVersion));
  EXPECT_EQ(1u, count("management"));
  const ToolRun run = RunTool({"show", "nothing"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("qvopl: no such object in " + opltest::IpcDirectory() + "\n", run.err);
  for (const char* const command : {"mutex-close qa", "rwlock-close qb", "end"})
    EXPECT_EQ(0u, peer.Do(command));
  peer.Quit();
}

}  // namespace
