#include <gtest/gtest.h>

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
