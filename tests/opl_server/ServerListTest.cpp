// The list of a server's processes: what is made of the script's lines, which of them are kept, and what is
// left when the system refuses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_Thread.h"
#include "tests/opl_server/Servers.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"
#include "tests/support/User.h"

namespace {

using opltest::ContentsOf;
using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::FakeScripts;
using opltest::Fault;
using opltest::Footprint;
using opltest::ListProcesses;
using opltest::NameSpawner;
using opltest::NewServer;
using opltest::Replacement;
using opltest::ServerHandle;
using opltest::ServerList;
using opltest::WriteScript;

// Where the shell writes the list that this thread asks for.
std::string OutputFile() {
  uint32_t process = 0;
  uint32_t thread = 0;
  EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&process));
  EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(&thread));
  return opltest::IpcDirectory() + "/OPL_ServerInfoGet.OUTPUT." + std::to_string(process) + "-" +
         std::to_string(static_cast<int32_t>(thread));
}

class ServerListing : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    NameSpawner("1");
    ListProcesses("");
    server_ = NewServer({.scripts = FakeScripts()});
  }
  void TearDown() override {
    server_.reset();
    Instance::TearDown();
  }

  // What a list of these lines is, one entry a line.
  std::string Listed(const std::string& lines) {
    ListProcesses(lines);
    ServerList list(server_);
    EXPECT_EQ(OPL_OK, list.Get());
    std::string all;
    for (uint32_t i = 0; i < list.Count(); ++i) all += list.Line(i) + "\n";
    return all;
  }
  // The ids of those that are kept of processes "PID PPID".
  std::string Kept(const std::string& lines) {
    ListProcesses(lines);
    ServerList list(server_);
    EXPECT_EQ(OPL_OK, list.Get());
    return list.Pids();
  }

  ServerHandle server_;
};

TEST_F(ServerListing, IsEmptyWhereNoLineHasTheName) {
  EXPECT_EQ("", Listed(""));
  EXPECT_EQ("", Listed("1 1 10:01 00:00:02 another\n"));
}

TEST_F(ServerListing, HasAnArrayWhenItIsEmpty) {
  OPL_ServerInfo** list = nullptr;
  uint32_t count = 4711;
  EXPECT_EQ(OPL_OK, OPL_ServerInfoGet(server_.get(), &list, &count));
  EXPECT_NE(nullptr, list);
  EXPECT_EQ(0u, count);
  EXPECT_EQ(OPL_OK, OPL_ServerInfoDestroy(server_.get(), &list, count));
  EXPECT_EQ(nullptr, list);
}

TEST_F(ServerListing, SkipsLeadingBlanksAndWhatFollowsTheFourthField) {
  EXPECT_EQ("123 1 10:01 00:00:02\n", Listed("  123 1 10:01 00:00:02 daemon\n"));
  EXPECT_EQ("123 1 Nov02 1-00:00:02\n",
            Listed("123    1  Nov02   1-00:00:02  daemon with 5 more  words  \n"));
}

TEST_F(ServerListing, TakesALineWithoutItsNewline) {
  EXPECT_EQ("123 1 10:01 00:00:02\n", Listed("123 1 10:01 00:00:02 daemon"));
}

TEST_F(ServerListing, LeavesMissingFieldsEmpty) {
  EXPECT_EQ("123 1 10:01 daemon\n", Listed("123 1 10:01 daemon\n"));
  EXPECT_EQ("123 1 daemon \n", Listed("123 1 daemon\n"));
}

TEST_F(ServerListing, TakesAWordForTheNumber0) {
  ASSERT_NO_FATAL_FAILURE(NameSpawner("0"));
  EXPECT_EQ("0 0  \n", Listed("daemon\n"));
  EXPECT_EQ("123 0  \n", Listed("123 daemon\n"));
  EXPECT_EQ("0 0 a b\n", Listed("daemon x a b\n"));
}

