#include "provider/execution/CommandProviderRowset.h"

#include <iterator>
#include <new>
#include <vector>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLParser.h"
#include "SQLParser/TimeConversion.h"
#include "provider/ErrorReporting.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "base/Trace.h"
#include "base/Variant.h"
#include "provider/execution/RawDataChange.h"
#include "provider/execution/RowEvaluator.h"
#include "provider/execution/SelectListProducer.h"
#include "provider/procedures/BaseStoredProcedure.h"
#include "provider/procedures/ProcedureFactory.h"
#include "provider/tables/BaseTable.h"
#include "provider/tables/TableDelete.h"
#include "provider/tables/TableInsert.h"
#include "provider/tables/TableUpdate.h"

using corvane::WIEquals;
using corvane::WString;

namespace {

// Everything one execution works with.
struct Execution {
  const CommandExecutionRequest& request;
  const StatementPlan& plan;
  const std::shared_ptr<const StatementPlan>& sharedPlan;  // what the rowset keeps alive
  const CSQLQueryInfo& query;
  IProviderDataSource* dataSource;
  std::unique_ptr<CDataStore> store;
  DBROWCOUNT rowsAffected = -1;
  FILETIME start{};
  FILETIME end{};
  WString message;  // what the consumer is told about a failure, when there is more to say
};

WString FormatTime(const FILETIME& time) {
  SYSTEMTIME st{};
  FileTimeToSystemTime(&time, &st);
  return corvane::WFormat(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d"), st.wYear, st.wMonth, st.wDay, st.wHour,
                          st.wMinute, st.wSecond);
}

HRESULT ComputeTimeRange(Execution& ex) {
  corvane::TaskMem<FILETIME> start, end;
  HRESULT hr = ex.dataSource->GetStartTimeForQuery(start.Put());
  if (FAILED(hr)) return hr;
  hr = ex.dataSource->GetEndTimeForQuery(end.Put());
  if (FAILED(hr)) return hr;
  ULONG64 s = corvane::FileTimeToTicks(*start.Get());
  ULONG64 e = corvane::FileTimeToTicks(*end.Get());
  if (ex.query.Condition()) {
    hr = ReduceTimeRange(ex.query.Condition(), ex.request.binding, &s, &e);
    if (FAILED(hr)) return hr;
  }
  // The historian reads a range whose start is later than its end newest first; the
  // provider itself never sorts.
  if (ex.plan.newestFirst) std::swap(s, e);
  ex.start = corvane::TicksToFileTime(s);
  ex.end = corvane::TicksToFileTime(e);
  CVTRACE(TRACE_INFO, OLESTR("Execution will use start time = %s, end time = %s"), FormatTime(ex.start).c_str(),
          FormatTime(ex.end).c_str());
  return S_OK;
}

HRESULT NewStore(std::unique_ptr<CDataStore>* store) {
  store->reset(new (std::nothrow) CDataStore());
  return *store ? S_OK : E_OUTOFMEMORY;
}

// The one-row answer of a data change that changed `changed` rows.
HRESULT AnswerWith(Execution& ex, std::unique_ptr<CBaseTable> table, DBROWCOUNT changed = 1) {
  if (!table) return E_OUTOFMEMORY;
  HRESULT hr = table->EnsurePrepared();
  if (FAILED(hr)) return hr;
  std::vector<ColumnRecord> columns;
  table->GetColumns(columns);
  hr = NewStore(&ex.store);
  if (SUCCEEDED(hr)) hr = ex.store->Initialize(std::move(table), columns);
  if (SUCCEEDED(hr)) ex.rowsAffected = changed;
  return hr;
}

// The WHERE filter of a SELECT over `columns`, set on `producer` before it reads: none
// when every row passes.
HRESULT FilterRows(Execution& ex, CDataProvider& producer, const std::vector<ColumnRecord>& columns,
                   const WString& source, GivenComparisons given) {
  std::unique_ptr<CRowCondition> filter;
  const HRESULT hr =
      CRowCondition::Create(ex.query.Condition(), columns, source, ex.request.binding, given, &filter, &ex.message);
  if (FAILED(hr)) return hr;
  if (filter) producer.SetRecordFilter(std::move(filter));
  return S_OK;
}

// Creates and starts the procedure of `item`; its columns go to *columns. A SELECT's
// WHERE is evaluated on the procedure's rows as they are made: the procedure takes its
// tags and range from its arguments, so no comparison is taken as read.
HRESULT StartProcedure(Execution& ex, const CSQLSelectItemSP& item, const ProcedureInfo& info,
                       std::unique_ptr<CBaseStoredProcedure>* procedure, std::vector<ColumnRecord>* columns) {
  StoredProcedureCall call;
  call.query = &ex.query;
  call.item = &item;
  call.info = &info;
  call.bindContext = ex.request.binding;
  call.dataSource = ex.dataSource;
  call.catalog = item.Catalog();
  call.schema = item.Schema();
  HRESULT hr = CreateStoredProcedure(call, procedure);
  if (FAILED(hr)) return hr;
  if (ex.query.StatementKind() == SQL_STATEMENT_SELECT && ex.query.Condition()) {
    hr = (*procedure)->GetColumns(*columns);
    if (SUCCEEDED(hr)) hr = FilterRows(ex, **procedure, *columns, (*procedure)->Name(), GivenComparisons::kNone);
    if (FAILED(hr)) return hr;
  }
  hr = (*procedure)->Execute();
  if (FAILED(hr)) return hr;
  return (*procedure)->GetColumns(*columns);
}

HRESULT RunProcedure(Execution& ex, const CSQLSelectItemSP& item, const ProcedureInfo& info) {
  std::unique_ptr<CBaseStoredProcedure> procedure;
  std::vector<ColumnRecord> columns;
  HRESULT hr = StartProcedure(ex, item, info, &procedure, &columns);
  if (FAILED(hr)) return hr;
  hr = NewStore(&ex.store);
  if (FAILED(hr)) return hr;
  return ex.store->Initialize(std::move(procedure), columns);
}

// The data store over `source` (a table or procedure described by `info`), serving the
// select list's outputs within the statement's TOP / LIMIT.
HRESULT ServeSelectList(Execution& ex, std::unique_ptr<CDataProvider> source, const TableInfo& info,
                        std::vector<CSelectListProducer::Output> outputs, bool plain) {
  const LONGLONG skip = ex.plan.skip;
  const LONGLONG count = ex.plan.count;
  HRESULT hr = NewStore(&ex.store);
  if (FAILED(hr)) return hr;
  std::vector<ColumnRecord> columns;
  for (const auto& o : outputs) columns.push_back(o.column);
  if (plain && skip <= 0 && count != 0) {
    // Plain columns map straight onto the source's fields: no copy per row.
    for (size_t i = 0; i < columns.size(); ++i) columns[i].Ordinal = outputs[i].sourceField + 1;
    return ex.store->Initialize(std::move(source), columns, count > 0 ? static_cast<ULONGLONG>(count) : 0);
  }
  std::unique_ptr<CSelectListProducer> producer(
      new (std::nothrow) CSelectListProducer(std::move(source), info, std::move(outputs),
                                              StatementPlan::Statement(ex.sharedPlan), skip, count));
  if (!producer) return E_OUTOFMEMORY;
  hr = producer->Bind(ex.request.binding, &ex.message);
  if (FAILED(hr)) return hr;
  return ex.store->Initialize(std::move(producer), columns);
}

// The select list over `source`: as the plan shaped it, or bound now when the
// execution's `?` values can change it.
HRESULT OutputsOf(Execution& ex, const TableInfo& source, std::vector<CSelectListProducer::Output>* outputs,
                  bool* plain) {
  if (!ex.plan.outputsBound)
    return CSelectListProducer::BindOutputs(ex.query, source, ex.request.binding, outputs, plain, &ex.message);
  try {
    CSelectListProducer::MakeOutputs(ex.plan.shapes, source, outputs);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  *plain = ex.plan.plainColumnsOnly;
  return S_OK;
}

HRESULT ExecuteSqlStoredProcedure(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::ExecuteSqlStoredProcedure"));
  const auto& items = ex.query.FromItems();
  if (items.size() != 1) {
    CVTRACE(TRACE_ERROR, OLESTR("You can query one stored procedure only"));
    return CORVANE_E_NOT_ONE_PROCEDURE;
  }
  if (items[0]->Kind() != SQL_SELECT_ITEM_SP) {
    CVTRACE(TRACE_ERROR, OLESTR("Unsupported stored procedure"));
    return E_FAIL;
  }
  const auto& item = static_cast<const CSQLSelectItemSP&>(*items[0]);
  const ProcedureInfo* info = ex.plan.procedure;
  if (!info || info->Parameters.size() != item.Parameters().size()) {
    CVTRACE(TRACE_ERROR, OLESTR("Stored procedure '%s' doesn't exist"), item.ProcedureName().c_str());
    return CORVANE_E_PROCEDURE_NOT_FOUND;
  }
  const HRESULT hr = RunProcedure(ex, item, *info);
  CVTRACE(TRACE_INFO, OLESTR("CCommandProviderRowset::ExecuteSqlStoredProcedure -> hr = %X"), hr);
  return hr;
}

HRESULT ExecuteSqlSELECT(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::ExecuteSqlSELECT"));
  const auto& items = ex.query.FromItems();
  if (items.size() != 1) {
    CVTRACE(TRACE_ERROR, OLESTR("You can run SELECT query against one table or stored procedure only"));
    return CORVANE_E_NOT_ONE_FROM_ITEM;
  }
  if (items[0]->Kind() == SQL_SELECT_ITEM_SP) {
    const auto& item = static_cast<const CSQLSelectItemSP&>(*items[0]);
    const ProcedureInfo* info = ex.plan.procedure;
    if (!info) {
      CVTRACE(TRACE_ERROR, OLESTR("Stored procedure '%s' doesn't exist (bad name)"), item.ProcedureName().c_str());
      return CORVANE_E_PROCEDURE_NOT_FOUND;
    }
    if (info->Parameters.size() != item.Parameters().size()) {
      CVTRACE(TRACE_ERROR, OLESTR("Stored procedure '%s' doesn't exist (bad parameters)"),
              item.ProcedureName().c_str());
      return CORVANE_E_PROCEDURE_NOT_FOUND;
    }
    HRESULT hr = ComputeTimeRange(ex);
    if (FAILED(hr)) return hr;
    // The select list applies to the procedure's columns as to a table's.
    std::unique_ptr<CBaseStoredProcedure> procedure;
    std::vector<ColumnRecord> columns;
    hr = StartProcedure(ex, item, *info, &procedure, &columns);
    std::vector<CSelectListProducer::Output> outputs;
    bool plain = true;
    if (SUCCEEDED(hr)) hr = OutputsOf(ex, info->Table, &outputs, &plain);
    if (FAILED(hr)) return hr;
    return ServeSelectList(ex, std::move(procedure), info->Table, std::move(outputs), plain);
  }

  const auto& item = static_cast<const CSQLSelectItemTable&>(*items[0]);
  const TableInfo* found = ex.plan.table;
  if (!found) {
    CVTRACE(TRACE_ERROR, OLESTR("Table '%s' doesn't exist"), item.TableName().c_str());
    return CORVANE_E_TABLE_NOT_FOUND;
  }
  const TableInfo& info = *found;
  std::vector<CSelectListProducer::Output> outputs;
  bool plain = true;
  HRESULT hr = OutputsOf(ex, info, &outputs, &plain);
  if (FAILED(hr)) return hr;
  hr = ComputeTimeRange(ex);
  if (FAILED(hr)) return hr;

  TableCreateArgs args;
  args.dataSource = ex.dataSource;
  args.catalog = item.Catalog();
  args.schema = item.Schema();
  args.start = ex.start;
  args.end = ex.end;
  if (info.Given == GivenComparisons::kRawDataRead) {
    args.tagNames = ex.plan.TagNames(ex.request.binding);
  } else if (info.Given == GivenComparisons::kTagBrowse) {
    std::vector<WString> names = StatementPlan::TextsOf(ex.plan.tagCompared, OLESTR("TAGNAME"), ex.request.binding);
    std::vector<WString> texts =
        StatementPlan::TextsOf(ex.plan.descriptionCompared, OLESTR("DESCRIPTION"), ex.request.binding);
    if (!names.empty()) args.nameFilter = names.front();
    if (!texts.empty()) args.descriptionFilter = texts.front();
  }
  // The comparisons that shaped the read count as true; every other one is tested on
  // each row as the table makes it, so a row can be dropped but never added.
  std::unique_ptr<CBaseTable> table;
  hr = info.Make(args, &table);
  if (SUCCEEDED(hr)) hr = FilterRows(ex, *table, info.Columns, info.Name, info.Given);
  if (SUCCEEDED(hr)) hr = table->EnsurePrepared();
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("Failed to initialize the SELECT query (HR = %X)"), hr);
    return hr;
  }

