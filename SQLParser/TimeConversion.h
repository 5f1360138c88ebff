// Conversions between the provider's timestamps (FILETIME ticks: 100 ns since
// 1601-01-01) and the forms times arrive in: text typed by users, OLE Automation dates
// and DBTIMESTAMP parameters. Shared by expressions, stored procedures and tables.
//
// Every one of them is zone-free: the calendar fields read are taken as UTC, exactly as
// the historian stores times. Only NOW() (local) and LocalTimeToUTC / UTCToLocalTime
// deal with local time.
#pragma once
#include "platform/WideString.h"

namespace corvane {

constexpr ULONG64 kTicksPerMillisecond = 10000ull;
constexpr ULONG64 kTicksPerSecond = 10000000ull;
constexpr ULONG64 kTicksPerDay = 864000000000ull;

inline ULONG64 FileTimeToTicks(const FILETIME& time) {
  return (static_cast<ULONG64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}
inline FILETIME TicksToFileTime(ULONG64 ticks) {
  FILETIME time;
  time.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
  time.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  return time;
}

// Reads a date and time written as text, as UTC. Accepted:
//   2020-01-01                      midnight
//   2020-01-01 12:00  /  2020-01-01 12:00:00  /  2020-01-01 12:00:00.250
//   2020-01-01T12:00:00Z            ('T' or blanks between date and time; fractions up
//                                    to 100 ns, further digits are dropped)
//   2020-01-01T14:00:00+02:00       an explicit offset is honoured (this is 12:00 UTC)
//   1/15/2020, 1/15/2020 3:04:05 PM and the other en-US forms of the OLE Automation
//                                   text-to-date conversion, whole seconds
// Blanks around the text are ignored. DISP_E_TYPEMISMATCH for anything else, including
// impossible fields (2020-02-30, 24:00); DISP_E_OVERFLOW for years outside 1601-9999.
HRESULT TextToFileTime(WStringView text, ULONG64* ticks);

// An OLE Automation date (days since 1899-12-30, the fraction being the time of day even
// for negative dates), rounded to the millisecond. DISP_E_OVERFLOW before 1601 or past
// 9999, or when not a number.
HRESULT DateToFileTime(DATE date, ULONG64* ticks);
// The reverse, rounded to the millisecond (an Automation date holds no finer time).
HRESULT FileTimeToDate(ULONG64 ticks, DATE* date);

// DBTIMESTAMP fields (fraction in nanoseconds, kept to 100 ns). E_INVALIDARG for
// impossible fields, DISP_E_OVERFLOW for years outside 1601-9999.
HRESULT DBTimestampToFileTime(const DBTIMESTAMP& timestamp, ULONG64* ticks);
HRESULT FileTimeToDBTimestamp(ULONG64 ticks, DBTIMESTAMP* timestamp);

// The calendar fields of a date as FILETIME ticks; false for impossible fields or a
// year outside 1601-9999.
bool CalendarToTicks(int year, int month, int day, int hour, int minute, int second, ULONG64 subSecondTicks,
                     ULONG64* ticks);

}  // namespace corvane
