// What one parsed statement will do, worked out once: its source's catalog entry, the
// columns a consumer reads, its select list bound to that source, the WHERE comparisons
// that name the tags to read, and its row limit. The command makes the plan at Prepare
// and each Execute runs it. A plan never changes once made, so the rowsets still reading
// from one share it safely with a command that has prepared another statement since.
#pragma once
#include <memory>
#include <vector>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLQueryInfo.h"
#include "platform/WideString.h"
#include "provider/execution/SelectListProducer.h"
#include "provider/procedures/ProcedureCatalog.h"
#include "provider/tables/TableFactory.h"

struct StatementPlan {
  // A column as IColumnsInfo describes it. The name lies in a catalog entry (which lives
  // as long as the process) or in this plan.
  struct Column {
    corvane::WStringView name;
    DBTYPE wType = DBTYPE_EMPTY;
    ULONGLONG ColumnSize = 0;
    DWORD dwFlags = 0;
  };

  // Plans `query` in one walk of its trees: the highest `?` number, every function call
  // checked, the WHERE comparisons the read takes as given. A call that cannot be bound
  // fails with its own HRESULT and its message in *callMessage; otherwise Make fails only
  // for want of memory. An unknown table or procedure plans without a source, and a
  // SELECT naming a column its source lacks plans with `unknownColumn` set: Prepare
  // refuses that one, Execute reports either in its own words.
  static HRESULT Make(std::unique_ptr<CSQLQueryInfo> query, std::shared_ptr<const StatementPlan>* plan,
                      corvane::WString* callMessage);

  // The statement of `plan`, kept alive by the plan for whoever reads it after Execute.
  static std::shared_ptr<const CSQLQueryInfo> Statement(const std::shared_ptr<const StatementPlan>& plan) {
    return {plan, plan->query.get()};
  }

  std::unique_ptr<const CSQLQueryInfo> query;
  long parameterCount = 0;

  // The one FROM item and its catalog entry (null when unknown, or not exactly one item).
  const CSQLSelectItem* from = nullptr;
  const TableInfo* table = nullptr;
  const ProcedureInfo* procedure = nullptr;
  // What a SELECT reads from: the table, or the procedure seen as a table.
  const TableInfo* source = nullptr;

  // The columns a consumer reads, as IColumnsInfo describes them.
  size_t ColumnCount() const { return catalogColumns ? catalogColumns->size() : columns.size(); }
  Column ColumnAt(size_t i) const {
    if (!catalogColumns) return columns[i];
    const ColumnRecord& c = (*catalogColumns)[i];
    return {c.ColumnAlias, c.wType, c.ColumnSize, c.dwFlags};
  }
  // Where they are a catalog's as they stand (EXEC, the answer of a data change), they
  // are read from there and not copied; otherwise they are the plan's own.
  const std::vector<ColumnRecord>* catalogColumns = nullptr;
  std::vector<Column> columns;
  corvane::WString unknownColumn;  // as written, with its qualifier

  // A SELECT's select list over `source`, shaped here when nothing an execution brings
  // can change it: plain columns, or expressions without `?` (a `?` value's type can
  // change an expression's type). Each Execute then makes its outputs from the shapes;
  // otherwise it binds the list with its own values. The values themselves (`?`, NOW)
  // are always bound per execution, into the producer.
  bool outputsBound = false;
  bool plainColumnsOnly = true;
  std::vector<CSelectListProducer::Shape> shapes;

  // The WHERE comparisons a read takes its tags from, in the order written: `TAGNAME = x`
  // for the raw-data tables; any comparison of TAGNAME, or of DESCRIPTION, for TAGS. The
  // texts are read at each Execute, since x may be a `?`.
  std::vector<const CSQLConditionNode*> tagEquals;
  std::vector<const CSQLConditionNode*> tagCompared;
  std::vector<const CSQLConditionNode*> descriptionCompared;

  // ORDER BY TIMESTAMP DESC: the range is read newest first (the provider never sorts).
  bool newestFirst = false;
  // TOP / LIMIT: rows skipped, and rows served (-1 for all).
  LONGLONG skip = 0;
  LONGLONG count = -1;

  // The texts the comparisons in `nodes` give `column`, as execution `context` reads them.
  static std::vector<corvane::WString> TextsOf(const std::vector<const CSQLConditionNode*>& nodes,
                                               const OLECHAR* column, const SQLBindContext& context);
  // The distinct tag names of `tagEquals`, in the order written.
  std::vector<corvane::WString> TagNames(const SQLBindContext& context) const;

 private:
  void FindSource();
  HRESULT Walk(corvane::WString* callMessage);
  HRESULT DescribeSource();
  HRESULT DescribeSelect();
};
