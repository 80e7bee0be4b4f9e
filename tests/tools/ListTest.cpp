// qvopl list: the states of all kinds of objects, whichever width made them and whichever width looks, and
// whatever else lies in the IPC directory.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"
#include "tests/tools/Listed.h"

namespace {

using opltest::BytesOf;
using opltest::Child;
using opltest::ConditionOf;
using opltest::IpcDirectory;
using opltest::Listed;
using opltest::MutexFile;
using opltest::OneListed;
using opltest::Peer;
using opltest::ProcessText;
using opltest::RunTool;
using opltest::StateOf;
using opltest::Steps;
using opltest::SyncActor;
using opltest::ToolRun;
using opltest::WriteFile;
using ::testing::HasSubstr;
using ::testing::Not;

std::string FileOf(const std::string& name, const std::string& marker) {
  return IpcDirectory() + "/" + name + marker + opltest::InstanceString() + opltest::kVersion;
}

pid_t DeadProcess() {
  Child child([](Steps&) {});
  const pid_t pid = child.pid();
  child.ExpectSuccess();
  return pid;
}

class List : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    EXPECT_EQ(0u, peer_.Do("begin"));
  }

  void TearDown() override {
    EXPECT_EQ(0u, peer_.Do("end"));
    peer_.Quit();
    WithPeer::TearDown();
  }

  std::string PeerText() { return ProcessText(peer_.process().pid()); }

  SyncActor peer_{GetParam()};
};
OPLTEST_WITH_EITHER_PEER(List);

TEST_P(List, CountsTheProcessesOfAnInstance) {
  EXPECT_EQ("2 processes", StateOf("management", ""));
  EXPECT_EQ(2, OneListed("management", "")["users"]);
  SyncActor third(GetParam());
  EXPECT_EQ(0u, third.Do("begin"));
  EXPECT_EQ("3 processes", StateOf("management", ""));
  third.Kill();
  EXPECT_EQ("2 processes", StateOf("management", ""));
}

TEST_P(List, TellsWhoHoldsAMutexAndHowManyWait) {
  EXPECT_EQ(0u, peer_.Do("mutex-create q 4"));
  EXPECT_EQ("free", StateOf("mutex", "q"));
  EXPECT_EQ("fine", ConditionOf("mutex", "q"));
  EXPECT_EQ(0u, peer_.Do("mutex-acquire q"));
  EXPECT_EQ("held, last operated by " + PeerText(), StateOf("mutex", "q"));
  EXPECT_EQ("busy", ConditionOf("mutex", "q"));

  SyncActor waiter(GetParam());
  EXPECT_EQ(0u, waiter.Do("begin"));
  EXPECT_EQ(0u, waiter.Do("mutex-open q 4"));
  waiter.Start("mutex-acquire q");
  opltest::AwaitSleepersOn(opltest::SetNamedBy(MutexFile("q")), 0);
  EXPECT_EQ("held, last operated by " + PeerText() + ", 1 waiting", StateOf("mutex", "q"));
  const auto object = OneListed("mutex", "q");
  EXPECT_EQ(2, object["users"]);
  EXPECT_EQ(peer_.process().pid(), object["lastOperatedBy"]);
  EXPECT_EQ("0600", object["mode"]);
  EXPECT_EQ(opltest::SetNamedBy(MutexFile("q")), object["id"]);

  EXPECT_EQ(0u, peer_.Do("mutex-release q"));
  EXPECT_EQ(0u, waiter.Finish());
  waiter.Kill();
  EXPECT_EQ("free", StateOf("mutex", "q"));
  EXPECT_EQ(1, OneListed("mutex", "q")["users"]);
  EXPECT_EQ(0u, peer_.Do("mutex-close q"));
}

