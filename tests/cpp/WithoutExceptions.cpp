// A C++17 program without exceptions and run-time types: it ends with status 0, or with the number of the
// step that went wrong.
#include <mutex>
#include <qvopl.hpp>

QVOPL_INSTANCE("without")

namespace {

struct Pair {
  std::uint32_t first;
  std::uint32_t second;
};
QVOPL_SHAREABLE(Pair, 8, first, second);

int Locks() {
  auto mutex = qvopl::NamedMutex::OpenOrCreate(std::nothrow, "queue");
  if (!mutex || !mutex->lock(std::nothrow) || !mutex->unlock(std::nothrow)) return 11;
  if (!mutex->lock(std::nothrow)) return 14;
  { const std::scoped_lock hold(std::adopt_lock, *mutex); }
  if (mutex->unlock(std::nothrow).error() != std::errc::operation_not_permitted) return 15;
  if (qvopl::NamedMutex::Create(std::nothrow, "queue").error() != std::errc::file_exists) return 12;
  auto lock = qvopl::ReadWriteLock::OpenOrCreate(std::nothrow, "table");
  if (!lock || !lock->lock_shared(std::nothrow) || !lock->unlock(std::nothrow)) return 13;
  return 0;
}

int Memory() {
  auto memory = qvopl::LockedSharedMemory<Pair>::OpenOrCreate(std::nothrow, "pair");
  if (!memory) return 21;
  {
    auto pair = memory->Write(std::nothrow);
    if (!pair) return 22;
    (*pair)->second = 7;
    if (!pair->Release(std::nothrow)) return 23;
  }
  auto pair = memory->Read(std::nothrow);
  return pair && (*pair)->second == 7 ? 0 : 24;
}

int Waits() {
  auto event = qvopl::Event::OpenOrCreate(std::nothrow, "work");
  auto sockets = qvopl::Socket::Pair(std::nothrow);
  qvopl::WaitSet set;
  if (!event || !sockets) return 31;
  const auto work = set.Add(std::nothrow, *event);
  const auto peer = set.Add(std::nothrow, sockets->first);
  if (!work || !peer) return 32;
  auto thread = qvopl::Thread::Start(std::nothrow, [&] {
    (void)event->Post(std::nothrow);
    (void)sockets->second.SendAll(std::nothrow, "x");
  });
  if (!thread) return 33;
  thread->Wait();
  const auto isReady = set.WaitFor(std::nothrow, std::chrono::minutes(1));
  return isReady && *isReady && set.IsReady(*work) && set.IsReady(*peer) ? 0 : 34;
}

}  // namespace

int main() {
  const auto library = qvopl::Library::Begin(std::nothrow);
  if (!library) return 1;
  if (const int failed = Locks()) return failed;
  if (const int failed = Memory()) return failed;
  return Waits();
}
