// OPL_SyncEventClose, the event mutex that goes lost, and the process's clean-up of events.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/FailingStep.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Footprint.h"

namespace {

using opltest::CloseEvent;
using opltest::CountBytes;
using opltest::CountFileOf;
using opltest::CountOf;
using opltest::DescriptorOf;
using opltest::EventFiles;
using opltest::ExpectError;
using opltest::FailingStep;
using opltest::Fault;
using opltest::FifoOf;
using opltest::Footprint;
using opltest::NewEvent;
using opltest::OpenEvent;

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

int YearOf(const std::string& file) {
  struct stat status {};
  EXPECT_EQ(0, ::lstat(file.c_str(), &status)) << file;
  struct tm brokenDown {};
  (void)::localtime_r(&status.st_mtime, &brokenDown);
  return brokenDown.tm_year + 1900;
}

std::string CountOpenMessage(const std::string& file) {
  return "UpdateCountFile: OPL_CrtOpen(1) :2,No such file or directory\nFile " + file;
}

class SyncEventClose : public opltest::Instance {
 protected:
  // Expects the code, a handle that is null and a descriptor that is closed.
  static void ExpectClose(uint32_t code, OPL_SyncEvent* event) {
    const int fd = DescriptorOf(event);
    EXPECT_EQ(code, OPL_SyncEventClose(&event));
    EXPECT_EQ(nullptr, event);
    EXPECT_FALSE(IsOpen(fd));
  }
};

class SyncEventMutex : public opltest::Instance {};
class SyncEventCleanup : public opltest::Instance {};
class SyncEventTerminate : public opltest::Instance {};

TEST_F(SyncEventClose, RefusesANullPointer) {
  EXPECT_EQ(0x050046u, OPL_SyncEventClose(nullptr));
  ExpectError(0x050046, "OPL_SyncEventClose: phEvent is NULL");
}

TEST_F(SyncEventClose, RefusesANullHandle) {
  OPL_SyncEvent* event = nullptr;
  EXPECT_EQ(0x050046u, OPL_SyncEventClose(&event));
  ExpectError(0x050046, "OPL_SyncEventClose: phEvent is NULL");
}

TEST_F(SyncEventClose, RemovesBothFilesWithTheLastHandle) {
  ExpectClose(0, NewEvent("q"));
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventClose, LeavesBothFilesWithAnEarlierHandle) {
  OPL_SyncEvent* const made = NewEvent("q");
  OPL_SyncEvent* const opened = OpenEvent("q");
  ExpectClose(0, made);
  EXPECT_EQ(2u, EventFiles().size());
  EXPECT_EQ(CountBytes(1), opltest::ContentsOf(CountFileOf("q")));
  EXPECT_EQ(0u, OPL_SyncEventPost(opened));
  ExpectClose(0, opened);
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventClose, MovesTheTimesOfFilesThatStayInto2036) {
  OPL_SyncEvent* const made = NewEvent("q");
  OPL_SyncEvent* const opened = OpenEvent("q");
  for (const std::string& file : {FifoOf("q"), CountFileOf("q")})
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, file.c_str(), nullptr, 0));
  CloseEvent(opened);
  EXPECT_EQ(2036, YearOf(FifoOf("q")));
  EXPECT_EQ(2036, YearOf(CountFileOf("q")));
  CloseEvent(made);
}

TEST_F(SyncEventClose, LosesThePostsWithTheLastHandle) {
  OPL_SyncEvent* const first = NewEvent("q");
  EXPECT_EQ(0u, OPL_SyncEventPost(first));
  CloseEvent(first);
  OPL_SyncEvent* const second = NewEvent("q");
  EXPECT_FALSE(opltest::IsSet(second));
  CloseEvent(second);
}

TEST_F(SyncEventClose, ReleasesTheHandleWhateverTheResult) {
  OPL_SyncEvent* event = nullptr;
  const opltest::CountedMemory memory;
  event = NewEvent("q");
  ASSERT_EQ(0, ::unlink(FifoOf("q").c_str()));
  ExpectClose(0x05001E, event);
  EXPECT_EQ(1, memory.Living());  // the event mutex's handle
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_EQ(0, ::unlink(CountFileOf("q").c_str()));
}

TEST_F(SyncEventClose, RemovesTheFilesOfACountBelowOne) {
  for (const uint32_t count : {0u, 0xFFFFFFFFu, 0x80000001u}) {
    OPL_SyncEvent* const event = NewEvent("q");
    opltest::WriteFile(CountFileOf("q"), CountBytes(count));
    ExpectClose(0, event);
    EXPECT_TRUE(EventFiles().empty()) << count;
  }
}

