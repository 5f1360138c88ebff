#include "provider/store/DataStore.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "provider/Trace.h"
#include "provider/store/DataConvert.h"

using corvane::WString;

namespace {

constexpr DBTYPE kStrRef = DBTYPE_STR | DBTYPE_BYREF;
constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;
constexpr DBLENGTH kSizeUnknown = ~static_cast<DBLENGTH>(0);

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
      s.reportedSize = columnSize;
      s.valueBytes = 2 * columnSize + 2;
      s.alignment = 2;
      break;
    case DBTYPE_STR:
      s.reportedSize = columnSize;
      s.valueBytes = columnSize + 1;
      s.alignment = 1;
      break;
    case DBTYPE_DBTIMESTAMP:
      s.reportedSize = s.valueBytes = sizeof(DBTIMESTAMP);
      s.alignment = 4;
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
  return col.cbOffset < size && size - col.cbOffset - 1 >= valueBytes;
}

// The thread's ANSI code page on Windows; Windows-1252 elsewhere, as the conversion
// service reads it.
std::string ToAnsi(const OLECHAR* text, size_t n) {
  std::string out;
  if (n == 0) return out;
#ifdef _WIN32
  const int len = WideCharToMultiByte(CP_THREAD_ACP, 0, text, static_cast<int>(n), nullptr, 0, nullptr, nullptr);
  if (len > 0) {
    out.resize(static_cast<size_t>(len));
    WideCharToMultiByte(CP_THREAD_ACP, 0, text, static_cast<int>(n), &out[0], len, nullptr, nullptr);
  }
#else
  static const char16_t kHigh[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                     0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                     0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                     0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    const char16_t c = text[i];
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
      out.push_back(static_cast<char>(c));
      continue;
    }
    char mapped = '?';
    for (int k = 0; k < 32; ++k) {
      if (kHigh[k] == c) {
        mapped = static_cast<char>(0x80 + k);
        break;
      }
    }
    out.push_back(mapped);
  }
#endif
  return out;
}

