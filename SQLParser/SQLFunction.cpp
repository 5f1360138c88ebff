#include "SQLParser/SQLFunction.h"

#include <array>
#include <new>
#include <type_traits>

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
  if (WrittenArgumentCount() == info_->arity) return S_OK;
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

template <bool kUtc>
CSQLFunction* MakeNow(corvane::WStringView name) {
  return new (std::nothrow) CSQLFunctionNow(WString(name), kUtc);
}

// Whether a function aggregates follows from its class, so the two cannot disagree.
template <typename T>
constexpr SQLFunctionInfo Fn(const OLECHAR* name, size_t arity, DBTYPE resultType,
                             CSQLFunction* (*make)(corvane::WStringView) = &Make<T>) {
  return {name, arity, std::is_base_of<CSQLFunctionAggregate, T>::value, resultType, false, make};
}

constexpr DBTYPE kTime = DBTYPE_DBTIMESTAMP;

const SQLFunctionInfo kFunctions[] = {
    Fn<CSQLFunctionDateAdd>(OLESTR("DATEADD"), 3, kTime),
    Fn<CSQLFunctionNow>(OLESTR("NOW"), 0, kTime, &MakeNow<false>),
    Fn<CSQLFunctionNow>(OLESTR("NOWUTC"), 0, kTime, &MakeNow<true>),
    Fn<CSQLFunctionLocalTimeToUTC>(OLESTR("LocalTimeToUTC"), 1, kTime),
    Fn<CSQLFunctionUTCToLocalTime>(OLESTR("UTCToLocalTime"), 1, kTime),
    Fn<CSQLFunctionGetMsecs>(OLESTR("GetMsecs"), 1, DBTYPE_UI4),
    Fn<CSQLFunctionIsGood>(OLESTR("IsGood"), 1, DBTYPE_UI4),
    Fn<CSQLFunctionIsBad>(OLESTR("IsBad"), 1, DBTYPE_UI4),
    Fn<CSQLFunctionIsUncertain>(OLESTR("IsUncertain"), 1, DBTYPE_UI4),
    Fn<CSQLFunctionQualityToStr>(OLESTR("QualityToStr"), 1, DBTYPE_WSTR),
    Fn<CSQLFunctionQualityToStr2>(OLESTR("QualityToStr2"), 1, DBTYPE_WSTR),
    Fn<CSQLFunctionBitMask>(OLESTR("BitMask"), 3, DBTYPE_UI4),
    Fn<CSQLFunctionDataTypeToStr>(OLESTR("DataTypeToStr"), 1, DBTYPE_WSTR),
    Fn<CSQLFunctionAccessRightsToStr>(OLESTR("AccessRightsToStr"), 1, DBTYPE_WSTR),
    Fn<CSQLFunctionSUM>(OLESTR("SUM"), 1, DBTYPE_R8),
    Fn<CSQLFunctionAVG>(OLESTR("AVG"), 1, DBTYPE_R8),
    Fn<CSQLFunctionMIN>(OLESTR("MIN"), 1, DBTYPE_R8),
    Fn<CSQLFunctionMAX>(OLESTR("MAX"), 1, DBTYPE_R8),
    {OLESTR("COUNT"), 1, true, DBTYPE_UI4, true, &Make<CSQLFunctionCOUNT>},
};
static_assert(std::is_base_of<CSQLFunctionAggregate, CSQLFunctionCOUNT>::value, "COUNT aggregates");

}  // namespace

const SQLFunctionInfo* FindSQLFunction(corvane::WStringView name) {
  // The names measured once: every Prepare looks each of its calls up here.
  constexpr size_t kCount = sizeof kFunctions / sizeof kFunctions[0];
  static const auto lengths = [] {
    std::array<size_t, kCount> n{};
    for (size_t i = 0; i < kCount; ++i) n[i] = corvane::WLen(kFunctions[i].name);
    return n;
  }();
  for (size_t i = 0; i < kCount; ++i)
    if (lengths[i] == name.size() && corvane::WICmp(name, corvane::WStringView(kFunctions[i].name, lengths[i])) == 0)
      return &kFunctions[i];
  return nullptr;
}

HRESULT CreateFunction(corvane::WStringView name, std::unique_ptr<CSQLFunction>* function) {
  if (!function) return E_INVALIDARG;
  const SQLFunctionInfo* entry = FindSQLFunction(name);
  if (!entry) return E_FAIL;
  CSQLFunction* made = nullptr;
  try {
    made = entry->make(name);
  } catch (const std::bad_alloc&) {
    made = nullptr;
  }
  if (!made) return E_OUTOFMEMORY;
  made->info_ = entry;
  function->reset(made);
  return S_OK;
}
