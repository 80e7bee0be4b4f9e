// The formatter's conversions of numbers and pointers. The library is not begun in these tests.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "OPL_Crt.h"
#include "tests/opl_crt/Formatted.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Formatted;

constexpr bool kLongIs64 = sizeof(long) == 8;

void* Pointer(uintptr_t value) { return reinterpret_cast<void*>(value); }

// %d and %i

TEST(CrtSNPrintfSigned, PrintsDecimal) {
  EXPECT_EQ("0", Formatted("%d", 0));
  EXPECT_EQ("9", Formatted("%d", 9));
  EXPECT_EQ("10", Formatted("%d", 10));
  EXPECT_EQ("99", Formatted("%d", 99));
  EXPECT_EQ("100", Formatted("%d", 100));
  EXPECT_EQ("1234567890", Formatted("%d", 1234567890));
}

TEST(CrtSNPrintfSigned, PrintsNegativeNumbersWithAMinus) {
  EXPECT_EQ("-1", Formatted("%d", -1));
  EXPECT_EQ("-42", Formatted("%d", -42));
}

TEST(CrtSNPrintfSigned, PrintsTheLimits) {
  EXPECT_EQ("2147483647", Formatted("%d", INT32_MAX));
  EXPECT_EQ("-2147483648", Formatted("%d", INT32_MIN));
}

TEST(CrtSNPrintfSigned, TakesIForD) {
  EXPECT_EQ("-42", Formatted("%i", -42));
  EXPECT_EQ("+0042", Formatted("%+05i", 42));
  EXPECT_EQ("-1", Formatted("%hi", 0xFFFF));
}

TEST(CrtSNPrintfSigned, ForcesASign) {
  EXPECT_EQ("+7", Formatted("%+d", 7));
  EXPECT_EQ("+0", Formatted("%+d", 0));
  EXPECT_EQ("-7", Formatted("%+d", -7));
  EXPECT_EQ("+2147483647", Formatted("%+d", INT32_MAX));
}

TEST(CrtSNPrintfSigned, ForcesABlankForASign) {
  EXPECT_EQ(" 7", Formatted("% d", 7));
  EXPECT_EQ(" 0", Formatted("% d", 0));
  EXPECT_EQ("-7", Formatted("% d", -7));
}

TEST(CrtSNPrintfSigned, PrefersPlusToBlankInEitherOrder) {
  EXPECT_EQ("+7", Formatted("%+ d", 7));
  EXPECT_EQ("+7", Formatted("% +d", 7));
}

TEST(CrtSNPrintfSigned, IsJustifiedRight) {
  EXPECT_EQ("    3", Formatted("%5d", 3));
  EXPECT_EQ("   -3", Formatted("%5d", -3));
  EXPECT_EQ("   +3", Formatted("%+5d", 3));
}

TEST(CrtSNPrintfSigned, IsJustifiedLeft) {
  EXPECT_EQ("3   |", Formatted("%-4d|", 3));
  EXPECT_EQ("-3  |", Formatted("%-4d|", -3));
  EXPECT_EQ("+3  |", Formatted("%-+4d|", 3));
}

TEST(CrtSNPrintfSigned, IsNotCutByTheWidth) { EXPECT_EQ("-12345", Formatted("%3d", -12345)); }

TEST(CrtSNPrintfSigned, IsPaddedWithZerosBehindTheSign) {
  EXPECT_EQ("00042", Formatted("%05d", 42));
  EXPECT_EQ("-0042", Formatted("%05d", -42));
  EXPECT_EQ("+0042", Formatted("%+05d", 42));
  EXPECT_EQ(" 0042", Formatted("% 05d", 42));
  EXPECT_EQ("00000", Formatted("%05d", 0));
}

TEST(CrtSNPrintfSigned, IsPaddedWithBlanksWhenJustifiedLeftDespiteTheZeroFlag) {
  EXPECT_EQ("42   |", Formatted("%-05d|", 42));
  EXPECT_EQ("42   |", Formatted("%0-5d|", 42));
  EXPECT_EQ("-42  |", Formatted("%0-5d|", -42));
}

