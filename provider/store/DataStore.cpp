#include "provider/store/DataStore.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>

#include "base/Trace.h"
#include "platform/CodePage.h"
#include "provider/store/DataConvert.h"

using corvane::WString;

namespace {

constexpr DBTYPE kStrRef = DBTYPE_STR | DBTYPE_BYREF;
constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;
constexpr DBLENGTH kSizeUnknown = ~static_cast<DBLENGTH>(0);
constexpr ULONGLONG kTicksPerSecond = 10000000ull;  // FILETIME counts 100 ns
constexpr ULONGLONG kTicksPerDay = 86400ull * kTicksPerSecond;

// How a declared type becomes a cell: the type and size reported to the consumer, the
// bytes of the value after the status byte, and the value's alignment.
struct CellShape {
  bool kept = false;
  DBTYPE reportedType = DBTYPE_EMPTY;
  DBLENGTH reportedSize = 0;
  ULONGLONG valueBytes = 0;
  ULONGLONG alignment = 1;
};

CellShape ShapeOf(DBTYPE type, ULONGLONG columnSize) {
  CellShape s;
  s.kept = true;
  s.reportedType = type;
  switch (type) {
    case DBTYPE_I2: case DBTYPE_BOOL: case DBTYPE_UI2:
      s.reportedSize = s.valueBytes = s.alignment = 2;
      break;
    case DBTYPE_I4: case DBTYPE_R4: case DBTYPE_UI4:
      s.reportedSize = s.valueBytes = s.alignment = 4;
      break;
    case DBTYPE_R8: case DBTYPE_DATE: case DBTYPE_I8: case DBTYPE_UI8:
      s.reportedSize = s.valueBytes = s.alignment = 8;
      break;
    case DBTYPE_VARIANT:
      s.reportedSize = s.valueBytes = sizeof(VARIANT);
      s.alignment = 8;
      break;
    case DBTYPE_I1: case DBTYPE_UI1:
      s.reportedSize = s.valueBytes = s.alignment = 1;
      break;
    case DBTYPE_WSTR:
    case DBTYPE_STR:
      // The text itself is kept beside the cells, as long as it is.
      s.reportedSize = columnSize;
      s.valueBytes = sizeof(StoredText);
      s.alignment = alignof(StoredText);
      break;
    case DBTYPE_DBTIMESTAMP:
      s.reportedSize = s.valueBytes = sizeof(DBTIMESTAMP);
      s.alignment = alignof(DBTIMESTAMP);
      break;
    case DBTYPE_BSTR:
      s.reportedType = kWStrRef;
      s.reportedSize = kSizeUnknown;
      s.valueBytes = s.alignment = 8;
      break;
    case kStrRef: case kWStrRef:
      s.reportedSize = kSizeUnknown;
      s.valueBytes = s.alignment = 8;
      break;
    default:
      s.kept = false;
      break;
  }
  return s;
}

bool CellFits(const DataStoreColumnInfo& col, ULONGLONG valueBytes, DBLENGTH size) {
  return col.cbOffset <= size && size - col.cbOffset >= valueBytes;
}

// A text cell reads up to its first zero character, as it always has: a BSTR may hold
// zeros, and what follows one is not part of the cell.
size_t UpToZero(const OLECHAR* text, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (text[i] == 0) return i;
  }
  return n;
}

StoredText TextOf(const BYTE* cell) {
  StoredText text;
  std::memcpy(&text, cell, sizeof text);
  return text;
}

std::string ToAnsi(const OLECHAR* text, size_t n) {
  std::string out;
  corvane::platform::WideToAnsi(text, n, out);
  return out;
}

void WriteStatus(BYTE* buffer, const DBBINDING& b, DBSTATUS status) {
  if (b.dwPart & DBPART_STATUS) std::memcpy(buffer + b.obStatus, &status, sizeof status);
}
void WriteLength(BYTE* buffer, const DBBINDING& b, DBLENGTH length) {
  if (b.dwPart & DBPART_LENGTH) std::memcpy(buffer + b.obLength, &length, sizeof length);
}

bool StatusIsSuccess(DBSTATUS s) {
  return s == DBSTATUS_S_OK || s == DBSTATUS_S_ISNULL || s == DBSTATUS_S_TRUNCATED || s == DBSTATUS_S_DEFAULT;
}

// A VARIANT's value follows its type and three reserved words on every target.
constexpr size_t kVariantValueOffset = 8;

// A VARIANT that a fetch copies as its bytes: it owns nothing, and it is neither a null
// nor an error code, which are statuses to the conversion service rather than values.
// Every planned copy of a VARIANT asks, so it is one bit test.
inline bool CopiedAsBytes(VARTYPE vt) {
  constexpr uint32_t kCopied = CRefCountedDataStoreRow::kPlainTypes & ~((1u << VT_NULL) | (1u << VT_ERROR));
  return vt < 32 && ((kCopied >> vt) & 1u) != 0;
}

// Bytes of a cell type that the conversion service copies unchanged into a binding of
// the same type; 0 for the types it has to look into.
size_t VerbatimSize(DBTYPE type) {
  switch (type) {
    case DBTYPE_I1: case DBTYPE_UI1: return 1;
    case DBTYPE_I2: case DBTYPE_UI2: return 2;
    case DBTYPE_I4: case DBTYPE_UI4: case DBTYPE_R4: return 4;
    case DBTYPE_I8: case DBTYPE_UI8: case DBTYPE_R8: case DBTYPE_DATE: return 8;
    default: return 0;
  }
}

// 0, 1, 2, 3 for a width of 1, 2, 4, 8 bytes.
size_t WidthIndex(size_t n) { return n == 1 ? 0 : n == 2 ? 1 : n == 4 ? 2 : 3; }

// Frees what a conversion into a scratch buffer allocated.
void FreeConverted(DBTYPE type, void* dst) {
  if (type == DBTYPE_VARIANT) {
    VariantClear(static_cast<VARIANT*>(dst));
  } else if (type == DBTYPE_BSTR) {
    SysFreeString(*static_cast<BSTR*>(dst));
  } else if (type & DBTYPE_BYREF) {
    void* p = nullptr;
    std::memcpy(&p, dst, sizeof p);
    CoTaskMemFree(p);
  }
}

}  // namespace

// The cells the conversion service would only copy: a number or date into its own
// type, a timestamp of the years every conversion library accepts into a timestamp, a
// VARIANT of a plain type into a VARIANT or into that very type. Writes the value and
// sets *length; false when the service has to decide.
bool CDataStore::CopyVerbatim(DBTYPE colType, DBTYPE bindType, const BYTE* source, BYTE* dst, DBLENGTH* length) {
  if (colType == DBTYPE_VARIANT) {
    VARTYPE vt;
    std::memcpy(&vt, source, sizeof vt);
    if (!CopiedAsBytes(vt)) return false;
    if (bindType == DBTYPE_VARIANT) {
      std::memcpy(dst, source, sizeof(VARIANT));
      *length = sizeof(VARIANT);
      return true;
    }
    const size_t n = vt == static_cast<VARTYPE>(bindType) ? VerbatimSize(bindType) : 0;
    if (n == 0) return false;
    std::memcpy(dst, source + kVariantValueOffset, n);
    *length = n;
    return true;
  }
  if (colType != bindType) return false;
  if (colType == DBTYPE_DBTIMESTAMP) {
    SHORT year;
    std::memcpy(&year, source + offsetof(DBTIMESTAMP, year), sizeof year);
    if (year < 1 || year > 9999) return false;
    std::memcpy(dst, source, sizeof(DBTIMESTAMP));
    *length = sizeof(DBTIMESTAMP);
    return true;
  }
  const size_t n = VerbatimSize(colType);
  if (n == 0) return false;
  std::memcpy(dst, source, n);
  *length = n;
  return true;
}

CDataStore::CDataStore() = default;

CDataStore::~CDataStore() {
  // The producer's worker goes first, so nothing is produced for a store that is going;
  // it must stop before the producer's destructors start, or it could still call into a
  // half-destroyed object.
  if (m_pProducer) m_pProducer->StopWorker();
  m_pProducer.reset();
  Clear();
  const uint64_t ms = m_Stopwatch.TotalNanoseconds() / 1000000;
  if (ms != 0) CVTRACE(TRACE_INFO, OLESTR("CDataStore - elapsed time = %d ms"), static_cast<int>(ms));
  FreeColumnInfo();
  if (m_pConvert) m_pConvert->Release();
}

void CDataStore::FreeColumnInfo() {
  // Rows still held keep the pool until they come back; none is made from it again.
  if (m_pPool) m_pPool->Detach();
  m_pPool = nullptr;
  if (m_pColumnInfo) {
    for (DBORDINAL i = 0; i < m_cColumns; ++i) CoTaskMemFree(m_pColumnInfo[i].pwszName);
    CoTaskMemFree(m_pColumnInfo);
  }
  m_cColumns = 0;
  m_pColumnInfo = nullptr;
  m_cbRowSize = 0;
  ++m_LayoutGeneration;
  m_ColumnSource.clear();
}