TEST_F(ServerListing, SplitsAtBlanksOnly) {
  EXPECT_EQ("123 1 10:01\t00:00:02 daemon\n", Listed("123 1 10:01\t00:00:02 daemon\n"));
}

TEST_F(ServerListing, SkipsEmptyLines) {
  WriteScript("OPL_ServerPS", "printf '\\n\\n5 1 a b daemon\\n\\n6 1 a b daemon\\n\\n'");
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ("5 6 ", list.Pids());
}

TEST_F(ServerListing, CutsFieldsThatAreTooLong) {
  const std::string fifty(50, 's');
  const std::string much(5000, 'c');
  const std::string digits(5000, '9');
  EXPECT_EQ("5 1 " + fifty.substr(1) + " " + much.substr(0, 49) + "\n",
            Listed("5 1 " + fifty + " " + much + " daemon\n"));
  EXPECT_EQ("7 1 " + fifty.substr(1) + " " + fifty.substr(1) + "\n",
            Listed("7 1 " + fifty.substr(1) + " " + fifty.substr(1) + " daemon\n"));
  EXPECT_EQ("4294967295 1 a b\n", Listed(digits + " 1 a b daemon\n"));
}

TEST_F(ServerListing, HasTheSameNumbersInBothWidths) {
  EXPECT_EQ("4294967295 1 a b\n", Listed("4294967295 1 a b daemon\n"));
  EXPECT_EQ("4294967295 1 a b\n", Listed("4294967297 1 a b daemon\n"));
  EXPECT_EQ("4294967295 1 a b\n", Listed("99999999999999999999999999999999 1 a b daemon\n"));
  EXPECT_EQ("4294967295 1 a b\n", Listed("-5 1 a b daemon\n"));
  EXPECT_EQ("12 1 a b\n", Listed("0000000000000000000000012x 1 a b daemon\n"));
}

// grep takes what has a NUL for a binary file, and says so in a line of its own.
TEST_F(ServerListing, SurvivesRubbish) {
  std::string rubbish;
  for (int i = 0; i < 20000; ++i) rubbish += static_cast<char>(i * 7919 % 256);
  ListProcesses(rubbish + " daemon\n5 1 a b daemon\n");
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  // The rubbish as it is, without a grep between.
  const Replacement shell(
      "system", +[](const char* command) {
        const std::string text = ContentsOf("listing");
        opltest::WriteFile(std::strrchr(command, '>') + 2, text);
        return 0;
      });
  ServerList raw(server_);
  EXPECT_EQ(OPL_OK, raw.Get());
  EXPECT_EQ("5 ", raw.Pids());
}

TEST_F(ServerListing, KeepsWhatFollowsANul) {
  const Replacement shell(
      "system", +[](const char* command) {
        opltest::WriteFile(std::strrchr(command, '>') + 2,
                           std::string("5 1 a\0b c daemon\n\0\n6 1 a b\n", 26));
        return 0;
      });
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  ASSERT_EQ(2u, list.Count());
  EXPECT_EQ("5 1 a c", list.Line(0));
  EXPECT_EQ("6 1 a b", list.Line(1));
}

// No grep lets such a line through.
TEST_F(ServerListing, SkipsALineOfBlanksAndSaysSo) {
  const Replacement shell(
      "system", +[](const char* command) {
        opltest::WriteFile(std::strrchr(command, '>') + 2, "   \n5 1 a b daemon\n ");
        return 0;
      });
  ServerList list(server_);
  opltest::ForgetFailure();
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ("5 ", list.Pids());
  ExpectError(0x050B16, "ParseLine: invalid ps output format.");
}

std::string ManyLines(int count) {
  std::string lines;
  for (int i = 1; i <= count; ++i) lines += std::to_string(100 + i) + " 1 10:01 00:00:02 daemon\n";
  return lines;
}

