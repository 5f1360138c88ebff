#include "provider/procedures/BaseStoredProcedure.h"

#include <cstring>

#include "SQLParser/TimeConversion.h"
#include "base/Variant.h"

using corvane::WString;
using corvane::platform::CriticalSectionLock;

namespace {

constexpr const char* kBaseSource = "BaseStoredProcedure.cpp";

FILETIME Year1900() {
  ULONG64 ticks = 0;
  corvane::CalendarToTicks(1900, 1, 1, 0, 0, 0, 0, &ticks);
  return corvane::TicksToFileTime(ticks);
}

// The text of a value in the invariant locale, so that a number written into a text
// parameter reads the same on every machine.
HRESULT ValueToText(VARIANT* value, WString* text) {
  if (V_VT(value) == VT_BSTR) {
    *text = V_BSTR(value) ? WString(V_BSTR(value)) : WString();
    return S_OK;
  }
  corvane::Variant converted;
  const HRESULT hr = VariantChangeTypeEx(converted.Get(), value, LOCALE_INVARIANT, 0, VT_BSTR);
  if (FAILED(hr)) return hr;
  *text = V_BSTR(converted.Get()) ? WString(V_BSTR(converted.Get())) : WString();
  return S_OK;
}

}  // namespace

CBaseStoredProcedure::CBaseStoredProcedure(const char* traceSource, const CSQLQueryInfo* query,
                                           const CSQLSelectItemSP* item, const SQLBindContext& context,
                                           IProviderDataSource* dataSource, WString catalog, WString schema)
    : m_szTraceSource(traceSource), m_Catalog(std::move(catalog)), m_Schema(std::move(schema)) {
  m_bSingleProcedure = query && query->FromItems().size() == 1 && query->FromItems()[0] &&
                       query->FromItems()[0]->Kind() == SQL_SELECT_ITEM_SP;
  m_bItemMissing = item == nullptr;
  if (item) {
    m_Name = item->ProcedureName();
    for (const std::unique_ptr<CSQLCalcItem>& argument : item->Parameters()) {
      std::unique_ptr<CSQLCalcItem> bound;
      const HRESULT hr = argument ? Bind(argument.get(), context, &bound) : E_INVALIDARG;
      m_BoundArguments.push_back(std::move(bound));
      m_BindResults.push_back(hr);
    }
  }
  m_pDataSource = corvane::ComPtr<IProviderDataSource>::Share(dataSource);
  if (m_pDataSource) {
    if (FAILED(m_pDataSource->GetRawDataProvider(m_pRaw.Put()))) m_pRaw.Reset();
    if (FAILED(m_pDataSource->GetProcessedDataProvider(m_pProcessed.Put()))) m_pProcessed.Reset();
    if (FAILED(m_pDataSource->GetValuesProvider(m_pValues.Put()))) m_pValues.Reset();
  }
}

CBaseStoredProcedure::~CBaseStoredProcedure() {
  // The worker may be inside a step that uses the interfaces below.
  StopWorker();
  m_TimeRanges = PendingRanges();
  m_Parameters.clear();
  m_pValues.Reset();
  m_pProcessed.Reset();
  m_pRaw.Reset();
  m_pDataSource.Reset();
}

HRESULT CBaseStoredProcedure::Execute() {
  CriticalSectionLock lock(m_FetchLock);
  if (m_bFirstRun) {
    m_bFirstRun = false;
    m_hrInitialize = Initialize();
  }
  return m_hrInitialize;
}

