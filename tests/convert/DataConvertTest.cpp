// The provider's own conversion service: statuses, lengths and bytes for each family
// of source, with expectations worked out by hand.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/WideString.h"
#include "provider/store/DataConvert.h"
#include "tests/support/LeakCheckedTest.h"

namespace corvane {
namespace {

struct Outcome {
  HRESULT hr;
  DBSTATUS status;
  DBLENGTH length;
};

class DataConvertTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(S_OK, CreateOwnDataConvert(&convert_));
  }
  void TearDown() override {
    convert_->Release();
    LeakCheckedTest::TearDown();
  }

  Outcome Convert(DBTYPE src, DBTYPE dst, const void* pSrc, void* pDst, DBLENGTH max = 0,
                  DBDATACONVERT flags = DBDATACONVERT_LENGTHFROMNTS, DBLENGTH cbSrc = 0, BYTE precision = 0,
                  BYTE scale = 0, DBSTATUS srcStatus = DBSTATUS_S_OK) {
    Outcome o{E_UNEXPECTED, 0xBEEF, 0xDEAD};
    o.hr = convert_->DataConvert(src, dst, cbSrc, &o.length, const_cast<void*>(pSrc), pDst, max, srcStatus,
                                 &o.status, precision, scale, flags);
    return o;
  }

  IDataConvert* convert_ = nullptr;
};

// hr, status and length of one conversion in one comparison.
#define EXPECT_OUTCOME(o, h, st, len)          \
  do {                                         \
    const Outcome got_ = (o);                  \
    EXPECT_EQ(HRESULT(h), got_.hr);            \
    EXPECT_EQ(DBSTATUS(st), got_.status);      \
    EXPECT_EQ(DBLENGTH(len), got_.length);     \
  } while (0)

// A VARIANT that clears itself.
struct Var : VARIANT {
  explicit Var(VARTYPE type = VT_EMPTY) {
    VariantInit(this);
    vt = type;
  }
  ~Var() { VariantClear(this); }
};

WString W(const char* ascii) { return FromUtf8(ascii); }

// ---- Numbers: widening, rounding, overflow and sign

using DataConvertNumbers = DataConvertTest;

TEST_F(DataConvertNumbers, CopiesAndWidensWithTheTypeSizeAsLength) {
  LONG i4 = -5, asI4 = 0;
  LONGLONG i8 = 0;
  EXPECT_OUTCOME(Convert(DBTYPE_I4, DBTYPE_I8, &i4, &i8), S_OK, DBSTATUS_S_OK, 8);
  EXPECT_EQ(-5, i8);
  ULONG quality = 0xC0, out = 0;
  EXPECT_EQ(4u, Convert(DBTYPE_UI4, DBTYPE_UI4, &quality, &out).length);
  EXPECT_EQ(0xC0u, out);
  VARIANT_BOOL b = VARIANT_TRUE;
  EXPECT_EQ(S_OK, Convert(DBTYPE_BOOL, DBTYPE_I4, &b, &asI4).hr);
  EXPECT_EQ(-1, asI4);
  // Reals round half to even into integers.
  for (auto [value, expected] : {std::pair{1.5, 2}, {2.5, 2}, {-2.5, -2}, {2.4999, 2}}) {
    LONG rounded = 99;
    EXPECT_EQ(S_OK, Convert(DBTYPE_R8, DBTYPE_I4, &value, &rounded).hr) << value;
    EXPECT_EQ(expected, rounded) << value;
  }
}