  hr = ServeSelectList(ex, std::move(table), info, std::move(outputs), plain);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("Failed to initialize the SELECT query (HR = %X)"), hr);
    return hr;
  }
  return S_OK;
}

// The value of an INSERT / UPDATE item evaluated with the statement's parameters.
HRESULT ValueOf(const Execution& ex, const CSQLCalcItem* item, VARIANT* value) {
  return EvaluateAsValue(item, ex.request.binding, value);
}

// What the statements other than SELECT may do to the statement's table.
TableChanges ChangesOf(const Execution& ex) { return ex.plan.table ? ex.plan.table->Changes : TableChanges::kNone; }

HRESULT CheckRawDataStatement(const Execution& ex, const CSQLSelectItemTable** table) {
  if (ex.query.FromItems().size() != 1 || ex.query.FromItems()[0]->Kind() != SQL_SELECT_ITEM_TABLE)
    return E_INVALIDARG;
  *table = static_cast<const CSQLSelectItemTable*>(ex.query.FromItems()[0].get());
  return ChangesOf(ex) == TableChanges::kSamples ? S_OK : E_INVALIDARG;
}

// Writes one sample through the historian's insert.
HRESULT InsertSample(Execution& ex, const CSQLSelectItemTable& table, const WString& tagName, HistoryValue* sample) {
  corvane::ComPtr<IRawDataProvider> raw;
  HRESULT hr = ex.dataSource->GetRawDataProvider(raw.Put());
  if (FAILED(hr)) return hr;
  if (!raw) return CORVANE_E_MISSING_PARAMETER;
  TagIdent* tag = nullptr;
  hr = MakeTaskTagIdent(table.Catalog().c_str(), table.Schema().c_str(), tagName.c_str(), &tag);
  if (SUCCEEDED(hr)) hr = raw->InsertValue(tag, sample);
  FreeTagIdent(tag);
  return hr;
}

