// The formatter on any format. A format is drawn piece by piece, and with it the arguments that it takes, so
// that there are always enough of them, of the right kind. Whatever the format:
//
//   - the length does not depend on the size of the buffer, and without a buffer it is the same;
//   - what is stored is the beginning of the whole result, terminated, and nothing beyond the buffer is
//     touched (buffers lie on the heap with their exact sizes);
//   - a format of which the C standard says the same comes out as from snprintf.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "OPL_Crt.h"
#include "fuzz/support/Input.h"

namespace {

using oplfuzz::Check;

constexpr size_t kMostArguments = 12;
constexpr size_t kMostArgumentsOfAPiece = 3;  // width, precision, value
constexpr uint32_t kLongestField = 600;
constexpr uint32_t kLongestText = 48;

// What one call formats. An argument takes one variadic slot of the width of a pointer, whatever it is.
struct Call {
  std::string format;
  std::vector<uintptr_t> arguments;
  std::vector<std::unique_ptr<char[]>> texts;
  bool isLikeC = true;  // snprintf has to print the same
};

std::unique_ptr<char[]> ExactCopy(const std::string& text, bool terminated) {
  const size_t size = text.size() + (terminated ? 1 : 0);
  auto copy = std::make_unique<char[]>(size);
  std::memcpy(copy.get(), text.c_str(), size);
  return copy;
}

void AddNumber(Call* call, int32_t value) { call->arguments.push_back(static_cast<uint32_t>(value)); }

// One of the interesting values, or any.
uint32_t Value(oplfuzz::Input* input) {
  constexpr uint32_t kValues[] = {0,      1,       9,           10,          99,          100,
                                  0x7FFF, 0x8000,  0xFFFF,      0x10000,     0x7FFFFFFF,  0x80000000,
                                  8,      1000000, 0xFFFFFFFFu, 0xFFFF8000u, 1000000000u, 999999999u};
  return input->Coin() ? kValues[input->Below(std::size(kValues))] : input->Word();
}

// A number of the format, or an asterisk and its argument. Returns the number; negative ones come by argument
// only.
int32_t AddField(oplfuzz::Input* input, Call* call) {
  auto number = static_cast<int32_t>(input->Below(kLongestField));
  if (input->Coin()) {
    call->format += std::to_string(number);
    return number;
  }
  if (input->Coin()) number = -number;
  call->format += '*';
  AddNumber(call, number);
  return number;
}

// A text for %s. With a precision it may end without a terminator, which is not for snprintf: the sanitizer's
// version of it wants one all the same.
void AddText(oplfuzz::Input* input, Call* call, int32_t precision) {
  if (input->Below(16) == 0) {
    call->arguments.push_back(0);
    call->isLikeC = false;  // no placeholder for a null text here
    return;
  }
  std::string text = input->Text(kLongestText);
  const bool isCut = precision >= 0 && text.size() >= static_cast<size_t>(precision) && input->Coin();
  if (isCut) {
    text.resize(static_cast<size_t>(precision));
    call->isLikeC = false;
  }
  call->texts.push_back(ExactCopy(text, !isCut));
  call->arguments.push_back(reinterpret_cast<uintptr_t>(call->texts.back().get()));
}

// What a piece of the format asks for, with the value of its argument where that is a number.
struct Piece {
  std::string flags;
  bool hasWidth = false;
  bool hasPrecision = false;
  int32_t precision = -1;
  char modifier = ' ';
  char conversion = '%';
  uint32_t value = 0;

