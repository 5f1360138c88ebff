#include "SQLParser/SQLFunctionUTCToLocalTime.h"

#include "SQLParser/TimeConversion.h"

HRESULT CSQLFunctionUTCToLocalTime::Evaluate() {
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  ULONG64 utc = 0;
  hr = ReadTime(0, &utc);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get parameter value (HR: return %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  const FILETIME in = corvane::TicksToFileTime(utc);
  FILETIME out{};
  if (!FileTimeToLocalFileTime(&in, &out)) {
    TraceError(OLESTR("Conversion error (HR = %X)."), static_cast<unsigned>(E_INVALIDARG));
    return E_INVALIDARG;
  }
  SetResultTime(corvane::FileTimeToTicks(out));
  return S_OK;
}
