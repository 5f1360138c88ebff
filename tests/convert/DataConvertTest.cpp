// The provider's own conversion service: statuses, lengths and bytes for each family
// of source, with expectations worked out by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <deque>
#include <utility>

#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "base/Variant.h"
#include "platform/WideString.h"
#include "provider/store/DataConvert.h"
#include "tests/convert/ConvertValue.h"
#include "tests/support/LeakCheckedTest.h"

namespace corvane {
namespace {


struct Outcome { HRESULT hr; DBSTATUS status; DBLENGTH length; };

class DataConvertTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(S_OK, CreateOwnDataConvert(convert_.Put()));
  }

  Outcome Convert(DBTYPE src, DBTYPE dst, const void* pSrc, void* pDst, DBLENGTH max = 0,
                  DBDATACONVERT flags = DBDATACONVERT_LENGTHFROMNTS, DBLENGTH cbSrc = 0, BYTE precision = 0,
                  BYTE scale = 0, DBSTATUS srcStatus = DBSTATUS_S_OK) {
    Outcome o{E_UNEXPECTED, 0xBEEF, 0xDEAD};
    o.hr = convert_->DataConvert(src, dst, cbSrc, &o.length, const_cast<void*>(pSrc), pDst, max, srcStatus,
                                 &o.status, precision, scale, flags);
    return o;
  }

  ComPtr<IDataConvert> convert_;
};

