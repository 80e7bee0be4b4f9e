/*
 * How a call of the C++ interface tells that it failed: error codes of the library's category, the exception
 * Error, and Result, which carries either a value or a failure.
 *
 * Every operation that can fail has two forms:
 *
 *   mutex.lock();                                  throws an Error
 *   if (auto rc = mutex.lock(std::nothrow); !rc)   returns a Result, never throws
 *
 * The second works in programs that are compiled without exceptions; there the first is not declared.
 */
#ifndef QVOPL_RESULT_HPP
#define QVOPL_RESULT_HPP

#include <exception>
#include <new>
#include <optional>
#include <system_error>
#include <type_traits>
#include <utility>

#include "../OPL_Err.h"
#include "../OPL_Types.h"
#include "codes.hpp"

/** 1 where the throwing forms are declared, 0 in a program that is compiled without exceptions. */
#if defined(__cpp_exceptions) || defined(__EXCEPTIONS)
#define QVOPL_EXCEPTIONS 1
#else
#define QVOPL_EXCEPTIONS 0
#endif

#if QVOPL_EXCEPTIONS
#include <stdexcept>
#endif

namespace qvopl {

namespace detail {

// Failures are rare: what tells of one stays out of the way of the calls that succeed.
#define QVOPL_DETAIL_COLD __attribute__((cold, noinline))

// Error numbers of the system end below.
inline constexpr uint32_t kSystemErrorEnd = 4096;

// What the thread's record tells of a call that has just failed with the code.
inline const char* FailureText(OPL_Result code) noexcept {
  const uint32_t recorded = OPL_ErrCodeGet(0);
  const bool hasRecord = recorded != 0 && recorded != OPL_ERR_E_NO_RECORD;
  return EntryOfCode(code).isRecorded && hasRecord ? OPL_ErrMessageGet(0) : EntryOfCode(code).text;
}

inline int FailureSystemError(OPL_Result code) noexcept {
  const uint32_t recorded = OPL_ErrCodeGet(0);
  return EntryOfCode(code).isRecorded && recorded < kSystemErrorEnd ? static_cast<int>(recorded) : 0;
}

// Fails with a code that the C functions have not been asked for: the record tells of it as of theirs.
QVOPL_DETAIL_COLD inline OPL_Result Refuse(OPL_Result code, const char* function) noexcept {
  (void)OPL_ErrSet(0, code, "%s: %s", function, EntryOfCode(code).text);
  return code;
}

// The code of a call that has returned OPL_OK and left why it did nothing in the record.
QVOPL_DETAIL_COLD inline OPL_Result RecordedCode(OPL_Result otherwise) noexcept {
  const uint32_t recorded = OPL_ErrCodeGet(0);
  return recorded < kSystemErrorEnd || recorded == OPL_ERR_E_NO_RECORD ? otherwise : recorded;
}

class OPL_API Category final : public std::error_category {
 public:
  constexpr Category() noexcept = default;

  const char* name() const noexcept override { return "qvopl"; }

  std::string message(int value) const override {
    const OPL_Result code = static_cast<OPL_Result>(value);
    return code != OPL_OK && OPL_ErrCodeGet(0) == code ? OPL_ErrMessageGet(0) : EntryOfCode(code).text;
  }

  std::error_condition default_error_condition(int value) const noexcept override {
    const std::errc condition = EntryOfCode(static_cast<OPL_Result>(value)).condition;
    if (condition == std::errc{}) return {value, *this};
    return condition;
  }
};

// Never ended: error codes are compared until the last static object is gone.
union OPL_API CategoryForGood {
  constexpr CategoryForGood() noexcept : category() {}
  ~CategoryForGood() {}  // NOLINT(modernize-use-equals-default): leaves the member alone
  Category category;
};

inline OPL_API CategoryForGood gCategory;

}  // namespace detail

/**
 * The category of the library's error codes, called "qvopl".
 *
 * The message of a code is that of the calling thread's error record when the record is of this very code,
 * else what the code means in general. A condition of std::errc compares equal where the code has one:
 * std::errc::file_exists for every "exists already", std::errc::timed_out, std::errc::interrupted and so on.
 */
[[nodiscard]] inline const std::error_category& ErrorCategory() noexcept {
  return detail::gCategory.category;
}

/** A result code of the library as an error code; OPL_OK is no error. */
[[nodiscard]] inline std::error_code MakeErrorCode(OPL_Result code) noexcept {
  return {static_cast<int>(code), ErrorCategory()};
}

#if QVOPL_EXCEPTIONS
/**
 * What the throwing forms throw. what() is the message that the failed call has left in the error record of
 * the thread; for the few calls that leave none, what their code means.
 */
class OPL_API Error : public std::system_error {
 public:
  /** Of a call that has just failed in this thread. */
  explicit Error(OPL_Result code)
      : std::system_error(MakeErrorCode(code)),
        text_(detail::FailureText(code)),
        systemError_(detail::FailureSystemError(code)) {}

