// FILETIME <-> SYSTEMTIME: named instants, random instants, the limits and each invalid
// field are compared with the system's answers by the differential probe
// (tests/differential/probe_time.cpp). Kept here: the cases where Wine, which runs the
// Windows build, answers differently from Windows.
#include <gtest/gtest.h>

#include "platform/Platform.h"

#ifndef _WIN32
namespace {
SYSTEMTIME St(WORD y, WORD mo, WORD d) { return SYSTEMTIME{y, mo, 0, d, 0, 0, 0, 0}; }
}  // namespace

TEST(FileTimeCalendar, OnlyRealDatesUpToTheYear30827Convert) {
  // Wine converts any year whose instant still fits, and takes 29 February in every year.
  for (const SYSTEMTIME& st : {St(30828, 1, 1), St(2021, 2, 29), St(1900, 2, 29), St(2100, 2, 29)}) {
    FILETIME ft{0x12345678, 0x9ABC};
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft)) << st.wYear << "-" << st.wMonth << "-" << st.wDay;
  }
  for (const SYSTEMTIME& st : {St(2000, 2, 29), St(2024, 2, 29)}) {
    FILETIME ft{};
    EXPECT_TRUE(SystemTimeToFileTime(&st, &ft)) << st.wYear;
  }
}
#endif