TEST_F(ServerListing, HasRoomForAThousandAndGrowsByAThousand) {
  for (const int count : {999, 1000, 1001, 2001}) {
    ListProcesses(ManyLines(count));
    ServerList list(server_);
    EXPECT_EQ(OPL_OK, list.Get());
    ASSERT_EQ(static_cast<uint32_t>(count), list.Count());
    EXPECT_EQ(std::to_string(100 + count) + " 1 10:01 00:00:02", list.Line(list.Count() - 1));
  }
}

TEST_F(ServerListing, AllocatesABufferAnArrayAndARecordALineAndReleasesThem) {
  const auto allocated = [&](int count) {
    ListProcesses(ManyLines(count));
    const CountedMemory memory;
    {
      ServerList list(server_);
      EXPECT_EQ(OPL_OK, list.Get());
      EXPECT_EQ(count + 1, memory.Living());
    }
    EXPECT_EQ(0, memory.Living());
    return memory.Allocated();
  };
  const int one = allocated(1);
  EXPECT_EQ(one + 9, allocated(10));
}

TEST_F(ServerListing, TakesAHundredThousandLines) {
  ListProcesses(ManyLines(100000));
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ(100000u, list.Count());
}

// Which are kept: the spawner is process 1.

TEST_F(ServerListing, KeepsChildrenOfTheSpawnerAndTheirDescendants) {
  EXPECT_EQ("10 20 30 ", Kept("10 1 a b daemon\n20 10 a b daemon\n30 20 a b daemon\n"));
  EXPECT_EQ("30 20 10 ", Kept("30 20 a b daemon\n20 10 a b daemon\n10 1 a b daemon\n"));
}

TEST_F(ServerListing, DropsWhoseParentIsNotListed) {
  EXPECT_EQ("", Kept("10 7 a b daemon\n20 10 a b daemon\n"));
  EXPECT_EQ("10 30 ", Kept("10 1 a b daemon\n20 7 a b daemon\n30 10 a b daemon\n40 20 a b daemon\n"));
}

TEST_F(ServerListing, DropsTheSpawnerItselfAndKeepsItsChildren) {
  EXPECT_EQ("10 ", Kept("1 0 a b daemon\n10 1 a b daemon\n"));
}

TEST_F(ServerListing, DropsItsOwnParentAndCyclesOfParents) {
  EXPECT_EQ("10 ", Kept("5 5 a b daemon\n6 5 a b daemon\n10 1 a b daemon\n"));
  EXPECT_EQ("10 ", Kept("2 3 a b daemon\n3 4 a b daemon\n4 2 a b daemon\n5 4 a b daemon\n10 1 a b daemon\n"));
}

TEST_F(ServerListing, KeepsASpawnerThatIsItsOwnParent) {
  EXPECT_EQ("1 10 ", Kept("1 1 a b daemon\n10 1 a b daemon\n"));
}

TEST_F(ServerListing, FollowsTheFirstEntryOfAProcess) {
  EXPECT_EQ("10 20 20 ", Kept("10 1 a b daemon\n20 10 a b daemon\n20 7 a b daemon\n20 1 a b daemon\n"));
  EXPECT_EQ("10 ", Kept("10 7 a b daemon\n10 1 a b daemon\n20 10 a b daemon\n"));
}

TEST_F(ServerListing, FollowsAChainOf10000Parents) {
  std::string related;
  std::string unrelated;
  for (int i = 0; i < 10000; ++i) {
    related += std::to_string(20000 - i) + " " + std::to_string(i == 9999 ? 1 : 19999 - i) + " a b daemon\n";
    unrelated +=
        std::to_string(20000 - i) + " " + std::to_string(i == 9999 ? 7 : 19999 - i) + " a b daemon\n";
  }
  ListProcesses(related);
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ(10000u, list.Count());
  EXPECT_EQ("", Kept(unrelated));
}

// The script, the command and the output file.

TEST_F(ServerListing, RunsTheScriptThroughTheShell) {
  static std::string command;
  const Replacement shell(
      "system", +[](const char* text) {
        command = text;
        return 0;
      });
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ(FakeScripts() + "/OPL_ServerPS | grep daemon | grep -v grep > " + OutputFile(), command);
}

