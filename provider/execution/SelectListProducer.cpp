#include "provider/execution/SelectListProducer.h"

#include <new>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLFunctionAggregate.h"
#include "SQLParser/TimeConversion.h"
#include "base/Trace.h"

namespace {

constexpr size_t kNoField = static_cast<size_t>(-1);
constexpr size_t kAggregateBatch = 4096;

bool IsStar(const CSQLCalcItem* item) {
  return item && item->Kind() == SQL_CALC_TABLE_COLUMN &&
         static_cast<const CSQLCalcItemTableColumn*>(item)->ColumnName() == OLESTR("*");
}

size_t FieldOf(const TableInfo& table, const corvane::WString& name) {
  // Lengths first: a statement's columns are looked up here at every Prepare.
  for (size_t i = 0; i < table.Columns.size(); ++i)
    if (table.Columns[i].ColumnName.size() == name.size() && corvane::WIEquals(table.Columns[i].ColumnName, name))
      return i;
  return kNoField;
}


// A constant holding an evaluation result, as an aggregate is fed one per row.
HRESULT ConstOf(SQLEvaluationResult& result, std::unique_ptr<CSQLCalcItem>* out) {
  std::unique_ptr<CSQLCalcItemConst> c(new (std::nothrow) CSQLCalcItemConst());
  if (!c) return E_OUTOFMEMORY;
  if (result.kind == SQLEvaluationResult::kTime) {
    c->SetTime(result.time);
  } else {
    VARIANT null;
    VariantInit(&null);
    V_VT(&null) = VT_NULL;
    const HRESULT hr = c->SetValue(result.kind == SQLEvaluationResult::kValue ? result.value : null);
    if (FAILED(hr)) return hr;
  }
  *out = std::move(c);
  return S_OK;
}

// The argument's value for `row` fed to the aggregate (1 for an argument-less call).
// A value the aggregate cannot read fails it, and the statement with it.
HRESULT FeedAggregate(CSQLFunctionAggregate& aggregate, CRowExpression* argument, const ProducedRecord& row,
                      corvane::WString* message) {
  SQLEvaluationResult value;
  if (argument) {
    const HRESULT hr = argument->Evaluate(row, &value);
    if (FAILED(hr)) {
      *message = argument->Message();
      return hr;
    }
  } else {
    value.kind = SQLEvaluationResult::kValue;
    V_VT(&value.value) = VT_I8;
    V_I8(&value.value) = 1;
  }
  // Aggregates leave nulls out, as SQL's do.
  if (value.kind == SQLEvaluationResult::kNone || V_VT(&value.value) == VT_NULL) return S_OK;
  std::unique_ptr<CSQLCalcItem> fed;
  HRESULT hr = ConstOf(value, &fed);
  if (SUCCEEDED(hr)) hr = aggregate.Feed(std::move(fed));
  return hr;
}

// Binds an aggregate call: the function itself, and its argument over the table's fields.
HRESULT BindAggregate(const CSQLCalcItem* call, const TableInfo& table, const SQLBindContext& context,
                      std::unique_ptr<CSQLCalcItem>* function, std::unique_ptr<CRowExpression>* argument,
                      corvane::WString* message) {
  HRESULT hr = Bind(call, context, function, message);
  if (FAILED(hr)) return hr;
  const CSQLCalcItem* written = static_cast<const CSQLCalcItemFunction*>(call)->Argument(0);
  argument->reset();
  if (!written) return S_OK;
  return CRowExpression::Create(written, table.Columns, table.Name, context, argument, message);
}

// A row of typical values, from which an expression's result type is learnt before
// any row is read.
ProducedRecord SampleRow(const TableInfo& table) {
  ProducedRecord row(table.Columns.size());
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  for (size_t i = 0; i < table.Columns.size(); ++i) {
    StoreValue& cell = row[i];
    const DBTYPE type = table.Columns[i].wType;
    if (type == DBTYPE_DBTIMESTAMP) {
      cell = StoreValue::FromTime(now);
      continue;
    }
    cell.Kind = StoreValue::kVariant;
    switch (type) {
      case DBTYPE_WSTR:
        V_VT(&cell.Value) = VT_BSTR;
        V_BSTR(&cell.Value) = SysAllocString(OLESTR("A"));
        break;
      case DBTYPE_VARIANT:
        V_VT(&cell.Value) = VT_R8;
        V_R8(&cell.Value) = 0;
        break;
      default:
        V_VT(&cell.Value) = static_cast<VARTYPE>(type);
        V_I8(&cell.Value) = 0;
        break;
    }
  }
  return row;
}

void SetOutputType(const SQLEvaluationResult& result, DBTYPE* type, ULONGLONG* size) {
  *type = DBTYPE_VARIANT;
  *size = sizeof(VARIANT);
  if (result.kind == SQLEvaluationResult::kTime) {
    *type = DBTYPE_DBTIMESTAMP;
    *size = 16;
    return;
  }
  if (result.kind != SQLEvaluationResult::kValue) return;
  switch (V_VT(&result.value)) {
    case VT_BSTR:
      *type = DBTYPE_WSTR;
      *size = 4096;
      break;
    case VT_DATE:
      *type = DBTYPE_DBTIMESTAMP;
      *size = 16;
      break;
    case VT_I1: case VT_UI1: *type = V_VT(&result.value); *size = 1; break;
    case VT_I2: case VT_UI2: case VT_BOOL: *type = V_VT(&result.value); *size = 2; break;
    case VT_I4: case VT_UI4: case VT_R4: *type = V_VT(&result.value); *size = 4; break;
    case VT_I8: case VT_UI8: case VT_R8: *type = V_VT(&result.value); *size = 8; break;
    default: break;
  }
}

// The evaluation result as a cell of the column's type; a value that does not fit
// becomes a null cell rather than failing the row.
StoreValue ResultToCell(SQLEvaluationResult& result, DBTYPE type) {
  StoreValue cell;
  if (result.kind == SQLEvaluationResult::kNone) return cell;
  if (type == DBTYPE_DBTIMESTAMP) {
    ULONG64 ticks = 0;
    if (SUCCEEDED(ResultToTime(result, &ticks))) cell = StoreValue::FromTime(corvane::TicksToFileTime(ticks));
    return cell;
  }
  VARIANT v;
  VariantInit(&v);
  if (result.kind == SQLEvaluationResult::kTime) {
    DATE date = 0;
    if (FAILED(corvane::FileTimeToDate(result.time, &date))) return cell;
    V_VT(&v) = VT_DATE;
    V_DATE(&v) = date;
  } else {
    v = result.value;
    VariantInit(&result.value);
  }
  if (type != DBTYPE_VARIANT) {
    const VARTYPE vt = type == DBTYPE_WSTR ? static_cast<VARTYPE>(VT_BSTR) : static_cast<VARTYPE>(type);
    if (V_VT(&v) != vt && FAILED(VariantChangeType(&v, &v, 0, vt))) {
      VariantClear(&v);
      return cell;
    }
  }
  return StoreValue::TakeVariant(&v);
}

HRESULT TraceUnknownColumn() {
  CVTRACE(TRACE_ERROR, OLESTR("Unable to initialize output columns. Please, check the column names."));
  return E_FAIL;
}

}  // namespace

