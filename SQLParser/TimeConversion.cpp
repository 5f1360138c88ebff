#include "SQLParser/TimeConversion.h"

#include <cmath>

namespace corvane {
namespace {

constexpr ULONG64 kMillisecondsPerDay = 86400000ull;
constexpr int kMinYear = 1601;
constexpr int kMaxYear = 9999;
// Days from 1601-01-01 to 1899-12-30, the Automation date's day zero.
constexpr LONG64 kAutomationEpochDays = 109205;

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

// Days since 1601-01-01 of a proleptic Gregorian date (fields already checked).
LONG64 DaysFrom1601(int year, int month, int day) {
  // Shift the year to start in March so that the leap day is the year's last.
  const LONG64 y = year - (month <= 2 ? 1 : 0) - 1600;  // 1600 is a 400-year cycle start
  const LONG64 era = y / 400;                           // y >= 0 for years >= 1601
  const LONG64 yearOfEra = y - era * 400;
  const LONG64 dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const LONG64 dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  // Day 0 of that count is 1600-03-01; 1601-01-01 is 306 days later.
  return era * 146097 + dayOfEra - 306;
}

bool IsBlank(OLECHAR c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsDigit(OLECHAR c) { return c >= '0' && c <= '9'; }

// Reads between minDigits and maxDigits digits at `pos`.
bool ReadNumber(WStringView text, size_t& pos, size_t minDigits, size_t maxDigits, int* value) {
  size_t count = 0;
  int v = 0;
  while (pos < text.size() && IsDigit(text[pos]) && count < maxDigits) {
    v = v * 10 + (text[pos++] - '0');
    ++count;
  }
  if (count < minDigits) return false;
  *value = v;
  return true;
}

bool StartsLikeIsoDate(WStringView text) {
  return text.size() >= 5 && IsDigit(text[0]) && IsDigit(text[1]) && IsDigit(text[2]) && IsDigit(text[3]) &&
         text[4] == '-';
}

// yyyy-mm-dd[(T| +)hh:mm[:ss[.fffffff]]][ ][Z|(+|-)hh[:mm]]
HRESULT ParseIso(WStringView text, ULONG64* ticks) {
  size_t pos = 0;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  ULONG64 fraction = 0;
  if (!ReadNumber(text, pos, 4, 4, &year) || pos >= text.size() || text[pos++] != '-' ||
      !ReadNumber(text, pos, 1, 2, &month) || pos >= text.size() || text[pos++] != '-' ||
      !ReadNumber(text, pos, 1, 2, &day))
    return DISP_E_TYPEMISMATCH;
  const size_t afterDate = pos;
  if (pos < text.size() && (text[pos] == 'T' || text[pos] == 't' || IsBlank(text[pos]))) {
    if (text[pos] == 'T' || text[pos] == 't')
      ++pos;
    else
      while (pos < text.size() && IsBlank(text[pos])) ++pos;
    if (pos < text.size() && IsDigit(text[pos])) {
      if (!ReadNumber(text, pos, 1, 2, &hour) || pos >= text.size() || text[pos++] != ':' ||
          !ReadNumber(text, pos, 2, 2, &minute))
        return DISP_E_TYPEMISMATCH;
      if (pos < text.size() && text[pos] == ':') {
        ++pos;
        if (!ReadNumber(text, pos, 2, 2, &second)) return DISP_E_TYPEMISMATCH;
        if (pos < text.size() && (text[pos] == '.' || text[pos] == ',')) {
          ++pos;
          size_t digits = 0;
          while (pos < text.size() && IsDigit(text[pos])) {
            if (digits < 7) fraction = fraction * 10 + static_cast<ULONG64>(text[pos] - '0');
            ++digits;
            ++pos;
          }
          if (digits == 0) return DISP_E_TYPEMISMATCH;
          for (size_t i = digits; i < 7; ++i) fraction *= 10;
        }
      }
    } else if (text[afterDate] == 'T' || text[afterDate] == 't') {
      return DISP_E_TYPEMISMATCH;  // a 'T' promises a time
    }
  }
  while (pos < text.size() && IsBlank(text[pos])) ++pos;
  LONG64 offsetMinutes = 0;
  if (pos < text.size() && (text[pos] == 'Z' || text[pos] == 'z')) {
    ++pos;
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    const bool negative = text[pos++] == '-';
    int offsetHours = 0, offsetMins = 0;
    if (!ReadNumber(text, pos, 2, 2, &offsetHours)) return DISP_E_TYPEMISMATCH;
    if (pos < text.size() && text[pos] == ':') ++pos;
    if (pos < text.size() && IsDigit(text[pos]) && !ReadNumber(text, pos, 2, 2, &offsetMins))
      return DISP_E_TYPEMISMATCH;
    if (offsetHours > 14 || offsetMins > 59) return DISP_E_TYPEMISMATCH;
    offsetMinutes = (negative ? -1 : 1) * (offsetHours * 60 + offsetMins);
  }
  if (pos != text.size()) return DISP_E_TYPEMISMATCH;
  if (year < kMinYear || year > kMaxYear) return DISP_E_OVERFLOW;
  ULONG64 local = 0;
  if (!CalendarToTicks(year, month, day, hour, minute, second, fraction, &local)) return DISP_E_TYPEMISMATCH;
  const LONG64 shift = offsetMinutes * 60 * static_cast<LONG64>(kTicksPerSecond);
  if (shift > 0 && local < static_cast<ULONG64>(shift)) return DISP_E_OVERFLOW;
  *ticks = local - static_cast<ULONG64>(shift);
  return S_OK;
}

}  // namespace

bool CalendarToTicks(int year, int month, int day, int hour, int minute, int second, ULONG64 subSecondTicks,
                     ULONG64* ticks) {
  if (year < kMinYear || year > kMaxYear || month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) ||
      hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59 ||
      subSecondTicks >= kTicksPerSecond)
    return false;
  const ULONG64 days = static_cast<ULONG64>(DaysFrom1601(year, month, day));
  *ticks = days * kTicksPerDay + static_cast<ULONG64>((hour * 60 + minute) * 60 + second) * kTicksPerSecond +
           subSecondTicks;
  return true;
}

HRESULT TextToFileTime(WStringView text, ULONG64* ticks) {
  if (!ticks) return E_INVALIDARG;
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  if (text.empty()) return DISP_E_TYPEMISMATCH;
  if (StartsLikeIsoDate(text)) return ParseIso(text, ticks);
  // Everything else goes through the Automation reading with the en-US rules, the same
  // on every machine whatever its regional settings.
  BSTR copy = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!copy) return E_OUTOFMEMORY;
  DATE date = 0;
  HRESULT hr = VarDateFromStr(copy, MAKELCID(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), SORT_DEFAULT), 0, &date);
  SysFreeString(copy);
  if (FAILED(hr)) return hr;
  return DateToFileTime(date, ticks);
}

