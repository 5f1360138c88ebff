// A column named in a statement, optionally qualified by a table (`q.c`) and renamed by
// an alias. `*` is a column named `*`. Copies are made for ORDER BY entries and for the
// two halves of a rewritten BETWEEN.
#pragma once
#include "SQLParser/SQLCalcItem.h"

class CSQLCalcItemTableColumn : public CSQLCalcItem {
 public:
  explicit CSQLCalcItemTableColumn(corvane::WString columnName);
  CSQLCalcItemTableColumn(const CSQLCalcItemTableColumn&) = default;

  const corvane::WString& ColumnName() const { return columnName_; }
  // The alias, or the column's own name when it has none.
  const corvane::WString& DisplayName() const { return displayName_.empty() ? columnName_ : displayName_; }
  const corvane::WString& TableName() const { return tableName_; }
  const corvane::WString& TableAlias() const { return tableAlias_; }
  const corvane::WString& Catalog() const { return catalog_; }
  const corvane::WString& Schema() const { return schema_; }

  void SetDisplayName(corvane::WString name) { displayName_ = std::move(name); }
  // A qualifier names the table by alias or by name alike, so both fields take it.
  void SetTableQualifier(const corvane::WString& qualifier) {
    tableName_ = qualifier;
    tableAlias_ = qualifier;
  }
  void SetTableName(corvane::WString name) { tableName_ = std::move(name); }
  void SetTableAlias(corvane::WString alias) { tableAlias_ = std::move(alias); }
  void SetCatalog(corvane::WString catalog) { catalog_ = std::move(catalog); }
  void SetSchema(corvane::WString schema) { schema_ = std::move(schema); }

 private:
  corvane::WString columnName_;
  corvane::WString displayName_;  // empty without an alias: no second copy of the name
  corvane::WString tableName_;
  corvane::WString tableAlias_;
  corvane::WString catalog_;
  corvane::WString schema_;
};
