// Waiting for many sockets: what the system is asked, and what the lists are told.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Limit.h"
#include "tests/support/SignalStream.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Child;
using opltest::Connection;
using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::Fault;
using opltest::InetAddress;
using opltest::Limit;
using opltest::Listener;
using opltest::Pair;
using opltest::ReceiveText;
using opltest::Replacement;
using opltest::SendText;
using opltest::SignalStream;
using opltest::Socket;
using opltest::Steps;

using Flags = std::vector<uint32_t>;
using Handles = std::vector<OPL_Socket*>;
using Asked = std::vector<std::pair<int, int>>;  // descriptor and events of each entry

constexpr uint32_t kTooMany = 0x050932;
constexpr uint32_t kTimeOut = 0x050929;
constexpr size_t kMost = 4096;

// The three lists of a call and their results, which are 7 where nothing was told.
class Selection {
 public:
  Selection(Handles read, Handles write, Handles except)
      : reads(read.size(), 7),
        writes(write.size(), 7),
        excepts(except.size(), 7),
        read_(std::move(read)),
        write_(std::move(write)),
        except_(std::move(except)) {
    for (Handles* list : {&read_, &write_, &except_}) list->push_back(nullptr);
  }

  OPL_Result Wait(const uint32_t* timeoutSeconds) {
    return OPL_SocketSelect(0, read_.data(), write_.data(), except_.data(), reads.data(), writes.data(),
                            excepts.data(), timeoutSeconds);
  }
  // Only looks.
  OPL_Result Look() {
    const uint32_t now = 0;
    return Wait(&now);
  }

  Flags reads;
  Flags writes;
  Flags excepts;

 private:
  Handles read_;
  Handles write_;
  Handles except_;
};

// What the system was asked, for stand-ins of poll.
Asked gAsked;
std::vector<int> gTimeouts;

void Note(const pollfd* entries, nfds_t count, int timeout) {
  gAsked.clear();
  for (nfds_t i = 0; i < count; ++i) gAsked.emplace_back(entries[i].fd, entries[i].events);
  gTimeouts.push_back(timeout);
}

int NothingReady(pollfd* entries, nfds_t count, int timeout) {
  Note(entries, count, timeout);
  return 0;
}

int InterruptedTwice(pollfd* entries, nfds_t count, int timeout) {
  Note(entries, count, timeout);
  if (gTimeouts.size() > 2) return 0;
  errno = EINTR;
  return -1;
}

// Answers with these conditions, as far as poll may.
std::map<int, int> gConditions;

int Conditions(pollfd* entries, nfds_t count, int timeout) {
  Note(entries, count, timeout);
  int ready = 0;
  for (nfds_t i = 0; i < count; ++i) {
    const int told = gConditions[entries[i].fd] & (entries[i].events | POLLERR | POLLHUP | POLLNVAL);
    entries[i].revents = static_cast<short>(told);
    if (told != 0) ++ready;
  }
  return ready;
}

// A record with a descriptor of its own, or of a number that is not open.
struct Numbered : Socket {
  explicit Numbered(int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
    EXPECT_EQ(0u, OPL_SocketSetNativeSocket(*this, fd));
  }
};

class SocketSelect : public opltest::Instance {};

