// qvopl limits: what is used, what still fits, and what it says to raise. Limits are set in an IPC namespace
// of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/support/Instance.h"
#include "tests/support/IpcNamespace.h"
#include "tests/support/SystemV.h"
#include "tests/tools/Tool.h"

namespace {

using nlohmann::json;
using opltest::JsonOf;
using opltest::RunTool;
using opltest::RunToolOnTerminal;
using opltest::ToolRun;
using ::testing::HasSubstr;
using ::testing::Not;

json LimitOf(const json& answer, const std::string& key) {
  for (const json& limit : answer["limits"])
    if (limit["key"] == key) return limit;
  ADD_FAILURE() << key;
  return {};
}

json RoomOf(const json& answer, const std::string& key) {
  for (const json& room : answer["room"])
    if (room["key"] == key) return room;
  ADD_FAILURE() << key;
  return {};
}

std::string RaiseOf(const json& answer, const std::string& name) {
  for (const json& raise : answer["raise"])
    if (raise["name"] == name) return raise["to"];
  return "";
}

json Ask(int status = 0, int width = opltest::kWidth) {
  const ToolRun run = RunTool({"limits", "--json"}, width);
  EXPECT_EQ(status, run.status) << run.out << run.err;
  return JsonOf(run);
}

bool Write(const char* setting, const std::string& text) {
  std::ofstream file(std::string("/proc/sys/kernel/") + setting);
  file << text << std::flush;
  return file.good();
}

// A namespace whose limits the test may set.
class Limits : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!opltest::EnterIpcNamespace() || !Write("sem", "32000 1024000000 500 32000"))
      GTEST_SKIP() << "no IPC namespace whose limits can be set";
  }
};

TEST_F(Limits, CountsWhatIsUsed) {
  const json before = Ask();
  EXPECT_EQ(0, LimitOf(before, "semaphoreSets")["used"]);
  EXPECT_EQ(32000, LimitOf(before, "semaphoreSets")["most"]);
  const int sets[] = {opltest::MakeSet({1, 2, 3}), opltest::MakeSet({4})};
  const int segment = opltest::MakeSegment(10000);
  const int queue = ::msgget(IPC_PRIVATE, 0600);
  const json after = Ask();
  EXPECT_EQ(2, LimitOf(after, "semaphoreSets")["used"]);
  EXPECT_EQ(4, LimitOf(after, "semaphores")["used"]);
  EXPECT_EQ(1, LimitOf(after, "segments")["used"]);
  EXPECT_EQ(3 * ::sysconf(_SC_PAGESIZE), LimitOf(after, "sharedMemory")["used"]);
  EXPECT_EQ(1, LimitOf(after, "messageQueues")["used"]);
  EXPECT_EQ(31998, RoomOf(after, "mutexes")["fit"]);
  for (const int set : sets) opltest::RemoveSet(set);
  opltest::RemoveSegment(segment);
  EXPECT_EQ(0, ::msgctl(queue, IPC_RMID, nullptr));
}

