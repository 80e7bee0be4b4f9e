// Waitable events: their records, and waiting for many descriptors at once.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "OPL_Sync.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/SignalStream.h"
#include "tests/support/Threads.h"

namespace {

using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::Fault;
using opltest::Replacement;

constexpr uint32_t kError = 0x01;
constexpr uint32_t kWritable = 0x02;
constexpr uint32_t kReadable = 0x04;
constexpr int32_t kNow = 0;

// The record's five words, as the modules that bind one see them.
struct Record {
  uint32_t reserved0;
  uint32_t reserved1;
  uint32_t waitBitmap;
  uint32_t readyBitmap;
  int32_t nativeHandle;

  bool operator==(const Record&) const = default;
};

Record& RecordOf(OPL_SyncWaitableEvent* wait) { return *reinterpret_cast<Record*>(wait); }

// A pipe, with nothing in it.
struct Pipe {
  Pipe() { EXPECT_EQ(0, ::pipe(ends)); }
  ~Pipe() {
    CloseReader();
    CloseWriter();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int reader() const { return ends[0]; }
  int writer() const { return ends[1]; }
  void Fill() const { EXPECT_EQ(1, ::write(ends[1], "x", 1)); }
  void CloseReader() { Close(&ends[0]); }
  void CloseWriter() { Close(&ends[1]); }

 private:
  static void Close(int* end) {
    if (*end != -1) (void)::close(*end);
    *end = -1;
  }

  int ends[2] = {-1, -1};
};

class SyncWaitableEvent : public opltest::Instance {
 protected:
  void TearDown() override {
    for (OPL_SyncWaitableEvent*& wait : waits_) EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&wait));
    Instance::TearDown();
  }

  // Binds one more record, the next of the array that Wait waits for.
  OPL_SyncWaitableEvent* Bind(int fd, uint32_t bitmap) {
    OPL_SyncWaitableEvent* wait = nullptr;
    EXPECT_EQ(0u, OPL_SyncWaitableEventCreate(&wait, 0));
    EXPECT_EQ(0u, OPL_SyncWaitableEventNativeHandleSet(wait, fd, bitmap));
    waits_.push_back(wait);
    return wait;
  }

  OPL_Result Wait(const int32_t* timeoutMs = &kNow) {
    ready_.assign(waits_.size(), 7);
    return OPL_SyncWaitableEventWaitForMultiple(0, static_cast<uint32_t>(waits_.size()), waits_.data(),
                                                ready_.data(), timeoutMs);
  }

  static uint32_t Found(OPL_SyncWaitableEvent* wait) {
    int32_t fd = -7;
    uint32_t found = 7;
    EXPECT_EQ(0u, OPL_SyncWaitableEventNativeHandleGet(wait, &fd, &found));
    return found;
  }

  std::vector<OPL_SyncWaitableEvent*> waits_;
  std::vector<uint32_t> ready_;
};

class SyncWaitableEventCreate : public SyncWaitableEvent {};
class SyncWaitableEventCopy : public SyncWaitableEvent {};
class SyncWaitableEventDestroy : public SyncWaitableEvent {};
class SyncWaitableEventNativeHandle : public SyncWaitableEvent {};
class SyncWaitableEventReset : public SyncWaitableEvent {};
class SyncWaitableEventWait : public SyncWaitableEvent {};

TEST(SyncWaitableEventBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventCreate(nullptr, 1));
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventCopy(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventDestroy(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventNativeHandleSet(nullptr, 0, 0));
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventNativeHandleGet(nullptr, nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventReset(nullptr));
  EXPECT_EQ(0x050203u, OPL_SyncWaitableEventWaitForMultiple(0, 65, nullptr, nullptr, nullptr));
}

TEST_F(SyncWaitableEventCreate, RefusesAModeBeforeItLooksForTheRecord) {
  EXPECT_EQ(0x050043u, OPL_SyncWaitableEventCreate(nullptr, 1));
  ExpectError(0x050043, "OPL_SyncWaitableEventCreate: invalid mode");
}