TEST_F(ServerListing, HasRoomForTheLongestParameters) {
  const ServerHandle server =
      NewServer({.scripts = std::string(4094, 's'), .process = std::string(254, 'p')});
  ServerList list(server);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ(0u, list.Count());
}

TEST_F(ServerListing, DoesNotLookAtTheScriptsExitStatus) {
  WriteScript("OPL_ServerPS", "echo 5 1 a b daemon\nexit 3");
  EXPECT_EQ("5 ", [&] {
    ServerList list(server_);
    EXPECT_EQ(OPL_OK, list.Get());
    return list.Pids();
  }());
  const ServerHandle server = NewServer({.scripts = "/no/such/directory"});
  ServerList list(server);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ(0u, list.Count());
}

TEST_F(ServerListing, IsReadWhereTheHostIgnoresItsChildren) {
  ASSERT_NE(SIG_ERR, ::signal(SIGCHLD, SIG_IGN));
  EXPECT_EQ("5 1 a b\n", Listed("5 1 a b daemon\n"));
}

TEST_F(ServerListing, LeavesNoFileAndNoDescriptor) {
  const Footprint before = Footprint::Now();
  EXPECT_EQ("", Listed(""));
  EXPECT_EQ("5 1 a b\n", Listed("5 1 a b daemon\n"));
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(ServerListing, WritesToAFileThatOthersCannotRead) {
  static struct stat status;
  static std::string output;
  output = OutputFile();
  const Replacement shell(
      "system", +[](const char*) { return ::stat(output.c_str(), &status); });
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ(0600u, status.st_mode & 07777);
  EXPECT_EQ(::geteuid(), status.st_uid);
}

TEST_F(ServerListing, ReplacesWhatADeadProcessHasLeft) {
  opltest::WriteFile(OutputFile(), "99 1 a b daemon\n");
  EXPECT_EQ("5 1 a b\n", Listed("5 1 a b daemon\n"));
  EXPECT_FALSE(::access(OutputFile().c_str(), F_OK) == 0);
}

std::string OpenFailure(const char* number) {
  return std::string("OPL_ServerInfoGet: open ") + number + "\nFile " + OutputFile();
}

TEST_F(ServerListing, RefusesALinkUnderTheOutputsName) {
  opltest::WriteFile("victim", "precious");
  ASSERT_EQ(0, ::symlink((opltest::WorkDirectory() + "/victim").c_str(), OutputFile().c_str()));
  ServerList list(server_);
  EXPECT_EQ(0x050B0Bu, list.Get());
  ExpectError(EEXIST, OpenFailure("17,File exists").c_str());
  EXPECT_EQ("precious", ContentsOf("victim"));
  EXPECT_EQ(0, ::unlink(OutputFile().c_str()));
}

TEST_F(ServerListing, RefusesADirectoryAndAFifoUnderTheOutputsName) {
  ASSERT_EQ(0, ::mkdir(OutputFile().c_str(), 0700));
  EXPECT_EQ(0x050B0Bu, ServerList(server_).Get());
  ASSERT_EQ(0, ::rmdir(OutputFile().c_str()));
  ASSERT_EQ(0, ::mkfifo(OutputFile().c_str(), 0600));
  EXPECT_EQ(0x050B0Bu, ServerList(server_).Get());
  ASSERT_EQ(0, ::unlink(OutputFile().c_str()));
}

TEST_F(ServerListing, RefusesAnotherUsersFileUnderTheOutputsName) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "only root can give a file away";
  opltest::WriteFile(OutputFile(), "theirs");
  ASSERT_EQ(0, ::chown(OutputFile().c_str(), opltest::kOtherUser, 0));
  ServerList list(server_);
  EXPECT_EQ(0x050B0Bu, list.Get());
  ExpectError(EEXIST, OpenFailure("17,File exists").c_str());
  EXPECT_EQ("theirs", ContentsOf(OutputFile()));
  EXPECT_EQ(0, ::unlink(OutputFile().c_str()));
}

