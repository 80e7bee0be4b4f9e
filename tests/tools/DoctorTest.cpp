// qvopl doctor on the faults that killed processes and others leave, and on none.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Server.h"
#include "OPL_SharedMem.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "tests/support/Child.h"
#include "tests/support/Peer.h"
#include "tests/support/SemaphoreSets.h"
#include "tests/support/Storm.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"
#include "tests/tools/DoctorRig.h"

namespace {

using opltest::Child;
using opltest::Doctor;
using opltest::ExpectFoundAndRepaired;
using opltest::ExpectHealthy;
using opltest::FileOf;
using opltest::InstanceString;
using opltest::IpcDirectory;
using opltest::PathOf;
using opltest::Peer;
using opltest::PeerBody;
using opltest::Steps;
using opltest::Told;
using opltest::ToolRun;

// One of each kind, until it is told to go.
struct Everything {
  OPL_SyncMutex* mutex = nullptr;
  OPL_SyncRWLock* lock = nullptr;
  OPL_SyncEvent* event = nullptr;
  OPL_SharedMem* memory = nullptr;
  OPL_SyncLockFile* file = nullptr;
  OPL_Socket* socket = nullptr;

  Everything() {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    OPLTEST_EXPECT_OK(OPL_SyncMutexCreate(&mutex, 0, "queue", OPL_SYNC_MUTEX_PRIVATE));
    OPLTEST_EXPECT_OK(OPL_SyncRWLockCreate(&lock, 0, "table", OPL_SYNC_RWLOCK_PRIVATE));
    OPLTEST_EXPECT_OK(OPL_SyncEventCreate(&event, 0, "bell", OPL_SYNC_EVENT_PRIVATE));
    void* address = nullptr;
    OPLTEST_EXPECT_OK(OPL_SharedMemCreate(&memory, 0, "block", &address, 64, OPL_SHAREDMEM_PRIVATE));
    OPLTEST_EXPECT_OK(OPL_SyncLockFileCreate(&file, "only"));
    OPL_SocketAddress* door = nullptr;
    OPLTEST_EXPECT_OK(OPL_SocketAddressCreate(&door, 0));
    OPLTEST_EXPECT_OK(OPL_SocketAddressUnixSet(door, "door"));
    OPLTEST_EXPECT_OK(OPL_SocketCreate(&socket, 0));
    OPLTEST_EXPECT_OK(OPL_SocketOpen(socket, OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0));
    OPLTEST_EXPECT_OK(OPL_SocketBind(socket, door));
    OPLTEST_EXPECT_OK(OPL_SocketAddressDestroy(&door));
  }

  ~Everything() {
    OPLTEST_EXPECT_OK(OPL_SocketDestroy(&socket));
    OPLTEST_EXPECT_OK(OPL_SyncLockFileDestroy(&file));
    OPLTEST_EXPECT_OK(OPL_SharedMemClose(&memory));
    OPLTEST_EXPECT_OK(OPL_SyncEventClose(&event));
    OPLTEST_EXPECT_OK(OPL_SyncRWLockClose(&lock));
    OPLTEST_EXPECT_OK(OPL_SyncMutexClose(&mutex));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }
};

const PeerBody kHolder("Holder", [](Steps& steps) {
  const Everything everything;
  steps.Reach();
  steps.WaitForGo();
});

// Has block and event of another, as the second.
const PeerBody kGuest("Guest", [](Steps& steps) {
  EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
  OPL_SyncEvent* event = nullptr;
  OPLTEST_EXPECT_OK(OPL_SyncEventOpen(&event, 0, "bell", OPL_SYNC_EVENT_PRIVATE));
  OPL_SharedMem* memory = nullptr;
  void* address = nullptr;
  OPLTEST_EXPECT_OK(OPL_SharedMemOpen(&memory, 0, "block", &address, OPL_SHAREDMEM_PRIVATE));
  steps.Reach();
  steps.WaitForGo();
});

class DoctorMixed : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Peers, DoctorMixed, ::testing::ValuesIn(opltest::PeerWidths()));

