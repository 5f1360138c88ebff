#include "provider/tables/TableRawData.h"

#include "provider/ErrorReporting.h"
#include "provider/Trace.h"

using corvane::platform::CriticalSectionLock;

namespace {
constexpr DWORD kBadInvalidArgument = 0x80AB0000u;
}

CTableRawData::CTableRawData(const TableCreateArgs& args) : CTableRawData(OLESTR("RAWDATA"), args, {VT_EMPTY, nullptr}) {
  m_bTyped = false;
}

CTableRawData::CTableRawData(const OLECHAR* name, const TableCreateArgs& args, const Conversion& conversion)
    : CBaseTable(name, [name] {
        TableInfo info;
        CTableFactory::GetTableInfo(name, &info);
        return info.Columns;
      }()),
      m_pDataSource(args.dataSource),
      m_Catalog(args.catalog),
      m_Schema(args.schema),
      m_TagNames(args.tagNames),
      m_Start(args.start),
      m_End(args.end),
      m_bTyped(conversion.type != VT_EMPTY),
      m_Conversion(conversion) {
  if (m_pDataSource) m_pDataSource->AddRef();
}

CTableRawData::~CTableRawData() {
  // The worker may be inside Step until it is gone.
  StopWorker();
  ReleaseContinuationPoint();
  FreeRequests();
  if (m_pRaw) m_pRaw->Release();
  if (m_pDataSource) m_pDataSource->Release();
}

void CTableRawData::ReleaseContinuationPoint() {
  if (m_pContinuationPoint && m_pRaw) m_pRaw->ReleaseContinuationPoint(&m_pContinuationPoint);
  m_pContinuationPoint = nullptr;
}

void CTableRawData::FreeRequests() {
  for (TagIdent* tag : m_Requests) FreeTagIdent(tag);
  m_Requests.clear();
}

bool CTableRawData::HasMoreData() {
  CriticalSectionLock lock(StateLock());
  return CBaseTable::HasMoreData() || m_pContinuationPoint != nullptr;
}

HRESULT CTableRawData::Prepare() {
  m_CurrentRequest = 0;
  if (!m_pDataSource) return E_INVALIDARG;
  LONG maxRows = 0;
  HRESULT hr = m_pDataSource->GetMaxRowsToReturn(&maxRows);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] RAWDATA -> Failed to get value of the MAX_ROWS_TO_RETURN parameter."));
    return hr;
  }
  m_MaxRowsToReturn = static_cast<ULONG>(maxRows);
  hr = m_pDataSource->GetRawDataProvider(&m_pRaw);
  if (FAILED(hr)) return hr;
  if (!m_pRaw) return E_FAIL;

  if (m_TagNames.empty()) {
    // No tag in the WHERE clause: every tag the historian lists, when that is allowed.
    LONG allowEmpty = 0;
    hr = m_pDataSource->GetAllowEmptyTag(&allowEmpty);
    if (FAILED(hr)) return hr;
    if (!allowEmpty) {
      CVTRACE(TRACE_ERROR, OLESTR("[TABLE] RAWDATA -> No tag name given and ALLOW_EMPTY_TAG is 0."));
      return CORVANE_E_MISSING_PARAMETER;
    }
    ULONG count = 0;
    TagRecord* tags = nullptr;
    BOOL truncated = FALSE;
    hr = m_pRaw->BrowseTags(nullptr, nullptr, &count, &tags, &truncated);
    if (FAILED(hr)) {
      CVTRACE(TRACE_ERROR, OLESTR("[TABLE] RAWDATA -> Failed to read the history data (%X)."), hr);
      return hr;
    }
    for (ULONG i = 0; tags && i < count; ++i) m_TagNames.emplace_back(tags[i].name ? tags[i].name : OLESTR(""));
    FreeTagRecords(tags, count);
  }

  for (const corvane::WString& name : m_TagNames) {
    TagIdent* tag = nullptr;
    hr = MakeTaskTagIdent(m_Catalog.c_str(), m_Schema.c_str(), name.c_str(), &tag);
    if (FAILED(hr)) {
      FreeRequests();
      CVTRACE(TRACE_ERROR, OLESTR("[TABLE] RAWDATA -> Failed to prepare the output data (%X)."), hr);
      return hr;
    }
    m_Requests.push_back(tag);
  }
  if (m_Requests.empty()) {
    FinishProducing();
    return S_OK;
  }
  hr = StartWorker();
  if (FAILED(hr)) return hr;
  SignalWorker();
  return S_OK;
}