HRESULT CBaseStoredProcedure::FetchRows(ProducedRecordList& rows, size_t wanted) {
  CriticalSectionLock lock(m_FetchLock);
  HRESULT hr = Execute();
  if (FAILED(hr)) {
    rows.clear();
    return hr;
  }
  for (;;) {
    // A take that does not wait: the base hands over what is queued and reports a
    // failure that ended the worker.
    hr = CDataProvider::FetchRows(rows, 0);
    if (FAILED(hr)) return hr;
    if (rows.size() >= wanted) return S_OK;
    if (!IsRunning()) {
      // Rows queued between the take and the check are the last ones. After a failure
      // they are not the end: the failure is still to come.
      hr = CDataProvider::FetchRows(rows, 0);
      if (FAILED(hr)) return hr;
      if (FAILED(LastResult())) return S_OK;
      return rows.size() >= wanted ? S_OK : DB_S_ENDOFROWSET;
    }
    WaitForRows(kFetchWaitMs);
  }
}

bool CBaseStoredProcedure::IsRunning() {
  if (FAILED(LastResult())) return false;
  if (IsWorkerRunning()) return true;
  return TimeRangeCount() != 0;
}

void CBaseStoredProcedure::SetCatalogEntry(const ProcedureInfo* info) {
  m_pInfo = info;
  if (info) m_Name = info->Name;
}

const ProcedureInfo& CBaseStoredProcedure::Info() const {
  static const ProcedureInfo kNoEntry;
  return m_pInfo ? *m_pInfo : kNoEntry;
}

HRESULT CBaseStoredProcedure::GetColumns(std::vector<ColumnRecord>& columns) {
  columns = Info().Table.Columns;
  return S_OK;
}

HRESULT CBaseStoredProcedure::ConvertParameter(SQLEvaluationResult& result, DBTYPE type, ParamValue* value) {
  *value = ParamValue();
  if (result.kind == SQLEvaluationResult::kNone) return S_OK;
  if (result.kind == SQLEvaluationResult::kTime) {
    if (type == DBTYPE_DBTIMESTAMP || type == DBTYPE_UI4 || type == DBTYPE_R8) {
      value->Kind = ParamValue::kTimestamp;
      return corvane::FileTimeToDBTimestamp(result.time, &value->Timestamp);
    }
    // A time handed to a text parameter is written as its date.
    DATE date = 0;
    HRESULT hr = corvane::FileTimeToDate(result.time, &date);
    if (FAILED(hr)) return hr;
    VariantClear(&result.value);
    V_VT(&result.value) = VT_DATE;
    V_DATE(&result.value) = date;
  }
  VARIANT* v = &result.value;
  if (V_VT(v) == VT_EMPTY || V_VT(v) == VT_NULL) return S_OK;

  switch (type) {
    case DBTYPE_DBTIMESTAMP: {
      if (V_VT(v) == VT_DATE) {
        ULONG64 ticks = 0;
        HRESULT hr = corvane::DateToFileTime(V_DATE(v), &ticks);
        if (FAILED(hr)) return hr;
        value->Kind = ParamValue::kTimestamp;
        return corvane::FileTimeToDBTimestamp(ticks, &value->Timestamp);
      }
      if (V_VT(v) == VT_BSTR) {
        // The dialect has no time literal: a text that reads as a date and time is one.
        ULONG64 ticks = 0;
        if (SUCCEEDED(corvane::TextToFileTime(V_BSTR(v) ? V_BSTR(v) : OLESTR(""), &ticks))) {
          value->Kind = ParamValue::kTimestamp;
          return corvane::FileTimeToDBTimestamp(ticks, &value->Timestamp);
        }
      }
      value->Kind = ParamValue::kText;
      return ValueToText(v, &value->Text);
    }
    case DBTYPE_UI4:
    case DBTYPE_R8: {
      if (V_VT(v) == VT_BSTR) {  // numbers written as texts stay texts
        value->Kind = ParamValue::kText;
        return ValueToText(v, &value->Text);
      }
      VARIANT converted;
      VariantInit(&converted);
      const HRESULT hr = VariantChangeTypeEx(&converted, v, LOCALE_INVARIANT, 0, type == DBTYPE_UI4 ? VT_UI4 : VT_R8);
      if (FAILED(hr)) return hr;
      if (type == DBTYPE_UI4) {
        value->Kind = ParamValue::kInteger;
        value->Integer = V_UI4(&converted);
      } else {
        value->Kind = ParamValue::kDouble;
        value->Double = V_R8(&converted);
      }
      return S_OK;
    }
    case DBTYPE_VARIANT:
      value->Kind = ParamValue::kVariantText;
      return ValueToText(v, &value->Text);
    default:
      value->Kind = ParamValue::kText;
      return ValueToText(v, &value->Text);
  }
}

