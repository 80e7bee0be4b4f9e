// Waiting for many sockets with one poll, which is to be what a call takes its time for: lists that name the
// same sockets in the same order are gone through together, none is gone through for each socket of another,
// and no more of the stack is touched than the lists need.
#include <poll.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "opl_base/src/HashPlaces.h"
#include "opl_base/src/Retry.h"
#include "opl_err/src/Fail.h"
#include "opl_socket/src/Socket.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr int kNoLimit = -1;
constexpr uint32_t kMillisecondsPerSecond = 1000;
constexpr uint32_t kLongestSeconds = INT_MAX / kMillisecondsPerSecond;
// Deliberate: a socket that only the exceptions name asks for all three, one that another list names as well
// for POLLERR. The system reports all three for either.
constexpr short kExceptions = POLLERR | POLLHUP | POLLNVAL;

// One of the caller's three lists with its results.
struct List {
  OPL_Socket** sockets;
  uint32_t* results;
  uint32_t count;
};

bool IsEmpty(OPL_Socket* const* sockets) { return sockets == nullptr || sockets[0] == nullptr; }

// A list of which so many sockets are counted already.
List ListOf(OPL_Socket** sockets, uint32_t* results, uint32_t counted) {
  if (IsEmpty(sockets)) return {nullptr, nullptr, 0};
  while (sockets[counted] != nullptr) ++counted;
  return {sockets, results, counted};
}

[[nodiscard]] bool Clear(const List& list) {
  if (list.count == 0) return true;
  if (list.results == nullptr) return false;
  // Many a list is of one socket, and a call takes longer than one store.
  if (list.count == 1)
    list.results[0] = 0;
  else
    std::fill_n(list.results, list.count, 0U);
  return true;
}

// Entries of a poll table by descriptor.
class Index {
 public:
  static constexpr uint16_t kFree = UINT16_MAX;

  void Empty(uint32_t most) {
    most = std::min<uint32_t>(most, OPL_SOCKET_SELECT_MAX);
    placesBits_ = opl::HashBitsFor(most);
    std::fill_n(places_, 1U << placesBits_, kFree);
  }

  // The place of a descriptor's entry, or a free one for it.
  uint16_t& PlaceOf(int descriptor, const pollfd* entries) {
    return opl::FindPlace(places_, placesBits_, kFree, static_cast<uint32_t>(descriptor),
                          [&](uint16_t entry) { return entries[entry].fd == descriptor; });
  }

 private:
  uint32_t placesBits_ = 0;
  uint16_t places_[2 * OPL_SOCKET_SELECT_MAX];
};

// The entries handed to poll.
class PollTable {
 public:
  pollfd* Entries() { return entries_; }
  uint32_t Count() const { return count_; }

  // Adds the sockets with which all lists that are not empty begin alike, and returns their number. Of most
  // calls these are all: who waits for a socket in several ways names it at the same place of several lists.
  uint32_t AddCommon(OPL_Socket* const* read, OPL_Socket* const* write, OPL_Socket* const* except);
  // Adds what the lists name behind them.
  [[nodiscard, gnu::noinline]] bool AddRest(const List& readers, const List& writers, const List& exceptions);

  // Set the results of the entries that are ready, of which there are so many.
  void TellCommon(const List& readers, const List& writers, const List& exceptions, uint32_t found) const;
  [[gnu::noinline]] void TellRest(const List& writers, const List& exceptions, uint32_t found);

 private:
  void Set(uint32_t entry, const OPL_Socket& socket, int events);
  [[nodiscard]] bool AddReaders(const List& list);
  [[nodiscard]] bool AddOthers(const List& list, short ifKnown, short ifNew, uint32_t most);
  uint32_t Find(int descriptor, uint32_t guess, uint32_t most);
  uint32_t NextReady(uint32_t entry) const;
  void TellOthers(const List& list, short conditions);

  uint32_t count_ = 0;
  uint32_t common_ = 0;
  bool isIndexed_ = false;
  alignas(uint64_t) pollfd entries_[OPL_SOCKET_SELECT_MAX];
  Index index_;
};

