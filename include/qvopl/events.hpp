/*
 * Events between processes and between threads, and waiting for several of them, for sockets and for
 * descriptors at once.
 *
 * Times to wait are durations and points of time of std::chrono, of any unit. They are rounded up to
 * milliseconds; a negative duration only looks. A signal that is handled meanwhile begins a wait anew with
 * its whole time-out.
 */
#ifndef QVOPL_EVENTS_HPP
#define QVOPL_EVENTS_HPP

#include <cerrno>
#include <chrono>
#include <utility>

#include "../OPL_Socket.h"
#include "../OPL_Sync.h"
#include "handle.hpp"

namespace qvopl {

class Socket;

namespace detail {

// Milliseconds, of which a double holds more than any clock tells.
using Timeout = std::chrono::duration<double, std::milli>;

// Waits until one is ready, or that long; without a time-out for ever. Tells whether one is ready.
inline Result<bool> WaitForMultiple(uint32_t count, OPL_SyncWaitableEvent** waits, uint32_t* ready,
                                    const Timeout* timeout) noexcept {
  constexpr double kLongest = INT32_MAX;
  double left = timeout != nullptr ? timeout->count() : 0;
  for (;;) {
    const double part = left > kLongest ? kLongest : left > 0 ? left : 0;
    const auto whole = static_cast<int32_t>(part);
    const int32_t milliseconds = whole < part ? whole + 1 : whole;
    const OPL_Result code = OPL_SyncWaitableEventWaitForMultiple(
        0, count, waits, ready, timeout != nullptr ? &milliseconds : nullptr);
    if (code == OPL_OK) return true;
    if (code != OPL_SYNC_E_TIMEOUT) return Result<bool>::Failure(code);
    // What is no number is no time.
    if (!(left > kLongest)) return false;
    left -= kLongest;
  }
}

template <typename Rep, typename Period>
Timeout TimeoutOf(std::chrono::duration<Rep, Period> duration) noexcept {
  return duration;
}

// Waits by a function that takes a time-out, until that time on its own clock, which may be set meanwhile.
// Times far off would not fit a clock's own unit; a long double holds nanoseconds to the last one.
template <typename Clock, typename Duration, typename WaitFor>
Result<bool> WaitUntil(std::chrono::time_point<Clock, Duration> time, WaitFor waitFor) noexcept {
  using Exact = std::chrono::duration<long double, std::nano>;
  const auto left = [&] { return Exact(time.time_since_epoch()) - Exact(Clock::now().time_since_epoch()); };
  for (;;) {
    const Result<bool> isReady = waitFor(Timeout(left()));
    if (!isReady || *isReady || !(left() > Exact::zero())) return isReady;
  }
}

// What an event and a private event have in common: the wait for it alone.
template <typename Record>
Result<bool> WaitForOne(OPL_Result (*create)(Record*, OPL_SyncWaitableEvent**), Record* event,
                        const Timeout* timeout) noexcept {
  OPL_SyncWaitableEvent* wait = nullptr;
  uint32_t ready = 0;
  const OPL_Result code = create(event, &wait);
  const Result<bool> result =
      code == OPL_OK ? WaitForMultiple(1, &wait, &ready, timeout) : Result<bool>::Failure(code);
  if (wait != nullptr) (void)OPL_SyncWaitableEventDestroy(&wait);
  return result;
}

}  // namespace detail

/** How an event is waited for, for the types below that inherit from it. A wait leaves it set. */
template <typename Type>
class Waitable {
 public:
  /** Waits until the event is set. */
  Result<void> Wait(std::nothrow_t) const noexcept { return Self().Await(nullptr).code(); }
  /** Waits until the event is set, no longer than that, and tells whether it is. */
  template <typename Rep, typename Period>
  Result<bool> WaitFor(std::nothrow_t, std::chrono::duration<Rep, Period> duration) const noexcept {
    const detail::Timeout timeout = detail::TimeoutOf(duration);
    return Self().Await(&timeout);
  }
  /** Waits until the event is set, until that time at the latest, and tells whether it is. */
  template <typename Clock, typename Duration>
  Result<bool> WaitUntil(std::nothrow_t, std::chrono::time_point<Clock, Duration> time) const noexcept {
    return detail::WaitUntil(time, [&](detail::Timeout timeout) { return Self().Await(&timeout); });
  }

#if QVOPL_EXCEPTIONS
  /** Waits until the event is set; throws an Error. */
  void Wait() const { Wait(std::nothrow).value(); }
  /** Waits until the event is set, no longer than that, and tells whether it is; throws an Error. */
  template <typename Rep, typename Period>
  [[nodiscard]] bool WaitFor(std::chrono::duration<Rep, Period> duration) const {
    return WaitFor(std::nothrow, duration).value();
  }
  /** Waits until the event is set, until that time at the latest; throws an Error. */
  template <typename Clock, typename Duration>
  [[nodiscard]] bool WaitUntil(std::chrono::time_point<Clock, Duration> time) const {
    return WaitUntil(std::nothrow, time).value();
  }
#endif