TEST(CrtSNPrintfSigned, HasAtLeastThePrecisionsDigits) {
  EXPECT_EQ("005", Formatted("%.3d", 5));
  EXPECT_EQ("-005", Formatted("%.3d", -5));
  EXPECT_EQ("+005", Formatted("%+.3d", 5));
  EXPECT_EQ("12345", Formatted("%.3d", 12345));
  EXPECT_EQ("000", Formatted("%.3d", 0));
}

TEST(CrtSNPrintfSigned, HasNoZeroPaddingWithAPrecision) {
  EXPECT_EQ("  005", Formatted("%05.3d", 5));
  EXPECT_EQ(" -005", Formatted("%05.3d", -5));
  EXPECT_EQ("    5", Formatted("%05.0d", 5));
}

TEST(CrtSNPrintfSigned, HasZeroPaddingWithANegativePrecision) {
  EXPECT_EQ("00005", Formatted("%05.*d", -1, 5));
}

TEST(CrtSNPrintfSigned, IsEmptyForZeroWithAPrecisionOfZero) {
  EXPECT_EQ("", Formatted("%.0d", 0));
  EXPECT_EQ("", Formatted("%.d", 0));
  EXPECT_EQ("", Formatted("%.*d", 0, 0));
  EXPECT_EQ("   ", Formatted("%3.0d", 0));
  EXPECT_EQ("   |", Formatted("%-3.0d|", 0));
  EXPECT_EQ("   ", Formatted("%03.0d", 0));
}

TEST(CrtSNPrintfSigned, IsOneZeroForZeroWithANegativePrecision) { EXPECT_EQ("0", Formatted("%.*d", -1, 0)); }

TEST(CrtSNPrintfSigned, IsPrintedWithAPrecisionOfZeroUnlessItIsZero) { EXPECT_EQ("1", Formatted("%.0d", 1)); }

TEST(CrtSNPrintfSigned, HasNoForcedSignForZeroWithAPrecisionOfZero) {
  EXPECT_EQ("", Formatted("%+.0d", 0));
  EXPECT_EQ("", Formatted("% .0d", 0));
  EXPECT_EQ("   ", Formatted("%+3.0d", 0));
}

TEST(CrtSNPrintfSigned, TakesTheWidthFromTheArguments) {
  EXPECT_EQ("    12", Formatted("%*d", 6, 12));
  EXPECT_EQ("12", Formatted("%*d", 0, 12));
  EXPECT_EQ("000012", Formatted("%0*d", 6, 12));
}

TEST(CrtSNPrintfSigned, TakesANegativeWidthForItsMagnitudeJustifiedLeft) {
  EXPECT_EQ("12    ", Formatted("%*d", -6, 12));
  EXPECT_EQ("12    ", Formatted("%0*d", -6, 12));
}

TEST(CrtSNPrintfSigned, TakesThePrecisionFromTheArguments) {
  EXPECT_EQ("0012", Formatted("%.*d", 4, 12));
  EXPECT_EQ("  0012", Formatted("%*.*d", 6, 4, 12));
}

TEST(CrtSNPrintfSigned, IgnoresTheApostropheAndTheAlternateForm) {
  EXPECT_EQ("1234567", Formatted("%'d", 1234567));
  EXPECT_EQ("1234567", Formatted("%#d", 1234567));
}

TEST(CrtSNPrintfSigned, TakesFlagsInAnyOrderAndNumber) {
  EXPECT_EQ("+0042", Formatted("%+0+00+5d", 42));
  EXPECT_EQ("+42  |", Formatted("%0-+'#-05d|", 42));
}

TEST(CrtSNPrintfSigned, PrintsTheSameWithLAndLl) {
  EXPECT_EQ("-5", Formatted("%ld", -5L));
  EXPECT_EQ("-5", Formatted("%lld", -5));
  EXPECT_EQ("-5 7", Formatted("%lld %d", -5, 7));
  EXPECT_EQ("+0042", Formatted("%+05ld", 42L));
}

