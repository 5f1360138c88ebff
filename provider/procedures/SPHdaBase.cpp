#include "provider/procedures/SPHdaBase.h"

#include "SQLParser/QualityText.h"
#include "provider/procedures/SPHdaAnalog.h"
#include "provider/procedures/SPHdaAnalog5.h"
#include "provider/procedures/SPHdaReducedAnalog.h"
#include "provider/procedures/SPHdaReducedAnalog5.h"
#include "provider/procedures/SPHdaBool.h"
#include "provider/procedures/SPHdaBool5.h"
#include "provider/procedures/SPHdaQuality.h"
#include "provider/procedures/SPHdaQuality5.h"

using corvane::WString;
using corvane::platform::CriticalSectionLock;

namespace {

#define HDA_ONE_TAG_MESSAGES(N)                                                                   \
  {OLESTR("[SP] " N " -> Invalid input parameters."),                                             \
   OLESTR("[SP] " N " -> Failed to initialize the aggregates (%X)."),                            \
   OLESTR("[SP] " N " -> Failed to read the data (%X)."),                                        \
   OLESTR("[SP] " N " -> Failed to prepare the output data (%X)."),                              \
   OLESTR("[SP] " N " -> History read done."), nullptr}
// `O` names the procedure in the output and done texts: HDA_REDUCED_ANALOG_5 reports
// those under HDA_ANALOG_5, which existing log filters expect.
#define HDA_FIVE_TAG_MESSAGES(N, O)                                                               \
  {OLESTR("[SP] " N " -> Invalid input parameters."),                                             \
   OLESTR("[SP] " N " -> Failed to initialize the aggregates."),                                 \
   OLESTR("[SP] " N " -> Failed to read the data (%X)."),                                        \
   OLESTR("[SP] " O " -> Failed to prepare the output data (%X)."),                              \
   OLESTR("[SP] " O " -> History read done."),                                                   \
   OLESTR("[SP] " N " -> Invalid tag name parameter (%X).")}

const CSPHdaBase::Messages kAnalog = HDA_ONE_TAG_MESSAGES("HDA_ANALOG");
const CSPHdaBase::Messages kReducedAnalog = HDA_ONE_TAG_MESSAGES("HDA_REDUCED_ANALOG");
const CSPHdaBase::Messages kBool = HDA_ONE_TAG_MESSAGES("HDA_BOOL");
const CSPHdaBase::Messages kQuality = HDA_ONE_TAG_MESSAGES("HDA_QUALITY");
const CSPHdaBase::Messages kAnalog5 = HDA_FIVE_TAG_MESSAGES("HDA_ANALOG_5", "HDA_ANALOG_5");
const CSPHdaBase::Messages kReducedAnalog5 = HDA_FIVE_TAG_MESSAGES("HDA_REDUCED_ANALOG_5", "HDA_ANALOG_5");
const CSPHdaBase::Messages kBool5 = HDA_FIVE_TAG_MESSAGES("HDA_BOOL_5", "HDA_BOOL_5");
const CSPHdaBase::Messages kQuality5 = HDA_FIVE_TAG_MESSAGES("HDA_QUALITY_5", "HDA_QUALITY_5");

}  // namespace

// The procedures differ only in their trace file, aggregate family, tag count and
// messages.
#define HDA_PROCEDURE(Class, Kind, FiveTags, Messages)                                                   \
  C##Class::C##Class(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context, \
                     IProviderDataSource* dataSource, WString catalog, WString schema)                   \
      : CSPHdaBase(#Class ".cpp", HdaKind::Kind, FiveTags, Messages, query, item, context, dataSource,    \
                   std::move(catalog), std::move(schema)) {}

HDA_PROCEDURE(SPHdaAnalog, Analog, false, kAnalog)
HDA_PROCEDURE(SPHdaAnalog5, Analog, true, kAnalog5)
HDA_PROCEDURE(SPHdaReducedAnalog, ReducedAnalog, false, kReducedAnalog)
HDA_PROCEDURE(SPHdaReducedAnalog5, ReducedAnalog, true, kReducedAnalog5)
HDA_PROCEDURE(SPHdaBool, Bool, false, kBool)
HDA_PROCEDURE(SPHdaBool5, Bool, true, kBool5)
HDA_PROCEDURE(SPHdaQuality, Quality, false, kQuality)
HDA_PROCEDURE(SPHdaQuality5, Quality, true, kQuality5)