TEST_P(DoctorMixed, FindsNothingInAHealthyInstance) {
  Peer holder(kHolder, GetParam());
  holder.Await();
  const ToolRun run = Doctor();
  EXPECT_EQ("Nothing is wrong: 9 files of 1 instance in " + IpcDirectory() + ".\n", run.out);
  EXPECT_EQ("", run.err);
  EXPECT_EQ(0, run.status);
  holder.Go();
  holder.ExpectSuccess();
  EXPECT_EQ("Nothing is wrong: 0 files of 0 instances in " + IpcDirectory() + ".\n", Doctor().out);
}

TEST_P(DoctorMixed, FindsAndRepairsAllThatAKilledProcessLeaves) {
  Peer holder(kHolder, GetParam());
  holder.Await();
  holder.Kill();
  holder.ExpectKilledBy(SIGKILL);
  const ToolRun run = Doctor();
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(
      Told("warning", FileOf("bell", ".event."),
           {"counts 1 handle, but no process has it open: somebody who had it was killed, and no close is "
            "the last.",
            "Processes can open it, but none can make it.", "--fix removes the FIFO and the count file."}) +
          Told("warning", FileOf("block", ".mem."),
               {"is attached by no process, and counts somebody who was killed: no close is the last, and "
                "the 72 B stay.",
                "Processes can open it, with what the last ones left in it, but none can make it.",
                "--fix removes the segment, with what is in it, and the file."}) +
          Told("warning", FileOf("door", ".sck."),
               {"was left by a process that was killed: no socket is bound to it, and none can be.",
                "Nobody can bind the name before the file is removed.", "--fix removes the file."}) +
          Told("note", FileOf("QVMXEV", ".mutex."),
               {"is used by no process.", "It goes with the last close of who opens it next.",
                "--fix removes the set and the file."}) +
          Told("note", "QVOPL.mgmt." + InstanceString() + ".006.021",
               {"counts no process: the last one was killed.", "The next process that begins takes it over.",
                "--fix removes the set and the file."}) +
          Told("note", FileOf("only", ".lckfile."),
               {"was left by a process that was killed: nobody holds it.", "Who creates it next replaces it.",
                "--fix removes the file."}) +
          Told("note", FileOf("queue", ".mutex."),
               {"is used by no process.", "It goes with the last close of who opens it next.",
                "--fix removes the set and the file."}) +
          Told("note", FileOf("table", ".rwlock."),
               {"is used by no process.", "It goes with the last close of who opens it next.",
                "--fix removes the set and the file."}) +
          "8 findings (3 warnings, 5 notes): 9 files of 1 instance in " + IpcDirectory() +
          ".\nqvopl doctor --fix repairs 8 of them.\n",
      run.out);
  const ToolRun fixed = Doctor({"--fix", "--yes"});
  EXPECT_EQ(0, fixed.status) << fixed.out;
  EXPECT_THAT(fixed.out, ::testing::EndsWith("8 findings repaired.\n"));
  ExpectHealthy();
  EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(IpcDirectory()));
}

TEST_P(DoctorMixed, LeavesCountsOfLivingProcessesAlone) {
  Peer holder(kHolder, GetParam());
  holder.Await();
  Peer guest(kGuest, GetParam());
  guest.Await();
  guest.Kill();
  guest.ExpectKilledBy(SIGKILL);
  const std::string told =
      Told(
          "warning", FileOf("bell", ".event."),
          {"counts 2 handles while 1 is open: somebody who had it was killed, and no close will be the last.",
           "When the product has ended, qvopl doctor --fix or qvopl clean removes it."}) +
      Told("warning", FileOf("block", ".mem."),
           {"counts 2 handles while it is attached 1 time: a process that had it was killed, and no close "
            "will be the last.",
            "When the product has ended, qvopl doctor --fix or qvopl clean removes it."}) +
      "2 findings (2 warnings): 9 files of 1 instance in " + IpcDirectory() + ".\n";
  EXPECT_EQ(told, Doctor().out);
  const ToolRun fixed = Doctor({"--fix", "--yes"});
  EXPECT_EQ(1, fixed.status);
  EXPECT_EQ(told + "0 findings repaired.\n", fixed.out);
  holder.Go();
  holder.ExpectSuccess();
  EXPECT_EQ(1, Doctor().status);
  EXPECT_EQ(0, Doctor({"--fix", "--yes"}).status);
  ExpectHealthy();
}

