// Every function template and every form of the C++ interface is instantiated once, for what compilers and
// options say of it. Nothing is run.
#include <array>
#include <memory>
#include <mutex>
#include <qvopl.hpp>
#include <shared_mutex>
#include <string>
#include <vector>

QVOPL_INSTANCE("everything")

namespace uses {

struct Visits {
  std::uint32_t count = 0;
  std::uint32_t reserved = 0;
  std::uint64_t widths = 0;
};
QVOPL_SHAREABLE(Visits, 16, count, reserved, widths);

enum class Colour : std::uint8_t { kRed };

struct Everything {
  std::array<Visits, 2> visits;
  std::atomic<std::uint32_t> atomic;
  float real;
  double precise;
  char text[3];
  Colour colour;
  bool isSet;
  std::byte bytes[3];
};
QVOPL_SHAREABLE(Everything, 56, visits, atomic, real, precise, text, colour, isSet, bytes);
static_assert(qvopl::kIsShareable<Everything> && qvopl::kIsShareable<Everything[4]>);
static_assert(!qvopl::kIsShareable<char*> && !qvopl::kIsShareable<std::string>);

struct Foreign {
  std::uint32_t words[2];
};

}  // namespace uses

template <>
struct qvopl::SharedTraits<uses::Foreign> {
  static constexpr std::size_t kSize = 8;
  static constexpr std::size_t kAlignment = 4;
};

template class qvopl::SharedMemory<uses::Everything>;
template class qvopl::SharedMemory<uses::Foreign>;
template class qvopl::SharedMemory<uses::Everything[]>;
template class qvopl::LockedSharedMemory<std::uint64_t>;
template class qvopl::SharedGuard<const std::uint64_t>;
template class qvopl::NamedLock<qvopl::NamedMutex>;
template class qvopl::NamedLock<qvopl::ReadWriteLock>;
template class qvopl::NamedLock<qvopl::LockedSharedMemory<std::uint64_t>>;
template class qvopl::NamedObject<qvopl::Event>;
template class qvopl::NamedObject<qvopl::SharedMemory<uses::Everything>>;
template class qvopl::Waitable<qvopl::Event>;
template class qvopl::Waitable<qvopl::PrivateEvent>;
template class qvopl::Span<const int>;
template class qvopl::FixedText<8>;
template class qvopl::Result<std::uint32_t>;

namespace uses {

template <typename Type>
void Moves(Type& object) {
  static_assert(std::is_nothrow_move_constructible_v<Type> && std::is_nothrow_move_assignable_v<Type>);
  static_assert(!std::is_copy_constructible_v<Type> && !std::is_copy_assignable_v<Type>);
  Type other(std::move(object));
  object = std::move(other);
}

void MoveEverything();
void MoveEverything() {
  qvopl::NamedMutex mutex;
  Moves(mutex);
  qvopl::ReadWriteLock lock;
  Moves(lock);
  qvopl::LockFile lockFile;
  Moves(lockFile);
  qvopl::FileMutex fileMutex;
  Moves(fileMutex);
  qvopl::Event event;
  Moves(event);
  qvopl::PrivateEvent privateEvent;
  Moves(privateEvent);
  qvopl::WaitSet set;
  Moves(set);
  qvopl::SharedMemory<Visits> memory;
  Moves(memory);
  qvopl::SharedMemory<Visits[]> array;
  Moves(array);
  qvopl::LockedSharedMemory<Visits> locked;
  Moves(locked);
  qvopl::Address address;
  Moves(address);
  qvopl::Socket socket;
  Moves(socket);
  qvopl::Thread thread;
  Moves(thread);
  qvopl::ThreadKey key;
  Moves(key);
  qvopl::ThreadAttributes attributes;
  Moves(attributes);
  qvopl::Server server;
  Moves(server);
  qvopl::MemoryContext context;
  Moves(context);
  qvopl::FileNames names;
  Moves(names);
}

qvopl::Result<void> WithoutExceptions(qvopl::Socket& socket, qvopl::WaitSet& set, qvopl::Server& server);
qvopl::Result<void> WithoutExceptions(qvopl::Socket& socket, qvopl::WaitSet& set, qvopl::Server& server) {
  using std::chrono::hours;
  const std::string text = "text";
  std::vector<std::uint16_t> numbers(4);
  std::array<char, 4> letters{};
  std::uint8_t bytes[4] = {};
  const qvopl::Span<const std::uint16_t> span = numbers;
  Visits visits;
  if (auto rc = socket.Send(std::nothrow, text); !rc) return rc.code();
  if (auto rc = socket.Send(std::nothrow, "literal"); !rc) return rc.code();
  if (auto rc = socket.Send(std::nothrow, std::string_view("view")); !rc) return rc.code();
  if (auto rc = socket.Send(std::nothrow, bytes); !rc) return rc.code();
  if (auto rc = socket.Send(std::nothrow, span); !rc) return rc.code();
  if (auto rc = socket.SendAll(std::nothrow, qvopl::BytesOf(visits)); !rc) return rc;
  if (auto rc = socket.Receive(std::nothrow, numbers); !rc) return rc.code();
  if (auto rc = socket.Receive(std::nothrow, letters); !rc) return rc.code();
  if (auto rc = socket.Receive(std::nothrow, bytes); !rc) return rc.code();
  if (auto rc = socket.ReceiveAll(std::nothrow, qvopl::WritableBytesOf(visits)); !rc) return rc.code();
  if (auto rc = set.Add(std::nothrow, socket, qvopl::Until::kReadable | qvopl::Until::kWritable); !rc)
    return rc.code();
  if (auto rc = set.WaitFor(std::nothrow, hours::max()); !rc) return rc.code();
  if (auto rc = set.WaitUntil(std::nothrow, std::chrono::system_clock::now()); !rc) return rc.code();
  const qvopl::Result<qvopl::Event> event = qvopl::Event::OpenOrCreate(std::nothrow, text);
  if (!event) return event.code();
  if (auto rc = event->WaitUntil(std::nothrow, std::chrono::steady_clock::now()); !rc) return rc.code();
  if (auto rc = qvopl::Thread::StartDetached(std::nothrow, [] {}); !rc) return rc;
  if (auto rc = qvopl::Thread::Start(std::nothrow, [owned = std::make_unique<int>(1)] {}); !rc)
    return rc.code();
  if (auto rc = qvopl::Task::Start(std::nothrow, [] {}); !rc) return rc;
  if (auto rc = server.Run(
          std::nothrow, [] { return 0U; }, []() noexcept {});
      !rc)
    return rc.code();
  return OPL_OK;
}

#if QVOPL_EXCEPTIONS
void WithExceptions(qvopl::NamedMutex& mutex, qvopl::ReadWriteLock& lock, qvopl::Server& server,
                    qvopl::LockedSharedMemory<Visits>& memory);
void WithExceptions(qvopl::NamedMutex& mutex, qvopl::ReadWriteLock& lock, qvopl::Server& server,
                    qvopl::LockedSharedMemory<Visits>& memory) {
  const std::scoped_lock hold(mutex);
  { const std::lock_guard exclusive(lock); }
  { const std::unique_lock exclusive(lock); }
  { const std::shared_lock shared(lock); }
  memory.Write()->count += memory.Read()->count;
  qvopl::Thread::Start([] {}).Wait();
  qvopl::ThreadAttributes attributes = qvopl::ThreadAttributes::Create();
  qvopl::Thread::StartDetached(attributes, [] {});
  qvopl::Task::Start([] {});
  (void)server.Run([] { return 0U; }, []() noexcept {});
}
#endif

}  // namespace uses
