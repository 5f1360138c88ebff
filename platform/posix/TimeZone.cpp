// GetTimeZoneInformation from the C library's zone (TZ or /etc/localtime). Windows
// describes a zone by its standard bias, the extra bias of daylight time and the two
// yearly transition rules; those are recovered by locating this year's transitions.
#include <ctime>

#include "platform/Platform.h"
#include "platform/posix/TimeInternal.h"

namespace {

struct Transition {
  bool found = false;
  time_t at = 0;  // first second of the new offset
};

bool IsDst(time_t t, long* gmtoff = nullptr) {
  tm local{};
  if (!localtime_r(&t, &local)) return false;
  if (gmtoff) *gmtoff = local.tm_gmtoff;
  return local.tm_isdst > 0;
}

// Narrows [lo, hi] (isdst differs at the ends) to the first second with hi's state.
time_t FindSwitch(time_t lo, time_t hi) {
  const bool hiState = IsDst(hi);
  while (hi - lo > 1) {
    const time_t mid = lo + (hi - lo) / 2;
    if (IsDst(mid) == hiState)
      hi = mid;
    else
      lo = mid;
  }
  return hi;
}

// The rule Windows stores for a transition: month, weekday, occurrence (5 = last) and
// the local wall-clock time just before the switch.
SYSTEMTIME RuleFor(time_t at) {
  SYSTEMTIME rule{};
  const time_t before = at - 1;
  tm local{};
  localtime_r(&before, &local);
  // Wall-clock time at which the switch happens, in the offset that was in force.
  local.tm_sec += 1;
  int64_t secs = local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
  int day = local.tm_mday;
  int wday = local.tm_wday;
  if (secs >= 86400) {  // switch at local midnight
    secs -= 86400;
    ++day;
    wday = (wday + 1) % 7;
  }
  const int year = local.tm_year + 1900;
  const unsigned month = static_cast<unsigned>(local.tm_mon + 1);
  rule.wYear = 0;
  rule.wMonth = static_cast<WORD>(month);
  rule.wDayOfWeek = static_cast<WORD>(wday);
  const bool last = day + 7 > static_cast<int>(corvane::platform::detail::DaysInMonth(year, month));
  rule.wDay = static_cast<WORD>(last ? 5 : (day - 1) / 7 + 1);
  rule.wHour = static_cast<WORD>(secs / 3600);
  rule.wMinute = static_cast<WORD>(secs / 60 % 60);
  rule.wSecond = static_cast<WORD>(secs % 60);
  return rule;
}

void CopyName(WCHAR* dst, const char* src) {
  size_t i = 0;
  if (src) {
    for (; src[i] && i < 31; ++i) dst[i] = static_cast<unsigned char>(src[i]);
  }
  for (; i < 32; ++i) dst[i] = 0;
}

}  // namespace

extern "C" DWORD GetTimeZoneInformation(LPTIME_ZONE_INFORMATION tzi) {
  if (!tzi) return TIME_ZONE_ID_INVALID;
  tzset();
  *tzi = TIME_ZONE_INFORMATION{};
  const time_t now = time(nullptr);
  tm nowLocal{};
  localtime_r(&now, &nowLocal);

  // Sample the current year at every half month for the standard and daylight offsets
  // and the points where the state changes.
  tm jan{};
  jan.tm_year = nowLocal.tm_year;
  jan.tm_mon = 0;
  jan.tm_mday = 1;
  jan.tm_hour = 12;
  jan.tm_isdst = -1;
  const time_t yearStart = mktime(&jan);
  constexpr time_t kStep = 86400 * 15;
  constexpr int kSamples = 26;  // covers a little more than a year
  long stdOff = nowLocal.tm_gmtoff, dstOff = nowLocal.tm_gmtoff;
  bool haveStd = false, haveDst = false;
  Transition toDst, toStd;
  long off = 0;
  bool prev = IsDst(yearStart, &off);
  for (int i = 0; i <= kSamples; ++i) {
    const time_t t = yearStart + i * kStep;
    const bool dst = IsDst(t, &off);
    if (dst && !haveDst) haveDst = true, dstOff = off;
    if (!dst && !haveStd) haveStd = true, stdOff = off;
    if (i > 0 && dst != prev) {
      Transition& tr = dst ? toDst : toStd;
      if (!tr.found) tr.found = true, tr.at = FindSwitch(t - kStep, t);
    }
    prev = dst;
  }
  if (!haveStd) stdOff = dstOff;  // a zone permanently on "daylight" time

  tzi->Bias = static_cast<LONG>(-stdOff / 60);
  tzi->StandardBias = 0;
  CopyName(tzi->StandardName, tzname[0]);
  CopyName(tzi->DaylightName, tzname[1]);
  if (!(haveDst && haveStd && toDst.found && toStd.found)) return TIME_ZONE_ID_UNKNOWN;
  tzi->DaylightBias = static_cast<LONG>(-(dstOff - stdOff) / 60);
  tzi->DaylightDate = RuleFor(toDst.at);
  tzi->StandardDate = RuleFor(toStd.at);
  return nowLocal.tm_isdst > 0 ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}