 private:
  friend Type;
  Waitable() noexcept = default;

  [[nodiscard]] const Type& Self() const noexcept { return static_cast<const Type&>(*this); }
};

/**
 * A named event: any process of the instance posts, resets and waits. It is set from its first post until it
 * is reset. The last close of all processes removes it. Where there is none of a name, Open fails with
 * OPL_SYNC_E_OPEN, and the system's error is ENOENT.
 */
class [[nodiscard]] Event : public Handle<OPL_SyncEvent, OPL_SyncEventClose>,
                            public NamedObject<Event>,
                            public Waitable<Event> {
  friend NamedObject<Event>;
  friend Waitable<Event>;

 public:
  using Handle::Handle;

  /** Sets the event. */
  Result<void> Post(std::nothrow_t) noexcept { return OPL_SyncEventPost(native()); }
  /** Clears the event, whatever number of posts it has. */
  Result<void> Reset(std::nothrow_t) noexcept { return OPL_SyncEventReset(native()); }
  /** Whether the event is set; leaves it so. */
  Result<bool> IsSet(std::nothrow_t) const noexcept {
    return detail::TellWhether(OPL_SyncEventIsSet, native());
  }

#if QVOPL_EXCEPTIONS
  /** Sets the event; throws an Error. */
  void Post() { Post(std::nothrow).value(); }
  /** Clears the event; throws an Error. */
  void Reset() { Reset(std::nothrow).value(); }
  /** Whether the event is set; throws an Error. */
  [[nodiscard]] bool IsSet() const { return IsSet(std::nothrow).value(); }
#endif

 private:
  static Result<Event> MakeOne(Text name, Access access) noexcept {
    return detail::Make<Event, OPL_SyncEvent>(OPL_SyncEventCreate, 0U, name.c_str(), Flag(access));
  }
  static Result<Event> OpenOne(Text name, Access access) noexcept {
    return detail::Make<Event, OPL_SyncEvent>(OPL_SyncEventOpen, 0U, name.c_str(), Flag(access));
  }
  static bool IsMissing(const Result<Event>& opened) noexcept {
    return opened.code() == OPL_SYNC_E_OPEN && opened.systemError() == ENOENT;
  }
  static bool IsThere(const Result<Event>& made) noexcept { return made.code() == OPL_SYNC_E_EVENT_EXISTS; }
  Result<bool> Await(const detail::Timeout* timeout) const noexcept {
    return detail::WaitForOne(OPL_SyncEventWaitableEventCreate, native(), timeout);
  }
  static uint32_t Flag(Access access) noexcept {
    return access == Access::kAllUsers ? OPL_SYNC_EVENT_ALL : OPL_SYNC_EVENT_PRIVATE;
  }
};

/** Whether a private event starts set. */
enum class Initially : uint8_t {
  kClear, /**< it is not set */
  kSet    /**< it is set once */
};

/** An event between the threads of one process. Posts are counted: each reset takes one back. */
class [[nodiscard]] PrivateEvent : public Handle<OPL_SyncPrivateEvent, OPL_SyncPrivateEventClose>,
                                   public Waitable<PrivateEvent> {
  friend Waitable<PrivateEvent>;

 public:
  using Handle::Handle;

  /** Makes one. */
  static Result<PrivateEvent> Create(std::nothrow_t, Initially initially = Initially::kClear) noexcept {
    return detail::Make<PrivateEvent, OPL_SyncPrivateEvent>(
        OPL_SyncPrivateEventCreate, 0U,
        initially == Initially::kSet ? static_cast<uint32_t>(OPL_SYNC_PRIVATE_EVENT_SET) : 0U);
  }

  /** Sets the event once more, from any thread. Waits after some hundred posts without a reset. */
  Result<void> Post(std::nothrow_t) noexcept { return OPL_SyncPrivateEventPost(native()); }
  /** Takes one post back. */
  Result<void> Reset(std::nothrow_t) noexcept { return OPL_SyncPrivateEventReset(native()); }

#if QVOPL_EXCEPTIONS
  /** Makes one; throws an Error. */
  static PrivateEvent Create(Initially initially = Initially::kClear) {
    return Create(std::nothrow, initially).value();
  }
  /** Sets the event once more; throws an Error. */
  void Post() { Post(std::nothrow).value(); }
  /** Takes one post back; throws an Error. */
  void Reset() { Reset(std::nothrow).value(); }
#endif

 private:
  Result<bool> Await(const detail::Timeout* timeout) const noexcept {
    return detail::WaitForOne(OPL_SyncPrivateEventWaitableEventCreate, native(), timeout);
  }
};

/** What a socket or a descriptor is waited for; kinds combine with |. */
enum class Until : uint8_t {
  kReadable = 1, /**< something can be received or accepted, or the peer has closed */
  kWritable = 2  /**< something can be sent; a connection has been made, or has failed */
};

/** Both. */
[[nodiscard]] constexpr Until operator|(Until first, Until second) noexcept {
  return static_cast<Until>(static_cast<uint8_t>(first) | static_cast<uint8_t>(second));
}

/**
 * Up to OPL_SYNC_WAIT_MAX events, sockets and descriptors that are waited for together, by one thread at a
 * time. What is in the set has to outlive it or be taken out before.
 */
class [[nodiscard]] WaitSet {
 public:
  /** One member of a set, as Add gives it. */
  class Member {
   public:
    /** No member. */
    constexpr Member() noexcept = default;