TEST(CrtSNPrintfSigned, TakesLongAndInt32Alike) {
  EXPECT_EQ("-2147483648 -2147483648", Formatted("%ld %ld", static_cast<long>(INT32_MIN), INT32_MIN));
  EXPECT_EQ("2147483647 2147483647", Formatted("%ld %ld", static_cast<long>(INT32_MAX), INT32_MAX));
}

TEST(CrtSNPrintfSigned, PrintsTheLow32BitsOfAWiderLong) {
  if (!kLongIs64) GTEST_SKIP() << "long has 32 bits";
  EXPECT_EQ("5", Formatted("%ld", static_cast<long>(0x100000005)));
  EXPECT_EQ("-1", Formatted("%d", static_cast<long>(0xFFFFFFFF)));
}

TEST(CrtSNPrintfSigned, TakesCapitalDForLd) {
  EXPECT_EQ("-42", Formatted("%D", -42L));
  EXPECT_EQ("+0042", Formatted("%+05D", 42L));
  EXPECT_EQ("65536", Formatted("%hD", 65536L));
}

TEST(CrtSNPrintfSigned, PrintsAShortWithH) {
  EXPECT_EQ("5", Formatted("%hd", 5));
  EXPECT_EQ("-5", Formatted("%hd", -5));
  EXPECT_EQ("32767", Formatted("%hd", 32767));
  EXPECT_EQ("-32768", Formatted("%hd", 32768));
  EXPECT_EQ("-1", Formatted("%hd", 0xFFFF));
  EXPECT_EQ("0", Formatted("%hd", 0x10000));
  EXPECT_EQ("1", Formatted("%hd", -65535));
}

// Sign class and emptiness go by the whole argument, the digits by its low 16 bits.
TEST(CrtSNPrintfSigned, ForcesTheSignOfTheWholeArgumentWithH) {
  EXPECT_EQ("+-1", Formatted("%+hd", 0xFFFF));
  EXPECT_EQ(" -1", Formatted("% hd", 0xFFFF));
  EXPECT_EQ("1", Formatted("%+hd", -65535));
}

TEST(CrtSNPrintfSigned, PadsBehindBothSignsWithH) {
  EXPECT_EQ("+-001", Formatted("%+05hd", 0xFFFF));
  EXPECT_EQ("  +-1", Formatted("%+5hd", 0xFFFF));
}

TEST(CrtSNPrintfSigned, IsNotEmptyWithHAndAPrecisionOfZeroUnlessTheWholeArgumentIsZero) {
  EXPECT_EQ("0", Formatted("%.0hd", 0x10000));
  EXPECT_EQ("", Formatted("%.0hd", 0));
}

// %u, %o, %x and %X

TEST(CrtSNPrintfUnsigned, PrintsDecimal) {
  EXPECT_EQ("0", Formatted("%u", 0u));
  EXPECT_EQ("42", Formatted("%u", 42u));
  EXPECT_EQ("4294967295", Formatted("%u", UINT32_MAX));
  EXPECT_EQ("2147483648", Formatted("%u", 0x80000000u));
}

TEST(CrtSNPrintfUnsigned, PrintsOctal) {
  EXPECT_EQ("0", Formatted("%o", 0u));
  EXPECT_EQ("7", Formatted("%o", 7u));
  EXPECT_EQ("10", Formatted("%o", 8u));
  EXPECT_EQ("37777777777", Formatted("%o", UINT32_MAX));
}

TEST(CrtSNPrintfUnsigned, PrintsHexadecimalInBothCases) {
  EXPECT_EQ("0", Formatted("%x", 0u));
  EXPECT_EQ("abcdef", Formatted("%x", 0xABCDEFu));
  EXPECT_EQ("ABCDEF", Formatted("%X", 0xABCDEFu));
  EXPECT_EQ("ffffffff", Formatted("%x", UINT32_MAX));
  EXPECT_EQ("FFFFFFFF", Formatted("%X", UINT32_MAX));
  EXPECT_EQ("12345678", Formatted("%x", 0x12345678u));
}

