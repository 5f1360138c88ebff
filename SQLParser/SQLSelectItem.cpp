#include "SQLParser/SQLSelectItem.h"

#include <new>

HRESULT CSQLSelectItemSP::SetParameters(std::vector<std::unique_ptr<CSQLCalcItem>>& parameters) {
  if (parameters_.empty()) {
    parameters_.swap(parameters);  // the usual case: the list itself is taken, not copied
    return S_OK;
  }
  try {
    parameters_.reserve(parameters_.size() + parameters.size());
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (auto& item : parameters) parameters_.push_back(std::move(item));  // cannot throw after reserve
  parameters.clear();
  return S_OK;
}