#undef HDA_PROCEDURE

CSPHdaBase::CSPHdaBase(const char* traceSource, HdaKind kind, bool fiveTags, const Messages& messages,
                       const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                       IProviderDataSource* dataSource, WString catalog, WString schema)
    : CBaseStoredProcedure(traceSource, query, item, context, dataSource, std::move(catalog), std::move(schema)),
      m_Family(GetHdaFamily(kind)),
      m_bFiveTags(fiveTags),
      m_Messages(messages) {}

CSPHdaBase::~CSPHdaBase() {
  StopWorker();
  FreeTagBlock(&m_pTag);
}

HRESULT CSPHdaBase::Initialize() {
  const size_t count = m_bFiveTags ? 8 : 4;
  HRESULT hr = ProcessParameters(count, Info().Parameters);
  if (FAILED(hr)) return hr;
  hr = BuildTimeRanges(1, 2, 3);
  if (FAILED(hr)) return hr;
  if (!HasAllParameters(count)) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.invalidInput);
    return E_INVALIDARG;
  }
  if (!m_bFiveTags) {
    hr = ParseTagParameter(&m_pTag);
    if (FAILED(hr)) return hr;
  }
  hr = StartWorker();
  if (FAILED(hr)) return hr;
  SignalWorker();
  return S_OK;
}

HRESULT CSPHdaBase::ExecuteStep() { return m_bFiveTags ? StepFiveTags() : StepOneTag(); }

HRESULT CSPHdaBase::AddTagColumns(const ProcessedResult* result, ULONG i, const std::vector<HdaColumn>& layout,
                                  ProducedRecord* row) {
  for (const HdaColumn& c : layout) {
    const ProcessedResult& entry = result[c.aggregate];
    if (!entry.values || i >= entry.count) {
      row->emplace_back();  // this aggregate has no such interval: null
      continue;
    }
    const HistoryValue& v = entry.values[i];
    switch (c.field) {
      case HdaField::Value: {
        row->emplace_back();
        const HRESULT hr = CopyCell(v.value, &row->back());
        if (FAILED(hr)) return hr;
        break;
      }
      case HdaField::Status: row->push_back(UnsignedCell(v.quality)); break;
      case HdaField::StatusStr:
      case HdaField::ValueStr: row->push_back(StatusTextCell(v.quality)); break;
      case HdaField::Timestamp: row->push_back(TimeCell(v.timestamp)); break;
    }
  }
  return S_OK;
}

StoreValue CSPHdaBase::StatusTextCell(ULONG quality) {
  const WString* text = nullptr;
  for (const auto& known : m_StatusTexts) {
    if (known.first == quality) {
      text = &known.second;
      break;
    }
  }
  if (!text) {
    if (m_StatusTexts.size() >= kRemembered) return TextCell(corvane::QualityToStr2(quality).c_str());
    m_StatusTexts.emplace_back(quality, corvane::QualityToStr2(quality));
    text = &m_StatusTexts.back().second;
  }
  StoreValue cell;
  cell.SetText(text->data(), text->size());
  return cell;
}

HRESULT CSPHdaBase::StepOneTag() {
  CriticalSectionLock lock(StateLock());
  const ULONG n = static_cast<ULONG>(m_Family.aggregates.size());
  ProcessedReadRequest request{};
  HRESULT hr = PrepareProcessedRequest(true, &request);
  if (FAILED(hr)) {
    FreeTagBlock(&m_pTag);
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.aggregates, static_cast<unsigned>(hr));
    return hr;
  }
  ProcessedResult* result = nullptr;
  hr = m_pProcessed ? m_pProcessed->ReadProcessed(m_pTag, &request, n, m_Family.aggregates.data(), &result)
                    : E_POINTER;
  if (FAILED(hr)) {
    FreeProcessedResult(result, n);
    FreeTagBlock(&m_pTag);
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.read, static_cast<unsigned>(hr));
    return hr;
  }
  HRESULT rowHr = result ? S_OK : E_INVALIDARG;
  const ULONG intervals = result && result[0].values ? result[0].count : 0;
  for (ULONG i = 0; i < intervals && SUCCEEDED(rowHr); ++i) {
    ProducedRecord row;
    row.reserve(1 + m_Family.columns.size());
    const ProcessedResult& stamp = result[m_Family.timestampAggregate];
    if (stamp.values && i < stamp.count)
      row.push_back(TimeCell(stamp.values[i].timestamp));
    else
      row.emplace_back();
    rowHr = AddTagColumns(result, i, m_Family.columns, &row);
    if (SUCCEEDED(rowHr)) AppendRow(std::move(row));
  }
  FreeProcessedResult(result, n);
  if (FAILED(rowHr)) {
    SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.output, static_cast<unsigned>(rowHr));
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

