#include "SQLParser/SQLFunctionDataTypeToStr.h"

#include "SQLParser/QualityText.h"

HRESULT CSQLFunctionDataTypeToStr::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  VARIANT number;
  VariantInit(&number);
  hr = ReadValueAs(0, VT_I4, &number);
  if (FAILED(hr)) return hr;
  return SetResultText(corvane::DataTypeToStr(V_I4(&number)));
}
