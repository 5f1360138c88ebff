#include "SQLParser/SQLFunctionQualityToStr2.h"

#include <new>

#include "SQLParser/QualityText.h"

HRESULT CSQLFunctionQualityToStr2::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  VARIANT quality;
  VariantInit(&quality);
  hr = ReadValueAs(0, VT_UI4, &quality, /*returnStyle=*/true);
  if (FAILED(hr)) return hr;
  try {
    return SetResultText(corvane::QualityToStr2(V_UI4(&quality)));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}