TEST_F(SyncEventClose, TakesOneOffACountThatAnotherProcessRaised) {
  OPL_SyncEvent* const event = NewEvent("q");
  opltest::WriteFile(CountFileOf("q"), CountBytes(0x01020304) + "x");
  ExpectClose(0, event);
  EXPECT_EQ(CountBytes(0x01020303) + "x", opltest::ContentsOf(CountFileOf("q")));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
}

TEST_F(SyncEventClose, TellsACountFileThatIsTooShortAndLeavesTheFiles) {
  for (const std::string& contents : {std::string(), std::string("\1\0\0", 3)}) {
    OPL_SyncEvent* const event = NewEvent("q");
    opltest::WriteFile(CountFileOf("q"), contents);
    ExpectClose(0x050050, event);
    ExpectError(0, ("UpdateCountFile: read rc :" + std::to_string(contents.size()) +
                    " errno:0,Success\nFile " + CountFileOf("q"))
                       .c_str());
    EXPECT_EQ(2u, EventFiles().size());
    EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  }
}

TEST_F(SyncEventClose, TellsThatTheCountFileIsGone) {
  OPL_SyncEvent* const event = NewEvent("q");
  ASSERT_EQ(0, ::unlink(CountFileOf("q").c_str()));
  ExpectClose(0x05001E, event);
  ExpectError(ENOENT, CountOpenMessage(CountFileOf("q")).c_str());
  EXPECT_EQ(1u, EventFiles().size());
  EXPECT_EQ(0, ::unlink(FifoOf("q").c_str()));
}

