// The diagnostic log: which files get which bytes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Thread.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Child;
using opltest::ContentsOf;
using opltest::FilesIn;
using opltest::Steps;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kLine = "---------------------------------------------\n";
constexpr char kCommon[] = "qvopl.log";

std::string OwnOf(const std::string& name) { return name + "." + std::to_string(::getpid()) + ".log"; }

std::string Own() { return OwnOf("qvopl"); }

uint32_t ThreadId() {
  uint32_t id = 0;
  EXPECT_EQ(OPL_OK, OPL_ThreadIdGet(&id));
  return id;
}

// A record as this thread of this process writes it in that second.
std::string Record(const std::string& message, time_t second) {
  char date[64];
  (void)::ctime_r(&second, date);
  return kLine + "Date(" + std::string(date, 19) + ".) Process(" + std::to_string(::getpid()) + ") Thread (" +
         std::to_string(ThreadId()) + ")\n" + message + "\n";
}

// Whether the text is one record of a second between the two.
void ExpectRecord(const std::string& message, time_t first, time_t last, const std::string& text) {
  for (time_t second = first; second <= last; ++second)
    if (text == Record(message, second)) return;
  ADD_FAILURE() << "not a record of \"" << message << "\":\n" << text;
}

// What stands behind the header, where the text is one record.
std::string MessageOf(const std::string& text) {
  const size_t start = text.find(")\n", kLine.size());
  return start == std::string::npos ? "no record" : text.substr(start + 2);
}

// Begins a test in a directory of its own; the library need not be begun to log.
class Log : public ::testing::Test {
 protected:
  static void ExpectNothingWritten() { EXPECT_THAT(FilesIn("."), IsEmpty()); }

  static void MakeHome(const std::string& home) { std::filesystem::create_directories(home + "/tmer/log"); }
};

TEST_F(Log, WritesOneRecordToTheCommonFileAndToTheProcesss) {
  const time_t first = std::time(nullptr);
  EXPECT_EQ(OPL_OK, OPL_Log("%s failed errno %d", "pthread_mutex_lock", 22));
  const time_t last = std::time(nullptr);
  EXPECT_THAT(FilesIn("."), ElementsAre(Own(), kCommon));
  ExpectRecord("pthread_mutex_lock failed errno 22", first, last, ContentsOf(kCommon));
  EXPECT_EQ(ContentsOf(kCommon), ContentsOf(Own()));
}

TEST_F(Log, WritesARecordOfTheseBytes) {
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  const std::string record = ContentsOf(kCommon);
  EXPECT_THAT(record, ::testing::MatchesRegex(
                          "---------------------------------------------\n"
                          "Date\\((Mon|Tue|Wed|Thu|Fri|Sat|Sun) "
                          "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] "
                          "[0-2][0-9]:[0-5][0-9]:[0-5][0-9]\\.\\) Process\\([0-9]+\\) Thread \\([0-9]+\\)\n"
                          "text\n"));
  EXPECT_EQ(45u, record.find('\n'));
}

TEST_F(Log, WritesTheLocalTime) {
  ASSERT_EQ(0, ::setenv("TZ", "XYZ-11", 1));
  ::tzset();
  const time_t first = std::time(nullptr);
  ASSERT_EQ(OPL_OK, OPL_Log("there"));
  ExpectRecord("there", first, std::time(nullptr), ContentsOf(kCommon));
  EXPECT_STREQ("XYZ", ::tzname[0]);
}

TEST_F(Log, WritesAnEmptyMessage) {
  ASSERT_EQ(OPL_OK, OPL_Log("%s", ""));
  EXPECT_EQ("\n", MessageOf(ContentsOf(kCommon)));
}

TEST_F(Log, WritesAnEmptyMessageForANullFormat) {
  ASSERT_EQ(OPL_OK, OPL_Log(nullptr));
  EXPECT_EQ("\n", MessageOf(ContentsOf(kCommon)));
}

TEST_F(Log, WritesAMessageOfManyLines) {
  ASSERT_EQ(OPL_OK, OPL_Log("one\ntwo\n"));
  EXPECT_EQ("one\ntwo\n\n", MessageOf(ContentsOf(kCommon)));
}

TEST_F(Log, WritesALongMessageWhole) {
  const std::string message = std::string(100000, 'l') + "end";
  ASSERT_EQ(OPL_OK, OPL_Log("%s", message.c_str()));
  EXPECT_EQ(message + "\n", MessageOf(ContentsOf(kCommon)));
  EXPECT_EQ(message + "\n", MessageOf(ContentsOf(Own())));
}

