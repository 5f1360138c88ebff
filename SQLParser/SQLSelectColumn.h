// One item of a SELECT list with the names that the result column is built from: where
// the value comes from (catalog, schema, table, column) and what the column is called.
#pragma once
#include <memory>

#include "SQLParser/SQLCalcItem.h"

class CSQLSelectColumn {
 public:
  // Takes the item and fills the names from it: a table column gives its qualifier,
  // name and alias; a function gives its name (the alias, if any, is the display name);
  // a constant gives its value as text for both names.
  static HRESULT Create(std::unique_ptr<CSQLCalcItem> item, std::unique_ptr<CSQLSelectColumn>* column);

  const CSQLCalcItem* Item() const { return item_.get(); }
  const corvane::WString& Catalog() const { return catalog_; }
  const corvane::WString& Schema() const { return schema_; }
  const corvane::WString& TableName() const { return tableName_; }
  const corvane::WString& TableAlias() const { return tableAlias_; }
  const corvane::WString& ColumnName() const { return columnName_; }
  const corvane::WString& DisplayName() const { return displayName_; }

 private:
  CSQLSelectColumn() = default;

  std::unique_ptr<CSQLCalcItem> item_;
  corvane::WString catalog_;
  corvane::WString schema_;
  corvane::WString tableName_;
  corvane::WString tableAlias_;
  corvane::WString columnName_;
  corvane::WString displayName_;
};
