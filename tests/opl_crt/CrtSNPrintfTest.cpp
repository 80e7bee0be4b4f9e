// The formatter's main loop, its buffer, and the conversions of text: everything but numbers. The library is
// not begun in these tests, but for one that ends it.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "tests/opl_crt/Formatted.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Formatted;
using opltest::Measured;

const char* const kNull = nullptr;

TEST(CrtSNPrintf, CopiesOrdinaryText) {
  EXPECT_EQ("just text, 100 bytes\n", Formatted("just text, 100 bytes\n"));
}

TEST(CrtSNPrintf, CopiesTextBetweenConversions) {
  EXPECT_EQ("a1b2c", Formatted("a%db%dc", 1, 2));
  EXPECT_EQ("12", Formatted("%d%d", 1, 2));
}

TEST(CrtSNPrintf, MakesNothingOfTheEmptyFormat) { EXPECT_EQ("", Formatted("")); }

TEST(CrtSNPrintf, TakesANullFormatAsTheEmptyText) {
  char buffer[2] = {'~', '~'};
  EXPECT_EQ(0, OPL_CrtSNPrintf(buffer, sizeof buffer, nullptr));
  EXPECT_EQ('\0', buffer[0]);
  EXPECT_EQ('~', buffer[1]);
}

TEST(CrtSNPrintf, TakesANullFormatWithoutABuffer) { EXPECT_EQ(0, OPL_CrtSNPrintf(nullptr, 0, nullptr)); }

TEST(CrtSNPrintf, CopiesBytesBeyondAsciiUnchanged) {
  EXPECT_EQ("\xC3\xA4\xFF\x80", Formatted("\xC3\xA4%s\x80", "\xFF"));
}

TEST(CrtSNPrintf, FormatsSixtyFourConversions) {
  std::string format;
  for (int i = 0; i < 16; ++i) format += "%d%s%c%%";
  const char* const s = "s";
  std::string expected;
  for (int i = 0; i < 16; ++i) expected += "5sc%";
  EXPECT_EQ(expected, Formatted(format.c_str(), 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s,
                                'c', 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s, 'c', 5, s,
                                'c', 5, s, 'c', 5, s, 'c', 5, s, 'c'));
}

TEST(CrtSNPrintf, WorksAfterTheLibraryHasEnded) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  ASSERT_EQ(OPL_OK, OPL_InitEnd(0));
  EXPECT_EQ("a7", Formatted("%s%d", "a", 7));
}

// The buffer.

// A buffer of that size between guards: what a result of "abcdef" leaves in it.
std::string Cut(uint32_t size, const char* format, const char* text) {
  std::vector<char> buffer(size + 8, '~');
  EXPECT_EQ(6, OPL_CrtSNPrintf(buffer.data(), size, format, text));
  for (size_t i = size; i < buffer.size(); ++i) EXPECT_EQ('~', buffer[i]) << "stored beyond the end";
  return std::string(buffer.data(), size);
}

TEST(CrtSNPrintf, StoresNothingInASizeOfZero) { EXPECT_EQ("", Cut(0, "abcdef", "")); }

TEST(CrtSNPrintf, StoresOnlyTheTerminatorInASizeOfOne) {
  EXPECT_EQ(std::string(1, '\0'), Cut(1, "abcdef", ""));
}

TEST(CrtSNPrintf, CutsTextToTheSize) { EXPECT_EQ(std::string("abc", 4), Cut(4, "abcdef", "")); }

TEST(CrtSNPrintf, LosesTheLastCharacterToTheTerminatorWhenTheTextFillsTheSize) {
  EXPECT_EQ(std::string("abcde", 6), Cut(6, "abcdef", ""));
}

TEST(CrtSNPrintf, StoresTheWholeTextInOneByteMore) {
  EXPECT_EQ(std::string("abcdef", 7), Cut(7, "abcdef", ""));
}

