// qvopl clean: what goes, what is refused, and that it is gone.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>

#include "OPL_Init.h"
#include "OPL_SharedMem.h"
#include "OPL_Sync.h"
#include "tests/support/Child.h"
#include "tests/support/Footprint.h"
#include "tests/support/Peer.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"
#include "tests/tools/DoctorRig.h"

namespace {

using opltest::FileOf;
using opltest::FilesIn;
using opltest::InstanceString;
using opltest::IpcDirectory;
using opltest::PathOf;
using opltest::Peer;
using opltest::PeerBody;
using opltest::RunTool;
using opltest::Steps;
using opltest::ToolRun;

const PeerBody kUser("User", [](Steps& steps) {
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  OPL_SyncMutex* mutex = nullptr;
  EXPECT_EQ(OPL_OK, OPL_SyncMutexCreate(&mutex, 0, "queue", OPL_SYNC_MUTEX_PRIVATE));
  OPL_SyncEvent* event = nullptr;
  EXPECT_EQ(OPL_OK, OPL_SyncEventCreate(&event, 0, "bell", OPL_SYNC_EVENT_PRIVATE));
  OPL_SharedMem* memory = nullptr;
  void* address = nullptr;
  EXPECT_EQ(OPL_OK, OPL_SharedMemCreate(&memory, 0, "block", &address, 64, OPL_SHAREDMEM_PRIVATE));
  steps.Reach();
  steps.WaitForGo();
  EXPECT_EQ(OPL_OK, OPL_SharedMemClose(&memory));
  EXPECT_EQ(OPL_OK, OPL_SyncEventClose(&event));
  EXPECT_EQ(OPL_OK, OPL_SyncMutexClose(&mutex));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
});

ToolRun Clean(std::vector<std::string> more = {}, const std::string& instance = InstanceString()) {
  std::vector<std::string> arguments{"clean", "--instance", instance};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return RunTool(arguments);
}

// What clean says of the objects of kUser.
std::string ListOfUser() {
  const auto id = [](const std::string& file) { return std::to_string(opltest::IdIn(PathOf(file))); };
  const std::string management = "QVOPL.mgmt." + InstanceString() + ".006.021";
  const std::string block = FileOf("block", ".mem.");
  const std::string events = FileOf("QVMXEV", ".mutex.");
  const std::string queue = FileOf("queue", ".mutex.");
  return events + ": mutex, with semaphore set " + id(events) + "\n" + management +
         ": management, with semaphore set " + id(management) + "\n" + FileOf("bell", ".event.") +
         ": event\n" + FileOf("bell", ".event.") + ".count: count of an event\n" + block +
         ": memory, with segment " + id(block) + "\n" + queue + ": mutex, with semaphore set " + id(queue) +
         "\n";
}

class CleanMixed : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Peers, CleanMixed, ::testing::ValuesIn(opltest::PeerWidths()));

TEST_P(CleanMixed, RemovesWhatAKilledProcessLeaves) {
  Peer user(kUser, GetParam());
  user.Await();
  user.Kill();
  user.ExpectKilledBy(SIGKILL);
  const std::string list = ListOfUser();
  const std::vector<std::string> files = FilesIn(IpcDirectory());

  for (const std::vector<std::string>& look :
       {std::vector<std::string>{"--dry-run"}, {"--dry-run", "--yes"}, {}}) {
    const ToolRun shown = Clean(look);
    EXPECT_EQ(list + "6 files would go; --yes removes them.\n", shown.out);
    EXPECT_EQ(1, shown.status);
    EXPECT_EQ(files, FilesIn(IpcDirectory()));
  }
  const ToolRun removed = Clean({"--yes"});
  EXPECT_EQ(list + "6 files removed, with what they name.\n", removed.out);
  EXPECT_EQ("", removed.err);
  EXPECT_EQ(0, removed.status);
  EXPECT_EQ(std::vector<std::string>(), FilesIn(IpcDirectory()));
  EXPECT_EQ(std::set<std::string>(), opltest::SystemVObjects());

  const ToolRun again = Clean({"--yes"});
  EXPECT_EQ("There is nothing to remove of instance " + InstanceString() + ".\n", again.out);
  EXPECT_EQ(0, again.status);
}

TEST_P(CleanMixed, RefusesWhileAProcessLives) {
  Peer user(kUser, GetParam());
  user.Await();
  const std::vector<std::string> files = FilesIn(IpcDirectory());
  const ToolRun refused = Clean({"--yes"});
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ(ListOfUser() + "1 process uses the instance:\n  process " + std::to_string(user.pid()) + " (" +
                opltest::ProcessName() +
                ")\nNothing was removed: the instance is in use; --force removes 6 files all the "
                "same.\n",
            refused.out);
  EXPECT_EQ(files, FilesIn(IpcDirectory()));
  user.Go();
  user.ExpectSuccess();
}

