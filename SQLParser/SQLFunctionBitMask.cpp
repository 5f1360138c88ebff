#include "SQLParser/SQLFunctionBitMask.h"

HRESULT CSQLFunctionBitMask::Evaluate() {
  HRESULT hr = CheckArgumentCount(3, 3);
  if (FAILED(hr)) return hr;
  VARIANT op, mask, operand;
  VariantInit(&op);
  VariantInit(&mask);
  VariantInit(&operand);
  hr = ReadConverted(0, VT_BSTR, &op);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get Operator parameter value (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  const corvane::WString opText(op.bstrVal ? op.bstrVal : OLESTR(""), op.bstrVal ? SysStringLen(op.bstrVal) : 0);
  VariantClear(&op);
  hr = ReadConverted(1, VT_UI4, &mask);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get Mask parameter value (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  hr = ReadConverted(2, VT_UI4, &operand);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get Operand parameter value (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  ULONG value = 0;
  if (opText == OLESTR("&")) {
    value = V_UI4(&operand) & V_UI4(&mask);
  } else if (opText == OLESTR("|")) {
    value = V_UI4(&operand) | V_UI4(&mask);
  } else if (opText == OLESTR("^")) {
    value = V_UI4(&operand) ^ V_UI4(&mask);
  } else {
    TraceError(OLESTR("Unknown Operator %s parameter value (HR = %X)."), opText.c_str(),
               static_cast<unsigned>(E_INVALIDARG));
    return E_INVALIDARG;
  }
  VARIANT result;
  VariantInit(&result);
  V_VT(&result) = VT_UI4;
  V_UI4(&result) = value;
  SetResultValue(&result);
  return S_OK;
}
