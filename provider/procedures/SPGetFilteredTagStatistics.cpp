#include "provider/procedures/SPGetFilteredTagStatistics.h"

#include <cstring>

using corvane::WString;
using corvane::platform::CriticalSectionLock;

namespace {
constexpr const char* kSource = "SPGetFilteredTagStatistics.cpp";
}

CSPGetFilteredTagStatistics::CSPGetFilteredTagStatistics(const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                                         const SQLBindContext& context,
                                                         IProviderDataSource* dataSource, WString catalog,
                                                         WString schema)
    : CBaseStoredProcedure(kSource, query, item, context, dataSource, std::move(catalog), std::move(schema)) {}

CSPGetFilteredTagStatistics::~CSPGetFilteredTagStatistics() {
  StopWorker();
  ReleaseContinuation();
  FreeRequest();
}

bool CSPGetFilteredTagStatistics::IsRunning() {
  if (CBaseStoredProcedure::IsRunning()) return true;
  CriticalSectionLock lock(StateLock());
  return m_pContinuation != nullptr && SUCCEEDED(LastResult());
}

void CSPGetFilteredTagStatistics::ReleaseContinuation() {
  if (m_pContinuation && m_pRaw) m_pRaw->ReleaseContinuationPoint(&m_pContinuation);
  m_pContinuation = nullptr;
}

void CSPGetFilteredTagStatistics::FreeRequest() {
  CoTaskMemFree(m_pRequest);
  m_pRequest = nullptr;
}

HRESULT CSPGetFilteredTagStatistics::Initialize() {
  HRESULT hr = ProcessParameters(6, Info().Parameters);
  if (FAILED(hr)) return hr;
  hr = BuildTimeRanges(4, 5, -1);
  if (FAILED(hr)) return hr;
  if (!HasAllParameters(6)) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] GET_FILTERED_TAG_STATISTICS -> Invalid input parameters."));
    return E_INVALIDARG;
  }
  m_pRequest = static_cast<ProcessedReadRequest*>(CoTaskMemAlloc(sizeof(ProcessedReadRequest)));
  if (!m_pRequest) return E_OUTOFMEMORY;
  std::memset(m_pRequest, 0, sizeof(ProcessedReadRequest));
  hr = PrepareProcessedRequest(true, m_pRequest);
  if (FAILED(hr)) {
    FreeRequest();
    return hr;
  }
  m_Filter1 = TextParameter(1);
  m_Filter2 = TextParameter(2);
  m_Filter3 = TextParameter(3);
  m_Start = TimeParameter(4);
  m_End = TimeParameter(5);
  const ParamValue* maxNames = Parameter(6);
  m_MaxNames = maxNames && maxNames->Kind == ParamValue::kInteger ? maxNames->Integer : 0;
  hr = StartWorker();
  if (FAILED(hr)) return hr;
  SignalWorker();
  return S_OK;
}

HRESULT CSPGetFilteredTagStatistics::ExecuteStep() {
  CriticalSectionLock lock(StateLock());
  ULONG count = 0;
  BSTR* names = nullptr;
  HistoryValueList* values = nullptr;
  HRESULT hr = m_pProcessed && m_pRequest
                   ? m_pProcessed->GetFilteredTagStatistics(m_Filter1.c_str(), m_Filter2.c_str(), m_Filter3.c_str(),
                                                            m_Start, m_End, m_pRequest, m_MaxNames, &m_pContinuation,
                                                            0, &count, &names, &values)
                   : E_POINTER;
  if (FAILED(hr)) {
    ReleaseContinuation();
    FreeRequest();
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] GET_FILTERED_TAG_STATISTICS -> Failed to read the data (%X)."),
            static_cast<unsigned>(hr));
    // A failing host may still have handed something out.
    FreeHistoryValueList(values);
    if (names) {
      for (ULONG i = 0; i < count; ++i) SysFreeString(names[i]);
      CoTaskMemFree(names);
    }
    return hr;
  }
  HRESULT rowHr = S_OK;
  if (count > 0 && (!names || !values || !values->values || values->count < 4 * count)) rowHr = E_INVALIDARG;
  for (ULONG i = 0; i < count && SUCCEEDED(rowHr); ++i) {
    ProducedRecord row;
    row.reserve(9);
    row.push_back(TextCell(names[i]));
    for (ULONG k = 0; k < 4 && SUCCEEDED(rowHr); ++k) {
      const HistoryValue& v = values->values[4 * i + k];
      row.emplace_back();
      rowHr = CopyCell(v.value, &row.back());
      row.push_back(UnsignedCell(v.quality));
    }
    if (SUCCEEDED(rowHr)) AppendRow(std::move(row));
  }
  FreeHistoryValueList(values);
  if (names) {
    for (ULONG i = 0; i < count; ++i) SysFreeString(names[i]);
    CoTaskMemFree(names);
  }
  if (FAILED(rowHr)) {
    ReleaseContinuation();
    FreeRequest();
    SPTRACE(kSource, TRACE_ERROR,
            OLESTR("[SP] GET_FILTERED_TAG_STATISTICS -> Failed to prepare the output data (%X)."),
            static_cast<unsigned>(rowHr));
    return rowHr;
  }
  if (!m_pContinuation) {
    SPTRACE(kSource, TRACE_INFO, OLESTR("[SP] GET_FILTERED_TAG_STATISTICS -> History read done."));
    SetDone();
  } else {
    ContinueReading();
  }
  return S_OK;
}
