// Runs VARIANT conversions, date/text parsing and formatting, and the SYSTEMTIME
// conversions through the platform layer (natively) or the system's OLE Automation
// (Windows build under Wine), one output line per case.
#include <cfloat>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include "ProbeSupport.h"
#include "platform/WideString.h"

namespace {

const LCID kEnUs = 0x0409;

struct Source {
  std::string id;
  VARIANT v;
};

std::vector<Source> g_sources;
std::vector<BSTR> g_strings;  // freed at the end

template <typename Set>
void Add(const std::string& id, VARTYPE vt, Set set) {
  Source s;
  s.id = id;
  VariantInit(&s.v);
  set(s.v);
  s.v.vt = vt;
  g_sources.push_back(s);
}

// One source per value, its id the type's name and the value as `render` writes it.
#define SOURCES(type, vt, field, render, T, ...) \
  for (T x : std::initializer_list<T>{__VA_ARGS__})  \
    Add(type ":" + probe::render(x), vt, [&](VARIANT& v) { v.field = x; });

void AddDec(bool neg, BYTE scale, ULONG hi, ULONGLONG lo) {
  DECIMAL d{};
  d.sign = neg ? DECIMAL_NEG : 0;
  d.scale = scale;
  d.Hi32 = hi;
  d.Lo64 = lo;
  Add("DEC:" + probe::Decimal(d), VT_DECIMAL, [&](VARIANT& v) { v.decVal = d; });
}
void AddStr(const char* utf8) {
  const corvane::WString text = corvane::FromUtf8(utf8);
  BSTR b = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  g_strings.push_back(b);
  Add("BSTR:" + probe::Bstr(b), VT_BSTR, [&](VARIANT& v) { v.bstrVal = b; });
}

void BuildSources() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  Add("EMPTY", VT_EMPTY, [](VARIANT&) {});
  Add("NULL", VT_NULL, [](VARIANT&) {});
  SOURCES("I1", VT_I1, cVal, Int, CHAR, -128, -1, 0, 1, 127)
  SOURCES("I2", VT_I2, iVal, Int, SHORT, -32768, -129, -1, 128, 255, 256, 32767)
  SOURCES("I4", VT_I4, lVal, Int, LONG, INT32_MIN, -32769, -1, 0, 65535, 65536, 2958465, 2958466, -657434, -657435,
          INT32_MAX)
  SOURCES("INT", VT_INT, intVal, Int, INT, INT32_MIN, -1, INT32_MAX)
  SOURCES("I8", VT_I8, llVal, Int, LONGLONG, INT64_MIN, -2147483649LL, -1, 2147483648LL, 4294967296LL,
          9007199254740993LL, 922337203685477LL, 922337203685478LL, INT64_MAX)
  SOURCES("UI1", VT_UI1, bVal, UInt, BYTE, 0, 127, 128, 255)
  SOURCES("UI2", VT_UI2, uiVal, UInt, USHORT, 32767, 32768, 65535)
  SOURCES("UI4", VT_UI4, ulVal, UInt, ULONG, 2147483647u, 2147483648u, 4294967295u)
  SOURCES("UINT", VT_UINT, uintVal, UInt, UINT, 0, 4294967295u)
  SOURCES("UI8", VT_UI8, ullVal, UInt, ULONGLONG, 0, 9223372036854775807ULL, 9223372036854775808ULL, UINT64_MAX)
  SOURCES("R4", VT_R4, fltVal, Double, float, 0.5f, 1.5f, 2.5f, -0.5f, -1.5f, -2.5f, 0.1f, 127.5f, -128.5f, 255.5f,
          16777217.0f, 1e10f, 3.4e38f, -3.4e38f, 1e-45f, float(nan), float(inf), float(-inf), -0.0f, 123456.789f)
  SOURCES("R8", VT_R8, dblVal, Double, double, 0.5, 1.5, 2.5, -0.5, -1.5, -2.5, 3.5, 2.4999999999, 2.5000000001, 0.1,
          1.0 / 3, 2.0 / 3, 1e-5, 1e-7, 127.5, -128.5, 255.5, 32767.5, -32768.5, 65535.5, 2147483647.5,
          -2147483648.5, 4294967295.5, 9.2233720368547758e18, -9.2233720368547758e18, 1.8446744073709552e19,
          922337203685477.5807, 922337203685477.6, 123456789012345678.0, 1e15, 1e16, 1e20, 1e28,
          7.9228162514264338e28, 8e28, 3.5e38, 1e308, -1e308, 4.9e-324, nan, inf, -inf, -0.0, 12345.6789,
          0.00001234, 2958465.5, 2958466.0, -657434.0, -657434.9, -657435.0, 1234567.0)
  SOURCES("DATE", VT_DATE, date, Double, double, 0.0, 1.0, 0.25, 0.5, 0.75, 1.5, -1.5, -0.25, 43831.0,
          43832.0 + 54245.0 / 86400, 43832.0 + 54245.4 / 86400, 43832.0 + 54245.5 / 86400, 43832.0 + 54245.6 / 86400,
          43832.0 + 86399.7 / 86400, -36522.0, -36522.25, -1.0, -2.75, 2.0, 60.0, 61.0, 43898.0 + 2.5 / 24,
          44136.0 + 1.5 / 24, 2958465.0, 2958465.99998, 2958465.999995, -657434.0, -657434.5, -657435.0, 0.5 / 86400,
          1.5 / 86400, 1e-9, 0.999999, 1e10)
  SOURCES("BOOL", VT_BOOL, boolVal, Int, VARIANT_BOOL, VARIANT_TRUE, VARIANT_FALSE, 1, 5)
  for (LONGLONG x : std::initializer_list<LONGLONG>{0, 5000, 15000, 25000, -5000, -25000, 12345, 123456789,
                                                    1275000, INT64_MAX, INT64_MIN, -10000, 2558000})
    Add("CY:" + probe::Int(x) + "e-4", VT_CY, [&](VARIANT& v) { v.cyVal.int64 = x; });
  const struct {
    bool neg;
    BYTE scale;
    ULONG hi;
    ULONGLONG lo;
  } decimals[] = {
      {false, 0, 0, 0}, {false, 1, 0, 15}, {false, 1, 0, 25}, {true, 1, 0, 25}, {true, 1, 0, 5}, {false, 2, 0, 150},
      {false, 1, 0, 1}, {false, 28, 0, 1}, {false, 0, 0xFFFFFFFFu, UINT64_MAX}, {true, 0, 0xFFFFFFFFu, UINT64_MAX},
      {false, 28, 0xFFFFFFFFu, UINT64_MAX}, {false, 0, 0, 12345678901234567890ULL}, {false, 0, 0, 255},
      {false, 0, 0, 256}, {true, 0, 0, 128}, {true, 0, 0, 129}, {false, 4, 0, 12345678},
      {false, 0, 0, 9223372036854775807ULL}, {false, 0, 0, 9223372036854775808ULL}, {false, 0, 0, 43832},
      {false, 10, 1, 0},
      {false, 29, 0, 5},  // not a valid DECIMAL: scale beyond 28
  };
  for (const auto& d : decimals) AddDec(d.neg, d.scale, d.hi, d.lo);
  for (const char* text : {"TRUE", "True", "true", "False", "FALSE", " True ", "Yes", "On", "#TRUE#", "-1", "0", "1",
                           " 12 ", "\t12\t", "12 ", "1e3", "1E3", "1e+3", "1.5e-3", "1e", "abc", "12abc", "1,000",
                           "1,000.5", "1,2,3", ",5", "1.000,5", "", " ", "+5", "-0", "5-", "5+", "(5)", "$5", "$-5",
                           "&H10", "&hff", "&O17", "0x10", ".5", "5.", "1.5.5", "- 5", "--5", "0.5", "1.5", "2.5",
                           "-2.5", "12.5", "13.5", "2.50000001", "127", "128", "-128", "-129", "255", "256", "32767",
                           "32768", "65535", "65536", "2147483647", "2147483648", "-2147483648", "-2147483649",
                           "4294967295", "4294967296", "9223372036854775807", "9223372036854775808",
                           "-9223372036854775808", "18446744073709551615", "18446744073709551616",
                           "79228162514264337593543950335", "79228162514264337593543950336",
                           "0.0000000000000000000000000001", "0.00000000000000000000000000005",
                           "12345678901234567890.123456789", "922337203685477.5807", "922337203685477.58075",
                           "922337203685477.5808", "1.23456789012345678", "0.1", "3.4028235e38", "3.5e38", "1e308",
                           "1e309", "1e-400", "1e-320", "NaN", "Infinity", "2958465", "2020-01-01",
                           "2020-01-01 12:00:00", "2020-01-01T12:00:00", "2020-01-01 12:00:00.123",
                           "2020-01-01T12:00:00.5Z", "2020-01-01T12:00:00Z", "2020-01-01 12:00", "2020-1-2",
                           "2020/01/02", "1/2/2020 3:04:05 PM", "1/2/2020 3:04:05 AM", "1/2/2020 12:00:00 AM",
                           "1/2/2020 12:30:00 PM", "1/2/2020 15:04:05", "1/2/2020 3:04 PM", "1/2/2020 3 PM", "1/2/2020",
                           "01/02/2020", "1/2/20", "1/2/49", "1/2/50", "1/2/99", "1/2/100", "1-2-2020", "1.2.2020",
                           "3:04:05 PM", "15:04:05", "3:04 pm", "12:00:00 AM", "12/30/1899", "12/31/1899", "1/1/1900",
                           "3/1/1900", "1/1/1800", "1/1/1800 6:00:00 AM", "7/4/1776", "3/8/2020 2:30:00 AM",
                           "11/1/2020 1:30:00 AM", "3/29/2020 2:30:00 AM", "1/1/100", "12/31/9999",
                           "12/31/9999 11:59:59 PM", "1/1/10000", "2/29/2020", "2/29/2019", "2/30/2020", "13/1/2020",
                           "0/1/2020", "1/2/2020 25:00:00", "1/2/2020 3:60:00 PM", "1/2/2020 13:00:00 PM",
                           "January 2, 2020", "Jan 2 2020", "2 January 2020", "2-Jan-2020", "Thursday, January 2, 2020",
                           "2020-13-01", "2020-02-30", "24:00:00", "1/2/2020 3:04:05.5 PM", "1/2", "2020",
                           "1/2/2020 PM", "\u00A0" "12", "1\u00A0" "000"})
    AddStr(text);
}

