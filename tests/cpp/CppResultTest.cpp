// How the C++ interface tells of failures.
#include <gtest/gtest.h>

#include <cerrno>
#include <qvopl.hpp>
#include <thread>

#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

class CppResult : public opltest::Instance {};

TEST_F(CppResult, IsASuccessWithItsValue) {
  const qvopl::Result<qvopl::NamedMutex> mutex = qvopl::NamedMutex::Create(std::nothrow, "queue");
  EXPECT_TRUE(mutex.ok());
  EXPECT_TRUE(static_cast<bool>(mutex));
  EXPECT_EQ(OPL_OK, mutex.code());
  EXPECT_EQ(std::error_code(), mutex.error());
  EXPECT_STREQ("", mutex.message());
  EXPECT_TRUE(static_cast<bool>(*mutex));
}

TEST_F(CppResult, TellsTheCodeAndTheRecordedMessage) {
  const qvopl::Result<qvopl::NamedMutex> mutex = qvopl::NamedMutex::Open(std::nothrow, "a name too long");
  EXPECT_FALSE(mutex.ok());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_BAD_NAME), mutex.code());
  EXPECT_STREQ(OPL_ErrMessageGet(0), mutex.message());
  EXPECT_EQ(0, mutex.systemError());
  EXPECT_EQ(static_cast<int>(OPL_SYNC_E_BAD_NAME), mutex.error().value());
  EXPECT_EQ(std::errc::filename_too_long, mutex.error());
  EXPECT_STREQ("qvopl", mutex.error().category().name());
}

TEST_F(CppResult, TellsTheNumberOfTheSystemCallThatFailed) {
  opltest::Fault fault("poll", 1, EIO);
  const qvopl::Event event = qvopl::Event::Create("work");
  const qvopl::Result<bool> isSet = event.WaitFor(std::nothrow, std::chrono::seconds(0));
  EXPECT_TRUE(fault.Fired());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_POLL), isSet.code());
  EXPECT_EQ(EIO, isSet.systemError());
  EXPECT_STREQ("OPL_SyncWaitableEventWaitForMultiple: poll error 5,Input/output error", isSet.message());
}

TEST_F(CppResult, TellsOfWhatTheInterfaceItselfRefuses) {
  (void)OPL_ErrSet(0, EIO, "of another call");
  const auto large = qvopl::SharedMemory<uint64_t[]>::Open(std::nothrow, "large", SIZE_MAX / 4);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_PRIVATE_E_SHMGET), large.code());
  EXPECT_STREQ("SharedMemory: no segment could be made", large.message());
  EXPECT_EQ(0, large.systemError());
  qvopl::WaitSet set;
  const qvopl::PrivateEvent event = qvopl::PrivateEvent::Create();
  while (set.size() != OPL_SYNC_WAIT_MAX) (void)set.Add(event);
  (void)OPL_ErrSet(0, EIO, "of another call");
  EXPECT_STREQ("WaitSet::Add: more than OPL_SYNC_WAIT_MAX waitable events",
               set.Add(std::nothrow, event).message());
}

TEST_F(CppResult, SaysWhatTheCodeMeansWhereNothingIsRecorded) {
  qvopl::ReadWriteLock lock = qvopl::ReadWriteLock::Create("table");
  (void)OPL_ErrSet(0, EIO, "of another call");
  const qvopl::Result<void> unlocked = lock.unlock(std::nothrow);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_NOT_HELD), unlocked.code());
  EXPECT_STREQ("the thread does not hold the read-write lock", unlocked.message());
  EXPECT_EQ(0, unlocked.systemError());
}

TEST_F(CppResult, IsLookedAtWhileItIsConstant) {
  const qvopl::Result<qvopl::NamedMutex> mutex = qvopl::NamedMutex::Create(std::nothrow, "queue");
  EXPECT_EQ(mutex->native(), mutex.value().native());
  const qvopl::Result<qvopl::NamedMutex> again = qvopl::NamedMutex::Create(std::nothrow, "queue");
  EXPECT_THROW((void)again.value(), qvopl::Error);
}

TEST_F(CppResult, ThrowsWhatItHasNot) {
  qvopl::Result<uint32_t> result = qvopl::Result<uint32_t>::Failure(OPL_INIT_E_STOPPED);
  EXPECT_THROW((void)result.value(), qvopl::Error);
  EXPECT_DEATH((void)*result, "");
}

class CppError : public opltest::Instance {};

TEST_F(CppError, CarriesTheRecordedMessage) {
  try {
    (void)qvopl::NamedMutex::Open("a name too long");
    FAIL() << "nothing is thrown";
  } catch (const qvopl::Error& error) {
    EXPECT_EQ(static_cast<OPL_Result>(OPL_SYNC_E_BAD_NAME), error.result());
    EXPECT_STREQ(OPL_ErrMessageGet(0), error.what());
    EXPECT_EQ(0, error.systemError());
  }
}

