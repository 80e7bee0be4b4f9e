// OPL_SyncEventCreate and OPL_SyncEventOpen: arguments, the two files, the process's table, and what is left
// when a step fails.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/FailingStep.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"

namespace {

using opltest::CloseEvent;
using opltest::CountBytes;
using opltest::CountedMemory;
using opltest::CountFileOf;
using opltest::CountOf;
using opltest::EventFiles;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::FailingStep;
using opltest::Fault;
using opltest::FifoOf;
using opltest::Footprint;
using opltest::InstanceString;
using opltest::NewEvent;
using opltest::OpenEvent;

constexpr uint32_t kPrivate = 0x02;
constexpr uint32_t kAll = 0x04;
constexpr int kTableSize = 39;

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
  return status;
}

int YearOf(time_t time) {
  struct tm brokenDown {};
  (void)::localtime_r(&time, &brokenDown);
  return brokenDown.tm_year + 1900;
}

std::string NumberedName(int number) { return "e" + std::to_string(number); }

// The event mutex is made by a first event, so that it is not counted among what a call leaves behind.
class SyncEvent : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    CloseEvent(NewEvent("warm-up"));
  }

  OPL_Result Create(const char* name = "q", uint32_t flags = kPrivate) {
    return OPL_SyncEventCreate(&event_, 0, name, flags);
  }
  OPL_Result Open(const char* name = "q", uint32_t flags = kPrivate) {
    return OPL_SyncEventOpen(&event_, 0, name, flags);
  }
  void Close() { CloseEvent(event_); }

  OPL_SyncEvent* event_ = nullptr;
};

class SyncEventCreate : public SyncEvent {};
class SyncEventOpen : public SyncEvent {};
class SyncEventTable : public SyncEvent {};

