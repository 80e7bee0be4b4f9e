/*
 * What the types of the C++ interface are made of: the owner of a handle, names as arguments, spans and
 * bytes, and what several kinds of objects have in common.
 */
#ifndef QVOPL_HANDLE_HPP
#define QVOPL_HANDLE_HPP

#include <sched.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "../OPL_Mem.h"
#include "../OPL_Sync.h"
#include "result.hpp"

namespace qvopl {

namespace detail {

// Releases what an allocation function of the library returned.
inline void Free(void* memory) noexcept {
  OPL_MemFree(nullptr, memory, 0, __func__, __FILE__, "NO-VERSION-INFO", __LINE__);
}

// Opens an object or makes it. Others may make it after it was found missing, and remove it after it was
// found: then it is tried again. What looks like that round after round is no race but a name that can be
// neither opened nor made, and the last failure stands.
template <typename Open, typename Create, typename IsMissing, typename IsThere>
auto OpenOrCreate(Open open, Create create, IsMissing isMissing, IsThere isThere) noexcept
    -> decltype(open()) {
  constexpr int kRounds = 1000;
  for (int round = 1;; ++round) {
    auto opened = open();
    if (opened.ok() || !isMissing(opened)) return opened;
    auto created = create();
    if (created.ok() || !isThere(created) || round == kRounds) return created;
    (void)::sched_yield();
  }
}

// Seconds as a C function takes them; a negative duration is none.
inline int32_t WholeSeconds(std::chrono::seconds duration) noexcept {
  constexpr std::chrono::seconds kLongest(INT32_MAX);
  if (duration.count() < 0) return 0;
  return static_cast<int32_t>((duration < kLongest ? duration : kLongest).count());
}

template <typename Container>
using DataOf = decltype(std::declval<Container&>().data());
template <typename Container>
using SizeOf = decltype(std::declval<Container&>().size());

// A container with its elements in a row, and how they are reached.
template <typename Container, typename = void>
struct ElementOf {
  using Type = void;
};
template <typename Container>
struct ElementOf<Container, std::void_t<DataOf<Container>, SizeOf<Container>>> {
  using Type = std::remove_pointer_t<DataOf<Container>>;
};
template <typename Container>
using Element = typename ElementOf<std::remove_reference_t<Container>>::Type;

}  // namespace detail

/** Who may open a named object. */
enum class Access : uint8_t {
  kPrivate, /**< processes of the instance and its user (mode 0600) */
  kAllUsers /**< all users and instances (mode 0666) */
};

/** What becomes of a wait for a lock when a signal is handled in the waiting thread. */
enum class OnSignal : uint8_t {
  kGoOn,     /**< it goes on waiting */
  kInterrupt /**< it fails with a code that equals std::errc::interrupted */
};

/**
 * A text as an argument: a literal, a const char* or a std::string. It must not be null and is not copied.
 */
class Text {
 public:
  // NOLINTBEGIN(google-explicit-constructor): an argument's type
  /** A text that ends in a NUL. */
  constexpr Text(const char* text) noexcept : text_(text) {}
  /** A string, which has to outlive the call. */
  Text(const std::string& text) noexcept : text_(text.c_str()) {}
  // NOLINTEND(google-explicit-constructor)

  /** The text, which ends in a NUL. */
  [[nodiscard]] constexpr const char* c_str() const noexcept { return text_; }

 private:
  const char* text_;
};

/** Elements in a row that belong to somebody else. */
template <typename T>
class Span {
 public:
  /** No elements. */
  constexpr Span() noexcept = default;
  /** That many elements from an address on. */
  constexpr Span(T* data, std::size_t size) noexcept : data_(data), size_(size) {}
  // NOLINTBEGIN(google-explicit-constructor): an argument's type
  /** An array. */
  template <std::size_t kSize>
  constexpr Span(T (&array)[kSize]) noexcept : data_(array), size_(kSize) {}
  /** A std::array, a std::vector, a span, or whatever else has data() and size(). */
  template <typename Container,
            typename = std::enable_if_t<std::is_convertible_v<detail::Element<Container> (*)[], T (*)[]>>>
  constexpr Span(Container&& container) noexcept : data_(container.data()), size_(container.size()) {}
  // NOLINTEND(google-explicit-constructor)