   private:
    friend WaitSet;
    constexpr Member(uint32_t slot, uint32_t serial) noexcept : slot_(slot), serial_(serial) {}
    uint32_t slot_ = OPL_SYNC_WAIT_MAX;
    uint32_t serial_ = 0;
  };

  /** An empty set. */
  WaitSet() noexcept = default;
  ~WaitSet() { Clear(); }
  WaitSet(const WaitSet&) = delete;
  WaitSet& operator=(const WaitSet&) = delete;
  /** Leaves the other empty. Members of the other are members of this. */
  WaitSet(WaitSet&& other) noexcept { Take(other); }
  /** The same; what was in this set is taken out. */
  WaitSet& operator=(WaitSet&& other) noexcept {
    if (this == &other) return *this;
    Clear();
    Take(other);
    return *this;
  }

  /** Adds an event: it is ready while it is set. */
  Result<Member> Add(std::nothrow_t, const Event& event) noexcept {
    return AddMade([&](OPL_SyncWaitableEvent** wait) noexcept {
      return OPL_SyncEventWaitableEventCreate(event.native(), wait);
    });
  }
  /** Adds a private event: it is ready while it is set. */
  Result<Member> Add(std::nothrow_t, const PrivateEvent& event) noexcept {
    return AddMade([&](OPL_SyncWaitableEvent** wait) noexcept {
      return OPL_SyncPrivateEventWaitableEventCreate(event.native(), wait);
    });
  }
  /** Adds an open socket. One that is opened anew is to be added anew. */
  Result<Member> Add(std::nothrow_t, const Socket& socket, Until until = Until::kReadable) noexcept;
  /** Adds a descriptor, which stays the caller's. */
  Result<Member> Add(std::nothrow_t, int descriptor, Until until = Until::kReadable) noexcept {
    return AddMade([&](OPL_SyncWaitableEvent** wait) noexcept {
      const OPL_Result code = OPL_SyncWaitableEventCreate(wait, 0);
      if (code != OPL_OK) return code;
      return OPL_SyncWaitableEventNativeHandleSet(
          *wait, descriptor, Bits(until, OPL_SYNC_WAIT_READABLE, OPL_SYNC_WAIT_WRITABLE));
    });
  }
  /** Takes a member out; nothing happens where it is out already. The others stay what they are. */
  void Remove(Member member) noexcept {
    if (!Has(member)) return;
    const uint32_t place = places_[member.slot_];
    (void)OPL_SyncWaitableEventDestroy(&waits_[place]);
    --count_;
    waits_[place] = waits_[count_];
    ready_[place] = ready_[count_];
    slots_[place] = slots_[count_];
    places_[slots_[place]] = place;
    places_[member.slot_] = kFree;
  }
  /** Takes all members out. */
  void Clear() noexcept {
    while (count_ != 0) Remove(Member(slots_[count_ - 1], serials_[slots_[count_ - 1]]));
  }
  /** The number of members. */
  [[nodiscard]] uint32_t size() const noexcept { return count_; }

