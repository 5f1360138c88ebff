// The WHERE clause as the provider's planner: the time range it narrows, and the tag
// name and timestamp that identify a raw-data row.
#include "tests/expr/ExprTestSupport.h"

using namespace exprtest;

namespace {

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