// In one store: beside poll itself, what a call does for each socket is what it takes its time for.
void PollTable::Set(uint32_t entry, const OPL_Socket& socket, int events) {
  static_assert(std::endian::native == std::endian::little && offsetof(pollfd, events) == sizeof(int));
  const uint64_t content =
      uint64_t{static_cast<uint16_t>(events)} << 32 | static_cast<uint32_t>(socket.descriptor);
  static_assert(sizeof content == sizeof entries_[entry]);
  std::memcpy(&entries_[entry], &content, sizeof content);
}

uint32_t PollTable::AddCommon(OPL_Socket* const* read, OPL_Socket* const* write, OPL_Socket* const* except) {
  const bool reads = !IsEmpty(read);
  const bool writes = !IsEmpty(write);
  const bool excepts = !IsEmpty(except);
  OPL_Socket* const* const first = reads ? read : writes ? write : except;
  if (!writes) write = first;
  if (!excepts) except = first;
  int events = (reads ? POLLIN : 0) | (writes ? POLLOUT : 0);
  if (excepts) events |= events != 0 ? POLLERR : kExceptions;
  // Each reader has an entry of its own. Others of one descriptor share one, so that of these only the first
  // is sure to be new.
  const uint32_t most = reads ? OPL_SOCKET_SELECT_MAX : writes || excepts ? 1 : 0;
  uint32_t i = 0;
  if (!writes && !excepts)
    for (; i < most && first[i] != nullptr; ++i) Set(i, *first[i], events);
  else
    for (; i < most && first[i] != nullptr && first[i] == write[i] && first[i] == except[i]; ++i)
      Set(i, *first[i], events);
  return common_ = count_ = i;
}

bool PollTable::AddRest(const List& readers, const List& writers, const List& exceptions) {
  const uint32_t most = readers.count + writers.count + exceptions.count;
  return AddReaders(readers) && AddOthers(writers, POLLOUT, POLLOUT, most) &&
         AddOthers(exceptions, POLLERR, kExceptions, most);
}

// The first entries of the table, in the list's order.
bool PollTable::AddReaders(const List& list) {
  if (list.count > OPL_SOCKET_SELECT_MAX) return false;
  for (uint32_t i = common_; i < list.count; ++i) Set(i, *list.sockets[i], POLLIN);
  count_ = std::max(count_, list.count);
  return true;
}

bool PollTable::AddOthers(const List& list, short ifKnown, short ifNew, uint32_t most) {
  uint32_t entry = common_;
  for (uint32_t i = common_; i < list.count; ++i, ++entry) {
    entry = Find(list.sockets[i]->descriptor, entry, most);
    if (entry < count_) {
      entries_[entry].events = static_cast<short>(entries_[entry].events | ifKnown);
    } else {
      if (count_ == OPL_SOCKET_SELECT_MAX) return false;
      Set(count_++, *list.sockets[i], ifNew);
    }
  }
  return true;
}

// The number of a descriptor's entry, or that of the next to be added. A list that names sockets of another
// in their order finds each a little behind the one before; from the first on that is not there, they are
// looked up in the index.
uint32_t PollTable::Find(int descriptor, uint32_t guess, uint32_t most) {
  if (guess < count_ && entries_[guess].fd == descriptor) return guess;
  if (!isIndexed_) {
    while (guess < count_ && entries_[guess].fd != descriptor) ++guess;
    if (guess < count_) return guess;
    index_.Empty(most);
    for (uint32_t i = 0; i < count_; ++i) index_.PlaceOf(entries_[i].fd, entries_) = static_cast<uint16_t>(i);
    isIndexed_ = true;
  }
  uint16_t& place = index_.PlaceOf(descriptor, entries_);
  if (place == Index::kFree) place = static_cast<uint16_t>(count_);
  return place;
}

