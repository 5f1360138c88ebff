#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

#include "platform/WideString.h"

using corvane::FromUtf8;
using corvane::ToUtf8;
using corvane::WFormat;
using corvane::WString;

namespace {
// Formats and returns UTF-8, so failures print readable text.
template <typename... Args>
std::string F(const OLECHAR* fmt, Args... args) {
  return ToUtf8(WFormat(fmt, args...));
}
}  // namespace

TEST(WideFormat, IntegersWidthsAndPrecision) {
  EXPECT_EQ(F(OLESTR("%d|%i|%u"), -42, 17, 4000000000u), "-42|17|4000000000");
  EXPECT_EQ(F(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d"), 2024, 3, 7, 9, 5, 0), "2024-03-07 09:05:00");
  EXPECT_EQ(F(OLESTR("[%5d][%-5d][%05d][%+d][% d]"), 42, 42, -42, 42, 42), "[   42][42   ][-0042][+42][ 42]");
  EXPECT_EQ(F(OLESTR("[%*d][%-*d][%.*d]"), 6, 1, 3, 2, 3, 7), "[     1][2  ][007]");
  EXPECT_EQ(F(OLESTR("[%*d]"), -4, 9), "[9   ]");  // negative width means left-aligned
  EXPECT_EQ(F(OLESTR("[%.0d][%5.3d][%08.3d]"), 0, -5, 5), "[][ -005][     005]");
  EXPECT_EQ(F(OLESTR("%d %d"), INT_MIN, INT_MAX), "-2147483648 2147483647");
}

TEST(WideFormat, HexOctalAndHResults) {
  EXPECT_EQ(F(OLESTR("%X %x %08X"), 0x8004C001u, 0xbeefu, 0x1Fu), "8004C001 beef 0000001F");
  EXPECT_EQ(F(OLESTR("%#x %#X %#x %#o %o"), 255u, 255u, 0u, 8u, 0u), "0xff 0XFF 0 010 0");
  // An HRESULT is a signed 32-bit value passed to %X.
  HRESULT hr = E_INVALIDARG;
  EXPECT_EQ(F(OLESTR("HR = %X"), hr), "HR = 80070057");
}

TEST(WideFormat, SizePrefixesReadTheRightWidth) {
  // If a prefix read the wrong width, the second argument would come out wrong.
  EXPECT_EQ(F(OLESTR("%lld %d"), -9000000000LL, 7), "-9000000000 7");
  EXPECT_EQ(F(OLESTR("%I64d %I64u %d"), INT64_MIN, UINT64_MAX, 7), "-9223372036854775808 18446744073709551615 7");
  EXPECT_EQ(F(OLESTR("%I64X %d"), 0x123456789ABCull, 8), "123456789ABC 8");
  EXPECT_EQ(F(OLESTR("%zu %d"), static_cast<size_t>(1) << 40, 9), "1099511627776 9");
  EXPECT_EQ(F(OLESTR("%Iu %d"), static_cast<size_t>(5), 9), "5 9");
  // long is 32 bits on Windows and 64 on Linux; %ld must read a long either way.
  EXPECT_EQ(F(OLESTR("%ld %lu %d"), LONG_MIN, ULONG_MAX, 3),
            std::to_string(LONG_MIN) + " " + std::to_string(ULONG_MAX) + " 3");
  EXPECT_EQ(F(OLESTR("%hd %hu %hhu"), 70000, 70000, 300), "4464 4464 44");
}

TEST(WideFormat, StringsAndCharacters) {
  EXPECT_EQ(F(OLESTR("Called %s::%s"), OLESTR("CProviderSession"), OLESTR("GetRowset")),
            "Called CProviderSession::GetRowset");
  EXPECT_EQ(F(OLESTR("[%s]"), static_cast<const OLECHAR*>(nullptr)), "[(null)]");
  EXPECT_EQ(F(OLESTR("[%-10s][%10s][%.2s][%-6.3s]"), OLESTR("abc"), OLESTR("abc"), OLESTR("abc"), OLESTR("abcdef")),
            "[abc       ][       abc][ab][abc   ]");
  EXPECT_EQ(F(OLESTR("%hs|%S|%ls"), "narrow", "upper-S", OLESTR("wide")), "narrow|upper-S|wide");
  EXPECT_EQ(F(OLESTR("%hs"), static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(F(OLESTR("%c%c%3c|%-3c|"), OLECHAR('a'), static_cast<OLECHAR>(0x20AC), OLECHAR('b'), OLECHAR('c')),
            "a\xE2\x82\xAC  b|c  |");
  EXPECT_EQ(F(OLESTR("%hc"), 'n'), "n");
  // Non-ASCII text passes through %s untouched, including surrogate pairs.
  const WString text = FromUtf8("T\xC3\xA4g \xF0\x9F\x98\x80");
  EXPECT_EQ(ToUtf8(WFormat(OLESTR("<%s>"), text.c_str())), "<T\xC3\xA4g \xF0\x9F\x98\x80>");
}

TEST(WideFormat, FloatingPoint) {
  EXPECT_EQ(F(OLESTR("%f %.2f %8.3f %-8.1f|"), 3.5, 2.005, -1.5, 2.25), "3.500000 2.00   -1.500 2.2     |");
  EXPECT_EQ(F(OLESTR("%e %.2E"), 12345.678, 0.000123), "1.234568e+04 1.23E-04");
  EXPECT_EQ(F(OLESTR("%g %g %G %g"), 0.0001, 1e20, 1e-10, 100.0), "0.0001 1e+20 1E-10 100");
  EXPECT_EQ(F(OLESTR("%+.1f %05.1f %d"), 1.0, -2.5, 4), "+1.0 -02.5 4");
  EXPECT_EQ(F(OLESTR("%.0f %.0f"), 0.5, 1.5), "0 2");
}

TEST(WideFormat, PointersPercentAndOddFormats) {
  void* p = reinterpret_cast<void*>(static_cast<uintptr_t>(0x1234ABCD));
  EXPECT_EQ(F(OLESTR("%p"), p), std::string(sizeof(void*) * 2 - 8, '0') + "1234ABCD");
  EXPECT_EQ(F(OLESTR("100%% %d%%"), 5), "100% 5%");
  // An unknown conversion shows as written and takes no argument; a lone '%' at the
  // end stays.
  EXPECT_EQ(F(OLESTR("%y %d %"), 3), "%y 3 %");
  EXPECT_EQ(F(OLESTR("no placeholders")), "no placeholders");
  EXPECT_EQ(ToUtf8(corvane::WFormat(nullptr)), "");
  // A huge width is capped rather than allocating without bound.
  EXPECT_LE(WFormat(OLESTR("%999999999d"), 1).size(), 10000u);
}

TEST(Utf8Conversion, RoundTripsAllPlanes) {
  const std::string utf8 = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";  // A é € 😀 U+10FFFF
  const WString w = FromUtf8(utf8);
  ASSERT_EQ(w.size(), 7u);
  EXPECT_EQ(static_cast<uint16_t>(w[2]), 0x20AC);
  EXPECT_EQ(static_cast<uint16_t>(w[3]), 0xD83D);
  EXPECT_EQ(static_cast<uint16_t>(w[4]), 0xDE00);
  EXPECT_EQ(static_cast<uint16_t>(w[5]), 0xDBFF);
  EXPECT_EQ(static_cast<uint16_t>(w[6]), 0xDFFF);
  EXPECT_EQ(ToUtf8(w), utf8);
  EXPECT_EQ(ToUtf8(static_cast<const OLECHAR*>(nullptr)), "");
}

TEST(Utf8Conversion, InvalidInputBecomesReplacementCharacters) {
  const std::string fffd = "\xEF\xBF\xBD";
  // Stray continuation byte, bytes never valid, truncated sequence at the end.
  EXPECT_EQ(ToUtf8(FromUtf8("a\x80z")), "a" + fffd + "z");
  EXPECT_EQ(ToUtf8(FromUtf8("\xC0\xAF")), fffd + fffd);  // overlong '/'
  EXPECT_EQ(ToUtf8(FromUtf8("\xFF")), fffd);
  EXPECT_EQ(ToUtf8(FromUtf8("x\xE2\x82")), "x" + fffd);
  // A broken sequence is one replacement, and the byte that broke it starts over.
  EXPECT_EQ(ToUtf8(FromUtf8("\xE2\x82" "A")), fffd + "A");
  // Encoded surrogates and code points above U+10FFFF are refused.
  EXPECT_EQ(ToUtf8(FromUtf8("\xED\xA0\x80")), fffd + fffd + fffd);
  EXPECT_EQ(ToUtf8(FromUtf8("\xF4\x90\x80\x80")), fffd + fffd + fffd + fffd);
  // Unpaired surrogates in UTF-16 become U+FFFD in UTF-8.
  const OLECHAR lone[] = {static_cast<OLECHAR>(0xD800), OLECHAR('x'), static_cast<OLECHAR>(0xDC00), 0};
  EXPECT_EQ(ToUtf8(lone), fffd + "x" + fffd);
}

TEST(WideCompare, CaseBlindForAsciiAndLatin1) {
  using corvane::WICmp;
  EXPECT_EQ(WICmp(OLESTR("rawdata_double"), OLESTR("RAWDATA_DOUBLE")), 0);
  EXPECT_TRUE(corvane::WIEquals(FromUtf8("\xC3\xA9t\xC3\xA9"), FromUtf8("\xC3\x89T\xC3\x89")));  // été / ÉTÉ
  EXPECT_FALSE(corvane::WIEquals(OLESTR("TAG"), OLESTR("TAGS")));
  EXPECT_LT(WICmp(OLESTR("TAG"), OLESTR("tags")), 0);
  EXPECT_GT(WICmp(OLESTR("b"), OLESTR("A")), 0);
  // Folding to lower case puts '_' before letters, as the Windows run-time does.
  EXPECT_LT(WICmp(OLESTR("A_"), OLESTR("Ab")), 0);
  EXPECT_EQ(WICmp(static_cast<const OLECHAR*>(nullptr), OLESTR("")), 0);
  EXPECT_LT(corvane::WCmp(nullptr, OLESTR("a")), 0);
  EXPECT_LT(corvane::WCmp(OLESTR("a"), OLESTR("\u00E9")), 0);  // unsigned order
  EXPECT_EQ(ToUtf8(corvane::WUpper(FromUtf8("stra\xC3\x9F" "e \xC3\xA4\xC3\xB7\xC3\xBF"))),
            "STRA\xC3\x9F" "E \xC3\x84\xC3\xB7\xC5\xB8");  // ß stays, ÷ stays, ÿ -> Ÿ
  EXPECT_EQ(corvane::WLen(nullptr), 0u);
  EXPECT_EQ(corvane::WLen(OLESTR("four")), 4u);
}
