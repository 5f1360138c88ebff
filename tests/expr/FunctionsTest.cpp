// The SQL functions: quality tests and texts over the status-word layout, the values of the others, and argument checks
// with their exact messages. What aggregates fold over a whole result is in tests/cases/aggregates.test.
#include "tests/expr/ExprTestSupport.h"

using namespace exprtest;

namespace {

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

}  // namespace
