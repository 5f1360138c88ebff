// The clock and the FILETIME/SYSTEMTIME conversions. Dates are computed with the
// proleptic Gregorian calendar from a day count, which is what Windows does over its
// whole range (1601 to 30828), independent of the C library's time_t limits.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/Platform.h"
#include "platform/posix/TimeInternal.h"

namespace corvane::platform::detail {
namespace {

constexpr int64_t kTicksPerMs = 10000;
constexpr int64_t kTicksPerSecond = 10000000;
constexpr int64_t kTicksPerDay = kTicksPerSecond * 86400;
// Days from 1601-01-01 to 1970-01-01.
constexpr int64_t kDaysTo1970 = 134774;

// Civil date from days since 1970-01-01 (proleptic Gregorian).
void CivilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
}

int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

}  // namespace

bool IsLeapYear(int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

unsigned DaysInMonth(int64_t year, unsigned month) {
  static const unsigned kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12) return 0;
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

ULONGLONG ToTicks(const FILETIME& ft) {
  return (static_cast<ULONGLONG>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

FILETIME FromTicks(ULONGLONG ticks) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
  ft.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  return ft;
}

ULONGLONG NowTicks() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<ULONGLONG>((static_cast<int64_t>(ts.tv_sec) + kDaysTo1970 * 86400) * kTicksPerSecond +
                                ts.tv_nsec / 100);
}

int64_t CurrentBiasMinutes() {
  // localtime_r alone keeps the zone it first read; tzset picks up a changed TZ and is
  // cheap when nothing changed.
  tzset();
  const time_t now = time(nullptr);
  tm local{};
  if (!localtime_r(&now, &local)) return 0;
  // Windows' bias is UTC minus local time, in minutes.
  return -static_cast<int64_t>(local.tm_gmtoff) / 60;
}

bool TicksToSystemTime(ULONGLONG ticks, SYSTEMTIME& st) {
  // Windows refuses values with the top bit set: they do not fit its signed time.
  if (ticks > 0x7FFFFFFFFFFFFFFFull) return false;
  const int64_t days = static_cast<int64_t>(ticks / kTicksPerDay);
  const int64_t rest = static_cast<int64_t>(ticks % kTicksPerDay);
  int64_t year;
  unsigned month, day;
  CivilFromDays(days - kDaysTo1970, year, month, day);
  st.wYear = static_cast<WORD>(year);
  st.wMonth = static_cast<WORD>(month);
  st.wDay = static_cast<WORD>(day);
  // 1601-01-01 was a Monday (Sunday is 0).
  st.wDayOfWeek = static_cast<WORD>((days + 1) % 7);
  st.wHour = static_cast<WORD>(rest / (3600 * kTicksPerSecond));
  st.wMinute = static_cast<WORD>(rest / (60 * kTicksPerSecond) % 60);
  st.wSecond = static_cast<WORD>(rest / kTicksPerSecond % 60);
  st.wMilliseconds = static_cast<WORD>(rest / kTicksPerMs % 1000);
  return true;
}

bool SystemTimeToTicks(const SYSTEMTIME& st, ULONGLONG& ticks) {
  if (st.wYear < 1601 || st.wYear > 30827) return false;
  if (st.wMonth < 1 || st.wMonth > 12) return false;
  if (st.wDay < 1 || st.wDay > DaysInMonth(st.wYear, st.wMonth)) return false;
  if (st.wHour > 23 || st.wMinute > 59 || st.wSecond > 59 || st.wMilliseconds > 999) return false;
  const int64_t days = DaysFromCivil(st.wYear, st.wMonth, st.wDay) + kDaysTo1970;
  ticks = static_cast<ULONGLONG>(days * kTicksPerDay + st.wHour * 3600 * kTicksPerSecond +
                                 st.wMinute * 60 * kTicksPerSecond + st.wSecond * kTicksPerSecond +
                                 st.wMilliseconds * kTicksPerMs);
  return true;
}

}  // namespace corvane::platform::detail

namespace cpd = corvane::platform::detail;

extern "C" {

void GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime) {
  if (lpSystemTimeAsFileTime) *lpSystemTimeAsFileTime = cpd::FromTicks(cpd::NowTicks());
}

void GetSystemTime(LPSYSTEMTIME lpSystemTime) {
  if (lpSystemTime) cpd::TicksToSystemTime(cpd::NowTicks(), *lpSystemTime);
}

void GetLocalTime(LPSYSTEMTIME lpSystemTime) {
  if (!lpSystemTime) return;
  const int64_t biasTicks = cpd::CurrentBiasMinutes() * 60 * 10000000LL;
  cpd::TicksToSystemTime(cpd::NowTicks() - static_cast<ULONGLONG>(biasTicks), *lpSystemTime);
}

BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime) {
  if (!lpFileTime || !lpSystemTime) return FALSE;
  return cpd::TicksToSystemTime(cpd::ToTicks(*lpFileTime), *lpSystemTime) ? TRUE : FALSE;
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* lpSystemTime, LPFILETIME lpFileTime) {
  if (!lpSystemTime || !lpFileTime) return FALSE;
  ULONGLONG ticks = 0;
  if (!cpd::SystemTimeToTicks(*lpSystemTime, ticks)) return FALSE;
  *lpFileTime = cpd::FromTicks(ticks);
  return TRUE;
}

// Both directions use the bias in force now, not the one at the converted date: that
// is how Windows behaves, and consumers compensate for it.
BOOL FileTimeToLocalFileTime(const FILETIME* lpFileTime, LPFILETIME lpLocalFileTime) {
  if (!lpFileTime || !lpLocalFileTime) return FALSE;
  const int64_t biasTicks = cpd::CurrentBiasMinutes() * 60 * 10000000LL;
  *lpLocalFileTime = cpd::FromTicks(cpd::ToTicks(*lpFileTime) - static_cast<ULONGLONG>(biasTicks));
  return TRUE;
}

BOOL LocalFileTimeToFileTime(const FILETIME* lpLocalFileTime, LPFILETIME lpFileTime) {
  if (!lpLocalFileTime || !lpFileTime) return FALSE;
  const int64_t biasTicks = cpd::CurrentBiasMinutes() * 60 * 10000000LL;
  *lpFileTime = cpd::FromTicks(cpd::ToTicks(*lpLocalFileTime) + static_cast<ULONGLONG>(biasTicks));
  return TRUE;
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* lpPerformanceCount) {
  if (!lpPerformanceCount) return FALSE;
  lpPerformanceCount->QuadPart = corvane::platform::PerformanceCounter();
  return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* lpFrequency) {
  if (!lpFrequency) return FALSE;
  lpFrequency->QuadPart = corvane::platform::PerformanceFrequency();
  return TRUE;
}

ULONGLONG GetTickCount64() {
  timespec ts{};
  // Windows counts from boot, including time suspended.
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<ULONGLONG>(ts.tv_sec) * 1000u + static_cast<ULONGLONG>(ts.tv_nsec) / 1000000u;
}

DWORD GetTickCount() { return static_cast<DWORD>(GetTickCount64()); }

void Sleep(DWORD dwMilliseconds) {
  if (dwMilliseconds == 0) {
    sched_yield();
    return;
  }
  if (dwMilliseconds == 0xFFFFFFFFu) {
    for (;;) pause();
  }
  timespec ts{static_cast<time_t>(dwMilliseconds / 1000), static_cast<long>(dwMilliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

DWORD GetCurrentThreadId() { return static_cast<DWORD>(syscall(SYS_gettid)); }

DWORD GetCurrentProcessId() { return static_cast<DWORD>(getpid()); }

}  // extern "C"