TEST_F(DataConvertTest, EachConversionGivesItsStatusLengthAndValue) {
  constexpr DBDATACONVERT kNts = DBDATACONVERT_LENGTHFROMNTS;
  struct Row {
    const char* source;
    const char* destination;
    const char* expected;  // "hr status length value" or its start (a length never set reads 57005, a value left
    // alone "untouched")
    DBLENGTH max = 64;
    DBDATACONVERT flags = kNts;
    BYTE precision = 0, scale = 0;
    DBLENGTH sourceLength = 0;
  } rows[] = {
      // Numbers widen, reals round half to even into integers; too large is an overflow,
      // negative into unsigned a sign mismatch, and either leaves the destination alone.
      {"I4 -5", "I8", "0 0 8 -5"},
      {"R8 -2.5", "I4", "0 0 4 -2"},
      {"UI4 70000", "I2", "80040E21 6 57005 untouched"},
      {"I2 -1", "UI2", "80040E21 5 57005 untouched"},
      {"WSTR -3", "UI1", "80040E21 5"},
      {"I8 300", "UI1", "80040E21 6"},  // too large but positive: an overflow even into unsigned
      // NUMERIC takes the binding's precision and scale: the third decimal is cut.
      {"R8 -12.345", "NUMERIC", "0 4 19 10,2,-1234", 64, kNts, 10, 2},
      {"I4 7", "NUMERIC", "0 0 19 5,3,7000", 64, kNts, 5, 3},
      {"I4 123456", "NUMERIC", "80040E21 6", 64, kNts, 4, 0},
      {"I4 7", "NUMERIC", "80040E08", 64, kNts, 4, 5},
      {"R8 1.5", "CY", "0 0 8 15000/10000"},
      // Text: the length is the whole value's; truncation keeps the terminator and writes nothing past the buffer's
      // whole characters; without the NTS flag the source length counts, in bytes (an odd byte is dropped).
      {"WSTR hello", "WSTR", "0 0 4 'he'", 64, DBDATACONVERT_DEFAULT, 0, 0, 5},
      {"WSTR hello", "WSTR", "0 4 10 'he'", 7},
      {"WSTR hello", "WSTR", "80040E21 6", 1},  // no room even for the terminator
      {"WSTR hello", "WSTR", "80040E21 6", 7, kNts | DBDATACONVERT_SETDATABEHAVIOR},  // as a setter: no cut
      {"WSTR ab", "WSTR", "0 0 10 'ab   '", 12, kNts | DBDATACONVERT_DSTISFIXEDLENGTH},  // blank padded
      // Numbers lose fraction digits but never integer digits.
      {"R8 1.5", "WSTR", "0 4 6 '1'", 4},
      {"I4 -5", "WSTR", "80040E21 6", 4},
      {"BOOL -1", "WSTR", "0 0 8 'True'"},
      // Narrow text is in the ANSI code page; text reads as Automation reads it.
      {"STR caf\xE9", "WSTR", "0 0 8 'caf\xC3\xA9'"},
      {"WSTR caf\xC3\xA9", "STR", "0 0 4 'caf\xE9'"},
      {"WSTR  12.5 ", "R8", "0 0 8 12.5"},
      {"STR abc", "I4", "80040E21 2"},
      // By-reference and BSTR destinations are allocated whole, whatever the buffer size.
      {"WSTR a long tag name", "WSTR&", "0 0 30 &'a long tag name'", 2},
      {"BSTR xyz", "BSTR", "0 0 8 'xyz'"},
      {"WSTR& xyz", "WSTR", "0 0 6 'xyz'"},
      // Points in time, both ways: canonical text with a nanosecond fraction.
      {"DBTIMESTAMP 2003-01-02 04:05:06.123000000", "WSTR", "0 0 58 '2003-01-02 04:05:06.123000000'"},
      {"DBTIMESTAMP 2003-01-02 04:05:06.0", "WSTR", "0 0 38 '2003-01-02 04:05:06'"},
      {"WSTR 2003-01-02 04:05:06.5", "DBTIMESTAMP", "0 0 16 2003-01-02 04:05:06.500000000"},
      {"WSTR 2003-02-30", "DBTIMESTAMP", "80040E21 2"},
      {"DATE -1.25", "DBTIMESTAMP", "0 0 16 1899-12-29 06:00:00.0"},  // before day zero the fraction counts forward
      {"DATE 3e6", "DBTIMESTAMP", "80040E21 6"},
      // To the millisecond.
      {"DATE 37623.250001423614", "DBTIMESTAMP", "0 0 16 2003-01-02 06:00:00.123000000"},
      // Parts of a timestamp keep their own fields; a date is its midnight.
      {"DBTIMESTAMP 2024-02-29 13:14:15.500", "DBDATE", "0 0 6 2024-02-29"},
      {"DBTIMESTAMP 2024-02-29 13:14:15.500", "DBTIME", "0 0 6 13:14:15"},
      {"DBDATE 2024-02-29", "DBTIMESTAMP", "0 0 16 2024-02-29 00:00:00.0"},
      {"DBTIME 13:14:15", "WSTR", "0 0 16 '13:14:15'"},
      {"DBTIMESTAMP 2023-02-29 00:00:00.0", "DBDATE", "80040E21 2"},
      // FILETIME counts hundreds of nanoseconds since 1601.
      {"DBTIMESTAMP 1601-01-02 00:00:01.500", "FILETIME", "0 0 8 864010000005"},
      {"FILETIME 864010000005", "DBTIMESTAMP", "0 0 16 1601-01-02 00:00:01.500"},
      {"DBTIMESTAMP 1600-12-31 00:00:00.0", "FILETIME", "80040E21 6"},
      {"I4 5", "DBTIMESTAMP", "80040E1D 1"},  // only dates, text and variants become points in time
      // A VARIANT converts by what it holds; a null is reported, not converted, as is a null source status.
      {"VARIANT EMPTY", "WSTR", "0 0 0 ''"},
      {"VARIANT DATE 37623.5", "DBTIMESTAMP", "0 0 16 2003-01-02 12:00:00.0"},
      {"VARIANT NULL", "I4", "0 3 0 untouched"},
      // A destination VARIANT owns its copy and keeps the source's type.
      {"DBTIMESTAMP 2003-01-02 06:00:00.0", "VARIANT", "0 0 24 VT_DATE 37623.25"},
      {"STR abc", "VARIANT", "0 0 24 VT_BSTR \"abc\""},
  };
  for (const Row& row : rows) {
    test::Value source;
    test::Parse(row.source, &source);
    const DBTYPE type = test::TypeOf(row.destination);
    BYTE destination[128];
    std::memset(destination, 0xCC, sizeof destination);
    Outcome o = Convert(source.type, type, source.Data(), destination, row.max, row.flags, row.sourceLength,
                        row.precision, row.scale);
    char head[64];
    std::snprintf(head, sizeof head, "%X %lu %llu ", unsigned(o.hr), (unsigned long)o.status,
                  (unsigned long long)o.length);
    const bool untouched = std::all_of(destination, destination + sizeof destination, [](BYTE b) { return b == 0xCC; });
    const std::string got = head + (untouched ? std::string("untouched") : test::Render(type, destination));
    // Text destinations never see a byte written past their buffer's whole characters.
    const size_t limit = type == DBTYPE_WSTR ? row.max / 2 * 2 : type == DBTYPE_STR ? row.max : sizeof destination;
    EXPECT_TRUE(std::all_of(destination + limit, destination + sizeof destination, [](BYTE b) { return b == 0xCC; }))
        << row.source << " -> " << row.destination << " wrote past " << limit << " bytes";
    // The expectation may stop after the status or the length.
    const std::string want = row.expected;
    EXPECT_TRUE(got == want || (got.compare(0, want.size(), want) == 0 && got[want.size()] == ' '))
        << row.source << " -> " << row.destination << ": expected " << want << ", got " << got;
    if (!untouched) test::Release(type, destination);
  }
  // A null source status wins over whatever the source holds.
  double r8 = 1;
  const Outcome isNull = Convert(DBTYPE_R8, DBTYPE_WSTR, &r8, nullptr, 0, 0, 0, 0, 0, DBSTATUS_S_ISNULL);
  EXPECT_TRUE(isNull.hr == S_OK && isNull.status == DBSTATUS_S_ISNULL && isNull.length == 0);
  EXPECT_EQ(S_FALSE, convert_->CanConvert(DBTYPE_DBTIMESTAMP, DBTYPE_R8));
}

