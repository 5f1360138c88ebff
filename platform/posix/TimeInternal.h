// Calendar arithmetic shared by the POSIX time functions and the time-zone reader.
#pragma once
#ifndef _WIN32
#include <cstdint>

#include "Types.h"

namespace corvane::platform::detail {
bool IsLeapYear(int64_t year);
unsigned DaysInMonth(int64_t year, unsigned month);  // 0 for a month outside 1..12
ULONGLONG ToTicks(const FILETIME& ft);
FILETIME FromTicks(ULONGLONG ticks);
ULONGLONG NowTicks();  // 100 ns since 1601-01-01 UTC
// UTC minus local time now, in minutes (negative east of Greenwich).
int64_t CurrentBiasMinutes();
bool TicksToSystemTime(ULONGLONG ticks, SYSTEMTIME& st);
bool SystemTimeToTicks(const SYSTEMTIME& st, ULONGLONG& ticks);
}  // namespace corvane::platform::detail
#endif  // !_WIN32
