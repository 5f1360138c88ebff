#include "provider/procedures/SPRawData.h"

using corvane::WString;
using corvane::platform::CriticalSectionLock;

namespace {
constexpr const char* kSource = "SPRawData.cpp";

bool IsBlank(OLECHAR c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }
}  // namespace

CSPRawData::CSPRawData(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                       IProviderDataSource* dataSource, WString catalog, WString schema)
    : CBaseStoredProcedure(kSource, query, item, context, dataSource, std::move(catalog), std::move(schema)) {}

CSPRawData::~CSPRawData() {
  StopWorker();
  ReleaseContinuation();
  ClearTags();
}

bool CSPRawData::IsRunning() {
  if (CBaseStoredProcedure::IsRunning()) return true;
  CriticalSectionLock lock(StateLock());
  return m_pContinuation != nullptr && SUCCEEDED(LastResult());
}

std::vector<WString> CSPRawData::TagNames() {
  CriticalSectionLock lock(StateLock());
  std::vector<WString> names;
  for (const TagIdent& t : m_Tags) names.emplace_back(t.tagName);
  return names;
}

void CSPRawData::ClearTags() {
  for (TagIdent& t : m_Tags) ClearTagIdent(&t);
  m_Tags.clear();
}

void CSPRawData::ReleaseContinuation() {
  if (m_pContinuation && m_pRaw) m_pRaw->ReleaseContinuationPoint(&m_pContinuation);
  m_pContinuation = nullptr;
}

HRESULT CSPRawData::ParseTagList(const WString& text) {
  size_t pos = 0;
  const size_t n = text.size();
  for (;;) {
    while (pos < n && text[pos] == ';') ++pos;  // runs of delimiters are skipped
    if (pos >= n) break;
    size_t stop = text.find(OLECHAR(';'), pos);
    if (stop == WString::npos) stop = n;
    size_t b = pos, e = stop;
    while (b < e && IsBlank(text[b])) ++b;
    while (e > b && IsBlank(text[e - 1])) --e;
    pos = stop;
    if (b == e) break;  // a blank token ends the list
    TagIdent tag;
    if (FAILED(MakeTagIdent(text.substr(b, e - b), &tag))) {
      ClearTags();
      return E_FAIL;
    }
    m_Tags.push_back(tag);
  }
  return S_OK;
}

HRESULT CSPRawData::Initialize() {
  HRESULT hr = ProcessParameters(3, Info().Parameters);
  if (FAILED(hr)) return hr;
  hr = BuildTimeRanges(1, 2, -1);
  if (FAILED(hr)) return hr;
  if (!HasAllParameters(3)) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] SP_RAWDATA -> Invalid input parameters."));
    return E_INVALIDARG;
  }
  if (FAILED(PopTimeRange(&m_Start, &m_End))) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] SP_RAWDATA -> Invalid time range parameter."));
    return E_INVALIDARG;
  }
  LONG maxRows = 0;
  hr = m_pDataSource ? m_pDataSource->GetMaxRowsToReturn(&maxRows) : E_POINTER;
  if (FAILED(hr)) {
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] SP_RAWDATA -> Failed to get value of the MAX_ROWS_TO_RETURN parameter."));
    return hr;
  }
  m_MaxValues = maxRows > 0 ? static_cast<ULONG>(maxRows) : 0;
  m_CurrentTag = 0;
  {
    CriticalSectionLock lock(StateLock());
    if (FAILED(ParseTagList(TextParameter(3)))) {
      SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] SP_RAWDATA -> Invalid tags names parameter."));
      return E_INVALIDARG;
    }
    if (m_Tags.empty()) {
      // Nothing to read: the result is complete and empty.
      SPTRACE(kSource, TRACE_INFO, OLESTR("[SP] SP_RAWDATA -> History read done."));
      SetMoreData(false);
      return S_OK;
    }
  }
  hr = StartWorker();
  if (FAILED(hr)) return hr;
  SignalWorker();
  return S_OK;
}

HRESULT CSPRawData::ExecuteStep() {
  CriticalSectionLock lock(StateLock());
  if (m_CurrentTag >= m_Tags.size()) {
    SetDone();
    return S_OK;
  }
  const TagIdent& tag = m_Tags[m_CurrentTag];
  HistoryValueList* list = nullptr;
  HRESULT hr = m_pRaw ? m_pRaw->ReadRaw(&tag, m_Start, m_End, m_MaxValues, kRawReadIncludeBounds, &m_pContinuation,
                                        &list)
                      : E_POINTER;
  if (FAILED(hr)) {
    FreeHistoryValueList(list);
    ReleaseContinuation();
    ClearTags();
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] SP_RAWDATA -> Failed to read the history data (%X)."),
            static_cast<unsigned>(hr));
    return hr;
  }
  HRESULT rowHr = S_OK;
  if (list && list->values) {
    for (ULONG i = 0; i < list->count && SUCCEEDED(rowHr); ++i) {
      const HistoryValue& sample = list->values[i];
      ProducedRecord row;
      row.reserve(4);
      row.push_back(TimeCell(sample.timestamp));
      row.push_back(TextCell(tag.tagName));
      row.push_back(UnsignedCell(sample.quality));
      row.emplace_back();
      rowHr = CopyCell(sample.value, &row.back());
      if (SUCCEEDED(rowHr)) AppendRow(std::move(row));
    }
  }
  FreeHistoryValueList(list);
  if (FAILED(rowHr)) {
    ReleaseContinuation();
    ClearTags();
    SPTRACE(kSource, TRACE_ERROR, OLESTR("[SP] SP_RAWDATA -> Failed to prepare the output data (%X)."),
            static_cast<unsigned>(rowHr));
    return rowHr;
  }
  if (!m_pContinuation) {
    ++m_CurrentTag;
    if (m_CurrentTag >= m_Tags.size()) {
      SPTRACE(kSource, TRACE_INFO, OLESTR("[SP] SP_RAWDATA -> History read done."));
      SetDone();
      return S_OK;
    }
  }
  ContinueReading();
  return S_OK;
}