TEST_F(ServerListing, IsEachThreadsOwn) {
  ListProcesses(ManyLines(50));
  opltest::RunAtOnce(4, [&](int) {
    const ServerHandle server = NewServer({.scripts = FakeScripts()});
    for (int i = 0; i < 5; ++i) {
      ServerList list(server);
      EXPECT_EQ(OPL_OK, list.Get());
      EXPECT_EQ(50u, list.Count());
    }
  });
}

// Refusals.

TEST_F(ServerListing, RefusesNullArguments) {
  OPL_ServerInfo** list = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGet(server_.get(), nullptr, nullptr));
  ExpectError(0x050B26, "OPL_ServerInfoGet: pppServerInfo is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGet(server_.get(), &list, nullptr));
  ExpectError(0x050B26, "OPL_ServerInfoGet: pNumProcess is NULL.");
  EXPECT_EQ(0x050B26u, OPL_ServerInfoGet(nullptr, &list, &count));
  ExpectError(0x050B26, "OPL_ServerInfoGet: pServer is NULL.");
}

class ServerListingFailing : public ServerListing {
 protected:
  void ExpectFailure(uint32_t code, uint32_t recorded, const std::string& message) {
    const Footprint before = Footprint::Now();
    const CountedMemory memory;
    OPL_ServerInfo** list = nullptr;
    uint32_t count = 4711;
    EXPECT_EQ(code, OPL_ServerInfoGet(server_.get(), &list, &count));
    ExpectError(recorded, message.c_str());
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(4711u, count);
    EXPECT_EQ(0, memory.Living());
    EXPECT_EQ(before, Footprint::Now());
  }
};

TEST_F(ServerListingFailing, TellsThatTheShellCouldNotBeRun) {
  const Fault fault("system", 1, EAGAIN);
  ExpectFailure(0x050B0A, EAGAIN, "OPL_ServerInfoGet: system 11,Resource temporarily unavailable.");
}

TEST_F(ServerListingFailing, TellsThatTheOutputCouldNotBeOpened) {
  const Fault fault("open64", 1, EMFILE);
  ExpectFailure(0x050B0B, EMFILE, OpenFailure("24,Too many open files"));
}

TEST_F(ServerListingFailing, TellsThatTheOutputCouldNotBeLookedAt) {
  const Fault fault("fstat64", 1, EIO);
  ExpectFailure(0x050B0C, EIO, "OPL_ServerInfoGet: fstat 5,Input/output error\nFile " + OutputFile());
}

TEST_F(ServerListingFailing, TellsThatTheOutputCouldNotBeRead) {
  ListProcesses("5 1 a b daemon\n");
  const Fault fault("pread64", 1, EIO);
  ExpectFailure(0x050B0D, EIO, "OPL_ServerInfoGet: read 5,Input/output error\nFile " + OutputFile());
}

TEST_F(ServerListingFailing, ReadsOnAfterAnInterruption) {
  const Fault fault("pread64", 1, EINTR);
  EXPECT_EQ("5 1 a b\n", Listed("5 1 a b daemon\n"));
  EXPECT_TRUE(fault.Fired());
}

TEST_F(ServerListingFailing, TellsThatTheOutputHasShrunk) {
  ListProcesses("5 1 a b daemon\n");
  const std::string output = OutputFile();
  const Fault fault("pread64", 1, [&] { EXPECT_EQ(0, ::truncate(output.c_str(), 7)); });
  ExpectFailure(0x050B0D, 0x050B0D,
                "OPL_ServerInfoGet: read invalid size (wanted 15, read 7)\nFile " + output);
}

TEST_F(ServerListingFailing, TakesAnOutputThatHasGrown) {
  ListProcesses("5 1 a b daemon\n");
  const std::string output = OutputFile();
  const Fault fault("pread64", 1, [&] { EXPECT_EQ(0, ::truncate(output.c_str(), 1000000)); });
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  EXPECT_EQ("5 ", list.Pids());
}