  /** Waits until one of the members is ready at least. */
  Result<void> Wait(std::nothrow_t) noexcept {
    return detail::WaitForMultiple(count_, waits_, ready_, nullptr).code();
  }
  /** The same, no longer than that; tells whether one is. */
  template <typename Rep, typename Period>
  Result<bool> WaitFor(std::nothrow_t, std::chrono::duration<Rep, Period> duration) noexcept {
    const detail::Timeout timeout = detail::TimeoutOf(duration);
    return detail::WaitForMultiple(count_, waits_, ready_, &timeout);
  }
  /** The same, until that time at the latest; tells whether one is. */
  template <typename Clock, typename Duration>
  Result<bool> WaitUntil(std::nothrow_t, std::chrono::time_point<Clock, Duration> time) noexcept {
    return detail::WaitUntil(time, [&](detail::Timeout timeout) { return WaitFor(std::nothrow, timeout); });
  }

  /** Whether the last wait found a member ready. */
  [[nodiscard]] bool IsReady(Member member) const noexcept {
    return Has(member) && ready_[places_[member.slot_]] != 0;
  }
  /** Whether the last wait found that it can be read or received from; events that are set are readable. */
  [[nodiscard]] bool IsReadable(Member member) const noexcept {
    return (Found(member) & OPL_SYNC_WAIT_READABLE) != 0;
  }
  /** Whether the last wait found that it can be written or sent to. */
  [[nodiscard]] bool IsWritable(Member member) const noexcept {
    return (Found(member) & OPL_SYNC_WAIT_WRITABLE) != 0;
  }
  /** Whether the last wait found an error, a hang-up, or a descriptor that is not open. */
  [[nodiscard]] bool HasError(Member member) const noexcept {
    return (Found(member) & OPL_SYNC_WAIT_ERROR) != 0;
  }

#if QVOPL_EXCEPTIONS
  /** Adds an event; throws an Error. */
  Member Add(const Event& event) { return Add(std::nothrow, event).value(); }
  /** Adds a private event; throws an Error. */
  Member Add(const PrivateEvent& event) { return Add(std::nothrow, event).value(); }
  /** Adds an open socket; throws an Error. */
  Member Add(const Socket& socket, Until until = Until::kReadable) {
    return Add(std::nothrow, socket, until).value();
  }
  /** Adds a descriptor; throws an Error. */
  Member Add(int descriptor, Until until = Until::kReadable) {
    return Add(std::nothrow, descriptor, until).value();
  }
  /** Waits until one of the members is ready at least; throws an Error. */
  void Wait() { Wait(std::nothrow).value(); }
  /** The same, no longer than that; tells whether one is; throws an Error. */
  template <typename Rep, typename Period>
  [[nodiscard]] bool WaitFor(std::chrono::duration<Rep, Period> duration) {
    return WaitFor(std::nothrow, duration).value();
  }
  /** The same, until that time; tells whether one is; throws an Error. */
  template <typename Clock, typename Duration>
  [[nodiscard]] bool WaitUntil(std::chrono::time_point<Clock, Duration> time) {
    return WaitUntil(std::nothrow, time).value();
  }
#endif