HRESULT CDataStore::BuildColumnInfo(const std::vector<ColumnRecord>& columns) {
  FreeColumnInfo();
  std::vector<CellShape> shapes;
  size_t kept = 0;
  for (const ColumnRecord& c : columns) {
    shapes.push_back(ShapeOf(c.wType, c.ColumnSize));
    if (shapes.back().kept) ++kept;
  }
  if (kept == 0) return S_OK;

  auto* info = static_cast<DataStoreColumnInfo*>(CoTaskMemAlloc(kept * sizeof(DataStoreColumnInfo)));
  if (!info) return E_OUTOFMEMORY;
  std::memset(static_cast<void*>(info), 0, kept * sizeof(DataStoreColumnInfo));

  // The status bytes first, then each value at its own alignment: the cells of a
  // history row fit in a cache line or two.
  ULONGLONG offset = kept;
  size_t j = 0;
  HRESULT hr = S_OK;
  std::vector<size_t> source;
  for (size_t i = 0; i < columns.size(); ++i) {
    const CellShape& s = shapes[i];
    if (!s.kept) continue;
    // Rows are one allocation; a layout past 2 GB could never be allocated.
    constexpr ULONGLONG kMaxRow = 0x7FFFFFFFull;
    if (offset + s.valueBytes + s.alignment > kMaxRow) {
      hr = E_OUTOFMEMORY;
      break;
    }
    const size_t nameChars = columns[i].ColumnAlias.size();
    auto* name = static_cast<LPOLESTR>(CoTaskMemAlloc((nameChars + 1) * sizeof(OLECHAR)));
    if (!name) {
      hr = E_OUTOFMEMORY;
      break;
    }
    std::memcpy(name, columns[i].ColumnAlias.c_str(), (nameChars + 1) * sizeof(OLECHAR));
    DataStoreColumnInfo& d = info[j++];
    d.pwszName = name;
    d.pTypeInfo = nullptr;
    d.iOrdinal = i + 1;
    d.dwFlags = columns[i].dwFlags;
    d.ulColumnSize = s.reportedSize;
    d.wType = s.reportedType;
    d.bPrecision = 255;
    d.bScale = 255;
    d.columnid.eKind = DBKIND_NAME;
    d.columnid.uName.pwszName = name;
    d.cbOffset = (offset + s.alignment - 1) / s.alignment * s.alignment;
    d.cbStatus = j - 1;
    offset = d.cbOffset + s.valueBytes;
    source.push_back(i);
  }
  m_pColumnInfo = info;
  m_cColumns = j;
  if (FAILED(hr)) {
    FreeColumnInfo();
    return hr;
  }
  m_cbRowSize = (offset + 7) / 8 * 8;
  m_ColumnSource = std::move(source);
  m_LastShared.assign(m_cColumns, SharedTextHit{});
  m_FieldOfColumn.clear();
  PlanFill();
  return S_OK;
}

HRESULT CDataStore::Initialize(std::unique_ptr<CDataProvider> producer, const std::vector<ColumnRecord>& columns,
                               ULONGLONG maxRows) {
  HRESULT hr = BuildColumnInfo(columns);
  if (FAILED(hr)) return hr;
  m_MaxRows = maxRows;
  m_FieldOfColumn.assign(m_cColumns, kNotFound);
  if (producer) {
    std::vector<ColumnRecord> fields;
    hr = producer->GetColumns(fields);
    if (FAILED(hr)) return hr;
    for (DBORDINAL j = 0; j < m_cColumns; ++j) {
      const ColumnRecord& c = columns[m_ColumnSource[j]];
      hr = FindColumn(fields, c.ColumnName.c_str(), c.Ordinal, &m_FieldOfColumn[j]);
      if (FAILED(hr)) return hr;
    }
  } else {
    for (DBORDINAL j = 0; j < m_cColumns; ++j) m_FieldOfColumn[j] = m_ColumnSource[j];
  }
  m_pProducer = std::move(producer);
  if (m_pProducer) m_pProducer->AcceptBatches();
  PlanFill();
  return S_OK;
}

void CDataStore::PlanFill() {
  m_FillSteps.clear();
  for (DBORDINAL j = 0; j < m_cColumns; ++j) {
    const DataStoreColumnInfo& col = m_pColumnInfo[j];
    FillStep step{j < m_FieldOfColumn.size() ? m_FieldOfColumn[j] : static_cast<size_t>(j),
                  j,
                  FillStep::kOther,
                  static_cast<VARTYPE>(col.wType),
                  col.cbOffset,
                  col.cbStatus};
    if (col.wType == DBTYPE_WSTR) {
      step.kind = FillStep::kWide;
    } else if (col.wType == DBTYPE_DBTIMESTAMP) {
      step.kind = FillStep::kTime;
    } else if (col.wType == DBTYPE_VARIANT) {
      step.kind = FillStep::kVariant;
    } else if (const size_t n = VerbatimSize(col.wType)) {
      step.kind = static_cast<FillStep::Kind>(FillStep::kFixed1 + WidthIndex(n));
    }
    m_FillSteps.push_back(step);
  }
  // The status bytes are the row's first bytes, one a column; when they and the padding
  // after them fill one word before the first value, a row's statuses are one store.
  m_FillStatusWord = 0;
  m_FillFields = 0;
  DBBYTEOFFSET firstValue = m_cbRowSize;
  bool statusFirst = m_cColumns <= sizeof(uint64_t);
  for (const FillStep& step : m_FillSteps) {
    firstValue = std::min(firstValue, step.cell);
    statusFirst = statusFirst && step.status == step.column;
    if (step.field == kNotFound) statusFirst = false;
    m_FillFields = std::max(m_FillFields, step.field + 1);
  }
  // Every field of a record is read exactly once: a record whose cells were all usual
  // holds nothing else.
  std::vector<bool> read(m_FillFields, false);
  m_FillCoversRecord = m_FillSteps.size() == m_FillFields;
  for (const FillStep& step : m_FillSteps) {
    if (step.field >= m_FillFields || read[step.field]) {
      m_FillCoversRecord = false;
      break;
    }
    read[step.field] = true;
  }
  if (statusFirst && m_cColumns > 0 && firstValue >= sizeof(uint64_t)) {
    BYTE bytes[sizeof(uint64_t)] = {};
    std::memset(bytes, kStatusValue, static_cast<size_t>(m_cColumns));
    std::memcpy(&m_FillStatusWord, bytes, sizeof bytes);
  }
}

HRESULT CDataStore::FindColumn(const std::vector<ColumnRecord>& columns, const OLECHAR* name, ULONGLONG ordinal,
                               size_t* index) {
  if (!name || !index) return E_FAIL;
  size_t lastMatch = kNotFound;
  for (size_t i = 0; i < columns.size(); ++i) {
    const ColumnRecord& c = columns[i];
    if (corvane::WICmp(name, c.ColumnName.c_str()) != 0 && corvane::WICmp(name, c.ColumnAlias.c_str()) != 0) continue;
    if (c.Ordinal == ordinal) {
      *index = i;
      return S_OK;
    }
    lastMatch = i;
  }
  *index = lastMatch;
  return S_OK;
}

// ---- Row queue

void CDataStore::RowQueue::Reserve(size_t more) {
  if (m_Rows.capacity() - m_Rows.size() >= more) return;
  // The places of rows handed out are reused once they are half the array or more: the
  // rows moved are then never more than those handed out since the last move.
  if (m_Head != 0 && 2 * m_Head >= m_Rows.size()) {
    m_Rows.erase(m_Rows.begin(), m_Rows.begin() + static_cast<std::ptrdiff_t>(m_Head));
    m_Head = 0;
  }
  if (m_Rows.capacity() - m_Rows.size() < more) m_Rows.reserve(std::max(m_Rows.size() + more, 2 * m_Rows.size()));
}

// Every row passes through it once; inline, since the library's position-independent
// build would otherwise call it.
inline CRefCountedDataStoreRow* CDataStore::RowQueue::pop_front() {
  if (empty()) return nullptr;
  CRefCountedDataStoreRow* row = m_Rows[m_Head++];
  if (empty()) {
    m_Rows.clear();
    m_Head = 0;
  }
  return row;
}

void CDataStore::RowQueue::MoveFront(size_t n, std::vector<CRefCountedDataStoreRow*>& out) {
  const auto first = m_Rows.begin() + static_cast<std::ptrdiff_t>(m_Head);
  out.insert(out.end(), first, first + static_cast<std::ptrdiff_t>(n));
  m_Head += n;
  if (empty()) {
    m_Rows.clear();
    m_Head = 0;
  }
}

// ---- Cells

// Filling a page means thousands of cells in a row; reading the counter around each
// one cost more than writing the cells. The run reads it where the watch's state
// changes: when the first cell starts, after a refused cell (whose interval the next
// start drops, and which leaves the watch running if nothing follows) and at the end.
// The gaps between cells of the run count as the store's own time.
class CDataStore::CellRunTimer {
 public:
  explicit CellRunTimer(CStopwatch& watch) : m_Watch(watch) {}
  CellRunTimer(const CellRunTimer&) = delete;
  CellRunTimer& operator=(const CellRunTimer&) = delete;
  ~CellRunTimer() { Finish(); }

