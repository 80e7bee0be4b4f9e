// The formatter. One pass over the format: runs of text are copied as blocks, and each conversion is read
// into a Specification, turned into an Item (what to print, in pieces) and emitted with its padding.
//
// Output goes through Sink, which stores what fits and counts everything.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "OPL_Crt.h"
#include "opl_mem/src/Owned.h"

namespace {

// A structure, because a va_list may be an array type, which cannot be handed on by reference portably.
struct Arguments {
  va_list list;
};

class Sink {
 public:
  Sink(char* buffer, uint32_t size)
      : size_(buffer != nullptr ? size : 0), next_(buffer), end_(buffer + size_) {}

  void Append(const char* text, size_t length) {
    count_ += length;
    const size_t stored = std::min(length, Room());
    if (stored == 0) return;
    std::memcpy(next_, text, stored);
    next_ += stored;
  }

  void Append(char character) {
    if (next_ != end_) *next_++ = character;
    ++count_;
  }

  void Fill(char character, uint64_t length) {
    count_ += length;
    const auto stored = static_cast<size_t>(std::min<uint64_t>(length, Room()));
    if (stored == 0) return;
    std::memset(next_, character, stored);
    next_ += stored;
  }

  // Terminates the text; one that does not fit loses its last stored character to the terminator.
  int32_t Finish() {
    if (size_ != 0) *(next_ != end_ ? next_ : end_ - 1) = '\0';
    return static_cast<int32_t>(std::min<uint64_t>(count_, INT32_MAX));
  }

 private:
  size_t Room() const { return static_cast<size_t>(end_ - next_); }

  const uint32_t size_;
  char* next_;
  char* const end_;
  uint64_t count_ = 0;
};

// What stands between '%' and the end of one conversion.
struct Specification {
  bool justifyLeft = false;
  bool zeroPad = false;
  bool forceSign = false;
  bool blankForPlus = true;  // which sign forceSign puts in front
  bool alternate = false;
  bool hasPrecision = false;
  bool isShort = false;
  char conversion = '\0';
  uint32_t width = 0;
  uint32_t precision = 0;
};

// What one conversion prints: prefix, zeros, text; padding goes around the three.
struct Item {
  char prefix[2];
  uint32_t prefixLength = 0;
  uint64_t zeros = 0;
  const char* text = "";
  size_t length = 0;
};

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";
constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr char kUpperDigits[] = "0123456789ABCDEF";

// The digits of one number, written from the end: 64 bits take 22 octal digits at most.
class Digits {
 public:
  void Decimal(uint32_t value) {
    while (value >= 100) {
      const uint32_t pair = value % 100;
      value /= 100;
      Prepend(kDigitPairs[2 * pair + 1]);
      Prepend(kDigitPairs[2 * pair]);
    }
    if (value >= 10) {
      Prepend(kDigitPairs[2 * value + 1]);
      Prepend(kDigitPairs[2 * value]);
    } else {
      Prepend(kLowerDigits[value]);
    }
  }

  void PowerOfTwo(uint64_t value, unsigned bitsPerDigit, const char* digits) {
    const uint64_t mask = (1u << bitsPerDigit) - 1;
    do {
      Prepend(digits[value & mask]);
      value >>= bitsPerDigit;
    } while (value != 0);
  }

  const char* Text() const { return start_; }
  size_t Length() const { return static_cast<size_t>(buffer_ + sizeof buffer_ - start_); }

 private:
  void Prepend(char digit) { *--start_ = digit; }

