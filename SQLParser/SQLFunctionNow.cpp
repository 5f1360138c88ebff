#include "SQLParser/SQLFunctionNow.h"

HRESULT CSQLFunctionNow::Evaluate() {
  HRESULT hr = CheckArgumentCount(0, 1);
  if (FAILED(hr)) return hr;
  ULONG64 time = 0;
  hr = ReadTime(0, &time);
  if (FAILED(hr)) {
    TraceError(OLESTR("Cannot get parameter value (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  SetResultTime(time);
  return S_OK;
}