TEST(SyncEventBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SyncEventCreate(nullptr, 1, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncEventOpen(nullptr, 1, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SyncEventPost(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncEventReset(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncEventIsSet(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncEventClose(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncEventWaitableEventCreate(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncEventWaitableEventDestroy(nullptr, nullptr));
}

TEST_F(SyncEventCreate, RefusesANullHandleFirst) {
  EXPECT_EQ(0x050046u, OPL_SyncEventCreate(nullptr, 1, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncEventCreate: phEvent is NULL");
}

TEST_F(SyncEventCreate, RefusesANullName) {
  EXPECT_EQ(0x050046u, OPL_SyncEventCreate(&event_, 1, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncEventCreate: Name is NULL");
}

TEST_F(SyncEventCreate, RefusesANameOfTwelveCharactersBeforeTheMode) {
  EXPECT_EQ(0x050013u, OPL_SyncEventCreate(&event_, 1, "twelve-chars", 0));
  ExpectError(0x050013, "OPL_SyncEventCreate: Invalid name");
}

TEST_F(SyncEventCreate, RefusesAModeBeforeTheFlags) {
  EXPECT_EQ(0x050043u, OPL_SyncEventCreate(&event_, 1, "q", 0));
  ExpectError(0x050043, "OPL_SyncEventCreate: Invalid mode");
}

TEST_F(SyncEventCreate, RefusesToGuessThePermission) {
  EXPECT_EQ(0x05003Fu, Create("q", 0xFFFFFFF9));
  ExpectError(0x05003F, "OPL_SyncEventCreate: Permission not specified.");
}

TEST_F(SyncEventCreate, LeavesTheHandleAloneWhenItRefuses) {
  auto* const before = reinterpret_cast<OPL_SyncEvent*>(&event_);
  event_ = before;
  EXPECT_NE(0u, Create("q", 0));
  EXPECT_EQ(before, event_);
}

TEST_F(SyncEventCreate, MakesAFifoAndACountFileOfOne) {
  ASSERT_EQ(0u, Create());
  const std::string fifo = "q.event." + InstanceString() + ".006.021";
  EXPECT_EQ((std::vector<std::string>{fifo, fifo + ".count"}), EventFiles());
  EXPECT_TRUE(S_ISFIFO(StatusOf(FifoOf("q")).st_mode));
  EXPECT_TRUE(S_ISREG(StatusOf(CountFileOf("q")).st_mode));
  EXPECT_EQ(std::string("\1\0\0\0", 4), opltest::ContentsOf(CountFileOf("q")));
  EXPECT_EQ(1u, StatusOf(FifoOf("q")).st_nlink);
  EXPECT_EQ(1u, StatusOf(CountFileOf("q")).st_nlink);
  Close();
}

TEST_F(SyncEventCreate, NamesAnEventForAllUsersAfterThem) {
  ASSERT_EQ(0u, Create("q", kAll));
  EXPECT_EQ((std::vector<std::string>{"q.event.all.006.021", "q.event.all.006.021.count"}), EventFiles());
  Close();
}

TEST_F(SyncEventCreate, MakesAPrivateEventWhenBothFlagsAreGiven) {
  ASSERT_EQ(0u, Create("q", kPrivate | kAll));
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_EQ(0600u, StatusOf(FifoOf("q")).st_mode & 07777);
  Close();
}

TEST_F(SyncEventCreate, GivesBothFilesTheirModeUnderAMask) {
  for (const mode_t mask : {0000, 0022, 0077}) {
    for (const uint32_t flags : {kPrivate, kAll}) {
      SCOPED_TRACE(testing::Message() << std::oct << "mask " << mask << " flags " << flags);
      const mode_t before = ::umask(mask);
      const OPL_Result rc = Create("q", flags);
      (void)::umask(before);
      ASSERT_EQ(0u, rc);
      const std::string scope = flags == kPrivate ? InstanceString() : "all";
      const mode_t mode = flags == kPrivate ? 0600 : 0666;
      EXPECT_EQ(mode, StatusOf(FifoOf("q", scope)).st_mode & 07777);
      EXPECT_EQ(mode, StatusOf(CountFileOf("q", scope)).st_mode & 07777);
      Close();
    }
  }
}

TEST_F(SyncEventCreate, GivesBothFilesTimesIn2036) {
  ASSERT_EQ(0u, Create());
  for (const std::string& file : {FifoOf("q"), CountFileOf("q")}) {
    EXPECT_EQ(2036, YearOf(StatusOf(file).st_atime)) << file;
    EXPECT_EQ(2036, YearOf(StatusOf(file).st_mtime)) << file;
  }
  Close();
}

TEST_F(SyncEventCreate, TakesANameOfElevenCharacters) {
  ASSERT_EQ(0u, Create("eleven-char"));
  EXPECT_EQ(1u, CountOf("eleven-char"));
  Close();
}

TEST_F(SyncEventCreate, FillsAHandleThatBeginsWithDescriptorNameAndFlags) {
  ASSERT_EQ(0u, Create("q", kPrivate | 0x80));
  struct {
    int32_t fd;
    char name[12];
    uint32_t flags;
  } record;
  std::memcpy(&record, static_cast<const void*>(event_), sizeof record);
  struct stat status {};
  EXPECT_EQ(0, ::fstat(record.fd, &status));
  EXPECT_EQ(StatusOf(FifoOf("q")).st_ino, status.st_ino);
  EXPECT_EQ(std::string(12, '\0').replace(0, 1, "q"), std::string(record.name, sizeof record.name));
  EXPECT_EQ(kPrivate | 0x80, record.flags);
  Close();
}

TEST_F(SyncEventCreate, OpensADescriptorThatNeverBlocksAndEndsAtExec) {
  ASSERT_EQ(0u, Create());
  const int fd = opltest::DescriptorOf(event_);
  EXPECT_EQ(O_RDWR | O_NONBLOCK, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
  Close();
}

TEST_F(SyncEventCreate, MakesAnEventThatIsNotSet) {
  ASSERT_EQ(0u, Create());
  EXPECT_FALSE(opltest::IsSet(event_));
  Close();
}

TEST_F(SyncEventCreate, AddsOneDescriptorTwoFilesAndNothingElse) {
  Footprint expected = Footprint::Now();
  ASSERT_EQ(0u, Create());
  expected.items.insert("file " + FifoOf("q"));
  expected.items.insert("file " + CountFileOf("q"));
  expected.items.insert("descriptor " + std::to_string(opltest::DescriptorOf(event_)));
  EXPECT_EQ(expected, Footprint::Now());
  Close();
}

TEST_F(SyncEventCreate, MakesTheEventMutexOnceForAll) {
  const std::string mutex = opltest::MutexFile("QVMXEV");
  const int set = opltest::SetNamedBy(mutex);
  ASSERT_EQ(0u, Create());
  EXPECT_EQ(set, opltest::SetNamedBy(mutex));
  EXPECT_EQ((opltest::Values{1, 31999}), opltest::ValuesOf(set));
  Close();
}

TEST_F(SyncEventCreate, LeavesAnExistingEventAsItWas) {
  OPL_SyncEvent* const existing = NewEvent("q");
  EXPECT_EQ(0u, OPL_SyncEventPost(existing));
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0x05000Au, Create());
  ExpectError(0x05000A, "OPL_SyncEventCreate: event already exist");
  EXPECT_EQ(nullptr, event_);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_TRUE(opltest::IsSet(existing));
  CloseEvent(existing);
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventCreate, LeavesTheTableEntryOfAnExistingEvent) {
  (void)NewEvent("q");
  EXPECT_EQ(0x05000Au, Create());
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventCreate, KeepsScopesApart) {
  OPL_SyncEvent* const all = NewEvent("q", kAll);
  ASSERT_EQ(0u, Create());
  EXPECT_EQ(4u, EventFiles().size());
  EXPECT_EQ(0u, OPL_SyncEventPost(all));
  EXPECT_FALSE(opltest::IsSet(event_));
  Close();
  CloseEvent(all);
}

TEST_F(SyncEventCreate, IsRefusedByWhateverHasTheFifosName) {
  const auto refused = [&] {
    EXPECT_EQ(0x05000Au, Create());
    ExpectError(0x05000A, "OPL_SyncEventCreate: event already exist");
    EXPECT_EQ(1u, EventFiles().size());
  };
  opltest::WriteFile(FifoOf("q"), "mine");
  refused();
  EXPECT_EQ("mine", opltest::ContentsOf(FifoOf("q")));
  EXPECT_EQ(0, ::unlink(FifoOf("q").c_str()));
  ASSERT_EQ(0, ::mkdir(FifoOf("q").c_str(), 0700));
  refused();
  EXPECT_EQ(0, ::rmdir(FifoOf("q").c_str()));
  ASSERT_EQ(0, ::symlink("nowhere", FifoOf("q").c_str()));
  refused();
  EXPECT_EQ(0, ::unlink(FifoOf("q").c_str()));
}

TEST_F(SyncEventCreate, ReplacesACountFileThatHasNoFifo) {
  for (const uint32_t count : {0u, 5u, 0xFFFFFFFFu}) {
    opltest::WriteFile(CountFileOf("q"), CountBytes(count));
    ASSERT_EQ(0u, Create());
    EXPECT_EQ(1u, CountOf("q"));
    Close();
    EXPECT_TRUE(EventFiles().empty());
  }
}

TEST_F(SyncEventCreate, ReplacesWhatADeadProcessOfItsIdLeft) {
  constexpr size_t kNumbers = 9;
  for (size_t number = 1; number <= kNumbers; ++number) {
    std::ostringstream suffix;
    suffix << "." << std::hex << ::getpid() << "." << number;
    opltest::WriteFile(FifoOf("q") + suffix.str(), "");
    opltest::WriteFile(CountFileOf("q") + suffix.str(), "longer than a count");
  }
  ASSERT_EQ(0u, Create());
  EXPECT_EQ(CountBytes(1), opltest::ContentsOf(CountFileOf("q")));
  // One for the FIFO, and the next for the count file.
  EXPECT_EQ(2 + 2 * (kNumbers - 1), EventFiles().size());
  Close();
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_TRUE(EventFiles().empty());
}

// As where another user's process had this one's id, in a directory where nobody removes another's files.
TEST_F(SyncEventCreate, GoesPastLeftoversThatItCannotRemove) {
  std::vector<std::string> leftovers;
  for (const std::string& file : {FifoOf("q"), CountFileOf("q")}) {
    for (int number = 1; number <= 12; ++number) {
      std::ostringstream suffix;
      suffix << "." << std::hex << ::getpid() << "." << number;
      leftovers.push_back(file + suffix.str());
      ASSERT_EQ(0, ::mkdir(leftovers.back().c_str(), 0700));
    }
  }
  EXPECT_EQ(0u, Create());
  EXPECT_EQ(1u, CountOf("q"));
  Close();
  for (const std::string& leftover : leftovers) EXPECT_EQ(0, ::rmdir(leftover.c_str())) << leftover;
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventCreate, IsNotHinderedByWhatAnotherDeadProcessLeft) {
  opltest::WriteFile(FifoOf("q") + ".1", "");
  opltest::WriteFile(CountFileOf("q") + ".1", "");
  ASSERT_EQ(0u, Create());
  Close();
  EXPECT_EQ(2u, EventFiles().size());
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventCreate, ShowsTheEventUnderItsNameOnlyWhole) {
  const Fault fault("link", 1, [&] {
    EXPECT_NE(0, ::access(FifoOf("q").c_str(), F_OK));
    EXPECT_EQ(1u, CountOf("q"));
  });
  ASSERT_EQ(0u, Create());
  EXPECT_TRUE(fault.Fired());
  Close();
}

// The event mutex is the instance's own, and does not keep another one's processes out.
TEST_F(SyncEventCreate, GivesWayToAnEventForAllUsersThatAppearsMeanwhile) {
  {
    const Fault fault("rename", 1, [] {
      ASSERT_EQ(0, ::mkfifo(FifoOf("q", "all").c_str(), 0666));
      opltest::WriteFile(CountFileOf("q", "all"), CountBytes(1));
    });
    EXPECT_EQ(0x05000Au, Create("q", kAll));
    EXPECT_TRUE(fault.Fired());
  }
  ExpectError(0x05000A, "OPL_SyncEventCreate: event already exist");
  EXPECT_EQ(2u, EventFiles().size());
  EXPECT_EQ(1u, CountOf("q", "all"));
  ASSERT_EQ(0u, Open("q", kAll));
  opltest::WriteFile(CountFileOf("q", "all"), CountBytes(1));
  Close();
}

TEST_F(SyncEventCreate, LeavesNothingBehindWithoutMemory) {
  const Footprint before = Footprint::Now();
  {
    const FailingMemory memory(2);  // the first allocation keeps the signal mask
    EXPECT_EQ(0x050001u, Create());
  }
  ExpectError(ENOMEM, "OPL_SyncEventCreate: malloc error :12");
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(nullptr, event_);
}

TEST_F(SyncEventCreate, ReleasesAllMemoryWithItsClose) {
  const CountedMemory memory;
  ASSERT_EQ(0u, Create());
  EXPECT_EQ(1, memory.Living());
  Close();
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SyncEventCreate, BlocksAllSignalsMeanwhileAndRestoresTheMask) {
  sigset_t before;
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &before));
  sigset_t during;
  {
    const Fault fault("mkfifo", 1, [&] { (void)::pthread_sigmask(SIG_SETMASK, nullptr, &during); });
    ASSERT_EQ(0u, Create());
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(1, ::sigismember(&during, SIGTERM));
  sigset_t after;
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &after));
  for (int signal = 1; signal < NSIG; ++signal)
    EXPECT_EQ(::sigismember(&before, signal), ::sigismember(&after, signal)) << signal;
  Close();
}

TEST_F(SyncEventCreate, RestoresTheMaskWhenItRefuses) {
  sigset_t before;
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &before));
  EXPECT_NE(0u, Create("q", 0));
  sigset_t after;
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &after));
  EXPECT_EQ(::sigismember(&before, SIGTERM), ::sigismember(&after, SIGTERM));
}

TEST_F(SyncEventCreate, HoldsTheEventMutexMeanwhile) {
  const int set = opltest::SetNamedBy(opltest::MutexFile("QVMXEV"));
  const Fault fault("mkfifo", 1, [&] { EXPECT_EQ(0, opltest::ValueOf(set, 0)); });
  ASSERT_EQ(0u, Create());
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(1, opltest::ValueOf(set, 0));
  Close();
}

TEST_F(SyncEventOpen, RefusesANullHandleFirst) {
  EXPECT_EQ(0x050046u, OPL_SyncEventOpen(nullptr, 1, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncEventOpen: phEvent is NULL");
}

TEST_F(SyncEventOpen, RefusesANullName) {
  EXPECT_EQ(0x050046u, OPL_SyncEventOpen(&event_, 1, nullptr, 0));
  ExpectError(0x050046, "OPL_SyncEventOpen: Name is NULL");
}

TEST_F(SyncEventOpen, RefusesANameOfTwelveCharactersBeforeTheMode) {
  EXPECT_EQ(0x050013u, OPL_SyncEventOpen(&event_, 1, "twelve-chars", 0));
  ExpectError(0x050013, "OPL_SyncEventOpen: Invalid Name");
}

TEST_F(SyncEventOpen, RefusesAModeBeforeTheFlags) {
  EXPECT_EQ(0x050043u, OPL_SyncEventOpen(&event_, 1, "q", 0));
  ExpectError(0x050043, "OPL_SyncEventOpen: Invalid mode");
}

TEST_F(SyncEventOpen, RefusesToGuessThePermission) {
  EXPECT_EQ(0x05003Fu, Open("q", 0));
  ExpectError(0x05003F, "OPL_SyncEventOpen: Invalid bitmap");
}

TEST_F(SyncEventOpen, FindsNoEventThatWasNotMade) {
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0x05001Eu, Open());
  ExpectError(ENOENT, ("OPL_SyncEventOpen: open :2,No such file or directory\nFile " + FifoOf("q")).c_str());
  EXPECT_EQ(nullptr, event_);
  EXPECT_EQ(before, Footprint::Now());
}

TEST_F(SyncEventOpen, LooksInTheScopeThatItIsGiven) {
  OPL_SyncEvent* const all = NewEvent("q", kAll);
  EXPECT_EQ(0x05001Eu, Open("q", kPrivate));
  EXPECT_EQ(0u, Open("q", kAll));
  Close();
  CloseEvent(all);
}

TEST_F(SyncEventOpen, AddsOneToTheCount) {
  OPL_SyncEvent* const made = NewEvent("q");
  OPL_SyncEvent* const opened = OpenEvent("q");
  EXPECT_EQ(2u, CountOf("q"));
  ASSERT_EQ(0u, Open());
  EXPECT_EQ(CountBytes(3), opltest::ContentsOf(CountFileOf("q")));
  Close();
  CloseEvent(opened);
  CloseEvent(made);
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventOpen, OpensTheSameEvent) {
  OPL_SyncEvent* const made = NewEvent("q");
  ASSERT_EQ(0u, Open());
  EXPECT_NE(opltest::DescriptorOf(made), opltest::DescriptorOf(event_));
  EXPECT_EQ(0u, OPL_SyncEventPost(made));
  EXPECT_TRUE(opltest::IsSet(event_));
  Close();
  CloseEvent(made);
}

TEST_F(SyncEventOpen, OpensADescriptorThatNeverBlocksAndEndsAtExec) {
  OPL_SyncEvent* const made = NewEvent("q");
  ASSERT_EQ(0u, Open());
  const int fd = opltest::DescriptorOf(event_);
  EXPECT_EQ(O_RDWR | O_NONBLOCK, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
  Close();
  CloseEvent(made);
}

TEST_F(SyncEventOpen, MovesTheTimesOfBothFilesInto2036) {
  OPL_SyncEvent* const made = NewEvent("q");
  for (const std::string& file : {FifoOf("q"), CountFileOf("q")})
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, file.c_str(), nullptr, 0));
  ASSERT_EQ(0u, Open());
  for (const std::string& file : {FifoOf("q"), CountFileOf("q")}) {
    EXPECT_EQ(2036, YearOf(StatusOf(file).st_atime)) << file;
    EXPECT_EQ(2036, YearOf(StatusOf(file).st_mtime)) << file;
  }
  Close();
  CloseEvent(made);
}

TEST_F(SyncEventOpen, CountsFromWhateverTheFileHolds) {
  OPL_SyncEvent* const made = NewEvent("q");
  const std::pair<uint32_t, uint32_t> counts[] = {{0, 1}, {0xFFFFFFFF, 0}, {0x7FFFFFFF, 0x80000000}};
  for (const auto& [before, after] : counts) {
    opltest::WriteFile(CountFileOf("q"), CountBytes(before));
    EXPECT_EQ(0u, Open());
    EXPECT_EQ(CountBytes(after), opltest::ContentsOf(CountFileOf("q")));
    opltest::WriteFile(CountFileOf("q"), CountBytes(2));
    Close();
  }
  CloseEvent(made);
}

TEST_F(SyncEventOpen, LeavesWhatIsBehindTheCountAlone) {
  OPL_SyncEvent* const made = NewEvent("q");
  opltest::WriteFile(CountFileOf("q"), CountBytes(1) + "x");
  ASSERT_EQ(0u, Open());
  EXPECT_EQ(CountBytes(2) + "x", opltest::ContentsOf(CountFileOf("q")));
  Close();
  CloseEvent(made);
}

TEST_F(SyncEventOpen, IsRefusedByACountFileThatIsTooShort) {
  OPL_SyncEvent* const made = NewEvent("q");
  for (const std::string& contents : {std::string(), std::string("\1\0\0", 3)}) {
    opltest::WriteFile(CountFileOf("q"), contents);
    const Footprint before = Footprint::Now();
    errno = EIO;  // of some call long ago
    EXPECT_EQ(0x050050u, Open());
    ExpectError(0, ("UpdateCountFile: read rc :" + std::to_string(contents.size()) +
                    " errno:0,Success\nFile " + CountFileOf("q"))
                       .c_str());
    EXPECT_EQ(contents, opltest::ContentsOf(CountFileOf("q")));
    EXPECT_EQ(before, Footprint::Now());
  }
  opltest::WriteFile(CountFileOf("q"), CountBytes(1));
  CloseEvent(made);
}

TEST_F(SyncEventOpen, IsRefusedWithoutACountFile) {
  OPL_SyncEvent* const made = NewEvent("q");
  ASSERT_EQ(0, ::unlink(CountFileOf("q").c_str()));
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0x05001Eu, Open());
  ExpectError(
      ENOENT,
      ("UpdateCountFile: OPL_CrtOpen(1) :2,No such file or directory\nFile " + CountFileOf("q")).c_str());
  EXPECT_EQ(before, Footprint::Now());
  opltest::WriteFile(CountFileOf("q"), CountBytes(1));
  CloseEvent(made);
}

TEST_F(SyncEventOpen, IsRefusedByACountFileThatIsALink) {
  OPL_SyncEvent* const made = NewEvent("q");
  const std::string target = opltest::WorkDirectory() + "/target";
  opltest::WriteFile(target, CountBytes(7));
  ASSERT_EQ(0, ::unlink(CountFileOf("q").c_str()));
  ASSERT_EQ(0, ::symlink(target.c_str(), CountFileOf("q").c_str()));
  EXPECT_EQ(0x05001Eu, Open());
  EXPECT_EQ(CountBytes(7), opltest::ContentsOf(target));
  ASSERT_EQ(0, ::unlink(CountFileOf("q").c_str()));
  opltest::WriteFile(CountFileOf("q"), CountBytes(1));
  CloseEvent(made);
}

TEST_F(SyncEventOpen, RefusesAnythingButAFifo) {
  const std::string fifo = FifoOf("q");
  opltest::WriteFile(CountFileOf("q"), CountBytes(1));
  const auto refused = [&](int number, const std::string& text) {
    const Footprint before = Footprint::Now();
    EXPECT_EQ(0x05001Eu, Open());
    ExpectError(static_cast<uint32_t>(number),
                ("OPL_SyncEventOpen: open :" + text + "\nFile " + fifo).c_str());
    EXPECT_EQ(before, Footprint::Now());
    EXPECT_EQ(1u, CountOf("q"));
  };
  opltest::WriteFile(fifo, "mine");
  refused(EINVAL, "22,Invalid argument");
  EXPECT_EQ(0, ::unlink(fifo.c_str()));
  ASSERT_EQ(0, ::mkdir(fifo.c_str(), 0700));
  refused(EISDIR, "21,Is a directory");
  EXPECT_EQ(0, ::rmdir(fifo.c_str()));
  ASSERT_EQ(0, ::mkfifo("elsewhere", 0600));
  ASSERT_EQ(0, ::symlink((opltest::WorkDirectory() + "/elsewhere").c_str(), fifo.c_str()));
  refused(ELOOP, "40,Too many levels of symbolic links");
  EXPECT_EQ(0, ::unlink(fifo.c_str()));
  EXPECT_EQ(0, ::unlink(CountFileOf("q").c_str()));
}

TEST_F(SyncEventOpen, LeavesEverythingAsItWasWithoutMemory) {
  OPL_SyncEvent* const made = NewEvent("q");
  const Footprint before = Footprint::Now();
  {
    const FailingMemory memory(2);
    EXPECT_EQ(0x050001u, Open());
  }
  ExpectError(ENOMEM, "OPL_SyncEventOpen:  malloc error :12");
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(1u, CountOf("q"));
  CloseEvent(made);
}

TEST_F(SyncEventTable, HasRoomForThirtyNineEvents) {
  std::vector<OPL_SyncEvent*> events;
  for (int i = 0; i < kTableSize; ++i) events.push_back(NewEvent(NumberedName(i)));
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0x05002Du, Create("e39"));
  ExpectError(0x05002D, "AddEventInCleanupList: Cleanup table is full");
  EXPECT_EQ(nullptr, event_);
  EXPECT_EQ(before, Footprint::Now());
  for (OPL_SyncEvent* event : events) CloseEvent(event);
}

TEST_F(SyncEventTable, IsFullForAnOpenToo) {
  OPL_SyncEvent* const other = NewEvent("other");
  opltest::WriteFile(CountFileOf("other"), CountBytes(9));
  CloseEvent(other);  // it stays, as another process's
  std::vector<OPL_SyncEvent*> events;
  for (int i = 0; i < kTableSize; ++i) events.push_back(NewEvent(NumberedName(i)));
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0x05002Du, Open("other"));
  ExpectError(0x05002D, "AddEventInCleanupList: Cleanup table is full");
  EXPECT_EQ(8u, CountOf("other"));
  EXPECT_EQ(before, Footprint::Now());
  for (OPL_SyncEvent* event : events) CloseEvent(event);
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "other*"));
}