TEST_F(SyncWaitableEventCreate, RefusesANullRecord) {
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventCreate(nullptr, 0));
  ExpectError(0x050046, "OPL_SyncWaitableEventCreate: ppWait is NULL");
}

TEST_F(SyncWaitableEventCreate, ClearsAllFiveWords) {
  OPL_SyncWaitableEvent* wait = nullptr;
  {
    CountedMemory memory;
    EXPECT_EQ(0u, OPL_SyncWaitableEventCreate(&wait, 0));
    EXPECT_EQ(1, memory.Allocated());
    EXPECT_EQ((Record{}), RecordOf(wait));
    EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&wait));
    EXPECT_EQ(0, memory.Living());
  }
}

TEST_F(SyncWaitableEventCreate, LeavesTheHandleAloneWithoutMemory) {
  auto* const before = reinterpret_cast<OPL_SyncWaitableEvent*>(&waits_);
  OPL_SyncWaitableEvent* wait = before;
  {
    const FailingMemory memory(1);
    EXPECT_EQ(0x050001u, OPL_SyncWaitableEventCreate(&wait, 0));
  }
  ExpectError(ENOMEM, "OPL_SyncWaitableEventCreate: OPL_MEMMALLOC error :12");
  EXPECT_EQ(before, wait);
}

TEST_F(SyncWaitableEventCopy, CarriesTheFirstReservedWordAndNothingElse) {
  OPL_SyncWaitableEvent* const source = Bind(5, kReadable | kWritable);
  RecordOf(source) = {11, 12, 13, 14, 15};
  OPL_SyncWaitableEvent* copy = nullptr;
  EXPECT_EQ(0u, OPL_SyncWaitableEventCopy(&copy, source));
  EXPECT_EQ((Record{11, 0, 0, 0, 0}), RecordOf(copy));
  EXPECT_EQ((Record{11, 12, 13, 14, 15}), RecordOf(source));
  EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&copy));
}

// It forgets what the pointer held before.
TEST_F(SyncWaitableEventCopy, MakesANewRecordWhateverThePointerHeld) {
  OPL_SyncWaitableEvent* const source = Bind(5, kReadable);
  OPL_SyncWaitableEvent* copy = source;
  EXPECT_EQ(0u, OPL_SyncWaitableEventCopy(&copy, source));
  EXPECT_NE(source, copy);
  EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&copy));
}

TEST_F(SyncWaitableEventCopy, SucceedsWithoutASourceAndLeavesItsMessage) {
  OPL_SyncWaitableEvent* copy = nullptr;
  EXPECT_EQ(0u, OPL_SyncWaitableEventCopy(&copy, nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventCopy: hSource is NULL");
  EXPECT_EQ((Record{}), RecordOf(copy));
  EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&copy));
}

// The result and the last message are those of the creation, which is tried all the same.
TEST_F(SyncWaitableEventCopy, LeavesItToTheCreationToRefuseANullRecord) {
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventCopy(nullptr, nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventCreate: ppWait is NULL");
}

TEST_F(SyncWaitableEventCopy, StoresNullWithoutMemory) {
  OPL_SyncWaitableEvent* const source = Bind(5, kReadable);
  OPL_SyncWaitableEvent* copy = source;
  {
    const FailingMemory memory(1);
    EXPECT_EQ(0x050001u, OPL_SyncWaitableEventCopy(&copy, source));
  }
  ExpectError(ENOMEM, "OPL_SyncWaitableEventCreate: OPL_MEMMALLOC error :12");
  EXPECT_EQ(nullptr, copy);
}

TEST_F(SyncWaitableEventDestroy, RefusesANullPointer) {
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventDestroy(nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventDestroy: pWait is NULL");
}

TEST_F(SyncWaitableEventDestroy, StoresNullAndSucceedsAgain) {
  OPL_SyncWaitableEvent* wait = nullptr;
  ASSERT_EQ(0u, OPL_SyncWaitableEventCreate(&wait, 0));
  EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&wait));
  EXPECT_EQ(nullptr, wait);
  EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&wait));
}

