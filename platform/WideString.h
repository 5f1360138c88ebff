// Wide (UTF-16) string helpers for both targets. The C library's wcs*/swprintf are
// not used: on POSIX its wchar_t is 32 bits wide, and OLECHAR is 16 bits everywhere.
#pragma once
#include <cstdarg>
#include <string>
#include <string_view>

#include "Platform.h"

namespace corvane {

using WString = std::basic_string<OLECHAR>;
using WStringView = std::basic_string_view<OLECHAR>;

size_t WLen(const OLECHAR* s);  // 0 for null
int WCmp(const OLECHAR* a, const OLECHAR* b);  // null sorts as empty
// Compares ignoring case the way SQL names are compared: ASCII letters and the
// Latin-1 letters fold; other code units compare as they are.
int WICmp(const OLECHAR* a, const OLECHAR* b);
int WICmp(WStringView a, WStringView b);
bool WIEquals(WStringView a, WStringView b);
OLECHAR WToUpper(OLECHAR c);
OLECHAR WToLower(OLECHAR c);
WString WUpper(WStringView s);

WString FromUtf8(std::string_view utf8);
std::string ToUtf8(WStringView text);
std::string ToUtf8(const OLECHAR* text);  // null gives ""

// printf-style formatting of wide format strings: %s takes a wide string
// (const OLECHAR*, null prints "(null)"), %hs a narrow one, %c a wide character;
// %d %i %u %x %X %o with the h, l, ll, I64 and z size prefixes, flags "-+ 0#", width
// and precision (also as *), %f %e %g %E %G, %p and %%.
WString WFormat(const OLECHAR* format, ...);
WString WFormatV(const OLECHAR* format, va_list args);

}  // namespace corvane
