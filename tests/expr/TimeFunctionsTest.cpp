// Time handling of expressions: DATEADD, texts and dates read as UTC, and the local
// time functions in a zone with daylight saving time.
#include <cstdlib>
#include <ctime>
#include <string>

#include "SQLParser/TimeConversion.h"
#include "tests/expr/ExprTestSupport.h"

using namespace exprtest;

namespace {

class DateAdd : public ExprTest {};

TEST_F(DateAdd, FixedUnitsAddTheirTickCounts) {
  const ULONG64 base = Utc(2020, 1, 1, 12, 0, 0, 250);
  struct Case {
    const char* unit;
    int count;
    ULONG64 expected;
  } cases[] = {
      {"ms", 750, Utc(2020, 1, 1, 12, 0, 1)},          {"ss", -30, Utc(2020, 1, 1, 11, 59, 30, 250)},
      {"MI", 90, Utc(2020, 1, 1, 13, 30, 0, 250)},     {"hh", -13, Utc(2019, 12, 31, 23, 0, 0, 250)},
      {"dd", 60, Utc(2020, 3, 1, 12, 0, 0, 250)},      {"wk", 2, Utc(2020, 1, 15, 12, 0, 0, 250)},
      {"yy", 3, Utc(2023, 1, 1, 12, 0, 0, 250)},       {"mm", 0, base},
  };
  for (const Case& c : cases) {
    ULONG64 time = 0;
    const std::string expr =
        std::string("DATEADD('") + c.unit + "', " + std::to_string(c.count) + ", '2020-01-01 12:00:00.250')";
    ASSERT_EQ(EvalTime(expr, &time), S_OK) << expr;
    EXPECT_EQ(time, c.expected) << expr;
  }
  ULONG64 time = 1;
  ASSERT_EQ(EvalTime("DATEADD('fortnight', 1, '2020-01-01')", &time), S_OK);
  EXPECT_EQ(time, 0u) << "no unit gives the zero timestamp";
  ASSERT_EQ(EvalTime("DATEADD(hh, -1, NOW())", &time), S_OK) << "a bare word is a unit too";
  EXPECT_EQ(time, context.nowLocal - kHour);
}

TEST_F(DateAdd, MonthsStepAcrossYearEndsAndKeepTheDay) {
  struct Case {
    const char* expr;
    ULONG64 expected;
  } cases[] = {
      {"DATEADD('mm', 1, '2020-12-15 08:00:00')", Utc(2021, 1, 15, 8)},
      {"DATEADD('mm', -1, '2021-01-15')", Utc(2020, 12, 15)},
      {"DATEADD('mm', 14, '2020-11-30')", Utc(2022, 1, 30)},
      {"DATEADD('mm', -25, '2020-01-31')", Utc(2017, 12, 31)},
      {"DATEADD('mm', 1, '2020-01-29 00:00:00.0000003')", Utc(2020, 2, 29) + 3},
  };
  for (const Case& c : cases) {
    ULONG64 time = 0;
    ASSERT_EQ(EvalTime(c.expr, &time), S_OK) << c.expr;
    EXPECT_EQ(time, c.expected) << c.expr;
  }
  // The day is not clamped to the month's length: 30 January plus one month, or a
  // leap day plus a year, has no date.
  corvane::test::TraceCapture traces(TRACE_ERROR);
  ULONG64 time = 0;
  EXPECT_EQ(EvalTime("DATEADD('mm', 1, '2020-01-30')", &time), E_INVALIDARG);
  EXPECT_EQ(EvalTime("DATEADD('mm', 13, '2020-01-29')", &time), E_INVALIDARG);
  EXPECT_EQ(EvalTime("DATEADD('yy', 1, '2020-02-29')", &time), E_INVALIDARG);
}

TEST_F(DateAdd, BadArgumentsFailWithTheInitialisationMessage) {
  corvane::test::TraceCapture traces(TRACE_ERROR);
  ULONG64 time = 0;
  EXPECT_EQ(EvalTime("DATEADD('dd', 1)", &time), E_FAIL);
  EXPECT_TRUE(traces.Contains("SQL function DateAdd calculation error: Bad parameter count."));
  EXPECT_EQ(EvalTime("DATEADD('dd', 'many', '2020-01-01')", &time), DISP_E_TYPEMISMATCH);
  EXPECT_TRUE(traces.Contains("SQL function DateAdd calculation error: Failed to initialize parameters (HR = 80020005)."));
  traces.Clear();
  EXPECT_EQ(EvalTime("DATEADD('dd', 1, 42)", &time), E_FAIL);
  EXPECT_TRUE(traces.Contains("SQL function DateAdd calculation error: Failed to initialize parameters (HR = 80004005)."));
  // A result outside the FILETIME range fails, however large the count: the products
  // of the fixed units are checked before they are made.
  for (const char* e : {"DATEADD('yy', -500, '2020-01-01')", "DATEADD('dd', -2147483648, '2020-01-01')",
                        "DATEADD('wk', 2147483647, '2020-01-01')", "DATEADD('ms', -1, '1601-01-01')",
                        "DATEADD('mm', 2147483647, '2020-01-01')", "DATEADD('hh', 2147483647, '9999-01-01')"})
    EXPECT_EQ(EvalTime(e, &time), DISP_E_OVERFLOW) << e;
  EXPECT_TRUE(traces.Contains("SQL function DateAdd calculation error: Result out of range (HR = 8002000A)."));
  EXPECT_EQ(EvalTime("DATEADD('dd', -100000, '2020-01-01')", &time), S_OK);
}

class TimeText : public ExprTest {};

TEST_F(TimeText, TheFormsUsersTypeReadAsUtc) {
  struct Case {
    const char* text;
    ULONG64 expected;
  } cases[] = {
      {"2020-01-01", 132223104000000000ull},
      {"2020-01-01 12:00:00", Utc(2020, 1, 1, 12)},
      {"  2020-01-01 12:00  ", Utc(2020, 1, 1, 12)},
      {"2020-01-01 12:00:00.250", Utc(2020, 1, 1, 12, 0, 0, 250)},
      {"2020-01-01 12:00:00.0000001", Utc(2020, 1, 1, 12) + 1},
      {"2020-01-01T12:00:00Z", Utc(2020, 1, 1, 12)},
      {"2020-01-01T14:30:00+02:30", Utc(2020, 1, 1, 12)},
      {"1/15/2020", Utc(2020, 1, 15)},
      {"1/15/2020 3:04:05 PM", Utc(2020, 1, 15, 15, 4, 5)},
      {"12/31/1999 11:59:59 PM", Utc(1999, 12, 31, 23, 59, 59)},
  };
  for (const Case& c : cases) {
    ULONG64 time = 0;
    EXPECT_EQ(corvane::TextToFileTime(corvane::FromUtf8(c.text), &time), S_OK) << c.text;
    EXPECT_EQ(time, c.expected) << c.text;
  }
  for (const char* bad : {"", "2020-02-30", "2020-01-01 24:00:00", "2020-01-01T", "2020-13-01", "2020-01-01 12:00 junk",
                          "someday"}) {
    ULONG64 time = 7;
    EXPECT_EQ(corvane::TextToFileTime(corvane::FromUtf8(bad), &time), DISP_E_TYPEMISMATCH) << bad;
    EXPECT_EQ(time, 7u) << bad;
  }
  ULONG64 time = 0;
  EXPECT_EQ(corvane::TextToFileTime(OLESTR("1600-12-31"), &time), DISP_E_OVERFLOW);
}

TEST_F(TimeText, DatesAndTimestampsConvertBothWays) {
  ULONG64 time = 0;
  ASSERT_EQ(corvane::DateToFileTime(43831.75, &time), S_OK);
  EXPECT_EQ(time, Utc(2020, 1, 1, 18));
  ASSERT_EQ(corvane::DateToFileTime(-1.25, &time), S_OK);
  EXPECT_EQ(time, Utc(1899, 12, 29, 6)) << "before day zero the fraction still counts forward";
  DATE date = 0;
  ASSERT_EQ(corvane::FileTimeToDate(Utc(1899, 12, 29, 6), &date), S_OK);
  EXPECT_DOUBLE_EQ(date, -1.25);
  ASSERT_EQ(corvane::FileTimeToDate(Utc(2020, 1, 1, 0, 0, 0, 500), &date), S_OK);
  ASSERT_EQ(corvane::DateToFileTime(date, &time), S_OK);
  EXPECT_EQ(time, Utc(2020, 1, 1, 0, 0, 0, 500));
  EXPECT_EQ(corvane::DateToFileTime(-200000.0, &time), DISP_E_OVERFLOW);

  DBTIMESTAMP ts{2020, 2, 29, 23, 59, 58, 123456700};
  ASSERT_EQ(corvane::DBTimestampToFileTime(ts, &time), S_OK);
  EXPECT_EQ(time, Utc(2020, 2, 29, 23, 59, 58, 123) + 4567);
  DBTIMESTAMP back{};
  ASSERT_EQ(corvane::FileTimeToDBTimestamp(time, &back), S_OK);
  EXPECT_EQ(back.day, 29);
  EXPECT_EQ(back.fraction, 123456700u);
  ts.day = 30;
  EXPECT_EQ(corvane::DBTimestampToFileTime(ts, &time), E_INVALIDARG);
}

// Pins Europe/Berlin: set here for the native build; under Wine it comes from the
// test's environment (see CMakeLists.txt) and is checked.
class LocalTime : public ExprTest {
 protected:
  void SetUp() override {
    ExprTest::SetUp();
#ifndef _WIN32
    const char* old = std::getenv("TZ");
    hadZone_ = old != nullptr;
    if (hadZone_) oldZone_ = old;
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
#endif
    TIME_ZONE_INFORMATION tzi{};
    GetTimeZoneInformation(&tzi);
    if (tzi.Bias != -60 || tzi.DaylightDate.wMonth != 3) GTEST_FAIL() << "zone is not Europe/Berlin: bias " << tzi.Bias;
  }
  void TearDown() override {
#ifndef _WIN32
    if (hadZone_)
      setenv("TZ", oldZone_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
#endif
    ExprTest::TearDown();
  }

 private:
  bool hadZone_ = false;
  std::string oldZone_;
};

TEST_F(LocalTime, BothSidesOfTheSpringChangeShiftByTheBiasInForceNow) {
  // Berlin moves to summer time at 2023-03-26 01:00 UTC.
  ULONG64 before = 0, after = 0;
  ASSERT_EQ(EvalTime("UTCToLocalTime('2023-03-26 00:30:00')", &before), S_OK);
  ASSERT_EQ(EvalTime("UTCToLocalTime('2023-03-26T01:30:00Z')", &after), S_OK);
  const LONG64 shift = LONG64(before - Utc(2023, 3, 26, 0, 30));
  EXPECT_TRUE(shift == LONG64(kHour) || shift == LONG64(2 * kHour)) << shift;
  EXPECT_EQ(LONG64(after - Utc(2023, 3, 26, 1, 30)), shift) << "one bias for both dates";
  ULONG64 roundTrip = 0;
  ASSERT_EQ(EvalTime("LocalTimeToUTC(UTCToLocalTime('2023-10-29 00:30:00'))", &roundTrip), S_OK);
  EXPECT_EQ(roundTrip, Utc(2023, 10, 29, 0, 30));
  // A text is UTC whatever the zone: 02:30 on the spring day is no local time in
  // Berlin, yet reads exactly.
  ULONG64 time = 0;
  ASSERT_EQ(corvane::TextToFileTime(OLESTR("2023-03-26 02:30:00"), &time), S_OK);
  EXPECT_EQ(time, Utc(2023, 3, 26, 2, 30));

  SQLBindContext now;
  ASSERT_EQ(SetReferenceTimesToNow(&now), S_OK);
  const LONG64 nowShift = LONG64(now.nowLocal - now.nowUtc);
  EXPECT_TRUE(nowShift == LONG64(kHour) || nowShift == LONG64(2 * kHour)) << nowShift;
  EXPECT_EQ(nowShift, shift);
}

TEST_F(LocalTime, MillisecondsOfATimestamp) {
  EXPECT_EQ(EvalUnsigned("GetMsecs('2020-01-01 12:00:00.250')"), 250u);
  EXPECT_EQ(EvalUnsigned("GetMsecs(DATEADD('ms', 999, '2020-01-01'))"), 999u);
  EXPECT_EQ(EvalUnsigned("GetMsecs(NOW())"), 0u);
}

}  // namespace