const VARTYPE kTargets[] = {VT_EMPTY, VT_NULL, VT_I1, VT_I2,   VT_I4,  VT_I8,   VT_UI1,  VT_UI2, VT_UI4,    VT_UI8,
                            VT_INT,   VT_UINT, VT_R4, VT_R8,   VT_BOOL, VT_BSTR, VT_DATE, VT_CY, VT_DECIMAL};

void Convert(probe::Output& out, const std::string& id, const VARIANT& source, LCID lcid, USHORT flags, VARTYPE vt,
             bool useEx = true) {
  VARIANT src = source;  // the system's declarations take the source as non-const
  VARIANT dst;
  VariantInit(&dst);
  HRESULT hr = useEx ? VariantChangeTypeEx(&dst, &src, lcid, flags, vt) : VariantChangeType(&dst, &src, flags, vt);
  out.Line(id, hr, probe::VarTypeName(dst.vt), probe::Value(dst));
  VariantClear(&dst);
}

void ConversionMatrix(probe::Output& out) {
  for (const Source& s : g_sources)
    for (VARTYPE vt : kTargets) Convert(out, "conv/" + s.id + "/" + probe::VarTypeName(vt), s.v, kEnUs, 0, vt);
}

// The default and neutral locales must behave like en-US here.
void Locales(probe::Output& out) {
  for (const Source& s : g_sources) {
    if (s.v.vt != VT_BSTR && s.v.vt != VT_DATE && s.v.vt != VT_R8) continue;
    VARTYPE vt = s.v.vt == VT_BSTR ? VT_R8 : VT_BSTR;
    Convert(out, "userdefault/" + s.id + "/" + probe::VarTypeName(vt), s.v, 0, 0, vt, false);
    if (s.v.vt == VT_BSTR) Convert(out, "userdefault/" + s.id + "/DATE", s.v, 0, 0, VT_DATE, false);
    Convert(out, "invariant/" + s.id + "/" + probe::VarTypeName(vt), s.v, LOCALE_INVARIANT, 0, vt);
  }
}