TEST(DoctorStale, FindsAndRemovesFilesWhoseObjectsAreGone) {
  for (const char* const file : {"queue.mutex.", "table.rwlock.", "block.mem.", "QVOPL.mgmt."}) {
    const std::string name = file + InstanceString() + ".006.021";
    SCOPED_TRACE(name);
    opltest::WriteFile(PathOf(name), opltest::BytesOf(4711));
    const std::string what = std::string(file) == "block.mem." ? "segment" : "semaphore set";
    ExpectFoundAndRepaired(
        Told("warning", name,
             {"names the " + what + " 4711, which is gone.",
              "It goes when an object of its name is opened next.", "--fix removes the file."}),
        "Repaired: removes the file.");
  }
}

TEST(DoctorStale, LooksAgainUnderTheLockOfALivingInstance) {
  Child holder([](Steps& steps) {
    const Everything everything;
    steps.Reach();
    steps.WaitForGo();
  });
  holder.Await();
  const std::string name = FileOf("lost", ".mutex.");
  opltest::WriteFile(PathOf(name), opltest::BytesOf(4711));
  ExpectFoundAndRepaired(
      Told("warning", name,
           {"names the semaphore set 4711, which is gone.",
            "It goes when an object of its name is opened next.", "--fix removes the file."}),
      "Repaired: removes the file.");
  holder.Go();
  holder.ExpectSuccess();
}

