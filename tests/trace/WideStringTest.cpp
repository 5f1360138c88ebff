#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "platform/WideString.h"

namespace corvane {

namespace {
// Formats and returns UTF-8, so failures print readable text.
template <typename... Args>
std::string F(const OLECHAR* fmt, Args... args) { return ToUtf8(WFormat(fmt, args...)); }
}  // namespace

// The provider's texts and traces use %d, %u, %X and %s with widths and precisions; a
// wrong or unknown conversion must still give a bounded text.
TEST(WideFormat, TheConversionsTheProviderWrites) {
  EXPECT_EQ(F(OLESTR("%d|%u"), -42, 4000000000u), "-42|4000000000");
  EXPECT_EQ(F(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d.%.3d"), 2024, 3, 7, 9, 5, 0, 7), "2024-03-07 09:05:00.007");
  EXPECT_EQ(F(OLESTR("[%02u][%5d][%-5d][%08X]"), 5u, 42, 42, 0x1Fu), "[05][   42][42   ][0000001F]");
  EXPECT_EQ(F(OLESTR("%d %d"), INT_MIN, INT_MAX), "-2147483648 2147483647");
  // An HRESULT is a signed 32-bit value passed to %X.
  HRESULT hr = E_INVALIDARG;
  EXPECT_EQ(F(OLESTR("HR = %X, %X"), hr, 0x8004C001u), "HR = 80070057, 8004C001");
  EXPECT_EQ(F(OLESTR("[%s]"), static_cast<const OLECHAR*>(nullptr)), "[(null)]");
  // Non-ASCII text of two, three and four bytes passes through %s untouched, up to the last
  // plane: T a-umlaut g, euro, then U+1F600 and U+10FFFF as two surrogate pairs.
  const WString text = FromUtf8("T\xC3\xA4g\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF");
  ASSERT_EQ(8u, text.size());
  EXPECT_EQ(ToUtf8(WFormat(OLESTR("<%s>"), text.c_str())), "<T\xC3\xA4g\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF>");
  EXPECT_EQ(F(OLESTR("100%% %d%%"), 5), "100% 5%");
  // An unknown conversion shows as written and takes no argument; a lone '%' at the end stays.
  EXPECT_EQ(F(OLESTR("%y %d %"), 3), "%y 3 %");
  EXPECT_EQ(ToUtf8(corvane::WFormat(nullptr)), "");
  // A huge width is capped rather than allocating without bound.
  EXPECT_LE(WFormat(OLESTR("%999999999d"), 1).size(), 10000u);
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
}

}  // namespace corvane