// Every column an expression reads must be one of the table's (`*` counts rows), under
// a qualifier that names the FROM item if it has one.
const CSQLCalcItemTableColumn* CSelectListProducer::UnknownColumnIn(const CSQLCalcItem* item,
                                                                     const CSQLSelectItem& from,
                                                                     const TableInfo& table) {
  if (!item) return nullptr;
  if (item->Kind() == SQL_CALC_TABLE_COLUMN) {
    const auto* column = static_cast<const CSQLCalcItemTableColumn*>(item);
    const bool known = IsStar(item) || FieldOf(table, column->ColumnName()) != kNoField;
    return known && QualifierMatches(*column, from, table) ? nullptr : column;
  }
  if (item->Kind() == SQL_CALC_FUNCTION) {
    for (const auto& a : static_cast<const CSQLCalcItemFunction*>(item)->Arguments())
      if (const CSQLCalcItemTableColumn* unknown = UnknownColumnIn(a.get(), from, table)) return unknown;
  }
  return nullptr;
}

// A qualifier must name the FROM item: by alias, by table or procedure name, or by
// RAWDATA for the typed tables, whose columns are RAWDATA's.
bool CSelectListProducer::QualifierMatches(const CSQLCalcItemTableColumn& column, const CSQLSelectItem& from,
                                           const TableInfo& table) {
  const corvane::WString& q = column.TableAlias().empty() ? column.TableName() : column.TableAlias();
  if (q.empty()) return true;
  if (from.Kind() == SQL_SELECT_ITEM_TABLE) {
    const auto& t = static_cast<const CSQLSelectItemTable&>(from);
    if (corvane::WIEquals(q, t.Alias()) || corvane::WIEquals(q, t.TableName())) return true;
  } else if (corvane::WIEquals(q, static_cast<const CSQLSelectItemSP&>(from).ProcedureName())) {
    return true;
  }
  return corvane::WIEquals(q, table.Name) ||
         (!table.Columns.empty() && corvane::WIEquals(q, table.Columns[0].TableName));
}