TEST_F(DataConvertNumbers, TooLargeIsOverflowAndNegativeIntoUnsignedIsSignMismatch) {
  ULONG big = 70000;
  SHORT i2 = 7, minusOne = -1;
  Outcome o = Convert(DBTYPE_UI4, DBTYPE_I2, &big, &i2);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, o.hr);
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, o.status);
  EXPECT_EQ(7, i2) << "a failed conversion leaves the destination alone";
  double huge = 1e40;
  float r4 = 0;
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, Convert(DBTYPE_R8, DBTYPE_R4, &huge, &r4).status);
  LONG minus = -5;
  ULONG u4 = 1;
  o = Convert(DBTYPE_I4, DBTYPE_UI4, &minus, &u4);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, o.hr);
  EXPECT_EQ(DBSTATUS_E_SIGNMISMATCH, o.status);
  USHORT u2 = 0;
  BYTE u1 = 0;
  EXPECT_EQ(DBSTATUS_E_SIGNMISMATCH, Convert(DBTYPE_I2, DBTYPE_UI2, &minusOne, &u2).status);
  EXPECT_EQ(DBSTATUS_E_SIGNMISMATCH, Convert(DBTYPE_WSTR, DBTYPE_UI1, W("-3").c_str(), &u1).status);
  // Too large but positive stays an overflow even into an unsigned type.
  LONGLONG i8 = 300;
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, Convert(DBTYPE_I8, DBTYPE_UI1, &i8, &u1).status);
}

TEST_F(DataConvertNumbers, NumericTakesTheBindingsPrecisionAndScale) {
  double value = -12.345;
  DB_NUMERIC n{};
  // The third decimal is cut.
  EXPECT_OUTCOME(Convert(DBTYPE_R8, DBTYPE_NUMERIC, &value, &n, 0, DBDATACONVERT_LENGTHFROMNTS, 0, 10, 2), S_OK,
                 DBSTATUS_S_TRUNCATED, sizeof(DB_NUMERIC));
  EXPECT_EQ((std::vector<int>{10, 2, 0, 1234 % 256, 1234 / 256}),
            (std::vector<int>{n.precision, n.scale, n.sign, n.val[0], n.val[1]}));
  LONG whole = 7, tooMany = 123456;
  EXPECT_EQ(DBSTATUS_S_OK,
            Convert(DBTYPE_I4, DBTYPE_NUMERIC, &whole, &n, 0, DBDATACONVERT_LENGTHFROMNTS, 0, 5, 3).status);
  EXPECT_EQ((std::vector<int>{1, 7000 % 256, 7000 / 256}), (std::vector<int>{n.sign, n.val[0], n.val[1]}));
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW,
            Convert(DBTYPE_I4, DBTYPE_NUMERIC, &tooMany, &n, 0, DBDATACONVERT_LENGTHFROMNTS, 0, 4, 0).status);
  EXPECT_EQ(DB_E_BADBINDINFO,
            Convert(DBTYPE_I4, DBTYPE_NUMERIC, &whole, &n, 0, DBDATACONVERT_LENGTHFROMNTS, 0, 4, 5).hr);
  double money = 1.5;
  CY cy{};
  EXPECT_EQ(S_OK, Convert(DBTYPE_R8, DBTYPE_CY, &money, &cy).hr);
  EXPECT_EQ(15000, cy.int64);
}

// ---- Text: lengths, terminators, truncation and code pages

using DataConvertStrings = DataConvertTest;

TEST_F(DataConvertStrings, LengthIsTheWholeValueAndTruncationKeepsTheTerminator) {
  OLECHAR out[16];
  std::memset(out, 0xCC, sizeof out);
  const WString hello = W("hello");
  EXPECT_OUTCOME(Convert(DBTYPE_WSTR, DBTYPE_WSTR, hello.c_str(), out, sizeof out), S_OK, DBSTATUS_S_OK, 10);
  EXPECT_EQ(hello, WString(out));
  // Without the NTS flag the source length counts, in bytes; an odd byte is dropped.
  EXPECT_EQ(4u, Convert(DBTYPE_WSTR, DBTYPE_WSTR, hello.c_str(), out, sizeof out, DBDATACONVERT_DEFAULT, 5).length);
  EXPECT_EQ(W("he"), WString(out));

  std::memset(out, 0xCC, sizeof out);
  EXPECT_OUTCOME(Convert(DBTYPE_WSTR, DBTYPE_WSTR, hello.c_str(), out, 7), S_OK, DBSTATUS_S_TRUNCATED, 10);
  EXPECT_EQ(W("he"), WString(out));
  EXPECT_EQ(0xCCCC, out[3]) << "nothing is written past the buffer's whole characters";
  char narrow[4];
  EXPECT_OUTCOME(Convert(DBTYPE_WSTR, DBTYPE_STR, hello.c_str(), narrow, 3), S_OK, DBSTATUS_S_TRUNCATED, 5);
  EXPECT_STREQ("he", narrow);
  // No room even for the terminator; and, as a setter would, shortening refused.
  Outcome o = Convert(DBTYPE_WSTR, DBTYPE_WSTR, hello.c_str(), out, 1);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, o.hr);
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, o.status);
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, Convert(DBTYPE_WSTR, DBTYPE_WSTR, hello.c_str(), out, 7,
                                             DBDATACONVERT_LENGTHFROMNTS | DBDATACONVERT_SETDATABEHAVIOR)
                                         .status);
  // Fixed-length text is blank padded.
  OLECHAR fixed[6];
  EXPECT_OUTCOME(Convert(DBTYPE_WSTR, DBTYPE_WSTR, W("ab").c_str(), fixed, sizeof fixed,
                         DBDATACONVERT_LENGTHFROMNTS | DBDATACONVERT_DSTISFIXEDLENGTH),
                 S_OK, DBSTATUS_S_OK, 10);
  EXPECT_EQ(W("ab   "), WString(fixed));
}

