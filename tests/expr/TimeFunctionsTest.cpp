// Time handling of expressions: DATEADD, texts and dates read as UTC, and the local
// time functions in a zone with daylight saving time.
#include <string>
#include <tuple>

#include "SQLParser/TimeConversion.h"
#include "tests/expr/ExprTestSupport.h"

using namespace exprtest;

namespace {

class DateAdd : public ExprTest {};

// One row per call: fixed units add their tick counts, months step across year ends and keep the day (never clamped: 30
// January plus a month has no date), and a result outside the FILETIME range overflows however large the count, because
// the products of the fixed units are checked before they are made.
TEST_F(DateAdd, EachCallGivesItsTimeOrItsCode) {
  const struct { std::string expr; HRESULT hr; ULONG64 expected; } cases[] = {
      {"DATEADD('ms', 750, '2020-01-01 12:00:00.250')", S_OK, Utc(2020, 1, 1, 12, 0, 1)},
      {"DATEADD('hh', -13, '2020-01-01 12:00:00.250')", S_OK, Utc(2019, 12, 31, 23, 0, 0, 250)},
      {"DATEADD('fortnight', 1, '2020-01-01')", S_OK, 0},  // no unit: the zero timestamp
      {"DATEADD('mm', -1, '2021-01-15')", S_OK, Utc(2020, 12, 15)},
      {"DATEADD('mm', 1, '2020-01-29 00:00:00.0000003')", S_OK, Utc(2020, 2, 29) + 3},
      {"DATEADD('mm', 1, '2020-01-30')", E_INVALIDARG, 1},
      {"DATEADD('yy', 1, '2020-02-29')", E_INVALIDARG, 1},
      {"DATEADD('yy', -500, '2020-01-01')", DISP_E_OVERFLOW, 1},
      {"DATEADD('ms', -1, '1601-01-01')", DISP_E_OVERFLOW, 1},
      {"DATEADD('mm', 2147483647, '2020-01-01')", DISP_E_OVERFLOW, 1},
  };
  corvane::test::TraceCapture traces(TRACE_ERROR);
  for (const auto& c : cases) {
    ULONG64 time = 1;
    EXPECT_EQ(EvalTime(c.expr, &time), c.hr) << c.expr;
    if (c.hr == S_OK) {
      EXPECT_EQ(time, c.expected) << c.expr;
    }
  }
  EXPECT_TRUE(traces.Contains("SQL function DateAdd calculation error: Result out of range (HR = 8002000A)."));
  // Unreadable arguments fail with the initialisation message.
  for (const auto& [expr, hr, message] : {
           std::tuple{"DATEADD('dd', 1)", E_FAIL, "Bad parameter count."},
           std::tuple{"DATEADD('dd', 'many', '2020-01-01')", DISP_E_TYPEMISMATCH,
                      "Failed to initialize parameters (HR = 80020005)."},
           std::tuple{"DATEADD('dd', 1, 42)", E_FAIL, "Failed to initialize parameters (HR = 80004005)."}}) {
    traces.Clear();
    ULONG64 time = 0;
    EXPECT_EQ(EvalTime(expr, &time), hr) << expr;
    EXPECT_TRUE(traces.Contains(std::string("SQL function DateAdd calculation error: ") + message)) << expr;
  }
}

class TimeText : public ExprTest {};

TEST_F(TimeText, TheFormsUsersTypeReadAsUtc) {
  struct Case { const char* text; ULONG64 expected; } cases[] = {
      {"2020-01-01", 132223104000000000ull},
      {"  2020-01-01 12:00  ", Utc(2020, 1, 1, 12)},
      {"2020-01-01T12:00:00Z", Utc(2020, 1, 1, 12)},
      {"2020-01-01T14:30:00+02:30", Utc(2020, 1, 1, 12)},
      {"12/31/1999 11:59:59 PM", Utc(1999, 12, 31, 23, 59, 59)},
  };
  for (const Case& c : cases) {
    ULONG64 time = 0;
    EXPECT_EQ(corvane::TextToFileTime(corvane::FromUtf8(c.text), &time), S_OK) << c.text;
    EXPECT_EQ(time, c.expected) << c.text;
  }
  for (const char* bad :
       {"", "2020-02-30", "2020-01-01 24:00:00", "2020-01-01T", "2020-13-01", "2020-01-01 12:00 junk"}) {
    ULONG64 time = 7;
    EXPECT_EQ(corvane::TextToFileTime(corvane::FromUtf8(bad), &time), DISP_E_TYPEMISMATCH) << bad;
    EXPECT_EQ(time, 7u) << bad;
  }
  ULONG64 time = 0;
  EXPECT_EQ(corvane::TextToFileTime(OLESTR("1600-12-31"), &time), DISP_E_OVERFLOW);
}

TEST_F(TimeText, DatesAndTimestampsConvertBothWays) {
  ULONG64 time = 0;
  DATE date = 0;
  ASSERT_EQ(corvane::FileTimeToDate(Utc(1899, 12, 29, 6), &date), S_OK);
  EXPECT_DOUBLE_EQ(date, -1.25) << "before day zero the fraction still counts forward";
  ASSERT_EQ(corvane::DateToFileTime(date, &time), S_OK);
  EXPECT_EQ(time, Utc(1899, 12, 29, 6));
  EXPECT_EQ(corvane::DateToFileTime(-200000.0, &time), DISP_E_OVERFLOW);
  DBTIMESTAMP ts{2020, 2, 29, 23, 59, 58, 123456700};
  ASSERT_EQ(corvane::DBTimestampToFileTime(ts, &time), S_OK);
  EXPECT_EQ(time, Utc(2020, 2, 29, 23, 59, 58, 123) + 4567);
  ts.day = 30;
  EXPECT_EQ(corvane::DBTimestampToFileTime(ts, &time), E_INVALIDARG);
}

// In Europe/Berlin, which ctest gives the whole executable (tests/expr/CMakeLists.txt).
class LocalTime : public ExprTest {
 protected:
  void SetUp() override {
    ExprTest::SetUp();
    TIME_ZONE_INFORMATION tzi{};
    GetTimeZoneInformation(&tzi);
    if (tzi.Bias != -60 || tzi.DaylightDate.wMonth != 3) GTEST_FAIL() << "run with TZ=Europe/Berlin: bias " << tzi.Bias;
  }
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
  // A text is UTC whatever the zone: 02:30 on the spring day is no local time in Berlin, yet reads exactly.
  ULONG64 time = 0;
  ASSERT_EQ(corvane::TextToFileTime(OLESTR("2023-03-26 02:30:00"), &time), S_OK);
  EXPECT_EQ(time, Utc(2023, 3, 26, 2, 30));

  SQLBindContext now;
  ASSERT_EQ(SetReferenceTimesToNow(&now), S_OK);
  const LONG64 nowShift = LONG64(now.nowLocal - now.nowUtc);
  EXPECT_TRUE(nowShift == LONG64(kHour) || nowShift == LONG64(2 * kHour)) << nowShift;
  EXPECT_EQ(nowShift, shift);
}

}  // namespace