TEST_F(CppError, KeepsItsMessageWhenTheRecordHasAnother) {
  try {
    (void)qvopl::NamedMutex::Open("a name too long");
    FAIL() << "nothing is thrown";
  } catch (const std::system_error& error) {
    const std::string before = error.what();
    (void)OPL_ErrSet(0, 1, "something else");
    EXPECT_EQ(before, error.what());
    EXPECT_EQ("the name is longer than OPL_SYNC_NAME_MAX", error.code().message());
    EXPECT_EQ(std::errc::filename_too_long, error.code());
  }
}

TEST_F(CppError, SaysWhatTheCodeMeansWhereNothingIsRecorded) {
  (void)OPL_ErrSet(0, 1, "of another call");
  auto [first, second] = qvopl::Socket::Pair();
  first.SetBlocking(false);
  char byte = 0;
  try {
    (void)first.Receive(qvopl::WritableBytesOf(byte));
    FAIL() << "nothing is thrown";
  } catch (const qvopl::Error& error) {
    EXPECT_STREQ("not now; the connection is being made", error.what());
    EXPECT_EQ(std::errc::operation_would_block, error.code());
    EXPECT_EQ(0, error.systemError());
  }
}

TEST_F(CppError, IsOfTheThreadThatFailed) {
  (void)OPL_ErrSet(0, OPL_SYNC_E_BAD_NAME, "of this thread");
  EXPECT_EQ("of this thread", qvopl::MakeErrorCode(OPL_SYNC_E_BAD_NAME).message());
  opltest::InNewThread([] {
    EXPECT_EQ("the name is longer than OPL_SYNC_NAME_MAX",
              qvopl::MakeErrorCode(OPL_SYNC_E_BAD_NAME).message());
  });
}

TEST(CppErrorCategory, KnowsEveryConditionThatComesNear) {
  const std::pair<OPL_Result, std::errc> kConditions[] = {
      {OPL_SYNC_E_MUTEX_EXISTS, std::errc::file_exists},
      {OPL_SYNC_E_MUTEX_MISSING, std::errc::no_such_file_or_directory},
      {OPL_SYNC_E_INTERRUPTED, std::errc::interrupted},
      {OPL_SYNC_E_TIMEOUT, std::errc::timed_out},
      {OPL_SYNC_E_NOT_OWNER, std::errc::operation_not_permitted},
      {OPL_PRIVATE_E_SHMEM_EXISTS, std::errc::file_exists},
      {OPL_SHAREDMEM_E_NO_MEMORY, std::errc::not_enough_memory},
      {OPL_SOCKET_E_WOULD_BLOCK, std::errc::operation_would_block},
      {OPL_SOCKET_E_REFUSED, std::errc::connection_refused},
      {OPL_SOCKET_E_BROKEN_PIPE, std::errc::broken_pipe},
      {OPL_SERVER_E_NOT_STARTED, std::errc::no_such_process},
      {OPL_THREAD_E_INVALID_ARGUMENT, std::errc::invalid_argument},
      {OPL_PRIVATE_E_MGMT_HELD, std::errc::device_or_resource_busy},
  };
  for (const auto& [code, condition] : kConditions) {
    SCOPED_TRACE(code);
    EXPECT_EQ(condition, qvopl::MakeErrorCode(code));
    EXPECT_NE(std::errc::bad_address, qvopl::MakeErrorCode(code));
  }
}

TEST(CppErrorCategory, LeavesACodeWithoutOneToItself) {
  const std::error_code error = qvopl::MakeErrorCode(OPL_SYNC_E_SEMOP);
  EXPECT_EQ(qvopl::ErrorCategory(), error.default_error_condition().category());
  EXPECT_EQ("a semaphore operation failed", error.message());
  EXPECT_EQ("not a result code of QVOPL", qvopl::MakeErrorCode(0x06FFFF).message());
  EXPECT_FALSE(qvopl::MakeErrorCode(OPL_OK));
}

class CppLibrary : public ::testing::Test {};

TEST_F(CppLibrary, IsBegunAsLongAsAnObjectLives) {
  EXPECT_FALSE(qvopl::Library::IsBegun());
  {
    const qvopl::Library outer;
    {
      qvopl::Library inner = qvopl::Library::Begin(std::nothrow).value();
      const qvopl::Library moved = std::move(inner);
    }
    EXPECT_TRUE(qvopl::Library::IsBegun());
  }
  EXPECT_FALSE(qvopl::Library::IsBegun());
}

TEST_F(CppLibrary, EndsOnce) {
  qvopl::Library library;
  EXPECT_TRUE(library.End(std::nothrow).ok());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_INIT_E_STOPPED), library.End(std::nothrow).code());
}

TEST_F(CppLibrary, LeavesHandlesBehindItsEndAlone) {
  qvopl::Library library;
  const qvopl::NamedMutex mutex = qvopl::NamedMutex::Create("queue");
  library.End();
}

TEST_F(CppLibrary, TellsOfTheInstance) {
  const qvopl::Library library;
  EXPECT_EQ(opltest::InstanceString(), qvopl::Library::InstanceName());
  EXPECT_EQ(opltest::IpcDirectory(), qvopl::Library::IpcDirectory().view());
  EXPECT_STREQ("006.021", qvopl::Library::Version());
}

}  // namespace