TEST_F(SyncEventTable, HasOneEntryForAllHandlesOfAName) {
  std::vector<OPL_SyncEvent*> events;
  for (int i = 0; i < kTableSize; ++i) events.push_back(NewEvent(NumberedName(i)));
  ASSERT_EQ(0u, Open("e38"));
  EXPECT_EQ(2u, CountOf("e38"));
  // The entry is in use until both are closed.
  CloseEvent(events.back());
  OPL_SyncEvent* more = nullptr;
  EXPECT_EQ(0x05002Du, OPL_SyncEventCreate(&more, 0, "more", kPrivate));
  Close();
  ASSERT_EQ(0u, OPL_SyncEventCreate(&more, 0, "more", kPrivate));
  events.back() = more;
  for (OPL_SyncEvent* event : events) CloseEvent(event);
}

// Which steps can fail, and what comes of it. All are made with the event mutex at hand.
class SyncEventCreateStep : public opltest::FailingSteps {
 protected:
  void SetUp() override {
    FailingSteps::SetUp();
    CloseEvent(NewEvent("warm-up"));
  }
};

TEST_P(SyncEventCreateStep, LeavesNothingBehindWhenItFails) {
  const Footprint before = Footprint::Now();
  OPL_SyncEvent* event = nullptr;
  const std::string file = GetParam().message[0] == 'U' ? CountFileOf("q") : FifoOf("q");
  ExpectFailure(file, [&] { return OPL_SyncEventCreate(&event, 0, "q", kPrivate); });
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(before, Footprint::Now());
  ExpectManagementLockFree();
  EXPECT_EQ((opltest::Values{1, 31999}),
            opltest::ValuesOf(opltest::SetNamedBy(opltest::MutexFile("QVMXEV"))));
  // And the next one succeeds.
  CloseEvent(NewEvent("q"));
}