TEST_F(Log, AppendsToWhatIsThere) {
  opltest::WriteFile(kCommon, "before\n");
  ASSERT_EQ(OPL_OK, OPL_Log("one"));
  const std::string one = ContentsOf(kCommon);
  EXPECT_EQ(0u, one.find("before\n" + kLine));
  ASSERT_EQ(OPL_OK, OPL_Log("two"));
  const std::string both = ContentsOf(kCommon);
  EXPECT_EQ(one, both.substr(0, one.size()));
  EXPECT_EQ("two\n", MessageOf(both.substr(one.size())));
}

TEST_F(Log, NamesTheCallingThread) {
  std::string expected;
  std::thread([&] {
    expected = " Thread (" + std::to_string(ThreadId()) + ")\n";
    (void)OPL_Log("from a thread");
  }).join();
  EXPECT_THAT(ContentsOf(kCommon), ::testing::HasSubstr(expected));
}

TEST_F(Log, NamesTheProcessAsItIsSet) {
  ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(4242));
  ASSERT_EQ(OPL_OK, OPL_Log("set"));
  EXPECT_THAT(FilesIn("."), ElementsAre("qvopl.4242.log", kCommon));
  EXPECT_THAT(ContentsOf(kCommon), ::testing::HasSubstr(".) Process(4242) Thread ("));
}

TEST_F(Log, WritesNumbersAsUnsigned) {
  ASSERT_EQ(OPL_OK, OPL_ProcessIdSet(4000000000u));
  ASSERT_EQ(OPL_OK, OPL_Log("set"));
  EXPECT_THAT(FilesIn("."), ElementsAre("qvopl.4000000000.log", kCommon));
  EXPECT_THAT(ContentsOf(kCommon), ::testing::HasSubstr("Process(4000000000)"));
}

TEST_F(Log, WorksBetweenBeginAndEndAndAfter) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  EXPECT_EQ(OPL_OK, OPL_Log("begun"));
  EXPECT_EQ("begun\n", MessageOf(ContentsOf(kCommon)));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  std::filesystem::remove(kCommon);
  EXPECT_EQ(OPL_OK, OPL_Log("ended"));
  EXPECT_EQ("ended\n", MessageOf(ContentsOf(kCommon)));
}

TEST_F(Log, LetsTheUmaskDecideWhoReadsIt) {
  (void)::umask(027);
  ASSERT_EQ(OPL_OK, OPL_Log("private"));
  struct stat status {};
  ASSERT_EQ(0, ::stat(kCommon, &status));
  EXPECT_EQ(0640u, status.st_mode & 07777u);
  (void)::umask(0);
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename("open"));
  ASSERT_EQ(OPL_OK, OPL_Log("public"));
  ASSERT_EQ(0, ::stat("open.log", &status));
  EXPECT_EQ(0666u, status.st_mode & 07777u);
}

TEST_F(Log, LeavesNoDescriptorOpen) {
  const int before = ::dup(STDIN_FILENO);
  ASSERT_EQ(0, ::close(before));
  ASSERT_EQ(OPL_OK, OPL_Log("closed"));
  EXPECT_EQ(before, ::dup(STDIN_FILENO));
}

class LogHome : public Log {};

TEST_F(LogHome, HoldsTheFiles) {
  MakeHome("home");
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", "home", 1));
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename("ctl"));
  EXPECT_EQ(OPL_OK, OPL_Log("there"));
  EXPECT_THAT(FilesIn("."), ElementsAre("home"));
  EXPECT_THAT(FilesIn("home/tmer/log"), ElementsAre(OwnOf("ctl"), "ctl.log"));
  EXPECT_EQ("there\n", MessageOf(ContentsOf("home/tmer/log/ctl.log")));
}

TEST_F(LogHome, IsLookedForUntilItIsSet) {
  MakeHome("home");
  ASSERT_EQ(OPL_OK, OPL_Log("here"));
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", "home", 1));
  ASSERT_EQ(OPL_OK, OPL_Log("there"));
  EXPECT_EQ("here\n", MessageOf(ContentsOf(kCommon)));
  EXPECT_EQ("there\n", MessageOf(ContentsOf("home/tmer/log/qvopl.log")));
}

TEST_F(LogHome, IsReadOnceItIsSet) {
  MakeHome("first");
  MakeHome("second");
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", "first", 1));
  ASSERT_EQ(OPL_OK, OPL_Log("one"));
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", "second", 1));
  ASSERT_EQ(OPL_OK, OPL_Log("two"));
  EXPECT_THAT(FilesIn("second/tmer/log"), IsEmpty());
  EXPECT_THAT(FilesIn("first/tmer/log"), ElementsAre(Own(), kCommon));
}

