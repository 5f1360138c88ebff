// Expressions parsed and bound by the real front end. First their time handling: DATEADD, texts and dates read as UTC,
// and the local time functions in a zone with daylight saving time.
#include <memory>
#include <string>
#include <tuple>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLParser.h"
#include "SQLParser/TimeConversion.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/Printers.h"
#include "tests/support/TraceCapture.h"

namespace {

// Helpers of the expression suites: expressions and conditions written in SQL and parsed by the real front end, bound
// with a fixed context, and UTC instants built from calendar fields by the platform's SystemTimeToFileTime.
constexpr ULONG64 kHour = 3600 * 10000000ull;  // in FILETIME ticks

inline ULONG64 Utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  const SYSTEMTIME st{WORD(y), WORD(mo), 0, WORD(d), WORD(h), WORD(mi), WORD(s), WORD(ms)};
  FILETIME ft{};
  EXPECT_TRUE(SystemTimeToFileTime(&st, &ft));
  return (ULONG64(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

inline std::unique_ptr<CSQLQueryInfo> ParseOk(const std::string& sql) {
  const corvane::WString text = corvane::FromUtf8(sql);
  std::unique_ptr<CSQLQueryInfo> query;
  const HRESULT hr = CSQLParser::ParseQuery({OLESTR("C"), OLESTR("S"), text}, &query);
  EXPECT_EQ(hr, S_OK) << sql;
  return query;
}

// A fixture whose context has fixed reference times: local "now" two hours ahead of UTC.
class ExprTest : public corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    context.nowUtc = Utc(2021, 6, 1, 10, 0, 0);
    context.nowLocal = Utc(2021, 6, 1, 12, 0, 0);
  }

  // Binds and evaluates the one expression of "SELECT <expr> FROM T".
  HRESULT Eval(const std::string& expr, SQLEvaluationResult* result) {
    auto query = ParseOk("SELECT " + expr + " FROM T");
    if (!query || query->SelectColumns().size() != 1) return E_UNEXPECTED;
    std::unique_ptr<CSQLCalcItem> bound;
    HRESULT hr = Bind(query->SelectColumns()[0]->Item(), context, &bound);
    if (FAILED(hr)) return hr;
    return Evaluate(bound.get(), result);
  }
  HRESULT EvalTime(const std::string& expr, ULONG64* time) {
    SQLEvaluationResult result;
    HRESULT hr = Eval(expr, &result);
    return FAILED(hr) ? hr : ResultToTime(result, time);
  }
  std::string EvalText(const std::string& expr) {
    SQLEvaluationResult result;
    const HRESULT hr = Eval(expr, &result);
    if (FAILED(hr)) return "failed";
    if (V_VT(&result.value) != VT_BSTR) return corvane::test::Describe(result.value);
    return corvane::ToUtf8(corvane::WStringView(result.value.bstrVal, SysStringLen(result.value.bstrVal)));
  }

  SQLBindContext context;
};

class DateAdd : public ExprTest {};

// One row per call: fixed units add their tick counts, months step across year ends and keep the day (never clamped:
// 30 January plus a month has no date), and a result outside the FILETIME range overflows however large the count,
// because the products of the fixed units are checked before they are made.
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

// The SQL functions: quality tests and texts over the status-word layout, the values of the others, and argument checks
// with their exact messages. What aggregates fold over a whole result is in tests/cases/aggregates.test.

class QualityFunctions : public ExprTest {};

TEST_F(QualityFunctions, SeverityTestsReadTheTwoTopBits) {
  struct Case { const char* code; ULONG good, bad, uncertain; const char* word; } cases[] = {
      {"1073741823", 1, 0, 0, "Good"},        // 0x3FFFFFFF
      {"1073741824", 0, 0, 1, "Uncertain"},   // 0x40000000
      {"2150891520", 0, 1, 0, "Bad"},         // 0x80340000
      {"3221225472", 0, 0, 0, "Unknown"},     // 0xC0000000
      {"'1073742849'", 0, 0, 1, "Uncertain"}, // a text converts
  };
  for (const Case& c : cases) {
    const std::string arg = std::string("(") + c.code + ")";
    EXPECT_EQ(EvalText("IsGood" + arg), "VT_UI4 " + std::to_string(c.good)) << c.code;
    EXPECT_EQ(EvalText("IsBad" + arg), "VT_UI4 " + std::to_string(c.bad)) << c.code;
    EXPECT_EQ(EvalText("IsUncertain" + arg), "VT_UI4 " + std::to_string(c.uncertain)) << c.code;
    EXPECT_EQ(EvalText("QualityToStr" + arg), c.word) << c.code;
  }
}

TEST_F(QualityFunctions, TextsAndValuesOfTheOtherFunctions) {
  const std::pair<const char*, const char*> cases[] = {
      {"QualityToStr2(2150892574)", "BadNodeIdUnknown [Interpolated | Partial | Extra Data | Multi Value]"},
      {"QualityToStr2(2150891549)", "BadNodeIdUnknown"},  // flags without the info type
      {"QualityToStr2(1888617476)", "UncertainInitialValue [Raw | Partial]"},  // reserved bits masked away
      {"QualityToStr2(2164458500)", "Bad (2164458500) [Raw | Partial]"},       // unpublished sub-code
      {"QualityToStr2(3221225472)", "Unknown (3221225472)"},                   // past the last published code
      {"AccessRightsToStr(0)", "TAG_ACCESS_RIGHTS_NONE"},
      {"AccessRightsToStr(3)", "TAG_ACCESS_RIGHTS_READ_WRITE"},
      {"AccessRightsToStr(-1)", "Unknown"},
      {"BitMask('|', 15, 240)", "VT_UI4 255"},
      {"BitMask('^', 255, 4080)", "VT_UI4 3855"},
      {"BitMask('&', 3221225472, IsGood(0))", "VT_UI4 0"},  // a nested function is read
      {"GetMsecs(DATEADD('ms', 999, '2020-01-01'))", "VT_UI4 999"},
  };
  for (const auto& [expr, text] : cases) EXPECT_EQ(EvalText(expr), text) << expr;
}

class FunctionArguments : public ExprTest {};

TEST_F(FunctionArguments, WrongCountsAndUnreadableValuesFailWithTheirMessages) {
  struct Case { const char* expr; HRESULT hr; const char* message; } cases[] = {
      {"LocalTimeToUTC(5)", E_FAIL, "SQL function LocalTimeToUTC calculation error: Cannot get parameter value (HR = 80004005)."},
      {"UTCToLocalTime(5)", E_FAIL, "SQL function UTCToLocalTime calculation error: Cannot get parameter value (HR: return 80004005)."},
      {"GetMsecs('noon')", DISP_E_TYPEMISMATCH, "SQL function GetMsecs calculation error: Cannot get parameter value (HR = 80020005)."},
      {"IsBad('bad')", DISP_E_TYPEMISMATCH, "SQL function IsBad calculation error: Conversion error (HR = 80020005)."},
      {"IsUncertain(-1)", DISP_E_OVERFLOW, "SQL function IsUncertain calculation error: Conversion error (HR = 8002000A)."},
      {"QualityToStr('abc')", DISP_E_TYPEMISMATCH, "SQL function QualityToStr calculation error: Conversion error (HR = 80020005)."},
      {"QualityToStr2('abc')", DISP_E_TYPEMISMATCH, "SQL function QualityToStr calculation error: Conversion error (HR: return 80020005)."},
      {"QualityToStr2(VALUE)", E_FAIL, "SQL function QualityToStr calculation error: Cannot get parameter value (HR: return 80004005)."},
      {"DataTypeToStr('R8')", DISP_E_TYPEMISMATCH, "SQL function DataTypeToStr calculation error: Conversion error (HR = 80020005)."},
      {"AccessRightsToStr(VALUE)", E_FAIL, "SQL function AccessRightsToStr calculation error: Cannot get parameter value (HR = 80004005)."},
      {"BitMask('|', 1)", E_FAIL, "SQL function BitMask calculation error: Invalid parameter count."},
      {"BitMask(VALUE, 1, 2)", E_FAIL, "SQL function BitMask calculation error: Cannot get Operator parameter value (HR = 80004005)."},
      {"BitMask('|', 'm', 2)", DISP_E_TYPEMISMATCH, "SQL function BitMask calculation error: Cannot get Mask parameter value (HR = 80020005)."},
      {"BitMask('|', 1, -2)", DISP_E_OVERFLOW, "SQL function BitMask calculation error: Cannot get Operand parameter value (HR = 8002000A)."},
      {"BitMask('+', 1, 2)", E_INVALIDARG, "SQL function BitMask calculation error: Unknown Operator + parameter value (HR = 80070057)."},
      {"COUNT()", E_FAIL, "SQL function COUNT calculation error: Bad parameter count."},
  };
  for (const Case& c : cases) {
    corvane::test::TraceCapture traces(TRACE_ERROR);
    SQLEvaluationResult result;
    EXPECT_EQ(Eval(c.expr, &result), c.hr) << c.expr;
    EXPECT_TRUE(traces.Contains(c.message)) << c.expr << "\n  wanted: " << c.message << "\n  traced: "
                                            << (traces.Texts().empty() ? "nothing" : traces.Texts().front());
  }
}

// The WHERE clause as the provider's planner: the time range it narrows, and the tag
// name and timestamp that identify a raw-data row.

class TimeRangeReduction : public ExprTest {
 protected:
  // Reduces the WHERE clause of `sql` starting from [1, 2].
  HRESULT Reduce(const std::string& where) {
    start = 1;
    end = 2;
    query = ParseOk("SELECT * FROM RAWDATA WHERE " + where);
    if (!query || !query->Condition()) return E_UNEXPECTED;
    return ReduceTimeRange(query->Condition(), context, &start, &end);
  }
  void TearDown() override {
    query.reset();
    ExprTest::TearDown();
  }
  std::unique_ptr<CSQLQueryInfo> query;
  ULONG64 start = 0, end = 0;
};

TEST_F(TimeRangeReduction, EachWhereGivesItsRangeOrItsFailure) {
  // Every reduction starts from [1, 2]; a refused comparison keeps what the earlier ones set; a TIMESTAMP on the right
  // is not mirrored; OR narrows like AND (the later comparison wins); NOT is looked through.
  const ULONG64 local = context.nowLocal, utc = context.nowUtc;
  const struct { const char* where; HRESULT hr; ULONG64 start, end; } cases[] = {
      {"TIMESTAMP > DATEADD('hh', -1, NOW()) AND TIMESTAMP < NOWUTC()", S_OK, local - kHour, utc},
      {"TIMESTAMP <> NOW()", E_INVALIDARG, 1, 2},
      {"TIMESTAMP > '2020-01-01' AND TIMESTAMP > 5", E_FAIL, Utc(2020, 1, 1), 2},
      {"TIMESTAMP < 'yesterday'", DISP_E_TYPEMISMATCH, 1, 2},
      {"TIMESTAMP = ?", DB_E_PARAMNOTOPTIONAL, 1, 2},
      {"'2020-01-02' < TIMESTAMP", S_OK, 1, Utc(2020, 1, 2)},
      {"TIMESTAMP > '2020-01-01' OR TIMESTAMP > '2020-03-01' OR TIMESTAMP < '2020-02-01'", S_OK, Utc(2020, 3, 1),
       Utc(2020, 2, 1)},
      {"NOT TIMESTAMP < '2020-05-01'", S_OK, 1, Utc(2020, 5, 1)},
      {"TAGNAME = 'a' AND TIMESTAMP BETWEEN '2020-01-01' AND '2020-01-31 23:59:59'", S_OK, Utc(2020, 1, 1),
       Utc(2020, 1, 31, 23, 59, 59)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Reduce(c.where), c.hr) << c.where;
    EXPECT_EQ(start, c.start) << c.where;
    EXPECT_EQ(end, c.end) << c.where;
  }
  // Nothing to reduce, or nowhere to put it.
  ULONG64 s = 1, e = 2;
  EXPECT_EQ(ReduceTimeRange(nullptr, context, &s, &e), E_INVALIDARG);
  EXPECT_EQ(s + e, 3u);
  EXPECT_EQ(ReduceTimeRange(query->Condition(), context, nullptr, &end), E_INVALIDARG);
}

class Binding : public ExprTest {};

TEST_F(Binding, TakesACopyOfTheParameterValue) {
  auto query = ParseOk("SELECT * FROM T WHERE VALUE = ?");
  ASSERT_TRUE(query);
  const CSQLCalcItem* parameter = query->Condition()->SecondOperand();
  std::unique_ptr<CSQLCalcItem> bound;
  EXPECT_EQ(Bind(parameter, context, &bound), DB_E_PARAMNOTOPTIONAL) << "no parameter values";
  LONG byReference = 0x40000000;
  VARIANT value;
  value.vt = VT_I4 | VT_BYREF;
  value.plVal = &byReference;
  context.parameters = &value;
  context.parameterCount = 1;
  ASSERT_EQ(Bind(parameter, context, &bound), S_OK);
  byReference = 0;  // the bound value is a copy of what the reference pointed to
  SQLEvaluationResult result;
  ASSERT_EQ(Evaluate(bound.get(), &result), S_OK);
  EXPECT_EQ(result.value.vt, VT_I4);
  EXPECT_EQ(result.value.lVal, 0x40000000);
  EXPECT_EQ(Bind(nullptr, context, &bound), E_INVALIDARG);
  EXPECT_EQ(Bind(parameter, context, nullptr), E_INVALIDARG);
}

TEST_F(Binding, UnknownFunctionsAndColumnsOutsideARowFail) {
  SQLEvaluationResult result;
  EXPECT_EQ(Eval("Frobnicate(1)", &result), E_FAIL);
  EXPECT_EQ(Eval("IsGood(Frobnicate(1))", &result), E_FAIL);
  EXPECT_EQ(Eval("VALUE", &result), E_FAIL);
  ASSERT_EQ(Eval("'text'", &result), S_OK);
  // A time becomes a DATE where a value is wanted (INSERT and UPDATE values).
  VARIANT value;
  auto query = ParseOk("SELECT nowutc() FROM T");
  ASSERT_EQ(EvaluateAsValue(query->SelectColumns()[0]->Item(), context, &value), S_OK);
  EXPECT_EQ(value.vt, VT_DATE);
  EXPECT_DOUBLE_EQ(value.date, 44348.0 + 10.0 / 24.0);  // 2021-06-01 10:00
}

}  // namespace