 private:
  static constexpr uint32_t kFree = UINT32_MAX;

  static uint32_t Bits(Until until, uint32_t readable, uint32_t writable) noexcept {
    const auto bits = static_cast<uint32_t>(until);
    return ((bits & static_cast<uint32_t>(Until::kReadable)) != 0 ? readable : 0U) |
           ((bits & static_cast<uint32_t>(Until::kWritable)) != 0 ? writable : 0U);
  }

  [[nodiscard]] bool Has(Member member) const noexcept {
    return member.slot_ < usedSlots_ && places_[member.slot_] != kFree &&
           serials_[member.slot_] == member.serial_;
  }

  [[nodiscard]] uint32_t Found(Member member) const noexcept {
    int32_t descriptor = -1;
    uint32_t found = 0;
    if (IsReady(member))
      (void)OPL_SyncWaitableEventNativeHandleGet(waits_[places_[member.slot_]], &descriptor, &found);
    return found;
  }

  template <typename MakeWait>
  Result<Member> AddMade(MakeWait makeWait) noexcept {
    if (count_ == OPL_SYNC_WAIT_MAX)
      return Result<Member>::Failure(detail::Refuse(OPL_SYNC_E_TOO_MANY_EVENTS, "WaitSet::Add"));
    OPL_SyncWaitableEvent* wait = nullptr;
    if (const OPL_Result code = makeWait(&wait); code != OPL_OK) {
      if (wait != nullptr) (void)OPL_SyncWaitableEventDestroy(&wait);
      return Result<Member>::Failure(code);
    }
    uint32_t slot = 0;
    while (slot < usedSlots_ && places_[slot] != kFree) ++slot;
    if (slot == usedSlots_) ++usedSlots_;
    places_[slot] = count_;
    serials_[slot] = ++lastSerial_;
    slots_[count_] = slot;
    waits_[count_] = wait;
    ready_[count_] = 0;
    ++count_;
    return Member(slot, lastSerial_);
  }

  void Take(WaitSet& other) noexcept {
    for (uint32_t place = 0; place < other.count_; ++place) {
      waits_[place] = other.waits_[place];
      ready_[place] = other.ready_[place];
      slots_[place] = other.slots_[place];
    }
    for (uint32_t slot = 0; slot < other.usedSlots_; ++slot) {
      places_[slot] = other.places_[slot];
      serials_[slot] = other.serials_[slot];
    }
    lastSerial_ = other.lastSerial_;
    count_ = std::exchange(other.count_, 0);
    usedSlots_ = std::exchange(other.usedSlots_, 0);
  }

  // A member keeps its slot, which the next gets when it is taken out: the serial number tells them apart.
  // The records lie in a row for the wait: places_ leads from a slot to a record, slots_ back.
  uint32_t count_ = 0;
  uint32_t usedSlots_ = 0;
  uint32_t lastSerial_ = 0;
  OPL_SyncWaitableEvent* waits_[OPL_SYNC_WAIT_MAX];
  uint32_t ready_[OPL_SYNC_WAIT_MAX];
  uint32_t slots_[OPL_SYNC_WAIT_MAX];
  uint32_t places_[OPL_SYNC_WAIT_MAX];
  uint32_t serials_[OPL_SYNC_WAIT_MAX];
};

}  // namespace qvopl

#endif