HRESULT CBaseStoredProcedure::ProcessParameters(size_t expectedCount, const std::vector<ProcedureParameterInfo>& table) {
  if (!m_bSingleProcedure) {
    SPTRACE(kBaseSource, TRACE_ERROR,
            OLESTR("[SP] -> Running multiple stored procedures in the same time is not supported."));
    return E_NOTIMPL;
  }
  if (m_bItemMissing) {
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Failed to initialize stored procedure."));
    return E_INVALIDARG;
  }
  if (!m_pInfo) {
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Unsupported stored procedure '%s'."), m_Name.c_str());
    return E_INVALIDARG;
  }
  if (m_BoundArguments.size() != expectedCount || table.size() < expectedCount) {
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Invalid parameters count."));
    return E_INVALIDARG;
  }
  m_Parameters.clear();
  for (size_t i = 0; i < m_BoundArguments.size(); ++i) {
    const int position = static_cast<int>(i + 1);
    HRESULT hr = m_BindResults[i];
    if (SUCCEEDED(hr) && !m_BoundArguments[i]) hr = E_INVALIDARG;
    SQLEvaluationResult result;
    if (SUCCEEDED(hr)) hr = Evaluate(m_BoundArguments[i].get(), &result);
    if (FAILED(hr)) {
      SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Invalid parameter (%d)."), position);
      return hr;
    }
    ParamValue value;
    hr = ConvertParameter(result, table[i].wType, &value);
    if (FAILED(hr)) {
      SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Failed to process parameter (%d)."), position);
      return hr;
    }
    m_Parameters[position] = std::move(value);
  }
  return S_OK;
}

const ParamValue* CBaseStoredProcedure::Parameter(long position) const {
  auto it = m_Parameters.find(position);
  return it == m_Parameters.end() ? nullptr : &it->second;
}

WString CBaseStoredProcedure::TextParameter(long position) const {
  const ParamValue* p = Parameter(position);
  return p && p->IsText() ? p->Text : WString();
}

FILETIME CBaseStoredProcedure::TimeParameter(long position) const {
  const ParamValue* p = Parameter(position);
  if (p && p->Kind == ParamValue::kTimestamp) {
    ULONG64 ticks = 0;
    if (SUCCEEDED(corvane::DBTimestampToFileTime(p->Timestamp, &ticks))) return corvane::TicksToFileTime(ticks);
  }
  return Year1900();
}

bool CBaseStoredProcedure::HasAllParameters(size_t count) const {
  if (m_Parameters.size() != count) return false;
  for (size_t p = 1; p <= count; ++p) {
    const ParamValue* value = Parameter(static_cast<long>(p));
    if (!value || value->Kind == ParamValue::kNone) return false;
  }
  return true;
}

HRESULT CBaseStoredProcedure::BuildTimeRanges(long startPosition, long endPosition, long periodPosition) {
  const FILETIME start = TimeParameter(startPosition);
  const FILETIME end = TimeParameter(endPosition);
  double period = -1.0;
  if (periodPosition != -1) {
    const ParamValue* p = Parameter(periodPosition);
    period = p && p->Kind == ParamValue::kDouble ? p->Double : 0.0;
  }
  CriticalSectionLock lock(StateLock());
  m_TimeRanges = PendingRanges();
  m_TimeRanges.any = true;
  m_TimeRanges.periodMs = period;
  m_TimeRanges.start = start;
  m_TimeRanges.end = end;
  if (period > 0) {
    LONG maxRows = 500;
    if (!m_pDataSource || FAILED(m_pDataSource->GetMaxRowsToReturn(&maxRows))) maxRows = 500;
    const double wholeMs = period < 1.8e15 ? static_cast<double>(static_cast<ULONG64>(period)) : 1.8e15;
    const double chunk = static_cast<double>(maxRows) * wholeMs * static_cast<double>(corvane::kTicksPerMillisecond);
    const ULONG64 s0 = corvane::FileTimeToTicks(start);
    const ULONG64 e = corvane::FileTimeToTicks(end);
    // A chunk shorter than one tick (a sub-millisecond period or no page size) or
    // longer than the whole range reads the range at once.
    if (chunk >= 1.0 && chunk < static_cast<double>(e > s0 ? e - s0 : 0)) {
      m_TimeRanges.next = s0;
      m_TimeRanges.last = e;
      m_TimeRanges.step = static_cast<ULONG64>(chunk);
    }
  }
  return S_OK;
}

