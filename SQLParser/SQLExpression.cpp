#include "SQLParser/SQLExpression.h"

#include <new>
#include <utility>
#include <vector>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLFunction.h"
#include "SQLParser/TimeConversion.h"
#include "SQLParser/WalkStack.h"

using corvane::WString;

namespace {

// Function calls nest no deeper than the parser allows; a hand-made tree deeper than
// this is refused rather than recursed into.
constexpr int kMaxBindDepth = 1024;

// The function object for a call, checked against what the statement wrote: E_FAIL
// with a message for an unknown name or another number of arguments.
HRESULT CreateCheckedFunction(const CSQLCalcItemFunction& call, std::unique_ptr<CSQLFunction>* function,
                              WString* message) {
  HRESULT hr = CreateFunction(call.Name(), function);
  if (hr == E_FAIL) {
    if (message) *message = corvane::WFormat(OLESTR("Unknown SQL function %s."), call.Name().c_str());
    return E_FAIL;
  }
  if (FAILED(hr)) return hr;
  (*function)->SetWrittenArgumentCount(call.ArgumentCount());
  if (FAILED((*function)->CheckArity())) {
    if (message) *message = (*function)->FailureMessage();
    return E_FAIL;
  }
  return S_OK;
}

HRESULT BindItem(const CSQLCalcItem* expression, const SQLBindContext& context, int depth,
                 std::unique_ptr<CSQLCalcItem>* bound, WString* message) {
  if (depth > kMaxBindDepth) return E_FAIL;
  switch (expression->Kind()) {
    case SQL_CALC_CONST: {
      const auto& source = static_cast<const CSQLCalcItemConst&>(*expression);
      std::unique_ptr<CSQLCalcItemConst> copy(new (std::nothrow) CSQLCalcItemConst());
      if (!copy) return E_OUTOFMEMORY;
      if (source.IsTime()) {
        copy->SetTime(source.Time());
      } else if (source.HasValue()) {
        HRESULT hr = copy->SetValue(source.Value());
        if (FAILED(hr)) return hr;
      }
      *bound = std::move(copy);
      return S_OK;
    }
    case SQL_CALC_FUNCTION: {
      const auto& call = static_cast<const CSQLCalcItemFunction&>(*expression);
      std::unique_ptr<CSQLFunction> function;
      HRESULT hr = CreateCheckedFunction(call, &function, message);
      if (FAILED(hr)) return hr;
      function->SetDisplayName(call.DisplayName());
      for (const auto& argument : call.Arguments()) {
        if (!argument) return E_INVALIDARG;
        std::unique_ptr<CSQLCalcItem> boundArgument;
        hr = BindItem(argument.get(), context, depth + 1, &boundArgument, message);
        if (FAILED(hr)) return hr;  // the new function and what it holds go with it
        hr = function->AddArgument(std::move(boundArgument));
        if (FAILED(hr)) return hr;
      }
      const bool now = corvane::WIEquals(call.Name(), OLESTR("NOW"));
      if (now || corvane::WIEquals(call.Name(), OLESTR("NOWUTC"))) {
        std::unique_ptr<CSQLCalcItemConst> reference(new (std::nothrow) CSQLCalcItemConst());
        if (!reference) return E_OUTOFMEMORY;
        reference->SetTime(now ? context.nowLocal : context.nowUtc);
        hr = function->AddArgument(std::move(reference));
        if (FAILED(hr)) return hr;
      }
      *bound = std::move(function);
      return S_OK;
    }
    case SQL_CALC_PARAMETER: {
      const int number = static_cast<const CSQLCalcItemParameter&>(*expression).Number();
      if (number < 1 || static_cast<size_t>(number) > context.parameterCount || !context.parameters)
        return DB_E_PARAMNOTOPTIONAL;
      std::unique_ptr<CSQLCalcItemConst> value(new (std::nothrow) CSQLCalcItemConst());
      if (!value) return E_OUTOFMEMORY;
      // A by-reference value is copied as what it points to: the command's buffer does
      // not outlive the execution.
      VARIANT direct;
      VariantInit(&direct);
      HRESULT hr = VariantCopyInd(&direct, const_cast<VARIANT*>(&context.parameters[number - 1]));
      if (SUCCEEDED(hr)) hr = value->SetValue(direct);
      VariantClear(&direct);
      if (FAILED(hr)) return hr;
      *bound = std::move(value);
      return S_OK;
    }
    case SQL_CALC_TABLE_COLUMN: {
      std::unique_ptr<CSQLCalcItem> copy(new (std::nothrow)
                                             CSQLCalcItemTableColumn(static_cast<const CSQLCalcItemTableColumn&>(*expression)));
      if (!copy) return E_OUTOFMEMORY;
      *bound = std::move(copy);
      return S_OK;
    }
    default:
      return E_FAIL;
  }
}

// The item's result as it stands; a function without one is evaluated first.
HRESULT CurrentResult(CSQLCalcItem* item, SQLEvaluationResult* result) {
  if (!item) return E_INVALIDARG;
  if (item->Kind() == SQL_CALC_FUNCTION) {
    auto* function = dynamic_cast<CSQLFunction*>(item);
    if (!function) return E_FAIL;  // not bound
    if (function->ResultKind() == SQLEvaluationResult::kNone) {
      HRESULT hr = function->Evaluate();
      if (FAILED(hr)) return hr;
    }
    return function->CopyResult(result);
  }
  return Evaluate(item, result);
}

// Moves the result out as a VARIANT: a time becomes a VT_DATE, no result VT_EMPTY.
HRESULT ResultToValue(SQLEvaluationResult& result, VARIANT* value) {
  VariantInit(value);
  if (result.kind == SQLEvaluationResult::kValue) {
    *value = result.value;
    VariantInit(&result.value);
    return S_OK;
  }
  if (result.kind == SQLEvaluationResult::kTime) {
    DATE date = 0;
    HRESULT hr = corvane::FileTimeToDate(result.time, &date);
    if (FAILED(hr)) return hr;
    V_VT(value) = VT_DATE;
    V_DATE(value) = date;
  }
  return S_OK;
}

HRESULT BindAndEvaluate(const CSQLCalcItem* expression, const SQLBindContext& context, SQLEvaluationResult* result) {
  std::unique_ptr<CSQLCalcItem> bound;
  HRESULT hr = Bind(expression, context, &bound);
  if (FAILED(hr)) return hr;
  return Evaluate(bound.get(), result);
}

bool IsColumnNamed(const CSQLCalcItem* item, const OLECHAR* name) {
  return item && item->Kind() == SQL_CALC_TABLE_COLUMN &&
         corvane::WIEquals(static_cast<const CSQLCalcItemTableColumn*>(item)->ColumnName(), name);
}

}  // namespace

