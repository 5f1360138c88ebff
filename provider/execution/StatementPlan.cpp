#include "provider/execution/StatementPlan.h"

#include <new>

#include "SQLParser/SQLCalcItemTableColumn.h"
#include "provider/execution/RowEvaluator.h"

using corvane::WString;

HRESULT StatementPlan::Make(std::shared_ptr<const CSQLQueryInfo> query, long parameterCount,
                            std::shared_ptr<const StatementPlan>* plan) {
  if (!query || !plan) return E_INVALIDARG;
  try {
    auto made = std::make_shared<StatementPlan>();
    made->query = std::move(query);
    made->parameterCount = parameterCount;
    const CSQLQueryInfo& q = *made->query;
    if (q.RowLimitEnabled()) {
      made->skip = q.RowLimitSkip();
      made->count = q.RowLimitCount();
    }
    for (const SQLOrderingEntry& entry : q.Ordering())
      if (entry.descending && corvane::WIEquals(entry.column.ColumnName(), OLESTR("TIMESTAMP")))
        made->newestFirst = !made->newestFirst;
    if (q.FromItems().size() == 1) {
      made->from = q.FromItems().front().get();
      const HRESULT hr = made->DescribeSource();
      if (FAILED(hr)) return hr;
    }
    *plan = std::move(made);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

// EXEC gives every column of its procedure and a data change its one-row answer; a
// SELECT narrows its table's or procedure's columns to its select list.
HRESULT StatementPlan::DescribeSource() {
  const int kind = query->StatementKind();
  if (from->Kind() == SQL_SELECT_ITEM_SP) {
    procedure = FindProcedure(static_cast<const CSQLSelectItemSP&>(*from).ProcedureName().c_str());
    if (!procedure) return S_OK;
    if (kind != SQL_STATEMENT_SELECT) {
      columns.reserve(procedure->Columns.size());
      for (const auto& c : procedure->Columns) columns.push_back({c.Name, c.wType, c.ColumnSize, c.dwFlags});
      return S_OK;
    }
    source = &procedure->Table;
  } else {
    const WString& name = static_cast<const CSQLSelectItemTable&>(*from).TableName();
    if (kind == SQL_STATEMENT_INSERT || kind == SQL_STATEMENT_UPDATE || kind == SQL_STATEMENT_DELETE) {
      table = CTableFactory::LookupTable(name.c_str());
      resultColumns = CTableFactory::ResultColumns(name.c_str());
      for (const auto& c : resultColumns) columns.push_back({c.ColumnAlias, c.wType, c.ColumnSize, c.dwFlags});
      return S_OK;
    }
    if (kind != SQL_STATEMENT_SELECT) return S_OK;
    table = source = CTableFactory::FindTableInfo(name.c_str());
    if (!source) return S_OK;
    FindTagComparisons();
  }
  return DescribeSelect();
}

HRESULT StatementPlan::DescribeSelect() {
  auto sourceColumn = [this](const WString& name) -> const ColumnRecord* {
    for (const auto& c : source->Columns)
      if (corvane::WIEquals(c.ColumnName, name) || corvane::WIEquals(c.ColumnAlias, name)) return &c;
    return nullptr;
  };
  bool computed = false;
  for (const auto& column : query->SelectColumns()) {
    const CSQLCalcItem* item = column->Item();
    if (item && item->Kind() == SQL_CALC_TABLE_COLUMN && column->ColumnName() != OLESTR("*") &&
        !sourceColumn(column->ColumnName())) {
      unknownColumn = column.get();
      return S_OK;
    }
    if (!item || item->Kind() != SQL_CALC_TABLE_COLUMN) computed = true;
  }

  // The select list bound with every `?` still empty: where that works, its columns are
  // exactly the ones the rowset will have. Only computed items read the binding, so
  // plain columns need no clock and no `?` values.
  std::vector<VARIANT> unset;
  SQLBindContext context;
  bool bindable = true;
  if (computed) {
    unset.resize(static_cast<size_t>(parameterCount > 0 ? parameterCount : 0));
    for (auto& v : unset) VariantInit(&v);
    context.parameters = unset.data();
    context.parameterCount = unset.size();
    bindable = SUCCEEDED(SetReferenceTimesToNow(&context));
  }
  if (bindable && SUCCEEDED(CSelectListProducer::BindOutputs(*query, *source, context, &outputs, &plainColumnsOnly))) {
    columns.reserve(outputs.size());
    for (const auto& o : outputs) columns.push_back({o.column.ColumnAlias, o.column.wType, o.column.ColumnSize, 0});
    outputsBound = plainColumnsOnly || parameterCount == 0;
    return S_OK;
  }
  outputs.clear();

  // Where it does not, named columns as the catalog has them and a computed item as a
  // VARIANT until execution can type it.
  for (const auto& column : query->SelectColumns()) {
    const CSQLCalcItem* item = column->Item();
    if (item && item->Kind() == SQL_CALC_TABLE_COLUMN) {
      if (column->ColumnName() == OLESTR("*")) {
        for (const auto& c : source->Columns) columns.push_back({c.ColumnAlias, c.wType, c.ColumnSize, c.dwFlags});
        continue;
      }
      const ColumnRecord& c = *sourceColumn(column->ColumnName());
      columns.push_back({column->DisplayName().empty() ? corvane::WStringView(c.ColumnAlias)
                                                       : corvane::WStringView(column->DisplayName()),
                         c.wType, c.ColumnSize, c.dwFlags});
      continue;
    }
    columns.push_back({column->DisplayName().empty() ? column->ColumnName() : column->DisplayName(), DBTYPE_VARIANT,
                       sizeof(VARIANT), static_cast<DWORD>(DBCOLUMNFLAGS_ISNULLABLE | DBCOLUMNFLAGS_MAYBENULL)});
  }
  return S_OK;
}

// One walk of the WHERE tree, for every comparison the table's read takes as given.
void StatementPlan::FindTagComparisons() {
  if (source->Given == GivenComparisons::kNone) return;
  const bool browse = source->Given == GivenComparisons::kTagBrowse;
  std::vector<const CSQLConditionNode*> pending;
  if (query->Condition()) pending.push_back(query->Condition());
  while (!pending.empty()) {
    const CSQLConditionNode* node = pending.back();
    pending.pop_back();
    const int op = node->Operator();
    if (op >= SQL_COND_EQUAL && op <= SQL_COND_NOT_EQUAL) {
      auto names = [node](const OLECHAR* column) {
        return IsColumnNamed(node->FirstOperand(), column) || IsColumnNamed(node->SecondOperand(), column);
      };
      if (browse) {
        if (names(OLESTR("TAGNAME"))) tagCompared.push_back(node);
        if (names(OLESTR("DESCRIPTION"))) descriptionCompared.push_back(node);
      } else if (op == SQL_COND_EQUAL && names(OLESTR("TAGNAME"))) {
        tagEquals.push_back(node);
      }
    }
    // Right pushed first so that the left side is read first.
    if (node->Right()) pending.push_back(node->Right());
    if (node->Left()) pending.push_back(node->Left());
  }
}

std::vector<WString> StatementPlan::TextsOf(const std::vector<const CSQLConditionNode*>& nodes, const OLECHAR* column,
                                            const SQLBindContext& context) {
  std::vector<WString> texts;
  for (const CSQLConditionNode* node : nodes) {
    WString text;
    if (IsColumnNamed(node->FirstOperand(), column) && ComparedText(node->SecondOperand(), context, &text))
      texts.push_back(std::move(text));
    else if (IsColumnNamed(node->SecondOperand(), column) && ComparedText(node->FirstOperand(), context, &text))
      texts.push_back(std::move(text));
  }
  return texts;
}

std::vector<WString> StatementPlan::TagNames(const SQLBindContext& context) const {
  std::vector<WString> unique;
  for (WString& name : TextsOf(tagEquals, OLESTR("TAGNAME"), context)) {
    bool seen = false;
    for (const WString& u : unique) seen = seen || u == name;
    if (!seen) unique.push_back(std::move(name));
  }
  return unique;
}
