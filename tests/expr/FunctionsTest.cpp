// The SQL functions: quality tests and texts over the status-word layout, the status
// code table, argument checks with their exact messages, and the aggregates.
#include "SQLParser/QualityText.h"
#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLFunctionAggregate.h"
#include "tests/expr/ExprTestSupport.h"

using namespace exprtest;

namespace {

class QualityFunctions : public ExprTest {};

TEST_F(QualityFunctions, SeverityTestsReadTheTwoTopBits) {
  struct Case {
    const char* code;
    ULONG good, bad, uncertain;
    const char* word;
  } cases[] = {
      {"0", 1, 0, 0, "Good"},
      {"1073741823", 1, 0, 0, "Good"},        // 0x3FFFFFFF
      {"1073741824", 0, 0, 1, "Uncertain"},   // 0x40000000
      {"2150891520", 0, 1, 0, "Bad"},         // 0x80340000
      {"3221225472", 0, 0, 0, "Unknown"},     // 0xC0000000
      {"'1073742849'", 0, 0, 1, "Uncertain"}, // a text converts
  };
  for (const Case& c : cases) {
    const std::string arg = std::string("(") + c.code + ")";
    EXPECT_EQ(EvalUnsigned("IsGood" + arg), c.good) << c.code;
    EXPECT_EQ(EvalUnsigned("IsBad" + arg), c.bad) << c.code;
    EXPECT_EQ(EvalUnsigned("IsUncertain" + arg), c.uncertain) << c.code;
    EXPECT_EQ(EvalText("QualityToStr" + arg), c.word) << c.code;
  }
}

TEST_F(QualityFunctions, TextsOfQualitiesAccessRightsAndDataTypes) {
  const std::pair<const char*, const char*> cases[] = {
      {"QualityToStr2(0)", "Good"},
      {"QualityToStr2(1083311105)", "UncertainInitialValue [Calculated]"},
      {"QualityToStr2(2150892544)", "BadNodeIdUnknown [Raw]"},
      {"QualityToStr2(2150892574)", "BadNodeIdUnknown [Interpolated | Partial | Extra Data | Multi Value]"},
      {"QualityToStr2(2150891549)", "BadNodeIdUnknown"},  // flags without the info type
      {"QualityToStr2(1888617476)", "UncertainInitialValue [Raw | Partial]"},  // reserved bits masked away
      {"QualityToStr2(2164458500)", "Bad (2164458500) [Raw | Partial]"},       // unpublished sub-code
      {"QualityToStr2(3221225472)", "Unknown (3221225472)"},
      {"QualityToStr2(1083375616)", "UncertainSensorNotAccurate"},
      {"QualityToStr2(2166226944)", "BadEdited_OutOfRange_DominantValueChanged_DependentValueChanged"},
      {"QualityToStr2(2147549184)", "BadUnexpectedError"},
      {"AccessRightsToStr(0)", "TAG_ACCESS_RIGHTS_NONE"},
      {"AccessRightsToStr(3)", "TAG_ACCESS_RIGHTS_READ_WRITE"},
      {"AccessRightsToStr(4)", "Unknown"},
      {"AccessRightsToStr(-1)", "Unknown"},
      {"DataTypeToStr(5)", "VT_R8"},
      {"DataTypeToStr(11)", "VT_BOOL"},
      {"DataTypeToStr(21)", "VT_UI8"},
      {"DataTypeToStr(8)", "Unknown"},  // strings are not in the table
  };
  for (const auto& [expr, text] : cases) EXPECT_EQ(EvalText(expr), text) << expr;
}

TEST_F(QualityFunctions, StatusTableIsInOrderForItsLookup) {
  for (size_t i = 1; i < corvane::kStatusCodeCount; ++i)
    ASSERT_LT(corvane::kStatusCodes[i - 1].code, corvane::kStatusCodes[i].code) << i;
}

class FunctionArguments : public ExprTest {};

TEST_F(FunctionArguments, WrongCountsAndUnreadableValuesFailWithTheirMessages) {
  struct Case {
    const char* expr;
    HRESULT hr;
    const char* message;
  } cases[] = {
      {"NOW(1)", E_FAIL, "SQL function Now calculation error: Bad parameter count."},
      {"NOWUTC(1, 2)", E_FAIL, "SQL function Now calculation error: Bad parameter count."},
      {"LocalTimeToUTC()", E_FAIL, "SQL function LocalTimeToUTC calculation error: Bad parameter count."},
      {"LocalTimeToUTC(5)", E_FAIL, "SQL function LocalTimeToUTC calculation error: Cannot get parameter value (HR = 80004005)."},
      {"UTCToLocalTime(5)", E_FAIL, "SQL function UTCToLocalTime calculation error: Cannot get parameter value (HR: return 80004005)."},
      {"GetMsecs('x', 1)", E_FAIL, "SQL function GetMsecs calculation error: Bad parameter count."},
      {"GetMsecs('noon')", DISP_E_TYPEMISMATCH, "SQL function GetMsecs calculation error: Cannot get parameter value (HR = 80020005)."},
      {"IsGood()", E_FAIL, "SQL function IsGood calculation error: Bad parameter count."},
      {"IsBad('bad')", DISP_E_TYPEMISMATCH, "SQL function IsBad calculation error: Conversion error (HR = 80020005)."},
      {"IsUncertain(-1)", DISP_E_OVERFLOW, "SQL function IsUncertain calculation error: Conversion error (HR = 8002000A)."},
      {"QualityToStr(1, 2)", E_FAIL, "SQL function QualityToStr calculation error: Bad parameter count."},
      {"QualityToStr('abc')", DISP_E_TYPEMISMATCH, "SQL function QualityToStr calculation error: Conversion error (HR = 80020005)."},
      {"QualityToStr2()", E_FAIL, "SQL function QualityToStr calculation error: Bad parameter count."},
      {"QualityToStr2('abc')", DISP_E_TYPEMISMATCH, "SQL function QualityToStr calculation error: Conversion error (HR: return 80020005)."},
      {"QualityToStr2(VALUE)", E_FAIL, "SQL function QualityToStr calculation error: Cannot get parameter value (HR: return 80004005)."},
      {"DataTypeToStr('R8')", DISP_E_TYPEMISMATCH, "SQL function DataTypeToStr calculation error: Conversion error (HR = 80020005)."},
      {"AccessRightsToStr(1, 1)", E_FAIL, "SQL function AccessRightsToStr calculation error: Bad parameter count."},
      {"AccessRightsToStr(VALUE)", E_FAIL, "SQL function AccessRightsToStr calculation error: Cannot get parameter value (HR = 80004005)."},
      {"BitMask('|', 1)", E_FAIL, "SQL function BitMask calculation error: Invalid parameter count."},
      {"BitMask(VALUE, 1, 2)", E_FAIL, "SQL function BitMask calculation error: Cannot get Operator parameter value (HR = 80004005)."},
      {"BitMask('|', 'm', 2)", DISP_E_TYPEMISMATCH, "SQL function BitMask calculation error: Cannot get Mask parameter value (HR = 80020005)."},
      {"BitMask('|', 1, -2)", DISP_E_OVERFLOW, "SQL function BitMask calculation error: Cannot get Operand parameter value (HR = 8002000A)."},
      {"BitMask('+', 1, 2)", E_INVALIDARG, "SQL function BitMask calculation error: Unknown Operator + parameter value (HR = 80070057)."},
      {"SUM(VALUE, 2)", E_FAIL, "SQL function SUM calculation error: Bad parameter count."},
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

TEST_F(FunctionArguments, ValuesOfTheOtherFunctions) {
  EXPECT_EQ(EvalUnsigned("BitMask('|', 15, 240)"), 255u);
  EXPECT_EQ(EvalUnsigned("BitMask('^', 255, 4080)"), 3855u);
  EXPECT_EQ(EvalUnsigned("BitMask('&', 3221225472, IsGood(0))"), 0u) << "a nested function is read";
}

class Aggregates : public ExprTest {
 protected:
  // Binds "<name>(VALUE)", feeds `values` as constants and evaluates once.
  HRESULT Run(const char* name, std::initializer_list<double> values, VARIANT* out) {
    auto query = ParseOk(std::string("SELECT ") + name + "(VALUE) FROM RAWDATA");
    if (!query) return E_UNEXPECTED;
    EXPECT_EQ(static_cast<CSQLQueryInfoSELECT&>(*query).Aggregate(), 1);
    HRESULT hr = Bind(query->SelectColumns()[0]->Item(), context, &bound);
    if (FAILED(hr)) return hr;
    return FeedAndEvaluate(values, out);
  }
  HRESULT FeedAndEvaluate(std::initializer_list<double> values, VARIANT* out) {
    auto* aggregate = dynamic_cast<CSQLFunctionAggregate*>(bound.get());
    if (!aggregate) return E_UNEXPECTED;
    for (double v : values) {
      auto item = std::make_unique<CSQLCalcItemConst>();
      item->SetDouble(v);
      EXPECT_EQ(aggregate->Feed(std::move(item)), S_OK);
    }
    SQLEvaluationResult result;
    HRESULT hr = Evaluate(bound.get(), &result);
    if (FAILED(hr)) return hr;
    EXPECT_EQ(aggregate->QueuedCount(), 0u);
    *out = result.value;
    VariantInit(&result.value);
    return S_OK;
  }
  void TearDown() override {
    bound.reset();
    ExprTest::TearDown();
  }
  std::unique_ptr<CSQLCalcItem> bound;
};

TEST_F(Aggregates, FoldTheFedValuesFromTheirStartingValues) {
  VARIANT v;
  ASSERT_EQ(Run("AVG", {1, 2, 6}, &v), S_OK);
  EXPECT_EQ(v.vt, VT_R8);
  EXPECT_DOUBLE_EQ(v.dblVal, 3.0);
  ASSERT_EQ(Run("sum", {1.5, -4, 10}, &v), S_OK);
  EXPECT_DOUBLE_EQ(v.dblVal, 7.5);
  ASSERT_EQ(Run("MIN", {3, -7, 2}, &v), S_OK);
  EXPECT_DOUBLE_EQ(v.dblVal, -7.0);
  ASSERT_EQ(Run("MAX", {-5, -3}, &v), S_OK);
  EXPECT_EQ(v.dblVal, 2.2250738585072014e-308) << "MAX starts at the smallest positive normal double";
  ASSERT_EQ(Run("MAX", {0}, &v), S_OK);
  EXPECT_EQ(v.dblVal, 2.2250738585072014e-308);
  ASSERT_EQ(Run("MIN", {1e308, 1.7976931348623157e308}, &v), S_OK);
  EXPECT_EQ(v.dblVal, 1e308);
  ASSERT_EQ(Run("COUNT", {9, 9, 9, 9}, &v), S_OK);
  EXPECT_EQ(v.vt, VT_UI4);
  EXPECT_EQ(v.ulVal, 4u);
}

TEST_F(Aggregates, LaterEvaluationsContinueAndAnEmptyQueueKeepsTheResult) {
  VARIANT v;
  ASSERT_EQ(Run("AVG", {2, 4}, &v), S_OK);
  ASSERT_EQ(FeedAndEvaluate({9}, &v), S_OK);
  EXPECT_DOUBLE_EQ(v.dblVal, 5.0);
  ASSERT_EQ(FeedAndEvaluate({}, &v), S_OK);
  EXPECT_DOUBLE_EQ(v.dblVal, 5.0);
  ASSERT_EQ(Run("SUM", {}, &v), S_OK);
  EXPECT_EQ(v.vt, VT_EMPTY) << "no value fed yet";
}

TEST_F(Aggregates, AnUnreadableItemStopsTheWalkAndKeepsWhatWasCounted) {
  VARIANT v;
  ASSERT_EQ(Run("SUM", {1}, &v), S_OK);
  auto* sum = dynamic_cast<CSQLFunctionAggregate*>(bound.get());
  auto text = std::make_unique<CSQLCalcItemConst>();
  ASSERT_EQ(text->SetString(OLESTR("lots")), S_OK);
  auto two = std::make_unique<CSQLCalcItemConst>();
  two->SetDouble(2);
  ASSERT_EQ(sum->Feed(std::move(two)), S_OK);
  ASSERT_EQ(sum->Feed(std::move(text)), S_OK);
  corvane::test::TraceCapture traces(TRACE_ERROR);
  SQLEvaluationResult result;
  EXPECT_EQ(Evaluate(bound.get(), &result), DISP_E_TYPEMISMATCH);
  EXPECT_TRUE(traces.Contains("SQL function SUM calculation error: Conversion error (HR = 80020005)."));
  EXPECT_EQ(sum->QueuedCount(), 1u);
  EXPECT_DOUBLE_EQ(V_R8(&sum->ResultValue()), 3.0);
}

}  // namespace