TEST_F(SyncEventClose, TellsThatTheEventWasRemoved) {
  OPL_SyncEvent* const event = NewEvent("q");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event*"));
  ExpectClose(0x05001E, event);
  ExpectError(ENOENT, CountOpenMessage(CountFileOf("q")).c_str());
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventClose, LeavesAnEventThatWasMadeAnewAlone) {
  OPL_SyncEvent* const old = NewEvent("q");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event*"));
  OPL_SyncEvent* const made = NewEvent("q");
  ExpectClose(0x05001E, old);
  EXPECT_EQ(1u, CountOf("q"));
  ExpectClose(0, made);
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventClose, GoesOnWhenSignalsCannotBeBlocked) {
  OPL_SyncEvent* const event = NewEvent("q");
  const int fd = DescriptorOf(event);
  OPL_SyncEvent* handle = event;
  {
    const Fault fault("pthread_sigmask", 1, EINVAL);
    EXPECT_NE(0u, OPL_SyncEventClose(&handle));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(nullptr, handle);
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_TRUE(EventFiles().empty());
}

// Without the event mutex the count cannot be changed; the process's end makes up for it.
TEST_F(SyncEventClose, LeavesTheCountToTheEndWhenItCannotHaveTheEventMutex) {
  OPL_SyncEvent* event = NewEvent("q");
  const int fd = DescriptorOf(event);
  {
    const Fault fault("semop", 1, ENOSPC);
    EXPECT_EQ(0x050023u, OPL_SyncEventClose(&event));
    EXPECT_TRUE(fault.Fired());
  }
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(EventFiles().empty());
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(SyncEventClose, ClosesAFurtherHandlesDescriptorWithoutTheEventMutex) {
  OPL_SyncEvent* const made = NewEvent("q");
  OPL_SyncEvent* const opened = OpenEvent("q");
  {
    const Fault fault("semop", 1, ENOSPC);
    ExpectClose(0x050023, opened);
  }
  ExpectClose(0, made);
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(EventFiles().empty());
}

class SyncEventCloseStep : public opltest::FailingSteps {};

TEST_P(SyncEventCloseStep, LeavesTheCountAndReleasesTheHandleWhenItFails) {
  OPL_SyncEvent* event = NewEvent("q");
  const int fd = DescriptorOf(event);
  ExpectFailure(CountFileOf("q"), [&] { return OPL_SyncEventClose(&event); });
  EXPECT_EQ(nullptr, event);
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_EQ(2u, EventFiles().size());
  ExpectManagementLockFree();
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event*"));
}

INSTANTIATE_TEST_SUITE_P(
    , SyncEventCloseStep,
    ::testing::Values(
        FailingStep{"open64", 1, EMFILE, 0x05001E, EMFILE, "UpdateCountFile: OPL_CrtOpen(1) :$\nFile @"},
        FailingStep{"read", 1, EIO, 0x050050, EIO, "UpdateCountFile: read rc :-1 errno:$\nFile @"},
        FailingStep{"open64", 2, EMFILE, 0x05001E, EMFILE, "UpdateCountFile: OPL_CrtOpen(2) :$\nFile @"},
        FailingStep{"write", 1, ENOSPC, 0x05002A, ENOSPC, "UpdateCountFile: write rc :-1 errno:$\nFile @"}),
    opltest::NameOfStep);

TEST_F(SyncEventMutex, IsMadeAnewForACreationAfterItsRemoval) {
  OPL_SyncEvent* const first = NewEvent("first");
  const int set = opltest::SetNamedBy(opltest::MutexFile("QVMXEV"));
  opltest::RemoveSet(set);
  OPL_SyncEvent* const second = NewEvent("second");
  const int made = opltest::SetNamedBy(opltest::MutexFile("QVMXEV"));
  EXPECT_NE(set, made);
  EXPECT_EQ((opltest::Values{1, 31999}), opltest::ValuesOf(made));
  CloseEvent(first);
  CloseEvent(second);
}

TEST_F(SyncEventMutex, IsMadeAnewForAnOpenAfterItsRemoval) {
  OPL_SyncEvent* const first = NewEvent("q");
  opltest::RemoveSet(opltest::SetNamedBy(opltest::MutexFile("QVMXEV")));
  CloseEvent(OpenEvent("q"));
  CloseEvent(first);
}

TEST_F(SyncEventMutex, IsMadeAnewForACloseAfterItsRemoval) {
  OPL_SyncEvent* const first = NewEvent("q");
  opltest::RemoveSet(opltest::SetNamedBy(opltest::MutexFile("QVMXEV")));
  CloseEvent(first);
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventMutex, IsMadeAnewForTheProcesssEndAfterItsRemoval) {
  (void)NewEvent("q");
  opltest::RemoveSet(opltest::SetNamedBy(opltest::MutexFile("QVMXEV")));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventMutex, IsMadeAnewAfterATermination) {
  OPL_SyncEvent* event = NewEvent("q");
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(0x05001Eu, OPL_SyncEventClose(&event));
  event = NewEvent("q");
  CloseEvent(event);
}

// Another thread may be about to take it or to give it back.
TEST_F(SyncEventMutex, KeepsTheHandleOfARemovedSet) {
  OPL_SyncEvent* const event = NewEvent("q");
  opltest::RemoveSet(opltest::SetNamedBy(opltest::MutexFile("QVMXEV")));
  const opltest::CountedMemory memory;
  OPL_SyncEvent* const other = NewEvent("other");
  EXPECT_EQ(2, memory.Living());  // the event and the new mutex
  CloseEvent(other);
  EXPECT_EQ(1, memory.Living());
  CloseEvent(event);
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
}

TEST_F(SyncEventMutex, TellsThatItsOwnLockCannotBeTaken) {
  OPL_SyncEvent* event = nullptr;
  CloseEvent(NewEvent("warm-up"));
  {
    const Fault fault("pthread_mutex_lock", 1, EDEADLK);
    EXPECT_EQ(0x05003Du, OPL_SyncEventCreate(&event, 0, "q", OPL_SYNC_EVENT_PRIVATE));
  }
  ExpectError(EDEADLK, "LockProcess: pthread_mutex_lock :35,Resource deadlock avoided");
  EXPECT_EQ(nullptr, event);
  EXPECT_TRUE(EventFiles().empty());
}

// The code is that of the lock.
TEST_F(SyncEventMutex, TellsThatItsOwnLockCannotBeGivenBack) {
  OPL_SyncEvent* event = nullptr;
  CloseEvent(NewEvent("warm-up"));
  {
    const Fault fault("pthread_mutex_unlock", 1, EPERM);
    EXPECT_EQ(0x05003Du, OPL_SyncEventCreate(&event, 0, "q", OPL_SYNC_EVENT_PRIVATE));
  }
  ExpectError(EPERM, "UnlockProcess: pthread_mutex_unlock :1,Operation not permitted");
  EXPECT_EQ(nullptr, event);
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventCleanup, ClosesAllEventsAndTheEventMutex) {
  (void)NewEvent("a");
  (void)NewEvent("b", OPL_SYNC_EVENT_ALL);
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(opltest::ObjectFiles().empty());
  EXPECT_EQ(1u, opltest::SemaphoreSets().size());
}

TEST_F(SyncEventCleanup, MakesNoEventMutexWhereThereIsNoEvent) {
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(opltest::ObjectFiles().empty());
}

// One for the name, however many handles: the files stay.
TEST_F(SyncEventCleanup, TakesOneOffForEachName) {
  (void)NewEvent("q");
  (void)OpenEvent("q");
  (void)OpenEvent("q");
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_EQ(2u, CountOf("q"));
  EXPECT_EQ(2036, YearOf(FifoOf("q")));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
}

TEST_F(SyncEventCleanup, ClosesTheFirstHandlesDescriptor) {
  OPL_SyncEvent* const made = NewEvent("q");
  OPL_SyncEvent* const opened = OpenEvent("q");
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_FALSE(IsOpen(DescriptorOf(made)));
  EXPECT_TRUE(IsOpen(DescriptorOf(opened)));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
}

// The number of a descriptor that was closed may be another file's by now.
TEST_F(SyncEventCleanup, ClosesNoDescriptorThatIsNotItsOwn) {
  OPL_SyncEvent* const made = NewEvent("q");
  (void)OpenEvent("q");
  const int fd = DescriptorOf(made);
  CloseEvent(made);
  ASSERT_EQ(fd, ::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_TRUE(IsOpen(fd));
  EXPECT_TRUE(EventFiles().empty());
  ::close(fd);
}

TEST_F(SyncEventCleanup, OnlyDropsTheRestAfterAFailure) {
  (void)NewEvent("a");
  (void)NewEvent("b");
  (void)NewEvent("c");
  ASSERT_EQ(0, ::unlink(CountFileOf("b").c_str()));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_NE(0, ::access(FifoOf("a").c_str(), F_OK));
  EXPECT_EQ(0, ::access(FifoOf("b").c_str(), F_OK));
  EXPECT_EQ(1u, CountOf("c"));
  // The event mutex is closed all the same.
  EXPECT_NE(0, ::access(opltest::MutexFile("QVMXEV").c_str(), F_OK));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
}

TEST_F(SyncEventCleanup, OnlyForgetsInModeOne) {
  OPL_SyncEvent* const event = NewEvent("q");
  const Footprint before = Footprint::Now();
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(1));
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(1u, CountOf("q"));
  EXPECT_TRUE(IsOpen(DescriptorOf(event)));
  EXPECT_EQ(0u, OPL_SyncProcessCleanup(0));
  EXPECT_EQ(before, Footprint::Now());
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
}

TEST_F(SyncEventTerminate, RemovesFifoAndCountFile) {
  (void)NewEvent("q");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_TRUE(EventFiles().empty());
}

TEST_F(SyncEventTerminate, TakesTheCountFileAlongWithTheFifo) {
  (void)NewEvent("q");
  (void)NewEvent("r");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "q.event.*021"));
  EXPECT_EQ(2u, EventFiles().size());
  EXPECT_EQ(1u, CountOf("r"));
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
}

