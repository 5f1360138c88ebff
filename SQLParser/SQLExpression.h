// Binding and evaluation of the expression items of a parsed statement, and the
// reduction of a WHERE tree to the time range a read covers. Conditions are evaluated
// on rows by the row evaluator of execution, which binds through here.
#pragma once
#include <memory>

#include "SQLParser/SQLCalcItem.h"
#include "SQLParser/SQLConditionNode.h"

// What binding takes from the executing command: its `?` values and the moment of the
// execution, read once so that every NOW() (local) and every NOWUTC() of one
// statement sees the same instant.
struct SQLBindContext {
  const VARIANT* parameters = nullptr;  // parameter n (numbered from 1) is parameters[n - 1]
  size_t parameterCount = 0;
  ULONG64 nowLocal = 0;  // FILETIME ticks, local time
  ULONG64 nowUtc = 0;    // FILETIME ticks, UTC
};

// Sets the context's reference times to the current clock (UTC, and local with the
// bias in force now).
HRESULT SetReferenceTimesToNow(SQLBindContext* context);

// The value of an expression: a VARIANT, or a timestamp for the time functions and
// the reference times of NOW and NOWUTC.
struct SQLEvaluationResult {
  enum : int { kNone = 0, kValue = 1, kTime = 2 };

  SQLEvaluationResult() { VariantInit(&value); }
  ~SQLEvaluationResult() { VariantClear(&value); }
  SQLEvaluationResult(const SQLEvaluationResult&) = delete;
  SQLEvaluationResult& operator=(const SQLEvaluationResult&) = delete;
  void Reset() {
    VariantClear(&value);
    kind = kNone;
    time = 0;
  }

  int kind = kNone;
  VARIANT value;     // valid for kValue
  ULONG64 time = 0;  // FILETIME ticks, valid for kTime
};

// A new tree for `expression`: constants copied, `?` replaced by constants holding the
// context's values (DB_E_PARAMNOTOPTIONAL when there is none), function calls
// re-created by the function table with their arguments bound (E_FAIL for an unknown
// name), NOW and NOWUTC given one hidden timestamp argument, columns copied.
// A call with another number of arguments than its function takes fails with E_FAIL and
// the function's "Bad parameter count." message in *message (when given).
// E_INVALIDARG for a missing expression or output; the input is not changed.
HRESULT Bind(const CSQLCalcItem* expression, const SQLBindContext& context, std::unique_ptr<CSQLCalcItem>* bound,
             corvane::WString* message = nullptr);

// The checks of Bind that need no values: every function call names a known function
// with as many arguments as it takes. E_FAIL and the message otherwise. Lets a
// statement fail when it is prepared rather than at the first row.
HRESULT CheckFunctionCalls(const CSQLCalcItem* expression, corvane::WString* message);

// Evaluates a bound expression. A column has no value outside a row: E_FAIL.
HRESULT Evaluate(CSQLCalcItem* bound, SQLEvaluationResult* result);

// Bind and Evaluate, then the result as a timestamp: a time as it is, a VT_DATE
// converted, a VT_BSTR read as text (both as UTC); E_FAIL for anything else.
HRESULT EvaluateAsTime(const CSQLCalcItem* expression, const SQLBindContext& context, ULONG64* time);
// Bind and Evaluate, then a copy of the VARIANT result; a timestamp result is given as
// a VT_DATE of the same calendar fields; a function without a result yet as VT_EMPTY.
HRESULT EvaluateAsValue(const CSQLCalcItem* expression, const SQLBindContext& context, VARIANT* value);
// EvaluateAsValue changed to VT_UI4.
HRESULT EvaluateAsUnsigned(const CSQLCalcItem* expression, const SQLBindContext& context, ULONG* value);

// Reads a bound argument item: a constant's value or time, or a function's result (the
// function is evaluated first when it has none yet).
HRESULT ReadItemValue(CSQLCalcItem* item, VARIANT* value);
HRESULT ReadItemTime(CSQLCalcItem* item, ULONG64* time);
// The conversion of EvaluateAsTime applied to an evaluation result.
HRESULT ResultToTime(const SQLEvaluationResult& result, ULONG64* time);

// Narrows [*start, *end] by the comparisons of TIMESTAMP in `condition`, in the order
// written. OR counts like AND and NOT is looked through; `TIMESTAMP op x` and
// `x op TIMESTAMP` both set the bound named by op as written (never mirrored), strict or
// not: = sets both, > and >= the start, < and <= the end, <> fails with E_INVALIDARG.
// E_FAIL for a bare operand as a condition or a time that is not a time, date or text.
// On failure the bounds keep what was set before it.
HRESULT ReduceTimeRange(const CSQLConditionNode* condition, const SQLBindContext& context, ULONG64* start,
                        ULONG64* end);