HRESULT CSelectListProducer::DescribeOutputs(const CSQLQueryInfo& query, const TableInfo& table,
                                             const SQLBindContext& context, std::vector<Shape>* shapes,
                                             bool* plainColumnsOnly) {
  if (!shapes || !plainColumnsOnly || query.FromItems().size() != 1) return E_INVALIDARG;
  const CSQLSelectItem& from = *query.FromItems()[0];
  shapes->clear();
  size_t wanted = 0;
  for (const auto& selected : query.SelectColumns()) wanted += IsStar(selected->Item()) ? table.Columns.size() : 1;
  shapes->reserve(wanted);
  *plainColumnsOnly = true;
  // Only expressions are tried on a sample row; a list of plain columns never needs one.
  ProducedRecord sample;
  bool sampled = false;
  corvane::WString ignored;
  for (const auto& selected : query.SelectColumns()) {
    const CSQLCalcItem* item = selected->Item();
    if (!item) return TraceUnknownColumn();
    if (item->Kind() == SQL_CALC_TABLE_COLUMN) {
      const auto& column = static_cast<const CSQLCalcItemTableColumn&>(*item);
      if (!QualifierMatches(column, from, table)) return TraceUnknownColumn();
      if (IsStar(item)) {
        for (size_t i = 0; i < table.Columns.size(); ++i) {
          Shape s;
          s.sourceField = i;
          shapes->push_back(s);
        }
        continue;
      }
      const size_t field = FieldOf(table, column.ColumnName());
      if (field == kNoField) return TraceUnknownColumn();
      Shape s;
      s.sourceField = field;
      s.selected = selected.get();
      // Shown as the catalog spells it unless the statement renamed it.
      const corvane::WString& shown = selected->DisplayName();
      if (!shown.empty() && !corvane::WIEquals(shown, column.ColumnName())) s.alias = shown;
      shapes->push_back(s);
      continue;
    }

    if (UnknownColumnIn(item, from, table)) return TraceUnknownColumn();
    *plainColumnsOnly = false;
    std::unique_ptr<CSQLCalcItem> bound;
    HRESULT hr = ::Bind(item, context, &bound);
    if (FAILED(hr)) return hr;
    if (!sampled) {
      sample = SampleRow(table);
      sampled = true;
    }
    Shape s;
    s.expression = item;
    s.selected = selected.get();
    s.aggregate = dynamic_cast<CSQLFunctionAggregate*>(bound.get()) != nullptr;
    s.alias = selected->DisplayName().empty() ? selected->ColumnName() : selected->DisplayName();
    // The type is that of the result over one row of typical values (for an aggregate,
    // over that one row); what cannot be evaluated on it stays a VARIANT.
    SQLEvaluationResult result;
    if (s.aggregate) {
      std::unique_ptr<CSQLCalcItem> function;
      std::unique_ptr<CRowExpression> argument;
      if (SUCCEEDED(BindAggregate(item, table, context, &function, &argument, &ignored))) {
        auto& aggregate = static_cast<CSQLFunctionAggregate&>(*function);
        if (SUCCEEDED(FeedAggregate(aggregate, argument.get(), sample, &ignored)) && SUCCEEDED(aggregate.Evaluate()))
          aggregate.CopyResult(&result);
      }
    } else {
      std::unique_ptr<CRowExpression> expression;
      if (FAILED(CRowExpression::Create(item, table.Columns, table.Name, context, &expression, &ignored)) ||
          FAILED(expression->Evaluate(sample, &result)))
        result.Reset();
    }
    SetOutputType(result, &s.wType, &s.ColumnSize);
    shapes->push_back(s);
  }
  return S_OK;
}