  void BeforeCell() {
    if (m_bOpen) return;
    m_Start = CStopwatch::Ticks();
    m_bOpen = true;
    m_bUsed = true;
  }
  void AfterCell(CellWrite result) {
    if (result != CellWrite::Refused) return;
    const uint64_t now = CStopwatch::Ticks();
    if (now > m_Start) m_Counted += now - m_Start;
    m_RefusedAt = now;
    m_bOpen = false;
  }
  // Hands the run's time to the watch; nothing when no cell was written.
  void Finish() {
    if (!m_bUsed) return;
    m_bUsed = false;
    if (m_bOpen) {
      const uint64_t now = CStopwatch::Ticks();
      if (now > m_Start) m_Counted += now - m_Start;
      m_Watch.Settle(m_Counted, false, 0);
    } else {
      m_Watch.Settle(m_Counted, true, m_RefusedAt);
    }
    m_Counted = 0;
    m_bOpen = false;
  }

 private:
  CStopwatch& m_Watch;
  uint64_t m_Start = 0;
  uint64_t m_Counted = 0;
  uint64_t m_RefusedAt = 0;
  bool m_bOpen = false;
  bool m_bUsed = false;
};

bool CDataStore::SetValue(const StoreValue& value, const DataStoreColumnInfo& rColInfo,
                          CRefCountedDataStoreRow* row) {
  m_Stopwatch.Start();
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::SetValue -> rColInfo.wType = %d, rColInfo.cbOffset = %d"),
          static_cast<int>(rColInfo.wType), static_cast<int>(rColInfo.cbOffset));
  const CellWrite result = WriteCell(value, rColInfo, row);
  // A refused value leaves the watch running: the next start drops its interval.
  if (result != CellWrite::Refused) m_Stopwatch.Stop();
  return result == CellWrite::Written;
}

CDataStore::CellWrite CDataStore::WriteCell(const StoreValue& value, const DataStoreColumnInfo& rColInfo,
                                            CRefCountedDataStoreRow* row) {
  BYTE* buffer = row ? row->Buffer() : nullptr;
  const DBLENGTH size = row ? row->Size() : 0;
  const bool statusInside = buffer && rColInfo.cbStatus < size;
  auto setStatus = [&](BYTE s) {
    if (statusInside) buffer[rColInfo.cbStatus] = s;
  };

  if (value.Kind == StoreValue::kNone) {
    setStatus(kStatusNull);
    return CellWrite::Written;
  }

  BYTE* cell = statusInside ? buffer + rColInfo.cbOffset : nullptr;
  const VARTYPE vt = V_VT(&value.Value);
  const bool isVariant = value.Kind == StoreValue::kVariant;

  // A scalar of exactly the matching VARIANT type, written as its bytes.
  auto scalar = [&](VARTYPE expected, const void* bytes, size_t n) -> CellWrite {
    if (!isVariant || vt != expected) return CellWrite::Refused;
    if (CellFits(rColInfo, n, size)) {
      std::memcpy(cell, bytes, n);
      setStatus(kStatusValue);
    } else {
      setStatus(kStatusNull);
    }
    return CellWrite::Written;
  };
  const VARIANT& v = value.Value;
  // The text of a BSTR or of lent text; false for any other value.
  const OLECHAR* text = nullptr;
  size_t len = 0;
  const bool isText = value.Kind == StoreValue::kText || (isVariant && vt == VT_BSTR);
  if (value.Kind == StoreValue::kText) {
    text = value.Text;
    len = text ? value.TextLength : 0;
  } else if (isText) {
    text = V_BSTR(&v);
    len = text ? SysStringLen(V_BSTR(&v)) : 0;
  }

  switch (rColInfo.wType) {
    case DBTYPE_I2: return scalar(VT_I2, &V_I2(&v), 2);
    case DBTYPE_I4: return scalar(VT_I4, &V_I4(&v), 4);
    case DBTYPE_R4: return scalar(VT_R4, &V_R4(&v), 4);
    case DBTYPE_R8: return scalar(VT_R8, &V_R8(&v), 8);
    case DBTYPE_DATE: return scalar(VT_DATE, &V_DATE(&v), 8);
    case DBTYPE_BOOL: return scalar(VT_BOOL, &V_BOOL(&v), 2);
    case DBTYPE_I1: return scalar(VT_I1, &V_I1(&v), 1);
    case DBTYPE_UI1: return scalar(VT_UI1, &V_UI1(&v), 1);
    case DBTYPE_UI2: return scalar(VT_UI2, &V_UI2(&v), 2);
    case DBTYPE_UI4: return scalar(VT_UI4, &V_UI4(&v), 4);
    case DBTYPE_I8: return scalar(VT_I8, &V_I8(&v), 8);
    case DBTYPE_UI8: return scalar(VT_UI8, &V_UI8(&v), 8);

    case DBTYPE_VARIANT: {
      if (!isVariant && value.Kind != StoreValue::kText) return CellWrite::Refused;
      if (!CellFits(rColInfo, sizeof(VARIANT), size)) {
        setStatus(kStatusNull);
        return CellWrite::Written;
      }
      VARIANT copy;
      if (!isVariant) {
        V_VT(&copy) = VT_BSTR;
        V_BSTR(&copy) = SysAllocStringLen(text, static_cast<UINT>(len));
        if (!V_BSTR(&copy)) return CellWrite::Failed;
      } else if (CRefCountedDataStoreRow::OwnsNothing(vt)) {
        // What VariantCopy does with a value that owns nothing.
        std::memcpy(&copy, &v, sizeof copy);
      } else {
        VariantInit(&copy);
        if (FAILED(VariantCopy(&copy, const_cast<VARIANT*>(&v)))) return CellWrite::Failed;
      }
      VARTYPE oldType;
      std::memcpy(&oldType, cell, sizeof oldType);
      if (!CRefCountedDataStoreRow::OwnsNothing(oldType)) {
        VARIANT old;
        std::memcpy(&old, cell, sizeof old);
        VariantClear(&old);
      }
      std::memcpy(cell, &copy, sizeof copy);
      if (!CRefCountedDataStoreRow::OwnsNothing(V_VT(&copy))) row->MarkOwning();
      setStatus(kStatusValue);
      return CellWrite::Written;
    }

    case DBTYPE_WSTR:
    case DBTYPE_BSTR: {
      if (!isText) return CellWrite::Refused;
      if (!CellFits(rColInfo, sizeof(StoredText), size)) {
        setStatus(kStatusNull);
        return CellWrite::Written;
      }
      const ULONGLONG n = rColInfo.ulColumnSize;
      const StoredText stored = PlaceWideText(value, text, len <= n ? len : static_cast<size_t>(n), rColInfo, row);
      if (!stored.text) return CellWrite::Failed;
      std::memcpy(cell, &stored, sizeof stored);
      setStatus(len <= n ? kStatusValue : kStatusTruncated);
      return CellWrite::Written;
    }

    case DBTYPE_STR: {
      if (!isText) return CellWrite::Refused;
      if (!CellFits(rColInfo, sizeof(StoredText), size)) {
        setStatus(kStatusNull);
        return CellWrite::Written;
      }
      const ULONGLONG n = rColInfo.ulColumnSize;
      const std::string ansi = ToAnsi(text, len);
      const size_t kept = strnlen(ansi.c_str(), ansi.size() <= n ? ansi.size() : static_cast<size_t>(n));
      const void* where = row->StoreText(ansi.data(), kept, 1);
      if (!where) return CellWrite::Failed;
      const StoredText stored{where, kept};
      std::memcpy(cell, &stored, sizeof stored);
      setStatus(ansi.size() <= n ? kStatusValue : kStatusTruncated);
      return CellWrite::Written;
    }

    case kWStrRef:
    case kStrRef: {
      if (!isText) return CellWrite::Refused;
      if (!CellFits(rColInfo, sizeof(void*), size)) {
        setStatus(kStatusNull);
        return CellWrite::Written;
      }
      void* copy;
      if (rColInfo.wType == kWStrRef) {
        copy = CoTaskMemAlloc((len + 1) * sizeof(OLECHAR));
        if (!copy) return CellWrite::Refused;  // like a refusal, the watch keeps running
        if (len) std::memcpy(copy, text, len * sizeof(OLECHAR));
        static_cast<OLECHAR*>(copy)[len] = 0;
      } else {
        const std::string ansi = ToAnsi(text, len);
        copy = CoTaskMemAlloc(ansi.size() + 1);
        if (!copy) return CellWrite::Refused;
        std::memcpy(copy, ansi.c_str(), ansi.size() + 1);
      }
      void* old = nullptr;
      std::memcpy(&old, cell, sizeof old);
      CoTaskMemFree(old);
      std::memcpy(cell, &copy, sizeof copy);
      row->MarkOwning();
      setStatus(kStatusValue);
      return CellWrite::Written;
    }

    case DBTYPE_DBTIMESTAMP: {
      if (value.Kind != StoreValue::kTime) return CellWrite::Refused;
      DBTIMESTAMP ts;
      const ULONGLONG ticks =
          (static_cast<ULONGLONG>(value.Time.dwHighDateTime) << 32) | value.Time.dwLowDateTime;
      if (!SameDay(ticks, &ts)) {
        SYSTEMTIME st;
        if (!FileTimeToSystemTime(&value.Time, &st)) return CellWrite::Refused;
        ts.year = static_cast<SHORT>(st.wYear);
        ts.month = st.wMonth;
        ts.day = st.wDay;
        ts.hour = st.wHour;
        ts.minute = st.wMinute;
        ts.second = st.wSecond;
        ts.fraction = static_cast<ULONG>(st.wMilliseconds) * 1000000u;
        // Samples come in time order, mostly many to a day: the next ones of this day
        // need only the time of day.
        m_DayStart = ticks / kTicksPerDay * kTicksPerDay;
        m_DayEnd = m_DayStart + kTicksPerDay;
        m_DayDate = ts;
      }
      if (CellFits(rColInfo, sizeof ts, size)) {
        std::memcpy(cell, &ts, sizeof ts);
        setStatus(kStatusValue);
      } else {
        setStatus(kStatusNull);
      }
      return CellWrite::Written;
    }

    default:
      return CellWrite::Refused;
  }
}

