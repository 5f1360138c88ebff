// Runs VARIANT conversions, date/text parsing and formatting, and the SYSTEMTIME conversions through the platform layer
// (natively) or the system's OLE Automation (Windows build under Wine), one output line per case.
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include "ProbeSupport.h"
#include "platform/WideString.h"

namespace {

const LCID kEnUs = 0x0409;

struct Source { std::string id; VARIANT v; };

std::vector<Source> g_sources;
std::vector<BSTR> g_strings;  // freed at the end

template <typename Set>
void Add(const std::string& id, VARTYPE vt, Set set) {
  g_sources.push_back({id, VARIANT{}});
  set(g_sources.back().v);
  g_sources.back().v.vt = vt;
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

// One source per path through the conversions (a value that walked the same lines and
// branches as another one was left out).
void BuildSources() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  Add("EMPTY", VT_EMPTY, [](VARIANT&) {});
  Add("NULL", VT_NULL, [](VARIANT&) {});
  SOURCES("I1", VT_I1, cVal, Int, CHAR, 1)
  SOURCES("I2", VT_I2, iVal, Int, SHORT, 128)
  SOURCES("I4", VT_I4, lVal, Int, LONG, 65536)
  SOURCES("INT", VT_INT, intVal, Int, INT, -1)
  SOURCES("I8", VT_I8, llVal, Int, LONGLONG, INT64_MIN, 9007199254740993LL)
  SOURCES("UI1", VT_UI1, bVal, UInt, BYTE, 127)
  SOURCES("UI2", VT_UI2, uiVal, UInt, USHORT, 32767)
  SOURCES("UI4", VT_UI4, ulVal, UInt, ULONG, 2147483647u)
  SOURCES("UINT", VT_UINT, uintVal, UInt, UINT, 0)
  SOURCES("UI8", VT_UI8, ullVal, UInt, ULONGLONG, 9223372036854775807ULL)
  SOURCES("R4", VT_R4, fltVal, Double, float, 1e-45f, float(nan))
  SOURCES("R8", VT_R8, dblVal, Double, double, 2.5, 922337203685477.6, 4.9e-324, inf, -inf)
  SOURCES("DATE", VT_DATE, date, Double, double, 1.5, -657435.0)
  SOURCES("BOOL", VT_BOOL, boolVal, Int, VARIANT_BOOL, VARIANT_TRUE, VARIANT_FALSE)
  for (LONGLONG x : std::initializer_list<LONGLONG>{15000, -5000, 12345, 123456789})
    Add("CY:" + probe::Int(x) + "e-4", VT_CY, [&](VARIANT& v) { v.cyVal.int64 = x; });
  AddDec(false, 1, 0, 15);
  AddDec(true, 1, 0, 5);
  AddDec(true, 0, 0xFFFFFFFFu, UINT64_MAX);
  AddDec(false, 28, 0xFFFFFFFFu, UINT64_MAX);
  AddDec(false, 29, 0, 5);  // not a valid DECIMAL: scale beyond 28
  for (const char* text : {"True", "False", "#TRUE#", "\t12\t", "1E3", "1e+3", "1e", "abc", "1,000", ",5", "1.000,5",
                           "+5", "-0", "5+", "(5)", "$5", "&H10", "&hff", "&O17", "5.", "--5", "1.5", "2.5", "127",
                           "256", "79228162514264337593543950336", "922337203685477.5807", "1.23456789012345678",
                           "3.5e38", "1e-320", "2020-01-01 12:00:00.123", "1/2/2020 3:04:05 PM",
                           "1/2/2020 12:00:00 AM", "1/2/2020 12:30:00 PM", "1/2/2020 3 PM", "1.2.2020", "1/1/10000",
                           "2/29/2019", "0/1/2020", "1/2/2020 13:00:00 PM", "2-Jan-2020", "Thursday, January 2, 2020",
                           "2020-13-01", "2020-02-30", "1/2", "2020", "\u00A0" "12"})
    AddStr(text);
}

const VARTYPE kTargets[] = {VT_EMPTY, VT_NULL, VT_I1, VT_I2,   VT_I4,  VT_I8,   VT_UI1,  VT_UI2, VT_UI4,    VT_UI8,
                            VT_INT,   VT_UINT, VT_R4, VT_R8,   VT_BOOL, VT_BSTR, VT_DATE, VT_CY, VT_DECIMAL};

void Convert(probe::Output& out, const std::string& id, const VARIANT& source, LCID lcid, USHORT flags, VARTYPE vt,
             bool useEx = true) {
  VARIANT src = source;  // the system's declarations take the source as non-const
  VARIANT dst{};
  HRESULT hr = useEx ? VariantChangeTypeEx(&dst, &src, lcid, flags, vt) : VariantChangeType(&dst, &src, flags, vt);
  out.Line(id, hr, probe::VarTypeName(dst.vt), probe::Value(dst));
  VariantClear(&dst);
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
      const bool boolish = s.v.vt == VT_BOOL || s.id.find("rue") != std::string::npos ||
                           s.id.find("RUE") != std::string::npos || s.id.find("alse") != std::string::npos ||
                           s.id == "BSTR:\"abc\"";
      if (!boolish) continue;
      VARTYPE vt = s.v.vt == VT_BOOL ? VT_BSTR : VT_BOOL;
      Convert(out, "flags" + probe::Int(f) + "/" + s.id + "/" + probe::VarTypeName(vt), s.v, kEnUs, f, vt);
    }
  }
}

