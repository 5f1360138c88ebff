#include "SQLParser/SQLFunction.h"

#include <new>

#include "SQLParser/SQLFunctionAVG.h"
#include "SQLParser/SQLFunctionAccessRightsToStr.h"
#include "SQLParser/SQLFunctionBitMask.h"
#include "SQLParser/SQLFunctionCOUNT.h"
#include "SQLParser/SQLFunctionDataTypeToStr.h"
#include "SQLParser/SQLFunctionDateAdd.h"
#include "SQLParser/SQLFunctionGetMsecs.h"
#include "SQLParser/SQLFunctionIsBad.h"
#include "SQLParser/SQLFunctionIsGood.h"
#include "SQLParser/SQLFunctionIsUncertain.h"
#include "SQLParser/SQLFunctionLocalTimeToUTC.h"
#include "SQLParser/SQLFunctionMAX.h"
#include "SQLParser/SQLFunctionMIN.h"
#include "SQLParser/SQLFunctionNow.h"
#include "SQLParser/SQLFunctionQualityToStr.h"
#include "SQLParser/SQLFunctionQualityToStr2.h"
#include "SQLParser/SQLFunctionSUM.h"
#include "SQLParser/SQLFunctionUTCToLocalTime.h"
#include "base/Trace.h"

using corvane::WString;

CSQLFunction::CSQLFunction(WString name) : CSQLCalcItemFunction(std::move(name)) { VariantInit(&resultValue_); }

CSQLFunction::~CSQLFunction() { VariantClear(&resultValue_); }

HRESULT CSQLFunction::CopyResult(SQLEvaluationResult* result) const {
  if (!result) return E_INVALIDARG;
  result->Reset();
  if (resultKind_ == SQLEvaluationResult::kValue) {
    HRESULT hr = VariantCopy(&result->value, const_cast<VARIANT*>(&resultValue_));
    if (FAILED(hr)) return hr;
  }
  result->kind = resultKind_;
  result->time = resultTime_;
  return S_OK;
}

void CSQLFunction::TraceError(const OLECHAR* detailFormat, ...) const {
  try {
    va_list args;
    va_start(args, detailFormat);
    const WString detail = corvane::WFormatV(detailFormat, args);
    va_end(args);
    failureMessage_ = corvane::WFormat(OLESTR("SQL function %s calculation error: %s"), MessageName(), detail.c_str());
    CVTRACE(TRACE_ERROR, OLESTR("%s"), failureMessage_.c_str());
  } catch (const std::bad_alloc&) {
    // The failure code reaches the caller anyway; only its text is lost.
  }
}

HRESULT CSQLFunction::CheckArgumentCount(size_t written, size_t bound) const {
  if (WrittenArgumentCount() == written && ArgumentCount() == bound) return S_OK;
  TraceError(ArityMessage());
  return E_FAIL;
}

HRESULT CSQLFunction::CheckArity() const {
  if (WrittenArgumentCount() == arity_) return S_OK;
  TraceError(ArityMessage());
  return E_FAIL;
}

HRESULT CSQLFunction::ReadValueAs(size_t index, VARTYPE type, VARIANT* value, bool returnStyle) const {
  VARIANT raw;
  VariantInit(&raw);
  HRESULT hr = ReadValue(index, &raw);
  if (FAILED(hr)) {
    TraceError(returnStyle ? OLESTR("Cannot get parameter value (HR: return %X).")
                           : OLESTR("Cannot get parameter value (HR = %X)."),
               static_cast<unsigned>(hr));
    return hr;
  }
  hr = VariantChangeType(value, &raw, 0, type);
  VariantClear(&raw);
  if (FAILED(hr)) {
    TraceError(returnStyle ? OLESTR("Conversion error (HR: return %X).") : OLESTR("Conversion error (HR = %X)."),
               static_cast<unsigned>(hr));
    return hr;
  }
  return S_OK;
}

HRESULT CSQLFunction::ReadConverted(size_t index, VARTYPE type, VARIANT* value) const {
  VARIANT raw;
  VariantInit(&raw);
  HRESULT hr = ReadValue(index, &raw);
  if (SUCCEEDED(hr)) hr = VariantChangeType(value, &raw, 0, type);
  VariantClear(&raw);
  return hr;
}