HRESULT CTableRawData::Step() {
  CriticalSectionLock lock(StateLock());
  if (m_CurrentRequest >= m_Requests.size()) {
    FinishProducing();
    return S_OK;
  }
  const corvane::WString& tagName = m_TagNames[m_CurrentRequest];
  HistoryValueList* list = nullptr;
  HRESULT hr = m_pRaw->ReadRaw(m_Requests[m_CurrentRequest], m_Start, m_End, m_MaxRowsToReturn,
                               kRawReadIncludeBounds, &m_pContinuationPoint, &list);
  bool readFailed = FAILED(hr);
  if (!readFailed && !list) {
    hr = E_INVALIDARG;
    readFailed = true;
  }
  if (!readFailed) {
    ProducedRecordList records;
    records.reserve(list->count);
    for (ULONG i = 0; i < list->count && SUCCEEDED(hr); ++i) {
      const HistoryValue& sample = list->values[i];
      ProducedRecord record(4);
      VARIANT converted;
      VariantInit(&converted);
      DWORD quality = 0;
      hr = ConvertValue(sample.value, sample.quality, &converted, &quality);
      if (FAILED(hr)) break;
      hr = S_OK;
      BSTR name = SysAllocStringLen(tagName.data(), static_cast<UINT>(tagName.size()));
      if (!name) {
        VariantClear(&converted);
        hr = E_OUTOFMEMORY;
        break;
      }
      VARIANT text;
      V_VT(&text) = VT_BSTR;
      V_BSTR(&text) = name;
      record[0] = StoreValue::TakeVariant(&text);
      record[1] = StoreValue::FromTime(sample.timestamp);
      VARIANT q;
      V_VT(&q) = VT_UI4;
      V_UI4(&q) = quality;
      record[2] = StoreValue::TakeVariant(&q);
      record[3] = StoreValue::TakeVariant(&converted);
      records.push_back(std::move(record));
    }
    FreeHistoryValueList(list);
    if (SUCCEEDED(hr)) AppendRecords(std::move(records));
  }
  if (FAILED(hr)) {
    ReleaseContinuationPoint();
    FreeRequests();
    if (readFailed)
      CVTRACE(TRACE_ERROR, OLESTR("[TABLE] RAWDATA -> Failed to read the history data (%X)."), hr);
    else
      CVTRACE(TRACE_ERROR, OLESTR("[TABLE] RAWDATA -> Failed to prepare the output data (%X)."), hr);
    SetMoreData(false);
    return hr;
  }
  if (!m_pContinuationPoint) {
    ++m_CurrentRequest;
    if (m_CurrentRequest >= m_Requests.size()) {
      CVTRACE(TRACE_INFO, OLESTR("[TABLE] RAWDATA -> History read done."));
      FinishProducing();
      return S_OK;
    }
  }
  // An empty page would leave the consumer waiting for a signal that only taken rows give.
  if (QueuedRecordCount() == 0) SignalWorker();
  return S_OK;
}

HRESULT CTableRawData::ConvertValue(const VARIANT& value, DWORD quality, VARIANT* outValue, DWORD* outQuality) {
  if (!outValue || !outQuality) return E_INVALIDARG;
  if (m_bTyped) return ConvertTyped(value, quality, outValue, outQuality);
  VariantInit(outValue);
  const HRESULT hr = VariantCopy(outValue, const_cast<VARIANT*>(&value));
  if (FAILED(hr)) return hr;
  *outQuality = quality;
  return S_OK;
}

HRESULT CTableRawData::ConvertTyped(const VARIANT& value, DWORD quality, VARIANT* outValue, DWORD* outQuality) {
  VariantInit(outValue);
  HRESULT hr = VariantCopy(outValue, const_cast<VARIANT*>(&value));
  if (FAILED(hr)) return hr;
  *outQuality = quality;
  hr = VariantChangeType(outValue, outValue, 0, m_Conversion.type);
  if (SUCCEEDED(hr)) return S_OK;

  VariantClear(outValue);
  V_VT(outValue) = m_Conversion.type;
  switch (m_Conversion.type) {
    case VT_BSTR:
      V_BSTR(outValue) = SysAllocString(OLESTR(""));
      if (!V_BSTR(outValue)) {
        V_VT(outValue) = VT_EMPTY;
        return E_OUTOFMEMORY;
      }
      break;
    case VT_BOOL: V_BOOL(outValue) = VARIANT_FALSE; break;
    case VT_R4: V_R4(outValue) = 0; break;
    case VT_R8: V_R8(outValue) = 0; break;
    default: V_I8(outValue) = 0; break;  // every integer width is zero through the widest member
  }
  // Reported bad even when the historian called it good: the value shown is not the sample's.
  *outQuality = kBadInvalidArgument;
  CVTRACE(TRACE_WARNING, m_Conversion.failureMessage, hr);
  return S_FALSE;
}