TEST_F(DataConvertStrings, NumbersLoseFractionDigitsButNeverIntegerDigits) {
  OLECHAR out[8];
  double value = 1.5;
  EXPECT_OUTCOME(Convert(DBTYPE_R8, DBTYPE_WSTR, &value, out, 4), S_OK, DBSTATUS_S_TRUNCATED, 6);
  EXPECT_EQ(W("1"), WString(out));
  LONG minus = -5;
  Outcome o = Convert(DBTYPE_I4, DBTYPE_WSTR, &minus, out, 4);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, o.hr);
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, o.status);
  EXPECT_EQ(4u, Convert(DBTYPE_I4, DBTYPE_WSTR, &minus, out, sizeof out).length);
  EXPECT_EQ(W("-5"), WString(out));
  VARIANT_BOOL yes = VARIANT_TRUE;
  Convert(DBTYPE_BOOL, DBTYPE_WSTR, &yes, out, sizeof out);
  EXPECT_EQ(W("True"), WString(out));
}

TEST_F(DataConvertStrings, NarrowTextUsesTheAnsiCodePageAndTextReadsAsAutomationDoes) {
  const char latin[] = "caf\xE9";
  OLECHAR wide[8];
  EXPECT_EQ(8u, Convert(DBTYPE_STR, DBTYPE_WSTR, latin, wide, sizeof wide).length);
  EXPECT_EQ(0x00E9, wide[3]);
  char back[8];
  EXPECT_EQ(4u, Convert(DBTYPE_WSTR, DBTYPE_STR, wide, back, sizeof back).length);
  EXPECT_STREQ(latin, back);

  double r8 = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_WSTR, DBTYPE_R8, W(" 12.5 ").c_str(), &r8).hr);
  EXPECT_EQ(12.5, r8);
  LONG i4 = 0;
  Outcome o = Convert(DBTYPE_STR, DBTYPE_I4, "abc", &i4);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, o.hr);
  EXPECT_EQ(DBSTATUS_E_CANTCONVERTVALUE, o.status);
  VARIANT_BOOL b = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_WSTR, DBTYPE_BOOL, W("True").c_str(), &b).hr);
  EXPECT_EQ(VARIANT_TRUE, b);
}