  /** The first element's address. */
  [[nodiscard]] constexpr T* data() const noexcept { return data_; }
  /** The number of elements. */
  [[nodiscard]] constexpr std::size_t size() const noexcept { return size_; }
  /** Whether there are none. */
  [[nodiscard]] constexpr bool empty() const noexcept { return size_ == 0; }
  /** One element; the index is not checked. */
  [[nodiscard]] constexpr T& operator[](std::size_t index) const noexcept { return data_[index]; }
  /** The first element. */
  [[nodiscard]] constexpr T* begin() const noexcept { return data_; }
  /** Behind the last element. */
  [[nodiscard]] constexpr T* end() const noexcept { return data_ + size_; }
  /** What is left behind the first elements. */
  [[nodiscard]] constexpr Span Behind(std::size_t count) const noexcept {
    return {data_ + count, size_ - count};
  }

 private:
  T* data_ = nullptr;
  std::size_t size_ = 0;
};

/** Bytes to be read: of a literal without its terminator, of an array, of a container, of a span. */
class ConstBytes {
 public:
  // NOLINTBEGIN(google-explicit-constructor): an argument's type
  /** A literal, without its terminator. */
  constexpr ConstBytes(const char* text) noexcept : ConstBytes(text, std::string_view(text).size()) {}
  /** A buffer: is it the text in it or all of it? Say std::string_view(buffer) or {buffer, sizeof buffer}. */
  template <std::size_t kSize>
  ConstBytes(char (&buffer)[kSize]) = delete;
  /** An array of something else, all of it. */
  template <typename T, std::size_t kSize,
            typename = std::enable_if_t<std::is_trivially_copyable_v<T> && !std::is_same_v<T, char>>>
  constexpr ConstBytes(const T (&array)[kSize]) noexcept : data_(array), size_(sizeof array) {}
  /** The bytes of a container's elements, which are trivially copyable: a std::string, a std::vector. */
  template <typename Container,
            typename = std::enable_if_t<std::is_trivially_copyable_v<detail::Element<const Container>>>>
  constexpr ConstBytes(const Container& container) noexcept
      : data_(container.data()), size_(container.size() * sizeof(*container.data())) {}
  // NOLINTEND(google-explicit-constructor)
  /** That many bytes from an address on. */
  constexpr ConstBytes(const void* data, std::size_t size) noexcept : data_(data), size_(size) {}

  /** The first byte's address. */
  [[nodiscard]] constexpr const void* data() const noexcept { return data_; }
  /** The number of bytes. */
  [[nodiscard]] constexpr std::size_t size() const noexcept { return size_; }
  /** What is left behind the first bytes. */
  [[nodiscard]] ConstBytes Behind(std::size_t count) const noexcept {
    return {static_cast<const char*>(data_) + count, size_ - count};
  }

 private:
  const void* data_;
  std::size_t size_;
};

/** Bytes to be written: of an array, of a container, of a span. */
class Bytes {
 public:
  // NOLINTBEGIN(google-explicit-constructor): an argument's type
  /** An array, all of it. */
  template <typename T, std::size_t kSize,
            typename = std::enable_if_t<std::is_trivially_copyable_v<T> && !std::is_const_v<T>>>
  constexpr Bytes(T (&array)[kSize]) noexcept : data_(array), size_(sizeof array) {}
  /** The bytes of a container's elements, which are trivially copyable. */
  template <typename Container,
            typename = std::enable_if_t<std::is_trivially_copyable_v<detail::Element<Container>> &&
                                        !std::is_const_v<detail::Element<Container>>>>
  constexpr Bytes(Container&& container) noexcept
      : data_(container.data()), size_(container.size() * sizeof(*container.data())) {}
  // NOLINTEND(google-explicit-constructor)
  /** That many bytes from an address on. */
  constexpr Bytes(void* data, std::size_t size) noexcept : data_(data), size_(size) {}

  /** The first byte's address. */
  [[nodiscard]] constexpr void* data() const noexcept { return data_; }
  /** The number of bytes. */
  [[nodiscard]] constexpr std::size_t size() const noexcept { return size_; }

