#include "SQLParser/SQLFunctionLocalTimeToUTC.h"

#include "SQLParser/TimeConversion.h"

HRESULT CSQLFunctionLocalTimeToUTC::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  hr = EvaluateFunctionArgument(0);
  if (FAILED(hr)) return hr;
  ULONG64 local = 0;
  hr = ReadTime(0, &local);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get parameter value (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  const FILETIME in = corvane::TicksToFileTime(local);
  FILETIME out{};
  if (!LocalFileTimeToFileTime(&in, &out)) {
    TraceError(OLESTR("Conversion error (HR = %X)."), static_cast<unsigned>(E_INVALIDARG));
    return E_INVALIDARG;
  }
  SetResultTime(corvane::FileTimeToTicks(out));
  return S_OK;
}
