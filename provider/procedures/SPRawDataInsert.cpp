#include "provider/procedures/SPRawDataInsert.h"

#include "provider/procedures/SPRawDataUpdate.h"

using corvane::WString;

namespace {
const CSPRawDataInsert::Messages kInsertMessages = {
    OLESTR("[SP] RAWDATA_INSERT -> Invalid input parameters."),
    OLESTR("[SP] RAWDATA_INSERT -> Invalid tag name parameter (%X)."),
    OLESTR("[SP] RAWDATA_INSERT -> Invalid value parameters (%X)."),
    OLESTR("[SP] RAWDATA_INSERT -> Failed to insert the value (%X).")};
const CSPRawDataInsert::Messages kUpdateMessages = {
    OLESTR("[SP] RAWDATA_UPDATE -> Invalid input parameters."),
    OLESTR("[SP] RAWDATA_UPDATE -> Invalid tag name parameter (%X)."),
    OLESTR("[SP] RAWDATA_UPDATE -> Invalid value parameters (%X)."),
    OLESTR("[SP] RAWDATA_UPDATE -> Failed to update the value (%X).")};
}  // namespace

CSPRawDataInsert::CSPRawDataInsert(const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                   const SQLBindContext& context, IProviderDataSource* dataSource, WString catalog,
                                   WString schema)
    : CSPRawDataInsert("SPRawDataInsert.cpp", false, kInsertMessages, query, item, context, dataSource,
                       std::move(catalog), std::move(schema)) {}

CSPRawDataInsert::CSPRawDataInsert(const char* traceSource, bool update, const Messages& messages,
                                   const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                   const SQLBindContext& context, IProviderDataSource* dataSource, WString catalog,
                                   WString schema)
    : CBaseStoredProcedure(traceSource, query, item, context, dataSource, std::move(catalog), std::move(schema)),
      m_bUpdate(update),
      m_Messages(messages) {}

CSPRawDataUpdate::CSPRawDataUpdate(const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                                   const SQLBindContext& context, IProviderDataSource* dataSource, WString catalog,
                                   WString schema)
    : CSPRawDataInsert("SPRawDataUpdate.cpp", true, kUpdateMessages, query, item, context, dataSource,
                       std::move(catalog), std::move(schema)) {}

WString CSPRawDataInsert::ResultText(HRESULT hr) const {
  if (SUCCEEDED(hr)) return OLESTR("1 row inserted.");
  if (hr == HIST_E_TAG_NOT_FOUND) return OLESTR("0 row inserted (Specified tag not found).");
  if (hr == HIST_E_DATA_ALREADY_PRESENT) return OLESTR("0 row inserted (Data already exists).");
  return corvane::WFormat(OLESTR("0 row inserted (%X)."), static_cast<unsigned>(hr));
}

WString CSPRawDataUpdate::ResultText(HRESULT hr) const {
  if (SUCCEEDED(hr)) return OLESTR("1 row updated.");
  if (hr == HIST_E_TAG_NOT_FOUND) return OLESTR("0 row updated (Specified tag not found).");
  if (hr == HIST_E_DATA_NOT_FOUND) return OLESTR("0 row updated (Specified data not found).");
  return corvane::WFormat(OLESTR("0 row updated (%X)."), static_cast<unsigned>(hr));
}

HRESULT CSPRawDataInsert::Initialize() {
  HRESULT hr = ProcessParameters(4, Info().Parameters);
  if (FAILED(hr)) return hr;
  if (!HasAllParameters(4)) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.invalidInput);
    return E_INVALIDARG;
  }
  TagIdent tag;
  hr = MakeTagIdent(TextParameter(1), &tag);
  if (FAILED(hr)) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.tagName, static_cast<unsigned>(hr));
    return hr;
  }
  HistoryValue sample;
  hr = ParseWriteValue(&sample);
  if (FAILED(hr)) {
    ClearTagIdent(&tag);
    VariantClear(&sample.value);
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.value, static_cast<unsigned>(hr));
    return hr;
  }
  HRESULT written = E_POINTER;
  if (m_pRaw) written = m_bUpdate ? m_pRaw->UpdateValue(&tag, &sample) : m_pRaw->InsertValue(&tag, &sample);
  ClearTagIdent(&tag);
  VariantClear(&sample.value);
  if (FAILED(written)) SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.writeFailure, static_cast<unsigned>(written));

  const WString text = ResultText(written);
  ProducedRecord row;
  row.push_back(TextCell(text.c_str()));
  AppendRow(std::move(row));
  SetMoreData(false);
  return S_OK;
}