HRESULT CSQLFunction::EvaluateFunctionArgument(size_t index) const {
  CSQLCalcItem* argument = BoundArgument(index);
  if (!argument || argument->Kind() != SQL_CALC_FUNCTION) return S_OK;
  auto* function = dynamic_cast<CSQLFunction*>(argument);
  return function ? function->Evaluate() : E_FAIL;
}

HRESULT CSQLFunction::SetResultText(corvane::WStringView text) {
  VARIANT value;
  VariantInit(&value);
  value.bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!value.bstrVal) return E_OUTOFMEMORY;
  V_VT(&value) = VT_BSTR;
  SetResultValue(&value);
  return S_OK;
}

void CSQLFunction::SetResultValue(VARIANT* value) {
  VariantClear(&resultValue_);
  resultValue_ = *value;  // the payload moves with the bits
  VariantInit(value);
  resultKind_ = SQLEvaluationResult::kValue;
}

void CSQLFunction::SetResultTime(ULONG64 time) {
  VariantClear(&resultValue_);
  resultTime_ = time;
  resultKind_ = SQLEvaluationResult::kTime;
}

namespace {

template <typename T>
CSQLFunction* Make(corvane::WStringView name) {
  return new (std::nothrow) T(WString(name));
}

}  // namespace

HRESULT CreateFunction(corvane::WStringView name, std::unique_ptr<CSQLFunction>* function) {
  if (!function) return E_INVALIDARG;
  using Factory = CSQLFunction* (*)(corvane::WStringView);
  // In this order; the first match wins.
  static const struct {
    const OLECHAR* name;
    Factory make;
    size_t arity;  // arguments the statement writes
  } kTable[] = {
      {OLESTR("DATEADD"), [](corvane::WStringView n) -> CSQLFunction* { return new (std::nothrow) CSQLFunctionDateAdd(WString(n)); }, 3},
      {OLESTR("NOW"), [](corvane::WStringView n) -> CSQLFunction* { return new (std::nothrow) CSQLFunctionNow(WString(n), false); }, 0},
      {OLESTR("NOWUTC"), [](corvane::WStringView n) -> CSQLFunction* { return new (std::nothrow) CSQLFunctionNow(WString(n), true); }, 0},
      {OLESTR("LocalTimeToUTC"), Make<CSQLFunctionLocalTimeToUTC>, 1},
      {OLESTR("UTCToLocalTime"), Make<CSQLFunctionUTCToLocalTime>, 1},
      {OLESTR("GetMsecs"), Make<CSQLFunctionGetMsecs>, 1},
      {OLESTR("IsGood"), Make<CSQLFunctionIsGood>, 1},
      {OLESTR("IsBad"), Make<CSQLFunctionIsBad>, 1},
      {OLESTR("IsUncertain"), Make<CSQLFunctionIsUncertain>, 1},
      {OLESTR("QualityToStr"), Make<CSQLFunctionQualityToStr>, 1},
      {OLESTR("QualityToStr2"), Make<CSQLFunctionQualityToStr2>, 1},
      {OLESTR("BitMask"), Make<CSQLFunctionBitMask>, 3},
      {OLESTR("DataTypeToStr"), Make<CSQLFunctionDataTypeToStr>, 1},
      {OLESTR("AccessRightsToStr"), Make<CSQLFunctionAccessRightsToStr>, 1},
      {OLESTR("SUM"), Make<CSQLFunctionSUM>, 1},
      {OLESTR("AVG"), Make<CSQLFunctionAVG>, 1},
      {OLESTR("MIN"), Make<CSQLFunctionMIN>, 1},
      {OLESTR("MAX"), Make<CSQLFunctionMAX>, 1},
      {OLESTR("COUNT"), Make<CSQLFunctionCOUNT>, 1},
  };
  for (const auto& entry : kTable) {
    if (!corvane::WIEquals(name, entry.name)) continue;
    CSQLFunction* made = nullptr;
    try {
      made = entry.make(name);
    } catch (const std::bad_alloc&) {
      made = nullptr;
    }
    if (!made) return E_OUTOFMEMORY;
    made->SetArity(entry.arity);
    function->reset(made);
    return S_OK;
  }
  return E_FAIL;
}