TEST_F(SyncEventTerminate, IgnoresWhatCannotBeRemoved) {
  ASSERT_EQ(0, ::mkdir(FifoOf("d").c_str(), 0700));
  (void)NewEvent("q");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_EQ(1u, EventFiles().size());
  EXPECT_EQ(0, ::rmdir(FifoOf("d").c_str()));
}

TEST_F(SyncEventTerminate, LeavesEventsForAllUsersAndOfOthersAlone) {
  OPL_SyncEvent* const all = NewEvent("all", OPL_SYNC_EVENT_ALL);
  const std::string other = opltest::IpcDirectory() + "/q.event.OTHER.006.021";
  const std::string version = opltest::IpcDirectory() + "/q.event." + opltest::InstanceString() + ".007.000";
  opltest::WriteFile(other, "");
  opltest::WriteFile(version, "");
  EXPECT_EQ(0u, OPL_SyncTerminateIPC(0, "*"));
  EXPECT_EQ(4u, EventFiles().size());
  EXPECT_EQ(0, ::unlink(other.c_str()));
  EXPECT_EQ(0, ::unlink(version.c_str()));
  CloseEvent(all);
}

TEST(SyncEventTerminateBeforeBegin, RemovesWhatAnotherProcessLeft) {
  ASSERT_EQ(0, ::mkfifo(FifoOf("q").c_str(), 0600));
  opltest::WriteFile(CountFileOf("q"), CountBytes(3));
  EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(EventFiles().empty());
}

}  // namespace