TEST_F(DataConvertTest, ADecimalInAVariantConvertsByItsValue) {
  Variant src;
  src->vt = VT_DECIMAL;
  src->decVal.scale = 2;
  src->decVal.sign = DECIMAL_NEG;
  src->decVal.Hi32 = 0;
  src->decVal.Lo64 = 12345;
  double r8 = 0;
  EXPECT_EQ(S_OK, Convert(DBTYPE_VARIANT, DBTYPE_R8, src.Get(), &r8).hr);
  EXPECT_EQ(-123.45, r8);
}

using DataConvertService = DataConvertTest;

TEST_F(DataConvertService, RefusesWhatItCannotDoAndSizesWhatItCan) {
  LONG i4 = 1;
  EXPECT_EQ(E_INVALIDARG, Convert(DBTYPE_I4, DBTYPE_I8, nullptr, &i4).hr);
  EXPECT_EQ(S_OK, convert_->CanConvert(DBTYPE_VARIANT, DBTYPE_NUMERIC));
  EXPECT_EQ(S_FALSE, convert_->CanConvert(DBTYPE_I4 | DBTYPE_BYREF, DBTYPE_I4));

  WString tag = OLESTR("hello");
  Variant v;
  v->vt = VT_R8;
  v->dblVal = 0.125;
  const struct {
    DBTYPE src, dst;
    void* value;
    DBLENGTH size;  // "-2147483648" and its terminator for I4 as text
  } sizes[] = {{DBTYPE_I4, DBTYPE_I8, nullptr, 8},
               {DBTYPE_WSTR, DBTYPE_WSTR, tag.data(), 12},
               {DBTYPE_I4, DBTYPE_STR, nullptr, 12},
               {DBTYPE_VARIANT, DBTYPE_WSTR, v.Get(), 12}};
  for (const auto& c : sizes) {
    DBLENGTH size = 0;
    EXPECT_EQ(S_OK, convert_->GetConversionSize(c.src, c.dst, nullptr, &size, c.value)) << c.src << "->" << c.dst;
    EXPECT_EQ(c.size, size) << c.src << "->" << c.dst;
  }
  DBLENGTH size = 0;
  EXPECT_EQ(DB_E_UNSUPPORTEDCONVERSION, convert_->GetConversionSize(DBTYPE_I4, DBTYPE_GUID, nullptr, &size, nullptr));
}

TEST_F(DataConvertService, InterfacesAndVersion) {
  ComPtr<IDCInfo> info;
  ASSERT_EQ(S_OK, convert_->QueryInterface(IID_IDCInfo, info.PutVoid()));
  DCINFOTYPE type = DCINFOTYPE_VERSION;
  TaskMem<DCINFO> got;
  ASSERT_EQ(S_OK, info->GetInfo(1, &type, got.Put()));
  EXPECT_EQ(VT_UI4, V_VT(&got[0].vData));
  EXPECT_EQ(0x200u, V_UI4(&got[0].vData));
  DCINFO set{};
  set.eInfoType = DCINFOTYPE_VERSION;
  V_VT(&set.vData) = VT_UI4;
  V_UI4(&set.vData) = 0x250;
  EXPECT_EQ(S_OK, info->SetInfo(1, &set));
  ASSERT_EQ(S_OK, info->GetInfo(1, &type, got.Put()));
  EXPECT_EQ(0x250u, V_UI4(&got[0].vData));
  V_VT(&set.vData) = VT_BSTR;
  EXPECT_EQ(DB_E_BADTYPE, info->SetInfo(1, &set));

  // Every rowset reads through CreateDataConvert's converter; only its refusal is left to check.
  EXPECT_EQ(E_INVALIDARG, CreateDataConvert(nullptr));
}