TEST(CrtSNPrintfUnsigned, PutsThePrefixBeforeHexadecimal) {
  EXPECT_EQ("0xff", Formatted("%#x", 255u));
  EXPECT_EQ("0XFF", Formatted("%#X", 255u));
}

TEST(CrtSNPrintfUnsigned, PutsNoPrefixBeforeAHexadecimalZero) {
  EXPECT_EQ("0", Formatted("%#x", 0u));
  EXPECT_EQ("0", Formatted("%#X", 0u));
  EXPECT_EQ("00000", Formatted("%#05x", 0u));
  EXPECT_EQ("000", Formatted("%#.3x", 0u));
  EXPECT_EQ("", Formatted("%#.0x", 0u));
}

TEST(CrtSNPrintfUnsigned, PutsZerosBehindThePrefix) {
  EXPECT_EQ("0x00ff", Formatted("%#06x", 255u));
  EXPECT_EQ("0X00FF", Formatted("%#06X", 255u));
  EXPECT_EQ("0x00ff", Formatted("%#.4x", 255u));
  EXPECT_EQ("  0x00ff", Formatted("%#08.4x", 255u));
}

TEST(CrtSNPrintfUnsigned, PadsOutsideThePrefix) {
  EXPECT_EQ("  0xff", Formatted("%#6x", 255u));
  EXPECT_EQ("0xff  |", Formatted("%#-6x|", 255u));
  EXPECT_EQ("0xff  |", Formatted("%#-06x|", 255u));
}

TEST(CrtSNPrintfUnsigned, PutsAZeroBeforeOctal) {
  EXPECT_EQ("010", Formatted("%#o", 8u));
  EXPECT_EQ("037777777777", Formatted("%#o", UINT32_MAX));
}

TEST(CrtSNPrintfUnsigned, PutsNoSecondZeroBeforeAnOctalZero) { EXPECT_EQ("0", Formatted("%#o", 0u)); }

TEST(CrtSNPrintfUnsigned, PutsAZeroForAnEmptyOctal) {
  EXPECT_EQ("0", Formatted("%#.0o", 0u));
  EXPECT_EQ("  0", Formatted("%#3.0o", 0u));
  EXPECT_EQ("", Formatted("%.0o", 0u));
}

TEST(CrtSNPrintfUnsigned, PutsNoZeroBeforeOctalWherePrecisionBringsOne) {
  EXPECT_EQ("010", Formatted("%#.3o", 8u));
  EXPECT_EQ("0010", Formatted("%#.4o", 8u));
  EXPECT_EQ("010", Formatted("%#.2o", 8u));
  EXPECT_EQ("010", Formatted("%#.1o", 8u));
}

TEST(CrtSNPrintfUnsigned, CountsTheOctalZeroInTheWidth) {
  EXPECT_EQ("  010", Formatted("%#5o", 8u));
  EXPECT_EQ("00010", Formatted("%#05o", 8u));
  EXPECT_EQ("010  |", Formatted("%#-5o|", 8u));
}

TEST(CrtSNPrintfUnsigned, IgnoresSignFlagsApostropheAndTheAlternateFormOfDecimal) {
  EXPECT_EQ("7 7 7 7", Formatted("%+u % o %+x % X", 7u, 7u, 7u, 7u));
  EXPECT_EQ("1234567", Formatted("%'u", 1234567u));
  EXPECT_EQ("7", Formatted("%#u", 7u));
}

TEST(CrtSNPrintfUnsigned, IsPaddedLikeASignedNumber) {
  EXPECT_EQ("   42|42   |00042|  042", Formatted("%5u|%-5u|%05u|%5.3u", 42u, 42u, 42u, 42u));
  EXPECT_EQ("   2a|2a   |0002a|  02a", Formatted("%5x|%-5x|%05x|%5.3x", 42u, 42u, 42u, 42u));
  EXPECT_EQ("   52|52   |00052|  052", Formatted("%5o|%-5o|%05o|%5.3o", 42u, 42u, 42u, 42u));
}

