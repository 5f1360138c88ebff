#include "provider/tables/TableRawData.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "provider/ErrorReporting.h"
#include "provider/store/DataConvert.h"
#include "base/Trace.h"

using corvane::platform::CriticalSectionLock;

namespace {
constexpr DWORD kBadInvalidArgument = 0x80AB0000u;

// A value that moving out of the page gives exactly what copying it would: numbers,
// dates and strings. Anything else goes through VariantCopy, which refuses what the
// rows cannot hold.
bool Movable(VARTYPE vt) {
  switch (vt) {
    case VT_EMPTY: case VT_NULL: case VT_I2: case VT_I4: case VT_R4: case VT_R8: case VT_CY: case VT_DATE:
    case VT_BSTR: case VT_ERROR: case VT_BOOL: case VT_I1: case VT_UI1: case VT_UI2: case VT_UI4: case VT_I8:
    case VT_UI8: case VT_INT: case VT_UINT:
      return true;
    default:
      return false;
  }
}
// The types whose value is its bytes: nothing a conversion to the same type could change.
bool Plain(VARTYPE vt) { return vt != VT_BSTR && Movable(vt); }

// A page of samples as the historian gave it, its values already converted for the
// table, handed to the fetch whole: the store reads the rows' cells straight from the
// page, or has records made from it, on the fetch's thread. The text-typed table's
// numbers are written as text here, on the worker, into one buffer for the page.
class CRawPageBatch : public CRecordBatch {
 public:
  CRawPageBatch(HistoryValueList* page, const corvane::WString& tagName) : m_pPage(page) {
    // The tag's name lives unchanged as long as the table (the names are settled in
    // Prepare), so the rows only point at it.
    m_TagName.SetText(tagName.data(), tagName.size(), true);
  }
  ~CRawPageBatch() override {
    // FreeHistoryValueList without its call to VariantClear for every value: nearly all
    // own nothing, and the page is freed on the fetch's thread, which sets the pace. A
    // page the worker found owning nothing is not even looked at.
    for (ULONG i = 0; m_bOwning && i < m_pPage->count; ++i) {
      VARIANT& value = m_pPage->values[i].value;
      if (!CRefCountedDataStoreRow::OwnsNothing(V_VT(&value))) VariantClear(&value);
    }
    CoTaskMemFree(m_pPage->values);
    CoTaskMemFree(m_pPage);
  }
  CRawPageBatch(const CRawPageBatch&) = delete;
  CRawPageBatch& operator=(const CRawPageBatch&) = delete;

  size_t Count() const override { return m_pPage->count; }
  // The worker has looked at every value: `owning` says whether any owns memory.
  void SetOwning(bool owning) { m_bOwning = owning; }