TEST(CrtSNPrintf, LeavesTheRestOfALargerBufferAlone) {
  EXPECT_EQ(std::string("abcdef\0~~", 9), Cut(9, "abcdef", ""));
}

TEST(CrtSNPrintf, CutsAnArgument) {
  EXPECT_EQ(std::string("abc", 4), Cut(4, "%s", "abcdef"));
  EXPECT_EQ(std::string("abc", 4), Cut(4, "a%s", "bcdef"));
}

TEST(CrtSNPrintf, CutsPadding) {
  EXPECT_EQ(std::string("   ", 4), Cut(4, "%6s", "f"));
  EXPECT_EQ(std::string("a  ", 4), Cut(4, "%-6s", "a"));
}

// Every size from 0 to beyond the whole result, for a format with text, zeros, signs, prefixes and padding on
// both sides.
TEST(CrtSNPrintf, CutsAtEverySize) {
  const std::string whole = "[   ab|-0042|0x00ff|7    |%| x]";
  const auto length = static_cast<int32_t>(whole.size());
  for (uint32_t size = 0; size <= whole.size() + 2; ++size) {
    SCOPED_TRACE(size);
    std::vector<char> buffer(whole.size() + 8, '~');
    EXPECT_EQ(length, OPL_CrtSNPrintf(buffer.data(), size, "[%5.2s|%05d|%#06x|%-5u|%%|%2c]", "abc", -42, 255u,
                                      7u, 'x'));
    std::string expected(buffer.size(), '~');
    if (size != 0) {
      const std::string cut = whole.substr(0, size - 1);
      expected.replace(0, cut.size() + 1, cut.c_str(), cut.size() + 1);
    }
    EXPECT_EQ(expected, std::string(buffer.data(), buffer.size()));
  }
}

TEST(CrtSNPrintf, MeasuresWithoutABuffer) {
  EXPECT_EQ(6, Measured("abcdef"));
  EXPECT_EQ(10, Measured("%05d%5s", -42, "x"));
}

TEST(CrtSNPrintf, MeasuresWithoutABufferWhateverItsSize) {
  EXPECT_EQ(6, OPL_CrtSNPrintf(nullptr, 4, "abcdef"));
  EXPECT_EQ(10, OPL_CrtSNPrintf(nullptr, UINT32_MAX, "%05d%5s", -42, "x"));
}

TEST(CrtVSNPrintf, FormatsTheArgumentsOfAList) {
  struct Lists {
    static int32_t Format(char* buffer, uint32_t size, const char* format, ...) {
      va_list arguments;
      va_start(arguments, format);
      const int32_t length = OPL_CrtVSNPrintf(buffer, size, format, arguments);
      va_end(arguments);
      return length;
    }
  };
  char buffer[16] = "";
  EXPECT_EQ(12, Lists::Format(buffer, sizeof buffer, "%s %d %*d %c", "ab", -3, 4, 5, 'z'));
  EXPECT_STREQ("ab -3    5 z", buffer);
  EXPECT_EQ(12, Lists::Format(buffer, 4, "%s %d %*d %c", "ab", -3, 4, 5, 'z'));
  EXPECT_STREQ("ab ", buffer);
  EXPECT_EQ(12, Lists::Format(nullptr, 0, "%s %d %*d %c", "ab", -3, 4, 5, 'z'));
}

// %%

TEST(CrtSNPrintfPercent, PrintsOneAndTakesNoArgument) { EXPECT_EQ("%7", Formatted("%%%d", 7)); }

TEST(CrtSNPrintfPercent, IsPaddedWithBlanks) {
  EXPECT_EQ("  %", Formatted("%3%"));
  EXPECT_EQ("  %", Formatted("%03%"));
  EXPECT_EQ("%  |", Formatted("%-3%|"));
  EXPECT_EQ("%  |", Formatted("%-03%|"));
}