TEST(CrtSNPrintfUnsigned, IsEmptyForZeroWithAPrecisionOfZero) {
  EXPECT_EQ("||||", Formatted("%.0u|%.0o|%.0x|%.0X|", 0u, 0u, 0u, 0u));
}

TEST(CrtSNPrintfUnsigned, TakesUnsignedLongAndUint32Alike) {
  EXPECT_EQ("4294967295 4294967295",
            Formatted("%lu %lu", static_cast<unsigned long>(UINT32_MAX), UINT32_MAX));
  EXPECT_EQ("7 8", Formatted("%lu %lu", 7u, 8ul));
  EXPECT_EQ("ff FF 377 255", Formatted("%lx %lX %lo %llu", 255ul, 255u, 255ul, 255u));
}

TEST(CrtSNPrintfUnsigned, PrintsTheLow32BitsOfAWiderLong) {
  if (!kLongIs64) GTEST_SKIP() << "long has 32 bits";
  EXPECT_EQ("5 7", Formatted("%lu %u", static_cast<unsigned long>(0x100000005), 7u));
  EXPECT_EQ("5", Formatted("%llx", static_cast<unsigned long>(0x100000005)));
  EXPECT_EQ("0", Formatted("%#lx", static_cast<unsigned long>(0x100000000)));
}

TEST(CrtSNPrintfUnsigned, TakesManyArgumentsOfBothTypesFromRegistersAndStack) {
  EXPECT_EQ("1 2 3 4 5 6 7 8 9 10", Formatted("%lu %lu %lu %lu %lu %lu %lu %lu %lu %lu", 1u, 2ul, 3u, 4ul, 5u,
                                              6ul, 7u, 8ul, 9u, 10ul));
}

TEST(CrtSNPrintfUnsigned, TakesCapitalsForL) {
  EXPECT_EQ("4294967295 377", Formatted("%U %O", static_cast<unsigned long>(UINT32_MAX), 255ul));
  EXPECT_EQ("0377", Formatted("%#O", 255ul));
  EXPECT_EQ("65536 200000", Formatted("%hU %hO", 65536ul, 65536ul));
}

TEST(CrtSNPrintfUnsigned, PrintsTheLow16BitsWithH) {
  EXPECT_EQ("65535", Formatted("%hu", 0xFFFFFu));
  EXPECT_EQ("ffff FFFF 177777", Formatted("%hx %hX %ho", 0x1FFFFu, 0x1FFFFu, 0x1FFFFu));
  EXPECT_EQ("65531", Formatted("%hu", -5));
}

TEST(CrtSNPrintfUnsigned, PutsThePrefixOfTheWholeArgumentWithH) {
  EXPECT_EQ("0x0", Formatted("%#hx", 0x10000u));
  EXPECT_EQ("0X0", Formatted("%#hX", 0x10000u));
  EXPECT_EQ("0x0000", Formatted("%#06hx", 0x10000u));
  EXPECT_EQ("0", Formatted("%#ho", 0x10000u));
}

TEST(CrtSNPrintfUnsigned, IsNotEmptyWithHAndAPrecisionOfZeroUnlessTheWholeArgumentIsZero) {
  EXPECT_EQ("0", Formatted("%.0hu", 0x10000u));
  EXPECT_EQ("", Formatted("%.0hu", 0u));
}

// %p

TEST(CrtSNPrintfPointer, PrintsHexadecimalWithAPrefix) {
  EXPECT_EQ("0x1", Formatted("%p", Pointer(1)));
  EXPECT_EQ("0xabcdef01", Formatted("%p", Pointer(0xABCDEF01)));
}

TEST(CrtSNPrintfPointer, PrintsEveryDigitOfTheWidestPointer) {
  EXPECT_EQ(opltest::kWidth == 32 ? "0xffffffff" : "0xffffffffffffffff",
            Formatted("%p", Pointer(UINTPTR_MAX)));
}

TEST(CrtSNPrintfPointer, PrintsNilForNull) { EXPECT_EQ("(nil)", Formatted("%p", Pointer(0))); }