  /** The recorded message. */
  [[nodiscard]] const char* what() const noexcept override { return text_.what(); }
  /** The result code, as the C function returned it. */
  [[nodiscard]] OPL_Result result() const noexcept { return static_cast<OPL_Result>(code().value()); }
  /** The error number of the system call that failed behind the library; 0 where none did. */
  [[nodiscard]] int systemError() const noexcept { return systemError_; }

 private:
  // A text that is copied without a throw.
  std::runtime_error text_;
  int systemError_;
};
#endif

/**
 * Either a value or the code of a failure. To be looked at: the compiler warns of one that is dropped.
 */
template <typename T>
class [[nodiscard]] Result {
 public:
  /** A value. */
  // NOLINTNEXTLINE(google-explicit-constructor): "return value;" is what it is for
  Result(T value) noexcept(std::is_nothrow_move_constructible_v<T>) : value_(std::move(value)) {}

  /** A failure of the library; not OPL_OK. */
  [[nodiscard]] static Result Failure(OPL_Result code) noexcept { return Result(code, std::nullopt); }

  /** Whether there is a value. */
  [[nodiscard]] bool ok() const noexcept { return value_.has_value(); }
  /** The same. */
  [[nodiscard]] explicit operator bool() const noexcept { return ok(); }

  /** The result code of the C function; OPL_OK with a value. */
  [[nodiscard]] OPL_Result code() const noexcept { return code_; }
  /** The same as an error code. */
  [[nodiscard]] std::error_code error() const noexcept {
    return ok() ? std::error_code() : MakeErrorCode(code_);
  }
  /** What has failed, in words; lent by the thread's error record, to be read before its next failure. */
  [[nodiscard]] const char* message() const noexcept { return ok() ? "" : detail::FailureText(code_); }
  /** The number of the system call's error, or 0; to be read before the thread's next failure. */
  [[nodiscard]] int systemError() const noexcept { return ok() ? 0 : detail::FailureSystemError(code_); }

  /** The value. Ends the program (std::terminate) where there is none. */
  [[nodiscard]] T& operator*() & noexcept { return Get(); }
  /** The same. */
  [[nodiscard]] const T& operator*() const& noexcept { return const_cast<Result*>(this)->Get(); }
  /** The value to be moved from. */
  [[nodiscard]] T&& operator*() && noexcept { return std::move(Get()); }
  /** The value's members. */
  [[nodiscard]] T* operator->() noexcept { return &Get(); }
  /** The same. */
  [[nodiscard]] const T* operator->() const noexcept { return &**this; }

#if QVOPL_EXCEPTIONS
  /** The value, or an Error is thrown. */
  [[nodiscard]] T& value() & {
    if (!ok()) Throw(code_);
    return *value_;
  }
  /** The same. */
  [[nodiscard]] const T& value() const& {
    if (!ok()) Throw(code_);
    return *value_;
  }
  /** The value to be moved from, or an Error is thrown. */
  [[nodiscard]] T&& value() && {
    if (!ok()) Throw(code_);
    return std::move(*value_);
  }
#endif

 private:
  Result(OPL_Result code, std::nullopt_t none) noexcept : value_(none), code_(code) {}

  T& Get() noexcept {
    if (!ok()) std::terminate();
    return *value_;
  }
#if QVOPL_EXCEPTIONS
  [[noreturn]] QVOPL_DETAIL_COLD static void Throw(OPL_Result code) { throw Error(code); }
#endif

  std::optional<T> value_;
  OPL_Result code_ = OPL_OK;
};

/** Success without a value, or the code of a failure: as small as an OPL_Result. */
template <>
class [[nodiscard]] Result<void> {
 public:
  /** The result of a C function. */
  // NOLINTNEXTLINE(google-explicit-constructor): "return OPL_...(...);" is what it is for
  constexpr Result(OPL_Result code) noexcept : code_(code) {}

  /** Whether it is a success. */
  [[nodiscard]] constexpr bool ok() const noexcept { return code_ == OPL_OK; }
  /** The same. */
  [[nodiscard]] constexpr explicit operator bool() const noexcept { return ok(); }

  /** The result code of the C function. */
  [[nodiscard]] constexpr OPL_Result code() const noexcept { return code_; }
  /** The same as an error code. */
  [[nodiscard]] std::error_code error() const noexcept {
    return ok() ? std::error_code() : MakeErrorCode(code_);
  }
  /** What has failed, in words; lent by the thread's error record, to be read before its next failure. */
  [[nodiscard]] const char* message() const noexcept { return ok() ? "" : detail::FailureText(code_); }
  /** The number of the system call's error, or 0; to be read before the thread's next failure. */
  [[nodiscard]] int systemError() const noexcept { return ok() ? 0 : detail::FailureSystemError(code_); }

#if QVOPL_EXCEPTIONS
  /** Throws an Error unless it is a success. */
  void value() const {
    if (!ok()) Throw(code_);
  }
#endif

 private:
#if QVOPL_EXCEPTIONS
  [[noreturn]] QVOPL_DETAIL_COLD static void Throw(OPL_Result code) { throw Error(code); }
#endif

  OPL_Result code_;
};

}  // namespace qvopl

#endif
