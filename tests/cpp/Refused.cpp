// What the compiler refuses, each case with the words that its message has to have; check-refused compiles
// them one by one. Without a case it compiles.
#include <mutex>
#include <qvopl.hpp>
#include <string>

namespace refused {

struct Vouched;

}  // namespace refused

template <>
struct qvopl::SharedTraits<refused::Vouched> {
  static constexpr std::size_t kSize = 4;
  static constexpr std::size_t kAlignment = 4;
};

namespace refused {

struct Plain {
  std::uint32_t count;
};
struct Listed {
  std::uint32_t count;
  std::uint32_t reserved;
  std::uint64_t sum;
};
QVOPL_SHAREABLE(Listed, 16, count, reserved, sum);

struct WithPointer {
  std::uint32_t count;
  std::uint32_t* next;
};
struct WithGap {
  std::uint32_t count;
  std::uint16_t kind;
  std::uint32_t more;
};
struct Misplaced {
  std::uint32_t count;
  std::uint64_t sum;
  std::uint32_t more;
};
struct Long {
  std::uint32_t count;
  std::uint32_t reserved;
  long sum;
};
struct Sized {
  std::size_t size;
};
struct GapBehind {
  std::uint64_t sum;
  std::uint32_t count;
};
struct Virtual {
  virtual ~Virtual() = default;
  std::uint32_t count;
};
struct WithString {
  std::string text;
};
struct Vouched {
  std::uint32_t count;
  void* next;
};

#if CASE == 1  // EXPECT: a pointer means nothing in another process
template class qvopl::SharedMemory<std::uint32_t*>;
#elif CASE == 2   // EXPECT: a pointer means nothing in another process
template class qvopl::LockedSharedMemory<const char*>;
#elif CASE == 3   // EXPECT: list the members of this type with QVOPL_SHAREABLE
template class qvopl::SharedMemory<Plain>;
#elif CASE == 4   // EXPECT: list the members of this type with QVOPL_SHAREABLE
template class qvopl::LockedSharedMemory<std::string>;
#elif CASE == 5   // EXPECT: this type has another size in the other width
template class qvopl::SharedMemory<long double>;
#elif CASE == 6   // EXPECT: this type has another size in the other width
template class qvopl::SharedMemory<wchar_t>;
#elif CASE == 7   // EXPECT: a pointer means nothing in another process
QVOPL_SHAREABLE(WithPointer, 8, count, next);
#elif CASE == 8   // EXPECT: WithGap has a gap, or members that are not listed or not in their order
QVOPL_SHAREABLE(WithGap, 12, count, kind, more);
#elif CASE == 9   // EXPECT: Misplaced
QVOPL_SHAREABLE(Misplaced, 16, count, sum, more);
#elif CASE == 10  // EXPECT: GapBehind has a gap behind its last member
QVOPL_SHAREABLE(GapBehind, 16, sum, count);
#elif CASE == 11  // EXPECT: Plain has another size than stated
QVOPL_SHAREABLE(Plain, 8, count);
#elif CASE == 12  // EXPECT: Virtual is no plain structure
QVOPL_SHAREABLE(Virtual, 16, count);
#elif CASE == 13  // EXPECT: list the members of this type with QVOPL_SHAREABLE
QVOPL_SHAREABLE(WithString, 32, text);
#elif CASE == 14  // EXPECT: WithGap has a gap, or members that are not listed or not in their order
QVOPL_SHAREABLE(WithGap, 12, count, more);
#elif CASE == 15  // EXPECT: list the members of this type with QVOPL_SHAREABLE
template class qvopl::SharedMemory<std::array<Plain, 2> >;
#elif CASE == 16 && __SIZEOF_POINTER__ == 4  // EXPECT32: this type has another size in the other width
QVOPL_SHAREABLE(Long, 16, count, reserved, sum);
#elif CASE == 17 && __SIZEOF_POINTER__ == 4  // EXPECT32: this type has another size in the other width
template class qvopl::SharedMemory<long>;
#elif CASE == 18 && __SIZEOF_POINTER__ == 4  // EXPECT32: Sized has another size than stated
QVOPL_SHAREABLE(Sized, 8, size);
#elif CASE == 18 && __SIZEOF_POINTER__ == 8  // EXPECT64: Sized has another size than stated
QVOPL_SHAREABLE(Sized, 4, size);
#elif CASE == 19                             // EXPECT: ignoring return
void Drop(qvopl::NamedMutex& mutex) { mutex.lock(std::nothrow); }
#elif CASE == 20                             // EXPECT: ignoring return
void Drop() { qvopl::NamedMutex::OpenOrCreate(std::nothrow, "x"); }
#elif CASE == 21                             // EXPECT: ignoring return
void Drop(qvopl::LockedSharedMemory<Listed>& memory) { memory.Write(); }
#elif CASE == 22                             // EXPECT: ignoring return
void Drop(qvopl::Event& event) { event.IsSet(); }
#elif CASE == 23                             // EXPECT: ignoring return
void Drop(qvopl::Socket& socket, qvopl::Bytes bytes) { socket.Receive(bytes); }
#elif CASE == 24                             // EXPECT: try_lock
void Both(qvopl::NamedMutex& first, qvopl::NamedMutex& second) { std::scoped_lock hold(first, second); }
#elif CASE == 25                             // EXPECT: delete
qvopl::NamedMutex Twice(const qvopl::NamedMutex& mutex) { return mutex; }
#elif CASE == 26                             // EXPECT: read-only|const
void Change(qvopl::LockedSharedMemory<std::uint32_t>& memory) { ++*memory.Read(); }
#elif CASE == 27                             // EXPECT: what runs in a signal handler is noexcept
auto Serve(qvopl::Server& server) {
  return server.Run(
      std::nothrow, [] { return 0U; }, [] {});
}
#elif CASE == 28                             // EXPECT: ignoring return
void Drop() {
  qvopl::Thread::Start([] {});
}
#elif CASE == 29                             // EXPECT: shared memory is aligned to 8 bytes
struct alignas(64) Wide {
  char bytes[64];
};
QVOPL_SHAREABLE(Wide, 64, bytes);
template class qvopl::SharedMemory<Wide>;
#elif CASE == 30                             // EXPECT: delete
auto Send(qvopl::Socket& socket, char (&buffer)[8]) { return socket.Send(std::nothrow, buffer); }
#elif CASE == 31                             // EXPECT: ignoring return
void Drop(qvopl::Socket& socket, msghdr& message) { socket.ReceiveMessage(message); }
#elif CASE == 32                             // EXPECT: ignoring return
void Drop(qvopl::Server& server) {
  server.Run([] { return 0U; }, []() noexcept {});
}
#elif CASE == 33                             // EXPECT: ignoring return
void Drop(qvopl::NamedMutex& mutex) { mutex.Close(std::nothrow); }
#elif CASE == 34                             // EXPECT: ignoring return
void Drop(qvopl::Event& event) { event.WaitUntil(std::chrono::steady_clock::now()); }
#elif CASE == 35                             // EXPECT: ignoring
void Drop() { qvopl::Library(); }
#elif CASE == 36                             // EXPECT: a pointer means nothing in another process
struct WithReference {
  std::uint32_t& count;
};
QVOPL_SHAREABLE(WithReference, 8, count);
#elif CASE == 37                             // EXPECT: Overlaid has a gap, or members that are not listed
union Overlaid {
  std::uint32_t whole;
  std::uint32_t other;
};
QVOPL_SHAREABLE(Overlaid, 4, whole, other);
#elif CASE == 38                             // EXPECT: shared memory is aligned to 8 bytes
struct alignas(16) Vector {
  std::uint64_t low;
  std::uint64_t high;
};
QVOPL_SHAREABLE(Vector, 16, low, high);
template class qvopl::LockedSharedMemory<Vector>;
#elif CASE == 39                             // EXPECT: the type's size differs from what SharedTraits says
template class qvopl::SharedMemory<Vouched>;
#elif CASE == 40                             // EXPECT: ignoring
void Hold() { qvopl::SignalBlock(); }
#endif

}  // namespace refused