bool CDataStore::WriteCommonCell(const StoreValue& value, const DataStoreColumnInfo& col,
                                 CRefCountedDataStoreRow* row) {
  // The cells of nearly every row of history: text that fits its column, a time of the
  // same day as the last one, a number of exactly the cell's type, a plain VARIANT over
  // a plain VARIANT. The same bytes WriteCell writes, without its general checks (the
  // row has this store's layout); anything else is left to it.
  BYTE* buffer = row->Buffer();
  BYTE* cell = buffer + col.cbOffset;
  switch (value.Kind) {
    case StoreValue::kText: {
      const size_t len = value.Text ? value.TextLength : 0;
      if (col.wType != DBTYPE_WSTR || len > col.ulColumnSize) return false;
      const StoredText stored = PlaceWideText(value, value.Text, len, col, row);
      if (!stored.text) return false;
      std::memcpy(cell, &stored, sizeof stored);
      buffer[col.cbStatus] = kStatusValue;
      return true;
    }
    case StoreValue::kTime: {
      DBTIMESTAMP ts;
      if (col.wType != DBTYPE_DBTIMESTAMP ||
          !SameDay((static_cast<ULONGLONG>(value.Time.dwHighDateTime) << 32) | value.Time.dwLowDateTime, &ts))
        return false;
      std::memcpy(cell, &ts, sizeof ts);
      buffer[col.cbStatus] = kStatusValue;
      return true;
    }
    case StoreValue::kVariant: {
      const VARTYPE vt = V_VT(&value.Value);
      if (col.wType == DBTYPE_VARIANT) {
        if (!CRefCountedDataStoreRow::OwnsNothing(vt)) return false;
        VARTYPE oldType;
        std::memcpy(&oldType, cell, sizeof oldType);
        if (!CRefCountedDataStoreRow::OwnsNothing(oldType)) return false;
        std::memcpy(cell, &value.Value, sizeof(VARIANT));
        buffer[col.cbStatus] = kStatusValue;
        return true;
      }
      if (col.wType == DBTYPE_WSTR && vt == VT_BSTR) {
        const BSTR text = V_BSTR(&value.Value);
        size_t len = text ? SysStringLen(text) : 0;
        if (len > col.ulColumnSize) return false;
        len = UpToZero(text, len);
        const void* where = row->StoreText(text, len * sizeof(OLECHAR), sizeof(OLECHAR));
        if (!where) return false;
        const StoredText stored{where, len};
        std::memcpy(cell, &stored, sizeof stored);
        buffer[col.cbStatus] = kStatusValue;
        return true;
      }
      // The fixed-size cell types are numbered as their VARIANT types.
      const size_t n = VerbatimSize(col.wType);
      if (n == 0 || vt != static_cast<VARTYPE>(col.wType)) return false;
      std::memcpy(cell, &V_I8(&value.Value), n);
      buffer[col.cbStatus] = kStatusValue;
      return true;
    }
    default:
      return false;
  }
}

StoredText CDataStore::PlaceWideText(const StoreValue& value, const OLECHAR* text, size_t length,
                                     const DataStoreColumnInfo& col, CRefCountedDataStoreRow* row) {
  // Lent text is mostly the same for many rows (a tag's name, a status text): one copy
  // in the pool serves every row. Another store's row keeps its text in its own pool,
  // never in this store's. Text a value holds itself changes row by row (a number's
  // text): sharing it would only fill the pool.
  SharedTextHit* hit = nullptr;
  if (value.Kind == StoreValue::kText && !value.TextOwned && text && row->m_pPool == m_pPool) {
    const size_t index = static_cast<size_t>(&col - m_pColumnInfo);
    if (index < m_LastShared.size()) hit = &m_LastShared[index];
  }
  const size_t kept = UpToZero(text, length);
  if (hit) {
    if (const OLECHAR* shared = m_pPool->ShareText(text, kept)) {
      *hit = SharedTextHit{text, length, StoredText{shared, kept}};
      return hit->cell;
    }
  }
  return StoredText{row->StoreText(text, kept * sizeof(OLECHAR), sizeof(OLECHAR)), kept};
}

CRefCountedDataStoreRow* CDataStore::NewRow() {
  CRefCountedDataStoreRow* row = nullptr;
  return TakeRows(&row, 1) ? row : nullptr;
}

size_t CDataStore::TakeRows(CRefCountedDataStoreRow** rows, size_t count) {
  if (!m_pPool) {
    m_pPool = new (std::nothrow) CRefCountedDataStoreRow::Pool(m_pColumnInfo, m_cColumns, m_cbRowSize);
    if (!m_pPool) return 0;
  }
  return m_pPool->TakeMany(rows, count);
}

inline void CDataStore::CopyFixed(FillStep::Kind kind, BYTE* cell, const void* bits) {
  // Constant sizes: a move each, not a call.
  switch (kind) {
    case FillStep::kFixed1: std::memcpy(cell, bits, 1); break;
    case FillStep::kFixed2: std::memcpy(cell, bits, 2); break;
    case FillStep::kFixed4: std::memcpy(cell, bits, 4); break;
    default: std::memcpy(cell, bits, 8); break;
  }
}

inline bool CDataStore::FillUsual(const FillStep& step, const StoreValue& value, CRefCountedDataStoreRow* row,
                                  BYTE* buffer) {
  // The usual value for the column's type, written in place; the rows are this store's,
  // so every cell fits. The caller writes the status byte.
  BYTE* cell = buffer + step.cell;
  switch (step.kind) {
    case FillStep::kWide:
      // Text and times hold no VARIANT as well, so that a usual cell is one that owns nothing.
      if (value.Kind != StoreValue::kText || V_VT(&value.Value) != VT_EMPTY) return false;
      if (value.TextOwned) {
        // Text the record holds (a number's) is short and new with every row: it goes
        // straight into the row's text buffer, with no shared copy to look for.
        const size_t len = value.TextLength;
        if (len > m_pColumnInfo[step.column].ulColumnSize) return false;
        const size_t kept = UpToZero(value.Text, len);
        const StoredText stored{row->StoreText(value.Text, kept * sizeof(OLECHAR), sizeof(OLECHAR)), kept};
        if (!stored.text) return false;
        std::memcpy(cell, &stored, sizeof stored);
        return true;
      } else {
        const SharedTextHit& hit = m_LastShared[step.column];
        // The same text as this column's last, by address and then, unless the producer
        // keeps it unchanged, by content: it may lend other text from the same place.
        if (hit.source != value.Text || hit.length != value.TextLength || !value.Text) return false;
        if (!value.TextFixed &&
            !(std::memcmp(value.Text, hit.cell.text, hit.cell.length * sizeof(OLECHAR)) == 0 &&
              (hit.cell.length == hit.length || value.Text[hit.cell.length] == 0)))
          return false;
        std::memcpy(cell, &hit.cell, sizeof hit.cell);
        return true;
      }
    case FillStep::kTime: {
      if (value.Kind != StoreValue::kTime || V_VT(&value.Value) != VT_EMPTY) return false;
      DBTIMESTAMP ts;
      if (!SameDay((static_cast<ULONGLONG>(value.Time.dwHighDateTime) << 32) | value.Time.dwLowDateTime, &ts))
        return false;
      std::memcpy(cell, &ts, sizeof ts);
      return true;
    }
    case FillStep::kVariant: {
      if (value.Kind != StoreValue::kVariant || !CRefCountedDataStoreRow::OwnsNothing(V_VT(&value.Value)))
        return false;
      VARTYPE old;
      std::memcpy(&old, cell, sizeof old);
      if (!CRefCountedDataStoreRow::OwnsNothing(old)) return false;
      std::memcpy(cell, &value.Value, sizeof(VARIANT));
      return true;
    }
    case FillStep::kFixed1:
    case FillStep::kFixed2:
    case FillStep::kFixed4:
    case FillStep::kFixed8:
      if (value.Kind != StoreValue::kVariant || V_VT(&value.Value) != step.vt) return false;
      CopyFixed(step.kind, cell, &V_I8(&value.Value));
      return true;
    case FillStep::kOther:
      break;
  }
  return false;
}

