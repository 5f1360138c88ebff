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
  // The names are read from the item, which never changes once it is here; only a
  // constant's text is made and kept.
  const corvane::WString& Catalog() const;
  const corvane::WString& Schema() const;
  const corvane::WString& TableName() const;
  const corvane::WString& TableAlias() const;
  const corvane::WString& ColumnName() const;
  const corvane::WString& DisplayName() const;

 private:
  CSQLSelectColumn() = default;

  std::unique_ptr<CSQLCalcItem> item_;
  corvane::WString constantText_;
};