TEST_F(DataConvertStrings, ByReferenceAndBstrDestinationsAreAllocatedWhole) {
  OLECHAR* text = nullptr;
  Outcome o = Convert(DBTYPE_WSTR, DBTYPE_WSTR | DBTYPE_BYREF, W("a long tag name").c_str(), &text, 2);
  EXPECT_EQ(DBSTATUS_S_OK, o.status) << "the buffer size does not limit an allocated copy";
  EXPECT_EQ(30u, o.length);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(W("a long tag name"), WString(text));
  CoTaskMemFree(text);

  BSTR source = SysAllocString(OLESTR("xyz"));
  BSTR copy = nullptr;
  EXPECT_EQ(sizeof(BSTR), Convert(DBTYPE_BSTR, DBTYPE_BSTR, &source, &copy).length);
  ASSERT_NE(nullptr, copy);
  EXPECT_NE(source, copy);
  EXPECT_EQ(3u, SysStringLen(copy));
  SysFreeString(copy);
  const OLECHAR* ref = source;
  OLECHAR out[8];
  EXPECT_EQ(6u, Convert(DBTYPE_WSTR | DBTYPE_BYREF, DBTYPE_WSTR, &ref, out, sizeof out).length);
  EXPECT_EQ(W("xyz"), WString(out));
  SysFreeString(source);
}

// ---- Points in time, both ways

using DataConvertDates = DataConvertTest;

TEST_F(DataConvertDates, TimestampTextIsCanonicalWithNanosecondFraction) {
  DBTIMESTAMP ts{2003, 1, 2, 4, 5, 6, 123000000};
  OLECHAR out[40];
  EXPECT_EQ(58u, Convert(DBTYPE_DBTIMESTAMP, DBTYPE_WSTR, &ts, out, sizeof out).length);
  EXPECT_EQ(W("2003-01-02 04:05:06.123000000"), WString(out));
  ts.fraction = 0;
  Convert(DBTYPE_DBTIMESTAMP, DBTYPE_WSTR, &ts, out, sizeof out);
  EXPECT_EQ(W("2003-01-02 04:05:06"), WString(out));

  DBTIMESTAMP back{};
  EXPECT_EQ(sizeof(DBTIMESTAMP),
            Convert(DBTYPE_WSTR, DBTYPE_DBTIMESTAMP, W("2003-01-02 04:05:06.5").c_str(), &back).length);
  EXPECT_EQ((std::vector<long>{2003, 6, 500000000}), (std::vector<long>{back.year, back.second, long(back.fraction)}));
  EXPECT_EQ(S_OK, Convert(DBTYPE_WSTR, DBTYPE_DBTIMESTAMP, W("1/2/2003 4:05:06 PM").c_str(), &back).hr);
  EXPECT_EQ(16, back.hour);
  EXPECT_EQ(0u, back.fraction);
  for (const char* bad : {"not a time", "2003-02-30"})
    EXPECT_EQ(DBSTATUS_E_CANTCONVERTVALUE, Convert(DBTYPE_WSTR, DBTYPE_DBTIMESTAMP, W(bad).c_str(), &back).status)
        << bad;
}

TEST_F(DataConvertDates, DateAndTimestampKeepMilliseconds) {
  DBTIMESTAMP ts{2003, 1, 2, 6, 0, 0, 123000000}, back{};
  DATE date = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_DBTIMESTAMP, DBTYPE_DATE, &ts, &date).hr);
  EXPECT_NEAR(37623.25 + 0.123 / 86400, date, 1e-10);
  EXPECT_EQ(S_OK, Convert(DBTYPE_DATE, DBTYPE_DBTIMESTAMP, &date, &back).hr);
  EXPECT_EQ(0, std::memcmp(&ts, &back, sizeof ts));
  // Before day zero the fraction still counts forward from midnight.
  DATE early = -1.25, again = 0;
  Convert(DBTYPE_DATE, DBTYPE_DBTIMESTAMP, &early, &back);
  EXPECT_EQ((std::vector<int>{1899, 29, 6}), (std::vector<int>{back.year, back.day, back.hour}));
  Convert(DBTYPE_DBTIMESTAMP, DBTYPE_DATE, &back, &again);
  EXPECT_EQ(-1.25, again);
  DATE outOfRange = 3e6;
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, Convert(DBTYPE_DATE, DBTYPE_DBTIMESTAMP, &outOfRange, &back).status);
}