void CDataStore::FillOther(const FillStep& step, const StoreValue& value, CRefCountedDataStoreRow* row,
                           CellRunTimer& timer) {
  const DataStoreColumnInfo& col = m_pColumnInfo[step.column];
  if (WriteCommonCell(value, col, row)) return;
  const CellWrite result = WriteCell(value, col, row);
  timer.AfterCell(result);
  if (result != CellWrite::Written) row->Buffer()[step.status] = kStatusNull;
}

bool CDataStore::FillRow(const ProducedRecord& record, CRefCountedDataStoreRow* row, CellRunTimer& timer) {
  const bool traced = corvane::TraceWanted(TRACE_DETAIL);
  const size_t fields = record.size();
  BYTE* buffer = row->Buffer();
  if (m_FillStatusWord && !traced && fields >= m_FillFields) {
    // Nearly every row: every field is there, so one store marks every cell as holding
    // a value, and only a cell the general writers take changes its own status byte.
    std::memcpy(buffer, &m_FillStatusWord, sizeof m_FillStatusWord);
    const StoreValue* values = record.data();
    bool usual = true;
    for (const FillStep& step : m_FillSteps) {
      timer.BeforeCell();
      if (FillUsual(step, values[step.field], row, buffer)) continue;
      usual = false;
      FillOther(step, values[step.field], row, timer);
    }
    return usual && m_FillCoversRecord && fields == m_FillFields;
  }
  for (const FillStep& step : m_FillSteps) {
    if (step.field >= fields) continue;  // the row starts with every cell null
    const StoreValue& value = record[step.field];
    timer.BeforeCell();
    if (traced) {
      const DataStoreColumnInfo& col = m_pColumnInfo[step.column];
      CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::SetValue -> rColInfo.wType = %d, rColInfo.cbOffset = %d"),
              static_cast<int>(col.wType), static_cast<int>(col.cbOffset));
    }
    if (FillUsual(step, value, row, buffer)) {
      buffer[step.status] = kStatusValue;
      continue;
    }
    FillOther(step, value, row, timer);
  }
  return false;
}