TEST(CrtSNPrintfPointer, IsPaddedWithBlanks) {
  EXPECT_EQ("    0xff", Formatted("%8p", Pointer(0xFF)));
  EXPECT_EQ("0xff    |", Formatted("%-8p|", Pointer(0xFF)));
  EXPECT_EQ("   (nil)", Formatted("%8p", Pointer(0)));
  EXPECT_EQ("(nil)   |", Formatted("%-8p|", Pointer(0)));
}

TEST(CrtSNPrintfPointer, IsPaddedWithZerosBehindThePrefix) {
  EXPECT_EQ("0x0000ff", Formatted("%08p", Pointer(0xFF)));
  EXPECT_EQ("0x00ff", Formatted("%.4p", Pointer(0xFF)));
}

// Nothing in "(nil)" is a prefix: zeros stand in front of it, however it looks.
TEST(CrtSNPrintfPointer, PutsZerosBeforeNil) {
  EXPECT_EQ("000(nil)", Formatted("%08p", Pointer(0)));
  EXPECT_EQ("000(nil)", Formatted("%.8p", Pointer(0)));
}

TEST(CrtSNPrintfPointer, IsEmptyForNullWithAPrecisionOfZero) {
  EXPECT_EQ("", Formatted("%.0p", Pointer(0)));
  EXPECT_EQ("0x1", Formatted("%.0p", Pointer(1)));
}

TEST(CrtSNPrintfPointer, IgnoresSignFlagsAlternateFormAndModifiers) {
  EXPECT_EQ("0xff", Formatted("%+ #'p", Pointer(0xFF)));
  EXPECT_EQ("0x12345 0x12345 0x12345",
            Formatted("%hp %lp %llp", Pointer(0x12345), Pointer(0x12345), Pointer(0x12345)));
}

TEST(CrtSNPrintfPointer, TakesOneArgument) { EXPECT_EQ("0x1 7", Formatted("%p %d", Pointer(1), 7)); }

TEST(CrtSNPrintfNumber, IsTheSameInEveryLocale) {
  for (const char* locale : {"", "C.UTF-8", "de_DE.UTF-8", "en_US.UTF-8"}) {
    (void)std::setlocale(LC_ALL, locale);
    EXPECT_EQ("1234567 -1234567", Formatted("%'u %'d", 1234567u, -1234567));
  }
}

// A grid against the C library, wherever both are to print the same.

class Directives {
 public:
  std::string Flags(const std::string& from) {
    std::string flags;
    for (int i = Below(4); i > 0; --i)
      flags += from[static_cast<size_t>(Below(static_cast<int>(from.size())))];
    return flags;
  }

  std::string Width() { return Below(3) == 0 ? "" : std::to_string(1 + Below(24)); }

  std::string Precision() {
    const int kind = Below(4);
    if (kind < 2) return "";
    return kind == 2 ? "." : "." + std::to_string(Below(20));
  }

  // Numbers of every length, small ones as often as large ones.
  uint32_t Value(int bits) { return static_cast<uint32_t>(random_()) >> (32 - bits + Below(bits)); }

  // Below a limit, without the library's distributions, which differ.
  int Below(int limit) { return static_cast<int>(random_() % static_cast<uint32_t>(limit)); }

 private:
  std::mt19937 random_{20040205};
};

template <typename Argument, typename Other>
void Compare(const std::string& ours, Argument argument, const std::string& theirs, Other other,
             uint32_t size) {
  char expected[128];
  char buffer[128];
  std::memset(expected, '~', sizeof expected);
  std::memset(buffer, '~', sizeof buffer);
  const int length = std::snprintf(expected, size, theirs.c_str(), other);
  ASSERT_EQ(length, OPL_CrtSNPrintf(buffer, size, ours.c_str(), argument)) << ours;
  ASSERT_EQ(std::string(expected, sizeof expected), std::string(buffer, sizeof buffer))
      << ours << " " << size;
}

constexpr int kRounds = 40000;

uint32_t SizeOf(Directives& random) { return static_cast<uint32_t>(1 + random.Below(64)); }

