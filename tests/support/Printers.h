// Readable test output: a VARIANT's type and value rather than raw bytes, and HRESULTs
// written as the provider's texts and the system's tools write them.
#pragma once
#include <cstdio>
#include <string>

#include "platform/WideString.h"

namespace corvane::test {

// "VT_I4 42", "VT_BSTR \"abc\"", "VT_NULL"...: one line naming type and value.
std::string Describe(const VARIANT& v);
// "8000FFFF".
inline std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(hr));
  return text;
}

}  // namespace corvane::test