// Numbers written straight as text (the text-typed table, the service's number to WSTR) must give the very text
// VariantChangeType gives: short decimals of every scale and sign, the edges of the positional form, and random bit
// patterns that mostly take the general route. The service's WSTR of a double is held to the same text.
TEST_F(DataConvertTest, NumbersWrittenStraightAsTextMatchVariantChangeType) {
  std::deque<Variant> values;
  auto add = [&](VARTYPE vt, auto set) {
    values.emplace_back()->vt = vt;
    set(*values.back().Get());
  };
  const double edges[] = {0.0, -0.0, 1e-4, 9.9999e-5, 0.00012, 1e15, 999999999999999.0, 99999999999999.9,
                          123456789012345.0, 1234567890123456.0, 0.1 + 0.2, 1.0 / 3, 2.5e-3, 1e300, 5e-324};
  for (double d : edges)
    for (double sign : {1.0, -1.0}) add(VT_R8, [&](VARIANT& v) { v.dblVal = sign * d; });
  for (int k = 0; k <= 16; ++k)
    for (long long m : {1LL, 5LL, 7LL, 25LL, 999LL, 4997LL, 123456LL, 99999999LL, 314159265358979LL})
      add(VT_R8, [&](VARIANT& v) { v.dblVal = static_cast<double>(m) / std::pow(10.0, k) * (k % 2 ? -1 : 1); });
  for (int i = 0; i < 4000; ++i) add(VT_R8, [&](VARIANT& v) { v.dblVal = (i * 37 - 70000) / 100.0; });
  unsigned long long bits = 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < 4000; ++i) {
    bits = bits * 6364136223846793005ull + 1442695040888963407ull;
    const unsigned long long exponent = 1000 + (bits >> 33) % 60;  // about 1E-7 to 1E11
    const unsigned long long pattern = (bits & 0x800FFFFFFFFFFFFFull) | (exponent << 52);
    add(VT_R8, [&](VARIANT& v) { std::memcpy(&v.dblVal, &pattern, 8); });
  }
  // Integers at their extremes, written through the union's low bytes (little-endian).
  for (const auto& [vt, bits] : std::initializer_list<std::pair<VARTYPE, long long>>{
           {VT_I1, -128}, {VT_I2, -32768}, {VT_I4, INT32_MIN}, {VT_INT, 0}, {VT_I8, INT64_MIN}, {VT_UI1, 255},
           {VT_UI2, 65535}, {VT_UI4, 4294967295}, {VT_UINT, 10}, {VT_UI8, -1}})
    add(vt, [bits = bits](VARIANT& v) { v.llVal = bits; });
  add(VT_R4, [](VARIANT& v) { v.fltVal = 0.1f; });  // floats always take the general route
  size_t straight = 0;
  for (Variant& held : values) {
    VARIANT& v = *held.Get();
    Variant expected;
    ASSERT_EQ(S_OK, VariantChangeType(expected.Get(), &v, 0, VT_BSTR));
    const WString want(expected->bstrVal, SysStringLen(expected->bstrVal));
    OLECHAR text[kNumberTextChars];
    const size_t n = NumberText(v, text);
    if (n) {
      ++straight;
      EXPECT_EQ(want, WString(text, n)) << "type " << v.vt << ", " << ToUtf8(want);
    }
    if (v.vt != VT_R8) continue;
    OLECHAR wide[64];
    const Outcome got = Convert(DBTYPE_R8, DBTYPE_WSTR, &v.dblVal, wide, sizeof wide);
    EXPECT_TRUE(got.hr == S_OK && got.status == DBSTATUS_S_OK && got.length == want.size() * sizeof(OLECHAR));
    EXPECT_EQ(want, WString(wide)) << ToUtf8(want);
  }
  // The straight route must carry the common values (every two-decimal one and every
  // integer at least), not leave them all to the general one.
  EXPECT_GE(straight, 4000u + 10);
  EXPECT_EQ(0u, NumberText(*values.back().Get(), nullptr));
}

}  // namespace
}  // namespace corvane
