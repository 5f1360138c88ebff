// Helpers of the expression suites: expressions and conditions written in SQL and parsed by the real front end, bound
// with a fixed context, and UTC instants built from calendar fields by the platform's SystemTimeToFileTime.
#pragma once
#include <memory>
#include <string>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLParser.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/Printers.h"
#include "tests/support/TraceCapture.h"

namespace exprtest {

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

}  // namespace exprtest