HRESULT CSelectListProducer::BindOutputs(const CSQLQueryInfo& query, const TableInfo& table,
                                         const SQLBindContext& context, std::vector<Output>* outputs,
                                         bool* plainColumnsOnly, corvane::WString* message) {
  if (!outputs || !plainColumnsOnly || query.FromItems().size() != 1) return E_INVALIDARG;
  outputs->clear();
  // A call that cannot be bound is named by its own message, not by the generic one.
  for (const auto& selected : query.SelectColumns()) {
    corvane::WString text;
    const HRESULT checked = CheckFunctionCalls(selected->Item(), &text);
    if (FAILED(checked)) {
      if (message) *message = text;
      return checked;
    }
  }
  std::vector<Shape> shapes;
  HRESULT hr = DescribeOutputs(query, table, context, &shapes, plainColumnsOnly);
  if (FAILED(hr)) return hr;
  MakeOutputs(shapes, table, outputs);
  return S_OK;
}

void CSelectListProducer::MakeOutputs(const std::vector<Shape>& shapes, const TableInfo& table,
                                      std::vector<Output>* outputs) {
  outputs->clear();
  outputs->reserve(shapes.size());
  for (const Shape& s : shapes) {
    Output o;
    if (s.expression) {
      o.expression = s.expression;
      o.aggregate = s.aggregate;
      o.column.ColumnName.assign(s.alias.data(), s.alias.size());
      o.column.ColumnAlias = o.column.ColumnName;
      o.column.TableName = table.Name;
      o.column.wType = s.wType;
      o.column.ColumnSize = s.ColumnSize;
    } else {
      o.column = table.Columns[s.sourceField];
      if (!s.alias.empty()) o.column.ColumnAlias.assign(s.alias.data(), s.alias.size());
      o.sourceField = s.sourceField;
    }
    o.column.Ordinal = outputs->size() + 1;
    o.column.dwFlags = 0;
    outputs->push_back(std::move(o));
  }
}

CSelectListProducer::CSelectListProducer(std::unique_ptr<CDataProvider> source, const TableInfo& table,
                                         std::vector<Output> outputs, std::shared_ptr<const CSQLQueryInfo> statement,
                                         LONGLONG skip, LONGLONG count)
    : m_pSource(std::move(source)),
      m_Table(table),
      m_Outputs(std::move(outputs)),
      m_pStatement(std::move(statement)),
      m_Skip(skip < 0 ? 0 : skip),
      m_Count(count) {
  for (const Output& o : m_Outputs) m_bAggregate = m_bAggregate || o.aggregate;
}

CSelectListProducer::~CSelectListProducer() {
  // As the store does with its producer: no step may run while the source is torn down.
  if (m_pSource) m_pSource->StopWorker();
  m_pSource.reset();
}