constexpr char kMkfifo[] = "OPL_SyncEventCreate: mkfifo error :$";
constexpr char kOpenFifo[] = "OPL_SyncEventCreate: open :$\nFile @";
constexpr char kOpenCount[] = "UpdateCountFile: OPL_CrtOpen(1) :$\nFile @";
constexpr char kWriteCount[] = "UpdateCountFile: write rc :-1 errno:$\nFile @";

INSTANTIATE_TEST_SUITE_P(, SyncEventCreateStep,
                         ::testing::Values(FailingStep{"mkfifo", 1, EACCES, 0x05004F, EACCES, kMkfifo},
                                           FailingStep{"mkfifo", 1, ENOSPC, 0x05004F, ENOSPC, kMkfifo},
                                           FailingStep{"open64", 1, EMFILE, 0x05001E, EMFILE, kOpenFifo},
                                           FailingStep{"open64", 2, EMFILE, 0x05001E, EMFILE, kOpenCount},
                                           FailingStep{"write", 1, ENOSPC, 0x05002A, ENOSPC, kWriteCount},
                                           FailingStep{"rename", 1, EIO, 0x05001E, EIO, kOpenCount},
                                           FailingStep{"link", 1, EMLINK, 0x05004F, EMLINK, kMkfifo},
                                           FailingStep{"link", 1, EEXIST, 0x05000A, 0x05000A,
                                                       "OPL_SyncEventCreate: event already exist"}),
                         opltest::NameOfStep);

