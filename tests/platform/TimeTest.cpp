#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

#include "platform/Platform.h"

namespace {

uint64_t Ticks(const FILETIME& ft) { return (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }
FILETIME Ft(uint64_t ticks) { return FILETIME{DWORD(ticks & 0xFFFFFFFFu), DWORD(ticks >> 32)}; }

#ifndef _WIN32
SYSTEMTIME St(WORD y, WORD mo, WORD d, WORD h = 0) { return SYSTEMTIME{y, mo, 0, d, h, 0, 0, 0}; }
#endif

std::string Text(const SYSTEMTIME& st) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04u-%02u-%02u %02u:%02u:%02u.%03u/%u", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds, st.wDayOfWeek);
  return buf;
}

constexpr uint64_t kTicksPerSecond = 10000000ull;

}  // namespace

// ---- FILETIME <-> SYSTEMTIME ------------------------------------------------------
// Named instants, the limits and each invalid field are compared with the system's
// answers by the differential probe (tests/differential/probe_time.cpp). Kept here: the
// cases where Wine, which runs the Windows build, answers differently from Windows.

#ifndef _WIN32
TEST(FileTimeCalendar, OnlyRealDatesUpToTheYear30827Convert) {
  // Wine converts any year whose instant still fits, and takes 29 February in every year.
  for (const SYSTEMTIME& st : {St(30828, 1, 1), St(2021, 2, 29), St(1900, 2, 29), St(2100, 2, 29)}) {
    FILETIME ft{0x12345678, 0x9ABC};
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft)) << Text(st);
  }
  for (const SYSTEMTIME& st : {St(2000, 2, 29), St(2024, 2, 29)}) {
    FILETIME ft{};
    EXPECT_TRUE(SystemTimeToFileTime(&st, &ft)) << Text(st);
  }
}
#endif

TEST(FileTimeCalendar, RandomInstantsRoundTripToTheMillisecond) {
  std::mt19937_64 rng(20240229);
  std::uniform_int_distribution<uint64_t> any(0, 0x7FFFFFFFFFFFFFFFull);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t ticks = any(rng);
    FILETIME ft = Ft(ticks), back{};
    SYSTEMTIME st{};
    ASSERT_TRUE(FileTimeToSystemTime(&ft, &st)) << ticks;
    if (st.wYear > 30827) continue;  // representable one way only
    ASSERT_TRUE(SystemTimeToFileTime(&st, &back)) << Text(st);
    ASSERT_EQ(Ticks(back), ticks - ticks % 10000) << Text(st);
  }
}

// ---- The clock --------------------------------------------------------------------

TEST(SystemClock, AgreesWithTheCRuntime) {
  FILETIME ft{};
  GetSystemTimeAsFileTime(&ft);
  const int64_t unixSeconds = static_cast<int64_t>(Ticks(ft) / kTicksPerSecond) - 11644473600ll;
  EXPECT_LE(std::llabs(unixSeconds - static_cast<int64_t>(std::time(nullptr))), 2);
  FILETIME com{}, after{};
  ASSERT_EQ(CoFileTimeNow(&com), S_OK);
  GetSystemTimeAsFileTime(&after);
  EXPECT_LE(Ticks(ft), Ticks(com));
  EXPECT_LE(Ticks(com), Ticks(after));
}

// ---- Local time -------------------------------------------------------------------

#ifndef _WIN32
namespace {
// Sets TZ for the test and restores the previous zone afterwards.
class ZoneOverride {
 public:
  explicit ZoneOverride(const char* zone) {
    const char* old = std::getenv("TZ");
    hadOld_ = old != nullptr;
    if (hadOld_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ZoneOverride() {
    if (hadOld_)
      setenv("TZ", old_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  bool hadOld_ = false;
  std::string old_;
};

bool ZoneInstalled(const char* name) {
  std::FILE* f = std::fopen((std::string("/usr/share/zoneinfo/") + name).c_str(), "rb");
  if (!f) return false;
  std::fclose(f);
  return true;
}

// UTC minus local time now, in 100 ns ticks, as the C library sees it.
int64_t CurrentBiasTicks() {
  time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return -int64_t(local.tm_gmtoff) * int64_t(kTicksPerSecond);
}
}  // namespace

TEST(LocalTime, ConversionsApplyTheBiasInForceNowWhateverTheDate) {
  if (!ZoneInstalled("Europe/Berlin")) GTEST_SKIP() << "zone data not installed";
  ZoneOverride zone("Europe/Berlin");
  const int64_t bias = CurrentBiasTicks();
  ASSERT_TRUE(bias == -3600 * int64_t(kTicksPerSecond) || bias == -7200 * int64_t(kTicksPerSecond));

  SYSTEMTIME winter = St(2023, 1, 15, 12), summer = St(2023, 7, 15, 12);
  for (const SYSTEMTIME& st : {winter, summer}) {
    FILETIME utc{}, local{}, back{};
    ASSERT_TRUE(SystemTimeToFileTime(&st, &utc));
    ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
    EXPECT_EQ(int64_t(Ticks(local)) - int64_t(Ticks(utc)), -bias) << Text(st) << ": same shift in winter and summer";
    ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
    EXPECT_EQ(Ticks(back), Ticks(utc));
  }
}

TEST(LocalTime, UtcZoneIsTheIdentity) {
  ZoneOverride zone("UTC0");
  FILETIME utc = Ft(133801631999990000ull), local{};
  ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
  EXPECT_EQ(Ticks(local), Ticks(utc));
}

#endif  // !_WIN32
