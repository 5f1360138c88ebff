#include "provider/QuerySettings.h"

#include "platform/WideString.h"

namespace corvane {
namespace {
ULONGLONG ToU64(const FILETIME& ft) { return (static_cast<ULONGLONG>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }
FILETIME FromU64(ULONGLONG t) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(t);
  ft.dwHighDateTime = static_cast<DWORD>(t >> 32);
  return ft;
}
FILETIME WindowStart(const FILETIME& end) {
  const ULONGLONG e = ToU64(end);
  return FromU64(e > kDefaultQueryWindow ? e - kDefaultQueryWindow : 0);
}
}  // namespace

QuerySettings QuerySettings::Defaults() {
  QuerySettings s;
  GetSystemTimeAsFileTime(&s.EndTime);
  s.StartTime = WindowStart(s.EndTime);
  GetSystemTimeAsFileTime(&s.QueryEnd);
  s.QueryStart = WindowStart(s.QueryEnd);
  return s;
}

void QuerySettings::SetQueryRangeEndingAt(FILETIME nowUtc) {
  QueryEnd = nowUtc;
  QueryStart = WindowStart(nowUtc);
}

bool TextToFileTime(const OLECHAR* text, FILETIME* out) {
  if (!text || !out || !*text) return false;
  WString whole(text);
  ULONGLONG fraction = 0;  // in 100 ns units
  const size_t dot = whole.find(OLECHAR('.'));
  if (dot != WString::npos) {
    // Only digits may follow the separator; they are a fraction of a second.
    size_t i = dot + 1, digits = 0;
    ULONGLONG scale = 1000000;  // first digit is tenths of a second
    while (i < whole.size() && whole[i] >= '0' && whole[i] <= '9') {
      if (digits < 7) {
        fraction += static_cast<ULONGLONG>(whole[i] - '0') * scale;
        scale /= 10;
      }
      ++digits;
      ++i;
    }
    if (digits == 0 || i != whole.size()) return false;
    whole.resize(dot);
  }
  DATE date = 0;
  if (FAILED(VarDateFromStr(const_cast<OLECHAR*>(whole.c_str()), LOCALE_SYSTEM_DEFAULT, 0, &date))) return false;
  SYSTEMTIME st;
  if (!VariantTimeToSystemTime(date, &st)) return false;
  FILETIME ft;
  if (!SystemTimeToFileTime(&st, &ft)) return false;
  *out = FromU64(ToU64(ft) + fraction);
  return true;
}

}  // namespace corvane
