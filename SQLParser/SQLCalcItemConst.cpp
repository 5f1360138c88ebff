#include "SQLParser/SQLCalcItemConst.h"

CSQLCalcItemConst::CSQLCalcItemConst() : CSQLCalcItem(SQL_CALC_CONST) { VariantInit(&value_); }

CSQLCalcItemConst::~CSQLCalcItemConst() { VariantClear(&value_); }

void CSQLCalcItemConst::SetInteger(LONG64 value) {
  VariantClear(&value_);
  V_VT(&value_) = VT_I8;
  V_I8(&value_) = value;
  hasValue_ = true;
  isTime_ = false;
}

void CSQLCalcItemConst::SetDouble(double value) {
  VariantClear(&value_);
  V_VT(&value_) = VT_R8;
  value_.dblVal = value;
  hasValue_ = true;
  isTime_ = false;
}

HRESULT CSQLCalcItemConst::SetString(corvane::WStringView text) {
  BSTR copy = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!copy) return E_OUTOFMEMORY;
  VariantClear(&value_);
  V_VT(&value_) = VT_BSTR;
  value_.bstrVal = copy;
  hasValue_ = true;
  isTime_ = false;
  return S_OK;
}

HRESULT CSQLCalcItemConst::SetValue(const VARIANT& value) {
  VARIANT copy;
  VariantInit(&copy);
  HRESULT hr = VariantCopy(&copy, const_cast<VARIANT*>(&value));  // the SDKs differ on const
  if (FAILED(hr)) return hr;
  VariantClear(&value_);
  value_ = copy;  // ownership of any BSTR moves with the bits
  hasValue_ = true;
  isTime_ = false;
  return S_OK;
}

void CSQLCalcItemConst::SetTime(ULONG64 fileTimeTicks) {
  VariantClear(&value_);
  time_ = fileTimeTicks;
  isTime_ = true;
  hasValue_ = true;
}

HRESULT CSQLCalcItemConst::ValueAsText(corvane::WString* text) const {
  if (!text) return E_INVALIDARG;
  if (V_VT(&value_) == VT_BSTR) {
    text->assign(value_.bstrVal ? value_.bstrVal : OLESTR(""), value_.bstrVal ? SysStringLen(value_.bstrVal) : 0);
    return S_OK;
  }
  VARIANT converted;
  VariantInit(&converted);
  HRESULT hr = VariantChangeType(&converted, const_cast<VARIANT*>(&value_), 0, VT_BSTR);
  if (FAILED(hr)) return hr;
  try {
    text->assign(converted.bstrVal ? converted.bstrVal : OLESTR(""),
                 converted.bstrVal ? SysStringLen(converted.bstrVal) : 0);
  } catch (...) {
    VariantClear(&converted);
    throw;
  }
  VariantClear(&converted);
  return S_OK;
}