TEST(CrtSNPrintfPercent, IsNotCutByAPrecision) { EXPECT_EQ(" %", Formatted("%2.0%")); }

TEST(CrtSNPrintfPercent, TakesAWidthFromTheArguments) { EXPECT_EQ("  %7", Formatted("%*%%d", 3, 7)); }

TEST(CrtSNPrintfPercent, IgnoresModifiers) { EXPECT_EQ("%%%", Formatted("%h%%l%%ll%")); }

// %c

TEST(CrtSNPrintfCharacter, PrintsTheLowByte) {
  EXPECT_EQ("A", Formatted("%c", 'A'));
  EXPECT_EQ("A", Formatted("%c", 0x12345641));
  EXPECT_EQ("\xFF", Formatted("%c", -1));
}

TEST(CrtSNPrintfCharacter, PrintsAZeroByteToo) {
  EXPECT_EQ(std::string("a\0b", 3), Formatted("a%cb", 0));
  EXPECT_EQ(std::string("  \0", 3), Formatted("%3c", 0));
}

TEST(CrtSNPrintfCharacter, IsPaddedWithBlanks) {
  EXPECT_EQ("  A", Formatted("%3c", 'A'));
  EXPECT_EQ("  A", Formatted("%03c", 'A'));
  EXPECT_EQ("A  |", Formatted("%-3c|", 'A'));
  EXPECT_EQ("A  |", Formatted("%-03c|", 'A'));
}

TEST(CrtSNPrintfCharacter, IgnoresSignAlternateFormPrecisionAndModifiers) {
  EXPECT_EQ("A", Formatted("%+ #'.0c", 'A'));
  EXPECT_EQ("A", Formatted("%.5c", 'A'));
  EXPECT_EQ("ABC", Formatted("%hc%lc%llc", 'A', 'B', 'C'));
}

// %s

TEST(CrtSNPrintfText, PrintsTheText) { EXPECT_EQ("<text>", Formatted("<%s>", "text")); }

TEST(CrtSNPrintfText, PrintsTheEmptyText) { EXPECT_EQ("<>", Formatted("<%s>", "")); }

TEST(CrtSNPrintfText, PrintsNothingForNull) { EXPECT_EQ("<>", Formatted("<%s>", kNull)); }

TEST(CrtSNPrintfText, PadsNull) {
  EXPECT_EQ("     ", Formatted("%5s", kNull));
  EXPECT_EQ("     |", Formatted("%-5s|", kNull));
  EXPECT_EQ("     ", Formatted("%5.3s", kNull));
}

TEST(CrtSNPrintfText, IsJustifiedRight) { EXPECT_EQ("   ab", Formatted("%5s", "ab")); }

TEST(CrtSNPrintfText, IsJustifiedLeft) { EXPECT_EQ("ab   |", Formatted("%-5s|", "ab")); }

TEST(CrtSNPrintfText, IsPaddedWithBlanksWhereZerosAreAsked) {
  EXPECT_EQ("   ab", Formatted("%05s", "ab"));
  EXPECT_EQ("ab   |", Formatted("%-05s|", "ab"));
}

TEST(CrtSNPrintfText, IsNotCutByTheWidth) { EXPECT_EQ("abcdef", Formatted("%3s", "abcdef")); }

TEST(CrtSNPrintfText, IsCutByThePrecision) {
  EXPECT_EQ("abc", Formatted("%.3s", "abcdef"));
  EXPECT_EQ("  abc", Formatted("%5.3s", "abcdef"));
  EXPECT_EQ("abc  |", Formatted("%-5.3s|", "abcdef"));
}

TEST(CrtSNPrintfText, IsWholeWithinALargerPrecision) {
  EXPECT_EQ("abc", Formatted("%.3s", "abc"));
  EXPECT_EQ("abc", Formatted("%.4s", "abc"));
  EXPECT_EQ("abc", Formatted("%.2147483647s", "abc"));
}

