#include "SQLParser/SQLFunctionGetMsecs.h"

#include "SQLParser/TimeConversion.h"

HRESULT CSQLFunctionGetMsecs::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  ULONG64 time = 0;
  hr = ReadTime(0, &time);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get parameter value (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  const FILETIME in = corvane::TicksToFileTime(time);
  SYSTEMTIME fields{};
  if (!FileTimeToSystemTime(&in, &fields)) {
    TraceError(OLESTR("Conversion error (HR = %X)."), static_cast<unsigned>(E_INVALIDARG));
    return E_INVALIDARG;
  }
  VARIANT milliseconds, result;
  VariantInit(&milliseconds);
  VariantInit(&result);
  V_VT(&milliseconds) = VT_UI2;
  V_UI2(&milliseconds) = fields.wMilliseconds;
  hr = VariantChangeType(&result, &milliseconds, 0, VT_UI4);
  if (FAILED(hr)) {
    TraceError(OLESTR("Conversion error (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  SetResultValue(&result);
  return S_OK;
}