  bool Is(const char* conversions) const { return std::strchr(conversions, conversion) != nullptr; }
  bool HasFlagOf(const char* some) const { return flags.find_first_of(some) != std::string::npos; }
};

// The flags that the standards give a meaning for a conversion; the locale here groups no thousands.
bool FlagsAreLikeC(const Piece& piece) {
  std::string known = "-";
  if (piece.Is("diuoxX")) known += '0';
  if (piece.Is("di")) known += "+ ";
  if (piece.Is("oxX")) known += '#';
  if (piece.Is("diu")) known += '\'';
  return piece.flags.find_first_not_of(known) == std::string::npos;
}

// C looks at the value that the modifier names, and we at the whole argument for its sign and for whether it
// is zero; a long is handed over here as 32 bits and zeros.
bool ModifierIsLikeC(const Piece& piece) {
  const bool isSigned = piece.Is("di");
  const auto value = static_cast<int32_t>(piece.value);
  if (piece.modifier == 'h') return isSigned ? value == static_cast<int16_t>(value) : piece.value <= 0xFFFF;
  if (piece.modifier == 'l') return sizeof(long) == sizeof(int32_t) || !isSigned || value >= 0;
  if (piece.modifier == 'L') return sizeof(uintptr_t) == sizeof(long long) && (!isSigned || value >= 0);
  return true;
}

// Whether snprintf has to print the same. Precisions of %p and of %c, and whatever stands between the two
// signs of %%, the standard leaves open.
bool IsLikeC(const Piece& piece) {
  if (piece.conversion == '%')
    return piece.flags.empty() && !piece.hasWidth && !piece.hasPrecision && piece.modifier == ' ';
  if (!piece.Is("diuoxXcsp") || !FlagsAreLikeC(piece)) return false;
  if (piece.Is("cp") && piece.hasPrecision) return false;
  if (piece.Is("csp")) return piece.modifier == ' ';
  // C prints the sign of a 0 that a precision of 0 leaves out.
  if (piece.precision == 0 && piece.value == 0 && piece.HasFlagOf("+ ")) return false;
  return ModifierIsLikeC(piece);
}

void AddArgument(oplfuzz::Input* input, Call* call, Piece* piece) {
  if (piece->Is("diouxXDOUc")) {
    piece->value = Value(input);
    AddNumber(call, static_cast<int32_t>(piece->value));
  } else if (piece->conversion == 's') {
    AddText(input, call, piece->precision);
  } else if (piece->conversion == 'p') {
    call->arguments.push_back(input->Coin() ? Value(input) : 0);
  }
}

void AddConversion(oplfuzz::Input* input, Call* call) {
  Piece piece;
  for (uint32_t left = input->Below(4); left != 0; --left) piece.flags += input->Of("0-+ #'");
  call->format += '%' + piece.flags;
  piece.hasWidth = input->Coin();
  if (piece.hasWidth) (void)AddField(input, call);
  piece.hasPrecision = input->Coin();
  if (piece.hasPrecision) {
    call->format += '.';
    piece.precision = input->Below(8) == 0 ? 0 : AddField(input, call);
  }
  piece.modifier = input->Of("   hlL");
  if (piece.modifier == 'h' || piece.modifier == 'l') call->format += piece.modifier;
  if (piece.modifier == 'L') call->format += "ll";
  piece.conversion = input->Of("ssddiuxXocpDOU%fegn@");
  call->format += piece.conversion;
  AddArgument(input, call, &piece);
  if (!IsLikeC(piece)) call->isLikeC = false;
}

// Characters as they come, but for '%', which would take arguments.
void AddLiteral(oplfuzz::Input* input, Call* call) {
  std::string text = input->Text(kLongestText);
  std::replace(text.begin(), text.end(), '%', '|');
  call->format += text;
}

Call DrawCall(oplfuzz::Input* input) {
  Call call;
  while (!input->IsEmpty() && call.arguments.size() + kMostArgumentsOfAPiece <= kMostArguments) {
    if (input->Coin())
      AddConversion(input, &call);
    else
      AddLiteral(input, &call);
  }
  if (input->Below(8) == 1) {
    call.format += "%-08.3l";  // a format may end anywhere
    call.format.resize(call.format.size() - input->Below(7));
    call.isLikeC = false;
  }
  call.arguments.resize(kMostArguments);
  return call;
}

using Format = int32_t (*)(char*, size_t, const char*, ...);

int32_t Run(Format format, const Call& call, char* buffer, size_t size) {
  const std::vector<uintptr_t>& a = call.arguments;
  return format(buffer, size, call.format.c_str(), a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9],
                a[10], a[11]);
}

int32_t FormatOpl(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = OPL_CrtVSNPrintf(buffer, static_cast<uint32_t>(size), format, arguments);
  va_end(arguments);
  return length;
}

int32_t FormatLibc(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

std::string Whole(const Call& call) {
  const int32_t length = Run(FormatOpl, call, nullptr, 0);
  Check(length >= 0);
  const size_t size = static_cast<size_t>(length) + 1;
  const auto buffer = std::make_unique<char[]>(size);
  Check(Run(FormatOpl, call, buffer.get(), size) == length);
  Check(buffer[size - 1] == '\0');
  return {buffer.get(), size - 1};
}

// A heap buffer of the size itself, so that the sanitizer sees a byte too many.
void CheckCut(const Call& call, const std::string& whole, size_t size) {
  const auto buffer = std::make_unique<char[]>(size);
  Check(Run(FormatOpl, call, buffer.get(), size) == static_cast<int32_t>(whole.size()));
  if (size == 0) return;
  const size_t stored = std::min(size - 1, whole.size());
  Check(std::memcmp(buffer.get(), whole.data(), stored) == 0);
  Check(buffer[stored] == '\0');
}

void CheckLikeC(const Call& call, const std::string& whole) {
  const auto buffer = std::make_unique<char[]>(whole.size() + 1);
  Check(Run(FormatLibc, call, buffer.get(), whole.size() + 1) == static_cast<int32_t>(whole.size()));
  Check(std::memcmp(buffer.get(), whole.data(), whole.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  const uint32_t bufferSize = input.Below(1024);
  const Call call = DrawCall(&input);
  const std::string whole = Whole(call);
  CheckCut(call, whole, bufferSize);
  if (call.isLikeC) CheckLikeC(call, whole);
  return 0;
}