TEST_F(SyncWaitableEventDestroy, LeavesTheDescriptorOpen) {
  const Pipe pipe;
  OPL_SyncWaitableEvent* wait = nullptr;
  ASSERT_EQ(0u, OPL_SyncWaitableEventCreate(&wait, 0));
  ASSERT_EQ(0u, OPL_SyncWaitableEventNativeHandleSet(wait, pipe.writer(), kWritable));
  EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&wait));
  pipe.Fill();
}

TEST_F(SyncWaitableEventNativeHandle, IsNotSetInANullRecord) {
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventNativeHandleSet(nullptr, 3, kReadable));
  ExpectError(0x050046, "OPL_SyncWaitableEventNativeHandleSet: Wait is NULL");
}

TEST_F(SyncWaitableEventNativeHandle, IsSetWithTheWantedConditions) {
  OPL_SyncWaitableEvent* const wait = Bind(-9, 0xFFFFFFFF);
  EXPECT_EQ((Record{0, 0, 0xFFFFFFFF, 0, -9}), RecordOf(wait));
}

TEST_F(SyncWaitableEventNativeHandle, IsNotToldOfANullRecord) {
  int32_t fd = 0;
  uint32_t found = 0;
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventNativeHandleGet(nullptr, &fd, &found));
  ExpectError(0x050046, "OPL_SyncWaitableEventNativeHandleGet: Wait is NULL");
}

TEST_F(SyncWaitableEventNativeHandle, IsNotToldWithoutAPlaceForIt) {
  uint32_t found = 0;
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventNativeHandleGet(Bind(3, kReadable), nullptr, &found));
  ExpectError(0x050046, "OPL_SyncWaitableEventNativeHandleGet: pHandle is NULL");
}

TEST_F(SyncWaitableEventNativeHandle, IsNotToldWithoutAPlaceForTheConditions) {
  int32_t fd = 0;
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventNativeHandleGet(Bind(3, kReadable), &fd, nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventNativeHandleGet: pBitmap is NULL");
}

TEST_F(SyncWaitableEventNativeHandle, IsToldWithTheConditionsFoundNotThoseWanted) {
  OPL_SyncWaitableEvent* const wait = Bind(3, kReadable);
  RecordOf(wait).readyBitmap = kWritable;
  int32_t fd = -1;
  uint32_t found = 0;
  EXPECT_EQ(0u, OPL_SyncWaitableEventNativeHandleGet(wait, &fd, &found));
  EXPECT_EQ(3, fd);
  EXPECT_EQ(kWritable, found);
}

TEST_F(SyncWaitableEventReset, RefusesANullRecord) {
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventReset(nullptr));
  ExpectError(0x050046, "OPL_SyncWaitableEventReset: Wait is NULL");
}

TEST_F(SyncWaitableEventReset, ClearsTheReservedWordsAndNothingElse) {
  OPL_SyncWaitableEvent* const wait = Bind(5, kReadable);
  RecordOf(wait) = {11, 12, 13, 14, 15};
  EXPECT_EQ(0u, OPL_SyncWaitableEventReset(wait));
  EXPECT_EQ((Record{0, 0, 13, 14, 15}), RecordOf(wait));
}

TEST_F(SyncWaitableEventWait, TakesSixtyFourRecords) {
  std::array<Pipe, 64> pipes;
  for (const Pipe& pipe : pipes) Bind(pipe.reader(), kReadable);
  pipes[0].Fill();
  pipes[63].Fill();
  EXPECT_EQ(0u, Wait());
  std::vector<uint32_t> expected(64, 0);
  expected[0] = expected[63] = 1;
  EXPECT_EQ(expected, ready_);
  EXPECT_EQ(kReadable, Found(waits_[63]));
  EXPECT_EQ(0u, Found(waits_[62]));
}

