#include <gtest/gtest.h>

#include <cstddef>

#include "platform/Platform.h"

// The POSIX layer must lay data out exactly as the Windows SDK does: these structures
// cross interfaces and are written into consumers' buffers.
static_assert(sizeof(VARIANT) == 24, "VARIANT is 24 bytes on x64");
static_assert(offsetof(VARIANT, vt) == 0, "vt first");
static_assert(offsetof(VARIANT, lVal) == 8, "value at 8");
static_assert(offsetof(VARIANT, llVal) == 8, "value at 8");
static_assert(offsetof(VARIANT, bstrVal) == 8, "value at 8");
static_assert(sizeof(DECIMAL) == 16, "DECIMAL overlays the whole VARIANT head");
static_assert(sizeof(DBTIMESTAMP) == 16, "DBTIMESTAMP is 16 bytes");
static_assert(offsetof(DBTIMESTAMP, fraction) == 12, "fraction last");
static_assert(sizeof(FILETIME) == 8, "FILETIME is two DWORDs");
static_assert(sizeof(SYSTEMTIME) == 16, "SYSTEMTIME is eight WORDs");
static_assert(sizeof(GUID) == 16, "GUID is 16 bytes");
static_assert(sizeof(OLECHAR) == 2, "OLECHAR is one UTF-16 code unit");
static_assert(sizeof(CY) == 8, "CY is 64-bit");
static_assert(sizeof(HRESULT) == 4 && sizeof(ULONG) == 4 && sizeof(LONG) == 4, "32-bit LONG as on Windows");

TEST(Layout, VariantMembersShareTheValueSlot) {
  VARIANT v;
  v.vt = VT_I8;
  v.llVal = 0x0102030405060708LL;
  EXPECT_EQ(v.lVal, 0x05060708);
  EXPECT_EQ(v.decVal.Lo64 & 0xFFFFFFFFu, 0x05060708u);
}
