// Turns the rows of a table into the rows of a SELECT list: plain columns are copied,
// expressions (bound once, to the table's fields) are evaluated once for every row,
// aggregates fold every row of the read into one row, and a TOP / LIMIT skips and
// counts rows. It sits between the table and the data store, so rows still stream:
// nothing is held beyond what the table hands over in one fetch. A function that fails
// on a row ends the fetch that reaches it with its HRESULT and message; the rows before
// it are delivered first.
#pragma once
#include <memory>
#include <vector>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLQueryInfo.h"
#include "provider/execution/RowEvaluator.h"
#include "provider/store/DataProvider.h"
#include "provider/tables/TableFactory.h"

class CSQLFunctionAggregate;

class CSelectListProducer final : public CDataProvider {
 public:
  // One output column: a field of the table's record, or an expression.
  struct Output {
    ColumnRecord column;                     // what the consumer sees (ordinal = position)
    size_t sourceField = static_cast<size_t>(-1);  // table field, for plain columns
    const CSQLCalcItem* expression = nullptr;       // owned by the statement
    bool aggregate = false;
  };

  // One output column as the select list shapes it, naming what it shows rather than
  // copying it: the table field, or the expression with the type its result has.
  struct Shape {
    size_t sourceField = static_cast<size_t>(-1);   // table field, for plain columns
    const CSQLCalcItem* expression = nullptr;        // owned by the statement
    const CSQLSelectColumn* selected = nullptr;      // the select item (null for the fields of `*`)
    corvane::WStringView alias;                      // the statement's rename, or empty
    bool aggregate = false;
    DBTYPE wType = DBTYPE_VARIANT;                   // for expressions
    ULONGLONG ColumnSize = sizeof(VARIANT);          // for expressions
  };

  // Whether `column`'s qualifier, if it has one, names `from` (by alias, table or
  // procedure name) or `table`: anything else is an unknown column.
  static bool QualifierMatches(const CSQLCalcItemTableColumn& column, const CSQLSelectItem& from,
                               const TableInfo& table);

  // The first column `item` reads that `table` lacks (`*` is none) or whose qualifier
  // fails QualifierMatches, or null.
  static const CSQLCalcItemTableColumn* UnknownColumnIn(const CSQLCalcItem* item, const CSQLSelectItem& from,
                                                        const TableInfo& table);

  // The shapes behind BindOutputs: the same checks, failures and order, without a
  // column record per output. `alias` points into the statement.
  static HRESULT DescribeOutputs(const CSQLQueryInfo& query, const TableInfo& table, const SQLBindContext& context,
                                 std::vector<Shape>* shapes, bool* plainColumnsOnly);

  // Builds the outputs of `query`'s select list over `table` (its catalog entry):
  // `*` gives every column in catalog order, a column (with or without the FROM item's
  // name or alias as qualifier, any case) its catalog column under its display name,
  // anything else an expression column typed by its result. E_FAIL with the trace
  // "Unable to initialize output columns. Please, check the column names." for an
  // unknown column; a binding failure (unknown function, bad argument count, missing
  // `?` value) as it is, with its message in *message when there is one.
  static HRESULT BindOutputs(const CSQLQueryInfo& query, const TableInfo& table, const SQLBindContext& context,
                             std::vector<Output>* outputs, bool* plainColumnsOnly, corvane::WString* message = nullptr);

  // The outputs of `shapes` over `table`, as BindOutputs gives them (may throw
  // std::bad_alloc).
  static void MakeOutputs(const std::vector<Shape>& shapes, const TableInfo& table, std::vector<Output>* outputs);

  // `statement` is the query the outputs point into; it is kept alive with the producer.
  CSelectListProducer(std::unique_ptr<CDataProvider> source, const TableInfo& table, std::vector<Output> outputs,
                      std::shared_ptr<const CSQLQueryInfo> statement, LONGLONG skip, LONGLONG count);
  ~CSelectListProducer() override;

  // Binds every expression once, with the `?` values and reference times of `context`
  // (copied into the bound expressions). Required before the first fetch.
  HRESULT Bind(const SQLBindContext& context, corvane::WString* message);

  HRESULT FetchRows(ProducedRecordList& rows, size_t wanted) override;
  BOOL IsDataPending() override;
  HRESULT GetColumns(std::vector<ColumnRecord>& columns) override;
  corvane::WString FailureMessage() override;

 private:
  HRESULT MapRecord(const ProducedRecord& in, ProducedRecord* out);
  HRESULT Aggregate(ProducedRecordList& rows);
  HRESULT Fail(HRESULT hr, const corvane::WString& message);

  std::unique_ptr<CDataProvider> m_pSource;
  TableInfo m_Table;
  std::vector<Output> m_Outputs;
  std::shared_ptr<const CSQLQueryInfo> m_pStatement;
  // Per output: its bound expression (for an aggregate, the bound argument), or null.
  std::vector<std::unique_ptr<CRowExpression>> m_Expressions;
  std::vector<std::unique_ptr<CSQLCalcItem>> m_Aggregates;  // bound aggregate functions
  HRESULT m_hrFailure = S_OK;
  corvane::WString m_FailureMessage;
  LONGLONG m_Skip;
  LONGLONG m_Count;  // < 0: no limit
  LONGLONG m_Skipped = 0;
  LONGLONG m_Emitted = 0;
  bool m_bAggregate = false;
  bool m_bDone = false;
  ProducedRecordList m_Incoming;
};
