#include "SQLParser/SQLSelectColumn.h"

#include <new>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemTableColumn.h"

namespace {

const corvane::WString& Empty() {
  static const corvane::WString empty;
  return empty;
}

const CSQLCalcItemTableColumn* AsColumn(const CSQLCalcItem* item) {
  return item->Kind() == SQL_CALC_TABLE_COLUMN ? static_cast<const CSQLCalcItemTableColumn*>(item) : nullptr;
}

const CSQLCalcItemFunction* AsFunction(const CSQLCalcItem* item) {
  return item->Kind() == SQL_CALC_FUNCTION ? static_cast<const CSQLCalcItemFunction*>(item) : nullptr;
}

}  // namespace

HRESULT CSQLSelectColumn::Create(std::unique_ptr<CSQLCalcItem> item, std::unique_ptr<CSQLSelectColumn>* column) {
  if (!item || !column) return E_INVALIDARG;
  try {
    std::unique_ptr<CSQLSelectColumn> made(new CSQLSelectColumn());
    if (item->Kind() == SQL_CALC_CONST) {
      HRESULT hr = static_cast<const CSQLCalcItemConst&>(*item).ValueAsText(&made->constantText_);
      if (FAILED(hr)) return hr;
    }
    made->item_ = std::move(item);
    *column = std::move(made);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

const corvane::WString& CSQLSelectColumn::Catalog() const {
  const auto* c = AsColumn(item_.get());
  return c ? c->Catalog() : Empty();
}

const corvane::WString& CSQLSelectColumn::Schema() const {
  const auto* c = AsColumn(item_.get());
  return c ? c->Schema() : Empty();
}

const corvane::WString& CSQLSelectColumn::TableName() const {
  const auto* c = AsColumn(item_.get());
  return c ? c->TableName() : Empty();
}

const corvane::WString& CSQLSelectColumn::TableAlias() const {
  const auto* c = AsColumn(item_.get());
  return c ? c->TableAlias() : Empty();
}

const corvane::WString& CSQLSelectColumn::ColumnName() const {
  if (const auto* c = AsColumn(item_.get())) return c->ColumnName();
  if (const auto* f = AsFunction(item_.get())) return f->Name();
  return item_->Kind() == SQL_CALC_CONST ? constantText_ : Empty();  // a parameter has no name of its own
}

const corvane::WString& CSQLSelectColumn::DisplayName() const {
  if (const auto* c = AsColumn(item_.get())) return c->DisplayName();
  if (const auto* f = AsFunction(item_.get())) return f->DisplayName().empty() ? f->Name() : f->DisplayName();
  return item_->Kind() == SQL_CALC_CONST ? constantText_ : Empty();
}