// dest == src: the conversion must read the source before it overwrites it, and a
// failure must leave the source as it was.
void InPlace(probe::Output& out) {
  const std::pair<const char*, VARTYPE> cases[] = {
      {"BSTR:\"127\"", VT_I4},   {"BSTR:\"abc\"", VT_I4},    {"BSTR:\"2.5\"", VT_R8},
      {"BSTR:\"1/2/2020 3:04:05 PM\"", VT_DATE}, {"BSTR:\"True\"", VT_BOOL}, {"BSTR:\"256\"", VT_UI1},
      {"BSTR:\"abc\"", VT_BSTR}, {"R8:2.5", VT_BSTR},          {"I4:65536", VT_I2}};
  for (const auto& [id, vt] : cases) {
    for (const Source& s : g_sources) {
      if (s.id != id) continue;
      VARIANT v{};
      VariantCopy(&v, const_cast<VARIANT*>(&s.v));  // the system's declarations take the source as non-const
      const HRESULT hr = VariantChangeTypeEx(&v, &v, kEnUs, 0, vt);
      out.Line("inplace/" + s.id + "/" + probe::VarTypeName(vt), hr, probe::VarTypeName(v.vt), probe::Value(v));
      VariantClear(&v);
    }
  }
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
  const struct {
    const char* id;
    VARTYPE vt;
    void* value;
    std::initializer_list<VARTYPE> targets;
  } byReference[] = {{"I4:77", VT_I4, &l, {VT_BSTR, VT_R8, VT_I1}}, {"BSTR", VT_BSTR, &s, {VT_R8, VT_I4, VT_BSTR}},
                     {"R8:1.5", VT_R8, &d, {VT_I4}},                {"DEC:2.5", VT_DECIMAL, &dec, {VT_I4}},
                     {"VARIANT(BSTR)", VT_VARIANT, &inner, {VT_R8}}};
  VARIANT v;
  for (const auto& c : byReference) {
    v.vt = VT_BYREF | c.vt;
    v.byref = c.value;
    for (VARTYPE vt : c.targets)
      Convert(out, "byref/" + std::string(c.id) + "/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
  }
  v.vt = VT_I4;
  v.lVal = 5;
  for (VARTYPE vt : {VARTYPE(VT_BYREF | VT_I4), VARTYPE(15), VARTYPE(VT_ERROR), VARTYPE(VT_VARIANT), VARTYPE(VT_UNKNOWN),
                     VARTYPE(VT_ARRAY | VT_I4)})
    Convert(out, "target/" + probe::VarTypeName(vt), v, kEnUs, 0, vt);
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
  for (const OLECHAR* t : {OLESTR("2020-01-01T12:00:00Z"), OLESTR("1/1/1800 6:00 AM"), OLESTR("")}) {
    for (ULONG f : {ULONG(0), ULONG(VAR_TIMEVALUEONLY), ULONG(VAR_DATEVALUEONLY)}) {
      DATE d = -12345;
      BSTR b = SysAllocString(t);
      HRESULT hr = VarDateFromStr(b, kEnUs, f, &d);
      out.Line("VarDateFromStr/" + probe::Bstr(b) + "/" + probe::Int(f), hr, "DATE",
               SUCCEEDED(hr) ? probe::Double(d) : "");
      SysFreeString(b);
    }
  }
  for (double d : {0.0, 43832.0, -36522.25, 2958466.0}) {
    for (ULONG f : {ULONG(0), ULONG(VAR_TIMEVALUEONLY), ULONG(VAR_DATEVALUEONLY)}) {
      BSTR b = nullptr;
      HRESULT hr = VarBstrFromDate(d, kEnUs, f, &b);
      out.Line("VarBstrFromDate/" + probe::Double(d) + "/" + probe::Int(f), hr, "BSTR", probe::Bstr(b));
      SysFreeString(b);
    }
  }
  // Year 99 (two digits), beyond 9999, month 13, day 32, month 0, and milliseconds, which the system ignores.
  for (SYSTEMTIME st : {SYSTEMTIME{99, 1, 0, 1, 0, 0, 0, 0}, SYSTEMTIME{10000, 1, 0, 1, 0, 0, 0, 0},
                         SYSTEMTIME{2020, 13, 0, 1, 0, 0, 0, 0}, SYSTEMTIME{2020, 1, 0, 32, 0, 0, 0, 0},
                         SYSTEMTIME{2020, 0, 0, 1, 0, 0, 0, 0}, SYSTEMTIME{2020, 1, 0, 2, 15, 4, 5, 500}}) {
    DOUBLE d = -12345;
    INT ok = SystemTimeToVariantTime(&st, &d);
    out.Line("SystemTimeToVariantTime/" + probe::SystemTime(st), ok, "DATE", ok ? probe::Double(d) : "");
  }
  // Around a half millisecond, and where rounding carries into the next day or past the last one.
  for (double d : {43832.0 + 54245.4995 / 86400, 43832.0 + 54245.5 / 86400, 43832.0 + 54245.5005 / 86400,
                   43832.0 + 86399.9996 / 86400, 2958466.0}) {
    SYSTEMTIME st{};
    INT ok = VariantTimeToSystemTime(d, &st);
    out.Line("VariantTimeToSystemTime/" + probe::Double(d), ok, "SYSTEMTIME", ok ? probe::SystemTime(st) : "");
  }
}

// The Var* entry points are called by the provider directly, so each gets a few cases
// of its own even though VariantChangeType covers the same ground.
void VarFunctions(probe::Output& out) {
  for (const OLECHAR* t : {OLESTR("1,234.5"), OLESTR("1e400")}) {
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
  for (double d : {0.1, -2.5, 1e20, 0.0}) {
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
  for (LONG64 i : {LONG64(0), LONG64(-1)}) {
    BSTR b = nullptr;
    HRESULT hr = VarBstrFromI8(i, kEnUs, 0, &b);
    out.Line("VarBstrFromI8/" + probe::Int(i), hr, "BSTR", probe::Bstr(b));
    SysFreeString(b);
  }
  for (Source& s : g_sources) {
    if (s.v.vt != VT_DECIMAL && s.v.vt != VT_CY) continue;
    DOUBLE d = 0;
    const HRESULT hr = s.v.vt == VT_CY ? VarR8FromCy(s.v.cyVal, &d) : VarR8FromDec(&s.v.decVal, &d);
    out.Line((s.v.vt == VT_CY ? "VarR8FromCy/" : "VarR8FromDec/") + s.id, hr, "R8",
             SUCCEEDED(hr) ? probe::Double(d) : "");
  }
}

}  // namespace

int main(int argc, char** argv) {
  probe::Output out(argc, argv);
  if (!out.ok()) return 2;
  BuildSources();
  for (const Source& s : g_sources)
    for (VARTYPE vt : kTargets) Convert(out, "conv/" + s.id + "/" + probe::VarTypeName(vt), s.v, kEnUs, 0, vt);
  Locales(out);
  Flags(out);
  InPlace(out);
  Odd(out);
  Dates(out);
  VarFunctions(out);
  for (BSTR b : g_strings) SysFreeString(b);
  return 0;
}
