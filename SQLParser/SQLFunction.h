// Base of the SQL functions: a bound function call that computes its result from its
// bound arguments. Made by name through the function table (CreateFunction) when an
// expression is bound; evaluation fills the result, which a failed evaluation leaves as
// it was. The table (SQLFunction.cpp) is the one place a function is described: a new
// function is its class plus one entry there.
#pragma once
#include <memory>

#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLExpression.h"

class CSQLFunction;

// One SQL function as the dialect defines it.
struct SQLFunctionInfo {
  const OLECHAR* name;  // as documented; statements may write it in any case
  size_t arity;         // arguments the statement writes
  bool aggregate;       // folds one argument per row into one result (its class is a CSQLFunctionAggregate)
  DBTYPE resultType;    // of a successful result
  // An aggregate over no rows gives the zero of its result type (COUNT) rather than NULL.
  bool zeroOverNoRows;
  CSQLFunction* (*make)(corvane::WStringView name);  // a new object, or null when out of memory
};

// The function table's entry for a SQL name (compared ignoring case), or null.
const SQLFunctionInfo* FindSQLFunction(corvane::WStringView name);

class CSQLFunction : public CSQLCalcItemFunction {
 public:
  ~CSQLFunction() override;

  virtual HRESULT Evaluate() = 0;
  // The function's SQL name ("QualityToStr", "GetMsecs", "COUNT").
  virtual const OLECHAR* FunctionName() const = 0;
  // Its entry in the function table (set by CreateFunction).
  const SQLFunctionInfo& Info() const { return *info_; }
  bool IsAggregate() const { return info_->aggregate; }

  // The message of the last failure, as traced ("SQL function Now calculation error:
  // Bad parameter count."); empty when the function has not failed. It is what the
  // consumer's error record says when this function fails a statement.
  const corvane::WString& FailureMessage() const { return failureMessage_; }

  // E_FAIL with the function's "Bad parameter count." message when the statement wrote
  // another number of arguments: found when the statement is bound, before any row.
  HRESULT CheckArity() const;

  int ResultKind() const { return resultKind_; }  // SQLEvaluationResult::kNone/kValue/kTime
  ULONG64 ResultTime() const { return resultTime_; }
  // The result as an evaluation result (a copy).
  HRESULT CopyResult(SQLEvaluationResult* result) const;

  // Arguments as the statement wrote them; the bound argument list may hold more
  // (the hidden reference time of NOW and NOWUTC).
  size_t WrittenArgumentCount() const { return writtenArgumentCount_; }
  void SetWrittenArgumentCount(size_t count) { writtenArgumentCount_ = count; }

 protected:
  explicit CSQLFunction(corvane::WString name);

  // The name in the error texts ("Now" for NOW and NOWUTC alike).
  virtual const OLECHAR* MessageName() const { return FunctionName(); }
  // Traces "SQL function <MessageName> calculation error: <detail>" at error level and
  // keeps it as the failure message.
  void TraceError(const OLECHAR* detailFormat, ...) const;
  // The detail of the argument-count failure ("Bad parameter count.").
  virtual const OLECHAR* ArityMessage() const { return OLESTR("Bad parameter count."); }
  // Traces the "Bad parameter count." message and answers E_FAIL unless the written and
  // the bound arguments number `written` and `bound`.
  HRESULT CheckArgumentCount(size_t written, size_t bound) const;

  CSQLCalcItem* BoundArgument(size_t index) const {
    return index < Arguments().size() ? Arguments()[index].get() : nullptr;
  }
  HRESULT ReadValue(size_t index, VARIANT* value) const { return ReadItemValue(BoundArgument(index), value); }
  HRESULT ReadTime(size_t index, ULONG64* time) const { return ReadItemTime(BoundArgument(index), time); }
  // Reads argument `index` and changes it to `type` in *value, tracing "Cannot get
  // parameter value (HR<sep>%X)." or "Conversion error (HR<sep>%X)." on failure, where
  // <sep> is " =" or ": return" as the function writes it.
  HRESULT ReadValueAs(size_t index, VARTYPE type, VARIANT* value, bool returnStyle = false) const;

  // Reads argument `index` and changes it to `type`, without tracing.
  HRESULT ReadConverted(size_t index, VARTYPE type, VARIANT* value) const;
  // Evaluates argument `index` when it is a function call (a failure is returned).
  HRESULT EvaluateFunctionArgument(size_t index) const;
  // Makes a VT_BSTR of `text` the result; E_OUTOFMEMORY leaves the result as it was.
  HRESULT SetResultText(corvane::WStringView text);
  // Takes the VARIANT (left VT_EMPTY) as the result.
  void SetResultValue(VARIANT* value);
  void SetResultTime(ULONG64 time);

 private:
  size_t writtenArgumentCount_ = 0;
  const SQLFunctionInfo* info_ = nullptr;
  friend HRESULT CreateFunction(corvane::WStringView name, std::unique_ptr<CSQLFunction>* function);
  mutable corvane::WString failureMessage_;
  int resultKind_ = SQLEvaluationResult::kNone;
  VARIANT resultValue_;
  ULONG64 resultTime_ = 0;
};

// The function table: a new, empty function object for a SQL name (compared ignoring
// case). E_FAIL for an unknown name, E_OUTOFMEMORY, E_INVALIDARG for a null output.
HRESULT CreateFunction(corvane::WStringView name, std::unique_ptr<CSQLFunction>* function);