TEST(CrtSNPrintfText, IsNothingWithAPrecisionOfZero) {
  EXPECT_EQ("", Formatted("%.0s", "abc"));
  EXPECT_EQ("", Formatted("%.s", "abc"));
  EXPECT_EQ("   ", Formatted("%3.0s", "abc"));
}

TEST(CrtSNPrintfText, TakesThePrecisionFromTheArguments) { EXPECT_EQ("ab", Formatted("%.*s", 2, "abcdef")); }

TEST(CrtSNPrintfText, TakesANegativePrecisionAsNone) { EXPECT_EQ("abcdef", Formatted("%.*s", -2, "abcdef")); }

TEST(CrtSNPrintfText, TakesWidthAndPrecisionFromTheArguments) {
  EXPECT_EQ("  ab7", Formatted("%*.*s%d", 4, 2, "abcdef", 7));
  EXPECT_EQ("ab  7", Formatted("%*.*s%d", -4, 2, "abcdef", 7));
}

TEST(CrtSNPrintfText, IgnoresSignAlternateFormAndModifiers) {
  EXPECT_EQ("ab", Formatted("%+ #'s", "ab"));
  EXPECT_EQ("abc", Formatted("%hs%ls%lls", "a", "b", "c"));
}

// A mapped page with an inaccessible one behind it: a byte too many ends the process.
class LastPage {
 public:
  LastPage() : size_(static_cast<size_t>(::sysconf(_SC_PAGESIZE))) {
    start_ = static_cast<char*>(
        ::mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_NE(MAP_FAILED, static_cast<void*>(start_));
    EXPECT_EQ(0, ::mprotect(start_ + size_, size_, PROT_NONE));
  }
  ~LastPage() { EXPECT_EQ(0, ::munmap(start_, 2 * size_)); }
  LastPage(const LastPage&) = delete;
  LastPage& operator=(const LastPage&) = delete;

  char* Last(size_t bytes) const { return start_ + size_ - bytes; }

 private:
  const size_t size_;
  char* start_;
};

TEST(CrtSNPrintfText, NeedNotBeTerminatedWithinThePrecision) {
  LastPage page;
  char* const text = page.Last(3);
  std::memcpy(text, "abc", 3);
  EXPECT_EQ("abc", Formatted("%.3s", text));
  EXPECT_EQ("  ab", Formatted("%4.2s", text));
  EXPECT_EQ(3, Measured("%.3s", text));
}

TEST(CrtSNPrintfText, IsNotLookedAtWithAPrecisionOfZero) {
  LastPage page;
  EXPECT_EQ("", Formatted("%.0s", page.Last(0)));
}

TEST(CrtSNPrintf, DoesNotReadBeyondTheFormat) {
  LastPage page;
  for (const char* format : {"%", "%-", "%5", "%.", "%.3", "%h", "%l", "%ll", "abc"}) {
    char* const place = page.Last(std::strlen(format) + 1);
    std::strcpy(place, format);
    EXPECT_EQ(*format == '%' ? 0 : 3, Measured(place)) << format;
  }
}

TEST(CrtSNPrintf, DoesNotStoreBeyondTheBuffer) {
  LastPage page;
  for (uint32_t size = 1; size <= 12; ++size) {
    char* const buffer = page.Last(size);
    EXPECT_EQ(11, OPL_CrtSNPrintf(buffer, size, "%4s%-4d%c%.2x", "ab", 7, 'c', 1u));
    EXPECT_EQ(size - 1, std::strlen(buffer));
  }
}

// A format that ends within a conversion.

TEST(CrtSNPrintfEnd, OfTheFormatAfterAPercentPrintsNothing) { EXPECT_EQ("100", Formatted("100%")); }

TEST(CrtSNPrintfEnd, OfTheFormatAfterFlagsPrintsNothing) { EXPECT_EQ("a", Formatted("a%0-+ #'")); }

TEST(CrtSNPrintfEnd, OfTheFormatAfterAWidthPrintsNothing) {
  EXPECT_EQ("a", Formatted("a%5"));
  EXPECT_EQ("a", Formatted("a%*", 5));
}

TEST(CrtSNPrintfEnd, OfTheFormatAfterAPrecisionPrintsNothing) {
  EXPECT_EQ("a", Formatted("a%."));
  EXPECT_EQ("a", Formatted("a%5.3"));
  EXPECT_EQ("a", Formatted("a%.*", 3));
}

TEST(CrtSNPrintfEnd, OfTheFormatAfterAModifierPrintsNothing) {
  EXPECT_EQ("a", Formatted("a%l"));
  EXPECT_EQ("a", Formatted("a%ll"));
  EXPECT_EQ("a", Formatted("a%h"));
  EXPECT_EQ("a", Formatted("a%5.3l"));
}

// Conversions that there are not.

TEST(CrtSNPrintfUnknown, PrintsTheCharacterAndTakesNoArgument) {
  for (const char conversion :
       std::string("abeEfFgGjkmnqrtvwyzABCGHIJKLMNPQRSTVWYZ!\"$&()/:;<=>?@[\\]^_`{|}~,"))
    EXPECT_EQ(std::string(1, conversion) + "7", Formatted((std::string("%") + conversion + "%d").c_str(), 7))
        << conversion;
}

TEST(CrtSNPrintfUnknown, DropsFlagsWidthPrecisionAndModifier) {
  EXPECT_EQ("e7", Formatted("%0-+ #'12.5le%d", 7));
  EXPECT_EQ("f7", Formatted("%10f%d", 7));
}

TEST(CrtSNPrintfUnknown, HasTakenWidthAndPrecisionFromTheArguments) {
  EXPECT_EQ("f7", Formatted("%*.*f%d", 10, 3, 7));
}

TEST(CrtSNPrintfUnknown, PrintsControlAndHighCharacters) {
  EXPECT_EQ("\n", Formatted("%\n"));
  EXPECT_EQ("\xFF", Formatted("%\xFF"));
}

TEST(CrtSNPrintfUnknown, DoesNotStoreForN) {
  int stored = 5;
  EXPECT_EQ("abn", Formatted("ab%n", &stored));
  EXPECT_EQ(5, stored);
}

TEST(CrtSNPrintfUnknown, TakesAThirdLForAConversion) {
  EXPECT_EQ("l", Formatted("%lll"));
  EXPECT_EQ("ld7", Formatted("%llld%d", 7));
}

TEST(CrtSNPrintfUnknown, TakesASecondHForAConversion) { EXPECT_EQ("hd7", Formatted("%hhd%d", 7)); }

TEST(CrtSNPrintfUnknown, TakesASecondModifierForAConversion) {
  EXPECT_EQ("hd7", Formatted("%lhd%d", 7));
  EXPECT_EQ("ld7", Formatted("%hld%d", 7));
}

TEST(CrtSNPrintfUnknown, TakesAFlagAfterWidthOrPrecisionForAConversion) {
  EXPECT_EQ("-d7", Formatted("%5-d%d", 7));
  EXPECT_EQ("-3d7", Formatted("%.-3d%d", 7));
  EXPECT_EQ("+d7", Formatted("%l+d%d", 7));
}

TEST(CrtSNPrintfUnknown, TakesASecondPrecisionForAConversion) { EXPECT_EQ(".3d7", Formatted("%.2.3d%d", 7)); }

TEST(CrtSNPrintfUnknown, TakesAWidthBehindAStarForAConversion) {
  EXPECT_EQ("5d7", Formatted("%*5d%d", 3, 7));
}

// Floating point is not known, and a double stays where the caller put it. In the 32-bit library that is
// where the next integer is looked for; in the 64-bit library it is not.
TEST(CrtSNPrintfUnknown, PrintsFForADoubleWhoseWordsTheNextConversionsReadInThirtyTwoBits) {
  double value;
  const uint64_t bits = 0x3FF8000000000007;
  std::memcpy(&value, &bits, sizeof value);
  const char* const expected = opltest::kWidth == 32 ? "f 7 1073217536 9" : "f 9 10 11";
  EXPECT_EQ(expected, Formatted("%f %d %d %d", value, 9, 10, 11));
}

// Very long results.

TEST(CrtSNPrintfLength, CountsPaddingBeyondTheBuffer) {
  char buffer[4];
  EXPECT_EQ(1000000, OPL_CrtSNPrintf(buffer, sizeof buffer, "%1000000s", "x"));
  EXPECT_STREQ("   ", buffer);
  EXPECT_EQ(1000000, OPL_CrtSNPrintf(buffer, sizeof buffer, "%-1000000s", "x"));
  EXPECT_STREQ("x  ", buffer);
}

TEST(CrtSNPrintfLength, CountsZerosBeyondTheBuffer) {
  char buffer[4];
  EXPECT_EQ(1000001, OPL_CrtSNPrintf(buffer, sizeof buffer, "%.1000000d", -5));
  EXPECT_STREQ("-00", buffer);
  EXPECT_EQ(1000000, OPL_CrtSNPrintf(buffer, sizeof buffer, "%01000000d", -5));
  EXPECT_STREQ("-00", buffer);
}

TEST(CrtSNPrintfLength, ReachesTheLargestWidth) {
  EXPECT_EQ(INT32_MAX, Measured("%2147483647d", 5));
  EXPECT_EQ(INT32_MAX, Measured("%*d", INT32_MAX, 5));
  EXPECT_EQ(INT32_MAX, Measured("%-2147483647s", "x"));
  EXPECT_EQ(INT32_MAX, Measured("%02147483647d", 5));
  EXPECT_EQ(INT32_MAX, Measured("%.2147483647d", 5));
}

TEST(CrtSNPrintfLength, StaysAtTheLargestNumber) {
  EXPECT_EQ(INT32_MAX, Measured("%2147483647dx", 5));
  EXPECT_EQ(INT32_MAX, Measured("%2147483647d%2147483647d%2147483647d", 1, 2, 3));
  EXPECT_EQ(INT32_MAX, Measured("%.2147483647d", -5));
  EXPECT_EQ(INT32_MAX, Measured("%#.2147483647x", 5));
  EXPECT_EQ(INT32_MAX, Measured("%*d", INT32_MIN, 5));
}

TEST(CrtSNPrintfLength, TakesAWidthOrPrecisionBeyondTheLargestNumberForTheLargest) {
  EXPECT_EQ(INT32_MAX, Measured("%99999999999999999999999999d", 5));
  EXPECT_EQ(INT32_MAX, Measured("%4294967296d", 5));
  EXPECT_EQ(INT32_MAX, Measured("%.4294967297d", 5));
  EXPECT_EQ("abc", Formatted("%.99999999999999999999999999s", "abc"));
}

TEST(CrtSNPrintfLength, StoresTheStartOfAnEndlessResult) {
  char buffer[6];
  EXPECT_EQ(INT32_MAX, OPL_CrtSNPrintf(buffer, sizeof buffer, "ab%*dcd", INT32_MIN, 5));
  EXPECT_STREQ("ab5  ", buffer);
  EXPECT_EQ(INT32_MAX, OPL_CrtSNPrintf(buffer, sizeof buffer, "ab%2147483647.2147483647dcd", 5));
  EXPECT_STREQ("ab000", buffer);
}

TEST(CrtSNPrintf, WorksInManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([i] {
      const std::string expected = std::to_string(i) + " of text";
      for (int round = 0; round < 500; ++round) ASSERT_EQ(expected, Formatted("%d of %s", i, "text"));
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