bool CBaseStoredProcedure::PendingRanges::Front(TimeRangeChunk* chunk) const {
  if (!any) return false;
  if (step == 0) {
    *chunk = {start, end, periodMs};
  } else {
    const ULONG64 chunkEnd = (last - next > step) ? next + step : last;
    *chunk = {corvane::TicksToFileTime(next), corvane::TicksToFileTime(chunkEnd), periodMs};
  }
  return true;
}

void CBaseStoredProcedure::PendingRanges::Pop() {
  if (step == 0 || last - next <= step) {
    any = false;
  } else {
    next += step;
  }
}

size_t CBaseStoredProcedure::PendingRanges::Count() const {
  if (!any) return 0;
  if (step == 0) return 1;
  return static_cast<size_t>((last - next + step - 1) / step);
}

HRESULT CBaseStoredProcedure::PopTimeRange(FILETIME* start, FILETIME* end) {
  CriticalSectionLock lock(StateLock());
  TimeRangeChunk front;
  if (!m_TimeRanges.Front(&front)) return E_FAIL;
  if (start) *start = front.Start;
  if (end) *end = front.End;
  m_TimeRanges.Pop();
  return S_OK;
}

size_t CBaseStoredProcedure::TimeRangeCount() {
  CriticalSectionLock lock(StateLock());
  return m_TimeRanges.Count();
}

HRESULT CBaseStoredProcedure::MakeTagIdent(const WString& text, TagIdent* ident) {
  if (!ident) return E_INVALIDARG;
  ident->catalog = ident->schema = ident->tagName = nullptr;
  if (m_Catalog.empty() || m_Schema.empty() || text.empty()) return E_INVALIDARG;
  ident->catalog = SysAllocString(m_Catalog.c_str());
  ident->schema = SysAllocString(m_Schema.c_str());
  ident->tagName = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!ident->catalog || !ident->schema || !ident->tagName) {
    ClearTagIdent(ident);
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

void CBaseStoredProcedure::ClearTagIdent(TagIdent* ident) {
  if (!ident) return;
  SysFreeString(ident->catalog);
  SysFreeString(ident->schema);
  SysFreeString(ident->tagName);
  ident->catalog = ident->schema = ident->tagName = nullptr;
}

void CBaseStoredProcedure::FreeTagBlock(TagIdent** ident) {
  if (!ident || !*ident) return;
  FreeTagIdentBstr(*ident);
  *ident = nullptr;
}

HRESULT CBaseStoredProcedure::ParseTagParameter(TagIdent** ident) {
  if (!ident) return E_INVALIDARG;
  *ident = static_cast<TagIdent*>(CoTaskMemAlloc(sizeof(TagIdent)));
  if (!*ident) {
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Failed to initialize tag ident (%X)."),
            static_cast<unsigned>(E_OUTOFMEMORY));
    return E_OUTOFMEMORY;
  }
  std::memset(*ident, 0, sizeof(TagIdent));
  const HRESULT hr = MakeTagIdent(TextParameter(4), *ident);
  if (FAILED(hr)) {
    CoTaskMemFree(*ident);
    *ident = nullptr;
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Failed to parse tag name parameter (%X)."),
            static_cast<unsigned>(hr));
    return hr;
  }
  return S_OK;
}

