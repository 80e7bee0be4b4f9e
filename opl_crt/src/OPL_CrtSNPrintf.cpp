// The formatter. One pass over the format: runs of text are copied as blocks, and each conversion is read
// into a Directive and emitted with its padding. The bare conversions, of which most messages consist, go
// without one.
//
// Output goes through Sink, which stores what fits and counts everything. The pieces of a message are a few
// characters each, so they are scanned and copied in place: a call into libc would cost more than its work.
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "OPL_Crt.h"
#include "opl_mem/src/Owned.h"

namespace {

// A structure, because a va_list may be an array type, which cannot be handed on by reference portably.
struct Arguments {
  va_list list;
};

// The longest run that is looked at and copied in place.
constexpr size_t kShort = 16;

// Copies as many bytes as Word has or up to twice as many, by two words that may overlap.
template <typename Word>
inline void CopyTwoWords(char* to, const char* from, size_t length) {
  Word first;
  Word last;
  std::memcpy(&first, from, sizeof first);
  std::memcpy(&last, from + length - sizeof last, sizeof last);
  std::memcpy(to, &first, sizeof first);
  std::memcpy(to + length - sizeof last, &last, sizeof last);
}

inline void Copy(char* to, const char* from, size_t length) {
  if (length > kShort)
    std::memcpy(to, from, length);
  else if (length >= 8)
    CopyTwoWords<uint64_t>(to, from, length);
  else if (length >= 4)
    CopyTwoWords<uint32_t>(to, from, length);
  else if (length >= 2)
    CopyTwoWords<uint16_t>(to, from, length);
  else if (length != 0)
    *to = *from;
}

constexpr char kBlanks[kShort + 1] = "                ";
constexpr char kZeros[kShort + 1] = "0000000000000000";

// Blanks or zeros.
inline char* WritePadding(char* to, char character, size_t length) {
  if (length > kShort)
    std::memset(to, character, length);
  else if (length != 0)
    Copy(to, character == ' ' ? kBlanks : kZeros, length);
  return to + length;
}

class Sink {
 public:
  Sink(char* buffer, uint32_t size) : buffer_(buffer), size_(buffer != nullptr ? size : 0) {}

  // The place for a piece that the caller then writes, or null when there is no room for all of it.
  char* Reserve(uint64_t length) {
    if (length > size_ - stored_) [[unlikely]]
      return nullptr;
    char* const place = buffer_ + stored_;
    stored_ += static_cast<size_t>(length);
    return place;
  }

  void Append(const char* text, size_t length) {
    if (char* const place = Reserve(length))
      Copy(place, text, length);
    else
      AppendCut(text, length);
  }

  void Append(char character) { Append(&character, 1); }

  void Pad(char character, uint64_t length) {
    if (char* const place = Reserve(length))
      WritePadding(place, character, static_cast<size_t>(length));
    else
      PadCut(character, length);
  }

  // The same two for a piece that may not fit, and out of line: a buffer overflows once, if ever.
  void AppendCut(const char* text, size_t length);
  void PadCut(char character, uint64_t length);

  // Terminates the text; one that does not fit loses its last stored character to the terminator.
  int32_t Finish() {
    if (size_ != 0) buffer_[std::min(stored_, size_ - 1)] = '\0';
    return static_cast<int32_t>(std::min<uint64_t>(stored_ + lost_, INT32_MAX));
  }

 private:
  // Takes the place for as much of a piece as there is room for.
  char* ReserveCut(uint64_t length, size_t* stored);

