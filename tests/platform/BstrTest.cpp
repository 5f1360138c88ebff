#include <gtest/gtest.h>

#include <cstring>

#include "platform/AllocCounters.h"
#include "platform/Platform.h"

namespace {

// The prefix before the text is what other code (and consumers across an interface)
// read for the length, so it is checked directly, not only through SysStringByteLen.
DWORD Prefix(BSTR s) {
  DWORD v;
  std::memcpy(&v, reinterpret_cast<const char*>(s) - sizeof(DWORD), sizeof v);
  return v;
}

TEST(BstrLayout, PrefixHoldsByteLengthAndTextIsTerminated) {
  BSTR s = SysAllocString(OLESTR("abc"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(Prefix(s), 6u);
  EXPECT_EQ(SysStringLen(s), 3u);
  EXPECT_EQ(SysStringByteLen(s), 6u);
  EXPECT_EQ(s[0], OLECHAR('a'));
  EXPECT_EQ(s[3], OLECHAR(0));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(s) % 4, 0u);
  SysFreeString(s);
}

TEST(BstrLayout, EmbeddedNullsCountInTheLength) {
  const OLECHAR text[] = {'a', 0, 'b', 0, 'c'};
  BSTR s = SysAllocStringLen(text, 5);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(SysStringLen(s), 5u);
  EXPECT_EQ(std::memcmp(s, text, sizeof text), 0);
  EXPECT_EQ(s[5], OLECHAR(0));
  // SysAllocString stops at the first null, unlike the length-taking form.
  BSTR t = SysAllocString(text);
  EXPECT_EQ(SysStringLen(t), 1u);
  SysFreeString(t);
  SysFreeString(s);
}

TEST(BstrLayout, ByteLengthMayBeOddAndIsFollowedByZeros) {
  BSTR s = SysAllocStringByteLen("xyz", 3);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(SysStringByteLen(s), 3u);
  EXPECT_EQ(SysStringLen(s), 1u);
  const char* bytes = reinterpret_cast<const char*>(s);
  EXPECT_EQ(std::memcmp(bytes, "xyz", 3), 0);
  EXPECT_EQ(bytes[3], 0);
  EXPECT_EQ(bytes[4], 0);
  SysFreeString(s);
}

TEST(BstrLayout, EmptyAndNullStringsAreDistinct) {
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  BSTR empty = SysAllocString(OLESTR(""));
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(SysStringLen(empty), 0u);
  EXPECT_EQ(empty[0], OLECHAR(0));
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  SysFreeString(empty);
  SysFreeString(nullptr);  // must be harmless
}

TEST(BstrLayout, ReallocAcceptsTextFromInsideTheOldString) {
  BSTR s = SysAllocString(OLESTR("hello world"));
  ASSERT_TRUE(SysReAllocString(&s, s + 6));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(SysStringLen(s), 5u);
  EXPECT_EQ(std::memcmp(s, OLESTR("world"), 6 * sizeof(OLECHAR)), 0);
  ASSERT_TRUE(SysReAllocStringLen(&s, s, 3));
  EXPECT_EQ(SysStringLen(s), 3u);
  EXPECT_EQ(s[3], OLECHAR(0));
  EXPECT_EQ(std::memcmp(s, OLESTR("wor"), 3 * sizeof(OLECHAR)), 0);
  SysFreeString(s);
  EXPECT_FALSE(SysReAllocString(nullptr, OLESTR("x")));
}

#ifndef _WIN32
// On Windows the system keeps a cache of freed strings, so only the POSIX layer's own
// counts are exact enough to compare.
TEST(BstrLayout, EveryStringIsCountedUntilFreed) {
  corvane::platform::StartAllocCounting();
  auto before = corvane::platform::CurrentAllocCounts();
  BSTR a = SysAllocString(OLESTR("a"));
  BSTR b = SysAllocStringByteLen(nullptr, 10);
  SysReAllocString(&a, OLESTR("longer text"));
  auto during = corvane::platform::CurrentAllocCounts();
  EXPECT_EQ(during.bstrs - before.bstrs, 2);
  EXPECT_EQ(during.comBlocks, before.comBlocks);
  SysFreeString(a);
  SysFreeString(b);
  EXPECT_EQ(corvane::platform::CurrentAllocCounts().bstrs, before.bstrs);
}
#endif

}  // namespace