HRESULT DateToFileTime(DATE date, ULONG64* ticks) {
  if (!ticks) return E_INVALIDARG;
  // 1601-01-01 and 10000-01-01 as Automation days.
  if (!std::isfinite(date) || date < -static_cast<double>(kAutomationEpochDays) || date >= 2958466.0)
    return DISP_E_OVERFLOW;
  const double wholeDays = std::trunc(date);
  const double timeOfDay = std::fabs(date - wholeDays);
  const LONG64 ms = static_cast<LONG64>(std::llround(timeOfDay * static_cast<double>(kMillisecondsPerDay)));
  const LONG64 days = static_cast<LONG64>(wholeDays) + kAutomationEpochDays;
  const LONG64 totalMs = days * static_cast<LONG64>(kMillisecondsPerDay) + ms;
  if (totalMs < 0) return DISP_E_OVERFLOW;
  *ticks = static_cast<ULONG64>(totalMs) * kTicksPerMillisecond;
  return S_OK;
}

HRESULT FileTimeToDate(ULONG64 ticks, DATE* date) {
  if (!date) return E_INVALIDARG;
  const ULONG64 ms = (ticks + kTicksPerMillisecond / 2) / kTicksPerMillisecond;
  const LONG64 days = static_cast<LONG64>(ms / kMillisecondsPerDay) - kAutomationEpochDays;
  const double timeOfDay = static_cast<double>(ms % kMillisecondsPerDay) / static_cast<double>(kMillisecondsPerDay);
  if (days > 2958465) return DISP_E_OVERFLOW;
  // Before day zero the fraction still counts forward from midnight: -1.25 is
  // 1899-12-29 06:00.
  *date = days >= 0 ? static_cast<double>(days) + timeOfDay : static_cast<double>(days) - timeOfDay;
  return S_OK;
}

HRESULT DBTimestampToFileTime(const DBTIMESTAMP& timestamp, ULONG64* ticks) {
  if (!ticks) return E_INVALIDARG;
  if (timestamp.year < kMinYear || timestamp.year > kMaxYear) return DISP_E_OVERFLOW;
  if (timestamp.fraction > 999999999u) return E_INVALIDARG;
  if (!CalendarToTicks(timestamp.year, timestamp.month, timestamp.day, timestamp.hour, timestamp.minute,
                       timestamp.second, timestamp.fraction / 100u, ticks))
    return E_INVALIDARG;
  return S_OK;
}

HRESULT FileTimeToDBTimestamp(ULONG64 ticks, DBTIMESTAMP* timestamp) {
  if (!timestamp) return E_INVALIDARG;
  FILETIME time = TicksToFileTime(ticks);
  SYSTEMTIME fields{};
  if (!FileTimeToSystemTime(&time, &fields)) return DISP_E_OVERFLOW;
  if (fields.wYear > kMaxYear) return DISP_E_OVERFLOW;
  timestamp->year = static_cast<SHORT>(fields.wYear);
  timestamp->month = fields.wMonth;
  timestamp->day = fields.wDay;
  timestamp->hour = fields.wHour;
  timestamp->minute = fields.wMinute;
  timestamp->second = fields.wSecond;
  timestamp->fraction = static_cast<ULONG>(ticks % kTicksPerSecond) * 100u;
  return S_OK;
}

}  // namespace corvane