HRESULT CDataStore::AppendTimed(const ProducedRecord& record, CellRunTimer& timer) {
  try {
    m_ReadRows.Reserve(1);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  CRefCountedDataStoreRow* row = NewRow();
  if (!row) return E_OUTOFMEMORY;
  FillRow(record, row, timer);
  m_ReadRows.push_back(row);
  ++m_RowsQueued;
  return S_OK;
}

HRESULT CDataStore::AppendRecord(const ProducedRecord& record) {
  CellRunTimer timer(m_Stopwatch);
  return AppendTimed(record, timer);
}

HRESULT CDataStore::PullFromProducer(ULONGLONG wanted) {
  if (m_MaxRows != 0 && m_RowsQueued >= m_MaxRows) {
    m_bEndOfData = true;
    return S_OK;
  }
  if (m_IncomingNext >= m_Incoming.size() && m_Batches.empty()) {
    // Nothing left of the last take: ask the producer again.
    m_pProducer->RecycleRecords(m_Incoming, m_IncomingEmptied == m_Incoming.size());
    m_IncomingNext = 0;
    m_IncomingEmptied = 0;
    m_BatchNext = 0;
    const HRESULT hr = m_pProducer->FetchRows(m_Incoming, static_cast<size_t>(wanted));
    m_pProducer->TakeBatches(m_Batches);
    if (FAILED(hr)) {
      m_Incoming.clear();
      m_Batches.clear();
      return hr;
    }
    if (hr == DB_S_ENDOFROWSET) m_bProducerDone = true;
    m_BatchRecordsLeft = 0;
    for (const auto& batch : m_Batches) m_BatchRecordsLeft += batch->Count();
  }
  // Only the rows asked for become rows: a producer may hand over far more records than
  // that (a whole page or chunk), and a row can be many times larger than its record.
  HRESULT result = S_OK;
  {
    CellRunTimer timer(m_Stopwatch);
    // The pool hands out a portion of rows under one lock, not one row at a time.
    constexpr size_t kPortion = 64;
    CRefCountedDataStoreRow* rows[kPortion];
    size_t taken = 0;
    size_t used = 0;
    ULONGLONG made = 0;
    while (made < wanted) {
      const size_t left = (m_Incoming.size() - m_IncomingNext) + m_BatchRecordsLeft;
      if (left == 0) break;
      if (m_MaxRows != 0 && m_RowsQueued >= m_MaxRows) {
        m_IncomingNext = m_Incoming.size();
        m_Batches.clear();
        m_BatchRecordsLeft = 0;
        m_bProducerDone = true;
        break;
      }
      if (used == taken) {
        // Only rows that will be filled: the records left, the rows asked for, the limit.
        ULONGLONG n = std::min<ULONGLONG>({kPortion, left, wanted - made});
        if (m_MaxRows != 0) n = std::min(n, m_MaxRows - m_RowsQueued);
        try {
          m_ReadRows.Reserve(static_cast<size_t>(n));
        } catch (const std::bad_alloc&) {
          result = E_OUTOFMEMORY;
          break;
        }
        taken = TakeRows(rows, static_cast<size_t>(n));
        used = 0;
        if (taken == 0) {
          result = E_OUTOFMEMORY;
          break;
        }
      }
      // The rows taken are no more than those asked for and allowed: a run of them all is.
      size_t run = 1;
      if (m_IncomingNext < m_Incoming.size()) {
        if (m_IncomingNext + kPrefetchRecordsAhead < m_Incoming.size())
          PrefetchRecord(m_Incoming[m_IncomingNext + kPrefetchRecordsAhead]);
        ProducedRecord& record = m_Incoming[m_IncomingNext++];
        if (FillRow(record, rows[used], timer)) {
          // Its values own nothing: emptied now, while they are in the cache, the record
          // needs no second look when it goes back to the producer.
          for (StoreValue& value : record) {
            value.Kind = StoreValue::kNone;
            V_VT(&value.Value) = VT_EMPTY;
          }
          ++m_IncomingEmptied;
        }
      } else {
        const HRESULT hr = FillFromBatch(rows + used, taken - used, timer, &run);
        if (FAILED(hr)) {
          m_Batches.clear();
          m_BatchRecordsLeft = 0;
          result = hr;
          break;
        }
      }
      for (size_t k = 0; k < run; ++k) m_ReadRows.push_back(rows[used + k]);
      used += run;
      made += run;
      m_RowsQueued += run;
    }
    if (used < taken) m_pPool->GiveBackMany(rows + used, taken - used);
  }
  if (m_bProducerDone && m_IncomingNext >= m_Incoming.size() && m_Batches.empty()) m_bEndOfData = true;
  return result;
}

HRESULT CDataStore::FillFromBatch(CRefCountedDataStoreRow** rows, size_t room, CellRunTimer& timer, size_t* run) {
  CRecordBatch& batch = *m_Batches.front();
  const size_t first = m_BatchNext;
  HRESULT hr = S_OK;
  if (first == 0 || m_BatchPlan.empty() || corvane::TraceWanted(TRACE_DETAIL)) {
    *run = 1;
    hr = FillFromRecord(batch, first, rows[0], timer);
    if (first == 0 && SUCCEEDED(hr)) PlanBatch(batch);
  } else {
    *run = std::min({room, batch.Count() - first, kDirectRunMax});
    hr = FillDirect(batch, first, rows, *run, timer);
  }
  if (FAILED(hr)) return hr;
  m_BatchRecordsLeft -= *run;
  m_BatchNext += *run;
  if (m_BatchNext == batch.Count()) {
    m_Batches.erase(m_Batches.begin());
    m_BatchNext = 0;
    m_BatchPlan.clear();
  }
  return S_OK;
}

HRESULT CDataStore::FillFromRecord(CRecordBatch& batch, size_t i, CRefCountedDataStoreRow* row, CellRunTimer& timer) {
  // Made into the same record row after row, which stays in this thread's cache.
  const HRESULT hr = batch.Make(i, m_BatchRecord);
  if (FAILED(hr)) return hr;
  if (FillRow(m_BatchRecord, row, timer)) {
    for (StoreValue& value : m_BatchRecord) {
      value.Kind = StoreValue::kNone;
      V_VT(&value.Value) = VT_EMPTY;
    }
  } else {
    for (StoreValue& value : m_BatchRecord) value.Reset();
  }
  return S_OK;
}

void CDataStore::PlanBatch(const CRecordBatch& batch) {
  using Field = CRecordBatch::Field;
  m_BatchPlan.clear();
  // Only rows whose every cell a step writes, under the one status word; a field no
  // column reads is left where it is.
  if (!m_FillStatusWord) return;
  const std::vector<Field> fields = batch.Layout();
  if (fields.size() < m_FillFields) return;
  std::vector<DirectStep> plan;
  for (const FillStep& step : m_FillSteps) {
    const Field& field = fields[step.field];
    DirectStep d{step.kind, field.form, step.vt, step.cell, field.base, field.stride, StoredText{nullptr, 0},
                 static_cast<size_t>(m_pColumnInfo[step.column].ulColumnSize)};
    bool fits = false;
    switch (field.form) {
      case Field::kShared: {
        // Lent text that the first row shares: every row gets the same cell.
        const SharedTextHit& hit = m_LastShared[step.column];
        const StoreValue* v = field.shared;
        fits = step.kind == FillStep::kWide && v && v->Kind == StoreValue::kText && !v->TextOwned &&
               hit.source == v->Text && hit.length == v->TextLength && hit.cell.text;
        d.shared = hit.cell;
        break;
      }
      case Field::kTime: fits = step.kind == FillStep::kTime; break;
      case Field::kUI4: fits = step.kind == FillStep::kFixed4 && step.vt == VT_UI4; break;
      case Field::kVariant:
        fits = step.kind == FillStep::kVariant || step.kind == FillStep::kFixed1 || step.kind == FillStep::kFixed2 ||
               step.kind == FillStep::kFixed4 || step.kind == FillStep::kFixed8;
        break;
      case Field::kText: fits = step.kind == FillStep::kWide; break;
      case Field::kElsewhere: break;
    }
    if (!fits) return;
    plan.push_back(d);
  }
  m_BatchPlan.swap(plan);
}

HRESULT CDataStore::FillDirect(CRecordBatch& batch, size_t first, CRefCountedDataStoreRow** rows, size_t n,
                               CellRunTimer& timer) {
  // A column at a time: one decision per column for the whole run, not per cell. A row
  // with a cell the plan cannot write is marked and made through its record at the end.
  static_assert(kDirectRunMax <= 64, "one bit a row");
  uint64_t failed = 0;
  timer.BeforeCell();
  for (const DirectStep& step : m_BatchPlan) {
    const BYTE* source = step.base + first * step.stride;
    switch (step.form) {
      case CRecordBatch::Field::kShared:
        for (size_t k = 0; k < n; ++k) std::memcpy(rows[k]->Buffer() + step.cell, &step.shared, sizeof step.shared);
        break;
      case CRecordBatch::Field::kTime:
        for (size_t k = 0; k < n; ++k, source += step.stride) {
          FILETIME time;
          std::memcpy(&time, source, sizeof time);
          DBTIMESTAMP ts;
          if (SameDay((static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime, &ts))
            std::memcpy(rows[k]->Buffer() + step.cell, &ts, sizeof ts);
          else
            failed |= uint64_t{1} << k;
        }
        break;
      case CRecordBatch::Field::kUI4:
        for (size_t k = 0; k < n; ++k, source += step.stride) std::memcpy(rows[k]->Buffer() + step.cell, source, 4);
        break;
      case CRecordBatch::Field::kVariant:
        if (step.kind == FillStep::kVariant) {
          for (size_t k = 0; k < n; ++k, source += step.stride) {
            BYTE* cell = rows[k]->Buffer() + step.cell;
            VARTYPE vt;
            std::memcpy(&vt, source, sizeof vt);
            // As FillUsual: a VARIANT that owns nothing, over a cell that owns nothing.
            VARTYPE old;
            std::memcpy(&old, cell, sizeof old);
            if (CRefCountedDataStoreRow::OwnsNothing(vt) && CRefCountedDataStoreRow::OwnsNothing(old))
              std::memcpy(cell, source, sizeof(VARIANT));
            else
              failed |= uint64_t{1} << k;
          }
          break;
        }
        for (size_t k = 0; k < n; ++k, source += step.stride) {
          BYTE* cell = rows[k]->Buffer() + step.cell;
          VARTYPE vt;
          std::memcpy(&vt, source, sizeof vt);
          if (vt != step.vt) {
            failed |= uint64_t{1} << k;
            continue;
          }
          CopyFixed(step.kind, cell, source + kVariantValueOffset);
        }
        break;
      case CRecordBatch::Field::kText:
        for (size_t k = 0; k < n; ++k, source += step.stride) {
          StoredText text;
          std::memcpy(&text, source, sizeof text);
          if (!text.text || text.length > step.room || (failed >> k & 1)) {
            failed |= uint64_t{1} << k;
            continue;
          }
          const StoredText stored{rows[k]->StoreText(text.text, text.length * sizeof(OLECHAR), sizeof(OLECHAR)),
                                  text.length};
          if (!stored.text) {
            failed |= uint64_t{1} << k;
            continue;
          }
          std::memcpy(rows[k]->Buffer() + step.cell, &stored, sizeof stored);
        }
        break;
      case CRecordBatch::Field::kElsewhere:
        failed = ~uint64_t{0};
        break;
    }
  }
  for (size_t k = 0; k < n; ++k) {
    if (failed >> k & 1) {
      const HRESULT hr = FillFromRecord(batch, first + k, rows[k], timer);
      if (FAILED(hr)) return hr;
    } else {
      std::memcpy(rows[k]->Buffer(), &m_FillStatusWord, sizeof m_FillStatusWord);
    }
  }
  return S_OK;
}

HRESULT CDataStore::GetNextRows(ULONGLONG skip, ULONGLONG count, std::vector<CRefCountedDataStoreRow*>& rows) {
  m_Stopwatch.Start();
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetNextRows -> m_ReadRows.size = %d"),
          static_cast<int>(m_ReadRows.size()));
  const ULONGLONG wanted = (skip > ~0ull - count) ? ~0ull : skip + count;
  while (m_ReadRows.size() < wanted && !m_bEndOfData && m_pProducer) {
    const size_t before = m_ReadRows.size();
    const HRESULT hr = PullFromProducer(wanted - m_ReadRows.size());
    if (FAILED(hr)) {
      m_Stopwatch.Stop();
      return hr;
    }
    if (m_ReadRows.size() == before) break;  // a producer that gave nothing and did not end
  }
  if (m_ReadRows.size() < skip) {
    Clear();
    return DB_S_ENDOFROWSET;
  }
  // The rows handed out leave as one block of pointers; room for them is made first, so
  // that a failure leaves the queue as it was.
  const size_t delivered = static_cast<size_t>(std::min<ULONGLONG>(count, m_ReadRows.size() - skip));
  try {
    rows.reserve(rows.size() + delivered);
  } catch (const std::bad_alloc&) {
    m_Stopwatch.Stop();
    return E_OUTOFMEMORY;
  }
  for (ULONGLONG i = 0; i < skip; ++i) m_ReadRows.pop_front()->Release();
  m_ReadRows.MoveFront(delivered, rows);
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetNextRows -> lRowsRemoved = %d"), static_cast<int>(skip + delivered));
  // Past the last row no row is made again: the kept free rows can go now.
  if (m_bEndOfData && m_ReadRows.empty() && m_pPool) m_pPool->Trim();
  m_Stopwatch.Stop();
  return delivered == count ? S_OK : DB_S_ENDOFROWSET;
}

HRESULT CDataStore::Converter(IDataConvert** convert) {
  if (!m_pConvert) {
    const HRESULT hr = corvane::CreateDataConvert(&m_pConvert);
    if (FAILED(hr)) return hr;
  }
  *convert = m_pConvert;
  return S_OK;
}

std::vector<CDataStore::BindingStep> CDataStore::PlanBindings(const DBBINDING* bindings, DBCOUNTITEM count) const {
  std::vector<BindingStep> plan(static_cast<size_t>(count));
  for (DBCOUNTITEM i = 0; i < count; ++i) {
    const DBBINDING& b = bindings[i];
    BindingStep& step = plan[static_cast<size_t>(i)];
    if (b.iOrdinal < 1 || b.iOrdinal > m_cColumns || !(b.dwPart & DBPART_VALUE) || (b.wType & DBTYPE_BYREF)) continue;
    const DataStoreColumnInfo& col = m_pColumnInfo[b.iOrdinal - 1];
    step.status = col.cbStatus;
    step.value = col.cbOffset;
    step.obValue = b.obValue;
    step.obLength = b.obLength;
    step.obStatus = b.obStatus;
    step.maxLen = b.cbMaxLen;
    step.length = (b.dwPart & DBPART_LENGTH) != 0;
    step.state = (b.dwPart & DBPART_STATUS) != 0;
    if (col.wType == DBTYPE_VARIANT) {
      if (b.wType == DBTYPE_VARIANT) {
        step.kind = BindingStep::kVariant;
      } else if (const size_t n = VerbatimSize(b.wType)) {
        step.kind = static_cast<BindingStep::Kind>(BindingStep::kVariant1 + WidthIndex(n));
        step.vt = static_cast<VARTYPE>(b.wType);
        step.size = static_cast<uint8_t>(n);
      }
    } else if (b.wType == DBTYPE_WSTR && col.wType == DBTYPE_WSTR) {
      if (b.cbMaxLen >= sizeof(OLECHAR)) step.kind = BindingStep::kWideText;
    } else if (col.wType == b.wType && col.wType == DBTYPE_DBTIMESTAMP) {
      step.kind = BindingStep::kTimestamp;
    } else if (col.wType == b.wType && VerbatimSize(col.wType) != 0) {
      const size_t n = VerbatimSize(col.wType);
      step.kind = static_cast<BindingStep::Kind>(BindingStep::kFixed1 + WidthIndex(n));
      step.size = static_cast<uint8_t>(n);
    }
  }
  for (size_t i = plan.size(); i-- > 0;) {
    const BindingStep& step = plan[i];
    plan[i].plainRest = step.kind != BindingStep::kGeneral && step.length && step.state &&
                        (i + 1 == plan.size() || plan[i + 1].plainRest);
  }
  if (!plan.empty() && plan[0].plainRest && m_cbRowSize >= sizeof(uint64_t)) {
    BYTE mask[sizeof(uint64_t)] = {};
    bool fits = true;
    for (const BindingStep& step : plan) {
      fits = fits && step.status < sizeof mask;
      if (fits) mask[step.status] = kStatusValue;
    }
    if (fits) std::memcpy(&plan[0].valuesMask, mask, sizeof mask);
  }
  return plan;
}

namespace {

// Copies `n` bytes, n even and at least 2: texts of a few dozen characters (a tag's
// name, a number's text) are moved in overlapping words rather than through a call.
inline void CopyText(BYTE* dst, const void* source, size_t n) {
  const BYTE* src = static_cast<const BYTE*>(source);
  // The first and the last `w` bytes: together every byte of [0, n) for w <= n <= 2w.
  auto ends = [&](auto word, size_t at, size_t count) {
    constexpr size_t w = sizeof word;
    decltype(word) head;
    decltype(word) tail;
    std::memcpy(&head, src + at, w);
    std::memcpy(&tail, src + at + count - w, w);
    std::memcpy(dst + at, &head, w);
    std::memcpy(dst + at + count - w, &tail, w);
  };
  struct Chunk {
    uint64_t half[2];
  };
  if (n > 32) {
    // 16 bytes at a time, the last chunk overlapping the one before: no call, so that
    // the fetch's copy saves no registers for it.
    size_t at = 0;
    for (; at + 16 < n; at += 16) {
      Chunk c;
      std::memcpy(&c, src + at, sizeof c);
      std::memcpy(dst + at, &c, sizeof c);
    }
    ends(Chunk{}, n - 16, 16);
  } else if (n > 16) {
    ends(Chunk{}, 0, n);
  } else if (n >= 8) {
    ends(uint64_t{}, 0, n);
  } else if (n >= 4) {
    ends(uint32_t{}, 0, n);
  } else {
    ends(uint16_t{}, 0, n);
  }
}

// One planned binding of a row that holds a value: false when the general path has to
// decide (the value needs the conversion service). *length receives the value's length.
inline bool CopyStep(const CDataStore::BindingStep& step, const BYTE* row, BYTE* dst, DBLENGTH* length) {
  using Step = CDataStore::BindingStep;
  const BYTE* source = row + step.value;
  // Constant sizes: a move each, not a call.
  switch (step.kind) {
    case Step::kFixed1: std::memcpy(dst, source, 1); break;
    case Step::kFixed2: std::memcpy(dst, source, 2); break;
    case Step::kFixed4: std::memcpy(dst, source, 4); break;
    case Step::kFixed8: std::memcpy(dst, source, 8); break;
    case Step::kTimestamp: {
      DBTIMESTAMP ts;
      std::memcpy(&ts, source, sizeof ts);
      // Years outside 1..9999 are for the conversion service to judge.
      if (ts.year < 1 || ts.year > 9999) return false;
      std::memcpy(dst, &ts, sizeof ts);
      *length = sizeof ts;
      return true;
    }
    case Step::kWideText: {
      const StoredText text = TextOf(source);
      const DBLENGTH bytes = text.length * sizeof(OLECHAR);
      // Text that fits with its terminator is copied whole by every conversion library.
      if (bytes > step.maxLen - sizeof(OLECHAR)) return false;
      CopyText(dst, text.text, static_cast<size_t>(bytes) + sizeof(OLECHAR));
      *length = bytes;
      return true;
    }
    case Step::kVariant: {
      VARTYPE vt;
      std::memcpy(&vt, source, sizeof vt);
      if (!CopiedAsBytes(vt)) return false;
      std::memcpy(dst, source, sizeof(VARIANT));
      *length = sizeof(VARIANT);
      return true;
    }
    case Step::kVariant1: case Step::kVariant2: case Step::kVariant4: case Step::kVariant8: {
      VARTYPE vt;
      std::memcpy(&vt, source, sizeof vt);
      if (vt != step.vt) return false;
      source += kVariantValueOffset;
      switch (step.kind) {
        case Step::kVariant1: std::memcpy(dst, source, 1); break;
        case Step::kVariant2: std::memcpy(dst, source, 2); break;
        case Step::kVariant4: std::memcpy(dst, source, 4); break;
        default: std::memcpy(dst, source, 8); break;
      }
      break;
    }
    case Step::kGeneral:
      return false;
  }
  *length = step.size;
  return true;
}

}  // namespace

bool CDataStore::CopyPlanned(const DBBINDING* bindings, DBCOUNTITEM count, const BindingStep* plan,
                             const CRefCountedDataStoreRow* row, BYTE* buffer) {
  // The traces of each copy are written by the general path.
  if (!plan || !row || !buffer || corvane::TraceWanted(TRACE_DETAIL)) return false;
  // Reading the clock costs more than the copy itself (a time-stamp read is slow on a
  // virtual machine: at one call in 16 it was an eighth of the copy's time), so one call
  // in kPlannedSample is timed and counts for all of them. Racing callers may lose a count;
  // the stopwatch's total stays an estimate of the same quality.
  const uint32_t call = m_PlannedCalls.load(std::memory_order_relaxed);
  m_PlannedCalls.store(call + 1, std::memory_order_relaxed);
  const bool timed = call % kPlannedSample == 0;
  const uint64_t start = timed ? CStopwatch::Ticks() : 0;
  (void)bindings;  // the plan holds what is needed of them
  const BYTE* rowBuffer = row->Buffer();
  if (count && plan[0].plainRest) {
    const uint64_t mask = plan[0].valuesMask;
    uint64_t statuses = 0;
    if (mask) std::memcpy(&statuses, rowBuffer, sizeof statuses);
    if (mask && (statuses & mask) == mask) {
      // Every bound column holds a value: each binding is its copy, its length and S_OK.
      for (DBCOUNTITEM i = 0; i < count; ++i) {
        const BindingStep& step = plan[i];
        DBLENGTH length;
        if (!CopyStep(step, rowBuffer, buffer + step.obValue, &length)) return false;
        const DBSTATUS ok = DBSTATUS_S_OK;
        std::memcpy(buffer + step.obLength, &length, sizeof length);
        std::memcpy(buffer + step.obStatus, &ok, sizeof ok);
      }
      if (timed) m_Stopwatch.Add((CStopwatch::Ticks() - start) * kPlannedSample);
      return true;
    }
    // Every binding a copy with its length and status: nothing to ask but null or not.
    for (DBCOUNTITEM i = 0; i < count; ++i) {
      const BindingStep& step = plan[i];
      DBLENGTH length = 0;
      DBSTATUS status = DBSTATUS_S_ISNULL;
      if (rowBuffer[step.status] != kStatusNull) {
        if (!CopyStep(step, rowBuffer, buffer + step.obValue, &length)) return false;
        status = DBSTATUS_S_OK;
      }
      std::memcpy(buffer + step.obLength, &length, sizeof length);
      std::memcpy(buffer + step.obStatus, &status, sizeof status);
    }
    if (timed) m_Stopwatch.Add((CStopwatch::Ticks() - start) * kPlannedSample);
    return true;
  }
  for (DBCOUNTITEM i = 0; i < count; ++i) {
    const BindingStep& step = plan[i];
    if (step.kind == BindingStep::kGeneral) return false;
    DBLENGTH length = 0;
    DBSTATUS status = DBSTATUS_S_ISNULL;
    if (rowBuffer[step.status] != kStatusNull) {
      if (!CopyStep(step, rowBuffer, buffer + step.obValue, &length)) return false;
      status = DBSTATUS_S_OK;
    }
    if (step.length) std::memcpy(buffer + step.obLength, &length, sizeof length);
    if (step.state) std::memcpy(buffer + step.obStatus, &status, sizeof status);
  }
  if (timed) m_Stopwatch.Add((CStopwatch::Ticks() - start) * kPlannedSample);
  return true;
}

HRESULT CDataStore::GetData(const DBBINDING* bindings, DBCOUNTITEM count, CRefCountedDataStoreRow* row,
                            BYTE* buffer, const BindingStep* plan) {
  m_Stopwatch.Start();
  auto finish = [&](HRESULT hr) {
    m_Stopwatch.Stop();
    return hr;
  };
  if (count && (!bindings || !buffer)) return finish(E_FAIL);

  const BYTE* rowBuffer = row ? row->Buffer() : nullptr;
  const DBLENGTH rowSize = row ? row->Size() : 0;
  DBCOUNTITEM succeeded = 0;
  DBCOUNTITEM failed = 0;

  for (DBCOUNTITEM i = 0; i < count; ++i) {
    const DBBINDING& b = bindings[i];
    if (plan && plan[i].kind != BindingStep::kGeneral && rowBuffer && plan[i].status < rowSize &&
        plan[i].value < rowSize && rowBuffer[plan[i].status] != kStatusNull) {
      // The copies the conversion service would make unchanged, without asking it.
      DBLENGTH length = 0;
      if (CopyStep(plan[i], rowBuffer, buffer + b.obValue, &length)) {
        if (corvane::TraceWanted(TRACE_DETAIL)) {
          TracePlannedCopy(b, plan[i].kind == BindingStep::kWideText ? length
                                                                     : m_pColumnInfo[b.iOrdinal - 1].ulColumnSize);
        }
        WriteLength(buffer, b, length);
        WriteStatus(buffer, b, DBSTATUS_S_OK);
        ++succeeded;
        continue;
      }
    }
    const HRESULT hr = GetBinding(b, rowBuffer, rowSize, buffer);
    if (FAILED(hr)) return finish(hr);
    if (hr == S_OK) {
      ++succeeded;
    } else {
      ++failed;
    }
  }

  if (failed) return finish(succeeded ? DB_S_ERRORSOCCURRED : DB_E_ERRORSOCCURRED);
  return finish(S_OK);
}

void CDataStore::TracePlannedCopy(const DBBINDING& b, DBLENGTH cbCol) {
  // The traces the conversion service's path leaves, for the same copy.
  const DataStoreColumnInfo& col = m_pColumnInfo[b.iOrdinal - 1];
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> ordinal = %d, pColCur->wType = %d, pBindCur->wType = %d"),
          static_cast<int>(b.iOrdinal), static_cast<int>(col.wType), static_cast<int>(b.wType));
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> cbCol = %d, cbDst = %d"), static_cast<int>(cbCol),
          static_cast<int>(std::min(cbCol, b.cbMaxLen)));
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> hr = %X"), static_cast<unsigned>(S_OK));
}

