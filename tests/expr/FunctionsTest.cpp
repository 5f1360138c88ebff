// The SQL functions: quality tests and texts over the status-word layout, the status
// code table, argument checks with their exact messages, and the aggregates.
#include <limits>

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
      {"QualityToStr2(2150892574)", "BadNodeIdUnknown [Interpolated | Partial | Extra Data | Multi Value]"},
      {"QualityToStr2(2150891549)", "BadNodeIdUnknown"},  // flags without the info type
      {"QualityToStr2(1888617476)", "UncertainInitialValue [Raw | Partial]"},  // reserved bits masked away
      {"QualityToStr2(2164458500)", "Bad (2164458500) [Raw | Partial]"},       // unpublished sub-code
      {"QualityToStr2(3221225472)", "Unknown (3221225472)"},                   // past the last published code
      {"AccessRightsToStr(0)", "TAG_ACCESS_RIGHTS_NONE"},
      {"AccessRightsToStr(3)", "TAG_ACCESS_RIGHTS_READ_WRITE"},
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
      {"LocalTimeToUTC()", E_FAIL, "SQL function LocalTimeToUTC calculation error: Bad parameter count."},
      {"LocalTimeToUTC(5)", E_FAIL, "SQL function LocalTimeToUTC calculation error: Cannot get parameter value (HR = 80004005)."},
      {"UTCToLocalTime(5)", E_FAIL, "SQL function UTCToLocalTime calculation error: Cannot get parameter value (HR: return 80004005)."},
      {"GetMsecs('x', 1)", E_FAIL, "SQL function GetMsecs calculation error: Bad parameter count."},
      {"GetMsecs('noon')", DISP_E_TYPEMISMATCH, "SQL function GetMsecs calculation error: Cannot get parameter value (HR = 80020005)."},
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

// Aggregates are fed their values one by one and evaluated once per batch of rows; what
// a whole result gives through SQL is in tests/cases/execution.test.
class Aggregates : public ExprTest {
 protected:
  // Binds "<call>", feeds `values` (a text where the number is NaN) and evaluates.
  std::string Run(const char* call, std::initializer_list<double> values) {
    auto query = ParseOk(std::string("SELECT ") + call + " FROM RAWDATA");
    if (!query || FAILED(Bind(query->SelectColumns()[0]->Item(), context, &bound))) return "bind failed";
    return FeedAndEvaluate(values);
  }
  std::string FeedAndEvaluate(std::initializer_list<double> values) {
    auto* aggregate = dynamic_cast<CSQLFunctionAggregate*>(bound.get());
    for (double v : values) {
      auto item = std::make_unique<CSQLCalcItemConst>();
      if (v == v) item->SetDouble(v);
      else EXPECT_EQ(item->SetString(OLESTR("lots")), S_OK);
      EXPECT_EQ(aggregate->Feed(std::move(item)), S_OK);
    }
    SQLEvaluationResult result;
    const HRESULT hr = Evaluate(bound.get(), &result);
    if (FAILED(hr)) return corvane::test::Hex(hr) + ", " + std::to_string(aggregate->QueuedCount()) + " queued, " +
                           corvane::test::Describe(aggregate->ResultValue());
    EXPECT_EQ(aggregate->QueuedCount(), 0u);
    return corvane::test::Describe(result.value);
  }
  void TearDown() override {
    bound.reset();
    ExprTest::TearDown();
  }
  std::unique_ptr<CSQLCalcItem> bound;
};

TEST_F(Aggregates, FoldTheFedValuesFromTheirStartingValues) {
  constexpr double kText = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(Run("AVG(VALUE)", {1, 2, 6}), "VT_R8 3");
  EXPECT_EQ(Run("MAX(VALUE)", {-5, -3}), "VT_R8 2.2250738585072014e-308") << "MAX starts at the smallest normal";
  EXPECT_EQ(Run("MIN(VALUE)", {1e308, 1.7976931348623157e308}), "VT_R8 1e+308");
  EXPECT_EQ(Run("SUM(VALUE)", {}), "VT_EMPTY") << "no value fed yet";
  EXPECT_EQ(Run("COUNT(VALUE)", {9, 9, 9}), "VT_UI4 3");
  // A later batch goes on from the earlier ones; an empty one keeps the result.
  EXPECT_EQ(Run("AVG(VALUE)", {2, 4}), "VT_R8 3");
  EXPECT_EQ(FeedAndEvaluate({9}), "VT_R8 5");
  EXPECT_EQ(FeedAndEvaluate({}), "VT_R8 5");
  // An unreadable value stops the walk with its message and keeps what was counted.
  corvane::test::TraceCapture traces(TRACE_ERROR);
  EXPECT_EQ(Run("SUM(VALUE)", {1, 2, kText}), "80020005, 1 queued, VT_R8 3");
  EXPECT_TRUE(traces.Contains("SQL function SUM calculation error: Conversion error (HR = 80020005)."));
}

}  // namespace