 private:
  void* data_;
  std::size_t size_;
};

/** The bytes of one trivially copyable object, to be sent or packed. */
template <typename T>
[[nodiscard]] constexpr ConstBytes BytesOf(const T& object) noexcept {
  static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>, "qvopl: an object of plain bytes");
  return {static_cast<const void*>(&object), sizeof object};
}

/** The bytes of one trivially copyable object, to be received into. */
template <typename T>
[[nodiscard]] constexpr Bytes WritableBytesOf(T& object) noexcept {
  static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>, "qvopl: an object of plain bytes");
  return {static_cast<void*>(&object), sizeof object};
}

/** A short text by value, as the C functions fill it into a buffer; it ends in a NUL. */
template <std::size_t kSize>
class FixedText {
 public:
  /** The text. */
  [[nodiscard]] const char* c_str() const noexcept { return text_.data(); }
  /** The same as a view. */
  [[nodiscard]] std::string_view view() const noexcept { return text_.data(); }
  /** The buffer that a C function fills. */
  [[nodiscard]] char* buffer() noexcept { return text_.data(); }
  /** Its size in bytes. */
  [[nodiscard]] static constexpr uint32_t size() noexcept { return static_cast<uint32_t>(kSize); }

 private:
  std::array<char, kSize> text_{};
};

/**
 * The owner of one handle of the C interface: ends it at the end of its own life, and hands it over when it
 * is moved. The types below inherit from it.
 *
 * A destructor cannot tell that a handle could not be ended; Close does. The objects of a process end before
 * the Library does: afterwards a destructor does nothing. The copies that a forked child has end without the
 * parent's, but for bound sockets and file mutexes.
 */
