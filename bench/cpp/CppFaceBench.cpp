// The C++ interface against the functions it calls: what it adds is to cost nothing. Both sides work on the
// same object, one after the other in the same run.
#include <mutex>
#include <qvopl.hpp>
#include <shared_mutex>

#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Require;

constexpr double kTarget = 1.03;

void CppMutex(benchmark::State& state) {
  qvopl::NamedMutex mutex = qvopl::NamedMutex::OpenOrCreate("bench");
  for (auto _ : state) {
    const std::scoped_lock hold(mutex);
    benchmark::ClobberMemory();
  }
}

void CMutex(benchmark::State& state) {
  const qvopl::NamedMutex mutex = qvopl::NamedMutex::OpenOrCreate("bench");
  for (auto _ : state) {
    Require(OPL_SyncMutexAcquire(mutex.native()) == OPL_OK, "OPL_SyncMutexAcquire");
    benchmark::ClobberMemory();
    Require(OPL_SyncMutexRelease(mutex.native()) == OPL_OK, "OPL_SyncMutexRelease");
  }
}

void CppMutexWithoutExceptions(benchmark::State& state) {
  qvopl::NamedMutex mutex = qvopl::NamedMutex::OpenOrCreate("bench");
  for (auto _ : state) {
    Require(mutex.lock(std::nothrow).ok(), "lock");
    benchmark::ClobberMemory();
    Require(mutex.unlock(std::nothrow).ok(), "unlock");
  }
}

template <template <typename> class Guard>
void CppReadWriteLock(benchmark::State& state) {
  qvopl::ReadWriteLock lock = qvopl::ReadWriteLock::OpenOrCreate("bench");
  for (auto _ : state) {
    const Guard<qvopl::ReadWriteLock> hold(lock);
    benchmark::ClobberMemory();
  }
}

template <uint32_t kMode>
void CReadWriteLock(benchmark::State& state) {
  const qvopl::ReadWriteLock lock = qvopl::ReadWriteLock::OpenOrCreate("bench");
  for (auto _ : state) {
    Require(OPL_SyncRWLockLock(lock.native(), kMode) == OPL_OK, "OPL_SyncRWLockLock");
    benchmark::ClobberMemory();
    Require(OPL_SyncRWLockUnlock(lock.native()) == OPL_OK, "OPL_SyncRWLockUnlock");
  }
}

void CppEvent(benchmark::State& state) {
  qvopl::Event event = qvopl::Event::OpenOrCreate("bench");
  for (auto _ : state) {
    event.Post();
    event.Reset();
  }
}

void CEvent(benchmark::State& state) {
  const qvopl::Event event = qvopl::Event::OpenOrCreate("bench");
  for (auto _ : state) {
    Require(OPL_SyncEventPost(event.native()) == OPL_OK, "OPL_SyncEventPost");
    Require(OPL_SyncEventReset(event.native()) == OPL_OK, "OPL_SyncEventReset");
  }
}

void CppWait(benchmark::State& state) {
  qvopl::Event event = qvopl::Event::OpenOrCreate("bench");
  qvopl::WaitSet set;
  const qvopl::WaitSet::Member member = set.Add(event);
  event.Post();
  for (auto _ : state) Require(set.WaitFor(std::chrono::seconds(1)) && set.IsReady(member), "WaitFor");
}

void CWait(benchmark::State& state) {
  qvopl::Event event = qvopl::Event::OpenOrCreate("bench");
  OPL_SyncWaitableEvent* wait = nullptr;
  Require(OPL_SyncEventWaitableEventCreate(event.native(), &wait) == OPL_OK,
          "OPL_SyncEventWaitableEventCreate");
  event.Post();
  for (auto _ : state) {
    const int32_t timeoutMs = 1000;
    uint32_t ready = 0;
    Require(OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, &timeoutMs) == OPL_OK && ready == 1,
            "OPL_SyncWaitableEventWaitForMultiple");
  }
  (void)OPL_SyncWaitableEventDestroy(&wait);
}

