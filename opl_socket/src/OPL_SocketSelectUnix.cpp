// Waiting for many sockets with one poll. Finding the entry of a descriptor that another list names takes a
// step or two whatever the number of sockets, and a call touches no more of its stack than its lists need.
#include <poll.h>

#include <algorithm>
#include <climits>

#include "OPL_Init.h"
#include "OPL_Socket.h"
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
constexpr short kExceptions = POLLERR | POLLHUP | POLLNVAL;

// One of the caller's three lists with its results.
struct List {
  OPL_Socket** sockets;
  uint32_t* results;
  uint32_t count;
};

List ListOf(OPL_Socket** sockets, uint32_t* results) {
  uint32_t count = 0;
  if (sockets != nullptr)
    while (sockets[count] != nullptr) ++count;
  return {sockets, results, count};
}

// The entries handed to poll, and an index of them by descriptor: open addressing over twice as many places
// as there can be entries, filled when it is first needed.
class PollTable {
 public:
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): an entry is set when it comes into use
  explicit PollTable(uint32_t most) {
    most = std::min<uint32_t>(most, OPL_SOCKET_SELECT_MAX);
    while (1U << placesBits_ < 2 * most) ++placesBits_;
  }

  pollfd* Entries() { return entries_; }
  uint32_t Count() const { return count_; }

  [[nodiscard]] bool Add(int descriptor, short events) {
    if (count_ == OPL_SOCKET_SELECT_MAX) return false;
    entries_[count_] = {descriptor, events, 0};
    if (isIndexed_) Index(count_);
    ++count_;
    return true;
  }

  // The first entry of a descriptor, or null. Lists often name the same sockets in the same order, so the
  // place in its own list is a good guess.
  pollfd* Find(int descriptor, uint32_t guess) {
    if (guess < count_ && entries_[guess].fd == descriptor) return &entries_[guess];
    if (!isIndexed_) IndexAll();
    const uint32_t place = PlaceOf(descriptor);
    return places_[place] != kEmpty ? &entries_[places_[place]] : nullptr;
  }

 private:
  static constexpr uint32_t kLeastBits = 4;
  static constexpr uint32_t kPlaces = 2 * OPL_SOCKET_SELECT_MAX;
  static constexpr uint16_t kEmpty = UINT16_MAX;

  // Where a descriptor's entry stands in the index, or the empty place for it. Multiplied by the golden
  // ratio, neighbours and multiples of any number fall apart.
  uint32_t PlaceOf(int descriptor) const {
    const uint32_t lastPlace = (1U << placesBits_) - 1;
    uint32_t place = (static_cast<uint32_t>(descriptor) * 0x9E3779B9U) >> (32 - placesBits_);
    while (places_[place] != kEmpty && entries_[places_[place]].fd != descriptor)
      place = (place + 1) & lastPlace;
    return place;
  }

  void Index(uint32_t entry) {
    uint16_t& place = places_[PlaceOf(entries_[entry].fd)];
    if (place == kEmpty) place = static_cast<uint16_t>(entry);
  }

  void IndexAll() {
    std::fill_n(places_, 1U << placesBits_, kEmpty);
    for (uint32_t entry = 0; entry < count_; ++entry) Index(entry);
    isIndexed_ = true;
  }

  pollfd entries_[OPL_SOCKET_SELECT_MAX];
  uint16_t places_[kPlaces];
  uint32_t placesBits_ = kLeastBits;
  uint32_t count_ = 0;
  bool isIndexed_ = false;
};

// Each reader has an entry of its own, in the list's order: the first entries of the table.
[[nodiscard]] bool AddReaders(const List& list, PollTable* table) {
  for (uint32_t i = 0; i < list.count; ++i)
    if (!table->Add(list.sockets[i]->descriptor, POLLIN)) return false;
  return true;
}

[[nodiscard]] bool AddOthers(const List& list, short ifKnown, short ifNew, PollTable* table) {
  for (uint32_t i = 0; i < list.count; ++i) {
    const int descriptor = list.sockets[i]->descriptor;
    pollfd* const entry = table->Find(descriptor, i);
    if (entry != nullptr)
      entry->events = static_cast<short>(entry->events | ifKnown);
    else if (!table->Add(descriptor, ifNew))
      return false;
  }
  return true;
}

void TellReaders(const List& list, const pollfd* entries) {
  for (uint32_t i = 0; i < list.count; ++i) list.results[i] = (entries[i].revents & POLLIN) != 0 ? 1 : 0;
}

void TellOthers(const List& list, short conditions, PollTable* table) {
  for (uint32_t i = 0; i < list.count; ++i) {
    const pollfd* const entry = table->Find(list.sockets[i]->descriptor, i);
    list.results[i] = entry != nullptr && (entry->revents & conditions) != 0 ? 1 : 0;
  }
}

int TimeoutOf(const uint32_t* seconds) {
  if (seconds == nullptr) return kNoLimit;
  return static_cast<int>(std::min(*seconds, kLongestSeconds) * kMillisecondsPerSecond);
}

Code Poll(PollTable* table, int timeout) {
  const Caller caller{"OPL_SocketSelect"};
  // Deliberate: a wait that a signal interrupts begins anew, with the whole time-out.
  const int found = opl::RetryOnEintr([&] { return ::poll(table->Entries(), table->Count(), timeout); });
  if (found == -1) {
    const NativeError error;
    return Fail(caller, error, OPL_SOCKET_E_POLL, "%s: poll error %i,%s", error.number(), error.text());
  }
  if (found == 0) return Fail(caller, OPL_SOCKET_E_TIMEOUT, "%s: poll timeout");
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_SocketSelect(uint32_t /*mode*/, OPL_Socket** read, OPL_Socket** write, OPL_Socket** except,
                            uint32_t* readResult, uint32_t* writeResult, uint32_t* exceptResult,
                            const uint32_t* timeoutSeconds) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const List readers = ListOf(read, readResult);
  const List writers = ListOf(write, writeResult);
  const List exceptions = ListOf(except, exceptResult);
  for (const List& list : {readers, writers, exceptions}) {
    if (list.count == 0) continue;
    if (list.results == nullptr)
      return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: The results of a list are NULL");
    std::fill_n(list.results, list.count, 0U);
  }

  PollTable table(readers.count + writers.count + exceptions.count);
  // Deliberate: a socket that only the exceptions name asks for three conditions, another for one. The system
  // reports all three for either.
  const bool isFitting = AddReaders(readers, &table) && AddOthers(writers, POLLOUT, POLLOUT, &table) &&
                         AddOthers(exceptions, POLLERR, kExceptions, &table);
  if (!isFitting) return Fail(OPL_SOCKET_E_TOO_MANY, "%s: Too many sockets.");
  if (const Code rc = Poll(&table, TimeoutOf(timeoutSeconds))) return rc;
  TellReaders(readers, table.Entries());
  TellOthers(writers, POLLOUT, &table);
  TellOthers(exceptions, kExceptions, &table);
  return OPL_OK;
}