TEST_F(DataConvertDates, PartsOfATimestampKeepOnlyTheirOwnFields) {
  DBTIMESTAMP ts{2024, 2, 29, 13, 14, 15, 500}, back{};
  DBDATE d{};
  EXPECT_OUTCOME(Convert(DBTYPE_DBTIMESTAMP, DBTYPE_DBDATE, &ts, &d), S_OK, DBSTATUS_S_OK, 6);
  EXPECT_EQ((std::vector<int>{2024, 2, 29}), (std::vector<int>{d.year, d.month, d.day}));
  DBTIME t{};
  EXPECT_EQ(DBSTATUS_S_OK, Convert(DBTYPE_DBTIMESTAMP, DBTYPE_DBTIME, &ts, &t).status);
  EXPECT_EQ(13, t.hour);
  EXPECT_EQ(15, t.second);
  // And back: a date is its midnight, a time is on DATE's day zero.
  Convert(DBTYPE_DBDATE, DBTYPE_DBTIMESTAMP, &d, &back);
  EXPECT_EQ(0, back.hour);
  EXPECT_EQ(29, back.day);
  DATE date = 1;
  Convert(DBTYPE_DBTIME, DBTYPE_DATE, &t, &date);
  EXPECT_NEAR((13 * 3600 + 14 * 60 + 15) / 86400.0, date, 1e-12);
  OLECHAR text[16];
  Convert(DBTYPE_DBTIME, DBTYPE_WSTR, &t, text, sizeof text);
  EXPECT_EQ(W("13:14:15"), WString(text));
  DBTIMESTAMP bad{2023, 2, 29, 0, 0, 0, 0};
  EXPECT_EQ(DBSTATUS_E_CANTCONVERTVALUE, Convert(DBTYPE_DBTIMESTAMP, DBTYPE_DBDATE, &bad, &d).status);
}

TEST_F(DataConvertDates, FileTimeCountsHundredsOfNanosecondsSince1601) {
  DBTIMESTAMP ts{1601, 1, 2, 0, 0, 1, 500}, back{}, before{1600, 12, 31, 0, 0, 0, 0};
  FILETIME ft{};
  EXPECT_EQ(S_OK, Convert(DBTYPE_DBTIMESTAMP, DBTYPE_FILETIME, &ts, &ft).hr);
  EXPECT_EQ(864000000000ULL + 10000000ULL + 5ULL, (static_cast<unsigned long long>(ft.dwHighDateTime) << 32) |
                                                      ft.dwLowDateTime);
  EXPECT_EQ(S_OK, Convert(DBTYPE_FILETIME, DBTYPE_DBTIMESTAMP, &ft, &back).hr);
  EXPECT_EQ(0, std::memcmp(&ts, &back, sizeof ts));
  EXPECT_EQ(DBSTATUS_E_DATAOVERFLOW, Convert(DBTYPE_DBTIMESTAMP, DBTYPE_FILETIME, &before, &ft).status);
}

TEST_F(DataConvertDates, OnlyDatesTextAndVariantsBecomePointsInTime) {
  LONG i4 = 5;
  DBTIMESTAMP ts{};
  Outcome o = Convert(DBTYPE_I4, DBTYPE_DBTIMESTAMP, &i4, &ts);
  EXPECT_EQ(DB_E_UNSUPPORTEDCONVERSION, o.hr);
  EXPECT_EQ(DBSTATUS_E_BADACCESSOR, o.status);
  EXPECT_EQ(S_FALSE, convert_->CanConvert(DBTYPE_DBTIMESTAMP, DBTYPE_R8));
  // DATE is a number of days, and a VARIANT converts by the Automation rules.
  DATE date = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_I4, DBTYPE_DATE, &i4, &date).hr);
  EXPECT_EQ(5.0, date);
  Var v(VT_R8);
  V_R8(&v) = 2.5;
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_DBTIMESTAMP, &v, &ts).hr);
  EXPECT_EQ((std::vector<int>{1900, 1, 12}), (std::vector<int>{ts.year, ts.day, ts.hour}));
}

// ---- VARIANT sources and destinations

using DataConvertVariants = DataConvertTest;