size_t UnalignedWideLength(const BYTE* p, size_t maxChars) {
  size_t n = 0;
  while (n < maxChars && (p[2 * n] | p[2 * n + 1]) != 0) ++n;
  return n;
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

CDataStore::CDataStore() = default;

CDataStore::~CDataStore() {
  // The producer's worker goes first, so nothing is produced for a store that is going.
  m_pProducer.reset();
  Clear();
  const uint64_t ms = m_Stopwatch.TotalNanoseconds() / 1000000;
  if (ms != 0) CVTRACE(TRACE_INFO, OLESTR("CDataStore - elapsed time = %d ms"), static_cast<int>(ms));
  m_ReadRows.clear();
  FreeColumnInfo();
  if (m_pConvert) m_pConvert->Release();
}

void CDataStore::FreeColumnInfo() {
  if (m_pColumnInfo) {
    for (DBORDINAL i = 0; i < m_cColumns; ++i) CoTaskMemFree(m_pColumnInfo[i].pwszName);
    CoTaskMemFree(m_pColumnInfo);
  }
  m_cColumns = 0;
  m_pColumnInfo = nullptr;
  m_cbRowSize = 0;
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

  ULONGLONG offset = 0;
  size_t j = 0;
  HRESULT hr = S_OK;
  std::vector<size_t> source;
  for (size_t i = 0; i < columns.size(); ++i) {
    const CellShape& s = shapes[i];
    if (!s.kept) continue;
    // Rows are one allocation; a layout past 2 GB could never be allocated.
    constexpr ULONGLONG kMaxRow = 0x7FFFFFFFull;
    if (s.valueBytes > kMaxRow || offset + 1 + s.valueBytes + s.alignment > kMaxRow) {
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
    d.cbOffset = offset;
    offset = (offset + 1 + s.valueBytes + s.alignment - 1) / s.alignment * s.alignment;
    source.push_back(i);
  }
  m_pColumnInfo = info;
  m_cColumns = j;
  if (FAILED(hr)) {
    FreeColumnInfo();
    return hr;
  }
  m_cbRowSize = offset;
  m_ColumnSource = std::move(source);
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
  return S_OK;
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

bool CDataStore::SetValue(const StoreValue& value, const DataStoreColumnInfo& rColInfo,
                          CRefCountedDataStoreRow* row) {
  m_Stopwatch.Start();
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::SetValue -> rColInfo.wType = %d, rColInfo.cbOffset = %d"),
          static_cast<int>(rColInfo.wType), static_cast<int>(rColInfo.cbOffset));
  BYTE* buffer = row ? row->Buffer() : nullptr;
  const DBLENGTH size = row ? row->Size() : 0;
  const bool statusInside = buffer && rColInfo.cbOffset < size;
  auto setStatus = [&](BYTE s) {
    if (statusInside) buffer[rColInfo.cbOffset] = s;
  };
  auto done = [&](bool result) {
    m_Stopwatch.Stop();
    return result;
  };

  if (value.Kind == StoreValue::kNone) {
    setStatus(kStatusNull);
    return done(true);
  }

  BYTE* cell = statusInside ? buffer + rColInfo.cbOffset + 1 : nullptr;
  const VARTYPE vt = V_VT(&value.Value);
  const bool isVariant = value.Kind == StoreValue::kVariant;

  // A scalar of exactly the matching VARIANT type, written as its bytes.
  auto scalar = [&](VARTYPE expected, const void* bytes, size_t n) -> bool {
    if (!isVariant || vt != expected) return false;  // the watch keeps running: kept so
    if (CellFits(rColInfo, n, size)) {
      std::memcpy(cell, bytes, n);
      setStatus(kStatusValue);
    } else {
      setStatus(kStatusNull);
    }
    return done(true);
  };
  const VARIANT& v = value.Value;

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
      if (!isVariant) return false;
      if (!CellFits(rColInfo, sizeof(VARIANT), size)) {
        setStatus(kStatusNull);
        return done(true);
      }
      VARIANT copy;
      VariantInit(&copy);
      if (FAILED(VariantCopy(&copy, const_cast<VARIANT*>(&v)))) return done(false);
      VARIANT old;
      std::memcpy(&old, cell, sizeof old);
      VariantClear(&old);
      std::memcpy(cell, &copy, sizeof copy);
      setStatus(kStatusValue);
      return done(true);
    }

    case DBTYPE_WSTR:
    case DBTYPE_BSTR: {
      if (!isVariant || vt != VT_BSTR) return false;
      const ULONGLONG n = rColInfo.ulColumnSize;
      if (n > (size / 2) || !CellFits(rColInfo, 2 * n + 2, size)) {
        setStatus(kStatusNull);
        return done(true);
      }
      const OLECHAR* text = V_BSTR(&v);
      const size_t len = text ? SysStringLen(V_BSTR(&v)) : 0;
      const size_t copied = len <= n ? len : static_cast<size_t>(n);
      if (copied) std::memcpy(cell, text, copied * sizeof(OLECHAR));
      std::memset(cell + copied * sizeof(OLECHAR), 0, sizeof(OLECHAR));
      setStatus(len <= n ? kStatusValue : kStatusTruncated);
      return done(true);
    }

    case DBTYPE_STR: {
      if (!isVariant || vt != VT_BSTR) return false;
      const ULONGLONG n = rColInfo.ulColumnSize;
      if (n >= size || !CellFits(rColInfo, n + 1, size)) {
        setStatus(kStatusNull);
        return done(true);
      }
      const OLECHAR* text = V_BSTR(&v);
      const std::string ansi = ToAnsi(text, text ? SysStringLen(V_BSTR(&v)) : 0);
      const size_t copied = ansi.size() <= n ? ansi.size() : static_cast<size_t>(n);
      if (copied) std::memcpy(cell, ansi.data(), copied);
      cell[copied] = 0;
      setStatus(ansi.size() <= n ? kStatusValue : kStatusTruncated);
      return done(true);
    }

    case kWStrRef:
    case kStrRef: {
      if (!isVariant || vt != VT_BSTR) return false;
      if (!CellFits(rColInfo, sizeof(void*), size)) {
        setStatus(kStatusNull);
        return done(true);
      }
      const OLECHAR* text = V_BSTR(&v);
      const size_t len = text ? SysStringLen(V_BSTR(&v)) : 0;
      void* copy;
      if (rColInfo.wType == kWStrRef) {
        copy = CoTaskMemAlloc((len + 1) * sizeof(OLECHAR));
        if (!copy) return false;
        if (len) std::memcpy(copy, text, len * sizeof(OLECHAR));
        static_cast<OLECHAR*>(copy)[len] = 0;
      } else {
        const std::string ansi = ToAnsi(text, len);
        copy = CoTaskMemAlloc(ansi.size() + 1);
        if (!copy) return false;
        std::memcpy(copy, ansi.c_str(), ansi.size() + 1);
      }
      void* old = nullptr;
      std::memcpy(&old, cell, sizeof old);
      CoTaskMemFree(old);
      std::memcpy(cell, &copy, sizeof copy);
      setStatus(kStatusValue);
      return done(true);
    }

    case DBTYPE_DBTIMESTAMP: {
      if (value.Kind != StoreValue::kTime) return false;
      SYSTEMTIME st;
      if (!FileTimeToSystemTime(&value.Time, &st)) return false;
      DBTIMESTAMP ts;
      ts.year = static_cast<SHORT>(st.wYear);
      ts.month = st.wMonth;
      ts.day = st.wDay;
      ts.hour = st.wHour;
      ts.minute = st.wMinute;
      ts.second = st.wSecond;
      ts.fraction = static_cast<ULONG>(st.wMilliseconds) * 1000000u;
      if (CellFits(rColInfo, sizeof ts, size)) {
        std::memcpy(cell, &ts, sizeof ts);
        setStatus(kStatusValue);
      } else {
        setStatus(kStatusNull);
      }
      return done(true);
    }

    default:
      return false;
  }
}

