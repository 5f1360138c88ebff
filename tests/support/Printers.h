// Readable test output: a VARIANT's type and value rather than raw bytes, and HRESULTs
// written as the provider's texts and the system's tools write them.
#pragma once
#include <cstdio>
#include <string>

#include "platform/WideString.h"

namespace corvane::test {

// "8000FFFF".
inline std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(hr));
  return text;
}

// "VT_I4 42", "VT_BSTR \"abc\"", "VT_NULL"...: one line naming type and value.
inline std::string Describe(const VARIANT& v) {
  char buf[64];
  const VARTYPE vt = v.vt;
  switch (vt) {
    case VT_EMPTY: return "VT_EMPTY";
    case VT_NULL: return "VT_NULL";
    case VT_I1: return "VT_I1 " + std::to_string(static_cast<int>(v.cVal));
    case VT_I2: return "VT_I2 " + std::to_string(v.iVal);
    case VT_I4: return "VT_I4 " + std::to_string(static_cast<long>(v.lVal));
    case VT_I8: return "VT_I8 " + std::to_string(static_cast<long long>(v.llVal));
    case VT_UI1: return "VT_UI1 " + std::to_string(static_cast<unsigned>(v.bVal));
    case VT_UI2: return "VT_UI2 " + std::to_string(v.uiVal);
    case VT_UI4: return "VT_UI4 " + std::to_string(static_cast<unsigned long>(v.ulVal));
    case VT_UI8: return "VT_UI8 " + std::to_string(static_cast<unsigned long long>(v.ullVal));
    case VT_INT: return "VT_INT " + std::to_string(v.intVal);
    case VT_UINT: return "VT_UINT " + std::to_string(v.uintVal);
    case VT_R4: std::snprintf(buf, sizeof buf, "VT_R4 %.9g", static_cast<double>(v.fltVal)); return buf;
    case VT_R8: std::snprintf(buf, sizeof buf, "VT_R8 %.17g", v.dblVal); return buf;
    case VT_DATE: std::snprintf(buf, sizeof buf, "VT_DATE %.17g", v.date); return buf;
    case VT_BOOL: return std::string("VT_BOOL ") + (v.boolVal == VARIANT_TRUE ? "TRUE" : v.boolVal == 0 ? "FALSE" : std::to_string(v.boolVal));
    case VT_CY: return "VT_CY " + std::to_string(static_cast<long long>(v.cyVal.int64)) + "/10000";
    case VT_ERROR: std::snprintf(buf, sizeof buf, "VT_ERROR 0x%08X", static_cast<unsigned>(v.scode)); return buf;
    case VT_BSTR: return v.bstrVal ? "VT_BSTR \"" + ToUtf8(v.bstrVal) + "\"" : "VT_BSTR (null)";
    default: return "vt " + std::to_string(vt);
  }
}

}  // namespace corvane::test