  // Room for the next sample's value as text (null when memory runs out); KeepText
  // makes it sample i's value, and EndTexts ends the writing.
  OLECHAR* TextRoom() {
    try {
      if (m_TextStart.empty()) {
        m_TextStart.assign(m_pPage->count, kNoText);
        m_TextLength.assign(m_pPage->count, 0);
      }
      // Grown by doubling, not a text's room at a time: a resize fills what it adds.
      if (m_Text.size() < m_TextEnd + corvane::kNumberTextChars)
        m_Text.resize(std::max(2 * m_Text.size(), m_TextEnd + corvane::kNumberTextChars * 64));
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    return m_Text.data() + m_TextEnd;
  }
  void KeepText(size_t i, size_t length) {
    m_TextStart[i] = static_cast<uint32_t>(m_TextEnd);
    m_TextLength[i] = static_cast<uint8_t>(length);
    m_TextEnd += length;
  }
  HRESULT EndTexts() {
    if (m_TextStart.empty()) return S_OK;
    try {
      m_TextCells.assign(m_pPage->count, StoredText{nullptr, 0});
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    for (size_t i = 0; i < m_TextStart.size(); ++i)
      if (m_TextStart[i] != kNoText) m_TextCells[i] = StoredText{m_Text.data() + m_TextStart[i], m_TextLength[i]};
    return S_OK;
  }

  HRESULT Make(size_t i, ProducedRecord& record) override {
    HistoryValue& sample = m_pPage->values[i];
    record.resize(4);
    const StoredText text = m_TextCells.empty() ? StoredText{nullptr, 0} : m_TextCells[i];
    if (text.text) {
      OLECHAR* room = record[3].OwnTextRoom(text.length);
      if (!room) return E_OUTOFMEMORY;
      std::memcpy(room, text.text, text.length * sizeof(OLECHAR));
      record[3].SetOwnText(text.length);
    } else {
      // Taken from the page, which is freed with the batch anyway.
      record[3].Take(&sample.value);
    }
    record[0].SetText(m_TagName.Text, m_TagName.TextLength, true);
    record[1].SetTime(sample.timestamp);
    VARIANT q;
    V_VT(&q) = VT_UI4;
    V_UI4(&q) = sample.quality;
    record[2].Take(&q);
    return S_OK;
  }

  std::vector<Field> Layout() const override {
    const BYTE* first = reinterpret_cast<const BYTE*>(m_pPage->values);
    const size_t stride = sizeof(HistoryValue);
    Field value{Field::kVariant, first + offsetof(HistoryValue, value), stride, nullptr};
    if (!m_TextCells.empty())
      value = Field{Field::kText, reinterpret_cast<const BYTE*>(m_TextCells.data()), sizeof(StoredText), nullptr};
    return {Field{Field::kShared, nullptr, 0, &m_TagName},
            Field{Field::kTime, first + offsetof(HistoryValue, timestamp), stride, nullptr},
            Field{Field::kUI4, first + offsetof(HistoryValue, quality), stride, nullptr}, value};
  }

 private:
  static constexpr uint32_t kNoText = UINT32_MAX;
  HistoryValueList* m_pPage;
  bool m_bOwning = true;  // some value may own memory
  StoreValue m_TagName;
  std::vector<OLECHAR> m_Text;
  size_t m_TextEnd = 0;
  std::vector<uint32_t> m_TextStart;  // per sample, kNoText for a value kept as a VARIANT
  std::vector<uint8_t> m_TextLength;
  std::vector<StoredText> m_TextCells;  // once the texts are written: each sample's, or none
};
}  // namespace

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
  EnableRecordReuse();
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
  void* point;
  {
    CriticalSectionLock lock(StateLock());
    point = m_pContinuationPoint;
    m_pContinuationPoint = nullptr;
  }
  if (point && m_pRaw) m_pRaw->ReleaseContinuationPoint(&point);
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
  // Several pages a step once the consumer keeps taking them: waking the worker costs
  // about as much as the fetch of a few hundred rows (a thread switch on each side),
  // while a page of the default size is read in well under a tenth of a millisecond. The
  // first step reads one page and each later one twice as many, up to kStepPages pages or
  // kStepRecords samples: a consumer that wants one batch costs the historian no more
  // than before, and the read-ahead stays bounded whatever the page size. The consumer
  // is told as soon as a step's first page is queued.
  size_t samples = 0;
  for (size_t page = 0; page < m_StepPages && samples < kStepRecords; ++page) {
    size_t read = 0;
    bool finished = false;
    const HRESULT hr = ReadPage(&read, &finished);
    if (FAILED(hr) || finished) return hr;
    // Only for rows it can take: a filter may have kept none of the page.
    if (page == 0 && read && QueuedRecordCount() != 0) NotifyRowsAvailable();
    samples += read;
  }
  m_StepPages = std::min(2 * m_StepPages, kStepPages);
  // An empty page would leave the consumer waiting for a signal that only taken rows give.
  if (QueuedRecordCount() == 0) SignalWorker();
  return S_OK;
}

HRESULT CTableRawData::ReadPage(size_t* read, bool* finished) {
  // Only this worker touches the requests and the point between Prepare and the
  // destructor (which stops the worker first). The state lock guards just the point's
  // hand-over, so that the consumer can take the previous page while this one is read.
  void* point;
  {
    CriticalSectionLock lock(StateLock());
    if (m_CurrentRequest >= m_Requests.size()) {
      FinishProducing();
      *finished = true;
      return S_OK;
    }
    point = m_pContinuationPoint;
  }
  const corvane::WString& tagName = m_TagNames[m_CurrentRequest];
  HistoryValueList* list = nullptr;
  HRESULT hr = m_pRaw->ReadRaw(m_Requests[m_CurrentRequest], m_Start, m_End, m_MaxRowsToReturn,
                               kRawReadIncludeBounds, &point, &list);
  {
    CriticalSectionLock lock(StateLock());
    m_pContinuationPoint = point;
  }
  bool readFailed = FAILED(hr);
  if (!readFailed && !list) {
    hr = E_INVALIDARG;
    readFailed = true;
  }
  if (!readFailed) {
    std::unique_ptr<CRawPageBatch> batch(new (std::nothrow) CRawPageBatch(list, tagName));
    if (!batch) {
      FreeHistoryValueList(list);
      hr = E_OUTOFMEMORY;
    }
    bool owning = false;
    // The values that need nothing done here, nearly all: those that own nothing, in the
    // table that keeps values as they are, and those already of a typed table's plain type.
    const VARTYPE kept = !m_bTyped                    ? static_cast<VARTYPE>(VT_EMPTY)
                         : Plain(m_Conversion.type) ? m_Conversion.type
                                                    : static_cast<VARTYPE>(VT_ILLEGAL);
    const ULONG count = batch ? list->count : 0;
    const HistoryValue* const values = list ? list->values : nullptr;
    for (ULONG i = 0; i < count; ++i) {
      // A tight scan to the next value that needs something: the page is passed over in
      // a few instructions a sample, the loop below runs for the rare ones.
      if (kept == VT_EMPTY) {
        while (i < count && CRefCountedDataStoreRow::OwnsNothing(V_VT(&values[i].value))) ++i;
      } else {
        while (i < count && V_VT(&values[i].value) == kept) ++i;
      }
      if (i == count) break;
      HistoryValue& sample = list->values[i];
      if (!Movable(V_VT(&sample.value))) {
        VARIANT copy;
        VariantInit(&copy);
        hr = VariantCopy(&copy, &sample.value);
        if (FAILED(hr)) break;
        VariantClear(&sample.value);
        sample.value = copy;
      }
      // A number of the text-typed table is written as text into the page's buffer: no
      // string is made per row on this thread to be freed on the consumer's.
      if (m_Conversion.type == VT_BSTR) {
        OLECHAR* room = batch->TextRoom();
        if (!room) {
          hr = E_OUTOFMEMORY;
          break;
        }
        const size_t n = corvane::NumberText(sample.value, room);
        if (n) {
          batch->KeepText(i, n);
          VariantClear(&sample.value);  // a number: owns nothing
          continue;
        }
      }
      // A value already of the table's type stays as it is: a change to its own type
      // only copies it.
      if (m_bTyped && !(V_VT(&sample.value) == m_Conversion.type && Plain(m_Conversion.type))) {
        hr = ConvertTyped(&sample.value, &sample.quality);
        if (FAILED(hr)) break;
        hr = S_OK;
      }
      owning |= !CRefCountedDataStoreRow::OwnsNothing(V_VT(&sample.value));
    }
    if (SUCCEEDED(hr)) hr = batch->EndTexts();
    if (SUCCEEDED(hr)) {
      batch->SetOwning(owning);
      *read = list->count;
      AppendBatch(std::move(batch));
    }  // else the page goes with the batch
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
  if (!point) {
    ++m_CurrentRequest;
    if (m_CurrentRequest >= m_Requests.size()) {
      CVTRACE(TRACE_INFO, OLESTR("[TABLE] RAWDATA -> History read done."));
      FinishProducing();
      *finished = true;
    }
  }
  return S_OK;
}

HRESULT CTableRawData::ConvertValue(const VARIANT& value, DWORD quality, VARIANT* outValue, DWORD* outQuality) {
  if (!outValue || !outQuality) return E_INVALIDARG;
  VariantInit(outValue);
  const HRESULT hr = VariantCopy(outValue, const_cast<VARIANT*>(&value));
  if (FAILED(hr)) return hr;
  *outQuality = quality;
  return m_bTyped ? ConvertTyped(outValue, outQuality) : S_OK;
}

HRESULT CTableRawData::ConvertTyped(VARIANT* value, DWORD* quality) {
  if (m_Conversion.type == VT_BSTR) {
    // Every sample of the text-typed table passes here: numbers are written straight,
    // with the very text VariantChangeType would give, rather than through it.
    OLECHAR text[corvane::kNumberTextChars];
    const size_t n = corvane::NumberText(*value, text);
    if (n) {
      const BSTR b = SysAllocStringLen(text, static_cast<UINT>(n));
      if (!b) return E_OUTOFMEMORY;
      V_VT(value) = VT_BSTR;  // a number owns nothing to clear
      V_BSTR(value) = b;
      return S_OK;
    }
  }
  HRESULT hr = VariantChangeType(value, value, 0, m_Conversion.type);
  if (SUCCEEDED(hr)) return S_OK;

  VariantClear(value);
  V_VT(value) = m_Conversion.type;
  switch (m_Conversion.type) {
    case VT_BSTR:
      V_BSTR(value) = SysAllocString(OLESTR(""));
      if (!V_BSTR(value)) {
        V_VT(value) = VT_EMPTY;
        return E_OUTOFMEMORY;
      }
      break;
    case VT_BOOL: V_BOOL(value) = VARIANT_FALSE; break;
    case VT_R4: V_R4(value) = 0; break;
    case VT_R8: V_R8(value) = 0; break;
    default: V_I8(value) = 0; break;  // every integer width is zero through the widest member
  }
  // Reported bad even when the historian called it good: the value shown is not the sample's.
  *quality = kBadInvalidArgument;
  CVTRACE(TRACE_WARNING, m_Conversion.failureMessage, hr);
  return S_FALSE;
}