TEST(SocketSelectBeforeBegin, IsStopped) {
  EXPECT_EQ(0x050203u, OPL_SocketSelect(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(SocketSelect, TimesOutWithoutSockets) {
  const uint32_t seconds = 1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kTimeOut, OPL_SocketSelect(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &seconds));
  EXPECT_LE(std::chrono::seconds(1), std::chrono::steady_clock::now() - start);
  ExpectError(0x050929, "OPL_SocketSelect: poll timeout");
}

TEST_F(SocketSelect, TakesEmptyListsForNone) {
  const Replacement poll("poll", NothingReady);
  OPL_Socket* empty[] = {nullptr};
  const uint32_t seconds = 2;
  EXPECT_EQ(kTimeOut, OPL_SocketSelect(0, empty, empty, empty, nullptr, nullptr, nullptr, &seconds));
  EXPECT_EQ(Asked{}, gAsked);
  EXPECT_EQ(kTimeOut, OPL_SocketSelect(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &seconds));
  EXPECT_EQ(Asked{}, gAsked);
  EXPECT_EQ((std::vector<int>{2000, 2000}), gTimeouts);
}

TEST_F(SocketSelect, LooksAtNoMode) {
  const Connection connection;
  OPL_Socket* writers[] = {connection.client, nullptr};
  uint32_t isWritable = 7;
  EXPECT_EQ(0u,
            OPL_SocketSelect(0xFFFFFFFF, nullptr, writers, nullptr, nullptr, &isWritable, nullptr, nullptr));
  EXPECT_EQ(1u, isWritable);
}

TEST_F(SocketSelect, NeedsTheResultsOfAListThatIsNotEmpty) {
  const Connection connection;
  OPL_Socket* list[] = {connection.client, nullptr};
  uint32_t flag = 7;
  const uint32_t now = 0;
  EXPECT_EQ(0x05092Cu, OPL_SocketSelect(0, list, nullptr, nullptr, nullptr, &flag, &flag, &now));
  ExpectError(0x05092C, "OPL_SocketSelect: The results of a list are NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketSelect(0, nullptr, list, nullptr, &flag, nullptr, &flag, &now));
  EXPECT_EQ(0x05092Cu, OPL_SocketSelect(0, nullptr, nullptr, list, &flag, &flag, nullptr, &now));
  EXPECT_EQ(7u, flag);
  // All results are 0 after a failure.
  EXPECT_EQ(0x05092Cu, OPL_SocketSelect(0, list, nullptr, list, &flag, nullptr, nullptr, &now));
  EXPECT_EQ(0u, flag);
}

TEST_F(SocketSelect, HandsTheTimeOutOnInMilliseconds) {
  const Replacement poll("poll", NothingReady);
  for (const uint32_t seconds : {0u, 1u, 60u, 2147483u, 2147484u, 0x80000000u, 0xFFFFFFFFu})
    EXPECT_EQ(kTimeOut, OPL_SocketSelect(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &seconds));
  EXPECT_EQ(kTimeOut, OPL_SocketSelect(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ((std::vector<int>{0, 1000, 60000, 2147483000, 2147483000, 2147483000, 2147483000, -1}),
            gTimeouts);
}

TEST_F(SocketSelect, MakesOneEntryForADescriptorThatSeveralListsName) {
  const Numbered a, b, c, d;
  const Replacement poll("poll", NothingReady);
  Selection all({a, b}, {b, c}, {a, d, c});
  EXPECT_EQ(kTimeOut, all.Look());
  EXPECT_EQ((Asked{{a.fd(), POLLIN | POLLERR},
                   {b.fd(), POLLIN | POLLOUT},
                   {c.fd(), POLLOUT | POLLERR},
                   {d.fd(), POLLERR | POLLHUP | POLLNVAL}}),
            gAsked);
  Selection same({a}, {a}, {a});
  EXPECT_EQ(kTimeOut, same.Look());
  EXPECT_EQ((Asked{{a.fd(), POLLIN | POLLOUT | POLLERR}}), gAsked);
}

// What counts is the descriptor, not the record.
TEST_F(SocketSelect, TakesRecordsOfOneDescriptorForOne) {
  const Numbered first;
  const Numbered second(first.fd());
  {
    const Replacement poll("poll", Conditions);
    gConditions[first.fd()] = POLLIN | POLLOUT;
    Selection selection({first, second}, {second, first}, {});
    EXPECT_EQ(0u, selection.Look());
    EXPECT_EQ((Flags{1, 1}), selection.reads);
    EXPECT_EQ((Flags{1, 1}), selection.writes);
    EXPECT_EQ(2u, gAsked.size());
  }
}

TEST_F(SocketSelect, MergesNoReadersButAllOthers) {
  const Numbered a, b;
  const Replacement poll("poll", NothingReady);
  Selection readers({a, b, a}, {}, {});
  EXPECT_EQ(kTimeOut, readers.Look());
  EXPECT_EQ((Asked{{a.fd(), POLLIN}, {b.fd(), POLLIN}, {a.fd(), POLLIN}}), gAsked);
  Selection writers({}, {a, b, a}, {});
  EXPECT_EQ(kTimeOut, writers.Look());
  EXPECT_EQ((Asked{{a.fd(), POLLOUT}, {b.fd(), POLLOUT}}), gAsked);
  Selection exceptions({}, {}, {a, b, a});
  EXPECT_EQ(kTimeOut, exceptions.Look());
  constexpr int kAll = POLLERR | POLLHUP | POLLNVAL;
  EXPECT_EQ((Asked{{a.fd(), kAll}, {b.fd(), kAll}}), gAsked);
  // A reader's first entry is asked for the others.
  Selection mixed({a, a}, {a}, {a});
  EXPECT_EQ(kTimeOut, mixed.Look());
  EXPECT_EQ((Asked{{a.fd(), POLLIN | POLLOUT | POLLERR}, {a.fd(), POLLIN}}), gAsked);
  Selection elsewhere({b, a, a}, {a}, {a});
  EXPECT_EQ(kTimeOut, elsewhere.Look());
  EXPECT_EQ((Asked{{b.fd(), POLLIN}, {a.fd(), POLLIN | POLLOUT | POLLERR}, {a.fd(), POLLIN}}), gAsked);
}

TEST_F(SocketSelect, TellsEachListItsOwnConditions) {
  const Numbered a;
  const Replacement poll("poll", Conditions);
  const struct {
    int condition;
    uint32_t isRead;
    uint32_t isWrite;
    uint32_t isExcept;
  } cases[] = {{POLLIN, 1, 0, 0},
               {POLLOUT, 0, 1, 0},
               {POLLIN | POLLOUT, 1, 1, 0},
               {POLLERR, 0, 0, 1},
               {POLLHUP, 0, 0, 1},
               {POLLNVAL, 0, 0, 1},
               {POLLERR | POLLHUP | POLLNVAL | POLLIN | POLLOUT, 1, 1, 1}};
  for (const auto& expected : cases) {
    gConditions[a.fd()] = expected.condition;
    Selection selection({a}, {a}, {a});
    EXPECT_EQ(0u, selection.Look());
    EXPECT_EQ(Flags{expected.isRead}, selection.reads);
    EXPECT_EQ(Flags{expected.isWrite}, selection.writes);
    EXPECT_EQ(Flags{expected.isExcept}, selection.excepts);
  }
}

// The system reports errors unasked.
TEST_F(SocketSelect, MayTellNobodyWhatItWasWokenBy) {
  const Numbered a;
  const Replacement poll("poll", Conditions);
  gConditions[a.fd()] = POLLHUP;
  Selection selection({a}, {a}, {});
  EXPECT_EQ(0u, selection.Look());
  EXPECT_EQ(Flags{0}, selection.reads);
  EXPECT_EQ(Flags{0}, selection.writes);
}

TEST_F(SocketSelect, TellsEverySocketInItsPlace) {
  constexpr size_t kSockets = 100;
  const std::vector<Numbered> sockets(kSockets);
  Handles handles(sockets.begin(), sockets.end());
  const Replacement poll("poll", Conditions);
  for (size_t i = 0; i < kSockets; ++i)
    gConditions[sockets[i].fd()] =
        (i % 2 == 0 ? POLLIN : 0) | (i % 3 == 0 ? POLLOUT : 0) | (i % 5 == 0 ? POLLHUP : 0);
  Handles reversed(handles.rbegin(), handles.rend());
  Selection selection(handles, reversed, handles);
  EXPECT_EQ(0u, selection.Look());
  EXPECT_EQ(kSockets, gAsked.size());
  for (size_t i = 0; i < kSockets; ++i) {
    EXPECT_EQ(i % 2 == 0 ? 1u : 0u, selection.reads[i]) << i;
    EXPECT_EQ(i % 3 == 0 ? 1u : 0u, selection.writes[kSockets - 1 - i]) << i;
    EXPECT_EQ(i % 5 == 0 ? 1u : 0u, selection.excepts[i]) << i;
  }
}

// Lists of any make, with sockets named over and over: each is told what holds of its descriptor.
TEST_F(SocketSelect, TellsWhatHoldsOfEachDescriptorWhateverTheLists) {
  constexpr size_t kSockets = 12;
  const std::vector<Numbered> sockets(kSockets);
  std::mt19937 random(20040205);
  const Replacement poll("poll", Conditions);
  for (int round = 0; round < 2000; ++round) {
    for (const Numbered& socket : sockets)
      gConditions[socket.fd()] =
          static_cast<int>(random()) & (POLLIN | POLLOUT | POLLERR | POLLHUP | POLLNVAL);
    const auto list = [&] {
      Handles handles(random() % 20);
      for (OPL_Socket*& handle : handles) handle = sockets[random() % kSockets];
      return handles;
    };
    const Handles lists[] = {list(), list(), list()};
    Selection selection(lists[0], lists[1], lists[2]);
    const OPL_Result rc = selection.Look();
    bool isAnyReady = false;
    for (const auto& [fd, events] : gAsked)
      isAnyReady = isAnyReady || (gConditions[fd] & (events | POLLERR | POLLHUP | POLLNVAL)) != 0;
    ASSERT_EQ(isAnyReady ? 0u : kTimeOut, rc);
    const auto expect = [](const Handles& handles, int conditions, const Flags& told) {
      for (size_t i = 0; i < handles.size(); ++i)
        ASSERT_EQ((gConditions[opltest::DescriptorOf(handles[i])] & conditions) != 0 ? 1u : 0u, told[i]);
    };
    expect(lists[0], POLLIN, selection.reads);
    expect(lists[1], POLLOUT, selection.writes);
    expect(lists[2], POLLERR | POLLHUP | POLLNVAL, selection.excepts);
  }
}

TEST_F(SocketSelect, StartsAnewWithTheWholeTimeAfterASignal) {
  const Replacement poll("poll", InterruptedTwice);
  const uint32_t seconds = 60;
  EXPECT_EQ(kTimeOut, OPL_SocketSelect(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &seconds));
  EXPECT_EQ((std::vector<int>{60000, 60000, 60000}), gTimeouts);
}

TEST_F(SocketSelect, SurvivesAStreamOfSignals) {
  const Connection connection;
  SignalStream signals;
  signals.Start(100, [&] { SendText(connection.client, "at last"); });
  Selection selection({connection.server}, {}, {});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  signals.Stop();
  EXPECT_LE(100, SignalStream::Handled());
  EXPECT_EQ(Flags{1}, selection.reads);
}

TEST_F(SocketSelect, TellsTheSystemsRefusal) {
  const Connection connection;
  Selection selection({connection.client}, {connection.client}, {connection.client});
  {
    const Fault fault("poll", 1, ENOMEM);
    EXPECT_EQ(0x05092Au, selection.Look());
  }
  ExpectError(ENOMEM, "OPL_SocketSelect: poll error 12,Cannot allocate memory");
  EXPECT_EQ(Flags{0}, selection.reads);
  EXPECT_EQ(Flags{0}, selection.writes);
  EXPECT_EQ(Flags{0}, selection.excepts);
}

TEST_F(SocketSelect, ClearsAllResultsOnATimeOut) {
  const Connection connection;
  Selection selection({connection.client, connection.server}, {}, {connection.client});
  EXPECT_EQ(kTimeOut, selection.Look());
  EXPECT_EQ((Flags{0, 0}), selection.reads);
  EXPECT_EQ(Flags{0}, selection.excepts);
}

TEST_F(SocketSelect, FindsTheReadableOne) {
  const Connection first;
  const Connection second;
  SendText(second.client, "x");
  Selection selection({first.server, second.server}, {}, {});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ((Flags{0, 1}), selection.reads);
  EXPECT_EQ(0u, selection.Wait(nullptr));  // nothing is consumed
  EXPECT_EQ("x", ReceiveText(second.server));
  EXPECT_EQ(kTimeOut, selection.Look());
}

TEST_F(SocketSelect, FindsOneBothReadableAndWritable) {
  const Connection connection;
  SendText(connection.client, "x");
  Selection selection({connection.server}, {connection.server}, {connection.server});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(Flags{1}, selection.reads);
  EXPECT_EQ(Flags{1}, selection.writes);
  EXPECT_EQ(Flags{0}, selection.excepts);
}

TEST_F(SocketSelect, FindsAListenerReadableWhenAConnectionWaits) {
  const Listener listener;
  Selection selection({listener}, {}, {});
  EXPECT_EQ(kTimeOut, selection.Look());
  const Socket client(OPL_SOCKET_INET);
  ASSERT_EQ(0u, OPL_SocketConnect(client, InetAddress(listener.Port())));
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(Flags{1}, selection.reads);
}

TEST_F(SocketSelect, FindsASocketReadableWhosePeerHasClosed) {
  const Connection connection;
  EXPECT_EQ(0u, OPL_SocketClose(connection.client));
  Selection selection({connection.server}, {}, {connection.server});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(Flags{1}, selection.reads);
  EXPECT_EQ(Flags{0}, selection.excepts);
}

TEST_F(SocketSelect, FindsAnExceptionAtASocketWhosePeerHasReset) {
  const Connection connection;
  const linger now = {1, 0};
  EXPECT_EQ(0u, OPL_SocketSetOption(connection.client, OPL_SOCKET_OPTION_LINGER, &now, sizeof now));
  EXPECT_EQ(0u, OPL_SocketClose(connection.client));
  Selection selection({connection.server}, {connection.server}, {connection.server});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(Flags{1}, selection.reads);
  EXPECT_EQ(Flags{1}, selection.writes);
  EXPECT_EQ(Flags{1}, selection.excepts);
  Selection alone({}, {}, {connection.server});
  EXPECT_EQ(0u, alone.Wait(nullptr));
  EXPECT_EQ(Flags{1}, alone.excepts);
}

TEST_F(SocketSelect, FindsAnExceptionAtADescriptorThatIsNotOpen) {
  const Numbered gone(9999);
  Selection selection({gone}, {gone}, {gone});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(Flags{0}, selection.reads);
  EXPECT_EQ(Flags{0}, selection.writes);
  EXPECT_EQ(Flags{1}, selection.excepts);
}

TEST_F(SocketSelect, FindsNothingAtARecordWithoutADescriptor) {
  const Socket closed;
  const Connection connection;
  Selection alone({closed}, {closed}, {closed});
  EXPECT_EQ(kTimeOut, alone.Look());
  Selection beside({closed}, {closed, connection.client}, {closed});
  EXPECT_EQ(0u, beside.Wait(nullptr));
  EXPECT_EQ(Flags{0}, beside.reads);
  EXPECT_EQ((Flags{0, 1}), beside.writes);
  EXPECT_EQ(Flags{0}, beside.excepts);
}

TEST_F(SocketSelect, IsWokenByAnotherProcess) {
  const Pair pair;
  Child child([&](Steps& steps) {
    ASSERT_EQ(0u, OPL_InitSetCurrentPid());
    steps.WaitForGo();
    SendText(pair.ends[0], "x");
  });
  Selection selection({pair.ends[1]}, {}, {});
  EXPECT_EQ(kTimeOut, selection.Look());
  child.Go();
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(Flags{1}, selection.reads);
  child.ExpectSuccess();
}

TEST_F(SocketSelect, AllocatesNothing) {
  const Connection connection;
  SendText(connection.client, "x");
  Selection selection({connection.server}, {connection.client}, {connection.server});
  const CountedMemory memory;
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(0, memory.Allocated());
}

TEST_F(SocketSelect, RunsInManyThreadsAtOnce) {
  opltest::RunAtOnce(4, [](int) {
    const Pair pair;
    for (int round = 0; round < 500; ++round) {
      SendText(pair.ends[0], "x");
      Selection selection({pair.ends[1], pair.ends[0]}, {pair.ends[0]}, {pair.ends[1]});
      ASSERT_EQ(0u, selection.Wait(nullptr));
      ASSERT_EQ((Flags{1, 0}), selection.reads);
      ASSERT_EQ(Flags{1}, selection.writes);
      ASSERT_EQ("x", ReceiveText(pair.ends[1]));
    }
  });
}

// Descriptors from this on are not open in these tests.
constexpr int kNotOpen = 100000;

struct ManySockets {
  explicit ManySockets(size_t count) {
    for (size_t i = 0; i < count; ++i) {
      sockets.push_back(std::make_unique<Numbered>(kNotOpen + static_cast<int>(i)));
      handles.push_back(*sockets.back());
    }
  }

  std::vector<std::unique_ptr<Numbered>> sockets;
  Handles handles;
};

Handles Part(const Handles& handles, size_t from, size_t to) {
  return {handles.begin() + static_cast<ptrdiff_t>(from), handles.begin() + static_cast<ptrdiff_t>(to)};
}

TEST_F(SocketSelect, TakesFourThousandAndNinetySixDescriptors) {
  const ManySockets many(kMost);
  const Replacement poll("poll", Conditions);
  gConditions[kNotOpen] = POLLIN;
  gConditions[kNotOpen + 4095] = POLLIN | POLLOUT | POLLHUP;
  const Handles& all = many.handles;
  for (auto& selection : {Selection(all, all, all), Selection({}, all, all), Selection({}, {}, all),
                          Selection(Part(all, 0, 2000), Part(all, 1000, 3000), Part(all, 2500, kMost))}) {
    Selection copy = selection;
    EXPECT_EQ(0u, copy.Look());
    EXPECT_EQ(kMost, gAsked.size());
    EXPECT_EQ(1u, copy.excepts.back());
    EXPECT_EQ(copy.reads.size() == kMost ? 2
              : copy.reads.empty()       ? 0
                                         : 1,
              std::count(copy.reads.begin(), copy.reads.end(), 1u));
    EXPECT_EQ(copy.writes.size() == kMost ? 1 : 0, std::count(copy.writes.begin(), copy.writes.end(), 1u));
  }
}

TEST_F(SocketSelect, RefusesOneDescriptorMore) {
  const ManySockets many(kMost + 1);
  const Handles& all = many.handles;
  const Fault fault("poll", 1, EIO);
  for (auto& selection : {Selection(all, {}, {}), Selection({}, all, {}), Selection({}, {}, all),
                          Selection(Part(all, 0, kMost), {all.back()}, {}),
                          Selection(Part(all, 0, 2000), Part(all, 2000, 4000), Part(all, 4000, kMost + 1))}) {
    Selection copy = selection;
    EXPECT_EQ(kTooMany, copy.Look());
    ExpectError(kTooMany, "OPL_SocketSelect: Too many sockets.");
    for (const Flags* told : {&copy.reads, &copy.writes, &copy.excepts})
      EXPECT_EQ(Flags(told->size(), 0), *told);
  }
  EXPECT_FALSE(fault.Fired());
}

TEST_F(SocketSelect, CountsADescriptorOnceHoweverOftenTheListsNameIt) {
  const Numbered a;
  const Replacement poll("poll", Conditions);
  gConditions[a.fd()] = POLLOUT | POLLERR;
  const Handles often(3 * kMost, a);
  Selection selection({a}, often, often);
  EXPECT_EQ(0u, selection.Look());
  EXPECT_EQ(1u, gAsked.size());
  EXPECT_EQ(Flags{0}, selection.reads);
  EXPECT_EQ(Flags(3 * kMost, 1), selection.writes);
  EXPECT_EQ(Flags(3 * kMost, 1), selection.excepts);
}

// Readers are not merged.
TEST_F(SocketSelect, CountsAReaderAsOftenAsItIsNamed) {
  const Numbered a;
  const Replacement poll("poll", Conditions);
  gConditions[a.fd()] = POLLIN | POLLOUT;
  Selection fitting(Handles(kMost, a), {a}, {});
  EXPECT_EQ(0u, fitting.Look());
  EXPECT_EQ(kMost, gAsked.size());
  EXPECT_EQ(Flags(kMost, 1), fitting.reads);
  EXPECT_EQ(Flags{1}, fitting.writes);
  Selection tooMany(Handles(kMost + 1, a), {}, {});
  EXPECT_EQ(kTooMany, tooMany.Look());
}

TEST_F(SocketSelect, WaitsForAsManyOpenDescriptorsAtOnce) {
  rlimit limits{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limits));
  if (limits.rlim_max < kMost + 100) GTEST_SKIP() << "the system does not let a process open as many files";
  const Limit limit(RLIMIT_NOFILE, kMost + 100);
  const Pair pair;
  std::vector<std::unique_ptr<Numbered>> sockets;
  Handles handles;
  for (size_t i = 0; i < kMost - 1; ++i) {
    sockets.push_back(std::make_unique<Numbered>(::dup(opltest::DescriptorOf(pair.ends[0]))));
    handles.push_back(*sockets.back());
  }
  handles.push_back(pair.ends[1]);
  SendText(pair.ends[0], "x");
  Selection selection(handles, {}, {});
  EXPECT_EQ(0u, selection.Wait(nullptr));
  EXPECT_EQ(1, std::count(selection.reads.begin(), selection.reads.end(), 1u));
  EXPECT_EQ(1u, selection.reads.back());
}

}  // namespace