// While somebody holds the lock, the file may be about to go.
TEST(DoctorStale, SaysNothingWhileSomebodyWorksOnIt) {
  Child worker([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    OPLTEST_EXPECT_OK(OPL_PrivateMgmtLockSyncMutexLock());
    steps.Reach();
    steps.WaitForGo();
    OPLTEST_EXPECT_OK(OPL_PrivateMgmtLockSyncMutexUnlock());
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  worker.Await();
  const std::string name = FileOf("lost", ".mutex.");
  opltest::WriteFile(PathOf(name), opltest::BytesOf(4711));
  const ToolRun run = Doctor({"--fix", "--yes"});
  EXPECT_EQ(0, run.status) << run.out;
  EXPECT_EQ("Nothing is wrong: 2 files of 1 instance in " + IpcDirectory() +
                ".\n0 findings repaired.\n1 object left out: somebody was working on it all the time.\n",
            run.out);
  worker.Go();
  worker.ExpectSuccess();
  EXPECT_EQ(0, Doctor({"--fix", "--yes"}).status);
  ExpectHealthy();
}

TEST(DoctorAbandoned, FindsAndRemovesASetWhoseRemoverDied) {
  std::string died;
  int id = -1;
  {
    Child killed([](Steps& steps) {
      EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
      OPL_SyncMutex* mutex = nullptr;
      OPLTEST_EXPECT_OK(OPL_SyncMutexCreate(&mutex, 0, "queue", OPL_SYNC_MUTEX_PRIVATE));
      const int set = opltest::IdIn(PathOf(FileOf("queue", ".mutex.")));
      OPLTEST_EXPECT_OK(OPL_PrivateUseCountRelease(set, 1));
      OPLTEST_EXPECT_OK(OPL_PrivateUseCountExclusive(set, 1));
      steps.Reach();
      steps.WaitForGo();
    });
    killed.Await();
    died = std::to_string(killed.pid());
    id = opltest::IdIn(PathOf(FileOf("queue", ".mutex.")));
    // What the killed process leaves of the management set is not this test's.
    OPL_InitBegin(0);
    killed.Kill();
    killed.ExpectKilledBy(SIGKILL);
  }
  ExpectFoundAndRepaired(
      Told("warning", FileOf("queue", ".mutex."),
           {"process " + died + ", which is gone, was killed when it was about to remove the set " +
                std::to_string(id) + " and had made it unusable.",
            "It goes when it is opened next.", "--fix removes the set and the file."}),
      "Repaired: removes the set and the file.");
  EXPECT_FALSE(opltest::SetExists(id));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST(DoctorAbandoned, FindsAndRemovesAnExhaustedManagementSet) {
  Child killed([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    OPLTEST_EXPECT_OK(OPL_PrivateMgmtLockQVOPLRelease());
    OPLTEST_EXPECT_OK(OPL_PrivateMgmtLockQVOPLExclusive());
    steps.Reach();
    steps.WaitForGo();
  });
  killed.Await();
  const std::string died = std::to_string(killed.pid());
  const std::string name = "QVOPL.mgmt." + InstanceString() + ".006.021";
  const std::string id = std::to_string(opltest::IdIn(PathOf(name)));
  ExpectHealthy();  // it may go on
  killed.Kill();
  killed.ExpectKilledBy(SIGKILL);
  ExpectFoundAndRepaired(
      Told("warning", name,
           {"process " + died + ", which is gone, was killed when it was about to remove the set " + id +
                " and had made it unusable.",
            "The next process that begins makes a new one.", "--fix removes the set and the file."}),
      "Repaired: removes the set and the file.");
}

TEST(DoctorLeftovers, FindsAndRemovesFilesOfDeadMakers) {
  Child dead([](Steps&) {});
  const pid_t pid = dead.pid();
  dead.ExpectSuccess();
  char hexadecimal[16];
  (void)std::snprintf(hexadecimal, sizeof hexadecimal, "%x", static_cast<unsigned>(pid));
  const std::string died = std::to_string(pid);
  const std::string temporary = FileOf("queue", ".mutex.") + "." + hexadecimal + ".1";
  const int set = opltest::MakeSet({1, 32000});
  opltest::WriteFile(PathOf(temporary), opltest::BytesOf(set));
  ExpectFoundAndRepaired(
      Told("note", temporary,
           {"was left by process " + died + ", which was killed while it made an object.",
            "Nobody can find what it names.", "--fix removes the file, and the object that it names."}),
      "Repaired: removes the file, and the object that it names.");
  EXPECT_FALSE(opltest::SetExists(set));

  const std::string listing = "OPL_ServerInfoGet.OUTPUT." + died + "-12";
  opltest::WriteFile(PathOf(listing), "");
  ExpectFoundAndRepaired(
      Told("note", listing,
           {"was left by process " + died + ", which was killed while it listed a server's processes.",
            "Nobody reads it any more.", "--fix removes the file."}),
      "Repaired: removes the file.");

  const std::string server = "ctl.OPL_DAEMON.controller." + InstanceString() + ".006.021";
  opltest::WriteFile(PathOf(server), opltest::BytesOf(pid));
  ExpectFoundAndRepaired(
      Told("note", server,
           {"names process " + died + " as the server's, which is gone.",
            "The next start of the server writes its own into it.", "--fix removes the file."}),
      "Repaired: removes the file.");

  const std::string registration = "own.semnat.4711." + InstanceString() + ".006.021";
  opltest::WriteFile(PathOf(registration), "");
  ExpectFoundAndRepaired(Told("note", registration,
                              {"registers the semaphore set 4711, which is gone.",
                               "qvopl clean will tell a failure of it.", "--fix removes the file."}),
                         "Repaired: removes the file.");

  const std::string count = FileOf("bell", ".event.") + ".count";
  opltest::WriteFile(PathOf(count), opltest::BytesOf(1));
  ExpectFoundAndRepaired(
      Told("note", count,
           {"has no FIFO beside it.", "It is replaced when an event of the name is made next.",
            "--fix removes the file."}),
      "Repaired: removes the file.");

  const std::string fifo = FileOf("bell", ".event.");
  ASSERT_EQ(0, ::mkfifo(PathOf(fifo).c_str(), 0600));
  ExpectFoundAndRepaired(Told("error", fifo,
                              {"has no count file: the event can be neither opened nor made.",
                               "Find out what removed the count file.", "--fix removes the file."}),
                         "Repaired: removes the file.");
}

TEST(DoctorLeftovers, LeavesFilesOfLivingMakersAlone) {
  char hexadecimal[16];
  (void)std::snprintf(hexadecimal, sizeof hexadecimal, "%x", static_cast<unsigned>(::getpid()));
  const std::string temporary = PathOf(FileOf("queue", ".mutex.") + "." + hexadecimal + ".1");
  const std::string listing = PathOf("OPL_ServerInfoGet.OUTPUT." + std::to_string(::getpid()) + "-12");
  const std::string server = PathOf("ctl.OPL_DAEMON.controller." + InstanceString() + ".006.021");
  opltest::WriteFile(temporary, opltest::BytesOf(4711));
  opltest::WriteFile(listing, "");
  opltest::WriteFile(server, opltest::BytesOf(::getpid()));
  EXPECT_EQ(0, Doctor({"--fix", "--yes"}).status);
  for (const std::string& path : {temporary, listing, server}) EXPECT_EQ(0, ::unlink(path.c_str()));
}

TEST(DoctorRubbish, FindsWhatStandsInTheWayOfAName) {
  const std::string link = FileOf("a", ".mutex.");
  const std::string directory = FileOf("b", ".mem.");
  const std::string file = FileOf("c", ".event.");
  const std::string small = FileOf("d", ".rwlock.");
  ASSERT_EQ(0, ::symlink("/etc/passwd", PathOf(link).c_str()));
  ASSERT_EQ(0, ::mkdir(PathOf(directory).c_str(), 0700));
  opltest::WriteFile(PathOf(file), "");
  opltest::WriteFile(PathOf(small), "abc");
  const ToolRun run = Doctor({"--fix", "--yes"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(
      run.out,
      ::testing::StartsWith(
          Told("error", link,
               {"is a symbolic link, which the library does not follow, in the place of an object file: "
                "nobody can make "
                "or open an object of the name.",
                "Find out who put it there, and remove it."}) +
          Told("error", directory,
               {"is a directory in the place of an object file: nobody can make or open an object of the "
                "name.",
                "Find out who put it there, and remove it."}) +
          Told("error", file,
               {"is a regular file in the place of a FIFO: nobody can make or open an object of the name.",
                "Find out who put it there, and remove it."}) +
          Told("error", small,
               {"is shorter than an id: nobody can make or open an object of the name.",
                "Remove it, or find out first who wrote it: the library did not.",
                "Repaired: removes the file."})));
  EXPECT_EQ(0, ::unlink(PathOf(link).c_str()));
  EXPECT_EQ(0, ::rmdir(PathOf(directory).c_str()));
  EXPECT_EQ(0, ::unlink(PathOf(file).c_str()));
}

TEST(DoctorRubbish, FindsASetThatSomebodyElseHasOperatedOn) {
  const std::string name = FileOf("queue", ".mutex.");
  const int set = opltest::MakeSet({2, 31999});
  opltest::WriteFile(PathOf(name), opltest::BytesOf(set));
  const ToolRun run = Doctor();
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, ::testing::StartsWith(Told(
                           "error", name,
                           {"names the semaphore set " + std::to_string(set) +
                                ", whose values (2, 31999) no mutex has: somebody else has operated on it.",
                            "End the processes that use it and run qvopl clean."})));
  EXPECT_EQ(0, ::unlink(PathOf(name).c_str()));
  opltest::RemoveSet(set);
}

TEST(DoctorRubbish, NeverPrintsControlCharacters) {
  const std::string name = "a\033[31m\n" + FileOf("b", ".mutex.");
  opltest::WriteFile(PathOf(name), "x");
  const ToolRun run = Doctor();
  EXPECT_THAT(run.out, ::testing::HasSubstr("a\\x1b[31m\\x0ab.mutex."));
  EXPECT_THAT(run.out, ::testing::Not(::testing::HasSubstr("\033")));
  EXPECT_EQ(0, ::unlink(PathOf(name).c_str()));
}

// A dead process's, as it is between semget and the writing of the id.
int OrphanOf(const opltest::Values& values) {
  Child maker([&](Steps& steps) { steps.Send(std::to_string(opltest::MakeSet(values))); });
  const int id = std::atoi(maker.Receive().c_str());
  maker.ExpectSuccess();
  return id;
}

TEST(DoctorOrphans, FindsAndRemovesSetsThatNoFileNames) {
  for (const auto& [values, what] :
       std::vector<std::pair<opltest::Values, std::string>>{{{1, 32000}, "mutex"},
                                                            {{1, 0, 0, 32000}, "read-write lock"},
                                                            {{32000, 1, 1, 1}, "management set"}}) {
    SCOPED_TRACE(what);
    const int set = OrphanOf(values);
    const std::string maker = std::to_string(::semctl(set, 0, GETPID));
    const ToolRun found = Doctor();
    EXPECT_THAT(found.out, ::testing::HasSubstr("is a " + what + " of user "));
    EXPECT_THAT(found.out,
                ::testing::HasSubstr(" that no file names and nobody uses; process " + maker +
                                     ", its last, is gone.\n         Nobody can find it any more.\n"
                                     "         --fix removes the set.\n"));
    EXPECT_EQ(0, Doctor({"--fix", "--yes"}).status);
    EXPECT_FALSE(opltest::SetExists(set));
    ExpectHealthy();
  }
}

TEST(DoctorOrphans, RemovesWhatMayBeAnotherProgramsOnlyWhenTold) {
  const int set = ::semget(IPC_PRIVATE, 2, 0600);
  Child maker([&](Steps& steps) { steps.Send(std::to_string(opltest::MakeSegment(100))); });
  const int segment = std::atoi(maker.Receive().c_str());
  maker.ExpectSuccess();
  const ToolRun young = Doctor();
  EXPECT_THAT(young.out, ::testing::Not(::testing::HasSubstr("semaphore set")));
  const ToolRun found = Doctor({"--age", "0", "--fix", "--yes"});
  EXPECT_EQ(1, found.status);
  EXPECT_THAT(found.out,
              ::testing::HasSubstr("It may be another program's as well: ipcrm -s " + std::to_string(set) +
                                   " removes it.\n         --fix --unsure removes the set.\n"));
  EXPECT_THAT(found.out, ::testing::HasSubstr(
                             "It may be another program's as well: ipcrm -m " + std::to_string(segment) +
                             " removes it.\n         --fix --unsure removes the segment.\n"));
  EXPECT_TRUE(opltest::SetExists(set));
  EXPECT_TRUE(opltest::SegmentExists(segment));
  EXPECT_EQ(0, Doctor({"--age", "0", "--fix", "--yes", "--unsure"}).status);
  EXPECT_FALSE(opltest::SetExists(set));
  EXPECT_FALSE(opltest::SegmentExists(segment));
}

TEST(DoctorOrphans, LeavesSetsAloneThatAreNoneOfTheLibrarys) {
  const int used = opltest::MakeSet({1, 5});
  const int own = opltest::MakeSet({1, 32000});  // of this process, which lives
  const int keyed = ::semget(4711, 2, IPC_CREAT | 0600);
  EXPECT_EQ(0, Doctor({"--age", "0", "--fix", "--yes", "--unsure"}).status);
  for (const int set : {used, own, keyed}) {
    EXPECT_TRUE(opltest::SetExists(set));
    opltest::RemoveSet(set);
  }
}

// Another product's, as a process tells by its environment.
TEST(DoctorOrphans, KnowsTheFilesOfOtherDirectoriesOfProcesses) {
  ASSERT_EQ(0, ::mkdir("other", 0700));
  const int set = OrphanOf({1, 32000});
  opltest::WriteFile("other/" + FileOf("queue", ".mutex."), opltest::BytesOf(set));
  EXPECT_EQ(1, Doctor().status);
  {
    Child neighbour([](Steps& steps) {
      (void)::setenv("QVOPL_IPC_PATH", (opltest::WorkDirectory() + "/other").c_str(), 1);
      (void)::fcntl(steps.toParent(), F_SETFD, 0);
      (void)::fcntl(steps.fromParent(), F_SETFD, 0);
      const std::string command = "printf . >&" + std::to_string(steps.toParent()) + "; read x <&" +
                                  std::to_string(steps.fromParent());
      (void)::execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
    });
    neighbour.Await();
    ExpectHealthy();
  }
  opltest::RemoveSet(set);
}

}  // namespace
