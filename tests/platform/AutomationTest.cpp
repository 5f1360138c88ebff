// The Automation types the POSIX layer provides as Windows does: BSTRs, VARIANT lifetimes, the ISO date texts and the
// calendar of FILETIME. Under Wine the first two run against the system's own.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

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

// Counts references so the tests can see exactly which calls AddRef or Release.
struct CountedObject : IUnknown {
  ULONG refs = 1;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }
};

int64_t LiveBstrs() {
#ifdef _WIN32
  return 0;  // the system's string cache makes counts inexact there
#else
  corvane::platform::StartAllocCounting();
  return corvane::platform::CurrentAllocCounts().bstrs;
#endif
}

// A consumer's VARIANT parameter may hold a string, a reference or an interface: the
// provider copies it with VariantCopyInd and clears its copy.
TEST(VariantLifetime, ClearReleasesWhatTheVariantOwnsAndRefusesWhatItCannotRead) {
  const int64_t base = LiveBstrs();
  BSTR s = SysAllocString(OLESTR("caller's"));
  CountedObject obj;
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_BSTR;
  v.bstrVal = SysAllocString(OLESTR("owned"));
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(v.vt, VT_EMPTY);
  v.vt = VT_BYREF | VT_BSTR;
  v.pbstrVal = &s;
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(SysStringLen(s), 8u) << "a referenced string stays the caller's";
  obj.refs = 2;
  v.vt = VT_UNKNOWN;
  v.punkVal = &obj;
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(obj.refs, 1u);
  v.vt = VT_DISPATCH;
  v.punkVal = nullptr;  // a null interface is legal and released as nothing
  EXPECT_EQ(VariantClear(&v), S_OK);
  SysFreeString(s);
  EXPECT_EQ(LiveBstrs(), base);
  for (VARTYPE bad : {VARTYPE(15), VARTYPE(0x7F), VARTYPE(VT_BYREF | VT_NULL), VARTYPE(VT_VECTOR | VT_I4)}) {
    v.vt = bad;
    EXPECT_EQ(VariantClear(&v), DISP_E_BADVARTYPE) << bad;
    EXPECT_EQ(v.vt, bad) << "left untouched";
  }
}

TEST(VariantLifetime, CopiesDuplicateStringsAddReferencesAndFollowOneLevelOfReference) {
  const int64_t base = LiveBstrs();
  const OLECHAR text[] = {'x', 0, 'y'};
  VARIANT src, dst;
  src.vt = VT_BSTR;
  src.bstrVal = SysAllocStringLen(text, 3);
  dst.vt = VT_BSTR;
  dst.bstrVal = SysAllocString(OLESTR("old content, released by the copy"));
  ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
  EXPECT_NE(dst.bstrVal, src.bstrVal);
  ASSERT_EQ(SysStringLen(dst.bstrVal), 3u);
  EXPECT_EQ(std::memcmp(dst.bstrVal, text, sizeof text), 0);
  EXPECT_EQ(VariantCopy(&src, &src), S_OK) << "onto itself: neither freed nor duplicated";
  EXPECT_EQ(SysStringLen(src.bstrVal), 3u);
  CountedObject obj;
  VARIANT u;
  u.vt = VT_UNKNOWN;
  u.punkVal = &obj;
  ASSERT_EQ(VariantCopy(&dst, &u), S_OK);
  EXPECT_EQ(obj.refs, 2u);
  VariantClear(&dst);
  EXPECT_EQ(obj.refs, 1u);

  // VariantCopyInd: a referenced string is duplicated, a DECIMAL copied whole, a value
  // converted in place, and a reference to a reference refused.
  VARIANT ref, out;
  VariantInit(&out);
  ref.vt = VT_BYREF | VT_BSTR;
  ref.pbstrVal = &src.bstrVal;
  ASSERT_EQ(VariantCopyInd(&out, &ref), S_OK);
  EXPECT_TRUE(out.vt == VT_BSTR && out.bstrVal != src.bstrVal && SysStringLen(out.bstrVal) == 3);
  VariantClear(&out);
  ref.vt = VT_BYREF | VT_VARIANT;
  ref.pvarVal = &src;
  ASSERT_EQ(VariantCopyInd(&out, &ref), S_OK);
  EXPECT_EQ(out.vt, VT_BSTR);
  EXPECT_NE(out.bstrVal, src.bstrVal);
  VariantClear(&out);
  VARIANT twice;
  twice.vt = VT_BYREF | VT_VARIANT;
  twice.pvarVal = &ref;
  EXPECT_EQ(VariantCopyInd(&out, &twice), E_INVALIDARG);
  DECIMAL d{};
  d.scale = 2;
  d.sign = DECIMAL_NEG;
  d.Lo64 = 12345;
  ref.vt = VT_BYREF | VT_DECIMAL;
  ref.pdecVal = &d;
  ASSERT_EQ(VariantCopyInd(&out, &ref), S_OK);
  EXPECT_EQ(out.vt, VT_DECIMAL);
  EXPECT_EQ(std::memcmp(&out.decVal.scale, &d.scale, sizeof d - 2), 0);
  LONG l = -7;
  ref.vt = VT_BYREF | VT_I4;
  ref.plVal = &l;
  ASSERT_EQ(VariantCopyInd(&ref, &ref), S_OK);
  EXPECT_EQ(ref.vt, VT_I4);
  EXPECT_EQ(ref.lVal, -7);
  VariantClear(&src);
  EXPECT_EQ(LiveBstrs(), base);
}