TEST_P(List, TellsReadersAndWritersOfALock) {
  EXPECT_EQ(0u, peer_.Do("rwlock-create t 1"));
  EXPECT_EQ("free", StateOf("rwlock", "t"));
  EXPECT_EQ(0u, peer_.Do("rwlock-lock t 1"));
  SyncActor reader(GetParam());
  for (const char* const command : {"begin", "rwlock-open t 1", "rwlock-lock t 1"})
    EXPECT_EQ(0u, reader.Do(command));
  EXPECT_EQ("2 readers", StateOf("rwlock", "t"));

  SyncActor writer(GetParam());
  EXPECT_EQ(0u, writer.Do("begin"));
  EXPECT_EQ(0u, writer.Do("rwlock-open t 1"));
  writer.Start("rwlock-lock t 2");
  const int set = opltest::SetNamedBy(opltest::RWLockFile("t"));
  opltest::AwaitSleepersForZero(set, 2);
  EXPECT_EQ("2 readers, a writer waiting", StateOf("rwlock", "t"));

  EXPECT_EQ(0u, peer_.Do("rwlock-unlock t"));
  EXPECT_EQ(0u, reader.Do("rwlock-unlock t"));
  EXPECT_EQ(0u, writer.Finish());
  reader.Start("rwlock-lock t 1");
  opltest::AwaitSleepersForZero(set, 1);
  EXPECT_EQ(
      "held by a writer, last operated by " + ProcessText(writer.process().pid()) + ", a reader waiting",
      StateOf("rwlock", "t"));
  writer.Kill();
  EXPECT_EQ(0u, reader.Finish());
  EXPECT_EQ("1 reader", StateOf("rwlock", "t"));
  reader.Kill();
  EXPECT_EQ(0u, peer_.Do("rwlock-close t"));
}

TEST_P(List, CountsPostsAndHandlesOfAnEvent) {
  EXPECT_EQ(0u, peer_.Do("event-create e 2"));
  EXPECT_EQ("clear, 1 handle", StateOf("event", "e"));
  EXPECT_EQ(0u, peer_.Do("event-post e"));
  EXPECT_EQ("set, 1 post, 1 handle", StateOf("event", "e"));
  SyncActor other(GetParam());
  for (const char* const command : {"begin", "event-open e 2", "event-post e"})
    EXPECT_EQ(0u, other.Do(command));
  EXPECT_EQ("set, 2 posts, 2 handles", StateOf("event", "e"));
  EXPECT_EQ(1u, Listed("event", "e").size()) << "the count file is no object of its own";
  EXPECT_EQ(0u, other.Do("event-reset e"));
  EXPECT_EQ("clear, 2 handles", StateOf("event", "e"));
  for (const char* const command : {"event-close e", "end"}) EXPECT_EQ(0u, other.Do(command));
  other.Quit();
  EXPECT_EQ(0u, peer_.Do("event-close e"));
}

TEST_P(List, ShowsOneInstanceOrAll) {
  EXPECT_EQ(0u, peer_.Do("mutex-create q 8"));
  WriteFile(IpcDirectory() + "/q.mutex.OTHER.006.021", BytesOf(opltest::SetNamedBy(MutexFile("q", "all"))));
  EXPECT_THAT(RunTool({"list"}).out, HasSubstr("instance OTHER\n"));
  const std::string own = RunTool({"list", "--instance", opltest::InstanceString()}).out;
  EXPECT_THAT(own, HasSubstr("instance " + opltest::InstanceString() + "\n"));
  EXPECT_THAT(own, HasSubstr("management"));
  EXPECT_THAT(own, Not(HasSubstr("OTHER")));
  EXPECT_THAT(own, Not(HasSubstr("all users")));
  const std::string all = RunTool({"list", "--instance", "all", "q"}).out;
  EXPECT_TRUE(all.starts_with("all users\nKIND")) << all;
  EXPECT_THAT(all, HasSubstr("0666"));
  ::unlink((IpcDirectory() + "/q.mutex.OTHER.006.021").c_str());
  EXPECT_EQ(0u, peer_.Do("mutex-close q"));
}

class ListHeld : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    holder_.Await();
  }

  void LetGo() {
    holder_.Go();
    holder_.ExpectSuccess();
  }

  void Kill() {
    holder_.Kill();
    holder_.ExpectKilledBy(SIGKILL);
  }

  Peer holder_{opltest::kHolder, GetParam()};
};
OPLTEST_WITH_EITHER_PEER(ListHeld);

TEST_P(ListHeld, TellsOfBlocksLockFilesAndSockets) {
  EXPECT_EQ("64 kB, 1 attached, count 1", StateOf("memory", "b"));
  EXPECT_EQ(65536, OneListed("memory", "b")["size"]);
  EXPECT_EQ("held by " + ProcessText(holder_.pid()), StateOf("lockfile", "l"));
  EXPECT_EQ("listening", StateOf("socket", "s"));
  OPL_SharedMem* block = nullptr;
  void* address = nullptr;
  ASSERT_EQ(OPL_OK, OPL_SharedMemOpen(&block, 0, "b", &address, OPL_SHAREDMEM_PRIVATE));
  EXPECT_EQ("64 kB, 2 attached, count 2", StateOf("memory", "b"));
  EXPECT_EQ(OPL_OK, OPL_SharedMemClose(&block));
  LetGo();
  EXPECT_EQ(0u, Listed("memory", "b").size());
}

