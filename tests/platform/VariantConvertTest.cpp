#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "platform/AllocCounters.h"
#include "platform/Platform.h"
#include "platform/WideString.h"

namespace {

const LCID kEnUs = 0x0409;

struct Var : VARIANT {
  Var() { VariantInit(this); }
  ~Var() { VariantClear(this); }
  Var(Var&& other) noexcept : VARIANT(other) { other.vt = VT_EMPTY; }
  Var(const Var&) = delete;
};

Var Text(const char* s) {
  Var v;
  v.vt = VT_BSTR;
  corvane::WString w = corvane::FromUtf8(s);
  v.bstrVal = SysAllocStringLen(w.data(), static_cast<UINT>(w.size()));
  return v;
}

Var Real(double d) {
  Var v;
  v.vt = VT_R8;
  v.dblVal = d;
  return v;
}

HRESULT Convert(VARIANT& src, VARTYPE vt, Var& out, USHORT flags = 0, LCID lcid = kEnUs) {
  return VariantChangeTypeEx(&out, &src, lcid, flags, vt);
}

std::string AsText(VARIANT& src, USHORT flags = 0, LCID lcid = kEnUs) {
  Var out;
  HRESULT hr = Convert(src, VT_BSTR, out, flags, lcid);
  if (FAILED(hr)) return "error";
  return corvane::ToUtf8(corvane::WStringView(out.bstrVal, SysStringLen(out.bstrVal)));
}

LONG AsI4(VARIANT& src, HRESULT expected = S_OK) {
  Var out;
  EXPECT_EQ(Convert(src, VT_I4, out), expected);
  return out.vt == VT_I4 ? out.lVal : -999999;
}

TEST(VariantNumberConversion, FloatsRoundHalfToEvenAndOverflowPastTheRange) {
  for (auto [in, want] : {std::pair{0.5, 0}, {1.5, 2}, {2.5, 2}, {-0.5, 0}, {-2.5, -2}, {2.5000001, 3}}) {
    Var v = Real(in);
    EXPECT_EQ(AsI4(v), want) << in;
  }
  Var out;
  Var big = Real(127.5);  // rounds to 128, one past VT_I1
  EXPECT_EQ(Convert(big, VT_I1, out), DISP_E_OVERFLOW);
  EXPECT_EQ(out.vt, VT_EMPTY);
  Var edge = Real(-128.5);  // rounds to -128, the last VT_I1
  ASSERT_EQ(Convert(edge, VT_I1, out), S_OK);
  EXPECT_EQ(out.cVal, -128);
  Var huge = Real(3.5e38);
  EXPECT_EQ(Convert(huge, VT_R4, out), DISP_E_OVERFLOW);
  Var i4;
  i4.vt = VT_I4;
  i4.lVal = 70000;
  EXPECT_EQ(Convert(i4, VT_I2, out), DISP_E_OVERFLOW);

  Var cy;
  cy.vt = VT_CY;
  cy.cyVal.int64 = 25000;  // 2.5
  EXPECT_EQ(AsI4(cy), 2);
  EXPECT_EQ(AsText(cy), "2.5");
  Var dec;
  dec.decVal.scale = 1;
  dec.decVal.sign = DECIMAL_NEG;
  dec.decVal.Hi32 = 0;
  dec.decVal.Lo64 = 35;  // -3.5
  dec.vt = VT_DECIMAL;
  EXPECT_EQ(AsI4(dec), -4);
  Var d = Real(1.23456789);
  ASSERT_EQ(Convert(d, VT_CY, out), S_OK);
  EXPECT_EQ(out.cyVal.int64, 12346);
}

TEST(VariantNumberConversion, BooleansAreMinusOneAndZero) {
  Var t;
  t.vt = VT_BOOL;
  t.boolVal = VARIANT_TRUE;
  EXPECT_EQ(AsI4(t), -1);
  EXPECT_EQ(AsText(t), "-1");
  EXPECT_EQ(AsText(t, VARIANT_ALPHABOOL), "True");
  Var out;
  Var two = Real(2);
  ASSERT_EQ(Convert(two, VT_BOOL, out), S_OK);
  EXPECT_EQ(out.boolVal, VARIANT_TRUE);
  for (const char* s : {"True", "TRUE", "-1", "1e3"}) {
    Var v = Text(s);
    ASSERT_EQ(Convert(v, VT_BOOL, out), S_OK) << s;
    EXPECT_EQ(out.boolVal, VARIANT_TRUE) << s;
  }
  Var f = Text("false");
  ASSERT_EQ(Convert(f, VT_BOOL, out), S_OK);
  EXPECT_EQ(out.boolVal, VARIANT_FALSE);
  Var yes = Text("Yes");
  EXPECT_EQ(Convert(yes, VT_BOOL, out), DISP_E_TYPEMISMATCH);
}

TEST(VariantTextConversion, NumbersAreReadWithTheEnUsRules) {
  struct {
    const char* text;
    LONG value;
  } good[] = {{" 12 ", 12}, {"1,000", 1000}, {"1e3", 1000}, {"+5", 5}, {"5-", -5}, {"(5)", -5}, {"$7", 7},
              {"12.5", 12}, {"13.5", 14}, {"&H10", 16}};
  for (auto& c : good) {
    Var v = Text(c.text);
    EXPECT_EQ(AsI4(v), c.value) << c.text;
  }
  for (const char* bad : {"abc", "", " ", "12abc", "1e", "--5", "0x10", "1.5.5"}) {
    Var v = Text(bad);
    AsI4(v, DISP_E_TYPEMISMATCH);
  }
  Var tooBig = Text("2147483648");
  AsI4(tooBig, DISP_E_OVERFLOW);
  Var out;
  Var hex = Text("&HFF");  // a bit pattern: all ones is -1 in a signed byte
  ASSERT_EQ(Convert(hex, VT_I1, out), S_OK);
  EXPECT_EQ(out.cVal, -1);
  Var exact = Text("922337203685477.5807");
  ASSERT_EQ(Convert(exact, VT_DECIMAL, out), S_OK);
  EXPECT_EQ(out.decVal.scale, 4);
  EXPECT_EQ(out.decVal.Lo64, 9223372036854775807ULL);
}

TEST(VariantTextConversion, NumbersAreWrittenWithFifteenOrSevenDigits) {
  for (auto [in, want] : {std::pair{0.1, "0.1"}, {1e20, "1E+20"}, {1.5e-7, "1.5E-07"}, {-2.5, "-2.5"},
                          {1.0 / 3, "0.333333333333333"}, {123456789012345678.0, "1.23456789012346E+17"}, {-0.0, "0"}}) {
    Var v = Real(in);
    EXPECT_EQ(AsText(v), want) << in;
  }
  Var f;
  f.vt = VT_R4;
  f.fltVal = 16777216.0f;
  EXPECT_EQ(AsText(f), "1.677722E+07");
  Var dec;
  dec.decVal.scale = 3;
  dec.decVal.sign = 0;
  dec.decVal.Hi32 = 0;
  dec.decVal.Lo64 = 1500;
  dec.vt = VT_DECIMAL;
  EXPECT_EQ(AsText(dec), "1.5");
  Var empty;
  Var out;
  ASSERT_EQ(Convert(empty, VT_BSTR, out), S_OK);
  ASSERT_NE(out.bstrVal, nullptr);
  EXPECT_EQ(SysStringLen(out.bstrVal), 0u);
}

DATE DateOf(const char* text, HRESULT expected = S_OK) {
  Var v = Text(text);
  Var out;
  EXPECT_EQ(Convert(v, VT_DATE, out), expected) << text;
  return out.vt == VT_DATE ? out.date : -1e9;
}

TEST(VariantDateConversion, TextReadsEnUsAndIsoForms) {
  const DATE jan2 = 43832;  // 2020-01-02
  const DATE t150405 = (15 * 3600 + 4 * 60 + 5) / 86400.0;
  EXPECT_NEAR(DateOf("1/2/2020 3:04:05 PM"), jan2 + t150405, 1e-9);
  EXPECT_NEAR(DateOf("2020-01-02 15:04:05"), jan2 + t150405, 1e-9);
  EXPECT_EQ(DateOf("1/2/2020"), jan2);
  EXPECT_NEAR(DateOf("3:04:05 PM"), t150405, 1e-9);
  EXPECT_EQ(DateOf("12:00:00 AM"), 0);
  EXPECT_EQ(DateOf("1/1/1800"), -36522);
  EXPECT_EQ(DateOf("1/1/1800 6:00 AM"), -36522.25);  // the time counts forward from midnight
  EXPECT_EQ(DateOf("13/1/2020"), 43843);              // no 13th month: read day-first
  DateOf("2/30/2020", DISP_E_TYPEMISMATCH);
  DateOf("1/2/2020 25:00", DISP_E_TYPEMISMATCH);
  DateOf("2020", DISP_E_TYPEMISMATCH);
  DateOf("abc", DISP_E_TYPEMISMATCH);
#ifndef _WIN32
  // Beyond what the system's parser reads: ISO 8601 with 'T', 'Z' and fractions.
  EXPECT_NEAR(DateOf("2020-01-02T15:04:05Z"), jan2 + t150405, 1e-9);
  EXPECT_NEAR(DateOf("2020-01-02T15:04:05.250"), jan2 + (15 * 3600 + 4 * 60 + 5.25) / 86400.0, 1e-9);
  DateOf("2020-01-02T25:00:00", DISP_E_TYPEMISMATCH);
#endif
}

TEST(VariantDateConversion, DatesAreWrittenToTheSecond) {
  const DATE jan2 = 43832;
  for (auto [in, want] : {std::pair{jan2 + 54245.0 / 86400, "1/2/2020 3:04:05 PM"}, {jan2, "1/2/2020"},
                          {54245.0 / 86400, "3:04:05 PM"}, {0.0, "12:00:00 AM"}, {-36522.25, "1/1/1800 6:00:00 AM"},
                          {jan2 + 54245.6 / 86400, "1/2/2020 3:04:06 PM"}, {jan2 + 86399.7 / 86400, "1/3/2020 12:00:00 AM"}}) {
    Var v;
    v.vt = VT_DATE;
    v.date = in;
    EXPECT_EQ(AsText(v), want) << in;
  }
  Var v;
  v.vt = VT_DATE;
  v.date = jan2 + 54245.0 / 86400;
  EXPECT_EQ(AsText(v, 0, LOCALE_INVARIANT), "01/02/2020 15:04:05");
  v.date = 2958466;  // 10000-01-01
  EXPECT_EQ(AsText(v), "error");
  Var out;
  Var distant = Real(3e6);
  EXPECT_EQ(Convert(distant, VT_DATE, out), DISP_E_OVERFLOW);
}

TEST(VariantDateConversion, SystemTimeRoundTripsIgnoringMilliseconds) {
  SYSTEMTIME st{2020, 3, 0, 8, 2, 30, 15, 999};
  DOUBLE d = 0;
  ASSERT_TRUE(SystemTimeToVariantTime(&st, &d));
  EXPECT_NEAR(d, 43898 + (2 * 3600 + 30 * 60 + 15) / 86400.0, 1e-9);
  SYSTEMTIME back{};
  ASSERT_TRUE(VariantTimeToSystemTime(d, &back));
  EXPECT_EQ(back.wYear, 2020);
  EXPECT_EQ(back.wMonth, 3);
  EXPECT_EQ(back.wDay, 8);
  EXPECT_EQ(back.wDayOfWeek, 0);  // a Sunday
  EXPECT_EQ(back.wSecond, 15);
  EXPECT_EQ(back.wMilliseconds, 0);
  SYSTEMTIME feb30{2020, 2, 0, 30, 0, 0, 0, 0};  // rolls into March
  ASSERT_TRUE(SystemTimeToVariantTime(&feb30, &d));
  EXPECT_EQ(d, 43891);
  SYSTEMTIME month13{2020, 13, 0, 1, 0, 0, 0, 0};
  EXPECT_FALSE(SystemTimeToVariantTime(&month13, &d));
  EXPECT_FALSE(VariantTimeToSystemTime(-657435, &back));
}

TEST(VariantConversionContract, NullEmptyInPlaceAndByRef) {
  Var null;
  null.vt = VT_NULL;
  Var out;
  EXPECT_EQ(Convert(null, VT_I4, out), DISP_E_TYPEMISMATCH);
  EXPECT_EQ(Convert(null, VT_EMPTY, out), DISP_E_TYPEMISMATCH);
  EXPECT_EQ(Convert(null, VT_NULL, out), S_OK);
  Var empty;
  EXPECT_EQ(AsI4(empty), 0);

  // In place: success replaces the source, failure leaves it whole.
  Var v = Text("42");
  ASSERT_EQ(VariantChangeTypeEx(&v, &v, kEnUs, 0, VT_I4), S_OK);
  EXPECT_EQ(v.vt, VT_I4);
  EXPECT_EQ(v.lVal, 42);
  Var bad = Text("300");
  EXPECT_EQ(VariantChangeTypeEx(&bad, &bad, kEnUs, 0, VT_UI1), DISP_E_OVERFLOW);
  ASSERT_EQ(bad.vt, VT_BSTR);
  EXPECT_EQ(SysStringLen(bad.bstrVal), 3u);

  BSTR s = SysAllocString(OLESTR(" 8.5 "));
  Var ref;
  ref.vt = VT_BYREF | VT_BSTR;
  ref.pbstrVal = &s;
  ASSERT_EQ(Convert(ref, VT_R8, out), S_OK);
  EXPECT_EQ(out.dblVal, 8.5);
  EXPECT_EQ(Convert(ref, VT_BYREF | VT_R8, out), DISP_E_TYPEMISMATCH);
  SysFreeString(s);
  Var odd;
  odd.vt = 15;
  EXPECT_EQ(Convert(odd, VT_I4, out), DISP_E_BADVARTYPE);
}

#ifndef _WIN32
TEST(VariantConversionContract, ConversionsLeaveNoStringBehind) {
  corvane::platform::StartAllocCounting();
  const int64_t before = corvane::platform::CurrentAllocCounts().bstrs;
  {
    Var a = Text("1/2/2020 3:04:05 PM");
    Var out;
    for (VARTYPE vt : {VT_DATE, VT_BSTR, VT_I4, VT_R8, VT_BSTR, VT_DECIMAL, VT_BOOL}) Convert(a, vt, out);
    Var b = Text("oops");
    VariantChangeTypeEx(&b, &b, kEnUs, 0, VT_I4);  // fails, keeps its string
    VariantChangeTypeEx(&a, &a, kEnUs, 0, VT_DATE);  // succeeds, frees its string
  }
  EXPECT_EQ(corvane::platform::CurrentAllocCounts().bstrs, before);
}
#endif

}  // namespace
