#include "provider/procedures/SPGetValues.h"

#include "provider/procedures/SPGetBadValues.h"
#include "provider/procedures/SPGetGoodValues.h"

using corvane::WString;
using corvane::platform::CriticalSectionLock;

// The three message tables. GET_VALUES names GET_GOOD_VALUES in its time-range text
// and GET_BAD_VALUES carries a code in its own; saved reports match on both.
struct SPGetValuesTexts {
  static const CSPGetValues::Messages& All() {
    static const CSPGetValues::Messages m = {
        OLESTR("[SP] GET_VALUES -> Invalid input parameters."),
        OLESTR("[SP] GET_VALUES -> IValuesProvider is not initialized. Failed to execute the stored procedure."),
        OLESTR("[SP] GET_VALUES -> Invalid tag name parameter (%X)."),
        OLESTR("[SP] GET_VALUES -> Failed to read the data (%X)."),
        OLESTR("[SP] GET_VALUES -> Failed to prepare the output data (%X)."),
        OLESTR("[SP] GET_VALUES -> History read done."),
        OLESTR("[SP] GET_GOOD_VALUES -> Invalid time range parameter."),
        false};
    return m;
  }
  static const CSPGetValues::Messages& Good() {
    static const CSPGetValues::Messages m = {
        OLESTR("[SP] GET_GOOD_VALUES -> Invalid input parameters."),
        OLESTR("[SP] GET_GOOD_VALUES -> IValuesProvider is not initialized. Failed to execute the stored procedure."),
        OLESTR("[SP] GET_GOOD_VALUES -> Invalid tag name parameter (%X)."),
        OLESTR("[SP] GET_GOOD_VALUES -> Failed to read the data (%X)."),
        OLESTR("[SP] GET_GOOD_VALUES -> Failed to prepare the output data (%X)."),
        OLESTR("[SP] GET_GOOD_VALUES -> History read done."),
        OLESTR("[SP] GET_GOOD_VALUES -> Invalid time range parameter."),
        false};
    return m;
  }
  static const CSPGetValues::Messages& Bad() {
    static const CSPGetValues::Messages m = {
        OLESTR("[SP] GET_BAD_VALUES -> Invalid input parameters."),
        OLESTR("[SP] GET_BAD_VALUES -> IValuesProvider is not initialized. Failed to execute the stored procedure."),
        OLESTR("[SP] GET_BAD_VALUES -> Invalid tag name parameter (%X)."),
        OLESTR("[SP] GET_BAD_VALUES -> Failed to read the data (%X)."),
        OLESTR("[SP] GET_BAD_VALUES -> Failed to prepare the output data (%X)."),
        OLESTR("[SP] GET_BAD_VALUES -> History read done."),
        OLESTR("[SP] GET_BAD_VALUES -> Invalid time range parameter (%X)."),
        true};
    return m;
  }
};

CSPGetValues::CSPGetValues(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                           IProviderDataSource* dataSource, WString catalog, WString schema)
    : CSPGetValues("SPGetValues.cpp", Selection::All, SPGetValuesTexts::All(), query, item, context, dataSource,
                   std::move(catalog), std::move(schema)) {}

CSPGetValues::CSPGetValues(const char* traceSource, Selection selection, const Messages& messages,
                           const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                           IProviderDataSource* dataSource, WString catalog, WString schema)
    : CBaseStoredProcedure(traceSource, query, item, context, dataSource, std::move(catalog), std::move(schema)),
      m_Selection(selection),
      m_Messages(messages) {}

CSPGetValues::~CSPGetValues() {
  StopWorker();
  FreeTagBlock(&m_pTag);
}

CSPGetGoodValues::CSPGetGoodValues(const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                   const SQLBindContext& context, IProviderDataSource* dataSource, WString catalog,
                                   WString schema)
    : CSPGetValues("SPGetGoodValues.cpp", Selection::Good, SPGetValuesTexts::Good(), query, item, context,
                   dataSource, std::move(catalog), std::move(schema)) {}

CSPGetBadValues::CSPGetBadValues(const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                 const SQLBindContext& context, IProviderDataSource* dataSource, WString catalog,
                                 WString schema)
    : CSPGetValues("SPGetBadValues.cpp", Selection::Bad, SPGetValuesTexts::Bad(), query, item, context, dataSource,
                   std::move(catalog), std::move(schema)) {}

HRESULT CSPGetValues::Initialize() {
  HRESULT hr = ProcessParameters(4, Info().Parameters);
  if (FAILED(hr)) return hr;
  hr = BuildTimeRanges(1, 2, -1);
  if (FAILED(hr)) return hr;
  if (!HasAllParameters(4)) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.invalidInput);
    return E_INVALIDARG;
  }
  if (!m_pValues) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.notInitialized);
    return kValuesProviderMissing;
  }
  hr = ParseTagParameter(&m_pTag);
  if (FAILED(hr)) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.tagName, static_cast<unsigned>(hr));
    return hr;
  }
  const ParamValue* count = Parameter(3);
  m_Count = count && count->Kind == ParamValue::kInteger ? count->Integer : 0;
  hr = StartWorker();
  if (FAILED(hr)) return hr;
  SignalWorker();
  return S_OK;
}

HRESULT CSPGetValues::ExecuteStep() {
  CriticalSectionLock lock(StateLock());
  FILETIME start, end;
  if (FAILED(PopTimeRange(&start, &end))) {
    FreeTagBlock(&m_pTag);
    if (m_Messages.timeRangeHasCode)
      SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.timeRange, static_cast<unsigned>(E_FAIL));
    else
      SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.timeRange);
    return E_INVALIDARG;
  }
  HistoryValueList* list = nullptr;
  HRESULT hr;
  switch (m_Selection) {
    case Selection::Good: hr = m_pValues->GetGoodValues(m_pTag, start, end, m_Count, &list); break;
    case Selection::Bad: hr = m_pValues->GetBadValues(m_pTag, start, end, m_Count, &list); break;
    default: hr = m_pValues->GetAllValues(m_pTag, start, end, m_Count, &list); break;
  }
  if (FAILED(hr)) {
    FreeHistoryValueList(list);
    FreeTagBlock(&m_pTag);
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.readFailure, static_cast<unsigned>(hr));
    return hr;
  }
  HRESULT rowHr = S_OK;
  if (list && list->values) {
    for (ULONG i = 0; i < list->count && SUCCEEDED(rowHr); ++i) {
      const HistoryValue& sample = list->values[i];
      ProducedRecord row;
      row.reserve(3);
      row.push_back(TimeCell(sample.timestamp));
      row.push_back(UnsignedCell(sample.quality));
      row.emplace_back();
      rowHr = CopyCell(sample.value, &row.back());
      if (SUCCEEDED(rowHr)) AppendRow(std::move(row));
    }
  }
  FreeHistoryValueList(list);
  if (FAILED(rowHr)) {
    FreeTagBlock(&m_pTag);
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.outputFailure, static_cast<unsigned>(rowHr));
    return rowHr;
  }
  if (TimeRangeCount() == 0) {
    SPTRACE(m_szTraceSource, TRACE_INFO, m_Messages.done);
    SetDone();
  } else {
    ContinueReading();
  }
  return S_OK;
}
