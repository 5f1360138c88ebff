#include "SQLParser/SQLFunctionQualityToStr.h"

#include "SQLParser/QualityText.h"

HRESULT CSQLFunctionQualityToStr::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  VARIANT quality;
  VariantInit(&quality);
  hr = ReadValueAs(0, VT_UI4, &quality);
  if (FAILED(hr)) return hr;
  return SetResultText(corvane::QualityToStr(V_UI4(&quality)));
}