// Zero is left out: with a precision of 0 the C library prints its forced sign.
TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnSignedNumbers) {
  Directives random;
  for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    const std::string start = "<%" + random.Flags("0-+ '") + random.Width() + random.Precision();
    auto value = static_cast<int32_t>(random.Value(32));
    if (random.Below(2) == 0) value = static_cast<int32_t>(0u - static_cast<uint32_t>(value));
    if (value == 0) value = 1;
    const char* const conversion = random.Below(2) == 0 ? "d>" : "i>";
    const std::string modifier =
        std::vector<std::string>{"", "l", "ll"}[static_cast<size_t>(random.Below(3))];
    Compare(start + modifier + conversion, value, start + conversion, value, SizeOf(random));
  }
}

TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnZero) {
  Directives random;
  for (int i = 0; i < kRounds / 4 && !HasFatalFailure(); ++i) {
    const std::string start = "<%" + random.Flags("0-'") + random.Width() + random.Precision();
    for (const char* conversion : {"d>", "u>", "o>", "x>", "X>"})
      Compare(start + conversion, 0, start + conversion, 0, SizeOf(random));
  }
}

TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnUnsignedNumbers) {
  Directives random;
  for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    const std::string conversion =
        std::vector<std::string>{"u", "o", "x", "X"}[static_cast<size_t>(random.Below(4))];
    const std::string start =
        "<%" + random.Flags(conversion == "u" ? "0-'" : "0-#") + random.Width() + random.Precision();
    const uint32_t value = random.Value(32);
    const std::string modifier =
        std::vector<std::string>{"", "l", "ll"}[static_cast<size_t>(random.Below(3))];
    Compare(start + modifier + conversion + ">", value, start + conversion + ">", value, SizeOf(random));
  }
}

TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnShorts) {
  Directives random;
  for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    const std::string start = "<%" + random.Flags("0-") + random.Width() + random.Precision() + "h";
    const std::string conversion =
        std::vector<std::string>{"d>", "u>", "o>", "x>", "X>"}[static_cast<size_t>(random.Below(5))];
    const auto value = static_cast<int>(random.Value(15));
    Compare(start + conversion, value, start + conversion, value, SizeOf(random));
    Compare(start + conversion, -1 - value, start + conversion, -1 - value, SizeOf(random));
  }
}

TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnPointers) {
  Directives random;
  for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    const std::string format = "<%" + random.Flags("0-#") + random.Width() + random.Precision() + "p>";
    const auto value = static_cast<uintptr_t>(uint64_t{random.Value(32)} << random.Below(32)) | 1;
    Compare(format, Pointer(value), format, Pointer(value), SizeOf(random));
  }
}

TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnTexts) {
  Directives random;
  const std::string text = "the quick brown fox";
  for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    const std::string start = "<%" + random.Flags("-") + random.Width();
    const std::string format = start + random.Precision() + "s>";
    const char* const tail = text.c_str() + random.Below(static_cast<int>(text.size()) + 1);
    Compare(format, tail, format, tail, SizeOf(random));
    const int character = 1 + random.Below(255);
    Compare(start + "c>", character, start + "c>", character, SizeOf(random));
  }
}

// Width and precision as arguments, negative ones too.
TEST(CrtSNPrintfGrid, AgreesWithTheCLibraryOnStars) {
  Directives random;
  for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) {
    const std::string format =
        "<%" + random.Flags("0-") + "*.*" + "duoxX"[random.Below(5)] + ">%" + random.Width() + "s";
    const int width = random.Below(40) - 20;
    const int precision = random.Below(30) - 10;
    const auto value = static_cast<int32_t>(random.Value(32));
    char expected[128];
    const int length =
        std::snprintf(expected, sizeof expected, format.c_str(), width, precision, value, "end");
    ASSERT_EQ(std::string(expected, static_cast<size_t>(length)),
              Formatted(format.c_str(), width, precision, value, "end"))
        << format << " " << width << " " << precision << " " << value;
  }
}

}  // namespace