// What VariantChangeType answers for each value is compared with the system's own conversions by the differential probe
// (tests/differential/probe_variant.cpp), and the strings of the conversions the provider makes are counted by the leak
// checks of the conversion and expression suites. What is left here is what neither can see: the ISO forms the layer
// reads beyond the system's parser, whose values the probe only lists as differences.
#ifndef _WIN32
TEST(VariantDateConversion, IsoTextWithTZoneAndFractionReads) {
  const DATE jan2 = 43832;  // 2020-01-02
  const struct { std::u16string text; HRESULT hr; DATE date; } cases[] = {
      {u"2020-01-02T15:04:05Z", S_OK, jan2 + (15 * 3600 + 4 * 60 + 5) / 86400.0},
      {u"2020-01-02T15:04:05.250", S_OK, jan2 + (15 * 3600 + 4 * 60 + 5.25) / 86400.0},
      {u"2020-01-02T25:00:00", DISP_E_TYPEMISMATCH, -1},
  };
  for (auto c : cases) {
    DATE date = -1;
    EXPECT_EQ(VarDateFromStr(c.text.data(), 0x0409, 0, &date), c.hr);
    EXPECT_NEAR(date, c.date, 1e-9);
  }
}

// FILETIME <-> SYSTEMTIME: named instants, random instants, the limits and each invalid field are compared with the
// system's answers by the differential probe (tests/differential/probe_time.cpp). Kept here: the cases where Wine,
// which runs the Windows build, answers differently from Windows.
SYSTEMTIME St(WORD y, WORD mo, WORD d) { return SYSTEMTIME{y, mo, 0, d, 0, 0, 0, 0}; }

TEST(FileTimeCalendar, OnlyRealDatesUpToTheYear30827Convert) {
  // Wine converts any year whose instant still fits, and takes 29 February in every year.
  for (const SYSTEMTIME& st : {St(30828, 1, 1), St(2021, 2, 29), St(1900, 2, 29), St(2100, 2, 29)}) {
    FILETIME ft{0x12345678, 0x9ABC};
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft)) << st.wYear << "-" << st.wMonth << "-" << st.wDay;
  }
  for (const SYSTEMTIME& st : {St(2000, 2, 29), St(2024, 2, 29)}) {
    FILETIME ft{};
    EXPECT_TRUE(SystemTimeToFileTime(&st, &ft)) << st.wYear;
  }
}
#endif

}  // namespace
