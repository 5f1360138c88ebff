// Conversion sources written as text ("I4 -5", "WSTR hello", "VARIANT R8 2.25"; see Value
// below) and what a conversion wrote shown as text, shared by the conversion suites.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "platform/WideString.h"
#include "provider/store/DataConvert.h"
#include "tests/support/Printers.h"

namespace corvane::test {

// A value of a type written "TYPE text": "I4 -5", "WSTR hello", "DBTIMESTAMP 2003-01-02
// 04:05:06.123000000", "VARIANT R8 2.25"; "&" after the type is by reference.
struct Value {
  DBTYPE type = DBTYPE_EMPTY;
  alignas(16) BYTE bytes[64] = {};
  WString wide;
  std::string narrow;
  BSTR bstr = nullptr;
  const void* pointer = nullptr;
  ~Value() {
    SysFreeString(bstr);
    if (type == DBTYPE_VARIANT) VariantClear(reinterpret_cast<VARIANT*>(bytes));
  }
  void* Data() {
    if (type == DBTYPE_WSTR) return &wide[0];
    if (type == DBTYPE_STR) return &narrow[0];
    if (type == DBTYPE_BSTR) return &bstr;
    if (type & DBTYPE_BYREF) return &pointer;
    return bytes;
  }
};

inline const std::pair<const char*, DBTYPE> kTypes[] = {
    {"I1", DBTYPE_I1},     {"I2", DBTYPE_I2},         {"I4", DBTYPE_I4},       {"I8", DBTYPE_I8},
    {"UI1", DBTYPE_UI1},   {"UI2", DBTYPE_UI2},       {"UI4", DBTYPE_UI4},     {"UI8", DBTYPE_UI8},
    {"R4", DBTYPE_R4},     {"R8", DBTYPE_R8},         {"BOOL", DBTYPE_BOOL},   {"CY", DBTYPE_CY},
    {"DATE", DBTYPE_DATE}, {"WSTR", DBTYPE_WSTR},     {"STR", DBTYPE_STR},     {"BSTR", DBTYPE_BSTR},
    {"DBDATE", DBTYPE_DBDATE}, {"DBTIME", DBTYPE_DBTIME}, {"DBTIMESTAMP", DBTYPE_DBTIMESTAMP},
    {"FILETIME", DBTYPE_FILETIME}, {"NUMERIC", DBTYPE_NUMERIC}, {"VARIANT", DBTYPE_VARIANT}, {"GUID", DBTYPE_GUID}};

inline DBTYPE TypeOf(const std::string& name) {
  const bool byRef = !name.empty() && name.back() == '&';
  for (const auto& [text, type] : kTypes)
    if (name.substr(0, name.size() - byRef) == text) return type | (byRef ? DBTYPE_BYREF : 0);
  ADD_FAILURE() << "type " << name;
  return DBTYPE_EMPTY;
}

inline DBTIMESTAMP Timestamp(const std::string& text) {
  unsigned f[7] = {};
  std::sscanf(text.c_str(), "%u-%u-%u %u:%u:%u.%u", f, f + 1, f + 2, f + 3, f + 4, f + 5, f + 6);
  return DBTIMESTAMP{SHORT(f[0]), USHORT(f[1]), USHORT(f[2]), USHORT(f[3]), USHORT(f[4]), USHORT(f[5]), ULONG(f[6])};
}

inline void Parse(const std::string& written, Value* v) {
  const size_t space = written.find(' ');
  const std::string text = space == std::string::npos ? "" : written.substr(space + 1);
  v->type = TypeOf(written.substr(0, space));
  BYTE* b = v->bytes;
  const double number = std::atof(text.c_str());
  const long long integer = std::atoll(text.c_str());
  switch (v->type & ~DBTYPE_BYREF) {
    case DBTYPE_I1: case DBTYPE_UI1: case DBTYPE_I2: case DBTYPE_UI2: case DBTYPE_I4: case DBTYPE_UI4:
    case DBTYPE_I8: case DBTYPE_UI8: case DBTYPE_FILETIME: std::memcpy(b, &integer, 8); break;  // little-endian: the low bytes first
    case DBTYPE_BOOL: *reinterpret_cast<VARIANT_BOOL*>(b) = integer ? VARIANT_TRUE : VARIANT_FALSE; break;
    case DBTYPE_R4: *reinterpret_cast<float*>(b) = static_cast<float>(number); break;
    case DBTYPE_R8: case DBTYPE_DATE: std::memcpy(b, &number, 8); break;
    case DBTYPE_WSTR: v->wide = FromUtf8(text); v->pointer = v->wide.c_str(); break;
    case DBTYPE_STR: v->narrow = text; v->pointer = v->narrow.c_str(); break;
    case DBTYPE_BSTR: v->bstr = SysAllocString(FromUtf8(text).c_str()); break;
    case DBTYPE_DBTIMESTAMP: *reinterpret_cast<DBTIMESTAMP*>(b) = Timestamp(text); break;
    case DBTYPE_DBDATE: { const DBTIMESTAMP t = Timestamp(text + " 0:0:0"); *reinterpret_cast<DBDATE*>(b) = DBDATE{t.year, t.month, t.day}; break; }
    case DBTYPE_DBTIME: { const DBTIMESTAMP t = Timestamp("1-1-1 " + text); *reinterpret_cast<DBTIME*>(b) = DBTIME{t.hour, t.minute, t.second}; break; }
    case DBTYPE_VARIANT: {
      // "VARIANT VT text": the value of that type (an 8-byte field suits every one used here).
      VARIANT* var = reinterpret_cast<VARIANT*>(b);
      VariantInit(var);
      var->vt = text == "NULL" ? VARTYPE(VT_NULL) : VARTYPE(VT_EMPTY);
      if (text == "EMPTY" || text == "NULL") break;
      Value inner;
      Parse(text, &inner);
      var->vt = inner.type == DBTYPE_WSTR ? VARTYPE(VT_BSTR) : static_cast<VARTYPE>(inner.type);
      if (var->vt == VT_BSTR) var->bstrVal = SysAllocString(inner.wide.c_str());
      else if (var->vt != VT_EMPTY && var->vt != VT_NULL) std::memcpy(&var->llVal, inner.bytes, 8);
      break;
    }
  }
}

// What a conversion wrote, as text: texts quoted, times by their fields, and every other
// type as a VARIANT holding that type reads ("TRUE", "15000/10000" for a currency).
inline std::string Render(DBTYPE type, const BYTE* b) {
  char text[96] = "?";
  const DBTIMESTAMP& t = *reinterpret_cast<const DBTIMESTAMP*>(b);
  switch (type) {
    case DBTYPE_WSTR: return "'" + ToUtf8(reinterpret_cast<const OLECHAR*>(b)) + "'";
    case DBTYPE_STR: return "'" + std::string(reinterpret_cast<const char*>(b)) + "'";
    case DBTYPE_WSTR | DBTYPE_BYREF: return "&'" + ToUtf8(*reinterpret_cast<OLECHAR* const*>(b)) + "'";
    case DBTYPE_BSTR: return "'" + ToUtf8(*reinterpret_cast<const BSTR*>(b)) + "'";
    case DBTYPE_DBTIMESTAMP:
      std::snprintf(text, sizeof text, "%04d-%02u-%02u %02u:%02u:%02u.%lu", t.year, t.month, t.day, t.hour, t.minute,
                    t.second, (unsigned long)t.fraction);
      break;
    case DBTYPE_DBDATE: std::snprintf(text, sizeof text, "%04d-%02u-%02u", t.year, t.month, t.day); break;
    case DBTYPE_DBTIME: std::snprintf(text, sizeof text, "%02u:%02u:%02u", t.year, t.month, t.day); break;
    case DBTYPE_NUMERIC: {
      // The 128-bit value as its low and (when set) high 64 bits.
      const DB_NUMERIC& n = *reinterpret_cast<const DB_NUMERIC*>(b);
      unsigned long long low = 0, high = 0;
      std::memcpy(&low, n.val, 8);
      std::memcpy(&high, n.val + 8, 8);
      std::snprintf(text, sizeof text, "%u,%u,%s%llu", n.precision, n.scale, n.sign ? "" : "-", low);
      return text + (high ? "+" + std::to_string(high) + "<<64" : "");
    }
    case DBTYPE_DECIMAL: {
      const DECIMAL& d = *reinterpret_cast<const DECIMAL*>(b);
      std::snprintf(text, sizeof text, "%s%llu+%lu<<64e-%u", d.sign ? "-" : "", (unsigned long long)d.Lo64,
                    (unsigned long)d.Hi32, d.scale);
      break;
    }
    case DBTYPE_VARIANT: {
      const VARIANT& v = *reinterpret_cast<const VARIANT*>(b);
      return v.vt == VT_DECIMAL ? "VT_DECIMAL " + Render(DBTYPE_DECIMAL, b) : Describe(v);
    }
    default: {
      VARIANT v{};
      v.vt = type == DBTYPE_FILETIME ? VARTYPE(VT_I8) : VARTYPE(type);
      std::memcpy(&v.llVal, b, 8);
      const std::string described = Describe(v);
      return described.substr(described.find(' ') + 1);
    }
  }
  return text;
}

// Frees what a conversion allocated for its destination.
inline void Release(DBTYPE type, BYTE* b) {
  if (type == (DBTYPE_WSTR | DBTYPE_BYREF)) CoTaskMemFree(*reinterpret_cast<OLECHAR**>(b));
  if (type == DBTYPE_BSTR) SysFreeString(*reinterpret_cast<BSTR*>(b));
  if (type == DBTYPE_VARIANT) VariantClear(reinterpret_cast<VARIANT*>(b));
}

}  // namespace corvane::test
