#include "SQLParser/SQLCalcItemFunction.h"

#include <new>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemTableColumn.h"

HRESULT CSQLCalcItemFunction::AddArgument(std::unique_ptr<CSQLCalcItem> argument) {
  if (!argument) return E_INVALIDARG;
  try {
    // Calls rarely take more than four arguments: room for them at once, not one by one.
    if (arguments_.capacity() == 0) arguments_.reserve(4);
    arguments_.push_back(std::move(argument));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

HRESULT CSQLCalcItemFunction::AddDateAddArgument(std::unique_ptr<CSQLCalcItem> argument) {
  if (!argument) return E_INVALIDARG;
  if (arguments_.empty() && argument->Kind() == SQL_CALC_TABLE_COLUMN) {
    const auto& column = static_cast<const CSQLCalcItemTableColumn&>(*argument);
    // Only a plain word is a unit; `t.hh` stays a column and fails at evaluation.
    if (column.TableName().empty()) {
      std::unique_ptr<CSQLCalcItemConst> unit(new (std::nothrow) CSQLCalcItemConst());
      if (!unit) return E_OUTOFMEMORY;
      HRESULT hr = unit->SetString(column.ColumnName());
      if (FAILED(hr)) return hr;
      return AddArgument(std::move(unit));
    }
  }
  return AddArgument(std::move(argument));
}
