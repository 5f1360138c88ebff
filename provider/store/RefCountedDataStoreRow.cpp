#include "provider/store/RefCountedDataStoreRow.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr DBTYPE kStrRef = DBTYPE_STR | DBTYPE_BYREF;
constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;

// Values sit one byte after their status byte, so they are never aligned: every access
// goes through memcpy.
bool CellFits(DBBYTEOFFSET offset, size_t valueBytes, DBLENGTH size) {
  return offset < size && size - offset - 1 >= valueBytes;
}

bool PlainVarType(VARTYPE vt) { return CRefCountedDataStoreRow::OwnsNothing(vt); }

}  // namespace

CRefCountedDataStoreRow::CRefCountedDataStoreRow(BYTE* buffer, const DataStoreColumnInfo* columns,
                                                 DBORDINAL columnCount, DBLENGTH size)
    : m_pBuffer(buffer), m_pColumns(columns), m_cColumns(columnCount), m_cbSize(size) {}

CRefCountedDataStoreRow::~CRefCountedDataStoreRow() {
  ReleaseBuffer(m_pBuffer, m_cbSize, m_pColumns, m_cColumns);
}

ULONG CRefCountedDataStoreRow::Release() {
  const ULONG left = --m_cRef;
  if (left == 0) {
    if (m_pPool) {
      m_pPool->GiveBack(this);
    } else {
      delete this;
    }
  }
  return left;
}

void CRefCountedDataStoreRow::InitializeBuffer(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns,
                                               DBORDINAL count) {
  if (!buffer) return;
  for (DBORDINAL i = 0; i < count; ++i) {
    const DataStoreColumnInfo& col = columns[i];
    if (col.cbOffset >= size) continue;
    buffer[col.cbOffset] = 0;
    if (col.wType == DBTYPE_VARIANT && CellFits(col.cbOffset, sizeof(VARIANT), size)) {
      VARIANT empty;
      VariantInit(&empty);
      std::memcpy(buffer + col.cbOffset + 1, &empty, sizeof empty);
    } else if ((col.wType == kStrRef || col.wType == kWStrRef) && CellFits(col.cbOffset, sizeof(void*), size)) {
      void* null = nullptr;
      std::memcpy(buffer + col.cbOffset + 1, &null, sizeof null);
    }
  }
}

namespace {

// Clears VARIANT cells and frees by-reference strings, leaving the buffer itself.
void ReleaseContents(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns, DBORDINAL count) {
  for (DBORDINAL i = 0; columns && i < count; ++i) {
    const DataStoreColumnInfo& col = columns[i];
    BYTE* value = buffer + col.cbOffset + 1;
    if (col.wType == DBTYPE_VARIANT && CellFits(col.cbOffset, sizeof(VARIANT), size)) {
      VARTYPE vt;
      std::memcpy(&vt, value, sizeof vt);
      if (PlainVarType(vt)) {
        // All VariantClear would do.
        const VARTYPE empty = VT_EMPTY;
        std::memcpy(value, &empty, sizeof empty);
        continue;
      }
      VARIANT v;
      std::memcpy(&v, value, sizeof v);
      VariantClear(&v);
      std::memcpy(value, &v, sizeof v);
    } else if ((col.wType == kStrRef || col.wType == kWStrRef) && CellFits(col.cbOffset, sizeof(void*), size)) {
      void* text = nullptr;
      std::memcpy(&text, value, sizeof text);
      CoTaskMemFree(text);
      text = nullptr;
      std::memcpy(value, &text, sizeof text);
    }
  }
}

}  // namespace

void CRefCountedDataStoreRow::ReleaseBuffer(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns,
                                            DBORDINAL count) {
  if (!buffer) return;
  ReleaseContents(buffer, size, columns, count);
  CoTaskMemFree(buffer);
}

// ---- Pool

CRefCountedDataStoreRow::Pool::Pool(const DataStoreColumnInfo* columns, DBORDINAL count, DBLENGTH rowSize)
    : m_pColumns(columns),
      m_cColumns(count),
      m_cbRowSize(rowSize),
      m_MaxFree(std::min<size_t>(kMaxFreeRows, kMaxFreeBytes / static_cast<size_t>(std::max<DBLENGTH>(rowSize, 1)))) {}

CRefCountedDataStoreRow* CRefCountedDataStoreRow::Pool::Take() {
  Lock();
  CRefCountedDataStoreRow* row = m_pFree;
  if (row) {
    m_pFree = row->m_pNext;
    --m_cFree;
  }
  ++m_cOut;
  Unlock();

  if (row) {
    row->m_pNext = nullptr;
    row->m_cRef.store(1, std::memory_order_relaxed);
    // Released contents are already empty cells; only the status bytes still say
    // what the previous row held.
    BYTE* buffer = row->m_pBuffer;
    for (DBORDINAL i = 0; i < m_cColumns; ++i) {
      if (m_pColumns[i].cbOffset < m_cbRowSize) buffer[m_pColumns[i].cbOffset] = 0;
    }
    return row;
  }

  auto* buffer = static_cast<BYTE*>(CoTaskMemAlloc(m_cbRowSize ? m_cbRowSize : 1));
  if (buffer) {
    InitializeBuffer(buffer, m_cbRowSize, m_pColumns, m_cColumns);
    row = new (std::nothrow) CRefCountedDataStoreRow(buffer, m_pColumns, m_cColumns, m_cbRowSize);
    if (!row) CoTaskMemFree(buffer);
  }
  if (!row) {
    Lock();
    --m_cOut;
    const bool last = m_bDetached && m_cOut == 0;
    Unlock();
    if (last) delete this;
    return nullptr;
  }
  row->m_pPool = this;
  return row;
}

void CRefCountedDataStoreRow::Pool::Destroy(CRefCountedDataStoreRow* row) {
  row->m_pPool = nullptr;
  delete row;
}

void CRefCountedDataStoreRow::Pool::GiveBack(CRefCountedDataStoreRow* row) {
  ReleaseContents(row->m_pBuffer, row->m_cbSize, row->m_pColumns, row->m_cColumns);
  Lock();
  --m_cOut;
  const bool keep = !m_bDetached && m_cFree < m_MaxFree;
  if (keep) {
    row->m_pNext = m_pFree;
    m_pFree = row;
    ++m_cFree;
  }
  const bool last = m_bDetached && m_cOut == 0;
  Unlock();
  if (!keep) Destroy(row);
  if (last) delete this;
}

void CRefCountedDataStoreRow::Pool::Trim() {
  Lock();
  CRefCountedDataStoreRow* free = m_pFree;
  m_pFree = nullptr;
  m_cFree = 0;
  m_MaxFree = 0;
  Unlock();
  while (free) {
    CRefCountedDataStoreRow* next = free->m_pNext;
    Destroy(free);
    free = next;
  }
}

void CRefCountedDataStoreRow::Pool::Detach() {
  Trim();
  Lock();
  m_bDetached = true;
  const bool last = m_cOut == 0;
  Unlock();
  if (last) delete this;
}