HRESULT InsertIntoRawDataTable(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::InsertIntoRawDataTable"));
  const CSQLSelectItemTable* table = nullptr;
  HRESULT hr = CheckRawDataStatement(ex, &table);
  if (FAILED(hr)) return hr;
  const auto& insert = static_cast<const CSQLQueryInfoINSERT&>(ex.query);
  if (insert.Columns().size() != insert.Values().size()) return E_INVALIDARG;

  HistoryValue sample;
  VariantInit(&sample.value);
  sample.quality = OPCUA_GOOD;  // a sample written without QUALITY is good
  hr = CoFileTimeNow(&sample.timestamp);
  if (FAILED(hr)) return hr;
  WString tagName;
  bool haveValue = false;
  // Each failure says which part of the sample it concerns: the codes alone (a type
  // mismatch, an overflow, the historian's own) do not.
  auto refuse = [&ex](HRESULT failure, const WString& what) {
    ex.message = what + corvane::WFormat(OLESTR(" (HR = %X): nothing was inserted."), static_cast<unsigned>(failure));
    return failure;
  };
  for (size_t i = 0; i < insert.Columns().size() && SUCCEEDED(hr); ++i) {
    const CSQLCalcItem* column = insert.Columns()[i].get();
    const CSQLCalcItem* item = insert.Values()[i].get();
    if (IsColumnNamed(column, OLESTR("TAGNAME"))) {
      corvane::Variant v;
      hr = ValueOf(ex, item, v.Get());
      if (SUCCEEDED(hr)) hr = VariantChangeType(v.Get(), v.Get(), 0, VT_BSTR);
      if (SUCCEEDED(hr)) tagName.assign(V_BSTR(v.Get()) ? V_BSTR(v.Get()) : OLESTR(""), SysStringLen(V_BSTR(v.Get())));
    } else if (IsColumnNamed(column, OLESTR("TIMESTAMP"))) {
      ULONG64 ticks = 0;
      hr = EvaluateAsTime(item, ex.request.binding, &ticks);
      if (SUCCEEDED(hr))
        sample.timestamp = corvane::TicksToFileTime(ticks);
      else
        refuse(hr, OLESTR("The TIMESTAMP to insert is not a date and time such as '2024-01-31 08:00:00'"));
    } else if (IsColumnNamed(column, OLESTR("VALUE"))) {
      VariantClear(&sample.value);
      hr = ValueOf(ex, item, &sample.value);
      haveValue = SUCCEEDED(hr);
    } else if (IsColumnNamed(column, OLESTR("QUALITY"))) {
      ULONG quality = 0;
      hr = EvaluateAsUnsigned(item, ex.request.binding, &quality);
      if (SUCCEEDED(hr))
        sample.quality = quality;
      else
        refuse(hr, OLESTR("The QUALITY to insert must be a number from 0 to 4294967295"));
    } else {
      hr = E_INVALIDARG;
    }
  }
  if (SUCCEEDED(hr) && (tagName.empty() || !haveValue)) {
    hr = CORVANE_E_MISSING_PARAMETER;
    refuse(hr, OLESTR("An INSERT needs a TAGNAME and a VALUE"));
  }
  if (SUCCEEDED(hr)) {
    hr = InsertSample(ex, *table, tagName, &sample);
    if (hr == HIST_E_TAG_NOT_FOUND)
      refuse(hr, corvane::WFormat(OLESTR("Tag '%s' does not exist"), TagInMessage(tagName).c_str()));
    else if (hr == DISP_E_TYPEMISMATCH || hr == DISP_E_OVERFLOW)
      refuse(hr, corvane::WFormat(OLESTR("The VALUE to insert cannot be stored in tag '%s'"),
                                  TagInMessage(tagName).c_str()));
  }
  VariantClear(&sample.value);
  return hr;
}