template <typename Record, OPL_Result (*kEnd)(Record**)>
class Handle {
 public:
  /** No handle. */
  constexpr Handle() noexcept = default;
  /** Takes a handle of the C interface over. */
  explicit constexpr Handle(Record* record) noexcept : record_(record) {}
  ~Handle() {
    if (record_ != nullptr) (void)kEnd(&record_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  /** Leaves the other without a handle. */
  Handle(Handle&& other) noexcept : record_(std::exchange(other.record_, nullptr)) {}
  /** Ends the handle that is there, and leaves the other without one. */
  Handle& operator=(Handle&& other) noexcept {
    Handle old(std::exchange(record_, std::exchange(other.record_, nullptr)));
    return *this;
  }

  /** Whether there is a handle. */
  [[nodiscard]] explicit operator bool() const noexcept { return record_ != nullptr; }
  /** The handle for functions of the C interface; it stays this object's. */
  [[nodiscard]] Record* native() const noexcept { return record_; }
  /** Gives the handle away: the caller ends it. */
  [[nodiscard]] Record* Release() noexcept { return std::exchange(record_, nullptr); }

  /** Ends the handle and tells whether that worked. On success nothing is left to the destructor. */
  Result<void> Close(std::nothrow_t) noexcept {
    const OPL_Result code = kEnd(&record_);
    // A read-write lock that could not be closed is told by the handle and the error record alone.
    if (code == OPL_OK && record_ != nullptr) return detail::RecordedCode(OPL_SYNC_E_SEMOP);
    return code;
  }
#if QVOPL_EXCEPTIONS
  /** The same; throws an Error. */
  void Close() { Close(std::nothrow).value(); }
#endif

 private:
  Record* record_ = nullptr;
};

/**
 * How a named object comes to be, for the types below that inherit from it: another process of the instance
 * opens what one has made.
 */
template <typename Type>
class NamedObject {
 public:
  /** Makes one and opens it; equals std::errc::file_exists where there is one of that name. */
  static Result<Type> Create(std::nothrow_t, Text name, Access access = Access::kPrivate) noexcept {
    return Type::MakeOne(name, access);
  }
  /** Opens one; memory equals std::errc::no_such_file_or_directory where there is none, events see there. */
  static Result<Type> Open(std::nothrow_t, Text name, Access access = Access::kPrivate) noexcept {
    return Type::OpenOne(name, access);
  }
  /** Opens one, or makes it; tries again when another process makes or removes it in between. */
  static Result<Type> OpenOrCreate(std::nothrow_t, Text name, Access access = Access::kPrivate) noexcept {
    return detail::OpenOrCreate([&] { return Type::OpenOne(name, access); },
                                [&] { return Type::MakeOne(name, access); }, Type::IsMissing, Type::IsThere);
  }

#if QVOPL_EXCEPTIONS
  /** Makes one and opens it; throws an Error. */
  static Type Create(Text name, Access access = Access::kPrivate) {
    return Create(std::nothrow, name, access).value();
  }
  /** Opens one; throws an Error. */
  static Type Open(Text name, Access access = Access::kPrivate) {
    return Open(std::nothrow, name, access).value();
  }
  /** Opens one, or makes it; throws an Error. */
  static Type OpenOrCreate(Text name, Access access = Access::kPrivate) {
    return OpenOrCreate(std::nothrow, name, access).value();
  }
#endif

 private:
  friend Type;
  NamedObject() noexcept = default;
};

/**
 * The same for objects with a lock, which is waited for. All processes say of their own waits what a signal
 * does to them.
 */
template <typename Type>
class NamedLock {
 public:
  /** Makes one and opens it; equals std::errc::file_exists where there is one of that name. */
  static Result<Type> Create(std::nothrow_t, Text name, Access access = Access::kPrivate,
                             OnSignal onSignal = OnSignal::kGoOn) noexcept {
    return Type::MakeOne(name, access, onSignal);
  }
  /** Opens one; equals std::errc::no_such_file_or_directory where there is none of that name. */
  static Result<Type> Open(std::nothrow_t, Text name, Access access = Access::kPrivate,
                           OnSignal onSignal = OnSignal::kGoOn) noexcept {
    return Type::OpenOne(name, access, onSignal);
  }
  /** Opens one, or makes it; tries again when another process makes or removes it in between. */
  static Result<Type> OpenOrCreate(std::nothrow_t, Text name, Access access = Access::kPrivate,
                                   OnSignal onSignal = OnSignal::kGoOn) noexcept {
    return detail::OpenOrCreate([&] { return Type::OpenOne(name, access, onSignal); },
                                [&] { return Type::MakeOne(name, access, onSignal); }, Type::IsMissing,
                                Type::IsThere);
  }

#if QVOPL_EXCEPTIONS
  /** Makes one and opens it; throws an Error. */
  static Type Create(Text name, Access access = Access::kPrivate, OnSignal onSignal = OnSignal::kGoOn) {
    return Create(std::nothrow, name, access, onSignal).value();
  }
  /** Opens one; throws an Error. */
  static Type Open(Text name, Access access = Access::kPrivate, OnSignal onSignal = OnSignal::kGoOn) {
    return Open(std::nothrow, name, access, onSignal).value();
  }
  /** Opens one, or makes it; throws an Error. */
  static Type OpenOrCreate(Text name, Access access = Access::kPrivate, OnSignal onSignal = OnSignal::kGoOn) {
    return OpenOrCreate(std::nothrow, name, access, onSignal).value();
  }
#endif

 private:
  friend Type;
  NamedLock() noexcept = default;
};

namespace detail {

// What Create and Open of the C interface have in common: a code, and a handle where it is OPL_OK.
template <typename Type, typename Record, typename Function, typename... Arguments>
Result<Type> Make(Function function, Arguments... arguments) noexcept {
  Record* record = nullptr;
  if (const OPL_Result code = function(&record, arguments...); code != OPL_OK)
    return Result<Type>::Failure(code);
  return Type(record);
}

// What a C function that tells one value has in common with the others.
template <typename Value, typename Function, typename... Arguments>
Result<Value> Tell(Function function, Arguments... arguments) noexcept {
  Value value{};
  if (const OPL_Result code = function(arguments..., &value); code != OPL_OK)
    return Result<Value>::Failure(code);
  return value;
}

// The same for a value that says yes or no.
template <typename Function, typename... Arguments>
Result<bool> TellWhether(Function function, Arguments... arguments) noexcept {
  uint32_t value = 0;
  if (const OPL_Result code = function(arguments..., &value); code != OPL_OK)
    return Result<bool>::Failure(code);
  return value != 0;
}

}  // namespace detail

}  // namespace qvopl

#endif