HRESULT CBaseStoredProcedure::ParseWriteValue(HistoryValue* value) {
  if (!value) return E_INVALIDARG;
  VariantInit(&value->value);
  if (m_Parameters.size() < 4) {
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Failed to parse the value."));
    return E_INVALIDARG;
  }
  HRESULT hr = CoFileTimeNow(&value->timestamp);
  if (FAILED(hr)) {
    SPTRACE(kBaseSource, TRACE_ERROR, OLESTR("[SP] -> Failed to initialize tag value (%X)."),
            static_cast<unsigned>(hr));
    return hr;
  }
  value->timestamp = TimeParameter(2);
  const WString text = TextParameter(3);
  BSTR b = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!b) return E_OUTOFMEMORY;
  V_VT(&value->value) = VT_BSTR;
  V_BSTR(&value->value) = b;
  const ParamValue* quality = Parameter(4);
  value->quality = quality && quality->Kind == ParamValue::kInteger ? quality->Integer : 0;
  return S_OK;
}

HRESULT CBaseStoredProcedure::PrepareProcessedRequest(bool consume, ProcessedReadRequest* request) {
  if (!request) return E_INVALIDARG;
  {
    CriticalSectionLock lock(StateLock());
    TimeRangeChunk front;
    if (!m_TimeRanges.Front(&front)) return E_FAIL;
    request->start = front.Start;
    request->end = front.End;
    request->periodMs = front.PeriodMs;
    if (consume) m_TimeRanges.Pop();
  }
  request->rawCapabilities = 0;
  if (m_pRaw) {
    TagIdent empty;
    empty.catalog = SysAllocString(OLESTR(""));
    empty.schema = SysAllocString(OLESTR(""));
    empty.tagName = SysAllocString(OLESTR(""));
    DWORD capabilities = 0;
    if (empty.catalog && empty.schema && empty.tagName &&
        SUCCEEDED(m_pRaw->GetCapabilities(&empty, &capabilities)))
      request->rawCapabilities = capabilities;
    ClearTagIdent(&empty);
  }
  if (!m_pDataSource) return E_POINTER;
  LONG uncertainAsGood = 0;
  HRESULT hr = m_pDataSource->GetTreatUncertainAsGood(&uncertainAsGood);
  if (FAILED(hr)) return hr;
  request->treatUncertainAsGood = static_cast<DWORD>(uncertainAsGood);
  hr = m_pDataSource->GetPercentDataBad(&request->percentDataBad);
  if (FAILED(hr)) return hr;
  return m_pDataSource->GetPercentDataGood(&request->percentDataGood);
}

void CBaseStoredProcedure::SetDone() {
  SetMoreData(false);
  RequestStop();
}

void CBaseStoredProcedure::ContinueReading() {
  if (QueuedRecordCount() < kReadAheadRows) SignalWorker();
}

StoreValue CBaseStoredProcedure::UnsignedCell(ULONG value) {
  StoreValue cell;
  cell.Kind = StoreValue::kVariant;
  V_VT(&cell.Value) = VT_UI4;
  V_UI4(&cell.Value) = value;
  return cell;
}

StoreValue CBaseStoredProcedure::TextCell(const OLECHAR* text) {
  StoreValue cell;
  BSTR b = SysAllocString(text ? text : OLESTR(""));
  if (!b) return cell;  // kNone: the cell reads as null
  cell.Kind = StoreValue::kVariant;
  V_VT(&cell.Value) = VT_BSTR;
  V_BSTR(&cell.Value) = b;
  return cell;
}

HRESULT CBaseStoredProcedure::CopyCell(const VARIANT& value, StoreValue* cell) {
  cell->Kind = StoreValue::kVariant;
  VariantClear(&cell->Value);
  return VariantCopy(&cell->Value, const_cast<VARIANT*>(&value));
}