HRESULT CSPHdaBase::StepFiveTags() {
  CriticalSectionLock lock(StateLock());
  const ULONG n = static_cast<ULONG>(m_Family.aggregates.size());
  const size_t perTag = m_Family.columns5.size();
  HRESULT stepResult = S_OK;
  bool consumed = false;
  ProducedRecordList rows;
  for (long position = 4; position <= 8; ++position) {
    const WString text = TextParameter(position);
    ProcessedResult* result = nullptr;
    if (!text.empty()) {
      TagIdent tag;
      HRESULT hr = MakeTagIdent(text, &tag);
      if (FAILED(hr)) {
        SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.tagName, static_cast<unsigned>(hr));
        stepResult = hr;
      } else {
        ProcessedReadRequest request{};
        hr = PrepareProcessedRequest(position == 8, &request);
        if (position == 8 && SUCCEEDED(hr)) consumed = true;
        if (FAILED(hr)) {
          ClearTagIdent(&tag);
          SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.aggregates);
          stepResult = hr;
        } else {
          hr = m_pProcessed ? m_pProcessed->ReadProcessed(&tag, &request, n, m_Family.aggregates.data(), &result)
                            : E_POINTER;
          ClearTagIdent(&tag);
          if (FAILED(hr)) {
            FreeProcessedResult(result, n);
            result = nullptr;
            SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.read, static_cast<unsigned>(hr));
            stepResult = hr;
          }
        }
      }
    }
    HRESULT rowHr = result ? S_OK : E_INVALIDARG;
    if (result) {
      const ULONG intervals = result[0].values ? result[0].count : 0;
      if (position == 4) {
        for (ULONG i = 0; i < intervals && SUCCEEDED(rowHr); ++i) {
          ProducedRecord row;
          row.reserve(1 + 5 * perTag);
          const ProcessedResult& stamp = result[m_Family.timestampAggregate];
          if (stamp.values && i < stamp.count)
            row.push_back(TimeCell(stamp.values[i].timestamp));
          else
            row.emplace_back();
          rowHr = AddTagColumns(result, i, m_Family.columns5, &row);
          if (SUCCEEDED(rowHr)) rows.push_back(std::move(row));
        }
      } else {
        // A later tag extends only the rows the first tag made; extra intervals are dropped.
        for (ULONG i = 0; i < intervals && i < rows.size() && SUCCEEDED(rowHr); ++i)
          rowHr = AddTagColumns(result, i, m_Family.columns5, &rows[i]);
      }
    }
    FreeProcessedResult(result, n);
    if (FAILED(rowHr)) SPTRACE(m_szTraceSource, TRACE_ERROR, m_Messages.output, static_cast<unsigned>(rowHr));
    // Every row carries all five tags' columns: what a tag could not fill stays null.
    const size_t width = 1 + static_cast<size_t>(position - 3) * perTag;
    for (ProducedRecord& row : rows) row.resize(width);
  }
  // Without a fifth tag the chunk would never be consumed and the procedure would read
  // the same chunk for ever; the step always moves on.
  if (!consumed) PopTimeRange(nullptr, nullptr);
  if (!rows.empty()) AppendRecords(std::move(rows));
  if (FAILED(stepResult)) return stepResult;
  if (TimeRangeCount() == 0) {
    SPTRACE(m_szTraceSource, TRACE_INFO, m_Messages.done);
    SetDone();
  } else {
    ContinueReading();
  }
  return S_OK;
}