CRefCountedDataStoreRow* CDataStore::NewRow() {
  const DBLENGTH size = m_cbRowSize;
  auto* buffer = static_cast<BYTE*>(CoTaskMemAlloc(size ? size : 1));
  if (!buffer) return nullptr;
  CRefCountedDataStoreRow::InitializeBuffer(buffer, size, m_pColumnInfo, m_cColumns);
  auto* row = new (std::nothrow) CRefCountedDataStoreRow(buffer, m_pColumnInfo, m_cColumns, size);
  if (!row) CoTaskMemFree(buffer);
  return row;
}

HRESULT CDataStore::FillRow(const ProducedRecord& record, CRefCountedDataStoreRow* row) {
  for (DBORDINAL j = 0; j < m_cColumns; ++j) {
    const size_t field = j < m_FieldOfColumn.size() ? m_FieldOfColumn[j] : static_cast<size_t>(j);
    if (field >= record.size()) continue;  // the row starts with every cell null
    if (!SetValue(record[field], m_pColumnInfo[j], row)) {
      BYTE* buffer = row->Buffer();
      if (buffer && m_pColumnInfo[j].cbOffset < row->Size()) buffer[m_pColumnInfo[j].cbOffset] = kStatusNull;
    }
  }
  return S_OK;
}

HRESULT CDataStore::AppendRecord(const ProducedRecord& record) {
  CRefCountedDataStoreRow* row = NewRow();
  if (!row) return E_OUTOFMEMORY;
  FillRow(record, row);
  m_ReadRows.push_back(row);
  ++m_RowsQueued;
  return S_OK;
}

HRESULT CDataStore::PullFromProducer(ULONGLONG wanted) {
  if (m_MaxRows != 0 && m_RowsQueued >= m_MaxRows) {
    m_bEndOfData = true;
    return S_OK;
  }
  m_Incoming.clear();
  const HRESULT hr = m_pProducer->FetchRows(m_Incoming, static_cast<size_t>(wanted));
  if (FAILED(hr)) {
    m_Incoming.clear();
    return hr;
  }
  if (hr == DB_S_ENDOFROWSET) m_bEndOfData = true;
  HRESULT result = S_OK;
  for (const ProducedRecord& record : m_Incoming) {
    if (m_MaxRows != 0 && m_RowsQueued >= m_MaxRows) {
      m_bEndOfData = true;
      break;
    }
    result = AppendRecord(record);
    if (FAILED(result)) break;
  }
  m_Incoming.clear();
  return result;
}

HRESULT CDataStore::GetNextRows(ULONGLONG skip, ULONGLONG count, std::vector<CRefCountedDataStoreRow*>& rows) {
  m_Stopwatch.Start();
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetNextRows -> m_ReadRows.size = %d"),
          static_cast<int>(m_ReadRows.size()));
  const ULONGLONG wanted = (skip > ~0ull - count) ? ~0ull : skip + count;
  if (m_ReadRows.size() < wanted && !m_bEndOfData && m_pProducer) {
    const HRESULT hr = PullFromProducer(wanted - m_ReadRows.size());
    if (FAILED(hr)) {
      m_Stopwatch.Stop();
      return hr;
    }
  }
  if (m_ReadRows.size() < skip) {
    Clear();
    return DB_S_ENDOFROWSET;
  }
  ULONGLONG removed = 0;
  ULONGLONG delivered = 0;
  while (removed < wanted && !m_ReadRows.empty()) {
    CRefCountedDataStoreRow* row = m_ReadRows.front();
    m_ReadRows.pop_front();
    if (removed < skip) {
      row->Release();
    } else {
      rows.push_back(row);
      ++delivered;
    }
    ++removed;
  }
  CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetNextRows -> lRowsRemoved = %d"), static_cast<int>(removed));
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

