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
  // Every reduction starts from [1, 2]; a refused comparison keeps what the earlier ones
  // set; every NOW of one statement is the same instant; a TIMESTAMP on the right is not
  // mirrored; OR narrows like AND (the later comparison wins); NOT is looked through.
  const ULONG64 local = context.nowLocal, utc = context.nowUtc;
  const struct { const char* where; HRESULT hr; ULONG64 start, end; } cases[] = {
      {"TAGNAME = 'x' AND VALUE > 3", S_OK, 1, 2},
      {"TIMESTAMP = NOW()", S_OK, local, local},
      {"TIMESTAMP > DATEADD('hh', -1, NOW()) AND TIMESTAMP < NOWUTC()", S_OK, local - kHour, utc},
      {"TIMESTAMP <> NOW()", E_INVALIDARG, 1, 2},
      {"TIMESTAMP > '2020-01-01' AND TIMESTAMP > 5", E_FAIL, Utc(2020, 1, 1), 2},
      {"TIMESTAMP < 'yesterday'", DISP_E_TYPEMISMATCH, 1, 2},
      {"TIMESTAMP < NoSuchFunction()", E_FAIL, 1, 2},
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

TEST_F(TimeRangeReduction, ParametersSupplyTextsAndDates) {
  VARIANT values[2];
  VariantInit(&values[0]);
  VariantInit(&values[1]);
  values[0].vt = VT_BSTR;
  values[0].bstrVal = SysAllocString(OLESTR("2020-06-01 08:00:00"));
  values[1].vt = VT_DATE;
  values[1].date = 43984.5;  // 2020-06-02 12:00
  context.parameters = values;
  context.parameterCount = 2;
  ASSERT_EQ(Reduce("TIMESTAMP >= ? AND TIMESTAMP <= ?"), S_OK);
  EXPECT_EQ(start, Utc(2020, 6, 1, 8));
  EXPECT_EQ(end, Utc(2020, 6, 2, 12));
  VariantClear(&values[0]);
}

class Binding : public ExprTest {};

TEST_F(Binding, MakesANewTreeAndLeavesTheWrittenOneAlone) {
  auto query = ParseOk("SELECT * FROM T WHERE ? = VALUE AND VALUE = ?");
  ASSERT_TRUE(query);
  const CSQLCalcItem* second = query->Condition()->Right()->SecondOperand();
  ASSERT_EQ(second->Kind(), SQL_CALC_PARAMETER);
  std::unique_ptr<CSQLCalcItem> bound;
  EXPECT_EQ(Bind(second, context, &bound), DB_E_PARAMNOTOPTIONAL) << "no parameter values";
  VARIANT values[2];
  VariantInit(&values[0]);
  VariantInit(&values[1]);
  values[0].vt = VT_I4;
  values[0].lVal = 7;
  LONG byReference = 0x40000000;
  values[1].vt = VT_I4 | VT_BYREF;
  values[1].plVal = &byReference;
  context.parameters = values;
  context.parameterCount = 1;
  EXPECT_EQ(Bind(second, context, &bound), DB_E_PARAMNOTOPTIONAL) << "parameter 2 of 1";
  context.parameterCount = 2;
  ASSERT_EQ(Bind(second, context, &bound), S_OK);
  byReference = 0;  // the bound value is a copy of what the reference pointed to
  SQLEvaluationResult result;
  ASSERT_EQ(Evaluate(bound.get(), &result), S_OK);
  EXPECT_EQ(result.value.vt, VT_I4);
  EXPECT_EQ(result.value.lVal, 0x40000000);
  EXPECT_EQ(second->Kind(), SQL_CALC_PARAMETER);
  ULONG first = 0;
  EXPECT_EQ(EvaluateAsUnsigned(query->Condition()->Left()->FirstOperand(), context, &first), S_OK);
  EXPECT_EQ(first, 7u);
  EXPECT_EQ(Bind(nullptr, context, &bound), E_INVALIDARG);
  EXPECT_EQ(Bind(second, context, nullptr), E_INVALIDARG);
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