  char buffer_[24];
  char* start_ = buffer_ + sizeof buffer_;
};

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

const char* ParseFlags(const char* at, Specification* spec) {
  for (;; ++at) {
    switch (*at) {
      case '0':
        spec->zeroPad = true;
        break;
      case '-':
        spec->justifyLeft = true;
        break;
      case '+':
        spec->forceSign = true;
        spec->blankForPlus = false;
        break;
      case ' ':
        spec->forceSign = true;
        break;
      case '#':
        spec->alternate = true;
        break;
      case '\'':
        break;
      default:
        return at;
    }
  }
}

const char* ParseWidth(const char* at, Specification* spec, Arguments* arguments) {
  if (*at != '*') return ParseNumber(at, &spec->width);
  const int32_t width = va_arg(arguments->list, int32_t);
  spec->width = Magnitude(width);
  if (width < 0) spec->justifyLeft = true;
  return at + 1;
}

const char* ParsePrecision(const char* at, Specification* spec, Arguments* arguments) {
  if (*at != '.') return at;
  ++at;
  spec->hasPrecision = true;
  if (*at != '*') return ParseNumber(at, &spec->precision);
  const int32_t precision = va_arg(arguments->list, int32_t);
  if (precision < 0)
    spec->hasPrecision = false;
  else
    spec->precision = static_cast<uint32_t>(precision);
  return at + 1;
}

const char* ParseModifier(const char* at, Specification* spec) {
  if (*at == 'h') {
    spec->isShort = true;
    return at + 1;
  }
  if (*at != 'l') return at;
  return at[1] == 'l' ? at + 2 : at + 1;
}

char Canonical(char conversion) {
  switch (conversion) {
    case 'i':
    case 'D':
      return 'd';
    case 'O':
      return 'o';
    case 'U':
      return 'u';
    default:
      return conversion;
  }
}

// Reads a specification from behind its '%'; returns the place behind its conversion character, or the end of
// the format where that is missing.
const char* ParseSpecification(const char* at, Specification* spec, Arguments* arguments) {
  at = ParseFlags(at, spec);
  at = ParseWidth(at, spec, arguments);
  at = ParsePrecision(at, spec, arguments);
  at = ParseModifier(at, spec);
  spec->conversion = Canonical(*at);
  if (*at == 'D' || *at == 'O' || *at == 'U') spec->isShort = false;
  return *at != '\0' ? at + 1 : at;
}

void Emit(Sink* sink, const Specification& spec, const Item& item) {
  const uint64_t printed = item.prefixLength + item.zeros + item.length;
  const uint64_t padding = spec.width > printed ? spec.width - printed : 0;
  if (!spec.justifyLeft && padding != 0) sink->Fill(' ', padding);
  if (item.prefixLength != 0) sink->Append(item.prefix, item.prefixLength);
  if (item.zeros != 0) sink->Fill('0', item.zeros);
  sink->Append(item.text, item.length);
  if (spec.justifyLeft && padding != 0) sink->Fill(' ', padding);
}

void EmitText(Sink* sink, const Specification& spec, const char* text) {
  Item item;
  if (text != nullptr) {
    item.text = text;
    item.length = spec.hasPrecision ? ::strnlen(text, spec.precision) : std::strlen(text);
  }
  Emit(sink, spec, item);
}

void EmitCharacter(Sink* sink, const Specification& spec, char character) {
  Item item;
  item.text = &character;
  item.length = 1;
  Emit(sink, spec, item);
}

// Fills in the zeros that precision, alternate octal form and zero padding ask for, once the item holds
// prefix and digits.
void EmitNumber(Sink* sink, const Specification& spec, Item* item) {
  uint64_t precision = spec.hasPrecision ? spec.precision : 1;
  const bool startsWithZero = item->length != 0 && item->text[0] == '0';
  if (spec.conversion == 'o' && spec.alternate && !startsWithZero && precision < item->length + 1)
    precision = item->length + 1;
  if (precision > item->length) item->zeros = precision - item->length;
  const uint64_t printed = item->prefixLength + item->zeros + item->length;
  if (spec.zeroPad && !spec.hasPrecision && !spec.justifyLeft && spec.width > printed)
    item->zeros += spec.width - printed;
  Emit(sink, spec, *item);
}

// A precision of 0 prints nothing of a value of 0, not even its sign.
bool PrintsDigits(const Specification& spec, bool isZero) {
  return !isZero || !spec.hasPrecision || spec.precision != 0;
}

void EmitSigned(Sink* sink, const Specification& spec, int32_t value) {
  // The forced sign goes by the whole argument, also where only its low 16 bits are printed: what is printed
  // may then bring a '-' of its own behind the '+'.
  Item item;
  Digits digits;
  if (PrintsDigits(spec, value == 0)) {
    if (spec.forceSign && value >= 0) item.prefix[item.prefixLength++] = spec.blankForPlus ? ' ' : '+';
    const int32_t printed = spec.isShort ? static_cast<int16_t>(value) : value;
    if (printed < 0) item.prefix[item.prefixLength++] = '-';
    digits.Decimal(Magnitude(printed));
  }
  item.text = digits.Text();
  item.length = digits.Length();
  EmitNumber(sink, spec, &item);
}

void EmitUnsigned(Sink* sink, const Specification& spec, uint32_t value) {
  const bool isHexadecimal = spec.conversion == 'x' || spec.conversion == 'X';
  Item item;
  if (spec.alternate && isHexadecimal && value != 0) {
    item.prefix[item.prefixLength++] = '0';
    item.prefix[item.prefixLength++] = spec.conversion;
  }
  Digits digits;
  if (PrintsDigits(spec, value == 0)) {
    const uint32_t printed = spec.isShort ? static_cast<uint16_t>(value) : value;
    if (spec.conversion == 'u')
      digits.Decimal(printed);
    else if (spec.conversion == 'o')
      digits.PowerOfTwo(printed, 3, kLowerDigits);
    else
      digits.PowerOfTwo(printed, 4, spec.conversion == 'x' ? kLowerDigits : kUpperDigits);
  }
  item.text = digits.Text();
  item.length = digits.Length();
  EmitNumber(sink, spec, &item);
}

void EmitPointer(Sink* sink, const Specification& spec, const void* pointer) {
  Item item;
  Digits digits;
  if (pointer != nullptr) {
    item.prefix[item.prefixLength++] = '0';
    item.prefix[item.prefixLength++] = 'x';
    digits.PowerOfTwo(reinterpret_cast<uintptr_t>(pointer), 4, kLowerDigits);
    item.text = digits.Text();
    item.length = digits.Length();
  } else if (PrintsDigits(spec, true)) {
    item.text = "(nil)";
    item.length = 5;
  }
  EmitNumber(sink, spec, &item);
}

// Every integer conversion takes one variadic slot and looks at its low 32 bits, so that 32-bit types and
// long do in both widths.
void EmitConversion(Sink* sink, const Specification& spec, Arguments* arguments) {
  switch (spec.conversion) {
    case 's':
      return EmitText(sink, spec, va_arg(arguments->list, const char*));
    case 'd':
      return EmitSigned(sink, spec, va_arg(arguments->list, int32_t));
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      return EmitUnsigned(sink, spec, va_arg(arguments->list, uint32_t));
    case 'p':
      return EmitPointer(sink, spec, va_arg(arguments->list, const void*));
    case 'c':
      return EmitCharacter(sink, spec, static_cast<char>(va_arg(arguments->list, int32_t)));
    case '%':
      return EmitCharacter(sink, spec, '%');
    case '\0':
      return;
    default:
      return sink->Append(spec.conversion);
  }
}

int32_t Format(char* buffer, uint32_t size, const char* format, Arguments* arguments) {
  Sink sink(buffer, size);
  const char* at = format != nullptr ? format : "";
  for (;;) {
    if (*at != '%') {
      const char* const percent = ::strchrnul(at, '%');
      sink.Append(at, static_cast<size_t>(percent - at));
      at = percent;
    }
    if (*at == '\0') return sink.Finish();
    Specification spec;
    at = ParseSpecification(at + 1, &spec, arguments);
    EmitConversion(&sink, spec, arguments);
  }
}

int32_t FormatCopy(char* buffer, uint32_t size, const char* format, va_list list) {
  Arguments arguments;
  va_copy(arguments.list, list);
  const int32_t length = Format(buffer, size, format, &arguments);
  va_end(arguments.list);
  return length;
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