// Sizes that 32 bits do not hold, and the largest one that they do, which has no room for a byte more.
TEST_F(ServerListingFailing, HasNoMemoryForAnOutputOf4GB) {
  static off64_t size;
  const Replacement shell(
      "system", +[](const char* command) { return ::truncate64(std::strrchr(command, '>') + 2, size); });
  for (const off64_t tooLarge : {off64_t{0xFFFFFFFF}, off64_t{0x100000000}, off64_t{0x100000001}}) {
    size = tooLarge;
    OPL_ServerInfo** list = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(0x050B01u, OPL_ServerInfoGet(server_.get(), &list, &count)) << size;
  }
}

// A thread that is cancelled while the script runs ends when the list is read, and leaves nothing.
TEST_F(ServerListing, IsReadToItsEndByAThreadThatIsCancelled) {
  ListProcesses("5 1 a b daemon\n");
  const Footprint before = Footprint::Now();
  static std::string pids;
  const Fault fault("system", 1, [] {
    EXPECT_EQ(0, ::pthread_cancel(::pthread_self()));
    ::pthread_testcancel();
  });
  pthread_t reader;
  ASSERT_EQ(0, ::pthread_create(
                   &reader, nullptr,
                   [](void* server) -> void* {
                     ServerList list(static_cast<OPL_Server*>(server));
                     EXPECT_EQ(OPL_OK, list.Get());
                     pids = list.Pids();
                     return nullptr;
                   },
                   server_.get()));
  EXPECT_EQ(0, ::pthread_join(reader, nullptr));
  EXPECT_EQ("5 ", pids);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(ServerListingFailing, TellsWhichMemoryThereIsNot) {
  ListProcesses(ManyLines(1001));
  const char* const kTexts[] = {"OPL_MEMMALLOC(1)", "OPL_MEMMALLOC(2)", "OPL_MEMMALLOC(3)"};
  int nth = 1;
  std::string texts;
  for (bool fired = true; fired; ++nth) {
    const Footprint before = Footprint::Now();
    OPL_ServerInfo** list = nullptr;
    uint32_t count = 0;
    const FailingMemory memory(nth);
    const OPL_Result rc = OPL_ServerInfoGet(server_.get(), &list, &count);
    fired = memory.Fired();
    if (!fired) {
      EXPECT_EQ(OPL_OK, rc);
      EXPECT_EQ(OPL_OK, OPL_ServerInfoDestroy(server_.get(), &list, count));
      break;
    }
    ASSERT_EQ(0x050B01u, rc) << nth;
    ASSERT_EQ(nullptr, list);
    EXPECT_EQ(static_cast<uint32_t>(ENOMEM), OPL_ErrCodeGet(0));
    const std::string message = OPL_ErrMessageGet(0);
    if (!texts.ends_with(message + "\n")) texts += message + "\n";
    ASSERT_EQ(before, Footprint::Now());
    if (nth == 4) nth = 1000;
  }
  EXPECT_EQ(std::string("OPL_ServerInfoGet: ") + kTexts[0] + " error :12\nOPL_ServerInfoGet: " + kTexts[1] +
                " error :12\nOPL_ServerInfoGet: " + kTexts[2] +
                " error :12\nOPL_ServerInfoGet: OPL_MEMREALLOC error :12\n"
                "OPL_ServerInfoGet: OPL_MEMMALLOC(3) error :12\n"
                "RemoveUnRelatedProcess: calloc error :12\n",
            texts);
}

TEST_F(ServerListingFailing, TellsThatTheSpawnerIsNotKnown) {
  ListProcesses("5 1 a b daemon\n");
  WriteScript("OPL_ServerInitPidGet", "exit 0");
  ExpectFailure(0x050B28, 0, "OPL_ServerSystemSpawnerPidGet: fgets 0,Success.");
}

TEST_F(ServerListingFailing, TellsAUsersNumberWhoHasNoName) {
  const Fault fault("getpwuid_r", 1, EIO);
  const Replacement user(
      "geteuid", +[]() -> uid_t { return 54321; });
  ListProcesses("5 1 a b daemon\n");
  // The file is another user's for a process that takes itself for this one.
  ServerList list(server_);
  EXPECT_EQ(OPL_OK, list.Get());
  ASSERT_EQ(1u, list.Count());
  char name[64];
  EXPECT_EQ(OPL_OK, OPL_ServerInfoGetUserName(list[0], name, sizeof name));
  EXPECT_STREQ("54321", name);
}

// The installation's own script.

class ServerRealList : public opltest::Instance {
 protected:
  // The ids of this test's processes, as the script names them with a mark in their command line.
  static std::string Run(const std::string& environment, const std::string& mark) {
    const std::string command =
        environment + " '" QVOPL_SERVER_SCRIPTS "/OPL_ServerPS' | grep " + mark + " | grep -v grep > found";
    EXPECT_NE(-1, std::system(command.c_str()));
    return ContentsOf("found");
  }

  // A process with the mark among its arguments, asleep.
  static void Sleep(const std::string& mark) {
    (void)::execl("/bin/sh", "sh", "-c", "read line", mark.c_str(), nullptr);
    ::_exit(127);
  }
};

std::string Mark() { return "qvmark" + std::to_string(::getpid()) + "x"; }

constexpr const char* kEnvironments[] = {"LC_ALL=C",
                                         "LC_ALL=de_DE.UTF-8",
                                         "LC_ALL=C.UTF-8 TZ=Asia/Tokyo",
                                         "LC_TIME=fr_FR.UTF-8",
                                         "COLUMNS=20",
                                         "OPL_SERVER_PS_PROC=1",
                                         "OPL_SERVER_PS_PROC=1 LC_ALL=de_DE.UTF-8",
                                         "OPL_SERVER_PS_PROC=1 TZ=Asia/Tokyo"};

TEST_F(ServerRealList, HasPidParentStartAndTimeInFourColumns) {
  const std::string mark = Mark();
  int input[2];
  ASSERT_EQ(0, ::pipe(input));
  opltest::Child child([&](opltest::Steps&) {
    (void)::dup2(input[0], STDIN_FILENO);
    Sleep(std::string(200, 'x') + mark);
  });
  for (const char* environment : kEnvironments) {
    SCOPED_TRACE(environment);
    std::string line;
    while ((line = Run(environment, mark)).find("read line") == std::string::npos) {
    }
    int pid = 0;
    int parent = 0;
    char start[32];
    int hours = -1;
    int minutes = -1;
    int seconds = -1;
    char command[16];
    ASSERT_EQ(7, std::sscanf(line.c_str(), "%d %d %31[^ ] %2d:%2d:%2d %15s", &pid, &parent, start, &hours,
                             &minutes, &seconds, command))
        << line;
    EXPECT_EQ(child.pid(), pid);
    EXPECT_EQ(::getpid(), parent);
    int startHour = -1;
    int startMinute = -1;
    EXPECT_EQ(2, std::sscanf(start, "%2d:%2d", &startHour, &startMinute)) << start;
    EXPECT_EQ(5u, std::strlen(start));
    EXPECT_STREQ("sh", command);
    EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
  }
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
}

TEST_F(ServerRealList, LeavesZombiesOut) {
  const std::string mark = Mark();
  opltest::Child child(
      [&](opltest::Steps&) { (void)::execl("/bin/sh", "sh", "-c", "exit 0", mark.c_str(), nullptr); });
  siginfo_t info{};
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT));
  for (const char* environment : {"LC_ALL=C", "OPL_SERVER_PS_PROC=1"}) {
    const std::string command = std::string(environment) + " '" QVOPL_SERVER_SCRIPTS "/OPL_ServerPS' > all";
    ASSERT_EQ(0, std::system(command.c_str()));
    const std::string all = "\n" + ContentsOf("all");
    EXPECT_EQ(std::string::npos, all.find("\n" + std::to_string(child.pid()) + " ")) << environment;
    EXPECT_NE(std::string::npos, all.find("\n" + std::to_string(::getpid()) + " ")) << environment;
  }
  child.ExpectSuccess();
}

