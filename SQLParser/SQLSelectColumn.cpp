#include "SQLParser/SQLSelectColumn.h"

#include <new>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemTableColumn.h"

HRESULT CSQLSelectColumn::Create(std::unique_ptr<CSQLCalcItem> item, std::unique_ptr<CSQLSelectColumn>* column) {
  if (!item || !column) return E_INVALIDARG;
  try {
    std::unique_ptr<CSQLSelectColumn> made(new CSQLSelectColumn());
    switch (item->Kind()) {
      case SQL_CALC_TABLE_COLUMN: {
        const auto& c = static_cast<const CSQLCalcItemTableColumn&>(*item);
        made->catalog_ = c.Catalog();
        made->schema_ = c.Schema();
        made->tableName_ = c.TableName();
        made->tableAlias_ = c.TableAlias();
        made->columnName_ = c.ColumnName();
        made->displayName_ = c.DisplayName().empty() ? c.ColumnName() : c.DisplayName();
        break;
      }
      case SQL_CALC_FUNCTION: {
        const auto& f = static_cast<const CSQLCalcItemFunction&>(*item);
        made->columnName_ = f.Name();
        made->displayName_ = f.DisplayName().empty() ? f.Name() : f.DisplayName();
        break;
      }
      case SQL_CALC_CONST: {
        HRESULT hr = static_cast<const CSQLCalcItemConst&>(*item).ValueAsText(&made->columnName_);
        if (FAILED(hr)) return hr;
        made->displayName_ = made->columnName_;
        break;
      }
      default:
        break;  // a parameter has no name of its own
    }
    made->item_ = std::move(item);
    *column = std::move(made);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}