TEST_F(LogHome, IsKeptWhenTheProgramChangesTheTextInTheEnvironment) {
  MakeHome("first");
  MakeHome("other");
  static char entry[] = "TALVEN_HOME=first";
  ASSERT_EQ(0, ::putenv(entry));
  ASSERT_EQ(OPL_OK, OPL_Log("one"));
  std::memcpy(std::strchr(entry, '=') + 1, "other", std::strlen("other"));
  ASSERT_EQ(OPL_OK, OPL_Log("two"));
  EXPECT_THAT(FilesIn("other/tmer/log"), IsEmpty());
  EXPECT_THAT(FilesIn("first/tmer/log"), ElementsAre(Own(), kCommon));
}

TEST_F(LogHome, IsTheRootDirectoryWithAnEmptyValue) {
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", "", 1));
  EXPECT_EQ(OPL_OK, OPL_Log("lost"));
  ExpectNothingWritten();
}

TEST_F(LogHome, IsNotMade) {
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", "home", 1));
  EXPECT_EQ(OPL_OK, OPL_Log("lost"));
  ExpectNothingWritten();
}

class LogName : public Log {};

TEST_F(LogName, IsUsedFromThenOn) {
  ASSERT_EQ(OPL_OK, OPL_Log("before"));
  EXPECT_EQ(OPL_OK, OPL_LogSetFilename("other"));
  ASSERT_EQ(OPL_OK, OPL_Log("after"));
  EXPECT_EQ("before\n", MessageOf(ContentsOf(kCommon)));
  EXPECT_EQ("after\n", MessageOf(ContentsOf("other.log")));
  EXPECT_EQ("after\n", MessageOf(ContentsOf(OwnOf("other"))));
}

TEST_F(LogName, MustNotBeNull) {
  EXPECT_EQ(0x05020Cu, OPL_LogSetFilename(nullptr));
  EXPECT_EQ(0x05020C, OPL_INIT_E_LOG_NAME);
}

TEST_F(LogName, StaysWhenAnEmptyOneIsRefused) {
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename("stays"));
  EXPECT_EQ(0x05020Cu, OPL_LogSetFilename(""));
  EXPECT_EQ(0x05020Cu, OPL_LogSetFilename(nullptr));
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_THAT(FilesIn("."), ElementsAre(OwnOf("stays"), "stays.log"));
}

TEST_F(LogName, IsQvoplWhenAnEmptyOneIsRefused) {
  EXPECT_EQ(0x05020Cu, OPL_LogSetFilename(""));
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_THAT(FilesIn("."), ElementsAre(Own(), kCommon));
}

TEST_F(LogName, IsCopied) {
  char name[] = "copied";
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename(name));
  name[0] = 'X';
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_THAT(FilesIn("."), ElementsAre(OwnOf("copied"), "copied.log"));
}

TEST_F(LogName, IsCutTo255Characters) {
  const std::string directory(150, 'd');
  ASSERT_TRUE(std::filesystem::create_directory(directory));
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename((directory + "/" + std::string(149, 'n')).c_str()));
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  const std::string cut(104, 'n');
  EXPECT_THAT(FilesIn(directory), ElementsAre(OwnOf(cut), cut + ".log"));
}

TEST_F(LogName, TakesABlankAndAPercentSignAsTheyAre) {
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename("a %s b"));
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_THAT(FilesIn("."), ElementsAre(OwnOf("a %s b"), "a %s b.log"));
}

// Both names are cut behind the same character here, and so both records go to one file.
TEST_F(LogName, IsCutWithItsDirectoryTo1023Characters) {
  const std::string home = std::string(249, 'a') + "/" + std::string(249, 'b') + "/" + std::string(249, 'c') +
                           "/" + std::string(250, 'd');
  ASSERT_EQ(1000u, home.size());
  MakeHome(home);
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", home.c_str(), 1));
  ASSERT_EQ(OPL_OK, OPL_LogSetFilename("abcdefghijklmnopqrst"));
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_THAT(FilesIn(home + "/tmer/log"), ElementsAre("abcdefghijklm"));
  const std::string contents = ContentsOf(home + "/tmer/log/abcdefghijklm");
  const std::string half = contents.substr(0, contents.size() / 2);
  EXPECT_EQ("text\n", MessageOf(half));
  EXPECT_EQ(half + half, contents);
}