TEST_P(ListHeld, TellsWhatAKilledProcessLeaves) {
  OPL_SharedMem* block = nullptr;
  void* address = nullptr;
  ASSERT_EQ(OPL_OK, OPL_SharedMemOpen(&block, 0, "b", &address, OPL_SHAREDMEM_PRIVATE));
  Kill();
  EXPECT_EQ("64 kB, 1 attached, count 2", StateOf("memory", "b"));
  EXPECT_EQ("held by nobody", StateOf("lockfile", "l"));
  EXPECT_EQ("bound by nobody: its process is gone", StateOf("socket", "s"));
  EXPECT_EQ("broken", ConditionOf("socket", "s"));
  EXPECT_EQ(1, RunTool({"list"}).status);
  EXPECT_EQ(OPL_OK, OPL_SharedMemClose(&block));
  EXPECT_EQ("64 kB, 0 attached", StateOf("memory", "b"));
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
}

class ListFiles : public opltest::Instance {};

TEST_F(ListFiles, TellsOfRegisteredSetsAndQueues) {
  const int set = opltest::MakeSet({3, 0, 5});
  const int queue = ::msgget(IPC_PRIVATE, 0600);
  ASSERT_EQ(OPL_OK, OPL_SyncSemNativeRegisterIPC(0, "app", static_cast<uint32_t>(set)));
  ASSERT_EQ(OPL_OK, OPL_MsgqNativeRegisterIPC(0, "app", static_cast<uint32_t>(queue)));
  EXPECT_EQ("3 semaphores", StateOf("semaphores", "app"));
  EXPECT_EQ("0 messages", StateOf("queue", "app"));
  const struct {
    long type;
    char text[4];
  } message = {1, {'t', 'e', 'x', 't'}};
  for (int i = 0; i < 12; ++i) ASSERT_EQ(0, ::msgsnd(queue, &message, sizeof message.text, 0));
  EXPECT_EQ("12 messages, 48 B", StateOf("queue", "app"));
  EXPECT_EQ(0, RunTool({"list"}).status);
  opltest::RemoveSet(set);
  ASSERT_EQ(0, ::msgctl(queue, IPC_RMID, nullptr));
  EXPECT_EQ("its set is gone", StateOf("semaphores", "app"));
  EXPECT_EQ("its queue is gone", StateOf("queue", "app"));
  EXPECT_EQ(1, RunTool({"list"}).status);
  (void)OPL_InitTerminateIPC(0, "*");
}

TEST_F(ListFiles, TellsWhetherAServerRuns) {
  const std::string file =
      IpcDirectory() + "/ctl.OPL_DAEMON.controller." + opltest::InstanceString() + ".006.021";
  WriteFile(file, BytesOf(::getpid()));
  EXPECT_EQ("running as " + ProcessText(::getpid()), StateOf("server", "ctl"));
  const pid_t gone = DeadProcess();
  WriteFile(file, BytesOf(gone));
  EXPECT_EQ("process " + std::to_string(gone) + " is gone", StateOf("server", "ctl"));
  EXPECT_EQ("broken", ConditionOf("server", "ctl"));
  ::unlink(file.c_str());
}

TEST_F(ListFiles, KnowsASetThatADeadProcessWasAboutToRemove) {
  SyncActor owner(opltest::kWidth);
  EXPECT_EQ(0u, owner.Do("begin"));
  EXPECT_EQ(0u, owner.Do("mutex-create q 4"));
  const int set = opltest::SetNamedBy(MutexFile("q"));
  owner.Kill();
  Child remover([set](Steps&) { EXPECT_EQ(OPL_OK, OPL_PrivateUseCountExclusive(set, 1)); });
  const pid_t pid = remover.pid();
  remover.ExpectSuccess();
  EXPECT_EQ("taken for removal by process " + std::to_string(pid) + ", which is gone", StateOf("mutex", "q"));
  EXPECT_EQ("broken", ConditionOf("mutex", "q"));
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
}