TEST_F(SyncWaitableEventWait, RefusesSixtyFiveRecordsAndLooksAtNone) {
  uint32_t ready[65];
  std::fill(std::begin(ready), std::end(ready), 7);
  EXPECT_EQ(0x05005Fu, OPL_SyncWaitableEventWaitForMultiple(0, 65, nullptr, ready, &kNow));
  ExpectError(0, "OPL_SyncWaitableEventWaitForMultiple: Too many waitable events.");
  EXPECT_EQ(7u, ready[0]);
  EXPECT_EQ(0x05005Fu, OPL_SyncWaitableEventWaitForMultiple(0, 0xFFFFFFFF, nullptr, ready, &kNow));
}

TEST_F(SyncWaitableEventWait, LooksAtNoReservedArgument) {
  const Pipe pipe;
  Bind(pipe.writer(), kWritable);
  uint32_t ready = 7;
  EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0xFFFFFFFF, 1, waits_.data(), &ready, &kNow));
  EXPECT_EQ(1u, ready);
}

TEST_F(SyncWaitableEventWait, RefusesNullArrays) {
  Bind(0, kReadable);
  uint32_t ready = 0;
  constexpr char kRefusal[] = "OPL_SyncWaitableEventWaitForMultiple: Events or ready flags are NULL";
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventWaitForMultiple(0, 1, nullptr, &ready, &kNow));
  ExpectError(0x050046, kRefusal);
  EXPECT_EQ(0u, ready);
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventWaitForMultiple(0, 1, waits_.data(), nullptr, &kNow));
  ExpectError(0x050046, kRefusal);
}

TEST_F(SyncWaitableEventWait, RefusesANullRecordAmongOthers) {
  const Pipe pipe;
  OPL_SyncWaitableEvent* const records[] = {Bind(pipe.writer(), kWritable), nullptr};
  uint32_t ready[2] = {7, 7};
  EXPECT_EQ(0x050046u, OPL_SyncWaitableEventWaitForMultiple(
                           0, 2, const_cast<OPL_SyncWaitableEvent**>(records), ready, &kNow));
  EXPECT_EQ(0u, ready[0]);
  EXPECT_EQ(0u, ready[1]);
}

TEST_F(SyncWaitableEventWait, TimesOutWithNoRecordAtAll) {
  EXPECT_EQ(0x05004Bu, OPL_SyncWaitableEventWaitForMultiple(0, 0, nullptr, nullptr, &kNow));
  ExpectError(0x05004B, "OPL_SyncWaitableEventWaitForMultiple: poll timeout");
}

TEST_F(SyncWaitableEventWait, TimesOutAtOnceWhenNothingIsReady) {
  const Pipe pipe;
  OPL_SyncWaitableEvent* const wait = Bind(pipe.reader(), kReadable);
  RecordOf(wait).readyBitmap = kReadable;
  EXPECT_EQ(0x05004Bu, Wait());
  ExpectError(0x05004B, "OPL_SyncWaitableEventWaitForMultiple: poll timeout");
  EXPECT_EQ(std::vector<uint32_t>{0}, ready_);
  EXPECT_EQ(0u, Found(wait));
}

TEST_F(SyncWaitableEventWait, TimesOutAfterAWhileWhenNothingIsReady) {
  const Pipe pipe;
  Bind(pipe.reader(), kReadable);
  const int32_t timeoutMs = 20;
  EXPECT_EQ(0x05004Bu, Wait(&timeoutMs));
}