// What is cut of the home is cut at each record: of the text in the environment, and of the copy that is
// kept.
TEST_F(LogName, IsWhatIsLeftOfAHomeOf5000Characters) {
  const std::string directory = std::string(249, 'a') + "/" + std::string(249, 'b') + "/" +
                                std::string(249, 'c') + "/" + std::string(250, 'd');
  ASSERT_TRUE(std::filesystem::create_directories(directory));
  ASSERT_EQ(0, ::setenv("TALVEN_HOME", (directory + "/" + std::string(3999, 'h')).c_str(), 1));
  ASSERT_EQ(OPL_OK, OPL_Log("one"));
  const std::string cut(1023 - 1001, 'h');
  EXPECT_THAT(FilesIn(directory), ElementsAre(cut));
  const std::string once = ContentsOf(directory + "/" + cut);
  ASSERT_EQ(OPL_OK, OPL_Log("two"));
  EXPECT_THAT(FilesIn(directory), ElementsAre(cut));
  EXPECT_EQ(2 * once.size(), ContentsOf(directory + "/" + cut).size());
}

class LogTrouble : public Log {};

TEST_F(LogTrouble, WithTheCommonFileLeavesTheProcesss) {
  ASSERT_TRUE(std::filesystem::create_directory(kCommon));
  EXPECT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_EQ("text\n", MessageOf(ContentsOf(Own())));
}

TEST_F(LogTrouble, WithTheProcesssFileLeavesTheCommonOne) {
  ASSERT_TRUE(std::filesystem::create_directory(Own()));
  EXPECT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_EQ("text\n", MessageOf(ContentsOf(kCommon)));
}

TEST_F(LogTrouble, WithOpeningIsNotReported) {
  const opltest::Fault fault("open64", 1, EMFILE, opltest::Fault::kForGood);
  EXPECT_EQ(OPL_OK, OPL_Log("lost"));
  ExpectNothingWritten();
}

TEST_F(LogTrouble, FollowsNoLink) {
  opltest::WriteFile("victim", "as it was");
  std::filesystem::create_symlink("victim", kCommon);
  EXPECT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_EQ("as it was", ContentsOf("victim"));
  EXPECT_EQ("text\n", MessageOf(ContentsOf(Own())));
}

TEST_F(LogTrouble, MakesNothingAtADanglingLinksEnd) {
  std::filesystem::create_symlink("victim", kCommon);
  EXPECT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_THAT(FilesIn("."), ElementsAre(Own(), kCommon));
}

TEST_F(LogTrouble, DoesNotWaitForAFifosReader) {
  ASSERT_EQ(0, ::mkfifo(kCommon, 0600));
  EXPECT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_EQ("text\n", MessageOf(ContentsOf(Own())));
}

TEST_F(LogTrouble, WithMemoryCutsTheMessageTo511Characters) {
  const opltest::FailingMemory memory(1);
  EXPECT_EQ(OPL_OK, OPL_Log("%s", (std::string(511, 'm') + "cut").c_str()));
  EXPECT_TRUE(memory.Fired());
  EXPECT_EQ(std::string(511, 'm') + "\n", MessageOf(ContentsOf(kCommon)));
  EXPECT_EQ(std::string(511, 'm') + "\n", MessageOf(ContentsOf(Own())));
}

TEST_F(LogTrouble, WithMemoryLeavesAShortMessageWhole) {
  const opltest::FailingMemory memory(1);
  EXPECT_EQ(OPL_OK, OPL_Log("%s %d", "short", 7));
  EXPECT_EQ("short 7\n", MessageOf(ContentsOf(kCommon)));
}

TEST_F(LogTrouble, NeverLeavesMemoryBehind) {
  const opltest::CountedMemory memory;
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_EQ(1, memory.Allocated());
  EXPECT_EQ(0, memory.Living());
}

TEST_F(LogTrouble, WithAWriteThatIsInterruptedIsNone) {
  const opltest::Fault fault("writev", 1, EINTR);
  ASSERT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ("text\n", MessageOf(ContentsOf(kCommon)));
  EXPECT_EQ("text\n", MessageOf(ContentsOf(Own())));
}

TEST_F(LogTrouble, WithAWriteLosesThatFilesRecordAlone) {
  const opltest::Fault fault("writev", 1, ENOSPC);
  EXPECT_EQ(OPL_OK, OPL_Log("text"));
  EXPECT_EQ("", ContentsOf(kCommon));
  EXPECT_EQ("text\n", MessageOf(ContentsOf(Own())));
}

// Each call takes no more than five bytes, so that the rest begins inside, at and behind every piece.
ssize_t WriteFiveBytes(int fd, const struct iovec* pieces, int) {
  return ::write(fd, pieces[0].iov_base, std::min<size_t>(pieces[0].iov_len, 5));
}