HRESULT CDataStore::GetBinding(const DBBINDING& b, const BYTE* rowBuffer, DBLENGTH rowSize, BYTE* buffer) {
  if (b.iOrdinal < 1 || b.iOrdinal > m_cColumns) return DB_E_BADORDINAL;
  const DataStoreColumnInfo& col = m_pColumnInfo[b.iOrdinal - 1];
  const bool valueBound = (b.dwPart & DBPART_VALUE) != 0;

  if (!rowBuffer || col.cbStatus >= rowSize || col.cbOffset >= rowSize || rowBuffer[col.cbStatus] == kStatusNull) {
    WriteStatus(buffer, b, DBSTATUS_S_ISNULL);
    WriteLength(buffer, b, 0);
    if (valueBound && (b.wType & DBTYPE_BYREF)) {
      void* null = nullptr;
      std::memcpy(buffer + b.obValue, &null, sizeof null);
    }
    return S_OK;
  }

  const BYTE* source = rowBuffer + col.cbOffset;
  const DBTYPE colBase = col.wType & ~DBTYPE_BYREF;
  const bool textCell = col.wType == DBTYPE_WSTR || col.wType == DBTYPE_STR;
  const StoredText text = textCell ? TextOf(source) : StoredText{nullptr, 0};
  DBLENGTH cbCol = col.ulColumnSize;
  if (col.wType == DBTYPE_WSTR) {
    cbCol = text.length * sizeof(OLECHAR);
  } else if (col.wType == DBTYPE_STR) {
    cbCol = text.length;
  }
  DBLENGTH cbDst = std::min(cbCol, b.cbMaxLen);

  if (valueBound && b.dwMemOwner == DBMEMOWNER_PROVIDEROWNED && (b.wType & DBTYPE_BYREF)) {
    if ((b.wType & ~DBTYPE_BYREF) != colBase) {
      // Handing out a pointer to a value of another type would mislead the consumer.
      WriteStatus(buffer, b, DBSTATUS_E_CANTCONVERTVALUE);
      WriteLength(buffer, b, 0);
      return S_FALSE;
    }
    const void* pointer = textCell ? text.text : source;
    if (col.wType & DBTYPE_BYREF) std::memcpy(&pointer, source, sizeof pointer);
    std::memcpy(buffer + b.obValue, &pointer, sizeof pointer);
    DBLENGTH length = col.ulColumnSize;
    if (textCell) {
      length = cbCol;
    } else if (colBase == DBTYPE_WSTR || colBase == DBTYPE_BSTR) {
      length = corvane::WLen(static_cast<const OLECHAR*>(pointer)) * sizeof(OLECHAR);
    } else if (colBase == DBTYPE_STR) {
      length = std::strlen(static_cast<const char*>(pointer));
    }
    WriteLength(buffer, b, length);
    WriteStatus(buffer, b, DBSTATUS_S_OK);
    return S_OK;
  }

  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> ordinal = %d, pColCur->wType = %d, pBindCur->wType = %d"),
          static_cast<int>(b.iOrdinal), static_cast<int>(col.wType), static_cast<int>(b.wType));
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> cbCol = %d, cbDst = %d"), static_cast<int>(cbCol),
          static_cast<int>(cbDst));

  if (valueBound) {
    DBLENGTH copied = 0;
    if (b.wType == DBTYPE_WSTR && col.wType == DBTYPE_WSTR && b.cbMaxLen >= sizeof(OLECHAR) &&
        cbCol <= b.cbMaxLen - sizeof(OLECHAR)) {
      // Text that fits with its terminator is copied whole by every conversion library.
      std::memcpy(buffer + b.obValue, text.text, static_cast<size_t>(cbCol) + sizeof(OLECHAR));
      CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> hr = %X"), static_cast<unsigned>(S_OK));
      WriteLength(buffer, b, cbCol);
      WriteStatus(buffer, b, DBSTATUS_S_OK);
      return S_OK;
    }
    if (CopyVerbatim(col.wType, b.wType, source, buffer + b.obValue, &copied)) {
      CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> hr = %X"), static_cast<unsigned>(S_OK));
      WriteLength(buffer, b, copied);
      WriteStatus(buffer, b, DBSTATUS_S_OK);
      return S_OK;
    }
  }

  IDataConvert* convert = nullptr;
  const HRESULT hrConvert = Converter(&convert);
  if (FAILED(hrConvert)) return hrConvert;

  // Cells are aligned for their type and text is terminated: the service reads them
  // where they are.
  void* src = const_cast<void*>(textCell ? text.text : static_cast<const void*>(source));

  void* dst;
  DBLENGTH dstMax = b.cbMaxLen;
  if (valueBound) {
    dst = buffer + b.obValue;
  } else {
    // Status and length without the value: convert into scratch and let it go.
    constexpr DBLENGTH kScratchMax = 64 * 1024;
    dstMax = std::min<DBLENGTH>(std::max<DBLENGTH>(dstMax, sizeof(VARIANT)), kScratchMax);
    m_DstScratch.assign(static_cast<size_t>(dstMax / 8 + 1), 0);
    dst = m_DstScratch.data();
  }

  DBSTATUS status = DBSTATUS_S_OK;
  HRESULT hr = convert->DataConvert(col.wType, b.wType, cbCol, &cbDst, src, dst, dstMax, DBSTATUS_S_OK, &status,
                                    b.bPrecision, b.bScale, DBDATACONVERT_LENGTHFROMNTS);
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> hr = %X"), static_cast<unsigned>(hr));
  if (FAILED(hr) && StatusIsSuccess(status)) status = DBSTATUS_E_CANTCONVERTVALUE;
  if (!valueBound && SUCCEEDED(hr)) FreeConverted(b.wType, dst);
  WriteLength(buffer, b, status == DBSTATUS_S_ISNULL ? 0 : cbDst);
  WriteStatus(buffer, b, status);
  return FAILED(hr) || !StatusIsSuccess(status) ? S_FALSE : S_OK;
}

