// The parsed form of one SQL command: what the syntax parser builds and execution reads.
// One subclass per statement kind; the base holds what every kind may have (row limit,
// select list, FROM items, WHERE tree, ordering).
#pragma once
#include <memory>
#include <vector>

#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLConditionNode.h"
#include "SQLParser/SQLSelectColumn.h"
#include "SQLParser/SQLSelectItem.h"

enum SQLStatementKind : int {
  SQL_STATEMENT_NONE = -1,  // after Clear
  SQL_STATEMENT_SELECT = 1,
  SQL_STATEMENT_INSERT = 2,
  SQL_STATEMENT_UPDATE = 3,
  SQL_STATEMENT_DELETE = 4,
  SQL_STATEMENT_SP = 5,
};

struct SQLOrderingEntry {
  CSQLCalcItemTableColumn column;
  int descending;  // 1 for DESC, 0 otherwise
};

class CSQLQueryInfo {
 public:
  virtual ~CSQLQueryInfo();
  CSQLQueryInfo(const CSQLQueryInfo&) = delete;
  CSQLQueryInfo& operator=(const CSQLQueryInfo&) = delete;

  // Statement kind -1; select columns, FROM items, condition and ordering emptied.
  virtual void Clear();

  int StatementKind() const { return statementKind_; }

  int RowLimitEnabled() const { return rowLimitEnabled_; }
  int RowLimitSkip() const { return rowLimitSkip_; }
  int RowLimitCount() const { return rowLimitCount_; }
  // TOP n and LIMIT n share this one limit; the later call wins.
  void SetRowLimit(int skip, int count) {
    rowLimitEnabled_ = 1;
    rowLimitSkip_ = skip;
    rowLimitCount_ = count;
  }

  const std::vector<std::unique_ptr<CSQLSelectColumn>>& SelectColumns() const { return selectColumns_; }
  const std::vector<std::unique_ptr<CSQLSelectItem>>& FromItems() const { return fromItems_; }
  const CSQLConditionNode* Condition() const { return condition_.get(); }
  const std::vector<SQLOrderingEntry>& Ordering() const { return ordering_; }

  HRESULT AddFromItem(std::unique_ptr<CSQLSelectItem> item);
  // Room for `count` more select columns, so that adding them does not grow the list
  // one at a time. May throw std::bad_alloc.
  void ReserveSelectColumns(size_t count) { selectColumns_.reserve(selectColumns_.size() + count); }
  HRESULT AddSelectColumn(std::unique_ptr<CSQLCalcItem> item);
  HRESULT AddOrdering(const CSQLCalcItemTableColumn& column, int descending);
  // Replaces, and destroys, any previous condition; null removes it.
  void SetCondition(std::unique_ptr<CSQLConditionNode> condition) { condition_ = std::move(condition); }

 protected:
  explicit CSQLQueryInfo(int statementKind) : statementKind_(statementKind) {}

 private:
  int statementKind_;
  int rowLimitEnabled_ = 0;
  int rowLimitSkip_ = 0;
  int rowLimitCount_ = 0;
  std::vector<std::unique_ptr<CSQLSelectColumn>> selectColumns_;
  std::vector<std::unique_ptr<CSQLSelectItem>> fromItems_;
  std::unique_ptr<CSQLConditionNode> condition_;
  std::vector<SQLOrderingEntry> ordering_;
};

class CSQLQueryInfoSELECT : public CSQLQueryInfo {
 public:
  CSQLQueryInfoSELECT() : CSQLQueryInfo(SQL_STATEMENT_SELECT) {}

  // 1 when a select item calls SUM, AVG, MIN, MAX or COUNT.
  int Aggregate() const { return aggregate_; }
  void SetAggregate(int aggregate) { aggregate_ = aggregate; }

 private:
  int aggregate_ = 0;
};

// INSERT's column and value lists, and UPDATE's SET pairs, pair up by position.
class CSQLQueryInfoINSERT : public CSQLQueryInfo {
 public:
  CSQLQueryInfoINSERT() : CSQLQueryInfo(SQL_STATEMENT_INSERT) {}
  void Clear() override;
  // Room for `count` more column and value pairs. May throw std::bad_alloc.
  void Reserve(size_t count) {
    columns_.reserve(columns_.size() + count);
    values_.reserve(values_.size() + count);
  }

  const std::vector<std::unique_ptr<CSQLCalcItem>>& Columns() const { return columns_; }
  const std::vector<std::unique_ptr<CSQLCalcItem>>& Values() const { return values_; }
  HRESULT AddColumn(std::unique_ptr<CSQLCalcItem> item);
  HRESULT AddValue(std::unique_ptr<CSQLCalcItem> item);

 private:
  std::vector<std::unique_ptr<CSQLCalcItem>> columns_;
  std::vector<std::unique_ptr<CSQLCalcItem>> values_;
};

class CSQLQueryInfoUPDATE : public CSQLQueryInfo {
 public:
  CSQLQueryInfoUPDATE() : CSQLQueryInfo(SQL_STATEMENT_UPDATE) {}
  void Clear() override;
  // Room for `count` more column and value pairs. May throw std::bad_alloc.
  void Reserve(size_t count) {
    columns_.reserve(columns_.size() + count);
    values_.reserve(values_.size() + count);
  }

  const std::vector<std::unique_ptr<CSQLCalcItem>>& Columns() const { return columns_; }
  const std::vector<std::unique_ptr<CSQLCalcItem>>& Values() const { return values_; }
  HRESULT AddColumn(std::unique_ptr<CSQLCalcItem> item);
  HRESULT AddValue(std::unique_ptr<CSQLCalcItem> item);

 private:
  std::vector<std::unique_ptr<CSQLCalcItem>> columns_;
  std::vector<std::unique_ptr<CSQLCalcItem>> values_;
};

class CSQLQueryInfoDELETE : public CSQLQueryInfo {
 public:
  CSQLQueryInfoDELETE() : CSQLQueryInfo(SQL_STATEMENT_DELETE) {}
};

// A stored-procedure call; the procedure and its parameters are the one FROM item.
class CSQLQueryInfoSP : public CSQLQueryInfo {
 public:
  CSQLQueryInfoSP() : CSQLQueryInfo(SQL_STATEMENT_SP) {}
};