// Its directory may have the server's name, and another controller may run it at the same time.
TEST_F(ServerRealList, LeavesTheScriptsThemselvesOut) {
  const std::string directory = opltest::WorkDirectory() + "/" + Mark();
  ASSERT_EQ(0, std::system(("cp -r '" QVOPL_SERVER_SCRIPTS "' " + directory).c_str()));
  for (const char* environment : {"LC_ALL=C", "OPL_SERVER_PS_PROC=1"}) {
    const std::string script = std::string(environment) + " " + directory + "/OPL_ServerPS";
    ASSERT_NE(-1, std::system(("for i in 1 2 3; do " + script + " | grep " + Mark() +
                               " | grep -v grep >> found & done; wait")
                                  .c_str()));
    EXPECT_EQ("", ContentsOf("found")) << environment;
  }
}

TEST_F(ServerRealList, HasOneLineForAProcessWithOddNames) {
  const std::string mark = Mark();
  int input[2];
  ASSERT_EQ(0, ::pipe(input));
  opltest::Child child([&](opltest::Steps&) {
    (void)::dup2(input[0], STDIN_FILENO);
    const std::string odd = "a\nb) R 1 1\x80\xff\x01\t";
    ASSERT_EQ(0, ::symlink("/bin/sh", "x) S 1\n2 (y"));
    (void)::execl("x) S 1\n2 (y", "sh", "-c", "read line", odd.c_str(), mark.c_str(), nullptr);
    ::_exit(127);
  });
  for (const char* environment : {"LC_ALL=C.UTF-8", "OPL_SERVER_PS_PROC=1 LC_ALL=C.UTF-8"}) {
    std::string line;
    while ((line = Run(environment, mark)).find("read line") == std::string::npos) {
    }
    EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
    int pid = 0;
    int parent = 0;
    ASSERT_EQ(2, std::sscanf(line.c_str(), "%d %d", &pid, &parent)) << line;
    EXPECT_EQ(child.pid(), pid);
    EXPECT_EQ(::getpid(), parent);
  }
  child.Kill();
  child.ExpectKilledBy(SIGKILL);
}