// UPDATE and DELETE of samples (RAWDATA): exactly the samples the WHERE clause describes.
HRESULT ChangeRawDataTable(Execution& ex, CRawDataChange::Kind kind, ULONG64* changed) {
  const CSQLSelectItemTable* table = nullptr;
  HRESULT hr = CheckRawDataStatement(ex, &table);
  if (FAILED(hr)) return hr;
  CRawDataChange change(kind, ex.dataSource, ex.query, *ex.plan.table, ex.request.binding);
  return change.Run(changed, &ex.message);
}

HRESULT UpdateRawDataTable(Execution& ex, ULONG64* changed) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::UpdateRawDataTable"));
  return ChangeRawDataTable(ex, CRawDataChange::Kind::kUpdate, changed);
}

HRESULT DeleteFromRawDataTable(Execution& ex, ULONG64* changed) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::DeleteFromRawDataTable"));
  return ChangeRawDataTable(ex, CRawDataChange::Kind::kDelete, changed);
}

HRESULT UpdateQuerySettingsTable(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::UpdateQuerySettingsTable"));
  if (ex.query.FromItems().size() != 1 || ex.query.FromItems()[0]->Kind() != SQL_SELECT_ITEM_TABLE ||
      ChangesOf(ex) != TableChanges::kSettings)
    return E_INVALIDARG;
  const auto& update = static_cast<const CSQLQueryInfoUPDATE&>(ex.query);
  if (update.Columns().size() != update.Values().size()) return E_INVALIDARG;
  // VT_DATE stands for a timestamp, read as EvaluateAsTime reads one.
  static const struct {
    const OLECHAR* name;
    VARTYPE type;
    const OLECHAR* takes;
  } kSettings[] = {
      {OLESTR("TIMESTAMP_START"), VT_DATE, OLESTR("a date and time such as '2024-01-31 08:00:00'")},
      {OLESTR("TIMESTAMP_END"), VT_DATE, OLESTR("a date and time such as '2024-01-31 08:00:00'")},
      {OLESTR("MAX_ROWS_TO_RETURN"), VT_UI4, OLESTR("a whole number from 0 to 4294967295")},
      {OLESTR("TREAT_UNCERTAIN_AS_GOOD"), VT_BOOL, OLESTR("0 (false) or another number (true)")},
      {OLESTR("PERCENT_DATA_BAD"), VT_UI1, OLESTR("a whole number from 0 to 255")},
      {OLESTR("PERCENT_DATA_GOOD"), VT_UI1, OLESTR("a whole number from 0 to 255")},
      {OLESTR("ALLOW_EMPTY_TAG"), VT_BOOL, OLESTR("0 (false) or another number (true)")},
      {OLESTR("USE_USER_TIME_RANGE"), VT_BOOL, OLESTR("0 (false) or another number (true)")},
  };
  // Every value is evaluated and converted before any is stored, so that a statement
  // that fails leaves every setting as it was.
  struct Change {
    size_t setting;
    ULONG64 ticks = 0;
    corvane::Variant value;
  };
  std::vector<Change> changes(update.Columns().size());
  for (size_t i = 0; i < changes.size(); ++i) {
    Change& change = changes[i];
    const CSQLCalcItem* item = update.Values()[i].get();
    change.setting = std::size(kSettings);
    for (size_t k = 0; k < std::size(kSettings); ++k)
      if (IsColumnNamed(update.Columns()[i].get(), kSettings[k].name)) change.setting = k;
    if (change.setting == std::size(kSettings)) return E_INVALIDARG;
    const auto& setting = kSettings[change.setting];
    VARIANT* v = change.value.Get();
    HRESULT hr = setting.type == VT_DATE ? EvaluateAsTime(item, ex.request.binding, &change.ticks)
                                         : EvaluateAsValue(item, ex.request.binding, v);
    if (SUCCEEDED(hr) && setting.type != VT_DATE) hr = VariantChangeType(v, v, 0, setting.type);
    if (FAILED(hr)) {
      ex.message = corvane::WFormat(OLESTR("Cannot set %s: it takes %s (HRESULT = %X)."), setting.name,
                                    setting.takes, static_cast<unsigned>(hr));
      return hr;
    }
  }
  IProviderDataSource* ds = ex.dataSource;
  for (const Change& change : changes) {
    const VARIANT* v = change.value.Get();
    const FILETIME time = corvane::TicksToFileTime(change.ticks);
    HRESULT hr;
    switch (change.setting) {
      case 0: hr = ds->SetStartTime(time); break;
      case 1: hr = ds->SetEndTime(time); break;
      case 2: hr = ds->SetMaxRowsToReturn(static_cast<LONG>(V_UI4(v))); break;
      case 3: hr = ds->SetTreatUncertainAsGood(V_BOOL(v) ? 1 : 0); break;
      case 4: hr = ds->SetPercentDataBad(V_UI1(v)); break;
      case 5: hr = ds->SetPercentDataGood(V_UI1(v)); break;
      case 6: hr = ds->SetAllowEmptyTag(V_BOOL(v) ? 1 : 0); break;
      default: hr = ds->SetUseUserTimeRange(V_BOOL(v) ? 1 : 0); break;
    }
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

// The shared rules of INSERT and DELETE: one table item, and one whose samples they write.
HRESULT CheckOneRawTable(const Execution& ex, const OLECHAR* oneTable, const OLECHAR* onlyTable,
                         const OLECHAR* cannot) {
  const auto& items = ex.query.FromItems();
  if (items.size() != 1) {
    CVTRACE(TRACE_ERROR, oneTable);
    return CORVANE_E_NOT_ONE_FROM_ITEM;
  }
  if (items[0]->Kind() != SQL_SELECT_ITEM_TABLE) {
    CVTRACE(TRACE_ERROR, onlyTable);
    return E_FAIL;
  }
  const auto& table = static_cast<const CSQLSelectItemTable&>(*items[0]);
  if (ChangesOf(ex) != TableChanges::kSamples) {
    CVTRACE(TRACE_ERROR, cannot, table.TableName().c_str());
    return CORVANE_E_INSERT_DELETE_NOT_ALLOWED;
  }
  return S_OK;
}

HRESULT ExecuteSqlINSERT(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::ExecuteSqlINSERT"));
  HRESULT hr = CheckOneRawTable(ex, OLESTR("You can run INSERT query against one table only"),
                                OLESTR("You can run INSERT query only against a table"),
                                OLESTR("Cannot run INSERT query against table '%s'"));
  if (FAILED(hr)) return hr;
  hr = InsertIntoRawDataTable(ex);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("Failed to insert to the RAWDATA table (HR = %X)"), hr);
    return hr;
  }
  return AnswerWith(ex, std::unique_ptr<CBaseTable>(new (std::nothrow) CTableInsert()));
}

