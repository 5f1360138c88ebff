// Readable test output for wide strings and VARIANTs: failure messages show UTF-8
// text and a VARIANT's type and value rather than raw code units and bytes.
#pragma once
#include <string>

#include "platform/WideString.h"

namespace corvane::test {

// "VT_I4 42", "VT_BSTR \"abc\"", "VT_NULL"...: one line naming type and value.
std::string Describe(const VARIANT& v);
// UTF-8 of a wide string (null gives "(null)").
std::string Utf8(const OLECHAR* s);
inline std::string Utf8(const WString& s) { return ToUtf8(s); }
// "8000FFFF": an HRESULT as the provider's texts and the system's tools write it.
std::string Hex(HRESULT hr);
// A wide string from a UTF-8 literal, for comparisons with product output.
inline WString W(const char* utf8) { return FromUtf8(utf8); }

}  // namespace corvane::test