// The management set is the living process's.
TEST(Clean, RemovesFromUnderALivingProcessWhenForced) {
  opltest::Child user([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    OPL_SyncMutex* mutex = nullptr;
    EXPECT_EQ(OPL_OK, OPL_SyncMutexCreate(&mutex, 0, "queue", OPL_SYNC_MUTEX_PRIVATE));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_SYNC_E_MUTEX_MISSING, OPL_SyncMutexClose(&mutex));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  user.Await();
  EXPECT_EQ(0, Clean({"--yes", "--force", "*.mutex.*"}).status);
  EXPECT_EQ(std::vector<std::string>{"QVOPL.mgmt." + InstanceString() + ".006.021"}, FilesIn(IpcDirectory()));
  user.Go();
  user.ExpectSuccess();
}

TEST(Clean, TakesOnlyWhatThePatternMatches) {
  opltest::WriteFile(PathOf(FileOf("queue", ".lckfile.")), "");
  opltest::WriteFile(PathOf(FileOf("table", ".lckfile.")), "");
  const ToolRun run = Clean({"q*", "--yes"});
  EXPECT_EQ(FileOf("queue", ".lckfile.") + ": lockfile\n1 file removed, with what they name.\n", run.out);
  EXPECT_EQ(std::vector<std::string>{FileOf("table", ".lckfile.")}, FilesIn(IpcDirectory()));
  EXPECT_EQ(0, Clean({"--yes"}).status);
}

TEST(Clean, RemovesRegisteredObjects) {
  const int set = opltest::MakeSet({1, 2, 3});
  opltest::WriteFile(PathOf("own.semnat." + std::to_string(set) + "." + InstanceString() + ".006.021"), "");
  const ToolRun run = Clean({"--yes"});
  EXPECT_EQ("own.semnat." + std::to_string(set) + "." + InstanceString() +
                ".006.021: semaphores, with its object " + std::to_string(set) +
                "\n1 file removed, with what they name.\n",
            run.out);
  EXPECT_FALSE(opltest::SetExists(set));
}

// The library's clean-up looks for the instance's name anywhere in a file's.
TEST(Clean, RefusesToTakeFilesOfAnInstanceWhoseNameHasThisOnesInIt) {
  const std::string other = "queue.lckfile." + InstanceString() + "b.006.021";
  opltest::WriteFile(PathOf(other), "");
  const ToolRun run = Clean({"--yes"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(
      other +
          ": lockfile, of another instance whose name has this one's in it\n"
          "Nothing was removed: files of other instances would go; --force removes 1 file all the same.\n",
      run.out);
  EXPECT_EQ(std::vector<std::string>{other}, FilesIn(IpcDirectory()));
  EXPECT_EQ(0, Clean({"--yes"}, InstanceString() + "b").status);
}

TEST(Clean, WantsToKnowTheInstance) {
  opltest::WriteFile(PathOf(FileOf("queue", ".lckfile.")), "");
  const ToolRun run = RunTool({"clean", "--yes"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("qvopl: clean needs --instance; " + IpcDirectory() + " holds " + InstanceString() + "\n",
            run.err);
  EXPECT_EQ("", run.out);
  EXPECT_EQ(0, Clean({"--yes"}).status);
}

TEST(Clean, CannotLookIntoADirectoryThatIsNotThere) {
  const ToolRun run = Clean({"--ipc-path", "/nonexistent"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("qvopl: the IPC directory /nonexistent: No such file or directory\n", run.err);
}

TEST(Clean, TellsItInJson) {
  opltest::WriteFile(PathOf(FileOf("queue", ".lckfile.")), "");
  const ToolRun shown = Clean({"--json"});
  EXPECT_EQ(1, shown.status);
  EXPECT_THAT(shown.out, ::testing::HasSubstr("\"outcome\": \"shown\""));
  EXPECT_THAT(shown.out, ::testing::HasSubstr("\"file\": \"" + FileOf("queue", ".lckfile.") + "\""));
  const ToolRun removed = Clean({"--json", "--yes"});
  EXPECT_EQ(0, removed.status);
  EXPECT_THAT(removed.out, ::testing::HasSubstr("\"outcome\": \"removed\""));
}

TEST(Clean, TellsWhatItCouldNotRemove) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  opltest::WriteFile(PathOf(FileOf("queue", ".lckfile.")), "");
  ASSERT_EQ(0, ::chmod(IpcDirectory().c_str(), 0755));
  opltest::Child other([](Steps&) {
    opltest::LetOtherUsersIn();
    ASSERT_EQ(0, ::chmod(IpcDirectory().c_str(), 0755));
    opltest::BecomeOtherUser();
    const ToolRun run = Clean({"--yes"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.out, ::testing::HasSubstr("left: " + FileOf("queue", ".lckfile.") + "\n"));
  });
  other.ExpectSuccess();
  EXPECT_EQ(0, Clean({"--yes"}).status);
}

TEST(Clean, RefusesWhereItCannotSeeWhetherTheInstanceIsInUse) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  const std::string management = "QVOPL.mgmt." + InstanceString() + ".006.021";
  const std::string name = FileOf("queue", ".lckfile.");
  opltest::WriteFile(PathOf(management), "1234");
  ASSERT_EQ(0, ::chmod(PathOf(management).c_str(), 0600));
  opltest::WriteFile(PathOf(name), "");
  opltest::Child other([&](Steps&) {
    opltest::LetOtherUsersIn();
    opltest::BecomeOtherUser();
    const ToolRun run = Clean({"--yes"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(management + ": management\n" + name +
                  ": lockfile\nNothing was removed: whether the instance is in use cannot be seen; --force "
                  "removes 2 files all the same.\n",
              run.out);
  });
  other.ExpectSuccess();
  EXPECT_EQ(2u, FilesIn(IpcDirectory()).size());
  for (const std::string& file : {management, name}) EXPECT_EQ(0, ::unlink(PathOf(file).c_str()));
}

TEST(CleanTerminal, Asks) {
  const std::string name = FileOf("only", ".lckfile.");
  opltest::WriteFile(PathOf(name), "");
  const std::vector<std::string> clean{"clean", "--instance", InstanceString()};
  EXPECT_THAT(opltest::AtTerminal(clean, 200, "n\n"), ::testing::HasSubstr("Nothing was removed.\nexit 1\n"));
  EXPECT_EQ(std::vector<std::string>{name}, opltest::FilesIn(IpcDirectory()));
  EXPECT_THAT(opltest::AtTerminal(clean, 200, "y\n"),
              ::testing::HasSubstr("1 file removed, with what they name.\nexit 0\n"));
}

}  // namespace