HRESULT ExecuteSqlDELETE(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::ExecuteSqlDELETE"));
  HRESULT hr = CheckOneRawTable(ex, OLESTR("You can run DELETE query against one table only"),
                                OLESTR("You can run DELETE query only against a table"),
                                OLESTR("Cannot run DELETE query against table '%s'"));
  if (FAILED(hr)) return hr;
  ULONG64 changed = 0;
  hr = DeleteFromRawDataTable(ex, &changed);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("Failed to delete data from the RAWDATA table (HR = %X)"), hr);
    return hr;
  }
  return AnswerWith(ex, std::unique_ptr<CBaseTable>(new (std::nothrow) CTableDelete()),
                    static_cast<DBROWCOUNT>(changed));
}

HRESULT ExecuteSqlUPDATE(Execution& ex) {
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::ExecuteSqlUPDATE"));
  const auto& items = ex.query.FromItems();
  if (items.size() != 1) {
    CVTRACE(TRACE_ERROR, OLESTR("You can run UPDATE query against one table only"));
    return CORVANE_E_NOT_ONE_FROM_ITEM;
  }
  if (items[0]->Kind() != SQL_SELECT_ITEM_TABLE) {
    CVTRACE(TRACE_ERROR, OLESTR("You can run UPDATE query only against a table"));
    return E_FAIL;
  }
  const auto& table = static_cast<const CSQLSelectItemTable&>(*items[0]);
  HRESULT hr;
  ULONG64 changed = 1;  // a settings update changes the one row of QUERYSETTINGS
  const TableChanges changes = ChangesOf(ex);
  if (changes == TableChanges::kSamples) {
    hr = UpdateRawDataTable(ex, &changed);
    if (FAILED(hr)) {
      CVTRACE(TRACE_ERROR, OLESTR("Failed to update the RAWDATA table (HR = %X)"), hr);
      return hr;
    }
  } else if (changes == TableChanges::kSettings) {
    hr = UpdateQuerySettingsTable(ex);
    if (FAILED(hr)) {
      CVTRACE(TRACE_ERROR, OLESTR("Failed to update the QUERYSETTINGS table (HR = %X)"), hr);
      return hr;
    }
  } else {
    CVTRACE(TRACE_ERROR, OLESTR("Cannot run UPDATE query against table '%s'"), table.TableName().c_str());
    return CORVANE_E_UPDATE_NOT_ALLOWED;
  }
  return AnswerWith(ex, std::unique_ptr<CBaseTable>(new (std::nothrow) CTableUpdate()),
                    static_cast<DBROWCOUNT>(changed));
}

}  // namespace

