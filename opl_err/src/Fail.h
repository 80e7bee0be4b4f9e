// How the library records a failure and returns its code, in one line:
//
//   return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pCritSec is NULL");
//   if (const Code rc = Check(::pipe(fds), OPL_X_E_PIPE, "%s: pipe error :%i,%s")) return rc;
//
// A text that opens with %s gets the name of the function that holds the call. The compiler compares the rest
// of the text with the arguments. Never call these from a lambda: its name is "operator()".
#ifndef OPL_ERR_FAIL_H
#define OPL_ERR_FAIL_H

#include <cerrno>
#include <cstdint>
#include <type_traits>

#include "OPL_Err.h"

namespace opl {

using Code = OPL_Result;

// A failed system call's number, taken where it stands; make it before anything else can change errno.
class NativeError {
 public:
  NativeError() : number_(errno) {}
  explicit NativeError(int number) : number_(number) {}

  int32_t number() const { return number_; }
  const char* text() const { return OPL_ErrNativeMessageGet(0, number_); }

 private:
  int32_t number_;
};

// A name other than the calling function's for the %s that opens a message.
struct Caller {
  const char* name;
};

namespace message {

// Called while a text is checked by the compiler, this ends compilation: it is not a constant expression.
inline void TextAndArgumentsDoNotMatch() {}

template <typename Argument>
consteval char ConversionClass() {
  if constexpr (std::is_convertible_v<Argument, const char*>) return 's';
  if constexpr (std::is_integral_v<Argument> || std::is_enum_v<Argument>) return 'i';
  return '?';
}

// The classes of the conversions of a text, in their order, without flags, widths and precisions, which no
// message of the library has.
constexpr char NextConversion(const char*& text) {
  for (; *text != '\0'; ++text) {
    if (*text != '%') continue;
    do ++text;
    while (*text == 'l');
    const char conversion = *text;
    ++text;
    switch (conversion) {
      case 's':
        return 's';
      case 'd':
      case 'i':
      case 'u':
      case 'x':
        return 'i';
      default:
        return '?';
    }
  }
  return '\0';
}

}  // namespace message

// A message text, checked against its arguments' types, with the name of the function that wrote it.
template <typename... Arguments>
struct Message {
  const char* text;
  const char* caller;
  bool namesCaller;

  // A literal becomes a message where it is handed over, so this one is not explicit.
  template <size_t kSize>
  // NOLINTNEXTLINE(google-explicit-constructor)
  consteval Message(const char (&literal)[kSize], const char* function = __builtin_FUNCTION())
      : text(literal), caller(function), namesCaller(literal[0] == '%' && literal[1] == 's') {
    const char* rest = namesCaller ? literal + 2 : literal;
    const char expected[] = {message::ConversionClass<Arguments>()..., '\0'};
    for (const char wanted : expected)
      if (message::NextConversion(rest) != wanted) message::TextAndArgumentsDoNotMatch();
  }
};

template <typename... Arguments>
using MessageFor = Message<std::type_identity_t<Arguments>...>;

template <typename... Arguments>
void Record(uint32_t recordedCode, const char* caller, const Message<Arguments...>& message,
            std::type_identity_t<Arguments>... arguments) {
  if (message.namesCaller)
    (void)OPL_ErrSet(0, recordedCode, message.text, caller, arguments...);
  else
    (void)OPL_ErrSet(0, recordedCode, message.text, arguments...);
}

// For what the library finds itself.
template <typename... Arguments>
Code Fail(Code code, MessageFor<Arguments...> message, Arguments... arguments) {
  Record(code, message.caller, message, arguments...);
  return code;
}

// For a failed system call: its number is recorded, the code returned.
template <typename... Arguments>
Code Fail(const NativeError& error, Code code, MessageFor<Arguments...> message, Arguments... arguments) {
  Record(static_cast<uint32_t>(error.number()), message.caller, message, arguments...);
  return code;
}

// The same two with another name in front.
template <typename... Arguments>
Code Fail(Caller caller, Code code, MessageFor<Arguments...> message, Arguments... arguments) {
  Record(code, caller.name, message, arguments...);
  return code;
}

template <typename... Arguments>
Code Fail(Caller caller, const NativeError& error, Code code, MessageFor<Arguments...> message,
          Arguments... arguments) {
  Record(static_cast<uint32_t>(error.number()), caller.name, message, arguments...);
  return code;
}

// For a system call that returns -1: the message's first arguments are its number and text.
template <typename... Rest>
Code Check(int result, Code code, MessageFor<int32_t, const char*, Rest...> message, Rest... rest) {
  if (result != -1) return OPL_OK;
  const NativeError error;
  Record(static_cast<uint32_t>(error.number()), message.caller, message, error.number(), error.text(),
         rest...);
  return code;
}

// The code that stands for another module's code.
constexpr Code Translate(Code rc, Code from, Code to) { return rc == from ? to : rc; }

}  // namespace opl

#endif