TEST_F(SyncWaitableEventWait, RefusesARecordThatWantsNothing) {
  const Pipe pipe;
  Bind(pipe.writer(), kWritable);
  Bind(pipe.writer(), 0);
  Bind(pipe.writer(), kWritable);
  for (OPL_SyncWaitableEvent* wait : waits_) RecordOf(wait).readyBitmap = kError;
  EXPECT_EQ(0x050051u, Wait());
  ExpectError(0x050051, "OPL_SyncWaitableEventWaitForMultiple: no event to select");
  EXPECT_EQ((std::vector<uint32_t>{0, 0, 0}), ready_);
  // Those in front of it are prepared already.
  EXPECT_EQ(0u, Found(waits_[0]));
  EXPECT_EQ(kError, Found(waits_[1]));
  EXPECT_EQ(kError, Found(waits_[2]));
}

TEST_F(SyncWaitableEventWait, TakesOtherBitsForNoCondition) {
  Bind(0, ~(kError | kWritable | kReadable));
  EXPECT_EQ(0x050051u, Wait());
}

TEST_F(SyncWaitableEventWait, ReportsWhatIsReadable) {
  const Pipe pipe;
  pipe.Fill();
  OPL_SyncWaitableEvent* const wait = Bind(pipe.reader(), kReadable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ(std::vector<uint32_t>{1}, ready_);
  EXPECT_EQ(kReadable, Found(wait));
}

TEST_F(SyncWaitableEventWait, ReportsWhatIsWritable) {
  const Pipe pipe;
  OPL_SyncWaitableEvent* const wait = Bind(pipe.writer(), kWritable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ(kWritable, Found(wait));
}

TEST_F(SyncWaitableEventWait, ReportsBothConditionsOfOneDescriptor) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  ASSERT_EQ(1, ::write(ends[1], "x", 1));
  OPL_SyncWaitableEvent* const wait = Bind(ends[0], kReadable | kWritable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ(kReadable | kWritable, Found(wait));
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(SyncWaitableEventWait, ReportsNoConditionThatIsNotWanted) {
  const Pipe pipe;
  pipe.Fill();
  Bind(pipe.reader(), kError);
  EXPECT_EQ(0x05004Bu, Wait());
}

TEST_F(SyncWaitableEventWait, ReportsAHangUpAsAnErrorWhateverIsWanted) {
  Pipe pipe;
  pipe.CloseWriter();
  OPL_SyncWaitableEvent* const wants = Bind(pipe.reader(), kError);
  OPL_SyncWaitableEvent* const wantsNot = Bind(pipe.reader(), kReadable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ((std::vector<uint32_t>{1, 1}), ready_);
  EXPECT_EQ(kError, Found(wants));
  EXPECT_EQ(kError, Found(wantsNot));
}

TEST_F(SyncWaitableEventWait, ReportsAnErrorBesideWritable) {
  Pipe pipe;
  pipe.CloseReader();
  OPL_SyncWaitableEvent* const wait = Bind(pipe.writer(), kWritable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ(kError | kWritable, Found(wait));
}

TEST_F(SyncWaitableEventWait, ReportsAClosedDescriptorAsAnError) {
  Pipe pipe;
  OPL_SyncWaitableEvent* const wait = Bind(pipe.reader(), kReadable);
  pipe.CloseReader();
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ(std::vector<uint32_t>{1}, ready_);
  EXPECT_EQ(kError, Found(wait));
}

TEST_F(SyncWaitableEventWait, ReportsADescriptorBelowZeroNever) {
  Bind(-1, kReadable | kWritable | kError);
  EXPECT_EQ(0x05004Bu, Wait());
}

TEST_F(SyncWaitableEventWait, TakesOneDescriptorManyTimes) {
  const Pipe pipe;
  pipe.Fill();
  for (int i = 0; i < 3; ++i) Bind(pipe.reader(), kReadable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ((std::vector<uint32_t>{1, 1, 1}), ready_);
}

TEST_F(SyncWaitableEventWait, ConsumesNothing) {
  const Pipe pipe;
  pipe.Fill();
  Bind(pipe.reader(), kReadable);
  EXPECT_EQ(0u, Wait());
  EXPECT_EQ(0u, Wait());
}

TEST_F(SyncWaitableEventWait, TellsTheSystemsRefusal) {
  const Pipe pipe;
  OPL_SyncWaitableEvent* const wait = Bind(pipe.writer(), kWritable);
  {
    const Fault fault("poll", 1, ENOMEM);
    EXPECT_EQ(0x050054u, Wait());
  }
  ExpectError(ENOMEM, "OPL_SyncWaitableEventWaitForMultiple: poll error 12,Cannot allocate memory");
  EXPECT_EQ(std::vector<uint32_t>{0}, ready_);
  EXPECT_EQ(0u, Found(wait));
}

// What the system is asked for, and how often.
std::vector<int> gTimeouts;
std::vector<pollfd> gAsked;

int InterruptedTwice(pollfd* entries, nfds_t count, int timeout) {
  gTimeouts.push_back(timeout);
  gAsked.assign(entries, entries + count);
  if (gTimeouts.size() > 2) return 0;
  errno = EINTR;
  return -1;
}

TEST_F(SyncWaitableEventWait, StartsAnewWithTheWholeTimeAfterASignal) {
  Bind(0, kReadable);
  const int32_t timeoutMs = 60000;
  const Replacement poll("poll", InterruptedTwice);
  EXPECT_EQ(0x05004Bu, Wait(&timeoutMs));
  EXPECT_EQ((std::vector<int>{60000, 60000, 60000}), gTimeouts);
}

TEST_F(SyncWaitableEventWait, WaitsWithoutLimitWithoutATimeOut) {
  Bind(0, kReadable);
  const Replacement poll("poll", InterruptedTwice);
  EXPECT_EQ(0x05004Bu, Wait(nullptr));
  EXPECT_EQ((std::vector<int>{-1, -1, -1}), gTimeouts);
}

TEST_F(SyncWaitableEventWait, AsksForTheWantedConditionsInOrder) {
  Bind(10, kError);
  Bind(11, kWritable);
  Bind(12, kReadable);
  Bind(13, kReadable | kWritable | kError);
  const Replacement poll("poll", InterruptedTwice);
  EXPECT_EQ(0x05004Bu, Wait());
  std::vector<std::pair<int, int>> asked;
  for (const pollfd& entry : gAsked) asked.emplace_back(entry.fd, entry.events);
  EXPECT_EQ((std::vector<std::pair<int, int>>{{10, 0}, {11, POLLOUT}, {12, POLLIN}, {13, POLLIN | POLLOUT}}),
            asked);
}

TEST_F(SyncWaitableEventWait, SurvivesAStreamOfSignals) {
  const Pipe pipe;
  Bind(pipe.reader(), kReadable);
  opltest::SignalStream signals;
  signals.Start(100, [&] { pipe.Fill(); });
  EXPECT_EQ(0u, Wait(nullptr));
  signals.Stop();
  EXPECT_LE(100, opltest::SignalStream::Handled());
  EXPECT_EQ(std::vector<uint32_t>{1}, ready_);
}

TEST_F(SyncWaitableEventWait, WakesAllWaitersOfOneDescriptor) {
  const Pipe pipe;
  opltest::RunAtOnce(4, [&](int i) {
    if (i == 0) {
      pipe.Fill();
      return;
    }
    OPL_SyncWaitableEvent* wait = nullptr;
    EXPECT_EQ(0u, OPL_SyncWaitableEventCreate(&wait, 0));
    EXPECT_EQ(0u, OPL_SyncWaitableEventNativeHandleSet(wait, pipe.reader(), kReadable));
    uint32_t ready = 0;
    EXPECT_EQ(0u, OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, nullptr));
    EXPECT_EQ(1u, ready);
    EXPECT_EQ(0u, OPL_SyncWaitableEventDestroy(&wait));
  });
}

}  // namespace