// Names that the library gives, on things that it did not make.
TEST_F(ListFiles, MarksWhatIsNoObject) {
  const std::string file = FileOf("short", ".mutex.");
  WriteFile(file, "123");
  ASSERT_EQ(0, ::symlink("/dev/zero", FileOf("link", ".mutex.").c_str()));
  ASSERT_EQ(0, ::mkfifo(FileOf("fifo", ".mem.").c_str(), 0600));
  ASSERT_EQ(0, ::mkdir(FileOf("folder", ".rwlock.").c_str(), 0700));
  WriteFile(FileOf("file", ".event."), "");
  WriteFile(FileOf("gone", ".mutex."), BytesOf(0x7FFFFFFF));
  WriteFile(IpcDirectory() + "/old.mutex.T.005.999", "rubbish");
  WriteFile(IpcDirectory() + "/rubbish", "rubbish");
  EXPECT_EQ("shorter than an id", StateOf("mutex", "short"));
  EXPECT_EQ("no mutex, but a link", StateOf("mutex", "link"));
  EXPECT_EQ("no memory, but a FIFO", StateOf("memory", "fifo"));
  EXPECT_EQ("no rwlock, but a directory", StateOf("rwlock", "folder"));
  EXPECT_EQ("no event, but a file", StateOf("event", "file"));
  EXPECT_EQ("its set is gone", StateOf("mutex", "gone"));
  EXPECT_EQ("of version 005.999, not looked into", StateOf("mutex", "old"));
  EXPECT_THAT(RunTool({"list"}).out, Not(HasSubstr("rubbish")));
  for (const auto& name : opltest::FilesIn(IpcDirectory()))
    if (!name.starts_with("QVOPL.mgmt.")) std::filesystem::remove(IpcDirectory() + "/" + name);
}

TEST_F(ListFiles, MarksLeftoversOfDeadProcesses) {
  const pid_t gone = DeadProcess();
  char suffix[64];
  std::snprintf(suffix, sizeof suffix, ".%x.1", static_cast<unsigned>(gone));
  const std::string leftover = MutexFile("q") + suffix;
  WriteFile(leftover, BytesOf(1));
  EXPECT_EQ("left over by process " + std::to_string(gone) + ", which is gone", StateOf("mutex", "q"));
  ::unlink(leftover.c_str());
  std::snprintf(suffix, sizeof suffix, ".%x.1", static_cast<unsigned>(::getpid()));
  WriteFile(MutexFile("q") + suffix, BytesOf(1));
  EXPECT_EQ("being made by " + ProcessText(::getpid()), StateOf("mutex", "q"));
  ::unlink((MutexFile("q") + suffix).c_str());
}

TEST_F(ListFiles, PrintsNoControlCharacterOfAName) {
  const std::string file = FileOf("a\033[31m\n\x9b\xc2\x9bz\\", ".lckfile.");
  WriteFile(file, "");
  const ToolRun run = RunTool({"list"});
  EXPECT_THAT(run.out, HasSubstr("a\\x1b[31m\\x0a\\x9b\\xc2\\x9bz\\\\  "));
  for (const char byte : run.out) EXPECT_TRUE(byte == '\n' || (byte >= ' ' && byte < 0x7F)) << int{byte};
  EXPECT_EQ(1u, Listed("lockfile", "a\\x1b[31m\\x0a\\x9b\\xc2\\x9bz\\\\").size());
  ::unlink(file.c_str());
}