TEST_F(DataConvertVariants, EachHeldTypeConvertsByItsOwnRules) {
  Var v(VT_R8);
  V_R8(&v) = 2.25;
  double r8 = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_R8, &v, &r8).hr);
  EXPECT_EQ(2.25, r8);
  OLECHAR text[16];
  EXPECT_EQ(8u, Convert(DBTYPE_VARIANT, DBTYPE_WSTR, &v, text, sizeof text).length);
  EXPECT_EQ(W("2.25"), WString(text));

  V_VT(&v) = VT_EMPTY;
  LONG i4 = 9;
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_I4, &v, &i4).hr);
  EXPECT_EQ(0, i4);
  EXPECT_EQ(0u, Convert(DBTYPE_VARIANT, DBTYPE_WSTR, &v, text, sizeof text).length);

  V_VT(&v) = VT_BSTR;
  V_BSTR(&v) = SysAllocString(OLESTR("42"));
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_I4, &v, &i4).hr);
  EXPECT_EQ(42, i4);
  VariantClear(&v);

  V_VT(&v) = VT_DATE;
  V_DATE(&v) = 37623.5;
  DBTIMESTAMP ts{};
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_DBTIMESTAMP, &v, &ts).hr);
  EXPECT_EQ(12, ts.hour);
  V_VT(&v) = VT_I4;
  V_I4(&v) = -1;
  ULONG u4 = 0;
  EXPECT_EQ(DBSTATUS_E_SIGNMISMATCH, Convert(DBTYPE_VARIANT, DBTYPE_UI4, &v, &u4).status);
}

TEST_F(DataConvertVariants, NullIsReportedNotConverted) {
  Var v(VT_NULL);
  LONG i4 = 9;
  EXPECT_OUTCOME(Convert(DBTYPE_VARIANT, DBTYPE_I4, &v, &i4), S_OK, DBSTATUS_S_ISNULL, 0);
  EXPECT_EQ(9, i4);
  // A null source status wins over whatever the source holds.
  double r8 = 1;
  EXPECT_OUTCOME(Convert(DBTYPE_R8, DBTYPE_WSTR, &r8, nullptr, 0, 0, 0, 0, 0, DBSTATUS_S_ISNULL), S_OK,
                 DBSTATUS_S_ISNULL, 0);
}

TEST_F(DataConvertVariants, DestinationVariantsOwnTheirCopies) {
  Var src(VT_BSTR), dst;
  V_BSTR(&src) = SysAllocString(OLESTR("tag"));
  EXPECT_EQ(sizeof(VARIANT), Convert(DBTYPE_VARIANT, DBTYPE_VARIANT, &src, &dst).length);
  ASSERT_EQ(VT_BSTR, V_VT(&dst));
  EXPECT_NE(V_BSTR(&src), V_BSTR(&dst));
  VariantClear(&dst);
  VariantClear(&src);

  DBTIMESTAMP ts{2003, 1, 2, 6, 0, 0, 0};
  Convert(DBTYPE_DBTIMESTAMP, DBTYPE_VARIANT, &ts, &dst);
  EXPECT_EQ(VT_DATE, V_VT(&dst));
  EXPECT_EQ(37623.25, V_DATE(&dst));
  Convert(DBTYPE_STR, DBTYPE_VARIANT, "abc", &dst);
  ASSERT_EQ(VT_BSTR, V_VT(&dst));
  EXPECT_EQ(W("abc"), WString(V_BSTR(&dst)));
  VariantClear(&dst);
  ULONGLONG u8 = 1ULL << 40;
  Convert(DBTYPE_UI8, DBTYPE_VARIANT, &u8, &dst);
  EXPECT_EQ(VT_UI8, V_VT(&dst));
  EXPECT_EQ(1ULL << 40, V_UI8(&dst));

  V_VT(&src) = VT_DECIMAL;
  V_DECIMAL(&src).scale = 2;
  V_DECIMAL(&src).sign = DECIMAL_NEG;
  V_DECIMAL(&src).Hi32 = 0;
  V_DECIMAL(&src).Lo64 = 12345;
  VariantInit(&dst);
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_VARIANT, &src, &dst).hr);
  ASSERT_EQ(VT_DECIMAL, V_VT(&dst));
  double back = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_R8, &dst, &back).hr);
  EXPECT_EQ(-123.45, back);
}

// ---- The object around the conversions

