// Text in the ANSI code page (DBTYPE_STR cells): the system's code page on Windows,
// Windows-1252 elsewhere. Characters the code page lacks become '?'.
#pragma once
#include <cstddef>
#include <string>

#include "platform/WideString.h"

namespace corvane::platform {

void AnsiToWide(const char* text, size_t n, WString& out);
void WideToAnsi(const OLECHAR* text, size_t n, std::string& out);

}  // namespace corvane::platform