TEST_F(Limits, SaysHowToRaiseWhatIsNearlyReached) {
  ASSERT_TRUE(Write("sem", "32000 1024000000 500 10"));
  std::vector<int> sets;
  for (int i = 0; i < 7; ++i) sets.push_back(opltest::MakeSet({1}));
  EXPECT_EQ(70, LimitOf(Ask(), "semaphoreSets")["percent"]);
  sets.push_back(opltest::MakeSet({1}));
  const json answer = Ask(1);
  EXPECT_EQ(true, LimitOf(answer, "semaphoreSets")["nearlyReached"]);
  EXPECT_EQ("32000 1024000000 500 20", RaiseOf(answer, "kernel.sem"));
  EXPECT_EQ(1u, answer["raise"].size());
  const ToolRun run = RunTool({"limits"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, HasSubstr("nearly reached"));
  EXPECT_THAT(run.out, HasSubstr("\n  sysctl -w kernel.sem=\"32000 1024000000 500 20\"\n"));
  EXPECT_THAT(run.out,
              HasSubstr("\n  echo 'kernel.sem = 32000 1024000000 500 20' >>/etc/sysctl.d/60-qvopl.conf\n"));
  EXPECT_THAT(run.out, Not(HasSubstr("kernel.shmmni=")));
  for (const int set : sets) opltest::RemoveSet(set);
}

TEST_F(Limits, TheLinesThatItGivesRaiseTheLimits) {
  ASSERT_TRUE(Write("sem", "32000 8 500 4"));
  ASSERT_TRUE(Write("shmmni", "1"));
  ASSERT_TRUE(Write("msgmni", "1"));
  const int sets[] = {opltest::MakeSet({1, 1}), opltest::MakeSet({1, 1}), opltest::MakeSet({1, 1}),
                      opltest::MakeSet({1, 1})};
  const int segment = opltest::MakeSegment(1);
  const int queue = ::msgget(IPC_PRIVATE, 0600);
  const json answer = Ask(1);
  EXPECT_EQ("32000 16 500 8", RaiseOf(answer, "kernel.sem"));
  EXPECT_EQ("2", RaiseOf(answer, "kernel.shmmni"));
  EXPECT_EQ("2", RaiseOf(answer, "kernel.msgmni"));
  for (const json& raise : answer["raise"])
    EXPECT_TRUE(Write(raise["name"].get<std::string>().substr(7).c_str(), raise["to"]));
  EXPECT_EQ(json::array(), [] {
    json near = json::array();
    const json raised = Ask();
    for (const json& limit : raised["limits"])
      if (limit["nearlyReached"] == true) near.push_back(limit);
    return near;
  }());
  for (const int set : sets) opltest::RemoveSet(set);
  opltest::RemoveSegment(segment);
  EXPECT_EQ(0, ::msgctl(queue, IPC_RMID, nullptr));
}

// 32,768 are the most that a kernel takes which was not started with ipcmni_extend.
TEST_F(Limits, AsksForNoMoreThanTheKernelTakes) {
  const std::string to = RaiseOf(Ask(), "kernel.sem");
  EXPECT_EQ("32000 1024000000 500 32768", to);
  ASSERT_TRUE(Write("sem", to));
  const json answer = Ask();
  EXPECT_EQ("", RaiseOf(answer, "kernel.sem"));
}

TEST_F(Limits, WhatStillFitsIsWhatCanBeMade) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_TRUE(Write("sem", "32000 1024000000 500 12"));
  const json answer = JsonOf(RunTool({"limits", "--json", "--threshold", "100"}));
  const uint32_t fit = RoomOf(answer, "mutexes")["fit"];
  EXPECT_EQ(11u, fit);
  EXPECT_EQ("semaphore sets", RoomOf(answer, "mutexes")["limitedBy"]);
  std::vector<OPL_SyncMutex*> mutexes;
  OPL_SyncMutex* mutex = nullptr;
  while (OPL_SyncMutexCreate(&mutex, 0, ("m" + std::to_string(mutexes.size())).c_str(),
                             OPL_SYNC_MUTEX_PRIVATE) == OPL_OK)
    mutexes.push_back(mutex);
  EXPECT_EQ(fit, mutexes.size());
  const json full = Ask(1);
  EXPECT_EQ(0, RoomOf(full, "mutexes")["fit"]);
  EXPECT_EQ(100, LimitOf(full, "semaphoreSets")["percent"]);
  for (OPL_SyncMutex* open : mutexes) EXPECT_EQ(OPL_OK, OPL_SyncMutexClose(&open));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST_F(Limits, CountsTheSemaphoresOfASet) {
  ASSERT_TRUE(Write("sem", "32000 21 500 32000"));
  const json answer = Ask();
  EXPECT_EQ(10, RoomOf(answer, "mutexes")["fit"]);
  EXPECT_EQ(5, RoomOf(answer, "rwlocks")["fit"]);
  EXPECT_EQ("semaphores in all sets", RoomOf(answer, "rwlocks")["limitedBy"]);
}

TEST_F(Limits, FindsWhatIsTooLowForTheLibrary) {
  ASSERT_TRUE(Write("sem", "3 1024000000 2 32000"));
  const json answer = Ask(1);
  EXPECT_EQ(true, LimitOf(answer, "semaphoresInASet")["tooLow"]);
  EXPECT_EQ(true, LimitOf(answer, "operationsInACall")["tooLow"]);
  EXPECT_EQ("4 1024000000 3 32000", RaiseOf(answer, "kernel.sem"));
  EXPECT_THAT(RunTool({"limits"}).out, HasSubstr("too low: 4 needed"));
}

// Four semaphores in a set and three operations in a call are what a read-write lock takes.
TEST_F(Limits, WhatItCallsEnoughIsEnough) {
  ASSERT_TRUE(Write("sem", "4 1024000000 3 32000"));
  (void)Ask();
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  OPL_SyncRWLock* lock = nullptr;
  ASSERT_EQ(OPL_OK, OPL_SyncRWLockCreate(&lock, 0, "lock", OPL_SYNC_RWLOCK_PRIVATE));
  EXPECT_EQ(OPL_OK, OPL_SyncRWLockLock(lock, OPL_SYNC_RWLOCK_EXCLUSIVE));
  EXPECT_EQ(OPL_OK, OPL_SyncRWLockUnlock(lock));
  EXPECT_EQ(OPL_OK, OPL_SyncRWLockClose(&lock));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST_F(Limits, TakesAnotherThreshold) {
  ASSERT_TRUE(Write("sem", "32000 1024000000 500 4"));
  const int set = opltest::MakeSet({1});
  EXPECT_EQ(1, RunTool({"limits", "--threshold", "25"}).status);
  EXPECT_EQ(0, RunTool({"limits", "--threshold", "26"}).status);
  for (const char* const wrong : {"0", "101", "half", "-1"})
    EXPECT_EQ(2, RunTool({"limits", "--threshold", wrong}).status) << wrong;
  opltest::RemoveSet(set);
}

TEST_F(Limits, IsTheSameInBothWidths) {
  const int other = 96 - opltest::kWidth;
  if (opltest::ToolOf(other).empty()) GTEST_SKIP() << "no program of " << other << " bits";
  const int segment = opltest::MakeSegment(100000);
  json own = Ask();
  json others = Ask(0, other);
  // What other processes change meanwhile.
  for (json* answer : {&own, &others})
    for (json& limit : (*answer)["limits"])
      for (const char* const moving : {"openFiles", "threads", "directoryFiles", "directorySpace"})
        if (limit["key"] == moving) limit["used"] = limit["percent"] = nullptr;
  EXPECT_EQ(own["limits"], others["limits"]);
  EXPECT_EQ(RoomOf(own, "mutexes"), RoomOf(others, "mutexes"));
  EXPECT_EQ(own["raise"], others["raise"]);
  opltest::RemoveSegment(segment);
}

TEST_F(Limits, FitsATerminalOfFortyColumns) {
  const ToolRun run = RunToolOnTerminal({"limits"}, 40);
  EXPECT_EQ(0, run.status);
  EXPECT_THAT(run.out, ::testing::ContainsRegex("\nsemaphore sets +0 +0  fine\r\n"));
  EXPECT_THAT(run.out, ::testing::ContainsRegex("\nbytes in a queue +- +-  fine\r\n"));
  const size_t commands = run.out.find("To have more");
  size_t width = 0;
  for (size_t i = 0; i < std::min(commands, run.out.size()); ++i) {
    if (run.out[i] == '\x1b') {
      while (run.out[i] != 'm') ++i;
      continue;
    }
    width = run.out[i] == '\n' ? 0 : width + (run.out[i] != '\r' ? 1 : 0);
    ASSERT_GE(40u, width) << run.out;
  }
}

TEST(LimitsCommand, NeedsTheDirectory) {
  const ToolRun run = RunTool({"limits", "--ipc-path", "nowhere"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_EQ("qvopl: nowhere: No such file or directory\n", run.err);
}

TEST(LimitsCommand, LeavesNoTrace) {
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(0, ::stat(opltest::IpcDirectory().c_str(), &before));
  (void)RunTool({"limits"});
  ASSERT_EQ(0, ::stat(opltest::IpcDirectory().c_str(), &after));
  EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
  EXPECT_EQ(before.st_atim.tv_nsec, after.st_atim.tv_nsec);
  EXPECT_TRUE(opltest::FilesIn(opltest::IpcDirectory()).empty());
}

}  // namespace