// Both forms name the same processes with the same parents.
TEST_F(ServerRealList, IsTheSameFromPsAndFromProc) {
  const std::string mark = Mark();
  int input[2];
  ASSERT_EQ(0, ::pipe(input));
  opltest::Child child([&](opltest::Steps& steps) {
    (void)::dup2(input[0], STDIN_FILENO);
    opltest::Child grandchild([&](opltest::Steps&) { Sleep(mark); });
    steps.Reach();
    steps.WaitForGo();
    grandchild.Kill();
    grandchild.ExpectKilledBy(SIGKILL);
  });
  opltest::Child sibling([&](opltest::Steps&) {
    (void)::dup2(input[0], STDIN_FILENO);
    Sleep(mark);
  });
  child.Await();
  const auto ids = [&](const char* environment) {
    std::string all;
    do {
      all = Run(environment, mark);
    } while (std::count(all.begin(), all.end(), '\n') != 2);
    std::string pairs;
    for (size_t at = 0; at < all.size(); at = all.find('\n', at) + 1) {
      int pid = 0;
      int parent = 0;
      EXPECT_EQ(2, std::sscanf(all.c_str() + at, "%d %d", &pid, &parent));
      pairs += std::to_string(pid) + " " + std::to_string(parent) + "\n";
    }
    return pairs;
  };
  EXPECT_EQ(ids("LC_ALL=C"), ids("OPL_SERVER_PS_PROC=1"));
  child.Go();
  child.ExpectSuccess();
  sibling.Kill();
  sibling.ExpectKilledBy(SIGKILL);
}

}  // namespace