HRESULT CSelectListProducer::Bind(const SQLBindContext& context, corvane::WString* message) {
  try {
    m_Expressions.resize(m_Outputs.size());
    m_Aggregates.resize(m_Outputs.size());
    for (size_t i = 0; i < m_Outputs.size(); ++i) {
      const Output& o = m_Outputs[i];
      if (!o.expression) continue;
      const HRESULT hr =
          o.aggregate ? BindAggregate(o.expression, m_Table, context, &m_Aggregates[i], &m_Expressions[i], message)
                      : CRowExpression::Create(o.expression, m_Table.Columns, m_Table.Name, context,
                                               &m_Expressions[i], message);
      if (FAILED(hr)) return hr;
    }
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

corvane::WString CSelectListProducer::FailureMessage() {
  return FAILED(m_hrFailure) ? m_FailureMessage : m_pSource->FailureMessage();
}

HRESULT CSelectListProducer::Fail(HRESULT hr, const corvane::WString& message) {
  m_hrFailure = hr;
  m_FailureMessage = message;
  return hr;
}

HRESULT CSelectListProducer::GetColumns(std::vector<ColumnRecord>& columns) {
  columns.clear();
  for (const Output& o : m_Outputs) columns.push_back(o.column);
  return S_OK;
}

BOOL CSelectListProducer::IsDataPending() {
  if (m_bDone) return 0;
  return m_pSource->IsDataPending();
}

HRESULT CSelectListProducer::MapRecord(const ProducedRecord& in, ProducedRecord* out) {
  out->clear();
  out->resize(m_Outputs.size());
  for (size_t i = 0; i < m_Outputs.size(); ++i) {
    const Output& o = m_Outputs[i];
    if (!o.expression) {
      if (o.sourceField < in.size()) (*out)[i] = in[o.sourceField];
      continue;
    }
    SQLEvaluationResult result;
    const HRESULT hr = m_Expressions[i]->Evaluate(in, &result);
    if (FAILED(hr)) return Fail(hr, m_Expressions[i]->Message());
    (*out)[i] = ResultToCell(result, o.column.wType);
  }
  return S_OK;
}

HRESULT CSelectListProducer::FetchRows(ProducedRecordList& rows, size_t wanted) {
  if (FAILED(m_hrFailure)) return m_hrFailure;
  if (m_bDone) return DB_S_ENDOFROWSET;
  if (m_bAggregate) return Aggregate(rows);
  for (;;) {
    if (m_Count >= 0 && m_Emitted >= m_Count) {
      m_bDone = true;
      return DB_S_ENDOFROWSET;
    }
    m_Incoming.clear();
    const size_t ask = wanted > rows.size() ? wanted - rows.size() : 1;
    const HRESULT hr = m_pSource->FetchRows(m_Incoming, ask);
    // Rows mapped before a failure go out first; the source reports it again next time.
    if (FAILED(hr)) return rows.empty() ? hr : S_OK;
    for (const ProducedRecord& record : m_Incoming) {
      if (m_Skipped < m_Skip) {
        ++m_Skipped;
        continue;
      }
      if (m_Count >= 0 && m_Emitted >= m_Count) break;
      ProducedRecord out;
      const HRESULT mapped = MapRecord(record, &out);
      if (FAILED(mapped)) {
        // The rows mapped before it go out first; the failure comes with the next fetch.
        m_pSource->RecycleRecords(m_Incoming);
        return rows.empty() ? mapped : S_OK;
      }
      rows.push_back(std::move(out));
      ++m_Emitted;
    }
    m_pSource->RecycleRecords(m_Incoming);
    if (hr == DB_S_ENDOFROWSET) {
      m_bDone = true;
      return DB_S_ENDOFROWSET;
    }
    if (rows.size() >= wanted) return S_OK;
  }
}

HRESULT CSelectListProducer::Aggregate(ProducedRecordList& rows) {
  ProducedRecord last;
  bool any = false;
  for (;;) {
    m_Incoming.clear();
    const HRESULT hr = m_pSource->FetchRows(m_Incoming, kAggregateBatch);
    if (FAILED(hr)) return hr;
    for (ProducedRecord& record : m_Incoming) {
      for (size_t i = 0; i < m_Outputs.size(); ++i) {
        if (!m_Outputs[i].aggregate) continue;
        auto& aggregate = static_cast<CSQLFunctionAggregate&>(*m_Aggregates[i]);
        corvane::WString message;
        HRESULT folded = FeedAggregate(aggregate, m_Expressions[i].get(), record, &message);
        // Folded as it goes, so that a long read holds one row's items at a time.
        if (SUCCEEDED(folded)) {
          folded = aggregate.Evaluate();
          if (FAILED(folded)) message = aggregate.FailureMessage();
        }
        if (FAILED(folded)) return Fail(folded, message);
      }
      last = std::move(record);
      any = true;
    }
    m_Incoming.clear();
    if (hr == DB_S_ENDOFROWSET) break;
  }
  m_bDone = true;
  ProducedRecord out;
  out.resize(m_Outputs.size());
  for (size_t i = 0; i < m_Outputs.size(); ++i) {
    const Output& o = m_Outputs[i];
    SQLEvaluationResult result;
    if (o.aggregate) {
      auto& aggregate = static_cast<CSQLFunctionAggregate&>(*m_Aggregates[i]);
      if (any && SUCCEEDED(aggregate.CopyResult(&result))) {
        out[i] = ResultToCell(result, o.column.wType);
      } else if (!any && aggregate.Info().zeroOverNoRows) {
        VARIANT zero;
        VariantInit(&zero);
        V_VT(&zero) = VT_I4;
        V_I4(&zero) = 0;
        if (SUCCEEDED(VariantChangeType(&result.value, &zero, 0,
                                        static_cast<VARTYPE>(aggregate.Info().resultType)))) {
          result.kind = SQLEvaluationResult::kValue;
          out[i] = ResultToCell(result, o.column.wType);
        }
      }
    } else if (any) {
      if (!o.expression) {
        if (o.sourceField < last.size()) out[i] = last[o.sourceField];
        continue;
      }
      const HRESULT hr = m_Expressions[i]->Evaluate(last, &result);
      if (FAILED(hr)) return Fail(hr, m_Expressions[i]->Message());
      out[i] = ResultToCell(result, o.column.wType);
    }
  }
  if (m_Skip == 0 && m_Count != 0) rows.push_back(std::move(out));
  return DB_S_ENDOFROWSET;
}
