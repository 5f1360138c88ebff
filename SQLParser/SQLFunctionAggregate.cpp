#include "SQLParser/SQLFunctionAggregate.h"

#include <new>

CSQLFunctionAggregate::~CSQLFunctionAggregate() = default;

HRESULT CSQLFunctionAggregate::Feed(std::unique_ptr<CSQLCalcItem> item) {
  if (!item) return E_INVALIDARG;
  try {
    queue_.push_back(std::move(item));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

HRESULT CSQLFunctionAggregate::Evaluate() {
  // The written argument names the column the command feeds; it is never read here.
  HRESULT hr = CheckArgumentCount(1, 1);
  if (FAILED(hr)) return hr;
  size_t consumed = 0;
  for (; consumed < queue_.size(); ++consumed) {
    double number = 0;
    if (ReadsValues()) {
      VARIANT raw, converted;
      VariantInit(&raw);
      VariantInit(&converted);
      hr = ReadItemValue(queue_[consumed].get(), &raw);
      if (FAILED(hr)) {
        TraceError(OLESTR("Cannot get parameter value (HR = %X)."), static_cast<unsigned>(hr));
        break;
      }
      hr = VariantChangeType(&converted, &raw, 0, VT_R8);
      VariantClear(&raw);
      if (FAILED(hr)) {
        TraceError(OLESTR("Conversion error (HR = %X)."), static_cast<unsigned>(hr));
        break;
      }
      number = V_R8(&converted);
    }
    Accumulate(number);
    VARIANT result;
    VariantInit(&result);
    CurrentValue(&result);
    SetResultValue(&result);
    queue_[consumed].reset();
  }
  // The items folded in are gone; a failing item and those behind it stay queued.
  queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(consumed));
  return FAILED(hr) ? hr : S_OK;
}