CCommandProviderRowset::CCommandProviderRowset(std::unique_ptr<CDataStore> store, IUnknown* creator)
    : CProviderIRowset(std::move(store), RowsetKind::Command, creator) {}

HRESULT CCommandProviderRowset::Execute(const CommandExecutionRequest& request, DBROWCOUNT* pcRowsAffected,
                                        REFIID riid, IUnknown** ppRowset) {
  const WString text(request.commandText);
  CVTRACE(TRACE_INFO, OLESTR("Called CCommandProviderRowset::Execute, QUERY = %s"), text.c_str());
  if (ppRowset) *ppRowset = nullptr;
  if (pcRowsAffected) *pcRowsAffected = -1;
  if (!request.dataSource) return E_INVALIDARG;

  // The rows of a SELECT are evaluated after this returns: they read the statement
  // through the plan, which the rowset shares.
  std::shared_ptr<const StatementPlan> plan = request.plan;
  if (!plan) {
    if (request.commandText.empty()) return E_INVALIDARG;  // an empty text is no statement
    SQLParseRequest parse;
    parse.defaultCatalog = request.defaultCatalog;
    parse.defaultSchema = request.defaultSchema;
    parse.queryText = request.commandText;
    std::unique_ptr<CSQLQueryInfo> parsed;
    HRESULT hr = CSQLParser::ParseQuery(parse, &parsed);
    WString callMessage;
    if (SUCCEEDED(hr)) hr = parsed ? StatementPlan::Make(std::move(parsed), &plan, &callMessage) : E_INVALIDARG;
    if (FAILED(hr)) {
      if (request.message && !callMessage.empty()) *request.message = std::move(callMessage);
      return hr;
    }
  }
  const CSQLQueryInfo* query = plan->query.get();
  Execution ex{request, *plan, plan, *query, request.dataSource, nullptr, -1, {}, {}, {}};
  HRESULT hr;
  switch (query->StatementKind()) {
    case SQL_STATEMENT_SELECT: hr = ExecuteSqlSELECT(ex); break;
    case SQL_STATEMENT_INSERT: hr = ExecuteSqlINSERT(ex); break;
    case SQL_STATEMENT_UPDATE: hr = ExecuteSqlUPDATE(ex); break;
    case SQL_STATEMENT_DELETE: hr = ExecuteSqlDELETE(ex); break;
    case SQL_STATEMENT_SP: hr = ExecuteSqlStoredProcedure(ex); break;
    default:
      CVTRACE(TRACE_ERROR, OLESTR("ERROR in CCommandProviderRowset::Execute, Query is not implemented"));
      return E_NOTIMPL;
  }
  if (FAILED(hr)) {
    if (request.message) *request.message = std::move(ex.message);
    return hr;
  }
  if (pcRowsAffected) *pcRowsAffected = ex.rowsAffected;
  if (!ppRowset || riid == IID_NULL) return hr;

  corvane::ComPtr<CCommandProviderRowset> rowset(new (std::nothrow) CCommandProviderRowset(std::move(ex.store), request.creator));
  if (!rowset) return E_OUTOFMEMORY;
  const HRESULT qi = rowset->QueryInterface(riid, reinterpret_cast<void**>(ppRowset));
  return FAILED(qi) ? qi : hr;
}