void CDataStore::Clear() {
  while (CRefCountedDataStoreRow* row = m_ReadRows.pop_front()) row->Release();
  m_Stopwatch.Stop();
}

uint64_t CDataStore::ElapsedNanoseconds() { return m_Stopwatch.TotalNanoseconds(); }

HRESULT CDataStore::FileTimeToDate(const FILETIME& time, VARIANT* date) {
  if (!date) return E_INVALIDARG;
  SYSTEMTIME st;
  if (!FileTimeToSystemTime(&time, &st)) return E_INVALIDARG;
  const WString text = corvane::WFormat(OLESTR("%d-%d-%d %d:%d:%d"), st.wYear, st.wMonth, st.wDay, st.wHour,
                                        st.wMinute, st.wSecond);
  VariantClear(date);
  V_VT(date) = VT_BSTR;
  V_BSTR(date) = SysAllocStringLen(text.c_str(), static_cast<UINT>(text.size()));
  if (!V_BSTR(date)) {
    V_VT(date) = VT_EMPTY;
    return E_OUTOFMEMORY;
  }
  const HRESULT hr = VariantChangeType(date, date, 0, VT_DATE);
  if (FAILED(hr)) VariantClear(date);
  return hr;
}

WString CDataStore::SystemTimeToText(const SYSTEMTIME& time) {
  return corvane::WFormat(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d"), time.wYear, time.wMonth, time.wDay, time.wHour,
                          time.wMinute, time.wSecond);
}
