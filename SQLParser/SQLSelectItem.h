// The FROM items of a statement: a table (with its alias) or a stored procedure (with
// its parameters). Names are kept as written; catalogs resolve them at execution.
#pragma once
#include <memory>
#include <vector>

#include "SQLParser/SQLCalcItem.h"

enum SQLSelectItemKind : int {
  SQL_SELECT_ITEM_TABLE = 1,
  SQL_SELECT_ITEM_SP = 2,
};

class CSQLSelectItem {
 public:
  virtual ~CSQLSelectItem() = default;
  CSQLSelectItem(const CSQLSelectItem&) = delete;
  CSQLSelectItem& operator=(const CSQLSelectItem&) = delete;

  int Kind() const { return kind_; }
  const corvane::WString& Catalog() const { return catalog_; }
  const corvane::WString& Schema() const { return schema_; }
  void SetCatalog(corvane::WString catalog) { catalog_ = std::move(catalog); }
  void SetSchema(corvane::WString schema) { schema_ = std::move(schema); }

 protected:
  explicit CSQLSelectItem(int kind) : kind_(kind) {}

 private:
  int kind_;
  corvane::WString catalog_;
  corvane::WString schema_;
};

class CSQLSelectItemTable : public CSQLSelectItem {
 public:
  CSQLSelectItemTable() : CSQLSelectItem(SQL_SELECT_ITEM_TABLE) {}

  const corvane::WString& TableName() const { return tableName_; }
  // The table name when none was written (kept as one string, not two).
  const corvane::WString& Alias() const { return alias_.empty() ? tableName_ : alias_; }
  void SetTableName(corvane::WString name) { tableName_ = std::move(name); }
  void SetAlias(corvane::WString alias) { alias_ = std::move(alias); }

 private:
  corvane::WString tableName_;
  corvane::WString alias_;
};

class CSQLSelectItemSP : public CSQLSelectItem {
 public:
  CSQLSelectItemSP() : CSQLSelectItem(SQL_SELECT_ITEM_SP) {}

  const corvane::WString& ProcedureName() const { return procedureName_; }
  void SetProcedureName(corvane::WString name) { procedureName_ = std::move(name); }

  const std::vector<std::unique_ptr<CSQLCalcItem>>& Parameters() const { return parameters_; }
  // Appends the items in order, taking them out of `parameters`.
  HRESULT SetParameters(std::vector<std::unique_ptr<CSQLCalcItem>>& parameters);

 private:
  corvane::WString procedureName_;
  std::vector<std::unique_ptr<CSQLCalcItem>> parameters_;
};
