#include <gtest/gtest.h>

#include <cstring>

#include "platform/Platform.h"

namespace {

// The prefix before the text is what other code (and consumers across an interface)
// read for the length, so it is checked directly, not only through SysStringByteLen.
DWORD Prefix(BSTR s) {
  DWORD v;
  std::memcpy(&v, reinterpret_cast<const char*>(s) - sizeof(DWORD), sizeof v);
  return v;
}

TEST(BstrLayout, PrefixLengthTerminatorAndEmbeddedNulls) {
  BSTR s = SysAllocString(OLESTR("abc"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(Prefix(s), 6u);
  EXPECT_EQ(SysStringLen(s), 3u);
  EXPECT_EQ(SysStringByteLen(s), 6u);
  EXPECT_EQ(std::memcmp(s, OLESTR("abc"), 4 * sizeof(OLECHAR)), 0) << "text and terminator";
  EXPECT_EQ(reinterpret_cast<uintptr_t>(s) % 4, 0u);
  SysFreeString(s);

  const OLECHAR text[] = {'a', 0, 'b', 0, 'c'};
  s = SysAllocStringLen(text, 5);
  EXPECT_EQ(SysStringLen(s), 5u);
  EXPECT_EQ(std::memcmp(s, text, sizeof text), 0);
  EXPECT_EQ(s[5], OLECHAR(0));
  BSTR t = SysAllocString(text);  // stops at the first null, unlike the length-taking form
  EXPECT_EQ(SysStringLen(t), 1u);
  SysFreeString(t);
  SysFreeString(s);

  // Empty and null are distinct; null is harmless everywhere.
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  s = SysAllocString(OLESTR(""));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(SysStringLen(s), 0u);
  EXPECT_EQ(s[0], OLECHAR(0));
  SysFreeString(s);
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  SysFreeString(nullptr);
}

}  // namespace
