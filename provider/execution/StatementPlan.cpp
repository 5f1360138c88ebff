#include "provider/execution/StatementPlan.h"

#include <algorithm>
#include <new>

#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/WalkStack.h"
#include "provider/execution/RowEvaluator.h"

using corvane::WString;

namespace {

// A column's name as the statement wrote it, with its qualifier.
template <typename Column>
WString WrittenName(const Column& column) {
  const WString& qualifier = column.TableAlias().empty() ? column.TableName() : column.TableAlias();
  return qualifier.empty() ? column.ColumnName() : qualifier + OLESTR(".") + column.ColumnName();
}

}  // namespace

HRESULT StatementPlan::Make(std::unique_ptr<CSQLQueryInfo> query, std::shared_ptr<const StatementPlan>* plan,
                            WString* callMessage) {
  if (!query || !plan) return E_INVALIDARG;
  try {
    auto made = std::make_shared<StatementPlan>();
    made->query = std::move(query);
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
      made->FindSource();
    }
    HRESULT hr = made->Walk(callMessage);
    if (SUCCEEDED(hr) && made->from) hr = made->DescribeSource();
    if (FAILED(hr)) return hr;
    *plan = std::move(made);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

// The catalog entry of the FROM item. An unknown table is reported (traced) only once
// the statement is known to be otherwise sound: see DescribeSource.
void StatementPlan::FindSource() {
  const int kind = query->StatementKind();
  if (from->Kind() == SQL_SELECT_ITEM_SP) {
    procedure = FindProcedure(static_cast<const CSQLSelectItemSP&>(*from).ProcedureName().c_str());
    if (procedure && kind == SQL_STATEMENT_SELECT) source = &procedure->Table;
    return;
  }
  if (kind != SQL_STATEMENT_SELECT && kind != SQL_STATEMENT_INSERT && kind != SQL_STATEMENT_UPDATE &&
      kind != SQL_STATEMENT_DELETE)
    return;
  table = CTableFactory::LookupTable(static_cast<const CSQLSelectItemTable&>(*from).TableName().c_str());
  if (kind == SQL_STATEMENT_SELECT) source = table;
}

// The one walk over every expression of the statement, without recursion (conditions
// can be long AND chains): the highest `?`, the first call that cannot be bound, and
// the WHERE comparisons a table's read takes as given, all in the order written.
HRESULT StatementPlan::Walk(WString* callMessage) {
  const GivenComparisons given = source && source == table ? source->Given : GivenComparisons::kNone;
  HRESULT badCall = S_OK;
  int highest = 0;
  // A qualifier must name the FROM item wherever a column is read, or a WHERE on X.TAGNAME
  // would quietly read, change or delete the samples of TAGNAME. The select list is left
  // to DescribeSelect, which answers it in the select list's words.
  const TableInfo* read = source ? source : (table ? table : (procedure ? &procedure->Table : nullptr));
  auto qualifier = [&](const CSQLCalcItem* next) {
    if (next->Kind() != SQL_CALC_TABLE_COLUMN || !from || !read || FAILED(badCall)) return;
    const auto& column = static_cast<const CSQLCalcItemTableColumn&>(*next);
    if (CSelectListProducer::QualifierMatches(column, *from, *read)) return;
    if (callMessage)
      *callMessage = corvane::WFormat(OLESTR("Column '%s' is not a column of %s."), WrittenName(column).c_str(),
                                      read->Name.c_str());
    badCall = E_FAIL;
  };
  CWalkStack<const CSQLCalcItem*> items;
  auto item = [&](const CSQLCalcItem* root, bool selected = false) {
    if (!root) return;
    if (root->Kind() == SQL_CALC_FUNCTION && SUCCEEDED(badCall)) badCall = CheckFunctionCalls(root, callMessage);
    items.Push(root);
    while (!items.Empty()) {
      const CSQLCalcItem* next = items.Pop();
      if (!next) continue;
      if (!selected) qualifier(next);
      if (next->Kind() == SQL_CALC_PARAMETER) {
        const int n = static_cast<const CSQLCalcItemParameter*>(next)->Number();
        if (n > highest) highest = n;
      } else if (next->Kind() == SQL_CALC_FUNCTION) {
        for (const auto& arg : static_cast<const CSQLCalcItemFunction*>(next)->Arguments()) items.Push(arg.get());
      }
    }
  };

  // Outside the select list, which DescribeSelect answers in its own words, a column
  // the source lacks fails the statement here, before anything is read or changed.
  auto known = [&](const CSQLCalcItem* root) {
    const CSQLCalcItemTableColumn* unknown =
        from && read && SUCCEEDED(badCall) ? CSelectListProducer::UnknownColumnIn(root, *from, *read) : nullptr;
    if (!unknown) return;
    if (callMessage)
      *callMessage = corvane::WFormat(OLESTR("Column '%s' is not a column of %s."), WrittenName(*unknown).c_str(),
                                      read->Name.c_str());
    badCall = E_FAIL;
  };

  const CSQLQueryInfo& q = *query;
  for (const auto& c : q.SelectColumns()) item(c->Item(), true);
  for (const auto& f : q.FromItems())
    if (f->Kind() == SQL_SELECT_ITEM_SP)
      for (const auto& p : static_cast<const CSQLSelectItemSP&>(*f).Parameters()) item(p.get());
  CWalkStack<const CSQLConditionNode*> nodes;
  if (q.Condition()) nodes.Push(q.Condition());
  while (!nodes.Empty()) {
    const CSQLConditionNode* node = nodes.Pop();
    item(node->FirstOperand());
    item(node->SecondOperand());
    // A name the source lacks must not reach the read: a table read takes TAGNAME = FOO
    // as no tag named at all and would answer every tag.
    known(node->FirstOperand());
    known(node->SecondOperand());
    const int op = node->Operator();
    if (given != GivenComparisons::kNone && op >= SQL_COND_EQUAL && op <= SQL_COND_NOT_EQUAL) {
      auto names = [node](const OLECHAR* column) {
        return IsColumnNamed(node->FirstOperand(), column) || IsColumnNamed(node->SecondOperand(), column);
      };
      if (given == GivenComparisons::kTagBrowse) {
        if (names(OLESTR("TAGNAME"))) tagCompared.push_back(node);
        if (names(OLESTR("DESCRIPTION"))) descriptionCompared.push_back(node);
      } else if (op == SQL_COND_EQUAL && names(OLESTR("TAGNAME"))) {
        tagEquals.push_back(node);
      }
    }
    // Right pushed first so that the left side is read first.
    if (node->Right()) nodes.Push(node->Right());
    if (node->Left()) nodes.Push(node->Left());
  }
  auto lists = [&](const auto& info) {
    for (const auto& c : info.Columns()) {
      item(c.get());
      known(c.get());
    }
    for (const auto& v : info.Values()) {
      item(v.get());
      known(v.get());
    }
  };
  if (q.StatementKind() == SQL_STATEMENT_INSERT) lists(static_cast<const CSQLQueryInfoINSERT&>(q));
  if (q.StatementKind() == SQL_STATEMENT_UPDATE) lists(static_cast<const CSQLQueryInfoUPDATE&>(q));
  parameterCount = highest;
  return badCall;
}

// EXEC gives every column of its procedure and a data change its one-row answer; a
// SELECT narrows its table's or procedure's columns to its select list.
HRESULT StatementPlan::DescribeSource() {
  const int kind = query->StatementKind();
  if (from->Kind() == SQL_SELECT_ITEM_SP) {
    if (!procedure) return S_OK;
    if (kind != SQL_STATEMENT_SELECT) {
      catalogColumns = &procedure->Table.Columns;
      return S_OK;
    }
    return DescribeSelect();
  }
  if (kind == SQL_STATEMENT_INSERT || kind == SQL_STATEMENT_UPDATE || kind == SQL_STATEMENT_DELETE) {
    // Every data change answers with the same one column, whatever its table.
    static const std::vector<ColumnRecord> answer = CTableFactory::ResultColumns(OLESTR(""));
    catalogColumns = &answer;
    return S_OK;
  }
  if (kind != SQL_STATEMENT_SELECT) return S_OK;
  if (!source) {
    // Looked up again only to say so in the catalog's own words.
    CTableFactory::FindTableInfo(static_cast<const CSQLSelectItemTable&>(*from).TableName().c_str());
    return S_OK;
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
    // A qualifier naming neither the FROM item nor its table is as unknown as a wrong
    // name: Prepare says so, rather than Execute failing without a reason.
    if (item && item->Kind() == SQL_CALC_TABLE_COLUMN &&
        ((column->ColumnName() != OLESTR("*") && !sourceColumn(column->ColumnName())) ||
         (query->FromItems().size() == 1 &&
          !CSelectListProducer::QualifierMatches(static_cast<const CSQLCalcItemTableColumn&>(*item),
                                                 *query->FromItems()[0], *source)))) {
      unknownColumn = WrittenName(*column);
      return S_OK;
    }
    // So is a column that an expression reads, COUNT(NOSUCHCOLUMN) as NOSUCHCOLUMN.
    if (item && item->Kind() == SQL_CALC_TABLE_COLUMN) continue;
    if (const CSQLCalcItemTableColumn* unknown = CSelectListProducer::UnknownColumnIn(item, *from, *source)) {
      unknownColumn = WrittenName(*unknown);
      return S_OK;
    }
    computed = true;
  }
  // ORDER BY only ever turns a time range around, but a name the source lacks is a
  // mistake the user should hear of rather than an ordering silently not made. A
  // select-list name (`VALUE AS V ... ORDER BY V`) is a name of the statement's own.
  for (const SQLOrderingEntry& entry : query->Ordering()) {
    const bool selectName = entry.column.TableName().empty() && entry.column.TableAlias().empty() &&
                            std::any_of(query->SelectColumns().begin(), query->SelectColumns().end(),
                                        [&entry](const auto& c) {
                                          return corvane::WIEquals(c->DisplayName(), entry.column.ColumnName());
                                        });
    if (!selectName && CSelectListProducer::UnknownColumnIn(&entry.column, *from, *source)) {
      unknownColumn = WrittenName(entry.column);
      return S_OK;
    }
  }

  // The select list shaped with every `?` still empty: where that works, its columns are
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
  if (bindable && SUCCEEDED(CSelectListProducer::DescribeOutputs(*query, *source, context, &shapes, &plainColumnsOnly))) {
    columns.reserve(shapes.size());
    for (const auto& s : shapes) {
      if (s.expression) {
        columns.push_back({s.alias, s.wType, s.ColumnSize, 0});
        continue;
      }
      const ColumnRecord& c = source->Columns[s.sourceField];
      columns.push_back({s.alias.empty() ? corvane::WStringView(c.ColumnAlias) : s.alias, c.wType, c.ColumnSize, 0});
    }
    outputsBound = plainColumnsOnly || parameterCount == 0;
    if (!outputsBound) shapes.clear();
    return S_OK;
  }
  shapes.clear();
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
