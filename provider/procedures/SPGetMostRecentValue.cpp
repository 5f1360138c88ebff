#include "provider/procedures/SPGetMostRecentValue.h"

using corvane::WString;

namespace {
constexpr const char* kSource = "SPGetMostRecentValue.cpp";
}

CSPGetMostRecentValue::CSPGetMostRecentValue(const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                             const SQLBindContext& context, IProviderDataSource* dataSource,
                                             WString catalog, WString schema)
    : CBaseStoredProcedure(kSource, query, item, context, dataSource, std::move(catalog), std::move(schema)) {}

HRESULT CSPGetMostRecentValue::Initialize() {
  HRESULT hr = ProcessParameters(1, Info().Parameters);
  if (FAILED(hr)) return hr;
  if (!HasAllParameters(1)) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] GET_MOST_RECENT_VALUE -> Invalid input parameters."));
    return E_INVALIDARG;
  }
  if (!m_pValues) {
    SPTRACE(kSource, TRACE_ERROR,
            OLESTR("[SP] GET_MOST_RECENT_VALUE -> IValuesProvider is not initialized. Failed to execute the stored "
                   "procedure."));
    return kValuesProviderMissing;
  }
  TagIdent tag;
  hr = MakeTagIdent(TextParameter(1), &tag);
  if (FAILED(hr)) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] GET_MOST_RECENT_VALUE -> Invalid tag name parameter (%X)."),
            static_cast<unsigned>(hr));
    return hr;
  }
  HistoryValue* sample = nullptr;
  hr = m_pValues->GetMostRecentValue(&tag, &sample);
  ClearTagIdent(&tag);
  if (FAILED(hr)) {
    FreeHistoryValue(sample);
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] GET_MOST_RECENT_VALUE -> Failed to read the data (%X)."),
            static_cast<unsigned>(hr));
    return hr;
  }
  if (!sample) {
    SPTRACE(kSource, TRACE_NOTICE, OLESTR("[SP] GET_MOST_RECENT_VALUE -> There were no data."));
    SetMoreData(false);
    return S_OK;
  }
  ProducedRecord row;
  row.push_back(TimeCell(sample->timestamp));
  row.push_back(UnsignedCell(sample->quality));
  row.emplace_back();
  hr = CopyCell(sample->value, &row.back());
  FreeHistoryValue(sample);
  if (FAILED(hr)) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] GET_MOST_RECENT_VALUE -> Failed to prepare the output data (%X)."),
            static_cast<unsigned>(hr));
    return hr;
  }
  AppendRow(std::move(row));
  SetMoreData(false);
  return S_OK;
}