using Counter = qvopl::LockedSharedMemory<uint32_t>;

void CppLockedWrite(benchmark::State& state) {
  Counter counter = Counter::OpenOrCreate("bench2");
  for (auto _ : state) ++*counter.Write();
}

void CLockedWrite(benchmark::State& state) {
  const Counter counter = Counter::OpenOrCreate("bench2");
  for (auto _ : state) {
    void* address = nullptr;
    Require(OPL_SharedMemLockedGet(counter.native(), OPL_SHAREDMEM_EXCLUSIVE, &address) == OPL_OK,
            "OPL_SharedMemLockedGet");
    ++*static_cast<uint32_t*>(address);
    Require(OPL_SharedMemLockedRelease(counter.native()) == OPL_OK, "OPL_SharedMemLockedRelease");
  }
}

void CppLockedRead(benchmark::State& state) {
  Counter counter = Counter::OpenOrCreate("bench2");
  for (auto _ : state) benchmark::DoNotOptimize(*counter.Read());
}

void CLockedRead(benchmark::State& state) {
  const Counter counter = Counter::OpenOrCreate("bench2");
  for (auto _ : state) {
    void* address = nullptr;
    Require(OPL_SharedMemLockedGet(counter.native(), OPL_SHAREDMEM_SHARED, &address) == OPL_OK,
            "OPL_SharedMemLockedGet");
    benchmark::DoNotOptimize(*static_cast<const uint32_t*>(address));
    Require(OPL_SharedMemLockedRelease(counter.native()) == OPL_OK, "OPL_SharedMemLockedRelease");
  }
}

constexpr size_t kMessage = 64;

void CppSocket(benchmark::State& state) {
  auto [first, second] = qvopl::Socket::Pair();
  std::array<char, kMessage> message{};
  for (auto _ : state) {
    Require(first.Send(message) == kMessage, "Send");
    Require(second.Receive(message) == kMessage, "Receive");
  }
}

void CSocket(benchmark::State& state) {
  const auto [first, second] = qvopl::Socket::Pair();
  std::array<char, kMessage> message{};
  for (auto _ : state) {
    uint32_t length = 0;
    Require(OPL_SocketSend(first.native(), &length, message.data(), kMessage) == OPL_OK && length == kMessage,
            "OPL_SocketSend");
    Require(
        OPL_SocketReceive(second.native(), &length, message.data(), kMessage) == OPL_OK && length == kMessage,
        "OPL_SocketReceive");
  }
}

const oplbench::Row kMutex("C++: mutex, scoped_lock", CppMutex, {{"C calls", CMutex, kTarget}});
const oplbench::Row kMutexWithoutExceptions("C++: mutex, without exceptions", CppMutexWithoutExceptions,
                                            {{"C calls", CMutex, kTarget}});
const oplbench::Row kShared("C++: read-write lock, shared_lock", CppReadWriteLock<std::shared_lock>,
                            {{"C calls", CReadWriteLock<OPL_SYNC_RWLOCK_SHARED>, kTarget}});
const oplbench::Row kExclusive("C++: read-write lock, unique_lock", CppReadWriteLock<std::unique_lock>,
                               {{"C calls", CReadWriteLock<OPL_SYNC_RWLOCK_EXCLUSIVE>, kTarget}});
const oplbench::Row kEvent("C++: event, post and reset", CppEvent, {{"C calls", CEvent, kTarget}});
const oplbench::Row kWait("C++: wait for an event that is set", CppWait, {{"C calls", CWait, kTarget}});
const oplbench::Row kWrite("C++: locked memory, write", CppLockedWrite, {{"C calls", CLockedWrite, kTarget}});
const oplbench::Row kRead("C++: locked memory, read", CppLockedRead, {{"C calls", CLockedRead, kTarget}});
const oplbench::Row kSocket("C++: socket, send and receive 64", CppSocket, {{"C calls", CSocket, kTarget}});

}  // namespace