// From an entry on; the number of entries where none is ready any more.
inline uint32_t PollTable::NextReady(uint32_t entry) const {
  constexpr uint32_t kAtOnce = 16;
  const auto areReady = [](const pollfd* entries) {
    int ready = 0;
#pragma GCC unroll kAtOnce
    for (uint32_t i = 0; i < kAtOnce; ++i) ready |= entries[i].revents;
    return ready != 0;
  };
  while (entry + kAtOnce <= count_ && !areReady(&entries_[entry])) entry += kAtOnce;
  while (entry < count_ && entries_[entry].revents == 0) ++entry;
  return entry;
}

void PollTable::TellCommon(const List& readers, const List& writers, const List& exceptions,
                           uint32_t found) const {
  for (uint32_t i = 0; found != 0 && (i = NextReady(i)) < count_; ++i, --found) {
    const short ready = entries_[i].revents;
    if (i < readers.count && (ready & POLLIN) != 0) readers.results[i] = 1;
    if (i >= common_) continue;
    if (writers.count != 0 && (ready & POLLOUT) != 0) writers.results[i] = 1;
    if (exceptions.count != 0 && (ready & kExceptions) != 0) exceptions.results[i] = 1;
  }
}

void PollTable::TellRest(const List& writers, const List& exceptions, uint32_t found) {
  index_.Empty(found);
  for (uint32_t i = 0; found != 0 && (i = NextReady(i)) < count_; ++i, --found) {
    uint16_t& place = index_.PlaceOf(entries_[i].fd, entries_);
    if (place == Index::kFree) place = static_cast<uint16_t>(i);
    // Of two entries of a descriptor, which only readers have, another list has found one.
    pollfd& first = entries_[place];
    first.revents = static_cast<short>(first.revents | entries_[i].revents);
  }
  TellOthers(writers, POLLOUT);
  TellOthers(exceptions, kExceptions);
}

void PollTable::TellOthers(const List& list, short conditions) {
  for (uint32_t i = common_; i < list.count; ++i) {
    const uint16_t place = index_.PlaceOf(list.sockets[i]->descriptor, entries_);
    if (place != Index::kFree && (entries_[place].revents & conditions) != 0) list.results[i] = 1;
  }
}

int TimeoutOf(const uint32_t* seconds) {
  if (seconds == nullptr) return kNoLimit;
  return static_cast<int>(std::min(*seconds, kLongestSeconds) * kMillisecondsPerSecond);
}

Code Poll(PollTable* table, int timeout, uint32_t* pFound) {
  const Caller caller{"OPL_SocketSelect"};
  // Deliberate: a wait that a signal interrupts begins anew, with the whole time-out.
  const int found = opl::RetryOnEintr([&] { return ::poll(table->Entries(), table->Count(), timeout); });
  if (found == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SOCKET_E_POLL, "%s: poll error %i,%s", error.number(), error.text());
  }
  if (found == 0) return Fail(caller, OPL_SOCKET_E_TIMEOUT, "%s: poll timeout");
  *pFound = static_cast<uint32_t>(found);
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_SocketSelect(uint32_t /*mode*/, OPL_Socket** read, OPL_Socket** write, OPL_Socket** except,
                            uint32_t* readResult, uint32_t* writeResult, uint32_t* exceptResult,
                            const uint32_t* timeoutSeconds) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  PollTable table;
  const uint32_t common = table.AddCommon(read, write, except);
  const List readers = ListOf(read, readResult, common);
  const List writers = ListOf(write, writeResult, common);
  const List exceptions = ListOf(except, exceptResult, common);
  if (!Clear(readers) || !Clear(writers) || !Clear(exceptions))
    return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: The results of a list are NULL");

  const bool hasRest = readers.count > common || writers.count > common || exceptions.count > common;
  if (hasRest && !table.AddRest(readers, writers, exceptions))
    return Fail(OPL_SOCKET_E_TOO_MANY, "%s: Too many sockets.");
  uint32_t found = 0;
  if (const Code rc = Poll(&table, TimeoutOf(timeoutSeconds), &found)) return rc;
  table.TellCommon(readers, writers, exceptions, found);
  if (hasRest) table.TellRest(writers, exceptions, found);
  return OPL_OK;
}