class SyncEventOpenStep : public opltest::FailingSteps {};

TEST_P(SyncEventOpenStep, LeavesEverythingAsItWasWhenItFails) {
  OPL_SyncEvent* const made = NewEvent("q");
  const Footprint before = Footprint::Now();
  OPL_SyncEvent* event = nullptr;
  const std::string file = GetParam().message[0] == 'U' ? CountFileOf("q") : FifoOf("q");
  ExpectFailure(file, [&] { return OPL_SyncEventOpen(&event, 0, "q", kPrivate); });
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(1u, CountOf("q"));
  CloseEvent(OpenEvent("q"));
  CloseEvent(made);
  EXPECT_TRUE(EventFiles().empty());
}

INSTANTIATE_TEST_SUITE_P(, SyncEventOpenStep,
                         ::testing::Values(FailingStep{"open64", 1, EACCES, 0x05001E, EACCES,
                                                       "OPL_SyncEventOpen: open :$\nFile @"},
                                           FailingStep{"open64", 2, EACCES, 0x05001E, EACCES, kOpenCount},
                                           FailingStep{"read", 1, EIO, 0x050050, EIO,
                                                       "UpdateCountFile: read rc :-1 errno:$\nFile @"},
                                           FailingStep{"open64", 3, ENFILE, 0x05001E, ENFILE,
                                                       "UpdateCountFile: OPL_CrtOpen(2) :$\nFile @"},
                                           FailingStep{"write", 1, ENOSPC, 0x05002A, ENOSPC, kWriteCount}),
                         opltest::NameOfStep);

}  // namespace