void Flags(probe::Output& out) {
  const USHORT flagSets[] = {0, VARIANT_ALPHABOOL, VARIANT_LOCALBOOL, VARIANT_ALPHABOOL | VARIANT_LOCALBOOL,
                             VARIANT_NOVALUEPROP, VARIANT_NOUSEROVERRIDE};
  for (USHORT f : flagSets) {
    for (const Source& s : g_sources) {
      bool boolish = s.v.vt == VT_BOOL;
      if (s.v.vt == VT_BSTR) {
        const std::string& id = s.id;
        boolish = id.find("rue") != std::string::npos || id.find("RUE") != std::string::npos ||
                  id.find("alse") != std::string::npos || id.find("ALSE") != std::string::npos ||
                  id == "BSTR:\"-1\"" || id == "BSTR:\"0\"" || id == "BSTR:\"Yes\"" || id == "BSTR:\"On\"" ||
                  id == "BSTR:\"abc\"";
      }
      if (!boolish) continue;
      VARTYPE vt = s.v.vt == VT_BOOL ? VT_BSTR : VT_BOOL;
      Convert(out, "flags" + probe::Int(f) + "/" + s.id + "/" + probe::VarTypeName(vt), s.v, kEnUs, f, vt);
    }
  }
}

// dest == src: the conversion must read the source before it overwrites it, and a
// failure must leave the source as it was.
void InPlace(probe::Output& out) {
  struct Case {
    const char* id;
    const OLECHAR* text;
    VARTYPE vt;
  } cases[] = {{"42->I4", OLESTR("42"), VT_I4},     {"abc->I4", OLESTR("abc"), VT_I4},
               {"2.5->R8", OLESTR("2.5"), VT_R8},   {"date->DATE", OLESTR("1/2/2020 3:04:05 PM"), VT_DATE},
               {"true->BOOL", OLESTR("True"), VT_BOOL}, {"300->UI1", OLESTR("300"), VT_UI1},
               {"x->BSTR", OLESTR("x"), VT_BSTR}};
  for (const Case& c : cases) {
    VARIANT v;
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(c.text);
    HRESULT hr = VariantChangeTypeEx(&v, &v, kEnUs, 0, c.vt);
    out.Line(std::string("inplace/") + c.id, hr, probe::VarTypeName(v.vt), probe::Value(v));
    VariantClear(&v);
  }
  VARIANT v;
  v.vt = VT_R8;
  v.dblVal = 2.5;
  HRESULT hr = VariantChangeTypeEx(&v, &v, kEnUs, 0, VT_BSTR);
  out.Line("inplace/R8:2.5->BSTR", hr, probe::VarTypeName(v.vt), probe::Value(v));
  VariantClear(&v);
  v.vt = VT_I4;
  v.lVal = 70000;
  hr = VariantChangeTypeEx(&v, &v, kEnUs, 0, VT_I2);
  out.Line("inplace/I4:70000->I2", hr, probe::VarTypeName(v.vt), probe::Value(v));
}