TEST_F(LogTrouble, WithAPartialWriteOffersTheRestAgain) {
  {
    const opltest::Replacement partial("writev", WriteFiveBytes);
    ASSERT_EQ(OPL_OK, OPL_Log("twenty characters...."));
  }
  EXPECT_EQ("twenty characters....\n", MessageOf(ContentsOf(kCommon)));
  EXPECT_EQ("twenty characters....\n", MessageOf(ContentsOf(Own())));
}

TEST_F(LogTrouble, WithAFullFileLosesTheRest) {
  (void)std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{100, 100};
  Child([&](Steps&) {
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
    EXPECT_EQ(OPL_OK, OPL_Log("%s", std::string(200, 'x').c_str()));
    EXPECT_EQ(100u, std::filesystem::file_size(kCommon));
    EXPECT_EQ(100u, std::filesystem::file_size(Own()));
  }).ExpectSuccess();
}

// Records of several writers. A message says who wrote it, its number, and how long its tail of one letter
// is; Parse finds records by what they must look like, so that a torn one leaves bytes over.
class LogOfMany : public Log {
 protected:
  static constexpr int kWriters = 8;
  static constexpr int kRecords = 60;

  static size_t TailOf(int writer, int record) {
    return static_cast<size_t>((writer * 7919 + record * 6151) % 20001);
  }

  static void Write(int writer) {
    for (int record = 0; record < kRecords; ++record) {
      const size_t tail = TailOf(writer, record);
      const std::string text(tail, static_cast<char>('a' + writer));
      ASSERT_EQ(OPL_OK, OPL_Log("writer %d record %d %s.", writer, record, text.c_str()));
    }
  }

  // The text behind the record at the text's beginning, nothing where there is none.
  static std::optional<std::string_view> Parse(std::string_view text, int* writer, int* record) {
    if (text.substr(0, kLine.size()) != kLine) return std::nullopt;
    text.remove_prefix(kLine.size());
    const std::string header(text.substr(0, std::min<size_t>(text.size(), 200)));
    int headerLength = -1;
    int messageLength = -1;
    (void)std::sscanf(header.c_str(), "Date(%*19c.) Process(%*u) Thread (%*u)\n%n", &headerLength);
    if (headerLength < 0) return std::nullopt;
    if (std::sscanf(header.c_str() + headerLength, "writer %d record %d %n", writer, record,
                    &messageLength) != 2)
      return std::nullopt;
    const std::string message =
        "writer " + std::to_string(*writer) + " record " + std::to_string(*record) + " " +
        std::string(TailOf(*writer, *record), static_cast<char>('a' + *writer)) + ".\n";
    text.remove_prefix(static_cast<size_t>(headerLength));
    if (text.substr(0, message.size()) != message) return std::nullopt;
    return text.substr(message.size());
  }

  // Every record is there whole, and those of one writer are in their order.
  static void ExpectAll(const std::string& contents) {
    std::map<int, int> next;
    std::string_view left = contents;
    while (!left.empty()) {
      int writer = -1;
      int record = -1;
      const std::optional<std::string_view> rest = Parse(left, &writer, &record);
      ASSERT_TRUE(rest.has_value()) << "torn: " << left.substr(0, 300);
      ASSERT_EQ(next[writer]++, record);
      left = *rest;
    }
    EXPECT_EQ(static_cast<size_t>(kWriters), next.size());
    for (const auto& [writer, records] : next) EXPECT_EQ(kRecords, records) << "of writer " << writer;
  }
};

TEST_F(LogOfMany, ProcessesIsNeitherTornNorLost) {
  std::vector<std::unique_ptr<Child>> children;
  for (int writer = 0; writer < kWriters; ++writer) {
    children.push_back(std::make_unique<Child>([writer](Steps& steps) {
      steps.Reach();
      steps.WaitForGo();
      Write(writer);
    }));
  }
  for (const auto& child : children) child->Await();
  for (const auto& child : children) child->Go();
  std::vector<pid_t> pids;
  for (const auto& child : children) {
    pids.push_back(child->pid());
    child->ExpectSuccess();
  }
  ExpectAll(ContentsOf(kCommon));
  size_t total = 0;
  for (const pid_t pid : pids) total += ContentsOf("qvopl." + std::to_string(pid) + ".log").size();
  EXPECT_EQ(ContentsOf(kCommon).size(), total);
}

TEST_F(LogOfMany, ThreadsIsNeitherTornNorLost) {
  opltest::RunAtOnce(kWriters, Write);
  ExpectAll(ContentsOf(kCommon));
  ExpectAll(ContentsOf(Own()));
}

}  // namespace