using DataConvertService = DataConvertTest;

TEST_F(DataConvertService, RefusesWhatItCannotDoAndSizesWhatItCan) {
  LONG i4 = 1;
  GUID g{};
  Outcome o = Convert(DBTYPE_I4, DBTYPE_GUID, &i4, &g);
  EXPECT_EQ(DB_E_UNSUPPORTEDCONVERSION, o.hr);
  EXPECT_EQ(DBSTATUS_E_BADACCESSOR, o.status);
  EXPECT_EQ(E_INVALIDARG, Convert(DBTYPE_I4, DBTYPE_I8, nullptr, &i4).hr);
  EXPECT_EQ(S_OK, convert_->CanConvert(DBTYPE_VARIANT, DBTYPE_NUMERIC));
  EXPECT_EQ(S_FALSE, convert_->CanConvert(DBTYPE_I4 | DBTYPE_BYREF, DBTYPE_I4));

  WString tag = W("hello");
  Var v(VT_R8);
  V_R8(&v) = 0.125;
  const struct {
    DBTYPE src, dst;
    void* value;
    DBLENGTH size;  // "-2147483648" and its terminator for I4 as text
  } sizes[] = {{DBTYPE_I4, DBTYPE_I8, nullptr, 8},
               {DBTYPE_WSTR, DBTYPE_WSTR, tag.data(), 12},
               {DBTYPE_I4, DBTYPE_STR, nullptr, 12},
               {DBTYPE_VARIANT, DBTYPE_WSTR, &v, 12}};
  for (const auto& c : sizes) {
    DBLENGTH size = 0;
    EXPECT_EQ(S_OK, convert_->GetConversionSize(c.src, c.dst, nullptr, &size, c.value)) << c.src << "->" << c.dst;
    EXPECT_EQ(c.size, size) << c.src << "->" << c.dst;
  }
  DBLENGTH size = 0;
  EXPECT_EQ(DB_E_UNSUPPORTEDCONVERSION,
            convert_->GetConversionSize(DBTYPE_I4, DBTYPE_GUID, nullptr, &size, nullptr));
}

TEST_F(DataConvertService, InterfacesAndVersion) {
  IDCInfo* info = nullptr;
  ASSERT_EQ(S_OK, convert_->QueryInterface(IID_IDCInfo, reinterpret_cast<void**>(&info)));
  DCINFOTYPE type = DCINFOTYPE_VERSION;
  DCINFO* got = nullptr;
  ASSERT_EQ(S_OK, info->GetInfo(1, &type, &got));
  EXPECT_EQ(VT_UI4, V_VT(&got[0].vData));
  EXPECT_EQ(0x200u, V_UI4(&got[0].vData));
  CoTaskMemFree(got);
  DCINFO set{};
  set.eInfoType = DCINFOTYPE_VERSION;
  V_VT(&set.vData) = VT_UI4;
  V_UI4(&set.vData) = 0x250;
  EXPECT_EQ(S_OK, info->SetInfo(1, &set));
  ASSERT_EQ(S_OK, info->GetInfo(1, &type, &got));
  EXPECT_EQ(0x250u, V_UI4(&got[0].vData));
  CoTaskMemFree(got);
  V_VT(&set.vData) = VT_BSTR;
  EXPECT_EQ(DB_E_BADTYPE, info->SetInfo(1, &set));
  info->Release();

  IDataConvert* store = nullptr;
  ASSERT_EQ(S_OK, CreateDataConvert(&store));
  LONG i4 = 3;
  LONGLONG i8 = 0;
  DBLENGTH length = 0;
  DBSTATUS status = 99;
  EXPECT_EQ(S_OK, store->DataConvert(DBTYPE_I4, DBTYPE_I8, 0, &length, &i4, &i8, 0, DBSTATUS_S_OK, &status, 0, 0,
                                     DBDATACONVERT_LENGTHFROMNTS));
  EXPECT_EQ(3, i8);
  store->Release();
  EXPECT_EQ(E_INVALIDARG, CreateDataConvert(nullptr));
}

}  // namespace
}  // namespace corvane