void Odd(probe::Output& out) {
  LONG l = 77;
  BSTR s = SysAllocString(OLESTR(" 8.5 "));
  DOUBLE d = 1.5;
  DECIMAL dec{};
  dec.scale = 1;
  dec.Lo64 = 25;
  VARIANT inner;
  inner.vt = VT_BSTR;
  inner.bstrVal = s;
  VARIANT v;
  v.vt = VT_BYREF | VT_I4;
  v.plVal = &l;
  for (VARTYPE vt : {VT_BSTR, VT_R8, VT_I1}) Convert(out, "byref/I4:77/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  v.vt = VT_BYREF | VT_BSTR;
  v.pbstrVal = &s;
  for (VARTYPE vt : {VT_R8, VT_I4, VT_BSTR}) Convert(out, "byref/BSTR/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  v.vt = VT_BYREF | VT_R8;
  v.pdblVal = &d;
  Convert(out, "byref/R8:1.5/I4", v, kEnUs, 0, VT_I4);
  v.vt = VT_BYREF | VT_DECIMAL;
  v.pdecVal = &dec;
  Convert(out, "byref/DEC:2.5/I4", v, kEnUs, 0, VT_I4);
  v.vt = VT_BYREF | VT_VARIANT;
  v.pvarVal = &inner;
  Convert(out, "byref/VARIANT(BSTR)/R8", v, kEnUs, 0, VT_R8);
  v.vt = VT_I4;
  v.lVal = 5;
  Convert(out, "target/BYREF|I4", v, kEnUs, 0, VT_BYREF | VT_I4);
  Convert(out, "target/15", v, kEnUs, 0, 15);
  Convert(out, "target/ERROR", v, kEnUs, 0, VT_ERROR);
  Convert(out, "target/VARIANT", v, kEnUs, 0, VT_VARIANT);
  Convert(out, "target/UNKNOWN", v, kEnUs, 0, VT_UNKNOWN);
  Convert(out, "target/ARRAY|I4", v, kEnUs, 0, VT_ARRAY | VT_I4);
  v.vt = 15;
  Convert(out, "source/15/I4", v, kEnUs, 0, VT_I4);
  v.vt = VT_ERROR;
  v.scode = DISP_E_PARAMNOTFOUND;
  for (VARTYPE vt : {VT_I4, VT_BSTR, VT_ERROR, VT_EMPTY})
    Convert(out, "source/ERROR/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  v.vt = VT_UNKNOWN;
  v.punkVal = nullptr;
  for (VARTYPE vt : {VT_I4, VT_BSTR, VT_UNKNOWN}) Convert(out, "source/UNKNOWN(null)/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  v.vt = VT_BSTR;
  v.bstrVal = nullptr;
  for (VARTYPE vt : kTargets) Convert(out, "source/BSTR(null)/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  const OLECHAR embedded[] = {'1', '2', 0, '3'};
  v.bstrVal = SysAllocStringLen(embedded, 4);
  for (VARTYPE vt : {VT_I4, VT_BSTR, VT_DATE}) Convert(out, "source/BSTR(12\\0003)/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  SysFreeString(v.bstrVal);
  SysFreeString(s);
}

void Dates(probe::Output& out) {
  const OLECHAR* texts[] = {OLESTR("1/2/2020 3:04:05 PM"), OLESTR("1/2/2020"),        OLESTR("3:04:05 PM"),
                            OLESTR("2020-01-01T12:00:00Z"), OLESTR("1/1/1800 6:00 AM"), OLESTR("abc"),
                            OLESTR(""),                     OLESTR("  1/2/2020  ")};
  for (const OLECHAR* t : texts) {
    for (ULONG f : {ULONG(0), ULONG(VAR_TIMEVALUEONLY), ULONG(VAR_DATEVALUEONLY)}) {
      DATE d = -12345;
      BSTR b = SysAllocString(t);
      HRESULT hr = VarDateFromStr(b, kEnUs, f, &d);
      out.Line("VarDateFromStr/" + probe::Bstr(b) + "/" + probe::Int(f), hr, "DATE",
               SUCCEEDED(hr) ? probe::Double(d) : "");
      SysFreeString(b);
    }
  }
  for (double d : {0.0, 0.5, 43832.0 + 54245.0 / 86400, 43832.0, -36522.25, 2958465.99999, 2958466.0, -657435.0}) {
    for (ULONG f : {ULONG(0), ULONG(VAR_TIMEVALUEONLY), ULONG(VAR_DATEVALUEONLY)}) {
      BSTR b = nullptr;
      HRESULT hr = VarBstrFromDate(d, kEnUs, f, &b);
      out.Line("VarBstrFromDate/" + probe::Double(d) + "/" + probe::Int(f), hr, "BSTR", probe::Bstr(b));
      SysFreeString(b);
    }
  }
  struct St {
    WORD y, mo, d, h, mi, s, ms;
  } sts[] = {{2020, 1, 2, 15, 4, 5, 0},    {2020, 1, 2, 15, 4, 5, 499}, {2020, 1, 2, 15, 4, 5, 500},
             {2020, 1, 2, 15, 4, 5, 501},  {2020, 1, 2, 23, 59, 59, 999}, {1899, 12, 30, 0, 0, 0, 0},
             {1800, 1, 1, 6, 0, 0, 0},     {100, 1, 1, 0, 0, 0, 0},     {99, 1, 1, 0, 0, 0, 0},
             {9999, 12, 31, 23, 59, 59, 0}, {10000, 1, 1, 0, 0, 0, 0},  {2020, 13, 1, 0, 0, 0, 0},
             {2020, 2, 30, 0, 0, 0, 0},    {2020, 1, 32, 0, 0, 0, 0},   {2020, 1, 2, 24, 0, 0, 0},
             {2020, 1, 2, 0, 60, 0, 0},    {2020, 1, 2, 0, 0, 60, 0},   {2020, 0, 1, 0, 0, 0, 0},
             {2020, 1, 0, 0, 0, 0, 0},     {2020, 1, 2, 0, 0, 0, 1000}, {2020, 3, 8, 2, 30, 0, 0},
             {2020, 1, 2, 25, 0, 0, 0},    {2020, 1, 2, 99, 0, 0, 0},   {2020, 1, 2, 0, 61, 0, 0},
             {2020, 1, 2, 0, 999, 0, 0},   {2020, 1, 2, 0, 0, 61, 0},   {2020, 1, 2, 0, 0, 999, 0},
             {2020, 12, 31, 24, 0, 0, 0},  {1800, 1, 1, 25, 0, 0, 0},   {0, 1, 1, 0, 0, 0, 0},
             {29, 1, 1, 0, 0, 0, 0},       {30, 1, 1, 0, 0, 0, 0},      {49, 1, 1, 0, 0, 0, 0},
             {50, 6, 1, 0, 0, 0, 0},       {2019, 2, 29, 0, 0, 0, 0},   {2020, 4, 31, 0, 0, 0, 0}};
  for (const St& x : sts) {
    SYSTEMTIME st{x.y, x.mo, 0, x.d, x.h, x.mi, x.s, x.ms};
    DOUBLE d = -12345;
    INT ok = SystemTimeToVariantTime(&st, &d);
    out.Line("SystemTimeToVariantTime/" + probe::SystemTime(st), ok, "DATE", ok ? probe::Double(d) : "");
  }
  for (double d : {0.0, 0.5, -0.5, -1.25, 43832.0 + 54245.0 / 86400, 43832.0 + 54245.4 / 86400,
                   43832.0 + 54245.4995 / 86400, 43832.0 + 54245.5 / 86400, 43832.0 + 54245.5005 / 86400,
                   43832.0 + 54245.999 / 86400, 43832.0 + 86399.9996 / 86400, 43832.0 + 86399.5 / 86400,
                   -36522.25, 2958465.99999, 2958465.999999, 2958466.0, -657434.0, -657435.0, 1e-9,
                   0.0005 / 86400, 0.0004 / 86400, -0.0006 / 86400}) {
    SYSTEMTIME st{};
    INT ok = VariantTimeToSystemTime(d, &st);
    out.Line("VariantTimeToSystemTime/" + probe::Double(d), ok, "SYSTEMTIME", ok ? probe::SystemTime(st) : "");
  }
}

// The Var* entry points are called by the provider directly, so each gets a few cases
// of its own even though VariantChangeType covers the same ground.
void VarFunctions(probe::Output& out) {
  for (const OLECHAR* t : {OLESTR("1,234.5"), OLESTR(" -7 "), OLESTR("1e400"), OLESTR("x"), OLESTR("2.5"),
                           OLESTR("9223372036854775808"), OLESTR("-2147483648.5")}) {
    BSTR b = SysAllocString(t);
    std::string id = probe::Bstr(b);
    DOUBLE d = 0;
    HRESULT hr = VarR8FromStr(b, kEnUs, 0, &d);
    out.Line("VarR8FromStr/" + id, hr, "R8", SUCCEEDED(hr) ? probe::Double(d) : "");
    LONG64 i8 = 0;
    hr = VarI8FromStr(b, kEnUs, 0, &i8);
    out.Line("VarI8FromStr/" + id, hr, "I8", SUCCEEDED(hr) ? probe::Int(i8) : "");
    LONG i4 = 0;
    hr = VarI4FromStr(b, kEnUs, 0, &i4);
    out.Line("VarI4FromStr/" + id, hr, "I4", SUCCEEDED(hr) ? probe::Int(i4) : "");
    SysFreeString(b);
  }
  for (double d : {0.1, -2.5, 1e20, 1.5e-7, 123456789012345.0, 1234567890123456.0, 0.0, -0.0}) {
    BSTR b = nullptr;
    HRESULT hr = VarBstrFromR8(d, kEnUs, 0, &b);
    out.Line("VarBstrFromR8/" + probe::Double(d), hr, "BSTR", probe::Bstr(b));
    SysFreeString(b);
    DECIMAL dec{};
    hr = VarDecFromR8(d, &dec);
    out.Line("VarDecFromR8/" + probe::Double(d), hr, "DECIMAL", SUCCEEDED(hr) ? probe::Decimal(dec) : "");
    CY cy{};
    hr = VarCyFromR8(d, &cy);
    out.Line("VarCyFromR8/" + probe::Double(d), hr, "CY", SUCCEEDED(hr) ? probe::Currency(cy) : "");
  }
  for (LONG64 i : {LONG64(0), LONG64(-1), LONG64(INT64_MIN), LONG64(INT64_MAX)}) {
    BSTR b = nullptr;
    HRESULT hr = VarBstrFromI8(i, kEnUs, 0, &b);
    out.Line("VarBstrFromI8/" + probe::Int(i), hr, "BSTR", probe::Bstr(b));
    SysFreeString(b);
  }
  for (Source& s : g_sources) {
    if (s.v.vt == VT_DECIMAL) {
      DOUBLE d = 0;
      HRESULT hr = VarR8FromDec(&s.v.decVal, &d);
      out.Line("VarR8FromDec/" + s.id, hr, "R8", SUCCEEDED(hr) ? probe::Double(d) : "");
    } else if (s.v.vt == VT_CY) {
      DOUBLE d = 0;
      HRESULT hr = VarR8FromCy(s.v.cyVal, &d);
      out.Line("VarR8FromCy/" + s.id, hr, "R8", SUCCEEDED(hr) ? probe::Double(d) : "");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  probe::Output out(argc, argv);
  if (!out.ok()) return 2;
  BuildSources();
  ConversionMatrix(out);
  Locales(out);
  Flags(out);
  InPlace(out);
  Odd(out);
  Dates(out);
  VarFunctions(out);
  for (BSTR b : g_strings) SysFreeString(b);
  return 0;
}
