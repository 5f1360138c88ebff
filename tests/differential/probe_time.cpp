// Runs the FILETIME / SYSTEMTIME conversions, their limits and invalid inputs, and the local-time conversions through
// the platform layer (natively) or the system (Windows build under Wine), one output line per case. Each line's status
// column is the BOOL the function returned. The zone's description is printed on lines of its own, and local
// conversions print only their shift from UTC, so a difference in how the two systems read the zone shows up once and
// not in every case.
#include <cstdint>
#include <ctime>
#include <string>

#include "ProbeSupport.h"

namespace {

FILETIME Ft(uint64_t ticks) { return FILETIME{DWORD(ticks & 0xFFFFFFFFu), DWORD(ticks >> 32)}; }
uint64_t Ticks(const FILETIME& ft) { return (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

SYSTEMTIME St(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  return SYSTEMTIME{WORD(y), WORD(mo), 0, WORD(d), WORD(h), WORD(mi), WORD(s), WORD(ms)};
}

std::string Fields(const SYSTEMTIME& st) {
  return probe::Int(st.wYear) + "-" + probe::Int(st.wMonth) + "-" + probe::Int(st.wDay) + "T" +
         probe::Int(st.wHour) + ":" + probe::Int(st.wMinute) + ":" + probe::Int(st.wSecond) + "." +
         probe::Int(st.wMilliseconds);
}

// A fixed pseudo-random sequence, the same on both builds.
uint64_t g_seed = 0x9E3779B97F4A7C15ull;
uint64_t Next() {
  g_seed ^= g_seed << 13;
  g_seed ^= g_seed >> 7;
  g_seed ^= g_seed << 17;
  return g_seed;
}

void FileTimeToSystemTimeCase(probe::Output& out, uint64_t ticks) {
  FILETIME ft = Ft(ticks);
  SYSTEMTIME st{};
  BOOL ok = FileTimeToSystemTime(&ft, &st);
  out.Line("ft2st:" + probe::UInt(ticks), ok, "ST", ok ? probe::SystemTime(st) : "");
}

void SystemTimeToFileTimeCase(probe::Output& out, const SYSTEMTIME& st) {
  FILETIME ft{0xDEADBEEF, 0xDEADBEEF};
  BOOL ok = SystemTimeToFileTime(&st, &ft);
  out.Line("st2ft:" + Fields(st), ok, "FT", ok ? probe::UInt(Ticks(ft)) : "");
}

// Shift of a conversion in minutes (local minus UTC): the current bias, whatever the date.
void LocalCase(probe::Output& out, const SYSTEMTIME& st) {
  FILETIME utc{}, local{}, back{};
  if (!SystemTimeToFileTime(&st, &utc)) return;
  BOOL ok = FileTimeToLocalFileTime(&utc, &local);
  out.Line("utc2local:" + Fields(st), ok, "MIN", probe::Int((int64_t(Ticks(local)) - int64_t(Ticks(utc))) / 600000000));
  ok = LocalFileTimeToFileTime(&local, &back);
  out.Line("local2utc:" + Fields(st), ok, "SAME", Ticks(back) == Ticks(utc) ? "yes" : "no");
}

std::string Rule(const SYSTEMTIME& r) {
  return "month=" + probe::Int(r.wMonth) + " week=" + probe::Int(r.wDay) + " dow=" + probe::Int(r.wDayOfWeek) +
         " at=" + probe::Int(r.wHour) + ":" + probe::Int(r.wMinute) + " year=" + probe::Int(r.wYear);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Output out(argc, argv);
  if (!out.ok()) return 1;

  // FILETIME -> SYSTEMTIME: named instants, the limits, and a spread over the range.
  // 1900-01-01, 1970-01-01, 2000-01-01, 2000-02-29 12:34:56.789, 2024-12-31 23:59:59.999
  const uint64_t named[] = {0, 1, 9999, 10000, 864000000000ull - 1, 864000000000ull, 94354848000000000ull,
                            116444736000000000ull, 125911584000000000ull, 125963012967890000ull, 133801631999990000ull,
                            0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull};
  for (uint64_t t : named) FileTimeToSystemTimeCase(out, t);
  for (int i = 0; i < 1500; ++i) FileTimeToSystemTimeCase(out, Next() >> 1);
  for (int i = 0; i < 200; ++i) FileTimeToSystemTimeCase(out, Next());  // half of these are out of range

  // SYSTEMTIME -> FILETIME: a grid over the fields' edges, then each clock field alone.
  const int years[] = {0, 1600, 1601, 1602, 1899, 1900, 1970, 2000, 2023, 2024, 2100, 9999, 30827, 30828, 65535};
  const int months[] = {0, 1, 2, 4, 12, 13};
  const int days[] = {0, 1, 28, 29, 30, 31, 32};
  for (int y : years)
    for (int m : months)
      for (int d : days) SystemTimeToFileTimeCase(out, St(y, m, d));
  const SYSTEMTIME clock[] = {St(2021, 6, 15, 23, 59, 59, 999), St(2021, 6, 15, 24), St(2021, 6, 15, 0, 60),
                              St(2021, 6, 15, 0, 0, 60),        St(2021, 6, 15, 0, 0, 0, 1000),
                              St(1601, 1, 1, 0, 0, 0, 1),       St(30827, 12, 31, 23, 59, 59, 999)};
  for (const SYSTEMTIME& st : clock) SystemTimeToFileTimeCase(out, st);
  SystemTimeToFileTimeCase(out, SYSTEMTIME{2021, 6, 6, 15, 0, 0, 0, 0});  // a wrong weekday (6) is ignored on input

  // The zone as each system reads it, then the local conversions.
  TIME_ZONE_INFORMATION tzi{};
  DWORD id = GetTimeZoneInformation(&tzi);
  out.Line("zone:id", S_OK, "ID", probe::UInt(id));
  out.Line("zone:bias", S_OK, "MIN", probe::Int(tzi.Bias));
  out.Line("zone:standardBias", S_OK, "MIN", probe::Int(tzi.StandardBias));
  out.Line("zone:daylightBias", S_OK, "MIN", probe::Int(tzi.DaylightBias));
  out.Line("zone:standardRule", S_OK, "RULE", Rule(tzi.StandardDate));
  out.Line("zone:daylightRule", S_OK, "RULE", Rule(tzi.DaylightDate));
  const SYSTEMTIME dates[] = {St(2023, 1, 15, 12),     St(2023, 3, 12, 6, 59), St(2023, 3, 12, 7, 0),
                              St(2023, 7, 15, 12),     St(2023, 11, 5, 5, 59), St(2023, 11, 5, 6, 0),
                              St(1601, 1, 1, 12),      St(1899, 12, 30),       St(1950, 7, 1),
                              St(30827, 12, 31, 12)};
  for (const SYSTEMTIME& st : dates) LocalCase(out, st);

  // The clock itself: only whether it agrees with the C runtime, which differs per run otherwise.
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  const int64_t unixNow = int64_t(Ticks(now) / 10000000) - 11644473600ll;
  const int64_t drift = unixNow - int64_t(std::time(nullptr));
  out.Line("clock:agreesWithTime", S_OK, "BOOL", drift >= -2 && drift <= 2 ? "yes" : "no");

  return 0;
}
