#include "SQLParser/SQLFunctionIsUncertain.h"

HRESULT CSQLFunctionIsUncertain::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  VARIANT quality;
  VariantInit(&quality);
  hr = ReadValueAs(0, VT_UI4, &quality);
  if (FAILED(hr)) return hr;
  const ULONG code = V_UI4(&quality);
  VARIANT result;
  VariantInit(&result);
  V_VT(&result) = VT_UI4;
  V_UI4(&result) = (code & 0xC0000000u) == 0x40000000u ? 1u : 0u;
  SetResultValue(&result);
  return S_OK;
}