HRESULT SetReferenceTimesToNow(SQLBindContext* context) {
  if (!context) return E_INVALIDARG;
  FILETIME utc{}, local{};
  GetSystemTimeAsFileTime(&utc);
  if (!FileTimeToLocalFileTime(&utc, &local)) return E_FAIL;
  context->nowUtc = corvane::FileTimeToTicks(utc);
  context->nowLocal = corvane::FileTimeToTicks(local);
  return S_OK;
}

HRESULT Bind(const CSQLCalcItem* expression, const SQLBindContext& context, std::unique_ptr<CSQLCalcItem>* bound,
             WString* message) {
  if (!expression || !bound) return E_INVALIDARG;
  try {
    std::unique_ptr<CSQLCalcItem> result;
    HRESULT hr = BindItem(expression, context, 0, &result, message);
    if (FAILED(hr)) return hr;
    *bound = std::move(result);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CheckFunctionCalls(const CSQLCalcItem* expression, WString* message) {
  try {
    CWalkStack<const CSQLCalcItem*> pending;
    pending.Push(expression);
    while (!pending.Empty()) {
      const CSQLCalcItem* item = pending.Pop();
      if (!item || item->Kind() != SQL_CALC_FUNCTION) continue;
      const auto& call = static_cast<const CSQLCalcItemFunction&>(*item);
      // Every Prepare checks its calls: a sound call is settled by the function table
      // alone, and only a bad one makes the function object that words its message.
      const SQLFunctionInfo* entry = FindSQLFunction(call.Name());
      if (!entry || entry->arity != call.ArgumentCount()) {
        std::unique_ptr<CSQLFunction> function;
        const HRESULT hr = CreateCheckedFunction(call, &function, message);
        if (FAILED(hr)) return hr;
      }
      for (const auto& argument : call.Arguments()) pending.Push(argument.get());
    }
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT Evaluate(CSQLCalcItem* bound, SQLEvaluationResult* result) {
  if (!bound || !result) return E_INVALIDARG;
  result->Reset();
  switch (bound->Kind()) {
    case SQL_CALC_CONST: {
      const auto& constant = static_cast<const CSQLCalcItemConst&>(*bound);
      if (constant.IsTime()) {
        result->kind = SQLEvaluationResult::kTime;
        result->time = constant.Time();
        return S_OK;
      }
      HRESULT hr = VariantCopy(&result->value, const_cast<VARIANT*>(&constant.Value()));
      if (FAILED(hr)) return hr;
      result->kind = SQLEvaluationResult::kValue;
      return S_OK;
    }
    case SQL_CALC_FUNCTION: {
      auto* function = dynamic_cast<CSQLFunction*>(bound);
      if (!function) return E_FAIL;  // a call as written, not bound
      HRESULT hr = function->Evaluate();
      if (FAILED(hr)) return hr;
      return function->CopyResult(result);
    }
    default:
      return E_FAIL;  // columns have values only in rows; parameters only once bound
  }
}

HRESULT ResultToTime(const SQLEvaluationResult& result, ULONG64* time) {
  if (!time) return E_INVALIDARG;
  if (result.kind == SQLEvaluationResult::kTime) {
    *time = result.time;
    return S_OK;
  }
  if (result.kind == SQLEvaluationResult::kValue) {
    if (V_VT(&result.value) == VT_DATE) return corvane::DateToFileTime(V_DATE(&result.value), time);
    if (V_VT(&result.value) == VT_BSTR) {
      const BSTR text = result.value.bstrVal;
      return corvane::TextToFileTime(corvane::WStringView(text ? text : OLESTR(""), text ? SysStringLen(text) : 0),
                                     time);
    }
  }
  return E_FAIL;
}

HRESULT ReadItemValue(CSQLCalcItem* item, VARIANT* value) {
  if (!value) return E_INVALIDARG;
  SQLEvaluationResult result;
  HRESULT hr = CurrentResult(item, &result);
  if (FAILED(hr)) return hr;
  return ResultToValue(result, value);
}

HRESULT ReadItemTime(CSQLCalcItem* item, ULONG64* time) {
  if (!time) return E_INVALIDARG;
  SQLEvaluationResult result;
  HRESULT hr = CurrentResult(item, &result);
  if (FAILED(hr)) return hr;
  return ResultToTime(result, time);
}

HRESULT EvaluateAsTime(const CSQLCalcItem* expression, const SQLBindContext& context, ULONG64* time) {
  if (!time) return E_INVALIDARG;
  SQLEvaluationResult result;
  HRESULT hr = BindAndEvaluate(expression, context, &result);
  if (FAILED(hr)) return hr;
  return ResultToTime(result, time);
}

HRESULT EvaluateAsValue(const CSQLCalcItem* expression, const SQLBindContext& context, VARIANT* value) {
  if (!value) return E_INVALIDARG;
  SQLEvaluationResult result;
  HRESULT hr = BindAndEvaluate(expression, context, &result);
  if (FAILED(hr)) return hr;
  return ResultToValue(result, value);
}

HRESULT EvaluateAsUnsigned(const CSQLCalcItem* expression, const SQLBindContext& context, ULONG* value) {
  if (!value) return E_INVALIDARG;
  VARIANT raw, converted;
  HRESULT hr = EvaluateAsValue(expression, context, &raw);
  if (FAILED(hr)) return hr;
  VariantInit(&converted);
  hr = VariantChangeType(&converted, &raw, 0, VT_UI4);
  VariantClear(&raw);
  if (FAILED(hr)) return hr;
  *value = V_UI4(&converted);
  return S_OK;
}

HRESULT ReduceTimeRange(const CSQLConditionNode* condition, const SQLBindContext& context, ULONG64* start,
                        ULONG64* end) {
  if (!condition || !start || !end) return E_INVALIDARG;
  try {
    std::vector<const CSQLConditionNode*> pending{condition};
    while (!pending.empty()) {
      const CSQLConditionNode* node = pending.back();
      pending.pop_back();
      if (!node) return E_INVALIDARG;
      const int op = node->Operator();
      if (op == SQL_COND_OR || op == SQL_COND_AND) {
        // OR narrows like AND: later comparisons overwrite earlier ones, left to right.
        pending.push_back(node->Right());
        pending.push_back(node->Left());
        continue;
      }
      if (op == SQL_COND_NOT) {
        pending.push_back(node->Left());
        continue;
      }
      if (op == SQL_COND_OPERAND) return E_FAIL;
      if (op < SQL_COND_EQUAL || op > SQL_COND_NOT_EQUAL) return E_FAIL;

      const CSQLCalcItem* other = nullptr;
      if (IsColumnNamed(node->FirstOperand(), OLESTR("TIMESTAMP")))
        other = node->SecondOperand();
      else if (IsColumnNamed(node->SecondOperand(), OLESTR("TIMESTAMP")))
        other = node->FirstOperand();
      else
        continue;
      ULONG64 time = 0;
      HRESULT hr = EvaluateAsTime(other, context, &time);
      if (FAILED(hr)) return hr;
      // The operator counts as written even with TIMESTAMP on the right, and strict and
      // non-strict bounds are the same: saved queries depend on both.
      switch (op) {
        case SQL_COND_EQUAL:
          *start = *end = time;
          break;
        case SQL_COND_GREATER:
        case SQL_COND_GREATER_OR_EQUAL:
          *start = time;
          break;
        case SQL_COND_LESS:
        case SQL_COND_LESS_OR_EQUAL:
          *end = time;
          break;
        default:  // not equal: no single range
          return E_INVALIDARG;
      }
    }
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}