HRESULT CDataStore::GetData(const DBBINDING* bindings, DBCOUNTITEM count, CRefCountedDataStoreRow* row,
                            BYTE* buffer) {
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
    if (b.iOrdinal < 1 || b.iOrdinal > m_cColumns) return finish(DB_E_BADORDINAL);
    const DataStoreColumnInfo& col = m_pColumnInfo[b.iOrdinal - 1];
    const bool valueBound = (b.dwPart & DBPART_VALUE) != 0;

    if (!rowBuffer || col.cbOffset >= rowSize || rowBuffer[col.cbOffset] == kStatusNull) {
      WriteStatus(buffer, b, DBSTATUS_S_ISNULL);
      WriteLength(buffer, b, 0);
      if (valueBound && (b.wType & DBTYPE_BYREF)) {
        void* null = nullptr;
        std::memcpy(buffer + b.obValue, &null, sizeof null);
      }
      ++succeeded;
      continue;
    }

    const BYTE* source = rowBuffer + col.cbOffset + 1;
    const DBTYPE colBase = col.wType & ~DBTYPE_BYREF;
    const size_t maxChars = static_cast<size_t>((rowSize - col.cbOffset - 1) / 2);
    DBLENGTH cbCol = col.ulColumnSize;
    if (col.wType == DBTYPE_WSTR || col.wType == DBTYPE_BSTR) {
      cbCol = UnalignedWideLength(source, maxChars) * sizeof(OLECHAR);
    } else if (col.wType == DBTYPE_STR) {
      cbCol = strnlen(reinterpret_cast<const char*>(source), static_cast<size_t>(rowSize - col.cbOffset - 1));
    }
    DBLENGTH cbDst = std::min(cbCol, b.cbMaxLen);

    if (valueBound && b.dwMemOwner == DBMEMOWNER_PROVIDEROWNED && (b.wType & DBTYPE_BYREF)) {
      if ((b.wType & ~DBTYPE_BYREF) != colBase) {
        // Handing out a pointer to a value of another type would mislead the consumer.
        WriteStatus(buffer, b, DBSTATUS_E_CANTCONVERTVALUE);
        WriteLength(buffer, b, 0);
        ++failed;
        continue;
      }
      const void* pointer = source;
      if (col.wType & DBTYPE_BYREF) std::memcpy(&pointer, source, sizeof pointer);
      std::memcpy(buffer + b.obValue, &pointer, sizeof pointer);
      DBLENGTH length = col.ulColumnSize;
      if (colBase == DBTYPE_WSTR || colBase == DBTYPE_BSTR) {
        length = (col.wType & DBTYPE_BYREF) ? corvane::WLen(static_cast<const OLECHAR*>(pointer)) * sizeof(OLECHAR)
                                            : cbCol;
      } else if (colBase == DBTYPE_STR) {
        length = std::strlen(static_cast<const char*>(pointer));
      }
      WriteLength(buffer, b, length);
      WriteStatus(buffer, b, DBSTATUS_S_OK);
      ++succeeded;
      continue;
    }

    IDataConvert* convert = nullptr;
    const HRESULT hrConvert = Converter(&convert);
    if (FAILED(hrConvert)) return finish(hrConvert);

    CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> ordinal = %d, pColCur->wType = %d, pBindCur->wType = %d"),
            static_cast<int>(b.iOrdinal), static_cast<int>(col.wType), static_cast<int>(b.wType));
    CVTRACE(TRACE_DETAIL, OLESTR("CDataStore::GetData -> cbCol = %d, cbDst = %d"), static_cast<int>(cbCol),
            static_cast<int>(cbDst));

    // The conversion service reads aligned values; the cells are not aligned.
    alignas(8) BYTE fixed[sizeof(VARIANT)];
    void* src;
    if (col.wType == DBTYPE_WSTR || col.wType == DBTYPE_BSTR) {
      m_WideScratch.resize(cbCol / sizeof(OLECHAR) + 1);
      std::memcpy(m_WideScratch.data(), source, static_cast<size_t>(cbCol));
      m_WideScratch[cbCol / sizeof(OLECHAR)] = 0;
      src = m_WideScratch.data();
    } else if (col.wType == DBTYPE_STR) {
      src = const_cast<BYTE*>(source);
    } else {
      const size_t n = (col.wType & DBTYPE_BYREF) ? sizeof(void*) : static_cast<size_t>(col.ulColumnSize);
      std::memcpy(fixed, source, std::min(n, sizeof fixed));
      src = fixed;
    }

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
    if (FAILED(hr) || !StatusIsSuccess(status)) {
      ++failed;
    } else {
      ++succeeded;
    }
    WriteLength(buffer, b, status == DBSTATUS_S_ISNULL ? 0 : cbDst);
    WriteStatus(buffer, b, status);
  }

  if (failed) return finish(succeeded ? DB_S_ERRORSOCCURRED : DB_E_ERRORSOCCURRED);
  return finish(S_OK);
}

void CDataStore::Clear() {
  for (CRefCountedDataStoreRow* row : m_ReadRows) row->Release();
  m_ReadRows.clear();
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