  char* const buffer_;
  const size_t size_;
  size_t stored_ = 0;
  uint64_t lost_ = 0;  // characters for which there was no room
};

char* Sink::ReserveCut(uint64_t length, size_t* stored) {
  char* const place = buffer_ + stored_;
  *stored = static_cast<size_t>(std::min<uint64_t>(length, size_ - stored_));
  stored_ += *stored;
  lost_ += length - *stored;
  return place;
}

[[gnu::noinline]] void Sink::AppendCut(const char* text, size_t length) {
  size_t stored = 0;
  char* const place = ReserveCut(length, &stored);
  if (stored != 0) std::memcpy(place, text, stored);
}

[[gnu::noinline]] void Sink::PadCut(char character, uint64_t length) {
  size_t stored = 0;
  char* const place = ReserveCut(length, &stored);
  if (stored != 0) std::memset(place, character, stored);
}

// What stands between '%' and the conversion character.
struct Directive {
  bool justifyLeft = false;
  bool zeroPad = false;
  bool forceSign = false;
  bool signIsPlus = false;  // what forceSign puts in front, else a blank
  bool alternate = false;
  bool hasPrecision = false;
  bool isShort = false;
  uint32_t width = 0;
  uint32_t precision = 0;
};

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";
constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr uint32_t kPowersOfTen[] = {0,      10,      100,      1000,      10000,
                                     100000, 1000000, 10000000, 100000000, 1000000000};

enum class Notation : uint32_t { kDecimal, kOctal, kLowerHexadecimal, kUpperHexadecimal, kNullPointer };

// A number with the count of its digits, which is known before they are written: so they are written where
// they stay.
struct Number {
  uintptr_t value;
  uint32_t length;
  Notation notation;
};
constexpr size_t kMostDigits = 16;  // a pointer's hexadecimal ones; 32 bits take 11 octal digits
constexpr char kNullPointer[] = "(nil)";

inline Number Decimal(uint32_t value) {
  // 1233 / 4096 is the decimal logarithm of 2: this is the number of digits, or one less.
  const auto length = static_cast<uint32_t>(std::bit_width(value | 1)) * 1233 >> 12;
  return {value, value >= kPowersOfTen[length] ? length + 1 : length, Notation::kDecimal};
}

inline Number Octal(uint32_t value) {
  return {value, (static_cast<uint32_t>(std::bit_width(value | 1)) + 2) / 3, Notation::kOctal};
}

inline Number Hexadecimal(uintptr_t value, Notation notation) {
  return {value, (static_cast<uint32_t>(std::bit_width(value | 1)) + 3) / 4, notation};
}

// The writers of digits start from the place behind the last one.
inline void WriteDecimal(char* end, uint32_t value) {
  for (; value >= 100; value /= 100) {
    end -= 2;
    std::memcpy(end, kDigitPairs + size_t{2} * (value % 100), 2);
  }
  if (value >= 10)
    std::memcpy(end - 2, kDigitPairs + size_t{2} * value, 2);
  else
    end[-1] = kLowerDigits[value];
}

template <unsigned kBitsPerDigit>
inline void WritePowerOfTwo(char* end, uintptr_t value, const char* digits) {
  do {
    *--end = digits[value & ((1u << kBitsPerDigit) - 1)];
    value >>= kBitsPerDigit;
  } while (value != 0);
}

inline void WriteDigits(char* end, const Number& number) {
  if (number.notation == Notation::kDecimal) [[likely]]
    return WriteDecimal(end, static_cast<uint32_t>(number.value));
  if (number.notation == Notation::kOctal) return WritePowerOfTwo<3>(end, number.value, kLowerDigits);
  if (number.notation == Notation::kNullPointer) {
    std::memcpy(end - number.length, kNullPointer, number.length);
    return;
  }
  const bool isLower = number.notation == Notation::kLowerHexadecimal;
  WritePowerOfTwo<4>(end, number.value, isLower ? kLowerDigits : kUpperDigits);
}

inline void AppendNumber(Sink* sink, Number number) {
  if (char* const place = sink->Reserve(number.length)) return WriteDigits(place + number.length, number);
  char digits[kMostDigits];
  WriteDigits(digits + number.length, number);
  sink->AppendCut(digits, number.length);
}

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

uint32_t Magnitude(int32_t value) {
  return value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
}

// A run of decimal digits; one beyond INT32_MAX is taken as INT32_MAX.
const char* ParseNumber(const char* at, uint32_t* value) {
  uint64_t number = 0;
  for (; IsDigit(*at); ++at)
    number = std::min<uint64_t>(number * 10 + static_cast<uint64_t>(*at - '0'), INT32_MAX);
  *value = static_cast<uint32_t>(number);
  return at;
}

const char* ParseFlags(const char* at, Directive* directive) {
  for (;; ++at) {
    switch (*at) {
      case '0':
        directive->zeroPad = true;
        break;
      case '-':
        directive->justifyLeft = true;
        break;
      case '+':
        directive->forceSign = true;
        directive->signIsPlus = true;
        break;
      case ' ':
        directive->forceSign = true;
        break;
      case '#':
        directive->alternate = true;
        break;
      case '\'':
        break;
      default:
        return at;
    }
  }
}

const char* ParseWidth(const char* at, Directive* directive, Arguments* arguments) {
  if (*at != '*') return ParseNumber(at, &directive->width);
  const int32_t width = va_arg(arguments->list, int32_t);
  directive->width = Magnitude(width);
  if (width < 0) directive->justifyLeft = true;
  return at + 1;
}

const char* ParsePrecision(const char* at, Directive* directive, Arguments* arguments) {
  if (*at != '.') return at;
  ++at;
  directive->hasPrecision = true;
  if (*at != '*') return ParseNumber(at, &directive->precision);
  const int32_t precision = va_arg(arguments->list, int32_t);
  if (precision < 0)
    directive->hasPrecision = false;
  else
    directive->precision = static_cast<uint32_t>(precision);
  return at + 1;
}

const char* ParseModifier(const char* at, Directive* directive) {
  if (*at == 'h') {
    // D, O and U are long by their names.
    directive->isShort = at[1] != 'D' && at[1] != 'O' && at[1] != 'U';
    return at + 1;
  }
  if (*at != 'l') return at;
  return at[1] == 'l' ? at + 2 : at + 1;
}

// Reads what stands behind a '%'; returns the place of the conversion character, which may be missing.
const char* ParseDirective(const char* at, Directive* directive, Arguments* arguments) {
  at = ParseFlags(at, directive);
  at = ParseWidth(at, directive, arguments);
  at = ParsePrecision(at, directive, arguments);
  return ParseModifier(at, directive);
}

uint64_t Excess(uint64_t wanted, uint64_t present) { return wanted > present ? wanted - present : 0; }

void EmitPadded(Sink* sink, const Directive& directive, const char* text, size_t length) {
  const uint64_t padding = Excess(directive.width, length);
  if (!directive.justifyLeft) sink->Pad(' ', padding);
  sink->Append(text, length);
  if (directive.justifyLeft) sink->Pad(' ', padding);
}

void EmitText(Sink* sink, const Directive& directive, const char* text) {
  if (text == nullptr) text = "";
  EmitPadded(sink, directive, text,
             directive.hasPrecision ? ::strnlen(text, directive.precision) : std::strlen(text));
}

void EmitCharacter(Sink* sink, const Directive& directive, char character) {
  EmitPadded(sink, directive, &character, 1);
}

// What one number prints, but for padding and zeros.
struct Numeral {
  std::string_view prefix;
  Number number;
};

// A precision of 0 prints nothing of an argument of 0, not even its sign.
inline bool IsOmitted(const Directive& directive, bool isZero) {
  return isZero && directive.hasPrecision && directive.precision == 0;
}

inline Number DigitsOf(const Directive& directive, bool isZero, Number number) {
  if (IsOmitted(directive, isZero)) number.length = 0;
  return number;
}

inline Numeral Signed(const Directive& directive, int32_t value) {
  const int32_t printed = directive.isShort ? static_cast<int16_t>(value) : value;
  // The forced sign goes by the whole argument, also where only its low 16 bits are printed: what is printed
  // may then bring a '-' of its own behind the '+'.
  std::string_view prefix = "-";
  if (directive.forceSign && value >= 0) prefix = directive.signIsPlus ? "+-" : " -";
  if (printed >= 0) prefix.remove_suffix(1);
  if (IsOmitted(directive, value == 0)) prefix = "";
  return {prefix, DigitsOf(directive, value == 0, Decimal(Magnitude(printed)))};
}

inline Numeral Unsigned(const Directive& directive, uint32_t value, Notation notation) {
  const uint32_t printed = directive.isShort ? static_cast<uint16_t>(value) : value;
  if (notation == Notation::kDecimal) return {"", DigitsOf(directive, value == 0, Decimal(printed))};
  if (notation == Notation::kOctal) return {"", DigitsOf(directive, value == 0, Octal(printed))};
  std::string_view prefix;
  if (directive.alternate && value != 0) prefix = notation == Notation::kLowerHexadecimal ? "0x" : "0X";
  return {prefix, DigitsOf(directive, value == 0, Hexadecimal(printed, notation))};
}

inline Numeral Pointer(const Directive& directive, const void* pointer) {
  constexpr Number kNull = {0, sizeof kNullPointer - 1, Notation::kNullPointer};
  if (pointer == nullptr) return {"", DigitsOf(directive, true, kNull)};
  return {"0x", Hexadecimal(reinterpret_cast<uintptr_t>(pointer), Notation::kLowerHexadecimal)};
}

// Every integer conversion takes one variadic slot and looks at its low 32 bits, so that 32-bit types and
// long do in both widths.
inline Numeral TakeNumeral(char conversion, const Directive& directive, Arguments* arguments) {
  switch (conversion) {
    case 'u':
    case 'U':
      return Unsigned(directive, va_arg(arguments->list, uint32_t), Notation::kDecimal);
    case 'o':
    case 'O':
      return Unsigned(directive, va_arg(arguments->list, uint32_t), Notation::kOctal);
    case 'x':
      return Unsigned(directive, va_arg(arguments->list, uint32_t), Notation::kLowerHexadecimal);
    case 'X':
      return Unsigned(directive, va_arg(arguments->list, uint32_t), Notation::kUpperHexadecimal);
    case 'p':
      return Pointer(directive, va_arg(arguments->list, const void*));
    default:
      return Signed(directive, va_arg(arguments->list, int32_t));
  }
}

// The zeros between prefix and digits that precision, zero padding and alternate octal form ask for.
inline uint64_t ZerosInFront(const Directive& directive, const Numeral& numeral) {
  const Number& number = numeral.number;
  uint64_t zeros = 0;
  if (directive.hasPrecision)
    zeros = Excess(directive.precision, number.length);
  else if (directive.zeroPad && !directive.justifyLeft)
    zeros = Excess(directive.width, numeral.prefix.size() + number.length);
  if (directive.alternate && number.notation == Notation::kOctal && zeros == 0) {
    const bool startsWithZero = number.value == 0 && number.length != 0;
    if (!startsWithZero) zeros = 1;
  }
  return zeros;
}

// How often padding and zeros are repeated around a numeral.
struct Repeats {
  uint64_t left;
  uint64_t zeros;
  uint64_t right;
};

[[gnu::noinline]] void EmitNumeralCut(Sink* sink, Numeral numeral, Repeats repeats) {
  char digits[kMostDigits];
  const Number& number = numeral.number;
  if (number.length != 0) WriteDigits(digits + number.length, number);
  sink->PadCut(' ', repeats.left);
  sink->AppendCut(numeral.prefix.data(), numeral.prefix.size());
  sink->PadCut('0', repeats.zeros);
  sink->AppendCut(digits, number.length);
  sink->PadCut(' ', repeats.right);
}

// All of a numeral gets its place at once, if there is room for it.
inline void EmitNumeral(Sink* sink, const Directive& directive, const Numeral& numeral) {
  const Number& number = numeral.number;
  const uint64_t zeros = ZerosInFront(directive, numeral);
  const uint64_t length = numeral.prefix.size() + zeros + number.length;
  const uint64_t padding = Excess(directive.width, length);
  const uint64_t left = directive.justifyLeft ? 0 : padding;
  const uint64_t right = padding - left;
  char* at = sink->Reserve(length + padding);
  if (at == nullptr) [[unlikely]]
    return EmitNumeralCut(sink, numeral, {left, zeros, right});
  at = WritePadding(at, ' ', static_cast<size_t>(left));
  for (const char character : numeral.prefix) *at++ = character;
  at = WritePadding(at, '0', static_cast<size_t>(zeros)) + number.length;
  if (number.length != 0) WriteDigits(at, number);
  WritePadding(at, ' ', static_cast<size_t>(right));
}

// Emits one conversion and returns the place behind it.
const char* EmitConversion(Sink* sink, const char* at, Arguments* arguments) {
  Directive directive;
  at = ParseDirective(at, &directive, arguments);
  switch (*at) {
    case 'd':
    case 'i':
    case 'D':
    case 'u':
    case 'U':
    case 'o':
    case 'O':
    case 'x':
    case 'X':
    case 'p':
      EmitNumeral(sink, directive, TakeNumeral(*at, directive, arguments));
      break;
    case 's':
      EmitText(sink, directive, va_arg(arguments->list, const char*));
      break;
    case 'c':
      EmitCharacter(sink, directive, static_cast<char>(va_arg(arguments->list, int32_t)));
      break;
    case '%':
      EmitCharacter(sink, directive, '%');
      break;
    case '\0':
      return at;
    default:
      sink->Append(*at);
  }
  return at + 1;
}

// Emits a conversion without flags, width, precision and h; returns the place behind it, or null for others.
inline const char* EmitBare(Sink* sink, const char* at, Arguments* arguments) {
  if (*at <= '9') return nullptr;  // every flag, width and precision begins so
  if (*at == 'l') at += at[1] == 'l' ? 2 : 1;
  switch (*at) {
    case 's':
      if (const char* const text = va_arg(arguments->list, const char*))
        sink->Append(text, std::strlen(text));
      return at + 1;
    case 'd':
    case 'i': {
      const int32_t value = va_arg(arguments->list, int32_t);
      if (value < 0) sink->Append('-');
      AppendNumber(sink, Decimal(Magnitude(value)));
      return at + 1;
    }
    case 'u':
      AppendNumber(sink, Decimal(va_arg(arguments->list, uint32_t)));
      return at + 1;
    default:
      return nullptr;
  }
}

// The '%' or the terminator that ends a run of text.
inline const char* EndOfRun(const char* at) {
  for (size_t i = 0; i < kShort; ++i, ++at)
    if (*at == '%' || *at == '\0') return at;
  return ::strchrnul(at, '%');
}

int32_t Format(char* buffer, uint32_t size, const char* format, Arguments* arguments) {
  Sink sink(buffer, size);
  const char* at = format != nullptr ? format : "";
  for (;;) {
    const char* const end = EndOfRun(at);
    if (end != at) sink.Append(at, static_cast<size_t>(end - at));
    if (*end == '\0') return sink.Finish();
    at = EmitBare(&sink, end + 1, arguments);
    if (at == nullptr) at = EmitConversion(&sink, end + 1, arguments);
  }
}

int32_t FormatCopy(char* buffer, uint32_t size, const char* format, va_list list) {
  Arguments arguments;
  va_copy(arguments.list, list);
  const int32_t length = Format(buffer, size, format, &arguments);
  va_end(arguments.list);
  return length;
}

// There is nowhere to store the text.
int32_t NoPlace() {
  errno = EINVAL;
  return -1;
}

// INT32_MAX stands for every length from there on: such a text cannot be made.
constexpr int32_t kTooLong = INT32_MAX;

// The allocator's callbacks see the function that calls this one.
int32_t FormatAllocated(char** pText, uint32_t size, int32_t length, const char* format, va_list list,
                        const opl::Place& place = opl::Place::Here()) {
  char* const text = static_cast<char*>(
      OPL_MemMalloc(nullptr, size, 0, place.caller, place.file, opl::kNoRevision, place.line));
  if (text == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  (void)FormatCopy(text, size, format, list);
  *pText = text;
  return length;
}

}  // namespace

int32_t OPL_CrtVSNPrintf(char* buffer, uint32_t size, const char* format, va_list arguments) {
  return FormatCopy(buffer, size, format, arguments);
}

int32_t OPL_CrtSNPrintf(char* buffer, uint32_t size, const char* format, ...) {
  Arguments arguments;
  va_start(arguments.list, format);
  const int32_t length = Format(buffer, size, format, &arguments);
  va_end(arguments.list);
  return length;
}

int32_t OPL_CrtVASPrintf(char** pText, const char* format, va_list arguments) {
  if (pText == nullptr) return NoPlace();
  *pText = nullptr;
  const int32_t length = FormatCopy(nullptr, 0, format, arguments);
  if (length == kTooLong) {
    errno = ENOMEM;
    return -1;
  }
  return FormatAllocated(pText, static_cast<uint32_t>(length) + 1, length, format, arguments);
}

int32_t OPL_CrtASPrintf(char** pText, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = OPL_CrtVASPrintf(pText, format, arguments);
  va_end(arguments);
  return length;
}

int32_t OPL_CrtVASNPrintf(char** pText, uint32_t limit, const char* format, va_list arguments) {
  if (pText == nullptr) return NoPlace();
  *pText = nullptr;
  const int32_t length = FormatCopy(nullptr, 0, format, arguments);
  if (limit == 0) return length;
  const uint32_t size = std::min(static_cast<uint32_t>(length) + 1, limit);
  return FormatAllocated(pText, size, length, format, arguments);
}

int32_t OPL_CrtASNPrintf(char** pText, uint32_t limit, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = OPL_CrtVASNPrintf(pText, limit, format, arguments);
  va_end(arguments);
  return length;
}
