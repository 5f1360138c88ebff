// Shared by the differential probes: each probe runs a table of cases through the platform layer (natively) or through
// the system DLLs (Windows build, run under Wine) and writes one line per case, "<case id>\t<hresult hex>\t<result
// vt>\t<rendered result>", to the file named by argv[1]. The renderings are exact (doubles with 17 significant digits,
// strings escaped) so that equal lines mean equal results.
#pragma once
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <string>

#include "platform/Platform.h"

namespace probe {

class Output {
 public:
  Output(int argc, char** argv) : file_(argc > 1 ? std::fopen(argv[1], "wb") : nullptr) {
    if (!file_) std::fprintf(stderr, "usage: %s <output file to write>\n", argv[0]);
  }
  ~Output() {
    if (file_) std::fclose(file_);
    std::printf("%d cases\n", cases_);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  bool ok() const { return file_ != nullptr; }

  void Line(const std::string& id, HRESULT hr, const std::string& vt, const std::string& value) {
    std::fprintf(file_, "%s\t%08" PRIX32 "\t%s\t%s\n", id.c_str(), static_cast<uint32_t>(hr), vt.c_str(),
                 value.c_str());
    ++cases_;
  }

 private:
  std::FILE* file_;
  int cases_ = 0;
};

// Exact and identical on both C runtimes (which disagree on NaN, infinities and the number of exponent digits).
inline std::string Double(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d < 0 ? "-inf" : "inf";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", d);
  std::string s = buf;
  size_t e = s.find('e');
  if (e != std::string::npos) {
    size_t digits = e + 2;
    while (digits + 1 < s.size() && s[digits] == '0') s.erase(digits, 1);
  }
  return s;
}

inline std::string Int(int64_t v) { return std::to_string(v); }
inline std::string UInt(uint64_t v) { return std::to_string(v); }

// A UTF-16 text as a quoted ASCII string; other code units as \uXXXX.
inline std::string Text(const OLECHAR* s, size_t n) {
  std::string out = "\"";
  for (size_t i = 0; i < n; ++i) {
    unsigned c = static_cast<unsigned>(s[i]);
    if (c == '"' || c == '\\') out += '\\';
    char buf[8];
    std::snprintf(buf, sizeof buf, c >= 0x20 && c < 0x7F ? "%c" : "\\u%04X", c);
    out += buf;
  }
  return out + "\"";
}

inline std::string Bstr(BSTR s) { return s ? Text(s, SysStringLen(s)) : std::string("(null)"); }

// The 96-bit mantissa in decimal, the scale as a power of ten: "-150e-2".
inline std::string Decimal(const DECIMAL& d) {
  unsigned __int128 mantissa = (static_cast<unsigned __int128>(d.Hi32) << 64) | d.Lo64;
  std::string digits;
  do {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(mantissa % 10)));
    mantissa /= 10;
  } while (mantissa);
  std::string out = (d.sign & DECIMAL_NEG) ? "-" : "";
  out += digits + "e-" + Int(d.scale);
  if (d.sign & ~DECIMAL_NEG) out += " sign=" + Int(d.sign);
  return out;
}

inline std::string Currency(CY c) { return Int(c.int64) + "e-4"; }

inline std::string VarTypeName(VARTYPE vt) {
  static const char* const names[] = {"EMPTY", "NULL", "I2",      "I4",   "R4",  "R8",       "CY",    "DATE",
                                      "BSTR",  "DISPATCH", "ERROR", "BOOL", "VARIANT", "UNKNOWN", "DECIMAL", "15",
                                      "I1",    "UI1",  "UI2",     "UI4",  "I8",  "UI8",      "INT",   "UINT"};
  std::string prefix;
  if (vt & VT_BYREF) prefix = "BYREF|";
  VARTYPE base = vt & VT_TYPEMASK;
  if (base < sizeof names / sizeof names[0] && !(vt & ~(VT_TYPEMASK | VT_BYREF))) return prefix + names[base];
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%04X", vt);
  return buf;
}

inline std::string Value(const VARIANT& v) {
  switch (v.vt) {
    case VT_EMPTY: case VT_NULL: return "";
    case VT_I1: return Int(v.cVal);
    case VT_I2: return Int(v.iVal);
    case VT_I4: return Int(v.lVal);
    case VT_INT: return Int(v.intVal);
    case VT_I8: return Int(v.llVal);
    case VT_UI1: return UInt(v.bVal);
    case VT_UI2: return UInt(v.uiVal);
    case VT_UI4: return UInt(v.ulVal);
    case VT_UINT: return UInt(v.uintVal);
    case VT_UI8: return UInt(v.ullVal);
    case VT_R4: return Double(v.fltVal);
    case VT_R8: return Double(v.dblVal);
    case VT_DATE: return Double(v.date);
    case VT_BOOL: return Int(v.boolVal);
    case VT_ERROR: return Int(v.scode);
    case VT_BSTR: return Bstr(v.bstrVal);
    case VT_CY: return Currency(v.cyVal);
    case VT_DECIMAL: return Decimal(v.decVal);
    default: return "?";
  }
}

inline std::string SystemTime(const SYSTEMTIME& st) {
  char buf[80];
  std::snprintf(buf, sizeof buf, "%04u-%02u-%02u %02u:%02u:%02u.%03u dow=%u", st.wYear, st.wMonth, st.wDay,
                st.wHour, st.wMinute, st.wSecond, st.wMilliseconds, st.wDayOfWeek);
  return buf;
}

}  // namespace probe