// The set goes before its file, and many come and go while they are listed.
TEST_F(ListFiles, LeavesOutWhatVanishesMeanwhile) {
  Child churn([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    steps.Reach();
    for (pollfd end{steps.fromParent(), POLLIN, 0}; ::poll(&end, 1, 0) == 0;) {
      OPL_SyncMutex* mutex = nullptr;
      EXPECT_EQ(OPL_OK, OPL_SyncMutexCreate(&mutex, 0, "q", OPL_SYNC_MUTEX_PRIVATE));
      EXPECT_EQ(OPL_OK, OPL_SyncMutexClose(&mutex));
    }
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  churn.Await();
  for (int i = 0; i < 50; ++i) {
    const ToolRun run = RunTool({"list"});
    EXPECT_EQ(0, run.status) << run.out << run.err;
  }
  churn.Go();
  churn.ExpectSuccess();
}

TEST_F(ListFiles, MarksWhatItMayNotRead) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  opltest::LetOtherUsersIn();
  SyncActor owner(opltest::kWidth);
  EXPECT_EQ(0u, owner.Do("begin"));
  EXPECT_EQ(0u, owner.Do("mutex-create own 4"));
  EXPECT_EQ(0u, owner.Do("mutex-create all 8"));
  Child other([](Steps&) {
    opltest::BecomeOtherUser();
    ASSERT_EQ(0, ::chdir("/tmp"));
    const ToolRun run = RunTool({"list"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_THAT(run.out, ::testing::ContainsRegex("mutex +own .* no permission to read it\n"));
    EXPECT_THAT(run.out, HasSubstr("not read: it is another user's, and its access time would change\n"));
  });
  other.ExpectSuccess();
  for (const char* const command : {"mutex-close all", "mutex-close own", "end"})
    EXPECT_EQ(0u, owner.Do(command));
  owner.Quit();
}

TEST_F(ListFiles, FitsANarrowTerminal) {
  SyncActor owner(opltest::kWidth);
  EXPECT_EQ(0u, owner.Do("begin"));
  EXPECT_EQ(0u, owner.Do("mutex-create longestname 4"));
  EXPECT_EQ(0u, owner.Do("mutex-acquire longestname"));
  ASSERT_EQ(0, ::setenv("NO_COLOR", "1", 1));
  for (const unsigned short columns : std::vector<unsigned short>{40, 60, 80, 132}) {
    std::istringstream lines(opltest::RunToolOnTerminal({"list"}, columns).out);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      EXPECT_LE(line.size(), columns) << line;
      EXPECT_THAT(line, Not(HasSubstr("\033")));
    }
  }
  ASSERT_EQ(0, ::unsetenv("NO_COLOR"));
  EXPECT_THAT(opltest::RunToolOnTerminal({"list"}, 80).out, HasSubstr("\033["));
  EXPECT_THAT(RunTool({"list"}).out, Not(HasSubstr("\033")));
  EXPECT_EQ(0u, owner.Do("mutex-release longestname"));
  for (const char* const command : {"mutex-close longestname", "end"}) EXPECT_EQ(0u, owner.Do(command));
  owner.Quit();
}

TEST_F(ListFiles, SaysWhatItCouldNotLookAt) {
  ToolRun run = RunTool({"list", "--ipc-path", "/no/such/directory"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("qvopl: the IPC directory /no/such/directory: No such file or directory\n", run.err);
  run = RunTool({"list", "--no-such-\033option"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ(
      "qvopl: The following argument was not expected: --no-such-\\x1boption; qvopl --help tells more\n",
      run.err);
  EXPECT_EQ("qvopl: lits is no command; qvopl --help tells more\n", RunTool({"lits"}).err);
  EXPECT_EQ("qvopl: stat is no command; qvopl --help tells more\n", RunTool({"server", "stat"}).err);
  EXPECT_EQ("qvopl: no command is given; qvopl --help tells more\n", RunTool({}).err);
  EXPECT_EQ(2, RunTool({}).status);
  run = RunTool({"list", "--help"});
  EXPECT_EQ(0, run.status);
  EXPECT_THAT(run.out, HasSubstr("Examples:\n  qvopl list "));
}

TEST_F(ListFiles, SaysThatItsOutputWasLost) {
  for (const char* const options : {"list", "list --json", "explain --json", "watch --count 1"}) {
    const std::string command = opltest::ToolOf(opltest::kWidth) + " " + options + " >/dev/full 2>said";
    const int status = std::system(command.c_str());
    EXPECT_EQ(2, WIFEXITED(status) ? WEXITSTATUS(status) : -1) << options;
    EXPECT_EQ("qvopl: the output could not be written\n", opltest::ContentsOf("said")) << options;
  }
}

// As a process that has the IPC directory by a path from its own current directory.
TEST_F(ListFiles, TellsOfASocketBoundToAPathFromElsewhere) {
  const std::string name = "s.sck." + opltest::InstanceString() + ".006.021";
  std::filesystem::create_directory_symlink(IpcDirectory(), "ipc");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "ipc/%s", name.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  EXPECT_EQ("bound", StateOf("socket", "s"));
  EXPECT_THAT(RunTool({"doctor", "--json"}).out, Not(HasSubstr("dead-socket")));
  EXPECT_EQ(0, ::close(fd));
  EXPECT_EQ("bound by nobody: its process is gone", StateOf("socket", "s"));
  EXPECT_EQ(0, ::unlink((IpcDirectory() + "/" + name).c_str()));
}

TEST_F(ListFiles, ListsThousandsOfObjects) {
  constexpr int kObjects = 5000;
  const uint16_t values[] = {1, OPL_PRIVATE_USE_COUNT_LIMIT};
  for (int i = 0; i < kObjects; ++i) {
    int32_t id = -1;
    ASSERT_EQ(OPL_OK,
              OPL_PrivateSemIdCreate(MutexFile("m" + std::to_string(i)).c_str(), 0600, 0600, 2, values, &id));
  }
  const ToolRun run = RunTool({"list", "m[0-9]*"});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(kObjects + 2, std::count(run.out.begin(), run.out.end(), '\n'));
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
}

}  // namespace
